// The reader against archives built for each rule: what is refused says which entry and why, what is valid is read whole.
#include "vex_core/zip_reader.h"

#include "support/temp_folder.h"
#include "support/zip_builder.h"

#include <cstdlib>
#include <fstream>
#include <set>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace VexCore;
using namespace Test;

namespace {

class ZipReader : public ::testing::Test
{
protected:
    std::shared_ptr<const ZipArchive> Open(const std::string& bytes, const ZipLimits& limits = ZipLimits())
    {
        WriteFile(m_file, bytes);
        return ZipArchive::Open(m_file, limits, m_error);
    }
    std::shared_ptr<const ZipArchive> Open(const ZipBuilder& builder) { return Open(builder.Build()); }

    /// Reads every entry; empty when all went well.
    static std::string ReadAll(const ZipArchive& archive, std::vector<std::string>* texts = nullptr)
    {
        for (const ZipEntry& entry : archive.Entries()) {
            std::string data, streamed, error;
            if (!archive.Read(entry, data, error))
                return entry.name + ": " + error;
            const auto sink = [&](const char* bytes, std::size_t size) {
                streamed.append(bytes, size);
                return true;
            };
            if (!archive.Read(entry, sink, error))
                return entry.name + ": " + error;
            if (streamed != data || data.size() != entry.size)
                return entry.name + ": the two ways of reading differ";
            if (texts)
                texts->push_back(data);
        }
        return "";
    }

    void ExpectRefused(const ZipBuilder& builder, const std::string& reason) { ExpectRefused(builder.Build(), reason); }
    void ExpectRefused(const std::string& bytes, const std::string& reason)
    {
        EXPECT_EQ(Open(bytes), nullptr) << reason;
        EXPECT_NE(m_error.find(reason), std::string::npos) << "said: " << m_error << "\nexpected: " << reason;
        EXPECT_EQ(m_error.find('\n'), std::string::npos);
    }

    TempFolder m_folder;
    std::string m_file = m_folder.Path() + "/x.zip";
    std::string m_error;
};

} // namespace

TEST_F(ZipReader, PlainPackageIsListedInItsOrderAndReadWhole)
{
    const auto archive = Open(PlainPackage());
    ASSERT_TRUE(archive) << m_error;
    ASSERT_EQ(archive->Entries().size(), 4u);
    EXPECT_EQ(archive->Entries()[0].name, "lib/");
    EXPECT_TRUE(archive->Entries()[0].isFolder);
    EXPECT_FALSE(archive->Entries()[1].executable);
    EXPECT_TRUE(archive->Entries()[3].executable);
    std::vector<std::string> texts;
    EXPECT_EQ(ReadAll(*archive, &texts), "");
    EXPECT_EQ(texts, (std::vector<std::string>{"", "return 1\n", "return 2\n", "#!/bin/sh\necho tool\n"}));
    EXPECT_EQ(archive->Path(), m_file);
}
