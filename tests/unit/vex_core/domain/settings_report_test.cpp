#include "vex_core/domain/settings_report.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

using testing::ElementsAre;
using testing::IsEmpty;
using VexCore::NameOf;
using VexCore::ReportOn;
using VexCore::SettingFault;
using VexCore::SettingFinding;
using VexCore::SettingInForce;
using VexCore::SettingsReport;
using VexCore::SettingsSource;

namespace {
using Role = SettingsSource::Role;

SettingsSource Source(Role role, const std::string& file, const std::string& bytes)
{
    return {role, file, bytes, std::string(), VexCore::ParseConfig(bytes)};
}

SettingsReport ReportOnLocal(const std::string& bytes)
{
    return ReportOn({Source(Role::Local, "f", bytes)}, {});
}

std::vector<std::string> TextsOf(const SettingsReport& report)
{
    std::vector<std::string> texts;
    for (const SettingFinding& finding : report.findings)
        texts.push_back((finding.toldAtStart ? "" : "quiet: ") + finding.text);
    return texts;
}

// "value from where".
std::string InForce(const SettingsReport& report, const std::string& key)
{
    const auto found = std::find_if(report.inForce.begin(), report.inForce.end(),
                                    [&key](const SettingInForce& setting) { return setting.key == key; });
    if (found == report.inForce.end())
        return "none";
    if (found->origin == SettingInForce::Origin::File)
        return found->value + " from " + found->file + ':' + std::to_string(found->line);
    return found->value + (found->origin == SettingInForce::Origin::Domain ? " from the domain" : " by default");
}

} // namespace

TEST(SettingsReport, ACleanFileHasNothingToTell)
{
    EXPECT_THAT(TextsOf(ReportOnLocal("; comment\nTrace = Appl\nDumpLevel=1\nsqlite.config.cache_size=-2000\nother=1\n"
                                      "[settings]\napp.log.size = 10M\nvex.HeartbeatInterval=1h\nvex.Plugin.net = on\n"
                                      "trend.Disk = /\nx=y\n[others]\nkey=1\n")),
                IsEmpty());
}

TEST(SettingsReport, EachFaultIsOneFindingWithPlaceAndWhatIsUsed)
{
    const SettingsReport report =
        ReportOnLocal("[settings]\nvex.HeartbeatInterval = 5 ; comment\napp.log.size = 1\napp.lua.cache=off\n"
                      "vex.HartbeatKeepRows = 4\napp.else = 3\nHeartbeatKeepDays=2\nVEX.PLUGIN.net = maybe\n");
    EXPECT_THAT(TextsOf(report),
                ElementsAre("f:2: the setting 'vex.HeartbeatInterval' cannot be '5 ; comment': a comment stands on a "
                            "line of its own; used: 60 seconds",
                            "f:3: the setting 'app.log.size' cannot be '1': it must be a whole number of bytes from "
                            "4096 on, or one with K, M, G or T behind it; used: 4096 bytes",
                            "f:4: the setting 'app.lua.cache' cannot be 'off': it must be true or false; used: true",
                            "f:5: there is no setting 'vex.HartbeatKeepRows'; did you mean 'vex.HeartbeatKeepRows'?",
                            "f:6: there is no setting 'app.else'",
                            "f:7: there is no setting 'HeartbeatKeepDays'; did you mean 'vex.HeartbeatKeepDays'?",
                            "f:8: the setting 'vex.Plugin.net' cannot be 'maybe': it must be on or off; used: off"));
    const SettingFinding& first = report.findings[0];
    EXPECT_EQ(first.fault, SettingFault::CommentBehind);
    EXPECT_EQ(first.file, "f");
    EXPECT_EQ(first.line, 2U);
    EXPECT_EQ(first.key, "vex.HeartbeatInterval");
    EXPECT_EQ(first.value, "5 ; comment");
    EXPECT_EQ(first.used, "60 seconds");
    EXPECT_EQ(report.findings[1].fault, SettingFault::OutOfRange);
    EXPECT_EQ(report.findings[2].fault, SettingFault::Unreadable);
    EXPECT_EQ(report.findings[3].fault, SettingFault::Unknown);
    EXPECT_EQ(report.findings[3].value, "4");
    EXPECT_EQ(report.findings[3].nearest, "vex.HeartbeatKeepRows");
}

