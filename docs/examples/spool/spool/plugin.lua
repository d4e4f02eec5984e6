--- Counts the files in a folder and tells how long the oldest has been waiting.

local fs = require("vex.fs")
local settings = require("vex.settings")

local M = {
  name = "Spool",
  version = "1.0.0",
  interval = 60, -- seconds
  units = { bytes = "bytes", oldest = "seconds" },
}

local folder

--- Takes note of the folder; without one the plugin does not start.
function M.start()
  folder = settings.text("spool.Folder")
  assert(folder, "the setting spool.Folder names no folder")
end

--- @return files, bytes and, when there is a file, oldest (seconds)
function M.collect(dom)
  local names = assert(fs.list(folder))
  local values = { files = 0, bytes = 0 }
  local now = dom:TimeMillis() / 1000
  for _, name in ipairs(names) do
    local about = fs.stat(folder .. "/" .. name) -- nil when it has gone meanwhile
    if about and about.type == "file" then
      values.files = values.files + 1
      values.bytes = values.bytes + about.size
      values.oldest = math.max(values.oldest or 0, math.floor(now - about.modified))
    end
  end
  return values
end

return M
