// The entries must tile the file: each begins where the one before ended, so that no byte belongs to two entries or to
// none. What the data hold is checked when they are read (zip_data.cpp).

#include "vex_core/zip/zip_tiling.h"

#include "vex_core/zip/zip_extra.h"
#include "vex_core/zip/zip_format.h"

#include <algorithm>
#include <cstring>
#include <numeric>

namespace VexCore::Zip {
namespace {
// Compares the local header with the directory, notes where the data begin and returns where they end.
std::uint64_t CheckLocalHeader(Window& window, ZipEntry& entry)
{
    const unsigned char* header = window.At(entry.headerOffset, localSize);
    if (Get32(header) != localSignature)
        RefuseEntry(entry.name, "its local header is not where the directory says");
    const std::size_t nameSize = Get16(header + 26);
    const std::size_t extraSize = Get16(header + 28);
    header = window.At(entry.headerOffset, localSize + nameSize + extraSize);
    const char* const name = reinterpret_cast<const char*>(header) + localSize;
    if (entry.name != std::string_view(name, nameSize))
        RefuseEntry(entry.name, "its name in the local header differs");
    if (Get16(header + 6) != entry.flags)
        RefuseEntry(entry.name, "its flags in the local header differ");
    if (Get16(header + 8) != entry.method)
        RefuseEntry(entry.name, "its method in the local header differs");

    const bool later = entry.flags & flagDescriptor; // then the writer may have left the fields empty
    EntryExtent extent{Get32(header + 22), Get32(header + 18)};
    ApplyExtraFields(entry.name, header + localSize + nameSize, extraSize,
                     later ? HeaderKind::LocalBeforeDescriptor : HeaderKind::Local, extent);
    const std::uint32_t crc = Get32(header + 14);
    const auto agrees = [later](std::uint64_t local, std::uint64_t value) {
        return local == value || (later && local == 0);
    };
    if (!agrees(crc, entry.crc32))
        RefuseEntry(entry.name, "its checksum in the local header differs");
    if (!agrees(extent.size, entry.size) || !agrees(extent.packedSize, entry.packedSize))
        RefuseEntry(entry.name, "its sizes in the local header differ");

    entry.dataOffset = entry.headerOffset + localSize + nameSize + extraSize;
    if (entry.packedSize > window.FileSize() - entry.dataOffset)
        RefuseEntry(entry.name, "its data does not fit into the file");
    return entry.dataOffset + entry.packedSize;
}

// The directory lets a folder have data of the length of an empty stream; they must be one.
void CheckFolderData(Window& window, const ZipEntry& entry)
{
    if (entry.packedSize != 0
        && std::memcmp(window.At(entry.dataOffset, emptyDeflate.size()), emptyDeflate.data(), emptyDeflate.size()) != 0)
        RefuseEntry(entry.name, folderWithData);
}

// The form of a descriptor follows from its length, because nothing may lie between it and the next record: with or
// without signature, sizes of 4 or 8 bytes.
void CheckDescriptor(Window& window, const ZipEntry& entry, std::uint64_t at, std::uint64_t size)
{
    if (size != 12 && size != 16 && size != 20 && size != 24)
        RefuseEntry(entry.name, "its descriptor has a wrong length");
    const unsigned char* descriptor = window.At(at, static_cast<std::size_t>(size));
    if (size == 16 || size == 24) {
        if (Get32(descriptor) != descriptorSignature)
            RefuseEntry(entry.name, "its descriptor is malformed");
        descriptor += 4;
    }
    const bool wide = size >= 20;
    const std::uint64_t packedSize = wide ? Get64(descriptor + 4) : Get32(descriptor + 4);
    const std::uint64_t unpackedSize = wide ? Get64(descriptor + 12) : Get32(descriptor + 8);
    if (Get32(descriptor) != entry.crc32 || packedSize != entry.packedSize || unpackedSize != entry.size)
        RefuseEntry(entry.name, "its descriptor differs from the directory");
}

// Checks all that belongs to one entry, which must reach from its local header to `next`.
void CheckEntry(Window& window, ZipEntry& entry, std::uint64_t next)
{
    const std::uint64_t dataEnd = CheckLocalHeader(window, entry);
    if (entry.isFolder)
        CheckFolderData(window, entry);
    if (dataEnd > next)
        RefuseEntry(entry.name, "it overlaps what follows it");
    if (entry.flags & flagDescriptor)
        CheckDescriptor(window, entry, dataEnd, next - dataEnd);
    else if (dataEnd != next)
        RefuseEntry(entry.name, "there is a gap behind it");
}

} // namespace

void CheckTiling(Window& window, const DirectoryPlace& directory, std::vector<ZipEntry>& entries, Reasons* reasons)
{
    std::vector<std::uint32_t> order(entries.size());
    std::iota(order.begin(), order.end(), 0);
    const auto before = [&entries](std::uint32_t left, std::uint32_t right) {
        return entries[left].headerOffset < entries[right].headerOffset;
    };
    if (!std::is_sorted(order.begin(), order.end(), before))
        std::sort(order.begin(), order.end(), before);

    std::uint64_t at = 0;
    for (std::size_t i = 0; i < order.size(); ++i) {
        ZipEntry& entry = entries[order[i]];
        const std::uint64_t next = i + 1 < order.size() ? entries[order[i + 1]].headerOffset : directory.offset;
        Apply(reasons, [&] {
            if (entry.headerOffset != at)
                RefuseEntry(entry.name,
                            entry.headerOffset < at ? "it overlaps another entry" : "there is a gap before it");
            if (next > directory.offset || next < at)
                RefuseEntry(entry.name, "it does not lie before the directory");
            CheckEntry(window, entry, next);
        });
        at = next;
    }
    Apply(reasons, [&] {
        if (at != directory.offset)
            throw Refused("there are bytes before its directory");
    });
}

} // namespace VexCore::Zip
