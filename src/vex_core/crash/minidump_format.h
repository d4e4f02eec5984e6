#pragma once
// The records of a minidump file, as far as ours have them. All numbers little-endian, packed.

#include <cstdint>

namespace VexCore::Minidump {

constexpr char fileSuffix[] = ".mdmp";

#pragma pack(push, 1)

struct Location
{
    std::uint32_t size;
    std::uint32_t rva; // offset in the file
};

struct Header
{
    std::uint32_t signature; // "MDMP"
    std::uint32_t version;
    std::uint32_t streamCount;
    std::uint32_t directoryRva;
    std::uint32_t checksum;
    std::uint32_t time; // seconds since the epoch
    std::uint64_t flags;
};
static_assert(sizeof(Header) == 32);

struct DirectoryEntry
{
    std::uint32_t type;
    Location location;
};

enum StreamType : std::uint32_t {
    ThreadListStream = 3,
    ModuleListStream = 4,
    MemoryListStream = 5,
    ExceptionStream = 6,
    SystemInfoStream = 7,
    Memory64ListStream = 9,
    MiscInfoStream = 15,
    ThreadNamesStream = 24,
    LinuxCpuInfoStream = 0x47670003,
    LinuxProcStatusStream = 0x47670004,
    LinuxCmdLineStream = 0x47670006,
    LinuxAuxvStream = 0x47670008,
    LinuxMapsStream = 0x47670009,
};

struct MemoryDescriptor
{
    std::uint64_t start;
    Location location;
};

struct MemoryDescriptor64
{
    std::uint64_t start;
    std::uint64_t size;
};

struct Thread
{
    std::uint32_t id;
    std::uint32_t suspendCount;
    std::uint32_t priorityClass;
    std::uint32_t priority;
    std::uint64_t teb;
    MemoryDescriptor stack;
    Location context;
};
static_assert(sizeof(Thread) == 48);

struct ThreadName
{
    std::uint32_t id;
    std::uint64_t nameRva;
};
static_assert(sizeof(ThreadName) == 12);

struct Module
{
    std::uint64_t base;
    std::uint32_t size;
    std::uint32_t checksum;
    std::uint32_t time;
    std::uint32_t nameRva;
    std::uint32_t version[13];
    Location codeView;
    Location misc;
    std::uint64_t reserved[2];
};
static_assert(sizeof(Module) == 108);

constexpr std::uint32_t codeViewElfBuildId = 0x4270454c; // then the build id's bytes

struct Exception
{
    std::uint32_t threadId;
    std::uint32_t alignment1;
    std::uint32_t code; // the signal
    std::uint32_t flags; // si_code
    std::uint64_t record;
    std::uint64_t address;
    std::uint32_t parameterCount;
    std::uint32_t alignment2;
    std::uint64_t parameters[15];
    Location context;
};
static_assert(sizeof(Exception) == 168);

struct SystemInfo
{
    std::uint16_t architecture;
    std::uint16_t level;
    std::uint16_t revision;
    std::uint8_t processors;
    std::uint8_t productType;
    std::uint32_t majorVersion;
    std::uint32_t minorVersion;
    std::uint32_t build;
    std::uint32_t platform;
    std::uint32_t versionTextRva;
    std::uint16_t suiteMask;
    std::uint16_t reserved;
    std::uint8_t cpu[24];
};
static_assert(sizeof(SystemInfo) == 56);

constexpr std::uint16_t architectureAmd64 = 9;
constexpr std::uint32_t platformLinux = 0x8201;

struct MiscInfo
{
    std::uint32_t size;
    std::uint32_t flags; // 1: the process id is valid
    std::uint32_t processId;
    std::uint32_t times[3];
};
static_assert(sizeof(MiscInfo) == 24);

struct ContextAmd64
{
    std::uint64_t home[6];
    std::uint32_t flags;
    std::uint32_t mxcsr;
    std::uint16_t cs, ds, es, fs, gs, ss;
    std::uint32_t eflags;
    std::uint64_t debug[6];
    std::uint64_t rax, rcx, rdx, rbx, rsp, rbp, rsi, rdi;
    std::uint64_t r8, r9, r10, r11, r12, r13, r14, r15;
    std::uint64_t rip;
    std::uint8_t floats[512]; // as FXSAVE lays them out
    std::uint8_t vectors[416];
    std::uint64_t vectorControl;
    std::uint64_t debugControl[5];
};
static_assert(sizeof(ContextAmd64) == 1232);

constexpr std::uint32_t contextAmd64 = 0x00100000;
constexpr std::uint32_t contextControl = contextAmd64 | 1; // cs, ss, rsp, rip, flags
constexpr std::uint32_t contextInteger = contextAmd64 | 2;
constexpr std::uint32_t contextSegments = contextAmd64 | 4;
constexpr std::uint32_t contextFloats = contextAmd64 | 8;

#pragma pack(pop)

} // namespace VexCore::Minidump
