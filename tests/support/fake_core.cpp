// The journal, and those operations of the core library that are free functions.

#include "support/fake_core.h"

#include "vex/core/agentevent.h"
#include "vex/core/clock.h"
#include "vex/core/crash.h"
#include "vex/core/execute.h"
#include "vex/core/files.h"
#include "vex/core/log.h"
#include "vex/core/openssl.h"
#include "vex/core/pidfile.h"
#include "vex/core/profiler.h"
#include "vex/core/sqlitedb.h"
#include "vex/core/unzip.h"

#include <algorithm>
#include <mutex>

#include <wx/arrstr.h>
#include <wx/filename.h>
#include <wx/zipstrm.h>

namespace FakeCore {

namespace {
std::mutex g_lock;

// Guarded by g_lock. It is never destroyed: fake_agent prints it when the process ends.
std::vector<std::string>& Lines()
{
    static auto& s_lines = *new std::vector<std::string>;
    return s_lines;
}

const char* LevelWord(wxLogLevel level)
{
    switch (level) {
    case wxLOG_FatalError:
        return "FatalError";
    case wxLOG_Error:
        return "Error";
    case wxLOG_Warning:
        return "Warning";
    case wxLOG_Message:
        return "Message";
    case wxLOG_Status:
        return "Status";
    case wxLOG_Info:
        return "Info";
    case wxLOG_Debug:
        return "Debug";
    default:
        return "Other";
    }
}

} // namespace

AnswerTable& Answers()
{
    static AnswerTable s_answers;
    return s_answers;
}

void Reset()
{
    Answers() = AnswerTable();
    ClearJournal();
}

void Record(const std::string& line)
{
    if (Answers().onRecord)
        Answers().onRecord(line);
    const std::lock_guard lock(g_lock);
    Lines().push_back(line);
}

std::vector<std::string> Journal()
{
    const std::lock_guard lock(g_lock);
    return Lines();
}

std::vector<std::string> Journal(const std::vector<std::string>& prefixes)
{
    std::vector<std::string> found;
    for (const std::string& line : Journal())
        if (std::any_of(prefixes.begin(), prefixes.end(),
                        [&line](const std::string& prefix) { return line.compare(0, prefix.size(), prefix) == 0; }))
            found.push_back(line);
    return found;
}

std::size_t Count(const std::string& line)
{
    const std::vector<std::string> lines = Journal();
    return static_cast<std::size_t>(std::count(lines.begin(), lines.end(), line));
}

void ClearJournal()
{
    const std::lock_guard lock(g_lock);
    Lines().clear();
}

std::string Quote(const std::string& text)
{
    std::string quoted = "\"";
    for (const char c : text) {
        if (c == '\n')
            quoted += "\\n";
        else
            quoted += c;
    }
    return quoted + "\"";
}

std::string Quote(const wxString& text)
{
    return Quote(text.utf8_string());
}

std::string Quote(const char* text)
{
    return text ? Quote(std::string(text)) : "null";
}

const char* Word(bool value)
{
    return value ? "true" : "false";
}

} // namespace FakeCore

