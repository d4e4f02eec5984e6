#include "vex_core/domain/settings.h"

#include "support/dom_ptr.h"
#include "support/temp_folder.h"
#include "vex_core/domain/known_settings.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include <sys/stat.h>

using Test::DomPtr;
using Test::NewRoot;
using Test::TempFolder;
using Test::WriteFile;
using VexCore::BoolSetting;
using VexCore::CDom;
using VexCore::ChoiceSetting;
using VexCore::FindSetting;
using VexCore::IntSetting;
using VexCore::knownSettings;
using VexCore::noStandard;
using VexCore::Setting;
using VexCore::SettingKind;
using VexCore::SettingPlace;
using VexCore::SettingsWatch;

TEST(KnownSettings, EachHasADefaultWithinItsRangeAndANameOfItsOwn)
{
    for (const Setting& setting : knownSettings) {
        if (setting.standard != noStandard) {
            EXPECT_GE(setting.standard, setting.least) << setting.key;
            EXPECT_LE(setting.standard, setting.most) << setting.key;
        }
        EXPECT_EQ(FindSetting(setting.key), &setting) << "another of that name: " << setting.key;
        EXPECT_STRNE(setting.help, "") << setting.key;
    }
    EXPECT_EQ(FindSetting("app.log.siz"), nullptr);
    EXPECT_EQ(FindSetting(""), nullptr);
}

TEST(KnownSettings, EachOfAnOperatorsGroupHasADefaultButForTexts)
{
    for (const Setting& setting : knownSettings)
        if (setting.place == SettingPlace::Settings) {
            EXPECT_EQ(setting.standard == noStandard, setting.kind == SettingKind::Text) << setting.key;
        }
}

TEST(KnownSettings, ARowMayBeForAnyNameBehindAKey)
{
    ASSERT_NE(FindSetting("vex.Plugin.x"), nullptr);
    EXPECT_STREQ(FindSetting("vex.Plugin.x")->key, "vex.Plugin.NAME");
    EXPECT_EQ(FindSetting("vex.Plugin.a.b"), FindSetting("vex.Plugin.x"));
    EXPECT_EQ(FindSetting("vex.Plugin."), nullptr);
    EXPECT_EQ(FindSetting("vex.plugin.x"), nullptr) << "a key has its case";
}

TEST(Settings, AbsentAndUnreadableAreTheDefault)
{
    const DomPtr dom = NewRoot();
    for (const Setting& setting : knownSettings)
        for (const char* text : {"", "many", "0x10", "1e3", "5 MB", "60 ; comment", "99999999999999999999"}) {
            if (setting.place != SettingPlace::Settings || setting.kind == SettingKind::Text)
                continue;
            dom->Remove(setting.key);
            if (*text)
                dom->Set(setting.key, text);
            if (IsInteger(setting.kind))
                EXPECT_EQ(IntSetting(*dom, setting.key), setting.standard) << setting.key << '=' << text;
            else if (setting.kind == SettingKind::Choice)
                EXPECT_EQ(ChoiceSetting(*dom, setting.key), setting.standard) << setting.key << '=' << text;
            else
                EXPECT_EQ(BoolSetting(*dom, setting.key), setting.standard != 0) << setting.key << '=' << text;
        }
}

TEST(Settings, ZeroAndBelowAreTheDefaultOfEachLimit)
{
    const DomPtr dom = NewRoot();
    for (const Setting& setting : knownSettings) {
        if (setting.place != SettingPlace::Settings || !IsInteger(setting.kind))
            continue;
        for (const std::int64_t value : {static_cast<std::int64_t>(0), static_cast<std::int64_t>(-1), INT64_MIN}) {
            dom->SetWx(setting.key, value);
            EXPECT_EQ(IntSetting(*dom, setting.key), setting.standard) << setting.key << '=' << value;
        }
    }
}

TEST(Settings, OtherValuesBeyondTheRangeAreItsNearestBound)
{
    const DomPtr dom = NewRoot();
    const struct
    {
        const char* key;
        std::int64_t value;
        std::int64_t counts;
    } rows[] = {
        {"app.log.size", 1, 4096},    {"app.log.size", 4096, 4096},    {"app.log.size", INT64_MAX, INT64_MAX},
        {"app.log.count", 1, 1},      {"app.log.count", 10000, 10000}, {"app.log.count", 10001, 10000},
        {"app.unzip.maxbytes", 1, 1}, {"app.unzip.maxentries", 7, 7},
    };
    for (const auto& row : rows) {
        dom->SetWx(row.key, row.value);
        EXPECT_EQ(IntSetting(*dom, row.key), row.counts) << row.key << '=' << row.value;
    }
}

TEST(Settings, BlanksAroundAValueOfTheFileDoNotCount)
{
    const TempFolder folder;
    WriteFile(folder / "x.ini", "[settings]\napp.log.count = 7 \t\napp.lua.cache = \" no \"\n");
    const DomPtr dom = NewRoot();
    dom->Set("app.path.ini", folder / "x.ini");
    EXPECT_EQ(IntSetting(*dom, "app.log.count"), 7);
    EXPECT_FALSE(BoolSetting(*dom, "app.lua.cache"));
}

