#include "support/joining_thread.h"
#include "support/process_guards.h"
#include "support/sanitized.h"
#include "support/test_thread.h"
#include "vex/core/runnable.h"

#include "support/address_limit.h"
#include "support/log_catcher.h"
#include "vex/core/dom.h"
#include "vex/core/log.h"
#include "vex_core/base/thread_name.h"
#include "vex_core/base/wait.h"
#include "vex_core/threads/thread_registry.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <future>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>
#include <wx/log.h>

using namespace VexCore;
using ::Test::TestThread;

namespace {
TEST(Runnable, BodyRunsWithItsDomainAndIsTheCurrentOne)
{
    int place = 0;
    CDom* const dom = reinterpret_cast<CDom*>(&place); // only handed through
    CRunnable* seen = nullptr;
    TestThread body([&](TestThread& self) {
        seen = CRunnable::Current();
        EXPECT_EQ(self.GetDom(), dom);
        EXPECT_STREQ(ThreadName(), "TestThread");
    });
    body.SetDom(dom);
    ASSERT_TRUE(body.start(50, true, 0));
    EXPECT_TRUE(body.join());
    EXPECT_EQ(seen, &body);
    EXPECT_EQ(CRunnable::Current(), nullptr);
    EXPECT_FALSE(body.Running());
}

TEST(Runnable, PriorityIsTheOneGivenAtTheStart)
{
    TestThread body([](TestThread& self) { EXPECT_EQ(self.GetPriority(), 40u); });
    ASSERT_TRUE(body.start(40, true, 0));
    EXPECT_TRUE(body.join());
}

TEST(Runnable, JoinWithATimeLimitTellsWhetherTheBodyEnded)
{
    TestThread body([](TestThread& self) { self.Hold(); });
    ASSERT_TRUE(body.start(50, true, 0));
    EXPECT_TRUE(body.Running());
    EXPECT_FALSE(body.join(20));
    body.LetGo();
    EXPECT_TRUE(body.join(10000));
    EXPECT_TRUE(body.join(0)) << "joining again is harmless";
}

TEST(Runnable, SecondStartIsRefusedAndLeavesTheThreadItsLog)
{
    ::Test::LogCatcher log;
    const ::Test::LogTarget disk(new VexCore::CLog2Disk);
    TestThread body([](TestThread& self) {
        self.Hold();
        wxLog* const own = wxLog::GetActiveTarget();
        EXPECT_NE(dynamic_cast<VexCore::CLog2Disk*>(own), nullptr);
    });
    ASSERT_TRUE(body.start(50, true, 0));
    EXPECT_FALSE(body.start(50, true, 0));
    body.LetGo();
    body.join();
    EXPECT_FALSE(body.start(50, true, 0)) << "nor does it start again";
}

TEST(Runnable, SeveralThreadsMayJoin)
{
    TestThread body([](TestThread& self) { self.Hold(); });
    ASSERT_TRUE(body.start(50, true, 0));
    std::vector<::Test::JoiningThread> joiners;
    for (int i = 0; i < 4; ++i)
        joiners.emplace_back([&] { EXPECT_TRUE(body.join()); });
    body.LetGo();
    for (::Test::JoiningThread& joiner : joiners)
        joiner.join();
}

TEST(Runnable, RequestToEndIsSeenAndWakesAWait)
{
    std::atomic<int> outcome{-1};
    std::promise<void> started;
    TestThread body([&](TestThread& self) {
        EXPECT_FALSE(self.TestDestroy());
        started.set_value();
        outcome = static_cast<int>(WaitPoint::OfThisThread().Sleep(-1));
        EXPECT_TRUE(self.TestDestroy());
    });
    ASSERT_TRUE(body.start(50, true, 0));
    started.get_future().wait();
    body.requestExit();
    EXPECT_TRUE(body.join(10000));
    EXPECT_EQ(outcome, static_cast<int>(WaitPoint::Outcome::Ending));
}

TEST(Runnable, AwakenEndsAWaitAsIfItsTimeWereOver)
{
    std::atomic<int> outcome{-1};
    TestThread body([&](TestThread&) { outcome = static_cast<int>(WaitPoint::OfThisThread().Sleep(-1)); });
    ASSERT_TRUE(body.start(50, true, 0));
    body.Awaken();
    EXPECT_TRUE(body.join(10000));
    EXPECT_EQ(outcome, static_cast<int>(WaitPoint::Outcome::TimedOut));
}

TEST(Runnable, DeleteAsksAndJoins)
{
    TestThread body([](TestThread& self) {
        while (!self.TestDestroy())
            WaitPoint::OfThisThread().Sleep(-1);
    });
    EXPECT_EQ(body.Delete(), wxTHREAD_NOT_RUNNING);
    ASSERT_TRUE(body.start(50, true, 0));
    EXPECT_EQ(body.Delete(), wxTHREAD_NO_ERROR);
    EXPECT_FALSE(body.Running());
}

TEST(Runnable, ExceptionInABodyIsLoggedAndEndsOnlyThatThread)
{
    ::Test::LogCatcher log;
    TestThread body([](TestThread&) { throw std::runtime_error("went wrong"); });
    ASSERT_TRUE(body.start(50, true, 0));
    EXPECT_TRUE(body.join(10000));
    TestThread odd([](TestThread&) { throw 42; });
    ASSERT_TRUE(odd.start(50, true, 0));
    EXPECT_TRUE(odd.join(10000));
    EXPECT_EQ(log.Text(), "Thread \"TestThread\" ended by an exception: went wrong\n"
                          "Thread \"TestThread\" ended by an exception of unknown type.\n");
}

#ifdef VEX_TEST_SANITIZED
TEST(Runnable, ThreadThatCannotBeStartedIsOneErrorLineAndJoinReturnsAtOnce)
{
    GTEST_SKIP() << "the sanitizers' own memory is over any limit of the address space";
}
#else
TEST(Runnable, ThreadThatCannotBeStartedIsOneErrorLineAndJoinReturnsAtOnce)
{
    ::Test::LogCatcher log;
    TestThread body([](TestThread&) { FAIL() << "must not run"; });

    bool started = true;
    {
        const ::Test::AddressLimit allButTheStack(static_cast<std::size_t>(64) << 20);
        started = body.start(50, true, 1u << 30);
    }

    EXPECT_FALSE(started);
    EXPECT_FALSE(body.Running());
    EXPECT_TRUE(body.join());
    EXPECT_EQ(log.Text(), "Thread \"TestThread\" could not be started: the system has no room for one more.\n");
    EXPECT_TRUE(EndRegisteredThreads(0).empty());
}
#endif

TEST(Runnable, InterruptEndsABlockingCall)
{
    const ::Test::SignalGuard signals;
    struct sigaction nothing = {};
    nothing.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(CRunnable::SigThreadDelete, &nothing, nullptr), 0);
    EXPECT_EQ(CRunnable::SigThreadDelete, SIGRTMIN + 4);

