// Facts about a Linux host.

#include "vex_core/os/host_facts.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <string_view>

#include <mntent.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysinfo.h>

namespace VexCore::os {
namespace {
// Value of NAME=value or NAME="value" with the shell's escapes taken out.
std::string Unquote(const std::string& text)
{
    std::string result;
    const bool quoted =
        text.size() >= 2 && (text.front() == '"' || text.front() == '\'') && text.back() == text.front();
    const std::size_t end = text.size() - (quoted ? 1 : 0);
    for (std::size_t i = quoted ? 1 : 0; i < end; ++i) {
        if (text[i] == '\\' && i + 1 < end)
            ++i;
        result += text[i];
    }
    return result;
}

// Whether a file system is a disk of this host. Others only show what the kernel knows, or another file
// system's data again; and one on the network belongs to its server, whose silence would stop whoever asks
// for its size.
bool IsDisk(const std::string& type)
{
    static constexpr std::string_view others[] = {
        "9p",      "afs",        "autofs",    "binfmt_misc", "bpf",    "ceph",       "cgroup",
        "cgroup2", "cifs",       "configfs",  "debugfs",     "devpts", "devtmpfs",   "efivarfs",
        "fusectl", "fuse.sshfs", "glusterfs", "hugetlbfs",   "lustre", "mqueue",     "nfs",
        "nfs4",    "nsfs",       "proc",      "pstore",      "ramfs",  "rpc_pipefs", "securityfs",
        "smb3",    "squashfs",   "sysfs",     "tmpfs",       "tracefs"};
    return std::find(std::begin(others), std::end(others), type) == std::end(others);
}

struct Mount
{
    std::string folder;
    std::string source;
    std::string type;
};

// What is mounted, without what another mount at the same folder has hidden.
std::optional<std::vector<Mount>> Mounts()
{
    FILE* table = setmntent("/proc/self/mounts", "re");
    if (!table)
        return std::nullopt;
    std::vector<Mount> mounts;
    mntent entry = {};
    char buffer[8192];
    while (getmntent_r(table, &entry, buffer, sizeof buffer))
        mounts.push_back({entry.mnt_dir, entry.mnt_fsname, entry.mnt_type});
    endmntent(table);
    std::map<std::string, std::size_t> last;
    for (std::size_t i = 0; i < mounts.size(); ++i)
        last[mounts[i].folder] = i;
    std::vector<Mount> visible;
    for (std::size_t i = 0; i < mounts.size(); ++i)
        if (last[mounts[i].folder] == i)
            visible.push_back(mounts[i]);
    return visible;
}

} // namespace

std::optional<std::string> MachineId()
{
    for (const char* path : {"/etc/machine-id", "/var/lib/dbus/machine-id"}) {
        std::ifstream file(path);
        std::string id;
        // An image that has not been started yet has another word, or nothing, there.
        if (std::getline(file, id) && id.size() == 32 && id.find_first_not_of("0123456789abcdef") == std::string::npos
            && id.find_first_not_of('0') != std::string::npos)
            return id;
    }
    return std::nullopt;
}

std::optional<std::string> Distribution()
{
    for (const char* path : {"/etc/os-release", "/usr/lib/os-release"}) {
        std::ifstream file(path);
        std::string line;
        while (std::getline(file, line)) {
            static constexpr std::string_view key = "PRETTY_NAME=";
            if (line.compare(0, key.size(), key) == 0 && line.size() > key.size())
                return Unquote(line.substr(key.size()));
        }
    }
    return std::nullopt;
}

std::optional<double> UptimeSeconds()
{
    struct sysinfo facts = {};
    if (sysinfo(&facts) != 0)
        return std::nullopt;
    return static_cast<double>(facts.uptime);
}

MemoryFacts GetMemoryFacts()
{
    MemoryFacts memory;
    struct sysinfo facts = {};
    if (sysinfo(&facts) == 0) {
        memory.totalBytes = static_cast<std::uint64_t>(facts.totalram) * facts.mem_unit;
        memory.freeBytes = static_cast<std::uint64_t>(facts.freeram) * facts.mem_unit;
        memory.swapTotalBytes = static_cast<std::uint64_t>(facts.totalswap) * facts.mem_unit;
        memory.swapFreeBytes = static_cast<std::uint64_t>(facts.freeswap) * facts.mem_unit;
    }
    // What can be had without swapping is told nowhere else.
    std::ifstream file("/proc/meminfo");
    std::string line;
    while (std::getline(file, line)) {
        unsigned long long kilobytes = 0;
        if (std::sscanf(line.c_str(), "MemAvailable: %llu kB", &kilobytes) == 1)
            memory.availableBytes = static_cast<std::uint64_t>(kilobytes) * 1024;
    }
    return memory;
}

std::optional<std::vector<Disk>> Disks()
{
    const auto mounts = Mounts();
    if (!mounts)
        return std::nullopt;
    std::vector<Disk> disks;
    // A file system that is mounted several times counts once: by the name of its device, since its parts may have
    // numbers of their own, and by its number, since not all have a device.
    std::set<std::string> names;
    std::set<dev_t> numbers;
    for (const Mount& mount : *mounts) {
        struct statvfs sizes = {};
        struct stat place = {};
        if (!IsDisk(mount.type) || ::statvfs(mount.folder.c_str(), &sizes) != 0 || sizes.f_blocks == 0
            || ::stat(mount.folder.c_str(), &place) != 0)
            continue;
        const bool device = mount.source.compare(0, 1, "/") == 0;
        if (!numbers.insert(place.st_dev).second || (device && !names.insert(mount.source).second))
            continue;
        const std::uint64_t unit = sizes.f_frsize ? sizes.f_frsize : sizes.f_bsize;
        disks.push_back({mount.folder, mount.source, mount.type, sizes.f_blocks * unit, sizes.f_bfree * unit,
                         sizes.f_bavail * unit});
    }
    return disks;
}

std::optional<std::vector<NetworkInterface>> NetworkInterfaces()
{
    // The counters that getifaddrs gives are cut to 32 bits, which a busy interface passes in seconds.
    std::ifstream file("/proc/net/dev");
    if (!file)
        return std::nullopt;
    std::vector<NetworkInterface> interfaces;
    std::string line;
    while (std::getline(file, line)) {
        const std::size_t colon = line.rfind(':');
        const std::size_t start = line.find_first_not_of(' ');
        if (colon == std::string::npos || start >= colon)
            continue;
        // Received: bytes, packets, errors and five more; then sent in the same order.
        unsigned long long in[3] = {}, out[3] = {};
        if (std::sscanf(line.c_str() + colon + 1, "%llu %llu %llu %*u %*u %*u %*u %*u %llu %llu %llu", &in[0], &in[1],
                        &in[2], &out[0], &out[1], &out[2])
            != 6)
            continue;
        const std::string name = line.substr(start, colon - start);
        if (name != "lo")
            interfaces.push_back({name, in[0], in[1], in[2], out[0], out[1], out[2]});
    }
    std::sort(interfaces.begin(), interfaces.end(),
              [](const NetworkInterface& a, const NetworkInterface& b) { return a.name < b.name; });
    return interfaces;
}

} // namespace VexCore::os
