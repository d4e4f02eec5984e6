#include "vex_core/domain/doorbell.h"

#include "support/dom_ptr.h"
#include "support/temp_folder.h"
#include "support/test_thread.h"
#include "vex_core/base/wait.h"
#include "vex_core/os/files.h"
#include "vex_core/os/named_pipe.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>

#include <wx/log.h>

namespace fs = std::filesystem;
using ::Test::TempFolder;
using ::Test::TestThread;
using namespace VexCore;

namespace {
class Doorbell : public testing::Test
{
protected:
    void SetUp() override { m_dom->Set("app.path.work", m_folder.Path()); }

    bool IsRung()
    {
        const os::Descriptor bell = os::OpenPipeOfReader(m_bell);
        return bell && os::Write(bell.Get(), "\n", 1) == 1;
    }
    static bool Comes(const std::function<bool()>& condition)
    {
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!condition() && std::chrono::steady_clock::now() < limit)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return condition();
    }

    const TempFolder m_folder;
    const std::string m_bell = m_folder / "plugins/p/doorbell";
    const ::Test::DomPtr m_dom = ::Test::NewRoot();
    std::string m_error;
};

} // namespace

TEST_F(Doorbell, SetsTheKeyAtEachRingUntilItsThreadIsAskedToEnd)
{
    bool answered = false;
    TestThread thread([&](TestThread&) { answered = AnswerDoorbell(*m_dom, "p", "rung", m_error); });
    ASSERT_TRUE(thread.start(50, true, 0));
    for (int round = 0; round < 3; ++round) {
        ASSERT_TRUE(Comes([&] { return IsRung(); }));
        EXPECT_TRUE(Comes([&] { return m_dom->Get("rung") == "true"; }));
        // A ring of the round before may still be on its way.
        m_dom->Set("rung", false);
    }
    thread.requestExit();
    EXPECT_TRUE(thread.join(20000));
    EXPECT_TRUE(answered) << m_error;
    EXPECT_FALSE(IsRung());
}

TEST_F(Doorbell, OfAThreadThatIsAskedToEndIsNotSetByThat)
{
    TestThread thread([&](TestThread&) { AnswerDoorbell(*m_dom, "p", "rung", m_error); });
    ASSERT_TRUE(thread.start(50, true, 0));
    ASSERT_TRUE(Comes([&] { return fs::exists(m_bell) && os::OpenPipeOfReader(m_bell); }));
    thread.requestExit();
    EXPECT_TRUE(thread.join(20000));
    EXPECT_FALSE(m_dom->Has("rung"));
}

TEST_F(Doorbell, IsNotAnsweredByAThreadThatIsAskedToEndAlready)
{
    TestThread thread([&](TestThread& self) {
        self.Hold();
        AnswerDoorbell(*m_dom, "p", "rung", m_error);
    });
    ASSERT_TRUE(thread.start(50, true, 0));
    thread.requestExit();
    thread.LetGo();
    EXPECT_TRUE(thread.join(20000));
}

TEST_F(Doorbell, WhereAFileIsInItsPlaceIsTold)
{
    fs::create_directories(m_folder / "plugins/p");
    ::Test::WriteFile(m_bell, "x");
    EXPECT_FALSE(AnswerDoorbell(*m_dom, "p", "rung", m_error));
    EXPECT_EQ(m_error, m_bell + ": it is there and is no pipe of this user alone; take it away");
}

TEST_F(Doorbell, InAFolderThatOthersMayWriteIsNone)
{
    const wxLogNull quiet;
    fs::create_directories(m_folder / "plugins");
    fs::permissions(m_folder / "plugins", fs::perms::all);
    EXPECT_FALSE(AnswerDoorbell(*m_dom, "p", "rung", m_error));
    EXPECT_NE(m_error.find("because others may write it"), std::string::npos);
    EXPECT_FALSE(fs::exists(m_bell));
}

TEST_F(Doorbell, WithoutAWorkFolderIsNone)
{
    m_dom->Remove("app.path.work");
    EXPECT_FALSE(AnswerDoorbell(*m_dom, "p", "rung", m_error));
    EXPECT_EQ(m_error, "plugins/p/doorbell: No such file or directory");
}
