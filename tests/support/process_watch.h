#pragma once
// Looks after each test whether the process is as the test found it, so that one test cannot spoil those behind
// it: a test that left something changed fails, and what it left is put back. Guards for the tests themselves
// are in process_guards.h.

#include <cerrno>
#include <clocale>
#include <csignal>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <wx/log.h>

namespace Test {

class ProcessWatch : public testing::EmptyTestEventListener
{
public:
    void OnTestStart(const testing::TestInfo&) override { m_before = State(); }
    void OnTestEnd(const testing::TestInfo&) override
    {
        const State after;
        Compare("ids", m_before.ids, after.ids);
        Compare("file mode mask", m_before.mask, after.mask);
        Compare("current folder", m_before.folder, after.folder);
        Compare("environment", m_before.environment, after.environment);
        Compare("locale", m_before.locale, after.locale);
        Compare("signals", m_before.signals, after.signals);
        Compare("log", m_before.log, after.log);
        m_before.Restore(after);
    }

private:
    using Values = std::map<std::string, std::string>;

    struct State
    {
        State() : mask(::umask(0)), locale(std::setlocale(LC_ALL, nullptr))
        {
            ::umask(mask);
            ids = {{"real user", std::to_string(::getuid())}, {"effective user", std::to_string(::geteuid())}};
            std::error_code error;
            folder = std::filesystem::current_path(error).string();
            for (char** variable = environ; *variable; ++variable) {
                const std::string text = *variable;
                const std::size_t sign = text.find('=');
                environment[text.substr(0, sign)] = sign == std::string::npos ? "" : text.substr(sign + 1);
            }
            ::pthread_sigmask(SIG_SETMASK, nullptr, &signalMask);
            actions.resize(signalCount);
            for (int signal = 1; signal < signalCount; ++signal) {
                ::sigaction(signal, nullptr, &actions[signal]);
                const auto handler = reinterpret_cast<std::uintptr_t>(actions[signal].sa_handler);
                signals[std::to_string(signal)] =
                    std::to_string(handler) + (sigismember(&signalMask, signal) == 1 ? " blocked" : "");
            }
            target = wxLog::GetActiveTarget();
            level = wxLog::GetLogLevel();
            verbose = wxLog::GetVerbose();
            timestamp = wxLog::GetTimestamp();
            log = {{"target", std::to_string(reinterpret_cast<std::uintptr_t>(target))},
                   {"level", std::to_string(level)},
                   {"verbose", std::to_string(verbose)},
                   {"time", std::string(timestamp.utf8_str())}};
        }
        /// Makes the process as it was when this object was made; `now` is how it is.
        void Restore(const State& now) const
        {
            if (now.ids != ids) {
                EXPECT_EQ(::seteuid(0), 0);
                EXPECT_EQ(::setreuid(0, 0), 0);
            }
            ::umask(mask);
            std::error_code error;
            std::filesystem::current_path(folder, error);
            for (const auto& [name, value] : now.environment)
                if (environment.count(name) == 0)
                    ::unsetenv(name.c_str());
            for (const auto& [name, value] : environment)
                if (const auto found = now.environment.find(name);
                    found == now.environment.end() || found->second != value)
                    ::setenv(name.c_str(), value.c_str(), 1);
            std::setlocale(LC_ALL, locale.c_str());
            for (int signal = 1; signal < signalCount; ++signal)
                if (now.signals.at(std::to_string(signal)) != signals.at(std::to_string(signal)))
                    ::sigaction(signal, &actions[signal], nullptr);
            ::pthread_sigmask(SIG_SETMASK, &signalMask, nullptr);
            if (now.log != log) {
                wxLog::SetActiveTarget(target);
                wxLog::SetLogLevel(level);
                wxLog::SetVerbose(verbose);
                wxLog::SetTimestamp(timestamp);
            }
        }

        static constexpr int signalCount = 65;
        Values ids, environment, signals, log; // what is compared, with what is shown of it
        mode_t mask;
        std::string folder;
        std::string locale;
        sigset_t signalMask;
        std::vector<struct sigaction> actions; // by number
        wxLog* target;
        wxLogLevel level;
        bool verbose;
        wxString timestamp;
    };

    static std::string Show(const Values& values, const std::string& name)
    {
        const auto found = values.find(name);
        return found == values.end() ? "nothing" : '"' + found->second + '"';
    }
    static void Compare(const char* what, const Values& before, const Values& after)
    {
        Values all = before;
        all.insert(after.begin(), after.end());
        for (const auto& [name, value] : all)
            EXPECT_EQ(Show(after, name), Show(before, name)) << "the test leaves changed: " << what << ", " << name;
    }
    template <class T>
    static void Compare(const char* what, const T& before, const T& after)
    {
        EXPECT_EQ(after, before) << "the test leaves changed: " << what;
    }

    State m_before;
};

/// Puts it in front of the listeners that print: they are told of a test's end after it.
inline void WatchProcess()
{
    testing::UnitTest::GetInstance()->listeners().Append(new ProcessWatch);
}

} // namespace Test
