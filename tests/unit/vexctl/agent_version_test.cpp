#include "vex/apps/vexctl/agent_version.h"

#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <filesystem>

using namespace Vexctl;
using ::Test::TempFolder;
using ::Test::WriteFile;

namespace {
Place PlaceIn(const TempFolder& folder)
{
    std::filesystem::create_directory(folder / "out");
    Place place;
    place.workFolder = folder.Path();
    return place;
}

} // namespace

TEST(AgentVersion, IsTheOneOfTheReportAndFollowsIt)
{
    const TempFolder folder;
    AgentVersion version(PlaceIn(folder), "1.0");
    EXPECT_EQ(version.Load(), "1.0");
    WriteFile(folder / "out/report.json", "{\"schema\":1,\"agent\":{\"name\":\"a\",\"version\":\"9.9.9\"}}\n");
    EXPECT_EQ(version.Load(), "9.9.9");
    WriteFile(folder / "out/report.json.tmp", "{\"schema\":1,\"agent\":{\"name\":\"a\",\"version\":\"9.9.10\"}}\n");
    std::filesystem::rename(folder / "out/report.json.tmp", folder / "out/report.json");
    EXPECT_EQ(version.Load(), "9.9.10");
}

TEST(AgentVersion, AReportThatDoesNotTellChangesNothing)
{
    for (const char* const text : {"", "{", "[]", "{\"agent\":7}", "{\"agent\":{}}", "{\"agent\":{\"version\":7}}",
                                   "{\"agent\":{\"version\":\"\"}}"}) {
        const TempFolder folder;
        AgentVersion version(PlaceIn(folder), "1.0");
        WriteFile(folder / "out/report.json", text);
        EXPECT_EQ(version.Load(), "1.0") << text;
    }
    const TempFolder folder;
    AgentVersion version(PlaceIn(folder), "1.0");
    std::filesystem::create_directory(folder / "out/report.json");
    EXPECT_EQ(version.Load(), "1.0");
}
