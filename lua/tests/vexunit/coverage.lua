--- Which Lua lines ran, written in LCOV format.
--
-- A hook counts lines; it is on only while a run asks for it. The lines that could have run are read from the compiled
-- form of each file's main chunk, which the hook sees when the file is loaded, so it makes no difference whether the
-- source lies on disk or inside an archive. Worker threads have states of their own and are not seen.

local lines_of = require("tests.vexunit.chunk_lines")

local M = {}
M.__index = M

local getinfo, sethook, gethook = debug.getinfo, debug.sethook, debug.gethook

-- The runner and LuaUnit are no part of what is being measured.
local function is_ours(source)
  return source:find("tests/vexunit", 1, true) or source:find("luaunit.lua", 1, true)
end

local function new_hook(self)
  local hits, chunks, ignored = self.hits, self.chunks, self.ignored
  return function(event, line)
    local about = getinfo(2, "S")
    local source = about.source
    local counts = hits[source]
    if not counts then
      if counts == false then return end
      if source:sub(1, 1) ~= "@" or ignored[source] or is_ours(source) then
        hits[source] = false
        return
      end
      counts = {}
      hits[source] = counts
    end
    if event == "line" then
      counts[line] = (counts[line] or 0) + 1
    elseif about.what == "main" and not chunks[source] then
      chunks[source] = string.dump(getinfo(2, "f").func)
    end
  end
end

--- Starts counting.
-- @param path the file that `finish` writes; it is made at once, so that a wrong name shows before the run
-- @param scripts paths of the test scripts, which are not counted themselves
-- @return a collector, or nil and a message
function M.start(path, scripts)
  local file, message = io.open(path, "wb")
  if not file then return nil, "cannot write the coverage: " .. message end
  local self = setmetatable({ file = file, path = path, hits = {}, chunks = {}, ignored = {} }, M)
  for _, script in ipairs(scripts) do self.ignored["@" .. script] = true end
  local hook = new_hook(self)
  local create = coroutine.create
  -- A run inside a run, as the runner's own tests make it, gives back what it found.
  self.before = { hook = table.pack(gethook()), create = create, wrap = coroutine.wrap }
  -- A hook belongs to one coroutine: each new one gets it too.
  coroutine.create = function(body) -- luacheck: ignore 122
    local thread = create(body)
    sethook(thread, hook, "cl")
    return thread
  end
  coroutine.wrap = function(body) -- luacheck: ignore 122
    local thread = coroutine.create(body)
    local function hand_on(ok, ...)
      if not ok then error((...), 0) end
      return ...
    end
    return function(...) return hand_on(coroutine.resume(thread, ...)) end
  end
  sethook(hook, "cl")
  return self
end

local function possible_lines(self, source)
  local chunk = self.chunks[source]
  if not chunk then
    -- Loaded before the run: its file, if it is one, is compiled once more for its lines alone.
    local compiled = loadfile(source:sub(2), "t")
    chunk = compiled and string.dump(compiled)
  end
  return chunk and lines_of(chunk) or {}
end

local function section(self, source, counts)
  local lines = possible_lines(self, source)
  for line in pairs(counts) do lines[line] = true end
  local sorted = {}
  for line in pairs(lines) do sorted[#sorted + 1] = line end
  table.sort(sorted)
  local parts, hit = { "TN:\nSF:" .. source:sub(2) .. "\n" }, 0
  for _, line in ipairs(sorted) do
    local count = counts[line] or 0
    if count > 0 then hit = hit + 1 end
    parts[#parts + 1] = ("DA:%d,%d\n"):format(line, count)
  end
  parts[#parts + 1] = ("LF:%d\nLH:%d\nend_of_record\n"):format(#sorted, hit)
  return table.concat(parts)
end

--- Stops counting and writes the file.
-- @return true, or nil and a message
function M:finish()
  local before = self.before
  if before.hook[1] then sethook(table.unpack(before.hook, 1, before.hook.n)) else sethook() end
  coroutine.create, coroutine.wrap = before.create, before.wrap -- luacheck: ignore 122
  local sources = {}
  for source, counts in pairs(self.hits) do
    if counts then sources[#sources + 1] = source end
  end
  table.sort(sources)
  local parts = {}
  for _, source in ipairs(sources) do parts[#parts + 1] = section(self, source, self.hits[source]) end
  local ok, message = self.file:write(table.concat(parts))
  if ok then ok, message = self.file:close() else self.file:close() end
  if not ok then return nil, ("cannot write the coverage '%s': %s"):format(self.path, tostring(message)) end
  return true
end

return M
