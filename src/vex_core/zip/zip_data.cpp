// Reads entries of an archive whose headers were checked: unpacks, and compares length and checksum with the directory.
// Big ones stream, so that memory does not grow with them; small ones are inflated in one piece, which libdeflate does
// faster than zlib.
#include "vex_core/os/error.h"
#include "vex_core/os/files.h"
#include "vex_core/zip/zip_format.h"
#include "vex_core/zip/zip_inflate.h"
#include "vex_core/zip/zip_reader.h"
#include "vex_core/zip/zip_refused.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <new>
#include <optional>

#include <libdeflate.h>

namespace VexCore {

using namespace Zip;

namespace {
#ifdef VEX_SMALL_LIMITS
constexpr std::size_t onePiece = 8 * 1024;
constexpr std::size_t pieceBytes = 4 * 1024;
constexpr std::size_t aheadBytes = 2 * 1024;
constexpr std::size_t keptAheadBytes = 1024;
#else
constexpr std::size_t onePiece = 1024 * 1024;
constexpr std::size_t pieceBytes = 128 * 1024;
constexpr std::size_t aheadBytes = 128 * 1024;
// Of what one process keeps for good, between modules that it loads.
constexpr std::size_t keptAheadBytes = 32 * 1024;
#endif

const char damaged[] = "its packed data is damaged";
const char bytesBehind[] = "there are bytes behind the end of its packed data";
const char wrongLength[] = "its length differs from the directory";
const char wrongChecksum[] = "its checksum differs from the directory";

std::size_t AtMostAChunk(std::uint64_t size)
{
    return static_cast<std::size_t>(std::min<std::uint64_t>(size, pieceBytes));
}

// Bytes of the archive, and those that were read along with them.
class ReadAhead
{
public:
    explicit ReadAhead(std::size_t mostBytes = aheadBytes) : m_mostBytes(mostBytes) {}

    // `size` bytes at `offset`, valid until the next call; where they follow the last ones, all that lies near is read
    // with them. Null with the error.
    const char* At(int descriptor, std::uint64_t offset, std::size_t size, std::string& error)
    {
        const auto isThere = [&] {
            return offset >= m_start && offset - m_start <= m_bytes.size()
                   && size <= m_bytes.size() - (offset - m_start);
        };
        if (!isThere()) {
            const bool follows = m_next && offset >= *m_next && offset - *m_next < m_mostBytes;
            m_bytes.reserve(m_mostBytes); // so that it never grows beyond what is ever read along
            m_bytes.resize(follows ? std::max(size, m_mostBytes) : size);
            const ssize_t count = os::PReadFull(descriptor, m_bytes.data(), m_bytes.size(), static_cast<off_t>(offset));
            if (count < 0)
                error = "cannot be read: " + os::ErrorText(os::LastError());
            m_bytes.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
            m_start = offset;
            if (error.empty() && !isThere())
                error = cutShort;
            if (!error.empty())
                return nullptr;
        }
        m_next = offset + size;
        return size == 0 ? "" : m_bytes.data() + (offset - m_start);
    }

    // Whether the last bytes that were asked for end behind `offset`.
    bool IsBehind(std::uint64_t offset) const { return m_next && offset < *m_next; }

    bool IsEmpty() const { return m_bytes.empty(); }

    // To read from another file, or from one that may be another by now.
    void Forget()
    {
        m_bytes.clear();
        m_next.reset();
    }

private:
    const std::size_t m_mostBytes;
    std::vector<char> m_bytes;
    std::uint64_t m_start = 0; // where they lie in the file
    std::optional<std::uint64_t> m_next; // where the last ones ended
};

// The packed bytes of one entry, in order.
class PackedBytes
{
public:
    PackedBytes(int descriptor, const ZipEntry& entry, ReadAhead& ahead)
        : m_descriptor(descriptor), m_offset(entry.dataOffset), m_left(entry.packedSize), m_ahead(ahead)
    {}

    std::uint64_t Left() const { return m_left; }

