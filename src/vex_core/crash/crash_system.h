#pragma once
// Between the crash handler and the part of it that knows the system. All of it runs inside a signal handler,
// on a small stack, in a process whose heap may be broken: no allocation, no lock, no call that is not a
// plain system call. That is why it makes its calls itself and not through os/, where more than the call may
// happen.

#include <csignal>
#include <cstddef>
#include <cstdint>

#include <sys/types.h>

namespace VexCore {

struct CrashSite
{
    int signal = 0;
    siginfo_t* info = nullptr;
    void* context = nullptr; ///< ucontext_t of the crashed thread
    pid_t process = 0;
    long thread = 0; ///< the system's number of the crashed thread
};

struct CrashDumpTarget
{
    const char* path = nullptr;
    const char* temporary = nullptr; ///< written first, then renamed; goes when anything fails
    bool full = false; ///< all readable memory
};

/// Asks for what cannot be asked for in a crash (page size, kernel name). Main thread, once.
void PrepareCrashDump();

/// Stops the other threads and writes the dump. 0, or the system's error code; ENOSYS where there is no dump
/// format for this system or processor. The other threads stay stopped.
int WriteCrashDump(const CrashDumpTarget& target, const CrashSite& site);

/// Moves a dump that is there out of the way of the next one: NAME.mdmp becomes NAME.TIME.mdmp, with the time of its
/// writing in seconds since the epoch, and the latest five of these stay. In a crash or not.
void KeepEarlierDump(const char* path);

long CurrentThreadNumber();
/// Whether the crash is the main thread's.
bool IsOnMainThread(const CrashSite& site);

/// Makes the process end by the crash's own signal when the handler returns, at the place of the crash.
void EndBySignalOnReturn(const CrashSite& site);
/// Ends it by the signal here and now.
[[noreturn]] void EndBySignalNow(int signal);

/// "No space left on device"; empty where that cannot be asked for in a signal handler.
const char* CrashErrorText(int error);

/// Text in a fixed buffer, cut when it is full.
class CrashText
{
public:
    CrashText& operator<<(const char* text);
    CrashText& operator<<(char character);
    CrashText& Decimal(long long value, int width = 1);
    CrashText& Hex(std::uint64_t value);
    const char* Data() const { return m_text; }
    std::size_t Size() const { return m_size; }

private:
    char m_text[4700] = {};
    std::size_t m_size = 0;
};

} // namespace VexCore
