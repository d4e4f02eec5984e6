// Unzip against real folders: what ends where, what a broken archive or destination changes (nothing), and what every
// failing call and every kind of race leaves behind.
#include "support/call_watch.h"
#include "support/child.h"
#include "support/joining_thread.h"
#include "support/process_guards.h"
#include "support/sanitized.h"
#include "vex/core/dom.h"
#include "vex/core/unzip.h"

#include "vex_core/os/call_observer.h"
#include "vex_core/os/descriptor.h"
#include "vex_core/os/error.h"
#include "vex_core/os/files.h"

#include "support/dom_ptr.h"
#include "support/log_catcher.h"
#include "support/odd_archives.h"
#include "support/other_user.h"
#include "support/temp_folder.h"
#include "support/zip_builder.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <wx/filefn.h>
#include <wx/filename.h>
#include <wx/zipstrm.h>
#include <zlib.h>

using namespace VexCore;
using namespace Test;
namespace fs = std::filesystem;

namespace {
// What a folder holds: path to kind, mode and content.
std::map<std::string, std::string> Tree(const std::string& root)
{
    std::map<std::string, std::string> tree;
    for (const auto& item : fs::recursive_directory_iterator(root)) {
        const std::string path = item.path().string().substr(root.size() + 1);
        struct stat status;
        ::lstat(item.path().c_str(), &status);
        char mode[32];
        std::snprintf(mode, sizeof mode, "%o ", static_cast<unsigned>(status.st_mode));
        tree[path] = mode;
        if (item.is_symlink())
            tree[path] += fs::read_symlink(item.path()).string();
        else if (item.is_regular_file())
            tree[path] += ReadFile(item.path().string());
    }
    return tree;
}

// In memory where there is such a place: some tests flush a thousand times.
std::string FastPlace()
{
    return fs::is_directory("/dev/shm") ? "/dev/shm" : fs::temp_directory_path().string();
}

bool HasTemporaries(const std::string& root)
{
    for (const auto& item : fs::recursive_directory_iterator(root))
        if (item.path().filename().string().rfind(".vex-unzip-", 0) == 0)
            return true;
    return false;
}

struct Seen
{
    std::string name;
    std::uint64_t size;
    std::string destination;
};

class Unzipping : public ::testing::Test
{
protected:
    bool Run(std::function<bool(const Seen&)> answer = [](const Seen&) { return true; })
    {
        struct Context
        {
            std::function<bool(const Seen&)>& answer;
            std::vector<Seen>& seen;
        } context{answer, m_seen};
        m_seen.clear();
        m_log.emplace();
        const auto callback = [](void* data, const wxZipEntry* entry, const wxString* destination) {
            Context& c = *static_cast<Context*>(data);
            c.seen.push_back({std::string(entry->GetInternalName().utf8_str()),
                              static_cast<std::uint64_t>(entry->GetSize()), std::string(destination->utf8_str())});
            return c.answer(c.seen.back());
        };
        return Unzip(wxFileName(wxString::FromUTF8(m_archive)), wxFileName::DirName(wxString::FromUTF8(m_root)),
                     callback, &context);
    }
    bool Run(const ZipBuilder& builder)
    {
        WriteFile(m_archive, builder.Build());
        return Run();
    }
    // The removal as the launcher does it.
    bool Remove()
    {
        return Run([](const Seen& seen) {
            ::unlink(seen.destination.c_str());
            return false;
        });
    }
    std::string Content(const std::string& name) { return ReadFile(m_root + "/" + name); }
    unsigned Mode(const std::string& name)
    {
        struct stat status = {};
        ::lstat((m_root + "/" + name).c_str(), &status);
        return status.st_mode & 07777;
    }

    TempFolder m_folder{FastPlace()};
    std::string m_root = m_folder / "root";
    std::string m_archive = m_folder / "x.vxp";
    std::vector<Seen> m_seen;
    std::optional<LogCatcher> m_log{std::in_place}; // of the latest run

    void SetUp() override { fs::create_directory(m_root); }
};

} // namespace

TEST_F(Unzipping, WritesFilesAndFoldersAndShowsEachEntryWithItsDestination)
{
    ASSERT_TRUE(Run(PlainPackage()));
    EXPECT_EQ(Content("lib/a.lua"), "return 1\n");
    EXPECT_EQ(Content("lib/b.lua"), "return 2\n");
    EXPECT_EQ(Content("bin/tool"), "#!/bin/sh\necho tool\n");
    ASSERT_EQ(m_seen.size(), 4u);
    EXPECT_EQ(m_seen[0].destination, m_root + "/lib/");
    EXPECT_EQ(m_seen[1].name, "lib/a.lua");
    EXPECT_EQ(m_seen[1].size, 9u);
    EXPECT_EQ(m_seen[1].destination, m_root + "/lib/a.lua");
    EXPECT_FALSE(HasTemporaries(m_root));
    EXPECT_TRUE(m_log->Lines().empty());
}

TEST_F(Unzipping, FinishedFilesReplaceOldOnesAndKeepNothingOfThem)
{
    fs::create_directories(m_root + "/lib");
    WriteFile(m_root + "/lib/a.lua", std::string(5000, 'o'));
    fs::permissions(m_root + "/lib/a.lua", fs::perms(0400));
    ASSERT_TRUE(Run(PlainPackage()));
    EXPECT_EQ(Content("lib/a.lua"), "return 1\n");
    EXPECT_EQ(Mode("lib/a.lua"), 0644u);
}

TEST_F(Unzipping, ModesAreTheArchivesWithin0755AndTheOwnersRightsAndTheUmaskDoesNotMatter)
{
    ZipBuilder builder;
    builder.Add("plain", "x", 8, 0100600);
    builder.Add("open", "x", 8, 0100666);
    builder.Add("group", "x", 8, 0100610);
    builder.Add("owner", "x", 8, 0100700);
    builder.Add("setuid", "x", 8, 0106755);
    builder.Add("read", "x", 8, 0100444);
    builder.Add("nothing", "x", 8, 0100000);
    builder.Add("none", "x", 8, 0);
    builder.Add("made/on/the/way", "x");
    builder.AddFolder("folder/", 0040700);
    const FileModeMask restricted(077);
    ASSERT_TRUE(Run(builder));
    EXPECT_EQ(Mode("plain"), 0600u);
    EXPECT_EQ(Mode("open"), 0644u);
    EXPECT_EQ(Mode("group"), 0610u);
    EXPECT_EQ(Mode("owner"), 0700u);
    EXPECT_EQ(Mode("setuid"), 0755u);
    EXPECT_EQ(Mode("read"), 0644u);
    EXPECT_EQ(Mode("nothing"), 0600u);
    EXPECT_EQ(Mode("none"), 0644u) << "the archive does not say";
    for (const char* folder : {"made", "made/on", "made/on/the", "folder"})
        EXPECT_EQ(Mode(folder), 0755u) << folder;
}

TEST_F(Unzipping, FolderThatIsThereKeepsItsMode)
{
    fs::create_directory(m_root + "/lib");
    fs::permissions(m_root + "/lib", fs::perms(0700));
    ASSERT_TRUE(Run(PlainPackage()));
    EXPECT_EQ(Mode("lib"), 0700u);
}

TEST_F(Unzipping, AnArchiveMayHaveMoreFoldersThanAProcessMayHaveFiles)
{
    constexpr int folders = 400;
    ZipBuilder builder;
    for (int i = 0; i < folders; ++i)
        builder.Add("d" + std::to_string(i) + "/f", "x");
    const ::Test::DescriptorLimit limit(200);
    ASSERT_TRUE(Run(builder)) << m_log->All();
    for (const int i : {0, folders - 1})
        EXPECT_EQ(Content("d" + std::to_string(i) + "/f"), "x");
}

