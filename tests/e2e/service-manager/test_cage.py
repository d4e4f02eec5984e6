"""What the shipped units keep the agent from, and that it misses nothing of what it is there for: facts, plugins, crash dumps."""
import json
import os
import re
import shutil
import subprocess
import sys

import pytest

from conftest import BUILD, PATIENCE, ROOT, SANITIZED, wait_until
from booted_machine import APPLICATION, INSTALLED, PACKAGING, WORK, Machine

sys.path.insert(0, os.path.join(ROOT, "tests", "e2e", "crash"))
from minidump import Minidump  # noqa: E402 pylint: disable=wrong-import-position,import-error

pytestmark = [pytest.mark.sandbox, pytest.mark.skipif(SANITIZED, reason="the shipped tree is what a service manager runs")]

# Most of what holds of one unit holds of the other: a quick run boots a machine for one of them, a patient one for both.
ONE_AT_ONCE = [pytest.param("vx_agent", marks=pytest.mark.patient), "vx_agent-unprivileged"]
UNITS = {"vx_agent": ("1.5", "root", "/run/vx_agent/vx_agent.pid"),
         "vx_agent-unprivileged": ("1.2", "vx_agent", "/run/vx_agent/vx_agent.pid")}
HOMES = "/home"
COMMAND = f"{INSTALLED}/vx_agent --extdir ext --plugins network,trend"


@pytest.fixture
def machine(request, tmp_path):
    booted = Machine(str(tmp_path), getattr(request, "param", ""))
    with_plugins(booted)
    yield booted
    booted.end()


def with_plugins(machine):
    """Both plugins are there as an installation leaves them, and the user of the second unit."""
    shutil.copytree(os.path.join(ROOT, "lua/plugins/network"), os.path.join(machine.shared, "network"))
    shutil.copytree(os.path.join(BUILD, "packages/ext"), os.path.join(machine.shared, "ext"))
    assert machine.run("cp", "-r", "/shared/network", "/shared/ext", INSTALLED).returncode == 0
    added = machine.run("useradd", "--system", "--user-group", "--no-create-home", "--shell", "/usr/sbin/nologin", "vx_agent")
    assert added.returncode == 0, added.stdout


def start(machine, unit):
    """Starts it and waits for its first beat and both plugins; the supervisor and its child."""
    started = machine.systemctl("start", unit)
    assert (started.returncode, started.stdout) == (0, "")
    before = machine.log().count("starting.")
    for words in ("plugin Network [0-9.]+ loaded", "plugin Trend [0-9.]+ loaded", "Heartbeat [0-9]+ "):
        wait_until(lambda text=words: len(re.findall(text, machine.log())) >= before > 0, what=words)
    return processes(machine, unit)


def processes(machine, unit):
    supervisor = int(machine.systemctl("show", "-P", "MainPID", unit).stdout)
    below = machine.run("cat", f"/proc/{supervisor}/task/{supervisor}/children").stdout.split()
    return supervisor, int(below[0]) if below else 0


def state(machine, unit):
    return tuple(machine.systemctl("show", "-P", name, unit).stdout.strip() for name in ("ActiveState", "SubState", "Result"))


# What the operators' guide offers where no plugin needs the network.
NO_NETWORK = "\n[Service]\nRestrictAddressFamilies=\nRestrictAddressFamilies=AF_UNIX\nIPAddressDeny=any\n"


@pytest.mark.parametrize("unit, more, exposure", [*((unit, "", at_most) for unit, (at_most, *_) in UNITS.items()),
                                                  ("vx_agent-unprivileged", NO_NETWORK, "0.7")],
                         ids=["root", "a user of its own", "without network"])
def test_the_exposure_is_what_is_promised(tmp_path, unit, more, exposure):
    if shutil.which("systemd-analyze") is None:
        pytest.skip("NO SYSTEMD HERE: how exposed its units leave the agent is not tested")
    file = tmp_path / f"{unit}.service"
    with open(os.path.join(PACKAGING, file.name), encoding="utf-8") as shipped:
        file.write_text(shipped.read() + more)
    shown = subprocess.run(["systemd-analyze", "security", "--no-pager", "--offline=true", str(file)], capture_output=True, text=True,
                           timeout=PATIENCE, check=False)
    level = re.search(r"Overall exposure level for \S+: (\S+) ", shown.stdout)
    assert level and float(level[1]) <= float(exposure), shown.stdout + shown.stderr


