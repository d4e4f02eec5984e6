// Keeps the dumps of earlier crashes, a few of them: the first crash of a series tells more than the last. It is done
// when the handler is installed, and again in a crash, because a supervisor installs the handler once for all the
// children that it forks. See crash_system.h for what is allowed here.

#include "vex_core/crash/crash_system.h"
#include "vex_core/crash/minidump_format.h"
#include "vex_core/os/kernel_dirent.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace VexCore {
namespace {
constexpr int maxKept = 5;
constexpr const auto& suffix = Minidump::fileSuffix;
constexpr std::size_t suffixBytes = sizeof suffix - 1;

// A dump's path, taken apart. Static: larger than a small stack should have to hold.
struct
{
    char folder[4096]; // with the slash at its end
    char stem[256]; // of the name, with the dot behind it
} g_parts;

bool TakeApart(const char* path)
{
    const char* const slash = std::strrchr(path, '/');
    if (!slash)
        return false;
    const std::size_t folderBytes = static_cast<std::size_t>(slash + 1 - path);
    std::size_t stemBytes = std::strlen(slash + 1);
    if (stemBytes > suffixBytes && std::strcmp(slash + 1 + stemBytes - suffixBytes, suffix) == 0)
        stemBytes -= suffixBytes;
    if (folderBytes >= sizeof g_parts.folder || stemBytes + 1 >= sizeof g_parts.stem)
        return false;
    std::memcpy(g_parts.folder, path, folderBytes);
    g_parts.folder[folderBytes] = '\0';
    std::memcpy(g_parts.stem, slash + 1, stemBytes);
    std::strcpy(g_parts.stem + stemBytes, ".");
    return true;
}

// The name under which a dump of this time is kept.
void AddKeptName(CrashText& path, long long time)
{
    path << g_parts.folder << g_parts.stem;
    path.Decimal(time) << suffix;
}

// The time in such a name; -1 for another name.
long long TimeIn(const char* name)
{
    constexpr int maxDigits = 18;
    const std::size_t stemBytes = std::strlen(g_parts.stem);
    if (std::strncmp(name, g_parts.stem, stemBytes) != 0)
        return -1;
    const char* const first = name + stemBytes;
    const char* digit = first;
    long long time = 0;
    for (; *digit >= '0' && *digit <= '9' && digit - first < maxDigits; ++digit)
        time = time * 10 + (*digit - '0');
    // With a leading zero it would not be the name that we make of the number.
    const bool isOurs = digit != first && (*first != '0' || digit == first + 1);
    return isOurs && std::strcmp(digit, suffix) == 0 ? time : -1;
}

struct KeptDumps
{
    int count = 0;
    long long oldest = 0;
};

KeptDumps LookForKept()
{
    alignas(os::KernelDirent) static char s_batch[4096];
    KeptDumps kept;
    const int folder = open(g_parts.folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0)
        return kept;
    for (long size; (size = syscall(SYS_getdents64, folder, s_batch, sizeof s_batch)) > 0;) {
        for (long at = 0; at < size;) {
            const auto* entry = static_cast<const os::KernelDirent*>(static_cast<const void*>(s_batch + at));
            if (const long long time = TimeIn(entry->name); time >= 0) {
                kept.oldest = kept.count == 0 ? time : std::min(kept.oldest, time);
                ++kept.count;
            }
            at += entry->recordSize;
        }
    }
    close(folder);
    return kept;
}

} // namespace

void KeepEarlierDump(const char* path)
{
    struct stat status = {};
    if (!TakeApart(path) || lstat(path, &status) != 0 || !S_ISREG(status.st_mode))
        return;
    for (long long time = status.st_mtime;; ++time) {
        CrashText kept;
        AddKeptName(kept, time);
        struct stat other = {};
        if (lstat(kept.Data(), &other) == 0)
            continue; // of another crash in that second
        rename(path, kept.Data());
        break;
    }
    for (KeptDumps kept = LookForKept(); kept.count > maxKept; kept = LookForKept()) {
        CrashText oldest;
        AddKeptName(oldest, kept.oldest);
        if (unlink(oldest.Data()) != 0)
            return;
    }
}

} // namespace VexCore
