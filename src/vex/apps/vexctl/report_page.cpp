#include "vex/apps/vexctl/report_page.h"

#include "vex/apps/vexctl/command.h"
#include "vex/apps/vexctl/crash_list.h"
#include "vex/apps/vexctl/html_text.h"
#include "vex/apps/vexctl/report_style.h"
#include "vex/apps/vexctl/secrets.h"
#include "vex/apps/vexctl/svg_chart.h"
#include "vex/apps/vexctl/times.h"

#include "vex/apps/vex/version.h"

#include "vex/core/clock.h"
#include "vex_core/base/ascii.h"
#include "vex_core/os/descriptor.h"
#include "vex_core/os/error.h"
#include "vex_core/os/files.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <set>

#include <fcntl.h>

namespace Vexctl {

namespace {
constexpr std::size_t searchedLogBytes = 16 * 1024 * 1024;
constexpr std::size_t maxShownHeartbeats = 100000;
constexpr std::size_t shownEvents = 50;
constexpr std::size_t shownEnds = 20;
constexpr std::size_t shownRows = 200; // of one table of a plugin's
constexpr int shownDepth = 6; // of what a plugin tells
constexpr std::size_t maxShownSettingsBytes = 256 * 1024;

// --- pieces of HTML

std::string Masked(const std::string& text)
{
    return Html(MaskSecrets(text));
}

std::string Section(const char* id, const char* title, const std::string& body)
{
    return std::string("<section id=\"") + id + "\"><h2>" + title + "</h2>\n" + body + "</section>\n";
}

std::string None(const char* text)
{
    return std::string("<p class=\"none\">") + text + "</p>\n";
}

std::string Pill(StripMark::Kind kind, const std::string& text)
{
    const char* const colour = kind == StripMark::Kind::Good      ? "good"
                               : kind == StripMark::Kind::Warning ? "warn"
                                                                  : "bad";
    return std::string("<span class=\"pill ") + colour + "\">" + Html(text) + "</span>";
}

// A row of cells that are HTML already.
std::string Row(const std::vector<std::string>& cells)
{
    std::string row = "<tr>";
    for (const std::string& cell : cells)
        row += "<td>" + cell + "</td>";
    return row + "</tr>\n";
}

std::string TableBegin(const char* classes, const std::vector<std::string>& titles)
{
    std::string table = std::string("<div class=\"wide\"><table class=\"") + classes + "\"><thead><tr>";
    for (const std::string& title : titles)
        table += "<th>" + Html(title) + "</th>";
    return table + "</tr></thead><tbody>\n";
}

constexpr const char* tableEnd = "</tbody></table></div>\n";

// --- what the agent's report tells

const Json* Find(const Json& object, const char* field)
{
    if (!object.is_object())
        return nullptr;
    const auto found = object.find(field);
    return found == object.end() || found->is_null() ? nullptr : &*found;
}

std::string TextOf(const Json& object, const char* field)
{
    const Json* const found = Find(object, field);
    return found && found->is_string() ? found->get<std::string>() : std::string();
}

std::optional<double> NumberOf(const Json& object, const char* field)
{
    const Json* const found = Find(object, field);
    return found && found->is_number() && std::isfinite(found->get<double>()) ? std::optional(found->get<double>())
                                                                              : std::nullopt;
}

std::string Bytes(double bytes)
{
    return BytesText(static_cast<std::int64_t>(std::clamp(bytes, 0.0, 9e18)));
}

// Short, but never so short that something looks like nothing.
std::string NumberText(const Json& value)
{
    if (value.is_number_integer())
        return value.dump();
    const auto number = value.get<double>();
    char text[64];
    std::snprintf(text, sizeof text,
                  std::fabs(number) >= 1e15 ? "%.6g"
                  : std::fabs(number) < 0.1 ? "%.2g"
                                            : "%.2f",
                  number);
    return text;
}

// A number in the unit that the plugin has told: bytes, also bytes/s and the like, and seconds as people read them.
std::string MeasuredText(const Json& value, const std::string& unit)
{
    constexpr double most = 9e15;
    const auto number = value.get<double>();
    const double size = std::fabs(number);
    const std::string sign = number < 0 ? "-" : "";
    if (unit.empty() || size > most)
        return NumberText(value);
    if (VexCore::StartsWith(unit, "bytes"))
        return (size < 1024 ? NumberText(value) + " B" : sign + Bytes(size)) + unit.substr(5);
    if (unit == "seconds")
        return size < 60 ? NumberText(value) + " s" : sign + DurationText(static_cast<std::int64_t>(size * 1000));
    return NumberText(value) + ' ' + unit;
}

std::string CellText(const Json& value, const std::string& unit)
{
    if (value.is_null())
        return "-";
    if (value.is_string())
        return value.get<std::string>();
    return value.is_number() ? MeasuredText(value, unit) : JsonText(value);
}

// Of what has this key among a plugin's values: its own, or else that of the table around it.
std::string UnitOf(const Json& units, const std::string& key, const std::string& around)
{
    const std::string own = TextOf(units, key.c_str());
    return own.empty() ? around : own;
}

bool IsListOfObjects(const Json& value)
{
    return value.is_array() && !value.empty()
           && std::all_of(value.begin(), value.end(), [](const Json& entry) { return entry.is_object(); });
}

std::string More(std::size_t count)
{
    return "<p class=\"none\">and " + std::to_string(count) + " more</p>\n";
}

std::string ListTable(const Json& list, const Json& units, const std::string& unit)
{
    std::vector<std::string> fields;
    std::set<std::string> known;
    for (const Json& entry : list)
        for (auto field = entry.begin(); field != entry.end(); ++field)
            if (known.insert(field.key()).second)
                fields.push_back(field.key());
    std::stable_partition(fields.begin(), fields.end(), [](const std::string& field) { return field == "name"; });
    std::string html = TableBegin("values", fields);
    std::size_t rows = 0;
    for (const Json& entry : list) {
        if (rows++ == shownRows)
            break;
        std::vector<std::string> cells;
        for (const std::string& field : fields) {
            const Json* const value = Find(entry, field.c_str());
            cells.push_back(value ? Html(CellText(*value, UnitOf(units, field, unit))) : "-");
        }
        html += Row(cells);
    }
    html += tableEnd;
    return list.size() > shownRows ? html + More(list.size() - shownRows) : html;
}

// Plain values as a list of names and values, and what is nested below its name.
std::string Values(const Json& values, const Json& units, const std::string& unit, int depth)
{
    if (!values.is_object() || depth == shownDepth)
        return "<p>" + Html(CellText(values, unit)) + "</p>\n";
    std::string plain, nested;
    std::size_t rows = 0;
    for (auto entry = values.begin(); entry != values.end(); ++entry) {
        if (rows++ == shownRows) {
            nested += More(values.size() - shownRows);
            break;
        }
        const std::string own = UnitOf(units, entry.key(), unit);
        if (entry->is_structured() && entry->empty())
            plain += "<dt>" + Html(entry.key()) + "</dt><dd>none</dd>\n";
        else if (!entry->is_object() && !IsListOfObjects(*entry))
            plain += "<dt>" + Html(entry.key()) + "</dt><dd>" + Html(CellText(*entry, own)) + "</dd>\n";
        else
            nested += "<h4>" + Html(entry.key()) + "</h4>\n"
                      + (entry->is_object() ? Values(*entry, units, own, depth + 1) : ListTable(*entry, units, own));
    }
    return (plain.empty() ? "" : "<dl>" + plain + "</dl>\n") + nested;
}

// --- the page

class Page
{
public:
    explicit Page(const PageContent& content)
        : m_content(content), m_report(MaskedJson(content.report)), m_range{content.sinceMs, content.nowMs}
    {}

