#include "vex_core/modules/cache_registry.h"

#include "support/address_limit.h"
#include "support/call_watch.h"
#include "support/child.h"
#include "support/joining_thread.h"
#include "support/log_catcher.h"
#include "support/other_user.h"
#include "support/process_guards.h"
#include "support/sanitized.h"
#include "support/temp_folder.h"
#include "vex_core/os/call_observer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <string_view>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace VexCore;
using namespace std::string_view_literals;

namespace {
const std::string cacheKey(64, 'a');

std::vector<std::string> Names(const std::string& folder)
{
    std::vector<std::string> names;
    for (const auto& item : std::filesystem::directory_iterator(folder))
        names.push_back(item.path().filename().string());
    return names;
}

int g_failAt = 0;
int g_cacheCalls = 0;
bool g_fatal = false;

// Lets the n-th call fail, or ends the process right before it.
int FailNth(const os::Call&)
{
    if (++g_cacheCalls != g_failAt)
        return 0;
    if (g_fatal)
        ::_exit(77);
    return EIO;
}

class CachedChunk : public testing::Test
{
protected:
    ~CachedChunk() override
    {
        os::SetCallObserver(nullptr);
        CacheRegistry::Process().ForgetUnused();
    }
    std::shared_ptr<ChunkCache> Fresh()
    {
        CacheRegistry::Process().ForgetUnused();
        return CacheRegistry::Process().Get(m_cacheFolder, cacheKey);
    }
    ::Test::TempFolder m_folder;
    const std::string m_cacheFolder = m_folder / "cache";
    std::string m_buffer;
    std::string_view m_chunk;
};

} // namespace

TEST(ChunkFileKey, DependsOnArchiveAndLua)
{
    EXPECT_EQ(ChunkCache::Key("a", "b").size(), 64u);
    EXPECT_EQ(ChunkCache::Key("a", "b"), ChunkCache::Key("a", "b"));
    EXPECT_NE(ChunkCache::Key("a", "b"), ChunkCache::Key("a", "c"));
    EXPECT_NE(ChunkCache::Key("a", "b"), ChunkCache::Key("c", "b"));
}

TEST_F(CachedChunk, AChunkThatWaitsIsFoundAlready)
{
    Fresh()->Add("/x.vxe/a.lua", 6, "code");
    EXPECT_FALSE(std::filesystem::exists(m_cacheFolder));
    EXPECT_TRUE(CacheRegistry::Process().Get(m_cacheFolder, cacheKey)->Find("/x.vxe/a.lua", m_buffer, m_chunk));
    EXPECT_EQ(m_chunk, "code");
}

TEST_F(CachedChunk, AWrittenChunkIsFoundByTheNextProcess)
{
    auto cache = Fresh();
    cache->Add("/x.vxe/a.lua", 6, "code");
    cache->Flush();
    cache.reset();
    EXPECT_TRUE(Fresh()->Find("/x.vxe/a.lua", m_buffer, m_chunk));
    EXPECT_EQ(m_chunk, "code");
    EXPECT_FALSE(Fresh()->Find("/y.vxe/a.lua", m_buffer, m_chunk));
    EXPECT_FALSE(Fresh()->Find("/x.vxe/b.lua", m_buffer, m_chunk));
}

TEST_F(CachedChunk, ManyChunksAreWrittenWithoutAFlush)
{
    Fresh()->Add("/x.vxe/a.lua", 6, std::string(9 << 20, 'x'));
    EXPECT_EQ(Names(m_cacheFolder).size(), 1u);
}

