"""The bundled application's workers from their start to their end, also of those that do not want to end."""
import os
import re
import sqlite3
import time

import pytest

import conftest
from conftest import alive, at_rest, send_signal, wait_until
from test_bundled_application import acknowledged, beats, install

TELLS = """
local function tell(dom, what) dom:Log("info", "%s " .. what) end
return { name = "%s", version = "1",
  start = function(dom) tell(dom, "starts") end,
  collect = function(dom) tell(dom, "collects") return { told = true } end,
  stop = function(dom) tell(dom, "stops") end }
"""


def tells(tree, name):
    tree.file(f"{name}/plugin.lua", TELLS % (name, name))


@pytest.mark.sandbox
def test_the_first_beat_answers_the_request_that_an_installation_makes(tree):
    # The installation asks before there are workers: one beat, at once, and the request is taken back.
    tree.file("witness/plugin.lua", """
return { name = "Witness", version = "1", start = function(dom)
  while dom:GetBool("vex.HeartbeatNow") do
    if dom:Wait("vex.HeartbeatNow", 0.05) == nil then return end
  end
  dom:Log("info", "request " .. dom:Get("vex.HeartbeatNow", "never made"))
end }""")
    arguments = install(tree, "Network")
    supervisor, _ = tree.background(*arguments[:-1], "network,witness")
    wait_until(lambda: "request false" in tree.log() and acknowledged(tree), what="the beat and its request")
    time.sleep(0.3)
    assert [reason for _, reason in beats(tree)] == ["start"]
    tree.stop(supervisor)


@pytest.mark.sandbox
def test_beats_beyond_their_age_are_forgotten(tree):
    folder = os.path.join(tree.work, "plugins", "vx_agent")
    os.makedirs(folder, 0o700)
    day_ms, now_ms = 86400000, int(time.time() * 1000)
    database = sqlite3.connect(folder + "/heartbeat.db")
    database.execute("CREATE TABLE heartbeat(id INTEGER PRIMARY KEY, time_ms INTEGER NOT NULL, reason TEXT NOT NULL,"
                     " uptime_s INTEGER, load1 REAL, memory_available INTEGER)")
    database.executemany("INSERT INTO heartbeat(time_ms, reason) VALUES(?, 'interval')",
                         [(now_ms - 3 * day_ms,), (now_ms - 2 * day_ms - 60000,), (now_ms - day_ms,)])
    database.commit()
    database.close()
    tree.file("work/vx_agent.ini", "[settings]\nvex.HeartbeatKeepDays=2\n")
    supervisor, _ = tree.background()
    wait_until(lambda: acknowledged(tree), what="the first beat")
    assert beats(tree) == [(3, "interval"), (4, "start")]
    tree.stop(supervisor)


@pytest.mark.sandbox
@pytest.mark.fast
def test_a_stop_joins_every_worker_and_calls_each_plugins_stop(tree):
    tells(tree, "first")
    tells(tree, "second")
    tree.file("failing/plugin.lua", """
return { name = "Failing", version = "1",
  collect = function() error("no figures") end,
  stop = function() error("no stop") end }""")
    supervisor, child = tree.background("--plugins", "first,failing,second")
    wait_until(lambda: all(text in tree.log() for text in ("first collects", "second collects", "no figures"))
               and acknowledged(tree), what="a collection of each")
    tree.stop(supervisor)
    assert not alive(child)
    log = tree.log()
    for name in ("first", "second"):
        order = [log.index(f"{name} {what}\n") for what in ("starts", "collects", "stops")]
        assert order == sorted(order) and log.count(f"{name} stops\n") == 1
    assert log.count("Plugin 'failing' failed in collect: ") == 1 and log.count("Plugin 'failing' failed in stop: ") == 1
    assert "Child process exited with status 0 (exit 0)" in log
    assert "has not ended" not in log and " ERROR [" not in log, "nobody was waited for in vain"


@pytest.mark.sandbox
def test_a_worker_that_does_not_end_is_named_and_the_process_ends_without_it(tree):
    tells(tree, "good")
    tree.file("endless/plugin.lua", """
return { name = "Endless", version = "1", collect = function(dom)
  dom:Log("info", "endless begins")
  while true do end
end }""")
    supervisor, child = tree.background("--plugins", "endless,good")
    wait_until(lambda: "endless begins" in tree.log() and "good collects" in tree.log() and acknowledged(tree), what="collections")
    begin = time.monotonic()
    send_signal(supervisor, 15)
    wait_until(lambda: not alive(supervisor) and not alive(child), what="the end")
    assert 9 < time.monotonic() - begin < 17, "ten seconds in all, for the application's wait and the core library's"
    log = tree.log()
    assert "Worker 'plugin endless' has not ended within its time" in log
    assert 'Thread "worker vx_agent.collector" has not ended within 10 seconds and is left behind.' in log
    assert log.count("has not ended") == 2, "the others ended in order"
    assert "good stops" in log
    assert "Child process exited with status 0 (exit 0)" in log


@pytest.mark.sandbox
def test_a_plugin_that_fails_to_start_or_load_leaves_the_background_to_the_others(tree):
    tree.file("bad/plugin.lua", "local function inner() error('boom') end\ninner()")
    tree.file("lame/plugin.lua", 'return { name = "Lame", version = "1", start = function() error("no start") end }')
    tells(tree, "good")
    supervisor, child = tree.background("--plugins", "bad,lame,good,absent")
    wait_until(lambda: "good collects" in tree.log() and "no start" in tree.log() and acknowledged(tree), what="a collection")
    tree.stop(supervisor)
    log = tree.log()
    assert log.count("Plugin 'bad' cannot be loaded") == 1 and "in function 'inner'" in log
    assert log.count("Plugin 'absent' cannot be loaded") == 1 and "absent/plugin.lua" in log
    assert log.count("Plugin 'lame' failed in start: ") == 1 and "good stops" in log


