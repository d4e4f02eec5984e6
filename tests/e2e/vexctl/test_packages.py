"""vexctl pack, install, remove and rollback, what plugins tells of it, and the launcher that takes what they make."""
import hashlib
import os
import platform
import shutil
import signal
import subprocess
import zipfile

import pytest

import conftest
from conftest import BUILD_NUMBER, OTHER_VERSION, VERSION, mount_tmpfs, send_signal, unmount, wait_until
from ctl import checked, ctl, seen_on_terminal, state_of, with_zip

MACHINE = platform.machine()
PLUGIN = "return {{ name = 'Spool', version = '{}', collect = function() return {{ value = {} }} end }}\n"


def named(build=BUILD_NUMBER, plugin="spool", suffix="vxp", version=VERSION):
    return f"Agent-{plugin}-Linux-{version}-{build}.{MACHINE}.{suffix}"


def folder_of(tmp_path, name, files):
    """A folder to be packed; a name that ends in "*" is an executable file."""
    folder = tmp_path / name
    for path, content in files.items():
        target = folder / path.rstrip("*")
        target.parent.mkdir(parents=True, exist_ok=True)
        target.write_bytes(content if isinstance(content, bytes) else content.encode())
        os.chmod(target, 0o755 if path.endswith("*") else 0o644)
    return str(folder)


def pack(tree, folder, what="plugin", **options):
    words = [word for key, value in options.items() for word in (f"--{key}", str(value))]
    out = str(tree.path)
    if "output" not in options:
        out = os.path.join(os.path.dirname(folder), "out")
        os.makedirs(out, exist_ok=True)
        words += ["--output", out]
    return ctl(tree, "pack", what, folder, *words).out.rstrip("\n")


def start(tree):
    """A start that takes what waits; the report of the bundled application."""
    result = tree.run("--install_plugins", "--extdir", "ext", "--plugins", "spool")
    assert result.status == 0
    return result.out


def told(tree, **options):
    return checked("plugins", ctl(tree, "plugins", "--json", **options).out)


def states(tree):
    return {package["file"]: package["state"] for package in told(tree)["packages"]}


def with_spool(tree, tmp_path, build=1, **files):
    """A package of the plugin in a version of its own, installed by vexctl and a start."""
    content = {"spool/plugin.lua": PLUGIN.format(build, build)}
    content.update({f"spool/{name}.lua": text for name, text in files.items()})
    package = pack(tree, folder_of(tmp_path / str(build), "spool", content), build=build)
    ctl(tree, "install", package)
    start(tree)
    return package


def content(path):
    with open(path, "rb") as file:
        return file.read()


# --- on a terminal


def test_a_terminal_sees_how_far_it_is(tree, tmp_path):
    folder = folder_of(tmp_path, "spool", {"a": os.urandom(30_000_000), "b": "", "c": ""})
    shown = seen_on_terminal(tree, "pack", "plugin", folder, "-o", str(tmp_path))
    assert "\rpacking 1 of 3 files: a ..." in shown.replace("\x1b[K", "") and shown.endswith(f"checking {named()} ...\r\x1b[K")
    package = str(tmp_path / named())
    shown = seen_on_terminal(tree, "install", package).split("\r\x1b[K")
    assert shown[0] == shown[-1] == "" and shown[1] == f"checking {package} ..."
    assert f"copying 128.0 KiB of 28.6 MiB: {named()} ..." in shown and shown[-2] == f"checking {named()} ..."


# --- the whole way