TEST_F(Unzipping, EntryThatIsDeclinedIsSkippedAndItsDataNotRead)
{
    ZipBuilder builder;
    builder.Add("good", "x");
    ++builder.Add("bad", "data with a wrong checksum").Both([](ZipRecord& r) { ++r.crc32; }).size;
    builder.AddFolder("folder/");
    WriteFile(m_archive, builder.Build());
    EXPECT_TRUE(Run([](const Seen& seen) { return seen.name == "good"; }));
    EXPECT_EQ(Tree(m_root).size(), 1u);
    EXPECT_EQ(m_seen.size(), 3u);
}

TEST_F(Unzipping, ArchiveWithAFaultInItsHeadersChangesNothingAndAsksNothing)
{
    fs::create_directories(m_root + "/lib");
    WriteFile(m_root + "/lib/a.lua", "old");
    fs::create_symlink("/etc", m_root + "/link");
    const auto before = Tree(m_folder.Path() + "/root");
    for (const BrokenArchive& broken : BrokenArchives()) {
        SCOPED_TRACE(broken.story);
        WriteFile(m_archive, broken.bytes);
        EXPECT_FALSE(Run());
        EXPECT_TRUE(m_seen.empty());
        EXPECT_EQ(Tree(m_root), before);
        ASSERT_EQ(m_log->Lines().size(), 1u);
        EXPECT_EQ(m_log->Lines()[0].level, static_cast<unsigned>(wxLOG_Error));
        const std::string& text = m_log->Lines()[0].text;
        EXPECT_EQ(text.find("Cannot process the archive \"" + m_archive + "\": "), 0u) << text;
        EXPECT_NE(text.find(broken.reason), std::string::npos) << text;
        EXPECT_FALSE(Remove());
        EXPECT_TRUE(m_seen.empty());
        EXPECT_EQ(Tree(m_root), before);
    }
    EXPECT_EQ(Tree(m_folder.Path()).size(), before.size() + 2) << "nothing beside the folder either";
}

TEST_F(Unzipping, LogLineNamesArchiveEntryAndReasonWithControlCharactersEscaped)
{
    ZipBuilder builder;
    builder.Add("evil\n2026-01-31 10:20:30 ERROR forged", "x");
    EXPECT_FALSE(Run(builder));
    ASSERT_EQ(m_log->Lines().size(), 1u);
    EXPECT_EQ(m_log->Lines()[0].text, "Cannot process the archive \"" + m_archive
                                          + "\": entry \"evil\\x0a2026-01-31 10:20:30 ERROR forged\": "
                                            "its name has a control character");
}

TEST_F(Unzipping, NamesThatAreKeptForTemporaryFilesAreRefused)
{
    for (const char* name : {".vex-unzip-1.list", "lib/.vex-unzip-x", ".vex-unzip-/x"}) {
        ZipBuilder builder = PlainPackage();
        builder.Add(name, "x");
        EXPECT_FALSE(Run(builder)) << name;
        EXPECT_TRUE(Tree(m_root).empty());
    }
}

TEST_F(Unzipping, DamagedDataLeavesTheOldFileAndKeepsFinishedOnesAndTouchesNoLaterOne)
{
    for (const BrokenArchive& broken : ArchivesWithBrokenData()) {
        SCOPED_TRACE(broken.story);
        fs::remove_all(m_root);
        fs::create_directory(m_root);
        WriteFile(m_root + "/bad", "old");
        WriteFile(m_archive, broken.bytes);
        EXPECT_FALSE(Run());
        EXPECT_EQ(m_seen.size(), 2u);
        EXPECT_EQ(Content("good"), "good content");
        EXPECT_EQ(Content("bad"), "old");
        EXPECT_EQ(Tree(m_root).size(), 2u);
        ASSERT_EQ(m_log->Lines().size(), 1u);
        EXPECT_NE(m_log->Lines()[0].text.find("entry \"bad\": "), std::string::npos) << m_log->Lines()[0].text;
        EXPECT_NE(m_log->Lines()[0].text.find(broken.reason), std::string::npos) << m_log->Lines()[0].text;
    }
}

TEST_F(Unzipping, RareButValidArchivesAreWritten)
{
    for (const ValidArchive& valid : ValidArchives()) {
        SCOPED_TRACE(valid.story);
        fs::remove_all(m_root);
        fs::create_directory(m_root);
        WriteFile(m_archive, valid.bytes);
        ASSERT_TRUE(Run()) << m_log->Text();
        for (const auto& [name, content] : valid.files) {
            if (name.back() == '/')
                EXPECT_TRUE(fs::is_directory(m_root + "/" + name));
            else
                EXPECT_EQ(Content(name), content);
        }
        EXPECT_FALSE(HasTemporaries(m_root));
    }
}

TEST_F(Unzipping, SymbolicLinkOnTheWayIsNeitherWrittenThroughNorShownForRemoval)
{
    fs::create_directory(m_folder / "outside");
    WriteFile(m_folder / "outside/a.lua", "precious");
    fs::create_directory_symlink("../outside", m_root + "/lib");
    ZipBuilder builder;
    builder.Add("lib/a.lua", "new");
    builder.Add("later", "x");
    EXPECT_FALSE(Run(builder));
    EXPECT_TRUE(m_seen.empty());
    ASSERT_EQ(m_log->Lines().size(), 1u);
    EXPECT_NE(m_log->Lines()[0].text.find("entry \"lib/a.lua\": \"lib\" is on its way and is a symbolic link"),
              std::string::npos)
        << m_log->Lines()[0].text;
    EXPECT_FALSE(Remove());
    EXPECT_TRUE(m_seen.empty());
    EXPECT_EQ(Tree(m_folder / "outside").size(), 1u);
    EXPECT_EQ(ReadFile(m_folder / "outside/a.lua"), "precious");
}

TEST_F(Unzipping, SymbolicLinkDeepOnTheWayOrInsideTheFolderIsRefusedToo)
{
    fs::create_directories(m_root + "/a/real");
    fs::create_directory_symlink("real", m_root + "/a/b");
    for (const char* name : {"a/b/c/d", "a/b/", "a/b/x"}) {
        ZipBuilder builder;
        builder.Add(name, "", 0, name[std::strlen(name) - 1] == '/' ? 0040755 : 0100644);
        EXPECT_FALSE(Run(builder)) << name;
        EXPECT_FALSE(Remove()) << name;
        EXPECT_TRUE(m_seen.empty());
    }
    EXPECT_TRUE(fs::is_empty(m_root + "/a/real"));
}

TEST_F(Unzipping, WhatIsNoRegularFileInAFilesPlaceIsLeftAlone)
{
    WriteFile(m_folder / "target", "precious");
    const std::string place = m_root + "/place";
    const std::vector<std::function<void()>> makers = {
        [&] { fs::create_symlink("../target", place); },
        [&] { fs::create_symlink("nowhere", place); },
        [&] { fs::create_directory(place); },
        [&] { ASSERT_EQ(::mkfifo(place.c_str(), 0600), 0); },
    };
    ZipBuilder builder;
    builder.Add("place", "new");
    for (const auto& make : makers) {
        make();
        const auto before = Tree(m_root);
        EXPECT_FALSE(Run(builder));
        EXPECT_FALSE(Remove());
        EXPECT_TRUE(m_seen.empty());
        EXPECT_EQ(Tree(m_root), before);
        fs::remove(place);
    }
    EXPECT_EQ(ReadFile(m_folder / "target"), "precious");
}

TEST_F(Unzipping, FileInTheWayOfAFolderIsRefused)
{
    WriteFile(m_root + "/lib", "a file");
    EXPECT_FALSE(Run(PlainPackage()));
    EXPECT_TRUE(m_seen.empty());
    EXPECT_EQ(Content("lib"), "a file");
}

