// Opens an archive: finds the end record, indexes the directory, checks each local header against it, and sees that the
// records lie side by side from the first byte to the end record. Reading of entries: zip_data.cpp; names: zip_names.cpp.
// All reading is pread: a file that is cut short under the process is then an error and not a SIGBUS.
#include "vex_core/zip/zip_reader.h"

#include "vex_core/base/hex.h"
#include "vex_core/os/folder_calls.h"
#include "vex_core/zip/zip_format.h"
#include "vex_core/zip/zip_names.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <new>
#include <numeric>
#include <stdexcept>

#include <fcntl.h>
#include <openssl/evp.h>

namespace VexCore {

using namespace Zip;

namespace {
/// Python's zipfile deflates the nothing that a folder holds: this is what comes out.
constexpr std::string_view emptyDeflate("\3\0", 2);
const char folderWithData[] = "it is a folder with data";

/// A rule that the archive breaks; what() is the reason.
class Refused : public std::runtime_error
{
public:
    explicit Refused(const std::string& reason) : std::runtime_error(reason) {}
};

[[noreturn]] void RefuseEntry(std::string_view name, const std::string& reason)
{
    throw Refused("entry \"" + EscapeForLog(name) + "\": " + reason);
}

/// A window that moves over the file, so that neighbouring records cost one read.
class Window
{
public:
    Window(int descriptor, std::uint64_t fileSize) : m_descriptor(descriptor), m_fileSize(fileSize) {}

    std::uint64_t FileSize() const { return m_fileSize; }

    /// `size` bytes at `offset`; valid until the next call. Both must lie inside the file.
    const unsigned char* At(std::uint64_t offset, std::size_t size)
    {
        if (offset > m_fileSize || size > m_fileSize - offset)
            throw Refused("a record lies outside the file");
        if (offset < m_start || offset - m_start > m_bytes.size() || size > m_bytes.size() - (offset - m_start))
            Fill(offset, size);
        return m_bytes.data() + (offset - m_start);
    }

private:
    void Fill(std::uint64_t offset, std::size_t size)
    {
        // Records that lie close together are worth reading along; the data of a big entry is not.
        const bool near = offset >= m_start && offset - m_start < 2 * nearBytes;
        const std::uint64_t wanted = std::max<std::uint64_t>(size, near ? nearBytes : farBytes);
        m_bytes.resize(static_cast<std::size_t>(std::min(wanted, m_fileSize - offset)));
        m_start = offset;
        const ssize_t count = os::PReadFull(m_descriptor, m_bytes.data(), m_bytes.size(), static_cast<off_t>(offset));
        if (count < 0)
            throw Refused("cannot be read: " + os::ErrorText(errno));
        if (static_cast<std::size_t>(count) != m_bytes.size())
            throw Refused("the file was cut short while it was read");
    }

    static constexpr std::size_t nearBytes = 128 * 1024;
    static constexpr std::size_t farBytes = 4 * 1024;
    int m_descriptor;
    std::uint64_t m_fileSize;
    std::uint64_t m_start = 0;
    std::vector<unsigned char> m_bytes;
};

class Sha256
{
public:
    Sha256() : m_context(EVP_MD_CTX_new(), EVP_MD_CTX_free)
    {
        if (!m_context || EVP_DigestInit_ex(m_context.get(), EVP_sha256(), nullptr) != 1)
            throw Refused("SHA-256 is not available");
    }

    void Add(const unsigned char* data, std::size_t size) { EVP_DigestUpdate(m_context.get(), data, size); }

