#include "vex_core/base/thread_name.h"

#include <thread>

#include <gtest/gtest.h>

using VexCore::ThreadName;
using VexCore::ThreadNameScope;

TEST(ThreadName, MainThreadHasOneFromTheStart)
{
    EXPECT_STREQ(ThreadName(), "main");
}

TEST(ThreadName, EachThreadHasItsOwn)
{
    std::thread([] {
        EXPECT_EQ(ThreadName(), nullptr);
        const ThreadNameScope name("other");
        EXPECT_STREQ(ThreadName(), "other");
    }).join();
    EXPECT_STREQ(ThreadName(), "main");
}

TEST(ThreadName, InnerScopeGivesTheOuterNameBack)
{
    const ThreadNameScope outer("outer");
    {
        const ThreadNameScope inner("inner");
        EXPECT_STREQ(ThreadName(), "inner");
    }
    EXPECT_STREQ(ThreadName(), "outer");
}
