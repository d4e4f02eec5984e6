"""What a real Prometheus has of an agent's figures, by way of a real node-exporter, with the files of packaging/fleet: sample by sample."""
import json
import os
import re
import shlex
import shutil
import signal
import subprocess
import urllib.error
import urllib.parse
import urllib.request

import pytest

from conftest import PATIENCE, ROOT, send_signal, wait_until
from agent_figures import figures_for
from own_network import OwnNetwork

FOLDER = os.path.join(ROOT, "packaging/fleet/prometheus")
EXPORTER, SERVER = "127.0.0.1:9100", "127.0.0.1:9090"
pytestmark = [pytest.mark.sandbox, pytest.mark.skipif(not (shutil.which("prometheus") and shutil.which("prometheus-node-exporter")),
                                                      reason="NO PROMETHEUS OR NO NODE-EXPORTER here: tools/setup --wide installs them")]


_figures = figures_for("daemon")


@pytest.fixture(name="start")
def _start():
    network = OwnNetwork()
    started = []

    def start(command, log, **options):
        with open(log, "wb") as file:
            started.append(subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=file, stderr=file, **options))
    try:
        yield start
        for process in started:
            if process.poll() is None:
                send_signal(process.pid, signal.SIGTERM)
            process.wait(PATIENCE)
    finally:
        network.close()


def text(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def asked(url):
    """The server's answer, or None while there is none."""
    try:
        with urllib.request.build_opener(urllib.request.ProxyHandler({})).open(url, timeout=30) as answer:
            return answer.read().decode()
    except (urllib.error.URLError, ConnectionError, TimeoutError):
        return None


def from_server(query):
    """What an instant query gives: values by metric, whose labels are in order."""
    answer = asked(f"http://{SERVER}/api/v1/query?" + urllib.parse.urlencode({"query": query}))
    if answer is None:
        return {}
    return {tuple(sorted(each["metric"].items())): float(each["value"][1]) for each in json.loads(answer)["data"]["result"]}


def metric(series):
    """NAME{LABELS} as `from_server` has it, with the labels that the scrape gives it. To Prometheus an empty label is none."""
    name, _, labels = series.partition("{")
    found = {label: re.sub(r"\\(.)", lambda match: {"n": "\n"}.get(match[1], match[1]), value)
             for label, value in re.findall(r'(\w+)="((?:[^"\\]|\\.)+)"', labels)}
    return tuple(sorted({"__name__": name, "instance": EXPORTER, "job": "node", **found}.items()))


@pytest.mark.patient
def test_prometheus_has_every_sample(figures, start, tmp_path):
    arguments = re.search(r'^Environment="ARGS=(.*)"$', text(FOLDER + "/node-exporter.conf"), re.M)[1]
    assert "/srv/vx_agent-out" in arguments
    # Not as root: the folder's group is what lets it in.
    start(["prometheus-node-exporter", *shlex.split(arguments.replace("/srv/vx_agent-out", figures.folder)), "--collector.disable-defaults",
           "--collector.textfile", "--collector.loadavg", "--web.listen-address=" + EXPORTER], tmp_path / "exporter.log", user="nobody", group="daemon", extra_groups=[])
    settings = text(FOLDER + "/prometheus.yml")
    # A scrape may take as long as lies between two, and one that takes longer makes all series stale.
    for old, new in (("1m", "5s\n  evaluation_interval: 5s"), ("vex.rules.yml\n", f"{FOLDER}/vex.rules.yml\n"),
                     ("/etc/prometheus/targets", str(tmp_path))):
        assert settings.count(old) == 1, old
        settings = settings.replace(old, new)
    (tmp_path / "prometheus.yml").write_text(settings)
    (tmp_path / "hosts.json").write_text(json.dumps([{"targets": [EXPORTER]}]))
    start(["prometheus", f"--config.file={tmp_path}/prometheus.yml", f"--storage.tsdb.path={tmp_path}/data", "--web.listen-address=" + SERVER],
          tmp_path / "prometheus.log")

    expected = {metric(series): value for series, value in figures.samples.items()}
    assert len(expected) == len(figures.samples) > 40
    # The values that were waited for: the next scrape may come to nothing on a busy machine.
    assert wait_until(lambda: len(found := from_server('{__name__=~"vex_.*"}')) >= len(expected) and found,
                      what="all samples in Prometheus") == expected
    assert list(wait_until(lambda: from_server("node_textfile_scrape_error"), what="what node-exporter thinks of them").values()) == [0]
    # As other collectors of packaging/fleet ask node-exporter.
    figures_alone = asked(f"http://{EXPORTER}/metrics?" + urllib.parse.urlencode({"collect[]": "textfile"}))
    assert "\nvex_up 1\n" in figures_alone and "\nnode_load1 " not in figures_alone

    def rules():
        answer = asked(f"http://{SERVER}/api/v1/rules")
        if answer is None:
            return None
        groups = json.loads(answer)["data"]["groups"]
        found = {rule["name"]: (rule["health"], rule.get("lastError", "")) for group in groups for rule in group["rules"]}
        return found if not any(health == "unknown" for health, _ in found.values()) else None
    assert set(wait_until(rules, what="a look at each alert's condition").values()) == {("ok", "")}
