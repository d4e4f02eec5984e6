#include "vex/core/log.h"

#include "support/call_watch.h"
#include "support/child.h"
#include "support/dom_ptr.h"
#include "support/joining_thread.h"
#include "support/own_process_log.h"
#include "support/stranger.h"
#include "support/temp_folder.h"
#include "support/test_thread.h"
#include "vex/core/crash.h"
#include "vex/core/dom.h"
#include "vex_core/base/text.h"
#include "vex_core/base/thread_name.h"
#include "vex_core/log/disk_log.h"
#include "vex_core/log/process_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string_view>
#include <thread>

#include <fcntl.h>
#include <unistd.h>
#include <wx/log.h>

using Test::CallWatch;
using Test::ChildResult;
using Test::DomPtr;
using Test::Fork;
using Test::JoiningThread;
using Test::LinesOf;
using Test::LogFromAStranger;
using Test::ReadFile;
using Test::RunChild;
using Test::TempFolder;
using Test::WaitFor;
using Test::WriteFile;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using VexCore::CDom;
using VexCore::CLog2Disk;
using VexCore::DiskLog;

namespace {
// The disk log as the framework's target, with a file of its own: what the launcher has, for one test.
class LogToDisk : public testing::Test
{
protected:
    LogToDisk()
    {
        wxLog::SetTimestamp(wxS("%Y-%m-%d %H:%M:%S"));
        m_targetBefore = wxLog::SetActiveTarget(&m_target);
    }
    ~LogToDisk() override
    {
        wxLog::SetActiveTarget(m_targetBefore);
        wxLog::SetTimestamp(m_timestampBefore);
        wxLog::SetLogLevel(m_levelBefore);
    }

    void MakeRoot(const char* name = "agent")
    {
        m_root.reset(CDom::New(nullptr, nullptr, nullptr, false));
        m_root->Set("app.name", name);
        m_root->Set("app.path.work", m_folder.Path());
    }
    std::string Text(const char* name = "agent.log") const { return ReadFile(m_folder / name); }
    std::vector<std::string> Lines() const { return LinesOf(Text()); }
    std::string LastLine() const
    {
        const std::vector<std::string> lines = Lines();
        return lines.empty() ? "(no line)" : lines.back();
    }

    TempFolder m_folder;
    DiskLog m_log{1 << 16};
    const ::Test::OwnProcessLog m_processLog{m_log};
    CLog2Disk m_target;
    DomPtr m_root;

private:
    wxLog* m_targetBefore;
    const wxString m_timestampBefore = wxLog::GetTimestamp();
    const wxLogLevel m_levelBefore = wxLog::GetLogLevel();
};

} // namespace

TEST_F(LogToDisk, LineHasTimeLevelProcessThreadAndText)
{
    MakeRoot();
    wxLogWarning("lib/x.zip: no matches");
    EXPECT_THAT(Text(), MatchesRegex("....-..-.. ..:..:.. WARNING \\[" + std::to_string(::getpid())
                                     + "/main\\] lib/x\\.zip: no matches\n"));
}

TEST_F(LogToDisk, LinesOfAThreadAndOfItsCrashCarryOneName)
{
    MakeRoot();
    RunChild([this] {
        const std::string dump = m_folder / "dump";
        EXPECT_TRUE(VexCore::InitCrashHandler(wxString(dump), wxS("agent"), false));
        ::Test::TestThread thread([](::Test::TestThread&) {
            wxLogWarning("before the crash");
            std::abort();
        });
        thread.start(50, false, 0);
        thread.join(-1);
        return 0;
    });
    const std::vector<std::string> lines = Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_THAT(lines[0], HasSubstr("/TestThread] before the crash"));
    EXPECT_THAT(lines[1], HasSubstr("/TestThread] agent crashed: signal 6 (SIGABRT)"));
}

TEST_F(LogToDisk, NameOfTheCrashedThreadDoesNothingToATerminalAndStartsNoLine)
{
    MakeRoot();
    RunChild([this] {
        EXPECT_TRUE(VexCore::InitCrashHandler(wxString(m_folder / "dump"), wxS("agent"), false));
        const VexCore::ThreadNameScope name("worker \x1b\n \xC2\x9B \x9B \xE2\x80\xA8 \xC3\xA9 \xE9");
        std::abort();
        return 0;
    });
    EXPECT_THAT(Text(), HasSubstr("/worker ?? ?? ? ??? \xC3\xA9 \xE9] agent crashed: signal 6 (SIGABRT)"));
}

