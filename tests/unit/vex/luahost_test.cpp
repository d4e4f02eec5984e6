// What runs in the interpreter: set-up, chunks, snippets, methods. A real Lua state behind a fake interpreter.

#include "vex/apps/vex/vex_p.h"

#include "support/agent_app.h"
#include "support/fake_core.h"
#include "support/process_guards.h"

#include <climits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <lua.hpp>

#include <wx/mstream.h>
#include <wx/sstream.h>

using Access = AgentAppTestAccess;
using FakeCore::Answers;
using FakeCore::Count;
using FakeCore::Journal;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace {
class LuaHost : public testing::Test
{
protected:
    LuaHost()
    {
        FakeCore::Reset();
        m_app.reset(new AgentApp);
        App().SetAppName("vx_agent");
        Access::Lua(App()) = new VexCore::CLuaInterpreter(false, L"test", true);
        FakeCore::ClearJournal();
    }

    CAgentApp& App() { return **m_app; }
    lua_State* L() { return App().L(); }

    // As the run sequence does it.
    int SetUpLua()
    {
        lua_pushlightuserdata(L(), &App());
        lua_pushcclosure(L(), &CAgentApp::SetupLua, 1);
        return lua_pcall(L(), 0, 0, 0);
    }

    // The value of a Lua expression as text.
    std::string Value(const std::string& expression)
    {
        if (luaL_loadstring(L(), ("return tostring(" + expression + ")").c_str()) != LUA_OK
            || lua_pcall(L(), 0, 1, 0) != LUA_OK) {
            ADD_FAILURE() << lua_tostring(L(), -1);
        }
        const std::string text = lua_tostring(L(), -1);
        lua_pop(L(), 1);
        return text;
    }

    void Arguments(const std::vector<std::string>& arguments)
    {
        m_app->SetArguments(arguments);
        ASSERT_EQ(SetUpLua(), LUA_OK) << lua_tostring(L(), -1);
    }

    // Number of entries of "arg".
    std::string ArgumentCount()
    {
        return Value("(function() local n = 0 for _ in pairs(arg) do n = n + 1 end return n end)()");
    }

    void DefineModule(const std::string& source)
    {
        ASSERT_EQ(luaL_dostring(L(), ("vexAppModule = " + source).c_str()), 0) << lua_tostring(L(), -1);
    }

    std::unique_ptr<AgentApp> m_app;
};

} // namespace

// --- set-up

TEST_F(LuaHost, SetUpReadsThePathsAndPassesThemInTheInterpretersOrder)
{
    m_app->Dom().Set("app.path.bin", "/bin folder");
    m_app->Dom().Set("app.lua.path", "/p/?.lua");
    m_app->Dom().Set("app.lua.cpath", "/c/?.so");
    FakeCore::ClearJournal();
    ASSERT_EQ(SetUpLua(), LUA_OK);
    EXPECT_THAT(Journal(),
                ElementsAre("Dom.Get(\"app.lua.cpath\")", "Dom.Get(\"app.lua.path\")", "Dom.Get(\"app.path.bin\")",
                            "Lua.SetPackagePaths(\"/bin folder\", \"/p/?.lua\", \"/c/?.so\")", "Wrapper.Register()",
                            "Dom.RegisterLoader()"));
}

TEST_F(LuaHost, AbsentPathsArePassedAsEmptyTexts)
{
    ASSERT_EQ(SetUpLua(), LUA_OK);
    EXPECT_EQ(Count("Lua.SetPackagePaths(\"\", \"\", \"\")"), 1u);
}

TEST_F(LuaHost, BothGlobalsAreTheSameDomain)
{
    ASSERT_EQ(SetUpLua(), LUA_OK);
    EXPECT_EQ(Value("type(dom0)"), "userdata");
    EXPECT_EQ(Value("rawequal(dom0, dom)"), "true");
}

