#include "vex/apps/vex/vex.h"
#include "vex/apps/vex/vex_p.h"

#include "vex/core/log.h"

#include "support/launcher_test.h"
#include "support/our_version.h"
#include "support/process_guards.h"

#include <algorithm>
#include <clocale>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <utility>

#include <dlfcn.h>

#include <wx/intl.h>
#include <wx/translation.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {
bool g_recordsTimeZone = false;

// A message catalogue as the framework's files hold it.
std::string Catalogue(std::map<std::string, std::string> texts)
{
    texts[""] = "Content-Type: text/plain; charset=UTF-8\n";
    const auto number = [](std::uint32_t value) { return std::string(reinterpret_cast<const char*>(&value), 4); };
    const auto count = static_cast<std::uint32_t>(texts.size());
    constexpr std::uint32_t headSize = 28;
    std::string head = number(0x950412de) + number(0) + number(count) + number(headSize) + number(headSize + 8 * count)
                       + number(0) + number(headSize + 16 * count);
    std::string places[2];
    std::string text;
    for (const int which : {0, 1})
        for (const auto& [original, translation] : texts) {
            const std::string& item = which == 0 ? original : translation;
            places[which] += number(static_cast<std::uint32_t>(item.size()))
                             + number(headSize + 16 * count + static_cast<std::uint32_t>(text.size()));
            text += item + '\0';
        }
    return head + places[0] + places[1] + text;
}

class OneCatalogue : public wxTranslationsLoader
{
public:
    explicit OneCatalogue(std::string data) : m_data(std::move(data)) {}
    wxMsgCatalog* LoadCatalog(const wxString& domain, const wxString&) override
    {
        return wxMsgCatalog::CreateFromData(wxCharBuffer::CreateNonOwned(m_data.data(), m_data.size()), domain);
    }
    wxArrayString GetAvailableTranslations(const wxString&) const override
    {
        wxArrayString languages;
        languages.push_back("de");
        return languages;
    }

private:
    const std::string m_data;
};

class Start : public LauncherTest
{};
using StartDeathTest = Start;

TEST_F(StartDeathTest, ConstructorReadsTheTimeZoneSetsUpOpenSslThreadsAndThenMakesTheRootDomain)
{
    EXPECT_IN_FRESH_PROCESS({
        g_recordsTimeZone = true;
        const AgentApp app;
        EXPECT_THAT(FakeCore::Journal(),
                    ElementsAre("tzset()", "OpenSSLThreadSetup()", "Dom.New(null, null, null, false)"));
    });
}

TEST_F(StartDeathTest, LibrariesAreStartedOnceHoweverOftenItIsAsked)
{
    EXPECT_IN_FRESH_PROCESS({
        CAgentApp::StartupInit();
        CAgentApp::StartupInit();
        const AgentApp app;
        EXPECT_EQ(FakeCore::Count("OpenSSLThreadSetup()"), 1u);
    });
}

TEST_F(Start, ConstructorSetsTheDefaultsOfTheLog)
{
    const ::Test::LogGuard guard;
    wxLog::SetVerbose(false);
    wxLog::SetLogLevel(wxLOG_Error);
    wxLog::SetTimestamp("x");
    {
        const AgentApp app;
        EXPECT_TRUE(wxLog::GetVerbose());
        EXPECT_EQ(wxLog::GetLogLevel(), static_cast<wxLogLevel>(wxLOG_Info));
        EXPECT_EQ(wxLog::GetTimestamp(), "%Y-%m-%d %H:%M:%S");
    }
}

