// The crash handler. It runs on the crashed thread, on that thread's alternate stack; whatever it needs was
// laid out when it was installed. The first thread that crashes writes the dump; another one that crashes
// meanwhile waits for the end. A crash of the handler itself, or a minute without an end (a file system that
// hangs), ends the process by the first crash's signal.

#include "vex/core/crash.h"
#include "vex_core/base/text.h"
#include "vex_core/base/thread_name.h"
#include "vex_core/base/utf8.h"
#include "vex_core/crash/crash_system.h"
#include "vex_core/crash/other_threads.h"
#include "vex_core/crash/signal_stack.h"
#include "vex_core/log/process_log.h"
#include "vex_core/os/guarded_place.h"
#include "vex_core/os/system_log.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <string_view>

#include <fcntl.h>
#include <unistd.h>

namespace VexCore {
namespace {
struct CrashSignal
{
    int number;
    const char* name;
};

constexpr CrashSignal crashSignals[] = {{SIGSEGV, "SIGSEGV"}, {SIGBUS, "SIGBUS"},   {SIGILL, "SIGILL"},
                                        {SIGFPE, "SIGFPE"},   {SIGABRT, "SIGABRT"}, {SIGTRAP, "SIGTRAP"}};

constexpr unsigned limitSeconds = 60;

// Set by InitCrashHandler before the handler can run; only read afterwards.
char g_dumpPath[4096];
char g_temporaryPath[4096 + 8];
char g_applicationName[256];
char g_logPath[4096]; // for a crash before anything was logged; empty when it was not known
bool g_fullMemory = false;
bool g_dumpRefused = false; // somebody else has a hand in the folder
long g_localTimeOffset = 0; // seconds to add to UTC; a change of it meanwhile only moves the line's time

std::atomic<long> g_crashingThread{0}; // 0: no crash yet
CrashSite g_firstCrash; // written by the crashing thread before anything can go wrong
std::atomic<bool> g_reported{false};

// In place of a system's error code: what became of the handler itself.
constexpr int handlerCrashed = -1;
constexpr int handlerTooSlow = -2;

const char* NameOf(int signal)
{
    for (const CrashSignal& item : crashSignals)
        if (item.number == signal)
            return item.name;
    return "?";
}

// --- time without the C library, which locks and allocates for it

struct CivilTime
{
    long long year;
    int month, day, hour, minute, second;
};

long long DaysFromCivil(long long year, int month, int day)
{
    year -= month <= 2 ? 1 : 0;
    const long long era = (year >= 0 ? year : year - 399) / 400;
    const long long yearOfEra = year - era * 400;
    const long long dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    return era * 146097 + yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear - 719468;
}

CivilTime CivilFromSeconds(long long seconds)
{
    const long long days = (seconds >= 0 ? seconds : seconds - 86399) / 86400;
    const int rest = static_cast<int>(seconds - days * 86400);
    const long long shifted = days + 719468;
    const long long era = (shifted >= 0 ? shifted : shifted - 146096) / 146097;
    const long long dayOfEra = shifted - era * 146097;
    const long long yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const long long dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const int monthFromMarch = static_cast<int>((5 * dayOfYear + 2) / 153);
    const int month = monthFromMarch + (monthFromMarch < 10 ? 3 : -9);
    return {yearOfEra + era * 400 + (month <= 2 ? 1 : 0),
            month,
            static_cast<int>(dayOfYear - (153 * monthFromMarch + 2) / 5 + 1),
            rest / 3600,
            rest / 60 % 60,
            rest % 60};
}

long LocalTimeOffset()
{
    const std::time_t now = std::time(nullptr);
    std::tm local = {};
    localtime_r(&now, &local);
    const long long seconds = DaysFromCivil(local.tm_year + 1900, local.tm_mon + 1, local.tm_mday) * 86400
                              + local.tm_hour * 3600 + local.tm_min * 60 + local.tm_sec;
    return static_cast<long>(seconds - static_cast<long long>(now));
}

// --- the one line

void WriteBytes(int descriptor, const char* data, std::size_t size)
{
    while (size > 0) {
        const ssize_t written = write(descriptor, data, size);
        if (written <= 0)
            return;
        data += written;
        size -= static_cast<std::size_t>(written);
    }
}

// Static: they are larger than a small stack should have to hold, and one thread at most gets here.
CrashText g_logLine;
CrashText g_errorLine;
CrashText g_systemLogLine;

// As every line of the log has it. The name of a worker is a script's choice.
void AddThreadName(const CrashSite& site)
{
    constexpr std::size_t maxBytes = 128;
    const char* name = ThreadName();
    if (CurrentThreadNumber() != site.thread || !name)
        name = IsOnMainThread(site) ? "main" : "thread";
    std::string_view text(name, strnlen(name, maxBytes));
    while (!text.empty()) {
        char32_t character = static_cast<unsigned char>(text.front());
        const std::size_t length = std::max<std::size_t>(DecodeUtf8(text, character), 1);
        for (const char byte : text.substr(0, length))
            g_logLine << (IsControlOrLineEnd(character) ? '?' : byte);
        text.remove_prefix(length);
    }
}

void AddLogPrefix(const CrashSite& site)
{
    struct timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    const CivilTime time = CivilFromSeconds(static_cast<long long>(now.tv_sec) + g_localTimeOffset);
    g_logLine.Decimal(time.year, 4) << '-';
    g_logLine.Decimal(time.month, 2) << '-';
    g_logLine.Decimal(time.day, 2) << ' ';
    g_logLine.Decimal(time.hour, 2) << ':';
    g_logLine.Decimal(time.minute, 2) << ':';
    g_logLine.Decimal(time.second, 2) << " FATAL [";
    g_logLine.Decimal(site.process) << '/';
    AddThreadName(site);
    g_logLine << "] ";
}

void AddReason(CrashText& line, int dumpError)
{
    if (dumpError == handlerCrashed) {
        line << "the crash handler crashed as well";
        return;
    }
    if (dumpError == handlerTooSlow) {
        line << "it took too long";
        return;
    }
    line << "error ";
    line.Decimal(dumpError);
    const char* const text = CrashErrorText(dumpError);
    if (*text != '\0')
        line << ": " << text;
}

void AddMessage(CrashText& line, const CrashSite& site, int dumpError)
{
    line << g_applicationName << " crashed: signal ";
    line.Decimal(site.signal) << " (" << NameOf(site.signal);
    const bool hasAddress =
        site.signal == SIGSEGV || site.signal == SIGBUS || site.signal == SIGILL || site.signal == SIGFPE;
    if (hasAddress && site.info->si_code > 0) // else somebody sent it
        (line << " at address ").Hex(reinterpret_cast<std::uintptr_t>(site.info->si_addr));
    line << "), thread ";
    line.Decimal(site.thread) << "; ";
    if (dumpError == 0) {
        line << "crash dump: " << g_dumpPath << '\n';
        return;
    }
    line << "no crash dump could be written to " << g_dumpPath << " (";
    AddReason(line, dumpError);
    line << ")\n";
}

// The line of the log, without its time: with a record that has none the logger takes its own.
void SendToSystemLog(const CrashSite& site)
{
    constexpr int critical = 2;
    constexpr std::size_t timeBytes = std::string_view("2026-01-31 10:20:30 ").size();
    const int facility = LogCopyFacility();
    if (facility < 0 || g_logLine.Size() < timeBytes)
        return;
    g_systemLogLine << '<';
    g_systemLogLine.Decimal(facility | critical) << '>' << os::SystemLogName() << '[';
    g_systemLogLine.Decimal(site.process) << "]: ";
    const std::string_view line(g_logLine.Data() + timeBytes, g_logLine.Size() - timeBytes);
    for (const char byte : line.substr(0, line.find('\n')))
        g_systemLogLine << byte;
    os::SendToSystemLogInHandler(g_systemLogLine.Data(), g_systemLogLine.Size());
}

void Report(const CrashSite& site, int dumpError)
{
    if (g_reported.exchange(true))
        return;
    AddLogPrefix(site);
    AddMessage(g_logLine, site, dumpError);
    AddMessage(g_errorLine, site, dumpError);
    int log = LogFileDescriptor();
    if (log < 0) // a link is followed: the way was looked at when the handler was set up
        log = open(g_logPath, O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0600);
    if (log >= 0)
        WriteBytes(log, g_logLine.Data(), g_logLine.Size());
    SendToSystemLog(site);
    WriteBytes(STDERR_FILENO, g_errorLine.Data(), g_errorLine.Size());
}

// --- the handler

[[noreturn]] void GiveUp(int reason)
{
    static std::atomic<bool> s_tried{false};
    if (!s_tried.exchange(true)) {
        unlink(g_temporaryPath);
        Report(g_firstCrash, reason);
    }
    EndBySignalNow(g_firstCrash.signal);
}

void OnTimeOver(int, siginfo_t*, void*)
{
    GiveUp(handlerTooSlow);
}

void LimitTime()
{
    struct sigaction action = {};
    action.sa_sigaction = OnTimeOver;
    action.sa_flags = SA_SIGINFO;
    sigemptyset(&action.sa_mask);
    sigaction(SIGALRM, &action, nullptr);
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGALRM);
    pthread_sigmask(SIG_UNBLOCK, &mask, nullptr);
    alarm(limitSeconds);
}

// From here on a crash of the handler comes through, to be told. One before that, or one of the handling of
// that, meets a blocked signal, for which the system ends the process at once: it would start the handler
// again and again otherwise.
void OpenCrashSignals()
{
    sigset_t mask;
    sigemptyset(&mask);
    for (const CrashSignal& item : crashSignals)
        sigaddset(&mask, item.number);
    pthread_sigmask(SIG_UNBLOCK, &mask, nullptr);
}

void OnCrash(int signal, siginfo_t* info, void* context)
{
    const int error = errno;
    const long self = CurrentThreadNumber();
    long nobody = 0;
    if (!g_crashingThread.compare_exchange_strong(nobody, self)) {
        if (nobody == self)
            GiveUp(handlerCrashed);
        AnswerAndStay(context); // the other thread ends the process
    }
    g_firstCrash = {signal, info, context, getpid(), self};
    OpenCrashSignals();
    LimitTime();
    Report(g_firstCrash,
           g_dumpRefused ? EPERM : WriteCrashDump({g_dumpPath, g_temporaryPath, g_fullMemory}, g_firstCrash));
    alarm(0);
    errno = error;
    EndBySignalOnReturn(g_firstCrash);
}

bool Install()
{
    struct sigaction action = {};
    action.sa_sigaction = OnCrash;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigfillset(&action.sa_mask);
    sigdelset(&action.sa_mask, SIGALRM);
    for (const CrashSignal& item : crashSignals)
        if (sigaction(item.number, &action, nullptr) != 0)
            return false;
    return true;
}

// Whether somebody else has a hand in the folder of a dump. The crash cannot ask; and nobody can get a hand in it
// later, unless we or root let him.
bool IsRefused(const std::string& path, const std::string& work)
{
    const std::string folder = path.substr(0, path.rfind('/'));
    const bool isBelow = !work.empty() && (folder + '/').compare(0, work.size() + 1, work + '/') == 0;
    os::GuardedPlace place =
        isBelow ? os::GuardedPlace(work, folder.substr(work.size())) : os::GuardedPlace(folder, "");
    place.OpenFolder(false);
    return !place.Breach().empty();
}

bool CopyText(char* to, std::size_t size, const std::string& text)
{
    if (text.size() + 1 > size)
        return false;
    std::memcpy(to, text.c_str(), text.size() + 1);
    return true;
}

} // namespace

bool InitCrashHandler(const wxString& dumpFile, const wxString& application, bool fullDump)
{
    const std::string path = ToSystemBytes(dumpFile);
    if (path.empty() || !CopyText(g_dumpPath, sizeof g_dumpPath, path)
        || !CopyText(g_temporaryPath, sizeof g_temporaryPath, path + ".tmp"))
        return false;
    std::string name(application.utf8_str());
    name.resize(std::min(name.size(), sizeof g_applicationName - 1));
    CopyText(g_applicationName, sizeof g_applicationName, name);
    const std::string log = LogFilePath();
    os::GuardedPlace place(log);
    place.OpenAndMendFile(O_RDONLY);
    if (!place.Breach().empty() || !CopyText(g_logPath, sizeof g_logPath, log))
        g_logPath[0] = '\0';
    g_dumpRefused = IsRefused(path, log.substr(0, log.rfind('/')));
    g_fullMemory = fullDump;
    g_localTimeOffset = LocalTimeOffset();
    PrepareCrashDump();
    if (!g_dumpRefused)
        KeepEarlierDump(g_dumpPath);
    EnableSignalStacks();
    TakeSignalStack();
    return Install();
}

} // namespace VexCore
