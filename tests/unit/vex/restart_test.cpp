// The supervisor's rules: restarts in a span, delays, and what the end of a child means.

#include "vex/apps/vex/restart.h"

#include <csignal>
#include <deque>
#include <random>
#include <string>

#include <gtest/gtest.h>

namespace {
constexpr std::int64_t ordinaryTime = 1700000000; // an ordinary time

// A wait status as the system makes it.
int Exited(int code)
{
    return code << 8;
}

int Killed(int signal, bool core = false)
{
    return signal | (core ? 0x80 : 0);
}

} // namespace

TEST(RestartHistory, NothingCountsBeforeTheFirstStart)
{
    EXPECT_EQ(RestartHistory().CountRecent(ordinaryTime), 0);
}

TEST(RestartHistory, EachStartWithinTheSpanCounts)
{
    RestartHistory history;
    for (int i = 0; i < restartLimit; ++i) {
        EXPECT_EQ(history.CountRecent(ordinaryTime + i), i);
        history.NoteStart(ordinaryTime + i);
        history.Advance();
    }
    EXPECT_EQ(history.CountRecent(ordinaryTime + restartLimit), restartLimit);
}

TEST(RestartHistory, AStartCountsUntilTheSpanIsOver)
{
    RestartHistory history;
    history.NoteStart(ordinaryTime);
    history.Advance();
    EXPECT_EQ(history.CountRecent(ordinaryTime + 511), 1);
    EXPECT_EQ(history.CountRecent(ordinaryTime + 512), 0) << "an entry at the bound itself is out";
}

TEST(RestartHistory, ANoteIsReplacedUntilItIsAdvanced)
{
    RestartHistory history;
    history.NoteStart(ordinaryTime);
    history.NoteStart(ordinaryTime + 1);
    EXPECT_EQ(history.CountRecent(ordinaryTime + 2), 1);
}

TEST(RestartHistory, TheNinthStartOverwritesTheFirst)
{
    RestartHistory history;
    for (int i = 0; i < restartLimit; ++i) {
        history.NoteStart(ordinaryTime);
        history.Advance();
    }
    history.NoteStart(ordinaryTime + 1000);
    history.Advance();
    EXPECT_EQ(history.CountRecent(ordinaryTime + 1000), 1);
}

TEST(RestartHistory, AClockSetBackKeepsTheStartsThatNowLieAhead)
{
    RestartHistory history;
    history.NoteStart(ordinaryTime);
    history.Advance();
    EXPECT_EQ(history.CountRecent(ordinaryTime - 100000), 1);
}

TEST(RestartHistory, TheLastSecondBeforeTheBoundLeavesThirtyTwoBitsIsStillOrdinary)
{
    EXPECT_EQ(RestartHistory().CountRecent(static_cast<std::int64_t>(INT32_MAX) + restartSpanSeconds), 0);
}

TEST(RestartHistory, BeyondThirtyTwoBitsEvenEmptyEntriesCount)
{
    // Kept on purpose: the bound wraps to a negative number.
    EXPECT_EQ(RestartHistory().CountRecent(static_cast<std::int64_t>(INT32_MAX) + restartSpanSeconds + 1),
              restartLimit);
}

TEST(RestartDelay, DoublesWithEachRecentStart)
{
    const long expected[] = {0, 1000, 2000, 4000, 8000, 16000, 32000, 64000};
    for (int recent = 0; recent < restartLimit; ++recent)
        EXPECT_EQ(RestartDelayMs(recent), expected[recent]) << recent;
}

TEST(Restart, AChildThatDiesAtOnceIsStartedEightTimesWithinTwoMinutesAndThenNoMore)
{
    RestartHistory history;
    std::int64_t clock = ordinaryTime;
    std::vector<std::int64_t> starts;
    while (history.CountRecent(clock) < restartLimit) {
        const std::int64_t now = clock;
        clock += RestartDelayMs(history.CountRecent(now)) / 1000;
        history.NoteStart(now);
        starts.push_back(clock - ordinaryTime);
        history.Advance();
    }
    EXPECT_EQ(starts, (std::vector<std::int64_t>{0, 1, 3, 7, 15, 31, 63, 127}));
}

