--- A folder of a test's own.

local fs = require("vex.fs")

local M = {}

--- Makes a folder with a name that nobody has.
function M.folder()
  local name = os.tmpname()
  os.remove(name)
  assert(fs.mkdir(name))
  return name
end

--- Removes a folder with all that is in it; symbolic links are removed, not followed.
function M.remove(path)
  local about = fs.lstat(path)
  if not about then return end
  if about.type == "folder" then
    for _, name in ipairs(fs.list(path)) do M.remove(path .. "/" .. name) end
  end
  assert(os.remove(path))
end

--- Writes a file, making the folders of its path below `folder`.
-- @return its full path
function M.write(folder, name, content)
  local path = folder
  for part in name:gmatch("([^/]+)/") do
    path = path .. "/" .. part
    if not fs.stat(path) then assert(fs.mkdir(path)) end
  end
  path = folder .. "/" .. name
  local file = assert(io.open(path, "wb"))
  file:write(content)
  assert(file:close())
  return path
end

function M.read(path)
  local file = assert(io.open(path, "rb"))
  local content = file:read("*a")
  file:close()
  return content
end

return M
