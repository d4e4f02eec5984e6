--- What the agent tells about its host.
--
-- A fact that the system does not give is absent, so that nobody takes it for zero.

local host = require("vex.host")
local json = require("vex.json")

local M = {}

--- One collection.
-- @return table with host, host_id, system, kernel, architecture, processors, uptime (seconds), load, memory and disks
-- (bytes)
function M.collect()
  local system, memory, disks = host.system(), host.memory(), host.disks()
  return {
    host = system.host,
    host_id = host.id(),
    system = system.distribution or system.name,
    kernel = system.name and (system.name .. " " .. (system.release or "")) or nil,
    architecture = system.machine,
    processors = host.processors(),
    uptime = host.uptime(),
    load = host.load(),
    memory = next(memory) and memory,
    disks = disks and json.array(disks),
  }
end

return M
