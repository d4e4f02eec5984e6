"""The log file under what happens to log files: several writers, rotation, kills, full disks, other people's hands."""
import collections
import os
import re
import signal
import socket
import subprocess
import threading

import pytest

from conftest import FULL, PATIENCE, alive, children, mount_tmpfs, send_signal, unmount, wait_until
from own_dev import OwnDev

RECORD = re.compile(r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d (FATAL|ERROR|WARNING|MESSAGE|INFO|DEBUG|TRACE) \[\d+/[^\]]*\] ")

# Writes `count` numbered lines under a tag. What the file "<tag>.told" holds was in the log before it was told.
WRITER = """
local M = {}
function M.main()
  local tag, count = arg[1], tonumber(arg[2])
  local told = assert(io.open(dom0:Get("app.path.work") .. "/" .. tag .. ".told", "w"))
  told:setvbuf("no")
  for number = 1, count do
    dom0:Log("info", ("line %s-%d-end"):format(tag, number))
    told:write(number .. "\\n") -- one system call
  end
  return 0
end
return M
"""


def settings(tree, name, **values):
    tree.file(f"work/{name}.ini", "[settings]\n" + "".join(f"{key.replace('_', '.')}={value}\n" for key, value in values.items()))


def log_files(tree, name):
    """The log's files, oldest first."""
    numbers = sorted((int(entry.rpartition(".")[2]) for entry in os.listdir(tree.work)
                      if re.fullmatch(re.escape(name) + r"\.log\.\d+", entry)), reverse=True)
    return [f"{tree.work}/{name}.log.{number}" for number in numbers] + [f"{tree.work}/{name}.log"]


def log_lines(tree, name):
    lines = []
    for path in log_files(tree, name):
        with open(path, encoding="utf-8", newline="\n") as file:
            text = file.read()
        assert text.endswith("\n"), f"{path} ends inside a line"
        lines += text[:-1].split("\n")
    return lines


def numbers_by_tag(lines):
    found = collections.defaultdict(list)
    for line in lines:
        match = re.search(r" line (\w+)-(\d+)-end$", line)
        if match:
            found[match.group(1)].append(int(match.group(2)))
    return found


def whole_lines(path):
    """The lines of a file that may be missing yet, or have no end in its last line."""
    if not os.path.exists(path):
        return []
    with open(path) as file:
        return file.read().split("\n")[:-1]


def told(tree, tag):
    return [int(line) for line in whole_lines(f"{tree.work}/{tag}.told")]


def pieces(lines):
    """Lines that are neither a record, nor the second line of one, nor empty."""
    return [line for line in lines if line and not RECORD.match(line) and not line.startswith("    ")]


@pytest.mark.slow
def test_processes_that_rotate_one_log_lose_and_tear_no_line_though_one_is_killed(tree):
    count = 500_000 if FULL else 5_000
    tree.app("writer", WRITER)
    settings(tree, "writer", app_log_size=50_000 if FULL else 40_000, app_log_count=10000)
    processes = {tag: tree.start("--", tag, str(count), name="writer", stderr=subprocess.PIPE) for tag in ("a", "b", "c")}
    # The fourth would go on for ever; it is killed, and another begins.
    victim = tree.start("--", "killed", str(10**9), name="writer")
    wait_until(lambda: len(told(tree, "killed")) > count // 4,
               1800 if FULL else PATIENCE, what="lines of the one that is killed")
    send_signal(victim.pid, signal.SIGKILL)
    victim.wait()
    processes["after"] = tree.start("--", "after", str(count), name="writer", stderr=subprocess.PIPE)
    for process in processes.values():
        assert process.communicate(timeout=3600 if FULL else 120)[1] == b""
        assert process.returncode == 0
    lines = log_lines(tree, "writer")
    found = numbers_by_tag(lines)
    for tag in ("a", "b", "c"):
        assert found[tag] == list(range(1, count + 1)), tag
    assert found["after"] == list(range(1, count + 1))
    acknowledged = told(tree, "killed")
    assert len(acknowledged) > count // 4
    assert found["killed"] in (acknowledged, acknowledged + [len(acknowledged) + 1])
    # The kernel may cut the very record that the killed process was writing, and no other.
    assert len(pieces(lines)) <= 1, pieces(lines)
    assert len(log_files(tree, "writer")) > (1000 if FULL else 20), "it has rotated"