@pytest.mark.fast
def test_two_hundred_workers_start_are_busy_on_the_domain_and_stop(tree):
    tree.app("crowd", """
return { main = function()
  local crew = {}
  for number = 1, 200 do crew[number] = dom0:StartThread("busy", { id = number, key = "crowd." .. number }) end
  for number = 1, 200 do
    while dom0:GetInt("crowd." .. number, 0) < 20 do dom0:Wait("crowd." .. number, 1) end
  end
  local running = 0
  for _, worker in ipairs(crew) do running = running + (worker:Running() and 1 or 0) end
  for _, worker in ipairs(crew) do worker:Stop() end
  local ended = 0
  for number, worker in ipairs(crew) do
    local over, status, message = worker:Join(30)
    if over and status == number and not message then ended = ended + 1 end
  end
  print(running, ended, #dom0:Keys("crowd"))
  return 0
end }""")
    tree.file("busy.lua", """
return { run = function(argument)
  local count = 0
  repeat
    count = count + 1
    dom0:Set(argument.key, count)
    dom0:Keys("crowd")
    dom0:Get("crowd." .. (argument.id % 200 + 1))
  until dom0:Wait("never", count < 20 and 0 or math.huge) == nil
  return argument.id
end }""")
    result = tree.run(name="crowd", timeout=conftest.PATIENCE * 4)
    assert (result.status, result.out, result.err) == (0, "200\t200\t200\n", "")
    assert "ERROR" not in result.log and "WARNING" not in result.log


CROWD = """
return { main = function()
  for number = 1, 200 do dom0:StartThread("busy", { key = "crowd." .. number, next = "crowd." .. (number % 200 + 1) }) end
  for number = 1, 200 do
    while dom0:GetInt("crowd." .. number, 0) < 20 do dom0:Wait("crowd." .. number, 1) end
  end
  dom0:Log("warning", "the crowd is busy")
  return 0
end }"""
# Writes, reads and waits until it is asked to end.
BUSY = """
return { run = function(argument)
  local count = 0
  repeat
    count = count + 1
    dom0:Set(argument.key, count)
    dom0:Get(argument.next)
  until dom0:Wait(argument.next, count < 20 and 0 or 0.2) == nil
  dom0:Log("warning", "ends " .. argument.key)
  return 0
end }"""


def assert_all_of_the_crowd_ended(log):
    ends = re.findall(r" ends crowd\.(\d+)$", log, re.M)
    assert sorted(map(int, ends)) == list(range(1, 201))
    assert log.index("the crowd is busy") < log.index(" ends crowd."), "none ended before the process did"
    assert "left behind" not in log and " ERROR [" not in log


@pytest.mark.fast
def test_two_hundred_busy_workers_end_with_a_foreground_run(tree):
    tree.app("crowd", CROWD)
    tree.file("busy.lua", BUSY)
    result = tree.run(name="crowd", timeout=conftest.PATIENCE * 4)
    assert (result.status, result.out, result.err) == (0, "", "")
    assert_all_of_the_crowd_ended(result.log)


@pytest.mark.fast
@pytest.mark.sandbox
def test_two_hundred_busy_workers_end_with_a_stop_of_the_agent(tree):
    tree.app("crowd", CROWD)
    tree.file("busy.lua", BUSY)
    supervisor, child = tree.background(name="crowd")
    wait_until(lambda: "the crowd is busy" in tree.log("crowd"), conftest.PATIENCE * 4, what="a busy crowd")
    tree.stop(supervisor)
    assert not alive(child)
    assert_all_of_the_crowd_ended(tree.log("crowd"))
    assert "Child process exited with status 0 (exit 0)" in tree.log("crowd")


@pytest.mark.skipif(conftest.SANITIZER == "thread", reason="this sanitizer has a thread of its own, which wakes up")
def test_a_worker_that_waits_and_who_joins_it_do_nothing_meanwhile(tree):
    tree.app("probe", """
return { main = function()
  local worker = dom0:StartThread("sleeper")
  dom0:Wait("asleep", 0)
  while not dom0:Has("asleep") do dom0:Wait("asleep", 1) end
  dom0:Log("info", "joins")
  worker:Join(600)
end }""")
    tree.file("sleeper.lua", 'return { run = function() dom0:Set("asleep", true) dom0:Wait("never", 600) end }')
    process = tree.start(name="probe")
    wait_until(lambda: "joins" in tree.log("probe"), what="the join")
    before = at_rest(process.pid)
    time.sleep(2)
    assert [conftest.switches(process.pid)] == before
    assert process.poll() is None


def test_an_error_in_a_worker_is_logged_with_its_traceback_and_ends_the_worker_alone(tree):
    tree.app("probe", """
return { main = function()
  local over, status, message = dom0:StartThread("failing"):Join(20)
  print(over, status, (message:gsub("\\n.*", "")))
  return 0
end }""")
    tree.file("failing.lua", """
local function inner() error("in a worker") end
return { run = function() inner() end }""")
    result = tree.run(name="probe")
    assert result.status == 0 and re.fullmatch(r"true\t2\t.*failing\.lua:2: in a worker\n", result.out), result.out
    assert result.log.count('Worker "failing" failed: ') == 1
    assert "    stack traceback:" in result.log and "in function 'inner'" in result.log
