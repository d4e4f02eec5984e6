// vexctl events: what the agent's database of events holds, the oldest first, and in the end what is to come: for
// people, or in the format of a collector. With a state file each is told at least once, whatever comes between.

#include "vex/apps/vex/version.h"
#include "vex/apps/vexctl/agent_database.h"
#include "vex/apps/vexctl/agent_log.h"
#include "vex/apps/vexctl/agent_version.h"
#include "vex/apps/vexctl/command.h"
#include "vex/apps/vexctl/event_formats.h"
#include "vex/apps/vexctl/event_history.h"
#include "vex/apps/vexctl/event_key.h"
#include "vex/apps/vexctl/event_socket.h"
#include "vex/apps/vexctl/event_state.h"
#include "vex/apps/vexctl/moved_aside.h"
#include "vex/apps/vexctl/options.h"
#include "vex/apps/vexctl/os/watch.h"
#include "vex/apps/vexctl/shown_text.h"
#include "vex/apps/vexctl/times.h"

#include "vex/core/clock.h"
#include "vex_core/base/utf8.h"
#include "vex_core/domain/host_id.h"
#include "vex_core/os/descriptor.h"
#include "vex_core/os/error.h"
#include "vex_core/os/files.h"
#include "vex_core/os/host_facts.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include <fcntl.h>

namespace Vexctl {

namespace {
constexpr std::size_t usualEvents = 100;
// Between two tries of what did not work and of whose change nobody tells.
constexpr long betweenTriesMs = EventState::betweenTriesMs;

struct EventOptions
{
    bool follow = false;
    bool json = false;
    bool xml = false;
    std::optional<std::size_t> number; // 0: all
    std::string severity;
    std::string after;
    TimeSpan span;
    std::string format; // empty: for people, or what the flags above say
    std::string socket, state; // paths
};

std::string WhyNoSeverity(const std::string& word)
{
    return FindSeverity(word) ? std::string()
                              : "'" + word
                                    + "' is no severity: 0 to 7 are, or emergency, alert, critical, error, warning, "
                                      "notice, info, debug";
}

// The element of an event with its control characters as XML has them, so that a terminal obeys none.
std::string XmlText(std::string_view xml)
{
    std::string text;
    while (!xml.empty()) {
        char32_t character = 0;
        const std::size_t length = std::max<std::size_t>(1, VexCore::DecodeUtf8(xml, character));
        if (VexCore::IsControlOrLineEnd(character))
            text += "&#" + std::to_string(static_cast<unsigned>(character)) + ";";
        else
            text.append(xml.substr(0, length));
        xml.remove_prefix(length);
    }
    return text;
}

// The way through the database in parts: what was read of one is shown before the next is read.
class EventCommand
{
public:
    EventCommand(Session& session, const EventOptions& options)
        : m_session(session), m_options(options), m_database(session.place.EventsFile()),
          m_version(session.place, VEX_VERSION_TEXT), m_sinceMs(options.span.SinceMs()),
          m_untilMs(options.span.UntilMs())
    {
        if (!options.severity.empty())
            m_severity = FindSeverity(options.severity);
    }

    int Run()
    {
        std::optional<os::FolderWatch> watch;
        if (m_options.follow)
            watch.emplace(m_session.place.workFolder);
        if (!LookForWorkFolder())
            throw NoWorkFolder(m_session.place);
        OpenOutlets();
        ShowTitles();
        Begin();
        ShowAll();
        TellWhatWaits();
        while (watch) {
            Sleep(*watch);
            ShowAsFarAsPossible();
        }
        m_session.out.Flush();
        return !m_state || m_state->Save() ? statusDone : statusUnusable;
    }

private:
    static constexpr std::int64_t partRows = 500;
    static constexpr std::int64_t manyRows = 10000;

