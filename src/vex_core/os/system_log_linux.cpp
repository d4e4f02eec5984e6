// The socket of the logger, without the C library's hand in it: that one waits for as long as the logger likes. Most
// loggers take datagrams; some take a stream, in which a NUL ends a record.

#include "vex_core/os/system_log.h"

#include "vex_core/os/error.h"
#include "vex_core/os/observed.h"
#include "vex_core/os/pause.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

namespace VexCore::os {
namespace {
// A logger that has just much to do gets this long from who has no other place for a line; one that let it pass is
// waited for no more until it takes a line.
constexpr int lastResortPatienceMs = 200;
std::atomic<bool> g_isStuck{false};

constexpr struct
{
    const char* name;
    int number;
} facilities[] = {{"auth", LOG_AUTH},     {"authpriv", LOG_AUTHPRIV}, {"cron", LOG_CRON},     {"daemon", LOG_DAEMON},
                  {"ftp", LOG_FTP},       {"lpr", LOG_LPR},           {"mail", LOG_MAIL},     {"news", LOG_NEWS},
                  {"syslog", LOG_SYSLOG}, {"user", LOG_USER},         {"uucp", LOG_UUCP},     {"local0", LOG_LOCAL0},
                  {"local1", LOG_LOCAL1}, {"local2", LOG_LOCAL2},     {"local3", LOG_LOCAL3}, {"local4", LOG_LOCAL4},
                  {"local5", LOG_LOCAL5}, {"local6", LOG_LOCAL6},     {"local7", LOG_LOCAL7}};

bool IsFull(int error)
{
    return error == EAGAIN || error == EWOULDBLOCK || error == ENOBUFS;
}

// As syslog(3) writes it, whose months are English under any locale.
std::size_t FormatHeader(char* header, std::size_t size, const SystemLogRecord& record)
{
    static constexpr const char* months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                             "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    struct tm local = {};
    ::localtime_r(&record.time, &local);
    const int length = std::snprintf(
        header, size, "<%d>%s %2d %02d:%02d:%02d %s[%ld]: ", record.facility | record.severity, months[local.tm_mon],
        local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, SystemLogName(), static_cast<long>(::getpid()));
    return length < 0 ? 0 : std::min(static_cast<std::size_t>(length), size - 1);
}

// Never waits, but where a stream's logger has not taken earlier connections: nothing tells of its room.
int Connect(int type, int patienceMs)
{
    const int connection = ::socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    struct sockaddr_un logger = {};
    logger.sun_family = AF_UNIX;
    std::strcpy(logger.sun_path, "/dev/log");
    const auto* const address = reinterpret_cast<const struct sockaddr*>(&logger);
    for (int waitedMs = 0; connection >= 0; ++waitedMs) {
        if (Retried([&] { return ::connect(connection, address, sizeof logger); }) == 0)
            return connection;
        if (!IsFull(errno) || waitedMs >= patienceMs) {
            Close(connection);
            return -1;
        }
        PauseMs(1);
    }
    return -1;
}

ssize_t SendOnce(int connection, struct iovec* parts, std::size_t count)
{
    struct msghdr message = {};
    message.msg_iov = parts;
    message.msg_iovlen = count;
    return Retried([&] { return ::sendmsg(connection, &message, MSG_NOSIGNAL | MSG_DONTWAIT); });
}

// 0, or -1 with the error.
int SendParts(int connection, struct iovec* parts, std::size_t count, int patienceMs)
{
    ssize_t sent = SendOnce(connection, parts, count);
    if (sent < 0 && IsFull(errno) && patienceMs > 0) {
        struct pollfd room = {connection, POLLOUT, 0};
        ::poll(&room, 1, patienceMs);
        sent = SendOnce(connection, parts, count);
    }
    std::size_t whole = 0;
    for (std::size_t i = 0; i < count; ++i)
        whole += parts[i].iov_len;
    if (sent >= 0 && static_cast<std::size_t>(sent) < whole) {
        errno = EPIPE; // what is left of the record would be the begin of the next one on this connection
        return -1;
    }
    return sent < 0 ? -1 : 0;
}

} // namespace

int SystemLogFacility(std::string_view name)
{
    for (const auto& facility : facilities)
        if (name == facility.name)
            return facility.number;
    return -1;
}

const char* SystemLogName()
{
    return ::program_invocation_short_name;
}

bool SystemLog::Send(const SystemLogRecord& record, int patienceMs)
{
    return Observed(OfDescriptor("syslog", record.facility | record.severity, record.text),
                    [&] {
                        char header[512];
                        const std::size_t size = FormatHeader(header, sizeof header, record);
                        const bool wasConnected = IsConnected();
                        const int result = Deliver(header, size, record.text, patienceMs);
                        // A logger that was started anew has another socket of the same name.
                        return result != 0 && wasConnected && !IsConnected()
                                   ? Deliver(header, size, record.text, patienceMs)
                                   : result;
                    })
           == 0;
}

// Sockets are told apart by device and inode, as files are.
bool SystemLog::IsOurs() const
{
    struct stat status = {};
    return ::fstat(m_connection.Get(), &status) == 0 && m_identity.IsFileOf(status);
}

void SystemLog::Close()
{
    const KeepError keep;
    if (m_connection && !IsOurs())
        m_connection.Release(); // closing it is for whoever has the number now
    m_connection.Reset();
}

// After a failure there is a connection only where its logger is there and has no room.
int SystemLog::Deliver(const char* header, std::size_t size, const char* text, int patienceMs)
{
    if (m_connection && !IsOurs())
        m_connection.Release();
    if (!m_connection) {
        int connection = Connect(SOCK_DGRAM, patienceMs);
        m_isStream = connection < 0 && errno == EPROTOTYPE;
        if (m_isStream)
            connection = Connect(SOCK_STREAM, patienceMs);
        m_connection = Descriptor(connection);
        struct stat status = {};
        if (!m_connection || ::fstat(connection, &status) != 0) {
            m_connection.Reset(); // nobody would know it again
            return -1;
        }
        m_identity = IdentityOf(status);
    }
    char end = '\0';
    struct iovec parts[] = {
        {const_cast<char*>(header), size}, {const_cast<char*>(text), std::strlen(text)}, {&end, m_isStream ? 1u : 0u}};
    if (SendParts(m_connection.Get(), parts, std::size(parts), patienceMs) == 0)
        return 0;
    // The number may have become another's meanwhile: then it is no socket, or one that is connected to nobody.
    if (!IsFull(errno) && errno != EMSGSIZE)
        Close();
    return -1;
}

bool SendToSystemLog(int severity, const char* line)
{
    SystemLog log;
    const bool isTaken =
        log.Send({LOG_DAEMON, severity, std::time(nullptr), line}, g_isStuck ? 0 : lastResortPatienceMs);
    if (isTaken || IsFull(errno))
        g_isStuck = !isTaken;
    return isTaken;
}

bool SendToSystemLogInHandler(const char* record, std::size_t size)
{
    char end = '\0';
    struct iovec parts[] = {{const_cast<char*>(record), size}, {&end, 1}};
    int connection = Connect(SOCK_DGRAM, 0);
    const bool isStream = connection < 0 && errno == EPROTOTYPE;
    if (isStream)
        connection = Connect(SOCK_STREAM, 0);
    const bool isTaken = connection >= 0 && SendParts(connection, parts, isStream ? 2 : 1, 0) == 0;
    Close(connection);
    return isTaken;
}

} // namespace VexCore::os
