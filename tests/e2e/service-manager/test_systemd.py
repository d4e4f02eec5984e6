"""The shipped unit under a real systemd: starts, stops, ends of every kind, and what its comments and OPERATIONS.md promise."""
import json
import os
import re
import shutil

import pytest

from conftest import SANITIZED, wait_until
from booted_machine import INSTALLED, WORK, Machine, packages

pytestmark = [pytest.mark.sandbox, pytest.mark.skipif(SANITIZED, reason="the shipped tree is what a service manager runs")]

# The shipped unit in everything else: the application of the test, which lies and writes where agents have no business, and no
# minute between an end and the next start.
TEST_APPLICATION = f"""
    [Unit]
    StartLimitBurst=1000
    [Service]
    ExecStart=
    ExecStart={INSTALLED}/vx_agent --background --install_plugins --lua_path /shared/?.lua --workdir {WORK}
    ReadWritePaths=/shared
    ExecPaths=/shared
    RestartSec=1
    """


# The first child is still there when its child has long begun, as it may be on a busy machine.
SLOW_FORKS = TEST_APPLICATION + """Environment=LD_PRELOAD=/shared/libslowexit.so VEX_SLOW_EXIT=200
    """


@pytest.fixture
def machine(request, tmp_path):
    booted = Machine(str(tmp_path), getattr(request, "param", TEST_APPLICATION))
    yield booted
    booted.end()


def start(machine):
    assert machine.systemctl("start", "vx_agent").stdout == ""
    wait_until(lambda: "main" in machine.life(), what="main")
    assert machine.state() == ("active", "running", "success")
    supervisor, child = machine.processes()
    assert machine.pid_file() == supervisor and child > 1
    return supervisor, child


def check_known_to_systemd(machine):
    """It found the supervisor to be its own, so that it stops it and does not kill it."""
    journal = machine.journal()
    assert "which is not our child" not in journal and "not owned by root" not in journal, journal
    assert "cannot be preloaded" not in journal


def stop(machine, lives=1):
    assert machine.systemctl("stop", "vx_agent").stdout == ""
    assert machine.life() == ["init", "main"] * lives + ["shutdown", "end"]
    assert machine.state() == ("inactive", "dead", "success") and machine.pid_file() == 0


def start_and_stop(machine, times):
    for _ in range(times):
        machine.forget()
        start(machine)
        stop(machine)
    check_known_to_systemd(machine)


@pytest.mark.parametrize("machine", [SLOW_FORKS], indirect=True, ids=["slow forks"])
def test_starts_and_stops_are_in_order(machine):
    machine.write("shutdown-seconds", 0.5)
    start_and_stop(machine, 3)


@pytest.mark.patient
@pytest.mark.slow
def test_fifty_starts_and_stops_with_a_shutdown_of_three_seconds_are_in_order(machine):
    machine.write("shutdown-seconds", 3)
    start_and_stop(machine, 50)


def test_vexctl_finds_the_service_and_its_log_when_it_has_ended(machine):
    supervisor, child = start(machine)
    told = json.loads(machine.run(INSTALLED + "/vexctl", "status", "--json").stdout)
    assert (told["supervisor"]["pid"], told["child"]["pid"], told["work_folder"]) == (supervisor, child, WORK)
    stop(machine)
    # As OPERATIONS.md has it, because a service that has ended tells nobody where it worked.
    ended = machine.run("env", "VEXCTL_WORKDIR=" + WORK, INSTALLED + "/vexctl", "log", "-n", "1").stdout
    assert " exiting. Run time was " in ended, ended


@pytest.mark.parametrize("machine", [SLOW_FORKS], indirect=True, ids=["slow forks"])
def test_a_poweroff_lets_the_application_shut_down(machine):
    machine.write("shutdown-seconds", 3)
    start(machine)
    machine.systemctl("poweroff")
    wait_until(machine.ended, what="end of the machine")
    assert machine.life() == ["init", "main", "shutdown", "end"]


