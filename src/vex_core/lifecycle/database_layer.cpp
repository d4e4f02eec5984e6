// Start and end of the database layer. It stands above the room of connections, because its end concerns who has
// databases open, and threads that may be inside one. Main thread.

#include "vex/core/sqlitedb.h"

#include "vex/core/dom.h"
#include "vex_core/base/ascii.h"
#include "vex_core/base/text.h"
#include "vex_core/database/sqlite_connection.h"
#include "vex_core/domain/known_settings.h"
#include "vex_core/domain/settings.h"
#include "vex_core/lua/lua_db.h"
#include "vex_core/threads/ending.h"
#include "vex_core/threads/thread_registry.h"

#include <algorithm>
#include <string>

#include <sqlite3.h>

#include <wx/log.h>

namespace VexCore {

namespace {
constexpr char settingPrefix[] = "sqlite.config";

// One setting: its name after "sqlite.config." and what is done with a value in its range, which the table of settings
// has. False: the library does not take it.
struct SettingRule
{
    const char* name;
    bool (*apply)(std::int64_t value, SqliteSettings& settings);
};

bool ApplyMemstatus(std::int64_t value, SqliteSettings&)
{
    return sqlite3_config(SQLITE_CONFIG_MEMSTATUS, static_cast<int>(value)) == SQLITE_OK;
}

bool ApplyMmapSize(std::int64_t value, SqliteSettings&)
{
    const sqlite3_int64 size = value;
    const sqlite3_int64 noCap = -1; // the library's own limit stays
    return sqlite3_config(SQLITE_CONFIG_MMAP_SIZE, size, noCap) == SQLITE_OK;
}

bool ApplyCacheSize(std::int64_t value, SqliteSettings& settings)
{
    settings.cacheSize = value;
    return true;
}

bool ApplyBusyTimeout(std::int64_t value, SqliteSettings& settings)
{
    settings.busyTimeoutMs = value;
    return true;
}

bool ApplyJournalSizeLimit(std::int64_t value, SqliteSettings& settings)
{
    settings.journalSizeLimit = value;
    return true;
}

bool ApplySynchronous(std::int64_t value, SqliteSettings& settings)
{
    settings.synchronous = value;
    return true;
}

// Initialises the library, so it comes last.
bool ApplySoftHeapLimit(std::int64_t value, SqliteSettings&)
{
    return sqlite3_soft_heap_limit64(value) >= 0;
}

const SettingRule settingRules[] = {
    {"memstatus", ApplyMemstatus},
    {"mmap_size", ApplyMmapSize},
    {"cache_size", ApplyCacheSize},
    {"busy_timeout", ApplyBusyTimeout},
    {"journal_size_limit", ApplyJournalSizeLimit},
    {"synchronous", ApplySynchronous},
    {"soft_heap_limit", ApplySoftHeapLimit},
};

void WarnOfUnknownSettings(const CDom& dom)
{
    for (const std::string& key : dom.Keys("")) {
        if (!StartsWith(key, settingPrefix))
            continue;
        const bool known =
            std::any_of(std::begin(settingRules), std::end(settingRules), [&key](const SettingRule& rule) {
                return key == std::string(settingPrefix) + "." + rule.name;
            });
        if (!known)
            wxLogWarning("Unknown database setting '%s'", TextWithoutNul(key));
    }
}

} // namespace

bool CSqliteDatabase::InitializeSQLite(CDom* dom)
{
    SqliteSettings settings;
    if (dom) {
        for (const SettingRule& rule : settingRules) {
            const std::string key = std::string(settingPrefix) + "." + rule.name;
            std::int64_t value = 0;
            if (!dom->Has(key.c_str()))
                continue;
            const Setting* const known = FindSetting(key);
            if (!dom->Get(key.c_str(), value) || value < known->least || value > known->most
                || !rule.apply(value, settings))
                wxLogWarning("Database setting '%s' cannot be '%s'", wxString::FromUTF8(key.c_str()),
                             dom->GetWxString(key.c_str()));
        }
        WarnOfUnknownSettings(*dom);
        // The host calls this as the last of its start that is about settings, when all of them are known.
        WarnOfSettings(*dom);
    }
    SetSqliteSettings(settings);
    const int result = sqlite3_initialize();
    if (result != SQLITE_OK)
        wxLogError("The database library cannot be initialised (%s)", wxString::FromUTF8(sqlite3_errstr(result)));
    return result == SQLITE_OK;
}

namespace {
const EndStepOwner closeDatabases(EndStep::CloseDatabases, [] {
    // A thread that was left running may be inside SQLite, or go there, until the process ends.
    if (CloseLuaDatabases() && !OtherRunnablesRun())
        sqlite3_shutdown();
});

} // namespace

void CSqliteDatabase::ShutdownSQLite()
{
    TakeEndSteps(EndStretch::EndOfDatabases);
}

} // namespace VexCore
