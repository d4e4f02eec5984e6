#include "vex_core/process/helper_program.h"

#include "support/need.h"
#include "support/temp_folder.h"
#include "support/test_thread.h"
#include "vex/core/sendsignal.h"
#include "vex_core/base/end_steps.h"
#include "vex_core/os/process_info.h"
#include "vex_core/process/run_program.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace VexCore;
using ::Test::TestThread;
using Clock = std::chrono::steady_clock;

namespace {
ProgramRequest ShellRequest(const std::string& script)
{
    ProgramRequest request;
    request.program = "/bin/sh";
    request.arguments = {"-c", script};
    return request;
}

bool Comes(const std::function<bool()>& condition)
{
    const auto limit = Clock::now() + std::chrono::seconds(20);
    while (!condition() && Clock::now() < limit)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return condition();
}

bool Runs(pid_t pid)
{
    os::ProcessInfo info;
    return os::GetProcessInfo(pid, info) && !info.zombie;
}

// Runs a script on a thread that is asked to end when the script has made the file "runs".
ProgramResult RunAndStop(const ::Test::TempFolder& folder, const std::string& script, long& elapsedMs)
{
    ProgramResult result;
    TestThread thread([&](TestThread&) { result = RunProgram(ShellRequest(script)); });
    thread.start(50, true, 0);
    EXPECT_TRUE(Comes([&] { return std::filesystem::exists(folder / "runs"); }));
    const auto begin = Clock::now();
    thread.requestExit();
    thread.join();
    elapsedMs = static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count());
    return result;
}

// A shell that reads from us.
class ReadingShell
{
public:
    explicit ReadingShell(std::string script)
    {
        os::Pipe pipe = os::OpenPipe();
        m_stream.reset(::fdopen(pipe.writing.Release(), "w"));
        std::string name = "sh", option = "-c";
        char* const arguments[] = {name.data(), option.data(), script.data(), nullptr};
        os::SpawnPlan plan;
        plan.program = "/bin/sh";
        plan.arguments = arguments;
        plan.input = pipe.reading.Get();
        m_program = ::Test::Need(HelperProgram::Start(plan));
        m_program->SetInput(m_stream.get());
    }
    ~ReadingShell() { m_program->SetInput(nullptr); }
    ReadingShell(const ReadingShell&) = delete;
    ReadingShell& operator=(const ReadingShell&) = delete;

    HelperProgram& Program() { return *m_program; }

private:
    struct Closer
    {
        void operator()(std::FILE* stream) const { std::fclose(stream); }
    };
    std::unique_ptr<std::FILE, Closer> m_stream;
    std::unique_ptr<HelperProgram> m_program;
};

void EndHelpers()
{
    EndSteps::OfProcess().Find(EndStep::EndHelpers)();
}

} // namespace

TEST(HelperOfAThread, EndsWhenTheThreadIsAskedToEnd)
{
    const ::Test::TempFolder folder;
    long elapsedMs = 0;
    // Its own program is ended too; the shell may look at that first, and tell it on standard error.
    const ProgramResult result = RunAndStop(folder,
                                            "exec 2>/dev/null; trap 'echo told; exit' TERM; echo early; touch "
                                                + (folder / "runs") + "; sleep 60 & wait; wait",
                                            elapsedMs);
    EXPECT_LT(elapsedMs, 8000);
    EXPECT_FALSE(result.ran);
    EXPECT_EQ(result.error, "Program '/bin/sh' was ended, because its thread is asked to end");
    EXPECT_EQ(result.output, "early\ntold\n");
}

TEST(HelperOfAThread, EndsAlsoWhenItIgnoresTheFirstWord)
{
    const ::Test::TempFolder folder;
    long elapsedMs = 0;
    const ProgramResult result =
        RunAndStop(folder, "trap '' TERM; touch " + (folder / "runs") + "; while :; do sleep 0.1; done", elapsedMs);
    EXPECT_GE(elapsedMs, 1500);
    EXPECT_LT(elapsedMs, 8000);
    EXPECT_FALSE(result.ran);
}

TEST(HelperOfAThread, EndsAlsoWhenItIgnoresTheEndOfItsInput)
{
    HelperProgram::End end = HelperProgram::End::OfItself;
    Clock::time_point begin;
    TestThread thread([&](TestThread& self) {
        ReadingShell reader("exec sleep 30");
        self.requestExit();
        reader.Program().SetInput(nullptr); // as who closes the stream does before he waits
        begin = Clock::now();
        end = reader.Program().Wait(0, {});
    });
    thread.start(50, true, 0);
    thread.join();
    EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(900)) << "it has a second for the rest of its input";
    EXPECT_LT(Clock::now() - begin, std::chrono::seconds(20));
    EXPECT_EQ(end, HelperProgram::End::Stopped);
}

