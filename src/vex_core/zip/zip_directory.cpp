// Runs when an archive is opened, before anything in it is used. A rule that is broken refuses the archive as a whole
// (zip_refused.h); what cannot be seen in the directory alone is left to zip_tiling.h.

#include "vex_core/zip/zip_directory.h"

#include "vex_core/zip/zip_extra.h"
#include "vex_core/zip/zip_format.h"

#include <algorithm>
#include <string_view>

#include <libdeflate.h>

namespace VexCore::Zip {
namespace {
// The low byte holds the attributes of DOS, the high half a Unix mode, by whatever system the entry was made.
void CheckType(const ZipEntry& entry, std::uint32_t attributes)
{
    constexpr std::uint32_t dosLabel = 0x08;
    constexpr std::uint32_t dosFolder = 0x10;
    const unsigned type = attributes >> 16 & 0170000;
    const bool regular = type == 0 || type == 0100000;
    const bool folder = type == 0 || type == 0040000;
    if ((!regular && !folder) || (attributes & dosLabel))
        RefuseEntry(entry.name, "it is neither a regular file nor a folder");
    if (entry.isFolder && !folder)
        RefuseEntry(entry.name, "it is named as a folder and marked as a file");
    if (!entry.isFolder && (!regular || (attributes & dosFolder)))
        RefuseEntry(entry.name, "it is marked as a folder and not named as one");
}

void CheckSizes(const ZipEntry& entry)
{
    // What a folder's data are, if it has any, is seen where they lie.
    const bool mayBeEmptyStream = entry.method == methodDeflate && entry.packedSize == emptyDeflate.size();
    if (entry.isFolder && (entry.size != 0 || entry.crc32 != 0 || (entry.packedSize != 0 && !mayBeEmptyStream)))
        RefuseEntry(entry.name, folderWithData);
    if (entry.method == methodStored && entry.size != entry.packedSize)
        RefuseEntry(entry.name, "it is stored and its two sizes differ");
    if (entry.method == methodDeflate && !entry.isFolder && entry.packedSize == 0)
        RefuseEntry(entry.name, "it is deflated and has no data");
    if (entry.size / maxExpansion > entry.packedSize
        || (entry.size / maxExpansion == entry.packedSize && entry.size % maxExpansion != 0))
        RefuseEntry(entry.name, "it claims more than 1032 times its packed size");
}

// What a record of the directory says about its entry.
ZipEntry ParseRecord(const unsigned char* record, std::size_t nameSize, std::size_t extraSize)
{
    ZipEntry entry;
    entry.name.assign(reinterpret_cast<const char*>(record) + directorySize, nameSize);
    if (const char* const why = WhyNameIsRefused(entry.name))
        RefuseEntry(entry.name, why);
    entry.flags = Get16(record + 8);
    if (entry.flags & flagEncrypted)
        RefuseEntry(entry.name, "it is encrypted");
    if (entry.flags & ~flagsAccepted)
        RefuseEntry(entry.name, "it has unknown flags");
    entry.method = Get16(record + 10);
    if (entry.method != methodStored && entry.method != methodDeflate)
        RefuseEntry(entry.name, "its method is neither stored nor deflate");
    entry.crc32 = Get32(record + 16);

    EntryExtent extent{Get32(record + 24), Get32(record + 20), Get32(record + 42), Get16(record + 34)};
    ApplyExtraFields(entry.name, record + directorySize + nameSize, extraSize, HeaderKind::Directory, extent);
    if (extent.disk != 0)
        throw Refused("it is spread over several disks");
    entry.size = extent.size;
    entry.packedSize = extent.packedSize;
    entry.headerOffset = extent.offset;

    const std::uint32_t attributes = Get32(record + 38);
    entry.isFolder = entry.name.back() == '/';
    if (const std::uint32_t unixMode = attributes >> 16; unixMode != 0)
        entry.mode = (unixMode & 0755) | 0600;
    CheckType(entry, attributes);
    CheckSizes(entry);
    return entry;
}

// A record with all its fields of variable length.
struct Record
{
    const unsigned char* bytes;
    std::size_t length;
    std::size_t nameSize;
    std::size_t extraSize;
};

// The record at `at`; valid until the window moves.
Record RecordAt(Window& window, std::uint64_t at, std::uint64_t end)
{
    if (end - at < directorySize)
        throw Refused("its directory is cut short");
    const unsigned char* const fixed = window.At(at, directorySize);
    if (Get32(fixed) != directorySignature)
        throw Refused("a record of its directory is malformed");
    const std::size_t nameSize = Get16(fixed + 28);
    const std::size_t extraSize = Get16(fixed + 30);
    const std::size_t length = directorySize + nameSize + extraSize + Get16(fixed + 32);
    if (end - at < length)
        throw Refused("its directory is cut short");
    return Record{window.At(at, length), length, nameSize, extraSize};
}

} // namespace

Directory ReadDirectory(Window& window, const DirectoryPlace& place, const ZipLimits& limits, Reasons* reasons)
{
    if (place.count > limits.maxEntries)
        throw Refused("it has more than " + std::to_string(limits.maxEntries) + " entries");
    if (place.count > place.size / directorySize)
        throw Refused("the count of its entries is wrong");
    Directory directory;
    directory.entries.reserve(static_cast<std::size_t>(place.count));
    std::uint64_t left = limits.maxBytes;
    std::uint64_t at = place.offset;
    for (std::uint64_t i = 0; i < place.count; ++i) {
        const Record record = RecordAt(window, at, place.end);
        directory.checksum = libdeflate_crc32(directory.checksum, record.bytes, record.length);
        at += record.length;
        Apply(reasons, [&] {
            ZipEntry entry = ParseRecord(record.bytes, record.nameSize, record.extraSize);
            if (entry.size > left)
                RefuseEntry(entry.name, "with it the entries are over " + std::to_string(limits.maxBytes) + " bytes");
            left -= entry.size;
            directory.entries.push_back(std::move(entry));
        });
    }
    if (at != place.end)
        throw Refused("the count of its entries is wrong");
    return directory;
}

std::vector<std::uint32_t> OrderByName(const std::vector<ZipEntry>& entries, Reasons* reasons)
{
    struct Place
    {
        std::string_view path;
        std::uint32_t entry;
    };
    std::vector<Place> places;
    places.reserve(entries.size());
    for (const ZipEntry& entry : entries)
        places.push_back({PathOf(entry.name), static_cast<std::uint32_t>(places.size())});
    const auto before = [](const Place& left, const Place& right) { return ComparePaths(left.path, right.path) < 0; };
    if (!std::is_sorted(places.begin(), places.end(), before))
        std::stable_sort(places.begin(), places.end(), before); // which compares least
    std::vector<std::uint32_t> order;
    order.reserve(places.size());
    for (const Place& place : places)
        order.push_back(place.entry);
    for (std::size_t i = 1; i < order.size(); ++i) {
        // What lies below a path follows it directly, so neighbours are all that can collide.
        const ZipEntry& previous = entries[order[i - 1]];
        const ZipEntry& entry = entries[order[i]];
        Apply(reasons, [&] {
            if (PathOf(previous.name) == PathOf(entry.name))
                RefuseEntry(entry.name, "it is there twice");
            if (!previous.isFolder && LiesBelow(entry.name, previous.name))
                RefuseEntry(previous.name, "it is a file and the folder of another entry");
        });
    }
    return order;
}

} // namespace VexCore::Zip
