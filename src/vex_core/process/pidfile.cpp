// Pid files: who holds one, and taking it. A reader trusts nothing: the path may lead to anything, and a pid
// may have gone to another process since.

#include "vex/core/pidfile.h"
#include "vex_core/base/text.h"
#include "vex_core/os/error.h"
#include "vex_core/os/files.h"
#include "vex_core/os/process_info.h"
#include "vex_core/process/pidfile_text.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <limits>

#include <fcntl.h>

#include <wx/log.h>

namespace VexCore {
namespace {
// The longest text that we write is far below; a file above is none of ours.
constexpr std::size_t maxFileBytes = 128;

bool IsBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\r';
}

// A line of one decimal number, with blanks around it at most. `present` stays false for an empty line.
bool ParseLine(const char*& at, const char* end, std::uint64_t& value, bool& present)
{
    value = 0;
    present = false;
    while (at != end && IsBlank(*at))
        ++at;
    for (; at != end && *at >= '0' && *at <= '9'; ++at) {
        const unsigned digit = static_cast<unsigned>(*at - '0');
        if (value > (std::numeric_limits<std::uint64_t>::max() - digit) / 10)
            return false;
        value = value * 10 + digit;
        present = true;
    }
    while (at != end && IsBlank(*at))
        ++at;
    if (at == end)
        return true;
    return *at++ == '\n';
}

// The file's text. Never blocks: what is no regular file is not opened, and not waited for when it became one
// meanwhile.
bool ReadSmallFile(const char* path, char (&text)[maxFileBytes + 1], std::size_t& size)
{
    struct stat status;
    if (os::Stat(path, status) != 0 || !S_ISREG(status.st_mode))
        return false;
    const os::Descriptor file(os::Open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY));
    if (!file || os::FStat(file.Get(), status) != 0 || !S_ISREG(status.st_mode))
        return false;
    size = 0;
    while (size < sizeof text) {
        const ssize_t got = os::Read(file.Get(), text + size, sizeof text - size);
        if (got < 0)
            return false;
        if (got == 0)
            return true;
        size += static_cast<std::size_t>(got);
    }
    return false; // longer than any pid file
}

// Removes the temporary file unless it became the real one.
class TemporaryFile
{
public:
    explicit TemporaryFile(std::string path) : m_path(std::move(path)) {}
    ~TemporaryFile()
    {
        if (m_exists) {
            const os::KeepError keep; // the caller reports the failure that led here
            os::Unlink(m_path.c_str());
        }
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    os::Descriptor Create()
    {
        const int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW;
        os::Descriptor file(os::Open(m_path.c_str(), flags, 0600));
        if (!file && os::LastError() == EEXIST && os::Unlink(m_path.c_str()) == 0)
            file = os::Descriptor(os::Open(m_path.c_str(), flags, 0600)); // an earlier process of our pid was killed
        m_exists = static_cast<bool>(file);
        return file;
    }

    bool RenameTo(const std::string& path)
    {
        if (os::Rename(m_path.c_str(), path.c_str()) != 0)
            return false;
        m_exists = false;
        return true;
    }

private:
    std::string m_path;
    bool m_exists = false;
};

// Not flushed to the disk: after a power cut the pid means nothing any more.
bool WriteThroughRename(const std::string& path, const std::string& text)
{
    static std::atomic<unsigned> s_serial{0}; // two threads may write at once
    TemporaryFile temporary(path + "." + std::to_string(os::ProcessId()) + "." + std::to_string(s_serial++) + ".tmp");
    os::Descriptor file = temporary.Create();
    return file && os::WriteAll(file.Get(), text.data(), text.size()) && os::FChmod(file.Get(), 0644) == 0
           && file.Close() && temporary.RenameTo(path);
}

} // namespace

PidFileText ParsePidFile(const char* text, std::size_t size)
{
    const char* at = text;
    const char* const end = text + size;
    PidFileText result;
    std::uint64_t pid = 0;
    bool hasPid = false;
    if (!ParseLine(at, end, pid, hasPid) || !hasPid)
        return PidFileText();
    if (!ParseLine(at, end, result.startTime, result.hasStartTime))
        return PidFileText();
    if (at != end || pid < 2 || pid > static_cast<std::uint64_t>(std::numeric_limits<pid_t>::max()))
        return PidFileText();
    result.pid = static_cast<pid_t>(pid);
    return result;
}

long ReadPidFile(const wxString& path)
{
    char text[maxFileBytes + 1];
    std::size_t size = 0;
    if (!ReadSmallFile(ToSystemBytes(path).c_str(), text, size))
        return 0;
    const PidFileText content = ParsePidFile(text, size);
    os::ProcessInfo info;
    if (content.pid != 0 && os::GetProcessInfo(content.pid, info)
        && (info.zombie || (content.hasStartTime && info.startTime != content.startTime)))
        return 0;
    return content.pid;
}

bool WritePidFile(const wxString& path)
{
    std::string text = std::to_string(os::ProcessId()) + "\n";
    os::ProcessInfo info;
    if (os::GetProcessInfo(os::ProcessId(), info))
        text += std::to_string(info.startTime) + "\n";
    if (WriteThroughRename(ToSystemBytes(path), text))
        return true;
    wxLogSysError("Unable to write the pid file '%s'", path);
    return false;
}

} // namespace VexCore
