// The reader against archives built for each rule:
// what is refused says which entry and why, what is valid is read whole.
#include "vex_core/base/hex.h"
#include "vex_core/zip/zip_names.h"
#include "vex_core/zip/zip_reader.h"

#include "support/address_limit.h"
#include "support/call_watch.h"
#include "support/joining_thread.h"
#include "support/need.h"
#include "support/odd_archives.h"
#include "support/sanitized.h"
#include "support/temp_folder.h"
#include "support/zip_builder.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <thread>

#include <gtest/gtest.h>
#include <openssl/sha.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace VexCore;
using namespace Test;

namespace {
class ZipReader : public ::testing::Test
{
protected:
    std::shared_ptr<const ZipArchive> Open(const std::string& bytes, const ZipLimits& limits = ZipLimits())
    {
        WriteFile(m_file, bytes);
        return ZipArchive::Open(m_file, limits, m_error);
    }
    std::shared_ptr<const ZipArchive> Open(const ZipBuilder& builder) { return Open(builder.Build()); }

    // Reads every entry; empty when all went well.
    static std::string ReadAll(const ZipArchive& archive, std::vector<std::string>* texts = nullptr)
    {
        for (const ZipEntry& entry : archive.Entries()) {
            std::string data, streamed, error;
            if (!archive.Read(entry, data, error))
                return entry.name + ": " + error;
            const auto sink = [&](const char* bytes, std::size_t size) {
                streamed.append(bytes, size);
                return true;
            };
            if (!archive.Read(entry, sink, error))
                return entry.name + ": " + error;
            if (streamed != data || data.size() != entry.size)
                return entry.name + ": the two ways of reading differ";
            if (texts)
                texts->push_back(data);
        }
        return "";
    }

    void ExpectRefused(const ZipBuilder& builder, const std::string& reason) { ExpectRefused(builder.Build(), reason); }
    void ExpectRefused(const std::string& bytes, const std::string& reason)
    {
        EXPECT_EQ(Open(bytes), nullptr) << reason;
        EXPECT_NE(m_error.find(reason), std::string::npos) << "said: " << m_error << "\nexpected: " << reason;
        EXPECT_EQ(m_error.find('\n'), std::string::npos);
    }

    TempFolder m_folder;
    std::string m_file = m_folder.Path() + "/x.zip";
    std::string m_error;
};

// Other bytes of the same length and checksum, so that only the place they are read from tells them apart.
std::string WithTheSameChecksum(std::string bytes)
{
    const unsigned char multipleOfThePolynomial[] = {0x41, 0x06, 0x71, 0xDB, 0x01};
    for (std::size_t i = 0; i < sizeof multipleOfThePolynomial; ++i)
        bytes[i] = static_cast<char>(static_cast<unsigned char>(bytes[i]) ^ multipleOfThePolynomial[i]);
    return bytes;
}

} // namespace

TEST_F(ZipReader, WhoAsksIsToldEveryRuleThatIsBroken)
{
    const auto reasonsOf = [this](const ZipBuilder& builder) {
        WriteFile(m_file, builder.Build());
        std::vector<std::string> reasons;
        EXPECT_EQ(ZipArchive::Open(m_file, ZipLimits(), reasons), nullptr);
        return reasons;
    };
    using Reasons = std::vector<std::string>;
    ZipBuilder directory;
    directory.Add("/a", "x");
    directory.Add("twice", "x");
    directory.Add("twice", "x");
    directory.Add("file", "x");
    directory.Add("file/below", "x");
    EXPECT_EQ(reasonsOf(directory), (Reasons{"entry \"/a\": its name is absolute",
                                             "entry \"file\": it is a file and the folder of another entry",
                                             "entry \"twice\": it is there twice"}));
    ZipBuilder headers;
    headers.Add("a", "x").local.method = 0;
    headers.Add("b", "x");
    headers.Add("c", "x").local.name = "d";
    EXPECT_EQ(reasonsOf(headers), (Reasons{"entry \"a\": its method in the local header differs",
                                           "entry \"c\": its name in the local header differs"}));
    EXPECT_TRUE(Open(PlainPackage()));
    std::vector<std::string> reasons = {"of an earlier call"};
    EXPECT_TRUE(ZipArchive::Open(m_file, ZipLimits(), reasons));
    EXPECT_TRUE(reasons.empty());
}