    TestThread body([&](TestThread& self) {
        while (!self.TestDestroy()) {
            const timespec hour{3600, 0};
            nanosleep(&hour, nullptr);
        }
    });
    body.interrupt(); // not started: nothing happens
    EXPECT_TRUE(body.start(50, true, 0));
    body.requestExit();
    while (!body.join(20)) // the signal may come just before the call
        body.interrupt();
    body.interrupt(); // ended: nothing happens
}

#ifdef __GLIBC__
TEST(Runnable, ThreadHasTheStackAndThePriorityThatItWasStartedWith)
{
    const auto stackBytesOf = [](unsigned asked) {
        std::size_t size = 0;
        TestThread body([&](TestThread&) {
            pthread_attr_t attributes;
            ASSERT_EQ(pthread_getattr_np(pthread_self(), &attributes), 0);
            pthread_attr_getstacksize(&attributes, &size);
            pthread_attr_destroy(&attributes);
        });
        EXPECT_TRUE(body.start(70, true, asked));
        EXPECT_TRUE(body.join());
        EXPECT_EQ(body.GetPriority(), 70u);
        return size;
    };
    constexpr double guards = 65536; // which some versions of the library count and others do not
    // Sizes above the default, because a sanitizer enlarges smaller ones.
    EXPECT_NEAR(static_cast<double>(stackBytesOf(12 << 20)), 12 << 20, guards);
    EXPECT_NEAR(static_cast<double>(stackBytesOf(20 << 20)), 20 << 20, guards);
}
#endif