# As a working child: logs 1,199 lines unless it is killed before; its successor goes on behind its last number.
RESTARTED = """
local M = {}
local folder = dom0:Get("app.path.work")
function M.main()
  local last = 0
  local before = io.open(folder .. "/child.told")
  if before then
    for line in before:lines() do last = tonumber(line) end
    before:close()
  end
  local begun = assert(io.open(folder .. "/child.begun", "a"))
  begun:write(io.open("/proc/self/stat"):read("*n"), " ", last, "\\n")
  begun:close()
  local told = assert(io.open(folder .. "/child.told", "a"))
  told:setvbuf("no")
  -- One may have been written whose telling did not come about any more.
  for number = last + 2, last + 1200 do
    dom0:Log("info", ("line child-%d-end"):format(number))
    told:write(number .. "\\n") -- one system call
  end
  dom0:Set("worker", true)
  return 0
end
return M
"""


@pytest.mark.sandbox
def test_supervisor_and_child_write_one_log_over_rotations_and_kills_of_the_child(tree):
    tree.app("writer", RESTARTED)
    settings(tree, "writer", app_log_size=4096, app_log_count=10000)
    supervisor, child = tree.background(name="writer")

    def told_since_its_start(pid):
        """How many lines this child has told; another's do not count, however many it had time for before it was killed."""
        begun = dict(map(int, line.split()) for line in whole_lines(tree.work + "/child.begun"))
        return sum(number > begun[pid] for number in told(tree, "child")) if pid in begun else 0

    killed = []
    for _ in range(2):
        wait_until(lambda: told_since_its_start(child) > 300, what="lines of the child")
        send_signal(child, signal.SIGKILL)
        killed.append(child)
        child = wait_until(lambda: next((pid for pid in children(supervisor) if pid not in killed and alive(pid)), 0),
                           what="the next child")
    wait_until(lambda: told_since_its_start(child) > 300, what="lines of the last child")
    tree.stop(supervisor)
    lines = log_lines(tree, "writer")
    found, acknowledged = numbers_by_tag(lines)["child"], told(tree, "child")
    assert set(acknowledged) <= set(found) and len(set(found)) == len(found) and found == sorted(found)
    assert len(found) - len(acknowledged) <= 2, "untold lines only where a child was killed"
    assert sum("Child process exited with status 9 (signal 9: Killed)" in line for line in lines) == 2
    assert len(pieces(lines)) <= 2, pieces(lines)
    assert len(log_files(tree, "writer")) > 20


FILLS_THE_DISK = """
local M = {}
function M.main()
  local folder = dom0:Get("app.path.work")
  local filler = assert(io.open(folder .. "/filler", "w"))
  filler:setvbuf("no")
  for size = 12, 0, -1 do
    while filler:write(("x"):rep(2 ^ size)) do end
  end
  filler:close()
  for number = 1, 500 do dom0:Log("info", ("line full-%d-end"):format(number)) end
  os.remove(folder .. "/filler")
  for number = 501, 600 do dom0:Log("info", ("line full-%d-end"):format(number)) end
  return 0
end
return M
"""


