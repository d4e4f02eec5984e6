// What a worker costs: started and joined, and waiting. The yardstick is the least that a thread with Lua of its own
// can be, std::thread with a state and Lua's libraries. Time is processor time of the process, the two taking turns,
// best of many short runs, so that other work on the machine does not show; memory is what a thousand add that wait
// at once. The process has what an agent's has: stacks for the crash handler, the disk log as the target of the
// framework. The worker requires a module, which is a file, and runs it.
//     bench_worker_start [COUNT]   so many workers in one run and no measure of memory, for an instrument that counts

#include "figures.h"
#include "support/temp_folder.h"
#include "vex/core/dom.h"
#include "vex/core/log.h"
#include "vex_core/crash/signal_stack.h"
#include "vex_core/lua/worker.h"
#include "vex_core/lua/worker_list.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

#include <lua.hpp>
#include <wx/init.h>
#include <wx/log.h>

using namespace VexCore;

namespace {
constexpr int workersOfRun = 10;
constexpr int runs = 60;
constexpr int waitingWorkers = 1000;
constexpr double maxWaitingKib = 90;

double ProcessorMicroseconds()
{
    timespec time = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) * 1e-3;
}

template <typename Body>
double MicrosecondsEach(int count, Body body)
{
    const double begin = ProcessorMicroseconds();
    for (int i = 0; i < count; ++i)
        body();
    return (ProcessorMicroseconds() - begin) / count;
}

std::shared_ptr<Worker> Start(CDom& dom, const char* module, int number)
{
    std::shared_ptr<Worker> worker = Worker::Start(dom, module, LuaValue{static_cast<double>(number)});
    if (!worker) {
        std::fputs("a worker could not be started\n", stderr);
        std::exit(2);
    }
    return worker;
}

void StartAndJoin(CDom& dom)
{
    const std::shared_ptr<Worker> worker = Start(dom, "job", 0);
    worker->WaitForEnd(-1);
    if (worker->Status() == 0)
        return;
    std::fprintf(stderr, "%s\n", worker->Error().c_str());
    std::exit(2);
}

void StartAndJoinBareThread()
{
    std::thread([] {
        lua_State* const state = luaL_newstate();
        luaL_openlibs(state);
        lua_close(state);
    }).join();
}

// Resident memory that belongs to no file.
double AnonymousKib()
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("RssAnon:", 0) == 0)
            return std::strtod(line.c_str() + std::strlen("RssAnon:"), nullptr);
    std::fputs("the system does not tell what the process has in memory\n", stderr);
    std::exit(2);
}

double KibOfWaitingBareThread()
{
    const double before = AnonymousKib();
    std::promise<void> end;
    const std::shared_future<void> ended = end.get_future().share();
    std::atomic<int> waiting{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < waitingWorkers; ++i)
        threads.emplace_back([&] {
            lua_State* const state = luaL_newstate();
            luaL_openlibs(state);
            ++waiting;
            ended.wait();
            lua_close(state);
        });
    while (waiting < waitingWorkers)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const double added = AnonymousKib() - before;
    end.set_value();
    for (std::thread& thread : threads)
        thread.join();
    return added / waitingWorkers;
}

// What one leaves of free memory the next would use, so this one has a process of its own. No thread runs yet.
double InChild(double (*measure)())
{
    double result = 0;
    int ends[2] = {};
    if (::pipe(ends) != 0)
        std::exit(2);
    const pid_t child = ::fork();
    if (child == 0) {
        result = measure();
        ::_exit(::write(ends[1], &result, sizeof result) == sizeof result ? 0 : 2);
    }
    ::close(ends[1]);
    if (child < 0 || ::read(ends[0], &result, sizeof result) != sizeof result) {
        std::fputs("the yardstick's memory could not be measured\n", stderr);
        std::exit(2);
    }
    ::close(ends[0]);
    ::waitpid(child, nullptr, 0);
    return result;
}

double KibOfWaitingWorker(CDom& dom)
{
    const double before = AnonymousKib();
    std::vector<std::shared_ptr<Worker>> workers;
    for (int i = 0; i < waitingWorkers; ++i)
        workers.push_back(Start(dom, "waiting", i));
    while (dom.Keys("bench.waiting").size() < waitingWorkers)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const double added = AnonymousKib() - before;
    for (const std::shared_ptr<Worker>& worker : workers)
        worker->requestExit();
    for (const std::shared_ptr<Worker>& worker : workers)
        worker->WaitForEnd(-1);
    return added / waitingWorkers;
}

} // namespace

int main(int argc, char** argv)
{
#ifndef __OPTIMIZE__
    std::puts("warning: built without optimisation, the figures mean little");
#endif
    wxInitializer framework;
    delete wxLog::SetActiveTarget(new CLog2Disk);
    EnableSignalStacks();
    const Test::TempFolder folder;
    std::ofstream(folder.Path() + "/job.lua") << "return { run = function() end }\n";
    std::ofstream(folder.Path() + "/waiting.lua") << "return { run = function(number)\n"
                                                     "  dom0:Set('bench.waiting.' .. number, true)\n"
                                                     "  dom0:Wait('bench.never', 1e6)\n"
                                                     "end }\n";
    CDom& dom = *CDom::New(nullptr, nullptr, nullptr, false);
    dom.Set("app.path.work", folder.Path());
    dom.Set("app.lua.path", folder.Path() + "/?.lua");

    const int counted = argc > 1 ? std::atoi(argv[1]) : 0;
    double kib = 0, bareKib = 0;
    if (counted == 0) {
        bareKib = InChild(&KibOfWaitingBareThread);
        kib = KibOfWaitingWorker(dom);
    }
    double ours = 1e9, theirs = 1e9;
    for (int run = 0; run < (counted > 0 ? 1 : runs); ++run) {
        const int each = counted > 0 ? counted : workersOfRun;
        ours = std::min(ours, MicrosecondsEach(each, [&] { StartAndJoin(dom); }));
        theirs = std::min(theirs, MicrosecondsEach(each, StartAndJoinBareThread));
    }
    bool fits = Bench::Row("a worker started and joined", ours, "a thread with Lua's libraries", theirs, "us", 2.5);
    if (counted == 0) {
        fits &= Bench::Row("memory of a waiting worker", kib, "limit", maxWaitingKib, "KiB", 1.0);
        Bench::Row("memory of a waiting worker", kib, "a waiting thread with Lua's libraries", bareKib, "KiB", 0);
    }
    StopAllWorkers(10000);
    return fits ? 0 : 1;
}
