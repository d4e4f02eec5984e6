// Background mode against a system that only writes down: single-instance check, detach, supervisor, pass_signal.

#include "vex/apps/vex/daemon.h"
#include "vex/apps/vex/vex_p.h"

#include "support/fake_core.h"
#include "support/fake_system.h"
#include "support/process_guards.h"

#include "vex/core/dom.h"

#include <clocale>
#include <csignal>
#include <limits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using FakeCore::Answers;
using FakeCore::Count;
using FakeCore::Journal;
using testing::ElementsAre;
using testing::ElementsAreArray;

namespace {
using Lines = std::vector<std::string>;

const char* const pidFile = "/var/run/vx_agent.pid";
constexpr int exitThree = 3 << 8;

class BackgroundMode : public testing::Test
{
protected:
    BackgroundMode()
    {
        FakeCore::Reset();
        m_dom->SetWx("app.path.work", wxString("/work folder"));
        FakeCore::ClearJournal();
    }
    ~BackgroundMode() override { m_dom->Release(); }

    // The processes up to the supervisor, which `Run` then stands in.
    void DetachToSupervisor() { m_system.forks = {0, 0}; }

    std::optional<int> Run(const wxString& application = "vx_agent")
    {
        Daemon daemon(m_system, m_dom, application);
        return daemon.Run();
    }

    // The status with which `Run` ends the process it stands in.
    Ended RunToEnd(const wxString& application = "vx_agent")
    {
        try {
            Run(application);
        } catch (const Ended& ended) {
            return ended;
        }
        ADD_FAILURE() << "the process goes on";
        return {-1000, false};
    }

    // What the supervisor does from its first fork of a child on.
    static Lines FromFirstWorker()
    {
        const Lines all = Journal();
        const auto first = std::find(all.begin(), all.end(), "BlockTerm()");
        return Lines(first, all.end());
    }

    static Lines LogLines() { return Journal({"Log("}); }