@pytest.mark.parametrize("name", ["SEGV", "KILL"])
def test_a_child_that_dies_is_the_supervisors_business(machine, name):
    supervisor, child = start(machine)
    machine.signal(child, name)
    wait_until(lambda: machine.life().count("main") == 2, what="the second main")
    assert machine.processes()[0] == supervisor and machine.processes()[1] != child
    assert machine.property("NRestarts") == "0"
    stop(machine, lives=2)
    check_known_to_systemd(machine)


# Services have SIGPIPE ignored unless they ask for it.
@pytest.mark.parametrize("machine,name", [(TEST_APPLICATION, name) for name in ("KILL", "HUP", "INT", "USR1")]
                         + [(TEST_APPLICATION + "IgnoreSIGPIPE=no", "PIPE")], indirect=["machine"],
                         ids=["KILL", "HUP", "INT", "USR1", "PIPE"])
def test_a_supervisor_that_dies_of_a_signal_is_started_again(machine, name):
    supervisor, child = start(machine)
    machine.signal(supervisor, name)
    wait_until(lambda: machine.property("NRestarts") == "1", what="the restart")
    wait_until(lambda: machine.life().count("main") == 2 and machine.state()[0] == "active", what="the second main")
    again = machine.processes()
    assert supervisor not in again and child not in again
    assert machine.systemctl("stop", "vx_agent").stdout == ""
    life = machine.life()
    assert life[:2] == ["init", "main"] and life[-4:] == ["init", "main", "shutdown", "end"], life


@pytest.mark.parametrize("name", ["KILL", "HUP"])
def test_a_supervisor_that_dies_leaves_the_child_no_time(machine, name):
    machine.write("shutdown-seconds", 5)
    supervisor, _ = start(machine)
    machine.signal(supervisor, name)
    wait_until(lambda: machine.life().count("main") == 2, what="the second main")
    assert "end" not in machine.life()


# Long enough for a busy machine to ask for a start within it; how long it was, systemd tells.
@pytest.mark.parametrize("machine", [TEST_APPLICATION + "RestartSec=20"], indirect=True, ids=["twenty seconds"])
def test_a_start_before_a_restart_waits_for_it(machine):
    supervisor, _ = start(machine)
    machine.signal(supervisor, "KILL")
    wait_until(lambda: machine.state()[1] == "auto-restart", what="the pause")
    died = int(machine.property("ExecMainExitTimestampMonotonic"))
    assert machine.systemctl("start", "vx_agent").returncode == 0
    assert machine.state()[:2] == ("active", "running")
    assert int(machine.property("ExecMainStartTimestampMonotonic")) - died >= 20_000_000


@pytest.mark.parametrize("machine", [TEST_APPLICATION.replace("StartLimitBurst=1000", "")], indirect=True, ids=["as shipped"])
def test_a_fourth_start_within_an_hour_is_refused_until_the_failure_is_reset(machine):
    # What systemd knows of a unit that is neither running nor wanted by another it may forget, the starts included.
    assert machine.systemctl("enable", "vx_agent").returncode == 0
    for _ in range(3):
        machine.forget()
        start(machine)
        stop(machine)
    machine.forget()
    assert machine.systemctl("start", "vx_agent").returncode == 1
    assert "Start request repeated too quickly" in machine.journal() and machine.life() == []
    assert machine.systemctl("reset-failed", "vx_agent").returncode == 0
    start(machine)


ENDS = {0: ("inactive", "success"), 1: ("failed", "exit-code"), 2: ("failed", "exit-code"), 4: ("failed", "exit-code"),
        5: ("failed", "exit-code")}


