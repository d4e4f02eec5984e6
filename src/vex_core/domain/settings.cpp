// The domain answers for key and file (`CDom::GetSetting`), the table for type, range and default: here is how they
// make one value, and what a watch compares.

#include "vex_core/domain/settings.h"

#include "vex_core/domain/known_settings.h"

#include <algorithm>

#include <wx/debug.h>

namespace VexCore {

namespace {
// The root's key that names the file: another file has other settings.
constexpr const char* fileKey = "app.path.ini";

std::vector<std::string> WithFile(std::vector<std::string> keys)
{
    keys.emplace_back(fileKey);
    return keys;
}

} // namespace

std::int64_t IntSetting(const CDom& dom, const char* key)
{
    const Setting* const setting = FindSetting(key);
    wxCHECK_MSG(setting && setting->type == SettingKind::Int, 0, key);
    std::int64_t value = 0;
    if (!dom.GetSetting(key, value) || (value <= 0 && value < setting->least))
        return setting->standard;
    return std::clamp(value, setting->least, setting->most);
}

bool BoolSetting(const CDom& dom, const char* key)
{
    const Setting* const setting = FindSetting(key);
    wxCHECK_MSG(setting && setting->type == SettingKind::Bool, false, key);
    bool value = setting->standard != 0;
    dom.GetSetting(key, value);
    return value;
}

SettingsWatch::SettingsWatch(std::vector<std::string> keys)
    : m_observer(WithFile(std::move(keys)), [this] { m_written = true; })
{}

SettingsWatch::SettingsWatch(const CDom& dom, const std::vector<std::string>& keys)
    : m_observer(dom, keys, [this] { m_written = true; }, {fileKey})
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
