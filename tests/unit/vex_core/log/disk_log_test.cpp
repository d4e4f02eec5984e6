#include "vex_core/log/disk_log.h"

#include "support/call_watch.h"
#include "support/child.h"
#include "support/joining_thread.h"
#include "support/other_user.h"
#include "support/process_guards.h"
#include "support/temp_folder.h"
#include "vex_core/os/file_lock.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <functional>
#include <set>
#include <sstream>
#include <string_view>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using Test::CallWatch;
using Test::Fork;
using Test::LinesOf;
using Test::ReadFile;
using Test::TempFolder;
using Test::WaitFor;
using Test::WriteFile;
using testing::HasSubstr;
using testing::StartsWith;
using VexCore::DiskLog;
using VexCore::LogLevel;
namespace os = VexCore::os;
using namespace std::string_view_literals;

namespace {
constexpr std::size_t muchMemory = 1 << 20;

using Lines = std::vector<std::string>;

bool Exists(const std::string& path)
{
    struct stat status = {};
    return ::lstat(path.c_str(), &status) == 0;
}

// Stands for standard error.
class ErrorFile
{
public:
    ErrorFile() : m_path(m_folder / "stderr"), m_descriptor(::open(m_path.c_str(), O_RDWR | O_CREAT | O_APPEND, 0600))
    {}
    ~ErrorFile() { ::close(m_descriptor); }
    int Descriptor() const { return m_descriptor; }
    std::string Text() const { return ReadFile(m_path); }

private:
    TempFolder m_folder;
    std::string m_path;
    int m_descriptor;
};

// Lets calls fail while it lives. The rules see each call of a kind and answer an errno or 0.
class Faults
{
public:
    // Done before each call, whatever becomes of it.
    std::function<void(const os::Call&)> look;

    // 0: nothing fails.
    void FailAll(const char* call, int error)
    {
        m_call = call;
        m_error = error;
    }
    // The n-th call of any kind from here on fails, n from 1.
    void FailOnly(int n, int error)
    {
        m_countdown = n;
        m_countdownError = error;
    }
    bool CountdownIsOver() const { return m_countdown <= 0; }
    void WriteShortOnce(std::size_t bytes) { m_shortWrite = bytes; }
    int Writes() const { return m_writes; }

private:
    int Answer(const os::Call& call)
    {
        const std::string name = call.name;
        if (look)
            look(call);
        if (name == "write")
            ++m_writes;
        if (m_countdown > 0 && --m_countdown == 0)
            return m_countdownError;
        if (name == m_call)
            return m_error;
        if (name == "write")
            *call.size = std::min(*call.size, std::exchange(m_shortWrite, static_cast<std::size_t>(-1)));
        return 0;
    }

    std::string m_call;
    int m_error = 0;
    int m_countdown = -1;
    int m_countdownError = 0;
    std::size_t m_shortWrite = static_cast<std::size_t>(-1);
    int m_writes = 0;
    Test::CallWatch m_watch{[this](const os::Call& call) { return Answer(call); }};
};

// Logs "one" and then "12345", of which the disk, full from there on, takes "12" only.
void CutASecondRecord(DiskLog& log, Faults& faults, const std::string& path)
{
    log.SetFile(path);
    log.Write("one\n", false);
    faults.WriteShortOnce(2);
    faults.FailOnly(3, ENOSPC); // stat, the short write, its rest
    log.Write("12345\n", false);
    ASSERT_EQ(ReadFile(path), "one\n12");
}

// The process's zone of time while it lives.
class ZoneOfTime
{
public:
    explicit ZoneOfTime(const char* zone) : m_variable("TZ", zone) { ::tzset(); }
    ZoneOfTime(const ZoneOfTime&) = delete;
    ZoneOfTime& operator=(const ZoneOfTime&) = delete;

private:
    // Read by whoever formats a time, so that the old value counts at once, too.
    struct Reader
    {
        ~Reader() { ::tzset(); }
    };
    Reader m_reader; // goes last, behind the variable
    ::Test::Variable m_variable;
};

DiskLog::Settings Small(std::int64_t maxBytes, int keep)
{
    DiskLog::Settings settings;
    settings.maxBytes = maxBytes;
    settings.keep = keep;
    return settings;
}

} // namespace

// --- records

TEST(LogRecord, HasTimeLevelProcessThreadAndText)
{
    const ZoneOfTime zone("UTC");
    EXPECT_EQ(VexCore::FormatLogRecord(1769854830, "%Y-%m-%d %H:%M:%S", LogLevel::Warning, 4242, "CScriptThread",
                                       "lib/x.zip: no matches"),
              "2026-01-31 10:20:30 WARNING [4242/CScriptThread] lib/x.zip: no matches\n");
}

namespace {
std::string TimeOf(std::time_t time, const char* format = DiskLog::standardTimeFormat)
{
    const std::string record = VexCore::FormatLogRecord(time, format, LogLevel::Info, 2, "a", "text");
    return record.substr(0, record.find(" INFO [2/a] text\n"));
}

} // namespace

TEST(LogRecord, TimeIsWhatStrftimeMakesOfIt)
{
    const ZoneOfTime zone("Europe/Berlin");
    // With the first and last years of four digits, and some of fewer and of more.
    for (const std::time_t time : {-62135596800L, -30641760000L, -30610224000L, -1L, 0L, 951782399L, 1774745999L,
                                   1774746000L, 253402297199L, 253402300800L, 300000000000L})
        for (const char* const format : {DiskLog::standardTimeFormat, "%d.%m.%y %T", "%Y-%m-%d %H:%M:%S%z", ""}) {
            struct tm local = {};
            ::localtime_r(&time, &local);
            char expected[128] = "";
            (void)std::strftime(expected, sizeof expected, format, &local);
            EXPECT_EQ(TimeOf(time, format), expected) << time << format;
            EXPECT_EQ(TimeOf(time, format), expected) << "again";
        }
}

TEST(LogRecord, AnotherTimeZoneCountsAtOnce)
{
    const ZoneOfTime zone("UTC");
    EXPECT_EQ(TimeOf(1769854830), "2026-01-31 10:20:30");
    {
        const ZoneOfTime east("EEE-3");
        EXPECT_EQ(TimeOf(1769854830), "2026-01-31 13:20:30");
        const ZoneOfTime summer("EEE-3FFF,J1,J365");
        EXPECT_EQ(TimeOf(1769854830), "2026-01-31 14:20:30");
    }
    EXPECT_EQ(TimeOf(1769854830), "2026-01-31 10:20:30");
}

TEST(LogRecord, AThreadsNameStartsNoLineOfItsOwn)
{
    // A worker is named after its module, and that is any text of a script.
    EXPECT_THAT(VexCore::FormatLogRecord(0, "%Y", LogLevel::Info, 2, "worker a\n2026 \x1b", "text"),
                ::testing::HasSubstr(" INFO [2/worker a\n    2026 \\x1B] text\n"));
}

TEST(LogRecord, LevelsHaveTheirWords)
{
    const char* const words[] = {"FATAL", "ERROR", "WARNING", "MESSAGE", "INFO", "DEBUG", "TRACE"};
    for (int level = 0; level < 7; ++level)
        EXPECT_STREQ(VexCore::LogLevelWord(LogLevel(level)), words[level]);
}

