--- Calls a function and tells how it failed: `xpcall`, but for what its message handler changes.
--
-- Lua asks the handler also for an error that `load` catches from its reader, and `load` then returns what the handler
-- gave. So this one gives back the value that it got.

local traceback, xpcall, rawequal = debug.traceback, xpcall, rawequal

-- Of the last error that the handler has seen. One for all calls: between the handler of a call's own error and the end
-- of that call no Lua code runs.
local noted, trace

local function note(value)
  noted, trace = value, traceback("", 2):sub(2)
  return value
end

--- @param body function to call
-- @param argument what it gets
-- @return true and its first result; or false, the error value, and the traceback, which is empty for an error for
-- which Lua calls no handler: want of memory, or one in a finaliser
return function(body, argument)
  noted, trace = nil, nil
  local ok, value = xpcall(body, note, argument)
  local own = not ok and rawequal(value, noted) and trace or ""
  noted, trace = nil, nil
  if ok then return true, value end
  return false, value, own
end
