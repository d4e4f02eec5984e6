--- From a name or pattern to the scripts that it names, and from a script to its tests.

local glob = require("vex.glob")
local luaunit = require("tests.vexunit.luaunit")
local protect = require("tests.vexunit.protect")

local M = {}

local find, pairs, rawequal, type = string.find, pairs, rawequal, type

--- The scripts that a name or pattern stands for.
-- @param wanted a path or a pattern
-- @param bin the folder to look in when the current directory has no match; may be nil
-- @return sorted array of paths, or nil and a message
function M.find(wanted, bin)
  if type(wanted) ~= "string" or wanted == "" then return nil, "no script is named" end
  local found = glob.files(wanted)
  if #found == 0 and bin and bin ~= "" and wanted:sub(1, 1) ~= "/" then found = glob.files(wanted, bin) end
  if #found > 0 then return found end
  if glob.is_pattern(wanted) then return nil, ("no script matches '%s'"):format(wanted) end
  return nil, ("there is no script '%s'"):format(wanted)
end

local finished = {} -- thrown by os.exit after LuaUnit's own run was asked for

-- What a script gets by `require("luaunit")`: the runner's own, or another that an author has put on the path.
local function luaunits()
  local ok, theirs = pcall(require, "luaunit")
  if ok and type(theirs) == "table" and type(theirs.LuaUnit) == "table" and theirs ~= luaunit then
    return { luaunit, theirs }
  end
  return { luaunit }
end

-- Many scripts end in `os.exit(luaunit.LuaUnit.run())`, which runs them under the plain interpreter. Here their tests
-- are run by us, so that line only ends the loading.
local function ignoring_own_run(load)
  local exit = os.exit
  local asked = false
  local function ask()
    asked = true
    return 0
  end
  local kept = {}
  local function replace(holder, name)
    kept[#kept + 1] = { holder = holder, name = name, value = holder[name] }
    holder[name] = ask
  end
  for _, unit in ipairs(luaunits()) do
    replace(unit.LuaUnit, "run")
    replace(unit.LuaUnit, "runSuite")
    replace(unit, "run")
    replace(unit, "Run")
  end
  os.exit = function() -- luacheck: ignore 122
    if asked then error(finished, 0) end
    error("the script calls os.exit while it is loaded", 2)
  end
  local ok, value, trace = load()
  for _, entry in ipairs(kept) do entry.holder[entry.name] = entry.value end
  os.exit = exit -- luacheck: ignore 122
  if not ok and rawequal(value, finished) then return true end
  return ok, value, trace
end

local function describe(trouble, trace)
  if type(trouble) ~= "string" then
    local ok, shown = pcall(tostring, trouble)
    trouble = ok and shown or ("an error value of type " .. type(trouble))
  end
  return trouble .. "\n" .. trace
end

-- A test is a global function whose name begins with "test", or such a method of a table whose name does; a table that
-- the script returns is looked through like the globals.
local function collect(before, returned)
  local names, values, count = {}, {}, 0
  local function look_through(holder, known)
    for name, value in pairs(holder) do
      if type(name) == "string" and find(name, "^[Tt][Ee][Ss][Tt]") and values[name] == nil then
        local kind = type(value)
        if (kind == "function" or kind == "table") and (known[name] == nil or not rawequal(known[name], value)) then
          values[name] = value
          count = count + 1
          names[count] = name
        end
      end
    end
  end
  look_through(_G, before)
  if type(returned) == "table" and not rawequal(returned, _G) then look_through(returned, {}) end
  table.sort(names)
  return { names = names, values = values }
end

--- Loads a script in the present environment.
-- @return table with `names`, sorted, and `values`, a function or class by each name; or nil and what is wrong, with a
-- traceback when it failed while it ran; then the script's setupSuite and teardownSuite, if it has them
function M.load(path)
  local chunk, message = loadfile(path, "t")
  if not chunk then return nil, message end
  local before = {}
  for name, value in pairs(_G) do before[name] = value end
  local ok, returned, trace = ignoring_own_run(function() return protect(chunk, path) end)
  if not ok then return nil, describe(returned, trace) end
  local holder = type(returned) == "table" and returned or _G
  return collect(before, returned), nil, {
    setup = rawget(holder, "setupSuite") or rawget(_G, "setupSuite"),
    teardown = rawget(holder, "teardownSuite") or rawget(_G, "teardownSuite"),
  }
end

return M
