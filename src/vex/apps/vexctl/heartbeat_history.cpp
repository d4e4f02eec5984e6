#include "vex/apps/vexctl/heartbeat_history.h"

#include "vex/apps/vexctl/times.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>

namespace Vexctl {

namespace {
// Absent where it is none, or not what an agent writes.
std::optional<std::int64_t> AmountOf(const VexCore::SqliteStatement& row, int column)
{
    return row.ColumnIsNull(column) || row.ColumnInt(column) < 0 ? std::nullopt : std::optional(row.ColumnInt(column));
}

std::optional<double> LoadOf(const VexCore::SqliteStatement& row, int column)
{
    const double load = row.ColumnIsNull(column) ? -1 : std::strtod(row.ColumnText(column).c_str(), nullptr);
    return std::isfinite(load) && load >= 0 ? std::optional(load) : std::nullopt;
}

} // namespace

std::vector<Heartbeat> ReadHeartbeats(AgentDatabase& database, const HeartbeatWish& wish)
{
    std::vector<Heartbeat> beats;
    database.Read([&](VexCore::SqliteConnection& db) {
        beats.clear();
        VexCore::SqliteStatement rows(db, "SELECT id, time_ms, reason, uptime_s, load1, memory_available FROM heartbeat"
                                          " WHERE time_ms BETWEEN ?1 AND ?2 ORDER BY id DESC LIMIT ?3");
        rows.Bind(1, wish.sinceMs.value_or(std::numeric_limits<std::int64_t>::min()));
        rows.Bind(2, wish.untilMs.value_or(std::numeric_limits<std::int64_t>::max()));
        rows.Bind(3, wish.number == 0 ? std::int64_t{-1} : static_cast<std::int64_t>(wish.number));
        for (;;) {
            const auto result = rows.Step();
            if (result != VexCore::SqliteStatement::StepResult::Row)
                return result == VexCore::SqliteStatement::StepResult::Done;
            Heartbeat beat;
            beat.id = rows.ColumnInt(0);
            beat.timeMs = std::max<std::int64_t>(0, rows.ColumnInt(1));
            beat.reason = rows.ColumnText(2);
            beat.uptimeS = AmountOf(rows, 3);
            beat.load = LoadOf(rows, 4);
            beat.memoryAvailable = AmountOf(rows, 5);
            beats.push_back(std::move(beat));
        }
    });
    std::reverse(beats.begin(), beats.end());
    return beats;
}

Json JsonOf(const Heartbeat& beat)
{
    Json object = {{"schema", jsonSchema}, {"id", beat.id}, {"time", UtcTime(beat.timeMs)}, {"reason", beat.reason}};
    if (beat.uptimeS)
        object["uptime"] = *beat.uptimeS;
    if (beat.load)
        object["load"] = *beat.load;
    if (beat.memoryAvailable)
        object["memory_available"] = *beat.memoryAvailable;
    return object;
}

std::string BytesText(std::int64_t bytes)
{
    static constexpr const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    auto value = static_cast<double>(bytes);
    std::size_t unit = 0;
    for (; value >= 1024 && unit + 1 < std::size(units); ++unit)
        value /= 1024;
    char text[40];
    std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", value, units[unit]);
    return text;
}

std::string LoadText(double load)
{
    char text[40];
    std::snprintf(text, sizeof text, "%.2f", load);
    return text;
}

} // namespace Vexctl
