local agent = require("vex.agent")
local fake_domain = require("support.fake_domain")
local json = require("vex.json")
local outputs = require("vx_agent.outputs")
local settings = require("vex.settings")
local lu = require("luaunit")

local M = { TestOutputs = {} }

local write_output, log_records, bool, domain = agent.write_output, agent.log_records, settings.bool, dom0

function M.TestOutputs:setUp()
  dom0 = fake_domain.new({ ["app.name"] = "a/b", ["app.version"] = "1.2.3-4" })
  self.files, self.problems, self.enabled, self.outputs = {}, {}, true, nil
  agent.write_output = function(name, content)
    if self.problems[name] then return nil, self.problems[name] end
    self.files[name] = content
    return true
  end
  settings.bool = function(key)
    lu.assertEquals(key, "app.out")
    return self.enabled
  end
end

function M.TestOutputs:tearDown()
  agent.write_output, agent.log_records, settings.bool, dom0 = write_output, log_records, bool, domain
end

function M.TestOutputs:beat(plugins)
  self.outputs = self.outputs or outputs.new(dom0, plugins)
  self.outputs:write({ time_ms = 5000 })
end

function M.TestOutputs:report() return assert(json.decode(self.files["report.json"])) end

function M.TestOutputs:test_a_beat_writes_metrics_and_the_report()
  self:beat()
  lu.assertStrContains(self.files["a_b.prom"], "\nvex_heartbeat_timestamp_seconds 5\n")
  lu.assertStrContains(self.files["a_b.prom"], 'vex_build_info{name="a/b",version="1.2.3-4"} 1\n')
  local report = self:report()
  lu.assertEquals(report.schema, 1)
  lu.assertEquals(report.agent, { name = "a/b", version = "1.2.3-4" })
  lu.assertEquals(report.plugins, {})
  self:beat()
  lu.assertStrContains(self.files["a_b.prom"], "\nvex_heartbeats_total 2\n")
end

function M.TestOutputs:test_the_restarts_are_those_that_the_launcher_tells_of()
  self:beat()
  lu.assertStrContains(self.files["a_b.prom"], "\nvex_restarts_total 0\n")
  dom0:Set("app.restart.count", 3)
  self:beat()
  lu.assertStrContains(self.files["a_b.prom"], "\nvex_restarts_total 3\n")
end

function M.TestOutputs:test_nothing_is_written_where_the_setting_says_so()
  self.enabled = false
  self:beat()
  lu.assertEquals(self.files, {})
  self.enabled = true
  self:beat()
  lu.assertStrContains(self.files["a_b.prom"], "\nvex_heartbeats_total 2\n")
end

function M.TestOutputs:test_what_the_plugins_workers_have_left_is_in_both()
  for key, value in pairs({
    values = '{"x":1}', time = "3000", seconds = "0.25", dropped = 4,
    metrics = "# HELP vex_plugin_p_x x\n# TYPE vex_plugin_p_x gauge\nvex_plugin_p_x 1\n",
  }) do
    dom0:Set("vex.plugin.p." .. key, value)
  end
  dom0:Set("vex.plugin.failing.error", "boom")
  self:beat({
    { id = "p", name = "P", version = "9", units = { x = "bytes" } }, { id = "young", name = "Young", version = "1" },
    { id = "failing", name = "Failing", version = "1" }, { id = "lost", name = "lost", error = "not found" },
  })
  lu.assertEquals(self:report().plugins, {
    { name = "P", version = "9", units = { x = "bytes" }, values = { x = 1 } },
    { name = "Young", version = "1", error = "nothing is collected yet" },
    { name = "Failing", version = "1", error = "boom" }, { name = "lost", error = "not found" },
  })
  for _, line in ipairs({
    "vex_plugin_p_x 1", 'vex_plugin_up{plugin="p"} 1', 'vex_plugin_up{plugin="failing"} 0',
    'vex_plugin_collection_duration_seconds{plugin="p"} 0.25', 'vex_plugin_series_dropped{plugin="p"} 4',
  }) do
    lu.assertStrContains(self.files["a_b.prom"], "\n" .. line .. "\n")
  end
