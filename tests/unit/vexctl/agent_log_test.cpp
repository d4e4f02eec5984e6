#include "vex/apps/vexctl/agent_log.h"
#include "vex/apps/vexctl/command.h"
#include "vex/apps/vexctl/log_story.h"

#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>

using namespace Vexctl;
using ::Test::TempFolder;
using ::Test::WriteFile;
using VexCore::LogLevel;

namespace {
// One record a second from 10:00:00 on.
std::string Record(int second, const std::string& text, const char* level = "INFO", int process = 42)
{
    char stamp[64];
    std::snprintf(stamp, sizeof stamp, "2026-01-31 %02d:%02d:%02d", 10 + second / 3600, second / 60 % 60, second % 60);
    return std::string(stamp) + " " + level + " [" + std::to_string(process) + "/main] " + text + "\n";
}

std::vector<std::string> LinesFrom(const LogFile& file, std::int64_t from)
{
    LineReader reader(file.file.Get(), from);
    std::vector<std::string> lines;
    for (std::string_view line; reader.Next(line);)
        lines.emplace_back(line);
    return lines;
}

std::int64_t SizeOf(const std::string& path)
{
    return static_cast<std::int64_t>(std::filesystem::file_size(path));
}

std::vector<LogFile> Opened(const std::string& path)
{
    std::vector<std::string> problems;
    std::vector<LogFile> files = OpenLogFiles(path, problems);
    EXPECT_EQ(problems, std::vector<std::string>());
    return files;
}

} // namespace

TEST(LogLine, IsTakenApart)
{
    const auto line = ParseLogLine("2026-01-31 10:20:30 WARNING [4242/CScriptThread] lib/x.zip: no [x] matches");
    ASSERT_TRUE(line);
    EXPECT_EQ(line->level, LogLevel::Warning);
    EXPECT_EQ(line->process, 4242);
    EXPECT_EQ(line->thread, "CScriptThread");
    EXPECT_EQ(line->text, "lib/x.zip: no [x] matches");
}

TEST(LogLine, WhatTheLogWritesIsRead)
{
    const std::string record = VexCore::FormatLogRecord(1'769'851'230, VexCore::DiskLog::standardTimeFormat,
                                                        LogLevel::Error, 7, "main", "no\nmore");
    const auto line = ParseLogLine(std::string_view(record).substr(0, record.find('\n')));
    ASSERT_TRUE(line);
    EXPECT_EQ(line->timeMs, 1'769'851'230'000);
    EXPECT_EQ(line->text, "no");
    EXPECT_TRUE(IsContinuation(std::string_view(record).substr(record.find('\n') + 1)));
}

TEST(LogLine, WhatBeginsNoRecordIsNone)
{
    for (const char* const line :
         {"", "text", "    further line", "2026-01-31 10:20:30", "2026-01-31 10:20:30 LOUD [1/main] x",
          "2026-01-31 10:20:30 INFO 1/main] x", "2026-01-31 10:20:30 INFO [/main] x",
          "2026-01-31 10:20:30 INFO [1main] x", "2026-01-31 10:20:30 INFO [1/main x",
          "2026-01-31T10:20:30 INFO [1/main] x", "2O26-01-31 10:20:30 INFO [1/main] x"})
        EXPECT_FALSE(ParseLogLine(line)) << line;
}

TEST(LogLine, LevelsAreFoundInAnyCase)
{
    EXPECT_EQ(FindLogLevel("warning"), LogLevel::Warning);
    EXPECT_EQ(FindLogLevel("FATAL"), LogLevel::Fatal);
    EXPECT_FALSE(FindLogLevel("warn"));
    EXPECT_FALSE(FindLogLevel(""));
}

TEST(LogFiles, AreOpenedTheOldestFirstWhateverGapsTheirNumbersHave)
{
    const TempFolder folder;
    const std::string path = folder / "a.log";
    for (const char* const name :
         {"a.log", "a.log.1", "a.log.3", "a.log.10", "a.log.lock", "a.log.x", "b.log.1", "a.log.1x"})
        WriteFile(folder / name, name);
    std::vector<std::string> names;
    for (const LogFile& file : Opened(path))
        names.push_back(file.path.substr(folder.Path().size() + 1));
    EXPECT_EQ(names, (std::vector<std::string>{"a.log.10", "a.log.3", "a.log.1", "a.log"}));
}