    VexCore::CDom* const m_dom = VexCore::CDom::New(nullptr, nullptr, nullptr, false);
    FakeSystem m_system;
};

// The journal of a start of the child with the given number, and of its end.
Lines StartLines(int child)
{
    return {"BlockTerm()",         "ForkWorker()",  "BlockChild()",
            "HandleTerm(handler)", "UnblockTerm()", "Wait(" + std::to_string(FakeSystem::firstChildId + child) + ")"};
}

Lines GoneLines()
{
    return {"RemoveFile(\"/var/run/vx_agent.pid\")", "ReleaseInstanceLock()"};
}

Lines operator+(Lines left, const Lines& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

} // namespace

// --- single instance

TEST_F(BackgroundMode, StartsWhenThereIsNoPidFile)
{
    EXPECT_EQ(RunToEnd().status, 0);
    EXPECT_THAT(Journal(),
                ElementsAre("ReadPidFile(\"/var/run/vx_agent.pid\")",
                            "TakeInstanceLock(\"/var/run/vx_agent.pid.lock\")", "Dom.GetWxString(\"app.path.work\")",
                            "TakeInstanceLock(\"/work folder/vx_agent.pid.lock\")", "ResetSignals()",
                            "ForkFirstChild()", "PassTermOn(5000)", "Exit(0)"));
}

TEST_F(BackgroundMode, NamesItsPidFileAfterTheApplication)
{
    RunToEnd(wxString::FromUTF8("m\xC3\xBCller agent"));
    EXPECT_EQ(Journal().at(0), "ReadPidFile(\"/var/run/m\xC3\xBCller agent.pid\")");
}

TEST_F(BackgroundMode, ToleratesAPidFileOfADeadProcess)
{
    Answers().pidFileAnswers = {12345};
    m_system.ask = -ESRCH;
    EXPECT_EQ(RunToEnd().status, 0);
    EXPECT_EQ(Journal().at(1), "Ask(12345)");
    EXPECT_THAT(LogLines(), ElementsAre("Log(Info, \"/var/run/vx_agent.pid present (pid=12345), but doesn't seem to be "
                                        "running.\")"));
}

TEST_F(BackgroundMode, RefusesToStartBesideALiveInstance)
{
    Answers().pidFileAnswers = {12345};
    const Ended ended = RunToEnd();
    EXPECT_EQ(ended.status, 1);
    EXPECT_FALSE(ended.atOnce);
    EXPECT_THAT(Journal(), ElementsAre("ReadPidFile(\"/var/run/vx_agent.pid\")", "Ask(12345)",
                                       "Log(Error, \"/var/run/vx_agent.pid present, exiting\")", "Exit(1)"));
}

TEST_F(BackgroundMode, TakesAProcessThatMayNotBeSignalledForALiveInstance)
{
    Answers().pidFileAnswers = {12345};
    m_system.ask = -EPERM;
    EXPECT_EQ(RunToEnd().status, 1);
    EXPECT_EQ(Count("Log(Error, \"/var/run/vx_agent.pid present, exiting\")"), 1u);
}

TEST_F(BackgroundMode, CutsALongPidFileNameToTheCharactersThatTheMessagesAllow)
{
    const wxString name(wxUniChar('n'), 150);
    Answers().pidFileAnswers = {12345, 12345};
    RunToEnd(name);
    const std::string shown = ("/var/run/" + name).Left(128).utf8_string();
    EXPECT_EQ(Count("Log(Error, \"" + shown + " present, exiting\")"), 1u);
    m_system.ask = -ESRCH;
    RunToEnd(name);
    EXPECT_EQ(Count("Log(Info, \"" + shown + " present (pid=12345), but doesn't seem to be running.\")"), 1u);
}

TEST_F(BackgroundMode, EndsAsForALiveInstanceWhenAnotherStartHasTheLock)
{
    m_system.lock = VexOs::LockResult::HeldByOther;
    EXPECT_EQ(RunToEnd().status, 1);
    EXPECT_THAT(LogLines(), ElementsAre("Log(Error, \"/var/run/vx_agent.pid present, exiting\")"));
    EXPECT_TRUE(Journal({"Fork"}).empty());
}

TEST_F(BackgroundMode, EndsWhenAnotherAgentHasTheLockOfTheWorkFolder)
{
    for (const auto lock : {VexOs::LockResult::Taken, VexOs::LockResult::Unavailable}) {
        FakeCore::ClearJournal();
        m_system.lock = lock;
        m_system.workLock = VexOs::LockResult::HeldByOther;
        EXPECT_EQ(RunToEnd().status, 1);
        EXPECT_THAT(LogLines(), ElementsAre("Log(Error, \"The work folder /work folder is in use by another agent of "
                                            "this name (pid=77), exiting\")"));
        EXPECT_TRUE(Journal({"Fork"}).empty());
    }
}

TEST_F(BackgroundMode, ShowsNoIdOfAProcessThatIsGoneOrOutOfSight)
{
    m_system.workLock = VexOs::LockResult::HeldByOther;
    for (const pid_t holder : {0, -1}) {
        FakeCore::ClearJournal();
        m_system.lockHolder = holder;
        EXPECT_EQ(RunToEnd().status, 1);
        EXPECT_THAT(LogLines(), ElementsAre("Log(Error, \"The work folder /work folder is in use by another agent of "
                                            "this name, exiting\")"));
    }
}

TEST_F(BackgroundMode, WaitsForAnEarlierStartsChildThatIsOutOfSight)
{
    DetachToSupervisor();
    m_system.otherWorker = -1;
    m_system.ChildEnds(0);
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(Count("WaitForOtherWorker()"), 1u);
    EXPECT_EQ(Count("Log(Info, \"The child process of an earlier start is still ending, waiting for it.\")"), 1u);
}

TEST_F(BackgroundMode, StartsWithAWarningWhenTheLockBesideThePidFileCannotBeMade)
{
    m_system.lock = VexOs::LockResult::Unavailable;
    EXPECT_EQ(RunToEnd().status, 0);
    EXPECT_THAT(LogLines(),
                ElementsAre("Log(Warning, \"/var/run/vx_agent.pid.lock can't be locked (Permission denied), so a "
                            "second start at the same moment with another work folder would go unnoticed.\")"));
}

TEST_F(BackgroundMode, StartsWithAWarningWhenNeitherLockCanBeMade)
{
    m_system.lock = VexOs::LockResult::Unavailable;
    m_system.workLock = VexOs::LockResult::Unavailable;
    EXPECT_EQ(RunToEnd().status, 0);
    EXPECT_THAT(LogLines(),
                ElementsAre("Log(Warning, \"/var/run/vx_agent.pid.lock can't be locked (Permission denied), so a "
                            "second start at the same moment would go unnoticed.\")"));
}

TEST_F(BackgroundMode, AWorkFolderThatCannotBeLockedTellsOfItself)
{
    m_system.workLock = VexOs::LockResult::Unavailable;
    EXPECT_EQ(RunToEnd().status, 0);
    EXPECT_EQ(LogLines(), Lines{});
}

// --- detach

TEST_F(BackgroundMode, FailsWhenTheFirstForkFails)
{
    m_system.forks = {-EAGAIN};
    EXPECT_EQ(Run(), -1);
    ASSERT_EQ(LogLines().size(), 1u);
    EXPECT_EQ(LogLines()[0].find("Log(Error, \"Unable to fork (error 11: "), 0u) << LogLines()[0];
    EXPECT_TRUE(Journal({"RemoveFile", "WritePidFile", "NewSession"}).empty());
}

TEST_F(BackgroundMode, TheFirstChildMakesASessionAndEnds)
{
    m_system.forks = {0, 300};
    EXPECT_EQ(RunToEnd().status, 0);
    EXPECT_THAT(
        Journal({"Fork", "NewSession", "Dom.", "ChangeFolder", "WaitFor", "PassTermOn", "Exit", "WritePidFile"}),
        ElementsAre("Dom.GetWxString(\"app.path.work\")", "ForkFirstChild()", "NewSession()",
                    "Dom.GetWxString(\"app.path.work\")", "ChangeFolder(\"/work folder\")", "WaitForStarter()",
                    "Fork()", "PassTermOn(300)", "Exit(0)"));
}

TEST_F(BackgroundMode, AStopOfTheStartingProcessGoesOnToItsChild)
{
    m_system.forks = {300};
    m_system.onFork = [this] { m_system.SendTerm(FakeSystem::strangerId); };
    EXPECT_EQ(RunToEnd().status, 0);
    EXPECT_EQ(Journal({"Signal"}), Lines{"SignalProcess(300, TERM)"});
}

TEST_F(BackgroundMode, AStopOfTheFirstChildGoesOnToTheSupervisor)
{
    m_system.forks = {0, 301};
    m_system.onFork = [this] { m_system.SendTerm(FakeSystem::strangerId); };
    EXPECT_EQ(RunToEnd().status, 0);
    EXPECT_EQ(Journal({"Signal"}), Lines{"SignalProcess(301, TERM)"});
}

TEST_F(BackgroundMode, AWorkFolderThatTheLocaleCannotNameIsTheEmptyPath)
{
    const ::Test::LocaleGuard locale(LC_CTYPE);
    m_dom->SetWx("app.path.work", wxString::FromUTF8("/caf\xC3\xA9"));
    m_system.forks = {0, 300};
    ASSERT_NE(std::setlocale(LC_CTYPE, "C"), nullptr);
    RunToEnd();
    EXPECT_EQ(Count("ChangeFolder(\"\")"), 1u);
}

TEST_F(BackgroundMode, FailsWhenTheSecondForkFails)
{
    m_system.forks = {0, -EAGAIN};
    EXPECT_EQ(Run(), -1);
    ASSERT_EQ(LogLines().size(), 1u);
    EXPECT_EQ(LogLines()[0].find("Log(Error, \"Unable to do 2nd fork (error 11: "), 0u) << LogLines()[0];
    EXPECT_TRUE(Journal({"RemoveFile", "WritePidFile"}).empty());
}

// A service manager that finds the file takes a supervisor with a living parent for a stranger, which it kills.
TEST_F(BackgroundMode, TheSupervisorLetsItsStreamsGoAndOutlivesItsParentBeforeItWritesThePidFile)
{
    DetachToSupervisor();
    // The one that waits is another process than its parent.
    m_system.onFork = [this] { ++m_system.self; };
    m_system.ChildEnds(0);
    EXPECT_EQ(Run(), 0);
    EXPECT_THAT(Journal(),
                ElementsAreArray(
                    Lines{"ReadPidFile(\"/var/run/vx_agent.pid\")", "TakeInstanceLock(\"/var/run/vx_agent.pid.lock\")",
                          "Dom.GetWxString(\"app.path.work\")", "TakeInstanceLock(\"/work folder/vx_agent.pid.lock\")",
                          "ResetSignals()", "ForkFirstChild()", "NewSession()", "Dom.GetWxString(\"app.path.work\")",
                          "ChangeFolder(\"/work folder\")", "WaitForStarter()", "Fork()", "StreamsToNull()",
                          "TightenFileMode()", "WaitForAdoption(4243)", "WritePidFile(\"/var/run/vx_agent.pid\")"}
                    + StartLines(0) + Lines{"Log(Info, \"Child process exited with status 0 (exit 0)\")"}
                    + GoneLines()));
}

TEST_F(BackgroundMode, SigtermIsBlockedWhenThePidFileIsWritten)
{
    DetachToSupervisor();
    bool blocked = false;
    Answers().onWritePidFile = [&](const wxString&) { blocked = m_system.TermIsBlocked(); };
    m_system.ChildEnds(0);
    Run();
    EXPECT_TRUE(blocked);
}

TEST_F(BackgroundMode, GoesOnWithoutAPidFileWhenItCannotBeWritten)
{
    DetachToSupervisor();
    Answers().writePidFileResult = false;
    m_system.ChildEnds(5 << 8);
    EXPECT_EQ(Run(), 5);
}

TEST_F(BackgroundMode, AssertsThatNoThreadExistsBeforeItForks)
{
    static int s_asserted = 0;
    s_asserted = 0;
    const wxAssertHandler_t previous = wxSetAssertHandler(
        [](const wxString&, int, const wxString&, const wxString&, const wxString&) { ++s_asserted; });
    m_system.threads = 2;
    RunToEnd();
    wxSetAssertHandler(previous);
    EXPECT_EQ(s_asserted, 1);
}

// --- the supervisor's children

TEST_F(BackgroundMode, TheWorkingChildComesBackToRunTheApplication)
{
    m_system.forks = {0, 0, 0};
    EXPECT_EQ(Run(), std::nullopt);
    EXPECT_TRUE(m_system.TermIsBlocked()) << "until its run sequence takes a stop";
    EXPECT_EQ(m_system.TermHandler(), nullptr) << "the first child has the initial dispositions";
    EXPECT_EQ(Count("BlockChild()"), 0u);
}

TEST_F(BackgroundMode, ARestartedChildInheritsTheSupervisorsSignals)
{
    m_system.forks = {0, 0, 700, 0};
    m_system.ChildEnds(SIGKILL);
    EXPECT_EQ(Run(), std::nullopt);
    EXPECT_TRUE(m_system.TermIsBlocked());
    EXPECT_EQ(m_system.TermHandler(), &pass_signal);
    EXPECT_EQ(Count("BlockChild()"), 1u);
}

TEST_F(BackgroundMode, TheFirstChildIsToldOfNobodyBeforeIt)
{
    m_system.forks = {0, 0, 0};
    EXPECT_EQ(Run(), std::nullopt);
    EXPECT_EQ(Journal({"Dom.Set"}), Lines{});
}

TEST_F(BackgroundMode, ARestartedChildIsToldHowTheOneBeforeItEndedAndHowManyThereWere)
{
    const auto told = [this] {
        std::string all;
        for (const char* key : {"count", "crashes", "crashed", "process", "end"})
            all += m_dom->Get((std::string("app.restart.") + key).c_str()) + ";";
        return all;
    };
    m_system.forks = {0, 0, 700, 0};
    m_system.ChildEnds(SIGBUS);
    EXPECT_EQ(Run(), std::nullopt);
    EXPECT_EQ(told(), "1;1;true;700;Child process exited with status 7 (signal 7: Bus error);");

    m_system.forks = {0, 0, 700, 701, 702, 0};
    m_system.ChildEnds(SIGSEGV);
    m_system.ChildEnds(SIGKILL);
    m_system.ChildEnds(exitThree);
    EXPECT_EQ(Run(), std::nullopt);
    EXPECT_EQ(told(), "3;1;false;702;Child process exited with status 768 (exit 3);");
}

TEST_F(BackgroundMode, TheSupervisorItselfWritesNoKeys)
{
    DetachToSupervisor();
    m_system.ChildEnds(SIGSEGV);
    m_system.ChildEnds(0);
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(Journal({"Dom.Set"}), Lines{});
}

TEST_F(BackgroundMode, HandsTheChildsExitCodeOn)
{
    for (const int code : {0, 1, 2, 4, 255}) {
        FakeCore::ClearJournal();
        DetachToSupervisor();
        m_system.ChildEnds(code << 8);
        EXPECT_EQ(Run(), code);
        EXPECT_EQ(Journal({"RemoveFile"}), Lines{"RemoveFile(\"/var/run/vx_agent.pid\")"});
    }
}

TEST_F(BackgroundMode, EndsWithZeroWhenTheChildWasKilledBySigterm)
{
    DetachToSupervisor();
    m_system.ChildEnds(SIGTERM);
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(Journal({"RemoveFile"}), Lines{"RemoveFile(\"/var/run/vx_agent.pid\")"});
}

TEST_F(BackgroundMode, RestartsAKilledChildAfterADelay)
{
    DetachToSupervisor();
    m_system.ChildEnds(SIGKILL);
    m_system.ChildEnds(0);
    EXPECT_EQ(Run(), 0);
    const std::string killed = "Log(Info, \"Child process exited with status 9 (signal 9: Killed)\")";
    EXPECT_THAT(FromFirstWorker(),
                ElementsAreArray(StartLines(0)
                                 + Lines{killed, "Log(Info, \"Delaying 1000ms before restart 1\")", "Sleep(1000)"}
                                 + StartLines(1) + Lines{"Log(Info, \"Child process exited with status 0 (exit 0)\")"}
                                 + GoneLines()));
}

TEST_F(BackgroundMode, ACrashAfterMoreThanTheSpanRestartsWithoutDelay)
{
    DetachToSupervisor();
    m_system.waits.push_back([this] {
        m_system.now += 513;
        return SIGSEGV;
    });
    m_system.ChildEnds(0);
    EXPECT_EQ(Run(), 0);
    EXPECT_TRUE(Journal({"Sleep", "Log(Info, \"Delaying"}).empty());
    EXPECT_EQ(Journal({"Log(Error"}).size(), 1u);
}

TEST_F(BackgroundMode, RefusesTheNinthStartInTheSpan)
{
    DetachToSupervisor();
    for (int i = 0; i < 8; ++i)
        m_system.ChildEnds(SIGABRT);
    EXPECT_EQ(Run(), -1);
    EXPECT_EQ(Count("ForkWorker()"), 8u);
    EXPECT_THAT(Journal({"Sleep"}), ElementsAre("Sleep(1000)", "Sleep(2000)", "Sleep(4000)", "Sleep(8000)",
                                                "Sleep(16000)", "Sleep(32000)", "Sleep(64000)"));
    const Lines all = Journal();
    EXPECT_EQ(Lines(all.end() - 3, all.end()),
              (Lines{"Log(Error, \"Too many restarts in too short of a time, exiting (8 restarts in less than 512 "
                     "seconds)\")"}
               + GoneLines()));
}

TEST_F(BackgroundMode, CountsStartsFromBeforeTheirDelay)
{
    // The second start is noted at second 0 of its delay of 1 s, so that it leaves the span a second earlier.
    DetachToSupervisor();
    m_system.ChildEnds(SIGKILL);
    m_system.waits.push_back([this] {
        m_system.now += 511;
        return SIGKILL;
    });
    m_system.ChildEnds(0);
    EXPECT_EQ(Run(), 0);
    EXPECT_THAT(Journal({"Sleep"}), ElementsAre("Sleep(1000)")) << "512 s after both notes nothing counts";
}

TEST_F(BackgroundMode, RefusesTheFirstStartWhenTheSpansBeginLeavesThirtyTwoBits)
{
    DetachToSupervisor();
    m_system.now = static_cast<std::int64_t>(std::numeric_limits<std::int32_t>::max()) + 513;
    EXPECT_EQ(Run(), -1);
    EXPECT_EQ(Count("ForkWorker()"), 0u);
    EXPECT_EQ(Journal({"RemoveFile"}).size(), 1u);
}

TEST_F(BackgroundMode, FailsWhenTheChildCannotBeForked)
{
    m_system.forks = {0, 0, -EAGAIN};
    EXPECT_EQ(Run(), -1);
    const Lines lines = FromFirstWorker();
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines[2].find("Log(Error, \"Unable to fork child (error 11: "), 0u) << lines[2];
    EXPECT_EQ(Lines(lines.begin() + 3, lines.end()), GoneLines());
}

