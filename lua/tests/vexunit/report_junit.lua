--- The report as a JUnit file: one suite a script. Standard output gets the short report for people.

local report_text = require("tests.vexunit.report_text")
local summary = require("tests.vexunit.summary")
local text_tools = require("vex.text")

local M = {}
M.__index = M

-- Markup is escaped; what XML 1.0 cannot hold, control characters and bytes that are not UTF-8, becomes "?".
local escapes = { ["&"] = "&amp;", ["<"] = "&lt;", [">"] = "&gt;", ['"'] = "&quot;", ["\n"] = "&#10;", ["\t"] = "&#9;" }

--- A text as the value of an attribute or as character data.
function M.escape(text)
  if not text:find("[^ %-./0-9A-Z_a-z]") then return text end -- nearly all
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

local function case(result, class)
  if result.class then class = class .. "." .. result.class end
  local open = ('    <testcase classname="%s" name="%s" time="%.6f"'):format(escape(class), escape(result.name),
    result.seconds)
  if result.status == "passed" then return open .. "/>\n" end
  local message = escape(tostring(result.message))
  if result.status == "skipped" then return ('%s><skipped message="%s"/></testcase>\n'):format(open, message) end
  local element = elements[result.status]
  return ('%s><%s message="%s">%s</%s></testcase>\n'):format(open, element, message, escape(summary.explain(result)),
    element)
end

local function add(suite, result)
  suite.count = suite.count + 1
  local status = result.status
  if status ~= "passed" then suite[status] = suite[status] + 1 end
  suite.seconds = suite.seconds + result.seconds
  suite.cases[suite.count] = case(result, suite.class)
end

local function new_suite(path)
  return {
    path = path, class = path:gsub("%.lua$", ""):gsub("/", "."), cases = {}, count = 0, failed = 0, error = 0,
    skipped = 0, seconds = 0,
  }
end

function M:script_starts(path) self.text:script_starts(path) end
function M:test_starts(path, name) self.text:test_starts(path, name) end

function M:test_ends(result)
  self.text:test_ends(result)
  local suites = self.suites
  local suite = suites[#suites]
  if not suite or suite.path ~= result.script then
    suite = new_suite(result.script)
    suites[#suites + 1] = suite
  end
  add(suite, result)
end

-- What is left of the cases is one text.
function M:script_ends(path, count)
  self.text:script_ends(path, count)
  local suite = self.suites[#self.suites]
  if suite and suite.path == path then suite.cases = { table.concat(suite.cases) } end
end

function M:script_fails(path, message)
  self.text:script_fails(path, message)
  local suite = new_suite(path)
  add(suite, {
    script = path, name = "(loading)", status = "error", message = path .. " does not load", trace = message,
    seconds = 0,
  })
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
