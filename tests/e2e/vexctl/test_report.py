"""vexctl report: the agent's report, for people, for programs, and as a page; and that the page is one in a browser."""
import html.parser
import json
import os
import re
import shutil
import signal
import sqlite3
import subprocess
import time

import html5lib
import pytest

import conftest
from conftest import ORDINARY_USER, send_signal, wait_until
from ctl import checked, ctl, quiet_state_of, state_of, with_events

BROWSER = "/usr/bin/chromium"
EVIL = "<script>document.title='obeyed'</script>\x1b]0;x\x07\"'><img src='http://192.0.2.1/x'>"
# What a reader's program fetches or runs; in a page that stands alone none of them leads anywhere.
FETCHING = {"script", "img", "iframe", "link", "object", "embed", "audio", "video", "source", "form", "base"}

# Whatever else stands in a page, a browser that reads this first obeys no script and fetches nothing.
POLICY = """<meta http-equiv="Content-Security-Policy" content="default-src 'none'; style-src 'unsafe-inline'">"""


class Seen(html.parser.HTMLParser):
    """The elements of a page, and whether each is closed where it must be."""

    VOID = {"meta", "br", "!doctype"}

    def __init__(self, text):
        super().__init__()
        self.elements, self.attributes, self.text, self._open = [], [], "", []
        self.feed(text)
        assert self._open == []

    def handle_starttag(self, tag, attrs):
        self.elements.append(tag)
        self.attributes += attrs
        if tag not in self.VOID:
            self._open.append(tag)

    def handle_startendtag(self, tag, attrs):
        self.elements.append(tag)
        self.attributes += attrs

    def handle_endtag(self, tag):
        assert self._open.pop() == tag

    def handle_data(self, data):
        if not self._open or self._open[-1] != "style":
            self.text += data


def as_browsers_read(text):
    """The elements of a page in their order, by the rules that browsers share; what these would have to mend is an error."""
    tree = html5lib.HTMLParser(strict=True).parse(text)
    return [element.tag.rpartition("}")[2] for element in tree.iter() if isinstance(element.tag, str)]


def page_of(tree, *arguments, status=0, **options):
    path = os.path.join(tree.path, "page.html")
    ctl(tree, "report", "--html", path, *arguments, status=status, **options)
    assert os.stat(path).st_mode & 0o7777 == 0o600
    with open(path, encoding="utf-8") as file:
        text = file.read()
    seen = Seen(text)
    assert as_browsers_read(text) == seen.elements
    assert text.index(POLICY) < text.index("<title>")
    assert not FETCHING & set(seen.elements)
    assert not [value for name, value in seen.attributes if name in ("src", "href", "srcset", "data") or name.startswith("on")]
    assert "url(" not in text and "@import" not in text
    return text, seen


def with_history(tree):
    """A work folder as an agent leaves it that has had a bad day."""
    now = int(time.time() * 1000)
    with_events(tree, [(now - 3_600_000 * hour, 5101, 2 + hour % 5, f"network|network-1.{hour}|{EVIL}") for hour in range(9, 0, -1)])
    os.makedirs(os.path.join(tree.work, "plugins/vx_agent"), mode=0o700)
    database = sqlite3.connect(os.path.join(tree.work, "plugins/vx_agent/heartbeat.db"))
    database.execute("CREATE TABLE heartbeat(id INTEGER PRIMARY KEY, time_ms INTEGER NOT NULL, reason TEXT NOT NULL, uptime_s INTEGER, load1 REAL, "
                     "memory_available INTEGER)")
    for minute in range(600, 0, -1):
        if not 200 < minute < 230:
            database.execute("INSERT INTO heartbeat(time_ms, reason, uptime_s, load1, memory_available) VALUES(?, ?, ?, ?, ?)",
                             (now - 60_000 * minute, "interval", 900_000 - 60 * minute, 0.4 + (minute % 97) / 40, (3 << 30) - (minute % 61 << 24)))
    database.commit()
    database.close()
    ended = time.strftime("%Y-%m-%d %H:%M:%S", time.localtime(now / 1000 - 230 * 60))
    tree.file("work/vx_agent.log", f"{ended} ERROR [42/main] Child process crashed with status 139 (signal 11: Segmentation fault)\n")
    tree.file("work/vx_agent.ini", "[settings]\nvex.HeartbeatInterval = 60\nmy.password = hunter2\n")
    tree.file("work/plugins/diag/vx_agent.mdmp", b"")


