// The framework's log target: turns its records into lines of the process's one disk log, and
// finds out where that lies.

#include "vex/core/log.h"

#include "vex_core/base/end_steps.h"
#include "vex_core/base/file_name_conv.h"
#include "vex_core/base/text.h"
#include "vex_core/base/thread_name.h"
#include "vex_core/domain/dom_values.h"
#include "vex_core/domain/root_dom.h"
#include "vex_core/domain/setting_value.h"
#include "vex_core/domain/settings.h"
#include "vex_core/log/disk_log.h"
#include "vex_core/log/process_log.h"
#include "vex_core/os/files.h"
#include "vex_core/os/last_resort.h"
#include "vex_core/os/process_info.h"

#include <atomic>
#include <cstring>
#include <ctime>

#include <pthread.h>
#include <wx/thread.h>

namespace VexCore {

namespace {
#ifdef VEX_SMALL_LIMITS
constexpr std::size_t maxHeldBytes = 64 * 1024;
#else
constexpr std::size_t maxHeldBytes = 1024 * 1024;
#endif

std::atomic<DiskLog*> g_replacement{nullptr};

// By level. Relaxed: they are only looked at, and nothing hangs on their order.
std::atomic<std::uint64_t> g_logged[static_cast<std::size_t>(LogLevel::Trace) + 1];

// Never destroyed: lines are logged while the process ends, and after.
DiskLog& ProcessLog()
{
    static DiskLog& s_log = *new DiskLog(maxHeldBytes, os::standardError);
    DiskLog* const replacement = g_replacement.load(std::memory_order_relaxed);
    return replacement ? *replacement : s_log;
}

// Empty for the standard one, which nearly every record has: no conversion for that.
std::string TimeFormat()
{
    static const wxString& s_standard = *new wxString(DiskLog::standardTimeFormat); // never destroyed, as the log
    const wxString& format = wxLog::GetTimestamp();
    return format == s_standard ? std::string() : BytesFromText(format);
}

std::atomic<pid_t> g_process{0}; // asking the system takes as long as the text of a record

pid_t Process()
{
    pid_t process = g_process.load(std::memory_order_relaxed);
    if (process == 0) {
        process = os::ProcessId();
        g_process.store(process, std::memory_order_relaxed);
    }
    return process;
}

// Where the domain says that the file is, empty while it does not. The name is part of a file name, so it is kept from
// naming folders.
std::string PlaceIn(const RootDom& root)
{
    wxString name = root->GetWxString("app.name");
    const wxString work = root->GetWxString("app.path.work");
    if (name.empty() || work.empty())
        return std::string();
    name.Replace(wxS("/"), wxS("_"));
    return ToSystemBytes(work + wxS('/') + name + wxS(".log"));
}

// Never destroyed, as the log.
SettingsWatch& LogWatch()
{
    static SettingsWatch& s_watch =
        *new SettingsWatch({"app.log.size", "app.log.count", "app.log.syslog", "app.log.syslog.level"});
    return s_watch;
}

SystemLogCopy::Settings CopySettings(const CDom& dom)
{
    const auto place = ChoiceSetting(dom, "app.log.syslog");
    SystemLogCopy::Settings settings;
    settings.facility = os::SystemLogFacility(ChoiceWord(*FindSetting("app.log.syslog"), place));
    settings.level = static_cast<LogLevel>(1 + ChoiceSetting(dom, "app.log.syslog.level"));
    return settings;
}

// Brings place and settings up to date: the place until there is one, the settings when they changed.
void Prepare(DiskLog& log)
{
    const bool placed = log.HasFile();
    if (placed && !LogWatch().IsDue())
        return;
    const RootDom root;
    if (!root)
        return;
    if (!placed)
        if (const std::string place = PlaceIn(root); !place.empty())
            log.SetFile(place);
    LogWatch().TakeOver(*root, [&] {
        DiskLog::Settings settings;
        settings.maxBytes = IntSetting(*root, "app.log.size");
        settings.keep = static_cast<int>(IntSetting(*root, "app.log.count"));
        settings.copy = CopySettings(*root);
        log.SetSettings(settings);
    });
}

LogLevel LevelOf(wxLogLevel level)
{
    switch (level) {
    case wxLOG_FatalError:
        return LogLevel::Fatal;
    case wxLOG_Error:
        return LogLevel::Error;
    case wxLOG_Warning:
        return LogLevel::Warning;
    case wxLOG_Message:
        return LogLevel::Message;
    case wxLOG_Debug:
    case wxLOG_Progress:
        return LogLevel::Debug;
    case wxLOG_Trace:
        return LogLevel::Trace;
    default:
        return LogLevel::Info;
    }
}

// A thread of ours that ends the process writes down what others left in the framework's queue.
const char* NameOf(wxThreadIdType thread)
{
    if (const char* const own = ThreadName(); own && thread == wxThread::GetCurrentId())
        return own;
    const wxThreadIdType main =
        wxThread::GetMainId(); // 0 until the framework is initialised, when there is no other thread
    return main == 0 || thread == main ? "main" : "thread";
}

void WriteRecord(LogLevel level, std::time_t time, wxThreadIdType thread, std::string_view text)
{
    g_logged[static_cast<std::size_t>(level)].fetch_add(1, std::memory_order_relaxed);
    DiskLog& log = ProcessLog();
    Prepare(log);
    // In the background standard error is /dev/null, which is no terminal.
    const bool shown = level <= LogLevel::Warning && os::IsTerminal(os::standardError);
    if (shown) {
        const std::string line = std::string(LogLevelWord(level)) + ' ' + LogText(text) + '\n';
        os::WriteBestEffort(os::standardError, line.data(), line.size());
    }
    const std::string otherFormat = TimeFormat();
    const char* const format = otherFormat.empty() ? DiskLog::standardTimeFormat : otherFormat.c_str();
    log.Write(FormatLogRecord(time, format, level, Process(), NameOf(thread), text), shown, level, format, time);
}

// The framework empties its queue of other threads' lines on the main thread only, through a private member. A process
// may also be ended by another thread, so the member is named here in the one way that the language allows.
template <void (wxLog::*member)()>
struct QueueDoor
{
    friend void EmptyQueue(wxLog& log) { (log.*member)(); }
};
template struct QueueDoor<&wxLog::FlushThreadMessages>;
void EmptyQueue(wxLog& log);

void BeforeFork()
{
    Prepare(ProcessLog());
    LogWatch().BeforeFork();
    ProcessLog().BeforeFork();
}

void AfterForkInParent()
{
    ProcessLog().AfterForkInParent();
    LogWatch().AfterFork();
}

void AfterForkInChild()
{
    g_process.store(0, std::memory_order_relaxed);
    ProcessLog().AfterForkInChild();
    LogWatch().AfterFork();
}

const struct ForkHooks
{
    ForkHooks()
    {
        ProcessLog();
        ::pthread_atfork(BeforeFork, AfterForkInParent, AfterForkInChild);
    }
} forkHooks;

const EndStepOwner emptyLogQueue(EndStep::EmptyLogQueue, &wxLog::FlushActive);
const EndStepOwner flushLog(EndStep::FlushLog, &FlushLogAtProcessEnd);

} // namespace

CLog2Disk::CLog2Disk() = default;

CLog2Disk::~CLog2Disk() = default;

void CLog2Disk::Flush()
{
    wxLog::Flush();
    EmptyQueue(*this);
    Prepare(ProcessLog());
    ProcessLog().Flush();
}

namespace {
// Copies the text where all of it is ASCII, as it nearly always is: without the framework's conversion. `place` has
// room for as many bytes as the text has characters. False: it is not, and what is there now means nothing.
bool CopyAscii(char* place, const wxString& text)
{
    const std::size_t length = text.length();
    const wchar_t* const wide = text.wc_str();
    std::uint32_t all = 0;
    std::size_t done = 0;
    constexpr std::size_t block = 16;
    for (; length - done >= block; done += block) {
        char narrow[block]; // which nothing else leads to: the compiler makes few instructions of a block
        for (std::size_t i = 0; i < block; ++i) {
            all |= static_cast<std::uint32_t>(wide[done + i]);
            narrow[i] = static_cast<char>(wide[done + i]);
        }
        std::memcpy(place + done, narrow, block);
    }
    for (; done < length; ++done) {
        all |= static_cast<std::uint32_t>(wide[done]);
        place[done] = static_cast<char>(wide[done]);
    }
    return all < 0x80;
}

} // namespace

void AddLogBytes(std::string& bytes, const wxString& text)
{
    const std::size_t begin = bytes.size();
    bytes.resize(begin + text.length());
    if (CopyAscii(bytes.data() + begin, text))
        return;
    bytes.resize(begin);
    const wxScopedCharBuffer utf8 = text.utf8_str();
    if (!std::memchr(utf8.data(), 0xF4, utf8.length())) { // in which all characters that stand for a byte begin
        bytes.append(utf8.data(), utf8.length());
        return;
    }
    const wxCharBuffer converted = FileNameConv().cWC2MB(text.wc_str(), text.length(), nullptr);
    bytes.append(converted ? std::string(converted.data(), converted.length()) : BytesFromText(text));
}

void CLog2Disk::DoLogRecord(wxLogLevel level, const wxString& message, const wxLogRecordInfo& info)
{
    char usual[512]; // most lines fit: no memory is asked for
    if (message.length() <= sizeof usual && CopyAscii(usual, message)) {
        WriteRecord(LevelOf(level), info.timestamp, info.threadId, {usual, message.length()});
        return;
    }
    std::string text;
    AddLogBytes(text, message);
    WriteRecord(LevelOf(level), info.timestamp, info.threadId, text);
}

void WriteLogLine(LogLevel level, std::string_view text)
{
    WriteRecord(level, std::time(nullptr), wxThread::GetCurrentId(), text);
}

std::uint64_t LoggedRecords(LogLevel level)
{
    return g_logged[static_cast<std::size_t>(level)].load(std::memory_order_relaxed);
}

std::string LogFilePath()
{
    const RootDom root;
    return root ? PlaceIn(root) : std::string();
}

int LogFileDescriptor()
{
    return ProcessLog().Descriptor();
}

int LogCopyFacility()
{
    return ProcessLog().CopyFacility();
}

void FlushLogAtProcessEnd()
{
    CLog2Disk log;
    EmptyQueue(log);
    Prepare(ProcessLog());
    ProcessLog().FlushAtEnd();
}

DiskLog* ReplaceProcessLog(DiskLog* log)
{
    LogWatch().Forget(); // the other log has no settings yet
    return g_replacement.exchange(log);
}

} // namespace VexCore
