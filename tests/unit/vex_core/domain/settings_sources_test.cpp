#include "vex_core/domain/settings_sources.h"

#include "support/dom_ptr.h"
#include "support/joining_thread.h"
#include "support/log_catcher.h"
#include "support/temp_folder.h"
#include "vex_core/domain/settings.h"
#include "vex_core/os/call_observer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

using Test::DomPtr;
using Test::JoiningThread;
using Test::LogCatcher;
using Test::NewRoot;
using Test::TempFolder;
using Test::WriteFile;
using VexCore::DropInFolder;
using VexCore::SettingsFile;
using VexCore::SettingsPaths;
using VexCore::SettingsSource;
using VexCore::SettingsSources;

namespace {
std::time_t g_now = 1000;

std::time_t NowOfTest()
{
    return g_now;
}

class SettingsOfFiles : public testing::Test
{
protected:
    void SetUp() override { std::filesystem::create_directory(m_folder / "x.d"); }

    // As a later second sees it: the system's files are looked at once a second.
    std::string Find(const char* name)
    {
        ++g_now;
        std::string value = "none";
        m_files.Find(m_paths, name, value);
        return value;
    }
    std::vector<SettingsSource> Sources(const SettingsPaths& paths)
    {
        ++g_now;
        return m_files.Sources(paths);
    }
    void Write(const char* name, const std::string& entries) { WriteFile(m_folder / name, "[settings]\n" + entries); }

    const TempFolder m_folder;
    const SettingsPaths m_paths{m_folder / "x.ini", m_folder / "x.conf"};
    SettingsSources m_files{SettingsFile::Place::WorkFolder, NowOfTest};
};

} // namespace

TEST_F(SettingsOfFiles, TheLocalFileWinsThenTheLastDropInThenTheGlobalFile)
{
    Write("x.conf", "a=global\nb=global\nc=global\nd=global\n");
    EXPECT_EQ(Find("a"), "global");
    Write("x.d/10.conf", "a=ten\nb=ten\nc=ten\n");
    EXPECT_EQ(Find("a"), "ten");
    Write("x.d/20.conf", "a=twenty\nb=twenty\n");
    EXPECT_EQ(Find("a"), "twenty");
    Write("x.ini", "a=local\n");
    EXPECT_EQ(Find("A"), "local");
    EXPECT_EQ(Find("b"), "twenty");
    EXPECT_EQ(Find("c"), "ten");
    EXPECT_EQ(Find("d"), "global");
    EXPECT_EQ(Find("e"), "none");
}

TEST_F(SettingsOfFiles, AnEntryOfTheGlobalFileWithAMarkWinsOverAllFiles)
{
    Write("x.conf", "!a=global\nb=global\n");
    Write("x.d/10.conf", "!a=ten\n!b=ten\n");
    Write("x.ini", "!a=local\n");
    EXPECT_EQ(Find("a"), "global");
    EXPECT_EQ(Find("b"), "ten") << "the mark is that of the global file";
    Write("x.ini", "b=local\n");
    EXPECT_EQ(Find("b"), "local");
}

TEST_F(SettingsOfFiles, ADropInIsAFileWhoseNameEndsAsThatOfTheGlobalOne)
{
    EXPECT_EQ(DropInFolder("/etc/x.conf"), "/etc/x.d");
    EXPECT_EQ(DropInFolder("/etc/x"), "/etc/x.d");
    Write("x.d/10.conf", "a=1\n");
    Write("x.d/20.conf~", "a=2\n");
    Write("x.d/30.conf.dpkg-old", "a=3\n");
    Write("x.d/.40.conf", "a=4\n");
    std::filesystem::create_directory(m_folder / "x.d/50.conf");
    EXPECT_EQ(Find("a"), "1");
}

TEST_F(SettingsOfFiles, WhatOthersMayWriteIsNotBelievedInTheWorkFolderAlone)
{
    Write("x.d/10.conf", "a=1\n");
    Write("x.conf", "b=2\n");
    Write("x.ini", "c=3\n");
    for (const char* name : {"x.d/10.conf", "x.conf", "x.ini"})
        ASSERT_EQ(::chmod((m_folder / name).c_str(), 0666), 0);
    ASSERT_EQ(::chmod((m_folder / "x.d").c_str(), 0777), 0);
    EXPECT_EQ(Find("a") + Find("b") + Find("c"), "12none");
}

