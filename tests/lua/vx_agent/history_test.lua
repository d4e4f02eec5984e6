local db = require("vex.db")
local history = require("vx_agent.history")
local temp = require("support.temp")
local lu = require("luaunit")

local M = { TestHistory = {} }

local day = 86400000
local keep = { days = 30, rows = 1000 }

function M.TestHistory:setUp()
  self.folder = temp.folder()
  self.path = self.folder .. "/heartbeat.db"
  self.history = assert(history.open(self.path))
end

function M.TestHistory:tearDown()
  self.history:close()
  temp.remove(self.folder)
end

function M.TestHistory:rows()
  local database = assert(db.open(self.path))
  local rows = assert(database:rows("SELECT * FROM heartbeat ORDER BY id"))
  database:close()
  return rows
end

function M.TestHistory:test_a_beat_is_there_for_another_connection_once_add_returned()
  local beat = { time_ms = 5 * day, reason = "start", uptime_s = 7, load1 = 0.5, memory_available = 9 }
  local id = self.history:add(beat, keep)
  lu.assertEquals(id, 1)
  lu.assertEquals(self:rows(),
    { { id = 1, time_ms = 5 * day, reason = "start", uptime_s = 7, load1 = 0.5, memory_available = 9 } })
end

function M.TestHistory:test_what_is_not_known_is_null()
  self.history:add({ time_ms = 1, reason = "start" }, keep)
  lu.assertEquals(self:rows(), { { id = 1, time_ms = 1, reason = "start" } })
end

function M.TestHistory:test_beats_beyond_the_number_of_rows_go()
  for index = 1, 10 do self.history:add({ time_ms = index, reason = "interval" }, { days = 30, rows = 3 }) end
  local rows = self:rows()
  lu.assertEquals(#rows, 3)
  lu.assertEquals(rows[1].id, 8)
end

function M.TestHistory:test_beats_that_are_too_old_go()
  self.history:add({ time_ms = 1 * day, reason = "interval" }, keep)
  self.history:add({ time_ms = 2 * day, reason = "interval" }, keep)
  self.history:add({ time_ms = 31 * day + 1, reason = "interval" }, keep)
  local rows = self:rows()
  lu.assertEquals(#rows, 2)
  lu.assertEquals(rows[1].time_ms, 2 * day)
end

function M.TestHistory:test_it_goes_on_where_an_earlier_run_ended()
  self.history:add({ time_ms = 1, reason = "start" }, keep)
  self.history:close()
  self.history = assert(history.open(self.path))
  lu.assertEquals(self.history:add({ time_ms = 2, reason = "start" }, keep), 2)
end

function M.TestHistory:test_a_damaged_file_is_put_aside_and_a_new_one_begun()
  self.history:close()
  temp.write(self.folder, "heartbeat.db", ("rubbish "):rep(1000))
  local opened, told = history.open(self.path)
  lu.assertNotNil(opened, told)
  lu.assertStrContains(told, "heartbeat.db.damaged")
  self.history = opened
  lu.assertEquals(opened:add({ time_ms = 1, reason = "start" }, keep), 1)
  lu.assertStrContains(temp.read(self.path .. ".damaged"), "rubbish")
end

function M.TestHistory:test_a_folder_that_is_missing_is_nil_and_a_message()
  local opened, message = history.open(self.folder .. "/no/heartbeat.db")
  lu.assertNil(opened)
  lu.assertStrContains(message, "unable to open")
end

function M.TestHistory:test_a_locked_database_is_a_message_and_the_next_beat_works_again()
  local other = assert(db.open(self.path))
  assert(other:exec("BEGIN EXCLUSIVE"))
  local id, message = self.history:add({ time_ms = 1, reason = "start" }, keep)
  lu.assertNil(id)
  lu.assertStrContains(message, "locked")
  assert(other:exec("COMMIT"))
  other:close()
  lu.assertEquals(self.history:add({ time_ms = 1, reason = "start" }, keep), 1)
end

return M
