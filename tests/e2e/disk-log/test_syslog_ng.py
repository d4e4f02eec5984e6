"""What a real syslog-ng makes of the log, by the configuration of packaging/fleet, record by record. Debian installs one logger at a time,
and the other tests have rsyslog: where it is not installed, VEX_SYSLOG_NG names a folder into which `dpkg -x` has unpacked syslog-ng-core."""
import datetime
import os
import re
import shutil
import signal
import subprocess

import pytest

from conftest import PATIENCE, ROOT, send_signal, wait_until
from own_dev import OwnDev
from test_rsyslog import APPLICATION, NUMBERS, SEVERITIES, START, Collector

UNPACKED = os.environ.get("VEX_SYSLOG_NG", "")
LIBRARIES = UNPACKED + "/usr/lib/syslog-ng"
COMMAND = [UNPACKED + "/usr/sbin/syslog-ng", "--module-path", LIBRARIES + "/3.38"] if UNPACKED else ["syslog-ng"]
ENVIRONMENT = {**os.environ, "LD_LIBRARY_PATH": LIBRARIES} if UNPACKED else None
pytestmark = [pytest.mark.sandbox, pytest.mark.skipif(not shutil.which(COMMAND[0]),
                                                      reason="NO SYSLOG-NG here: nobody but its grammar has seen its configuration")]
LINE = re.compile(r"^(\S+) \S+ local5\.(\w+) writer\[(\d+)\]: ((?:TRACE|DEBUG|INFO|MESSAGE|WARNING|ERROR|FATAL) \[.*)$")


@pytest.fixture(name="dev")
def _dev(tmp_path):
    made = OwnDev(tmp_path / "dev")
    yield made
    made.close()


class SyslogNg:
    def __init__(self, folder, places):
        self._folder = str(folder)
        os.makedirs(self._folder)
        with open(os.path.join(ROOT, "packaging/fleet/syslog-ng/vx_agent.conf"), encoding="utf-8") as file:
            text = file.read()
        for old, new in places.items():
            assert old in text, old
            text = text.replace(old, new)
        with open(self._folder + "/main.conf", "w", encoding="utf-8") as file:
            file.write('@version: 3.38\nsource s_src { unix-dgram("/dev/log"); };\n' + text)
        checked = subprocess.run([*COMMAND, "--syntax-only", "--cfgfile", self._folder + "/main.conf"], stdin=subprocess.DEVNULL,
                                      capture_output=True, text=True, check=False, env=ENVIRONMENT)
        assert checked.returncode == 0, checked.stderr
        self._process = subprocess.Popen(
            [*COMMAND, "--foreground", "--no-caps", "--cfgfile", self._folder + "/main.conf", "--persist-file", self._folder + "/persist",
             "--control", self._folder + "/control", "--pidfile", self._folder + "/pid"], stdin=subprocess.DEVNULL, env=ENVIRONMENT)

    def close(self):
        if self._process.poll() is None:
            send_signal(self._process.pid, signal.SIGTERM)
        assert self._process.wait(PATIENCE) == 0


def records_in(path):
    """Of each record: time, severity, pid, text. The lines behind the first of a record begin with a tabulator."""
    if not os.path.exists(path):
        return []
    with open(path, encoding="utf-8") as file:
        text = file.read().replace("\n\t", "\0")
    return [tuple(part.replace("\0", "\n") for part in LINE.match(line).groups()) for line in text.split("\n")[:-1]]


def test_file_and_collector_have_it_with_severities_times_and_processes(tree, dev, tmp_path):
    tree.app("writer", APPLICATION)
    tree.file("work/writer.ini", "[settings]\napp.log.syslog = local5\napp.log.syslog.level = trace\n")
    out = str(tmp_path / "out")
    collector = Collector()
    logger = SyslogNg(tmp_path / "syslog-ng", {
        '"vx_agent"': '"writer"', "/var/log/vx_agent-all.log": out, "collector.example": "127.0.0.1", "port(6514)": f"port({collector.port})",
        "disk-buffer(": f'disk-buffer(dir("{tmp_path}/syslog-ng") '})
    try:
        wait_until(lambda: os.path.exists("/dev/log"), what="syslog-ng's socket")
        log = tree.run(name="writer").log
        starts = [*START.finditer(log)]
        written = [(start[1], SEVERITIES[start[3]], start[4], log[start.start(2):end].rstrip()) for start, end in
                   zip(starts, [*(each.start() for each in starts[1:]), len(log)])]
        written = [record for record in written if "/log] The system log has not taken " not in record[3]]
        # A queue of datagrams is short, and the machine may be busy: then the log tells how many it has alone.
        alone = sum(map(int, re.findall(r"/log\] The system log (?:takes lines again, |has not taken )(\d+) ", log)))
        count = len(written) - alone
        assert count >= 5
        wait_until(lambda: len(records_in(out)) >= count and len(collector.records) >= count, what="all records")
    finally:
        logger.close()
        collector.close()
    kept = [(datetime.datetime.fromisoformat(time).strftime("%Y-%m-%d %H:%M:%S"), *others) for time, *others in records_in(out)]
    assert len(kept) == count
    following = iter(written)
    assert all((*record[:3], record[3].rstrip()) in following for record in kept), "each is there, in the file's order"
    passed = [re.fullmatch(r'<(\d+)>1 (\S+) \S+ writer (\d+) - \[meta sequenceId="(\d+)"\] (.*)\n', record, re.S).groups()
              for record in collector.records]
    assert [(datetime.datetime.fromisoformat(time).strftime("%Y-%m-%d %H:%M:%S"), *others) for _, time, *others in passed] == [
        (time, pid, str(number), text) for number, (time, _, pid, text) in enumerate(kept, 1)]
    assert [int(priority) for priority, *_ in passed] == [21 * 8 + NUMBERS[severity] for _, severity, *_ in kept]
