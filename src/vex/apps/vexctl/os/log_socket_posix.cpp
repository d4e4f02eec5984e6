#include "vex/apps/vexctl/os/log_socket.h"

#include "vex_core/os/pause.h"

#include <algorithm>
#include <cerrno>
#include <string>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace Vexctl::os {

namespace {
// A datagram is held whole by its sender's buffer; the system grants as much of this as its administrator allows.
constexpr int bufferBytes = 8 * 1024 * 1024;
// A stream whose logger reads is over with a record in no time.
constexpr int streamPatienceMs = 1000;

template <typename Call>
auto Retried(Call call)
{
    auto result = call();
    while (result == -1 && errno == EINTR)
        result = call();
    return result;
}

} // namespace

bool MayBeSocket(const std::string& path)
{
    return !path.empty() && path.size() < sizeof(sockaddr_un::sun_path);
}

bool LogSocket::Connect(int type)
{
    m_connection = VexCore::os::Descriptor(::socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!m_connection)
        return false;
    ::setsockopt(m_connection.Get(), SOL_SOCKET, SO_SNDBUF, &bufferBytes, sizeof bufferBytes);
    struct sockaddr_un logger = {};
    logger.sun_family = AF_UNIX;
    m_path.copy(logger.sun_path, sizeof logger.sun_path - 1);
    if (Retried([&] {
            return ::connect(m_connection.Get(), reinterpret_cast<const struct sockaddr*>(&logger), sizeof logger);
        })
        == 0) {
        m_isStream = type == SOCK_STREAM;
        return true;
    }
    m_connection.Reset(); // which keeps the error
    return false;
}

LogSocket::Sent LogSocket::Send(std::string_view record)
{
    const bool wasConnected = static_cast<bool>(m_connection);
    if (!wasConnected && !Connect(SOCK_DGRAM) && (errno != EPROTOTYPE || !Connect(SOCK_STREAM)))
        return Judge();
    const Sent sent = m_isStream ? SendToStream(record) : SendDatagram(record);
    // A logger that was started again since the last record is there under its name.
    return sent == Sent::Failed && wasConnected ? Send(record) : sent;
}

LogSocket::Sent LogSocket::SendDatagram(std::string_view record)
{
    // A signal for a reader that is gone is ignored by the whole process.
    if (Retried([&] { return ::send(m_connection.Get(), record.data(), record.size(), 0); }) >= 0)
        return Sent::Whole;
    return Judge();
}

// A record that was begun is ended: the next try would send it from its start. Where the logger has stopped in the
// middle, the connection is given up.
LogSocket::Sent LogSocket::SendToStream(std::string_view record)
{
    const std::string bytes = std::string(record) + '\0';
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t count =
            Retried([&] { return ::send(m_connection.Get(), bytes.data() + done, bytes.size() - done, 0); });
        if (count < 0 && (errno != EAGAIN || done == 0))
            return Judge();
        done += count < 0 ? 0 : static_cast<std::size_t>(count);
        struct pollfd room = {m_connection.Get(), POLLOUT, 0};
        if (done < bytes.size() && ::poll(&room, 1, streamPatienceMs) == 0) {
            m_connection.Reset();
            return Sent::NoRoom;
        }
    }
    return Sent::Whole;
}

// Of the last error.
LogSocket::Sent LogSocket::Judge()
{
    if (errno == EAGAIN || errno == ENOBUFS)
        return Sent::NoRoom;
    if (errno == EMSGSIZE)
        return Sent::TooLong;
    m_connection.Reset();
    return Sent::Failed;
}

void LogSocket::AwaitRoom(long timeoutMs)
{
    struct pollfd room = {m_connection.Get(), POLLOUT, 0};
    const int count = m_connection ? ::poll(&room, 1, static_cast<int>(timeoutMs)) : -1;
    // What is ready at once without room for this record, or is not there, has to be waited for by the clock.
    if (count != 0)
        VexCore::os::PauseMs(std::min(timeoutMs, count > 0 ? 10L : timeoutMs));
}

} // namespace Vexctl::os
