// What the launcher takes for granted of the core library. These cases are built twice, with the real library
// and with the fake one that stands in for it in the launcher's tests, so that the fake cannot drift away
// from what it stands for.

#include "support/contract_arrange.h"

#include "support/log_catcher.h"
#include "support/temp_folder.h"
#include "support/test_thread.h"

#include "vex/core/agentevent.h"
#include "vex/core/clock.h"
#include "vex/core/dom.h"
#include "vex/core/execute.h"
#include "vex/core/files.h"
#include "vex/core/log.h"
#include "vex/core/luainterpreter.h"
#include "vex/core/pidfile.h"
#include "vex/core/processexit.h"
#include "vex/core/profiler.h"
#include "vex/core/runnable.h"
#include "vex/core/sendsignal.h"
#include "vex/core/unzip.h"
#include "vex/core/wrap_dom.h"

#include <atomic>
#include <cerrno>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <lua.hpp>

#include <wx/arrstr.h>
#include <wx/filename.h>
#include <wx/mstream.h>
#include <wx/sstream.h>
#include <wx/zipstrm.h>

#include <unistd.h>

using namespace VexCore;
using ::Test::TestThread;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {
struct Release
{
    void operator()(CDom* dom) const { dom->Release(); }
};

// Starts each case with a root domain of its own, whose work folder is the case's.
class CoreContract : public testing::Test
{
protected:
    CoreContract()
    {
        Arrange::Start();
        m_dom.reset(CDom::New(nullptr, nullptr, nullptr, false));
    }
    CDom& Dom() { return *m_dom; }

    ::Test::LogCatcher m_log;
    ::Test::TempFolder m_folder;
    std::unique_ptr<CDom, Release> m_dom;
};

} // namespace

// --- the domain

TEST_F(CoreContract, AnAbsentKeyIsEmptyTextAndLeavesWhatIsAskedForUntouched)
{
    std::string text = "kept";
    bool flag = true;
    std::int64_t number = 7;
    EXPECT_FALSE(Dom().Has("a"));
    EXPECT_EQ(Dom().TypeOf("a"), CDom::EType::Absent);
    EXPECT_EQ(Dom().Get("a"), "");
    EXPECT_TRUE(Dom().GetWxString("a").empty());
    EXPECT_EQ(Dom().GetObject("a"), nullptr);
    EXPECT_FALSE(Dom().Get("a", text));
    EXPECT_FALSE(Dom().Get("a", flag));
    EXPECT_FALSE(Dom().Get("a", number));
    EXPECT_EQ(text, "kept");
    EXPECT_TRUE(flag);
    EXPECT_EQ(number, 7);
    EXPECT_FALSE(Dom().Remove("a"));
}

TEST_F(CoreContract, TextIsBytesAndANullOneIsEmpty)
{
    Dom().Set("text", std::string("a\0b", 3));
    EXPECT_EQ(Dom().Get("text"), std::string("a\0b", 3));
    Dom().Set("text", "a\0b", 3);
    EXPECT_EQ(Dom().Get("text").size(), 3u);
    Dom().Set("text", static_cast<const char*>(nullptr));
    EXPECT_TRUE(Dom().Has("text"));
    EXPECT_EQ(Dom().Get("text"), "");
    Dom().Set("text", "a literal is text and no boolean");
    EXPECT_EQ(Dom().TypeOf("text"), CDom::EType::Text);
}

TEST_F(CoreContract, WideTextIsKeptAsUtf8AndOtherBytesAreTakenForLatin1)
{
    Dom().SetWx("text", wxString::FromUTF8("caf\xC3\xA9"));
    EXPECT_EQ(Dom().Get("text"), "caf\xC3\xA9");
    EXPECT_EQ(Dom().GetWxString("text"), wxString::FromUTF8("caf\xC3\xA9"));
    Dom().Set("text", "caf\xE9");
    EXPECT_EQ(Dom().GetWxString("text"), wxString::FromUTF8("caf\xC3\xA9"));
}