TEST(LogText, LineBreaksAreIndentedAndControlCharactersShown)
{
    const struct
    {
        std::string in;
        std::string out;
    } rows[] = {
        {"", ""},
        {"plain", "plain"},
        {"a\nb", "a\n    b"},
        {"a\r\nb\rc", "a\n    b\n    c"},
        {"a\n\nb", "a\n    \n    b"},
        {"end\n", "end"},
        {"end\r\n\n", "end"},
        {"\n", ""},
        {"\nlead", "\n    lead"},
        {"tab\tstays", "tab\tstays"},
        {std::string("a\0b", 3), "a\\x00b"},
        {"\x1b[31mred\x7f", "\\x1B[31mred\\x7F"},
        {"\xC3\xA4", "\xC3\xA4"},
        {"\xC2\x80 \xC2\x9F \xC2\xA0", "\\xC2\\x80 \\xC2\\x9F \xC2\xA0"},
        {"\xE2\x80\xA7\xE2\x80\xA8\xE2\x80\xA9\xE2\x80\xAA", "\xE2\x80\xA7\\xE2\\x80\\xA8\\xE2\\x80\\xA9\xE2\x80\xAA"},
        {"\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80"},
        {"caf\xE9 \x9B"
         "31m",
         "caf\xE9 \\x9B"
         "31m"}, // bytes that are not UTF-8
    };
    for (const auto& row : rows)
        EXPECT_EQ(VexCore::LogText(row.in), row.out) << row.in;
}

TEST(LogText, AByteThatIsShownIsFoundAnywhere)
{
    const std::string plain = "the first twenty-five ones";
    const struct
    {
        char byte;
        const char* shown;
    } rows[] = {{'\x1f', "\\x1F"}, {'\x7f', "\\x7F"}, {'\x80', "\\x80"}, {'\x01', "\\x01"}, {'\n', "\n    "}};
    for (std::size_t place = 0; place < plain.size(); ++place)
        for (const auto& row : rows) {
            std::string text = plain;
            text[place] = row.byte;
            EXPECT_EQ(VexCore::LogText(text + "."), plain.substr(0, place) + row.shown + plain.substr(place + 1) + ".")
                << place;
        }
}

TEST(LogText, LongTextIsCutWithANoteAndNeverInsideACharacter)
{
    const std::string whole(64 * 1024, 'x');
    EXPECT_EQ(VexCore::LogText(whole), whole);
    EXPECT_EQ(VexCore::LogText(whole + "\n"), whole);
    EXPECT_EQ(VexCore::LogText(whole + "y"), whole + " ... (cut, 65537 bytes in all)");
    const std::string nearly = whole.substr(1);
    EXPECT_EQ(VexCore::LogText(nearly + "\xC3\xA4"), nearly + " ... (cut, 65537 bytes in all)");
    EXPECT_EQ(VexCore::LogText(nearly + "\x1B"), nearly + " ... (cut, 65536 bytes in all)");
    EXPECT_EQ(VexCore::LogText("\xC3\xA4" + whole), "\xC3\xA4" + whole.substr(2) + " ... (cut, 65538 bytes in all)");
    EXPECT_EQ(VexCore::LogText(std::string(16384, '\1')).size(), 65536u);
    EXPECT_THAT(VexCore::LogText(std::string(16385, '\1')), testing::EndsWith("\\x01 ... (cut, 16385 bytes in all)"));
    EXPECT_EQ(VexCore::LogText(whole + whole, std::string::npos), whole + whole);
}

// --- writing

TEST(DiskLog, RecordIsInTheFileWhenTheCallReturnsAndTookOneWrite)
{
    const TempFolder folder;
    Faults calls;
    DiskLog log(muchMemory);
    log.SetFile(folder / "x.log");
    log.Write("one\n", false);
    EXPECT_EQ(ReadFile(folder / "x.log"), "one\n");
    EXPECT_EQ(calls.Writes(), 1);
    log.Write("two\n", false);
    EXPECT_EQ(ReadFile(folder / "x.log"), "one\ntwo\n");
    EXPECT_EQ(calls.Writes(), 2);
}