    // Who the events are of, the socket and the state file, as far as they are wanted.
    void OpenOutlets()
    {
        const auto note = [this](const std::string& text) { m_session.Note(text); };
        const Place& place = m_session.place;
        if (TellsVersion() || !m_options.state.empty())
            m_source = {VexCore::FindHostId(place.name, place.workFolder), VexCore::os::GetSystemName().host,
                        place.name, m_version.Load()};
        if (!m_options.socket.empty())
            m_socket.emplace(m_options.socket, note);
        if (!m_options.state.empty())
            m_state.emplace(m_options.state, m_source.hostId, place.name, note);
    }

    // What is shown is written, and that it was, before anything is waited for.
    void Sleep(os::FolderWatch& watch)
    {
        m_session.out.Flush();
        const bool isSaved = !m_state || m_state->SaveWhenDue();
        const long timeoutMs = isSaved && m_troubles.empty() ? -1 : betweenTriesMs;
        // Nobody has to read an output that nothing is written to.
        if (watch.Wait(m_socket ? -1 : m_session.out.Descriptor(), timeoutMs) == os::FolderWatch::Woken::ReaderGone)
            throw ReaderGone();
    }

    // A follower outlives a database that is damaged, or in the middle of a change whose writer was killed, until the
    // agent has put it right.
    void ShowAsFarAsPossible()
    {
        try {
            ShowAll();
            if (!std::exchange(m_troubles, {}).empty())
                m_session.Note("the events in " + m_session.place.workFolder + " can be read again");
        } catch (const Failure& failure) {
            if (m_troubles.insert(failure.what()).second) // one may come right behind another
                m_session.Note(failure.what());
        }
    }

    bool LookForWorkFolder() const
    {
        struct stat status = {};
        return VexCore::os::Stat(m_session.place.workFolder.c_str(), status) == 0;
    }

    bool TellsVersion() const { return m_options.format == "otlp" || m_options.format == "syslog"; }
    bool HumanReads() const { return m_options.format.empty() && !m_options.json && !m_options.xml; }

    void ShowTitles()
    {
        if (HumanReads())
            Print("TIME                 SEVERITY   NUMBER  TEXT", Colour::Faint);
    }

    // --- where to begin

    void Begin()
    {
        m_database.Read([](VexCore::SqliteConnection&) { return true; }); // or a failure that says more than the next
        std::vector<MovedAside> before;
        if (m_state || m_options.follow)
            before = FindAside().value_or(before);
        if (m_state && m_state->Found())
            m_position = *m_state->Found();
        else
            for (MovedAside& moved : before)
                m_position.done.push_back(std::move(moved.name));
        if (!m_options.after.empty())
            BeginAfter(m_options.after);
        else if (!m_state)
            BeginAtLast();
        if (m_state)
            m_state->Begin(m_position);
    }

    void BeginAfter(const std::string& key)
    {
        if (const std::optional<std::int64_t> id = IdOfEventKey(key))
            BeginAfterId(*id, key);
        else if (IsStoredEventKey(key))
            BeginAfterStored(key);
        else
            throw Failure("'" + key + "' is no key of an event");
    }

    // One that is not there has gone because of its age, so that all that are there came behind it, or is another
    // database's.
    void BeginAfterStored(const std::string& key)
    {
        bool isGone = false;
        const bool isThere = m_database.Read([&](VexCore::SqliteConnection& db) {
            std::optional<Event> event;
            const bool read = FindEventByStoredKey(db, key, event);
            m_position.id = event ? event->id : 0;
            m_position.key = event ? key : std::string();
            m_position.database = DatabaseName(m_database.Identity());
            isGone = !event;
            return read;
        });
        if (!isThere) {
            ForgetPlace();
            return;
        }
        if (isGone)
            m_session.Note("the event of that key is not in " + m_database.Path()
                           + ": it was too old, or the database has been replaced; all events that are there follow");
    }

    void ForgetPlace()
    {
        m_position.id = 0;
        m_position.key.clear();
        m_position.database.clear();
    }

