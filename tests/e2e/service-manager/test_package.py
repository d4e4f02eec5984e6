"""The package under a real systemd: the service through installation, upgrade, crash, downgrade, removal and purge."""
import os
import re
import shutil

import pytest

from conftest import SANITIZED, wait_until
from debian_package import DEB_VERSION, another, made_once, with_other_files
from booted_machine import INSTALLED, WORK, machine_with

pytestmark = [pytest.mark.sandbox, pytest.mark.skipif(SANITIZED, reason="packages are made of the release alone")]


@pytest.fixture(name="debs", scope="module")
def _debs(tmp_path_factory):
    return made_once(tmp_path_factory)


_machine = machine_with("", installed=False)


def dpkg(machine, *words):
    done = machine.run("env", "DEBIAN_FRONTEND=noninteractive", "dpkg", "--force-unsafe-io", *words)
    assert done.returncode == 0, done.stdout
    return done.stdout


def beats(machine):
    """The first one of each start; others follow by the clock."""
    return len(re.findall(r"/worker vx_agent\.heartbeat\] Heartbeat \d+ \(start\)", machine.log()))


def at_work(machine, beat):
    """Waits until the service runs and has made so many beats; its supervisor and child."""
    wait_until(lambda: machine.state() == ("active", "running", "success") and beats(machine) == beat, what=f"beat {beat}")
    return machine.processes()


def install(machine, package, beat):
    dpkg(machine, "-i", "/shared/" + package)
    return at_work(machine, beat)


@pytest.mark.patient
def test_the_service_lives_through_all_that_dpkg_does(machine, debs, tmp_path):
    shutil.copy(debs["vx-agent"], os.path.join(machine.shared, "agent.deb"))
    another(debs["vx-agent"], os.path.join(machine.shared, "newer.deb"), DEB_VERSION + "1", with_other_files)
    first, _ = install(machine, "agent.deb", 1)
    assert machine.systemctl("is-enabled", "vx_agent").stdout == "enabled\n"
    assert machine.systemctl("is-enabled", "vx_agent-unprivileged").stdout == "disabled\n"
    for plugin in ("Network", "Trend"):
        assert f"plugin {plugin} 1.0.0 loaded" in machine.log()
    # More often than the unit may be started in an hour: each upgrade is a start that counts anew.
    number = 1
    for package in ("newer.deb", "agent.deb", "newer.deb", "agent.deb"):
        number += 1
        supervisor, child = install(machine, package, number)
        assert supervisor != first and machine.log().count("Child process exited with status 0") == number - 1
        first = supervisor
    machine.signal(child, "SEGV")
    wait_until(lambda: beats(machine) == number + 1, what="the next child's beat")
    assert machine.run("ls", f"{WORK}/plugins/diag/vx_agent.mdmp").returncode == 0
    assert machine.processes()[0] == supervisor
    install(machine, "newer.deb", number + 2)
    dpkg(machine, "-r", "vx-agent")
    assert machine.systemctl("is-active", "vx_agent").stdout == "inactive\n" and machine.pid_file() == 0
    assert machine.log().count("Child process exited with status 0") == number + 1
    assert machine.run("test", "-e", INSTALLED).returncode == 1
    install(machine, "agent.deb", number + 3)
    dpkg(machine, "-P", "vx-agent")
    assert machine.run("test", "-e", WORK).returncode == 1 and machine.run("test", "-e", "/opt/Halvorn").returncode == 1
    assert machine.systemctl("is-enabled", "vx_agent").returncode != 0
    journal = machine.journal()
    assert "Failed" not in journal.partition("Starting vx_agent.service")[2], journal


@pytest.mark.patient
def test_an_upgrade_starts_only_what_ran_and_tells_a_start_that_fails(machine, debs):
    shutil.copy(debs["vx-agent"], os.path.join(machine.shared, "agent.deb"))
    another(debs["vx-agent"], os.path.join(machine.shared, "newer.deb"), DEB_VERSION + "1", with_other_files)
    install(machine, "agent.deb", 1)
    assert machine.systemctl("stop", "vx_agent").returncode == 0
    dpkg(machine, "-i", "/shared/agent.deb")
    assert machine.systemctl("is-active", "vx_agent").stdout == "inactive\n"
    assert machine.systemctl("is-enabled", "vx_agent").stdout == "enabled\n"
    assert machine.systemctl("disable", "vx_agent").returncode == 0
    assert machine.systemctl("enable", "--now", "vx_agent-unprivileged").returncode == 0
    wait_until(lambda: beats(machine) == 2, what="the other unit's beat")
    dpkg(machine, "-i", "/shared/newer.deb")
    wait_until(lambda: beats(machine) == 3, what="the beat after the upgrade")
    assert machine.systemctl("is-active", "vx_agent").stdout == "inactive\n"
    assert machine.systemctl("is-enabled", "vx_agent").stdout == "disabled\n"
    assert machine.systemctl("is-active", "vx_agent-unprivileged").stdout == "active\n"
    machine.write("broken.conf", "[Service]\nExecStart=\nExecStart=/usr/bin/false\n")
    assert machine.run("cp", "/shared/broken.conf", "/etc/systemd/system/vx_agent-unprivileged.service.d/").returncode == 0
    assert "Job for vx_agent-unprivileged.service failed" in dpkg(machine, "-i", "/shared/agent.deb")
