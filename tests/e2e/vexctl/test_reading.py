"""vexctl log, events, heartbeats and crashes: what they show of what an agent left, and of what is none of an agent's."""
import json
import os
import re
import shutil
import signal
import sqlite3
import subprocess
import time

import pytest

import conftest
from conftest import BUILD, ORDINARY_USER, at_rest, send_signal, wait_until
from ctl import Following, ctl, objects, quiet_state_of, seen_on_terminal, state_of, with_events

LOG = """\
2026-01-31 10:20:30 INFO [100/main] one
2026-01-31 10:20:31 WARNING [101/CScriptThread] two
    its second line
2026-01-31 10:20:32 ERROR [101/CScriptThread] three
2026-01-31 10:20:33 DEBUG [101/CWorkerThread] four
"""
BASE_MS = 1_700_000_000_000


def with_log(tree, text=LOG, name="vx_agent.log"):
    return tree.file("work/" + name, text)


# --- log


@pytest.mark.fast
def test_the_log_is_shown_across_its_files_the_oldest_first(tree):
    with_log(tree, "2026-01-31 10:20:28 INFO [1/main] oldest\n", "vx_agent.log.2")
    with_log(tree, "2026-01-31 10:20:29 INFO [1/main] older\n", "vx_agent.log.1")
    with_log(tree)
    before = state_of(tree.work)
    assert ctl(tree, "log").out.splitlines() == ["2026-01-31 10:20:28 INFO [1/main] oldest",
                                                 "2026-01-31 10:20:29 INFO [1/main] older", *LOG.splitlines()]
    assert ctl(tree, "log", "-n", "4").out.splitlines() == LOG.splitlines()
    assert state_of(tree.work) == before


@pytest.mark.parametrize("arguments, shown", [
    (["--level", "warning"], [1, 2, 3]), (["--level", "ERROR"], [3]), (["--process", "100"], [0]), (["--since", "2026-01-31T10:20:32"], [3, 4]),
    (["--until", "2026-01-31 10:20:31"], [0, 1, 2]), (["-n", "1", "--level", "warning"], [3]), (["-n", "2", "--level", "warning"], [1, 2, 3]),
    (["--since", "2027-01-01"], [])])
def test_records_are_chosen_whole(tree, arguments, shown):
    with_log(tree)
    lines = LOG.splitlines()
    assert ctl(tree, "log", *arguments).out.splitlines() == [lines[number] for number in shown]


def test_records_as_json_have_their_further_lines_in_their_text(tree):
    with_log(tree, LOG + "rest of a piece\n")
    found = objects("log", ctl(tree, "log", "--json", env=dict(os.environ, TZ="UTC")).out)
    assert found[1] == {"schema": 1, "time": "2026-01-31T10:20:31.000Z", "level": "WARNING", "process": 101, "thread": "CScriptThread",
                        "text": "two\nits second line"}
    assert [record.get("text") for record in found] == ["one", "two\nits second line", "three", "four", "rest of a piece"]


def test_nothing_in_a_log_is_obeyed_by_a_terminal(tree):
    with_log(tree, b"2026-01-31 10:20:30 INFO [1/main] \x1b]0;title\x07\x00\xff\n\x1b[2J\n")
    assert ctl(tree, "log").stdout == b"2026-01-31 10:20:30 INFO [1/main] \\x1B]0;title\\x07\\x00\xff\n\\x1B[2J\n"
    assert "\x1b" not in ctl(tree, "log", "--json").out


def test_what_is_no_log_is_told(tree):
    os.makedirs(tree.work)
    assert ctl(tree, "log", status=2).err == f"vexctl: there is no log at {tree.work}/vx_agent.log; --workdir and --name say where to look\n"
    os.mkdir(os.path.join(tree.work, "vx_agent.log"))
    assert ctl(tree, "log", status=2).err == f"vexctl: {tree.work}/vx_agent.log is no regular file\n"
    os.rmdir(os.path.join(tree.work, "vx_agent.log"))
    os.mkfifo(os.path.join(tree.work, "vx_agent.log"))
    ctl(tree, "log", status=2)
    os.unlink(os.path.join(tree.work, "vx_agent.log"))
    with_log(tree, LOG)
    os.mkfifo(os.path.join(tree.work, "vx_agent.log.1"))
    partly = ctl(tree, "log", status=2)
    assert (partly.out, partly.err) == (LOG, f"vexctl: {tree.work}/vx_agent.log.1 is no regular file\n")
    assert "no log at" in ctl(tree, "--name", "other\x1b", "log", status=2).err