namespace VexCore {

using FakeCore::Answers;
using FakeCore::Quote;
using FakeCore::Record;
using FakeCore::Word;

// --- log.h
CLog2Disk::CLog2Disk() = default;
CLog2Disk::~CLog2Disk() = default;

void CLog2Disk::Flush()
{
    wxLog::Flush();
}

void CLog2Disk::DoLogRecord(wxLogLevel level, const wxString& message, const wxLogRecordInfo&)
{
    Record("Log(" + std::string(FakeCore::LevelWord(level)) + ", " + Quote(message) + ")");
}

bool LogTraceIsEnabled(const char* module)
{
    if (Answers().recordTraceQueries)
        Record("TraceIsEnabled(" + Quote(module) + ")");
    return module && Answers().tracedModules.count(module) > 0;
}

void LogTrace(const char* module, const char* sourceFile, int, const char* function, const wxString& message)
{
    // The source file is the same in every line of the launcher: shown only when it is another one.
    const std::string file = sourceFile ? sourceFile : "";
    Record("Trace(" + Quote(module) + ", " + (file == "vex/apps/vex/vex" ? "" : Quote(file) + ", ") + Quote(function)
           + ", " + Quote(message) + ")");
}

// --- unzip.h
bool Unzip(const wxFileName& archive, const wxFileName& folder, UnzipCallback callback, void* context)
{
    Record("Unzip(" + Quote(archive.GetFullPath()) + ", " + Quote(folder.GetFullPath()) + ")");
    const std::string name = archive.GetFullName().utf8_string();
    const auto own = Answers().unzipEntriesOf.find(name);
    // A copy, so that a callback may change the answers.
    const std::vector<FakeCore::Entry> entries =
        own == Answers().unzipEntriesOf.end() ? Answers().unzipEntries : own->second;
    for (const FakeCore::Entry& item : entries) {
        wxZipEntry entry(wxString::FromUTF8(item.name), wxDateTime::Now(), static_cast<wxFileOffset>(item.size));
        const wxString destination = folder.GetPathWithSep() + wxString::FromUTF8(item.name);
        const bool answer = callback(context, item.isNull ? nullptr : &entry, &destination);
        Record("Unzip.Entry(" + (item.isNull ? std::string("null") : Quote(item.name)) + ") -> " + Word(answer));
    }
    if (Answers().onUnzip)
        Answers().onUnzip(archive);
    const auto result = Answers().unzipResultOf.find(name);
    return result == Answers().unzipResultOf.end() ? Answers().unzipResult : result->second;
}

// --- files.h, crash.h, clock.h
bool SecureFileOrDirectory(const wxString& path, bool recurse)
{
    Record("SecureFileOrDirectory(" + Quote(path) + ", " + Word(recurse) + ")");
    return Answers().secureResult;
}

bool MayBelieveFile(const wxString&)
{
    return Answers().mayBelieveFile;
}

bool InitCrashHandler(const wxString& dumpFile, const wxString& application, bool fullDump)
{
    Record("InitCrashHandler(" + Quote(dumpFile) + ", " + Quote(application) + ", " + Word(fullDump) + ")");
    return Answers().crashHandlerResult;
}

std::int64_t TimeNowMillis()
{
    Record("TimeNowMillis()");
    const std::int64_t now = Answers().timeNowMs;
    Answers().timeNowMs += Answers().timeStepMs;
    return now;
}

// --- execute.h, pidfile.h
bool Execute(const wxString& program, const wxArrayString& arguments, wxString& output, int& exitCode, wxString& error)
{
    std::string line = "Execute(" + Quote(program) + ", {";
    for (std::size_t i = 0; i < arguments.GetCount(); ++i)
        line += (i ? ", " : "") + Quote(arguments[i]);
    Record(line + "})");
    if (Answers().onExecute)
        Answers().onExecute();
    output = wxString::FromUTF8(Answers().executeOutput);
    exitCode = Answers().executeExitCode;
    error = wxString::FromUTF8(Answers().executeError);
    return Answers().executeResult;
}

bool Execute(const wxString& program, const wxArrayString& arguments, wxString& output, int& exitCode, wxString& error,
             long)
{
    return Execute(program, arguments, output, exitCode, error);
}

long ReadPidFile(const wxString& path)
{
    Record("ReadPidFile(" + Quote(path) + ")");
    std::vector<long>& left = Answers().pidFileAnswers;
    if (left.empty())
        return 0;
    const long pid = left.front();
    left.erase(left.begin());
    return pid;
}

bool WritePidFile(const wxString& path)
{
    Record("WritePidFile(" + Quote(path) + ")");
    if (Answers().onWritePidFile)
        Answers().onWritePidFile(path);
    return Answers().writePidFileResult;
}

// --- openssl.h, sqlitedb.h, profiler.h
void OpenSSLThreadSetup()
{
    Record("OpenSSLThreadSetup()");
}

void OpenSSLThreadShutdown()
{
    Record("OpenSSLThreadShutdown()");
    if (Answers().onShutdown)
        Answers().onShutdown();
}

bool CSqliteDatabase::InitializeSQLite(CDom* dom)
{
    Record(std::string("InitializeSQLite(") + (dom ? "dom" : "null") + ")");
    return Answers().sqliteResult;
}

void CSqliteDatabase::ShutdownSQLite()
{
    Record("ShutdownSQLite()");
}

void profiler_idle()
{
    Record("profiler_idle()");
}

void profiler_running()
{
    Record("profiler_running()");
}

// --- agentevent.h
XMLObject::~XMLObject() = default;

void XMLObject::SetAttributeNull(int field, bool isNull)
{
    Record("Event.SetAttributeNull(" + std::to_string(field) + ", " + Word(isNull) + ")");
    if (field < 0 || field > 31)
        return;
    const std::uint32_t bit = static_cast<std::uint32_t>(1) << field;
    m_present = isNull ? m_present & ~bit : m_present | bit;
}

bool XMLObject::IsAttributeNull(int field) const
{
    return field < 0 || field > 31 || (m_present & (static_cast<std::uint32_t>(1) << field)) == 0;
}

CAgentEvent::CAgentEvent() = default;
CAgentEvent::~CAgentEvent() = default;

std::int32_t CAgentEvent::ToSeverity(int level)
{
    Record("Event.ToSeverity(" + std::to_string(level) + ")");
    return std::clamp(level, 0, 7);
}

std::string CAgentEvent::ToXml() const
{
    return "<event/>";
}

} // namespace VexCore
