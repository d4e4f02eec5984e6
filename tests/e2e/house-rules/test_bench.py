"""What benches print, and what the command makes of it: the figures, the page, and what becomes of the page when a bench fails."""
import glob
import json
import os
import pty
import re
import shutil
import signal
import subprocess
import sys
import xml.etree.ElementTree

import pytest

from conftest import BUILD, PATIENCE, ROOT, SANITIZED, STAGE, all_that_is_shown, send_signal

sys.path.insert(0, os.path.join(ROOT, "bench"))
import bench_growth  # pylint: disable=wrong-import-position
import counts  # pylint: disable=wrong-import-position
import figures  # pylint: disable=wrong-import-position
import machine  # pylint: disable=wrong-import-position
import page  # pylint: disable=wrong-import-position
import plot  # pylint: disable=wrong-import-position


def test_what_a_bench_prints_is_read_back(capsys):
    assert figures.row("open 2,000 entries", 1.25, "libzip", 5, "ms", 0.3)
    assert not figures.row("a miss", 12, "stock Lua", 8, "us a file", 1)
    assert figures.row("dom0:Set", 3e6, "the least program", 1.5e6, "KiB")
    printed = capsys.readouterr().out.splitlines()
    assert printed == ["open 2,000 entries: 1.25 ms, libzip 5 ms, ratio 0.250 (claim: at most 0.30)",
                       "a miss: 12 us a file, stock Lua 8 us a file, ratio 1.500 (claim: at most 1.00) EXCEEDED",
                       "dom0:Set: 3e+06 KiB, the least program 1.5e+06 KiB, ratio 2.000"]
    assert [figures.read(line) for line in printed] == [
        {"what": "open 2,000 entries", "ours": 1.25, "unit": "ms", "yardstick": "libzip", "theirs": 5, "ratio": 0.25, "claim": 0.3, "kept": True},
        {"what": "a miss", "ours": 12, "unit": "us a file", "yardstick": "stock Lua", "theirs": 8, "ratio": 1.5, "claim": 1, "kept": False},
        {"what": "dom0:Set", "ours": 3e6, "unit": "KiB", "yardstick": "the least program", "theirs": 1.5e6, "ratio": 2, "claim": None, "kept": True}]


@pytest.mark.parametrize("ours, theirs, kept", [(0, 9, True), (1, 9, False), (0, 0, False)])
def test_a_claim_of_none_at_all_needs_a_yardstick_that_has_some(ours, theirs, kept, capsys):
    assert figures.row("wake-ups", ours, "a shell", theirs, "switches", 0) == kept
    assert figures.read(capsys.readouterr().out)["kept"] == kept


def test_of_the_turns_that_one_counts_whose_ratio_is_in_the_middle():
    # The machine was three times as slow during the second half: the middles of ours and of theirs alone make 0.9.
    turns = [(5, 10), (6, 10), (9, 10), (15, 30), (12, 30)]
    assert figures.middle_turn(turns) in [(5, 10), (15, 30)]


@pytest.mark.parametrize("line", ["", "warning: built without optimisation", "2000 modules: 5 ms", "a: 1 ms, b 2 s, ratio 0.500",
                                  "a: 1 ms, b 2 ms, ratio 0.500 (claim: at most 1.00) and more"])
def test_other_lines_are_no_figures(line):
    assert figures.read(line) is None


def test_benches_in_both_languages_print_the_same_form():
    with open(os.path.join(ROOT, "bench", "figures.h"), encoding="utf-8") as file:
        example = re.search(r"^///   (.*)$", file.read(), re.M)[1]
    assert figures.read(example) == {"what": "what", "ours": 1.25, "unit": "ms", "yardstick": "libzip", "theirs": 5, "ratio": 0.25, "claim": 0.3,
                                     "kept": True}


# --- the page

WORDS = """
[Modules."open 2,000 entries"]
before = "0.32"
change = "one look"
limit = "reading | checking"

[Log."a write"]
before = ""
change = ""
limit = "the disk"
"""
SAID = "before = ''\nchange = ''\nlimit = ''\n"
OPEN = "echo 'open 2,000 entries: {} ms, libzip 5 ms, ratio {} (claim: at most 0.30){}'\n"
FIRST = "test -e again || {{ touch again; {}; exit; }}\n"
WRITE = "echo 'what else a bench tells'\necho 'a write: 12000 KiB, the least program 4000 KiB, ratio 3.000'\n"


