"""The folder that docs/METRICS.md has collectors read, made by its commands: under both shipped units another user gets the figures."""
import os
import re

import pytest

from conftest import ROOT, SANITIZED, wait_until
from booted_machine import WORK, machine_with

pytestmark = [pytest.mark.sandbox, pytest.mark.skipif(SANITIZED, reason="the shipped tree is what a service manager runs")]
READ = ("setpriv", "--reuid=nobody", "--regid=daemon", "--clear-groups", "cat", "/srv/vx_agent-out/vx_agent.prom")


def commands():
    with open(os.path.join(ROOT, "docs/METRICS.md"), encoding="utf-8") as file:
        section = re.search(r"^## Who may read them$(.*?)^## ", file.read(), re.M | re.S)[1]
    found = re.search(r"(?:^    .*\n)+", section, re.M)[0]
    assert found.count(" prometheus ") == 1 and found.count(" root ") == 1
    return found


_machine = machine_with("\n[Service]\nReadWritePaths=/srv/vx_agent-out\n")


def test_a_collector_of_another_user_reads_what_a_caged_agent_writes(machine):
    added = machine.run("useradd", "--system", "--user-group", "--no-create-home", "--shell", "/usr/sbin/nologin", "vx_agent")
    assert added.returncode == 0, added.stdout
    for user, unit in (("root", "vx_agent"), ("vx_agent", "vx_agent-unprivileged")):
        machine.write("commands", "set -e\n" + commands().replace(" prometheus ", " daemon ").replace(" root ", f" {user} "))
        made = machine.run("sh", "-c", f"rm -rf /srv/vx_agent-out {WORK} && install -d -o {user} -m 700 {WORK} && sh /shared/commands")
        assert made.returncode == 0, made.stdout
        assert machine.systemctl("start", unit).stdout == ""
        wait_until(lambda: "\nvex_up 1\n" in machine.run(*READ).stdout, what="figures for a reader of the group")
        assert "Files for collectors" not in machine.log()
        assert machine.systemctl("stop", unit).stdout == ""
