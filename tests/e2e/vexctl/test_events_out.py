"""vexctl events for collectors: the formats as programs read them, and that no event is lost between two runs, in a database that
was replaced, on a full disk, or on the way to a logger."""
import json
import os
import pathlib
import signal
import socket
import sqlite3
import subprocess

import pytest

from conftest import ORDINARY_USER, PATIENCE, at_rest, mount_tmpfs, send_signal, unmount, wait_until
from ctl import EVENTS, ctl, objects, with_events

BASE_MS = 1_700_000_000_000


def with_numbers(tree, numbers):
    return with_events(tree, [(BASE_MS + number, number, number % 8, f"event {number}") for number in numbers])


def add(path, *numbers):
    """As an agent adds them; in a new database where there is none."""
    is_new = not os.path.exists(path)
    database = sqlite3.connect(path)
    if is_new:
        database.executescript(EVENTS)
    database.executemany("INSERT INTO agent_event(time_ms, time_s, number, severity, text, xml) VALUES(?, ?, ?, ?, ?, ?)",
                         [(BASE_MS + number, BASE_MS // 1000, number, 5, f"event {number}", f'<agent_event number="{number}"/>') for number in numbers])
    database.commit()
    database.close()


def numbers_of(text):
    return [json.loads(line)["number"] for line in text.splitlines() if line.startswith("{")]


def state_in(path):
    with open(path, encoding="utf-8") as file:
        return json.load(file)


def is_at(state, number):
    return os.path.exists(state) and state_in(state)["id"] == number


class Reader:
    """A follower whose lines are taken from a pipe, and its notes from a file."""

    def __init__(self, tree, tmp_path, *arguments):
        self.notes_path = str(tmp_path / "notes")
        with open(self.notes_path, "ab") as notes:
            self.process = tree.start("events", "--follow", *arguments, name="vexctl", stdout=subprocess.PIPE, stderr=notes)

    def lines(self, count):
        return [self.process.stdout.readline().decode() for _ in range(count)]

    def rest(self):
        return self.process.stdout.read().decode().splitlines(keepends=True)

    def notes(self):
        with open(self.notes_path, encoding="utf-8") as file:
            return file.read()

    def end(self, number=signal.SIGTERM):
        send_signal(self.process.pid, number)
        self.process.wait(PATIENCE)


# --- formats


@pytest.mark.fast
def test_the_formats_are_those_of_collectors(tree):
    with_numbers(tree, range(3))
    plain = ctl(tree, "events", "--json").out
    assert ctl(tree, "events", "--format=json").out == plain
    events = objects("events", plain)
    for event, line in zip(events, ctl(tree, "events", "--format=otlp").out.splitlines(), strict=True):
        resource, = json.loads(line)["resourceLogs"]
        attributes = {each["key"]: each["value"]["stringValue"] for each in resource["resource"]["attributes"]}
        assert (attributes["service.name"], attributes["host.name"]) == ("vx_agent", os.uname().nodename)
        assert set(attributes) <= {"host.id", "host.name", "service.name", "service.version"} and "service.version" in attributes
        record, = resource["scopeLogs"][0]["logRecords"]
        assert record["timeUnixNano"] == str((BASE_MS + event["number"]) * 1_000_000)
        assert record["body"] == {"stringValue": event["text"]}
        assert {"key": "event.key", "value": {"stringValue": event["key"]}} in record["attributes"]
    for event, line in zip(events, ctl(tree, "events", "--format=syslog").out.splitlines(), strict=True):
        assert line.startswith(f"<{24 + event['severity']}>1 {event['time']} {os.uname().nodename} vx_agent - {event['number']} [origin ")
        assert f'key="{event["key"]}"' in line and line.endswith(f"] \ufeff{event['text']}")


@pytest.mark.parametrize("arguments, told", [
    (["--format=xml"], "--format"), (["--format=json", "--xml"], "excludes"), (["--socket", "/dev/log"], "--socket goes with --format=syslog alone"),
    (["--format=syslog", "--socket", "x" * 200], "cannot be the path of a socket"), (["--state", "s", "-n", "3"], "excludes"),
    (["--state", "s", "--after", "1-0123456789abcdef"], "excludes"), (["--state", "s", "--since", "1h"], "--since and --until do not go with it")])
def test_what_does_not_go_together_is_a_wrong_call(tree, tmp_path, arguments, told):
    with_numbers(tree, range(3))
    result = ctl(tree, "events", *arguments, status=2, cwd=tmp_path)
    assert told in result.err and result.out == ""
    assert not list(tmp_path.glob("s*"))


# --- the state file


@pytest.mark.fast
def test_each_run_goes_on_where_the_last_one_stood(tree, tmp_path):
    path, state = with_numbers(tree, range(150)), str(tmp_path / "state")
    assert numbers_of(ctl(tree, "events", "--json", "--state", state).out) == list(range(150))
    assert ctl(tree, "events", "--json", "--state", state).out == ""
    add(path, 150, 151)
    assert numbers_of(ctl(tree, "events", "--json", "--state", state, "--severity", "0").out) == []
    add(path, 152)
    assert numbers_of(ctl(tree, "events", "--json", "--state", state).out) == [152]
    assert os.stat(state).st_mode & 0o777 == 0o600
    assert not [name for name in os.listdir(tree.work) if "state" in name]


@pytest.mark.sandbox
@pytest.mark.parametrize("taken", [0, 1, 2, 99, 400])
def test_a_reader_that_is_killed_between_two_lines_loses_none(tree, tmp_path, taken):
    path, state = with_numbers(tree, range(1, 1201)), str(tmp_path / "state")
    reader = Reader(tree, tmp_path, "--json", "--state", state)
    seen = numbers_of("".join(reader.lines(taken)))
    wait_until(lambda: os.path.exists(state), what="the state file")
    reader.end(signal.SIGKILL)
    # What was in the pipe when it was killed has been taken by whoever reads.
    lines = reader.rest()
    seen += numbers_of("".join(line for line in lines if line.endswith("\n")))
    add(path, 1201)
    again = numbers_of(ctl(tree, "events", "--json", "--state", state).out)
    assert seen == list(range(1, len(seen) + 1))
    assert again == list(range(again[0], 1202))
    assert again[0] <= len(seen) + 1, "some are missing"


@pytest.mark.sandbox
def test_an_ordered_end_repeats_none_that_was_written_whole(tree, tmp_path):
    with_numbers(tree, range(1, 1201))
    state = str(tmp_path / "state")
    reader = Reader(tree, tmp_path, "--json", "--state", state)
    wait_until(lambda: os.path.exists(state), what="the state file")
    at_rest(reader.process.pid)  # the pipe is full
    reader.end()
    assert reader.process.returncode == -signal.SIGTERM
    seen = numbers_of("".join(line for line in reader.rest() if line.endswith("\n")))
    assert 0 < len(seen) < 1200 and state_in(state)["id"] == len(seen)
    assert numbers_of(ctl(tree, "events", "--json", "--state", state).out) == list(range(len(seen) + 1, 1201))


@pytest.mark.sandbox
def test_a_reader_that_goes_leaves_the_state_at_what_it_could_have_read(tree, tmp_path):
    with_events(tree, [(BASE_MS, number, 5, "x" * 1000) for number in range(1, 1001)])
    state = str(tmp_path / "state")
    reader = Reader(tree, tmp_path, "--json", "--state", state)
    reader.lines(10)
    reader.process.stdout.close()
    assert reader.process.wait(PATIENCE) == 0
    assert 10 <= state_in(state)["id"] < 1000


@pytest.mark.sandbox
def test_a_state_file_is_one_readers(tree, tmp_path):
    with_numbers(tree, range(3))
    state = str(tmp_path / "state")
    reader = Reader(tree, tmp_path, "--json", "--state", state)
    reader.lines(3)
    second = ctl(tree, "events", "--json", "--state", state, status=2)
    assert (second.out, second.err) == ("", f"vexctl: {state} is in use by another vexctl events; give each a state file of its own\n")
    reader.end()
    assert ctl(tree, "events", "--json", "--state", state).out == ""


def test_a_state_that_is_none_is_told_and_kept(tree, tmp_path):
    with_numbers(tree, range(3))
    state = str(tmp_path / "state")
    ctl(tree, "events", "--state", state)
    content = state_in(state)
    for change in ({"host_id": "f" * 32}, {"agent": "other"}, {"vexctl_events_state": 7}, {"id": "x"}):
        if "host_id" in change and not content["host_id"]:
            continue
        with open(state, "w", encoding="utf-8") as file:
            json.dump({**content, **change}, file)
        before = state_in(state)
        result = ctl(tree, "events", "--json", "--state", state, status=2)
        assert result.out == "" and result.err.startswith(f"vexctl: {state} is ") and "remove this one to begin with all events" in result.err
        assert state_in(state) == before
    os.mkdir(str(tmp_path / "folder"))
    assert "is no regular file" in ctl(tree, "events", "--state", str(tmp_path / "folder"), status=2).err
    assert "No such file or directory" in ctl(tree, "events", "--state", str(tmp_path / "none" / "state"), status=2).err


@pytest.mark.sandbox
def test_a_full_disk_is_told_once_and_the_state_follows_later(tree, tmp_path):
    path = with_numbers(tree, range(1, 4))
    folder = tmp_path / "small"
    folder.mkdir()
    mount_tmpfs(str(folder), b"size=8k")
    try:
        state = str(folder / "state")
        reader = Reader(tree, tmp_path, "--json", "--state", state)
        reader.lines(3)
        wait_until(lambda: is_at(state, 3), what="the state")
        (folder / "filler").write_bytes(b"x" * 4096)
        for number in (4, 5):
            add(path, number)
            assert numbers_of("".join(reader.lines(1))) == [number]
            wait_until(lambda: "cannot be written: No space left on device" in reader.notes(), what="the note")
        assert state_in(state)["id"] == 3
        (folder / "filler").unlink()
        wait_until(lambda: is_at(state, 5), what="the state")
        wait_until(lambda: "is written again" in reader.notes(), what="the second note")
        assert len(reader.notes().splitlines()) == 2
        reader.end()
    finally:
        unmount(str(folder))


# --- databases that are replaced


@pytest.mark.sandbox
@pytest.mark.parametrize("state", [True, False])
def test_no_event_is_lost_in_a_database_that_is_replaced_while_somebody_follows(tree, tmp_path, state):
    path = with_numbers(tree, range(1, 11))
    reader = Reader(tree, tmp_path, "--json", *(["--state", str(tmp_path / "state")] if state else []))
    assert numbers_of("".join(reader.lines(10))) == list(range(1, 11))
    for round_number in (1, 2):
        # Between the last events of the old one and its new name the reader may have looked, or not.
        add(path, 100 * round_number, 100 * round_number + 1)
        os.rename(path, f"{path}.damaged-{1000 + round_number}")
        add(path, *range(100 * round_number + 2, 100 * round_number + 20))
        assert numbers_of("".join(reader.lines(20))) == list(range(100 * round_number, 100 * round_number + 20))
    reader.end()
    assert reader.notes().count("has been replaced: all its events follow those of the one before") == 2


def test_no_event_is_lost_in_databases_that_were_replaced_between_two_runs(tree, tmp_path):
    path, state = with_numbers(tree, range(1, 6)), str(tmp_path / "state")
    os.rename(path, path + ".damaged-1")  # from before the first run
    add(path, *range(11, 16))
    assert numbers_of(ctl(tree, "events", "--json", "--state", state).out) == list(range(11, 16))
    add(path, 16)
    os.rename(path, path + ".damaged-2")
    add(path, 21, 22)
    os.rename(path, path + ".damaged-2-2")
    add(path, *range(31, 41))
    result = ctl(tree, "events", "--json", "--state", state)
    assert numbers_of(result.out) == [16, 21, 22, *range(31, 41)]
    assert len(result.err.splitlines()) == 1
    result = ctl(tree, "events", "--json", "--state", state)
    assert (result.out, result.err) == ("", "")


def test_what_cannot_be_known_is_said_once(tree, tmp_path):
    path, state = with_numbers(tree, range(1, 6)), str(tmp_path / "state")
    ctl(tree, "events", "--json", "--state", state)
    os.rename(path, str(tmp_path / "elsewhere"))
    add(path, *range(11, 21))
    result = ctl(tree, "events", "--json", "--state", state)
    assert numbers_of(result.out) == list(range(11, 21))
    assert result.err.count("whether the one before had more than was shown cannot be known") == 1
    add(path, 21)
    os.rename(path, path + ".damaged-5")
    with open(path + ".damaged-5", "r+b") as file:
        file.write(b"\xff" * 100)
    add(path, 31)
    result = ctl(tree, "events", "--json", "--state", state)
    assert numbers_of(result.out) == [31]
    assert f"{path}.damaged-5: what lies behind event 10 cannot be read, or not all of it: file is not a database" in result.err
    assert ctl(tree, "events", "--json", "--state", state).err == ""


@pytest.mark.sandbox
@pytest.mark.fast
def test_no_event_of_an_agent_is_lost_when_its_database_is_damaged(tree, tmp_path):
    tree.app("probe", """
local M = {}
function M.init() return 0 end
local function there(path) local file = io.open(path) if file then file:close() end return file end
local function write(from, to)
  for number = from, to do dom0:AgentEvent{ number = number, severity = 5, text = "event " .. number } end
end
function M.main()
  local work = dom0:Get("app.path.work")
  write(1, 5)
  while not there(work .. "/go") do os.execute("sleep 0.05") end
  write(6, 10)
  return 0
end
function M.shutdown() return 0 end
return M
""")
    supervisor, _ = tree.background(name="probe")
    path, state = os.path.join(tree.work, "events.db"), str(tmp_path / "state")
    reader = Reader(tree, tmp_path, "--json", "--name", "probe", "--state", state)
    assert numbers_of("".join(reader.lines(5))) == [1, 2, 3, 4, 5]
    with open(path, "r+b") as file:
        file.write(b"\xff" * 100)
    tree.file("work/go", "")
    assert numbers_of("".join(reader.lines(5))) == [6, 7, 8, 9, 10]
    reader.end()
    assert [name for name in os.listdir(tree.work) if name.startswith("events.db.damaged-")]
    tree.stop(supervisor)


def test_a_database_under_the_number_of_one_that_was_removed_is_shown_whole(tree, tmp_path):
    path, state = with_numbers(tree, range(1, 6)), str(tmp_path / "state")
    ctl(tree, "events", "--json", "--state", state)
    os.rename(path, str(tmp_path / "elsewhere"))
    add(path, *range(11, 21))
    os.rename(path, path + ".damaged-5")
    add(path, 31)
    status = os.stat(path + ".damaged-5")
    content = state_in(state)
    content["database"] = f"{status.st_dev}:{status.st_ino}"
    with open(state, "w", encoding="utf-8") as file:
        json.dump(content, file)
    result = ctl(tree, "events", "--json", "--state", state)
    assert numbers_of(result.out) == [*range(11, 21), 31]
    assert result.err.count("whether the one before had more than was shown cannot be known") == 1 and len(result.err.splitlines()) == 1


@pytest.mark.sandbox
@pytest.mark.parametrize("tree", [pytest.param(ORDINARY_USER, id="ordinary user")], indirect=True)
def test_a_database_moved_aside_that_cannot_be_read_now_is_read_later(tree):
    """The reader is an ordinary user, the agent's folder root's."""
    path = with_numbers(tree, range(1, 6))
    for name, mode in ((tree.work, 0o755), (path, 0o644)):
        os.chmod(name, mode)
    outer = pathlib.Path(tree.path)
    state = str(outer / "state")
    reader = Reader(tree, outer, "--json", "--state", state)
    assert numbers_of("".join(reader.lines(5))) == list(range(1, 6))
    os.chmod(path, 0o600)
    add(path, 6)
    wait_until(lambda: "Permission denied" in reader.notes(), what="a note on the database")
    add(path + ".new", *range(11, 15))
    os.chmod(path + ".new", 0o644)
    os.link(path, path + ".damaged-1")
    os.rename(path + ".new", path)  # the reader sees one or the other, and goes from one trouble right to the next
    wait_until(lambda: f"{path}.damaged-1 cannot be read" in reader.notes(), what="a note on the database moved aside")
    os.chmod(path + ".damaged-1", 0o644)
    wait_until(lambda: is_at(state, 4), what="all events")
    reader.end()
    assert numbers_of("".join(reader.rest())) == [6, 11, 12, 13, 14]
    assert reader.notes().count("has been replaced") == 1


@pytest.mark.sandbox
@pytest.mark.parametrize("tree", [pytest.param(ORDINARY_USER, id="ordinary user")], indirect=True)
def test_where_the_folder_may_not_be_listed_a_follower_goes_on_and_a_state_is_refused(tree):
    path = with_numbers(tree, range(1, 6))
    os.chmod(path, 0o644)
    os.chmod(tree.work, 0o711)
    outer = pathlib.Path(tree.path)
    reader = Reader(tree, outer, "--json")
    assert numbers_of("".join(reader.lines(5))) == list(range(1, 6))
    add(path, 6)
    assert numbers_of("".join(reader.lines(1))) == [6]
    reader.end()
    assert reader.notes().count("cannot be seen, and events that only such a one has are missing") == 1 and len(reader.notes().splitlines()) == 1
    result = ctl(tree, "events", "--json", "--state", str(outer / "state"), status=2, user=ORDINARY_USER)
    assert result.out == "" and "allow vexctl to list the folder, or do without --state" in result.err


@pytest.mark.sandbox
@pytest.mark.parametrize("tree", [pytest.param(ORDINARY_USER, id="ordinary user")], indirect=True)
def test_what_was_moved_aside_before_is_not_shown_because_the_folder_could_not_be_listed_for_a_while(tree):
    path = with_numbers(tree, range(1, 6))
    os.chmod(path, 0o644)
    os.rename(path, path + ".damaged-1")

    def put(number):
        add(path + ".new", number)
        os.chmod(path + ".new", 0o644)
        os.rename(path + ".new", path)

    put(11)
    os.chmod(tree.work, 0o755)
    reader = Reader(tree, pathlib.Path(tree.path), "--json")
    assert numbers_of("".join(reader.lines(1))) == [11]
    os.chmod(tree.work, 0o711)
    put(21)
    assert numbers_of("".join(reader.lines(1))) == [21]
    os.chmod(tree.work, 0o755)
    put(31)
    assert numbers_of("".join(reader.lines(1))) == [31]
    reader.end()


def test_the_version_is_the_one_of_the_agent_that_wrote_the_report(tree):
    with_numbers(tree, range(3))

    def versions():
        lines = [json.loads(line) for line in ctl(tree, "events", "--format=otlp").out.splitlines()]
        return {each["value"]["stringValue"] for line in lines for each in line["resourceLogs"][0]["resource"]["attributes"]
                if each["key"] == "service.version"}
    own = versions()
    assert len(own) == 1 and own != {"9.9.9"}
    tree.file("work/out/report.json", '{"schema":1,"agent":{"name":"vx_agent","version":"9.9.9"}}')
    assert versions() == {"9.9.9"}
    assert 'swVersion="9.9.9"' in ctl(tree, "events", "--format=syslog").out


# --- a logger


def logger_at(path):
    logger = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    logger.bind(path)
    logger.settimeout(PATIENCE)
    return logger


def received(logger, last):
    """The numbers of what comes, up to the last; what comes twice in a row is one."""
    numbers = []
    while not numbers or numbers[-1] != last:
        number = int(logger.recv(1 << 20).decode().split(" ")[5])
        if numbers[-1:] != [number]:
            numbers.append(number)
    return numbers


@pytest.mark.sandbox
def test_a_logger_that_comes_later_or_stops_gets_all(tree, tmp_path):
    count = 3000
    path, state, place = with_numbers(tree, range(1, count + 1)), str(tmp_path / "state"), str(tmp_path / "log")
    arguments = ["--format=syslog", "--socket", place, "--state", state]
    reader = Reader(tree, tmp_path, *arguments)
    wait_until(lambda: "takes no events" in reader.notes(), what="the note")
    assert state_in(state)["id"] == 0
    logger = logger_at(place)
    assert received(logger, 1) == [1]
    wait_until(lambda: "does not keep up" in reader.notes() or reader.notes().count("takes no events") == 2, what="a logger that is full")
    reader.end()
    assert 0 < state_in(state)["id"] < count
    reader = Reader(tree, tmp_path, *arguments)
    assert received(logger, count) == list(range(2, count + 1))
    wait_until(lambda: is_at(state, count), what="the state")
    logger.close()
    os.unlink(place)
    add(path, count + 1)
    wait_until(lambda: reader.notes().count("(No such file or directory)") == 2, what="the note on a logger that has gone")
    assert is_at(state, count)
    logger = logger_at(place)
    assert received(logger, count + 1) == [count + 1]
    wait_until(lambda: is_at(state, count + 1), what="the state")
    reader.end()
    logger.close()