TEST_F(LogToDisk, RecordsAreCountedByTheirLevels)
{
    MakeRoot();
    using VexCore::LoggedRecords;
    using VexCore::LogLevel;
    const std::uint64_t warnings = LoggedRecords(LogLevel::Warning);
    const std::uint64_t traces = LoggedRecords(LogLevel::Trace);
    const std::uint64_t errors = LoggedRecords(LogLevel::Error);
    wxLogWarning("one");
    VexCore::WriteLogLine(LogLevel::Warning, "two");
    VexCore::WriteTraceLine("Appl", "file", 1, "Function", "traced");
    EXPECT_EQ(LoggedRecords(LogLevel::Warning), warnings + 2);
    EXPECT_EQ(LoggedRecords(LogLevel::Trace), traces + 1);
    EXPECT_EQ(LoggedRecords(LogLevel::Error), errors);
}

TEST_F(LogToDisk, CopyFollowsItsSettings)
{
    std::vector<std::string> sent;
    const CallWatch watch([&](const VexCore::os::Call& call) {
        if (call.name != std::string_view("syslog"))
            return 0;
        sent.push_back(std::to_string(call.descriptor) + ' ' + call.path);
        return VexCore::os::callAnswered;
    });
    const std::string us = " [" + std::to_string(::getpid()) + "/main] ";
    MakeRoot();
    wxLogWarning("off at first");
    m_root->Set("app.log.syslog", "local0");
    wxLogWarning("on");
    VexCore::WriteLogLine(VexCore::LogLevel::Debug, "below the level");
    m_root->Set("app.log.syslog.level", "trace");
    VexCore::WriteTraceLine("Appl", "file", 3, "f", "traced");
    m_root->Set("app.log.syslog", "nonsense");
    wxLogWarning("off again");
    m_root->Set("app.log.syslog", "USER");
    wxLogError("on again");
    EXPECT_THAT(sent, testing::ElementsAre("132 WARNING" + us + "on", "135 TRACE" + us + "Appl f(file:3): traced",
                                           "11 ERROR" + us + "on again"));
    EXPECT_EQ(Lines().size(), 6u);
}

TEST_F(LogToDisk, LevelsHaveTheirWords)
{
    MakeRoot();
    wxLog::SetLogLevel(wxLOG_Max);
    const struct
    {
        wxLogLevel level;
        const char* word;
    } rows[] = {{wxLOG_Error, " ERROR "}, {wxLOG_Warning, " WARNING "}, {wxLOG_Message, " MESSAGE "},
                {wxLOG_Status, " INFO "}, {wxLOG_Info, " INFO "},       {wxLOG_Debug, " DEBUG "},
                {wxLOG_Trace, " TRACE "}, {wxLOG_Progress, " DEBUG "},  {wxLOG_User, " INFO "}};
    for (const auto& row : rows) {
        wxLogGeneric(row.level, "text");
        EXPECT_THAT(LastLine(), HasSubstr(row.word)) << row.level;
    }
    VexCore::WriteLogLine(VexCore::LogLevel::Fatal, "text");
    EXPECT_THAT(LastLine(), HasSubstr(" FATAL "));
}

TEST_F(LogToDisk, SystemErrorIsAppended)
{
    MakeRoot();
    errno = ENOENT;
    wxLogSysError("Unable to fork");
    EXPECT_THAT(Text(), EndsWith("] Unable to fork (error 2: No such file or directory)\n"));
}

TEST_F(LogToDisk, TextOfManyLinesIsIndented)
{
    MakeRoot();
    wxLogWarning("first\nsecond\n");
    EXPECT_THAT(Text(), EndsWith("] first\n    second\n"));
}

TEST_F(LogToDisk, TextIsUtf8)
{
    MakeRoot();
    wxLogWarning(wxString::FromUTF8("gr\xC3\xBC\xC3\x9F \xE2\x82\xAC %s"), "x");
    EXPECT_THAT(Text(), EndsWith("] gr\xC3\xBC\xC3\x9F \xE2\x82\xAC x\n"));
}

