#include "vex/apps/vex/vex.h"
#include "vex/apps/vex/vex_p.h"

#include "support/launcher_test.h"
#include "support/our_version.h"
#include "support/process_guards.h"

#include <filesystem>
#include <fstream>

#include <sys/stat.h>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {
namespace fs = std::filesystem;

// --- splitting

Lines Split(const char* text, const char* delimiters)
{
    std::vector<wxString> pieces = {"kept"};
    Tokenize(pieces, wxString::FromUTF8(text), delimiters);
    Lines result;
    for (const wxString& piece : pieces)
        result.push_back(piece.utf8_string());
    return result;
}

TEST(Tokens, AreTheRunsBetweenDelimitersAndAreAppended)
{
    EXPECT_THAT(Split("", ";"), ElementsAre("kept"));
    EXPECT_THAT(Split(";;;", ";"), ElementsAre("kept"));
    EXPECT_THAT(Split("a.zip;;b.zip;", ";"), ElementsAre("kept", "a.zip", "b.zip"));
    EXPECT_THAT(Split(";a", ";"), ElementsAre("kept", "a"));
    EXPECT_THAT(Split(" a ; b", ";"), ElementsAre("kept", " a ", " b"));
    EXPECT_THAT(Split("a,b;c", ",;"), ElementsAre("kept", "a", "b", "c"));
    EXPECT_THAT(Split("a;b", ""), ElementsAre("kept", "a;b"));
    EXPECT_THAT(Split("\xC3\xA9;\xC3\xA8", ";"), ElementsAre("kept", "\xC3\xA9", "\xC3\xA8"));
}

// --- version files

class ExtensionVersion : public LauncherTest
{
protected:
    // The answer and the lines of the log.
    std::pair<bool, Lines> Check(const std::string& bytes)
    {
        WriteFile(m_archive + ".version", bytes);
        FakeCore::ClearJournal();
        const bool accepted = CAgentApp::ExtensionVersionIsOK(wxString::FromUTF8(m_archive));
        return {accepted, FakeCore::Journal({"Log("})};
    }

    TempFolder m_folder;
    std::string m_archive = m_folder / "net.vxe";
};

TEST_F(ExtensionVersion, IsComparedWithOursWithoutTheBuild)
{
    using testing::Pair;
    EXPECT_THAT(Check(::Test::Ours("version: {version}-{build}")), Pair(true, IsEmpty()));
    EXPECT_THAT(Check(::Test::Ours("version: {version}-7\n")), Pair(true, IsEmpty()));
    const auto refused = [this](const std::string& version) {
        return Pair(false, ElementsAre("Log(Warning, \"Ignoring extension '" + m_archive + "' since its version ("
                                       + version + ::Test::Ours(") doesn't match ours ({version})\")")));
    };
    EXPECT_THAT(Check(::Test::Ours("version: {other}-{build}")), refused(::Test::Ours("{other}")));
    EXPECT_THAT(Check(::Test::Ours("version: 9.1.0-{build}")), refused("9.1.0"));
    EXPECT_THAT(Check("version: 9.0.0-1"), refused("9.0.0"));
    EXPECT_THAT(Check(::Test::Ours("version: -{version}-1")), refused(::Test::Ours("-{version}")));
}

TEST_F(ExtensionVersion, FileWithoutAUsableLineIsOneWarningWhoseWordingTellsWhy)
{
    using testing::Pair;
    const std::string file = m_archive + ".version";
    EXPECT_THAT(Check("name: net\n"), Pair(false, ElementsAre("Log(Warning, \"File '" + file
                                                              + "' does not contain a 'version:' line. Extension '"
                                                              + m_archive + "' will not be enabled.\")")));
    EXPECT_THAT(Check(::Test::Ours("version: {version}\n")),
                Pair(false, ElementsAre("Log(Warning, \"File '" + file
                                        + "' did not contain a properly formatted 'version:' line. Extension '"
                                        + m_archive + "' will not be enabled.\")")));
}

