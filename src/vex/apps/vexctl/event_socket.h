#pragma once
// Records of events on their way to a logger's socket: each waits there until the logger takes it.

#include "vex/apps/vexctl/os/log_socket.h"

#include <functional>
#include <string>

namespace Vexctl {

/// Main thread.
class EventSocket
{
public:
    /// `note` gets a line when the logger takes nothing, and when it does again. Throws Failure for a path that no
    /// socket can have.
    EventSocket(const std::string& path, std::function<void(const std::string&)> note);

    /// Returns when the system has taken the record for the logger, however long that takes. One that is longer than
    /// any datagram may be is cut, and noted.
    void Send(std::string record);

private:
    void TellTrouble(const std::string& reason);

    os::LogSocket m_socket;
    const std::function<void(const std::string&)> m_note;
    bool m_isInTrouble = false;
};

} // namespace Vexctl
