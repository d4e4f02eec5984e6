#include "vex/apps/vex/vex.h"

#include "support/launcher_test.h"
#include "support/our_version.h"

#include <filesystem>

#include <sys/stat.h>

#include <wx/filename.h>
#include <wx/zipstrm.h>

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {
namespace fs = std::filesystem;

const std::string feature = ::Test::Ours("Agent-Feature-Solaris_11-{version}-{build}.x86_64");

// Both passes, in a folder of the test's own that the domain names as the executable's.
class Plugins : public LauncherTest
{
protected:
    Plugins() { m_app.Dom().SetWx("app.path.bin", wxString::FromUTF8(Folder())); }
    const std::string& Folder() const { return m_folder.Path(); }
    std::string Path(const std::string& name) const { return m_folder / name; }
    void Put(const std::string& name) { WriteFile(Path(name), "PK"); }
    bool Has(const std::string& name) const { return fs::exists(fs::symlink_status(Path(name))); }
    Lines Install()
    {
        FakeCore::ClearJournal();
        m_app->InstallNewPlugins();
        return FakeCore::Journal();
    }
    Lines Uninstall()
    {
        FakeCore::ClearJournal();
        m_app->UninstallOldPlugins();
        return FakeCore::Journal();
    }
    // The line of an event as the fake writes it.
    std::string Event(int number, int severity, const std::string& record) const
    {
        return "Dom.AgentEventWrite(" + std::to_string(number) + ", severity " + std::to_string(severity)
               + ", 1700000000123 ms, 1700000000 s, \"" + record + "\", +++++)";
    }

    TempFolder m_folder;
    AgentApp m_app;
};

const char reading[] = "Dom.GetWxString(\"app.path.bin\")";
const char heartbeat[] = "Dom.Set(\"vex.HeartbeatNow\", true)";

// --- installation

TEST_F(Plugins, PackageIsUnpackedRenamedAndReportedInTheFixedOrder)
{
    FakeCore::Answers().tracedModules = {"Appl"};
    FakeCore::Answers().unzipEntries = {{"lib/x.lua", 7}, {"y.so", 5000000000}};
    const std::string name = std::string(feature) + ".vxp";
    Put(name);
    const std::string path = Path(name);
    EXPECT_THAT(Install(),
                ElementsAre(reading, "Event.SetAttributeNull(0, false)", "TimeNowMillis()",
                            "Event.SetAttributeNull(1, false)", "Event.SetAttributeNull(2, false)",
                            "Trace(\"Appl\", \"InstallNewPlugins\", \"Extracting files from " + path + "\")",
                            "Unzip(\"" + path + "\", \"" + Folder() + "/\")",
                            "Trace(\"Appl\", \"InstallPluginZipCB\", \"  extracting: lib/x.lua (7 bytes)\")",
                            "Unzip.Entry(\"lib/x.lua\") -> true",
                            "Trace(\"Appl\", \"InstallPluginZipCB\", \"  extracting: y.so (5000000000 bytes)\")",
                            "Unzip.Entry(\"y.so\") -> true",
                            "Trace(\"Appl\", \"InstallNewPlugins\", \"Successfully extracted files for plugin '"
                                + std::string(feature) + "'. Deleting '" + path + "'\")",
                            "Event.SetAttributeNull(3, false)", "Event.ToSeverity(5)",
                            "Event.SetAttributeNull(4, false)",
                            Event(5101, 5, "Feature|" + std::string(feature) + "|" + path), heartbeat));
    EXPECT_FALSE(Has(name));
    EXPECT_TRUE(Has(name + ".done"));
}

TEST_F(Plugins, NothingIsTracedWhenTheModuleIsNot)
{
    FakeCore::Answers().unzipEntries = {{"a", 1}};
    FakeCore::Answers().recordTraceQueries = true;
    Put("a.vxp");
    Put("b.vxu");
    Install();
    EXPECT_THAT(FakeCore::Journal({"Trace("}), IsEmpty());
    EXPECT_EQ(FakeCore::Count("TraceIsEnabled(\"Appl\")"), 3u);
    Uninstall();
    EXPECT_THAT(FakeCore::Journal({"Trace("}), IsEmpty());
}

TEST_F(Plugins, PackagesAreProcessedInAscendingOrderOfTheirPaths)
{
    for (const char* name : {"b.vxp", "a.vxp", "B.vxp", "a-1.vxp", "a.b.vxp"})
        Put(name);
    Install();
    EXPECT_THAT(FakeCore::Journal({"Unzip("}),
                ElementsAre(HasSubstr("/B.vxp"), HasSubstr("/a-1.vxp"), HasSubstr("/a.b.vxp"), HasSubstr("/a.vxp"),
                            HasSubstr("/b.vxp")));
    ASSERT_EQ(FakeCore::Count(heartbeat), 1u);
    EXPECT_EQ(FakeCore::Journal().back(), heartbeat);
}

TEST_F(Plugins, PackageOfAnotherVersionIsRefusedAndFoundAgain)
{
    const std::string base = ::Test::Ours("Agent-Feature-Solaris_11-{other}-{build}.x86_64");
    Put(base + ".vxp");
    for (int run = 0; run < 2; ++run) {
        EXPECT_THAT(Install(), ElementsAre(reading, "Event.SetAttributeNull(0, false)", "TimeNowMillis()",
                                           "Event.SetAttributeNull(1, false)", "Event.SetAttributeNull(2, false)",
                                           "Log(Warning, \"Plugin file '" + Path(base + ".vxp")
                                               + "' does not match VEX core version, not installing\")",
                                           "Event.SetAttributeNull(3, false)", "Event.ToSeverity(2)",
                                           "Event.SetAttributeNull(4, false)",
                                           Event(5102, 2, "Feature|" + base + "|" + Path(base + ".vxp")), heartbeat));
        EXPECT_TRUE(Has(base + ".vxp"));
        EXPECT_FALSE(Has(base + ".vxp.done"));
    }
}

TEST_F(Plugins, PackageWithoutAVersionInItsNameIsInstalled)
{
    Put("Feature.vxp");
    EXPECT_THAT(Install(), Contains(Event(5101, 5, "Feature|Feature|" + Path("Feature.vxp"))));
    EXPECT_TRUE(Has("Feature.vxp.done"));
}

TEST_F(Plugins, VersionIsCheckedBeforeReadability)
{
    fs::create_symlink("nowhere", Path("a-b-c-1.0.0-1.m.vxp"));
    Install();
    EXPECT_EQ(FakeCore::Journal({"Log("}), Lines{"Log(Warning, \"Plugin file '" + Path("a-b-c-1.0.0-1.m.vxp")
                                                 + "' does not match VEX core version, not installing\")"});
}

TEST_F(Plugins, UnreadablePackageIsReportedAndTheNextIsInstalled)
{
    fs::create_symlink("nowhere", Path("a.vxp"));
    Put("b.vxp");
    const Lines lines = Install();
    EXPECT_EQ(FakeCore::Journal({"Log(", "Unzip(", "Dom.AgentEventWrite"}),
              (Lines{"Log(Warning, \"Plugin file '" + Path("a.vxp") + "' isn't readable\")",
                     Event(5102, 2, "a|a|" + Path("a.vxp")), "Unzip(\"" + Path("b.vxp") + "\", \"" + Folder() + "/\")",
                     Event(5101, 5, "b|b|" + Path("b.vxp"))}));
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), heartbeat);
}

