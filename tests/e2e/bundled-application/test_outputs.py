"""The files for collectors of a running agent: what is in them, who may read them, and what becomes of a plugin or a folder that is
not as it should be."""
import json
import os
import re
import shutil
import signal
import stat
import subprocess
import time

import pytest

from conftest import ORDINARY_USER, PATIENCE, SANITIZED, alive, at_rest, mount_tmpfs, send_signal, unmount, wait_until
from own_dev import Logger, OwnDev
from test_bundled_application import acknowledged, beats, install

pytestmark = pytest.mark.sandbox


def out(tree, name="vx_agent.prom"):
    return os.path.join(tree.work, "out", name)


def read(path):
    try:
        with open(path, encoding="utf-8") as file:
            return file.read()
    except FileNotFoundError:
        return ""


def samples(text):
    """Values by series. The text is held against the grammar: families one by one, each with HELP and TYPE, no timestamps."""
    assert text == "" or text.endswith("\n")
    found, family, seen = {}, None, set()
    lines = text.splitlines()
    for index, line in enumerate(lines):
        if line.startswith("# HELP "):
            family = line.split(" ")[2]
            assert family not in seen, "a family comes once"
            seen.add(family)
            assert re.fullmatch(rf"# TYPE {family} (gauge|counter)", lines[index + 1])
        elif not line.startswith("# TYPE "):
            match = re.fullmatch(r'([a-zA-Z_:][\w:]*)((?:\{(?:[a-zA-Z_]\w*="(?:[^"\\\n]|\\[\\"n])*",?)*\})?) (\S+)', line, re.ASCII)
            assert match and match[1] == family, line
            assert match[1] + match[2] not in found, "a series comes once"
            found[match[1] + match[2]] = float(match[3])
    return found


def metrics(tree):
    return samples(read(out(tree)))


# Another one without rights than the agent's user.
STRANGER = 65534

# No beat but the first and those that a test asks for, however long it takes: spread ones may come after half the interval.
ON_REQUEST = ("--domain_var", "vex.HeartbeatInterval=3600")


def ask_for_a_beat(tree):
    """Rings, and waits until the beat is in the history: its files come later."""
    before = len(beats(tree))
    with open(os.path.join(tree.work, "plugins", "vx_agent", "doorbell"), "w", encoding="utf-8") as bell:
        bell.write("x")
    wait_until(lambda: len(beats(tree)) > before, what="the beat that was asked for")


def files_of_the_last_beat(tree):
    """The metrics, once they are those of the newest row and the report, which a beat writes behind them, is there too."""
    return wait_until(lambda: (now := metrics(tree)).get("vex_heartbeats_total") == len(beats(tree)) and has_its_report(tree) and now,
                      what="the files of the last beat")


def has_its_report(tree):
    """Whether the report is not older than the metrics."""
    try:
        return os.stat(out(tree, "report.json")).st_mtime_ns >= os.stat(out(tree)).st_mtime_ns
    except FileNotFoundError:
        return False


def mode(path):
    return stat.S_IMODE(os.stat(path).st_mode)


@pytest.mark.fast
def test_each_beat_leaves_metrics_and_the_report(tree):
    tree.file("marked/plugin.lua", """
return { name = "Marked", version = "2.5", interval = 3600, units = { free = "bytes" },
  metrics = { sent = { type = "counter", unit = "bytes", help = "All that was sent." }, queues = { label = "queue" } },
  collect = function(dom)
    dom:AgentEvent{ number = 7, severity = 4, text = "seen" }
    return { free = 5, sent = 2 ^ 40, queues = { ["mail \\"in\\""] = { length = 3 } }, none = 0 / 0, word = "text" }
  end }""")
    arguments = install(tree, "Network")
    supervisor, child = tree.background(*ON_REQUEST, *arguments[:-1], "network,marked,absent")
    wait_until(lambda: metrics(tree).get("vex_heartbeats_total", 0) >= 1, what="the first beat's files")
    wait_until(lambda: "plugin marked: " in tree.log() and "plugin network: " in tree.log(), what="a collection of each")
    ask_for_a_beat(tree)
    found = files_of_the_last_beat(tree)
    expected = {
        "vex_up": 1, "vex_restarts_total": 0, "vex_heartbeat_interval_seconds": 3600, 'vex_plugin_up{plugin="marked"}': 1,
        'vex_plugin_up{plugin="absent"}': 0, 'vex_events_total{severity="warning"}': 1, "vex_plugin_marked_free_bytes": 5,
        "vex_plugin_marked_sent_bytes_total": 2 ** 40, r'vex_plugin_marked_queues_length{queue="mail \"in\""}': 3,
        'vex_plugin_series_dropped{plugin="marked"}': 0,
    }
    assert {series: found.get(series) for series in expected} == expected
    assert not any("none" in series or "word" in series for series in found)
    text = read(out(tree))
    assert "# HELP vex_plugin_marked_sent_bytes_total All that was sent.\n# TYPE vex_plugin_marked_sent_bytes_total counter\n" in text
    log = tree.log()
    warnings = len(re.findall(r"^\S+ \S+ WARNING ", log, re.M))
    assert found['vex_log_lines_total{level="warning"}'] == warnings
    assert found["vex_resident_memory_bytes"] > 1e6
    assert found["vex_start_time_seconds"] <= found["vex_heartbeat_timestamp_seconds"]

    report = json.loads(read(out(tree, "report.json")))
    shown = json.loads(tree.run(*arguments[1:-1], "network,marked,absent", "--", "--json").out)
    assert set(report) == set(shown) and report["host_id"] == shown["host_id"] and report["agent"] == shown["agent"]
    assert [set(block) for block in report["plugins"]] == [set(block) for block in shown["plugins"]]
    assert report["plugins"][1]["values"]["queues"] == {'mail "in"': {"length": 3}}

    assert mode(os.path.join(tree.work, "out")) == 0o750
    assert mode(out(tree)) == mode(out(tree, "report.json")) == 0o640
    assert sorted(os.listdir(os.path.join(tree.work, "out"))) == ["report.json", "vx_agent.prom"]
    assert alive(child)
    tree.stop(supervisor)


