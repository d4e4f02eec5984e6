#pragma once
// The file that "app.path.ini" names, as a source of settings.

#include "vex_core/domain/config_text.h"
#include "vex_core/os/file_identity.h"

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace VexCore {

/// The group [settings] of such a file, read when it is first asked for and again when it is another file or has
/// changed. Any thread.
class SettingsFile
{
public:
    using Entries = SettingsEntries;

    /// `parse` is another than `ParseSettings` in tests.
    explicit SettingsFile(Entries (*parse)(std::string_view bytes) = ParseSettings) : m_parse(parse) {}

    /// False when the file cannot be read, when somebody else had a hand in it (os/guarded_place.h), and when it has no
    /// such entry. `name` in any case.
    bool Find(const std::string& path, std::string_view name, std::string& value);

    /// The names that begin with `start`, which is in any case.
    std::vector<std::string> NamesThatBegin(const std::string& path, std::string_view start);

    /// Another number each time that the entries became others, by the file as it is now.
    std::uint64_t Generation(const std::string& path);

private:
    void Refresh(const std::string& path);
    void Take(Entries entries);

    Entries (*const m_parse)(std::string_view bytes);
    std::mutex m_lock;
    std::string m_path; // what was read last; guarded by m_lock, like all below
    os::FileIdentity m_version;
    bool m_readable = false;
    // What was read from a file so new that a later change may not show in its time.
    std::optional<std::string> m_unsettled;
    Entries m_entries;
    std::uint64_t m_generation = 0;
};

} // namespace VexCore