    std::string Hex()
    {
        std::array<unsigned char, EVP_MAX_MD_SIZE> digest;
        unsigned size = 0;
        EVP_DigestFinal_ex(m_context.get(), digest.data(), &size);
        return VexCore::Hex(digest.data(), size);
    }

private:
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> m_context;
};

/// What the end record, or the pair of end records, says about the directory.
struct Directory
{
    std::uint64_t offset = 0;
    std::uint64_t size = 0;
    std::uint64_t count = 0;
    std::uint64_t end = 0; ///< where the first end record begins
};

/// Sizes and place as a header gives them, before and after its ZIP64 field was looked at.
struct Sizes
{
    std::uint64_t size;
    std::uint64_t packedSize;
    std::uint64_t offset = 0;
    std::uint32_t disk = 0;
};

/// Where the extra fields of a header differ from what is accepted, and what its ZIP64 field holds.
struct Extra
{
    const unsigned char* zip64 = nullptr;
    std::size_t zip64Size = 0;
};

void CheckAsiUnix(std::string_view name, const unsigned char* data, std::size_t size)
{
    // An old Unix field with a mode of its own, which other readers obey: it may not make a link or a device.
    if (size < 6)
        RefuseEntry(name, "an extra field is malformed");
    const unsigned type = Get16(data + 4) & 0170000u;
    if (type != 0 && type != 0100000u && type != 0040000u)
        RefuseEntry(name, "it is neither a regular file nor a folder");
}

Extra ParseExtra(std::string_view name, const unsigned char* data, std::size_t size)
{
    Extra extra;
    while (size != 0) {
        if (size < 4 || static_cast<std::size_t>(Get16(data + 2)) > size - 4)
            RefuseEntry(name, "an extra field is malformed");
        const std::uint16_t id = Get16(data);
        const std::size_t length = Get16(data + 2);
        const unsigned char* const body = data + 4;
        if (id == extraUnicodePath)
            RefuseEntry(name, "it has a Unicode path field");
        if (id == extraAsiUnix)
            CheckAsiUnix(name, body, length);
        if (id == extraZip64) {
            if (extra.zip64)
                RefuseEntry(name, "it has two ZIP64 fields");
            extra.zip64 = body;
            extra.zip64Size = length;
        }
        data = body + length;
        size -= 4 + length;
    }
    return extra;
}

/// Puts the values of a ZIP64 field where the header says "see there". Writers differ: some put only what the header lacks,
/// some all values in their fixed order; then those that the header has must be equal (or 0, where they follow in a descriptor).
void ApplyZip64(std::string_view name, const Extra& extra, bool local, bool later, Sizes& sizes)
{
    struct Value
    {
        std::uint64_t* value;
        bool missing;
    };
    const std::array<Value, 3> values{{{&sizes.size, sizes.size == full32},
                                       {&sizes.packedSize, sizes.packedSize == full32},
                                       {&sizes.offset, !local && sizes.offset == full32}}};
    const bool diskMissing = !local && sizes.disk == full16;
    std::size_t needed = diskMissing ? 4 : 0;
    for (const Value& value : values)
        needed += value.missing ? 8 : 0;
    if (!extra.zip64)
        return; // the numbers mean themselves, and the places that they claim are checked like any others
    const bool onlyMissing = needed != 0 && extra.zip64Size == needed;
    const std::size_t fixedLength = extra.zip64Size;
    const bool fixedOrder = fixedLength == 16 || (!local && (fixedLength == 24 || fixedLength == 28));
    if (!onlyMissing && !fixedOrder)
        RefuseEntry(name, "its ZIP64 field is malformed");
    std::size_t at = 0;
    for (const Value& value : values) {
        if (at + 8 > extra.zip64Size || (onlyMissing && !value.missing)) {
            if (value.missing)
                RefuseEntry(name, "its ZIP64 field is malformed");
            continue;
        }
        const std::uint64_t given = Get64(extra.zip64 + at);
        at += 8;
        if (!value.missing && *value.value != given && !(later && (given == 0 || *value.value == 0)))
            RefuseEntry(name, "its ZIP64 field and its header differ");
        if (value.missing || *value.value == 0)
            *value.value = given;
    }
    if (diskMissing || fixedLength - at == 4) {
        if (fixedLength - at != 4)
            RefuseEntry(name, "its ZIP64 field is malformed");
        sizes.disk = Get32(extra.zip64 + at);
    }
}

} // namespace

/// The steps of `ZipArchive::Open`. Each throws Refused.
class ZipOpener
{
public:
    ZipOpener(ZipArchive& archive, const ZipLimits& limits)
        : m_archive(archive), m_limits(limits),
          m_window(archive.m_descriptor, static_cast<std::uint64_t>(archive.m_identity.size))
    {}

