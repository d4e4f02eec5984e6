"""docs/ROLLOUT.md, command by command: a signed repository, a host that takes what is signed and nothing else, an upgrade from suite to
suite, and the way back from a bad version. In a root folder of the test's own, where no service manager runs."""
import hashlib
import json
import os
import re
import shutil
import signal
import sys

import pytest

from conftest import ROOT, SANITIZED, alive, send_signal, wait_until
from debian_package import DEB_VERSION, another, made_once, with_other_files
from private_root import PrivateRoot
from repository import FOLDER, INDEX, Repository, told

sys.path.insert(0, os.path.join(ROOT, "tests", "e2e", "plugins"))
from packages import with_zipfile  # noqa: E402 pylint: disable=wrong-import-position,import-error

pytestmark = [pytest.mark.sandbox, pytest.mark.skipif(SANITIZED, reason="packages are made of the release alone")]

WORK = "/var/lib/vx_agent"
NEWER, BAD = DEB_VERSION + "1", DEB_VERSION + "2"
START = f"/opt/Halvorn/vx_agent/vx_agent --background --extdir ext --plugins network --workdir {WORK} --domain_var vex.HeartbeatInterval=1h"


@pytest.fixture(name="debs", scope="module")
def _debs(tmp_path_factory):
    return made_once(tmp_path_factory)


@pytest.fixture(name="newer", scope="module")
def _newer(debs, tmp_path_factory):
    def change(folder):
        with_other_files(folder)
        append(os.path.join(folder, "etc/vx_agent.conf"), "; of the newer package\n")
    return another(debs["vx-agent"], tmp_path_factory.mktemp("newer") / "newer.deb", NEWER, change)


@pytest.fixture(name="root")
def _root(tmp_path):
    if os.geteuid() != 0:
        pytest.skip("NOT ROOT: installing a package is not tested")
    known = sum_of("/var/lib/dpkg/status")
    made = PrivateRoot(str(tmp_path))
    for place in ("/etc/apt", "/var/lib/apt", "/var/cache/apt"):
        made.cover(place)
    os.chmod(made.file("/tmp"), 0o1777)
    yield made
    made.end()
    # What was installed was installed in there.
    assert sum_of("/var/lib/dpkg/status") == known


@pytest.fixture(name="repository")
def _repository(root):
    return Repository(root.run, root.file("/tmp"))


def append(path, text):
    with open(path, "a", encoding="utf-8") as file:
        file.write(text)


def sum_of(path):
    with open(path, "rb") as file:
        return hashlib.sha256(file.read()).hexdigest()


def start(repository):
    """By hand; the page's commands tell that it is well. The beats until now."""
    repository.shell(START)
    shown = repository.page("a look")
    assert shown.startswith("VEX OK - vx_agent is running"), shown
    return beats(repository)


def stop(root):
    supervisor = root.supervisor()
    send_signal(supervisor, signal.SIGTERM)
    wait_until(lambda: not alive(supervisor), what="the end of the supervisor")


def beats(repository):
    return [(beat["id"], beat["time"]) for beat in map(json.loads, repository.shell("vexctl heartbeats --json").splitlines())]


