"""The words of the newest commit: a body that wraps at 72 columns, as every tool shows it."""
import shutil
import subprocess

import pytest

from conftest import ROOT

MAX_COLUMNS = 72

pytestmark = pytest.mark.skipif(not shutil.which("git"), reason="git is not installed")


def too_long(folder):
    """The lines of the body that could have been wrapped; None where there is no commit to look at."""
    result = subprocess.run(["git", "-c", f"safe.directory={folder}", "-C", str(folder), "log", "-1", "--format=%b"],
                            capture_output=True, text=True, check=False)
    if result.returncode != 0:
        return None
    return [line for line in result.stdout.splitlines() if len(line) > MAX_COLUMNS and " " in line.strip()]


def commit(folder, *paragraphs):
    words = [word for paragraph in paragraphs for word in ("-m", paragraph)]
    subprocess.run(["git", "init", "-q", str(folder)], check=True)
    subprocess.run(["git", "-C", str(folder), "-c", "user.name=a", "-c", "user.email=a@b", "commit", "-q", "--allow-empty", *words],
                   check=True)


def test_the_body_of_the_newest_commit_wraps_at_72_columns():
    lines = too_long(ROOT)
    if lines is None:
        pytest.skip("a tree without version control")
    assert lines == []


def test_a_line_that_is_too_long_is_found_and_one_that_cannot_be_wrapped_is_not(tmp_path):
    commit(tmp_path, "A subject that is longer than the lines of a body may be, which is another matter",
           "a " * 36 + "b", "a " * 35 + "bb", "c" * 90)
    assert too_long(tmp_path) == ["a " * 36 + "b"]


def test_a_tree_without_version_control_is_passed(tmp_path):
    assert too_long(tmp_path) is None