TEST_F(CoreContract, BooleansAndIntegersReadAsText)
{
    Dom().Set("yes", true);
    Dom().Set("no", false);
    Dom().SetWx("number", static_cast<std::int64_t>(-42));
    EXPECT_EQ(Dom().Get("yes"), "true");
    EXPECT_EQ(Dom().Get("no"), "false");
    EXPECT_EQ(Dom().Get("number"), "-42");
    EXPECT_EQ(Dom().TypeOf("yes"), CDom::EType::Bool);
    EXPECT_EQ(Dom().TypeOf("number"), CDom::EType::Int);
}

TEST_F(CoreContract, TextReadsAsABooleanOrAnIntegerWhereItIsOne)
{
    const struct
    {
        const char* text;
        int flag; // -1: none
        bool isNumber;
    } rows[] = {{"true", 1, false}, {"FALSE", 0, false}, {"1", 1, true},
                {"0", 0, true},     {"yes", 1, false},   {"No", 0, false},
                {"2", -1, true},    {"", -1, false},     {"on", -1, false},
                {" 1", -1, false},  {"-5", -1, true},    {"5x", -1, false},
                {"+5", -1, false},  {"0x5", -1, false},  {"99999999999999999999", -1, false}};
    for (const auto& row : rows) {
        Dom().Set("key", row.text);
        bool flag = row.flag == 0;
        EXPECT_EQ(Dom().Get("key", flag), row.flag >= 0) << row.text;
        EXPECT_EQ(flag, row.flag >= 0 ? row.flag == 1 : row.flag == 0) << row.text;
        std::int64_t number = 0;
        EXPECT_EQ(Dom().Get("key", number), row.isNumber) << row.text;
    }
    Dom().SetWx("key", static_cast<std::int64_t>(1));
    bool flag = false;
    EXPECT_TRUE(Dom().Get("key", flag));
    EXPECT_TRUE(flag);
}

TEST_F(CoreContract, KeysAreThoseBelowInOrderAndOutliveTheirParent)
{
    for (const char* key : {"a.c", "a", "a.b", "ab"})
        Dom().Set(key, "x");
    EXPECT_THAT(Dom().Keys("a"), ElementsAre("a.b", "a.c"));
    EXPECT_THAT(Dom().Keys(nullptr), ElementsAre("a", "a.b", "a.c", "ab"));
    EXPECT_TRUE(Dom().Remove("a"));
    EXPECT_FALSE(Dom().Has("a"));
    EXPECT_THAT(Dom().Keys("a"), ElementsAre("a.b", "a.c"));
}

TEST_F(CoreContract, ANullKeyIsTheEmptyOne)
{
    Dom().Set(nullptr, "root");
    EXPECT_EQ(Dom().Get(""), "root");
    EXPECT_EQ(Dom().Get(nullptr), "root");
    EXPECT_TRUE(Dom().Has(nullptr));
    EXPECT_TRUE(Dom().Remove(nullptr));
    EXPECT_FALSE(Dom().Has(""));
}

TEST_F(CoreContract, AnObjectIsSharedAndReadsAsNoText)
{
    const auto object = std::make_shared<CDomObject>();
    std::string text = "kept";
    Dom().SetObject("key", object);
    EXPECT_EQ(Dom().GetObject("key"), object);
    EXPECT_EQ(Dom().TypeOf("key"), CDom::EType::Object);
    EXPECT_FALSE(Dom().Get("key", text));
    EXPECT_EQ(text, "kept");
    Dom().Remove("key");
    EXPECT_EQ(object.use_count(), 1);
}

TEST_F(CoreContract, ADomainLivesAsLongAsItsLastReference)
{
    const auto object = std::make_shared<CDomObject>();
    CDom* const second = CDom::New(nullptr, nullptr, nullptr, false);
    second->SetObject("key", object);
    second->AddRef();
    second->Release();
    EXPECT_EQ(object.use_count(), 2);
    second->Release();
    EXPECT_EQ(object.use_count(), 1);
}

