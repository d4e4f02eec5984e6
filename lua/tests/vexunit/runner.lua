--- Runs scripts one after the other and reports on them as one run.
--
-- The engine runs each test. Here is what is around that: scripts and their environments, classes, the order, when to
-- stop, and what the reports are told.

local fs = require("vex.fs")
local host = require("vex.host")
local coverage = require("tests.vexunit.coverage")
local engine = require("tests.vexunit.engine")
local isolation = require("tests.vexunit.isolation")
local scripts = require("tests.vexunit.scripts")
local summary = require("tests.vexunit.summary")

local M = {}

-- What a script might replace and we still need afterwards.
local stdout, stderr = io.stdout, io.stderr
local random, randomseed, time = math.random, math.randomseed, os.time

--- Where a run writes to when nothing else is asked for.
function M.standard_console()
  local write = stdout.write
  return {
    write = function(text) write(stdout, text) end,
    complain = function(text) stderr:write(text, "\n") end,
    terminal = fs.isatty(1),
    clock = host.monotonic,
  }
end

local reports = {
  text = "tests.vexunit.report_text",
  tap = "tests.vexunit.report_tap",
  junit = "tests.vexunit.report_junit",
  ["nil"] = "tests.vexunit.report_nil",
}

local function shuffled(list)
  for index = #list, 2, -1 do
    local other = random(index)
    list[index], list[other] = list[other], list[index]
  end
  return list
end

-- Whether the names on the command line choose a test, and a note of which of them did.
local function chosen(run, full, class)
  if #run.settings.names == 0 then return true end
  local result = false
  for _, wanted in ipairs(run.settings.names) do
    if wanted == full or wanted == class then
      run.used_names[wanted] = true
      result = true
    end
  end
  return result
end

-- Includes and excludes apply in the order in which they were given; the last one that matches decides.
local function filtered_in(patterns, full)
  local result
  local default = true
  for _, pattern in ipairs(patterns) do
    local exclude = pattern:sub(1, 1) == "!"
    if exclude then
      pattern = pattern:sub(2)
    else
      default = false
    end
    if full:find(pattern) then result = not exclude end
  end
  if result == nil then return default end
  return result
end