TEST_F(Unzipping, DestinationMayBeReachedThroughASymbolicLinkOfTheOperator)
{
    fs::create_directory_symlink("root", m_folder / "way");
    const std::string root = m_root;
    m_root = m_folder / "way";
    EXPECT_TRUE(Run(PlainPackage()));
    ASSERT_GE(m_seen.size(), 2u);
    EXPECT_EQ(m_seen[1].destination, m_root + "/lib/a.lua");
    EXPECT_TRUE(fs::exists(root + "/lib/a.lua"));
}

TEST_F(Unzipping, DestinationThatIsMissingOrNoFolderIsAnError)
{
    m_root += "/none";
    EXPECT_FALSE(Run(PlainPackage()));
    ASSERT_EQ(m_log->Lines().size(), 1u);
    EXPECT_NE(m_log->Lines()[0].text.find("cannot open the destination"), std::string::npos);
    WriteFile(m_root, "x");
    EXPECT_FALSE(Run(PlainPackage()));
    EXPECT_NE(m_log->Text().find("is no folder"), std::string::npos);
}

TEST_F(Unzipping, DestinationMayBeNamedWithoutALastSlashOrFromTheCurrentFolder)
{
    WriteFile(m_archive, PlainPackage().Build());
    const auto yes = [](void*, const wxZipEntry*, const wxString*) { return true; };
    EXPECT_TRUE(Unzip(wxFileName(wxString::FromUTF8(m_archive)), wxFileName(wxString::FromUTF8(m_root)), yes, nullptr));
    EXPECT_TRUE(fs::exists(m_root + "/bin/tool"));
    const CurrentFolder current(m_folder.Path());
    fs::create_directory("second");
    EXPECT_TRUE(Unzip(wxFileName("x.vxp"), wxFileName::DirName("second"), yes, nullptr));
    EXPECT_TRUE(fs::exists(m_folder / "second/bin/tool"));
}

TEST_F(Unzipping, RemovalIsShownEveryEntryAndTakesFilesButNoFolder)
{
    ASSERT_TRUE(Run(PlainPackage()));
    WriteFile(m_root + "/lib/foreign", "x");
    ASSERT_TRUE(Remove());
    EXPECT_EQ(m_seen.size(), 4u);
    EXPECT_TRUE(fs::is_directory(m_root + "/lib"));
    EXPECT_TRUE(fs::is_directory(m_root + "/bin"));
    EXPECT_EQ(Tree(m_root).size(), 3u);
    EXPECT_TRUE(m_log->Lines().empty());
}

TEST_F(Unzipping, FolderThatAnotherExchangesBeforeTheRemovalCostsNobodyElseAFile)
{
    if (!fs::exists("/proc/self/fd"))
        GTEST_SKIP() << "no paths through a descriptor here";
    WriteFile(m_archive, PlainPackage().Build());
    ASSERT_TRUE(Run());
    fs::create_directory(m_folder / "victim");
    WriteFile(m_folder / "victim/a.lua", "of somebody else");
    fs::permissions(m_root, fs::perms(0777));
    const auto remove = [&] {
        return Run([&](const Seen& seen) {
            if (seen.name == "lib/a.lua") { // all is checked, and then
                fs::rename(m_root + "/lib", m_root + "/moved");
                fs::create_directory_symlink(m_folder / "victim", m_root + "/lib");
            }
            ::unlink(seen.destination.c_str());
            return false;
        });
    };
    // In a child, because a process warns once of such a folder.
    EXPECT_TRUE(RunChild([&] { return remove() ? 1 : 0; }, true).Exited(0)) << "the exchange is noticed";
    EXPECT_EQ(ReadFile(m_folder / "victim/a.lua"), "of somebody else");
    EXPECT_FALSE(fs::exists(m_root + "/moved/a.lua")) << "what was meant is gone";
}

TEST_F(Unzipping, FolderThatOthersCanWriteIsTakenAndToldOnceAStart)
{
    struct
    {
        const char* folder;
        fs::perms mode;
        bool told;
    } const rows[] = {{"", fs::perms(0777), true},   {"", fs::perms(0775), false},  {"lib", fs::perms(0757), true},
                      {"..", fs::perms(0777), true}, {"", fs::perms(01777), false}, {"lib", fs::perms(0755), false}};
    WriteFile(m_archive, PlainPackage().Build());
    ASSERT_TRUE(Run());
    for (const auto& row : rows) {
        const std::string folder = fs::weakly_canonical(m_root + "/" + row.folder).string();
        const fs::perms before = fs::status(folder).permissions();
        fs::permissions(folder, row.mode);
        const auto warnings = [&] {
            std::size_t count = 0;
            for (int start = 0; start < 2; ++start) {
                if (!Run())
                    return 100;
                for (const auto& line : m_log->Lines())
                    count +=
                        line.text.find("Others than root and this user can write in \"" + folder) != std::string::npos;
            }
            return static_cast<int>(count);
        };
        EXPECT_TRUE(RunChild(warnings, true).Exited(row.told ? 1 : 0)) << folder << ' ' << static_cast<int>(row.mode);
        fs::permissions(folder, before);
    }
}

TEST_F(Unzipping, FolderThatAnotherGroupCanWriteIsTold)
{
    WriteFile(m_archive, PlainPackage().Build());
    ASSERT_TRUE(Run());
    fs::permissions(m_root, fs::perms(0775));
    if (::chown(m_root.c_str(), static_cast<uid_t>(-1), ::Test::otherUser) != 0)
        GTEST_SKIP() << "NO SECOND GROUP here";
    const auto tells = [this] {
        return Run() && m_log->Text().find("Others than root and this user can write in") != std::string::npos ? 0 : 1;
    };
    EXPECT_TRUE(RunChild(tells, true).Exited(0));
}

TEST_F(Unzipping, FolderOfAnOrdinaryUserIsHisOwn)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "runs as root only; otherwise every test shows it";
    WriteFile(m_archive, PlainPackage().Build());
    for (const std::string& folder : {m_folder.Path(), m_root})
        ASSERT_EQ(::chown(folder.c_str(), OtherUser::id, OtherUser::id), 0);
    const auto tellsNothing = [this] {
        const OtherUser user(OtherUser::Ids::Effective);
        return Run() && m_log->Lines().empty() ? 0 : 1;
    };
    EXPECT_EQ(InChild(tellsNothing), 0);
}

TEST_F(Unzipping, DestinationLeadsToTheFileInEveryCharacterSetOfTheSystem)
{
    ZipBuilder builder;
    for (const char* name : {"plain", "Gr\xc3\xbc\xc3\x9f\x65", "lib/\xe6\x97\xa5\xe6\x9c\xac.txt"})
        builder.Add(name, "x");
    const ::Test::Restored restored(wxConvFileName);
    for (wxMBConv* const set : {static_cast<wxMBConv*>(&wxConvUTF8), static_cast<wxMBConv*>(&wxConvISO8859_1)}) {
        wxConvFileName = set;
        EXPECT_TRUE(Run(builder));
        ASSERT_GE(m_seen.size(), 2u);
        EXPECT_EQ(m_seen[1].name, "Gr\xc3\xbc\xc3\x9f\x65") << "what is shown is the text";
        EXPECT_TRUE(fs::exists(m_root + "/Gr\xc3\xbc\xc3\x9f\x65"));
        EXPECT_TRUE(fs::exists(m_root + "/lib/\xe6\x97\xa5\xe6\x9c\xac.txt"));
        const auto remove = [](void*, const wxZipEntry*, const wxString* destination) {
            EXPECT_TRUE(wxRemoveFile(*destination)) << destination->utf8_str();
            return false;
        };
        EXPECT_TRUE(Unzip(wxFileName(wxString::FromUTF8(m_archive)), wxFileName::DirName(wxString::FromUTF8(m_root)),
                          remove, nullptr));
        EXPECT_EQ(Tree(m_root).size(), 1u) << "the folder stays";
    }
}