TEST_F(ZipReader, PlainPackageIsListedInItsOrderAndReadWhole)
{
    const auto archive = Open(PlainPackage());
    ASSERT_TRUE(archive) << m_error;
    ASSERT_EQ(archive->Entries().size(), 4u);
    EXPECT_EQ(archive->Entries()[0].name, "lib/");
    EXPECT_TRUE(archive->Entries()[0].isFolder);
    EXPECT_EQ(archive->Entries()[1].mode, 0644u);
    EXPECT_EQ(archive->Entries()[3].mode, 0755u);
    std::vector<std::string> texts;
    EXPECT_EQ(ReadAll(*archive, &texts), "");
    EXPECT_EQ(texts, (std::vector<std::string>{"", "return 1\n", "return 2\n", "#!/bin/sh\necho tool\n"}));
    EXPECT_EQ(archive->Path(), m_file);
}

TEST_F(ZipReader, EveryBrokenArchiveIsRefusedWithItsReason)
{
    std::set<std::string> stories;
    for (const BrokenArchive& broken : BrokenArchives()) {
        SCOPED_TRACE(broken.story);
        EXPECT_TRUE(stories.insert(broken.story).second);
        ExpectRefused(broken.bytes, broken.reason);
    }
}

TEST_F(ZipReader, DamagedDataIsFoundWhenTheEntryIsReadAndTheOthersAreFine)
{
    for (const BrokenArchive& broken : ArchivesWithBrokenData()) {
        SCOPED_TRACE(broken.story);
        const auto archive = Open(broken.bytes);
        ASSERT_TRUE(archive) << m_error;
        std::string data, error;
        EXPECT_TRUE(archive->Read(*archive->Find("good"), data, error));
        EXPECT_EQ(data, "good content");
        EXPECT_FALSE(archive->Read(*archive->Find("bad"), data, error));
        EXPECT_NE(error.find(broken.reason), std::string::npos) << error;
        const auto sink = [](const char*, std::size_t) { return true; };
        EXPECT_FALSE(archive->Read(*archive->Find("bad"), sink, error));
        EXPECT_NE(error.find(broken.reason), std::string::npos) << error;
        EXPECT_TRUE(archive->Read(*archive->Find("later"), data, error));
        EXPECT_EQ(data, "later content");
    }
}

TEST_F(ZipReader, RareButValidArchivesAreReadWhole)
{
    for (const ValidArchive& valid : ValidArchives()) {
        SCOPED_TRACE(valid.story);
        const auto archive = Open(valid.bytes);
        ASSERT_TRUE(archive) << m_error;
        ASSERT_EQ(archive->Entries().size(), valid.files.size());
        std::vector<std::string> texts;
        EXPECT_EQ(ReadAll(*archive, &texts), "");
        for (std::size_t i = 0; i < valid.files.size(); ++i) {
            EXPECT_EQ(archive->Entries()[i].name, valid.files[i].first);
            EXPECT_EQ(texts[i], valid.files[i].second);
        }
    }
}

TEST_F(ZipReader, NoArchiveCutShortIsAccepted)
{
    const std::string whole = PlainPackage().Build();
    for (std::size_t size = 0; size < whole.size(); ++size)
        EXPECT_EQ(Open(whole.substr(0, size)), nullptr) << size;
}

TEST_F(ZipReader, NoChangedByteGoesUnnoticedUnlessItMeansNothing)
{
    const std::string whole = PlainPackage().Build();
    std::vector<std::string> texts;
    ReadAll(*Open(whole), &texts);
    std::size_t accepted = 0;
    for (std::size_t at = 0; at < whole.size(); ++at) {
        std::string changed = whole;
        changed[at] = static_cast<char>(changed[at] ^ 0x41);
        const auto archive = Open(changed);
        if (!archive)
            continue;
        std::vector<std::string> found;
        if (ReadAll(*archive, &found) != "")
            continue;
        ++accepted; // a version, a time, an attribute
        EXPECT_EQ(found, texts) << at;
    }
    EXPECT_LT(accepted, whole.size() / 4);
}

