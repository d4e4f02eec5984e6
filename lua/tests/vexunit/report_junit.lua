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
  local valid = text_tools.utf8(text, "?"):gsub("\239\191[\190\191]", "?") -- U+FFFE and U+FFFF
  return (valid:gsub("[%z\1-\8\11-\31\127]", "?"):gsub('[&<>"\n\t]', escapes))
end

local escape = M.escape

function M.new(settings, console)
  local file, message = io.open(settings.file, "wb")
  if not file then return nil, "cannot write the report: " .. message end
  return setmetatable({
    text = report_text.new(settings, console), file = file, path = settings.file, unloadable = {},
  }, M)
end

function M:script_starts(path) self.text:script_starts(path) end
function M:script_ends(path, count) self.text:script_ends(path, count) end
function M:test_starts(path, name) self.text:test_starts(path, name) end
function M:test_ends(result) self.text:test_ends(result) end

function M:script_fails(path, message)
  self.text:script_fails(path, message)
  table.insert(self.unloadable, {
    script = path, name = "(loading)", status = "error", message = path .. " does not load", trace = message,
    seconds = 0,
  })
end

-- Results in the order of their scripts' first appearance.
local function by_script(results)
  local order, groups = {}, {}
  for _, result in ipairs(results) do
    if not groups[result.script] then
      groups[result.script] = {}
      order[#order + 1] = result.script
    end
    table.insert(groups[result.script], result)
  end
  return order, groups
end

local elements = { failed = "failure", error = "error" }

local function case(result)
  local class = result.script:gsub("%.lua$", ""):gsub("/", ".")
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

local function suite(path, results, run)
  local failed, errors, skipped, seconds, cases = 0, 0, 0, 0, {}
  for _, result in ipairs(results) do
    if result.status == "failed" then failed = failed + 1 end
    if result.status == "error" then errors = errors + 1 end
    if result.status == "skipped" then skipped = skipped + 1 end
    seconds = seconds + result.seconds
    cases[#cases + 1] = case(result)
  end
  local open = '  <testsuite name="%s" tests="%d" failures="%d" errors="%d" skipped="%d" time="%.6f" timestamp="%s">\n'
  return open:format(escape(path), #results, failed, errors, skipped, seconds,
    os.date("!%Y-%m-%dT%H:%M:%S", run.started))
    .. ('    <properties><property name="seed" value="%d"/></properties>\n'):format(run.seed)
    .. table.concat(cases) .. "  </testsuite>\n"
end

function M:run_ends(run)
  local all = {}
  for _, result in ipairs(self.unloadable) do all[#all + 1] = result end
  for _, result in ipairs(run.results) do all[#all + 1] = result end
  local parts = { '<?xml version="1.0" encoding="UTF-8"?>\n<testsuites>\n' }
  local order, groups = by_script(all)
  for _, path in ipairs(order) do parts[#parts + 1] = suite(path, groups[path], run) end
  parts[#parts + 1] = "</testsuites>\n"
  self.text:run_ends(run)
  local ok, message = self.file:write(table.concat(parts))
  if ok then ok, message = self.file:close() else self.file:close() end
  if not ok then return nil, ("cannot write the report '%s': %s"):format(self.path, tostring(message)) end
  return true
end

return M
