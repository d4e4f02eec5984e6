// Reads entries of an archive whose headers were checked: unpacks, and compares length and checksum with the directory.
// Small entries are inflated in one piece by libdeflate, which is twice as fast; big ones stream through zlib, so that
// memory does not grow with them.
#include "vex_core/os/error.h"
#include "vex_core/os/files.h"
#include "vex_core/zip/zip_format.h"
#include "vex_core/zip/zip_reader.h"
#include "vex_core/zip/zip_refused.h"

#include <algorithm>
#include <new>

#include <libdeflate.h>
#include <zlib.h>

namespace VexCore {

using namespace Zip;

namespace {
#ifdef VEX_SMALL_LIMITS
constexpr std::size_t onePiece = 8 * 1024;
constexpr std::size_t pieceBytes = 4 * 1024;
#else
constexpr std::size_t onePiece = 1024 * 1024;
constexpr std::size_t pieceBytes = 128 * 1024;
#endif

const char damaged[] = "its packed data is damaged";
const char bytesBehind[] = "there are bytes behind the end of its packed data";
const char wrongLength[] = "its length differs from the directory";
const char wrongChecksum[] = "its checksum differs from the directory";

// The packed bytes of one entry, in order.
class PackedBytes
{
public:
    PackedBytes(int descriptor, const ZipEntry& entry)
        : m_descriptor(descriptor), m_offset(entry.dataOffset), m_left(entry.packedSize)
    {}

    std::uint64_t Left() const { return m_left; }

    // Reads the next `size` bytes, of which there must be so many.
    bool Next(char* data, std::size_t size, std::string& error)
    {
        const ssize_t count = os::PReadFull(m_descriptor, data, size, static_cast<off_t>(m_offset));
        if (count < 0)
            error = "cannot be read: " + os::ErrorText(os::LastError());
        else if (static_cast<std::size_t>(count) != size)
            error = cutShort;
        m_offset += size;
        m_left -= size;
        return count >= 0 && static_cast<std::size_t>(count) == size;
    }

private:
    int m_descriptor;
    std::uint64_t m_offset;
    std::uint64_t m_left;
};

std::size_t AtMostAChunk(std::uint64_t size)
{
    return static_cast<std::size_t>(std::min<std::uint64_t>(size, pieceBytes));
}

// Counts and sums what goes to the sink.
class CheckedSink
{
public:
    CheckedSink(const ZipEntry& entry, const ZipArchive::Sink& sink) : m_entry(entry), m_sink(sink) {}

    bool Put(const char* data, std::size_t size, std::string& error)
    {
        if (size > m_entry.size - m_size) {
            error = wrongLength;
            return false;
        }
        m_size += size;
        m_crc = libdeflate_crc32(m_crc, data, size);
        return m_sink(data, size);
    }

    bool IsWhole(std::string& error) const
    {
        if (m_size != m_entry.size)
            error = wrongLength;
        else if (m_crc != m_entry.crc32)
            error = wrongChecksum;
        return error.empty();
    }

private:
    const ZipEntry& m_entry;
    const ZipArchive::Sink& m_sink;
    std::uint64_t m_size = 0;
    std::uint32_t m_crc = 0;
};

bool CopyStored(PackedBytes& packed, CheckedSink& sink, std::string& error)
{
    std::vector<char> buffer(AtMostAChunk(packed.Left()));
    while (packed.Left() != 0) {
        const std::size_t size = AtMostAChunk(packed.Left());
        if (!packed.Next(buffer.data(), size, error) || !sink.Put(buffer.data(), size, error))
            return false;
    }
    return true;
}

bool InflateInOnePiece(const std::string& packed, std::string& data, std::string& error)
{
    const std::unique_ptr<libdeflate_decompressor, void (*)(libdeflate_decompressor*)> decompressor(
        libdeflate_alloc_decompressor(), libdeflate_free_decompressor);
    if (!decompressor)
        throw std::bad_alloc();
    std::size_t used = 0;
    std::size_t made = 0;
    const libdeflate_result result = libdeflate_deflate_decompress_ex(decompressor.get(), packed.data(), packed.size(),
                                                                      &data[0], data.size(), &used, &made);
    if (result == LIBDEFLATE_INSUFFICIENT_SPACE || (result == LIBDEFLATE_SUCCESS && made != data.size()))
        error = wrongLength;
    else if (result != LIBDEFLATE_SUCCESS)
        error = damaged;
    else if (used != packed.size())
        error = bytesBehind;
    return error.empty();
}

class InflateStream
{
public:
    InflateStream()
    {
        if (inflateInit2(&m_stream, -MAX_WBITS) != Z_OK)
            throw std::bad_alloc();
    }
    ~InflateStream() { inflateEnd(&m_stream); }
    InflateStream(const InflateStream&) = delete;
    InflateStream& operator=(const InflateStream&) = delete;

