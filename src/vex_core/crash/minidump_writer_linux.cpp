// See crash_system.h for what is allowed here.

#include "vex_core/crash/minidump_writer.h"

#include "vex_core/base/utf8.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace VexCore {
namespace {
constexpr std::uint64_t pageBytes = 4096; // the smallest there is: the step over memory that cannot be read

// By number: the C library's own may be replaced by checking ones, which refuse to look at other code's red
// zones.
long WriteOnce(int descriptor, std::uint64_t from, std::size_t size, std::uint64_t offset)
{
    long written;
    do {
        written = syscall(SYS_pwrite64, descriptor, from, size, offset);
    } while (written < 0 && errno == EINTR);
    return written;
}

// One character of UTF-8 text that ends in NUL; what is none counts as Latin-1.
std::uint32_t NextCharacter(const char*& at)
{
    constexpr std::size_t longest = 4;
    std::size_t left = 1;
    while (left < longest && at[left] != '\0')
        ++left;
    char32_t character = static_cast<unsigned char>(*at);
    const std::size_t length = DecodeUtf8(std::string_view(at, left), character);
    at += length == 0 ? 1 : length;
    return character;
}

} // namespace

void MinidumpWriter::Align()
{
    m_end = (m_end + 7) & ~static_cast<std::uint64_t>(7);
}

bool MinidumpWriter::FitsLocation(std::uint64_t size)
{
    if (size <= 0xFFFFFFFFu && m_end + size <= 0xFFFFFFFFu)
        return m_error == 0;
    if (m_error == 0)
        m_error = EFBIG;
    return false;
}

Minidump::Location MinidumpWriter::Reserve(std::size_t size)
{
    Align();
    if (!FitsLocation(size))
        return {0, 0};
    const Minidump::Location location = {static_cast<std::uint32_t>(size), static_cast<std::uint32_t>(m_end)};
    m_end += size;
    return location;
}

Minidump::Location MinidumpWriter::Append(const void* data, std::size_t size)
{
    const Minidump::Location location = Reserve(size);
    WriteAt(location.rva, data, location.size);
    return location;
}

void MinidumpWriter::WriteAt(std::uint64_t offset, const void* data, std::size_t size)
{
    auto from = reinterpret_cast<std::uintptr_t>(data);
    while (size > 0 && m_error == 0) {
        const long written = WriteOnce(m_descriptor, from, size, offset);
        if (written <= 0) {
            m_error = written == 0 ? ENOSPC : errno;
            return;
        }
        from += static_cast<std::uintptr_t>(written);
        offset += static_cast<std::uint64_t>(written);
        size -= static_cast<std::size_t>(written);
    }
}

std::uint32_t MinidumpWriter::AppendText(const char* utf8)
{
    static std::uint16_t s_units[4096 + 3]; // after two for the length; the writing thread is the only one that runs
    std::size_t count = 2;
    while (*utf8 != '\0' && count < 4096) {
        const std::uint32_t code = NextCharacter(utf8);
        if (code >= 0x10000) {
            s_units[count++] = static_cast<std::uint16_t>(0xD800 + ((code - 0x10000) >> 10));
            s_units[count++] = static_cast<std::uint16_t>(0xDC00 + ((code - 0x10000) & 0x3FF));
        } else {
            s_units[count++] = static_cast<std::uint16_t>(code);
        }
    }
    const std::uint32_t bytes = static_cast<std::uint32_t>((count - 2) * 2);
    std::memcpy(s_units, &bytes, sizeof bytes);
    s_units[count++] = 0;
    return Append(s_units, count * 2).rva;
}

Minidump::Location MinidumpWriter::AppendFile(const char* path, std::size_t maxBytes)
{
    static char s_chunk[16384];
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0)
        return {0, 0};
    Align();
    Minidump::Location location = {0, static_cast<std::uint32_t>(m_end)};
    while (location.size < maxBytes && FitsLocation(sizeof s_chunk)) {
        const ssize_t got = read(file, s_chunk, std::min(sizeof s_chunk, maxBytes - location.size));
        if (got <= 0)
            break;
        WriteAt(m_end, s_chunk, static_cast<std::size_t>(got));
        m_end += static_cast<std::uint64_t>(got);
        location.size += static_cast<std::uint32_t>(got);
    }
    close(file);
    return location;
}

// The kernel reads the memory: a page that is not there is an error code, not a crash.
void MinidumpWriter::AppendLargeMemory(std::uint64_t start, std::uint64_t size)
{
    const std::uint64_t end = start + size;
    for (std::uint64_t at = start; at < end && m_error == 0;) {
        const std::size_t wanted = static_cast<std::size_t>(std::min<std::uint64_t>(end - at, 1u << 20));
        const long written = WriteOnce(m_descriptor, at, wanted, m_end + (at - start));
        if (written > 0) {
            at += static_cast<std::uint64_t>(written);
        } else if (written < 0 && errno == EFAULT) {
            const std::uint64_t next = (at / pageBytes + 1) * pageBytes;
            at = std::min(next, end);
        } else {
            m_error = written == 0 ? ENOSPC : errno;
        }
    }
    m_end += size;
}

Minidump::Location MinidumpWriter::AppendMemory(std::uint64_t start, std::uint64_t size)
{
    Align();
    if (!FitsLocation(size))
        return {0, 0};
    const Minidump::Location location = {static_cast<std::uint32_t>(size), static_cast<std::uint32_t>(m_end)};
    AppendLargeMemory(start, size);
    return location;
}

void MinidumpWriter::AddStream(Minidump::StreamType type, const Minidump::Location& location)
{
    if (location.size > 0 && m_streamCount < maxStreams)
        m_streams[m_streamCount++] = {type, location};
}

void MinidumpWriter::Finish(std::uint32_t timeSeconds, bool full)
{
    WriteAt(directoryRva, m_streams, m_streamCount * sizeof m_streams[0]);
    // Memory at the end that could not be read has left the file too short.
    if (m_error == 0 && ftruncate(m_descriptor, static_cast<off_t>(m_end)) != 0)
        m_error = errno;
    Minidump::Header header = {};
    header.signature = 0x504D444D;
    header.version = 0xA793;
    header.streamCount = m_streamCount;
    header.directoryRva = directoryRva;
    header.time = timeSeconds;
    header.flags = full ? 2 : 0; // with full memory
    WriteAt(0, &header, sizeof header);
    if (m_error == 0 && fsync(m_descriptor) != 0)
        m_error = errno;
}

} // namespace VexCore
