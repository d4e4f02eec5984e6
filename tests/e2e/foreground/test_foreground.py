"""The foreground run from end to end: order of the module's functions, statuses, arguments, and what is in the log."""
import locale
import os
import re
import shutil
import struct
import subprocess

import pytest

from conftest import BUILD_NUMBER, VERSION, SANITIZED

LIFE = """
local M = {}
print("load")
function M.init() print("init"); return 0 end
function M.main() print("main"); return 0 end
function M.shutdown() print("shutdown"); return 0 end
return M
"""
NAMES = pytest.mark.parametrize("name", ["probe", "vx_agent"])


def application(tree, name, source):
    if name == "vx_agent":
        # A module given with lua_path goes before the packed one.
        tree.file("override/vx_agent.lua", source)
        return ["--lua_path", tree.path + "/override/?.lua"]
    tree.app(name, source)
    return []


@pytest.mark.fast
@NAMES
def test_init_main_and_shutdown_run_in_order(tree, name):
    result = tree.run(*application(tree, name, LIFE), name=name)
    assert (result.status, result.out, result.err) == (0, "load\ninit\nmain\nshutdown\n", "")


@pytest.mark.fast
@pytest.mark.parametrize("mode", ["main", "test"])
def test_a_printed_line_is_out_before_what_others_write_next(tree, mode):
    lines = """print("one") os.execute("echo two") print("three") io.stderr:write("four\\n")
        io.write("five, ") os.execute("echo six") io.flush()"""
    tree.app("probe", "return { main = function() " + lines + " return 0 end }")
    tree.file("a_test.lua", "return { test_it = function() " + lines + " end }")
    arguments = [] if mode == "main" else ["--unittest", "a_test.lua", "--", "--quiet"]
    result = tree.run(*arguments, name="probe", cwd=tree.path, prefix=("/bin/sh", "-c", 'exec "$0" "$@" 2>&1'))
    assert result.status == 0, result.out
    # What is written without a line of print waits for a flush, as in Lua itself.
    assert result.out.startswith("one\ntwo\nthree\nfour\nsix\nfive, "), result.out


@pytest.mark.quick
@pytest.mark.parametrize("step,printed", [("init", "init\n"), ("main", "init\nmain\n"), ("shutdown", "init\nmain\nshutdown\n")])
@NAMES
def test_the_first_status_other_than_zero_ends_the_run_and_is_the_exit_status(tree, name, step, printed):
    source = LIFE.replace('print("load")\n', "").replace(f'print("{step}"); return 0', f'print("{step}"); return 7')
    result = tree.run(*application(tree, name, source), name=name)
    assert (result.status, result.out) == (7, printed)
    assert result.err == "\n"  # the last error text, which is empty, and a line end


def test_a_stray_file_does_not_replace_a_packed_module_and_one_that_is_given_does(tree):
    tree.app("probe", "return { main = function() print(require('vex.json') == 'mine', require('beside')); return 0 end }")
    tree.file("vex/json.lua", "return 'mine'")
    tree.file("beside/init.lua", "return 'beside'")
    assert tree.run(name="probe").out == "false\tbeside\n"
    assert tree.run("--lua_path", tree.path + "/?.lua", name="probe").out == "true\tbeside\n"


def test_a_status_given_as_a_numeric_text_counts(tree):
    tree.app("probe", "return { main = function() return '5' end }")
    assert tree.run(name="probe").status == 5


def test_a_value_that_is_no_number_counts_as_success(tree):
    tree.app("probe", "return { main = function() return true end }")
    result = tree.run(name="probe")
    assert (result.status, result.err) == (0, "")


def test_a_module_without_functions_is_a_success(tree):
    tree.app("probe", "return { main = 'no function' }")
    result = tree.run(name="probe")
    assert (result.status, result.out, result.err) == (0, "", "")


