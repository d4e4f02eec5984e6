--- Lines in the agent's log, with formatting and a prefix.
--
--   local log = require("vex.log")("vx_agent.heartbeat")
--   log.warning("cannot open %s", path)
--   log.trace("waiting %d s", seconds)     -- only while the module "vx_agent.heartbeat" is traced

local levels = { "error", "warning", "message", "info", "debug" }

local function formatted(template, ...)
  if select("#", ...) == 0 then return template end
  return template:format(...)
end

--- @param module the name that trace lines have; a level's lines have none
-- @param domain the domain; nil is the global dom0, looked up at each line
-- @return a table with a function a level, and `trace`
return function(module, domain)
  local log = {}
  for _, level in ipairs(levels) do
    log[level] = function(...) (domain or dom0):Log(level, formatted(...)) end
  end
  function log.trace(...)
    local target = domain or dom0
    if target:TraceEnabled(module) then target:Trace(module, formatted(...), 2) end -- 2: our caller
  end
  return log
end