@pytest.mark.fast
@pytest.mark.quick
def test_the_report_is_that_of_the_launcher_and_leaves_the_work_folder_alone(tree):
    own = json.loads(tree.run("--", "--json").out)
    before = state_of(tree.work)
    told = checked("report", ctl(tree, "report", "--json").out)
    assert set(told) == set(own) and (told["host"], told["host_id"], told["agent"]) == (own["host"], own["host_id"], own["agent"])
    text = ctl(tree, "report").out
    assert re.search(rf"^Host +{re.escape(own['host'])}$", text, re.M) and "\nDisks\n" in text
    assert state_of(tree.work) == before
    shutil.rmtree(tree.work)
    ctl(tree, "report")
    assert not os.path.exists(tree.work)


def test_no_temporary_folder_is_left(tree, tmp_path):
    folder = tmp_path / "tmp"
    folder.mkdir()
    ctl(tree, "report", env=dict(os.environ, TMPDIR=str(folder)))
    assert not list(folder.iterdir())
    folder.rmdir()
    assert "no temporary folder can be made" in ctl(tree, "report", env=dict(os.environ, TMPDIR=str(folder)), status=2).err


@pytest.mark.sandbox
@pytest.mark.parametrize("arguments", [["report"], ["bundle", "-o", "case.tar.gz"]])
def test_a_signal_ends_the_run_of_the_launcher_too_and_leaves_nothing(tree, tmp_path, arguments):
    tree.file("hangs/plugin.lua", "return { name = 'Hangs', version = '1', collect = function() while true do end end }")
    folder = tmp_path / "tmp"
    folder.mkdir()
    process = tree.start(*arguments, "--", "--plugins", "hangs", name="vexctl", cwd=tmp_path, env=dict(os.environ, TMPDIR=str(folder)),
                         stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    wait_until(lambda: list(folder.glob("*/*")), what="a run of the launcher")  # a sanitizer has a file of its own there at times
    launcher, = conftest.children(process.pid)
    send_signal(process.pid, signal.SIGTERM)
    assert process.wait(conftest.PATIENCE) == -signal.SIGTERM
    assert not conftest.alive(launcher) and not list(folder.iterdir()) and not list(tmp_path.glob("case*"))


def test_settings_count_and_plugins_that_fail_are_told(tree):
    tree.file("work/vx_agent.ini", "[settings]\nvex.Plugin.broken = on\n")
    tree.file("broken/plugin.lua", "error('no \27[31m such thing')")
    told = checked("report", ctl(tree, "report", "--json").out)
    assert [plugin["name"] for plugin in told["plugins"]] == ["broken"] and "such thing" in told["plugins"][0]["error"]
    assert "\x1b" not in ctl(tree, "report").out
    os.chmod(os.path.join(tree.work, "vx_agent.ini"), 0o666)
    result = ctl(tree, "report", "--json")
    assert checked("report", result.out)["plugins"] == []
    assert result.err == (f"vexctl: the report is made without the settings of {tree.work}/vx_agent.ini, which can be written by others\n")


@pytest.mark.sandbox
def test_the_options_of_the_running_agent_count_and_others_in_their_place(tree):
    tree.file("probe/plugin.lua", "return { name = 'Probe', version = '1', collect = function() return { answer = 42 } end }")
    assert checked("report", ctl(tree, "report", "--json", "--", "--plugins", "probe").out)["plugins"][0]["values"] == {"answer": 42}
    assert ctl(tree, "report", "plugins", status=2).err == "vexctl: 'plugins' is no option of the launcher\n"
    supervisor, child = tree.background("--plugins", "probe")
    ctl(tree, "wait", "heartbeat")
    before = quiet_state_of(tree.work, supervisor, child)
    assert checked("report", ctl(tree, "report", "--json").out)["plugins"][0]["name"] == "Probe"
    assert checked("report", ctl(tree, "report", "--json", "--", "--verbose").out)["plugins"] == []
    assert {name: kept for name, kept in state_of(tree.work).items() if name in before} == before
    tree.stop(supervisor)


@pytest.mark.sandbox
@pytest.mark.parametrize("tree", [ORDINARY_USER], indirect=True)
def test_options_of_another_users_agent_are_not_taken(tree):
    tree.file("probe/plugin.lua", "return { name = 'Probe', version = '1', collect = function() return {} end }")
    supervisor, _ = tree.background("--plugins", "probe")
    result = ctl(tree, "report", "--json")
    assert checked("report", result.out)["plugins"] == []
    assert "another user's" in result.err
    assert checked("report", ctl(tree, "report", "--json", user=ORDINARY_USER).out)["plugins"][0]["name"] == "Probe"
    tree.stop(supervisor)


def test_an_application_without_a_report_and_one_that_hangs_are_told(tree):
    tree.app("mute", "return { init = function() return 0 end, main = function() return 0 end, shutdown = function() return 0 end }")
    assert ctl(tree, "--name", "mute", "report", "--json", status=2).err == "vexctl: the application mute has printed no report as JSON\n"
    tree.app("fails", "return { main = function() error('no way') end }")
    assert re.match(r"vexctl: .*/fails ended with status \d+: ", ctl(tree, "--name", "fails", "report", status=2).err)
    tree.app("hangs", "return { main = function() while true do end end }")
    assert "took longer than 1000 ms" in ctl(tree, "--name", "hangs", "report", "--timeout", "1s", status=2).err


@pytest.mark.fast
def test_the_page_tells_what_is_known_and_obeys_none_of_it(tree):
    with_history(tree)
    before = state_of(tree.work)
    text, seen = page_of(tree)
    for known in ("Heartbeats", "one gap longer than 2 min 30 s", "the child has ended once", "Memory available", "network-1.3", "Segmentation fault",
                  "it ends too early", "vex.HeartbeatInterval = 60", "my.password = ***"):
        assert known in seen.text, known
    assert "hunter2" not in text and "\x1b" not in text
    assert seen.text.count("<script>") == 9
    assert state_of(tree.work) == before


def test_the_page_is_made_of_what_there_is(tree):
    for name in ("vx_agent.log", "events.db", "plugins/vx_agent/heartbeat.db", "vx_agent.ini", "plugins/diag/vx_agent.mdmp"):
        os.makedirs(os.path.join(tree.work, name))
    _, seen = page_of(tree)
    assert seen.text.count("is no regular file") >= 4
    os.unlink(os.path.join(tree.path, "vx_agent"))
    _, seen = page_of(tree, status=2)
    assert "Unable to run" in seen.text


def test_a_page_that_cannot_be_written_is_told_and_nothing_is_left(tree, tmp_path):
    os.symlink("elsewhere", tmp_path / "link")
    for path, why in ((tmp_path / "link", "is there and is no regular file"), (tmp_path, "is there and is no regular file"),
                      (tmp_path / "none" / "page", "No such file or directory")):
        assert why in ctl(tree, "report", "--html", str(path), status=2).err
    assert sorted(entry.name for entry in tmp_path.iterdir() if entry.name != os.path.basename(tree.path)) == ["link"]
    with open("/dev/full", "wb") as full:
        result = subprocess.run([f"{tree.path}/vexctl", "report", "--html", "-"], stdout=full, stderr=subprocess.PIPE, text=True, check=False)
    assert (result.returncode, result.stderr) == (2, "vexctl: the output cannot be written: No space left on device\n")


@pytest.mark.sandbox
def test_a_full_disk_leaves_what_was_there(tree):
    os.mkdir("/opt/disk")
    conftest.mount_tmpfs("/opt/disk", b"size=16k,mode=755")
    try:
        with open("/opt/disk/page.html", "w", encoding="utf-8") as file:
            file.write("the old one" * 1000)
        assert "No space left on device" in ctl(tree, "report", "--html", "/opt/disk/page.html", status=2).err
        assert os.listdir("/opt/disk") == ["page.html"] and os.path.getsize("/opt/disk/page.html") == 11000
    finally:
        conftest.unmount("/opt/disk")


# --- in a browser


def browse(folder, *arguments):
    """Runs the browser to its end, away from any network that there may be."""
    command = [BROWSER, "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-background-networking",
               "--disable-component-update", "--disable-sync", "--disable-dev-shm-usage", "--hide-scrollbars", f"--user-data-dir={folder}/profile",
               *arguments]
    return subprocess.run(command, cwd=folder, capture_output=True, timeout=240, check=True,
                          env=dict(os.environ, HOME=str(folder), http_proxy="http://127.0.0.1:9", https_proxy="http://127.0.0.1:9"))


# What the page's own layout says of itself: how far each element reaches beyond the window, and what stands in the place of texts.
PROBE = """<script>addEventListener("load", () => {
const wide = [...document.querySelectorAll("body *")].filter(e => e.getBoundingClientRect().right > innerWidth + 1 && !e.closest(".wide"));
document.body.insertAdjacentHTML("beforeend", "<output>" + JSON.stringify({width: innerWidth, scroll: document.documentElement.scrollWidth,
wide: wide.map(e => e.tagName + "." + e.getAttribute("class")), title: document.title, curves: [...document.querySelectorAll("svg.curve")].map(
e => Math.round(e.getBoundingClientRect().width))}).replace(/</g, "") + "</output>")})</script>"""


@pytest.mark.patient
@pytest.mark.skipif(not os.path.exists(BROWSER), reason="NO CHROMIUM HERE: the page of a report is not looked at in a browser")
@pytest.mark.parametrize("width", [360, 1280])
def test_the_page_fits_a_phone_and_a_desk(tree, tmp_path, width):
    with_history(tree)
    text, _ = page_of(tree)
    probed = tmp_path / "probed.html"
    # A window of a browser without a screen has a least width; a frame has not.
    probed.write_text(text.replace(POLICY, "").replace("</body>", PROBE + "</body>"), encoding="utf-8")
    frame = tmp_path / "frame.html"
    frame.write_text(f"<iframe src='probed.html' style='width:{width}px;height:9000px;border:0'></iframe><script>onmessage = () => 0; "
                     "addEventListener('load', () => { document.body.append(document.querySelector('iframe').contentDocument"
                     ".querySelector('output').textContent) })</script>", encoding="utf-8")
    shown = browse(tmp_path, "--window-size=1400,1000", "--allow-file-access-from-files", "--dump-dom", f"file://{frame}").stdout.decode()
    found = json.loads(re.search(r"\{.*\}", shown.rpartition("</script>")[2])[0])
    assert found["width"] == width and found["scroll"] <= width and found["wide"] == []
    assert len(found["curves"]) == 2 and all(curve > width * 0.6 for curve in found["curves"])
    assert found["title"].startswith("vx_agent on ")


@pytest.mark.patient
@pytest.mark.skipif(not os.path.exists(BROWSER), reason="NO CHROMIUM HERE: the page of a report is not looked at in a browser")
def test_the_page_asks_for_nothing_and_goes_on_paper(tree, tmp_path):
    with_history(tree)
    page_of(tree)
    shutil.copy(os.path.join(tree.path, "page.html"), tmp_path / "page.html")
    log = tmp_path / "net.json"
    browse(tmp_path, f"--log-net-log={log}", f"--print-to-pdf={tmp_path}/page.pdf", "--no-pdf-header-footer", f"file://{tmp_path}/page.html")
    assert (tmp_path / "page.pdf").read_bytes().startswith(b"%PDF-")
    assert "192.0.2.1" not in log.read_text(encoding="utf-8", errors="replace")
    shown = browse(tmp_path, "--dump-dom", f"file://{tmp_path}/page.html").stdout.decode()
    assert "<title>vx_agent on " in shown and "<title>obeyed" not in shown
