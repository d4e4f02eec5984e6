"""vexctl config and check-config: which settings count, where they come from, and what is wrong with them."""
import os
import shutil

import pytest

import conftest
from ctl import ctl, objects, state_of

FAULTY = """[settings]
vex.HeartbeatInterval = 60 ; a minute
app.log.size = 1K
app.logcount = 3
vex.Plugin.x = on
"""


def settings(tree, *arguments, **options):
    return {found["key"]: found for found in objects("config", ctl(tree, "config", "--json", *arguments, **options).out)}


@pytest.mark.quick
@pytest.mark.fast
def test_without_any_file_the_defaults_are_in_force(tree):
    assert ctl(tree, "config", "app.log.", "vex.Heart").out == (
        "KEY                    VALUE             FROM\n"
        "app.log.count          5 files           default\n"
        "app.log.size           10485760 bytes    default\n"
        "app.log.syslog         off               default\n"
        "app.log.syslog.level   info              default\n"
        "vex.HeartbeatInterval  60 seconds        default\n"
        "vex.HeartbeatKeepDays  30 days           default\n"
        "vex.HeartbeatKeepRows  50000 heartbeats  default\n")
    assert not os.path.exists(tree.work)
    assert ctl(tree, "check-config").out == "0 errors and 0 warnings in 0 files\n"


@pytest.mark.sandbox
def test_each_setting_tells_the_file_and_line_that_it_comes_from(tree, etc):
    system = etc("vx_agent.conf", "Trace = Appl\n[settings]\n!app.log.count = 1\napp.log.size = 1M\n")
    dropin = etc("vx_agent.d/10.conf", "[settings]\napp.log.size = 2M\nvex.Plugin.net = on\nnet.Device = eth0\n")
    local = tree.file("work/vx_agent.ini", "[settings]\napp.log.count = 9\nvex.CollectInterval = 2m\n")
    before = state_of(tree.work)
    found = settings(tree)
    assert found["app.log.count"] == {"schema": 1, "key": "app.log.count", "value": 1, "unit": "files", "origin": "file", "file": system,
                                      "line": 3, "help": "rotated log files that are kept"}
    assert [(found[key]["value"], found[key]["file"], found[key]["line"])
            for key in ("app.log.size", "vex.CollectInterval", "vex.Plugin.net", "net.Device", "Trace")] == [
        (2097152, dropin, 2), (120, local, 3), (True, dropin, 3), ("eth0", dropin, 4), ("Appl", system, 1)]
    assert found["app.path.ini"]["value"] == local and found["app.path.ini"]["origin"] == "domain"
    assert found["app.lua.cache"] == {"schema": 1, "key": "app.lua.cache", "value": True, "origin": "default",
                                      "help": "whether compiled chunks are kept between runs"}
    assert "default" not in {setting["origin"] for setting in settings(tree, "--changed").values()}
    assert settings(tree, "-d", "app.log.count=4")["app.log.count"]["origin"] == "domain"
    assert state_of(tree.work) == before


@pytest.mark.sandbox
def test_what_config_shows_is_what_the_agent_takes(tree, etc):
    etc("probe.d/10.conf", "[settings]\napp.log.size = 3M\n")
    tree.file("work/probe.ini", FAULTY)
    tree.app("probe", """
local settings = require("vex.settings")
return { main = function()
  for _, key in ipairs({ "vex.HeartbeatInterval", "app.log.size", "app.log.count" }) do print(key, settings.int(key)) end
  return 0
end }""")
    taken = dict(line.split("\t") for line in tree.run(name="probe").out.splitlines() if "\t" in line)
    assert len(taken) == 3
    shown = settings(tree, "--name", "probe")
    assert {key: str(shown[key]["value"]) for key in taken} == taken


