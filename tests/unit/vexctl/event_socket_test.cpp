#include "vex/apps/vexctl/command.h"
#include "vex/apps/vexctl/event_socket.h"

#include "support/joining_thread.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <future>
#include <string>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using namespace Vexctl;
using ::Test::JoiningThread;
using ::Test::TempFolder;

namespace {
constexpr int patienceMs = 60000;

class Logger
{
public:
    Logger(const std::string& path, int type) : m_descriptor(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0))
    {
        struct sockaddr_un name = {};
        name.sun_family = AF_UNIX;
        path.copy(name.sun_path, sizeof name.sun_path - 1);
        EXPECT_EQ(::bind(m_descriptor, reinterpret_cast<struct sockaddr*>(&name), sizeof name), 0);
        if (type == SOCK_STREAM) {
            EXPECT_EQ(::listen(m_descriptor, 1), 0);
        }
    }
    ~Logger() { ::close(m_descriptor); }

    int Accept() const { return IsReady(m_descriptor) ? ::accept(m_descriptor, nullptr, nullptr) : -1; }
    std::string Datagram() const { return ReadFrom(m_descriptor); }

    static std::string ReadFrom(int descriptor)
    {
        std::string bytes(1 << 20, '\0');
        const ssize_t size = IsReady(descriptor) ? ::recv(descriptor, bytes.data(), bytes.size(), 0) : -1;
        return size < 0 ? "nothing came" : bytes.substr(0, static_cast<std::size_t>(size));
    }

private:
    static bool IsReady(int descriptor)
    {
        struct pollfd polled = {descriptor, POLLIN, 0};
        return ::poll(&polled, 1, patienceMs) == 1;
    }

    const int m_descriptor;
};

class EventSockets : public testing::Test
{
protected:
    const TempFolder m_folder;
    const std::string m_path = m_folder / "log";
    std::string m_notes;
    EventSocket m_socket{m_path, [this](const std::string& text) { m_notes += text + "\n"; }};
};

} // namespace

TEST_F(EventSockets, EachRecordIsADatagram)
{
    const Logger logger(m_path, SOCK_DGRAM);
    m_socket.Send("one");
    m_socket.Send("two");
    EXPECT_EQ(logger.Datagram(), "one");
    EXPECT_EQ(logger.Datagram(), "two");
    EXPECT_EQ(m_notes, "");
}

TEST_F(EventSockets, InAStreamANulEndsEach)
{
    const Logger logger(m_path, SOCK_STREAM);
    m_socket.Send("one");
    m_socket.Send("two");
    const int connection = logger.Accept();
    std::string got;
    while (got.size() < 8)
        got += Logger::ReadFrom(connection);
    EXPECT_EQ(got, std::string("one\0two\0", 8));
    ::close(connection);
}

TEST_F(EventSockets, ARecordWaitsForALoggerThatIsNotThere)
{
    std::promise<void> hasNoted;
    std::string notes;
    JoiningThread sender([&] {
        EventSocket socket(m_path, [&](const std::string& text) {
            if (notes.empty())
                hasNoted.set_value();
            notes += text + "\n";
        });
        socket.Send("one");
        socket.Send("two");
    });
    hasNoted.get_future().wait();
    const Logger logger(m_path, SOCK_DGRAM);
    EXPECT_EQ(logger.Datagram(), "one");
    EXPECT_EQ(logger.Datagram(), "two");
    sender.join();
    EXPECT_EQ(notes, m_path + " takes no events (No such file or directory); they wait until it does\n" + m_path
                         + " takes events again\n");
}

TEST_F(EventSockets, ALoggerThatWasStartedAgainGetsWhatComesThen)
{
    {
        const Logger logger(m_path, SOCK_DGRAM);
        m_socket.Send("one");
        EXPECT_EQ(logger.Datagram(), "one");
    }
    ::unlink(m_path.c_str());
    const Logger next(m_path, SOCK_DGRAM);
    m_socket.Send("two");
    EXPECT_EQ(next.Datagram(), "two");
}

TEST_F(EventSockets, NothingIsLostWhereALoggerIsSlowerThanTheEvents)
{
    constexpr int records = 2000;
    const Logger logger(m_path, SOCK_DGRAM);
    JoiningThread sender([this] {
        for (int number = 0; number < records; ++number)
            m_socket.Send(std::to_string(number));
    });
    for (int number = 0; number < records; ++number)
        ASSERT_EQ(logger.Datagram(), std::to_string(number));
    sender.join();
}

TEST_F(EventSockets, WhatNoDatagramHoldsIsCutAndTold)
{
    const Logger logger(m_path, SOCK_DGRAM);
    std::string got;
    JoiningThread reader([&] { got = logger.Datagram(); });
    m_socket.Send(std::string(64u << 20, 'x'));
    reader.join();
    EXPECT_EQ(got.substr(0, 1000), std::string(1000, 'x'));
    EXPECT_NE(m_notes.find("an event of 67108864 bytes is too long for " + m_path + ": it was cut to "),
              std::string::npos)
        << m_notes;
}

TEST_F(EventSockets, APathThatNoSocketCanHaveIsTold)
{
    EXPECT_THROW(EventSocket("", nullptr), Failure);
    EXPECT_THROW(EventSocket("/" + std::string(200, 'x'), nullptr), Failure);
}
