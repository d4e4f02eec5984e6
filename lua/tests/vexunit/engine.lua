--- Runs one test: set-up, the test, tear-down, repetition, and telling a failed assertion from an error.
--
-- The rules are LuaUnit's, and so are the words of its assertions. Its runner is not asked: it keeps a record of each
-- test and shortens a traceback by the place that the message names, so an error without a place, or with a value that
-- is no text, would come without any traceback.
-- The LuaUnit is the one that this runner was built with, by a name of its own: a script's `require("luaunit")` may
-- lead to another.

local luaunit = require("tests.vexunit.luaunit")
local protect = require("tests.vexunit.protect")

local M = {}
M.__index = M

local type = type

local words = {
  [luaunit.NodeStatus.FAIL] = "failed", [luaunit.NodeStatus.ERROR] = "error", [luaunit.NodeStatus.SKIP] = "skipped",
}

-- Leaves what an author wants to see: nothing of the assertions above, nothing of the runners below.
local function shorten(trace)
  local kept = {}
  for line in trace:gmatch("[^\n]+") do
    if line:find("vexunit/protect.lua:", 1, true) then
      kept[#kept] = nil -- xpcall
      break
    end
    if not line:find("luaunit.lua:", 1, true) and not line:find("[C]: in function 'error'", 1, true) then
      kept[#kept + 1] = line
    end
  end
  return table.concat(kept, "\n")
end

local function describe(value)
  if type(value) == "string" then return value end
  local ok, shown = pcall(luaunit.prettystr, value)
  return ok and shown or ("an error value of type " .. type(value))
end

-- What an error value means, as `call` returns it.
local function judge(self, name, iteration, value, trace)
  local message, status = luaunit.adjust_err_msg_with_iter(describe(value),
    self.repetitions > 1 and ("iteration %d"):format(iteration) or nil)
  local word = words[status]
  if not word then return "passed" end -- LuaUnit's success()
  if word == "skipped" then return word, message end
  -- The frame that we called has no name of its own.
  local shown = ("in function '%s'"):format(name):gsub("%%", "%%%%")
  trace = shorten(trace):gsub("in function <[^>]*>$", shown)
  return word, message, trace
end

--- Calls a function of a script.
-- @param body the function
-- @param instance what it gets: its class, or nil
-- @param name what a traceback calls it
-- @param iteration which repetition this is
-- @return "passed"; or "failed", "error" or "skipped", the message, and for the first two the traceback
function M:call(body, instance, name, iteration)
  local ok, value, trace = protect(body, instance)
  if ok then return "passed" end
  return judge(self, name, iteration, value, trace)
end

local call = M.call

-- A method of a class under the first of its names that is one.
local function method(class, first, second, third, fourth)
  local found = class[first]
  if type(found) == "function" then return found end
  found = class[second]
  if type(found) == "function" then return found end
  found = class[third]
  if type(found) == "function" then return found end
  found = class[fourth]
  return type(found) == "function" and found or nil
end

-- Once. What fails first is the result; after a failed set-up the test is left out, and torn down all the same.
local function run_once(self, name, body, class, instance, iteration)
  if not class then
    local ok, value, trace = protect(body, nil)
    if ok then return "passed" end
    return judge(self, name, iteration, value, trace)
  end
  local status, message, trace = "passed"
  local set_up = method(instance, "setUp", "Setup", "setup", "SetUp")
  if set_up then status, message, trace = call(self, set_up, instance, class .. ".setUp", iteration) end
  if status == "passed" then status, message, trace = call(self, body, instance, name, iteration) end
  local tear_down = method(instance, "tearDown", "TearDown", "teardown", "Teardown")
  if tear_down then
    local word, why, where = call(self, tear_down, instance, class .. ".tearDown", iteration)
    if status == "passed" then status, message, trace = word, why, where end
  end
  return status, message, trace
end

--- Runs a test as often as it is to be run, until it does not pass.
-- @param name its full name
-- @param body its function
-- @param class for a method the name of its class, else nil
-- @param instance for a method its class, else nil
-- @return as `call`
function M:run(name, body, class, instance)
  local repetitions = self.repetitions
  for iteration = 1, repetitions - 1 do
    local status, message, trace = run_once(self, name, body, class, instance, iteration)
    if status ~= "passed" then return status, message, trace end
  end
  return run_once(self, name, body, class, instance, repetitions)
end

--- A runner of tests. LuaUnit is told that a suite runs, so that its os.exit refuses to end the process under the
-- tests; `close` ends that.
-- @param repetitions how often each test runs
function M.new(repetitions)
  local suite = luaunit.LuaUnit.new()
  suite:registerSuite()
  return setmetatable({ repetitions = repetitions, suite = suite }, M)
end

function M:close() self.suite:unregisterSuite() end

return M
