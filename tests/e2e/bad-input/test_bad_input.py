"""Bad input of every kind: reported where it should be, silent where it should be, and never a crash, a hang or a refusal."""
import os
import re
import shutil

import pytest

from conftest import BUILD_NUMBER, ORDINARY_USER, OTHER_VERSION, VERSION, require_ordinary_user

OK = "return { main = function() return 0 end }"
SHOW = "return { main = function() for _, k in ipairs(dom0:Keys()) do print(k .. '=' .. tostring(dom0:Get(k))) end return 0 end }"


def settings(result):
    return dict(line.split("=", 1) for line in result.out.splitlines() if "=" in line)


@pytest.mark.parametrize("arguments,words", [
    (["--no-such"], "no-such"), (["-q"], "q"), (["--workdir"], "workdir"), (["--background=yes"], "background"),
])
def test_the_parser_reports_a_bad_command_line_and_the_process_ends_with_failure(tree, arguments, words):
    result = tree.run(*arguments)
    assert result.status == 255
    assert words in result.err
    assert "Usage:" in result.err + result.out
    assert not os.path.exists(tree.work)


@pytest.mark.quick
def test_help_lists_every_option_in_order_and_ends_with_failure_status(tree):
    result = tree.run("--help")
    assert result.status == 255
    text = result.out + result.err
    assert re.findall(r"^ +(?:-(\w), )?--(\w+)(=<str>)?", text, re.M) == [
        ("h", "help", ""), ("", "verbose", ""), ("a", "appname", "=<str>"), ("b", "background", ""), ("c", "lua_cpath", "=<str>"),
        ("d", "domain_var", "=<str>"), ("e", "extdir", "=<str>"), ("i", "install_plugins", ""), ("l", "lua_path", "=<str>"),
        ("p", "plugins", "=<str>"), ("t", "trace", "=<str>"), ("w", "workdir", "=<str>"), ("u", "unittest", "=<str>"),
        ("U", "test", ""), ("z", "zippath", "=<str>")]
    assert "-- script-param [script-param ...]" in text


@pytest.mark.parametrize("spelling", [["-als"], ["--appname=first", "--appname", "ls"]])
def test_the_parser_takes_its_spellings_and_the_last_repetition(tree, spelling):
    tree.file("ls.lua", SHOW)
    result = tree.run(*spelling)
    assert result.status == 0, result.err
    assert settings(result)["app.name"] == "ls"


def test_a_malformed_domain_variable_is_named_and_passed_over(tree):
    tree.app("probe", OK)
    result = tree.run("--domain_var", "=x", name="probe")
    assert result.status == 0
    assert result.err == "Ignoring invalid domain variable specification '=x': expected name=value format\n"


def test_a_domain_variable_may_be_empty_and_may_hold_the_separator(tree):
    tree.app("probe", SHOW)
    assert settings(tree.run("--domain_var", "a=", name="probe"))["a"] == ""
    assert settings(tree.run("--domain_var", "a=b=c", name="probe"))["a"] == "b=c"


def test_a_missing_unit_test_script_is_reported_without_a_line_end(tree):
    tree.app("probe", OK)
    result = tree.run("--unittest", "missing.lua", name="probe")
    assert (result.status, result.err) == (0, "missing.lua: not found")


def test_the_test_switch_alone_sets_the_mode_and_runs_main(tree):
    tree.app("probe", SHOW)
    assert settings(tree.run("--test", name="probe"))["app.mode.unittest"] == "true"


def test_verbose_is_the_frameworks_own_and_does_no_harm(tree):
    tree.app("probe", OK)
    assert tree.run("--verbose", name="probe").status == 0


@pytest.mark.parametrize("name", ["", "a/b", "a]]b", "100%s", "%n%n", " ", "é", "..", "x" * 300, "a\nb", "[["])
def test_a_strange_application_name_ends_with_a_lua_status_and_no_crash(tree, name):
    result = tree.run("--appname=" + name)
    assert result.status in (0, 1, 2), (result.status, result.err)
    if result.status:
        assert result.err.strip()


