#pragma once
// A core library for tests of the launcher: it is linked in place of the real one, does next to nothing, answers what a
// test tells it to answer, and writes down every call. All calls of a process go to one journal, so that a test can
// check the order of calls to different parts.
//
// A journal line is the name of the operation and its arguments, for instance
//   Dom.SetWx("app.name", "vx_agent")
//   Log(Warning, "lib/x.zip: no matches")
//   Trace("Appl", "ExpandZippath", "app.lua.zippath empty ")
// Texts are shown in UTF-8 as they are, between double quotes, with line breaks as \n.

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <wx/string.h>

class wxArrayString;
class wxFileName;

namespace FakeCore {

/// One entry that the fake `Unzip` shows to the callback.
struct Entry
{
    std::string name;
    std::int64_t size = 0; ///< bytes
    bool isNull = false; ///< shown as a null pointer
};

enum class ThreadKind {
    Real, ///< `start` makes a thread
    Synchronous, ///< `start` runs the body before it returns
    CannotStart, ///< `start` fails
};

/// What the fake answers. A test changes it before it calls the launcher; `Reset` brings the defaults back.
struct AnswerTable
{
    // Log and trace
    std::set<std::string> tracedModules; ///< modules that `LogTraceIsEnabled` answers true for
    bool recordTraceQueries = false; ///< write `TraceIsEnabled("Appl")` lines too

    // Archives
    std::vector<Entry> unzipEntries; ///< shown for every archive without entries of its own
    std::map<std::string, std::vector<Entry>> unzipEntriesOf; ///< by the archive's file name without folder
    bool unzipResult = true;
    std::map<std::string, bool> unzipResultOf; ///< by the archive's file name without folder
    std::function<void(const wxFileName& archive)> onUnzip; ///< runs after the entries were shown

    // Processes and files
    std::vector<long> pidFileAnswers; ///< answers of `ReadPidFile`, used up one by one; 0 when there are none left
    bool writePidFileResult = true;
    std::function<void(const wxString& path)> onWritePidFile;
    bool executeResult = true;
    int executeExitCode = 0;
    std::string executeOutput;
    std::string executeError;
    std::function<void()> onExecute;
    std::function<void()> onShutdown; ///< in `OpenSSLThreadShutdown`
    bool secureResult = true;
    bool mayBelieveFile = true;
    bool crashHandlerResult = true;
    std::int64_t timeNowMs = 1700000000123; ///< answer of `TimeNowMillis`
    std::int64_t timeStepMs = 0; ///< added after each answer

    // Domain
    std::string pluginWorkdirRoot = "/fake/plugins"; ///< "diag" gives this folder / "diag"
    bool registerLoaderFails = false; ///< `RegisterLoader` raises the Lua error "no loader"

    // Interpreter
    std::optional<int> runScriptStatus; ///< answered by `RunScript` instead of running the chunk
    std::string errorInfo; ///< answered by `GetErrorInfo` until a chunk really fails
    std::function<void()> onRunScript; ///< runs before the chunk
    std::string setPackagePathsError; ///< when not empty, `SetPackagePaths` raises it as a Lua error
    std::string setPackagePathsException; ///< text of an exception that is thrown instead

    // Threads
    ThreadKind threads = ThreadKind::Real;
    bool joinTimesOut = false; ///< a `join` with a time limit answers that the thread runs on

    // The end of the process
    std::function<void(int status)>
        onExitProcess; ///< ends the process; without it the calling thread ends by an exception

    // Database
    bool sqliteResult = true;

    // Everything
    std::function<void(const std::string& line)> onRecord; ///< runs before a line is written down; may throw
};

/// The answers in force. Change them only while no other thread runs.
AnswerTable& Answers();

/// Empties the journal and forgets all answers. Live domains and interpreters keep what they hold.
void Reset();

/// Adds a line of the test's own. Any thread.
void Record(const std::string& line);

/// All lines so far. Any thread.
std::vector<std::string> Journal();
/// The lines that begin with one of the prefixes, in order. Any thread.
std::vector<std::string> Journal(const std::vector<std::string>& prefixes);
/// How often the line stands in the journal.
std::size_t Count(const std::string& line);
void ClearJournal();

/// Number of domains that were made and not yet destroyed; the same for interpreters.
int LiveDomains();
int LiveInterpreters();

// --- for the parts of the fake
std::string Quote(const std::string& text);
std::string Quote(const wxString& text);
std::string Quote(const char* text); ///< null is shown as null
const char* Word(bool value);

} // namespace FakeCore
