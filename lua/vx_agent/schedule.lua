--- When the next beat or collection is due.
--
-- A fleet that starts or is upgraded at once would beat at once from then on. So each host has a place of its own
-- within the interval, by its id: the first beat is at once, the second after half to one and a half intervals, and the
-- others follow it each interval. The place counts from the worker's start, on the clock that nobody sets, and neither
-- a beat on request nor one that came late moves it. With "vex.Spread" off the interval counts from the last beat.

local host = require("vex.host")
local settings = require("vex.settings")

local M = {}
M.__index = M

local modulus = 2 ^ 32

--- A place within an interval for a text: from 0 on and below 1, the same for the same texts, and evenly spread.
function M.fraction(name, id)
  local hash = 2166136261
  for _, byte in ipairs({ (name .. "\0" .. id):byte(1, -1) }) do hash = (hash * 65599 + byte) % modulus end
  -- Ids that differ in their last letters alone are close to each other so far.
  for _ = 1, 3 do hash = (hash + math.floor(hash / 2 ^ 15)) % modulus * 2097143 % modulus end
  return hash / modulus
end

--- The first moment of a schedule after `last`.
-- @param start when the schedule began, interval and last in the same seconds
-- @param fraction the place within the interval
function M.next(start, last, interval, fraction)
  local first = start + (0.5 + fraction) * interval
  if last < first then return first end
  local due = first + (math.floor((last - first) / interval) + 1) * interval
  return due > last and due or due + interval -- the quotient may have been rounded down
end

--- Begins a schedule now.
-- @param name of what is done, so that a host does not do all of it at once
-- @param interval_of a function that gives the interval of now, in seconds
function M.new(name, interval_of)
  local self = setmetatable({ interval_of = interval_of, start = host.monotonic() }, M)
  self.fraction = M.fraction(name, host.id() or "")
  self:done()
  return self
end

--- Notes that it was done just now.
function M:done()
  self.last, self.interval = host.monotonic(), self.interval_of()
end

--- How many seconds are left; 0 or less when it is due. Looks at the settings each time.
function M:left()
  local now, interval = host.monotonic(), self.interval_of()
  if not settings.bool("vex.Spread") then return self.last + interval - now end
  -- A new interval, which all hosts may have got together, has its places from now on, and nobody is late for one.
  if interval ~= self.interval then self.last, self.interval = now, interval end
  return M.next(self.start, self.last, interval, self.fraction) - now
end

return M
