#include "vex/core/execute.h"

#include "support/child.h"
#include "support/joining_thread.h"
#include "support/log_catcher.h"
#include "support/process_guards.h"
#include "support/temp_folder.h"
#include "vex_core/os/process_info.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <string_view>
#include <thread>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <wx/arrstr.h>

using namespace VexCore;

namespace {
struct Result
{
    bool ran = false;
    wxString output;
    int code = -99;
    wxString error;
};

Result RunProgram(const std::string& program, const std::vector<std::string>& arguments, long timeoutMs = 0)
{
    wxArrayString list;
    for (const std::string& argument : arguments)
        list.Add(wxString::FromUTF8(argument.data(), argument.size()));
    Result result;
    result.ran =
        Execute(wxString::FromUTF8(program.c_str()), list, result.output, result.code, result.error, timeoutMs);
    return result;
}

Result Shell(const std::string& script, long timeoutMs = 0)
{
    return RunProgram("/bin/sh", {"-c", script}, timeoutMs);
}

long ElapsedMs(std::chrono::steady_clock::time_point since)
{
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - since).count());
}

// The line of /proc/self/status of a program that we run.
std::string StatusLine(const std::string& name)
{
    return std::string(RunProgram("/bin/grep", {"^" + name + ":", "/proc/self/status"}).output.utf8_str());
}

class DispositionKept
{
public:
    DispositionKept(int signal, void (*handler)(int), int flags = 0) : m_signal(signal)
    {
        struct sigaction action = {};
        action.sa_handler = handler;
        action.sa_flags = flags;
        sigaction(signal, &action, &m_before);
    }
    ~DispositionKept() { sigaction(m_signal, &m_before, nullptr); }

private:
    int m_signal;
    struct sigaction m_before = {};
};

std::atomic<int> g_handled{0};
static_assert(std::atomic<int>::is_always_lock_free, "a signal handler counts with it");

void CountSignal(int)
{
    ++g_handled;
}

} // namespace

TEST(HelperProgram, CapturesBothStreamsInTheirOrder)
{
    ::Test::LogCatcher log;
    const Result result = Shell("echo one; echo two >&2; echo three");
    EXPECT_TRUE(result.ran);
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.output, "one\ntwo\nthree\n");
    EXPECT_TRUE(result.error.empty());
    EXPECT_TRUE(log.Lines().empty()) << log.All();
}

TEST(HelperProgram, ArgumentsArriveUntouchedByAnyShell)
{
    const Result result = RunProgram("/usr/bin/printf", {"[%s]", "a b", "$HOME", "*", "'\"", "", "\xC3\xA4;exit 3"});
    EXPECT_EQ(result.output, wxString::FromUTF8("[a b][$HOME][*]['\"][][\xC3\xA4;exit 3]"));
}

TEST(HelperProgram, ExitCodeIsOneWarningAndStillTrue)
{
    ::Test::LogCatcher log;
    const Result result = Shell("exit 3");
    EXPECT_TRUE(result.ran);
    EXPECT_EQ(result.code, 3);
    ASSERT_EQ(log.Lines().size(), 1u) << log.All();
    EXPECT_EQ(log.Count(wxLOG_Warning, "Program '/bin/sh' ended with code 3"), 1u) << log.All();
}

TEST(HelperProgram, SignalIsOneWarningAndCode128PlusItsNumber)
{
    ::Test::LogCatcher log;
    const Result result = Shell("kill -9 $$");
    EXPECT_TRUE(result.ran);
    EXPECT_EQ(result.code, 128 + SIGKILL);
    ASSERT_EQ(log.Lines().size(), 1u) << log.All();
    EXPECT_EQ(log.Count(wxLOG_Warning, "Program '/bin/sh' was ended by signal 9"), 1u) << log.All();
}

TEST(HelperProgram, IsWaitedForWithoutTakingAnyProcessorTime)
{
    const auto spent = [] {
        struct timespec time = {};
        ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
    };
    const double before = spent();
    EXPECT_TRUE(Shell("sleep 0.5").ran);
    EXPECT_LT(spent() - before, 0.2);
}

