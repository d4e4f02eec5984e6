"""Whatever a script does wrong is reported on standard error, once, and ends with the documented status."""
import pytest

from conftest import SANITIZED


def run(tree, body, **options):
    tree.app("probe", "local M = {}\nfunction M.main()\n" + body + "\nend\nreturn M")
    return tree.run(name="probe", **options)


@pytest.mark.fast
def test_an_error_shows_message_and_traceback_once(tree):
    result = run(tree, "local function inner() error('boom') end\ninner()")
    assert result.status == 2
    assert result.err.count("boom") == 1
    assert result.err.count("stack traceback:") == 1
    assert "probe.lua:3: boom" in result.err  # Lua shortens a long path at its front
    assert "in upvalue 'inner'" in result.err or "in function 'inner'" in result.err or "in local 'inner'" in result.err


@pytest.mark.parametrize("body,status,text", [
    ("error({})", 2, "(error object is a table value)"),
    ("error(nil)", 2, "(error object is a nil value)"),
    ("error(setmetatable({}, {__tostring = function() error('inside') end}))", 2, "a table value that gives no text: "),
    ("error(setmetatable({}, {__tostring = function() return 'told' end}))", 2, "told"),
    ("local function f() return 1 + f() end return f()", 2, "stack overflow"),
    ("local function f() return pcall(f) end f() error('after')", 2, "after"),
    ("return nil .. 'x'", 2, "attempt to concatenate a nil value"),
    ("setmetatable({}, {__gc = function() error('late') end}) collectgarbage()", 5, "late"),
])
def test_every_kind_of_error_is_reported_once_and_ends_with_its_status(tree, body, status, text):
    result = run(tree, body)
    assert result.status == status, result.err
    assert result.err.count(text) == 1, result.err
    assert result.err.count("stack traceback:") == 1
    assert result.out == ""


@pytest.mark.skipif(SANITIZED, reason="a sanitizer reserves address space by the terabyte; the unit tests limit the allocator")
@pytest.mark.parametrize("body", ["local t = {} while true do t[#t + 1] = ('x'):rep(1e6) .. #t end",
                                  "local s = 'x' while true do s = s .. s end"], ids=["many strings", "an endless string"])
def test_out_of_memory_is_reported(tree, body):
    result = run(tree, body, prefix=("/bin/sh", "-c", 'ulimit -v 300000; exec "$0" "$@"'))
    assert result.status == 4
    assert "not enough memory\nstack traceback:\n" in result.err and "probe.lua:3: in function " in result.err


def test_a_module_with_a_syntax_error_fails_to_load(tree):
    tree.app("probe", "return {")
    result = tree.run(name="probe")
    assert result.status == 2
    assert "probe.lua:1:" in result.err and "near <eof>" in result.err


def test_a_missing_module_lists_where_it_was_looked_for(tree):
    result = tree.run("--appname", "nowhere")
    assert result.status == 2
    assert "module 'nowhere' not found" in result.err
    assert "vex_core/vex.vxe" in result.err
    assert tree.path + "/nowhere.lua" in result.err
    assert "'./" not in result.err


@pytest.mark.parametrize("call,words", [
    ("dom0.Get('x')", ["Get", "self", "SLB.Dom", "string"]),
    ("dom0:Get()", ["Get", "string", "no value"]),
    ("dom0:Set('k', {})", ["Set", "table"]),
    ("dom0:Set('k', 1.5)", ["Set"]),
    ("dom0.Get(io.stdout, 'x')", ["Get", "SLB.Dom"]),
    ("dom0:Wait('k', 'soon')", ["Wait", "number", "string"]),
])
def test_a_wrong_call_of_the_domain_is_a_lua_error_that_says_what_was_wanted(tree, call, words):
    result = run(tree, call)
    assert result.status == 2
    for word in words:
        assert word in result.err, result.err
