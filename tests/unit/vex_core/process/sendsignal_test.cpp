// Signal 0 asks and sends nothing, so that a wrapper that lets a pid through does no harm here.

#include "vex/core/sendsignal.h"

#include <gtest/gtest.h>

#include <unistd.h>

using VexCore::SendSignal;
using VexCore::SendSignalToGroup;
using VexCore::SendSignalToOwnGroup;

TEST(SendSignal, IdThatIsNotAboveOneIsRefused)
{
    for (const pid_t id : {1, 0, -1, -2}) {
        errno = 0;
        EXPECT_EQ(-1, SendSignal(id, 0)) << id;
        EXPECT_EQ(EINVAL, errno) << id;
        errno = 0;
        EXPECT_EQ(-1, SendSignalToGroup(id, 0)) << id;
        EXPECT_EQ(EINVAL, errno) << id;
    }
}

TEST(SendSignal, OneProcessAndOneGroupAreReached)
{
    EXPECT_EQ(0, SendSignal(::getpid(), 0));
    EXPECT_EQ(0, SendSignalToOwnGroup(0));
    if (::getpgrp() > 1) { // it is 0 where the group belongs to an outer namespace
        EXPECT_EQ(0, SendSignalToGroup(::getpgrp(), 0));
    }
}
