"""What the environment may not do: name code that the agent loads. Programs that it starts find all of it again."""
import os

import pytest

MAIN = "local M = {}\nfunction M.main()\n%s\nreturn 0\nend\nreturn M"


@pytest.mark.fast
@pytest.mark.parametrize("variable", ["LUA_PATH", "LUA_PATH_5_2", "LUA_CPATH", "LUA_CPATH_5_2"])
@pytest.mark.parametrize("where", ["the main state", "a worker"])
def test_no_folder_of_modules_is_named_by_it(tree, tmp_path, variable, where):
    look = "local found, why = pcall(require, 'stray')\nassert(not found)\nassert(not why:find('elsewhere', 1, true), why)"
    tree.file("elsewhere/stray.lua", "error('elsewhere was looked in')")
    tree.file("elsewhere/stray.so", "no library")
    tree.file("job.lua", "return { run = function()\n" + look + "\nend }")
    worker = "local over, status, why = dom0:StartThread('job'):Join(20)\nassert(status == 0, why)"
    tree.app("probe", MAIN % (look if where == "the main state" else worker))
    template = tree.file("elsewhere/?." + ("so" if "CPATH" in variable else "lua"))
    result = tree.run(name="probe", env={variable: template + ";;"})
    assert (result.status, result.err) == (0, "")


@pytest.mark.fast
def test_no_configuration_of_openssl_is_named_by_it_for_the_agent_but_for_its_programs(tree):
    # Whoever opens it to read waits for a writer: the run would not end.
    configuration = tree.file("openssl.cnf")
    os.mkfifo(configuration)
    tree.app("probe", MAIN % "print(select(2, dom0:Execute('/usr/bin/env')))")
    given = {"OPENSSL_CONF": configuration, "OPENSSL_MODULES": "/nowhere/modules", "OPENSSL_ENGINES": "/nowhere/engines",
             "OPENSSL_CONF_INCLUDE": "/nowhere/include", "LUA_PATH": "/nowhere/?.lua", "LUA_CPATH_5_2": "/nowhere/?.so"}
    result = tree.run(name="probe", env=given)
    assert (result.status, result.err) == (0, "")
    assert {f"{name}={value}" for name, value in given.items()} <= set(result.out.splitlines())
