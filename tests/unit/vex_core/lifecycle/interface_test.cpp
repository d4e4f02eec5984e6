// What hosts are compiled against: names, parameters, results, and which operations a host may override. Another core
// library with the same declarations can stand in this one's place, so each change here is a break.

#include "vex/core/agentevent.h"
#include "vex/core/clock.h"
#include "vex/core/crash.h"
#include "vex/core/dom.h"
#include "vex/core/execute.h"
#include "vex/core/files.h"
#include "vex/core/log.h"
#include "vex/core/luainterpreter.h"
#include "vex/core/openssl.h"
#include "vex/core/pidfile.h"
#include "vex/core/profiler.h"
#include "vex/core/runnable.h"
#include "vex/core/sqlitedb.h"
#include "vex/core/unzip.h"
#include "vex/core/wrap_dom.h"

#include <csignal>
#include <string>
#include <type_traits>

#include <gtest/gtest.h>

using namespace VexCore;

namespace {
// Whether the function or member of that name, picked from its overloads, is there with exactly this type.
template <class Wanted>
constexpr bool Has(Wanted)
{
    return true;
}

// The domain.
static_assert(std::is_same_v<decltype(&CDom::New), CDom* (*)(const char*, CDom*, bool*, bool)>);
static_assert(std::is_same_v<decltype(&CDom::Release), void (CDom::*)()>);
static_assert(!std::is_destructible_v<CDom>, "a domain goes through Release only");
static_assert(Has<void (CDom::*)(const char*, const char*)>(&CDom::Set));
static_assert(Has<void (CDom::*)(const char*, const char*, std::size_t)>(&CDom::Set));
static_assert(Has<void (CDom::*)(const char*, bool)>(&CDom::Set));
static_assert(Has<void (CDom::*)(const char*, const wxString&)>(&CDom::SetWx));
static_assert(Has<void (CDom::*)(const char*, std::int64_t)>(&CDom::SetWx));
static_assert(Has<std::string (CDom::*)(const char*) const>(&CDom::Get));
static_assert(Has<bool (CDom::*)(const char*, bool&) const>(&CDom::Get));
static_assert(std::is_same_v<decltype(&CDom::GetWxString), wxString (CDom::*)(const char*) const>);
static_assert(std::is_same_v<decltype(&CDom::GetPluginWorkdirWx), wxString (CDom::*)(const wxString&) const>);
static_assert(std::is_same_v<decltype(&CDom::GetPluginWorkdir), std::string (CDom::*)(const std::string&) const>);
static_assert(std::is_same_v<decltype(&CDom::RegisterLoader), void (CDom::*)(lua_State*)>);
static_assert(std::is_same_v<decltype(&CDom::AgentEventWrite), std::int64_t (CDom::*)(CAgentEvent&)>);
static_assert(std::is_same_v<decltype(&SLB3::Wrapper<CDom>::Register), void (*)(SLB3::internal::Class<CDom>&)>);

// The interpreter.
static_assert(std::is_constructible_v<CLuaInterpreter, bool, const wchar_t*, bool>);
static_assert(std::is_same_v<decltype(&CLuaInterpreter::L), lua_State* (CLuaInterpreter::*)() const>);
static_assert(std::is_same_v<decltype(&CLuaInterpreter::SetPackagePaths),
                             void (CLuaInterpreter::*)(const char*, const char*, const char*)>);
static_assert(std::is_same_v<decltype(&CLuaInterpreter::RunScript),
                             int (CLuaInterpreter::*)(wxInputStream&, int, int, const wxString&, wxOutputStream*)>);
static_assert(std::is_same_v<decltype(&CLuaInterpreter::GetErrorInfo), wxString (CLuaInterpreter::*)() const>);

// Threads.
static_assert(std::is_base_of_v<wxThread, CRunnable>);
static_assert(std::is_abstract_v<CRunnable>);
static_assert(std::is_same_v<decltype(&CRunnable::SetDom), void (CRunnable::*)(CDom*)>);
static_assert(std::is_same_v<decltype(&CRunnable::start), bool (CRunnable::*)(unsigned, bool, unsigned)>);
static_assert(std::is_same_v<decltype(CRunnable::SigThreadDelete), const int>);

// Log, events, files, processes, libraries.
static_assert(std::is_base_of_v<wxLog, CLog2Disk> && std::is_default_constructible_v<CLog2Disk>);
static_assert(std::is_same_v<decltype(&LogTraceIsEnabled), bool (*)(const char*)>);
static_assert(
    std::is_same_v<decltype(&LogTrace), void (*)(const char*, const char*, int, const char*, const wxString&)>);
static_assert(std::is_base_of_v<XMLObject, CAgentEvent> && std::has_virtual_destructor_v<XMLObject>);
static_assert(std::is_default_constructible_v<CAgentEvent>);
static_assert(std::is_same_v<decltype(&CAgentEvent::ToSeverity), std::int32_t (*)(int)>);
static_assert(std::is_same_v<decltype(&XMLObject::SetAttributeNull), void (XMLObject::*)(int, bool)>);
static_assert(std::is_same_v<decltype(CAgentEvent::m_text), std::string>);
static_assert(std::is_same_v<decltype(CAgentEvent::m_timeMillis), std::int64_t>);
static_assert(std::is_same_v<decltype(CAgentEvent::m_timeSeconds), std::int32_t>);
static_assert(std::is_same_v<decltype(CAgentEvent::m_number), std::int32_t>);
static_assert(std::is_same_v<decltype(CAgentEvent::m_severity), std::int32_t>);
static_assert(std::is_same_v<UnzipCallback, bool (*)(void*, const wxZipEntry*, const wxString*)>);
static_assert(std::is_same_v<decltype(&Unzip), bool (*)(const wxFileName&, const wxFileName&, UnzipCallback, void*)>);
static_assert(Has<bool (*)(const wxString&, const wxArrayString&, wxString&, int&, wxString&)>(&Execute));
static_assert(std::is_same_v<decltype(&ReadPidFile), long (*)(const wxString&)>);
static_assert(std::is_same_v<decltype(&WritePidFile), bool (*)(const wxString&)>);
static_assert(std::is_same_v<decltype(&SecureFileOrDirectory), bool (*)(const wxString&, bool)>);
static_assert(std::is_same_v<decltype(&InitCrashHandler), bool (*)(const wxString&, const wxString&, bool)>);
static_assert(std::is_same_v<decltype(&TimeNowMillis), std::int64_t (*)()>);
static_assert(std::is_same_v<decltype(&OpenSSLThreadSetup), void (*)()>);
static_assert(std::is_same_v<decltype(&OpenSSLThreadShutdown), void (*)()>);
static_assert(std::is_same_v<decltype(&CSqliteDatabase::InitializeSQLite), bool (*)(CDom*)>);
static_assert(std::is_same_v<decltype(&CSqliteDatabase::ShutdownSQLite), void (*)()>);
static_assert(std::is_same_v<decltype(&profiler_idle), void (*)()>);
static_assert(std::is_same_v<decltype(&profiler_running), void (*)()>);

// A host's thread that overrides all that it may.
class Thread : public CRunnable
{
public:
    Thread() : CRunnable(false, -1, false) {}
    std::string called;

