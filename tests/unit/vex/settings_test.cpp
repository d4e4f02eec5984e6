#include "vex/apps/vex/vex.h"

#include "support/launcher_test.h"
#include "support/our_version.h"
#include "support/process_guards.h"

#include <algorithm>
#include <filesystem>

#include <sys/stat.h>

#include <wx/confbase.h>

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {
const char defaultTraces[] = "Appl,Cmd,Srvc,vex.Heartbeat,vex.ListenThread,vex.PluginUtils";

bool IsPrivileged()
{
    return geteuid() == 0;
}

class Settings : public LauncherTest
{
protected:
    // Starts with the options; the journal holds what OnInit did, the standard error what it wrote.
    void Start(std::vector<std::string> options, const std::string& name = "vx_agent")
    {
        m_started.reset(); // there is one application at a time
        m_started.reset(new StartedApp(std::move(options), name));
        WriteConfiguration();
        ::Test::StandardError standardError;
        const bool result = m_started->Init();
        m_errors = standardError.Text();
        EXPECT_TRUE(result) << m_errors;
    }
    // The same with a local configuration file.
    void StartWithFile(const std::string& bytes, std::vector<std::string> options = {},
                       const std::string& name = "vx_agent")
    {
        m_fileName = name + ".ini";
        m_fileBytes = bytes;
        Start(std::move(options), name);
    }
    void WriteConfiguration() const
    {
        if (!m_fileName.empty())
            WriteFile(m_started->folder / m_fileName, m_fileBytes);
    }

    std::string Get(const char* key) { return m_started->app.Dom().Get(key); }
    bool Has(const char* key) { return m_started->app.Dom().Has(key); }
    const std::string& Folder() { return m_started->folder.Path(); }
    CAgentApp& App() { return *m_started->app; }

    // Writes to the domain and what is done beside them, without the installation paths that come before.
    Lines Writes()
    {
        Lines lines =
            FakeCore::Journal({"Dom.Set", "Dom.GetWxString", "Secure", "InitializeSQLite", "Log(Warning", "Log(Error"});
        lines.erase(lines.begin(), lines.begin() + std::min<std::ptrdiff_t>(4, lines.end() - lines.begin()));
        return lines;
    }

    std::unique_ptr<StartedApp> m_started;
    std::string m_fileName;
    std::string m_fileBytes;
    std::string m_errors;
};

TEST_F(Settings, WithoutOptionsTheDefaultsAreWrittenInTheirOrder)
{
    const TempFolder folder;
    AgentApp app({folder / "vx_agent"});
    FakeCore::ClearJournal();
    ASSERT_TRUE(app->OnInit());
    Lines lines = FakeCore::Journal({"Dom.Set", "Secure", "InitializeSQLite", "Dom.GetWxString"});
    const std::string& f = folder.Path();
    EXPECT_THAT(lines,
                ElementsAre("Dom.SetWx(\"app.path.bin\", \"" + f + "\")",
                            "Dom.SetWx(\"app.path.lib\", \"" + f + "/lib\")",
                            "Dom.SetWx(\"app.path.hv\", \"" + f + "\")",
                            ::Test::Ours("Dom.Set(\"app.version\", \"{version}.{build}\")"),
                            "Dom.SetWx(\"app.path.exe\", \"" + f + "/vx_agent\")",
                            "Dom.SetWx(\"app.name\", \"vx_agent\")", "SecureFileOrDirectory(\"" + f + "/work\", false)",
                            "Dom.SetWx(\"app.path.work\", \"" + f + "/work\")",
                            "Dom.SetWx(\"app.path.ini\", \"" + f + "/" + "work/vx_agent.ini\")",
                            "Dom.SetWx(\"app.path.ini.global\", \"/etc/vx_agent.conf\")",
                            "Dom.GetWxString(\"app.path.ini\")", "Dom.GetWxString(\"app.path.ini.global\")",
                            "Dom.SetWx(\"app.trace+\", \"" + std::string(defaultTraces) + "\")",
                            "Dom.Set(\"app.fulldump\", false)", "InitializeSQLite(dom)"));
    for (const char* key : {"app.background", "app.plugins", "app.lua.cpath", "app.lua.path", "app.trace",
                            "app.mode.unittest", "app.lua.zippath"})
        EXPECT_FALSE(app.Dom().Has(key)) << key;
    EXPECT_FALSE(Access::Background(*app));
    EXPECT_FALSE(Access::InstallPlugins(*app));
    EXPECT_TRUE(Access::DefaultName(*app));
    EXPECT_EQ(Access::ExtDir(*app), "");
    EXPECT_EQ(Access::ZipPath(*app), "");
    EXPECT_EQ(Access::UnitTestScript(*app), "");
}

TEST_F(Settings, WithEveryOptionTheyAreWrittenInTheFixedOrder)
{
    StartWithFile("Trace=One,Two\nDumpLevel=2\nsqlite.config.cache=5\n",
                  // in an order of their own
                  {"-z",  "@.zip;b.zip", "-U",  "-u",        "*.lua", "-t",     "'Appl,Cmd'",
                   "-d",  "my.key=a=b",  "-l",  "l/@/?.lua", "-c",    "c/@.so", "-p",
                   "x,y", "-e",          "ext", "-i",        "-b",    "-a",     "other"},
                  "other");
    const std::string& f = Folder();
    EXPECT_THAT(
        Writes(),
        ElementsAre(
            "Dom.SetWx(\"app.path.exe\", \"" + f + "/bin/other\")", "Dom.SetWx(\"app.name\", \"other\")",
            "Dom.Set(\"app.background\", true)", "Dom.SetWx(\"app.plugins\", \"x,y\")",
            "Dom.SetWx(\"app.lua.cpath\", \"c/x.so;c/y.so\")", "Dom.SetWx(\"app.lua.path\", \"l/x/?.lua;l/y/?.lua\")",
            "Dom.SetWx(\"app.path.work\", \"" + f + "\")", "Dom.SetWx(\"app.path.ini\", \"" + f + "/other.ini\")",
            "Dom.SetWx(\"app.path.ini.global\", \"/etc/other.conf\")", "Dom.SetWx(\"app.trace\", \"Appl,Cmd\")",
            "Dom.Set(\"my.key\", \"a=b\")", "Dom.Set(\"app.mode.unittest\", true)",
            "Dom.Set(\"app.mode.unittest\", true)", "Dom.GetWxString(\"app.path.ini\")",
            "Dom.GetWxString(\"app.path.ini.global\")", "Dom.SetWx(\"app.trace+\", \"One,Two\")",
            "Dom.Set(\"app.fulldump\", true)", "Dom.SetWx(\"sqlite.config.cache\", 5)", "InitializeSQLite(dom)"));
    EXPECT_TRUE(Access::Background(App()));
    EXPECT_TRUE(Access::InstallPlugins(App()));
    EXPECT_FALSE(Access::DefaultName(App()));
    EXPECT_EQ(Access::ExtDir(App()), "ext");
    EXPECT_EQ(Access::ZipPath(App()), "x.zip;y.zip;b.zip;b.zip");
    EXPECT_EQ(Access::UnitTestScript(App()), "*.lua");
}

// --- name

TEST_F(Settings, ApplicationNameDecidesNamesAndDefaults)
{
    Start({"-a", "my.agent"});
    EXPECT_EQ(App().GetAppName(), "my.agent");
    EXPECT_EQ(Get("app.name"), "my.agent");
    EXPECT_EQ(Get("app.path.ini"), Folder() + "/my.agent.ini");
    EXPECT_EQ(Get("app.path.ini.global"), "/etc/my.conf"); // the framework's rule
    EXPECT_FALSE(Access::DefaultName(App()));
    EXPECT_EQ(Get("app.trace+"), "");
    EXPECT_TRUE(Has("app.trace+"));
}

TEST_F(Settings, DefaultNameComparesExactly)
{
    for (const char* name : {"VX_AGENT", "vx_agent2", "vx", " vx_agent"}) {
        Start({"-a", name});
        EXPECT_FALSE(Access::DefaultName(App())) << name;
        EXPECT_EQ(Get("app.trace+"), "") << name;
    }
    Start({"-a", "vx_agent"}, "other");
    EXPECT_TRUE(Access::DefaultName(App()));
    EXPECT_EQ(Get("app.trace+"), defaultTraces);
}

TEST_F(Settings, AnEmptyNameLeavesTheOneOfTheExecutable)
{
    Start({"-a", ""}, "program");
    EXPECT_EQ(Get("app.name"), "program");
}

TEST_F(Settings, OddNamesAreTakenAsTheyAre)
{
    for (const char* name : {"a/b", "]]", "100%d%s", "\xC3\xA9", "a b", ".."}) {
        Start({"-a", name});
        EXPECT_EQ(Get("app.name"), name);
        EXPECT_EQ(Get("app.path.ini"), Folder() + "/" + name + ".ini");
    }
}

// --- switches

TEST_F(Settings, BackgroundSetsKeyAndMember)
{
    Start({"--background"});
    EXPECT_EQ(m_started->app.Dom().TypeOf("app.background"), VexCore::CDom::EType::Bool);
    EXPECT_EQ(Get("app.background"), "true");
    EXPECT_TRUE(Access::Background(App()));
}

TEST_F(Settings, InstallPluginsSetsAMemberAndNoKey)
{
    Start({"--install_plugins"});
    EXPECT_TRUE(Access::InstallPlugins(App()));
    EXPECT_THAT(FakeCore::Journal({"Dom.Set(\"app.install", "Dom.SetWx(\"app.install"}), IsEmpty());
}

TEST_F(Settings, ExtensionFolderIsKeptAsItWasGiven)
{
    Start({"-e", "$HOME/../@/ext "});
    EXPECT_EQ(Access::ExtDir(App()), "$HOME/../@/ext ");
}

// --- paths with plugins

TEST_F(Settings, ArchivePathWithoutPluginsStaysAsItIs)
{
    Start({"-z", "a/@.zip;;b.zip;"});
    EXPECT_EQ(Access::ZipPath(App()), "a/@.zip;;b.zip;");
    EXPECT_FALSE(Has("app.lua.zippath"));
}

TEST_F(Settings, PluginsFillEveryTemplateWhereverTheyStandOnTheCommandLine)
{
    Start({"-z", "a/@.zip", "-l", "@/?.lua", "-c", "@.so", "-p", "x,y"});
    EXPECT_EQ(Access::ZipPath(App()), "a/x.zip;a/y.zip");
    EXPECT_EQ(Get("app.lua.path"), "x/?.lua;y/?.lua");
    EXPECT_EQ(Get("app.lua.cpath"), "x.so;y.so");
    EXPECT_EQ(Get("app.plugins"), "x,y");
}

TEST_F(Settings, PluginsAreWrittenUnchanged)
{
    Start({"-p", " x,,y, "});
    EXPECT_EQ(Get("app.plugins"), " x,,y, ");
}

// --- working folder

TEST_F(Settings, WorkingFolderThatExistsIsLeftAlone)
{
    const TempFolder folder;
    std::filesystem::create_directory(folder / "w");
    ASSERT_EQ(chmod((folder / "w").c_str(), 0755), 0);
    Start({"-w", folder / "w"});
    EXPECT_EQ(Get("app.path.work"), folder / "w");
    EXPECT_THAT(FakeCore::Journal({"Secure"}), IsEmpty());
    EXPECT_EQ(::Test::ModeOf(folder / "w"), 0755u);
}

TEST_F(Settings, NewWorkingFolderHasNoSearchBitUntilItIsSecured)
{
    const TempFolder folder;
    Start({"-w", folder / "w"});
    // The fake secures nothing: this is how the folder was made.
    EXPECT_EQ(::Test::ModeOf(folder / "w"), 0600u);
    EXPECT_EQ(FakeCore::Count("SecureFileOrDirectory(\"" + folder / "w" + "\", false)"), 1u);
}

TEST_F(Settings, MissingParentsAreMadeSoThatWeCanPassThem)
{
    const TempFolder folder;
    Start({"-w", folder / "a/b/c"});
    EXPECT_EQ(FakeCore::Journal({"Secure"}), Lines{"SecureFileOrDirectory(\"" + folder / "a/b/c" + "\", false)"});
    EXPECT_EQ(::Test::ModeOf(folder / "a/b/c"), 0600u);
    // A privileged process passes without the search bit, another one needs it.
    EXPECT_EQ(::Test::ModeOf(folder / "a"), IsPrivileged() ? 0600u : 0700u);
    EXPECT_EQ(::Test::ModeOf(folder / "a/b"), IsPrivileged() ? 0600u : 0700u);
}

TEST_F(Settings, AnOrdinaryUserCanHaveAWorkingFolderSeveralLevelsDeep)
{
    if (!IsPrivileged())
        GTEST_SKIP() << "runs as root only; otherwise the test before shows it";
    const TempFolder folder;
    ASSERT_EQ(chmod(folder.Path().c_str(), 0777), 0);
    const ::Test::OtherUser user(::Test::OtherUser::Ids::Both);
    Start({"-w", folder / "a/b/c"});
    EXPECT_EQ(::Test::ModeOf(folder / "a/b"), 0700u);
    EXPECT_EQ(::Test::ModeOf(folder / "a/b/c"), 0600u);
}

TEST_F(Settings, WorkingFolderThatCannotBeMadeIsNotReportedAndNothingElseIsSecuredInItsPlace)
{
    const TempFolder folder;
    WriteFile(folder / "file", "x");
    ASSERT_EQ(symlink("nowhere", (folder / "link").c_str()), 0);
    for (const std::string& path : {folder / "file", folder / "link", folder / "file/below",
                                    folder / "file/below/deeper", std::string("/proc/nothing/w")}) {
        Start({"-w", path});
        EXPECT_EQ(Get("app.path.work"), path);
        EXPECT_THAT(FakeCore::Journal({"Secure"}), IsEmpty());
        EXPECT_EQ(m_errors, "");
        EXPECT_THAT(FakeCore::Journal({"Log(Error", "Log(Warning"}), IsEmpty());
    }
}

TEST_F(Settings, WorkingFolderIsExpandedAndNormalized)
{
    const TempFolder folder;
    const ::Test::Variable variable("VEX_TEST_FOLDER", folder.Path());
    Start({"-w", "$VEX_TEST_FOLDER/x/../y/./"});
    EXPECT_EQ(Get("app.path.work"), folder / "y");
    EXPECT_EQ(::Test::ModeOf(folder / "y"), 0600u);
    EXPECT_EQ(::Test::ModeOf(folder / "x"), mode_t(-1));
}

TEST_F(Settings, ATildeAtTheBeginningIsTheHomeFolder)
{
    const TempFolder folder;
    const Home home(folder.Path());
    AgentApp app({"~/bin/vx_agent", "-w", "~/w"});
    ASSERT_TRUE(app->OnInit());
    EXPECT_EQ(app.Dom().Get("app.path.bin"), folder / "bin");
    EXPECT_EQ(app.Dom().Get("app.path.exe"), folder / "bin/vx_agent");
    EXPECT_EQ(app.Dom().Get("app.path.work"), folder / "w");
}

TEST_F(Settings, RelativeWorkingFolderStartsAtTheCurrentFolder)
{
    const TempFolder folder;
    const ::Test::CurrentFolder current(folder.Path());
    Start({"-w", "rel"});
    EXPECT_EQ(Get("app.path.work"), folder / "rel");
}

TEST_F(Settings, OptionsOfTheExecutableAreNotExpanded)
{
    const TempFolder folder;
    AgentApp app({folder / "$HOME/vx_agent", "-w", folder.Path()});
    ASSERT_TRUE(app->OnInit());
    EXPECT_EQ(app.Dom().Get("app.path.exe"), folder / "$HOME/vx_agent");
}

// --- trace

TEST_F(Settings, QuotesAreTakenOutOfTheTraceList)
{
    Start({"-t", "'Appl,\"Cmd\"','"});
    EXPECT_EQ(Get("app.trace"), "Appl,Cmd,");
}

// --- free variables

TEST_F(Settings, FreeVariableWithoutANameOrEqualsIsRefusedWithAMessage)
{
    for (const char* wrong : {"=x", "x", "=", "", "100%s"}) {
        Start({"-d", wrong});
        EXPECT_EQ(m_errors, "Ignoring invalid domain variable specification '" + std::string(wrong)
                                + "': expected name=value format\n");
        EXPECT_FALSE(Has("x"));
        EXPECT_THAT(FakeCore::Journal({"Log(Warning", "Log(Error"}), IsEmpty());
    }
}

TEST_F(Settings, FreeVariableMayBeEmptyOrHoldEqualsSigns)
{
    Start({"-d", "a="});
    EXPECT_TRUE(Has("a"));
    EXPECT_EQ(Get("a"), "");
    EXPECT_EQ(m_errors, "");
    Start({"-d", "a=b=c"});
    EXPECT_EQ(Get("a"), "b=c");
    Start({"-d", " a = b "});
    EXPECT_EQ(Get(" a "), " b ");
}

TEST_F(Settings, FreeVariableWinsOverWhatWasWrittenBeforeAndLosesToWhatComesAfter)
{
    Start({"-d", "app.name=foo"});
    EXPECT_EQ(Get("app.name"), "foo");
    EXPECT_TRUE(Access::DefaultName(App()));
    EXPECT_EQ(App().GetAppName(), "vx_agent");
    Start({"-d", "app.trace+=X"});
    EXPECT_EQ(Get("app.trace+"), defaultTraces);
    EXPECT_LT(FakeCore::Count("Dom.Set(\"app.trace+\", \"X\")"), 2u);
    Start({"-d", "app.fulldump=true"});
    EXPECT_EQ(Get("app.fulldump"), "false");
}

TEST_F(Settings, FreeVariableCanNameTheConfigurationFile)
{
    const TempFolder folder;
    WriteFile(folder / "mine", "Trace=Mine\n");
    Start({"-d", "app.path.ini=" + folder / "mine"});
    EXPECT_EQ(Get("app.trace+"), "Mine");
}

TEST_F(Settings, FreeVariableWithLettersBeyondAsciiIsKept)
{
    const ::Test::LocaleGuard locale(LC_CTYPE);
    Start({"-d", "caf\xC3\xA9=\xE2\x82\xAC"});
    EXPECT_EQ(Get("caf\xC3\xA9"), "\xE2\x82\xAC");
}

TEST_F(Settings, FreeVariableThatTheLocaleCannotHoldIsEmpty)
{
    const ::Test::LocaleGuard locale(LC_CTYPE);
    const TempFolder folder;
    AgentApp app({folder / "vx_agent", "-d", "a=caf\xC3\xA9"});
    ASSERT_NE(std::setlocale(LC_CTYPE, "C"), nullptr);
    EXPECT_TRUE(app->OnInit());
    EXPECT_EQ(FakeCore::Count("Dom.Set(\"a\", \"\")"), 1u);
}

// --- unit tests

TEST_F(Settings, MissingScriptIsReportedWithoutALineEndAndLeavesTheModeOff)
{
    Start({"-u", "missing.lua"});
    EXPECT_EQ(m_errors, "missing.lua: not found");
    EXPECT_FALSE(Has("app.mode.unittest"));
    EXPECT_EQ(Access::UnitTestScript(App()), "");
}

TEST_F(Settings, FoldersFifosAndDanglingLinksAreNoScripts)
{
    const TempFolder folder;
    ASSERT_EQ(mkfifo((folder / "fifo").c_str(), 0600), 0);
    std::filesystem::create_symlink("nowhere", folder / "dangling");
    for (const std::string& path : {folder.Path(), folder / "fifo", folder / "dangling", std::string()}) {
        Start({"-u", path});
        EXPECT_EQ(m_errors, path + ": not found");
        EXPECT_FALSE(Has("app.mode.unittest"));
    }
}

TEST_F(Settings, UnreadableScriptIsNotFound)
{
    if (!IsPrivileged())
        GTEST_SKIP() << "needs root to become another user";
    const TempFolder folder;
    ASSERT_EQ(chmod(folder.Path().c_str(), 0755), 0);
    WriteFile(folder / "secret.lua", "");
    ASSERT_EQ(chmod((folder / "secret.lua").c_str(), 0600), 0);
    std::unique_ptr<StartedApp> started(new StartedApp({"-u", folder / "secret.lua"}));
    ASSERT_EQ(chmod(started->folder.Path().c_str(), 0777), 0);
    ::Test::StandardError standardError;
    // Access rights are asked for the real user.
    const ::Test::OtherUser user(::Test::OtherUser::Ids::Real);
    EXPECT_TRUE(started->Init());
    EXPECT_EQ(standardError.Text(), folder / "secret.lua" + ": not found");
}

TEST_F(Settings, ExistingScriptTurnsUnitTestModeOn)
{
    const TempFolder folder;
    WriteFile(folder / "t.lua", "");
    Start({"-u", folder / "t.lua"});
    EXPECT_EQ(Access::UnitTestScript(App()), folder / "t.lua");
    EXPECT_EQ(Get("app.mode.unittest"), "true");
    EXPECT_EQ(m_errors, "");
}

TEST_F(Settings, PatternsAreTakenUnseen)
{
    for (const char* pattern : {"tests/*.lua", "t?st.lua", "*", "no/such/folder/*.lua"}) {
        Start({"-u", pattern});
        EXPECT_EQ(Access::UnitTestScript(App()), pattern);
        EXPECT_EQ(Get("app.mode.unittest"), "true");
        EXPECT_EQ(m_errors, "");
    }
}

TEST_F(Settings, TestSwitchAloneNamesNoScript)
{
    Start({"--test"});
    EXPECT_EQ(Get("app.mode.unittest"), "true");
    EXPECT_EQ(Access::UnitTestScript(App()), "");
}

TEST_F(Settings, TestSwitchWorksBesideAScriptThatIsMissing)
{
    Start({"-U", "-u", "missing.lua"});
    EXPECT_EQ(Get("app.mode.unittest"), "true");
    EXPECT_EQ(Access::UnitTestScript(App()), "");
}

// --- configuration files

TEST_F(Settings, ConfigurationIsInstalledForTheWholeProcess)
{
    StartWithFile("other=1\n");
    wxConfigBase* const config = wxConfigBase::Get(false);
    ASSERT_NE(config, nullptr);
    EXPECT_EQ(config->GetAppName(), "vx_agent");
    EXPECT_EQ(config->GetVendorName(), "Halvorn");
    EXPECT_EQ(config->ReadLong("other", 0), 1);
}

TEST_F(Settings, ReplacedConfigurationIsNotDeleted)
{
    class Counted : public wxConfigBase
    {
    public:
        explicit Counted(int& deleted) : m_deleted(deleted) {}
        ~Counted() override { ++m_deleted; }
        void SetPath(const wxString&) override {}
        const wxString& GetPath() const override { return m_text; }
        bool GetFirstGroup(wxString&, long&) const override { return false; }
        bool GetNextGroup(wxString&, long&) const override { return false; }
        bool GetFirstEntry(wxString&, long&) const override { return false; }
        bool GetNextEntry(wxString&, long&) const override { return false; }
        size_t GetNumberOfEntries(bool) const override { return 0; }
        size_t GetNumberOfGroups(bool) const override { return 0; }
        bool HasGroup(const wxString&) const override { return false; }
        bool HasEntry(const wxString&) const override { return false; }
        bool Flush(bool) override { return true; }
        bool RenameEntry(const wxString&, const wxString&) override { return false; }
        bool RenameGroup(const wxString&, const wxString&) override { return false; }
        bool DeleteEntry(const wxString&, bool) override { return false; }
        bool DeleteGroup(const wxString&) override { return false; }
        bool DeleteAll() override { return false; }

    protected:
        bool DoReadString(const wxString&, wxString*) const override { return false; }
        bool DoReadLong(const wxString&, long*) const override { return false; }
        bool DoReadBinary(const wxString&, wxMemoryBuffer*) const override { return false; }
        bool DoWriteString(const wxString&, const wxString&) override { return false; }
        bool DoWriteLong(const wxString&, long) override { return false; }
        bool DoWriteBinary(const wxString&, const wxMemoryBuffer&) override { return false; }

    private:
        int& m_deleted;
        wxString m_text;
    };
    int deleted = 0;
    Counted* const first = new Counted(deleted);
    delete wxConfigBase::Set(first);
    Start({});
    EXPECT_NE(wxConfigBase::Get(false), first);
    EXPECT_EQ(deleted, 0);
    delete first;
}

TEST_F(Settings, TraceListOfTheFileReplacesTheDefault)
{
    StartWithFile("Trace=Cmd\n");
    EXPECT_EQ(Get("app.trace+"), "Cmd");
    StartWithFile("Trace=\n");
    EXPECT_EQ(Get("app.trace+"), "");
    StartWithFile("Trace=Cmd\n", {}, "other");
    EXPECT_EQ(Get("app.trace+"), "Cmd");
    // Only at the top level.
    StartWithFile("[group]\nTrace=Cmd\n");
    EXPECT_EQ(Get("app.trace+"), defaultTraces);
}

struct Dump
{
    const char* file;
    bool full;
};

class DumpLevel : public Settings, public testing::WithParamInterface<Dump>
{};

TEST_P(DumpLevel, IsFullWhenItIsANumberOtherThanZero)
{
    StartWithFile(GetParam().file);
    EXPECT_EQ(Get("app.fulldump"), GetParam().full ? "true" : "false") << GetParam().file;
    EXPECT_EQ(m_started->app.Dom().TypeOf("app.fulldump"), VexCore::CDom::EType::Bool);
}

INSTANTIATE_TEST_SUITE_P(Values, DumpLevel,
                         testing::Values(Dump{"", false}, Dump{"DumpLevel=0\n", false}, Dump{"DumpLevel=2\n", true},
                                         Dump{"DumpLevel=-1\n", true}, Dump{"DumpLevel=abc\n", false},
                                         Dump{"DumpLevel=\n", false}, Dump{"DumpLevel=2x\n", false},
                                         Dump{"DumpLevel= 1 \n", true},
                                         Dump{"dumplevel=1\n", true}, // the framework does not tell cases apart

                                         Dump{"DumpLevel=99999999999999999999999\n", false}));

TEST_F(Settings, DatabaseSettingsAreTheNumbersWhoseNamesBeginSo)
{
    StartWithFile("sqlite.config.cache=abc\nsqlite.configX=5\nsqlite.config.big=5000000000\nsqlite.config.neg=-3\n"
                  "sqlite.config=7\nSqlite.config.upper=1\nsqlite.conf=2\nsqlite.config.empty=\nsqlite.config.x=1 2\n"
                  "[sqlite.config.group]\nsqlite.config.inner=9\n");
    ASSERT_THAT(FakeCore::Journal({"Dom.SetWx(\"sqlite", "Dom.SetWx(\"Sqlite", "InitializeSQLite"}),
                testing::AllOf(Contains("Dom.SetWx(\"sqlite.configX\", 5)"),
                               Contains("Dom.SetWx(\"sqlite.config.big\", 5000000000)"),
                               Contains("Dom.SetWx(\"sqlite.config.neg\", -3)"),
                               Contains("Dom.SetWx(\"sqlite.config\", 7)"), testing::SizeIs(5)));
    EXPECT_EQ(FakeCore::Journal({"Dom.SetWx(\"sqlite", "InitializeSQLite"}).back(), "InitializeSQLite(dom)");
    EXPECT_THAT(FakeCore::Journal({"Log(Warning", "Log(Error"}), IsEmpty());
}

TEST_F(Settings, LocalFileOverridesTheGlobalOneButForProtectedEntries)
{
    const TempFolder folder;
    WriteFile(folder / "global", "Trace=Global\n!sqlite.config.kept=1\nDumpLevel=1\n");
    StartWithFile("Trace=Local\nsqlite.config.kept=2\n", {"-d", "app.path.ini.global=" + folder / "global"});
    EXPECT_EQ(Get("app.trace+"), "Local");
    EXPECT_EQ(Get("app.fulldump"), "true");
    EXPECT_EQ(FakeCore::Count("Dom.SetWx(\"sqlite.config.kept\", 1)"), 1u);
    EXPECT_EQ(FakeCore::Count("Dom.SetWx(\"sqlite.config.kept\", 2)"), 0u);
}

TEST_F(Settings, EncodingOfTheFileIsDetected)
{
    const std::string utf16 = std::string("\xFF\xFE") + std::string("T\0r\0a\0c\0e\0=\0\xE9\0\n\0", 16);
    for (const std::string& bytes :
         {std::string("\xEF\xBB\xBFTrace=\xC3\xA9\n"), std::string("Trace=\xC3\xA9\n"), utf16,
          std::string("Trace=\xE9\n")}) { // neither UTF-8 nor marked: taken as Latin-1
        StartWithFile(bytes);
        EXPECT_EQ(Get("app.trace+"), "\xC3\xA9");
    }
}

TEST_F(Settings, WindowsLineEndsAreFine)
{
    StartWithFile("Trace=A\r\nDumpLevel=1\r\n");
    EXPECT_EQ(Get("app.trace+"), "A");
    EXPECT_EQ(Get("app.fulldump"), "true");
}

class RubbishFile : public Settings, public testing::WithParamInterface<std::string>
{
    void TearDown() override {} // an assertion of the framework is a log line and no more
};

TEST_P(RubbishFile, NeverStopsTheStart)
{
    StartWithFile(GetParam());
    EXPECT_EQ(FakeCore::Count("InitializeSQLite(dom)"), 1u);
    EXPECT_TRUE(Has("app.trace+"));
}

INSTANTIATE_TEST_SUITE_P(Bytes, RubbishFile,
                         testing::Values(std::string("Trace=\"a\" behind\n"), std::string("[\n[]\n]\n=\n=x\n"),
                                         std::string("Trace=\"open\n"), std::string("\0\0\0\0", 4),
                                         std::string(100000, '\xFF'), std::string(100000, '['),
                                         std::string("\xFF\xFE\x00\xD8", 4), std::string("Trace=\\\n"),
                                         std::string("Trace=${UNCLOSED\n"), std::string("sqlite.config/x=1\n/=1\n"),
                                         std::string("Trace=a\nTrace=b\n"), std::string("no equals sign\n")));

TEST_F(Settings, AFolderOrFifoAsConfigurationFileIsNoFile)
{
    m_started.reset(); // there is one application at a time
    m_started.reset(new StartedApp);
    std::filesystem::create_directory(m_started->folder / "vx_agent.ini");
    EXPECT_TRUE(m_started->Init());
    EXPECT_EQ(Get("app.trace+"), defaultTraces);
    m_started.reset(); // there is one application at a time
    m_started.reset(new StartedApp);
    ASSERT_EQ(mkfifo((m_started->folder / "vx_agent.ini").c_str(), 0600), 0);
    EXPECT_TRUE(m_started->Init());
    EXPECT_EQ(Get("app.trace+"), defaultTraces);
    EXPECT_THAT(FakeCore::Journal({"Log(Warning", "Log(Error"}), IsEmpty());
}

TEST_F(Settings, AConfigurationFileThatSomebodyElseHadAHandInIsNotRead)
{
    m_started.reset(); // there is one application at a time
    m_started.reset(new StartedApp);
    FakeCore::Answers().mayBelieveFile = false;
    WriteFile(m_started->folder / "vx_agent.ini", "Trace=X\nno equals sign\n");
    EXPECT_TRUE(m_started->Init());
    EXPECT_EQ(Get("app.trace+"), defaultTraces);
    EXPECT_THAT(FakeCore::Journal({"Log(Warning", "Log(Error"}), IsEmpty()) << "the core library has said it";
}

TEST_F(Settings, AHugeConfigurationFileIsRefusedWithOneLine)
{
    m_started.reset(); // there is one application at a time
    m_started.reset(new StartedApp);
    const std::string file = m_started->folder / "vx_agent.ini";
    WriteFile(file, "Trace=X\n");
    std::filesystem::resize_file(file, 100u << 20); // a hole
    EXPECT_TRUE(m_started->Init());
    EXPECT_EQ(Get("app.trace+"), defaultTraces);
    EXPECT_EQ(
        FakeCore::Journal({"Log(Warning", "Log(Error"}),
        Lines{"Log(Warning, \"Configuration file '" + file + "' is larger than 4194304 bytes and is not read\")"});
}

TEST_F(Settings, AConfigurationFileOfFourMebibytesIsReadAndOneByteMoreIsTooMuch)
{
    std::string bytes = "Trace=X\n;";
    bytes.resize(4 << 20, 'x');
    StartWithFile(bytes);
    EXPECT_EQ(Get("app.trace+"), "X");
    EXPECT_THAT(FakeCore::Journal({"Log(Warning", "Log(Error"}), IsEmpty());
    StartWithFile(bytes + "x");
    EXPECT_EQ(Get("app.trace+"), defaultTraces);
    EXPECT_THAT(FakeCore::Journal({"Log(Warning", "Log(Error"}),
                ElementsAre(HasSubstr("is larger than 4194304 bytes")));
}

TEST_F(Settings, AConfigurationFileOfTheSystemThatIsTooLargeIsNotReadBesideTheOther)
{
    const TempFolder folder;
    const std::string global = folder / "global";
    WriteFile(global, "Trace=Global\nDumpLevel=1\n");
    std::filesystem::resize_file(global, (4u << 20) + 1);
    StartWithFile("sqlite.config.kept=2\n", {"-d", "app.path.ini.global=" + global});
    EXPECT_EQ(Get("app.trace+"), defaultTraces);
    EXPECT_EQ(Get("app.fulldump"), "false");
    EXPECT_EQ(Get("sqlite.config.kept"), "2");
    EXPECT_EQ(
        FakeCore::Journal({"Log(Warning", "Log(Error"}),
        Lines{"Log(Warning, \"Configuration file '" + global + "' is larger than 4194304 bytes and is not read\")"});
}

TEST_F(Settings, AConfigurationFileOfAHundredThousandLinesIsReadAndOneMoreIsTooMuch)
{
    for (const std::string lineEnd : {"\n", "\r\n", "\r"}) {
        std::string bytes = "Trace=X" + lineEnd;
        for (int line = 1; line < 100000; ++line)
            bytes += lineEnd;
        StartWithFile(bytes);
        EXPECT_EQ(Get("app.trace+"), "X");
        EXPECT_THAT(FakeCore::Journal({"Log(Warning", "Log(Error"}), IsEmpty());
        StartWithFile(bytes + lineEnd);
        EXPECT_EQ(Get("app.trace+"), defaultTraces);
        EXPECT_EQ(FakeCore::Journal({"Log(Warning", "Log(Error"}),
                  Lines{"Log(Warning, \"Configuration file '" + Folder()
                        + "/vx_agent.ini' has more than 100000 lines and is not read\")"});
    }
}

TEST_F(Settings, ALineEndOfTwoCharactersIsOneInEveryCharacterSet)
{
    const std::string text = "Trace=X\r\n" + [] {
        std::string lines;
        for (int line = 1; line < 60000; ++line)
            lines += "\r\n";
        return lines;
    }();
    std::string little = "\xFF\xFE", big = "\xFE\xFF";
    for (const char c : text) {
        little += {c, '\0'};
        big += {'\0', c};
    }
    for (const std::string& bytes : {text, little, big}) {
        StartWithFile(bytes);
        EXPECT_EQ(Get("app.trace+"), "X");
        EXPECT_THAT(FakeCore::Journal({"Log(Warning", "Log(Error"}), IsEmpty());
    }
}

TEST_F(Settings, RubbishOfAnyLengthIsTenLinesAndACount)
{
    std::string rubbish;
    for (int i = 0; i < 1000; ++i)
        rubbish += "no entry\n";
    StartWithFile(rubbish);
    const Lines log = FakeCore::Journal({"Log(Warning", "Log(Error"});
    ASSERT_EQ(log.size(), 11u);
    EXPECT_THAT(log[0], HasSubstr("line 1:"));
    EXPECT_THAT(log[9], HasSubstr("line 10:"));
    EXPECT_EQ(log[10], "Log(Warning, \"990 more lines about the configuration files are left out\")");
    StartWithFile("no entry\n");
    EXPECT_THAT(FakeCore::Journal({"Log(Warning", "Log(Error"}), testing::SizeIs(1));
}

TEST_F(Settings, RubbishIsReportedAlsoWhenNothingWasLoggedBefore)
{
    // As in a process of its own: the framework makes its target with the first line.
    const ::Test::LogTarget none(nullptr);
    StartWithFile("no entry\n");
    EXPECT_THAT(FakeCore::Journal({"Log(Warning", "Log(Error"}), ElementsAre(HasSubstr("line 1:")));
}

TEST_F(Settings, VerboseSwitchIsTheFrameworks)
{
    Start({"--verbose"});
    EXPECT_TRUE(wxLog::GetVerbose());
}

} // namespace
