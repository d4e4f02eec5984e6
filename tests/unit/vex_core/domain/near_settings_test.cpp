#include "vex_core/domain/near_settings.h"

#include <gtest/gtest.h>

#include <string>

using VexCore::EditDistance;
using VexCore::IsNearSettingsGroup;
using VexCore::NearestAtTop;
using VexCore::NearestSetting;

TEST(NearSettings, DistanceCountsChangedAddedMissingAndExchangedLetters)
{
    EXPECT_EQ(EditDistance("", ""), 0U);
    EXPECT_EQ(EditDistance("abc", ""), 3U);
    EXPECT_EQ(EditDistance("", "abc"), 3U);
    EXPECT_EQ(EditDistance("Abc", "aBC"), 0U);
    EXPECT_EQ(EditDistance("abc", "axc"), 1U);
    EXPECT_EQ(EditDistance("abc", "abxc"), 1U);
    EXPECT_EQ(EditDistance("abc", "ac"), 1U);
    EXPECT_EQ(EditDistance("abc", "acb"), 1U);
    EXPECT_EQ(EditDistance("abcd", "badc"), 2U);
    EXPECT_EQ(EditDistance("settings", "setup"), 5U);
}

TEST(NearSettings, AMisspeltNameHasAKeyNearby)
{
    const struct
    {
        const char* name;
        const char* nearest;
    } rows[] = {
        {"vex.HartbeatInterval", "vex.HeartbeatInterval"},
        {"VEX.HEARTBEATINTERVALL", "vex.HeartbeatInterval"},
        {"vex.HeartbeatKeepRow", "vex.HeartbeatKeepRows"},
        {"app.logsize", "app.log.size"},
        {"app.log.siez", "app.log.size"},
        {"ap.log.size", "app.log.size"},
        {"vxe.Plugin.net", "vex.Plugin.net"},
        {"apt.log.siez", ""},
        {"apt.Folder", ""},
        {"apple.log.size", ""},
        {"hex.Plugins.net", ""},
        {"log", ""},
        {"abc", ""},
        {"a.b", ""},
        {"vex.abc", ""},
        {"app.abc", ""},
        {"app.log.sze", "app.log.size"},
        {"app.log.sxyz", ""},
        {"app.log.cxnt", ""},
        {"vex.Hxxxtbeatxnterval", ""},
        {"HeartbeatInterval", "vex.HeartbeatInterval"},
        {"hartbeatinterval", "vex.HeartbeatInterval"},
        {"maxentries", "app.unzip.maxentries"},
        {"vex.Plugins.net", "vex.Plugin.net"},
        {"vex.Plugn.a.b", "vex.Plugin.a.b"},
        {"vex.Plugin.", ""},
        {"app.path.work", ""},
        {"vex.Else", ""},
        {"count", ""},
        {"", ""},
        {"trend.Disk", ""},
    };
    for (const auto& row : rows)
        EXPECT_EQ(NearestSetting(row.name), row.nearest) << row.name;
    EXPECT_EQ(NearestSetting(std::string(100000, 'a')), "");
    EXPECT_EQ(NearestAtTop("Tarce"), "Trace");
    EXPECT_EQ(NearestAtTop("Face"), "");
    EXPECT_EQ(NearestAtTop("sqlite.config.cachesize"), "sqlite.config.cache_size");
    EXPECT_EQ(NearestAtTop("app.log.siez"), "");
}

TEST(NearSettings, AGroupIsNearWhenItIsNotQuiteThatOfTheSettings)
{
    for (const char* group : {"setings", "Setting", "settngs", "sttings", " settings", "settings ", "settigns"})
        EXPECT_TRUE(IsNearSettingsGroup(group)) << group;
    for (const char* group : {"settings", "SETTINGS", "", "set", "other", "strings and more"})
        EXPECT_FALSE(IsNearSettingsGroup(group)) << group;
    EXPECT_FALSE(IsNearSettingsGroup(std::string(100000, 's')));
}
