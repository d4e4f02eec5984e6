"""The life of supervisor and child: what they are, how they stop, and what is left behind."""
import os
import re
import shutil
import signal
import subprocess
import time

import pytest

from agents import CAUGHT, ENDED, LIFE, PID_FILE, check_log, delayed, exited, killed, life, run_adopted, stale
from conftest import (BUILD_NUMBER, VERSION, BUILD, FULL, PARENT_DIES_ONCE, SANITIZED, SANITIZER, alive, at_rest, children, send_signal,
                      send_signal_if_there, switches, wait_until)

pytestmark = pytest.mark.sandbox


def status_of(pid):
    with open(f"/proc/{pid}/status") as file:
        return dict(line.rstrip("\n").split(":\t", 1) for line in file if ":\t" in line)


def stat_of(pid):
    with open(f"/proc/{pid}/stat") as file:
        return file.read().rpartition(")")[2].split()


@pytest.mark.quick
@pytest.mark.fast
@pytest.mark.any_user(always=True)
@pytest.mark.parametrize("name", ["probe", "vx_agent"])
def test_it_starts_in_the_background_and_stops_in_order(tree, name):
    arguments = []
    if name == "vx_agent":
        tree.file("override/vx_agent.lua", LIFE)
        arguments = ["--lua_path", tree.path + "/override/?.lua"]
    else:
        tree.app(name, LIFE)
    supervisor, child = tree.background(*arguments, name=name)
    wait_until(lambda: life(tree) == ["init", "main"], what="main")
    tree.stop(supervisor)
    assert life(tree) == ["init", "main", "shutdown"]
    assert not alive(child)
    assert not os.path.exists(f"/var/run/{name}.pid")
    if name == "probe":
        check_log(tree, CAUGHT, ENDED)
        return
    check_log(tree, ("INFO", f"VEX {VERSION}.{BUILD_NUMBER} starting."),
              traced("ExpandZippath", "zipFilespec: "),
              traced("ExpandZippath", f"app.lua.zippath '{tree.path}/vex_core/vx_agent.vxe;{tree.path}/vex_core/vex.vxe' "),
              *run_of_a_chunk(), *run_of_a_method("init"), *run_of_a_method("main"), CAUGHT, *run_of_a_method("shutdown"), ENDED,
              ("INFO", re.compile(rf"VEX {VERSION}.{BUILD_NUMBER} exiting\. Run time was 0d 00:00:\d\d\.\d{{3}}")), name=name)


# The launcher's own trace, which is on under the agent's own name.
def traced(function, text):
    return ("TRACE", re.compile(rf"Appl {function}\(vex/apps/vex/vex:\d+\): {re.escape(text)}"))


def run_of_a_chunk():
    return [traced("RunChunk", "Running chunk 'vx_agent'"), traced("RunChunk", "Chunk produced a return value of 0")]


def run_of_a_method(method):
    return [traced("RunAppMethod", f"Running app's Lua method '{method}'"), *run_of_a_chunk()]


def descriptors(pid):
    """Where each leads. Some may close meanwhile: around a fork the supervisor has a pipe as well."""
    found = {}
    for descriptor in os.listdir(f"/proc/{pid}/fd"):
        try:
            found[int(descriptor)] = os.readlink(f"/proc/{pid}/fd/{descriptor}")
        except FileNotFoundError:
            pass
    return found


@pytest.mark.any_user
def test_the_supervisor_is_what_the_documents_say(tree):
    tree.app("probe", LIFE)
    supervisor, child = tree.background(name="probe")
    fields = stat_of(supervisor)
    parent, group, session, terminal = int(fields[1]), int(fields[2]), int(fields[3]), int(fields[4])
    assert session not in (supervisor, os.getsid(0)) and group == session and terminal == 0
    wait_until(lambda: not os.path.exists(f"/proc/{session}"), what="end of the first child")
    assert os.readlink(f"/proc/{supervisor}/cwd") == tree.work
    for descriptor in (0, 1, 2):
        assert descriptors(supervisor)[descriptor] == "/dev/null"
    assert tree.pid_file("probe") == supervisor
    assert children(supervisor) == [child]
    assert status_of(supervisor)["Threads"] == ("2" if SANITIZER == "thread" else "1")  # that sanitizer has one of its own
    opened = descriptors(supervisor).values()
    assert not [name for name in opened if name.endswith(".db") or "-journal" in name or "-wal" in name]
    assert int(stat_of(child)[3]) == session
    owner = tree.identity.get("user", 0)
    assert {os.stat(path).st_uid for path in (f"/proc/{supervisor}", f"/proc/{child}", PID_FILE)} == {owner}
    tree.stop(supervisor)
    check_log(tree, CAUGHT, ENDED)


