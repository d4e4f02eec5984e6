#include "vex/apps/vexctl/crash_dump.h"
#include "vex_core/crash/minidump_format.h"

#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <vector>

using namespace Vexctl;
using ::Test::TempFolder;
using ::Test::WriteFile;
namespace Format = VexCore::Minidump;

namespace {
// A dump with one module and one named thread, put together record by record.
class DumpBuilder
{
public:
    DumpBuilder()
    {
        Format::Header header = {};
        header.signature = 0x504d444d;
        header.streamCount = 5;
        header.directoryRva = sizeof header;
        header.time = 1'700'000'000;
        Append(header);
        m_bytes.resize(sizeof header + header.streamCount * sizeof(Format::DirectoryEntry));

        Format::ContextAmd64 context = {};
        context.rip = 0x40001234;
        Format::Exception exception = {};
        exception.threadId = 77;
        exception.code = SIGSEGV;
        exception.address = 0x10;
        exception.context = {sizeof context, Append(context)};
        AddStream(Format::ExceptionStream, sizeof exception, Append(exception));

        Format::SystemInfo system = {};
        system.architecture = Format::architectureAmd64;
        AddStream(Format::SystemInfoStream, sizeof system, Append(system));

        Format::MiscInfo misc = {};
        misc.processId = 76;
        AddStream(Format::MiscInfoStream, sizeof misc, Append(misc));

        Format::ThreadName name = {};
        name.id = 77;
        name.nameRva = AppendText(u"Wörker");
        AddStream(Format::ThreadNamesStream, 4 + sizeof name, AppendList(name));

        const std::uint32_t buildId[] = {Format::codeViewElfBuildId, 0x01020304};
        Format::Module module = {};
        module.base = 0x40000000;
        module.size = 0x10000;
        module.nameRva = AppendText(u"/opt/lib/x.so");
        module.codeView = {sizeof buildId, Append(buildId)};
        AddStream(Format::ModuleListStream, 4 + sizeof module, AppendList(module));
    }

    const std::string& Bytes() const { return m_bytes; }

private:
    template <typename Record>
    std::uint32_t Append(const Record& record)
    {
        const auto at = static_cast<std::uint32_t>(m_bytes.size());
        m_bytes.append(reinterpret_cast<const char*>(&record), sizeof record);
        return at;
    }

    template <typename Record>
    std::uint32_t AppendList(const Record& only)
    {
        const std::uint32_t at = Append(std::uint32_t{1});
        Append(only);
        return at;
    }

    std::uint32_t AppendText(std::u16string_view text)
    {
        const std::uint32_t at = Append(static_cast<std::uint32_t>(text.size() * 2));
        for (const char16_t unit : text)
            Append(unit);
        return at;
    }

    void AddStream(std::uint32_t type, std::size_t size, std::uint32_t rva)
    {
        const Format::DirectoryEntry entry = {type, {static_cast<std::uint32_t>(size), rva}};
        std::memcpy(&m_bytes[sizeof(Format::Header) + m_streams++ * sizeof entry], &entry, sizeof entry);
    }

    std::string m_bytes;
    std::size_t m_streams = 0;
};

} // namespace

TEST(CrashDump, TellsWhatCrashedWhere)
{
    const TempFolder folder;
    WriteFile(folder / "a.mdmp", DumpBuilder().Bytes());
    const auto dump = ReadCrashDump(folder / "a.mdmp");
    ASSERT_TRUE(dump);
    EXPECT_EQ(dump->damage, "");
    EXPECT_EQ(dump->timeMs, 1'700'000'000'000);
    EXPECT_EQ(SignalName(dump->signal), "SIGSEGV");
    EXPECT_EQ(dump->address, 0x10u);
    EXPECT_EQ(dump->process, 76);
    EXPECT_EQ(dump->thread, 77);
    EXPECT_EQ(dump->threadName, "Wörker");
    EXPECT_EQ(dump->module, "/opt/lib/x.so");
    EXPECT_EQ(dump->offset, 0x1234u);
    EXPECT_EQ(dump->buildId, "04030201");
}

TEST(CrashDump, OneThatWasCutAnywhereIsDamagedOrWhole)
{
    const TempFolder folder;
    const std::string whole = DumpBuilder().Bytes();
    for (std::size_t size = 0; size < whole.size(); ++size) {
        WriteFile(folder / "a.mdmp", whole.substr(0, size));
        const auto dump = ReadCrashDump(folder / "a.mdmp");
        ASSERT_TRUE(dump);
        EXPECT_NE(dump->damage, "") << size;
        EXPECT_GT(dump->timeMs, 0);
    }
}

TEST(CrashDump, AByteThatIsWrongNeverLeadsOutOfTheFile)
{
    const TempFolder folder;
    const std::string whole = DumpBuilder().Bytes();
    std::size_t damaged = 0;
    for (std::size_t at = 0; at < whole.size(); at += 3) {
        std::string bytes = whole;
        bytes[at] = '\xff';
        WriteFile(folder / "a.mdmp", bytes);
        const auto dump = ReadCrashDump(folder / "a.mdmp");
        ASSERT_TRUE(dump);
        damaged += dump->damage.empty() ? 0 : 1;
    }
    EXPECT_GT(damaged, 10u);
}

TEST(CrashDump, AFolderAndForeignBytesAreToldFromAMissingFile)
{
    const TempFolder folder;
    EXPECT_FALSE(ReadCrashDump(folder / "none"));
    EXPECT_EQ(ReadCrashDump(folder.Path())->damage, "it is no regular file");
    WriteFile(folder / "x", std::string(1000, 'x'));
    EXPECT_EQ(ReadCrashDump(folder / "x")->damage, "it is no dump");
}

TEST(CrashDump, ASignalOfAnotherKindIsItsNumber)
{
    EXPECT_EQ(SignalName(SIGABRT), "SIGABRT");
    EXPECT_EQ(SignalName(0), "0");
}
