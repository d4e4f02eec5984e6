local positive = require("vx_agent.positive")
local settings = require("vex.settings")
local lu = require("luaunit")

local M = { TestPositive = {} }

local interval, days = "vex.HeartbeatInterval", "vex.HeartbeatKeepDays"

function M.TestPositive:setUp()
  self.lines = {}
  local log = { warning = function(...) table.insert(self.lines, (...):format(select(2, ...))) end }
  self.read = positive(log)
end

function M.TestPositive:tearDown()
  for _, key in ipairs({ interval, days }) do dom0:Set(key, nil) end
end

function M.TestPositive:test_the_setting_counts_and_without_one_the_default()
  lu.assertEquals(self.read(interval), 60)
  dom0:Set(interval, "7")
  lu.assertEquals(self.read(interval), 7)
  lu.assertEquals(self.lines, {})
end

function M.TestPositive:test_what_means_nothing_is_told_once_a_key()
  dom0:Set(interval, 0)
  dom0:Set(days, "9999999999999999999999")
  lu.assertEquals(self.read(interval), 60)
  lu.assertEquals(self.read(interval), 60)
  dom0:Set(days, "9223372036854775807")
  lu.assertEquals(self.read(days), 30)
  lu.assertEquals(self.lines, {
    "The setting 'vex.HeartbeatInterval' is 0 and must be at least 1; 60 is taken",
    "The setting 'vex.HeartbeatKeepDays' is too large and must be at least 1; 30 is taken",
  })
  lu.assertEquals(settings.text(days), "9223372036854775807")
end

return M
