// Native modules of Lua code: their code stays in the process until its end, whatever becomes of the state that has
// loaded them. Each test runs in a process of its own, as the module stays.

#include "support/need.h"
#include "support/temp_folder.h"
#include "vex/core/dom.h"
#include "vex/core/luainterpreter.h"
#include "vex_core/lua/worker.h"
#include "vex_core/lua/worker_list.h"

#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <wx/evtloop.h>
#include <wx/log.h>
#include <wx/sstream.h>

using namespace VexCore;

namespace {
constexpr const char* loadModule = "package.cpath = [[" VEX_BINARY_DIR "/tests/?.so]]\n"
                                   "local count = require('lualinger')\n";

void RunScript(const std::string& code)
{
    CLuaInterpreter lua(false, L"test", true);
    wxStringInputStream in(wxString::FromUTF8((loadModule + code).c_str()));
    if (lua.RunScript(in, 0, 0, "test", nullptr) != 0)
        wxLogError("%s", lua.GetErrorInfo());
}

// Long enough for a thread of the module to need its code again.
void LetItTurn()
{
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
}

class NativeCode : public ::testing::Test
{
protected:
    NativeCode() { testing::FLAGS_gtest_death_test_style = "threadsafe"; }
};

TEST_F(NativeCode, StaysWhenTheThreadThatLoadedItEnds)
{
    EXPECT_EXIT(
        {
            std::thread([] { RunScript(""); }).join();
            LetItTurn();
            std::exit(3);
        },
        ::testing::ExitedWithCode(3), "^thread data\nexit handler\n$");
}

TEST_F(NativeCode, StaysWhenTheOnlyStateIsClosedOnTheMainThread)
{
    EXPECT_EXIT(
        {
            RunScript("");
            LetItTurn();
            std::exit(3);
        },
        ::testing::ExitedWithCode(3), "^exit handler\n$");
}

TEST_F(NativeCode, IsTheSameForTheNextState)
{
    EXPECT_EXIT(
        {
            RunScript("");
            RunScript("io.stderr:write('load ', count, '\\n')");
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "^load 2\nexit handler\n$");
}

TEST_F(NativeCode, StaysWhenAnExitClosesTheState)
{
    EXPECT_EXIT(RunScript("os.exit(4, true)"), ::testing::ExitedWithCode(4), "^exit handler\n$");
}

TEST_F(NativeCode, StaysWhenAWorkerThatLoadedItEnds)
{
    EXPECT_EXIT(
        {
            const ::Test::TempFolder folder;
            ::Test::WriteFile(folder / "job.lua", "return {run = function()\n" + std::string(loadModule) + "end}");
            CDom* const dom = CDom::New(nullptr, nullptr, nullptr, false);
            dom->Set("app.path.bin", folder.Path());
            const auto worker = ::Test::Need(Worker::Start(*dom, "job", LuaValue()));
            worker->WaitForEnd(-1);
            LetItTurn();
            StopAllWorkers(1000);
            std::exit(worker->Status() + 3);
        },
        ::testing::ExitedWithCode(3), "^thread data\nexit handler\n$");
}

} // namespace
