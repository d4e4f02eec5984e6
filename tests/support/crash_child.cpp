// Crashes in the way that its first argument names, under the core library's crash handler.
//
//   crash_child WAY DUMPFILE WORKFOLDER [full | small [silent]]

#include "vex/core/crash.h"
#include "vex/core/dom.h"
#include "vex/core/log.h"
#include "vex/core/runnable.h"
#include "vex/core/sendsignal.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include <link.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <wx/init.h>
#include <wx/log.h>

using namespace VexCore;

namespace {
std::string g_dumpFile;
volatile int g_sink = 0;

// Each way is a function of its own, with a name to be found in the dump's stack.

[[gnu::noinline]] void CrashOnNull()
{
    volatile int* volatile nowhere = nullptr;
    *nowhere = 7;
    g_sink = g_sink + 1; // no tail call
}

[[gnu::noinline]] void CrashByAbort()
{
    std::abort();
}

[[gnu::noinline]] int CrashByRecursion(int depth)
{
    volatile char room[512];
    room[0] = static_cast<char>(depth);
    g_sink = g_sink + 1;
    if (depth >= 0) // always; the compiler shall not see it
        return CrashByRecursion(depth < 1000000000 ? depth + 1 : depth) + room[0];
    return room[0];
}

[[gnu::noinline]] void CrashByDivision()
{
    volatile int zero = 0;
    g_sink = 100 / zero;
}

[[gnu::noinline]] void CrashByTrap()
{
    __builtin_trap();
}

std::atomic<bool> g_mainWaits{false};

[[gnu::noinline]] void WaitInMain()
{
    g_mainWaits = true;
    for (;;)
        pause();
}

// For a thread whose crash is to find the main thread there, and not still at the thread's start.
void AwaitMain()
{
    while (!g_mainWaits)
        std::this_thread::yield();
}

// A crash inside the handler: a thread that cannot be stopped strikes the crashing one while that writes its
// dump.
void StrikeWhileItWrites(pthread_t victim)
{
    std::thread([victim] {
        struct stat status;
        while (stat((g_dumpFile + ".tmp").c_str(), &status) != 0)
            usleep(1000);
        pthread_kill(victim, SIGSEGV);
        for (;;)
            pause();
    }).detach();
}

void BlockAllAnd(void (*then)(pthread_t))
{
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    then(pthread_self());
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

class Crasher : public CRunnable
{
public:
    explicit Crasher(void (*body)(), bool awaitsMain = false)
        : CRunnable(false, -1, false), m_body(body), m_awaitsMain(awaitsMain)
    {}
    const char* GetThreadName() const override { return "Crasher"; }

protected:
    void OnRun() override
    {
        if (m_awaitsMain)
            AwaitMain();
        m_body();
        g_sink = g_sink + 1; // no tail call
    }

private:
    void (*m_body)();
    const bool m_awaitsMain;
};

int InThread(void (*body)())
{
    Crasher thread(body, true);
    if (!thread.start(50, true, 0))
        return 3;
    WaitInMain();
    return 0;
}

// Three threads, as nearly at once as can be.
[[gnu::noinline]] void CrashInMany()
{
    static std::atomic<int> s_ready{0};
    ++s_ready;
    while (s_ready < 3) {
    }
    CrashOnNull();
    g_sink = g_sink + 1; // no tail call
}

// Crashes while another thread starts one thread after the other.
void CrashAmongNewThreads()
{
    static std::atomic<int> s_started{0};
    std::thread([] {
        constexpr int atMost = 900;
        for (; s_started < atMost; ++s_started)
            std::thread([] { pause(); }).detach();
        pause();
    }).detach();
    while (s_started < 50) {
    }
    CrashOnNull();
}

// Of the library whose code `handler` is.
struct Library
{
    std::uintptr_t handler;
    std::uintptr_t begin; // of its data
    std::uintptr_t end;
};

int FindData(dl_phdr_info* info, std::size_t, void* found)
{
    Library& library = *static_cast<Library*>(found);
    Library data = {library.handler, UINTPTR_MAX, 0};
    bool isIt = false;
    for (const ElfW(Phdr)* part = info->dlpi_phdr; part != info->dlpi_phdr + info->dlpi_phnum; ++part) {
        const std::uintptr_t begin = info->dlpi_addr + part->p_vaddr;
        if (part->p_type != PT_LOAD)
            continue;
        isIt = isIt || (library.handler >= begin && library.handler < begin + part->p_memsz);
        if (part->p_flags & PF_W) {
            data.begin = std::min<std::uintptr_t>(data.begin, begin);
            data.end = std::max<std::uintptr_t>(data.end, begin + part->p_memsz);
        }
    }
    if (isIt)
        library = data;
    return isIt;
}

// As when somebody writes over the library's file in place: what the handler would call first is not there any more.
[[gnu::noinline]] void CrashWithoutTheLibrarysData()
{
    Library library = {reinterpret_cast<std::uintptr_t>(&InitCrashHandler), 0, 0};
    const std::uintptr_t page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    dl_iterate_phdr(FindData, &library);
    library.begin -= library.begin % page;
    volatile int* volatile nowhere = nullptr;
    if (mprotect(reinterpret_cast<void*>(library.begin), library.end - library.begin, PROT_NONE) == 0)
        *nowhere = 7;
}

int Crash(const std::string& way)
{
    if (way == "null")
        CrashOnNull();
    else if (way == "abort")
        CrashByAbort();
    else if (way == "division")
        CrashByDivision();
    else if (way == "trap")
        CrashByTrap();
    else if (way == "sent")
        SendSignal(getpid(), SIGBUS);
    else if (way == "breakpoint")
        SendSignal(getpid(), SIGTRAP);
    else if (way == "thread")
        return InThread(CrashOnNull);
    else if (way == "foreign") {
        std::thread([] {
            AwaitMain();
            CrashOnNull();
        }).detach();
        WaitInMain();
    } else if (way == "spawning")
        CrashAmongNewThreads();
    else if (way == "overflow")
        return InThread([] { g_sink = CrashByRecursion(0); });
    else if (way == "main-overflow")
        g_sink = CrashByRecursion(0);
    else if (way == "many") {
        Crasher first(CrashInMany);
        Crasher second(CrashInMany);
        first.start(50, true, 0);
        second.start(50, true, 0);
        CrashInMany();
    } else if (way == "nested") {
        BlockAllAnd(StrikeWhileItWrites);
        CrashByAbort();
    } else if (way == "children") {
        for (void (*const crash)() : {CrashByAbort, CrashOnNull}) {
            if (const pid_t child = fork(); child > 0)
                waitpid(child, nullptr, 0);
            else
                crash();
        }
        _exit(0);
    } else if (way == "no-library")
        CrashWithoutTheLibrarysData();
    return 4; // it should not have come here
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 4)
        return 2;
    wxInitializer framework(argc, argv);
    g_dumpFile = argv[2];
    CDom* const dom = CDom::New(nullptr, nullptr, nullptr, false);
    dom->Set("app.name", "crash_child");
    dom->Set("app.path.work", argv[3]);
    delete wxLog::SetActiveTarget(new CLog2Disk);
    if (argc <= 5 || std::strcmp(argv[5], "silent") != 0)
        wxLogMessage("before the crash");
    const bool full = argc > 4 && std::strcmp(argv[4], "full") == 0;
    if (!InitCrashHandler(wxString::FromUTF8(argv[2]), "crash_child", full))
        return 5;
    return Crash(argv[1]);
}
