#pragma once
// The bytes of an archive while its headers are checked. All reading is pread: a file that is cut short under the
// process is then an error and not a SIGBUS.

#include "vex_core/zip/zip_refused.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace VexCore::Zip {

/// A window that moves over the file, so that neighbouring records cost one read. One thread.
class Window
{
public:
    /// The descriptor stays the caller's.
    Window(int descriptor, std::uint64_t fileSize) : m_descriptor(descriptor), m_fileSize(fileSize) {}

    std::uint64_t FileSize() const { return m_fileSize; }

    /// `size` bytes at `offset`; valid until the next call.
    /// Throws Refused where they do not all lie inside the file or cannot be read.
    const unsigned char* At(std::uint64_t offset, std::size_t size)
    {
        if (offset > m_fileSize || size > m_fileSize - offset)
            throw Refused("a record lies outside the file");
        if (offset < m_start || offset - m_start > m_bytes.size() || size > m_bytes.size() - (offset - m_start))
            Fill(offset, size);
        return m_bytes.data() + (offset - m_start);
    }

private:
    void Fill(std::uint64_t offset, std::size_t size);

    const int m_descriptor;
    const std::uint64_t m_fileSize;
    std::uint64_t m_start = 0; // where m_bytes lie in the file
    std::vector<unsigned char> m_bytes;
};

} // namespace VexCore::Zip
