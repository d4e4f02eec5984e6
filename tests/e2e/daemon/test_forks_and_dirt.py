"""Forks that fail, and everything odd that a parent can hand down to a starting daemon."""
import os
import pty
import re
import resource
import signal
import subprocess
import time

import pytest

from agents import CAUGHT, ENDED, LIFE, PID_FILE, adopted_statuses, check_log, check_silent, delayed, killed, life, run_adopted
from conftest import (BUILD_NUMBER, PATIENCE, SANITIZED, TRACED, VERSION, alive, all_that_is_shown, children, mount_tmpfs, send_signal, unmount,
                      wait_until)

pytestmark = pytest.mark.sandbox
NO_PROCESS = "(error 11: Resource temporarily unavailable)"


def strace_fork_failure(tree, name):
    """Runs a start in which the first process creation fails with EAGAIN."""
    command = ["strace", "-f", "-qq", "-o", os.path.join(tree.path, "trace"), "-e", "trace=clone,clone3,fork,vfork",
               "-e", "inject=clone,clone3,fork,vfork:error=EAGAIN:when=1"]
    return tree.run("--background", name=name, prefix=command, env=TRACED)


@pytest.mark.any_user
def test_the_first_fork_that_fails_is_an_error_and_status_255(tree):
    tree.app("probe", LIFE)
    check_silent(strace_fork_failure(tree, "probe"), 255)
    check_log(tree, ("ERROR", "Unable to fork " + NO_PROCESS))
    assert life(tree) == [] and not os.path.exists(PID_FILE)


def test_the_agents_own_name_says_goodbye_when_the_first_fork_fails(tree):
    check_silent(strace_fork_failure(tree, "vx_agent"), 255)
    check_log(tree, ("INFO", f"VEX {VERSION}.{BUILD_NUMBER} starting."), ("ERROR", "Unable to fork " + NO_PROCESS),
              ("INFO", re.compile(rf"VEX {VERSION}.{BUILD_NUMBER} exiting\. Run time was 0d 00:\d\d:\d\d\.\d{{3}}")), name="vx_agent")


@pytest.fixture
def failing_fork(preload):
    """strace counts for each process apart, so that the later places need a shim that counts across processes."""
    return lambda number: {"LD_PRELOAD": preload("libforkfail.so"), "VEX_FAIL_FORK": number}


@pytest.mark.skipif(SANITIZED, reason="a preloaded shim does not go with a sanitizer")
@pytest.mark.parametrize("number,text,statuses", [(2, "Unable to do 2nd fork", [0, 255]), (3, "Unable to fork child", [0, 0, 255])])
def test_later_forks_that_fail_are_errors_with_status_255_and_leave_no_pid_file(tree, failing_fork, number, text, statuses):
    tree.app("probe", LIFE)
    ended = adopted_statuses(tree, failing_fork(number))
    assert sorted(status for _, status in ended) == statuses
    check_log(tree, ("ERROR", f"{text} {NO_PROCESS}"), stops=0)
    assert life(tree) == [] and not os.path.exists(PID_FILE)


@pytest.mark.skipif(SANITIZED, reason="a preloaded shim does not go with a sanitizer")
def test_the_fork_of_a_restart_that_fails_is_an_error_and_takes_the_pid_file_away(tree, failing_fork):
    tree.app("probe", LIFE)

    def kill_child(supervisor):
        wait_until(lambda: "main" in life(tree), what="main")
        send_signal(children(supervisor)[0], signal.SIGKILL)
    assert run_adopted(tree, failing_fork(4), kill_child) == 255
    check_log(tree, killed(9), delayed(1), ("ERROR", "Unable to fork child " + NO_PROCESS), stops=0)
    assert life(tree) == ["init", "main"] and not os.path.exists(PID_FILE)


def stop_and_check(tree, supervisor):
    wait_until(lambda: "main" in life(tree), what="main")
    tree.stop(supervisor)
    assert life(tree) == ["init", "main", "shutdown"]
    assert not os.path.exists(PID_FILE)
    check_log(tree, CAUGHT, ENDED)


def start_through(tree, shell, **options):
    executable = os.path.join(tree.path, "probe")
    check_silent(tree.run("-c", shell, executable, executable="/bin/sh", name="probe", **options))
    return wait_until(lambda: tree.pid_file("probe"), what="pid file")


@pytest.mark.any_user
@pytest.mark.parametrize("shell", [
    '"$0" --background <&- >&- 2>&-', 'trap "" TERM CHLD HUP INT; "$0" --background', 'umask 0; "$0" --background',
    'umask 777; "$0" --background', 'mkdir gone; cd gone; rmdir ../gone; "$0" --background',
    'ulimit -c 0; "$0" --background'])
def test_what_a_shell_hands_down_does_no_harm(tree, shell):
    tree.app("probe", LIFE)
    stop_and_check(tree, start_through(tree, shell, cwd=tree.path))
    assert os.stat(os.path.join(tree.work, "probe.log")).st_mode & 0o777 == 0o600