TEST(LogFiles, OneFileUnderTwoNamesIsOpenedOnce)
{
    const TempFolder folder;
    WriteFile(folder / "a.log", "x\n");
    std::filesystem::create_hard_link(folder / "a.log", folder / "a.log.1");
    EXPECT_EQ(Opened(folder / "a.log").size(), 1u);
}

TEST(LogFiles, AFolderThatIsMissingAndALogThatIsNoFileAreFailures)
{
    const TempFolder folder;
    EXPECT_THROW(Opened(folder / "none/a.log"), Failure);
    std::filesystem::create_directory(folder / "a.log");
    EXPECT_THROW(Opened(folder / "a.log"), Failure);
}

TEST(LogFiles, ARotatedOneThatIsNoFileIsToldAndTheOthersAreOpened)
{
    const TempFolder folder;
    WriteFile(folder / "a.log.1", Record(1, "rotated"));
    WriteFile(folder / "a.log", Record(2, "last"));
    std::filesystem::create_directory(folder / "a.log.2");
    std::vector<std::string> problems;
    EXPECT_EQ(OpenLogFiles(folder / "a.log", problems).size(), 2u);
    EXPECT_EQ(problems, std::vector<std::string>{folder / "a.log.2 is no regular file"});
    bool isAll = true;
    EXPECT_EQ(ReadLogTail(folder / "a.log", 1000, isAll), Record(1, "rotated") + Record(2, "last"));
    EXPECT_FALSE(isAll);
}

TEST(LineReader, ShowsALineWhenItHasItsEnd)
{
    const TempFolder folder;
    WriteFile(folder / "a.log", "one\n\ntwo");
    const auto files = Opened(folder / "a.log");
    LineReader reader(files[0].file.Get(), 0);
    std::string_view line;
    ASSERT_TRUE(reader.Next(line));
    EXPECT_EQ(line, "one");
    ASSERT_TRUE(reader.Next(line));
    EXPECT_EQ(line, "");
    EXPECT_FALSE(reader.Next(line));
    std::ofstream(folder / "a.log", std::ios::app) << " and a half\n";
    ASSERT_TRUE(reader.Next(line));
    EXPECT_EQ(line, "two and a half");
    EXPECT_FALSE(reader.Rest(line));
}

TEST(LineReader, ALineWithoutAnEndComesInPieces)
{
    const TempFolder folder;
    const std::string endless(3 * 1024 * 1024, 'x');
    WriteFile(folder / "a.log", endless);
    const auto files = Opened(folder / "a.log");
    LineReader reader(files[0].file.Get(), 0);
    std::size_t bytes = 0;
    std::string_view line;
    while (reader.Next(line)) {
        EXPECT_LE(line.size(), 1024u * 1024);
        bytes += line.size();
    }
    if (reader.Rest(line))
        bytes += line.size();
    EXPECT_EQ(bytes, endless.size());
}

// Records of all lengths, so that they lie across the blocks in which a file is read.
TEST(LogBackwards, EveryRecordIsVisitedFromTheLastToTheFirst)
{
    const TempFolder folder;
    std::string text;
    std::vector<std::int64_t> begins;
    for (int i = 0; i < 4000; ++i) {
        begins.push_back(static_cast<std::int64_t>(text.size()));
        text += Record(i, std::string(static_cast<std::size_t>(i * 37 % 700), 'x')) + "    further\n";
    }
    WriteFile(folder / "a.log", text);
    const auto files = Opened(folder / "a.log");
    std::vector<std::int64_t> visited;
    VisitLogBackwards(files[0].file.Get(), SizeOf(folder / "a.log"), [&](const LogLine&, std::int64_t begin) {
        visited.push_back(begin);
        return true;
    });
    EXPECT_EQ(visited, std::vector<std::int64_t>(begins.rbegin(), begins.rend()));

    int left = 3;
    VisitLogBackwards(files[0].file.Get(), SizeOf(folder / "a.log"),
                      [&](const LogLine&, std::int64_t) { return --left > 0; });
    EXPECT_EQ(left, 0);
}