@pytest.mark.quick
@pytest.mark.sandbox
@pytest.mark.fast
def test_a_full_disk_delays_lines_and_loses_none(tree):
    tree.app("writer", FILLS_THE_DISK)
    os.mkdir(tree.work)
    mount_tmpfs(tree.work, b"size=256k,mode=700")
    try:
        result = tree.run(name="writer")
        assert result.status == 0
        lines = log_lines(tree, "writer")
    finally:
        unmount(tree.work)
    assert numbers_by_tag(lines)["full"] == list(range(1, 601))
    # The disk was full in the middle of a line; that piece stays, and the line comes again.
    assert len(pieces(lines)) <= 1, pieces(lines)
    assert re.fullmatch(r"Can't write the log file .*/writer.log \(error 28: No space left on device\), lines are kept in memory "
                        r"and tried again\n", result.err), result.err


FILLS_THE_DISK_FOR_GOOD = """
local M = {}
function M.init()
  local filler = assert(io.open(dom0:Get("app.path.work") .. "/filler", "w"))
  filler:setvbuf("no")
  for size = 12, 0, -1 do
    while filler:write(("x"):rep(2 ^ size)) do end
  end
  filler:close()
  return 0
end
function M.main()
  for number = 1, 40 do
    dom0:Log("info", ("line full-%d-end"):format(number))
    dom0:AgentEvent{ number = number, severity = 2, text = ("event full-%d-end"):format(number) }
  end
  return 0
end
return M
"""


class SystemLog:
    """Stands for the system's logger while it lives: a /dev of this worker's own, in which a socket takes the records, as a stream: a
    queue of datagrams is short, and who writes them waits a fifth of a second for a busy machine's logger. One that has stopped
    takes none, and its queue is full."""

    def __init__(self, folder, stopped=False):
        self.records = []
        self._dev = OwnDev(folder)
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM if stopped else socket.SOCK_STREAM)
        self._socket.bind("/dev/log")
        if not stopped:
            self._socket.listen(1000)
        self._reader = None if stopped else threading.Thread(target=self._read)
        if self._reader:
            self._reader.start()
        else:
            self._fill()

    def _fill(self):
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            sender.setblocking(False)
            try:
                while True:
                    sender.sendto(b"x", "/dev/log")
            except BlockingIOError:
                pass

    def _read(self):
        while True:
            connection, _ = self._socket.accept()
            with connection, connection.makefile("rb") as stream:
                sent = stream.read()
            if not sent:
                break
            self.records += sent.decode().rstrip("\0").split("\0")

    def close(self):
        if self._reader:
            with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as end:
                end.connect("/dev/log")
            self._reader.join()
        self._socket.close()
        self._dev.close()


@pytest.mark.sandbox
def test_events_and_lines_of_a_background_agent_whose_disk_stays_full_go_to_the_system_log(tree, tmp_path):
    tree.app("writer", FILLS_THE_DISK_FOR_GOOD)
    os.mkdir(tree.work)
    mount_tmpfs(tree.work, b"size=256k,mode=700")
    log = SystemLog(str(tmp_path / "dev"))
    try:
        supervisor, child = tree.background(name="writer")
        # An event waits for no end of the process: it may be killed.
        wait_until(lambda: sum("Agent event not stored yet: " in record for record in log.records) == 40, what="40 events")
        tree.stop(supervisor)
        assert not alive(child)
        written = numbers_by_tag(tree.log("writer").split("\n"))["full"]
    finally:
        log.close()
        unmount(tree.work)
    events = [re.search(r'^<(\d+)>.*writer\[\d+\]: Agent event not stored yet: <agent_event .* text="event full-(\d+)-end"/>$', record)
              for record in log.records if "not stored yet" in record]
    assert [(match[1], int(match[2])) for match in events] == [(str(3 * 8 + 2), number) for number in range(1, 41)]
    # Facility and severity: daemon, info. A line is in the one log or in the other.
    sent = numbers_by_tag([record for record in log.records if record.startswith(f"<{3 * 8 + 6}>")])["full"]
    assert written + sent == list(range(1, 41)) and sent


