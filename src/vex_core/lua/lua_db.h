#pragma once
// SQLite databases for Lua code: module "vex.db".
//
//   call                               result
//   require("vex.db").open(path)       a database, made when it is missing; or nil, message
//   database:exec(sql [, parameters])  number of changed rows; or nil, message
//   database:rows(sql [, parameters])  array of tables keyed by column; or nil, message
//   database:transaction(body)         what body returns, committed; rolled back when that is nil or false, or body
//                                      raises an error
//   database:last_id()                 id of the last row inserted
//   database:close()                   nothing
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