TEST_F(Plugins, PackageThatCannotBeUnpackedKeepsItsName)
{
    FakeCore::Answers().tracedModules = {"Appl"};
    FakeCore::Answers().unzipResult = false;
    FakeCore::Answers().unzipEntries = {{"a", 1}};
    Put("x.vxp");
    EXPECT_THAT(Install(), Contains(Event(5102, 2, "x|x|" + Path("x.vxp"))));
    EXPECT_THAT(FakeCore::Journal({"Log("}), IsEmpty());
    EXPECT_THAT(FakeCore::Journal({"Trace(\"Appl\", \"InstallNewPlugins\", \"Success"}), IsEmpty());
    EXPECT_TRUE(Has("x.vxp"));
    EXPECT_EQ(FakeCore::Count(heartbeat), 1u);
}

TEST_F(Plugins, OlderDoneFileIsOverwritten)
{
    WriteFile(Path("x.vxp"), "new");
    WriteFile(Path("x.vxp.done"), "old");
    Install();
    EXPECT_FALSE(Has("x.vxp"));
    EXPECT_EQ(ReadFile(Path("x.vxp.done")), "new");
    EXPECT_THAT(FakeCore::Journal({"Log("}), IsEmpty());
}

TEST_F(Plugins, FailedRenameIsOneLineWithTheSystemsErrorAndASuccessAllTheSame)
{
    Put("x.vxp");
    fs::create_directory(Path("x.vxp.done"));
    for (int run = 0; run < 2; ++run) {
        EXPECT_THAT(Install(), Contains(Event(5101, 5, "x|x|" + Path("x.vxp"))));
        const Lines log = FakeCore::Journal({"Log("});
        ASSERT_EQ(log.size(), 1u);
        EXPECT_THAT(log[0], StartsWith("Log(Error, \"Unable to delete " + Path("x.vxp") + " (error "
                                       + std::to_string(EISDIR) + ":"));
        EXPECT_TRUE(Has("x.vxp"));
    }
}

