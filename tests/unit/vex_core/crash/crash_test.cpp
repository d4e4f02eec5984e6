// The handler itself needs a process that may die: tests/e2e/crash. Here are its parts.

#include "vex/core/crash.h"
#include "vex_core/crash/crash_context.h"
#include "vex_core/crash/crash_maps.h"
#include "vex_core/crash/crash_system.h"
#include "vex_core/crash/minidump_writer.h"
#include "vex_core/crash/signal_stack.h"
#include "vex_core/os/signals.h"

#include "support/temp_folder.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <limits>
#include <thread>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <wx/string.h>

using namespace VexCore;

namespace {
template <class T>
T At(const std::string& bytes, std::uint64_t offset)
{
    T value;
    std::memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
}

class MinidumpFile : public testing::Test
{
protected:
    MinidumpFile() : m_descriptor(open(m_path.c_str(), O_RDWR | O_CREAT, 0600)), m_writer(m_descriptor) {}
    ~MinidumpFile() override { close(m_descriptor); }
    std::string Bytes() { return ::Test::ReadFile(m_path); }
    std::string Text(std::uint32_t rva)
    {
        const std::string bytes = Bytes();
        return bytes.substr(rva + 4, At<std::uint32_t>(bytes, rva));
    }

    ::Test::TempFolder m_folder;
    const std::string m_path = m_folder / "dump";
    int m_descriptor;
    MinidumpWriter m_writer;
};

} // namespace

TEST(CrashText, FormatsNumbersWithoutTheLibrary)
{
    CrashText text;
    text << "a" << ' ';
    text.Decimal(0) << ' ';
    text.Decimal(-17) << ' ';
    text.Decimal(7, 3) << ' ';
    text.Decimal(INT64_MIN) << ' ';
    text.Hex(0) << ' ';
    text.Hex(0xdeadbeef) << ' ';
    text.Hex(UINT64_MAX);
    EXPECT_STREQ(text.Data(), "a 0 -17 007 -9223372036854775808 0x0 0xdeadbeef 0xffffffffffffffff");
    EXPECT_EQ(text.Size(), std::strlen(text.Data()));
}

TEST(CrashText, IsCutWhenItIsFull)
{
    CrashText text;
    for (int i = 0; i < 10000; ++i)
        text << 'x';
    EXPECT_LT(text.Size(), 4700u);
    EXPECT_EQ(text.Size(), std::strlen(text.Data()));
}

TEST_F(MinidumpFile, HeaderNamesTheDirectoryAndTheDirectoryTheStreams)
{
    m_writer.AddStream(Minidump::MiscInfoStream, m_writer.Append("12345", 5));
    m_writer.AddStream(Minidump::LinuxMapsStream, {0, 0}); // absent
    m_writer.AddStream(Minidump::LinuxAuxvStream, m_writer.Append("678", 3));
    m_writer.Finish(1700000000, false);
    ASSERT_EQ(m_writer.Error(), 0);
    const std::string bytes = Bytes();
    const auto header = At<Minidump::Header>(bytes, 0);
    EXPECT_EQ(bytes.substr(0, 4), "MDMP");
    EXPECT_EQ(header.streamCount, 2u);
    EXPECT_EQ(header.time, 1700000000u);
    const auto first = At<Minidump::DirectoryEntry>(bytes, header.directoryRva);
    const auto second = At<Minidump::DirectoryEntry>(bytes, header.directoryRva + sizeof first);
    EXPECT_EQ(first.type, Minidump::MiscInfoStream);
    EXPECT_EQ(bytes.substr(first.location.rva, first.location.size), "12345");
    EXPECT_EQ(second.type, Minidump::LinuxAuxvStream);
    EXPECT_EQ(bytes.substr(second.location.rva, second.location.size), "678");
    EXPECT_EQ(second.location.rva % 8, 0u);
}