TEST_F(LuaHost, TheDomainHasTheClassOfItsName)
{
    ASSERT_EQ(SetUpLua(), LUA_OK);
    luaL_getmetatable(L(), "SLB.Dom");
    ASSERT_EQ(lua_type(L(), -1), LUA_TTABLE);
    lua_getfield(L(), -1, "__class");
    EXPECT_STREQ(lua_tostring(L(), -1), "SLB.Dom");
    lua_getglobal(L(), "dom0");
    ASSERT_TRUE(lua_getmetatable(L(), -1));
    EXPECT_TRUE(lua_rawequal(L(), -1, -4));
    lua_settop(L(), 0);
}

TEST_F(LuaHost, ASecondSetUpKeepsTheClassAndRenewsTheGlobals)
{
    ASSERT_EQ(SetUpLua(), LUA_OK);
    luaL_getmetatable(L(), "SLB.Dom");
    const void* const first = lua_topointer(L(), -1);
    lua_getglobal(L(), "dom0");
    const void* const firstDomain = lua_topointer(L(), -1);
    ASSERT_EQ(SetUpLua(), LUA_OK);
    luaL_getmetatable(L(), "SLB.Dom");
    EXPECT_EQ(lua_topointer(L(), -1), first);
    lua_getglobal(L(), "dom0");
    EXPECT_NE(lua_topointer(L(), -1), firstDomain);
    lua_settop(L(), 0);
}

TEST_F(LuaHost, CollectingEveryReferenceLeavesTheDomainIntact)
{
    ASSERT_EQ(SetUpLua(), LUA_OK);
    const int live = FakeCore::LiveDomains();
    ASSERT_EQ(luaL_dostring(L(), "dom0 = nil dom = nil collectgarbage() collectgarbage()"), 0);
    EXPECT_EQ(FakeCore::LiveDomains(), live);
    EXPECT_EQ(Journal({"Dom.Release"}).size(), 0u);
}

TEST_F(LuaHost, WithoutADomainBothGlobalsAreNilAndTheLoaderIsCalledAllTheSame)
{
    VexCore::CDom* const dom = Access::Dom(App());
    Access::Dom(App()) = nullptr;
    ASSERT_EQ(SetUpLua(), LUA_OK);
    Access::Dom(App()) = dom;
    EXPECT_EQ(Value("dom0"), "nil");
    EXPECT_EQ(Value("dom"), "nil");
    EXPECT_EQ(Count("Dom.RegisterLoader()"), 1u);
}

TEST_F(LuaHost, AnErrorInsideSetUpReachesTheProtectedCall)
{
    Answers().setPackagePathsError = "no paths today";
    EXPECT_EQ(SetUpLua(), LUA_ERRRUN);
    EXPECT_STREQ(lua_tostring(L(), -1), "no paths today");
    EXPECT_EQ(Count("Dom.RegisterLoader()"), 0u);
}

TEST_F(LuaHost, AnExceptionInsideSetUpIsALuaErrorWithItsText)
{
    Answers().setPackagePathsException = "no memory today";
    EXPECT_EQ(SetUpLua(), LUA_ERRRUN);
    EXPECT_STREQ(lua_tostring(L(), -1), "no memory today");
}

TEST_F(LuaHost, SetUpAssertsThatItRunsInTheApplicationsState)
{
    static wxString s_condition;
    s_condition.clear();
    const wxAssertHandler_t previous =
        wxSetAssertHandler([](const wxString&, int, const wxString&, const wxString& condition, const wxString&) {
            s_condition = condition;
        });
    VexCore::CLuaInterpreter other(false, L"other", true);
    lua_pushlightuserdata(other.L(), &App());
    lua_pushcclosure(other.L(), &CAgentApp::SetupLua, 1);
    EXPECT_EQ(lua_pcall(other.L(), 0, 0, 0), LUA_OK);
    wxSetAssertHandler(previous);
    EXPECT_EQ(s_condition, "pThis && (L == pThis->L())");
}

// --- arguments