end

function M.TestOutputs:test_values_without_measure_are_not_in_the_report()
  dom0:Set("vex.plugin.p.values", '"' .. ("x"):rep(1024 * 1024) .. '"')
  self:beat({ { id = "p", name = "P", version = "1" } })
  lu.assertEquals(self:report().plugins[1].error, "the values are too many for this file: 1048578 bytes as JSON")
end

function M.TestOutputs:test_values_without_measure_are_not_even_read()
  local get, asked = dom0.Get, {}
  dom0.Get = function(dom, key, default)
    asked[key] = true
    return get(dom, key, default)
  end
  for id, bytes in pairs({ small = 2, great = 1024 * 1024 + 1, growing = 2 }) do
    dom0:Set("vex.plugin." .. id .. ".bytes", bytes)
  end
  dom0:Set("vex.plugin.small.values", "{}")
  dom0:Set("vex.plugin.great.values", "{}") -- so that only its size can tell
  dom0:Set("vex.plugin.growing.values", '"' .. ("x"):rep(1024 * 1024) .. '"')
  self:beat({ { id = "small", name = "S" }, { id = "great", name = "G" }, { id = "growing", name = "W" } })
  local blocks = self:report().plugins
  lu.assertEquals(blocks[1], { name = "S", values = {} })
  lu.assertEquals(blocks[2].error, "the values are too many for this file: 1048577 bytes as JSON")
  lu.assertEquals(blocks[3].error, "the values are too many for this file: 1048578 bytes as JSON")
  lu.assertTrue(asked["vex.plugin.small.values"])
  lu.assertNil(asked["vex.plugin.great.values"])
  dom0:Set("vex.plugin.small.error", "boom")
  asked = {}
  self:beat()
  lu.assertNil(asked["vex.plugin.small.values"])
end

function M.TestOutputs:test_a_file_that_cannot_be_written_is_told_once_until_it_can_be_again()
  self.problems["a_b.prom"] = "no room"
  self:beat()
  self:beat()
  lu.assertEquals(dom0.lines, { "warning: Files for collectors: no room" })
  lu.assertNotNil(self.files["report.json"])
  self.problems = {}
  self:beat()
  self.problems["report.json"] = "no right"
  self:beat()
  lu.assertEquals(dom0.lines, {
    "warning: Files for collectors: no room", "info: Files for collectors: all are written again",
    "warning: Files for collectors: no right",
  })
end

function M.TestOutputs:test_garbage_among_the_metrics_costs_the_others_nothing()
  dom0:Set("vex.plugin.p.metrics",
    "\0garbage\n# HELP \n# HELP vex_plugin_p_x x\n# TYPE vex_plugin_p_x gauge\nvex_plugin_p_x 1\n")
  self:beat({ { id = "p", name = "P", version = "1" } })
  lu.assertStrContains(self.files["a_b.prom"], "\nvex_plugin_p_x 1\n")
  lu.assertNotStrContains(self.files["a_b.prom"], "garbage")
  lu.assertEquals(dom0.lines, {})
end

function M.TestOutputs:test_an_error_is_told_as_what_cannot_be_written_and_the_beat_goes_on()
  agent.log_records = function() error("odd", 0) end
  self:beat()
  self:beat()
  agent.log_records = log_records
  self:beat()
  lu.assertEquals(dom0.lines, {
    "warning: Files for collectors: odd", "info: Files for collectors: all are written again",
  })
end

function M.TestOutputs:test_metrics_of_one_name_are_told_once()
  for _, id in ipairs({ "a", "b" }) do
    dom0:Set("vex.plugin." .. id .. ".metrics", "# HELP vex_plugin_x x\n# TYPE vex_plugin_x gauge\nvex_plugin_x 1\n")
  end
  local plugins = { { id = "a", name = "A" }, { id = "b", name = "B" } }
  self:beat(plugins)
  self:beat(plugins)
  lu.assertEquals(dom0.lines, {
    "warning: Plugin 'b': the metric vex_plugin_x is left out, because there is one of that name",
  })
end

return M