def test_promtool_finds_nothing_wrong_with_the_metrics(tree):
    promtool = shutil.which("promtool")
    if not promtool:
        pytest.skip("NO PROMTOOL here: the text is held against the grammar as this file knows it, and nobody else's")
    supervisor, _ = tree.background(*install(tree, "Network", "Trend"))
    wait_until(lambda: "plugin trend: " in tree.log() and "plugin network: " in tree.log(), what="a collection of each")
    ask_for_a_beat(tree)
    wait_until(lambda: "vex_plugin_trend_" in read(out(tree)), what="the files of that beat")
    result = subprocess.run([promtool, "check", "metrics"], input=read(out(tree)), capture_output=True, text=True, check=False)
    assert (result.returncode, result.stdout, result.stderr) == (0, "", "")
    tree.stop(supervisor)


@pytest.mark.fast
def test_a_reader_finds_whole_files_whenever_it_looks(tree):
    # A plugin asks for a beat after the other, while the files are read all the time.
    tree.file("ringing/plugin.lua", """
return { name = "Ringing", version = "1", collect = function(dom)
  repeat dom:Set("vex.HeartbeatNow", true) until dom:Wait("never", 0.005) == nil
end }""")
    supervisor, _ = tree.background("--plugins", "ringing")
    wait_until(lambda: read(out(tree, "report.json")), what="the first beat's files")
    last = last_seen = 0
    while last_seen < 30:
        found = metrics(tree)
        assert found["vex_up"] == 1 and 'vex_plugin_up{plugin="ringing"}' in found
        assert found["vex_heartbeats_total"] >= last, "never an older one"
        last_seen += found["vex_heartbeats_total"] > last
        last = found["vex_heartbeats_total"]
        assert json.loads(read(out(tree, "report.json")))["schema"] == 1
    tree.stop(supervisor)


def test_a_plugin_without_measure_costs_the_others_nothing(tree):
    tree.file("endless/plugin.lua", """
return { name = "Endless", version = "1", interval = 1, collect = function()
  local values = {}
  for index = 1, 20000 do values[index] = index end
  return { values = values, ["a b"] = 1, ["a-b"] = 2, infinite = 1 / 0 }
end }""")
    tree.file("plain/plugin.lua", 'return { name = "Plain", version = "1", collect = function() return { x = 1 } end }')
    supervisor, _ = tree.background("--plugins", "endless,plain")
    wait_until(lambda: tree.log().count("plugin endless: ") >= 2 and "plugin plain: " in tree.log(), what="two collections")
    ask_for_a_beat(tree)
    found = files_of_the_last_beat(tree)
    assert found["vex_plugin_plain_x"] == 1
    assert len([series for series in found if series.startswith("vex_plugin_endless_")]) == 1000
    assert found['vex_plugin_series_dropped{plugin="endless"}'] == 20002 - 1000
    log = tree.log()
    assert log.count("Plugin 'endless' has more than 1000 metrics; those from 'values' on are left out") == 1
    assert log.count("Plugin 'endless' has different figures that would be one metric, 'a-b' and 'a b'; the first counts") == 1
    tree.stop(supervisor)