def test_nothing_is_taken_from_a_repository_that_is_not_signed_by_its_key(repository, debs):
    repository.add(debs["vx-agent"], DEB_VERSION)
    signed = f"{FOLDER}/dists/canary/InRelease"
    index = INDEX.format(suite="canary")
    cases = {
        "nothing signs it": (f"mv {signed} {FOLDER}/dists/canary/Release", "is not signed"),
        "the key signs something else": (f"sed -i 's/^Origin: .*/Origin: Somebody/' {signed}", "BADSIG"),
        "another key signs it": (f"gpg --quick-generate-key other@halvorn.example ed25519 sign && gpg --yes -u other@halvorn.example --clearsign "
                                 f"-o {signed} {FOLDER}/Release", "NO_PUBKEY"),
        "its list is another": (f"sed -i 's/^Version: .*/Version: 99/' {index}; gzip -kf {index}; rm -r {os.path.dirname(index)}/by-hash",
                                "Hash Sum mismatch"),
        "it is of last year": (f"sed -i 's/^Valid-Until: .*/Valid-Until: Sun, 01 Jan 2023 00:00:00 +0000/' {FOLDER}/Release; "
                               f"gpg --yes -u vx-agent@halvorn.example --clearsign -o {signed} {FOLDER}/Release", "is expired"),
        "its package is another": (f"printf x >>{FOLDER}/pool/canary/vx-agent_{DEB_VERSION}_amd64.deb", "Hash Sum mismatch"),
    }
    repository.shell(f"cp -a {FOLDER} /tmp/good")
    for case, (damage, said) in cases.items():
        repository.shell(f"rm -rf {FOLDER} /var/lib/apt/lists/*; cp -a /tmp/good {FOLDER}; {damage}")
        status, output = repository.try_page("a host", suite="canary")
        assert status == 100 and said in output, f"{case}: {status}, {output}"
        assert repository.try_shell("test -e /opt/Halvorn/vx_agent")[0] == 1, case
    repository.shell(f"rm -rf {FOLDER}; cp -a /tmp/good {FOLDER}")
    repository.page("a host", suite="canary")
    assert repository.version() == "ii " + DEB_VERSION
    # A host that has a list already is told too, and keeps what it has.
    repository.shell(f"mv {signed} {FOLDER}/dists/canary/Release")
    status, output = repository.try_page("an upgrade")
    assert status == 100 and "no longer signed" in output


def test_an_upgrade_goes_from_suite_to_suite_and_keeps_settings_and_history(root, repository, debs, newer):
    repository.add(debs["vx-agent"], DEB_VERSION)
    repository.promote(DEB_VERSION, "all")
    repository.page("a host", suite="all")
    append(root.file("/etc/vx_agent.conf"), "Trace = none\n")
    append(root.file("/etc/vx_agent.d/fleet.conf"), "[settings]\nvex.HeartbeatKeepRows = 1234\n")
    before = start(repository)
    child = root.child()
    repository.add(newer, NEWER)
    repository.page("an upgrade")
    assert repository.version() == "ii " + DEB_VERSION
    repository.promote(NEWER, "all")
    repository.page("an upgrade")
    assert repository.version() == "ii " + NEWER and root.child() == child
    stop(root)
    after = start(repository)
    assert after[:len(before)] == before and len(after) == len(before) + 1
    settings = repository.shell("vexctl config --changed")
    assert re.search(r"HeartbeatKeepRows +1234 .*/etc/vx_agent.d/fleet.conf", settings), settings
    with open(root.file("/etc/vx_agent.conf"), encoding="utf-8") as file:
        assert file.read().endswith("Trace = none\n")
    with open(root.file("/etc/vx_agent.conf.dpkg-dist"), encoding="utf-8") as file:
        assert file.read().endswith("; of the newer package\n")
    stop(root)


def whose_installation_fails(folder):
    append(os.path.join(folder, "DEBIAN/postinst"), "\necho 'no room for it here' >&2\nexit 1\n")


def whose_agent_does_not_start(folder):
    with_zipfile(os.path.join(folder, "opt/Halvorn/vx_agent/vex_core/vx_agent.vxe"), {"vx_agent.lua": "error('a bad version')\n"})


@pytest.mark.parametrize("change", [whose_installation_fails, whose_agent_does_not_start])
def test_a_bad_version_goes_back_to_the_one_before(root, repository, debs, tmp_path, change):
    repository.add(debs["vx-agent"], DEB_VERSION)
    repository.page("a host", suite="canary")
    before = start(repository)
    repository.add(another(debs["vx-agent"], tmp_path / "bad.deb", BAD, change), BAD)
    status, output = repository.try_page("an upgrade")
    if change is whose_installation_fails:
        assert status == 100 and "no room for it here" in output and repository.version() == "iF " + BAD
    else:
        assert status == 0 and repository.version() == "ii " + BAD
        stop(root)
        repository.shell(START)
        status, output = repository.try_page("a look", replace=("2m", "1s"))
        assert status == 1 and "OK" not in output, output
        wait_until(lambda: not root.supervisor(), what="the end of the bad version")
        status, output = repository.try_shell("vexctl status --nagios")
        assert status == 2 and output.startswith("VEX CRITICAL"), output
    repository.page("out of a suite", suite="canary", version=BAD)
    repository.page("list and sign", suite="canary")
    repository.page("back", good=DEB_VERSION)
    assert repository.version() == "hi " + DEB_VERSION
    # No host that has not had it finds it.
    offered = repository.shell("apt-cache madison vx-agent")
    assert DEB_VERSION in offered and BAD not in offered
    if root.supervisor():
        stop(root)
    after = start(repository)
    assert after[:len(before)] == before and len(after) == len(before) + 1
    stop(root)