// Whatever the locale has to say finds the log as it is to be: the defaults come first.
TEST_F(Start, LocaleThatIsNotInstalledIsALogLineAndTheProcessGoesOn)
{
    const Variable language("LC_ALL", "sw_KE.UTF-8");
    const ::Test::LocaleGuard locale(LC_ALL);
    if (std::setlocale(LC_ALL, "sw_KE.UTF-8"))
        GTEST_SKIP() << "that locale is installed here";
    const ::Test::LogGuard guard;
    wxLog::SetLogLevel(wxLOG_FatalError);
    {
        const AgentApp app;
        EXPECT_THAT(FakeCore::Journal({"Log("}), ElementsAre(testing::HasSubstr("Cannot set locale to language")));
        EXPECT_NE(wxGetLocale(), nullptr);
    }
}

TEST_F(Start, LocaleIsInForceWhileTheApplicationLives)
{
    const wxLocale* const before = wxGetLocale();
    {
        const AgentApp app;
        EXPECT_NE(wxGetLocale(), before);
    }
    EXPECT_EQ(wxGetLocale(), before);
}

TEST_F(Start, MembersStandInTheirOrder)
{
    AgentApp app;
    const std::vector<const void*> places = {&Access::InstallPlugins(*app),
                                             &Access::DefaultName(*app),
                                             &Access::Background(*app),
                                             &Access::ExtDir(*app),
                                             &Access::Dom(*app),
                                             &Access::Lua(*app),
                                             &Access::StartTime(*app),
                                             &Access::UnitTestScript(*app),
                                             &Access::ZipPath(*app)};
    EXPECT_TRUE(std::is_sorted(places.begin(), places.end()));
}

TEST_F(Start, MembersHaveTheirDefaults)
{
    const wxDateTime before = wxDateTime::UNow();
    AgentApp app;
    EXPECT_FALSE(Access::InstallPlugins(*app));
    EXPECT_FALSE(Access::DefaultName(*app));
    EXPECT_FALSE(Access::Background(*app));
    EXPECT_EQ(Access::ExtDir(*app), "");
    EXPECT_EQ(Access::ZipPath(*app), "");
    EXPECT_EQ(Access::UnitTestScript(*app), "");
    EXPECT_EQ(Access::Lua(*app), nullptr);
    EXPECT_NE(Access::Dom(*app), nullptr);
    ASSERT_TRUE(Access::StartTime(*app).IsValid());
    EXPECT_FALSE(Access::StartTime(*app).IsEarlierThan(before));
    EXPECT_FALSE(Access::StartTime(*app).IsLaterThan(wxDateTime::UNow()));
}

TEST_F(Start, TheOneApplicationIsReachedThroughItsFunction)
{
    AgentApp app;
    EXPECT_EQ(&wxGetApp(), &*app);
}

TEST_F(Start, OnlyTheLanguageOfTheUserIsAskedForTranslations)
{
    const TempFolder folder;
    for (const char* language : {"aa", "bb", "cc", "dd", "ee"}) {
        const std::string texts = folder / language + "/LC_MESSAGES";
        std::filesystem::create_directories(texts);
        std::ofstream(texts + "/wxstd.mo") << Catalogue({});
    }
    wxFileTranslationsLoader::AddCatalogLookupPathPrefix(folder.Path());
    const AgentApp app;
    ASSERT_NE(wxTranslations::Get(), nullptr);
    const wxArrayString languages = wxTranslations::Get()->GetAvailableTranslations("wxstd");
    EXPECT_LE(languages.size(), 3u); // with and without country, and that of the texts themselves
}

TEST_F(Start, TraitsGiveTheFrameworkTheDiskLog)
{
    AgentApp app;
    const std::unique_ptr<wxAppTraits> traits(app->CreateTraits());
    ASSERT_NE(dynamic_cast<CAgentAppTraits*>(traits.get()), nullptr);
    const std::unique_ptr<wxLog> target(traits->CreateLogTarget());
    EXPECT_NE(dynamic_cast<VexCore::CLog2Disk*>(target.get()), nullptr);
}

TEST_F(Start, TraceModuleIsNamedAppl)
{
    EXPECT_STREQ(CAgentApp::s_Trace, "Appl");
}