TEST_F(Plugins, OnlyFilesOfTheFolderItselfWithTheExactExtensionAreFound)
{
    Put("x.VXP");
    Put(".hidden.vxp");
    Put("x.vxp.done");
    Put("vxp");
    fs::create_directory(Path("sub"));
    Put("sub/inner.vxp");
    fs::create_directory(Path("folder.vxp"));
    fs::create_directory_symlink("sub", Path("link.vxp"));
    EXPECT_THAT(Install(), ElementsAre(reading));
}

TEST_F(Plugins, OnlyMarkersOfTheFolderItselfWithTheExactExtensionAreFound)
{
    Put("x.VXU");
    Put(".hidden.vxu");
    Put("x.vxu.done");
    Put("vxu");
    fs::create_directory(Path("sub"));
    Put("sub/inner.vxu");
    fs::create_directory(Path("folder.vxu"));
    EXPECT_THAT(Uninstall(), ElementsAre(reading));
}

TEST_F(Plugins, EmptyFolderWritesNoEventAndAsksForNoHeartbeat)
{
    EXPECT_THAT(Install(), ElementsAre(reading));
    EXPECT_THAT(Uninstall(), ElementsAre(reading));
}

TEST_F(Plugins, FolderThatCannotBeListedIsPassedOverInSilence)
{
    m_app.Dom().SetWx("app.path.bin", Path("missing"));
    EXPECT_THAT(Install(), ElementsAre(reading));
    EXPECT_THAT(Uninstall(), ElementsAre(reading));
}

TEST_F(Plugins, TimeIsTakenOnceForEachPackage)
{
    FakeCore::Answers().timeStepMs = 1000;
    Put("a.vxp");
    Put("b.vxp");
    Install();
    EXPECT_THAT(FakeCore::Journal({"Dom.AgentEventWrite"}),
                ElementsAre(HasSubstr("1700000000123 ms, 1700000000 s"), HasSubstr("1700000001123 ms, 1700000001 s")));
    EXPECT_EQ(FakeCore::Count("TimeNowMillis()"), 2u);
}

TEST_F(Plugins, TextOfAnEventIsUtf8)
{
    Put("\xC3\xA9.vxp");
    EXPECT_THAT(Install(), Contains(Event(5101, 5, "\xC3\xA9|\xC3\xA9|" + Path("\xC3\xA9.vxp"))));
}

TEST_F(Plugins, PackagesThatAppearWhileOneIsUnpackedWaitForTheNextRun)
{
    Put("a.vxp");
    FakeCore::Answers().onUnzip = [this](const wxFileName&) { Put("b.vxp"); };
    Install();
    EXPECT_TRUE(Has("b.vxp"));
}

