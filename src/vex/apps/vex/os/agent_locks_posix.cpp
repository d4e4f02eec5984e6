// The file is empty: there need be no bytes where the locks lie.

#include "vex/apps/vex/os/agent_locks.h"

#include "vex/apps/vex/os/error.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace VexOs {

namespace {
struct flock Range(short type, off_t start, off_t length)
{
    struct flock lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = start;
    lock.l_len = length;
    return lock;
}

// `command` is F_SETLK, F_SETLKW or F_GETLK.
bool Lock(int file, int command, struct flock lock)
{
    int result = 0;
    do {
        result = ::fcntl(file, command, &lock);
    } while (result == -1 && LastError() == EINTR);
    return result == 0;
}

bool IsConflict()
{
    return LastError() == EAGAIN || LastError() == EACCES;
}

// Moves a descriptor out of the way of those that are standard streams, which are closed and opened anew.
int AboveTheStandardStreams(int descriptor)
{
    constexpr int firstFree = 3;
    if (descriptor < 0 || descriptor >= firstFree)
        return descriptor;
    const int moved = ::fcntl(descriptor, F_DUPFD_CLOEXEC, firstFree);
    const KeepError keep;
    ::close(descriptor); // nothing is locked yet
    return moved;
}

// Who else can open the file can keep us from starting, or let a second agent start. With another name it is somebody's
// file, whose own locks would be taken away.
bool IsOfNobodyElse(const struct stat& info)
{
    return (info.st_uid == 0 || info.st_uid == ::geteuid()) && (info.st_mode & (S_IWGRP | S_IWOTH)) == 0
           && info.st_nlink == 1;
}

int OpenLockFile(const char* path)
{
    if (!path) { // a name that the character set cannot hold
        SetLastError(EINVAL);
        return -1;
    }
    // Readable to its owner alone: who can open a file can lock it. Not blocking, should there be a FIFO.
    const int descriptor =
        AboveTheStandardStreams(::open(path, O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
    if (descriptor < 0)
        return -1;
    struct stat info;
    const bool isFile = ::fstat(descriptor, &info) == 0 && S_ISREG(info.st_mode);
    if (isFile && IsOfNobodyElse(info))
        return descriptor;
    ::close(descriptor);
    SetLastError(isFile ? EPERM : EINVAL);
    return -1;
}

} // namespace

LockResult AgentLocks::TakeInstance(const char* path, pid_t& holder)
{
    holder = 0;
    if (m_count == maxFiles) {
        SetLastError(EMFILE);
        return LockResult::Unavailable;
    }
    const int file = OpenLockFile(path);
    if (file < 0)
        return LockResult::Unavailable;
    if (!Lock(file, F_SETLK, Range(F_WRLCK, 0, instanceLockBytes))) {
        // It stays open: it may be the other file under another name.
        if (!IsConflict())
            return LockResult::Unavailable;
        holder = HolderOfLock(file, 0, instanceLockBytes);
        return LockResult::HeldByOther;
    }
    m_ownByte = 0;
    Lock(file, F_SETLK, Range(F_UNLCK, 1, instanceLockBytes - 1)); // for those that are forked
    m_files[m_count++] = file;
    return LockResult::Taken;
}

bool AgentLocks::InheritInstance()
{
    ++m_ownByte;
    for (int i = 0; i < m_count; ++i)
        if (!Lock(m_files[i], F_SETLK, Range(F_WRLCK, m_ownByte, 1)) && IsConflict())
            return false;
    return true;
}

void AgentLocks::ReleaseInstance()
{
    for (int i = 0; i < m_count; ++i)
        Lock(m_files[i], F_SETLK, Range(F_UNLCK, 0, instanceLockBytes));
}

bool AgentLocks::InstanceIsHeldBy(pid_t holder)
{
    for (int i = 0; i < m_count; ++i) {
        const pid_t found = HolderOfLock(m_files[i], m_ownByte, 1);
        if (found != holder && found != -1)
            return false;
    }
    return true;
}

void AgentLocks::TakeWorker()
{
    for (int i = 0; i < m_count; ++i)
        Lock(m_files[i], F_SETLKW, Range(F_WRLCK, workerLockByte, 1));
}

pid_t AgentLocks::FindOtherWorker()
{
    for (int i = 0; i < m_count; ++i)
        if (const pid_t holder = HolderOfLock(m_files[i], workerLockByte, 1))
            return holder;
    return 0;
}

void AgentLocks::WaitForOtherWorker()
{
    TakeWorker();
    for (int i = 0; i < m_count; ++i)
        Lock(m_files[i], F_SETLK, Range(F_UNLCK, workerLockByte, 1));
}

} // namespace VexOs