TEST(LogTime, TheBeginIsFoundWithoutReadingAll)
{
    const TempFolder folder;
    std::string text;
    for (int i = 0; i < 40'000; ++i)
        text += Record(i, "some text that makes the file longer than a few blocks");
    WriteFile(folder / "a.log", text);
    const auto files = Opened(folder / "a.log");
    const std::int64_t since = ParseLogLine(Record(39'000, ""))->timeMs;
    const std::int64_t from = FindTimeInLog(files[0].file.Get(), SizeOf(folder / "a.log"), since);
    EXPECT_GT(from, SizeOf(folder / "a.log") / 2);
    const auto lines = LinesFrom(files[0], from);
    ASSERT_FALSE(lines.empty());
    const auto first = ParseLogLine(lines.front());
    ASSERT_TRUE(first) << lines.front();
    EXPECT_LE(first->timeMs, since);
    EXPECT_EQ(FindTimeInLog(files[0].file.Get(), SizeOf(folder / "a.log"), 0), 0);
}

TEST(LogTail, IsTheEndOfAllFilesTogetherAndBeginsWithALine)
{
    const TempFolder folder;
    WriteFile(folder / "a.log.1", Record(0, "first") + Record(1, "second"));
    WriteFile(folder / "a.log", Record(2, "third"));
    bool isAll = false;
    EXPECT_EQ(ReadLogTail(folder / "a.log", 1000, isAll),
              Record(0, "first") + Record(1, "second") + Record(2, "third"));
    EXPECT_TRUE(isAll);
    EXPECT_EQ(ReadLogTail(folder / "a.log", Record(2, "third").size() + 10, isAll), Record(2, "third"));
    EXPECT_FALSE(isAll);
    EXPECT_EQ(ReadLogTail(folder / "a.log", 5, isAll), "");
}

TEST(LogStory, TellsEndsOfChildrenPluginsAndVersions)
{
    const LogStory story = TellLogStory(
        Record(0, "vx_agent 10.0.0.1, host agent, process 50", "INFO", 50)
            + Record(1, "Child process crashed with status 139 (signal 11: Segmentation fault)", "ERROR", 42)
            + Record(2, "Delaying 1000ms before restart 1", "INFO", 42)
            + Record(3, "plugin network: {\"a\":1}", "DEBUG", 51)
            + Record(4, "Plugin 'trend' cannot be loaded: no file", "WARNING", 51)
            + Record(5, "Plugin 'network' failed in collect: boom", "WARNING", 51) + "    traceback\n"
            + Record(6, "Child process exited with status 768 (exit 3)", "INFO", 42),
        "vx_agent");
    EXPECT_EQ(story.ends.at(42), 2u);
    ASSERT_FALSE(story.childEnds.empty());
    EXPECT_EQ(story.childEnds.back().exitCode, 3);
    EXPECT_FALSE(story.childEnds.back().signal);
    EXPECT_FALSE(story.childEnds.back().crashed);
    EXPECT_EQ(story.versions.at(50), "10.0.0.1");
    const auto& plugins = story.plugins.at(51);
    EXPECT_EQ(plugins.at("network").failure, "failed in collect: boom");
    EXPECT_TRUE(plugins.at("network").collectedMs);
    EXPECT_EQ(plugins.at("trend").failure, "cannot be loaded: no file");
    EXPECT_FALSE(plugins.at("trend").collectedMs);
    EXPECT_EQ(story.lastTrouble, "Child process crashed with status 139 (signal 11: Segmentation fault)");
}

TEST(LogStory, ACollectionEndsAFailure)
{
    const LogStory story = TellLogStory(
        Record(0, "Plugin 'n' failed in collect: x", "WARNING") + Record(1, "plugin n: {}", "DEBUG"), "vx_agent");
    EXPECT_EQ(story.plugins.at(42).at("n").failure, "");
}

TEST(LogStory, ForeignTextTellsNothing)
{
    const LogStory story =
        TellLogStory(std::string("\0\xff\n\n2026-01-31 10:20:30 INFO [1/x] Child process\nend", 50), "vx_agent");
    EXPECT_TRUE(story.childEnds.empty());
    EXPECT_TRUE(TellLogStory("", "vx_agent").isAll);
}
