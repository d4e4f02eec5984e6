--- Example plugin with a library of its own and a database: how load, memory and disk develop.
--
-- It is delivered as an extension archive (trend.vxe with its version file), so plugin and library are found by
-- `require` like any other module. The samples lie in a database in the plugin's work folder.

local host = require("vex.host")
local settings = require("vex.settings")
local samples = require("trend.samples")
local statistics = require("trend.statistics")

local M = {
  name = "Trend",
  version = "1.0.0",
  interval = 300,
  units = { memory_available = "bytes", disk_available = "bytes", disk_full_in_days = "days" },
}

local figures = { "load", "memory_available", "disk_available" }
local day_ms = 86400000

local store

function M.start(dom)
  store = assert(samples.open(assert(dom:PluginWorkdir("trend")) .. "/samples.db"))
end

local function disk_of(path)
  for _, disk in ipairs(host.disks() or {}) do
    if disk.mount == path then return disk.available end
  end
end

local function sample(dom)
  local load = host.load()
  return {
    time_ms = dom:TimeMillis(), load = load and load[1], memory_available = host.memory().available,
    disk_available = disk_of(settings.text("trend.Disk", "/")),
  }
end

function M.collect(dom)
  local now = sample(dom)
  local keep_days = settings.int("trend.KeepDays", 7)
  if keep_days < 1 then keep_days = 7 end -- as with the agent's own settings
  assert(store:add(now, now.time_ms - keep_days * day_ms))
  local last_day = assert(store:since(now.time_ms - day_ms))
  local values = { samples = #last_day }
  for _, figure in ipairs(figures) do values[figure] = statistics.summary(last_day, figure) end
  values.disk_full_in_days = statistics.days_until_zero(last_day, "disk_available")
  return values
end

function M.stop()
  if store then store:close() end
  store = nil
end

return M
