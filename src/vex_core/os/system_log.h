#pragma once
// The way into the system's log that keeps out of everybody's: it waits for no logger that has stopped, and leaves the
// name alone that other code of the process has given to syslog(3).

namespace VexCore::os {

/// Sends one line, with a severity of 0 to 7 and the facility daemon, under the name of this program. False: no logger
/// has taken it. Any thread; allocates nothing, but for the time zone, where this process has not asked for it before
/// (each line of the log does). Tests see "syslog" with the line as its path and the severity as its
/// descriptor.
bool SendToSystemLog(int severity, const char* line);

} // namespace VexCore::os
