#include "vex_core/threads/ending.h"

#include "support/test_thread.h"
#include "vex/core/openssl.h"
#include "vex/core/processexit.h"
#include "vex/core/sqlitedb.h"
#include "vex_core/base/wait.h"
#include "vex_core/lua/worker_list.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <iterator>
#include <ostream>
#include <string>
#include <utility>

#include <gtest/gtest.h>
#include <unistd.h>

using namespace VexCore;
using Test::Launch;
using Test::ServeLoop;

namespace {
constexpr const char* stepNames[endStepCount] = {"EndThreads",       "EndHelpers",     "ReleaseOpenSslLocks",
                                                 "StoreEvents",      "CloseDatabases", "EmptyLogQueue",
                                                 "WriteChunkCaches", "FlushLog",       "FlushStreams"};

std::string* g_record = nullptr;

template <std::size_t step>
void Record()
{
    *g_record += std::string(stepNames[step]) + ' ';
}

// Straight to the descriptor: it is asked for when streams and buffers are gone.
template <std::size_t step>
void Tell()
{
    const std::string text = std::string(stepNames[step]) + ' ';
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, text.data(), text.size());
}

template <std::size_t... step>
void RegisterRecorders(EndSteps& steps, std::index_sequence<step...>)
{
    (steps.Register(static_cast<EndStep>(step), &Record<step>), ...);
}

template <std::size_t... step>
void TellStepsOfTheProcess(std::index_sequence<step...>)
{
    (EndSteps::OfProcess().Replace(static_cast<EndStep>(step), &Tell<step>), ...);
}

constexpr std::size_t stretchCount = static_cast<std::size_t>(lastEndStretch) + 1;

} // namespace

TEST(EndingTable, EachStretchTakesItsStepsInTheirOrder)
{
    const struct
    {
        EndStretch stretch;
        const char* steps;
    } rows[] = {{EndStretch::EndOfThreads, "EndThreads EndHelpers ReleaseOpenSslLocks "},
                {EndStretch::EndOfDatabases, "StoreEvents CloseDatabases "},
                {EndStretch::BeforeExit, "StoreEvents EmptyLogQueue "},
                {EndStretch::Exit, "WriteChunkCaches FlushLog "},
                {EndStretch::ExitOverThreads, "FlushLog FlushStreams "},
                {EndStretch::AtOnce, ""}};
    ASSERT_EQ(std::size(rows), stretchCount);
    EndSteps steps;
    RegisterRecorders(steps, std::make_index_sequence<endStepCount>());
    for (const auto& row : rows) {
        std::string record;
        g_record = &record;
        TakeEndSteps(row.stretch, steps);
        EXPECT_EQ(record, row.steps);
    }
}

TEST(EndingTable, EveryStepHasAnOwnerAndAPlace)
{
    for (std::size_t i = 0; i < endStepCount; ++i) {
        const EndStep step = static_cast<EndStep>(i);
        EXPECT_NE(EndSteps::OfProcess().Find(step), nullptr) << stepNames[i];
        bool used = false;
        for (std::size_t stretch = 0; stretch < stretchCount; ++stretch)
            used = used || HasEndStep(static_cast<EndStretch>(stretch), step);
        EXPECT_TRUE(used) << stepNames[i];
    }
}

TEST(EndingTable, StepThatNobodyHasRegisteredIsPassedOver)
{
    EndSteps steps;
    std::string record;
    g_record = &record;
    steps.Register(EndStep::FlushStreams, &Record<static_cast<std::size_t>(EndStep::FlushStreams)>);
    TakeEndSteps(EndStretch::ExitOverThreads, steps);
    TakeEndSteps(EndStretch::Exit, steps);
    EXPECT_EQ(record, "FlushStreams ");
}

TEST(EndingTable, SecondOwnerOfAStepIsAMistake)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EndSteps steps;
    steps.Register(EndStep::FlushLog, [] {});
    EXPECT_DEATH(steps.Register(EndStep::FlushLog, [] {}), "^Step 7 of the end of the process is registered twice");
}

// A blocked stream is waited for, and nothing else.
TEST(EndingTable, StreamsThatAreFreeAreFlushedAtOnce)
{
    const EndSteps::Function flushStreams = EndSteps::OfProcess().Find(EndStep::FlushStreams);
    auto shortest = std::chrono::steady_clock::duration::max();
    for (int i = 0; i < 5; ++i) { // the machine may be busy
        const auto begin = std::chrono::steady_clock::now();
        flushStreams();
        shortest = std::min(shortest, std::chrono::steady_clock::now() - begin);
    }
    EXPECT_LT(shortest, std::chrono::milliseconds(900));
}

// --- the ways out, each in a process of its own

struct WayOut
{
    const char* name;
    void (*go)();
    const char* told; // a pattern of what the steps say
};

void PrintTo(const WayOut& way, std::ostream* out)
{
    *out << way.name;
}

class WayOutOfTheProcess : public testing::TestWithParam<WayOut>
{};

TEST_P(WayOutOfTheProcess, TakesItsSteps)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(
        {
            TellStepsOfTheProcess(std::make_index_sequence<endStepCount>());
            GetParam().go();
        },
        [](int) { return true; }, GetParam().told);
}

void OrderlyEnd()
{
    OpenSSLThreadShutdown();
    CSqliteDatabase::ShutdownSQLite();
    std::exit(0);
}

void ExitFromThread()
{
    Launch([] { ExitProcessFromThread(0); });
    ServeLoop();
}

void ExitFromThreadBesideAnother()
{
    Launch([] { WaitPoint::OfThisThread().Sleep(-1); });
    ExitFromThread();
}

void ExitPastAStraggler()
{
    Launch([] {
        for (;;)
            ::pause();
    });
    EndThreads(50);
    std::exit(0);
}

const WayOut waysOut[] = {
    {"OrderlyEnd", &OrderlyEnd,
     "^EndThreads EndHelpers ReleaseOpenSslLocks StoreEvents CloseDatabases WriteChunkCaches FlushLog $"},
    {"Exit", [] { std::exit(0); }, "^WriteChunkCaches FlushLog $"},
    {"ExitOnTheMainThread", [] { ExitProcessFromThread(0); }, "^StoreEvents EmptyLogQueue WriteChunkCaches FlushLog $"},
    {"ExitFromThread", &ExitFromThread, "^StoreEvents EmptyLogQueue WriteChunkCaches FlushLog $"},
    {"ExitFromThreadBesideAnother", &ExitFromThreadBesideAnother, "^StoreEvents EmptyLogQueue FlushLog FlushStreams $"},
    {"ExitPastAStraggler", &ExitPastAStraggler, "left behind\\.\nFlushLog FlushStreams $"},
    {"Abort", [] { std::abort(); }, "^$"},
    {"Terminate", [] { std::terminate(); }, "^terminate called[^A-Z]*$"},
    {"ExitAtOnce", [] { ::_exit(0); }, "^$"},
};

INSTANTIATE_TEST_SUITE_P(Ending, WayOutOfTheProcess, testing::ValuesIn(waysOut),
                         [](const testing::TestParamInfo<WayOut>& way) { return std::string(way.param.name); });
