#include "support/zip_builder.h"

#include <stdexcept>

#include <zlib.h>

namespace Test {
namespace {
std::string Shared(const ZipRecord& record)
{
    return Bytes16(record.needed) + Bytes16(record.flags) + Bytes16(record.method) + Bytes32(record.time)
           + Bytes32(record.crc32) + Bytes32(record.packedSize) + Bytes32(record.size)
           + Bytes16(static_cast<unsigned>(record.name.size())) + Bytes16(static_cast<unsigned>(record.extra.size()));
}

std::string LocalHeader(const ZipRecord& record)
{
    return Bytes32(record.signature) + Shared(record) + record.name + record.extra;
}

std::string CentralHeader(const ZipRecord& record, std::uint64_t offset)
{
    return Bytes32(record.signature) + Bytes16(record.madeBy) + Shared(record)
           + Bytes16(static_cast<unsigned>(record.comment.size())) + Bytes16(record.disk) + Bytes16(0)
           + Bytes32(record.attributes) + Bytes32(record.offset.value_or(static_cast<std::uint32_t>(offset)))
           + record.name + record.extra + record.comment;
}

} // namespace

std::string Bytes16(unsigned value)
{
    return {static_cast<char>(value & 0xff), static_cast<char>(value >> 8 & 0xff)};
}

std::string Bytes32(std::uint32_t value)
{
    return Bytes16(value & 0xffff) + Bytes16(value >> 16);
}

std::string Bytes64(std::uint64_t value)
{
    return Bytes32(static_cast<std::uint32_t>(value)) + Bytes32(static_cast<std::uint32_t>(value >> 32));
}

std::string ExtraField(unsigned id, const std::string& body)
{
    return Bytes16(id) + Bytes16(static_cast<unsigned>(body.size())) + body;
}

namespace {
std::string Deflate(std::string_view data, int flush)
{
    z_stream stream{};
    if (deflateInit2(&stream, 6, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY) != Z_OK)
        throw std::runtime_error("deflateInit2");
    std::string packed(deflateBound(&stream, uLong(data.size())) + 16, '\0'); // a flush adds a few bytes
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
    stream.avail_in = uInt(data.size());
    stream.next_out = reinterpret_cast<Bytef*>(&packed[0]);
    stream.avail_out = uInt(packed.size());
    deflate(&stream, flush);
    packed.resize(stream.total_out);
    deflateEnd(&stream);
    return packed;
}

} // namespace

std::string Deflate(std::string_view data)
{
    return Deflate(data, Z_FINISH);
}

std::string DeflatePiece(std::string_view data)
{
    return Deflate(data, Z_FULL_FLUSH);
}

ZipItem& ZipItem::WithDescriptor(bool signature, bool wide, bool emptyLocal)
{
    local.flags |= 8;
    central.flags |= 8;
    const auto number = [wide](std::uint32_t value) { return wide ? Bytes64(value) : Bytes32(value); };
    descriptor = (signature ? Bytes32(0x08074b50) : std::string()) + Bytes32(crc32)
                 + number(static_cast<std::uint32_t>(packed.size())) + number(size);
    if (emptyLocal)
        local.crc32 = local.packedSize = local.size = 0;
    return *this;
}

ZipItem& ZipItem::WithLocalZip64()
{
    local.extra += ExtraField(1, Bytes64(local.size) + Bytes64(local.packedSize));
    local.size = local.packedSize = 0xffffffff;
    local.needed = 45;
    return *this;
}

ZipItem& ZipItem::WithCentralZip64()
{
    central.extra += ExtraField(1, Bytes64(central.size) + Bytes64(central.packedSize));
    central.size = central.packedSize = 0xffffffff;
    central.needed = 45;
    return *this;
}

ZipItem& ZipBuilder::Add(std::string_view name, std::string_view data, std::uint16_t method, unsigned mode)
{
    ZipItem item;
    item.packed = method == 8 ? Deflate(data) : std::string(data);
    item.size = static_cast<std::uint32_t>(data.size());
    item.crc32 = static_cast<std::uint32_t>(::crc32(0, reinterpret_cast<const Bytef*>(data.data()), uInt(data.size())));
    item.local.name = std::string(name);
    item.local.method = method;
    item.local.crc32 = item.crc32;
    item.local.packedSize = static_cast<std::uint32_t>(item.packed.size());
    item.local.size = item.size;
    item.central = item.local;
    item.local.signature = 0x04034b50;
    item.central.signature = 0x02014b50;
    item.central.attributes = static_cast<std::uint32_t>(mode) << 16;
    items.push_back(std::move(item));
    return items.back();
}

ZipItem& ZipBuilder::AddFolder(std::string_view name, unsigned mode)
{
    ZipItem& item = Add(name, "", 0, mode);
    item.central.attributes |= 0x10;
    return item;
}

std::string ZipBuilder::Build() const
{
    std::string file = before;
    std::string directory;
    std::uint64_t count = 0;
    for (const ZipItem& item : items) {
        file += item.inFile ? item.gapBefore : std::string();
        const std::uint64_t offset = file.size();
        if (item.inFile)
            file += LocalHeader(item.local) + item.packed + item.descriptor;
        if (item.inDirectory) {
            directory += CentralHeader(item.central, offset);
            ++count;
        }
    }
    file += beforeDirectory;
    const std::uint64_t place = file.size();
    file += directory + betweenEnds;
    if (zip64End) {
        const std::uint64_t end64 = file.size();
        file += Bytes32(end64Signature.value_or(0x06064b50)) + Bytes64(end64RecordSize.value_or(44))
                + Bytes16(3 << 8 | 45) + Bytes16(45) + Bytes32(end64Disk.value_or(0))
                + Bytes32(end64DirectoryDisk.value_or(0)) + Bytes64(end64CountHere.value_or(end64Count.value_or(count)))
                + Bytes64(end64Count.value_or(count)) + Bytes64(end64Size.value_or(directory.size()))
                + Bytes64(end64Offset.value_or(place));
        file += Bytes32(0x07064b50) + Bytes32(locatorDisk.value_or(0)) + Bytes64(locatorPlace.value_or(end64))
                + Bytes32(locatorDisks.value_or(1));
    }
    const std::uint16_t count16 = zip64End ? 0xffff : static_cast<std::uint16_t>(count);
    file += Bytes32(0x06054b50) + Bytes16(endDisk.value_or(0)) + Bytes16(endDirectoryDisk.value_or(0))
            + Bytes16(endCountHere.value_or(endCount.value_or(count16))) + Bytes16(endCount.value_or(count16))
            + Bytes32(endSize.value_or(zip64End ? 0xffffffff : static_cast<std::uint32_t>(directory.size())))
            + Bytes32(endOffset.value_or(zip64End ? 0xffffffff : static_cast<std::uint32_t>(place)))
            + Bytes16(endCommentSize.value_or(static_cast<std::uint16_t>(comment.size()))) + comment;
    return file + after;
}

ZipBuilder PlainPackage()
{
    ZipBuilder builder;
    builder.AddFolder("lib/");
    builder.Add("lib/a.lua", "return 1\n");
    builder.Add("lib/b.lua", "return 2\n", 0);
    builder.Add("bin/tool", "#!/bin/sh\necho tool\n", 8, 0100755);
    return builder;
}

} // namespace Test
