"""SIGTERM at the system calls of a whole life in the background: start, run, death of the child, delay, restart, stop.

Proves that a stop that comes at any of them ends the agent in order, or, when another stop came before or no child runs, at
once with 0; that no stop is lost, nothing hangs or stays behind, no stranger gets a signal, and the log holds only what the
life explains. About a hundred points by default, every one with VEX_FULL=1.
"""
import concurrent.futures
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time

import pytest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "daemon"))
from agents import CAUGHT, LIFE, delayed, exited, killed, life, records, uninterrupted
from conftest import (BUILD, FULL, ORDINARY_USER, PATIENCE, SANITIZER, TRACED, Tree, alive, children, require_ordinary_user,
                      send_signal)

pytestmark = [pytest.mark.sandbox, pytest.mark.slow]
STOPAT = os.environ.get("VEX_STOPAT", os.path.join(BUILD, "tests", "stopat"))
AT_ONCE = 4
SHUTDOWN = 4  # what `shutdown` returns: tells an orderly stop's status from that of an end at once

KILLED = killed(9)
DELAYED = delayed(1)
ENDED = exited(SHUTDOWN)
CUT_SHORT = exited(0)
ONE_LIFE = ["init", "main"]

BYSTANDER = """
import signal, sys
signals = set(signal.valid_signals()) - {signal.SIGKILL, signal.SIGSTOP}
signal.pthread_sigmask(signal.SIG_BLOCK, signals)
print("ready", flush=True)
while True:
    print(signal.sigwaitinfo(signals).si_signo, flush=True)
"""


class Run:
    """One life under the tracer. `first` makes it up to the first `main`, `restart` adds a killed child and a second `main`;
    then it is stopped, unless the tracer's stop came before."""

    def __init__(self, tree, name, scenario, role, stop):
        self.tree, self.name = tree, name
        self.what = f"{scenario}, role {role}, stop {stop}"
        self.killed = self.stopped = False
        # A stop of the starting processes may come when they have done their part; then the agent is stopped as ever.
        self.over_when_sent = role >= 2
        shutil.rmtree(tree.work, ignore_errors=True)
        self.report_file = tree.file("report", "")
        os.chmod(self.report_file, 0o666)
        with open(tree.file("said", ""), "wb") as said:
            self.process = subprocess.Popen(
                [tree.file("stopat"), self.report_file, str(role), str(stop), os.path.join(tree.path, name), "--background"],
                stdin=subprocess.DEVNULL, stdout=said, stderr=said, **tree.identity,
                env=dict(os.environ, VEX_TEST_SHUTDOWN=str(SHUTDOWN), **TRACED))
        tree._started.append(self.process)
        try:
            if scenario == "restart" and self.until_idle(1):
                self.killed = True
                for child in children(self.supervisor()):
                    send_signal(child, signal.SIGKILL)
            if self.until_idle(2 if scenario == "restart" else 1):
                self.stopped = True
                send_signal(self.supervisor(), signal.SIGTERM)
            self.wait()
        finally:
            if self.process.poll() is None:
                self.process.kill()  # takes along whatever is still traced
                self.process.wait()
        # Two stops at most: the tracer's and the last one.
        self.life, self.log = life(tree), uninterrupted(records(tree.log(name)), stops=2)
        self.left = self.agents()
        with open(tree.file("said"), encoding="utf-8", errors="replace") as file:
            self.left += file.read().splitlines()

    def report(self):
        with open(self.report_file) as file:
            return [line.split() for line in file if line.endswith("\n")]

    def role(self, number):
        return next((int(line[3]) for line in self.report() if line[:2] == ["role", str(number)]), 0)

    def supervisor(self):
        """Also one that began when nobody was traced any more."""
        return self.role(2) or self.tree.supervisor(self.name)

    def end(self, role):
        return next((int(line[2]) for line in self.report() if line[:2] == ["end", str(role)]), None)

    def sent(self):
        """When the tracer's stop was sent, by the process's own state ("open", "waiting" or "passed"); None: not at all."""
        return next((line[2] for line in self.report() if line[0] == "sent"), None)

    def stops(self):
        return next(int(line[1]) for line in self.report() if line[0] == "stops")

    def until_idle(self, mains):
        """True when the agent waits for a stop, in its n-th life; False when the tracer's stop has come or all is over."""
        end, quiet = time.monotonic() + PATIENCE, 0
        while self.process.poll() is None and not (self.over_when_sent and self.sent()):
            assert time.monotonic() < end, f"{self.what}: never idle: {self.report()} {life(self.tree)}"
            supervisor = self.supervisor()
            # One that was stopped already has taken its file away.
            sleeping = (supervisor and life(self.tree).count("main") >= mains and self.state(supervisor) == "S"
                        and os.path.exists(f"/var/run/{self.name}.pid"))
            quiet = quiet + 1 if sleeping else 0
            if quiet == 5:
                return True
            time.sleep(0.02)
        return False

    @staticmethod
    def state(pid):
        try:
            with open(f"/proc/{pid}/stat") as file:
                return file.read().rpartition(")")[2].split()[0]
        except OSError:
            return ""

    def wait(self):
        try:
            assert self.process.wait(timeout=PATIENCE) == 0
        except subprocess.TimeoutExpired:
            raise AssertionError(f"{self.what}: no end: {self.report()} {life(self.tree)} {self.tree.log(self.name)}") from None

    def agents(self):
        found = []
        for entry in os.listdir("/proc"):
            try:
                if entry.isdigit() and os.readlink(f"/proc/{entry}/exe").startswith(self.tree.path) and alive(int(entry)):
                    found.append(int(entry))
            except OSError:
                pass
        return found

    def __str__(self):
        return f"{self.what}: killed {self.killed}, stopped {self.stopped}, {self.life}, {self.log}, {self.report()}"