TEST(Restart, AMillionChildLivesNeverMakeMoreThanEightStartsInAnySpan)
{
    std::mt19937 random(20260131); // a fixed seed: a failure repeats
    // Lives of every order of magnitude, and runs of the same kind, which is what a failing agent looks like.
    const std::int64_t longest[] = {1, 5, 40, 50, 70, 200, 511, 600, 5000};
    int refused = 0;
    int lives = 0;
    while (lives < 1000000) {
        RestartHistory history;
        std::int64_t clock = ordinaryTime + static_cast<std::int64_t>(random() % 100000);
        std::deque<std::int64_t> starts; // when the children really began
        std::int64_t kind = 0;
        for (int i = 0; i < 200; ++i, ++lives) {
            if (i % 16 == 0)
                kind = longest[random() % std::size(longest)];
            const std::int64_t now = clock;
            const int recent = history.CountRecent(now);
            if (recent >= restartLimit) {
                ++refused;
                break;
            }
            clock += RestartDelayMs(recent) / 1000;
            history.NoteStart(now);
            starts.push_back(clock);
            if (starts.size() > restartLimit) {
                ASSERT_GE(starts.back() - starts.front(), restartSpanSeconds) << "nine starts in less than the span";
                starts.pop_front();
            }
            clock += static_cast<std::int64_t>(random() % static_cast<unsigned>(kind + 1));
            history.Advance();
        }
    }
    EXPECT_GT(refused, 100) << "the patterns hardly reach the limit";
}

// --- the end of a child

namespace {
struct Row
{
    const char* what;
    int status;
    const char* name;
    bool stopping;
    wxLogLevel level;
    std::string message;
    AfterChild action;
    int code;
};

std::string Number(int value)
{
    return std::to_string(value);
}

std::string ExitText(int code)
{
    return "Child process exited with status " + Number(Exited(code)) + " (exit " + Number(code) + ")";
}

std::string SignalText(const char* verb, int status, int signal, const char* name)
{
    return std::string("Child process ") + verb + " with status " + Number(status) + " (signal " + Number(signal) + ": "
           + name + ")";
}

class EndOfAChild : public testing::TestWithParam<Row>
{};

std::vector<Row> Rows()
{
    constexpr AfterChild returns = AfterChild::Return;
    constexpr AfterChild restarts = AfterChild::Restart;
    std::vector<Row> rows = {
        {"ExitZeroEndsTheSupervisor", Exited(0), "n", false, wxLOG_Info, ExitText(0), returns, 0},
        {"ExitOneIsHandedOn", Exited(1), "n", false, wxLOG_Info, ExitText(1), returns, 1},
        {"Exit255IsHandedOn", Exited(255), "n", false, wxLOG_Info, ExitText(255), returns, 255},
        {"ExitThreeStopsTheDriverAndRestarts", Exited(3), "n", false, wxLOG_Info, ExitText(3),
         AfterChild::StopDriverAndRestart, 0},
        {"ExitThreeWhileStoppingStopsTheDriverAndEndsWithZero", Exited(3), "n", true, wxLOG_Info, ExitText(3),
         AfterChild::StopDriverAndReturn, 0},
        {"ExitCodeWhileStoppingIsHandedOn", Exited(7), "n", true, wxLOG_Info, ExitText(7), returns, 7},
        {"TermEndsWithZero", Killed(SIGTERM), "T", false, wxLOG_Info, SignalText("exited", SIGTERM, SIGTERM, "T"),
         returns, 0},
        {"TermWithCoreEndsWithZero", Killed(SIGTERM, true), "T", false, wxLOG_Info,
         SignalText("exited", Killed(SIGTERM, true), SIGTERM, "T"), returns, 0},
        {"KillIsAPlainExitAndRestarts", Killed(SIGKILL), "Killed", false, wxLOG_Info,
         SignalText("exited", SIGKILL, SIGKILL, "Killed"), restarts, 0},
        {"KillWhileStoppingEndsWithZero", Killed(SIGKILL), "Killed", true, wxLOG_Info,
         SignalText("exited", SIGKILL, SIGKILL, "Killed"), returns, 0},
        {"CrashWhileStoppingEndsWithZero", Killed(SIGSEGV, true), "S", true, wxLOG_Error,
         SignalText("crashed", Killed(SIGSEGV, true), SIGSEGV, "S"), returns, 0},
        {"ASignalWithoutAName", Killed(SIGUSR1), nullptr, false, wxLOG_Info,
         SignalText("exited", SIGUSR1, SIGUSR1, "Unknown Signal"), restarts, 0},
        {"BothBytesSetIsAnotherStatus", 0x137f, "n", false, wxLOG_Info, "Child process exited with status 4991",
         restarts, 0},
        {"BothBytesSetWithTermsNumberIsNoTerm", (1 << 8) | SIGTERM, "n", false, wxLOG_Info,
         "Child process exited with status " + Number((1 << 8) | SIGTERM), restarts, 0},
        {"BothBytesSetWhileStoppingEndsWithZero", 0x137f, "n", true, wxLOG_Info,
         "Child process exited with status 4991", returns, 0},
    };
    const struct
    {
        const char* name;
        int signal;
        bool crash;
    } signals[] = {
        {"Ill", SIGILL, true},    {"Trap", SIGTRAP, true},  {"Abrt", SIGABRT, true}, {"Segv", SIGSEGV, true},
        {"Fpe", SIGFPE, false},   {"Bus", SIGBUS, false},   {"Hup", SIGHUP, false},  {"Int", SIGINT, false},
        {"Quit", SIGQUIT, false}, {"Pipe", SIGPIPE, false},
#ifdef SIGEMT
        {"Emt", SIGEMT, false},
#endif
    };
    for (const auto& item : signals)
        for (const bool core : {false, true})
            rows.push_back(
                {item.name, Killed(item.signal, core), "name", false, item.crash ? wxLOG_Error : wxLOG_Info,
                 SignalText(item.crash ? "crashed" : "exited", Killed(item.signal, core), item.signal, "name"),
                 restarts, 0});
    return rows;
}

} // namespace

