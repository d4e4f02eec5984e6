"""The manual: its pages say what the agent does, and are written as manual pages are."""
import os
import re
import shutil
import subprocess

import pytest

from conftest import PATIENCE, ROOT, STAGE

PAGES = ("man1/vexctl.1", "man5/vx_agent.conf.5", "man7/vx_agent-events.7", "man7/vx_agent-plugin.7", "man8/vx_agent.8")


def source(page):
    with open(os.path.join(STAGE, "share/man", page), encoding="utf-8") as file:
        return file.read()


def listed(page, macro):
    """What the page's lists have of a kind, as a reader sees it."""
    return re.findall(rf"^\.It {macro} (.*)$", source(page).replace("\\-", "-"), re.M)


@pytest.mark.quick
@pytest.mark.parametrize("page", PAGES)
def test_the_checker_of_manual_pages_is_silent(page):
    if shutil.which("mandoc") is None:
        pytest.skip("NO MANDOC HERE (tools/packages.txt names it): how the manual is written is not tested")
    checked = subprocess.run(["mandoc", "-T", "lint", "-W", "warning", os.path.join(STAGE, "share/man", page)], capture_output=True,
                             text=True, timeout=PATIENCE, check=False)
    assert (checked.returncode, checked.stdout, checked.stderr) == (0, "", "")


def test_the_launchers_page_has_its_options_and_no_others(tree):
    shown = set(re.findall(r"^  (?:(-\w), )?(--\w+)", tree.run("--help").err, re.M))
    assert len(shown) == 15
    told = set()
    for item in listed("man8/vx_agent.8", "Fl"):
        names = re.match(r"(?:(\w) , )?(-\w+)", item)
        told.add(("-" + names[1] if names[1] else "", "-" + names[2]))
    assert told == shown


def test_the_tools_page_has_its_commands_and_their_options(tree):
    def help_of(*arguments):
        return tree.run(*arguments, "--help", name="vexctl").out

    commands = source("man1/vexctl.1").partition(".Sh COMMANDS")[2].partition(".Sh ENVIRONMENT")[0]
    entries = dict(entry.split("\n", 1) for entry in commands.split(".It Ic ")[1:])
    known = re.findall(r"^  ([a-z][a-z-]*) ", help_of(), re.M)
    assert len(known) >= 8 and list(entries) == known
    for command, entry in entries.items():
        shown = set(re.findall(r"(?<![\w-])-{1,2}([a-z][a-z-]*)", help_of(command)))
        told = set(re.findall(r"\bFl -?([a-z][a-z-]*)", entry.partition(".El")[0]))
        assert told <= shown, command


def rows():
    """Key, range and default of all settings on the page that the code's table is compared with."""
    columns = []
    with open(os.path.join(ROOT, "docs/SETTINGS.md"), encoding="utf-8") as file:
        for line in file:
            cells = [cell.strip() for cell in line.strip().strip("|").split("|")] if line.startswith("|") else []
            columns = columns if columns and cells else cells
            if cells and columns[0] == "key" and cells[0] not in ("key", "---"):
                yield dict(zip(columns, cells))


def test_the_page_of_the_settings_has_each_key_with_its_range_and_default():
    text = source("man5/vx_agent.conf.5").replace("\\-", "-")
    entries = {entry.split("\n", 1)[0]: entry for entry in text.split(".It Ic ")[1:]}
    keys = [row["key"].replace("\\", "") for row in rows()]
    assert len(keys) > 40 and set(keys) | {"Trace", "DumpLevel"} == set(entries)
    for row in rows():
        entry = entries[row["key"].replace("\\", "")]
        if row["key"] in ("Trace", "DumpLevel"):
            continue
        for column, name in (("type, range", "Type"), ("default", "Default")):
            if column in row:
                value = re.sub(r"\[([^]]*)\]\([^)]*\)", r"\1", row[column]).replace("`", "").replace("\\", "")
                assert f"{name}: {value}." in entry.replace("\\&", ""), row["key"]


def test_the_page_of_events_has_those_of_the_launcher():
    with open(os.path.join(ROOT, "docs/FORMATS.md"), encoding="utf-8") as file:
        documented = re.findall(r"^\| (51\d\d) \| (\d) ", file.read(), re.M)
    assert documented == re.findall(r"^\.It (51\d\d) Ta (\d) Ta", source("man7/vx_agent-events.7"), re.M) and len(documented) == 6


@pytest.mark.parametrize("page", PAGES)
def test_pages_refer_to_pages_that_are_there(page):
    for name, section in re.findall(r"^\.Xr (\S+) (\d)", source(page), re.M):
        if name.startswith(("vx_agent", "vexctl")):
            assert f"man{section}/{name}.{section}" in PAGES
    assert re.search(rf"^\.Dt {os.path.basename(page)[:-2].upper()} {page[-1]}$", source(page), re.M)
