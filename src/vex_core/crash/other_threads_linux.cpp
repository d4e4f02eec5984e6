// A real-time signal parks the other threads in a handler, where the kernel has laid out their registers. It
// works without any right that a container may withhold. A thread that blocks the signal or is deep in the
// kernel does not answer; it is listed with what /proc tells.

#include "vex_core/crash/other_threads.h"
#include "vex_core/os/kernel_dirent.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <ctime>

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace VexCore {
namespace {
struct Slot
{
    std::atomic<long> number{0};
    std::atomic<const void*> context{nullptr};
};

constexpr int maxLooks = 16; // each is taken when those who were found before have stopped, or will not

Slot g_slots[maxStoppedThreads];
std::atomic<std::size_t> g_slotCount{0};
StoppedThread g_result[maxStoppedThreads];

int ParkSignal()
{
    return SIGRTMIN + 5; // beside the one that ends threads; free until a crash
}

// The list may not have been made yet.
void Answer(const void* context)
{
    const long self = syscall(SYS_gettid);
    const std::size_t count = g_slotCount.load();
    for (std::size_t i = 0; i < count; ++i)
        if (g_slots[i].number.load() == self)
            g_slots[i].context.store(context);
}

void Park(int, siginfo_t*, void* context)
{
    Answer(context);
    for (;;)
        pause();
}

void Nap()
{
    const struct timespec millisecond = {0, 1000000};
    nanosleep(&millisecond, nullptr);
}

bool IsListed(long number, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
        if (g_slots[i].number.load() == number)
            return true;
    return false;
}

// Lists the threads that are not listed yet, behind those that are.
void ListThreads(long self)
{
    alignas(os::KernelDirent) static char s_batch[8192];
    const int folder = open("/proc/self/task", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0)
        return;
    std::size_t count = g_slotCount.load();
    for (;;) {
        const long size = syscall(SYS_getdents64, folder, s_batch, sizeof s_batch);
        if (size <= 0)
            break;
        for (long at = 0; at < size && count < maxStoppedThreads - 1;) {
            const auto* entry = static_cast<const os::KernelDirent*>(static_cast<const void*>(s_batch + at));
            long number = 0;
            for (const char* digit = entry->name; *digit >= '0' && *digit <= '9'; ++digit)
                number = number * 10 + (*digit - '0');
            if (number > 0 && number != self && !IsListed(number, count))
                g_slots[count++].number.store(number);
            at += entry->recordSize;
        }
    }
    close(folder);
    g_slotCount.store(count);
}

void PrepareToPark()
{
    struct sigaction action = {};
    action.sa_sigaction = Park;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESTART;
    sigfillset(&action.sa_mask);
    sigaction(ParkSignal(), &action, nullptr);
}

void AskFrom(std::size_t first, pid_t process)
{
    for (std::size_t i = first; i < g_slotCount.load(); ++i)
        syscall(SYS_tgkill, process, g_slots[i].number.load(), ParkSignal());
}

std::size_t Answers()
{
    std::size_t answers = 0;
    for (std::size_t i = 0; i < g_slotCount.load(); ++i)
        answers += g_slots[i].context.load() ? 1 : 0;
    return answers;
}

} // namespace

const StoppedThread* StopOtherThreads(pid_t process, long self, const void* ownContext, long waitMs, std::size_t& count)
{
    PrepareToPark();
    std::size_t asked = 0;
    long waited = 0;
    // A thread may start others until it stops, and those are not in the list that it was found in:
    // it is made anew until nobody is new.
    for (int look = 0; look < maxLooks; ++look) {
        ListThreads(self);
        if (g_slotCount.load() == asked)
            break;
        AskFrom(asked, process);
        asked = g_slotCount.load();
        for (; waited < waitMs && Answers() < asked; ++waited)
            Nap();
    }
    count = 0;
    g_result[count++] = {self, ownContext};
    for (std::size_t i = 0; i < g_slotCount.load(); ++i)
        g_result[count++] = {g_slots[i].number.load(), g_slots[i].context.load()};
    return g_result;
}

void AnswerAndStay(const void* context)
{
    for (;;) {
        Answer(context);
        Nap();
    }
}

} // namespace VexCore
