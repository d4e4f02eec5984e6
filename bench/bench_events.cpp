// Measures what an agent event costs in databases of a thousand to a million events: when all are kept, when an old one
// goes for each new one, and when nine in ten are too many; each against an event among a thousand that are all kept.
// Processor time, in turns, so that whatever else the machine does meets all alike. The databases lie in memory, where
// a flush costs nothing: what it costs is the disk's. So how often is counted for a hundred events at once.
//
//   bench_events [FOLDER [ROUNDS]]     FOLDER is where the databases are, by default /dev/shm

#include "figures.h"

#include "support/dom_ptr.h"
#include "support/joining_thread.h"
#include "support/sample_event.h"

#include "vex_core/events/agentevent_store.h"

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <sqlite3.h>
#include <time.h>
#include <unistd.h>
#include <wx/init.h>

using namespace VexCore;
namespace fs = std::filesystem;

namespace {
double Microseconds(clockid_t clock)
{
    timespec now = {};
    ::clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

CAgentEvent Event()
{
    CAgentEvent event = ::Test::SampleEvent("an event of a plugin that has much to tell");
    event.m_timeMillis = TimeNowMillis();
    return event;
}

// Rows as the store has written them, which would take a minute one after the other.
void AddRows(const std::string& folder, int rows)
{
    SqliteConnection db;
    const std::string sql = "WITH RECURSIVE n(i) AS (SELECT 2 UNION ALL SELECT i + 1 FROM n WHERE i < "
                            + std::to_string(rows)
                            + ") INSERT INTO agent_event(time_ms, time_s, number, severity, text, xml, key)"
                              " SELECT time_ms, time_s, number, severity, text, xml, printf('%012x', time_ms) || "
                              "lower(hex(randomblob(10))) FROM agent_event, n;";
    if (!db.Open(folder + "/events.db", 0) || !db.Exec(sql.c_str())) {
        std::fprintf(stderr, "bench_events: %s\n", db.Error().c_str());
        std::exit(2);
    }
}

class Database
{
public:
    Database(const fs::path& base, int rows) : m_rows(rows), m_folder((base / std::to_string(rows)).string())
    {
        fs::create_directory(m_folder);
        m_store = std::make_unique<EventStore>(m_folder);
        m_store->Write(Event());
        AddRows(m_folder, rows);
    }

    // What one of many events costs where so many are kept.
    double Measure(CDom& dom, std::int64_t keepRows)
    {
        dom.Set("app.events.keeprows", std::to_string(keepRows));
        constexpr int count = 48; // old ones go with three of them, or with none
        const double before = Microseconds(CLOCK_THREAD_CPUTIME_ID);
        for (int i = 0; i < count; ++i)
            if (m_store->Write(Event()) == 0)
                std::exit(2);
        return (Microseconds(CLOCK_THREAD_CPUTIME_ID) - before) / count;
    }

    int Rows() const { return m_rows; }

private:
    const int m_rows;
    const std::string m_folder;
    std::unique_ptr<EventStore> m_store;
};

// Whether an event costs about the same in all databases, whatever is kept of each: the rows' share of it.
bool Compare(const std::vector<std::unique_ptr<Database>>& databases, CDom& dom, int rounds, double share,
             const char* what)
{
    std::vector<std::vector<double>> smallest(databases.size());
    std::vector<std::vector<double>> times(databases.size());
    for (int round = 0; round < rounds; ++round)
        for (std::size_t i = 0; i < databases.size(); ++i) {
            smallest[i].push_back(databases[0]->Measure(dom, std::int64_t{1} << 40));
            times[i].push_back(databases[i]->Measure(dom, static_cast<std::int64_t>(databases[i]->Rows() * share)));
        }
    bool holds = true;
    for (std::size_t i = 1; i < databases.size(); ++i)
        holds = Bench::Row(("an event among " + std::to_string(databases[i]->Rows()) + what).c_str(), times[i],
                           "among 1000", smallest[i], "us", 1.3)
                && holds;
    return holds;
}

// Transactions that wrote: with full synchronous each is flushed, whatever the kind of the journal.
std::atomic<int> g_commits;

int CountCommit(void*)
{
    ++g_commits;
    return 0;
}

int WatchConnection(sqlite3* connection, char**, const sqlite3_api_routines*)
{
    sqlite3_commit_hook(connection, CountCommit, nullptr);
    return SQLITE_OK;
}

// How often a hundred events are flushed that come while the database is another's.
int FlushesOfAHundredAtOnce(const std::string& folder)
{
    constexpr int count = 100;
    fs::create_directory(folder);
    const SqliteSettings before = GetSqliteSettings();
    SqliteSettings settings = before;
    settings.busyTimeoutMs = 600'000; // longer than anybody has to wait
    SetSqliteSettings(settings);
    SqliteConnection other;
    if (!other.Open(folder + "/events.db", 0))
        std::exit(2);
    sqlite3_auto_extension(reinterpret_cast<void (*)()>(WatchConnection));
    EventStore store(folder);
    if (store.Write(Event()) == 0 || g_commits == 0 || !other.Exec("BEGIN IMMEDIATE"))
        std::exit(2);
    g_commits = 0;
    std::atomic<int> refused{0};
    std::vector<::Test::JoiningThread> threads;
    for (int i = 0; i < count; ++i)
        threads.emplace_back([&store, &refused] { refused += store.Write(Event()) == 0; });
    while (store.BeingWritten() < count)
        std::this_thread::yield();
    other.Exec("COMMIT");
    for (::Test::JoiningThread& thread : threads)
        thread.join();
    sqlite3_cancel_auto_extension(reinterpret_cast<void (*)()>(WatchConnection));
    SetSqliteSettings(before);
    if (refused > 0)
        std::exit(2);
    return g_commits;
}

} // namespace

int main(int argc, char** argv)
{
#ifndef __OPTIMIZE__
    std::puts("WARNING: this build is not optimised; the figures mean nothing");
#endif
    const wxInitializer framework;
    const fs::path base =
        fs::path(argc > 1 ? argv[1] : "/dev/shm") / ("vex_bench_events." + std::to_string(::getpid()));
    const int rounds = argc > 2 ? std::atoi(argv[2]) : 20;
    fs::create_directories(base);
    const ::Test::DomPtr dom = ::Test::NewRoot();
    bool holds = true;
    {
        std::vector<std::unique_ptr<Database>> databases;
        for (int rows = 1000; rows <= 1'000'000; rows *= 10)
            databases.push_back(std::make_unique<Database>(base, rows));
        for (const auto& [share, what] :
             {std::pair(1000.0, " that are all kept"), std::pair(1.0, " of which old ones go"),
              std::pair(0.1, " that are ten times too many")})
            holds = Compare(databases, *dom, rounds, share, what) && holds;
    }
    holds = Bench::Row("flushes of a hundred events at once", FlushesOfAHundredAtOnce((base / "at once").string()),
                       "one each", 100, "flushes", 0.05)
            && holds;
    fs::remove_all(base);
    return holds ? 0 : 1;
}