TEST_F(BackgroundMode, WaitsAgainWhenTheWaitIsInterrupted)
{
    DetachToSupervisor();
    m_system.waits.push_back([] { return -EINTR; });
    m_system.waits.push_back([] { return -EINTR; });
    m_system.ChildEnds(0);
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(Count("Log(Warning, \"Waiting for child process interrupted - Try again\")"), 2u);
    EXPECT_EQ(Count("Wait(5000)"), 3u);
}

TEST_F(BackgroundMode, FailsWhenItCannotWaitForTheChild)
{
    DetachToSupervisor();
    m_system.waits.push_back([] { return -ECHILD; });
    EXPECT_EQ(Run(), -1);
    ASSERT_EQ(LogLines().size(), 1u);
    EXPECT_EQ(LogLines()[0].find("Log(Error, \"Error waiting for child process (error 10: "), 0u) << LogLines()[0];
    EXPECT_EQ(Journal({"RemoveFile"}).size(), 1u);
}

// --- driver

TEST_F(BackgroundMode, StopsTheDriverBeforeEachRestartAfterExitThree)
{
    DetachToSupervisor();
    m_system.executable = true;
    for (int i = 0; i < 3; ++i)
        m_system.ChildEnds(exitThree);
    m_system.ChildEnds(0);
    EXPECT_EQ(Run(), 0);
    const Lines stop = {"Log(Info, \"Child process exited with status 768 (exit 3)\")",
                        "IsExecutable(\"/opt/vx_agent/SunOS.init\")",
                        "Execute(\"/opt/vx_agent/SunOS.init\", {\"stopmod\"})",
                        "Log(Message, \"Driver stopped using /opt/vx_agent/SunOS.init\")"};
    EXPECT_THAT(FromFirstWorker(),
                ElementsAreArray(
                    StartLines(0) + stop + Lines{"Log(Info, \"Delaying 1000ms before restart 1\")", "Sleep(1000)"}
                    + StartLines(1) + stop + Lines{"Log(Info, \"Delaying 2000ms before restart 2\")", "Sleep(2000)"}
                    + StartLines(2) + stop + Lines{"Log(Info, \"Delaying 4000ms before restart 3\")", "Sleep(4000)"}
                    + StartLines(3) + Lines{"Log(Info, \"Child process exited with status 0 (exit 0)\")"}
                    + GoneLines()));
}

