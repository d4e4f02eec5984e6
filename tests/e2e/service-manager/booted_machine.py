"""A machine of its own for a test: systemd as process 1, booted in namespaces over the files of this one, with an installation of the
agent and the shipped units in it, or with nothing of it, for tests that install packages. What it writes is in memory and goes
with it; /shared alone is a folder of the test."""
import os
import shutil
import subprocess
import textwrap
import uuid

import pytest

from conftest import BUILD, ROOT, STAGE, children, wait_until

INSTALLED = "/opt/Halvorn/vx_agent"
WORK = "/var/lib/vx_agent"
PACKAGING = os.path.join(ROOT, "packaging")
SYSTEMD = "/lib/systemd/systemd"
BOOT_PATIENCE = 120  # seconds; a boot is far more work than what a test waits for elsewhere

# Process 1 of the new machine until it becomes systemd. The kernel's settings are one for all machines, so they are read-only here.
BOOT = r"""
set -eu
here=$1 stage=$2 units=$3 shared=$4
mount -t tmpfs tmpfs "$here"
mkdir "$here/upper" "$here/scratch" "$here/root"
root=$here/root
mount -t overlay overlay -o "lowerdir=/,upperdir=$here/upper,workdir=$here/scratch" "$root"
mount -t proc proc "$root/proc"
for place in sys sysrq-trigger; do
    [ -e "$root/proc/$place" ] || continue
    mount --bind "$root/proc/$place" "$root/proc/$place"
    mount -o remount,bind,ro "$root/proc/$place"
done
mount -t sysfs -o ro sysfs "$root/sys"
mount -t cgroup2 cgroup2 "$root/sys/fs/cgroup"
for place in dev run tmp opt; do
    mount -t tmpfs -o mode=755 tmpfs "$root/$place"
done
for node in null zero full random urandom tty; do
    touch "$root/dev/$node"
    mount --bind "/dev/$node" "$root/dev/$node"
done
mkdir "$root/dev/pts" "$root/dev/shm" "$root/shared"
mount -t devpts -o newinstance,ptmxmode=0666 devpts "$root/dev/pts"
ln -s pts/ptmx "$root/dev/ptmx"
mount -t tmpfs tmpfs "$root/dev/shm"
mount --bind "$shared" "$root/shared"
rm -rf "$root"/etc/systemd/system/*.wants
: >"$root/etc/machine-id"
: >"$root/etc/fstab"
# The index of this machine's whole manual, made anew by each dpkg, takes minutes while the disk is busy.
rm -f "$root/var/lib/man-db/auto-update"
rm -rf "$root"/etc/rc?.d "$root/usr/sbin/policy-rc.d"
for other in dbus.service dbus.socket systemd-logind.service getty.target timers.target networking.service \
    systemd-udevd.service systemd-udevd-control.socket systemd-udevd-kernel.socket systemd-udev-trigger.service; do
    ln -sf /dev/null "$root/etc/systemd/system/$other"
done
for unit in vx_agent vx_agent-unprivileged; do
    mkdir -p "$root/etc/systemd/system/$unit.service.d"
    cp "$shared/test.conf" "$root/etc/systemd/system/$unit.service.d/"
    [ -z "$stage" ] || cp "$units/$unit.service" "$root/etc/systemd/system/"
done
if [ -n "$stage" ]; then
    mkdir -p "$root/opt/Halvorn"
    cp -a "$stage" "$root/opt/Halvorn/vx_agent"
fi
cd "$root"
pivot_root . .
umount -l .
cd /
exec env -i container=other PATH=/usr/sbin:/usr/bin:/sbin:/bin /lib/systemd/systemd --log-target=journal
"""

# Tells on disk what it did. What it returns, and how long its shutdown takes, lies in files that a test writes.
APPLICATION = """
local M = {}
local function note(what) local f = assert(io.open("/shared/life", "a")); f:write(what, "\\n"); f:close() end
local function said(name)
  local f = io.open("/shared/" .. name); if not f then return 0 end
  local value = f:read("*n"); f:close(); return value
end
function M.init() note("init") return said("init-status") end
-- A moment later than at once: of an agent that has ended before its pid file is read the manager waits to hear for long. The test
-- tells when the first one has been started.
function M.main()
  note("main")
  local status = said("main-status")
  if status ~= 0 then
    while said("started") == 0 do dom0:Wait("never", 0.05) end
    dom0:Wait("never", 1)
  end
  return status
end
function M.shutdown() note("shutdown") dom0:Wait("never", said("shutdown-seconds")) note("end") return 0 end
return M
"""


def _cgroups():
    with open("/proc/mounts") as file:
        for line in file:
            fields = line.split()
            if fields[2] == "cgroup2":
                return fields[1]
    return None