    // Such an event is found by its id, and known by its key: in another database its id may be another event's. Then
    // nothing of that one has been shown.
    void BeginAfterId(std::int64_t id, const std::string& key)
    {
        m_position.id = id;
        m_position.key = key;
        bool stands = true;
        const bool isThere = m_database.Read([this, &stands](VexCore::SqliteConnection& db) {
            m_position.database = DatabaseName(m_database.Identity()); // which nobody can have told us
            return StandsIn(db, stands);
        });
        if (!isThere)
            m_position.database.clear(); // whatever was read before it went
        if (!isThere || stands)
            return;
        m_position.id = 0;
        m_position.key.clear();
        m_session.Note("the event of that key is not in " + m_database.Path()
                       + ", which has been replaced: all its events follow");
    }

    // Whether what was shown is this database's, so that what lies behind it is all that is new. False: SQLite failed.
    bool StandsIn(VexCore::SqliteConnection& db, bool& stands)
    {
        const bool isSameFile = m_position.database == DatabaseName(m_database.Identity());
        if (m_position.key.empty()) { // nothing was shown yet
            stands = isSameFile;
            return true;
        }
        std::optional<Event> event;
        if (!FindEventById(db, m_position.id, event))
            return false;
        if (event) {
            stands = event->HasKey(m_position.key); // also in a copy that was put back
            return true;
        }
        VexCore::SqliteStatement last(db, "SELECT max(id) FROM agent_event");
        if (last.Step() != VexCore::SqliteStatement::StepResult::Row)
            return false;
        // One that is gone has gone because of its age, unless all that are there came before it.
        stands = isSameFile && last.ColumnInt(0) > m_position.id;
        return true;
    }

    // --- a database that was replaced

    // Where nobody may list the folder, a state file would tell that all events up to one were taken while those of a
    // database moved aside were not. Without one nobody relies on that. Absent: nobody can tell.
    std::optional<std::vector<MovedAside>> FindAside()
    {
        try {
            return FindMovedAside(m_database.Path());
        } catch (const FolderNotListed& failure) {
            const std::string why = std::string(failure.what())
                                    + ". So a damaged database that the agent has moved aside there cannot be seen";
            if (m_state)
                throw Failure(why + "; allow vexctl to list the folder, or do without --state");
            if (!std::exchange(m_isAsideTold, true))
                m_session.Note(why + ", and events that only such a one has are missing");
            return std::nullopt;
        }
    }

    // What was not shown of those before this one, as far as it can be read. Then this one is shown from its begin.
    // Where it fails on the way, the next try goes on.
    void GoOnInAnother(const std::string& database)
    {
        const std::optional<std::vector<MovedAside>> seen = FindAside();
        std::vector<MovedAside> moved = seen.value_or(std::vector<MovedAside>());
        // First, because the clock may have been set meanwhile.
        const auto others = std::stable_partition(moved.begin(), moved.end(), [this](const MovedAside& one) {
            return IsDone(one) ? one.database == m_position.database : IsDatabaseOf(one, m_position);
        });
        TellReplaced(database, others != moved.begin());
        for (const MovedAside& one : moved)
            if (!IsDone(one))
                ShowMovedAside(one);
        if (seen) // else those that were done may be there still
            m_position.done.clear();
        for (MovedAside& one : moved)
            m_position.done.push_back(std::move(one.name));
        m_position.key.clear();
        m_position.id = 0;
        m_position.database = database;
        m_toldReplaced.clear();
        Remember();
    }

    void TellReplaced(const std::string& database, bool isOneBeforeThere)
    {
        const bool wasBegun =
            !m_position.key.empty() || (!m_position.database.empty() && m_position.database != database);
        if (!wasBegun || m_toldReplaced == database)
            return;
        m_toldReplaced = database;
        m_session.Note(m_database.Path() + " has been replaced: all its events follow"
                       + (isOneBeforeThere ? " those of the one before"
                                           : "; whether the one before had more than was shown cannot be known, "
                                             "because it is gone"));
    }

