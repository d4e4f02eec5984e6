"""vexctl bundle: what goes into the archive, and what does not."""
import json
import os
import re
import subprocess
import tarfile

import pytest

import conftest
from ctl import checked, ctl, seen_on_terminal, state_of, with_events

LOG = "2026-01-31 10:20:30 INFO [100/main] vx_agent 10.0.0.1, host agent, process 100\n2026-01-31 10:20:31 WARNING [100/main] login with password=hunter2\n"


def with_work(tree):
    with_events(tree, [(1_700_000_000_000, 7, 4, "token: hunter2"), (1_700_000_001_000, 8, 5, "second")])
    tree.file("work/vx_agent.log", LOG)
    tree.file("work/vx_agent.ini", "[settings]\napp.log.size = 5000\ndb.password = hunter2 ; and hunter2\n")
    tree.file("work/plugins/diag/vx_agent.mdmp", b"hunter2" * 100)


def contents(path):
    """What is in an archive, by name; all of it lies in one folder."""
    with tarfile.open(path, "r:gz") as archive:
        members = archive.getmembers()
        assert all(member.isreg() and member.mode == 0o600 for member in members)
        folder, = {member.name.partition("/")[0] for member in members}
        found = {member.name[len(folder) + 1:]: archive.extractfile(member).read().decode("utf-8") for member in members}
    assert len(found) == len(members)
    return folder, found


@pytest.mark.fast
@pytest.mark.quick
def test_a_bundle_has_what_a_case_needs_without_its_secrets(tree, tmp_path):
    with_work(tree)
    before = state_of(tree.work)
    path = str(tmp_path / "case.tar.gz")
    result = ctl(tree, "bundle", "-o", path)
    assert state_of(tree.work) == before
    assert os.stat(path).st_mode & 0o7777 == 0o600
    folder, found = contents(path)
    assert re.fullmatch(r"vx_agent-support-\d{8}T\d{6}Z", folder)
    settings, = [name for name in found if name.startswith("settings/") and name.endswith("vx_agent.ini")]
    assert set(found) >= {"README.txt", "status.json", "report.json", "report.html", "log.txt", "events.jsonl", "heartbeats.jsonl", "crashes.jsonl",
                          "versions.json", "work-folder.txt", "installed.txt"}
    assert not [name for name, text in found.items() if "hunter2" in text]
    assert found["log.txt"] == LOG.replace("hunter2", "***")
    assert found[settings] == "[settings]\napp.log.size = 5000\ndb.password = ***\n"
    assert [json.loads(line)["text"] for line in found["events.jsonl"].splitlines()] == ["token: ***", "second"]
    checked("status", found["status.json"])
    checked("report", found["report.json"])
    checked("events", found["events.jsonl"].splitlines()[0])
    checked("crashes", found["crashes.jsonl"])
    assert json.loads(found["versions.json"])["agents"] == ["10.0.0.1"]
    assert f"{tree.work}/events.db" in found["work-folder.txt"] and f"{tree.path}/lib/vex_core.so" in found["installed.txt"]
    shown = result.out.splitlines()
    assert shown[0].split() == ["FILE", "SIZE", "WHAT", "IT", "HOLDS"] and {re.split("  +", line)[0] for line in shown[1:len(found) + 1]} == set(found)
    assert shown[-1].startswith(f"{path} has ") and all(name in found["README.txt"] for name in found if name != "README.txt")
    unpacked = subprocess.run(["tar", "-tzf", path], capture_output=True, text=True, check=True)
    assert len(unpacked.stdout.splitlines()) == len(found) and unpacked.stderr == ""


def test_dumps_come_when_they_are_asked_for_and_the_list_is_an_object(tree, tmp_path):
    with_work(tree)
    path = tmp_path / "case.tar.gz"
    told = checked("bundle", ctl(tree, "bundle", "--dumps", "--json", "-o", str(path)).out)
    _, found = contents(path)
    assert found["dumps/vx_agent.mdmp"] == "hunter2" * 100
    assert told["file"] == str(path) and told["bytes"] == path.stat().st_size
    assert {entry["name"]: entry["bytes"] for entry in told["files"]} == {name: len(text.encode()) for name, text in found.items()}
    ctl(tree, "bundle", "--json", cwd=tmp_path)
    assert len([name for name in os.listdir(tmp_path) if re.fullmatch(r"vx_agent-support-\d{8}T\d{6}Z\.tar\.gz", name)]) == 1


def test_what_cannot_be_read_is_told_and_the_rest_is_there(tree, tmp_path):
    for name in ("vx_agent.log", "events.db", "plugins/vx_agent/heartbeat.db", "vx_agent.ini"):
        os.makedirs(os.path.join(tree.work, name))
    os.unlink(os.path.join(tree.path, "vx_agent"))
    path = str(tmp_path / "case.tar.gz")
    result = ctl(tree, "bundle", "-o", path)
    _, found = contents(path)
    for name in ("vx_agent.log", "events.db", "heartbeat.db", "vx_agent.ini"):
        assert re.search(rf"^vexctl: .*{name} is no regular file", result.err, re.M), name
        assert name in found["README.txt"]
    assert "Unable to run" in result.err and "report.json" not in found and "report.html" in found


@pytest.mark.sandbox
def test_a_full_disk_and_a_pipe_that_closes_leave_no_half_file(tree):
    with_work(tree)
    os.mkdir("/opt/disk")
    conftest.mount_tmpfs("/opt/disk", b"size=4k,mode=755")
    try:
        assert "No space left on device" in ctl(tree, "bundle", "-o", "/opt/disk/case.tar.gz", status=2).err
        assert os.listdir("/opt/disk") == []
    finally:
        conftest.unmount("/opt/disk")
    result = subprocess.run(["bash", "-o", "pipefail", "-c", f'"{tree.path}/vexctl" bundle -o /opt/case.tar.gz | true'], capture_output=True,
                            timeout=conftest.PATIENCE, check=False)
    assert (result.returncode, result.stderr) == (0, b"")
    assert len(contents("/opt/case.tar.gz")[1]) > 10


def test_a_terminal_sees_what_is_looked_at(tree, tmp_path):
    with_work(tree)
    shown = seen_on_terminal(tree, "bundle", "-o", str(tmp_path / "case.tar.gz"))
    assert "looking at the report ..." in shown and shown.endswith("\r\x1b[K")