TEST_F(Unzipping, RemovalOfWhatIsGoneAlreadyIsFineAndMakesNoFolder)
{
    WriteFile(m_archive, PlainPackage().Build());
    EXPECT_TRUE(Remove());
    EXPECT_EQ(m_seen.size(), 4u);
    EXPECT_TRUE(Tree(m_root).empty());
}

TEST_F(Unzipping, ExceptionOfTheCallbackPassesThroughAndLeavesNoTemporaryFile)
{
    WriteFile(m_archive, PlainPackage().Build());
    EXPECT_THROW(Run([](const Seen& seen) -> bool {
                     if (seen.name == "bin/tool")
                         throw std::runtime_error("enough");
                     return true;
                 }),
                 std::runtime_error);
    EXPECT_FALSE(HasTemporaries(m_root));
    EXPECT_EQ(Content("lib/b.lua"), "return 2\n");
    EXPECT_FALSE(fs::exists(m_root + "/bin"));
}

TEST_F(Unzipping, ManyFoldersAndFilesGoThroughAllLimitsOfGroupsAndOpenFolders)
{
    ZipBuilder builder;
    for (int i = 0; i < 300; ++i)
        builder.Add("d" + std::to_string(i % 40) + "/e" + std::to_string(i % 7) + "/f" + std::to_string(i),
                    std::string(static_cast<std::size_t>(i) * 40, static_cast<char>('a' + i % 26)), i % 2 ? 8 : 0);
    ASSERT_TRUE(Run(builder));
    for (int i = 0; i < 300; ++i)
        EXPECT_EQ(Content("d" + std::to_string(i % 40) + "/e" + std::to_string(i % 7) + "/f" + std::to_string(i)),
                  std::string(static_cast<std::size_t>(i) * 40, static_cast<char>('a' + i % 26)));
    EXPECT_FALSE(HasTemporaries(m_root));
    ASSERT_TRUE(Remove());
    EXPECT_EQ(m_seen.size(), 300u);
}

// --- every call of the system

namespace {
// What the doorway's observer does; only one test uses it at a time.
struct Plan
{
    int count = 0;
    int failFrom = 0; // 0: never
    int failTo = 0;
    std::string failName; // every call of this name
    int error = 0;
    int exitAt = 0; // 0: never
    std::vector<std::string> names;
    std::function<void(const os::Call&)> look;
};
Plan g_plan;

int Observe(const os::Call& call)
{
    ++g_plan.count;
    g_plan.names.push_back(call.name);
    if (g_plan.look)
        g_plan.look(call);
    if (g_plan.count == g_plan.exitAt)
        ::_exit(99);
    if (g_plan.failName == call.name)
        return g_plan.error;
    return g_plan.failFrom != 0 && g_plan.count >= g_plan.failFrom && g_plan.count <= g_plan.failTo ? g_plan.error : 0;
}

class Observed
{
public:
    explicit Observed(Plan plan)
    {
        g_plan = std::move(plan);
        os::SetCallObserver(Observe);
    }
    ~Observed() { os::SetCallObserver(nullptr); }
};

class UnzippingUnderFaults : public Unzipping
{
protected:
    static ZipBuilder Package()
    {
        ZipBuilder builder = PlainPackage();
        for (int i = 0; i < 6; ++i)
            builder.Add("new/deep/f" + std::to_string(i), std::string(3000, static_cast<char>('a' + i)));
        return builder;
    }

    // So few that each is flushed for itself, and so many that they are flushed together, where that can be done; and
    // how many wait for a flush at most.
#ifdef VEX_SMALL_LIMITS
    static constexpr int fewFiles = 5;
    static constexpr int maxWaitingFiles = 8;
#else
    static constexpr int fewFiles = 16;
    static constexpr int maxWaitingFiles = 1024;
#endif
    static constexpr int manyFiles = 20;
    static ZipBuilder ManyFiles(int files = manyFiles)
    {
        ZipBuilder builder;
        for (int i = 0; i < files; ++i)
            builder.Add("d/" + std::to_string(i), "text of it");
        return builder;
    }

    // Not on every system, nor before Linux 5.8.
    bool FileSystemsCanBeFlushed() const
    {
        const os::Descriptor folder(::open(m_folder.Path().c_str(), O_RDONLY));
        const bool flushed = os::SyncFileSystem(folder.Get()) == 0;
        EXPECT_TRUE(flushed || os::LastError() == ENOTSUP || os::LastError() == ENOSYS) << os::LastError();
        return flushed;
    }

    // A destination in which some of the package's files stand in an old version.
    void MakeOld()
    {
        fs::remove_all(m_root);
        fs::create_directories(m_root + "/lib");
        fs::create_directories(m_root + "/bin");
        for (const char* name : {"lib/a.lua", "lib/b.lua", "bin/tool"})
            WriteFile(m_root + "/" + name, "old");
    }

    std::map<std::string, std::string> New()
    {
        std::map<std::string, std::string> files;
        for (const ZipItem& item : Package().items)
            if (item.local.name.back() != '/')
                files[item.local.name] = item.local.name.rfind("new/", 0) == 0
                                             ? std::string(3000, static_cast<char>('a' + item.local.name.back() - '0'))
                                         : item.local.name == "bin/tool"  ? "#!/bin/sh\necho tool\n"
                                         : item.local.name == "lib/a.lua" ? "return 1\n"
                                                                          : "return 2\n";
        return files;
    }

    void ExpectEachFileOldOrNew()
    {
        for (const auto& [name, content] : New()) {
            const bool was = name.rfind("new/", 0) != 0;
            if (!fs::exists(m_root + "/" + name)) {
                EXPECT_FALSE(was) << name;
                continue;
            }
            const std::string found = Content(name);
            EXPECT_TRUE(found == content || (was && found == "old")) << name << " holds: " << found.substr(0, 40);
        }
    }

    void ExpectAllNew()
    {
        for (const auto& [name, content] : New())
            EXPECT_EQ(Content(name), content) << name;
    }
};

// The text with a star for each part in quotes.
std::string WithoutNames(const std::string& text)
{
    std::string result;
    bool quoted = false;
    for (const char c : text) {
        if (c == '"') {
            quoted = !quoted;
            result += quoted ? "*" : "";
        } else if (!quoted)
            result += c;
    }
    return result;
}

} // namespace

TEST_F(UnzippingUnderFaults, EachFailingCallMakesItFalseWithOneLineAndLeavesOldOrNewFilesAndNoTemporaryFile)
{
    WriteFile(m_archive, Package().Build());
    std::set<std::string> said; // without names
    for (const int error : {EIO, ENOSPC, EACCES}) {
        int n = 1;
        for (bool reached = true; reached; ++n) {
            SCOPED_TRACE("call " + std::to_string(n) + " with errno " + std::to_string(error));
            MakeOld();
            Plan plan;
            plan.failFrom = plan.failTo = n;
            plan.error = error;
            const Observed observed(plan);
            const bool done = Run();
            reached = g_plan.count >= n;
            EXPECT_EQ(done, !reached) << (reached ? g_plan.names[static_cast<std::size_t>(n) - 1] : "");
            EXPECT_EQ(m_log->Lines().size(), reached ? 1u : 0u);
            if (reached && error == EIO)
                said.insert(WithoutNames(m_log->Text()));
            ExpectEachFileOldOrNew();
            EXPECT_FALSE(HasTemporaries(m_root));
        }
        ExpectAllNew();
        EXPECT_GT(n, 80) << "the sweep saw too few calls to mean anything";
    }
    // Of a few files each is flushed for itself, of many their file system, where that can be done.
    for (const ZipBuilder& archive : {PlainPackage(), ManyFiles()}) {
        WriteFile(m_archive, archive.Build());
        int call = 0;
        do {
            MakeOld();
            Plan plan;
            plan.failFrom = plan.failTo = ++call;
            plan.error = EIO;
            const Observed observed(plan);
            const bool done = Run();
            EXPECT_EQ(done, g_plan.count < call);
            said.insert(WithoutNames(m_log->Text()));
        } while (g_plan.count >= call);
    }
    if (FileSystemsCanBeFlushed()) {
        EXPECT_EQ(said.count("Cannot process the archive *: cannot flush the file system of *: Input/output error\n"),
                  1u);
    }
    for (const char* what :
         {"cannot be opened", "cannot be read", "cannot flush the folder *", "cannot look at the folder *",
          "cannot look for files of an earlier run", "cannot open the destination *",
          "cannot remove the list of temporary files", "entry *: cannot be read", "entry *: cannot flush it",
          "entry *: cannot give it its name", "entry *: cannot look at its destination",
          "entry *: cannot look at the folder *", "entry *: cannot make a list of temporary files",
          "entry *: cannot make a temporary file", "entry *: cannot make the folder *",
          "entry *: cannot open its temporary file", "entry *: cannot open the folder *",
          "entry *: cannot set its mode", "entry *: cannot write"})
        EXPECT_EQ(said.count("Cannot process the archive *: " + std::string(what) + ": Input/output error\n"), 1u)
            << what;
}

