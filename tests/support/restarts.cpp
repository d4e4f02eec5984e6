// The launcher's supervisor on the real system, with real forks and signals, but without the delays and with a
// clock that goes on by more than the span with each look: what keeps a supervisor from restarting ten
// thousand times in a minute.
//
//   restarts COUNT REPORT FOLDER [TIMES]
//
// Goes into the background as the agent does (pid file /var/run/restarts.pid) and logs to FOLDER/restarts.log. Each
// child ends at once: most by SIGKILL, every 50th with status 3, which runs the driver's script where there is one;
// child COUNT exits with 0. A line in REPORT for the time after the first 100 restarts, when every pool has been filled
// once, and for the end: restarts, open descriptors, mapped KiB, and resident KiB of memory that belongs to no file.
// How much of the files is resident is the system's business, and what is private depends on whether a child is there
// to share it. In TIMES a line a restart: nanoseconds from the child's end to the next fork, and of processor time of
// the supervisor between two forks.

#include "vex/apps/vex/daemon.h"
#include "vex/apps/vex/os/process.h"

#include "vex/core/dom.h"
#include "vex/core/log.h"
#include "vex/core/sendsignal.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include <wx/init.h>
#include <wx/log.h>

#include <ctime>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {
constexpr int warmUp = 100;

// The real system behind it does everything but pass time.
class HastySystem : public VexOs::SystemCalls
{
public:
    HastySystem(VexOs::SystemCalls& real, int count, const char* report, const char* times)
        : m_real(real), m_count(count), m_report(report), m_timesFile(times)
    {
        void* const shared =
            ::mmap(nullptr, sizeof *m_ended, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (shared == MAP_FAILED)
            std::exit(1);
        m_ended = static_cast<std::int64_t*>(shared);
        if (m_timesFile)
            m_times.reserve(static_cast<std::size_t>(count));
    }

    std::int64_t NowSeconds() override { return m_now += restartSpanSeconds + 1; }
    void SleepMs(long) override {}

    pid_t ForkWorker() override
    {
        if (m_child++ > 0 && m_timesFile) // what is noted would count as memory that a restart costs
            m_times.emplace_back(Now(CLOCK_MONOTONIC) - *m_ended, Now(CLOCK_PROCESS_CPUTIME_ID) - m_spentAtFork);
        m_spentAtFork = Now(CLOCK_PROCESS_CPUTIME_ID);
        return m_real.ForkWorker();
    }

    pid_t Wait(pid_t child, int& status) override
    {
        const pid_t ended = m_real.Wait(child, status);
        if (ended == child && (m_child == warmUp || m_child == m_count))
            Measure();
        if (ended == child && m_child == m_count)
            WriteTimes();
        return ended;
    }

    // In a child: the end that is its turn.
    [[noreturn]] void EndAsChild() const
    {
        *m_ended = Now(CLOCK_MONOTONIC);
        if (m_child == m_count)
            ::_exit(0);
        if (m_child % 50 == 0)
            ::_exit(3);
        VexCore::SendSignal(::getpid(), SIGKILL);
        ::_exit(1);
    }

    pid_t OwnId() override { return m_real.OwnId(); }
    pid_t OwnGroup() override { return m_real.OwnGroup(); }
    int ThreadCount() override { return m_real.ThreadCount(); }
    pid_t Fork() override { return m_real.Fork(); }
    pid_t ForkFirstChild() override { return m_real.ForkFirstChild(); }
    void WaitForStarter() override { m_real.WaitForStarter(); }
    void WaitForAdoption(pid_t parent) override { m_real.WaitForAdoption(parent); }
    pid_t NewSession() override { return m_real.NewSession(); }
    void ChangeFolder(const char* path) override { m_real.ChangeFolder(path); }
    void StreamsToNull() override { m_real.StreamsToNull(); }
    void TightenFileMode() override { m_real.TightenFileMode(); }
    int Ask(pid_t process) override { return m_real.Ask(process); }
    void ResetSignals() override { m_real.ResetSignals(); }
    void BlockTerm() override { m_real.BlockTerm(); }
    void UnblockTerm() override { m_real.UnblockTerm(); }
    void BlockChild() override { m_real.BlockChild(); }
    void PassTermOn(pid_t process) override { m_real.PassTermOn(process); }
    void HandleTerm(VexSignalAction handler) override { m_real.HandleTerm(handler); }
    void SignalOwnGroup(int signal) override { m_real.SignalOwnGroup(signal); }
    void SignalChild(pid_t child, int signal) override { m_real.SignalChild(child, signal); }
    void RemoveFile(const char* path) override { m_real.RemoveFile(path); }
    void ReleaseInstanceLock() override { m_real.ReleaseInstanceLock(); }
    bool IsExecutable(const char* path) override { return m_real.IsExecutable(path); }
    VexOs::LockResult TakeInstanceLock(const char* path, pid_t& holder) override
    {
        return m_real.TakeInstanceLock(path, holder);
    }
    pid_t FindOtherWorker() override { return m_real.FindOtherWorker(); }
    void WaitForOtherWorker() override { m_real.WaitForOtherWorker(); }

private:
    [[noreturn]] void DoExit(int status) override { m_real.Exit(status); }
    [[noreturn]] void DoExitNow(int status) override { m_real.ExitNow(status); }

    static std::int64_t Now(clockid_t clock)
    {
        timespec time = {};
        ::clock_gettime(clock, &time);
        return static_cast<std::int64_t>(time.tv_sec) * 1000000000 + time.tv_nsec;
    }

    static long CountDescriptors()
    {
        long count = -1; // the one that the count itself needs
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
            count += entry.path().empty() ? 0 : 1;
        return count;
    }

    static long MappedKib()
    {
        std::ifstream file("/proc/self/statm");
        long pages = 0;
        file >> pages;
        return pages * (::sysconf(_SC_PAGESIZE) / 1024);
    }

    // The sum of the fields that begin with `name`, in KiB.
    static long SumOfMemory(const std::string& name)
    {
        long sum = 0;
        FILE* const file = std::fopen("/proc/self/smaps_rollup", "re");
        char line[256];
        while (file && std::fgets(line, sizeof line, file)) {
            const std::string text = line;
            if (text.compare(0, name.size(), name) == 0)
                sum += std::atol(text.c_str() + text.find(':') + 1);
        }
        if (file)
            std::fclose(file);
        return sum;
    }

    void Measure() const
    {
        const long descriptors = CountDescriptors();
        FILE* const report = std::fopen(m_report, "ae");
        if (!report)
            return;
        std::fprintf(report, "%d %ld %ld %ld\n", m_child, descriptors, MappedKib(), SumOfMemory("Anonymous"));
        std::fclose(report);
    }

    void WriteTimes() const
    {
        if (!m_timesFile)
            return;
        std::ofstream file(m_timesFile);
        for (const auto& [clock, spent] : m_times)
            file << clock << " " << spent << "\n";
    }

    VexOs::SystemCalls& m_real;
    const int m_count;
    const char* const m_report;
    const char* const m_timesFile; // null: not wanted
    std::int64_t* m_ended; // when the last child ended; shared with it
    std::int64_t m_spentAtFork = 0;
    std::vector<std::pair<std::int64_t, std::int64_t>> m_times; // of each restart: by the clock, of processor time
    int m_child = 0;
    std::int64_t m_now = 1000000000;
};

} // namespace

int main(int argc, char** argv)
{
    if (argc != 4 && argc != 5) {
        std::cerr << "usage: restarts COUNT REPORT FOLDER [TIMES]\n";
        return 2;
    }
    wxInitializer framework;
    if (!framework.IsOk())
        return 1;
    VexCore::CDom* const dom = VexCore::CDom::New(nullptr, nullptr, nullptr, false);
    dom->SetWx("app.name", wxString("restarts"));
    dom->SetWx("app.path.work", wxString(argv[3]));
    delete wxLog::SetActiveTarget(new VexCore::CLog2Disk);
    wxLog::SetVerbose(true);
    wxLog::SetLogLevel(wxLOG_Info);
    wxLog::SetTimestamp("%Y-%m-%d %H:%M:%S");
    HastySystem system(VexOs::System(), std::atoi(argv[1]), argv[2], argc > 4 ? argv[4] : nullptr);
    VexOs::ReplaceSystem(&system);
    Daemon daemon(system, dom, "restarts");
    const std::optional<int> status = daemon.Run();
    if (!status)
        system.EndAsChild();
    dom->Release();
    return *status;
}
