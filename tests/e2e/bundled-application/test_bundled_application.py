"""The bundled application: its report, its workers, its plugins from package to removal, its history."""
import datetime
import glob
import json
import os
import random
import re
import shutil
import signal
import sqlite3
import subprocess
import time

import pytest

from conftest import BUILD, BUILD_NUMBER, FULL, PATIENCE, SANITIZER, TRACED, VERSION, alive, at_rest, children, send_signal, \
    send_signal_if_there, switches, wait_until


def package(name, kind):
    found = glob.glob(f"{BUILD}/packages/Agent-{name}-*.{kind}")
    assert len(found) == 1, found
    return found[0]


def beats(tree):
    """Rows of the history: (id, reason)."""
    path = os.path.join(tree.work, "plugins", "vx_agent", "heartbeat.db")
    if not os.path.exists(path):
        return []
    # Not read-only: after a kill the first reader takes back what was not committed.
    database = sqlite3.connect(f"file:{path}?mode=rw", uri=True, timeout=10)
    try:
        if not database.execute("SELECT 1 FROM sqlite_master WHERE name = 'heartbeat'").fetchall():
            return []
        return database.execute("SELECT id, reason FROM heartbeat ORDER BY id").fetchall()
    finally:
        database.close()


def rows_of(tree, file, table):
    """The number of rows in a database of a plugin's folder; 0 while it is not there."""
    path = os.path.join(tree.work, "plugins", file)
    if not os.path.exists(path):
        return 0
    database = sqlite3.connect(f"file:{path}?mode=rw", uri=True, timeout=10)
    try:
        return database.execute(f"SELECT count(*) FROM {table}").fetchone()[0]
    except sqlite3.OperationalError:
        return 0
    finally:
        database.close()


def acknowledged(tree):
    """The ids of the beats that the log tells of."""
    return [int(number) for number in re.findall(r" INFO \[\S+ \S+\] Heartbeat (\d+) ", tree.log())]


def install(tree, *names):
    for name in names:
        shutil.copy(package(name, "vxp"), tree.path)
    return ["--install_plugins", "--extdir", "ext", "--plugins", ",".join(name.lower() for name in names)]


@pytest.mark.fast
def test_the_report_is_a_readable_table(tree):
    result = tree.run()
    assert (result.status, result.err) == (0, "")
    rows = dict(line.split(None, 1) for line in result.out.splitlines() if line and not line.startswith(" ") and " " in line)
    assert rows["Host"].strip() == os.uname().nodename
    assert os.uname().release in rows["Kernel"]
    assert rows["Processors"].strip() == str(os.sysconf("SC_NPROCESSORS_ONLN"))
    assert len(rows["Load"].split()) == 3
    assert set(rows) >= {"Host", "System", "Kernel", "Uptime", "Load", "Memory"}, rows


@pytest.mark.quick
def test_json_prints_the_same_as_one_object(tree):
    result = tree.run("--", "--json")
    report = json.loads(result.out)
    assert report["host"] == os.uname().nodename
    assert set(report) >= {"host", "system", "kernel", "uptime", "load", "memory", "disks", "plugins"}
    with open("/proc/meminfo") as file:
        total_kib = next(int(line.split()[1]) for line in file if line.startswith("MemTotal:"))
    assert report["memory"]["total"] == total_kib * 1024
    assert report["schema"] == 1 and report["agent"] == {"name": "vx_agent", "version": f"{VERSION}.{BUILD_NUMBER}"}
    made = datetime.datetime.strptime(report["time"], "%Y-%m-%dT%H:%M:%S%z")
    assert abs(made.timestamp() - time.time()) < 60 + PATIENCE
    assert re.fullmatch("[0-9a-f]{32}", report["host_id"])
    assert report["plugins"] == []
    for disk in report["disks"]:
        sizes = os.statvfs(disk["mount"])
        assert disk["total"] == sizes.f_blocks * sizes.f_frsize


def test_an_unknown_argument_is_told(tree):
    result = tree.run("--", "--jsn")
    assert result.status == 2 and "unknown argument '--jsn'" in result.err and result.out == ""