@pytest.mark.parametrize("arguments,expected", [
    (["--plugins", "x", "--", "a", "b"], {-3: "EXE", -2: "--plugins", -1: "x", 0: "probe", 1: "a", 2: "b"}),
    (["--plugins=x"], {-2: "EXE", -1: "--plugins=x", 0: "probe"}),
    (["--", "-x", "--", "é"], {-1: "EXE", 0: "probe", 1: "-x", 2: "--", 3: "é"}),
    (["--"], {-1: "EXE", 0: "probe"}),
    ([], {-1: "EXE", 0: "probe"}),
])
def test_the_table_arg_has_negative_keys_before_the_separator(tree, arguments, expected):
    tree.app("probe", "return { main = function() for k, v in pairs(arg) do print(k .. '=' .. v) end return 0 end }")
    result = tree.run(*arguments, name="probe")
    exe = os.path.join(tree.path, "probe")
    got = dict(line.split("=", 1) for line in result.out.splitlines())
    assert got == {str(key): exe if value == "EXE" else value for key, value in expected.items()}


def test_dom0_and_dom_are_one_object_and_survive_losing_every_reference(tree):
    tree.app("probe", """
        assert(rawequal(dom0, dom))
        local M = {}
        function M.main()
          dom0:Set("probe.key", "kept"); dom0, dom = nil, nil
          collectgarbage(); collectgarbage()
          return 0
        end
        return M""")
    assert tree.run(name="probe").status == 0


@pytest.mark.fast
@NAMES
def test_lines_logged_by_the_script_are_in_the_file_when_the_process_has_ended(tree, name):
    source = """return { main = function()
        dom0:Log("warning", "first"); dom0:Trace("Mine", "traced"); dom0:Log("debug", "second\\nline"); return 0 end }"""
    result = tree.run(*application(tree, name, source), "--trace", "Appl,Mine", name=name)
    assert result.status == 0, result.err
    record = r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d %s \[\d+/CScriptThread\] %s"
    assert re.search(record % ("WARNING", "first$"), result.log, re.M), result.log
    assert re.search(record % ("TRACE", r"\w* ?.*: traced$"), result.log, re.M), result.log
    assert re.search(record % ("DEBUG", "second\n\\s+line$"), result.log, re.M), result.log
    assert re.search(record % ("TRACE", r"Appl RunAppMethod\(vex/apps/vex/vex:\d+\): Running app's Lua method 'main'$"),
                     result.log, re.M), result.log
    assert re.search(r"Appl RunChunk\(vex/apps/vex/vex:\d+\): Chunk produced a return value of 0$", result.log, re.M)


@NAMES
def test_only_the_agent_proper_writes_the_start_banner(tree, name):
    result = tree.run(*application(tree, name, LIFE), name=name)
    assert (f"VEX {VERSION}.{BUILD_NUMBER} starting." in result.log) == (name == "vx_agent")
    assert "exiting. Run time was" not in result.log  # only the supervisor leaves through the exit banner


def test_the_log_file_is_for_its_owner_alone(tree):
    tree.run("--workdir", os.path.join(tree.path, "w"))
    assert os.stat(os.path.join(tree.path, "w")).st_mode & 0o7777 == 0o700
    assert os.stat(os.path.join(tree.path, "w", "vx_agent.log")).st_mode & 0o7777 == 0o600


def test_an_existing_work_folder_keeps_its_rights(tree):
    os.mkdir(os.path.join(tree.path, "w"), 0o750)
    os.chmod(os.path.join(tree.path, "w"), 0o750)
    tree.run("--workdir", os.path.join(tree.path, "w"))
    assert os.stat(os.path.join(tree.path, "w")).st_mode & 0o7777 == 0o750


def test_traces_of_the_archive_path_keep_their_trailing_blanks(tree):
    tree.app("probe", LIFE)
    log = tree.run("--trace", "Appl", name="probe").log
    assert f"app.lua.zippath '{tree.path}/vex_core/vex.vxe' \n" in log
    os.unlink(tree.file("vex_core/vex.vxe"))
    assert "app.lua.zippath empty \n" in tree.run("--trace", "Appl", name="probe").log


