"""The copy of the log in the system's log: what is there, and what becomes of it and of the agent when the logger does not take it."""
import os
import re
import signal
import socket
import subprocess
import time

import pytest

from conftest import PATIENCE, at_rest, send_signal, wait_until
from own_dev import Logger, OwnDev

pytestmark = pytest.mark.sandbox

SEVERITIES = {"FATAL": 2, "ERROR": 3, "WARNING": 4, "MESSAGE": 5, "INFO": 6, "DEBUG": 7, "TRACE": 7}
START = re.compile(r"^(\d{4}-(\d\d)-(\d\d) (\d\d:\d\d:\d\d)) (([A-Z]+) \[(\d+)/[^\]]*\] )", re.MULTILINE)
SENT = re.compile(r"<(\d+)>([A-Z][a-z]{2}) ([ \d]\d) (\d\d:\d\d:\d\d) ([^\[]+)\[(\d+)\]: (.*)", re.DOTALL)
MONTHS = "Jan Feb Mar Apr May Jun Jul Aug Sep Oct Nov Dec".split()
LOCAL0 = 16


@pytest.fixture
def dev(tmp_path):
    made = OwnDev(tmp_path / "dev")
    yield made
    made.close()


def records_of(log):
    """The records of a log file, as (header of the copy, message of it, pid)."""
    found = []
    starts = [*START.finditer(log)]
    for start, following in zip(starts, [*(each.start() for each in starts[1:]), len(log)]):
        _, month, day, clock, _, level, pid = start.groups()
        priority = LOCAL0 * 8 + SEVERITIES[level]
        found.append(((priority, MONTHS[int(month) - 1], int(day), clock), log[start.start(5):following].rstrip("\n"), int(pid)))
    return found


def records_sent(logger, name):
    found = []
    for record in logger.records:
        priority, month, day, clock, tag, pid, message = SENT.fullmatch(record).groups()
        assert tag == name
        found.append(((int(priority), month, int(day), clock), message, int(pid)))
    return found


def settings(tree, name, level="info", facility="local0"):
    tree.file(f"work/{name}.ini", f"[settings]\napp.log.syslog = {facility}\napp.log.syslog.level = {level}\n")


@pytest.mark.fast
def test_the_copy_is_the_file_record_by_record(tree, dev):
    tree.app("writer", """
return { main = function()
  for _, level in ipairs{"error", "warning", "info", "debug"} do dom0:Log(level, level .. " line") end
  dom0:Log("info", "two\\n<0>lines, \\27 and a tab\\t, grüß")
  dom0:StartThread("scribe"):Join()
  dom0:Log("info", ("ü"):rep(5000))
  return 0
end }""")
    tree.file("scribe.lua", 'return { run = function() dom0:Log("warning", "from a thread") end }')
    settings(tree, "writer", "debug")
    logger = Logger(socket.SOCK_STREAM)
    try:
        result = tree.run(name="writer")
    finally:
        logger.close()
    assert (result.status, result.err) == (0, "")
    written, sent = records_of(result.log), records_sent(logger, "writer")
    header, text, pid = written[-1]
    assert text.endswith("ü")
    start = text.encode()[:7 * 1024]
    written[-1] = header, start.decode(errors="ignore") + f" ... (cut, {len(text.encode())} bytes in all)", pid
    assert sent == written
    assert any("/worker scribe] from a thread" in text for _, text, _ in sent)
    assert any(text.endswith("two\n    <0>lines, \\x1B and a tab\t, grüß") for _, text, _ in sent)


def test_below_the_level_and_by_default_nothing_goes_there(tree, dev):
    tree.app("writer", 'return { main = function() dom0:Log("error", "bad") dom0:Log("info", "good") return 0 end }')
    logger = Logger()
    try:
        assert tree.run(name="writer").status == 0
        settings(tree, "writer", "error", "daemon")
        assert tree.run(name="writer").status == 0
    finally:
        logger.close()
    assert [(priority, text.partition("] ")[2]) for (priority, *_), text, _ in records_sent(logger, "writer")] == [(3 * 8 + 3, "bad")]


@pytest.mark.fast
def test_supervisor_child_and_crash_are_in_the_copy_and_an_idle_agent_does_nothing(tree, dev):
    tree.app("writer", 'return { main = function() dom0:Log("info", "runs") return 0 end }')
    settings(tree, "writer")
    logger = Logger(socket.SOCK_STREAM)
    try:
        supervisor, child = tree.background(name="writer")
        wait_until(lambda: "] runs" in tree.log("writer"), what="the child's line")
        before = at_rest(supervisor, child)
        time.sleep(1)
        assert at_rest(supervisor, child) == before
        send_signal(child, signal.SIGSEGV)
        wait_until(lambda: tree.log("writer").count("] runs") == 2, what="the next child's line")
        tree.stop(supervisor)
    finally:
        logger.close()
    written = records_of(tree.log("writer"))
    crash = next(record for record in written if record[1].startswith("FATAL"))
    assert crash[2] == child
    # That one has no time, for want of a safe way to tell it.
    assert f"<130>writer[{child}]: {crash[1]}" in logger.records
    logger.records = [record for record in logger.records if "]: FATAL [" not in record]
    sent = records_sent(logger, "writer")
    written.remove(crash)
    pids = {pid for _, _, pid in written}
    assert {supervisor, child} < pids
    for pid in pids:  # of several processes a logger of streams knows no order
        assert [record for record in sent if record[2] == pid] == [record for record in written if record[2] == pid]