@pytest.mark.skipif(SANITIZED, reason="takes minutes under a sanitizer, of Lua code that it does not look at")
def test_a_million_values_of_odd_kinds_are_counted_and_no_beat_carries_them(tree):
    tree.file("million/plugin.lua", """
return { name = "Million", version = "1", interval = 3600, collect = function()
  local values = {}
  for index = 1, 1000000 do values[index] = index end
  return { ["a b"] = 1, ["a-b"] = 2, infinite = 1 / 0, less = -1 / 0, none = 0 / 0, values = values }
end }""")
    # Which also tells what length was told of the other one's values.
    tree.file("plain/plugin.lua", """
return { name = "Plain", version = "1", interval = 3600, collect = function(dom)
  local bytes
  repeat bytes = dom:Get("vex.plugin.million.bytes") until bytes or dom:Wait("never", 0.05) == nil
  return { x = 1, bytes = tonumber(bytes) }
end }""")
    supervisor, child = tree.background(*ON_REQUEST, "--plugins", "million,plain")
    wait_until(lambda: "plugin million: " in tree.log() and "plugin plain: " in tree.log(), what="a collection of each")
    for _ in range(3):
        ask_for_a_beat(tree)
        found = files_of_the_last_beat(tree)
    assert (found["vex_plugin_plain_x"], found["vex_plugin_million_a_b"]) == (1, 1)
    assert len([series for series in found if series.startswith("vex_plugin_million_")]) == 1000
    assert found['vex_plugin_series_dropped{plugin="million"}'] == 1000002 - 1000
    assert not any("infinite" in series or "less" in series or "none" in series for series in found)
    report = os.path.join(tree.work, "out", "report.json")
    block, plain = wait_until(lambda: json.loads(read(report))["plugins"], what="the report")
    size = re.fullmatch(r"the values are too many for this file: (\d+) bytes as JSON", block["error"])[1]
    assert plain["values"] == {"x": 1, "bytes": int(size)}
    assert os.path.getsize(report) < 100_000 and os.path.getsize(out(tree)) < 1_000_000
    log = tree.log()
    assert log.count("Plugin 'million' has more than 1000 metrics; those from 'values' on are left out") == 1
    assert log.count("Plugin 'million' has different figures that would be one metric, 'a-b' and 'a b'; the first counts") == 1
    assert acknowledged(tree) == [number for number, _ in beats(tree)] and alive(child)
    tree.stop(supervisor)


def test_a_folder_without_room_is_told_once_until_there_is_some(tree):
    supervisor, child = tree.background(*ON_REQUEST)
    wait_until(lambda: read(out(tree, "report.json")), what="the first beat's files")
    folder = os.path.join(tree.work, "out")
    mount_tmpfs(folder, b"mode=750,nr_inodes=1")
    try:
        for _ in range(2):
            ask_for_a_beat(tree)
        wait_until(lambda: "Files for collectors: " in tree.log(), what="the warning")
        assert os.listdir(folder) == []
    finally:
        unmount(folder)
    ask_for_a_beat(tree)
    wait_until(lambda: "Files for collectors: all are written again" in tree.log(), what="the end of it")
    assert metrics(tree)["vex_heartbeats_total"] == len(beats(tree))
    assert len(re.findall(r" WARNING \[\S+ \S+\] Files for collectors: .*No space left on device", tree.log())) == 1
    assert acknowledged(tree) == [number for number, _ in beats(tree)] and alive(child)
    tree.stop(supervisor)


@pytest.mark.parametrize("tree", [pytest.param(ORDINARY_USER, id="ordinary user")], indirect=True)
def test_a_reader_without_the_right_is_told_so_and_the_agent_goes_on(tree):
    supervisor, child = tree.background(*ON_REQUEST)
    wait_until(lambda: read(out(tree, "report.json")), what="the first beat's files")
    stranger = {"user": STRANGER, "group": STRANGER, "extra_groups": []}
    for command in ("events", "heartbeats", "log"):
        result = subprocess.run([os.path.join(tree.path, "vexctl"), command], capture_output=True, text=True, check=False,
                                cwd="/", **stranger)
        assert result.returncode == 2 and result.stdout.count("\n") <= 1, result
        assert re.fullmatch(r"vexctl: .*Permission denied.*\n", result.stderr), result
    assert subprocess.run(["cat", out(tree)], capture_output=True, check=False, **stranger).returncode == 1
    ask_for_a_beat(tree)
    assert files_of_the_last_beat(tree)["vex_up"] == 1
    assert not re.search(r" (WARNING|ERROR) \[", tree.log()) and alive(child)
    tree.stop(supervisor)


def calls_of(trace):
    """Whole calls that began while they were traced: what a thread sits in when the tracer comes or goes is none."""
    with open(trace, encoding="utf-8", errors="replace") as file:
        return [line for line in file.read().splitlines()
                if " = " in line and "= ? ERESTART" not in line and "resumed>" not in line and "resuming interrupted" not in line]


