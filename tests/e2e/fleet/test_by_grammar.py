"""The files of packaging/fleet for engines that the distribution has not: Fluent Bit, Vector, the OpenTelemetry collector. Nobody here runs
those. Each file is read by a parser of its language, each name in it is held against the tables below, which were written after the
engines' documentation and are no more right than whoever read that, and what it says of our log, events and programs against what these really write."""
import datetime
import json
import os
import re
import shutil
import subprocess
import sys
import tomllib

import pytest

from conftest import ROOT

sys.path.insert(0, os.path.join(ROOT, "tests", "e2e", "vexctl"))
from ctl import ctl, with_events  # noqa: E402 pylint: disable=wrong-import-position,import-error

FLEET = os.path.join(ROOT, "packaging", "fleet")
FILES = ("fluent-bit/vex.conf", "fluent-bit/vex-parsers.conf", "vector/vex.toml", "opentelemetry/vex.yaml")

# As documented for Fluent Bit 3, keys in small letters; what all inputs, filters or outputs have is under "".
FLUENT_BIT = {
    "INPUT": {
        "": {"name", "tag", "alias", "log_level", "storage.type", "mem_buf_limit"},
        "tail": {"path", "db", "db.sync", "db.locking", "read_from_head", "multiline.parser", "refresh_interval", "rotate_wait", "skip_long_lines"},
        "exec": {"command", "parser", "interval_sec", "interval_nsec", "buf_size", "oneshot"},
        "node_exporter_metrics": {"scrape_interval", "path.procfs", "path.sysfs", "metrics", "collector.textfile.path",
                                  "collector.textfile.scrape_interval"},
    },
    "FILTER": {"": {"name", "match", "match_regex", "alias"}, "parser": {"key_name", "parser", "preserve_key", "reserve_data"}},
    "OUTPUT": {
        "": {"name", "match", "match_regex", "alias", "retry_limit", "host", "port", "tls", "tls.verify", "tls.ca_file"},
        "opentelemetry": {"logs_uri", "metrics_uri", "traces_uri", "header", "http_user", "http_passwd"},
    },
    "PARSER": {"": {"name", "format", "regex", "time_key", "time_format", "time_keep", "time_offset", "time_strict", "time_system_timezone", "types"}},
    "MULTILINE_PARSER": {"": {"name", "type", "flush_timeout", "key_content", "rule", "match_string", "parser"}},
}

# Each a table whose values are tables, or what a value has to be. Vector 0.40.
TEXTS = [str]
VECTOR = {
    "sources": {
        "file": {"type": str, "include": TEXTS, "exclude": TEXTS, "read_from": {"beginning", "end"},
                 "multiline": {"start_pattern": str, "condition_pattern": str, "timeout_ms": int,
                               "mode": {"continue_through", "continue_past", "halt_before", "halt_with"}}},
        "exec": {"type": str, "mode": {"scheduled", "streaming"}, "command": TEXTS, "include_stderr": bool, "working_directory": str,
                 "streaming": {"respawn_on_exit": bool, "respawn_interval_secs": int}, "decoding": {"codec": {"bytes", "json", "syslog"}},
                 "framing": {"method": {"bytes", "newline_delimited"}}},
        "prometheus_scrape": {"type": str, "endpoints": TEXTS, "scrape_interval_secs": int, "query": {"collect[]": TEXTS}},
    },
    "transforms": {"remap": {"type": str, "inputs": TEXTS, "source": str}},
    "sinks": {"vector": {"type": str, "inputs": TEXTS, "address": str, "acknowledgements": {"enabled": bool},
                         "buffer": {"type": {"disk", "memory"}, "max_size": int, "when_full": {"block", "drop_newest"}}}},
}

# By the type of a component, its name without what is behind "/". The collector's distribution "contrib", 0.110.
SEVERITIES = dict.fromkeys(("fatal", "error", "warn", "info", "info2", "debug", "trace"), str)
OPERATORS = {
    "regex_parser": {"type": str, "regex": str, "on_error": {"send", "send_quiet", "drop", "drop_quiet"},
                     "timestamp": {"parse_from": str, "layout_type": {"strptime", "gotime", "epoch"}, "layout": str, "location": str},
                     "severity": {"parse_from": str, "mapping": SEVERITIES}},
    "move": {"type": str, "if": str, "from": str, "to": str},
}
OPENTELEMETRY = {
    "receivers": {
        "filelog": {"include": TEXTS, "start_at": {"beginning", "end"}, "storage": str, "multiline": {"line_start_pattern": str}, "operators": list},
        "otlpjsonfile": {"include": TEXTS, "start_at": {"beginning", "end"}, "storage": str},
        "prometheus": {"config": dict},  # Prometheus' own, which promtool reads
    },
    "processors": {"resourcedetection": {"detectors": TEXTS, "override": bool}},
    "exporters": {"otlp": {"endpoint": str, "retry_on_failure": {"max_elapsed_time": int}, "sending_queue": {"storage": str}}},
    "extensions": {"file_storage": {"directory": str, "create_directory": bool}},
}


