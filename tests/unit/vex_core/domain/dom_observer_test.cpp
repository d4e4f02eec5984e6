#include "vex_core/domain/dom_observer.h"

#include "support/dom_ptr.h"
#include "vex/core/dom.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

using Test::DomPtr;
using Test::NewRoot;
using VexCore::CDom;
using VexCore::DomObserver;

TEST(Observer, IsCalledAfterEachKindOfWriteAndAfterRemoval)
{
    const DomPtr dom = NewRoot();
    std::vector<std::string> seen;
    const DomObserver observer(*dom, {"a"}, [&] { seen.push_back(dom->Has("a") ? dom->Get("a") : "removed"); });
    dom->Set("a", "text");
    dom->Set("a", true);
    dom->SetWx("a", static_cast<std::int64_t>(5));
    dom->Set("a", "5");
    dom->Set("a", "5");
    dom->Remove("a");
    dom->Remove("a");
    EXPECT_EQ(seen, (std::vector<std::string>{"text", "true", "5", "5", "5", "removed"}));
}

TEST(Observer, OnlyItsOwnKeysCount)
{
    const DomPtr dom = NewRoot();
    int calls = 0;
    const DomObserver observer(*dom, {"a.b", "c"}, [&] { ++calls; });
    for (const char* key : {"a", "a.b.c", "a.", "A.B", "", "cc"})
        dom->Set(key, "x");
    EXPECT_EQ(calls, 0);
    dom->Set("a.b", "x");
    dom->Set("c", "x");
    EXPECT_EQ(calls, 2);
}

TEST(Observer, OfAViewNamesKeysAsTheViewDoes)
{
    const DomPtr root = NewRoot();
    const DomPtr view(CDom::New("app", root.get(), nullptr, false));
    int calls = 0;
    const DomObserver observer(*view, {"name"}, [&] { ++calls; });
    root->Set("name", "x");
    EXPECT_EQ(calls, 0);
    root->Set("app.name", "x");
    view->Set("name", "y");
    EXPECT_EQ(calls, 2);
}

TEST(Observer, OfOneTreeIsNotCalledForAnother)
{
    const DomPtr one = NewRoot();
    const DomPtr other = NewRoot();
    int calls = 0;
    const DomObserver observer(*one, {"a"}, [&] { ++calls; });
    other->Set("a", "x");
    EXPECT_EQ(calls, 0);
}

TEST(Observer, OfEveryRootIsCalledForEachAndWhenOneComesOrGoes)
{
    int calls = 0;
    const DomObserver observer({"a"}, [&] { ++calls; });
    DomPtr one = NewRoot();
    EXPECT_EQ(calls, 1);
    DomPtr other = NewRoot();
    EXPECT_EQ(calls, 2);
    one->Set("a", "x");
    other->Set("a", "x");
    EXPECT_EQ(calls, 4);
    one.reset();
    EXPECT_EQ(calls, 5);
}

TEST(Observer, IsCalledOnTheWritersThread)
{
    const DomPtr dom = NewRoot();
    std::thread::id caller;
    const DomObserver observer(*dom, {"a"}, [&] { caller = std::this_thread::get_id(); });
    std::thread writer([&] { dom->Set("a", "x"); });
    const std::thread::id id = writer.get_id();
    writer.join();
    EXPECT_EQ(caller, id);
}

TEST(Observer, MayReadAndWriteTheDomainThatItObserves)
{
    const DomPtr dom = NewRoot();
    const DomObserver observer(*dom, {"a"}, [&] {
        dom->Set("b", dom->Get("a") + "!");
        // Another thread finds no lock held either.
        std::async(std::launch::async, [&] { dom->Set("c", dom->Get("b")); }).get();
    });
    dom->Set("a", "x");
    EXPECT_EQ(dom->Get("c"), "x!");
}

TEST(Observer, MayWriteItsOwnKey)
{
    const DomPtr dom = NewRoot();
    const DomObserver observer(*dom, {"n"}, [&] {
        std::int64_t value = 0;
        if (dom->Get("n", value) && value > 0)
            dom->SetWx("n", value - 1);
    });
    dom->SetWx("n", static_cast<std::int64_t>(20));
    EXPECT_EQ(dom->Get("n"), "0");
}

TEST(Observer, MayMakeObserversAndDestroyItself)
{
    const DomPtr dom = NewRoot();
    int first = 0, second = 0;
    std::unique_ptr<DomObserver> made;
    std::unique_ptr<DomObserver> own;
    own = std::make_unique<DomObserver>(*dom, std::vector<std::string>{"a"}, [&] {
        ++first;
        made = std::make_unique<DomObserver>(*dom, std::vector<std::string>{"a"}, [&] { ++second; });
        own.reset();
    });
    dom->Set("a", "1");
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 0) << "made after that write";
    dom->Set("a", "2");
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 1);
}

TEST(Observer, ThatAnotherDestroysForTheSameWriteIsNotCalledAnyMore)
{
    const DomPtr dom = NewRoot();
    int calls = 0;
    std::unique_ptr<DomObserver> later;
    const DomObserver first(*dom, {"a"}, [&] { later.reset(); });
    later = std::make_unique<DomObserver>(*dom, std::vector<std::string>{"a"}, [&] { ++calls; });
    dom->Set("a", "1");
    EXPECT_EQ(later, nullptr);
    EXPECT_EQ(calls, 0);
}

TEST(Observer, EndWaitsForACallOnAnotherThread)
{
    const DomPtr dom = NewRoot();
    std::promise<void> begun, goOn;
    std::atomic<bool> callEnded{false};
    auto observer = std::make_unique<DomObserver>(*dom, std::vector<std::string>{"a"}, [&] {
        begun.set_value();
        goOn.get_future().wait();
        callEnded = true;
    });
    std::thread writer([&] { dom->Set("a", "x"); });
    begun.get_future().wait();
    std::future<bool> end = std::async(std::launch::async, [&] {
        observer.reset();
        return callEnded.load();
    });
    EXPECT_EQ(end.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    goOn.set_value();
    EXPECT_TRUE(end.get());
    writer.join();
}

TEST(Observer, ComesAndGoesWhileManyThreadsWrite)
{
    const DomPtr dom = NewRoot();
    std::atomic<bool> done{false};
    std::atomic<int> total{0};
    std::vector<std::thread> writers;
    for (int i = 0; i < 3; ++i)
        writers.emplace_back([&] {
            while (!done)
                dom->Set("a", "x");
        });
    for (int i = 0; i < 200; ++i) {
        const std::unique_ptr<std::atomic<int>> calls = std::make_unique<std::atomic<int>>(0);
        {
            const DomObserver observer(*dom, {"a"}, [&counter = *calls] { ++counter; });
            dom->Set("a", "y");
        }
        EXPECT_GE(calls->load(), 1);
        total += *calls;
    }
    done = true;
    for (std::thread& writer : writers)
        writer.join();
    EXPECT_GE(total, 200);
}

TEST(Observer, TheLastCallSeesTheLastOfParallelWrites)
{
    const DomPtr dom = NewRoot();
    std::mutex lock;
    std::string taken; // guarded by lock
    const DomObserver observer(*dom, {"a"}, [&] {
        const std::lock_guard own(lock);
        taken = dom->Get("a");
    });
    for (int round = 0; round < 100; ++round) {
        std::thread one([&] { dom->Set("a", "1"); });
        std::thread other([&] { dom->Set("a", "2"); });
        one.join();
        other.join();
        EXPECT_EQ(taken, dom->Get("a"));
    }
}