    void Run()
    {
        const Directory directory = FindDirectory();
        if (directory.count > m_limits.maxEntries)
            throw Refused("it has more than " + std::to_string(m_limits.maxEntries) + " entries");
        IndexDirectory(directory);
        IndexNames();
        CheckTiling(directory);
    }

private:
    Directory FindDirectory();
    std::uint64_t FindEndRecord();
    std::uint64_t EndOfContent();
    bool ReadEnd64(std::uint64_t end, Directory& directory);

    void IndexDirectory(const Directory& directory);
    std::size_t IndexEntry(std::uint64_t at, std::uint64_t left);
    static void CheckType(const ZipEntry& entry, std::uint32_t attributes);
    void CheckSizes(const ZipEntry& entry);

    void IndexNames();
    void CheckTiling(const Directory& directory);
    std::uint64_t CheckLocalHeader(ZipEntry& entry, std::uint16_t flags);
    void CheckDescriptor(const ZipEntry& entry, std::uint64_t at, std::uint64_t size);

    ZipArchive& m_archive;
    const ZipLimits& m_limits;
    Window m_window;
    Sha256 m_hash;
    std::uint64_t m_totalSize = 0;
    std::vector<std::uint16_t> m_flags; // of each entry, in the order of the directory
};

/// Where the NUL padding that some carriers add begins. Looked for in the last mebibyte only.
std::uint64_t ZipOpener::EndOfContent()
{
    constexpr std::uint64_t chunk = 4096;
    constexpr std::uint64_t maxPadding = 1 << 20;
    const std::uint64_t size = m_window.FileSize();
    for (std::uint64_t end = size; end != 0 && size - end < maxPadding;) {
        const std::uint64_t start = end > chunk ? end - chunk : 0;
        const unsigned char* const bytes = m_window.At(start, static_cast<std::size_t>(end - start));
        for (std::uint64_t at = end; at != start; --at)
            if (bytes[at - 1 - start] != 0)
                return at;
        end = start;
    }
    throw Refused("it has no end record");
}

/// The one end record whose comment, with nothing but NULs after it, ends the file.
std::uint64_t ZipOpener::FindEndRecord()
{
    const std::uint64_t fileSize = m_window.FileSize();
    if (fileSize < endSize)
        throw Refused("it has no end record");
    const std::uint64_t contentEnd = EndOfContent();
    const std::uint64_t reach = endSize + maxComment;
    const std::uint64_t first = contentEnd > reach ? contentEnd - reach : 0;
    const std::uint64_t last = std::min(contentEnd, fileSize - endSize);
    if (last < first)
        throw Refused("it has no end record");
    const unsigned char* const bytes = m_window.At(first, static_cast<std::size_t>(last - first + endSize));
    bool found = false;
    std::uint64_t place = 0;
    for (std::uint64_t at = first; at <= last; ++at) {
        const unsigned char* const record = bytes + (at - first);
        if (record[0] != 'P' || Get32(record) != endSignature)
            continue;
        const std::uint64_t end = at + endSize + Get16(record + 20);
        if (end < contentEnd || end > fileSize)
            continue;
        if (found)
            throw Refused("it has two end records");
        found = true;
        place = at;
    }
    if (!found)
        throw Refused("it has no end record whose comment ends the file");
    return place;
}

/// Reads the pair of ZIP64 records before the end record, where there is one.
bool ZipOpener::ReadEnd64(std::uint64_t end, Directory& directory)
{
    if (end < locator64Size)
        return false;
    const unsigned char* const locator = m_window.At(end - locator64Size, locator64Size);
    if (Get32(locator) != locator64Signature)
        return false;
    const std::uint64_t place = Get64(locator + 8);
    if (Get32(locator + 4) != 0 || Get32(locator + 16) != 1)
        throw Refused("it is spread over several disks");
    if (end < locator64Size + end64Size || place != end - locator64Size - end64Size)
        throw Refused("the place of its ZIP64 end record is wrong");
    const unsigned char* const record = m_window.At(place, end64Size);
    if (Get32(record) != end64Signature || Get64(record + 4) != end64Size - 12)
        throw Refused("its ZIP64 end record is malformed");
    if (Get32(record + 16) != 0 || Get32(record + 20) != 0 || Get64(record + 24) != Get64(record + 32))
        throw Refused("it is spread over several disks");
    directory.count = Get64(record + 32);
    directory.size = Get64(record + 40);
    directory.offset = Get64(record + 48);
    directory.end = place;
    return true;
}

Directory ZipOpener::FindDirectory()
{
    const std::uint64_t end = FindEndRecord();
    std::array<unsigned char, endSize> record;
    std::copy_n(m_window.At(end, endSize), endSize, record.begin());
    const std::uint16_t disk = Get16(&record[4]);
    const std::uint16_t directoryDisk = Get16(&record[6]);
    const std::uint16_t countHere = Get16(&record[8]);
    const std::uint16_t count = Get16(&record[10]);
    const std::uint32_t size = Get32(&record[12]);
    const std::uint32_t offset = Get32(&record[16]);

    Directory directory;
    const bool wide = ReadEnd64(end, directory);
    if (!wide)
        directory = Directory{offset, size, count, end};
    const auto disksAgree = [wide](std::uint16_t value) { return value == 0 || (wide && value == full16); };
    if (!disksAgree(disk) || !disksAgree(directoryDisk) || countHere != count)
        throw Refused("it is spread over several disks");
    if (wide
        && ((count != full16 && count != directory.count) || (size != full32 && size != directory.size)
            || (offset != full32 && offset != directory.offset)))
        throw Refused("its two end records differ");
    if (directory.offset > directory.end || directory.size != directory.end - directory.offset)
        throw Refused("the place or the size of its directory is wrong");
    return directory;
}

void ZipOpener::IndexDirectory(const Directory& directory)
{
    if (directory.count > directory.size / directorySize)
        throw Refused("the count of its entries is wrong");
    m_archive.m_entries.reserve(static_cast<std::size_t>(directory.count));
    m_flags.reserve(static_cast<std::size_t>(directory.count));
    std::uint64_t at = directory.offset;
    for (std::uint64_t i = 0; i < directory.count; ++i)
        at += IndexEntry(at, directory.end - at);
    if (at != directory.end)
        throw Refused("the count of its entries is wrong");
    m_archive.m_directorySha256 = m_hash.Hex();
}

/// Indexes the directory's record at `at` and returns its length.
std::size_t ZipOpener::IndexEntry(std::uint64_t at, std::uint64_t left)
{
    if (left < directorySize)
        throw Refused("its directory is cut short");
    const unsigned char* record = m_window.At(at, directorySize);
    if (Get32(record) != directorySignature)
        throw Refused("a record of its directory is malformed");
    const std::size_t nameSize = Get16(record + 28);
    const std::size_t extraSize = Get16(record + 30);
    const std::size_t length = directorySize + nameSize + extraSize + Get16(record + 32);
    if (left < length)
        throw Refused("its directory is cut short");
    record = m_window.At(at, length);
    m_hash.Add(record, length);

    ZipEntry entry;
    entry.name.assign(reinterpret_cast<const char*>(record) + directorySize, nameSize);
    if (const char* const why = WhyNameIsRefused(entry.name))
        RefuseEntry(entry.name, why);
    const std::uint16_t flags = Get16(record + 8);
    if (flags & flagEncrypted)
        RefuseEntry(entry.name, "it is encrypted");
    if (flags & ~flagsAccepted)
        RefuseEntry(entry.name, "it has unknown flags");
    entry.method = Get16(record + 10);
    if (entry.method != methodStored && entry.method != methodDeflate)
        RefuseEntry(entry.name, "its method is neither stored nor deflate");
    entry.dosTime = Get32(record + 12);
    entry.crc32 = Get32(record + 16);

    Sizes sizes{Get32(record + 24), Get32(record + 20), Get32(record + 42), Get16(record + 34)};
    ApplyZip64(entry.name, ParseExtra(entry.name, record + directorySize + nameSize, extraSize), false, false, sizes);
    if (sizes.disk != 0)
        throw Refused("it is spread over several disks");
    entry.size = sizes.size;
    entry.packedSize = sizes.packedSize;
    entry.headerOffset = sizes.offset;

    const std::uint32_t attributes = Get32(record + 38);
    entry.isFolder = entry.name.back() == '/';
    entry.executable = !entry.isFolder && (attributes >> 16 & 0111) != 0;
    CheckType(entry, attributes);
    CheckSizes(entry);
    m_archive.m_entries.push_back(std::move(entry));
    m_flags.push_back(flags);
    return length;
}

/// The low byte holds the attributes of DOS, the high half a Unix mode, by whatever system the entry was made.
void ZipOpener::CheckType(const ZipEntry& entry, std::uint32_t attributes)
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

void ZipOpener::CheckSizes(const ZipEntry& entry)
{
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
    if (entry.size > m_limits.maxBytes - m_totalSize)
        RefuseEntry(entry.name, "with it the entries are over " + std::to_string(m_limits.maxBytes) + " bytes");
    m_totalSize += entry.size;
}

void ZipOpener::IndexNames()
{
    const std::vector<ZipEntry>& entries = m_archive.m_entries;
    std::vector<std::uint32_t>& order = m_archive.m_byName;
    order.resize(entries.size());
    std::iota(order.begin(), order.end(), 0);
    const auto before = [&entries](std::uint32_t left, std::uint32_t right) {
        return ComparePaths(PathOf(entries[left].name), PathOf(entries[right].name)) < 0;
    };
    if (!std::is_sorted(order.begin(), order.end(), before))
        std::sort(order.begin(), order.end(), before);
    for (std::size_t i = 1; i < order.size(); ++i) {
        // What lies below a path follows it directly, so neighbours are all that can collide.
        const ZipEntry& previous = entries[order[i - 1]];
        const ZipEntry& entry = entries[order[i]];
        if (PathOf(previous.name) == PathOf(entry.name))
            RefuseEntry(entry.name, "it is there twice");
        if (!previous.isFolder && LiesBelow(entry.name, previous.name))
            RefuseEntry(previous.name, "it is a file and the folder of another entry");
    }
}

/// Local headers, data and descriptors must follow each other without overlap or gap from the first byte to the directory.
void ZipOpener::CheckTiling(const Directory& directory)
{
    std::vector<ZipEntry>& entries = m_archive.m_entries;
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
        if (entry.headerOffset != at)
            RefuseEntry(entry.name, entry.headerOffset < at ? "it overlaps another entry" : "there is a gap before it");
        if (next > directory.offset || next < at)
            RefuseEntry(entry.name, "it does not lie before the directory");
        const std::uint16_t flags = m_flags[order[i]];
        const std::uint64_t dataEnd = CheckLocalHeader(entry, flags);
        if (dataEnd > next)
            RefuseEntry(entry.name, "it overlaps what follows it");
        if (flags & flagDescriptor)
            CheckDescriptor(entry, dataEnd, next - dataEnd);
        else if (dataEnd != next)
            RefuseEntry(entry.name, "there is a gap behind it");
        at = next;
    }
    if (at != directory.offset)
        throw Refused("there are bytes before its directory");
}

