local metrics = require("vx_agent.metrics")
local lu = require("luaunit")

local M = { TestMetrics = {} }

function M.TestMetrics:setUp()
  self.agent = {
    name = "vx_agent", version = "1.2.3-4", started_ms = 1500, beats = 7, beat_ms = 61500, interval = 60, restarts = 2,
    resident_memory = 4096, events = { [0] = 0, 1, 2, 3, 4, 5, 6, 7 }, plugins = {},
    log_records = { fatal = 0, error = 1, warning = 2, message = 3, info = 4, debug = 5, trace = 6 },
    facts = {
      host = "h", host_id = "id", system = "S", kernel = "K", architecture = "A", processors = 2, uptime = 9.5,
      load = { 0.5, 0.25, 0.125 }, memory = { total = 10, available = 5, free = 4, swap_total = 2, swap_free = 1 },
      disks = { { mount = "/", device = "d", type = "t", total = 30, free = 20, available = 10 } },
    },
  }
end

function M.TestMetrics:samples()
  local text, same = metrics.text(self.agent)
  local values = {}
  for line in text:gmatch("[^\n]+") do
    local series, value = line:match("^([^#].*) (%S+)$")
    if series then
      lu.assertNil(values[series])
      values[series] = value
    end
  end
  return values, same, text
end

function M.TestMetrics:test_the_agent_tells_of_itself()
  local values = self:samples()
  for series, value in pairs({
    vex_up = "1", ['vex_build_info{name="vx_agent",version="1.2.3-4"}'] = "1", vex_start_time_seconds = "1.5",
    vex_restarts_total = "2", vex_heartbeats_total = "7", vex_heartbeat_timestamp_seconds = "61.5",
    vex_heartbeat_interval_seconds = "60", vex_resident_memory_bytes = "4096",
    ['vex_events_total{severity="emergency"}'] = "0", ['vex_events_total{severity="critical"}'] = "2",
    ['vex_events_total{severity="debug"}'] = "7", ['vex_log_lines_total{level="warning"}'] = "2",
    ['vex_log_lines_total{level="trace"}'] = "6", vex_host_load5 = "0.25", vex_host_uptime_seconds = "9.5",
    vex_host_memory_available_bytes = "5", vex_host_swap_free_bytes = "1", vex_host_processors = "2",
    ['vex_host_disk_available_bytes{mount="/",device="d",type="t"}'] = "10",
    ['vex_host_info{host="h",host_id="id",system="S",kernel="K",architecture="A"}'] = "1",
  }) do
    lu.assertEquals(values[series], value, series)
  end
end

function M.TestMetrics:test_what_the_host_does_not_tell_is_absent()
  self.agent.facts, self.agent.resident_memory, self.agent.version = {}, nil, nil
  local values, _, text = self:samples()
  lu.assertEquals(values.vex_up, "1")
  lu.assertNil(text:find("vex_host_memory", 1, true))
  lu.assertNil(text:find("vex_resident", 1, true))
  lu.assertNil(text:find("nil", 1, true))
end

function M.TestMetrics:test_each_plugin_tells_whether_it_works()
  self.agent.plugins = {
    { id = "good", name = "Good", version = "1", time_ms = 2500, seconds = 0.5, dropped = 3 },
    { id = "young", name = "Young", version = "1" },
    { id = "bad", name = "bad", error = "no such module" },
  }
  local values = self:samples()
  lu.assertEquals(values['vex_plugin_up{plugin="good"}'], "1")
  lu.assertEquals(values['vex_plugin_up{plugin="young"}'], "0")
  lu.assertEquals(values['vex_plugin_up{plugin="bad"}'], "0")
  lu.assertEquals(values['vex_plugin_info{plugin="bad",name="bad",version=""}'], "1")
  lu.assertEquals(values['vex_plugin_last_collection_timestamp_seconds{plugin="good"}'], "2.5")
  lu.assertEquals(values['vex_plugin_collection_duration_seconds{plugin="good"}'], "0.5")
  lu.assertEquals(values['vex_plugin_series_dropped{plugin="good"}'], "3")
  lu.assertNil(values['vex_plugin_last_collection_timestamp_seconds{plugin="young"}'])
end

local function family(name) return ("# HELP %s x\n# TYPE %s gauge\n%s 1\n"):format(name, name, name) end

function M.TestMetrics:test_the_figures_of_a_plugin_are_there_while_its_last_collection_went_well()
  local plugin = { id = "p", name = "P", time_ms = 1, metrics = family("vex_plugin_p_x") }
  self.agent.plugins = { plugin }
  lu.assertEquals(self:samples().vex_plugin_p_x, "1")
  plugin.error = "failed"
  local values = self:samples()
  lu.assertNil(values.vex_plugin_p_x)
  lu.assertEquals(values['vex_plugin_up{plugin="p"}'], "0")
end

function M.TestMetrics:test_a_name_that_is_there_already_is_left_out_and_counted()
  self.agent.plugins = {
    { id = "up", name = "U", time_ms = 1, metrics = family("vex_plugin_a_b_c") },
    { id = "a", name = "A", time_ms = 1, metrics = family("vex_plugin_a_b_c") .. family("vex_plugin_up") },
    { id = "series", name = "S", time_ms = 1, metrics = family("vex_plugin_series_dropped") },
  }
  local values, same = self:samples()
  lu.assertEquals(same, {
    { id = "a", name = "vex_plugin_up" }, { id = "series", name = "vex_plugin_series_dropped" },
    { id = "up", name = "vex_plugin_a_b_c" },
  })
  lu.assertEquals(values['vex_plugin_series_dropped{plugin="a"}'], "1")
  lu.assertEquals(values['vex_plugin_series_dropped{plugin="up"}'], "1")
  lu.assertEquals(values['vex_plugin_up{plugin="a"}'], "1")
end

function M.TestMetrics:test_the_text_is_the_same_whatever_the_order_of_the_plugins()
  local one = { id = "one", name = "1", time_ms = 1, metrics = family("vex_plugin_one_x") }
  local two = { id = "two", name = "2", time_ms = 1, metrics = family("vex_plugin_two_x") }
  self.agent.plugins = { one, two }
  local _, _, first = self:samples()
  self.agent.plugins = { two, one }
  local _, _, second = self:samples()
  lu.assertEquals(first, second)
  lu.assertEquals(first:sub(-1), "\n")
end

return M