TEST_F(CachedChunk, WhatWaitsIsWrittenAtTheFirstLookupTwoSecondsAfterTheLastOfIt)
{
    static std::int64_t s_nowMs;
    s_nowMs = 1000;
    const CacheRegistry::Clock before = CacheRegistry::Process().SetClock([] { return s_nowMs; });
    const auto cache = Fresh();
    cache->Add("/x.vxe/a.lua", 6, "code");
    s_nowMs += 1500;
    cache->Add("/x.vxe/b.lua", 6, "code");
    s_nowMs += 1500;
    CacheRegistry::Process().FlushOld();
    EXPECT_FALSE(std::filesystem::exists(m_cacheFolder)) << "a start that is still at it";
    s_nowMs += 501;
    CacheRegistry::Process().FlushOld();
    EXPECT_EQ(Names(m_cacheFolder).size(), 1u);
    CacheRegistry::Process().SetClock(before);
}

TEST_F(CachedChunk, NewChunksAreWrittenBehindThoseThatAreThere)
{
    const auto cache = Fresh();
    cache->Add("/x.vxe/a.lua", 6, "old");
    cache->Flush();
    const std::string file = m_cacheFolder + "/" + Names(m_cacheFolder).at(0);
    const std::string before = ::Test::ReadFile(file);
    struct stat first;
    ASSERT_EQ(::stat(file.c_str(), &first), 0);
    cache->Add("/x.vxe/b.lua", 6, "b");
    cache->Add("/x.vxe/a.lua", 6, "new");
    cache->Flush();
    struct stat second;
    ASSERT_EQ(::stat(file.c_str(), &second), 0);
    EXPECT_EQ(second.st_ino, first.st_ino);
    EXPECT_EQ(::Test::ReadFile(file).substr(0, before.size()), before);
    EXPECT_TRUE(cache->Find("/x.vxe/b.lua", m_buffer, m_chunk));
    ASSERT_TRUE(cache->Find("/x.vxe/a.lua", m_buffer, m_chunk));
    EXPECT_EQ(m_chunk, "new") << "the newest of a name";
}

TEST_F(CachedChunk, WhatTheFileHasAlreadyIsNotWrittenAgain)
{
    const auto cache = Fresh();
    cache->Add("/x.vxe/a.lua", 6, "a");
    cache->Flush();
    const std::string file = m_cacheFolder + "/" + Names(m_cacheFolder).at(0);
    const std::string before = ::Test::ReadFile(file);
    const ::Test::CountedCalls writes("write");
    ChunkCache other(m_cacheFolder, cacheKey); // as another process that started at the same time
    other.Add("/x.vxe/a.lua", 6, "a");
    other.Flush();
    EXPECT_EQ(writes.Count(), 0);
    other.Add("/x.vxe/a.lua", 6, "c");
    other.Flush();
    EXPECT_EQ(writes.Count(), 1) << "another chunk";
}

TEST_F(CachedChunk, AFileWithADamagedEndIsWrittenAnew)
{
    const auto write = [this](const std::string& name) {
        const auto cache = Fresh();
        cache->Add(name, 6, "code");
        cache->Flush();
    };
    write("/x.vxe/a.lua");
    const std::string file = m_cacheFolder + "/" + Names(m_cacheFolder).at(0);
    write("/x.vxe/b.lua");
    const std::string whole = ::Test::ReadFile(file);
    for (const std::string& bad : {whole.substr(0, whole.size() - 1), whole + "more"}) {
        ::Test::WriteFile(file, bad);
        EXPECT_TRUE(Fresh()->Find("/x.vxe/a.lua", m_buffer, m_chunk)) << "what is before it counts";
        write("/x.vxe/b.lua");
        EXPECT_EQ(::Test::ReadFile(file).size(), whole.size() - ChunkCacheFormat::headerBytes) << "one block by now";
        EXPECT_TRUE(Fresh()->Find("/x.vxe/a.lua", m_buffer, m_chunk));
        EXPECT_TRUE(Fresh()->Find("/x.vxe/b.lua", m_buffer, m_chunk));
    }
}

