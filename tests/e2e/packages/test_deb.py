"""The Debian packages: what is in them, that the same sources give the same bytes, and what the distribution's checker says."""
import filecmp
import glob
import gzip
import os
import re
import shutil
import stat
import subprocess

import pytest

from conftest import BUILD, PATIENCE, ROOT, SANITIZED
from debian_package import DEB_VERSION, TIME, contents, make, made_once

pytestmark = pytest.mark.skipif(SANITIZED, reason="packages are made of the release alone")

TREE = "opt/Halvorn/vx_agent/"
BINARIES = ("vx_agent", "vexctl", "lib/vex_core.so", "lib/libSLB3.so")


@pytest.fixture(scope="module", name="debs")
def _debs(tmp_path_factory):
    return made_once(tmp_path_factory)


@pytest.fixture(scope="module", name="unpacked")
def _unpacked(debs, tmp_path_factory):
    return contents(debs["vx-agent"], tmp_path_factory.mktemp("deb") / "root")


@pytest.fixture(scope="module", name="symbols")
def _symbols(debs, tmp_path_factory):
    return contents(debs["vx-agent-dbgsym"], tmp_path_factory.mktemp("dbgsym") / "root")


def files_below(folder):
    return {os.path.relpath(os.path.join(inner, name), folder) for inner, _, names in os.walk(folder) for name in names
            if not os.path.islink(os.path.join(inner, name))}


def control(folder):
    with open(os.path.join(folder, "DEBIAN", "control"), encoding="utf-8") as file:
        return dict(re.findall(r"^([\w-]+): (.*)$", file.read(), re.M))


def readelf(option, file):
    return subprocess.run(["readelf", "-W", option, file], capture_output=True, text=True, check=True).stdout


def test_the_tree_lies_below_opt_and_the_rest_where_the_system_looks_for_it(unpacked):
    files = files_below(unpacked)
    tree = {name[len(TREE):] for name in files if name.startswith(TREE)}
    assert tree == {"vx_agent", "vexctl", "lib/vex_core.so", "lib/libSLB3.so", "vex_core/vex.vxe", "vex_core/vx_agent.vxe", "network/plugin.lua",
                    "ext/trend.vxe", "ext/trend.vxe.version"}
    assert {name for name in files if name.startswith("etc/")} == {"etc/vx_agent.conf", "etc/vx_agent.d/README"}
    assert {name for name in files if name.startswith("usr/share/man/")} == {
        "usr/share/man/" + name for name in ("man1/vexctl.1.gz", "man5/vx_agent.conf.5.gz", "man7/vx_agent-events.7.gz", "man7/vx_agent-plugin.7.gz",
                                             "man8/vx_agent.8.gz")}
    assert {name for name in files if name.startswith("lib/")} == {"lib/systemd/system/vx_agent.service",
                                                                  "lib/systemd/system/vx_agent-unprivileged.service"}
    assert {name.split("/")[0] for name in files} == {"DEBIAN", "etc", "lib", "opt", "usr"}


def test_vexctl_is_found_by_its_name_and_completed_by_shells(unpacked):
    assert os.readlink(os.path.join(unpacked, "usr/bin/vexctl")) == f"/{TREE}vexctl"
    for shell, place in (("bash", "bash-completion/completions/vexctl"), ("zsh", "zsh/vendor-completions/_vexctl")):
        subprocess.run([shell, "-n", os.path.join(unpacked, "usr/share", place)], check=True)


def test_settings_are_the_operators_once_installed(unpacked):
    with open(os.path.join(unpacked, "DEBIAN", "conffiles"), encoding="utf-8") as file:
        assert file.read() == "/etc/vx_agent.conf\n/etc/vx_agent.d/README\n"


def test_the_version_is_the_agents(debs, unpacked, symbols):
    assert control(unpacked)["Version"] == control(symbols)["Version"] == DEB_VERSION
    architecture = control(unpacked)["Architecture"]
    assert {os.path.basename(file) for file in debs.values()} == {f"vx-agent_{DEB_VERSION}_{architecture}.deb",
                                                                  f"vx-agent-dbgsym_{DEB_VERSION}_{architecture}.deb"}
    with gzip.open(os.path.join(unpacked, "usr/share/doc/vx-agent/changelog.Debian.gz"), "rt") as file:
        assert file.readline() == f"vx-agent ({DEB_VERSION}) unstable; urgency=medium\n"


