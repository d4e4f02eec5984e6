local fake_domain = require("support.fake_domain")
local doorbell = require("vx_agent.doorbell")
local lu = require("luaunit")

local M = { TestDoorbell = {} }

function M.TestDoorbell:setUp()
  self.domain = fake_domain.new()
  dom0 = self.domain
end

function M.TestDoorbell:test_rings_are_requests_for_a_beat()
  local asked
  function self.domain.AnswerDoorbell(_, ...)
    asked = { ... }
    return true
  end
  doorbell.run()
  lu.assertEquals(asked, { "vx_agent", "vex.HeartbeatNow" })
  lu.assertEquals(self.domain.lines, {})
end

function M.TestDoorbell:test_a_pipe_that_cannot_be_had_is_a_warning()
  function self.domain.AnswerDoorbell() return false, "/w/doorbell: no room" end
  doorbell.run()
  lu.assertEquals(self.domain.lines, { "warning: No heartbeat can be asked for from outside: /w/doorbell: no room" })
end

return M
