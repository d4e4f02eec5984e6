#include "vex_core/domain/near_settings.h"

#include "vex_core/base/ascii.h"
#include "vex_core/domain/known_settings.h"

#include <algorithm>
#include <numeric>
#include <vector>

namespace VexCore {

namespace {
constexpr std::string_view pluginPrefix = "vex.Plugin.";
// A name that is longer than any key by more than this is near to none, and is not compared.
constexpr std::size_t maxLength = 60;

// How far a name may be from what was meant. A short word is soon near to another, and the parts before the last say
// little: many keys have them in common.
std::size_t Tolerance(std::string_view name)
{
    const std::size_t letters = name.size() - (name.rfind('.') + 1);
    return std::min<std::size_t>(3, (letters + 1) / 4);
}

std::string_view FirstPart(std::string_view name)
{
    return name.substr(0, name.find('.'));
}

// How far the name is from the key. A plugin's name has the plugin's before its first dot, and a word without one may
// be anybody's, so of these only what is hardly meant otherwise is near.
std::size_t DistanceTo(std::string_view key, std::string_view name)
{
    constexpr std::size_t minWord = 8;
    constexpr std::size_t far = maxLength;
    const std::size_t distance = EditDistance(key, name);
    if (IsSameInAnyCase(FirstPart(key), FirstPart(name)))
        return distance;
    if (name.find('.') != std::string_view::npos) {
        const std::string_view first = FirstPart(name);
        const bool isRestSame = IsSameInAnyCase(key.substr(FirstPart(key).size()), name.substr(first.size()));
        return isRestSame && distance == 1 ? distance : far;
    }
    return name.size() < minWord ? far : std::min(distance, EditDistance(key.substr(key.rfind('.') + 1), name));
}

// A misspelt beginning of the keys that enable plugins, whose last part is anybody's.
std::string NearestPluginSwitch(std::string_view name)
{
    const std::size_t first = name.find('.');
    const std::size_t second = first == std::string_view::npos ? first : name.find('.', first + 1);
    if (second == std::string_view::npos || second + 1 == name.size())
        return std::string();
    const std::string_view start = name.substr(0, second);
    const bool isNear = DistanceTo(pluginPrefix.substr(0, pluginPrefix.size() - 1), start) <= Tolerance(start);
    return isNear ? std::string(pluginPrefix).append(name.substr(second + 1)) : std::string();
}

std::string Nearest(std::string_view name, SettingPlace place,
                    std::size_t (*distanceTo)(std::string_view key, std::string_view name))
{
    if (name.size() > maxLength)
        return std::string();
    std::string_view nearest;
    std::size_t least = Tolerance(name) + 1;
    for (const Setting& setting : knownSettings) {
        const bool compared = setting.place == place && !StartsWith(setting.key, pluginPrefix);
        const std::size_t distance = compared ? distanceTo(setting.key, name) : least;
        if (distance < least) {
            least = distance;
            nearest = setting.key;
        }
    }
    return std::string(nearest);
}

} // namespace

std::size_t EditDistance(std::string_view a, std::string_view b)
{
    std::vector<std::size_t> beforeLast(b.size() + 1);
    std::vector<std::size_t> last(b.size() + 1);
    std::iota(last.begin(), last.end(), 0);
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::vector<std::size_t> row(b.size() + 1, i);
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const char x = LowerAscii(a[i - 1]);
            const char y = LowerAscii(b[j - 1]);
            row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + (x == y ? 0 : 1)});
            if (i > 1 && j > 1 && x == LowerAscii(b[j - 2]) && y == LowerAscii(a[i - 2]))
                row[j] = std::min(row[j], beforeLast[j - 2] + 1);
        }
        beforeLast = std::move(last);
        last = std::move(row);
    }
    return last.back();
}

bool IsNameOfHost(std::string_view name)
{
    for (const std::string_view start : {"app.", "vex.", "sqlite.config"})
        if (IsSameInAnyCase(name.substr(0, start.size()), start))
            return true;
    return false;
}

std::string NearestSetting(std::string_view name)
{
    const std::string plugin = NearestPluginSwitch(name);
    return plugin.empty() ? Nearest(name, SettingPlace::Settings, DistanceTo) : plugin;
}

std::string NearestAtTop(std::string_view name)
{
    return Nearest(name, SettingPlace::TopOfFile, EditDistance);
}

bool IsNearSettingsGroup(std::string_view group)
{
    constexpr std::string_view name = "settings";
    if (group.size() > maxLength)
        return false;
    const std::size_t first = group.find_first_not_of(" \t");
    const std::string_view bare =
        first == std::string_view::npos ? group : group.substr(first, group.find_last_not_of(" \t") - first + 1);
    const std::size_t distance = EditDistance(bare, name);
    return distance <= 2 && (distance > 0 || bare.size() != group.size());
}

} // namespace VexCore