    bool IsDone(const MovedAside& moved) const
    {
        return std::find(m_position.done.begin(), m_position.done.end(), moved.name) != m_position.done.end();
    }

    // Also where the last event is in the database: somebody may have put a copy of an earlier state in its place.
    bool HasEventsAside()
    {
        const std::optional<std::vector<MovedAside>> moved = FindAside();
        return moved
               && !std::all_of(moved->begin(), moved->end(), [this](const MovedAside& one) { return IsDone(one); });
    }

    void ShowMovedAside(const MovedAside& moved)
    {
        if (!IsDatabaseOf(moved, m_position)) {
            m_position.key.clear();
            m_position.id = 0;
        }
        m_position.database = moved.database;
        const auto lost =
            ReadDamaged(moved.path, m_position.id, Condition(), [this](const Event& event) { Show(event); });
        if (lost)
            m_session.Note(moved.path + ": " + *lost);
        m_position.done.push_back(moved.name);
        Remember();
    }

    void BeginAtLast()
    {
        const bool isWhole = m_options.span.Given() && !m_options.number;
        const std::size_t number = m_options.number.value_or(isWhole ? 0 : usualEvents);
        const bool isThere = m_database.Read([this, number](VexCore::SqliteConnection& db) {
            m_position.id = 0;
            m_position.database = DatabaseName(m_database.Identity());
            const bool areMany = !m_sinceMs || HasManySince(db);
            // The last ones of many are near the end, so that they are found from there.
            const bool fromTheEnd = areMany && (number > 0 || !m_sinceMs);
            return (fromTheEnd || BeginAtTime(db, areMany)) && (number == 0 || BeginAtNumber(db, number));
        });
        if (!isThere)
            ForgetPlace();
    }

    // Whether there are so many that to go through them all takes a while.
    bool HasManySince(VexCore::SqliteConnection& db) const
    {
        VexCore::SqliteStatement row(db, "SELECT 1 FROM agent_event WHERE time_ms >= ?1 LIMIT 1 OFFSET ?2");
        row.Bind(1, *m_sinceMs);
        row.Bind(2, manyRows);
        return row.Step() == VexCore::SqliteStatement::StepResult::Row;
    }

    // What is wanted in the end is asked of each row. The first one of many is near the begin of the table; the plus
    // leads SQLite to few by the index of times.
    bool BeginAtTime(VexCore::SqliteConnection& db, bool areMany)
    {
        const std::string sql = std::string("SELECT coalesce((SELECT min(") + (areMany ? "id" : "+id")
                                + ") - 1 FROM agent_event WHERE time_ms >= ?1), (SELECT max(id) FROM agent_event), 0)";
        VexCore::SqliteStatement first(db, sql.c_str());
        first.Bind(1, *m_sinceMs);
        if (first.Step() != VexCore::SqliteStatement::StepResult::Row)
            return false;
        m_position.id = first.ColumnInt(0);
        return true;
    }

    bool BeginAtNumber(VexCore::SqliteConnection& db, std::size_t number)
    {
        const std::string sql =
            "SELECT id FROM agent_event WHERE id > ?1" + Condition() + " ORDER BY id DESC LIMIT 1 OFFSET ?2";
        VexCore::SqliteStatement row(db, sql.c_str());
        row.Bind(1, m_position.id);
        row.Bind(2, static_cast<std::int64_t>(std::min<std::size_t>(number - 1, INT64_MAX)));
        const auto result = row.Step();
        if (result == VexCore::SqliteStatement::StepResult::Row)
            m_position.id = row.ColumnInt(0) - 1;
        return result != VexCore::SqliteStatement::StepResult::Failed;
    }

    // --- reading and showing

    // The plus keeps SQLite from sorting by the id what it has found by the time.
    std::string Condition() const
    {
        std::string sql;
        if (m_sinceMs)
            sql += " AND +time_ms >= " + std::to_string(*m_sinceMs);
        if (m_untilMs)
            sql += " AND +time_ms <= " + std::to_string(*m_untilMs);
        if (m_severity)
            sql += " AND severity <= " + std::to_string(*m_severity);
        return sql;
    }