@pytest.mark.sandbox
def test_following_goes_across_rotations_and_ends_with_its_reader(tree, tmp_path):
    path = with_log(tree, "2026-01-31 10:20:29 INFO [1/main] before\n")
    follower = Following(tree, str(tmp_path / "out"), "log", "--follow")
    follower.wait_for("before")
    with open(path, "a") as file:
        file.write("2026-01-31 10:20:30 INFO [1/main] appended\n")
    follower.wait_for("appended")
    with open(path, "a") as file:
        file.write("2026-01-31 10:20:31 INFO [1/main] last of its file\n")
        os.rename(path, path + ".1")
    with open(path, "w") as file:
        file.write("2026-01-31 10:20:32 INFO [1/main] between two looks\n")
    os.rename(path + ".1", path + ".2")
    os.rename(path, path + ".1")
    with open(path, "w") as file:
        file.write("2026-01-31 10:20:33 INFO [1/main] first of the next\n")
    follower.wait_for("first of the next")
    assert [line.partition("] ")[2] for line in follower.text().splitlines()] == [
        "before", "appended", "last of its file", "between two looks", "first of the next"]


@pytest.mark.sandbox
def test_following_goes_on_behind_a_log_that_was_taken_away(tree, tmp_path):
    with_log(tree, "2026-01-31 10:20:30 INFO [1/main] rotated\n", "vx_agent.log.1")
    path = with_log(tree, "2026-01-31 10:20:31 INFO [1/main] last\n")
    follower = Following(tree, str(tmp_path / "out"), "log", "--follow")
    follower.wait_for("last")
    os.unlink(path)
    with_log(tree, "2026-01-31 10:20:32 INFO [1/main] new\n")
    follower.wait_for("new")
    assert [line.partition("] ")[2] for line in follower.text().splitlines()] == ["rotated", "last", "new"]


@pytest.mark.skipif(conftest.SANITIZER == "thread", reason="the sanitizer has a thread of its own, which works by the clock")
@pytest.mark.sandbox
def test_a_follower_that_waits_sleeps_and_ends_when_nobody_reads_any_more(tree):
    with_log(tree)
    process = tree.start("log", "--follow", name="vexctl", stdout=subprocess.PIPE)
    assert process.stdout.readline().endswith(b" one\n")
    for _ in range(4):
        process.stdout.readline()
    before = at_rest(process.pid)
    time.sleep(1)
    assert [conftest.switches(process.pid)] == before
    process.stdout.close()
    assert process.wait(conftest.PATIENCE) == 0


def test_a_pipe_that_closes_ends_it_quietly(tree):
    with_log(tree, LOG * 20000)
    command = f'"{tree.path}/vexctl" log | head -n 1'
    result = subprocess.run(["bash", "-o", "pipefail", "-c", command], capture_output=True, text=True, timeout=conftest.PATIENCE, check=False)
    assert (result.returncode, result.stdout, result.stderr) == (0, LOG.splitlines()[0] + "\n", "")


def test_an_output_that_cannot_be_written_is_told(tree):
    with_log(tree)
    with open("/dev/full", "wb") as full:
        result = subprocess.run([f"{tree.path}/vexctl", "log"], stdout=full, stderr=subprocess.PIPE, text=True, check=False)
    assert (result.returncode, result.stderr) == (2, "vexctl: the output cannot be written: No space left on device\n")


@pytest.mark.skipif(conftest.SANITIZED, reason="the sanitizer's own memory is many times the limit")
def test_a_log_of_a_gibibyte_begins_at_once_and_takes_little_memory(tree):
    path = with_log(tree)
    with open(path, "r+b") as file:
        file.seek(1 << 30)  # a hole that is read as NULs, one line of a gibibyte
        file.write(b"\n" + LOG.encode())
    command = f'ulimit -v 200000; exec "{tree.path}/vexctl" log -n 2 --level debug'
    result = subprocess.run(["bash", "-c", command], capture_output=True, text=True, timeout=conftest.PATIENCE, check=False)
    assert (result.returncode, result.stdout.splitlines()) == (0, LOG.splitlines()[3:])
    process = tree.start("log", name="vexctl", stdout=subprocess.PIPE)
    process.stdout.readline()
    # It cannot go on far: nobody takes more from the pipe.
    with open(f"/proc/{process.pid}/io") as file:
        assert int(re.search(r"^rchar: (\d+)$", file.read(), re.M)[1]) < 1 << 26
    process.stdout.close()
    process.wait(conftest.PATIENCE)


