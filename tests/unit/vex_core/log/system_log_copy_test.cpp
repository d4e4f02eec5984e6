#include "vex_core/log/system_log_copy.h"

#include "support/call_watch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string_view>
#include <vector>

#include <syslog.h>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;
using VexCore::CopiedText;
using VexCore::LogLevel;
using VexCore::maxCopiedBytes;
using VexCore::SystemLogCopy;
namespace os = VexCore::os;
using namespace std::string_view_literals;

namespace {
std::time_t g_now = 0;

class SystemLogOfTheCopy : public testing::Test
{
protected:
    SystemLogOfTheCopy()
    {
        g_now = 1'000'000;
        m_copy.SetSettings({LOG_LOCAL3, LogLevel::Trace});
    }

    // As the log does whose file has all.
    bool Send(LogLevel level = LogLevel::Info)
    {
        const bool isTaken = m_copy.Send(level, 0, "text");
        if (!isTaken)
            m_copy.CountLeftOut();
        return isTaken;
    }
    // What is told, as the log has it then.
    std::string Told()
    {
        const std::string notice = m_copy.Notice();
        if (!notice.empty())
            m_copy.NoticeIsTold();
        return notice;
    }

    SystemLogCopy m_copy{[] { return g_now; }};
    std::vector<std::string> m_sent;
    int m_answer = os::callAnswered; // an error where no logger takes the record
    int m_tries = 0;

private:
    ::Test::CallWatch m_watch{[this](const os::Call& call) {
        if (call.name != "syslog"sv)
            return 0;
        ++m_tries;
        if (m_answer == os::callAnswered)
            m_sent.push_back(std::to_string(call.descriptor) + ' ' + call.path);
        return m_answer;
    }};
};

} // namespace

TEST_F(SystemLogOfTheCopy, SeverityIsThatOfTheLevel)
{
    for (const LogLevel level : {LogLevel::Fatal, LogLevel::Error, LogLevel::Warning, LogLevel::Message, LogLevel::Info,
                                 LogLevel::Debug, LogLevel::Trace})
        EXPECT_TRUE(m_copy.Send(level, 0, VexCore::LogLevelWord(level)));
    EXPECT_THAT(m_sent, ElementsAre("154 FATAL", "155 ERROR", "156 WARNING", "157 MESSAGE", "158 INFO", "159 DEBUG",
                                    "159 TRACE"));
    EXPECT_EQ(Told(), "");
}

TEST_F(SystemLogOfTheCopy, OffAndBelowTheLevelNothingIsWanted)
{
    EXPECT_TRUE(m_copy.Wants(LogLevel::Trace));
    m_copy.SetSettings({LOG_USER, LogLevel::Warning});
    EXPECT_TRUE(m_copy.Wants(LogLevel::Fatal));
    EXPECT_TRUE(m_copy.Wants(LogLevel::Warning));
    EXPECT_FALSE(m_copy.Wants(LogLevel::Message));
    EXPECT_EQ(m_copy.Facility(), LOG_USER);
    m_copy.SetSettings({});
    EXPECT_FALSE(m_copy.Wants(LogLevel::Fatal));
    EXPECT_EQ(m_copy.Facility(), -1);
}

TEST_F(SystemLogOfTheCopy, ALongTextIsCutBetweenTwoCharacters)
{
    const std::string most(maxCopiedBytes, 'a');
    EXPECT_EQ(CopiedText(most), most);
    EXPECT_EQ(CopiedText(most + "b"), most + " ... (cut, 7169 bytes in all)");
    const std::string start(maxCopiedBytes - 1, 'a');
    EXPECT_EQ(CopiedText(start + "\xC3\xBC"), start + " ... (cut, 7169 bytes in all)");
    EXPECT_EQ(CopiedText(start.substr(1) + "\xC3\xBC" + "b"),
              start.substr(1) + "\xC3\xBC ... (cut, 7169 bytes in all)");
    EXPECT_EQ(CopiedText(std::string(2 * maxCopiedBytes, '\x80')).size(),
              maxCopiedBytes - 4 + " ... (cut, 14336 bytes in all)"sv.size())
        << "what is no character is cut anywhere";
}

TEST_F(SystemLogOfTheCopy, ALoggerThatIsNotThereIsToldOnceLookedForOnceASecondAndCounted)
{
    m_answer = ENOENT;
    EXPECT_FALSE(Send());
    EXPECT_EQ(Told(), "The system log takes no lines (error 2: No such file or directory), they are in this file alone "
                      "until it does");
    for (int i = 0; i < 10; ++i)
        EXPECT_FALSE(Send());
    EXPECT_EQ(m_tries, 1);
    ++g_now;
    EXPECT_FALSE(Send());
    EXPECT_FALSE(Send());
    EXPECT_EQ(m_tries, 2);
    EXPECT_EQ(Told(), "");
    m_answer = os::callAnswered;
    ++g_now;
    EXPECT_TRUE(Send());
    EXPECT_EQ(Told(), "The system log takes lines again, 14 are in this file alone") << "13 lines and the notice";
    EXPECT_TRUE(Send());
    EXPECT_EQ(Told(), "");
}

TEST_F(SystemLogOfTheCopy, ANoticeThatWouldNotHaveGoneThereIsNotCounted)
{
    m_copy.SetSettings({LOG_USER, LogLevel::Error});
    m_answer = ENOENT;
    EXPECT_FALSE(Send(LogLevel::Error));
    EXPECT_NE(Told(), "");
    EXPECT_THAT(m_copy.TakeLastNotice(), HasSubstr(" 1 lines"));
}

TEST_F(SystemLogOfTheCopy, AGapGoesToTheSystemsLogTooAndTroubleDoesNot)
{
    m_answer = ENOENT;
    Send();
    EXPECT_FALSE(m_copy.NoticeIsTold());
    ++g_now;
    m_answer = os::callAnswered;
    Send();
    EXPECT_TRUE(m_copy.NoticeIsTold());
}

TEST_F(SystemLogOfTheCopy, ALoggerThatTakesSomeIsAWordAMinute)
{
    const auto miss = [this] {
        ++g_now;
        m_answer = EAGAIN;
        Send();
        const std::string told = Told();
        m_answer = os::callAnswered;
        ++g_now;
        Send();
        return told + '|' + Told();
    };
    EXPECT_THAT(miss(), HasSubstr("takes no lines (error 11"));
    for (int i = 0; i < 25; ++i)
        EXPECT_EQ(miss(), "|");
    g_now += 60;
    Send();
    EXPECT_EQ(Told(), "The system log takes lines again, 25 are in this file alone");
    g_now -= 1'000'000; // a clock that was set back
    EXPECT_THAT(miss(), StartsWith("The system log takes no lines"));
}

TEST_F(SystemLogOfTheCopy, WhatIsLeftOutAtTheEndIsToldThenAndOnce)
{
    EXPECT_EQ(m_copy.TakeLastNotice(), "");
    m_answer = ECONNREFUSED;
    Send();
    Send();
    EXPECT_EQ(m_copy.TakeLastNotice(), "The system log has not taken 2 lines, they are in this file alone");
    EXPECT_EQ(m_copy.TakeLastNotice(), "");
}

TEST_F(SystemLogOfTheCopy, AChildCountsFromNone)
{
    m_answer = ENOENT;
    Send();
    EXPECT_NE(Told(), "");
    m_copy.Forget();
    EXPECT_EQ(m_copy.TakeLastNotice(), "");
    Send();
    EXPECT_EQ(m_tries, 2) << "a second counts from its own tries";
    EXPECT_NE(Told(), "") << "and tells for itself";
}