TEST_F(UnzippingUnderFaults, ListWhoseLockASweepTookFirstIsGivenUpForAnother)
{
    WriteFile(m_archive, Package().Build());
    int locks = 0;
    Plan plan;
    plan.error = EAGAIN;
    plan.look = [&](const os::Call& call) {
        const bool first = std::string(call.name) == "fcntl" && ++locks == 1;
        g_plan.failName = first ? "fcntl" : "";
    };
    const Observed observed(plan);
    EXPECT_TRUE(Run());
    EXPECT_EQ(locks, 2);
    ExpectAllNew();
    EXPECT_FALSE(HasTemporaries(m_root));
    EXPECT_TRUE(m_log->Lines().empty());
}

TEST_F(UnzippingUnderFaults, SystemWithoutAFlushOfFileSystemsFlushesEachFile)
{
    WriteFile(m_archive, Package().Build());
    MakeOld();
    Plan plan;
    plan.failName = "syncfs";
    plan.error = ENOTSUP;
    const Observed observed(plan);
    EXPECT_TRUE(Run());
    EXPECT_GT(std::count(g_plan.names.begin(), g_plan.names.end(), "fsync"), 9);
    ExpectAllNew();
}

// With many files one flush of their file system would do, where there is one.
TEST_F(UnzippingUnderFaults, SystemWithoutAFlushOfFileSystemsFlushesEachOfManyFiles)
{
    WriteFile(m_archive, ManyFiles().Build());
    MakeOld();
    Plan plan;
    plan.failName = "syncfs";
    plan.error = ENOTSUP;
    const Observed observed(plan);
    EXPECT_TRUE(Run());
    EXPECT_GE(std::count(g_plan.names.begin(), g_plan.names.end(), "fsync"), manyFiles);
}

TEST_F(UnzippingUnderFaults, ALongListOfAnEarlierRunIsReadToItsEnd)
{
    WriteFile(m_archive, Package().Build());
    MakeOld();
    std::string list = "first\n";
    for (int i = 0; i < 3000; ++i)
        list += "gone" + std::to_string(i) + "\n";
    WriteFile(m_root + "/.vex-unzip-1.list", list + "lib\n");
    WriteFile(m_root + "/lib/.vex-unzip-1-0", "left");
    ASSERT_TRUE(Run());
    EXPECT_FALSE(HasTemporaries(m_root));
    ExpectAllNew();
}

TEST_F(UnzippingUnderFaults, StorageThatFailsFromACallOnLeavesOldOrNewFilesAndTheNextRunCompletes)
{
    WriteFile(m_archive, Package().Build());
    int n = 1;
    for (bool reached = true; reached; ++n) {
        SCOPED_TRACE("from call " + std::to_string(n));
        MakeOld();
        {
            Plan plan;
            plan.failFrom = n;
            plan.failTo = 1 << 30;
            plan.error = EIO;
            const Observed observed(plan);
            const bool done = Run();
            reached = g_plan.count >= n;
            EXPECT_EQ(done, !reached);
        }
        ExpectEachFileOldOrNew();
        ASSERT_TRUE(Run());
        ExpectAllNew();
        EXPECT_FALSE(HasTemporaries(m_root));
    }
}

TEST_F(UnzippingUnderFaults, EachFailingCallOfARemovalMakesItFalseAndTheNextRunCompletes)
{
    WriteFile(m_archive, Package().Build());
    int n = 1;
    for (bool reached = true; reached; ++n) {
        SCOPED_TRACE("call " + std::to_string(n));
        MakeOld();
        {
            Plan plan;
            plan.failFrom = plan.failTo = n;
            plan.error = EIO;
            const Observed observed(plan);
            const bool done = Remove();
            reached = g_plan.count >= n;
            EXPECT_EQ(done, !reached);
        }
        ASSERT_TRUE(Remove());
        EXPECT_FALSE(fs::exists(m_root + "/bin/tool"));
    }
    EXPECT_GT(n, 15);
}

TEST_F(UnzippingUnderFaults, ProcessThatEndsAtAnyCallLeavesOldOrNewFilesAndTheNextRunCompletesAndSweeps)
{
    WriteFile(m_archive, Package().Build());
    int sweeps = 0;
    for (int n = 1;; ++n) {
        SCOPED_TRACE("call " + std::to_string(n));
        MakeOld();
        const int code = InChild([&] {
            Plan plan;
            plan.exitAt = n;
            const Observed observed(plan);
            return Run() ? 0 : 1;
        });
        ExpectEachFileOldOrNew();
        if (code == 0) {
            EXPECT_GT(n, 80);
            break;
        }
        ASSERT_EQ(code, 99);
        sweeps += HasTemporaries(m_root);
        ASSERT_TRUE(Run());
        ExpectAllNew();
        EXPECT_FALSE(HasTemporaries(m_root));
    }
    EXPECT_GT(sweeps, 40) << "no temporary file was ever left: the sweep was not tested";
}

TEST_F(UnzippingUnderFaults, RunWithAnotherArchiveOrARemovalSweepsToo)
{
    WriteFile(m_archive, Package().Build());
    for (const bool removal : {false, true}) {
        MakeOld();
        const int code = InChild([&] {
            Plan plan;
            plan.look = [](const os::Call& call) {
                if (std::strcmp(call.name, "renameat") == 0)
                    ::_exit(99);
            };
            const Observed observed(plan);
            return Run() ? 0 : 1;
        });
        ASSERT_EQ(code, 99);
        ASSERT_TRUE(HasTemporaries(m_root + "/lib"));
        WriteFile(m_folder / "other.zip", ZipBuilder().Build());
        const std::string archive = m_archive;
        m_archive = m_folder / "other.zip";
        EXPECT_TRUE(removal ? Remove() : Run());
        m_archive = archive;
        EXPECT_FALSE(HasTemporaries(m_root));
    }
}

TEST_F(UnzippingUnderFaults, TemporaryFilesOfALiveRunAreNotSwept)
{
    WriteFile(m_archive, Package().Build());
    WriteFile(m_folder / "other.zip", ZipBuilder().Build());
    // Inside the process: a callback of one run makes another run. Across processes: the same, in a child.
    for (const bool fork : {false, true}) {
        MakeOld();
        EXPECT_TRUE(Run([&](const Seen& seen) {
            if (seen.name == "lib/b.lua") {
                const auto runAnother = [this] {
                    const auto yes = [](void*, const wxZipEntry*, const wxString*) { return true; };
                    return Unzip(wxFileName(wxString::FromUTF8(m_folder / "other.zip")),
                                 wxFileName::DirName(wxString::FromUTF8(m_root)), yes, nullptr)
                               ? 0
                               : 1;
                };
                EXPECT_EQ(fork ? InChild(runAnother) : runAnother(), 0);
                EXPECT_TRUE(HasTemporaries(m_root));
            }
            return true;
        }));
        ExpectAllNew();
        EXPECT_FALSE(HasTemporaries(m_root));
    }
}

