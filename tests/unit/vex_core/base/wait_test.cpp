#include "vex_core/base/wait.h"

#include "support/joining_thread.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <thread>

using VexCore::WaitPoint;
using Outcome = WaitPoint::Outcome;

namespace {
std::int64_t MillisOf(const std::function<void()>& body)
{
    const auto begin = std::chrono::steady_clock::now();
    body();
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin).count();
}

} // namespace

TEST(WaitPoint, SleepEndsWhenTheTimeIsOver)
{
    WaitPoint point;
    const auto took = MillisOf([&] { EXPECT_EQ(point.Sleep(30), Outcome::TimedOut); });
    EXPECT_GE(took, 29);
}

TEST(WaitPoint, SleepOfNoTimeReturnsAtOnce)
{
    WaitPoint point;
    EXPECT_EQ(point.Sleep(0), Outcome::TimedOut);
}

TEST(WaitPoint, NotificationBeforeTheSleepIsNotLost)
{
    WaitPoint point;
    point.Notify();
    EXPECT_EQ(point.Sleep(-1), Outcome::Notified);
    EXPECT_EQ(point.Sleep(0), Outcome::TimedOut) << "it counts once";
}

TEST(WaitPoint, NotificationFromAnotherThreadWakes)
{
    WaitPoint point;
    ::Test::JoiningThread waker([&] { point.Notify(); });
    EXPECT_EQ(point.Sleep(-1), Outcome::Notified);
    waker.join();
}

TEST(WaitPoint, ClearForgetsANotification)
{
    WaitPoint point;
    point.Notify();
    point.Clear();
    EXPECT_EQ(point.Sleep(0), Outcome::TimedOut);
}

TEST(WaitPoint, AwakenIsReportedAsTimeOver)
{
    WaitPoint point;
    ::Test::JoiningThread waker([&] { point.Awaken(); });
    EXPECT_EQ(point.Sleep(-1), Outcome::TimedOut);
    waker.join();
}

TEST(WaitPoint, RequestToEndWinsAndStays)
{
    WaitPoint point;
    EXPECT_FALSE(point.ExitRequested());
    point.Notify();
    point.RequestExit();
    EXPECT_TRUE(point.ExitRequested());
    EXPECT_EQ(point.Sleep(-1), Outcome::Ending);
    EXPECT_EQ(point.Sleep(-1), Outcome::Ending);
}

TEST(WaitPoint, HugeTimeIsNoLimitAndNotAnOverflow)
{
    WaitPoint point;
    ::Test::JoiningThread waker([&] { point.Notify(); });
    EXPECT_EQ(point.Sleep(INT64_MAX), Outcome::Notified);
    waker.join();
}

TEST(WaitPoint, EachThreadHasItsOwnUnlessOneIsBound)
{
    WaitPoint& own = WaitPoint::OfThisThread();
    WaitPoint* other = nullptr;
    std::thread([&] { other = &WaitPoint::OfThisThread(); }).join();
    EXPECT_NE(other, &own);

    WaitPoint point;
    {
        const WaitPoint::Binding binding(point);
        EXPECT_EQ(&WaitPoint::OfThisThread(), &point);
        WaitPoint inner;
        {
            const WaitPoint::Binding nested(inner);
            EXPECT_EQ(&WaitPoint::OfThisThread(), &inner);
        }
        EXPECT_EQ(&WaitPoint::OfThisThread(), &point);
    }
    EXPECT_EQ(&WaitPoint::OfThisThread(), &own);
}
