#!/usr/bin/env python3
"""Measures what an operator waits for: bench_vexctl.py STAGE [BUILD]. Run it through tools/sandbox.

Makes a database of a million events and a log of 10 MiB, and prints how long the last 100 events take with `vexctl events`, without and with
a time or a key, against the shell of SQLite that prints the same rows in the same run, and how long `vexctl status` takes. Then the last
20,000 events as JSON against the shell that prints them so, and a bundle of it all against tar and gzip with the same files. Both take
turns, and of many the turn in the middle counts, in processor time, the start of the process included. Claims: at most 5 times the shell
for a hundred events, 12 times the shell's start for the status, 1.8 times the shell for the JSON, 3 times tar and gzip, which mask
nothing, for the bundle.
"""
import hashlib
import os
import resource
import shutil
import sqlite3
import subprocess
import sys
import tempfile
import time

import figures

ROWS = 1_000_000
BASE_MS = 1_700_000_000_000
RUNS = 31
CLAIM_EVENTS, CLAIM_STATUS, CLAIM_JSON, CLAIM_BUNDLE = 5, 12, 1.8, 3
MANY = 20_000
SQL = "SELECT {}, time_ms, number, severity, text FROM (SELECT * FROM agent_event WHERE {} ORDER BY id DESC LIMIT {}) ORDER BY id"


def key_of(row):
    return hashlib.md5(str(row).encode()).hexdigest()


def make_events(path):
    database = sqlite3.connect(path)
    database.executescript("PRAGMA journal_mode=OFF; CREATE TABLE agent_event(id INTEGER PRIMARY KEY, time_ms INTEGER, time_s INTEGER, number INTEGER, "
                           "severity INTEGER, text TEXT, xml TEXT, key TEXT); CREATE INDEX agent_event_time ON agent_event(time_ms);"
                           "CREATE INDEX agent_event_by_key ON agent_event(key) WHERE key IS NOT NULL")
    database.executemany("INSERT INTO agent_event(time_ms, time_s, number, severity, text, xml, key) VALUES(?, ?, ?, ?, ?, ?, ?)",
                         ((BASE_MS + 1000 * row, BASE_MS // 1000 + row, row % 100, row % 8, f"event {row} of a plugin that has much to tell",
                           f'<agent_event number="{row % 100}" severity="{row % 8}" text="event {row} of a plugin that has much to tell"/>', key_of(row))
                          for row in range(ROWS)))
    database.commit()
    database.close()


def make_log(path):
    with open(path, "w", encoding="utf-8") as file:
        while file.tell() < 10 << 20:
            file.write('2026-01-31 10:20:30 DEBUG [101/CWorkerThread] plugin network: {"interfaces":[{"name":"eth0","rx":1,"tx":2}]}\n')


def processor_ms(command, statuses=(0,)):
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    result = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, check=False)
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    if result.returncode not in statuses or not result.stdout:
        sys.exit(f"bench_vexctl: {command} ended with {result.returncode}")
    return (after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime) * 1000


def row(what, command, yardstick, other, claim, statuses=(0,)):
    ours, theirs = figures.middle_turn([(processor_ms(command, statuses), processor_ms(other)) for _ in range(RUNS)])
    return figures.row(what, ours, yardstick, theirs, "ms", claim)


def main():
    if len(sys.argv) not in (2, 3):
        sys.exit(__doc__)
    if shutil.which("sqlite3") is None:
        sys.exit("bench_vexctl: sqlite3 is not installed; tools/packages.txt names it")
    vexctl = os.path.join(os.path.abspath(sys.argv[1]), "vexctl")
    kept = True
    with tempfile.TemporaryDirectory(prefix="vex-bench-") as folder:
        events = os.path.join(folder, "events.db")
        make_events(events)
        make_log(os.path.join(folder, "vx_agent.log"))
        begin, middle, end = (BASE_MS + 1000 * row for row in (10, ROWS // 2, ROWS - 50))
        for name, arguments, where in (("from the end", [], "1"), ("since the begin", ["--since", begin], f"time_ms >= {begin}"),
                                       ("since the middle", ["--since", middle], f"time_ms >= {middle}"),
                                       ("since just now", ["--since", end], f"time_ms >= {end}"),
                                       ("behind a key", ["--after", key_of(ROWS - 101)], f"id > {ROWS - 100}")):
            arguments = [word if isinstance(word, str) else time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(word // 1000)) for word in arguments]
            kept &= row(f"100 events of a million {name}", [vexctl, "--workdir", folder, "events", "-n", "100", *arguments],
                        "the shell of SQLite", ["sqlite3", "-readonly", events, SQL.format("id", where, 100)], CLAIM_EVENTS)
        kept &= row("vexctl status beside a log of 10 MiB", [vexctl, "--workdir", folder, "status"],
                    "the shell of SQLite that tells one number", ["sqlite3", "-readonly", events, "SELECT 1"], CLAIM_STATUS, statuses=(0, 1, 3))
        kept &= row("20,000 events as JSON", [vexctl, "--workdir", folder, "events", "-n", str(MANY), "--json"],
                    "the shell of SQLite", ["sqlite3", "-readonly", "-json", events, SQL.format("key", "1", MANY)], CLAIM_JSON)
        bundle, files = os.path.join(folder, "bundle.tar.gz"), os.path.join(folder, "files")
        make_bundle = [vexctl, "--workdir", folder, "bundle", "-o", bundle]
        subprocess.run(make_bundle, stdout=subprocess.DEVNULL, check=True)
        os.mkdir(files)
        subprocess.run(["tar", "xzf", bundle, "-C", files], check=True)
        kept &= row("a bundle with a log of 10 MiB", make_bundle, "tar and gzip with the same files",
                    ["tar", "czvf", os.path.join(folder, "packed.tar.gz"), "-C", files, "."], CLAIM_BUNDLE)
    return 0 if kept else 1


if __name__ == "__main__":
    sys.exit(main())
