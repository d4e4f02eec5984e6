#include "vex/apps/vexctl/archive_writer.h"

#include "vex/apps/vexctl/command.h"

#include "vex_core/zip/zip_format.h"

#include <array>
#include <new>

#include <zlib.h>

namespace Vexctl {

namespace {
namespace Zip = VexCore::Zip;

constexpr std::uint16_t versionNeeded = 20; // deflate
constexpr std::uint16_t madeByUnix = 3 << 8 | versionNeeded;
constexpr std::uint16_t flagUtf8 = 0x0800;
constexpr std::uint16_t flags = Zip::flagDescriptor | flagUtf8;
constexpr std::uint32_t firstTime = 1 << 21 | 1 << 16; // 1980-01-01 00:00:00, the first that there is
constexpr std::uint32_t regularFile = 0100000;

// Little-endian numbers, one behind the other.
class Record
{
public:
    Record& Add16(std::uint32_t value) { return AddBytes(value, 2); }
    Record& Add32(std::uint32_t value) { return AddBytes(value, 4); }
    Record& Add(const std::string& text)
    {
        m_bytes += text;
        return *this;
    }
    const std::string& Bytes() const { return m_bytes; }

private:
    Record& AddBytes(std::uint32_t value, int count)
    {
        for (int i = 0; i < count; ++i)
            m_bytes += static_cast<char>(value >> (8 * i) & 0xff);
        return *this;
    }

    std::string m_bytes;
};

// A number that the format holds in 32 bits, of which the highest means that it stands elsewhere.
std::uint32_t Fitting(std::uint64_t value)
{
    if (value >= Zip::full32)
        throw Failure("a package of 4 GiB or more cannot be made");
    return static_cast<std::uint32_t>(value);
}

} // namespace

struct ArchiveWriter::Entry
{
    std::string name;
    unsigned mode = 0;
    std::uint32_t crc32 = 0;
    std::uint64_t size = 0, packedSize = 0, offset = 0;

    // What the headers of an entry share, up to the lengths of its name and its extra fields.
    void AddTo(Record& record, bool withSizes) const
    {
        record.Add16(versionNeeded).Add16(flags).Add16(Zip::methodDeflate).Add32(firstTime);
        record.Add32(withSizes ? crc32 : 0);
        record.Add32(withSizes ? Fitting(packedSize) : 0).Add32(withSizes ? Fitting(size) : 0);
        record.Add16(static_cast<std::uint32_t>(name.size())).Add16(0);
    }
};

class ArchiveWriter::Deflater
{
public:
    Deflater()
    {
        constexpr int memoryLevel = 8; // the usual one
        if (::deflateInit2(&m_stream, Z_BEST_COMPRESSION, Z_DEFLATED, -MAX_WBITS, memoryLevel, Z_DEFAULT_STRATEGY)
            != Z_OK)
            throw std::bad_alloc();
    }
    ~Deflater() { ::deflateEnd(&m_stream); }
    Deflater(const Deflater&) = delete;
    Deflater& operator=(const Deflater&) = delete;

    // Packs a piece, the last one empty, and shows `put` what comes out.
    template <typename Put>
    void Pack(std::string_view piece, Put put)
    {
        m_stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(piece.data()));
        m_stream.avail_in = static_cast<uInt>(piece.size());
        do {
            m_stream.next_out = m_out.data();
            m_stream.avail_out = static_cast<uInt>(m_out.size());
            ::deflate(&m_stream, piece.empty() ? Z_FINISH : Z_NO_FLUSH);
            put(reinterpret_cast<const char*>(m_out.data()), m_out.size() - m_stream.avail_out);
        } while (m_stream.avail_out == 0);
        if (piece.empty())
            ::deflateReset(&m_stream);
    }

private:
    z_stream m_stream = {};
    std::array<Bytef, 64 * 1024> m_out;
};

ArchiveWriter::ArchiveWriter(Sink sink) : m_sink(std::move(sink)), m_deflater(std::make_unique<Deflater>()) {}

ArchiveWriter::~ArchiveWriter() = default;

void ArchiveWriter::Put(const std::string& bytes)
{
    m_sink(bytes.data(), bytes.size());
    m_offset += bytes.size();
}

void ArchiveWriter::PutData(Entry& entry, const Source& source)
{
    const auto put = [&](const char* data, std::size_t size) {
        if (size == 0)
            return;
        m_sink(data, size);
        m_offset += size;
        entry.packedSize += size;
    };
    for (;;) {
        const std::string_view piece = source();
        m_deflater->Pack(piece, put);
        if (piece.empty())
            return;
        const auto* const bytes = reinterpret_cast<const Bytef*>(piece.data());
        entry.crc32 = static_cast<std::uint32_t>(::crc32_z(entry.crc32, bytes, piece.size()));
        entry.size += piece.size();
        Fitting(entry.size);
    }
}

void ArchiveWriter::Add(const std::string& name, unsigned mode, const Source& source)
{
    Entry entry;
    entry.name = name;
    entry.mode = mode;
    entry.offset = m_offset;
    Record header;
    header.Add32(Zip::localSignature);
    entry.AddTo(header, false);
    Put(header.Add(name).Bytes());
    PutData(entry, source);
    Record descriptor;
    descriptor.Add32(Zip::descriptorSignature).Add32(entry.crc32);
    Put(descriptor.Add32(Fitting(entry.packedSize)).Add32(Fitting(entry.size)).Bytes());
    m_entries.push_back(std::move(entry));
    if (m_entries.size() >= Zip::full16)
        throw Failure("a package of more than 65,534 files cannot be made");
}

void ArchiveWriter::Finish()
{
    const std::uint64_t begin = m_offset;
    for (const Entry& entry : m_entries) {
        Record record;
        record.Add32(Zip::directorySignature).Add16(madeByUnix);
        entry.AddTo(record, true);
        record.Add16(0).Add16(0).Add16(0); // comment, disk, internal attributes
        record.Add32((regularFile | entry.mode) << 16).Add32(Fitting(entry.offset)).Add(entry.name);
        Put(record.Bytes());
    }
    const auto count = static_cast<std::uint32_t>(m_entries.size());
    Record end;
    end.Add32(Zip::endSignature).Add16(0).Add16(0).Add16(count).Add16(count);
    Put(end.Add32(Fitting(m_offset - begin)).Add32(Fitting(begin)).Add16(0).Bytes());
}

} // namespace Vexctl
