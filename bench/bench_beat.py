#!/usr/bin/env python3
"""Measures what a heartbeat costs: bench_beat.py TREE [BEATS]. Run it through tools/sandbox.

Runs beats of the bundled application in the foreground, with the files for collectors and the copy of the log off and on, for no
plugin and for twenty with twelve figures each. Instructions are those of BEATS (20) beats more, counted by valgrind, so that the
start is not among them; bytes are all that the process hands over to write, from /proc. No claim: the yardstick is the beat with
all of that off.
"""
import os
import re
import shutil
import subprocess
import sys
import tempfile

for _name in ("support", "e2e"):
    sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "tests", _name))
from own_dev import Logger, OwnDev

SCRIPT = """
local collector, heartbeat = require("vx_agent.collector"), require("vx_agent.heartbeat")
local function written()
  local file = io.open("/proc/self/io")
  local bytes = file:read("*a"):match("wchar: (%d+)")
  file:close()
  return tonumber(bytes)
end
local function collect()
  local disks = {}
  for disk = 1, 5 do disks[disk] = { name = "disk" .. disk, read = disk * 1e6, written = disk * 1e5 } end
  return { count = 17, share = 0.25, disks = disks }
end
return { main = function()
  local plugins = {}
  for number = 1, @PLUGINS@ do
    local id = "plugin" .. number
    plugins[number] = { id = id, name = id, version = "1.0" }
    collector.collect({ id = id, plugin = { collect = collect }, author = {} }, dom0)
  end
  local beats = heartbeat.new(dom0, plugins)
  beats:beat("start") -- which opens what stays open
  local before = written()
  for _ = 1, @BEATS@ do beats:beat("interval") end
  local file = io.open(dom0:Get("app.path.work") .. "/bytes", "w")
  file:write(written() - before)
  file:close()
  return 0
end }
"""
ON = ["--domain_var", "app.out=on", "--domain_var", "app.log.syslog=daemon", "--domain_var", "app.log.syslog.level=info"]
OFF = ["--domain_var", "app.out=off"]


def run(tree, beats, plugins, options, prefix=()):
    """Standard error, and the bytes that were written in these beats."""
    with open(tree + "/beat.lua", "w", encoding="utf-8") as file:
        file.write(SCRIPT.replace("@PLUGINS@", str(plugins)).replace("@BEATS@", str(beats)))
    shutil.rmtree(tree + "/work", ignore_errors=True)
    result = subprocess.run([*prefix, tree + "/beat", "--zippath", "vex_core/vx_agent.vxe", *options], capture_output=True, text=True,
                            check=False)
    if result.returncode != 0:
        sys.exit(f"bench_beat: status {result.returncode}\n{result.stdout}{result.stderr}")
    with open(os.path.join(tree, "work", "bytes"), encoding="utf-8") as file:
        return result.stderr, int(file.read())


def instructions(tree, beats, plugins, options):
    counted = []
    for count in (beats, 2 * beats):
        text, _ = run(tree, count, plugins, options, ["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null"])
        counted.append(int(re.search(r"Collected : (\d+)", text)[1]))
    return (counted[1] - counted[0]) / beats


def row(what, ours, theirs, unit):
    print(f"{what}: {ours:.4g} {unit}, a beat with outputs off {theirs:.4g} {unit}, ratio {ours / theirs:.3f}")


def main():
    if os.environ.get("VEX_SANDBOX") != "1":
        sys.exit("bench_beat: run it through tools/sandbox")
    stage = os.path.abspath(sys.argv[1])
    beats = int(sys.argv[2]) if len(sys.argv) > 2 else 20
    if not shutil.which("valgrind"):
        sys.exit("bench_beat: valgrind counts the instructions, and is not here")
    with tempfile.TemporaryDirectory() as folder:
        tree = os.path.join(folder, "tree")
        shutil.copytree(stage, tree, ignore=shutil.ignore_patterns("work"))
        os.link(tree + "/vx_agent", tree + "/beat")
        dev = OwnDev(os.path.join(folder, "dev"))
        logger = Logger()
        try:
            for plugins in (0, 20):
                figures = {}
                for name, options in (("off", OFF), ("on", ON)):
                    written = run(tree, beats, plugins, options)[1] / beats
                    figures[name] = instructions(tree, beats, plugins, options), written
                row(f"a beat with all outputs and {plugins} plugins", figures["on"][0], figures["off"][0], "instructions")
                row(f"what it writes with {plugins} plugins", figures["on"][1], figures["off"][1], "bytes")
        finally:
            logger.close()
            dev.close()


if __name__ == "__main__":
    main()