#ifndef VEX_TEST_SANITIZED
TEST_F(CachedChunk, AChunkThatFoundNoMemoryGetsNoOthersBytes)
{
    const auto cache = Fresh();
    const std::string large(64 << 20, 'x');
    {
        const ::Test::AddressLimit lessThanTheChunk(16 << 20);
        EXPECT_THROW(cache->Add("/x.vxe/a.lua", 6, large), std::bad_alloc);
    }
    cache->Add("/x.vxe/b.lua", 6, "b");
    // There may have been memory for the chunk and none to write it.
    EXPECT_TRUE(!cache->Find("/x.vxe/a.lua", m_buffer, m_chunk) || m_chunk == large);
    ASSERT_TRUE(cache->Find("/x.vxe/b.lua", m_buffer, m_chunk));
    EXPECT_EQ(m_chunk, "b");
}
#endif

TEST_F(CachedChunk, ADamagedChunkIsLeftOutOfTheNextFile)
{
    auto cache = Fresh();
    cache->Add("/x.vxe/a.lua", 6, "aaaa");
    cache->Add("/x.vxe/b.lua", 6, "bbbb");
    cache->Flush();
    cache.reset();
    const std::string file = m_cacheFolder + "/" + Names(m_cacheFolder).at(0);
    const std::string whole = ::Test::ReadFile(file);
    std::string bad = whole;
    bad[bad.find("aaaa")] = 'x';
    ::Test::WriteFile(file, bad);
    cache = Fresh();
    EXPECT_FALSE(cache->Find("/x.vxe/a.lua", m_buffer, m_chunk));
    cache->Add("/x.vxe/a.lua", 6, "aaaa");
    cache->Flush();
    EXPECT_EQ(::Test::ReadFile(file).size(), whole.size());
    EXPECT_TRUE(cache->Find("/x.vxe/a.lua", m_buffer, m_chunk));
    EXPECT_TRUE(cache->Find("/x.vxe/b.lua", m_buffer, m_chunk));
}

TEST_F(CachedChunk, AFullFileStaysAsItIsUntilAnotherPathNeedsTheRoom)
{
    constexpr std::uint64_t maxBytes = 16 * 1024;
    const std::string code(1000, 'c');
    const auto add = [&](ChunkCache& cache, const std::string& archive, int number) {
        cache.Add(archive + "/" + std::to_string(number) + ".lua", archive.size(), code);
        cache.Flush();
    };
    {
        ChunkCache cache(m_cacheFolder, cacheKey, maxBytes);
        for (int i = 0; i < 100; ++i)
            add(cache, "/x.vxe", i);
    }
    const std::string file = m_cacheFolder + "/" + Names(m_cacheFolder).at(0);
    const std::string full = ::Test::ReadFile(file);
    EXPECT_LE(full.size(), maxBytes);
    EXPECT_GT(full.size(), maxBytes * 3 / 4);
    {
        ChunkCache cache(m_cacheFolder, cacheKey, maxBytes);
        EXPECT_FALSE(cache.Find("/x.vxe/99.lua", m_buffer, m_chunk));
        EXPECT_TRUE(cache.Find("/x.vxe/0.lua", m_buffer, m_chunk));
        add(cache, "/x.vxe", 99);
        EXPECT_FALSE(cache.WantsChunks()) << "each start would write as much, and none would be faster";
        EXPECT_TRUE(::Test::ReadFile(file) == full);
    }
    ChunkCache cache(m_cacheFolder, cacheKey, maxBytes);
    add(cache, "/y.vxe", 1);
    EXPECT_TRUE(cache.Find("/y.vxe/1.lua", m_buffer, m_chunk));
    EXPECT_LE(::Test::ReadFile(file).size(), maxBytes);
}

TEST_F(CachedChunk, AFileOfManySmallBlocksBecomesOneOfFew)
{
    const auto cache = Fresh();
    std::size_t bytes = 0;
    for (int i = 0; i < 70; ++i) {
        cache->Add("/x.vxe/" + std::to_string(100 + i), 6, "code");
        cache->Flush();
        bytes = ::Test::ReadFile(m_cacheFolder + "/" + Names(m_cacheFolder).at(0)).size();
    }
    const std::size_t chunkBytes = ChunkCacheFormat::recordBytes + 14;
    EXPECT_EQ(bytes, 70 * chunkBytes + 6 * ChunkCacheFormat::headerBytes);
    for (int i = 0; i < 70; ++i)
        EXPECT_TRUE(cache->Find("/x.vxe/" + std::to_string(100 + i), m_buffer, m_chunk)) << i;
}

