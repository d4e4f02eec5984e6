--- The agent's metrics as text for Prometheus. Pure: it asks nobody. docs/FORMATS.md lists them for their readers.

local prometheus = require("vex.prometheus")

local M = {}

local severities = { [0] = "emergency", "alert", "critical", "error", "warning", "notice", "info", "debug" }
local levels = { "fatal", "error", "warning", "message", "info", "debug", "trace" }
local dropped_name = "vex_plugin_series_dropped"

-- Adds a sample whose value is known.
local function put(families, name, help, value, labels)
  local kind = name:find("_total$") and "counter" or "gauge"
  if value ~= nil then families:add(name, { help = help, type = kind }, value, labels) end
end

local function put_agent(families, agent)
  put(families, "vex_up", "1: the agent's working process writes this.", 1)
  put(families, "vex_build_info", "Name and version of the agent.", 1,
    { { "name", agent.name }, { "version", agent.version or "" } })
  put(families, "vex_start_time_seconds", "When the working process began to beat, since the epoch.",
    agent.started_ms / 1000)
  put(families, "vex_restarts_total", "Working processes before this one, under its supervisor.", agent.restarts)
  put(families, "vex_heartbeats_total", "Heartbeats of the working process.", agent.beats)
  put(families, "vex_heartbeat_timestamp_seconds", "When the last heartbeat was, since the epoch.",
    agent.beat_ms / 1000)
  put(families, "vex_heartbeat_interval_seconds", "Time between two heartbeats by the settings.", agent.interval)
  put(families, "vex_resident_memory_bytes", "Memory that the working process has in use.", agent.resident_memory)
  for severity = 0, 7 do
    put(families, "vex_events_total", "Agent events that the working process has written, by severity.",
      agent.events[severity], { { "severity", severities[severity] } })
  end
  for _, level in ipairs(levels) do
    put(families, "vex_log_lines_total", "Records in the log by level, those of the supervisor before the start too.",
      agent.log_records[level], { { "level", level } })
  end
end

local function put_host(families, facts)
  put(families, "vex_host_info", "What the host is.", 1, {
    { "host", facts.host or "" }, { "host_id", facts.host_id or "" }, { "system", facts.system or "" },
    { "kernel", facts.kernel or "" }, { "architecture", facts.architecture or "" },
  })
  put(families, "vex_host_processors", "Processors that are online.", facts.processors)
  put(families, "vex_host_uptime_seconds", "Time since the host started.", facts.uptime)
  for index, minutes in ipairs({ 1, 5, 15 }) do
    put(families, "vex_host_load" .. minutes, ("Load over %d min."):format(minutes), facts.load and facts.load[index])
  end
  local memory = facts.memory or {}
  put(families, "vex_host_memory_size_bytes", "Memory of the host.", memory.total)
  put(families, "vex_host_memory_available_bytes", "Memory that programs can have without swapping.", memory.available)
  put(families, "vex_host_memory_free_bytes", "Memory that nobody uses.", memory.free)
  put(families, "vex_host_swap_size_bytes", "Swap space of the host.", memory.swap_total)
  put(families, "vex_host_swap_free_bytes", "Swap space that nobody uses.", memory.swap_free)
  for _, disk in ipairs(facts.disks or {}) do
    local labels = { { "mount", disk.mount }, { "device", disk.device }, { "type", disk.type } }
    put(families, "vex_host_disk_size_bytes", "Size of a file system.", disk.total, labels)
    put(families, "vex_host_disk_free_bytes", "Room that nobody uses, with what is reserved.", disk.free, labels)
    put(families, "vex_host_disk_available_bytes", "Room for an ordinary user.", disk.available, labels)
  end
end

local function put_plugin(families, plugin)
  local labels = { { "plugin", plugin.id } }
  local is_up = plugin.time_ms ~= nil and not plugin.error
  put(families, "vex_plugin_info", "A plugin that is enabled.", 1,
    { labels[1], { "name", plugin.name }, { "version", plugin.version or "" } })
  put(families, "vex_plugin_up", "1: the plugin's last collection went well.", is_up, labels)
  put(families, "vex_plugin_last_collection_timestamp_seconds", "When a collection last went well, since the epoch.",
    plugin.time_ms and plugin.time_ms / 1000, labels)
  put(families, "vex_plugin_collection_duration_seconds", "How long the last collection took.", plugin.seconds, labels)
end

local function sorted(plugins)
  local list = { table.unpack(plugins) }
  table.sort(list, function(a, b) return a.id < b.id end)
  return list
end

--- All metrics of a beat.
-- @param agent table with name, version, started_ms, restarts, beats, beat_ms, interval, resident_memory, events (by
-- severity), log_records (by level), facts (from vx_agent.facts) and plugins, an array of { id, name, version, error,
-- time_ms, seconds, metrics (from vx_agent.plugin_metrics), dropped }
-- @return the text, and an array of { id, name } of metrics that were left out because another has their name
function M.text(agent)
  local families, same = prometheus.new(), {}
  put_agent(families, agent)
  put_host(families, agent.facts)
  local plugins = sorted(agent.plugins)
  for _, plugin in ipairs(plugins) do put_plugin(families, plugin) end
  local dropped = {}
  for _, plugin in ipairs(plugins) do
    dropped[plugin] = plugin.dropped or 0
    for name, text in prometheus.split(plugin.error and "" or plugin.metrics or "") do
      if name == dropped_name or not families:add_text(name, text) then
        dropped[plugin] = dropped[plugin] + prometheus.samples(text)
        same[#same + 1] = { id = plugin.id, name = name }
      end
    end
  end
  for _, plugin in ipairs(plugins) do
    put(families, dropped_name, "Figures of the plugin's last collection that are no metrics here.", dropped[plugin],
      { { "plugin", plugin.id } })
  end
  return families:text(), same
end

return M
