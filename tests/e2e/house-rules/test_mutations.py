"""Which changes tools/mutate proposes for a line, and how it draws them."""
import importlib
import os
import random
import sys

import pytest

from conftest import ROOT


@pytest.fixture(name="mutations")
def _mutations(monkeypatch):
    monkeypatch.syspath_prepend(os.path.join(ROOT, "tools"))
    monkeypatch.setattr(sys, "dont_write_bytecode", True)
    return importlib.import_module("mutations")


def changed(mutations, *lines):
    return [line.strip() for _, found in mutations.changes_of("\n".join(lines)) for _, line in found]


@pytest.mark.parametrize("line, wanted", [
    ("    return a == b;", ["return a != b;", "return {};", "return !(a == b);"]),
    ("    f(a < b, c && d);", ["f(a <= b, c && d);", "f(a > b, c && d);", "f(a < b, c || d);", "{}"]),
    ("    const T x = y + z; // a == b", ["const T x = y - z; // a == b"]),
    ("    if (!a)", ["if (a)", "if (true)", "if (false)"]),
    ("    if (const T a = f(); a)", ["if (const T a = f(); true)", "if (const T a = f(); false)"]),
    ("    while (next(b)) {", ["while (false) {"]),
    ("    int x = 5;", ["int x = 6;", "int x = 4;"]),
    ("    int x = 0600;", ["int x = 385;", "int x = 383;"]),
    ("    int x = 0x10;", ["int x = 17;", "int x = 15;"]),
    ("    x = a ? b : c;", ["x = a || true ? b : c;", "x = a && false ? b : c;", "{}"]),
    ("    open(p, O_RDONLY | O_CLOEXEC);", ["open(p, O_RDONLY);", "open(p, O_CLOEXEC);", "{}"]),
    ("    m_list.push_back(x);", ["{}"]),
    ("    log(\"a == 1\");", ["log(\"~a == 1\");", "{}"]),
    ("        break;", ["{}"]),
    ("    const std::lock_guard lock(m_lock);", []),
    ("#if a == 1", []),
    ("    static_assert(a == 1);", []),
    ("    VEX_TRACE(\"a\", 1);", []),
    ("    std::vector<int> a;", []),
])
def test_a_line_has_the_changes_that_a_test_should_notice(mutations, line, wanted):
    assert sorted(changed(mutations, line)) == sorted(wanted)


def test_what_continues_a_statement_is_none(mutations):
    assert changed(mutations, "    const T a =", "        f(b);") == []
    assert changed(mutations, "    g();", "    f(b);") == ["{}", "{}"]


def test_the_same_seed_draws_the_same_changes_from_each_part_of_a_source(mutations):
    text = "\n".join(f"    f{number}(a == b);" for number in range(30))
    first = list(mutations.parts(text, 3, random.Random("1")))
    assert first == list(mutations.parts(text, 3, random.Random("1")))
    assert first != list(mutations.parts(text, 3, random.Random("2")))
    assert [{change[0] // 10 for change in part} for part in first] == [{0}, {1}, {2}]
    assert [len(part) for part in first] == [20, 20, 20]