TEST(Assertion, OfTheFrameworkIsALogLineAndTheProcessGoesOn)
{
    FakeCore::Reset();
    const AgentApp app;
    wxOnAssert("file.cpp", 7, "Function", "1 == 2", "never");
    const Lines lines = FakeCore::Journal({"Log(Error"});
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_THAT(lines[0], testing::HasSubstr("Assertion \"1 == 2\" failed at file.cpp:7, Function(): never"));
}

TEST(Assertion, WhileOneIsLoggedOthersAreNot)
{
    class TrippingLog : public wxLog
    {
    public:
        explicit TrippingLog(int& lines) : m_lines(lines) {}

    protected:
        void DoLogRecord(wxLogLevel, const wxString&, const wxLogRecordInfo&) override
        {
            if (++m_lines < 10)
                wxOnAssert("file.cpp", 8, "Log", "3 == 4", "while logging");
        }

    private:
        int& m_lines;
    };
    FakeCore::Reset();
    const AgentApp app;
    int lines = 0;
    {
        const ::Test::LogTarget target(new TrippingLog(lines));
        wxOnAssert("file.cpp", 7, "Function", "1 == 2", "first");
        EXPECT_EQ(lines, 1);
        wxOnAssert("file.cpp", 7, "Function", "1 == 2", "second");
    }
    EXPECT_EQ(lines, 2);
}

// --- installation paths

struct Installation
{
    const char* program;
    const char* bin;
    const char* lib;
    const char* vendor;
};

class InstallationPaths : public testing::TestWithParam<Installation>
{};

TEST_P(InstallationPaths, FollowFromWhereTheExecutableIs)
{
    FakeCore::Reset();
    const TempFolder work;
    AgentApp app({GetParam().program, "-w", work.Path()});
    FakeCore::ClearJournal();
    ASSERT_TRUE(app->OnInit());
    Lines first = FakeCore::Journal();
    first.resize(5);
    EXPECT_THAT(first, ElementsAre("Dom.SetWx(\"app.path.bin\", \"" + std::string(GetParam().bin) + "\")",
                                   "Dom.SetWx(\"app.path.lib\", \"" + std::string(GetParam().lib) + "\")",
                                   "Dom.SetWx(\"app.path.hv\", \"" + std::string(GetParam().vendor) + "\")",
                                   ::Test::Ours("Dom.Set(\"app.version\", \"{version}.{build}\")"),
                                   "Dom.SetWx(\"app.path.exe\", \"" + app.Dom().Get("app.path.exe") + "\")"));
}

INSTANTIATE_TEST_SUITE_P(
    Places, InstallationPaths,
    testing::Values(Installation{"/opt/Halvorn/vx_agent/vx_agent", "/opt/Halvorn/vx_agent", "/opt/Halvorn/vx_agent/lib",
                                 "/opt/Halvorn"},
                    // The parent does not tell of the maker.
                    Installation{"/opt/vx_agent/vx_agent", "/opt/vx_agent", "/opt/vx_agent/lib", "/opt/vx_agent"},
                    // The own folder does not count.
                    Installation{"/opt/Halvorn/vx_agent2", "/opt/Halvorn", "/opt/Halvorn/lib", "/opt/Halvorn"},
                    // Any part of the parent path will do, at any depth.
                    Installation{"/srv/HalvornX/vx_agent/vx_agent", "/srv/HalvornX/vx_agent",
                                 "/srv/HalvornX/vx_agent/lib", "/srv/HalvornX"},
                    Installation{"/Halvorn/a/b/vx_agent", "/Halvorn/a/b", "/Halvorn/a/b/lib", "/Halvorn/a"},
                    Installation{"/srv/halvorn/x/vx_agent", "/srv/halvorn/x", "/srv/halvorn/x/lib", "/srv/halvorn/x"},
                    Installation{"/Halvorn/a/vx_agent", "/Halvorn/a", "/Halvorn/a/lib",
                                 "/Halvorn"}, // two folders are enough
                    // One folder or none.
                    Installation{"/Halvorn/vx_agent", "/Halvorn", "/Halvorn/lib", "/Halvorn"},
                    Installation{"/vx_agent", "/", "/lib", "/"},
                    // Dots are resolved, blanks and accents stay.
                    Installation{"/opt/x/../Halvorn/./my \xC3\xA9/vx_agent", "/opt/Halvorn/my \xC3\xA9",
                                 "/opt/Halvorn/my \xC3\xA9/lib", "/opt/Halvorn"}));