TEST_F(BackgroundMode, SaysWhyTheDriverCouldNotBeStoppedAndRestarts)
{
    DetachToSupervisor();
    m_system.executable = true;
    Answers().executeResult = false;
    Answers().executeError = "no such interpreter";
    m_system.ChildEnds(exitThree);
    m_system.ChildEnds(0);
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(Count("Log(Error, \"Error stopping driver: no such interpreter\")"), 1u);
    EXPECT_EQ(Count("ForkWorker()"), 2u);
}

TEST_F(BackgroundMode, RunsNoDriverScriptThatIsNotExecutable)
{
    DetachToSupervisor();
    m_system.ChildEnds(exitThree);
    m_system.ChildEnds(0);
    EXPECT_EQ(Run(), 0);
    EXPECT_TRUE(Journal({"Execute", "Log(Message", "Log(Error"}).empty());
    EXPECT_EQ(Count("ForkWorker()"), 2u);
}

TEST_F(BackgroundMode, StopsNoDriverAfterAnyOtherEnd)
{
    DetachToSupervisor();
    m_system.executable = true;
    m_system.ChildEnds(SIGKILL);
    m_system.ChildEnds(4 << 8);
    EXPECT_EQ(Run(), 4);
    EXPECT_TRUE(Journal({"IsExecutable", "Execute"}).empty());
}