@pytest.mark.parametrize("name", ["C", "POSIX", "C.UTF-8", "de_DE.UTF-8", "no_SUCH"])
def test_text_and_numbers_are_the_same_in_every_locale(tree, name):
    tree.app("probe", """return { main = function() print(1.5, tostring(tonumber("1.5")), arg[1], dom0:Get("a.b")); return 0 end }""")
    result = tree.run("--domain_var", "a.b=ü", "--", "é", name="probe", env={"LC_ALL": name, "LANG": name})
    assert (result.status, result.out, result.err) == (0, "1.5\t1.5\té\tü\n", "")


# Compiled for the test: hardly any machine has a locale with a decimal comma.
@pytest.fixture(scope="module")
def german(tmp_path_factory):
    if not shutil.which("localedef"):
        pytest.skip("NO LOCALEDEF HERE")
    folder = tmp_path_factory.mktemp("locales")
    made = subprocess.run(["localedef", "-c", "-i", "de_DE", "-f", "UTF-8", str(folder / "de_DE.UTF-8")], capture_output=True,
                          text=True, check=False)
    if not os.path.isdir(folder / "de_DE.UTF-8"):
        pytest.skip("NO SOURCES OF LOCALES HERE: " + made.stderr.strip())
    return {"LOCPATH": str(folder), "LANGUAGE": ""}


@pytest.mark.parametrize("variables", [["LANG"], ["LC_ALL"], ["LC_ALL", "LC_NUMERIC", "LANG"]], ids="+".join)
def test_numbers_keep_their_point_where_the_locale_has_a_comma(tree, german, variables):
    tree.app("probe", """return { main = function()
        print(1.5, tostring(tonumber("1.5")), ("%.1f"):format(2.5), require("vex.json").encode({1.25}), arg[1], os.date("%B", 5000000))
        return 0 end }""")
    environment = dict.fromkeys(("LANG", "LC_ALL", "LC_NUMERIC", "LC_CTYPE"), "")
    environment.update(german, **dict.fromkeys(variables, "de_DE.UTF-8"))
    result = tree.run("--", "é", name="probe", env=environment)
    # The month shows that the locale is in force.
    assert (result.status, result.out, result.err) == (0, "1.5\t1.5\t2.5\t[1.25]\té\tFebruar\n", "")
    assert "Cannot set locale" not in result.log


def catalogue(texts):
    """The bytes of a file with translations: a head, two tables of lengths and places, and the texts."""
    texts = {"": "Content-Type: text/plain; charset=UTF-8\n", **texts}
    pieces = [text.encode() + b"\0" for column in (0, 1) for text in (item[column] for item in sorted(texts.items()))]
    places, place = [], 28 + 8 * len(pieces)
    for piece in pieces:
        places += [len(piece) - 1, place]
        place += len(piece)
    head = [0x950412de, 0, len(texts), 28, 28 + 8 * len(texts), 0, 0]
    return struct.pack(f"={len(head) + len(places)}I", *head, *places) + b"".join(pieces)


def test_the_frameworks_texts_are_in_the_language_of_the_user(tree, german):
    for name in ("wxstd.mo", "wxstd-3.2.mo"):
        tree.file("texts/de/LC_MESSAGES/" + name, catalogue({"Usage: %s": "Aufruf: %s"}))
    environment = dict.fromkeys(("LC_ALL", "LC_CTYPE"), "")
    environment.update(german, LANG="de_DE.UTF-8", LC_PATH=tree.file("texts"))
    assert tree.run("--help", env=environment).err.startswith("Aufruf: vx_agent ")


@pytest.fixture
def missing_locale():
    name = "sw_KE.UTF-8"  # the framework knows it, and hardly any machine has it
    before = locale.setlocale(locale.LC_MESSAGES)
    try:
        locale.setlocale(locale.LC_MESSAGES, name)
    except locale.Error:
        return name
    locale.setlocale(locale.LC_MESSAGES, before)
    return pytest.skip(name + " is installed here")