TEST_F(Start, ProgramNameWithoutFolderMeansTheCurrentFolder)
{
    const std::string current = std::filesystem::current_path().string();
    const TempFolder work;
    AgentApp app({"vx_agent", "-w", work.Path()});
    ASSERT_TRUE(app->OnInit());
    EXPECT_EQ(app.Dom().Get("app.path.bin"), current);
    EXPECT_EQ(app.Dom().Get("app.path.exe"), current + "/vx_agent");
}

TEST_F(StartDeathTest, WithoutAnyArgumentTheFrameworksAssertionTrips)
{
    EXPECT_IN_FRESH_PROCESS({
        AgentApp app(Lines{});
        wxSetAssertHandler([](const wxString&, int, const wxString&, const wxString&, const wxString& message) {
            _exit(message == "wxArrayString: index out of bounds" ? 0 : 1);
        });
        app->OnInit();
        ADD_FAILURE() << "went on";
    });
}

TEST_F(Start, FolderOfASymbolicLinkToTheExecutableCountsOnPurpose)
{
    const TempFolder folder;
    std::filesystem::create_directory(folder / "real");
    std::ofstream(folder / "real/vx_agent") << "x";
    std::filesystem::create_symlink(folder / "real/vx_agent", folder / "link");
    AgentApp app({folder / "link", "-w", folder.Path()});
    ASSERT_TRUE(app->OnInit());
    EXPECT_EQ(app.Dom().Get("app.path.bin"), folder.Path());
    EXPECT_EQ(app.Dom().Get("app.name"), "link");
}

TEST_F(Start, AnOptionMayOverwriteAnInstallationPath)
{
    StartedApp started({"-d", "app.path.bin=/elsewhere"});
    ASSERT_TRUE(started.Init());
    EXPECT_EQ(started.app.Dom().Get("app.path.bin"), "/elsewhere");
}

TEST_F(Start, VendorIsNamedInTheLanguageOfTheUser)
{
    StartedApp started;
    wxTranslations& translations = *wxTranslations::Get();
    translations.SetLoader(new OneCatalogue(Catalogue({{"Halvorn", "Halvorn AG"}})));
    translations.SetLanguage("de");
    ASSERT_TRUE(translations.AddCatalog("test"));
    ASSERT_TRUE(started.Init());
    EXPECT_EQ(started.app->GetVendorName(), "Halvorn AG");
}

TEST_F(Start, VendorIsNamed)
{
    StartedApp started;
    ASSERT_TRUE(started.Init());
    EXPECT_EQ(started.app->GetVendorName(), "Halvorn");
}

// --- crash handler and banner

TEST_F(Start, CrashHandlerComesAfterTheOptionsAndBeforeTheBanner)
{
    StartedApp started;
    ASSERT_TRUE(started.Init());
    Lines last = FakeCore::Journal();
    ASSERT_GE(last.size(), 5u);
    last.erase(last.begin(), last.end() - 5);
    EXPECT_THAT(last, ElementsAre("InitializeSQLite(dom)", "Dom.GetPluginWorkdirWx(\"diag\")",
                                  "Dom.Get(\"app.fulldump\", flag)",
                                  "InitCrashHandler(\"/fake/plugins/diag/vx_agent.mdmp\", \"vx_agent\", false)",
                                  ::Test::Ours("Log(Info, \"VEX {version}.{build} starting.\")")));
}