// --- SIGTERM

TEST_F(BackgroundMode, TheFirstSigtermTakesThePidFileAwayAndStopsTheGroup)
{
    DetachToSupervisor();
    m_system.waits.push_back([this] {
        FakeCore::ClearJournal();
        m_system.SendTerm(FakeSystem::strangerId);
        return -EINTR;
    });
    m_system.ChildEnds(6 << 8);
    EXPECT_EQ(Run(), 6) << "it keeps waiting and ends with the child's code";
    EXPECT_THAT(Journal(), ElementsAreArray(
                               GoneLines()
                               + Lines{"SignalOwnGroup(TERM)",
                                       "Log(Warning, \"Waiting for child process interrupted - Try again\")",
                                       "Wait(5000)", "Log(Info, \"Child process exited with status 1536 (exit 6)\")"}))
        << "the file that may stand there by then is another instance's";
}

TEST_F(BackgroundMode, ALaterSigtermEndsTheSupervisorAtOnceWithZero)
{
    DetachToSupervisor();
    m_system.waits.push_back([this] {
        m_system.SendTerm(FakeSystem::strangerId);
        FakeCore::ClearJournal();
        m_system.SendTerm(FakeSystem::strangerId);
        return -EINTR;
    });
    const Ended ended = RunToEnd();
    EXPECT_EQ(ended.status, 0);
    EXPECT_TRUE(ended.atOnce);
    EXPECT_THAT(Journal(), ElementsAre("SignalOwnGroup(TERM)", "ExitNow(0)"));
}