class Tree:
    """A tree with the command, and with benches that are scripts of the shell."""

    def __init__(self, root):
        self.root = root
        for folder in ("tools", "bench", "docs", "build/release/bench"):
            (root / folder).mkdir(parents=True)
        for file in ("tools/bench", "tools/interrupted.py", "tools/steps.py", *("bench/" + os.path.basename(file) for file in glob.glob(os.path.join(ROOT, "bench", "*.py"))
                                      if not os.path.basename(file).startswith("bench_"))):
            shutil.copy(os.path.join(ROOT, file), root / file)
        self.script("tools/build", "echo \"build: $*\" > build/log")
        self.script("build/release/bench/library_versions", "echo compiler gcc 12.2.0\necho lua 5.2.4")
        (root / "bench/rows.toml").write_text(WORDS)
        (root / "docs/PERFORMANCE.md").write_text("as it was\n")
        self.bench("bench_a", OPEN.format(1.25, "0.250", ""))
        self.bench("bench_b", WRITE)

    def script(self, name, body):
        (self.root / name).write_text(f"#!/bin/sh\n{body}\n")
        (self.root / name).chmod(0o755)

    def bench(self, name, body):
        (self.root / f"bench/{name}.cpp").write_text("// a bench\n")
        self.script(f"build/release/bench/{name}", body)

    def run(self, *arguments):
        result = subprocess.run([sys.executable, str(self.root / "tools/bench"), *arguments], stdin=subprocess.DEVNULL, capture_output=True,
                                text=True, timeout=PATIENCE, check=False)
        return result.returncode, result.stdout, re.sub(r"bench: this machine has other work .*\n", "", result.stderr)

    def on_a_terminal(self, *arguments):
        """What a person sees."""
        master, slave = pty.openpty()
        with subprocess.Popen([sys.executable, str(self.root / "tools/bench"), *arguments], stdin=subprocess.DEVNULL, stdout=slave, stderr=slave,
                              env={**os.environ, "TERM": "xterm"}):
            os.close(slave)
            shown = all_that_is_shown(master)
        os.close(master)
        return shown.decode()

    def page(self):
        return (self.root / "docs/PERFORMANCE.md").read_text()


@pytest.fixture(name="tree")
def _tree(tmp_path):
    return Tree(tmp_path)


def test_the_page_has_figures_claims_and_words_of_all_runs(tree):
    tree.bench("bench_a", FIRST.format(OPEN.format(1, "0.200", "").strip()) + OPEN.format(1.5, "0.300", "")
               + "echo '<svg><title>A key</title></svg>' > $VEX_BENCH_PLOTS/keys.svg\n")
    (tree.root / "bench/counts.json").write_text('{"surroundings": {"lua": "5.2.4"}, "counts": {"a start": 38503732}}')
    (tree.root / "bench/waits.md").write_text("## Waits\n\n| a report | 4.1 s |\n")
    (tree.root / "build/bench/plots").mkdir(parents=True)
    (tree.root / "build/bench/plots/old.svg").write_text("<svg><title>Of another run</title></svg>")
    status, printed, errors = tree.run("--all")
    printed, _, seconds = printed.rpartition("seconds of a run: ")
    assert re.fullmatch(r"bench_[ab] \d+, bench_[ab] \d+\n", seconds)
    assert (status, printed, errors) == (0, "== bench_a\nopen 2,000 entries: 1 ms, libzip 5 ms, ratio 0.200 (claim: at most 0.30)\n"
                                 "== bench_b\nwhat else a bench tells\na write: 12000 KiB, the least program 4000 KiB, ratio 3.000\n"
                                 "== bench_a\nopen 2,000 entries: 1.5 ms, libzip 5 ms, ratio 0.300 (claim: at most 0.30)\n"
                                 "== bench_b\nwhat else a bench tells\na write: 12000 KiB, the least program 4000 KiB, ratio 3.000\n", "")
    page = tree.page()
    assert ("| open 2,000 entries | libzip | 1.25 ms | 5 ms | 0.250 | 0.200 to 0.300 | 0.30 | kept |\n\n"
            "| measure | before | what was changed | what limits it now |\n|---|---|---|---|\n"
            "| open 2,000 entries: `bench_a` | 0.32 | one look | reading \\| checking |\n\n## Log\n") in page
    assert "| a write | the least program | 12,000 KiB | 4,000 KiB | 3.000 | 3.000 to 3.000 |  |  |\n" in page
    assert re.search(r"^\d{4}-\d\d-\d\d, 2 runs, \d+ processors?, .*gcc 12.2.0, lua 5.2.4\.\sA\srun\stook\s\d+\sminutes?\.\s", page, re.M | re.S)
    assert "| the disk |\n\n## Waits\n\n| a report | 4.1 s |\n\n## Instructions\n" in page
    assert "They come from lua 5.2.4.\n\n| one | instructions |\n|---|---|\n| a start | 38,503,732 |\n" in page
    assert page.endswith("![A key](growth/keys.svg)\n") and "old.svg" not in page and (tree.root / "docs/growth/keys.svg").exists()
    assert max(len(line) for line in page.splitlines() if not line.startswith("|")) <= 140