@pytest.mark.parametrize("code", ENDS)
def test_an_exit_code_of_the_application_that_a_restart_would_not_change_is_final(machine, code):
    machine.write("main-status", code)
    # The start is good although the application fails soon: it has detached.
    assert machine.systemctl("start", "vx_agent").returncode == 0
    if code == 0:
        stop(machine)
        return
    machine.write("started", 1)
    wait_until(lambda: machine.state()[0] == "failed", what="the end")
    active, _, result = machine.state()
    assert (active, result) == ENDS[code]
    assert (machine.property("ExecMainStatus"), machine.property("NRestarts")) == (str(code), "0")
    assert machine.life() == ["init", "main"]


@pytest.mark.parametrize("code", [7, 255])
def test_another_exit_code_leads_to_a_new_start(machine, code):
    machine.write("main-status", code)
    assert machine.systemctl("start", "vx_agent").returncode == 0
    machine.write("started", 1)
    wait_until(lambda: int(machine.property("NRestarts")) >= 1, what="a restart")
    machine.write("main-status", 0)
    wait_until(lambda: machine.state()[:2] == ("active", "running") and machine.processes()[1], what="one that stays")


def test_an_exit_code_of_three_is_the_supervisors_business(machine):
    machine.write("main-status", 3)
    assert machine.systemctl("start", "vx_agent").returncode == 0
    machine.write("started", 1)
    wait_until(lambda: machine.life().count("main") >= 2, what="the second main")
    assert (machine.state()[0], machine.property("NRestarts")) == ("active", "0")


# Nobody waits for the end of the pause: a stop ends it.
@pytest.mark.parametrize("machine", [TEST_APPLICATION + "RestartSec=1h"], indirect=True, ids=["an hour"])
def test_a_start_beside_an_agent_started_by_hand_in_the_same_work_folder_fails(machine):
    by_hand = (INSTALLED + "/vx_agent", "--background", "--lua_path", "/shared/?.lua", "--workdir", WORK)
    assert machine.run(*by_hand).returncode == 0
    wait_until(lambda: "main" in machine.life(), what="main")
    supervisor = int(machine.run("head", "-n1", "/run/vx_agent.pid").stdout)
    assert supervisor > 1
    assert machine.systemctl("start", "vx_agent").returncode == 1
    assert f"The work folder {WORK} is in use by another agent of this name (pid={supervisor}), exiting" in machine.log()
    # It will be tried again: what is said of exit codes is about the supervisor's.
    assert machine.state() == ("activating", "auto-restart", "exit-code")
    assert machine.systemctl("stop", "vx_agent").returncode == 0
    # It runs on, with its own pid file.
    assert machine.life() == ["init", "main"] and machine.run("head", "-n1", "/run/vx_agent.pid").stdout == f"{supervisor}\n"
    assert machine.run(*by_hand).returncode == 1
    machine.signal(supervisor, "TERM")
    wait_until(lambda: machine.life() == ["init", "main", "shutdown", "end"], what="the end")


# Nothing is changed here but where the packages are: beside the executable, as an operator puts them.
@pytest.mark.quick
@pytest.mark.parametrize("machine", [""], indirect=True, ids=["as shipped"])
def test_the_unit_enables_the_plugins_that_it_installs(machine):
    for package in packages():
        shutil.copy(package, machine.shared)
        assert machine.run("mv", "/shared/" + os.path.basename(package), INSTALLED).returncode == 0
    assert machine.systemctl("start", "vx_agent").stdout == ""
    for plugin in ("Network", "Trend"):
        wait_until(lambda name=plugin: re.search(rf"INFO .* plugin {name} [0-9.]+ loaded", machine.log()), what=plugin)
    assert machine.systemctl("stop", "vx_agent").stdout == ""
    assert machine.state() == ("inactive", "dead", "success")


@pytest.mark.parametrize("unit", ["vx_agent", pytest.param("vx_agent-unprivileged", marks=pytest.mark.patient)])
def test_systemd_has_nothing_to_say_against_the_units(machine, unit):
    # Pages of the manual are there when the package is installed.
    checked = machine.run("systemd-analyze", "verify", "--man=no", f"/etc/systemd/system/{unit}.service")
    assert (checked.returncode, checked.stdout) == (0, "")
