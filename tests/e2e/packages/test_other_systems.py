"""What is packed for other systems: a package of RPM, and for Solaris the manifests of SMF and IPS, which are read here as far as
their forms allow without that system."""
import filecmp
import os
import re
import shlex
import shutil
import subprocess
import xml.etree.ElementTree

import pytest

from conftest import BUILD_NUMBER, ROOT, SANITIZED, VERSION, STAGE
from debian_package import make, made_once

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


def actions():
    """Those of the manifest: kind, the file that it is made of, and what it says by name."""
    with open(os.path.join(PACKAGING, "vx_agent.p5m"), encoding="utf-8") as file:
        for line in file:
            words = shlex.split(line, comments=True)
            if words:
                kind, *rest = words
                source = rest.pop(0) if "=" not in rest[0] else ""
                yield kind, source, dict(word.split("=", 1) for word in rest)


def test_the_ips_manifest_has_every_file_of_the_tree_and_every_folder():
    found = list(actions())
    assert {kind for kind, *_ in found} == {"set", "license", "dir", "file", "link"}
    assert [facts for kind, _, facts in found if kind == "link"] == [{"path": "usr/bin/vexctl", "target": f"../../{TREE}/vexctl"}]
    files = {facts["path"]: (source, facts) for kind, source, facts in found if kind == "file"}
    assert {name[len(TREE) + 1:] for name in files if name.startswith(TREE + "/")} == tree()
    assert all(source == path for path, (source, _) in files.items() if path.startswith(TREE))
    others = {path: source for path, (source, _) in files.items() if not path.startswith(TREE)}
    assert others == {"etc/vx_agent.conf": "vx_agent.conf", "etc/vx_agent.d/README": "vx_agent.d/README",
                      "lib/svc/manifest/application/vx_agent.xml": "vx_agent.xml"}
    for source in others.values():
        assert os.path.isfile(os.path.join(PACKAGING, source)), source
    folders = {facts["path"]: facts for kind, _, facts in found if kind == "dir"}
    for path in files:
        assert os.path.dirname(path) in folders or path.startswith("lib/svc/"), path
    for facts in [*folders.values(), *(facts for _, facts in files.values())]:
        assert facts["owner"] == "root" and facts["group"] == "sys" and re.fullmatch("0[0-7]{3}", facts["mode"])
    assert folders["var/lib/vx_agent"]["mode"] == "0700"
    assert files["lib/svc/manifest/application/vx_agent.xml"][1]["restart_fmri"] == "svc:/system/manifest-import:default"
    names = {facts["name"]: facts["value"] for kind, _, facts in found if kind == "set"}
    assert names["pkg.fmri"] == "pkg:/application/vx_agent@$(VERSION)" and "pkg.summary" in names
