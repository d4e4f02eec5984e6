--- The samples on disk.

local db = require("vex.db")

local M = {}
M.__index = M

local schema = [[
CREATE TABLE IF NOT EXISTS sample(
  id INTEGER PRIMARY KEY, time_ms INTEGER NOT NULL, load REAL, memory_available INTEGER, disk_available INTEGER);
CREATE INDEX IF NOT EXISTS sample_time ON sample(time_ms);
]]

--- Opens the database, making it when there is none.
-- @return the store, or nil and a message
function M.open(path)
  local database, message = db.open(path)
  if not database then return nil, message end
  local ok
  ok, message = database:exec(schema)
  if not ok then
    database:close()
    return nil, message
  end
  return setmetatable({ database = database }, M)
end

--- Stores a sample and forgets those from before `oldest` (milliseconds since the epoch); both or neither.
-- @return true, or nil and a message
function M:add(sample, oldest)
  return self.database:transaction(function(database)
    local ok, message = database:exec([[
      INSERT INTO sample(time_ms, load, memory_available, disk_available)
      VALUES(:time_ms, :load, :memory_available, :disk_available)]], sample)
    if ok then ok, message = database:exec("DELETE FROM sample WHERE time_ms < ?", { oldest }) end
    if not ok then return nil, message end
    return true
  end)
end

--- The samples since a time, oldest first, or nil and a message.
function M:since(time_ms)
  return self.database:rows("SELECT * FROM sample WHERE time_ms >= ? ORDER BY time_ms, id", { time_ms })
end

function M:close() self.database:close() end

return M