TEST_F(BackgroundMode, ASigtermOfItsOwnIsIgnored)
{
    DetachToSupervisor();
    m_system.waits.push_back([this] {
        FakeCore::ClearJournal();
        m_system.SendTerm(FakeSystem::ownId);
        m_system.SendTerm(FakeSystem::ownId);
        return -EINTR;
    });
    m_system.ChildEnds(SIGKILL);
    m_system.ChildEnds(0);
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(Journal({"SignalOwnGroup", "ExitNow"}), Lines{});
    EXPECT_EQ(Count("ForkWorker()"), 1u) << "it is no stop: a killed child is restarted";
}

TEST_F(BackgroundMode, PassSignalDoesNothingInAProcessThatIsNotTheSupervisor)
{
    DetachToSupervisor();
    m_system.waits.push_back([this] {
        FakeCore::ClearJournal();
        m_system.self = 9999; // a forked copy that still has the handler
        m_system.SendTerm(FakeSystem::strangerId);
        EXPECT_TRUE(Journal().empty());
        m_system.self = FakeSystem::ownId;
        return 0;
    });
    EXPECT_EQ(Run(), 0);
}

TEST_F(BackgroundMode, PassSignalKeepsErrno)
{
    DetachToSupervisor();
    m_system.waits.push_back([this] {
        errno = E2BIG;
        m_system.SendTerm(FakeSystem::strangerId);
        EXPECT_EQ(errno, E2BIG);
        return 0;
    });
    EXPECT_EQ(Run(), 0);
}