@pytest.mark.sandbox
def test_a_logger_of_the_system_that_has_stopped_holds_no_agent_up(tree, tmp_path):
    tree.app("writer", FILLS_THE_DISK_FOR_GOOD.replace(
        "function M.main()", 'function M.main()\n  io.open(dom0:Get("app.path.bin") .. "/begun", "w"):close()'))
    os.mkdir(tree.work)
    mount_tmpfs(tree.work, b"size=256k,mode=700")
    log = SystemLog(str(tmp_path / "dev"), stopped=True)
    try:
        supervisor, child = tree.background(name="writer")
        wait_until(lambda: os.path.exists(tree.path + "/begun"), what="the lines' begin")
        tree.stop(supervisor)
        assert not alive(child)
    finally:
        log.close()
        unmount(tree.work)


@pytest.mark.sandbox
def test_what_goes_to_the_system_log_leaves_the_name_that_a_native_module_has_there(tree, tmp_path):
    tree.app("writer", FILLS_THE_DISK_FOR_GOOD.replace("return M\n", """
local events, syslog = M.main, require("posix.syslog")
function M.main()
  syslog.openlog("guest", 0, syslog.LOG_USER)
  events()
  syslog.syslog(syslog.LOG_INFO, "still the guest")
  return 0
end
return M
"""))
    os.mkdir(tree.work)
    mount_tmpfs(tree.work, b"size=256k,mode=700")
    log = SystemLog(str(tmp_path / "dev"))
    try:
        tree.stop(tree.background(name="writer")[0])
    finally:
        log.close()
        unmount(tree.work)
    assert sum(" writer[" in record and "not stored yet" in record for record in log.records) == 40
    guest = [record for record in log.records if "still the guest" in record]
    assert len(guest) == 1 and re.match(r"<14>.* guest: still the guest$", guest[0]), guest


def test_a_removed_log_file_is_made_anew_with_the_next_line(tree):
    tree.app("writer", """
return { main = function()
  dom0:Log("info", "before")
  os.remove(dom0:Get("app.path.work") .. "/writer.log")
  dom0:Log("info", "after")
  return 0
end }""")
    result = tree.run(name="writer")
    assert (result.status, result.err) == (0, "")
    assert " after\n" in result.log and " before\n" not in result.log
    assert os.stat(tree.work + "/writer.log").st_mode & 0o777 == 0o600


def test_a_log_file_that_somebody_moves_away_is_not_written_on(tree):
    tree.app("writer", """
return { main = function()
  dom0:Log("info", "before")
  os.rename(dom0:Get("app.path.work") .. "/writer.log", dom0:Get("app.path.work") .. "/moved")
  dom0:Log("info", "after")
  return 0
end }""")
    assert tree.run(name="writer").log.count("\n") == 1
    with open(tree.work + "/moved") as file:
        assert " before\n" in file.read()


@pytest.mark.sandbox
@pytest.mark.fast
def test_a_read_only_folder_is_told_once_and_the_application_runs(tree):
    tree.app("writer", """
return { main = function()
  dom0:Log("warning", "first")
  dom0:Log("warning", "second")
  print("ran")
  return 5
end }""")
    os.mkdir(tree.work, 0o700)
    mount_tmpfs(tree.work, b"size=64k,mode=700")
    try:
        subprocess.run(["mount", "-i", "-n", "-o", "remount,ro", tree.work], check=True)
        result = tree.run(name="writer")
    finally:
        unmount(tree.work)
    assert (result.status, result.out) == (5, "ran\n")
    assert result.err.count("Can't write the log file") == 1 and "Read-only file system" in result.err
    # Standard error is the last place where the lines can go.
    assert result.err.index(" WARNING [") < result.err.index("first\n") < result.err.index("second\n")


