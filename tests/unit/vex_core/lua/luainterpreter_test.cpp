#include "vex/core/luainterpreter.h"

#include "support/address_limit.h"
#include "support/log_catcher.h"
#include "support/own_process_log.h"
#include "support/process_guards.h"
#include "support/sanitized.h"
#include "support/temp_folder.h"
#include "vex_core/log/disk_log.h"
#include "vex_core/log/process_log.h"
#include "vex_core/os/descriptor.h"
#include "vex_core/os/files.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <lua.hpp>
#include <unistd.h>
#include <wx/mstream.h>
#include <wx/sstream.h>

using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;
using VexCore::CLuaInterpreter;

namespace {
// Allows so many bytes in all, of what a state gets otherwise.
struct LimitedAllocator
{
    std::size_t left;
    lua_Alloc unlimited = nullptr;
    void* memory = nullptr;

    void Limit(lua_State* L)
    {
        unlimited = lua_getallocf(L, &memory);
        lua_setallocf(L, &Allocate, this);
    }

    static void* Allocate(void* self, void* block, std::size_t oldSize, std::size_t newSize)
    {
        auto& allocator = *static_cast<LimitedAllocator*>(self);
        const std::size_t had = block ? oldSize : 0;
        if (newSize > had && newSize - had > allocator.left)
            return nullptr;
        allocator.left -= newSize - had;
        return allocator.unlimited(allocator.memory, block, oldSize, newSize);
    }
};

class Interpreter : public ::testing::Test
{
protected:
    int Run(const std::string& code, int resultCount = 0, const char* name = "chunk")
    {
        wxMemoryInputStream in(code.data(), code.size());
        wxMemoryOutputStream out;
        const int status = m_lua.RunScript(in, 0, resultCount, name, &out);
        m_output.resize(out.GetSize());
        out.CopyTo(&m_output[0], m_output.size());
        return status;
    }
    std::string Error() { return std::string(m_lua.GetErrorInfo().utf8_str()); }
    std::string Global(const char* table, const char* field)
    {
        lua_getglobal(m_lua.L(), table);
        lua_getfield(m_lua.L(), -1, field);
        const std::string text = lua_tostring(m_lua.L(), -1);
        lua_pop(m_lua.L(), 2);
        return text;
    }
    int Height() { return lua_gettop(m_lua.L()); }

