local new_log = require("vex.log")
local fake_domain = require("support.fake_domain")
local lu = require("luaunit")

local M = { TestLog = {} }

function M.TestLog:test_each_level_formats_its_line()
  local domain = fake_domain.new()
  local log = new_log("a.module", domain)
  for _, level in ipairs({ "error", "warning", "message", "info", "debug" }) do log[level]("%s is %d", "x", 7) end
  lu.assertEquals(domain.lines,
    { "error: x is 7", "warning: x is 7", "message: x is 7", "info: x is 7", "debug: x is 7" })
end

function M.TestLog:test_a_text_alone_is_no_template()
  local domain = fake_domain.new()
  new_log("a.module", domain).info("100 %s")
  lu.assertEquals(domain.lines, { "info: 100 %s" })
end

function M.TestLog:test_a_trace_line_is_written_only_while_its_module_is_traced()
  local domain = fake_domain.new()
  local log = new_log("a.module", domain)
  log.trace("unseen")
  domain.traced = true
  log.trace("seen %d", 1)
  lu.assertEquals(domain.lines, { "trace a.module: seen 1" })
end

function M.TestLog:test_without_a_domain_of_its_own_it_takes_the_global_one_of_the_moment()
  local log = new_log("a.module")
  dom0 = fake_domain.new()
  log.info("here")
  lu.assertEquals(dom0.lines, { "info: here" })
end

return M
