"""What a real journald has of the log of an agent that systemd runs, in its cage, record by record."""
import json
import os
import re
import sys

import pytest

from conftest import ROOT, SANITIZED, wait_until
from booted_machine import WITH_SHARED_MODULES, machine_with

sys.path.insert(0, os.path.join(ROOT, "tests", "e2e", "disk-log"))
from test_system_log import LOCAL0, records_of  # noqa: E402 pylint: disable=wrong-import-position,import-error

pytestmark = [pytest.mark.sandbox, pytest.mark.skipif(SANITIZED, reason="the shipped tree is what a service manager runs")]

APPLICATION = """
return { main = function()
  for _, level in ipairs{"error", "warning", "info", "debug"} do dom0:Log(level, level .. " line") end
  dom0:Log("info", "two\\nlines, a tab\\t, grüß")
  dom0:Log("info", ("x"):rep(7000))
  dom0:Log("info", "the last")
  return 0
end }"""
_machine = machine_with(WITH_SHARED_MODULES)


def process_of(record):
    return record[2]


def test_the_journal_has_the_log_with_severities_times_and_processes(machine):
    machine.write("vx_agent.lua", APPLICATION)
    machine.write("50-syslog.conf", "[settings]\napp.log.syslog = local0\napp.log.syslog.level = trace\n")
    assert machine.run("install", "-D", "-m", "644", "/shared/50-syslog.conf", "/etc/vx_agent.d/50-syslog.conf").returncode == 0
    assert machine.systemctl("start", "vx_agent").stdout == ""
    wait_until(lambda: "] the last\n" in machine.log(), what="the last line")
    supervisor, child = machine.processes()
    assert machine.systemctl("stop", "vx_agent").stdout == ""
    log = machine.log()
    assert machine.run("journalctl", "--sync").returncode == 0
    entries = [json.loads(line) for line in machine.run("journalctl", "--output=json", "--all", "--identifier=vx_agent").stdout.splitlines()]

    # A queue of datagrams is short, and the machine may be busy: then the log tells how many it has alone.
    # Blanks at the end of a record journald leaves out.
    written = [(header, text.rstrip(), pid) for header, text, pid in records_of(log) if "/log] The system log has not taken " not in text]
    alone = sum(map(int, re.findall(r"/log\] The system log (?:takes lines again, |has not taken )(\d+) ", log)))
    found = []
    for entry in entries:
        message = entry["MESSAGE"] if isinstance(entry["MESSAGE"], str) else bytes(entry["MESSAGE"]).decode()
        month, day, clock = entry["SYSLOG_TIMESTAMP"].split()
        header = (int(entry["SYSLOG_FACILITY"]) * 8 + int(entry["PRIORITY"]), month, int(day), clock)
        found.append((header, message, int(entry["SYSLOG_PID"])))
    # Two processes that log at the same moment may come to the file and to the journal in different orders.
    following = iter(sorted(written, key=process_of))
    assert all(record in following for record in sorted(found, key=process_of)), "each is there, in the order of the file"
    assert len(found) == len(written) - alone and len(found) >= 5
    assert {entry["_SYSTEMD_UNIT"] for entry in entries} == {"vx_agent.service"}
    assert {pid for _, _, pid in found} >= {supervisor, child}
    assert {priority - LOCAL0 * 8 for (priority, *_), *_ in found} >= {3, 4, 6, 7}
