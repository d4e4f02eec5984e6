#include "vex_core/domain/setting_value.h"

#include <gtest/gtest.h>

#include <string>

using VexCore::FindSetting;
using VexCore::IntegerFromSetting;
using VexCore::JudgeSetting;
using VexCore::SettingKind;
using VexCore::SettingThatCounts;
using VexCore::SettingVerdict;
using VexCore::StandardText;
using VexCore::TruthFromSetting;
using VexCore::WantedText;

TEST(SettingValue, SuffixesAreThoseOfItsKind)
{
    const struct
    {
        SettingKind kind;
        const char* text;
        std::int64_t value;
    } rows[] = {
        {SettingKind::Number, "7", 7},
        {SettingKind::Number, " -7\t", -7},
        {SettingKind::Size, "7", 7},
        {SettingKind::Size, "7k", 7168},
        {SettingKind::Size, "10M", 10485760},
        {SettingKind::Size, "2g", 2147483648},
        {SettingKind::Size, "1T", 1099511627776},
        {SettingKind::Size, "8388607T", 9223370937343148032},
        {SettingKind::Time, "90", 90},
        {SettingKind::Time, "90s", 90},
        {SettingKind::Time, "2M", 120},
        {SettingKind::Time, " 1h ", 3600},
        {SettingKind::Time, "1D", 86400},
        {SettingKind::Time, "-1h", -3600},
        {SettingKind::Mode, "0750", 0750},
        {SettingKind::Mode, " 755 ", 0755},
        {SettingKind::Mode, "0", 0},
    };
    for (const auto& row : rows) {
        std::int64_t value = 99;
        EXPECT_TRUE(IntegerFromSetting(row.kind, row.text, value)) << row.text;
        EXPECT_EQ(value, row.value) << row.text;
    }
}

TEST(SettingValue, WhatIsNoNumberOfItsKindIsLeftAlone)
{
    const struct
    {
        SettingKind kind;
        const char* text;
    } rows[] = {
        {SettingKind::Number, ""},       {SettingKind::Number, "1k"},      {SettingKind::Number, "1h"},
        {SettingKind::Number, "1.5"},    {SettingKind::Number, "0x10"},    {SettingKind::Size, "M"},
        {SettingKind::Size, "10 M"},     {SettingKind::Size, "10MB"},      {SettingKind::Size, "1h"},
        {SettingKind::Size, "8388608T"}, {SettingKind::Size, "-8388608T"}, {SettingKind::Time, "1w"},
        {SettingKind::Time, "1h30m"},    {SettingKind::Time, "60 ; a"},    {SettingKind::Time, "1k"},
        {SettingKind::Mode, "0780"},     {SettingKind::Mode, "rwxr-x---"}, {SettingKind::Mode, "0770"},
        {SettingKind::Mode, "0757"},     {SettingKind::Mode, "000750"},    {SettingKind::Mode, "-750"},
    };
    for (const auto& row : rows) {
        std::int64_t value = 99;
        EXPECT_FALSE(IntegerFromSetting(row.kind, row.text, value)) << row.text;
        EXPECT_EQ(value, 99) << row.text;
    }
}

TEST(SettingValue, OnlyASwitchIsOnOrOff)
{
    bool value = false;
    EXPECT_TRUE(TruthFromSetting(SettingKind::Switch, " On ", value) && value);
    EXPECT_TRUE(TruthFromSetting(SettingKind::Switch, "OFF", value) && !value);
    EXPECT_TRUE(TruthFromSetting(SettingKind::Switch, "yes", value) && value);
    EXPECT_FALSE(TruthFromSetting(SettingKind::Switch, "o", value));
    EXPECT_FALSE(TruthFromSetting(SettingKind::Flag, "on", value));
    EXPECT_TRUE(TruthFromSetting(SettingKind::Flag, "0", value) && !value);
}

