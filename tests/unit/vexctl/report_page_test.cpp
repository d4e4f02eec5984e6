#include "vex/apps/vexctl/agent_report.h"
#include "vex/apps/vexctl/html_text.h"
#include "vex/apps/vexctl/report_page.h"
#include "vex/apps/vexctl/svg_chart.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

using namespace Vexctl;
using namespace std::string_literals;
using Arguments = std::vector<std::string>;

namespace {
std::size_t CountOf(const std::string& text, const std::string& part)
{
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

constexpr std::int64_t minuteMs = 60000;
constexpr std::int64_t nowMs = 1700000000000;

PageContent Content()
{
    PageContent content;
    content.place = {"agent", "/opt/agent", "/var/agent"};
    content.nowMs = nowMs;
    content.sinceMs = nowMs - 100 * minuteMs;
    return content;
}

LineChart Chart(std::vector<ChartPoint> points)
{
    return {"Load", "", {0, 1000},     std::move(points),
            100,    0,  Peak::Highest, [](double value) { return std::to_string(value); }};
}

} // namespace

TEST(HtmlText, NothingIsObeyed)
{
    EXPECT_EQ(Html("<script>\"a\" & 'b'"), "&lt;script&gt;&quot;a&quot; &amp; &#39;b&#39;");
    EXPECT_EQ(Html("a\0\x1b[2J\n\xc2\x9b"s), "a\\x00\\x1B[2J\\x0A\\xC2\\x9B");
    EXPECT_EQ(Html("a\n\tb\r", true), "a\n\tb\\x0D");
    EXPECT_EQ(Html("\xff\xc3é\xed\xa0\x80"), "\xef\xbf\xbd\xef\xbf\xbdé\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd");
}

TEST(ForegroundOptions, AreThoseThatMakeAReport)
{
    EXPECT_EQ(
        ForegroundOptions({"--background", "-i", "--extdir", "ext", "-p", "a,b", "--workdir", "/w", "--", "--json"}),
        Arguments({"--extdir", "ext", "-p", "a,b"}));
    EXPECT_EQ(ForegroundOptions({"-bi", "-bw", "/w", "-w/x", "--workdir=/y", "-bp=a", "--plugins:b", "-U", "--test"}),
              Arguments({"-p=a", "--plugins:b"}));
    EXPECT_EQ(ForegroundOptions({"--unittest", "x.lua", "-u", "y", "script", "--verbose", "-a", "--"}),
              Arguments({"--verbose", "-a", "--"}));
    EXPECT_EQ(ForegroundOptions({"-p"}), Arguments({"-p"}));
    EXPECT_EQ(ForegroundOptions({"-h", "-", ""}), Arguments());
}

TEST(LineChart, IsJoinedButForItsGaps)
{
    EXPECT_EQ(CountOf(Draw(Chart({{0, 1}, {50, 2}, {100, 1}})), "class=\"line\""), 1u);
    EXPECT_EQ(CountOf(Draw(Chart({{0, 1}, {50, 2}, {300, 1}})), "class=\"line\""), 2u);
}

TEST(LineChart, HasAScaleFromNothingToARoundNumber)
{
    EXPECT_NE(Draw(Chart({{0, 3.2}})).find("<span>5.000000</span><span>2.500000</span><span>0.000000</span>"),
              std::string::npos);
    EXPECT_NE(Draw(Chart({{0, 0}})).find("<span>1.000000</span>"), std::string::npos);
}

TEST(LineChart, ShowsThePeakOfPointsThatFallTogether)
{
    LineChart chart = Chart({});
    chart.range = {0, 1000000};
    chart.top = 10;
    chart.points = {{0, 1}, {1, 9}, {2, 2}};
    EXPECT_NE(Draw(chart).find("d=\"M0.0 10.0 h0\""), std::string::npos);
    chart.peak = Peak::Lowest;
    EXPECT_NE(Draw(chart).find("d=\"M0.0 90.0 h0\""), std::string::npos);
}

TEST(LineChart, NumbersThatAreNoneAndForeignTimesAreLeftOut)
{
    const double nan = std::nan("");
    EXPECT_NE(Draw(Chart({{0, nan}, {-5, 1}, {5000, 1}})).find("nothing is known of this time"), std::string::npos);
    EXPECT_EQ(Draw(Chart({{0, 1e300}, {10, std::numeric_limits<double>::infinity()}})).find("nan"), std::string::npos);
}

TEST(Bar, StaysInItsFrame)
{
    EXPECT_NE(DrawBar(0.5, StripMark::Kind::Good).find("<rect class=\"good\" width=\"50.0\""), std::string::npos);
    EXPECT_NE(DrawBar(7, StripMark::Kind::Bad).find("<rect class=\"bad\" width=\"100.0\""), std::string::npos);
    EXPECT_NE(DrawBar(std::nan(""), StripMark::Kind::Bad).find("width=\"0.0\""), std::string::npos);
}

TEST(ReportPage, OfNothingIsAPage)
{
    const std::string page = ReportPage(Content());
    EXPECT_EQ(page.substr(0, 15), "<!DOCTYPE html>");
    EXPECT_NE(page.find("<title>agent on this host</title>"), std::string::npos);
    EXPECT_NE(page.find("no events"), std::string::npos);
    EXPECT_NE(page.find("no crash dumps"), std::string::npos);
}

TEST(ReportPage, ObeysNoText)
{
    PageContent content = Content();
    const std::string evil = "<script>alert(1)</script>\x1b\"'><img src=x onerror=y>";
    content.place.name = content.place.workFolder = evil;
    content.state.reason = evil;
    content.problems = {evil};
    content.settings = {{evil, evil}};
    Event event;
    event.text = evil;
    content.events = {event};
    CrashDump dump;
    dump.path = dump.threadName = dump.module = dump.damage = evil;
    content.dumps = {dump};
    dump.damage.clear();
    content.dumps.push_back(dump);
    ChildEndStory end;
    end.timeMs = nowMs - minuteMs;
    end.text = evil;
    content.story.childEnds = {end};
    Heartbeat beat;
    beat.timeMs = nowMs - minuteMs;
    beat.reason = evil;
    content.heartbeats = {beat};
    const Json object = {{evil, evil}, {"list", {{{evil, evil}}}}, {"deep", {{evil, {{evil, {evil}}}}}}};
    content.report = {
        {"host", evil},
        {"host_id", evil},
        {"system", evil},
        {"kernel", evil},
        {"architecture", evil},
        {"agent", {{"name", evil}, {"version", evil}}},
        {"uptime", 5},
        {"load", {evil}},
        {"memory", evil},
        {"disks", {{{"mount", evil}, {"device", evil}, {"type", evil}, {"total", 1}}}},
        {"plugins", {{{"name", evil}, {"version", evil}, {"values", object}}, {{"name", evil}, {"error", evil}}}}};
    const std::string page = ReportPage(content);
    EXPECT_GT(CountOf(page, "&lt;script&gt;"), 25u);
    EXPECT_EQ(CountOf(page, "<script"), 0u);
    EXPECT_EQ(CountOf(page, "<img"), 0u);
    EXPECT_EQ(CountOf(page, "\x1b"), 0u);
}

TEST(ReportPage, OfForeignReportsIsAPage)
{
    for (const char* text :
         {"{}", "[]", "7", R"({"load":[],"memory":[],"disks":{},"plugins":{},"agent":1,"uptime":1e300})",
          R"({"disks":[{}],"plugins":[{"values":[[1]]},{"values":{"a":{"b":{"c":{"d":{"e":{"f":{"g":1}}}}}}}}]})",
          R"({"memory":{"total":-1,"available":1e300},"disks":[{"total":1e300,"free":-1e300,"available":0}]})"}) {
        PageContent content = Content();
        content.report = Json::parse(text);
        EXPECT_NE(ReportPage(content).find("</html>"), std::string::npos) << text;
    }
}

TEST(ReportPage, APluginsNumbersAreShownInTheUnitsThatItTells)
{
    PageContent content = Content();
    content.report = Json::parse(R"({"plugins":[{"name":"p","units":{"sent":"bytes","rate":"bytes/s","age":"seconds",
        "due":"days","memory":"bytes","odd":7},"values":{"sent":1073741824,"rate":1536,"age":3700,"due":2.5,"odd":1,
        "memory":{"min":12.5,"max":-2048},"plain":4096,"empty":[],"list":[{"name":"w","sent":2048}]}}]})");
    const std::string page = ReportPage(content);
    for (const char* shown : {"<dt>sent</dt><dd>1.0 GiB</dd>", "<dt>rate</dt><dd>1.5 KiB/s</dd>",
                              "<dt>age</dt><dd>1 h 1 min</dd>", "<dt>due</dt><dd>2.50 days</dd>",
                              "<dt>odd</dt><dd>1</dd>", "<dt>min</dt><dd>12.50 B</dd>", "<dt>max</dt><dd>-2.0 KiB</dd>",
                              "<dt>plain</dt><dd>4096</dd>", "<dt>empty</dt><dd>none</dd>", "<td>2.0 KiB</td>"})
        EXPECT_EQ(CountOf(page, shown), 1u) << shown;
}