# What the comment above another setting tells of, in the same run of lines.
TOLD_WITH = {"StartLimitBurst": "StartLimitIntervalSec", "PIDFile": "Type", "KillSignal": "KillMode", "LimitCORE": "UMask",
             "RestartForceExitStatus": "Restart", "RestartPreventExitStatus": "Restart", "RestartSec": "Restart",
             "StateDirectory": "ProtectSystem", "StateDirectoryMode": "ProtectSystem", "ReadWritePaths": "ProtectSystem",
             "BindPaths": "RuntimeDirectory", "BindReadOnlyPaths": "RuntimeDirectory", "PrivateMounts": "PrivateTmp",
             "ExecPaths": "NoExecPaths", "DevicePolicy": "PrivateDevices", "AmbientCapabilities": "CapabilityBoundingSet",
             "SystemCallErrorNumber": "SystemCallFilter", "ProtectKernelModules": "ProtectKernelTunables",
             "ProtectKernelLogs": "ProtectKernelTunables", "ProtectControlGroups": "ProtectKernelTunables",
             "ProtectClock": "ProtectKernelTunables", "ProtectHostname": "ProtectKernelTunables",
             "RestrictSUIDSGID": "NoNewPrivileges", "Group": "User", "SupplementaryGroups": "User"}


def test_each_line_of_the_units_is_explained_where_it_stands_or_in_the_first_unit():
    explained = {"Description", "Documentation"}
    for unit in UNITS:
        settings = []
        told, commented = set(), False
        with open(os.path.join(PACKAGING, unit + ".service"), encoding="utf-8") as file:
            for line in file.read().splitlines():
                name = line.partition("=")[0]
                if re.match(r"[A-Z]\w+=", line):
                    settings.append(name)
                    told |= {name} if commented or name in told or TOLD_WITH.get(name) in told else set()
                    explained |= told
                    commented = False
                elif line.startswith("# "):
                    commented, told = True, set()
                else:
                    commented, told = False, set()
        assert [name for name in settings if name not in explained] == [], unit


def report_in_the_cage(machine, unit):
    machine.write("once.conf", "[Service]\nType=oneshot\nPIDFile=\nRestart=no\nRestartForceExitStatus=\nStandardOutput=truncate:/shared/caged.json\n"
                  f"StandardError=truncate:/shared/caged.txt\nExecStart=\nExecStart={COMMAND} --workdir {WORK} -- --json\n")
    assert machine.run("cp", "/shared/once.conf", f"/etc/systemd/system/{unit}.service.d/").returncode == 0
    machine.systemctl("daemon-reload")
    ended = machine.systemctl("start", unit)
    with open(os.path.join(machine.shared, "caged.txt"), encoding="utf-8") as file:
        assert (ended.returncode, file.read()) == (0, "")
    with open(os.path.join(machine.shared, "caged.json"), encoding="utf-8") as file:
        return json.load(file)


def what_stays(report):
    """Of a report what is the same a moment later."""
    kept = {key: report[key] for key in ("schema", "host", "host_id", "system", "kernel", "architecture", "processors")}
    kept["all"] = sorted(report)
    kept["memory"] = (sorted(report["memory"]), report["memory"]["total"])
    kept["disks"] = [(disk["mount"], disk["device"], disk["type"], disk["total"]) for disk in report["disks"]]
    network, trend = report["plugins"]
    kept["network"] = [interface["name"] for interface in network["values"]["interfaces"]]
    kept["trend"] = sorted(trend["values"])
    return kept


@pytest.mark.parametrize("unit", ONE_AT_ONCE)
def test_the_report_tells_the_same_in_the_cage(machine, unit):
    # A disk that is mounted below /home.
    home = ("mkdir -p $1 /run/upper/u /run/upper/w && mount -t overlay -o lowerdir=/etc,upperdir=/run/upper/u,workdir=/run/upper/w "
            "disk $1")
    assert machine.run("sh", "-c", home, "sh", HOMES + "/data").returncode == 0
    free = machine.run("sh", "-c", f"{COMMAND} --workdir /srv/free -- --json 2>/dev/null")
    assert free.returncode == 0
    expected = what_stays(json.loads(free.stdout))
    assert HOMES + "/data" in [mount for mount, *_ in expected["disks"]]
    assert what_stays(report_in_the_cage(machine, unit)) == expected


