#include "vex_core/base/steady_ms.h"

#include <chrono>
#include <thread>

#include <gtest/gtest.h>

using namespace VexCore;

TEST(Deadline, CountsDownAndStopsAtNothing)
{
    const Deadline later(60000);
    const Deadline soon(20);
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_LE(later.LeftMs(), 60000 - 30);
    EXPECT_GT(later.LeftMs(), 0);
    EXPECT_EQ(soon.LeftMs(), 0);
}

TEST(Deadline, WithoutALimitHasNoneAfterATimeEither)
{
    const Deadline never(-1);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_LT(never.LeftMs(), 0);
}
