-- The runner, run on small scripts in a folder of their own, with a console that keeps what is written.

local host = require("vex.host")
local temp = require("support.temp")
local vexunit = require("tests.vexunit")
local lu = require("luaunit")

local M = {
  TestStatus = {}, TestIsolation = {}, TestOrder = {}, TestReports = {}, TestFixtures = {}, TestCoverage = {},
}

local passing = "return { test_one = function() end, test_two = function() end }"
local failing = [[
local lu = require("luaunit")
return { test_bad = function() lu.assertEquals(1, 2) end, test_good = function() end }
]]

local folder

local function set_up() folder = temp.folder() end
local function tear_down() temp.remove(folder) end
for _, class in pairs(M) do class.setUp, class.tearDown = set_up, tear_down end

local function script(name, content) temp.write(folder, name, content) end

-- Runs and returns the status, what was written, and what was complained about.
local function run(pattern, arguments, terminal, clock)
  local written, complaints = {}, {}
  local status = vexunit(folder .. "/" .. pattern, arguments or {}, {
    write = function(text) written[#written + 1] = text end,
    complain = function(text) complaints[#complaints + 1] = text end,
    terminal = terminal or false,
    clock = clock or host.monotonic,
  })
  return status, table.concat(written), table.concat(complaints, "\n")
end

-- Status ------------------------------------------------------------------------------------------------------------

function M.TestStatus:test_all_passed_is_0()
  script("a.lua", passing)
  local status, out, complaints = run("a.lua")
  lu.assertEquals({ status, complaints }, { 0, "" })
  lu.assertStrContains(out, "2 passed, 0 failed\nOK\n")
end

function M.TestStatus:test_a_failure_is_1_and_so_are_many()
  script("a.lua", failing)
  lu.assertEquals(run("a.lua"), 1)
  local many = { "local M = {}" }
  for index = 1, 256 do many[#many + 1] = ("M.test_%d = function() error('x') end"):format(index) end
  script("many.lua", table.concat(many, "\n") .. "\nreturn M")
  lu.assertEquals(run("many.lua"), 1)
end

function M.TestStatus:test_a_pattern_that_matches_nothing_says_so_and_is_2()
  local status, _, complaints = run("none*.lua")
  lu.assertEquals(status, 2)
  lu.assertStrContains(complaints, "no script matches '" .. folder .. "/none*.lua'")
  status, _, complaints = run("none.lua")
  lu.assertEquals(status, 2)
  lu.assertStrContains(complaints, "there is no script '" .. folder .. "/none.lua'")
end

function M.TestStatus:test_a_wrong_argument_says_so_and_is_2()
  script("a.lua", passing)
  local status, out, complaints = run("a.lua", { "--colour" })
  lu.assertEquals({ status, out }, { 2, "" })
  lu.assertStrContains(complaints, "unknown option '--colour'")
  lu.assertStrContains(complaints, "usage:")
end

function M.TestStatus:test_help_runs_nothing_and_is_0()
  script("a.lua", "error('not to be run')")
  local status, out = run("a.lua", { "--help" })
  lu.assertEquals(status, 0)
  lu.assertStrContains(out, "--coverage FILE")
end

function M.TestStatus:test_a_script_with_a_syntax_error_fails_alone_and_is_2()
  script("a.lua", passing)
  script("b.lua", "local = 1")
  script("c.lua", failing)
  local status, out = run("*.lua")
  lu.assertEquals(status, 2)
  lu.assertStrContains(out, "b.lua does not load")
  lu.assertStrContains(out, "b.lua:1:")
  lu.assertStrContains(out, "Ran 4 tests of 3 scripts")
  lu.assertStrContains(out, "1 script did not load")
end

function M.TestStatus:test_a_script_that_fails_while_it_is_loaded_shows_a_traceback_and_is_2()
  script("a.lua", "local function inner() error('boom') end\nlocal function outer() inner() return 1 end\nouter()")
  local status, out = run("a.lua")
  lu.assertEquals(status, 2)
  lu.assertStrContains(out, "a.lua:1: boom")
  lu.assertStrContains(out, "stack traceback:")
  lu.assertStrContains(out, "'outer'")
end

function M.TestStatus:test_scripts_without_a_test_are_2()
  script("a.lua", "return {}")
  local status, _, complaints = run("a.lua")
  lu.assertEquals(status, 2)
  lu.assertStrContains(complaints, "hold no test")
end

function M.TestStatus:test_patterns_that_leave_nothing_are_2()
  script("a.lua", passing)
  local status, _, complaints = run("a.lua", { "-p", "nothing" })
  lu.assertEquals(status, 2)
  lu.assertStrContains(complaints, "leave no test to run")
end

function M.TestStatus:test_a_name_that_no_test_has_is_2()
  script("a.lua", passing)
  local status, _, complaints = run("a.lua", { "test_one", "test_three" })
  lu.assertEquals(status, 2)
  lu.assertStrContains(complaints, "no test is named test_three")
end

function M.TestStatus:test_os_exit_inside_a_test_is_an_error_of_that_test()
  script("a.lua", "return { test_exit = function() os.exit(0) end, test_next = function() end }")
  local status, out = run("a.lua")
  lu.assertEquals(status, 1)
  lu.assertStrContains(out, "1 passed, 0 failed, 1 error")
end

function M.TestStatus:test_os_exit_while_a_script_loads_is_an_error_of_that_script()
  script("a.lua", "os.exit(0)")
  script("b.lua", passing)
  local status, out = run("*.lua")
  lu.assertEquals(status, 2)
  lu.assertStrContains(out, "a.lua:1: the script calls os.exit while it is loaded")
  lu.assertStrContains(out, "2 passed")
end

function M.TestStatus:test_a_script_written_for_plain_luaunit_runs_too()
  script("a.lua", [[
local lu = require("luaunit")
TestOld = {}
function TestOld:test_it() lu.assertTrue(true) end
function test_plain() end
os.exit(lu.LuaUnit.run())]])
  local status, out = run("a.lua")
  lu.assertEquals(status, 0)
  lu.assertStrContains(out, "2 passed")
end

function M.TestStatus:test_a_skipped_test_fails_nothing()
  script("a.lua", "return { test_a = function() require('luaunit').skip('not here') end, test_b = function() end }")
  local status, out = run("a.lua", { "-v" })
  lu.assertEquals(status, 0)
  lu.assertStrContains(out, "test_a ... skipped: not here")
  lu.assertStrContains(out, "1 skipped")
end

function M.TestStatus:test_what_a_reader_of_load_raises_is_the_message_of_load()
  local body = [[
local value = {}
for _, raised in ipairs({ "from the reader", value }) do
  local chunk, message = load(function() error(raised, 0) end)
  assert(chunk == nil and message == raised, tostring(message))
end]]
  script("a.lua", body .. "\nreturn { test_a = function()\n" .. body .. "\nend }")
  local status, out = run("a.lua")
  lu.assertEquals(status, 0, out)
  lu.assertStrContains(out, "1 passed")
end

function M.TestStatus:test_an_error_after_one_that_load_caught_has_its_own_traceback()
  script("a.lua", [[
local function reads() load(function() error("caught", 0) end) end
local function fails() error("raised", 0) end
return { test_a = function() reads() fails() end }]])
  local status, out = run("a.lua")
  lu.assertEquals(status, 1)
  lu.assertStrContains(out, "raised\n")
  lu.assertStrContains(out, "in function 'fails'")
  lu.assertNil(out:find("'reads'", 1, true))
end

-- Isolation ---------------------------------------------------------------------------------------------------------

function M.TestIsolation:test_globals_of_one_script_are_gone_in_the_next()
  script("a.lua", "leaked = 1\nreturn { test_a = function() _G.leaked_too = 2 end }")
  script("b.lua", [[
local lu = require("luaunit")
return { test_b = function() lu.assertNil(rawget(_G, "leaked")) lu.assertNil(rawget(_G, "leaked_too")) end }]])
  lu.assertEquals(run("*.lua"), 0)
  lu.assertNil(rawget(_G, "leaked"))
end

function M.TestIsolation:test_changed_and_removed_globals_are_put_back()
  local before_print, before_format = print, string.format
  script("a.lua", [[
print = nil
string.format = nil
setmetatable(_G, { __index = function() return "always there" end })
package.path = ""
return { test_a = function() assert(type(nonexistent) == "string") end }]])
  script("b.lua", [[
return { test_b = function() assert(print and string.format and package.path ~= "" and not getmetatable(_G)) end }]])
  local status, out = run("*.lua")
  lu.assertEquals(status, 0, out)
  lu.assertIs(print, before_print)
  lu.assertIs(string.format, before_format)
end

function M.TestIsolation:test_the_files_that_a_script_reads_and_writes_by_default_are_put_back()
  local before_input, before_output = io.input(), io.output()
  script("a.lua", ([[
io.output(%q)
io.input(io.open(%q))
return { test_a = function() io.write("into the file") end }]]):format(folder .. "/out", folder .. "/a.lua"))
  local status, out = run("*.lua")
  local input, output = io.input(), io.output()
  io.input(before_input)
  io.output(before_output)
  lu.assertEquals(status, 0, out)
  lu.assertIs(input, before_input)
  lu.assertIs(output, before_output)
end

function M.TestIsolation:test_modules_that_a_script_loads_are_unloaded_after_it()
  temp.write(folder, "lib/counted.lua", "return { count = 0 }")
  local body = ([[
package.path = %q .. package.path
local counted = require("counted")
counted.count = counted.count + 1
return { test_fresh = function() assert(counted.count == 1) end }]]):format(folder .. "/lib/?.lua;")
  script("a.lua", body)
  script("b.lua", body)
  lu.assertEquals(run("*.lua"), 0)
  lu.assertNil(package.loaded.counted)
end

function M.TestIsolation:test_the_domain_and_the_arguments_are_those_of_the_application()
  local seen_domain, seen_arguments = rawget(_G, "dom0"), arg
  script("a.lua", "return { test_a = function() error({ dom0, arg, require }) end }")
  local caught = {}
  local prettystr = lu.prettystr
  lu.prettystr = function(value)
    caught = value
    return "seen"
  end
  run("a.lua")
  lu.prettystr = prettystr
  lu.assertIs(caught[1], seen_domain)
  lu.assertIs(caught[2], seen_arguments)
  lu.assertIs(caught[3], require)
end

-- Selection and order -----------------------------------------------------------------------------------------------

local order_script = [[
local M = {}
for _, name in ipairs({ "a", "b", "c", "d", "e", "f", "g", "h" }) do M["test_" .. name] = function() end end
return M]]

local function order_of(out)
  local names = {}
  for name in out:gmatch("ok %d+ %- %S+ test_(%a)") do names[#names + 1] = name end
  return table.concat(names)
end

function M.TestOrder:test_scripts_and_tests_run_sorted()
  script("b.lua", "return { test_z = function() end, test_a = function() end }")
  script("a.lua", "return { test_m = function() end }")
  local _, out = run("*.lua", { "-o", "tap" })
  lu.assertEquals(order_of(out), "maz")
end

function M.TestOrder:test_a_seed_gives_the_same_shuffled_order_again()
  script("a.lua", order_script)
  local first = order_of(select(2, run("a.lua", { "-o", "tap", "-s", "--seed", "11" })))
  lu.assertEquals(#first, 8)
  lu.assertNotEquals(first, "abcdefgh")
  lu.assertEquals(order_of(select(2, run("a.lua", { "-o", "tap", "-s", "--seed", "11" }))), first)
  lu.assertNotEquals(order_of(select(2, run("a.lua", { "-o", "tap", "-s", "--seed", "12" }))), first)
end

function M.TestOrder:test_random_numbers_inside_tests_follow_the_seed()
  script("a.lua", "return { test_r = function() error('drawn ' .. math.random(1000000)) end }")
  local function drawn(seed) return select(2, run("a.lua", { "--seed", seed })):match("drawn (%d+)") end
  lu.assertEquals(drawn("5"), drawn("5"))
  lu.assertNotEquals(drawn("5"), drawn("6"))
end

function M.TestOrder:test_includes_and_excludes_choose_by_full_name()
  script("a.lua", "return { TestA = { test_x = function() end, test_y = function() end }, test_x = function() end }")
  lu.assertStrContains(select(2, run("a.lua", { "-p", "^TestA" })), "Ran 2 tests")
  lu.assertStrContains(select(2, run("a.lua", { "-x", "y$" })), "Ran 2 tests")
  lu.assertStrContains(select(2, run("a.lua", { "-p", "x", "-x", "^TestA" })), "Ran 1 test ")
end

function M.TestOrder:test_names_choose_functions_classes_and_methods()
  script("a.lua", "return { TestA = { test_x = function() end, test_y = function() end }, test_x = function() end }")
  lu.assertStrContains(select(2, run("a.lua", { "TestA" })), "Ran 2 tests")
  lu.assertStrContains(select(2, run("a.lua", { "TestA.test_x", "test_x" })), "Ran 2 tests")
end

function M.TestOrder:test_repeat_runs_each_test_so_often_and_names_the_iteration_that_fails()
  script("a.lua", [[
local count = 0
return { test_third = function() count = count + 1 assert(count < 3, "third time") end }]])
  local status, out = run("a.lua", { "-r", "5" })
  lu.assertEquals(status, 1)
  lu.assertStrContains(out, "iteration 3")
end

function M.TestOrder:test_the_run_stops_at_the_first_failure_when_asked()
  script("a.lua", failing)
  script("b.lua", passing)
  local status, out = run("*.lua", { "-f" })
  lu.assertEquals(status, 1)
  lu.assertStrContains(out, "Ran 1 test of")
  lu.assertStrContains(out, "Stopped at the first failure.")
  lu.assertStrContains(select(2, run("*.lua", { "-e" })), "Ran 4 tests of")
end

-- Fixtures ----------------------------------------------------------------------------------------------------------

function M.TestFixtures:test_classes_and_scripts_are_set_up_and_torn_down_once()
  script("a.lua", [[
local log = {}
local M = { TestA = {}, TestB = {} }
for name, class in pairs({ A = M.TestA, B = M.TestB }) do
  class.setupClass = function() log[#log + 1] = "+" .. name end
  class.teardownClass = function() log[#log + 1] = "-" .. name end
  class.setUp = function() log[#log + 1] = "(" end
  class.tearDown = function() log[#log + 1] = ")" end
  class.test_one = function() log[#log + 1] = "1" end
  class.test_two = function() log[#log + 1] = "2" end
end
function M.setupSuite() log[#log + 1] = "<" end
function M.teardownSuite() error(table.concat(log), 0) end
return M]])
  local status, out = run("a.lua")
  lu.assertEquals(status, 1)
  lu.assertStrContains(out, "<+A(1)(2)-A+B(1)(2)-B")
end

function M.TestFixtures:test_a_class_is_torn_down_before_the_function_behind_it()
  script("a.lua", [[
local open = false
return {
  TestA = { setupClass = function() open = true end, teardownClass = function() open = false end,
    test_x = function() assert(open) end },
  test_y = function() assert(not open) end,
}]])
  local status, out = run("a.lua")
  lu.assertEquals(status, 0)
  lu.assertStrContains(out, "2 passed")
end

function M.TestFixtures:test_a_failing_class_set_up_is_an_error_and_its_tests_are_skipped()
  script("a.lua", [[
return { TestA = { setupClass = function() error("no database") end, test_x = function() error("not to be run") end },
  test_y = function() end }]])
  local status, out = run("a.lua", { "-v" })
  lu.assertEquals(status, 1)
  lu.assertStrContains(out, "no database")
  lu.assertStrContains(out, "TestA.test_x ... skipped: TestA.setupClass failed")
  lu.assertStrContains(out, "1 passed, 0 failed, 1 error, 1 skipped")
end

function M.TestFixtures:test_set_up_and_tear_down_of_a_test_have_luaunits_names_and_its_rules()
  script("a.lua", [[
local log = {}
local function note(text, message)
  return function()
    log[#log + 1] = text
    if message then error(message, 0) end
  end
end
return {
  TestA = { Setup = note("a("), test = note("a"), Teardown = note(")a ") },
  TestB = { SetUp = note("b("), test = note("b", "first"), TearDown = note(")b ", "too late") },
  TestC = { setup = note("c(", "not made"), test = note("c"), teardown = note(")c ") },
  TestD = { setUp = note("d("), test = note("d"), tearDown = note(")d ", "not cleared") },
  teardownSuite = function() error(table.concat(log), 0) end,
}]])
  local status, out = run("a.lua", { "-v" })
  lu.assertEquals(status, 1)
  lu.assertStrContains(out, "a(a)a b(b)b c()c d(d)d ")
  lu.assertStrContains(out, "1 passed, 0 failed, 4 errors")
  for _, shown in ipairs({ "TestB.test\nfirst\n", "TestC.test\nnot made\n", "TestD.test\nnot cleared\n" }) do
    lu.assertStrContains(out, shown)
  end
  lu.assertNil(out:find("too late", 1, true))
end

function M.TestFixtures:test_a_failing_suite_set_up_skips_the_script()
  script("a.lua", "return { setupSuite = function() error('x') end, test_y = function() end }")
  local status, out = run("a.lua")
  lu.assertEquals(status, 1)
  lu.assertStrContains(out, "0 passed, 0 failed, 1 error, 1 skipped")
end

-- Reports -----------------------------------------------------------------------------------------------------------

function M.TestReports:test_a_failed_assertion_shows_file_line_and_both_values()
  script("a.lua", failing)
  lu.assertStrContains(select(2, run("a.lua")), "a.lua:2: expected: 2, actual: 1")
end

function M.TestReports:test_an_error_shows_its_traceback_whatever_was_thrown()
  script("a.lua", [[
local function inner(value) error(value, 0) end
return {
  test_text = function() inner("no place") end,
  test_table = function() inner({ code = 7 }) end,
  test_nil = function() inner(nil) end,
  test_hostile = function() inner(setmetatable({}, { __tostring = function() error("no") end })) end,
}]])
  local status, out = run("a.lua")
  lu.assertEquals(status, 1)
  lu.assertStrContains(out, "4 errors")
  lu.assertEquals(select(2, out:gsub("in function 'inner'", "")), 4)
  lu.assertStrContains(out, "in function 'test_table'")
  lu.assertNil(out:find("vexunit/", 1, true))
end

function M.TestReports:test_colours_are_for_terminals()
  script("a.lua", failing)
  lu.assertNil(select(2, run("a.lua")):find("\27", 1, true))
  local out = select(2, run("a.lua", {}, true))
  lu.assertStrContains(out, "a.lua \27[31mF\27[0m\27[32m.\27[0m\n")
  lu.assertStrContains(out, "\27[31mFAILED: ")
end

function M.TestReports:test_the_summary_names_the_slowest_tests_and_the_seed()
  time_now = 0 -- luacheck: ignore 111
  script("a.lua", "return { test_slow = function() time_now = time_now + 0.5 end, test_fast = function() end }")
  local _, out = run("a.lua", { "--seed", "99", "--slowest", "1" }, false, function() return rawget(_G, "time_now") end)
  lu.assertStrMatches(out, ".*Slowest tests:\n +500%.0 ms  %S+a%.lua test_slow\nSeed: 99\n.*")
end

function M.TestReports:test_the_slowest_of_many_tests_are_found_wherever_they_run()
  time_now = 0 -- luacheck: ignore 111
  local lines = { "local M = {}" }
  for index = 0, 199 do -- from 1 to 200 seconds, in no order
    lines[#lines + 1] = ("function M.test_%03d() time_now = time_now + %d end"):format(index, 200 - index * 77 % 200)
  end
  lines[#lines + 1] = "function M.test_like() time_now = time_now + 198 end"
  script("a.lua", table.concat(lines, "\n") .. "\nreturn M")
  local _, out = run("a.lua", { "--slowest", "4" }, false, function() return rawget(_G, "time_now") end)
  local shown = {}
  for seconds, name in out:gmatch("(%d+)000%.0 ms  %S+ (%S+)") do shown[#shown + 1] = seconds .. " " .. name end
  lu.assertEquals(shown, { "200 test_000", "199 test_013", "198 test_026", "198 test_like" })
  lu.assertNil(select(2, run("a.lua", { "--slowest", "0" })):find("Slowest", 1, true))
end

function M.TestReports:test_tap_has_a_line_a_test_and_its_plan()
  script("a.lua", [[
local lu = require("luaunit")
return { test_a = function() end, test_b = function() lu.fail("bad # thing") end,
  test_c = function() lu.skip("why") end }]])
  script("b.lua", "syntax error")
  local status, out = run("*.lua", { "--output", "tap", "--slowest", "0" })
  lu.assertEquals(status, 2)
  for line in out:gmatch("[^\n]+") do
    local known = line:find("^ok %d") or line:find("^not ok %d") or line:find("^#") or line == "1..4"
    lu.assertTrue(known ~= nil and known ~= false, line)
  end
  lu.assertStrMatches(out, ".*ok 1 %- %S+a%.lua test_a\nnot ok 2 %- %S+a%.lua test_b\n# .*")
  lu.assertStrMatches(out, ".*\nok 3 %- %S+a%.lua test_c # SKIP why\n.*")
  lu.assertStrMatches(out, ".*\nnot ok 4 %- %S+b%.lua does not load\n.*1%.%.4\n.*")
end

function M.TestReports:test_no_name_and_no_reason_leaves_its_line_of_tap_or_looks_like_a_directive()
  script("x#y.lua", [[
local lu = require("luaunit")
return { ["test#a\r\nb"] = function() end, test_c = function() lu.skip("x # y") end }]])
  local status, out = run("x#y.lua", { "--output", "tap" })
  lu.assertEquals(status, 0)
  local path = folder .. "/x\\#y.lua "
  lu.assertStrContains(out, "\nok 1 - " .. path .. "test\\#a b\nok 2 - " .. path .. "test_c # SKIP x \\# y\n1..2\n")
end

function M.TestReports:test_junit_has_the_class_and_the_time_of_each_case()
  time_now = 0 -- luacheck: ignore 111
  script("a.lua", [[
local function takes(micros) return function() time_now = time_now + micros / 1e6 end end
return {
  TEST_first = takes(10),
  TestA = { test_x = takes(20), test_y = takes(500000), teardownClass = function() error("left open") end },
  TestB = { test_x = takes(30) },
  test_last = takes(0),
}]])
  local path = folder .. "/report.xml"
  local arguments = { "--output", "junit", "--name", path }
  lu.assertEquals(run("a.lua", arguments, false, function() return rawget(_G, "time_now") end), 1)
  local cases = {}
  for class, name, time in temp.read(path):gmatch('<testcase classname="([^"]*)" name="([^"]*)" time="([^"]*)"') do
    cases[#cases + 1] = { class:match("%.(a%.?%w*)$"), name, time }
  end
  lu.assertEquals(cases, {
    { "a", "TEST_first", "0.000010" },
    { "a.TestA", "TestA.test_x", "0.000020" },
    { "a.TestA", "TestA.test_y", "0.500000" },
    { "a", "TestA.teardownClass", "0.000000" },
    { "a.TestB", "TestB.test_x", "0.000030" },
    { "a", "test_last", "0.000000" },
  })
end

function M.TestReports:test_junit_is_a_file_that_any_reader_takes()
  script("a.lua", [==[
local lu = require("luaunit")
return { test_a = function() end, TestB = { ["test_<&>"] = function() lu.fail('quote " and \1 \255 ]]>') end },
  test_c = function() lu.skip("why") end }]==])
  script("b.lua", "syntax error")
  local path = folder .. "/report.xml"
  local status = run("*.lua", { "--output", "junit", "--name", path })
  lu.assertEquals(status, 2)
  local xml = temp.read(path)
  lu.assertStrContains(xml, '<?xml version="1.0" encoding="UTF-8"?>')
  lu.assertStrContains(xml, 'name="TestB.test_&lt;&amp;&gt;"')
  lu.assertStrContains(xml, "quote &quot; and ? ? ]]&gt;")
  lu.assertStrContains(xml, '<skipped message="why"/>')
  lu.assertStrContains(xml, 'tests="3" failures="1" errors="0" skipped="1"')
  lu.assertStrContains(xml, "b.lua does not load")
  lu.assertNil(xml:find("[%z\1-\8\11-\31]"))
end

function M.TestReports:test_a_report_that_cannot_be_written_is_2_before_anything_runs()
  script("a.lua", "error('not to be run')")
  local status, out, complaints = run("a.lua", { "-o", "junit", "-n", folder .. "/no/x.xml" })
  lu.assertEquals({ status, out }, { 2, "" })
  lu.assertStrContains(complaints, "cannot write the report")
end

function M.TestReports:test_nil_says_nothing()
  script("a.lua", failing)
  local status, out, complaints = run("a.lua", { "-o", "nil" })
  lu.assertEquals({ status, out, complaints }, { 1, "", "" })
end

function M.TestReports:test_quiet_leaves_out_the_marks_and_verbose_names_each_test()
  script("a.lua", passing)
  lu.assertNil(select(2, run("a.lua", { "-q" })):find("a.lua", 1, true))
  lu.assertStrContains(select(2, run("a.lua", { "-v" })), "  test_one ... ok\n")
end

-- Coverage ----------------------------------------------------------------------------------------------------------

-- Line numbers and counts of one file of an LCOV text.
local function lines_of(lcov, name)
  local section = lcov:match("SF:[^\n]*" .. name:gsub("%p", "%%%0") .. "\n(.-)end_of_record")
  local lines = {}
  for line, count in (section or ""):gmatch("DA:(%d+),(%d+)") do lines[tonumber(line)] = tonumber(count) end
  return lines, section
end

function M.TestCoverage:test_lines_that_ran_and_that_did_not_are_told_apart()
  temp.write(folder, "lib/covered.lua", [[
local M = {}
function M.used(n)
  for _ = 1, n do
    M.count = (M.count or 0) + 1
  end
end
function M.unused()
  return function()
    return "never made"
  end
end
return M
]])
  script("a.lua", ([[
package.path = %q .. package.path
local covered = require("covered")
return { test_a = function() coroutine.wrap(covered.used)(3) end }]]):format(folder .. "/lib/?.lua;"))
  local path = folder .. "/coverage.info"
  lu.assertEquals(run("a.lua", { "--coverage", path }), 0)
  local lcov = temp.read(path)
  local lines, section = lines_of(lcov, "lib/covered.lua")
  lu.assertEquals(lines[4], 3)
  lu.assertEquals(lines[9], 0)
  lu.assertTrue(lines[1] > 0)
  lu.assertStrMatches(section, ".*LF:%d+\nLH:%d+\n")
  lu.assertNil(lcov:find("a.lua\n", 1, true))
  lu.assertNil(lcov:find("luaunit", 1, true))
end

function M.TestCoverage:test_it_is_off_by_default()
  -- These tests may themselves run with coverage: then the hook is theirs, and stays.
  hook_outside = debug.gethook() -- luacheck: ignore 111
  script("a.lua", "return { test_a = function() assert(debug.gethook() == hook_outside) end }")
  lu.assertEquals(run("a.lua"), 0)
  lu.assertEquals(run("a.lua", { "--coverage", folder .. "/coverage.info" }), 1)
  lu.assertIs(debug.gethook(), rawget(_G, "hook_outside"))
end

function M.TestCoverage:test_a_file_that_cannot_be_written_is_2()
  script("a.lua", passing)
  local status, _, complaints = run("a.lua", { "--coverage", folder .. "/no/coverage.info" })
  lu.assertEquals(status, 2)
  lu.assertStrContains(complaints, "cannot write the coverage")
end

return M