/// Compares the local header with the directory, notes where the data begins and returns where it ends.
std::uint64_t ZipOpener::CheckLocalHeader(ZipEntry& entry, std::uint16_t flags)
{
    const unsigned char* header = m_window.At(entry.headerOffset, localSize);
    if (Get32(header) != localSignature)
        RefuseEntry(entry.name, "its local header is not where the directory says");
    const std::size_t nameSize = Get16(header + 26);
    const std::size_t extraSize = Get16(header + 28);
    header = m_window.At(entry.headerOffset, localSize + nameSize + extraSize);
    const char* const name = reinterpret_cast<const char*>(header) + localSize;
    if (entry.name != std::string_view(name, nameSize))
        RefuseEntry(entry.name, "its name in the local header differs");
    if (Get16(header + 6) != flags)
        RefuseEntry(entry.name, "its flags in the local header differ");
    if (Get16(header + 8) != entry.method)
        RefuseEntry(entry.name, "its method in the local header differs");

    const bool later = flags & flagDescriptor; // then the writer may have left the fields empty
    Sizes sizes{Get32(header + 22), Get32(header + 18)};
    ApplyZip64(entry.name, ParseExtra(entry.name, header + localSize + nameSize, extraSize), true, later, sizes);
    const std::uint32_t crc = Get32(header + 14);
    const auto agrees = [later](std::uint64_t local, std::uint64_t value) {
        return local == value || (later && local == 0);
    };
    if (!agrees(crc, entry.crc32))
        RefuseEntry(entry.name, "its checksum in the local header differs");
    if (!agrees(sizes.size, entry.size) || !agrees(sizes.packedSize, entry.packedSize))
        RefuseEntry(entry.name, "its sizes in the local header differ");

    entry.dataOffset = entry.headerOffset + localSize + nameSize + extraSize;
    if (entry.packedSize > m_window.FileSize() - entry.dataOffset)
        RefuseEntry(entry.name, "its data does not fit into the file");
    if (entry.isFolder && entry.packedSize != 0
        && std::memcmp(m_window.At(entry.dataOffset, emptyDeflate.size()), emptyDeflate.data(), emptyDeflate.size())
               != 0)
        RefuseEntry(entry.name, folderWithData);
    return entry.dataOffset + entry.packedSize;
}

