// The id of a host: from the system's own, and in a mount namespace where that is hidden.
#include "vex_core/domain/host_id.h"

#include "support/call_watch.h"
#include "support/dom_ptr.h"
#include "support/log_catcher.h"
#include "support/other_user.h"
#include "support/own_mounts.h"
#include "support/temp_folder.h"

#include <filesystem>
#include <functional>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

#include <sys/mount.h>
#include <sys/stat.h>

using namespace VexCore;

namespace {
class HostIdentity : public testing::Test
{
protected:
    void SetUp() override
    {
        m_dom->Set("app.name", "one");
        m_dom->Set("app.path.work", m_folder.Path());
    }

    // Runs `body` in a child for which the system's id is what the file holds.
    void RunWith(const std::string& machineId, const std::function<int()>& body)
    {
        const int status = ::Test::InOwnMounts([&] {
            for (const char* path : {"/etc/machine-id", "/var/lib/dbus/machine-id"})
                if (std::filesystem::exists(path) && mount(machineId.c_str(), path, nullptr, MS_BIND, nullptr) != 0)
                    return 77;
            return body();
        });
        if (status < 0)
            GTEST_SKIP() << "no mount namespace here";
        EXPECT_EQ(status, 0);
    }
    void RunWithout(const std::function<int()>& body) { RunWith("/dev/null", body); }

    std::size_t FilesInFolder() const
    {
        const std::filesystem::directory_iterator all(m_folder.Path());
        return static_cast<std::size_t>(std::distance(begin(all), end(all)));
    }

    const ::Test::DomPtr m_dom = ::Test::NewRoot();
    ::Test::TempFolder m_folder;
    const std::string m_file = m_folder / "host.id";
};

} // namespace

TEST_F(HostIdentity, IsMadeOfTheSystemsOwnInTheSameWayForEver)
{
    if (!std::filesystem::exists("/etc/machine-id"))
        GTEST_SKIP() << "no such file to lay another over";
    const ::Test::TempFolder elsewhere;
    ::Test::WriteFile(elsewhere / "id", "0123456789abcdef0123456789abcdef\n");
    RunWith(elsewhere / "id", [this] {
        CHILD_CHECK(HostId(*m_dom) == "e7377fb121dd75d47db4083e1d8cae94");
        m_dom->Set("app.name", "two");
        CHILD_CHECK(HostId(*m_dom) == "113f48a81f98e22abbe015d6acaae3ef");
        CHILD_CHECK(FindHostId("two", m_folder.Path()) == "113f48a81f98e22abbe015d6acaae3ef");
        CHILD_CHECK(FilesInFolder() == 0);
        return 0;
    });
}

TEST_F(HostIdentity, IsMadeOnceWhereTheSystemHasNoneAndKeptForItsOwnerAlone)
{
    RunWithout([this] {
        const ::Test::LogCatcher log;
        const std::string id = HostId(*m_dom);
        CHILD_CHECK(id.size() == 32 && id.find_first_not_of("0123456789abcdef") == std::string::npos);
        CHILD_CHECK(::Test::ReadFile(m_file) == id + "\n");
        struct stat status = {};
        CHILD_CHECK(stat(m_file.c_str(), &status) == 0 && (status.st_mode & 07777) == 0600);
        CHILD_CHECK(HostId(*m_dom) == id);
        CHILD_CHECK(FilesInFolder() == 1);
        std::filesystem::remove(m_file);
        CHILD_CHECK(HostId(*m_dom) != id);
        m_dom->Remove("app.path.work");
        CHILD_CHECK(HostId(*m_dom).empty());
        CHILD_CHECK(log.All().empty());
        return 0;
    });
}

TEST_F(HostIdentity, IsFoundByAReaderWhoMakesNone)
{
    RunWithout([this] {
        CHILD_CHECK(FindHostId("one", m_folder.Path()).empty());
        CHILD_CHECK(FilesInFolder() == 0);
        const std::string id = HostId(*m_dom);
        CHILD_CHECK(FindHostId("one", m_folder.Path()) == id);
        ::Test::WriteFile(m_file, "no id\n");
        CHILD_CHECK(FindHostId("one", m_folder.Path()).empty());
        return 0;
    });
}

TEST_F(HostIdentity, WhatIsNoneIsReplacedWithAWarning)
{
    RunWithout([this] {
        for (const std::string& kept : {std::string(), std::string("no id\n"), std::string(31, 'a') + "\n",
                                        std::string(31, 'a') + "A\n", std::string(32, ' ') + "\n"}) {
            ::Test::WriteFile(m_file, kept);
            const ::Test::LogCatcher log;
            const std::string id = HostId(*m_dom);
            CHILD_CHECK(id.size() == 32);
            CHILD_CHECK(::Test::ReadFile(m_file) == id + "\n");
            CHILD_CHECK(log.All()
                        == std::to_string(wxLOG_Warning) + " '" + m_file
                               + "' held no id of the host, which has another one now\n");
            CHILD_CHECK(FilesInFolder() == 1);
        }
        return 0;
    });
}

TEST_F(HostIdentity, ThatAnotherProcessIsAboutToKeepIsWaitedFor)
{
    RunWithout([this] {
        const std::string id(32, 'b');
        ::Test::WriteFile(m_file, id + "\n");
        std::filesystem::create_hard_link(m_file, m_file + ".77");
        int looks = 0;
        const ::Test::CallWatch watch([&](const os::Call& call) {
            if (call.path && std::string(call.path) == "host.id" && ++looks == 6)
                std::filesystem::remove(m_file + ".77");
            return 0;
        });
        const ::Test::LogCatcher log;
        CHILD_CHECK(HostId(*m_dom) == id);
        CHILD_CHECK(log.All().empty());
        return 0;
    });
}

TEST_F(HostIdentity, IsNoneWhereSomebodyElseHasAHandInIt)
{
    ::Test::WriteFile(m_folder / "theirs", std::string(32, 'c') + "\n");
    std::filesystem::create_symlink("theirs", m_file);
    GIVE_AWAY(m_file);
    RunWithout([this] {
        const ::Test::LogCatcher log;
        CHILD_CHECK(HostId(*m_dom).empty());
        CHILD_CHECK(log.All()
                    == std::to_string(wxLOG_Warning) + " '" + m_file
                           + "' is not followed, because the link belongs to user 1000: give it to root or to "
                             "the user of this process, or remove it\n");
        CHILD_CHECK(FilesInFolder() == 2);
        return 0;
    });
}