TEST(HelperProgram, ProgramThatCannotStartIsFalseWithReason)
{
    ::Test::TempFolder folder;
    ::Test::LogCatcher log;
    const std::string plain = folder / "plain";
    ::Test::WriteFile(plain, "#!/bin/sh\n");
    chmod(plain.c_str(), 0644);
    const std::string headless = folder / "headless";
    ::Test::WriteFile(headless, "echo no interpreter line\n");
    chmod(headless.c_str(), 0755);
    const std::pair<std::string, const char*> cases[] = {
        {folder / "missing", "No such file or directory"},
        {plain, "Permission denied"},
        {folder.Path(), "Permission denied"},
        {headless, "Exec format error"},
        {"no-such-program-anywhere", "No such file or directory"},
        {"", "No such file or directory"},
    };
    for (const auto& item : cases) {
        const Result result = RunProgram(item.first, {});
        EXPECT_FALSE(result.ran) << item.first;
        EXPECT_EQ(result.error, wxString::FromUTF8(("Unable to run '" + item.first + "': " + item.second).c_str()));
        EXPECT_EQ(result.error.find('\n'), wxString::npos);
    }
    EXPECT_TRUE(log.Lines().empty()) << log.All();
}

TEST(HelperProgram, NameWithoutSlashIsLookedUpInEachFolderOfPath)
{
    const ::Test::TempFolder empty;
    const std::string before = std::getenv("PATH");
    for (const std::string& path : {before, "/usr/bin:" + empty.Path(), empty.Path() + ":/usr/bin:" + empty.Path(),
                                    ":" + empty.Path() + "::/usr/bin"}) {
        ::setenv("PATH", path.c_str(), 1);
        const wxString output = RunProgram("printf", {"%s", "found"}).output;
        ::setenv("PATH", before.c_str(), 1);
        EXPECT_EQ(output, "found") << path;
    }
}

TEST(HelperProgram, NameWithoutSlashIsLookedUpWhereTheSystemKeepsItsProgramsWithoutAPath)
{
    const std::string before = std::getenv("PATH");
    ::unsetenv("PATH");
    const wxString unset = RunProgram("printf", {"%s", "found"}).output;
    ::setenv("PATH", "", 1);
    const wxString empty = RunProgram("printf", {"%s", "found"}).output;
    ::setenv("PATH", before.c_str(), 1);
    EXPECT_EQ(unset, "found");
    EXPECT_EQ(empty, "found");
}

TEST(HelperProgram, StandardInputIsEmpty)
{
    EXPECT_EQ(RunProgram("/bin/cat", {}).output, "");
}

TEST(HelperProgram, OutputIsCutAt16MiBAndTheProgramEndsAllTheSame)
{
    const Result result = Shell("head -c 20000000 /dev/zero | tr '\\0' x; exit 0");
    EXPECT_TRUE(result.ran);
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.output.length(), static_cast<std::size_t>(16) << 20);
}

TEST(HelperProgram, CutDoesNotSplitACharacter)
{
    // 3-byte characters do not divide 16 MiB: the cut falls inside one.
    const Result result = Shell("head -c 6000000 /dev/zero | sed 's/\\x00/\\xe2\\x82\\xac/g'");
    EXPECT_TRUE(result.ran);
    ASSERT_EQ(result.output.length(), (static_cast<std::size_t>(16) << 20) / 3);
    EXPECT_EQ(result.output[0], wxUniChar(0x20AC));
    EXPECT_EQ(result.output.Last(), wxUniChar(0x20AC));
}

TEST(HelperProgram, CutLeavesACharacterThatIsWhole)
{
    const auto lengthOf = [](const char* before, const char* character) {
        const wxString output = RunProgram("perl", {"-e", std::string("binmode STDOUT; print '") + before
                                                              + "', pack('H*', '" + character + "') x 10000000"})
                                    .output;
        EXPECT_GE(output.Last(), wxUniChar(0xE9)) << before << character; // the character, and no byte of it alone
        return output.length() - std::string_view(before).size();
    };
    constexpr std::size_t most = static_cast<std::size_t>(16) << 20;
    EXPECT_EQ(lengthOf("", "c3a9"), most / 2);
    EXPECT_EQ(lengthOf("x", "c3a9"), most / 2 - 1);
    EXPECT_EQ(lengthOf("xx", "e0a481"), (most - 2) / 3);
    EXPECT_EQ(lengthOf("", "f0908d88"), most / 4);
    EXPECT_EQ(lengthOf("x", "f0908d88"), most / 4 - 1);
}

