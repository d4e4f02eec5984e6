local json = require("vex.json")
local plugin_metrics = require("vx_agent.plugin_metrics")
local lu = require("luaunit")

local M = { TestPluginMetrics = {} }

-- The samples of a plugin p, without HELP and TYPE.
local function samples(values, author)
  local text, dropped, messages = plugin_metrics.text("p", assert(json.decode(json.encode(values))), author or {})
  local lines = {}
  for line in text:gmatch("[^\n]+") do
    if line:sub(1, 1) ~= "#" then lines[#lines + 1] = (line:gsub("^vex_plugin_p_", "")) end
  end
  return lines, dropped, messages, text
end

function M.TestPluginMetrics:test_a_path_becomes_a_name_and_texts_are_left_out()
  local lines, dropped = samples({ a = 1, b = { c = 2, ["d e"] = true, f = "text", g = {} }, h = json.null })
  lu.assertEquals(lines, { "a 1", "b_c 2", "b_d_e 1" })
  lu.assertEquals(dropped, 0)
end

function M.TestPluginMetrics:test_every_family_has_help_and_type()
  local _, _, _, text = samples({ a = 1, b = 2 },
    { marks = { b = { type = "counter", help = "All of b." } } })
  lu.assertEquals(text, [[
# HELP vex_plugin_p_a 'a' of the plugin p.
# TYPE vex_plugin_p_a gauge
vex_plugin_p_a 1
# HELP vex_plugin_p_b_total All of b.
# TYPE vex_plugin_p_b_total counter
vex_plugin_p_b_total 2
]])
end

function M.TestPluginMetrics:test_units_hold_at_any_depth_and_marks_go_before_them()
  local lines = samples({ free = 1, disk = { free = 2, used = 3 }, sizes = { x = 4 }, age = 5 }, {
    units = { free = "bytes", sizes = "bytes", age = "days" },
    marks = { ["disk.used"] = { unit = "ratio" }, age = { unit = "seconds" } },
  })
  lu.assertEquals(lines,
    { "age_seconds 5", "disk_free_bytes 2", "disk_used_ratio 3", "free_bytes 1", "sizes_x_bytes 4" })
end

function M.TestPluginMetrics:test_rows_are_labelled_by_their_name()
  local lines = samples({ disks = { { name = "sda", free = 1 }, { name = 'a"b', free = 2 } } })
  lu.assertEquals(lines, { 'disks_free{name="sda"} 1', 'disks_free{name="a\\"b"} 2' })
end

function M.TestPluginMetrics:test_an_author_names_the_field_that_labels_a_row()
  local lines = samples({ disks = { { mount = "/", free = 1, id = 7 }, { mount = "/home", free = 2 } } },
    { marks = { disks = { label = "mount" }, free = { type = "counter" } } })
  lu.assertEquals(lines, {
    'disks_free_total{mount="/"} 1', 'disks_free_total{mount="/home"} 2', 'disks_id{mount="/"} 7',
  })
end

function M.TestPluginMetrics:test_a_number_that_names_a_row_is_no_figure_of_it()
  local author = { marks = { cpus = { label = "id" } } }
  lu.assertEquals(samples({ cpus = { { id = 3, busy = 1 }, { id = 4, busy = 2 } } }, author),
    { 'cpus_busy{id="3"} 1', 'cpus_busy{id="4"} 2' })
end

function M.TestPluginMetrics:test_rows_without_a_name_and_plain_lists_are_labelled_by_their_number()
  lu.assertEquals(samples({ load = { 0.5, 0.25 }, rows = { { x = 1 }, { x = 2 } } }),
    { 'load{index="1"} 0.5', 'load{index="2"} 0.25', 'rows_x{index="1"} 1', 'rows_x{index="2"} 2' })
end

function M.TestPluginMetrics:test_a_table_by_names_is_rows_where_the_author_says_so()
  local values = { queues = { ["mail in"] = { length = 1 }, out = { length = 2 } } }
  lu.assertEquals(samples(values), { "queues_mail_in_length 1", "queues_out_length 2" })
  lu.assertEquals(samples(values, { marks = { queues = { label = "queue" } } }),
    { 'queues_length{queue="mail in"} 1', 'queues_length{queue="out"} 2' })
end

function M.TestPluginMetrics:test_rows_in_rows_have_a_label_each()
  lu.assertEquals(samples({ hosts = { { name = "h", disks = { { name = "d", free = 1 } } } } }),
    { 'hosts_disks_free{name="h",disks_name="d"} 1' })
end

function M.TestPluginMetrics:test_of_two_figures_of_one_name_the_first_counts_and_it_is_told()
  local lines, dropped, messages = samples({ ["a b"] = 1, ["a-b"] = 2, a_b = 3 })
  lu.assertEquals(lines, { "a_b 1" })
  lu.assertEquals(dropped, 2)
  lu.assertEquals(messages, { {
    reason = "same", message = "has different figures that would be one metric, 'a-b' and 'a b'; the first counts",
  } })
end

function M.TestPluginMetrics:test_of_two_rows_of_one_name_the_first_counts_and_it_is_told()
  local lines, dropped, messages = samples({ rows = { { name = "x", v = 1 }, { name = "x", v = 2 } } })
  lu.assertEquals(lines, { 'rows_v{name="x"} 1' })
  lu.assertEquals(dropped, 1)
  lu.assertEquals(messages[1].message, "has rows of one name in 'rows.v'; the first counts")
end

function M.TestPluginMetrics:test_a_plugin_has_a_thousand_metrics_and_the_others_are_counted()
  local values = {}
  for index = 1, 2500 do values[index] = index end
  local lines, dropped, messages = samples({ a = values, b = 1 })
  lu.assertEquals(#lines, 1000)
  lu.assertEquals(dropped, 1501)
  lu.assertEquals(messages, { {
    reason = "many", message = "has more than 1000 metrics; those from 'a' on are left out",
  } })
end

function M.TestPluginMetrics:test_figures_in_too_many_tables_are_counted_and_told()
  local values = { x = 1 }
  for _ = 1, 7 do values = { t = values } end
  lu.assertEquals(samples(values), { "t_t_t_t_t_t_t_x 1" })
  local lines, dropped, messages = samples({ t = values })
  lu.assertEquals(lines, {})
  lu.assertEquals(dropped, 1)
  lu.assertEquals(messages[1].reason, "deep")
end

function M.TestPluginMetrics:test_a_name_that_is_too_long_is_counted_and_told()
  local lines, dropped, messages = samples({ [("x"):rep(188)] = 1, [("y"):rep(187)] = 2 })
  lu.assertEquals(lines, { ("y"):rep(187) .. " 2" })
  lu.assertEquals(dropped, 1)
  lu.assertEquals(messages[1].reason, "long")
end

function M.TestPluginMetrics:test_a_label_that_would_be_the_servers_own_gets_another_name()
  lu.assertEquals(samples({ q = { a = 1 } }, { marks = { q = { label = "__name__" } } }), { 'q{label_name__="a"} 1' })
end

return M