TEST_F(BackgroundMode, OutsideOfItsOwnGroupItStopsTheChildAlone)
{
    DetachToSupervisor();
    m_system.waits.push_back([this] {
        m_system.group = 31; // moved by somebody: strangers are in there
        FakeCore::ClearJournal();
        m_system.SendTerm(FakeSystem::strangerId);
        return 0;
    });
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(Journal({"Signal"}), Lines{"SignalChild(5000, TERM)"});
}

TEST_F(BackgroundMode, AStopBetweenPidFileAndHandlerReachesTheFirstChild)
{
    DetachToSupervisor();
    Answers().onWritePidFile = [this](const wxString&) { m_system.SendTerm(FakeSystem::strangerId); };
    m_system.ChildEnds(0);
    EXPECT_EQ(Run(), 0);
    EXPECT_THAT(Journal({"ForkWorker", "HandleTerm", "SignalOwnGroup", "RemoveFile", "Wait("}),
                ElementsAre("ForkWorker()", "HandleTerm(handler)", "RemoveFile(\"/var/run/vx_agent.pid\")",
                            "SignalOwnGroup(TERM)", "Wait(5000)"));
}

TEST_F(BackgroundMode, AStopDuringARestartsForkReachesTheNewChild)
{
    DetachToSupervisor();
    m_system.waits.push_back([this] {
        m_system.onFork = [this] { m_system.SendTerm(FakeSystem::strangerId); };
        return SIGKILL;
    });
    m_system.ChildEnds(0);
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(Count("ForkWorker()"), 2u);
    EXPECT_EQ(Count("SignalOwnGroup(TERM)"), 1u);
}

TEST_F(BackgroundMode, AStopInADelayEndsAtOnceWithZero)
{
    DetachToSupervisor();
    m_system.ChildEnds(SIGKILL);
    m_system.onSleep = [this] {
        FakeCore::ClearJournal();
        m_system.SendTerm(FakeSystem::strangerId);
    };
    const Ended ended = RunToEnd();
    EXPECT_EQ(ended.status, 0);
    EXPECT_TRUE(ended.atOnce);
    EXPECT_THAT(Journal(), ElementsAreArray(GoneLines() + Lines{"SignalOwnGroup(TERM)", "ExitNow(0)"}));
}

TEST_F(BackgroundMode, AStopDuringTheDriversStopEndsAtOnceWithZero)
{
    DetachToSupervisor();
    m_system.executable = true;
    m_system.ChildEnds(exitThree);
    Answers().onExecute = [this] {
        FakeCore::ClearJournal();
        m_system.SendTerm(FakeSystem::strangerId);
    };
    EXPECT_EQ(RunToEnd().status, 0);
    EXPECT_EQ(Journal({"ExitNow"}), Lines{"ExitNow(0)"});
    EXPECT_EQ(Journal({"RemoveFile"}).size(), 1u);
}

TEST_F(BackgroundMode, AfterAHandledSigtermNoFurtherChildIsStarted)
{
    for (const int status : {static_cast<int>(SIGKILL), static_cast<int>(SIGSEGV), 0x137f}) {
        FakeCore::ClearJournal();
        DetachToSupervisor();
        m_system.waits.push_back([this, status] {
            m_system.SendTerm(FakeSystem::strangerId);
            return status;
        });
        EXPECT_EQ(Run(), 0);
        EXPECT_EQ(Count("ForkWorker()"), 1u);
    }
}

TEST_F(BackgroundMode, AfterAHandledSigtermExitThreeStillStopsTheDriver)
{
    DetachToSupervisor();
    m_system.executable = true;
    m_system.waits.push_back([this] {
        m_system.SendTerm(FakeSystem::strangerId);
        return exitThree;
    });
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(Count("Log(Message, \"Driver stopped using /opt/vx_agent/SunOS.init\")"), 1u);
    EXPECT_EQ(Count("ForkWorker()"), 1u);
}

TEST_F(BackgroundMode, AStopWhileItEndsLeavesTheFileOfANewInstanceAlone)
{
    DetachToSupervisor();
    m_system.ChildEnds(0);
    ASSERT_EQ(Run(), 0);
    FakeCore::ClearJournal();
    EXPECT_THROW(m_system.SendTerm(FakeSystem::strangerId), Ended);
    EXPECT_THAT(Journal(), ElementsAre("SignalOwnGroup(TERM)", "ExitNow(0)"));
}

