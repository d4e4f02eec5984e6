--- The report in the Test Anything Protocol. The plan stands at the end: scripts are loaded one after the other.

local summary = require("tests.vexunit.summary")

local M = {}
M.__index = M

local find, format = string.find, string.format

function M.new(_, console)
  return setmetatable({ console = console, count = 0, script = "" }, M)
end

-- Text that must stay on its line and must not look like a directive.
local function plain(text)
  if find(text, "^[a-z0-9_A-Z./-]*$") then return text end -- nearly all
  return (text:gsub("[\r\n]+", " "):gsub("#", "\\#"))
end

function M:comment(text)
  for line in (text .. "\n"):gmatch("([^\n]*)\n") do self.console.write("# " .. line .. "\n") end
end

local function point(self, word, name, suffix)
  local count = self.count + 1
  self.count = count
  self.console.write(word .. format("%d - ", count) .. self.script .. name .. suffix)
end

function M:script_starts(path)
  self:comment(path)
  self.script = plain(path) .. " "
end

function M:script_fails(_, message)
  point(self, "not ok ", "", "does not load\n")
  self:comment(message)
end

function M:script_ends() end
function M:test_starts() end

function M:test_ends(_, _, name, status, _, message, trace)
  name = plain(name)
  if status == "passed" then return point(self, "ok ", name, "\n") end
  if status == "skipped" then return point(self, "ok ", name, " # SKIP " .. plain(tostring(message)) .. "\n") end
  point(self, "not ok ", name, "\n")
  self:comment(summary.explain(message, trace))
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
