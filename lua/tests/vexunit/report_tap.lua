--- The report in the Test Anything Protocol. The plan stands at the end: scripts are loaded one after the other.

local summary = require("tests.vexunit.summary")

local M = {}
M.__index = M

function M.new(_, console)
  return setmetatable({ console = console, count = 0 }, M)
end

-- Text that must stay on its line and must not look like a directive.
local function plain(text)
  if not text:find("[\r\n#]") then return text end
  return (text:gsub("[\r\n]+", " "):gsub("#", "\\#"))
end

function M:comment(text)
  for line in (text .. "\n"):gmatch("([^\n]*)\n") do self.console.write("# " .. line .. "\n") end
end

function M:line(good, name, suffix)
  self.count = self.count + 1
  self.console.write(("%s %d - %s%s\n"):format(good and "ok" or "not ok", self.count, plain(name), suffix or ""))
end

function M:script_starts(path) self:comment(path) end

function M:script_fails(path, message)
  self:line(false, path .. " does not load")
  self:comment(message)
end

function M:script_ends() end
function M:test_starts() end

function M:test_ends(result)
  local name = result.script .. " " .. result.name
  if result.status == "skipped" then
    self:line(true, name, " # SKIP " .. plain(tostring(result.message)))
  else
    self:line(result.status == "passed", name)
    if result.status ~= "passed" then self:comment(summary.explain(result)) end
  end
end

function M:run_ends(run)
  self.console.write(("1..%d\n"):format(self.count))
  for _, line in ipairs(run.slowest:lines()) do self:comment("slow: " .. line) end
  self:comment(summary.seed(run))
  if run.stopped then self:comment("Stopped at the first failure.") end
  self:comment(summary.totals(run))
  return true
end

return M
