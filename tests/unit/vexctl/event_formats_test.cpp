#include "vex/apps/vexctl/event_formats.h"
#include "vex/apps/vexctl/json_text.h"

#include <gtest/gtest.h>

#include <limits>

using namespace Vexctl;

namespace {
const EventSource source = {"0123456789abcdef0123456789abcdef", "host.example", "vx_agent", "1.2.3.4"};
constexpr const char* bom = "\xef\xbb\xbf";

Event Sample()
{
    Event event;
    event.id = 17;
    event.timeMs = 1'700'000'000'123;
    event.number = 5101;
    event.severity = 5;
    event.text = "net|1.2|figures";
    event.xml = "<agent_event/>";
    return event;
}

Event WithText(const std::string& text)
{
    Event event = Sample();
    event.text = text;
    return event;
}

// What stands behind the header and the structured data.
std::string MessageOf(const std::string& record)
{
    const std::size_t at = record.find(bom);
    return at == std::string::npos ? std::string() : record.substr(at + 3);
}

Json OtlpRecord(const Event& event)
{
    return Json::parse(OtlpLine(event, source, 1'700'000'001'000))["resourceLogs"][0]["scopeLogs"][0]["logRecords"][0];
}

} // namespace

TEST(OtlpFormat, IsThisLine)
{
    EXPECT_EQ(OtlpLine(Sample(), source, 1'700'000'001'000),
              R"({"resourceLogs":[{"resource":{"attributes":[)"
              R"({"key":"host.id","value":{"stringValue":"0123456789abcdef0123456789abcdef"}},)"
              R"({"key":"host.name","value":{"stringValue":"host.example"}},)"
              R"({"key":"service.name","value":{"stringValue":"vx_agent"}},)"
              R"({"key":"service.version","value":{"stringValue":"1.2.3.4"}}]},)"
              R"("scopeLogs":[{"scope":{"name":"agent_event"},"logRecords":[{)"
              R"("timeUnixNano":"1700000000123000000","observedTimeUnixNano":"1700000001000000000",)"
              R"("severityNumber":10,"severityText":"notice","body":{"stringValue":"net|1.2|figures"},"attributes":[)"
              R"({"key":"event.key","value":{"stringValue":")"
                  + Sample().Key()
                  + R"("}},{"key":"event.id","value":{"intValue":"17"}},)"
                    R"({"key":"event.number","value":{"intValue":"5101"}}]}]}]}]})");
}

TEST(OtlpFormat, WhatAnEventLacksIsLeftOut)
{
    Event event;
    event.id = 1;
    const Json record = OtlpRecord(event);
    for (const char* const field : {"timeUnixNano", "severityNumber", "severityText"})
        EXPECT_FALSE(record.contains(field)) << field;
    EXPECT_EQ(record["body"]["stringValue"], "");
    EXPECT_EQ(record["attributes"].size(), 2u);
    const Json nobody = Json::parse(OtlpLine(event, EventSource(), 1));
    EXPECT_EQ(nobody["resourceLogs"][0]["resource"]["attributes"], Json::array());
}

TEST(OtlpFormat, SeveritiesAreThoseOfItsTableForSyslog)
{
    constexpr int expected[] = {21, 19, 18, 17, 13, 10, 9, 5};
    for (int severity = 0; severity < 8; ++severity) {
        Event event = Sample();
        event.severity = severity;
        EXPECT_EQ(OtlpRecord(event)["severityNumber"], expected[severity]) << severity;
    }
    for (const std::int64_t severity : {std::int64_t{-1}, std::int64_t{8}, INT64_MAX}) {
        Event event = Sample();
        event.severity = severity;
        EXPECT_FALSE(OtlpRecord(event).contains("severityNumber")) << severity;
    }
}

TEST(OtlpFormat, NumbersAreTextAndTimesThatDoNotFitAreUnknown)
{
    Event event = Sample();
    event.number = INT64_MIN;
    event.id = INT64_MAX;
    for (const std::int64_t timeMs : {INT64_MAX, INT64_MAX / 1000000 + 1, std::int64_t{0}, std::int64_t{-1}}) {
        event.timeMs = timeMs;
        EXPECT_FALSE(OtlpRecord(event).contains("timeUnixNano")) << timeMs;
    }
    event.timeMs = INT64_MAX / 1000000;
    const Json record = OtlpRecord(event);
    EXPECT_EQ(record["timeUnixNano"], "9223372036854000000");
    EXPECT_EQ(record["attributes"][1]["value"]["intValue"], "9223372036854775807");
    EXPECT_EQ(record["attributes"][2]["value"]["intValue"], "-9223372036854775808");
}

