--- The report as a JUnit file: one suite a script. Standard output gets the short report for people.

local report_text = require("tests.vexunit.report_text")
local summary = require("tests.vexunit.summary")
local text_tools = require("vex.text")

local M = {}
M.__index = M

local find, format = string.find, string.format

-- Markup is escaped; what XML 1.0 cannot hold, control characters and bytes that are not UTF-8, becomes "?".
local escapes = { ["&"] = "&amp;", ["<"] = "&lt;", [">"] = "&gt;", ['"'] = "&quot;", ["\n"] = "&#10;", ["\t"] = "&#9;" }

--- A text as the value of an attribute or as character data.
function M.escape(text)
  if find(text, "^[a-z0-9_A-Z ./-]*$") then return text end -- nearly all
  local valid = text_tools.utf8(text, "?"):gsub("\239\191[\190\191]", "?") -- U+FFFE and U+FFFF
  return (valid:gsub("[%z\1-\8\11-\31\127]", "?"):gsub('[&<>"\n\t]', escapes))
end

local escape = M.escape

function M.new(settings, console)
  local file, message = io.open(settings.file, "wb")
  if not file then return nil, "cannot write the report: " .. message end
  return setmetatable({
    text = report_text.new(settings, console), file = file, path = settings.file, unloadable = {}, suites = {},
  }, M)
end

local elements = { failed = "failure", error = "error" }

-- Texts of the seconds of quick tests by their microseconds: they are few, and to format a fraction is dear.
local quick = {}

local function seconds_text(seconds)
  local rounded = seconds * 1e6 + 0.5
  if rounded >= 1000 then return format("%.6f", seconds) end
  rounded = rounded - rounded % 1
  local text = quick[rounded]
  if not text then
    text = format("%.6f", seconds)
    quick[rounded] = text
  end
  return text
end

-- What of a case is not its own.
local function open_case(suite, class)
  local name = suite.class
  if class then name = name .. "." .. class end
  suite.case_class = class
  suite.open = '    <testcase classname="' .. escape(name) .. '" name="'
  return suite.open
end

local function ending(status, message, trace)
  local shown = escape(tostring(message))
  if status == "skipped" then return format('"><skipped message="%s"/></testcase>\n', shown) end
  local element = elements[status]
  return format('"><%s message="%s">%s</%s></testcase>\n', element, shown, escape(summary.explain(message, trace)),
    element)
end

local function add(suite, class, name, status, seconds, message, trace)
  local count = suite.count + 1
  suite.count = count
  suite.seconds = suite.seconds + seconds
  local open = class == suite.case_class and suite.open or open_case(suite, class)
  local close = '"/>\n'
  if status ~= "passed" then
    suite[status] = suite[status] + 1
    close = ending(status, message, trace)
  end
  suite.cases[count] = open .. escape(name) .. '" time="' .. seconds_text(seconds) .. close
end

local function new_suite(path)
  local suite = {
    path = path, class = path:gsub("%.lua$", ""):gsub("/", "."), cases = {}, count = 0, failed = 0, error = 0,
    skipped = 0, seconds = 0,
  }
  open_case(suite, nil)
  return suite
end

function M:script_starts(path) self.text:script_starts(path) end
function M:test_starts(path, name) self.text:test_starts(path, name) end

function M:test_ends(script, class, name, status, seconds, message, trace)
  self.text:test_ends(script, class, name, status, seconds, message, trace)
  local suite = self.suite
  if not suite or suite.path ~= script then
    suite = new_suite(script)
    self.suite = suite
    self.suites[#self.suites + 1] = suite
  end
  add(suite, class, name, status, seconds, message, trace)
end

-- What is left of the cases is one text.
function M:script_ends(path, count)
  self.text:script_ends(path, count)
  local suite = self.suite
  if suite and suite.path == path then suite.cases = { table.concat(suite.cases) } end
end

function M:script_fails(path, message)
  self.text:script_fails(path, message)
  local suite = new_suite(path)
  add(suite, nil, "(loading)", "error", 0, path .. " does not load", message)
  table.insert(self.unloadable, suite)
end

local function write_suite(file, suite, run)
  local open = '  <testsuite name="%s" tests="%d" failures="%d" errors="%d" skipped="%d" time="%.6f" timestamp="%s">\n'
  return file:write(
    open:format(escape(suite.path), suite.count, suite.failed, suite.error, suite.skipped, suite.seconds,
      os.date("!%Y-%m-%dT%H:%M:%S", run.started)),
    ('    <properties><property name="seed" value="%d"/></properties>\n'):format(run.seed),
    table.concat(suite.cases), "  </testsuite>\n")
end

local function write(self, run)
  local file = self.file
  local ok, message = file:write('<?xml version="1.0" encoding="UTF-8"?>\n<testsuites>\n')
  for _, suites in ipairs({ self.unloadable, self.suites }) do
    for _, suite in ipairs(suites) do
      if ok then ok, message = write_suite(file, suite, run) end
    end
  end
  if ok then ok, message = file:write("</testsuites>\n") end
  if ok then return file:close() end
  file:close()
  return nil, message
end

function M:run_ends(run)
  self.text:run_ends(run)
  local ok, message = write(self, run)
  if not ok then return nil, ("cannot write the report '%s': %s"):format(self.path, tostring(message)) end
  return true
end

return M
