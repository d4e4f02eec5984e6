#include "vex/apps/vex/package_name.h"

#include "vex/apps/vex/vex.h"

#include <gtest/gtest.h>

namespace {
struct Package
{
    const char* file;
    const char* plugin;
    bool accepted;
};

std::ostream& operator<<(std::ostream& out, const Package& package)
{
    return out << package.file;
}

class PackageName : public testing::TestWithParam<Package>
{};

TEST_P(PackageName, TellsThePluginAndWhetherTheVersionFits)
{
    const wxFileName file(GetParam().file);
    EXPECT_EQ(getPluginName(file), GetParam().plugin);
    EXPECT_EQ(CAgentApp::CheckVXPVersion(file), GetParam().accepted);
}

INSTANTIATE_TEST_SUITE_P(
    Table, PackageName,
    testing::Values(Package{"Agent-Feature-Solaris_11-10.0.0-4015.x86_64.vxp", "Feature", true},
                    Package{"/opt/agent/Agent-Feature-Solaris_11-10.0.0-4015.x86_64.vxp", "Feature", true},
                    Package{"/opt/a-b-1.0.0-1.c/Agent-Feature-Solaris_11-10.0.0-4015.x86_64.vxp", "Feature", true},
                    // another version; the build is not compared
                    Package{"Agent-Feature-Solaris_11-10.0.1-4015.x86_64.vxp", "Feature", false},
                    Package{"Agent-Feature-Solaris_11-9.5.0-4015.x86_64.vxp", "Feature", false},
                    Package{"Agent-Feature-Solaris_11-10.0.0-1.x86_64.vxp", "Feature", true},
                    Package{"Agent-Feature-Solaris_11-10.0.0-.x86_64.vxp", "Feature", true},
                    // versions are compared as text
                    Package{"Agent-Feature-Solaris_11-10.00.0-4015.x86_64.vxp", "Feature", false},
                    Package{"Agent-Feature-Solaris_11-10.0.0.0-4015.x86_64.vxp", "Feature", false},
                    Package{"Agent-Feature-Solaris_11- 10.0.0-4015.x86_64.vxp", "Feature", false},
                    // too few fields to carry a version
                    Package{"Feature.vxp", "Feature", true}, Package{"Feature-x.y.vxp", "x.y", true},
                    Package{"a-b.vxp", "b", true}, Package{"a-b-c.vxp", "b", true},
                    Package{"Feature.x86_64.vxp", "Feature.x86_64", true},
                    // enough fields, and the last is not our version
                    Package{"a-b-c.d.vxp", "b", false},
                    // the version field is empty
                    Package{"a--c.vxp", "", true}, Package{"a--c.d.vxp", "", true},
                    Package{"a-b--1.x86_64.vxp", "b", true}, Package{"-.vxp", "", true}, Package{"a-.vxp", "", true},
                    // nothing but the version
                    Package{"x-10.0.0-1.m.vxp", "10.0.0", true}, Package{"x-10.0.1-1.m.vxp", "10.0.1", false},
                    // case counts in names, and the extension does not
                    Package{"Agent-Feature-Solaris_11-10.0.0-4015.x86_64.VXU", "Feature", true},
                    // without an extension the machine is taken for one, and the fields move by one
                    Package{"Agent-Feature-Solaris_11-10.0.0-4015.x86_64", "Feature", false}));

TEST(VersionField, IsTheFourthFromTheRightAndIsFoundOnlyWhenAllAreThere)
{
    wxString version;
    EXPECT_TRUE(FindVersionField("Agent-Feature-Solaris_11-10.0.0-4015.x86_64", version));
    EXPECT_EQ(version, "10.0.0");
    EXPECT_FALSE(FindVersionField("", version));
    EXPECT_FALSE(FindVersionField("nodots-at-all", version));
    EXPECT_FALSE(FindVersionField("nodash.x", version));
    EXPECT_FALSE(FindVersionField("one-dash.x", version));
    EXPECT_FALSE(FindVersionField("ends--1.x", version));
}

} // namespace