    std::string Write() const
    {
        return Head() + Summary() + Problems() + Host() + Charts() + Disks() + Restarts() + Events() + Plugins()
               + Crashes() + Settings() + "</main></body></html>\n";
    }

private:
    using Kind = StripMark::Kind;

    std::string HostName() const
    {
        const std::string host = TextOf(m_report, "host");
        return host.empty() ? "this host" : host;
    }

    std::string Head() const
    {
        const std::string title = Html(m_content.place.name) + " on " + Html(HostName());
        char offset[16] = "";
        const auto seconds = static_cast<std::time_t>(m_content.nowMs / 1000);
        struct tm local = {};
        if (::localtime_r(&seconds, &local))
            std::strftime(offset, sizeof offset, "%z", &local);
        return "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n"
               "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
               "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src "
               "'unsafe-inline'\">\n"
               "<meta name=\"color-scheme\" content=\"light dark\">\n<title>"
               + title + "</title>\n<style>" + reportStyle + "</style></head>\n<body><main><header><h1>" + title
               + "</h1>\n<p>" + LocalTime(m_content.nowMs) + ", UTC" + offset
               + ". All times are those of the host. Made by vexctl " + VEX_VERSION_TEXT + ".</p></header>\n";
    }

    std::string Ago(std::int64_t timeMs) const
    {
        const std::int64_t ageMs = m_content.nowMs - timeMs;
        return ageMs < 0 ? "in the future" : DurationText(ageMs) + " ago";
    }