def test_packages_install_the_plugins_and_they_report_in_the_same_start(tree):
    result = tree.run(*install(tree, "Network", "Trend"), "--", "--json")
    assert result.status == 0, result.err
    plugins = {plugin["name"]: plugin for plugin in json.loads(result.out)["plugins"]}
    assert list(plugins) == ["Network", "Trend"]
    assert plugins["Trend"]["values"]["samples"] == 1
    assert isinstance(plugins["Network"]["values"]["interfaces"], list)
    assert len(glob.glob(tree.path + "/*.vxp.done")) == 2
    assert os.path.exists(f"{tree.work}/plugins/trend/samples.db")
    again = tree.run("--extdir", "ext", "--plugins", "network,trend", "--", "--json")
    assert json.loads(again.out)["plugins"][1]["values"]["samples"] == 2
    table = tree.run("--extdir", "ext", "--plugins", "network,trend").out
    assert "\nPlugin Network 1.0.0\n" in table and "\nPlugin Trend 1.0.0\n" in table


def test_markers_remove_the_plugins_again(tree):
    tree.run(*install(tree, "Network", "Trend"))
    assert os.path.exists(tree.path + "/network/plugin.lua") and os.path.exists(tree.path + "/ext/trend.vxe")
    for name in ("Network", "Trend"):
        shutil.copy(package(name, "vxu"), tree.path)
    result = tree.run("--install_plugins", "--extdir", "ext", "--plugins", "network,trend")
    assert result.status == 0
    assert not os.path.exists(tree.path + "/network/plugin.lua")
    assert not os.path.exists(tree.path + "/ext/trend.vxe") and not os.path.exists(tree.path + "/ext/trend.vxe.version")
    assert result.log.count("WARNING") == 2 and "Plugin 'network' cannot be loaded" in result.log
    assert "Plugin Network" not in result.out and "\nPlugin network\n  failed: module 'network.plugin' not found" in result.out


def test_a_plugin_that_fails_is_one_warning_with_its_traceback_and_the_others_go_on(tree):
    tree.file("bad/plugin.lua", "local function inner() error('boom') end\ninner()")
    tree.file("good/plugin.lua", "return { name = 'Good', version = '1', collect = function() return { answer = 42 } end }")
    result = tree.run("--plugins", "bad,good")
    assert result.status == 0 and "Plugin Good 1\n  answer  42\n" in result.out
    assert result.log.count("WARNING") == 1
    assert "boom" in result.log and "in function 'inner'" in result.log


def test_a_setting_enables_a_plugin_and_one_that_cannot_be_loaded_is_in_the_report_as_failed(tree):
    tree.file("Good/plugin.lua", "return { name = 'Good', version = '1', collect = function() return { answer = 42 } end }")
    tree.file("work/vx_agent.ini", "[settings]\nvex.Plugin.Good = on\nvex.Plugin.absent = on\nvex.Plugin.other = off\n")
    result = tree.run("--", "--json")
    good, absent = json.loads(result.out)["plugins"]
    assert result.status == 0 and good == {"name": "Good", "version": "1", "values": {"answer": 42}}
    assert set(absent) == {"name", "error"} and absent["name"] == "absent"
    assert absent["error"].startswith("module 'absent.plugin' not found")


def test_the_plugins_of_a_report_collect_at_the_same_time(tree):
    # Each collects once the other does: one after the other they would never come to an end.
    for name, other in (("one", "two"), ("two", "one")):
        tree.file(f"{name}/plugin.lua", f"""
local M = {{ name = "{name}", version = "1" }}
function M.collect(dom)
  dom:Set("test.{name}", true)
  while not dom:GetBool("test.{other}") do dom:Wait("test.{other}", 1) end
  return {{ met = "{other}" }}
end
function M.stop(dom) dom:Log("info", "{name} has stopped") end
return M
""")
    result = tree.run("--plugins", "one,two", "--", "--json")
    assert (result.status, result.err) == (0, "")
    assert [plugin["values"] for plugin in json.loads(result.out)["plugins"]] == [{"met": "two"}, {"met": "one"}]
    assert result.log.count("one has stopped") == result.log.count("two has stopped") == 1