STEPS = """
local folder = dom0:Get("app.path.bin") .. "/"
local function await(step)
  while true do
    local file = io.open(folder .. step)
    if file then file:close() return end
    dom0:Wait("never", 0.02)
  end
end
return { main = function()
  for step, count in ipairs{%s} do
    for number = 1, count do dom0:Log("info", ("line %%d-%%d-end"):format(step, number)) end
    io.open(folder .. "done" .. step, "w"):close()
    await("go" .. step)
  end
  return 0
end }"""


class Steps:
    """An agent that logs so many lines at each step, and waits to be told before it goes on."""

    def __init__(self, tree, *counts):
        self._tree, self._step = tree, 0
        tree.app("writer", STEPS % ", ".join(map(str, counts)))
        settings(tree, "writer")
        self.process = tree.start(name="writer", stderr=subprocess.PIPE)
        self.wait()

    def wait(self):
        self._step += 1
        wait_until(lambda: os.path.exists(self._tree.file(f"done{self._step}")), what=f"step {self._step}")

    def go_on(self):
        self._tree.file(f"go{self._step}", "")

    def end(self):
        self.go_on()
        assert self.process.communicate(timeout=PATIENCE)[1] == b""
        assert self.process.returncode == 0


def told(log):
    """How many lines the log says to be in the file alone, and how often it says that some are."""
    counts = re.findall(r"/log\] The system log (?:takes lines again, |has not taken )(\d+) ", log)
    return sum(map(int, counts)), log.count("/log] The system log takes no lines (error ")


def missing(tree, *loggers):
    """Records of the file that are in no copy, but for the one that tells their number at the end; those that are there are in the
    file's order."""
    sent = [record for logger in loggers for record in records_sent(logger, "writer")]
    left = []
    rest = iter(sent)
    following = next(rest, None)
    for record in records_of(tree.log("writer")):
        if record == following:
            following = next(rest, None)
        elif "/log] The system log has not taken " not in record[1]:
            left.append(record)
    assert following is None, f"not in the file, or not in its order: {following}"
    return left


@pytest.mark.fast
def test_a_logger_that_stops_reading_holds_nobody_up_and_what_it_misses_is_counted(tree, dev):
    count = 20_000
    logger = Logger(reads=False)
    try:
        begin = time.monotonic()
        steps = Steps(tree, count, 1)
        took = time.monotonic() - begin
        logger.read()
        logger.catch_up()
        steps.go_on()
        steps.wait()
        steps.end()
    finally:
        logger.close()
    assert took < count * 0.005, "each line would have waited for 5 ms"
    log = tree.log("writer")
    number, notices = told(log)
    assert len(missing(tree, logger)) == number > count // 2
    assert notices == 1
    assert any("line 2-1-end" in record for record in logger.records)


def test_a_logger_that_comes_goes_and_comes_again_costs_no_more_than_the_lines_meanwhile(tree, dev):
    steps = Steps(tree, 3, 2, 2, 1, 1)
    first = Logger()
    time.sleep(1.1)  # it is looked for once a second
    steps.go_on()
    steps.wait()
    first.close()
    second = Logger()
    steps.go_on()
    steps.wait()
    second.close()
    os.unlink("/dev/log")
    steps.go_on()
    steps.wait()
    third = Logger(socket.SOCK_STREAM)
    time.sleep(1.1)
    steps.go_on()
    steps.wait()
    steps.end()
    third.close()
    left = missing(tree, first, second, third)
    number, notices = told(tree.log("writer"))
    assert len(left) == number
    lost = [re.search(r"line (\d)-\d-end", text)[1] for _, text, _ in left if "line " in text and "-end" in text]
    assert lost == ["1", "1", "1", "4"]
    assert notices in (1, 2), "the second time within a minute it is only counted, and told at the end"


def test_without_a_logger_an_agent_runs_and_says_so_once(tree, dev):
    tree.app("writer", 'return { main = function() for n = 1, 50 do dom0:Log("info", "line") end return 0 end }')
    settings(tree, "writer")
    result = tree.run(name="writer")
    assert (result.status, result.err) == (0, "")
    number, notices = told(result.log)
    assert (number, notices) == (len(records_of(result.log)) - 1, 1), "all but the last, which tells the number"


def test_a_wrong_facility_is_told_with_what_it_can_be(tree, dev):
    tree.app("writer", "return { main = function() return 0 end }")
    settings(tree, "writer", "loud", "lokal0")
    log = tree.run(name="writer").log
    path = f"{tree.work}/writer.ini"
    assert f"{path}:2: the setting 'app.log.syslog' cannot be 'lokal0': it must be one of off, auth, " in log
    assert f"{path}:3: the setting 'app.log.syslog.level' cannot be 'loud': it must be one of error, warning, message, info, debug " \
           "or trace; used: info\n" in log