TEST_F(CachedChunk, ChunksThatAreAskedForInTheirOrderAreReadTogether)
{
    auto cache = Fresh();
    const auto name = [](int number) { return "/x.vxe/" + std::to_string(number); };
    const auto code = [](int number) { return std::string(20, 'c') + std::to_string(number); };
    for (int i = 0; i < 100; ++i)
        cache->Add(name(i), 6, code(i));
    cache->Flush();
    const ::Test::CountedCalls reads("pread");
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(cache->Find(name(i), m_buffer, m_chunk));
        EXPECT_EQ(m_chunk, code(i));
    }
    EXPECT_LT(reads.Count(), 50);
    for (int i = 99; i >= 0; --i) {
        ASSERT_TRUE(cache->Find(name(i), m_buffer, m_chunk));
        EXPECT_EQ(m_chunk, code(i)) << "and in any other";
    }
}

TEST_F(CachedChunk, WhatWaitsIsWrittenWhenTheProcessExits)
{
    // A chunk is added in a child that ends by exit, as a host does that never closes its interpreter.
    const auto add = [this] {
        CacheRegistry::Process().Get(m_cacheFolder, std::string(64, 'c'))->Add("/x.vxe/a.lua", 6, "code");
        return 0;
    };
    ASSERT_TRUE(::Test::RunChild(add).Exited(0));
    EXPECT_TRUE(
        CacheRegistry::Process().Get(m_cacheFolder, std::string(64, 'c'))->Find("/x.vxe/a.lua", m_buffer, m_chunk));
}

TEST_F(CachedChunk, WhatWaitsInAProcessIsNotWrittenByItsChild)
{
    const auto cache = Fresh();
    cache->Add("/x.vxe/a.lua", 6, "code");
    EXPECT_TRUE(::Test::RunChild([] { return 0; }).Exited(0));
    EXPECT_FALSE(std::filesystem::exists(m_cacheFolder));
    cache->Flush();
    EXPECT_EQ(Names(m_cacheFolder).size(), 1u);
}

TEST_F(CachedChunk, WritersKeepEachOthersChunks)
{
    ChunkCache one(m_cacheFolder, cacheKey);
    ChunkCache two(m_cacheFolder, cacheKey);
    one.Add("/x.vxe/a.lua", 6, "a");
    two.Add("/x.vxe/b.lua", 6, "b");
    one.Flush();
    two.Flush();
    const auto cache = Fresh();
    EXPECT_TRUE(cache->Find("/x.vxe/a.lua", m_buffer, m_chunk));
    EXPECT_TRUE(cache->Find("/x.vxe/b.lua", m_buffer, m_chunk));
}

namespace {
// Tells one file from another that took its place.
ino_t FileNumber(const std::string& path)
{
    struct stat status = {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0);
    return status.st_ino;
}

// A block of one chunk, as another process writes it.
std::string BlockOf(const std::string& name)
{
    return ChunkCacheFormat::Build(cacheKey, {{name, 6, "code"}});
}

} // namespace

