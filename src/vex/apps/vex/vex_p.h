#pragma once
// For the files of the launcher only: its version, its trace macro, and the values that signal handlers read.

#include "vex/core/log.h"
#include "vex/apps/vex/vex.h"

#include <csignal>

#include <wx/string.h>

// The one definition of the version; banners, packages and extensions are compared with it.
constexpr int VEX_VERSION_MAJOR = 10;
constexpr int VEX_VERSION_MINOR = 0;
constexpr int VEX_VERSION_PATCH = 0;
constexpr int VEX_VERSION_BUILD = 4015;
#define VEX_VERSION_TEXT "10.0.0.4015"

// A trace line of the launcher. Its arguments are formatted only when the module is traced. The source file is one fixed
// text, so that lines of different builds compare equal.
#define VEX_TRACE(function, ...)                                                                                       \
    do {                                                                                                               \
        if (VexCore::LogTraceIsEnabled(CAgentApp::s_Trace))                                                            \
            VexCore::LogTrace(CAgentApp::s_Trace, "vex/apps/vex/vex", __LINE__, function,                              \
                              wxString::Format(__VA_ARGS__));                                                          \
    } while (false)

// --- run.cpp
extern volatile std::sig_atomic_t g_last_signal; ///< last signal that VexSignalHandler took; written only
extern "C" void VexSignalHandler(int signal);

// --- daemon.cpp
extern wxString g_pidFileName; ///< filled in by the supervisor
extern "C" void pass_signal(int signal, siginfo_t* information, void* context);
