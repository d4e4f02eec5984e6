--- The agent's plugins: found by name, checked, and called so that a failure stays theirs.
--
-- A plugin x is the module "x.plugin": a table with `name` and `version`, and what it has of start(dom), collect(dom),
-- stop(dom), `interval`, `units` and `metrics`. `collect` returns a table of values; `units` has the units of some, by
-- their keys, and `metrics` what they are to those who collect figures.

local json = require("vex.json")
local settings = require("vex.settings")
local text = require("vex.text")
local log = require("vex.log")("vex.PluginUtils")

local M = {}

local mark_fields = { type = true, unit = true, label = true, help = true }

-- What is wrong with the marks of its metrics, or nil.
local function fault_of_marks(marks)
  for key, mark in pairs(marks) do
    local place = ("'metrics' at '%s'"):format(tostring(key))
    if type(mark) ~= "table" then return place .. " is no table" end
    for field, value in pairs(mark) do
      if not mark_fields[field] then
        return ("%s has '%s', and not one of type, unit, label, help"):format(place, tostring(field))
      end
      if type(value) ~= "string" then return ("%s: '%s' is no text"):format(place, field) end
    end
    if mark.type and mark.type ~= "counter" and mark.type ~= "gauge" then
      return ("%s: the type '%s' is neither counter nor gauge"):format(place, mark.type)
    end
  end
end

-- What is wrong with a module's value, or nil.
local function fault_of(plugin)
  if type(plugin) ~= "table" then return "its value is no table but a " .. type(plugin) end
  for _, field in ipairs({ "name", "version" }) do
    if type(plugin[field]) ~= "string" then return ("it has no text '%s'"):format(field) end
  end
  for _, field in ipairs({ "start", "collect", "stop" }) do
    if plugin[field] ~= nil and type(plugin[field]) ~= "function" then return ("'%s' is no function"):format(field) end
  end
  for _, field in ipairs({ "units", "metrics" }) do
    if plugin[field] ~= nil and type(plugin[field]) ~= "table" then return ("'%s' is no table"):format(field) end
  end
  return fault_of_marks(plugin.metrics or {})
end

local enabling = "vex.Plugin"

--- The names of the plugins that are enabled: those of a list as "app.plugins" holds it, in its order, then those whose
-- setting "vex.Plugin.NAME" is on.
function M.names(list)
  local names, known = {}, {}
  local function add(name)
    if not known[name] then names[#names + 1] = name end
    known[name] = true
  end
  for _, name in ipairs(text.split(list or "")) do add(name) end
  for _, key in ipairs(settings.keys(enabling)) do
    if settings.bool(key) then add(key:sub(#enabling + 2)) end
  end
  return names
end

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

--- Loads all of `names`. One that fails is a warning.
-- @return array with an entry for each, { id = name in the list, plugin = table, or error = message }
function M.load_all(names)
  local entries = {}
  for _, name in ipairs(names) do
    local plugin, message = M.load(name)
    entries[#entries + 1] = { id = name, plugin = plugin, error = message }
    if plugin then
      log.info("plugin %s %s loaded", plugin.name, plugin.version)
    else
      log.warning("Plugin '%s' cannot be loaded: %s", name, message)
    end
  end
  return entries
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

--- The units that a plugin tells, those that are texts; nil when it tells none.
function M.units(plugin)
  local units = {}
  for key, unit in pairs(plugin.units or {}) do
    if type(key) == "string" and type(unit) == "string" then units[key] = unit end
  end
  return next(units) and units
end

--- What the plugin tells of its metrics, as plain tables; nil when it tells nothing.
function M.marks(plugin)
  return plugin.metrics and next(plugin.metrics) and plugin.metrics or nil
end

local most_told = 10

-- The JSON text of values. A number that is none is null and one warning, so that it does not take the others along; of
-- the places beyond the first few a plugin has one warning in all, with their number then.
local function encode(entry, values)
  entry.told = entry.told or { known = {}, count = 0 }
  local told, untold = entry.told, 0
  local encoded, message = json.encode(values, nil, {
    empty_arrays = true,
    on_no_number = function(place)
      if told.known[place] then return end
      if told.count == most_told then
        untold = untold + 1
        return
      end
      told.known[place], told.count = true, told.count + 1
      log.warning("Plugin '%s': the value '%s' is no finite number, null is kept", entry.id, place)
    end,
  })
  if untold > 0 and not told.all then
    told.all = true
    log.warning("Plugin '%s': %d more values are no finite numbers, null is kept; further ones are not told",
      entry.id, untold)
  end
  return encoded, message
end

--- Collects from a plugin that has been started. What JSON cannot hold otherwise is a failure of this plugin, so that a
-- report on all of them does not break at one.
-- @return table of values, as their JSON text has them, and that text; or nil and a message
function M.collect(entry, dom)
  local ok, values = M.call(entry, "collect", dom)
  if not ok then return nil, values end
  if values ~= nil and type(values) ~= "table" then
    local message = "collect returned a " .. type(values) .. " instead of a table"
    log.warning("Plugin '%s': %s", entry.id, message)
    return nil, message
  end
  local encoded, message = encode(entry, values or {})
  if encoded then
    values, message = json.decode(encoded)
    if values then return values, encoded end
  end
  log.warning("Plugin '%s' collected what cannot be kept: %s", entry.id, message)
  return nil, message
end

return M
