#include "vex/apps/vexctl/log_story.h"

#include "vex/apps/vexctl/agent_log.h"

#include "vex_core/base/ascii.h"

#include <cstdlib>

namespace Vexctl {

namespace {
using VexCore::StartsWith;

// The number behind the mark, "(exit 3)" say.
std::optional<int> NumberBehind(std::string_view text, std::string_view mark)
{
    const std::size_t at = text.find(mark);
    if (at == std::string_view::npos)
        return std::nullopt;
    return std::atoi(std::string(text.substr(at + mark.size(), 10)).c_str());
}

// "Child process exited with status 256 (exit 1)", "Child process crashed with status 139 (signal 11: ...)".
void TellEnd(LogStory& story, const LogLine& line)
{
    ChildEndStory end;
    end.timeMs = line.timeMs;
    end.text = std::string(line.text);
    end.supervisor = line.process;
    end.crashed = StartsWith(line.text, "Child process crashed");
    end.exitCode = NumberBehind(line.text, "(exit ");
    end.signal = NumberBehind(line.text, "(signal ");
    story.childEnds.push_back(std::move(end));
    ++story.ends[line.process];
}

// "plugin NAME: {...}" is a collection.
void TellCollection(LogStory& story, const LogLine& line)
{
    constexpr std::string_view mark = "plugin ";
    const std::size_t ends = line.text.find(": ");
    if (!StartsWith(line.text, mark) || ends == std::string_view::npos)
        return;
    PluginStory& plugin = story.plugins[line.process][std::string(line.text.substr(mark.size(), ends - mark.size()))];
    plugin.collectedMs = line.timeMs;
    plugin.failure.clear();
}

// "Plugin 'NAME' cannot be loaded: ...", "Plugin 'NAME' failed in collect: ...", "Plugin 'NAME': ...".
void TellFailure(LogStory& story, const LogLine& line)
{
    constexpr std::string_view mark = "Plugin '";
    const std::size_t ends = line.text.find('\'', mark.size());
    if (!StartsWith(line.text, mark) || ends == std::string_view::npos)
        return;
    const std::string name(line.text.substr(mark.size(), ends - mark.size()));
    std::string_view failure = line.text.substr(ends + 1);
    failure.remove_prefix(std::min(failure.find_first_not_of(": "), failure.size()));
    story.plugins[line.process][name].failure = std::string(failure);
}

// "vx_agent VERSION, host agent, process 4712".
void TellVersion(LogStory& story, const LogLine& line, const std::string& name)
{
    const std::size_t ends = line.text.find(", host agent, process ");
    if (ends != std::string_view::npos && StartsWith(line.text, name + " "))
        story.versions[line.process] = std::string(line.text.substr(name.size() + 1, ends - name.size() - 1));
}

void Tell(LogStory& story, const LogLine& line, const std::string& name)
{
    using VexCore::LogLevel;
    if (story.beginMs == 0)
        story.beginMs = line.timeMs;
    if (StartsWith(line.text, "Child process ") && (line.level == LogLevel::Info || line.level == LogLevel::Error))
        TellEnd(story, line);
    else if (line.level == LogLevel::Debug)
        TellCollection(story, line);
    else if (line.level == LogLevel::Warning)
        TellFailure(story, line);
    else if (line.level == LogLevel::Info)
        TellVersion(story, line, name);
    if (line.level <= LogLevel::Error) {
        story.lastTrouble = std::string(line.text);
        story.lastTroubleMs = line.timeMs;
    }
}

} // namespace

LogStory TellLogStory(std::string_view text, const std::string& name)
{
    LogStory story;
    while (!text.empty()) {
        const std::size_t ends = std::min(text.find('\n'), text.size());
        if (const std::optional<LogLine> line = ParseLogLine(text.substr(0, ends)))
            Tell(story, *line, name);
        text.remove_prefix(std::min(ends + 1, text.size()));
    }
    return story;
}

LogStory ReadLogStory(const Place& place, std::size_t maxBytes)
{
    bool isAll = true;
    const std::string tail = ReadLogTail(place.LogFile(), maxBytes, isAll);
    LogStory story = TellLogStory(tail, place.name);
    story.isAll = isAll;
    return story;
}

} // namespace Vexctl
