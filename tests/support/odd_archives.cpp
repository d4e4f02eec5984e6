#include "support/odd_archives.h"

#include "support/zip_builder.h"

namespace Test {
namespace {
const std::string endRecord = Bytes32(0x06054b50) + std::string(18, '\0');

class Broken
{
public:
    // Two hundred callers: a std::function for each is most of what the compiler would do here.
    template <class BreakIt>
    void Add(const std::string& story, const std::string& reason, const BreakIt& breakIt)
    {
        ZipBuilder builder = PlainPackage();
        breakIt(builder);
        Keep(story, reason, builder);
    }
    // A fault of the second entry, "lib/a.lua".
    template <class BreakIt>
    void AddItem(const std::string& story, const std::string& reason, const BreakIt& breakIt)
    {
        ZipBuilder builder = PlainPackage();
        breakIt(builder.items[1]);
        Keep(story, reason, builder);
    }
    void AddName(const std::string& story, const std::string& name, const std::string& reason)
    {
        Add(story, reason, [&](ZipBuilder& builder) { builder.Add(name, "x"); });
    }

    std::vector<BrokenArchive> list;

private:
    void Keep(const std::string& story, const std::string& reason, const ZipBuilder& builder)
    {
        list.push_back({story, builder.Build(), reason});
    }
};

void AddEndFaults(Broken& broken)
{
    broken.list.push_back({"NoBytes", "", "no end record"});
    broken.list.push_back({"NoArchive", std::string(5000, 'x'), "no end record"});
    broken.Add("OneNulTooManyBehindTheEnd", "more than 1 MiB of NULs behind its end record",
               [](ZipBuilder& b) { b.after.assign((1 << 20) + 1, '\0'); });
    broken.Add("OneNulTooManyBehindACommentOfNuls", "more than 1 MiB of NULs behind its end record", [](ZipBuilder& b) {
        b.comment.assign(65535, '\0');
        b.after.assign((1 << 20) + 1, '\0');
    });
    broken.list.push_back({"OnlyNuls", std::string(5000, '\0'), "no end record"});
    broken.list.push_back({"CutInsideItsEndRecord", PlainPackage().Build().substr(0, PlainPackage().Build().size() - 3),
                           "no end record"});
    broken.list.push_back({"CutInTheMiddle", PlainPackage().Build().substr(0, 200), "no end record"});
    broken.Add("BytesBehindTheEnd", "no end record", [](ZipBuilder& b) { b.after = "x"; });
    broken.Add("CommentShorterThanSaid", "no end record", [](ZipBuilder& b) {
        b.comment = "abc";
        b.endCommentSize = 4;
    });
    broken.Add("CommentLongerThanSaid", "no end record", [](ZipBuilder& b) {
        b.comment = "abc";
        b.endCommentSize = 2;
    });
    broken.Add("SecondEndRecordInTheComment", "two end records", [](ZipBuilder& b) { b.comment = endRecord; });
    broken.Add("SecondArchiveInTheComment", "two end records",
               [](ZipBuilder& b) { b.comment = PlainPackage().Build(); });
    broken.Add("SecondEndRecordBehindTheFirst", "two end records", [](ZipBuilder& b) {
        b.endCommentSize = 22;
        b.after = endRecord;
    });
    broken.Add("OtherDisk", "several disks", [](ZipBuilder& b) { b.endDisk = 1; });
    broken.Add("DirectoryOnAnotherDisk", "several disks", [](ZipBuilder& b) { b.endDirectoryDisk = 1; });
    broken.Add("UnknownDisk", "several disks", [](ZipBuilder& b) { b.endDisk = 0xffff; });
    broken.Add("CountsOfTwoDisks", "several disks", [](ZipBuilder& b) { b.endCountHere = 3; });
    broken.Add("EntryOnAnotherDisk", "several disks", [](ZipBuilder& b) { b.items[1].central.disk = 1; });
    broken.Add("CountTooSmall", "count of its entries", [](ZipBuilder& b) { b.endCount = 3; });
    broken.Add("CountTooBig", "count of its entries", [](ZipBuilder& b) { b.endCount = 5; });
    broken.Add("CountFarTooBig", "count of its entries", [](ZipBuilder& b) { b.endCount = 50000; });
    broken.Add("DirectorySizeWrong", "directory is wrong", [](ZipBuilder& b) { b.endSize = 40; });
    broken.Add("DirectoryPlaceWrong", "directory is wrong", [](ZipBuilder& b) { b.endOffset = 1; });
    broken.Add("DirectoryBeyondTheFile", "directory is wrong", [](ZipBuilder& b) { b.endOffset = 0xfffffff0; });
    broken.Add("BytesBetweenDirectoryAndEnd", "directory is wrong", [](ZipBuilder& b) { b.betweenEnds = "xx"; });
    broken.Add("Zip64RecordWithHiddenBytes", "ZIP64 end record", [](ZipBuilder& b) {
        b.zip64End = true;
        b.end64RecordSize = 60;
    });
    broken.Add("Zip64LocatorPointsElsewhere", "ZIP64 end record", [](ZipBuilder& b) {
        b.zip64End = true;
        b.locatorPlace = 0;
    });
    broken.Add("Zip64OfTwoDisks", "several disks", [](ZipBuilder& b) {
        b.zip64End = true;
        b.locatorDisks = 2;
    });
    broken.Add("Zip64LocatorOnAnotherDisk", "several disks", [](ZipBuilder& b) {
        b.zip64End = true;
        b.locatorDisk = 1;
    });
    broken.Add("Zip64OnAnotherDisk", "several disks", [](ZipBuilder& b) {
        b.zip64End = true;
        b.end64Disk = 1;
    });
    broken.Add("Zip64DirectoryOnAnotherDisk", "several disks", [](ZipBuilder& b) {
        b.zip64End = true;
        b.end64DirectoryDisk = 1;
    });
    broken.Add("Zip64CountsOfTwoDisks", "several disks", [](ZipBuilder& b) {
        b.zip64End = true;
        b.end64CountHere = 3;
    });
    broken.Add("Zip64EndSignatureWrong", "ZIP64 end record is malformed", [](ZipBuilder& b) {
        b.zip64End = true;
        b.end64Signature = 0x06064b51;
    });
    broken.Add("Zip64DirectorySizeWrong", "directory is wrong", [](ZipBuilder& b) {
        b.zip64End = true;
        b.end64Size = 40;
    });
    broken.Add("Zip64CountWrong", "count of its entries", [](ZipBuilder& b) {
        b.zip64End = true;
        b.end64Count = 3;
    });
    broken.Add("Zip64CountHuge", "entries", [](ZipBuilder& b) {
        b.zip64End = true;
        b.end64Count = static_cast<std::uint64_t>(1) << 60;
    });
    broken.Add("Zip64DirectoryPlaceOverflows", "directory is wrong", [](ZipBuilder& b) {
        b.zip64End = true;
        b.end64Offset = ~static_cast<std::uint64_t>(0) - 10;
    });
    broken.Add("EndRecordsDifferInTheirCounts", "two end records differ", [](ZipBuilder& b) {
        b.zip64End = true;
        b.endCount = 3;
    });
    broken.Add("EndRecordsDifferInTheirSizes", "two end records differ", [](ZipBuilder& b) {
        b.zip64End = true;
        b.endSize = 40;
    });
    broken.Add("EndRecordsDifferInTheirPlaces", "two end records differ", [](ZipBuilder& b) {
        b.zip64End = true;
        b.endOffset = 1;
    });
}

void AddHeaderFaults(Broken& broken)
{
    broken.AddItem("LocalNameDiffers", "name in the local header", [](ZipItem& i) { i.local.name = "lib/c.lua"; });
    broken.AddItem("LocalNameIsLonger", "name in the local header", [](ZipItem& i) { i.local.name += "x"; });
    broken.AddItem("LocalFlagsDiffer", "flags in the local header", [](ZipItem& i) { i.local.flags = 2; });
    broken.AddItem("LocalMethodDiffers", "method in the local header", [](ZipItem& i) { i.local.method = 0; });
    broken.AddItem("LocalChecksumDiffers", "checksum in the local header", [](ZipItem& i) { ++i.local.crc32; });
    broken.AddItem("LocalSizeDiffers", "sizes in the local header", [](ZipItem& i) { ++i.local.size; });
    broken.AddItem("LocalPackedSizeDiffers", "sizes in the local header", [](ZipItem& i) { ++i.local.packedSize; });
    broken.AddItem("LocalSizesEmptyWithoutDescriptor", "sizes in the local header",
                   [](ZipItem& i) { i.local.size = i.local.packedSize = 0; });
    broken.AddItem("LocalSizeWrongWithDescriptor", "sizes in the local header", [](ZipItem& i) {
        i.WithDescriptor();
        i.local.size = 1;
    });
    broken.AddItem("LocalPackedSizeWrongWithDescriptor", "sizes in the local header", [](ZipItem& i) {
        i.WithDescriptor();
        i.local.packedSize = 1;
    });
    broken.AddItem("LocalChecksumWrongWithDescriptor", "checksum in the local header", [](ZipItem& i) {
        i.WithDescriptor();
        i.local.crc32 = i.central.crc32 + 1;
    });
    broken.AddItem("DescriptorChecksumDiffers", "descriptor differs", [](ZipItem& i) {
        i.WithDescriptor();
        ++i.descriptor[4];
    });
    broken.AddItem("DescriptorSizeDiffers", "descriptor differs", [](ZipItem& i) {
        i.WithDescriptor();
        ++i.descriptor[12];
    });
    broken.AddItem("DescriptorPackedSizeDiffers", "descriptor differs", [](ZipItem& i) {
        i.WithDescriptor();
        ++i.descriptor[8];
    });
    broken.AddItem("WideDescriptorPackedSizeDiffers", "descriptor differs", [](ZipItem& i) {
        i.WithDescriptor(false, true);
        i.descriptor[11] = 1;
    });
    broken.AddItem("WideDescriptorSizeDiffers", "descriptor differs", [](ZipItem& i) {
        i.WithDescriptor(false, true);
        i.descriptor[19] = 1;
    });
    broken.AddItem("DescriptorMissing", "descriptor has a wrong length", [](ZipItem& i) {
        i.WithDescriptor();
        i.descriptor.clear();
    });
    broken.AddItem("DescriptorSignatureWrong", "descriptor is malformed", [](ZipItem& i) {
        i.WithDescriptor();
        i.descriptor[0] = 'X';
    });
    broken.AddItem("DescriptorWithoutItsFlag", "gap", [](ZipItem& i) {
        i.WithDescriptor(true, false, false);
        i.local.flags = i.central.flags = 0;
    });
    broken.AddItem("LocalSignatureWrong", "local header is not where", [](ZipItem& i) { i.local.signature = 0x1234; });
    broken.AddItem("DirectorySignatureWrong", "directory is malformed", [](ZipItem& i) { i.central.signature = 7; });
    broken.AddItem("OffsetPointsIntoData", "gap", [](ZipItem& i) { i.central.offset = 40; });
    broken.AddItem("OffsetBeyondTheFile", "gap", [](ZipItem& i) { i.central.offset = 0x7fffffff; });
    broken.AddItem("DataBeyondTheFile", "",
                   [](ZipItem& i) { i.Both([](ZipRecord& r) { r.packedSize = 0x7fffffff; }); });
    broken.AddItem("SizesWithoutTheirZip64Field", "",
                   [](ZipItem& i) { i.Both([](ZipRecord& r) { r.packedSize = 0xffffffff; }); });
    broken.AddItem("PackedSizeTooSmall", "gap", [](ZipItem& i) { i.Both([](ZipRecord& r) { --r.packedSize; }); });
    broken.AddItem("PackedSizeTooBig", "overlaps", [](ZipItem& i) { i.Both([](ZipRecord& r) { ++r.packedSize; }); });
    broken.Add("BytesBeforeTheFirstRecord", "gap", [](ZipBuilder& b) { b.before = "#!/bin/sh\n"; });
    broken.Add("BytesBetweenRecords", "gap", [](ZipBuilder& b) { b.items[2].gapBefore = "x"; });
    broken.Add("BytesBeforeTheDirectory", "gap", [](ZipBuilder& b) { b.beforeDirectory = "x"; });
    broken.Add("OnlyBytesBeforeTheDirectory", "bytes before its directory", [](ZipBuilder& b) {
        b.items.clear();
        b.beforeDirectory = "hidden";
    });
    broken.Add("RecordThatTheDirectoryLacks", "gap", [](ZipBuilder& b) { b.items[2].inDirectory = false; });
    broken.Add("TwoEntriesShareOneRecord", "overlaps", [](ZipBuilder& b) {
        b.items.push_back(b.items[1]);
        b.items.back().inFile = false;
        b.items.back().central.offset = 34;
        b.items.back().central.name = "lib/z.lua";
    });
    broken.Add("DirectoryListsWhatIsNotThere", "", [](ZipBuilder& b) { b.items[3].inFile = false; });
    broken.AddItem("ExtraFieldRunsOver", "extra field is malformed",
                   [](ZipItem& i) { i.central.extra = "\x55\x54\x09"; });
    broken.AddItem("ExtraFieldLongerThanItsSpace", "extra field is malformed",
                   [](ZipItem& i) { i.central.extra = Bytes16(0x5455) + Bytes16(9) + "abc"; });
    broken.AddItem("LocalExtraFieldRunsOver", "extra field is malformed", [](ZipItem& i) { i.local.extra = "abc"; });
    broken.AddItem("UnicodePathField", "Unicode path", [](ZipItem& i) {
        i.central.extra = ExtraField(0x7075, std::string("\1", 1) + Bytes32(0) + "../x");
    });
    broken.AddItem("LocalUnicodePathField", "Unicode path",
                   [](ZipItem& i) { i.local.extra = ExtraField(0x7075, std::string("\1", 1) + Bytes32(0) + "../x"); });
    broken.AddItem("TwoZip64Fields", "two ZIP64 fields", [](ZipItem& i) {
        i.WithCentralZip64();
        i.central.extra += i.central.extra;
    });
    broken.AddItem("TwoLocalZip64Fields", "two ZIP64 fields", [](ZipItem& i) {
        i.WithLocalZip64();
        i.local.extra += i.local.extra;
    });
    broken.AddItem("Zip64FieldTooShort", "ZIP64 field is malformed", [](ZipItem& i) {
        i.WithCentralZip64();
        i.central.extra = ExtraField(1, Bytes64(9));
    });
    broken.AddItem("Zip64FieldThatContradictsItsHeader", "ZIP64 field and its header differ",
                   [](ZipItem& i) { i.central.extra = ExtraField(1, Bytes64(8) + Bytes64(i.central.packedSize)); });
    broken.AddItem("LocalZip64PackedSizeDiffers", "sizes in the local header", [](ZipItem& i) {
        i.WithLocalZip64();
        ++i.local.extra[12];
    });
    broken.AddItem("LocalZip64FieldThatContradictsItsHeader", "ZIP64 field and its header differ", [](ZipItem& i) {
        i.local.extra = ExtraField(1, Bytes64(i.local.size) + Bytes64(i.local.packedSize + 1));
    });
    broken.AddItem("Zip64PlaceOfAnotherEntry", "", [](ZipItem& i) {
        i.central.extra = ExtraField(1, Bytes64(0));
        i.central.offset = 0xffffffff;
    });
    broken.AddItem("Zip64DiskOfAnotherEntry", "several disks", [](ZipItem& i) {
        i.central.extra = ExtraField(1, Bytes32(1));
        i.central.disk = 0xffff;
    });
    broken.AddItem("LocalZip64SizeDiffers", "sizes in the local header", [](ZipItem& i) {
        i.WithLocalZip64();
        i.local.extra[4] = 8;
    });
}

void AddNameFaults(Broken& broken)
{
    const auto text = [](const char* bytes, std::size_t size) { return std::string(bytes, size); };
    broken.AddName("NameEmpty", "", "name is empty");
    broken.AddName("NameAbsolute", "/etc/x", "absolute");
    broken.AddName("NameOnlySlash", "/", "absolute");
    broken.AddName("NameWithEmptyComponent", "a//b", "empty component");
    broken.AddName("NameWithTwoLastSlashes", "a//", "empty component");
    broken.AddName("NameWithDot", "a/./b", "\".\" or \"..\"");
    broken.AddName("NameThatStartsWithDot", "./b", "\".\" or \"..\"");
    broken.AddName("NameDot", ".", "\".\" or \"..\"");
    broken.AddName("NameWithDotDot", "a/../b", "\".\" or \"..\"");
    broken.AddName("NameThatStartsWithDotDot", "../b", "\".\" or \"..\"");
    broken.AddName("NameThatEndsWithDotDot", "a/..", "\".\" or \"..\"");
    broken.AddName("FolderNameDotDot", "a/../", "\".\" or \"..\"");
    broken.AddName("NameThatBecomesAbsolute", ".//tmp/x", "\".\" or \"..\"");
    broken.AddName("NameWithBackslash", "a\\b", "backslash");
    broken.AddName("NameWithColon", "C:/x", "colon");
    broken.AddName("NameWithNul", text("a\0b", 3), "control character");
    broken.AddName("NameWithLineEnd", "a\nb", "control character");
    broken.AddName("NameWithEscape", "a\033[31mb", "control character");
    broken.AddName("NameWithDelete", "a\x7f", "control character");
    broken.AddName("NameWithC1Control", "a\xc2\x9b", "control character");
    broken.AddName("NameNotUtf8", "a\xff", "UTF-8");
    broken.AddName("NameCutUtf8", "a\xe2\x82", "UTF-8");
    broken.AddName("NameOverlongUtf8", "a\xc0\xaf", "UTF-8");
    broken.AddName("NameOverlongUtf8OfThree", "a\xe0\x80\xaf", "UTF-8");
    broken.AddName("NameWithSurrogate", "a\xed\xa0\x80", "UTF-8");
    broken.AddName("NameBeyondUnicode", "a\xf4\x90\x80\x80", "UTF-8");
    broken.AddName("NameWithLongComponent", "a/" + std::string(256, 'x'), "255");
    std::string longPath = std::string(200, 'x');
    for (int i = 0; i < 5; ++i)
        longPath += "/" + std::string(200, 'x');
    broken.AddName("NameTooLong", longPath, "1024");
    broken.AddName("NameTooLongByOneByte", longPath.substr(0, 1025), "1024");
    broken.Add("FolderNameTooLong", "1024", [&](ZipBuilder& b) { b.AddFolder(longPath.substr(0, 1025) + "/"); });
    broken.Add("FolderNameWithLongComponent", "255", [](ZipBuilder& b) { b.AddFolder(std::string(256, 'x') + "/"); });
    std::string deep = "d";
    for (int i = 0; i < 32; ++i)
        deep += "/d";
    broken.AddName("NameTooDeep", deep, "32 levels");
    broken.Add("FolderNameTooDeep", "32 levels", [&](ZipBuilder& b) { b.AddFolder(deep + "/"); });
    broken.AddName("NameTwice", "lib/a.lua", "twice");
    broken.Add("FolderTwice", "twice", [](ZipBuilder& b) { b.AddFolder("lib/"); });
    broken.Add("FolderNamedAsAFile", "twice", [](ZipBuilder& b) { b.AddFolder("lib/a.lua/"); });
    broken.AddName("FileNamedAsAFolder", "lib", "twice");
    broken.AddName("FileIsTheFolderOfAnother", "lib/a.lua/x", "folder of another entry");
    broken.Add("FileIsTheFarFolderOfAnother", "folder of another entry", [](ZipBuilder& b) {
        b.Add("q/r", "x");
        b.Add("q/r-s", "x");
        b.Add("q/r/s/t/u", "x");
    });
}

// The field of old Unix archivers, which has a mode of its own.
std::string OldUnixField(unsigned mode)
{
    return ExtraField(0x756e, Bytes32(0) + Bytes16(mode) + Bytes32(0) + Bytes32(0));
}

void AddKindFaults(Broken& broken)
{
    const auto mode = [&](const std::string& story, unsigned value, const std::string& reason) {
        broken.Add(story, reason, [&](ZipBuilder& b) { b.Add("odd", "/etc/passwd", 0, value); });
    };
    mode("SymbolicLink", 0120777, "neither a regular file nor a folder");
    mode("CharacterDevice", 0020666, "neither a regular file nor a folder");
    mode("BlockDevice", 0060666, "neither a regular file nor a folder");
    mode("Fifo", 0010666, "neither a regular file nor a folder");
    mode("Socket", 0140666, "neither a regular file nor a folder");
    mode("UnknownType", 0150666, "neither a regular file nor a folder");
    mode("FolderModeOnAFileName", 0040755, "marked as a folder");
    broken.Add("SymbolicLinkNamedAsAFolder", "neither a regular file nor a folder",
               [](ZipBuilder& b) { b.AddFolder("odd/", 0120777); });
    broken.Add("FileModeOnAFolderName", "marked as a file", [](ZipBuilder& b) { b.AddFolder("odd/", 0100644); });
    broken.AddItem("FolderAttributeOnAFileName", "marked as a folder",
                   [](ZipItem& i) { i.central.attributes |= 0x10; });
    broken.AddItem("VolumeLabel", "neither a regular file nor a folder", [](ZipItem& i) { i.central.attributes |= 8; });
    broken.AddItem("SymbolicLinkInAnOldUnixField", "neither a regular file nor a folder", [](ZipItem& i) {
        i.local.extra = ExtraField(0x756e, Bytes32(0) + Bytes16(0120777) + Bytes32(0) + Bytes32(0) + "/etc");
    });
    for (const unsigned type : {0010000u, 0020000u, 0060000u, 0120000u, 0140000u, 0150000u}) {
        const std::string field = OldUnixField(type | 0666);
        broken.AddItem("OddTypeInAnOldUnixField" + std::to_string(type), "neither a regular file nor a folder",
                       [&field](ZipItem& i) { i.local.extra = field; });
        broken.AddItem("OddTypeInAnOldUnixFieldOfTheDirectory" + std::to_string(type),
                       "neither a regular file nor a folder", [&field](ZipItem& i) { i.central.extra = field; });
    }
    broken.AddItem("OldUnixFieldTooShort", "extra field is malformed",
                   [](ZipItem& i) { i.central.extra = ExtraField(0x756e, "12345"); });
    broken.AddItem("Encrypted", "encrypted", [](ZipItem& i) { i.Both([](ZipRecord& r) { r.flags |= 1; }); });
    // 5 is patched data, 6 strong encryption, 13 a hidden directory; the others have no meaning that we know.
    for (const unsigned bit : {4u, 5u, 6u, 7u, 8u, 9u, 10u, 12u, 13u, 14u, 15u})
        broken.Add("FlagBit" + std::to_string(bit), "unknown flags", [&](ZipBuilder& b) {
            b.items[1].local.flags = b.items[1].central.flags = static_cast<std::uint16_t>(1u << bit);
        });
    for (const unsigned method : {1u, 6u, 9u, 12u, 14u, 93u, 95u, 99u})
        broken.Add("Method" + std::to_string(method), "neither stored nor deflate", [&](ZipBuilder& b) {
            b.items[1].local.method = b.items[1].central.method = static_cast<std::uint16_t>(method);
        });
    broken.Add("FolderWithData", "folder with data", [](ZipBuilder& b) { b.Add("odd/", "x", 0, 0040755); });
    broken.Add("FolderWithHiddenPackedBytes", "folder with data", [](ZipBuilder& b) {
        ZipItem& item = b.Add("odd/", "", 8, 0040755);
        item.packed[0] = 'x';
    });
    broken.Add("FolderWithAChecksum", "folder with data",
               [](ZipBuilder& b) { b.AddFolder("odd/").Both([](ZipRecord& r) { r.crc32 = 1; }); });
    broken.Add("StoredWithTwoSizes", "two sizes differ",
               [](ZipBuilder& b) { b.items[2].Both([](ZipRecord& r) { ++r.size; }); });
    broken.Add("DeflatedWithoutData", "has no data", [](ZipBuilder& b) {
        ZipItem& item = b.Add("odd", "");
        item.packed.clear();
        item.Both([](ZipRecord& r) { r.packedSize = 0; });
    });
    broken.AddItem("MoreThanDeflateCanExpand", "1032 times",
                   [](ZipItem& i) { i.Both([](ZipRecord& r) { r.size = r.packedSize * 1032 + 1; }); });
    broken.Add("MoreThanFourGibibytes", "over 4294967296 bytes", [](ZipBuilder& b) {
        for (int i = 0; i < 3; ++i) {
            ZipItem& item = b.Add("odd" + std::to_string(i), "");
            item.packed.assign(static_cast<std::size_t>(2) << 20, 'x');
            item.Both([](ZipRecord& r) { r.size = 0x7f000000; });
            item.local.packedSize = item.central.packedSize = static_cast<std::uint32_t>(item.packed.size());
        }
    });
}

} // namespace

std::vector<BrokenArchive> BrokenArchives()
{
    Broken broken;
    AddEndFaults(broken);
    AddHeaderFaults(broken);
    AddNameFaults(broken);
    AddKindFaults(broken);
    return std::move(broken.list);
}

std::vector<BrokenArchive> ArchivesWithBrokenData()
{
    std::vector<BrokenArchive> list;
    const auto add = [&list](const std::string& story, const std::string& reason, const std::string& data,
                             std::uint16_t method, const auto& breakIt) {
        ZipBuilder builder;
        builder.Add("good", "good content");
        breakIt(builder.Add("bad", data, method));
        builder.Add("later", "later content");
        list.push_back({story, builder.Build(), reason});
    };
    const auto bothPackedSizes = [](ZipItem& item) {
        item.local.packedSize = item.central.packedSize = static_cast<std::uint32_t>(item.packed.size());
    };
    const auto wrongCrc = [](ZipItem& item) { item.Both([](ZipRecord& r) { ++r.crc32; }); };
    const auto tooLong = [](ZipItem& item) { item.Both([](ZipRecord& r) { --r.size; }); };
    const auto tooShort = [](ZipItem& item) { item.Both([](ZipRecord& r) { ++r.size; }); };
    const auto behind = [&](ZipItem& item) {
        item.packed += "x";
        bothPackedSizes(item);
    };
    const auto cut = [&](ZipItem& item) {
        item.packed.pop_back();
        bothPackedSizes(item);
    };
    const auto mostThatDeflateCanExpand = [](ZipItem& item) { // more is refused before it is read
        item.Both([](ZipRecord& r) { r.size = r.packedSize * 1032; });
    };
    const auto rubbish = [](ZipItem& item) {
        for (char& c : item.packed)
            c = static_cast<char>(0xff);
    };
    std::string big;
    for (unsigned i = 0; i < 120000; ++i)
        big += std::to_string(i * 2654435761u);
    for (const auto& [size, data] : {std::pair<std::string, std::string>{"Small", "some small data"}, {"Big", big}}) {
        add(size + "DeflatedWithWrongChecksum", "checksum differs", data, 8, wrongCrc);
        add(size + "StoredWithWrongChecksum", "checksum differs", data, 0, wrongCrc);
        add(size + "DeflatedLongerThanSaid", "length differs", data, 8, tooLong);
        add(size + "DeflatedShorterThanSaid", "length differs", data, 8, tooShort);
        add(size + "DeflatedFarShorterThanSaid", "length differs", data, 8, mostThatDeflateCanExpand);
        add(size + "BytesBehindTheStream", "bytes behind the end", data, 8, behind);
        add(size + "StreamCut", "damaged", data, 8, cut);
        add(size + "NoStream", "damaged", data, 8, rubbish);
    }
    return list;
}

std::vector<ValidArchive> ValidArchives()
{
    std::vector<ValidArchive> list;
    const auto add = [&list](const std::string& story, const auto& make) {
        ZipBuilder builder;
        make(builder);
        ValidArchive valid{story, builder.Build(), {}};
        for (const ZipItem& item : builder.items)
            valid.files.emplace_back(item.central.name, "");
        list.push_back(std::move(valid));
        return std::prev(list.end());
    };
    const auto one = [&](const std::string& story, std::uint16_t method, const auto& change) {
        add(story,
            [&](ZipBuilder& b) {
                b.Add("a/file", "the content", method);
                change(b);
            })
            ->files[0]
            .second = "the content";
    };
    const auto nothing = [](ZipBuilder&) {};
    add("Empty", nothing);
    add("EmptyWithZip64", [](ZipBuilder& b) { b.zip64End = true; });
    one("Stored", 0, nothing);
    one("Deflated", 8, nothing);
    for (const unsigned mode : {0u, 0644u, 0100644u})
        one("OldUnixFieldOfMode" + std::to_string(mode), 8,
            [mode](ZipBuilder& b) { b.items[0].local.extra = b.items[0].central.extra = OldUnixField(mode); });
    add("OldUnixFieldOfAFolder", [](ZipBuilder& b) {
        b.AddFolder("folder/", 0040755).Both([](ZipRecord& r) { r.extra = OldUnixField(0040755); });
    });
    one("NulsBehindTheEnd", 8, [](ZipBuilder& b) { b.after.assign(10240, '\0'); });
    one("MostNulsBehindTheEnd", 8, [](ZipBuilder& b) { b.after.assign(1 << 20, '\0'); });
    one("LongestCommentOfNulsAndMostNuls", 8, [](ZipBuilder& b) {
        b.comment.assign(65535, '\0');
        b.after.assign(1 << 20, '\0');
    });
    one("LongestComment", 8, [](ZipBuilder& b) { b.comment.assign(65535, 'c'); });
    one("LongestCommentAndNuls", 8, [](ZipBuilder& b) {
        b.comment.assign(65535, 'c');
        b.after.assign(100000, '\0');
    });
    one("CommentWithTheEndSignature", 8, [](ZipBuilder& b) { b.comment = "see PK\5\6 here, and so on and so forth"; });
    one("CommentOfNuls", 8, [](ZipBuilder& b) { b.comment.assign(100, '\0'); });
    for (const bool signature : {false, true})
        for (const bool wide : {false, true})
            for (const bool emptyLocal : {false, true})
                for (const std::uint16_t method : {static_cast<std::uint16_t>(0), static_cast<std::uint16_t>(8)})
                    one(std::string("Descriptor") + (signature ? "Signed" : "Bare") + (wide ? "Wide" : "Narrow")
                            + (emptyLocal ? "LocalEmpty" : "LocalFull") + (method ? "Deflated" : "Stored"),
                        method, [&](ZipBuilder& b) { b.items[0].WithDescriptor(signature, wide, emptyLocal); });
    one("Zip64Sizes", 8, [](ZipBuilder& b) { b.items[0].WithLocalZip64().WithCentralZip64(); });
    one("Zip64Everywhere", 8, [](ZipBuilder& b) {
        b.items[0].WithLocalZip64().WithCentralZip64();
        b.zip64End = true;
    });
    one("Zip64WithDescriptor", 8, [](ZipBuilder& b) {
        b.items[0].WithDescriptor(true, true).WithLocalZip64().WithCentralZip64();
        b.zip64End = true;
    });
    one("Zip64WithDescriptorStored", 0, [](ZipBuilder& b) { b.items[0].WithDescriptor(true, true).WithLocalZip64(); });
    one("Zip64FieldThatRepeatsItsHeader", 8, [](ZipBuilder& b) {
        ZipRecord& record = b.items[0].central;
        record.extra = ExtraField(1, Bytes64(record.size) + Bytes64(record.packedSize));
    });
    one("Zip64FieldWithPlaceAndDisk", 8, [](ZipBuilder& b) {
        ZipRecord& record = b.items[0].central;
        record.extra = ExtraField(1, Bytes64(record.size) + Bytes64(record.packedSize) + Bytes64(0) + Bytes32(0));
        record.size = record.packedSize = 0xffffffff;
        record.offset = 0xffffffff;
        record.disk = 0xffff;
    });
    one("Zip64FieldWithPlaceOnly", 8, [](ZipBuilder& b) {
        b.items[0].central.extra = ExtraField(1, Bytes64(0));
        b.items[0].central.offset = 0xffffffff;
    });
    one("OtherExtraFieldsAndComments", 8, [](ZipBuilder& b) {
        b.items[0].central.extra = ExtraField(0x5455, "\1abcd") + ExtraField(0x7875, "");
        b.items[0].local.extra = ExtraField(0x5455, "\1abcdefgh");
        b.items[0].central.comment = "a comment with PK\1\2 inside";
    });
    one("DeflateLevelFlags", 8, [](ZipBuilder& b) { b.items[0].Both([](ZipRecord& r) { r.flags |= 6; }); });
    one("Utf8Flag", 8, [](ZipBuilder& b) { b.items[0].Both([](ZipRecord& r) { r.flags |= 0x800; }); });
    one("DosAttributesOnly", 8, [](ZipBuilder& b) {
        b.items[0].central.attributes = 0x20;
        b.items[0].central.madeBy = 20;
    });
    one("DirectoryInAnotherOrder", 8, [](ZipBuilder& b) {
        b.Add("b", "");
        // The directory's order is the builder's, so the places in the file are exchanged by hand.
        const std::string first = b.items[0].packed;
        b.items[0].central.offset = static_cast<std::uint32_t>(30 + 1 + b.items[1].packed.size());
        b.items[1].central.offset = 0;
        std::swap(b.items[0].local, b.items[1].local);
        std::swap(b.items[0].packed, b.items[1].packed);
    });
    add("EmptyFiles", [](ZipBuilder& b) {
        b.Add("stored", "", 0);
        b.Add("deflated", "", 8);
        b.Add("described", "", 0).WithDescriptor();
    });
    add("FolderDeflated", [](ZipBuilder& b) { b.Add("folder/", "", 8, 0040755); });
    add("OddButFineNames", [](ZipBuilder& b) {
        for (const char* name :
             {"..a", "a..b", "...", "a/b..", ".hidden", "with blank", "Grüße/日本.txt", "-rf", "a'b\"c", "~x", "%s"})
            b.Add(name, "");
        b.Add(std::string(255, 'x'), "");
        std::string longest = std::string(204, 'y');
        while (longest.size() < 1024)
            longest += "/" + std::string(204, 'y');
        b.Add(longest.substr(0, 1024), "");
        std::string deepest = "z";
        for (int i = 0; i < 31; ++i)
            deepest += "/z";
        b.Add(deepest, "");
    });
    return list;
}

} // namespace Test