TEST_F(ExtensionVersion, MissingOrNoRegularFileIsNotOpened)
{
    const Lines expected = {"Log(Warning, \"Extension file '" + m_archive
                            + "' does not have a corresponding '.version' file. It will not be enabled.\")"};
    EXPECT_FALSE(CAgentApp::ExtensionVersionIsOK(m_archive));
    EXPECT_EQ(FakeCore::Journal({"Log("}), expected);
    // Named without the archive's own extension.
    WriteFile(m_folder / "net.version", ::Test::Ours("version: {version}-1"));
    FakeCore::ClearJournal();
    EXPECT_FALSE(CAgentApp::ExtensionVersionIsOK(m_archive));
    EXPECT_EQ(FakeCore::Journal({"Log("}), expected);
    for (const int kind : {0, 1, 2}) {
        const std::string file = m_archive + ".version";
        fs::remove_all(file);
        if (kind == 0)
            ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
        else if (kind == 1)
            fs::create_directory(file);
        else
            fs::create_symlink("nowhere", file);
        FakeCore::ClearJournal();
        EXPECT_FALSE(CAgentApp::ExtensionVersionIsOK(m_archive));
        EXPECT_EQ(FakeCore::Journal({"Log("}), expected);
    }
}

TEST_F(ExtensionVersion, UnreadableFileHasNoVersionLine)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to become another user";
    ASSERT_EQ(chmod(m_folder.Path().c_str(), 0755), 0);
    WriteFile(m_archive + ".version", ::Test::Ours("version: {version}-1"));
    ASSERT_EQ(chmod((m_archive + ".version").c_str(), 0600), 0);
    {
        const ::Test::OtherUser user(::Test::OtherUser::Ids::Effective);
        EXPECT_FALSE(CAgentApp::ExtensionVersionIsOK(m_archive));
    }
    const Lines log = FakeCore::Journal({"Log("});
    ASSERT_EQ(log.size(), 2u); // the framework's own line comes first
    EXPECT_THAT(log[0], HasSubstr("Log(Error"));
    EXPECT_EQ(log[1], "Log(Warning, \"File '" + m_archive + ".version' does not contain a 'version:' line. Extension '"
                          + m_archive + "' will not be enabled.\")");
}

TEST_F(ExtensionVersion, LinkToAFileIsReadAndOneThatTurnsInACircleIsMissing)
{
    WriteFile(m_folder / "shared", ::Test::Ours("version: {version}-1"));
    fs::create_symlink("shared", m_archive + ".version");
    EXPECT_TRUE(CAgentApp::ExtensionVersionIsOK(m_archive));
    EXPECT_THAT(FakeCore::Journal({"Log("}), IsEmpty());
    fs::remove(m_archive + ".version");
    fs::create_symlink("net.vxe.version", m_archive + ".version");
    EXPECT_FALSE(CAgentApp::ExtensionVersionIsOK(m_archive));
    EXPECT_THAT(FakeCore::Journal({"Log("}), ElementsAre(HasSubstr("does not have a corresponding '.version' file")));
}

TEST_F(ExtensionVersion, FileOfWideCharactersIsRead)
{
    std::string wide = "\xFF\xFE";
    for (const char c : ::Test::Ours("# x\r\nversion: {version}-1\r\n"))
        wide += {c, '\0'};
    EXPECT_TRUE(Check(wide).first);
}

TEST_F(ExtensionVersion, FileThatCannotBeReadThoughItOpensHasNoVersionLine)
{
    const std::string memory = "/proc/self/mem"; // a regular file whose first byte is nobody's
    if (!fs::is_regular_file(memory))
        GTEST_SKIP() << "there is no " << memory;
    fs::create_symlink(memory, m_archive + ".version");
    EXPECT_FALSE(CAgentApp::ExtensionVersionIsOK(m_archive));
    const Lines log = FakeCore::Journal({"Log("});
    ASSERT_EQ(log.size(), 2u); // the framework's own line comes first
    EXPECT_THAT(log[0], HasSubstr("Log(Error, \"Read error on file '" + m_archive + ".version'"));
    EXPECT_THAT(log[1], HasSubstr(".version' does not contain a 'version:' line."));
}