TEST(SettingsReport, WhatStandsInTheWrongPlaceIsNamed)
{
    EXPECT_THAT(
        TextsOf(ReportOnLocal("app.log.count = 3\n[setings]\napp.log.size=5M\n[Other]\nvex.Plugin.x=on\n[settings]\n"
                              "sqlite.config.cache_size=9\nTrace=x\napp.path.work=/x\nvex.HeartbeatNow=1\n")),
        ElementsAre("f:1: 'app.log.count' counts for nothing here: it stands in the group [settings]",
                    "f:2: the group [setings] counts for nothing; did you mean [settings]?",
                    "f:5: 'vex.Plugin.x' counts for nothing here: it stands in the group [settings]",
                    "f:7: 'sqlite.config.cache_size' counts for nothing here: it stands before the first group",
                    "f:8: 'Trace' counts for nothing here: it stands before the first group",
                    "f:9: 'app.path.work' counts for nothing here: it comes from the command line",
                    "f:10: 'vex.HeartbeatNow' counts for nothing here: it is for code that runs"));
}

TEST(SettingsReport, WhatTheFrameworkTellsIsNotToldTwiceButForADropIn)
{
    const std::string bytes = "[settings]\nno entry\na=1\nA=2\n[broken\n";
    EXPECT_THAT(TextsOf(ReportOnLocal(bytes)),
                ElementsAre("quiet: f:2: the line is no entry, group or comment",
                            "quiet: f:3: 'a' counts for nothing here: it stands in line 4 too",
                            "quiet: f:5: the line is no entry, group or comment"));
    EXPECT_THAT(TextsOf(ReportOn({Source(Role::DropIn, "d", bytes)}, {})),
                ElementsAre("d:2: the line is no entry, group or comment",
                            "d:3: 'a' counts for nothing here: it stands in line 4 too",
                            "d:5: the line is no entry, group or comment"));
}

TEST(SettingsReport, WhatTheLauncherPassesOverInSilenceTheStartDoesNotTellEither)
{
    EXPECT_THAT(
        TextsOf(ReportOnLocal("DumpLevel=abc\nsqlite.config.synchronous=9\nTarce=x\nSqlite.config.mmap_size=1\n")),
        ElementsAre("quiet: f:1: the setting 'DumpLevel' cannot be 'abc': it must be a whole number; used: 0",
                    "quiet: f:2: the setting 'sqlite.config.synchronous' cannot be '9': it must be a whole number "
                    "from 0 to 3; used: 2",
                    "quiet: f:3: there is no setting 'Tarce'; did you mean 'Trace'?",
                    "quiet: f:4: there is no setting 'Sqlite.config.mmap_size'; did you mean "
                    "'sqlite.config.mmap_size'?"));
}

TEST(SettingsReport, TheTopOfADropInCountsForNothing)
{
    EXPECT_THAT(TextsOf(ReportOn({Source(Role::DropIn, "d", "Trace=x\n[settings]\napp.log.count=2\n")}, {})),
                ElementsAre("d:1: 'Trace' counts for nothing here: only the local and the system's own file have it"));
}

TEST(SettingsReport, AFileThatIsNotUsedSaysWhy)
{
    EXPECT_THAT(TextsOf(ReportOn({{Role::DropIn, "d", "", "it is a stranger's", {}}}, {})),
                ElementsAre("it is a stranger's"));
    EXPECT_THAT(TextsOf(ReportOn({{Role::Local, "f", "[settings]\nvex.No=1", "it is a stranger's", {}}}, {})),
                ElementsAre("quiet: it is a stranger's"));
    EXPECT_THAT(TextsOf(ReportOn({Source(Role::DropIn, "d", std::string(100001, '\n'))}, {})),
                ElementsAre("d: the file is not used: it has more than 4194304 bytes or 100000 lines"));
}

