#pragma once
// Makes ZIP archives byte by byte: valid ones of every kind, and broken ones by changing any field before `Build`.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Test {

/// The fields that local and directory records share, and those that only the directory has.
struct ZipRecord
{
    std::uint32_t signature = 0;
    std::uint16_t madeBy = 3 << 8 | 20; ///< Unix, 2.0
    std::uint16_t needed = 20;
    std::uint16_t flags = 0;
    std::uint16_t method = 0;
    std::uint32_t time = 0x5a210000;
    std::uint32_t crc32 = 0;
    std::uint32_t packedSize = 0;
    std::uint32_t size = 0;
    std::string name;
    std::string extra;
    // Directory only:
    std::string comment;
    std::uint16_t disk = 0;
    std::uint32_t attributes = 0;
    std::optional<std::uint32_t> offset; ///< unset: where the entry really is
};

struct ZipItem
{
    ZipRecord local;
    ZipRecord central;
    std::string packed;
    std::string descriptor;
    std::string gapBefore;
    bool inFile = true; ///< false: the directory lists it, the file does not have it
    bool inDirectory = true;
    std::uint32_t size = 0; ///< true values, for descriptors and ZIP64 fields
    std::uint32_t crc32 = 0;

    ZipItem& Both(void (*change)(ZipRecord&))
    {
        change(local);
        change(central);
        return *this;
    }
    /// The descriptor's form; with `emptyLocal` the local fields are 0, as stream writers leave them.
    ZipItem& WithDescriptor(bool signature = true, bool wide = false, bool emptyLocal = true);
    /// Moves the sizes into a ZIP64 field.
    ZipItem& WithLocalZip64();
    ZipItem& WithCentralZip64();
};

class ZipBuilder
{
public:
    std::vector<ZipItem> items;
    std::string before; ///< bytes in front of everything; offsets count from the true start of the file
    std::string beforeDirectory;
    std::string comment;
    std::string after; ///< behind the end record and its comment
    bool zip64End = false;
    std::string betweenEnds; ///< between the directory and the end record
    // Of the end record; unset: right.
    std::optional<std::uint16_t> endDisk, endDirectoryDisk, endCountHere, endCount, endCommentSize;
    std::optional<std::uint32_t> endSize, endOffset;
    // Of the ZIP64 end record and its locator.
    std::optional<std::uint64_t> end64Size, end64CountHere, end64Count, end64Offset, end64RecordSize, locatorPlace;
    std::optional<std::uint32_t> end64Signature, end64Disk, end64DirectoryDisk, locatorDisk, locatorDisks;

    /// `mode` is the whole Unix mode with its type.
    ZipItem& Add(std::string_view name, std::string_view data, std::uint16_t method = 8, unsigned mode = 0100644);
    ZipItem& AddFolder(std::string_view name, unsigned mode = 0040755);
    std::string Build() const;
};

/// Little-endian numbers.
std::string Bytes16(unsigned value);
std::string Bytes32(std::uint32_t value);
std::string Bytes64(std::uint64_t value);
/// An extra field.
std::string ExtraField(unsigned id, const std::string& body);
/// A raw deflate stream of the data.
std::string Deflate(std::string_view data);
/// The same without an end: streams begin with any number of pieces.
std::string DeflatePiece(std::string_view data);

/// An archive with one entry per line of what a plain package holds.
ZipBuilder PlainPackage();

} // namespace Test
