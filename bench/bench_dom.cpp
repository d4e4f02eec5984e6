// What the domain costs in C++, at 10^3 to 10^6 keys: reading, overwriting and making a key, listing ten keys below a
// prefix, and the memory of a key. The yardstick is the standard library's hash table behind its shared lock,
// std::unordered_map<std::string, std::variant<...>> and std::shared_mutex, with values of the same kinds, read and
// copied the same way; for the list it is the domain itself at 10^3 keys, for memory the limit that we keep. Processor
// time of the thread, the two taking turns, the turn in the middle of all. Keys come in any order, so that the greater
// tables are out of the processor's caches, but for the lists that are asked for again: these show what the number of
// keys costs alone.
//     bench_dom [MOST]   no more keys than so many

#include "figures.h"
#include "support/heap_in_use.h"
#include "vex/core/dom.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <mutex>
#include <random>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <variant>
#include <vector>

namespace {
constexpr std::size_t smallest = 1000; // keys
constexpr std::size_t keysOfGroup = 10;
constexpr std::size_t keysOfTurn = 50000; // long enough to be measured, and short enough for a machine to be the same
constexpr double maxBytesPerKey = 160;

double ProcessorNanoseconds()
{
    timespec time = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

// Processor time of each of `count` calls, in nanoseconds.
template <typename Body>
double NanosecondsEach(std::size_t count, Body body)
{
    const double begin = ProcessorNanoseconds();
    for (std::size_t i = 0; i < count; ++i)
        body(i);
    return (ProcessorNanoseconds() - begin) / static_cast<double>(count);
}

class Yardstick
{
public:
    void Set(const std::string& key, const std::string& value)
    {
        const std::lock_guard lock(m_lock);
        m_values[key] = value;
    }
    bool Get(const std::string& key, std::string& value) const
    {
        const std::shared_lock lock(m_lock);
        const auto found = m_values.find(key);
        const auto* const text = found == m_values.end() ? nullptr : std::get_if<std::string>(&found->second);
        if (!text)
            return false;
        value = *text;
        return true;
    }

private:
    mutable std::shared_mutex m_lock;
    using Value = std::variant<std::string, bool, std::int64_t, std::shared_ptr<VexCore::CDomObject>>;
    std::unordered_map<std::string, Value> m_values;
};

class Domain
{
public:
    void Set(const std::string& key, const std::string& value) { m_dom->Set(key.c_str(), value); }
    bool Get(const std::string& key, std::string& value) const { return m_dom->Get(key.c_str(), value); }
    std::size_t Count(const std::string& prefix) const { return m_dom->Keys(prefix.c_str()).size(); }

private:
    struct Release
    {
        void operator()(VexCore::CDom* dom) const { dom->Release(); }
    };
    std::unique_ptr<VexCore::CDom, Release> m_dom{VexCore::CDom::New(nullptr, nullptr, nullptr, false)};
};

// What one of the two takes, run by run.
struct Figures
{
    std::vector<double> make, get, set;
    double bytesPerKey = 0;
};

template <class Table>
std::unique_ptr<Table> Fill(const std::vector<std::string>& keys, Figures& figures)
{
    const std::size_t before = Test::HeapInUse().value_or(0);
    auto table = std::make_unique<Table>();
    figures.make.push_back(NanosecondsEach(keys.size(), [&](std::size_t i) { table->Set(keys[i], "value"); }));
    figures.bytesPerKey =
        static_cast<double>(Test::HeapInUse().value_or(0) - before) / static_cast<double>(keys.size());
    return table;
}

// Gets and sets some keys that follow each other in `order`.
template <class Table>
void Use(Table& table, const std::string* const* order, Figures& figures)
{
    std::string text;
    figures.get.push_back(NanosecondsEach(keysOfTurn, [&](std::size_t i) {
        table.Get(*order[i], text);
        benchmark::DoNotOptimize(text.data());
    }));
    const std::string other = "other";
    figures.set.push_back(NanosecondsEach(keysOfTurn, [&](std::size_t i) { table.Set(*order[i], other); }));
}

std::string At(std::size_t count, const char* what)
{
    return std::string(what) + " at " + std::to_string(count) + " keys";
}

// Prints the rows of one size. `first` keeps what a list took at the first size.
bool Measure(std::size_t count, double& first)
{
    std::vector<std::string> keys;
    std::vector<std::string> prefixes;
    for (std::size_t i = 0; i < count; ++i) {
        const std::string prefix = "bench.group" + std::to_string(i / keysOfGroup);
        keys.push_back(prefix + ".key" + std::to_string(i % keysOfGroup));
        if (i % keysOfGroup == 0)
            prefixes.push_back(prefix);
    }
    // Any order, the same for both. Few keys are gone through several times, or a run would be too short.
    std::vector<const std::string*> order;
    for (std::size_t i = 0; i < std::max(count, keysOfTurn); ++i)
        order.push_back(&keys[i % count]);
    std::mt19937 random(1);
    std::shuffle(order.begin(), order.end(), random);
    std::shuffle(prefixes.begin(), prefixes.end(), random);

    const int runs = count > 100000 ? 3 : count > keysOfTurn ? 7 : 15;
    Figures ours, theirs;
    std::vector<double> list, listAgain;
    for (int run = 0; run < runs; ++run) {
        const auto domain = Fill<Domain>(keys, ours);
        const auto yardstick = Fill<Yardstick>(keys, theirs);
        for (std::size_t i = 0; i + keysOfTurn <= order.size(); i += keysOfTurn) {
            Use(*domain, &order[i], ours);
            Use(*yardstick, &order[i], theirs);
        }
        for (const auto& [times, number] :
             {std::pair(&list, prefixes.size()), std::pair(&listAgain, smallest / keysOfGroup)})
            times->push_back(NanosecondsEach(
                20000, [&, of = number](std::size_t i) { benchmark::DoNotOptimize(domain->Count(prefixes[i % of])); }));
    }
    const auto row = [count](const char* what, const std::vector<double>& own, const std::vector<double>& other,
                             double claim) {
        return Bench::Row(At(count, what).c_str(), own, "standard table", other, "ns", claim);
    };
    bool fits = row("read a key", ours.get, theirs.get, 1.0);
    // A write puts the value into other memory, so that readers may go on with the one before, and now and then looks
    // at the readers; the table overwrites it under its lock. The goal was 1.0.
    fits &= row("overwrite a key", ours.set, theirs.set, 1.15);
    row("make a key", ours.make, theirs.make, 0);
    if (first == 0)
        first = Bench::Median(listAgain);
    fits &= Bench::Row(At(count, "list 10 keys again").c_str(), Bench::Median(listAgain), "at 1000", first, "ns", 2.0);
    Bench::Row(At(count, "list any 10 keys").c_str(), Bench::Median(list), "at 1000", first, "ns", 0);
    if (ours.bytesPerKey > 0) {
        Bench::Row(At(count, "memory a key").c_str(), ours.bytesPerKey, "standard table", theirs.bytesPerKey, "B", 0);
        fits &= Bench::Row(At(count, "memory a key").c_str(), ours.bytesPerKey, "limit", maxBytesPerKey, "B", 1.0);
    }
    return fits;
}

} // namespace

int main(int count, char** arguments)
{
#ifndef __OPTIMIZE__
    std::puts("warning: built without optimisation, the figures mean little");
#endif
    bool fits = true;
    double first = 0;
    const std::size_t most = count > 1 ? std::strtoul(arguments[1], nullptr, 10) : SIZE_MAX;
    for (const std::size_t keys : {smallest, std::size_t{10000}, std::size_t{100000}, std::size_t{1000000}})
        fits &= keys > most || Measure(keys, first);
    return fits ? 0 : 1;
}
