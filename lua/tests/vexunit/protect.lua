--- Calls a function and tells how it failed: `xpcall`, but for what its message handler changes.
--
-- Lua asks the handler also for an error that `load` catches from its reader, and `load` then returns what the handler
-- gave. So this one gives back the value that it got.

local traceback, xpcall, rawequal = debug.traceback, xpcall, rawequal

--- @param body function to call with the further arguments
-- @return true and its first result; or false, the error value, and the traceback, which is empty for an error for
-- which Lua calls no handler: want of memory, or one in a finaliser
return function(body, ...)
  local noted, trace
  local function note(value)
    noted, trace = value, traceback("", 2):sub(2)
    return value
  end
  local ok, value = xpcall(body, note, ...)
  if ok then return true, value end
  return false, value, rawequal(value, noted) and trace or ""
end