TEST_F(BackgroundMode, AStopWhileItTakesItsPidFileAwayLeavesNoFile)
{
    DetachToSupervisor();
    m_system.ChildEnds(5 << 8);
    m_system.onRemoveFile = [this] { m_system.SendTerm(FakeSystem::strangerId); };
    const Ended ended = RunToEnd();
    EXPECT_EQ(ended.status, 0);
    EXPECT_TRUE(ended.atOnce);
    EXPECT_THAT(Journal({"RemoveFile", "ReleaseInstanceLock", "ExitNow"}),
                ElementsAreArray(GoneLines() + Lines{"ExitNow(0)"}));
}

TEST_F(BackgroundMode, AStopAfterAFailedWaitLeavesNoFileAndEndsAtOnce)
{
    DetachToSupervisor();
    m_system.waits.push_back([] { return -ECHILD; });
    m_system.onRemoveFile = [this] { m_system.SendTerm(FakeSystem::strangerId); };
    EXPECT_TRUE(RunToEnd().atOnce);
    EXPECT_THAT(Journal({"RemoveFile", "ReleaseInstanceLock", "ExitNow"}),
                ElementsAreArray(GoneLines() + Lines{"ExitNow(0)"}));
}

TEST_F(BackgroundMode, KeepsTheNameOfThePidFileForTheHandler)
{
    DetachToSupervisor();
    m_system.ChildEnds(0);
    Run();
    EXPECT_EQ(g_pidFileName, pidFile);
}

TEST_F(BackgroundMode, ANameThatIsTooLongForAFileLeavesTheHandlerNothingToRemove)
{
    DetachToSupervisor();
    m_system.ChildEnds(0);
    EXPECT_EQ(Run(wxString(wxUniChar('n'), 100000)), 0);
    EXPECT_EQ(Journal({"RemoveFile"}), Lines{"RemoveFile(\"\")"});
}

// --- an earlier start's child

TEST_F(BackgroundMode, WaitsForTheChildOfAnEarlierStartBeforeItsFirst)
{
    DetachToSupervisor();
    m_system.otherWorker = 811;
    m_system.ChildEnds(0);
    EXPECT_EQ(Run(), 0);
    const Lines all = Journal();
    const auto written = std::find(all.begin(), all.end(), "WritePidFile(\"/var/run/vx_agent.pid\")");
    EXPECT_THAT(
        Lines(written + 1, all.end()),
        ElementsAreArray(
            Lines{"Log(Info, \"The child process of an earlier start (pid=811) is still ending, waiting "
                  "for it.\")",
                  "HandleTerm(handler)", "UnblockTerm()", "WaitForOtherWorker()", "BlockTerm()", "HandleTerm(default)"}
            + StartLines(0) + Lines{"Log(Info, \"Child process exited with status 0 (exit 0)\")"} + GoneLines()));
}

TEST_F(BackgroundMode, AStopWhileItWaitsForAnEarlierStartsChildEndsAtOnceWithZero)
{
    DetachToSupervisor();
    m_system.otherWorker = 811;
    m_system.onWaitForOther = [this] { m_system.SendTerm(FakeSystem::strangerId); };
    EXPECT_EQ(RunToEnd().status, 0);
    EXPECT_EQ(Count("ForkWorker()"), 0u);
    EXPECT_EQ(Journal({"RemoveFile"}).size(), 1u);
}

TEST_F(BackgroundMode, TheLockOfTheWorkFolderAloneFindsAnEarlierStartsChild)
{
    DetachToSupervisor();
    m_system.lock = VexOs::LockResult::Unavailable;
    m_system.otherWorker = 811;
    m_system.ChildEnds(0);
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(Count("WaitForOtherWorker()"), 1u);
}

TEST_F(BackgroundMode, WithoutALockItDoesNotLookForAnEarlierStartsChild)
{
    DetachToSupervisor();
    m_system.lock = VexOs::LockResult::Unavailable;
    m_system.workLock = VexOs::LockResult::Unavailable;
    m_system.otherWorker = 811;
    m_system.ChildEnds(0);
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(Count("WaitForOtherWorker()"), 0u);
}

// --- endurance

TEST_F(BackgroundMode, TenThousandRestartsKeepTheRules)
{
    DetachToSupervisor();
    for (int i = 0; i < 10000; ++i)
        m_system.waits.push_back([this] {
            m_system.now += 64;
            if (m_system.waits.size() % 1000 == 0)
                FakeCore::ClearJournal();
            return SIGKILL;
        });
    m_system.ChildEnds(0);
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(m_system.now > 1700000000 + 640000, true);
}
