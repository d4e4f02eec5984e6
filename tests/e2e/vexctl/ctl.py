"""Calls of vexctl on a tree of the agent."""
import fcntl
import json
import os
import sqlite3
import struct
import subprocess
import termios
import zipfile

import jsonschema
import pytest

from conftest import PATIENCE, ROOT, at_rest, wait_until

EVENTS = ("CREATE TABLE agent_event(id INTEGER PRIMARY KEY, time_ms INTEGER, time_s INTEGER, number INTEGER, severity INTEGER,"
          " text TEXT, xml TEXT); CREATE INDEX agent_event_time ON agent_event(time_ms);")


def ctl(tree, *arguments, status=0, user=None, executable=None, **options):
    """Runs vexctl on the tree's work folder; the status must be the given one."""
    identity = {} if user is None else {"user": user, "group": user, "extra_groups": []}
    result = subprocess.run([executable or os.path.join(tree.path, "vexctl"), *arguments], stdin=subprocess.DEVNULL, capture_output=True,
                            timeout=PATIENCE, check=False, **identity, **options)
    out, err = result.stdout.decode("utf-8", "surrogateescape"), result.stderr.decode("utf-8", "surrogateescape")
    assert result.returncode == status, f"status {result.returncode}\n{out}\n{err}"
    result.out, result.err = out, err
    return result


def seen_on_terminal(tree, *arguments, stream="stderr", columns=1000):
    """What a terminal gets of its standard error, or of its output."""
    master, slave = os.openpty()
    fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("4H", 24, columns, 0, 0))
    process = tree.start(*arguments, name="vexctl", **{"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL, stream: slave})
    os.close(slave)
    shown = b""
    try:
        while part := os.read(master, 65536):
            shown += part
    except OSError:  # the end of a terminal
        pass
    os.close(master)
    assert process.wait(PATIENCE) == 0, shown
    return shown.decode("utf-8", "surrogateescape")


def checked(kind, text):
    """The JSON object of a text, which keeps to the schema of that kind."""
    with open(os.path.join(ROOT, "docs", "schema", f"vexctl-{kind}.json"), encoding="utf-8") as file:
        schema = json.load(file)
    jsonschema.Draft202012Validator.check_schema(schema)
    found = json.loads(text)
    jsonschema.Draft202012Validator(schema).validate(found)
    return found


def objects(kind, text):
    """One such object a line."""
    return [checked(kind, line) for line in text.splitlines()]


def with_events(tree, rows):
    """Makes an event database as an agent leaves it: rows of (time_ms, number, severity, text)."""
    os.makedirs(tree.work, 0o700, exist_ok=True)
    path = os.path.join(tree.work, "events.db")
    database = sqlite3.connect(path)
    database.executescript(EVENTS)
    database.executemany("INSERT INTO agent_event(time_ms, time_s, number, severity, text, xml) VALUES(?, ?, ?, ?, ?, ?)",
                         [(time_ms, time_ms // 1000, number, severity, text, f'<agent_event number="{number}" text="{text}"/>')
                          for time_ms, number, severity, text in rows])
    database.commit()
    database.close()
    return path


def with_zip(path, files):
    """An archive of others' making."""
    with zipfile.ZipFile(path, "w", zipfile.ZIP_DEFLATED) as archive:
        for name, content in files.items():
            archive.writestr(name, content)


def state_of(folder):
    """Names, sizes, times and contents of all files below a folder: a reader changes none."""
    found = {}
    for inner, _, names in os.walk(folder):
        for name in names:
            path = os.path.join(inner, name)
            status = os.lstat(path)
            content = None
            if os.path.isfile(path):
                with open(path, "rb") as file:
                    content = file.read()
            found[path] = (status.st_ino, status.st_size, status.st_mtime_ns, status.st_mode, content)
    return found


def quiet_state_of(folder, *pids):
    """The same, once an agent that runs has done all that belongs to its start and to its first heartbeat."""
    at_rest(*pids)
    return state_of(folder)


class Following:
    """A vexctl that goes on: its lines as they come."""

    def __init__(self, tree, path, *arguments):
        self.path = path
        with open(path, "wb") as out:
            self.process = tree.start(*arguments, name="vexctl", stdout=out, stderr=subprocess.STDOUT)

    def text(self):
        with open(self.path, encoding="utf-8") as file:
            return file.read()

    def wait_for(self, text):
        wait_until(lambda: text in self.text() or self.process.poll() is not None, what=f"{text!r} in the output")
        if text not in self.text():
            pytest.fail(f"it has ended with {self.process.returncode}:\n{self.text()}")
