#include "vex_core/lua/lua_programs.h"

#include "support/joining_thread.h"
#include "support/lua_results.h"
#include "support/process_guards.h"
#include "support/temp_folder.h"
#include "vex/core/luainterpreter.h"
#include "vex/core/sendsignal.h"
#include "vex_core/base/end_steps.h"
#include "vex_core/os/process_info.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <lua.hpp>

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

using ::testing::HasSubstr;

namespace {
void EndHelpers()
{
    VexCore::EndSteps::OfProcess().Find(VexCore::EndStep::EndHelpers)();
}

class LuaPrograms : public ::testing::Test
{
protected:
    // The interpreter waits for each program that is still open.
    ~LuaPrograms() override { EndHelpers(); }

    std::string Run(const std::string& code) { return ::Test::LuaResults(m_lua.L(), code); }

    ::Test::TempFolder m_folder;
    VexCore::CLuaInterpreter m_lua{false, L"test", true};
};

bool ComesToItsEnd(pid_t pid)
{
    for (int i = 0; i < 4000; ++i) {
        VexCore::os::ProcessInfo info;
        if (!VexCore::os::GetProcessInfo(pid, info) || info.zombie)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
}

} // namespace

TEST_F(LuaPrograms, ResultsOfExecuteAreLuasOwn)
{
    EXPECT_EQ(Run("return os.execute()"), "true");
    EXPECT_EQ(Run("return os.execute('true')"), "true exit 0");
    EXPECT_EQ(Run("return os.execute('exit 3')"), "nil exit 3");
    EXPECT_EQ(Run("return os.execute('kill -9 $$')"), "nil signal 9");
    EXPECT_THAT(Run("os.execute({})"), HasSubstr("bad argument #1 to 'execute' (string expected, got table)"));
}

TEST_F(LuaPrograms, StreamsOfPopenAreLuasOwn)
{
    EXPECT_EQ(Run("local f = io.popen('echo one; echo two; exit 4') local text = f:read('*a')\n"
                  "return io.type(f), text, f:close()"),
              "file one\ntwo\n nil exit 4");
    EXPECT_EQ(Run("local f = io.popen('cat > " + (m_folder / "written") + "', 'w') f:write('a\\0b') return f:close()"),
              "true exit 0");
    EXPECT_EQ(::Test::ReadFile(m_folder / "written"), std::string("a\0b", 3));
    EXPECT_EQ(Run("return io.popen('true', 'x')"), "nil true: Invalid argument 22");
    EXPECT_EQ(Run("local f = io.popen('true') f:close() return io.type(f), pcall(f.read, f)"),
              "closed file false attempt to use a closed file");
    EXPECT_EQ(Run("local n = 0 for line in io.popen('seq 5'):lines() do n = n + line end return n"), "15");
}

TEST_F(LuaPrograms, ThoseWhoseStatusSomebodyElseTookHaveNone)
{
    const auto before = std::signal(SIGCHLD, SIG_DFL);
    ::Test::JoiningThread somebody([this](const std::atomic<bool>& stop) {
        while (!stop && !std::filesystem::exists(m_folder / "runs"))
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        std::signal(SIGCHLD, SIG_IGN);
        ::Test::WriteFile(m_folder / "go", "");
    });
    EXPECT_EQ(Run("return os.execute('touch " + (m_folder / "runs") + "; while [ ! -e " + (m_folder / "go")
                  + " ]; do sleep 0.01; done')"),
              "nil No child processes 10");
    somebody.join();
    std::signal(SIGCHLD, before);
}

TEST_F(LuaPrograms, StartAlthoughAnotherThreadIsBlockedInAStream)
{
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    std::FILE* const stream = ::fdopen(ends[0], "r");
    std::thread reader([stream] { std::fgetc(stream); });
    std::atomic<bool> done{false};
    std::thread release([&] {
        for (int i = 0; i < 4000 && !done; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        ::close(ends[1]);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50)); // blocked by now
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(Run("return io.popen('echo here'):read()"), "here");
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30));
    done = true;
    release.join();
    reader.join();
    std::fclose(stream);
}

