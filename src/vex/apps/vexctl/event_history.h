#pragma once
// The events that an agent keeps. docs/FORMATS.md, "Agent events".

#include "vex/apps/vexctl/agent_database.h"
#include "vex/apps/vexctl/json_text.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Vexctl {

struct Event
{
    std::int64_t id = 0;
    std::optional<std::int64_t> timeMs, number, severity;
    std::string text, xml;

    std::string Key() const;
};

/// What a statement begins with whose rows `EventOf` takes.
constexpr const char* selectEvents =
    "SELECT id, coalesce(time_ms, time_s * 1000), number, severity, text, xml FROM agent_event";
Event EventOf(const VexCore::SqliteStatement& row);

/// The last so many, the oldest first. Throws Failure when the database cannot be read; none where there is none yet.
std::vector<Event> ReadLastEvents(AgentDatabase& database, std::size_t number);

/// 0 to 7 of a number or a word.
std::optional<int> FindSeverity(const std::string& word);
/// "-" where it has none.
const char* SeverityWord(const Event& event);

Json JsonOf(const Event& event);

} // namespace Vexctl