def test_blocked_signals_are_no_hindrance(tree):
    tree.app("probe", LIFE)
    previous = signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGTERM, signal.SIGCHLD, signal.SIGHUP, signal.SIGUSR1,
                                                         signal.SIGALRM])
    try:
        supervisor, _ = tree.background(name="probe")
    finally:
        signal.pthread_sigmask(signal.SIG_SETMASK, previous)
    stop_and_check(tree, supervisor)


def test_an_ignored_child_signal_does_not_hide_the_end_of_the_child(tree):
    tree.app("probe", LIFE)
    supervisor = start_through(tree, 'trap "" CHLD; "$0" --background')
    wait_until(lambda: "main" in life(tree), what="main")
    child = children(supervisor)[0]
    send_signal(child, signal.SIGKILL)
    wait_until(lambda: life(tree).count("main") == 2, what="second main")
    tree.stop(supervisor)
    check_log(tree, killed(9), delayed(1), CAUGHT, ENDED)


@pytest.mark.parametrize("closed", ["", " <&- >&- 2>&-"], ids=["open streams", "closed streams"])
def test_without_a_null_device_no_file_is_made_in_its_place(tree, closed):
    tree.app("probe", LIFE)
    mount_tmpfs("/dev")
    try:
        started = subprocess.run(["/bin/sh", "-c", '"$0" --background' + closed, os.path.join(tree.path, "probe")], stdin=subprocess.PIPE,
                                 stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=PATIENCE)
        assert (started.returncode, started.stdout) == (0, b"")
        supervisor = wait_until(lambda: tree.supervisor("probe"), what="pid file")
        wait_until(lambda: "main" in life(tree), what="main")
        for pid in (supervisor, children(supervisor)[0]):
            assert [os.readlink(f"/proc/{pid}/fd/{descriptor}") for descriptor in (0, 1, 2)] == ["/"] * 3
        stop_and_check(tree, supervisor)
        assert os.listdir("/dev") == []
    finally:
        unmount("/dev")


def test_nine_hundred_open_descriptors_are_no_hindrance(tree):
    tree.app("probe", LIFE)
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(2048, hard), hard))
    opened = [os.open("/dev/null", os.O_RDONLY) for _ in range(900)]
    try:
        supervisor, _ = tree.background(name="probe", pass_fds=opened)
    finally:
        for descriptor in opened:
            os.close(descriptor)
        resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))
    stop_and_check(tree, supervisor)


def test_a_terminal_that_closes_does_not_end_the_daemon(tree):
    tree.app("probe", LIFE)
    pid, terminal = pty.fork()
    if pid == 0:
        os.execv(os.path.join(tree.path, "probe"), [os.path.join(tree.path, "probe"), "--background"])
    assert os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]) == 0
    supervisor = wait_until(lambda: tree.pid_file("probe"), what="pid file")
    wait_until(lambda: "main" in life(tree), what="main")
    with pytest.raises(OSError):  # nobody has the terminal any more, and nothing was written to it
        assert os.read(terminal, 1000) == b"nothing"
    os.close(terminal)
    time.sleep(0.5)
    assert alive(supervisor)
    stop_and_check(tree, supervisor)


def test_a_refused_start_tells_its_terminal_why(tree):
    tree.app("probe", LIFE)
    supervisor, _ = tree.background(name="probe")
    wait_until(lambda: "main" in life(tree), what="main")
    pid, terminal = pty.fork()
    if pid == 0:
        os.execv(os.path.join(tree.path, "probe"), [os.path.join(tree.path, "probe"), "--background"])
    assert os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]) == 1
    said = all_that_is_shown(terminal).decode()
    os.close(terminal)
    assert said.count("\n") == 1 and f"{PID_FILE} present, exiting" in said, said
    tree.stop(supervisor)
    check_log(tree, ("ERROR", f"{PID_FILE} present, exiting"), CAUGHT, ENDED)


def test_helper_programs_of_a_script_inherit_nothing(tree):
    tree.app("probe", """
        local M = {}
        function M.main()
          local f = io.popen("ls -l /proc/self/fd; cat /proc/self/status"); local text = f:read("*a"); f:close()
          local out = assert(io.open(dom0:Get("app.path.work") .. "/seen", "w")); out:write(text); out:close()
          return 0
        end
        return M""")
    supervisor, _ = tree.background(name="probe")
    seen = os.path.join(tree.work, "seen")

    def text():
        with open(seen) as file:
            return file.read()
    wait_until(lambda: os.path.exists(seen) and "SigCgt" in text(), what="output")
    tree.stop(supervisor)
    links = [line.split(" -> ")[1] for line in text().splitlines() if " -> " in line]
    assert not [link for link in links if "eventpoll" in link or "socket" in link or ".log" in link or ".lock" in link], links
    check_log(tree, CAUGHT, ENDED)
