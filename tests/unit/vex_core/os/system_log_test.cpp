#include "vex_core/os/system_log.h"

#include "support/own_mounts.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>

#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

using ::Test::InOwnMounts;
namespace os = VexCore::os;

namespace {
// A logger at /dev/log, in a /dev of this process's mounts. -1: it cannot be.
int MakeLogger(int type)
{
    struct sockaddr_un name = {};
    name.sun_family = AF_UNIX;
    std::strcpy(name.sun_path, "/dev/log");
    const int logger = ::mount("tmpfs", "/dev", "tmpfs", 0, nullptr) == 0 ? ::socket(AF_UNIX, type, 0) : -1;
    const auto* const address = reinterpret_cast<const struct sockaddr*>(&name);
    const bool isThere = ::bind(logger, address, sizeof name) == 0 && (type == SOCK_DGRAM || ::listen(logger, 3) == 0);
    return isThere ? logger : -1;
}

// One record as the logger takes it, without waiting. Empty: there is none.
std::string Taken(int logger, int type)
{
    const int connection = type == SOCK_STREAM ? ::accept4(logger, nullptr, nullptr, SOCK_NONBLOCK) : logger;
    char record[4096];
    const ssize_t size = ::recv(connection, record, sizeof record, MSG_DONTWAIT);
    if (connection != logger)
        ::close(connection);
    return size > 0 ? std::string(record, static_cast<std::size_t>(size)) : std::string();
}

// A logger that takes nothing, and then goes on.
int WriteToALoggerThatStops(int type)
{
    const int logger = MakeLogger(type);
    CHILD_CHECK(logger >= 0);
    int waiting = 0;
    while (os::SendToSystemLog(LOG_ERR, "fills the queue"))
        CHILD_CHECK(++waiting < 10000);
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 25; ++i)
        CHILD_CHECK(!os::SendToSystemLog(LOG_ERR, "nobody takes it"));
    // A fifth of a second for each would be 5 s.
    CHILD_CHECK(std::chrono::steady_clock::now() - begin < std::chrono::seconds(2));
    for (; waiting > 0; --waiting)
        CHILD_CHECK(Taken(logger, type).find("fills the queue") != std::string::npos);
    CHILD_CHECK(os::SendToSystemLog(LOG_ERR, "taken again"));
    const std::string record = Taken(logger, type);
    CHILD_CHECK(record.substr(0, 4) == "<27>");
    CHILD_CHECK(record.find("]: taken again") != std::string::npos);
    CHILD_CHECK((record.back() == '\0') == (type == SOCK_STREAM));
    return 0;
}

} // namespace

TEST(SystemLog, ALoggerThatHasStoppedIsWaitedForOnce)
{
    for (const int type : {SOCK_DGRAM, SOCK_STREAM}) {
        const int result = InOwnMounts([&] {
            ::alarm(60);
            return WriteToALoggerThatStops(type);
        });
        if (result == -1)
            GTEST_SKIP() << "NO NAMESPACES here";
        EXPECT_EQ(result, 0) << type;
    }
}

TEST(SystemLog, WithoutALoggerALineIsNotTaken)
{
    const int result = InOwnMounts([] {
        CHILD_CHECK(::mount("tmpfs", "/dev", "tmpfs", 0, nullptr) == 0);
        CHILD_CHECK(!os::SendToSystemLog(LOG_ERR, "nobody is there"));
        return 0;
    });
    if (result == -1)
        GTEST_SKIP() << "NO NAMESPACES here";
    EXPECT_EQ(result, 0);
}