TEST(DiskLog, FileIsTheOwnersAlone)
{
    const TempFolder folder;
    const ::Test::FileModeMask open(0);
    DiskLog log(muchMemory);
    log.SetFile(folder / "x.log");
    log.Write("one\n", false);
    struct stat status = {};
    ASSERT_EQ(::stat((folder / "x.log").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, mode_t(S_IFREG | 0600));
}

TEST(DiskLog, FileThatIsThereForEverybodyBecomesTheOwnersAlone)
{
    const TempFolder folder;
    const std::string path = folder / "x.log";
    const std::string files[] = {path, path + ".1", path + ".3"};
    for (const std::string& file : files) {
        WriteFile(file, "before\n");
        ASSERT_EQ(::chmod(file.c_str(), 0644), 0);
    }
    DiskLog log(muchMemory);
    log.SetFile(path);
    log.Write("one\n", false);
    for (const std::string& file : files) {
        struct stat status = {};
        ASSERT_EQ(::stat(file.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode, mode_t(S_IFREG | 0600)) << file;
    }
    EXPECT_EQ(ReadFile(path), "before\none\n");
}

TEST(DiskLog, DescriptorIsKeptFromProgramsAndKeepsItsNumber)
{
    const TempFolder folder;
    DiskLog log(muchMemory);
    EXPECT_EQ(log.Descriptor(), -1);
    log.SetFile(folder / "x.log");
    log.SetSettings(Small(10, 2));
    log.Write("one one one\n", false);
    const int descriptor = log.Descriptor();
    ASSERT_GE(descriptor, 0);
    log.Write("two two two\n", false);
    EXPECT_EQ(ReadFile(folder / "x.log"), "two two two\n");
    EXPECT_EQ(log.Descriptor(), descriptor);
    EXPECT_EQ(::fcntl(descriptor, F_GETFD), FD_CLOEXEC);
}

TEST(DiskLog, SeveralLogsAppendToOneFile)
{
    const TempFolder folder;
    DiskLog a(muchMemory);
    DiskLog b(muchMemory);
    a.SetFile(folder / "x.log");
    b.SetFile(folder / "x.log");
    a.Write("a1\n", false);
    b.Write("b1\n", false);
    a.Write("a2\n", false);
    EXPECT_EQ(ReadFile(folder / "x.log"), "a1\nb1\na2\n");
}

TEST(DiskLog, RecordsAreHeldUntilThePlaceIsKnown)
{
    const TempFolder folder;
    const ErrorFile error;
    DiskLog log(muchMemory, error.Descriptor());
    log.Write("early 1\n", false);
    log.Write("early 2\n", false);
    log.Flush();
    EXPECT_FALSE(log.HasFile());
    log.SetFile(folder / "x.log");
    log.SetFile(folder / "other.log");
    log.Write("late\n", false);
    EXPECT_EQ(ReadFile(folder / "x.log"), "early 1\nearly 2\nlate\n");
    EXPECT_FALSE(Exists(folder / "other.log")) << "the place is settled once";
    EXPECT_EQ(error.Text(), "");
}

TEST(DiskLog, FlushWritesWhatIsHeld)
{
    const TempFolder folder;
    DiskLog log(muchMemory);
    log.Write("early\n", false);
    log.SetFile(folder / "x.log");
    log.Flush();
    EXPECT_EQ(ReadFile(folder / "x.log"), "early\n");
}

TEST(DiskLog, RecordsWithoutAPlaceGoToStandardErrorAtTheEnd)
{
    const ErrorFile error;
    DiskLog log(muchMemory, error.Descriptor());
    log.Write("early\n", false);
    log.Write("shown on the terminal\n", true);
    log.FlushAtEnd();
    log.FlushAtEnd();
    EXPECT_EQ(error.Text(), "early\n");
}

// --- trouble

TEST(DiskLog, WhereStandardErrorIsTheNullDeviceAllThatGoesThereGoesToTheSystemLog)
{
    TempFolder folder;
    Lines sent;
    const CallWatch watch([&](const os::Call& call) {
        if (call.name != "syslog"sv)
            return 0;
        sent.push_back(std::to_string(call.descriptor) + " " + call.path);
        return os::callAnswered; // the machine's own log is spared
    });
    const os::Descriptor null(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    DiskLog log(10, null.Get());
    log.SetFile(folder / "missing/x.log");
    log.Write("shown\n", true);
    log.Write("F\n", false, LogLevel::Fatal);
    log.Write("E\n", false, LogLevel::Error);
    log.Write("too much for the memory\n", false, LogLevel::Warning);
    log.FlushAtEnd();
    EXPECT_THAT(sent,
                testing::ElementsAre(StartsWith("27 Can't write the log file " + folder / "missing/x.log (error 2: "),
                                     "28 too much for the memory", "26 F", "27 E"));
    sent.clear();
    DiskLog other(10, null.Get());
    other.Write("M\n", false, LogLevel::Message);
    other.Write("I\n", false, LogLevel::Info);
    other.Write("D\n", false, LogLevel::Debug);
    other.Write("T\n", false, LogLevel::Trace);
    other.Write("I\n", false, LogLevel::Info);
    other.FlushAtEnd();
    EXPECT_THAT(sent, testing::ElementsAre("29 M", "30 I", "31 D", "31 T", "30 I"));
}

TEST(DiskLog, LinesThatWentNowhereAreCountedAndToldAsSoonAsThatWorks)
{
    const TempFolder folder;
    int answer = os::callAnswered;
    const CallWatch watch([&](const os::Call& call) { return call.name == "syslog"sv ? answer : 0; });
    const os::Descriptor null(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    DiskLog log(5, null.Get());
    log.SetFile(folder / "missing/x.log");
    log.Write("kept\n", false);
    log.Write("into the system log\n", false);
    answer = ENOENT;
    log.Write("nowhere\n", false);
    log.Write("nowhere\n", false);
    log.Write("on the terminal\n", true);
    ASSERT_EQ(::mkdir((folder / "missing").c_str(), 0700), 0);
    log.Flush();
    const std::vector<std::string> lines = LinesOf(ReadFile(folder / "missing/x.log"));
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], "kept");
    EXPECT_THAT(lines[1],
                HasSubstr("/log] 2 lines could not be written here and went to standard error or the system log"));
    EXPECT_THAT(lines[2],
                HasSubstr("/log] 2 lines could be written nowhere, neither here nor to the system log, and are lost"));
    log.Write("later\n", false);
    EXPECT_THAT(LinesOf(ReadFile(folder / "missing/x.log")).size(), 4u) << "told once";
}

// --- the copy in the system's log

namespace {
// A log whose copy goes to a logger of this test's own.
class CopiedLog : public testing::Test
{
protected:
    CopiedLog() { m_log.SetSettings(On(LogLevel::Info)); }

    static DiskLog::Settings On(LogLevel level)
    {
        DiskLog::Settings settings;
        settings.copy = {8, level};
        return settings;
    }
    // As the framework's records are.
    void Write(LogLevel level, const std::string& text, std::time_t time = 1769854830)
    {
        m_log.Write(VexCore::FormatLogRecord(time, DiskLog::standardTimeFormat, level, 7, "a", text), false, level,
                    DiskLog::standardTimeFormat, time);
    }
    std::string File() const { return ReadFile(m_folder / "x.log"); }

    TempFolder m_folder;
    Lines m_sent;
    std::string m_fileThen; // when the last record was sent
    int m_answer = os::callAnswered;
    bool m_isFull = false; // the disk of the file
    ErrorFile m_error;
    DiskLog m_log{muchMemory, m_error.Descriptor()};

private:
    CallWatch m_watch{[this](const os::Call& call) {
        if (m_isFull && call.name == "write"sv && call.descriptor == m_log.Descriptor())
            return ENOSPC;
        if (call.name != "syslog"sv)
            return 0;
        m_fileThen = Exists(m_folder / "x.log") ? File() : "";
        if (m_answer == os::callAnswered)
            m_sent.push_back(std::to_string(call.descriptor) + ' ' + call.path);
        return m_answer;
    }};
};

} // namespace

TEST_F(CopiedLog, HasEachRecordWithoutItsTimeAfterTheFile)
{
    m_log.SetFile(m_folder / "x.log");
    Write(LogLevel::Warning, "one INFO [7/b] two\nthree\n");
    EXPECT_THAT(m_sent, testing::ElementsAre("12 WARNING [7/a] one INFO [7/b] two\n    three"));
    EXPECT_THAT(m_fileThen, testing::EndsWith(" WARNING [7/a] one INFO [7/b] two\n    three\n"));
    Write(LogLevel::Debug, "below the level");
    EXPECT_EQ(m_sent.size(), 1u);
    m_log.SetSettings({});
    Write(LogLevel::Fatal, "off");
    EXPECT_EQ(m_sent.size(), 1u);
    EXPECT_EQ(m_log.CopyFacility(), -1);
}

TEST_F(CopiedLog, HasARecordOnceThoughTheDiskWasFull)
{
    Write(LogLevel::Info, "early");
    m_log.SetFile(m_folder / "missing/x.log");
    Write(LogLevel::Info, "full");
    EXPECT_THAT(m_sent, testing::ElementsAre("14 INFO [7/a] full")) << "the settings may follow the early line";
    ASSERT_EQ(::mkdir((m_folder / "missing").c_str(), 0700), 0);
    m_log.Flush();
    EXPECT_THAT(m_sent, testing::ElementsAre("14 INFO [7/a] full", "14 INFO [7/a] early"));
    EXPECT_EQ(LinesOf(ReadFile(m_folder / "missing/x.log")).size(), 2u);
}

TEST_F(CopiedLog, IsThereForWhatTheLastResortWouldHaveTaken)
{
    const os::Descriptor null(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    DiskLog log(5, null.Get());
    log.SetSettings(On(LogLevel::Info));
    log.SetFile(m_folder / "missing/x.log");
    log.Write("no room for this\n", false, LogLevel::Info);
    EXPECT_THAT(m_sent, testing::ElementsAre(StartsWith("27 Can't write the log file"), "14 no room for this"));
}

TEST_F(CopiedLog, ThatIsLeftOutIsToldInTheFile)
{
    m_log.SetFile(m_folder / "x.log");
    m_answer = ENOENT;
    Write(LogLevel::Info, "one");
    Write(LogLevel::Info, "two");
    std::vector<std::string> lines = LinesOf(File());
    ASSERT_EQ(lines.size(), 3u) << "told once";
    EXPECT_THAT(lines[1], HasSubstr("/log] The system log takes no lines (error 2: "));
    m_log.FlushAtEnd();
    m_log.FlushAtEnd();
    lines = LinesOf(File());
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_THAT(lines[3], HasSubstr("/log] The system log has not taken 3 lines, they are in this file alone"));
    EXPECT_THAT(m_sent, testing::ElementsAre()) << "and nowhere else";
}

TEST_F(CopiedLog, WhatNobodyHasTakenIsNotInTheFileAlone)
{
    const os::Descriptor null(::open("/dev/null", O_WRONLY | O_CLOEXEC));
    m_answer = ENOENT;
    DiskLog log(5, null.Get());
    log.SetSettings(On(LogLevel::Info));
    log.SetFile(m_folder / "missing/x.log");
    log.Write("no room for this\n", false, LogLevel::Info);
    ASSERT_EQ(::mkdir((m_folder / "missing").c_str(), 0700), 0);
    log.FlushAtEnd();
    const std::vector<std::string> lines = LinesOf(ReadFile(m_folder / "missing/x.log"));
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_THAT(lines[0], HasSubstr("/log] 1 lines could be written nowhere"));
    EXPECT_THAT(lines[1], HasSubstr("/log] The system log takes no lines (error 2: "));
    EXPECT_THAT(lines[2], HasSubstr("/log] The system log has not taken 2 lines")) << "those two";
}

TEST_F(CopiedLog, WhatTheFileGetsLaterIsCountedThen)
{
    m_answer = ENOENT;
    m_log.SetFile(m_folder / "missing/x.log");
    Write(LogLevel::Info, "held");
    ASSERT_EQ(::mkdir((m_folder / "missing").c_str(), 0700), 0);
    m_log.FlushAtEnd();
    const std::vector<std::string> lines = LinesOf(ReadFile(m_folder / "missing/x.log"));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_THAT(lines[1], HasSubstr("/log] The system log has not taken 1 lines"));
}

TEST_F(CopiedLog, WhatItHasLeftOutIsToldElsewhereWhereTheDiskIsFullAtTheEnd)
{
    m_log.SetFile(m_folder / "x.log");
    m_answer = ENOENT;
    Write(LogLevel::Info, "one");
    m_isFull = true;
    m_log.FlushAtEnd();
    EXPECT_THAT(m_error.Text(), HasSubstr("/log] The system log has not taken 2 lines"));
    m_isFull = false;
    EXPECT_EQ(LinesOf(File()).size(), 2u);
}

TEST_F(CopiedLog, TellsOfItsGapInBoth)
{
    m_log.SetFile(m_folder / "x.log");
    m_answer = EAGAIN;
    Write(LogLevel::Info, "one");
    const std::time_t failed = std::time(nullptr);
    while (std::time(nullptr) == failed) // a logger that was not there is looked for once a second
        ::usleep(10000);
    m_answer = os::callAnswered;
    Write(LogLevel::Info, "two");
    ASSERT_EQ(m_sent.size(), 2u);
    EXPECT_EQ(m_sent[0], "14 INFO [7/a] two");
    EXPECT_THAT(m_sent[1], testing::EndsWith("/log] The system log takes lines again, 2 are in this file alone"));
    EXPECT_THAT(LinesOf(File()).back(), testing::EndsWith(m_sent[1].substr(3)));
}

TEST_F(CopiedLog, ThatIsSwitchedOffTellsWhatItHasLeftOut)
{
    m_log.SetFile(m_folder / "x.log");
    m_answer = ENOENT;
    Write(LogLevel::Info, "one");
    m_log.SetSettings({});
    EXPECT_THAT(LinesOf(File()).back(), HasSubstr("The system log has not taken 2 lines"));
}

TEST(DiskLog, NameOfTheFileReachesStandardErrorWithoutItsControlCharacters)
{
    const TempFolder folder;
    const ErrorFile error;
    DiskLog log(muchMemory, error.Descriptor());
    log.SetFile(folder / "missing\x1B[31m/x.log");
    log.Write("one\n", false);
    EXPECT_THAT(error.Text(), StartsWith("Can't write the log file " + folder / "missing\\x1B[31m/x.log (error 2: "));
}

TEST(DiskLog, FileThatCannotBeOpenedIsSaidOnceAndTriedAgain)
{
    const TempFolder folder;
    const ErrorFile error;
    DiskLog log(muchMemory, error.Descriptor());
    log.SetFile(folder / "missing/x.log");
    log.Write("one\n", false);
    log.Write("two\n", false);
    EXPECT_EQ("Can't write the log file " + (folder / "missing/x.log")
                  + " (error 2: No such file or directory), lines are kept in memory and tried again\n",
              error.Text());
    ASSERT_EQ(::mkdir((folder / "missing").c_str(), 0700), 0);
    log.Write("three\n", false);
    EXPECT_EQ(ReadFile(folder / "missing/x.log"), "one\ntwo\nthree\n");
    EXPECT_EQ(LinesOf(error.Text()).size(), 1u);
}

TEST(DiskLog, LaterTroubleIsSaidAgain)
{
    const TempFolder folder;
    const ErrorFile error;
    Faults faults;
    DiskLog log(muchMemory, error.Descriptor());
    log.SetFile(folder / "x.log");
    for (int round = 0; round < 2; ++round) {
        faults.FailAll("write", ENOSPC);
        log.Write("kept\n", false);
        log.Write("kept\n", false);
        faults.FailAll("write", 0);
        log.Write("then\n", false);
    }
    EXPECT_EQ(LinesOf(error.Text()).size(), 2u);
    EXPECT_EQ(ReadFile(folder / "x.log"), "kept\nkept\nthen\nkept\nkept\nthen\n");
}

TEST(DiskLog, FileThatSomebodyElseHadAHandInIsNotWrittenAndSaidOnce)
{
    TempFolder folder;
    ErrorFile errors;
    WriteFile(folder / "victim", "as it was\n");
    ASSERT_EQ(::link((folder / "victim").c_str(), (folder / "x.log").c_str()), 0);
    {
        DiskLog log(muchMemory, errors.Descriptor());
        log.SetFile(folder / "x.log");
        log.Write("one\n", false);
        log.Write("two\n", false);
        log.FlushAtEnd();
    }
    EXPECT_EQ(ReadFile(folder / "victim"), "as it was\n");
    EXPECT_EQ(errors.Text(),
              "Can't write the log file " + folder / "x.log ('"
                  + folder
                        / "x.log' is not used, because it has 2 "
                          "names (hard links): put a copy in its place, or remove it), lines are kept in memory and "
                          "tried again\none\ntwo\n");
}

TEST(DiskLog, RotationLockThatSomebodyElseHadAHandInIsNotTouched)
{
    TempFolder folder;
    WriteFile(folder / "victim", "");
    ASSERT_EQ(::link((folder / "victim").c_str(), (folder / "x.log.lock").c_str()), 0);
    DiskLog log(muchMemory);
    log.SetFile(folder / "x.log");
    log.SetSettings(Small(4, 2));
    log.Write("one\n", false);
    log.Write("two\n", false);
    EXPECT_THAT(
        LinesOf(ReadFile(folder / "x.log")),
        testing::ElementsAre("one",
                             HasSubstr("The log file can't be rotated ('"
                                       + folder
                                             / "x.log.lock' is not used, because it has 2 names (hard links): put a "
                                               "copy in its place, or remove it), it grows on"),
                             "two"));
}

TEST(DiskLog, PlaceThatIsNoRegularFileIsRefusedWithoutHanging)
{
    for (const char* kind : {"folder", "fifo"}) {
        const TempFolder folder;
        const ErrorFile error;
        const std::string path = folder / "x.log";
        if (kind == std::string("folder"))
            ::mkdir(path.c_str(), 0700);
        else
            ::mkfifo(path.c_str(), 0600);
        DiskLog log(muchMemory, error.Descriptor());
        log.SetFile(path);
        log.Write("one\n", false);
        EXPECT_THAT(error.Text(), StartsWith("Can't write the log file ")) << kind;
        log.FlushAtEnd();
        const Lines lines = LinesOf(error.Text());
        ASSERT_FALSE(lines.empty()) << kind;
        EXPECT_EQ(lines.back(), "one") << kind;
    }
}

TEST(DiskLog, LinkOfAnotherUserIsNotFollowed)
{
    const TempFolder folder;
    const ErrorFile error;
    ASSERT_EQ(::symlink((folder / "target").c_str(), (folder / "x.log").c_str()), 0);
    GIVE_AWAY(folder / "x.log");
    DiskLog log(muchMemory, error.Descriptor());
    log.SetFile(folder / "x.log");
    log.Write("one\n", false);
    EXPECT_THAT(error.Text(), StartsWith("Can't write the log file "));
    EXPECT_FALSE(Exists(folder / "target"));
    log.FlushAtEnd();
    EXPECT_THAT(error.Text(), testing::EndsWith("\none\n"));
}

TEST(DiskLog, RemovedFileIsMadeAnew)
{
    const TempFolder folder;
    DiskLog log(muchMemory);
    log.SetFile(folder / "x.log");
    log.Write("one\n", false);
    ::unlink((folder / "x.log").c_str());
    log.Write("two\n", false);
    EXPECT_EQ(ReadFile(folder / "x.log"), "two\n");
}

TEST(DiskLog, RecordWaitsWhileTheNewFileCannotTakeTheNumberOfTheOldOne)
{
    const TempFolder folder;
    const ErrorFile error;
    DiskLog log(muchMemory, error.Descriptor());
    log.SetFile(folder / "x.log");
    {
        std::vector<os::Descriptor> lower; // numbers that are free when the log's is beyond the limit
        for (int i = 0; i < 10; ++i)
            lower.emplace_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        log.Write("one\n", false);
    }
    std::filesystem::rename(folder / "x.log", folder / "moved");
    {
        const ::Test::DescriptorLimit limit(static_cast<rlim_t>(log.Descriptor()));
        log.Write("two\n", false);
    }
    EXPECT_EQ(ReadFile(folder / "moved"), "one\n");
    EXPECT_EQ(error.Text(), "Can't write the log file " + (folder / "x.log")
                                + " (error 9: Bad file descriptor), lines are kept in memory and tried again\n");
    log.Write("three\n", false);
    EXPECT_EQ(ReadFile(folder / "x.log"), "two\nthree\n");
}

TEST(DiskLog, FullDiskHoldsRecordsInOrder)
{
    const TempFolder folder;
    const ErrorFile error;
    Faults faults;
    DiskLog log(muchMemory, error.Descriptor());
    log.SetFile(folder / "x.log");
    log.Write("one\n", false);
    faults.FailAll("write", ENOSPC);
    log.Write("two\n", false);
    log.Write("three\n", false);
    EXPECT_EQ(ReadFile(folder / "x.log"), "one\n");
    faults.FailAll("write", 0);
    log.Write("four\n", false);
    EXPECT_EQ(ReadFile(folder / "x.log"), "one\ntwo\nthree\nfour\n");
    EXPECT_THAT(error.Text(), HasSubstr("error 28"));
}

TEST(DiskLog, WhatDoesNotFitInMemoryGoesToStandardErrorAndIsCounted)
{
    const TempFolder folder;
    const ErrorFile error;
    Faults faults;
    DiskLog log(10, error.Descriptor());
    log.SetFile(folder / "x.log");
    faults.FailAll("write", ENOSPC);
    log.Write("12345678\n", false);
    log.Write("lost 1\n", false);
    log.Write("lost 2\n", true);
    const Lines shown = LinesOf(error.Text());
    ASSERT_EQ(shown.size(), 2u);
    EXPECT_EQ(shown[1], "lost 1");
    faults.FailAll("write", 0);
    log.Write("later\n", false);
    const Lines lines = LinesOf(ReadFile(folder / "x.log"));
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], "12345678");
    EXPECT_THAT(lines[1],
                HasSubstr("/log] 2 lines could not be written here and went to standard error or the system log"));
    EXPECT_EQ(lines[2], "later");
    log.Write("last\n", false);
    EXPECT_EQ(LinesOf(ReadFile(folder / "x.log")).size(), 4u) << "it is said once";
}

TEST(DiskLog, RecordThatIsCutIsCompletedAtOnceWhereThatWorks)
{
    const TempFolder folder;
    Faults faults;
    DiskLog log(muchMemory);
    log.SetFile(folder / "x.log");
    faults.WriteShortOnce(2);
    log.Write("12345\n", false);
    EXPECT_EQ(ReadFile(folder / "x.log"), "12345\n");
}

TEST(DiskLog, RecordOfWhichTheSystemTakesLittleAtATimeIsWholeAllTheSame)
{
    const TempFolder folder;
    Faults faults;
    DiskLog log(muchMemory);
    log.SetFile(folder / "x.log");
    faults.look = [&faults](const os::Call&) { faults.WriteShortOnce(2); };
    log.Write("1234567\n", false);
    EXPECT_EQ(ReadFile(folder / "x.log"), "1234567\n");
    EXPECT_EQ(faults.Writes(), 4);
}

TEST(DiskLog, RecordThatWasCutComesAgainWholeOnALineOfItsOwn)
{
    const TempFolder folder;
    const ErrorFile error;
    Faults faults;
    DiskLog log(muchMemory, error.Descriptor());
    CutASecondRecord(log, faults, folder / "x.log");
    log.Flush();
    EXPECT_EQ(ReadFile(folder / "x.log"), "one\n12\n12345\n");
}

TEST(DiskLog, RecordBehindAPieceOfAnotherProcessesBeginsOnANewLine)
{
    const TempFolder folder;
    WriteFile(folder / "x.log", "whole\npiece");
    DiskLog log(muchMemory);
    log.SetFile(folder / "x.log");
    log.Write("one\n", false);
    log.Write("two\n", false);
    EXPECT_EQ(ReadFile(folder / "x.log"), "whole\npiece\none\ntwo\n");
}

TEST(DiskLog, PieceThatIsKnownIsNotWaitedForAtEachRecordOfAFullDisk)
{
    const TempFolder folder;
    const ErrorFile error;
    Faults faults;
    DiskLog log(muchMemory, error.Descriptor());
    CutASecondRecord(log, faults, folder / "x.log");
    faults.FailAll("write", ENOSPC);
    int looks = 0;
    faults.look = [&](const os::Call& call) { looks += call.name == "fstat"sv; };
    log.Write("two\n", false);
    EXPECT_EQ(looks, 5);
    log.Write("three\n", false);
    EXPECT_EQ(looks, 5);
}

TEST(DiskLog, RecordThatIsStillBeingCopiedByAnotherProcessIsNoPiece)
{
    const TempFolder folder;
    const std::string path = folder / "x.log";
    WriteFile(path, "whole\nfirst half,");
    DiskLog log(muchMemory);
    log.SetFile(path);
    log.Write("one\n", false); // opens the file; what it ends in now is known to be a piece
    std::ofstream(path, std::ios::app) << "second half,";
    bool copied = false;
    const CallWatch watch([&](const os::Call& call) {
        if (call.name == "fstat"sv && !std::exchange(copied, true))
            std::ofstream(path, std::ios::app) << " the rest\n";
        return 0;
    });
    log.Write("two\n", false);
    EXPECT_EQ(ReadFile(path), "whole\nfirst half,\none\nsecond half, the rest\ntwo\n");
}

TEST(DiskLog, RecordThatWentBehindAPieceInTheLastMomentIsWrittenAgain)
{
    const TempFolder folder;
    const std::string path = folder / "x.log";
    DiskLog log(muchMemory);
    log.SetFile(path);
    log.Write("one\n", false);
    bool died = false;
    const CallWatch watch([&](const os::Call& call) {
        if (call.name == "write"sv && !std::exchange(died, true))
            std::ofstream(path, std::ios::app) << "piece"; // after the look at the file, before the write
        return 0;
    });
    log.Write("two\n", false);
    log.Write("three\n", false);
    EXPECT_EQ(ReadFile(path), "one\npiecetwo\ntwo\nthree\n");
}

TEST(DiskLog, NoRecordIsLostWhicheverCallFails)
{
    for (const int error : {EIO, ENOSPC, EACCES}) {
        bool over = false;
        for (int n = 1; !over; ++n) {
            ASSERT_LT(n, 500);
            const TempFolder folder;
            const ErrorFile standardError;
            Faults faults;
            DiskLog log(muchMemory, standardError.Descriptor());
            log.SetFile(folder / "x.log");
            log.SetSettings(Small(60, 50));
            faults.FailOnly(n, error);
            std::multiset<std::string> expected;
            for (int i = 0; i < 12; ++i) {
                const std::string record = "record number " + std::to_string(i);
                expected.insert(record);
                log.Write(record + '\n', false);
            }
            over = !faults.CountdownIsOver();
            log.FlushAtEnd();
            std::multiset<std::string> found;
            for (const auto& entry : std::filesystem::directory_iterator(folder.Path()))
                for (const std::string& line : LinesOf(ReadFile(entry.path().string())))
                    if (line.rfind("record", 0) == 0)
                        found.insert(line);
            EXPECT_EQ(found, expected) << "call " << n << " failed with " << error;
        }
    }
}

// --- rotation

TEST(DiskLog, FullFileIsRenamedAndOnlySoManyAreKept)
{
    const TempFolder folder;
    DiskLog log(muchMemory);
    log.SetFile(folder / "x.log");
    log.SetSettings(Small(10, 3));
    log.Write("aaaaaaaa\n", false);
    struct stat before = {};
    ASSERT_EQ(::stat((folder / "x.log").c_str(), &before), 0);
    log.Write("bbbbbbbb\n", false);
    struct stat after = {};
    ASSERT_EQ(::stat((folder / "x.log.1").c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino) << "renamed, not copied";
    for (char c = 'c'; c <= 'f'; ++c)
        log.Write(std::string(8, c) + '\n', false);
    EXPECT_EQ(ReadFile(folder / "x.log"), "ffffffff\n");
    EXPECT_EQ(ReadFile(folder / "x.log.1"), "eeeeeeee\n");
    EXPECT_EQ(ReadFile(folder / "x.log.2"), "dddddddd\n");
    EXPECT_EQ(ReadFile(folder / "x.log.3"), "cccccccc\n");
    EXPECT_FALSE(Exists(folder / "x.log.4"));
}

TEST(DiskLog, FileGrowsToItsLimitExactly)
{
    const TempFolder folder;
    DiskLog log(muchMemory);
    log.SetFile(folder / "x.log");
    log.SetSettings(Small(10, 3));
    log.Write("1234\n", false);
    log.Write("5678\n", false);
    EXPECT_FALSE(Exists(folder / "x.log.1"));
    log.Write("9\n", false);
    EXPECT_EQ(ReadFile(folder / "x.log.1"), "1234\n5678\n");
}

TEST(DiskLog, RecordBeyondTheLimitGetsAFileOfItsOwn)
{
    const TempFolder folder;
    DiskLog log(muchMemory);
    log.SetFile(folder / "x.log");
    log.SetSettings(Small(10, 3));
    const std::string big(100, 'x');
    log.Write(big + '\n', false);
    EXPECT_FALSE(Exists(folder / "x.log.1"));
    log.Write("1\n", false);
    EXPECT_EQ(ReadFile(folder / "x.log.1"), big + '\n');
}

TEST(DiskLog, FileThatSomebodyRotatesRightNowIsLookedForAgain)
{
    const TempFolder folder;
    DiskLog log(muchMemory);
    log.SetFile(folder / "x.log");
    log.SetSettings(Small(10, 3));
    log.Write("of before\n", false);
    int looks = 0;
    const CallWatch watch([&looks](const os::Call& call) {
        return call.name == "openat"sv && call.path == "x.log"sv && ++looks == 1 ? ENOENT : 0;
    });
    log.Write("new\n", false);
    EXPECT_GT(looks, 1);
    EXPECT_EQ(ReadFile(folder / "x.log.1"), "of before\n");
    EXPECT_EQ(ReadFile(folder / "x.log"), "new\n");
}

TEST(DiskLog, FileThatIsFullAtTheStartIsRotatedFirst)
{
    const TempFolder folder;
    WriteFile(folder / "x.log", "of the last run\n");
    DiskLog log(muchMemory);
    log.SetFile(folder / "x.log");
    log.SetSettings(Small(10, 3));
    log.Write("new\n", false);
    EXPECT_EQ(ReadFile(folder / "x.log.1"), "of the last run\n");
    EXPECT_EQ(ReadFile(folder / "x.log"), "new\n");
}

TEST(DiskLog, GapThatAKilledProcessLeftIsFilledFirst)
{
    const TempFolder folder;
    WriteFile(folder / "x.log", "full of text\n");
    WriteFile(folder / "x.log.1", "1");
    WriteFile(folder / "x.log.3", "3");
    WriteFile(folder / "x.log.4", "4");
    DiskLog log(muchMemory);
    log.SetFile(folder / "x.log");
    log.SetSettings(Small(10, 4));
    log.Write("new\n", false);
    EXPECT_EQ(ReadFile(folder / "x.log.1"), "full of text\n");
    EXPECT_EQ(ReadFile(folder / "x.log.2"), "1");
    EXPECT_EQ(ReadFile(folder / "x.log.3"), "3");
    EXPECT_EQ(ReadFile(folder / "x.log.4"), "4");
}

TEST(DiskLog, FilesBeyondALoweredNumberGo)
{
    const TempFolder folder;
    WriteFile(folder / "x.log", "full of text\n");
    for (int i = 1; i <= 6; ++i)
        WriteFile(folder / ("x.log." + std::to_string(i)), std::to_string(i));
    DiskLog log(muchMemory);
    log.SetFile(folder / "x.log");
    log.SetSettings(Small(10, 2));
    log.Write("new\n", false);
    EXPECT_EQ(ReadFile(folder / "x.log.2"), "1");
    for (int i = 3; i <= 6; ++i)
        EXPECT_FALSE(Exists(folder / ("x.log." + std::to_string(i)))) << i;
}

TEST(DiskLog, OtherWriterFollowsToTheNewFile)
{
    const TempFolder folder;
    DiskLog a(muchMemory);
    DiskLog b(muchMemory);
    for (DiskLog* log : {&a, &b}) {
        log->SetFile(folder / "x.log");
        log->SetSettings(Small(10, 3));
    }
    b.Write("b1\n", false);
    a.Write("a1\n", false);
    a.Write("a2 and more\n", false);
    b.Write("b2\n", false);
    EXPECT_EQ(ReadFile(folder / "x.log.2"), "b1\na1\n");
    EXPECT_EQ(ReadFile(folder / "x.log.1"), "a2 and more\n");
    EXPECT_EQ(ReadFile(folder / "x.log"), "b2\n");
}

// A file system that is mounted over the folder starts to number its files anew.
TEST(DiskLog, FileOfTheSameNumberOnAnotherDeviceIsAnotherFile)
{
    const TempFolder folder;
    DiskLog log(muchMemory);
    log.SetFile(folder / "x.log");
    log.Write("one\n", false);
    int opened = 0;
    bool otherDevice = true;
    const CallWatch watch([&](const os::Call& call) {
        opened += call.name == "openat"sv && call.path == "x.log"sv;
        if (call.name != "stat"sv || !std::exchange(otherDevice, false))
            return 0;
        EXPECT_EQ(::stat(call.path, call.status), 0);
        ++call.status->st_dev;
        return os::callAnswered;
    });
    log.Write("two\n", false);
    log.Write("three\n", false);
    EXPECT_EQ(opened, 1);
    EXPECT_EQ(ReadFile(folder / "x.log"), "one\ntwo\nthree\n");
}

TEST(DiskLog, OpenFileIsWrittenOnWhileItsNameCannotBeAskedFor)
{
    const TempFolder folder;
    const ErrorFile error;
    DiskLog log(muchMemory, error.Descriptor());
    log.SetFile(folder / "x.log");
    log.Write("one\n", false);
    // As in a folder that may not be searched any more.
    const CallWatch watch(
        [](const os::Call& call) { return call.name == "stat"sv || call.name == "open"sv ? EACCES : 0; });
    log.Write("two\n", false);
    EXPECT_EQ(ReadFile(folder / "x.log"), "one\ntwo\n");
    EXPECT_EQ(error.Text(), "");
}

TEST(DiskLog, WhereTheLogIsALinkItsTargetIsRotatedAndTheLinkStays)
{
    const TempFolder folder;
    const TempFolder target;
    std::filesystem::create_symlink(target / "real.log", folder / "x.log");
    DiskLog log(muchMemory);
    log.SetFile(folder / "x.log");
    log.SetSettings({8, 2});
    for (const char* record : {"first\n", "second\n", "third\n", "fourth\n"})
        log.Write(record, false);
    EXPECT_TRUE(std::filesystem::is_symlink(folder / "x.log"));
    EXPECT_EQ(ReadFile(target / "real.log"), "fourth\n");
    EXPECT_EQ(ReadFile(target / "real.log.1"), "third\n");
    EXPECT_EQ(ReadFile(target / "real.log.2"), "second\n");
    EXPECT_FALSE(std::filesystem::exists(target / "real.log.3"));
    EXPECT_FALSE(std::filesystem::is_symlink(folder / "x.log.1"));
    EXPECT_FALSE(std::filesystem::exists(folder / "x.log.1"));
}

TEST(DiskLog, FolderThatWasMovedAndIsALinkNowIsRotatedWhereItWent)
{
    const TempFolder folder;
    const TempFolder target;
    ASSERT_EQ(::mkdir((folder / "work").c_str(), 0700), 0);
    DiskLog log(muchMemory);
    log.SetFile(folder / "work/x.log");
    log.SetSettings({8, 2});
    log.Write("first\n", false);
    ASSERT_EQ(std::rename((folder / "work").c_str(), (folder / "moved").c_str()), 0);
    std::filesystem::create_symlink("moved", folder / "work");
    log.Write("second\n", false);
    EXPECT_EQ(ReadFile(folder / "moved/x.log"), "second\n");
    EXPECT_EQ(ReadFile(folder / "moved/x.log.1"), "first\n");
}

TEST(DiskLog, FileThatTookThePlaceWhereALinkLedIsNotRotated)
{
    const TempFolder folder;
    WriteFile(folder / "a.log", "");
    std::filesystem::create_symlink("a.log", folder / "x.log");
    DiskLog log(muchMemory);
    log.SetFile(folder / "x.log");
    log.SetSettings({8, 2});
    log.Write("first\n", false);
    // The same file by the same name, and another where it was.
    std::filesystem::rename(folder / "a.log", folder / "b.log");
    std::filesystem::remove(folder / "x.log");
    std::filesystem::create_symlink("b.log", folder / "x.log");
    WriteFile(folder / "a.log", "somebody else's\n");
    log.Write("second\n", false);
    EXPECT_EQ(ReadFile(folder / "a.log"), "somebody else's\n");
    EXPECT_EQ(ReadFile(folder / "b.log"), "second\n");
    EXPECT_EQ(ReadFile(folder / "b.log.1"), "first\n");
}

TEST(DiskLog, LinksToOneFileAreRotatedOneAtATime)
{
    const TempFolder folder;
    const TempFolder target;
    std::filesystem::create_symlink(target / "real.log", folder / "x.log");
    DiskLog log(muchMemory);
    log.SetFile(folder / "x.log");
    log.SetSettings({8, 2});
    log.Write("first\n", false);
    log.Write("second\n", false);
    EXPECT_TRUE(Exists(target / "real.log.lock"));
    EXPECT_FALSE(Exists(folder / "x.log.lock"));
}

TEST(DiskLog, FailedRotationIsSaidInTheLogAndTheFileGrowsOn)
{
    const TempFolder folder;
    Faults faults;
    DiskLog log(muchMemory);
    log.SetFile(folder / "x.log");
    log.SetSettings(Small(10, 3));
    faults.FailAll("rename", EROFS);
    for (int i = 0; i < 5; ++i)
        log.Write("12345678\n", false);
    const Lines lines = LinesOf(ReadFile(folder / "x.log"));
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "12345678"), 5);
    EXPECT_EQ(lines.size(), 6u) << "one line says so, not one a record";
    EXPECT_THAT(ReadFile(folder / "x.log"), HasSubstr("The log file can't be rotated (error 30: "));
}

