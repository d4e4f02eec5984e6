// What reading a setting costs from Lua: `dom0:Get(key)` against the call of a C function that does nothing, and
// against itself while another thread reads or writes the domain all the time. Processor time of the thread, taking
// turns, the turn in the middle of many.
//
// Claims: at most 8 times an empty C function; beside a reader 1.1 times and beside a writer of another key 1.4 times
// as much as beside a thread that reads or writes a table of its own, because two processors of one core slow each
// other whatever they do. A cache line that another processor has just written has to be fetched, however it is read:
// so beside a writer of the same key it is compared with a read of a key that nobody writes together with two such
// lines, one of which tells where the other is.

#include "bench_lua.h"
#include "figures.h"
#include "slb3/class.h"
#include "vex/core/dom.h"
#include "vex/core/wrap_dom.h"

#include <array>
#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
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

// What the domain is compared with: a table and a lock.
class StandardTable
{
public:
    void Read(const char* key, std::string& text)
    {
        const std::lock_guard lock(m_lock);
        text = m_values[key];
    }
    void Write(const char* key, const std::string& text)
    {
        const std::lock_guard lock(m_lock);
        m_values[key] = text;
    }

private:
    std::mutex m_lock;
    std::unordered_map<std::string, std::string> m_values;
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
        fits &= Bench::Row(body, ours, "an empty C function", nothing, "ns", 8.0);
    }

    const auto beside = [&](const std::string& body, const std::function<void()>& work) {
        const Busy busy(work);
        return call(body.c_str()) - call("");
    };
    // `apart` does the like of `work` with nothing that anybody else has.
    const auto told = [&](const char* what, const std::function<void()>& work, const std::function<void()>& apart,
                          double claim) {
        std::vector<double> ours, alone, besideApart;
        for (int run = 0; run < runs; ++run) {
            ours.push_back(beside(get, work));
            alone.push_back(call(get) - call(""));
            besideApart.push_back(beside(get, apart));
        }
        const std::string row = get + (' ' + std::string(what));
        Bench::Row(row.c_str(), ours, "alone", alone, "ns", 0);
        if (claim > 0)
            fits &= Bench::Row(row.c_str(), ours, "beside another table", besideApart, "ns", claim);
    };
    StandardTable table;
    const auto readApart = [&table, own = std::string()]() mutable { table.Read(deepKey, own); };
    const auto writeApart = [&table, &text] { table.Write(otherKey, text); };
    const auto writeLines = [&table, &text] {
        table.Write(otherKey, text);
        g_lines.Write();
    };
    const auto writeTheKey = [dom, &text] { dom->Set(deepKey, text); };
    told(
        "beside a reader", [dom, own = std::string()]() mutable { dom->Get(deepKey, own); }, readApart, 1.1);
    told(
        "beside a writer of another key", [dom, &text] { dom->Set(otherKey, text); }, writeApart, 1.4);
    const std::string ofTheKey = "beside a writer of the key";
    told(ofTheKey.c_str(), writeTheKey, writeApart, 0);
    std::vector<double> ours, twoLines;
    const std::string getWithLines = std::string(get) + " l()";
    for (int run = 0; run < runs; ++run) {
        ours.push_back(beside(get, writeTheKey));
        twoLines.push_back(beside(get, writeApart) + beside(getWithLines, writeLines)
                           - beside(getWithLines, writeApart));
    }
    fits &= Bench::Row((get + (' ' + ofTheKey)).c_str(), ours, "another key and two lines", twoLines, "ns", 1.4);
    dom->Release();
    return fits ? 0 : 1;
}
