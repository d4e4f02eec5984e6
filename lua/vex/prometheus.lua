--- Metrics as text, in the format that Prometheus reads: families of samples, each with its HELP and TYPE.
--
--   local families = prometheus.new()
--   families:add("disk_free_bytes", { help = "Free room." }, 4096, { { "mount", "/" } })
--   families:text()
--
-- The text has no timestamps, is in the order of the families' names, and ends with a line break.

local text_tools = require("vex.text")

local M = {}
M.__index = M

local most_label_bytes = 200

--- The name with "_" for what a name of a metric or a label cannot have. A colon is left to rules of recording.
function M.clean(name)
  name = name:gsub("[^a-zA-Z0-9_]+", "_")
  return name:find("^[0-9]") and "_" .. name or name
end

local units = { ["%"] = "percent", s = "seconds", ms = "milliseconds", ["/s"] = "per_second", B = "bytes" }

--- What a unit adds to a name: "bytes/s" is "bytes_per_second". Nil for none.
function M.unit_suffix(unit)
  if not unit or unit == "" then return nil end
  local suffix = units[unit] or M.clean((unit:gsub("/s$", "/second"):gsub("/", "_per_"):lower()))
  return suffix:gsub("^_+", ""):gsub("_+$", "")
end

--- The name of a family by the conventions: the unit at its end, and behind it "_total" where it counts.
function M.family_name(name, unit, is_counter)
  local base = is_counter and name:gsub("_total$", "") or name
  local suffix = M.unit_suffix(unit)
  if suffix and suffix ~= "" and ("_" .. base):sub(-#suffix - 1) ~= "_" .. suffix then base = base .. "_" .. suffix end
  return is_counter and base .. "_total" or base
end

-- Nearly all texts have nothing to escape: one look is cheaper than to make them anew.
local function escape_help(text)
  if not text:find("[\\\n\128-\255]") then return text end
  return (text_tools.utf8(text, "\239\191\189"):gsub("\\", "\\\\"):gsub("\n", "\\n"))
end

-- Cut where a character begins, so that what is left is text.
local function shortened(text)
  if #text <= most_label_bytes then return text end
  local stop = most_label_bytes
  while stop > 0 and text:byte(stop + 1) >= 0x80 and text:byte(stop + 1) < 0xC0 do stop = stop - 1 end
  return text:sub(1, stop)
end

local function escape_label(text)
  if #text <= most_label_bytes and not text:find('[\\"\n\128-\255]') then return text end
  text = shortened(text_tools.utf8(text, "\239\191\189"))
  return (text:gsub('[\\"\n]', { ["\\"] = "\\\\", ['"'] = '\\"', ["\n"] = "\\n" }))
end

local function number_text(value)
  if value == math.floor(value) and math.abs(value) < 2 ^ 53 then return ("%d"):format(value) end
  local short = ("%.14g"):format(value)
  return tonumber(short) == value and short or ("%.17g"):format(value)
end

local function labels_text(labels)
  local parts = {}
  for index, label in ipairs(labels) do parts[index] = label[1] .. '="' .. escape_label(label[2]) .. '"' end
  return #parts > 0 and "{" .. table.concat(parts, ",") .. "}" or ""
end

--- An empty set of families.
function M.new() return setmetatable({ families = {}, count = 0, series = {} }, M) end

--- Adds a sample.
-- @param name of the family, clean and with unit and "_total"
-- @param about of the family, the first sample's counts: help, and type ("gauge", "counter"; nil is the former)
-- @param value a number, or a boolean, which is 1 or 0
-- @param labels array of { name, value }, the names clean, in the order that they shall have; it must not change later
-- @return true; false when there is such a sample already, or the number is none
function M:add(name, about, value, labels)
  if type(value) == "boolean" then value = value and 1 or 0 end
  if value ~= value or value == math.huge or value == -math.huge then return false end
  local family = self.families[name]
  if not family then
    family = { about = about, lines = {}, known = {} }
    self.families[name] = family
  end
  local series = labels and (self.series[labels] or labels_text(labels)) or ""
  if family.known[series] then return false end
  family.known[series] = true
  family.lines[#family.lines + 1] = name .. series .. " " .. number_text(value) .. "\n"
  -- Labels that several families share are made into text once; those that no sample has are not kept.
  if labels then self.series[labels] = series end
  self.count = self.count + 1
  return true
end

--- Whether there is a family of that name.
function M:has(name) return self.families[name] ~= nil end

--- Adds a whole family as text, as `split` has given it. False when there is one of its name.
function M:add_text(name, text)
  if self.families[name] then return false end
  self.families[name] = { text = text }
  return true
end

local function family_text(name, family)
  if family.text then return family.text end
  local about = family.about
  return ("# HELP %s %s\n# TYPE %s %s\n"):format(name, escape_help(about.help), name, about.type or "gauge")
    .. table.concat(family.lines)
end

--- All families as one text.
function M:text()
  local names, parts = {}, {}
  for name in pairs(self.families) do names[#names + 1] = name end
  table.sort(names)
  for index, name in ipairs(names) do parts[index] = family_text(name, self.families[name]) end
  return table.concat(parts)
end

--- The families of a text that `text` has made. What has no family's name is skipped.
-- @return an iterator over name and text of the family
function M.split(text)
  local position = 1
  return function()
    while position <= #text do
      local stop = text:find("\n# HELP ", position, true) or #text
      local family = text:sub(position, stop)
      position = stop + 1
      local name = family:match("^# HELP (%S+)")
      if name then return name, family end
    end
    return nil
  end
end

--- How many samples a family has whose text `split` has given.
function M.samples(family)
  local _, lines = family:gsub("\n", "")
  return lines - 2
end

return M