TEST(DiskLog, RotationThatFailsForEverIsSaidEachTimeTheFileHasDoubled)
{
    const TempFolder folder;
    Faults faults;
    DiskLog log(muchMemory);
    log.SetFile(folder / "x.log");
    DiskLog::Settings settings = Small(1000, 3);
    settings.retrySeconds = 0;
    log.SetSettings(settings);
    faults.FailAll("rename", EACCES);
    int renames = 0;
    faults.look = [&](const os::Call& call) { renames += call.name == "rename"sv; };
    for (int i = 0; i < 90; ++i)
        log.Write(std::string(99, 'x') + '\n', false);
    Lines told;
    for (const std::string& line : LinesOf(ReadFile(folder / "x.log")))
        if (line.find("can't be rotated") != std::string::npos)
            told.push_back(line);
    EXPECT_EQ(told.size(), 4u) << "at 1,000 bytes, 2,000, 4,000 and 8,000";
    EXPECT_EQ(renames, 80) << "tried each time";
    faults.FailAll("rename", 0);
    log.Write("new\n", false);
    EXPECT_EQ(ReadFile(folder / "x.log"), "new\n");
    faults.FailAll("rename", EACCES);
    log.Write(std::string(999, 'x') + '\n', false);
    EXPECT_THAT(ReadFile(folder / "x.log"), HasSubstr("can't be rotated")) << "a new file, a new trouble";
}

