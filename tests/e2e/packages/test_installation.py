"""The life of an installation by dpkg, in a root folder of the test's own, where no service manager runs: what an upgrade under a
running agent, a downgrade, a removal and a purge leave."""
import hashlib
import os
import signal
import sqlite3
import sys

import pytest

from conftest import BUILD_NUMBER, ROOT, SANITIZED, VERSION, alive, mount_tmpfs, send_signal, unmount, wait_until
from debian_package import DEB_VERSION, another, made_once, with_other_files
from private_root import PrivateRoot

sys.path.insert(0, os.path.join(ROOT, "tests", "e2e", "plugins"))
from packages import with_zipfile  # noqa: E402 pylint: disable=wrong-import-position,import-error

pytestmark = [pytest.mark.sandbox, pytest.mark.skipif(SANITIZED, reason="packages are made of the release alone")]

TREE, WORK = "/opt/Halvorn/vx_agent", "/var/lib/vx_agent"
# One beat and one collection of the guest a start, however long a busy machine takes for what comes then.
START = (TREE + "/vx_agent", "--background", "--install_plugins", "--extdir", "ext", "--plugins", "network,trend,guest", "--workdir", WORK,
         "--domain_var", "vex.HeartbeatInterval=1h")
GUEST = """return { name = "Guest", version = "1.2", interval = 3600, collect = function(dom)
  dom:AgentEvent{ number = 7, severity = 5, text = "collected by " .. require("vex.host").pid() } return { one = 1 }
end }
"""


@pytest.fixture(name="debs", scope="module")
def _debs(tmp_path_factory):
    return made_once(tmp_path_factory)


@pytest.fixture(name="newer", scope="module")
def _newer(debs, tmp_path_factory):
    return another(debs["vx-agent"], tmp_path_factory.mktemp("newer") / "newer.deb", DEB_VERSION + "1", with_other_files)


@pytest.fixture(name="root")
def _root(tmp_path):
    if os.geteuid() != 0:
        pytest.skip("NOT ROOT: installing a package is not tested")
    made = PrivateRoot(str(tmp_path))
    yield made
    made.end()


def rows(root, database, query):
    connection = sqlite3.connect(f"file:{root.file(WORK)}/{database}?mode=ro", uri=True)
    try:
        return connection.execute(query).fetchall()
    except sqlite3.OperationalError:
        return []
    finally:
        connection.close()


def events(root):
    """Those of the guest."""
    return [text for text, in rows(root, "events.db", "SELECT text FROM agent_event WHERE number = 7 ORDER BY id")]


def beats(root):
    return rows(root, "plugins/vx_agent/heartbeat.db", "SELECT count(*) FROM heartbeat")[0][0]


def start(root):
    """Starts the agent by hand and waits until each plugin and the heartbeat have done their work once."""
    before = len(events(root)) if os.path.exists(root.file(WORK + "/events.db")) else 0
    started = root.run(*START)
    assert (started.returncode, started.stdout) == (0, "")
    wait_until(root.child, what="the child")
    wait_until(lambda: os.path.exists(root.file(WORK + "/events.db")) and len(events(root)) > before, what="the plugin's event")
    wait_until(lambda: f"[{root.child()}/worker vx_agent.heartbeat] Heartbeat " in log(root), what="a beat")
    return root.supervisor(), root.child()


def stop(supervisor):
    send_signal(supervisor, signal.SIGTERM)
    wait_until(lambda: not alive(supervisor), what="the end of the supervisor")


def log(root):
    with open(root.file(WORK + "/vx_agent.log"), encoding="utf-8") as file:
        return file.read()


def sum_of(path):
    with open(path, "rb") as file:
        return hashlib.sha256(file.read()).hexdigest()


def mapped(pid):
    """The sums of the files that a process has mapped from the tree, by their names: of those it has, whatever lies there by now."""
    found = {}
    for part in os.listdir(f"/proc/{pid}/map_files"):
        name = os.readlink(f"/proc/{pid}/map_files/{part}").removesuffix(" (deleted)")
        if TREE in name:
            found[name.partition(TREE)[2]] = sum_of(f"/proc/{pid}/map_files/{part}")
    return found


def put_guest(root):
    with_zipfile(root.file(f"{TREE}/Agent-Guest-Linux-{VERSION}-{BUILD_NUMBER}.x86_64.vxp"), {"guest/plugin.lua": GUEST})


@pytest.mark.quick
def test_an_installation_has_all_that_a_report_needs_and_its_folders_are_roots(root, debs):
    root.dpkg("-i", root.copy(debs["vx-agent"]))
    assert root.status("vx-agent") == "ii"
    report = root.run(TREE + "/vx_agent", "--extdir", "ext", "--plugins", "network,trend", "--workdir", WORK)
    assert report.returncode == 0 and "\nPlugin Network 1.0.0\n" in report.stdout and "\nPlugin Trend 1.0.0\n" in report.stdout
    assert "failed:" not in report.stdout
    assert root.run("id", "-un", "vx_agent").stdout == "vx_agent\n"
    assert root.run("stat", "-c", "%U:%G %a", TREE, TREE + "/vx_agent", WORK).stdout == "root:root 755\nroot:root 755\nroot:root 700\n"
    assert root.run("dpkg", "--verify", "vx-agent").stdout == ""