    // Of the database: those up to it that did not pass are not asked again.
    static bool FindNewest(VexCore::SqliteConnection& db, std::optional<Event>& newest)
    {
        VexCore::SqliteStatement row(db, (std::string(selectEvents) + " ORDER BY id DESC LIMIT 1").c_str());
        const auto result = row.Step();
        newest.reset();
        if (result == VexCore::SqliteStatement::StepResult::Row)
            newest = EventOf(row);
        return result != VexCore::SqliteStatement::StepResult::Failed;
    }

    // What is in the database behind the last event that was shown, a part at a time.
    struct Part
    {
        std::string database; // empty: there is none
        bool isAnother = false; // than the one in which the last event was
        std::vector<Event> events;
        bool isLast = true;
        std::optional<Event> newest; // with the last part, where there is one
    };

    Part ReadPart()
    {
        const std::string sql = std::string(selectEvents) + " WHERE id > ?1" + Condition() + " ORDER BY id LIMIT ?2";
        Part part;
        const bool isThere = m_database.Read([&](VexCore::SqliteConnection& db) {
            part = Part();
            part.database = DatabaseName(m_database.Identity());
            bool stands = true;
            if (!StandsIn(db, stands))
                return false;
            part.isAnother = !stands;
            if (part.isAnother)
                return true;
            VexCore::SqliteStatement rows(db, sql.c_str());
            rows.Bind(1, m_position.id);
            rows.Bind(2, partRows);
            auto result = rows.Step();
            for (; result == VexCore::SqliteStatement::StepResult::Row; result = rows.Step())
                part.events.push_back(EventOf(rows));
            part.isLast = part.events.size() < static_cast<std::size_t>(partRows);
            return result == VexCore::SqliteStatement::StepResult::Done
                   && (!part.isLast || FindNewest(db, part.newest));
        });
        return isThere ? part : Part(); // a reading that was rejected before the file went does not count
    }

    void ShowAll()
    {
        for (;;) {
            const Part part = ReadPart();
            if (part.database.empty())
                return;
            if (part.isAnother || (part.database != m_position.database && HasEventsAside())) {
                GoOnInAnother(part.database);
                continue;
            }
            m_position.database = part.database;
            if (TellsVersion() && !part.events.empty())
                m_source.version = m_version.Load(); // another agent may run by now
            for (const Event& event : part.events)
                Show(event);
            if (part.newest)
                StandBehind(*part.newest);
            Remember();
            if (part.isLast)
                return;
        }
    }

    void StandBehind(const Event& event)
    {
        m_position.id = event.id;
        m_position.key = event.Key();
    }

    void Remember()
    {
        if (!m_state)
            return;
        m_session.out.Flush();
        m_state->Set(m_position);
    }

    // With a state file each event is on its way before that tells so.
    void Show(const Event& event)
    {
        if (HumanReads())
            ShowForPeople(event);
        else if (m_socket)
            m_socket->Send(LineOf(event));
        else
            m_session.out.Write(LineOf(event) += '\n');
        StandBehind(event);
        Remember();
    }

    std::string LineOf(const Event& event) const
    {
        if (m_options.xml)
            return XmlText(event.xml);
        if (m_options.format == "otlp")
            return OtlpLine(event, m_source, VexCore::TimeNowMillis());
        if (m_options.format == "syslog")
            return SyslogRecord(event, m_source);
        return JsonLine(event);
    }

    void ShowForPeople(const Event& event)
    {
        char head[80];
        const std::string time = event.timeMs ? LocalTime(*event.timeMs) : "-";
        const std::string number = event.number ? std::to_string(*event.number) : "-";
        std::snprintf(head, sizeof head, "%-19s  %-9s  %6s  ", time.c_str(), SeverityWord(event), number.c_str());
        Print(head + Shown(event.text), ColourOf(event));
    }

