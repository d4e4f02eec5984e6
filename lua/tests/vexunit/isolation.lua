--- Keeps what one script does to the shared environment from the next.
--
-- A script runs with the real globals, so that `require`, `dom0`, `arg` and the modules that it loads behave as they
-- do in the application. What it changed is put back after it: globals, the standard libraries' tables, the table of
-- loaded modules, the metatables of the globals and of texts, and the files that io.read and io.write work on.

local M = {}

local input, output = io.input, io.output
local debug_getmetatable, debug_setmetatable = debug.getmetatable, debug.setmetatable

local function copy(source)
  local result = {}
  for key, value in next, source do result[key] = value end
  return result
end

local function restore_table(target, saved)
  for key in next, target do -- which allows fields to go meanwhile; no metamethod is asked for a field that is there
    if saved[key] == nil then target[key] = nil end
  end
  for key, value in next, saved do
    if not rawequal(rawget(target, key), value) then rawset(target, key, value) end
  end
end

-- The tables whose content is put back. package.loaded is among them: that is what unloads a script's modules.
local function watched_tables()
  local tables = { _G, package.loaded, package.preload, package.searchers }
  for _, name in ipairs({ "string", "table", "math", "io", "os", "debug", "coroutine", "bit32", "package" }) do
    if type(_G[name]) == "table" then tables[#tables + 1] = _G[name] end
  end
  return tables
end

--- Remembers the environment as it is.
-- @return a function that puts it back; it may be called several times
function M.snapshot()
  local saved = {}
  for index, target in ipairs(watched_tables()) do saved[index] = { target = target, content = copy(target) } end
  local globals, globals_meta = _G, debug_getmetatable(_G)
  local text_meta = debug_getmetatable("")
  local text_content = text_meta and copy(text_meta)
  local input_file, output_file = input(), output()
  return function()
    pcall(input, input_file) -- an error when somebody has closed it
    pcall(output, output_file)
    debug_setmetatable(globals, globals_meta)
    debug_setmetatable("", text_meta)
    if text_meta then restore_table(text_meta, text_content) end
    for _, entry in ipairs(saved) do restore_table(entry.target, entry.content) end
  end
end

return M
