--- A worker that collects from one plugin for a report, so that many plugins take as long as the slowest of them.
--
-- The plugin starts, collects and stops in it. What it has collected lies in the domain as JSON until it is fetched.

local json = require("vex.json")
local plugins = require("vx_agent.plugins")

local M = {}

local function key(id, what) return "vex.report." .. id .. "." .. what end

--- The worker's body.
-- @param argument { plugin = name }
function M.run(argument)
  local id = argument.plugin
  local plugin, message = plugins.load(id)
  local encoded
  if plugin then
    local entry = { id = id, plugin = plugin }
    local is_started
    is_started, message = plugins.call(entry, "start", dom0)
    if is_started then
      local values
      values, encoded = plugins.collect(entry, dom0)
      if not values then encoded, message = nil, encoded end
      plugins.call(entry, "stop", dom0)
    end
  end
  dom0:Set(key(id, "values"), encoded)
  dom0:Set(key(id, "error"), not encoded and message or nil)
end

--- Waits for the worker of a plugin and fetches what it has collected.
-- @return table of values, or nil and a message
function M.take(worker, id)
  local _, _, fault = worker:Join()
  local encoded, message = dom0:Get(key(id, "values")), dom0:Get(key(id, "error"))
  dom0:Set(key(id, "values"), nil)
  dom0:Set(key(id, "error"), nil)
  if encoded then return json.decode(encoded) end
  return nil, message or fault or "its worker was ended"
end

return M
