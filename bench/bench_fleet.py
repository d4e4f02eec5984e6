#!/usr/bin/env python3
"""A fleet in a box: bench_fleet.py STAGE [--agents 200] [--seconds 60]. Run it through tools/sandbox, as root.

Starts many agents at once, each in mount and host-name namespaces of its own with a host id of its own, all of one tree, as a
hundred thousand hosts would after a power cut. Each writes events, logs to one rsyslog, and has its events followed by
`vexctl events --follow --state`, whose readers are killed now and then; some agents crash; all are upgraded at once to a second tree.
One Prometheus reads the metrics of all, with the alerts of packaging/fleet; what node-exporter does on a host, a thread of the bench
does here for all hosts.
Prints what a fleet's owner asks: seconds until all have beaten, events written, arrived, doubled and lost (claim: none lost), log
lines likewise, samples that Prometheus has not as they were written (claim: none), what it takes of memory, processor and disk, what
an agent does, and how the beats of one interval are spread over its seconds.
What needs an engine that is not installed is left out, and says so.
"""
import argparse
import collections
import ctypes
import glob
import http.server
import json
import os
import re
import shutil
import signal
import socket
import sqlite3
import subprocess
import sys
import tempfile
import threading
import time
import urllib.error
import urllib.parse
import urllib.request

import figures
from running import read, send_signal

CLONE_NEWNS, CLONE_NEWUTS, MS_BIND, MS_REC, MS_PRIVATE = 0x00020000, 0x04000000, 4096, 0x4000, 0x40000
INTERVAL = 10  # seconds between two beats, between two collections, and between two looks of Prometheus
RULES = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "packaging/fleet/prometheus/vex.rules.yml")

PLUGIN = """
local M = { name = "Fleet", version = "1.0.0" }
local count = 0
function M.collect(dom)
  count = count + 1
  for part = 1, 3 do
    dom:AgentEvent { number = 7000 + part, severity = 3 + part, text = ("collection %d, part %d"):format(count, part) }
  end
  return { collections = count }
end
return M
"""

libc = ctypes.CDLL(None, use_errno=True)


def wait_for(condition, what, seconds=300):
    begin = time.monotonic()
    while not condition():
        if time.monotonic() - begin > seconds:
            sys.exit(f"bench_fleet: {what}: not within {seconds} s")
        time.sleep(0.1)
    return time.monotonic() - begin


def write(path, text):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


def check(result, what):
    if result != 0:
        raise OSError(ctypes.get_errno(), what)


def own_surroundings(agent):
    """For a new process: an /etc/machine-id, a /run and a host name that no other agent has."""
    def enter():
        check(libc.unshare(CLONE_NEWNS | CLONE_NEWUTS), "unshare")
        check(libc.mount(b"none", b"/", None, MS_REC | MS_PRIVATE, None), "mount /")
        for own, place in ((agent.folder + "/run", "/run"), (agent.folder + "/machine-id", "/etc/machine-id")):
            check(libc.mount(os.fsencode(own), os.fsencode(place), None, MS_BIND, None), "mount " + place)
        name = agent.name.encode()
        check(libc.sethostname(name, len(name)), "sethostname")
    return enter


def own_devices(base):
    """A /dev in which there may be a logger that is not the machine's."""
    os.mkdir(base + "/dev")
    for node in ("null", "zero", "random", "urandom", "full"):
        with open(f"{base}/dev/{node}", "w", encoding="ascii"):
            check(libc.mount(f"/dev/{node}".encode(), os.fsencode(f"{base}/dev/{node}"), None, MS_BIND, None), "mount " + node)
    check(libc.mount(os.fsencode(base + "/dev"), b"/dev", None, MS_BIND | MS_REC, None), "mount /dev")


