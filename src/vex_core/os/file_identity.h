#pragma once
// Which file a name or descriptor led to, and whether it still is that file.

#include <cstdint>

#include <sys/stat.h>
#include <sys/types.h>

namespace VexCore::os {

struct FileIdentity
{
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    std::int64_t mtimeNs = 0;
    std::int64_t ctimeNs = 0;

    /// The same file, whatever was written to it since. A default one is no file's.
    bool IsFileOf(const struct stat& status) const { return device == status.st_dev && inode == status.st_ino; }
    bool IsFileOf(const FileIdentity& other) const { return device == other.device && inode == other.inode; }

    /// The same file with the same content, as far as its size and the time of its last change tell: a change within
    /// the file system's clock tick of the one before shows in neither.
    bool HasContentOf(const FileIdentity& other) const
    {
        return IsFileOf(other) && size == other.size && mtimeNs == other.mtimeNs;
    }
    /// And nobody has set that time, the mode, the owner or a name of the file since.
    bool operator==(const FileIdentity& other) const { return HasContentOf(other) && ctimeNs == other.ctimeNs; }
    bool operator!=(const FileIdentity& other) const { return !(*this == other); }
};

inline FileIdentity IdentityOf(const struct stat& status)
{
    const auto nanoseconds = [](const struct timespec& time) {
        return static_cast<std::int64_t>(time.tv_sec) * 1000000000 + time.tv_nsec;
    };
    return {status.st_dev, status.st_ino, status.st_size, nanoseconds(status.st_mtim), nanoseconds(status.st_ctim)};
}

} // namespace VexCore::os
