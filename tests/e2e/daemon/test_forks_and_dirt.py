"""Forks that fail, and everything odd that a parent can hand down to a starting daemon."""
import os
import resource
import signal
import subprocess
import time

import pytest

from agents import CAUGHT, ENDED, LIFE, life, records
from conftest import alive, children, send_signal, wait_until

pytestmark = pytest.mark.sandbox


def strace_fork_failure(tree, number):
    """Runs a start in which the n-th process creation of whichever process fails with EAGAIN; returns its status."""
    command = ["strace", "-f", "-qq", "-o", os.path.join(tree.path, "trace"), "-e", "trace=clone,clone3,fork,vfork",
               "-e", f"inject=clone,clone3,fork,vfork:error=EAGAIN:when={number}",
               os.path.join(tree.path, "probe"), "--background"]
    process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    tree._started.append(process)
    return process.wait(timeout=60)


def test_the_first_fork_that_fails_is_an_error_and_status_255(tree):
    tree.app("probe", LIFE)
    assert strace_fork_failure(tree, 1) == 255
    lines = records(tree.log("probe"))
    assert len(lines) == 1 and lines[0][0] == "ERROR" and lines[0][1].startswith("Unable to fork (error 11: "), lines
    assert life(tree) == [] and not os.path.exists("/var/run/probe.pid")


# Counted a process: the first child's first fork is the second of the whole start, and so on; strace counts for each
# process apart, so the second and third places need a shim that counts across processes.
@pytest.mark.parametrize("number,text", [(2, "Unable to do 2nd fork"), (3, "Unable to fork child")])
def test_later_forks_that_fail_are_errors_and_leave_no_pid_file(tree, number, text):
    from conftest import BUILD, SANITIZED
    if SANITIZED:
        pytest.skip("a preloaded shim does not go with a sanitizer")
    tree.app("probe", LIFE)
    shim = os.path.join(BUILD, "tests", "libforkfail.so")
    result = tree.run("--background", name="probe", env={"LD_PRELOAD": shim, "VEX_FAIL_FORK": str(number)})
    assert result.status == 0  # the starting process itself succeeded
    wait_until(lambda: text in tree.log("probe"), what=text)
    time.sleep(0.5)
    lines = records(tree.log("probe"))
    assert len(lines) == 1 and lines[0][0] == "ERROR" and lines[0][1].startswith(text + " (error 11: "), lines
    assert life(tree) == [] and not os.path.exists("/var/run/probe.pid")


def stop_and_check(tree, supervisor):
    wait_until(lambda: "main" in life(tree), what="main")
    tree.stop(supervisor)
    assert life(tree) == ["init", "main", "shutdown"]
    assert records(tree.log("probe")) == [CAUGHT, ENDED]


def start_through(tree, shell, **options):
    executable = os.path.join(tree.path, "probe")
    process = subprocess.run(["/bin/sh", "-c", shell, executable], stdin=subprocess.DEVNULL, timeout=60, check=False, **options)
    assert process.returncode == 0
    return wait_until(lambda: tree.pid_file("probe"), what="pid file")


@pytest.mark.parametrize("shell", [
    '"$0" --background <&- >&- 2>&-', 'trap "" TERM CHLD HUP INT; "$0" --background', 'umask 0; "$0" --background',
    'umask 777; "$0" --background', 'mkdir gone; cd gone; rmdir ../gone; "$0" --background',
    'ulimit -c 0; "$0" --background'])
def test_what_a_shell_hands_down_does_no_harm(tree, tmp_path, shell):
    tree.app("probe", LIFE)
    stop_and_check(tree, start_through(tree, shell, cwd=tmp_path))
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
    assert [line for line in records(tree.log("probe")) if "signal 9" in line[1]]
    tree.stop(supervisor)


def test_nine_hundred_open_descriptors_are_no_hindrance(tree):
    tree.app("probe", LIFE)
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(2048, hard), hard))
    opened = [os.open("/dev/null", os.O_RDONLY) for _ in range(900)]
    try:
        process = subprocess.run([os.path.join(tree.path, "probe"), "--background"], close_fds=False, stdin=subprocess.DEVNULL,
                                 pass_fds=opened, timeout=60, check=False)
    finally:
        for descriptor in opened:
            os.close(descriptor)
        resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))
    assert process.returncode == 0
    stop_and_check(tree, wait_until(lambda: tree.pid_file("probe"), what="pid file"))


def test_a_terminal_that_closes_does_not_end_the_daemon(tree):
    import pty
    tree.app("probe", LIFE)
    pid, terminal = pty.fork()
    if pid == 0:
        os.execv(os.path.join(tree.path, "probe"), [os.path.join(tree.path, "probe"), "--background"])
    os.waitpid(pid, 0)
    supervisor = wait_until(lambda: tree.pid_file("probe"), what="pid file")
    wait_until(lambda: "main" in life(tree), what="main")
    os.close(terminal)
    time.sleep(0.5)
    assert alive(supervisor)
    stop_and_check(tree, supervisor)


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
    wait_until(lambda: os.path.exists(seen) and "SigCgt" in open(seen).read(), what="output")
    text = open(seen).read()
    tree.stop(supervisor)
    links = [line.split(" -> ")[1] for line in text.splitlines() if " -> " in line]
    assert not [link for link in links if "eventpoll" in link or "socket" in link or ".log" in link or ".lock" in link], links


@pytest.mark.parametrize("user", [1000])
def test_an_ordinary_user_may_run_it_where_the_pid_folder_allows(tree, user):
    tree.app("probe", LIFE)
    os.chmod("/run", 0o777)
    for folder, _, files in os.walk(tree.path):
        os.chmod(folder, 0o777)
    parent = os.path.dirname(tree.path)
    while parent != "/":
        os.chmod(parent, os.stat(parent).st_mode | 0o055)
        parent = os.path.dirname(parent)
    process = subprocess.run([os.path.join(tree.path, "probe"), "--background"], user=user, group=user, extra_groups=[],
                             stdin=subprocess.DEVNULL, timeout=60, check=False)
    assert process.returncode == 0
    supervisor = wait_until(lambda: tree.pid_file("probe"), what="pid file")
    assert os.stat(f"/proc/{supervisor}").st_uid == user
    stop_and_check(tree, supervisor)