TEST_F(UnzippingUnderFaults, ListThatIsNotOursDoesNotLeadTheSweepAnywhere)
{
    WriteFile(m_archive, Package().Build());
    MakeOld();
    fs::create_directory(m_folder / "outside");
    WriteFile(m_folder / "outside/.vex-unzip-1-0", "precious");
    fs::create_directory_symlink("../outside", m_root + "/way");
    WriteFile(m_root + "/.vex-unzip-1.list", "first\n../outside\n/\n" + (m_folder / "outside") + "\nway\n");
    fs::create_symlink("../outside/.vex-unzip-1-0", m_root + "/.vex-unzip-2.list");
    fs::create_directory(m_root + "/.vex-unzip-3.list");
    ASSERT_TRUE(Run());
    EXPECT_EQ(ReadFile(m_folder / "outside/.vex-unzip-1-0"), "precious");
    EXPECT_FALSE(fs::exists(m_root + "/.vex-unzip-1.list"));
    ExpectAllNew();
}

TEST_F(UnzippingUnderFaults, FileIsFlushedBeforeItIsRenamedAndItsFolderBeforeTheEnd)
{
    const bool many = FileSystemsCanBeFlushed();
    for (const auto& [archive, files] : {std::pair(Package(), 9), std::pair(ManyFiles(), manyFiles)}) {
        WriteFile(m_archive, archive.Build());
        MakeOld();
        std::set<ino_t> flushed; // files and folders, unless they changed since
        std::set<ino_t> changedFolders;
        int renames = 0;
        int syncs = 0;
        const auto inodeOf = [](int folder, const char* name) {
            struct stat status = {};
            const int result = name ? ::fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) : ::fstat(folder, &status);
            return result == 0 ? status.st_ino : ino_t(0);
        };
        Plan plan;
        plan.look = [&](const os::Call& call) {
            const std::string name = call.name;
            if (name == "fsync") {
                flushed.insert(inodeOf(call.descriptor, nullptr));
                changedFolders.erase(inodeOf(call.descriptor, nullptr));
            } else if (name == "syncfs" && many) {
                ++syncs;
                for (const auto& item : fs::recursive_directory_iterator(m_root))
                    flushed.insert(inodeOf(AT_FDCWD, item.path().c_str()));
                changedFolders.clear();
            } else if (name == "write" || name == "fchmod") {
                flushed.erase(inodeOf(call.descriptor, nullptr));
            } else if (name == "renameat") {
                ++renames;
                EXPECT_TRUE(flushed.count(inodeOf(call.descriptor, call.path))) << call.newPath;
                changedFolders.insert(inodeOf(call.descriptor, nullptr));
            } else if (name == "mkdirat" || name == "unlinkat") {
                changedFolders.insert(inodeOf(call.descriptor, nullptr));
            }
        };
        {
            const Observed observed(plan);
            ASSERT_TRUE(Run());
        }
        EXPECT_EQ(renames, files);
        EXPECT_TRUE(changedFolders.empty());
        if (files == manyFiles && many) {
            EXPECT_GT(syncs, 0) << "flushing in groups was not tested";
        }
    }
}

// Each flush makes the file system write its journal: that is nearly all that a small package waits for.
TEST_F(UnzippingUnderFaults, SmallPackageIsFlushedNoMoreOftenThanItsOrderNeeds)
{
    const bool manyAtOnce = FileSystemsCanBeFlushed();
    for (const int files : {2, fewFiles, manyFiles}) {
        WriteFile(m_archive, ManyFiles(files).Build());
        fs::remove_all(m_root);
        fs::create_directory(m_root);
        std::vector<std::string> calls;
        Plan plan;
        plan.look = [&](const os::Call& call) {
            const std::string name = call.name;
            if ((name == "syncfs" && manyAtOnce) || name == "fsync" || name == "unlinkat"
                || (name == "renameat" && calls.back() != name))
                calls.push_back(name);
        };
        {
            const Observed observed(plan);
            ASSERT_TRUE(Run());
        }
        std::vector<std::string> wanted = {"fsync", "fsync"}; // the list and its name
        if (files == manyFiles && manyAtOnce)
            wanted.push_back("syncfs");
        else
            wanted.insert(wanted.end(), static_cast<std::size_t>(files), "fsync"); // the data
        wanted.insert(wanted.end(), {"renameat", "fsync"}); // the folder
        wanted.insert(wanted.end(), {"unlinkat", "fsync"}); // the list's name, and that of the folder, which was made
#ifndef VEX_SMALL_LIMITS
        EXPECT_EQ(calls, wanted);
#else
        EXPECT_GE(calls.size(), wanted.size()) << "which goes in groups of eight";
#endif
    }
}

// The list stays where a temporary file may have stayed; nothing more is flushed then.
TEST_F(UnzippingUnderFaults, WhatWaitedForALaterFlushIsFlushedAlsoAfterAFailure)
{
    ZipBuilder builder;
    for (const char* name : {"d/a", "e/b"}) // the second folder is made when the list has been flushed
        builder.Add(name, "text of it");
    WriteFile(m_archive, builder.Build());
    bool renamed = false;
    bool failed = false;
    std::vector<std::string> flushedThen; // up to the removal of the list
    bool removed = false;
    const ::Test::CallWatch watch([&](const os::Call& call) {
        const std::string name = call.name;
        renamed = renamed || name == "renameat";
        removed = removed || name == "unlinkat";
        if (!renamed || removed || name != "fsync")
            return 0;
        if (!std::exchange(failed, true))
            return EIO;
        flushedThen.push_back(fs::read_symlink("/proc/self/fd/" + std::to_string(call.descriptor)));
        return 0;
    });
    EXPECT_FALSE(Run());
    EXPECT_EQ(flushedThen.empty() ? "" : flushedThen.back(), fs::canonical(m_root)) << "behind what lies in it";
}

TEST_F(UnzippingUnderFaults, ListGoesWhenNoTemporaryNameCanComeBack)
{
    ZipBuilder builder;
    for (const char* name : {"d/a", "d/e/b", "f"})
        builder.Add(name, "text of it");
    const bool manyAtOnce = FileSystemsCanBeFlushed();
    ZipBuilder below;
    for (const char* name : {"d/a", "d/e/b"})
        below.Add(name, "text of it");
    for (const ZipBuilder& archive : {builder, below}) {
        WriteFile(m_archive, archive.Build());
        std::set<std::string> renamed; // folders whose names may be the former ones after a power failure
        bool removed = false;
        Plan plan;
        plan.look = [&](const os::Call& call) {
            const std::string name = call.name;
            const auto folder = [&] { return fs::read_symlink("/proc/self/fd/" + std::to_string(call.descriptor)); };
            if (name == "renameat")
                renamed.insert(folder());
            else if (name == "fsync")
                renamed.erase(folder());
            else if (name == "syncfs" && manyAtOnce)
                renamed.clear();
            else if (name == "unlinkat") {
                removed = true;
                EXPECT_TRUE(renamed.empty()) << *renamed.begin();
            }
        };
        const Observed observed(plan);
        ASSERT_TRUE(Run());
        EXPECT_TRUE(removed);
    }
}

namespace {
bool IsTemporaryFile(const char* name)
{
    const std::string text = name ? name : "";
    return text.rfind(".vex-unzip-", 0) == 0 && text.find(".list") == std::string::npos;
}

} // namespace

