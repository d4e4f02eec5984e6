#!/usr/bin/env python3
"""Measures what a unit of work costs while what it is done among grows: bench_growth.py STAGE [BUILD]. Run it through tools/sandbox.

Modules of an archive to 50,000, archives on the search path to 10,000, keys of the domain and events in the database to a million, lines of
a log that is rotated all the time; and the memory of a process that requires, runs scripts and starts workers a hundred thousand times.
Claims are ratios of a large size to a small one in the same run. Times are processor times, the best of several, and their claims lie far
from what other work on the machine makes of them: growth along with the size would be a factor of ten or a thousand. Where
VEX_BENCH_PLOTS names a folder, the curves are drawn there.
"""
import collections
import os
import shutil
import sqlite3
import subprocess
import sys
import tempfile

import figures
import plot

EVENTS = (1000, 10_000, 100_000, 1_000_000)
WORKERS = 100_000
# A worker's object goes with the collector, so its memory is still when that has come round for the first time.
APPLICATION = """
local function resident()
  local file = assert(io.open("/proc/self/statm"))
  local size, all, shared = file:read("*n", "*n", "*n")
  file:close()
  return (all - shared) * 4
end
return { main = function()
  for i = 1, %d do
    local worker = dom0:StartThread("job")
    while worker:Running() do dom0:Wait("never", 0.0001) end
    if i %% 10000 == 0 then collectgarbage() print(("workers %%d %%d"):format(i, resident())) end
  end
end }
"""


Point = collections.namedtuple("Point", "x y")  # what one unit costs at a size


def points(text):
    """{series: its points in order}"""
    found = collections.defaultdict(list)
    for line in text.splitlines():
        series, x, y = line.split()
        found[series].append(Point(float(x), float(y)))
    return found


def called(command):
    return subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True, check=True).stdout


def fill(path, begin, end):
    database = sqlite3.connect(path)
    database.execute("PRAGMA journal_mode=OFF")
    with database:
        columns = [row[1] for row in database.execute("PRAGMA table_info(agent_event)") if row[1] != "id"]
        first = database.execute(f"SELECT {', '.join(columns)} FROM agent_event LIMIT 1").fetchone()
        key = columns.index("key")
        marks = ", ".join("?" * len(columns))
        database.executemany(f"INSERT INTO agent_event({', '.join(columns)}) VALUES({marks})",
                             (first[:key] + (f"{number:032x}",) + first[key + 1:] for number in range(begin, end)))
    database.close()


def grow_events(program):
    """The cost of an event beside so many: the database is made by an agent and filled with copies of its row. In memory: what a disk
    takes for a flush is not ours."""
    found = []
    with tempfile.TemporaryDirectory(dir="/dev/shm") as folder:
        called([program, "events", folder])
        rows = 0
        for size in EVENTS:
            fill(folder + "/events.db", rows, size)
            rows = size
            found.append(Point(size, points(called([program, "events", folder]))["event"][0].y))
    return {"event": found}


def grow(program, subject):
    with tempfile.TemporaryDirectory() as folder:
        found = points(called([program, subject, folder]))
        if subject == "log" and not os.path.exists(folder + "/grow.log.1"):
            sys.exit("bench_growth: the log was not rotated")
        return found


def grow_workers(stage):
    with tempfile.TemporaryDirectory() as folder:
        tree = os.path.join(folder, "tree")
        shutil.copytree(stage, tree, ignore=shutil.ignore_patterns("work"))
        for name, text in (("manyworkers", APPLICATION % WORKERS), ("job", "return { run = function() end }\n")):
            with open(os.path.join(folder, name + ".lua"), "w", encoding="ascii") as file:
                file.write(text)
        return points(called([tree + "/vx_agent", "--appname", "manyworkers", "--workdir", folder, "--lua_path", folder + "/?.lua"]))


def draw(name, title, across, up, curves):
    folder = os.environ.get("VEX_BENCH_PLOTS")
    if folder:
        with open(os.path.join(folder, name + ".svg"), "w", encoding="ascii") as file:
            file.write(plot.svg(title, across, up, curves))


def among(what, series, few, many, unit, claim):
    """The row of a series: at `many` against at `few`."""
    at = {point.x: point.y for point in series}
    return figures.row(f"{what} among {many:,}", at[many], f"among {few:,}", at[few], unit, claim)


def flat(what, series, unit, claim):
    """The row of a series that has no sizes but goes on: its end against its begin, the least of three points each."""
    ys = [point.y for point in series]
    return figures.row(what, min(ys[-3:]), "the first", min(ys[:3]), unit, claim)


def main():
    if len(sys.argv) not in (2, 3):
        sys.exit(__doc__)
    stage = os.path.abspath(sys.argv[1])
    build = os.path.abspath(sys.argv[2] if len(sys.argv) > 2 else os.path.join(stage, "..", "release"))
    program = build + "/bench/grow"
    found = grow(program, "modules")
    draw("modules", "A small module required from an archive", "modules of the archive", "us a module",
         {"no cache": found["uncached"], "warm cache": found["cached"]})
    kept = among("a module without the cache", found["uncached"], 1000, 50_000, "us", 3)
    kept &= among("a module from the cache", found["cached"], 1000, 50_000, "us", 4)

    found = grow(program, "archives")
    draw("archives", "A module required from the last of many archives", "archives", "us",
         {"once they are open": found["last"], "to open one": found["first"]})
    kept &= among("the last archive's module", found["last"], 10, 10_000, "us", 3)
    kept &= among("an archive opened", found["first"], 100, 10_000, "us", 3)

    found = grow(program, "keys")
    draw("keys", "A key of the domain", "keys", "ns", {"Get": found["get"], "Set": found["set"], "Keys with ten hits": found["keys"]})
    kept &= among("dom0:Get", found["get"], 1000, 1_000_000, "ns", 3)
    kept &= among("dom0:Set", found["set"], 1000, 1_000_000, "ns", 3)
    kept &= among("dom0:Keys with ten hits", found["keys"], 1000, 1_000_000, "ns", 3)

    found = grow_events(program)
    draw("events", "An agent event written", "events in the database", "us of processor time", {"an event": found["event"]})
    kept &= among("an agent event", found["event"], 1000, 1_000_000, "us", 3)

    found = grow(program, "log")
    draw("log", "A line of a log that is rotated every 4 KiB", "lines", "us", {"a line": found["line"]})
    kept &= flat("a line of a log that is rotated all the time", found["line"], "us", 2)

    found = {**grow(program, "requires"), **grow(program, "scripts"), **grow_workers(stage)}
    draw("memory", "Memory of a process that goes on", "requires, scripts, workers", "KiB that belong to no file",
         {name: found[name] for name in ("requires", "scripts", "workers")})
    for name in ("requires", "scripts", "workers"):
        kept &= flat(f"memory after 100,000 {name}", found[name], "KiB", 1.1)
    return 0 if kept else 1


if __name__ == "__main__":
    sys.exit(main())
