"""What a real rsyslog makes of the log, by the configurations of packaging/fleet, record by record."""
import datetime
import os
import re
import shutil
import signal
import socket
import subprocess
import threading

import pytest

from conftest import PATIENCE, ROOT, send_signal, wait_until
from own_dev import OwnDev

pytestmark = [pytest.mark.sandbox, pytest.mark.skipif(not shutil.which("rsyslogd"), reason="NO RSYSLOG here: tools/setup --wide installs it")]

SEVERITIES = {"FATAL": "crit", "ERROR": "err", "WARNING": "warning", "MESSAGE": "notice", "INFO": "info", "DEBUG": "debug", "TRACE": "debug"}
NUMBERS = {"crit": 2, "err": 3, "warning": 4, "notice": 5, "info": 6, "debug": 7}
START = re.compile(r"^(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d) (([A-Z]+) \[(\d+)/[^\]]*\] )", re.MULTILINE)

APPLICATION = """
return { main = function()
  for _, level in ipairs{"error", "warning", "info", "debug"} do dom0:Log(level, level .. " line") end
  dom0:Log("info", "first\\nsecond\\tafter a tab, grüß")
  dom0:Log("info", ("x"):rep(7000))
  dom0:Log("warning", "the last but one")
  dom0:Log("info", "the last")
  return 0
end }"""


def records_of(log):
    """Of each record of the log file: time, severity, pid, and the text as rsyslog shows it."""
    starts = [*START.finditer(log)]
    ends = [*(each.start() for each in starts[1:]), len(log)]
    return [(start[1], SEVERITIES[start[3]], start[4], log[start.start(2):end].rstrip("\n").replace("\n", "#012"))
            for start, end in zip(starts, ends)]


