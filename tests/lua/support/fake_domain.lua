--- A domain for tests: it keeps keys, records what is logged, and follows a script of waits.

local M = {}
M.__index = M

--- @param values table of keys and values
function M.new(values)
  return setmetatable({ values = values or {}, lines = {}, waits = {}, started = {}, now = 1000000 }, M)
end

function M:Get(key, default)
  local value = self.values[key]
  if value == nil then return default end
  return tostring(value)
end

function M:GetBool(key, default)
  local value = self.values[key]
  if value == nil then return default or false end
  return value == true or value == "true"
end

function M:Set(key, value) self.values[key] = value end

function M:Log(level, text) self.lines[#self.lines + 1] = level .. ": " .. text end

function M:TraceEnabled() return self.traced or false end

function M:Trace(module, text) self.lines[#self.lines + 1] = "trace " .. module .. ": " .. text end

function M:TimeMillis() return self.now end

function M:PluginWorkdir() return self.folder, self.refused end

function M:AgentEvent(event)
  self.events = self.events or {}
  self.events[#self.events + 1] = event
  return #self.events
end

--- Each wait takes the next entry of `waits`: false, the key that was written meanwhile, "end", or a function that is
-- called and returns one of these. Without entries the thread is asked to end.
function M:Wait(keys, seconds)
  self.waited = self.waited or {}
  table.insert(self.waited, { keys = keys, seconds = seconds })
  local step = table.remove(self.waits, 1)
  if type(step) == "function" then step = step() end
  if step == "end" then return nil end
  if step then return true, step end
  return step
end

function M:StartThread(module, argument)
  if self.refuse_threads then error("no thread to be had", 0) end
  local worker = { module = module, argument = argument, calls = {} }
  function worker:Stop() table.insert(self.calls, "stop") end
  function worker:Join(seconds)
    table.insert(self.calls, "join")
    self.join_seconds = seconds
    return not self.stuck
  end
  self.started[#self.started + 1] = worker
  if self.runs_threads then require(module).run(argument) end
  return worker
end

--- All logged lines as one text.
function M:log() return table.concat(self.lines, "\n") end

return M
