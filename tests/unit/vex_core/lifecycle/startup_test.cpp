#include "vex_core/lifecycle/startup.h"

#include "support/child.h"
#include "vex_core/base/text.h"

#include <gtest/gtest.h>

#include <clocale>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <map>

#include <fcntl.h>
#include <langinfo.h>
#include <unistd.h>
#include <wx/intl.h>
#include <wx/log.h>

using Test::ChildResult;
using Test::RunChild;

namespace {
using Environment = std::map<std::string, std::string>;

const char* const localeVariables[] = {"LANG",    "LC_ALL",     "LC_CTYPE",    "LC_NUMERIC", "LC_MESSAGES",
                                       "LC_TIME", "LC_COLLATE", "LC_MONETARY", "LANGUAGE"};

// Settles the locale in a child that was started with this environment, as before `main`, and
// answers what `check` says.
int InChildWith(const Environment& environment, int (*check)())
{
    const auto body = [&] {
        for (const char* name : localeVariables)
            ::unsetenv(name);
        for (const auto& [name, value] : environment)
            ::setenv(name.c_str(), value.c_str(), 1);
        std::setlocale(LC_ALL, "C");
        VexCore::SettleLocale();
        return check();
    };
    const ChildResult result = RunChild(body, true);
    return WIFEXITED(result.status) ? WEXITSTATUS(result.status) : -1;
}

bool SetIsUtf8()
{
    return std::strcmp(::nl_langinfo(CODESET), "UTF-8") == 0;
}

// 0: text is UTF-8 and 1.5 is 1.5, now and when the environment is asked again.
int TextAndNumbersAreRight()
{
    char number[16];
    std::snprintf(number, sizeof number, "%.1f", 1.5);
    if (!SetIsUtf8() || std::strcmp(number, "1.5") != 0)
        return 1;
    std::setlocale(LC_ALL, "");
    std::snprintf(number, sizeof number, "%.1f", 1.5);
    if (!SetIsUtf8())
        return 2;
    if (std::strcmp(std::setlocale(LC_NUMERIC, nullptr), "C") != 0 || std::strcmp(number, "1.5") != 0)
        return 3;
    return 0;
}

int StaysRightUnderTheFrameworksLocale()
{
    wxLogNull quiet;
    wxLocale locale;
    locale.Init(wxLANGUAGE_DEFAULT, wxLOCALE_LOAD_DEFAULT);
    return TextAndNumbersAreRight();
}

int NameIsAsItWasChosen()
{
    return std::strcmp(std::setlocale(LC_CTYPE, nullptr), "C.utf8") == 0
                   && std::strcmp(std::getenv("LC_CTYPE"), "C.utf8") == 0
               ? 0
               : 1;
}

int LcAllIsTakenApart()
{
    const char* const time = std::getenv("LC_TIME");
    const char* const messages = std::getenv("LC_MESSAGES");
    return !std::getenv("LC_ALL") && time && std::strcmp(time, "C.utf8") == 0 && messages
                   && std::strcmp(messages, "C.utf8") == 0
               ? 0
               : 1;
}

int NullDeviceOn(int descriptor, int access)
{
    char target[64] = "";
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    if (::readlink(link.c_str(), target, sizeof target - 1) < 0 || std::strcmp(target, "/dev/null") != 0)
        return 1;
    return (::fcntl(descriptor, F_GETFL) & O_ACCMODE) == access ? 0 : 2;
}

} // namespace

TEST(SettledLocale, TextIsUtf8WhateverTheEnvironmentLeavesOut)
{
    const Environment environments[] = {
        {},
        {{"LANG", "C"}},
        {{"LANG", "POSIX"}},
        {{"LC_ALL", "C"}},
        {{"LC_CTYPE", "C"}, {"LANG", "C.UTF-8"}},
        {{"LANG", "C.UTF-8"}},
        {{"LC_ALL", "C.UTF-8"}},
        {{"LANG", "xx_YY.UTF-8"}},
        {{"LC_ALL", "xx_YY"}},
        {{"LC_ALL", ""}, {"LANG", ""}},
        {{"LC_ALL", "C"}, {"LANG", "xx_YY"}, {"LC_NUMERIC", "xx_YY"}},
    };
    for (const Environment& environment : environments) {
        std::string shown;
        for (const auto& [name, value] : environment)
            shown += name + "=" + value + " ";
        EXPECT_EQ(InChildWith(environment, TextAndNumbersAreRight), 0) << shown;
        EXPECT_EQ(InChildWith(environment, StaysRightUnderTheFrameworksLocale), 0) << shown;
    }
}

TEST(SettledLocale, LocaleWithMoreThanAsciiStays)
{
    EXPECT_EQ(InChildWith({{"LC_CTYPE", "C.utf8"}}, NameIsAsItWasChosen), 0);
}

TEST(SettledLocale, AllIsTakenApartSoThatNumbersCanDiffer)
{
    EXPECT_EQ(InChildWith({{"LC_ALL", "C.utf8"}}, LcAllIsTakenApart), 0);
}

TEST(SettledLocale, HasRunBeforeMain)
{
    EXPECT_STREQ(std::getenv("LC_NUMERIC"), "C");
    EXPECT_STREQ(std::setlocale(LC_NUMERIC, nullptr), "C");
    EXPECT_TRUE(SetIsUtf8());
}

TEST(FileSizeSignal, HasBeenIgnoredBeforeMain)
{
    struct sigaction action;
    ASSERT_EQ(::sigaction(SIGXFSZ, nullptr, &action), 0);
    EXPECT_EQ(action.sa_handler, SIG_IGN);
}

TEST(StandardDescriptors, ClosedOnesAreOpenedOnTheNullDevice)
{
    for (int closed = 0; closed < 8; ++closed) {
        const auto body = [closed] {
            for (int descriptor = 0; descriptor <= 2; ++descriptor)
                if (closed & (1 << descriptor))
                    ::close(descriptor);
            VexCore::OpenStandardDescriptors();
            for (int descriptor = 0; descriptor <= 2; ++descriptor)
                if ((closed & (1 << descriptor)) != 0
                    && NullDeviceOn(descriptor, descriptor == 0 ? O_RDONLY : O_WRONLY) != 0)
                    return 1 + descriptor;
            return 0;
        };
        EXPECT_TRUE(RunChild(body, true).Exited(0)) << "closed: " << closed;
    }
}

TEST(StandardDescriptors, OpenOnesStayAsTheyAre)
{
    const auto body = [] {
        VexCore::OpenStandardDescriptors();
        return ::write(2, "still here", 10) == 10 ? 0 : 1;
    };
    const ChildResult result = RunChild(body, true);
    EXPECT_TRUE(result.Exited(0));
    EXPECT_EQ(result.standardError, "still here");
}

TEST(Startup, EachNameOfAFileHasATextThatLeadsBackToIt)
{
    if (!SetIsUtf8())
        GTEST_SKIP() << "the tests run with another character set";
    for (const std::string name : {"plain", "Gr\xC3\xBC\xC3\x9F", "caf\xE9", "\xFF\\x", "\xC3"}) {
        const wxString text(name.data(), *wxConvFileName, name.size());
        EXPECT_EQ(VexCore::ToSystemBytes(text), name);
    }
}
