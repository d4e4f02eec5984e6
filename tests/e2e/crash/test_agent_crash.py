"""A crash of the agent itself: in native code under Lua, in the interpreter, in a worker; in the foreground and under the
supervisor."""
import os
import re
import shutil
import signal
import sqlite3
import subprocess

import pytest

import conftest
from minidump import Minidump

pytestmark = pytest.mark.skipif(conftest.SANITIZED, reason="the sanitizer has crash handlers of its own")

CRASH = """
local M = {}
function M.init() return 0 end
function M.main()
  local marker = dom0:Get("app.path.work") .. "/crashed"
  local f = io.open(marker)
  if f then f:close() return 0 end
  io.open(marker, "w"):close()
  local way = arg[1] or os.getenv("VEX_TEST_CRASH")
  if os.getenv("VEX_TEST_WORKER") then
    dom0:StartThread("crashworker", way):Join()
  else
    require("luacrash")(way)
  end
  return 0
end
function M.shutdown() return 0 end
return M
"""


WORKER = """
return { run = function(way)
  local damaged = require("luacrash")(way)
  return damaged.field
end }
"""


@pytest.fixture
def app(tree):
    shutil.copy(os.path.join(conftest.BUILD, "tests", "luacrash.so"), tree.file("lib/luacrash.so"))
    tree.app("crasher", CRASH)
    tree.file("crashworker.lua", WORKER)
    return tree


def crash_site(tree):
    """Of the dump: the thread (True: the process's first), the signal, and the file of the module that it crashed in."""
    dump = Minidump(os.path.join(tree.work, "plugins", "diag", "crasher.mdmp"))
    thread, number, _ = dump.exception()
    place = dump.threads()[thread][3]
    names = [os.path.basename(path) for path, (base, size, _) in dump.modules().items() if base <= place < base + size]
    return thread == dump.process(), number, names[0]


def debugger(tree, *commands):
    if shutil.which("lldb") is None:
        pytest.skip("NO LLDB HERE: the dump was not opened by a debugger")
    path = os.path.join(tree.work, "plugins", "diag", "crasher.mdmp")
    return subprocess.run(["lldb", "--no-lldbinit", "--batch", *(word for command in commands for word in ("-o", command)),
                           "-c", path, os.path.join(tree.path, "crasher")],
                          stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=180).stdout


def backtrace(tree):
    return debugger(tree, "thread backtrace")


def check_dump(tree):
    path = os.path.join(tree.work, "plugins", "diag", "crasher.mdmp")
    dump = Minidump(path)
    modules = dump.modules()
    module = modules[os.path.join(tree.path, "lib", "luacrash.so")]
    thread, number, _ = dump.exception()
    assert number == signal.SIGSEGV
    assert module[0] <= dump.threads()[thread][3] < module[0] + module[1], "the crash is in the native module"
    assert thread != dump.process(), "on the script thread"
    assert os.path.join(tree.path, "lib", "vex_core.so") in modules
    text = backtrace(tree)
    assert re.search(r"frame #0: .*luacrash.so`", text), text
    assert re.search(r"frame #\d+: .*vex_core.so`.*CLuaInterpreter::RunScript", text), text
    assert re.search(r"frame #\d+: .*CScriptThread::OnRun", text), text


def test_crash_inside_lua_leaves_a_dump_that_leads_back_to_the_script_thread(app):
    result = app.run(name="crasher")
    assert result.status == -signal.SIGSEGV
    assert re.search(r"^crasher crashed: signal 11 \(SIGSEGV at address 0x0\), thread \d+; crash dump: .*/crasher.mdmp$",
                     result.err, re.M), result.err
    assert len(re.findall(r" FATAL \[\d+/CScriptThread\] crasher crashed: signal 11", result.log)) == 1, result.log
    check_dump(app)


