#include "vex_core/os/named_pipe.h"

#include "support/temp_folder.h"
#include "vex_core/os/error.h"
#include "vex_core/os/files.h"

#include <gtest/gtest.h>

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using Test::TempFolder;
using Test::WriteFile;
namespace os = VexCore::os;

namespace {
class NamedPipe : public testing::Test
{
protected:
    os::Pipe Open() { return os::OpenNamedPipe(m_descriptor.Get(), "bell"); }

    const TempFolder m_folder;
    const os::Descriptor m_descriptor{os::Open(m_folder.Path().c_str(), O_RDONLY | O_DIRECTORY)};
    const std::string m_path = m_folder / "bell";
};

} // namespace

TEST_F(NamedPipe, IsMadeForItsOwnerAloneAndTakenAgain)
{
    for (int round = 0; round < 2; ++round) {
        const os::Pipe pipe = Open();
        ASSERT_TRUE(pipe);
        struct stat status = {};
        ASSERT_EQ(::lstat(m_path.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFIFO | 0600));
        EXPECT_NE(::fcntl(pipe.reading.Get(), F_GETFD) & FD_CLOEXEC, 0);
    }
}

TEST_F(NamedPipe, CarriesWhatAnotherWritesAndNobodyWaits)
{
    const os::Pipe pipe = Open();
    ASSERT_TRUE(pipe);
    char bytes[8] = "";
    EXPECT_EQ(os::Read(pipe.reading.Get(), bytes, sizeof bytes), -1);
    EXPECT_EQ(os::LastError(), EAGAIN);
    {
        const os::Descriptor writer = os::OpenPipeOfReader(m_path);
        ASSERT_TRUE(writer);
        EXPECT_EQ(os::Write(writer.Get(), "ring", 4), 4);
    }
    EXPECT_EQ(os::Read(pipe.reading.Get(), bytes, sizeof bytes), 4);
    EXPECT_EQ(os::Read(pipe.reading.Get(), bytes, sizeof bytes), -1) << "the end of a writer is not seen";
}

TEST_F(NamedPipe, WithoutAReaderIsOpenedByNobody)
{
    EXPECT_FALSE(os::OpenPipeOfReader(m_path));
    EXPECT_EQ(os::LastError(), ENOENT);
    ASSERT_TRUE(Open());
    EXPECT_FALSE(os::OpenPipeOfReader(m_path));
    EXPECT_EQ(os::LastError(), ENXIO);
}

TEST_F(NamedPipe, IsNothingThatOthersHaveAHandIn)
{
    ASSERT_EQ(::mkfifo(m_path.c_str(), 0600), 0);
    ASSERT_EQ(::chmod(m_path.c_str(), 0622), 0);
    EXPECT_FALSE(Open());
    EXPECT_EQ(os::LastError(), EEXIST);
    ASSERT_EQ(::chmod(m_path.c_str(), 0600), 0);
    EXPECT_TRUE(Open());
    ASSERT_EQ(::link(m_path.c_str(), (m_folder / "second").c_str()), 0);
    EXPECT_FALSE(Open());
    EXPECT_EQ(os::LastError(), EEXIST);
}

TEST_F(NamedPipe, IsNeitherAFileNorALink)
{
    WriteFile(m_path, "x");
    EXPECT_FALSE(Open());
    EXPECT_EQ(os::LastError(), EEXIST);
    EXPECT_FALSE(os::OpenPipeOfReader(m_path));
    EXPECT_EQ(os::LastError(), EEXIST);
    ASSERT_EQ(::unlink(m_path.c_str()), 0);
    ASSERT_EQ(::mkfifo((m_folder / "other").c_str(), 0600), 0);
    ASSERT_EQ(::symlink("other", m_path.c_str()), 0);
    EXPECT_FALSE(Open());
    EXPECT_EQ(os::LastError(), ELOOP);
}
