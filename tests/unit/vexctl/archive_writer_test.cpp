#include "vex/apps/vexctl/archive_writer.h"
#include "vex/apps/vexctl/command.h"

#include "vex_core/zip/unzip_check.h"

#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <random>

using namespace Vexctl;
using ::Test::TempFolder;
using ::Test::WriteFile;

namespace {
struct File
{
    std::string name;
    std::string data;
    unsigned mode;
};

std::string Archive(const std::vector<File>& files, std::size_t pieceBytes)
{
    std::string bytes;
    ArchiveWriter writer([&bytes](const char* data, std::size_t size) { bytes.append(data, size); });
    for (const File& file : files) {
        std::string_view rest = file.data;
        writer.Add(file.name, file.mode, [&rest, pieceBytes] {
            const std::string_view piece = rest.substr(0, pieceBytes);
            rest.remove_prefix(piece.size());
            return piece;
        });
    }
    writer.Finish();
    return bytes;
}

std::string Noise(std::size_t size)
{
    std::mt19937 random(7);
    std::string noise(size, '\0');
    for (char& c : noise)
        c = static_cast<char>(random());
    return noise;
}

std::vector<File> OddFiles()
{
    std::vector<File> files = {{"a", "", 0644},
                               {"b/c/\xc3\xa9 d", "text", 0755},
                               {"noise", Noise(300000), 0644},
                               {"zeros", std::string(5000000, '\0'), 0644},
                               {std::string(200, 'x') + "/" + std::string(255, 'y'), "long", 0644}};
    for (int i = 0; i < 300; ++i)
        files.push_back({"many/" + std::to_string(i), Noise(static_cast<std::size_t>(i)), 0644});
    return files;
}

} // namespace

TEST(ArchiveWriter, WhatItWritesIsReadAgain)
{
    const TempFolder folder;
    const std::vector<File> files = OddFiles();
    WriteFile(folder / "x.vxp", Archive(files, 100000));
    std::vector<std::string> reasons;
    const auto archive = VexCore::OpenToUnzip(folder / "x.vxp", VexCore::ZipLimits(), reasons);
    ASSERT_TRUE(archive && reasons.empty()) << reasons.front();
    ASSERT_EQ(archive->Entries().size(), files.size());
    for (std::size_t i = 0; i < files.size(); ++i) {
        const VexCore::ZipEntry& entry = archive->Entries()[i];
        EXPECT_EQ(entry.name, files[i].name);
        EXPECT_EQ(entry.mode, files[i].mode);
        std::string data;
        std::string error;
        EXPECT_TRUE(archive->Read(entry, data, error)) << entry.name << ": " << error;
        EXPECT_TRUE(data == files[i].data) << entry.name;
    }
}

TEST(ArchiveWriter, AnArchiveOfNothingIsOne)
{
    const TempFolder folder;
    WriteFile(folder / "x.vxp", Archive({}, 1));
    std::string error;
    const auto archive = VexCore::OpenToUnzip(folder / "x.vxp", VexCore::ZipLimits(), error);
    ASSERT_TRUE(archive) << error;
    EXPECT_TRUE(archive->Entries().empty());
}

TEST(ArchiveWriter, HowTheDataComeInMakesNoDifference)
{
    EXPECT_TRUE(Archive(OddFiles(), 1 << 20) == Archive(OddFiles(), 70001));
}

TEST(ArchiveWriter, MoreFilesThanAnArchiveCanCountAreRefused)
{
    ArchiveWriter writer([](const char*, std::size_t) {});
    const auto nothing = [] { return std::string_view(); };
    const auto fill = [&] {
        for (int i = 0; i < 65535; ++i)
            writer.Add("x", 0644, nothing);
    };
    EXPECT_THROW(fill(), Failure);
}

TEST(ArchiveWriter, WhatItsSinkThrowsComesOut)
{
    ArchiveWriter writer([](const char*, std::size_t) { throw Failure("full"); });
    EXPECT_THROW(writer.Add("x", 0644, [] { return std::string_view(); }), Failure);
}
