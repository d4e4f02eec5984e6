-- The application's three functions, on a fake domain.

local fake_domain = require("support.fake_domain")
local json = require("vex.json")
local lu = require("luaunit")

local M = { TestApplication = {} }

local calls

function M.TestApplication:setUp()
  calls = {}
  -- The application that runs these tests has its modules loaded already; each test gets its own.
  for name in pairs(package.loaded) do
    if name:find("^vx_agent") then package.loaded[name] = nil end
  end
  dom0 = fake_domain.new({ ["app.name"] = "vx_agent", ["app.version"] = "1.2.3.4" })
  arg = {} -- luacheck: ignore 121
  self.written = {}
  self.full = {}
  io.write = function(text) -- luacheck: ignore 122
    if self.full.write then return nil, "no room" end
    self.written[#self.written + 1] = text
    return true
  end
  io.flush = function() -- luacheck: ignore 122
    if self.full.flush then return nil, "no room" end
    return true
  end
  package.preload["probe.plugin"] = function()
    return {
      name = "Probe", version = "1", start = function() calls[#calls + 1] = "start" end,
      collect = function() return { answer = 42 } end, stop = function() calls[#calls + 1] = "stop" end,
    }
  end
  self.write = io.write
  self.application = require("vx_agent")
end

local real_write, real_flush, real_arg, real_dom, real_stderr = io.write, io.flush, arg, dom0, io.stderr

function M.TestApplication:tearDown()
  io.write, io.flush, io.stderr = real_write, real_flush, real_stderr -- luacheck: ignore 122
  arg = real_arg -- luacheck: ignore 121
  dom0 = real_dom
  package.loaded["probe.plugin"] = nil
end

function M.TestApplication:output() return table.concat(self.written) end

-- Takes what is written to standard error.
local function complaints()
  local written = {}
  io.stderr = { write = function(_, ...) written[#written + 1] = table.concat({ ... }) end } -- luacheck: ignore 122
  return written
end

function M.TestApplication:test_init_tells_what_it_is_and_loads_the_plugins()
  dom0.values["app.plugins"] = "probe,nowhere"
  lu.assertEquals(self.application.init(), 0)
  lu.assertStrContains(dom0.lines[1], "info: vx_agent 1.2.3.4, host agent, process ")
  lu.assertEquals(dom0.lines[2], "info: plugin Probe 1 loaded")
  lu.assertStrContains(dom0.lines[3], "warning: Plugin 'nowhere' cannot be loaded")
end

function M.TestApplication:test_the_end_of_the_child_before_is_told_before_a_plugin_is_loaded()
  dom0.values["app.plugins"] = "hasty"
  dom0.values["app.restart.count"] = 1
  local told
  package.preload["hasty.plugin"] = function()
    told = dom0.events
    return { name = "Hasty", version = "1" }
  end
  lu.assertEquals(self.application.init(), 0)
  package.preload["hasty.plugin"], package.loaded["hasty.plugin"] = nil, nil
  lu.assertEquals(#told, 1)
  lu.assertEquals(told, dom0.events)
end

function M.TestApplication:test_without_a_child_before_there_is_no_event()
  lu.assertEquals(self.application.init(), 0)
  lu.assertNil(dom0.events)
end

function M.TestApplication:test_the_foreground_prints_a_table_with_a_block_a_plugin()
  dom0.values["app.plugins"] = "probe"
  self.application.init()
  lu.assertEquals(self.application.main(), 0)
  lu.assertStrContains(self:output(), "Host ")
  lu.assertStrContains(self:output(), "Plugin Probe 1\n  answer  42\n")
  lu.assertEquals(self.application.shutdown(), 0)
  lu.assertEquals(table.concat(calls, " "), "start stop")
end

function M.TestApplication:test_json_has_the_same_figures()
  dom0.values["app.plugins"] = "probe"
  arg = { "--json" } -- luacheck: ignore 121
  self.application.init()
  require("probe.plugin").units = { answer = "bytes" }
  lu.assertEquals(self.application.main(), 0)
  local report = assert(json.decode(self:output()))
  lu.assertEquals(report.plugins[1].values.answer, 42)
  lu.assertEquals(report.plugins[1].units, { answer = "bytes" })
  lu.assertEquals(report.host, require("vex.host").system().host)
end

function M.TestApplication:test_json_tells_what_it_is_when_it_was_made_and_by_whom()
  arg = { "--json" } -- luacheck: ignore 121
  self.application.init()
  lu.assertEquals(self.application.main(), 0)
  local report = assert(json.decode(self:output()))
  lu.assertEquals(report.schema, 1)
  lu.assertStrMatches(report.time, "%d%d%d%d%-%d%d%-%d%dT%d%d:%d%d:%d%dZ")
  lu.assertEquals(report.agent, { name = "vx_agent", version = "1.2.3.4" })
  lu.assertEquals(report.host_id, require("vex.host").id())
end

function M.TestApplication:test_a_plugin_that_cannot_be_loaded_is_in_the_report_as_failed()
  dom0.values["app.plugins"] = "nowhere,probe"
  self.application.init()
  lu.assertEquals(self.application.main(), 0)
  lu.assertStrContains(self:output(), "\nPlugin nowhere\n  failed: ")
  lu.assertStrContains(self:output(), "module 'nowhere.plugin' not found")
  lu.assertStrContains(self:output(), "\nPlugin Probe 1\n")
  lu.assertEquals(self.application.shutdown(), 0)
  lu.assertEquals(table.concat(calls, " "), "start stop")
end

local function second(collect)
  package.preload["second.plugin"] = function() return { name = "Second", version = "2", collect = collect } end
  package.loaded["second.plugin"] = nil
  dom0.values["app.plugins"] = "probe,nowhere,second"
end

function M.TestApplication:test_several_plugins_collect_in_workers_of_their_own()
  second(function() return { more = "text", list = {} } end)
  dom0.runs_threads = true
  self.application.init()
  lu.assertEquals(self.application.main(), 0)
  lu.assertEquals(#dom0.started, 2)
  lu.assertEquals(dom0.started[2].module, "vx_agent.reporter")
  lu.assertEquals(dom0.started[2].argument, { plugin = "second" })
  lu.assertEquals(dom0.started[2].calls, { "join" })
  lu.assertStrContains(self:output(), "Plugin Probe 1\n  answer  42\n")
  lu.assertStrContains(self:output(), "\nPlugin nowhere\n  failed: ")
  lu.assertStrMatches(self:output(), ".*\nPlugin Second 2\n.*more +text\n.*")
  lu.assertEquals(self.application.shutdown(), 0)
  lu.assertEquals(table.concat(calls, " "), "start stop") -- once, in its worker
  for key in pairs(dom0.values) do lu.assertNotStrContains(key, "vex.report") end
end

function M.TestApplication:test_what_fails_in_a_worker_is_in_its_block()
  second(function() error("no figures") end)
  dom0.runs_threads = true
  self.application.init()
  require("probe.plugin").start = function() error("no start") end
  lu.assertEquals(self.application.main(), 0)
  lu.assertStrMatches(self:output(), ".*Plugin Probe 1\n  failed: [^\n]*no start.*")
  lu.assertStrMatches(self:output(), ".*Plugin Second 2\n  failed: [^\n]*no figures.*")
end

function M.TestApplication:test_a_worker_that_tells_nothing_is_a_failure_of_its_plugin()
  second(function() return {} end)
  self.application.init()
  lu.assertEquals(self.application.main(), 0)
  lu.assertStrContains(self:output(), "Plugin Second 2\n  failed: its worker was ended\n")
end

function M.TestApplication:test_without_room_for_workers_the_plugins_collect_one_after_the_other()
  second(function() return { more = "text" } end)
  dom0.refuse_threads = true
  self.application.init()
  lu.assertEquals(self.application.main(), 0)
  lu.assertStrContains(self:output(), "Plugin Probe 1\n  answer  42\n")
  lu.assertStrMatches(self:output(), ".*\nPlugin Second 2\n.*more +text\n.*")
  lu.assertEquals(self.application.shutdown(), 0)
  lu.assertEquals(table.concat(calls, " "), "start stop")
end

function M.TestApplication:test_a_report_that_cannot_be_written_in_full_is_told_and_fails()
  for _, step in ipairs({ "write", "flush" }) do
    self.full = { [step] = true }
    local told = complaints()
    self.application.init()
    lu.assertEquals(self.application.main(), 1)
    lu.assertEquals(told, { "vx_agent: the report cannot be written in full: no room\n" })
  end
end

function M.TestApplication:test_an_unknown_argument_is_told_and_fails()
  arg = { "--jsn" } -- luacheck: ignore 121
  local told = complaints()
  self.application.init()
  lu.assertEquals(self.application.main(), 2)
  lu.assertStrContains(told[1], "unknown argument '--jsn'")
  lu.assertEquals(self:output(), "")
end

function M.TestApplication:test_a_plugin_that_fails_shows_in_its_block_and_the_report_goes_on()
  dom0.values["app.plugins"] = "probe"
  self.application.init()
  require("probe.plugin").collect = function() error("no figures") end
  lu.assertEquals(self.application.main(), 0)
  lu.assertStrContains(self:output(), "no figures")
end

function M.TestApplication:test_values_that_contain_themselves_fail_in_their_block_in_both_forms()
  dom0.values["app.plugins"] = "probe"
  self.application.init()
  require("probe.plugin").collect = function()
    local values = {}
    values.again = values
    return values
  end
  lu.assertEquals(self.application.main(), 0)
  lu.assertStrContains(self:output(), "Host ")
  lu.assertStrContains(self:output(),
    "Plugin Probe 1\n  failed: cannot encode a table that contains itself at 'again'\n")
  lu.assertStrContains(dom0:log(), "warning: Plugin 'probe' collected what cannot be kept: ")
  self.written, arg = {}, { "--json" } -- luacheck: ignore 121
  lu.assertEquals(self.application.main(), 0)
  lu.assertEquals(json.decode(self:output()).plugins[1].error,
    "cannot encode a table that contains itself at 'again'")
end

function M.TestApplication:test_the_background_starts_workers_and_prints_nothing()
  dom0.values["app.background"] = true
  dom0.values["app.plugins"] = "probe"
  self.application.init()
  lu.assertEquals(self.application.main(), 0)
  lu.assertEquals(#dom0.started, 3)
  lu.assertEquals(self:output(), "")
  lu.assertEquals(self.application.shutdown(), 0)
  lu.assertEquals(dom0.started[1].calls, { "stop", "join" })
  lu.assertEquals(calls, {}) -- the plugin lives in its worker there
end

function M.TestApplication:test_shutdown_without_main_is_fine() lu.assertEquals(self.application.shutdown(), 0) end

return M