def text(name):
    with open(os.path.join(FLEET, name), encoding="utf-8") as file:
        return file.read()


def sections(name):
    """Fluent Bit's classic form: (section, [(key, value), ...])."""
    found = []
    for number, line in enumerate(text(name).splitlines(), 1):
        if heading := re.fullmatch(r"\[([A-Z_]+)\]", line):
            found.append((heading[1], []))
        elif entry := re.fullmatch(r"    (\S+) +(\S.*)", line):
            found[-1][1].append((entry[1].lower(), entry[2]))
        else:
            assert line == "" or line.startswith("#"), f"{name}:{number}: {line}"
    return found


def vector():
    return tomllib.loads(text("vector/vex.toml"))


def opentelemetry():
    yaml = pytest.importorskip("yaml", reason="NO YAML for Python here (ansible-core brings it): nobody has read the collector's configuration")
    return yaml.safe_load(text("opentelemetry/vex.yaml"))


def check(value, form, place):
    if isinstance(form, dict):
        assert isinstance(value, dict) and set(value) <= set(form), f"{place}: {sorted(set(value) - set(form))}"
        for key, inner in value.items():
            check(inner, form[key], f"{place}.{key}")
    elif isinstance(form, set):
        assert value in form, f"{place}: {value}"
    elif form is TEXTS:
        assert isinstance(value, list) and value and all(isinstance(one, str) for one in value), f"{place}: {value}"
    else:
        assert type(value) is form, f"{place}: {value}"  # pylint: disable=unidiomatic-typecheck


@pytest.mark.parametrize("name", FILES)
def test_each_says_that_nobody_has_run_it(name):
    assert re.search(r"^# Written after the documented grammar of .* and held against that alone: nobody has run it\.$", text(name), re.M)


def test_fluent_bit_knows_each_key():
    parsers = {dict(entries)["name"] for _, entries in sections("fluent-bit/vex-parsers.conf")}
    tags = [dict(entries)["tag"] for section, entries in sections("fluent-bit/vex.conf") if section == "INPUT"]
    assert len(tags) == len(set(tags)) == 3
    for name in FILES[:2]:
        for section, entries in sections(name):
            keys = dict(entries)
            known = FLUENT_BIT[section][""] | FLUENT_BIT[section].get(keys["name"], set())
            assert set(keys) <= known, f"{name}: [{section}] {keys['name']}: {sorted(set(keys) - known)}"
            assert len(FLUENT_BIT[section]) == 1 or keys["name"] in FLUENT_BIT[section], keys["name"]
            for key in ("parser", "multiline.parser"):
                assert keys.get(key) is None or keys[key] in parsers
            if "match" in keys:
                pattern = re.escape(keys["match"]).replace(r"\*", ".*")
                assert any(re.fullmatch(pattern, tag) for tag in tags), keys["match"]


def test_vector_knows_each_key():
    settings = vector()
    assert set(settings) == set(VECTOR)
    for kind, components in settings.items():
        for name, component in components.items():
            check(component, VECTOR[kind][component["type"]], f"{kind}.{name}")
    names = [name for kind in ("sources", "transforms") for name in settings[kind]]
    inputs = [name for kind in ("transforms", "sinks") for component in settings[kind].values() for name in component["inputs"]]
    assert sorted(names) == sorted(inputs), "each is somebody's input, and each input is there"


def test_the_opentelemetry_collector_knows_each_key():
    settings = opentelemetry()
    service = settings.pop("service")
    assert set(settings) == set(OPENTELEMETRY) and set(service) == {"extensions", "pipelines"}
    for kind, components in settings.items():
        for name, component in components.items():
            check(component, OPENTELEMETRY[kind][name.partition("/")[0]], f"{kind}.{name}")
            for operator in component.get("operators", []):
                check(operator, OPERATORS[operator["type"]], f"{kind}.{name}.{operator['type']}")
    used = {"extensions": set(service["extensions"]), "receivers": set(), "processors": set(), "exporters": set()}
    for name, pipeline in service["pipelines"].items():
        assert name.partition("/")[0] in ("logs", "metrics") and set(pipeline) <= {"receivers", "processors", "exporters"}
        for kind, names in pipeline.items():
            used[kind] |= set(names)
    assert used == {kind: set(components) for kind, components in settings.items()}
    stores = re.findall(r"storage: (\S+)", text("opentelemetry/vex.yaml"))
    assert len(stores) == 3 and set(stores) == set(settings["extensions"])


def test_promtool_takes_what_the_opentelemetry_collector_scrapes(tmp_path):
    scrapes = opentelemetry()["receivers"]["prometheus/vx_agent"]["config"]
    if not shutil.which("promtool"):
        pytest.skip("NO PROMTOOL here: nobody has read what the collector scrapes")
    (tmp_path / "scrapes.yml").write_text(json.dumps(scrapes))
    done = subprocess.run(["promtool", "check", "config", "scrapes.yml"], cwd=tmp_path, capture_output=True, text=True, check=False)
    assert done.returncode == 0, done.stdout + done.stderr


