#include "vex_core/os/system_log.h"

#include "support/own_mounts.h"
#include "vex_core/domain/setting_value.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
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

namespace {
constexpr std::time_t lastOfJanuary = 1769851230; // 2026-01-31 09:20:30 UTC

bool Sends(os::SystemLog& log, const char* text, int patienceMs = 0)
{
    return log.Send({LOG_LOCAL0, LOG_WARNING, lastOfJanuary, text}, patienceMs);
}

// One that keeps its connection and finds its logger again.
int WriteToALoggerThatIsStartedAnew()
{
    ::setenv("TZ", "UTC", 1);
    os::SystemLog log;
    int logger = MakeLogger(SOCK_DGRAM);
    CHILD_CHECK(logger >= 0);
    CHILD_CHECK(Sends(log, "one\n    two"));
    CHILD_CHECK(log.IsConnected());
    CHILD_CHECK(Taken(logger, SOCK_DGRAM)
                == "<132>Jan 31 09:20:30 " + std::string(os::SystemLogName()) + '[' + std::to_string(::getpid())
                       + "]: one\n    two");
    ::close(logger);
    CHILD_CHECK(!Sends(log, "nobody is there"));
    CHILD_CHECK(!log.IsConnected());
    CHILD_CHECK(::unlink("/dev/log") == 0 && ::umount("/dev") == 0);
    logger = MakeLogger(SOCK_DGRAM);
    CHILD_CHECK(Sends(log, "there again"));
    CHILD_CHECK(Taken(logger, SOCK_DGRAM).find("]: there again") != std::string::npos);
    // One that goes and comes between two records costs none.
    ::close(logger);
    ::umount("/dev");
    logger = MakeLogger(SOCK_STREAM);
    CHILD_CHECK(Sends(log, "by a stream"));
    const int connection = ::accept(logger, nullptr, nullptr);
    CHILD_CHECK(Sends(log, "in one connection"));
    char records[1024];
    const ssize_t size = ::recv(connection, records, sizeof records, 0);
    const std::string both(records, static_cast<std::size_t>(size > 0 ? size : 0));
    CHILD_CHECK(both.find("by a stream") < both.find('\0') && both.find("in one connection") > both.find('\0'));
    CHILD_CHECK(both.back() == '\0');
    return 0;
}

// What the next descriptor will be.
int NextNumber()
{
    const int number = ::dup(STDOUT_FILENO);
    ::close(number);
    return number;
}

bool AreOneFile(int one, int other)
{
    struct stat first = {}, second = {};
    return ::fstat(one, &first) == 0 && ::fstat(other, &second) == 0 && first.st_dev == second.st_dev
           && first.st_ino == second.st_ino;
}

// Somebody closes the descriptor and gets its number for a socket of his own.
int WriteWhereTheNumberBecomesAnothers()
{
    const int logger = MakeLogger(SOCK_DGRAM);
    CHILD_CHECK(logger >= 0);
    const int number = NextNumber();
    os::SystemLog log;
    CHILD_CHECK(Sends(log, "first") && !Taken(logger, SOCK_DGRAM).empty());
    int others[2];
    CHILD_CHECK(::socketpair(AF_UNIX, SOCK_DGRAM, 0, others) == 0);
    CHILD_CHECK(::dup2(others[0], number) == number);
    CHILD_CHECK(Sends(log, "second"));
    CHILD_CHECK(Taken(others[1], SOCK_DGRAM).empty());
    CHILD_CHECK(Taken(logger, SOCK_DGRAM).find("]: second") != std::string::npos);
    CHILD_CHECK(AreOneFile(number, others[0])); // it is not the log's to close
    const int next = NextNumber();
    os::SystemLog other;
    CHILD_CHECK(Sends(other, "third") && Taken(logger, SOCK_DGRAM).find("]: third") != std::string::npos);
    CHILD_CHECK(::dup2(others[0], next) == next);
    other.Close();
    CHILD_CHECK(AreOneFile(next, others[0]));
    const int last = NextNumber();
    {
        os::SystemLog ending;
        CHILD_CHECK(Sends(ending, "fourth") && Taken(logger, SOCK_DGRAM).find("]: fourth") != std::string::npos);
        CHILD_CHECK(::dup2(others[0], last) == last);
    }
    CHILD_CHECK(AreOneFile(last, others[0]));
    return 0;
}

int g_logger = -1, g_number = -1; // for the handler below

void TakeTheNumberAndAllRecords(int)
{
    ::dup2(STDOUT_FILENO, g_number);
    char record[4096];
    while (::recv(g_logger, record, sizeof record, MSG_DONTWAIT) > 0)
        ;
}

// The same while the log waits for room: it has found the descriptor its own by then. Where it has not, on a machine
// that is very slow, nothing is shown.
int WriteWhereTheNumberBecomesAnothersMeanwhile()
{
    g_logger = MakeLogger(SOCK_DGRAM);
    CHILD_CHECK(g_logger >= 0);
    g_number = NextNumber();
    os::SystemLog log;
    while (Sends(log, "fills the queue"))
        CHILD_CHECK(log.IsConnected());
    ::signal(SIGALRM, TakeTheNumberAndAllRecords);
    const struct itimerval soon = {{0, 0}, {0, 200000}};
    CHILD_CHECK(::setitimer(ITIMER_REAL, &soon, nullptr) == 0);
    CHILD_CHECK(Sends(log, "waits", 30000));
    CHILD_CHECK(AreOneFile(g_number, STDOUT_FILENO)); // it is not the log's to close
    return 0;
}

// A queue that is full is no reason to let the connection go, and waited for no longer than it is said.
int WriteToAFullQueue(int type)
{
    os::SystemLog log;
    CHILD_CHECK(MakeLogger(type) >= 0);
    int taken = 0;
    while (Sends(log, "fills the queue"))
        CHILD_CHECK(++taken < 100000);
    CHILD_CHECK(log.IsConnected());
    const auto begin = std::chrono::steady_clock::now();
    CHILD_CHECK(!Sends(log, "waits", 50));
    CHILD_CHECK(std::chrono::steady_clock::now() - begin >= std::chrono::milliseconds(40));
    return 0;
}

} // namespace

