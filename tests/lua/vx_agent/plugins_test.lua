local fake_domain = require("support.fake_domain")
local plugins = require("vx_agent.plugins")
local lu = require("luaunit")

local M = { TestLoading = {}, TestCalls = {} }

local function set_up() dom0 = fake_domain.new() end
M.TestLoading.setUp, M.TestCalls.setUp = set_up, set_up

local function offer(name, maker) package.preload[name .. ".plugin"] = maker end

function M.TestLoading:test_names_are_separated_by_commas_and_absence_is_no_plugin()
  lu.assertEquals(plugins.names("a, b,,c"), { "a", "b", "c" })
  lu.assertEquals(plugins.names(nil), {})
end

function M.TestLoading:test_a_plugin_that_fails_is_one_warning_with_its_traceback_and_the_others_load()
  offer("bad", function() error("boom") end)
  offer("good", function() return { name = "Good", version = "1.0" } end)
  local loaded = plugins.load_all({ "bad", "good", "missing_everywhere" })
  lu.assertEquals(#loaded, 1)
  lu.assertEquals(loaded[1].id, "good")
  lu.assertEquals(#dom0.lines, 3)
  lu.assertStrContains(dom0.lines[1], "warning: Plugin 'bad' cannot be loaded: ")
  lu.assertStrContains(dom0.lines[1], "boom")
  lu.assertStrContains(dom0.lines[1], "stack traceback:")
  lu.assertEquals(dom0.lines[2], "info: plugin Good 1.0 loaded")
  lu.assertStrContains(dom0.lines[3], "module 'missing_everywhere.plugin' not found")
end

function M.TestLoading:test_what_is_no_plugin_is_refused_with_the_reason()
  local cases = {
    { 5, "no table but a number" }, { {}, "no text 'name'" }, { { name = "x" }, "no text 'version'" },
    { { name = "x", version = 1 }, "no text 'version'" },
    { { name = "x", version = "1", collect = "y" }, "'collect' is no function" },
  }
  for index, case in ipairs(cases) do
    offer("odd" .. index, function() return case[1] end)
    local plugin, message = plugins.load("odd" .. index)
    lu.assertNil(plugin)
    lu.assertStrContains(message, case[2])
  end
end

function M.TestLoading:test_each_loading_is_traced()
  dom0.traced = true
  plugins.load("nowhere")
  lu.assertEquals(dom0.lines[1], "trace vex.PluginUtils: loading plugin 'nowhere'")
end

function M.TestCalls:test_a_function_that_is_missing_is_fine()
  lu.assertTrue((plugins.call({ id = "x", plugin = {} }, "start", dom0)))
  lu.assertEquals(plugins.collect({ id = "x", plugin = {} }, dom0), {})
end

function M.TestCalls:test_each_function_gets_the_domain()
  local got
  plugins.call({ id = "x", plugin = { stop = function(...) got = { ... } end } }, "stop", dom0)
  lu.assertEquals(#got, 1)
  lu.assertIs(got[1], dom0)
end

function M.TestCalls:test_a_failure_is_a_warning_and_stays_the_plugins_own()
  local ok, message = plugins.call({ id = "x", plugin = { start = function() error("no disk") end } }, "start", dom0)
  lu.assertFalse(ok)
  lu.assertStrContains(message, "no disk")
  lu.assertStrContains(dom0:log(), "warning: Plugin 'x' failed in start: ")
  lu.assertStrContains(dom0:log(), "stack traceback:")
end

function M.TestCalls:test_values_that_are_no_table_are_a_warning()
  local values, message = plugins.collect({ id = "x", plugin = { collect = function() return 5 end } }, dom0)
  lu.assertNil(values)
  lu.assertEquals(message, "collect returned a number instead of a table")
end

return M
