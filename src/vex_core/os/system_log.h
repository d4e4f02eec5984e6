#pragma once
// The way into the system's log that keeps out of everybody's: it waits for no logger that has stopped, and leaves the
// name alone that other code of the process has given to syslog(3).

#include "vex_core/os/descriptor.h"
#include "vex_core/os/file_identity.h"

#include <cstddef>
#include <ctime>
#include <string_view>

namespace VexCore::os {

/// The number of a facility by the name that syslog(3) has for it, in small letters and without its LOG_; -1 for
/// another name. One that the system does not have is the nearest that it has.
int SystemLogFacility(std::string_view name);

/// The name under which this process's records come: that of its program. Async-signal-safe.
const char* SystemLogName();

/// What the system's log is told.
struct SystemLogRecord
{
    int facility; ///< as SystemLogFacility has it
    int severity; ///< 0 to 7
    std::time_t time; ///< when it happened; where the system takes the time itself, it is that of the sending
    const char* text; ///< of any lines; who sends it sees to it that loggers take so much
};

/// A connection to the system's logger, which is kept from one record to the next. Other code of the process may close
/// its descriptor, and the number may then be another's, which gets nothing and is left open. One thread at a time.
class SystemLog
{
public:
    SystemLog() = default;
    SystemLog(const SystemLog&) = delete;
    SystemLog& operator=(const SystemLog&) = delete;
    /// Closes, and keeps the last error.
    ~SystemLog() { Close(); }

    /// Sends one record, under the name and the id of this process. Where there is no connection, or its logger is
    /// gone, one is made. A logger that has no room is waited for, at most so long. False with the error: it has not
    /// taken the record. Allocates nothing, but for the time zone, where this process has not asked for it before (each
    /// line of the log does). Tests see "syslog" with facility and severity as the descriptor and the text as the path.
    bool Send(const SystemLogRecord& record, int patienceMs);
    bool IsConnected() const { return static_cast<bool>(m_connection); }
    /// The next record makes a connection of its own: in the child of a fork, whose records would come from its parent.
    /// Keeps the last error.
    void Close();

private:
    bool IsOurs() const;
    int Deliver(const char* header, std::size_t size, const char* text, int patienceMs);

    Descriptor m_connection;
    FileIdentity m_identity; // of its socket
    bool m_isStream = false; // what connects there is
};

/// Sends one line with a severity of 0 to 7 and the facility daemon, over a connection of its own. False: no logger
/// has taken it. Any thread; allocates as little. A logger that has stopped is waited for once.
bool SendToSystemLog(int severity, const char* line);

/// Sends one record that is laid out already, from its priority on, and waits for nobody. Async-signal-safe. False: no
/// logger has taken it, or this system has no safe way.
bool SendToSystemLogInHandler(const char* record, std::size_t size);

} // namespace VexCore::os