TEST_F(MinidumpFile, AllMemoryOfALargeProcessMayEndBeyondWhatALocationCanSay)
{
    const std::string memory(8192, 'm');
    m_writer.AddStream(Minidump::MiscInfoStream, m_writer.Append("12345", 5));
    m_writer.Reserve(0xFFFFF000u - m_writer.End()); // a hole in the file, as large as it goes
    const std::uint64_t place = m_writer.End();
    m_writer.AppendLargeMemory(reinterpret_cast<std::uintptr_t>(memory.data()), memory.size());
    m_writer.Finish(0, true);
    ASSERT_EQ(m_writer.Error(), 0);
    struct stat status = {};
    ASSERT_EQ(fstat(m_descriptor, &status), 0);
    EXPECT_EQ(static_cast<std::uint64_t>(status.st_size), place + memory.size());
    Minidump::Header header = {};
    ASSERT_EQ(pread(m_descriptor, &header, sizeof header, 0), static_cast<ssize_t>(sizeof header));
    EXPECT_EQ(header.streamCount, 1u);
    Minidump::DirectoryEntry entry = {};
    ASSERT_EQ(pread(m_descriptor, &entry, sizeof entry, header.directoryRva), static_cast<ssize_t>(sizeof entry));
    EXPECT_EQ(entry.type, Minidump::MiscInfoStream);
}

TEST_F(MinidumpFile, TextIsUtf16BehindItsLength)
{
    const std::uint32_t plain = m_writer.AppendText("ab");
    const std::uint32_t wide = m_writer.AppendText("\xC3\xA4\xE2\x82\xAC\xF0\x9F\x99\x82\xFF");
    const std::uint32_t longest = m_writer.AppendText(std::string(10000, 'x').c_str());
    EXPECT_EQ(Text(plain), std::string("a\0b\0", 4));
    EXPECT_EQ(Text(wide), std::string("\xE4\0\xAC\x20\x3D\xD8\x42\xDE\xFF\0", 10));
    EXPECT_EQ(Text(longest).size(), 2u * 4094);
}

TEST_F(MinidumpFile, MemoryThatIsNotThereIsZeros)
{
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    char* const memory =
        static_cast<char*>(mmap(nullptr, 3 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(memory, MAP_FAILED);
    std::memset(memory, 'm', 3 * page);
    ASSERT_EQ(mprotect(memory + page, page, PROT_NONE), 0);
    const Minidump::Location all = m_writer.AppendMemory(reinterpret_cast<std::uintptr_t>(memory) + 10, 3 * page - 10);
    ASSERT_EQ(munmap(memory + 2 * page, page), 0);
    const Minidump::Location end = m_writer.AppendMemory(reinterpret_cast<std::uintptr_t>(memory), 3 * page);
    m_writer.Finish(0, false);
    munmap(memory, 2 * page);
    ASSERT_EQ(m_writer.Error(), 0);
    const std::string bytes = Bytes();
    EXPECT_EQ(bytes.substr(all.rva, all.size),
              std::string(page - 10, 'm') + std::string(page, '\0') + std::string(page, 'm'));
    EXPECT_EQ(bytes.substr(end.rva, end.size), std::string(page, 'm') + std::string(2 * page, '\0'));
}

TEST_F(MinidumpFile, FileIsCopiedUpToTheLimit)
{
    ::Test::WriteFile(m_folder / "source", std::string(50000, 's'));
    const Minidump::Location whole = m_writer.AppendFile((m_folder / "source").c_str(), 1 << 20);
    const Minidump::Location part = m_writer.AppendFile((m_folder / "source").c_str(), 20000);
    const Minidump::Location none = m_writer.AppendFile((m_folder / "missing").c_str(), 1 << 20);
    EXPECT_EQ(whole.size, 50000u);
    EXPECT_EQ(part.size, 20000u);
    EXPECT_EQ(none.size, 0u);
    EXPECT_EQ(Bytes().substr(whole.rva, 50000), std::string(50000, 's'));
}

TEST(Minidump, FirstFailureIsKept)
{
    MinidumpWriter writer(-1);
    writer.Append("x", 1);
    EXPECT_EQ(writer.Error(), EBADF);
    writer.Finish(0, false);
    EXPECT_EQ(writer.Error(), EBADF);
}

TEST(Minidump, MoreThanALocationCanSayIsAnErrorNotAWrap)
{
    MinidumpWriter writer(-1);
    writer.AppendMemory(0, static_cast<std::uint64_t>(5) << 30);
    EXPECT_EQ(writer.Error(), EFBIG);
}

TEST(CrashMaps, ListThisProgramWithItsRangesAndItsFiles)
{
    ASSERT_TRUE(ReadCrashMaps());
    int local = 0;
    const auto onStack = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(&local));
    const CrashRange* const stack = FindCrashRange(onStack, 0);
    ASSERT_NE(stack, nullptr);
    EXPECT_TRUE(stack->start <= onStack && onStack < stack->end);
    std::size_t count = 0;
    const CrashModule* const modules = CrashModules(count);
    const auto code = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(&InitCrashHandler));
    bool found = false;
    for (std::size_t i = 0; i < count; ++i)
        if (modules[i].base <= code && code < modules[i].end)
            found = std::string(modules[i].name).find("unit_core") != std::string::npos;
    EXPECT_TRUE(found);
    std::size_t ranges = 0;
    const CrashRange* const all = CrashRanges(ranges);
    for (std::size_t i = 1; i < ranges; ++i)
        EXPECT_LE(all[i - 1].end, all[i].start);
}

