"""The steps of a run of the tests: how one is executed, how far it is, what it counted, and how that is shown.

A step is a command with a name. Its output goes to build/test/<name>.log and is shown when it fails. Steps that count
tests leave JUnit files, which are added up.
"""
import os
import re
import signal
import subprocess
import sys
import threading
import time
import xml.etree.ElementTree

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
OUT = os.path.join(ROOT, "build", "test")


def end_group(process):
    """Kills a process that leads a session of its own, and all that it started there; nothing when it has been waited for."""
    if process.returncode is None:  # no poll(), which would wait for one whose children still run
        pid = process.pid
        try:
            assert pid > 1, f"refusing to signal {pid}"
            os.killpg(pid, signal.SIGKILL)
        except ProcessLookupError:
            pass


class Step:
    """One command. `junit` are the result files that it must leave behind. With `shards` a program of GoogleTest runs that many
    times at once, each with its share of the tests and a result file of its own. One that runs `behind` all others begins with the first of
    them, and takes the processors while these wait."""

    def __init__(self, name, command, junit=(), env=None, timeout=1500, shards=1, behind=False):
        self.name, self.command, self.timeout, self.shards, self.behind = name, command, timeout, shards, behind
        if behind:
            self.command = ["nice", "-n", "19", *command]
        self.processes = []
        self._lock, self._ended = threading.Lock(), False
        self._junit = tuple(junit)
        # Texts of the system are compared, so they are in one language whoever starts the run.
        kept = {key: value for key, value in os.environ.items() if not key.startswith("LC_") and key != "LANGUAGE"}
        self.env = {**kept, "LANG": "C.UTF-8", **(env or {})}

    @property
    def junit(self):
        return [self._of_shard(file, shard) for file in self._junit for shard in range(self.shards)]

    def _of_shard(self, text, shard):
        return text.replace(".xml", f"-{shard + 1}.xml") if self.shards > 1 else text

    def log_file(self, shard=0):
        name = self.name.replace(" ", "-") + (f"-{shard + 1}" if self.shards > 1 else "")
        return os.path.join(OUT, name + ".log")

    def log_files(self):
        return [self.log_file(shard) for shard in range(self.shards)]

    def start(self, shard):
        """Starts a process of it, where it was not ended before."""
        env, command = self.env, self.command
        if self.shards > 1:
            env = {**env, "GTEST_TOTAL_SHARDS": str(self.shards), "GTEST_SHARD_INDEX": str(shard)}
            command = [self._of_shard(word, shard) for word in command]
        with self._lock, open(self.log_file(shard), "wb") as output:
            if self._ended:
                raise InterruptedError("ended before it began")
            self.processes.append(subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT, env=env, cwd=ROOT,
                                                   start_new_session=self.behind))
        return self.processes[-1]

    def end(self):
        """Ends what runs of it, and nothing of it begins from then on."""
        with self._lock:
            self._ended = True
        self.kill()

    def kill(self):
        """Ends what runs of it, with all that a step behind the others has started."""
        for process in self.processes:
            if process.poll() is None:
                if self.behind:
                    end_group(process)
                else:
                    process.kill()
                process.wait()


class Outcome:
    """How a step ended: `failure` is empty when it was good."""

    def __init__(self, step, failure, seconds):
        self.step, self.failure, self.seconds = step, failure, seconds


def execute(step):
    for file in step.junit:
        if os.path.exists(file):
            os.unlink(file)
    begin = time.monotonic()
    failure = ""
    processes = []
    try:
        for shard in range(step.shards):
            processes.append(step.start(shard))
        for process in processes:
            code = process.wait(timeout=max(1, begin + step.timeout - time.monotonic()))
            failure = failure or (str(code) if code else "")
    except subprocess.TimeoutExpired:
        failure = f"no end within {step.timeout} s"
    except OSError as error:
        failure = str(error)
    step.kill()
    if not failure and not all(os.path.exists(file) for file in step.junit):
        failure = "it left no result file"
    return Outcome(step, failure, time.monotonic() - begin)


def count(file):
    """Passed, failed and skipped tests of a JUnit file."""
    passed = failed = skipped = 0
    for case in xml.etree.ElementTree.parse(file).getroot().iter("testcase"):
        if case.find("failure") is not None or case.find("error") is not None:
            failed += 1
        elif case.find("skipped") is not None or case.get("status") == "notrun":
            skipped += 1
        else:
            passed += 1
    return passed, failed, skipped


# --- what a person sees

