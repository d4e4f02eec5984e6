#pragma once
// Times as operators write and read them. All in milliseconds since the epoch.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Vexctl {

/// A length of time: a number and s, m, h, d or w, several of them in a row ("1h30m"). Milliseconds.
std::optional<std::int64_t> ParseDuration(std::string_view text);

/// A point in time: "now"; a length of time before `nowMs`; or an ISO date, with a time behind "T" or a blank, to
/// minutes, seconds or fractions of them, and with "Z" or an offset where it is not local time.
std::optional<std::int64_t> ParseWhen(std::string_view text, std::int64_t nowMs);

/// Local time to seconds, as the log has it: "2026-01-31 10:20:30".
std::string LocalTime(std::int64_t timeMs);
/// "2026-01-31T09:20:30.123Z".
std::string UtcTime(std::int64_t timeMs);
/// A length of time in its two largest units: "3 d 4 h", "12 s". "in the future" for a negative one is the caller's.
std::string DurationText(std::int64_t durationMs);

} // namespace Vexctl
