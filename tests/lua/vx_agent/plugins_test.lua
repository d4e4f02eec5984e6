local fake_domain = require("support.fake_domain")
local json = require("vex.json")
local plugins = require("vx_agent.plugins")
local settings = require("vex.settings")
local lu = require("luaunit")

local M = { TestNames = {}, TestLoading = {}, TestCalls = {} }

local function set_up() dom0 = fake_domain.new() end
M.TestLoading.setUp, M.TestCalls.setUp = set_up, set_up

local function offer(name, maker) package.preload[name .. ".plugin"] = maker end

local keys, bool = settings.keys, settings.bool

function M.TestNames:setUp()
  set_up()
  self.values = {}
  settings.keys = function(prefix)
    lu.assertEquals(prefix, "vex.Plugin")
    local found = {}
    for key in pairs(self.values) do found[#found + 1] = key end
    table.sort(found)
    return found
  end
  settings.bool = function(key) return self.values[key] end
end

function M.TestNames:tearDown() settings.keys, settings.bool = keys, bool end

function M.TestNames:test_names_are_separated_by_commas_and_absence_is_no_plugin()
  lu.assertEquals(plugins.names("a, b,,c"), { "a", "b", "c" })
  lu.assertEquals(plugins.names(nil), {})
end

function M.TestNames:test_a_setting_enables_a_plugin_too_and_each_is_named_once()
  self.values = {
    ["vex.Plugin.b"] = true, ["vex.Plugin.a"] = true, ["vex.Plugin.c"] = false, ["vex.Plugin.d.e"] = true,
    ["vex.Plugin.listed"] = true,
  }
  lu.assertEquals(plugins.names("listed,listed"), { "listed", "a", "b", "d.e" })
  lu.assertEquals(dom0.lines, {})
end

function M.TestLoading:test_a_plugin_that_fails_is_one_warning_with_its_traceback_and_the_others_load()
  offer("bad", function() error("boom") end)
  offer("good", function() return { name = "Good", version = "1.0" } end)
  local loaded = plugins.load_all({ "bad", "good", "missing_everywhere" })
  lu.assertEquals(#loaded, 3)
  lu.assertNil(loaded[1].plugin)
  lu.assertStrContains(loaded[1].error, "boom")
  lu.assertEquals({ loaded[2].id, loaded[2].plugin.name, loaded[2].error }, { "good", "Good" })
  lu.assertEquals(loaded[3].id, "missing_everywhere")
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
    { { name = "x", version = "1", units = "bytes" }, "'units' is no table" },
    { { name = "x", version = "1", metrics = 5 }, "'metrics' is no table" },
    { { name = "x", version = "1", metrics = { a = "counter" } }, "'metrics' at 'a' is no table" },
    { { name = "x", version = "1", metrics = { a = { kind = "x" } } },
      "'metrics' at 'a' has 'kind', and not one of type, unit, label, help" },
    { { name = "x", version = "1", metrics = { a = { help = 5 } } }, "'metrics' at 'a': 'help' is no text" },
    { { name = "x", version = "1", metrics = { a = { type = "sum" } } },
      "'metrics' at 'a': the type 'sum' is neither counter nor gauge" },
  }
  for index, case in ipairs(cases) do
    offer("odd" .. index, function() return case[1] end)
    local plugin, message = plugins.load("odd" .. index)
    lu.assertNil(plugin)
    lu.assertStrContains(message, case[2])
  end
end

function M.TestLoading:test_the_marks_of_a_plugin_are_taken_as_they_are()
  local marks = {
    sent = { type = "counter", unit = "bytes", help = "Sent.", label = "name" }, load = { type = "gauge" },
  }
  offer("marked", function() return { name = "x", version = "1", metrics = marks } end)
  lu.assertEquals(plugins.marks(assert(plugins.load("marked"))), marks)
  lu.assertNil(plugins.marks({}))
  lu.assertNil(plugins.marks({ metrics = {} }))
end

function M.TestLoading:test_the_units_of_a_plugin_are_those_that_are_texts()
  lu.assertNil(plugins.units({}))
  lu.assertNil(plugins.units({ units = { 1, sent = print } }))
  lu.assertEquals(plugins.units({ units = { sent = "bytes", age = 7, "seconds" } }), { sent = "bytes" })
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

function M.TestCalls:test_a_number_that_is_none_is_null_and_one_warning_that_names_it()
  local entry = { id = "x", plugin = { collect = function() return { good = 1, deep = { { rate = 1 / 0 } } } end } }
  for _ = 1, 2 do
    local values, encoded = plugins.collect(entry, dom0)
    lu.assertEquals(values.good, 1)
    lu.assertIs(values.deep[1].rate, json.null)
    lu.assertEquals(encoded, '{"deep":[{"rate":null}],"good":1}')
  end
  lu.assertEquals(dom0.lines,
    { "warning: Plugin 'x': the value 'deep[1].rate' is no finite number, null is kept" })
end

function M.TestCalls:test_of_many_numbers_that_are_none_the_first_ten_are_named_and_the_others_counted_once()
  local list = {}
  for index = 1, 100 do list[index] = 0 / 0 end
  local entry = { id = "x", plugin = { collect = function() return { list = list } end } }
  for _ = 1, 2 do lu.assertEquals(#plugins.collect(entry, dom0).list, 100) end
  lu.assertEquals(#dom0.lines, 11)
  lu.assertEquals(dom0.lines[10], "warning: Plugin 'x': the value 'list[10]' is no finite number, null is kept")
  lu.assertEquals(dom0.lines[11],
    "warning: Plugin 'x': 90 more values are no finite numbers, null is kept; further ones are not told")
end

function M.TestCalls:test_an_empty_list_stays_a_list()
  local _, encoded = plugins.collect({ id = "x", plugin = { collect = function() return { list = {} } end } }, dom0)
  lu.assertEquals(encoded, '{"list":[]}')
end

function M.TestCalls:test_values_that_cannot_be_kept_are_a_warning_that_names_the_key()
  local entry = { id = "x", plugin = { collect = function() return { a = { f = print } } end } }
  local values, message = plugins.collect(entry, dom0)
  lu.assertNil(values)
  lu.assertEquals(message, "cannot encode a value of type function at 'a.f'")
  lu.assertEquals(dom0.lines, { "warning: Plugin 'x' collected what cannot be kept: " .. message })
end

function M.TestCalls:test_values_that_are_no_table_are_a_warning()
  local values, message = plugins.collect({ id = "x", plugin = { collect = function() return 5 end } }, dom0)
  lu.assertNil(values)
  lu.assertEquals(message, "collect returned a number instead of a table")
end

return M
