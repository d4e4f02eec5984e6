#pragma once
// What the log tells of the agent's life: restarts, the last end of a child, plugins, versions.

#include "vex/apps/vexctl/place.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Vexctl {

/// How a working child has ended.
struct ChildEndStory
{
    std::int64_t timeMs = 0;
    std::string text; ///< the supervisor's
    long supervisor = 0;
    std::optional<int> exitCode;
    std::optional<int> signal;
    bool crashed = false;
};

struct PluginStory
{
    std::optional<std::int64_t> collectedMs; ///< the last time that it was collected from
    std::string failure; ///< what went wrong since
};

struct LogStory
{
    bool isAll = true; ///< nothing lies before what was read
    std::int64_t beginMs = 0; ///< of the first record that was read; 0: there is none
    std::vector<ChildEndStory> childEnds; ///< the oldest first
    std::map<long, std::size_t> ends; ///< ends of children, by the supervisor that tells of them
    std::map<long, std::map<std::string, PluginStory>> plugins; ///< by process and by name
    std::map<long, std::string> versions; ///< by process, the last of a number
    std::string lastTrouble; ///< the last FATAL or ERROR record's first line
    std::int64_t lastTroubleMs = 0;
};

/// Goes through the end of a log, whose lines are `text`.
LogStory TellLogStory(std::string_view text, const std::string& name);
/// The same for the log's last so many bytes. Throws Failure when it cannot be read; without a log the story is empty.
LogStory ReadLogStory(const Place& place, std::size_t maxBytes);

} // namespace Vexctl
