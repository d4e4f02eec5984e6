#pragma once
// The copy of the log that goes to the system's log: what goes there, what becomes of it when the logger does not take
// it, and what there is to say about that. Knows no file.

#include "vex_core/log/log_level.h"
#include "vex_core/os/system_log.h"

#include <atomic>
#include <cstddef>
#include <ctime>
#include <string>
#include <string_view>

namespace VexCore {

/// What one record has of its text in the copy at most: loggers take 8 KiB in all, if nobody has told them otherwise.
constexpr std::size_t maxCopiedBytes = 7 * 1024;

/// The text, cut between two characters, with a note that tells its length where it is longer than that.
std::string CopiedText(std::string_view text);

/// One thread at a time, but for Facility.
class SystemLogCopy
{
public:
    static constexpr int nowhere = -1;

    struct Settings
    {
        int facility = nowhere; ///< as os::SystemLogFacility has it
        LogLevel level = LogLevel::Info; ///< the least that goes there
    };

    explicit SystemLogCopy(std::time_t (*now)() = [] { return std::time(nullptr); }) : m_now(now) {}

    /// Off at first.
    void SetSettings(const Settings& settings);
    bool Wants(LogLevel level) const { return m_settings.facility != nowhere && level <= m_settings.level; }

    /// Sends one record. A logger that has no room is waited for some milliseconds, but not again before it has taken
    /// one; one that is not there is looked for once a second. False: it has not taken the record.
    bool Send(LogLevel level, std::time_t time, std::string_view text);
    /// A record that Send has not got rid of stands in the file, and so in that alone. What is in neither is for the
    /// file's owner to count.
    void CountLeftOut() { ++m_leftOut; }

    /// What is to be said in the log now, empty as a rule: that records are left out, once when it begins, or how many
    /// were, when they are taken again. Of a logger that takes some and leaves others a word a minute.
    std::string Notice() const;
    /// What Notice has told stands in the log. True: it is about a gap that is over, and goes to the system's log too.
    bool NoticeIsTold();
    /// For the end of the process, or of the copy: how many were left out and not told yet. Counted no longer. Empty:
    /// none.
    std::string TakeLastNotice();

    /// Closes what is open, and counts from none: in the child of a fork, whose parent goes on with both.
    void Forget();

    /// Where the lines go now, or `nowhere`. Any thread; async-signal-safe.
    int Facility() const { return m_facility.load(std::memory_order_relaxed); }

private:
    bool IsQuiet() const;

    std::time_t (*const m_now)();
    Settings m_settings;
    std::atomic<int> m_facility{nowhere}; // that of m_settings
    os::SystemLog m_log;
    bool m_works = true; // the last record was taken
    bool m_isStuck = false; // the logger has let its time pass, and has taken nothing since
    int m_error = 0; // of the last that was not taken
    std::time_t m_triedAt = 0; // a logger that was not there
    std::size_t m_leftOut = 0; // records in the file alone, and not told yet
    bool m_troubleTold = false;
    std::time_t m_gapToldAt = 0;
};

} // namespace VexCore
