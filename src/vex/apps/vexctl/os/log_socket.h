#pragma once
// The local socket of a logger, such as /dev/log: where each datagram is a record, or a stream in which a NUL ends one.

#include "vex_core/os/descriptor.h"

#include <string>
#include <string_view>

namespace Vexctl::os {

/// Connects when something is to be sent, and again after the logger has gone. It never waits in `Send`. Main thread.
class LogSocket
{
public:
    explicit LogSocket(std::string path) : m_path(std::move(path)) {}

    enum class Sent {
        Whole, ///< the system has it
        NoRoom, ///< the logger does not keep up: try again
        TooLong, ///< no datagram of this size is taken
        Failed, ///< nobody takes it, for the reason of the last error: try again
    };

    /// A record without control characters. What was not sent whole is not there for the logger; of a stream it may
    /// have got a part, before a connection that ended.
    Sent Send(std::string_view record);

    /// Sleeps until there may be room, for so long at most.
    void AwaitRoom(long timeoutMs);

    const std::string& Path() const { return m_path; }

private:
    bool Connect(int type);
    Sent SendDatagram(std::string_view record);
    Sent SendToStream(std::string_view record);
    Sent Judge();

    const std::string m_path;
    VexCore::os::Descriptor m_connection;
    bool m_isStream = false;
};

/// Whether a path is not too long for the name of a socket.
bool MayBeSocket(const std::string& path);

} // namespace Vexctl::os