# --- events


@pytest.mark.sandbox
@pytest.mark.fast
def test_events_of_an_agent_are_shown_while_it_runs(tree):
    tree.app("probe", """
local M = {}
function M.init() dom0:AgentEvent{ number = 7, severity = 4, text = "first <&\\27[31m" } return 0 end
function M.main() return 0 end
function M.shutdown() dom0:AgentEvent{ number = 8, severity = 5, text = "second" } return 0 end
return M
""")
    supervisor, child = tree.background(name="probe")
    wait_until(lambda: os.path.exists(os.path.join(tree.work, "events.db")), what="the first event")
    wait_until(lambda: ctl(tree, "--name", "probe", "events", "--json").out, what="the event")
    before = quiet_state_of(tree.work, supervisor, child)
    event, = objects("events", ctl(tree, "--name", "probe", "events", "--json").out)
    assert (event["schema"], event["number"], event["severity"], event["severity_word"], event["text"]) == (1, 7, 4, "warning",
                                                                                                       "first <&\ufffd[31m")
    assert "\x1b" not in ctl(tree, "--name", "probe", "events").out + ctl(tree, "--name", "probe", "events", "--json").out
    assert ctl(tree, "--name", "probe", "events", "--xml").out.startswith("<agent_event ")
    assert state_of(tree.work) == before
    tree.stop(supervisor)
    wait_until(lambda: len(objects("events", ctl(tree, "--name", "probe", "events", "--json").out)) == 2, what="the second event")
    assert [after["number"] for after in objects("events", ctl(tree, "--name", "probe", "events", "--json", "--after", event["key"]).out)] == [8]


@pytest.mark.parametrize("arguments, numbers", [
    ([], range(100, 200)), (["-n", "3"], [197, 198, 199]), (["-n", "0"], range(200)), (["-n", str(2**64 - 1)], range(200)), (["--severity", "1"], [number for number in range(200) if number % 8 <= 1]),
    (["--severity", "alert", "-n", "1"], [193]), (["--since", "2023-11-14T22:16:35Z"], [195, 196, 197, 198, 199]),
    (["--until", "2023-11-14T22:13:21Z"], [0, 1]), (["--since", "2023-11-14T22:16:35Z", "-n", "1"], [199]), (["--since", "1h"], [])])
def test_events_are_chosen(tree, arguments, numbers):
    with_events(tree, [(BASE_MS + 1000 * number, number, number % 8, f"event {number}") for number in range(200)])
    assert [event["number"] for event in objects("events", ctl(tree, "events", "--json", *arguments).out)] == list(numbers)


def test_the_last_of_many_events_are_those_also_after_a_clock_was_set(tree):
    count = 12000
    with_events(tree, [(BASE_MS + 1000 * (number if number < count - 2 else 0), number, number % 8, f"event {number}") for number in range(count)])

    def numbers(*arguments):
        return [json.loads(line)["number"] for line in ctl(tree, "events", "--json", *arguments).out.splitlines()]

    since = "2023-11-14T22:13:21Z"  # a second behind the first, and behind the last two
    assert numbers("--since", since, "-n", "3") == [count - 5, count - 4, count - 3]
    assert numbers("--since", since, "-n", "2", "--severity", "0") == [count - 16, count - 8]
    assert numbers("--since", since, "-n", "20000") == numbers("--since", since) == list(range(1, count - 2))
    assert numbers("-n", "1") == [count - 1]


def test_events_after_a_key_are_all_those_of_a_database_that_was_replaced(tree):
    path = with_events(tree, [(BASE_MS, number, 5, f"old {number}") for number in range(5)])
    keys = [event["key"] for event in objects("events", ctl(tree, "events", "--json").out)]
    assert [event["number"] for event in objects("events", ctl(tree, "events", "--json", "--after", keys[2]).out)] == [3, 4]
    assert ctl(tree, "events", "--json", "--after", keys[4]).out == ""
    os.unlink(path)
    with_events(tree, [(BASE_MS, number, 5, f"new {number}") for number in range(3)])
    result = ctl(tree, "events", "--json", "--after", keys[2])
    assert [event["text"] for event in objects("events", result.out)] == ["new 0", "new 1", "new 2"]
    assert "has been replaced" in result.err
    assert len(objects("events", ctl(tree, "events", "--json", "--after", keys[4]).out)) == 3
    assert ctl(tree, "events", "--after", "nonsense", status=2).err == "vexctl: 'nonsense' is no key of an event\n"


