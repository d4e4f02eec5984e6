#include "vex_core/os/last_resort.h"

#include "support/call_watch.h"
#include "support/temp_folder.h"
#include "vex_core/os/error.h"
#include "vex_core/os/files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>

using testing::ElementsAre;
using namespace std::string_view_literals;
namespace os = VexCore::os;

namespace {
class LastResort : public testing::Test
{
protected:
    // The lines that the system's log would have got; the machine's own is spared.
    std::vector<std::string> m_sent;
    int m_answer = os::callAnswered; // an error where no logger takes the line

private:
    ::Test::CallWatch m_watch{[this](const os::Call& call) {
        if (call.name != "syslog"sv)
            return 0;
        m_sent.emplace_back(call.path);
        return m_answer;
    }};
};

} // namespace

TEST_F(LastResort, IsStandardError)
{
    const ::Test::TempFolder folder;
    const os::Descriptor file(os::Open((folder / "x").c_str(), O_WRONLY | O_CREAT, 0600));
    EXPECT_TRUE(os::WriteLastResort(file.Get(), os::severityError, {"one ", "two\n", "three"}));
    EXPECT_EQ(::Test::ReadFile(folder / "x"), "one two\nthree");
    EXPECT_THAT(m_sent, ElementsAre());
}

TEST_F(LastResort, IsTheSystemsLogLineByLineWhereStandardErrorIsTheNullDevice)
{
    const os::Descriptor null(os::Open("/dev/null", O_WRONLY));
    os::SetLastError(ENOSPC);
    EXPECT_TRUE(os::WriteLastResort(null.Get(), os::severityError, {"one ", "two\n\nth", "ree"}));
    EXPECT_THAT(m_sent, ElementsAre("one two", "three"));
    EXPECT_EQ(os::LastError(), ENOSPC);
}

TEST_F(LastResort, TellsWhatWentNowhere)
{
    const os::Descriptor null(os::Open("/dev/null", O_WRONLY));
    m_answer = ENOENT;
    os::SetLastError(ENOSPC);
    EXPECT_FALSE(os::WriteLastResort(null.Get(), os::severityError, {"one\n"}));
    EXPECT_EQ(os::LastError(), ENOSPC);
    const os::Descriptor full(os::Open("/dev/full", O_WRONLY));
    EXPECT_FALSE(os::WriteLastResort(full.Get(), os::severityError, {"", "one\n", ""}));
    EXPECT_EQ(os::LastError(), ENOSPC);
}

TEST_F(LastResort, IsTheSystemsLogWhereAFolderStandsForTheNullDevice)
{
    const os::Descriptor root(os::Open("/", O_RDONLY));
    os::WriteLastResort(root.Get(), os::severityError, {"one\n"});
    EXPECT_THAT(m_sent, ElementsAre("one"));
}

TEST_F(LastResort, IsNoSystemLogForAnotherDevice)
{
    const os::Descriptor zero(os::Open("/dev/zero", O_WRONLY));
    os::WriteLastResort(zero.Get(), os::severityError, {"one\n"});
    EXPECT_THAT(m_sent, ElementsAre());
}

TEST_F(LastResort, ContinuesALongLineInAnotherRecord)
{
    const os::Descriptor null(os::Open("/dev/null", O_WRONLY));
    os::WriteLastResort(null.Get(), os::severityError, {std::string(1000, 'a') + "\n" + std::string(1001, 'b') + "\n"});
    EXPECT_THAT(m_sent, ElementsAre(std::string(1000, 'a'), std::string(1000, 'b'), "b"));
}
