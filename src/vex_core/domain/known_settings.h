#pragma once
// The settings that operators may write below "app." and "vex.", in one table.
// Those below "sqlite.config" are SQLite's and stand with its room.

#include <cstdint>
#include <limits>
#include <string_view>

namespace VexCore {

enum class SettingKind { Bool, Int };

struct Setting
{
    const char* key;
    SettingKind type;
    std::int64_t standard; ///< the default; 0 or 1 for a boolean
    std::int64_t least;
    std::int64_t most;
};

constexpr std::int64_t unlimited = std::numeric_limits<std::int64_t>::max();

/// docs/SETTINGS.md has the same for operators, with what each means. Those below "vex." are read by Lua code, which
/// asks vex.settings for their defaults.
inline constexpr Setting knownSettings[] = {
    {"app.events.keepdays", SettingKind::Int, 90, 1, 1000000}, // days
    {"app.events.keeprows", SettingKind::Int, 100000, 1, unlimited}, // rows
    {"app.log.count", SettingKind::Int, 5, 1, 10000}, // files
    {"app.log.size", SettingKind::Int, 10 * 1024 * 1024, 4096, unlimited}, // bytes
    {"app.lua.cache", SettingKind::Bool, true, false, true},
    {"app.unzip.maxbytes", SettingKind::Int, static_cast<std::int64_t>(4) << 30, 1, unlimited}, // bytes
    {"app.unzip.maxentries", SettingKind::Int, 100000, 1, unlimited}, // entries
    {"vex.CollectInterval", SettingKind::Int, 300, 1, unlimited}, // seconds
    {"vex.HeartbeatInterval", SettingKind::Int, 60, 1, unlimited}, // seconds
    {"vex.HeartbeatKeepDays", SettingKind::Int, 30, 1, unlimited}, // days
    {"vex.HeartbeatKeepRows", SettingKind::Int, 50000, 1, unlimited}, // rows
};

/// Null when there is no such setting. Keys are the same in any case in a file, but not here.
constexpr const Setting* FindSetting(std::string_view key)
{
    for (const Setting& setting : knownSettings)
        if (key == setting.key)
            return &setting;
    return nullptr;
}

/// The default of a setting that is in the table, also for constants.
constexpr std::int64_t StandardOf(std::string_view key)
{
    return FindSetting(key)->standard;
}

} // namespace VexCore
