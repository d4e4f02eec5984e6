// Unit-test mode of the launcher.

#include "vex/apps/vex/vex_p.h"

#include "support/agent_app.h"
#include "support/fake_core.h"
#include "support/process_guards.h"

#include <csignal>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <lua.hpp>

#include <unistd.h>

using Access = AgentAppTestAccess;
using FakeCore::Answers;
using FakeCore::Count;
using FakeCore::Journal;
using testing::HasSubstr;

namespace {
class UnitTestMode : public testing::Test
{
protected:
    UnitTestMode()
    {
        FakeCore::Reset();
        m_app.reset(new AgentApp);
        App().SetAppName("vx_agent");
        Access::Lua(App()) = new VexCore::CLuaInterpreter(false, L"test", true);
        FakeCore::ClearJournal();
        ::alarm(0);
    }
    ~UnitTestMode() override { ::alarm(0); }

    CAgentApp& App() { return **m_app; }

    // The runner module's function, in Lua.
    void DefineRunner(const std::string& function)
    {
        ASSERT_EQ(luaL_dostring(App().L(), ("package.loaded['tests.vexunit'] = " + function).c_str()), 0);
    }

    int Run(const char* scripts)
    {
        Access::UnitTestScript(App()) = wxString::FromUTF8(scripts);
        ::Test::StandardOutput standardOutput;
        ::Test::StandardError standardError;
        const int status = App().RunUnitTests();
        m_error = standardError.Text();
        m_output = standardOutput.Text();
        return status;
    }

    std::string m_error;
    std::string m_output;
    std::unique_ptr<AgentApp> m_app;
};

std::string ChunkLine(const std::string& scripts)
{
    return "Lua.RunScript(\"vexunit = require('tests.vexunit'); return vexunit(\"" + scripts
           + "\");\", 0, 1, \"tests.vexunit\", out)";
}

} // namespace

TEST_F(UnitTestMode, DoesNothingWithoutAScript)
{
    EXPECT_EQ(Run(""), 0);
    EXPECT_TRUE(Journal().empty());
    EXPECT_EQ(::alarm(0), 0u) << "an alarm was set";
}

TEST_F(UnitTestMode, HandsTheNameToTheRunnerUnchanged)
{
    DefineRunner("function(...) got = table.concat({...}, '|') return 0 end");
    EXPECT_EQ(Run("tests/*.lua"), 0);
    EXPECT_EQ(Count(ChunkLine("tests/*.lua")), 1u);
    lua_getglobal(App().L(), "got");
    EXPECT_STREQ(lua_tostring(App().L(), -1), "tests/*.lua");
    lua_pop(App().L(), 1);
    EXPECT_EQ(m_error, "");
}

TEST_F(UnitTestMode, KeepsLettersBeyondAscii)
{
    DefineRunner("function(s) got = s return 0 end");
    EXPECT_EQ(Run("gr\xC3\xBC\xC3\x9F.lua"), 0);
    lua_getglobal(App().L(), "got");
    EXPECT_STREQ(lua_tostring(App().L(), -1), "gr\xC3\xBC\xC3\x9F.lua");
    lua_pop(App().L(), 1);
}

TEST_F(UnitTestMode, DoesNotEscapeQuotesOrBackslashes)
{
    DefineRunner("function(...) count = select('#', ...) first = ... return 0 end");
    EXPECT_EQ(Run("a\\065\", \"b"), 0);
    EXPECT_EQ(Count(ChunkLine("a\\065\", \"b")), 1u);
    ASSERT_EQ(luaL_dostring(App().L(), "return count .. first"), 0);
    EXPECT_STREQ(lua_tostring(App().L(), -1), "2aA");
    lua_pop(App().L(), 1);
}

TEST_F(UnitTestMode, SetsATimeLimitThatIsNotCancelled)
{
    DefineRunner("function() return 0 end");
    EXPECT_EQ(Run("x"), 0);
    const unsigned left = ::alarm(0);
    EXPECT_GT(left, 590u);
    EXPECT_LE(left, 600u);
}

TEST_F(UnitTestMode, TheTimeLimitRunsBeforeTheTests)
{
    unsigned left = 0;
    Answers().onRunScript = [&left] { left = ::alarm(600); };
    DefineRunner("function() return 0 end");
    Run("x");
    EXPECT_GT(left, 590u);
}

TEST_F(UnitTestMode, ReturnsTheRunnersResultAndPrintsTheLastErrorText)
{
    DefineRunner("function() return 3 end");
    Answers().errorInfo = "last";
    EXPECT_EQ(Run("x"), 3);
    EXPECT_EQ(m_error, "last\n");
}

TEST_F(UnitTestMode, ARunnerWithoutAResultSucceeds)
{
    for (const char* function : {"function() end", "function() return nil end", "function() return {} end"}) {
        DefineRunner(function);
        EXPECT_EQ(Run("x"), 0) << function;
    }
}

TEST_F(UnitTestMode, ARunnerThatIsMissingOrFailsIsAFailureWithItsText)
{
    EXPECT_EQ(Run("x"), 2);
    EXPECT_THAT(m_error, HasSubstr("module 'tests.vexunit' not found"));
    DefineRunner("function() error('runner fell over') end");
    EXPECT_EQ(Run("x"), 2);
    EXPECT_THAT(m_error, HasSubstr("runner fell over"));
}

TEST_F(UnitTestMode, OutputIsFlushedBeforeTheErrorText)
{
    // One file for both, so that their order shows.
    DefineRunner("function() print('out') return 1 end");
    Answers().errorInfo = "err";
    FILE* const file = std::tmpfile();
    std::fflush(stdout);
    const int output = ::dup(1);
    const int error = ::dup(2);
    ::dup2(::fileno(file), 1);
    ::dup2(::fileno(file), 2);
    Access::UnitTestScript(App()) = "x";
    EXPECT_EQ(App().RunUnitTests(), 1);
    ::dup2(output, 1);
    ::dup2(error, 2);
    ::close(output);
    ::close(error);
    char text[64] = "";
    std::rewind(file);
    const std::size_t length = std::fread(text, 1, sizeof text - 1, file);
    std::fclose(file);
    EXPECT_EQ(std::string(text, length), "out\nerr\n");
}

TEST_F(UnitTestMode, StandardOutputStaysOpen)
{
    DefineRunner("function() print('tests') return 0 end");
    EXPECT_EQ(Run("x"), 0);
    EXPECT_EQ(m_output, "tests\n");
    ::Test::StandardOutput standardOutput;
    std::printf("later\n");
    EXPECT_EQ(standardOutput.Text(), "later\n");
}

TEST_F(UnitTestMode, LeavesTheStackAsItWas)
{
    const int top = lua_gettop(App().L());
    DefineRunner("function() return 3 end");
    Run("x");
    EXPECT_EQ(lua_gettop(App().L()), top);
}