def test_each_library_of_the_system_that_a_binary_names_is_a_dependency(unpacked):
    wanted = {re.match(r"\s*(\S+)", part)[1] for part in control(unpacked)["Depends"].split(",")}
    named = {library for name in BINARIES for library in re.findall(r"NEEDED.*\[(.*)\]", readelf("-d", os.path.join(unpacked, TREE, name)))}
    loaded = subprocess.run(["ldd", os.path.join(unpacked, TREE, "vx_agent")], capture_output=True, text=True, check=True).stdout
    owners = set()
    for library, path in re.findall(r"^\s*(?:(\S+) => )?(/\S+)", loaded, re.M):
        if library in named - {"vex_core.so", "libSLB3.so"}:
            # The system's folder of libraries is one, under two names.
            path = re.sub("^(/usr)?/lib", "*/lib", path)
            owners |= {line.split(":")[0] for line in subprocess.run(["dpkg", "-S", path], capture_output=True, text=True,
                                                                     check=True).stdout.splitlines()}
    assert len(owners) > 8 and wanted == owners | {"adduser"}
    # What the operators' guide tells for hosts without this package.
    with open(os.path.join(ROOT, "docs/OPERATIONS.md"), encoding="utf-8") as file:
        told = re.search(r"^\| (`.*`) \| the agent does not start \|$", file.read(), re.M)[1]
    assert set(re.findall("`(.*?)`", told)) == owners


def test_all_is_roots_and_nobody_elses_to_write(debs, unpacked):
    listed = subprocess.run(["dpkg-deb", "-c", debs["vx-agent"]], capture_output=True, text=True, check=True).stdout
    assert {line.split()[1] for line in listed.splitlines()} == {"root/root"}
    runs = {TREE + "vx_agent", TREE + "vexctl", *("DEBIAN/" + name for name in ("postinst", "prerm", "postrm"))}
    for name in files_below(unpacked):
        assert stat.S_IMODE(os.stat(os.path.join(unpacked, name)).st_mode) == (0o755 if name in runs else 0o644), name


def test_what_is_shipped_is_stripped_and_the_symbols_belong_to_it(unpacked, symbols):
    ids = set()
    for name in BINARIES:
        file = os.path.join(unpacked, TREE, name)
        assert not re.search(r"\.(debug_\w+|symtab)\b", readelf("-S", file))
        build_id = re.search(r"Build ID: ([0-9a-f]{40})", readelf("-n", file))[1]
        debug = os.path.join(symbols, "usr/lib/debug/.build-id", build_id[:2], build_id[2:] + ".debug")
        assert re.search(r"Build ID: ([0-9a-f]{40})", readelf("-n", debug))[1] == build_id
        assert ".debug_info" in readelf("-S", debug)
        ids.add(build_id)
    assert set(control(symbols)["Build-Ids"].split()) == ids
    assert control(symbols)["Depends"] == f"vx-agent (= {DEB_VERSION})"


def test_the_licence_of_the_one_packed_library_comes_along(unpacked):
    folder = os.path.join(unpacked, "usr/share/doc/vx-agent")
    with open(os.path.join(folder, "copyright.lua-unit"), encoding="utf-8") as file:
        assert "Redistributions in binary form must reproduce the above copyright" in file.read()
    with open(os.path.join(folder, "copyright"), encoding="utf-8") as file:
        text = file.read()
    assert "its owner's to choose" in text
    for library in ("wxWidgets", "Lua 5.2", "OpenSSL 3", "SQLite 3", "libdeflate", "ISA-L", "zlib", "pugixml", "CLI11", "JSON for Modern C++", "LuaUnit"):
        assert library in text, library


def test_what_the_documents_point_to_comes_along(unpacked):
    folder = os.path.join(unpacked, "usr/share/doc/vx-agent")
    pages = glob.glob(folder + "/*.md")
    assert len(pages) >= 8
    for page in pages:
        with open(page, encoding="utf-8") as file:
            for target in re.findall(r"\]\(([^)#]+)[^)]*\)", file.read()):
                assert target.startswith("https://") or os.path.exists(os.path.join(folder, target)), f"{page}: {target}"


def test_what_a_fleet_is_run_with_comes_along(unpacked):
    sources = os.path.join(ROOT, "packaging/fleet")
    names = files_below(sources)
    assert "ansible/rollout.yml" in names
    assert filecmp.cmpfiles(sources, os.path.join(unpacked, "usr/share/doc/vx-agent/fleet"), names, shallow=False) == (list(names), [], [])


