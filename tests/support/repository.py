"""A signed repository of packages and a host that uses it, in a root of the test's own, both made by the commands of docs/ROLLOUT.md as
they stand there. The web server of that page is a folder here."""
import os
import re
import shutil

import pytest

from conftest import ROOT

FOLDER = "/srv/vx-agent"
INDEX = FOLDER + "/dists/{suite}/main/binary-amd64/Packages"
# Nothing asks, and no program of the machine's own configuration runs.
ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LANG": "C.UTF-8", "DEBIAN_FRONTEND": "noninteractive", "HOME": "/tmp",
               "GNUPGHOME": "/tmp/keys"}


def told(name):
    """The text that stands on the page below a mark."""
    with open(os.path.join(ROOT, "docs/ROLLOUT.md"), encoding="utf-8") as file:
        found = re.findall(rf"<!-- {name} -->\n```\w*\n(.*?)```\n", file.read(), re.S)
    assert len(found) == 1, name
    return found[0].replace("https://packages.halvorn.example/vx-agent", "file:" + FOLDER)


class Repository:
    """`run` runs a command in there, as root, with the environment that it is given."""

    def __init__(self, run, folder):
        for program in ("apt-ftparchive", "gpg"):
            if shutil.which(program) is None:
                pytest.skip(f"NO {program.upper()} HERE (tools/packages.txt names what brings it): the rollout is not tested")
        self._run = run
        self._folder = folder  # /tmp in there, as the test sees it
        # Folders of its own in the place of the machine's sources, keys, pins, hooks and lists.
        self.shell("""
            mkdir -p /etc/apt/apt.conf.d /etc/apt/preferences.d /etc/apt/sources.list.d /etc/apt/trusted.gpg.d
            echo 'APT::Sandbox::User "root"; DPkg::Options { "--force-unsafe-io"; };' >/etc/apt/apt.conf
            mkdir -p -m 700 "$GNUPGHOME" && printf 'batch\\npinentry-mode loopback\\npassphrase ""\\nignore-time-conflict\\nignore-valid-from\\n' >"$GNUPGHOME/gpg.conf"
            mkdir -p /tmp/build/packages""")
        self.page("the key")

    def try_shell(self, text, timeout=180, **variables):
        """Status and output of a script that ends with the first command that fails; `variables` are its own."""
        done = self._run("bash", "-euc", text, env={**ENVIRONMENT, **variables}, cwd="/", timeout=timeout)
        return done.returncode, done.stdout

    def shell(self, text, **variables):
        status, output = self.try_shell(text, **variables)
        assert status == 0, f"{text}\n{output}"
        return output

    def try_page(self, name, replace=("", ""), **variables):
        text = told(name)
        assert replace[0] in text, name
        return self.try_shell((f"cd {FOLDER}\n" if name == "a host" else "cd /tmp\n") + text.replace(*replace), **variables)

    def page(self, name, **variables):
        """Runs what the page tells; its output."""
        status, output = self.try_page(name, **variables)
        assert status == 0, f"{name}: {output}"
        return output

    def add(self, deb, version):
        """A version of the package comes into the first suite."""
        shutil.copy(deb, os.path.join(self._folder, "build/packages", f"vx-agent_{version}_amd64.deb"))
        self.page("a new version", version=version)
        self.page("list and sign", suite="canary")

    def promote(self, version, suite):
        self.page("the next wave", version=version, suite=suite)
        self.page("list and sign", suite=suite)

    def version(self):
        """What the host has."""
        return self.shell("dpkg-query -W -f '${db:Status-Abbrev}${Version}' vx-agent")
