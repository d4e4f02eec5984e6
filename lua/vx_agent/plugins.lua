--- The agent's plugins: found by name, checked, and called so that a failure stays theirs.
--
-- A plugin x is the module "x.plugin": a table with `name` and `version`, and what it has of start(dom), collect(dom)
-- and stop(dom). `collect` returns a table of values.

local json = require("vex.json")
local text = require("vex.text")
local log = require("vex.log")("vex.PluginUtils")

local M = {}

-- What is wrong with a module's value, or nil.
local function fault_of(plugin)
  if type(plugin) ~= "table" then return "its value is no table but a " .. type(plugin) end
  for _, field in ipairs({ "name", "version" }) do
    if type(plugin[field]) ~= "string" then return ("it has no text '%s'"):format(field) end
  end
  for _, field in ipairs({ "start", "collect", "stop" }) do
    if plugin[field] ~= nil and type(plugin[field]) ~= "function" then return ("'%s' is no function"):format(field) end
  end
end

--- The names in a list as "app.plugins" holds it.
function M.names(list) return text.split(list or "") end

--- Loads one plugin.
-- @return the plugin, or nil and a message, with a traceback where there is one
function M.load(name)
  log.trace("loading plugin '%s'", name)
  local ok, plugin = xpcall(require, debug.traceback, name .. ".plugin")
  if not ok then return nil, plugin end
  local fault = fault_of(plugin)
  if fault then return nil, ("module '%s.plugin': %s"):format(name, fault) end
  return plugin
end

--- Loads all of `names`. One that fails is a warning and left out.
-- @return array of plugins, each { id = name in the list, plugin = table }
function M.load_all(names)
  local loaded = {}
  for _, name in ipairs(names) do
    local plugin, message = M.load(name)
    if plugin then
      loaded[#loaded + 1] = { id = name, plugin = plugin }
      log.info("plugin %s %s loaded", plugin.name, plugin.version)
    else
      log.warning("Plugin '%s' cannot be loaded: %s", name, message)
    end
  end
  return loaded
end

--- Calls one of a plugin's functions with the domain.
-- @return true and its result (nil when the plugin has no such function), or false and a message with traceback, which
-- is logged as a warning
function M.call(entry, method, dom)
  local body = entry.plugin[method]
  if not body then return true end
  local ok, result = xpcall(body, debug.traceback, dom)
  if ok then return true, result end
  log.warning("Plugin '%s' failed in %s: %s", entry.id, method, tostring(result))
  return false, tostring(result)
end

--- Collects from a plugin that has been started. Values that JSON cannot hold are a failure of this plugin, so that a
-- report on all of them does not break at one.
-- @return table of values and its JSON text, or nil and a message
function M.collect(entry, dom)
  local ok, values = M.call(entry, "collect", dom)
  if not ok then return nil, values end
  if values ~= nil and type(values) ~= "table" then
    local message = "collect returned a " .. type(values) .. " instead of a table"
    log.warning("Plugin '%s': %s", entry.id, message)
    return nil, message
  end
  values = values or {}
  local encoded, message = json.encode(values)
  if not encoded then
    log.warning("Plugin '%s' collected what cannot be kept: %s", entry.id, message)
    return nil, message
  end
  return values, encoded
end

return M
