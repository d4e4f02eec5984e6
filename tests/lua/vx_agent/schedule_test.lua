local host = require("vex.host")
local schedule = require("vx_agent.schedule")
local settings = require("vex.settings")
local lu = require("luaunit")

local M = { TestFraction = {}, TestNext = {}, TestSchedule = {} }

-- How many of 10,000 hosts have their place in each second of a minute: the least and the most.
local function bounds(id_of)
  local counts, least, most = {}, math.huge, 0
  for number = 1, 10000 do
    local fraction = schedule.fraction("heartbeat", id_of(number))
    lu.assertTrue(fraction >= 0 and fraction < 1)
    local second = math.floor(fraction * 60)
    counts[second] = (counts[second] or 0) + 1
  end
  for second = 0, 59 do
    least, most = math.min(least, counts[second] or 0), math.max(most, counts[second] or 0)
  end
  return least, most
end

function M.TestFraction:test_ten_thousand_hosts_are_spread_evenly_whatever_their_ids_look_like()
  local seed = 7
  local function random_id()
    local digits = {}
    for index = 1, 32 do
      seed = (seed * 16807) % 2147483647
      digits[index] = ("%x"):format(math.floor(seed / 2147483647 * 16))
    end
    return table.concat(digits)
  end
  for _, id_of in ipairs({
    random_id, function(number) return ("%032x"):format(number) end,
  }) do
    local least, most = bounds(id_of)
    lu.assertTrue(least > 110, least) -- 167 are expected
    lu.assertTrue(most < 230, most)
  end
end

function M.TestFraction:test_a_host_keeps_its_place_and_has_others_for_other_work()
  local id = "0123456789abcdef0123456789abcdef"
  lu.assertEquals(schedule.fraction("heartbeat", id), schedule.fraction("heartbeat", id))
  lu.assertTrue(math.abs(schedule.fraction("a", id) - schedule.fraction("b", id)) > 0.001)
  lu.assertTrue(schedule.fraction("heartbeat", "") < 1)
end

function M.TestNext:test_the_first_is_half_to_one_and_a_half_intervals_after_the_start_and_the_others_follow()
  lu.assertEquals(schedule.next(100, 100, 60, 0), 130)
  lu.assertEquals(schedule.next(100, 100, 60, 0.5), 160)
  lu.assertEquals(schedule.next(100, 160, 60, 0.5), 220)
  lu.assertEquals(schedule.next(100, 219, 60, 0.5), 220)
  lu.assertEquals(schedule.next(100, 1000, 60, 0.5), 1060)
end

function M.TestNext:test_it_is_always_later_and_never_by_more_than_an_interval_once_it_runs()
  for _, interval in ipairs({ 1, 0.1, 7, 60, 3600, 86400 }) do
    for step = 1, 2000 do
      local fraction, last = (step * 0.618) % 1, 1e6 + 1.5 * interval + step * interval * 0.37
      local due = schedule.next(1e6, last, interval, fraction)
      lu.assertTrue(due > last and due <= last + interval * 1.000001)
    end
  end
end

local id, monotonic, bool = host.id, host.monotonic, settings.bool

function M.TestSchedule:setUp()
  self.clock, self.interval, self.is_spread = 1000, 60, true
  host.id, host.monotonic = function() return "some host" end, function() return self.clock end
  settings.bool = function() return self.is_spread end
  self.schedule = schedule.new("work", function() return self.interval end)
  self.place = schedule.fraction("work", "some host")
end

function M.TestSchedule:tearDown() host.id, host.monotonic, settings.bool = id, monotonic, bool end

function M.TestSchedule:test_what_is_done_late_does_not_move_the_next()
  local first = (0.5 + self.place) * 60
  lu.assertAlmostEquals(self.schedule:left(), first, 1e-6)
  self.clock = 1000 + first + 5
  lu.assertAlmostEquals(self.schedule:left(), -5, 1e-6)
  self.schedule:done()
  lu.assertAlmostEquals(self.schedule:left(), 55, 1e-6)
end

function M.TestSchedule:test_a_shorter_interval_makes_nobody_late()
  self.interval = 3600
  self.schedule:done()
  self.clock = self.clock + 400
  self.interval = 50
  local left = self.schedule:left()
  lu.assertTrue(left > 0 and left <= 50, left)
  lu.assertAlmostEquals((self.clock + left - 1000 - (0.5 + self.place) * 50) % 50 % 49.999999, 0, 1e-5)
end

function M.TestSchedule:test_without_spread_the_interval_counts_from_the_last()
  self.is_spread = false
  self.clock = 1010
  lu.assertEquals(self.schedule:left(), 50)
  self.interval = 5
  lu.assertEquals(self.schedule:left(), -5)
  self.schedule:done()
  lu.assertEquals(self.schedule:left(), 5)
end

function M.TestSchedule:test_a_host_without_an_id_has_a_place_too()
  host.id = function() end
  lu.assertTrue(schedule.new("work", function() return 60 end):left() >= 30)
end

return M