@pytest.mark.parametrize("way, number, name, module, frame", [
    ("null", signal.SIGSEGV, "SIGSEGV", "luacrash.so", r"frame #0: .*luacrash\.so`.*CrashInModule"),
    ("abort", signal.SIGABRT, "SIGABRT", "libc.so.6", r"frame #\d+: .*luacrash\.so`.*Crash"),
    ("overflow", signal.SIGSEGV, "SIGSEGV", "luacrash.so", r"frame #0: .*luacrash\.so`.*OverflowStack"),
    ("table", signal.SIGSEGV, "SIGSEGV", "liblua5.2-c++.so", r"frame #0: .*liblua5\.2-c\+\+\.so"),
])
def test_each_way_of_crashing_on_the_script_thread_ends_by_its_signal_with_a_dump(app, way, number, name, module, frame):
    if way == "table":
        app.app("crasher", CRASH.replace('require("luacrash")(way)', 'print(require("luacrash")(way).field)'))
    result = app.run("--", way, name="crasher")
    assert result.status == -number, result.err
    assert re.search(rf"^crasher crashed: signal {number:d} \({name}", result.err, re.M), result.err
    assert result.log.count(" FATAL ") == 1, result.log
    first_thread, signalled, place = crash_site(app)
    assert (first_thread, signalled) == (False, number) and place.startswith(module), place
    text = debugger(app, "thread list", "image list", "thread backtrace -c 20")
    assert re.search(rf"^\* thread #1.*stop reason = signal {name}", text, re.M) and re.search(r"^  thread #2", text, re.M), text
    for image in ("crasher", "lib/vex_core.so", "lib/luacrash.so"):
        assert re.search(rf"^\[ *\d+\] .*{image}", text, re.M), text
    assert re.search(frame, text), text


@pytest.mark.parametrize("way, module", [("null", "luacrash.so"), ("table", "liblua5.2-c++.so")])
def test_crash_in_a_worker_is_shown_as_the_workers(app, way, module):
    result = app.run("--", way, name="crasher", env={"VEX_TEST_WORKER": "1"})
    assert result.status == -signal.SIGSEGV, result.err
    first_thread, number, place = crash_site(app)
    assert (first_thread, number) == (False, signal.SIGSEGV) and place.startswith(module), place
    assert re.search(r" FATAL \[\d+/worker [^]]+\] crasher crashed", result.log), result.log
    text = backtrace(app)
    assert re.search(r"frame #0: .*" + re.escape(module), text), text
    assert re.search(r"frame #\d+: .*\bWorker::OnRun", text), text
    assert "CScriptThread" not in text, text


@pytest.mark.parametrize("level, full", [("0", False), ("1", True)])
def test_dump_level_of_the_configuration_file_makes_the_dump_full(app, level, full):
    app.file("work/crasher.ini", f"DumpLevel={level}\n")
    assert app.run(name="crasher").status == -signal.SIGSEGV
    streams = Minidump(os.path.join(app.work, "plugins", "diag", "crasher.mdmp")).streams
    assert ("memory64" in streams) == full, streams


def test_crash_with_no_room_for_the_dump_still_ends_by_its_signal_and_tells(app):
    app.file("work/plugins/diag", "a file where the folder should be")
    result = app.run(name="crasher")
    assert result.status == -signal.SIGSEGV
    assert re.search(r"^crasher crashed: signal 11 .*", result.err, re.M), result.err
    assert re.search(r" FATAL .*; no crash dump could be written to .*/diag/crasher.mdmp \(error 20: Not a directory\)$",
                     result.log, re.M), result.log


@pytest.mark.sandbox
def test_dump_of_the_bundled_application_lies_in_its_diagnostic_folder(app):
    app.file("bad/plugin.lua", 'return { name = "Bad", version = "1", collect = function() require("luacrash")() end }')
    app.background("--plugins", "bad")
    conftest.wait_until(lambda: "Child process crashed with status" in app.log(), what="report of the crash")
    path = os.path.join(app.work, "plugins", "diag", "vx_agent.mdmp")
    thread, number, _ = Minidump(path).exception()
    assert number == signal.SIGSEGV and thread != Minidump(path).process()
    assert re.search(r" FATAL \[\d+/[^]]+\] vx_agent crashed: signal 11 .*; crash dump: .*/plugins/diag/vx_agent.mdmp", app.log())