@pytest.mark.fast
def test_an_event_is_found_by_the_key_that_the_agent_stored_and_by_the_one_that_was_shown_before(tree):
    path = with_events(tree, [(BASE_MS, number, 5, f"event {number}") for number in range(4)])
    made = [event["key"] for event in objects("events", ctl(tree, "events", "--json").out)]
    database = sqlite3.connect(path)
    database.execute("ALTER TABLE agent_event ADD COLUMN key TEXT")
    database.execute("CREATE INDEX agent_event_by_key ON agent_event(key) WHERE key IS NOT NULL")
    database.execute("UPDATE agent_event SET key = printf('%032x', id) WHERE id IN (2, 3)")  # an earlier agent wrote the others
    database.commit()
    keys = [event["key"] for event in objects("events", ctl(tree, "events", "--json").out)]
    assert keys == [made[0], f"{2:032x}", f"{3:032x}", made[3]]
    for given in (keys, made):
        for index, key in enumerate(given):
            result = ctl(tree, "events", "--json", "--after", key)
            assert [event["key"] for event in objects("events", result.out)] == keys[index + 1:] and result.err == ""
    result = ctl(tree, "events", "--json", "--after", f"{9:032x}")
    assert [event["key"] for event in objects("events", result.out)] == keys
    assert "all events that are there follow" in result.err


@pytest.mark.sandbox
def test_events_to_come_are_shown_when_they_come(tree, tmp_path):
    path = with_events(tree, [(BASE_MS, 1, 5, "there")])
    follower = Following(tree, str(tmp_path / "out"), "events", "--follow", "--json")
    follower.wait_for('"there"')
    database = sqlite3.connect(path)
    for number in range(2, 5):
        database.execute("INSERT INTO agent_event(time_ms, number, severity, text, xml) VALUES(?, ?, 5, 'came', ?)", (BASE_MS, number, str(number)))
        database.commit()
    follower.wait_for('"number":4')
    assert [event["number"] for event in objects("events", follower.text())] == [1, 2, 3, 4]


@pytest.mark.sandbox
def test_who_waits_for_rare_events_does_not_go_through_the_others_again(tree, tmp_path):
    path = with_events(tree, [(BASE_MS, number, 5, "x" * 1000) for number in range(10000)])
    follower = Following(tree, str(tmp_path / "out"), "events", "--follow", "--severity", "0", "--json")
    database = sqlite3.connect(path)

    def add(severity, text):
        database.execute("INSERT INTO agent_event(time_ms, number, severity, text, xml) VALUES(?, 1, ?, ?, '')", (BASE_MS, severity, text))
        database.commit()

    def bytes_read():
        with open(f"/proc/{follower.process.pid}/io", encoding="utf-8") as file:
            return int(file.readline().split()[1])

    def has_read_all():
        before = bytes_read()
        time.sleep(0.3)
        return bytes_read() == before > 10_000_000

    wait_until(has_read_all, what="a first look at all events")
    before = bytes_read()
    add(5, "not wanted")
    add(0, "wanted")
    follower.wait_for('"wanted"')
    assert bytes_read() - before < 2_000_000
    assert len(objects("events", follower.text())) == 1


def test_no_events_and_events_that_wait(tree):
    assert ctl(tree, "events", status=2).err == f"vexctl: there is no work folder {tree.work}; --workdir says where to look\n"
    os.makedirs(tree.work)
    assert ctl(tree, "events", "--json").out == ""
    tree.file("work/events.pending.xml", '<pending key="1"><agent_event/></pending>\n\n<pending key="2"><agent_event/></pending>\n')
    assert ctl(tree, "events").err == f"vexctl: 2 more wait in {tree.work}/events.pending.xml until the database takes them\n"
    os.unlink(os.path.join(tree.work, "events.pending.xml"))
    os.mkfifo(os.path.join(tree.work, "events.pending.xml"))
    assert ctl(tree, "events").err == f"vexctl: {tree.work}/events.pending.xml is no regular file\n"