TEST_F(ZipReader, OneHundredThousandEntriesAreRead)
{
    ZipBuilder builder;
    builder.zip64End = true;
    for (int i = 0; i < 100000; ++i)
        builder.Add("d" + std::to_string(i % 100) + "/f" + std::to_string(i), "x", 0);
    const std::string bytes = builder.Build();
    const auto archive = Open(bytes);
    ASSERT_TRUE(archive) << m_error;
    EXPECT_EQ(archive->Entries().size(), 100000u);
    EXPECT_TRUE(archive->Find("d99/f99999"));
    EXPECT_FALSE(archive->Find("d98/f99999"));
    ZipLimits limits;
    limits.maxEntries = 99999;
    EXPECT_FALSE(Open(bytes, limits));
    EXPECT_NE(m_error.find("more than 99999 entries"), std::string::npos) << m_error;
    builder.Add("one more", "x", 0);
    EXPECT_FALSE(Open(builder.Build()));
    EXPECT_NE(m_error.find("more than 100000 entries"), std::string::npos) << m_error;
}

TEST_F(ZipReader, LimitOfBytesCountsAllEntriesTogether)
{
    ZipBuilder builder;
    builder.Add("a", std::string(600, 'a'));
    builder.Add("b", std::string(400, 'b'));
    ZipLimits limits;
    limits.maxBytes = 1000;
    EXPECT_TRUE(Open(builder.Build(), limits)) << m_error;
    limits.maxBytes = 999;
    EXPECT_FALSE(Open(builder.Build(), limits));
    EXPECT_NE(m_error.find("entry \"b\": with it the entries are over 999 bytes"), std::string::npos) << m_error;
}

TEST_F(ZipReader, EntriesAreFoundByTheirWholeName)
{
    const auto archive = Open(PlainPackage());
    ASSERT_TRUE(archive);
    EXPECT_EQ(archive->Find("lib/b.lua"), &archive->Entries().at(2));
    EXPECT_EQ(archive->Find("lib/"), &archive->Entries().at(0));
    EXPECT_EQ(archive->Find("lib"), nullptr);
    EXPECT_EQ(archive->Find("lib/b.lua/"), nullptr);
    EXPECT_EQ(archive->Find(""), nullptr);
    EXPECT_EQ(archive->Find("zzz"), nullptr);
}

TEST_F(ZipReader, FifoFolderAndMissingFileAreRefusedAtOnce)
{
    ASSERT_EQ(::mkfifo(m_file.c_str(), 0600), 0);
    EXPECT_EQ(ZipArchive::Open(m_file, ZipLimits(), m_error), nullptr);
    EXPECT_EQ(m_error, "is no regular file");
    EXPECT_EQ(ZipArchive::Open(m_folder.Path(), ZipLimits(), m_error), nullptr);
    EXPECT_EQ(m_error, "is no regular file");
    EXPECT_EQ(ZipArchive::Open(m_folder / "none", ZipLimits(), m_error), nullptr);
    EXPECT_EQ(m_error, "cannot be opened: No such file or directory");
}

TEST_F(ZipReader, FileCutShortUnderTheReaderIsAnErrorAndNoSignal)
{
    ZipBuilder builder;
    builder.Add("small", std::string(100, 'a'), 0);
    builder.Add("big", std::string(1 << 20, 'b'), 0);
    const auto archive = Open(builder);
    ASSERT_TRUE(archive);
    ASSERT_EQ(::truncate(m_file.c_str(), 50), 0);
    std::string data, error;
    for (const char* name : {"small", "big"}) {
        EXPECT_FALSE(archive->Read(*archive->Find(name), data, error));
        EXPECT_EQ(error, "the file was cut short while it was read");
    }
}

TEST_F(ZipReader, HeadersThatCannotBeReadAreAnErrorThatSaysWhy)
{
    {
        const ::Test::CallWatch cutShort([](const os::Call& call) {
            if (std::string(call.name) == "pread")
                *call.size = 0;
            return 0;
        });
        EXPECT_FALSE(Open(PlainPackage()));
        EXPECT_EQ(m_error, "the file was cut short while it was read");
    }
    const ::Test::CallWatch broken([](const os::Call& call) { return std::string(call.name) == "pread" ? EIO : 0; });
    EXPECT_FALSE(Open(PlainPackage()));
    EXPECT_EQ(m_error, "cannot be read: Input/output error");
}

TEST_F(ZipReader, NothingOfAnEarlierReadStays)
{
    const auto archive = Need(Open(PlainPackage()));
    std::string data = "before";
    std::string error = "before";
    EXPECT_TRUE(archive->Read(*Need(archive->Find("lib/a.lua")), data, error));
    EXPECT_EQ(data, "return 1\n");
    EXPECT_EQ(error, "");
    error = "before";
    EXPECT_TRUE(archive->Read(*Need(archive->Find("lib/")), data, error));
    EXPECT_EQ(data, "");
    EXPECT_EQ(error, "");
}