def events(tree):
    """Of the agent's database: (number, severity, text)."""
    path = os.path.join(tree.work, "events.db")
    if not os.path.exists(path):
        return []
    database = sqlite3.connect(f"file:{path}?mode=rw", uri=True, timeout=10)
    try:
        return database.execute("SELECT number, severity, text FROM agent_event ORDER BY id").fetchall()
    except sqlite3.OperationalError:  # no table yet
        return []
    finally:
        database.close()


def first_beats(tree):
    """The processes that have told of their first heartbeat: they are through with their start."""
    return re.findall(r" INFO \[(\d+)/\S+ \S+\] Heartbeat \d+ \(start\)", tree.log())


@pytest.mark.sandbox
def test_the_child_that_follows_a_crash_writes_one_event_with_signal_dump_and_number(app):
    app.file("bad/plugin.lua", """
return { name = "Bad", version = "1", collect = function(dom)
  local marker = dom:Get("app.path.work") .. "/crashes"
  local file = io.open(marker, "a+")
  local crashes = #file:read("*a")
  if crashes == 2 then return {} end
  file:write("x"):close()
  require("luacrash")()
end }""")
    supervisor, _ = app.background("--plugins", "bad")
    conftest.wait_until(lambda: len(events(app)) == 2, what="an event for each crash")
    crashed = re.findall(r" FATAL \[(\d+)/", app.log())
    conftest.wait_until(lambda: set(first_beats(app)) - set(crashed), what="the third child's first heartbeat")
    app.stop(supervisor)
    dump = os.path.join(app.work, "plugins", "diag", "vx_agent.mdmp")
    assert Minidump(dump).process() == int(crashed[1])
    # An ordered stop is no such end.
    supervisor, child = app.background("--plugins", "bad")
    conftest.wait_until(lambda: str(child) in first_beats(app), what="the first heartbeat of a new start")
    app.stop(supervisor)
    ends = re.findall(r"Child process crashed with status \d+ \(signal 11: Segmentation fault\)", app.log())
    assert len(crashed) == len(ends) == 2
    assert events(app) == [
        (5111, 2, f"{ends[0]}, process {crashed[0]}; crash dump: {dump}; 1 restart, 1 of them after a crash"),
        (5111, 2, f"{ends[1]}, process {crashed[1]}; crash dump: {dump}; 2 restarts, 2 of them after a crash")]


@pytest.mark.sandbox
def test_the_child_that_follows_one_that_was_killed_writes_an_event_of_another_number(app):
    supervisor, child = app.background()
    conftest.wait_until(lambda: str(child) in first_beats(app), what="the first heartbeat")
    conftest.send_signal(child, signal.SIGKILL)
    conftest.wait_until(lambda: events(app), what="the event")
    app.stop(supervisor)
    assert events(app) == [
        (5112, 4, f"Child process exited with status 9 (signal 9: Killed), process {child}; 1 restart, 0 of them after a crash")]


@pytest.mark.quick
@pytest.mark.sandbox
def test_supervisor_reports_the_crash_and_starts_the_child_again(app):
    supervisor, _ = app.background(name="crasher")
    conftest.wait_until(lambda: "Child process crashed with status" in app.log("crasher"), what="report of the crash")
    conftest.wait_until(lambda: "Delaying 1000ms before restart 1" in app.log("crasher"), what="restart")
    conftest.wait_until(lambda: conftest.children(supervisor), what="second child")
    log = app.log("crasher")
    assert log.index("FATAL") < log.index("Child process crashed with status")
    assert re.search(r"ERROR .*Child process crashed with status \d+ \(signal 11: Segmentation fault\)", log), log
    app.stop(supervisor)
    assert log.count("FATAL") == 1
    check_dump(app)