    LimitedAllocator m_allocator{0}; // before the state, which gives its blocks back to it
    CLuaInterpreter m_lua{false, L"test.lua", true};
    std::string m_output;
};

int CountOf(const std::string& text, const std::string& part)
{
    int count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

// --- results and stack

TEST_F(Interpreter, SuccessLeavesExactlyTheResultsAskedFor)
{
    EXPECT_EQ(Run("return 7, 8, 9", 1), 0);
    ASSERT_EQ(Height(), 1);
    EXPECT_EQ(lua_tointeger(m_lua.L(), -1), 7);
    EXPECT_EQ(Run("", 2), 0);
    EXPECT_EQ(Height(), 3);
    EXPECT_TRUE(lua_isnil(m_lua.L(), -1));
    EXPECT_EQ(Error(), "");
}

TEST_F(Interpreter, ManyResultsAndArgumentsHaveTheirRoom)
{
    EXPECT_EQ(Run("return 1, 2", 5000), 0);
    ASSERT_EQ(Height(), 5000);
    EXPECT_EQ(lua_tointeger(m_lua.L(), 2), 2);
    EXPECT_TRUE(lua_isnil(m_lua.L(), 5000));

    wxStringInputStream in("return select('#', ...), ...");
    ASSERT_EQ(m_lua.RunScript(in, 5000, 6000, "many", nullptr), 0);
    ASSERT_EQ(Height(), 6000);
    EXPECT_EQ(lua_tointeger(m_lua.L(), 1), 5000);
    EXPECT_EQ(lua_tointeger(m_lua.L(), 3), 2);
    lua_settop(m_lua.L(), 0);

    EXPECT_EQ(Run("return 1", 2000000), 2) << "more than a stack may hold";
    EXPECT_THAT(Error(), HasSubstr("stack overflow"));
    EXPECT_EQ(Height(), 0);
}

TEST_F(Interpreter, ArgumentsReachTheChunkAndAreGoneAfterwards)
{
    lua_pushstring(m_lua.L(), "below");
    lua_pushinteger(m_lua.L(), 20);
    lua_pushinteger(m_lua.L(), 22);
    wxStringInputStream in("local a, b = ... return a + b");
    EXPECT_EQ(m_lua.RunScript(in, 2, 1, "sum", nullptr), 0);
    ASSERT_EQ(Height(), 2);
    EXPECT_EQ(lua_tointeger(m_lua.L(), -1), 42);

    lua_pushinteger(m_lua.L(), 1);
    wxStringInputStream bad("error('x')");
    EXPECT_EQ(m_lua.RunScript(bad, 1, 1, "bad", nullptr), 2);
    EXPECT_EQ(Height(), 2) << "argument gone, nothing left";
    EXPECT_STREQ(lua_tostring(m_lua.L(), 1), "below");
}

TEST_F(Interpreter, LongChunkIsReadInPieces)
{
    std::string code = "local n = 0\n";
    for (int i = 0; i < 20000; ++i)
        code += "n = n + 1\n";
    EXPECT_EQ(Run(code + "return n", 1), 0);
    EXPECT_EQ(lua_tointeger(m_lua.L(), -1), 20000);
}

// --- statuses

TEST_F(Interpreter, ChunkThatDoesNotLoadIsStatusOneWithoutTraceback)
{
    EXPECT_EQ(Run("x = = 1", 1, "vx_agent"), 1);
    EXPECT_EQ(Error(), "vx_agent:1: unexpected symbol near '='");
    EXPECT_EQ(Height(), 0);
}

TEST_F(Interpreter, PrecompiledChunkIsRefused)
{
    ASSERT_EQ(Run("return string.dump(function() return 1 end)", 1), 0);
    std::size_t length = 0;
    const char* bytes = lua_tolstring(m_lua.L(), -1, &length);
    EXPECT_EQ(Run(std::string(bytes, length)), 1);
    EXPECT_THAT(Error(), HasSubstr("attempt to load a binary chunk"));
}

TEST_F(Interpreter, UnreadableStreamIsStatusOne)
{
    struct Broken : wxInputStream
    {
        size_t OnSysRead(void*, size_t) override
        {
            m_lasterror = wxSTREAM_READ_ERROR;
            return 0;
        }
    } broken;
    EXPECT_EQ(m_lua.RunScript(broken, 0, 0, "broken", nullptr), 1);
    EXPECT_THAT(Error(), HasSubstr("cannot read the chunk"));
}

TEST_F(Interpreter, RunTimeErrorIsStatusTwoWithOneTraceback)
{
    EXPECT_EQ(Run("local function f() error('boom') end\nf()"), 2);
    EXPECT_THAT(Error(), StartsWith("chunk:1: boom\nstack traceback:\n\t[C]: in function 'error'\n"));
    EXPECT_THAT(Error(), HasSubstr("chunk:2: in main chunk"));
    EXPECT_EQ(CountOf(Error(), "stack traceback:"), 1);
}

TEST_F(Interpreter, RethrownErrorKeepsItsFirstTraceback)
{
    EXPECT_EQ(Run("local function inner() error('boom') end\n"
                  "local ok, message = xpcall(inner, debug.traceback)\nerror(message, 0)"),
              2);
    EXPECT_EQ(CountOf(Error(), "stack traceback:"), 1);
    EXPECT_THAT(Error(), HasSubstr("in function 'xpcall'"));
}

TEST_F(Interpreter, ErrorValueThatIsNoStringIsReportedByItsTextOrType)
{
    EXPECT_EQ(Run("error({})"), 2);
    EXPECT_THAT(Error(), StartsWith("(error object is a table value)\nstack traceback:"));
    EXPECT_EQ(Run("error(nil)"), 2);
    EXPECT_THAT(Error(), StartsWith("(error object is a nil value)\nstack traceback:"));
    EXPECT_EQ(Run("error(setmetatable({}, {__tostring = function() return 'my text' end}))"), 2);
    EXPECT_THAT(Error(), StartsWith("my text\nstack traceback:"));
    EXPECT_EQ(Run("error(12, 0)"), 2);
    EXPECT_THAT(Error(), StartsWith("12\nstack traceback:"));
}

TEST_F(Interpreter, ToStringThatFailsIsReportedToo)
{
    EXPECT_EQ(Run("error(setmetatable({}, {__tostring = function() error('inner') end}))"), 2);
    EXPECT_THAT(Error(), HasSubstr("error object is a table value that gives no text: chunk:1: inner"));
    EXPECT_EQ(Run("error(setmetatable({}, {__tostring = function() return {} end}))"), 2);
    EXPECT_THAT(Error(), HasSubstr("its __tostring gave a table value"));
    EXPECT_EQ(Run("local t = {} error(setmetatable(t, {__tostring = function() error(t) end}))"), 2);
    EXPECT_THAT(Error(), HasSubstr("that gives no text: no reason"));
}

TEST_F(Interpreter, StackOverflowIsStatusTwo)
{
    EXPECT_EQ(Run("local function f() return 1 + f() end f()"), 2);
    EXPECT_THAT(Error(), HasSubstr("stack overflow"));
    EXPECT_THAT(Error(), HasSubstr("stack traceback:"));
    EXPECT_EQ(
        Run("return string.gsub('x', '.', function() local function f() return pcall(f) end return error('z') end)"),
        2);
    EXPECT_EQ(Run("local function f() return string.gsub('x', '.', f) end f()"), 2);
    EXPECT_THAT(Error(), HasSubstr("C stack overflow"));
}

TEST_F(Interpreter, OutOfMemoryIsStatusFour)
{
    m_allocator.left = 1 << 20;
    m_allocator.Limit(m_lua.L());
    EXPECT_EQ(Run("local t = {} for i = 1, 1e9 do t[i] = {i} end"), 4);
    EXPECT_THAT(Error(), HasSubstr("not enough memory"));
    EXPECT_EQ(Run("local s = 'x' while true do s = s .. s end"), 4);
    EXPECT_EQ(Run("local s = 'x' return #s:rep(1e8)"), 4);
    EXPECT_EQ(Run("return 1"), 0) << "the state goes on";
}

TEST_F(Interpreter, AskingForMoreMemoryThanThereCanBeIsAnError)
{
    EXPECT_EQ(Run("local zeros = io.open('/dev/zero', 'rb') "
                  "for less = 1, 100 do assert(not pcall(zeros.read, zeros, -less)) end"),
              0)
        << Error();
}

TEST_F(Interpreter, EndlessStringIsStatusOneOrFour)
{
    // A chunk that never ends, inside of a string.
    struct Endless : wxInputStream
    {
        bool first = true;
        size_t OnSysRead(void* buffer, size_t size) override
        {
            std::memset(buffer, 'x', size);
            if (first)
                std::memcpy(buffer, "return [[", 9);
            first = false;
            return size;
        }
    } endless;
    m_allocator.left = 1 << 20;
    m_allocator.Limit(m_lua.L());
    EXPECT_EQ(m_lua.RunScript(endless, 0, 1, "endless", nullptr), 4);
    EXPECT_THAT(Error(), HasSubstr("not enough memory"));
    EXPECT_EQ(Run("return 'unfinished"), 1);
}

TEST_F(Interpreter, ErrorInAFinaliserIsStatusFiveWithTheCallsThatItInterrupted)
{
    EXPECT_EQ(Run("local function collect() collectgarbage() return 1 end\n"
                  "setmetatable({}, {__gc = function() error('late') end}) collect()"),
              5);
    EXPECT_EQ(Error(), "error in __gc metamethod (chunk:2: late)\nstack traceback:\n"
                       "\t[C]: in function 'collectgarbage'\n\tchunk:1: in function 'collect'\n"
                       "\tchunk:2: in main chunk\n\t[C]: in ?");
}

TEST_F(Interpreter, WantOfMemoryForTheMessageIsStatusFourToo)
{
#ifdef VEX_TEST_SANITIZED
    GTEST_SKIP() << "the sanitizers' own memory is over any limit of the address space";
#else
    ASSERT_EQ(Run("message = ('x'):rep(2^26) collectgarbage()"), 0);
    int status = 0;
    {
        const ::Test::AddressLimit lessThanACopy(static_cast<std::size_t>(16) << 20);
        status = Run("error(message, 0)");
    }
    EXPECT_EQ(status, 4);
    EXPECT_EQ(Error(), "not enough memory");
    EXPECT_EQ(Height(), 0);
#endif
}

TEST_F(Interpreter, WantOfMemoryHasATraceback)
{
    m_allocator.left = 1 << 20;
    m_allocator.Limit(m_lua.L());
    EXPECT_EQ(Run("local function grow(t)\nfor i = 1, 1e9 do t[i] = {i} end\nreturn t end\ngrow({})"), 4);
    EXPECT_EQ(Error(), "not enough memory\nstack traceback:\n\tchunk:2: in function 'grow'\n"
                       "\tchunk:4: in main chunk\n\t[C]: in ?");
    EXPECT_EQ(Run("local s = ('x'):rep(1e6) return (s:gsub('x', s))"), 4);
    EXPECT_THAT(Error(), StartsWith("not enough memory\nstack traceback:\n\t[C]: in function 'rep'"));
}

TEST_F(Interpreter, TracebackOfADeepFailureIsShortAndAsLuaWritesIt)
{
    const std::string deep = "local trace local function down(n) if n > 0 then local r = down(n - 1) return r end ";
    const std::string rest = " end local function first() return down(3000) end first()";
    EXPECT_EQ(Run(deep + "error('deep', 0)" + rest + " return 1"), 2);
    const std::string ours = Error();
    ASSERT_EQ(Run(deep + "error(debug.traceback('deep', 1), 0)" + rest + " return 1"), 2);
    // Lua's own begins in the function, ours in `error`, which it calls: one line of the first ones differs.
    const std::string luas = Error();
    EXPECT_EQ(CountOf(ours, "\n"), CountOf(luas, "\n")) << ours;
    EXPECT_EQ(CountOf(ours, "\n\t...\n"), 1);
    EXPECT_EQ(CountOf(ours, "\n\t(...tail calls...)"), 1);
    EXPECT_EQ(ours.substr(ours.find("\n\t...\n")), luas.substr(luas.find("\n\t...\n")));
    EXPECT_THAT(ours,
                StartsWith("deep\nstack traceback:\n\t[C]: in function 'error'\n\tchunk:1: in function 'down'\n"));
}

TEST_F(Interpreter, ErrorThatLoadCatchesFromItsReaderIsTheMessageAlone)
{
    EXPECT_EQ(Run("local ok, why = load(function() error('from the reader', 0) end) "
                  "assert(ok == nil and why == 'from the reader', why) "
                  "local value = {} ok, why = load(function() error(value) end) assert(ok == nil and why == value)"),
              0)
        << Error();
}

// Where a failure is told to somebody, and where to nobody.
class LoggedFailure : public Interpreter
{
protected:
    LoggedFailure() { m_log.SetFile(m_folder / "log"); }

    // Runs with standard error going to the file of that name.
    void RunTo(const std::string& standardError, const std::string& code)
    {
        const VexCore::os::Descriptor file(VexCore::os::Open(standardError.c_str(), O_WRONLY | O_CREAT, 0600));
        const VexCore::os::Descriptor before(::dup(2));
        ASSERT_EQ(::dup2(file.Get(), 2), 2);
        const int status = Run(code);
        ASSERT_EQ(::dup2(before.Get(), 2), 2);
        EXPECT_EQ(status, 2);
    }
    std::string Log()
    {
        const std::string path = m_folder / "log";
        return std::filesystem::exists(path) ? ::Test::ReadFile(path) : std::string();
    }

    ::Test::TempFolder m_folder;
    VexCore::DiskLog m_log{0, 2};
    const ::Test::OwnProcessLog m_processLog{m_log};
};

TEST_F(LoggedFailure, IsOneRecordWhereStandardErrorIsNowhere)
{
    RunTo("/dev/null", "error('lost?')");
    const std::string log = Log();
    EXPECT_THAT(log, ContainsRegex("^[^\n]* ERROR \\[[0-9]+/main\\] chunk:1: lost\\?\n +stack traceback:\n"));
    EXPECT_EQ(CountOf(log, "lost?"), 1);
}

TEST_F(LoggedFailure, IsNotTheLogsWhereSomebodyReadsStandardErrorOrTheCallerHasWordsOfItsOwn)
{
    RunTo(m_folder / "standard error", "error('read')");
    RunTo("/dev/zero", "error('another device')");
    EXPECT_EQ(Log(), "");
    m_lua.LeaveFailuresToCaller();
    RunTo("/dev/null", "error('told by the caller')");
    EXPECT_EQ(Log(), "");
}

TEST_F(Interpreter, ForeignExceptionIsStatusTwoWithItsText)
{
    lua_register(m_lua.L(), "native", [](lua_State*) -> int { throw std::runtime_error("from a module"); });
    lua_register(m_lua.L(), "odd", [](lua_State*) -> int { throw 5; });
    EXPECT_EQ(Run("native()"), 2);
    EXPECT_THAT(Error(), HasSubstr("from a module"));
    EXPECT_THAT(Error(), HasSubstr("stack traceback:"));
    EXPECT_EQ(Run("odd()"), 2);
    EXPECT_THAT(Error(), HasSubstr("C++ exception of type i"));
    EXPECT_EQ(Height(), 0);
    EXPECT_EQ(Run("return 1"), 0);
}

TEST_F(Interpreter, EveryFailingAllocationOfARunIsStatusFourOrSuccess)
{
    int failures = 0;
    for (std::size_t room = 0; room < 200000; room += 512) {
        LimitedAllocator limited{room};
        CLuaInterpreter other(false, L"sweep", true);
        limited.Limit(other.L());
        wxStringInputStream in("local t = {} for i = 1, 50 do t[i] = ('x'):rep(i) end print(#t) error({})");
        wxStringOutputStream out;
        const int status = other.RunScript(in, 0, 0, "sweep", &out);
        EXPECT_TRUE(status == 4 || status == 2 || status == 5) << status;
        EXPECT_EQ(lua_gettop(other.L()), 0);
        EXPECT_FALSE(other.GetErrorInfo().empty());
        if (status == 2)
            break;
        ++failures;
    }
    EXPECT_GT(failures, 5);
    EXPECT_LT(failures, 390);
}

TEST_F(Interpreter, ErrorInfoStaysUntilTheNextFailure)
{
    Run("error('first', 0)");
    EXPECT_EQ(Run("return 1"), 0);
    EXPECT_THAT(Error(), StartsWith("first\n"));
    Run("error('second', 0)");
    EXPECT_THAT(Error(), StartsWith("second\n"));
}

TEST_F(Interpreter, MessageThatIsNotUtf8IsKept)
{
    Run("error('caf\\233', 0)");
    EXPECT_THAT(Error(), StartsWith("café\n"));
}

TEST_F(Interpreter, MessageIsNotCutAtAZeroByte)
{
    Run("error('a\\0b', 0)");
    const wxString message = m_lua.GetErrorInfo();
    const wxScopedCharBuffer bytes = message.utf8_str();
    EXPECT_THAT(std::string(bytes.data(), bytes.length()),
                StartsWith(std::string("a\0b\nstack traceback:\n\t[C]: in", 29)));
}

TEST_F(Interpreter, ChunkMayRunAnother)
{
    static CLuaInterpreter* s_interpreter;
    s_interpreter = &m_lua;
    lua_register(m_lua.L(), "nested", [](lua_State* L) -> int {
        wxStringInputStream in("print('inner') error('inner failed', 0)");
        wxStringOutputStream out;
        lua_pushinteger(L, s_interpreter->RunScript(in, 0, 0, "inner", &out));
        lua_pushstring(L, out.GetString().utf8_str());
        return 2;
    });
    EXPECT_EQ(Run("print('a') local s, o = nested() print('b', s, o) error('outer', 0)"), 2);
    EXPECT_EQ(m_output, "a\nb\t2\tinner\n\n");
    EXPECT_THAT(Error(), StartsWith("outer\nstack traceback:"));
}

// --- output

TEST_F(Interpreter, PrintAndWriteKeepTheirOrder)
{
    EXPECT_EQ(Run("print('a', 1, nil, true) io.write('b', 2, '\\n') io.stdout:write('c'):write('d\\n') print() "
                  "io.output():write('e\\n') io.flush() io.stdout:flush() print('x\\0y')"),
              0);
    EXPECT_EQ(m_output, std::string("a\t1\tnil\ttrue\nb2\ncd\n\ne\nx\0y\n", 26));
}

TEST_F(Interpreter, WriteReturnsItsFile)
{
    EXPECT_EQ(Run("assert(io.write('') == io.stdout) assert(io.stdout:write('') == io.stdout) "
                  "assert(io.stdout:flush() == io.stdout)"),
              0)
        << Error();
}

TEST_F(Interpreter, FinaliserThatPrintsLeavesTheRunningPrintAlone)
{
    // The text of the number is made by print itself, and with these settings that surely runs the finaliser.
    EXPECT_EQ(Run("collectgarbage('setpause', 0) collectgarbage('setstepmul', 1000000) collectgarbage() "
                  "tostring = function(value) if value ~= 1 then return value end "
                  "  setmetatable({}, {__gc = function() print('finalised') end}) return 5.25 end "
                  "print('begin', 1, 'end')"),
              0);
    EXPECT_EQ(CountOf(m_output, "finalised\n"), 1) << m_output;
    EXPECT_EQ(CountOf(m_output, "begin\t5.25\tend\n"), 1) << m_output;
}

TEST_F(Interpreter, PrintUsesTostringOfTheChunk)
{
    EXPECT_EQ(Run("local t = setmetatable({}, {__tostring = function() print('inside') return 'T' end}) print('v', t)"),
              0);
    EXPECT_EQ(m_output, "inside\nv\tT\n");
    EXPECT_EQ(Run("tostring = function(v) return '<' .. type(v) .. '>' end print('s', 1)"), 0);
    EXPECT_EQ(m_output, "<string>\t<number>\n");
    EXPECT_EQ(Run("tostring = function(v) return {} end print('s')"), 2);
    EXPECT_THAT(Error(), HasSubstr("'tostring' must return a string to 'print'"));
}

TEST_F(Interpreter, OutputToAnotherFileIsNotRedirected)
{
    EXPECT_EQ(Run("local f = io.tmpfile() io.output(f) io.write('hidden') f:write(' too') io.flush() f:flush() "
                  "f:seek('set') local text = f:read('*a') io.output(io.stdout) io.write('<', text, '>')"),
              0)
        << Error();
    EXPECT_EQ(m_output, "<hidden too>");
}

TEST_F(Interpreter, WrongArgumentOfWriteIsAnError)
{
    EXPECT_EQ(Run("io.write({})"), 2);
    EXPECT_THAT(Error(), HasSubstr("bad argument #1 to 'write' (string expected, got table)"));
}

TEST_F(Interpreter, FailingStreamIsReportedByWrite)
{
    struct Full : wxOutputStream
    {
        size_t OnSysWrite(const void*, size_t) override
        {
            errno = ENOSPC;
            m_lasterror = wxSTREAM_WRITE_ERROR;
            return 0;
        }
    } full;
    wxStringInputStream in(
        "print('lost') local ok, why = io.write('lost') assert(ok == nil and type(why) == 'string')");
    EXPECT_EQ(m_lua.RunScript(in, 0, 0, "full", &full), 0) << Error();
}

TEST_F(Interpreter, FlushReachesTheStream)
{
    struct Counting : wxMemoryOutputStream
    {
        int flushed = 0;
        void Sync() override { ++flushed; }
    } out;
    wxStringInputStream in("io.write('x') io.flush() io.stdout:flush()");
    EXPECT_EQ(m_lua.RunScript(in, 0, 0, "flush", &out), 0) << Error();
    EXPECT_EQ(out.flushed, 2);
}

TEST_F(Interpreter, PrintFlushesEachLineAndWriteDoesNot)
{
    struct Recording : wxOutputStream
    {
        std::string seen;
        void Sync() override { seen += '!'; }
        size_t OnSysWrite(const void* data, size_t size) override
        {
            seen.append(static_cast<const char*>(data), size);
            return size;
        }
    } out;
    wxStringInputStream in("print('a', 1) io.write('b') print() io.stdout:write('c')");
    EXPECT_EQ(m_lua.RunScript(in, 0, 0, "flush", &out), 0) << Error();
    EXPECT_EQ(out.seen, "a\t1\n!b\n!c");
}

TEST_F(Interpreter, FlushThatFailsIsTold)
{
    struct Full : wxMemoryOutputStream
    {
        void Sync() override { m_lasterror = wxSTREAM_WRITE_ERROR; }
    } out;
    wxStringInputStream in("for _, flush in ipairs({io.flush, function() return io.stdout:flush() end}) do "
                           "  local ok, message = flush() assert(ok == nil and type(message) == 'string') end");
    EXPECT_EQ(m_lua.RunScript(in, 0, 0, "flush", &out), 0) << Error();
}

TEST_F(Interpreter, OutputOfACoroutineAndOfANestedCallGoesToTheStreamToo)
{
    EXPECT_EQ(Run("coroutine.wrap(function() print('in a coroutine') io.write('w', 1, '\\n') end)() "
                  "pcall(function() print('inside pcall') error('x') end) load(\"print('loaded')\")()"),
              0);
    EXPECT_EQ(m_output, "in a coroutine\nw1\ninside pcall\nloaded\n");
    ::Test::StandardOutput standardOutput;
    wxStringInputStream later("print('after')");
    EXPECT_EQ(m_lua.RunScript(later, 0, 0, "later", nullptr), 0);
    EXPECT_EQ(standardOutput.Text(), "after\n") << "the stream is only for the chunk that it was given for";
}

TEST_F(Interpreter, WithoutAStreamOutputIsLuasOwn)
{
    ::Test::StandardOutput standardOutput;
    wxStringInputStream in("print('plain', 1) io.write('w\\n') io.stdout:write('f\\n') io.flush() io.stdout:flush()");
    EXPECT_EQ(m_lua.RunScript(in, 0, 0, "plain", nullptr), 0);
    EXPECT_EQ(standardOutput.Text(), "plain\t1\nw\nf\n");
}

// --- package paths

TEST_F(Interpreter, PackagePathsHaveTheirOrderAndNoCurrentDirectory)
{
    m_lua.SetPackagePaths("/bin/dir", "/my/?.lua;/other/?.lua", "/my/?.so");
    const std::string path = Global("package", "path");
    EXPECT_THAT(path, StartsWith("/my/?.lua;/other/?.lua;/bin/dir/?.lua;/bin/dir/?/init.lua;/"));
    EXPECT_THAT(path, HasSubstr("/share/lua/5.2/?.lua"));
    EXPECT_THAT(";" + path, Not(HasSubstr(";./")));
    const std::string cpath = Global("package", "cpath");
    EXPECT_THAT(cpath, StartsWith("/my/?.so;/bin/dir/lib/?.so;/"));
    EXPECT_THAT(";" + cpath, Not(HasSubstr(";./")));
}

TEST_F(Interpreter, EmptyPathsAreLeftOut)
{
    m_lua.SetPackagePaths("", "", "");
    EXPECT_THAT(Global("package", "path"), StartsWith("/usr"));
    EXPECT_THAT(Global("package", "path"), Not(HasSubstr(";;")));
    m_lua.SetPackagePaths(nullptr, nullptr, nullptr);
    EXPECT_THAT(Global("package", "cpath"), StartsWith("/usr"));
}

TEST_F(Interpreter, SettingPathsAgainDoesNotPileThemUp)
{
    m_lua.SetPackagePaths("/b", "/p/?.lua", "/c/?.so");
    const std::string once = Global("package", "path");
    m_lua.SetPackagePaths("/b", "/p/?.lua", "/c/?.so");
    EXPECT_EQ(Global("package", "path"), once);
}

TEST_F(Interpreter, EnvironmentNamesNoFolderOfModules)
{
    const ::Test::Variable any("LUA_PATH", "/stray/?.lua;;"), versioned("LUA_PATH_5_2", "/stray52/?.lua;;");
    const ::Test::Variable anyNative("LUA_CPATH", "/stray/?.so"), versionedNative("LUA_CPATH_5_2", "/stray52/?.so");
    CLuaInterpreter other(false, L"other.lua", true);
    other.SetPackagePaths("", "", "");
    m_lua.SetPackagePaths("", "", "");
    for (const char* field : {"path", "cpath"}) {
        lua_getglobal(other.L(), "package");
        lua_getfield(other.L(), -1, field);
        EXPECT_EQ(lua_tostring(other.L(), -1), Global("package", field));
        EXPECT_THAT(lua_tostring(other.L(), -1), Not(HasSubstr("stray")));
    }
}

// --- life

TEST(InterpreterLife, AnErrorThatNothingCatchesIsToldBeforeTheEnd)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(
        {
            CLuaInterpreter lua(false, L"test.lua", true);
            luaL_error(lua.L(), "nobody %s", "minds");
        },
        "PANIC: unprotected error in call to Lua API \\(nobody minds\\)\n");
}

TEST(InterpreterLife, WithoutLibrariesThereAreNoGlobals)
{
    CLuaInterpreter bare(false, L"bare", false);
    wxStringInputStream in("return print == nil and io == nil");
    ASSERT_EQ(bare.RunScript(in, 0, 1, "bare", nullptr), 0);
    EXPECT_TRUE(lua_toboolean(bare.L(), -1));
}

TEST(InterpreterLife, FinalisersRunAtTheEndAndACollectionTellsWhatTheyFailWith)
{
    static int s_collected;
    s_collected = 0;
    const ::Test::LogCatcher log;
    for (const bool collects : {false, true}) {
        CLuaInterpreter lua(collects, collects ? L"collected.lua" : L"closed.lua", true);
        lua_pushcfunction(lua.L(), [](lua_State*) -> int {
            ++s_collected;
            return 0;
        });
        lua_setglobal(lua.L(), "count");
        wxStringInputStream in("setmetatable({}, {__gc = function() count() error('late') end})");
        ASSERT_EQ(lua.RunScript(in, 0, 0, "x", nullptr), 0);
    }
    EXPECT_EQ(s_collected, 2);
    EXPECT_EQ(log.All(), std::to_string(wxLOG_Warning) + " collected.lua: error in __gc metamethod (x:1: late)\n");
}

} // namespace
