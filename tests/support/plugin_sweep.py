"""What the sweeps over the installation and the removal of a plugin share: a tree that has some of the plugin's files in an
old form, a package or marker beside its executable, and the questions whether files are old or new and all is done."""
import os
import re
import sqlite3
import zipfile

from conftest import STAGE, Tree

OLD = {f"feature/{i}.lua": f"old {i}" for i in range(5)}
NEW = {f"feature/{i}.lua": f"new {i} " + "x" * 3000 * i for i in range(10)}
APP = "return {}"


def prepare(folder, kind, old=OLD, new=NEW):
    """A tree with the old files and Feature.<kind>, whose entries are the new ones in their order."""
    folder.mkdir()
    tree = Tree(folder)
    tree.app("probe", APP)
    for name, content in old.items():
        tree.file(name, content)
    with zipfile.ZipFile(tree.file("Feature." + kind), "w", zipfile.ZIP_DEFLATED) as archive:
        for name, content in new.items():
            archive.writestr(name, content)
    return tree


def events(tree):
    """The numbers of the stored events, in their order."""
    path = os.path.join(tree.work, "events.db")
    if not os.path.exists(path):
        return []
    with sqlite3.connect(path) as db:
        if not db.execute("SELECT 1 FROM sqlite_master WHERE name = 'agent_event'").fetchall():
            return []
        return [number for number, in db.execute("SELECT number FROM agent_event ORDER BY id")]


def content(tree, name):
    """A file's text; None when there is none."""
    try:
        with open(os.path.join(tree.path, name)) as file:
            return file.read()
    except FileNotFoundError:
        return None


def check_files(tree, kind, old=OLD, new=NEW):
    """Every file is old or new, never a mixture."""
    for name, fresh in new.items():
        found = content(tree, name)
        assert found in (old.get(name), fresh if kind == "vxp" else None), f"{name} is a mixture: {found[:40]!r}"


def strays(tree):
    """Names that look temporary, wherever in the tree."""
    staged = set(os.listdir(STAGE))
    return [name for _, _, files in os.walk(tree.path) for name in files
            if name not in staged and re.search(r"tmp|\.vex", name, re.I)]


def check_complete(tree, kind, new=NEW):
    """The package or marker is done with, its files are all there or all gone, and nothing else is left."""
    package = os.path.join(tree.path, "Feature." + kind)
    assert not os.path.exists(package)
    assert os.path.exists(package + ".done") == (kind == "vxp")
    for name, fresh in new.items():
        assert content(tree, name) == (fresh if kind == "vxp" else None), name
    assert strays(tree) == []
    for folder in {os.path.dirname(name) for name in new}:
        found = {entry.name for entry in os.scandir(os.path.join(tree.path, folder)) if not entry.is_dir()}
        wanted = {os.path.basename(name) for name in new if os.path.dirname(name) == folder}
        assert found == (wanted if kind == "vxp" else set()), folder