TEST(Runnable, StopAsksThreadsThatTakePartAndNamesThoseThatStay)
{
    const auto stubborn = [](TestThread& self) { self.Hold(); };
    const auto obedient = [](TestThread& self) {
        while (!self.TestDestroy())
            WaitPoint::OfThisThread().Sleep(-1);
    };
    TestThread first(obedient), second(obedient), third(stubborn), outside(stubborn);
    ASSERT_TRUE(first.start(50, true, 0) && second.start(50, true, 0) && third.start(50, true, 0)
                && outside.start(50, false, 0));
    EXPECT_EQ(EndRegisteredThreads(50), std::vector<std::string>{"TestThread"});
    EXPECT_TRUE(first.join(0) && second.join(0));
    EXPECT_FALSE(outside.TestDestroy()) << "does not take part";
    EXPECT_TRUE(OtherRunnablesRun());
    third.LetGo();
    EXPECT_TRUE(EndRegisteredThreads(10000).empty());
    outside.LetGo();
    third.join();
    outside.join();
    EXPECT_FALSE(OtherRunnablesRun());
}

TEST(Runnable, ThreadThatWasAskedBeforeDoesNotGetItsTimeTwice)
{
    const auto limit = std::chrono::milliseconds(800);
    auto shortest = std::chrono::steady_clock::duration::max();
    for (int i = 0; i < 5 && shortest >= limit; ++i) { // the machine may be busy
        TestThread stubborn([](TestThread& self) { self.Hold(); });
        ASSERT_TRUE(stubborn.start(50, true, 0));
        stubborn.requestExit();
        EXPECT_FALSE(stubborn.join(1000));
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(EndRegisteredThreads(1000), std::vector<std::string>{"TestThread"});
        shortest = std::min(shortest, std::chrono::steady_clock::now() - begin);
        stubborn.LetGo();
        stubborn.join();
    }
    EXPECT_LT(shortest, limit);
}

TEST(Runnable, ThreadsThatStartOthersDoNotMakeTheStopLonger)
{
    const auto limit = std::chrono::milliseconds(3000);
    auto shortest = std::chrono::steady_clock::duration::max();
    for (int i = 0; i < 5 && shortest >= limit; ++i) { // the machine may be busy
        TestThread late([](TestThread& self) { self.Hold(); });
        TestThread first([&](TestThread& self) {
            while (!self.TestDestroy())
                WaitPoint::OfThisThread().Sleep(-1);
            std::this_thread::sleep_for(std::chrono::milliseconds(1500));
            late.start(50, true, 0);
        });
        ASSERT_TRUE(first.start(50, true, 0));
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_GE(EndRegisteredThreads(2000).size(), 1u); // on a busy machine the first is still about to leave
        shortest = std::min(shortest, std::chrono::steady_clock::now() - begin);
        first.join();
        late.LetGo();
        late.join();
    }
    EXPECT_LT(shortest, limit);
}

TEST(Runnable, ThreadThatStopsTheOthersIsNotAskedItself)
{
    TestThread body([](TestThread& self) {
        EXPECT_TRUE(EndRegisteredThreads(10000).empty());
        EXPECT_FALSE(self.TestDestroy());
        EXPECT_FALSE(OtherRunnablesRun());
    });
    ASSERT_TRUE(body.start(50, true, 0));
    EXPECT_TRUE(body.join(10000));
}

} // namespace

#if defined(__GLIBC__)
TEST(Runnable, HasAStackOfItsOwnSizeWhateverTheProcessGivesItsThreads)
{
    pthread_attr_t before;
    ASSERT_EQ(::pthread_getattr_default_np(&before), 0);
    pthread_attr_t small;
    ASSERT_EQ(::pthread_attr_init(&small), 0);
    ASSERT_EQ(::pthread_attr_setstacksize(&small, 256 << 10), 0);
    ASSERT_EQ(::pthread_setattr_default_np(&small), 0);
    std::size_t bytes = 0;
    TestThread body([&bytes](TestThread&) {
        pthread_attr_t own;
        ::pthread_getattr_np(::pthread_self(), &own);
        ::pthread_attr_getstacksize(&own, &bytes);
        ::pthread_attr_destroy(&own);
    });
    EXPECT_TRUE(body.start(50, true, 0));
    body.join();
    EXPECT_EQ(::pthread_setattr_default_np(&before), 0);
    ::pthread_attr_destroy(&small);
    ::pthread_attr_destroy(&before);
    EXPECT_GE(bytes, 8u << 20);
}
#endif
