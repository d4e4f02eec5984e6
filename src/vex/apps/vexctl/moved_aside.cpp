// A damaged database is read row by row. Where a row cannot be read, the next one that can is looked for from the other
// end, so that what lies behind the damage is found.

#include "vex/apps/vexctl/moved_aside.h"

#include "vex_core/os/error.h"
#include "vex_core/os/files.h"
#include "vex_core/os/folders.h"

#include <algorithm>
#include <cerrno>
#include <tuple>

namespace Vexctl {

namespace {
using Statement = VexCore::SqliteStatement;

// Each gap costs a way through all that lies behind it.
constexpr int maxGaps = 1000;

// The time and the number behind it, of "...-TIME" and "...-TIME-N".
struct Moved
{
    std::int64_t time = 0, number = 0;
};

bool TakeNumber(std::string_view& text, std::int64_t& number)
{
    const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
    if (digits == 0 || digits > 18)
        return false;
    number = std::stoll(std::string(text.substr(0, digits)));
    text.remove_prefix(digits);
    return true;
}

std::optional<Moved> MovedOf(std::string_view name, const std::string& begin)
{
    Moved moved;
    if (name.substr(0, begin.size()) != begin)
        return std::nullopt;
    name.remove_prefix(begin.size());
    if (!TakeNumber(name, moved.time))
        return std::nullopt;
    if (name.empty())
        return moved;
    if (name[0] != '-')
        return std::nullopt;
    name.remove_prefix(1);
    return TakeNumber(name, moved.number) && name.empty() ? std::optional(moved) : std::nullopt;
}

class DamagedDatabase
{
public:
    explicit DamagedDatabase(const std::string& path) : m_path(path)
    {
        // With its write-ahead log, where it has one.
        struct stat status = {};
        const bool hasLog = VexCore::os::Stat((m_path + "-wal").c_str(), status) == 0 && status.st_size > 0;
        if (Open(!hasLog))
            return;
        if (hasLog && (m_db.FailedByRights() || m_db.FailedByContent()) && Open(true))
            m_gap = "its write-ahead log cannot be read: " + m_db.Error();
        else
            ExpectDamage();
    }

    // Of the position's event; see IsDatabaseOf.
    bool IsOf(const EventPosition& position, bool isSameFile)
    {
        std::optional<Event> event;
        if (m_db.IsOpen() && FindEventById(m_db, position.id, event)) {
            if (event)
                return event->HasKey(position.key);
            // One that is gone has gone because of its age, unless all that are there came before it.
            Statement last(m_db, "SELECT max(id) FROM agent_event");
            if (last.Step() == Statement::StepResult::Row)
                return isSameFile && last.ColumnInt(0) > position.id;
        }
        ExpectDamage();
        return isSameFile;
    }

    std::optional<std::string> Read(std::int64_t after, const std::string& condition,
                                    const std::function<void(const Event&)>& take)
    {
        m_last = after;
        if (!m_db.IsOpen())
            return Lost();
        std::optional<std::string> gap = m_gap;
        for (int gaps = 0; gaps < maxGaps; ++gaps) {
            if (TakeRows(condition, take))
                return gap;
            ExpectDamage();
            if (!gap)
                gap = Lost();
            const std::int64_t next = FindNext(condition);
            if (next == 0)
                break;
            // Where the next one is the one that failed, it is passed over.
            m_last = next == m_last + 1 ? next : next - 1;
        }
        return gap;
    }

private:
    std::string Lost() const
    {
        return "what lies behind event " + std::to_string(m_last)
               + " cannot be read, or not all of it: " + m_db.Error();
    }

    // SQLite looks at neither the file nor its log before something is asked.
    bool Open(bool asItIs)
    {
        if (!m_db.OpenForReading(m_path, asItIs))
            return false;
        if (Statement(m_db, "SELECT 1 FROM sqlite_master LIMIT 1").Step() != Statement::StepResult::Failed)
            return true;
        m_db.Close();
        return false;
    }