@pytest.mark.parametrize("workdir", ["/proc/nowhere/at/all", "/dev/null/x", ""])
def test_a_work_folder_that_cannot_be_made_does_not_stop_the_run(tree, workdir):
    tree.app("probe", "return { main = function() return 3 end }")
    result = tree.run("--workdir=" + workdir, name="probe", cwd=tree.path)
    assert result.status == 3


def test_a_file_that_is_given_for_the_work_folder_stays_as_it_is(tree):
    tree.app("probe", "return { main = function() return 3 end }")
    path = tree.file("file", "content")
    os.chmod(path, 0o644)
    result = tree.run("--workdir", path, name="probe")
    assert result.status == 3 and "access rights" not in result.err
    assert os.stat(path).st_mode & 0o7777 == 0o644
    with open(path) as file:
        assert file.read() == "content"


def test_environment_variables_in_the_work_folder_are_expanded(tree, tmp_path):
    tree.app("probe", SHOW)
    found = settings(tree.run("--workdir", "$WHERE/w", name="probe", env={"WHERE": str(tmp_path)}))
    assert found["app.path.work"] == str(tmp_path / "w")
    assert found["app.path.ini"] == str(tmp_path / "w" / "probe.ini")


def with_ini(tree, content, name="probe"):
    os.makedirs(tree.work, exist_ok=True)
    tree.app(name, SHOW)
    with open(os.path.join(tree.work, name + ".ini"), "wb") as file:
        file.write(content)
    return tree.run(name=name)


@pytest.mark.parametrize("line,full", [("DumpLevel=2", "true"), ("DumpLevel=abc", "false")])
def test_the_dump_level_sets_the_flag_when_it_is_a_number_other_than_zero(tree, line, full):
    result = with_ini(tree, line.encode() + b"\n")
    assert result.status == 0
    assert settings(result)["app.fulldump"] == full


def test_database_settings_are_copied_when_they_are_integers_of_the_top_level(tree):
    result = with_ini(tree, b"sqlite.config.cache_size=abc\nsqlite.configX=5\nsqlite.config.mmap_size=1048576\nSqlite.config.y=1\n"
                            b"[group]\nsqlite.config.busy_timeout=9\n")
    found = {key: value for key, value in settings(result).items() if "sqlite" in key.lower()}
    assert found == {"sqlite.configX": "5", "sqlite.config.mmap_size": "1048576"}


def test_the_group_of_settings_counts_and_none_of_it_is_copied_to_the_domain(tree):
    tree.app("probe", SHOW.replace("main = function()", "main = function() require('vex.json')"))
    cache = os.path.join(tree.work, "cache")
    assert tree.run(name="probe").status == 0
    assert os.listdir(cache)
    shutil.rmtree(cache)
    with open(os.path.join(tree.work, "probe.ini"), "w") as file:
        file.write("[settings]\napp.lua.cache=false\napp.log.count=2\nvex.HeartbeatInterval=9\nsqlite.config.cache_size=9\n")
    result = tree.run(name="probe")
    assert result.status == 0
    assert not os.path.exists(cache)
    assert not set(settings(result)) & {"app.lua.cache", "app.log.count", "vex.HeartbeatInterval", "sqlite.config.cache_size"}


@pytest.mark.parametrize("encoding,end", [("utf-16", "\n"), ("utf-32", "\r\n"), ("utf-8-sig", "\r")])
def test_an_ini_file_in_any_encoding_gives_both_its_traces_and_its_settings(tree, encoding, end):
    lines = ["Trace=One", "[settings]", "app.lua.cache=false", ""]
    tree.app("probe", SHOW.replace("main = function()", "main = function() require('vex.json')"))
    os.makedirs(tree.work)
    with open(os.path.join(tree.work, "probe.ini"), "wb") as file:
        file.write(end.join(lines).encode(encoding))
    result = tree.run(name="probe")
    assert result.status == 0, result.err
    assert settings(result)["app.trace+"] == "One"
    assert not os.path.exists(os.path.join(tree.work, "cache"))


def test_the_trace_list_of_the_ini_replaces_the_default(tree):
    assert settings(with_ini(tree, b"Trace=One,Two\n"))["app.trace+"] == "One,Two"


