--- The bundled application: a small host agent.
--
-- In the foreground it prints one report on the host and its plugins. In the background it starts workers that beat
-- and collect until the agent is stopped. The launcher calls `init`, `main` and `shutdown`; each returns a status, 0
-- is good.

local facts = require("vx_agent.facts")
local log = require("vex.log")("vx_agent")
local options = require("vx_agent.options")
local plugins = require("vx_agent.plugins")
local report = require("vx_agent.report")
local reporter = require("vx_agent.reporter")
local restarts = require("vx_agent.restarts")
local workers = require("vx_agent.workers")

local M = {}

local found = {} -- what `init` found: { id, plugin or error }
local started = {} -- those whose `stop` is due
local crew -- the workers of a background run

function M.init()
  log.info("%s %s, host agent, process %d", dom0:Get("app.name", "vx_agent"), dom0:Get("app.version", "of no version"),
    require("vex.host").pid())
  -- First of all: what the plugins bring along may be what crashes.
  restarts.tell(dom0)
  found = plugins.load_all(plugins.names(dom0:Get("app.plugins")))
  return 0
end

-- What a plugin collects in this state, or nil and a message.
local function collect_here(entry)
  local ok, message = plugins.call(entry, "start", dom0)
  if not ok then return nil, message end
  started[#started + 1] = entry
  return plugins.collect(entry, dom0)
end

-- The workers of several plugins, which collect at the same time; a single one needs none.
local function start_reporters()
  local usable, working = 0, {}
  for _, entry in ipairs(found) do usable = usable + (entry.plugin and 1 or 0) end
  for index, entry in ipairs(usable > 1 and found or {}) do
    if entry.plugin then
      local ok, worker = pcall(dom0.StartThread, dom0, "vx_agent.reporter", { plugin = entry.id })
      working[index] = ok and worker or nil -- where there is no room for one this state collects
    end
  end
  return working
end

-- A plugin's block of the report.
local function block_of(entry, worker)
  if not entry.plugin then return { name = entry.id, error = entry.error } end
  local block = { name = entry.plugin.name, version = entry.plugin.version, units = plugins.units(entry.plugin) }
  local message
  if worker then
    block.values, message = reporter.take(worker, entry.id)
  else
    block.values, message = collect_here(entry)
  end
  if not block.values then block.error = message end
  return block
end

local function collect()
  local blocks, working = {}, start_reporters()
  for index, entry in ipairs(found) do blocks[index] = block_of(entry, working[index]) end
  return report.whole(facts.collect(), dom0, blocks)
end

local function print_report(as_json)
  local output, message = (as_json and report.json or report.text)(collect())
  local problem = message
  if output then
    local file
    file, message = io.write(output)
    if file then file, message = io.flush() end
    if file then return 0 end
    problem = "the report cannot be written in full: " .. message
  end
  io.stderr:write("vx_agent: ", problem, "\n")
  return 1
end

function M.main()
  if dom0:GetBool("app.background") then
    crew = workers.start(dom0, found)
    return 0
  end
  local chosen, message = options.parse(arg)
  if not chosen then
    io.stderr:write("vx_agent: ", message, "\n", options.usage)
    return 2
  end
  if chosen.help then
    io.write(options.usage)
    return 0
  end
  return print_report(chosen.json)
end

function M.shutdown()
  if crew then crew:stop() end
  crew = nil
  for index = #started, 1, -1 do plugins.call(started[index], "stop", dom0) end
  started = {}
  return 0
end

return M