TEST_F(LuaHost, TheSeparatorBecomesTheApplicationsName)
{
    Arguments({"prog", "-x", "--", "a", "b"});
    EXPECT_EQ(Value("table.concat({arg[-2], arg[-1], arg[0], arg[1], arg[2]}, ' ')"), "prog -x vx_agent a b");
    EXPECT_EQ(ArgumentCount(), "5");
}

TEST_F(LuaHost, WithoutASeparatorTheNameFollowsTheLaunchersArguments)
{
    Arguments({"prog", "-x"});
    EXPECT_EQ(Value("table.concat({arg[-2], arg[-1], arg[0]}, ' ')"), "prog -x vx_agent");
    EXPECT_EQ(ArgumentCount(), "3");
    EXPECT_EQ(Value("#arg"), "0");
}

TEST_F(LuaHost, OnlyTheFirstSeparatorCounts)
{
    Arguments({"prog", "--", "a", "--", "b"});
    EXPECT_EQ(Value("table.concat({arg[-1], arg[0], arg[1], arg[2], arg[3]}, ' ')"), "prog vx_agent a -- b");
}

TEST_F(LuaHost, ASeparatorAtTheEndLeavesNoPositiveKeys)
{
    Arguments({"prog", "-x", "--"});
    EXPECT_EQ(Value("table.concat({arg[-2], arg[-1], arg[0]}, ' ')"), "prog -x vx_agent");
    EXPECT_EQ(ArgumentCount(), "3");
}

TEST_F(LuaHost, ASeparatorInTheFirstPlaceCountsToo)
{
    Arguments({"--", "a"});
    EXPECT_EQ(Value("arg[0] .. ' ' .. arg[1]"), "vx_agent a");
    EXPECT_EQ(ArgumentCount(), "2");
}

TEST_F(LuaHost, ArgumentsThatOnlyBeginLikeASeparatorAreNone)
{
    Arguments({"prog", "---", "--x", "- -"});
    EXPECT_EQ(Value("arg[0]"), "vx_agent");
    EXPECT_EQ(Value("arg[-1]"), "- -");
}

TEST_F(LuaHost, ArgumentsAreUtf8)
{
    Arguments({"prog", "--", "gr\xC3\xBC\xC3\x9F", "\xE2\x82\xAC", ""});
    EXPECT_EQ(Value("arg[1]"), "gr\xC3\xBC\xC3\x9F");
    EXPECT_EQ(Value("arg[2]"), "\xE2\x82\xAC");
    EXPECT_EQ(Value("arg[3]"), "");
}

TEST_F(LuaHost, ManyArgumentsArrive)
{
    std::vector<std::string> arguments(100000, "a");
    arguments[1] = "--";
    arguments.back() = "last";
    Arguments(arguments);
    EXPECT_EQ(Value("#arg"), "99998");
    EXPECT_EQ(Value("arg[99998]"), "last");
}

TEST_F(LuaHost, MoreArgumentsThanTheStackCanHoldAreAnErrorWithItsText)
{
    // The room is asked for all arguments, not only for those behind the separator, of which there are none.
    (*m_app)->argc = LUAI_MAXSTACK + 1;
    std::vector<const wchar_t*> pointers(LUAI_MAXSTACK, L"x");
    pointers.push_back(L"--");
    (*m_app)->argv.Init((*m_app)->argc, pointers.data());
    EXPECT_EQ(SetUpLua(), LUA_ERRRUN);
    EXPECT_STREQ(lua_tostring(L(), -1), "stack overflow (too many arguments to script)");
}

// --- chunks

namespace {
struct Result
{
    const char* code;
    int status;
};

class ChunkResult : public LuaHost, public testing::WithParamInterface<Result>
{};

} // namespace

TEST_P(ChunkResult, BecomesTheStatus)
{
    wxStringInputStream in(GetParam().code);
    wxMemoryOutputStream out;
    const int top = lua_gettop(L());
    EXPECT_EQ(App().RunChunk(in, out, "name"), GetParam().status);
    EXPECT_EQ(lua_gettop(L()), top) << "the result is gone from the stack";
}