TEST_F(SettingsOfFiles, TheSystemsFilesAreLookedAtOnceASecondAndTheLocalOneEachTime)
{
    std::string value = "none";
    EXPECT_EQ(Find("a"), "none");
    Write("x.conf", "a=global\n");
    EXPECT_FALSE(m_files.Find(m_paths, "a", value)) << "it is the same second";
    ++g_now;
    EXPECT_TRUE(m_files.Find(m_paths, "a", value));
    Write("x.ini", "a=local\n");
    EXPECT_TRUE(m_files.Find(m_paths, "a", value));
    EXPECT_EQ(value, "local");
    Write("y.conf", "b=other\n");
    EXPECT_TRUE(m_files.Find({m_paths.local, m_folder / "y.conf"}, "b", value)) << "other files are looked at at once";
}

namespace {
std::string g_watched;
int g_lookingCalls = 0;

int CountCalls(const VexCore::os::Call&)
{
    ++g_lookingCalls;
    return 0;
}

int RefuseToOpenTheDropIns(const VexCore::os::Call& call)
{
    return std::string_view(call.name).substr(0, 4) == "open" && call.path && call.path == g_watched ? EACCES : 0;
}

} // namespace

TEST_F(SettingsOfFiles, AHostWithoutThemIsAskedForTheSystemsFilesTwiceASecond)
{
    const SettingsPaths paths{std::string(), m_folder / "none.conf"};
    g_lookingCalls = 0;
    const auto before = VexCore::os::SetCallObserver(CountCalls);
    std::string value;
    for (int i = 0; i < 5; ++i)
        m_files.Find(paths, "a", value);
    VexCore::os::SetCallObserver(before);
    EXPECT_EQ(g_lookingCalls, 2);
}

TEST_F(SettingsOfFiles, AFolderThatCannotBeReadIsToldOnceAndTheOtherFilesCount)
{
    Write("x.d/10.conf", "a=1\n");
    Write("x.conf", "a=2\n");
    g_watched = m_folder / "x.d";
    const auto before = VexCore::os::SetCallObserver(RefuseToOpenTheDropIns);
    const std::vector<SettingsSource> sources = Sources(m_paths);
    EXPECT_EQ(Find("a"), "2");
    VexCore::os::SetCallObserver(before);
    ASSERT_EQ(sources.size(), 2U);
    EXPECT_EQ(sources[0].role, SettingsSource::Role::DropIn);
    EXPECT_EQ(sources[0].file, g_watched);
    EXPECT_EQ(sources[0].refused, "'" + g_watched
                                      + "' cannot be read (Permission denied), so nothing in it counts: let the "
                                        "agent's user read it, or take it away");
    EXPECT_EQ(Find("a"), "1") << "it can be read now";
}

TEST_F(SettingsOfFiles, NamesOfAllFilesAreFoundOnce)
{
    Write("x.conf", "p.a=1\n!p.b=1\nq.z=1\n");
    Write("x.d/10.conf", "P.A=2\np.c=2\n");
    Write("x.ini", "p.d=3\np.c=3\n");
    EXPECT_EQ(m_files.NamesThatBegin(m_paths, "p."), (std::vector<std::string>{"P.A", "p.b", "p.c", "p.d"}));
}

TEST_F(SettingsOfFiles, GenerationIsAnotherWheneverAFileComesChangesOrGoes)
{
    std::vector<std::uint64_t> seen{m_files.Generation(m_paths)};
    const auto changes = [&](const char* what) {
        ++g_now;
        const std::uint64_t now = m_files.Generation(m_paths);
        EXPECT_EQ(std::count(seen.begin(), seen.end(), now), 0) << what;
        EXPECT_EQ(m_files.Generation(m_paths), now) << what;
        seen.push_back(now);
    };
    Write("x.d/10.conf", "a=1\n");
    changes("a drop-in came");
    Write("x.d/20.conf", "a=2\n");
    changes("another one came");
    Write("x.d/20.conf", "a=3\n");
    changes("a drop-in changed");
    ::unlink((m_folder / "x.d/20.conf").c_str());
    changes("a drop-in went");
    Write("x.d/20.conf", "a=3\n");
    changes("it came back");
    Write("x.conf", "b=1\n");
    changes("the global file came");
    Write("x.conf", "!a=1\n");
    changes("an entry of it wins from now on");
    Write("x.conf", "b=1\n");
    changes("it is another");
    Write("x.ini", "a=2\n");
    changes("the local file came");
    Write("x.ini", "; a comment more\na=2\n");
    ++g_now;
    EXPECT_EQ(m_files.Generation(m_paths), seen.back()) << "the entries are as before";
}