/// The form of a descriptor follows from its length, because nothing may lie between it and the next record: with or
/// without signature, sizes of 4 or 8 bytes.
void ZipOpener::CheckDescriptor(const ZipEntry& entry, std::uint64_t at, std::uint64_t size)
{
    if (size != 12 && size != 16 && size != 20 && size != 24)
        RefuseEntry(entry.name, "its descriptor has a wrong length");
    const unsigned char* descriptor = m_window.At(at, static_cast<std::size_t>(size));
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

std::shared_ptr<const ZipArchive> ZipArchive::Open(const std::string& path, const ZipLimits& limits, std::string& error)
try {
    std::shared_ptr<ZipArchive> archive(new ZipArchive);
    archive->m_path = path;
    // O_NONBLOCK: a FIFO in the place of an archive must not hold us.
    archive->m_descriptor = os::Open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY);
    struct stat status;
    if (archive->m_descriptor < 0 || os::FStat(archive->m_descriptor, status) != 0) {
        error = "cannot be opened: " + os::ErrorText(errno);
        return nullptr;
    }
    if (!S_ISREG(status.st_mode)) {
        error = "is no regular file";
        return nullptr;
    }
    archive->m_identity = IdentityOf(status);
    ZipOpener(*archive, limits).Run();
    error.clear();
    return archive;
} catch (const Refused& refused) {
    error = refused.what();
    return nullptr;
} catch (const std::bad_alloc&) {
    error = "there is not enough memory to open it";
    return nullptr;
}

ZipArchive::~ZipArchive()
{
    if (m_descriptor >= 0)
        os::Close(m_descriptor);
}

FileIdentity IdentityOf(const struct stat& status)
{
    const auto nanoseconds = [](const struct timespec& time) {
        return static_cast<std::int64_t>(time.tv_sec) * 1000000000 + time.tv_nsec;
    };
    return FileIdentity{status.st_dev, status.st_ino, status.st_size, nanoseconds(status.st_mtim),
                        nanoseconds(status.st_ctim)};
}

const ZipEntry* ZipArchive::Find(std::string_view name) const
{
    const auto before = [this](std::uint32_t index, std::string_view path) {
        return ComparePaths(PathOf(m_entries[index].name), path) < 0;
    };
    const auto found = std::lower_bound(m_byName.begin(), m_byName.end(), PathOf(name), before);
    if (found == m_byName.end() || m_entries[*found].name != name)
        return nullptr;
    return &m_entries[*found];
}

} // namespace VexCore
