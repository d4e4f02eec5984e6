#pragma once
// Keys of events, for those who come back for what is new. An event is stored with one of its own. One that an earlier
// agent wrote has none: its key is its id and a hash of the event, because ids begin anew when the database is
// replaced. docs/FORMATS.md, "Agent events".

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Vexctl {

/// `xml` is the event's element.
std::string EventKey(std::int64_t id, std::string_view xml);
/// Absent for a text that is no key of that kind.
std::optional<std::int64_t> IdOfEventKey(std::string_view key);
/// Whether the text has the form of a key that an agent stores with an event.
bool IsStoredEventKey(std::string_view key);

} // namespace Vexctl
