// Nothing here logs: the log is among those who ask. A file of the system is asked for its state before it is opened,
// because on most hosts there is none, and it stays as it is on the others.

#include "vex_core/domain/settings_file.h"

#include "vex/core/configfile.h"
#include "vex_core/os/error.h"
#include "vex_core/os/files.h"
#include "vex_core/os/guarded_place.h"

#include <algorithm>
#include <cerrno>
#include <ctime>

#include <fcntl.h>

namespace VexCore {

namespace {
bool IsThere(const std::string& path)
{
    struct stat status = {};
    return os::Stat(path.c_str(), status) == 0 || os::LastError() != ENOENT;
}

} // namespace

std::string CannotBeUsed(const std::string& path)
{
    const int error = os::LastError();
    if (error == EINVAL)
        return '\'' + path + "' is not used, because it is no regular file: take it away";
    return '\'' + path + "' cannot be read (" + os::ErrorText(error)
           + "), so nothing in it counts: let the agent's user read it, or take it away";
}

// None, and why where the file is there.
os::Descriptor SettingsFile::Open(struct stat& status, std::string& refused) const
{
    if (m_place == Place::WorkFolder) {
        os::GuardedPlace place(m_path);
        os::Descriptor file = place.OpenFile(O_RDONLY);
        if (file && os::FStat(file.Get(), status) == 0)
            return file;
        // What is not there has no fault, wherever it would lie.
        if (os::LastError() != ENOENT && (place.Breach().empty() || IsThere(m_path)))
            refused = place.Breach().empty() ? CannotBeUsed(m_path) : place.Breach();
        return os::Descriptor();
    }
    // Not to wait for whoever writes to a FIFO that has taken the file's name since.
    os::Descriptor file(S_ISREG(status.st_mode) ? os::Open(m_path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY) : -1);
    if (file && os::FStat(file.Get(), status) != 0)
        file.Reset();
    if (!S_ISREG(status.st_mode)) {
        file.Reset();
        os::SetLastError(EINVAL);
    }
    if (!file && os::LastError() != ENOENT)
        refused = CannotBeUsed(m_path);
    return file;
}

bool SettingsFile::IsAsBefore(const struct stat& status) const
{
    return m_read && !m_fresh && os::IdentityOf(status).HasContentOf(m_version);
}

bool SettingsFile::Look(const std::string& path)
{
    if (path != m_path) {
        m_path = path;
        m_version = os::FileIdentity();
    }
    struct stat status = {};
    if (path.empty())
        return Take(false, std::string(), std::string());
    if (m_place == Place::System) {
        if (os::Stat(path.c_str(), status) != 0)
            return Take(false, std::string(), os::LastError() == ENOENT ? std::string() : CannotBeUsed(path));
        if (IsAsBefore(status))
            return false;
    }
    std::string refused;
    const os::Descriptor file = Open(status, refused);
    if (!file)
        return Take(false, std::string(), refused);
    if (IsAsBefore(status))
        return false;
    // One byte more than is read at all tells a file that is too large.
    std::string bytes(std::min(maxConfigFileBytes + 1, static_cast<std::size_t>(status.st_size)), '\0');
    const ssize_t count = os::PReadFull(file.Get(), bytes.data(), bytes.size(), 0);
    if (count < 0)
        return Take(false, std::string(), CannotBeUsed(path));
    bytes.resize(static_cast<std::size_t>(count));
    m_version = os::IdentityOf(status);
    // A change within the file system's clock tick of the last one leaves the time as it was, so a file that is read
    // right after it was written is read again next time.
    m_fresh = std::time(nullptr) - status.st_mtim.tv_sec <= 2;
    return Take(true, std::move(bytes), std::string());
}

bool SettingsFile::Take(bool read, std::string bytes, std::string refused)
{
    const bool others = bytes != m_bytes;
    const bool changed = others || read != m_read || refused != m_refused;
    // Parsing a large file takes the framework a second or so, reading it next to nothing.
    if (others)
        m_contents = m_parse(bytes);
    m_bytes = std::move(bytes);
    m_read = read;
    m_refused = std::move(refused);
    return changed;
}

} // namespace VexCore
