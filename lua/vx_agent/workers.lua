--- The workers of a background run: one that beats, one that listens for who asks for a beat, and one a plugin.

local log = require("vex.log")("vx_agent.workers")
local plugins = require("vx_agent.plugins")

local M = {}
M.__index = M

local join_seconds = 10 -- for all of them together

-- What the worker that beats has to know of a plugin, which lives in another thread.
local function described(entries)
  local descriptions = {}
  for index, entry in ipairs(entries) do
    local plugin = entry.plugin or {}
    descriptions[index] = {
      id = entry.id, name = plugin.name or entry.id, version = plugin.version, error = entry.error,
      units = entry.plugin and plugins.units(plugin) or nil,
    }
  end
  return descriptions
end

--- Starts them.
-- @param entries from vx_agent.plugins; those that could not be loaded get no worker
-- @return the crew, for `stop`
function M.start(dom, entries)
  local self = setmetatable({ dom = dom, members = {} }, M)
  self:hire("heartbeat", "vx_agent.heartbeat", { plugins = described(entries) })
  self:hire("doorbell", "vx_agent.doorbell")
  for _, entry in ipairs(entries) do
    if entry.plugin then self:hire("plugin " .. entry.id, "vx_agent.collector", { plugin = entry.id }) end
  end
  return self
end

function M:hire(name, module, argument)
  local ok, worker = pcall(self.dom.StartThread, self.dom, module, argument)
  if ok and worker then
    self.members[#self.members + 1] = { name = name, worker = worker }
  else
    log.error("Worker '%s' cannot be started: %s", name, tostring(worker))
  end
end

--- Asks all to end, then waits for them. Each plugin's `stop` runs in its worker, where its `start` ran.
function M:stop()
  for _, member in ipairs(self.members) do member.worker:Stop() end
  local deadline = self.dom:TimeMillis() + join_seconds * 1000
  for _, member in ipairs(self.members) do
    local left = math.max(0, deadline - self.dom:TimeMillis()) / 1000
    if not member.worker:Join(left) then log.warning("Worker '%s' has not ended within its time", member.name) end
  end
  self.members = {}
end

return M