TEST(SettingValue, EachFaultHasItsVerdictAndTheValueThatCounts)
{
    const struct
    {
        const char* key;
        const char* text;
        SettingVerdict verdict;
        const char* counts;
    } rows[] = {
        {"vex.HeartbeatInterval", "1h", SettingVerdict::Good, "3600 seconds"},
        {"vex.HeartbeatInterval", "often", SettingVerdict::Unreadable, "60 seconds"},
        {"vex.HeartbeatInterval", "60 ; comment", SettingVerdict::CommentBehind, "60 seconds"},
        {"vex.HeartbeatInterval", "5\t# comment", SettingVerdict::CommentBehind, "60 seconds"},
        {"vex.HeartbeatInterval", "60;comment", SettingVerdict::Unreadable, "60 seconds"},
        {"vex.HeartbeatInterval", "often ; comment", SettingVerdict::Unreadable, "60 seconds"},
        {"vex.HeartbeatInterval", "; 60", SettingVerdict::Unreadable, "60 seconds"},
        {"vex.HeartbeatInterval", "0", SettingVerdict::OutOfRange, "60 seconds"},
        {"app.log.size", "1", SettingVerdict::OutOfRange, "4096 bytes"},
        {"app.log.count", "10000", SettingVerdict::Good, "10000 files"},
        {"app.log.count", "10001", SettingVerdict::OutOfRange, "10000 files"},
        {"app.lua.cache", "no", SettingVerdict::Good, "false"},
        {"app.lua.cache", "off", SettingVerdict::Unreadable, "true"},
        {"app.lua.cache", "no # comment", SettingVerdict::CommentBehind, "true"},
        {"vex.Plugin.x", "1", SettingVerdict::Good, "on"},
        {"vex.Plugin.x", "perhaps", SettingVerdict::Unreadable, "off"},
        {"sqlite.config.busy_timeout", "-1", SettingVerdict::OutOfRange, "2000 milliseconds"},
        {"sqlite.config.busy_timeout", "3600001", SettingVerdict::OutOfRange, "2000 milliseconds"},
        {"sqlite.config.cache_size", "-9", SettingVerdict::Good, "-9 pages"},
        {"sqlite.config.cache_size", "abc", SettingVerdict::Unreadable, ""},
        {"Trace", "a ; b", SettingVerdict::Good, "a ; b"},
        {"app.log.syslog", " Local7 ", SettingVerdict::Good, "local7"},
        {"app.log.syslog", "off", SettingVerdict::Good, "off"},
        {"app.log.syslog", "local8", SettingVerdict::Unreadable, "off"},
        {"app.log.syslog", "", SettingVerdict::Unreadable, "off"},
        {"app.log.syslog", "daemon # comment", SettingVerdict::CommentBehind, "off"},
        {"app.log.syslog.level", "trace", SettingVerdict::Good, "trace"},
        {"app.log.syslog.level", "error", SettingVerdict::Good, "error"},
        {"app.log.syslog.level", "warning message", SettingVerdict::Unreadable, "info"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(JudgeSetting(*FindSetting(row.key), row.text), row.verdict) << row.key << '=' << row.text;
        EXPECT_EQ(SettingThatCounts(*FindSetting(row.key), row.text), row.counts) << row.key << '=' << row.text;
    }
}

TEST(SettingValue, WhatIsWantedIsSaidInWords)
{
    EXPECT_EQ(WantedText(*FindSetting("app.log.count")), "a whole number of files from 1 to 10000");
    EXPECT_EQ(WantedText(*FindSetting("app.log.size")),
              "a whole number of bytes from 4096 on, or one with K, M, G or T behind it");
    EXPECT_EQ(WantedText(*FindSetting("vex.CollectInterval")),
              "a whole number of seconds from 1 on, or one with s, m, h or d behind it");
    EXPECT_EQ(WantedText(*FindSetting("DumpLevel")), "a whole number");
    EXPECT_EQ(WantedText(*FindSetting("app.out.mode")),
              "octal digits from 0700 to 0755 that let nobody but the owner write");
    EXPECT_EQ(WantedText(*FindSetting("app.lua.cache")), "true or false");
    EXPECT_EQ(WantedText(*FindSetting("vex.Plugin.x")), "on or off");
    EXPECT_EQ(WantedText(*FindSetting("Trace")), "a text");
    EXPECT_EQ(WantedText(*FindSetting("app.log.syslog.level")), "one of error, warning, message, info, debug or trace");
    EXPECT_EQ(StandardText(*FindSetting("app.log.syslog")), "off");
    EXPECT_EQ(StandardText(*FindSetting("sqlite.config.mmap_size")), "");
    EXPECT_EQ(StandardText(*FindSetting("DumpLevel")), "0");
    EXPECT_EQ(StandardText(*FindSetting("app.out.mode")), "0750");
}
