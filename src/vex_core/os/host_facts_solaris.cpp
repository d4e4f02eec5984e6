// Facts about a Solaris host: sysconf, swapctl, kstat and the mount table.

#include "vex_core/os/host_facts.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <string_view>
#include <vector>

#include <kstat.h>
#include <sys/mnttab.h>
#include <sys/param.h>
#include <sys/statvfs.h>
#include <sys/swap.h>
#include <unistd.h>
#include <utmpx.h>

namespace VexCore::os {
namespace {
// The kernel's statistics, closed at the end of a scope.
class Kstat
{
public:
    Kstat() : m_chain(kstat_open()) {}
    ~Kstat()
    {
        if (m_chain)
            kstat_close(m_chain);
    }
    Kstat(const Kstat&) = delete;
    Kstat& operator=(const Kstat&) = delete;

    kstat_t* First() const { return m_chain ? m_chain->kc_chain : nullptr; }
    kstat_t* Find(const char* module, int instance, const char* name) const
    {
        return m_chain ? kstat_lookup(m_chain, const_cast<char*>(module), instance, const_cast<char*>(name)) : nullptr;
    }

    bool Read(kstat_t* statistic) const { return statistic && kstat_read(m_chain, statistic, nullptr) != -1; }

    static std::optional<std::uint64_t> Value(kstat_t* statistic, const char* name)
    {
        const auto* entry = static_cast<kstat_named_t*>(kstat_data_lookup(statistic, const_cast<char*>(name)));
        if (!entry)
            return std::nullopt;
        switch (entry->data_type) {
        case KSTAT_DATA_UINT64:
            return entry->value.ui64;
        case KSTAT_DATA_UINT32:
            return entry->value.ui32;
        case KSTAT_DATA_INT64:
            return static_cast<std::uint64_t>(entry->value.i64);
        case KSTAT_DATA_INT32:
            return static_cast<std::uint64_t>(entry->value.i32);
        default:
            return std::nullopt;
        }
    }

private:
    kstat_ctl_t* m_chain;
};

struct SwapPages
{
    std::uint64_t total = 0, free = 0;
};

// Of the swap areas on disks. What the system calls swap otherwise (SC_AINFO) has memory in it.
std::optional<SwapPages> DiskSwap()
{
    const int areas = swapctl(SC_GETNSWP, nullptr);
    if (areas < 0)
        return std::nullopt;
    SwapPages pages;
    if (areas == 0)
        return pages;
    // The table ends in an array of one, which is meant to be longer. One added meanwhile is not listed.
    const std::size_t count = static_cast<std::size_t>(areas);
    std::vector<std::max_align_t> room((sizeof(swaptbl_t) + count * sizeof(swapent_t)) / sizeof(std::max_align_t) + 1);
    std::vector<char> names(count * MAXPATHLEN);
    auto* const table = reinterpret_cast<swaptbl_t*>(room.data());
    table->swt_n = areas;
    for (std::size_t i = 0; i < count; ++i)
        table->swt_ent[i].ste_path = &names[i * MAXPATHLEN]; // the system writes it, asked or not
    const int listed = swapctl(SC_LIST, table);
    if (listed < 0)
        return std::nullopt;
    for (int i = 0; i < listed; ++i) {
        pages.total += static_cast<std::uint64_t>(table->swt_ent[i].ste_pages);
        pages.free += static_cast<std::uint64_t>(table->swt_ent[i].ste_free);
    }
    return pages;
}

// Whether a file system is a disk of this host; see the one for Linux.
bool IsDisk(const mnttab& entry)
{
    static constexpr std::string_view others[] = {"autofs", "ctfs",  "dev",  "devfs",   "fd",    "lofs", "mntfs",
                                                  "nfs",    "objfs", "proc", "sharefs", "smbfs", "tmpfs"};
    return std::find(std::begin(others), std::end(others), entry.mnt_fstype) == std::end(others);
}

} // namespace

std::optional<std::string> MachineId()
{
    // The system has a serial number (SI_HW_SERIAL), but that is one for all zones of a machine, and so short that it
    // can be guessed from its hash.
    return std::nullopt;
}

std::optional<std::string> Distribution()
{
    // The first line of the release file names system and release, with blanks in front.
    std::ifstream file("/etc/release");
    std::string line;
    if (!std::getline(file, line))
        return std::nullopt;
    const std::size_t start = line.find_first_not_of(" \t");
    if (start == std::string::npos)
        return std::nullopt;
    return line.substr(start, line.find_last_not_of(" \t\r") - start + 1);
}

std::optional<double> UptimeSeconds()
{
    const Kstat kernel;
    kstat_t* misc = kernel.Find("unix", 0, "system_misc");
    if (!kernel.Read(misc))
        return std::nullopt;
    const auto boot = Kstat::Value(misc, "boot_time");
    const std::time_t now = std::time(nullptr);
    if (!boot || static_cast<std::uint64_t>(now) < *boot)
        return std::nullopt;
    return static_cast<double>(static_cast<std::uint64_t>(now) - *boot);
}

MemoryFacts GetMemoryFacts()
{
    MemoryFacts memory;
    const long page = ::sysconf(_SC_PAGESIZE);
    if (page <= 0)
        return memory;
    const auto unit = static_cast<std::uint64_t>(page);
    if (const long pages = ::sysconf(_SC_PHYS_PAGES); pages > 0)
        memory.totalBytes = static_cast<std::uint64_t>(pages) * unit;
    if (const long pages = ::sysconf(_SC_AVPHYS_PAGES); pages >= 0) {
        memory.freeBytes = static_cast<std::uint64_t>(pages) * unit;
        memory.availableBytes = memory.freeBytes;
    }
    if (const std::optional<SwapPages> swap = DiskSwap()) {
        memory.swapTotalBytes = swap->total * unit;
        memory.swapFreeBytes = swap->free * unit;
    }
    return memory;
}

std::optional<std::vector<Disk>> Disks()
{
    FILE* table = std::fopen(MNTTAB, "r");
    if (!table)
        return std::nullopt;
    std::vector<Disk> disks;
    mnttab entry = {};
    while (getmntent(table, &entry) == 0) {
        struct statvfs sizes = {};
        if (!IsDisk(entry) || ::statvfs(entry.mnt_mountp, &sizes) != 0 || sizes.f_blocks == 0)
            continue;
        const std::uint64_t unit = sizes.f_frsize ? sizes.f_frsize : sizes.f_bsize;
        disks.push_back({entry.mnt_mountp, entry.mnt_special, entry.mnt_fstype, sizes.f_blocks * unit,
                         sizes.f_bfree * unit, sizes.f_bavail * unit});
    }
    std::fclose(table);
    return disks;
}

std::optional<std::vector<NetworkInterface>> NetworkInterfaces()
{
    const Kstat kernel;
    if (!kernel.First())
        return std::nullopt;
    std::vector<NetworkInterface> interfaces;
    for (kstat_t* statistic = kernel.First(); statistic; statistic = statistic->ks_next) {
        if (std::strcmp(statistic->ks_module, "link") != 0 || std::strcmp(statistic->ks_class, "net") != 0
            || !kernel.Read(statistic))
            continue;
        const auto value = [&](const char* name) { return Kstat::Value(statistic, name); };
        interfaces.push_back({statistic->ks_name, value("rbytes64"), value("ipackets64"), value("ierrors"),
                              value("obytes64"), value("opackets64"), value("oerrors")});
    }
    std::sort(interfaces.begin(), interfaces.end(),
              [](const NetworkInterface& a, const NetworkInterface& b) { return a.name < b.name; });
    return interfaces;
}

} // namespace VexCore::os
