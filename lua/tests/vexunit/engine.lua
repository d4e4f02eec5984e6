--- LuaUnit's runner, prepared for us.
--
-- Its calls are protected by our own function: LuaUnit's shortens a traceback by the place that the message names, so
-- an error without a place, or with a value that is no text, would come without any traceback.

local luaunit = require("luaunit")

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
    if line:find("vexunit/engine.lua:", 1, true) then
      kept[#kept] = nil -- xpcall
      break
    end
    if not line:find("luaunit.lua:", 1, true) and not line:find("[C]: in function 'error'", 1, true) then
      kept[#kept + 1] = line
    end
  end
  return table.concat(kept, "\n")
end

local function caught(value)
  if type(value) ~= "string" then
    local ok, shown = pcall(luaunit.prettystr, value)
    value = ok and shown or ("an error value of type " .. type(value))
  end
  return { msg = value, trace = debug.traceback("", 2):gsub("^\n", "") }
end

local function protected_call(self, instance, body, name)
  local ok, trouble = xpcall(body, caught, instance)
  if ok then return { status = luaunit.NodeStatus.SUCCESS } end
  local iteration = self.exeRepeat and ("iteration %d"):format(self.currentCount)
  trouble.msg, trouble.status = luaunit.adjust_err_msg_with_iter(trouble.msg, iteration)
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
