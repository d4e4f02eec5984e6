#include "vex/core/pidfile.h"
#include "vex_core/os/process_info.h"
#include "vex_core/process/pidfile_text.h"

#include "support/child.h"
#include "support/fail_nth.h"
#include "support/joining_thread.h"
#include "support/log_catcher.h"
#include "support/process_guards.h"
#include "support/temp_folder.h"

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <thread>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace VexCore;

namespace {
class PidFile : public testing::Test
{
protected:
    long Read() { return ReadPidFile(wxString::FromUTF8(m_path.c_str())); }
    bool Write() { return WritePidFile(wxString::FromUTF8(m_path.c_str())); }
    long ReadText(const std::string& text)
    {
        ::Test::WriteFile(m_path, text);
        return Read();
    }
    std::size_t FilesInFolder()
    {
        std::size_t count = 0;
        for (const auto& item : std::filesystem::directory_iterator(m_folder.Path()))
            count += item.exists() ? 1 : 0;
        return count;
    }
    static std::string OwnStart()
    {
        os::ProcessInfo info;
        return os::GetProcessInfo(getpid(), info) ? std::to_string(info.startTime) : "none";
    }

    ::Test::TempFolder m_folder;
    const std::string m_path = m_folder / "agent.pid";
};

// A pid that no process has: of a child that has ended and was waited for.
pid_t DeadPid()
{
    const pid_t pid = fork();
    if (pid == 0)
        _exit(0);
    waitpid(pid, nullptr, 0);
    return pid;
}

} // namespace

TEST_F(PidFile, WrittenFileNamesThisProcess)
{
    ASSERT_TRUE(Write());
    EXPECT_EQ(Read(), getpid());
    EXPECT_EQ(::Test::ReadFile(m_path), std::to_string(getpid()) + "\n" + OwnStart() + "\n");
    EXPECT_EQ(FilesInFolder(), 1u);
}

