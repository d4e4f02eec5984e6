--- LuaUnit's runner, prepared for us.
--
-- It is the one that this runner was built with, by a name of its own: a script's `require("luaunit")` may lead to
-- another.
-- Its calls are protected by our own function: LuaUnit's shortens a traceback by the place that the message names, so
-- an error without a place, or with a value that is no text, would come without any traceback.

local luaunit = require("tests.vexunit.luaunit")
local protect = require("tests.vexunit.protect")

local M = {}

local words = {
  [luaunit.NodeStatus.SUCCESS] = "passed", [luaunit.NodeStatus.FAIL] = "failed",
  [luaunit.NodeStatus.ERROR] = "error", [luaunit.NodeStatus.SKIP] = "skipped",
}

--- Our word for one of LuaUnit's states.
function M.word(status) return words[status] end

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

local function protected_call(self, instance, body, name)
  local ok, value, trace = protect(body, instance)
  if ok then return { status = luaunit.NodeStatus.SUCCESS } end
  local trouble = { trace = trace }
  local iteration = self.exeRepeat and ("iteration %d"):format(self.currentCount)
  trouble.msg, trouble.status = luaunit.adjust_err_msg_with_iter(describe(value), iteration)
  if trouble.status == luaunit.NodeStatus.FAIL or trouble.status == luaunit.NodeStatus.ERROR then
    trouble.trace = shorten(trouble.trace)
    if name then
      -- The frame that we called has no name of its own.
      local shown = ("in function '%s'"):format(name):gsub("%%", "%%%%")
      trouble.trace = trouble.trace:gsub("in function <[^>]*>$", shown)
    end
  else
    trouble.trace = nil
  end
  return trouble
end

local silent = setmetatable({}, { __index = function() return function() end end })

--- A runner of LuaUnit's that reports to nobody. LuaUnit is told that a suite runs, so that its os.exit refuses to end
-- the process under the tests; `unregisterSuite` ends that.
-- @param repetitions how often each test runs
function M.new(repetitions)
  local engine = luaunit.LuaUnit.new()
  engine.protectedCall = protected_call
  engine.exeRepeat = repetitions > 1 and repetitions or nil
  engine.currentCount = 1
  engine.outputType = { new = function() return silent end }
  engine:startSuite(0, 0)
  engine:registerSuite()
  return engine
end

return M
