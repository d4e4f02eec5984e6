"""Packages dropped beside the executable: installed, run in the same start, and removed again by a marker."""
import hashlib
import os
import re
import sqlite3
import stat
import time

import pytest

from conftest import BUILD_NUMBER, OTHER_VERSION, STAGE, VERSION, Tree, mount_tmpfs, unmount
from packages import VERSIONED, WRITERS, with_zipfile

APP = "return { main = function() print(dom0:Get('vex.HeartbeatNow')); return 0 end }"
FILES = {"feature/x.lua": "return 'x'", "feature/lib/y.so": b"\x7fELF" + bytes(5000), "feature/data.bin": bytes(range(256)) * 500}


def events(tree):
    path = os.path.join(tree.work, "events.db")
    if not os.path.exists(path):
        return []
    with sqlite3.connect(path) as db:
        return db.execute("SELECT number, severity, text, time_ms, time_s, xml FROM agent_event ORDER BY id").fetchall()


def install(tree, *arguments, **options):
    tree.app("probe", APP)
    return tree.run("--install_plugins", *arguments, name="probe", **options)


def tree_hash(tree):
    """Every path, kind, mode and content of the tree, without the work folder."""
    found = hashlib.sha256()
    for folder, folders, files in os.walk(tree.path):
        folders[:] = sorted(name for name in folders if os.path.join(folder, name) != tree.work)
        for name in sorted(files) + folders:
            path = os.path.join(folder, name)
            info = os.lstat(path)
            found.update(repr((path, stat.S_IFMT(info.st_mode), stat.S_IMODE(info.st_mode))).encode())
            if stat.S_ISREG(info.st_mode):
                with open(path, "rb") as file:
                    found.update(file.read())
    return found.hexdigest()


def test_a_package_and_a_marker_whose_names_are_not_utf8_are_taken(tree):
    package = tree.file(VERSIONED).replace("Feature", os.fsdecode(b"Feat\xe9re"))
    with_zipfile(package + ".vxp", {"feature/x.lua": "return 'x'"})
    result = install(tree)
    assert result.status == 0 and "WARNING" not in result.log
    assert os.path.exists(tree.path + "/feature/x.lua") and os.path.exists(package + ".vxp.done")
    with_zipfile(package + ".vxu", {"feature/x.lua": ""})
    result = install(tree)
    assert result.status == 0 and "WARNING" not in result.log
    assert not os.path.exists(tree.path + "/feature/x.lua") and not os.path.exists(package + ".vxu")
    assert [number for number, *_ in events(tree)] == [5101, 5105]


def test_a_folder_that_others_can_write_is_told_and_its_packages_are_taken(tree):
    with_zipfile(tree.file(VERSIONED + ".vxp"), FILES)
    os.chmod(tree.path, 0o777)
    result = install(tree)
    assert result.status == 0 and os.path.exists(tree.path + "/feature/x.lua")
    told = f'Others than root and this user can write in "{tree.path}": archives are unpacked there all the same, but who can ' \
           "write there decides what is run. Give the folder to root and take the others' right to write"
    assert result.log.count(told) == 1 and result.log.count("WARNING") == 1


@pytest.mark.fast
@pytest.mark.parametrize("writer", WRITERS)
def test_a_package_is_installed_renamed_and_recorded(tree, tmp_path, writer):
    package = tree.file(VERSIONED + ".vxp")
    WRITERS[writer](package, FILES, str(tmp_path / "scratch"))
    before = time.time()
    result = install(tree, "--trace", "Appl")
    assert (result.status, result.out, result.err) == (0, "true\n", "")
    for name, content in FILES.items():
        with open(os.path.join(tree.path, name), "rb") as file:
            assert file.read() == (content.encode() if isinstance(content, str) else content)
    assert not os.path.exists(package) and os.path.exists(package + ".done")
    (number, severity, text, millis, seconds, xml), = events(tree)
    assert (number, severity) == (5101, 5)
    assert text == f"Feature|{VERSIONED}|{package}"
    assert seconds == millis // 1000 and before - 2 <= seconds <= time.time()
    assert "5101" in xml and "Feature|" in xml
    assert f": Extracting files from {package}\n" in result.log
    assert re.search(r":   extracting: feature/x\.lua \(10 bytes\)\n", result.log)
    assert f": Successfully extracted files for plugin '{VERSIONED}'. Deleting '{package}'\n" in result.log


