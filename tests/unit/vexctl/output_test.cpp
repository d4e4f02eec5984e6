#include "vex/apps/vexctl/output.h"

#include "support/call_watch.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <string_view>

#include <fcntl.h>
#include <unistd.h>

using ::Test::CallWatch;
using ::Test::ReadFile;
using ::Test::TempFolder;
using VexCore::os::Call;
using Vexctl::Output;

namespace {
bool IsWrite(const Call& call)
{
    return call.name == std::string_view("write");
}

class OutputToFile : public testing::Test
{
protected:
    ~OutputToFile() override { ::close(m_descriptor); }

    TempFolder m_folder;
    const std::string m_path = m_folder / "output";
    const int m_descriptor = ::open(m_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    Output m_output{m_descriptor};
};

} // namespace

TEST_F(OutputToFile, IsWholeWhereTheSystemTakesAByteAtATime)
{
    const CallWatch watch([](const Call& call) {
        if (IsWrite(call))
            *call.size = 1;
        return 0;
    });
    m_output.Write("all of it\n");
    EXPECT_EQ(ReadFile(m_path), "all of it\n");
}

TEST_F(OutputToFile, EndsWhereTheSystemTakesNothingAndSaysNothing)
{
    int writes = 0;
    const CallWatch watch([&writes](const Call& call) {
        if (!IsWrite(call))
            return 0;
        *call.size = 0;
        return ++writes > 1 ? EIO : 0;
    });
    try {
        m_output.Write("nothing of it\n");
        FAIL() << "nothing was thrown";
    } catch (const Vexctl::OutputFailed& failed) {
        EXPECT_STREQ(failed.what(), "the output cannot be written: No space left on device");
    }
    EXPECT_EQ(writes, 1);
}

TEST_F(OutputToFile, IsOverWhenItsReaderIsGone)
{
    const CallWatch watch([](const Call& call) { return IsWrite(call) ? EPIPE : 0; });
    EXPECT_THROW(m_output.Write("nobody reads it\n"), Vexctl::ReaderGone);
}
