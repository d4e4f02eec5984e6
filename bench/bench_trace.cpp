// What asking for a trace line costs where nothing is traced, and where other modules are, also ones whose names begin
// alike: `LogTraceIsEnabled` against the call of an empty function that is not inlined. Claims: it takes at most twice
// as long, and four times for names that begin alike.

#include "figures.h"

#include "vex/core/dom.h"
#include "vex/core/log.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>

namespace {
__attribute__((noinline)) bool Nothing(const char* text)
{
    benchmark::DoNotOptimize(text);
    return false;
}

template <typename Ask>
double NanosecondsPerCall(Ask ask, const char* module = "Appl")
{
    using Clock = std::chrono::steady_clock;
    constexpr int rounds = 20000000;
    double best = 1e9;
    for (int run = 0; run < 5; ++run) {
        const Clock::time_point begin = Clock::now();
        for (int i = 0; i < rounds; ++i)
            benchmark::DoNotOptimize(ask(module));
        best = std::min(best, std::chrono::duration<double, std::nano>(Clock::now() - begin).count() / rounds);
    }
    return best;
}

} // namespace

int main()
{
#ifndef __OPTIMIZE__
    std::puts("warning: built without optimisation, the figures mean little");
#endif
    VexCore::CDom* const dom = VexCore::CDom::New(nullptr, nullptr, nullptr, false);
    dom->Set("app.trace", "");
    dom->Set("app.trace+", "");
    const double nothing = NanosecondsPerCall(Nothing);
    const double disabled = NanosecondsPerCall(VexCore::LogTraceIsEnabled);
    dom->Set("app.trace+", "Cmd,Srvc,vex.Heartbeat,vex.ListenThread,vex.PluginUtils");
    const double others = NanosecondsPerCall(VexCore::LogTraceIsEnabled);
    const double alike = NanosecondsPerCall(VexCore::LogTraceIsEnabled, "vex.Disk");
    dom->Release();
    const auto told = [nothing](const char* what, double asked, double claim) {
        return Bench::Row(what, asked, "an empty call", nothing, "ns", claim);
    };
    bool kept = told("to ask for a trace line where nothing is traced", disabled, 2);
    kept &= told("to ask for a trace line where other modules are traced", others, 2);
    kept &= told("to ask for a trace line where a traced name begins alike", alike, 4);
    return kept ? 0 : 1;
}