TEST(SettingsReport, AValueOfTheDomainIsJudgedToo)
{
    const SettingsReport report =
        ReportOn({Source(Role::Local, "f", "[settings]\nvex.HeartbeatInterval=5\n")},
                 {{"vex.HeartbeatInterval", "0"}, {"app.path.work", "/w"}, {"vex.mine", "?"}, {"vex.Plugin.x", "on"}});
    EXPECT_THAT(TextsOf(report),
                ElementsAre("in the domain: the setting 'vex.HeartbeatInterval' cannot be '0': it must be "
                            "a whole number of seconds from 1 on, or one with s, m, h or d behind it; "
                            "used: 60 seconds"));
    EXPECT_EQ(InForce(report, "vex.HeartbeatInterval"), "60 seconds from the domain");
    EXPECT_EQ(InForce(report, "app.path.work"), "/w from the domain");
    EXPECT_EQ(InForce(report, "vex.Plugin.x"), "on from the domain");
    EXPECT_EQ(InForce(report, "vex.mine"), "none");
}

TEST(SettingsReport, TheStrongestFileSaysWhatIsInForce)
{
    const SettingsReport report = ReportOn(
        {Source(Role::Local, "local", "Trace=L\n[settings]\napp.log.count=1\napp.log.size=often\nvex.Plugin.a=on\n"),
         Source(Role::DropIn, "20", "[settings]\napp.log.count=2\nvex.CollectInterval=2m\n"),
         Source(Role::DropIn, "10", "[settings]\nvex.CollectInterval=1\napp.lua.cache=no\napp.lua.cache=yes\n"),
         Source(Role::Global, "global",
                "!Trace=G\nDumpLevel=2\n[settings]\n!app.log.count=9\napp.log.size=1M\nvex.CollectInterval=3\ntrend."
                "Disk=/x\n")},
        {});
    EXPECT_EQ(InForce(report, "app.log.count"), "9 files from global:4");
    EXPECT_EQ(InForce(report, "app.log.size"), "10485760 bytes from local:4");
    EXPECT_EQ(InForce(report, "vex.CollectInterval"), "120 seconds from 20:3");
    EXPECT_EQ(InForce(report, "app.lua.cache"), "true from 10:4");
    EXPECT_EQ(InForce(report, "vex.Plugin.a"), "on from local:5");
    EXPECT_EQ(InForce(report, "trend.Disk"), "/x from global:7");
    EXPECT_EQ(InForce(report, "Trace"), "G from global:1");
    EXPECT_EQ(InForce(report, "DumpLevel"), "2 from global:2");
    EXPECT_EQ(InForce(report, "vex.HeartbeatInterval"), "60 seconds by default");
    EXPECT_EQ(InForce(report, "sqlite.config.busy_timeout"), "2000 milliseconds by default");
    EXPECT_EQ(InForce(report, "sqlite.config.cache_size"), "none");
    EXPECT_EQ(InForce(report, "vex.Plugin.NAME"), "none");
    EXPECT_TRUE(std::is_sorted(report.inForce.begin(), report.inForce.end(),
                               [](const SettingInForce& a, const SettingInForce& b) { return a.key < b.key; }));
}

TEST(SettingsReport, FaultsHaveNamesOfTheirOwn)
{
    EXPECT_STREQ(NameOf(SettingFault::Unknown), "unknown");
    EXPECT_STREQ(NameOf(SettingFault::CommentBehind), "comment");
    EXPECT_STREQ(NameOf(SettingFault::NotUsed), "not-used");
}

TEST(SettingsReport, OfAFileOfRubbishTheFirstThousandNamesAreHeldAgainstTheKeys)
{
    std::string bytes = "[settings]\n";
    for (unsigned i = 0; i < 3000; ++i) {
        char name[40];
        std::snprintf(name, sizeof name, "vex.HeartbeatInterval%03x", i);
        bytes += std::string(name) + "=1\n";
    }
    const std::vector<SettingFinding> findings = ReportOnLocal(bytes).findings;
    ASSERT_EQ(findings.size(), 3000U);
    EXPECT_EQ(findings[999].nearest, "vex.HeartbeatInterval");
    EXPECT_EQ(findings[1000].text, "f:1002: there is no setting 'vex.HeartbeatInterval3e8'");
    EXPECT_EQ(std::count_if(findings.begin(), findings.end(),
                            [](const SettingFinding& finding) { return !finding.nearest.empty(); }),
              1000);
}
