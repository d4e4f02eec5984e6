"""What a crash leaves behind: a minidump that a debugger opens, one line in the log and on standard error, and the signal's own
end of the process."""
import datetime
import os
import re
import resource
import shutil
import signal
import subprocess

import pytest

import conftest
from minidump import Minidump

CHILD = os.path.join(conftest.BUILD, "tests", "crash_child")
# A sanitizer's run time takes crash signals and memory for itself, and its shadow is no memory to be dumped.
pytestmark = pytest.mark.skipif(conftest.SANITIZED, reason="the sanitizer has crash handlers of its own")


class Crash:
    def __init__(self, folder, way, *more, dump=None, **options):
        self.folder = str(folder)
        self.dump = dump or os.path.join(self.folder, "diag", "child.mdmp")
        self.work = os.path.join(self.folder, "work")
        os.makedirs(self.work, exist_ok=True)
        run = subprocess.run([CHILD, way, self.dump, self.work, *more], stdin=subprocess.DEVNULL, capture_output=True,
                             timeout=conftest.PATIENCE, **options)
        self.status, self.err = run.returncode, run.stderr.decode()
        with open(os.path.join(self.work, "crash_child.log")) as file:
            self.log = file.read().splitlines()

    def minidump(self):
        return Minidump(self.dump)


