"""What is packed for other systems: a package of RPM, and for Solaris what becomes a package of IPS, with the manifests of IPS and SMF,
which are read here as far as their forms allow without that system."""
import filecmp
import os
import re
import shlex
import shutil
import stat
import subprocess
import xml.etree.ElementTree

import pytest

from conftest import BUILD_NUMBER, ROOT, SANITIZED, VERSION, STAGE
from debian_package import contents, make, made_once

PACKAGING = os.path.join(ROOT, "packaging")
TREE = "opt/Halvorn/vx_agent"


@pytest.fixture(scope="module", name="rpm")
def _rpm(tmp_path_factory):
    if SANITIZED or shutil.which("rpmbuild") is None:
        pytest.skip("NO RPMBUILD HERE (tools/packages.txt names it), or no release: the package of RPM is not tested")
    file, = made_once(tmp_path_factory, "rpm").values()
    return file


def query(rpm, *words):
    return subprocess.run(["rpm", "-qp", "--nosignature", *words, rpm], capture_output=True, text=True, check=True).stdout


def tree():
    """The files of an installation: the staged ones and the plugins."""
    staged = {os.path.relpath(os.path.join(inner, name), STAGE) for inner, _, names in os.walk(STAGE) for name in names}
    return {name for name in staged if not name.startswith("work/")} | {"network/plugin.lua", "ext/trend.vxe", "ext/trend.vxe.version"}


def test_the_rpm_has_the_tree_the_units_and_the_settings(rpm):
    files = set(query(rpm, "-l").split("\n"))
    assert {name for name in files if re.match(rf"/{TREE}/.*\w\.\w+$|/{TREE}/(vx_agent|vexctl)$", name)} \
        == {f"/{TREE}/{name}" for name in tree() if not name.startswith("share/")}
    assert {"/usr/lib/systemd/system/vx_agent.service", "/usr/lib/systemd/system/vx_agent-unprivileged.service",
            "/usr/share/man/man1/vexctl.1.gz", "/usr/share/man/man8/vx_agent.8.gz", "/usr/share/doc/vx_agent/copyright"} <= files
    assert query(rpm, "--configfiles") == "/etc/vx_agent.conf\n/etc/vx_agent.d/README\n"
    assert query(rpm, "--qf", "%{NAME} %{VERSION} %{RELEASE}") == f"vx_agent {VERSION} {BUILD_NUMBER}"
    assert set(re.findall(r"^\S+ +(\S+) +(\S+)", query(rpm, "--qf", "[%{FILEMODES:perms} %{FILEUSERNAME} %{FILEGROUPNAME}\n]"), re.M)) \
        == {("root", "root")}


def test_the_rpm_needs_the_systems_libraries_and_offers_none(rpm):
    needs = query(rpm, "--requires")
    for library in ("libwx_baseu-3.2.so.0", "liblua5.2-c++.so.0", "libsqlite3.so.0", "libcrypto.so.3", "libdeflate.so.0", "libz.so.1"):
        assert library in needs
    for text in (needs, query(rpm, "--provides")):
        assert "vex_core.so" not in text and "libSLB3.so" not in text


@pytest.mark.patient
def test_who_packs_the_rpm_when_and_where_does_not_show(rpm, tmp_path):
    again, = make("rpm", tmp_path / "again", env={**os.environ, "TZ": "Asia/Kathmandu", "TMPDIR": str(tmp_path)}, umask=0o077).values()
    assert filecmp.cmp(rpm, again, shallow=False)


def test_the_smf_manifest_is_well_formed_and_starts_what_the_unit_starts():
    service = xml.etree.ElementTree.parse(os.path.join(PACKAGING, "vx_agent.xml")).getroot().find("service")
    # The order that the type of the document asks for.
    assert [part.tag for part in service] == ["create_default_instance", "single_instance", "dependency", "dependency", "exec_method",
                                              "exec_method", "property_group", "stability", "template"]
    methods = {part.get("name"): part.get("exec") for part in service.iter("exec_method")}
    with open(os.path.join(PACKAGING, "vx_agent.service"), encoding="utf-8") as file:
        assert f"\nExecStart={methods['start']}\n" in file.read()
    assert set(methods) == {"start", "stop"}
    page = service.find("template/documentation/manpage")
    assert os.path.relpath(page.get("manpath"), "/" + TREE) == "share/man"
    assert f"share/man/man{page.get('section')}/{page.get('title')}.{page.get('section')}" in tree()