    bool Run(PackedBytes& packed, CheckedSink& sink, std::string& error)
    {
        std::vector<char> in(pieceBytes);
        std::vector<char> out(pieceBytes);
        for (;;) {
            if (m_stream.avail_in == 0 && packed.Left() != 0) {
                const std::size_t size = AtMostAChunk(packed.Left());
                if (!packed.Next(in.data(), size, error))
                    return false;
                m_stream.next_in = reinterpret_cast<Bytef*>(in.data());
                m_stream.avail_in = uInt(size);
            }
            m_stream.next_out = reinterpret_cast<Bytef*>(out.data());
            m_stream.avail_out = uInt(out.size());
            const int result = inflate(&m_stream, Z_NO_FLUSH);
            const std::size_t made = out.size() - m_stream.avail_out;
            if (made != 0 && !sink.Put(out.data(), made, error))
                return false;
            if (result == Z_STREAM_END)
                break;
            if (result == Z_MEM_ERROR)
                throw std::bad_alloc();
            if (result != Z_OK) { // Z_BUF_ERROR: the packed bytes are used up before the stream ends
                error = damaged;
                return false;
            }
        }
        if (m_stream.avail_in != 0 || packed.Left() != 0)
            error = bytesBehind;
        return error.empty();
    }

private:
    z_stream m_stream{};
};

bool FitsOnePiece(const ZipEntry& entry)
{
    return entry.size <= onePiece && entry.packedSize <= onePiece;
}

bool ReadInOnePiece(int descriptor, const ZipEntry& entry, std::string& data, std::string& error)
{
    PackedBytes bytes(descriptor, entry);
    data.resize(static_cast<std::size_t>(entry.size));
    if (entry.method == methodStored) {
        if (!bytes.Next(&data[0], data.size(), error))
            return false;
    } else {
        std::string packed(static_cast<std::size_t>(entry.packedSize), '\0');
        if (!bytes.Next(&packed[0], packed.size(), error) || !InflateInOnePiece(packed, data, error))
            return false;
    }
    if (libdeflate_crc32(0, data.data(), data.size()) != entry.crc32)
        error = wrongChecksum;
    return error.empty();
}

bool ReadInPieces(int descriptor, const ZipEntry& entry, const ZipArchive::Sink& sink, std::string& error)
{
    PackedBytes packed(descriptor, entry);
    CheckedSink checked(entry, sink);
    const bool whole =
        entry.method == methodStored ? CopyStored(packed, checked, error) : InflateStream().Run(packed, checked, error);
    return whole && checked.IsWhole(error);
}

const char noMemory[] = "there is not enough memory to read it";

} // namespace

bool ZipArchive::Read(const ZipEntry& entry, const Sink& sink, std::string& error) const
{
    error.clear();
    if (entry.isFolder)
        return true;
    try {
        if (!FitsOnePiece(entry))
            return ReadInPieces(m_file.Get(), entry, sink, error);
        std::string data;
        return ReadInOnePiece(m_file.Get(), entry, data, error) && (data.empty() || sink(data.data(), data.size()));
    } catch (const std::bad_alloc&) {
        error = noMemory;
        return false;
    }
}

bool ZipArchive::Read(const ZipEntry& entry, std::string& data, std::string& error) const
{
    data.clear();
    error.clear();
    try {
        if (entry.isFolder)
            return true;
        if (FitsOnePiece(entry))
            return ReadInOnePiece(m_file.Get(), entry, data, error);
        const Sink append = [&data](const char* bytes, std::size_t size) {
            data.append(bytes, size);
            return true;
        };
        return ReadInPieces(m_file.Get(), entry, append, error);
    } catch (const std::bad_alloc&) {
        error = noMemory;
        return false;
    }
}

} // namespace VexCore
