// A socket is opened for one line and closed after it: its descriptor must not be in the way when the start of the
// background closes what it was not told of.

#include "vex_core/os/system_log.h"

#include "vex_core/os/descriptor.h"
#include "vex_core/os/observed.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

namespace VexCore::os {
namespace {
// A logger that has just much to do gets this long; one that let it pass is waited for no more until it takes a line.
constexpr struct timeval patience = {0, 200000};
std::atomic<bool> g_isStuck{false};

// As syslog(3) writes it, whose months are English under any locale.
std::size_t Format(char* record, std::size_t size, int severity, const char* line)
{
    static constexpr const char* months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                             "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const std::time_t now = std::time(nullptr);
    struct tm local = {};
    ::localtime_r(&now, &local);
    const int length = std::snprintf(record, size, "<%d>%s %2d %02d:%02d:%02d %s[%ld]: %s", LOG_DAEMON | severity,
                                     months[local.tm_mon], local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                                     ::program_invocation_short_name, static_cast<long>(::getpid()), line);
    return length < 0 ? 0 : std::min(static_cast<std::size_t>(length), size - 1);
}

// Most loggers take datagrams; some take a stream, in which a NUL ends a record. One that has stopped is waited for
// where a datagram is sent, or where a stream is connected. 0, or -1 with the error.
int Send(int type, const char* record, std::size_t size)
{
    const Descriptor connection(::socket(AF_UNIX, type | SOCK_CLOEXEC | (g_isStuck ? SOCK_NONBLOCK : 0), 0));
    struct sockaddr_un logger = {};
    logger.sun_family = AF_UNIX;
    std::strcpy(logger.sun_path, "/dev/log");
    if (!connection || ::setsockopt(connection.Get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience) != 0)
        return -1;
    const std::size_t whole = type == SOCK_STREAM ? size + 1 : size;
    ssize_t sent = -1;
    if (Retried([&] {
            return ::connect(connection.Get(), reinterpret_cast<const struct sockaddr*>(&logger), sizeof logger);
        })
        == 0)
        sent = Retried([&] { return ::send(connection.Get(), record, whole, MSG_NOSIGNAL); });
    if (sent >= 0)
        g_isStuck = false;
    else if (errno == EAGAIN || errno == EWOULDBLOCK)
        g_isStuck = true;
    return sent == static_cast<ssize_t>(whole) ? 0 : -1;
}

} // namespace

bool SendToSystemLog(int severity, const char* line)
{
    char record[2048];
    const std::size_t size = Format(record, sizeof record, severity, line);
    return Observed(OfDescriptor("syslog", severity, line),
                    [&] {
                        const int result = Send(SOCK_DGRAM, record, size);
                        return result != 0 && errno == EPROTOTYPE ? Send(SOCK_STREAM, record, size) : result;
                    })
           == 0;
}

} // namespace VexCore::os