    const char* GetThreadName() const override { return "own"; }
    void requestExit() override { called += "requestExit "; }
    bool join(long) override { return called += "join ", true; }
    wxThreadError Delete() override { return called += "Delete ", wxTHREAD_NO_ERROR; }
    void Awaken() override { called += "Awaken "; }
    void interrupt() override { called += "interrupt "; }
    bool TestDestroy() override { return called += "TestDestroy ", true; }
    void* Entry() override { return called += "Entry ", nullptr; }
    void OnExit() override { called += "OnExit "; }
    void OnRun() override { called += "OnRun "; }
};

} // namespace

TEST(Interface, WhatAHostOverridesIsReachedThroughTheBase)
{
    Thread thread;
    CRunnable& base = thread;
    EXPECT_STREQ(base.GetThreadName(), "own");
    base.requestExit();
    base.join();
    base.Delete();
    base.Awaken();
    base.interrupt();
    base.TestDestroy();
    EXPECT_EQ(thread.called, "requestExit join Delete Awaken interrupt TestDestroy ");
}

TEST(Interface, AnEventIsDestroyedThroughItsBase)
{
    struct Counted : CAgentEvent
    {
        explicit Counted(int& n) : count(n) {}
        ~Counted() override { ++count; }
        int& count;
    };
    int destroyed = 0;
    XMLObject* const event = new Counted(destroyed);
    event->SetAttributeNull(CAgentEvent::FieldNumber, false);
    delete event;
    EXPECT_EQ(destroyed, 1);
}

TEST(Interface, TheSignalOfThreadsIsTheFifthRealTimeSignal)
{
    EXPECT_EQ(CRunnable::SigThreadDelete, SIGRTMIN + 4);
}
