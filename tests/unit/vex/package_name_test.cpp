#include "vex/apps/vex/package_name.h"

#include "vex/apps/vex/vex.h"

#include "support/our_version.h"

#include <string>

#include <gtest/gtest.h>

namespace {
struct Package
{
    std::string file;
    std::string plugin;
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
    const wxFileName file(wxString(GetParam().file));
    EXPECT_EQ(getPluginName(file), wxString(GetParam().plugin));
    EXPECT_EQ(CAgentApp::CheckVXPVersion(file), GetParam().accepted);
}

INSTANTIATE_TEST_SUITE_P(
    Table, PackageName,
    testing::Values(Package{::Test::Ours("Agent-Feature-Solaris_11-{version}-{build}.x86_64.vxp"), "Feature", true},
                    Package{::Test::Ours("/opt/agent/Agent-Feature-Solaris_11-{version}-{build}.x86_64.vxp"), "Feature",
                            true},
                    Package{::Test::Ours("/opt/a-b-1.0.0-1.c/Agent-Feature-Solaris_11-{version}-{build}.x86_64.vxp"),
                            "Feature", true},
                    // another version; the build is not compared
                    Package{::Test::Ours("Agent-Feature-Solaris_11-{other}-{build}.x86_64.vxp"), "Feature", false},
                    Package{::Test::Ours("Agent-Feature-Solaris_11-9.5.0-{build}.x86_64.vxp"), "Feature", false},
                    Package{::Test::Ours("Agent-Feature-Solaris_11-{version}-1.x86_64.vxp"), "Feature", true},
                    Package{::Test::Ours("Agent-Feature-Solaris_11-{version}-.x86_64.vxp"), "Feature", true},
                    // versions are compared as text
                    Package{::Test::Ours("Agent-Feature-Solaris_11-10.00.0-{build}.x86_64.vxp"), "Feature", false},
                    Package{::Test::Ours("Agent-Feature-Solaris_11-{version}.0-{build}.x86_64.vxp"), "Feature", false},
                    Package{::Test::Ours("Agent-Feature-Solaris_11- {version}-{build}.x86_64.vxp"), "Feature", false},
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
                    Package{::Test::Ours("x-{version}-1.m.vxp"), ::Test::Ours("{version}"), true},
                    Package{::Test::Ours("x-{other}-1.m.vxp"), ::Test::Ours("{other}"), false},
                    // case counts in names, and the extension does not
                    Package{::Test::Ours("Agent-Feature-Solaris_11-{version}-{build}.x86_64.VXU"), "Feature", true},
                    // without an extension the machine is taken for one, and the fields move by one
                    Package{::Test::Ours("Agent-Feature-Solaris_11-{version}-{build}.x86_64"), "Feature", false}));

TEST(VersionField, IsTheFourthFromTheRightAndIsFoundOnlyWhenAllAreThere)
{
    wxString version;
    EXPECT_TRUE(FindVersionField(::Test::Ours("Agent-Feature-Solaris_11-{version}-{build}.x86_64"), version));
    EXPECT_EQ(version, ::Test::Ours("{version}"));
    EXPECT_FALSE(FindVersionField("", version));
    EXPECT_FALSE(FindVersionField("nodots-at-all", version));
    EXPECT_FALSE(FindVersionField("nodash.x", version));
    EXPECT_FALSE(FindVersionField("one-dash.x", version));
    EXPECT_FALSE(FindVersionField("ends--1.x", version));
}

} // namespace
