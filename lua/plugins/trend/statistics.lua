--- Figures from a series of samples. A sample without the field is passed over.

local M = {}

local day_ms = 86400000
local shortest_span_ms = 3600000 -- what happens within seconds says nothing about days

--- Smallest, largest and mean value of a field; nil when no sample has it.
function M.summary(samples, field)
  local count, sum, least, most = 0, 0, math.huge, -math.huge
  for _, sample in ipairs(samples) do
    local value = sample[field]
    if value then
      count, sum = count + 1, sum + value
      least, most = math.min(least, value), math.max(most, value)
    end
  end
  if count == 0 then return nil end
  return { min = least, mean = sum / count, max = most }
end

--- Change a day by the straight line that fits best (least squares); nil with fewer than two moments.
function M.slope_per_day(samples, field)
  local count, sum_x, sum_y, sum_xx, sum_xy = 0, 0, 0, 0, 0
  local origin -- the sums stay exact when times count from the first sample
  for _, sample in ipairs(samples) do
    local y = sample[field]
    if y then
      origin = origin or sample.time_ms
      local x = (sample.time_ms - origin) / day_ms
      count, sum_x, sum_y = count + 1, sum_x + x, sum_y + y
      sum_xx, sum_xy = sum_xx + x * x, sum_xy + x * y
    end
  end
  local spread = count * sum_xx - sum_x * sum_x
  if spread <= 0 then return nil end
  return (count * sum_xy - sum_x * sum_y) / spread
end

--- In how many days the field reaches zero at its present pace; nil when it does not fall, or when the samples span
-- less than an hour.
function M.days_until_zero(samples, field)
  local slope = M.slope_per_day(samples, field)
  local first, last
  for _, sample in ipairs(samples) do
    if sample[field] then
      first = first or sample
      last = sample
    end
  end
  if not slope or slope >= 0 or last.time_ms - first.time_ms < shortest_span_ms then return nil end
  return last[field] / -slope
end

return M