@pytest.mark.parametrize("arguments", [(), ("--", "--json")])
def test_a_report_that_cannot_be_written_in_full_fails(tree, arguments):
    with open("/dev/full", "wb") as full:
        process = subprocess.run([tree.path + "/vx_agent", *arguments], stdout=full, stderr=subprocess.PIPE, timeout=PATIENCE)
    assert process.returncode == 1
    assert process.stderr.decode().strip() == "vx_agent: the report cannot be written in full: No space left on device"


def test_what_a_plugin_tells_does_nothing_to_the_terminal(tree):
    tree.file("evil/plugin.lua", """
return { name = "E\\27[31m", version = "1", collect = function()
  return { ["k\\27]0;x\\7"] = "v\\194\\155\\nw", rate = 1 / 0, list = {} } end }""")
    for arguments in ((), ("--", "--json")):
        result = tree.run("--plugins", "evil", *arguments)
        assert result.status == 0
        assert not re.search("[\0-\x09\x0b-\x1f\x7f-\x9f]", result.out), result.out
    values = json.loads(result.out)["plugins"][0]["values"]
    assert values == {"k\x1b]0;x\x07": "v\x9b\nw", "rate": None, "list": []}
    assert "Plugin 'evil': the value 'rate' is no finite number, null is kept" in result.log


@pytest.mark.quick
@pytest.mark.sandbox
@pytest.mark.fast
def test_the_background_beats_at_the_start_on_request_and_by_the_clock_and_stops_cleanly(tree):
    tree.file("asker/plugin.lua", """
local function beaten(dom) return io.open(dom:Get("app.path.work") .. "/vx_agent.log"):read("*a"):find("Heartbeat 1 ", 1, true) end
return { name = "Asker", version = "1",
  start = function(dom)
    while not beaten(dom) do dom:Wait("never", 0.05) end -- the first beat would answer the request
    dom:Set("vex.HeartbeatNow", true)
    while dom:GetBool("vex.HeartbeatNow") do dom:Wait("vex.HeartbeatNow", 0.05) end
    dom:Set("vex.HeartbeatInterval", 2)
  end,
  stop = function(dom) dom:Log("info", "asker stops") end }""")
    supervisor, _ = tree.background("--plugins", "asker", "--domain_var", "vex.HeartbeatInterval=3600")
    wait_until(lambda: len(beats(tree)) >= 3, what="three beats")
    assert [reason for _, reason in beats(tree)[:3]] == ["start", "request", "interval"]
    tree.stop(supervisor)
    count = len(beats(tree))
    log = tree.log()
    assert acknowledged(tree) == list(range(1, count + 1))
    assert "asker stops" in log and "ERROR" not in log
    # The framework's level would drop it; lines of scripts do not pass through that level.
    assert re.search(r" DEBUG \[\d+/worker vx_agent\.collector\] plugin asker: \{\}\n", log)
    # A trace line names the code that traces, not the module that it goes through.
    assert re.search(r" TRACE .* vex\.Heartbeat wait_for_beat\(.*/vx_agent/heartbeat\.lua:\d+\): the next beat is due in \d+ s\n", log)
    warnings = [line for line in log.splitlines() if " WARNING [" in line]
    assert all("sigwait(): caught signal" in line or "Waiting for child process" in line for line in warnings), warnings


@pytest.mark.sandbox
def test_an_interval_that_is_written_takes_effect_at_once(tree):
    tree.file("hasty/plugin.lua", """
return { name = "Hasty", version = "1",
  start = function(dom) dom:Wait("never", 0.3) dom:Set("vex.HeartbeatInterval", 1) end }""")
    supervisor, _ = tree.background("--plugins", "hasty", "--domain_var", "vex.HeartbeatInterval=3600")
    wait_until(lambda: len(beats(tree)) >= 3, what="three beats")
    assert [reason for _, reason in beats(tree)[:3]] == ["start", "interval", "interval"]
    tree.stop(supervisor)