    void Print(const std::string& line, Colour colour)
    {
        Output& out = m_session.out;
        out.Write(out.Painted(colour, out.Width() > 0 ? CutToColumns(line, out.Width()) : line) + "\n");
    }

    static Colour ColourOf(const Event& event)
    {
        if (!event.severity || *event.severity > 4)
            return Colour::None;
        return *event.severity == 4 ? Colour::Warning : Colour::Bad;
    }

    // Events that the database has not taken yet: they come when it does.
    void TellWhatWaits()
    {
        const std::string path = m_session.place.PendingEventsFile();
        const VexCore::os::Descriptor file(VexCore::os::Open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY));
        if (!file) {
            if (VexCore::os::LastError() != ENOENT)
                m_session.Note(path + ": " + VexCore::os::ErrorText(VexCore::os::LastError()));
            return;
        }
        struct stat status = {};
        if (VexCore::os::FStat(file.Get(), status) != 0 || !S_ISREG(status.st_mode)) {
            m_session.Note(path + " is no regular file");
            return;
        }
        LineReader lines(file.Get(), 0);
        std::string_view line;
        std::size_t waiting = 0;
        while (lines.Next(line))
            waiting += line.substr(0, 8) == "<pending" ? 1 : 0;
        if (waiting > 0)
            m_session.Note(std::to_string(waiting) + " more wait in " + path + " until the database takes them");
    }

    Session& m_session;
    const EventOptions m_options;
    AgentDatabase m_database;
    AgentVersion m_version;
    const std::optional<std::int64_t> m_sinceMs, m_untilMs;
    std::optional<int> m_severity;
    EventSource m_source;
    std::optional<EventSocket> m_socket;
    std::optional<EventState> m_state;
    EventPosition m_position; // of the last event that was shown
    bool m_isAsideTold = false; // that what was moved aside cannot be seen
    std::string m_toldReplaced; // the database of whose begin a note told while those before it are not through
    std::set<std::string> m_troubles; // why the database could not be read since it could be, each once
};

} // namespace

Body AddEvents(Options& options)
{
    const auto asked = std::make_shared<EventOptions>();
    options.Flag("-f,--follow", asked->follow, "Go on with the events to come");
    const Option number =
        options.Count("-n,--number", asked->number,
                      "Only the last so many events; 0: all. Without it 100, with --since or --until all");
    options.Text("--severity", asked->severity, "Only events that are at least so grave: 3 or error has 0, 1 and 2 too")
        .Check(WhyNoSeverity)
        .Type("SEVERITY");
    asked->span.AddTo(options);
    const Option after =
        options.Text("--after", asked->after, "All events behind the one of this key, which --json shows").Type("KEY");
    const Option json = options.Flag("--json", asked->json, "One JSON object an event, as --format=json");
    const Option xml =
        options.Flag("--xml", asked->xml, "One XML element an event, as the agent wrote it").Excludes(json);
    options
        .Text("--format", asked->format,
              "One line an event for a collector: an object of JSON, LogsData of OpenTelemetry, or RFC 5424")
        .OneOf({"json", "otlp", "syslog"})
        .Excludes(json)
        .Excludes(xml);
    options.Text("--socket", asked->socket, "With --format=syslog: to this local socket, such as /dev/log")
        .Type("PATH");
    options
        .Text(
            "--state", asked->state,
            "Begin where this file says that the last run stood, with all events where there is none yet, and keep it")
        .Type("FILE")
        .Excludes(after)
        .Excludes(number);
    return [asked](Session& session) {
        if (!asked->socket.empty() && asked->format != "syslog")
            throw Failure("--socket goes with --format=syslog alone");
        if (!asked->state.empty() && asked->span.Given())
            throw Failure("--state begins where the last run stood: --since and --until do not go with it");
        return EventCommand(session, *asked).Run();
    };
}

} // namespace Vexctl