@pytest.mark.sandbox
def test_lines_held_for_a_read_only_folder_are_written_when_it_can_be_written(tree):
    tree.app("writer", """
return { main = function()
  local function exists(name) local f = io.open(name) if f then f:close() end return f end
  dom0:Log("warning", "while read-only")
  print("held") io.stdout:flush()
  while not exists(arg[1]) do dom0:Wait("never", 0.02) end
  dom0:Log("warning", "while writable")
  return 0
end }""")
    os.mkdir(tree.work, 0o700)
    mount_tmpfs(tree.work, b"size=64k,mode=700")
    try:
        subprocess.run(["mount", "-i", "-n", "-o", "remount,ro", tree.work], check=True)
        process = tree.start("--", tree.file("writable"), name="writer", stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        assert process.stdout.readline() == b"held\n"
        subprocess.run(["mount", "-i", "-n", "-o", "remount,rw", tree.work], check=True)
        tree.file("writable", "")
        _, err = process.communicate(timeout=PATIENCE)
        log = tree.log("writer")
    finally:
        unmount(tree.work)
    assert process.returncode == 0
    assert 0 <= log.find("while read-only\n") < log.find("while writable\n")
    assert err.count(b"\n") == 1 and b"Read-only file system" in err


def test_lines_of_a_bad_command_line_go_to_standard_error(tree):
    result = tree.run("--no_such_option")
    assert result.status != 0
    assert "no_such_option" in result.err
    assert not os.path.exists(tree.work)


def test_every_line_that_starts_with_a_time_starts_a_record(tree):
    tree.app("writer", """
return { main = function()
  dom0:Log("warning", "first\\nsecond\\r\\nthird\\rfourth\\n\\n")
  dom0:Log("info", "2026-01-31 10:20:30 ERROR [1/main] within a text\\n2026-01-31 10:20:30 ERROR [1/main] forged")
  dom0:Log("info", "bell \\7, escape \\27, zero \\0, grüß")
  return 0
end }""")
    result = tree.run(name="writer")
    lines = result.log.split("\n")
    at = next(index for index, line in enumerate(lines) if line.endswith("] first"))
    assert lines[at + 1:at + 4] == ["    second", "    third", "    fourth"]
    assert RECORD.match(lines[at + 4]) and lines[at + 4].endswith("] 2026-01-31 10:20:30 ERROR [1/main] within a text")
    assert lines[at + 5] == "    2026-01-31 10:20:30 ERROR [1/main] forged"
    assert lines[at + 6].endswith("bell \\x07, escape \\x1B, zero \\x00, grüß")
    assert lines[at + 7:] == [""]


def test_lines_of_workers_bear_their_names_and_never_mix(tree):
    tree.app("writer", """
return { main = function()
  local crew = {}
  for number = 1, 20 do crew[number] = dom0:StartThread("scribe", number) end
  for _, worker in ipairs(crew) do worker:Join() end
  return 0
end }""")
    tree.file("scribe.lua", """
return { run = function(id)
  for number = 1, 100 do dom0:Log("info", ("line w%d-%d-end"):format(id, number)) end
end }""")
    settings(tree, "writer", app_log_size=8192, app_log_count=10000)
    assert tree.run(name="writer").status == 0
    lines = log_lines(tree, "writer")
    assert not pieces(lines)
    found = numbers_by_tag(lines)
    assert len(found) == 20 and all(numbers == list(range(1, 101)) for numbers in found.values())
    assert sum("/worker scribe] line" in line for line in lines) == 2000


def test_only_so_many_rotated_files_are_kept(tree):
    tree.app("writer", WRITER)
    settings(tree, "writer", app_log_size=4096, app_log_count=3)
    assert tree.run("--", "a", "500", name="writer").status == 0
    assert [os.path.basename(path) for path in log_files(tree, "writer")] == [
        "writer.log.3", "writer.log.2", "writer.log.1", "writer.log"]
    assert all(os.path.getsize(path) <= 4096 for path in log_files(tree, "writer"))
    kept = numbers_by_tag(log_lines(tree, "writer"))["a"]
    assert kept == list(range(kept[0], 501))
