"""The unit that has the events of an agent in a file for collectors, under a real systemd."""
import json
import os
import shutil

import pytest

from conftest import ROOT, SANITIZED, wait_until
from booted_machine import INSTALLED, WITH_SHARED_MODULES, machine_with

pytestmark = [pytest.mark.sandbox, pytest.mark.skipif(SANITIZED, reason="the shipped tree is what a service manager runs")]

READER = "vx_agent-events.service"
EVENTS = "/var/lib/vx_agent-events/events.json"
APPLICATION = 'return { main = function() dom0:AgentEvent{ number = 7, severity = 5, text = "main" } return 0 end }'
_machine = machine_with(WITH_SHARED_MODULES)


def keys(machine):
    """Those of the events in the file, in its order."""
    lines = machine.run("cat", EVENTS).stdout.splitlines() if machine.run("test", "-e", EVENTS).returncode == 0 else []
    found = []
    for line in lines:
        record = json.loads(line)["resourceLogs"][0]["scopeLogs"][0]["logRecords"][0]
        assert record["body"] == {"stringValue": "main"}
        found += [one["value"]["stringValue"] for one in record["attributes"] if one["key"] == "event.key"]
    return found


@pytest.mark.patient
def test_each_event_is_there_once_across_restarts_of_both_sides(machine):
    machine.write("vx_agent.lua", APPLICATION)
    shutil.copy(os.path.join(ROOT, "packaging/fleet/opentelemetry", READER), machine.shared)
    assert machine.run("ln", "-sf", INSTALLED + "/vexctl", "/usr/bin/vexctl").returncode == 0
    assert machine.run("cp", "/shared/" + READER, "/etc/systemd/system/").returncode == 0
    # Before there is anything to read.
    assert machine.systemctl("daemon-reload").stdout == machine.systemctl("start", READER).stdout == ""
    assert machine.systemctl("start", "vx_agent").stdout == ""
    wait_until(lambda: len(keys(machine)) == 1, what="the first event")
    machine.systemctl("stop", READER)
    assert machine.systemctl("restart", "vx_agent").stdout == ""
    machine.systemctl("start", READER)
    wait_until(lambda: len(keys(machine)) == 2, what="the second event")
    assert machine.systemctl("restart", "vx_agent").stdout == ""
    wait_until(lambda: len(keys(machine)) == 3, what="the third event")
    machine.systemctl("stop", READER)
    assert len(set(keys(machine))) == 3
    assert machine.run("stat", "-c", "%a", EVENTS, os.path.dirname(EVENTS)).stdout == "640\n750\n"