TEST(ReportPage, WhatIsUsedFreeAndReservedOfADiskAddsUp)
{
    PageContent content = Content();
    content.report =
        Json::parse(R"({"disks":[{"mount":"/","total":107374182400,"free":64424509440,"available":42949672960},
        {"mount":"/x","total":1024,"free":512,"available":512}]})");
    const std::string page = ReportPage(content);
    EXPECT_EQ(CountOf(page, "<td>50&nbsp;%<small>40.0 GiB</small></td>"), 1u);
    EXPECT_EQ(CountOf(page, "<td>40.0 GiB</td><td>100.0 GiB<small>20.0 GiB reserved</small></td>"), 1u);
    EXPECT_EQ(CountOf(page, "<td>512 B</td><td>1.0 KiB</td>"), 1u);
}

TEST(ReportPage, SecretsAreMaskedByTheirNames)
{
    PageContent content = Content();
    Event event;
    event.text = "login with password=hunter2";
    content.events = {event};
    content.report = {
        {"plugins", {{{"name", "p"}, {"values", {{"api_token", "hunter2"}, {"text", "secret: hunter2"}}}}}}};
    const std::string page = ReportPage(content);
    EXPECT_EQ(CountOf(page, "hunter2"), 0u);
    EXPECT_EQ(CountOf(page, "***"), 3u);
}

TEST(ReportPage, AGapBetweenHeartbeatsIsOneAndALateBeatIsNone)
{
    PageContent content = Content();
    for (const std::int64_t minute : {0, 1, 2, 3, 5, 6, 7, 20, 21, 22, 99, 100}) {
        Heartbeat beat;
        beat.timeMs = content.sinceMs + minute * minuteMs;
        beat.reason = "interval";
        content.heartbeats.push_back(beat);
    }
    const std::string page = ReportPage(content);
    EXPECT_NE(page.find("12 in 1 h 40 min, 2 gaps longer than 2 min 30 s"), std::string::npos);
    EXPECT_EQ(CountOf(page, "<title>no heartbeat from "), 2u);
}

TEST(ReportPage, ChildEndsAreCountedInTheTimeThatIsShown)
{
    PageContent content = Content();
    for (const std::int64_t minutesAgo : {500, 50, 5}) {
        ChildEndStory end;
        end.timeMs = nowMs - minutesAgo * minuteMs;
        end.text = "Child process exited";
        content.story.childEnds.push_back(end);
    }
    EXPECT_NE(ReportPage(content).find("the child has ended 2 times"), std::string::npos);
}
