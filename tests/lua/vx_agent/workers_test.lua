local fake_domain = require("support.fake_domain")
local workers = require("vx_agent.workers")
local lu = require("luaunit")

local M = { TestWorkers = {} }

function M.TestWorkers:setUp()
  self.domain = fake_domain.new()
  dom0 = self.domain
end

function M.TestWorkers:test_one_beats_one_listens_and_one_works_for_each_plugin()
  workers.start(self.domain, { { id = "a", plugin = {} }, { id = "bad", error = "x" }, { id = "b", plugin = {} } })
  local started = self.domain.started
  lu.assertEquals(#started, 4)
  lu.assertEquals(started[1].module, "vx_agent.heartbeat")
  lu.assertEquals(started[2].module, "vx_agent.doorbell")
  lu.assertEquals(started[4].module, "vx_agent.collector")
  lu.assertEquals(started[4].argument, { plugin = "b" })
end

function M.TestWorkers:test_the_one_that_beats_knows_what_all_plugins_are()
  local plugin = { name = "A", version = "1", units = { x = "bytes", y = print } }
  workers.start(self.domain, { { id = "a", plugin = plugin }, { id = "bad", error = "no such module" } })
  lu.assertEquals(self.domain.started[1].argument, { plugins = {
    { id = "a", name = "A", version = "1", units = { x = "bytes" } },
    { id = "bad", name = "bad", error = "no such module" },
  } })
end

function M.TestWorkers:test_all_are_asked_to_end_before_any_is_waited_for()
  local order = {}
  local crew = workers.start(self.domain, { { id = "a", plugin = {} } })
  for index, worker in ipairs(self.domain.started) do
    worker.Stop = function() order[#order + 1] = "stop " .. index end
    worker.Join = function()
      order[#order + 1] = "join " .. index
      return true
    end
  end
  crew:stop()
  lu.assertEquals(order, { "stop 1", "stop 2", "stop 3", "join 1", "join 2", "join 3" })
end

function M.TestWorkers:test_a_worker_that_does_not_end_is_named()
  local crew = workers.start(self.domain, { { id = "slow", plugin = {} } })
  self.domain.started[3].stuck = true
  crew:stop()
  lu.assertEquals(self.domain.lines, { "warning: Worker 'plugin slow' has not ended within its time" })
end

function M.TestWorkers:test_the_time_to_end_is_for_all_of_them_together()
  local crew = workers.start(self.domain, { { id = "a", plugin = {} } })
  local first = self.domain.started[1]
  first.Join = function()
    self.domain.now = self.domain.now + 9000
    return true
  end
  crew:stop()
  lu.assertEquals(self.domain.started[2].join_seconds, 1)
end

function M.TestWorkers:test_a_worker_that_cannot_be_started_is_an_error_line_and_the_others_start()
  self.domain.refuse_threads = true
  local crew = workers.start(self.domain, {})
  lu.assertEquals(self.domain.lines, {
    "error: Worker 'heartbeat' cannot be started: no thread to be had",
    "error: Worker 'doorbell' cannot be started: no thread to be had",
  })
  crew:stop()
end

return M
