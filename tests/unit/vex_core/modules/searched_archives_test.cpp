#include "vex_core/modules/name_hash.h"
#include "vex_core/modules/searched_archives.h"

#include "support/archive_clock.h"
#include "support/call_watch.h"
#include "support/need.h"
#include "support/process_guards.h"
#include "support/temp_folder.h"
#include "support/zip_builder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <future>

#include <wx/log.h>

using namespace VexCore;

namespace {
class SearchPath : public testing::Test
{
protected:
    ~SearchPath() override { ArchiveIndex::Process().ForgetUnused(); }

    // The path of an archive with one module, put there as an installation does.
    std::string Write(const std::string& name, const std::string& module)
    {
        ::Test::ZipBuilder builder;
        builder.Add("readme.txt", "text");
        builder.Add(module + ".lua", "return 1");
        ::Test::WriteFile(m_folder / name + ".new", builder.Build());
        std::filesystem::rename(m_folder / name + ".new", m_folder / name);
        return m_folder / name;
    }
    std::shared_ptr<const FoundArchives> Current(const std::vector<std::string>& paths)
    {
        return ::Test::Need(ArchiveIndex::Process().Search(paths)->Current(ZipLimits()));
    }
    static std::uint32_t ArchiveOf(const FoundArchives& found, const std::string& module)
    {
        return found.names.First(HashName(module + ".lua")).archive;
    }

    ::Test::TempFolder m_folder;
    ::Test::ArchiveClock m_clock;
    wxLogNull m_silence;
};

} // namespace

TEST(NameTable, KnowsTheFirstPlaceOfEachOfManyNames)
{
    NameTable table(1000);
    for (std::uint32_t i = 0; i < 1000; ++i)
        table.Add({i * 1024, i % 7, i});
    table.Add({3 * 1024, 0, 0});
    for (std::uint32_t i = 0; i < 1000; ++i) {
        EXPECT_EQ(table.First(i * 1024).archive, i % 7) << i;
        EXPECT_EQ(table.First(i * 1024).entry, i) << i;
    }
    EXPECT_EQ(table.First(1).archive, NameTable::none);
    EXPECT_EQ(NameTable(0).First(0).archive, NameTable::none);
}

TEST_F(SearchPath, ANameLeadsToItsFirstArchiveAndEntry)
{
    const auto found = Current({Write("x.vxe", "a"), Write("y.vxe", "b"), Write("z.vxe", "b")});
    EXPECT_EQ(ArchiveOf(*found, "a"), 0u);
    EXPECT_EQ(ArchiveOf(*found, "b"), 1u);
    EXPECT_EQ(ArchiveOf(*found, "c"), NameTable::none);
    EXPECT_EQ(found->names.First(HashName("b.lua")).entry, 1u) << "behind the text";
}

TEST_F(SearchPath, EachFileIsLookedAtOnceASecond)
{
    const std::vector<std::string> paths = {Write("x.vxe", "a"), m_folder / "none.vxe", Write("y.vxe", "b")};
    const auto search = ArchiveIndex::Process().Search(paths);
    const auto first = search->Current(ZipLimits());
    std::vector<std::string> looks;
    const ::Test::CallWatch watch([&looks](const os::Call& call) {
        looks.push_back(std::string(call.name) + " " + (call.path ? call.path : ""));
        return 0;
    });
    m_clock.Pass(999);
    EXPECT_EQ(search->Current(ZipLimits()), first);
    EXPECT_THAT(looks, testing::IsEmpty());
    m_clock.Pass(1);
    EXPECT_EQ(search->Current(ZipLimits()), first) << "nothing has changed";
    EXPECT_EQ(search->Current(ZipLimits()), first);
    EXPECT_THAT(looks, testing::ElementsAre("stat " + paths[0], "stat " + paths[1], "stat " + paths[2]));
}

TEST_F(SearchPath, AReplacedArchiveIsSeenWithinASecond)
{
    const std::vector<std::string> paths = {Write("x.vxe", "a"), Write("y.vxe", "b")};
    const auto search = ArchiveIndex::Process().Search(paths);
    const auto first = search->Current(ZipLimits());
    Write("x.vxe", "c");
    m_clock.Pass(999);
    EXPECT_EQ(search->Current(ZipLimits()), first);
    m_clock.Pass(1);
    const auto second = search->Current(ZipLimits());
    EXPECT_EQ(ArchiveOf(*second, "a"), NameTable::none);
    EXPECT_EQ(ArchiveOf(*second, "c"), 0u);
    EXPECT_EQ(second->items[1].archive, first->items[1].archive) << "the other one stays open";
    EXPECT_EQ(ArchiveOf(*first, "a"), 0u) << "who has the old one goes on with it";
}

