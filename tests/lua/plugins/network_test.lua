local host = require("vex.host")
local lu = require("luaunit")
local plugin = require("network.plugin")

local M = { TestNetwork = {} }

function M.TestNetwork:setUp()
  self.interfaces, self.monotonic = host.interfaces, host.monotonic
  self.clock, self.list = 100, {}
  host.monotonic = function() return self.clock end
  host.interfaces = function() return self.list end
end

function M.TestNetwork:tearDown() host.interfaces, host.monotonic = self.interfaces, self.monotonic end

local function interface(name, received, sent)
  return { name = name, received_bytes = received, sent_bytes = sent, receive_errors = 1, send_errors = 2 }
end

function M.TestNetwork:test_rates_come_with_the_second_collection_of_an_interface()
  self.list = { interface("eth0", 1000, 500) }
  lu.assertEquals(plugin.collect().interfaces, { { name = "eth0", received = 1000, sent = 500, errors = 3 } })
  self.clock, self.list = 110, { interface("eth0", 2000, 600), interface("new", 1, 1) }
  local second = plugin.collect().interfaces
  lu.assertEquals(second[1].received_per_second, 100)
  lu.assertEquals(second[1].sent_per_second, 10)
  lu.assertNil(second[2].received_per_second)
end

function M.TestNetwork:test_a_counter_that_went_back_gives_no_rate()
  self.list = { interface("eth1", 1000, 500) }
  plugin.collect()
  self.clock, self.list = 120, { interface("eth1", 10, 600) }
  local again = plugin.collect().interfaces
  lu.assertNil(again[1].received_per_second)
  lu.assertEquals(again[1].sent_per_second, 5)
end

function M.TestNetwork:test_a_host_without_interfaces_has_an_empty_list()
  lu.assertEquals(plugin.collect(), { interfaces = {} })
end

function M.TestNetwork:test_what_the_system_does_not_tell_is_absent()
  self.list = { { name = "eth2", received_bytes = 5, receive_errors = 1 } }
  plugin.collect()
  self.clock, self.list = 110, { { name = "eth2", received_bytes = 15, receive_errors = 1 } }
  lu.assertEquals(plugin.collect(), { interfaces = { { name = "eth2", received = 15, received_per_second = 1 } } })
  self.list = nil
  lu.assertEquals(plugin.collect(), {})
end

return M