TEST_F(LogToDisk, NameOfAFileIsShownByItsBytes)
{
    MakeRoot();
    const std::string name = "caf\xE9 \xF0\x9F\x98\x80";
    wxLogError("Cannot open %s", VexCore::FromSystemBytes(name));
    EXPECT_THAT(Text(), EndsWith("Cannot open " + name + "\n"));
}

TEST_F(LogToDisk, FrameworksLevelHoldsForMessagesButNotForLinesOfOurs)
{
    MakeRoot();
    wxLog::SetLogLevel(wxLOG_Info);
    wxLogDebug("dropped");
    VexCore::WriteLogLine(VexCore::LogLevel::Debug, "kept");
    VexCore::LogTrace("Appl", "file", 1, "F", wxS("traced"));
    ASSERT_EQ(Lines().size(), 2u);
    EXPECT_THAT(Lines()[0], HasSubstr(" DEBUG "));
    EXPECT_THAT(Lines()[1], HasSubstr("] Appl F(file:1): traced"));
}

TEST_F(LogToDisk, LinesBeforeThePlaceIsKnownComeFirst)
{
    wxLogWarning("no root yet");
    m_root.reset(CDom::New(nullptr, nullptr, nullptr, false));
    wxLogWarning("no name yet");
    m_root->Set("app.name", "agent");
    wxLogWarning("no folder yet");
    m_root->Set("app.path.work", m_folder.Path());
    wxLogWarning("now");
    const auto lines = Lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_THAT(lines[0], EndsWith("] no root yet"));
    EXPECT_THAT(lines[2], EndsWith("] no folder yet"));
    EXPECT_THAT(lines[3], EndsWith("] now"));
}

TEST_F(LogToDisk, PlaceIsSettledByTheFirstLine)
{
    MakeRoot();
    wxLogWarning("one");
    m_root->Set("app.name", "other");
    wxLogWarning("two");
    EXPECT_EQ(Lines().size(), 2u);
}

TEST_F(LogToDisk, FlushWritesEarlyLines)
{
    wxLogWarning("early");
    MakeRoot();
    wxLog::FlushActive();
    EXPECT_THAT(Text(), EndsWith("] early\n"));
}

TEST_F(LogToDisk, LogWorksAfterTheDomainIsReleased)
{
    MakeRoot();
    wxLogWarning("one");
    m_root.reset();
    wxLogWarning("two");
    EXPECT_EQ(Lines().size(), 2u);
}

TEST_F(LogToDisk, NameStaysInsideTheFolder)
{
    MakeRoot("../%s a/b");
    wxLogWarning("one");
    EXPECT_THAT(Text(".._%s a_b.log"), EndsWith("] one\n"));
}

TEST_F(LogToDisk, ThreadOfOursLogsAtOnceUnderItsName)
{
    MakeRoot();
    ::Test::TestThread thread([](::Test::TestThread&) { wxLogWarning("from a thread"); });
    ASSERT_TRUE(thread.start(50, true, 0));
    ASSERT_TRUE(thread.join());
    EXPECT_THAT(Text(), EndsWith("/TestThread] from a thread\n"));
}

TEST_F(LogToDisk, OtherThreadsLinesComeOutOfTheFrameworksQueue)
{
    MakeRoot();
    std::thread([] { wxLogWarning("from elsewhere"); }).join();
    m_target.Flush();
    EXPECT_THAT(Text(), EndsWith("/thread] from elsewhere\n"));
}

TEST_F(LogToDisk, FlushOnAnotherThreadEmptiesTheQueueToo)
{
    MakeRoot();
    std::thread([&] {
        wxLogWarning("from elsewhere");
        m_target.Flush();
    }).join();
    EXPECT_THAT(Text(), EndsWith("/thread] from elsewhere\n"));
}

TEST_F(LogToDisk, SizeAndNumberOfFilesAreSettings)
{
    MakeRoot();
    m_root->SetWx("app.log.size", static_cast<std::int64_t>(1)); // too small a size becomes 4096
    m_root->SetWx("app.log.count", static_cast<std::int64_t>(2));
    for (int i = 0; i < 10; ++i)
        wxLogWarning("%s", std::string(2000, 'x').c_str());
    EXPECT_EQ(LinesOf(Text("agent.log.1")).size(), 2u);
    EXPECT_EQ(LinesOf(Text("agent.log.2")).size(), 2u);
    EXPECT_NE(::access((m_folder / "agent.log.3").c_str(), F_OK), 0);
}

