#pragma once
// Facts about this host. Any thread. Absent: not to be had here.

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace VexCore::os {

/// What the system calls itself; an empty text is what it does not know.
struct SystemName
{
    std::string name, release, version, machine, host;
};

struct MemoryFacts
{
    std::optional<std::uint64_t> totalBytes, availableBytes, freeBytes, swapTotalBytes, swapFreeBytes;
};

struct Disk
{
    std::string mount, device, type;
    std::uint64_t totalBytes = 0, freeBytes = 0, availableBytes = 0;
};

struct NetworkInterface
{
    std::string name;
    std::optional<std::uint64_t> receivedBytes, receivedPackets, receiveErrors;
    std::optional<std::uint64_t> sentBytes, sentPackets, sendErrors;
};

SystemName GetSystemName();
/// Averages over 1, 5 and 15 minutes.
std::optional<std::array<double, 3>> LoadAverages();
/// How many are online.
std::optional<long> Processors();

// --- one file a system answers these

/// What the system itself keeps to tell this machine from others. Not for strangers' eyes.
std::optional<std::string> MachineId();
/// Name and version of the distribution, where the system's own name does not tell it.
std::optional<std::string> Distribution();
std::optional<double> UptimeSeconds();
MemoryFacts GetMemoryFacts();
/// Mounted disks of this host, in the order of the system's table; neither kernel file systems nor the network's.
std::optional<std::vector<Disk>> Disks();
/// Network interfaces other than the loopback, sorted by name.
std::optional<std::vector<NetworkInterface>> NetworkInterfaces();

} // namespace VexCore::os
