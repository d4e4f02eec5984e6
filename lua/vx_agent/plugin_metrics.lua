--- The numbers that a plugin has collected, as metrics.
--
-- A number at "a", "b" of plugin x is the metric vex_plugin_x_a_b; a list of tables is one with a label. What an author
-- marks beside the plugin's `units` tells units, counters, labels and what a metric is. Pure: it asks nobody.

local json = require("vex.json")
local prometheus = require("vex.prometheus")

local M = {}

local most_series, most_depth, most_name_bytes = 1000, 8, 200

local function sorted_keys(values)
  local keys = {}
  for key in pairs(values) do keys[#keys + 1] = key end
  table.sort(keys)
  return keys
end

local function is_table(value) return type(value) == "table" and not rawequal(value, json.null) end

-- A mark of the whole path goes before one of the last key; what neither says holds as around it.
local function about_of(state, path, key, around)
  local exact, named = state.marks[path] or {}, state.marks[key] or {}
  return {
    type = exact.type or named.type or around.type,
    unit = exact.unit or named.unit or state.units[key] or around.unit,
    help = exact.help or named.help or around.help,
    label = exact.label or named.label,
  }
end

local function drop(state, reason, what)
  state.dropped = state.dropped + 1
  state.reasons[reason] = state.reasons[reason] or what
end

local function add_number(state, value, place)
  if place.depth > most_depth then return drop(state, "deep", place.path) end
  if state.families.count >= most_series then return drop(state, "many", place.path) end
  local is_counter = place.about.type == "counter"
  local name = prometheus.family_name(place.name, place.about.unit, is_counter)
  if #name > most_name_bytes then return drop(state, "long", place.path) end
  local owner = state.owners[name]
  if owner and owner ~= place.path then return drop(state, "same", place.path .. "' and '" .. owner) end
  state.owners[name] = place.path
  local help = place.about.help or ("'%s' of the plugin %s."):format(place.path, state.id)
  local about = { help = help, type = is_counter and "counter" or "gauge" }
  if not state.families:add(name, about, value, place.labels) then drop(state, "rows", place.path) end
end

local walk

-- The place of what is under a key.
local function below(state, place, key)
  local path = place.path == "" and key or place.path .. "." .. key
  return {
    path = path, key = key, name = place.name .. "_" .. prometheus.clean(key), depth = place.depth + 1,
    labels = place.labels, about = about_of(state, path, key, place.about),
  }
end

-- The place of a row: that of its table, with a label more.
local function row_of(place, name, value)
  local labels = { table.unpack(place.labels) }
  labels[#labels + 1] = { name, value }
  return {
    path = place.path, key = place.key, name = place.name, depth = place.depth + 1, labels = labels,
    about = place.about,
  }
end

-- A label's name that none of the outer ones has.
local function label_name(place, wanted)
  local name = prometheus.clean(wanted)
  if name:find("^__") then name = name:gsub("^_+", "label_") end
  local function is_taken()
    for _, label in ipairs(place.labels) do
      if label[1] == name then return true end
    end
  end
  if is_taken() then name = prometheus.clean((place.key or "inner") .. "_" .. name) end
  while is_taken() do name = name .. "_" end
  return name
end

local function scalar_text(value)
  if type(value) == "number" and value == math.floor(value) and math.abs(value) < 2 ^ 53 then
    return ("%d"):format(value)
  end
  return (type(value) == "string" or type(value) == "number") and tostring(value) or nil
end

-- The rows of a list: named by the field that the author marks, else by "name", else by their number.
local function walk_list(state, list, place)
  local field = place.about.label or "name"
  place.about.label = nil -- it is not that of what is in a row
  local named = false
  for _, row in ipairs(list) do named = named or (is_table(row) and scalar_text(row[field]) ~= nil) end
  local name = label_name(place, named and field or "index")
  for index, row in ipairs(list) do
    local value = named and is_table(row) and scalar_text(row[field]) or tostring(index)
    local at = row_of(place, name, value)
    at.row_field = named and field or nil -- it names the row: it is no figure of it
    walk(state, row, at)
  end
end

local function walk_object(state, object, place)
  local keys = sorted_keys(object)
  if place.about.label then
    local name = label_name(place, place.about.label)
    place.about.label = nil
    for _, key in ipairs(keys) do walk(state, object[key], row_of(place, name, key)) end
    return
  end
  for _, key in ipairs(keys) do
    if key ~= place.row_field then walk(state, object[key], below(state, place, key)) end
  end
end

function walk(state, value, place)
  if type(value) == "number" or type(value) == "boolean" then return add_number(state, value, place) end
  if not is_table(value) then return end
  if #value > 0 then return walk_list(state, value, place) end
  walk_object(state, value, place)
end

local told = {
  many = "has more than %d metrics; those from '%s' on are left out",
  deep = "has figures in more than %d tables in each other, such as '%s'; they are no metrics",
  long = "has metrics whose names would be longer than %d bytes, such as that of '%s'; they are left out",
  same = "has different figures that would be one metric, '%s'; the first counts",
  rows = "has rows of one name in '%s'; the first counts",
}
local limits = { many = most_series, deep = most_depth, long = most_name_bytes }

--- The metrics of one collection.
-- @param id the plugin's name in the list
-- @param values as JSON's decoder makes them
-- @param author { units = from plugins.units, marks = from plugins.marks }
-- @return the text of the families; how many figures are not in it; and an array of { reason, message } on these
function M.text(id, values, author)
  local state = {
    id = id, units = author.units or {}, marks = author.marks or {}, families = prometheus.new(), owners = {},
    dropped = 0, reasons = {},
  }
  walk(state, values, { path = "", name = "vex_plugin_" .. prometheus.clean(id), depth = 0, labels = {}, about = {} })
  local messages = {}
  for _, reason in ipairs(sorted_keys(state.reasons)) do
    local limit, place = limits[reason], state.reasons[reason]
    local message = limit and told[reason]:format(limit, place) or told[reason]:format(place)
    messages[#messages + 1] = { reason = reason, message = message }
  end
  return state.families:text(), state.dropped, messages
end

return M
