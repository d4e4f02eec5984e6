#include "vex_core/os/descriptor_path.h"

#include "support/call_watch.h"
#include "support/temp_folder.h"
#include "vex_core/os/files.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <string_view>

#include <fcntl.h>

using Test::CallWatch;
using namespace std::string_view_literals;
namespace os = VexCore::os;
namespace fs = std::filesystem;

#ifdef __linux__
namespace {
class DescriptorPath : public testing::Test
{
protected:
    void SetUp() override
    {
        fs::create_directory(m_folder / "held");
        ::Test::WriteFile(m_folder / "held/file", "here");
        m_held = os::Descriptor(os::Open((m_folder / "held").c_str(), O_RDONLY));
    }

    const ::Test::TempFolder m_folder;
    os::Descriptor m_held;
};

} // namespace

TEST_F(DescriptorPath, LeadsToTheOpenFolderWhereverItsNameLeads)
{
    fs::rename(m_folder / "held", m_folder / "elsewhere");
    fs::create_directory(m_folder / "held");
    EXPECT_EQ(::Test::ReadFile(os::PathThroughDescriptor(m_held.Get()) + "/file"), "here");
}

TEST_F(DescriptorPath, IsEmptyWhereItWouldLeadElsewhere)
{
    EXPECT_EQ(os::PathThroughDescriptor(-1), "");
    for (const std::string_view failing : {"fstat"sv, "stat"sv}) {
        const CallWatch watch([failing](const os::Call& call) { return call.name == failing ? EACCES : 0; });
        EXPECT_EQ(os::PathThroughDescriptor(m_held.Get()), "") << failing;
    }
    for (const bool onAnotherDevice : {true, false}) {
        const CallWatch watch([&](const os::Call& call) {
            if (call.name != "stat"sv)
                return 0;
            os::FStat(m_held.Get(), *call.status);
            ++(onAnotherDevice ? call.status->st_dev : call.status->st_ino);
            return os::callAnswered;
        });
        EXPECT_EQ(os::PathThroughDescriptor(m_held.Get()), "") << onAnotherDevice;
    }
}
#endif