@pytest.mark.parametrize("unit", ONE_AT_ONCE)
def test_a_crash_in_the_cage_leaves_a_whole_dump_and_the_agent_is_back(machine, unit):
    supervisor, child = start(machine, unit)
    machine.signal(child, "SEGV")
    wait_until(lambda: processes(machine, unit)[1] not in (0, child), what="the next child")
    assert processes(machine, unit)[0] == supervisor and state(machine, unit) == ("active", "running", "success")
    assert f"FATAL [{child}/" in machine.log() and "Child process crashed with status" in machine.log()
    assert machine.run("cp", f"{WORK}/plugins/diag/vx_agent.mdmp", "/shared/dump").returncode == 0
    dump = Minidump(os.path.join(machine.shared, "dump"))
    assert dump.exception()[1] == 11 and dump.process() == child
    threads = dump.threads()
    # main, script, heartbeat, doorbell, one a plugin
    assert len(threads) == 6 and all(size for _, size, _, _ in threads.values())
    assert {"vx_agent", "vex_core.so"} <= {os.path.basename(path) for path in dump.modules()}


TRIES = """
local M = {}
local function try(name, ok) local f = assert(io.open("/shared/tries", "a")); f:write(name, "=", tostring(ok and true), "\\n"); f:close() end
local function write(path) local f = io.open(path, "w"); if f then f:close() end return f end
function M.init()
  local work = dom0:Get("app.path.work")
  try("etc", write("/etc/made"))
  try("home", write("/home" .. "/made"))
  try("srv", write("/srv/made"))
  try("tree", write(dom0:Get("app.path.bin") .. "/made"))
  try("work", write(work .. "/made"))
  try("tmp", write("/tmp/made"))
  try("read", io.open("/etc/passwd"))
  try("program", (dom0:Execute("/usr/bin/true", {})))
  local function runs(program, ...) return select(3, dom0:Execute(program, { ... })) == 0 end
  for _, folder in ipairs({ work, "/tmp", "/var/tmp", "/run" }) do
    os.execute("cp /usr/bin/true " .. folder .. "/true && chmod 755 " .. folder .. "/true")
    try("program of " .. folder, runs(folder .. "/true"))
  end
  try("manager", runs("/usr/bin/systemctl", "daemon-reload"))
  os.execute("mkdir -p /run/systemd/system && touch /run/systemd/system/made.service")
  try("resolver", io.open("/run/systemd/resolve/resolv.conf"))
  try("program of a home", runs("/home" .. "/tools/true"))
  try("namespace", runs("/usr/bin/unshare", "--user", "true"))
  local function python(line) return runs("/usr/bin/python3", "-c", line) end
  try("socket", python("import socket; socket.socket(socket.AF_INET, socket.SOCK_STREAM)"))
  try("netlink", python("import socket; socket.socket(socket.AF_NETLINK, socket.SOCK_RAW)"))
  try("raw socket", python("import socket; socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_ICMP)"))
  try("file of a user", io.open("/home" .. "/tools/hers"))
  try("process of another", runs("/usr/bin/readlink", "/proc/1/exe"))
  try("code in memory", python("import mmap; mmap.mmap(-1, 4096, prot=7)"))
  try("system call", python("import os; os.setpriority(os.PRIO_PROCESS, 0, 19)"))
  return 0
end
function M.main() try("main", true) return 0 end
function M.shutdown() return 0 end
return M
"""
TRYING = """
    [Service]
    ExecStart=
    ExecStart={command} --lua_path /shared/?.lua --workdir /var/lib/vx_agent
    ReadWritePaths=/shared
    """.format(command=INSTALLED + "/vx_agent --background")
LOOSER = TRYING + """ReadWritePaths=/srv
    ExecPaths=""" + HOMES + """/tools
    RestrictAddressFamilies=AF_NETLINK
    CapabilityBoundingSet=CAP_NET_RAW CAP_DAC_READ_SEARCH CAP_SYS_PTRACE
    AmbientCapabilities=CAP_NET_RAW CAP_DAC_READ_SEARCH CAP_SYS_PTRACE
    PrivateUsers=no
    ProtectProc=default
    MemoryDenyWriteExecute=no
    SystemCallFilter=setpriority
    """