class Rsyslog:
    """An rsyslogd of the test's own: `name`s of packaging/fleet/rsyslog with other places in them, and nothing of the machine's."""

    def __init__(self, folder, names, places, inputs=""):
        self._folder = str(folder)
        os.makedirs(self._folder + "/spool")
        text = f'global(workDirectory="{self._folder}/spool")\n{inputs}\n'
        for name in names:
            with open(os.path.join(ROOT, "packaging/fleet/rsyslog", name), encoding="utf-8") as file:
                part = file.read()
            for old, new in places.items():
                part = part.replace(old, new)
            text += part
        with open(self._folder + "/main.conf", "w", encoding="utf-8") as file:
            file.write(text)
        checked = subprocess.run([*self._command(), "-N1"], stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
        assert checked.returncode == 0 and "error" not in checked.stderr, checked.stderr
        self._process = subprocess.Popen([*self._command(), "-n"], stdin=subprocess.DEVNULL)

    def _command(self):
        return ["rsyslogd", "-f", self._folder + "/main.conf", "-i", self._folder + "/pid"]

    def close(self):
        if self._process.poll() is None:
            send_signal(self._process.pid, signal.SIGTERM)
        assert self._process.wait(PATIENCE) == 0


def lines_in(path):
    if not os.path.exists(path):
        return []
    with open(path, encoding="utf-8") as file:
        return file.read().split("\n")[:-1]


class Collector:
    """Takes RFC 5424 by TCP, counted by octets, on the loopback."""

    def __init__(self):
        self.records = []
        self._socket = socket.create_server(("127.0.0.1", 0))
        self.port = self._socket.getsockname()[1]
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        connection, _ = self._socket.accept()
        with connection, connection.makefile("rb") as stream:
            count = b""
            while byte := stream.read(1):
                if byte == b" ":
                    self.records.append(stream.read(int(count)).decode())
                    count = b""
                else:
                    count += byte

    def close(self):
        self._socket.close()


@pytest.fixture
def dev(tmp_path):
    made = OwnDev(tmp_path / "dev")
    yield made
    made.close()


def test_the_local_socket_gives_it_severities_times_and_processes_and_it_passes_them_on(tree, dev, tmp_path):
    tree.app("writer", APPLICATION)
    tree.file("work/writer.ini", "[settings]\napp.log.syslog = local5\napp.log.syslog.level = trace\n")
    out = str(tmp_path / "out")
    collector = Collector()
    places = {'"vx_agent"': '"writer"', "/var/log/vx_agent-all.log": out, "collector.example": "127.0.0.1",
              '"6514"': f'"{collector.port}"'}
    rsyslog = Rsyslog(tmp_path / "rsyslog", ("vx_agent-forward.conf", "vx_agent.conf"), places,
                      'module(load="imuxsock" SysSock.Name="/dev/log")')
    try:
        wait_until(lambda: os.path.exists("/dev/log"), what="rsyslog's socket")
        begin = datetime.datetime.now(datetime.timezone.utc)
        log = tree.run(name="writer").log
        written = [record for record in records_of(log) if "/log] The system log has not taken " not in record[3]]
        # A queue of datagrams is short, and the machine may be busy: then the log tells how many it has alone.
        alone = sum(map(int, re.findall(r"/log\] The system log (?:takes lines again, |has not taken )(\d+) ", log)))
        count = len(written) - alone
        assert count >= 5
        wait_until(lambda: len(lines_in(out)) >= count and len(collector.records) >= count, what="all records")
        end = datetime.datetime.now(datetime.timezone.utc)
    finally:
        rsyslog.close()
        collector.close()
    expected = [(severity, pid, text.replace("\t", "#011")) for _, severity, pid, text in written]
    kept = [re.fullmatch(r"(\S+) \S+ local5\.(\w+) writer\[(\d+)\]: (.*)", line).groups() for line in lines_in(out)]
    assert len(kept) == count
    following = iter(expected)
    assert all(record[1:] in following for record in kept), "each is there, in the file's order"
    for time, *_ in kept:
        assert begin <= datetime.datetime.fromisoformat(time) <= end and re.search(r"\.\d{6}", time)
    passed = [re.fullmatch(r"<(\d+)>1 (\S+) \S+ writer (\d+) - -  (.*)\n", record).groups() for record in collector.records]
    assert [(time, priority, pid, text) for priority, time, pid, text in passed] == [
        (time, str(21 * 8 + NUMBERS[severity]), pid, text) for time, severity, pid, text in kept]


def test_the_file_gives_it_all_but_the_last_record_before_a_rotation(tree, tmp_path):
    tree.app("writer", APPLICATION)
    work = tmp_path / "work"
    work.mkdir(mode=0o700)
    (work / "writer.ini").write_text("[settings]\napp.log.size = 20000\n")
    file = work / "writer.log"
    out = str(tmp_path / "out")
    places = {"/var/lib/vx_agent/vx_agent.log": str(file), "/var/log/vx_agent-all.log": out, " vx_agent ": " writer "}

    doubtful = []  # rsyslog waits for the begin of the next record, which is in another file

    def arrived():
        lines = lines_in(out)
        return lines and lines[-1].endswith(expected[-1][3]) and f" {expected[-1][2]} - - " in lines[-1]

    def run():
        """What a run adds to the log, whose file it may rotate once."""
        before = file.read_text() if file.exists() else ""
        assert tree.run("--workdir", str(work), name="writer").status == 0
        after = file.read_text()
        if after.startswith(before):
            return after[len(before):]
        rotated = (work / "writer.log.1").read_text()[len(before):]
        doubtful.append(records_of(rotated)[-1])
        return rotated + after

    expected = records_of(run())
    rsyslog = Rsyslog(tmp_path / "rsyslog", ("vx_agent-file.conf",), places)
    try:
        for _ in range(3):
            wait_until(arrived, what="the last record")
            expected += records_of(run())
        wait_until(arrived, what="the last record")
        assert (work / "writer.log.1").exists(), "it has rotated"
    finally:
        rsyslog.close()
    kept = [re.fullmatch(r"<(\d+)>1 (\S+)T(\S+)([+-]\d\d:\d\d) \S+ writer (\d+) - - (.*)", line).groups() for line in lines_in(out)]
    found = [(f"{date} {time}", int(priority), pid, text) for priority, date, time, _, pid, text in kept]
    expected = [(record, (record[0], 128 + NUMBERS[record[1]], *record[2:])) for record in expected]
    assert found == [shown for record, shown in expected if record not in doubtful or shown in found]