    // The last failure is one of what is in the file, or the file has gone.
    void ExpectDamage() const
    {
        struct stat status = {};
        const bool isGone = VexCore::os::Stat(m_path.c_str(), status) != 0 && VexCore::os::LastError() == ENOENT;
        if (!isGone && !m_db.FailedByContent())
            throw Failure(m_path + " cannot be read: " + m_db.Error()
                          + ". Its events come before those of the database that took its place; where it stays like "
                            "this, allow vexctl to read it, or move it elsewhere to go on without it");
    }

    // Up to the first that cannot be read. True: to the end.
    bool TakeRows(const std::string& condition, const std::function<void(const Event&)>& take)
    {
        const std::string sql = std::string(selectEvents) + " WHERE id > ?1" + condition + " ORDER BY id";
        Statement rows(m_db, sql.c_str());
        rows.Bind(1, m_last);
        for (;;) {
            const auto result = rows.Step();
            if (result != Statement::StepResult::Row)
                return result == Statement::StepResult::Done;
            const Event event = EventOf(rows);
            m_last = event.id;
            take(event);
        }
    }

    // The lowest id behind the last that is reached from the end; 0: none is. Of those that are wanted, because to step
    // over one that is not would cost a way each.
    std::int64_t FindNext(const std::string& condition)
    {
        const std::string sql = "SELECT id FROM agent_event WHERE id > ?1" + condition + " ORDER BY id DESC";
        Statement rows(m_db, sql.c_str());
        rows.Bind(1, m_last);
        std::int64_t next = 0;
        auto result = rows.Step();
        for (; result == Statement::StepResult::Row; result = rows.Step())
            next = rows.ColumnInt(0);
        if (result == Statement::StepResult::Failed)
            ExpectDamage();
        return next;
    }

    const std::string m_path;
    VexCore::SqliteConnection m_db; // closed where nothing can be read
    std::optional<std::string> m_gap; // what cannot be read of the whole
    std::int64_t m_last = 0;
};

} // namespace

std::string DatabaseName(const VexCore::os::FileIdentity& identity)
{
    return std::to_string(identity.device) + ":" + std::to_string(identity.inode);
}

std::vector<MovedAside> FindMovedAside(const std::string& databasePath)
{
    const std::size_t nameAt = databasePath.rfind('/') + 1;
    const std::string folder = databasePath.substr(0, nameAt);
    const std::string begin = databasePath.substr(nameAt) + ".damaged-";
    std::vector<std::pair<Moved, MovedAside>> found;
    const auto look = [&](const char* name) {
        const std::optional<Moved> moved = MovedOf(name, begin);
        struct stat status = {};
        const std::string path = folder + name;
        if (moved && VexCore::os::LStat(path.c_str(), status) == 0 && S_ISREG(status.st_mode))
            found.push_back({*moved, {name, path, DatabaseName(VexCore::os::IdentityOf(status))}});
        return true;
    };
    if (VexCore::os::ListFolder(folder.c_str(), look) < 0) {
        const int error = VexCore::os::LastError();
        const std::string text = folder + ": " + VexCore::os::ErrorText(error);
        if (error == EACCES)
            throw FolderNotListed(text);
        throw Failure(text);
    }
    std::sort(found.begin(), found.end(), [](const auto& one, const auto& other) {
        return std::tie(one.first.time, one.first.number) < std::tie(other.first.time, other.first.number);
    });
    std::vector<MovedAside> all;
    for (auto& each : found)
        all.push_back(std::move(each.second));
    return all;
}

bool IsDatabaseOf(const MovedAside& moved, const EventPosition& position)
{
    const bool isSameFile = moved.database == position.database;
    return position.key.empty() ? isSameFile : DamagedDatabase(moved.path).IsOf(position, isSameFile);
}

std::optional<std::string> ReadDamaged(const std::string& path, std::int64_t after, const std::string& condition,
                                       const std::function<void(const Event&)>& take)
{
    return DamagedDatabase(path).Read(after, condition, take);
}

} // namespace Vexctl