TEST_F(LogToDisk, WithoutSettingsAFileOf10MiBIsRotatedAndFiveAreKept)
{
    constexpr std::size_t tenMiB = 10 * 1024 * 1024;
    MakeRoot();
    for (int i = 1; i <= 5; ++i)
        WriteFile(m_folder / ("agent.log." + std::to_string(i)), std::to_string(i));
    WriteFile(m_folder / "agent.log", std::string(tenMiB - 300, 'x') + '\n');
    wxLogWarning("it has room");
    EXPECT_EQ(Text("agent.log.1"), "1");
    wxLogWarning("%s", std::string(300, 'y').c_str());
    EXPECT_EQ(Lines().size(), 1u);
    EXPECT_THAT(Text("agent.log.1"), EndsWith("] it has room\n"));
    EXPECT_EQ(Text("agent.log.5"), "4");
    EXPECT_NE(::access((m_folder / "agent.log.6").c_str(), F_OK), 0);
}

TEST_F(LogToDisk, SettingsMayStandInTheConfigurationFile)
{
    WriteFile(m_folder / "agent.ini", "[settings]\napp.log.size = 5000\napp.log.count = 1\n");
    MakeRoot();
    m_root->Set("app.path.ini", m_folder / "agent.ini");
    for (int i = 0; i < 10; ++i)
        wxLogWarning("%s", std::string(2000, 'x').c_str());
    EXPECT_EQ(LinesOf(Text("agent.log.1")).size(), 2u);
    EXPECT_NE(::access((m_folder / "agent.log.2").c_str(), F_OK), 0);
}

TEST_F(LogToDisk, AProcessThatWasForkedHasItsOwnNumberInItsLines)
{
    MakeRoot();
    wxLogMessage("parent");
    const ChildResult child = RunChild([] {
        wxLogMessage("child %d", static_cast<int>(::getpid()));
        return 0;
    });
    EXPECT_TRUE(child.Exited(0));
    wxLogMessage("parent");
    ASSERT_EQ(Lines().size(), 3u);
    const std::string number = Lines()[1].substr(Lines()[1].rfind(' ') + 1);
    EXPECT_THAT(Lines()[1], HasSubstr(" [" + number + "/main] child "));
    EXPECT_THAT(Lines()[2], HasSubstr(" [" + std::to_string(::getpid()) + "/main] parent"));
}

TEST_F(LogToDisk, ALetterThatIsNotAsciiIsFoundAnywhere)
{
    MakeRoot();
    const std::string plain = "forty letters, of which one is another one";
    for (std::size_t place = 0; place < plain.size(); ++place) {
        const std::string text = plain.substr(0, place) + "\xC3\xA4\xF0\x9F\x98\x80" + plain.substr(place + 1);
        wxLogMessage("%s", wxString::FromUTF8(text));
        EXPECT_THAT(LastLine(), EndsWith("] " + text));
    }
}

TEST_F(LogToDisk, TextOfAnyLengthIsWholeWhereverItIsConverted)
{
    MakeRoot();
    for (const std::size_t length :
         {std::size_t{0}, std::size_t{1}, std::size_t{511}, std::size_t{512}, std::size_t{513}, std::size_t{2000}})
        for (const char* const end : {"", "x", "\xC3\xA4"}) {
            const std::string text = std::string(length, 'a') + end;
            wxLogMessage("%s", wxString::FromUTF8(text));
            EXPECT_THAT(LastLine(), EndsWith("] " + text)) << length;
        }
}

TEST_F(LogToDisk, OwnRecordsOfTheLogFollowTheFrameworksTimeFormat)
{
    MakeRoot();
    m_root->SetWx("app.log.size", static_cast<std::int64_t>(4096));
    wxLogWarning("settings are taken over");
    wxLog::SetTimestamp(wxS("year %Y"));
    std::filesystem::create_directory(m_folder / "agent.log.lock"); // no rotation
    wxLogWarning("%s", std::string(5000, 'x').c_str());
    ASSERT_EQ(Lines().size(), 3u);
    EXPECT_THAT(Lines()[1], MatchesRegex("year .... WARNING .*The log file can't be rotated.*"));
    EXPECT_THAT(Lines()[2], MatchesRegex("year .... WARNING .*xxx"));
}

