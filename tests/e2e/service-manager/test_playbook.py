"""The playbook of packaging/fleet under a real systemd: a version that does goes to a host, one that does not goes back, and the waves
behind it do not begin."""
import os
import shutil

import pytest

from conftest import ROOT, SANITIZED
from debian_package import DEB_VERSION, another, made_once, with_other_files
from booted_machine import INSTALLED, Machine
from repository import FOLDER, Repository

pytestmark = [pytest.mark.sandbox, pytest.mark.skipif(SANITIZED, reason="packages are made of the release alone")]

# Of the machine that the tests run on it sees the system's files, and what is put into the folder that both see.
PLAYBOOK = "/shared/ansible/rollout.yml"
NEWER, BAD = DEB_VERSION + "1", DEB_VERSION + "2"
# Two hosts of one machine: the first wave is the first of them.
HOSTS = "[vx_agent]\nfirst\nsecond\n[vx_agent:vars]\nansible_connection=local\nansible_python_interpreter=/usr/bin/python3\n"


@pytest.fixture(name="debs", scope="module")
def _debs(tmp_path_factory):
    return made_once(tmp_path_factory)


@pytest.fixture(name="machine")
def _machine(tmp_path):
    if shutil.which("ansible-playbook") is None:
        pytest.skip("NO ANSIBLE HERE (tools/packages-wide.txt names it): the playbook is not tested")
    booted = Machine(str(tmp_path), "", installed=False)
    shutil.copytree(os.path.join(ROOT, "packaging/fleet/ansible"), os.path.join(booted.shared, "ansible"))
    booted.write("hosts", HOSTS)
    yield booted
    booted.end()


@pytest.fixture(name="repository")
def _repository(machine, debs, tmp_path):
    for place in ("/etc/apt", "/var/lib/apt", "/var/cache/apt"):
        assert machine.run("mount", "-t", "tmpfs", "tmpfs", place).returncode == 0
    # Where the repository is given packages.
    assert machine.run("mount", "--bind", "/shared", "/tmp").returncode == 0
    made = Repository(machine.run, machine.shared)
    made.add(another(debs["vx-agent"], tmp_path / "newer.deb", NEWER, with_other_files), NEWER)
    made.add(another(debs["vx-agent"], tmp_path / "bad.deb", BAD, whose_agent_ends), BAD)
    return made


def whose_agent_ends(folder):
    """A moment later than at once: of one that has ended before its pid file is read systemd waits a minute and a half to hear."""
    tree = folder + INSTALLED
    os.unlink(os.path.join(tree, "vex_core/vx_agent.vxe"))
    with open(os.path.join(tree, "vx_agent.lua"), "w", encoding="ascii") as file:
        file.write('return { main = function() dom0:Wait("never", 2) return 2 end }\n')


def play(repository, version, **others):
    """Status, output and the tasks that each host went through."""
    values = {"vx_agent_version": version, "vx_agent_key": FOLDER + "/vx-agent.asc", "vx_agent_uri": "file:" + FOLDER,
              "vx_agent_suite": "canary", **others}
    words = " ".join(f"-e {name}={value}" for name, value in values.items())
    status, output = repository.try_shell(f"ansible-playbook -i /shared/hosts {words} {PLAYBOOK}", timeout=500)
    ran = {line.split()[0] for line in output.partition("PLAY RECAP")[2].splitlines() if " ok=" in line}
    return status, output, ran


@pytest.mark.slow
@pytest.mark.patient
def test_the_playbook_goes_on_while_hosts_are_well_and_takes_the_first_back_that_is_not(machine, repository):
    # The host has no agent yet, and the version is not the newest one.
    status, output, ran = play(repository, NEWER, vx_agent_settings="!Trace=none")
    assert status == 0 and ran == {"first", "second"}, output
    assert repository.version() == "ii " + NEWER
    assert repository.shell("cat /etc/vx_agent.d/50-fleet.conf") == "!Trace=none"
    supervisor, _ = machine.processes()
    # The first wave is the last one.
    status, output, ran = play(repository, BAD, vx_agent_patience="4s")
    assert status == 2 and ran == {"first"} and f"vx-agent {BAD} is not well here: 'Wait for a heartbeat' failed." in output, output
    assert repository.version() == "hi " + NEWER
    assert repository.page("a look").startswith("VEX OK") and machine.processes()[0] not in (0, supervisor)


@pytest.mark.patient
def test_the_playbook_asks_for_what_it_cannot_know(machine):
    done = machine.run("env", "HOME=/root", "LANG=C.UTF-8", "ansible-playbook", "-i", "/shared/hosts", PLAYBOOK)
    assert done.returncode == 2 and "set vx_agent_version (10.0.0-4016), vx_agent_key" in done.stdout, done.stdout