TEST(DiskLog, NobodyWaitsForAProcessThatHoldsTheRotationLock)
{
    const TempFolder folder;
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    ::Test::ChildUntilTheEnd holder(Fork(
        [&] {
            const int lock = ::open((folder / "x.log.lock").c_str(), O_RDWR | O_CREAT, 0600);
            const char answer = os::TryLock(lock) == 0 ? 'y' : 'n';
            if (::write(ready[1], &answer, 1) != 1)
                return 1;
            ::pause();
            return 0;
        },
        true));
    char answer = 'n';
    ASSERT_EQ(::read(ready[0], &answer, 1), 1);
    ::close(ready[0]);
    ::close(ready[1]);
    ASSERT_EQ(answer, 'y');

    DiskLog log(muchMemory);
    log.SetFile(folder / "x.log");
    log.SetSettings(Small(10, 3));
    log.Write("12345678\n", false);
    log.Write("abcdefgh\n", false);
    EXPECT_EQ(ReadFile(folder / "x.log"), "12345678\nabcdefgh\n");
    holder.Kill();
    log.Write("ABCDEFGH\n", false);
    EXPECT_EQ(ReadFile(folder / "x.log.1"), "12345678\nabcdefgh\n");
    EXPECT_EQ(ReadFile(folder / "x.log"), "ABCDEFGH\n");
}