TEST(HelperProgram, OutputThatIsNotUtf8IsTakenAsLatin1)
{
    EXPECT_EQ(RunProgram("/usr/bin/printf", {"\\344"}).output, wxString(wxUniChar(0xE4)));
    EXPECT_EQ(RunProgram("/usr/bin/printf", {"a\\000b"}).output.length(), 3u);
}

TEST(HelperProgram, ProgramInheritsNoOtherDescriptor)
{
    std::vector<int> extra;
    for (int i = 0; i < 200; ++i)
        extra.push_back(open("/dev/null", O_RDONLY)); // not close-on-exec
    const Result result = Shell("ls /proc/self/fd | tr '\\n' ' '");
    for (const int descriptor : extra)
        close(descriptor);
    EXPECT_EQ(result.output, "0 1 2 3 "); // 3 is the listing's own
}

TEST(HelperProgram, LeavesNoDescriptorBehind)
{
    const auto count = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                             std::filesystem::directory_iterator());
    };
    const ::Test::TempFolder empty;
    Shell("true");
    const auto before = count();
    Shell("echo x");
    RunProgram(empty / "no-program", {});
    EXPECT_EQ(count(), before);
}

TEST(HelperProgram, ProgramStartsWithDefaultDispositionsAndEmptyMask)
{
    DispositionKept ignored(SIGTERM, SIG_IGN);
    DispositionKept ignoredPipe(SIGPIPE, SIG_IGN);
    const ::Test::SignalGuard signals;
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    sigaddset(&blocked, SIGCHLD);
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    const std::string mask = StatusLine("SigBlk");
    const std::string ignoredSet = StatusLine("SigIgn");
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    EXPECT_EQ(mask, "SigBlk:\t0000000000000000\n");
    EXPECT_EQ(ignoredSet, "SigIgn:\t0000000000000000\n");
    EXPECT_EQ(sigismember(&after, SIGUSR1), 1) << "our own mask is as it was";
    struct sigaction now;
    sigaction(SIGTERM, nullptr, &now);
    EXPECT_EQ(now.sa_handler, SIG_IGN) << "our own disposition is as it was";
}

TEST(HelperProgram, WorksWhileSigchldIsIgnored)
{
    ::Test::LogCatcher log;
    DispositionKept ignored(SIGCHLD, SIG_IGN);
    const Result result = Shell("echo here; exit 5");
    EXPECT_TRUE(result.ran);
    EXPECT_EQ(result.code, 5);
    struct sigaction now;
    sigaction(SIGCHLD, nullptr, &now);
    EXPECT_EQ(now.sa_handler, SIG_IGN);
}

TEST(HelperProgram, WorksWhileStatusesAreNotKept)
{
    ::Test::LogCatcher log;
    const DispositionKept notKept(SIGCHLD, SIG_DFL, SA_NOCLDWAIT);
    const Result result = Shell("exit 5");
    EXPECT_TRUE(result.ran) << result.error;
    EXPECT_EQ(result.code, 5);
    struct sigaction now;
    sigaction(SIGCHLD, nullptr, &now);
    EXPECT_EQ(now.sa_flags & SA_NOCLDWAIT, SA_NOCLDWAIT);
}

TEST(HelperProgram, WorksWhileSigchldIsBlocked)
{
    const ::Test::SignalGuard signals;
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGCHLD);
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    const Result result = Shell("echo here");
    // Ours stays pending: take it, so that it does not come over a later test.
    const struct timespec none = {0, 0};
    sigtimedwait(&blocked, nullptr, &none);
    EXPECT_EQ(result.output, "here\n");
}

TEST(HelperProgram, GrandchildThatKeepsThePipeDoesNotHoldUs)
{
    const auto start = std::chrono::steady_clock::now();
    const Result result = Shell("sleep 60 & echo started");
    EXPECT_TRUE(result.ran);
    EXPECT_EQ(result.output, "started\n");
    EXPECT_LT(ElapsedMs(start), 30000);
}

TEST(HelperProgram, ProgramThatClosesItsStreamsIsStillWaitedFor)
{
    ::Test::TempFolder folder;
    const Result result = Shell("exec >/dev/null 2>&1; sleep 0.3; touch " + (folder / "done"));
    EXPECT_TRUE(result.ran);
    EXPECT_TRUE(std::filesystem::exists(folder / "done"));
}

