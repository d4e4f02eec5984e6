"""How the binaries of a release are built: what makes a mistake in them end the process instead of serving somebody else, and
where their debug data is."""
import os
import re
import subprocess

import pytest

from conftest import BUILD, STAGE

BUILT = {"vx_agent": "src/vex/apps/vex/vx_agent", "vexctl": "src/vex/apps/vexctl/vexctl",
         "lib/vex_core.so": "src/vex_core/vex_core.so", "lib/libSLB3.so": "src/slb3/libSLB3.so"}
WITH_ARRAYS_ON_THE_STACK = ("vx_agent", "vexctl", "lib/vex_core.so")


def is_release():
    with open(os.path.join(BUILD, "CMakeCache.txt"), encoding="utf-8") as file:
        settings = dict(re.findall(r"^(\w+):\w+=(.*)$", file.read(), re.M))
    return settings["CMAKE_BUILD_TYPE"] == "RelWithDebInfo" and not settings["VEX_SANITIZE"]


pytestmark = pytest.mark.skipif(not is_release(), reason="these are for ourselves: they are neither hardened nor stripped")


def readelf(option, file):
    return subprocess.run(["readelf", "-W", option, file], capture_output=True, text=True, check=True).stdout


@pytest.fixture(name="binary", params=BUILT)
def _binary(request):
    return os.path.join(STAGE, request.param)


@pytest.mark.quick
def test_addresses_are_drawn_and_the_linkers_tables_are_read_only(binary):
    assert re.search(r"Type:\s+DYN", readelf("-h", binary))
    assert re.search(r"^\s*GNU_RELRO ", readelf("-l", binary), re.M)
    assert "BIND_NOW" in readelf("-d", binary)


def test_no_page_of_data_or_stack_is_code(binary):
    for line in re.findall(r"^\s*(?:GNU_STACK|LOAD) .*$", readelf("-l", binary), re.M):
        assert not re.search(r"\bRWE\b", line), line


def test_calls_and_returns_can_be_checked_by_the_processor(binary):
    assert re.search(r"x86 feature: .*SHSTK", readelf("-n", binary))
    code = subprocess.run(["objdump", "-d", "--no-show-raw-insn", binary], capture_output=True, text=True, check=True).stdout
    # In the table of the linker, at the C library's start and end there is no need for a mark, or no mark.
    ours = re.findall(r"^[0-9a-f]+ <(_Z[^>]*|luaopen_\w+|main)>:\n\s+[0-9a-f]+:\s+(\S+)", code, re.M)
    exported = set(re.findall(r"FUNC\s+GLOBAL\s+DEFAULT\s+\d+ (\S+)$", readelf("--dyn-syms", binary), re.M))
    reached = {name: first for name, first in ours if name in exported}
    assert reached or os.path.basename(binary) in ("vx_agent", "vexctl")
    assert {name for name, first in reached.items() if first != "endbr64"} == set()


@pytest.mark.parametrize("name", WITH_ARRAYS_ON_THE_STACK)
def test_arrays_on_the_stack_and_calls_with_a_known_size_are_guarded(name):
    symbols = readelf("--dyn-syms", os.path.join(STAGE, name))
    assert "__stack_chk_fail" in symbols
    assert re.search(r"__(?!stack)\w+_chk\b", symbols)


@pytest.mark.parametrize("name", BUILT)
def test_debug_data_is_in_a_file_of_its_own_that_belongs_to_the_binary(name):
    shipped, debug_file = os.path.join(STAGE, name), os.path.join(BUILD, BUILT[name] + ".debug")
    sections, debug_sections = readelf("-S", shipped), readelf("-S", debug_file)
    assert ".debug_" not in sections and ".gnu_debuglink" in sections
    assert ".debug_info" in debug_sections and ".debug_line" in debug_sections

    def build_id(file):
        return re.search(r"Build ID: ([0-9a-f]{40})", readelf("-n", file))[1]
    assert build_id(shipped) == build_id(debug_file)


def test_debug_data_is_put_where_a_debugger_looks(tmp_path):
    subprocess.run(["cmake", "--install", BUILD, "--component", "debug", "--prefix", str(tmp_path)], check=True,
                   stdout=subprocess.DEVNULL)
    found = {os.path.relpath(os.path.join(folder, file), tmp_path) for folder, _, files in os.walk(tmp_path) for file in files}
    assert found == {".debug/vx_agent.debug", ".debug/vexctl.debug", "lib/.debug/vex_core.so.debug", "lib/.debug/libSLB3.so.debug"}


def test_the_operators_tool_starts_without_what_only_the_agent_needs():
    needed = set(re.findall(r"NEEDED.*\[lib([\w+]+)", readelf("-d", os.path.join(STAGE, "vexctl"))))
    # The reader of archives tells them apart by hashes of crypto's.
    assert needed <= {"wx_baseu", "sqlite3", "crypto", "deflate", "isal", "z", "stdc++", "gcc_s", "m", "c"}


def test_symbols_are_looked_for_first_where_nearly_all_of_them_are():
    needed = re.findall(r"NEEDED.*\[lib([\w+]+)", readelf("-d", os.path.join(STAGE, "vx_agent")))
    assert needed[:4] == ["crypto", "wx_baseu", "sqlite3", "stdc++"]