TEST(OtlpFormat, AnyTextIsOneLineOfJson)
{
    const std::string text = std::string("a\0b\n\"]\\\xff\x1b", 9) + "\xe2\x80\xa8";
    const std::string line = OtlpLine(WithText(text), source, 1);
    for (const char c : line)
        EXPECT_GE(static_cast<unsigned char>(c), 0x20u);
    EXPECT_EQ(OtlpRecord(WithText(text))["body"]["stringValue"],
              std::string("a\0b\n\"]\\\xef\xbf\xbd\x1b", 11) + "\xe2\x80\xa8");
}

TEST(SyslogFormat, IsThisRecord)
{
    EXPECT_EQ(SyslogRecord(Sample(), source),
              "<29>1 2023-11-14T22:13:20.123Z host.example vx_agent - 5101 "
              "[origin software=\"vx_agent\" swVersion=\"1.2.3.4\"][vex@32473 key=\""
                  + Sample().Key() + "\" id=\"17\" number=\"5101\" host_id=\"0123456789abcdef0123456789abcdef\"] " + bom
                  + "net|1.2|figures");
}

TEST(SyslogFormat, WhatAnEventLacksIsADash)
{
    Event event;
    event.id = 1;
    EXPECT_EQ(SyslogRecord(event, EventSource()),
              "<29>1 - - - - - [origin][vex@32473 key=\"" + event.Key() + "\" id=\"1\"]");
}

TEST(SyslogFormat, ThePriorityIsThatOfADaemonAndOfTheEvent)
{
    for (int severity = 0; severity < 8; ++severity) {
        Event event = Sample();
        event.severity = severity;
        EXPECT_EQ(SyslogRecord(event, source).find("<" + std::to_string(24 + severity) + ">1 "), 0u);
    }
    for (const std::int64_t severity : {INT64_MIN, std::int64_t{8}}) {
        Event event = Sample();
        event.severity = severity;
        EXPECT_EQ(SyslogRecord(event, source).find("<29>1 "), 0u);
    }
}

TEST(SyslogFormat, TimesThatTheFormatHasNoWordForAreADash)
{
    for (const std::int64_t timeMs : {std::int64_t{-1}, INT64_MIN, INT64_MAX, std::int64_t{253'402'300'800'000}}) {
        Event event = Sample();
        event.timeMs = timeMs;
        EXPECT_EQ(SyslogRecord(event, source).find("<29>1 - host.example"), 0u) << timeMs;
    }
    Event event = Sample();
    event.timeMs = 253'402'300'799'999;
    EXPECT_EQ(SyslogRecord(event, source).find("<29>1 9999-12-31T23:59:59.999Z host"), 0u);
}

TEST(SyslogFormat, HeaderFieldsAreVisibleAsciiOfItsLengths)
{
    const EventSource odd = {"", "h\xc3\xb6st name\n", std::string(60, 'a') + " b", std::string(40, '1')};
    EXPECT_EQ(SyslogRecord(Sample(), odd)
                  .find("<29>1 2023-11-14T22:13:20.123Z h__st_name_ " + std::string(48, 'a')
                        + " - 5101 [origin software=\"" + std::string(48, 'a') + "\" swVersion=\""
                        + std::string(32, '1') + "\"]"),
              0u);
    const EventSource longHost = {"", std::string(300, 'h'), "a", ""};
    EXPECT_NE(SyslogRecord(Sample(), longHost).find("Z " + std::string(255, 'h') + " a - "), std::string::npos);
}

TEST(SyslogFormat, QuotesBackslashesAndBracketsAreEscapedInStructuredData)
{
    const EventSource odd = {"", "h", "]\"\\\n", ""};
    EXPECT_NE(SyslogRecord(Sample(), odd).find("[origin software=\"\\]\\\"\\\\\\\\x0A\"]"), std::string::npos)
        << SyslogRecord(Sample(), odd);
}

TEST(SyslogFormat, AnyTextIsOneLineOfUtf8)
{
    EXPECT_EQ(MessageOf(SyslogRecord(WithText("]\"\\ \xc3\xa9"), source)), "]\"\\ \xc3\xa9");
    EXPECT_EQ(MessageOf(SyslogRecord(WithText(std::string("a\0b\r\nc\td", 8)), source)), "a\\x00b\\x0D\\x0Ac\\x09d");
    EXPECT_EQ(MessageOf(SyslogRecord(WithText("\xff \xc3 \x1b[31m"), source)), "\xef\xbf\xbd \xef\xbf\xbd \\x1B[31m");
    EXPECT_EQ(MessageOf(SyslogRecord(WithText("\xe2\x80\xa8"), source)), "\\xE2\\x80\\xA8");
    EXPECT_EQ(MessageOf(SyslogRecord(WithText(std::string(200'000, 'x')), source)), std::string(200'000, 'x'));
}