TEST_F(SettingsOfFiles, ForAReportTheyComeInTheirOrderWithWhatTheySay)
{
    Write("x.conf", "a=1\n");
    Write("x.d/10.conf", "");
    Write("x.d/20.conf", "");
    Write("x.ini", "");
    ASSERT_EQ(::chmod((m_folder / "x.ini").c_str(), 0666), 0);
    std::filesystem::create_directory(m_folder / "x.d/15.conf");
    const std::vector<SettingsSource> sources = Sources(m_paths);
    ASSERT_EQ(sources.size(), 5U);
    EXPECT_EQ(sources[0].role, SettingsSource::Role::Local);
    EXPECT_NE(sources[0].refused, "");
    EXPECT_EQ(sources[1].file, m_folder / "x.d/20.conf");
    EXPECT_EQ(sources[1].bytes, "[settings]\n");
    EXPECT_EQ(sources[1].refused, "");
    EXPECT_EQ(sources[2].file, m_folder / "x.d/15.conf");
    EXPECT_NE(sources[2].refused, "");
    EXPECT_EQ(sources[3].file, m_folder / "x.d/10.conf");
    EXPECT_EQ(sources[4].role, SettingsSource::Role::Global);
    EXPECT_EQ(sources[4].contents.settings, (VexCore::SettingsEntries{{"a", "1"}}));
    EXPECT_EQ(Sources({m_folder / "none.ini", m_folder / "none.conf"}).size(), 0U);
    EXPECT_EQ(Sources({}).size(), 0U);
}

TEST_F(SettingsOfFiles, ThreadsMayAskWhileAFileChanges)
{
    Write("x.ini", "a=1\n");
    std::vector<JoiningThread> readers;
    std::atomic<int> wrong{0};
    for (int i = 0; i < 3; ++i)
        readers.emplace_back([&](const std::atomic<bool>& stop) {
            while (!stop) {
                std::string value;
                m_files.Find(m_paths, "a", value);
                if (value != "1" && value != "2")
                    ++wrong;
            }
        });
    for (int i = 0; i < 200; ++i) {
        Write("new", i % 2 ? "a=1\n" : "a=2\n");
        std::filesystem::rename(m_folder / "new", m_paths.local);
    }
    for (JoiningThread& reader : readers)
        reader.Stop();
    EXPECT_EQ(wrong, 0);
}

TEST_F(SettingsOfFiles, ADropInCountsForTheDomain)
{
    Write("x.d/10.conf", "vex.Plugin.net = on\napp.log.count = 7\n");
    const DomPtr dom = NewRoot();
    dom->Set("app.path.ini.global", m_paths.global);
    EXPECT_EQ(VexCore::IntSetting(*dom, "app.log.count"), 7);
    EXPECT_EQ(VexCore::SettingKeys(*dom, "vex.Plugin"), (std::vector<std::string>{"vex.Plugin.net"}));
    EXPECT_TRUE(VexCore::BoolSetting(*dom, "vex.Plugin.net"));
}

TEST_F(SettingsOfFiles, WarningsAreALineForEachFaultAndBounded)
{
    std::string many;
    for (int i = 0; i < 60; ++i)
        many += "vex.No" + std::to_string(i) + "=1\n";
    Write("x.d/10.conf", many);
    Write("x.ini", "vex.HeartbeatInterval = often\n");
    const DomPtr dom = NewRoot();
    dom->Set("app.path.ini", m_paths.local);
    dom->Set("app.path.ini.global", m_paths.global);
    const LogCatcher log;
    VexCore::WarnOfSettings(*dom);
    ASSERT_EQ(log.Lines().size(), 51U);
    EXPECT_EQ(log.Lines()[0].level, static_cast<wxLogLevel>(wxLOG_Warning));
    EXPECT_EQ(log.Lines()[0].text,
              m_paths.local
                  + ":2: the setting 'vex.HeartbeatInterval' cannot be 'often': it must be a whole "
                    "number of seconds from 1 on, or one with s, m, h or d behind it; used: 60 "
                    "seconds");
    EXPECT_EQ(log.Lines()[50].text, "11 more lines about the settings are left out");
}
