#pragma once
// The locks by which agents keep out of each other's way: one supervisor at a time, and one working child at a time,
// also while the agents change. For process_posix.cpp.
//
// They are record locks (fcntl) on bytes of a file that is made and stays. Such a lock belongs to the process that took
// it and goes with it, whatever it forks; a fork hands none on. So each of the processes that an agent begins with has
// a byte of its own, and takes it while the process that forked it still holds the one before: there is no moment at
// which a newcomer, who tries for all of these bytes at once, could have them.
//
// A process that closes any descriptor of a file loses all its locks in it. So what is opened here is never closed, and
// nothing else in an agent opens these files.

#include <fcntl.h>
#include <sys/types.h>

namespace VexOs {

/// Where in the file the locks lie: from byte 0 on that of the starting process, of the first child and of the
/// supervisor, then that of the working child.
constexpr off_t instanceLockBytes = 3;
constexpr off_t workerLockByte = instanceLockBytes;

/// Which other process holds a lock in this part of an open file: 0 for none, -1 for one that is out of sight.
inline pid_t HolderOfLock(int file, off_t start, off_t length)
{
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = start;
    lock.l_len = length;
    if (::fcntl(file, F_GETLK, &lock) != 0 || lock.l_type == F_UNLCK)
        return 0;
    return lock.l_pid > 0 ? lock.l_pid : -1;
}

/// What came of an attempt at the lock that admits one supervisor.
enum class LockResult {
    Taken,
    HeldByOther,
    Unavailable, ///< the file cannot be made or locked; error.h says why
};

/// The locks of this process, in up to two files. Main thread.
class AgentLocks
{
public:
    /// Makes the file at `path` where it is missing, and takes the instance lock in it. `holder` is who has it instead,
    /// 0 when that is not known.
    LockResult TakeInstance(const char* path, pid_t& holder);
    /// In a process that the holder has just forked, before it does anything else: takes part in the holding. False
    /// when the holder is gone already and somebody else has come in between.
    bool InheritInstance();
    /// For this process. Safe in a signal handler.
    void ReleaseInstance();
    /// In a process that `holder` has forked and that has not inherited: whether `holder` still has the lock. True
    /// without a file.
    bool InstanceIsHeldBy(pid_t holder);

    /// Waits until no other process has it. Kept to the end of this process.
    void TakeWorker();
    /// Who has it, if it is another process; 0 when nobody has. It may be -1 when the process is out of sight.
    pid_t FindOtherWorker();
    /// Waits until nobody has it. Signals are taken meanwhile.
    void WaitForOtherWorker();

private:
    static constexpr int maxFiles = 2;
    int m_files[maxFiles] = {};
    int m_count = 0;
    off_t m_ownByte = 0; // of the instance lock
};

} // namespace VexOs
