#pragma once
// SQLite databases for Lua code: module "vex.db".
//
//   local database, message = require("vex.db").open(path)
//   database:exec(sql [, parameters])    changed rows, or nil and a message
//   database:rows(sql [, parameters])    array of tables keyed by column, or nil and a message
//   database:transaction(body)           what body returns, committed; rolled back when it returns nil or fails
//   database:last_id()                   id of the last row inserted
//   database:close()
//
// Parameters are an array for "?" or a table of names for ":name". A committed change is on stable storage.

struct lua_State;

namespace VexCore {

/// Pushes the module. For package.preload.
int OpenLuaDb(lua_State* L);

/// Closes every database that Lua code of any state has left open; states that are collected afterwards find
/// theirs closed. False: a worker that was left running is inside one, which stays open. Before SQLite is
/// shut down.
bool CloseLuaDatabases();

} // namespace VexCore
