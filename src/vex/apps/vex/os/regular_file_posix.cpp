#include "vex/apps/vex/os/regular_file.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace VexOs {
namespace {
template <typename Function>
auto Retried(const Function& function)
{
    auto result = function();
    while (result == -1 && errno == EINTR)
        result = function();
    return result;
}

} // namespace

RegularFile::RegularFile(const char* path)
{
    struct stat status;
    m_exists = ::stat(path, &status) == 0 && S_ISREG(status.st_mode);
    if (!m_exists)
        return;
    // Not held by a pipe that has come in its place since.
    m_descriptor = Retried([path] { return ::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY); });
    m_isGood = m_descriptor >= 0;
}

RegularFile::~RegularFile()
{
    if (m_descriptor >= 0)
        ::close(m_descriptor);
}

std::size_t RegularFile::Read(void* data, std::size_t size)
{
    if (!m_isGood)
        return 0;
    const ssize_t count = Retried([&] { return ::read(m_descriptor, data, size); });
    m_isGood = count >= 0;
    return m_isGood ? static_cast<std::size_t>(count) : 0;
}

} // namespace VexOs