def same(first, second, tmp_path):
    assert {os.path.basename(file) for file in first.values()} == {os.path.basename(file) for file in second.values()}
    for name, file in first.items():
        if not filecmp.cmp(file, second[name], shallow=False):
            folders = [contents(deb, tmp_path / f"{name}-{number}") for number, deb in enumerate((file, second[name]))]
            names = set(files_below(folders[0])) | set(files_below(folders[1]))
            pytest.fail(f"{name}: not the same bytes, by {sorted(filecmp.cmpfiles(*folders, names, shallow=False)[1:])}")


@pytest.mark.patient
def test_who_packs_when_and_where_does_not_show(debs, tmp_path):
    elsewhere = {**os.environ, **TIME, "TZ": "Asia/Kathmandu", "LC_ALL": "C", "HOME": str(tmp_path), "TMPDIR": str(tmp_path)}
    same(debs, make("deb", tmp_path / "again", env=elsewhere, cwd=tmp_path, umask=0o077), tmp_path)


def test_the_folder_of_the_build_shows_nowhere(unpacked, symbols, tmp_path):
    for folder in (unpacked, symbols):
        for name in files_below(folder):
            file = os.path.join(folder, name)
            if name.endswith(".debug"):
                file = str(tmp_path / "debug")
                subprocess.run(["objcopy", "--decompress-debug-sections", os.path.join(folder, name), file], check=True)
            with open(file, "rb") as opened:
                data = opened.read()
            # "./build" is the place of the build in the debug data, whatever the folder of the sources is called.
            found = re.search(rb"(?<![.\w])" + re.escape(ROOT.encode()) + rb"(?!\w)", gzip.decompress(data) if name.endswith(".gz") else data)
            assert not found, name


@pytest.mark.patient
@pytest.mark.slow
def test_the_same_sources_elsewhere_give_the_same_packages(debs, tmp_path):
    listed = subprocess.run(["git", "-C", ROOT, "ls-files", "-z", "--cached", "--others", "--exclude-standard"], capture_output=True,
                            text=True, check=False)
    if listed.returncode != 0:
        pytest.skip("not under version control here")
    clone = tmp_path / "a rather longer name of a folder" / "clone"
    for name in filter(None, listed.stdout.split("\0")):
        if os.path.isfile(os.path.join(ROOT, name)):
            (clone / name).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy2(os.path.join(ROOT, name), clone / name, follow_symlinks=False)
    time = subprocess.run(["git", "-C", ROOT, "log", "-1", "--format=%ct"], capture_output=True, text=True, check=True).stdout.strip()
    environment = {**os.environ, "CCACHE_DISABLE": "1", "SOURCE_DATE_EPOCH": time}
    subprocess.run([str(clone / "tools/build"), "release", "stage", "packages"], env=environment, check=True, stdout=subprocess.DEVNULL)
    same(debs, make("deb", tmp_path / "again", build=str(clone / "build/release"), root=str(clone), env=environment), tmp_path)


@pytest.mark.patient
def test_the_distributions_checker_finds_nothing(debs):
    if shutil.which("lintian") is None:
        pytest.skip("NO LINTIAN HERE (tools/packages.txt names it): what Debian's rules say of the package is not tested")
    environment = {key: value for key, value in os.environ.items() if key != "SOURCE_DATE_EPOCH"}
    for file in debs.values():
        checked = subprocess.run(["lintian", "--allow-root", "--tag-display-limit", "0", file], env=environment,
                                 capture_output=True, text=True, timeout=300, check=False)
        found = [line for line in checked.stdout.splitlines() if not line.startswith("N:")]
        assert (checked.returncode, found) == (0, [])


@pytest.mark.parametrize("words, said", [
    (["nonsense"], "invalid choice: 'nonsense'"),
    ([], "the following arguments are required: format"),
])
def test_a_wrong_call_is_told(words, said):
    result = subprocess.run([os.path.join(ROOT, "tools", "package"), *words], capture_output=True, text=True, timeout=PATIENCE, check=False)
    assert (result.returncode, result.stdout) == (2, "") and said in result.stderr


def test_a_time_that_is_none_is_told(tmp_path):
    result = subprocess.run([os.path.join(ROOT, "tools", "package"), "deb", "--from", BUILD, "--out", str(tmp_path)], capture_output=True,
                            text=True, timeout=PATIENCE, check=False, env={**os.environ, "SOURCE_DATE_EPOCH": "yesterday"})
    assert (result.returncode, result.stdout) == (1, "")
    assert result.stderr == "package: SOURCE_DATE_EPOCH is no number of seconds: 'yesterday'\n"
    assert glob.glob(str(tmp_path / "*")) == []