-- The tests, sorted: a function is only its name, a method a table with `full`, its name, `run`, its function, `class`,
-- the name of its class, and `instance`, its class.
local function expand(collected)
  local values = collected.values
  local tests = {}
  for _, name in ipairs(collected.names) do
    local value = values[name]
    if type(value) == "function" then
      tests[#tests + 1] = name
    else
      local methods = {}
      for method, body in pairs(value) do
        if type(method) == "string" and type(body) == "function" and method:sub(1, 4):lower() == "test" then
          methods[#methods + 1] = method
        end
      end
      table.sort(methods)
      for _, method in ipairs(methods) do
        tests[#tests + 1] = { full = name .. "." .. method, run = value[method], class = name, instance = value }
      end
    end
  end
  return tests
end

local function name_of(test)
  if type(test) == "string" then return test end
  return test.full, test.class
end

-- Records the end of a test, or of something that is reported like one.
local function record(run, class, name, status, seconds, message, trace)
  local counts, slowest, script = run.counts, run.slowest, run.script
  counts[status] = counts[status] + 1
  if seconds >= slowest.least and status ~= "skipped" then slowest:add(script, name, seconds) end
  run.report:test_ends(script, class, name, status, seconds, message, trace)
  if status == "passed" then return end
  local settings = run.settings
  if status == "error" and (settings.stop_at_error or settings.stop_at_failure)
    or status == "failed" and settings.stop_at_failure then
    run.stopped = true
  end
end

-- Set-up and tear-down of a class or a script: silent when it works, an entry of its own when it does not.
local function run_fixture(run, instance, fixture, name)
  if type(fixture) ~= "function" then return true end
  local begin = run.clock()
  local status, message, trace = run.engine:call(fixture, instance, name, 1)
  if status == "passed" then return true end
  if status == "skipped" then return false, message end
  record(run, nil, name, status, run.clock() - begin, message, trace)
  return false, name .. " failed"
end

local function run_test(run, name, body, class, instance)
  local clock = run.clock
  run.report:test_starts(run.script, name)
  local begin = clock()
  local status, message, trace = run.engine:run(name, body, class, instance)
  record(run, class, name, status, clock() - begin, message, trace)
end

local function skip_test(run, name, class, reason)
  run.report:test_starts(run.script, name)
  record(run, class, name, "skipped", 0, reason)
end

-- Runs the tests of one script. A class is set up before its first test and torn down after its last one; shuffled
-- tests may visit a class more than once.
local function run_tests(run, tests, values)
  local open -- the class that is set up
  local broken -- why its tests cannot run
  local function close()
    if open and not broken then
      run_fixture(run, open.instance, open.instance.teardownClass, open.class .. ".teardownClass")
    end
    open, broken = nil, nil
  end
  for index = 1, #tests do
    if run.stopped then break end
    local test = tests[index]
    local body = values[test]
    if body then
      if open then close() end
    elseif not open or open.class ~= test.class then
      close()
      open = test
      local ok, reason = run_fixture(run, test.instance, test.instance.setupClass, test.class .. ".setupClass")
      if not ok then broken = reason end
    end
    if run.stopped then break end
    if body then
      run_test(run, test, body)
    elseif broken then
      skip_test(run, test.full, test.class, broken)
    else
      run_test(run, test.full, test.run, test.class, test.instance)
    end
  end
  close()
end

local function select_tests(run, collected)
  local selected = expand(collected)
  if #run.settings.names > 0 or #run.settings.patterns > 0 then
    local all = selected
    selected = {}
    for _, test in ipairs(all) do
      local full, class = name_of(test)
      if chosen(run, full, class) and filtered_in(run.settings.patterns, full) then
        selected[#selected + 1] = test
      else
        run.counts.left_out = run.counts.left_out + 1
      end
    end
  end
  if run.settings.shuffle then shuffled(selected) end
  return selected
end

local function run_script(run, path)
  run.script = path
  run.report:script_starts(path)
  -- The same seed for every script: a script on its own then runs as it does among others.
  randomseed(run.seed)
  local collected, message, suite = scripts.load(path)
  if not collected then
    run.counts.unloadable = run.counts.unloadable + 1
    run.report:script_fails(path, message)
    if run.settings.stop_at_error or run.settings.stop_at_failure then run.stopped = true end
    return
  end
  randomseed(run.seed)
  local tests = select_tests(run, collected)
  if #tests > 0 then
    local ok, reason = run_fixture(run, nil, suite.setup, "setupSuite")
    if ok then
      run_tests(run, tests, collected.values)
      run_fixture(run, nil, suite.teardown, "teardownSuite")
    else
      for _, test in ipairs(tests) do
        if run.stopped then break end
        local full, class = name_of(test)
        skip_test(run, full, class, reason)
      end
    end
  end
  run.report:script_ends(path, #tests)
end

local function unused_names(run)
  local unused = {}
  for _, name in ipairs(run.settings.names) do
    if not run.used_names[name] then unused[#unused + 1] = name end
  end
  return unused
end

-- The status of a run, and what is wrong with the run itself.
local function status_of(run)
  local counts = run.counts
  if counts.unloadable > 0 then return 2 end
  if counts.failed > 0 or counts.error > 0 then return 1 end
  local unused = unused_names(run)
  if #unused > 0 then return 2, "no test is named " .. table.concat(unused, ", ") end
  if counts.run > 0 then return 0 end
  if counts.left_out > 0 then return 2, "the names and patterns leave no test to run" end
  return 2, "the scripts hold no test"
end

local function run_all(run, found)
  local restore = isolation.snapshot()
  if run.settings.shuffle then
    randomseed(run.seed)
    shuffled(found)
  end
  for _, path in ipairs(found) do
    if run.stopped then break end
    run_script(run, path)
    restore()
  end
end

--- Runs what `wanted` names.
-- @param wanted see tests.vexunit
-- @param settings from tests.vexunit.options
-- @param console from standard_console, or a like table
-- @return 0, 1 or 2 as tests.vexunit says
function M.run(wanted, settings, console)
  local domain = rawget(_G, "dom0")
  local found, message = scripts.find(wanted, domain and domain:Get("app.path.bin"))
  if not found then
    console.complain("vexunit: " .. message)
    return 2
  end
  local report
  report, message = require(reports[settings.output]).new(settings, console)
  if not report then
    console.complain("vexunit: " .. message)
    return 2
  end
  local run = {
    settings = settings, report = report, slowest = summary.new_slowest(settings.slowest), used_names = {},
    counts = { passed = 0, failed = 0, error = 0, skipped = 0, left_out = 0, unloadable = 0, scripts = #found },
    seed = settings.seed or time() % 2 ^ 31,
    started = time(),
    clock = console.clock,
  }
  local collector
  if settings.coverage then
    collector, message = coverage.start(settings.coverage, found)
    if not collector then
      console.complain("vexunit: " .. message)
      return 2
    end
  end
  run.engine = engine.new(settings.repetitions)
  local begin = run.clock()
  local ok, trouble = xpcall(run_all, debug.traceback, run, found)
  run.seconds = run.clock() - begin
  run.engine:close()
  if collector then
    local written, why = collector:finish()
    if not written then ok, trouble = false, why end
  end
  if not ok then
    console.complain("vexunit: " .. trouble)
    return 2
  end
  local counts = run.counts
  counts.run = counts.passed + counts.failed + counts.error + counts.skipped
  local complaint
  run.status, complaint = status_of(run)
  local finished
  finished, message = report:run_ends(run)
  complaint = complaint or (not finished and message)
  if not complaint then return run.status end
  console.complain("vexunit: " .. complaint)
  return 2
end

return M
