#include "vex_core/modules/archive_index.h"
#include "vex_core/modules/name_hash.h"

#include "support/joining_thread.h"
#include "support/log_catcher.h"
#include "support/need.h"
#include "support/process_guards.h"
#include "support/temp_folder.h"
#include "support/zip_builder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>

#include <wx/log.h>

using namespace VexCore;

namespace {
std::string OneModule(const std::string& code)
{
    ::Test::ZipBuilder builder;
    builder.Add("a.lua", code);
    builder.Add("a.txt", "text");
    builder.AddFolder("b.lua/");
    return builder.Build();
}

class IndexedArchive : public testing::Test
{
protected:
    std::shared_ptr<ModuleArchive> Current(const std::string& path)
    {
        return ArchiveIndex::Process().Slot(path)->Current(ZipLimits(), m_failure);
    }
    std::shared_ptr<ModuleArchive> Open(const std::string& path) { return ::Test::Need(Current(path)); }
    ~IndexedArchive() override { ArchiveIndex::Process().ForgetUnused(); }
    ::Test::TempFolder m_folder;
    std::string m_failure;
    wxLogNull m_silence;
};

} // namespace

TEST(HashedName, IsTheSameInEveryBuildBecauseCacheFilesHoldIt)
{
    EXPECT_EQ(HashName(""), 0xcbf29ce484222325u);
    EXPECT_EQ(HashName("a"), 0xaf63dc4c8601ec8cu);
    EXPECT_EQ(HashName("foobar"), 0x85944171f73967e8u);
}

TEST_F(IndexedArchive, OnlyFilesThatEndInLuaAreModules)
{
    ::Test::WriteFile(m_folder / "x.vxe", OneModule("return 1"));
    const auto archive = Open(m_folder / "x.vxe");
    ASSERT_TRUE(archive);
    EXPECT_TRUE(archive->MayHave(HashName("a.lua")));
    EXPECT_FALSE(archive->MayHave(HashName("a.txt")));
    EXPECT_FALSE(archive->MayHave(HashName("b.lua/")));
    EXPECT_FALSE(archive->MayHave(HashName("b.lua")));
}

TEST_F(IndexedArchive, AnArchiveThatDidNotChangeIsTheSameObject)
{
    ::Test::WriteFile(m_folder / "x.vxe", OneModule("return 1"));
    const auto first = Open(m_folder / "x.vxe");
    EXPECT_EQ(Current(m_folder / "x.vxe"), first);
}

TEST_F(IndexedArchive, AnotherFileAtThePathIsAnotherArchive)
{
    ::Test::WriteFile(m_folder / "x.vxe", OneModule("return 1"));
    const auto first = Open(m_folder / "x.vxe");
    ::Test::WriteFile(m_folder / "y.vxe", OneModule("return 1"));
    std::filesystem::rename(m_folder / "y.vxe", m_folder / "x.vxe");
    const auto second = Open(m_folder / "x.vxe");
    EXPECT_NE(second, first);
    EXPECT_EQ(second->DirectorySha256(), first->DirectorySha256()) << "the content is the same";
    EXPECT_EQ(first->DirectorySha256().size(), 64u);
}

TEST_F(IndexedArchive, AFileOfTheSamePlaceAndLengthIsAnotherArchiveByItsTime)
{
    const std::string path = m_folder / "x.vxe";
    ::Test::WriteFile(path, OneModule("return 1"));
    const auto first = Open(path);
    struct stat before = {};
    ASSERT_EQ(::stat(path.c_str(), &before), 0);
    ::Test::WriteFile(path, OneModule("return 2"));
    struct timespec times[] = {before.st_atim, before.st_mtim};
    ++times[1].tv_sec;
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    const auto second = Open(path);
    EXPECT_NE(second, first);
    EXPECT_NE(second->DirectorySha256(), first->DirectorySha256());

    // A copy that keeps the time of the file's content leaves a trace in the other one, which nobody can set. The clock
    // of the file system ticks some hundred times a second.
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    ::Test::WriteFile(path, OneModule("return 3"));
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    EXPECT_NE(Current(path), second);
}

TEST_F(IndexedArchive, ManyThreadsOpenAnArchiveOnce)
{
    ::Test::WriteFile(m_folder / "x.vxe", OneModule("return 1"));
    std::vector<std::shared_ptr<ModuleArchive>> seen(8);
    std::vector<::Test::JoiningThread> threads;
    for (auto& place : seen)
        threads.emplace_back([&place, this] {
            std::string reason;
            place = ArchiveIndex::Process().Slot(m_folder / "x.vxe")->Current(ZipLimits(), reason);
        });
    for (::Test::JoiningThread& thread : threads)
        thread.join();
    ASSERT_TRUE(seen[0]);
    for (const auto& place : seen)
        EXPECT_EQ(place, seen[0]);
}