@pytest.mark.quick
@pytest.mark.fast
def test_a_plugin_is_packed_checked_installed_listed_and_removed(tree, tmp_path):
    folder = folder_of(tmp_path, "spool", {"spool/plugin.lua": PLUGIN.format(1, 41), "spool/tool*": "#!/bin/sh\n"})
    package = pack(tree, folder)
    assert os.path.basename(package) == named()
    assert ctl(tree, "check", package).out == f"{package}: would be installed: 2 files of plugin spool, {VERSION}-{BUILD_NUMBER}, " \
                                              f"{sum(os.path.getsize(os.path.join(folder, 'spool', name)) for name in ('plugin.lua', 'tool'))} B\n"
    placed = tree.file(named())
    assert ctl(tree, "install", package).out.endswith("\nthe next start with --install_plugins takes it\n")
    assert states(tree) == {named(): "waiting"}
    assert "41" in start(tree)
    assert not os.path.exists(placed) and os.path.exists(placed + ".done")
    assert os.access(tree.file("spool/tool"), os.X_OK) and not os.access(tree.file("spool/plugin.lua"), os.X_OK)
    assert states(tree) == {named() + ".done": "installed"}
    before = state_of(tree.path)
    text = ctl(tree, "plugins").out
    assert text.splitlines()[1].split() == ["spool", f"{VERSION}-{BUILD_NUMBER}", "installed,", "2", "files", named() + ".done"]
    assert state_of(tree.path) == before

    assert f"{named(suffix='vxu')}: would delete 2 files\n" in ctl(tree, "remove", "spool").out
    assert states(tree)[named(suffix="vxu")] == "waiting"
    assert "cannot be loaded" in start(tree) + tree.log()
    assert not os.path.exists(tree.file("spool/plugin.lua")) and not os.path.exists(tree.file(named(suffix="vxu")))
    assert states(tree) == {named() + ".done": "removed"}
    assert "no file of a plugin 'spool' is installed" in ctl(tree, "remove", "spool", status=1).err


def test_a_rollback_brings_the_version_before_and_takes_what_only_the_later_one_had(tree, tmp_path):
    with_spool(tree, tmp_path, 9, old="return 9")
    with_spool(tree, tmp_path, 10, old="return 9", new="return 10")
    assert os.path.exists(tree.file("spool/new.lua"))
    assert states(tree) == {named(9) + ".done": "replaced", named(10) + ".done": "installed"}
    assert [package["build"] for package in told(tree)["packages"]] == ["9", "10"]  # by their numbers
    ctl(tree, "rollback", "spool")
    assert states(tree)[named(9)] == "waiting"
    assert " 9" in start(tree)
    assert not os.path.exists(tree.file("spool/new.lua")) and os.path.exists(tree.file("spool/old.lua"))
    assert states(tree) == {named(9) + ".done": "installed", named(10) + ".done": "replaced"}
    assert f"before {VERSION}-9 is kept" in ctl(tree, "rollback", "spool", status=1).err
    # What was removed comes back by the package that was kept.
    ctl(tree, "remove", "spool")
    start(tree)
    ctl(tree, "rollback", "spool")
    start(tree)
    assert states(tree)[named(10) + ".done"] == "installed"


def test_an_extension_is_packed_with_its_version_file_and_enabled_by_it(tree, tmp_path):
    folder = folder_of(tmp_path, "spool", {"spool/plugin.lua": PLUGIN.format(1, 77)})
    os.makedirs(tree.file("ext"), exist_ok=True)
    made = pack(tree, folder, "extension", output=tree.file("ext"))
    assert os.path.basename(made) == "spool.vxe"
    with open(made + ".version") as file:
        assert file.read() == f"version: {VERSION}-{BUILD_NUMBER}\n"
    assert ctl(tree, "check", made).out.startswith(f"{made}: would be enabled: 1 file, ")
    assert "77" in start(tree)
    extension, = [one for one in told(tree)["extensions"] if one["file"] == made]
    assert extension == {"file": made, "enabled": True, "version": f"{VERSION}-{BUILD_NUMBER}"}
    tree.file("ext/spool.vxe.version", f"version: {OTHER_VERSION}-1\n")
    extension, = [one for one in told(tree)["extensions"] if one["file"] == made]
    assert not extension["enabled"] and f"({OTHER_VERSION}) doesn't match ours ({VERSION})" in extension["reasons"][0]
    assert "not enabled" in ctl(tree, "plugins").out
    assert ctl(tree, "check", made, status=1).out.startswith(f"{made}: refused, for 1 reason\n")


# --- pack


