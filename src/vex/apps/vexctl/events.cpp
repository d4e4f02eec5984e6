// vexctl events: what the agent's database of events holds, the oldest first, and in the end what is to come.

#include "vex/apps/vexctl/agent_database.h"
#include "vex/apps/vexctl/agent_log.h"
#include "vex/apps/vexctl/command.h"
#include "vex/apps/vexctl/event_history.h"
#include "vex/apps/vexctl/event_key.h"
#include "vex/apps/vexctl/json_text.h"
#include "vex/apps/vexctl/options.h"
#include "vex/apps/vexctl/os/watch.h"
#include "vex/apps/vexctl/shown_text.h"
#include "vex/apps/vexctl/times.h"

#include "vex_core/base/utf8.h"
#include "vex_core/os/descriptor.h"
#include "vex_core/os/error.h"
#include "vex_core/os/files.h"

#include <algorithm>
#include <cerrno>
#include <memory>

#include <fcntl.h>

namespace Vexctl {

namespace {
constexpr std::size_t usualEvents = 100;

struct EventOptions
{
    bool follow = false;
    bool json = false;
    bool xml = false;
    std::optional<std::size_t> number; // 0: all
    std::string severity;
    std::string after;
    TimeSpan span;
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
          m_sinceMs(options.span.SinceMs()), m_untilMs(options.span.UntilMs())
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
        ShowTitles();
        if (!m_options.after.empty())
            BeginAfter(m_options.after);
        else
            BeginAtLast();
        ShowAll();
        TellWhatWaits();
        while (watch) {
            m_session.out.Flush();
            if (watch->Wait(m_session.out.Descriptor(), -1) == os::FolderWatch::Woken::ReaderGone)
                throw ReaderGone();
            m_database.Read([this](VexCore::SqliteConnection& db) { return CheckAnchor(db); });
            ShowAll();
        }
        return statusDone;
    }

private:
    static constexpr std::int64_t partRows = 500;
    static constexpr std::int64_t manyRows = 10000;

    bool LookForWorkFolder() const
    {
        struct stat status = {};
        return VexCore::os::Stat(m_session.place.workFolder.c_str(), status) == 0;
    }

    bool HumanReads() const { return !m_options.json && !m_options.xml; }

    void ShowTitles()
    {
        if (HumanReads())
            Print("TIME                 SEVERITY   NUMBER  TEXT", Colour::Faint);
    }

    // --- where to begin

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
        m_database.Read([&](VexCore::SqliteConnection& db) {
            std::optional<Event> event;
            const bool read = FindEventByStoredKey(db, key, event);
            m_last = event ? event->id : 0;
            m_lastKey = event ? key : std::string();
            isGone = !event;
            return read;
        });
        if (isGone)
            m_session.Note("the event of that key is not in " + m_database.Path()
                           + ": it was too old, or the database has been replaced; all events that are there follow");
    }

    // Such an event is found by its id, and known by its key: in another database its id may be another event's. Then
    // nothing of that one has been shown.
    void BeginAfterId(std::int64_t id, const std::string& key)
    {
        m_last = id;
        m_lastKey = key;
        bool replaced = false;
        m_database.Read([this, &replaced](VexCore::SqliteConnection& db) {
            const std::int64_t before = m_last;
            const bool read = CheckAnchor(db);
            replaced = m_last != before;
            return read;
        });
        if (replaced)
            m_session.Note("the event of that key is not in " + m_database.Path()
                           + ", which has been replaced: all its events follow");
    }

    // Goes back to the begin where the last event that was shown is not this database's.
    bool CheckAnchor(VexCore::SqliteConnection& db)
    {
        if (m_lastKey.empty())
            return true; // nothing was shown yet
        std::optional<Event> event, newest;
        if (!FindEventById(db, m_last, event) || !FindNewest(db, newest))
            return false;
        const bool isOther = event && !event->HasKey(m_lastKey);
        // One that is gone has gone because of its age, unless all that are there came before it.
        const bool isBeyond = !event && (!newest || newest->id < m_last);
        if (isOther || isBeyond) {
            m_last = 0;
            m_lastKey.clear();
        }
        return true;
    }

