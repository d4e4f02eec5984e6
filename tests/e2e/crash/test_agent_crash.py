"""A crash of the agent itself: inside Lua, in the foreground and under the supervisor."""
import os
import re
import shutil
import signal
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
  require("luacrash")()
  return 0
end
function M.shutdown() return 0 end
return M
"""


@pytest.fixture
def app(tree):
    shutil.copy(os.path.join(conftest.BUILD, "tests", "luacrash.so"), tree.file("lib/luacrash.so"))
    tree.app("crasher", CRASH)
    return tree


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
    if shutil.which("lldb") is None:
        pytest.skip("NO LLDB HERE: the dump was not opened by a debugger")
    text = subprocess.run(["lldb", "--no-lldbinit", "--batch", "-o", "thread backtrace", "-c", path,
                           os.path.join(tree.path, "crasher")],
                          stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=180).stdout
    assert re.search(r"frame #0: .*luacrash.so`", text), text
    assert re.search(r"frame #\d+: .*vex_core.so`.*CLuaInterpreter::RunScript", text), text
    assert re.search(r"frame #\d+: .*CScriptThread::OnRun", text), text


def test_crash_inside_lua_leaves_a_dump_that_leads_back_to_the_script_thread(app):
    result = app.run(name="crasher")
    assert result.status == -signal.SIGSEGV
    assert re.search(r"^crasher crashed: signal 11 \(SIGSEGV at address 0x0\), thread \d+; crash dump: .*/crasher.mdmp$",
                     result.err, re.M), result.err
    assert len(re.findall(r" FATAL \[\d+/thread \d+\] crasher crashed: signal 11", result.log)) == 1, result.log
    check_dump(app)


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
