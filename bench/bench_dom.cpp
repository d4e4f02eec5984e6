// What reading and writing the domain costs in C++: alone, and from two threads at once, whose reads share one lock.
// The yardstick is a hash table behind the standard library's own shared lock, read and copied the same way. Fails when
// a lone read takes more than twice as long as the yardstick's.

#include "vex/core/dom.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <list>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

namespace {
constexpr const char* key = "app.path.bin";
constexpr int rounds = 2000000;

template <typename Body>
double NanosecondsPerRound(int threads, Body body)
{
    using Clock = std::chrono::steady_clock;
    double best = 1e9;
    for (int run = 0; run < 3; ++run) {
        const Clock::time_point begin = Clock::now();
        std::vector<std::thread> workers;
        for (int i = 0; i < threads; ++i)
            workers.emplace_back([&body] {
                for (int n = 0; n < rounds; ++n)
                    body();
            });
        for (std::thread& worker : workers)
            worker.join();
        best = std::min(best, std::chrono::duration<double, std::nano>(Clock::now() - begin).count() / rounds);
    }
    return best;
}

class Yardstick
{
public:
    void Set(const std::string& name, const char* value) { m_values[*m_names.insert(m_names.end(), name)] = value; }
    std::string Get(std::string_view name) const
    {
        const std::shared_lock lock(m_lock);
        const auto found = m_values.find(name);
        return found == m_values.end() ? std::string() : found->second;
    }

private:
    mutable std::shared_mutex m_lock;
    std::list<std::string> m_names;
    std::unordered_map<std::string_view, std::string> m_values;
};

} // namespace

int main()
{
#ifndef __OPTIMIZE__
    std::puts("warning: built without optimisation, the figures mean little");
#endif
    VexCore::CDom* const dom = VexCore::CDom::New(nullptr, nullptr, nullptr, false);
    dom->Set(key, "/opt/Halvorn/vx_agent");
    Yardstick yardstick;
    yardstick.Set(key, "/opt/Halvorn/vx_agent");
    // As many keys as a running agent has.
    for (int i = 0; i < 200; ++i) {
        const std::string other = "bench.key." + std::to_string(i);
        dom->Set(other.c_str(), "value");
        yardstick.Set(other, "value");
    }

    const auto read = [dom] { benchmark::DoNotOptimize(dom->Get(key)); };
    const double plain = NanosecondsPerRound(1, [&yardstick] { benchmark::DoNotOptimize(yardstick.Get(key)); });
    const double one = NanosecondsPerRound(1, read);
    const double two = NanosecondsPerRound(2, read);
    const double flag = NanosecondsPerRound(1, [dom] {
        bool value = false;
        benchmark::DoNotOptimize(dom->Get("bench.none", value));
    });
    const double write = NanosecondsPerRound(1, [dom] { dom->Set("bench.flag", true); });
    dom->Release();
    std::printf("read: yardstick %.0f ns, domain %.0f ns (%.2f x, at most 2), two threads %.0f ns a read each; "
                "absent key %.0f ns; write %.0f ns\n",
                plain, one, one / plain, two, flag, write);
    return one <= 2 * plain ? 0 : 1;
}
