#pragma once
// All files that settings come from, and which of them wins.

#include "vex_core/domain/settings_file.h"
#include "vex_core/domain/settings_report.h"

#include <cstdint>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace VexCore {

class CDom;

/// What "app.path.ini" and "app.path.ini.global" name; empty where nothing is known.
struct SettingsPaths
{
    std::string local;
    std::string global;
};

/// The folder of the drop-ins of that global file: NAME.d for NAME.conf.
std::string DropInFolder(const std::string& global);

/// An entry counts from the first of these that has it: the global file where its name begins with "!", the local file,
/// the drop-ins (those with ".conf" at their end; the last by name first), the global file. The local file is looked at
/// each time that it is asked, the others, which are the system's, at most once a second. Any thread.
class SettingsSources
{
public:
    /// `now` is another than the system's clock in tests.
    explicit SettingsSources(
        SettingsFile::Place local = SettingsFile::Place::WorkFolder,
        std::time_t (*now)() = [] { return std::time(nullptr); })
        : m_now(now), m_local(local)
    {}

    /// `name` in any case.
    bool Find(const SettingsPaths& paths, std::string_view name, std::string& value);
    /// The names that begin with `start`, which is in any case; one that several files have comes once.
    std::vector<std::string> NamesThatBegin(const SettingsPaths& paths, std::string_view start);
    /// Another number each time that the entries became others.
    std::uint64_t Generation(const SettingsPaths& paths);
    /// For a report on them: the local file, the drop-ins, the global file. One that is not there is left out.
    std::vector<SettingsSource> Sources(const SettingsPaths& paths);

private:
    void Look(const SettingsPaths& paths);
    bool LookAtDropIns(const std::string& global);
    void Merge();

    std::time_t (*const m_now)();
    std::mutex m_lock; // guards all below
    SettingsFile m_local;
    SettingsFile m_global{SettingsFile::Place::System};
    std::vector<std::unique_ptr<SettingsFile>> m_dropIns; // the last by name first
    std::string m_folderRefused; // why there are none, where their folder cannot be read
    std::string m_globalPath; // of the last look at the system's files
    std::time_t m_seen = 0; // when that was
    SettingsEntries m_entries; // those that count
    std::uint64_t m_generation = 0;
};

/// Those of the root of this domain, by its keys as they are now.
std::vector<SettingsSource> SourcesOfSettings(const CDom& dom);

} // namespace VexCore
