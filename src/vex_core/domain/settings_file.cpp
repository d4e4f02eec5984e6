// The file is looked at each time that it is asked, on whichever thread asks, and one at a time. Nothing here logs: the
// log is among those who ask.

#include "vex_core/domain/settings_file.h"

#include "vex/core/configfile.h"
#include "vex_core/base/ascii.h"
#include "vex_core/domain/config_text.h"
#include "vex_core/os/file_identity.h"
#include "vex_core/os/files.h"
#include "vex_core/os/guarded_place.h"

#include <algorithm>
#include <ctime>

#include <fcntl.h>

namespace VexCore {

bool SettingsFile::Find(const std::string& path, std::string_view name, std::string& value)
{
    const std::lock_guard lock(m_lock);
    Refresh(path);
    const auto found = m_entries.find(name);
    if (found == m_entries.end())
        return false;
    value = found->second;
    return true;
}

std::vector<std::string> SettingsFile::NamesThatBegin(const std::string& path, std::string_view start)
{
    const std::lock_guard lock(m_lock);
    Refresh(path);
    std::vector<std::string> names;
    const LessInAnyCase less;
    for (auto entry = m_entries.lower_bound(start); entry != m_entries.end(); ++entry) {
        if (less(start, std::string_view(entry->first).substr(0, start.size())))
            break;
        names.push_back(entry->first);
    }
    return names;
}

std::uint64_t SettingsFile::Generation(const std::string& path)
{
    const std::lock_guard lock(m_lock);
    Refresh(path);
    return m_generation;
}

void SettingsFile::Take(Entries entries)
{
    if (entries == m_entries)
        return;
    m_entries.swap(entries);
    ++m_generation;
}

void SettingsFile::Refresh(const std::string& path)
{
    struct stat status = {};
    const os::Descriptor file = path.empty() ? os::Descriptor() : os::GuardedPlace(path).OpenFile(O_RDONLY);
    if (!file || os::FStat(file.Get(), status) != 0) {
        Take({});
        m_readable = false;
        m_unsettled.reset();
        return;
    }
    const os::FileIdentity version = os::IdentityOf(status);
    if (!m_readable || m_unsettled || path != m_path || !version.HasContentOf(m_version)) {
        // A change within the file system's clock tick of the last one leaves the time as it was, so a file that is
        // read right after it was written is read again next time.
        const bool settled = std::time(nullptr) - status.st_mtim.tv_sec > 2;
        // One byte more than is read at all tells a file that is too large.
        std::string content(std::min(maxConfigFileBytes + 1, static_cast<std::size_t>(status.st_size)), '\0');
        const ssize_t count = os::PReadFull(file.Get(), content.data(), content.size(), 0);
        m_readable = count >= 0;
        content.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
        // Parsing a large file takes the framework a second or so, reading it next to nothing.
        if (content != m_unsettled)
            Take(m_parse(content));
        m_unsettled = settled ? std::nullopt : std::make_optional(std::move(content));
        m_path = path;
        m_version = version;
    }
}

} // namespace VexCore
