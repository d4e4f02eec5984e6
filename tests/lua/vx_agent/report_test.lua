local json = require("vex.json")
local report = require("vx_agent.report")
local lu = require("luaunit")

local M = { TestText = {}, TestJson = {} }

local GiB = 2 ^ 30

local function facts()
  return {
    host = "box", system = "Some System 1", kernel = "Linux 6.1", architecture = "x86_64", processors = 4,
    uptime = 93784, load = { 0.5, 0.25, 0.125 },
    memory = { total = 4 * GiB, available = GiB, free = 1, swap_total = 2 * GiB, swap_free = GiB },
    disks = {
      { mount = "/", device = "/dev/a", type = "ext4", total = 100 * GiB, free = 60 * GiB, available = 40 * GiB },
    },
    plugins = {},
  }
end

function M.TestText:test_the_whole_table()
  lu.assertEquals(report.text(facts()), [[
Host        box
System      Some System 1
Kernel      Linux 6.1 x86_64
Processors  4
Uptime      1 d 2 h
Load        0.50 0.25 0.12
Memory      1.0 GiB of 4.0 GiB available
Swap        1.0 GiB of 2.0 GiB free

Disks
  Mounted on  Device  Type     Size    Used  Reserved    Free  Full
  /           /dev/a  ext4  100 GiB  40 GiB    20 GiB  40 GiB  50 %
]])
end

function M.TestText:test_an_absent_fact_has_no_line()
  lu.assertEquals(report.text({ host = "box", memory = {}, disks = {} }), "Host  box\n")
end

function M.TestText:test_memory_without_a_figure_of_what_is_available_shows_what_there_is()
  lu.assertStrContains(report.text({ memory = { total = GiB } }), "Memory  1.0 GiB\n")
  lu.assertStrContains(report.text({ memory = { total = GiB, free = GiB / 2 } }), "512 MiB of 1.0 GiB free\n")
  lu.assertStrContains(report.text({ memory = { swap_total = 0, swap_free = 0 } }), "Swap  none")
end

function M.TestText:test_an_empty_disk_divides_by_nothing()
  local disk = { mount = "/x", device = "x", type = "t", total = 0, free = 0, available = 0 }
  lu.assertStrContains(report.text({ disks = { disk } }), "0 B   0 B       0 B   0 B     -\n")
end

function M.TestText:test_a_block_a_plugin_with_values_tables_and_lists()
  local text = report.text({ plugins = { { name = "Net", version = "1.2", values = {
    count = 3, share = 0.5, up = true, empty = {}, inner = { a = "b" },
    list = { { name = "eth0", sent = 10 }, { name = "w", sent = 2000, note = "x" } },
  } } } })
  lu.assertEquals(text, [[

Plugin Net 1.2
  count  3
  empty  none
  share  0.50
  up     true
  inner
    a  b
  list
    name  note  sent
    eth0  -       10
    w     x     2000
]])
end

function M.TestText:test_numbers_are_short_and_never_look_like_nothing()
  local shown = {
    [0.001] = "0.001", [0.000123456] = "0.00012", [0.5] = "0.50", [1234.5678] = "1234.57", [-0.05] = "-0.05",
    [2 ^ 60] = "1152921504606846976", [-2 ^ 53] = "-9007199254740992", [1e300] = "1e+300", [0] = "0", [7] = "7",
  }
  for number, expected in pairs(shown) do
    local text = report.text({ plugins = { { name = "A", version = "1", values = { x = number } } } })
    lu.assertEquals(text, "\nPlugin A 1\n  x  " .. expected .. "\n")
  end
end

