// Signal 0 asks and sends nothing, so that a wrapper that lets a pid through does no harm here.

#include "vex/core/sendsignal.h"

#include <gtest/gtest.h>

#include <unistd.h>

using VexCore::SendSignal;
using VexCore::SendSignalToGroup;
using VexCore::SendSignalToOwnGroup;

TEST(SentSignal, IdThatIsNotAboveOneIsRefused)
{
    for (const pid_t id : {1, 0, -1, -2}) {
        errno = 0;
        EXPECT_EQ(SendSignal(id, 0), -1) << id;
        EXPECT_EQ(errno, EINVAL) << id;
        errno = 0;
        EXPECT_EQ(SendSignalToGroup(id, 0), -1) << id;
        EXPECT_EQ(errno, EINVAL) << id;
    }
}

TEST(SentSignal, OneProcessAndOneGroupAreReached)
{
    EXPECT_EQ(SendSignal(::getpid(), 0), 0);
    EXPECT_EQ(SendSignalToOwnGroup(0), 0);
    if (::getpgrp() > 1) { // it is 0 where the group belongs to an outer namespace
        EXPECT_EQ(SendSignalToGroup(::getpgrp(), 0), 0);
    }
}
