#!/usr/bin/env python3
"""Starts many workers one after the other beside a Lua heap of 18 MB: bench_workers.py STAGE [COUNT]. Run it through tools/sandbox.

A large heap lets the collector, and with it the finalisers of the workers' objects, come round seldom. Prints what the process
has after the first workers, from when on it is the same, and after every tenth of them. Claim: the last row is at most 8 MiB above
the first in memory, and has as many threads and no more than 8 memory maps more.

Then the modules that a worker requires after the main state has required them, the first and a hundred, from an archive whose chunks are
kept, against what the main state has spent on the same: processor time, the state made before. Claims: the first half as much, because
archives and caches are the process's, and all of them no more.

Then stops agents in the background by the signal that a service manager sends, with 50 workers that wait and with none, by turns: the
time to the supervisor's end, by the clock.
"""
import ctypes
import os
import re
import select
import signal
import subprocess
import sys
import tempfile
import time

import figures
import many_modules
from running import send_signal

CLAIM_FIRST, CLAIM_ALL = 0.5, 1
CLAIM_KIB = 8192
CLAIM_MAPS = 8
STOPPED_WORKERS, STOPS = 50, 11
MODULES, STATES = 100, 41

APPLICATION = """
local ballast = {}
for i = 1, 190000 do ballast[i] = { i } end
local function field(text, name) return tonumber(text:match(name .. ":%%s*(%%d+)")) end
local function status()
  local file = assert(io.open("/proc/self/status"))
  local text = file:read("*a")
  file:close()
  return text
end
local before = field(status(), "Threads")
local function tell(done)
  local text = status()
  for _ = 1, 500 do  -- a worker that has ended may still be on its way out of the process
    if field(text, "Threads") <= before then break end
    dom0:Wait("never", 0.01)
    text = status()
  end
  local maps = 0
  for _ in io.lines("/proc/self/maps") do maps = maps + 1 end
  print(("%%8d %%9d %%11d %%6d %%8d"):format(done, field(text, "RssAnon"), field(text, "VmSize"), maps, field(text, "Threads")))
end
return { main = function()
  print(("Lua heap: %%d KiB"):format(collectgarbage("count")))
  print(" workers  anon KiB    size KiB   maps  threads")
  local count = %d
  for i = 1, count do
    local worker = dom0:StartThread("job")
    while worker:Running() do dom0:Wait("never", 0.0001) end
    if i == 5000 or i %% math.floor(count / 10) == 0 then tell(i) end
  end
end }
"""

STOPPED = """
return { main = function()
  for number = 1, %d do dom0:StartThread("waiter", number) end
  while #dom0:Keys("bench.waiting") < %d do dom0:Wait("bench.waiting", 1) end
  io.open(dom0:Get("app.path.work") .. "/waiting", "w"):close()
  return 0
end }
"""
WAITER = """
return { run = function(number)
  dom0:Set("bench.waiting." .. number, true)
  dom0:Wait("bench.never", 1e6)
end }
"""

# What both states do, one after the other: the clock is that of the process, and the main state waits while the worker does it.
REQUIRES = f"""
return function()
  local begin, first = os.clock(), nil
  for number = 0, {MODULES - 1} do
    require(("part%d.module_%d"):format(math.floor(number / 100), number))
    first = first or os.clock() - begin
  end
  print(("%.0f %.0f"):format(1e9 * first, 1e9 * (os.clock() - begin)))
end
"""
TWO_STATES = """
return { main = function()
  require("requires")()
  local worker = dom0:StartThread("second")
  worker:Join()
end }
"""


def write(folder, name, text):
    with open(os.path.join(folder, name + ".lua"), "w", encoding="utf-8") as file:
        file.write(text)