def test_the_same_files_give_the_same_bytes_whatever_their_times_and_rights(tree, tmp_path):
    files = {"spool/plugin.lua": "return 1", "spool/b/c.lua": "x" * 100000, "a*": b"\0" * 70000}
    digests = set()
    for number, names in enumerate((list(files), list(reversed(files)))):
        folder = folder_of(tmp_path / str(number), "spool", {name: files[name] for name in names})
        os.utime(os.path.join(folder, "a"), (number, number))
        os.chmod(os.path.join(folder, "spool/plugin.lua"), 0o600 if number else 0o664)
        with open(pack(tree, folder), "rb") as file:
            digests.add(hashlib.sha256(file.read()).hexdigest())
    assert len(digests) == 1
    subprocess.run(["unzip", "-tqq", pack(tree, folder)], check=True)
    with zipfile.ZipFile(pack(tree, folder)) as archive:
        assert archive.testzip() is None
        assert archive.namelist() == ["a", "spool/b/c.lua", "spool/plugin.lua"]
        assert {info.date_time for info in archive.infolist()} == {(1980, 1, 1, 0, 0, 0)}


def test_a_marker_has_the_names_and_nothing_of_what_is_in_the_files(tree, tmp_path):
    folder = folder_of(tmp_path, "spool", {"spool/plugin.lua": "return 1", "spool/b.lua": "2"})
    with zipfile.ZipFile(pack(tree, folder, "uninstall")) as archive:
        assert [(info.filename, info.file_size) for info in archive.infolist()] == [("spool/b.lua", 0), ("spool/plugin.lua", 0)]
        assert os.path.basename(archive.filename) == named(suffix="vxu")


def test_what_the_launcher_would_refuse_is_not_packed(tree, tmp_path):
    folder = folder_of(tmp_path, "spool", {"plugin.lua": "return 1", "a:b": "", "c\\d": "", "e\x1b": "", "deep/" * 32 + "f": ""})
    os.symlink("plugin.lua", os.path.join(folder, "link"))
    os.mkfifo(os.path.join(folder, "pipe"))
    out = tmp_path / "out"
    out.mkdir()
    result = ctl(tree, "pack", "plugin", folder, "-o", str(out), status=1)
    told_lines = [line.replace(f"vexctl: {folder}/", "") for line in result.err.splitlines()]
    assert told_lines[:3] == ["a:b: its name has a colon", "c\\d: its name has a backslash",
                              "deep/" * 32 + "f: its name is more than 32 levels deep"]
    assert told_lines[3:] == ["e\\x1B: its name has a control character", "link: it is neither a regular file nor a folder",
                              "pipe: it is neither a regular file nor a folder", "vexctl: refused: nothing was made"]
    assert os.listdir(out) == []


def test_hidden_files_and_what_is_excluded_are_left_out(tree, tmp_path):
    folder = folder_of(tmp_path, "spool", {"spool/plugin.lua": "", ".git/config": "", "spool/.x.swp": "", "tests/a.lua": "", "b": ""})
    out = tmp_path / "out"
    out.mkdir()
    result = ctl(tree, "pack", "plugin", folder, "-o", str(out), "--exclude", "tests/", "--exclude", "b")
    assert result.err == "vexctl: left out: .git\nvexctl: left out: spool/.x.swp\n"
    with zipfile.ZipFile(result.out.rstrip("\n")) as archive:
        assert archive.namelist() == ["spool/plugin.lua"]


def test_wrong_calls_of_pack_say_what_is_wrong(tree, tmp_path):
    folder = folder_of(tmp_path, "a-b", {"x": ""})
    out = tmp_path / "out"
    out.mkdir()
    assert "would not be read as it is meant" in ctl(tree, "pack", "plugin", folder, "-o", str(out), status=2).err
    for words in (["--plugin", "a/b"], ["--plugin", "x", "--machine", "a.b"], ["--plugin", "x", "--platform", "a-b"],
                  ["--plugin", "x", "--build", ""], ["--plugin", "x\x1b"]):
        assert "would not be read as it is meant" in ctl(tree, "pack", "plugin", folder, "-o", str(out), *words, status=2).err, words
    assert "would be put into the folder" in ctl(tree, "pack", "plugin", folder, "--plugin", "x", status=2, cwd=folder).err
    assert "No such file" in ctl(tree, "pack", "plugin", str(tmp_path / "none"), "--plugin", "x", "-o", str(out), status=2).err
    assert "is no folder" in ctl(tree, "pack", "plugin", folder + "/x", "--plugin", "x", "-o", str(out), status=2).err
    empty = tmp_path / "empty"
    empty.mkdir()
    assert "has no files" in ctl(tree, "pack", "plugin", str(empty), "-o", str(out), status=1).err
    assert "is no name for an extension" in ctl(tree, "pack", "extension", folder, "--plugin", "a;b", "-o", str(out), status=2).err
    assert os.listdir(out) == []