TEST_F(CoreContract, AWorkingFolderOfAPluginIsNamedAfterIt)
{
    Dom().Set("app.path.work", m_folder.Path());
    const wxString path = Dom().GetPluginWorkdirWx("diag");
    EXPECT_TRUE(path.StartsWith("/")) << path;
    EXPECT_TRUE(path.EndsWith("/plugins/diag")) << path;
}

// --- the interpreter

namespace {
class InterpreterContract : public CoreContract
{
protected:
    int Run(const std::string& chunk, int arguments = 0, int results = 0, wxOutputStream* out = nullptr)
    {
        wxMemoryInputStream in(chunk.data(), chunk.size());
        return m_lua.RunScript(in, arguments, results, "chunk name", out);
    }
    lua_State* L() { return m_lua.L(); }
    std::string Error() { return m_lua.GetErrorInfo().utf8_string(); }
    std::string Global(const char* field)
    {
        EXPECT_EQ(Run(std::string("return ") + field, 0, 1), 0);
        const char* const text = lua_tostring(L(), -1);
        std::string value = text ? text : "(none)";
        lua_pop(L(), 1);
        return value;
    }

    CLuaInterpreter m_lua{false, L"contract.lua", true};
};

} // namespace

TEST_F(InterpreterContract, LibrariesAreThereOnlyWhenTheyWereAskedFor)
{
    EXPECT_EQ(Global("type(require)"), "function");
    const CLuaInterpreter bare(false, L"bare", false);
    lua_getglobal(bare.L(), "require");
    EXPECT_TRUE(lua_isnil(bare.L(), -1));
}

TEST_F(InterpreterContract, SuccessLeavesExactlyTheResultsInPlaceOfTheArguments)
{
    lua_pushliteral(L(), "below");
    for (const int results : {0, 1, 3}) {
        lua_pushinteger(L(), 20);
        lua_pushinteger(L(), 22);
        ASSERT_EQ(Run("local a, b = ... return a + b, 'second'", 2, results), 0);
        ASSERT_EQ(lua_gettop(L()), 1 + results);
        if (results > 0) {
            EXPECT_EQ(lua_tointeger(L(), 2), 42);
        }
        if (results > 2) {
            EXPECT_TRUE(lua_isnil(L(), 4));
        }
        lua_settop(L(), 1);
    }
}

TEST_F(InterpreterContract, AFailureLeavesNothingAndItsStatusTellsWhere)
{
    const struct
    {
        const char* chunk;
        int status;
        const char* error;
    } rows[] = {
        {"if then", 1, "chunk name:1:"},
        {"\x1bLua", 1, ""},
        {"error('went wrong')", 2, "chunk name:1: went wrong\nstack traceback:"},
        {"error({})", 2, ""},
        {"error(setmetatable({}, {__tostring = function() error('worse') end}))", -1, ""},
    };
    lua_pushliteral(L(), "below");
    for (const auto& row : rows) {
        lua_pushinteger(L(), 1);
        const int status = Run(row.chunk, 1, 1);
        if (row.status > 0) {
            EXPECT_EQ(status, row.status) << row.chunk;
        }
        EXPECT_NE(status, 0) << row.chunk;
        EXPECT_NE(status, 3) << row.chunk << ": that status has another meaning";
        EXPECT_EQ(lua_gettop(L()), 1) << row.chunk;
        EXPECT_THAT(Error(), HasSubstr(row.error)) << row.chunk;
    }
}

TEST_F(InterpreterContract, TheErrorStaysUntilTheNextFailure)
{
    EXPECT_EQ(Error(), "");
    ASSERT_NE(Run("error('first')"), 0);
    ASSERT_EQ(Run("return"), 0);
    EXPECT_THAT(Error(), HasSubstr("first"));
    ASSERT_NE(Run("error('second')"), 0);
    EXPECT_THAT(Error(), HasSubstr("second"));
    EXPECT_THAT(Error(), testing::Not(HasSubstr("first")));
}