def test_a_measure_may_have_two_yardsticks(tree):
    tree.bench("bench_b", WRITE + WRITE.replace("the least program 4000 KiB, ratio 3.000", "the bound 24000 KiB, ratio 0.500 (claim: at most 1.00)"))
    assert tree.run("--all", "--runs", "1")[0] == 0
    assert ("| a write | the least program | 12,000 KiB | 4,000 KiB | 3.000 | 3.000 to 3.000 |  |  |\n"
            "| a write | the bound | 12,000 KiB | 24,000 KiB | 0.500 | 0.500 to 0.500 | 1.00 | kept |\n") in tree.page()


def test_a_claim_that_does_not_hold_is_on_the_page_and_in_the_status(tree):
    tree.bench("bench_a", FIRST.format(OPEN.format(1, "0.100", "").strip()) + OPEN.format(2, "0.400", " EXCEEDED") + "exit 1")
    status, _, errors = tree.run("--all")
    assert (status, errors) == (1, "bench: beyond what is claimed: open 2,000 entries\n")
    assert "| 0.250 | 0.100 to 0.400 | 0.30 | **beyond** |" in tree.page()  # in one of two runs


@pytest.mark.parametrize("body, why", [
    (OPEN.format(1, "0.200", "") + "exit 1", "bench_a ended with status 1 after: open 2,000 entries: 1 ms, libzip 5 ms, ratio 0.200 (claim: at most 0.30)"),
    ("exit 3", "bench_a ended with status 3 after: nothing"),
    ("kill -9 $$", "bench_a ended with status -9 after: nothing"),
    ("echo words; sleep 600", "bench_a did not come to its end within 5 s, after: words"),
    ("echo words", "no figure in the form of bench/figures.h comes from bench_a"),
    ("", "no figure in the form of bench/figures.h comes from bench_a"),
], ids=["status 1", "status 3", "a signal", "no end", "no figure", "nothing"])
def test_a_bench_that_fails_is_named_on_the_page_beside_the_figures_of_the_others(tree, body, why):
    tree.bench("bench_a", body)
    status, _, errors = tree.run("--all", *(("--limit", "5", "--runs", "1") if "sleep" in body else ()))
    unmeasured = "bench/rows.toml: 'open 2,000 entries' has words, and no bench has measured it"
    complaints = [why] if "open" in body else [why, unmeasured]
    assert (status, errors) == (1, "".join(f"bench: {complaint}\n" for complaint in complaints))
    page = tree.page()
    assert "**Not all was measured, or not all has words:**\n\n" + "".join(f"- {complaint}\n" for complaint in complaints) + "\n## Modules\n" in page
    assert ("| open 2,000 entries: **not measured** | 0.32 |" in page) == ("open" not in body)
    assert "| 3.000 | 3.000 to 3.000 |" in page and "| a write: `bench_b` |" in page


@pytest.mark.parametrize("breaks, why", [(os.unlink, "No such file or directory"), (lambda file: os.chmod(file, 0o644), "Permission denied")],
                         ids=["none", "no program"])
def test_a_bench_that_cannot_be_started_takes_no_figures_of_others_with_it(tree, breaks, why):
    breaks(tree.root / "build/release/bench/bench_a")
    status, _, errors = tree.run("--all", "--runs", "1")
    assert (status, errors.splitlines()[0]) == (1, f"bench: bench_a cannot be started: {why}")
    assert f"- bench_a cannot be started: {why}\n" in tree.page() and "| a write: `bench_b` |" in tree.page()