@pytest.mark.sandbox
def test_a_full_disk_leaves_nothing_behind(tree, tmp_path):
    folder = folder_of(tmp_path, "spool", {"spool/plugin.lua": os.urandom(100000)})
    package = pack(tree, folder)
    os.makedirs("/opt/full")
    mount_tmpfs("/opt/full", b"size=64k")
    try:
        err = ctl(tree, "pack", "plugin", folder, "-o", "/opt/full", status=2).err
        assert err == f"vexctl: /opt/full/{named()} cannot be written: No space left on device\n"
        assert os.listdir("/opt/full") == []
    finally:
        unmount("/opt/full")
    # A limit of the size of files is met beside the executable.
    before = sorted(os.listdir(tree.path))
    command = f'ulimit -f 50; "{tree.path}/vexctl" install "{package}"'
    result = subprocess.run(["bash", "-c", command], capture_output=True, text=True, check=False)
    assert result.returncode == 2 and "cannot be written: File too large" in result.stderr
    assert sorted(os.listdir(tree.path)) == before


# --- install, remove


def test_what_would_be_refused_is_not_placed(tree, tmp_path):
    before = state_of(tree.path)
    bad = str(tmp_path / "F.vxp")
    with_zip(bad, {"../a": ""})
    assert ctl(tree, "install", bad, status=1).err == \
        f'vexctl: {bad}: entry "../a": its name has a component "." or ".."\nvexctl: the agent would refuse it: nothing was placed\n'
    assert "No such file" in ctl(tree, "install", str(tmp_path / "none.vxp"), status=2).err
    extension = str(tmp_path / "x.vxe")
    with_zip(extension, {"a.lua": ""})
    tmp_path.joinpath("x.vxe.version").write_text(f"version: {VERSION}-1\n")
    assert "an extension is no package" in ctl(tree, "install", extension, status=1).err
    assert state_of(tree.path) == before


def test_a_package_that_waits_is_replaced_whole_and_is_readable_for_the_agents_user(tree, tmp_path):
    package = pack(tree, folder_of(tmp_path, "spool", {"spool/plugin.lua": "return 1"}))
    tree.file(named(), "something else")
    ctl(tree, "install", package, umask=0o077)
    with open(package, "rb") as source, open(tree.file(named()), "rb") as placed:
        assert source.read() == placed.read()
    assert os.stat(tree.file(named())).st_mode & 0o777 == 0o644
    assert not [name for name in os.listdir(tree.path) if name.startswith(".vexctl")]


def test_an_older_version_is_told_and_taken(tree, tmp_path):
    with_spool(tree, tmp_path, 10)
    package = pack(tree, folder_of(tmp_path, "spool", {"spool/plugin.lua": "return 1"}), build=9)
    assert ctl(tree, "install", package).err == f"vexctl: it is older than {named(10)}.done, which has been installed\n"


def test_a_removal_spares_what_another_plugin_has_brought_and_tells_what_was_changed(tree, tmp_path):
    with_spool(tree, tmp_path, 1, shared="return 's'")
    other = pack(tree, folder_of(tmp_path, "other", {"spool/shared.lua": "return 's'", "other/a.lua": ""}))
    ctl(tree, "install", other)
    start(tree)
    tree.file("spool/plugin.lua", "return 'changed'")
    waiting = pack(tree, folder_of(tmp_path / "2", "spool", {"spool/plugin.lua": "return 2"}), build=2)
    ctl(tree, "install", waiting)
    result = ctl(tree, "remove", "spool")
    assert result.err.splitlines() == ["vexctl: has been changed since, and would be deleted: spool/plugin.lua",
                                       f"vexctl: {named(2)} waits there and would install it again: delete it to keep the plugin out"]
    with zipfile.ZipFile(tree.file(named(1, suffix="vxu"))) as archive:
        assert archive.namelist() == ["spool/plugin.lua"]