def is_traced(pid):
    for task in os.listdir(f"/proc/{pid}/task"):
        with open(f"/proc/{pid}/task/{task}/status", encoding="utf-8") as file:
            if "TracerPid:\t0\n" in file.read():
                return False
    return True


@pytest.mark.skipif(SANITIZED, reason="a sanitizer has a thread of its own, which makes calls")
@pytest.mark.skipif(not shutil.which("strace"), reason="NO STRACE HERE: whether an idle agent makes system calls is not tested")
def test_an_idle_agent_with_all_outputs_on_makes_no_system_call_between_beats(tree, tmp_path):
    tree.file("still/plugin.lua", """
return { name = "Still", version = "1", interval = 3600, collect = function(dom)
  dom:AgentEvent{ number = 7, severity = 4, text = "seen" }
  return { x = 1 }
end }""")
    dev = OwnDev(tmp_path / "dev")
    logger = Logger()
    try:
        supervisor, child = tree.background(*ON_REQUEST, "--domain_var", "app.log.syslog=daemon", "--plugins", "still")
        with open(tmp_path / "events", "wb") as events:
            tree.start("events", "--follow", "--json", "--state", str(tmp_path / "state"), name="vexctl", stdout=events)
        wait_until(lambda: '"text":"seen"' in read(tmp_path / "events"), what="the event")
        wait_until(lambda: "plugin still: " in tree.log(), what="the collection")
        # Once a minute a worker looks at the files of settings: such a look may fall into one window, and not into each.
        for attempt in range(5):
            ask_for_a_beat(tree)
            files_of_the_last_beat(tree)
            at_rest(supervisor, child)
            trace = str(tmp_path / f"trace{attempt}")
            tracer = subprocess.Popen(["strace", "-f", "-qq", "-o", trace, "-p", str(supervisor), "-p", str(child)])
            try:
                wait_until(lambda: tracer.poll() is not None or (is_traced(supervisor) and is_traced(child)), what="the tracer")
                if tracer.poll() is not None:
                    pytest.skip("NO TRACING OF OTHERS HERE: whether an idle agent makes system calls is not tested")
                time.sleep(3)
                made = calls_of(trace)
                ask_for_a_beat(tree)
                # So that it is known to see what a beat does.
                wait_until(lambda: any("report.json" in call for call in calls_of(trace)), what="the beat's calls")
            finally:
                if tracer.poll() is None:
                    send_signal(tracer.pid, signal.SIGINT)
                tracer.wait(PATIENCE)
            if not made:
                break
        assert made == []
        assert any("Heartbeat 1 (start)" in record for record in logger.records)
        tree.stop(supervisor)
    finally:
        logger.close()
        dev.close()


def test_a_folder_that_another_user_has_replaced_is_told_once_until_it_is_put_right(tree):
    supervisor, child = tree.background(*ON_REQUEST)
    wait_until(lambda: read(out(tree, "report.json")), what="the first beat's files")
    folder, strange = os.path.join(tree.work, "out"), os.path.join(tree.path, "strange")
    shutil.rmtree(folder)
    os.mkdir(strange, 0o700)
    os.symlink(strange, folder)
    os.lchown(folder, 1000, 1000)
    for _ in range(2):
        ask_for_a_beat(tree)
    wait_until(lambda: "Files for collectors: " in tree.log(), what="the warning")
    assert os.listdir(strange) == []
    os.unlink(folder)
    ask_for_a_beat(tree)
    wait_until(lambda: "Files for collectors: all are written again" in tree.log(), what="the end of it")
    assert metrics(tree)["vex_up"] == 1
    assert len(re.findall(r" WARNING \[\S+ \S+\] Files for collectors: .* is not followed, because the link belongs to user 1000",
                          tree.log())) == 1
    assert acknowledged(tree) == [number for number, _ in beats(tree)] and alive(child)
    tree.stop(supervisor)


def test_restarts_are_counted(tree):
    supervisor, child = tree.background()
    wait_until(lambda: metrics(tree).get("vex_restarts_total") == 0, what="the first child's files")
    send_signal(child, signal.SIGKILL)
    found = wait_until(lambda: (now := metrics(tree)).get("vex_restarts_total") == 1 and now, what="those of the second")
    assert found["vex_heartbeats_total"] >= 1
    tree.stop(supervisor)


def test_nothing_is_written_where_the_operator_says_so(tree):
    supervisor, _ = tree.background("--domain_var", "app.out=off")
    wait_until(lambda: acknowledged(tree), what="the first beat")
    ask_for_a_beat(tree)
    assert not os.path.exists(os.path.join(tree.work, "out"))
    tree.stop(supervisor)
