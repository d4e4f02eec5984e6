local facts = require("vx_agent.facts")
local host = require("vex.host")
local json = require("vex.json")
local lu = require("luaunit")

local M = { TestFacts = {} }

function M.TestFacts:test_this_host_is_told_as_the_system_tells_it()
  local system, collected = host.system(), facts.collect()
  lu.assertEquals(collected.host, system.host)
  lu.assertEquals(collected.kernel, system.name .. " " .. system.release)
  lu.assertEquals(collected.architecture, system.machine)
  lu.assertEquals(collected.processors, host.processors())
end

function M.TestFacts:test_a_fact_that_cannot_be_had_is_absent()
  host.load = function() end
  host.uptime = function() end
  host.memory = function() return { total = 1 } end
  host.system = function() return {} end
  local collected = facts.collect()
  lu.assertNil(collected.load)
  lu.assertNil(collected.uptime)
  lu.assertNil(collected.memory.available)
  lu.assertNil(collected.kernel)
  lu.assertNil(collected.host)
  host.memory = function() return {} end
  host.disks = function() end
  collected = facts.collect()
  lu.assertNil(collected.memory)
  lu.assertNil(collected.disks)
  lu.assertNil(json.encode(collected):find('"load"', 1, true))
end

-- The host module belongs to every script, so what a test replaced is put back.
function M.TestFacts:setUp()
  self.kept = {}
  for name, body in pairs(host) do self.kept[name] = body end
end

function M.TestFacts:tearDown()
  for name, body in pairs(self.kept) do host[name] = body end
end

return M
