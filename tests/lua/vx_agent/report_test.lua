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
  Mounted on  Device  Type     Size    Free  Used
  /           /dev/a  ext4  100 GiB  40 GiB  50 %
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
  lu.assertStrContains(report.text({ disks = { disk } }), "0 B   0 B     -\n")
end

function M.TestText:test_a_block_a_plugin_with_values_tables_and_lists()
  local text = report.text({ plugins = { { name = "Net", version = "1.2", values = {
    count = 3, share = 0.5, up = true, empty = {}, inner = { a = "b" },
    list = { { name = "eth0", sent = 10 }, { name = "w", sent = 2000, note = "x" } },
  } } } })
  lu.assertEquals(text, [[

Plugin Net 1.2
  count  3
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

function M.TestText:test_a_plugin_that_failed_or_has_nothing_says_so()
  lu.assertStrContains(report.text({ plugins = { { name = "A", version = "1", error = "x.lua:1: boom\nstack" } } }),
    "Plugin A 1\n  failed: x.lua:1: boom\n")
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