TEST_F(PidFile, ModeIs0644WhateverTheUmask)
{
    for (const mode_t mask : {0u, 022u, 077u, 0777u}) {
        const ::Test::FileModeMask restricted(mask);
        struct stat status;
        ASSERT_TRUE(Write());
        ASSERT_EQ(stat(m_path.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777u, 0644u) << mask;
    }
}

TEST_F(PidFile, MissingFileIsNobody)
{
    EXPECT_EQ(Read(), 0);
}

TEST_F(PidFile, MalformedTextIsNobody)
{
    for (const char* text : {"",
                             "\n",
                             " ",
                             "\n123\n",
                             "abc",
                             "12a",
                             "a12",
                             "-12",
                             "+12",
                             "0x12",
                             "1 2",
                             "12 34",
                             "12\nabc",
                             "12\n-3",
                             "12\n3\n4",
                             "12\n3\nx",
                             "12.0",
                             "12\n\n\n",
                             "99999999999999999999",
                             "12\n99999999999999999999999"})
        EXPECT_EQ(ReadText(text), 0) << '"' << text << '"';
    EXPECT_EQ(ReadText(std::string("12\0", 3)), 0);
    EXPECT_EQ(ReadText(std::string("\xFF\xFE"
                                   "1\0",
                                   4)),
              0);
}

TEST_F(PidFile, PidBelowTwoOrOutOfRangeIsNobody)
{
    for (const char* text : {"0", "1", "2147483648", "4294967298", "18446744073709551618", "18446744073709551615"})
        EXPECT_EQ(ReadText(text), 0) << text;
}

TEST_F(PidFile, PidAloneIsAccepted)
{
    const std::string pid = std::to_string(getpid());
    for (const std::string& text :
         {pid, pid + "\n", pid + "\r\n", " " + pid + " \n", "\t" + pid + "\t", "000" + pid, pid + "\n\n"})
        EXPECT_EQ(ReadText(text), getpid()) << text;
}

TEST_F(PidFile, DeadPidIsReturnedAsItIs)
{
    const pid_t dead = DeadPid();
    EXPECT_EQ(ReadText(std::to_string(dead) + "\n"), dead);
    EXPECT_EQ(ReadText(std::to_string(dead) + "\n12345\n"), dead);
    EXPECT_EQ(ReadText("2147483647\n"), 2147483647);
}

TEST_F(PidFile, ReusedPidIsNobody)
{
    const std::string pid = std::to_string(getpid());
    EXPECT_EQ(ReadText(pid + "\n" + OwnStart() + "\n"), getpid());
    EXPECT_EQ(ReadText(pid + "\n" + OwnStart() + "1\n"), 0);
    EXPECT_EQ(ReadText(pid + "\n0\n"), 0);
}

TEST_F(PidFile, ProcessThatEndedButWasNotWaitedForIsNobody)
{
    const pid_t pid = ::Test::Fork([] { return 0; }, true);
    siginfo_t ended;
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(ReadText(std::to_string(pid) + "\n"), 0);
    waitpid(pid, nullptr, 0);
    EXPECT_EQ(ReadText(std::to_string(pid) + "\n"), pid);
}

TEST_F(PidFile, MegabyteIsNobody)
{
    EXPECT_EQ(ReadText(std::string(1 << 20, '7')), 0);
    EXPECT_EQ(ReadText(std::to_string(getpid()) + std::string(1 << 20, '\n')), 0);
    const std::string pid = std::to_string(getpid());
    EXPECT_EQ(ReadText(pid + std::string(128 - pid.size(), ' ')), getpid());
    EXPECT_EQ(ReadText(pid + std::string(129 - pid.size(), ' ')), 0);
}

TEST_F(PidFile, FolderIsNobodyAndIsNotReplaced)
{
    ASSERT_EQ(mkdir(m_path.c_str(), 0755), 0);
    EXPECT_EQ(Read(), 0);
    ::Test::LogCatcher log;
    EXPECT_FALSE(Write());
    EXPECT_EQ(log.Count(wxLOG_Error, "Unable to write the pid file '" + m_path + "'"), 1u) << log.All();
    EXPECT_EQ(log.Lines().size(), 1u) << log.All();
    EXPECT_EQ(FilesInFolder(), 1u);
}

TEST_F(PidFile, FifoIsNobodyAndDoesNotBlock)
{
    ASSERT_EQ(mkfifo(m_path.c_str(), 0644), 0);
    EXPECT_EQ(Read(), 0);
    EXPECT_TRUE(Write());
    EXPECT_EQ(Read(), getpid());
}

TEST_F(PidFile, SymbolicLinkIsFollowedWhenReadAndReplacedWhenWritten)
{
    const std::string target = m_folder / "target";
    ASSERT_EQ(symlink(target.c_str(), m_path.c_str()), 0);
    EXPECT_EQ(Read(), 0) << "dangling";
    ::Test::WriteFile(target, "77777\n");
    EXPECT_EQ(Read(), 77777);
    ASSERT_TRUE(Write());
    EXPECT_EQ(Read(), getpid());
    EXPECT_FALSE(std::filesystem::is_symlink(m_path));
    EXPECT_EQ(::Test::ReadFile(target), "77777\n");
}

TEST_F(PidFile, TemporaryFileLeftByAKilledNamesakeIsReplaced)
{
    // The name has a serial number, so the next few are laid.
    for (int serial = 0; serial < 200; ++serial)
        ::Test::WriteFile(m_path + "." + std::to_string(getpid()) + "." + std::to_string(serial) + ".tmp", "rubbish");
    ASSERT_TRUE(Write());
    EXPECT_EQ(Read(), getpid());
}

TEST_F(PidFile, EachFailingCallLeavesTheOldFileAndNoTemporary)
{
    ::Test::WriteFile(m_path, "4242\n");
    int failures = 0;
    for (int n = 1; n < 100; ++n) {
        ::Test::LogCatcher log;
        ::Test::FailNth fault(n, ENOSPC);
        const bool written = Write();
        fault.Stop();
        EXPECT_EQ(FilesInFolder(), 1u) << n;
        if (written) {
            EXPECT_EQ(Read(), getpid());
            EXPECT_TRUE(log.Lines().empty()) << log.All();
            ::Test::WriteFile(m_path, "4242\n");
        } else {
            ++failures;
            EXPECT_EQ(::Test::ReadFile(m_path), "4242\n") << n;
            EXPECT_EQ(log.Count(wxLOG_Error, "Unable to write the pid file"), 1u) << log.All();
            EXPECT_EQ(log.Lines().size(), 1u) << log.All();
            EXPECT_NE(log.All().find("28"), std::string::npos) << log.All();
        }
        if (!fault.WasHit())
            break;
    }
    EXPECT_GE(failures, 4); // open, write, fchmod, rename
}

TEST_F(PidFile, ReaderNeverSeesAPartialFile)
{
    ASSERT_TRUE(Write());
    ::Test::JoiningThread writer([this](const std::atomic<bool>& stop) {
        while (!stop)
            Write();
    });
    for (int i = 0; i < 2000; ++i)
        if (Read() != getpid()) {
            ADD_FAILURE() << "read " << i;
            break;
        }
    writer.Stop();
}

TEST(PidFileText, StartTimeIsOptional)
{
    const PidFileText alone = ParsePidFile("77\n", 3);
    EXPECT_EQ(alone.pid, 77);
    EXPECT_FALSE(alone.hasStartTime);
    const PidFileText both = ParsePidFile("77\n88", 5);
    EXPECT_EQ(both.pid, 77);
    EXPECT_TRUE(both.hasStartTime);
    EXPECT_EQ(both.startTime, 88u);
}

TEST(PidFileText, StartTimeIsANumberOf64Bits)
{
    const std::string largest = "77\n18446744073709551615";
    EXPECT_EQ(ParsePidFile(largest.data(), largest.size()).startTime, UINT64_MAX);
    const std::string more = "77\n18446744073709551616";
    EXPECT_EQ(ParsePidFile(more.data(), more.size()).pid, 0);
}
