#!/usr/bin/env python3
"""Measures the first start after an upgrade: bench_upgrade.py STAGE [RUNS]. Run it through tools/sandbox.

An application requires 2,000 modules of 2 KiB from an archive and prints a line. It is started without compiled chunks, then with those that
this start has kept, then with an archive of a newer version in the place of the old one, whose chunks still lie there. What each start takes to
that line is the processor time of its process, as it tells itself, and to its end that which the system tells.
They take turns, and the turn in the middle counts. Claims: after an upgrade at most 1.15 times the start without any chunks, because those of the old archive are in the way of
nothing, and the start with its own chunks at most half of that.
"""
import os
import resource
import shutil
import subprocess
import sys
import tempfile

import figures
import many_modules

MODULES, RUNS = 2000, 15
CLAIM_UPGRADE, CLAIM_WARM = 1.15, 0.5
APPLICATION = f"""
return {{ main = function()
  for number = 0, {MODULES - 1} do require(("part%d.module_%d"):format(math.floor(number / 100), number)) end
  print(os.clock())
end }}
"""


def start(stage, folder):
    """(milliseconds to the application's line, to the end of the process)"""
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    done = subprocess.run([os.path.join(stage, "vx_agent"), "--appname", "upgraded", "--workdir", folder + "/work", "--lua_path", folder + "/?.lua",
                           "--zippath", folder + "/modules.vxe"], check=True, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    return 1e3 * float(done.stdout), 1e3 * (after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime)


def install(folder, version):
    """As an installation does: under another name first."""
    many_modules.write_archive(folder + "/modules.new", MODULES, limit=version)
    os.rename(folder + "/modules.new", folder + "/modules.vxe")


def main():
    stage = os.path.abspath(sys.argv[1])
    runs = int(sys.argv[2]) if len(sys.argv) > 2 else RUNS
    first, warm, upgraded = [], [], []
    with tempfile.TemporaryDirectory() as folder:
        os.mkdir(folder + "/work")
        with open(folder + "/upgraded.lua", "w", encoding="ascii") as file:
            file.write(APPLICATION)
        for _ in range(runs):
            shutil.rmtree(os.path.join(folder, "work", "cache"), ignore_errors=True)
            install(folder, 10)
            first.append(start(stage, folder))
            warm.append(start(stage, folder))
            install(folder, 11)
            upgraded.append(start(stage, folder))
            if len(os.listdir(os.path.join(folder, "work", "cache"))) != 2:
                sys.exit("bench_upgrade: the chunks of one archive are not beside those of the other")
    what = f"{MODULES:,} modules after an upgrade"

    def row(end, ours, yardstick, theirs, column, claim):
        middle = figures.middle_turn([(one[column], other[column]) for one, other in zip(ours, theirs)])
        return figures.row(f"{what} {end}", middle[0], yardstick, middle[1], "ms", claim)

    kept = row("to the first line", upgraded, "without old chunks", first, 0, CLAIM_UPGRADE)
    kept &= row("to the end", upgraded, "without old chunks", first, 1, CLAIM_UPGRADE)
    kept &= row("and one more start to the first line", warm, "the start after the upgrade", upgraded, 0, CLAIM_WARM)
    return 0 if kept else 1


if __name__ == "__main__":
    sys.exit(main())