TEST_F(InterpreterContract, PrintGoesToTheStreamOfItsRun)
{
    wxStringOutputStream outer;
    ASSERT_EQ(Run("print('one', 2, nil, true)", 0, 0, &outer), 0);
    EXPECT_EQ(outer.GetString(), "one\t2\tnil\ttrue\n");
    wxStringOutputStream next;
    ASSERT_EQ(Run("print('next')", 0, 0, &next), 0);
    EXPECT_EQ(next.GetString(), "next\n");
    EXPECT_EQ(outer.GetString(), "one\t2\tnil\ttrue\n");
}

TEST_F(InterpreterContract, PackagePathsStandInFrontAndEmptyOnesAreLeftOut)
{
    m_lua.SetPackagePaths("/bin folder", "/own/?.lua", "/own/?.so");
    EXPECT_THAT(Global("package.path"), StartsWith("/own/?.lua;/bin folder/?.lua;/bin folder/?/init.lua"));
    EXPECT_THAT(Global("package.cpath"), StartsWith("/own/?.so;/bin folder/lib/?.so"));
    m_lua.SetPackagePaths("", "", "");
    EXPECT_THAT(Global("package.path"), testing::Not(HasSubstr("/own")));
    EXPECT_THAT(Global("package.path"), testing::Not(StartsWith(";")));
}

TEST_F(InterpreterContract, TheLoaderLeavesTheStackAsItWas)
{
    m_lua.SetPackagePaths("", "", "");
    lua_pushinteger(L(), 1);
    Dom().RegisterLoader(L());
    EXPECT_EQ(lua_gettop(L()), 1);
}

// --- threads

namespace {
// Overrides nothing but its body.
class Unnamed : public CRunnable
{
public:
    Unnamed() : CRunnable(false, -1, false) {}

protected:
    void OnRun() override {}
};

void SleepUntilAskedToEnd(TestThread& self)
{
    while (!self.TestDestroy())
        ::usleep(1000);
}

} // namespace

using ThreadContract = CoreContract;

TEST_F(ThreadContract, AThreadThatWasNotStartedIsJoinedAtOnce)
{
    TestThread body([](TestThread&) {});
    EXPECT_FALSE(body.Running());
    EXPECT_TRUE(body.join());
    EXPECT_TRUE(body.join(0));
    EXPECT_EQ(body.GetDom(), nullptr);
}

TEST_F(ThreadContract, ABodyRunsOnceOnAThreadOfItsOwnThatKnowsItself)
{
    std::atomic<int> runs{0};
    std::atomic<bool> other{false};
    std::atomic<CRunnable*> current{nullptr};
    const pthread_t self = ::pthread_self();
    TestThread body([&](TestThread&) {
        ++runs;
        other = ::pthread_equal(self, ::pthread_self()) == 0;
        current = CRunnable::Current();
    });
    body.SetDom(&Dom());
    EXPECT_EQ(body.GetDom(), &Dom());
    EXPECT_EQ(CRunnable::Current(), nullptr);
    ASSERT_TRUE(body.start(50, true, 0));
    EXPECT_TRUE(body.join());
    EXPECT_FALSE(body.Running());
    EXPECT_FALSE(body.start(50, true, 0)) << "it does not start again";
    EXPECT_TRUE(body.join()) << "nor does another join hurt";
    EXPECT_EQ(runs, 1);
    EXPECT_TRUE(other);
    EXPECT_EQ(current, &body);
    EXPECT_EQ(CRunnable::Current(), nullptr);
}