TEST_F(ExtensionVersion, LineBehindHolesCounts)
{
    const std::string file = m_archive + ".version";
    WriteFile(file, "");
    fs::resize_file(file, 1u << 20);
    std::ofstream(file, std::ios::app) << ::Test::Ours("\nversion: {version}-1\n");
    EXPECT_TRUE(CAgentApp::ExtensionVersionIsOK(m_archive));
}

TEST_F(ExtensionVersion, NameWithPercentSignsIsShownAsItIs)
{
    m_archive = m_folder / "100%s%n.vxe";
    EXPECT_THAT(Check("version: 1.2.3-4").second,
                ElementsAre("Log(Warning, \"Ignoring extension '" + m_archive
                            + ::Test::Ours("' since its version (1.2.3) doesn't match ours ({version})\")")));
}

// --- the archive path

class ArchivePath : public LauncherTest
{
protected:
    ArchivePath()
    {
        m_app.Dom().SetWx("app.path.bin", wxString::FromUTF8(Bin()));
        m_app->SetAppName("vx_agent");
    }
    void SetUp() override
    {
        LauncherTest::SetUp();
        FakeCore::Answers().tracedModules = {"Appl"};
    }
    const std::string& Bin() const { return m_folder.Path(); }
    std::string Put(const std::string& name, const std::string& version = "")
    {
        const std::string path = m_folder / name;
        fs::create_directories(fs::path(path).parent_path());
        WriteFile(path, "PK");
        if (!version.empty())
            WriteFile(path + ".version", version);
        return path;
    }
    // Runs with the path; the result is what was written, or "(not written)".
    std::string Expand(const std::string& zippath, const std::string& extensions = "")
    {
        Access::ZipPath(*m_app) = wxString::FromUTF8(zippath);
        Access::ExtDir(*m_app) = wxString::FromUTF8(extensions);
        m_app.Dom().Remove("app.lua.zippath");
        FakeCore::ClearJournal();
        m_app->ExpandZippath();
        EXPECT_EQ(Access::ZipPath(*m_app), "");
        return m_app.Dom().Has("app.lua.zippath") ? m_app.Dom().Get("app.lua.zippath") : "(not written)";
    }
    static std::string Trace(const std::string& text) { return "Trace(\"Appl\", \"ExpandZippath\", \"" + text + "\")"; }
    static Lines Log() { return FakeCore::Journal({"Log("}); }

    const std::string m_good = ::Test::Ours("version: {version}-1\n");
    TempFolder m_folder;
    AgentApp m_app;
};

TEST_F(ArchivePath, WithNothingFoundTheKeyIsLeftAlone)
{
    EXPECT_EQ(Expand(""), "(not written)");
    EXPECT_THAT(FakeCore::Journal(), ElementsAre("Dom.GetWxString(\"app.path.bin\")", Trace("zipFilespec: "),
                                                 Trace("app.lua.zippath empty ")));
    m_app.Dom().SetWx("app.lua.zippath", "earlier");
    m_app->ExpandZippath();
    EXPECT_EQ(m_app.Dom().Get("app.lua.zippath"), "earlier");
}

TEST_F(ArchivePath, EverythingTogetherComesInTheFixedOrder)
{
    const std::string own = Put("vex_core/vx_agent.vxe");
    const std::string common = Put("vex_core/vex.vxe");
    const std::string named = Put("lib/n.zip");
    const std::string second = Put("more/b.zip", m_good);
    const std::string first = Put("more/a.zip", m_good);
    const std::string extension = Put("ext/e.vxe", m_good);
    const std::string all = own + ";" + common + ";" + named + ";" + first + ";" + second + ";" + extension;
    EXPECT_EQ(Expand("lib/n.zip;more/*.zip", "ext"), all);
    EXPECT_THAT(FakeCore::Journal({"Dom.GetWxString", "Dom.Set", "Trace(", "Log("}),
                ElementsAre("Dom.GetWxString(\"app.path.bin\")",
                            Trace("zipFilespec: lib/n.zip;more/*.zip;" + Bin() + "/ext/*.vxe"),
                            Trace("Adding extension file '" + named + "' to the search path."),
                            Trace("Adding extension file '" + first + "' to the search path."),
                            Trace("Adding extension file '" + second + "' to the search path."),
                            Trace("Adding extension file '" + extension + "' to the search path."),
                            "Dom.SetWx(\"app.lua.zippath\", \"" + all + "\")",
                            Trace("app.lua.zippath '" + all + "' ")));
}

