--- The report for people. Colours only on a terminal.

local summary = require("tests.vexunit.summary")

local M = {}
M.__index = M

local marks = { passed = ".", failed = "F", error = "E", skipped = "S" }
local words = { passed = "ok", failed = "FAILED", error = "ERROR", skipped = "skipped" }
local colours = { passed = "\27[32m", failed = "\27[31m", error = "\27[31m", skipped = "\27[33m" }

function M.new(settings, console)
  local self = setmetatable({ settings = settings, console = console, troubles = {}, marks = {} }, M)
  for status, mark in pairs(marks) do self.marks[status] = self:paint(status, mark) end
  return self
end

function M:paint(status, text)
  if not self.console.terminal then return text end
  return colours[status] .. text .. "\27[0m"
end

function M:script_starts(path)
  if self.settings.verbose then
    self.console.write(path .. "\n")
  elseif not self.settings.quiet then
    self.console.write(path .. " ")
  end
end

function M:script_fails(path, message)
  if self.settings.verbose then
    self.console.write("  " .. self:paint("error", "does not load") .. "\n")
  elseif not self.settings.quiet then
    self.console.write(self:paint("error", "does not load") .. "\n")
  end
  table.insert(self.troubles, { title = path .. " does not load", text = message })
end

function M:script_ends(_, count)
  if self.settings.verbose or self.settings.quiet then return end
  self.console.write(count == 0 and "no tests\n" or "\n")
end

function M:test_starts(_, name)
  if self.settings.verbose then self.console.write("  " .. name .. " ... ") end
end

function M:test_ends(script, _, name, status, _, message, trace)
  local settings = self.settings
  if settings.verbose then
    local line = self:paint(status, words[status])
    if status == "skipped" then line = line .. ": " .. tostring(message) end
    self.console.write(line .. "\n")
  elseif not settings.quiet then
    self.console.write(self.marks[status])
  end
  if status == "failed" or status == "error" then
    table.insert(self.troubles, {
      title = ("%s: %s %s"):format(words[status], script, name), text = summary.explain(message, trace),
    })
  end
end

function M:run_ends(run)
  local write = self.console.write
  if run.stopped and not (self.settings.verbose or self.settings.quiet) then write("\n") end
  for index, trouble in ipairs(self.troubles) do
    write(("\n%d) %s\n%s\n"):format(index, self:paint("failed", trouble.title), trouble.text))
  end
  if #self.troubles > 0 then write("\n") end
  local slowest = run.slowest:lines()
  if #slowest > 0 and not self.settings.quiet then
    write("Slowest tests:\n" .. table.concat(slowest, "\n") .. "\n")
  end
  write(summary.seed(run) .. "\n")
  if run.stopped then write("Stopped at the first failure.\n") end
  local good = run.status == 0
  write(summary.totals(run) .. "\n" .. (good and self:paint("passed", "OK") or self:paint("failed", "FAILED")) .. "\n")
  return true
end

return M
