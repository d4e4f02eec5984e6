#pragma once
// What a test changes of its process, put back when the object goes, however the test ends: by its last
// line, by a failed assertion or by an exception. A change that cannot be made throws, one that cannot be
// taken back fails the test.

#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <wx/debug.h>
#include <wx/log.h>

namespace Test {

/// Gives a variable of the program its value back.
template <class T>
class Restored
{
public:
    explicit Restored(T& variable) : m_variable(variable), m_before(variable) {}
    ~Restored() { m_variable = m_before; }
    Restored(const Restored&) = delete;
    Restored& operator=(const Restored&) = delete;

private:
    T& m_variable;
    const T m_before;
};

/// Assertions of the framework that input can trip are kept off the screen, as the launcher keeps them; else they fail
/// the test.
class AssertionsAreQuiet
{
public:
    AssertionsAreQuiet() : m_before(wxSetAssertHandler(Ignore)) {}
    ~AssertionsAreQuiet() { wxSetAssertHandler(m_before); }
    AssertionsAreQuiet(const AssertionsAreQuiet&) = delete;
    AssertionsAreQuiet& operator=(const AssertionsAreQuiet&) = delete;

private:
    static void Ignore(const wxString&, int, const wxString&, const wxString&, const wxString&) {}
    const wxAssertHandler_t m_before;
};

/// The process, which must be root's, is another user's that owns nothing:
/// by its real id, by its effective one, or by both.
class OtherUser
{
public:
    static constexpr uid_t id = 65534;
    enum class Ids { Real, Effective, Both };

    explicit OtherUser(Ids ids)
    {
        if (::getuid() != 0 || ::geteuid() != 0)
            throw std::runtime_error("only root can become another user and come back");
        if ((ids != Ids::Effective && ::setreuid(id, 0) != 0) || (ids != Ids::Real && ::seteuid(id) != 0)) {
            const int error = errno;
            Restore();
            throw std::system_error(error, std::generic_category(), "becoming another user");
        }
    }
    ~OtherUser() { Restore(); }
    OtherUser(const OtherUser&) = delete;
    OtherUser& operator=(const OtherUser&) = delete;

private:
    static void Restore()
    {
        EXPECT_EQ(::seteuid(0), 0);
        EXPECT_EQ(::setreuid(0, 0), 0);
    }
};

class FileModeMask
{
public:
    explicit FileModeMask(mode_t mask) : m_before(::umask(mask)) {}
    ~FileModeMask() { ::umask(m_before); }
    FileModeMask(const FileModeMask&) = delete;
    FileModeMask& operator=(const FileModeMask&) = delete;

private:
    const mode_t m_before;
};

/// Lets the process have fewer descriptors: no new one has this number or a higher one.
class DescriptorLimit
{
public:
    explicit DescriptorLimit(rlim_t count)
    {
        ::getrlimit(RLIMIT_NOFILE, &m_before);
        const struct rlimit limit = {count, m_before.rlim_max};
        if (::setrlimit(RLIMIT_NOFILE, &limit) != 0)
            throw std::system_error(errno, std::generic_category(), "limiting the descriptors");
    }
    ~DescriptorLimit() { EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &m_before), 0); }
    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;

private:
    struct rlimit m_before = {};
};

class CurrentFolder
{
public:
    explicit CurrentFolder(const std::string& folder) : m_before(std::filesystem::current_path())
    {
        std::filesystem::current_path(folder);
    }
    ~CurrentFolder()
    {
        std::error_code error;
        std::filesystem::current_path(m_before, error);
        EXPECT_FALSE(error) << "back to " << m_before << ": " << error.message();
    }
    CurrentFolder(const CurrentFolder&) = delete;
    CurrentFolder& operator=(const CurrentFolder&) = delete;

private:
    const std::filesystem::path m_before;
};

/// A variable of the environment has this value, or is not there.
class Variable
{
public:
    Variable(const char* name, const std::optional<std::string>& value) : m_name(name)
    {
        if (const char* const before = std::getenv(name))
            m_before = before;
        Set(value);
    }
    ~Variable() { Set(m_before); }
    Variable(const Variable&) = delete;
    Variable& operator=(const Variable&) = delete;

private:
    void Set(const std::optional<std::string>& value)
    {
        if (value)
            ::setenv(m_name, value->c_str(), 1);
        else
            ::unsetenv(m_name);
    }

    const char* const m_name;
    std::optional<std::string> m_before;
};

/// Whatever becomes of the category of the locale, it is put back.
class LocaleGuard
{
public:
    explicit LocaleGuard(int category) : m_category(category), m_before(std::setlocale(category, nullptr)) {}
    ~LocaleGuard() { EXPECT_NE(std::setlocale(m_category, m_before.c_str()), nullptr) << m_before; }
    LocaleGuard(const LocaleGuard&) = delete;
    LocaleGuard& operator=(const LocaleGuard&) = delete;

private:
    const int m_category;
    const std::string m_before;
};

/// The mask and the dispositions of all signals are put back.
class SignalGuard
{
public:
    SignalGuard()
    {
        ::pthread_sigmask(SIG_SETMASK, nullptr, &m_mask);
        for (int signal = 1; signal < signalCount; ++signal)
            ::sigaction(signal, nullptr, &m_actions[signal]);
    }
    ~SignalGuard()
    {
        for (int signal = 1; signal < signalCount; ++signal)
            ::sigaction(signal, &m_actions[signal], nullptr);
        ::pthread_sigmask(SIG_SETMASK, &m_mask, nullptr);
    }
    SignalGuard(const SignalGuard&) = delete;
    SignalGuard& operator=(const SignalGuard&) = delete;

private:
    static constexpr int signalCount = 65;
    sigset_t m_mask;
    struct sigaction m_actions[signalCount] = {};
};

/// What is written to a standard stream goes here instead.
template <void (*begin)(), std::string (*end)()>
class Capture
{
public:
    Capture() { begin(); }
    ~Capture()
    {
        if (m_active)
            end();
    }
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    /// Ends it and gives what came. Once.
    std::string Text()
    {
        m_active = false;
        return end();
    }

private:
    bool m_active = true;
};
using StandardOutput = Capture<testing::internal::CaptureStdout, testing::internal::GetCapturedStdout>;
using StandardError = Capture<testing::internal::CaptureStderr, testing::internal::GetCapturedStderr>;

/// The framework's log is as it was: where it goes, from which level on, and with which time.
class LogGuard
{
public:
    LogGuard() : m_level(wxLog::GetLogLevel()), m_verbose(wxLog::GetVerbose()), m_timestamp(wxLog::GetTimestamp()) {}
    ~LogGuard()
    {
        wxLog::SetLogLevel(m_level);
        wxLog::SetVerbose(m_verbose);
        wxLog::SetTimestamp(m_timestamp);
    }
    LogGuard(const LogGuard&) = delete;
    LogGuard& operator=(const LogGuard&) = delete;

private:
    const wxLogLevel m_level;
    const bool m_verbose;
    const wxString m_timestamp;
};

/// Another target gets what is logged: none (the framework then makes one when it needs it), or one
/// that goes with the object.
class LogTarget
{
public:
    explicit LogTarget(wxLog* target) : m_before(wxLog::SetActiveTarget(target)) {}
    ~LogTarget() { delete wxLog::SetActiveTarget(m_before); }
    LogTarget(const LogTarget&) = delete;
    LogTarget& operator=(const LogTarget&) = delete;

private:
    wxLog* const m_before;
};

} // namespace Test