@pytest.mark.skipif(SANITIZED, reason="a sanitizer has memory and threads of its own")
def test_supervisor_and_child_do_nothing_while_nothing_happens(tree):
    tree.app("probe", "return { main = function() return 0 end }")
    supervisor, child = tree.background(name="probe")
    before = at_rest(supervisor, child)
    time.sleep(60 if FULL else 8)
    assert [switches(supervisor), switches(child)] == before
    tree.stop(supervisor)
    check_log(tree, CAUGHT, ENDED)


@pytest.mark.skipif(SANITIZED, reason="a sanitizer has memory and threads of its own")
def test_the_supervisor_needs_at_most_two_mebibytes_more_than_an_empty_wx_program(tree):
    tree.app("probe", LIFE)
    supervisor, _ = tree.background(name="probe")
    empty = subprocess.Popen([os.path.join(BUILD, "tests", "emptywx")], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    empty.stdout.readline()

    def anonymous(pid):
        """Memory that belongs to no file. What is private of it would be next to nothing: the child shares all from before its fork."""
        with open(f"/proc/{pid}/smaps_rollup") as file:
            return sum(int(line.split()[1]) for line in file if line.startswith("Anonymous:"))
    at_rest(supervisor)
    ours, theirs = anonymous(supervisor), anonymous(empty.pid)
    empty.kill()
    empty.wait()
    tree.stop(supervisor)
    check_log(tree, CAUGHT, ENDED)
    print(f"anonymous: supervisor {ours} KiB, empty wx program {theirs} KiB")
    assert ours - theirs <= 2048


@pytest.mark.any_user
@pytest.mark.parametrize("step,expected", [("INIT", ["init"]), ("MAIN", ["init", "main"])])
@pytest.mark.parametrize("status", [1, 5, 255])
def test_a_status_of_the_child_ends_the_supervisor_with_it(tree, step, expected, status):
    tree.app("probe", LIFE)
    # The supervisor's own status is seen by the process that adopts it: here a subreaper.
    code = run_adopted(tree, {f"VEX_TEST_{step}": str(status)})
    assert code == status
    assert life(tree) == expected
    assert not os.path.exists(PID_FILE)
    check_log(tree, exited(status), stops=0)


@pytest.mark.any_user
def test_a_stop_ends_the_supervisor_with_the_status_of_shutdown(tree):
    tree.app("probe", LIFE)

    def stop(supervisor):
        wait_until(lambda: "main" in life(tree), what="main")
        send_signal(supervisor, signal.SIGTERM)
    assert run_adopted(tree, {"VEX_TEST_SHUTDOWN": "4"}, stop) == 4
    assert life(tree) == ["init", "main", "shutdown"]
    check_log(tree, CAUGHT, exited(4))


@pytest.mark.any_user
@pytest.mark.parametrize("method,status", [("init", 2), ("main", 2), ("main", 5)])
def test_a_lua_error_in_the_background_is_one_record_with_its_traceback(tree, method, status):
    late = status == 5
    failure = "setmetatable({}, {__gc = function() error('boom') end}) collectgarbage()" if late else "error('boom')"
    tree.app("probe", f"return {{ {method} = function() local function inner() {failure} end inner() return 0 end }}")
    assert run_adopted(tree) == status
    where = r"[^\n]*probe\.lua:1"
    message = rf"error in __gc metamethod \({where}: boom\)" if late else rf"{where}: boom"
    trace = rf"{message}\nstack traceback:\n\[C\]: in function '{'collectgarbage' if late else 'error'}'\n{where}: in function 'inner'\n.*"
    check_log(tree, ("ERROR", re.compile(trace, re.S)), exited(status), stops=0)


def test_a_failed_worker_in_the_background_is_one_record(tree):
    tree.app("probe", """return { main = function()
  dom0:StartThread("failing"):Join(20)
  return 4
end }""")
    tree.file("failing.lua", "return { run = function() error('boom') end }")
    assert run_adopted(tree) == 4
    check_log(tree, ("ERROR", re.compile(r'Worker "failing" failed: [^\n]*failing\.lua:1: boom\nstack traceback:\n.*', re.S)),
              exited(4), stops=0)


CRASHES = (signal.SIGILL, signal.SIGTRAP, signal.SIGABRT, signal.SIGSEGV)
WITH_A_DUMP = CRASHES + (signal.SIGFPE, signal.SIGBUS)


@pytest.mark.any_user
@pytest.mark.parametrize("number", [signal.SIGKILL, *WITH_A_DUMP, signal.SIGQUIT])
def test_a_child_killed_by_a_signal_is_reported_and_restarted_after_a_second(tree, number):
    tree.app("probe", LIFE)
    supervisor, child = tree.background(name="probe")
    wait_until(lambda: "main" in life(tree), what="main")
    send_signal(child, number)
    again = wait_until(lambda: [pid for pid in children(supervisor) if pid != child], what="the restarted child")[0]
    wait_until(lambda: life(tree).count("main") == 2, what="second main")
    assert again != child
    tree.stop(supervisor)
    assert life(tree) == ["init", "main"] * 2 + ["shutdown"]
    dump = re.escape(os.path.join(tree.work, "plugins", "diag", "probe.mdmp"))
    told = [("FATAL", re.compile(rf"probe crashed: signal {int(number)} \({number.name}\), thread \d+; crash dump: {dump}"))]
    # Where the system leaves a core, the raw status says so.
    end = re.compile(rf"Child process {'crashed' if number in CRASHES else 'exited'} with status ({int(number)}|{int(number) | 128}) "
                     rf"\(signal {int(number)}: {re.escape(signal.strsignal(number))}\)")
    check_log(tree, *told * (number in WITH_A_DUMP), ("ERROR" if number in CRASHES else "INFO", end), delayed(1), CAUGHT, ENDED)


def blocks(pid, number):
    return bool(int(status_of(pid)["SigBlk"], 16) >> (number - 1) & 1)


def test_the_signal_of_children_is_blocked_in_the_supervisor_and_in_every_child_but_the_first(tree):
    tree.app("probe", LIFE)
    supervisor, child = tree.background(name="probe")
    wait_until(lambda: "main" in life(tree), what="main")
    # It does so behind its first fork, where it blocks a stop for a moment, and the child may be the faster one.
    wait_until(lambda: blocks(supervisor, signal.SIGCHLD) and not blocks(supervisor, signal.SIGTERM), what="its signals")
    assert not blocks(child, signal.SIGCHLD)
    send_signal(child, signal.SIGKILL)
    wait_until(lambda: life(tree).count("main") == 2, what="second main")
    assert blocks(children(supervisor)[0], signal.SIGCHLD)
    tree.stop(supervisor)
    check_log(tree, killed(9), delayed(1), CAUGHT, ENDED)


@pytest.mark.quick
def test_a_stop_leaves_no_program_of_the_application(tree):
    """A background job, a stream that is open, and what a worker waits for; but not what has a session of its own."""
    tree.file("waits.lua", "return { run = function() dom0:Execute('sh', { '-c', 'echo $$ > waits; exec sleep 600' }) end }")
    tree.app("probe", """return { main = function()
      os.execute("sleep 600 & echo $! > job")
      os.execute("setsid sh -c 'echo $$ > own; exec sleep 600' &")
      stream = io.popen("echo $$ > stream; exec sleep 600")
      dom0:StartThread("waits")
    end }""")
    supervisor, _ = tree.background(name="probe")

    def pid_in(name):
        path = os.path.join(tree.work, name)
        return os.path.exists(path) and int(open(path).read() or 0)
    pids = {name: wait_until(lambda name=name: pid_in(name), what=name) for name in ("job", "own", "stream", "waits")}
    begin = time.monotonic()
    tree.stop(supervisor)
    assert time.monotonic() - begin < 9
    # Nobody waits for the background job, which may take the signal after the agent has ended.
    wait_until(lambda: not [name for name in ("job", "stream", "waits") if alive(pids[name])], what="their ends")
    assert alive(pids["own"])
    send_signal(pids["own"], signal.SIGKILL)
    check_log(tree, CAUGHT, ENDED)


def test_a_stop_gives_a_program_the_rest_of_its_input(tree):
    tree.app("probe", """return { main = function()
       stream = io.popen("cat > written; echo end >> written", "w")
       stream:write("last words\\n")
     end }""")
    supervisor, _ = tree.background(name="probe")
    written = os.path.join(tree.work, "written")
    wait_until(lambda: os.path.exists(written), what="the program")
    tree.stop(supervisor)
    assert open(written).read() == "last words\nend\n"
    check_log(tree, CAUGHT, ENDED)


def test_a_child_killed_by_sigterm_ends_the_supervisor_with_zero(tree):
    shutil.copy(os.path.join(BUILD, "tests", "luacrash.so"), tree.file("lib/luacrash.so"))
    tree.app("probe", "return { main = function() require('luacrash')('term') end }")
    assert run_adopted(tree) == 0
    assert not os.path.exists(PID_FILE)
    check_log(tree, killed(signal.SIGTERM), stops=0)


@pytest.mark.any_user
def test_a_stop_signal_at_the_child_alone_is_an_orderly_stop_too(tree):
    tree.app("probe", LIFE)

    def stop(supervisor):
        wait_until(lambda: "main" in life(tree), what="main")
        send_signal(children(supervisor)[0], signal.SIGTERM)
    assert run_adopted(tree, {"VEX_TEST_SHUTDOWN": "6"}, stop) == 6
    assert life(tree) == ["init", "main", "shutdown"] and not os.path.exists(PID_FILE)
    check_log(tree, CAUGHT, exited(6), stops=0)


@PARENT_DIES_ONCE
@pytest.mark.any_user
@pytest.mark.parametrize("number", [signal.SIGHUP, signal.SIGUSR1, signal.SIGINT, signal.SIGKILL])
def test_a_supervisor_that_dies_of_a_signal_takes_its_child_along_in_order(tree, number):
    tree.app("probe", LIFE)
    supervisor, child = tree.background(name="probe")
    wait_until(lambda: "main" in life(tree), what="main")
    send_signal(supervisor, number)
    wait_until(lambda: not alive(supervisor) and not alive(child), what="end of both")
    assert life(tree) == ["init", "main", "shutdown"]
    assert os.path.exists(PID_FILE)
    again, _ = tree.background(name="probe")
    wait_until(lambda: life(tree).count("main") == 2, what="second main")
    assert again != supervisor
    tree.stop(again)
    check_log(tree, CAUGHT, stale(supervisor), CAUGHT, ENDED)


SLOW = """
local M = {}
local function note(what)
  local f = assert(io.open(dom0:Get("app.path.work") .. "/life", "a")); f:write(what, "\\n"); f:close()
end
local function pause(name) note(name); if os.getenv("VEX_TEST_SLOW") == name then dom0:Wait("never", name == "shutdown" and 600 or 2); note(name .. "-end") end return 0 end
function M.init() return pause("init") end
function M.main() return pause("main") end
function M.shutdown() return pause("shutdown") end
return M
"""


@pytest.mark.any_user
@pytest.mark.parametrize("step", ["init", "main"])
def test_a_stop_during_init_or_main_is_taken_after_main(tree, step):
    tree.app("probe", SLOW)
    supervisor, child = tree.background(name="probe", env={"VEX_TEST_SLOW": step})
    wait_until(lambda: step in life(tree), what=step)
    tree.stop(supervisor)
    expected = {"init": ["init", "init-end", "main", "shutdown"], "main": ["init", "main", "main-end", "shutdown"]}
    assert life(tree) == expected[step]
    assert not alive(child)
    check_log(tree, CAUGHT, ENDED)


def test_a_second_stop_signal_at_the_child_cuts_shutdown_short(tree):
    tree.app("probe", SLOW)
    supervisor, child = tree.background(name="probe", env={"VEX_TEST_SLOW": "shutdown"})
    wait_until(lambda: "main" in life(tree), what="main")
    send_signal(child, signal.SIGTERM)
    wait_until(lambda: "shutdown" in life(tree), what="shutdown")
    send_signal(child, signal.SIGTERM)
    wait_until(lambda: not alive(supervisor), what="end of the supervisor")
    assert life(tree) == ["init", "main", "shutdown"]
    check_log(tree, CAUGHT, ENDED, stops=0)


@pytest.mark.any_user
def test_a_later_stop_ends_the_supervisor_at_once_with_zero(tree):
    tree.app("probe", SLOW)

    def stop(supervisor):
        wait_until(lambda: "main" in life(tree), what="main")
        send_signal(supervisor, signal.SIGTERM)
        wait_until(lambda: "shutdown" in life(tree), what="shutdown")
        send_signal(supervisor, signal.SIGTERM)
    begin = time.monotonic()
    assert run_adopted(tree, {"VEX_TEST_SLOW": "shutdown"}, stop) == 0
    assert time.monotonic() - begin < 60
    assert life(tree) == ["init", "main", "shutdown"] and not os.path.exists(PID_FILE)
    check_log(tree, CAUGHT)


@pytest.mark.any_user
def test_a_stop_during_a_delay_ends_the_supervisor_at_once_with_zero_and_no_child(tree):
    tree.app("probe", LIFE)
    lives = 0

    def delays(supervisor):
        """Holds the supervisor in a delay, which is twice as long each time; on a busy machine it may be over before it is held."""
        nonlocal lives
        lives += 1
        wait_until(lambda: life(tree).count("main") == lives, what="main")
        send_signal(children(supervisor)[0], signal.SIGKILL)
        wait_until(lambda: delayed(lives)[1] in tree.log("probe"), what="delay")
        send_signal(supervisor, signal.SIGSTOP)
        wait_until(lambda: stat_of(supervisor)[0] == "T", what="held supervisor")
        held = not children(supervisor) and not blocks(supervisor, signal.SIGTERM)
        if not held:
            send_signal(supervisor, signal.SIGCONT)
        return held

    def stop(supervisor):
        while not delays(supervisor):
            pass
        send_signal(supervisor, signal.SIGTERM)
        send_signal(supervisor, signal.SIGCONT)
    assert run_adopted(tree, action=stop) == 0
    assert life(tree) == ["init", "main"] * lives
    assert not os.path.exists(PID_FILE)
    check_log(tree, *[line for number in range(1, lives + 1) for line in (killed(9), delayed(number))], stops=0)


@pytest.mark.any_user
def test_a_thousand_stops_in_a_second_leave_nothing_behind(tree):
    tree.app("probe", LIFE)

    def stop(supervisor):
        wait_until(lambda: "main" in life(tree), what="main")
        for _ in range(1000):
            if not alive(supervisor):
                break
            send_signal_if_there(supervisor, signal.SIGTERM)
            time.sleep(0.0005)
    # The second one ends the supervisor at once with 0, unless the child was quicker to end with 0.
    assert run_adopted(tree, action=stop) == 0
    assert not os.path.exists(PID_FILE)
    ended = ENDED[1] in tree.log("probe")
    assert life(tree) in (["init", "main", "shutdown"], ["init", "main"])
    check_log(tree, *[CAUGHT, ENDED] if ended else [CAUGHT], stops=2)


@pytest.mark.patient
@pytest.mark.slow
def test_eight_starts_in_the_span_are_the_limit(tree):
    """A child that dies at once is started at 0, 1, 3, 7, 15, 31, 63 and 127 seconds; the ninth start is refused."""
    tree.app("probe", "dom0:Wait('never', 0.1) os.execute('kill -KILL $PPID')")
    begin = time.monotonic()
    assert run_adopted(tree) == 255
    seconds = time.monotonic() - begin
    assert 125 < seconds < 200, seconds
    lives = [line for restart in range(1, 8) for line in (killed(9), delayed(restart))] + [killed(9)]
    check_log(tree, *lives, ("ERROR", "Too many restarts in too short of a time, exiting (8 restarts in less than 512 seconds)"), stops=0)
    assert not os.path.exists(PID_FILE)