TEST_F(CachedChunk, ABlockThatWasSeenWhileItWasWrittenIsNoDamage)
{
    auto cache = Fresh();
    cache->Add("/x.vxe/a.lua", 6, "a");
    cache->Flush();
    cache.reset();
    const std::string file = m_cacheFolder + "/" + Names(m_cacheFolder).at(0);
    const std::string before = ::Test::ReadFile(file);
    const std::string block = BlockOf("/x.vxe/b.lua");
    for (const std::size_t seen : {std::size_t{10}, block.size() - 1}) {
        ::Test::WriteFile(file, before + block.substr(0, seen));
        const ino_t number = FileNumber(file);
        cache = Fresh();
        EXPECT_FALSE(cache->Find("/x.vxe/b.lua", m_buffer, m_chunk)) << seen;
        ::Test::WriteFile(file, before + block);
        cache->Add("/x.vxe/c.lua", 6, "c");
        cache->Flush();
        EXPECT_EQ(FileNumber(file), number) << "written anew after " << seen;
        for (const char* name : {"/x.vxe/a.lua", "/x.vxe/b.lua", "/x.vxe/c.lua"})
            EXPECT_TRUE(cache->Find(name, m_buffer, m_chunk)) << name << " after " << seen;
        cache.reset(); // or the next round has this one again
    }
}

TEST_F(CachedChunk, AFileThatOthersWriteToMeanwhileIsNotWrittenAnew)
{
    for (const int losses : {3, 1000}) {
        std::filesystem::remove_all(m_cacheFolder);
        auto cache = Fresh();
        cache->Add("/x.vxe/a.lua", 6, "a");
        cache->Flush();
        const std::string file = m_cacheFolder + "/" + Names(m_cacheFolder).at(0);
        const ino_t number = FileNumber(file);
        int blocks = 0;
        const auto other = [&](const os::Call& call) { // right before it is looked at whether it has grown
            if (call.name == "openat"sv && call.path == cacheKey + ".luac" && blocks < losses)
                ::Test::WriteFile(file, ::Test::ReadFile(file) + BlockOf("/x.vxe/" + std::to_string(++blocks)));
            return 0;
        };
        cache->Add("/x.vxe/b.lua", 6, "b");
        {
            const ::Test::CallWatch watch(other);
            cache->Flush();
        }
        EXPECT_GE(blocks, 3);
        EXPECT_LT(blocks, 50) << "one that always loses gives up";
        EXPECT_EQ(FileNumber(file), number) << losses;
        EXPECT_EQ(cache->Find("/x.vxe/b.lua", m_buffer, m_chunk), losses == 3);
        EXPECT_TRUE(cache->WantsChunks());
        cache->Add("/x.vxe/c.lua", 6, "c");
        cache->Flush();
        for (const char* name : {"/x.vxe/a.lua", "/x.vxe/1", "/x.vxe/3", "/x.vxe/c.lua"})
            EXPECT_TRUE(cache->Find(name, m_buffer, m_chunk)) << name << " after " << losses;
    }
}

TEST_F(CachedChunk, BlocksBehindANinthPathAreNotRead)
{
    std::string bytes;
    for (int i = 0; i < 9; ++i)
        bytes += BlockOf("/" + std::to_string(i) + ".vxe/a.lua");
    std::filesystem::create_directory(m_cacheFolder);
    std::filesystem::permissions(m_cacheFolder, std::filesystem::perms::owner_all);
    const std::string file = m_cacheFolder + "/" + cacheKey + ".luac";
    ::Test::WriteFile(file, bytes);
    ASSERT_EQ(::chmod(file.c_str(), 0600), 0);
    const auto cache = Fresh();
    EXPECT_TRUE(cache->Find("/7.vxe/a.lua", m_buffer, m_chunk));
    EXPECT_FALSE(cache->Find("/8.vxe/a.lua", m_buffer, m_chunk));
}

TEST_F(CachedChunk, ANewChunkReplacesTheOldOne)
{
    auto cache = Fresh();
    cache->Add("/x.vxe/a.lua", 6, "old");
    cache->Flush();
    cache->Add("/x.vxe/a.lua", 6, "new");
    cache->Flush();
    cache.reset();
    ASSERT_TRUE(Fresh()->Find("/x.vxe/a.lua", m_buffer, m_chunk));
    EXPECT_EQ(m_chunk, "new");
}