    void BeginAtLast()
    {
        const bool isWhole = m_options.span.Given() && !m_options.number;
        const std::size_t number = m_options.number.value_or(isWhole ? 0 : usualEvents);
        m_database.Read([this, number](VexCore::SqliteConnection& db) {
            m_last = 0;
            const bool areMany = !m_sinceMs || HasManySince(db);
            // The last ones of many are near the end, so that they are found from there.
            const bool fromTheEnd = areMany && (number > 0 || !m_sinceMs);
            return (fromTheEnd || BeginAtTime(db, areMany)) && (number == 0 || BeginAtNumber(db, number));
        });
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
        m_last = first.ColumnInt(0);
        return true;
    }

    bool BeginAtNumber(VexCore::SqliteConnection& db, std::size_t number)
    {
        const std::string sql =
            "SELECT id FROM agent_event WHERE id > ?1" + Condition() + " ORDER BY id DESC LIMIT 1 OFFSET ?2";
        VexCore::SqliteStatement row(db, sql.c_str());
        row.Bind(1, m_last);
        row.Bind(2, static_cast<std::int64_t>(std::min<std::size_t>(number - 1, INT64_MAX)));
        const auto result = row.Step();
        if (result == VexCore::SqliteStatement::StepResult::Row)
            m_last = row.ColumnInt(0) - 1;
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

    void ShowAll()
    {
        std::optional<Event> newest;
        const std::string sql = std::string(selectEvents) + " WHERE id > ?1" + Condition() + " ORDER BY id LIMIT ?2";
        for (;;) {
            std::vector<Event> part;
            m_database.Read([&](VexCore::SqliteConnection& db) {
                part.clear();
                VexCore::SqliteStatement rows(db, sql.c_str());
                rows.Bind(1, m_last);
                rows.Bind(2, partRows);
                auto result = rows.Step();
                for (; result == VexCore::SqliteStatement::StepResult::Row; result = rows.Step())
                    part.push_back(EventOf(rows));
                const bool isAll = part.size() < static_cast<std::size_t>(partRows);
                return result == VexCore::SqliteStatement::StepResult::Done && (!isAll || FindNewest(db, newest));
            });
            for (const Event& event : part)
                Show(event);
            if (part.size() < static_cast<std::size_t>(partRows))
                break;
            m_last = part.back().id;
            m_lastKey = part.back().Key();
        }
        if (newest) {
            m_last = newest->id;
            m_lastKey = newest->Key();
        }
    }

    void Show(const Event& event)
    {
        Output& out = m_session.out;
        if (m_options.xml) {
            out.Write(XmlText(event.xml) + "\n");
        } else if (m_options.json) {
            out.Write(JsonText(JsonOf(event)) + "\n");
        } else {
            char head[80];
            const std::string time = event.timeMs ? LocalTime(*event.timeMs) : "-";
            const std::string number = event.number ? std::to_string(*event.number) : "-";
            std::snprintf(head, sizeof head, "%-19s  %-9s  %6s  ", time.c_str(), SeverityWord(event), number.c_str());
            Print(head + Shown(event.text), ColourOf(event));
        }
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
    const std::optional<std::int64_t> m_sinceMs, m_untilMs;
    std::optional<int> m_severity;
    std::int64_t m_last = 0; // the id of the last event that was shown, or of the one before the first; 0: none
    std::string m_lastKey; // of the one that was shown; empty for the one before the first
};

} // namespace

Body AddEvents(Options& options)
{
    const auto asked = std::make_shared<EventOptions>();
    options.Flag("-f,--follow", asked->follow, "Go on with the events to come");
    options.Count("-n,--number", asked->number,
                  "Only the last so many events; 0: all. Without it 100, with --since or --until all");
    options.Text("--severity", asked->severity, "Only events that are at least so grave: 3 or error has 0, 1 and 2 too")
        .Check(WhyNoSeverity)
        .Type("SEVERITY");
    asked->span.AddTo(options);
    options.Text("--after", asked->after, "All events behind the one of this key, which --json shows").Type("KEY");
    const Option json = options.Flag("--json", asked->json, "One JSON object an event");
    options.Flag("--xml", asked->xml, "One XML element an event, as the agent wrote it").Excludes(json);
    return [asked](Session& session) { return EventCommand(session, *asked).Run(); };
}

} // namespace Vexctl
