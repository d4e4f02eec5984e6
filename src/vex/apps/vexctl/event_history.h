#pragma once
// The events that an agent keeps. docs/FORMATS.md, "Agent events".

#include "vex/apps/vexctl/agent_database.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Vexctl {

struct Event
{
    std::int64_t id = 0;
    std::optional<std::int64_t> timeMs, number, severity;
    std::string text, xml;
    std::string storedKey; ///< empty where an agent wrote it that gave none; anything where somebody else did

    /// The stored one, else what event_key.h makes of the event.
    std::string Key() const;
    /// Whether the key is this event's, of either kind: a reader may have come by it before the agent stored any.
    bool HasKey(std::string_view key) const;
};

/// What a statement begins with whose rows `EventOf` takes. Databases of earlier agents have no column of keys.
constexpr const char* selectEvents = "SELECT * FROM agent_event";
Event EventOf(const VexCore::SqliteStatement& row);

/// Looks for an event. False: the database cannot be read.
bool FindEventById(VexCore::SqliteConnection& db, std::int64_t id, std::optional<Event>& event);
bool FindEventByStoredKey(VexCore::SqliteConnection& db, const std::string& key, std::optional<Event>& event);

/// The last so many, the oldest first. Throws Failure when the database cannot be read; none where there is none yet.
std::vector<Event> ReadLastEvents(AgentDatabase& database, std::size_t number);

/// 0 to 7 of a number or a word.
std::optional<int> FindSeverity(const std::string& word);
/// "-" where it has none.
const char* SeverityWord(const Event& event);

/// One object of JSON, without a line end.
std::string JsonLine(const Event& event);

} // namespace Vexctl
