#include "vex/apps/vexctl/tar_writer.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>

#include <zlib.h>

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

struct TarWriter::Deflater
{
    z_stream stream = {};
};

TarWriter::TarWriter(std::string folder, std::int64_t timeMs)
    : m_deflater(new Deflater), m_folder(std::move(folder)), m_timeS(std::max<std::int64_t>(0, timeMs / 1000))
{
    constexpr int gzipWindow = 15 + 16; // the largest window, and the frame of gzip around it
    constexpr int usualMemory = 8;
    if (::deflateInit2(&m_deflater->stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, gzipWindow, usualMemory,
                       Z_DEFAULT_STRATEGY)
        != Z_OK) {
        delete m_deflater;
        throw std::bad_alloc();
    }
}

TarWriter::~TarWriter()
{
    ::deflateEnd(&m_deflater->stream);
    delete m_deflater;
}

void TarWriter::Pack(std::string_view bytes, bool isLast)
{
    z_stream& stream = m_deflater->stream;
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.data()));
    stream.avail_in = static_cast<uInt>(bytes.size());
    int result = Z_OK;
    do {
        unsigned char packed[16 * 1024];
        stream.next_out = packed;
        stream.avail_out = sizeof packed;
        result = ::deflate(&stream, isLast ? Z_FINISH : Z_NO_FLUSH);
        m_packed.append(reinterpret_cast<const char*>(packed), sizeof packed - stream.avail_out);
    } while (stream.avail_in > 0 || stream.avail_out == 0 || (isLast && result != Z_STREAM_END));
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

    Pack({reinterpret_cast<const char*>(&header), sizeof header}, false);
    constexpr std::size_t partBytes = 1 << 20; // zlib counts in fewer bits than we
    for (std::size_t at = 0; at < bytes.size(); at += partBytes)
        Pack(bytes.substr(at, partBytes), false);
    Pack(std::string((tarBlockBytes - bytes.size() % tarBlockBytes) % tarBlockBytes, '\0'), false);
}

std::string TarWriter::Finish()
{
    Pack(std::string(2 * tarBlockBytes, '\0'), true);
    return std::move(m_packed);
}

} // namespace Vexctl
