"""vexctl status and wait on real agents, through all that an agent's life has, and on what is no agent."""
import os
import shutil
import signal
import time

import pytest

import conftest
from conftest import BUILD_NUMBER, VERSION, children, send_signal, wait_until
from ctl import checked, ctl, quiet_state_of, state_of


def status_of(tree, status, *arguments, **options):
    return checked("status", ctl(tree, *arguments, "status", "--json", status=status, **options).out)


@pytest.mark.sandbox
@pytest.mark.quick
@pytest.mark.fast
def test_a_running_agent_is_told_with_its_processes_its_heartbeat_and_its_version(tree):
    supervisor, child = tree.background("--domain_var", "vex.HeartbeatInterval=3600")
    ctl(tree, "wait", "heartbeat")
    before = quiet_state_of(tree.work, supervisor, child)
    told = status_of(tree, 0)
    assert (told["schema"], told["name"], told["state"], told["starting"], told["stopping"]) == (1, "vx_agent", "running", False, False)
    assert (told["supervisor"]["pid"], told["child"]["pid"]) == (supervisor, child)
    assert told["restarts"] == {"count": 0, "complete": True}
    assert told["heartbeat"]["reason"] == "start" and told["heartbeat"]["age_seconds"] < 60
    assert told["version"] == told["vexctl_version"] == f"{VERSION}.{BUILD_NUMBER}"
    assert told["work_folder"] == tree.work
    assert "problems" not in told and "last_end" not in told and "last_error" not in told

    text = ctl(tree, "status").out
    assert text.startswith("vx_agent: running\n")
    assert f"supervisor  pid {supervisor}, since " in text and f"child       pid {child}, since " in text
    assert "\x1b" not in text
    assert state_of(tree.work) == before
    tree.stop(supervisor)


@pytest.mark.sandbox
def test_an_agent_with_a_run_folder_of_its_own_is_found_from_outside(tree, tmp_path):
    # As the units of systemd have it: BindPaths=/run/vx_agent:/run, and the work folder elsewhere.
    os.mkdir("/run/vx_agent")
    os.mkdir(tmp_path / "state", 0o700)
    waiting = tree.start("wait", "heartbeat", name="vexctl")
    with open("/run/vx_agent.pid.lock", "w"):  # left by an agent that was once started by hand
        pass
    caged = ["unshare", "--mount", "sh", "-c", 'mount --bind /run/vx_agent /run && exec "$@"', "sh"]
    assert tree.run("--background", "--workdir", str(tmp_path / "state"), prefix=caged).status == 0
    assert waiting.wait(conftest.PATIENCE) == 0
    told = status_of(tree, 0)
    with open("/run/vx_agent/vx_agent.pid") as file:
        supervisor = int(file.readline())
    assert told["supervisor"]["pid"] == supervisor and told["work_folder"] == str(tmp_path / "state")
    tree.stop(supervisor)
    assert status_of(tree, 3)["state"] == "stopped"


@pytest.mark.sandbox
def test_a_restart_is_counted_and_its_cause_told(tree):
    supervisor, child = tree.background()
    ctl(tree, "wait", "heartbeat")
    send_signal(child, signal.SIGKILL)
    wait_until(lambda: children(supervisor) and children(supervisor) != [child], what="the next child")
    ctl(tree, "wait", "heartbeat", "--timeout", "30s")
    told = status_of(tree, 0)
    assert told["restarts"] == {"count": 1, "complete": True}
    assert told["last_end"]["signal"] == 9 and not told["last_end"]["crashed"]
    assert told["child"]["pid"] == children(supervisor)[0]
    warned = ctl(tree, "status", "--nagios", status=1).out
    assert warned.startswith("VEX WARNING - vx_agent is running for ") and " restarts=1;1;5;0" in warned
    ctl(tree, "status", "--nagios", "--restarts-warning", "2", status=0)
    assert ctl(tree, "status", "--nagios", "--restarts-critical", "1", status=2).out.startswith("VEX CRITICAL - ")
    tree.stop(supervisor)


