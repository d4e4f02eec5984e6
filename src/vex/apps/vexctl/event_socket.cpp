#include "vex/apps/vexctl/event_socket.h"

#include "vex/apps/vexctl/command.h"

#include "vex_core/base/steady_ms.h"
#include "vex_core/os/error.h"

#include <utility>

namespace Vexctl {

namespace {
constexpr long betweenSendsMs = 1000;
// A logger that has much to do at the moment is no trouble.
constexpr std::int64_t loggerPatienceMs = 5000;
// Less is cut of no record: a logger that does not take even that is in trouble.
constexpr std::size_t leastBytes = 1024;

// At the end of a character of UTF-8.
std::string Cut(const std::string& record, std::size_t bytes)
{
    static constexpr const char* mark = "…";
    while (bytes > 0 && (static_cast<unsigned char>(record[bytes]) & 0xC0) == 0x80)
        --bytes;
    return record.substr(0, bytes) + mark;
}

} // namespace

EventSocket::EventSocket(const std::string& path, std::function<void(const std::string&)> note)
    : m_socket(path), m_note(std::move(note))
{
    if (!os::MayBeSocket(path))
        throw Failure("'" + path + "' cannot be the path of a socket: it is empty or too long");
}

void EventSocket::TellTrouble(const std::string& reason)
{
    if (!std::exchange(m_isInTrouble, true))
        m_note(m_socket.Path() + " takes no events (" + reason + "); they wait until it does");
}

void EventSocket::Send(std::string record)
{
    const std::size_t whole = record.size();
    const VexCore::Deadline patience(loggerPatienceMs);
    for (;;) {
        switch (m_socket.Send(record)) {
        case os::LogSocket::Sent::Whole:
            if (std::exchange(m_isInTrouble, false))
                m_note(m_socket.Path() + " takes events again");
            if (record.size() != whole)
                m_note("an event of " + std::to_string(whole) + " bytes is too long for " + m_socket.Path()
                       + ": it was cut to " + std::to_string(record.size()));
            return;
        case os::LogSocket::Sent::TooLong:
            if (record.size() >= leastBytes) {
                record = Cut(record, record.size() / 2);
                break;
            }
            [[fallthrough]];
        case os::LogSocket::Sent::NoRoom:
            if (patience.LeftMs() == 0)
                TellTrouble("its reader does not keep up");
            m_socket.AwaitRoom(betweenSendsMs);
            break;
        case os::LogSocket::Sent::Failed:
            TellTrouble(VexCore::os::ErrorText(VexCore::os::LastError()));
            m_socket.AwaitRoom(betweenSendsMs);
            break;
        }
    }
}

} // namespace Vexctl
