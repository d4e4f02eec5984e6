#include "vex/apps/vexctl/times.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <limits>

using namespace Vexctl;

namespace {
constexpr std::int64_t now = 1'700'000'000'000; // 2023-11-14T22:13:20Z

// In a zone of its own, two hours east of Greenwich in summer and one in winter.
class Times : public testing::Test
{
protected:
    void SetUp() override
    {
        const char* const zone = std::getenv("TZ");
        m_zone = zone ? zone : "";
        ::setenv("TZ", "XST-1XDT,M3.5.0,M10.5.0/3", 1);
        ::tzset();
    }
    void TearDown() override
    {
        if (m_zone.empty())
            ::unsetenv("TZ");
        else
            ::setenv("TZ", m_zone.c_str(), 1);
        ::tzset();
    }

private:
    std::string m_zone;
};

} // namespace

TEST_F(Times, LengthsOfTimeHaveUnits)
{
    EXPECT_EQ(ParseDuration("45s"), 45'000);
    EXPECT_EQ(ParseDuration("10m"), 600'000);
    EXPECT_EQ(ParseDuration("1h30m"), 5'400'000);
    EXPECT_EQ(ParseDuration("2d"), 172'800'000);
    EXPECT_EQ(ParseDuration("1w"), 604'800'000);
    EXPECT_EQ(ParseDuration("0s"), 0);
}

TEST_F(Times, WhatIsNoLengthOfTimeIsNone)
{
    for (const char* const text : {"", "10", "m", "10x", "1h30", "-5m", "1 h", "99999999999999999999d", "9999999999w"})
        EXPECT_FALSE(ParseDuration(text)) << text;
}

TEST_F(Times, APointIsALengthAgoOrADate)
{
    EXPECT_EQ(ParseWhen("now", now), now);
    EXPECT_EQ(ParseWhen("1h", now), now - 3'600'000);
    EXPECT_EQ(ParseWhen("2023-11-14T22:13:20Z", now), now);
    EXPECT_EQ(ParseWhen("2023-11-14T23:13:20+01:00", now), now);
    EXPECT_EQ(ParseWhen("2023-11-14T17:13:20-0500", now), now);
    EXPECT_EQ(ParseWhen("2023-11-14T22:13:20.5Z", now), now + 500);
    EXPECT_EQ(ParseWhen("2023-11-14T22:13Z", now), now - 20'000);
}

TEST_F(Times, ADateWithoutAZoneIsLocal)
{
    EXPECT_EQ(ParseWhen("2023-11-14T23:13:20", now), now);
    EXPECT_EQ(ParseWhen("2023-11-14 23:13:20", now), now);
    EXPECT_EQ(ParseWhen("2023-11-15", now), 1'700'002'800'000); // its first moment
    EXPECT_EQ(ParseWhen("2023-07-01T12:00", now), 1'688'205'600'000); // summer
}

TEST_F(Times, WhatIsNoPointIsNone)
{
    for (const char* const text :
         {"", "yesterday", "2023", "2023-13-01", "2023-02-29", "2023-11-31", "2023-11-14T", "2023-11-14T24:00",
          "2023-11-14T10:60", "2023-11-14T10:20:30x", "2023-11-14T10:20:30.", "2023-11-14T10:20+25:00"})
        EXPECT_FALSE(ParseWhen(text, now)) << text;
    EXPECT_TRUE(ParseWhen("2024-02-29", now));
}

TEST_F(Times, AreShownInLocalTimeAndInUtc)
{
    EXPECT_EQ(LocalTime(now), "2023-11-14 23:13:20");
    EXPECT_EQ(UtcTime(now + 7), "2023-11-14T22:13:20.007Z");
    EXPECT_EQ(UtcTime(-1), "1969-12-31T23:59:59.999Z");
    EXPECT_EQ(UtcTime(1'709'251'509'010), "2024-03-01T00:05:09.010Z"); // with zeros in each field
}

TEST_F(Times, ThatNoAgentWritesHaveAYearOfFourDigits)
{
    constexpr auto least = std::numeric_limits<std::int64_t>::min();
    constexpr auto most = std::numeric_limits<std::int64_t>::max();
    EXPECT_EQ(UtcTime(most), "9999-12-31T23:59:59.807Z");
    EXPECT_EQ(UtcTime(least), "1000-01-01T00:00:00.192Z");
    EXPECT_EQ(LocalTime(least).size(), LocalTime(now).size());
}

TEST_F(Times, LengthsAreShownInTheirTwoLargestUnits)
{
    EXPECT_EQ(DurationText(999), "0 s");
    EXPECT_EQ(DurationText(59'000), "59 s");
    EXPECT_EQ(DurationText(60'000), "1 min");
    EXPECT_EQ(DurationText(3'725'000), "1 h 2 min");
    EXPECT_EQ(DurationText(90'061'000), "1 d 1 h");
}
