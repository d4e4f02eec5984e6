// Writes the minidump of this process. See crash_system.h for what is allowed here.

#include "vex_core/crash/crash_context.h"
#include "vex_core/crash/crash_maps.h"
#include "vex_core/crash/crash_system.h"
#include "vex_core/crash/minidump_writer.h"
#include "vex_core/crash/other_threads.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <ucontext.h>
#include <unistd.h>

namespace VexCore {
namespace {
constexpr long threadsWaitMs = 500;
constexpr std::uint64_t stackBytes = 256 * 1024; // of each thread, from its innermost frame on
constexpr std::uint64_t redZoneBytes = 128; // below the stack pointer, in use by leaf functions
constexpr std::uint64_t overflowReachBytes = 1 << 20; // from an overflown stack's pointer to the stack
constexpr std::uint64_t codeBytes = 512; // around the crash
constexpr std::uint64_t maxFullBytes = static_cast<std::uint64_t>(8) << 30;

// Set by PrepareCrashDump.
std::uint64_t g_pageBytes = 4096;
std::uint8_t g_processors = 0;
struct utsname g_systemName;
std::uint64_t g_environmentStart =
    0; // the texts lie above the main thread's stack, in one mapping with it; 0: not there

// Too large for a small stack; the crashed thread alone gets here.
Minidump::Thread g_threadRecords[maxStoppedThreads];
Minidump::ThreadName g_threadNames[maxStoppedThreads];
Minidump::Module g_moduleRecords[maxCrashModules];
Minidump::MemoryDescriptor g_memoryRecords[maxStoppedThreads + 1];
Minidump::MemoryDescriptor64 g_fullRecords[maxCrashRanges];
Minidump::ContextAmd64 g_registers;

// Appends a number of records behind their count, as most streams are made.
template <class Count, class Record>
void AddList(MinidumpWriter& writer, Minidump::StreamType type, const Record* records, Count count)
{
    const Minidump::Location room = writer.Reserve(sizeof count + count * sizeof(Record));
    writer.WriteAt(room.rva, &count, sizeof count);
    writer.WriteAt(room.rva + sizeof count, records, count * sizeof(Record));
    writer.AddStream(type, room);
}

class DumpBuilder
{
public:
    DumpBuilder(int descriptor, const CrashSite& site) : m_writer(descriptor), m_site(site) {}

    int Build(bool full)
    {
        ReadCrashMaps();
        AddThreads();
        AddModules();
        AddCodeAroundCrash();
        AddList(m_writer, Minidump::MemoryListStream, g_memoryRecords, m_memoryCount);
        AddException();
        AddSystemInfo();
        AddMiscInfo();
        AddFiles();
        if (full)
            AddFullMemory();
        struct timespec now = {};
        clock_gettime(CLOCK_REALTIME, &now);
        m_writer.Finish(static_cast<std::uint32_t>(now.tv_sec), full);
        return m_writer.Error();
    }

private:
    void AddThreads()
    {
        std::size_t count = 0;
        const StoppedThread* const threads =
            StopOtherThreads(m_site.process, m_site.thread, m_site.context, threadsWaitMs, count);
        for (std::size_t i = 0; i < count; ++i) {
            AddThread(threads[i], g_threadRecords[i]);
            AddThreadName(threads[i].number, g_threadNames[i]);
        }
        m_crashContext = g_threadRecords[0].context;
        AddList(m_writer, Minidump::ThreadListStream, g_threadRecords, static_cast<std::uint32_t>(count));
        AddList(m_writer, Minidump::ThreadNamesStream, g_threadNames, static_cast<std::uint32_t>(count));
    }

    void AddThread(const StoppedThread& thread, Minidump::Thread& record)
    {
        CrashRegisters place;
        if (thread.context) {
            place = ReadCrashContext(thread.context, g_registers);
        } else {
            place = AskSystem(thread.number);
            SetCrashPlace(place, g_registers);
        }
        record = Minidump::Thread();
        record.id = static_cast<std::uint32_t>(thread.number);
        record.context = m_writer.Append(&g_registers, sizeof g_registers);
        record.stack = AddStack(place.stackPointer);
        if (thread.number == m_site.thread)
            m_crashPlace = place.instructionPointer;
    }

