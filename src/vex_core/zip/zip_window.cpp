#include "vex_core/zip/zip_window.h"

#include "vex_core/os/error.h"
#include "vex_core/os/files.h"

#include <algorithm>

namespace VexCore::Zip {
namespace {
constexpr std::size_t nearBytes = 128 * 1024;
constexpr std::size_t farBytes = 4 * 1024;
} // namespace

void Window::Fill(std::uint64_t offset, std::size_t size)
{
    // Records that lie close together are worth reading along; the data of a big entry is not.
    const bool near = offset >= m_start && offset - m_start < 2 * nearBytes;
    const std::uint64_t wanted = std::max<std::uint64_t>(size, near ? nearBytes : farBytes);
    m_bytes.resize(static_cast<std::size_t>(std::min(wanted, m_fileSize - offset)));
    m_start = offset;
    const ssize_t count = os::PReadFull(m_descriptor, m_bytes.data(), m_bytes.size(), static_cast<off_t>(offset));
    if (count < 0)
        throw Refused("cannot be read: " + os::ErrorText(os::LastError()));
    if (static_cast<std::size_t>(count) != m_bytes.size())
        throw Refused(cutShort);
}

} // namespace VexCore::Zip
