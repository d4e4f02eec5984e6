// While there is something to take away a thread waits for the signals that end a process, so that what has to be done
// then may take locks and memory. The main thread makes all leftovers; it stops where it makes or takes away the next.

#include "vex/apps/vexctl/os/leftover.h"

#include "vex/apps/vexctl/os/surroundings.h"

#include "vex_core/base/end_steps.h"
#include "vex_core/os/pause.h"
#include "vex_core/os/signals.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <set>
#include <system_error>
#include <thread>
#include <utility>

namespace Vexctl::os {

namespace {
// A program that does not end is killed after two seconds.
constexpr std::chrono::seconds programPatience(3);

sigset_t EndingSignals()
{
    sigset_t signals;
    ::sigemptyset(&signals);
    for (const int signal : {SIGHUP, SIGINT, SIGTERM}) {
        struct sigaction action = {};
        VexCore::os::Disposition(signal, action);
        if (action.sa_handler != SIG_IGN)
            ::sigaddset(&signals, signal);
    }
    return signals;
}

} // namespace

// Never destroyed: its thread waits to the very end.
class Leftovers
{
public:
    static Leftovers& OfProcess()
    {
        static Leftovers& s_leftovers = *new Leftovers;
        return s_leftovers;
    }

    void Add(const Leftover* leftover)
    {
        std::unique_lock lock(m_lock);
        AwaitEnd(lock);
        if (m_all.empty())
            ::pthread_sigmask(SIG_BLOCK, &m_signals, &m_before);
        m_all.insert(leftover);
        if (std::exchange(m_isWatched, true))
            return;
        try {
            std::thread([this] { WaitForSignal(); }).detach();
        } catch (const std::system_error&) { // then a signal ends the process at once
            ::sigemptyset(&m_signals);
            ::pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
        }
    }

    void Remove(const Leftover* leftover)
    {
        std::unique_lock lock(m_lock);
        m_all.erase(leftover);
        m_changed.notify_all();
        AwaitEnd(lock);
        if (m_all.empty())
            ::pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
    }

private:
    Leftovers() : m_signals(EndingSignals()) {}

    // Once a signal has come, the thread that it found at work does no more.
    void AwaitEnd(std::unique_lock<std::mutex>& lock)
    {
        while (m_isEnding)
            m_changed.wait(lock);
    }

    void WaitForSignal()
    {
        int signal = 0;
        while (::sigwait(&m_signals, &signal) != 0)
            VexCore::os::PauseMs(1);
        RemoveAll();
        VexCore::os::SetDefaultDisposition(signal);
        ::pthread_sigmask(SIG_UNBLOCK, &m_signals, nullptr);
        VexCore::os::SignalThread(::pthread_self(), signal);
    }

    void RemoveAll()
    {
        std::unique_lock lock(m_lock);
        m_isEnding = true;
        const auto isOfProgram = [](const Leftover* leftover) { return leftover->m_kind == Leftover::Kind::OfProgram; };
        if (std::any_of(m_all.begin(), m_all.end(), isOfProgram)) {
            if (const auto endPrograms = VexCore::EndSteps::OfProcess().Find(VexCore::EndStep::EndHelpers))
                endPrograms();
            m_changed.wait_for(lock, programPatience,
                               [&] { return std::none_of(m_all.begin(), m_all.end(), isOfProgram); });
        }
        for (const Leftover* const leftover : m_all) {
            if (leftover->m_lastWork)
                leftover->m_lastWork();
            else
                RemoveFolder(leftover->m_path);
        }
    }

    sigset_t m_signals;
    sigset_t m_before; // of the main thread, while there is none
    std::mutex m_lock;
    std::condition_variable m_changed;
    // Guarded by m_lock.
    bool m_isWatched = false;
    std::set<const Leftover*> m_all;
    bool m_isEnding = false;
};

Leftover::Leftover(std::string path, Kind kind) : m_path(std::move(path)), m_kind(kind)
{
    Leftovers::OfProcess().Add(this);
}

Leftover::Leftover(std::function<void()> lastWork) : m_kind(Kind::Own), m_lastWork(std::move(lastWork))
{
    Leftovers::OfProcess().Add(this);
}

Leftover::~Leftover()
{
    Leftovers::OfProcess().Remove(this);
}

} // namespace Vexctl::os