def test_a_link_in_the_place_of_a_file_makes_no_marker_that_would_fail_at_each_start(tree, tmp_path):
    with_spool(tree, tmp_path)
    os.unlink(tree.file("spool/plugin.lua"))
    os.symlink("/etc/passwd", tree.file("spool/plugin.lua"))
    assert "it is no regular file any more; take it away by hand" in ctl(tree, "remove", "spool", status=1).err
    assert not os.path.exists(tree.file(named(1, suffix="vxu")))


def visible_in(tree):
    return {name for name in os.listdir(tree.path) if not name.startswith(".")}


def test_a_rollback_that_cannot_be_whole_places_nothing(tree, tmp_path):
    with_spool(tree, tmp_path, 9)
    with_spool(tree, tmp_path, 10, new="return 10")
    os.unlink(tree.file("spool/new.lua"))
    os.symlink("/etc/passwd", tree.file("spool/new.lua"))
    before = visible_in(tree)
    assert ctl(tree, "rollback", "spool", status=1).err.endswith("\nvexctl: the agent would refuse it: nothing was placed\n")
    assert visible_in(tree) == before


@pytest.mark.skipif(conftest.SANITIZED, reason="a sanitizer's calls are not ours")
@pytest.mark.parametrize("command", ["install", "rollback"])
def test_a_kill_at_any_moment_leaves_nothing_half(tree, tmp_path, command):
    with_spool(tree, tmp_path, 9)
    later = with_spool(tree, tmp_path, 10, new="return 10")
    packages = {name: content(tree.file(name + ".done")) for name in (named(9), named(10))}
    marker = named(10, suffix="vxu")
    arguments = ["install", later] if command == "install" else ["rollback", "spool"]
    before, seen = visible_in(tree), set()
    for call in ("write", "fsync", "fchmod", "rename", "unlink"):
        for place in range(1, 50):
            result = subprocess.run(["strace", "-f", "-qq", "-o", "/dev/null", "-e", f"trace={call}", "-e", f"inject={call}:signal=KILL:when={place}",
                                     os.path.join(tree.path, "vexctl"), *arguments], stdin=subprocess.DEVNULL, capture_output=True, check=False)
            placed = visible_in(tree) - before
            for name in placed:
                ctl(tree, "check", tree.file(name))
                assert name == marker or content(tree.file(name)) == packages[name]
            assert marker not in placed or named(9) in placed
            seen.add(len(placed))
            for name in os.listdir(tree.path):
                if name in placed or name.startswith(".vexctl"):
                    os.unlink(tree.file(name))
            if result.returncode == 0:
                break
            assert result.returncode in (-signal.SIGKILL, 128 + signal.SIGKILL), result
        assert result.returncode == 0, "more calls than were tried"
    assert seen == ({0, 1} if command == "install" else {0, 1, 2})


@pytest.mark.sandbox
def test_a_signal_leaves_no_part_of_a_package(tree, tmp_path):
    folder = folder_of(tmp_path, "spool", {"spool/plugin.lua": "return 1"})
    with open(os.path.join(folder, "spool/data"), "wb") as file:
        file.truncate(4 << 30)
    out = tmp_path / "out"
    out.mkdir()
    for number in (signal.SIGHUP, signal.SIGINT, signal.SIGTERM):
        # Whoever runs the tests may ignore one.
        process = tree.start("pack", "plugin", folder, "-o", str(out), name="vexctl", preexec_fn=lambda n=number: signal.signal(n, signal.SIG_DFL))
        wait_until(lambda: os.listdir(out), what="the begin of a package")
        send_signal(process.pid, number)
        assert process.wait(conftest.PATIENCE) == -number
        assert os.listdir(out) == []


