"""Facts about the host where the system does not tell them, as in a jail without /proc: they are absent, and nothing is zero instead."""
import json
import os
import sqlite3
import sys

import pytest

from conftest import SANITIZED
from test_bundled_application import install

pytestmark = [pytest.mark.sandbox, pytest.mark.skipif(SANITIZED, reason="a sanitizer reads its own process in /proc")]


def run_without_proc(tree, *arguments, **options):
    """A run with an empty folder over /proc, where the system's loader does not know any more where the executable lies."""
    hide = ["unshare", "--mount", "sh", "-c", 'mount -t tmpfs none /proc && exec "$@"', "sh"]
    return tree.run(*arguments, prefix=hide, env={"LD_LIBRARY_PATH": tree.path + "/lib"}, **options)


def test_what_the_system_hides_is_absent(tree):
    arguments = install(tree, "Network", "Trend")
    shown = json.loads(tree.run(*arguments, "--", "--json").out)
    result = run_without_proc(tree, *arguments, "--", "--json")
    assert (result.status, result.err) == (0, "")
    hidden = json.loads(result.out)
    assert set(shown) - set(hidden) == {"disks"}
    assert set(shown["memory"]) - set(hidden["memory"]) == {"available"}
    for fact in ("host", "system", "kernel", "architecture", "processors"):
        assert hidden[fact] == shown[fact]
    network, trend = (plugin["values"] for plugin in hidden["plugins"])
    assert network == {}
    # What is not known in this sample does not count in the figures of the day.
    assert trend["samples"] == 2
    assert trend["memory_available"] == shown["plugins"][1]["values"]["memory_available"]
    database = sqlite3.connect(tree.work + "/plugins/trend/samples.db")
    assert database.execute("SELECT memory_available, disk_available FROM sample ORDER BY id DESC LIMIT 1").fetchone() \
        == (None, None)
    database.close()


def test_the_table_has_no_line_for_what_is_hidden(tree):
    result = run_without_proc(tree)
    assert result.status == 0, result.err
    rows = dict(line.split(None, 1) for line in result.out.splitlines())
    assert "Host" in rows and "Disks" not in rows
    assert rows["Memory"].endswith(" free")


def test_a_beat_without_the_facts_is_a_row_without_them(tree):
    tree.app("probe", """
return { main = function()
  local worker = dom0:StartThread("vx_agent.heartbeat")
  repeat
    dom0:Wait("never", 0.1)
    local file = io.open(dom0:Get("app.path.work") .. "/probe.log")
  until file and file:read("*a"):find("Heartbeat 1 ", 1, true)
  worker:Stop()
  worker:Join()
  return 0
end }""")
    result = run_without_proc(tree, "--zippath", "vex_core/vx_agent.vxe", name="probe")
    assert result.status == 0, result.err
    database = sqlite3.connect(os.path.join(tree.work, "plugins", "vx_agent", "heartbeat.db"))
    assert database.execute("SELECT memory_available FROM heartbeat").fetchall() == [(None,)]
    database.close()
    assert "Heartbeat 1 (start): up " in result.log and "memory" not in result.log.partition("Heartbeat 1 (start)")[2].splitlines()[0]


NO_MACHINE_ID = 'for file in /etc/machine-id /var/lib/dbus/machine-id; do [ ! -e $file ] || mount --bind /dev/null $file; done; exec "$@"'


def test_without_an_id_of_the_system_the_host_gets_one_that_it_keeps(tree):
    def report():
        result = tree.run("--", "--json", prefix=["unshare", "--mount", "sh", "-c", NO_MACHINE_ID, "sh"])
        assert (result.status, result.err) == (0, "")
        return json.loads(result.out)["host_id"]

    first = report()
    path = tree.work + "/host.id"
    with open(path) as file:
        assert file.read() == first + "\n" and len(first) == 32
    assert os.stat(path).st_mode & 0o7777 == 0o600
    assert report() == first
    with open(path, "w") as file:
        file.write("no id")
    second = report()
    assert len(second) == 32 and second != first and report() == second
    log = tree.log()
    assert log.count(" WARNING ") == log.count(f"'{path}' held no id of the host, which has another one now\n") == 1
    assert [name for name in os.listdir(tree.work) if name.startswith("host.id")] == ["host.id"]


NAMELESS = """
import ctypes, os, subprocess, sys
assert ctypes.CDLL(None).sethostname(b"", 0) == 0
subprocess.run(["mount", "--bind", sys.argv[1], "/etc/os-release"], check=True)
os.execv(sys.argv[2], sys.argv[2:])
"""


def test_names_that_the_system_leaves_empty_are_absent(tree):
    release = tree.file("os-release", 'NAME=x\nPRETTY_NAME=""\n')
    shown = json.loads(tree.run("--", "--json").out)
    result = tree.run("--", "--json", prefix=["unshare", "--mount", "--uts", sys.executable, "-c", NAMELESS, release])
    assert result.status == 0, result.err
    hidden = json.loads(result.out)
    assert set(shown) - set(hidden) == {"host"}
    assert hidden["system"] == os.uname().sysname
