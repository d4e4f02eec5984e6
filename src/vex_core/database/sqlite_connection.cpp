// Each connection takes the process's settings over when it is opened. Errors are kept in the connection for its owner,
// who logs them or not; only the owner knows what they mean.

#include "vex_core/database/sqlite_connection.h"

#include "vex_core/os/guarded_place.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>

#include <sqlite3.h>

namespace VexCore {

// --- settings of the process

namespace {
std::mutex g_settingsLock;
SqliteSettings g_processSettings; // guarded by g_settingsLock

} // namespace

SqliteSettings GetSqliteSettings()
{
    const std::lock_guard lock(g_settingsLock);
    return g_processSettings;
}

void SetSqliteSettings(const SqliteSettings& settings)
{
    const std::lock_guard lock(g_settingsLock);
    g_processSettings = settings;
}

const char* JournalModeFor(int libraryVersion)
{
    return libraryVersion >= 3051003 ? "WAL" : "TRUNCATE";
}

// --- connections

void SqliteConnection::Closer::operator()(sqlite3* handle) const
{
    sqlite3_close_v2(handle);
}

bool SqliteConnection::Fail(int code)
{
    m_errorCode = code;
    m_systemError = m_handle ? sqlite3_system_errno(m_handle.get()) : 0;
    m_error = m_handle && sqlite3_extended_errcode(m_handle.get()) == code ? sqlite3_errmsg(m_handle.get())
                                                                           : sqlite3_errstr(code);
    return false;
}

bool SqliteConnection::FailedByContent() const
{
    switch (m_errorCode & 0xFF) {
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
    case SQLITE_ERROR: // a table or column that is not there
    case SQLITE_TOOBIG: // the size of a row that is damaged
        return true;
    default:
        return m_errorCode == SQLITE_IOERR_CORRUPTFS;
    }
}

bool SqliteConnection::FailedByRights() const
{
    const int primary = m_errorCode & 0xFF;
    if (primary != SQLITE_CANTOPEN)
        return primary == SQLITE_READONLY || primary == SQLITE_PERM;
    // What may not be made beside the file SQLite looks for once more, to read it, and has the error of that.
    return m_systemError == EACCES || m_systemError == EPERM || m_systemError == EROFS || m_systemError == ENOENT;
}

bool SqliteConnection::Open(const std::string& path, std::int64_t minSynchronous, const char* vfs)
{
    return Open(path, SQLITE_OPEN_CREATE, minSynchronous, vfs);
}

bool SqliteConnection::Settle(os::GuardedPlace& place)
{
    // SQLite gives what it makes beside the file the file's own mode.
    return place.SettleFile({"-journal", "-wal", "-shm"});
}

bool SqliteConnection::Open(os::GuardedPlace& place, std::int64_t minSynchronous, const char* vfs)
{
    // The file is there by now, for its owner alone; one that SQLite made would not be. But what a statement attaches
    // is opened as this one is, and may be new: where such statements come from, `vfs` is another, which sees to that.
    if (Settle(place))
        return Open(place.RealPath(), SQLITE_OPEN_NOFOLLOW | (vfs ? SQLITE_OPEN_CREATE : 0), minSynchronous, vfs);
    Close();
    m_errorCode = SQLITE_CANTOPEN;
    m_error = place.Reason();
    return false;
}

bool SqliteConnection::Open(const std::string& path, int flags, std::int64_t minSynchronous, const char* vfs)
{
    Close();
    sqlite3* handle = nullptr;
    const int result = sqlite3_open_v2(path.c_str(), &handle, SQLITE_OPEN_READWRITE | flags, vfs);
    m_handle.reset(handle); // there is one after a failure too
    if (result != SQLITE_OK) {
        Fail(handle ? sqlite3_extended_errcode(handle) : result);
        Close();
        return false;
    }
    sqlite3_extended_result_codes(handle, 1);
    const SqliteSettings settings = GetSqliteSettings();
    sqlite3_busy_timeout(handle, static_cast<int>(settings.busyTimeoutMs));
    std::string sql = "PRAGMA trusted_schema=OFF; PRAGMA synchronous="
                      + std::to_string(std::max(settings.synchronous, minSynchronous)) + ";";
    if (settings.cacheSize)
        sql += "PRAGMA cache_size=" + std::to_string(*settings.cacheSize) + ";";
    if (settings.journalSizeLimit)
        sql += "PRAGMA journal_size_limit=" + std::to_string(*settings.journalSizeLimit) + ";";
    sql += std::string("PRAGMA journal_mode=") + JournalModeFor(sqlite3_libversion_number()) + ";";
    if (Exec(sql.c_str()))
        return true;
    Close();
    return false;
}

namespace {
// The path as SQLite's URIs have it.
std::string FileUri(const std::string& path)
{
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string uri = "file:";
    for (const char c : path) {
        const auto byte = static_cast<unsigned char>(c);
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '/'
                           || c == '.' || c == '-' || c == '_';
        if (plain)
            uri += c;
        else
            uri.append("%").append(1, digits[byte >> 4]).append(1, digits[byte & 15]);
    }
    return uri;
}

} // namespace

bool SqliteConnection::OpenForReading(const std::string& path, bool asItIs)
{
    Close();
    const std::string uri = FileUri(path) + (asItIs ? "?mode=ro&immutable=1" : "?mode=ro");
    sqlite3* handle = nullptr;
    const int result = sqlite3_open_v2(uri.c_str(), &handle, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, nullptr);
    m_handle.reset(handle);
    if (result != SQLITE_OK) {
        Fail(handle ? sqlite3_extended_errcode(handle) : result);
        Close();
        return false;
    }
    sqlite3_extended_result_codes(handle, 1);
    sqlite3_busy_timeout(handle, static_cast<int>(GetSqliteSettings().busyTimeoutMs));
    sqlite3_db_config(handle, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    if (Exec("PRAGMA trusted_schema=OFF"))
        return true;
    Close();
    return false;
}

void SqliteConnection::Close()
{
    m_handle.reset();
}

void SqliteConnection::Abandon()
{
    static_cast<void>(m_handle.release());
}

bool SqliteConnection::Exec(const char* sql)
{
    if (!m_handle)
        return Fail(SQLITE_MISUSE);
    const int result = sqlite3_exec(m_handle.get(), sql, nullptr, nullptr, nullptr);
    return result == SQLITE_OK || Fail(result);
}

std::int64_t SqliteConnection::LastInsertId() const
{
    return sqlite3_last_insert_rowid(m_handle.get());
}

int SqliteConnection::Changes() const
{
    return sqlite3_changes(m_handle.get());
}

// --- statements

void SqliteStatement::Finalizer::operator()(sqlite3_stmt* statement) const
{
    sqlite3_finalize(statement);
}

SqliteStatement::SqliteStatement(SqliteConnection& db, const char* sql, const char** rest) : m_db(db)
{
    sqlite3_stmt* statement = nullptr;
    m_failure = db.m_handle ? sqlite3_prepare_v2(db.m_handle.get(), sql, -1, &statement, rest) : SQLITE_MISUSE;
    m_statement.reset(statement);
    if (m_failure != SQLITE_OK)
        db.Fail(m_failure);
}

void SqliteStatement::Bind(int parameter, std::int64_t value)
{
    if (m_failure == SQLITE_OK)
        m_failure = sqlite3_bind_int64(m_statement.get(), parameter, value);
}

void SqliteStatement::Bind(int parameter, const std::string& text)
{
    if (m_failure == SQLITE_OK)
        m_failure =
            sqlite3_bind_text64(m_statement.get(), parameter, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
}

void SqliteStatement::Bind(int parameter, const std::optional<std::int64_t>& value)
{
    if (value)
        Bind(parameter, *value);
    else if (m_failure == SQLITE_OK)
        m_failure = sqlite3_bind_null(m_statement.get(), parameter);
}

void SqliteStatement::Bind(int parameter, const std::optional<std::string>& text)
{
    if (text)
        Bind(parameter, *text);
    else if (m_failure == SQLITE_OK)
        m_failure = sqlite3_bind_null(m_statement.get(), parameter);
}

SqliteStatement::StepResult SqliteStatement::Step()
{
    if (m_failure == SQLITE_OK) {
        const int result = sqlite3_step(m_statement.get());
        if (result == SQLITE_ROW)
            return StepResult::Row;
        if (result == SQLITE_DONE)
            return StepResult::Done;
        m_failure = result;
    }
    m_db.Fail(m_failure);
    return StepResult::Failed;
}

void SqliteStatement::Reset()
{
    sqlite3_reset(m_statement.get());
    m_failure = m_statement ? SQLITE_OK : m_failure;
}

std::int64_t SqliteStatement::ColumnInt(int column) const
{
    return sqlite3_column_int64(m_statement.get(), column);
}

std::string SqliteStatement::ColumnText(int column) const
{
    const unsigned char* text = sqlite3_column_text(m_statement.get(), column);
    if (!text)
        return std::string();
    return std::string(reinterpret_cast<const char*>(text),
                       static_cast<std::size_t>(sqlite3_column_bytes(m_statement.get(), column)));
}

bool SqliteStatement::ColumnIsNull(int column) const
{
    return sqlite3_column_type(m_statement.get(), column) == SQLITE_NULL;
}

bool SqliteStatement::ColumnHasName(int column, const char* name) const
{
    const char* const own = sqlite3_column_name(m_statement.get(), column);
    return own && std::strcmp(own, name) == 0;
}

// --- transactions

SqliteTransaction::SqliteTransaction(SqliteConnection& db) : m_db(db), m_open(db.Exec("BEGIN IMMEDIATE")) {}

SqliteTransaction::~SqliteTransaction()
{
    // After some failures SQLite has rolled back by itself, and a second roll-back would only replace the
    // error.
    if (m_open && m_db.IsOpen() && sqlite3_get_autocommit(m_db.Handle()) == 0)
        sqlite3_exec(m_db.Handle(), "ROLLBACK", nullptr, nullptr, nullptr);
}

bool SqliteTransaction::Commit()
{
    if (!m_open || !m_db.Exec("COMMIT"))
        return false;
    m_open = false;
    return true;
}

} // namespace VexCore
