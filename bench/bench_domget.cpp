// What reading a setting costs from Lua: `dom0:Get(key)` against the call of a C function that does nothing, and
// against itself while another thread reads or writes the domain all the time. Processor time of the thread, taking
// turns, middle of many runs.

#include "bench_lua.h"
#include "figures.h"
#include "slb3/class.h"
#include "vex/core/dom.h"
#include "vex/core/wrap_dom.h"

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

namespace {
constexpr const char* deepKey = "app.path.bin";
constexpr const char* otherKey = "bench.key.100";

// Does one thing all the time on a thread of its own.
class Busy
{
public:
    explicit Busy(std::function<void()> work)
        : m_thread([this, work = std::move(work)] {
              while (!m_stop) {
                  for (int i = 0; i < 100; ++i)
                      work();
                  m_isBusy = true;
              }
          })
    {
        while (!m_isBusy)
            std::this_thread::yield();
    }
    ~Busy()
    {
        m_stop = true;
        m_thread.join();
    }
    Busy(const Busy&) = delete;
    Busy& operator=(const Busy&) = delete;

private:
    std::atomic<bool> m_isBusy{false};
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

} // namespace

int main()
{
    Bench::WarnWhenUnoptimised();
    Bench::State state;
    VexCore::CDom* const dom = VexCore::CDom::New(nullptr, nullptr, nullptr, false);
    const std::string text = "/opt/Halvorn/vx_agent";
    dom->Set(deepKey, text);
    // As many keys as a running agent has.
    for (int i = 0; i < 200; ++i)
        dom->Set(("bench.key." + std::to_string(i)).c_str(), "value");
    SLB3::PushReference(state.L, dom);
    lua_setglobal(state.L, "dom0");
    lua_register(state.L, "nothing", [](lua_State*) { return 0; });

    const auto call = [&state](const char* body) {
        return state.NanosecondsOfOneRun("local o, f = dom0, nothing", body);
    };
    const char* const get = "o:Get('app.path.bin')";
    constexpr int runs = 25;
    bool fits = true;
    for (const char* body : {get, "o:Get('bench.none', 'x')", "o:GetBool('bench.none')"}) {
        std::vector<double> ours, nothing;
        for (int run = 0; run < runs; ++run) {
            const double loop = call("");
            ours.push_back(call(body) - loop);
            nothing.push_back(call("f()") - loop);
        }
        fits &= Bench::Row(body, Bench::Median(ours), "an empty C function", Bench::Median(nothing), "ns", 8.0);
    }

    const struct
    {
        const char* what;
        std::function<void()> work;
        double claim;
    } others[] = {{"beside a reader", [dom, own = std::string()]() mutable { dom->Get(deepKey, own); }, 1.1},
                  {"beside a writer of another key", [dom, &text] { dom->Set(otherKey, text); }, 1.4},
                  {"beside a writer of the key", [dom, &text] { dom->Set(deepKey, text); }, 1.4}};
    for (const auto& other : others) {
        std::vector<double> alone, beside;
        for (int run = 0; run < runs; ++run) {
            const double loop = call("");
            alone.push_back(call(get) - loop);
            const Busy busy(other.work);
            beside.push_back(call(get) - loop);
        }
        fits &= Bench::Row((std::string(get) + " " + other.what).c_str(), Bench::Median(beside), "alone",
                           Bench::Median(alone), "ns", other.claim);
    }
    dom->Release();
    return fits ? 0 : 1;
}
