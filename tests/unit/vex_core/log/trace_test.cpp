#include "vex/core/log.h"

#include "support/dom_ptr.h"
#include "support/heap_in_use.h"
#include "support/joining_thread.h"
#include "support/own_process_log.h"
#include "support/process_guards.h"
#include "support/sanitized.h"
#include "support/temp_folder.h"
#include "vex/core/dom.h"
#include "vex_core/base/file_name_conv.h"
#include "vex_core/log/disk_log.h"
#include "vex_core/log/process_log.h"
#include "vex_core/log/trace_modules.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>

using Test::DomPtr;
using Test::NewRoot;
using Test::ReadFile;
using Test::TempFolder;
using VexCore::CDom;
using VexCore::LogTraceIsEnabled;
using VexCore::TraceModules;

TEST(TraceModules, ListIsSplitAtCommasAndTrimmed)
{
    const TraceModules modules(" Appl, Cmd ,,vex.Heartbeat,\t");
    for (const char* name : {"Appl", "Cmd", "vex.Heartbeat"})
        EXPECT_TRUE(modules.Contain(name)) << name;
    for (const char* name : {"", "appl", "App", "Appl,", " Cmd", "vex", "vex.Heartbeat.x"})
        EXPECT_FALSE(modules.Contain(name)) << name;
}

TEST(TraceModules, StarIsEveryModule)
{
    EXPECT_TRUE(TraceModules("Appl,*").Contain("anything"));
    EXPECT_FALSE(TraceModules("App*").Contain("Appl"));
}

TEST(TraceModules, BlanksOfAnyKindAroundANameDoNotCount)
{
    EXPECT_TRUE(TraceModules("Appl,\t Cmd\r\n").Contain("Cmd"));
    EXPECT_TRUE(TraceModules("\tAppl\t,Cmd").Contain("Appl"));
}

namespace {
// Whether the marks of the list let the module pass, and how many of them are asked for.
struct Passing
{
    bool passes;
    std::size_t asked;
    bool operator==(const Passing& other) const { return passes == other.passes && asked == other.asked; }
};

Passing Pass(const char* list, const char* module)
{
    const TraceModules modules(list);
    std::size_t asked = 0;
    const bool passes = TraceModules::MayBeIn(
        [&](std::size_t place) {
            ++asked;
            return modules.Marks()[place];
        },
        module);
    return {passes, asked};
}

} // namespace

TEST(TraceModules, MarksRuleOutAModuleAtTheFirstLetterThatTells)
{
    for (const char* list : {"", ",", " , ", ",,,"})
        EXPECT_EQ(Pass(list, "Appl"), (Passing{false, 1})) << list;
    for (const char* list : {"Appl", "vex.Heartbeat,vex.ListenThread,vex.PluginUtils,Appl"}) {
        for (const char* module : {"Cmd", "Srvc", ""})
            EXPECT_EQ(Pass(list, module), (Passing{false, 1})) << list << ": " << module;
        EXPECT_EQ(Pass(list, "App"), (Passing{false, 4})) << list;
        EXPECT_EQ(Pass(list, "Apple"), (Passing{false, 5})) << list;
    }
    EXPECT_EQ(Pass("vex.Heartbeat,vex.ListenThread,vex.PluginUtils", "vex.Disk"), (Passing{false, 5}));
}

TEST(TraceModules, MarksLetAllPassThatIsInTheList)
{
    for (const char* list :
         {"Appl,Cmd,vex.Heartbeat,x,\xC3\xA9,a.name.of.sixteen,a.name.of.more.than.sixteen", "Cmd,*"})
        for (const char* module :
             {"Appl", "Cmd", "vex.Heartbeat", "x", "\xC3\xA9", "a.name.of.sixteen", "a.name.of.more.than.sixteen"})
            EXPECT_TRUE(Pass(list, module).passes) << list << ": " << module;
}

TEST(Trace, NothingIsTracedWithoutARoot)
{
    EXPECT_FALSE(LogTraceIsEnabled("Appl"));
}

TEST(Trace, WriteToEitherListCountsAtOnce)
{
    const DomPtr dom = NewRoot();
    EXPECT_FALSE(LogTraceIsEnabled("Appl"));
    dom->Set("app.trace", "Appl");
    EXPECT_TRUE(LogTraceIsEnabled("Appl"));
    EXPECT_FALSE(LogTraceIsEnabled("Cmd"));
    dom->Set("app.trace+", "Cmd");
    EXPECT_TRUE(LogTraceIsEnabled("Appl"));
    EXPECT_TRUE(LogTraceIsEnabled("Cmd"));
    EXPECT_FALSE(LogTraceIsEnabled(nullptr));
    dom->SetWx("app.trace", wxString(wxS("Srvc")));
    EXPECT_FALSE(LogTraceIsEnabled("Appl"));
    EXPECT_TRUE(LogTraceIsEnabled("Srvc"));
    dom->Remove("app.trace");
    EXPECT_FALSE(LogTraceIsEnabled("Srvc"));
    EXPECT_TRUE(LogTraceIsEnabled("Cmd"));
    dom->Set("app.trace+", "");
    EXPECT_FALSE(LogTraceIsEnabled("Cmd"));
}

