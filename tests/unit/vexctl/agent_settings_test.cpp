#include "vex/apps/vexctl/agent_settings.h"

#include "support/temp_folder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include <sys/stat.h>

using namespace Vexctl;
using ::Test::TempFolder;
using ::Test::WriteFile;
using testing::ElementsAre;
using VexCore::SettingInForce;

namespace {
// "value from where".
std::string InForce(const AgentSettings& settings, const std::string& key)
{
    for (const SettingInForce& setting : settings.report.inForce)
        if (setting.key == key)
            return setting.value + " from "
                   + (setting.origin == SettingInForce::Origin::File     ? setting.file
                      : setting.origin == SettingInForce::Origin::Domain ? "the domain"
                                                                         : "the table");
    return "none";
}

} // namespace

TEST(Place, SettingsLieWhereTheAgentLooksForThem)
{
    const Place place{"my.agent", "/opt/bin", "/var/lib/my"};
    EXPECT_EQ(place.LocalSettingsFile(), "/var/lib/my/my.agent.ini");
    EXPECT_EQ(place.GlobalSettingsFile(), "/etc/my.conf");
    EXPECT_EQ((Place{"no-such-agent", "", ""}.GlobalSettingsFile()), "/etc/no-such-agent.conf");
}

TEST(AgentSettings, AreThoseOfTheFilesThatTheAgentReads)
{
    const TempFolder folder;
    WriteFile(folder / "no-such-agent.ini", "[settings]\napp.log.count = 7\nvex.Nothing = 1\n");
    const Place place{"no-such-agent", "/opt/bin", folder.Path()};
    const AgentSettings settings = ReadAgentSettings(place, "");
    EXPECT_THAT(settings.files, ElementsAre(folder / "no-such-agent.ini"));
    EXPECT_THAT(settings.forbidden, ElementsAre());
    EXPECT_EQ(settings.report.findings.size(), 1U);
    EXPECT_EQ(InForce(settings, "app.log.count"), "7 files from " + folder / "no-such-agent.ini");
    EXPECT_EQ(InForce(settings, "app.path.work"), folder.Path() + " from the domain");
    EXPECT_EQ(InForce(settings, "app.path.ini"), folder / "no-such-agent.ini" + " from the domain");
    EXPECT_EQ(InForce(settings, "vex.HeartbeatInterval"), "60 seconds from the table");
}

TEST(AgentSettings, AVariableCountsAsTheAgentsOwnOptionDoes)
{
    const TempFolder folder;
    WriteFile(folder / "no-such-agent.ini", "[settings]\napp.log.count = 7\n");
    WriteFile(folder / "other.ini", "[settings]\napp.log.count = 8\n");
    const Place place{"no-such-agent", "/opt/bin", folder.Path()};
    EXPECT_EQ(InForce(ReadAgentSettings(place, "app.log.count=9"), "app.log.count"), "9 files from the domain");
    EXPECT_EQ(InForce(ReadAgentSettings(place, "app.path.ini=" + folder / "other.ini"), "app.log.count"),
              "8 files from " + folder / "other.ini");
}

TEST(AgentSettings, WhatOthersMayWriteIsJudgedInAWorkFolderOfThisUser)
{
    const TempFolder folder;
    const std::string path = folder / "no-such-agent.ini";
    WriteFile(path, "[settings]\napp.log.count = 7\n");
    ASSERT_EQ(::chmod(path.c_str(), 0666), 0);
    const AgentSettings settings = ReadAgentSettings({"no-such-agent", "/opt/bin", folder.Path()}, "");
    ASSERT_EQ(settings.report.findings.size(), 1U);
    EXPECT_EQ(settings.report.findings[0].fault, VexCore::SettingFault::NotUsed);
    EXPECT_EQ(InForce(settings, "app.log.count"), "5 files from the table");
}