def test_a_held_host_takes_no_version_until_it_is_let_go(repository, debs, newer):
    repository.add(debs["vx-agent"], DEB_VERSION)
    repository.page("a host", suite="canary")
    repository.page("back", good=DEB_VERSION)
    repository.add(newer, NEWER)
    repository.shell("apt-get update && apt-get upgrade -y")
    assert repository.version() == "hi " + DEB_VERSION
    repository.page("on again")
    repository.page("an upgrade")
    assert repository.version() == "ii " + NEWER


@pytest.mark.patient
@pytest.mark.skipif(not shutil.which("unattended-upgrade"), reason="NO UNATTENDED-UPGRADES here: tools/setup --wide installs it")
def test_a_host_takes_what_its_suite_offers_by_itself(root, repository, debs, newer):
    repository.add(debs["vx-agent"], DEB_VERSION)
    repository.promote(DEB_VERSION, "all")
    repository.page("a host", suite="all")
    with open(root.file("/etc/apt/apt.conf.d/52vx-agent"), "w", encoding="utf-8") as file:
        file.write(told("unattended"))

    def by_itself():
        # The two steps of apt's own timers, which go by the first two lines of that file.
        output = repository.shell("apt-get update && unattended-upgrade --verbose")
        return repository.version(), "conffile prompt" in output
    repository.add(newer, NEWER)
    assert by_itself() == ("ii " + DEB_VERSION, False), "it is in another suite"
    with open(root.file("/etc/vx_agent.conf"), encoding="utf-8") as file:
        settings = file.read()
    append(root.file("/etc/vx_agent.conf"), "Trace = none\n")
    repository.promote(NEWER, "all")
    assert by_itself() == ("ii " + DEB_VERSION, True), "it would ask whose settings count"
    with open(root.file("/etc/vx_agent.conf"), "w", encoding="utf-8") as file:
        file.write(settings)
    repository.shell("apt-mark hold vx-agent")
    assert by_itself() == ("hi " + DEB_VERSION, False)
    repository.page("on again")
    assert by_itself() == ("ii " + NEWER, False)


def test_the_repository_replaces_no_other_package(repository, debs, tmp_path):
    def other_name(folder):
        path = os.path.join(folder, "DEBIAN/control")
        with open(path, encoding="utf-8") as file:
            text = file.read()
        with open(path, "w", encoding="utf-8") as file:
            file.write(text.replace("Package: vx-agent\n", "Package: adduser\n"))
    repository.add(another(debs["vx-agent"], tmp_path / "other.deb", "99", other_name), "99")
    repository.add(debs["vx-agent"], DEB_VERSION)
    repository.page("a host", suite="canary")
    assert " 99\n" in repository.shell("apt-cache showpkg adduser | sed -n 's/^99 .*/ 99/p'")
    assert re.search(r"Candidate: (?!99\n)", repository.shell("apt-cache policy adduser"))
    assert "adduser" not in repository.shell("apt-get -s dist-upgrade | grep ^Inst || true")


def test_the_role_of_ansible_writes_what_the_page_tells():
    page = told("a host")
    for name, values in (("vx-agent.sources", {"{{ vx_agent_uri }}": "file:" + FOLDER, "{{ vx_agent_suite }}": "$suite"}), ("preferences", {})):
        with open(os.path.join(ROOT, "packaging/fleet/ansible/roles/vx_agent/templates", name + ".j2"), encoding="utf-8") as file:
            text = file.read()
        for variable, value in values.items():
            text = text.replace(variable, value)
        assert f"<<END\n{text}END\n" in page, name
