"""The staged tree is what the README promises, needs no GUI library, and works from wherever it lies."""
import os
import shlex
import shutil
import subprocess
import zipfile

import pytest

from conftest import BUILD_NUMBER, PATIENCE, VERSION, BUILD, ROOT, STAGE

FILES = {"vx_agent", "vexctl", "lib/vex_core.so", "lib/libSLB3.so", "vex_core/vex.vxe", "vex_core/vx_agent.vxe",
         "share/man/man1/vexctl.1", "share/man/man5/vx_agent.conf.5", "share/man/man7/vx_agent-events.7", "share/man/man7/vx_agent-plugin.7",
         "share/man/man8/vx_agent.8"}

APP = """
local M = {}
function M.main()
  print(dom0:Get("app.path.bin")); print(dom0:Get("app.name")); print(dom0:Get("app.path.exe")); return 0
end
return M
"""


def files_below(folder):
    return {os.path.relpath(os.path.join(inner, name), folder) for inner, _, names in os.walk(folder) for name in names}


def test_the_tree_has_the_documented_files(tree):
    assert files_below(tree.path) == FILES


def test_an_installation_without_further_words_makes_that_tree_in_opt_and_it_runs(tree, tmp_path):
    subprocess.run(["cmake", "--install", BUILD], env=dict(os.environ, DESTDIR=str(tmp_path / "root")), check=True,
                   capture_output=True)
    assert files_below(tmp_path / "root") == {"opt/Halvorn/vx_agent/" + name for name in FILES}
    installed = tmp_path / "root/opt/Halvorn/vx_agent"
    result = tree.run(executable=str(installed / "vx_agent"))
    assert (result.status, result.err) == (0, "")
    assert (installed / "work/vx_agent.log").is_file()


def test_each_archive_holds_the_modules_that_it_is_for():
    def names(archive):
        with zipfile.ZipFile(os.path.join(STAGE, "vex_core", archive)) as file:
            return {name for name in file.namelist() if not name.endswith("/")}
    common, application = names("vex.vxe"), names("vx_agent.vxe")
    assert {"luaunit.lua", "tests/vexunit.lua", "vex/json.lua"} <= common
    assert {name.split("/")[0] for name in common} == {"luaunit.lua", "tests", "vex"}
    assert "vx_agent/init.lua" in application
    assert {name.split("/")[0] for name in application} == {"vx_agent"}


def test_the_test_library_of_the_distribution_is_packed_and_not_kept_here():
    listed = subprocess.run(["git", "-C", ROOT, "ls-files"], capture_output=True, text=True, check=False)
    if listed.returncode != 0:
        pytest.skip("not under version control here")
    assert not [name for name in listed.stdout.splitlines() if os.path.basename(name) == "luaunit.lua"]


@pytest.mark.parametrize("name", ["vx_agent", "vexctl", "lib/vex_core.so", "lib/libSLB3.so"])
def test_nothing_needs_a_gui_library(name):
    needed = subprocess.run(["ldd", os.path.join(STAGE, name)], capture_output=True, text=True, check=True).stdout
    assert "libwx_baseu" in needed or name == "lib/libSLB3.so"
    for gui in ("gtk", "gdk", "X11", "cairo", "pango", "_core-3"):
        assert gui not in needed, needed
    assert "not found" not in needed


def test_libraries_are_found_beside_the_executable(tree):
    needed = subprocess.run(["ldd", os.path.join(tree.path, "vx_agent")], capture_output=True, text=True, check=True).stdout
    for line in needed.splitlines():
        if "vex_core.so" in line or "libSLB3.so" in line:
            assert tree.path in line, line


@pytest.mark.fast
def test_the_name_of_the_executable_is_the_application_name(tree):
    tree.app("probe", APP)
    result = tree.run(name="probe")
    assert result.status == 0, result.err
    assert result.out.splitlines() == [tree.path, "probe", tree.path + "/probe"]


def test_an_executable_named_like_a_file_with_extensions_loses_the_last_one(tree):
    # The module "my.agent" is my/agent.lua on the path.
    tree.file("my/agent.lua", APP)
    os.link(os.path.join(tree.path, "vx_agent"), os.path.join(tree.path, "my.agent.exe"))
    assert tree.run(name="my.agent.exe").out.splitlines()[1] == "my.agent"


def test_it_runs_from_any_folder_by_a_relative_path(tree, tmp_path):
    tree.app("probe", APP)
    elsewhere = tmp_path / "elsewhere"
    elsewhere.mkdir()
    relative = os.path.relpath(os.path.join(tree.path, "probe"), elsewhere)
    result = tree.run(executable=relative, name="probe", cwd=elsewhere)
    assert result.out.splitlines() == [tree.path, "probe", tree.path + "/probe"]


def test_a_symbolic_link_beside_it_is_another_name(tree):
    tree.app("probe", APP)
    os.unlink(os.path.join(tree.path, "probe"))
    os.symlink("vx_agent", os.path.join(tree.path, "probe"))
    assert tree.run(name="probe").out.splitlines()[:2] == [tree.path, "probe"]


def test_a_symbolic_link_elsewhere_makes_its_own_folder_the_binary_folder(tree, tmp_path):
    links = tmp_path / "links"
    links.mkdir()
    os.symlink(os.path.join(tree.path, "vx_agent"), links / "probe")
    (links / "probe.lua").write_text(APP)
    result = tree.run("--workdir", str(tmp_path / "w"), executable=str(links / "probe"), name="probe")
    assert result.out.splitlines()[:2] == [str(links), "probe"]


def test_a_copy_of_the_tree_runs_from_another_folder(tree, tmp_path):
    copy = tmp_path / "copy of tree"
    shutil.copytree(tree.path, copy)
    (copy / "probe.lua").write_text(APP)
    os.rename(copy / "vx_agent", copy / "probe")
    assert tree.run(executable=str(copy / "probe"), name="probe").out.splitlines()[0] == str(copy)


def test_the_vendor_folder_is_the_parent_when_its_path_names_the_vendor(tmp_path, tree):
    source = "return { main = function() print(dom0:Get('app.path.hv')); return 0 end }"
    tree.app("probe", source)
    assert tree.run(name="probe").out.strip() == tree.path
    inside = tmp_path / "opt" / "HalvornX" / "agent"
    shutil.copytree(tree.path, inside)
    assert tree.run(executable=str(inside / "probe"), name="probe").out.strip() == str(inside.parent)


@pytest.mark.quick
@pytest.mark.fast
def test_the_bundled_application_reports_on_this_host(tree):
    result = tree.run()
    assert result.status == 0, result.err
    assert result.err == ""
    assert os.uname().nodename in result.out
    assert f"VEX {VERSION}.{BUILD_NUMBER} starting." in result.log


@pytest.mark.quick
def test_the_readmes_first_application_runs_as_it_stands(tmp_path):
    with open(os.path.join(ROOT, "README.md"), encoding="utf-8") as file:
        block = next(part for part in file.read().split("\n\n") if "cp -r build/stage" in part)
    script = "\n".join(line[4:] for line in block.splitlines())
    assert script.count("/tmp/hello") == 2 and script.count("build/stage") == 1
    script = script.replace("/tmp/hello", "hello").replace("build/stage", shlex.quote(STAGE))
    result = subprocess.run(["bash", "-e", "-c", script], cwd=tmp_path, capture_output=True, text=True, timeout=PATIENCE, check=False)
    assert (result.returncode, result.stderr) == (0, "")
    assert result.stdout == "init of hello\nmain, called with\tworld\n"
    assert "that was it" in (tmp_path / "hello" / "work" / "hello.log").read_text()
