// A database belongs to one Lua state, but the thread that ends the database layer closes those that are left open:
// hence a lock each and a list of all. Lua errors unwind C++ frames (Lua is built as C++), so statements and locks are
// let go of on every way out. What a connection is: database/sqlite_connection.h.

#include "vex_core/lua/lua_db.h"

#include "slb3/error.h"
#include "vex_core/database/sqlite_connection.h"
#include "vex_core/domain/work_folder.h"
#include "vex_core/events/agentevent_store.h"
#include "vex_core/lua/guarded_vfs.h"
#include "vex_core/lua/lua_arguments.h"

#include <cmath>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <set>
#include <string>

#include <sqlite3.h>

#include <lua.hpp>

namespace VexCore {
namespace {
using SLB3::internal::Guarded;

constexpr const char* typeName = "vex.db.Database";

// Its address tells a database from another userdata to which Lua's debug library gave the metatable of databases.
const char databaseTag = 0;

struct Database
{
    const void* tag = &databaseTag;
    SqliteConnection db;
    std::recursive_mutex inUse; // held by each call; a transaction's body calls again
    int statements = 0; // that run; guarded by inUse
};

std::mutex g_openLock;
std::set<Database*>& OpenDatabases() // guarded by g_openLock
{
    static auto* s_databases = new std::set<Database*>; // never destroyed: a state may be closed by a late exit
    return *s_databases;
}

// Null: the first argument is none.
Database* FindDatabase(lua_State* L)
{
    auto* const database = static_cast<Database*>(luaL_testudata(L, 1, typeName));
    return database && lua_rawlen(L, 1) >= sizeof(Database) && database->tag == &databaseTag ? database : nullptr;
}

Database& Receiver(lua_State* L)
{
    Database* const database = FindDatabase(L);
    if (!database)
        luaL_argerror(L, 1, lua_pushfstring(L, "%s expected, got %s", typeName, luaL_typename(L, 1)));
    return *database;
}

// The receiver of a call, open and kept open while the call runs.
class Self
{
public:
    explicit Self(lua_State* L) : m_database(Receiver(L)), m_inUse(m_database.inUse)
    {
        if (!m_database.db.IsOpen())
            luaL_error(L, "the database is closed");
    }

