--- What the reports have in common: totals, slowest tests, texts of results.

local M = {}

local function plural(count, word) return ("%d %s%s"):format(count, word, count == 1 and "" or "s") end

--- The line of totals.
function M.totals(run)
  local counts = run.counts
  local parts = {
    ("Ran %s of %s in %.3f seconds: %d passed"):format(plural(counts.run, "test"), plural(counts.scripts, "script"),
      run.seconds, counts.passed),
    ("%d failed"):format(counts.failed),
  }
  if counts.error > 0 then parts[#parts + 1] = plural(counts.error, "error") end
  if counts.skipped > 0 then parts[#parts + 1] = ("%d skipped"):format(counts.skipped) end
  if counts.left_out > 0 then parts[#parts + 1] = ("%d not selected"):format(counts.left_out) end
  if counts.unloadable > 0 then parts[#parts + 1] = plural(counts.unloadable, "script") .. " did not load" end
  return table.concat(parts, ", ")
end

local Slowest = {}
Slowest.__index = Slowest

local function is_slower(a, b)
  if a.seconds ~= b.seconds then return a.seconds > b.seconds end
  return a.script .. a.name < b.script .. b.name
end

-- Sorts what is kept and lets go of all but the slowest.
local function cut(self)
  local kept = self.kept
  table.sort(kept, is_slower)
  for index = #kept, self.limit + 1, -1 do kept[index] = nil end
end

--- Keeps the slowest tests. A test that took fewer seconds than `least` is none of them.
-- @param limit how many
function M.new_slowest(limit)
  return setmetatable({ limit = limit, kept = {}, least = limit > 0 and -math.huge or math.huge }, Slowest)
end

function Slowest:add(script, name, seconds)
  if seconds < self.least then return end
  local kept = self.kept
  kept[#kept + 1] = { script = script, name = name, seconds = seconds }
  if #kept >= 2 * self.limit + 16 then -- now and then: to sort is dear
    cut(self)
    self.least = kept[self.limit].seconds
  end
end

--- Lines that name them, slowest first.
function Slowest:lines()
  cut(self)
  local lines = {}
  for index, result in ipairs(self.kept) do
    lines[index] = ("%9.1f ms  %s %s"):format(result.seconds * 1000, result.script, result.name)
  end
  return lines
end

--- The line that names the seed.
function M.seed(run)
  return ("Seed: %d%s"):format(run.seed, run.settings.shuffle and " (the same order again: --shuffle --seed "
    .. ("%d)"):format(run.seed) or "")
end

--- Message and traceback of a test, as one text.
-- @param message any value
-- @param trace text or nil
function M.explain(message, trace)
  local shown = tostring(message)
  if trace and trace ~= "" then return shown .. "\n" .. trace end
  return shown
end

return M
