--- Turns a collection into text: a readable table, or JSON.

local columns = require("vex.columns")
local json = require("vex.json")
local text = require("vex.text")

local M = {}

-- How full a disk is to an ordinary user: what is reserved for the system counts as neither used nor free.
local function fullness(used, available)
  local reachable = used + available
  return reachable > 0 and ("%.0f %%"):format(100 * used / reachable) or "-"
end

local function share(part, total, word)
  return ("%s of %s %s"):format(text.bytes(part), text.bytes(total), word)
end

-- What is free is less than what programs can have, so it is not called available.
local function memory_line(memory)
  if not memory.total then return nil end
  if memory.available then return share(memory.available, memory.total, "available") end
  return memory.free and share(memory.free, memory.total, "free") or text.bytes(memory.total)
end

local function swap_line(memory)
  if not memory.swap_total or not memory.swap_free then return nil end
  return memory.swap_total == 0 and "none" or share(memory.swap_free, memory.swap_total, "free")
end

local function load_line(load)
  return load and ("%.2f %.2f %.2f"):format(load[1], load[2], load[3])
end

-- Name and value of each line of the first block; a value that is nil has no line.
local function host_rows(facts)
  local memory = facts.memory or {}
  local lines = {
    { "Host", facts.host },
    { "System", facts.system },
    { "Kernel", facts.kernel and (facts.kernel .. (facts.architecture and " " .. facts.architecture or "")) },
    { "Processors", facts.processors and ("%d"):format(facts.processors) },
    { "Uptime", facts.uptime and text.duration(facts.uptime) },
    { "Load", load_line(facts.load) },
    { "Memory", memory_line(memory) },
    { "Swap", swap_line(memory) },
  }
  local rows = {}
  for index = 1, 8 do
    if lines[index][2] then rows[#rows + 1] = lines[index] end
  end
  return rows
end

local function disk_block(disks)
  if not disks or #disks == 0 then return "" end
  -- Used, reserved and free add up to the size.
  local rows = { { "Mounted on", "Device", "Type", "Size", "Used", "Reserved", "Free", "Full" } }
  for _, disk in ipairs(disks) do
    local used = disk.total - disk.free
    rows[#rows + 1] = {
      disk.mount, disk.device, disk.type, text.bytes(disk.total), text.bytes(used),
      text.bytes(disk.free - disk.available), text.bytes(disk.available), fullness(used, disk.available),
    }
  end
  local right = { [4] = true, [5] = true, [6] = true, [7] = true, [8] = true }
  return "\nDisks\n" .. columns.format(rows, { indent = "  ", right = right })
end

local function sorted_keys(values)
  local keys = {}
  for key in pairs(values) do keys[#keys + 1] = key end
  table.sort(keys, function(a, b)
    if type(a) == type(b) then return a < b end
    return type(a) == "number"
  end)
  return keys
end

-- Short, but never so short that something looks like nothing.
local function number_text(value)
  local size = math.abs(value)
  if value == math.floor(value) then return (size < 2 ^ 64 and "%.0f" or "%.6g"):format(value) end
  return (size < 0.1 and "%.2g" or "%.2f"):format(value)
end

-- A number in the unit that the plugin has told: bytes, also bytes/s and the like, and seconds as people read them.
local function measured(value, unit)
  if not unit then return number_text(value) end
  local size, sign = math.abs(value), value < 0 and "-" or ""
  local per, readable = unit:match("^bytes(.*)$"), size < 2 ^ 53
  if per and size >= 1024 and readable then return sign .. text.bytes(size) .. per end
  if per then return number_text(value) .. " B" .. per end
  if unit == "seconds" and size >= 60 and readable then return sign .. text.duration(size) end
  return number_text(value) .. " " .. (unit == "seconds" and "s" or unit)
end

local function is_table(value) return type(value) == "table" and not rawequal(value, json.null) end

-- A value in one cell.
local function cell_text(value, unit)
  if value == nil or rawequal(value, json.null) then return "-" end
  if type(value) == "number" then return measured(value, unit) end
  return is_table(value) and (json.encode(value)) or tostring(value)
end

local function is_list_of_tables(value)
  if #value == 0 then return false end
  for _, entry in ipairs(value) do
    if not is_table(entry) then return false end
  end
  return true
end

-- An array of tables: a column for each field that any of them has, "name" first.
local function list_block(list, indent, units, unit)
  local fields = {}
  for _, entry in ipairs(list) do
    for field in pairs(entry) do fields[field] = true end
  end
  local named = fields.name
  fields.name = nil
  local header = sorted_keys(fields)
  if named then table.insert(header, 1, "name") end
  local rows, right = { {} }, {}
  for index, field in ipairs(header) do
    rows[1][index] = tostring(field)
  end
  for _, entry in ipairs(list) do
    local row = {}
    for index, field in ipairs(header) do
      row[index] = cell_text(entry[field], units[field] or unit)
      right[index] = right[index] or type(entry[field]) == "number"
    end
    rows[#rows + 1] = row
  end
  return columns.format(rows, { indent = indent, right = right })
end

-- `unit` is that of the values whose own key has none: a table's is that of what is in it.
local function values_block(values, indent, units, unit)
  local rows, blocks = {}, {}
  for _, key in ipairs(sorted_keys(values)) do
    local value, own = values[key], units[key] or unit
    if not is_table(value) then
      rows[#rows + 1] = { tostring(key), cell_text(value, own) }
    elseif next(value) == nil then
      rows[#rows + 1] = { tostring(key), "none" }
    else
      local block = is_list_of_tables(value) and list_block or values_block
      blocks[#blocks + 1] = indent .. text.printable(tostring(key)) .. "\n" .. block(value, indent .. "  ", units, own)
    end
  end
  return columns.format(rows, { indent = indent }) .. table.concat(blocks)
end

-- The message of an error without its traceback, in one line. What keeps a module from being loaded is in the second.
local function reason_of(message)
  local first, second = message:match("^([^\n]*)\n?([^\n]*)")
  if first:find("^error loading module .*:$") then return first .. " " .. text.trim(second) end
  return first
end

local function plugin_block(plugin)
  local head = "Plugin " .. plugin.name .. (plugin.version and " " .. plugin.version or "")
  head = "\n" .. text.printable(head) .. "\n"
  if plugin.error then return head .. "  failed: " .. text.printable(reason_of(plugin.error)) .. "\n" end
  local body = values_block(plugin.values, "  ", plugin.units or {})
  return head .. (body ~= "" and body or "  nothing to tell\n")
end

--- What a report holds, docs/FORMATS.md has it for its readers.
-- @param facts from vx_agent.facts, which becomes the report
-- @param blocks array of a table a plugin: { name, version, values or error, units or nil }; a plugin that could not be
-- loaded has no version
function M.whole(facts, dom, blocks)
  facts.schema = 1
  facts.time = os.date("!%Y-%m-%dT%H:%M:%SZ")
  facts.agent = { name = dom:Get("app.name"), version = dom:Get("app.version") }
  facts.plugins = json.array(blocks)
  return facts
end

--- The readable table.
-- @param facts as `whole` gives it
function M.text(facts)
  local parts = { columns.format(host_rows(facts)), disk_block(facts.disks) }
  for _, plugin in ipairs(facts.plugins or {}) do parts[#parts + 1] = plugin_block(plugin) end
  return table.concat(parts)
end

--- The same as a JSON text with a line break at its end, or nil and a message.
function M.json(facts)
  local encoded, message = json.encode(facts, "  ")
  if not encoded then return nil, message end
  return encoded .. "\n"
end

return M