TEST(HelperOfAThread, IsNotStartedWhenTheThreadWasAskedBefore)
{
    const ::Test::TempFolder folder;
    ProgramResult result;
    MayStart may[2] = {};
    TestThread thread([&](TestThread& self) {
        self.requestExit();
        result = RunProgram(ShellRequest("touch " + (folder / "runs")));
        for (MayStart& each : may)
            each = AskToStart();
    });
    thread.start(50, true, 0);
    thread.join();
    EXPECT_FALSE(result.ran);
    EXPECT_EQ(result.error, "Unable to run '/bin/sh': this thread is asked to end and starts no more programs");
    EXPECT_FALSE(std::filesystem::exists(folder / "runs"));
    EXPECT_EQ(may[0], MayStart::NoAgain);
    EXPECT_EQ(may[1], MayStart::NoAgain);
    EXPECT_EQ(AskToStart(), MayStart::Yes) << "another thread";
}

TEST(HelperOfAThread, OfAnotherThreadIsLeftAlone)
{
    const ::Test::TempFolder folder;
    ProgramResult result;
    TestThread other([](TestThread&) {});
    TestThread thread([&](TestThread&) {
        result = RunProgram(ShellRequest("touch " + (folder / "runs") + "; sleep 0.3; echo whole"));
    });
    other.start(50, true, 0);
    thread.start(50, true, 0);
    EXPECT_TRUE(Comes([&] { return std::filesystem::exists(folder / "runs"); }));
    other.requestExit();
    thread.join();
    other.join();
    EXPECT_TRUE(result.ran) << result.error;
    EXPECT_EQ(result.output, "whole\n");
}

TEST(HelpersAtTheEnd, WhatAProgramHasLeftRunningGetsATerm)
{
    const ProgramResult result = RunProgram(ShellRequest("sleep 60 & echo $!"));
    const pid_t left = std::atoi(result.output.c_str());
    ASSERT_TRUE(Runs(left));
    EndHelpers();
    EXPECT_TRUE(Comes([&] { return !Runs(left); }));
}

TEST(HelpersAtTheEnd, WhatSeveralProgramsHaveLeftRunningGetsATerm)
{
    pid_t left[3] = {};
    for (pid_t& each : left)
        each = std::atoi(RunProgram(ShellRequest("sleep 60 & echo $!")).output.c_str());
    SendSignal(left[0], SIGKILL);
    EXPECT_TRUE(Comes([&] { return !Runs(left[0]); }));
    RunProgram(ShellRequest("true"));
    ASSERT_TRUE(Runs(left[1]) && Runs(left[2]));
    EndHelpers();
    EXPECT_TRUE(Comes([&] { return !Runs(left[1]) && !Runs(left[2]); }));
}

TEST(HelpersAtTheEnd, WhatHasASessionOfItsOwnIsLeftAlone)
{
    const ::Test::TempFolder folder;
    const ProgramResult result =
        RunProgram(ShellRequest("setsid sh -c 'echo $$ > " + (folder / "pid") + "; exec sleep 60' & while [ ! -s "
                                + (folder / "pid") + " ]; do sleep 0.01; done; sleep 60 & echo $!"));
    const pid_t own = std::atoi(::Test::ReadFile(folder / "pid").c_str());
    const pid_t left = std::atoi(result.output.c_str());
    ASSERT_TRUE(Runs(own) && Runs(left));
    EndHelpers();
    EXPECT_TRUE(Comes([&] { return !Runs(left); }));
    EXPECT_TRUE(Runs(own));
    SendSignal(own, SIGKILL);
}

TEST(HelpersAtTheEnd, WhatStillRunsGetsATerm)
{
    std::string name = "sleep", time = "60";
    char* const arguments[] = {name.data(), time.data(), nullptr};
    os::SpawnPlan plan;
    plan.program = "/bin/sleep";
    plan.arguments = arguments;
    const std::unique_ptr<HelperProgram> program = ::Test::Need(HelperProgram::Start(plan));
    EndHelpers();
    EXPECT_EQ(program->Wait(0, {}), HelperProgram::End::Stopped);
    EXPECT_EQ(program->Status(), SIGTERM);
}

TEST(HelpersAtTheEnd, WhoReadsFromUsHasTheTimeThatThisTakesAndNoLonger)
{
    auto shortest = Clock::duration::max();
    for (int i = 0; i < 3; ++i) { // the machine may be busy
        ReadingShell reader("exec cat > /dev/null");
        const auto begin = Clock::now();
        EndHelpers();
        shortest = std::min(shortest, Clock::now() - begin);
        reader.Program().Wait(0, {});
    }
    EXPECT_LT(shortest, std::chrono::milliseconds(900));
}