INSTANTIATE_TEST_SUITE_P(Of, ChunkResult,
                         testing::Values(Result{"x = 1", 0}, Result{"return 7", 7}, Result{"return -7", -7},
                                         Result{"return 2.7", 2}, Result{"return '5'", 5},
                                         Result{"return ' 0x10 '", 16}, Result{"return nil", 0},
                                         Result{"return true", 0}, Result{"return false", 0}, Result{"return {}", 0},
                                         Result{"return print", 0}, Result{"return 'five'", 0},
                                         Result{"return 3, 4", 3}, Result{"return 4294967296", 0},
                                         Result{"return 4294967297", 1}, Result{"return 2147483648", INT_MIN}));

TEST_F(LuaHost, AChunkThatFailsGivesTheInterpretersStatusAndLeavesTheStackAlone)
{
    wxStringInputStream in("error('bad')");
    wxMemoryOutputStream out;
    const int top = lua_gettop(L());
    EXPECT_EQ(App().RunChunk(in, out, "name"), 2);
    EXPECT_EQ(lua_gettop(L()), top);
    wxStringInputStream broken("this is no Lua");
    EXPECT_EQ(App().RunChunk(broken, out, "name"), 1);
}

TEST_F(LuaHost, AChunkIsTracedWithItsNameAndStatus)
{
    Answers().tracedModules = {"Appl"};
    wxStringInputStream in("return 7");
    wxMemoryOutputStream out;
    App().RunChunk(in, out, "some.name");
    EXPECT_THAT(Journal({"Trace", "Lua"}),
                ElementsAre("Trace(\"Appl\", \"RunChunk\", \"Running chunk 'some.name'\")",
                            "Lua.RunScript(\"return 7\", 0, 1, \"some.name\", out)",
                            "Trace(\"Appl\", \"RunChunk\", \"Chunk produced a return value of 7\")"));
}

TEST_F(LuaHost, AFailureIsTracedWithTheSameWords)
{
    Answers().tracedModules = {"Appl"};
    Answers().runScriptStatus = 4;
    wxStringInputStream in("");
    wxMemoryOutputStream out;
    EXPECT_EQ(App().RunChunk(in, out, "n"), 4);
    EXPECT_EQ(Count("Trace(\"Appl\", \"RunChunk\", \"Chunk produced a return value of 4\")"), 1u);
}

TEST_F(LuaHost, NothingIsTracedOrLoggedWhenTheModuleIsNotTraced)
{
    ::Test::StandardError standardError;
    App().RunCodeSnippet("error('bad')");
    standardError.Text();
    EXPECT_TRUE(Journal({"Trace", "Log"}).empty());
}

// --- snippets

TEST_F(LuaHost, ASnippetPrintsToStandardOutputWhichStaysOpen)
{
    ::Test::StandardOutput standardOutput;
    EXPECT_EQ(App().RunCodeSnippet("print('one')"), 0);
    EXPECT_EQ(App().RunCodeSnippet("print('two')"), 0);
    std::printf("three\n");
    EXPECT_EQ(standardOutput.Text(), "one\ntwo\nthree\n");
}

TEST_F(LuaHost, AnExceptionOutOfASnippetLeavesStandardOutputOpen)
{
    Answers().onRunScript = [] { throw 42; };
    EXPECT_THROW(App().RunCodeSnippet("return 0"), int);
    ::Test::StandardOutput standardOutput;
    std::printf("still there\n");
    EXPECT_EQ(standardOutput.Text(), "still there\n");
}

TEST_F(LuaHost, ASnippetsNameIsTheApplications)
{
    App().SetAppName("other");
    App().RunCodeSnippet("return 0");
    EXPECT_EQ(Count("Lua.RunScript(\"return 0\", 0, 1, \"other\", out)"), 1u);
}

