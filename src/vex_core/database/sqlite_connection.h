#pragma once
// SQLite connections and statements that close themselves. Results are told by return values; nothing throws
// but std::bad_alloc.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

struct sqlite3;
struct sqlite3_stmt;

namespace VexCore {

namespace os {
class GuardedPlace;
}

/// The synchronous setting by which a change is on stable storage when its transaction is committed.
constexpr std::int64_t fullSynchronous = 2;

/// What `CSqliteDatabase::InitializeSQLite` found in the domain for connections to come. docs/SETTINGS.md, "Databases".
struct SqliteSettings
{
    std::optional<std::int64_t> cacheSize; ///< pages, or KiB when negative
    std::optional<std::int64_t> journalSizeLimit; ///< bytes, -1: none
    std::int64_t busyTimeoutMs = 2000;
    std::int64_t synchronous = fullSynchronous; ///< 0 off, 1 normal, 2 full, 3 extra
};

/// Of the process. Any thread.
SqliteSettings GetSqliteSettings();
void SetSqliteSettings(const SqliteSettings& settings);

/// The journal mode for a version of SQLite. Before 3.51.3 a write-ahead log can be damaged when two
/// connections write at once.
const char* JournalModeFor(int libraryVersion);

/// One connection. One thread at a time.
class SqliteConnection
{
public:
    SqliteConnection() = default;
    SqliteConnection(SqliteConnection&& other) noexcept : m_handle(std::move(other.m_handle)) {}
    SqliteConnection& operator=(SqliteConnection&& other) noexcept = default;

    /// Opens the file, made when it is missing, and applies the process's settings, with `minSynchronous` at
    /// least. `vfs` is SQLite's own where it is null. False: see `Error`, and the connection is closed.
    bool Open(const std::string& path, std::int64_t minSynchronous, const char* vfs = nullptr);
    /// The same for a file below the work folder, only when nobody else can have made it what it is. The file and what
    /// SQLite puts beside it are for the owner alone.
    bool Open(os::GuardedPlace& place, std::int64_t minSynchronous, const char* vfs = nullptr);
    /// Sees to it that the file and what SQLite puts beside it are there for us alone, or not there. False: `place`
    /// tells why.
    static bool Settle(os::GuardedPlace& place);
    /// Opens a file of another process, to read and nothing else: neither the file nor one beside it is made or
    /// written. With `asItIs` no lock is taken and no journal looked at, so that its owner never waits for us; whether
    /// what was read is whole is for the caller to find out.
    bool OpenForReading(const std::string& path, bool asItIs);
    void Close();
    /// Forgets the connection without touching the file: in a child that inherited it through fork.
    void Abandon();
    bool IsOpen() const { return m_handle != nullptr; }

    /// Runs statements that give no rows.
    bool Exec(const char* sql);
    std::int64_t LastInsertId() const;
    /// How many rows the last statement changed.
    int Changes() const;

    /// SQLite's extended result code of the last failure, and its text.
    int ErrorCode() const { return m_errorCode; }
    const std::string& Error() const { return m_error; }
    /// Whether that failure is about what the file holds, so that it stays as long as the file does. Any other, of the
    /// disk, of descriptors or of somebody's lock, may be over at the next try.
    bool FailedByContent() const;
    /// Whether it is about a right to the file, or to one beside it, which may only be missing. True as well where the
    /// file itself has gone.
    bool FailedByRights() const;

    sqlite3* Handle() const { return m_handle.get(); }

private:
    friend class SqliteStatement;
    bool Open(const std::string& path, int flags, std::int64_t minSynchronous, const char* vfs);
    bool Fail(int code);

    struct Closer
    {
        void operator()(sqlite3* handle) const;
    };
    std::unique_ptr<sqlite3, Closer> m_handle;
    int m_errorCode = 0;
    int m_systemError = 0; // where the failure was the system's
    std::string m_error;
};

/// A prepared statement of a connection, which must outlive it.
class SqliteStatement
{
public:
    enum class StepResult { Row, Done, Failed };

    /// The first statement of `sql`; `rest`, where given, gets what follows it. A failure shows in the first `Step`.
    SqliteStatement(SqliteConnection& db, const char* sql, const char** rest = nullptr);

    /// False when SQLite did not take the text: the connection's error tells why.
    bool Prepared() const { return m_failure == 0; }
    /// Null where the text was not taken, or nothing but blanks and comments.
    sqlite3_stmt* Handle() const { return m_statement.get(); }

    /// Parameters and columns count as SQLite counts them: parameters from 1, columns from 0.
    void Bind(int parameter, std::int64_t value);
    /// The text must live until the statement is stepped and reset.
    void Bind(int parameter, const std::string& text);
    void Bind(int parameter, std::string&& text) = delete;
    void Bind(int parameter, const std::optional<std::int64_t>& value);
    void Bind(int parameter, const std::optional<std::string>& text);

    StepResult Step();
    void Reset();

    std::int64_t ColumnInt(int column) const;
    std::string ColumnText(int column) const;
    bool ColumnIsNull(int column) const;
    /// False, too, where the statement has no such column.
    bool ColumnHasName(int column, const char* name) const;

private:
    struct Finalizer
    {
        void operator()(sqlite3_stmt* statement) const;
    };
    SqliteConnection& m_db;
    std::unique_ptr<sqlite3_stmt, Finalizer> m_statement;
    int m_failure = 0;
};

/// Begins a transaction that will write; rolls back what was not committed.
class SqliteTransaction
{
public:
    explicit SqliteTransaction(SqliteConnection& db);
    ~SqliteTransaction();
    SqliteTransaction(const SqliteTransaction&) = delete;
    SqliteTransaction& operator=(const SqliteTransaction&) = delete;

    bool Begun() const { return m_open; }
    /// True: what was written is on stable storage, as the synchronous setting says.
    bool Commit();

private:
    SqliteConnection& m_db;
    bool m_open;
};

} // namespace VexCore