TEST_F(LogToDisk, CrashHandlerGetsTheFilesDescriptor)
{
    EXPECT_EQ(VexCore::LogFileDescriptor(), -1);
    MakeRoot();
    wxLogWarning("one");
    ASSERT_EQ(::write(VexCore::LogFileDescriptor(), "two\n", 4), 4);
    EXPECT_EQ(LastLine(), "two");
}

// --- the ends of a process

TEST_F(LogToDisk, LineLoggedRightBeforeEndingAtOnceIsThere)
{
    MakeRoot();
    const ChildResult result = RunChild(
        [] {
            wxLogWarning("last words");
            return 0;
        },
        true);
    EXPECT_TRUE(result.Exited(0));
    EXPECT_THAT(Text(), EndsWith("] last words\n"));
}

TEST_F(LogToDisk, EarlyLinesGoToStandardErrorWhenTheProcessEndsWithoutAPlace)
{
    const ChildResult result = RunChild([] {
        wxLogWarning("bad command line");
        return 3;
    });
    EXPECT_TRUE(result.Exited(3));
    EXPECT_THAT(result.standardError, MatchesRegex("....-..-.. ..:..:.. WARNING \\[[0-9]+/main\\] bad command line\n"));
}

TEST_F(LogToDisk, EarlyLinesReachTheFileWhenThePlaceIsKnownAtTheEnd)
{
    const ChildResult result = RunChild([this] {
        wxLogWarning("early");
        MakeRoot();
        m_root.release(); // as a process that calls exit
        return 0;
    });
    EXPECT_EQ(result.standardError, "");
    EXPECT_THAT(Text(), EndsWith("] early\n"));
}

TEST_F(LogToDisk, QueueIsEmptiedWhenTheProcessExits)
{
    MakeRoot();
    const ChildResult result = RunChild([] {
        std::thread([] { wxLogWarning("queued"); }).join();
        return 0;
    });
    EXPECT_TRUE(result.Exited(0));
    EXPECT_THAT(Text(), EndsWith("/thread] queued\n"));
}

TEST_F(LogToDisk, QueueIsEmptiedWhenAnotherThreadExits)
{
    MakeRoot();
    const ChildResult result = RunChild([] {
        std::thread([] {
            wxLogWarning("queued");
            std::exit(5);
        }).join();
        return 0;
    });
    EXPECT_TRUE(result.Exited(5));
    EXPECT_THAT(Text(), EndsWith("/thread] queued\n"));
}

TEST_F(LogToDisk, QueuedLinesAreNotThoseOfTheThreadThatEndsTheProcess)
{
    MakeRoot();
    const ChildResult result = RunChild([] {
        LogFromAStranger("queued");
        ::Test::TestThread thread([](::Test::TestThread&) { std::exit(5); });
        thread.start(50, false, 0);
        thread.join(-1);
        return 0;
    });
    EXPECT_TRUE(result.Exited(5));
    EXPECT_THAT(Text(), EndsWith("/thread] queued\n"));
}

TEST_F(LogToDisk, EarlyLineIsWrittenOnceThoughTheProcessForks)
{
    wxLogWarning("early");
    MakeRoot();
    const ChildResult result = RunChild(
        [] {
            wxLogWarning("child");
            return 0;
        },
        true);
    EXPECT_TRUE(result.Exited(0));
    wxLogWarning("parent");
    const auto lines = Lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_THAT(lines[0], EndsWith("] early"));
    EXPECT_THAT(lines[1], EndsWith("] child"));
    EXPECT_THAT(lines[2], EndsWith("] parent"));
}

TEST_F(LogToDisk, EarlyLineOfAParentIsNotShownByItsChild)
{
    wxLogWarning("early");
    const ChildResult result = RunChild([] { return 0; });
    EXPECT_EQ(result.standardError, "");
}

