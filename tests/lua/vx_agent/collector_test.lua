local collector = require("vx_agent.collector")
local fake_domain = require("support.fake_domain")
local host = require("vex.host")
local json = require("vex.json")
local settings = require("vex.settings")
local lu = require("luaunit")

local M = { TestCollector = {} }

local calls

function M.TestCollector:setUp()
  calls = {}
  self.clock = 0
  self.has_outputs, self.is_spread = true, false
  settings.bool = function(key)
    if key == "vex.Spread" then return self.is_spread end
    lu.assertEquals(key, "app.out")
    return self.has_outputs
  end
  host.monotonic = function() return self.clock end
  dom0 = fake_domain.new()
  package.preload["probe.plugin"] = function()
    return {
      name = "Probe", version = "1", interval = 12,
      start = function() calls[#calls + 1] = "start" end,
      collect = function()
        calls[#calls + 1] = "collect"
        return { count = #calls }
      end,
      stop = function() calls[#calls + 1] = "stop" end,
    }
  end
end

local monotonic, int, bool = host.monotonic, settings.int, settings.bool

function M.TestCollector:tearDown()
  package.loaded["probe.plugin"] = nil
  host.monotonic, settings.int, settings.bool = monotonic, int, bool
end

-- A wait that lets its time pass.
function M.TestCollector:time_over()
  return function()
    self.clock = self.clock + dom0.waited[#dom0.waited].seconds
    return false
  end
end

function M.TestCollector:test_it_starts_collects_at_once_and_again_and_stops_with_the_agent()
  dom0.waits = { false, self:time_over(), "vex.CollectNow", "end" }
  collector.run({ plugin = "probe" })
  lu.assertEquals(table.concat(calls, " "), "start collect collect collect stop")
  lu.assertEquals(dom0.waited[2], { keys = { "vex.CollectNow", "vex.CollectInterval" }, seconds = 12 })
end

function M.TestCollector:test_an_interval_that_is_written_counts_at_once_and_asks_for_no_collection()
  require("probe.plugin").interval = nil
  local interval = 3600
  settings.int = function() return interval end
  dom0.waits = { false, function()
    interval, self.clock = 50, self.clock + 20
    return "vex.CollectInterval"
  end, self:time_over(), "end" }
  collector.run({ plugin = "probe" })
  lu.assertEquals(dom0.waited[3].seconds, 30)
  lu.assertEquals(table.concat(calls, " "), "start collect collect stop")
end

function M.TestCollector:test_an_interval_of_a_file_that_becomes_shorter_counts_within_a_minute()
  require("probe.plugin").interval = nil
  local interval = 3600
  settings.int = function() return interval end
  dom0.waits = { false, self:time_over(), function()
    interval = 150
    return self:time_over()()
  end, self:time_over(), "end" }
  collector.run({ plugin = "probe" })
  local seconds = {}
  for index, wait in ipairs(dom0.waited) do seconds[index] = wait.seconds end
  lu.assertEquals(seconds, { 0, 60, 60, 30, 60 })
  lu.assertEquals(table.concat(calls, " "), "start collect collect stop")
end

function M.TestCollector:test_spread_collections_have_a_place_of_their_own()
  self.is_spread = true
  local times = {}
  require("probe.plugin").collect = function() times[#times + 1] = self.clock end
  dom0.waits = { false, self:time_over(), self:time_over(), "end" }
  collector.run({ plugin = "probe" })
  lu.assertEquals(times[1], 0)
  lu.assertTrue(times[2] >= 6 and times[2] < 18, times[2])
  lu.assertAlmostEquals(times[3] - times[2], 12, 1e-6)
end

function M.TestCollector:test_the_latest_values_lie_in_the_domain()
  dom0.waits = { false, "end" }
  collector.run({ plugin = "probe" })
  lu.assertEquals(json.decode(dom0:Get("vex.plugin.probe.values")), { count = 2 })
  lu.assertEquals(dom0:Get("vex.plugin.probe.bytes"), tostring(#dom0:Get("vex.plugin.probe.values")))
  lu.assertEquals(dom0:Get("vex.plugin.probe.time"), "1000000")
end

function M.TestCollector:test_a_collection_that_fails_is_a_warning_and_the_next_one_comes()
  local plugin = require("probe.plugin")
  local good = plugin.collect
  plugin.collect = function()
    plugin.collect = good
    error("once")
  end
  dom0.waits = { false, self:time_over(), "end" }
  collector.run({ plugin = "probe" })
  lu.assertStrContains(dom0:log(), "warning: Plugin 'probe' failed in collect: ")
  lu.assertNotNil(dom0:Get("vex.plugin.probe.values"))
end

function M.TestCollector:test_metrics_and_the_time_that_it_took_lie_there_too()
  require("probe.plugin").collect = function()
    self.clock = self.clock + 0.25
    return { count = 7, ["co unt"] = 1, ["co-unt"] = 2 }
  end
  require("probe.plugin").metrics = { count = { type = "counter", help = "All." } }
  require("probe.plugin").units = { co_unt = "bytes" }
  dom0.waits = { false, "vex.CollectNow", "end" }
  collector.run({ plugin = "probe" })
  lu.assertEquals(dom0:Get("vex.plugin.probe.metrics"), [[
# HELP vex_plugin_probe_co_unt 'co unt' of the plugin probe.
# TYPE vex_plugin_probe_co_unt gauge
vex_plugin_probe_co_unt 1
# HELP vex_plugin_probe_count_total All.
# TYPE vex_plugin_probe_count_total counter
vex_plugin_probe_count_total 7
]])
  lu.assertEquals(dom0:Get("vex.plugin.probe.seconds"), "0.250000")
  lu.assertEquals(dom0:Get("vex.plugin.probe.dropped"), "1")
  local _, told = dom0:log():gsub("warning: Plugin 'probe' has different figures that would be one metric", "")
  lu.assertEquals(told, 1, "once, though it collected twice")
end

function M.TestCollector:test_who_finds_no_error_finds_all_of_the_collection_that_went_well()
  dom0:Set("vex.plugin.probe.error", "from before")
  local set, last = dom0.Set, nil
  function dom0:Set(key, value)
    last = key
    set(self, key, value)
  end
  dom0.waits = { false, "end" }
  collector.run({ plugin = "probe" })
  lu.assertEquals(last, "vex.plugin.probe.error")
  lu.assertNil(dom0:Get("vex.plugin.probe.error"))
end

function M.TestCollector:test_without_outputs_nobody_makes_metrics_or_leaves_old_ones()
  self.has_outputs = false
  dom0:Set("vex.plugin.probe.metrics", "old")
  dom0:Set("vex.plugin.probe.dropped", 3)
  dom0.waits = { false, "end" }
  collector.run({ plugin = "probe" })
  lu.assertNil(dom0:Get("vex.plugin.probe.metrics"))
  lu.assertNil(dom0:Get("vex.plugin.probe.dropped"))
  lu.assertNotNil(dom0:Get("vex.plugin.probe.values"))
end

function M.TestCollector:test_a_failure_lies_there_until_the_next_collection_goes_well()
  local plugin = require("probe.plugin")
  local good, seen = plugin.collect, nil
  plugin.collect = function()
    plugin.collect = good
    error("once")
  end
  dom0.waits = { false, function()
    seen = dom0:Get("vex.plugin.probe.error")
    return "vex.CollectNow"
  end, "end" }
  collector.run({ plugin = "probe" })
  lu.assertStrContains(seen, "once")
  lu.assertNil(dom0:Get("vex.plugin.probe.error"))
end

function M.TestCollector:test_values_that_cannot_be_kept_are_a_warning()
  require("probe.plugin").collect = function() return { print } end
  dom0.waits = { false, "end" }
  collector.run({ plugin = "probe" })
  lu.assertStrContains(dom0:log(), "collected what cannot be kept")
end

function M.TestCollector:test_a_plugin_that_cannot_start_is_neither_asked_nor_stopped()
  require("probe.plugin").start = function() error("no") end
  collector.run({ plugin = "probe" })
  lu.assertEquals(calls, {})
  lu.assertStrContains(dom0:log(), "failed in start")
  lu.assertStrContains(dom0:Get("vex.plugin.probe.error"), "no")
end

function M.TestCollector:test_it_asks_for_requests_before_the_first_collection_so_that_none_is_missed()
  require("probe.plugin").collect = function() calls[#calls + 1] = #dom0.waited end
  dom0.waits = { false, "end" }
  collector.run({ plugin = "probe" })
  lu.assertEquals(calls, { "start", 1, "stop" })
  lu.assertEquals(dom0.waited[1], { keys = { "vex.CollectNow", "vex.CollectInterval" }, seconds = 0 })
end

function M.TestCollector:test_a_plugin_that_is_gone_is_a_warning()
  collector.run({ plugin = "nowhere" })
  lu.assertStrContains(dom0:log(), "warning: Plugin 'nowhere' cannot be loaded")
end

return M
