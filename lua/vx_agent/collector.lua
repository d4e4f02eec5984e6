--- A worker that collects from one plugin.
--
-- It starts the plugin, collects at once and then every "vex.CollectInterval" seconds (or the plugin's own
-- `interval`), and stops the plugin when the agent stops. The latest values lie in the domain as JSON, under
-- "vex.plugin.<name>.values", and as metrics, so that who gives them out has nothing to compute.

local host = require("vex.host")
local plugin_metrics = require("vx_agent.plugin_metrics")
local plugins = require("vx_agent.plugins")
local schedule = require("vx_agent.schedule")
local settings = require("vex.settings")
local log = require("vex.log")("vx_agent.collector")

local M = {}

local request_key, interval_key = "vex.CollectNow", "vex.CollectInterval"
local keys = { request_key, interval_key }
local longest_wait = 60 -- seconds after which the interval is read again: nobody is woken by a file

local function interval_of(plugin)
  local seconds = plugin.interval
  if type(seconds) == "number" and seconds >= 1 then return seconds end
  return settings.int(interval_key)
end

-- Sleeps until a collection is due. False: the worker is to end.
local function sleep(due, dom)
  due:done()
  while true do
    local left = due:left()
    if left <= 0 then return true end
    local written, key = dom:Wait(keys, math.min(left, longest_wait))
    if written == nil then return false end
    if key == request_key then return true end
  end
end

local function keep(entry, dom, what, value) dom:Set("vex.plugin." .. entry.id .. "." .. what, value) end

-- What of the figures is no metric is told once for each reason.
local function keep_metrics(entry, dom, values)
  local text, dropped, messages = nil, nil, {}
  if settings.bool("app.out") then
    text, dropped, messages = plugin_metrics.text(entry.id, values, entry.author)
  end
  keep(entry, dom, "metrics", text)
  keep(entry, dom, "dropped", dropped)
  entry.told_metrics = entry.told_metrics or {}
  for _, one in ipairs(messages) do
    if not entry.told_metrics[one.reason] then
      entry.told_metrics[one.reason] = true
      log.warning("Plugin '%s' %s", entry.id, one.message)
    end
  end
end

--- One collection into the domain.
function M.collect(entry, dom)
  local begin = host.monotonic()
  local values, encoded = plugins.collect(entry, dom)
  keep(entry, dom, "seconds", ("%.6f"):format(host.monotonic() - begin))
  if values then
    keep_metrics(entry, dom, values)
    keep(entry, dom, "bytes", #encoded) -- before them, for who wants none that are too many
    keep(entry, dom, "values", encoded)
    keep(entry, dom, "time", ("%d"):format(dom:TimeMillis()))
  end
  -- Last, because a beat may come at any moment: while there is an error it passes the rest over.
  keep(entry, dom, "error", not values and encoded or nil)
  if values then log.debug("plugin %s: %s", entry.id, encoded) end
  return values ~= nil
end

--- The worker's body.
-- @param argument { plugin = name }
function M.run(argument)
  local plugin, message = plugins.load(argument.plugin)
  if not plugin then
    log.warning("Plugin '%s' cannot be loaded: %s", argument.plugin, message)
    return
  end
  local author = { units = plugins.units(plugin), marks = plugins.marks(plugin) }
  local entry = { id = argument.plugin, plugin = plugin, author = author }
  local is_started, fault = plugins.call(entry, "start", dom0)
  if not is_started then
    keep(entry, dom0, "error", fault)
    return
  end
  local due = schedule.new(entry.id, function() return interval_of(plugin) end)
  local ending = dom0:Wait(keys, 0) == nil -- from the first wait on no request is missed
  while not ending do
    M.collect(entry, dom0)
    ending = not sleep(due, dom0)
  end
  plugins.call(entry, "stop", dom0)
end

return M