def test_a_page_can_be_made_of_figures_without_failures_and_times(tree):
    assert tree.run("--all")[0] == 0
    measured = tree.root / "build/bench/measured.json"
    told = json.loads(measured.read_text())
    del told["failures"], told["seconds"]
    measured.write_text(json.dumps(told))
    assert tree.run("--page") == (0, "", "")
    assert "## Modules" in tree.page() and "A run took" not in " ".join(tree.page().split())


def test_a_bench_that_is_measured_again_takes_the_place_of_its_own_figures(tree):
    tree.bench("bench_a", OPEN.format(2, "0.400", " EXCEEDED") + "exit 3")
    tree.bench("bench_b", WRITE + "exit 2")
    assert tree.run("--all")[0] == 1
    tree.bench("bench_a", OPEN.format(1, "0.200", ""))
    status, printed, errors = tree.run("--again", "bench_a")
    assert (status, errors) == (1, "bench: bench_b ended with status 2 after: a write: 12000 KiB, the least program 4000 KiB, ratio 3.000\n")
    assert printed.startswith(2 * "== bench_a\nopen 2,000 entries: 1 ms, libzip 5 ms, ratio 0.200 (claim: at most 0.30)\n")
    page = tree.page()
    assert "| 0.200 | 0.200 to 0.200 | 0.30 | kept |" in page and "| 3.000 | 3.000 to 3.000 |" in page
    assert "bench_a was measured again afterwards." in " ".join(page.split()) and "- bench_b ended with status 2" in page
    tree.bench("bench_b", WRITE)
    assert tree.run("--again", "bench_b")[0] == 0
    assert "bench_a and bench_b were measured again afterwards." in " ".join(tree.page().split()) and "Not all was measured" not in tree.page()


def test_figures_of_other_libraries_are_no_place_for_those_that_are_measured_again(tree):
    assert tree.run("--again", "bench_a")[::2] == (2, f"bench: {tree.root}/build/bench/measured.json is not there; tools/bench --all makes it\n")
    assert tree.run("--all")[0] == 0
    page = tree.page()
    tree.script("build/release/bench/library_versions", "echo compiler gcc 12.2.0\necho lua 5.2.5")
    assert tree.run("--again", "bench_a")[::2] == (2, "bench: the last figures come from another machine or other libraries: tools/bench --all "
                                                   "measures all; docs/PERFORMANCE.md is as it was\n")
    assert tree.page() == page


def test_an_interrupt_ends_a_bench_with_all_that_it_started(tree):
    tree.bench("bench_a", "echo words; sleep 600")
    with subprocess.Popen([sys.executable, str(tree.root / "tools/bench"), "bench_a"], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, text=True) as running:
        try:
            assert "words\n" in iter(running.stdout.readline, "")
            send_signal(running.pid, signal.SIGINT)
            told = running.communicate(timeout=PATIENCE)[1]  # standard error is closed by the last that has it
        finally:
            running.kill()
    assert running.returncode == -signal.SIGINT
    assert told.endswith("bench: interrupted; docs/PERFORMANCE.md is as it was\n") and "Traceback" not in told


def test_the_page_stays_as_it_was_when_nothing_is_measured(tree):
    tree.bench("bench_a", "exit 3")
    tree.bench("bench_b", "")
    assert tree.run("--all")[::2] == (2, "bench: bench_a ended with status 3 after: nothing; no figure in the form of bench/figures.h comes from bench_b; "
                                      "docs/PERFORMANCE.md is as it was\n")
    assert tree.page() == "as it was\n" and not (tree.root / "build/bench/measured.json").exists()
    assert tree.run("bench_a")[::2] == (2, "bench: bench_a ended with status 3 after: nothing\n")
    tree.bench("bench_b", WRITE)
    assert tree.run("bench_a", "bench_b")[::2] == (1, "bench: bench_a ended with status 3 after: nothing\n")


