"""What every end-to-end test shares: the staged tree, a folder of its own, and processes that never outlive a test.

The whole run sits in pid and mount namespaces (tools/sandbox). Here each worker additionally gets mounts of its own, with
an empty /run and /opt before every test, so tests that use /var/run or /opt do not meet.
"""
import ctypes
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

import pytest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
STAGE = os.environ.get("VEX_STAGE", os.path.join(ROOT, "build", "stage"))
BUILD = os.environ.get("VEX_BUILD", os.path.join(ROOT, "build", "release"))
FULL = os.environ.get("VEX_FULL") == "1"
SANITIZER = os.environ.get("VEX_SANITIZED", "")  # "address" or "thread" when the tree is such a build
SANITIZED = bool(SANITIZER)
sys.path.insert(0, os.path.join(ROOT, "tests", "support"))  # for what several scenarios share
def _version():
    """The agent's version: its three numbers, and its build."""
    with open(os.path.join(ROOT, "src/vex/apps/vex/version.h"), encoding="utf-8") as file:
        *numbers, build = re.findall(r"^#define VEX_VERSION_[A-Z]+ ([0-9]+)$", file.read(), re.M)
    return ".".join(numbers), build


VERSION, BUILD_NUMBER = _version()
OTHER_VERSION = VERSION.rpartition(".")[0] + ".99"
CLONE_NEWNS, MS_REC, MS_PRIVATE, MNT_DETACH = 0x00020000, 0x4000, 0x40000, 2
# The system tells a child of its parent's death when the parent's thread ends that made it, and again for each thread after it.
PARENT_DIES_ONCE = pytest.mark.skipif(SANITIZER == "thread", reason="the sanitizer has a thread of its own in the supervisor, "
                                      "so that its child is told twice of its death, which cuts shutdown short")