// --- forks

TEST(DiskLog, HeldRecordsStayWithTheParentOfAFork)
{
    const TempFolder folder;
    const ErrorFile error;
    DiskLog log(8, error.Descriptor());
    log.Write("early\n", false);
    log.Write("too much for the memory\n", false); // the count of such lines stays as well
    log.BeforeFork();
    const pid_t child = Fork(
        [&] {
            log.AfterForkInChild();
            log.SetFile(folder / "x.log");
            log.Write("child\n", false);
            log.FlushAtEnd();
            return 0;
        },
        true);
    log.AfterForkInParent();
    EXPECT_EQ(WaitFor(child), 0);
    log.FlushAtEnd();
    EXPECT_EQ(ReadFile(folder / "x.log"), "child\n");
    EXPECT_EQ(error.Text(), "too much for the memory\nearly\n");
}

TEST(DiskLog, ForkWaitsForTheEndOfARecordThatAnotherThreadWrites)
{
    const TempFolder folder;
    DiskLog log(muchMemory);
    log.SetFile(folder / "x.log");
    std::atomic<bool> hasBegun{false};
    std::atomic<bool> isOver{false};
    Faults faults;
    faults.look = [&](const os::Call& call) {
        if (call.name != "write"sv)
            return;
        hasBegun = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(100)); // enough for a fork that does not wait
        isOver = true;
    };
    ::Test::JoiningThread writer([&] { log.Write("record\n", false); });
    while (!hasBegun)
        std::this_thread::yield();
    log.BeforeFork();
    EXPECT_TRUE(isOver);
    log.AfterForkInParent();
}

