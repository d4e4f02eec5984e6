#include "vex/apps/vex/vex.h"
#include "vex/apps/vex/vex_p.h"

#include "support/launcher_test.h"
#include "support/our_version.h"

#include <stdexcept>

#include <wx/object.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {
class Shutdown : public LauncherTest
{};
using ShutdownDeathTest = Shutdown;

// --- exit banner

TEST(RunTime, ShowsDaysHoursMinutesSecondsAndMilliseconds)
{
    EXPECT_EQ(RunTimeText(wxTimeSpan(1, 2, 3, 456)), "0d 01:02:03.456");
    EXPECT_EQ(RunTimeText(wxTimeSpan()), "0d 00:00:00.000");
    EXPECT_EQ(RunTimeText(wxTimeSpan(49, 59, 59, 7)), "2d 01:59:59.007");
}

TEST_F(Shutdown, AgentSaysHowLongItRan)
{
    AgentApp app;
    Access::DefaultName(*app) = true;
    Access::StartTime(*app) = wxDateTime::UNow() - wxTimeSpan(1, 2, 3, 456);
    FakeCore::ClearJournal();
    EXPECT_EQ(app->OnExit(), 0);
    const Lines lines = FakeCore::Journal();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_THAT(
        lines[0],
        testing::MatchesRegex(::Test::Ours(
            "Log\\(Info, \"VEX {version}.{build} exiting\\. Run time was 0d 01:02:0[3-9]\\.[0-9][0-9][0-9]\"\\)")));
}

TEST_F(Shutdown, OtherApplicationsHaveNoExitBanner)
{
    AgentApp app;
    FakeCore::ClearJournal();
    EXPECT_EQ(app->OnExit(), 0);
    EXPECT_THAT(FakeCore::Journal(), IsEmpty());
}

class Pending : public wxObject
{
public:
    explicit Pending(bool& deleted) : m_deleted(deleted) {}
    ~Pending() override { m_deleted = true; }

private:
    bool& m_deleted;
};

TEST_F(Shutdown, TheFrameworksOwnEndIsPartOfIt)
{
    AgentApp app;
    bool deleted = false;
    wxPendingDelete.Append(new Pending(deleted));
    EXPECT_EQ(app->OnExit(), 0);
    EXPECT_TRUE(deleted) << "the framework deletes what is left to be deleted";
}

// --- clean-up

TEST_F(ShutdownDeathTest, CleanUpEndsThreadsOfOpenSslFirstAndTheDatabaseLastAndOnlyOnce)
{
    EXPECT_IN_FRESH_PROCESS({
        CAgentApp::StartupInit();
        FakeCore::ClearJournal();
        CAgentApp::TerminationCleanup();
        CAgentApp::TerminationCleanup();
        EXPECT_THAT(FakeCore::Journal(), ElementsAre("OpenSSLThreadShutdown()", "ShutdownSQLite()"));
    });
}

// What the clean-up sets off may end the process, which comes back to it.
TEST_F(ShutdownDeathTest, CleanUpThatIsReachedOutOfItselfIsNotBegunAgain)
{
    EXPECT_IN_FRESH_PROCESS({
        CAgentApp::StartupInit();
        FakeCore::ClearJournal();
        FakeCore::Answers().onShutdown = [] { CAgentApp::TerminationCleanup(); };
        CAgentApp::TerminationCleanup();
        EXPECT_THAT(FakeCore::Journal(), ElementsAre("OpenSSLThreadShutdown()", "ShutdownSQLite()"));
    });
}

TEST_F(ShutdownDeathTest, DestructorReleasesInterpreterThenDomainThenCleansUp)
{
    EXPECT_IN_FRESH_PROCESS({
        AgentApp app;
        Access::Lua(*app) = new VexCore::CLuaInterpreter(false, L"x.lua", true);
        FakeCore::ClearJournal();
        app.Destroy();
        EXPECT_THAT(FakeCore::Journal(),
                    ElementsAre("~Lua()", "Dom.Release()", "OpenSSLThreadShutdown()", "ShutdownSQLite()"));
        EXPECT_EQ(FakeCore::LiveDomains(), 0);
        EXPECT_EQ(FakeCore::LiveInterpreters(), 0);
    });
}

