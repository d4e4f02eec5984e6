// A damaged database is read row by row. Where a row cannot be read, the next one that can is looked for from the other
// end, so that what lies behind the damage is found.

#include "vex/apps/vexctl/moved_aside.h"

#include "vex/apps/vexctl/command.h"

#include "vex_core/os/error.h"
#include "vex_core/os/files.h"
#include "vex_core/os/folders.h"

#include <algorithm>
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
    DamagedDatabase(const std::string& path, std::int64_t after, const std::string& condition,
                    const std::function<void(const Event&)>& take)
        : m_path(path), m_last(after), m_condition(condition), m_take(take)
    {}

    std::optional<std::string> Read()
    {
        // With its write-ahead log, where it has one.
        struct stat status = {};
        const bool hasLog = VexCore::os::Stat((m_path + "-wal").c_str(), status) == 0 && status.st_size > 0;
        if (!m_db.OpenForReading(m_path, !hasLog) && !m_db.OpenForReading(m_path, true))
            return "nothing in it can be read: " + m_db.Error();
        std::optional<std::string> gap;
        for (int gaps = 0; gaps < maxGaps; ++gaps) {
            if (TakeRows())
                return gap;
            if (!gap)
                gap = "what lies behind event " + std::to_string(m_last)
                      + " cannot be read, or not all of it: " + m_db.Error();
            const std::int64_t next = FindNext();
            if (next == 0)
                break;
            // Where the next one is the one that failed, it is passed over.
            m_last = next == m_last + 1 ? next : next - 1;
        }
        return gap;
    }

private:
    // Up to the first that cannot be read. True: to the end.
    bool TakeRows()
    {
        const std::string sql = std::string(selectEvents) + " WHERE id > ?1" + m_condition + " ORDER BY id";
        Statement rows(m_db, sql.c_str());
        rows.Bind(1, m_last);
        for (;;) {
            const auto result = rows.Step();
            if (result != Statement::StepResult::Row)
                return result == Statement::StepResult::Done;
            const Event event = EventOf(rows);
            m_last = event.id;
            m_take(event);
        }
    }

    // The lowest id behind the last that is reached from the end; 0: none is.
    std::int64_t FindNext()
    {
        Statement rows(m_db, "SELECT id FROM agent_event WHERE id > ?1 ORDER BY id DESC");
        rows.Bind(1, m_last);
        std::int64_t next = 0;
        while (rows.Step() == Statement::StepResult::Row)
            next = rows.ColumnInt(0);
        return next;
    }

    const std::string m_path;
    std::int64_t m_last;
    const std::string m_condition;
    const std::function<void(const Event&)>& m_take;
    VexCore::SqliteConnection m_db;
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
    if (VexCore::os::ListFolder(folder.c_str(), look) < 0)
        throw Failure(folder + ": " + VexCore::os::ErrorText(VexCore::os::LastError()));
    std::sort(found.begin(), found.end(), [](const auto& one, const auto& other) {
        return std::tie(one.first.time, one.first.number) < std::tie(other.first.time, other.first.number);
    });
    std::vector<MovedAside> all;
    for (auto& each : found)
        all.push_back(std::move(each.second));
    return all;
}

std::optional<std::string> ReadDamaged(const std::string& path, std::int64_t after, const std::string& condition,
                                       const std::function<void(const Event&)>& take)
{
    return DamagedDatabase(path, after, condition, take).Read();
}

} // namespace Vexctl
