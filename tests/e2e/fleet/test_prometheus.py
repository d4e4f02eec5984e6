"""The files for Prometheus in packaging/fleet: they name only metrics that there are, and promtool runs the tests of the alerts."""
import json
import os
import re
import shutil
import subprocess

import pytest

from conftest import ROOT

FLEET = os.path.join(ROOT, "packaging", "fleet")
NAME = re.compile(r"\bvex_\w+")


def text(*path):
    with open(os.path.join(*path), encoding="utf-8") as file:
        return file.read()


def written():
    """The names of the metrics that the agent writes, by its source."""
    return set(re.findall(r'"(vex_\w+)"', text(ROOT, "lua/vx_agent/metrics.lua"))) | {f"vex_host_load{number}" for number in (1, 5, 15)}


@pytest.mark.quick
def test_the_page_lists_what_the_agent_writes():
    section = re.search(r"^## Metrics$(.*?)^## ", text(ROOT, "docs/FORMATS.md"), re.M | re.S)[1]
    listed = {name for row in re.findall(r"^\| `vex_.*", section, re.M) for name in re.findall(r"`(vex_\w+)`", row.split(" | ")[0])}
    assert listed - {"vex_plugin_PLUGIN_PATH"} == written() - {"vex_host_load"}


def test_alerts_and_dashboard_name_only_metrics_that_there_are():
    rules = re.findall(r"^ +expr: (.*)", text(FLEET, "prometheus/vex.rules.yml"), re.M)
    dashboard = json.loads(text(FLEET, "grafana/vex-agents.json"))
    shown = [target["expr"] for panel in dashboard["panels"] for target in panel["targets"]]
    assert len(rules) == 6 and len(shown) == 10
    for expression in rules + shown:
        assert NAME.findall(expression) and set(NAME.findall(expression)) <= written(), expression


def promtool(*arguments):
    program = shutil.which("promtool")
    if not program:
        pytest.skip("NO PROMTOOL here: nobody has run the tests of the alerts")
    return subprocess.run([program, *arguments], capture_output=True, text=True, check=False, cwd=FLEET + "/prometheus")


def test_promtool_passes_the_tests_of_the_alerts():
    result = promtool("test", "rules", "vex.rules.test.yml")
    assert result.returncode == 0, result.stdout + result.stderr


def test_promtool_takes_the_servers_configuration():
    result = promtool("check", "config", "prometheus.yml")
    assert result.returncode == 0, result.stdout + result.stderr


def test_each_alert_has_a_test():
    alerts = set(re.findall(r"- alert: (\w+)", text(FLEET, "prometheus/vex.rules.yml")))
    assert alerts == set(re.findall(r"alertname: (\w+)", text(FLEET, "prometheus/vex.rules.test.yml")))