@pytest.mark.parametrize("content", [
    b"\x00" * 5000, bytes(range(256)) * 40, b"[", b"=\n=\n[]\n[[]]\n", b"a\n" * 10000, b'Trace="a" b\n', b"Trace=$HOME ${x\n",
    b"\xff\xfeT\x00r\x00a\x00c\x00e\x00=\x00X\x00\n\x00", b"\xef\xbb\xbfTrace=X\n", b"k=" + b"v" * 100000, b"!Trace=X\n!Trace=Y\n",
    b"[Trace\nTrace=X", b"../x=1\n/abs=2\n/a/b=3\n"],
    ids=lambda content: repr(content[:12]))
def test_a_broken_ini_file_stops_nothing(tree, content):
    result = with_ini(tree, content)
    assert result.status == 0, result.err


@pytest.mark.parametrize("name", ["probe", "vx_agent"])
def test_lines_of_an_ini_file_that_make_no_sense_are_reported_ten_times_and_counted(tree, name):
    result = with_ini(tree, b"no entry\n" * 100, name)
    lines = re.findall(r"^[-\d]+ [:\d]+ (?:ERROR|WARNING) \S+ (.*)$", result.log, re.M)
    assert len(lines) == 11, result.log
    for number, line in enumerate(lines[:10], 1):
        assert f"{name}.ini', line {number}: " in line
    assert lines[10] == "90 more lines about the configuration files are left out"


def test_an_ini_file_that_is_a_folder_stops_nothing(tree):
    tree.app("probe", OK)
    os.makedirs(os.path.join(tree.work, "probe.ini"))
    assert tree.run(name="probe").status == 0


def test_an_ini_file_of_100_megabytes_stops_nothing(tree):
    tree.app("probe", OK)
    os.makedirs(tree.work)
    with open(os.path.join(tree.work, "probe.ini"), "wb") as file:
        file.truncate(100 * 1024 * 1024)
    assert tree.run(name="probe").status == 0


@pytest.mark.sandbox
def test_a_local_entry_wins_over_the_global_one(tree):
    # The global file of an application lies in /etc, which here is a mount of this test's own.
    from conftest import mount_tmpfs, unmount
    mount_tmpfs("/etc")
    try:
        with open("/etc/probe.conf", "w") as file:
            file.write("Trace=Global\nDumpLevel=1\n")
        found = settings(with_ini(tree, b"Trace=Local\n"))
        assert found["app.path.ini.global"] == "/etc/probe.conf"
        assert (found["app.trace+"], found["app.fulldump"]) == ("Local", "true")
    finally:
        unmount("/etc")


def test_quotes_are_taken_out_of_the_trace_list(tree):
    tree.app("probe", SHOW)
    assert settings(tree.run("--trace", "'Appl,\"Cmd\"'", name="probe"))["app.trace"] == "Appl,Cmd"


def test_an_extension_folder_that_is_a_file_is_silent(tree):
    tree.app("probe", OK)
    result = tree.run("--extdir", tree.file("afile", "x"), name="probe")
    assert (result.status, result.err) == (0, "")
    assert "WARNING" not in result.log


def test_ten_thousand_archive_entries_give_a_warning_each_and_no_crash(tree):
    tree.app("probe", OK)
    result = tree.run("--zippath", ";".join(f"n{i}.zip" for i in range(10000)), name="probe")
    assert result.status == 0
    assert result.log.count(": no matches") == 10000


def extension(tree, version):
    tree.file("ext/e.vxe", b"PK\x05\x06" + b"\0" * 18)
    if version is not None:
        tree.file("ext/e.vxe.version", version)
    tree.app("probe", SHOW)
    return tree.run("--extdir", "ext", name="probe")


@pytest.mark.parametrize("version,taken", [
    (f"version: {VERSION}-{BUILD_NUMBER}\r\n".encode("utf-16"), True), (f"version: {OTHER_VERSION}-{BUILD_NUMBER}\n".encode(), False),
    (f"version: {VERSION}\n".encode(), False), (None, False),
], ids=lambda value: repr(value[:16]) if isinstance(value, bytes) else None)
def test_a_version_file_decides_about_its_extension(tree, version, taken):
    result = extension(tree, version)
    assert result.status == 0
    assert (tree.path + "/ext/e.vxe" in settings(result).get("app.lua.zippath", "")) == taken
    assert result.log.count("WARNING") == (0 if taken else 1), result.log