@pytest.fixture(scope="module", name="ips")
def _ips(tmp_path_factory):
    if SANITIZED:
        pytest.skip("packages are made of the release alone")
    folder, = made_once(tmp_path_factory, "ips").values()
    return folder


def actions(ips):
    """Those of the manifest: kind, the file that it is made of, and what it says by name."""
    with open(os.path.join(ips, "vx_agent.p5m"), encoding="utf-8") as file:
        for line in file:
            words = shlex.split(line, comments=True)
            if words:
                kind, *rest = words
                source = rest.pop(0) if "=" not in rest[0] else ""
                yield kind, source, dict(word.split("=", 1) for word in rest)


def places_below(folder):
    """All but folders."""
    return {os.path.relpath(os.path.join(inner, name), folder) for inner, folders, names in os.walk(folder)
            for name in [*folders, *names] if os.path.islink(os.path.join(inner, name)) or not os.path.isdir(os.path.join(inner, name))}


def test_the_ips_manifest_names_each_file_that_lies_behind_it_with_its_rights(ips):
    files = os.path.join(ips, "files")
    found = list(actions(ips))
    assert {kind for kind, *_ in found} == {"set", "license", "dir", "file", "link"}
    named = [facts["path"] for kind, _, facts in found if kind in ("file", "link")]
    assert sorted(named) == sorted(places_below(files))
    folders = {facts["path"] for kind, _, facts in found if kind == "dir"}
    assert folders == {place for place in (os.path.relpath(inner, files) for inner, *_ in os.walk(files))
                       if re.search(r"/vx_agent(\.d|/.*|)$|/Halvorn$", place)}
    for kind, source, facts in found:
        if kind in ("file", "dir"):
            assert (facts["owner"], facts["group"]) == ("root", "sys") and source == (facts["path"] if kind == "file" else "")
            assert f"{stat.S_IMODE(os.stat(os.path.join(files, facts['path'])).st_mode):04o}" == facts["mode"]
        elif kind == "link":
            assert os.readlink(os.path.join(files, facts["path"])) == facts["target"]
            assert os.path.isfile(os.path.join(files, os.path.dirname(facts["path"]), facts["target"])) and facts["target"][0] != "/"
        elif kind == "license":
            assert os.path.isfile(os.path.join(files, source))
    by_path = {facts.get("path"): facts for _, _, facts in found}
    assert by_path["var/lib/vx_agent"]["mode"] == "0700"
    assert by_path["lib/svc/manifest/application/vx_agent.xml"]["restart_fmri"] == "svc:/system/manifest-import:default"
    assert {path for path, facts in by_path.items() if "preserve" in facts} == {"etc/vx_agent.conf", "etc/vx_agent.d/README"}
    names = {facts["name"]: facts["value"] for kind, _, facts in found if kind == "set"}
    assert names["pkg.fmri"] == f"pkg:/application/vx_agent@{VERSION}-{BUILD_NUMBER}" and "pkg.summary" in names


def as_everywhere(places):
    """Places without what each system has elsewhere: the manual, what completes in zsh, documents, and what starts the agent."""
    for place in places:
        place = re.sub(r"^usr/share/doc/vx-agent/", "usr/share/doc/vx_agent/", place.removesuffix(".gz"))
        place = place.replace("/zsh/vendor-completions/", "/zsh/site-functions/")
        if not re.match(rf"DEBIAN/|usr/share/lintian/|usr/share/doc/vx_agent/changelog|(usr/)?lib/(systemd|svc)/|{TREE}/share/", place):
            yield place


def test_a_package_of_one_system_has_what_that_of_another_has(rpm, ips, tmp_path_factory):
    root = contents(made_once(tmp_path_factory)["vx-agent"], tmp_path_factory.mktemp("deb") / "root")
    expected = set(as_everywhere(places_below(root)))
    assert len(expected) > 40 and "usr/bin/vexctl" in expected
    assert set(as_everywhere(places_below(os.path.join(ips, "files")))) == expected
    listed = query(rpm, "--qf", "[%{FILEMODES:perms} %{FILENAMES}\n]").splitlines()
    assert set(as_everywhere(line.split(" /", 1)[1] for line in listed if line[0] != "d")) == expected