    // The next of them, valid until the next call; `size` says how many. Null with the error.
    const char* Next(std::size_t& size, std::string& error)
    {
        size = AtMostAChunk(m_left);
        const char* const bytes = m_ahead.At(m_descriptor, m_offset, size, error);
        m_offset += size;
        m_left -= size;
        return bytes;
    }

private:
    int m_descriptor;
    std::uint64_t m_offset;
    std::uint64_t m_left;
    ReadAhead& m_ahead;
};

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
    while (packed.Left() != 0) {
        std::size_t size = 0;
        const char* const bytes = packed.Next(size, error);
        if (!bytes || !sink.Put(bytes, size, error))
            return false;
    }
    return true;
}

bool InflateInPieces(PackedBytes& packed, CheckedSink& sink, Inflate& inflate, std::vector<char>& out,
                     std::string& error)
{
    out.resize(pieceBytes);
    inflate.Begin();
    for (bool wantsMore = true;;) {
        if (wantsMore) {
            std::size_t size = 0;
            const char* const bytes = packed.Next(size, error);
            if (!bytes)
                return false;
            inflate.Give(bytes, size);
        }
        std::size_t made = 0;
        const Inflate::State state = inflate.Take(out.data(), out.size(), made);
        if (made != 0 && !sink.Put(out.data(), made, error))
            return false;
        if (state == Inflate::State::Ended)
            break;
        wantsMore = made < out.size();
        if (state == Inflate::State::Damaged || (wantsMore && packed.Left() == 0)) {
            error = damaged;
            return false;
        }
    }
    if (inflate.Unused() != 0 || packed.Left() != 0)
        error = bytesBehind;
    return error.empty();
}

// Making a decompressor of libdeflate, with its tables, costs as much as to inflate a page: one is kept for the next
// entry of the process, whoever reads it.
class Decompressor
{
public:
    Decompressor() : m_handle(s_kept.exchange(nullptr))
    {
        if (!m_handle)
            m_handle = libdeflate_alloc_decompressor();
        if (!m_handle)
            throw std::bad_alloc();
    }
    ~Decompressor() { libdeflate_free_decompressor(s_kept.exchange(m_handle)); }
    Decompressor(const Decompressor&) = delete;
    Decompressor& operator=(const Decompressor&) = delete;

    libdeflate_decompressor* Get() const { return m_handle; }

private:
    static inline std::atomic<libdeflate_decompressor*> s_kept{nullptr};
    libdeflate_decompressor* m_handle;
};

// Who loads modules reads one small entry after the other, and to ask the system for each takes its time. So what was
// read along is kept for the next entry of the process, whoever reads it, as the decompressor is: of a few archives,
// because modules of several require each other by turns.
class KeptAhead
{
public:
    // For an archive that was this file when it was opened, as the archive of that number, and what lies at `offset`.
    // What was read before is read anew: the file may have been written to since.
    KeptAhead(const os::FileIdentity& file, unsigned number, std::uint64_t offset)
        : m_place(s_kept.at(number % s_kept.size())), m_item(m_place.exchange(nullptr))
    {
        if (!m_item)
            m_item = new Item;
        if (m_item->file != file || m_item->ahead.IsBehind(offset))
            m_item->ahead.Forget();
        m_item->file = file;
    }
    ~KeptAhead() { delete m_place.exchange(m_item); }
    KeptAhead(const KeptAhead&) = delete;
    KeptAhead& operator=(const KeptAhead&) = delete;

    ReadAhead& Get() { return m_item->ahead; }

private:
    struct Item
    {
        os::FileIdentity file; // that the bytes are of
        ReadAhead ahead{keptAheadBytes};
    };