@pytest.mark.parametrize("command, file", [("events", "events.db"), ("heartbeats", "plugins/vx_agent/heartbeat.db")])
def test_databases_that_are_none_are_told_and_not_touched(tree, command, file):
    for content in (b"x" * 5000, b"SQLite format 3\0" + b"\xff" * 4000):
        tree.file("work/" + file, content)
        before = state_of(tree.work)
        assert os.path.join(tree.work, file) in ctl(tree, command, status=2).err
        assert state_of(tree.work) == before
    tree.file("work/" + file, b"")
    assert ctl(tree, command, "--json").out == ""


def test_a_database_that_somebody_has_locked_is_read(tree):
    path = with_events(tree, [(BASE_MS, 1, 5, "there")])
    writer = sqlite3.connect(path)
    writer.execute("BEGIN EXCLUSIVE")
    assert len(objects("events", ctl(tree, "events", "--json").out)) == 1
    writer.rollback()


# --- heartbeats


@pytest.mark.sandbox
def test_heartbeats_of_an_agent_are_a_table_and_objects(tree):
    tree.file("work/vx_agent.ini", "[settings]\nvex.HeartbeatInterval=1\n")
    supervisor, _ = tree.background()
    ctl(tree, "wait", "heartbeat")
    ctl(tree, "wait", "heartbeat", "--next")
    beats = objects("heartbeats", ctl(tree, "heartbeats", "--json").out)
    assert [beat["reason"] for beat in beats][:2] == ["start", "interval"]
    assert all(beat["schema"] == 1 and beat["uptime"] >= 0 and beat["memory_available"] > 0 for beat in beats)
    assert [beat["id"] for beat in objects("heartbeats", ctl(tree, "heartbeats", "--json", "-n", "1").out)] >= [beats[-1]["id"]]
    title, first, *_ = ctl(tree, "heartbeats", "-n", "0").out.splitlines()
    assert title.split() == ["TIME", "ID", "REASON", "UPTIME", "LOAD", "MEMORY", "AVAILABLE"] and " start " in first
    tree.stop(supervisor)


@pytest.mark.sandbox
@pytest.mark.any_user
def test_a_heartbeat_is_given_when_it_is_asked_for(tree):
    supervisor, _ = tree.background()
    ctl(tree, "wait", "heartbeat")
    bell = os.path.join(tree.work, "plugins/vx_agent/doorbell")
    wait_until(lambda: os.path.exists(bell), what="the pipe")
    for number in (2, 3):
        told, = objects("heartbeats", ctl(tree, "heartbeats", "--now", "-n", "1", "--json").out)
        assert (told["id"], told["reason"]) == (number, "request")
    tree.stop(supervisor)
    refused = ctl(tree, "heartbeats", "--now", status=1)
    assert (refused.out, refused.err) == ("", "vexctl: vx_agent does not listen; vexctl status tells whether it runs\n")


@pytest.mark.sandbox
@pytest.mark.parametrize("tree", [ORDINARY_USER], indirect=True)
def test_who_may_not_write_to_the_pipe_asks_in_vain(tree):
    supervisor, _ = tree.background()
    ctl(tree, "wait", "heartbeat")
    bell = os.path.join(tree.work, "plugins/vx_agent/doorbell")
    wait_until(lambda: os.path.exists(bell), what="the pipe")
    assert os.lstat(bell).st_mode & 0o777 == 0o600
    for folder in (tree.work, os.path.dirname(os.path.dirname(bell)), os.path.dirname(bell)):
        os.chmod(folder, 0o755)
    os.chmod(os.path.join(tree.work, "plugins/vx_agent/heartbeat.db"), 0o644)
    assert ctl(tree, "heartbeats", "--now", status=2, user=ORDINARY_USER + 1).err == f"vexctl: {bell}: Permission denied\n"
    tree.stop(supervisor)


def test_a_heartbeat_that_does_not_come_is_told_and_a_file_is_no_pipe(tree):
    bell = tree.file("work/plugins/vx_agent/doorbell", "")
    before = state_of(tree.work)
    assert ctl(tree, "heartbeats", "--now", status=2).err == f"vexctl: {bell} is no pipe of an agent\n"
    assert state_of(tree.work) == before
    os.unlink(bell)
    os.mkfifo(bell, 0o600)
    listener = os.open(bell, os.O_RDONLY | os.O_NONBLOCK)
    told = ctl(tree, "heartbeats", "--now", "--timeout", "1s", status=1).err
    assert told == "vexctl: no heartbeat of vx_agent after 1s; its log tells why\n"
    assert os.read(listener, 10) == b"\n"
    os.close(listener)