    // "/proc/self/task/N/syscall" ends with the stack and instruction pointers of a thread that waits in the
    // kernel.
    static CrashRegisters AskSystem(long thread)
    {
        static char s_text[512];
        CrashText path;
        path << "/proc/self/task/";
        path.Decimal(thread) << "/syscall";
        const int file = open(path.Data(), O_RDONLY | O_CLOEXEC);
        if (file < 0)
            return {};
        const ssize_t size = read(file, s_text, sizeof s_text - 1);
        close(file);
        CrashRegisters place;
        if (size <= 0)
            return place;
        s_text[size] = '\0';
        for (const char* at = s_text; (at = std::strstr(at, " 0x")) != nullptr;) {
            at += 3;
            std::uint64_t value = 0;
            for (; *at != ' ' && *at != '\n' && *at != '\0'; ++at)
                value = value << 4 | static_cast<std::uint64_t>(*at <= '9' ? *at - '0' : *at - 'a' + 10);
            place.stackPointer = place.instructionPointer;
            place.instructionPointer = value;
        }
        return place;
    }

    Minidump::MemoryDescriptor AddStack(std::uint64_t stackPointer)
    {
        const CrashRange* const range = stackPointer == 0 ? nullptr : FindCrashRange(stackPointer, overflowReachBytes);
        if (!range)
            return Minidump::MemoryDescriptor();
        const std::uint64_t low = stackPointer > redZoneBytes ? stackPointer - redZoneBytes : 0;
        const std::uint64_t start = std::max(range->start, low & ~(g_pageBytes - 1));
        std::uint64_t end = std::min(range->end, start + stackBytes);
        if (start < g_environmentStart && g_environmentStart < end)
            end = g_environmentStart;
        return AddMemory(start, end);
    }

    Minidump::MemoryDescriptor AddMemory(std::uint64_t start, std::uint64_t end)
    {
        const Minidump::MemoryDescriptor memory = {start, m_writer.AppendMemory(start, end - start)};
        if (m_memoryCount < maxStoppedThreads + 1)
            g_memoryRecords[m_memoryCount++] = memory;
        return memory;
    }

    void AddThreadName(long thread, Minidump::ThreadName& record)
    {
        static char s_name[64];
        CrashText path;
        path << "/proc/self/task/";
        path.Decimal(thread) << "/comm";
        const int file = open(path.Data(), O_RDONLY | O_CLOEXEC);
        ssize_t size = file >= 0 ? read(file, s_name, sizeof s_name - 1) : 0;
        if (file >= 0)
            close(file);
        size = std::max<ssize_t>(size, 1);
        s_name[size - 1] = '\0'; // the line end
        record.id = static_cast<std::uint32_t>(thread);
        record.nameRva = m_writer.AppendText(s_name);
    }

    void AddModules()
    {
        std::size_t count = 0;
        const CrashModule* const modules = CrashModules(count);
        for (std::size_t i = 0; i < count; ++i) {
            Minidump::Module& record = g_moduleRecords[i];
            record = Minidump::Module();
            record.base = modules[i].base;
            record.size = static_cast<std::uint32_t>(modules[i].end - modules[i].base);
            record.nameRva = m_writer.AppendText(modules[i].name);
            if (modules[i].buildIdSize > 0) {
                record.codeView = m_writer.Reserve(sizeof Minidump::codeViewElfBuildId + modules[i].buildIdSize);
                m_writer.WriteAt(record.codeView.rva, &Minidump::codeViewElfBuildId,
                                 sizeof Minidump::codeViewElfBuildId);
                m_writer.WriteAt(record.codeView.rva + sizeof Minidump::codeViewElfBuildId, modules[i].buildId,
                                 modules[i].buildIdSize);
            }
        }
        AddList(m_writer, Minidump::ModuleListStream, g_moduleRecords, static_cast<std::uint32_t>(count));
    }