TEST_F(Start, CrashDumpIsNamedAfterTheApplicationAndFullOnRequest)
{
    StartedApp started({"-a", "other"});
    WriteFile(started.folder / "other.ini", "DumpLevel=2\n");
    ASSERT_TRUE(started.Init());
    EXPECT_EQ(FakeCore::Count("InitCrashHandler(\"/fake/plugins/diag/other.mdmp\", \"other\", true)"), 1u);
}

TEST_F(Start, FailingCrashHandlerDoesNotStopTheStart)
{
    FakeCore::Answers().crashHandlerResult = false;
    StartedApp started;
    EXPECT_TRUE(started.Init());
}

TEST_F(Start, OtherApplicationsHaveNoStartBanner)
{
    StartedApp started({}, "other");
    ASSERT_TRUE(started.Init());
    EXPECT_THAT(FakeCore::Journal({"Log("}), IsEmpty());
}

TEST_F(Start, NameOfTheBannerIsComparedExactly)
{
    StartedApp started({"-a", "VX_agent"});
    ASSERT_TRUE(started.Init());
    EXPECT_THAT(FakeCore::Journal({"Log("}), IsEmpty());
}

class EarlyStop : public testing::TestWithParam<const char*>
{};

TEST_P(EarlyStop, BeforeSettingsCrashHandlerAndBanner)
{
    FakeCore::Reset();
    StartedApp started({GetParam()});
    ::Test::StandardError standardError;
    EXPECT_FALSE(started.Init());
    EXPECT_NE(standardError.Text().find("Usage:"), std::string::npos);
    EXPECT_THAT(FakeCore::Journal({"InitCrashHandler", "InitializeSQLite", "Dom.SetWx(\"app.name\""}), IsEmpty());
    EXPECT_EQ(FakeCore::Count(::Test::Ours("Log(Info, \"VEX {version}.{build} starting.\")")), 0u);
    // Paths and version were written all the same.
    EXPECT_EQ(started.app.Dom().Get("app.version"), ::Test::Ours("{version}.{build}"));
}

INSTANTIATE_TEST_SUITE_P(CommandLines, EarlyStop, testing::Values("--help", "-h", "--nonsense", "-x", "--appname"));

// --- OpenSSL's random generator

int g_polls;
int g_goodAfter;

int Poll()
{
    ++g_polls;
    return 0;
}

int Status()
{
    return g_polls >= g_goodAfter ? 1 : 0;
}

TEST(Seed, EndsWithTheFirstGoodStatus)
{
    g_polls = 0;
    g_goodAfter = 3;
    EXPECT_EQ(SeedRandom(Poll, Status), 3);
    EXPECT_EQ(g_polls, 3);
}

TEST(Seed, PollsBeforeItAsks)
{
    g_polls = 0;
    g_goodAfter = 0;
    EXPECT_EQ(SeedRandom(Poll, Status), 1);
}

TEST(Seed, GivesUpSilentlyAfterAHundredAttempts)
{
    FakeCore::Reset();
    g_polls = 0;
    g_goodAfter = 1000;
    EXPECT_EQ(SeedRandom(Poll, Status), 100);
    EXPECT_EQ(g_polls, 100);
    EXPECT_THAT(FakeCore::Journal(), IsEmpty());
}

TEST(Seed, TakesTheHundredthAttempt)
{
    g_polls = 0;
    g_goodAfter = 100;
    EXPECT_EQ(SeedRandom(Poll, Status), 100);
}

} // namespace

// Stands before the system's for the launcher's objects.
extern "C" void tzset() noexcept
{
    if (g_recordsTimeZone)
        FakeCore::Record("tzset()");
    reinterpret_cast<void (*)()>(::dlsym(RTLD_NEXT, "tzset"))();
}