TEST_F(IndexedArchive, AClosedArchiveIsOpenedAgainWhenItIsRead)
{
    ::Test::WriteFile(m_folder / "x.vxe", OneModule("return 1"));
    const auto archive = Open(m_folder / "x.vxe");
    archive->Close();
    std::string error;
    const auto zip = archive->Zip(error);
    ASSERT_TRUE(zip);
    EXPECT_TRUE(zip->Find("a.lua"));
}

TEST_F(IndexedArchive, AClosedArchiveThatWasReplacedIsNotReadAsTheOldOne)
{
    ::Test::WriteFile(m_folder / "x.vxe", OneModule("return 1"));
    const auto archive = Open(m_folder / "x.vxe");
    archive->Close();
    ::Test::WriteFile(m_folder / "x.vxe", OneModule("return 22"));
    std::string error;
    EXPECT_FALSE(archive->Zip(error));
    EXPECT_EQ(error, "the file was replaced meanwhile");
}

TEST_F(IndexedArchive, MoreArchivesThanDescriptorsAreAllUsable)
{
    const ::Test::DescriptorLimit limit(128);
    std::vector<std::shared_ptr<ModuleArchive>> archives;
    for (int i = 0; i < 300; ++i) {
        const std::string path = m_folder / (std::to_string(i) + ".vxe");
        ::Test::WriteFile(path, OneModule("return 1"));
        archives.push_back(Current(path));
        ASSERT_TRUE(archives.back()) << i << ": " << m_failure;
    }
    std::string error;
    for (const auto& archive : archives)
        EXPECT_TRUE(archive->Zip(error)) << error;
}

TEST_F(IndexedArchive, AnArchiveThatCouldNotBeOpenedForWantOfDescriptorsIsTriedAgain)
{
    ::Test::WriteFile(m_folder / "x.vxe", OneModule("return 1"));
    wxLog::EnableLogging(); // until the end of the silence
    const ::Test::LogCatcher log;
    {
        const ::Test::DescriptorLimit limit(0);
        for (int attempt = 0; attempt < 3; ++attempt) {
            EXPECT_FALSE(Current(m_folder / "x.vxe"));
            EXPECT_EQ(m_failure, "cannot be opened: Too many open files");
        }
    }
    EXPECT_TRUE(Current(m_folder / "x.vxe"));
    EXPECT_EQ(log.All(), std::to_string(wxLOG_Warning) + " Lua archive '" + m_folder / "x.vxe"
                             + "' is passed over until it changes: cannot be opened: Too many open files\n");
}

TEST_F(IndexedArchive, AClosedArchiveIsOpenedAgainWithinTheLimitsThatItWasOpenedWith)
{
    ZipLimits limits;
    ::Test::ZipBuilder builder;
    builder.zip64End = true;
    for (std::uint64_t i = 0; i <= limits.maxEntries; ++i)
        builder.Add(std::to_string(i), "", 0);
    ::Test::WriteFile(m_folder / "x.vxe", builder.Build());
    EXPECT_FALSE(Current(m_folder / "x.vxe"));
    ++limits.maxEntries;
    std::string error;
    const auto archive = ::Test::Need(ModuleArchive::Open(m_folder / "x.vxe", limits, error));
    archive->Close();
    EXPECT_TRUE(archive->Zip(error)) << error;
}

TEST_F(IndexedArchive, WhatNobodyHoldsIsForgotten)
{
    ::Test::WriteFile(m_folder / "x.vxe", OneModule("return 1"));
    const std::weak_ptr<ModuleArchive> archive = Current(m_folder / "x.vxe");
    const auto kept = ArchiveIndex::Process().Slot(m_folder / "x.vxe");
    ArchiveIndex::Process().ForgetUnused();
    EXPECT_FALSE(archive.expired());
    EXPECT_EQ(ArchiveIndex::Process().Slot(m_folder / "x.vxe"), kept);
}

TEST_F(IndexedArchive, WhatIsForgottenIsClosed)
{
    ::Test::WriteFile(m_folder / "x.vxe", OneModule("return 1"));
    const std::weak_ptr<ModuleArchive> archive = Current(m_folder / "x.vxe");
    ArchiveIndex::Process().ForgetUnused();
    EXPECT_TRUE(archive.expired());
}