TEST_F(SearchPath, AnArchiveThatGoesAndComesIsSeenWithinASecond)
{
    const std::string path = Write("x.vxe", "a");
    const auto search = ArchiveIndex::Process().Search({path});
    ASSERT_TRUE(search->Current(ZipLimits())->items[0].archive);
    std::filesystem::remove(path);
    m_clock.Pass(1000);
    const auto gone = search->Current(ZipLimits());
    EXPECT_FALSE(gone->items[0].archive);
    EXPECT_EQ(gone->items[0].failure, "cannot be opened: No such file or directory");
    EXPECT_EQ(ArchiveOf(*gone, "a"), NameTable::none);
    ::Test::WriteFile(path, "no archive");
    m_clock.Pass(1000);
    EXPECT_NE(search->Current(ZipLimits())->items[0].failure, gone->items[0].failure) << "of no use for another reason";
    Write("x.vxe", "b");
    m_clock.Pass(1000);
    EXPECT_EQ(ArchiveOf(*search->Current(ZipLimits()), "b"), 0u);
}

TEST_F(SearchPath, AnotherLookOnRequestTellsWhetherAnythingChanged)
{
    const std::string path = Write("x.vxe", "a");
    const auto search = ArchiveIndex::Process().Search({path});
    const auto first = search->Current(ZipLimits());
    EXPECT_FALSE(search->HasChanged(ZipLimits(), first));
    Write("x.vxe", "b");
    EXPECT_TRUE(search->HasChanged(ZipLimits(), first));
    EXPECT_EQ(ArchiveOf(*search->Current(ZipLimits()), "b"), 0u);
    EXPECT_TRUE(search->HasChanged(ZipLimits(), nullptr));
}

TEST_F(SearchPath, AnArchiveThatWantsADescriptorIsTriedAtEachLookup)
{
    const std::string path = Write("x.vxe", "a");
    const auto search = ArchiveIndex::Process().Search({path});
    {
        const ::Test::CallWatch none(
            [](const os::Call& call) { return call.name == std::string("open") ? EMFILE : 0; });
        for (int attempt = 0; attempt < 2; ++attempt)
            EXPECT_EQ(search->Current(ZipLimits())->items[0].failure, "cannot be opened: Too many open files");
    }
    EXPECT_TRUE(search->Current(ZipLimits())->items[0].archive);
}

TEST_F(SearchPath, ThePathIsOneObjectAndAnotherOrderIsAnotherOne)
{
    const std::string x = Write("x.vxe", "a");
    const std::string y = Write("y.vxe", "a");
    const auto search = ArchiveIndex::Process().Search({x, y});
    EXPECT_EQ(ArchiveIndex::Process().Search({x, y}), search);
    EXPECT_NE(ArchiveIndex::Process().Search({y, x}), search);
}

TEST_F(SearchPath, APathThatNobodySearchesIsForgottenWithItsArchives)
{
    const std::weak_ptr<const FoundArchives> found = Current({Write("x.vxe", "a")});
    const std::weak_ptr<ModuleArchive> archive = found.lock()->items[0].archive;
    ArchiveIndex::Process().ForgetUnused();
    EXPECT_TRUE(found.expired());
    EXPECT_TRUE(archive.expired());
}

namespace {
// Whoever gets a line lets another thread look for a module.
class Looking : public wxLog
{
public:
    explicit Looking(std::function<void()> look) : m_look(std::move(look)) {}
    bool HasLooked() const { return m_hasLooked; }
    int Looks() const { return m_looks; }

protected:
    void DoLogRecord(wxLogLevel, const wxString&, const wxLogRecordInfo&) override
    {
        m_looking.push_back(std::async(std::launch::async, m_look)); // which may end when this call has
        ++m_looks;
        m_hasLooked = m_looking.back().wait_for(std::chrono::seconds(20)) == std::future_status::ready;
    }

private:
    const std::function<void()> m_look;
    std::vector<std::future<void>> m_looking;
    bool m_hasLooked = false;
    int m_looks = 0;
};

} // namespace

TEST(SearchPathLog, NobodyWaitsForALookWhileItsWarningsAreLogged)
{
    const ::Test::TempFolder folder;
    ::Test::WriteFile(folder / "x.vxe", "no archive");
    const auto search = ArchiveIndex::Process().Search({folder / "x.vxe"});
    const auto look = [&search] { search->Current(ZipLimits()); };
    auto* const log = new Looking(look);
    const ::Test::LogTarget target(log);
    look();
    EXPECT_TRUE(log->HasLooked());
    ::Test::WriteFile(folder / "x.vxe", "no archive either");
    search->HasChanged(ZipLimits(), nullptr);
    EXPECT_TRUE(log->HasLooked());
    EXPECT_EQ(log->Looks(), 2);
}