TEST_F(CachedChunk, AFileKeepsTheChunksOfEightPaths)
{
    const auto cache = Fresh();
    for (int i = 0; i < 12; ++i) {
        cache->Add("/x" + std::to_string(i) + ".vxe/a.lua", 6 + std::to_string(i).size(), "a");
        cache->Flush();
    }
    int found = 0;
    for (int i = 0; i < 12; ++i)
        found += cache->Find("/x" + std::to_string(i) + ".vxe/a.lua", m_buffer, m_chunk);
    EXPECT_EQ(found, 8);
    EXPECT_TRUE(cache->Find("/x11.vxe/a.lua", m_buffer, m_chunk)) << "the newest stays";
}

TEST_F(CachedChunk, ManyCachesKeepFewFilesOpen)
{
    std::vector<std::shared_ptr<ChunkCache>> caches;
    for (int i = 0; i < 40; ++i) {
        caches.push_back(CacheRegistry::Process().Get(m_cacheFolder, std::string(62, 'd') + std::to_string(10 + i)));
        caches.back()->Add("/x.vxe/a.lua", 6, "code");
        caches.back()->Flush();
    }
    const auto openFiles = [this] {
        int count = 0;
        for (const auto& item : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code error;
            const std::string target = std::filesystem::read_symlink(item.path(), error).string();
            count += target.compare(0, m_cacheFolder.size(), m_cacheFolder) == 0;
        }
        return count;
    };
    for (int round = 0; round < 2; ++round)
        for (const auto& cache : caches)
            EXPECT_TRUE(cache->Find("/x.vxe/a.lua", m_buffer, m_chunk));
    if (!std::filesystem::exists("/proc/self/fd"))
        GTEST_SKIP() << "no list of open files here";
    EXPECT_LE(openFiles(), 16);
}

class SweptCache : public CachedChunk
{
protected:
    SweptCache()
    {
        std::filesystem::create_directory(m_cacheFolder);
        EXPECT_EQ(::chmod(m_cacheFolder.c_str(), 0700), 0);
    }
    // A file that was last used so long ago.
    void File(const std::string& name, long ageSeconds)
    {
        const std::string path = m_cacheFolder + "/" + name;
        ::Test::WriteFile(path, "x");
        struct timespec times[2];
        ::clock_gettime(CLOCK_REALTIME, &times[0]);
        times[0].tv_sec -= ageSeconds;
        times[1] = times[0];
        ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    }
    // What the first write of a process leaves, without the file that it wrote; sorted.
    std::vector<std::string> Left()
    {
        const auto cache = Fresh();
        cache->Add("/x.vxe/a.lua", 6, "code");
        cache->Flush();
        std::vector<std::string> names = Names(m_cacheFolder);
        const auto own = std::find(names.begin(), names.end(), cacheKey + ".luac");
        EXPECT_NE(own, names.end());
        if (own != names.end())
            names.erase(own);
        std::sort(names.begin(), names.end());
        return names;
    }
    static constexpr long day = 24 * 3600;
};

TEST_F(SweptCache, FilesThatNobodyUsedForAMonthAndLeftoversGoAndOthersStay)
{
    File("old.luac", 30 * day + 60);
    File("young.luac", 30 * day - 60);
    File("tmp-1-1-1", 3660);
    File("tmp-2-2-2", 3540);
    for (const char* number : {"1", "2", "3"}) { // among each other in the folder, whatever its order
        File(std::string("old") + number + ".luac", 31 * day);
        File(std::string("notours") + number + ".txt", 100 * day);
    }
    EXPECT_THAT(Left(),
                testing::ElementsAre("notours1.txt", "notours2.txt", "notours3.txt", "tmp-2-2-2", "young.luac"));
}

TEST_F(SweptCache, OfMoreThanAThousandFilesTheOnesUsedLastStay)
{
    for (int i = 0; i < 1010; ++i)
        File("n" + std::to_string(1000 + i) + ".luac", 60 * i + 60);
    const std::vector<std::string> left = Left();
    ASSERT_EQ(left.size(), 999u) << "and the one that was written";
    EXPECT_EQ(left.back(), "n1998.luac");
}