    // Archives that are opened one after the other have places of their own.
    static inline std::array<std::atomic<Item*>, 8> s_kept{};
    std::atomic<Item*>& m_place;
    Item* m_item;
};

bool InflateInOnePiece(const char* packed, std::size_t packedSize, std::string& data, std::string& error)
{
    const Decompressor decompressor;
    std::size_t used = 0;
    std::size_t made = 0;
    const libdeflate_result result = libdeflate_deflate_decompress_ex(decompressor.Get(), packed, packedSize,
                                                                      data.data(), data.size(), &used, &made);
    if (result == LIBDEFLATE_INSUFFICIENT_SPACE || (result == LIBDEFLATE_SUCCESS && made != data.size()))
        error = wrongLength;
    else if (result != LIBDEFLATE_SUCCESS)
        error = damaged;
    else if (used != packedSize)
        error = bytesBehind;
    return error.empty();
}

bool FitsOnePiece(const ZipEntry& entry)
{
    return entry.size <= onePiece && entry.packedSize <= onePiece;
}

// The bytes are `data`'s, or `kept`'s. Null with the error.
const char* ReadInOnePiece(int descriptor, const ZipEntry& entry, ReadAhead& ahead, std::string& data,
                           std::string& error)
{
    const std::size_t packedSize = static_cast<std::size_t>(entry.packedSize);
    const char* bytes = ahead.At(descriptor, entry.dataOffset, packedSize, error);
    if (!bytes)
        return nullptr;
    if (entry.method != methodStored) {
        data.resize(static_cast<std::size_t>(entry.size));
        if (!InflateInOnePiece(bytes, packedSize, data, error))
            return nullptr;
        bytes = data.data();
    }
    if (libdeflate_crc32(0, bytes, static_cast<std::size_t>(entry.size)) != entry.crc32)
        error = wrongChecksum;
    return error.empty() ? bytes : nullptr;
}

bool ReadInOnePieceTo(std::string& data, int descriptor, const ZipEntry& entry, ReadAhead& ahead, std::string& error)
{
    const char* const bytes = ReadInOnePiece(descriptor, entry, ahead, data, error);
    if (bytes && bytes != data.data())
        data.assign(bytes, static_cast<std::size_t>(entry.size));
    return bytes;
}

const char noMemory[] = "there is not enough memory to read it";

} // namespace

struct ZipReading::Kept
{
    ReadAhead ahead;
    std::unique_ptr<Inflate> fast = NewIsalInflate(); // may be null
    std::unique_ptr<Inflate> slow; // null until it is needed
    std::vector<char> piece;

    bool Read(int descriptor, const ZipEntry& entry, const ZipArchive::Sink& sink, std::string& error)
    {
        // Without a fast way to stream, small entries are better inflated in one piece.
        if (!fast && FitsOnePiece(entry)) {
            std::string data;
            const char* const bytes = ReadInOnePiece(descriptor, entry, ahead, data, error);
            return bytes && (entry.size == 0 || sink(bytes, static_cast<std::size_t>(entry.size)));
        }
        PackedBytes packed(descriptor, entry, ahead);
        CheckedSink checked(entry, sink);
        if (!fast && !slow)
            slow = NewZlibInflate();
        const bool whole = entry.method == methodStored
                               ? CopyStored(packed, checked, error)
                               : InflateInPieces(packed, checked, fast ? *fast : *slow, piece, error);
        return whole && checked.IsWhole(error);
    }
};

ZipReading::ZipReading() : m_kept(std::make_unique<Kept>()) {}
ZipReading::~ZipReading() = default;

bool ZipArchive::Read(const ZipEntry& entry, ZipReading& reading, const Sink& sink, std::string& error) const
{
    error.clear();
    try {
        return entry.isFolder || reading.m_kept->Read(m_file.Get(), entry, sink, error);
    } catch (const std::bad_alloc&) {
        error = noMemory;
        return false;
    }
}

bool ZipArchive::Read(const ZipEntry& entry, const Sink& sink, std::string& error) const
try {
    ZipReading reading;
    return Read(entry, reading, sink, error);
} catch (const std::bad_alloc&) {
    error = noMemory;
    return false;
}

bool ZipArchive::Read(const ZipEntry& entry, std::string& data, std::string& error) const
{
    error.clear();
    if (entry.isFolder || !FitsOnePiece(entry))
        data.clear();
    if (!FitsOnePiece(entry)) {
        const Sink append = [&data](const char* bytes, std::size_t size) {
            data.append(bytes, size);
            return true;
        };
        return Read(entry, append, error);
    }
    try {
        if (entry.isFolder)
            return true;
        if (entry.packedSize > keptAheadBytes) {
            ReadAhead ahead;
            return ReadInOnePieceTo(data, m_file.Get(), entry, ahead, error);
        }
        KeptAhead kept(m_identity, m_number, entry.dataOffset);
        const bool isAnew = kept.Get().IsEmpty();
        bool isWhole = ReadInOnePieceTo(data, m_file.Get(), entry, kept.Get(), error);
        if (!isWhole && !isAnew) {
            // The file may have been written to since what is kept was read: whether the entry is whole, it tells.
            kept.Get().Forget();
            error.clear();
            isWhole = ReadInOnePieceTo(data, m_file.Get(), entry, kept.Get(), error);
        }
        return isWhole;
    } catch (const std::bad_alloc&) {
        error = noMemory;
        return false;
    }
}

} // namespace VexCore
