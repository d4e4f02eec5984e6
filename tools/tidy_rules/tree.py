"""The files that the rules are about."""
import fnmatch
import functools
import os
import re
import subprocess

from tidy_rules.cpp import code_lines

TEXT = (".cpp", ".h", ".py", ".lua", ".md", ".cmake", ".txt", ".json", ".in", ".ini", ".service", ".supp", ".1", "")
CPP = (".cpp", ".h")


class Tree:
    """The files to look at, by their path from the root, and their lines."""

    def __init__(self, root):
        self.root = root
        self.files = sorted(self._list())
        self._lines = {}
        self._texts = {}
        self._code = {}
        self._places = {}

    def _list(self):
        known = subprocess.run(["git", "-C", self.root, "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
                               capture_output=True, check=False)
        if known.returncode == 0:
            names = os.fsdecode(known.stdout).split("\0")
        else:  # an unpacked release
            names = [os.path.relpath(os.path.join(folder, name), self.root)
                     for folder, _, files in os.walk(self.root) for name in files]
        return [name for name in names if name and not name.startswith(("build/", ".git/"))
                and os.path.isfile(os.path.join(self.root, name)) and not os.path.islink(os.path.join(self.root, name))]

    def named(self, *suffixes, below=""):
        for name in self.files:
            if name.startswith(below) and os.path.splitext(name)[1] in suffixes:
                yield name

    def lines(self, name):
        if name not in self._lines:
            with open(os.path.join(self.root, name), "rb") as file:
                data = file.read()
            is_text = b"\0" not in data and "/corpus/" not in name
            self._lines[name] = data.decode("utf-8", "replace").split("\n") if is_text else []
        return self._lines[name]

    def has(self, path):
        """Whether there is such a file or folder; "*" stands for any letters of a name."""
        if path not in self._places:
            self._places[path] = path in self._known or bool(fnmatch.filter(self._known, path))
        return self._places[path]

    @functools.cached_property
    def _known(self):
        known = {"."}
        for name in self.files:
            while name and name not in known:
                known.add(name)
                name = os.path.dirname(name)
        return known

    def text(self, name):
        if name not in self._texts:
            self._texts[name] = "\n".join(self.lines(name))
        return self._texts[name]

    def code(self, name):
        """The lines of a C++ file without its comments and texts."""
        if name not in self._code:
            self._code[name] = code_lines(self.text(name))
        return self._code[name]

    def matches(self, name, pattern, code=False):
        """Numbers of the lines that match; with `code`, comments and texts of C++ do not count."""
        # Most files have no such line, which one look at all of it tells.
        if not re.search(pattern.pattern, "\n".join(self.code(name)) if code else self.text(name), pattern.flags | re.M):
            return
        for number, line in enumerate(self.code(name) if code else self.lines(name), 1):
            if pattern.search(line):
                yield number


def without_excepted(tree, home, table, found):
    """Of what was found, pairs of a key and a breach, the breaches that no key of the table excuses; and the keys that excuse
    nothing any more, in the file `home` that has the table."""
    used = set()
    for key, breach in found:
        if key in table:
            used.add(key)
        else:
            yield breach
    if home in tree.files:
        for key in table.keys() - used:
            words = key if isinstance(key, str) else " ".join(key)
            number = next((number for number, line in enumerate(tree.lines(home), 1) if words.split()[0] in line), 1)
            yield home, number, f"nothing needs this exception: {words}"
