#pragma once
// Writes the parts of a minidump file in any order, through plain system calls. For signal handlers: no
// allocation, no lock.

#include "vex_core/crash/minidump_format.h"

#include <cstddef>

namespace VexCore {

class MinidumpWriter
{
public:
    /// `descriptor` is an empty file; it stays the caller's.
    explicit MinidumpWriter(int descriptor) : m_descriptor(descriptor), m_end(directoryRva + sizeof m_streams) {}

    /// The first failure's error code, 0 so far. After a failure nothing more is written.
    int Error() const { return m_error; }

    Minidump::Location Append(const void* data, std::size_t size);
    /// Room at the end, filled later by `WriteAt`.
    Minidump::Location Reserve(std::size_t size);
    void WriteAt(std::uint64_t offset, const void* data, std::size_t size);
    /// A text as UTF-16 behind its length. Its offset.
    std::uint32_t AppendText(const char* utf8);
    /// A file's content, at most `maxBytes`; size 0 when it cannot be read.
    Minidump::Location AppendFile(const char* path, std::size_t maxBytes);
    /// Memory of this process. Pages that cannot be read are zeros.
    Minidump::Location AppendMemory(std::uint64_t start, std::uint64_t size);
    /// The same where it may be more than a location can say; the memory's offset is the old end.
    void AppendLargeMemory(std::uint64_t start, std::uint64_t size);

    void AddStream(Minidump::StreamType type, const Minidump::Location& location);
    /// Writes directory and header, which make the file valid.
    void Finish(std::uint32_t timeSeconds, bool full);

    std::uint64_t End() const { return m_end; }

private:
    void Align();
    bool FitsLocation(std::uint64_t size);

    static constexpr std::size_t maxStreams = 24;
    // In front of everything, because all memory of a large process ends beyond what an offset of 32 bits can say.
    static constexpr std::uint32_t directoryRva = sizeof(Minidump::Header);

    int m_descriptor;
    int m_error = 0;
    std::uint64_t m_end;
    Minidump::DirectoryEntry m_streams[maxStreams] = {};
    std::uint32_t m_streamCount = 0;
};

} // namespace VexCore