@pytest.mark.sandbox
def test_one_line_for_monitoring_has_thresholds_and_performance_data(tree):
    assert ctl(tree, "status", "--nagios", status=2).out == "VEX CRITICAL - vx_agent is stopped, there is no /var/run/vx_agent.pid\n"
    supervisor, _ = tree.background()
    ctl(tree, "wait", "heartbeat")
    line = ctl(tree, "status", "--nagios").out
    assert line.startswith("VEX OK - vx_agent is running for ") and line.count("\n") == 1
    data = line.rpartition("|")[2].split()
    assert [part.split("=")[0] for part in data] == ["uptime", "restarts", "heartbeat_age"]
    assert data[2].endswith("s;180;600;0")
    old = ctl(tree, "status", "--nagios", "--heartbeat-warning", "0s", status=1).out
    assert old.startswith("VEX WARNING - ") and ";0;600;0" in old
    tree.stop(supervisor)


@pytest.mark.sandbox
def test_the_statuses_are_those_of_an_init_script(tree):
    assert ctl(tree, "status", status=3).out.startswith("vx_agent: stopped, there is no /var/run/vx_agent.pid\n")
    supervisor, child = tree.background()
    ctl(tree, "wait", "running")
    send_signal(supervisor, signal.SIGKILL)
    wait_until(lambda: not conftest.alive(child), what="the child's end")
    told = status_of(tree, 1)
    assert (told["state"], told["reason"]) == ("dead", "/var/run/vx_agent.pid is there, and names no process that runs")
    ctl(tree, "wait", "stopped")


@pytest.mark.sandbox
@pytest.mark.parametrize("content", [b"", b"nonsense", b"1\n", b"\xff" * 500])
def test_a_pid_file_that_names_nobody_is_that_of_a_dead_agent(tree, content):
    with open("/var/run/vx_agent.pid", "wb") as file:
        file.write(content)
    assert status_of(tree, 1)["state"] == "dead"


@pytest.mark.sandbox
def test_a_stranger_in_the_pid_file_is_no_agent(tree):
    supervisor, _ = tree.background()
    ctl(tree, "wait", "running")
    tree.stop(supervisor)
    ctl(tree, "wait", "stopped")
    with open("/var/run/vx_agent.pid", "w") as file:
        file.write(f"{os.getpid()}\n")
    told = status_of(tree, 1)
    assert told["reason"] == f"/var/run/vx_agent.pid names process {os.getpid()}, which is no agent"


@pytest.mark.sandbox
def test_an_agent_without_a_pid_file_is_found_by_its_locks(tree):
    supervisor, child = tree.background()
    ctl(tree, "wait", "running")
    os.unlink("/var/run/vx_agent.pid")
    told = status_of(tree, 0, "--workdir", tree.work)
    assert (told["supervisor"]["pid"], told["child"]["pid"]) == (supervisor, child)
    assert told["reason"] == "/var/run/vx_agent.pid is not there or names somebody else"
    tree.stop(supervisor)


@pytest.mark.sandbox
def test_a_child_that_is_still_ending_is_told(tree):
    tree.app("slow", """
local M = {}
function M.init() return 0 end
function M.main() return 0 end
function M.shutdown() while not io.open(dom0:Get("app.path.work") .. "/go") do os.execute("sleep 0.1") end return 0 end
return M
""")
    supervisor, child = tree.background(name="slow")
    ctl(tree, "--name", "slow", "wait", "running")
    send_signal(supervisor, signal.SIGTERM)
    wait_until(lambda: not os.path.exists("/var/run/slow.pid"), what="the stop")
    told = status_of(tree, 0, "--name", "slow")
    assert told["stopping"] and told["child"]["pid"] == child
    assert ctl(tree, "--name", "slow", "wait", "stopped", "--timeout", "1s", status=1).err.startswith("vexctl: slow is not stopped after 1s")
    with open(os.path.join(tree.work, "go"), "w"):
        pass
    ctl(tree, "--name", "slow", "wait", "stopped")
    # Stopped is an agent whose child has ended; its supervisor has that yet to tell.
    wait_until(lambda: not conftest.alive(supervisor), what="the end of the supervisor")
    assert status_of(tree, 3, "--name", "slow")["last_end"]["exit_code"] == 0