# --- crashes


@pytest.mark.skipif(conftest.SANITIZED, reason="the sanitizer has crash handlers of its own")
@pytest.mark.sandbox
def test_a_crash_is_told_with_its_place_and_opens_with_the_command_that_is_shown(tree):
    shutil.copy(os.path.join(BUILD, "tests", "luacrash.so"), tree.file("lib/luacrash.so"))
    tree.app("crasher", "return { init = function() return 0 end, main = function() require('luacrash')('null') return 0 end }")
    tree.run(name="crasher")
    assert os.path.exists(os.path.join(tree.work, "plugins/diag/crasher.mdmp")), tree.log("crasher")
    crash, = objects("crashes", ctl(tree, "--name", "crasher", "crashes", "--json").out)
    assert (crash["schema"], crash["signal_name"], crash["file"]) == (1, "SIGSEGV", os.path.join(tree.work, "plugins/diag/crasher.mdmp"))
    assert os.path.basename(crash["module"]) == "luacrash.so" and crash["offset"].startswith("0x")
    text = ctl(tree, "--name", "crasher", "crashes").out
    assert "luacrash.so+0x" in text and crash["open"] in text
    opened = subprocess.run(["bash", "-c", crash["open"].replace("lldb ", "lldb --batch -o 'thread list' ", 1)], capture_output=True, text=True,
                            timeout=120, check=False)
    assert opened.returncode == 0 and "SIGSEGV" in opened.stdout, opened.stdout + opened.stderr


def test_dumps_that_are_none_are_told_beside_those_that_are(tree):
    assert ctl(tree, "crashes").out == f"no crash dumps in {tree.work}/plugins/diag\n"
    tree.file("work/plugins/diag/vx_agent.mdmp", b"")
    tree.file("work/plugins/diag/vx_agent.1700000000.mdmp", b"x" * 1000)
    tree.file("work/plugins/diag/vx_agent.mdmp.tmp", b"being written")
    tree.file("work/plugins/diag/other.mdmp", b"another agent's")
    found = {os.path.basename(crash["file"]): crash["error"] for crash in objects("crashes", ctl(tree, "crashes", "--json").out)}
    assert found == {"vx_agent.mdmp": "it ends too early", "vx_agent.1700000000.mdmp": "it is no dump"}


# --- for people


@pytest.mark.parametrize("columns", [80, 40])
def test_tables_fit_the_terminal(tree, columns):
    with_events(tree, [(BASE_MS, 1, 5, "a text that is longer than the widest of these terminals, which are old and narrow")])
    tree.file("work/plugins/diag/vx_agent.mdmp", b"")
    tree.file("work/vx_agent.ini", "[settings]\napp.lua.zippath = " + "/a/long/path;" * 20 + "\n")
    for command in ("events", "crashes", "config"):
        lines = re.sub("\x1b\\[[0-9]*m", "", seen_on_terminal(tree, command, stream="stdout", columns=columns)).splitlines()
        assert max(map(len, lines)) <= columns, command
        assert any("\u2026" in line for line in lines), command
        assert re.match("(TIME|KEY) ", lines[0]), command


# --- the call


def test_each_subcommand_has_help_and_a_wrong_call_is_status_2(tree):
    text = ctl(tree, "--help").out
    for command in ("status", "wait", "log", "events", "heartbeats", "crashes"):
        assert f"  {command} " in text
        assert ctl(tree, command, "--help").out
    assert ctl(tree, "--version").out.startswith("vexctl ")
    for wrong in ([], ["nonsense"], ["log", "--level", "loud"], ["log", "--since", "tomorrow"], ["events", "--severity", "9"], ["wait", "for godot"],
                  ["events", "--json", "--xml"], ["status", "--json", "--nagios"], ["log", "-n", "-1"], ["wait", "running", "--timeout", "1"]):
        assert ctl(tree, *wrong, status=2).err.endswith("vexctl: see vexctl --help\n"), wrong


@pytest.mark.sandbox
def test_signals_end_it(tree):
    with_log(tree)
    process = tree.start("log", "--follow", name="vexctl", stdout=subprocess.PIPE)
    process.stdout.readline()
    send_signal(process.pid, signal.SIGTERM)
    assert process.wait(conftest.PATIENCE) == -signal.SIGTERM
    process.stdout.close()
