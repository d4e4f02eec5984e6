--- An event for the end of the working child before this one.
--
-- The supervisor keeps no events itself: it tells the child that it starts, in the keys "app.restart.*", how the one
-- before it ended. The first child of a supervisor has none of them.

local log = require("vex.log")("vx_agent.restarts")

local M = {}

--- The events, which docs/FORMATS.md lists. A crash is an end by a signal for which there are dumps.
M.crash = { number = 5111, severity = 2 }
M.restart = { number = 5112, severity = 4 }

local signature, process_part, most_parts = "MDMP", 15, 64

-- The process of whose crash a file is the dump, by the format's places; nil for what is no dump.
local function process_of(path)
  local file = io.open(path, "rb")
  if not file then return nil end
  local function number(place) -- of 32 bits, the least first
    local bytes = file:seek("set", place) and file:read(4)
    if not bytes or #bytes < 4 then return 0 end
    local a, b, c, d = bytes:byte(1, 4)
    return a + 256 * (b + 256 * (c + 256 * d))
  end
  local process
  if file:read(4) == signature then
    local parts, directory = number(8), number(12)
    for part = 0, math.min(parts, most_parts) - 1 do
      local entry = directory + 12 * part
      if number(entry) == process_part then process = number(number(entry + 8) + 8) end
    end
  end
  file:close()
  return process ~= 0 and process or nil
end

-- The dump of that process's crash; nil where none was written, and a message where the folder is not to be used.
local function dump_of(dom, process)
  local folder, refused = dom:PluginWorkdir("diag")
  if not folder then return nil, refused end
  local path = ("%s/%s.mdmp"):format(folder, dom:Get("app.name", "vx_agent"))
  return process and process_of(path) == process and path or nil
end

local function times(count, word) return ("%d %s%s"):format(count, word, count == 1 and "" or "s") end

--- Writes the event, where there was a child before this one.
-- @param dom the domain
-- @return the event's id, 0 while it can only be kept for later; nil where there is nothing to tell
function M.tell(dom)
  local count = tonumber(dom:Get("app.restart.count"))
  if not count then return nil end
  local process, crashed = tonumber(dom:Get("app.restart.process")), dom:GetBool("app.restart.crashed")
  local parts = { ("%s, process %d"):format(dom:Get("app.restart.end", "the child has ended"), process or 0) }
  if crashed then
    local dump, refused = dump_of(dom, process)
    if refused then log.warning("no crash dump is looked for: %s", refused) end
    parts[#parts + 1] = dump and "crash dump: " .. dump or "no crash dump"
  end
  local crashes = dom:Get("app.restart.crashes", "0")
  parts[#parts + 1] = ("%s, %s of them after a crash"):format(times(count, "restart"), crashes)
  local kind = crashed and M.crash or M.restart
  return dom:AgentEvent({ number = kind.number, severity = kind.severity, text = table.concat(parts, "; ") })
end

return M