TEST_F(ThreadContract, ARequestToEndIsSeenByTheBody)
{
    TestThread body(SleepUntilAskedToEnd);
    ASSERT_TRUE(body.start(50, true, 0));
    EXPECT_TRUE(body.Running());
    EXPECT_FALSE(body.join(20)) << "nobody has asked";
    EXPECT_FALSE(body.start(50, true, 0)) << "it runs";
    body.requestExit();
    EXPECT_TRUE(body.join());
    EXPECT_TRUE(body.join(0));
}

TEST_F(ThreadContract, DeletingAThreadAsksAndJoins)
{
    TestThread body(SleepUntilAskedToEnd);
    ASSERT_TRUE(body.start(50, true, 0));
    EXPECT_EQ(body.Delete(), wxTHREAD_NO_ERROR);
    EXPECT_FALSE(body.Running());
}

TEST_F(ThreadContract, AnExceptionEndsItsThreadAlone)
{
    TestThread body([](TestThread&) { throw std::runtime_error("out of a body"); });
    ASSERT_TRUE(body.start(50, true, 0));
    EXPECT_TRUE(body.join());
    EXPECT_FALSE(body.Running());
}

TEST_F(ThreadContract, AThreadIsNamedByItsClass)
{
    EXPECT_STREQ(Unnamed().GetThreadName(), "CRunnable");
    EXPECT_STREQ(TestThread(SleepUntilAskedToEnd).GetThreadName(), "TestThread");
}

// --- processes and files

TEST_F(CoreContract, AProgramThatRanIsTrueWithItsOutputAndCode)
{
    wxString output = "old";
    wxString error;
    int code = -1;
    const std::string program = Arrange::Program(m_folder.Path(), "text of it", 3);
    EXPECT_TRUE(Execute(wxString::FromUTF8(program), wxArrayString(), output, code, error));
    EXPECT_EQ(output, "text of it");
    EXPECT_EQ(code, 3);
}

TEST_F(CoreContract, AProgramThatCannotBeStartedIsFalseWithAReason)
{
    wxString output;
    wxString error;
    int code = -1;
    const std::string program = Arrange::MissingProgram(m_folder.Path());
    EXPECT_FALSE(Execute(wxString::FromUTF8(program), wxArrayString(), output, code, error));
    EXPECT_FALSE(error.empty());
}

TEST_F(CoreContract, APidFileNamesALiveProcessAndAMissingOneNobody)
{
    const wxString path = wxString::FromUTF8(m_folder / "x.pid");
    EXPECT_EQ(ReadPidFile(path), 0);
    EXPECT_TRUE(WritePidFile(path));
    Arrange::PidFile(m_folder / "x.pid");
    EXPECT_EQ(ReadPidFile(path), ::getpid());
}

TEST_F(CoreContract, AFolderOfOursCanBeSecured)
{
    EXPECT_TRUE(SecureFileOrDirectory(wxString::FromUTF8(m_folder.Path()), true));
}

TEST_F(CoreContract, TheClockTellsMillisecondsAndDoesNotGoBack)
{
    const std::int64_t first = TimeNowMillis();
    EXPECT_GT(first, 1600000000000);
    EXPECT_GE(TimeNowMillis(), first);
}

TEST_F(CoreContract, ASignalIsNeverSentToMoreThanOneProcess)
{
    for (const pid_t process : {-1, 0, 1}) {
        errno = 0;
        EXPECT_EQ(SendSignal(process, 0), -1) << process;
        EXPECT_EQ(errno, EINVAL) << process;
    }
    EXPECT_EQ(SendSignal(::getpid(), 0), 0);
}

TEST_F(CoreContract, TheEndOfTheProcessFromAThreadNeverComesBack)
{
    // What it does is shown in a process of its own, by the tests of each of the two.
    static_assert(std::is_same_v<decltype(&ExitProcessFromThread), void (*)(int)>);
}

// --- archives

