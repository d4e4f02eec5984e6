// Fields are walked through to the last byte: one that other readers would obey (another name, another kind of file)
// must not say what the header does not.

#include "vex_core/zip/zip_extra.h"

#include "vex_core/zip/zip_format.h"

#include <array>

namespace VexCore::Zip {
namespace {
// The bytes of one extra field behind its id and length; `data` is null when there is none.
struct Field
{
    const unsigned char* data = nullptr;
    std::size_t size = 0;
};

// An old Unix field has a mode of its own, which other readers obey: it may not make a link or a device.
void CheckAsiUnix(std::string_view name, const Field& field)
{
    if (field.size < 6)
        RefuseEntry(name, "an extra field is malformed");
    const unsigned type = Get16(field.data + 4) & 0170000u;
    if (type != 0 && type != 0100000u && type != 0040000u)
        RefuseEntry(name, "it is neither a regular file nor a folder");
}

// Checks all fields and returns the ZIP64 field.
Field FindZip64(std::string_view name, const unsigned char* data, std::size_t size)
{
    Field zip64;
    while (size != 0) {
        if (size < 4 || static_cast<std::size_t>(Get16(data + 2)) > size - 4)
            RefuseEntry(name, "an extra field is malformed");
        const std::uint16_t id = Get16(data);
        const Field field{data + 4, Get16(data + 2)};
        if (id == extraUnicodePath)
            RefuseEntry(name, "it has a Unicode path field");
        if (id == extraAsiUnix)
            CheckAsiUnix(name, field);
        if (id == extraZip64) {
            if (zip64.data)
                RefuseEntry(name, "it has two ZIP64 fields");
            zip64 = field;
        }
        data += 4 + field.size;
        size -= 4 + field.size;
    }
    return zip64;
}

// Writers differ: some put only what the header lacks into the field, some all values in their fixed order; then those
// that the header has must be equal (or 0, where they follow in a descriptor).
void ApplyZip64(std::string_view name, const Field& field, HeaderKind kind, EntryExtent& extent)
{
    struct Value
    {
        std::uint64_t* value;
        bool missing;
    };
    const bool inDirectory = kind == HeaderKind::Directory;
    const std::array<Value, 3> values{{{&extent.size, extent.size == full32},
                                       {&extent.packedSize, extent.packedSize == full32},
                                       {&extent.offset, inDirectory && extent.offset == full32}}};
    const bool diskMissing = inDirectory && extent.disk == full16;
    std::size_t needed = diskMissing ? 4 : 0;
    for (const Value& value : values)
        needed += value.missing ? 8 : 0;
    const bool onlyMissing = needed != 0 && field.size == needed;
    const bool fixedOrder = field.size == 16 || (inDirectory && (field.size == 24 || field.size == 28));
    if (!onlyMissing && !fixedOrder)
        RefuseEntry(name, "its ZIP64 field is malformed");
    const auto mayDiffer = [kind](std::uint64_t given, std::uint64_t own) {
        return kind == HeaderKind::LocalBeforeDescriptor && (given == 0 || own == 0);
    };
    std::size_t at = 0;
    for (const Value& value : values) {
        if (at + 8 > field.size || (onlyMissing && !value.missing)) {
            if (value.missing)
                RefuseEntry(name, "its ZIP64 field is malformed");
            continue;
        }
        const std::uint64_t given = Get64(field.data + at);
        at += 8;
        if (!value.missing && *value.value != given && !mayDiffer(given, *value.value))
            RefuseEntry(name, "its ZIP64 field and its header differ");
        if (value.missing || *value.value == 0)
            *value.value = given;
    }
    const bool diskGiven = field.size - at == 4;
    if (diskMissing && !diskGiven)
        RefuseEntry(name, "its ZIP64 field is malformed");
    if (diskGiven)
        extent.disk = Get32(field.data + at);
}

} // namespace

void ApplyExtraFields(std::string_view name, const unsigned char* fields, std::size_t length, HeaderKind kind,
                      EntryExtent& extent)
{
    const Field zip64 = FindZip64(name, fields, length);
    if (zip64.data)
        ApplyZip64(name, zip64, kind, extent);
}

} // namespace VexCore::Zip