@pytest.mark.parametrize("writer", WRITERS)
def test_a_marker_removes_the_files_and_leaves_the_folders(tree, tmp_path, writer):
    for name, content in FILES.items():
        tree.file(name, content)
    tree.file("feature/other", "stays")
    marker = tree.file("Agent-Feature-Linux-9.5.0-1.x86_64.vxu")
    WRITERS[writer](marker, FILES, str(tmp_path / "scratch"))
    result = install(tree, "--trace", "Appl")
    assert result.status == 0
    assert sorted(os.listdir(tree.path + "/feature")) == ["lib", "other"]
    assert not os.path.exists(marker) and not os.path.exists(marker + ".done")
    (number, severity, text, *_), = events(tree)
    assert (number, severity, text) == (5105, 5, f"Feature|Agent-Feature-Linux-9.5.0-1.x86_64|{marker}")
    assert f": Removing files from {marker}\n" in result.log
    assert ":   removing: feature/x.lua (10 bytes)\n" in result.log
    assert f": Successfully removed files for plugin 'Agent-Feature-Linux-9.5.0-1.x86_64'. Deleting '{marker}'\n" in result.log
    assert "ERROR" not in result.log


def test_the_plugin_runs_in_the_same_start(tree):
    with_zipfile(tree.file("Feature.vxp"), {"newplugin/plugin.lua": "return 'fresh'"})
    tree.app("probe", "print(require('newplugin.plugin')) return {}")
    result = tree.run("--install_plugins", name="probe")
    assert (result.status, result.out) == (0, "fresh\n"), result.err


def test_an_extension_in_a_package_is_on_the_path_in_the_same_start(tree, tmp_path):
    with_zipfile(str(tmp_path / "e.vxe"), {"inside.lua": "return 'from the extension'"})
    with_zipfile(tree.file("Feature.vxp"), {"ext/e.vxe": (tmp_path / "e.vxe").read_bytes(),
                                            "ext/e.vxe.version": f"version: {VERSION}-{BUILD_NUMBER}\n"})
    tree.app("probe", "print(require('inside')) return {}")
    result = tree.run("--install_plugins", "--extdir", "ext", name="probe")
    assert (result.status, result.out) == (0, "from the extension\n"), result.err


def test_nothing_happens_without_the_switch(tree):
    package = tree.file("Feature.vxp")
    with_zipfile(package, FILES)
    tree.app("probe", APP)
    assert tree.run(name="probe").out == "nil\n"
    assert os.path.exists(package) and events(tree) == []


@pytest.mark.quick
def test_an_empty_folder_writes_no_event_and_asks_for_no_heartbeat(tree):
    assert install(tree).out == "nil\n"
    assert not os.path.exists(os.path.join(tree.work, "events.db"))


def test_a_package_of_another_version_is_refused_and_tried_again(tree):
    package = tree.file(f"Agent-Feature-Linux-{OTHER_VERSION}-{BUILD_NUMBER}.x86_64.vxp")
    with_zipfile(package, FILES)
    tree.app("probe", APP)
    before = tree_hash(tree)
    for start in (1, 2):
        result = install(tree)
        assert result.out == "true\n"
        assert [event[:2] for event in events(tree)] == [(5102, 2)] * start
        assert result.log.count(f"Plugin file '{package}' does not match VEX core version, not installing") == start
    assert tree_hash(tree) == before