def tries(machine, unit):
    machine.write("vx_agent.lua", TRIES)
    os.chmod(machine.shared, 0o777)
    assert machine.run("sh", "-c", "cd /home && mkdir tools && cp /usr/bin/true tools && touch tools/hers && chmod 600 tools/hers && "
                       "chown nobody tools/hers").returncode == 0
    assert machine.run("sh", "-c", "mkdir -p /run/systemd/resolve && touch /run/systemd/resolve/resolv.conf").returncode == 0
    assert machine.systemctl("start", unit).stdout == ""
    path = os.path.join(machine.shared, "tries")

    def read():
        with open(path, encoding="utf-8") as file:
            return dict(line.split("=") for line in file.read().split("\n") if line)
    wait_until(lambda: os.path.exists(path) and "main" in read(), what="main")
    # What it makes in its own /run is no order to systemd.
    assert machine.run("test", "-e", "/run/systemd/system/made.service").returncode == 1
    return {name for name, value in read().items() if value == "true"}


CAN = {"work", "tmp", "read", "program", "socket", "resolver", "main"}


@pytest.mark.parametrize("machine", [TRYING], indirect=True, ids=["as shipped"])
@pytest.mark.parametrize("unit", ["vx_agent", pytest.param("vx_agent-unprivileged", marks=pytest.mark.patient)])
def test_what_is_not_the_agents_is_refused_and_the_agent_runs_on(machine, unit):
    assert tries(machine, unit) == CAN | ({"tree"} if unit == "vx_agent" else set())
    assert state(machine, unit) == ("active", "running", "success")


@pytest.mark.patient
@pytest.mark.parametrize("machine", [LOOSER], indirect=True, ids=["looser"])
@pytest.mark.parametrize("unit", UNITS)
def test_a_drop_in_gives_a_plugin_what_it_needs(machine, unit):
    assert tries(machine, unit) - {"tree", "srv"} == CAN | {"program of a home", "netlink", "raw socket", "file of a user",
                                                            "process of another", "code in memory", "system call"}
    # Which place is writable at all is a matter of files' owners, for the one who is not root.
    assert unit != "vx_agent" or machine.run("test", "-e", "/srv/made").returncode == 0


@pytest.mark.patient
@pytest.mark.parametrize("machine", [TRYING], indirect=True, ids=["a slow shutdown"])
def test_a_unit_waits_until_the_other_one_has_stopped(machine):
    machine.write("vx_agent.lua", APPLICATION)
    machine.write("shutdown-seconds", 3)
    machine.write("life", "")
    os.chmod(machine.shared, 0o777)
    os.chmod(os.path.join(machine.shared, "life"), 0o666)

    def time(unit, what):
        return int(machine.systemctl("show", "-P", what + "TimestampMonotonic", unit).stdout)
    for started, (unit, other) in enumerate([tuple(UNITS), tuple(UNITS)[::-1], tuple(UNITS)]):
        assert machine.systemctl("start", unit).stdout == ""
        assert state(machine, other)[:2] == ("inactive", "dead")
        assert time(unit, "InactiveExit") >= time(other, "InactiveEnter")
        wait_until(lambda mains=started + 1: machine.life().count("main") == mains, what="main")
        assert machine.life() == ["init", "main", "shutdown", "end"] * started + ["init", "main"]
        assert state(machine, unit) == ("active", "running", "success")


def beats(machine):
    shown = machine.run("sqlite3", f"{WORK}/plugins/vx_agent/heartbeat.db", "SELECT count(*) FROM heartbeat")
    return int(shown.stdout) if shown.stdout.strip().isdigit() else 0


@pytest.mark.patient
def test_one_unit_takes_over_from_the_other_with_all_that_was_kept(machine):
    kept = 0
    for unit in ("vx_agent", "vx_agent-unprivileged", "vx_agent"):
        _, user, pid_file = UNITS[unit]
        planted = f"{WORK}/cache/planted.luac"
        if kept and user == "root":
            assert machine.run("sh", "-c", f"umask 077 && mkdir -p {WORK}/cache && touch {planted}").returncode == 0
        supervisor, _ = start(machine, unit)
        # Code that the other user may have left does not become root's.
        assert machine.run("test", "-e", planted).returncode == 1
        assert machine.run("head", "-n1", pid_file).stdout == f"{supervisor}\n"
        assert machine.run("stat", "-c", "%U", f"/proc/{supervisor}").stdout == user + "\n"
        wait_until(lambda more=kept: beats(machine) > more, what="another beat")
        kept = beats(machine)
        owners = machine.run("find", WORK, "-printf", "%u\n").stdout.split()
        assert set(owners) == {user}
    stops = re.compile(r"sigwait\(\): caught signal 15|Waiting for child process interrupted")
    assert [line for line in machine.log().splitlines() if re.search(" (WARNING|ERROR|FATAL) ", line) and not stops.search(line)] == []
    assert machine.log().count("Child process exited with status 0") == 2