def in_python(pattern):
    """A regular expression of Oniguruma, whose names of groups are written otherwise."""
    return re.sub(r"\(\?<(?=[a-z])", "(?P<", pattern)


def record_expressions():
    """Of each engine: what begins a record, what a further line is (None where that is all else), what is in a record, and its time's form."""
    parsers = {dict(entries)["name"]: entries for _, entries in sections("fluent-bit/vex-parsers.conf")}
    rules = [re.fullmatch(r'"(\w+)" "/(.*)/" "(\w+)"', value).groups() for key, value in parsers["vx_agent_record"] if key == "rule"]
    assert [(state, following) for state, _, following in rules] == [("start_state", "further"), ("further", "further")]
    line = dict(parsers["vx_agent_line"])
    yield "fluent-bit", rules[0][1], rules[1][1], in_python(line["regex"]), line["time_format"]
    settings = vector()
    lines = settings["sources"]["vx_agent_log"]["multiline"]
    assert lines["mode"] == "continue_through"
    program = settings["transforms"]["vx_agent_record"]["source"]
    yield "vector", lines["start_pattern"], lines["condition_pattern"], re.search(r"r'(.*)'", program)[1], re.search(r'format: "(.*)"', program)[1]
    receiver = opentelemetry()["receivers"]["filelog/vx_agent"]
    operator = receiver["operators"][0]
    yield "opentelemetry", receiver["multiline"]["line_start_pattern"], None, operator["regex"], operator["timestamp"]["layout"]


def test_records_are_recognised_and_taken_apart(tree):
    tree.app("writer", """return { main = function()
        dom0:Log("warning", "first\\nsecond [x/y] line") dom0:Log("error", "the last") return 0 end }""")
    log = tree.run(name="writer").log
    for engine, start, further, whole, form in record_expressions():
        records = []
        for line in log.splitlines():
            begins = re.search(start, line) is not None
            assert begins or further is None or re.search(further, line), f"{engine}: {line}"
            if begins:
                records.append(line)
            else:
                records[-1] += "\n" + line
        found = [re.match(whole, record).groupdict() for record in records]
        assert [(each["level"], each["text"]) for each in found[-2:]] == [("WARNING", "first\n    second [x/y] line"), ("ERROR", "the last")], engine
        for record, each in zip(records, found):
            assert record == f"{each['time']} {each['level']} [{each['pid']}/{each['thread']}] {each['text']}", engine
            assert datetime.datetime.strptime(each["time"], form)
    levels = opentelemetry()["receivers"]["filelog/vx_agent"]["operators"][0]["severity"]["mapping"]
    with open(os.path.join(ROOT, "docs/FORMATS.md"), encoding="utf-8") as file:
        told = re.search(r"`vex_log_lines_total` \| level \(([a-z, ]+)\)", file.read())[1]
    assert {level.lower() for level in levels.values()} == set(told.split(", "))


def commands():
    """How each engine has the events read."""
    inputs = [dict(entries) for _, entries in sections("fluent-bit/vex.conf")]
    yield next(keys["command"].split() for keys in inputs if keys["name"] == "exec")
    yield vector()["sources"]["vx_agent_events"]["command"]
    yield re.search(r"^ExecStart=/bin/sh -c 'exec (.*) >>events.json'$", text("opentelemetry/vx_agent-events.service"), re.M)[1].split()


def test_the_commands_give_events_with_the_fields_that_are_named(tree, tmp_path):
    with_events(tree, [(1_700_000_000_123, 7, 2, "an event")])
    for number, command in enumerate(commands()):
        state = str(tmp_path / f"state-{number}")
        words = [{"/var/lib/vx_agent": tree.work}.get(word, word) for word in command if word != "--follow"]
        assert words[:2] == ["/usr/bin/vexctl", "--workdir"] and words[-2] == "--state"
        shown = json.loads(ctl(tree, *words[1:-1], state).out)
        if number == 2:
            assert shown["resourceLogs"][0]["scopeLogs"][0]["logRecords"][0]["body"] == {"stringValue": "an event"}
        else:
            event = shown
    assert {"key", "severity_word", "text", "number"} <= set(event)
    parser = next(dict(entries) for _, entries in sections("fluent-bit/vex-parsers.conf") if dict(entries)["name"] == "vx_agent_event")
    # Its %L is the point and what stands behind it.
    assert datetime.datetime.strptime(event[parser["time_key"]], parser["time_format"].replace(".%L", ".%fZ"))
    program = vector()["transforms"]["vx_agent_event"]["source"]
    assert re.findall(r"parse_timestamp!\(\.(\w+),", program) == ["time"] and datetime.datetime.fromisoformat(event["time"])