TEST_P(EndOfAChild, IsReportedAndActedOn)
{
    const Row& row = GetParam();
    const ChildEnd end = JudgeChildEnd(row.status, row.name, row.stopping);
    EXPECT_EQ(end.message.utf8_string(), row.message);
    EXPECT_EQ(end.level, row.level);
    EXPECT_EQ(end.action, row.action);
    EXPECT_EQ(end.status, row.code);
}

INSTANTIATE_TEST_SUITE_P(Row, EndOfAChild, testing::ValuesIn(Rows()), [](const testing::TestParamInfo<Row>& parameter) {
    return std::string(parameter.param.what) + "_" + std::to_string(parameter.index);
});

TEST(Crash, IsAnEndByASignalForWhichThereIsADump)
{
    for (const int signal : {SIGILL, SIGTRAP, SIGABRT, SIGSEGV, SIGBUS, SIGFPE})
        for (const bool core : {false, true})
            EXPECT_TRUE(JudgeChildEnd(Killed(signal, core), "name", false).crashed) << signal;
    for (const int signal : {SIGKILL, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1})
        EXPECT_FALSE(JudgeChildEnd(Killed(signal), "name", false).crashed) << signal;
    for (const int code : {0, 3, int{SIGSEGV}, int{SIGBUS}})
        EXPECT_FALSE(JudgeChildEnd(Exited(code), nullptr, false).crashed) << code;
    EXPECT_FALSE(JudgeChildEnd((1 << 8) | SIGBUS, "name", false).crashed) << "a status of no known kind";
}

TEST(ChildExit, EveryExitCodeIsReportedAndHandedOnButThree)
{
    for (int code = 0; code < 256; ++code) {
        const ChildEnd end = JudgeChildEnd(Exited(code), nullptr, false);
        EXPECT_EQ(end.message.utf8_string(), ExitText(code));
        EXPECT_EQ(end.status, code == 3 ? 0 : code);
    }
}