TEST_F(ArchivePath, NothingIsTracedWhenTheModuleIsNot)
{
    FakeCore::Answers().tracedModules.clear();
    Put("a.zip");
    Expand("a.zip");
    EXPECT_THAT(FakeCore::Journal({"Trace("}), IsEmpty());
}

// --- core archives

TEST_F(ArchivePath, ApplicationNamedLikeTheCommonArchiveHasItOnce)
{
    const std::string common = Put("vex_core/vex.vxe");
    m_app->SetAppName("vex");
    EXPECT_EQ(Expand(""), common);
    m_app->SetAppName("Vex");
    EXPECT_EQ(Expand(""), common);
    m_app->SetAppName("other");
    EXPECT_EQ(Expand(""), common);
    const std::string own = Put("vex_core/other.vxe");
    EXPECT_EQ(Expand(""), own + ";" + common);
    fs::remove(common);
    EXPECT_EQ(Expand(""), own);
}

TEST_F(ArchivePath, CoreArchivesNeedNoVersionFile)
{
    const std::string own = Put("vex_core/vx_agent.vxe");
    EXPECT_EQ(Expand(""), own);
    EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(ArchivePath, NameWithADotNamesItsArchive)
{
    const std::string own = Put("vex_core/my.agent.vxe");
    m_app->SetAppName("my.agent");
    EXPECT_EQ(Expand(""), own);
}

TEST_F(ArchivePath, FolderOrFifoIsNoCoreArchive)
{
    fs::create_directories(m_folder / "vex_core/vx_agent.vxe");
    ASSERT_EQ(mkfifo((m_folder / "vex_core/vex.vxe").c_str(), 0600), 0);
    EXPECT_EQ(Expand(""), "(not written)");
    EXPECT_THAT(Log(), IsEmpty());
}

// --- entries

TEST_F(ArchivePath, EmptyEntriesAreDropped)
{
    const std::string a = Put("a.zip");
    const std::string b = Put("b.zip");
    EXPECT_EQ(Expand("a.zip;;b.zip;"), a + ";" + b);
    EXPECT_EQ(Expand(";;;"), "(not written)");
    EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(ArchivePath, RelativeEntriesStartAtTheExecutablesFolder)
{
    const std::string x = Put("lib/x.zip");
    EXPECT_EQ(Expand("lib/x.zip"), x);
    EXPECT_EQ(Expand("./other/../lib/./x.zip"), x);
}

TEST_F(ArchivePath, AbsoluteEntriesAreListedWithoutDots)
{
    const std::string x = Put("lib/x.zip", m_good);
    EXPECT_EQ(Expand(Bin() + "/lib/../lib/./x.zip"), x);
    EXPECT_EQ(Expand(Bin() + "/lib/../lib/*.zip"), x);
}

TEST_F(ArchivePath, SameFileMayAppearTwice)
{
    const std::string x = Put("x.zip", m_good);
    EXPECT_EQ(Expand("x.zip;*.zip;x.zip"), x + ";" + x + ";" + x);
}

TEST_F(ArchivePath, VariablesAreExpandedButTheWarningQuotesTheEntry)
{
    const ::Test::Variable variable("VEX_TEST_BIN", Bin());
    const std::string x = Put("x.zip");
    EXPECT_EQ(Expand("$VEX_TEST_BIN/x.zip;${VEX_TEST_BIN}/x.zip"), x + ";" + x);
    EXPECT_EQ(Expand("$VEX_TEST_BIN/missing.zip"), "(not written)");
    EXPECT_THAT(Log(), ElementsAre("Log(Warning, \"$VEX_TEST_BIN/missing.zip: no matches\")"));
}

TEST_F(ArchivePath, MissingNamedArchiveIsAWarningAndAnEmptyPatternIsNot)
{
    EXPECT_EQ(Expand("/opt/ext/x.zip"), "(not written)");
    EXPECT_THAT(Log(), ElementsAre("Log(Warning, \"/opt/ext/x.zip: no matches\")"));
    EXPECT_EQ(Expand("x.zip"), "(not written)");
    EXPECT_THAT(Log(), ElementsAre("Log(Warning, \"x.zip: no matches\")"));
    EXPECT_EQ(Expand(m_folder / "none/*.zip" + ";*.zip;?.zip"), "(not written)");
    EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(ArchivePath, MatchesOfAPatternAreSortedByName)
{
    const std::string b = Put("b.zip", m_good);
    const std::string a = Put("a.zip", m_good);
    const std::string capital = Put("B.zip", m_good);
    EXPECT_EQ(Expand("*.zip"), capital + ";" + a + ";" + b);
    EXPECT_EQ(Expand("?.zip"), capital + ";" + a + ";" + b);
}

TEST_F(ArchivePath, PatternTakesOnlyArchivesWhoseVersionFits)
{
    const std::string good = Put("good.zip", m_good);
    Put("old.zip", "version: 9.0.0-1\n");
    Put("bare.zip");
    EXPECT_EQ(Expand("*.zip"), good);
    EXPECT_THAT(Log(), ElementsAre(HasSubstr("bare.zip' does not have a corresponding"),
                                   HasSubstr("Ignoring extension '" + Bin() + "/old.zip'")));
}

TEST_F(ArchivePath, NamedArchiveNeedsNoVersionFile)
{
    const std::string old = Put("old.zip", "version: 9.0.0-1\n");
    EXPECT_EQ(Expand(old), old);
    EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(ArchivePath, WildcardOutOfAVariableFindsArchivesThatNeedNoVersionFile)
{
    // What was written names an archive, and what was meant is a pattern.
    const ::Test::Variable variable("VEX_TEST_PATTERN", "*.zip");
    EXPECT_EQ(Expand("$VEX_TEST_PATTERN"), "(not written)");
    EXPECT_THAT(Log(), IsEmpty());
    const std::string a = Put("a.zip");
    EXPECT_EQ(Expand("$VEX_TEST_PATTERN"), a);
    EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(ArchivePath, WildcardInTheFolderIsTakenLiterally)
{
    Put("x/a.zip", m_good);
    const std::string entry = Bin() + "/*/a.zip";
    EXPECT_EQ(Expand(entry), "(not written)");
    EXPECT_THAT(Log(), ElementsAre("Log(Warning, \"" + entry + ": no matches\")"));
    // A folder of that name is found, and the entry counts as a pattern for the version.
    Put("*/a.zip");
    EXPECT_EQ(Expand(entry), "(not written)");
    EXPECT_THAT(Log(), ElementsAre(HasSubstr("does not have a corresponding '.version' file")));
}

TEST_F(ArchivePath, PatternMayQuoteAndEndsWhereTheNameEnds)
{
    const std::string star = Put("a*.zip", m_good);
    const std::string plain = Put("ab.zip", m_good);
    Put("ab.zip.old", m_good);
    Put("ab.zi", m_good);
    EXPECT_EQ(Expand("a\\*.zip"), star);
    EXPECT_EQ(Expand("?\\*.zip"), star);
    EXPECT_EQ(Expand("a?.z*p"), star + ";" + plain);
    EXPECT_EQ(Expand("*.\\zip"), star + ";" + plain);
    EXPECT_EQ(Expand("*.zip\\"), "(not written)");
    EXPECT_EQ(Expand("*.?ip"), star + ";" + plain);
}

TEST_F(ArchivePath, EntryWhoseVariableIsEmptyNamesEveryFileBesideTheExecutable)
{
    const ::Test::Variable variable("VEX_TEST_EMPTY", "");
    const std::string a = Put("a");
    Put(".b");
    Put("folder/c");
    EXPECT_EQ(Expand("$VEX_TEST_EMPTY"), a);
    EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(ArchivePath, TildeAtTheBeginIsTheUsersFolder)
{
    const std::string a = Put("home/a.zip", m_good);
    const Home home(m_folder / "home");
    EXPECT_EQ(Expand("~/*.zip;~/a.zip"), a + ";" + a);
    EXPECT_EQ(Expand("./~/*.zip;x~/*.zip"), "(not written)");
}

TEST_F(ArchivePath, LinkToAFolderIsNoMatchAndAnyOtherNameIsOne)
{
    fs::create_directory(m_folder / "folder");
    fs::create_directory_symlink("folder", m_folder / "a.zip");
    fs::create_symlink("b.zip", m_folder / "b.zip");
    Put("c", m_good);
    fs::create_symlink("c", m_folder / "c.zip");
    EXPECT_EQ(Expand("*.zip"), "(not written)");
    EXPECT_THAT(Log(), ElementsAre("Log(Warning, \"Extension file '" + Bin() + "/b.zip' isn't readable\")",
                                   HasSubstr("/c.zip' does not have a corresponding '.version' file")));
}

TEST_F(ArchivePath, UnreadableArchiveIsSkippedWithAWarning)
{
    fs::create_symlink("nowhere", m_folder / "a.zip");
    const std::string b = Put("b.zip", m_good);
    EXPECT_EQ(Expand("*.zip"), b);
    EXPECT_THAT(Log(), ElementsAre("Log(Warning, \"Extension file '" + Bin() + "/a.zip' isn't readable\")"));
}

TEST_F(ArchivePath, ArchiveThatTheRealUserMayNotReadIsSkippedWithAWarning)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to become another user";
    const std::string a = Put("a.zip", m_good);
    const std::string b = Put("b.zip", m_good);
    ASSERT_EQ(chmod(Bin().c_str(), 0755), 0);
    ASSERT_EQ(chmod(a.c_str(), 0600), 0);
    const ::Test::OtherUser user(::Test::OtherUser::Ids::Real);
    EXPECT_EQ(Expand("*.zip"), b);
    EXPECT_THAT(Log(), ElementsAre("Log(Warning, \"Extension file '" + a + "' isn't readable\")"));
}

TEST_F(ArchivePath, FolderThatCanBeListedAndNotSearchedHasArchivesThatAreNotReadable)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to become another user";
    const std::string x = Put("lib/x.zip", m_good);
    ASSERT_EQ(chmod(Bin().c_str(), 0755), 0);
    ASSERT_EQ(chmod((m_folder / "lib").c_str(), 0744), 0);
    const ::Test::OtherUser user(::Test::OtherUser::Ids::Both);
    EXPECT_EQ(Expand("lib/*.zip"), "(not written)");
    EXPECT_THAT(Log(), ElementsAre("Log(Warning, \"Extension file '" + x + "' isn't readable\")"));
}

TEST_F(ArchivePath, FolderThatCannotBeReadHasNoMatchesEvenWhereItsFilesCould)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to become another user";
    Put("lib/x.zip");
    ASSERT_EQ(chmod(Bin().c_str(), 0755), 0);
    ASSERT_EQ(chmod((m_folder / "lib").c_str(), 0711), 0);
    // Access rights are asked for the real user.
    const ::Test::OtherUser user(::Test::OtherUser::Ids::Real);
    EXPECT_EQ(Expand("lib/x.zip"), "(not written)");
    EXPECT_THAT(Log(), ElementsAre("Log(Warning, \"lib/x.zip: no matches\")"));
}

TEST_F(ArchivePath, HiddenFilesAndSubfoldersAreNotListed)
{
    Put(".hidden.zip", m_good);
    Put("sub/inner.zip", m_good);
    fs::create_directory(m_folder / "folder.zip");
    EXPECT_EQ(Expand("*.zip"), "(not written)");
    EXPECT_THAT(Log(), IsEmpty());
    EXPECT_EQ(Expand("folder.zip"), "(not written)");
    EXPECT_THAT(Log(), ElementsAre("Log(Warning, \"folder.zip: no matches\")"));
}

TEST_F(ArchivePath, FileInPlaceOfAFolderHasNoMatches)
{
    Put("a.zip");
    EXPECT_EQ(Expand("a.zip/b.zip;a.zip/*.zip"), "(not written)");
    EXPECT_THAT(Log(), ElementsAre("Log(Warning, \"a.zip/b.zip: no matches\")"));
}

TEST_F(ArchivePath, NamedEntryIsFoundExactlyWhenAListingWouldShowIt)
{
    Put(".hidden.zip");
    fs::create_directory(m_folder / "folder.zip");
    fs::create_directory_symlink("folder.zip", m_folder / "tofolder.zip");
    fs::create_symlink("nowhere", m_folder / "dangling.zip");
    const std::string file = Put("file.zip");
    fs::create_symlink("file.zip", m_folder / "link.zip");
    Lines named;
    for (const char* name : {".hidden.zip", "dangling.zip", "file.zip", "folder.zip", "link.zip", "tofolder.zip"}) {
        FakeCore::ClearJournal();
        Access::ZipPath(*m_app) = name;
        m_app->ExpandZippath();
        for (const std::string& line : FakeCore::Journal({"Log(", "Trace(\"Appl\", \"ExpandZippath\", \"Adding"}))
            named.push_back(line);
    }
    EXPECT_THAT(named,
                ElementsAre("Log(Warning, \".hidden.zip: no matches\")",
                            "Log(Warning, \"Extension file '" + m_folder / "dangling.zip" + "' isn't readable\")",
                            Trace("Adding extension file '" + file + "' to the search path."),
                            "Log(Warning, \"folder.zip: no matches\")",
                            Trace("Adding extension file '" + m_folder / "link.zip" + "' to the search path."),
                            "Log(Warning, \"tofolder.zip: no matches\")"));
    // The same by a pattern, which lists: what it shows is what is found by name.
    for (const char* name : {"file.zip", "link.zip"})
        WriteFile(m_folder / name + ".version", m_good);
    EXPECT_EQ(Expand("*.zip"), file + ";" + m_folder / "link.zip");
    EXPECT_THAT(Log(), ElementsAre(HasSubstr("dangling.zip' isn't readable")));
}

TEST_F(ArchivePath, EntryThatEndsInASlashNamesEveryFileOfTheFolder)
{
    const std::string a = Put("lib/a");
    const std::string b = Put("lib/b.zip");
    EXPECT_EQ(Expand("lib/"), a + ";" + b);
}

TEST_F(ArchivePath, FifoDoesNotBlock)
{
    ASSERT_EQ(mkfifo((m_folder / "a.zip").c_str(), 0600), 0);
    ASSERT_EQ(mkfifo((m_folder / "a.zip.version").c_str(), 0600), 0);
    EXPECT_EQ(Expand("*.zip"), "(not written)");
    EXPECT_THAT(Log(), ElementsAre(HasSubstr("does not have a corresponding '.version' file")));
}

TEST_F(ArchivePath, TenThousandEntriesAreTakenInOrder)
{
    std::string entries;
    std::string expected;
    const std::string a = Put("a.zip");
    const std::string b = Put("b.zip");
    for (int i = 0; i < 2000; ++i) // a large folder, which must not be listed for each
        Put("f" + std::to_string(i));
    for (int i = 0; i < 5000; ++i) {
        entries += "a.zip;b.zip;";
        expected += (i ? ";" : "") + a + ";" + b;
    }
    FakeCore::Answers().tracedModules.clear();
    EXPECT_EQ(Expand(entries), expected);
}

// --- extension folder

TEST_F(ArchivePath, ExtensionFolderIsTheLastEntry)
{
    const std::string x = Put("x.zip");
    const std::string e = Put("ext/e.vxe", m_good);
    Put("ext/e.zip", m_good);
    EXPECT_EQ(Expand("x.zip", "ext"), x + ";" + e);
    EXPECT_EQ(FakeCore::Count(Trace("zipFilespec: x.zip;" + Bin() + "/ext/*.vxe")), 1u);
    EXPECT_EQ(Expand("", "ext"), e);
    EXPECT_EQ(FakeCore::Count(Trace("zipFilespec: " + Bin() + "/ext/*.vxe")), 1u);
    EXPECT_EQ(Expand("", Bin() + "/ext/"), e);
    EXPECT_EQ(Expand("", "./ext/../ext"), e);
    const Home home(Bin());
    EXPECT_EQ(Expand("", "~/ext"), e);
}

TEST_F(ArchivePath, ExtensionFolderThatIsMissingOrAFileAddsNothing)
{
    Put("file");
    for (const std::string& folder : {std::string("missing"), std::string("file"), m_folder / "none"}) {
        EXPECT_EQ(Expand("*.none", folder), "(not written)");
        EXPECT_THAT(Log(), IsEmpty());
        EXPECT_EQ(FakeCore::Count(Trace("zipFilespec: *.none")), 1u);
    }
}

TEST_F(ArchivePath, ExtensionFolderWhoseNameHasTheSeparatorIsOneWarning)
{
    Put("a;b/e.vxe", m_good);
    Put("a;b/f.vxe", m_good);
    Put("b/*.vxe", m_good);
    EXPECT_EQ(Expand("", "a;b"), "(not written)");
    EXPECT_THAT(Log(), ElementsAre("Log(Warning, \"Extensions in '" + Bin()
                                   + "/a;b' are not enabled: a name with \";\" cannot be told to Lua. Give it "
                                     "another name.\")"));
    EXPECT_EQ(FakeCore::Count(Trace("zipFilespec: ")), 1u);
}

TEST_F(ArchivePath, ArchiveWhoseNameHasTheSeparatorIsOneWarning)
{
    const std::string odd = Put("ext/a;b.vxe", m_good);
    const std::string good = Put("ext/c.vxe", m_good);
    EXPECT_EQ(Expand("", "ext"), good);
    EXPECT_THAT(Log(), ElementsAre("Log(Warning, \"Extensions in '" + odd
                                   + "' are not enabled: a name with \";\" cannot be told to Lua. Give it "
                                     "another name.\")"));
}

TEST_F(ArchivePath, ArchiveWhoseNameIsNoTextIsListedInItsBytes)
{
    const ::Test::Restored restored(wxConvFileName);
    wxMBConvUTF8 conversion(wxMBConvUTF8::MAP_INVALID_UTF8_TO_PUA);
    wxConvFileName = &conversion;
    const std::string path = Put("ext/caf\xE9.vxe", m_good);
    EXPECT_EQ(Expand("", "ext"), path);
    EXPECT_EQ(Expand("ext/*.vxe"), path);
}

TEST_F(ArchivePath, NamesAreSortedAsTextAlsoThoseThatAreNone)
{
    const ::Test::Restored restored(wxConvFileName);
    wxMBConvUTF8 conversion(wxMBConvUTF8::MAP_INVALID_UTF8_TO_PUA);
    wxConvFileName = &conversion;
    std::string expected;
    // A byte that is no text stands behind all text.
    for (const char* name : {"a.vxe", "\xC3\xA9.vxe", "\xF0\x9F\x98\x80.vxe", "\x80.vxe", "\xFF.vxe"})
        expected += (expected.empty() ? "" : ";") + Put(std::string("ext/") + name, m_good);
    EXPECT_EQ(Expand("", "ext"), expected);
    EXPECT_EQ(Expand("ext/?.vxe"), expected);
    EXPECT_EQ(Expand("ext/*\xC3\xA9.vxe"), m_folder / "ext/\xC3\xA9.vxe");
    EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(ArchivePath, NamesWithBlanksPercentSignsAndAccentsWork)
{
    const std::string path = Put("my \xC3\xA9 100%s/x y.vxe", m_good);
    EXPECT_EQ(Expand("", "my \xC3\xA9 100%s"), path);
    EXPECT_EQ(Expand("%s%n.zip"), "(not written)");
    EXPECT_THAT(Log(), ElementsAre("Log(Warning, \"%s%n.zip: no matches\")"));
}

} // namespace
