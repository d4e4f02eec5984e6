// What reading the domain takes from the heap. This program's own operator new counts; a sanitizer has one itself.

#include "support/sanitized.h"
#include "vex/core/dom.h"
#include "vex_core/base/shared_lock.h"

#include <chrono>
#include <cstdlib>
#include <future>
#include <new>
#include <shared_mutex>

#include <gtest/gtest.h>

#ifndef VEX_TEST_SANITIZED

namespace {
thread_local long t_allocations = 0;
thread_local void (*t_atNextAllocation)() = nullptr; // called once

void* Allocate(std::size_t size)
{
    ++t_allocations;
    if (void (*const call)() = t_atNextAllocation) {
        t_atNextAllocation = nullptr;
        call();
    }
    if (void* const block = std::malloc(size ? size : 1))
        return block;
    throw std::bad_alloc();
}

} // namespace

void* operator new(std::size_t size)
{
    return Allocate(size);
}

void* operator new[](std::size_t size)
{
    return Allocate(size);
}

void operator delete(void* block) noexcept
{
    std::free(block);
}

void operator delete(void* block, std::size_t) noexcept
{
    std::free(block);
}

void operator delete[](void* block) noexcept
{
    std::free(block);
}

void operator delete[](void* block, std::size_t) noexcept
{
    std::free(block);
}

using VexCore::CDom;

namespace {
template <class Work>
long AllocationsOf(Work work)
{
    const long before = t_allocations;
    work();
    return t_allocations - before;
}

} // namespace

TEST(DomAllocation, ReadTakesNothingBeyondTheTextThatItReturns)
{
    CDom* const root = CDom::New(nullptr, nullptr, nullptr, false);
    CDom* const view = CDom::New("app", root, nullptr, false);
    const std::string longText(1000, 'x');
    root->Set("app.short", "tiny");
    root->Set("app.long", longText);
    root->Set("app.flag", true);
    root->SetWx("app.number", static_cast<std::int64_t>(INT64_MIN));
    for (const auto& [dom, prefix] : {std::pair(root, "app."), std::pair(view, "")}) {
        const std::string shortKey = std::string(prefix) + "short", longKey = std::string(prefix) + "long",
                          flagKey = std::string(prefix) + "flag", numberKey = std::string(prefix) + "number";
        bool flag = false;
        std::int64_t number = 0;
        std::string text(2000, ' ');
        EXPECT_EQ(AllocationsOf([&, d = dom] { d->Get(flagKey.c_str(), flag); }), 0);
        EXPECT_EQ(AllocationsOf([&, d = dom] { d->Get(numberKey.c_str(), number); }), 0);
        EXPECT_EQ(AllocationsOf([&, d = dom] { d->Has(shortKey.c_str()); }), 0);
        EXPECT_EQ(AllocationsOf([&, d = dom] { d->Get("absent", text); }), 0);
        EXPECT_EQ(AllocationsOf([&, d = dom] { d->Get(longKey.c_str(), text); }), 0) << "the caller's room is enough";
        EXPECT_EQ(AllocationsOf([&, d = dom] { d->Get(shortKey.c_str()); }), 0) << "a short text lies in itself";
        EXPECT_EQ(AllocationsOf([&, d = dom] { d->Get(longKey.c_str()); }), 1);
        EXPECT_TRUE(flag);
        EXPECT_EQ(number, INT64_MIN);
    }
    view->Release();
    root->Release();
}

namespace {
CDom* g_root = nullptr;
std::future<int> g_others;
bool g_othersWereThrough = false;

int ReadInEveryWay()
{
    bool flag = false;
    std::int64_t number = 0;
    int found = g_root->Get("app.flag", flag) + g_root->Get("app.number", number) + g_root->Has("app.long");
    found += static_cast<int>(g_root->GetWxString("app.long").length() + g_root->Keys("app").size());
    return found + (g_root->GetObject("app.flag") == nullptr);
}

} // namespace

TEST(DomAllocation, ReadsGoOnWhileAnotherReadIsHalfThrough)
{
    g_root = CDom::New(nullptr, nullptr, nullptr, false);
    g_root->Set("app.long", std::string(1000, 'x'));
    g_root->Set("app.flag", true);
    g_root->SetWx("app.number", static_cast<std::int64_t>(1));
    // A read holds the tree while it takes memory for the text that it returns.
    t_atNextAllocation = [] {
        g_others = std::async(std::launch::async, ReadInEveryWay);
        g_othersWereThrough = g_others.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    };
    EXPECT_EQ(g_root->Get("app.long").size(), 1000u);
    EXPECT_EQ(t_atNextAllocation, nullptr);
    EXPECT_EQ(g_others.get(), 1007);
    EXPECT_TRUE(g_othersWereThrough);
    g_root->Release();
}

TEST(DomAllocation, ListOfKeysTellsOfOneMomentThoughItWasHalfThrough)
{
    g_root = CDom::New(nullptr, nullptr, nullptr, false);
    g_root->Set("m.a", true);
    g_root->Set("m.b.x", true);
    // The list has passed "m.b", which has no value, and not come to "m.a" yet: one of them has a value at any moment.
    t_atNextAllocation = [] {
        std::async(std::launch::async, [] {
            g_root->Set("m.b", true);
            g_root->Remove("m.a");
        }).get();
    };
    const std::vector<std::string> keys = g_root->Keys("m");
    EXPECT_EQ(t_atNextAllocation, nullptr);
    EXPECT_EQ(keys, (std::vector<std::string>{"m.b", "m.b.x"}));
    g_root->Release();
}

#endif

TEST(FairSharedLock, ReadersDoNotBlockEachOther)
{
    VexCore::FairSharedLock lock;
    std::shared_lock first(lock);
    auto second = std::async(std::launch::async, [&lock] { const std::shared_lock mine(lock); });
    EXPECT_EQ(second.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    first.unlock();
}
