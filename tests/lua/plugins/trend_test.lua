local fake_domain = require("support.fake_domain")
local lu = require("luaunit")
local plugin = require("trend.plugin")
local samples = require("trend.samples")
local statistics = require("trend.statistics")
local temp = require("support.temp")

local M = { TestStatistics = {}, TestSamples = {}, TestPlugin = {} }

local day = 86400000

function M.TestStatistics:test_summary_passes_over_samples_without_the_field()
  lu.assertEquals(statistics.summary({ { a = 1 }, {}, { a = 3 } }, "a"), { min = 1, mean = 2, max = 3 })
  lu.assertNil(statistics.summary({ {}, {} }, "a"))
end

function M.TestStatistics:test_the_slope_is_that_of_the_line_through_the_samples()
  local origin = 1.8e12
  lu.assertAlmostEquals(statistics.slope_per_day({
    { time_ms = origin, a = 100 }, { time_ms = origin + day, a = 90 }, { time_ms = origin + 2 * day, a = 80 },
  }, "a"), -10, 1e-9)
  lu.assertNil(statistics.slope_per_day({ { time_ms = 1, a = 1 } }, "a"))
  lu.assertNil(statistics.slope_per_day({ { time_ms = 1, a = 1 }, { time_ms = 1, a = 2 } }, "a"))
end

function M.TestStatistics:test_what_falls_reaches_zero_and_what_grows_does_not()
  local falling = { { time_ms = 0, a = 100 }, { time_ms = day, a = 90 } }
  lu.assertAlmostEquals(statistics.days_until_zero(falling, "a"), 9, 1e-9)
  lu.assertNil(statistics.days_until_zero({ { time_ms = 0, a = 1 }, { time_ms = day, a = 2 } }, "a"))
  lu.assertNil(statistics.days_until_zero({}, "a"))
end

function M.TestStatistics:test_a_fall_within_an_hour_forecasts_nothing()
  local hour = 3600000
  lu.assertNil(statistics.days_until_zero({ { time_ms = 0, a = 100 }, { time_ms = hour - 1, a = 90 } }, "a"))
  local falling = { { time_ms = 0, a = 48 }, { time_ms = hour, a = 24 } }
  lu.assertAlmostEquals(statistics.days_until_zero(falling, "a"), 1 / 24, 1e-9)
end

function M.TestSamples:setUp()
  self.folder = temp.folder()
  self.store = assert(samples.open(self.folder .. "/samples.db"))
end

function M.TestSamples:tearDown()
  self.store:close()
  temp.remove(self.folder)
end

function M.TestSamples:test_old_samples_go_when_a_new_one_comes()
  assert(self.store:add({ time_ms = 10, load = 1 }, 0))
  assert(self.store:add({ time_ms = 20, load = 2 }, 15))
  local kept = self.store:since(0)
  lu.assertEquals(#kept, 1)
  lu.assertEquals(kept[1].load, 2)
end

function M.TestSamples:test_since_gives_the_later_ones_in_order()
  for _, time in ipairs({ 30, 10, 20 }) do assert(self.store:add({ time_ms = time }, 0)) end
  local kept = self.store:since(15)
  lu.assertEquals({ #kept, kept[1].time_ms, kept[2].time_ms }, { 2, 20, 30 })
end

function M.TestPlugin:setUp()
  self.domain = fake_domain.new()
  self.domain.folder = temp.folder()
  self.domain.now = 100 * day
end

function M.TestPlugin:tearDown()
  plugin.stop()
  temp.remove(self.domain.folder)
end

function M.TestPlugin:test_it_remembers_samples_from_run_to_run()
  plugin.start(self.domain)
  lu.assertEquals(plugin.collect(self.domain).samples, 1)
  plugin.stop()
  self.domain.now = self.domain.now + 1000
  plugin.start(self.domain)
  local values = plugin.collect(self.domain)
  lu.assertEquals(values.samples, 2)
  lu.assertTrue(values.memory_available.min <= values.memory_available.max)
end

function M.TestPlugin:test_days_below_one_count_as_none_given()
  for _, days in ipairs({ 0, -3 }) do
    dom0:Set("trend.KeepDays", days)
    plugin.start(self.domain)
    plugin.collect(self.domain)
    self.domain.now = self.domain.now + 6 * day
    plugin.collect(self.domain)
    plugin.stop()
    dom0:Remove("trend.KeepDays")
    local store = assert(samples.open(self.domain.folder .. "/samples.db"))
    lu.assertEquals(#store:since(self.domain.now - 7 * day), 2)
    store:close()
    self.domain.now = self.domain.now + 100 * day
  end
end

function M.TestPlugin:test_stop_without_start_is_fine() plugin.stop() end

return M