TEST_F(ZipReader, EntryForWhichThereIsNoMemoryIsAnError)
{
    ZipBuilder builder;
    builder.Add("small", "x");
    builder.Add("big", std::string(3 << 20, 'b'));
    // So large that the heap has no room that was free before.
    builder.Add("huge", std::string(48 << 20, 'h'), 0);
    const auto archive = Need(Open(builder));
    builder = ZipBuilder();
    std::string error;
    const auto sink = [](const char*, std::size_t) -> bool { throw std::bad_alloc(); };
    for (const char* name : {"small", "big"}) {
        EXPECT_FALSE(archive->Read(*Need(archive->Find(name)), sink, error));
        EXPECT_EQ(error, "there is not enough memory to read it") << name;
    }
#ifndef VEX_TEST_SANITIZED
    std::string data;
    bool read = true;
    {
        const AddressLimit lessThanTheEntry(8 << 20);
        read = archive->Read(*Need(archive->Find("huge")), data, error);
    }
    EXPECT_FALSE(read);
    EXPECT_EQ(error, "there is not enough memory to read it");
#endif
}

TEST_F(ZipReader, SinkThatHasEnoughEndsTheReadingWithoutAnError)
{
    ZipBuilder builder;
    builder.Add("small", "x");
    builder.Add("big", std::string(3 << 20, 'b'));
    builder.Add("stored", std::string(3 << 20, 'b'), 0);
    const auto archive = Open(builder);
    ASSERT_TRUE(archive);
    for (const ZipEntry& entry : archive->Entries()) {
        int calls = 0;
        std::string error = "before";
        const auto sink = [&calls](const char*, std::size_t) {
            ++calls;
            return false;
        };
        EXPECT_FALSE(archive->Read(entry, sink, error));
        EXPECT_EQ(error, "");
        EXPECT_EQ(calls, 1);
    }
}

