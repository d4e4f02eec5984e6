#pragma once
// The file of events that wait for the database. Format: docs/FORMATS.md, "Agent events".

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace VexCore {

/// An event as the database holds it. Absent fields are NULL there.
struct EventRecord
{
    std::string key; ///< names this event for ever, so that it is stored once however often it is tried
    std::optional<std::int64_t> timeMillis;
    std::optional<std::int64_t> timeSeconds;
    std::optional<std::int64_t> number;
    std::optional<std::int64_t> severity;
    std::optional<std::string> text;
    std::string xml;
    bool isShown = false; ///< the last resort has it; of the process that keeps the event alone
};

/// Several processes may use one file. In a process, one thread at a time.
class PendingEvents
{
public:
    explicit PendingEvents(std::string path);

    const std::string& Path() const { return m_path; }
    /// Whether there is a file at all.
    bool Exists() const;
    /// Whether it holds anything: one that could not be removed is emptied.
    bool HasEvents() const;

    /// Adds the record and flushes it to the disk. False with the reason: the file is as it was.
    bool Append(const EventRecord& record);

    enum class TakeResult {
        All, ///< `store` took them and the file is gone, or empty where it cannot be removed
        Refused, ///< `store` did not take them; the file is as it was
        Unreadable, ///< the file could not be locked or read, or still holds what `store` took, for the reason told
    };
    /// Hands all records to `store`, which puts them away for good or answers false; then removes the file. A
    /// process that dies in between leaves the file, and `store` sees the same keys again.
    TakeResult Take(const std::function<bool(const std::vector<EventRecord>&)>& store);

    /// Why the last of them failed.
    const std::string& Reason() const { return m_reason; }

private:
    std::string m_path;
    std::string m_reason;
};

/// One line of the file, with its line end.
std::string FormatPendingLine(const EventRecord& record);
/// False when the line is no record, for example one cut short by a crash.
bool ParsePendingLine(const std::string& line, EventRecord& record);

} // namespace VexCore