def outcome_of_start(run):
    """The same for a stop of one of the two processes that only start the agent: while they take it, it kills the start before
    there is anything; while they block it, it goes on to the agent, which stops in order. From the first one's last look for a
    stop on its status 0 tells that the agent runs."""
    assert not run.left and not os.path.exists(f"/var/run/{run.name}.pid"), str(run)
    if run.end(0) == -signal.SIGTERM:
        assert not run.role(1) and run.life == [] and run.log == [] and not run.stopped, str(run)
        result = "killed"
    else:
        assert run.end(0) == 0, str(run)
        # The first child's and the supervisor's, who may have no role when they began after the signal, in either order.
        statuses = sorted(int(line[2]) for line in run.report() if line[0] == "end" and line[1] in ("-1", "1", "2"))
        assert (run.life, statuses, run.log) == (ONE_LIFE + ["shutdown"], [0, SHUTDOWN], [CAUGHT, ENDED]), str(run)
        result = "started" if run.stopped else "orderly"
    # Before the start blocks it for good, the making of a thread does for a moment.
    assert result in {"open": ["killed"], "waiting": ["killed", "orderly"], "passed": ["started"]}[run.sent()], str(run)
    return result


def outcome(run):
    """What the stop of the tracer came to; fails when that is nothing that a stop may come to."""
    assert not run.left and not os.path.exists(f"/var/run/{run.name}.pid"), str(run)
    result = (run.life, run.end(2), run.log)
    if not run.killed and not run.stopped:
        assert result == (ONE_LIFE + ["shutdown"], SHUTDOWN, [CAUGHT, ENDED]), str(run)
        return "orderly"
    if not run.stopped:
        before = [KILLED, DELAYED]
        if run.end(2) == 0:
            # The child was dead by then: at most its end and the delay are told, and no other one begins.
            assert run.life == ONE_LIFE and run.log == before[:len(run.log)], str(run)
            return "at once"
        assert result == (ONE_LIFE + ONE_LIFE + ["shutdown"], SHUTDOWN, before + [CAUGHT, ENDED]), str(run)
        return "orderly"
    # The second stop: the supervisor ends with 0, or with the child's status when it was past its last chance to notice. Where
    # the second signal reaches the child too, it may cut `shutdown` short, or come before `shutdown` began.
    lives = (ONE_LIFE + ONE_LIFE) if run.killed else ONE_LIFE
    before = [KILLED, DELAYED] if run.killed else []
    assert run.life in (lives, lives + ["shutdown"]) and run.end(2) in (0, SHUTDOWN), str(run)
    assert run.log[:len(before)] == before, str(run)
    assert run.log[len(before):] in ([], [CAUGHT], [CAUGHT, ENDED], [CAUGHT, CUT_SHORT], [CUT_SHORT]), str(run)
    if run.end(2) == SHUTDOWN:
        assert run.life == lives + ["shutdown"] and run.log == before + [CAUGHT, ENDED], str(run)
    return "later"