TEST_F(UnzippingUnderFaults, TemporaryFilesLieBesideTheirFilesAndAreTheOwnersAloneUntilTheyAreWhole)
{
    WriteFile(m_archive, Package().Build());
    MakeOld();
    int written = 0;
    int renames = 0;
    Plan plan;
    plan.look = [&](const os::Call& call) {
        struct stat status = {};
        const std::string name = call.name;
        if (name == "write" && ::fstat(call.descriptor, &status) == 0) {
            ++written;
            EXPECT_EQ(status.st_mode & 07777u, 0600u);
        } else if (name == "renameat") {
            ++renames;
            EXPECT_TRUE(IsTemporaryFile(call.path)) << call.path;
            EXPECT_EQ(std::string(call.newPath).find('/'), std::string::npos) << call.newPath;
            ASSERT_EQ(::fstatat(call.descriptor, call.path, &status, AT_SYMLINK_NOFOLLOW), 0);
            EXPECT_EQ(status.st_mode & 07777u, std::string(call.newPath) == "tool" ? 0755u : 0644u)
                << "the mode comes first";
        }
    };
    const FileModeMask open(0);
    const Observed observed(plan);
    EXPECT_TRUE(Run());
    EXPECT_EQ(written, 10) << "nine files and the list of where they may be";
    EXPECT_EQ(renames, 9);
}

TEST_F(UnzippingUnderFaults, ListOfTemporaryFilesIsOnStableStorageBeforeTheFirstOfThem)
{
    WriteFile(m_archive, Package().Build());
    MakeOld();
    std::vector<std::string> calls; // up to the first temporary file
    bool over = false;
    Plan plan;
    plan.look = [&](const os::Call& call) {
        const std::string name = call.name;
        over = over || (name == "openat" && IsTemporaryFile(call.path));
        if (!over && (name == "write" || name == "fsync")) {
            const std::string file =
                fs::read_symlink("/proc/self/fd/" + std::to_string(call.descriptor)).filename().string();
            calls.push_back(name + " " + (file.rfind(".vex-unzip-", 0) == 0 ? "list" : file));
        }
    };
    const Observed observed(plan);
    EXPECT_TRUE(Run());
    EXPECT_TRUE(over);
    EXPECT_EQ(calls, (std::vector<std::string>{"write list", "fsync list", "fsync root"}));
}

// The first flush then finds the data of all on its way, and the journal is written once for what they have in common.
TEST_F(UnzippingUnderFaults, WritingOfAGroupIsStartedBeforeTheFirstOfItIsFlushed)
{
    WriteFile(m_archive, "");
    const bool startsAreSeen = [&] {
        const Observed observed(Plan{});
        const os::Descriptor file(::open(m_archive.c_str(), O_RDONLY));
        EXPECT_EQ(os::StartWriteback(file.Get()), 0);
        return !g_plan.names.empty();
    }();
    if (!startsAreSeen)
        GTEST_SKIP() << "no call here that starts it";
    for (const int files : {2, fewFiles, manyFiles}) {
        WriteFile(m_archive, ManyFiles(files).Build());
        fs::remove_all(m_root);
        fs::create_directory(m_root);
        std::vector<ino_t> started, flushed; // of one group
        int flushes = 0;
        Plan plan;
        plan.failName = "syncfs";
        plan.error = ENOTSUP;
        plan.look = [&](const os::Call& call) {
            const bool starts = std::strcmp(call.name, "sync_file_range") == 0;
            if (!starts && std::strcmp(call.name, "fsync") != 0)
                return;
            struct stat status = {};
            ASSERT_EQ(::fstat(call.descriptor, &status), 0);
            if (starts && flushed.size() == started.size()) { // the next group
                started.clear();
                flushed.clear();
            }
            if (starts) {
                EXPECT_TRUE(flushed.empty()) << "started behind a flush of its group";
                started.push_back(status.st_ino);
            } else if (std::count(started.begin(), started.end(), status.st_ino) != 0) {
                if (flushed.empty()) {
                    EXPECT_EQ(started.size(),
                              static_cast<std::size_t>(
                                  std::min({fewFiles, files - flushes, maxWaitingFiles - flushes % maxWaitingFiles})));
                }
                flushed.push_back(status.st_ino);
                ++flushes;
            }
        };
        {
            const Observed observed(plan);
            ASSERT_TRUE(Run());
        }
        EXPECT_EQ(started, flushed);
        EXPECT_EQ(flushes, files) << "each that was started is flushed";
    }
}

// Most of the time that many small files take is the system's.
TEST_F(UnzippingUnderFaults, SmallFileCostsAFewCalls)
{
    constexpr int files = 100;
    ZipBuilder builder;
    for (int i = 0; i < files; ++i)
        builder.Add("folder/f" + std::to_string(i), "text of it");
    WriteFile(m_archive, builder.Build());
    const Observed observed(Plan{});
    ASSERT_TRUE(Run());
    const auto callsOf = [](const char* name) { return std::count(g_plan.names.begin(), g_plan.names.end(), name); };
    EXPECT_LT(callsOf("fstatat"), files * 5 / 2) << "is the folder still the same, and what stands in the file's place";
    EXPECT_LT(callsOf("pread"), files / 2);
    EXPECT_EQ(callsOf("renameat"), files);
}

TEST_F(UnzippingUnderFaults, TemporaryFileIsNeverWhatAnotherPutUnderItsName)
{
    WriteFile(m_archive, Package().Build());
    const std::string outside = m_folder / "outside";
    const std::vector<std::function<void(int, const char*)>> makers = {
        [&](int folder, const char* name) { ASSERT_EQ(::symlinkat(outside.c_str(), folder, name), 0); },
        [&](int folder, const char* name) { ASSERT_EQ(::linkat(AT_FDCWD, outside.c_str(), folder, name, 0), 0); },
    };
    for (const auto& make : makers) {
        MakeOld();
        WriteFile(outside, "precious");
        Plan plan;
        plan.look = [&](const os::Call& call) {
            if (std::string(call.name) == "openat" && IsTemporaryFile(call.path))
                make(call.descriptor, call.path);
        };
        const Observed observed(plan);
        EXPECT_FALSE(Run());
        ASSERT_EQ(m_log->Lines().size(), 1u);
        EXPECT_NE(m_log->Lines()[0].text.find("cannot make a temporary file: File exists"), std::string::npos)
            << m_log->Lines()[0].text;
        EXPECT_EQ(ReadFile(outside), "precious");
        EXPECT_EQ(Content("lib/a.lua"), "old");
    }
}

TEST_F(UnzippingUnderFaults, FolderOfARemovedFileIsFlushedBeforeTheEnd)
{
    WriteFile(m_archive, Package().Build());
    MakeOld();
    std::set<std::string> flushed;
    Plan plan;
    plan.look = [&](const os::Call& call) {
        if (std::strcmp(call.name, "fsync") == 0)
            flushed.insert(fs::read_symlink("/proc/self/fd/" + std::to_string(call.descriptor)).filename().string());
    };
    const Observed observed(plan);
    ASSERT_TRUE(Remove());
    EXPECT_EQ(flushed, (std::set<std::string>{"lib", "bin"}));
}

TEST_F(UnzippingUnderFaults, FolderThatGainsAFolderIsFlushedBeforeTheEnd)
{
    MakeOld();
    ZipBuilder builder;
    builder.Add("lib/made/file", "x");
    std::set<std::string> flushed;
    Plan plan;
    plan.look = [&](const os::Call& call) {
        EXPECT_STRNE(call.name, "syncfs") << "flushes everything, so that this test shows nothing";
        if (std::strcmp(call.name, "fsync") == 0)
            flushed.insert(fs::read_symlink("/proc/self/fd/" + std::to_string(call.descriptor)).filename().string());
    };
    const Observed observed(plan);
    ASSERT_TRUE(Run(builder));
    for (const char* folder : {"lib", "made"})
        EXPECT_EQ(flushed.count(folder), 1u) << folder;
}