class Agent:
    """One host with its agent, and whoever follows its events."""

    def __init__(self, base, number):
        self.name = f"host{number:05d}"
        self.folder = os.path.join(base, self.name)
        self.work = self.folder + "/work"
        self.events = self.folder + "/events.json"
        self.follower = None
        self.crashes = 0
        os.makedirs(self.folder + "/run")
        os.makedirs(self.work, 0o700)
        write(self.folder + "/machine-id", f"{number:032x}\n")
        write(self.work + "/vx_agent.ini", "[settings]\n"
              f"vex.HeartbeatInterval = {INTERVAL}\nvex.CollectInterval = {INTERVAL}\napp.log.syslog = local0\n")

    def run(self, arguments, **keywords):
        return subprocess.Popen(arguments, preexec_fn=own_surroundings(self), stdin=subprocess.DEVNULL, **keywords)

    def start(self, tree):
        return self.run([tree + "/vx_agent", "--background", "--workdir", self.work, "--lua_path", os.path.dirname(self.folder) + "/?.lua",
                         "--plugins", "fleet"])

    def follow(self, tree):
        with open(self.events, "ab") as out:
            self.follower = self.run([tree + "/vexctl", "--workdir", self.work, "events", "--follow", "--format=json",
                                      "--state", self.folder + "/events.state"], stdout=out)

    def end_follower(self, number):
        if self.follower:
            send_signal(self.follower.pid, number)
            self.follower.wait()
            self.follower = None

    def supervisor(self):
        text = read(self.folder + "/run/vx_agent.pid")
        return int(text.split()[0]) if text else 0

    def child(self):
        try:
            found = read("/proc/{0}/task/{0}/children".format(self.supervisor())).split()
        except OSError:
            return 0
        return int(found[0]) if found else 0

    def log(self):
        return "".join(read(path) for path in sorted(glob.glob(self.work + "/vx_agent.log.*"), reverse=True)) + read(self.work + "/vx_agent.log")

    def beats(self):
        try:
            database = sqlite3.connect(f"file:{self.work}/plugins/vx_agent/heartbeat.db?mode=ro", uri=True, timeout=30)
            try:
                return [row[0] / 1000 for row in database.execute("SELECT time_ms FROM heartbeat ORDER BY id")]
            finally:
                database.close()
        except sqlite3.OperationalError:
            return []

    def written(self):
        """What identifies each event that is in the database."""
        try:
            database = sqlite3.connect(f"file:{self.work}/events.db?mode=ro", uri=True, timeout=30)
            try:
                return [tuple(row) for row in database.execute("SELECT time_ms, number, text FROM agent_event ORDER BY id")]
            finally:
                database.close()
        except sqlite3.OperationalError:
            return []

    def arrived(self):
        return [json.loads(line) for line in read(self.events).splitlines()]