TEST_F(CachedChunk, AProcessThatWritesManyFilesKeepsTheNewestThousand)
{
    const ChunkCacheFolder written(m_folder / "many");
    for (int number = 0; number < 1100; ++number)
        ASSERT_TRUE(written.Replace("k" + std::to_string(number), "x"));
    EXPECT_EQ(Names(m_folder / "many").size(), 1000u);
    int listed = 0;
    {
        const ::Test::CallWatch watch([&listed](const os::Call& call) {
            listed += call.name == "readdir"sv ? 1 : 0;
            return 0;
        });
        for (int again = 0; again < 3; ++again)
            ASSERT_TRUE(written.Replace("k1099", "y"));
    }
    EXPECT_EQ(listed, 0) << "a file that takes the place of another makes no more of them";
    EXPECT_EQ(Names(m_folder / "many").size(), 1000u);
    EXPECT_THAT(Names(m_folder / "many"), testing::Contains("k1099.luac"));
}

TEST_F(CachedChunk, NoWorkFolderIsMadeForIt)
{
    EXPECT_FALSE(ChunkCacheFolder(m_folder / "mistyped/agent/cache").Replace("k", "x"));
    EXPECT_FALSE(ChunkCacheFolder(m_folder / "mistyped/cache").Replace("k", "x"));
    EXPECT_FALSE(std::filesystem::exists(m_folder / "mistyped"));
}

