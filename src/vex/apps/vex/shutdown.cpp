// The end of a process, the mirror of start-up; and the report of an exception that nobody caught.
//
//   process                                how it ends                                                status
//   foreground, named "vx_agent"           main loop ends after the hand-back, join, clean-up, exit   the script's
//   foreground, other name                 the script thread cleans up and exits                      the script's
//   background child                       main loop ends after the hand-back, join, clean-up, exit   the script's
//   supervisor                             OnRun returns, OnExit, the framework destroys the object   the supervisor's
//   SIGINT or SIGTERM in VexSignalHandler  _exit: no banner, no clean-up                              0
//
// The clean-up is reached from the script thread, from the main thread and from the destructor; one thread a process
// calls it (run.cpp), and it works once.

#include "vex/apps/vex/vex.h"

#include "vex/apps/vex/vex_p.h"

#include "vex/core/dom.h"
#include "vex/core/luainterpreter.h"
#include "vex/core/openssl.h"
#include "vex/core/sqlitedb.h"

#include <exception>
#include <typeinfo>

#include <wx/log.h>

namespace {
// What is known of the exception that is being handled. Ends it: nothing leaves.
wxString DescribeCurrentException()
{
    try {
        throw;
    } catch (const std::exception& e) {
        return wxString::Format("std::exception of type \"%s\", what() = \"%s\"", typeid(e).name(), e.what());
    } catch (const char* text) {
        return wxString::Format("char * exception '%s'", text);
    } catch (const wchar_t* text) {
        return wxString::Format("wchar_t * exception '%s'", text);
    } catch (int value) {
        return wxString::Format("int exception %d", value);
    } catch (unsigned int value) {
        return wxString::Format("unsigned int exception %u", value);
    } catch (long value) {
        return wxString::Format("long exception %ld", value);
    } catch (unsigned long value) {
        return wxString::Format("unsigned long exception %lu", value);
    } catch (long long value) {
        return wxString::Format("long long exception %lld", value);
    } catch (unsigned long long value) {
        return wxString::Format("unsigned long long exception %llu", value);
    } catch (...) {
        return "<unknown exception>";
    }
}

} // namespace

wxString RunTimeText(const wxTimeSpan& runTime)
{
    return runTime.Format("%Dd %H:%M:%S.%l");
}

int CAgentApp::OnExit()
{
    if (m_defaultName)
        wxLogInfo("VEX " VEX_VERSION_TEXT " exiting. Run time was %s", RunTimeText(wxDateTime::UNow() - m_startTime));
    return wxAppConsole::OnExit();
}

void CAgentApp::TerminationCleanup()
{
    static bool s_done = false;
    if (s_done)
        return;
    s_done = true;
    VexCore::OpenSSLThreadShutdown();
    StopOpenSsl();
    VexCore::CSqliteDatabase::ShutdownSQLite();
}

CAgentApp::~CAgentApp()
{
    if (m_lua) {
        delete m_lua;
        m_lua = nullptr;
    }
    if (m_dom) {
        m_dom->Release();
        m_dom = nullptr;
    }
    TerminationCleanup();
}

// Writes trace lines and nothing else: untraced, the exception ends the process without a word, on purpose.
// The end itself is the framework's.
void CAgentApp::OnUnhandledException()
{
    VEX_TRACE("OnUnhandledException", "OnUnhandledException()");
    const wxString description = DescribeCurrentException();
    VEX_TRACE("OnUnhandledException", "OnUnhandledException() - caught unhandled %s, terminating app.", description);
}