    std::string Card(const char* title, const std::string& html, const std::string& below) const
    {
        return std::string("<div class=\"card\"><span>") + title + "</span><b>" + html + "</b><small>" + Html(below)
               + "</small></div>\n";
    }

    std::string StateCard() const
    {
        const AgentState& state = m_content.state;
        const bool runs = state.life == Life::Running;
        const char* const word = state.starting ? "starting" : state.stopping ? "stopping" : LifeWord(state.life);
        const Kind kind = runs ? Kind::Good : state.life == Life::NotRunning ? Kind::Warning : Kind::Bad;
        std::string below = state.reason;
        if (below.empty() && state.supervisorBeganMs)
            below = "for " + DurationText(m_content.nowMs - *state.supervisorBeganMs);
        return Card("Agent", Pill(kind, word), below);
    }

    std::size_t EndsInRange() const
    {
        return static_cast<std::size_t>(std::count_if(
            m_content.story.childEnds.begin(), m_content.story.childEnds.end(),
            [this](const ChildEndStory& end) { return end.timeMs >= m_range.beginMs && end.timeMs <= m_range.endMs; }));
    }

    std::string Summary() const
    {
        const std::string span = DurationText(m_range.endMs - m_range.beginMs);
        std::string cards = StateCard();
        if (!m_content.heartbeats.empty()) {
            const Heartbeat& beat = m_content.heartbeats.back();
            cards += Card("Last heartbeat", Html(Ago(beat.timeMs)),
                          "number " + std::to_string(beat.id) + ", " + beat.reason);
        }
        cards += Card("Ends of the child", std::to_string(EndsInRange()), "in " + span);
        if (const Json* const load = Find(m_report, "load");
            load && load->is_array() && !load->empty() && load->at(0).is_number()) {
            const auto processors = NumberOf(m_report, "processors");
            cards += Card("Load", NumberText(load->at(0)),
                          processors ? "on " + NumberText(*Find(m_report, "processors")) + " processors" : "");
        }
        if (const Json* const memory = Find(m_report, "memory")) {
            const auto available = NumberOf(*memory, "available"), total = NumberOf(*memory, "total");
            if (available)
                cards += Card("Memory available", Html(Bytes(*available)), total ? "of " + Bytes(*total) : "");
        }
        if (const auto uptime = NumberOf(m_report, "uptime"))
            cards +=
                Card("Host is up", Html(DurationText(static_cast<std::int64_t>(std::clamp(*uptime, 0.0, 1e15) * 1000))),
                     TextOf(m_report, "system"));
        return "<div class=\"cards\">" + cards + "</div>\n";
    }

    std::string Problems() const
    {
        if (m_content.problems.empty())
            return "";
        std::string list;
        for (const std::string& problem : m_content.problems)
            list += "<li>" + Masked(problem) + "</li>\n";
        return Section("problems", "Not known", "<ul class=\"problems\">" + list + "</ul>\n");
    }