@pytest.fixture
def bystander():
    """Lives in the group of those who start the agent, and must not get a single signal."""
    process = subprocess.Popen([sys.executable, "-c", BYSTANDER], stdout=subprocess.PIPE, text=True)
    assert process.stdout.readline() == "ready\n"
    yield
    assert process.poll() is None
    process.kill()
    assert process.communicate()[0] == ""


def points(total, about, every):
    if every:
        return list(range(1, total + 1))
    return sorted({1 + index * (total - 1) // (about - 1) for index in range(about)})


@pytest.fixture(params=[pytest.param(None, id="root")] + ([pytest.param(ORDINARY_USER, id="ordinary user")] if FULL else []))
def user(request):
    """Who starts the agents."""
    if request.param is not None:
        require_ordinary_user()
    return request.param


def sweep(user, scenario, role, about, judge=outcome, last=0):
    """Runs one life for each of about so many points and for each of the last ones, several at a time; returns the outcomes in
    the order of the points. All points are for root alone."""
    with tempfile.TemporaryDirectory(prefix="vex-sweep-", ignore_cleanup_errors=True) as folder:
        os.chmod(folder, 0o755)
        return sweep_in(folder, user, scenario, role, about, judge, last)


def sweep_in(outer, user, scenario, role, about, judge, last):
    def make_slot(number):
        folder = os.path.join(outer, f"slot {number}")
        os.mkdir(folder)
        tree = Tree(folder, user=user)
        tree.app(f"probe{number}", LIFE)
        shutil.copy(STOPAT, tree.file("stopat"))
        return tree, f"probe{number}"

    slots = [make_slot(number) for number in range(AT_ONCE)]
    free = list(slots)

    def one(stop):
        tree, name = free.pop()
        try:
            run = Run(tree, name, scenario, role, stop)
            return run.stops() if stop == 0 else judge(run) if run.sent() else "beyond"
        finally:
            free.append((tree, name))

    try:
        with concurrent.futures.ThreadPoolExecutor(AT_ONCE) as pool:
            # A life that waits in between, for a lock say, has a dozen calls more than others: the points are of one that does not,
            # and where all are taken, of one that does.
            totals = list(pool.map(one, [0] * AT_ONCE))
            total = max(totals) if FULL and user is None else min(totals)
            chosen = sorted({*points(total, about, FULL and user is None), *range(total + 1 - last, total + 1)})
            results = list(pool.map(one, chosen))
    finally:
        for tree, _ in slots:
            tree.end_all()
    counts = {result: results.count(result) for result in set(results)}
    print(f"{scenario}, role {role}: {total} points, {len(chosen)} taken, {counts}")
    # How many calls a life takes varies a little, the more so with two threads.
    assert counts.get("beyond", 0) <= len(chosen) // 3 + total - min(totals)
    return results


@pytest.mark.fast
@pytest.mark.skipif(SANITIZER == "thread", reason="the sanitizer puts a handler off to the end of the process's next call, and "
                    "that may be the supervisor's wait for its child; it has one thread, so there is no race to find")
def test_a_stop_at_any_call_of_the_supervisor_ends_it_in_order_or_at_once(user, bystander):
    results = sweep(user, "restart", 2, 50)
    assert {"orderly", "later"} <= set(results) and ("at once" in results or not FULL)


@pytest.mark.fast
def test_a_stop_at_any_call_of_the_child_is_taken_after_main(user, bystander):
    assert "orderly" in sweep(user, "first", 3, 30)


def test_a_stop_at_any_call_of_a_restarted_child_is_taken_after_main(user, bystander):
    assert "orderly" in sweep(user, "restart", 4, 16)


# The thread sanitizer's own thread makes calls by the clock, so that the n-th call is another one in each life.
WITHOUT_THREADS = pytest.mark.skipif(SANITIZER == "thread", reason="the sanitizer adds a thread, whose calls and end this sweep cannot "
                                     "tell from the process's; that has one thread, so there is no race to find")


@WITHOUT_THREADS
def test_a_stop_of_the_starting_process_leaves_nothing_or_stops_the_agent(user, bystander):
    assert {"killed", "orderly"} <= set(sweep(user, "first", 0, 10, outcome_of_start, last=30))


@pytest.mark.quick
@WITHOUT_THREADS
def test_a_stop_of_the_first_child_stops_the_agent(user, bystander):
    results = set(sweep(user, "first", 1, 8, outcome_of_start, last=10))
    assert "orderly" in results and "killed" not in results