@pytest.mark.parametrize("extension,number,word", [("vxp", 5102, "Plugin file"), ("vxu", 5106, "Plugin file")])
def test_an_unreadable_package_is_one_warning_and_an_event(tree, extension, number, word):
    # Root may read every file; a link that leads nowhere it may not.
    package = os.path.join(tree.path, "Feature." + extension)
    os.symlink("nowhere", package)
    result = install(tree)
    assert f"WARNING" in result.log and f"{word} '{package}' isn't readable" in result.log
    assert [event[0] for event in events(tree)] == [number]


def test_markers_go_before_packages_and_both_in_sorted_order(tree):
    for name in ("b.vxp", "a.vxp", "d.vxu", "c.vxu"):
        with_zipfile(tree.file(name), {"f": name})
    install(tree)
    assert [(event[0], event[2].split("|")[0]) for event in events(tree)] == [(5105, "c"), (5105, "d"), (5101, "a"), (5101, "b")]
    with open(tree.path + "/f") as file:
        assert file.read() == "b.vxp"


@pytest.mark.parametrize("name", ["x.VXP", "sub/x.vxp"])
def test_other_names_and_places_are_not_packages(tree, name):
    tree.file(name, "")
    with_zipfile(tree.file(name), FILES)
    assert install(tree).out == "nil\n"
    assert os.path.exists(os.path.join(tree.path, name))


def test_an_older_done_package_is_overwritten(tree):
    tree.file("x.vxp.done", "old")
    with_zipfile(tree.file("x.vxp"), FILES)
    install(tree)
    with open(tree.path + "/x.vxp.done", "rb") as file:
        assert file.read(2) == b"PK"


def test_a_missing_file_does_not_make_a_removal_fail(tree):
    with_zipfile(tree.file("x.vxu"), {"gone/nothing.lua": "x", "also": "y"})
    assert install(tree).status == 0
    assert [event[0] for event in events(tree)] == [5105]


def test_a_failed_rename_is_the_one_error_line_and_the_package_counts_as_installed(tree):
    package = tree.file("x.vxp")
    with_zipfile(package, FILES)
    os.mkdir(package + ".done")
    tree.file("x.vxp.done/full", "")
    result = install(tree)
    errors = [line for line in result.log.splitlines() if " ERROR " in line]
    assert len(errors) == 1 and re.search(rf"Unable to delete {re.escape(package)} \(error \d+: .*\)$", errors[0]), errors
    assert [event[0] for event in events(tree)] == [5101]
    assert os.path.exists(package)


@pytest.mark.parametrize("extension,number", [("vxp", 5102), ("vxu", 5106)])
def test_a_hostile_archive_changes_nothing(tree, extension, number):
    tree.app("probe", APP)
    tree.file("good", "stays")
    with_zipfile(tree.file("x." + extension), {"good": "changed", "../x": "x"})
    before = tree_hash(tree)
    result = install(tree)
    assert result.status == 0
    assert tree_hash(tree) == before
    assert [event[0] for event in events(tree)] == [number]
    lines = [line for line in result.log.splitlines() if "x." + extension in line]
    assert len(lines) == 1, result.log


def test_a_file_that_is_no_archive_changes_nothing(tree):
    package = tree.file("x.vxp", b"not an archive")
    result = install(tree)
    assert result.status == 0 and os.path.exists(package)
    assert [event[0] for event in events(tree)] == [5102]


def test_a_folder_of_the_destination_that_is_a_link_is_not_followed(tree, tmp_path):
    outside = tmp_path / "outside"
    outside.mkdir()
    (outside / "victim").write_text("untouched")
    os.symlink(outside, tree.path + "/feature")
    with_zipfile(tree.file("x.vxp"), {"feature/victim": "changed"})
    with_zipfile(tree.file("y.vxu"), {"feature/victim": ""})
    install(tree)
    assert sorted(event[0] for event in events(tree)) == [5102, 5106]
    assert (outside / "victim").read_text() == "untouched"


