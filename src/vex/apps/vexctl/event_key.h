#pragma once
// Keys of events: an event's id, and a hash of the event, because ids begin anew when the database is replaced. For
// those who come back for what is new.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Vexctl {

/// `xml` is the event's element.
std::string EventKey(std::int64_t id, std::string_view xml);
/// Absent for a text that is no key.
std::optional<std::int64_t> IdOfEventKey(std::string_view key);

} // namespace Vexctl