def test_the_service_manager_is_asked_for_a_restart(tree, tmp_path):
    package = pack(tree, folder_of(tmp_path, "spool", {"spool/plugin.lua": "return 1"}))
    programs = tmp_path / "programs"
    programs.mkdir()
    calls = tmp_path / "calls"
    manager = programs / "systemctl"

    def answer(script):
        manager.write_text(f'#!/bin/sh\necho "$@" >> "{calls}"\n{script}\n')
        manager.chmod(0o755)
        calls.write_text("")
        return dict(os.environ, PATH=f"{programs}:/usr/bin:/bin")

    assert ctl(tree, "install", package, "--now", env=answer('case "$*" in *unprivileged*) exit 0 ;; *is-active*) exit 3 ;; esac')) \
        .out.endswith("\nrestarted vx_agent-unprivileged.service\n")
    assert calls.read_text().splitlines() == ["--quiet is-active -- vx_agent.service", "--quiet is-active -- vx_agent-unprivileged.service",
                                              "--no-ask-password restart -- vx_agent-unprivileged.service"]
    assert ctl(tree, "install", package, "--now", status=1, env=answer("exit 3")).err == \
        "vexctl: it takes effect with the next start; not restarted: no service of it runs " \
        "(vx_agent.service and vx_agent-unprivileged.service)\n"
    failing = answer('case "$*" in *restart*) echo "no\033[31m" >&2; exit 1 ;; esac')
    assert ctl(tree, "--name", "other", "install", package, "--now", status=1, env=failing).err.endswith(
        "not restarted: other.service: no\\x1B[31m\n")
    assert "not restarted: " in ctl(tree, "install", package, "--now", status=1, env=dict(os.environ, PATH=str(tmp_path))).err
    assert os.path.exists(tree.file(named()))


# --- plugins


def test_files_that_were_changed_since_are_listed_and_all_of_them_when_asked(tree, tmp_path):
    with_spool(tree, tmp_path, 1, good="return 1", gone="return 2")
    tree.file("spool/plugin.lua", "return 'changed'")
    os.unlink(tree.file("spool/gone.lua"))
    out = ctl(tree, "plugins").out
    assert "1 of 3 files changed, 1 missing" in out
    assert [line.split() for line in out.splitlines()[-3:]] == [["STATE", "PACKAGE", "FILE"], ["missing", named(1) + ".done", "spool/gone.lua"],
                                                ["changed", named(1) + ".done", "spool/plugin.lua"]]
    assert f"as packed  {named(1)}.done" in ctl(tree, "plugins", "--files").out


@pytest.mark.sandbox
def test_an_ordinary_user_learns_what_file_modes_allow(tree, tmp_path):
    conftest.require_ordinary_user()
    with_spool(tree, tmp_path)
    subprocess.run(["cp", "-a", tree.path, "/opt/tree"], check=True)
    tree.path = "/opt/tree"
    os.chmod("/opt/tree", 0o755)
    user = conftest.ORDINARY_USER
    assert states(tree) == {named(1) + ".done": "installed"}
    assert checked("plugins", ctl(tree, "plugins", "--json", user=user).out)["packages"][0]["state"] == "installed"
    os.chmod("/opt/tree/spool/plugin.lua", 0o600)
    result = ctl(tree, "plugins", "--json", user=user, status=2)
    assert result.err == "vexctl: /opt/tree/spool/plugin.lua: Permission denied\n"
    assert checked("plugins", result.out)["packages"][0]["files"] == [{"name": "spool/plugin.lua", "state": "unreadable"}]
    os.chmod("/opt/tree/" + named(1) + ".done", 0o600)
    assert "Permission denied" in ctl(tree, "remove", "spool", user=user, status=2).err
    shutil.copyfile("/opt/tree/" + named(1) + ".done", "/opt/" + named(1))
    os.chmod("/opt/" + named(1), 0o644)
    assert ctl(tree, "install", "/opt/" + named(1), user=user, status=2).err == \
        f"vexctl: /opt/tree/{named(1)} cannot be written: Permission denied\n"