# How long a test waits for what should come: for ever, as far as a busy machine is concerned, and still it ends.
PATIENCE = 120
# For an agent that somebody else traces: the search for leaks is a tracer itself, and there is room for one.
TRACED = {"ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "") + ":detect_leaks=0"}
# Somebody without rights, for tests that are not to run as root alone.
ORDINARY_USER = 1000

# Texts of the system are in the language of whoever started the run, and tests compare them.
for _name in [name for name in os.environ if name.startswith("LC_") or name == "LANGUAGE"]:
    del os.environ[_name]
os.environ["LANG"] = "C.UTF-8"

# Where one of these is set pytest writes out whole how two values differ, and for megabytes it works at that for hours.
for _name in ("CI", "BUILD_NUMBER"):
    os.environ.pop(_name, None)

# Whoever started the run may have it ignore signals, as a shell does for its background jobs; agents would inherit that.
for _number in (signal.SIGINT, signal.SIGQUIT, signal.SIGHUP, signal.SIGTERM):
    if signal.getsignal(_number) == signal.SIG_IGN:
        signal.signal(_number, signal.SIG_DFL)

_libc = ctypes.CDLL(None, use_errno=True)


def _own_mounts():
    """Mounts of this worker's own; only inside tools/sandbox, whose pid namespace holds whatever goes astray."""
    return (os.environ.get("VEX_SANDBOX") == "1" and _libc.unshare(CLONE_NEWNS) == 0
            and _libc.mount(b"none", b"/", None, MS_REC | MS_PRIVATE, None) == 0)


def mount_tmpfs(folder, options=b"mode=755"):
    """The system call itself: the mount command leaves a file of its own under /run."""
    if _libc.mount(b"tmpfs", os.fsencode(folder), b"tmpfs", 0, options) != 0:
        raise OSError(ctypes.get_errno(), "mount", folder)


def unmount(folder):
    if _libc.umount2(os.fsencode(folder), MNT_DETACH) != 0:
        raise OSError(ctypes.get_errno(), "umount", folder)


@pytest.fixture
def etc():
    """An /etc of this test's own; writes a file below it, with a mode."""
    mount_tmpfs("/etc")

    def write(name, content, mode=0o644):
        path = os.path.join("/etc", name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w", encoding="utf-8") as file:
            file.write(content)
        os.chmod(path, mode)
        return path
    yield write
    unmount("/etc")


def pytest_configure(config):
    config.addinivalue_line("markers", "quick: also run by ./test --quick; each scenario has one")
    config.addinivalue_line("markers", "fast: also run in the sanitizer builds of ./test --ci")
    config.addinivalue_line("markers", "patient: waits for long for what another test shows sooner, or is about what seldom changes; from ./test --ci on")
    config.addinivalue_line("markers", "sandbox: needs namespaces of its own; skips where there are none")
    config.addinivalue_line("markers", "any_user(always=False): once as root and once with a tree whose agent an ordinary user starts; "
                            "the latter with VEX_FULL=1 only, or always")
    config.addinivalue_line("markers", "slow: takes minutes, sweeps with VEX_FULL=1; started first, so that the others run beside it")
    is_worker = hasattr(config, "workerinput") or not config.getoption("numprocesses", None)
    config.have_sandbox = is_worker and _own_mounts()


def pytest_collection_modifyitems(items):
    items.sort(key=lambda item: item.get_closest_marker("slow") is None)


def pytest_generate_tests(metafunc):
    mark = metafunc.definition.get_closest_marker("any_user")
    if mark and "tree" in metafunc.fixturenames:
        users = [pytest.param(None, id="root")]
        if FULL or mark.kwargs.get("always"):
            users.append(pytest.param(ORDINARY_USER, id="ordinary user"))
        metafunc.parametrize("tree", users, indirect=True)


def require_ordinary_user():
    with open("/proc/self/uid_map") as file:
        if not any(int(first) <= ORDINARY_USER < int(first) + int(count) for first, _, count in map(str.split, file)):
            pytest.skip("NO SECOND USER in this user namespace")


@pytest.fixture(scope="session")
def preload(tmp_path_factory):
    """Gives libraries of the build a name for LD_PRELOAD, which takes blanks and colons for separators."""
    folder = tmp_path_factory.mktemp("preload")

    def name_of(library):
        link = folder / library
        if not link.is_symlink():
            link.symlink_to(os.path.join(BUILD, "tests", library))
        return str(link)
    return name_of


@pytest.fixture(autouse=True)
def _fresh_system_folders(request):
    if request.node.get_closest_marker("sandbox") is None:
        yield
        return
    if not request.config.have_sandbox:
        pytest.skip("NOT IN A SANDBOX: this test would touch the machine itself; run it through tools/sandbox")
    for folder in ("/run", "/opt"):
        mount_tmpfs(folder)
    yield
    for folder in ("/opt", "/run"):
        unmount(folder)


@pytest.fixture(autouse=True)
def _no_sanitizer_report(request, monkeypatch):
    """What goes into the background has no standard error: sanitizers get a file, which must not be there in the end. The thread
    sanitizer gets one always: its reports end no process."""
    in_background = SANITIZED and request.node.get_closest_marker("sandbox") is not None
    if not in_background and SANITIZER != "thread":
        yield
        return
    with tempfile.TemporaryDirectory(prefix="vex-sanitizer-") as folder:
        os.chmod(folder, 0o1777)
        for variable in ("ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"):
            monkeypatch.setenv(variable, ":".join(filter(None, (os.environ.get(variable), f"log_path={folder}/report"))))
        yield
        reports = []
        for name in sorted(os.listdir(folder)):
            with open(os.path.join(folder, name), errors="replace") as file:
                reports.append(file.read())
    if reports:
        pytest.fail("\n".join(reports))


def send_signal(pid, number):
    """The only way a test sends a signal: a pid that is not above 1 would reach more than one process."""
    assert pid > 1, f"refusing to signal {pid}"
    os.kill(pid, number)


def send_signal_if_there(pid, number):
    """The same for a process that may end, and be waited for, at any moment."""
    try:
        send_signal(pid, number)
    except ProcessLookupError:
        pass


def alive(pid):
    """Whether a process exists and is no zombie."""
    try:
        with open(f"/proc/{pid}/stat", "rb") as file:
            return file.read().rpartition(b")")[2].split()[0] not in (b"Z", b"X")
    except OSError:
        return False


def children(pid):
    """The pids of a process's children, zombies included."""
    found = []
    try:
        for task in os.listdir(f"/proc/{pid}/task"):
            with open(f"/proc/{pid}/task/{task}/children") as file:
                found += [int(word) for word in file.read().split()]
    except OSError:  # the process has ended, or one of its threads
        pass
    return found


def switches(pid):
    """How often the threads of a process have been given a processor or have lost it: still for one that does nothing."""
    total = 0
    for task in os.listdir(f"/proc/{pid}/task"):
        with open(f"/proc/{pid}/task/{task}/status") as file:
            total += sum(int(line.split()[1]) for line in file if "ctxt_switches" in line)
    return total


def at_rest(*pids):
    """`switches` of each process, once all their threads sleep and have not been woken for a moment. A thread that waits for a
    processor sleeps as little as one that has it. The thread sanitizer has a thread of its own, which wakes up all the time: there
    it is enough that all are seen asleep again and again."""
    assert pids

    def asleep(pid):
        for task in os.listdir(f"/proc/{pid}/task"):
            with open(f"/proc/{pid}/task/{task}/stat", "rb") as file:
                if file.read().rpartition(b")")[2].split()[0] != b"S":
                    return False
        return True

    def look():
        try:
            counted = [switches(pid) if SANITIZER != "thread" else 0 for pid in pids]
            return counted if all(map(asleep, pids)) else None
        except OSError:  # a thread has ended
            return None

    def same_for_a_moment():
        first = look()
        for _ in range(6):
            time.sleep(0.05)
            if look() != first:
                return None
        return first
    return wait_until(same_for_a_moment, what="processes at rest")


def all_that_is_shown(master):
    """What was written to a terminal until nobody had it any more. It arrives in pieces, and may still be on its way then."""
    shown = b""
    try:
        while piece := os.read(master, 10000):
            shown += piece
    except OSError:  # nobody has the terminal any more
        pass
    return shown


def wait_until(condition, seconds=None, what="condition"):
    """Polls until `condition()` is true and returns its value; fails the test when the time is over."""
    seconds = PATIENCE if seconds is None else seconds
    end = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            pytest.fail(f"{what}: not within {seconds} s")
        time.sleep(0.01)


class Result:
    """What a finished run left: `status` as a shell shows it, `out` and `err` as text, `log` of the work folder."""

    def __init__(self, status, out, err, log):
        self.status, self.out_bytes, self.err_bytes, self.log = status, out, err, log
        self.out, self.err = out.decode("utf-8", "replace"), err.decode("utf-8", "replace")


class Tree:
    """A tree of the agent in a folder of its own, ready to be changed: hard links to the staged files. With `user` its
    processes are that user's, who may write in its folders and in /run; who else owns the files stays as it is. With `copy`
    there are no links, for a folder of another file system."""

    def __init__(self, folder, stage=STAGE, user=None, copy=False):
        self.path = str(folder)
        self.work = os.path.join(self.path, "work")
        self.identity = {} if user is None else {"user": user, "group": user, "extra_groups": []}
        self._started = []
        subprocess.run(["cp", "-a" if copy else "-al", stage + "/.", self.path], check=True)
        shutil.rmtree(self.work, ignore_errors=True)
        if user is not None:
            for inner, _, _ in os.walk(self.path):
                os.chown(inner, user, user)
            os.chown("/run", user, user)

    def file(self, name, content=None):
        """The path of a file of the tree; with `content` (text or bytes) the file is written."""
        path = os.path.join(self.path, name)
        if content is not None:
            os.makedirs(os.path.dirname(path), exist_ok=True)
            if os.path.exists(path):
                os.unlink(path)  # it may be a hard link into the staged tree
            with open(path, "wb") as file:
                file.write(content if isinstance(content, bytes) else content.encode())
        return path

    def app(self, name, source):
        """Makes an application module beside the executable, and the executable under that name."""
        self.file(name + ".lua", source)
        link = os.path.join(self.path, name)
        if not os.path.exists(link):
            os.link(os.path.join(self.path, "vx_agent"), link)
        return link

    def log(self, name="vx_agent", work=None):
        try:
            with open(os.path.join(work or self.work, name + ".log"), encoding="utf-8", errors="replace") as file:
                return file.read()
        except FileNotFoundError:
            return ""

    def start(self, *arguments, name="vx_agent", env=None, **options):
        """Starts a process of the tree; the fixture ends it with the test."""
        process = subprocess.Popen([os.path.join(self.path, name), *arguments], stdin=subprocess.DEVNULL,
                                   env=dict(os.environ, **(env or {})), **{**self.identity, **options})
        self._started.append(process)
        return process

    def run(self, *arguments, name="vx_agent", env=None, timeout=None, cwd=None, prefix=(), executable=None, **options):
        """Runs to the end. A run that does not end is killed and fails the test: SIGINT and SIGTERM are blocked in it.
        `options` are those of Popen."""
        command = [*prefix, executable or os.path.join(self.path, name), *arguments]
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                   env=dict(os.environ, **(env or {})), cwd=cwd, **{**self.identity, **options})
        self._started.append(process)
        try:
            out, err = process.communicate(timeout=timeout or PATIENCE)
        except subprocess.TimeoutExpired:
            process.kill()
            out, err = process.communicate()
            pytest.fail(f"no end: {command}\n{out.decode(errors='replace')}\n{err.decode(errors='replace')}\n{self.log(name)}")
        return Result(process.returncode, out, err, self.log(name))

    def pid_file(self, name="vx_agent"):
        """The pid of the supervisor, 0 while there is no file; what is none, a named pipe say, would be waited for."""
        path = f"/var/run/{name}.pid"
        try:
            if not os.path.isfile(path):
                return 0
            with open(path) as file:
                return int(file.readline())
        except (FileNotFoundError, ValueError):
            return 0

    def supervisor(self, name="vx_agent"):
        """The pid in the file once it is an agent's of this tree, else 0: another may lie there until the start is through."""
        pid = self.pid_file(name)
        try:
            ours = alive(pid) and os.readlink(f"/proc/{pid}/exe").startswith(self.path + "/")
        except OSError:
            ours = False
        return pid if ours else 0

    def background(self, *arguments, name="vx_agent", **options):
        """Starts in the background, which must go without a word, and returns (supervisor, child) once both run."""
        result = self.run("--background", *arguments, name=name, **options)
        assert (result.status, result.out, result.err) == (0, "", "")
        supervisor = wait_until(lambda: self.supervisor(name), what="pid file")
        self._started.append(supervisor)
        child = wait_until(lambda: next(iter(children(supervisor)), 0), what="working child")
        self._started.append(child)
        return supervisor, child

    def stop(self, supervisor):
        """Stops a supervisor in order and waits for its end."""
        send_signal(supervisor, signal.SIGTERM)
        wait_until(lambda: not alive(supervisor), what="end of the supervisor")

    def end_all(self):
        for item in self._started:
            if isinstance(item, subprocess.Popen):
                if item.poll() is None:
                    item.kill()
                    item.wait()
            elif alive(item):
                for pid in (*children(item), item):
                    send_signal_if_there(pid, signal.SIGKILL)
        # Whatever else runs from this tree: children of a supervisor that was killed, for instance.
        for entry in os.listdir("/proc"):
            if entry.isdigit() and int(entry) > 1:
                try:
                    executable = os.readlink(f"/proc/{entry}/exe")
                except OSError:
                    continue
                if executable.startswith(self.path + "/"):
                    send_signal_if_there(int(entry), signal.SIGKILL)


@pytest.fixture
def tree(request, tmp_path):
    """A fresh tree. Its name has a blank and a letter beyond ASCII, on purpose."""
    user = getattr(request, "param", None)
    if user is None:
        yield from _made_in(str(tmp_path), None)
        return
    require_ordinary_user()
    # Elsewhere, because pytest's folders are closed to other users.
    with tempfile.TemporaryDirectory(prefix="vex-tree-", ignore_cleanup_errors=True) as folder:
        os.chmod(folder, 0o755)
        yield from _made_in(folder, user)


def _made_in(outer, user):
    folder = os.path.join(outer, "agent é tree")
    os.mkdir(folder)
    made = Tree(folder, user=user)
    yield made
    made.end_all()