TEST(HelperProgram, TimeLimitKillsTheWholeGroup)
{
    ::Test::LogCatcher log;
    const auto start = std::chrono::steady_clock::now();
    // The limit leaves it the time to get that far on a busy machine.
    const Result result = Shell("sleep 60 & echo $!; wait", 1500);
    EXPECT_LT(ElapsedMs(start), 30000);
    EXPECT_FALSE(result.ran);
    EXPECT_EQ(result.error, "Program '/bin/sh' was killed, because it took longer than 1500 ms");
    EXPECT_TRUE(log.Lines().empty()) << log.All();
    const pid_t other = static_cast<pid_t>(wxAtoi(result.output));
    ASSERT_GT(other, 1) << result.output;
    const auto runs = [other] {
        VexCore::os::ProcessInfo info;
        return VexCore::os::GetProcessInfo(other, info) && !info.zombie;
    };
    while (runs() && ElapsedMs(start) < 30000)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_FALSE(runs());
}

TEST(HelperProgram, TimeLimitKillsAProgramThatHasLeftItsGroup)
{
    const auto body = [] {
        ::setpgid(0, 0); // a group that a program of ours can see and join
        const auto start = std::chrono::steady_clock::now();
        const Result result = RunProgram("perl", {"-e", "setpgrp(0, getpgrp(getppid())) or exit 3; sleep 10"}, 500);
        return !result.ran && result.error.Contains("was killed") && ElapsedMs(start) < 8000 ? 0 : 1;
    };
    EXPECT_TRUE(::Test::RunChild(body, true).Exited(0));
}

TEST(HelperProgram, ProgramWhoseStatusSomebodyElseTookIsFalseWithReason)
{
    ::Test::TempFolder folder;
    const DispositionKept restored(SIGCHLD, SIG_DFL);
    ::Test::JoiningThread somebody([&](const std::atomic<bool>& stop) {
        while (!stop && !std::filesystem::exists(folder / "runs"))
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        ::signal(SIGCHLD, SIG_IGN);
        ::Test::WriteFile(folder / "go", "");
    });
    const Result result =
        Shell("touch " + (folder / "runs") + "; while [ ! -e " + (folder / "go") + " ]; do sleep 0.01; done");
    somebody.join();
    EXPECT_FALSE(result.ran);
    EXPECT_EQ(result.error, "Program '/bin/sh' ended, but somebody else took its status");
}

TEST(HelperProgram, TimeLimitHoldsAgainstAFloodOfOutput)
{
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(RunProgram("/usr/bin/yes", {}, 300).ran);
    EXPECT_LT(ElapsedMs(start), 30000);
}

TEST(HelperProgram, ProgramWithinItsTimeLimitIsUntouched)
{
    const Result result = Shell("sleep 0.1; echo done", 60000);
    EXPECT_TRUE(result.ran);
    EXPECT_EQ(result.output, "done\n");
}

TEST(HelperProgram, SignalHandlersOfOursRunWhileItWaits)
{
    g_handled = 0;
    DispositionKept handler(SIGUSR2, CountSignal); // without SA_RESTART: calls are interrupted
    const pthread_t self = pthread_self();
    ::Test::JoiningThread sender([self] {
        for (int i = 0; i < 5; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(40));
            pthread_kill(self, SIGUSR2);
            // A second one that comes before the first is handled is none.
            for (int wait = 0; g_handled == i && wait < 5000; ++wait)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    const Result result = Shell("sleep 0.5; echo done");
    sender.join();
    EXPECT_TRUE(result.ran);
    EXPECT_EQ(result.output, "done\n");
    EXPECT_EQ(g_handled, 5);
}

TEST(HelperProgram, ManyThreadsAtOnce)
{
    std::vector<::Test::JoiningThread> threads;
    std::atomic<int> good{0};
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&good, t] {
            for (int i = 0; i < 5; ++i) {
                const std::string text = std::to_string(t) + "." + std::to_string(i);
                if (RunProgram("/bin/echo", {text}).output == wxString(text + "\n"))
                    ++good;
            }
        });
    for (::Test::JoiningThread& thread : threads)
        thread.join();
    EXPECT_EQ(good, 40);
}