namespace {
struct Shown
{
    std::vector<std::string> names;
    std::vector<std::string> destinations;
    std::string declined;
};

bool Note(void* context, const wxZipEntry* entry, const wxString* destination)
{
    Shown& shown = *static_cast<Shown*>(context);
    const std::string name = entry->GetInternalName().utf8_string();
    shown.names.push_back(name);
    shown.destinations.push_back(destination->utf8_string());
    return name != shown.declined;
}

} // namespace

TEST_F(CoreContract, EntriesAreShownInTheirOrderWithTheirFullDestination)
{
    const std::string archive = m_folder / "x.vxp";
    Arrange::Archive(archive, {"z.lua", "lib/a.lua", "b.lua"});
    Shown shown;
    shown.declined = "b.lua";
    EXPECT_TRUE(Unzip(wxFileName(wxString::FromUTF8(archive)), wxFileName::DirName(wxString::FromUTF8(m_folder.Path())),
                      Note, &shown));
    EXPECT_THAT(shown.names, ElementsAre("z.lua", "lib/a.lua", "b.lua"));
    EXPECT_THAT(shown.destinations, ElementsAre(m_folder / "z.lua", m_folder / "lib/a.lua", m_folder / "b.lua"));
}

TEST_F(CoreContract, AnArchiveThatIsNoneIsFalseAndShowsNothing)
{
    const std::string archive = m_folder / "x.vxp";
    Arrange::BrokenArchive(archive);
    Shown shown;
    EXPECT_FALSE(Unzip(wxFileName(wxString::FromUTF8(archive)),
                       wxFileName::DirName(wxString::FromUTF8(m_folder.Path())), Note, &shown));
    EXPECT_THAT(shown.names, IsEmpty());
}

// --- log and events

TEST_F(CoreContract, OnlyTheListedModuleIsTraced)
{
    EXPECT_FALSE(LogTraceIsEnabled("Appl"));
    Arrange::Trace(Dom(), "Appl");
    EXPECT_TRUE(LogTraceIsEnabled("Appl"));
    EXPECT_FALSE(LogTraceIsEnabled("Cmd"));
    EXPECT_FALSE(LogTraceIsEnabled("appl"));
    EXPECT_FALSE(LogTraceIsEnabled(nullptr));
}

TEST_F(CoreContract, FieldsOfAnEventAreAbsentUntilTheyAreMarked)
{
    CAgentEvent event;
    for (int field = CAgentEvent::FieldText; field <= CAgentEvent::FieldSeverity; ++field) {
        EXPECT_TRUE(event.IsAttributeNull(field)) << field;
        event.SetAttributeNull(field, false);
        EXPECT_FALSE(event.IsAttributeNull(field)) << field;
    }
    event.SetAttributeNull(CAgentEvent::FieldText, true);
    EXPECT_TRUE(event.IsAttributeNull(CAgentEvent::FieldText));
    EXPECT_FALSE(event.IsAttributeNull(CAgentEvent::FieldNumber));
    event.SetAttributeNull(-1, false);
    event.SetAttributeNull(100, false);
    EXPECT_TRUE(event.IsAttributeNull(-1));
    EXPECT_TRUE(event.IsAttributeNull(100));
}

TEST_F(CoreContract, ASeverityIsThatOfTheLevelAndClamped)
{
    for (int level = 0; level <= 7; ++level)
        EXPECT_EQ(CAgentEvent::ToSeverity(level), level);
    EXPECT_EQ(CAgentEvent::ToSeverity(-1), 0);
    EXPECT_EQ(CAgentEvent::ToSeverity(8), 7);
}

TEST_F(CoreContract, AStoredEventHasAnId)
{
    Dom().Set("app.name", "contract");
    Dom().Set("app.path.work", m_folder.Path());
    CAgentEvent event;
    event.m_number = 5101;
    event.SetAttributeNull(CAgentEvent::FieldNumber, false);
    EXPECT_GT(Dom().AgentEventWrite(event), 0);
}

TEST_F(CoreContract, TheProfilerMayBeToldAtAnyTime)
{
    profiler_idle();
    profiler_running();
    profiler_running();
}