TEST(Settings, SizesAndTimesMayHaveASuffixInDomainAndFile)
{
    const TempFolder folder;
    WriteFile(folder / "x.ini", "[settings]\napp.log.size = 10M\nvex.HeartbeatInterval = 1h\n");
    const DomPtr dom = NewRoot();
    dom->Set("app.path.ini", folder / "x.ini");
    EXPECT_EQ(IntSetting(*dom, "app.log.size"), 10485760);
    EXPECT_EQ(IntSetting(*dom, "vex.HeartbeatInterval"), 3600);
    dom->Set("vex.HeartbeatInterval", "2m");
    EXPECT_EQ(IntSetting(*dom, "vex.HeartbeatInterval"), 120);
    dom->Set("app.log.count", "2K");
    EXPECT_EQ(IntSetting(*dom, "app.log.count"), 5) << "a plain number";
}

TEST(Settings, ASwitchIsOnOrOff)
{
    const DomPtr dom = NewRoot();
    EXPECT_FALSE(BoolSetting(*dom, "vex.Plugin.x"));
    dom->Set("vex.Plugin.x", " ON ");
    EXPECT_TRUE(BoolSetting(*dom, "vex.Plugin.x"));
    dom->Set("vex.Plugin.x", "perhaps");
    EXPECT_FALSE(BoolSetting(*dom, "vex.Plugin.x"));
    dom->Set("app.lua.cache", "off");
    EXPECT_TRUE(BoolSetting(*dom, "app.lua.cache")) << "a flag is true or false";
}

namespace {
// One second after another may begin at any time, so a test waits for more than one.
void WaitForTheNextLookAtTheFile()
{
    std::this_thread::sleep_for(std::chrono::milliseconds(1050));
}

} // namespace

TEST(SettingsWatch, ToldOnceAtFirstAndAfterEachWrite)
{
    const DomPtr dom = NewRoot();
    SettingsWatch watch(*dom, {"app.log.size"});
    EXPECT_TRUE(watch.TakeChange(*dom));
    EXPECT_FALSE(watch.TakeChange(*dom));
    dom->Set("app.log.count", "1");
    EXPECT_FALSE(watch.TakeChange(*dom)) << "not one of its keys";
    dom->Set("app.log.size", "1");
    dom->Set("app.log.size", "2");
    EXPECT_TRUE(watch.IsDue());
    EXPECT_TRUE(watch.TakeChange(*dom));
    EXPECT_FALSE(watch.TakeChange(*dom));
    watch.Forget();
    EXPECT_TRUE(watch.TakeChange(*dom));
}

TEST(SettingsWatch, ToldOfAnotherFileAtOnceAndOfAChangedOneWithinASecond)
{
    const TempFolder folder;
    WriteFile(folder / "x.ini", "[settings]\na=1\n");
    const DomPtr dom = NewRoot();
    SettingsWatch watch(*dom, {"a"});
    watch.TakeChange(*dom);
    dom->Set("app.path.ini", folder / "x.ini");
    EXPECT_TRUE(watch.TakeChange(*dom));
    dom->Set("app.path.ini.global", folder / "x.conf");
    EXPECT_TRUE(watch.TakeChange(*dom));
    WaitForTheNextLookAtTheFile();
    EXPECT_FALSE(watch.TakeChange(*dom)) << "the file is as it was";
    WriteFile(folder / "x.ini", "[settings]\na=2\n");
    WaitForTheNextLookAtTheFile();
    EXPECT_TRUE(watch.TakeChange(*dom));
    EXPECT_FALSE(watch.TakeChange(*dom));
}

TEST(SettingsWatch, OfAViewIsToldOfItsOwnKeysAndOfTheRootsFile)
{
    const TempFolder folder;
    WriteFile(folder / "x.ini", "[settings]\npart.a=1\n");
    const DomPtr root = NewRoot();
    const DomPtr view(CDom::New("part", root.get(), nullptr, false));
    SettingsWatch watch(*view, {"a"});
    EXPECT_TRUE(watch.TakeChange(*view));
    root->Set("app.path.ini", folder / "x.ini");
    EXPECT_TRUE(watch.TakeChange(*view)) << "another file counts at once";
    view->Set("a", "2");
    EXPECT_TRUE(watch.TakeChange(*view));
    root->Set("a", "2");
    view->Set("app.path.ini", folder / "y.ini");
    EXPECT_FALSE(watch.TakeChange(*view)) << "keys of others";
}

TEST(SettingsWatch, WhatAThreadReadBeforeAWriteIsNotTakenOverAfterIt)
{
    const DomPtr dom = NewRoot();
    SettingsWatch watch(*dom, {"app.log.size"});
    std::int64_t taken = 0;
    const auto takeOver = [&](const std::function<void()>& afterReading) {
        watch.TakeOver(*dom, [&] {
            const std::int64_t value = IntSetting(*dom, "app.log.size");
            afterReading();
            taken = value;
        });
    };
    dom->Set("app.log.size", "5000");
    takeOver([&] {
        dom->Set("app.log.size", "6000");
        std::thread([&] { takeOver([] {}); }).join();
    });
    EXPECT_EQ(taken, 5000);
    EXPECT_TRUE(watch.IsDue()) << "the write is left to the next call";
    takeOver([] {});
    EXPECT_EQ(taken, 6000);
    EXPECT_FALSE(watch.TakeChange(*dom));
}

TEST(SettingsWatch, OfTheProcesssRootIsToldWhenAnotherRootTakesItsPlace)
{
    SettingsWatch watch({"a"});
    DomPtr one = NewRoot();
    const DomPtr other = NewRoot();
    EXPECT_TRUE(watch.TakeChange(*one));
    EXPECT_FALSE(watch.TakeChange(*one));
    one.reset();
    EXPECT_TRUE(watch.TakeChange(*other));
}