def measure_second_state(stage):
    with tempfile.TemporaryDirectory() as folder:
        many_modules.write_archive(folder + "/modules.vxe", MODULES)
        write(folder, "twostates", TWO_STATES)
        write(folder, "requires", REQUIRES)
        write(folder, "second", 'return { run = function() require("requires")() end }\n')
        command = [os.path.join(stage, "vx_agent"), "--appname", "twostates", "--workdir", folder, "--lua_path", folder + "/?.lua", "--zippath",
                   folder + "/modules.vxe"]
        starts = [subprocess.run(command, check=True, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True).stdout.split()
                  for _ in range(STATES + 1)]
    # The first start has compiled what the others load.
    turns = [[int(word) / 1e3 for word in start] for start in starts[1:]]
    kept = True
    for what, place, claim in (("the first module that a worker requires", 0, CLAIM_FIRST),
                               (f"{MODULES} modules that a worker requires", 1, CLAIM_ALL)):
        worker, main_state = figures.middle_turn([(turn[place + 2], turn[place]) for turn in turns])
        kept &= figures.row(what, worker, "the main state's before it", main_state, "us", claim)
    return kept


def stop(stage, workers):
    """Milliseconds from the signal to the end of an agent in whose child so many workers wait."""
    with tempfile.TemporaryDirectory() as folder:
        write(folder, "stopped", STOPPED % (workers, workers))
        write(folder, "waiter", WAITER)
        subprocess.run([os.path.join(stage, "vx_agent"), "--background", "--appname", "stopped", "--workdir", folder, "--lua_path",
                        folder + "/?.lua"], check=True, stdin=subprocess.DEVNULL)
        end = time.monotonic() + 60
        while not os.path.exists(folder + "/waiting"):
            if time.monotonic() > end:
                sys.exit(f"bench_workers: {workers} workers do not wait within 60 s")
            time.sleep(0.01)
        time.sleep(0.1)  # the script's thread has its own way to its wait
        with open("/run/stopped.pid", encoding="ascii") as file:
            supervisor = int(file.read().split()[0])
        descriptor = os.pidfd_open(supervisor)
        begin = time.monotonic()
        send_signal(supervisor, signal.SIGTERM)
        ended = select.poll()
        ended.register(descriptor, select.POLLIN)
        if not ended.poll(60000):
            sys.exit("bench_workers: the agent does not end within 60 s")
        took = time.monotonic() - begin
        os.close(descriptor)
        return 1000 * took


def measure_stops(stage):
    if os.environ.get("VEX_SANDBOX") != "1":
        sys.exit("bench_workers: run it through tools/sandbox")
    ctypes.CDLL(None).mount(b"tmpfs", b"/run", b"tmpfs", 0, None)
    pairs = [(stop(stage, STOPPED_WORKERS), stop(stage, 0)) for _ in range(STOPS)]
    ours, theirs = figures.middle_turn(pairs)
    figures.row(f"a stop with {STOPPED_WORKERS} workers that wait", ours, "a stop without workers", theirs, "ms")


def main():
    stage = os.path.abspath(sys.argv[1])
    count = int(sys.argv[2]) if len(sys.argv) > 2 else 50000
    with tempfile.TemporaryDirectory() as folder:
        write(folder, "manyworkers", APPLICATION % count)
        write(folder, "job", "return { run = function() end }\n")
        done = subprocess.run([os.path.join(stage, "vx_agent"), "--appname", "manyworkers", "--workdir", folder, "--lua_path",
                               folder + "/?.lua"], check=True, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
    print(done.stdout, end="")
    rows = [[int(number) for number in line.split()] for line in done.stdout.splitlines() if re.fullmatch(r"[\d ]+", line)]
    more = [last - first for first, last in zip(rows[0], rows[-1])]
    kept = figures.row("memory that workers leave behind", more[1], "allowed are", CLAIM_KIB, "KiB", 1)
    kept &= figures.row("memory maps that workers leave behind", more[3], "allowed are", CLAIM_MAPS, "maps", 1)
    if more[4] != 0:
        print(f"{more[4]} more threads at the end", file=sys.stderr)
        return 1
    kept &= measure_second_state(stage)
    measure_stops(stage)
    return 0 if kept else 1


if __name__ == "__main__":
    sys.exit(main())
