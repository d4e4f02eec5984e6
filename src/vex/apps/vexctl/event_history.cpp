#include "vex/apps/vexctl/event_history.h"

#include "vex/apps/vexctl/event_key.h"
#include "vex/apps/vexctl/times.h"

#include <algorithm>
#include <array>

namespace Vexctl {

namespace {
constexpr std::array<const char*, 8> severityWords = {"emergency", "alert",  "critical", "error",
                                                      "warning",   "notice", "info",     "debug"};

} // namespace

std::string Event::Key() const
{
    return EventKey(id, xml);
}

Event EventOf(const VexCore::SqliteStatement& row)
{
    const auto number = [&row](int column) {
        return row.ColumnIsNull(column) ? std::nullopt : std::optional(row.ColumnInt(column));
    };
    return {row.ColumnInt(0), number(1), number(2), number(3), row.ColumnText(4), row.ColumnText(5)};
}

std::vector<Event> ReadLastEvents(AgentDatabase& database, std::size_t number)
{
    std::vector<Event> events;
    database.Read([&](VexCore::SqliteConnection& db) {
        events.clear();
        VexCore::SqliteStatement rows(db, (std::string(selectEvents) + " ORDER BY id DESC LIMIT ?1").c_str());
        rows.Bind(1, static_cast<std::int64_t>(number));
        for (;;) {
            const auto result = rows.Step();
            if (result != VexCore::SqliteStatement::StepResult::Row)
                return result == VexCore::SqliteStatement::StepResult::Done;
            events.push_back(EventOf(rows));
        }
    });
    std::reverse(events.begin(), events.end());
    return events;
}

std::optional<int> FindSeverity(const std::string& word)
{
    for (std::size_t i = 0; i < severityWords.size(); ++i)
        if (word == severityWords[i] || word == std::to_string(i))
            return static_cast<int>(i);
    return std::nullopt;
}

const char* SeverityWord(const Event& event)
{
    const bool isKnown = event.severity && *event.severity >= 0 && *event.severity < 8;
    return isKnown ? severityWords[static_cast<std::size_t>(*event.severity)] : "-";
}

Json JsonOf(const Event& event)
{
    Json object = {{"schema", jsonSchema}, {"key", event.Key()}};
    if (event.timeMs)
        object["time"] = UtcTime(*event.timeMs);
    if (event.number)
        object["number"] = *event.number;
    if (event.severity) {
        object["severity"] = *event.severity;
        object["severity_word"] = SeverityWord(event);
    }
    object["text"] = event.text;
    return object;
}

} // namespace Vexctl
