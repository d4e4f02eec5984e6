-- What the child tells of the one before it.

local fake_domain = require("support.fake_domain")
local lu = require("luaunit")
local restarts = require("vx_agent.restarts")
local temp = require("support.temp")

local M = { TestRestarts = {} }

local crash_text = "Child process crashed with status 139 (signal 11: Segmentation fault)"

function M.TestRestarts:setUp()
  self.folder = temp.folder()
  dom0 = fake_domain.new({
    ["app.name"] = "vx_agent", ["app.restart.count"] = 3, ["app.restart.crashes"] = 2, ["app.restart.crashed"] = true,
    ["app.restart.process"] = 4242, ["app.restart.end"] = crash_text,
  })
  dom0.folder = self.folder
end

local real_dom = dom0

function M.TestRestarts:tearDown()
  temp.remove(self.folder)
  dom0 = real_dom
end

local function number(value)
  return string.char(value % 256, math.floor(value / 256) % 256, math.floor(value / 65536) % 256,
    math.floor(value / 16777216) % 256)
end

-- A dump with three parts, of which the last tells the process.
local function dump_of(process)
  local directory, misc = 32, 32 + 3 * 12
  return "MDMP" .. number(0xA793) .. number(3) .. number(directory) .. ("\0"):rep(16)
    .. number(3) .. number(0) .. number(misc) .. number(7) .. number(0) .. number(misc)
    .. number(15) .. number(24) .. number(misc) .. number(24) .. number(3) .. number(process)
end

function M.TestRestarts:write(bytes)
  local path = self.folder .. "/vx_agent.mdmp"
  local file = assert(io.open(path, "wb"))
  file:write(bytes)
  file:close()
  return path
end

function M.TestRestarts:told()
  restarts.tell(dom0)
  lu.assertEquals(#dom0.events, 1)
  return dom0.events[1]
end

function M.TestRestarts:test_nobody_before_is_nothing_to_tell()
  dom0.values["app.restart.count"] = nil
  lu.assertNil(restarts.tell(dom0))
  lu.assertNil(dom0.events)
end

function M.TestRestarts:test_a_crash_is_told_with_its_signal_its_dump_and_its_number()
  local path = self:write(dump_of(4242))
  lu.assertEquals(self:told(), {
    number = 5111, severity = 2,
    text = crash_text .. ", process 4242; crash dump: " .. path .. "; 3 restarts, 2 of them after a crash",
  })
end

function M.TestRestarts:test_processes_of_large_numbers_are_told_apart()
  dom0.values["app.restart.process"] = 0x12345678
  local path = self:write(dump_of(0x12345678))
  lu.assertStrContains(self:told().text, "; crash dump: " .. path .. ";")
end

function M.TestRestarts:test_the_dump_of_another_crash_is_not_this_ones()
  self:write(dump_of(4241))
  lu.assertEquals(self:told().text,
    crash_text .. ", process 4242; no crash dump; 3 restarts, 2 of them after a crash")
end

function M.TestRestarts:test_a_file_that_is_no_whole_dump_is_none()
  local whole = dump_of(4242)
  self:write("")
  lu.assertStrContains(self:told().text, "; no crash dump;")
  for length = 1, #whole - 1, 7 do
    dom0.events = nil
    self:write(whole:sub(1, length))
    lu.assertStrContains(self:told().text, "; no crash dump;")
  end
  dom0.events = nil
  self:write("X" .. whole:sub(2))
  lu.assertStrContains(self:told().text, "; no crash dump;")
  dom0.events = nil
  self:write(whole:sub(1, 8) .. ("\255"):rep(4) .. whole:sub(13)) -- of more parts than any has
  lu.assertStrContains(self:told().text, "; crash dump: ")
end

function M.TestRestarts:test_a_folder_that_is_not_to_be_used_is_a_warning_and_the_event_is_written()
  self:write(dump_of(4242))
  dom0.folder, dom0.refused = nil, "it belongs to another"
  lu.assertStrContains(self:told().text, "; no crash dump;")
  lu.assertEquals(dom0:log(), "warning: no crash dump is looked for: it belongs to another")
end

function M.TestRestarts:test_a_restart_without_a_crash_is_told_as_one()
  self:write(dump_of(4242))
  dom0.values["app.restart.crashed"], dom0.values["app.restart.count"] = false, 1
  dom0.values["app.restart.crashes"] = 0
  dom0.values["app.restart.end"] = "Child process exited with status 768 (exit 3)"
  lu.assertEquals(self:told(), {
    number = 5112, severity = 4,
    text = "Child process exited with status 768 (exit 3), process 4242; 1 restart, 0 of them after a crash",
  })
end

function M.TestRestarts:test_keys_that_somebody_else_wrote_do_no_harm()
  dom0.values["app.restart.process"], dom0.values["app.restart.crashes"] = "x", nil
  dom0.values["app.restart.end"] = nil
  lu.assertEquals(self:told().text,
    "the child has ended, process 0; no crash dump; 3 restarts, 0 of them after a crash")
end

return M