# Of ninja and the linter ("[12/80]"), of pytest ("[ 12%]"), of GoogleTest (a line a test, behind the number of all).
COUNTED, PERCENT = re.compile(rb"\[(\d+)/(\d+)\]"), re.compile(rb"\[ *(\d+%)\]")
OF_GOOGLETEST, DONE = re.compile(rb"Running (\d+) tests? "), re.compile(rb"^\[ +(?:OK|FAILED|SKIPPED) +\] .* ms\)", re.M)


def progress(texts):
    """How far a step is by what it has written so far: "12/80", "12%", or empty."""
    done = total = 0
    last = b""
    for text in texts:
        of_all = OF_GOOGLETEST.search(text)
        if of_all:
            total += int(of_all[1])
            done += len(DONE.findall(text))
            continue
        for pattern in (COUNTED, PERCENT):
            for found in pattern.finditer(text):
                last = b"/".join(found.groups())
    return f"{done}/{total}" if total else last.decode()


def read(path, most=None):
    try:
        with open(path, "rb") as file:
            if most and os.path.getsize(path) > most:
                file.seek(-most, os.SEEK_END)
            return file.read()
    except OSError:
        return b""


class Screen:
    """Writes a line a step. On a terminal a last line that is drawn anew tells how far the running steps are."""

    def __init__(self, stream=sys.stdout):
        self._stream = stream
        terminal = stream.isatty() and os.environ.get("TERM") != "dumb"
        self._redraws = terminal
        self._colour = terminal and not os.environ.get("NO_COLOR")

    def line(self, text=""):
        self._stream.write(("\r\033[K" if self._redraws else "") + text + "\n")
        self._stream.flush()

    def painted(self, text, number):
        return f"\033[{number}m{text}\033[0m" if self._colour else text

    def outcome(self, outcome):
        good = not outcome.failure
        word = self.painted("ok", 32) if good else self.painted(f"FAILED ({outcome.failure})", 31)
        self.line(f"{outcome.step.name} ... {word}, {outcome.seconds:.0f} s")
        if not good:
            for line in tail(outcome.step):
                self.line("    " + line)

    def running(self, steps, seconds):
        if not self._redraws:
            return
        parts = []
        for step in steps:
            far = progress([read(file) for file in step.log_files()])
            parts.append(f"{step.name} {far}".rstrip())
        width = os.get_terminal_size(self._stream.fileno()).columns - 1
        self._stream.write(("\r\033[K" + f"{seconds:.0f} s: " + ", ".join(parts))[:max(width, 20) + 4])
        self._stream.flush()


def tail(step):
    """The last lines of what a failed step wrote, without those of tests that went well."""
    for file in step.log_files():
        lines = read(file, 60000).decode("utf-8", "replace").splitlines()
        lines = [line for line in lines if not re.match(r"\[ +(?:RUN|OK) +\]|\[-+\]", line)]
        bad = step.shards == 1 or any("FAILED" in line for line in lines) or not any("PASSED" in line for line in lines)
        if bad:
            yield from lines[-60:]


def run_together(steps, screen):
    """Runs the steps at the same time; yields the outcome of each as it ends, which has been shown then."""
    return outcomes(Begun(steps), screen)


def run_in_order(groups, screen, goes_on=lambda: True):
    """Runs the groups one after the other for as long as it `goes_on`, and behind them all what is to run there; yields outcomes as
    `run_together` does."""
    behind = Begun([step for group in groups for step in group if step.behind])
    try:
        for group in groups:
            yield from run_together([step for step in group if not step.behind], screen)
            if not goes_on():
                return
        yield from outcomes(behind, screen)
    finally:
        for step in behind.steps:
            step.end()


class Begun:
    """Steps that run, each in a thread."""

    def __init__(self, steps):
        self.steps, self.finished, self.lock, self.begin = list(steps), [], threading.Condition(), time.monotonic()
        for step in self.steps:
            threading.Thread(target=self._work, args=(step,), daemon=True).start()

    def _work(self, step):
        outcome = execute(step)
        with self.lock:
            self.finished.append(outcome)
            self.lock.notify()


def outcomes(begun, screen):
    left = list(begun.steps)
    while left:
        with begun.lock:
            if not begun.finished:
                begun.lock.wait(0.5)
            ended, begun.finished[:] = list(begun.finished), []
        for outcome in ended:
            left.remove(outcome.step)
            screen.outcome(outcome)
            yield outcome
        if left:
            screen.running(left, time.monotonic() - begun.begin)
