--- Example plugin that only collects: what the network interfaces carry.
--
-- The system counts from the start of an interface; rates come from two collections, so they appear with the second.

local host = require("vex.host")
local json = require("vex.json")

local M = {
  name = "Network",
  version = "1.0.0",
  interval = 60, -- seconds between collections in the background
  units = { received = "bytes", sent = "bytes", received_per_second = "bytes/s", sent_per_second = "bytes/s" },
}

local before -- counters by interface name, and when they were read

-- Bytes a second since the last collection. A counter that went back belongs to an interface that was made anew.
local function rate(now, last, seconds)
  if not now or not last or seconds <= 0 or now < last then return nil end
  return (now - last) / seconds
end

-- A counter that the system does not have is absent from the sum, too: half of the errors is no figure.
local function sum(a, b) return a and b and a + b end

function M.collect()
  local interfaces = host.interfaces()
  if not interfaces then return {} end
  local taken = { at = host.monotonic(), counters = {} }
  local list = json.array()
  for index, interface in ipairs(interfaces) do
    local last = before and before.counters[interface.name]
    taken.counters[interface.name] = interface
    list[index] = {
      name = interface.name,
      received = interface.received_bytes,
      sent = interface.sent_bytes,
      errors = sum(interface.receive_errors, interface.send_errors),
    }
    if last then
      local seconds = taken.at - before.at
      list[index].received_per_second = rate(interface.received_bytes, last.received_bytes, seconds)
      list[index].sent_per_second = rate(interface.sent_bytes, last.sent_bytes, seconds)
    end
  end
  before = taken
  return { interfaces = list }
end

return M