    std::string Host() const
    {
        std::string list;
        const auto add = [&list](const char* title, const std::string& text) {
            if (!text.empty())
                list += std::string("<dt>") + title + "</dt><dd>" + Html(text) + "</dd>\n";
        };
        add("Host", TextOf(m_report, "host"));
        add("Host id", TextOf(m_report, "host_id"));
        add("System", TextOf(m_report, "system"));
        const std::string architecture = TextOf(m_report, "architecture");
        add("Kernel", TextOf(m_report, "kernel") + (architecture.empty() ? "" : " " + architecture));
        if (const Json* const memory = Find(m_report, "memory")) {
            const auto total = NumberOf(*memory, "swap_total"), unused = NumberOf(*memory, "swap_free");
            if (total && unused)
                add("Swap", *total > 0 ? Bytes(*unused) + " of " + Bytes(*total) + " free" : "none");
        }
        if (const Json* const agent = Find(m_report, "agent"))
            add("Agent", TextOf(*agent, "name") + " " + TextOf(*agent, "version"));
        add("Installed in", m_content.place.binFolder);
        add("Work folder", m_content.place.workFolder);
        return Section("host", "Host and agent", "<dl>" + list + "</dl>\n");
    }

    // Two and a half times what lies between most beats: a beat that comes late is no gap.
    std::int64_t GapMs() const
    {
        constexpr std::int64_t leastMs = 2 * 60 * 1000;
        std::vector<std::int64_t> intervals;
        for (std::size_t i = 1; i < m_content.heartbeats.size(); ++i)
            if (m_content.heartbeats[i].reason == "interval")
                intervals.push_back(m_content.heartbeats[i].timeMs - m_content.heartbeats[i - 1].timeMs);
        if (intervals.empty())
            return leastMs;
        const auto middle = intervals.begin() + static_cast<std::ptrdiff_t>(intervals.size() / 2);
        std::nth_element(intervals.begin(), middle, intervals.end());
        return std::max(leastMs, std::clamp<std::int64_t>(*middle, 0, m_range.endMs) / 2 * 5);
    }

    StripChart HeartbeatStrip() const
    {
        const std::int64_t gapMs = GapMs();
        StripChart strip{"Heartbeats", "", m_range, {}};
        std::size_t beats = 0, gaps = 0;
        std::optional<TimeRange> alive;
        const auto endAlive = [&](std::int64_t nextMs) {
            strip.marks.push_back({*alive, Kind::Good, ""});
            if (nextMs - alive->endMs <= gapMs)
                return;
            ++gaps;
            strip.marks.push_back({{alive->endMs, nextMs},
                                   Kind::Bad,
                                   "no heartbeat from " + LocalTime(alive->endMs) + " to " + LocalTime(nextMs)});
        };
        for (const Heartbeat& beat : m_content.heartbeats) {
            if (beat.timeMs < m_range.beginMs || beat.timeMs > m_range.endMs)
                continue;
            ++beats;
            if (alive && beat.timeMs >= alive->endMs && beat.timeMs - alive->endMs <= gapMs) {
                alive->endMs = beat.timeMs;
                continue;
            }
            if (alive)
                endAlive(beat.timeMs);
            alive = TimeRange{beat.timeMs, beat.timeMs};
        }
        if (alive)
            endAlive(m_range.endMs);
        strip.summary = std::to_string(beats) + " in " + DurationText(m_range.endMs - m_range.beginMs) + ", "
                        + (gaps == 0   ? "no gap"
                           : gaps == 1 ? "one gap"
                                       : std::to_string(gaps) + " gaps")
                        + " longer than " + DurationText(gapMs);
        return strip;
    }

    StripChart RestartStrip() const
    {
        StripChart strip{"Restarts", "", m_range, {}};
        for (const ChildEndStory& end : m_content.story.childEnds)
            strip.marks.push_back({{end.timeMs, end.timeMs},
                                   end.crashed || end.signal ? Kind::Bad : Kind::Warning,
                                   LocalTime(end.timeMs) + "  " + MaskSecrets(end.text)});
        const std::size_t ends = EndsInRange();
        strip.summary = ends == 0   ? "the child has not ended"
                        : ends == 1 ? "the child has ended once"
                                    : "the child has ended " + std::to_string(ends) + " times";
        if (!m_content.story.isAll && m_content.story.beginMs > m_range.beginMs)
            strip.summary +=
                " since " + LocalTime(m_content.story.beginMs) + ", before which nothing of the log was read";
        return strip;
    }

