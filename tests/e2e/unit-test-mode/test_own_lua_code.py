"""The project's own Lua tests, from source and from the packed archives, and the authors' worked example."""
import glob
import os
import re
import shlex
import subprocess

import pytest

from conftest import BUILD, ROOT, SANITIZER

TESTS = os.path.join(ROOT, "tests", "lua")


def package(name, kind):
    return glob.glob(f"{BUILD}/packages/Agent-{name}-*.{kind}")[0]


@pytest.mark.skipif(SANITIZER == "thread", reason="counting lines takes minutes there; ./test runs the Lua tests in this build "
                    "without")
@pytest.mark.parametrize("origin", ["source", "archives"])
def test_the_projects_lua_code_passes_its_tests(tree, origin):
    if origin == "source":
        templates = [f"{ROOT}/lua/?.lua", f"{ROOT}/lua/?/init.lua", f"{ROOT}/lua/plugins/?.lua", f"{TESTS}/?.lua"]
        arguments = ["--lua_path", ";".join(templates)]
    else:
        arguments = ["--lua_path", f"{TESTS}/?.lua", "--extdir", f"{BUILD}/packages/ext", "--zippath", package("Network", "vxp")]
    result = tree.run(*arguments, "--unittest", "tests/lua/**/*_test.lua", "--", "--coverage", tree.file("coverage.info"),
                      cwd=ROOT)
    assert result.status == 0, result.out + result.err
    # What was tested is what was meant to be.
    with open(tree.file("coverage.info")) as file:
        sources = re.findall(r"^SF:(.*)$", file.read(), re.M)
    from_source = {source for source in sources if source.startswith(f"{ROOT}/lua/")}
    from_archives = {source for source in sources if ".vxe/" in source or ".vxp/" in source}
    tested, other = (from_source, from_archives) if origin == "source" else (from_archives, from_source)
    assert not other
    for module in ("vx_agent/heartbeat.lua", "vex/json.lua", "network/plugin.lua", "trend/statistics.lua"):
        assert any(source.endswith("/" + module) for source in tested), module


def guide():
    with open(f"{ROOT}/docs/AUTHORS-GUIDE.md") as file:
        return file.read()


def test_the_guide_shows_the_example_as_it_is():
    shown = re.findall(r"<!-- file: (\S+) -->\n```\w*\n(.*?)```", guide(), re.S)
    assert len(shown) >= 2
    for name, text in shown:
        with open(os.path.join(ROOT, name)) as file:
            assert file.read() == text, name


def test_the_guides_commands_run_as_they_stand(tree):
    commands = re.findall(r"<!-- runs -->\n```sh\n(.*?)```", guide(), re.S)
    assert len(commands) >= 2
    for command in commands:
        words = shlex.split(command.replace("\\\n", " "))
        assert words[0] == "build/stage/vx_agent"
        result = tree.run(*words[1:], cwd=ROOT)
        assert result.status == 0, command + result.out + result.err


def test_the_guides_package_installs(tree, tmp_path):
    commands = re.findall(r"<!-- packs -->\n```sh\n(.*?)```", guide(), re.S)
    assert len(commands) == 1
    script = commands[0].replace("/tmp/", shlex.quote(tree.path) + "/").replace("build/stage/", shlex.quote(tree.path) + "/")
    subprocess.run(["sh", "-e", "-c", script], cwd=ROOT, check=True, stdout=subprocess.DEVNULL)
    result = tree.run("--install_plugins", "--plugins", "spool", "--domain_var", f"spool.Folder={tmp_path}")
    assert (result.status, result.err) == (0, "")
    assert "Plugin Spool 1.0.0\n  bytes  0 B\n  files  0\n" in result.out
    assert glob.glob(tree.path + "/Agent-Spool-*.vxp.done")


def test_the_worker_of_the_page_on_lua_runs_as_shown(tree):
    with open(f"{ROOT}/docs/LUA-API.md") as file:
        module, use = re.findall(r"```lua\n(.*?)```", file.read(), re.S)
    assert module.startswith("-- pulse.lua\n")
    tree.file("pulse.lua", module)
    tree.app("probe", f"return {{ main = function()\n{use}\nreturn 0 end }}")
    result = tree.run(name="probe")
    assert (result.status, result.err) == (0, "")
    assert len(re.findall(r" INFO \[\d+/worker pulse\] still here\n", result.log)) == 2