@pytest.mark.fast
@NAMES
def test_a_locale_that_is_not_installed_is_a_line_of_the_log_and_nothing_on_standard_error(tree, name, missing_locale):
    result = tree.run(*application(tree, name, LIFE), name=name, env={"LC_ALL": missing_locale})
    assert (result.status, result.err) == (0, "")
    assert re.search(r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d WARNING \[\d+/main\] Cannot set locale to language", result.log, re.M), result.log
    assert result.log.count("Cannot set locale") == 1


def test_when_the_command_line_is_bad_that_line_goes_to_standard_error(tree, missing_locale):
    result = tree.run("--help", env={"LC_ALL": missing_locale})
    assert result.status == 255
    assert result.err.count("Cannot set locale to language") == 1
    assert not os.path.exists(tree.work)


@pytest.mark.skipif(SANITIZED or not shutil.which("strace"), reason="needs strace, which the leak checker cannot run under")
@NAMES
def test_a_thread_that_cannot_be_started_is_an_error_line_and_a_failure(tree, name):
    result = tree.run(*application(tree, name, LIFE), name=name, prefix=(
        "strace", "-f", "-qq", "-o", "/dev/null", "-e", "trace=clone,clone3", "-e", "inject=clone,clone3:error=EAGAIN:when=1"))
    assert (result.status, result.out, result.err) == (255, "", "")
    assert result.log.count(" ERROR ") >= 1, result.log
    assert "CScriptThread" in result.log


def test_os_exit_in_a_script_ends_the_process_with_that_status(tree):
    tree.app("probe", "return { main = function() io.write('partial'); os.exit(9) end }")
    result = tree.run(name="probe")
    assert (result.status, result.out) == (9, "partial")


@pytest.mark.parametrize("arguments,status,printed", [("", 0, ""), ("true", 0, ""), ("false", 1, ""), ("'7'", 7, ""),
                                                      ("5, true", 5, "collected\n")])
def test_os_exit_takes_what_it_takes_in_lua_itself(tree, arguments, status, printed):
    tree.app("probe", f"""return {{ main = function()
        kept = setmetatable({{}}, {{__gc = function() io.stdout:write("collected\\n") end}}); os.exit({arguments}) end }}""")
    result = tree.run(name="probe")
    assert (result.status, result.out, result.err) == (status, printed, "")


@pytest.mark.parametrize("closed", ["0<&-", "1>&-", "2>&-", "0<&- 1>&- 2>&-"])
def test_closed_standard_descriptors_are_open_on_the_null_device_before_anything_else_is(tree, closed):
    tree.app("probe", """return { main = function()
        local stat = io.open("/proc/self/stat"); local pid = stat:read("*n"); stat:close()
        local seen = assert(io.open(dom0:Get("app.path.work") .. "/seen", "w"))
        for descriptor = 0, 2 do
          local link = io.popen(("readlink /proc/%d/fd/%d"):format(pid, descriptor)); seen:write(link:read("*a")); link:close()
        end
        seen:close() return 0 end }""")
    executable = os.path.join(tree.path, "probe")
    assert tree.run("-c", f'"$0" {closed}', executable, executable="/bin/sh", name="probe").status == 0
    with open(os.path.join(tree.work, "seen")) as file:
        seen = file.read().splitlines()
    for redirection in closed.split():
        assert seen[int(redirection[0])] == "/dev/null", seen


@pytest.mark.parametrize("closed", ["0<&-", "1>&-", "2>&-", "0<&- 1>&- 2>&-"])
def test_closed_standard_descriptors_do_no_harm(tree, closed):
    tree.app("probe", """return { main = function()
        local f = assert(io.open(dom0:Get("app.path.work") .. "/proof", "w")); f:write("ran"); f:close(); print("out"); return 4 end }""")
    executable = os.path.join(tree.path, "probe")
    result = tree.run("-c", f'"$0" {closed}', executable, executable="/bin/sh", name="probe")
    assert result.status == 4
    with open(os.path.join(tree.work, "proof")) as file:
        assert file.read() == "ran"