TEST_F(ShutdownDeathTest, DestructorAfterACleanUpShutsNothingDownAgain)
{
    EXPECT_IN_FRESH_PROCESS({
        AgentApp app;
        CAgentApp::TerminationCleanup();
        FakeCore::ClearJournal();
        app.Destroy();
        EXPECT_THAT(FakeCore::Journal(), ElementsAre("Dom.Release()"));
    });
}

TEST_F(Shutdown, DestructorWithoutADomainReleasesNone)
{
    AgentApp app;
    Access::Dom(*app)->Release();
    Access::Dom(*app) = nullptr;
    FakeCore::ClearJournal();
    app.Destroy();
    EXPECT_EQ(FakeCore::Count("Dom.Release()"), 0u);
}

// --- unhandled exceptions

class Unrelated
{};

class Derived : public std::runtime_error
{
public:
    Derived() : std::runtime_error("derived") {}
};

template <class Exception>
Lines Report(const Exception& exception, bool traced = true)
{
    FakeCore::Reset();
    AgentApp app;
    FakeCore::ClearJournal();
    if (traced)
        FakeCore::Answers().tracedModules = {"Appl"};
    try {
        throw exception;
    } catch (...) {
        app->OnUnhandledException();
    }
    return FakeCore::Journal();
}

Lines Expected(const std::string& description)
{
    return {"Trace(\"Appl\", \"OnUnhandledException\", \"OnUnhandledException()\")",
            "Trace(\"Appl\", \"OnUnhandledException\", \"OnUnhandledException() - caught unhandled " + description
                + ", terminating app.\")"};
}

TEST(UnhandledException, OfTheStandardLibraryIsShownWithTypeAndText)
{
    EXPECT_EQ(Report(std::runtime_error("boom")),
              Expected("std::exception of type \"" + std::string(typeid(std::runtime_error).name())
                       + "\", what() = \"boom\""));
    EXPECT_EQ(Report(Derived()),
              Expected("std::exception of type \"" + std::string(typeid(Derived).name()) + "\", what() = \"derived\""));
}

TEST(UnhandledException, TextIsShownBetweenQuotes)
{
    const char* narrow = "narrow 100%s";
    const wchar_t* wide = L"wide";
    EXPECT_EQ(Report(narrow), Expected("char * exception 'narrow 100%s'"));
    EXPECT_EQ(Report(wide), Expected("wchar_t * exception 'wide'"));
}

TEST(UnhandledException, NumbersAreShownWithTheirType)
{
    EXPECT_EQ(Report(42), Expected("int exception 42"));
    EXPECT_EQ(Report(-1), Expected("int exception -1"));
    EXPECT_EQ(Report(4000000000u), Expected("unsigned int exception 4000000000"));
    EXPECT_EQ(Report(-42L), Expected("long exception -42"));
    EXPECT_EQ(Report(42UL), Expected("unsigned long exception 42"));
    EXPECT_EQ(Report(-42LL), Expected("long long exception -42"));
    EXPECT_EQ(Report(18446744073709551615ULL), Expected("unsigned long long exception 18446744073709551615"));
}

TEST(UnhandledException, OfAnyOtherTypeIsUnknown)
{
    EXPECT_EQ(Report(Unrelated()), Expected("<unknown exception>"));
    EXPECT_EQ(Report(static_cast<short>(1)), Expected("<unknown exception>"));
    EXPECT_EQ(Report('c'), Expected("<unknown exception>"));
    EXPECT_EQ(Report(true), Expected("<unknown exception>"));
    EXPECT_EQ(Report(1.5), Expected("<unknown exception>"));
    EXPECT_EQ(Report(std::string("text")), Expected("<unknown exception>"));
}

TEST(UnhandledException, IsNotReportedAtAllWhenUntraced)
{
    EXPECT_THAT(Report(std::runtime_error("boom"), false), IsEmpty());
    EXPECT_THAT(Report(Unrelated(), false), IsEmpty());
}

} // namespace