def test_an_upgrade_under_a_running_agent_leaves_it_its_files_and_keeps_all_that_it_knows(root, debs, newer):
    root.dpkg("-i", root.copy(debs["vx-agent"]))
    put_guest(root)
    supervisor, child = start(root)
    old = mapped(child)
    assert set(old) == {"/vx_agent", "/lib/vex_core.so", "/lib/libSLB3.so"}
    with open(root.file("/etc/vx_agent.conf"), "a", encoding="utf-8") as file:
        file.write("Trace = none\n")
    root.dpkg("-i", root.copy(newer))
    # The running agent has what it had, and the tree has what the package brought.
    assert mapped(child) == mapped(supervisor) == old and root.child() == child
    assert {name: sum_of(root.file(TREE + name)) for name in old}.items() & old.items() == set()
    assert beats(root) == 1 and len(events(root)) == 1
    stop(supervisor)
    assert "Child process exited with status 0" in log(root) and "crashed" not in log(root)
    again, successor = start(root)
    assert {name: sum_of(root.file(TREE + name)) for name in old} == mapped(successor)
    assert events(root) == [f"collected by {child}", f"collected by {successor}"] and beats(root) == 2
    assert log(root).count("plugin Guest 1.2 loaded") == 2
    with open(root.file("/etc/vx_agent.conf"), encoding="utf-8") as file:
        assert file.read().endswith("Trace = none\n")
    stop(again)


@pytest.mark.patient
def test_a_downgrade_after_a_crash_finds_what_the_newer_version_left(root, debs, newer):
    root.dpkg("-i", root.copy(newer))
    put_guest(root)
    supervisor, child = start(root)
    send_signal(child, signal.SIGSEGV)
    wait_until(lambda: root.child() not in (0, child), what="the next child")
    stop(supervisor)
    assert root.run("dpkg-query", "-W", "-f", "${Version}", "vx-agent").stdout == DEB_VERSION + "1"
    root.dpkg("-i", root.copy(debs["vx-agent"]))
    assert root.run("dpkg-query", "-W", "-f", "${Version}", "vx-agent").stdout == DEB_VERSION
    known = len(events(root))
    supervisor, child = start(root)
    assert events(root)[:known] + [f"collected by {child}"] == events(root)[:known + 1] and beats(root) >= 2
    assert [name for name in os.listdir(root.file(WORK + "/plugins/diag")) if name.endswith(".mdmp")]
    stop(supervisor)


@pytest.mark.patient
def test_a_purge_empties_a_mount_point_and_deletes_the_rest(root, debs):
    root.dpkg("-i", root.copy(debs["vx-agent"]))
    os.makedirs(root.file(WORK), exist_ok=True)
    mount_tmpfs(root.file(WORK))
    try:
        with open(root.file(WORK + "/vx_agent.log"), "w", encoding="utf-8") as file:
            file.write("a line\n")
        said = root.dpkg("-P", "vx-agent")
        assert f"rm: cannot remove '{WORK}': Device or resource busy" in said
        assert os.listdir(root.file(WORK)) == [] and not os.path.exists(root.file("/opt/Halvorn"))
        assert "vx-agent" not in root.run("dpkg-query", "-W", "-f", "${Package}\n").stdout.split()
    finally:
        unmount(root.file(WORK))


@pytest.mark.patient
def test_a_person_of_the_users_name_is_told(root, debs):
    assert root.run("useradd", "--uid", "1234", "vx_agent").returncode == 0
    done = root.run("dpkg", "--force-unsafe-io", "-i", root.copy(debs["vx-agent"]))
    assert done.returncode != 0
    assert "vx-agent: the system user vx_agent cannot be made. Where a person has that name, give that account another\n" \
        "(usermod --login, groupmod --new-name), then go on with: dpkg --configure vx-agent\n" in done.stdout
    assert root.run("usermod", "--login", "somebody", "vx_agent").returncode == 0
    assert root.run("groupmod", "--new-name", "somebody", "vx_agent").returncode == 0
    root.dpkg("--configure", "vx-agent")
    assert root.status("vx-agent") == "ii"


@pytest.mark.patient
def test_a_removal_keeps_what_was_gathered_and_a_purge_does_not(root, debs):
    root.dpkg("-i", root.copy(debs["vx-agent"]))
    put_guest(root)
    stop(start(root)[0])
    root.dpkg("-r", "vx-agent")
    assert root.status("vx-agent") == "rc"
    assert not os.path.exists(root.file(TREE + "/vx_agent")) and not os.path.exists(root.file("/lib/systemd/system/vx_agent.service"))
    for kept in (WORK + "/events.db", WORK + "/vx_agent.log", TREE + "/guest/plugin.lua", "/etc/vx_agent.conf"):
        assert os.path.exists(root.file(kept)), kept
    # Installed again it goes on where it was.
    root.dpkg("-i", root.copy(debs["vx-agent"]))
    stop(start(root)[0])
    assert len(events(root)) == 2 and beats(root) == 2
    root.dpkg("-P", "vx-agent")
    for gone in (WORK, "/opt/Halvorn", "/etc/vx_agent.conf", "/etc/vx_agent.d", "/usr/share/doc/vx-agent"):
        assert not os.path.exists(root.file(gone)), gone