TEST(Trace, NamesThatBeginAlikeAreTwo)
{
    const DomPtr dom = NewRoot();
    dom->Set("app.trace", "vex.Heartbeat,a.name.of.more.than.sixteen.letters");
    EXPECT_TRUE(LogTraceIsEnabled("vex.Heartbeat"));
    EXPECT_TRUE(LogTraceIsEnabled("a.name.of.more.than.sixteen.letters"));
    for (const char* module : {"", "vex.Heartbea", "vex.Heartbeats", "a.name.of.more.than.sixteen.bytes"})
        EXPECT_FALSE(LogTraceIsEnabled(module)) << module;
}

TEST(Trace, WriteThroughAViewCountsToo)
{
    const DomPtr dom = NewRoot();
    const DomPtr view(CDom::New("app", dom.get(), nullptr, false));
    view->Set("trace", "*");
    EXPECT_TRUE(LogTraceIsEnabled("anything"));
}

TEST(Trace, ListsAreTheOnesOfTheProcesssRoot)
{
    DomPtr first = NewRoot();
    const DomPtr second = NewRoot();
    second->Set("app.trace", "Second");
    EXPECT_FALSE(LogTraceIsEnabled("Second"));
    first->Set("app.trace", "First");
    EXPECT_TRUE(LogTraceIsEnabled("First"));
    first.reset();
    EXPECT_FALSE(LogTraceIsEnabled("First"));
    EXPECT_TRUE(LogTraceIsEnabled("Second"));
}

TEST(Trace, TracingEndsWithTheRoot)
{
    NewRoot()->Set("app.trace", "*");
    EXPECT_FALSE(LogTraceIsEnabled("Appl"));
}

TEST(Trace, ListsMayChangeWhileOthersAsk)
{
    const DomPtr dom = NewRoot();
    dom->Set("app.trace+", "Always");
    std::atomic<int> wrong{0};
    std::vector<::Test::JoiningThread> askers;
    for (int i = 0; i < 3; ++i)
        askers.emplace_back([&](const std::atomic<bool>& stop) {
            while (!stop)
                if (!LogTraceIsEnabled("Always") || LogTraceIsEnabled("Never"))
                    ++wrong;
        });
    for (int i = 0; i < 2000; ++i)
        dom->Set("app.trace", i % 2 ? "Appl,Cmd" : "Srvc");
    for (::Test::JoiningThread& asker : askers)
        asker.Stop();
    EXPECT_EQ(wrong, 0);
}

TEST(Trace, ListsThatWereInForceAreNotKept)
{
#ifdef VEX_TEST_SANITIZED
    GTEST_SKIP() << "a sanitizer keeps what is given back";
#endif
    if (!::Test::HeapInUse())
        GTEST_SKIP() << "the system does not tell how much of the heap is in use";
    const DomPtr dom = NewRoot();
    const auto setList = [&dom](int number) {
        dom->Set("app.trace", ("Appl," + std::string(2000, 'x') + std::to_string(number)).c_str());
        EXPECT_TRUE(LogTraceIsEnabled("Appl"));
    };
    setList(0);
    const std::size_t before = *::Test::HeapInUse();
    for (int number = 1; number <= 1000; ++number)
        setList(number);
    EXPECT_LT(*::Test::HeapInUse(), before + 100000) << "all of them have 4 MB";
}

TEST(Trace, LineHasModuleFunctionPlaceAndMessage)
{
    const TempFolder folder;
    VexCore::DiskLog log(1 << 16);
    log.SetFile(folder / "x.log");
    const ::Test::LogGuard guard;
    wxLog::SetTimestamp(wxS("%Y-%m-%d %H:%M:%S"));
    const ::Test::OwnProcessLog processLog(log);
    VexCore::LogTrace("Appl", "vex/apps/vex/vex", 42, "On Exit ", wxString::FromUTF8("message \xC3\xA4 100%"));
    VexCore::LogTrace(nullptr, nullptr, 0, nullptr, wxString());
    EXPECT_THAT(
        ReadFile(folder / "x.log"),
        testing::MatchesRegex("....-..-.. ..:..:.. TRACE \\[[0-9]+/main\\] Appl OnExit\\(vex/apps/vex/vex:42\\): "
                              "message \xC3\xA4 100%\n[^\n]* TRACE [^\n]*\\(:0\\): \n"));
}

TEST(Trace, AByteOfAFileNameThatIsNoTextStaysThatByte)
{
    const TempFolder folder;
    VexCore::DiskLog log(1 << 16);
    log.SetFile(folder / "x.log");
    const ::Test::OwnProcessLog processLog(log);
    VexCore::LogTrace("Appl", "vex", 1, "On", wxString("/opt/\xE9\xFF", VexCore::FileNameConv()));
    EXPECT_THAT(ReadFile(folder / "x.log"), testing::EndsWith("On(vex:1): /opt/\xE9\xFF\n"));
}
