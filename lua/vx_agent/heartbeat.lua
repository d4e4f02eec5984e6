--- The worker that shows that the agent lives.
--
-- A beat is a row in heartbeat.db and, once the row is on stable storage, a line in the log; then the files for
-- collectors are written. It beats when it starts, every "vex.HeartbeatInterval" seconds, and at once when
-- "vex.HeartbeatNow" becomes true. Between beats it sleeps. An interval that is written counts at once, so that the
-- next beat comes within the new interval; once a minute it looks whether a file has another one.

local history = require("vx_agent.history")
local host = require("vex.host")
local outputs = require("vx_agent.outputs")
local schedule = require("vx_agent.schedule")
local settings = require("vex.settings")
local text = require("vex.text")
local log = require("vex.log")("vex.Heartbeat")

local M = {}
M.__index = M

local request_key, interval_key = "vex.HeartbeatNow", "vex.HeartbeatInterval"
local keys = { request_key, interval_key }
local longest_wait = 60 -- seconds after which the interval is read again: nobody is woken by a file

-- The database, opened when it is first needed and again after a failure.
function M:open_history()
  if self.history then return self.history end
  local folder, refused = self.dom:PluginWorkdir("vx_agent")
  if not folder then return nil, refused end
  local opened, message = history.open(folder .. "/heartbeat.db")
  if opened and message then log.warning("%s", message) end
  self.history = opened
  return opened, message
end

function M:store(beat)
  local opened, message = self:open_history()
  if not opened then return nil, message end
  local id
  id, message = opened:add(beat, {
    days = settings.int("vex.HeartbeatKeepDays"),
    rows = settings.int("vex.HeartbeatKeepRows"),
  })
  if id then return id end
  opened:close()
  self.history = nil
  return nil, message
end

local function describe(beat)
  local parts = {}
  if beat.uptime_s then parts[#parts + 1] = "up " .. text.duration(beat.uptime_s) end
  if beat.load1 then parts[#parts + 1] = ("load %.2f"):format(beat.load1) end
  if beat.memory_available then parts[#parts + 1] = text.bytes(beat.memory_available) .. " of memory available" end
  return table.concat(parts, ", ")
end

--- One beat.
-- @param reason "start", "interval" or "request"
-- @return the row's id, or nil when the database did not take it, which is a warning in the log
function M:beat(reason)
  local load, memory, uptime = host.load(), host.memory(), host.uptime()
  local beat = {
    time_ms = self.dom:TimeMillis(), reason = reason, uptime_s = uptime and math.floor(uptime),
    load1 = load and load[1], memory_available = memory.available,
  }
  local id, message = self:store(beat)
  if id then
    log.info("Heartbeat %d (%s): %s", id, reason, describe(beat))
  else
    log.warning("Heartbeat (%s) without a row in the database, %s: %s", reason, message, describe(beat))
  end
  self.outputs:write(beat)
  return id
end

-- Takes back a request for a beat; whether there was one.
function M:take_request()
  if not self.dom:GetBool(request_key) then return false end
  self.dom:Set(request_key, false)
  return true
end

-- Sleeps until a beat is due. Its reason, or nil when the worker is to end.
function M:wait_for_beat()
  self.schedule:done()
  while true do
    if self:take_request() then return "request" end
    local left = self.schedule:left()
    if left <= 0 then return "interval" end
    log.trace("the next beat is due in %.0f s", left)
    if self.dom:Wait(keys, math.min(left, longest_wait)) == nil then return nil end
  end
end

--- Makes the worker's object.
-- @param dom the domain
-- @param plugins what the files for collectors tell of them: array of { id, name, version, units, error }
function M.new(dom, plugins)
  return setmetatable({ dom = dom, outputs = outputs.new(dom, plugins) }, M)
end

--- The worker's body: beats until the agent stops.
-- @param argument nil or { plugins = as for `new` }
function M.run(argument)
  local self = M.new(dom0, (argument or {}).plugins)
  dom0:Wait(keys, 0) -- from here on no write between two waits is missed
  self:take_request() -- the first beat answers it
  self.schedule = schedule.new("heartbeat", function() return settings.int(interval_key) end)
  local reason = "start"
  while reason do
    self:beat(reason)
    reason = self:wait_for_beat()
  end
  if self.history then self.history:close() end
end

return M