TEST(DiskLog, ChildForkedWhileAnotherThreadWritesCanWrite)
{
    const TempFolder folder;
    DiskLog log(muchMemory);
    log.SetFile(folder / "x.log");
    ::Test::JoiningThread writer([&](const std::atomic<bool>& stop) {
        while (!stop)
            log.Write("parent\n", false);
    });
    for (int i = 0; i < 30; ++i) {
        log.BeforeFork();
        const pid_t child = Fork(
            [&] {
                log.AfterForkInChild();
                log.Write("child\n", false);
                return 0;
            },
            true);
        log.AfterForkInParent();
        EXPECT_EQ(WaitFor(child), 0);
    }
    writer.Stop();
    const Lines lines = LinesOf(ReadFile(folder / "x.log"));
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "child"), 30);
}

// --- several writers

TEST(DiskLog, ThreadsNeverMixTheirRecords)
{
    const TempFolder folder;
    DiskLog log(muchMemory);
    log.SetFile(folder / "x.log");
    log.SetSettings(Small(20000, 1000));
    std::vector<::Test::JoiningThread> writers;
    for (int i = 0; i < 4; ++i)
        writers.emplace_back([&, i] {
            for (int n = 0; n < 1000; ++n)
                log.Write(std::string(static_cast<std::size_t>(10 + n % 90), static_cast<char>('a' + i)) + '\n', false);
        });
    for (::Test::JoiningThread& writer : writers)
        writer.join();
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder.Path()))
        for (const std::string& line : LinesOf(ReadFile(entry.path().string()))) {
            ++count;
            EXPECT_EQ(std::string(line.size(), line.at(0)), line);
        }
    EXPECT_EQ(count, 4000u);
}