TEST_F(LuaHost, AFailedSnippetPutsTheErrorOnStandardErrorOnce)
{
    ::Test::StandardError standardError;
    EXPECT_EQ(App().RunCodeSnippet("error('gr\xC3\xBC\xC3\x9F', 0)"), 2);
    const std::string text = standardError.Text();
    EXPECT_THAT(text, StartsWith("gr\xC3\xBC\xC3\x9F\nstack traceback:"));
    EXPECT_THAT(text, EndsWith("\n"));
    EXPECT_EQ(Count("Lua.GetErrorInfo()"), 1u);
}

TEST_F(LuaHost, AStatusThatWasReturnedPrintsTheLastErrorTextToo)
{
    Answers().errorInfo = "an older failure";
    ::Test::StandardError standardError;
    EXPECT_EQ(App().RunCodeSnippet("return 7"), 7);
    EXPECT_EQ(standardError.Text(), "an older failure\n");
}

TEST_F(LuaHost, AStatusWithoutAnyFailurePrintsAnEmptyLine)
{
    ::Test::StandardError standardError;
    EXPECT_EQ(App().RunCodeSnippet("return 7"), 7);
    EXPECT_EQ(standardError.Text(), "\n");
}

TEST_F(LuaHost, AnErrorTextDoesNotSilenceNarrowOutput)
{
    ::Test::StandardError standardError;
    App().RunCodeSnippet("error('x', 0)");
    std::fprintf(stderr, "narrow\n");
    EXPECT_THAT(standardError.Text(), HasSubstr("narrow\n"));
}

TEST_F(LuaHost, SuccessPrintsNothing)
{
    ::Test::StandardError standardError;
    EXPECT_EQ(App().RunCodeSnippet("return 0"), 0);
    EXPECT_EQ(standardError.Text(), "");
    EXPECT_EQ(Count("Lua.GetErrorInfo()"), 0u);
}

// --- methods

TEST_F(LuaHost, AMethodIsCalledWithoutArguments)
{
    DefineModule("{ main = function(...) return select('#', ...) + 40 end }");
    ::Test::StandardError standardError;
    EXPECT_EQ(App().RunAppMain(), 40);
    standardError.Text();
}

TEST_F(LuaHost, AMissingMethodSucceedsSilently)
{
    DefineModule("{}");
    ::Test::StandardError standardError;
    EXPECT_EQ(App().RunAppMain(), 0);
    EXPECT_EQ(standardError.Text(), "");
}

TEST_F(LuaHost, AFieldThatIsNoFunctionSucceeds)
{
    DefineModule("{ main = setmetatable({}, { __call = function() return 5 end }) }");
    EXPECT_EQ(App().RunAppMain(), 0);
}

TEST_F(LuaHost, AMissingModuleIsAFailure)
{
    ::Test::StandardError standardError;
    EXPECT_EQ(App().RunAppMain(), 2);
    EXPECT_THAT(standardError.Text(), HasSubstr("vexAppModule"));
}

TEST_F(LuaHost, AMethodIsTracedByName)
{
    Answers().tracedModules = {"Appl"};
    DefineModule("{}");
    App().RunAppMethod(L"init");
    EXPECT_EQ(Journal({"Trace"}).front(), "Trace(\"Appl\", \"RunAppMethod\", \"Running app's Lua method 'init'\")");
}

TEST_F(LuaHost, MainAndShutdownAreTheMethodsOfTheirNames)
{
    DefineModule("{ main = function() return 3 end, shutdown = function() return 4 end }");
    ::Test::StandardError standardError;
    EXPECT_EQ(App().RunAppMain(), 3);
    EXPECT_EQ(App().RunAppShutdown(), 4);
    standardError.Text();
    EXPECT_EQ(
        Count(
            "Lua.RunScript(\"if type(vexAppModule.main) == 'function' then return vexAppModule.main(); else return 0; "
            "end;\", 0, 1, \"vx_agent\", out)"),
        1u);
}
