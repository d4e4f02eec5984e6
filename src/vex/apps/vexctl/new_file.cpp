#include "vex/apps/vexctl/new_file.h"

#include "vex/apps/vexctl/command.h"

#include "vex/core/clock.h"
#include "vex_core/base/ascii.h"
#include "vex_core/os/error.h"
#include "vex_core/os/files.h"
#include "vex_core/os/folders.h"
#include "vex_core/os/process_info.h"

#include <vector>

#include <fcntl.h>

namespace Vexctl {

namespace {
std::string FolderOf(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "./" : path.substr(0, slash + 1);
}

constexpr std::string_view temporaryMark = ".vexctl-";

// Two may be written in the same moment.
std::string TemporaryName()
{
    static unsigned s_count = 0;
    return std::string(temporaryMark) + std::to_string(VexCore::os::ProcessId()) + "-"
           + std::to_string(VexCore::TimeNowMillis()) + "-" + std::to_string(++s_count);
}

// What a process left that was killed. Nobody writes for a day without a change of the file.
void RemoveStale(const std::string& folder)
{
    constexpr std::int64_t staleMs = std::int64_t{24} * 60 * 60 * 1000;
    std::vector<std::string> stale;
    const auto look = [&](const char* name) {
        struct stat status = {};
        const std::string path = folder + name;
        if (VexCore::StartsWith(name, temporaryMark) && VexCore::os::LStat(path.c_str(), status) == 0
            && S_ISREG(status.st_mode)
            && VexCore::TimeNowMillis() - static_cast<std::int64_t>(status.st_mtime) * 1000 > staleMs)
            stale.push_back(path);
        return true;
    };
    VexCore::os::ListFolder(folder.c_str(), look);
    for (const std::string& path : stale)
        VexCore::os::Unlink(path.c_str());
}

} // namespace

void ExpectRoomForFile(const std::string& path)
{
    struct stat status = {};
    if (VexCore::os::LStat(path.c_str(), status) == 0 && !S_ISREG(status.st_mode))
        throw Failure(path + " is there and is no regular file; give another name, or take it away");
}

NewFile::NewFile(const std::string& path, Readers readers)
    : m_path(path), m_folder(FolderOf(path)), m_temporary(m_folder + TemporaryName()), m_leftover(m_temporary),
      m_readers(readers)
{
    ExpectRoomForFile(path);
    RemoveStale(m_folder);
    m_file =
        VexCore::os::Descriptor(VexCore::os::Open(m_temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600));
    if (!m_file)
        Fail();
}

NewFile::~NewFile()
{
    if (!m_isPlaced)
        VexCore::os::Unlink(m_temporary.c_str());
}

void NewFile::Fail() const
{
    throw Failure(m_path + " cannot be written: " + VexCore::os::ErrorText(VexCore::os::LastError()));
}

void NewFile::Write(std::string_view bytes)
{
    if (!VexCore::os::WriteAll(m_file.Get(), bytes.data(), bytes.size()))
        Fail();
}

void NewFile::Close()
{
    const mode_t rights = m_readers == Readers::All ? 0644 : 0600;
    if (VexCore::os::FChmod(m_file.Get(), rights) != 0 || VexCore::os::FSync(m_file.Get()) != 0 || !m_file.Close())
        Fail();
}

void NewFile::Place()
{
    if (VexCore::os::Rename(m_temporary.c_str(), m_path.c_str()) != 0)
        Fail();
    m_isPlaced = true;
    const VexCore::os::Descriptor folder(VexCore::os::Open(m_folder.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY));
    if (!folder || VexCore::os::FSync(folder.Get()) != 0)
        Fail();
}

void CopyInto(NewFile& file, const std::string& path, const BytesDone& told)
{
    const VexCore::os::Descriptor source(VexCore::os::Open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY));
    struct stat status = {};
    std::vector<char> buffer(128 * 1024);
    for (std::uint64_t done = 0;;) {
        const bool isOpen = source && VexCore::os::FStat(source.Get(), status) == 0;
        const ssize_t count = isOpen ? VexCore::os::Read(source.Get(), buffer.data(), buffer.size()) : -1;
        if (count < 0)
            throw Failure(path + ": " + VexCore::os::ErrorText(VexCore::os::LastError()));
        if (count == 0)
            return;
        file.Write({buffer.data(), static_cast<std::size_t>(count)});
        done += static_cast<std::uint64_t>(count);
        told(done, static_cast<std::uint64_t>(status.st_size));
    }
}

void WriteNewFile(const std::string& path, std::string_view bytes)
{
    NewFile file(path, Readers::OwnerAlone);
    file.Write(bytes);
    file.Close();
    file.Place();
}

} // namespace Vexctl