@pytest.mark.parametrize("words, whys", [
    ("", ["'open 2,000 entries' is measured by bench_a and has no words", "'a write' is measured by bench_b and has no words"]),
    (WORDS + "[Log.none]\n" + SAID, ["'none' has words, and no bench has measured it"]),
], ids=["none", "no measure"])
def test_measures_and_words_belong_together(tree, words, whys):
    (tree.root / "bench/rows.toml").write_text(words)
    status, _, errors = tree.run("--all", "--runs", "1")
    assert (status, errors) == (1, "".join(f"bench: bench/rows.toml: {why}\n" for why in whys))
    assert all(f"- bench/rows.toml: {why}\n" in tree.page() for why in whys)
    assert "| a write | the least program | 12,000 KiB |" in tree.page() and "| a write: `bench_b` |" in tree.page()
    (tree.root / "bench/rows.toml").write_text(WORDS)  # nothing has to be measured again
    (tree.root / "build/log").unlink()
    assert tree.run("--page") == (0, "", "")
    assert "## Modules" in tree.page() and "**Not all" not in tree.page() and not (tree.root / "build/log").exists()


@pytest.mark.parametrize("words, why", [
    (WORDS + '[Log."open 2,000 entries"]\n' + SAID, "'open 2,000 entries' stands there twice"),
    (WORDS.replace("limit", "limits", 1), "'open 2,000 entries' in 'Modules' needs the texts before, change, limit, and nothing else"),
    (WORDS.replace('"0.32"', "0.32"), "'open 2,000 entries' in 'Modules' needs the texts before, change, limit, and nothing else"),
], ids=["twice", "another name", "no text"])
def test_words_that_cannot_be_read_are_told_before_anything_is_measured(tree, words, why):
    (tree.root / "bench/rows.toml").write_text(words)
    assert tree.run("--all") == (2, "", f"bench: bench/rows.toml: {why}; docs/PERFORMANCE.md is as it was\n")
    assert tree.page() == "as it was\n" and not (tree.root / "build/log").exists()


def test_what_remains_is_told_to_a_person_by_what_each_took_the_last_time(tree):
    tree.run("--all", "--runs", "1")
    (tree.root / "build/bench/seconds.json").write_text('{"bench_a": 600, "bench_b": 1200}')
    shown = tree.on_a_terminal("--all", "--runs", "1")
    assert re.search(r"\d s: bench_a, 0 of 2 done, about 30 min to go", shown) and re.search(r"\d s: bench_b, 1 of 2 done, about 20 min to go", shown)
    assert json.loads((tree.root / "build/bench/seconds.json").read_text())["bench_b"] < 600


def test_a_page_needs_figures(tree):
    status, _, errors = tree.run("--page")
    assert status == 2 and "build/bench/measured.json is not there; tools/bench --all makes it" in errors


def test_figures_are_given_as_json(tree):
    status, printed, errors = tree.run("--json", "bench_b", "--runs", "3")
    assert status == 0 and errors.count("== bench_b\n") == 3
    told = json.loads(printed)
    assert told["rows"] == [{"what": "a write", "ours": 12000, "unit": "KiB", "yardstick": "the least program", "theirs": 4000, "ratio": 3,
                             "claim": None, "kept": True, "bench": "bench_b", "ratios": [3, 3, 3]}]
    assert told["machine"]["lua"] == "5.2.4"


@pytest.mark.parametrize("arguments, why", [(("--all", "bench_a"), "name none"), (("--again",), "needs the names"), (("--runs", "0"), "a number above 0")])
def test_what_cannot_be_measured_is_refused(tree, arguments, why):
    status, printed, errors = tree.run(*arguments)
    assert (status, printed) == (2, "") and why in errors and not (tree.root / "build/log").exists()


def test_the_kind_of_a_processor_does_not_tell_which_one_it_is():
    kind = machine.processor
    assert kind("model name\t: Intel(R) Xeon(R) CPU E5-2690 v4 @ 2.60GHz\n", "x86_64") == "Intel Xeon (x86_64)"
    assert kind("model name\t: Intel(R) Xeon(R) Processor\nmodel name\t: another\n", "x86_64") == "Intel Xeon (x86_64)"
    assert kind("", "aarch64") == "aarch64"


def test_all_words_of_the_tree_can_be_read():
    assert page.read_words(os.path.join(ROOT, page.WORDS))


# --- counts

SURROUNDINGS = {"compiler": "gcc 12.2.0", "lua": "5.2.4"}


