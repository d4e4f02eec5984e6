// Finds the one end record of an archive and, where there are any, its two ZIP64 records.
#include "vex_core/zip/zip_end_record.h"

#include "vex_core/zip/zip_format.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>

namespace VexCore::Zip {
namespace {
constexpr std::uint64_t maxPadding = 1 << 20; // NULs that some carriers add behind the end record and its comment
constexpr const char* tooMuchPadding = "it has more than 1 MiB of NULs behind its end record";

// Where the NULs at the end of the file begin. The last of them may belong to the end record.
std::uint64_t EndOfContent(Window& window)
{
    constexpr std::uint64_t chunk = 4096;
    constexpr std::uint64_t reach = maxPadding + endSize + maxComment;
    const std::uint64_t size = window.FileSize();
    for (std::uint64_t end = size; end != 0;) {
        if (size - end >= reach)
            throw Refused(tooMuchPadding);
        const std::uint64_t start = end > chunk ? end - chunk : 0;
        const unsigned char* const bytes = window.At(start, static_cast<std::size_t>(end - start));
        for (std::uint64_t at = end; at != start; --at)
            if (bytes[at - 1 - start] != 0)
                return at;
        end = start;
    }
    throw Refused("it has no end record");
}

// Where the one end record begins whose comment, with nothing but NULs after it, ends the file.
std::uint64_t FindEndRecord(Window& window)
{
    const std::uint64_t fileSize = window.FileSize();
    if (fileSize < endSize)
        throw Refused("it has no end record");
    const std::uint64_t contentEnd = EndOfContent(window);
    const std::uint64_t reach = endSize + maxComment;
    const std::uint64_t first = contentEnd > reach ? contentEnd - reach : 0;
    const std::uint64_t last = std::min(contentEnd, fileSize - endSize);
    if (last < first)
        throw Refused("it has no end record");
    const unsigned char* const bytes = window.At(first, static_cast<std::size_t>(last - first + endSize));
    std::optional<std::uint64_t> place;
    // Nearly all of these bytes are no signature's first: the C library looks at many of them at a time.
    for (std::uint64_t at = first; at <= last; ++at) {
        const void* const next = std::memchr(bytes + (at - first), 'P', static_cast<std::size_t>(last - at + 1));
        if (!next)
            break;
        const unsigned char* const record = static_cast<const unsigned char*>(next);
        at = first + static_cast<std::uint64_t>(record - bytes);
        if (Get32(record) != endSignature)
            continue;
        const std::uint64_t end = at + endSize + Get16(record + 20);
        if (end < contentEnd || end > fileSize)
            continue;
        if (place)
            throw Refused("it has two end records");
        place = at;
    }
    if (!place)
        throw Refused("it has no end record whose comment ends the file");
    if (fileSize - (*place + endSize + Get16(bytes + (*place - first) + 20)) > maxPadding)
        throw Refused(tooMuchPadding);
    return *place;
}

// What the pair of ZIP64 records right before the end record says; nothing when there is no such pair.
std::optional<DirectoryPlace> ReadZip64Records(Window& window, std::uint64_t endRecord)
{
    if (endRecord < locator64Size)
        return std::nullopt;
    const unsigned char* const locator = window.At(endRecord - locator64Size, locator64Size);
    if (Get32(locator) != locator64Signature)
        return std::nullopt;
    const std::uint64_t place = Get64(locator + 8);
    if (Get32(locator + 4) != 0 || Get32(locator + 16) != 1)
        throw Refused("it is spread over several disks");
    if (endRecord < locator64Size + end64Size || place != endRecord - locator64Size - end64Size)
        throw Refused("the place of its ZIP64 end record is wrong");
    const unsigned char* const record = window.At(place, end64Size);
    if (Get32(record) != end64Signature || Get64(record + 4) != end64Size - 12)
        throw Refused("its ZIP64 end record is malformed");
    if (Get32(record + 16) != 0 || Get32(record + 20) != 0 || Get64(record + 24) != Get64(record + 32))
        throw Refused("it is spread over several disks");
    DirectoryPlace directory;
    directory.count = Get64(record + 32);
    directory.size = Get64(record + 40);
    directory.offset = Get64(record + 48);
    directory.end = place;
    return directory;
}

} // namespace

DirectoryPlace FindDirectory(Window& window)
{
    const std::uint64_t end = FindEndRecord(window);
    std::array<unsigned char, endSize> record;
    std::copy_n(window.At(end, endSize), endSize, record.begin());
    const std::uint16_t disk = Get16(&record[4]);
    const std::uint16_t directoryDisk = Get16(&record[6]);
    const std::uint16_t countHere = Get16(&record[8]);
    const std::uint16_t count = Get16(&record[10]);
    const std::uint32_t size = Get32(&record[12]);
    const std::uint32_t offset = Get32(&record[16]);

    const std::optional<DirectoryPlace> wide = ReadZip64Records(window, end);
    const auto namesFirstDisk = [&wide](std::uint16_t value) { return value == 0 || (wide && value == full16); };
    if (!namesFirstDisk(disk) || !namesFirstDisk(directoryDisk) || countHere != count)
        throw Refused("it is spread over several disks");
    if (wide
        && ((count != full16 && count != wide->count) || (size != full32 && size != wide->size)
            || (offset != full32 && offset != wide->offset)))
        throw Refused("its two end records differ");
    const DirectoryPlace directory = wide ? *wide : DirectoryPlace{offset, size, count, end};
    if (directory.offset > directory.end || directory.size != directory.end - directory.offset)
        throw Refused("the place or the size of its directory is wrong");
    return directory;
}

} // namespace VexCore::Zip
