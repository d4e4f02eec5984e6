#pragma once
// What may be set, in one table: by operators in files and on the command line, and by running code. Pure data.

#include <cstdint>
#include <limits>
#include <string_view>

namespace VexCore {

enum class SettingKind {
    Flag, ///< true or false, yes or no, 1 or 0
    Switch, ///< the same, and on or off
    Number,
    Size, ///< a number of bytes, which may have K, M, G or T behind it
    Mode, ///< octal digits of access rights, which let nobody but the owner write
    Time, ///< a number of seconds, which may have s, m, h or d behind it
    Choice, ///< one of some words
    List, ///< words with a separator between them
    Path,
    Text,
};

/// Where the value comes from. What stands elsewhere in a file counts for nothing.
enum class SettingPlace {
    Settings, ///< the group [settings] of a file, or the domain
    TopOfFile, ///< before the first group of the local or the global file, by the name that the table has
    CommandLine, ///< an option of the launcher, or what it finds out by itself
    Process, ///< code that runs
};

struct Setting
{
    const char* key; ///< NAME as its last part stands for any name
    SettingKind kind;
    const char* unit; ///< of a number; empty where there is none
    std::int64_t standard; ///< the default; 0 or 1 for a flag or a switch, of a choice the place of the word, from 0
    std::int64_t least;
    std::int64_t most;
    SettingPlace place;
    const char* help;
    const char* words = nullptr; ///< of a choice, a blank between two
};

constexpr std::int64_t unlimited = std::numeric_limits<std::int64_t>::max();
/// Instead of a default: where nobody says anything there is no value, or another library's own counts.
constexpr std::int64_t noStandard = std::numeric_limits<std::int64_t>::min();

/// What syslog(3) calls its facilities, but for the kernel's own.
inline constexpr char facilityWords[] = "off auth authpriv cron daemon ftp lpr mail news syslog user uucp "
                                        "local0 local1 local2 local3 local4 local5 local6 local7";
/// In the order of LogLevel, from its second on.
inline constexpr char levelWords[] = "error warning message info debug trace";

/// docs/SETTINGS.md has the same for operators, with what each means in full. Those below "vex." are read by Lua code,
/// which asks vex.settings for their defaults.
inline constexpr Setting knownSettings[] = {
    {"DumpLevel", SettingKind::Number, "", 0, noStandard, unlimited, SettingPlace::TopOfFile,
     "other than 0: crash dumps have all memory maps"},
    {"Trace", SettingKind::List, "", noStandard, 0, 0, SettingPlace::TopOfFile, "modules that are traced"},
    {"app.background", SettingKind::Flag, "", noStandard, 0, 1, SettingPlace::CommandLine,
     "whether the agent runs in the background"},
    {"app.events.keepdays", SettingKind::Number, "days", 90, 1, 1000000, SettingPlace::Settings,
     "agent events that are older go"},
    {"app.events.keeprows", SettingKind::Number, "events", 100000, 1, unlimited, SettingPlace::Settings,
     "agent events beyond so many go"},
    {"app.fulldump", SettingKind::Flag, "", 0, 0, 1, SettingPlace::CommandLine,
     "whether crash dumps have all memory maps: DumpLevel"},
    {"app.log.count", SettingKind::Number, "files", 5, 1, 10000, SettingPlace::Settings,
     "rotated log files that are kept"},
    {"app.log.size", SettingKind::Size, "bytes", 10 * 1024 * 1024, 4096, unlimited, SettingPlace::Settings,
     "size at which the log file is rotated"},
    {"app.log.syslog", SettingKind::Choice, "", 0, 0, 19, SettingPlace::Settings,
     "facility with which lines of the log go to syslog(3) too", facilityWords},
    {"app.log.syslog.level", SettingKind::Choice, "", 3, 0, 5, SettingPlace::Settings,
     "least level of lines that go to syslog(3)", levelWords},
    {"app.lua.cache", SettingKind::Flag, "", 1, 0, 1, SettingPlace::Settings,
     "whether compiled chunks are kept between runs"},
    {"app.lua.cpath", SettingKind::List, "", noStandard, 0, 0, SettingPlace::CommandLine,
     "the front of package.cpath: --lua_cpath"},
    {"app.lua.path", SettingKind::List, "", noStandard, 0, 0, SettingPlace::CommandLine,
     "the front of package.path: --lua_path"},
    {"app.lua.zippath", SettingKind::List, "", noStandard, 0, 0, SettingPlace::CommandLine,
     "archives with Lua modules: --zippath, --extdir"},
    {"app.mode.unittest", SettingKind::Flag, "", noStandard, 0, 1, SettingPlace::CommandLine,
     "whether unit tests run: --test, --unittest"},
    {"app.name", SettingKind::Text, "", noStandard, 0, 0, SettingPlace::CommandLine,
     "the application's name: --appname"},
    {"app.out", SettingKind::Switch, "", 1, 0, 1, SettingPlace::Settings,
     "whether metrics and the report are written for collectors"},
    {"app.out.group", SettingKind::Text, "", noStandard, 0, 0, SettingPlace::Settings, "the group that may read them"},
    {"app.out.mode", SettingKind::Mode, "", 0750, 0700, 0755, SettingPlace::Settings, "access rights of their folder"},
    {"app.path.bin", SettingKind::Path, "", noStandard, 0, 0, SettingPlace::CommandLine,
     "the folder of the executable"},
    {"app.path.exe", SettingKind::Path, "", noStandard, 0, 0, SettingPlace::CommandLine, "the executable"},
    {"app.path.hv", SettingKind::Path, "", noStandard, 0, 0, SettingPlace::CommandLine, "the folder of the product"},
    {"app.path.ini", SettingKind::Path, "", noStandard, 0, 0, SettingPlace::CommandLine,
     "the local configuration file"},
    {"app.path.ini.global", SettingKind::Path, "", noStandard, 0, 0, SettingPlace::CommandLine,
     "the system's configuration file"},
    {"app.path.lib", SettingKind::Path, "", noStandard, 0, 0, SettingPlace::CommandLine, "the folder of the libraries"},
    {"app.path.work", SettingKind::Path, "", noStandard, 0, 0, SettingPlace::CommandLine, "the work folder: --workdir"},
    {"app.plugins", SettingKind::List, "", noStandard, 0, 0, SettingPlace::CommandLine,
     "plugins that are enabled: --plugins"},
    {"app.trace", SettingKind::List, "", noStandard, 0, 0, SettingPlace::CommandLine,
     "modules that are traced: --trace"},
    {"app.trace+", SettingKind::List, "", noStandard, 0, 0, SettingPlace::CommandLine,
     "more modules that are traced: Trace"},
    {"app.unzip.maxbytes", SettingKind::Size, "bytes", 4294967296, 1, unlimited, SettingPlace::Settings,
     "size of an unpacked archive"},
    {"app.unzip.maxentries", SettingKind::Number, "entries", 100000, 1, unlimited, SettingPlace::Settings,
     "entries of an archive"},
    {"app.version", SettingKind::Text, "", noStandard, 0, 0, SettingPlace::CommandLine, "version and build"},
    {"sqlite.config.busy_timeout", SettingKind::Number, "milliseconds", 2000, 0, 3600000, SettingPlace::TopOfFile,
     "how long another process's lock is waited for"},
    {"sqlite.config.cache_size", SettingKind::Number, "pages", noStandard, noStandard, unlimited,
     SettingPlace::TopOfFile, "pages that a connection keeps, or KiB when negative"},
    {"sqlite.config.journal_size_limit", SettingKind::Number, "bytes", noStandard, -1, unlimited,
     SettingPlace::TopOfFile, "size that a journal keeps; -1: any"},
    {"sqlite.config.memstatus", SettingKind::Number, "", noStandard, 0, 1, SettingPlace::TopOfFile,
     "1: SQLite counts its memory"},
    {"sqlite.config.mmap_size", SettingKind::Number, "bytes", noStandard, 0, unlimited, SettingPlace::TopOfFile,
     "how much of a database is mapped into memory"},
    {"sqlite.config.soft_heap_limit", SettingKind::Number, "bytes", noStandard, 0, unlimited, SettingPlace::TopOfFile,
     "memory that SQLite tries to stay below; 0: any"},
    {"sqlite.config.synchronous", SettingKind::Number, "", 2, 0, 3, SettingPlace::TopOfFile,
     "0 off, 1 normal, 2 full, 3 extra"},
    {"vex.CollectInterval", SettingKind::Time, "seconds", 300, 1, unlimited, SettingPlace::Settings,
     "between two collections of a plugin"},
    {"vex.CollectNow", SettingKind::Flag, "", noStandard, 0, 1, SettingPlace::Process,
     "asks all plugins to collect at once"},
    {"vex.HeartbeatInterval", SettingKind::Time, "seconds", 60, 1, unlimited, SettingPlace::Settings,
     "between two heartbeats"},
    {"vex.HeartbeatKeepDays", SettingKind::Number, "days", 30, 1, unlimited, SettingPlace::Settings,
     "heartbeats that are older go"},
    {"vex.HeartbeatKeepRows", SettingKind::Number, "heartbeats", 50000, 1, unlimited, SettingPlace::Settings,
     "heartbeats beyond so many go"},
    {"vex.HeartbeatNow", SettingKind::Flag, "", noStandard, 0, 1, SettingPlace::Process,
     "asks for a heartbeat at once"},
    {"vex.Plugin.NAME", SettingKind::Switch, "", 0, 0, 1, SettingPlace::Settings, "on: the plugin is loaded"},
    {"vex.Spread", SettingKind::Switch, "", 1, 0, 1, SettingPlace::Settings,
     "whether heartbeats and collections of many hosts are spread over their interval"},
};

/// Whether the row is that of the key. `Same` compares two parts of equal length.
template <typename Same>
constexpr bool IsRowOf(const Setting& setting, std::string_view key, Same&& same)
{
    constexpr std::string_view anyName = "NAME";
    std::string_view own = setting.key;
    if (own.size() > anyName.size() && own.substr(own.size() - anyName.size()) == anyName) {
        own.remove_suffix(anyName.size());
        return key.size() > own.size() && same(own, key.substr(0, own.size()));
    }
    return key.size() == own.size() && same(own, key);
}

/// Null when there is no such setting. Keys are the same in any case in a file, but not here.
constexpr const Setting* FindSetting(std::string_view key)
{
    for (const Setting& setting : knownSettings)
        if (IsRowOf(setting, key, [](std::string_view a, std::string_view b) { return a == b; }))
            return &setting;
    return nullptr;
}

/// The default of a setting that is in the table, also for constants.
constexpr std::int64_t StandardOf(std::string_view key)
{
    return FindSetting(key)->standard;
}

constexpr bool IsInteger(SettingKind kind)
{
    return kind == SettingKind::Number || kind == SettingKind::Size || kind == SettingKind::Time
           || kind == SettingKind::Mode;
}

constexpr bool IsTruth(SettingKind kind)
{
    return kind == SettingKind::Flag || kind == SettingKind::Switch;
}

} // namespace VexCore