class Machine:
    def __init__(self, folder, service_settings, installed=True):
        if os.geteuid() != 0 or not os.path.exists(SYSTEMD):
            pytest.skip("NO SYSTEMD HERE, or no right to boot one: what a service manager makes of the agent is not tested")
        self.shared = os.path.join(folder, "shared")
        self.here = os.path.join(folder, "machine")
        os.mkdir(self.shared)
        os.mkdir(self.here)
        self.write("vx_agent.lua", APPLICATION)
        shutil.copy(os.path.join(BUILD, "tests", "libslowexit.so"), self.shared)
        self.write("test.conf", textwrap.dedent(service_settings))
        cgroups = _cgroups()
        self.cgroup = os.path.join(cgroups or "/nowhere", f"vex-test-{uuid.uuid4().hex}")
        try:
            os.mkdir(self.cgroup)
        except OSError as error:
            pytest.skip(f"NO CONTROL GROUP FOR A SYSTEMD ({error}): what a service manager makes of the agent is not tested")
        output = os.path.join(folder, "boot-output")  # nobody reads while the machine runs, so a pipe could fill
        into = 'echo $$ > "$1/cgroup.procs"; shift; exec "$@"'
        with open(output, "wb") as file:
            self.outer = subprocess.Popen(
                ["sh", "-c", into, "sh", self.cgroup, "unshare", "--cgroup", "--mount", "--pid", "--fork", "--uts", "--ipc", "--net",
                 "--propagation", "private", "--kill-child=KILL", "sh", "-c", BOOT, "sh", self.here, STAGE if installed else "", PACKAGING, self.shared],
                stdin=subprocess.DEVNULL, stdout=file, stderr=subprocess.STDOUT)
        try:
            self.first = wait_until(self._first, BOOT_PATIENCE, "process 1 of the machine")
            wait_until(lambda: self.outer.poll() is not None or self.run("systemctl", "is-system-running").stdout.strip()
                       in ("running", "degraded"), BOOT_PATIENCE, "a booted machine")
            if self.ended():
                with open(output, encoding="utf-8", errors="replace") as file:
                    pytest.skip(f"NO SYSTEMD CAN BE BOOTED HERE: {file.read().strip()}")
        except BaseException:
            self.end()
            raise

    def _first(self):
        return self.ended() or next(iter(children(self.outer.pid)), 0)

    def write(self, name, text):
        with open(os.path.join(self.shared, name), "w") as file:
            file.write(str(text))

    def run(self, *command, **options):
        """A command inside, as its root; `status` and `out` are its."""
        return subprocess.run(["nsenter", "-t", str(self.first), "-m", "-p", "-u", "-i", "-n", "-C", "--", *command],
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **{"timeout": 180, **options})

    def systemctl(self, *arguments):
        return self.run("systemctl", *arguments)

    def property(self, name):
        return self.systemctl("show", "-P", name, "vx_agent").stdout.strip()

    def state(self):
        """Of one moment, so asked for in one go."""
        names = ("ActiveState", "SubState", "Result")
        shown = self.systemctl("show", "-p", ",".join(names), "vx_agent").stdout
        found = dict(line.split("=", 1) for line in shown.splitlines() if "=" in line)
        return tuple(found.get(name, "") for name in names)

    def life(self):
        try:
            with open(os.path.join(self.shared, "life")) as file:
                return file.read().split()
        except FileNotFoundError:
            return []

    def forget(self):
        if os.path.exists(os.path.join(self.shared, "life")):
            os.unlink(os.path.join(self.shared, "life"))

    def journal(self):
        return self.run("journalctl", "--no-pager", "-o", "cat").stdout

    def log(self):
        return self.run("cat", WORK + "/vx_agent.log").stdout

    def processes(self):
        """(supervisor, child) as the machine numbers them; 0 for one that is not there."""
        supervisor = int(self.property("MainPID") or 0)
        below = self.run("cat", f"/proc/{supervisor}/task/{supervisor}/children").stdout.split() if supervisor else []
        return supervisor, int(below[0]) if below and below[0].isdigit() else 0

    def signal(self, pid, name):
        assert pid > 1, f"refusing to signal {pid}"
        assert self.run("kill", "-s", name, str(pid)).returncode == 0

    def pid_file(self):
        found = self.run("head", "-n1", "/run/vx_agent/vx_agent.pid")
        return int(found.stdout) if found.returncode == 0 else 0

    def ended(self):
        return self.outer.poll() is not None

    def end(self):
        if self.outer.poll() is None:
            self.outer.kill()  # takes process 1 along, and that everything
        self.outer.wait()
        for inner, _, _ in os.walk(self.cgroup, topdown=False):
            def gone(folder=inner):
                try:
                    os.rmdir(folder)
                except FileNotFoundError:
                    pass
                except OSError:
                    return False
                return True
            wait_until(gone, what="the end of all processes of the machine")


def packages():
    return [os.path.join(BUILD, "packages", name) for name in sorted(os.listdir(os.path.join(BUILD, "packages")))
            if name.endswith(".vxp")]


# Has the agent find the modules that a test writes.
WITH_SHARED_MODULES = f"""
    [Service]
    ExecStart=
    ExecStart={INSTALLED}/vx_agent --background --lua_path /shared/?.lua --workdir {WORK}
    """


def machine_with(service_settings, installed=True):
    """The fixture "machine": one that has booted, for each test another."""
    @pytest.fixture(name="machine")
    def machine(tmp_path):
        booted = Machine(str(tmp_path), service_settings, installed)
        yield booted
        booted.end()
    return machine