TEST(SystemLog, ANumberThatIsAnothersByNowGetsNothing)
{
    const int result = InOwnMounts([] {
        ::alarm(60);
        return WriteWhereTheNumberBecomesAnothers();
    });
    if (result == -1)
        GTEST_SKIP() << "NO NAMESPACES here";
    EXPECT_EQ(result, 0);
}

TEST(SystemLog, ANumberThatBecomesAnothersMeanwhileStaysOpen)
{
    const int result = InOwnMounts(WriteWhereTheNumberBecomesAnothersMeanwhile);
    if (result == -1)
        GTEST_SKIP() << "NO NAMESPACES here";
    EXPECT_EQ(result, 0);
}

TEST(SystemLog, ConnectionIsKeptAndMadeAnewWhenItsLoggerIs)
{
    const int result = InOwnMounts([] {
        ::alarm(60);
        return WriteToALoggerThatIsStartedAnew();
    });
    if (result == -1)
        GTEST_SKIP() << "NO NAMESPACES here";
    EXPECT_EQ(result, 0);
}

TEST(SystemLog, ConnectionOutlivesAFullQueue)
{
    for (const int type : {SOCK_DGRAM, SOCK_STREAM}) {
        const int result = InOwnMounts([&] {
            ::alarm(60);
            return WriteToAFullQueue(type);
        });
        if (result == -1)
            GTEST_SKIP() << "NO NAMESPACES here";
        EXPECT_EQ(result, 0) << type;
    }
}

TEST(SystemLog, DescriptorThatSomebodyHasClosedIsNotClosedAgain)
{
    const int result = InOwnMounts([] {
        os::SystemLog log;
        CHILD_CHECK(MakeLogger(SOCK_DGRAM) >= 0);
        const int next = NextNumber(); // that the connection will have
        CHILD_CHECK(Sends(log, "one"));
        ::close(next);
        CHILD_CHECK(::open("/dev", O_RDONLY) == next);
        CHILD_CHECK(Sends(log, "two"));
        CHILD_CHECK(::fcntl(next, F_GETFD) >= 0);
        return 0;
    });
    if (result == -1)
        GTEST_SKIP() << "NO NAMESPACES here";
    EXPECT_EQ(result, 0);
}

TEST(SystemLog, RecordOfAHandlerComesAsItIs)
{
    for (const int type : {SOCK_DGRAM, SOCK_STREAM}) {
        const int result = InOwnMounts([&] {
            const int logger = MakeLogger(type);
            CHILD_CHECK(os::SendToSystemLogInHandler("<10>x[1]: text", 14));
            const std::string record = Taken(logger, type);
            CHILD_CHECK(record == std::string("<10>x[1]: text", type == SOCK_STREAM ? 15 : 14));
            ::close(logger);
            CHILD_CHECK(!os::SendToSystemLogInHandler("<10>x[1]: text", 14));
            return 0;
        });
        if (result == -1)
            GTEST_SKIP() << "NO NAMESPACES here";
        EXPECT_EQ(result, 0) << type;
    }
}

TEST(SystemLog, FacilitiesAreThoseOfTheirNames)
{
    EXPECT_EQ(os::SystemLogFacility("daemon"), LOG_DAEMON);
    EXPECT_EQ(os::SystemLogFacility("local7"), LOG_LOCAL7);
    EXPECT_EQ(os::SystemLogFacility("off"), -1);
    EXPECT_EQ(os::SystemLogFacility(""), -1);
    const VexCore::Setting& setting = *VexCore::FindSetting("app.log.syslog");
    for (std::int64_t place = 1; place <= setting.most; ++place)
        EXPECT_GE(os::SystemLogFacility(VexCore::ChoiceWord(setting, place)), 0) << place;
    EXPECT_EQ(VexCore::ChoiceWord(setting, setting.most), "local7");
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
