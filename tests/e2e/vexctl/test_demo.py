"""The tour of the README is what ./run demo shows."""
import os
import re
import subprocess

import pytest

from conftest import ROOT, STAGE

# What differs from run to run and from host to host; all else stands in the README as it comes.
VARYING = [
    (r"[ \t]+", " "),
    (r" $", ""),
    (r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d", "TIME"),
    (r"pid \d+|\(\d+\)|\[\d+(?=/)", "PROCESS"),
    (r"\b\d+ (?:min|ms|[dhs])\b(?: \d+ (?:min|[hs])\b)?", "LENGTH"),
    (r"\b\d+(?:\.\d)? (?:B|[KMGT]iB)\b", "SIZE"),
    (r"\bload \d+\.\d\d|(?<=LENGTH )\d+\.\d\d", "LOAD"),
    (r'":\d+', '":N'),
    (r"[\w.+-]+\+0x[0-9a-f]+", "PLACE"),
    (r"status (?:11|139)\b", "status S"),  # by the limit for cores of the system
    (r"-(?:Linux|SunOS)-", "-SYSTEM-"),
    (r"\.(?:x86_64|aarch64|i86pc)\b", ".MACHINE"),
]


def as_everywhere(text):
    for pattern, word in VARYING:
        text = re.sub(pattern, word, text, flags=re.M)
    return text.strip().splitlines()


@pytest.mark.sandbox
def test_the_tour_of_the_readme_is_what_the_demo_shows(tmp_path):
    with open(os.path.join(ROOT, "README.md"), encoding="utf-8") as file:
        told = re.search(r"<!-- the tour -->\n```\n(.*?)```", file.read(), re.S)[1]
    page = tmp_path / "page.html"
    shown = subprocess.run([os.path.join(ROOT, "tools/demo"), STAGE, page], capture_output=True, text=True, timeout=120, check=False)
    assert (shown.returncode, shown.stderr) == (0, "")
    assert as_everywhere(shown.stdout) == as_everywhere(told)
    assert page.read_text(encoding="utf-8").startswith("<!DOCTYPE html>")
