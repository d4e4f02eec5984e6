"""Lua libraries of the distribution, most of them C code that was written with one state a process in mind."""
import os

import pytest

JOB = r"""
local List = require("pl.List")
local pretty = require("pl.pretty")
local stringx = require("pl.stringx")
local tablex = require("pl.tablex")
local lpeg = require("lpeg")
local cjson = require("cjson")
local socket = require("socket")
local posix = require("posix")
local luasql = require("luasql.sqlite3")

local steps = {}

function steps.penlight(number)
  local words = List.range(1, 40):map(function(each) return each * number end)
  assert(words:reduce("+") == 820 * number)
  local text = pretty.write({ name = "w" .. number, list = words })
  assert(tablex.deepcompare(pretty.read(text), { name = "w" .. number, list = { table.unpack(words) } }))
  assert(#stringx.split(("x,"):rep(number), ",") == number + 1)
end

function steps.lpeg(number)
  local digits = lpeg.C(lpeg.R("09") ^ 1) / tonumber
  local sum = lpeg.Cf(digits * ("+" * digits) ^ 0, function(a, b) return a + b end) * -1
  assert(sum:match(("%d+"):format(number):rep(20) .. "1") == 20 * number + 1)
  assert(sum:match("1+") == nil)
end

function steps.cjson(number)
  local value = { number = number, list = { 1.5, "\195\169", false, cjson.null }, deep = { { { number } } } }
  assert(tablex.deepcompare(cjson.decode(cjson.encode(value)), value))
  assert(not pcall(cjson.decode, "{"))
end

function steps.socket(number)
  local server = assert(socket.bind("127.0.0.1", 0))
  local _, port = server:getsockname()
  local client = assert(socket.connect("127.0.0.1", port))
  local peer = assert(server:accept())
  assert(client:send("worker " .. number .. "\n"))
  assert(peer:receive("*l") == "worker " .. number)
  peer:settimeout(0.001)
  assert(select(2, peer:receive("*l")) == "timeout")
  for _, each in ipairs({ client, peer, server }) do each:close() end
end

function steps.posix(number, folder)
  assert(posix.getpid("pid") == require("vex.host").pid())
  local reader, writer = posix.pipe()
  assert(posix.write(writer, "to " .. number) and posix.read(reader, 100) == "to " .. number)
  posix.close(reader)
  posix.close(writer)
  assert(posix.stat(folder, "type") == "directory")
  assert(posix.stat(folder .. "/none") == nil)
end

function steps.sqlite(number, folder)
  local environment = assert(luasql.sqlite3())
  local db = assert(environment:connect(folder .. "/" .. number .. ".db"))
  assert(db:execute("CREATE TABLE IF NOT EXISTS t(x INTEGER)"))
  assert(db:execute("INSERT INTO t VALUES(" .. number .. ")"))
  local rows = assert(db:execute("SELECT sum(x) / count(*) FROM t"))
  assert(tonumber((rows:fetch())) == number)
  rows:close()
  assert(db:execute("nonsense") == nil)
  db:close()
  environment:close()
end

local M = {}

-- Errors of each library pass through its C code on their way: they are part of the work.
function M.run(argument)
  for _ = 1, argument.rounds do
    for name, step in pairs(steps) do
      local ok, message = xpcall(step, debug.traceback, argument.number, argument.folder)
      if not ok then error(name .. ": " .. message, 0) end
    end
    assert(not pcall(lpeg.match, {}))
    assert(not pcall(cjson.encode, { print }))
    collectgarbage("step")
  end
  return 0
end

return M
"""

MAIN = r"""
local job = require("job")
local folder = dom0:Get("folder")
local M = {}
function M.main()
  for _ = 1, 3 do -- the first ones load the libraries, the others find them loaded by states that are gone
    local workers = {}
    for number = 1, 8 do
      workers[number] = dom0:StartThread("job", { number = number, folder = folder, rounds = 20 })
    end
    for number, worker in ipairs(workers) do
      local over, status, message = worker:Join(60)
      assert(over and status == 0, ("worker %d: %s %s"):format(number, tostring(status), tostring(message)))
    end
  end
  return job.run({ number = 9, folder = folder, rounds = 20 })
end
return M
"""


@pytest.mark.fast
def test_libraries_of_the_distribution_work_in_eight_workers_at_once(tree, tmp_path):
    folder = tmp_path / "data"
    folder.mkdir()
    tree.app("probe", MAIN)
    tree.file("job.lua", JOB)
    result = tree.run("-d", f"folder={folder}", name="probe")
    assert (result.status, result.out, result.err) == (0, "", ""), result.log
    assert sorted(os.listdir(folder)) == [f"{number}.db" for number in range(1, 10)]