@pytest.mark.fast
def test_each_fault_is_told_with_its_place_and_what_counts_instead(tree):
    path = tree.file("work/vx_agent.ini", FAULTY)
    lines = [
        f"error: {path}:2: the setting 'vex.HeartbeatInterval' cannot be '60 ; a minute': a comment stands on a line of its own; "
        "used: 60 seconds",
        f"warning: {path}:3: the setting 'app.log.size' cannot be '1K': it must be a whole number of bytes from 4096 on, or one with K, M, G "
        "or T behind it; used: 4096 bytes",
        f"warning: {path}:4: there is no setting 'app.logcount'; did you mean 'app.log.count'?",
        "1 error and 2 warnings in 1 file"]
    assert ctl(tree, "check-config", status=2).out.splitlines() == lines
    found = objects("check-config", ctl(tree, "check-config", "--json", status=2).out)
    assert found[0] == {"schema": 1, "level": "error", "fault": "comment", "file": path, "line": 2, "key": "vex.HeartbeatInterval",
                        "value": "60 ; a minute", "used": "60 seconds", "text": lines[0].removeprefix("error: ")}
    assert [(fault["fault"], fault.get("nearest")) for fault in found] == [
        ("comment", None), ("out-of-range", None), ("unknown", "app.log.count")]


@pytest.mark.parametrize("content, status", [
    ("", 0), ("[settings]\nvex.Plugin.x = on\nown.Key = 1\n", 0), ("[setings]\n", 1), ("[settings]\napp.log.count = 0\n", 1),
    ("[settings]\napp.path.work = /x\n", 1), ("[settings]\na = 1\na = 2\n", 1), ("[settings]\napp.log.count = many\n", 2),
    ("[settings]\nno entry\n", 2), ("; " + "x" * (4 << 20), 2)],
    ids=["empty", "right", "group", "range", "place", "twice", "no number", "no entry", "too large"])
def test_the_status_tells_how_grave_it_is(tree, content, status):
    tree.file("work/vx_agent.ini", content)
    ctl(tree, "check-config", status=status)
    objects("check-config", ctl(tree, "check-config", "--json", status=status).out)


def test_a_variable_of_the_command_line_is_judged_as_well(tree):
    assert ctl(tree, "check-config", "-d", "app.log.count=x", status=2).out.splitlines()[0] == (
        "error: in the domain: the setting 'app.log.count' cannot be 'x': it must be a whole number of files from 1 to 10000; used: 5 files")
    for wrong in ("x", "=x", ""):
        assert "KEY=VALUE is wanted" in ctl(tree, "check-config", "-d", wrong, status=2).err


def test_a_file_that_trips_the_framework_is_read_on(tree):
    tree.file("work/vx_agent.ini", "[settings]\nown.Key = \"x\" y\n[broken\nown.Other = ${\n")
    assert settings(tree)["own.Key"]["value"] == "x y"
    assert ctl(tree, "check-config", status=2).err == ""


def test_control_characters_in_a_file_reach_no_terminal(tree):
    tree.file("work/vx_agent.ini", "[settings]\nvex.\x1b[2J = 1\nown.Key = \x1b]0;x\x07\n")
    for arguments in (["config"], ["config", "--json"]):
        assert "\x1b" not in ctl(tree, *arguments).out
    for arguments in (["check-config"], ["check-config", "--json"]):
        assert "\x1b" not in ctl(tree, *arguments, status=1).out


@pytest.mark.sandbox
def test_what_a_user_may_not_read_is_named(tree):
    conftest.require_ordinary_user()
    os.makedirs("/opt/agent", 0o700)
    path = "/opt/agent/vx_agent.ini"
    with open(path, "w", encoding="utf-8") as file:
        file.write("[settings]\napp.log.count = 7\n")
    copy = shutil.copy(os.path.join(tree.path, "vexctl"), "/opt/vexctl")  # the tree lies where only root may look
    stranger = {"user": conftest.ORDINARY_USER, "executable": copy, "status": 2}
    shown = ctl(tree, "--workdir", "/opt/agent", "config", "app.log.count", **stranger)
    assert shown.err == f"vexctl: {path}: permission denied; what it says is not shown\n"
    assert "5 files" in shown.out
    checked = ctl(tree, "--workdir", "/opt/agent", "check-config", **stranger)
    assert checked.err == f"vexctl: {path}: permission denied; it is not checked\n"
    assert checked.out == "0 errors and 0 warnings in 0 files\n"
