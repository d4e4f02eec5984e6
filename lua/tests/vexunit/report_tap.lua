--- The report in the Test Anything Protocol. The plan stands at the end: scripts are loaded one after the other.

local summary = require("tests.vexunit.summary")

local M = {}
M.__index = M

local find, format = string.find, string.format

function M.new(_, console)
  return setmetatable({ write = console.write, count = 0, script = "" }, M)
end

-- Text that must stay on its line and must not look like a directive.
local function plain(text)
  if find(text, "^[a-z0-9_A-Z./-]*$") then return text end -- nearly all
  return (text:gsub("[\r\n]+", " "):gsub("#", "\\#"))
end

function M:comment(text)
  for line in (text .. "\n"):gmatch("([^\n]*)\n") do self.write("# " .. line .. "\n") end
end

function M:script_starts(path)
  self:comment(path)
  self.script = plain(path) .. " "
end

function M:script_ends() end
function M:test_starts() end

function M:test_ends(_, _, name, status, _, message, trace)
  local count, word, suffix = self.count + 1, "ok ", "\n"
  self.count = count
  if status == "skipped" then
    suffix = " # SKIP " .. plain(tostring(message)) .. "\n"
  elseif status ~= "passed" then
    word = "not ok "
  end
  self.write(word .. format("%d - ", count) .. self.script .. plain(name) .. suffix)
  if word ~= "ok " then self:comment(summary.explain(message, trace)) end
end

function M:script_fails(_, message) self:test_ends(nil, nil, "does not load", "error", 0, message) end

function M:run_ends(run)
  self.write(("1..%d\n"):format(self.count))
  for _, line in ipairs(run.slowest:lines()) do self:comment("slow: " .. line) end
  self:comment(summary.seed(run))
  if run.stopped then self:comment("Stopped at the first failure.") end
  self:comment(summary.totals(run))
  return true
end

return M