    std::string Charts() const
    {
        LineChart load{"Load", "", m_range, {}, GapMs(), 1, Peak::Highest, LoadText};
        LineChart memory{"Memory available", "", m_range, {}, GapMs(), 0, Peak::Lowest, Bytes};
        if (const Json* const facts = Find(m_report, "memory"))
            memory.top = NumberOf(*facts, "total").value_or(0);
        for (const Heartbeat& beat : m_content.heartbeats) {
            if (beat.load)
                load.points.push_back({beat.timeMs, *beat.load});
            if (beat.memoryAvailable)
                memory.points.push_back({beat.timeMs, static_cast<double>(*beat.memoryAvailable)});
        }
        load.summary = "over one minute, the highest";
        memory.summary = "the lowest";
        return Section("history", "History", Draw(HeartbeatStrip()) + Draw(RestartStrip()) + Draw(load) + Draw(memory));
    }

    std::string Disks() const
    {
        const Json* const disks = Find(m_report, "disks");
        if (!disks || !IsListOfObjects(*disks))
            return "";
        std::string html = TableBegin("disks", {"Mounted on", "Used", "", "Free", "Size"});
        for (const Json& disk : *disks) {
            const double total = NumberOf(disk, "total").value_or(0),
                         available = NumberOf(disk, "available").value_or(0);
            // What is reserved for the system counts as neither used nor free.
            const double unused = NumberOf(disk, "free").value_or(total);
            const double used = std::max(0.0, total - unused), reserved = std::max(0.0, unused - available);
            const double share = used + available > 0 ? used / (used + available) : 0;
            char percent[16];
            std::snprintf(percent, sizeof percent, "%.0f&nbsp;%%", 100 * share);
            const Kind kind = share >= 0.95 ? Kind::Bad : share >= 0.85 ? Kind::Warning : Kind::Good;
            const std::string device =
                TextOf(disk, "device") + (TextOf(disk, "type").empty() ? "" : ", " + TextOf(disk, "type"));
            const auto below = [](const std::string& text) { return "<small>" + Html(text) + "</small>"; };
            html += Row({"<b>" + Html(TextOf(disk, "mount")) + "</b>" + below(device), percent + below(Bytes(used)),
                         DrawBar(share, kind), Html(Bytes(available)),
                         Html(Bytes(total)) + (reserved > 0 ? below(Bytes(reserved) + " reserved") : "")});
        }
        return Section("disks", "Disks", html + tableEnd);
    }

    std::string Restarts() const
    {
        const std::vector<ChildEndStory>& ends = m_content.story.childEnds;
        if (ends.empty())
            return "";
        std::string html = TableBegin("stack", {"Time", "Supervisor", "What happened"});
        const std::size_t shown = std::min(ends.size(), shownEnds);
        for (std::size_t i = 0; i < shown; ++i) {
            const ChildEndStory& end = ends[ends.size() - 1 - i];
            html += Row({LocalTime(end.timeMs), std::to_string(end.supervisor), Masked(end.text)});
        }
        html += tableEnd;
        return Section("restarts", "Ends of the child", ends.size() > shown ? html + More(ends.size() - shown) : html);
    }

    std::string Events() const
    {
        if (m_content.events.empty())
            return Section("events", "Events", None("no events"));
        std::string html = TableBegin("stack", {"Time", "Severity", "Number", "Event"});
        for (auto event = m_content.events.rbegin(); event != m_content.events.rend(); ++event) {
            const std::int64_t severity = event->severity.value_or(7);
            const std::string word = SeverityWord(*event);
            html += Row({event->timeMs ? LocalTime(*event->timeMs) : "-",
                         severity <= 3   ? Pill(Kind::Bad, word)
                         : severity == 4 ? Pill(Kind::Warning, word)
                                         : Html(word),
                         event->number ? std::to_string(*event->number) : "-", Masked(event->text)});
        }
        return Section("events", "Events", html + tableEnd);
    }

    std::string Plugins() const
    {
        const Json* const plugins = Find(m_report, "plugins");
        if (!plugins || !IsListOfObjects(*plugins))
            return Section("plugins", "Plugins", None(m_report.is_object() ? "no plugins" : "not known"));
        std::string html;
        for (const Json& plugin : *plugins) {
            const std::string version = TextOf(plugin, "version");
            html += "<article><h3>" + Html(TextOf(plugin, "name"))
                    + (version.empty() ? "" : " <small>" + Html(version) + "</small>");
            const Json *const values = Find(plugin, "values"), *const units = Find(plugin, "units");
            if (const std::string error = TextOf(plugin, "error"); !error.empty())
                html += " " + Pill(Kind::Bad, "failed") + "</h3><pre>" + Html(error, true) + "</pre>";
            else
                html += "</h3>" + (values ? Values(*values, units ? *units : Json(), "", 0) : None("nothing to tell"));
            html += "</article>\n";
        }
        return Section("plugins", "Plugins", html);
    }

