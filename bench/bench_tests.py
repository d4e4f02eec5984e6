#!/usr/bin/env python3
"""Measures many small Lua tests in the test mode: bench_tests.py STAGE [RUNS]. Run it through tools/sandbox.

10,000 tests that do nothing, in one script, with each kind of report, against LuaUnit alone in the stock interpreter with the
same script and report. In processor time of whole processes, from which the time of one test in a script of its own is
taken off, because a start of the agent does more than one of the interpreter; the programs take turns and the turn in the
middle counts. The last row is the most memory that a process had at once while tests ran, likewise above that of one test.
Claims: as the lines say.
"""
import os
import sys
import tempfile

import figures

TESTS = 10000
# Both call it when all tests have run: the system's own count of a process's memory begins with that of who started it.
END = """
function teardownSuite()
  local peak = assert(io.open("/proc/self/status")):read("*a"):match("VmHWM:%s*(%d+)")
  assert(io.open("peak", "w")):write(peak):close()
end
os.exit(require("luaunit").LuaUnit.run())
"""


def run(command, folder):
    """Processor time in seconds and most memory in MiB of a program that ends with 0."""
    pid = os.posix_spawn(command[0], command, dict(os.environ), file_actions=[
        (os.POSIX_SPAWN_OPEN, 1, os.devnull, os.O_WRONLY, 0)])
    _, status, used = os.wait4(pid, 0)
    if status != 0:
        sys.exit(f"bench_tests: {command} ended with status {status} in {folder}")
    with open("peak", encoding="utf-8") as peak:
        return used.ru_utime + used.ru_stime, int(peak.read()) / 1024


def main():
    agent = os.path.join(os.path.abspath(sys.argv[1]), "vx_agent")
    runs = int(sys.argv[2]) if len(sys.argv) > 2 else 21
    holds = True
    with tempfile.TemporaryDirectory() as folder:
        os.chdir(folder)
        for name, count in (("one", 1), ("many", TESTS)):
            with open(f"{name}_test.lua", "w", encoding="utf-8") as script:
                script.writelines(f"function test_{index:05}() end\n" for index in range(count))
                script.write(END)
        for report, claim in (("text", 0.55), ("junit", 0.65), ("tap", 0.60)):
            arguments = ["-o", report] + (["-n", "report.xml"] if report == "junit" else [])
            commands = [command for name in ("one", "many") for command in (
                [agent, "--workdir", folder, "--unittest", f"{name}_test.lua", "--", *arguments],
                ["/usr/bin/lua5.2", f"{name}_test.lua", *arguments])]
            measured = [[run(command, folder) for command in commands] for _ in range(runs)]
            # What many take above one: ours, LuaUnit's.
            took, memory = (figures.middle_turn([(turn[2][figure] - turn[0][figure], turn[3][figure] - turn[1][figure]) for turn in measured])
                            for figure in (0, 1))
            holds &= figures.row(f"10000 tests with a report as {report}", took[0] * 1e3, "LuaUnit alone", took[1] * 1e3, "ms", claim)
        holds &= figures.row("memory of 10000 tests with a report as tap", memory[0], "LuaUnit alone", memory[1], "MiB", 1)
    return 0 if holds else 1


if __name__ == "__main__":
    sys.exit(main())