def memory_and_time(pid):
    """(proportional set size in KiB, processor time in seconds)."""
    sizes = dict(re.findall(r"^(\w+):\s+(\d+) kB$", read(f"/proc/{pid}/smaps_rollup"), re.M))
    fields = read(f"/proc/{pid}/stat").rpartition(")")[2].split()
    return int(sizes["Pss"]), (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


class Logger:
    """One rsyslog for all; None where there is none."""

    CONFIGURATION = """
module(load="imuxsock" SysSock.Name="/dev/log" SysSock.Unlink="on" SysSock.RateLimit.Interval="0" SysSock.UsePIDFromSystem="off")
main_queue(queue.size="200000" queue.type="LinkedList")
template(name="line" type="string" string="%syslogseverity% %syslogtag%%msg:::drop-last-lf%\\n")
action(type="omfile" file="{folder}/syslog" template="line")
"""

    def __init__(self, base):
        self.folder = base + "/rsyslog"
        os.makedirs(self.folder)
        write(self.folder + "/rsyslog.conf", "global(workDirectory=\"" + self.folder + "\")\n" + self.CONFIGURATION.format(folder=self.folder))
        self.process = subprocess.Popen(["rsyslogd", "-n", "-f", self.folder + "/rsyslog.conf", "-i", self.folder + "/pid"])
        wait_for(lambda: os.path.exists("/dev/log"), "rsyslog's socket", 30)

    def lines(self):
        return [line for line in read(self.folder + "/syslog").splitlines() if "vx_agent[" in line]

    def end(self):
        send_signal(self.process.pid, signal.SIGTERM)
        self.process.wait()


def hosts_metrics(folder):
    """A server that gives PATH/vx_agent.prom of each host under /PATH, as node-exporter does on the host."""
    class Handler(http.server.BaseHTTPRequestHandler):
        protocol_version = "HTTP/1.1"

        def do_GET(self):  # pylint: disable=invalid-name
            body = read(os.path.join(folder + self.path, "work", "out", "vx_agent.prom")).encode()
            self.send_response(200 if body else 503)
            self.send_header("Content-Type", "text/plain; version=0.0.4; charset=utf-8")
            self.send_header("Content-Length", str(len(body)))
            self.end_headers()
            self.wfile.write(body)

        def log_message(self, *_):  # pylint: disable=arguments-differ
            pass
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
    server.daemon_threads = True
    threading.Thread(target=server.serve_forever, daemon=True).start()
    return server.server_address[1]


class Prometheus:
    """One server for all hosts."""

    def __init__(self, base, agents):
        self.folder = base + "/prometheus"
        with socket.create_server(("127.0.0.1", 0)) as free:
            self.address = f"127.0.0.1:{free.getsockname()[1]}"
        port = hosts_metrics(base)
        write(self.folder + "/hosts.json", json.dumps([{"targets": [f"127.0.0.1:{port}"], "labels": {
            "__metrics_path__": "/" + agent.name, "instance": agent.name}} for agent in agents]))
        write(self.folder + "/prometheus.yml", json.dumps({
            "global": {"scrape_interval": f"{INTERVAL}s", "evaluation_interval": f"{INTERVAL}s"}, "rule_files": [RULES],
            "scrape_configs": [{"job_name": "node", "file_sd_configs": [{"files": [self.folder + "/hosts.json"]}]}]}))
        with open(self.folder + "/log", "wb") as log:
            self.process = subprocess.Popen(["prometheus", f"--config.file={self.folder}/prometheus.yml", "--web.listen-address=" + self.address,
                                             f"--storage.tsdb.path={self.folder}/data"], stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        wait_for(lambda: self.ask("1") is not None, "Prometheus", 120)

    def ask(self, query):
        """Values by their labels; None while nobody answers."""
        opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
        try:
            with opener.open(f"http://{self.address}/api/v1/query?" + urllib.parse.urlencode({"query": query}), timeout=60) as answer:
                result = json.loads(answer.read())["data"]["result"]
        except (urllib.error.URLError, ConnectionError, TimeoutError):
            return None
        if query == "1":
            return {}
        return {tuple(sorted(one["metric"].items())): float(one["value"][1]) for one in result}

    def missing(self, agents):
        """(samples in the files of all, those of them that it has not, or has otherwise)"""
        found = collections.defaultdict(dict)
        for labels, value in (self.ask('{__name__=~"vex_.*"}') or {}).items():
            labels = dict(labels)
            series = tuple(sorted((name, text) for name, text in labels.items() if name not in ("instance", "job")))
            found[labels["instance"]][series] = value
        written = missing = 0
        for agent in agents:
            for line in read(agent.work + "/out/vx_agent.prom").splitlines():
                sample = re.fullmatch(r"(\w+)(?:\{(.*)\})? (\S+)", line)
                if not sample:
                    continue
                # To Prometheus a label with an empty value is none.
                labels = re.findall(r'(\w+)="((?:[^"\\]|\\.)+)"', sample[2] or "")
                written += 1
                missing += found[agent.name].get(tuple(sorted([("__name__", sample[1]), *labels]))) != float(sample[3])
        return written, missing

    def missing_in_the_end(self, agents):
        """The same, once it has looked at all hosts, for which it has two minutes."""
        end = time.monotonic() + 120
        while (counted := self.missing(agents))[1] > 0 and time.monotonic() < end:
            time.sleep(1)
        return counted

    def bytes_on_disk(self):
        return sum(os.path.getsize(path) for path in glob.glob(self.folder + "/data/**", recursive=True) if os.path.isfile(path))

    def end(self):
        send_signal(self.process.pid, signal.SIGTERM)
        self.process.wait()


def start_all(agents, tree):
    begin = time.monotonic()
    for starting in [agent.start(tree) for agent in agents]:
        if starting.wait() != 0:
            sys.exit("bench_fleet: an agent did not start")
    return time.monotonic() - begin


def stop_all(agents):
    begin = time.monotonic()
    supervisors = [agent.supervisor() for agent in agents]
    for pid in supervisors:
        send_signal(pid, signal.SIGTERM)
    wait_for(lambda: not any(os.path.exists(f"/proc/{pid}") for pid in supervisors), "the end of all agents")
    return time.monotonic() - begin


def loss(agents):
    """Compares by what was written: (written, arrived, doubled, lost)."""
    written = arrived = doubled = lost = 0
    for agent in agents:
        rows = collections.Counter((number, text) for _, number, text in agent.written())
        events = agent.arrived()
        keys = collections.Counter(event["key"] for event in events)
        once = collections.Counter()
        seen = set()
        for event in events:
            if event["key"] not in seen:
                seen.add(event["key"])
                once[event.get("number"), event["text"]] += 1
        written += sum(rows.values())
        arrived += len(events)
        doubled += sum(count - 1 for count in keys.values())
        lost += sum((rows - once).values())
    return written, arrived, doubled, lost


def spread(agents):
    """The beats behind the first of each start, by the tenth of the interval in which they came: the fullest tenth's share."""
    tenths = collections.Counter()
    for agent in agents:
        for beat in agent.beats()[2:]:
            tenths[int(beat % INTERVAL * 10 / INTERVAL)] += 1
    total = sum(tenths.values())
    return tenths, total


def main():
    parser = argparse.ArgumentParser(prog="bench_fleet")
    parser.add_argument("stage")
    parser.add_argument("--agents", type=int, default=200)
    parser.add_argument("--seconds", type=int, default=60, help="how long all run before they are upgraded")
    asked = parser.parse_args()
    if os.environ.get("VEX_SANDBOX") != "1":
        sys.exit("bench_fleet: run it through tools/sandbox")
    with tempfile.TemporaryDirectory(prefix="fleet-", ignore_cleanup_errors=True) as base:
        return run(os.path.abspath(asked.stage), base, asked.agents, asked.seconds)


def run(stage, base, number, seconds):
    trees = [base + "/first", base + "/second"]
    for tree in trees:
        shutil.copytree(stage, tree, ignore=shutil.ignore_patterns("work"))
    write(base + "/fleet/plugin.lua", PLUGIN)
    check(libc.mount(b"tmpfs", b"/run", b"tmpfs", 0, b"mode=755"), "mount /run")
    own_devices(base)
    logger = None
    if shutil.which("rsyslogd"):
        logger = Logger(base)
    else:
        print("rsyslog is not installed: log lines are not counted")
    agents = [Agent(base, index) for index in range(1, number + 1)]
    print(f"{number} agents on {os.cpu_count()} processors, a beat and a collection each {INTERVAL} s")
    prometheus = None
    if shutil.which("prometheus"):
        prometheus = Prometheus(base, agents)
    else:
        print("Prometheus is not installed: samples are not counted")
    took = start_all(agents, trees[0])
    took += wait_for(lambda: all(agent.beats() for agent in agents), "the first beat of all")
    print(f"all at once started, and beaten: {took:.1f} s")
    for agent in agents:
        agent.follow(trees[0])
    time.sleep(INTERVAL)
    before = [memory_and_time(agent.child()) for agent in agents]
    supervisors = [memory_and_time(agent.supervisor()) for agent in agents]
    server_before = memory_and_time(prometheus.process.pid) if prometheus else None
    begin = time.monotonic()
    for part in range(4):  # a twentieth crashes, and a tenth of the readers is killed, each quarter of the time
        time.sleep(seconds / 4)
        if part == 0:
            after = [memory_and_time(agent.child()) for agent in agents]
            passed = time.monotonic() - begin
            server_after = memory_and_time(prometheus.process.pid) if prometheus else None
        for agent in agents[part::20]:
            send_signal(agent.child(), signal.SIGSEGV)
            agent.crashes += 1
        for agent in agents[part::10]:
            agent.end_follower(signal.SIGKILL)
            agent.follow(trees[0])
    cpu = sum(late[1] - early[1] for early, late in zip(before, after)) / number / passed
    pss = sum(one[0] for one in after) / number
    print(f"an agent: {pss + sum(one[0] for one in supervisors) / number:.0f} KiB proportional, of which the child {pss:.0f}; "
          f"{1000 * cpu:.2f} ms of processor time a second")
    wait_for(lambda: all(agent.child() for agent in agents), "the restart of those that crashed")
    if prometheus:
        print(f"Prometheus: {server_after[0] / 1024:.0f} MiB, {1000 * (server_after[1] - server_before[1]) / passed / number:.2f} ms of "
              "processor time a second and host")
    tenths, total = spread(agents)
    print("beats by tenth of the interval: " + " ".join(str(tenths[tenth]) for tenth in range(10))
          + f"; the fullest has {100 * max(tenths.values()) / total:.0f} % of {total}")
    stopping = stop_all(agents)
    marks = [len(agent.beats()) for agent in agents]
    took = start_all(agents, trees[1])
    took += wait_for(lambda: all(len(agent.beats()) > mark for agent, mark in zip(agents, marks)), "a beat of all after the upgrade")
    print(f"all at once upgraded: stopped in {stopping:.1f} s, started and beaten in {took:.1f} s")
    time.sleep(INTERVAL)
    stop_all(agents)
    wait_for(lambda: loss(agents)[3] == 0, "all events with their readers", 120)
    for agent in agents:
        agent.end_follower(signal.SIGTERM)
    written, arrived, doubled, lost = loss(agents)
    print(f"{arrived} events arrived, {doubled} doubled, with {sum(agent.crashes for agent in agents)} crashes")
    kept = figures.row("events of a fleet that were lost", lost, "written", written, "events", 0)
    if prometheus:
        samples, missing = prometheus.missing_in_the_end(agents)
        kept = figures.row("samples of a fleet that Prometheus has not", missing, "written", samples, "samples", 0) and kept
        taken = sum((prometheus.ask("sum(sum_over_time(scrape_samples_scraped[1h]))") or {}).values())
        alerts = prometheus.ask('count by (alertname) (ALERTS{alertstate="firing"})')
        print(f"Prometheus took {taken:.0f} samples of {samples} series, {prometheus.bytes_on_disk() / taken:.1f} bytes each in its log, and alerts: "
              + ", ".join(f"{dict(labels)['alertname']} {count:.0f}" for labels, count in sorted(alerts.items())))
        prometheus.end()
    if logger:
        wanted = sum(len(re.findall(r"^\d{4}-\S+ \S+ (?:FATAL|ERROR|WARNING|MESSAGE|INFO) ", agent.log(), re.M)) for agent in agents)
        logger.end()
        told = sum(int(count) for agent in agents for count in re.findall(r"(?:has not taken|lines again,) (\d+) ", agent.log()))
        print(f"log lines from INFO up: {wanted} in the files of all, {len(logger.lines())} with rsyslog; "
              f"{told} are told to be in the files alone")
    return 0 if kept else 1


if __name__ == "__main__":
    sys.exit(main())
