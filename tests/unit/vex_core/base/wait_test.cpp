#include "vex_core/base/wait.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <thread>

using VexCore::WaitPoint;
using EOutcome = WaitPoint::EOutcome;

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
    const auto took = MillisOf([&] { EXPECT_EQ(EOutcome::TimedOut, point.Sleep(30)); });
    EXPECT_GE(took, 29);
}

TEST(WaitPoint, SleepOfNoTimeReturnsAtOnce)
{
    WaitPoint point;
    EXPECT_EQ(EOutcome::TimedOut, point.Sleep(0));
}

TEST(WaitPoint, NotificationBeforeTheSleepIsNotLost)
{
    WaitPoint point;
    point.Notify();
    EXPECT_EQ(EOutcome::Notified, point.Sleep(-1));
    EXPECT_EQ(EOutcome::TimedOut, point.Sleep(0)) << "it counts once";
}

TEST(WaitPoint, NotificationFromAnotherThreadWakes)
{
    WaitPoint point;
    std::thread waker([&] { point.Notify(); });
    EXPECT_EQ(EOutcome::Notified, point.Sleep(-1));
    waker.join();
}

TEST(WaitPoint, ClearForgetsANotification)
{
    WaitPoint point;
    point.Notify();
    point.Clear();
    EXPECT_EQ(EOutcome::TimedOut, point.Sleep(0));
}

TEST(WaitPoint, AwakenIsReportedAsTimeOver)
{
    WaitPoint point;
    std::thread waker([&] { point.Awaken(); });
    EXPECT_EQ(EOutcome::TimedOut, point.Sleep(-1));
    waker.join();
}

TEST(WaitPoint, RequestToEndWinsAndStays)
{
    WaitPoint point;
    EXPECT_FALSE(point.ExitRequested());
    point.Notify();
    point.RequestExit();
    EXPECT_TRUE(point.ExitRequested());
    EXPECT_EQ(EOutcome::Ending, point.Sleep(-1));
    EXPECT_EQ(EOutcome::Ending, point.Sleep(-1));
}

TEST(WaitPoint, HugeTimeIsNoLimitAndNotAnOverflow)
{
    WaitPoint point;
    std::thread waker([&] { point.Notify(); });
    EXPECT_EQ(EOutcome::Notified, point.Sleep(INT64_MAX));
    waker.join();
}

TEST(WaitPoint, EachThreadHasItsOwnUnlessOneIsBound)
{
    WaitPoint& own = WaitPoint::OfThisThread();
    WaitPoint* other = nullptr;
    std::thread([&] { other = &WaitPoint::OfThisThread(); }).join();
    EXPECT_NE(&own, other);

    WaitPoint point;
    {
        const WaitPoint::Binding binding(point);
        EXPECT_EQ(&point, &WaitPoint::OfThisThread());
        WaitPoint inner;
        {
            const WaitPoint::Binding nested(inner);
            EXPECT_EQ(&inner, &WaitPoint::OfThisThread());
        }
        EXPECT_EQ(&point, &WaitPoint::OfThisThread());
    }
    EXPECT_EQ(&own, &WaitPoint::OfThisThread());
}
