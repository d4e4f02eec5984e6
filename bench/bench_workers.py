#!/usr/bin/env python3
"""Starts many workers one after the other beside a Lua heap of 18 MB: bench_workers.py STAGE [COUNT]. Run it through tools/sandbox.

A large heap lets the collector, and with it the finalisers of the workers' objects, come round seldom. Prints what the process
has after the first workers, from when on it is the same, and after every tenth of them. Claim: the last row is at most 8 MiB above
the first in memory, and has as many threads and no more than 8 memory maps more.
"""
import os
import re
import subprocess
import sys
import tempfile

import figures

CLAIM_KIB = 8192
CLAIM_MAPS = 8

APPLICATION = """
local ballast = {}
for i = 1, 190000 do ballast[i] = { i } end
local function field(text, name) return tonumber(text:match(name .. ":%%s*(%%d+)")) end
local function tell(done)
  local file = assert(io.open("/proc/self/status"))
  local text = file:read("*a")
  file:close()
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


def main():
    stage = sys.argv[1]
    count = int(sys.argv[2]) if len(sys.argv) > 2 else 50000
    with tempfile.TemporaryDirectory() as folder:
        for name, text in (("manyworkers", APPLICATION % count), ("job", "return { run = function() end }\n")):
            with open(os.path.join(folder, name + ".lua"), "w", encoding="utf-8") as file:
                file.write(text)
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
    return 0 if kept else 1


if __name__ == "__main__":
    sys.exit(main())
