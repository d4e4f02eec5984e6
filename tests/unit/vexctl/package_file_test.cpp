#include "vex/apps/vexctl/package_file.h"

#include "support/our_version.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

using namespace Vexctl;
using ::Test::Ours;

TEST(PackageNames, TellKindPluginVersionAndBuild)
{
    const auto package = ParsePackageName(Ours("Agent-Feature-Linux-{version}-4014.x86_64.vxp"));
    ASSERT_TRUE(package);
    EXPECT_EQ(package->kind, PackageKind::Package);
    EXPECT_EQ(package->base, Ours("Agent-Feature-Linux-{version}-4014.x86_64"));
    EXPECT_EQ(package->plugin, "Feature");
    EXPECT_EQ(package->version, Ours("{version}"));
    EXPECT_EQ(package->build, "4014");
    EXPECT_EQ(package->VersionText(), Ours("{version}-4014"));
    EXPECT_TRUE(package->fits);
    const auto done = ParsePackageName(Ours("Agent-Feature-Linux-{version}-4014.x86_64.vxp.done"));
    ASSERT_TRUE(done);
    EXPECT_EQ(done->kind, PackageKind::Done);
    EXPECT_EQ(done->base, package->base);
    EXPECT_EQ(ParsePackageName("a-b.vxu")->kind, PackageKind::Marker);
    EXPECT_EQ(ParsePackageName("net.vxe")->kind, PackageKind::Extension);
    EXPECT_EQ(ParsePackageName("net.vxe")->plugin, "net");
}

TEST(PackageNames, WithoutFieldsCarryNoVersionAndFit)
{
    const auto package = ParsePackageName("Feature.vxp");
    ASSERT_TRUE(package);
    EXPECT_EQ(package->plugin, "Feature");
    EXPECT_EQ(package->VersionText(), "-");
    EXPECT_TRUE(package->fits);
    EXPECT_FALSE(ParsePackageName(Ours("Agent-Feature-Linux-{other}-1.x86_64.vxp"))->fits);
}

TEST(PackageNames, OfOtherKindsAndHiddenOnesAreNone)
{
    for (const char* const name : {"", ".vxp", ".a.vxp", "a.VXP", "a.vxp.bak", "a.done", "vxp", "a.vxe.version"})
        EXPECT_FALSE(ParsePackageName(name)) << name;
}

TEST(PackageNames, ThatAreNoTextKeepTheirBytes)
{
    const auto package = ParsePackageName("Agent-Feat\xe9re-Linux-1.x.vxp");
    ASSERT_TRUE(package);
    EXPECT_EQ(package->plugin, "Feat\xe9re");
}

TEST(NumberOrder, RunsOfDigitsAreNumbers)
{
    EXPECT_LT(CompareInNumberOrder("10.0.0", "10.0.1"), 0);
    EXPECT_LT(CompareInNumberOrder("9.9.9", "10.0.0"), 0);
    EXPECT_GT(CompareInNumberOrder("4015", "999"), 0);
    EXPECT_EQ(CompareInNumberOrder("007", "7"), 0);
    EXPECT_LT(CompareInNumberOrder("99999999999999999998", "99999999999999999999"), 0);
    EXPECT_LT(CompareInNumberOrder("1", "1a"), 0);
    EXPECT_LT(CompareInNumberOrder("", "0"), 0);
    EXPECT_LT(CompareInNumberOrder("a", "b"), 0);
    EXPECT_LT(CompareInNumberOrder("z", "\xc3\xa9"), 0);
}

TEST(NumberOrder, PackagesStandByPluginThenVersionThenBuild)
{
    const std::vector<std::string> expected = {"Agent-A-Linux-9.0.0-5.x.vxp", "Agent-A-Linux-10.0.0-999.x.vxp",
                                               "Agent-A-Linux-10.0.0-10000.x.vxp", "Agent-B-Linux-1.0.0-1.x.vxp"};
    std::vector<PackageName> names;
    for (const std::string& file : {expected[3], expected[2], expected[0], expected[1]})
        names.push_back(*ParsePackageName(file));
    std::sort(names.begin(), names.end(), ComesBefore);
    for (std::size_t i = 0; i < expected.size(); ++i)
        EXPECT_EQ(names[i].file, expected[i]);
}
