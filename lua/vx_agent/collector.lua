--- A worker that collects from one plugin.
--
-- It starts the plugin, collects at once and then every "vex.CollectInterval" seconds (or the plugin's own
-- `interval`), and stops the plugin when the agent stops. The latest values lie in the domain as JSON, under
-- "vex.plugin.<name>.values".

local plugins = require("vx_agent.plugins")
local positive = require("vx_agent.positive")
local log = require("vex.log")("vx_agent.collector")

local M = {}

local setting = positive(log)

local function interval_of(plugin)
  local seconds = plugin.interval
  if type(seconds) == "number" and seconds >= 1 then return seconds end
  return setting("vex.CollectInterval")
end

--- One collection into the domain.
function M.collect(entry, dom)
  local values, encoded = plugins.collect(entry, dom)
  if not values then return false end
  dom:Set("vex.plugin." .. entry.id .. ".values", encoded)
  dom:Set("vex.plugin." .. entry.id .. ".time", ("%d"):format(dom:TimeMillis()))
  log.debug("plugin %s: %s", entry.id, encoded)
  return true
end

--- The worker's body.
-- @param argument { plugin = name }
function M.run(argument)
  local plugin, message = plugins.load(argument.plugin)
  if not plugin then
    log.warning("Plugin '%s' cannot be loaded: %s", argument.plugin, message)
    return
  end
  local entry = { id = argument.plugin, plugin = plugin }
  if not plugins.call(entry, "start", dom0) then return end
  local wait_seconds = 0 -- from the first wait on no request is missed, whatever a collection takes
  while dom0:Wait("vex.CollectNow", wait_seconds) ~= nil do
    M.collect(entry, dom0)
    wait_seconds = interval_of(plugin)
  end
  plugins.call(entry, "stop", dom0)
end

return M
