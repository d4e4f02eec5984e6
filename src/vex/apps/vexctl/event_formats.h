#pragma once
// Events in the formats of programs that collect them: a record of each is a line. docs/FORMATS.md, "Events for
// collectors". Functions of values; any thread.

#include "vex/apps/vexctl/event_history.h"

#include <cstdint>
#include <string>

namespace Vexctl {

/// Whose events they are. What is empty is left out.
struct EventSource
{
    std::string hostId, hostName;
    std::string agent; ///< its name
    std::string version;
};

/// A LogsData object of OpenTelemetry with one record, without a line end. `observedMs` is when the event was read,
/// since the epoch.
std::string OtlpLine(const Event& event, const EventSource& source, std::int64_t observedMs);

/// A record of RFC 5424, without a line end: as long as the event, and with no control character in it.
std::string SyslogRecord(const Event& event, const EventSource& source);

} // namespace Vexctl