    void AddCodeAroundCrash()
    {
        const CrashRange* const range = FindCrashRange(m_crashPlace, 0);
        if (!range)
            return; // a jump into nowhere
        const std::uint64_t start = std::max(range->start, m_crashPlace - std::min(m_crashPlace, codeBytes / 2));
        AddMemory(start, std::min(range->end, start + codeBytes));
    }

    void AddException()
    {
        Minidump::Exception record = {};
        record.threadId = static_cast<std::uint32_t>(m_site.thread);
        record.code = static_cast<std::uint32_t>(m_site.signal);
        record.flags = static_cast<std::uint32_t>(m_site.info->si_code);
        record.address = reinterpret_cast<std::uintptr_t>(m_site.info->si_addr);
        record.context = m_crashContext;
        m_writer.AddStream(Minidump::ExceptionStream, m_writer.Append(&record, sizeof record));
    }

    void AddSystemInfo()
    {
        CrashText version;
        version << g_systemName.sysname << ' ' << g_systemName.release << ' ' << g_systemName.version << ' '
                << g_systemName.machine;
        Minidump::SystemInfo record = {};
        record.architecture = Minidump::architectureAmd64;
        record.processors = g_processors;
        record.platform = Minidump::platformLinux;
        record.versionTextRva = m_writer.AppendText(version.Data());
        m_writer.AddStream(Minidump::SystemInfoStream, m_writer.Append(&record, sizeof record));
    }

    void AddMiscInfo()
    {
        Minidump::MiscInfo record = {};
        record.size = sizeof record;
        record.flags = 1;
        record.processId = static_cast<std::uint32_t>(m_site.process);
        m_writer.AddStream(Minidump::MiscInfoStream, m_writer.Append(&record, sizeof record));
    }

    // The environment is left out on purpose, here and above the main thread's stack: it is where secrets are
    // passed.
    void AddFiles()
    {
        constexpr std::size_t maxBytes = 4 << 20;
        m_writer.AddStream(Minidump::LinuxMapsStream, m_writer.AppendFile("/proc/self/maps", maxBytes));
        m_writer.AddStream(Minidump::LinuxProcStatusStream, m_writer.AppendFile("/proc/self/status", maxBytes));
        m_writer.AddStream(Minidump::LinuxCpuInfoStream, m_writer.AppendFile("/proc/cpuinfo", maxBytes));
        m_writer.AddStream(Minidump::LinuxAuxvStream, m_writer.AppendFile("/proc/self/auxv", maxBytes));
        m_writer.AddStream(Minidump::LinuxCmdLineStream, m_writer.AppendFile("/proc/self/cmdline", maxBytes));
    }

    // The memory itself comes last in the file, in one piece, because it may lie beyond what a location can
    // say.
    void AddFullMemory()
    {
        std::size_t rangeCount = 0;
        const CrashRange* const ranges = CrashRanges(rangeCount);
        std::uint64_t count = 0;
        std::uint64_t total = 0;
        for (std::size_t i = 0; i < rangeCount; ++i) {
            const std::uint64_t size = ranges[i].end - ranges[i].start;
            if (!ranges[i].readable || ranges[i].device || total + size > maxFullBytes)
                continue;
            g_fullRecords[count++] = {ranges[i].start, size};
            total += size;
        }
        const std::size_t listBytes = static_cast<std::size_t>(count) * sizeof g_fullRecords[0];
        const Minidump::Location room = m_writer.Reserve(2 * sizeof(std::uint64_t) + listBytes);
        const std::uint64_t head[2] = {count, m_writer.End()};
        m_writer.WriteAt(room.rva, head, sizeof head);
        m_writer.WriteAt(room.rva + sizeof head, g_fullRecords, listBytes);
        m_writer.AddStream(Minidump::Memory64ListStream, room);
        for (std::uint64_t i = 0; i < count; ++i)
            m_writer.AppendLargeMemory(g_fullRecords[i].start, g_fullRecords[i].size);
    }