    SqliteConnection& Db() const { return m_database.db; }
    sqlite3* Handle() const { return m_database.db.Handle(); }

private:
    Database& m_database;
    const std::lock_guard<std::recursive_mutex> m_inUse;
};

// A statement that runs. Lua code may get a turn meanwhile, in a finaliser or in a metamethod of the parameters: it
// must not close the database under the statement.
class Running
{
public:
    explicit Running(Database& database) : m_database(database) { ++m_database.statements; }
    ~Running() { --m_database.statements; }
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;

private:
    Database& m_database;
};

int Failed(lua_State* L, const std::string& message)
{
    lua_pushnil(L);
    lua_pushlstring(L, message.data(), message.size());
    return 2;
}

int Failed(lua_State* L, const Self& self)
{
    return Failed(L, sqlite3_errmsg(self.Handle()));
}

using Statement = std::optional<SqliteStatement>;

// Binds the value on top. What SQLite answers is its error code.
int BindValue(lua_State* L, sqlite3_stmt* statement, int parameter)
{
    switch (lua_type(L, -1)) {
    case LUA_TNIL:
        return sqlite3_bind_null(statement, parameter);
    case LUA_TBOOLEAN:
        return sqlite3_bind_int(statement, parameter, lua_toboolean(L, -1));
    case LUA_TNUMBER: {
        const double number = lua_tonumber(L, -1);
        if (number == std::floor(number) && std::fabs(number) <= static_cast<double>(maxExactInteger))
            return sqlite3_bind_int64(statement, parameter, static_cast<sqlite3_int64>(number));
        return sqlite3_bind_double(statement, parameter, number);
    }
    case LUA_TSTRING: {
        std::size_t length = 0;
        const char* text = lua_tolstring(L, -1, &length);
        return sqlite3_bind_text64(statement, parameter, text, length, SQLITE_TRANSIENT, SQLITE_UTF8);
    }
    default:
        return luaL_error(L, "parameter %d: a %s cannot be stored", parameter, luaL_typename(L, -1));
    }
}

// Binds from the table at index 3: names for ":name", positions for "?" and "?5"; what it lacks is NULL.
bool BindAll(lua_State* L, sqlite3_stmt* statement)
{
    const int count = sqlite3_bind_parameter_count(statement);
    if (count == 0 || lua_isnoneornil(L, 3))
        return true;
    for (int parameter = 1; parameter <= count; ++parameter) {
        const char* name = sqlite3_bind_parameter_name(statement, parameter);
        if (name && *name != '?')
            lua_getfield(L, 3, name + 1); // without the sign
        else
            lua_rawgeti(L, 3, parameter);
        if (BindValue(L, statement, parameter) != SQLITE_OK)
            return false; // too long, or no memory: not to be stored as NULL
        lua_pop(L, 1);
    }
    return true;
}

// Prepares the first statement of `sql`, which then is what follows it. False: SQLite tells why. Blanks and comments
// alone make a statement without a handle.
bool Prepare(const Self& self, const char*& sql, Statement& statement)
{
    statement.emplace(self.Db(), sql, &sql);
    return statement->Prepared();
}

// The same for the next statement of several, passing over blanks and comments;
// none is left when `statement` stays empty.
bool PrepareNext(const Self& self, const char*& sql, Statement& statement)
{
    while (!statement && *sql != '\0') {
        if (!Prepare(self, sql, statement))
            return false;
        if (!statement->Handle())
            statement.reset();
    }
    return true;
}

// What was just committed found room, and so may events that wait for it. Not inside a transaction:
// that may be one of the database of events.
void NoteCommit(const Self& self)
{
    if (sqlite3_get_autocommit(self.Handle()) != 0)
        RetryKeptEvents();
}

void CheckArguments(lua_State* L)
{
    PlainTextArgument(L, 2);
    if (!lua_isnoneornil(L, 3))
        luaL_checktype(L, 3, LUA_TTABLE);
    lua_settop(L, 3);
}

// exec(sql [, parameters]): runs one statement or, without parameters, several. Rows that they give are
// passed over.
int Exec(lua_State* L)
{
    const Self self(L);
    const Running running(Receiver(L));
    CheckArguments(L);
    const char* sql = lua_tostring(L, 2);
    const int before = sqlite3_total_changes(self.Handle());
    for (;;) {
        Statement statement;
        if (!PrepareNext(self, sql, statement))
            return Failed(L, self);
        if (!statement)
            break;
        Statement second; // asked for before the first has changed anything
        if (!lua_isnil(L, 3) && !PrepareNext(self, sql, second))
            return Failed(L, self);
        if (second)
            return luaL_error(L, "parameters go with one statement only");
        if (!BindAll(L, statement->Handle()))
            return Failed(L, self);
        int result = SQLITE_ROW;
        while (result == SQLITE_ROW)
            result = sqlite3_step(statement->Handle());
        if (result != SQLITE_DONE)
            return Failed(L, self);
    }
    const int changes = sqlite3_total_changes(self.Handle()) - before;
    if (changes > 0)
        NoteCommit(self);
    lua_pushnumber(L, changes);
    return 1;
}

// As a number, or as its digits where a number would lose some:
// stored again in a column of integers, they are the same integer.
void PushInteger(lua_State* L, std::int64_t value)
{
    if (value <= maxExactInteger && value >= -maxExactInteger) {
        lua_pushnumber(L, static_cast<double>(value));
        return;
    }
    const std::string digits = std::to_string(value);
    lua_pushlstring(L, digits.data(), digits.size());
}

void PushColumn(lua_State* L, sqlite3_stmt* statement, int column)
{
    switch (sqlite3_column_type(statement, column)) {
    case SQLITE_INTEGER:
        PushInteger(L, sqlite3_column_int64(statement, column));
        break;
    case SQLITE_FLOAT:
        lua_pushnumber(L, sqlite3_column_double(statement, column));
        break;
    case SQLITE_NULL:
        lua_pushnil(L);
        break;
    default: {
        const void* data = sqlite3_column_blob(statement, column);
        lua_pushlstring(L, data ? static_cast<const char*>(data) : "",
                        static_cast<std::size_t>(sqlite3_column_bytes(statement, column)));
    }
    }
}

int Rows(lua_State* L)
{
    const Self self(L);
    const Running running(Receiver(L));
    CheckArguments(L);
    const char* sql = lua_tostring(L, 2);
    Statement statement;
    if (!Prepare(self, sql, statement))
        return Failed(L, self);
    if (!statement->Handle())
        return Failed(L, "there is no statement");
    Statement second;
    if (!PrepareNext(self, sql, second))
        return Failed(L, self);
    if (second)
        return luaL_error(L, "rows takes one statement only");
    if (!BindAll(L, statement->Handle()))
        return Failed(L, self);
    const int columns = sqlite3_column_count(statement->Handle());
    lua_newtable(L);
    for (int index = 1;; ++index) {
        const int result = sqlite3_step(statement->Handle());
        if (result == SQLITE_DONE)
            return 1;
        if (result != SQLITE_ROW)
            return Failed(L, self);
        lua_createtable(L, 0, columns);
        for (int column = 0; column < columns; ++column) {
            PushColumn(L, statement->Handle(), column);
            lua_setfield(L, -2, sqlite3_column_name(statement->Handle(), column));
        }
        lua_rawseti(L, -2, index);
    }
}

// transaction(body): runs body between BEGIN and COMMIT. When body returns nil and a message, or false, its
// changes are taken back and its results returned; an error takes them back and goes on.
int Transaction(lua_State* L)
{
    const Self self(L);
    luaL_checktype(L, 2, LUA_TFUNCTION);
    lua_settop(L, 2);
    SqliteTransaction transaction(self.Db());
    if (!transaction.Begun())
        return Failed(L, self.Db().Error());
    lua_pushvalue(L, 1);
    lua_call(L, 1, LUA_MULTRET);
    const int results = lua_gettop(L) - 1;
    if (results > 0 && !lua_toboolean(L, 2))
        return results;
    if (!self.Db().IsOpen())
        return luaL_error(L, "the database was closed inside its transaction");
    if (!transaction.Commit())
        return Failed(L, self.Db().Error());
    NoteCommit(self);
    if (results > 0)
        return results;
    lua_pushboolean(L, 1);
    return 1;
}

int LastId(lua_State* L)
{
    PushInteger(L, Self(L).Db().LastInsertId());
    return 1;
}

int CloseDatabase(lua_State* L)
{
    Database& database = Receiver(L);
    const std::lock_guard inUse(database.inUse);
    if (database.statements > 0)
        return luaL_error(L, "the database is in use by a statement");
    const std::lock_guard lock(g_openLock);
    OpenDatabases().erase(&database);
    database.db.Close();
    return 0;
}

int Collect(lua_State* L)
{
    Database* const database = FindDatabase(L);
    if (!database)
        return 0;
    {
        const std::lock_guard lock(g_openLock);
        OpenDatabases().erase(database);
    }
    database->~Database();
    std::memset(static_cast<void*>(database), 0, sizeof(Database)); // none any more, also when a finaliser revives it
    return 0;
}

int ToText(lua_State* L)
{
    Database& database = Receiver(L);
    const std::lock_guard inUse(database.inUse);
    if (database.db.IsOpen())
        lua_pushfstring(L, "database (%s)", sqlite3_db_filename(database.db.Handle(), "main"));
    else
        lua_pushliteral(L, "database (closed)");
    return 1;
}

// open(path): a database, made when it is missing.
int OpenDatabase(lua_State* L)
{
    const char* path = PlainTextArgument(L, 1);
    auto* self = new (lua_newuserdata(L, sizeof(Database))) Database;
    luaL_setmetatable(L, typeName);
    const bool isFile = std::strcmp(path, ":memory:") != 0; // SQLite's name for none
    std::optional<os::GuardedPlace> place = isFile ? PlaceInWorkFolder(path) : std::optional<os::GuardedPlace>();
    const char* const vfs = GuardedVfs();
    if (!(place ? self->db.Open(*place, fullSynchronous, vfs) : self->db.Open(path, fullSynchronous, vfs)))
        return Failed(L, std::string(path) + ": " + self->db.Error());
    const std::lock_guard lock(g_openLock);
    OpenDatabases().insert(self);
    return 1;
}

const luaL_Reg methods[] = {
    {"exec", Guarded<Exec>},      {"rows", Guarded<Rows>},           {"transaction", Guarded<Transaction>},
    {"last_id", Guarded<LastId>}, {"close", Guarded<CloseDatabase>}, {nullptr, nullptr}};
const luaL_Reg metamethods[] = {{"__gc", Guarded<Collect>}, {"__tostring", Guarded<ToText>}, {nullptr, nullptr}};
const luaL_Reg functions[] = {{"open", Guarded<OpenDatabase>}, {nullptr, nullptr}};

} // namespace

int OpenLuaDb(lua_State* L)
{
    luaL_newmetatable(L, typeName);
    luaL_setfuncs(L, metamethods, 0);
    luaL_newlib(L, methods);
    lua_setfield(L, -2, "__index");
    // The finaliser is the collector's alone: called by a script, it would take a database away
    // under a running statement.
    lua_pushboolean(L, 0);
    lua_setfield(L, -2, "__metatable");
    lua_pop(L, 1);
    luaL_newlib(L, functions);
    return 1;
}

bool CloseLuaDatabases()
{
    bool all = true;
    const std::lock_guard lock(g_openLock);
    std::set<Database*>& databases = OpenDatabases();
    for (auto position = databases.begin(); position != databases.end();) {
        const std::unique_lock idle((*position)->inUse, std::try_to_lock);
        if (idle.owns_lock()) {
            (*position)->db.Close();
            position = databases.erase(position);
        } else {
            all = false;
            ++position;
        }
    }
    return all;
}

} // namespace VexCore