TEST_F(LogToDisk, SettingsCountInAChildForkedWhileAnotherThreadReadsThem)
{
    const std::string file = m_folder / "agent.ini";
    WriteFile(file, "[settings]\napp.log.count = 1\n");
    MakeRoot();
    m_root->Set("app.path.ini", file);
    std::atomic<bool> reading{false}, written{false};
    ChildResult result;
    {
        const CallWatch watch([&](const VexCore::os::Call& call) {
            if (call.path && std::string_view(call.path) == "agent.ini" && !reading.exchange(true))
                std::this_thread::sleep_for(std::chrono::milliseconds(100)); // the fork comes meanwhile
            return 0;
        });
        // It lives on until the child has ended, which ends at once: the thread sanitizer takes one that had ended, but
        // was not joined when the child was forked, for one that the child forgot, and the leak check takes what a
        // living one has for itself for lost.
        JoiningThread other([&written](const std::atomic<bool>& stop) {
            VexCore::WriteLogLine(VexCore::LogLevel::Warning, "of another thread");
            written = true;
            while (!stop)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
        });
        while (!reading && !written)
            std::this_thread::yield();
        ASSERT_TRUE(reading);
        result = RunChild(
            [this] {
                m_root->SetWx("app.log.size", static_cast<std::int64_t>(4096));
                for (int i = 0; i < 3; ++i)
                    wxLogWarning("%s", std::string(2000, 'x').c_str());
                return 0;
            },
            true);
        other.Stop();
    }
    EXPECT_TRUE(result.Exited(0)) << result.standardError;
    EXPECT_EQ(::access((m_folder / "agent.log.1").c_str(), F_OK), 0);
}

// --- standard error

namespace {
// Runs `body` in a child whose standard error is a terminal and answers what appears on it.
std::string OnTerminal(const std::function<void()>& body)
{
    const int master = ::posix_openpt(O_RDWR | O_NOCTTY);
    if (master < 0 || ::grantpt(master) != 0 || ::unlockpt(master) != 0)
        return "no terminal to be had";
    const int slave = ::open(::ptsname(master), O_RDWR | O_NOCTTY);
    const pid_t child = Fork(
        [&] {
            ::dup2(slave, 2);
            ::close(master);
            ::close(slave);
            body();
            return 0;
        },
        true);
    ::close(slave);
    std::string text;
    char buffer[1024];
    for (ssize_t count; (count = ::read(master, buffer, sizeof buffer)) > 0;)
        text.append(buffer, static_cast<std::size_t>(count));
    ::close(master);
    WaitFor(child);
    return text;
}

} // namespace

TEST_F(LogToDisk, WarningsAndErrorsAreShownOnATerminal)
{
    MakeRoot();
    const std::string shown = OnTerminal([] {
        wxLogMessage("message");
        wxLogWarning("warning\nof two lines");
        wxLogError("error");
        VexCore::WriteLogLine(VexCore::LogLevel::Debug, "debug");
    });
    EXPECT_EQ(shown, "WARNING warning\r\n    of two lines\r\nERROR error\r\n");
    EXPECT_EQ(Lines().size(), 5u);
}

TEST_F(LogToDisk, NothingIsShownWhereStandardErrorIsNoTerminal)
{
    MakeRoot();
    const ChildResult result = RunChild([] {
        wxLogError("error");
        return 0;
    });
    EXPECT_EQ(result.standardError, "");
    EXPECT_THAT(Text(), EndsWith("] error\n"));
}

TEST_F(LogToDisk, NarrowOutputStillWorksAfterLinesWereShown)
{
    const ChildResult result = RunChild([] {
        wxLogError("held, and shown at the end");
        std::fputs("narrow\n", stderr);
        return 0;
    });
    EXPECT_THAT(result.standardError, MatchesRegex("narrow\n.*held, and shown at the end\n"));
}

TEST_F(LogToDisk, ManyThreadsLogWithoutLosingALine)
{
    MakeRoot();
    m_root->SetWx("app.log.size", static_cast<std::int64_t>(20000));
    m_root->SetWx("app.log.count", static_cast<std::int64_t>(1000));
    std::vector<::Test::JoiningThread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([] {
            CLog2Disk own;
            wxLog* const before = wxLog::SetThreadActiveTarget(&own);
            for (int n = 0; n < 500; ++n) {
                wxLogWarning("line");
                VexCore::WriteLogLine(VexCore::LogLevel::Trace, "line");
            }
            wxLog::SetThreadActiveTarget(before);
        });
    for (::Test::JoiningThread& thread : threads)
        thread.join();
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(m_folder.Path()))
        count += LinesOf(ReadFile(entry.path().string())).size();
    EXPECT_EQ(count, 4000u);
}