@pytest.mark.sandbox
def test_the_interval_may_come_from_the_configuration_file(tree):
    tree.file("work/vx_agent.ini", "[settings]\nvex.HeartbeatInterval=1\nvex.HeartbeatKeepRows=2\n")
    supervisor, _ = tree.background()
    wait_until(lambda: beats(tree) and beats(tree)[-1][0] >= 4, what="the fourth beat")
    assert len(beats(tree)) <= 2
    tree.stop(supervisor)


@pytest.mark.slow
@pytest.mark.sandbox
@pytest.mark.skipif(SANITIZER == "thread", reason="this sanitizer has a thread of its own, which holds the lock of a killed "
                    "supervisor a moment longer than the process seems to live")
def test_no_acknowledged_beat_is_lost_when_the_child_is_killed_at_any_point(tree):
    tree.file("hurry/plugin.lua", """
return { name = "Hurry", version = "1", start = function(dom)
  repeat dom:Set("vex.HeartbeatNow", true) until dom:Wait("never", 0.002) == nil
end }""")
    moments = random.Random(20)
    for _ in range(100 if FULL else 10):
        supervisor, child = tree.background("--plugins", "hurry")
        before = len(acknowledged(tree))
        wait_until(lambda: len(acknowledged(tree)) > before + 5, what="beats")
        time.sleep(moments.uniform(0, 0.05))
        send_signal(supervisor, signal.SIGKILL)
        send_signal_if_there(child, signal.SIGKILL)
        wait_until(lambda: not alive(child) and not alive(supervisor), what="end")
        told, stored = acknowledged(tree), {number for number, _ in beats(tree)}
        assert len(told) > before + 5 and set(told) <= stored
        assert len(set(told)) == len(told), "no number is given twice"


@pytest.mark.sandbox
@pytest.mark.skipif(SANITIZER == "thread", reason="this sanitizer has a thread of its own, which wakes up")
def test_supervisor_and_child_do_nothing_between_beats_and_collections(tree):
    supervisor, child = tree.background(*install(tree, "Network", "Trend"), "--domain_var", "vex.HeartbeatInterval=3600")
    wait_until(lambda: acknowledged(tree), what="the first beat")
    wait_until(lambda: len(os.listdir(f"/proc/{child}/task")) >= 5, what="main, script and three workers")
    wait_until(lambda: rows_of(tree, "trend/samples.db", "sample"), what="the first sample")
    before = at_rest(supervisor, child)
    time.sleep(8)
    assert [switches(pid) for pid in (supervisor, child)] == before
    assert children(supervisor) == [child]
    tree.stop(supervisor)


def test_a_beat_is_on_stable_storage_before_the_log_tells_of_it(tree, tmp_path):
    if not shutil.which("strace"):
        pytest.skip("strace is not here")
    tree.app("probe", """
return { main = function()
  local worker = dom0:StartThread("vx_agent.heartbeat")
  for _ = 1, 100 do
    if dom0:Wait("beaten", 0.1) == nil or io.open(dom0:PluginWorkdir("vx_agent") .. "/heartbeat.db") then break end
  end
  dom0:Wait("never", 0.5)
  worker:Stop()
  worker:Join()
  return 0
end }""")
    trace = tmp_path / "trace"
    result = tree.run("--zippath", "vex_core/vx_agent.vxe", name="probe", env=TRACED,
                      prefix=["strace", "-f", "-y", "-s", "500", "-o", str(trace), "-e", "trace=write,pwrite64,fsync,fdatasync,ftruncate"])
    assert result.status == 0, result.err
    lines = trace.read_text(errors="replace").splitlines()
    told = next(index for index, line in enumerate(lines) if "Heartbeat 1 (start)" in line)
    before = lines[:told]

    def last(*words):
        return max(index for index, line in enumerate(before) if all(word in line for word in words))

    flushed_data = max(index for index, line in enumerate(before) if "sync(" in line and "heartbeat.db>" in line)
    assert last("pwrite64(", "heartbeat.db>") < flushed_data < last("ftruncate(", "heartbeat.db-journal>")
    assert last("ftruncate(", "heartbeat.db-journal>") < last("sync(", "heartbeat.db-journal>")