TEST_F(CachedChunk, AFileInUseIsMarkedSo)
{
    auto cache = Fresh();
    cache->Add("/x.vxe/a.lua", 6, "code");
    cache->Flush();
    cache.reset();
    const std::string file = m_cacheFolder + "/" + Names(m_cacheFolder).at(0);
    struct timespec times[2] = {{1000, 0}, {1000, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
    EXPECT_TRUE(Fresh()->Find("/x.vxe/a.lua", m_buffer, m_chunk));
    struct stat status;
    ASSERT_EQ(::stat(file.c_str(), &status), 0);
    EXPECT_GT(status.st_mtime, 1000);
}

TEST_F(CachedChunk, AFileThatIsALinkOrReadableByOthersIsNotUsed)
{
    auto cache = Fresh();
    cache->Add("/x.vxe/a.lua", 6, "code");
    cache->Flush();
    cache.reset();
    const std::string file = m_cacheFolder + "/" + Names(m_cacheFolder).at(0);
    ASSERT_EQ(::chmod(file.c_str(), 0644), 0);
    EXPECT_FALSE(Fresh()->Find("/x.vxe/a.lua", m_buffer, m_chunk));
    ASSERT_EQ(::chmod(file.c_str(), 0600), 0);
    EXPECT_TRUE(Fresh()->Find("/x.vxe/a.lua", m_buffer, m_chunk));
    std::filesystem::rename(file, m_folder / "moved");
    ASSERT_EQ(::symlink((m_folder / "moved").c_str(), file.c_str()), 0);
    EXPECT_FALSE(Fresh()->Find("/x.vxe/a.lua", m_buffer, m_chunk));
}

TEST_F(CachedChunk, AFolderBehindALinkOfAnotherUserIsNotUsedAndSaidOnce)
{
    std::filesystem::create_directory(m_folder / "victim");
    std::filesystem::permissions(m_folder / "victim", std::filesystem::perms::owner_all);
    std::filesystem::create_directory_symlink("victim", m_cacheFolder);
    GIVE_AWAY(m_cacheFolder);
    const ::Test::LogCatcher log;
    for (const char* name : {"/x.vxe/a.lua", "/x.vxe/b.lua"}) {
        Fresh()->Add(name, 6, "code");
        CacheRegistry::Process().Flush();
    }
    EXPECT_TRUE(std::filesystem::is_empty(m_folder / "victim"));
    EXPECT_EQ(
        log.Count(wxLOG_Warning, "'" + m_cacheFolder + "' is not followed, because the link belongs to user 1000"), 1u)
        << log.All();
}

TEST_F(CachedChunk, EveryFailingCallCostsOnlyTime)
{
    for (g_failAt = 1; g_failAt < 200; ++g_failAt) {
        std::filesystem::remove_all(m_cacheFolder);
        {
            ChunkCache before(m_cacheFolder, cacheKey);
            before.Add("/x.vxe/a.lua", 6, "a");
            before.Flush();
        }
        ChunkCache cache(m_cacheFolder, cacheKey);
        g_cacheCalls = 0;
        os::SetCallObserver(FailNth);
        EXPECT_TRUE(!cache.Find("/x.vxe/a.lua", m_buffer, m_chunk) || m_chunk == "a");
        cache.Add("/x.vxe/b.lua", 6, "b");
        cache.Flush();
        EXPECT_TRUE(!cache.Find("/x.vxe/b.lua", m_buffer, m_chunk) || m_chunk == "b");
        const bool reached = g_cacheCalls >= g_failAt;
        os::SetCallObserver(nullptr);
        ChunkCache after(m_cacheFolder, cacheKey);
        EXPECT_TRUE(!after.Find("/x.vxe/b.lua", m_buffer, m_chunk) || m_chunk == "b");
        if (!reached)
            break;
    }
    EXPECT_GT(g_failAt, 10);
    EXPECT_LT(g_failAt, 200);
}

TEST_F(CachedChunk, AProcessKilledAtAnyCallLeavesAWholeFile)
{
    const ::Test::Restored restored(g_fatal);
    g_fatal = true;
    for (g_failAt = 1; g_failAt < 200; ++g_failAt) {
        std::filesystem::remove_all(m_cacheFolder);
        {
            ChunkCache before(m_cacheFolder, cacheKey);
            before.Add("/x.vxe/a.lua", 6, "a");
            before.Flush();
        }
        const int code = ::Test::InChild([this] {
            g_cacheCalls = 0;
            os::SetCallObserver(FailNth);
            ChunkCache cache(m_cacheFolder, cacheKey);
            cache.Add("/x.vxe/b.lua", 6, "b");
            cache.Flush();
            return 0;
        });
        ASSERT_GE(code, 0);
        ChunkCache after(m_cacheFolder, cacheKey);
        EXPECT_TRUE(after.Find("/x.vxe/a.lua", m_buffer, m_chunk)) << g_failAt;
        after.Add("/x.vxe/c.lua", 6, "c");
        after.Flush();
        EXPECT_TRUE(after.Find("/x.vxe/c.lua", m_buffer, m_chunk)) << g_failAt;
        if (code == 0)
            break;
    }
    EXPECT_GT(g_failAt, 10);
    EXPECT_LT(g_failAt, 200);
}

TEST_F(CachedChunk, ManyThreadsAndWritersDoNotHurtEachOther)
{
    std::vector<::Test::JoiningThread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([this, t] {
            const auto mine = std::make_shared<ChunkCache>(m_cacheFolder, cacheKey);
            const auto shared = CacheRegistry::Process().Get(m_cacheFolder, cacheKey);
            for (int i = 0; i < 20; ++i) {
                const std::string name = "/x.vxe/" + std::to_string(i) + ".lua";
                for (const auto& cache : {mine, shared}) {
                    std::string own;
                    std::string_view found;
                    const bool known = cache->Find(name, own, found);
                    EXPECT_TRUE(!known || found == "code " + name);
                    if (!known)
                        cache->Add(name, 6, "code " + name);
                    if ((i + t) % 5 == 0)
                        cache->Flush();
                }
            }
        });
    for (::Test::JoiningThread& thread : threads)
        thread.join();
    for (const std::string& name : Names(m_cacheFolder))
        EXPECT_NE(name.compare(0, 4, "tmp-"), 0) << name;
}
