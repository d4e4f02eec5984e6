--- The files for collectors: the agent's metrics as NAME.prom, and its report as report.json.
--
-- They are written after each beat from what the workers have left in the domain, so that no plugin is asked for it. A
-- file that cannot be written is one warning until it can be again; the agent goes on.

local agent = require("vex.agent")
local facts = require("vx_agent.facts")
local json = require("vex.json")
local metrics = require("vx_agent.metrics")
local report = require("vx_agent.report")
local settings = require("vex.settings")
local log = require("vex.log")("vx_agent.outputs")

local M = {}
M.__index = M

local most_value_bytes = 1024 * 1024 -- of a plugin's values in the report, which is written again at each beat

--- @param dom the domain
-- @param plugins array of { id, name, version, units, error }: what is known of each before it collects
function M.new(dom, plugins)
  return setmetatable({
    dom = dom, plugins = plugins or {}, started_ms = dom:TimeMillis(), beats = 0, told_same = {}, is_troubled = false,
  }, M)
end

-- What a plugin's worker has left, but for its values.
local function state_of(dom, plugin)
  local prefix = "vex.plugin." .. plugin.id .. "."
  return {
    id = plugin.id, name = plugin.name, version = plugin.version, units = plugin.units,
    error = plugin.error or dom:Get(prefix .. "error"),
    time_ms = tonumber(dom:Get(prefix .. "time")),
    seconds = tonumber(dom:Get(prefix .. "seconds")),
    metrics = dom:Get(prefix .. "metrics"),
    dropped = tonumber(dom:Get(prefix .. "dropped")),
  }
end

-- A plugin's block of the report. Values of any length may lie in the domain: their size is asked first, so that a beat
-- copies none that it does not write. Their worker may leave others in between.
local function block_of(dom, state)
  local block = { name = state.name, version = state.version, units = state.units, error = state.error }
  if block.error then return block end
  local prefix = "vex.plugin." .. state.id .. "."
  local size = tonumber(dom:Get(prefix .. "bytes")) or 0
  local values = size <= most_value_bytes and dom:Get(prefix .. "values") or nil
  if values then size = #values end
  if size > most_value_bytes then
    block.error = ("the values are too many for this file: %d bytes as JSON"):format(size)
  elseif values then
    block.values = json.raw(values)
  else
    block.error = "nothing is collected yet"
  end
  return block
end

function M:told(problem)
  if problem and not self.is_troubled then
    log.warning("Files for collectors: %s", problem)
  elseif self.is_troubled and not problem then
    log.info("Files for collectors: all are written again")
  end
  self.is_troubled = problem ~= nil
end

-- Metrics of one name that two plugins have: told once.
function M:tell_same(same)
  for _, one in ipairs(same) do
    local key = one.id .. " " .. one.name
    if not self.told_same[key] then
      self.told_same[key] = true
      log.warning("Plugin '%s': the metric %s is left out, because there is one of that name", one.id, one.name)
    end
  end
end

-- Writes the files. What is not as it should be, nil for nothing.
function M:write_files(beat)
  local dom, states, blocks = self.dom, {}, {}
  for index, plugin in ipairs(self.plugins) do
    states[index] = state_of(dom, plugin)
    blocks[index] = block_of(dom, states[index])
  end
  local name = dom:Get("app.name", "vx_agent")
  local collected = facts.collect()
  local text, same = metrics.text({
    name = name, version = dom:Get("app.version"), facts = collected, plugins = states, beats = self.beats,
    beat_ms = beat.time_ms, interval = settings.int("vex.HeartbeatInterval"), started_ms = self.started_ms,
    restarts = tonumber(dom:Get("app.restart.count")) or 0, events = agent.events(), log_records = agent.log_records(),
    resident_memory = agent.resident_memory(),
  })
  self:tell_same(same)
  local _, problem = agent.write_output(name:gsub("/", "_") .. ".prom", text)
  local whole, message = report.json(report.whole(collected, dom, blocks))
  if whole then _, message = agent.write_output("report.json", whole) end
  return problem or message
end

--- Writes the files, when the setting "app.out" has them written. Raises nothing: what anybody may have put into the
-- domain is no reason for the agent not to beat.
-- @param beat table with time_ms
function M:write(beat)
  self.beats = self.beats + 1
  if not settings.bool("app.out") then return end
  local ok, problem = pcall(self.write_files, self, beat)
  if not ok then problem = tostring(problem) end
  self:told(problem)
end

return M
