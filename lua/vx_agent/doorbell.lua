--- The worker by which a beat is asked for from outside: "vexctl heartbeats --now" rings.

local log = require("vex.log")("vx_agent.doorbell")

local M = {}

--- The worker's body: passes rings on until the agent stops.
function M.run()
  local answered, message = dom0:AnswerDoorbell("vx_agent", "vex.HeartbeatNow")
  if not answered then log.warning("No heartbeat can be asked for from outside: %s", message) end
end

return M