TEST_F(LuaPrograms, WhatTheyWriteComesBehindWhatWasWrittenBefore)
{
    std::fflush(stdout);
    const int before = ::dup(STDOUT_FILENO);
    const int file = ::open((m_folder / "written").c_str(), O_WRONLY | O_CREAT, 0600);
    ::dup2(file, STDOUT_FILENO);
    Run("io.write('ours ') io.popen('echo theirs', 'w'):close()");
    bool isFree = false;
    std::thread([&isFree] {
        isFree = ::ftrylockfile(stdout) == 0;
        if (isFree)
            ::funlockfile(stdout);
    }).join();
    std::fflush(stdout);
    ::dup2(before, STDOUT_FILENO);
    ::close(file);
    ::close(before);
    EXPECT_EQ(::Test::ReadFile(m_folder / "written"), "ours theirs\n");
    EXPECT_TRUE(isFree);
}

TEST_F(LuaPrograms, CollectedStreamIsClosed)
{
    EXPECT_EQ(Run("io.popen('cat > " + (m_folder / "written") + "', 'w'):write('kept') collectgarbage()"), "");
    EXPECT_EQ(::Test::ReadFile(m_folder / "written"), "kept");
}

TEST_F(LuaPrograms, StartWithDefaultDispositionsAnEmptyMaskAndNoDescriptors)
{
    const ::Test::SignalGuard signals;
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    sigaddset(&blocked, SIGINT);
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    struct sigaction before[2];
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGHUP, &ignore, &before[0]);
    sigaction(SIGPIPE, &ignore, &before[1]);
    const int extra = ::open("/dev/null", O_RDONLY); // not close-on-exec
    // The shell gives its own mask to background jobs alone.
    const std::string show = "grep SigBlk /proc/self/status & wait; grep SigIgn /proc/self/status; "
                             "ls /proc/self/fd | paste -sd ' '";
    const std::string shown = "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n0 1 2 3\n";
    EXPECT_EQ(Run("return io.popen([[" + show + "]]):read('*a')"), shown);
    EXPECT_EQ(Run("os.execute([[(" + show + ") > " + (m_folder / "shown") + "]])"), "");
    EXPECT_EQ(::Test::ReadFile(m_folder / "shown"), shown);
    ::close(extra);
    sigaction(SIGHUP, &before[0], nullptr);
    sigaction(SIGPIPE, &before[1], nullptr);
}

TEST_F(LuaPrograms, BackgroundJobEndsWithTheProcess)
{
    const pid_t job = std::atoi(Run("os.execute('sleep 60 & echo $! > " + (m_folder / "job")
                                    + "')\n"
                                      "return io.open('"
                                    + (m_folder / "job") + "'):read('*n')")
                                    .c_str());
    ASSERT_GT(job, 1);
    const pid_t reads = std::atoi(Run("f = io.popen('echo $$; exec sleep 60') return f:read('*n')").c_str());
    ASSERT_GT(reads, 1);
    EndHelpers();
    EXPECT_TRUE(ComesToItsEnd(job));
    EXPECT_TRUE(ComesToItsEnd(reads));
    EXPECT_EQ(Run("return f:close()"), "nil signal 15");
}

TEST_F(LuaPrograms, AreToldOnceToEnd)
{
    const std::string told = m_folder / "told";
    ::Test::WriteFile(told, "");
    const pid_t program = std::atoi(Run("f = io.popen([[trap 'echo told >> " + told
                                        + "' TERM; echo $$; while :; do sleep 0.02; done]]) return f:read('*n')")
                                        .c_str());
    EXPECT_GT(program, 1); // a program that ignores its end must be killed below
    EndHelpers();
    for (int i = 0; i < 2000 && ::Test::ReadFile(told).empty(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    std::this_thread::sleep_for(std::chrono::milliseconds(200)); // a second word would come now
    EXPECT_EQ(::Test::ReadFile(told), "told\n");
    VexCore::SendSignal(program, SIGKILL);
    EXPECT_EQ(Run("return f:close()"), "nil signal 9");
}

TEST_F(LuaPrograms, WhatWasWrittenToAProgramArrivesAlsoWhenTheProcessEnds)
{
    EXPECT_EQ(Run("f = io.popen('sleep 0.05; cat > " + (m_folder / "written") + "; echo end >> "
                  + (m_folder / "written") + "', 'w') f:write('last words\\n')"),
              "");
    EndHelpers();
    EXPECT_EQ(::Test::ReadFile(m_folder / "written"), "last words\nend\n");
    EXPECT_EQ(Run("return f:close()"), "true exit 0");
}