TEST(CrashMaps, FileThatWasDeletedKeepsItsName)
{
    ::Test::TempFolder folder;
    const std::string copy = folder / "gone.so";
    std::string head(1 << 16, '\0');
    std::ifstream("/proc/self/exe", std::ios::binary).read(&head[0], static_cast<std::streamsize>(head.size()));
    ::Test::WriteFile(copy, head);
    const int file = open(copy.c_str(), O_RDONLY);
    void* const mapping = mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE, file, 0);
    close(file);
    unlink(copy.c_str());
    ASSERT_TRUE(ReadCrashMaps());
    munmap(mapping, 4096);
    std::size_t count = 0;
    const CrashModule* const modules = CrashModules(count);
    bool found = false;
    for (std::size_t i = 0; i < count; ++i)
        found = found || copy == modules[i].name;
    EXPECT_TRUE(found);
}

TEST(CrashMaps, MappedFileThatIsNoProgramIsNoModule)
{
    ::Test::TempFolder folder;
    ::Test::WriteFile(folder / "data", std::string(4096, 'd'));
    const int file = open((folder / "data").c_str(), O_RDONLY);
    void* const mapping = mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE, file, 0);
    close(file);
    ASSERT_TRUE(ReadCrashMaps());
    munmap(mapping, 4096);
    std::size_t count = 0;
    const CrashModule* const modules = CrashModules(count);
    for (std::size_t i = 0; i < count; ++i)
        EXPECT_NE(modules[i].name, folder / "data");
}

