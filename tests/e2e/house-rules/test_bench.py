"""What benches print, and what the command makes of it: the figures, the page, and what becomes of the page when a bench fails."""
import os
import re
import sys

import pytest

from conftest import ROOT

sys.path.insert(0, os.path.join(ROOT, "bench"))
import figures  # pylint: disable=wrong-import-position


def test_what_a_bench_prints_is_read_back(capsys):
    assert figures.row("open 2,000 entries", 1.25, "libzip", 5, "ms", 0.3)
    assert not figures.row("a miss", 12, "stock Lua", 8, "us a file", 1)
    assert figures.row("a write", 3e6, "the least program", 1.5e6, "KiB")
    printed = capsys.readouterr().out.splitlines()
    assert printed == ["open 2,000 entries: 1.25 ms, libzip 5 ms, ratio 0.250 (claim: at most 0.30)",
                       "a miss: 12 us a file, stock Lua 8 us a file, ratio 1.500 (claim: at most 1.00) EXCEEDED",
                       "a write: 3e+06 KiB, the least program 1.5e+06 KiB, ratio 2.000"]
    assert [figures.read(line) for line in printed] == [
        {"what": "open 2,000 entries", "ours": 1.25, "unit": "ms", "yardstick": "libzip", "theirs": 5, "ratio": 0.25, "claim": 0.3, "kept": True},
        {"what": "a miss", "ours": 12, "unit": "us a file", "yardstick": "stock Lua", "theirs": 8, "ratio": 1.5, "claim": 1, "kept": False},
        {"what": "a write", "ours": 3e6, "unit": "KiB", "yardstick": "the least program", "theirs": 1.5e6, "ratio": 2, "claim": None, "kept": True}]


@pytest.mark.parametrize("ours, theirs, kept", [(0, 9, True), (1, 9, False), (0, 0, False)])
def test_a_claim_of_none_at_all_needs_a_yardstick_that_has_some(ours, theirs, kept, capsys):
    assert figures.row("wake-ups", ours, "a shell", theirs, "switches", 0) == kept
    assert figures.read(capsys.readouterr().out)["kept"] == kept


@pytest.mark.parametrize("line", ["", "warning: built without optimisation", "2000 modules: 5 ms", "a: 1 ms, b 2 s, ratio 0.500",
                                  "a: 1 ms, b 2 ms, ratio 0.500 (claim: at most 1.00) and more"])
def test_other_lines_are_no_figures(line):
    assert figures.read(line) is None


def test_benches_in_both_languages_print_the_same_form():
    with open(os.path.join(ROOT, "bench", "figures.h"), encoding="utf-8") as file:
        example = re.search(r"^///   (.*)$", file.read(), re.M)[1]
    assert figures.read(example) == {"what": "what", "ours": 1.25, "unit": "ms", "yardstick": "libzip", "theirs": 5, "ratio": 0.25, "claim": 0.3,
                                     "kept": True}