    MinidumpWriter m_writer;
    const CrashSite& m_site;
    Minidump::Location m_crashContext = {};
    std::uint64_t m_crashPlace = 0;
    std::uint32_t m_memoryCount = 0;
};

// The folders on the way to a file, each for the owner alone. The last failure shows when the file is opened.
void MakeFoldersOf(const char* path)
{
    static char s_folder[4200];
    for (std::size_t i = 0; path[i] != '\0' && i + 1 < sizeof s_folder; ++i) {
        s_folder[i] = path[i];
        s_folder[i + 1] = '\0';
        if (path[i + 1] == '/')
            mkdir(s_folder, 0700);
    }
}

int OpenNew(const char* path)
{
    constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    unlink(path);
    const int file = open(path, flags, 0600);
    if (file >= 0 || errno != ENOENT)
        return file;
    MakeFoldersOf(path);
    return open(path, flags, 0600);
}

// Lowest of the environment's texts that the kernel laid out; those changed since are elsewhere.
std::uint64_t FindEnvironmentStart()
{
    constexpr std::uint64_t reach = 64 << 20;
    const int local = 0;
    const std::uint64_t here = reinterpret_cast<std::uintptr_t>(&local);
    std::uint64_t lowest = 0;
    for (char** text = environ; text && *text; ++text) {
        const std::uint64_t at = reinterpret_cast<std::uintptr_t>(*text);
        if (at > here && at - here < reach && (lowest == 0 || at < lowest))
            lowest = at;
    }
    return lowest;
}

} // namespace

void PrepareCrashDump()
{
    g_environmentStart = FindEnvironmentStart();
    g_pageBytes = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
    g_processors = static_cast<std::uint8_t>(std::clamp(sysconf(_SC_NPROCESSORS_ONLN), 0L, 255L));
    uname(&g_systemName);
}

int WriteCrashDump(const CrashDumpTarget& target, const CrashSite& site)
{
    if (!HasCrashContext())
        return ENOSYS;
    const int file = OpenNew(target.temporary);
    if (file < 0)
        return errno;
    alignas(DumpBuilder) static char s_room[sizeof(DumpBuilder)];
    int error = (new (s_room) DumpBuilder(file, site))->Build(target.full);
    if (close(file) != 0 && error == 0)
        error = errno;
    if (error == 0)
        KeepEarlierDump(target.path);
    if (error == 0 && rename(target.temporary, target.path) != 0)
        error = errno;
    if (error != 0)
        unlink(target.temporary);
    return error;
}

long CurrentThreadNumber()
{
    return syscall(SYS_gettid);
}

bool IsOnMainThread(const CrashSite& site)
{
    return site.thread == site.process;
}

namespace {
void SetDefault(int signal)
{
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    sigemptyset(&action.sa_mask);
    sigaction(signal, &action, nullptr);
}

} // namespace

// The signal waits, with all that came with it, until the handler's return has brought back the registers and
// the mask of the crash: so a core file shows the crash and not the handler.
void EndBySignalOnReturn(const CrashSite& site)
{
    SetDefault(site.signal);
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, site.signal);
    pthread_sigmask(SIG_BLOCK, &mask, nullptr);
    sigdelset(&static_cast<ucontext_t*>(site.context)->uc_sigmask, site.signal);
    if (syscall(SYS_rt_tgsigqueueinfo, site.process, site.thread, site.signal, site.info) != 0
        && syscall(SYS_tgkill, site.process, site.thread, site.signal) != 0)
        EndBySignalNow(site.signal);
}

void EndBySignalNow(int signal)
{
    SetDefault(signal);
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, signal);
    pthread_sigmask(SIG_UNBLOCK, &mask, nullptr);
    syscall(SYS_tgkill, getpid(), CurrentThreadNumber(), signal);
    _exit(128 + signal);
}

const char* CrashErrorText(int error)
{
    const char* const text = strerrordesc_np(error);
    return text ? text : "";
}

} // namespace VexCore