namespace {
// What each writer has done, as it says so after each record; in memory that the processes share.
struct Progress
{
    std::atomic<int> written[3];
};

std::string NumberedRecord(int writer, int number)
{
    return "writer " + std::to_string(writer) + " line " + std::to_string(number) + " "
           + std::string(static_cast<std::size_t>(20 + number % 60), '.') + "!\n";
}

int WriteNumbered(const std::string& path, const DiskLog::Settings& settings, Progress& progress, int writer, int lines)
{
    DiskLog log(muchMemory);
    log.SetFile(path);
    log.SetSettings(settings);
    for (int number = 0; number < lines; ++number) {
        log.Write(NumberedRecord(writer, number), false);
        progress.written[writer].store(number + 1, std::memory_order_release);
    }
    return 0;
}

// Moves the files that were rotated out of the way into a folder, as rotation may: under its lock. A rotation renames
// each file that is there, and with a thousand of them the writers would outrun it.
void CollectRotated(const std::string& path, const std::string& folder, int& collected)
{
    const int lock = ::open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (lock < 0)
        return;
    if (os::TryLock(lock) == 0) {
        for (int number = 1; std::rename((path + '.' + std::to_string(number)).c_str(),
                                         (folder + '/' + std::to_string(collected)).c_str())
                             == 0;
             ++number)
            ++collected;
    }
    ::close(lock);
}

} // namespace

TEST(DiskLog, ProcessesThatRotateLoseAndTearNoLineEvenWhenOneIsKilled)
{
    const bool full = std::getenv("VEX_FULL") != nullptr;
    const int lines = full ? 1000000 : 100000;
    const TempFolder folder;
    const std::string path = folder / "x.log";
    const DiskLog::Settings settings = Small(full ? 100000 : 300000, 100000);
    void* const memory = ::mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    Progress& progress = *new (memory) Progress;

    pid_t writers[3];
    for (int i = 0; i < 3; ++i)
        writers[i] = Fork(
            [&] {
                const int status = WriteNumbered(path, settings, progress, i, lines);
                while (i == 2)
                    ::pause();
                return status;
            },
            true);
    const std::string rotated = folder / "rotated";
    ASSERT_EQ(::mkdir(rotated.c_str(), 0700), 0);
    int files = 0;
    const auto collectUntil = [&](int writer, int written) {
        siginfo_t ended = {};
        while (progress.written[writer].load(std::memory_order_acquire) < written && ended.si_pid == 0) {
            CollectRotated(path, rotated, files);
            ASSERT_EQ(::waitid(P_PID, id_t(writers[writer]), &ended, WEXITED | WNOHANG | WNOWAIT), 0);
            ::usleep(1000);
        }
    };
    // The third is killed somewhere in its middle, or where it would end; what it has said to be written must be there.
    collectUntil(2, lines / 4);
    ASSERT_EQ(VexCore::SendSignal(writers[2], SIGKILL), 0);
    const int killed = WaitFor(writers[2]);
    EXPECT_TRUE(WIFSIGNALED(killed));
    for (int i = 0; i < 2; ++i) {
        collectUntil(i, lines);
        EXPECT_EQ(WaitFor(writers[i]), 0);
    }
    CollectRotated(path, rotated, files);

    std::vector<char> found[3];
    for (std::vector<char>& each : found)
        each.resize(static_cast<std::size_t>(lines), 0);
    int strange = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder.Path())) {
        if (!entry.is_regular_file())
            continue;
        std::ifstream in(entry.path());
        for (std::string line; std::getline(in, line);) {
            int writer = -1;
            int number = -1;
            if (std::sscanf(line.c_str(), "writer %d line %d", &writer, &number) == 2 && writer >= 0 && writer < 3
                && number >= 0 && number < lines && line + '\n' == NumberedRecord(writer, number))
                ++found[writer][static_cast<std::size_t>(number)];
            else if (!line.empty())
                ++strange;
        }
    }
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(std::count(found[i].begin(), found[i].end(), 1), lines) << "writer " << i;
    const int said = progress.written[2];
    EXPECT_EQ(std::count(found[2].begin(), found[2].begin() + said, 1), said);
    EXPECT_LE(std::count(found[2].begin() + said, found[2].end(), 1), 1) << "the one in flight";
    EXPECT_LE(strange, 1) << "a piece of the one in flight, and perhaps a record behind it that was written again";
    EXPECT_GT(files, full ? 1000 : 20);
    ::munmap(memory, sizeof(Progress));
}