TEST_F(UnzippingUnderFaults, FolderThatBecomesALinkDuringARemovalIsNotShownAnyMore)
{
    WriteFile(m_archive, Package().Build());
    MakeOld();
    fs::create_directory(m_folder / "outside");
    WriteFile(m_folder / "outside/b.lua", "precious");
    EXPECT_FALSE(Run([&](const Seen& seen) {
        ::unlink(seen.destination.c_str());
        if (seen.name == "lib/a.lua") {
            fs::rename(m_root + "/lib", m_root + "/aside");
            fs::create_directory_symlink("../outside", m_root + "/lib");
        }
        return false;
    }));
    EXPECT_EQ(m_seen.size(), 2u) << "lib/ and lib/a.lua";
    ASSERT_EQ(m_log->Lines().size(), 1u);
    EXPECT_NE(m_log->Lines()[0].text.find("\"lib\" was replaced"), std::string::npos) << m_log->Lines()[0].text;
    EXPECT_EQ(ReadFile(m_folder / "outside/b.lua"), "precious");
    EXPECT_EQ(Content("aside/b.lua"), "old");
}

TEST_F(UnzippingUnderFaults, FolderSwappedForASymbolicLinkAThousandTimesLetsNothingOutside)
{
    WriteFile(m_archive, Package().Build());
    MakeOld();
    const std::string outside = m_folder / "outside";
    fs::create_directory(outside);
    const auto untouched = fs::last_write_time(outside); // a temporary file that came and went would show here
    std::atomic<bool> over{false};
    std::atomic<int> failures{0};
    ::Test::JoiningThread swapper([&] {
        // Where few runs come between, it goes on until one has met a swap.
        for (int i = 0; i < 1000 || (failures == 0 && i < 100000); ++i) {
            const std::string victim = m_root + (i % 2 ? "/new" : "/lib");
            const std::string aside = m_root + "/aside";
            if (::rename(victim.c_str(), aside.c_str()) != 0)
                continue;
            ::symlink(outside.c_str(), victim.c_str());
            ::usleep(useconds_t(i % 7) * 50);
            ::unlink(victim.c_str());
            ::rename(aside.c_str(), victim.c_str());
            ::usleep(useconds_t(i % 5) * 50);
        }
        over = true;
    });
    int runs = 0;
    while (!over) {
        ++runs;
        failures += !Run();
        EXPECT_TRUE(fs::is_empty(outside));
    }
    swapper.join();
    EXPECT_GT(failures, 0) << "no swap was ever met in " << runs << " runs";
    EXPECT_EQ(fs::last_write_time(outside), untouched);
    EXPECT_TRUE(fs::is_empty(outside));
}

TEST_F(UnzippingUnderFaults, FolderThatIsMovedAwayWhileFilesWaitIsNotWrittenInto)
{
    WriteFile(m_archive, Package().Build());
    for (const bool isReplaced : {true, false}) {
        MakeOld();
        const std::string moved = m_folder / (isReplaced ? "replaced" : "gone");
        EXPECT_FALSE(Run([&](const Seen& seen) {
            if (seen.name == "bin/tool") {
                fs::rename(m_root + "/lib", moved);
                if (isReplaced)
                    fs::create_directory(m_root + "/lib");
            }
            return true;
        }));
        EXPECT_EQ(m_log->Text(),
                  "Cannot process the archive \"" + m_archive + "\": the folder \"lib\" was replaced meanwhile\n");
        EXPECT_EQ(ReadFile(moved + "/a.lua"), "old");
        EXPECT_FALSE(HasTemporaries(moved));
        EXPECT_EQ(fs::exists(m_root + "/lib"), isReplaced);
        EXPECT_TRUE(!isReplaced || fs::is_empty(m_root + "/lib"));
    }
}

#ifndef VEX_TEST_SANITIZED
TEST_F(Unzipping, MemoryDoesNotGrowWithTheSizeOfAnEntry)
{
    // A gibibyte where there is room for it.
    const std::size_t pieces = fs::space(m_root).available > (std::uintmax_t(3) << 29) ? 1024 : 64;
    ZipBuilder builder;
    ZipItem& huge = builder.Add("deflated", "");
    const std::string piece(static_cast<std::size_t>(1) << 20, 'd');
    const std::string last = huge.packed; // an empty block, which ends the stream
    huge.packed.clear();
    const std::string packed = DeflatePiece(piece);
    for (std::size_t i = 0; i < pieces; ++i) {
        huge.packed += packed;
        huge.crc32 = static_cast<std::uint32_t>(
            ::crc32(huge.crc32, reinterpret_cast<const Bytef*>(piece.data()), uInt(piece.size())));
    }
    huge.packed += last;
    for (ZipRecord* const record : {&huge.local, &huge.central}) {
        record->size = static_cast<std::uint32_t>(piece.size() * pieces);
        record->packedSize = static_cast<std::uint32_t>(huge.packed.size());
        record->crc32 = huge.crc32;
    }
    builder.Add("stored", std::string(static_cast<std::size_t>(24) << 20, 's'), 0);
    WriteFile(m_archive, builder.Build());
    builder = ZipBuilder();
    const auto run = [this] {
        const auto peakKiB = [] {
            struct rusage usage = {};
            ::getrusage(RUSAGE_SELF, &usage);
            return usage.ru_maxrss;
        };
        const long before = peakKiB();
        const bool done = Run();
        return !done ? 1 : peakKiB() - before > 8 * 1024 ? 2 : 0;
    };
    // In a process of its own: the peak of this one has seen the archive being built.
    // A child begins with what is resident now.
    EXPECT_EQ(InChild(run), 0);
    EXPECT_EQ(fs::file_size(m_root + "/deflated"), piece.size() * pieces);
}
#endif

// --- limits

TEST_F(Unzipping, LimitsComeFromTheDomain)
{
    const DomPtr dom = NewRoot();
    ZipBuilder builder;
    builder.Add("a", std::string(600, 'a'));
    builder.Add("b", std::string(400, 'b'));
    EXPECT_TRUE(Run(builder));
    dom->SetWx("app.unzip.maxbytes", static_cast<std::int64_t>(999));
    EXPECT_FALSE(Run(builder));
    EXPECT_NE(m_log->Text().find("over 999 bytes"), std::string::npos) << m_log->Text();
    dom->Set("app.unzip.maxbytes", "1000");
    EXPECT_TRUE(Run(builder));
    dom->SetWx("app.unzip.maxentries", static_cast<std::int64_t>(1));
    EXPECT_FALSE(Run(builder));
    EXPECT_NE(m_log->Text().find("more than 1 entries"), std::string::npos) << m_log->Text();
    dom->SetWx("app.unzip.maxentries", static_cast<std::int64_t>(-1));
    EXPECT_TRUE(Run(builder)) << "a limit below 0 is no limit that anyone meant";
}

TEST_F(Unzipping, LimitsComeFromTheSettingsFileWhereTheDomainHasNone)
{
    const DomPtr dom = NewRoot();
    const std::string file = m_folder / "agent.ini";
    WriteFile(file, "[settings]\napp.unzip.maxbytes=5\napp.unzip.maxentries=1\n");
    dom->Set("app.path.ini", file);
    ZipBuilder builder;
    builder.Add("a", "123456");
    EXPECT_FALSE(Run(builder));
    EXPECT_NE(m_log->Text().find("over 5 bytes"), std::string::npos) << m_log->Text();
    dom->SetWx("app.unzip.maxbytes", static_cast<std::int64_t>(1000));
    EXPECT_TRUE(Run(builder));
    builder.Add("b", "x");
    EXPECT_FALSE(Run(builder));
    EXPECT_NE(m_log->Text().find("more than 1 entries"), std::string::npos) << m_log->Text();
}
