// See crash_system.h for what is allowed here.

#include "vex_core/crash/crash_maps.h"

#include "vex_core/base/ascii.h"

#include <algorithm>
#include <cstring>

#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <unistd.h>

namespace VexCore {
namespace {
CrashRange g_ranges[maxCrashRanges];
std::size_t g_rangeCount = 0;
CrashModule g_modules[maxCrashModules];
std::size_t g_moduleCount = 0;
char g_names[256 * 1024]; // of the modules, each ended by NUL
std::size_t g_namesUsed = 0;

// Reads memory of our own that may not be there.
class OwnMemory
{
public:
    OwnMemory() : m_file(open("/proc/self/mem", O_RDONLY | O_CLOEXEC)) {}
    ~OwnMemory()
    {
        if (m_file >= 0)
            close(m_file);
    }
    OwnMemory(const OwnMemory&) = delete;
    OwnMemory& operator=(const OwnMemory&) = delete;

    bool Read(std::uint64_t address, void* to, std::size_t size) const
    {
        return m_file >= 0 && pread(m_file, to, size, static_cast<off_t>(address)) == static_cast<ssize_t>(size);
    }

private:
    int m_file;
};

// --- one line of the maps: "start-end rwxp offset device inode    path"

struct MapLine
{
    std::uint64_t start, end, offset;
    bool readable;
    const char* path; // empty for memory of no file
};

std::uint64_t ReadHex(const char*& at)
{
    std::uint64_t value = 0;
    for (;; ++at) {
        const char c = *at;
        if (c >= '0' && c <= '9')
            value = value << 4 | static_cast<std::uint64_t>(c - '0');
        else if (c >= 'a' && c <= 'f')
            value = value << 4 | static_cast<std::uint64_t>(c - 'a' + 10);
        else
            return value;
    }
}

void SkipField(const char*& at)
{
    while (*at == ' ')
        ++at;
    while (*at != '\0' && *at != ' ')
        ++at;
}

bool ParseMapLine(const char* at, MapLine& line)
{
    line.start = ReadHex(at);
    if (*at++ != '-')
        return false;
    line.end = ReadHex(at);
    if (*at++ != ' ')
        return false;
    line.readable = *at == 'r';
    SkipField(at);
    while (*at == ' ')
        ++at;
    line.offset = ReadHex(at);
    SkipField(at); // device
    SkipField(at); // inode
    while (*at == ' ')
        ++at;
    line.path = at;
    return true;
}

// --- modules

// The build id's note is in a segment of notes; `bias` is what the loader added to the file's addresses.
void FindBuildId(const OwnMemory& memory, CrashModule& module, const ElfW(Phdr) & segment, std::uint64_t bias)
{
    static std::uint8_t s_notes[4096];
    const std::size_t size = std::min<std::size_t>(segment.p_memsz, sizeof s_notes);
    if (!memory.Read(bias + segment.p_vaddr, s_notes, size))
        return;
    for (std::size_t at = 0; at + sizeof(ElfW(Nhdr)) <= size;) {
        ElfW(Nhdr) note;
        std::memcpy(&note, s_notes + at, sizeof note);
        const std::size_t name = at + sizeof note;
        const std::size_t content = name + ((note.n_namesz + 3u) & ~3u);
        const std::size_t next = content + ((note.n_descsz + 3u) & ~3u);
        if (next > size || next <= at)
            return;
        if (note.n_type == NT_GNU_BUILD_ID && note.n_namesz == 4 && std::memcmp(s_notes + name, "GNU", 4) == 0
            && note.n_descsz <= sizeof module.buildId) {
            std::memcpy(module.buildId, s_notes + content, note.n_descsz);
            module.buildIdSize = note.n_descsz;
            return;
        }
        at = next;
    }
}

bool ReadElf(const OwnMemory& memory, CrashModule& module)
{
    ElfW(Ehdr) header;
    if (!memory.Read(module.base, &header, sizeof header) || std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0)
        return false;
    bool hasBias = false;
    std::uint64_t bias = 0;
    for (int i = 0; i < std::min<int>(header.e_phnum, 64); ++i) {
        ElfW(Phdr) segment;
        if (!memory.Read(module.base + header.e_phoff + static_cast<std::uint64_t>(i) * sizeof segment, &segment,
                         sizeof segment))
            break;
        if (segment.p_type == PT_LOAD && !hasBias) {
            bias = module.base - (segment.p_vaddr & ~static_cast<std::uint64_t>(4095));
            hasBias = true;
        }
        if (segment.p_type == PT_NOTE && hasBias && module.buildIdSize == 0)
            FindBuildId(memory, module, segment, bias);
    }
    return true;
}

const char* KeepName(const char* path)
{
    static const char deleted[] = " (deleted)";
    std::size_t size = std::strlen(path);
    if (size > sizeof deleted && std::strcmp(path + size - (sizeof deleted - 1), deleted) == 0)
        size -= sizeof deleted - 1;
    if (g_namesUsed + size + 1 > sizeof g_names)
        return nullptr;
    char* const name = g_names + g_namesUsed;
    std::memcpy(name, path, size);
    name[size] = '\0';
    g_namesUsed += size + 1;
    return name;
}

// A module begins with the mapping of its file's first bytes; later mappings of the same file belong to it.
void AddToModules(const OwnMemory& memory, const MapLine& line)
{
    static char s_lastPath[4200];
    const bool vdso = std::strcmp(line.path, "[vdso]") == 0;
    if ((line.path[0] != '/' && !vdso) || StartsWith(line.path, "/dev/"))
        return;
    if (g_moduleCount > 0 && line.offset != 0 && std::strcmp(line.path, s_lastPath) == 0) {
        g_modules[g_moduleCount - 1].end = line.end;
        return;
    }
    if (line.offset != 0 || !line.readable || g_moduleCount == maxCrashModules)
        return;
    CrashModule module = {};
    module.base = line.start;
    module.end = line.end;
    const std::size_t namesBefore = g_namesUsed;
    module.name = KeepName(vdso ? "linux-gate.so" : line.path);
    if (!module.name || !ReadElf(memory, module)) {
        g_namesUsed = namesBefore;
        return;
    }
    g_modules[g_moduleCount++] = module;
    std::strncpy(s_lastPath, line.path, sizeof s_lastPath - 1);
}

void AddLine(const OwnMemory& memory, const char* text)
{
    MapLine line;
    if (!ParseMapLine(text, line))
        return;
    if (g_rangeCount < maxCrashRanges) {
        const bool special = StartsWith(line.path, "/dev/") && !StartsWith(line.path, "/dev/shm/")
                             && !StartsWith(line.path, "/dev/zero");
        const bool kernel = StartsWith(line.path, "[vvar") || StartsWith(line.path, "[vsyscall");
        g_ranges[g_rangeCount++] = {line.start, line.end, line.readable, special || kernel};
    }
    AddToModules(memory, line);
}

} // namespace

bool ReadCrashMaps()
{
    static char s_text[16384 + 1];
    g_rangeCount = 0;
    g_moduleCount = 0;
    g_namesUsed = 0;
    const OwnMemory memory;
    const int file = open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
    if (file < 0)
        return false;
    std::size_t size = 0;
    for (;;) {
        const ssize_t got = read(file, s_text + size, sizeof s_text - 1 - size);
        if (got <= 0)
            break;
        size += static_cast<std::size_t>(got);
        s_text[size] = '\0';
        char* line = s_text;
        for (char* end; (end = std::strchr(line, '\n')) != nullptr; line = end + 1) {
            *end = '\0';
            AddLine(memory, line);
        }
        size -= static_cast<std::size_t>(line - s_text);
        std::memmove(s_text, line, size);
        if (size == sizeof s_text - 1)
            size = 0; // no path is that long
    }
    close(file);
    return g_rangeCount > 0;
}

const CrashRange* CrashRanges(std::size_t& count)
{
    count = g_rangeCount;
    return g_ranges;
}

const CrashModule* CrashModules(std::size_t& count)
{
    count = g_moduleCount;
    return g_modules;
}

const CrashRange* FindCrashRange(std::uint64_t address, std::uint64_t reachBytes)
{
    for (std::size_t i = 0; i < g_rangeCount; ++i) {
        const CrashRange& range = g_ranges[i];
        if (range.end <= address || !range.readable || range.device)
            continue;
        return range.start <= address || range.start - address <= reachBytes ? &range : nullptr;
    }
    return nullptr;
}

} // namespace VexCore