TEST_F(ZipReader, DirectoryHashNamesTheContentAndNotTheFile)
{
    ZipBuilder builder = PlainPackage();
    const std::string first = Need(Open(builder))->DirectorySha256();
    EXPECT_EQ(first.size(), 64u);
    builder.comment = "another comment";
    EXPECT_EQ(Need(Open(builder))->DirectorySha256(), first);
    builder.Add("more", "x");
    EXPECT_NE(Need(Open(builder))->DirectorySha256(), first);
    EXPECT_EQ(Need(Open(ZipBuilder()))->DirectorySha256(),
              "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST_F(ZipReader, TheHashIsThatOfAllRecordsOfALongDirectory)
{
    ZipBuilder builder;
    for (int i = 0; i < 3000; ++i)
        builder.Add("folder/file" + std::to_string(i), "x", 0);
    const std::string bytes = builder.Build();
    const std::string directory = bytes.substr(bytes.find("PK\1\2"), bytes.rfind("PK\5\6") - bytes.find("PK\1\2"));
    ASSERT_GT(directory.size(), 150000u) << "several pieces";
    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char*>(directory.data()), directory.size(), digest);
    EXPECT_EQ(Need(Open(bytes))->DirectorySha256(), Hex(digest, sizeof digest));
}

TEST_F(ZipReader, ADirectoryThatWasWrittenOverOrCutShortHasNoHash)
{
    const std::string bytes = PlainPackage().Build();
    const auto archive = Need(Open(bytes));
    ASSERT_EQ(archive->DirectorySha256().size(), 64u);
    std::string other = bytes;
    other[bytes.rfind("lib/a.lua")] ^= 1; // in the directory, where the names stand last
    WriteFile(m_file, other);
    EXPECT_EQ(archive->DirectorySha256(), "");
    WriteFile(m_file, bytes.substr(0, bytes.size() - 30));
    EXPECT_EQ(archive->DirectorySha256(), "");
    WriteFile(m_file, bytes);
    EXPECT_EQ(archive->DirectorySha256().size(), 64u);
}

TEST_F(ZipReader, IdentityTellsAReplacedFile)
{
    const auto archive = Need(Open(PlainPackage()));
    struct stat status;
    ::stat(m_file.c_str(), &status);
    EXPECT_TRUE(archive->Identity() == os::IdentityOf(status));
    WriteFile(m_folder / "other", PlainPackage().Build());
    ASSERT_EQ(::rename((m_folder / "other").c_str(), m_file.c_str()), 0);
    ::stat(m_file.c_str(), &status);
    EXPECT_TRUE(archive->Identity() != os::IdentityOf(status));
    std::string data, error;
    EXPECT_TRUE(archive->Read(*archive->Find("lib/a.lua"), data, error)) << "the old file is still open";
}

TEST_F(ZipReader, OfManySmallEntriesSeveralAreReadAtOnceInAnyOrder)
{
    ZipBuilder builder;
    constexpr int count = 60;
    const auto text = [](int i) { return std::string(static_cast<std::size_t>(i), static_cast<char>('a' + i % 26)); };
    for (int i = 0; i < count; ++i)
        builder.Add("f" + std::to_string(i), text(i), i % 3 ? 8 : 0);
    const auto archive = Need(Open(builder));
    int reads = 0;
    const CallWatch watch([&](const os::Call& call) {
        reads += std::strcmp(call.name, "pread") == 0;
        return 0;
    });
    const auto readAll = [&](int from, int step) {
        ZipReading reading;
        reads = 0;
        for (int n = 0, i = from; n < count; ++n, i = (i + step + count) % count) {
            std::string data, error;
            const auto append = [&data](const char* bytes, std::size_t size) {
                data.append(bytes, size);
                return true;
            };
            EXPECT_TRUE(archive->Read(archive->Entries()[static_cast<std::size_t>(i)], reading, append, error))
                << error;
            EXPECT_EQ(data, text(i));
        }
        return reads;
    };
    EXPECT_LE(readAll(0, 1), 10);
    readAll(count - 1, -1);
    readAll(5, 7);
}

TEST_F(ZipReader, WhoReadsEntriesAsAWholeNeedsFewReadsToo)
{
    ZipBuilder builder;
    constexpr int count = 60;
    const auto text = [](int i) { return std::string(20, static_cast<char>('a' + i % 26)); };
    for (int i = 0; i < count; ++i)
        builder.Add("f" + std::to_string(i), text(i), i % 3 ? 8 : 0);
    const auto archive = Need(Open(builder));
    const ::Test::CountedCalls reads("pread");
    std::string data, error;
    for (std::size_t i = 0; i < count; ++i) {
        ASSERT_TRUE(archive->Read(archive->Entries()[i], data, error)) << error;
        EXPECT_EQ(data, text(static_cast<int>(i)));
    }
    EXPECT_LE(reads.Count(), 10);
    for (std::size_t i = count; i-- > 0;) {
        ASSERT_TRUE(archive->Read(archive->Entries()[i], data, error)) << error;
        EXPECT_EQ(data, text(static_cast<int>(i)));
    }
}

TEST_F(ZipReader, WhoReadsEntriesOfAFewArchivesByTurnsNeedsFewReadsToo)
{
    constexpr std::size_t entries = 60;
    ZipBuilder builder;
    for (std::size_t i = 0; i < entries; ++i)
        builder.Add("f" + std::to_string(i), std::string(20, 'a'), 8);
    std::vector<std::shared_ptr<const ZipArchive>> archives;
    for (int i = 0; i < 4; ++i) {
        const std::string file = m_folder / (std::to_string(i) + ".zip");
        ::Test::WriteFile(file, builder.Build());
        archives.push_back(Need(ZipArchive::Open(file, ZipLimits(), m_error)));
    }
    const ::Test::CountedCalls reads("pread");
    std::string data, error;
    for (std::size_t i = 0; i < entries; ++i)
        for (const auto& archive : archives) {
            ASSERT_TRUE(archive->Read(archive->Entries()[i], data, error)) << error;
            EXPECT_EQ(data, std::string(20, 'a'));
        }
    EXPECT_LE(reads.Count(), 4 * 10);
}

TEST_F(ZipReader, WhatWasReadAlongIsReadAgainWhereTheEntryIsNotWholeInIt)
{
    ZipBuilder builder;
    for (int i = 0; i < 3; ++i)
        builder.Add("f" + std::to_string(i), std::string(100, static_cast<char>('a' + i)), 0);
    const std::string bytes = builder.Build();
    const auto archive = Need(Open(bytes));
    const auto overwrite = [&](char c) {
        std::fstream file(m_file, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(static_cast<std::streamoff>(archive->Entries()[2].dataOffset));
        file.put(c);
    };
    overwrite('x');
    std::string data, error;
    for (std::size_t i = 0; i < 2; ++i)
        ASSERT_TRUE(archive->Read(archive->Entries()[i], data, error)) << error;
    overwrite('c');
    ASSERT_TRUE(archive->Read(archive->Entries()[2], data, error)) << error;
    EXPECT_EQ(data, std::string(100, 'c'));
}

TEST_F(ZipReader, ADamagedEntryOfWhichNothingWasKeptIsReadOnce)
{
    ZipBuilder builder;
    builder.Add("f", std::string(100, 'a'), 0);
    const auto archive = Need(Open(builder));
    {
        std::fstream file(m_file, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(static_cast<std::streamoff>(archive->Entries()[0].dataOffset));
        file.put('x');
    }
    std::string data, error;
    const ::Test::CountedCalls reads("pread");
    EXPECT_FALSE(archive->Read(archive->Entries()[0], data, error));
    EXPECT_EQ(error, "its checksum differs from the directory");
    EXPECT_EQ(reads.Count(), 1);
}

TEST_F(ZipReader, WhatWasReadAlongInOneFileIsNotTakenForAnothers)
{
    const std::string text(100, 'a');
    const std::string otherText = WithTheSameChecksum(text);
    ZipBuilder builder, otherBuilder;
    for (const char* const name : {"f0", "f1", "f2"}) {
        builder.Add(name, text, 0);
        otherBuilder.Add(name, otherText, 0);
    }
    const auto archive = Need(Open(builder));
    for (int number = 0; number < 16; ++number) { // what is kept of them shares a few places
        const std::string otherFile = m_folder / ("other" + std::to_string(number) + ".zip");
        ::Test::WriteFile(otherFile, otherBuilder.Build());
        const auto other = Need(ZipArchive::Open(otherFile, ZipLimits(), m_error));
        std::string data, error;
        for (std::size_t i = 0; i < 2; ++i)
            ASSERT_TRUE(archive->Read(archive->Entries()[i], data, error)) << error;
        ASSERT_TRUE(other->Read(other->Entries()[2], data, error)) << error;
        EXPECT_EQ(data, otherText);
    }
}

TEST_F(ZipReader, AnEntryThatIsReadOnceMoreIsReadFromTheFile)
{
    const std::string text(100, 'a');
    ZipBuilder builder;
    for (const char* const name : {"f0", "f1", "f2"})
        builder.Add(name, text, 0);
    const auto archive = Need(Open(builder));
    std::string data, error;
    for (const ZipEntry& entry : archive->Entries())
        ASSERT_TRUE(archive->Read(entry, data, error)) << error;
    std::fstream file(m_file, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(static_cast<std::streamoff>(archive->Entries()[1].dataOffset));
    file << WithTheSameChecksum(text) << std::flush;
    ASSERT_TRUE(archive->Read(archive->Entries()[1], data, error)) << error;
    EXPECT_EQ(data, WithTheSameChecksum(text));
}

TEST_F(ZipReader, FileCutShortWhileItIsReadIsAnErrorAlsoWhereBytesAreReadAlong)
{
    ZipBuilder builder;
    for (int i = 0; i < 4; ++i)
        builder.Add("f" + std::to_string(i), std::string(3000, 'a'), 0);
    const std::string bytes = builder.Build();
    const auto archive = Need(Open(bytes));
    ASSERT_EQ(::truncate(m_file.c_str(), static_cast<off_t>(archive->Entries()[2].dataOffset) + 100), 0);
    ZipReading reading;
    std::string error;
    const auto drop = [](const char*, std::size_t) { return true; };
    EXPECT_TRUE(archive->Read(archive->Entries()[0], reading, drop, error)) << error;
    EXPECT_TRUE(archive->Read(archive->Entries()[1], reading, drop, error)) << error;
    for (const std::size_t entry : {2u, 3u}) {
        EXPECT_FALSE(archive->Read(archive->Entries()[entry], reading, drop, error));
        EXPECT_EQ(error, "the file was cut short while it was read");
    }
}

TEST_F(ZipReader, ThreadsReadOneArchiveAtTheSameTime)
{
    ZipBuilder builder = PlainPackage();
    builder.Add("big", std::string(1 << 20, 'b'));
    const auto archive = Need(Open(builder));
    std::vector<::Test::JoiningThread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            for (int round = 0; round < 20; ++round)
                EXPECT_EQ(ReadAll(*archive), "");
        });
    for (::Test::JoiningThread& thread : threads)
        thread.join();
}

TEST_F(ZipReader, ArchivesOfOtherProgramsAreAccepted)
{
    const std::string make = "cd '" + m_folder.Path() + "' && mkdir -p tree/sub/empty && printf hello > tree/sub/a.txt"
                             + " && cp /bin/sh tree/tool && printf x > 'tree/\xc3\xa9'";
    ASSERT_EQ(std::system(make.c_str()), 0);
    const std::map<std::string, std::string> programs = {
        {"zip", "zip -qr $OUT tree"},
        {"zip to a pipe", "zip -qr - tree | cat > $OUT"},
        {"zip, stored", "zip -q0r $OUT tree"},
        {"zip, ZIP64", "zip -q -fz -r $OUT tree"},
        {"zip, comment", "zip -qr $OUT tree && echo a comment | zip -qz $OUT"},
        {"bsdtar", "bsdtar -a -cf $OUT tree"},
        {"bsdtar to a pipe", "bsdtar --format zip -cf - tree | cat > $OUT"},
        {"bsdtar, stored", "bsdtar --format zip --options zip:compression=store -cf $OUT tree"},
        {"Python", "python3 -m zipfile -c $OUT tree"},
    };
    for (const auto& [program, command] : programs) {
        SCOPED_TRACE(program);
        ::unlink(m_file.c_str());
        const std::string name = program.substr(0, program.find_first_of(" ,"));
        const std::string binary = name == "Python" ? "python3" : name;
        if (std::system(("command -v " + binary + " > /dev/null").c_str()) != 0) {
            std::printf("SKIPPED: there is no %s here\n", binary.c_str());
            continue;
        }
        const std::string run = "cd '" + m_folder.Path() + "' && OUT=x.zip && " + command;
        ASSERT_EQ(std::system(run.c_str()), 0);
        const auto archive = ZipArchive::Open(m_file, ZipLimits(), m_error);
        ASSERT_TRUE(archive) << m_error;
        EXPECT_EQ(ReadAll(*archive), "");
        std::string data, error;
        ASSERT_TRUE(archive->Find("tree/sub/a.txt"));
        EXPECT_TRUE(archive->Read(*archive->Find("tree/sub/a.txt"), data, error));
        EXPECT_EQ(data, "hello");
        ASSERT_TRUE(archive->Find("tree/tool"));
        EXPECT_EQ(archive->Find("tree/tool")->mode & 0100u, 0100u);
        EXPECT_TRUE(archive->Find("tree/\xc3\xa9"));
    }
}

TEST_F(ZipReader, NamesAreEscapedForTheLog)
{
    EXPECT_EQ(EscapeForLog("plain/name"), "plain/name");
    EXPECT_EQ(EscapeForLog("gr\xc3\xbc\xc3\x9f"), "gr\xc3\xbc\xc3\x9f");
    EXPECT_EQ(EscapeForLog("a\n\x1b[0m\xff\xc2\x9b"), "a\\x0a\\x1b[0m\\xff\\xc2\\x9b");
    EXPECT_LT(EscapeForLog(std::string(5000, 'x')).size(), 310u);
}

TEST(ZipPathOrder, IsThatOfTheFirstByteInWhichTwoPathsDiffer)
{
    for (std::size_t length = 1; length <= 20; ++length)
        for (std::size_t at = 0; at < length; ++at) {
            std::string left(length, 'm');
            std::string right(length, 'm');
            left[at] = '/'; // which comes before all, "!" too
            right[at] = '!';
            right[length - 1] = at + 1 < length ? 'a' : right[length - 1]; // says the contrary behind it
            EXPECT_LT(Zip::ComparePaths(left, right), 0) << left << " and " << right;
            EXPECT_GT(Zip::ComparePaths(right, left), 0) << left << " and " << right;
            left[at] = '\xff';
            EXPECT_GT(Zip::ComparePaths(left, right), 0) << left << " and " << right;
            EXPECT_EQ(Zip::ComparePaths(left, left), 0);
            EXPECT_LT(Zip::ComparePaths(std::string_view(left).substr(0, at), left), 0) << "what is cut comes first";
        }
}