@pytest.mark.sandbox
def test_waiting_is_bounded_and_says_what_was_found(tree):
    began = time.monotonic()
    result = ctl(tree, "wait", "running", "--timeout", "1s", status=1)
    assert 0.9 < time.monotonic() - began < 20
    assert result.err == "vexctl: vx_agent is not running after 1s: it is stopped, there is no /var/run/vx_agent.pid\n"
    ctl(tree, "wait", "stopped", "--timeout", "0s")
    assert "no heartbeat of vx_agent after 0s" in ctl(tree, "wait", "heartbeat", "--timeout", "0s", status=1).err


@pytest.mark.sandbox
def test_a_wait_for_the_next_heartbeat_is_not_content_with_the_last(tree):
    tree.file("work/vx_agent.ini", "[settings]\nvex.HeartbeatInterval=1\n")
    supervisor, _ = tree.background()
    ctl(tree, "wait", "heartbeat")
    first = status_of(tree, 0)["heartbeat"]["id"]
    ctl(tree, "wait", "heartbeat", "--next")
    assert status_of(tree, 0)["heartbeat"]["id"] > first
    tree.stop(supervisor)


@pytest.mark.sandbox
def test_the_work_folder_of_a_running_agent_is_found_wherever_it_is(tree, tmp_path):
    work = str(tmp_path / "elsewhere")
    supervisor, _ = tree.background("--workdir", work)
    ctl(tree, "wait", "heartbeat")
    assert status_of(tree, 0)["work_folder"] == work
    tree.stop(supervisor)
    assert status_of(tree, 3)["work_folder"] == tree.work
    assert status_of(tree, 3, env=dict(os.environ, VEXCTL_WORKDIR=work))["work_folder"] == work
    assert status_of(tree, 3, "--workdir", work)["last_end"]["exit_code"] == 0


@pytest.mark.sandbox
def test_plugins_are_told_with_their_last_collection_or_what_is_wrong(tree):
    tree.file("good/plugin.lua", "return { name = 'Good', version = '1', collect = function() return { a = 1 } end }")
    tree.file("bad/plugin.lua", "error('no good\\27[31m')")
    supervisor, _ = tree.background("--plugins", "good,bad")
    ctl(tree, "wait", "heartbeat")
    wait_until(lambda: "plugin good" in tree.log(), what="a collection")
    plugins = {plugin["name"]: plugin for plugin in status_of(tree, 0)["plugins"]}
    assert "collected" in plugins["good"] and "error" not in plugins["good"]
    assert plugins["bad"]["error"].startswith("cannot be loaded: ")
    text = ctl(tree, "status").out
    assert "good: collected " in text and "\x1b" not in text
    assert " 1 plugin fails" in ctl(tree, "status", "--nagios", status=1).out
    tree.stop(supervisor)


@pytest.mark.sandbox
def test_an_ordinary_user_learns_what_file_modes_allow_and_what_could_not_be_read(tree):
    conftest.require_ordinary_user()
    supervisor, child = tree.background("--workdir", "/opt/work")
    ctl(tree, "wait", "heartbeat", "--timeout", "30s")
    copy = shutil.copy(os.path.join(tree.path, "vexctl"), "/opt/vexctl")  # the tree lies where only root may look
    told = status_of(tree, 0, "--workdir", "/opt/work", user=conftest.ORDINARY_USER, executable=copy)
    assert told["state"] == "running" and told["supervisor"]["pid"] == supervisor
    assert told["child"]["pid"] == child
    assert len(told["problems"]) == 2 and "/opt/work" in told["problems"][0] and "Permission denied" in told["problems"][0]
    tree.stop(supervisor)