TEST(CrashMaps, NextRangeAboveIsFoundWithinReach)
{
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    char* const memory =
        static_cast<char*>(mmap(nullptr, 3 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(memory, MAP_FAILED);
    ASSERT_EQ(mprotect(memory, 2 * page, PROT_NONE), 0);
    ASSERT_TRUE(ReadCrashMaps());
    const auto start = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(memory));
    const CrashRange* const above = FindCrashRange(start, 2 * page);
    ASSERT_NE(above, nullptr);
    EXPECT_EQ(above->start, start + 2 * page);
    EXPECT_EQ(FindCrashRange(start, page), nullptr);
    munmap(memory, 3 * page);
}

TEST(CrashMaps, MemoryThatIsNotOursToReadIsNoStack)
{
    ASSERT_TRUE(ReadCrashMaps());
    std::size_t count = 0;
    const CrashRange* const ranges = CrashRanges(count);
    int devices = 0;
    for (std::size_t i = 0; i < count; ++i)
        if (ranges[i].device) {
            ++devices;
            EXPECT_EQ(FindCrashRange(ranges[i].start, 0), nullptr) << std::hex << ranges[i].start;
        }
    const std::string maps = ::Test::ReadFile("/proc/self/maps");
    int kernels = 0; // of the kernel's own
    for (const char* name : {"[vvar", "[vsyscall"})
        for (std::size_t at = maps.find(name); at != std::string::npos; at = maps.find(name, at + 1))
            ++kernels;
    EXPECT_EQ(devices, kernels);
}

TEST(CrashContext, ThreadThatDoesNotAnswerHasItsPlaceAndNothingElse)
{
    Minidump::ContextAmd64 context = {};
    context.rax = 1; // of the thread before
    SetCrashPlace({0x7ffc12345678, 0x401000}, context);
    EXPECT_EQ(context.flags, Minidump::contextControl);
    EXPECT_EQ(context.rsp, 0x7ffc12345678u);
    EXPECT_EQ(context.rip, 0x401000u);
    EXPECT_EQ(context.rax, 0u);
}

TEST(SignalStack, ThreadHasAnAlternateStackBetweenStartAndEnd)
{
    EnableSignalStacks();
    std::thread([] {
        stack_t before;
        stack_t during;
        stack_t after;
        sigaltstack(nullptr, &before);
        TakeSignalStack();
        TakeSignalStack(); // no other stack
        sigaltstack(nullptr, &during);
        // Below it lies a page that nobody may touch: an overflow there is a crash, not damage to something else.
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        EXPECT_EQ(write(ends[1], static_cast<char*>(during.ss_sp), 1), 1);
        EXPECT_EQ(write(ends[1], static_cast<char*>(during.ss_sp) - 1, 1), -1);
        EXPECT_EQ(errno, EFAULT);
        close(ends[0]);
        close(ends[1]);
        ReturnSignalStack();
        ReturnSignalStack();
        sigaltstack(nullptr, &after);
        EXPECT_NE(during.ss_sp, before.ss_sp);
        EXPECT_EQ(during.ss_flags & SS_DISABLE, 0);
        EXPECT_GE(during.ss_size, 64u * 1024);
        EXPECT_EQ(after.ss_sp, before.ss_sp);
        EXPECT_EQ(after.ss_flags & SS_DISABLE, before.ss_flags & SS_DISABLE);
    }).join();
}

TEST(SignalStack, TheNextThreadHasThatOfTheLastAndTwoAtATimeHaveTwo)
{
    EnableSignalStacks();
    const auto own = [] {
        stack_t stack;
        sigaltstack(nullptr, &stack);
        return stack.ss_sp;
    };
    void* first = nullptr;
    void* second = nullptr;
    void* beside = nullptr;
    std::thread([&] {
        TakeSignalStack();
        first = own();
        ReturnSignalStack();
    }).join();
    std::thread([&] {
        TakeSignalStack();
        second = own();
        std::thread([&] {
            TakeSignalStack();
            beside = own();
            ReturnSignalStack();
        }).join();
        EXPECT_EQ(msync(beside, 1, MS_ASYNC), 0); // kept
        ReturnSignalStack();
        EXPECT_EQ(msync(second, 1, MS_ASYNC), 0);
        EXPECT_EQ(msync(beside, 1, MS_ASYNC), -1); // one is enough
        EXPECT_EQ(errno, ENOMEM);
    }).join();
    EXPECT_EQ(second, first);
    EXPECT_NE(beside, second);
}

TEST(SignalStack, ThreadThatCannotHaveOneGoesOnWithout)
{
    // More than there is memory, and less than the system takes.
    for (const std::size_t bytes : {std::numeric_limits<std::size_t>::max() / 2, std::size_t{1}}) {
        SCOPED_TRACE(bytes);
        std::thread([bytes] {
            stack_t before;
            stack_t after;
            sigaltstack(nullptr, &before);
            os::SignalStack stack;
            os::UseSignalStack(stack, bytes);
            sigaltstack(nullptr, &after);
            EXPECT_EQ(stack.mapping, nullptr);
            EXPECT_EQ(after.ss_sp, before.ss_sp);
            EXPECT_EQ(after.ss_flags, before.ss_flags);
        }).join();
    }
}

TEST(CrashHandlerStart, RefusesAPathThatItCannotKeep)
{
    EXPECT_FALSE(InitCrashHandler(wxString(), "x", false));
    EXPECT_FALSE(InitCrashHandler(wxString('p', 5000), "x", false));
}
