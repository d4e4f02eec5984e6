#include "vex/core/processexit.h"

#include "support/child.h"
#include "support/stranger.h"
#include "support/temp_folder.h"
#include "support/test_thread.h"
#include "vex/core/agentevent.h"
#include "vex/core/log.h"
#include "vex/core/luainterpreter.h"
#include "vex_core/base/wait.h"
#include "vex_core/events/agentevent_store.h"
#include "vex_core/lua/worker_list.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <unistd.h>
#include <wx/log.h>
#include <wx/sstream.h>

using namespace VexCore;
using ::Test::Launch;
using ::Test::ServeLoop;

namespace {
class ProcessEnd : public ::testing::Test
{
protected:
    ProcessEnd() { testing::FLAGS_gtest_death_test_style = "threadsafe"; }

    // Says on standard error that `exit` ran its handlers, and so its destructors.
    static void TellAtExit()
    {
        std::atexit([] { std::fputs("handlers ran", stderr); });
    }
};

TEST_F(ProcessEnd, MainThreadExitsAsUsual)
{
    EXPECT_EXIT((TellAtExit(), ExitProcessFromThread(3)), ::testing::ExitedWithCode(3), "handlers ran");
}

TEST_F(ProcessEnd, AnotherThreadParksTheMainThreadInItsLoop)
{
    EXPECT_EXIT(
        {
            TellAtExit();
            Launch([] { ExitProcessFromThread(4); });
            ServeLoop();
        },
        ::testing::ExitedWithCode(4), "^handlers ran$");
}

TEST_F(ProcessEnd, ExitOfALuaScriptDoesTheSame)
{
    EXPECT_EXIT(
        {
            TellAtExit();
            Launch([] {
                CLuaInterpreter lua(false, L"exit", true);
                wxStringInputStream in("os.exit(6)");
                lua.RunScript(in, 0, 0, "exit", nullptr);
            });
            ServeLoop();
        },
        ::testing::ExitedWithCode(6), "^handlers ran$");
}

TEST_F(ProcessEnd, MainThreadThatWaitsForThreadsToEndIsParkedThere)
{
    EXPECT_EXIT(
        {
            TellAtExit();
            Launch([] {
                while (!CRunnable::Current()->TestDestroy())
                    WaitPoint::OfThisThread().Sleep(-1);
                std::this_thread::sleep_for(std::chrono::milliseconds(50)); // the main thread waits by then
                ExitProcessFromThread(5);
            });
            StopAllWorkers(60000);
            std::fputs("main came back", stderr);
            std::_Exit(1);
        },
        ::testing::ExitedWithCode(5), "^handlers ran$");
}

TEST_F(ProcessEnd, NoDestructorRunsUnderAnotherThreadOfOurs)
{
    EXPECT_EXIT(
        {
            TellAtExit();
            Launch([] { WaitPoint::OfThisThread().Sleep(-1); });
            Launch([] { ExitProcessFromThread(7); });
            ServeLoop();
        },
        ::testing::ExitedWithCode(7), "^$");
}

std::atomic<bool> g_hasStream{false};

// Blocks in a stream of C's library, with the stream's lock.
void ReadForEver()
{
    int ends[2];
    if (::pipe(ends) != 0)
        return;
    std::FILE* const stream = ::fdopen(ends[0], "r");
    g_hasStream = true;
    std::fgetc(stream);
}

TEST_F(ProcessEnd, ExitOfALuaScriptBesideOtherThreadsDoesWhatExitDoes)
{
    const ::Test::TempFolder folder;
    const std::string kept = folder / "kept";
    const ::Test::ChildResult child = ::Test::RunChild([&]() -> int {
        Launch(&ReadForEver);
        Launch([&] {
            while (!g_hasStream)
                std::this_thread::yield();
            std::this_thread::sleep_for(std::chrono::milliseconds(50)); // the other is blocked by then
            CLuaInterpreter lua(false, L"exit", true);
            TellAtExit(); // as a native module may
            const std::string code = "pipe = io.popen('cat >&2', 'w') pipe:write(' piped')\n"
                                     "file = io.open('"
                                     + kept
                                     + "', 'w') file:write('kept')\n"
                                       "os.exit(6)";
            wxStringInputStream in(wxString::FromUTF8(code.c_str()));
            lua.RunScript(in, 0, 0, "exit", nullptr);
        });
        ServeLoop();
    });
    EXPECT_TRUE(child.Exited(6)) << child.status;
    EXPECT_EQ(child.standardError, "handlers ran piped");
    EXPECT_EQ(::Test::ReadFile(kept), "kept");
}

TEST_F(ProcessEnd, LogAndStandardOutputAreEmptiedAlsoWithoutDestructors)
{
    EXPECT_EXIT(
        {
            ::dup2(2, 1);
            std::printf("printed");
            wxLog::SetActiveTarget(new CLog2Disk);
            ::Test::LogFromAStranger("queued, and held for want of a place");
            Launch([] { WaitPoint::OfThisThread().Sleep(-1); });
            Launch([] { ExitProcessFromThread(7); });
            ServeLoop();
        },
        ::testing::ExitedWithCode(7), "/thread\\] queued, and held for want of a place\nprinted$");
}

// Takes its time over what the main thread writes, and says when it has begun.
class SlowInMain : public CLog2Disk
{
public:
    explicit SlowInMain(std::promise<void>& begun) : m_begun(begun) {}

protected:
    void DoLogRecord(wxLogLevel level, const wxString& text, const wxLogRecordInfo& info) override
    {
        if (wxThread::IsMain()) {
            m_begun.set_value();
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
        }
        CLog2Disk::DoLogRecord(level, text, info);
    }

private:
    std::promise<void>& m_begun;
};

TEST_F(ProcessEnd, LineThatTheMainThreadIsWritingIsWaitedForAlsoWithoutDestructors)
{
    EXPECT_EXIT(
        {
            static std::promise<void> begun;
            wxLog::SetActiveTarget(new SlowInMain(begun));
            ::Test::LogFromAStranger("taken out of the queue");
            Launch([] { WaitPoint::OfThisThread().Sleep(-1); });
            Launch([] {
                begun.get_future().wait();
                ExitProcessFromThread(7);
            });
            ServeLoop();
        },
        ::testing::ExitedWithCode(7), "/thread\\] taken out of the queue\n$");
}

TEST_F(ProcessEnd, EventsThatWaitedForRoomAreStoredAlsoWithoutACleanUp)
{
    static const ::Test::TempFolder folder;
    static const std::string work = folder / "later";
    EXPECT_EXIT(
        {
            std::atexit(
                [] { std::fputs(std::filesystem::exists(work + "/events.db") ? "stored in time" : "lost", stderr); });
            GetEventStore(work)->Write(CAgentEvent());
            std::filesystem::create_directory(work);
            ExitProcessFromThread(3);
        },
        ::testing::ExitedWithCode(3), "stored in time");
}

TEST_F(ProcessEnd, LaterExitWaitsForTheEndThatTheFirstBegan)
{
    EXPECT_EXIT(
        {
            std::atexit([] {
                std::thread([] { ExitProcessFromThread(9); }).detach();
                std::this_thread::sleep_for(std::chrono::milliseconds(200));
            });
            Launch([] { ExitProcessFromThread(8); });
            ServeLoop();
        },
        ::testing::ExitedWithCode(8), "");
}

TEST_F(ProcessEnd, FirstOfSeveralExitsCounts)
{
    EXPECT_EXIT(
        {
            for (int i = 0; i < 8; ++i)
                Launch([] { ExitProcessFromThread(8); });
            ServeLoop();
        },
        ::testing::ExitedWithCode(8), "");
}

} // namespace