def test_a_version_file_of_100_megabytes_is_refused_in_time(tree):
    path = tree.file("ext/e.vxe.version", b"")
    with open(path, "wb") as file:
        file.truncate(100 * 1024 * 1024)
    tree.file("ext/e.vxe", b"PK\x05\x06" + b"\0" * 18)
    tree.app("probe", OK)
    result = tree.run("--extdir", "ext", name="probe")
    assert result.status == 0
    assert result.log.count("does not contain a 'version:' line") == 1


def test_an_archive_that_is_a_fifo_does_not_block(tree):
    os.mkfifo(os.path.join(tree.path, "pipe.zip"))
    tree.app("probe", OK)
    result = tree.run("--zippath", "pipe.zip;pipe*.zip", name="probe")
    assert result.status == 0
    pipe = tree.path + "/pipe.zip"
    # As a match of a pattern it needs a version file; named, it is listed, and the module loader passes it over.
    warnings = [line.partition("] ")[2] for line in result.log.splitlines() if " WARNING " in line]
    assert warnings[0] == f"Extension file '{pipe}' does not have a corresponding '.version' file. It will not be enabled."
    assert len(warnings) == 2 and pipe in warnings[1], result.log


def test_a_hundred_thousand_arguments_reach_the_script(tree):
    # Each is short, so that the system's limit on their total is not met.
    tree.app("probe", "return { main = function() print(#arg, arg[99999]); return 0 end }")
    result = tree.run("--", *(str(i) for i in range(1, 100000)), name="probe")
    assert (result.status, result.out) == (0, "99999\t99999\n"), result.err[:500]


