"""One foreground run of the bundled application under memcheck: no error, and no definite leak from our code."""
import os
import re
import shutil

import pytest

from conftest import ROOT, SANITIZED


@pytest.mark.skipif(SANITIZED, reason="a sanitizer is a memory checker of its own")
@pytest.mark.skipif(shutil.which("valgrind") is None, reason="NO VALGRIND HERE")
@pytest.mark.parametrize("name", ["vx_agent", pytest.param("probe", marks=pytest.mark.quick)])
def test_a_foreground_run_has_no_memory_error_and_no_definite_leak(tree, name):
    if name == "probe":
        tree.app(name, "return { init = function() return 0 end, main = function() return require('vex.json') and 0 end }")
    result = tree.run(name=name, timeout=300, prefix=(
        "valgrind", "-q", "--leak-check=full", "--show-leak-kinds=definite", "--errors-for-leak-kinds=definite",
        "--error-exitcode=99", "--log-file=" + os.path.join(tree.path, "memcheck"),
        "--suppressions=" + os.path.join(ROOT, "tests/support/valgrind.supp")))
    with open(os.path.join(tree.path, "memcheck")) as file:
        report = re.sub(r"^==\d+==.*could cause spurious.*\n", "", file.read(), flags=re.M)
    assert report == "", report
    assert result.status == 0, result.err
