--- Finds files by pattern.
--
-- "*" stands for any letters of a name, "?" for one, and a component "**" for any number of folders, none included.
-- Names that begin with "." are found only by a pattern that begins with ".". Symbolic links to folders are not
-- followed by "**", so a circle of links does no harm.

local fs = require("vex.fs")

local M = {}

--- Whether the text holds one of the pattern's own letters.
function M.is_pattern(text)
  return text:find("[*?]") ~= nil
end

-- The Lua pattern that means the same as one component.
local function component_pattern(component)
  local escaped = component:gsub("[%^%$%(%)%%%.%[%]%+%-]", "%%%0"):gsub("%*", ".*")
  escaped = escaped:gsub("%?", "[^\128-\191][\128-\191]*")
  return "^" .. escaped .. "$"
end

--- Whether a name matches one component of a pattern; "?" takes one letter of UTF-8.
function M.matches(name, component)
  if name:sub(1, 1) == "." and component:sub(1, 1) ~= "." then return false end
  return name:find(component_pattern(component)) ~= nil
end

local function join(folder, name)
  if folder == "" then return name end
  if folder:sub(-1) == "/" then return folder .. name end
  return folder .. "/" .. name
end

local function names_in(folder)
  return fs.list(folder == "" and "." or folder) or {}
end

local function is_folder(path, follow)
  local about = (follow and fs.stat or fs.lstat)(path)
  return about ~= nil and about.type == "folder"
end

local walk, step

-- Everything that the components from `index` on find below `folder`, put into `found` as keys.
local function walk_any_depth(found, folder, components, index)
  if index == #components then
    for _, name in ipairs(names_in(folder)) do
      if name:sub(1, 1) ~= "." then
        local path = join(folder, name)
        if is_folder(path, false) then
          walk_any_depth(found, path, components, index)
        else
          step(found, path, components, index)
        end
      end
    end
    return
  end
  walk(found, folder, components, index + 1)
  for _, name in ipairs(names_in(folder)) do
    local path = join(folder, name)
    if name:sub(1, 1) ~= "." and is_folder(path, false) then
      walk_any_depth(found, path, components, index)
    end
  end
end

function step(found, path, components, index)
  if index < #components then
    if is_folder(path, true) then walk(found, path, components, index + 1) end
    return
  end
  local about = fs.stat(path)
  if about and about.type == "file" then found[path] = true end
end

function walk(found, folder, components, index)
  local component = components[index]
  if component == "**" then
    walk_any_depth(found, folder, components, index)
  elseif M.is_pattern(component) then
    for _, name in ipairs(names_in(folder)) do
      if M.matches(name, component) then step(found, join(folder, name), components, index) end
    end
  else
    step(found, join(folder, component), components, index)
  end
end

--- The regular files that match.
-- @param pattern a path with the letters above in any component
-- @param base the folder that a relative pattern starts from; nil is the current directory
-- @return array of paths, sorted by their bytes; relative ones for a relative pattern without a base
function M.files(pattern, base)
  local folder = base or ""
  if pattern:sub(1, 1) == "/" then folder = "/" end
  local components = {}
  for component in pattern:gmatch("[^/]+") do components[#components + 1] = component end
  local found = {}
  if #components > 0 then walk(found, folder, components, 1) end
  local sorted = {}
  for path in pairs(found) do sorted[#sorted + 1] = path end
  table.sort(sorted)
  return sorted
end

return M
