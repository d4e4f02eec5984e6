// The domain answers for key and files (`CDom::GetSetting`), the table for type, range and default: here is how they
// make one value, and what a watch compares.

#include "vex_core/domain/settings.h"

#include "vex_core/base/text.h"
#include "vex_core/domain/known_settings.h"
#include "vex_core/domain/setting_value.h"
#include "vex_core/domain/settings_sources.h"

#include <map>

#include <wx/debug.h>
#include <wx/log.h>

namespace VexCore {

namespace {
// The root's keys that name the files: another file has other settings.
constexpr const char* fileKeys[] = {"app.path.ini", "app.path.ini.global"};

std::vector<std::string> WithFiles(std::vector<std::string> keys)
{
    keys.insert(keys.end(), std::begin(fileKeys), std::end(fileKeys));
    return keys;
}

} // namespace

std::int64_t IntSetting(const CDom& dom, const char* key)
{
    const Setting* const setting = FindSetting(key);
    wxCHECK_MSG(setting && IsInteger(setting->kind), 0, key);
    std::int64_t value = 0;
    return dom.GetSetting(key, value) ? WithinRange(*setting, value) : setting->standard;
}

bool BoolSetting(const CDom& dom, const char* key)
{
    const Setting* const setting = FindSetting(key);
    wxCHECK_MSG(setting && IsTruth(setting->kind), false, key);
    bool value = setting->standard != 0;
    dom.GetSetting(key, value);
    return value;
}

std::int64_t ChoiceSetting(const CDom& dom, const char* key)
{
    const Setting* const setting = FindSetting(key);
    wxCHECK_MSG(setting && setting->kind == SettingKind::Choice, 0, key);
    std::int64_t value = setting->standard;
    if (std::string text; dom.GetSetting(key, text))
        ChoiceFromSetting(*setting, text, value);
    return value;
}

void WarnOfSettings(const CDom& dom)
{
    constexpr unsigned long maxLines = 50;
    std::map<std::string, std::string> domain;
    for (const std::string& key : dom.Keys(""))
        if (std::string text; dom.Get(key.c_str(), text))
            domain.emplace(key, text);
    unsigned long count = 0;
    for (const SettingFinding& finding : ReportOn(SourcesOfSettings(dom), domain).findings)
        if (finding.toldAtStart && ++count <= maxLines)
            wxLogWarning(wxS("%s"), TextWithoutNul(finding.text));
    if (count > maxLines)
        wxLogWarning(wxS("%lu more lines about the settings are left out"), count - maxLines);
}

SettingsWatch::SettingsWatch(std::vector<std::string> keys)
    : m_observer(WithFiles(std::move(keys)), [this] { m_written = true; })
{}

SettingsWatch::SettingsWatch(const CDom& dom, const std::vector<std::string>& keys)
    : m_observer(
        dom, keys, [this] { m_written = true; }, WithFiles({}))
{}

bool SettingsWatch::IsDue() const
{
    return m_written.load(std::memory_order_relaxed)
           || m_fileSeen.load(std::memory_order_relaxed) != std::time(nullptr);
}

bool SettingsWatch::TakeChange(const CDom& dom)
{
    if (!IsDue())
        return false;
    m_fileSeen.store(std::time(nullptr), std::memory_order_relaxed);
    const bool written = m_written.exchange(false); // before the values are read: a later write is a change of its own
    const std::uint64_t generation = SettingsGeneration(dom);
    return m_generation.exchange(generation) != generation || written;
}

} // namespace VexCore