def test_an_argument_that_is_not_utf8_is_dropped_with_a_line_in_the_log(tree):
    tree.app("probe", "return { main = function() print(#arg, arg[1]); return 0 end }")
    executable = os.path.join(tree.path, "probe")
    result = tree.run("-c", '"$0" -- "$(printf "\\377\\376")" x', executable, executable="/bin/sh", name="probe")
    assert (result.status, result.out, result.err) == (0, "1\tx\n", "")
    assert re.search(r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d WARNING \[\d+/main\] Command line argument 2 ", result.log, re.M), result.log


@pytest.mark.parametrize("name,reason", [
    (b"semi;colon", 'a folder with ";" or "?" in its name cannot be told to Lua'),
    (b"what?", 'a folder with ";" or "?" in its name cannot be told to Lua'),
    (b"caf\xe9", "the name is not valid in the locale's character set"),
], ids=["semicolon", "question mark", "not UTF-8"])
@pytest.mark.parametrize("called", ["by its path", "from its folder", "with options"])
def test_a_folder_that_the_agent_cannot_run_from_is_refused_and_nothing_is_made(tree, tmp_path, name, reason, called):
    outer = os.fsencode(tmp_path / "outer")
    folder = os.path.join(outer, name)
    os.mkdir(outer)
    os.rename(tree.path, folder)
    before = below(outer)
    executable, arguments = os.path.join(folder, b"vx_agent"), []
    if called == "from its folder":
        executable = b"./vx_agent"
    if called == "with options":
        arguments = ["--background", "--install_plugins"]
    result = tree.run(*arguments, executable=executable, cwd=folder if called == "from its folder" else outer)
    assert (result.status, result.out) == (255, "")
    shown = folder.decode("latin-1")
    told = [line for line in result.err.splitlines() if " ERROR " in line]
    assert len(told) == 1 and f"The agent cannot run from '{shown}" in told[0] and reason in told[0], result.err
    assert below(outer) == before


def test_a_relative_work_folder_is_refused_where_the_current_folder_is_no_text(tree, tmp_path):
    current = os.path.join(os.fsencode(tmp_path), b"caf\xe9")
    os.mkdir(current)
    before = below(os.fsencode(tmp_path))
    for value in ("work", ""):
        result = tree.run("--workdir", value, cwd=current)
        assert (result.status, result.out) == (255, "")
        told = result.err.splitlines()
        assert len(told) == 1 and f"The work folder '{value}' cannot be made in '" in told[0] and "/café': that name" in told[0]
    assert below(os.fsencode(tmp_path)) == before
    assert tree.run("--workdir", tree.work, cwd=current).status == 0
    assert os.path.isfile(os.path.join(tree.work, "vx_agent.log")) and os.listdir(current) == []


def below(folder):
    return sorted(os.path.join(inner, name) for inner, folders, files in os.walk(folder) for name in folders + files)


def test_an_option_whose_value_is_not_valid_in_the_locale_is_dropped_with_its_value(tree):
    tree.app("probe", SHOW)
    result = tree.run(b"--domain_var=a=\xff\xfe", "--plugins=kept", name="probe")
    assert (result.status, result.err) == (0, "")
    assert "a" not in settings(result) and settings(result)["app.plugins"] == "kept"
    assert re.search(r" WARNING \[\d+/main\] Command line argument 1 ", result.log), result.log


def test_an_option_is_reported_when_only_its_value_was_dropped(tree):
    result = tree.run("--appname", b"\xff\xfe")
    assert result.status == 255
    assert "Command line argument 2 " in result.err and "appname" in result.err and "Usage:" in result.err + result.out
    assert not os.path.exists(tree.work)


def test_a_dropped_argument_is_told_on_standard_error_when_the_command_line_is_bad(tree):
    executable = os.path.join(tree.path, "vx_agent")
    result = tree.run("-c", '"$0" --help "$(printf "\\377\\376")"', executable, executable="/bin/sh")
    assert result.status == 255
    assert "Command line argument 2 " in result.err
    assert not os.path.exists(tree.work)


LOOKS_AROUND = """
local db = require("vex.db")
local M = {}
function M.main()
  print(dom0:Get("app.trace+"))
  print(dom0:AgentEvent{ number = 1, text = "an event" })
  print(dom0:PluginWorkdir("x"))
  print(db.open(dom0:Get("app.path.work") .. "/own.db"))
  return 0
end
return M
"""


@pytest.mark.sandbox
def test_what_another_user_had_a_hand_in_below_the_work_folder_is_neither_read_nor_written(tree, tmp_path):
    require_ordinary_user()

    def by_another(path):
        os.lchown(path, ORDINARY_USER, ORDINARY_USER)

    tree.app("probe", LOOKS_AROUND)
    victim = tmp_path / "victim"
    victim.mkdir(0o700)
    tree.file("work/probe.ini", "Trace=planted\n")
    by_another(tree.work + "/probe.ini")
    os.chmod(tree.work, 0o700)
    for name in ("plugins", "events.db", "events.pending.xml", "own.db"):
        os.symlink(victim / name, f"{tree.work}/{name}")
        by_another(f"{tree.work}/{name}")
    result = tree.run(name="probe")
    reason = "because the link belongs to user 1000: give it to root or to the user of this process, or remove it"
    assert (result.status, os.listdir(victim)) == (0, [])
    assert result.out == (f"\n0\nnil\t'{tree.work}/plugins' is not followed, {reason}\n"
                          f"nil\t{tree.work}/own.db: '{tree.work}/own.db' is not followed, {reason}\n")
    warnings = re.findall(r" WARNING \[[^]]*\] ('.*)\n", result.log)
    assert sorted(warnings) == [
        f"'{tree.work}/plugins' is not followed, {reason}",
        f"'{tree.work}/probe.ini' is not used, because it belongs to user 1000: give it to root or to the user of this process, "
        "or remove it"]
    assert "ERROR" in result.log and f"'{tree.work}/events.db' is not followed, {reason}" in result.log
    # What is somebody else's as a whole is left alone as a whole.
    by_another(tree.work)
    before = sorted(os.listdir(tree.work)), result.log
    result = tree.run(name="probe")
    assert result.status == 0
    assert (sorted(os.listdir(tree.work)), result.log) == before
    assert f"Can't write the log file {tree.work}/probe.log ('{tree.work}' is not used, because it belongs to user 1000" in result.err
