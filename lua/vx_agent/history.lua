--- The history of heartbeats: a database that is kept small.

local db = require("vex.db")

local M = {}
M.__index = M

local schema = [[
CREATE TABLE IF NOT EXISTS heartbeat(
  id INTEGER PRIMARY KEY, time_ms INTEGER NOT NULL, reason TEXT NOT NULL,
  uptime_s INTEGER, load1 REAL, memory_available INTEGER);
CREATE INDEX IF NOT EXISTS heartbeat_time ON heartbeat(time_ms);
]]

-- Whether SQLite's message says that the file itself is no good.
local function is_damage(message)
  return message:find("malformed", 1, true) or message:find("not a database", 1, true)
end

local function open(path)
  local database, message = db.open(path)
  if not database then return nil, message end
  local ok
  ok, message = database:exec(schema)
  if ok then return database end
  database:close()
  return nil, message
end

--- Opens the history, making it when there is none. A damaged file is put aside as `path`.damaged, so that the agent
-- goes on with a new one and somebody can look at the old.
-- @return the history, or nil and a message; then, after damage, a message that tells of it
function M.open(path)
  local database, message = open(path)
  local told
  if not database and is_damage(message) then
    local moved, why = os.rename(path, path .. ".damaged")
    if not moved then return nil, message .. "; " .. why end
    os.remove(path .. "-journal")
    told = ("%s was damaged (%s) and is now %s.damaged"):format(path, message, path)
    database, message = open(path)
  end
  if not database then return nil, message end
  return setmetatable({ database = database }, M), told
end

--- Stores a beat and forgets what is too old or too much; both or neither. Once it returns, the beat is on stable
-- storage.
-- @param beat table with time_ms, reason and what is known of uptime_s, load1 and memory_available
-- @param keep table with days and rows
-- @return the beat's id, or nil and a message
function M:add(beat, keep)
  return self.database:transaction(function(database)
    local ok, message = database:exec([[
      INSERT INTO heartbeat(time_ms, reason, uptime_s, load1, memory_available)
      VALUES(:time_ms, :reason, :uptime_s, :load1, :memory_available)]], beat)
    if not ok then return nil, message end
    local id = database:last_id()
    ok, message = database:exec("DELETE FROM heartbeat WHERE id <= :last OR time_ms < :oldest",
      { last = id - keep.rows, oldest = beat.time_ms - keep.days * 86400000 })
    if not ok then return nil, message end
    return id
  end)
end

--- Closes the database; the history is of no use afterwards.
function M:close() self.database:close() end

return M
