#pragma once
// The log file, knowing nothing of the framework. Format and rotation: docs/FORMATS.md, "Log".

#include "vex_core/domain/known_settings.h"
#include "vex_core/log/log_level.h"
#include "vex_core/log/system_log_copy.h"
#include "vex_core/os/descriptor.h"
#include "vex_core/os/file_identity.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>

#include <sys/types.h>

namespace VexCore {

/// What one record has of its text at most, as it stands in the file.
constexpr std::size_t maxLogTextBytes = 64 * 1024;

/// The text as it stands in a record: lines after the first are indented, so that only a record's own first line starts
/// with a time; line breaks at the end go; other control characters, which could do things to a terminal, become \xNN
/// for each of their bytes, and so do U+2028 and U+2029, which end a line for some readers. Other bytes stay as they
/// are, whether or not they are UTF-8. A text that would be longer than `maxBytes` is cut, with a note that tells its
/// length; what is behind the cut costs nothing.
std::string LogText(std::string_view text, std::size_t maxBytes = maxLogTextBytes);

/// A whole record with its line end. `timeFormat` is strftime's.
std::string FormatLogRecord(std::time_t time, const char* timeFormat, LogLevel level, pid_t process, const char* thread,
                            std::string_view text);

/// Appends records to one file that other processes append to as well, and rotates it.
///
/// A record is one `write` on a descriptor opened with O_APPEND, so records of several processes never mix. Before
/// each, the name is asked for: when it no longer leads to the open file, another process has rotated and the new file
/// is opened. A record that cannot be written (no file yet, disk full) is held, in order, and tried again with the next
/// one; the memory for that is bounded, and what does not fit goes to standard error, or to the system's log where that
/// is the null device. A record in the file tells later how many those were, and how many went nowhere.
///
/// Where the settings say so, each record goes to the system's log as well, behind its way to the file: without its
/// time, which the system's log has elsewhere. What that does not take is left out there, and a record in the file
/// tells of it.
///
/// Any thread. Forks are survived when BeforeFork and AfterFork... are called around them.
class DiskLog
{
public:
    struct Settings
    {
        std::int64_t maxBytes = StandardOf("app.log.size"); ///< rotate before the file grows beyond
        int keep = StandardOf("app.log.count"); ///< rotated files: .1, the newest, to .keep
        int retrySeconds = 60; ///< after a rotation that failed
        SystemLogCopy::Settings copy = {}; ///< off
    };

    static constexpr const char* standardTimeFormat = "%Y-%m-%d %H:%M:%S";

    /// Holds at most `maxHeldBytes` of records that cannot be written. `errorDescriptor` stands for standard error.
    explicit DiskLog(std::size_t maxHeldBytes, int errorDescriptor = 2);
    DiskLog(const DiskLog&) = delete;
    DiskLog& operator=(const DiskLog&) = delete;

    /// Settles the place; only the first call counts. Before it, records are held.
    void SetFile(const std::string& path);
    /// Takes no lock.
    bool HasFile() const { return m_hasFile.load(std::memory_order_relaxed); }
    void SetSettings(const Settings& settings);

    /// `shown`: standard error has the record already. `level` and `time` are the record's, for the system's log.
    /// `timeFormat` is that of the record, and from now on that of the log's own records.
    void Write(const std::string& record, bool shown, LogLevel level = LogLevel::Error,
               const char* timeFormat = standardTimeFormat, std::time_t time = std::time(nullptr));
    /// Tries to write what is held.
    void Flush();
    /// The same, and what cannot be written goes where what does not fit in memory goes, what there is to tell of the
    /// copy included: the process ends.
    void FlushAtEnd();

    /// The open file, or -1. The number stays the same once there is one. Async-signal-safe.
    int Descriptor() const { return m_number.load(std::memory_order_relaxed); }
    /// Where records go beside the file, or SystemLogCopy::nowhere. Async-signal-safe.
    int CopyFacility() const { return m_copy.Facility(); }

    /// Around a fork, on the forking thread. What is held stays with the parent.
    void BeforeFork();
    void AfterForkInParent();
    void AfterForkInChild();

private:
    enum class Copied { NotYet, Unwanted, LeftOut, Taken };
    struct Held
    {
        std::string record;
        bool shown;
        LogLevel level;
        std::time_t time;
        Copied copied;
    };

    bool WriteHeld();
    bool TryWrite(const std::string& record);
    bool MakeReady(std::size_t size);
    bool WriteBytes(const std::string& bytes);
    bool EndsInPiece();
    bool IsInsideLine(off_t place) const;
    bool WasGlued(std::size_t size);
    bool Open();
    bool Rotate();
    bool ShiftFiles(const std::string& file);
    void RotationFailed(const std::string& reason);
    void Hold(Held held);
    void GiveAway(const Held& held);
    void Fail(const std::string& reason);
    std::string OwnRecord(const std::string& text) const;
    bool WriteOwn(const std::string& text);
    Copied Copy(const std::string& record, LogLevel level, std::time_t time, bool isInFile);
    void TellOfCopies();
    void TellWhatWasNotCopied();

    const std::size_t m_maxHeldBytes;
    const int m_error; // standard error
    std::atomic<int> m_number{-1}; // of m_file; written under m_lock
    std::atomic<bool> m_hasFile{false}; // m_path is settled; written under m_lock

    std::mutex m_lock; // guards all below
    std::string m_path;
    Settings m_settings;
    std::string m_timeFormat = standardTimeFormat; // of the log's own records
    os::Descriptor m_file;
    os::FileIdentity m_identity; // of the open file
    off_t m_size = 0; // of the open file, as last seen
    off_t m_pieceEnd = 0; // where the file ended in a piece the last time; 0: it has not
    off_t m_cleanEnd = 0; // where the last record of ours ended, which nobody has to look at again
    bool m_troubled = false; // a failure has been reported and nothing was written since
    std::deque<Held> m_held;
    std::size_t m_heldBytes = 0;
    std::size_t m_elsewhere = 0; // records that did not fit and went to the last resort
    std::size_t m_lost = 0; // records that it did not take either
    std::time_t m_rotateNotBefore = 0; // after a failure
    off_t m_failureTold = 0; // the size at which the last failure to rotate the open file was told
    SystemLogCopy m_copy; // whose facility is asked for without the lock
};

} // namespace VexCore
