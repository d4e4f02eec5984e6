#include "vex/apps/vexctl/new_file.h"

#include "vex/apps/vexctl/command.h"

#include "vex/core/clock.h"
#include "vex_core/os/error.h"
#include "vex_core/os/files.h"
#include "vex_core/os/process_info.h"

#include <vector>

#include <fcntl.h>

namespace Vexctl {

NewFile::NewFile(const std::string& folder, const std::string& name) : m_folder(folder), m_path(folder + "/" + name)
{
    m_temporary = folder + "/.vexctl-" + std::to_string(VexCore::os::ProcessId()) + "-"
                  + std::to_string(VexCore::TimeNowMillis());
    constexpr mode_t rights = 0644;
    m_file = VexCore::os::Descriptor(
        VexCore::os::Open(m_temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, rights));
    // Whatever the umask says: an agent with a user of its own is to read it.
    if (!m_file || VexCore::os::FChmod(m_file.Get(), rights) != 0)
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

void NewFile::Write(const char* data, std::size_t size)
{
    if (!VexCore::os::WriteAll(m_file.Get(), data, size))
        Fail();
}

void NewFile::Close()
{
    if (VexCore::os::FSync(m_file.Get()) != 0 || !m_file.Close())
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

void CopyInto(NewFile& file, const std::string& path)
{
    const VexCore::os::Descriptor source(VexCore::os::Open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY));
    std::vector<char> buffer(128 * 1024);
    for (;;) {
        const ssize_t count = source ? VexCore::os::Read(source.Get(), buffer.data(), buffer.size()) : -1;
        if (count < 0)
            throw Failure(path + ": " + VexCore::os::ErrorText(VexCore::os::LastError()));
        if (count == 0)
            return;
        file.Write(buffer.data(), static_cast<std::size_t>(count));
    }
}

} // namespace Vexctl