TEST_F(Plugins, InstallationCallbackAlwaysAnswersYesButToNobody)
{
    const wxZipEntry entry("x");
    const wxString destination = Path("x");
    EXPECT_TRUE(CAgentApp::InstallPluginZipCB(&*m_app, &entry, &destination));
    EXPECT_TRUE(CAgentApp::InstallPluginZipCB(&*m_app, &entry, nullptr));
    FakeCore::Answers().tracedModules = {"Appl"};
    FakeCore::ClearJournal();
    EXPECT_TRUE(CAgentApp::InstallPluginZipCB(&*m_app, nullptr, &destination));
    EXPECT_FALSE(CAgentApp::InstallPluginZipCB(nullptr, &entry, &destination));
    EXPECT_THAT(FakeCore::Journal(), IsEmpty());
}

TEST_F(Plugins, NamesWithPercentSignsAreShownAsTheyAre)
{
    FakeCore::Answers().tracedModules = {"Appl"};
    FakeCore::Answers().unzipEntries = {{"100%s%n", 1}};
    Put("50%d%s.vxp");
    Install();
    EXPECT_EQ(FakeCore::Count("Trace(\"Appl\", \"InstallPluginZipCB\", \"  extracting: 100%s%n (1 bytes)\")"), 1u);
    EXPECT_TRUE(Has("50%d%s.vxp.done"));
}

// --- removal

TEST_F(Plugins, MarkerRemovesItsFilesThenItselfAndIsReportedInTheFixedOrder)
{
    FakeCore::Answers().tracedModules = {"Appl"};
    FakeCore::Answers().unzipEntries = {{"a/x.lua", 3}, {"b/y.so", 4}};
    fs::create_directory(Path("a"));
    fs::create_directory(Path("b"));
    Put("a/x.lua");
    Put("a/other.lua");
    Put("b/y.so");
    const std::string name = std::string(feature) + ".vxu";
    Put(name);
    const std::string path = Path(name);
    EXPECT_THAT(Uninstall(),
                ElementsAre(reading, "Event.SetAttributeNull(0, false)", "TimeNowMillis()",
                            "Event.SetAttributeNull(1, false)", "Event.SetAttributeNull(2, false)",
                            "Trace(\"Appl\", \"UninstallOldPlugins\", \"Removing files from " + path + "\")",
                            "Unzip(\"" + path + "\", \"" + Folder() + "/\")",
                            "Trace(\"Appl\", \"UninstallPluginZipCB\", \"  removing: a/x.lua (3 bytes)\")",
                            "Unzip.Entry(\"a/x.lua\") -> false",
                            "Trace(\"Appl\", \"UninstallPluginZipCB\", \"  removing: b/y.so (4 bytes)\")",
                            "Unzip.Entry(\"b/y.so\") -> false",
                            "Trace(\"Appl\", \"UninstallOldPlugins\", \"Successfully removed files for plugin '"
                                + std::string(feature) + "'. Deleting '" + path + "'\")",
                            "Event.SetAttributeNull(3, false)", "Event.ToSeverity(5)",
                            "Event.SetAttributeNull(4, false)",
                            Event(5105, 5, "Feature|" + std::string(feature) + "|" + path), heartbeat));
    EXPECT_FALSE(Has("a/x.lua"));
    EXPECT_FALSE(Has("b/y.so"));
    EXPECT_TRUE(Has("a/other.lua"));
    EXPECT_TRUE(Has("a"));
    EXPECT_TRUE(Has("b"));
    EXPECT_FALSE(Has(name));
    EXPECT_FALSE(Has(name + ".done"));
}

TEST_F(Plugins, FilesThatAreGoneAndFoldersArePassedOverInSilence)
{
    FakeCore::Answers().unzipEntries = {{"gone/x.lua", 3}, {"folder/", 0}, {"empty", 0}};
    fs::create_directory(Path("folder"));
    fs::create_directory(Path("empty"));
    Put("x.vxu");
    EXPECT_THAT(Uninstall(), Contains(Event(5105, 5, "x|x|" + Path("x.vxu"))));
    EXPECT_THAT(FakeCore::Journal({"Log("}), IsEmpty());
    EXPECT_TRUE(Has("folder"));
    EXPECT_TRUE(Has("empty"));
}

TEST_F(Plugins, SymbolicLinkIsRemovedAndNotWhatItPointsTo)
{
    FakeCore::Answers().unzipEntries = {{"link", 0}};
    fs::create_directory(Path("kept"));
    fs::create_directory_symlink("kept", Path("link"));
    Put("x.vxu");
    Uninstall();
    EXPECT_FALSE(Has("link"));
    EXPECT_TRUE(Has("kept"));
}

