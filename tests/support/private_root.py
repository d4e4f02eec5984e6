"""A root folder of the test's own over the files of this machine, with dpkg's knowledge of what is installed: packages are
installed for real in it, and what they write goes with the test."""
import os
import signal
import subprocess

import pytest

from conftest import alive, children, mount_tmpfs, send_signal_if_there, unmount, wait_until


class PrivateRoot:
    def __init__(self, folder):
        self.path = os.path.join(folder, "root")
        self._scratch = os.path.join(folder, "scratch")
        os.mkdir(self.path)
        os.mkdir(self._scratch)
        mount_tmpfs(self._scratch)
        for name in ("upper", "work"):
            os.mkdir(os.path.join(self._scratch, name))
        self._mounted = []
        made = subprocess.run(["mount", "-t", "overlay", "overlay", "-o",
                               f"lowerdir=/,upperdir={self._scratch}/upper,workdir={self._scratch}/work", self.path],
                              capture_output=True, text=True, check=False)
        if made.returncode != 0:
            unmount(self._scratch)
            pytest.skip(f"NO OVERLAY CAN BE MOUNTED HERE ({made.stderr.strip()}): installing a package is not tested")
        self._mounted.append(self.path)
        # The index of this machine's whole manual, made anew by each dpkg, takes minutes while the disk is busy.
        if os.path.exists(self.file("/var/lib/man-db/auto-update")):
            os.unlink(self.file("/var/lib/man-db/auto-update"))
        for place in ("proc", "dev"):
            subprocess.run(["mount", "--rbind", "/" + place, os.path.join(self.path, place)], check=True)
            self._mounted.append(os.path.join(self.path, place))
        for place in ("/run", "/opt", "/tmp"):
            self.cover(place)

    def cover(self, place):
        """Puts an empty folder over that of the machine."""
        mount_tmpfs(self.file(place))
        self._mounted.append(self.file(place))

    def end(self):
        for entry in os.listdir("/proc"):
            if entry.isdigit() and int(entry) > 1:
                try:
                    inside = os.readlink(f"/proc/{entry}/root") == self.path
                except OSError:
                    continue
                if inside:
                    send_signal_if_there(int(entry), signal.SIGKILL)
                    wait_until(lambda pid=int(entry): not alive(pid), what="the end of a process")
        for place in reversed(self._mounted):
            unmount(place)
        unmount(self._scratch)

    def file(self, place):
        return self.path + place

    def run(self, *command, **options):
        return subprocess.run(["chroot", self.path, *command], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, check=False, **{"timeout": 180, **options})

    def dpkg(self, *words):
        """dpkg without waiting for the disk; what it said, when it was content."""
        done = self.run("dpkg", "--force-unsafe-io", "--force-confold", *words, env={**os.environ, "DEBIAN_FRONTEND": "noninteractive"})
        assert done.returncode == 0, done.stdout
        return done.stdout

    def copy(self, file):
        """The place of a copy of a file in there."""
        place = "/tmp/" + os.path.basename(file)
        with open(file, "rb") as source, open(self.file(place), "wb") as target:
            target.write(source.read())
        return place

    def status(self, package):
        return self.run("dpkg-query", "-W", "-f", "${db:Status-Abbrev}", package).stdout.strip()

    def supervisor(self):
        try:
            with open(self.file("/run/vx_agent.pid"), encoding="utf-8") as file:
                return int(file.readline())
        except (FileNotFoundError, ValueError):
            return 0

    def child(self):
        supervisor = self.supervisor()
        return next(iter(children(supervisor)), 0) if supervisor else 0
