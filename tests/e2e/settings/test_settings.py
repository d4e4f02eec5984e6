"""Settings as an operator meets them: which file wins, and what a start says about what is wrong in one."""
import os
import pty
import re
import shutil

import pytest

from conftest import PATIENCE, all_that_is_shown, wait_until

SHOW = """
local settings = require("vex.settings")
return { main = function()
  for _, key in ipairs({ "vex.HeartbeatInterval", "vex.CollectInterval", "app.log.count", "app.log.size", "app.events.keepdays" }) do
    print(key .. "=" .. settings.int(key))
  end
  return 0
end }"""
FAULTY = """[setings]
vex.CollectInterval = 5

[settings]
vex.HeartbeatInterval = 60 ; a minute
app.log.size = 10M
app.logcount = 3
"""


def told(log):
    """Warnings and errors, as (process, text) without those of a stop."""
    return [(process, text) for process, text in
            re.findall(r"^\d{4}-\S+ \S+ (?:WARNING|ERROR) \[(\d+)/[^\]]*\] (.*)$", log, re.M)
            if not text.startswith(("sigwait(): caught signal", "Waiting for child process interrupted"))]


def faults_of(path):
    return [f"{path}:1: the group [setings] counts for nothing; did you mean [settings]?",
            f"{path}:5: the setting 'vex.HeartbeatInterval' cannot be '60 ; a minute': a comment stands on a line of its own; "
            "used: 60 seconds",
            f"{path}:7: there is no setting 'app.logcount'; did you mean 'app.log.count'?"]


@pytest.mark.quick
@pytest.mark.fast
@pytest.mark.parametrize("content", ["", "[settings]\nvex.HeartbeatInterval = 1h\napp.log.size = 1M\nvex.Plugin.x = off\nown.Key=1\n"])
def test_a_start_says_nothing_about_settings_that_are_right(tree, content):
    tree.app("probe", SHOW)
    tree.file("work/probe.ini", content)
    result = tree.run(name="probe")
    assert (result.status, result.err, told(result.log)) == (0, "", [])


def test_a_start_in_the_foreground_tells_each_fault_once_in_the_log(tree):
    tree.app("probe", SHOW)
    path = tree.file("work/probe.ini", FAULTY)
    result = tree.run(name="probe")
    assert result.status == 0 and result.err == ""
    assert [text for _, text in told(result.log)] == faults_of(path)
    assert "vex.HeartbeatInterval=60\nvex.CollectInterval=300\napp.log.count=5\napp.log.size=10485760\n" in result.out


def test_an_operator_at_a_terminal_sees_the_faults_there(tree):
    tree.app("probe", SHOW)
    path = tree.file("work/probe.ini", FAULTY)
    ours, theirs = pty.openpty()
    process = tree.start(name="probe", stderr=theirs, stdout=theirs)
    os.close(theirs)
    shown = all_that_is_shown(ours).decode()
    os.close(ours)
    assert process.wait(PATIENCE) == 0
    for fault in faults_of(path):
        assert shown.count(fault) == 1, shown


@pytest.mark.sandbox
def test_a_start_in_the_background_tells_each_fault_once_and_not_again_in_the_child(tree):
    path = tree.file("work/vx_agent.ini", FAULTY)
    supervisor, child = tree.background()
    wait_until(lambda: "Heartbeat 1 " in tree.log(), what="the first beat")
    tree.stop(supervisor)
    assert [text for _, text in told(tree.log())] == faults_of(path)
    assert not {int(process) for process, _ in told(tree.log())} & {supervisor, child}


@pytest.mark.sandbox
def test_the_local_file_wins_then_the_last_drop_in_then_the_systems_file_unless_it_says_otherwise(tree, etc):
    tree.app("probe", SHOW)
    etc("probe.conf", "[settings]\n!app.log.count=1\napp.log.size=1M\napp.events.keepdays=1\nvex.HeartbeatInterval=1\n")
    etc("probe.d/10-package.conf", "[settings]\napp.log.count=2\napp.log.size=2M\nvex.HeartbeatInterval=2\nvex.CollectInterval=2\n")
    etc("probe.d/20-site.conf", "[settings]\nvex.HeartbeatInterval=3\nvex.CollectInterval=3\n")
    etc("probe.d/30-site.conf.old", "[settings]\nvex.CollectInterval=4\n")
    tree.file("work/probe.ini", "[settings]\napp.log.count=9\nvex.CollectInterval=9\n")
    result = tree.run(name="probe")
    assert result.out == ("vex.HeartbeatInterval=3\nvex.CollectInterval=9\napp.log.count=1\napp.log.size=2097152\n"
                          "app.events.keepdays=1\n")
    assert [text for _, text in told(result.log)] == [
        f"file '{tree.work}/probe.ini', line 2: value for immutable key 'app.log.count' ignored."]


@pytest.mark.sandbox
def test_what_is_wrong_in_a_drop_in_is_told_by_the_agent_alone(tree, etc):
    tree.app("probe", SHOW)
    path = etc("probe.d/10.conf", "Trace = Appl\n[settings]\nno entry\napp.log.count=1\napp.log.count=many\n")
    result = tree.run(name="probe")
    assert [text for _, text in told(result.log)] == [
        f"{path}:1: 'Trace' counts for nothing here: only the local and the system's own file have it",
        f"{path}:3: the line is no entry, group or comment",
        f"{path}:4: 'app.log.count' counts for nothing here: it stands in line 5 too",
        f"{path}:5: the setting 'app.log.count' cannot be 'many': it must be a whole number of files from 1 to 10000; used: 5 files"]


@pytest.mark.sandbox
def test_drop_ins_that_cannot_be_read_are_told_and_what_to_do(tree, etc):
    tree.app("probe", SHOW)
    path = etc("probe.d/10.conf", "[settings]\napp.log.count=7\n")
    os.rename(path, path + ".d")
    os.mkdir(path)
    result = tree.run(name="probe")
    assert "app.log.count=5\n" in result.out
    assert [text for _, text in told(result.log)] == [f"'{path}' is not used, because it is no regular file: take it away"]
    shutil.rmtree("/etc/probe.d")
    etc("probe.d", "[settings]\napp.log.count=7\n")
    result = tree.run(name="probe")
    assert "app.log.count=5\n" in result.out
    assert [text for _, text in told(result.log)][1:] == [
        "'/etc/probe.d' cannot be read (Not a directory), so nothing in it counts: let the agent's user read it, or take it away"]


@pytest.mark.sandbox
def test_a_package_enables_its_plugin_with_a_drop_in(tree, etc):
    tree.file("Good/plugin.lua", "return { name = 'Good', version = '1', collect = function() return { answer = 42 } end }")
    etc("vx_agent.d/50-good.conf", "[settings]\nvex.Plugin.Good = on\n")
    assert "Plugin Good 1\n  answer  42\n" in tree.run().out
    tree.file("work/vx_agent.ini", "[settings]\nvex.Plugin.Good = off\n")
    assert "Plugin Good" not in tree.run().out


def test_a_faulty_free_variable_is_told_as_one_of_the_domain(tree):
    tree.app("probe", SHOW)
    result = tree.run("--domain_var", "vex.HeartbeatInterval=0", name="probe")
    assert [text for _, text in told(result.log)] == [
        "in the domain: the setting 'vex.HeartbeatInterval' cannot be '0': it must be a whole number of seconds from 1 on, or one "
        "with s, m, h or d behind it; used: 60 seconds"]
