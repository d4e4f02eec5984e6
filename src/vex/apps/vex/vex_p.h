#pragma once
// For the files of the launcher only: its trace macro, and the values that signal handlers read.

#include "vex/apps/vex/version.h"
#include "vex/apps/vex/vex.h"
#include "vex/core/log.h"

#include <csignal>
#include <string>
#include <vector>

#include <wx/filename.h>
#include <wx/string.h>

// The time at the head of a log line.
constexpr char logTimestamp[] = "%Y-%m-%d %H:%M:%S";

// A trace line of the launcher. Its arguments are formatted only when the module is traced. The source file is one
// fixed text, so that lines of different builds compare equal.
#define VEX_TRACE(function, ...)                                                                                       \
    do {                                                                                                               \
        if (VexCore::LogTraceIsEnabled(CAgentApp::s_Trace))                                                            \
            VexCore::LogTrace(CAgentApp::s_Trace, "vex/apps/vex/vex", __LINE__, function,                              \
                              wxString::Format(__VA_ARGS__));                                                          \
    } while (false)

// --- vex.cpp
/// To normalise a path is to resolve "." and "..", a leading "~", and the folder that it is relative to.
constexpr int normalizeFlags = wxPATH_NORM_DOTS | wxPATH_NORM_TILDE | wxPATH_NORM_ABSOLUTE;
/// The file that the path names, normalised against the current folder.
wxFileName NormalizedFile(const wxString& path);

/// Whether the framework can take the path for a file name. Where not, it takes another one.
bool IsText(const std::string& path);
/// The path for a message, whatever its bytes are.
wxString ShownPath(const std::string& path);

// --- openssl_init.cpp
void StartOpenSsl();
void SeedOpenSslRandom();
void StopOpenSsl();
/// Polls for entropy until the status is 1, at most 100 times, and answers how often it polled. Giving up is silent.
int SeedRandom(int (*gather)(), int (*status)());

// --- zippath.cpp
/// Appends each longest run of characters of `text` that are not among the delimiters. Nothing is trimmed, empty pieces
/// are dropped.
void Tokenize(std::vector<wxString>& list, const wxString& text, const wxString& delimiters);

// --- shutdown.cpp
/// A run time as the exit banner shows it: "0d 01:02:03.456".
wxString RunTimeText(const wxTimeSpan& runTime);

// --- run.cpp
extern volatile std::sig_atomic_t g_last_signal; ///< last signal that VexSignalHandler took; written only
extern "C" void VexSignalHandler(int signal);

// --- daemon.cpp
extern wxString g_pidFileName; ///< filled in by the supervisor
extern "C" void pass_signal(int signal, siginfo_t* information, void* context);
