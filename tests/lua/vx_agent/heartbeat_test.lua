local db = require("vex.db")
local fake_domain = require("support.fake_domain")
local heartbeat = require("vx_agent.heartbeat")
local host = require("vex.host")
local settings = require("vex.settings")
local temp = require("support.temp")
local lu = require("luaunit")

local M = { TestHeartbeat = {} }

local request = "vex.HeartbeatNow"

function M.TestHeartbeat:setUp()
  self.domain = fake_domain.new()
  self.domain.folder = temp.folder()
  dom0 = self.domain
  self.int, self.bool, self.monotonic = settings.int, settings.bool, host.monotonic
  self.values, self.clock, self.switches = {}, 0, {}
  settings.bool = function(key) return self.switches[key] or false end
  settings.int = function(key) return self.values[key] or settings.default(key) end
  host.monotonic = function() return self.clock end
end

function M.TestHeartbeat:tearDown()
  settings.int, settings.bool, host.monotonic = self.int, self.bool, self.monotonic
  temp.remove(self.domain.folder)
end

-- A wait that lets its time pass.
function M.TestHeartbeat:time_over()
  return function()
    self.clock = self.clock + self.domain.waited[#self.domain.waited].seconds
    return false
  end
end

function M.TestHeartbeat:reasons()
  local database = assert(db.open(self.domain.folder .. "/heartbeat.db"))
  local reasons = {}
  for index, row in ipairs(assert(database:rows("SELECT reason FROM heartbeat ORDER BY id"))) do
    reasons[index] = row.reason
  end
  database:close()
  return table.concat(reasons, " ")
end

-- Runs the worker; the first wait only subscribes.
function M.TestHeartbeat:run_with(...)
  self.domain.waits = { false, ... }
  table.insert(self.domain.waits, "end")
  heartbeat.run()
end

function M.TestHeartbeat:test_it_beats_at_the_start_and_then_once_an_interval()
  self:run_with(self:time_over(), self:time_over())
  lu.assertEquals(self:reasons(), "start interval interval")
  lu.assertEquals(self.domain.waited[2], { keys = { request, "vex.HeartbeatInterval" }, seconds = 60 })
end

function M.TestHeartbeat:test_each_beat_is_a_line_in_the_log()
  self:run_with()
  lu.assertStrMatches(self.domain:log(), "info: Heartbeat 1 %(start%): .+")
end

function M.TestHeartbeat:test_a_request_is_answered_at_once_and_taken_back()
  self:run_with(function()
    self.domain.values[request] = true
    return request
  end)
  lu.assertEquals(self:reasons(), "start request")
  lu.assertEquals(self.domain.values[request], false)
end

function M.TestHeartbeat:test_the_first_beat_answers_a_request_from_before_the_start()
  self.domain.values[request] = true
  self:run_with()
  lu.assertEquals(self:reasons(), "start")
  lu.assertEquals(self.domain.values[request], false)
end

function M.TestHeartbeat:test_a_request_that_comes_during_a_beat_is_not_missed()
  local info = self.domain.Log
  self.domain.Log = function(domain, ...)
    domain.values[request] = #domain.lines == 0
    info(domain, ...)
  end
  self:run_with()
  lu.assertEquals(self:reasons(), "start request")
end

function M.TestHeartbeat:test_a_write_that_is_not_true_is_no_request_and_does_not_move_the_next_beat()
  self:run_with(function()
    self.clock = self.clock + 20
    return request
  end, self:time_over())
  lu.assertEquals(self.domain.waited[3].seconds, 40)
  lu.assertEquals(self:reasons(), "start interval")
end

function M.TestHeartbeat:test_the_interval_is_a_setting_that_is_read_before_each_wait()
  self.values["vex.HeartbeatInterval"] = 5
  self:run_with(function()
    self.values["vex.HeartbeatInterval"] = 7
    return self:time_over()()
  end, self:time_over())
  lu.assertEquals(self.domain.waited[2].seconds, 5)
  lu.assertEquals(self.domain.waited[3].seconds, 2)
  lu.assertEquals(self.domain.waited[4].seconds, 7)
  lu.assertEquals(self:reasons(), "start interval")
end

function M.TestHeartbeat:test_an_interval_that_is_written_counts_at_once_from_the_last_beat()
  self.values["vex.HeartbeatInterval"] = 3600
  self:run_with(function()
    self.clock = self.clock + 20
    self.values["vex.HeartbeatInterval"] = 50
    return "vex.HeartbeatInterval"
  end, self:time_over(), function()
    self.clock = self.clock + 20
    self.values["vex.HeartbeatInterval"] = 10
    return "vex.HeartbeatInterval"
  end)
  lu.assertEquals(self.domain.waited[3].seconds, 30)
  lu.assertEquals(self:reasons(), "start interval interval")
end

function M.TestHeartbeat:test_an_interval_of_a_file_that_becomes_shorter_counts_within_a_minute()
  self.values["vex.HeartbeatInterval"] = 3600
  self:run_with(self:time_over(), function()
    self.values["vex.HeartbeatInterval"] = 150
    return self:time_over()()
  end, self:time_over())
  local seconds = {}
  for index, wait in ipairs(self.domain.waited) do seconds[index] = wait.seconds end
  lu.assertEquals(seconds, { 0, 60, 60, 30, 60 })
  lu.assertEquals(self:reasons(), "start interval")
end

function M.TestHeartbeat:test_spread_beats_have_a_place_of_their_own_that_no_request_moves()
  self.switches["vex.Spread"] = true
  self.values["vex.HeartbeatInterval"] = 40
  local times = {}
  local beat = heartbeat.beat
  heartbeat.beat = function(worker, reason)
    times[#times + 1] = self.clock
    return beat(worker, reason)
  end
  self:run_with(self:time_over(), function()
    self.clock = self.clock + 15
    self.domain.values[request] = true
    return request
  end, self:time_over(), self:time_over())
  heartbeat.beat = beat
  lu.assertEquals(self:reasons(), "start interval request interval interval")
  lu.assertEquals(times[1], 0)
  lu.assertTrue(times[2] >= 20 and times[2] < 60, times[2])
  lu.assertAlmostEquals(times[3] - times[2], 15, 1e-6)
  lu.assertAlmostEquals(times[4] - times[2], 40, 1e-6)
  lu.assertAlmostEquals(times[5] - times[4], 40, 1e-6)
end

function M.TestHeartbeat:test_the_history_is_bounded_by_the_settings()
  self.values["vex.HeartbeatKeepRows"] = 2
  self:run_with(self:time_over(), self:time_over(), self:time_over())
  lu.assertEquals(self:reasons(), "interval interval")
end

function M.TestHeartbeat:test_without_a_database_it_beats_on_into_the_log_and_tries_again()
  local folder = self.domain.folder
  self.domain.folder = folder .. "/later"
  self:run_with(function()
    temp.write(folder, "later/x", "")
    return self:time_over()()
  end)
  lu.assertStrContains(self.domain.lines[1], "warning: Heartbeat (start) without a row in the database")
  lu.assertStrContains(self.domain.lines[2], "info: Heartbeat 1 (interval)")
  self.domain.folder = folder
end

return M
