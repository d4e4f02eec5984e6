#include "vex_core/domain/work_folder.h"

#include "support/dom_ptr.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include <sys/stat.h>

namespace fs = std::filesystem;
using ::Test::TempFolder;
using VexCore::PlaceInWorkFolder;

namespace {
class WorkFolder : public testing::Test
{
protected:
    void SetUp() override
    {
        fs::create_directories(m_work);
        fs::current_path(m_work);
    }
    void TearDown() override { fs::current_path(m_before); }

    const TempFolder m_folder;
    const std::string m_top = fs::canonical(m_folder.Path()).string();
    const std::string m_work = m_top + "/agent";
    const fs::path m_before = fs::current_path();
    const ::Test::DomPtr m_dom = ::Test::NewRoot();
};

} // namespace

TEST_F(WorkFolder, HasAPlaceForEverySpellingOfWhatIsBelow)
{
    for (const std::string& work : {m_work, m_work + "/", m_top + "//./agent/"}) {
        m_dom->Set("app.path.work", work);
        for (const std::string& path :
             {std::string("own.db"), std::string("./own.db"), m_work + "/own.db", m_work + "//own.db",
              m_work + "/./own.db", m_top + "//agent/own.db", m_work + "/../agent/own.db"}) {
            auto place = PlaceInWorkFolder(path);
            ASSERT_TRUE(place) << work << ' ' << path;
            EXPECT_TRUE(place->SettleFile({})) << place->Reason();
            EXPECT_EQ(place->RealPath(), m_work + "/own.db");
        }
    }
}

TEST_F(WorkFolder, HasAPlaceForEveryWayThatLeadsThroughIt)
{
    fs::create_directory_symlink("agent", m_top + "/link");
    fs::create_directories(m_top + "/x");
    for (const std::string& work : {m_work, m_top + "/link"}) {
        m_dom->Set("app.path.work", work);
        for (const std::string& path : {m_work + "/own.db", m_top + "/link/own.db", m_top + "/x/../agent/own.db",
                                        m_top + "/x/../link/./own.db", std::string("../link/own.db")}) {
            auto place = PlaceInWorkFolder(path);
            ASSERT_TRUE(place) << work << ' ' << path;
            EXPECT_TRUE(place->SettleFile({})) << place->Reason();
            EXPECT_EQ(place->RealPath(), m_work + "/own.db");
        }
    }
    EXPECT_FALSE(PlaceInWorkFolder(m_top + "/x/own.db"));
    EXPECT_FALSE(PlaceInWorkFolder(m_top + "/missing/own.db"));
}

TEST_F(WorkFolder, HasNoPlaceForWhatIsElsewhere)
{
    m_dom->Set("app.path.work", m_work);
    for (const std::string& path : {std::string(), m_work, m_work + "/", m_work + "s/own.db", m_top + "/own.db"})
        EXPECT_FALSE(PlaceInWorkFolder(path)) << path;
    m_dom->Set("app.path.work", "");
    EXPECT_FALSE(PlaceInWorkFolder("own.db"));
}
