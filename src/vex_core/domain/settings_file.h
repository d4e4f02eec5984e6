#pragma once

#include "vex_core/os/file_identity.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

#include <sys/types.h>

namespace VexCore {

/// The group [settings] of a configuration file. Lines are `name = value`; names and the group's name in any case, as in the
/// rest of that file; ";" and "#" begin a comment line; a value may stand in double quotes; $NAME, ${NAME} and $(NAME) are
/// replaced by the environment's value where there is one, `\$` stands for a dollar. The last of several entries wins.
/// Bytes that make no sense are passed over: nothing here logs, because the log asks for settings itself.
std::map<std::string, std::string> ParseSettings(std::string_view content);

/// Such a file, read when it is first asked for and again when it is another file or has changed. Any thread.
class SettingsFile
{
public:
    /// False when the file cannot be read or has no such entry. `name` in any case.
    bool Find(const std::string& path, std::string_view name, std::string& value);

private:
    void Refresh(const std::string& path);

    std::mutex m_lock;
    std::string m_path; // what was read last; guarded by m_lock, like all below
    os::FileIdentity m_version;
    bool m_readable = false;
    bool m_settled = false; // the file was old enough when it was read that a later change shows in its time
    std::map<std::string, std::string> m_entries; // names in lower case
};

} // namespace VexCore
