#include "vex/apps/vexctl/event_history.h"

#include "vex/apps/vexctl/event_key.h"
#include "vex/apps/vexctl/json_text.h"
#include "vex/apps/vexctl/times.h"

#include <algorithm>
#include <array>

namespace Vexctl {

namespace {
constexpr std::array<const char*, 8> severityWords = {"emergency", "alert",  "critical", "error",
                                                      "warning",   "notice", "info",     "debug"};

constexpr std::int64_t maxSeconds = INT64_MAX / 1000; // more are no time that can be shown

// The columns of the table, in their order.
enum Column { IdColumn, TimeMsColumn, TimeSColumn, NumberColumn, SeverityColumn, TextColumn, XmlColumn, KeyColumn };

bool ReadOne(VexCore::SqliteStatement& row, std::optional<Event>& event)
{
    const auto result = row.Step();
    event.reset();
    if (result == VexCore::SqliteStatement::StepResult::Row)
        event = EventOf(row);
    return result != VexCore::SqliteStatement::StepResult::Failed;
}

} // namespace

std::string Event::Key() const
{
    return IsStoredEventKey(storedKey) ? storedKey : EventKey(id, xml);
}

bool Event::HasKey(std::string_view key) const
{
    return key == Key() || key == EventKey(id, xml);
}

Event EventOf(const VexCore::SqliteStatement& row)
{
    const auto number = [&row](int column) {
        return row.ColumnIsNull(column) ? std::nullopt : std::optional(row.ColumnInt(column));
    };
    std::optional<std::int64_t> timeMs = number(TimeMsColumn);
    const auto timeS = number(TimeSColumn);
    if (!timeMs && timeS && *timeS <= maxSeconds && *timeS >= -maxSeconds)
        timeMs = *timeS * 1000;
    return {row.ColumnInt(IdColumn),
            timeMs,
            number(NumberColumn),
            number(SeverityColumn),
            row.ColumnText(TextColumn),
            row.ColumnText(XmlColumn),
            row.ColumnHasName(KeyColumn, "key") ? row.ColumnText(KeyColumn) : std::string()};
}

bool FindEventById(VexCore::SqliteConnection& db, std::int64_t id, std::optional<Event>& event)
{
    VexCore::SqliteStatement row(db, (std::string(selectEvents) + " WHERE id = ?1").c_str());
    row.Bind(1, id);
    return ReadOne(row, event);
}

bool FindEventByStoredKey(VexCore::SqliteConnection& db, const std::string& key, std::optional<Event>& event)
{
    event.reset();
    VexCore::SqliteStatement column(db, "SELECT 1 FROM pragma_table_info('agent_event') WHERE name = 'key'");
    const auto hasKeys = column.Step();
    if (hasKeys != VexCore::SqliteStatement::StepResult::Row)
        return hasKeys != VexCore::SqliteStatement::StepResult::Failed;
    VexCore::SqliteStatement row(db, (std::string(selectEvents) + " WHERE key = ?1 ORDER BY id LIMIT 1").c_str());
    row.Bind(1, key);
    return ReadOne(row, event);
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

// Built by itself: of what a million events cost, the objects that JSON is made of elsewhere were three quarters.
std::string JsonLine(const Event& event)
{
    const auto number = [](const char* field, std::int64_t value) { return field + std::to_string(value); };
    std::string line = number("{\"schema\":", jsonSchema) + ",\"key\":";
    constexpr std::size_t otherFields = 192;
    line.reserve(otherFields + event.text.size());
    AddJsonString(line, event.Key());
    if (event.timeMs)
        line.append(",\"time\":\"").append(UtcTime(*event.timeMs)).append(1, '"');
    if (event.number)
        line += number(",\"number\":", *event.number);
    if (event.severity) {
        line += number(",\"severity\":", *event.severity);
        line.append(",\"severity_word\":\"").append(SeverityWord(event)).append(1, '"');
    }
    line += ",\"text\":";
    AddJsonString(line, event.text);
    line += '}';
    return line;
}

} // namespace Vexctl