    std::string Crashes() const
    {
        if (m_content.dumps.empty())
            return Section("crashes", "Crashes", None("no crash dumps"));
        std::string html = TableBegin("stack", {"Time", "Signal", "Thread", "Place", "Version", "File"});
        for (const CrashDump& dump : m_content.dumps) {
            const std::string file = Html(dump.path.substr(dump.path.rfind('/') + 1));
            const std::string version = VersionOf(dump, m_content.story);
            if (dump.damage.empty())
                html += Row({LocalTime(dump.timeMs), Html(SignalName(dump.signal)), Html(ThreadText(dump)),
                             Html(PlaceText(dump)), version.empty() ? "-" : Html(version), file});
            else
                html += Row({LocalTime(dump.timeMs), "-", "-", "-", "-", file + ": " + Html(dump.damage)});
        }
        return Section("crashes", "Crashes", html + tableEnd);
    }

    std::string Settings() const
    {
        std::string html;
        for (const auto& [file, text] : m_content.settings)
            html += "<h3>" + Html(file) + "</h3><pre>" + Html(text, true) + "</pre>\n";
        return Section("settings", "Files of settings", html.empty() ? None("none are there") : html);
    }

    const PageContent& m_content;
    const Json m_report; // secrets masked
    const TimeRange m_range;
};

template <typename Function>
void Try(std::vector<std::string>& problems, const Function& function)
{
    try {
        function();
    } catch (const Failure& failure) {
        problems.emplace_back(failure.what());
    }
}

} // namespace

std::vector<std::pair<std::string, std::string>> ReadSettings(const Place& place, std::vector<std::string>& problems)
{
    std::vector<std::pair<std::string, std::string>> files;
    for (const std::string& path : place.SettingsFiles()) {
        const VexCore::os::Descriptor file(VexCore::os::Open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY));
        struct stat status = {};
        if (!file || VexCore::os::FStat(file.Get(), status) != 0) {
            problems.push_back(path + ": " + VexCore::os::ErrorText(VexCore::os::LastError()));
            continue;
        }
        std::string text(maxShownSettingsBytes, '\0');
        const ssize_t size =
            S_ISREG(status.st_mode) ? VexCore::os::PReadFull(file.Get(), text.data(), text.size(), 0) : -1;
        if (size < 0) {
            problems.push_back(path + (S_ISREG(status.st_mode) ? " cannot be read" : " is no regular file"));
            continue;
        }
        text.resize(static_cast<std::size_t>(size));
        if (static_cast<std::size_t>(size) == maxShownSettingsBytes)
            problems.push_back("of " + path + " only the first 256 KiB are shown");
        files.emplace_back(path, MaskSettings(text));
    }
    return files;
}

PageContent CollectPage(const Place& place, std::int64_t sinceMs)
{
    PageContent content;
    content.place = place;
    content.nowMs = VexCore::TimeNowMillis();
    content.sinceMs = std::min(sinceMs, content.nowMs - 1);
    content.state = FindAgentState(place);
    Try(content.problems, [&] { content.story = ReadLogStory(place, searchedLogBytes); });
    Try(content.problems, [&] {
        AgentDatabase database(place.HeartbeatFile());
        HeartbeatWish wish;
        wish.number = maxShownHeartbeats;
        wish.sinceMs = content.sinceMs;
        wish.untilMs = content.nowMs;
        content.heartbeats = ReadHeartbeats(database, wish);
    });
    Try(content.problems, [&] {
        AgentDatabase database(place.EventsFile());
        content.events = ReadLastEvents(database, shownEvents);
    });
    Try(content.problems, [&] { content.dumps = FindCrashDumps(place); });
    content.settings = ReadSettings(place, content.problems);
    return content;
}

std::string ReportPage(const PageContent& content)
{
    return Page(content).Write();
}

} // namespace Vexctl