function M.TestText:test_numbers_are_shown_in_the_units_that_the_plugin_tells()
  local text = report.text({ plugins = { {
    name = "Net", version = "1",
    units = { sent = "bytes", rate = "bytes/s", age = "seconds", due = "days", memory = "bytes", odd = "b\27" },
    values = {
      sent = 2 ^ 30, rate = 1536, age = 3700, due = 2.5, odd = 1, plain = 4096, word = "x",
      memory = { min = 12.5, max = -2048 },
      list = { { name = "eth0", sent = 10, rate = json.null }, { name = "w", sent = 0, age = 1.5 } },
    },
  } } })
  lu.assertEquals(text, [[

Plugin Net 1
  age    1 h 1 min
  due    2.50 days
  odd    1 b\x1B
  plain  4096
  rate   1.5 KiB/s
  sent   1.0 GiB
  word   x
  list
    name     age  rate  sent
    eth0       -  -     10 B
    w     1.50 s  -      0 B
  memory
    max  -2.0 KiB
    min  12.50 B
]])
end

function M.TestText:test_numbers_beyond_all_measure_are_shown_in_any_unit()
  local text = report.text({ plugins = { {
    name = "A", version = "1", units = { bytes = "bytes", rate = "bytes/s", time = "seconds" },
    values = { bytes = 1e300, rate = -1e300, time = 1e300 },
  } } })
  lu.assertEquals(text, "\nPlugin A 1\n  bytes  1e+300 B\n  rate   -1e+300 B/s\n  time   1e+300 s\n")
end

function M.TestText:test_what_a_plugin_tells_does_nothing_to_the_terminal_and_stays_in_its_line()
  local text = report.text({
    host = "b\27[2Jx",
    plugins = {
      { name = "N\27]0;x\7", version = "1\n2", values = {
        ["k\27[1m"] = "v\155\nw", ["t\r"] = { a = "b" }, list = { { ["f\n"] = "\194\155" } },
      } },
      { name = "bad\27", error = "x\27[5m\nmore" },
    },
  })
  lu.assertEquals(text, [[
Host  b\x1B[2Jx

Plugin N\x1B]0;x\x07 1\x0A2
  k\x1B[1m  v\x9B\x0Aw
  list
    f\x0A
    \xC2\x9B
  t\x0D
    a  b

Plugin bad\x1B
  failed: x\x1B[5m
]])
end

function M.TestText:test_null_is_a_dash_and_a_table_in_a_cell_is_shown()
  local text = report.text({ plugins = { { name = "A", version = "1", values = {
    none = json.null, list = { { name = "x", inner = { 1, 2 } }, { name = json.null } },
  } } } })
  lu.assertEquals(text, [[

Plugin A 1
  none  -
  list
    name  inner
    x     [1,2]
    -     -
]])
end

function M.TestText:test_a_plugin_that_failed_or_has_nothing_says_so()
  lu.assertStrContains(report.text({ plugins = { { name = "A", version = "1", error = "x.lua:1: boom\nstack" } } }),
    "Plugin A 1\n  failed: x.lua:1: boom\n")
  local syntax = "error loading module 'a.plugin' from file '/a.lua':\n\t/a.lua:1: unexpected symbol\nstack"
  lu.assertStrContains(report.text({ plugins = { { name = "a", error = syntax } } }),
    "failed: error loading module 'a.plugin' from file '/a.lua': /a.lua:1: unexpected symbol\n")
  lu.assertStrContains(report.text({ plugins = { { name = "A", version = "1", values = {} } } }), "nothing to tell")
end

function M.TestJson:test_the_figures_are_those_of_the_collection()
  local text = report.json(facts())
  lu.assertEquals(text:sub(-2), "}\n")
  local decoded = json.decode(text)
  lu.assertEquals(decoded.memory.total, 4 * GiB)
  lu.assertEquals(decoded.disks[1].mount, "/")
  lu.assertEquals(decoded.load[3], 0.125)
end

function M.TestJson:test_values_that_json_cannot_hold_are_told()
  local text, message = report.json({ plugins = { { values = { f = print } } } })
  lu.assertNil(text)
  lu.assertStrContains(message, "function")
end

return M
