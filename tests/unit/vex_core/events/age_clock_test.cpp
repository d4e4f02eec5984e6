#include "vex_core/events/age_clock.h"

#include <gtest/gtest.h>

using VexCore::AgeClock;

namespace {
constexpr std::int64_t wallMs = 1'700'000'000'000;
constexpr std::int64_t steadyMs = 5'000;
constexpr std::int64_t yearMs = 365LL * 86'400'000;

} // namespace

TEST(AgeClock, GoesWithTheWallClock)
{
    const AgeClock clock(wallMs, steadyMs);
    EXPECT_EQ(clock.NowMs(wallMs, steadyMs), wallMs);
    EXPECT_EQ(clock.NowMs(wallMs + yearMs, steadyMs + yearMs), wallMs + yearMs);
}

TEST(AgeClock, AWallClockThatIsSetForwardMakesNothingOlder)
{
    const AgeClock clock(0, steadyMs); // as after a start without a time
    EXPECT_EQ(clock.NowMs(wallMs, steadyMs + 10), 10);
    EXPECT_EQ(clock.NowMs(wallMs + yearMs, steadyMs + 20), 20);
}

TEST(AgeClock, AWallClockThatIsSetBackCountsUntilItIsSetRight)
{
    const AgeClock clock(wallMs, steadyMs);
    EXPECT_EQ(clock.NowMs(wallMs - yearMs, steadyMs + 10), wallMs - yearMs);
    EXPECT_EQ(clock.NowMs(wallMs + 20, steadyMs + 20), wallMs + 20);
}
