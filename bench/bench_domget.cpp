// What reading a setting costs from Lua: `dom0:Get(key)` against the call of a C function that does nothing, and
// against itself while another thread reads or writes the domain all the time. Processor time of the thread, taking
// turns, middle of many runs.
// Claims: at most 8 times an empty C function; beside a reader 1.1 times, beside a writer of another key 1.4 times as
// much as alone. What another processor has just written costs a reader the fetching of those lines of the cache,
// whoever reads how: so beside a writer of the same key it is compared with a read of a key that nobody writes together
// with two such lines, one of which tells where the other is.

#include "bench_lua.h"
#include "figures.h"
#include "slb3/class.h"
#include "vex/core/dom.h"
#include "vex/core/wrap_dom.h"

#include <array>
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

// Texts that a writer shows to a reader, one after the other, in memory that it does not use again soon.
class TwoLines
{
public:
    void Write()
    {
        Block& block = m_blocks[++m_count % m_blocks.size()];
        block.text.store(m_count, std::memory_order_relaxed);
        m_shown.block.store(&block, std::memory_order_release);
    }
    std::size_t Read() const
    {
        return m_shown.block.load(std::memory_order_acquire)->text.load(std::memory_order_relaxed);
    }

private:
    struct alignas(128) Block
    {
        std::atomic<std::size_t> text{0};
    };
    struct alignas(128) Shown
    {
        std::atomic<const Block*> block;
    };

    std::array<Block, 256> m_blocks;
    std::size_t m_count = 0;
    Shown m_shown{m_blocks.data()};
};

TwoLines g_lines;

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
    lua_register(state.L, "lines", [](lua_State* L) {
        lua_pushinteger(L, static_cast<lua_Integer>(g_lines.Read()));
        return 1;
    });

    const auto call = [&state](const char* body) {
        return state.NanosecondsOfOneRun("local o, f, l = dom0, nothing, lines", body);
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

    struct Took
    {
        double beside;
        double alone;
    };
    const auto compare = [&](const std::string& body, const std::function<void()>& work) {
        std::vector<double> alone, beside;
        for (int run = 0; run < runs; ++run) {
            const double loop = call("");
            alone.push_back(call(body.c_str()) - loop);
            const Busy busy(work);
            beside.push_back(call(body.c_str()) - loop);
        }
        return Took{Bench::Median(beside), Bench::Median(alone)};
    };
    const auto told = [&](const char* what, const std::function<void()>& work, double claim) {
        const Took took = compare(get, work);
        fits &= Bench::Row((std::string(get) + what).c_str(), took.beside, "alone", took.alone, "ns", claim);
        return took;
    };
    told(
        " beside a reader", [dom, own = std::string()]() mutable { dom->Get(deepKey, own); }, 1.1);
    told(
        " beside a writer of another key", [dom, &text] { dom->Set(otherKey, text); }, 1.4);
    const Took key = told(
        " beside a writer of the key", [dom, &text] { dom->Set(deepKey, text); }, 0);
    const Took lines = compare(std::string(get) + " l()", [dom, &text] {
        dom->Set(otherKey, text);
        g_lines.Write();
    });
    fits &= Bench::Row((std::string(get) + " beside a writer of the key").c_str(), key.beside, "alone with two lines",
                       key.alone + lines.beside - lines.alone, "ns", 1.4);
    dom->Release();
    return fits ? 0 : 1;
}