@pytest.mark.parametrize("way, number, thread, text", [
    ("null", signal.SIGSEGV, "main", r"signal 11 \(SIGSEGV at address 0x0\)"),
    ("abort", signal.SIGABRT, "main", r"signal 6 \(SIGABRT\)"),
    ("division", signal.SIGFPE, "main", r"signal 8 \(SIGFPE at address 0x[0-9a-f]+\)"),
    ("trap", signal.SIGILL, "main", r"signal 4 \(SIGILL at address 0x[0-9a-f]+\)"),
    ("sent", signal.SIGBUS, "main", r"signal 7 \(SIGBUS\)"),
    ("breakpoint", signal.SIGTRAP, "main", r"signal 5 \(SIGTRAP\)"),
    ("foreign", signal.SIGSEGV, "thread", r"signal 11 \(SIGSEGV at address 0x0\)"),
    ("thread", signal.SIGSEGV, "Crasher", r"signal 11 \(SIGSEGV at address 0x0\)"),
    ("overflow", signal.SIGSEGV, "Crasher", r"signal 11 \(SIGSEGV at address 0x[0-9a-f]+\)"),
    ("main-overflow", signal.SIGSEGV, "main", r"signal 11 \(SIGSEGV at address 0x[0-9a-f]+\)"),
    ("many", signal.SIGSEGV, "(main|Crasher)", r"signal 11 \(SIGSEGV at address 0x0\)"),
])
def test_each_crash_ends_by_its_signal_with_a_dump_and_one_line(tmp_path, way, number, thread, text):
    crash = Crash(tmp_path, way)
    assert crash.status == -number
    line = rf"crash_child crashed: {text}, thread \d+; crash dump: {re.escape(crash.dump)}"
    assert re.fullmatch(line + "\n", crash.err), crash.err
    assert len(crash.log) == 2, crash.log
    assert re.fullmatch(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d FATAL \[\d+/" + thread + r"\] " + line, crash.log[1])
    assert os.stat(crash.dump).st_mode & 0o777 == 0o600
    assert os.stat(os.path.dirname(crash.dump)).st_mode & 0o777 == 0o700, "the missing folder was made for the owner alone"
    assert os.listdir(os.path.dirname(crash.dump)) == ["child.mdmp"]


def test_a_crash_before_the_first_line_of_a_log_that_is_a_link_is_in_the_log(tmp_path):
    work = tmp_path / "work"
    work.mkdir(mode=0o700)
    (work / "crash_child.log").symlink_to(tmp_path / "real.log")
    crash = Crash(tmp_path, "null", "small", "silent")
    assert crash.status == -signal.SIGSEGV
    assert len(crash.log) == 1 and " crashed: signal 11 (SIGSEGV at address 0x0)" in crash.log[0], crash.log
    assert (work / "crash_child.log").is_symlink()
    assert os.stat(tmp_path / "real.log").st_mode & 0o777 == 0o600


def test_the_line_in_the_log_has_the_local_time(tmp_path):
    crash = Crash(tmp_path, "null", env=dict(os.environ, TZ="XYZ-5:30"))
    told = datetime.datetime.strptime(crash.log[1][:19], "%Y-%m-%d %H:%M:%S") - datetime.timedelta(hours=5, minutes=30)
    assert abs(told - datetime.datetime.utcnow()) < datetime.timedelta(minutes=1)


@pytest.mark.quick
def test_dump_has_threads_stacks_modules_and_the_system(tmp_path):
    crash = Crash(tmp_path, "thread")
    dump = crash.minidump()
    thread, number, address = dump.exception()
    assert (number, address) == (signal.SIGSEGV, 0)
    threads = dump.threads()
    assert len(threads) == 2 and thread in threads and dump.process() in threads and thread != dump.process()
    for start, size, rsp, rip in threads.values():
        assert start <= rsp < start + size and rip != 0
    modules = dump.modules()
    own = modules[os.path.realpath(CHILD)]
    assert own[0] <= threads[thread][3] < own[0] + own[1], "the crash is in the program itself"
    assert any("/libc.so.6" in name for name in modules)
    notes = subprocess.run(["readelf", "-n", CHILD], capture_output=True, text=True, check=True).stdout
    assert re.search(r"Build ID: (\w+)", notes).group(1) == own[2].hex()
    assert dump.thread_names() == {number: "crash_child" for number in threads}
    system = os.uname()
    assert dump.system() == (9, os.sysconf("SC_NPROCESSORS_ONLN"), 0x8201,
                             f"{system.sysname} {system.release} {system.version} {system.machine}")
    assert b"crash_child\0thread\0" in dump.bytes("cmdline")
    assert b"libc.so.6" in dump.bytes("maps") and b"processor" in dump.bytes("cpuinfo")
    assert f"Pid:\t{dump.process()}".encode() in dump.bytes("status")
    assert len(dump.bytes("auxv")) % 16 == 0
    assert "memory64" not in dump.streams


def test_of_each_stack_the_innermost_256_kib_are_in_the_dump_and_less_where_it_has_less(tmp_path):
    dump = Crash(tmp_path, "overflow").minidump()
    thread, _, _ = dump.exception()
    stacks = dump.threads()
    start, size, rsp, _ = stacks[thread]
    # From the page that holds what a leaf function uses below its stack pointer; an overflown one begins with the stack.
    assert size == 256 * 1024 and start <= rsp + os.sysconf("SC_PAGE_SIZE")
    assert 0 < stacks[dump.process()][1] < 256 * 1024


def test_threads_that_start_meanwhile_are_in_the_dump(tmp_path):
    for round_number in range(10):
        folder = tmp_path / str(round_number)
        folder.mkdir()
        dump = Crash(folder, "spawning").minidump()
        alive = int(re.search(rb"^Threads:\t(\d+)$", dump.bytes("status"), re.M)[1])
        assert len(dump.threads()) == alive > 50


def test_environment_stays_out_of_the_dump_unless_it_is_full(tmp_path):
    environment = {"PASSWORD": "swordfish", "PATH": os.environ["PATH"]}
    assert b"swordfish" not in Crash(tmp_path, "null", env=environment).minidump().data
    assert b"swordfish" in Crash(tmp_path, "null", "full", env=environment).minidump().data


def test_full_dump_holds_all_memory(tmp_path):
    crash = Crash(tmp_path, "null", "full")
    dump = crash.minidump()
    base, ranges = dump.memory64()
    assert base + sum(size for _, size in ranges) <= len(dump.data)
    heap = re.search(r"^(\w+)-(\w+) rw.*\[heap\]$", dump.bytes("maps").decode(), re.M)
    assert (int(heap[1], 16), int(heap[2], 16) - int(heap[1], 16)) in ranges
    offset = base
    for start, size in ranges:
        if start == int(heap[1], 16):
            assert crash.dump.encode() in dump.data[offset:offset + size], "a text of the program's is in its heap"
        offset += size


def lldb(dump, *commands):
    if shutil.which("lldb") is None:
        pytest.skip("NO LLDB HERE: the dump was not opened by a debugger")
    arguments = ["lldb", "--no-lldbinit", "--batch"]
    for command in commands:
        arguments += ["-o", command]
    run = subprocess.run([*arguments, "-c", dump, CHILD], stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=180)
    return run.stdout


def test_debugger_shows_the_crashing_frame_of_a_null_pointer(tmp_path):
    text = lldb(Crash(tmp_path, "null").dump, "thread backtrace", "image list")
    assert re.search(r"thread #1.*stop reason = signal SIGSEGV", text), text
    assert re.search(r"frame #0: .*CrashOnNull", text), text
    assert re.search(r"frame #\d: .*`main", text), text
    assert re.search(r"\[ *\d+\] .*crash_child", text) and "libc.so.6" in text, text


def test_debugger_shows_an_abort(tmp_path):
    text = lldb(Crash(tmp_path, "abort").dump, "thread backtrace")
    assert "stop reason = signal SIGABRT" in text and re.search(r"frame #\d: .*CrashByAbort", text), text


def test_debugger_shows_both_threads_of_a_crash_in_the_second(tmp_path):
    text = lldb(Crash(tmp_path, "thread").dump, "thread list", "thread backtrace all")
    assert re.search(r"frame #0: .*CrashOnNull", text), text
    assert re.search(r"frame #\d+: .*WaitInMain", text), text
    assert re.search(r"frame #\d+: .*Crasher::OnRun", text), text


def test_debugger_shows_an_overflown_stack_of_a_thread(tmp_path):
    text = lldb(Crash(tmp_path, "overflow").dump, "thread backtrace -c 5", "thread backtrace all")
    assert re.search(r"thread #1.*stop reason = signal SIGSEGV", text), text
    assert re.search(r"frame #0: .*CrashByRecursion", text) and re.search(r"frame #4: .*CrashByRecursion", text), text
    assert re.search(r"frame #\d+: .*WaitInMain", text), text


def test_debugger_shows_all_threads_that_crash_at_once(tmp_path):
    text = lldb(Crash(tmp_path, "many").dump, "thread backtrace all")
    stacks = re.split(r"thread #\d", text)[1:]
    assert len(stacks) == 3 and all("CrashInMany" in stack for stack in stacks), text


def test_debugger_reads_a_variable_out_of_a_full_dump(tmp_path):
    crash = Crash(tmp_path, "null", "full")
    assert crash.dump in lldb(crash.dump, "target variable dumpFile")


def test_crash_inside_the_handler_still_ends_by_the_first_signal(tmp_path):
    crash = Crash(tmp_path, "nested")
    assert crash.status == -signal.SIGABRT
    assert "(the crash handler crashed as well)" in crash.err and len(crash.log) == 2
    assert os.listdir(os.path.dirname(crash.dump)) == []


def test_handler_whose_library_is_gone_ends_by_the_signal_and_does_not_start_again_and_again(tmp_path):
    crash = Crash(tmp_path, "no-library")
    assert crash.status == -signal.SIGSEGV
    assert crash.err == "" and len(crash.log) == 1
    assert not os.path.exists(os.path.dirname(crash.dump))


def test_folder_that_cannot_be_made_is_told(tmp_path):
    (tmp_path / "file").write_text("in the way")
    crash = Crash(tmp_path, "null", dump=str(tmp_path / "file" / "diag" / "child.mdmp"))
    assert crash.status == -signal.SIGSEGV
    assert re.search(r"no crash dump could be written to .* \(error 20: Not a directory\)\n$", crash.err), crash.err
    assert "no crash dump could be written" in crash.log[1]


def test_folder_in_the_place_of_the_dump_is_told_and_stays(tmp_path):
    (tmp_path / "diag" / "child.mdmp" / "in it").mkdir(parents=True)
    crash = Crash(tmp_path, "null")
    assert crash.status == -signal.SIGSEGV
    assert re.search(r"no crash dump could be written to .* \(error 21: Is a directory\)\n$", crash.err), crash.err
    assert os.listdir(tmp_path / "diag") == ["child.mdmp"] and os.listdir(crash.dump) == ["in it"]


def signals_of_dumps(folder):
    """The signal of each dump by its name; the folder has nothing else."""
    return {name: Minidump(os.path.join(folder, name)).exception()[1] for name in sorted(os.listdir(folder))}


def test_dumps_of_earlier_crashes_are_kept_and_one_that_fails_takes_none_away(tmp_path):
    first = Crash(tmp_path, "null")
    folder = os.path.dirname(first.dump)
    os.utime(first.dump, (1000, 1000))
    Crash(tmp_path, "abort")
    assert signals_of_dumps(folder) == {"child.1000.mdmp": signal.SIGSEGV, "child.mdmp": signal.SIGABRT}

    def small_files_only():
        resource.setrlimit(resource.RLIMIT_FSIZE, (8192, 8192))

    os.utime(first.dump, (1000, 1000))
    crash = Crash(tmp_path, "null", preexec_fn=small_files_only)
    assert crash.status == -signal.SIGSEGV and "error 27: File too large" in crash.err
    assert signals_of_dumps(folder) == {"child.1000.mdmp": signal.SIGSEGV, "child.1001.mdmp": signal.SIGABRT}, \
        "of two in one second neither is lost"


def test_five_dumps_of_earlier_crashes_stay(tmp_path):
    folder = tmp_path / "diag"
    folder.mkdir()
    for name in ("child.999.mdmp", "child.20.mdmp", "child.mdmp.tmp.mdmp", "child.x1.mdmp", "other.5.mdmp", "child..mdmp"):
        (folder / name).write_text(name)
    for time in range(2000, 2006):
        os.utime(Crash(tmp_path, "null").dump, (time, time))
    strangers = {"child.mdmp.tmp.mdmp", "child.x1.mdmp", "other.5.mdmp", "child..mdmp"}
    assert set(os.listdir(folder)) == strangers | {"child.mdmp"} | {f"child.{time}.mdmp" for time in range(2000, 2005)}


def test_second_crash_below_one_supervisor_keeps_the_dump_of_the_first(tmp_path):
    # The handler was installed once, before both were forked.
    Crash(tmp_path, "children")
    assert list(signals_of_dumps(tmp_path / "diag").values()) == [signal.SIGABRT, signal.SIGSEGV]


@pytest.mark.sandbox
def test_full_disk_is_told_and_leaves_nothing(tmp_path):
    folder = tmp_path / "diag"
    folder.mkdir()
    conftest.mount_tmpfs(str(folder), b"size=8k,mode=700")
    try:
        crash = Crash(tmp_path, "null")
        assert crash.status == -signal.SIGSEGV
        assert "error 28: No space left on device" in crash.err and "error 28" in crash.log[1]
        assert os.listdir(folder) == []
    finally:
        conftest.unmount(str(folder))


@pytest.mark.sandbox
def test_no_dump_is_written_where_somebody_else_had_a_hand_in(tmp_path):
    conftest.require_ordinary_user()
    victim = tmp_path / "victim"
    (victim / "diag").mkdir(parents=True)
    (victim / "diag" / "child.mdmp").write_text("as it was")
    (tmp_path / "work").mkdir()
    (tmp_path / "work" / "plugins").symlink_to(victim)
    os.lchown(tmp_path / "work" / "plugins", conftest.ORDINARY_USER, conftest.ORDINARY_USER)
    crash = Crash(tmp_path, "null", dump=str(tmp_path / "work/plugins/diag/child.mdmp"))
    assert crash.status == -signal.SIGSEGV
    assert f"no crash dump could be written to {crash.dump} (error 1: Operation not permitted)" in crash.err
    assert os.listdir(victim) == ["diag"] and os.listdir(victim / "diag") == ["child.mdmp"]
    assert (victim / "diag" / "child.mdmp").read_text() == "as it was"


def test_handler_works_when_the_log_and_standard_error_are_gone(tmp_path):
    crash = Crash(tmp_path, "null", preexec_fn=lambda: os.close(2))
    assert crash.status == -signal.SIGSEGV
    assert crash.minidump().exception()[1] == signal.SIGSEGV


@pytest.mark.parametrize("way", ["null", "thread", "overflow", "main-overflow"])
def test_handler_does_not_touch_the_heap(tmp_path, preload, way):
    crash = Crash(tmp_path, way, "full", env=dict(os.environ, LD_PRELOAD=preload("libnoheap.so")))
    assert crash.status == -signal.SIGSEGV and "LD_PRELOAD" not in crash.err, crash.err
    assert crash.minidump().exception()[1] == signal.SIGSEGV


def test_handler_asks_the_system_for_no_memory_and_waits_for_no_lock(tmp_path):
    if shutil.which("strace") is None:
        pytest.skip("NO STRACE HERE")
    trace = tmp_path / "trace"
    work = tmp_path / "work"
    work.mkdir()
    subprocess.run(["strace", "-f", "-o", trace, CHILD, "thread", tmp_path / "x.mdmp", work], stdin=subprocess.DEVNULL,
                   capture_output=True, timeout=conftest.PATIENCE)
    lines = trace.read_text().splitlines()
    start = next(i for i, line in enumerate(lines) if "--- SIGSEGV" in line)
    crashed = lines[start].split()[0]
    calls = {match.group(1) for line in lines[start:] if (match := re.match(crashed + r"\s+(\w+)\(", line))}
    assert {"pwrite64", "rename", "tgkill"} <= calls
    assert not calls & {"brk", "mmap", "mmap2", "mremap", "munmap", "futex", "clone", "clone3", "fork", "vfork", "execve"}, calls
