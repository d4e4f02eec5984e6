"""What a real collectd makes of an agent's figures, by the configuration of packaging/fleet, sample by sample."""
import glob
import os
import re
import shutil
import signal
import subprocess

import pytest

from conftest import PATIENCE, ROOT, alive, send_signal, wait_until
from agent_figures import figures_for

FOLDER = os.path.join(ROOT, "packaging/fleet/collectd")
pytestmark = pytest.mark.sandbox

# Around the shipped part: what Debian's own file has, and a writer of files.
MAIN = """
Hostname "host7"
FQDNLookup false
Interval 1
BaseDir "{folder}"
PIDFile "{folder}/pid"
TypesDB "/usr/share/collectd/types.db"
LoadPlugin logfile
<Plugin logfile>
    LogLevel info
    File "{folder}/log"
</Plugin>
LoadPlugin csv
<Plugin csv>
    DataDir "{folder}/csv"
    StoreRates false
</Plugin>
"""


_figures = figures_for("daemon")


def configuration(folder, figures, program):
    with open(FOLDER + "/vex.conf", encoding="utf-8") as file:
        text = file.read()
    for old, new in (("nobody:collectd", "nobody:daemon"), ("/usr/local/bin/vex-prom", program), ("/srv/vx_agent-out", figures)):
        assert old in text
        text = text.replace(old, new)
    with open(f"{folder}/collectd.conf", "w", encoding="utf-8") as file:
        file.write(MAIN.format(folder=folder) + text)
    return ["collectd", "-C", f"{folder}/collectd.conf"]


def kept(folder):
    """What collectd has: the last value of each series, by type and name."""
    found = {}
    for path in glob.glob(f"{folder}/csv/host7/vex-vx_agent/*"):
        with open(path, encoding="utf-8") as file:
            lines = file.read().split("\n")
        if len(lines) > 2:  # a heading, a value, and the end of its line
            found[re.fullmatch(r"(.*)-\d{4}-\d\d-\d\d", os.path.basename(path))[1]] = lines[-2].split(",")[1]
    return found


def named(series):
    """A series as vex-prom names it to collectd."""
    return series.replace("%", "%25").replace("/", "%2F")


@pytest.mark.skipif(not shutil.which("collectd"), reason="NO COLLECTD here: tools/setup --wide installs it")
def test_collectd_has_every_sample(figures, tmp_path):
    program = shutil.copy(FOLDER + "/vex-prom", os.path.dirname(figures.folder))
    command = configuration(tmp_path, figures.folder, program)
    checked = subprocess.run([*command, "-t"], stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
    assert (checked.returncode, checked.stdout + checked.stderr) == (0, "")

    short = {series: value for series, value in figures.samples.items() if len(named(series).encode()) < 128}
    # Always the plugin's own two; and what the machine's kernel is called by may be long.
    left = len(figures.samples) - len(short)
    assert left >= 2 and len(short) > 40
    expected = {"gauge-left_out": f"{left:.6f}"}
    for series, value in short.items():
        counter = series.partition("{")[0].endswith("_total")
        expected[("derive-" if counter else "gauge-") + named(series)] = f"{int(value)}" if counter else f"{value:.6f}"  # as its writer of files has it

    collectd = subprocess.Popen([*command, "-f"], stdin=subprocess.DEVNULL)
    try:
        wait_until(lambda: len(kept(tmp_path)) >= len(expected) or not alive(collectd.pid), what="all samples in collectd's files")
    finally:
        if collectd.poll() is None:
            send_signal(collectd.pid, signal.SIGTERM)
        assert collectd.wait(PATIENCE) == 0
    assert kept(tmp_path) == expected
    with open(tmp_path / "log", encoding="utf-8") as file:
        log = file.read()
    assert "error" not in log.lower() and "vex" not in log, log


def test_a_folder_without_figures_is_told(tmp_path):
    done = subprocess.run([FOLDER + "/vex-prom", str(tmp_path)], capture_output=True, text=True, check=False)
    assert (done.returncode, done.stdout, done.stderr) == (1, "", f"vex-prom: no NAME.prom in {tmp_path}\n")