@pytest.mark.parametrize("counted, surrounded, status, told", [
    ({"start": 105, "get": 95}, SURROUNDINGS, 0, ""),
    ({"start": 94, "get": 100}, SURROUNDINGS, 0, "counts: more than 5 % fewer are start: tools/bench --write-counts writes them anew\n"),
    ({"start": 100, "get": 106}, SURROUNDINGS, 1, ""),
    ({"start": 100}, SURROUNDINGS, 1, "counts: what is counted and what is written down differ in get; tools/bench --write-counts writes them anew\n"),
    ({"start": 200, "get": 200}, {**SURROUNDINGS, "lua": "5.2.5"}, 77, "counts: the counts of bench/counts.json are not comparable here: lua 5.2.5 "
     "where 5.2.4 was; tools/bench --write-counts writes them anew\n"),
])
def test_counts_are_compared_with_those_of_the_same_versions(counted, surrounded, status, told, capsys):
    assert counts.compare(counted, surrounded, {"surroundings": SURROUNDINGS, "counts": {"start": 100, "get": 100}}) == status
    printed = capsys.readouterr().out.splitlines(True)
    beyond = "get: 106 instructions, written down 100 instructions, ratio 1.060 (claim: at most 1.05) EXCEEDED\n"
    assert [line for line in printed if "EXCEEDED" in line] == ([beyond] if counted.get("get") == 106 else [])
    assert "".join(line for line in printed if line.startswith("counts:")) == told


@pytest.mark.patient
@pytest.mark.skipif(SANITIZED or os.path.basename(BUILD) != "release", reason="counts are those of the release build")
def test_nothing_that_users_wait_for_takes_more_instructions_than_are_written_down():
    result = subprocess.run([os.path.join(ROOT, "tools", "sandbox"), sys.executable, os.path.join(ROOT, "bench", "counts.py"), STAGE, BUILD],
                            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True, timeout=4 * PATIENCE, check=False)
    if result.returncode == counts.NOT_COMPARABLE:
        pytest.skip("NOTHING IS COUNTED: " + result.stdout.strip())
    assert result.returncode == 0, "\n".join(line for line in result.stdout.splitlines() if "EXCEEDED" in line or line.startswith("counts:"))
    print(result.stdout)


# --- growth

def test_a_plot_has_its_curves_within_its_axes():
    root = xml.etree.ElementTree.fromstring(plot.svg("A <key>", "keys", "ns", {"get": [(1000, 60), (10_000, 20), (1_000_000, 40)], "set": [(1000, 9)]}))
    space = "{http://www.w3.org/2000/svg}"
    texts = [element.text for element in root.iter(space + "text")]
    assert root.find(space + "title").text == texts[0] == "A <key>"
    assert texts[1:5] == ["1k", "10k", "100k", "1M"] and texts[5:12] == ["0", "10", "20", "30", "40", "50", "60"]
    assert texts[12:] == ["keys", "ns", "get", "set"]
    get, one = (element.get("points") for element in root.iter(space + "polyline"))
    assert get == "70.0,54.0 253.3,200.7 620.0,127.3" and one == "70.0,241.0"


def test_a_plot_goes_by_decades_where_numbers_lie_far_apart():
    drawn = plot.svg("a", "b", "c", {"d": [(1, 5), (2, 7000)]})
    assert [text for text in re.findall(r">([\d.]+[kM]?)</text>", drawn)] == ["0", "0.5", "1", "1.5", "2", "1", "10", "100", "1k", "10k"]


@pytest.mark.parametrize("high, marks", [(1, [0, 0.2, 0.4, 0.6, 0.8, 1]), (9, [0, 2, 4, 6, 8, 10]), (85, [0, 20, 40, 60, 80, 100]),
                                         (1000, [0, 200, 400, 600, 800, 1000])])
def test_an_axis_has_round_steps(high, marks):
    assert plot.steps(high) == pytest.approx(marks)


@pytest.mark.parametrize("last, kept", [(31, False), (30, True)])
def test_growth_is_held_to_its_limit(last, kept, capsys):
    found = bench_growth.points(f"get 1000 10\nset 1000 20\nget 1000000 {last}\n")
    assert bench_growth.among("a key", found["get"], 1000, 1_000_000, "ns", 3) == kept
    assert capsys.readouterr().out.startswith(f"a key among 1,000,000: {last} ns, among 1,000 10 ns, ratio 3.{last - 30}00 (claim: at most 3.00)")
    assert bench_growth.flat("a line", bench_growth.points("".join(f"line {x} {y}\n" for x, y in enumerate([12, 9, 10, 99, 8 + last, 90, 45])))["line"],
                             "us", 4.3) == kept
