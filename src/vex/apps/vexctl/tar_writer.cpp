#include "vex/apps/vexctl/tar_writer.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include <libdeflate.h>

namespace Vexctl {

namespace {
constexpr std::size_t tarBlockBytes = 512;

// A header as POSIX has it ("ustar"): texts that end with a NUL where they are shorter than their field, numbers in
// octal digits.
struct Header
{
    char name[100];
    char mode[8];
    char user[8];
    char group[8];
    char size[12];
    char time[12];
    char checksum[8];
    char kind;
    char linkName[100];
    char magic[6];
    char version[2];
    char userName[32];
    char groupName[32];
    char device[16];
    char prefix[155];
    char rest[12];
};
static_assert(sizeof(Header) == tarBlockBytes, "a header is one block");

template <std::size_t size>
void PutText(char (&field)[size], std::string_view text)
{
    std::memcpy(field, text.data(), std::min(size, text.size()));
}

template <std::size_t size>
void PutNumber(char (&field)[size], std::uint64_t value)
{
    char digits[32];
    std::snprintf(digits, sizeof digits, "%0*llo", static_cast<int>(size) - 1, static_cast<unsigned long long>(value));
    PutText(field, digits);
}

std::string_view Last(std::string_view text, std::size_t bytes)
{
    return text.substr(text.size() - std::min(bytes, text.size()));
}

} // namespace

TarWriter::TarWriter(std::string folder, std::int64_t timeMs)
    : m_folder(std::move(folder)), m_timeS(std::max<std::int64_t>(0, timeMs / 1000))
{}

// What gzip unpacks may be packed in parts, one behind the other, because the library has to have a part in memory.
void TarWriter::Put(std::string_view bytes)
{
    constexpr std::size_t partBytes = 1 << 20;
    while (m_waiting.size() + bytes.size() >= partBytes) {
        const std::size_t fitting = partBytes - m_waiting.size();
        m_waiting.append(bytes.substr(0, fitting));
        bytes.remove_prefix(fitting);
        PackWaiting();
    }
    m_waiting.append(bytes);
}

void TarWriter::PackWaiting()
{
    constexpr int usualLevel = 6; // gzip's own
    const std::unique_ptr<libdeflate_compressor, decltype(&::libdeflate_free_compressor)> compressor(
        ::libdeflate_alloc_compressor(usualLevel), ::libdeflate_free_compressor);
    if (!compressor)
        throw std::bad_alloc();
    const std::size_t before = m_packed.size();
    m_packed.resize(before + ::libdeflate_gzip_compress_bound(compressor.get(), m_waiting.size()));
    m_packed.resize(before
                    + ::libdeflate_gzip_compress(compressor.get(), m_waiting.data(), m_waiting.size(),
                                                 m_packed.data() + before, m_packed.size() - before));
    m_waiting.clear();
}

void TarWriter::Add(std::string_view name, std::string_view bytes)
{
    Header header = {};
    PutText(header.name, Last(name, sizeof header.name));
    PutText(header.prefix, Last(m_folder, sizeof header.prefix));
    PutNumber(header.mode, 0600);
    PutNumber(header.user, 0);
    PutNumber(header.group, 0);
    PutNumber(header.size, bytes.size());
    PutNumber(header.time, static_cast<std::uint64_t>(m_timeS));
    header.kind = '0';
    PutText(header.magic, std::string_view("ustar\0", 6));
    PutText(header.version, "00");
    // The sum of all bytes, those of its own field as blanks.
    std::memset(header.checksum, ' ', sizeof header.checksum);
    unsigned sum = 0;
    for (const unsigned char byte : std::string_view(reinterpret_cast<const char*>(&header), sizeof header))
        sum += byte;
    std::snprintf(header.checksum, sizeof header.checksum, "%06o", sum);

    Put({reinterpret_cast<const char*>(&header), sizeof header});
    Put(bytes);
    Put(std::string((tarBlockBytes - bytes.size() % tarBlockBytes) % tarBlockBytes, '\0'));
}

std::string TarWriter::Finish()
{
    Put(std::string(2 * tarBlockBytes, '\0'));
    PackWaiting();
    return std::move(m_packed);
}

} // namespace Vexctl