TEST_F(Plugins, MarkerOfAnyVersionIsProcessed)
{
    Put("Agent-Feature-Solaris_11-9.5.0-1.x86_64.vxu");
    Uninstall();
    EXPECT_THAT(FakeCore::Journal({"Dom.AgentEventWrite(5105"}), testing::SizeIs(1));
    EXPECT_FALSE(Has("Agent-Feature-Solaris_11-9.5.0-1.x86_64.vxu"));
}

TEST_F(Plugins, MarkersAreProcessedInAscendingOrder)
{
    Put("b.vxu");
    Put("a.vxu");
    Uninstall();
    EXPECT_THAT(FakeCore::Journal({"Unzip("}), ElementsAre(HasSubstr("/a.vxu"), HasSubstr("/b.vxu")));
    EXPECT_EQ(FakeCore::Count(heartbeat), 1u);
}

TEST_F(Plugins, UnreadableMarkerIsReportedAndKept)
{
    fs::create_symlink("nowhere", Path("a.vxu"));
    Uninstall();
    EXPECT_EQ(FakeCore::Journal({"Log(", "Unzip(", "Dom.AgentEventWrite"}),
              (Lines{"Log(Warning, \"Plugin file '" + Path("a.vxu") + "' isn't readable\")",
                     Event(5106, 2, "a|a|" + Path("a.vxu"))}));
    EXPECT_TRUE(Has("a.vxu"));
}

TEST_F(Plugins, MarkerThatIsNoArchiveIsKeptAndWhatIsGoneStaysGone)
{
    FakeCore::Answers().unzipResult = false;
    FakeCore::Answers().unzipEntries = {{"f", 1}};
    Put("f");
    Put("x.vxu");
    EXPECT_THAT(Uninstall(), Contains(Event(5106, 2, "x|x|" + Path("x.vxu"))));
    EXPECT_FALSE(Has("f"));
    EXPECT_TRUE(Has("x.vxu"));
    EXPECT_THAT(FakeCore::Journal({"Log("}), IsEmpty());
}

TEST_F(Plugins, MarkerThatCannotBeDeletedIsOneLineAndASuccessAllTheSame)
{
    Put("x.vxu");
    // It is gone before its turn.
    FakeCore::Answers().onUnzip = [](const wxFileName& archive) { fs::remove(archive.GetFullPath().utf8_string()); };
    EXPECT_THAT(Uninstall(), Contains(Event(5105, 5, "x|x|" + Path("x.vxu"))));
    const Lines log = FakeCore::Journal({"Log("});
    ASSERT_EQ(log.size(), 1u);
    EXPECT_THAT(log[0], StartsWith("Log(Error, \"Unable to delete " + Path("x.vxu") + " (error "
                                   + std::to_string(ENOENT) + ":"));
}

TEST_F(Plugins, RemovalCallbackAnswersNoButYesToANullEntryAndNoToNobody)
{
    Put("x");
    const wxZipEntry entry("x");
    const wxString destination = Path("x");
    EXPECT_FALSE(CAgentApp::UninstallPluginZipCB(nullptr, &entry, &destination));
    EXPECT_TRUE(CAgentApp::UninstallPluginZipCB(&*m_app, nullptr, &destination));
    EXPECT_TRUE(Has("x"));
    EXPECT_FALSE(CAgentApp::UninstallPluginZipCB(&*m_app, &entry, &destination));
    EXPECT_FALSE(Has("x"));
    EXPECT_FALSE(CAgentApp::UninstallPluginZipCB(&*m_app, &entry, &destination));
}

TEST_F(Plugins, MarkersAreNoPackagesAndPackagesNoMarkers)
{
    Put("x.vxp");
    EXPECT_THAT(Uninstall(), ElementsAre(reading));
    EXPECT_TRUE(Has("x.vxp"));
    fs::remove(Path("x.vxp"));
    Put("y.vxu");
    EXPECT_THAT(Install(), ElementsAre(reading));
    EXPECT_TRUE(Has("y.vxu"));
}

} // namespace