@pytest.mark.sandbox
def test_a_full_disk_keeps_the_old_file_and_the_event_arrives_when_there_is_room(tmp_path):
    small = tmp_path / "small"
    small.mkdir()
    # Beside the tree, which is large in a build for debugging, there is room for the new file, and once only.
    room = sum(os.path.getsize(os.path.join(folder, name)) for folder, _, names in os.walk(STAGE) for name in names) + 80 * 1024 * 1024
    mount_tmpfs(str(small), b"size=%d" % room)
    try:
        (small / "agent").mkdir()
        full = Tree(small / "agent", copy=True)
        full.file("feature/data", "old")
        full.file("probe.lua", APP)
        os.rename(full.path + "/vx_agent", full.path + "/probe")
        with_zipfile(full.file("x.vxp"), {"feature/data": bytes(60 * 1024 * 1024)})
        filler = full.file("filler", b"")
        space = os.statvfs(small)
        with open(filler, "wb") as file:
            file.write(bytes(space.f_bavail * space.f_frsize - 4 * 1024 * 1024))
        result = full.run("--install_plugins", name="probe")
        assert result.status == 0
        with open(full.path + "/feature/data") as file:
            assert file.read() == "old"
        assert [event[0] for event in events(full)] == [5102]
        assert sorted(os.listdir(full.path + "/feature")) == ["data"]
        os.unlink(filler)
        full.run("--install_plugins", name="probe")
        assert [event[0] for event in events(full)] == [5102, 5101]
        full.end_all()
    finally:
        unmount(str(small))


@pytest.mark.parametrize("fault", ["locked by another process", "not a file", "damaged"])
def test_an_event_that_the_database_cannot_take_is_kept_and_stored_once(tree, fault):
    database, pending = os.path.join(tree.work, "events.db"), os.path.join(tree.work, "events.pending.xml")
    tree.file("a.vxp", "no archive")
    install(tree)
    other = sqlite3.connect(database, isolation_level=None)
    if fault == "locked by another process":
        other.execute("BEGIN EXCLUSIVE")
    else:
        other.close()
        os.rename(database, database + ".away")
        if fault == "damaged":
            tree.file("work/events.db", b"x" * 8192)
        else:
            os.mkdir(database)
    result = install(tree)
    assert result.status == 0
    if fault == "damaged":
        assert [event[0] for event in events(tree)] == [5102] and not os.path.exists(pending)
        assert len([line for line in result.log.splitlines() if "events.db' is damaged" in line]) == 1
        return
    with open(pending) as file:
        kept = re.findall("<agent_event .*/>", file.read())
    assert len(kept) == 1 and 'number="5102"' in kept[0] and f"a|a|{tree.path}/a.vxp" in kept[0]
    assert len([line for line in result.log.splitlines() if " ERROR " in line and kept[0] in line]) == 1, result.log
    other.close()
    if fault == "not a file":
        os.rmdir(database)
        os.rename(database + ".away", database)
    os.unlink(tree.path + "/a.vxp")
    with_zipfile(tree.file("b.vxp"), FILES)
    install(tree)
    assert [event[0] for event in events(tree)] == [5102, 5102, 5101]
    assert events(tree)[1][5] == kept[0] and not os.path.exists(pending)


def test_the_archives_rights_are_kept_within_0755_and_nothing_more(tree, tmp_path):
    scratch = tmp_path / "scratch"
    (scratch / "bin").mkdir(parents=True)
    for name, mode in (("tool", 0o4711), ("text", 0o666)):
        (scratch / "bin" / name).write_text(name)
        os.chmod(scratch / "bin" / name, mode)
    import subprocess
    subprocess.run(["zip", "-q", "-r", tree.file("x.vxp"), "bin"], cwd=scratch, check=True)
    install(tree)
    assert stat.S_IMODE(os.stat(tree.path + "/bin/tool").st_mode) == 0o711
    assert stat.S_IMODE(os.stat(tree.path + "/bin/text").st_mode) == 0o644
    assert stat.S_IMODE(os.stat(tree.path + "/bin").st_mode) == 0o755
