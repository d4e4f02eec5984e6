"""tools/tidy on trees that each break one rule: it names the file and the line, and is silent about a tree that breaks none."""
import os
import pathlib
import shutil
import subprocess
import sys

import pytest

from conftest import PATIENCE, ROOT

TIDY = os.path.join(ROOT, "tools", "tidy")
OPEN_END = "TO" + "DO"


def tidy(root, *arguments):
    result = subprocess.run([sys.executable, TIDY, "--root", str(root), *arguments], capture_output=True, text=True,
                            timeout=PATIENCE, check=False)
    assert result.stderr == ""
    return result.returncode, result.stdout


@pytest.fixture
def tree(tmp_path):
    def write(**files):
        for name, text in files.items():
            path = tmp_path / name
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(text)
        return tmp_path
    subprocess.run(["git", "init", "-q", str(tmp_path)], check=True)
    return lambda files: write(**files)


@pytest.mark.quick
@pytest.mark.fast
def test_a_tree_that_keeps_the_rules_is_passed_in_silence(tree):
    root = tree({"src/vex/core/a.h": "#pragma once\n", "run": "#!/bin/sh\ntrue\n",
                 "tests/unit/slb3/a_test.cpp": "TEST(A, IsA) {}\n"})
    os.chmod(root / "run", 0o755)
    assert tidy(root) == (0, "")


BREACHES = [
    ("src/slb3/a.cpp", f"int a;\n// {OPEN_END}: more\n", 2, "an open end"),
    ("docs/a.md", f"one\n{OPEN_END}\n", 2, "an open end"),
    ("tools/a.py", "path = '/tmp'\n# see /ho" + "me/somebody/file\n", 2, "a path of one machine"),
    ("src/vex/apps/vex/a.cpp", "void f() { ::kill(2, 1); }\n", 1, "signals are sent through"),
    ("tests/unit/vex/a_test.cpp", "TEST(A, B) {\n    kill(pid, 9);\n}\n", 2, "signals are sent through"),
    ("tools/a.py", "import os\n\n\nos.kill(pid, 9)\n", 4, "a signal whose pid"),
    ("src/vex_core/log/a.cpp", "int f() { return ::open(\"a\", 0); }\n", 1, "open: system calls go through"),
    ("src/vex_core/log/a.cpp", "void f()\n{\n    if (fcntl(1, F_GETFD) < 0)\n        return;\n}\n", 3, "fcntl: system calls"),
    ("src/vex_core/log/a.cpp", "int f() { return pthread_sigmask(SIG_BLOCK, &set, nullptr); }\n", 1, "pthread_sigmask: system calls"),
    ("src/vex_core/log/a.cpp", "int f() { return std::rename(a, b); }\n", 1, "rename: system calls"),
    ("src/vex_core/log/a.cpp", "int f() { return std::remove(a); }\n", 1, "remove: system calls"),
    ("src/vex_core/log/a.cpp", "static const Calls calls = {::unlink};\n", 1, "unlink: system calls"),
    ("src/vex/apps/vex/a.cpp", "void f() { VexOs::Wait(waitpid(1, nullptr, 0)); }\n", 1, "waitpid: system calls"),
    ("src/vex_core/log/a.cpp", "/* no\n calls */ const int a = getpid();\n", 2, "getpid: system calls"),
    ("src/vex_core/log/a.cpp", "auto a = std::filesystem::current_path();\n", 1, "std::filesystem: system calls"),
    ("src/vex_core/log/a.cpp", "#include <filesystem>\n", 1, "<filesystem>: system calls"),
    ("src/vex_core/log/a.cpp", "void f() { std::this_thread::sleep_for(a); }\n", 1, "sleep_for: system calls"),
    ("src/vex_core/log/a.cpp", "void f() { std::this_thread::sleep_until(a); }\n", 1, "sleep_until: system calls"),
    ("src/vex/apps/vex/a.cpp", "if (wxRename(a, b) != 0)\n", 1, "wxRename: system calls"),
    ("src/vex/apps/vexctl/a.cpp", 'FILE* f = popen("a", "r");\n', 1, "popen: system calls"),
    ("src/vex_core/log/a.cpp", "const bool b = seteuid(0) == 0;\n", 1, "seteuid: system calls"),
    ("src/vex_core/log/a.cpp", "return setresuid(0, 0, 0);\n", 1, "setresuid: system calls"),
    ("src/vex_core/log/a.cpp", "return statx(a, b, c, d, e);\n", 1, "statx: system calls"),
    ("src/vex_core/log/a.cpp", "const int a = epoll_create1(0);\n", 1, "epoll_create1: system calls"),
    ("src/vex_core/log/a.cpp", "m_a = ::inotify_add_watch(a, b, c);\n", 1, "inotify_add_watch: system calls"),
    ("src/vex_core/log/a.cpp", "f(getpwuid_r(a, b, c, d, e));\n", 1, "getpwuid_r: system calls"),
    ("src/vex_core/log/a.cpp", "FILE* table = setmntent(a, b);\n", 1, "setmntent: system calls"),
    ("src/vex_core/log/a.cpp", "Calls calls = {&open, 1};\n", 1, "open: system calls"),
    ("src/vex_core/log/a.cpp", "int f() { return errno; }\n", 1, "errno stays"),
    ("src/slb3/a.cpp", "#include <wx/string.h>\n", 1, "src/slb3/ does not include wx/string.h"),
    ("src/slb3/a.cpp", '#include "vex/core/dom.h"\n', 1, "does not include vex/core/dom.h"),
    ("src/vex/core/a.h", '#pragma once\n#include "vex_core/a.h"\n', 2, "does not include vex_core/a.h"),
    ("src/vex_core/log/a.cpp", '#include "vex/apps/vex/vex.h"\n', 1, "does not include vex/apps/vex/vex.h"),
    ("src/vex/apps/vex/a.cpp", '#include "vex_core/zip/zip_reader.h"\n', 1, "does not include vex_core/zip/zip_reader.h"),
    ("src/vex_core/a.cpp", "int a;\n", 1, "outside the rooms"),
    ("src/vex_core/attic/a.cpp", "int a;\n", 1, "outside the rooms"),
    ("src/vex_core/log/inner/a.cpp", "int a;\n", 1, "outside the rooms"),
    ("src/vex_core/base/a.cpp", '#include "vex_core/log/process_log.h"\n', 1, "base/ does not include log/"),
    ("src/vex_core/log/a.cpp", 'int a;\n#include "vex/core/runnable.h"\n', 2, "log/ does not include threads/"),
    ("src/vex_core/zip/a.h", '#pragma once\n#include "vex_core/modules/chunk_cache.h"\n', 2, "zip/ does not include modules/"),
    ("src/vex_core/base/a.cpp", '#include "../zip/zip_names.h"\n', 1, "../zip/zip_names.h: an include is named from src/ on"),
    ("src/slb3/a.cpp", '#include "slb3/../slb3/a.h"\n', 1, "an include is named from src/ on"),
    ("src/vex_core/modules/a.cpp", '#include "vex_core/zip/no_door.h"\n', 1, "vex_core/zip/no_door.h is private to its room"),
    ("src/vex_core/lifecycle/a.cpp", '#include "vex_core/lua/no_door.h"\n', 1, "vex_core/lua/no_door.h is private to its room"),
    ("src/vex/apps/vexctl/a.cpp", '#include "vex_core/lua/worker_list.h"\n', 1, "worker_list.h is none of the doors of vexctl"),
    ("src/vex/core/a.h", "#pragma once\n#include <sqlite3.h>\n", 2, "src/vex/core/ does not include sqlite3.h"),
    ("src/vex/apps/vex/a.cpp", "#include <pugixml.hpp>\n", 1, "does not include pugixml.hpp"),
    ("src/slb3/a.cpp", "#include <openssl/ssl.h>\n", 1, "does not include openssl/ssl.h"),
    ("src/vex/core/a.h", "#pragma once\nstruct sqlite3;\n", 2, "show nothing of what it is built on"),
    ("src/vex/core/a.h", "#pragma once\nclass ZipArchive;\n", 2, "show nothing of what it is built on"),
    ("src/vex/core/a.h", "#pragma once\nint f(struct lua_Debug*);\n", 2, "show nothing of what it is built on"),
    ("src/vex/core/a.h", "int a;\n", 1, "#pragma once"),
    ("src/slb3/a.cpp", "int a; \n", 1, "blanks at the end"),
    ("src/slb3/a.cpp", "int a;", 1, "no line end"),
    ("src/slb3/a.cpp", "\tint a;\n", 1, "tabulator"),
    ("tests/unit/vex/a_test.cpp", "int a;\n", 1, "a test file without a test"),
    ("tests/unit/vex/helpers.cpp", "int a;\n", 1, "not built"),
    ("tests/unit/vex_core/attic/a_test.cpp", "TEST(A, B) {}\n", 1, "not built"),
    ("tests/unit/vex_core/a_test.cpp", "TEST(A, B) {}\n", 1, "not built"),
    ("tests/unit/vex_core/log/inner/a_test.cpp", "TEST(A, B) {}\n", 1, "not built"),
    ("tests/unit/attic/a_test.cpp", "TEST(A, B) {}\n", 1, "not built"),
    ("tests/unit/a_test.cpp", "TEST(A, B) {}\n", 1, "not built"),
    ("tests/e2e/a/test_a.py", "A = 1\n", 1, "a test file without a test"),
    ("tests/lua/a_test.lua", "return {}\n", 1, "a test file without a test"),
    ("tests/fuzz/a_fuzz.cpp", "LLVMFuzzerTestOneInput\n", 1, "no seeds in tests/fuzz/corpus/a/"),
    ("src/vex/apps/vex/a.cpp", "wxFprintf(stderr, text);\n", 1, "wide output"),
    ("src/vex_core/log/a.cpp", "int a;\nvoid f() { std::fputws(L\"a\", stdout); }\n", 2, "wide output"),
    ("src/vex_core/log/a.cpp", "void f() { std::wcerr << L\"a\"; }\n", 1, "wide output"),
    ("src/slb3/a.cpp", "static thread_local int own = 0;\n", 1, "begins with t_"),
    ("src/slb3/a.cpp", "constexpr int kMaxCount = 1;\n", 1, "constants have no mark"),
    ("src/slb3/a.cpp", "const std::lock_guard<std::mutex> lock(m_lock);\n", 1, "const std::lock_guard lock(m_lock);"),
    ("src/slb3/a.cpp", "int a;\nstd::lock_guard lock(m_lock);\n", 2, "const std::lock_guard lock(m_lock);"),
    ("bench/a.cpp", "void f() { std::shared_lock<Lock> lock(m_lock); }\n", 1, "const std::lock_guard lock(m_lock);"),
    ("src/slb3/a.cpp", "if (a != nullptr)\n", 1, "if (pointer)"),
    ("src/slb3/a.cpp", "while (b && a == nullptr) {\n", 1, "if (pointer)"),
    ("src/slb3/a.cpp", "const int b = a == nullptr ? 1 : 2;\n", 1, "if (pointer)"),
    ("src/slb3/a.cpp", "return int(a) + 1;\n", 1, "static_cast"),
    ("tests/support/a.h", "#pragma once\nauto a = std::uint64_t(b + 1) << 2;\n", 2, "static_cast"),
    ("src/slb3/a.cpp", "const int b = (int)a;\n", 1, "static_cast"),
    ("src/slb3/a.cpp", "return (std::size_t)b;\n", 1, "static_cast"),
    ("src/slb3/a.cpp", "f((unsigned char) *b, c);\n", 1, "static_cast"),
    ("src/slb3/a.cpp", "Free((_STACK*)Methods(), g);\n", 1, "static_cast"),
    ("src/slb3/a.cpp", "f((const char*)b);\n", 1, "static_cast"),
    ("src/slb3/a.cpp", "if (nullptr == q)\n", 1, "if (pointer)"),
    ("src/slb3/a.cpp", 'Log(wxT("a"));\n', 1, "a plain text"),
    ("tests/unit/slb3/a_test.cpp", 'TEST(A, B) {\n    EXPECT_EQ("a, b", c);\n}\n', 2, "the actual value first"),
    ("tests/unit/slb3/a_test.cpp", "TEST(A, B) {\n    ASSERT_NE(-1, c);\n}\n", 2, "the actual value first"),
    ("tests/unit/slb3/a_test.cpp", "TEST_F(StackTest, B) {}\n", 1, "a suite is a noun"),
    ("src/slb3/a.cpp", "// ----- words -----\n", 1, "a section begins with"),
    ("src/slb3/a.cpp", "int a;\n// ---\n", 2, "a section begins with"),
    ("tests/support/a.cpp", "// =====\n", 1, "a section begins with"),
    ("src/slb3/a.cpp", "int a;\n// --- The rest\n", 2, "a section begins with"),
    ("tests/support/a.h", "#pragma once\n    // --- System\n", 2, "a section begins with"),
    ("src/slb3/a.cpp", "/// What f does.\nvoid f();\n", 1, "/// is for declarations in headers"),
    ("src/slb3/a.cpp", "int a; ///< what it is\n", 1, "/// is for declarations in headers"),
    ("src/slb3/a.cpp", "namespace {\n\nint a;\n\n} // namespace\n", 2, "no blank line"),
    ("src/vex_core/log/a.h", "#pragma once\nclass CReader\n{\n};\n", 2, "CReader: a C or E in front"),
    ("tests/support/a.h", "#pragma once\nstruct A\n{\n    enum class EKind { One };\n};\n", 4, "EKind: a C or E in front"),
    ("src/vex/apps/vex/a.cpp", "enum class CKind { One };\n", 1, "CKind: a C or E in front"),
    ("src/slb3/a.cpp", "int a;\n// " + 118 * "a" + "\n", 2, "more than 120 columns"),
    ("tests/unit/slb3/a_test.cpp", 'TEST(A, B) { f("' + 102 * "a" + '"); }\n', 1, "more than 120 columns"),
    ("src/slb3/LuaStack.cpp", "int a;\n", 1, "names of files are snake_case"),
    ("tools/run-all.py", "A = 1\n", 1, "names of files are snake_case"),
    ("docs/a.md", "one\n[two](b.md)\n", 2, "a link to b.md, which is not there"),
    ("docs/a.md", "# One\n\n[two](#two)\n", 3, "a link to #two, whose heading is not there"),
    ("docs/a.md", "see `tools/none` for it\n", 1, "it names tools/none, which is not there"),
    ("src/slb3/a.h", "#pragma once\n// Format: docs/formats/a.md.\n", 2, "it names docs/formats/a.md, which is not there"),
    ("src/slb3/a.h", "#pragma once\nint a; ///< see error.h\n", 2, "it names error.h, which is not there"),
    ("lua/vex/a.lua", "-- as in tests/lua/none.lua\nreturn 1\n", 1, "it names tests/lua/none.lua, which is not there"),
    ("tools/a.py", "a = 1  # see tools/none\n", 1, "it names tools/none, which is not there"),
]


@pytest.mark.parametrize("name, text, line, what", BREACHES)
def test_a_breach_is_named_with_its_place(tree, name, text, line, what):
    code, output = tidy(tree({name: text}))
    assert code == 1
    assert output.startswith(f"{name}:{line}: ")
    assert what in output
    assert output.count("\n") == 1


ALLOWED = [
    ("src/vex/core/sendsignal.h", "#pragma once\ninline int f() { return ::kill(2, 0); }\n"),
    ("src/vex_core/os/a.cpp", "int f() { return ::open(\"a\", 0); }\n"),
    ("src/vex_core/log/a.cpp", "int f() { return os::Open(\"a\", 0); } // not ::open(\n"),
    ("src/vex/apps/vex/os/a.cpp", "int f() { return ::fork() < 0 ? errno : 0; }\n"),
    ("src/vex_core/log/a.cpp", "void f() { file.read(1); file->open(2); m_calls.close(3); Own::write(4); Stream<int>::close(5); }\n"),
    ("src/vex_core/log/a.h", "#pragma once\nstruct Calls\n{\n    int (*close)(int);\n    void write(const void* data) override;\n"
                         "    DIR* opendir(int);\n};\n"),
    ("src/vex_core/log/a.cpp", "struct stat status;\nFill(&status);\na = b &open;\nwxRenameFile(a, b);\n"),
    ("src/vex_core/log/a.cpp", "void f(System& system, int open) { m_system = &system; g(&open); }\n"),
    ("tests/unit/vex_core/log/a_test.cpp", "#include <filesystem>\nTEST(A, B) { std::this_thread::sleep_for(a); }\n"),
    ("src/vex_core/log/a.cpp", "const char* a = \"fork(); errno\"; /* fork(); */ // fork()\n"),
    ("src/vex_core/log/a.cpp", "const char* a = R\"(\n// fork() errno\n)\";\n"),
    ("src/vex_core/log/a.cpp", "#include <sys/wait.h>\nstd::remove(all.begin(), all.end(), 1);\nstruct stat status;\n"),
    ("src/vex_core/log/a.cpp", "const int a = 1'000'000, b = 'c'; // it's not fork()\n"),
    ("src/slb3/a.cpp", "void f() { process.kill(1); overkill(2); }\n"),
    ("src/vex/apps/vex/a.cpp", "std::printf(\"a\"); std::fputs(\"a\", stderr); // not wxFputs\n"),
    ("src/slb3/a.cpp", "static thread_local int t_own = 0;\nstd::unique_lock lock(m_lock);\nHold(std::unique_lock<std::mutex>& held);\n"
                       "return m_handle != nullptr;\nfor (; (end = next(a)) != nullptr; ++a) {\nf(a != nullptr);\n"),
    ("src/slb3/a.cpp", "std::function<int(int a)> f;\nint (*g)(int);\nint f(int a);\nint F::operator()(int a);\nstd::size(a);\n"
                       "const char* b = \"int(a) wxT(b) /// ----\"; // int(a)\n"),
    ("src/slb3/a.cpp", "int f(int) override;\nint (*g)(int), (*h)(char*);\n[](int) { return sizeof(int) * 2; };\na = (b) * c;\n"
                       "std::function<void(int)> i;\nint F::operator()(int) const;\nusing G = int (*)(const char*) noexcept;\n"
                       "struct Caller<R (C::*)(P...) const>\n"),
    ("src/slb3/a.cpp", "// --- words: and more\n// --- OnRun\n// --- SIGTERM\n\nnamespace {\nint a;\n\n} // namespace\n"),
    ("src/slb3/a.cpp", "// What it tells.\n" + "int a;\n" * 8),
    ("src/slb3/a.cpp", "// " + 117 * "a" + "\n// " + 117 * "ä" + "\n"),
    ("src/slb3/a.h", "#pragma once\n// What it tells.\n" + "int a; ///< of b\n" * 8),
    ("src/vex/apps/vex/a.h", "#pragma once\nclass CDom;\nclass CAgentApp : public wxAppConsole\nclass CallObserver;\nstruct CDom::Impl\n"),
    ("src/vex/core/a.h", "#pragma once\nclass VEX_CORE_API CDom\nenum class EWait {};\n"),
    ("src/slb3/a.cpp", "enum Ending {};\nstruct Entry;\nenum class EKind;\n"),
    ("tests/unit/slb3/a_test.cpp", 'TEST(ClassDeathTest, B) {\n    EXPECT_EQ(a, "b");\n    EXPECT_EQ("b" + a, c);\n    EXPECT_GT(1, a);\n}\n'),
    ("tests/e2e/conftest.py", "import os\nassert pid > 1\nos.kill(pid, 9)\n"),
    ("src/vex/apps/vexctl/a.cpp", '#include "vex/apps/vex/package_name.h"\n'),
    ("src/vex/apps/vexctl/a.cpp", '#include "vex_core/base/a.h"\n#include "vex_core/log/disk_log.h"\n#include "vex_core/os/a.h"\n'),
    ("src/vex/core/a.h", "#pragma once\n#include <lua.hpp>\nstruct lua_State;\nclass wxZipEntry; // no ZipArchive\n"),
    ("src/vex_core/log/a.cpp", '#include "vex_core/log/disk_log.h"\n#include "vex_core/os/a.h"\n#include "vex/core/dom.h"\n'),
    ("src/vex_core/log/a.cpp", '// #include "vex_core/lua/worker_list.h"\n'),
    ("src/vex_core/modules/a.cpp", '#include "vex_core/zip/zip_reader.h"\n#include "vex_core/base/hex.h"\n'),
    ("src/vex_core/lifecycle/a.cpp", '#include "vex_core/zip/zip_reader.h"\n#include "vex_core/base/hex.h"\n'),
    ("tests/unit/vex_core/log/a_test.cpp", '#include "vex_core/lua/worker.h"\nTEST(A, B) {}\n'),
    ("src/vex_core/log/a.cpp", "#include <sqlite3.h>\n#include <sys/stat.h>\n#include <zlib.h>\n"),
    ("src/vex/apps/vex/a.cpp", "#include <openssl/ssl.h>\n#include <wx/app.h>\n"),
    ("tests/fuzz/corpus/a/seed", f"{OPEN_END} \0 "),
    ("docs/a.md", "the folder is <app.path.work>/wo" + "rk/cache\n"),
    ("docs/a.md", "# One: the `first`\n[one](#one-the-first), [itself](a.md#one-the-first), [all](../docs), [web](https://a.b/c)\n"),
    ("docs/a.md", "this is docs/a.md, one of docs/*.md\n"),
    ("src/slb3/a.cpp", "// One of a.cpp and b_*.cpp, of src/slb3/ and slb3/none.h. <sys/none.h> is the system's.\nint a; \"docs/none.md\";\n"),
]


@pytest.mark.parametrize("name, text", ALLOWED)
def test_what_only_looks_like_a_breach_is_passed(tree, name, text):
    assert tidy(tree({name: text})) == (0, "")


def test_an_exception_that_nothing_needs_any_more_is_a_breach(tree):
    code, output = tidy(tree({"tools/tidy_rules/system.py": '1\n2 "src/vex/core/sendsignal.h"\n',
                              "src/vex/core/sendsignal.h": "#pragma once\n"}))
    assert code == 1
    assert "tools/tidy_rules/system.py:2: nothing needs this exception: src/vex/core/sendsignal.h\n" in output


def test_an_arrow_that_runs_up_or_that_nothing_uses_is_a_breach_in_the_table_of_rooms(tree):
    table = pathlib.Path(ROOT, "tools/tidy_rules/rooms.py").read_text(encoding="utf-8")
    changed = table.replace('"log": "os base domain",', '"log": "os base domain lua",')
    assert changed != table
    root = tree({"tools/tidy_rules/rooms.py": changed,
                 "src/vex/apps/vexctl/a.cpp": '#include "vex_core/log/disk_log.h"\n',
                 "src/vex_core/log/a.cpp": '#include "vex/core/clock.h"\n#include "vex_core/domain/settings.h"\n'})
    shutil.copytree(os.path.join(ROOT, "tools/tidy_rules"), root / "tools/tidy_rules", dirs_exist_ok=True,
                    ignore=shutil.ignore_patterns("rooms.py"))
    shutil.copy(os.path.join(ROOT, "tools/interrupted.py"), root / "tools")
    result = subprocess.run([sys.executable, shutil.copy(TIDY, root / "tools/tidy")], capture_output=True, text=True, check=False)
    assert result.returncode == 1
    assert "tools/tidy_rules/rooms.py:1: an arrow up, from log/ to lua/\n" in result.stdout
    unused = "tools/tidy_rules/rooms.py:1: nothing in log/ includes {}/: it need not be allowed to\n"
    assert unused.format("os") in result.stdout
    assert unused.format("base") not in result.stdout
    assert unused.format("domain") not in result.stdout
    no_door = "tools/tidy_rules/rooms.py:1: nothing in vexctl includes {}: it need not be a door\n"
    assert no_door.format("lifecycle/startup.h") in result.stdout
    assert no_door.format("log/disk_log.h") not in result.stdout


def test_two_modules_of_one_name_are_a_breach(tree):
    root = tree({f"{folder}/{name}.py": "" for folder in ("bench", "tests/e2e/one", "tests/support") for name in ("conftest", folder[-2:])})
    assert tidy(root) == (0, "")
    (root / "bench/rt.py").write_text("")
    assert tidy(root) == (1, "bench/rt.py:1: a module of the name of tests/support/rt.py: who imports the one may get the other\n")


def test_files_that_version_control_ignores_are_not_looked_at(tree):
    assert tidy(tree({".gitignore": "made/\n", "made/a.h": "int a;\n", "build/b.h": "int b;\n"})) == (0, "")


def test_a_tree_without_version_control_is_looked_at_too(tmp_path):
    (tmp_path / "a.h").write_text("int a;\n")
    code, output = tidy(tmp_path)
    assert code == 1
    assert output.startswith("a.h:1: ")


@pytest.mark.parametrize("script", ["#!/bin/sh\nif true\n", "#!/usr/bin/env bash\nfor in\n"])
def test_a_shell_script_that_cannot_be_read_is_a_breach(tree, script):
    root = tree({"run": script})
    os.chmod(root / "run", 0o755)
    code, output = tidy(root)
    assert code == 1
    assert output.startswith("run:1: the shell cannot read it: ")


def test_a_shell_script_that_cannot_be_run_is_a_breach(tree):
    assert tidy(tree({"run": "#!/bin/sh\ntrue\n"})) == (1, "run:1: a script that cannot be run\n")


def test_a_file_that_can_be_run_and_is_no_script_is_a_breach(tree):
    root = tree({"list.txt": "one\n"})
    os.chmod(os.path.join(root, "list.txt"), 0o755)
    assert tidy(root) == (1, "list.txt:1: it can be run and is no script\n")


def test_a_section_that_a_comment_names_is_there(tree):
    page = "# Formats\n\n## The log\n"
    root = tree({"docs/FORMATS.md": page, "src/slb3/a.cpp": '// docs/FORMATS.md, "The log"\n// docs/FORMATS.md, "Log"\n'})
    assert tidy(root) == (1, "src/slb3/a.cpp:2: docs/FORMATS.md has no section Log\n")


@pytest.mark.skipif(not shutil.which("clang-format"), reason="clang-format is not installed")
def test_what_the_formatter_has_passed_is_looked_at_again_when_it_or_the_style_has_changed(tree):
    root = tree({".clang-format": "BasedOnStyle: LLVM\n", "src/slb3/a.cpp": "int a;\n", "src/slb3/b.cpp": "int b;\n"})
    kept = root / "build/tidy/formatted"
    assert tidy(root) == (0, "") and not kept.exists()  # where nothing is built nothing is written
    (root / "build").mkdir()
    assert tidy(root) == (0, "") and len(kept.read_text().split()) == 2
    assert tidy(root) == (0, "")
    tree({"src/slb3/b.cpp": "int  b;\n"})
    for _ in range(2):
        assert tidy(root) == (1, "src/slb3/b.cpp:1: clang-format -i would change this\n")
    tree({"src/slb3/b.cpp": "if (a)\n  b;\n"})
    assert tidy(root) == (0, "")
    kept.write_bytes(b"\xff")
    assert tidy(root) == (0, "") and len(kept.read_text().split()) == 2
    tree({"src/vex/.clang-format": "BasedOnStyle: LLVM\nIndentWidth: 4\n"})
    assert tidy(root) == (0, "")
    os.rename(root / "src/vex/.clang-format", root / "src/slb3/.clang-format")  # the same texts, for other files
    assert tidy(root) == (1, "src/slb3/b.cpp:1: clang-format -i would change this\n")


MAP = "## `src/vex_core/base/`\n\n- `a`: this\n"


def test_the_map_names_each_source_once_and_nothing_else(tree):
    files = {name: "#pragma once\n" for name in ("src/vex_core/base/a.h", "src/vex_core/base/a_p.h", "src/vex_core/base/b_posix.cpp")}
    root = tree({**files, "docs/ARCHITECTURE.md": MAP + "- `a`: that\n- `c`: such\n"})
    assert tidy(root) == (1, "docs/ARCHITECTURE.md:4: src/vex_core/base/a stands here twice\n"
                             "docs/ARCHITECTURE.md:5: there is no src/vex_core/base/c\n"
                             "src/vex_core/base/b_posix.cpp:1: docs/ARCHITECTURE.md does not say what it is for\n")
    tree({"docs/ARCHITECTURE.md": MAP + "- `b`: that\n\n## The rest\n\n- `c`: no file\n"})
    assert tidy(root) == (0, "")


def test_the_arrows_that_are_shown_are_those_that_hold(tree):
    with open(os.path.join(ROOT, "docs/ARCHITECTURE.md"), encoding="utf-8") as file:
        rows = [line for line in file if line.startswith("| `") and "src/" not in line and not line.endswith("| |\n")]
    assert tidy(tree({"docs/ARCHITECTURE.md": "".join(rows)})) == (0, "")
    wrong = "".join(rows).replace("| os base log crash |", "| os base log |").replace("- |", "os |", 1)
    assert tidy(tree({"docs/ARCHITECTURE.md": wrong})) == (1, "docs/ARCHITECTURE.md:1: os/ may include -, and not os\n"
                                                              "docs/ARCHITECTURE.md:7: threads/ may include os base log crash, "
                                                              "and not os base log\n")


SETTINGS = "| key | writer | default | meaning |\n|---|---|---|---|\n"


def test_settings_of_code_and_documents_are_the_same(tree):
    root = tree({"docs/SETTINGS.md": SETTINGS + "| app.one | x | none | y |\n| app.gone | x | none | y |\n",
                 "src/vex_core/log/a.cpp": 'Get("app.one");\nGet("app.two"); // "app.gone"\n',
                 "lua/vex/a.lua": 'return require("vex.log")("vex.Trace"), require("vex.settings").int("vex.Three", 1)\n'})
    code, output = tidy(root)
    assert code == 1
    assert output.splitlines() == ["docs/SETTINGS.md:4: nothing in the code knows the setting app.gone",
                                   "lua/vex/a.lua:1: the setting vex.Three has no row in docs/SETTINGS.md",
                                   "src/vex_core/log/a.cpp:2: the setting app.two has no row in docs/SETTINGS.md"]


def known(key, kind, default, least, most):
    return f'{{"{key}", SettingKind::{kind}, "unit",\n {default}, {least}, {most}, SettingPlace::Settings, "help"}},\n'


def test_the_documented_type_range_and_default_are_those_of_the_codes_table(tree):
    page = ("| key | type, range | default | meaning |\n|---|---|---|---|\n"
            "| Trace | names | absent | y |\n| app.log.count | integer, 1 to 9 | 6 | y |\n| app.log.size | size, at least 4096 | 8192 | y |\n"
            "| app.lua.cache | boolean | false | y |\n| app.new | integer | 3 | y |\n| vex.A | time, at least 2 | 1 | y |\n"
            "| app.place | here, there, away | here | y |\n| app.way | in, out | out | y |\n")
    choices = ('inline constexpr char placeWords[] = "here "\n    "there";\ninline constexpr char wayWords[] = "in out";\n'
               + "".join(f'{{"app.{name}", SettingKind::Choice, "", 1, 0, 1, SettingPlace::Settings,\n "help", {name}Words}},\n'
                         for name in ("place", "way")))
    table = (known("Trace", "List", "noStandard", 0, 0) + known("app.log.count", "Number", 5, 1, 10)
             + known("app.log.size", "Size", "8 * 1024", 4096, "unlimited") + known("app.lua.cache", "Flag", 1, 0, 1)
             + known("app.gone", "Flag", 1, 0, 1) + known("vex.A", "Time", 1, 1, "unlimited") + choices)
    code, output = tidy(tree({"docs/SETTINGS.md": page, "src/vex_core/domain/known_settings.h": "#pragma once\n// Keys.\n" + table,
                              "src/vex_core/log/a.cpp": 'Get("app.new"); // Logs.\n'}))
    assert code == 1
    assert output.splitlines() == [
        "docs/SETTINGS.md:4: the default of app.log.count is 5",
        "docs/SETTINGS.md:4: the type, range of app.log.count is integer, 1 to 10",
        "docs/SETTINGS.md:6: the default of app.lua.cache is true",
        "docs/SETTINGS.md:7: where does the code have the default of app.new? Add it to DEFAULTS in tools/tidy_rules/settings.py",
        "docs/SETTINGS.md:8: the type, range of vex.A is time, at least 1",
        "docs/SETTINGS.md:9: the default of app.place is there",
        "docs/SETTINGS.md:9: the type, range of app.place is here, there",
        "src/vex_core/domain/known_settings.h:11: the setting app.gone has no row in docs/SETTINGS.md"]


def test_each_file_says_what_it_is_about_or_its_header_does(tree):
    about, silent = "// What it is about.\n", "int a;\n"
    files = {"src/slb3/a.h": "#pragma once\n" + about, "src/slb3/a_linux.cpp": silent, "src/slb3/b.cpp": about,
             "src/vex/core/c.h": "#pragma once\n" + about, "src/vex_core/base/c.cpp": silent, "src/slb3/empty.h": "#pragma once\n",
             "tests/unit/slb3/a_test.cpp": "TEST(A, IsA) {}\n", "tools/tidy_rules/dialect.py": ""}
    assert tidy(tree(files)) == (0, "")
    tree({"src/slb3/a.h": "#pragma once\n" + silent + about, "src/slb3/c.cpp": silent, "bench/d.cpp": silent})
    assert [line.partition(":1: a file opens with")[0] for line in tidy(tree({}))[1].splitlines()] == [
        "bench/d.cpp", "src/slb3/a.h", "src/slb3/a_linux.cpp", "src/slb3/c.cpp"]


def test_a_package_without_a_reason_is_a_breach(tree):
    root = tree({"tools/packages.txt": "# build\ng++\ncmake\n", "tools/packages-wide.txt": "chromium\n",
                 "docs/DEPENDENCIES.md": "`g++` compiles\n"})
    assert tidy(root) == (1, "tools/packages-wide.txt:1: docs/DEPENDENCIES.md does not say why chromium is needed\n"
                             "tools/packages.txt:3: docs/DEPENDENCIES.md does not say why cmake is needed\n")


@pytest.mark.skipif(not shutil.which("clang-format"), reason="clang-format is not installed")
def test_code_in_another_layout_is_a_breach(tree):
    root = tree({".clang-format": "IndentWidth: 4\n", "src/slb3/a.cpp": "int a;\nint  b;\nint  c;\n", "src/slb3/b.h": "#pragma once\n",
                 "tests/support/c.h": "#pragma once\nint  d;\n", "bench/d.cpp": "int   e;\n"})
    assert tidy(root) == (1, "bench/d.cpp:1: clang-format -i would change this\n"
                             "src/slb3/a.cpp:2: clang-format -i would change this\n"
                             "tests/support/c.h:2: clang-format -i would change this\n")


def test_a_layout_that_the_formatter_cannot_read_is_a_breach(tree):
    code, output = tidy(tree({".clang-format": "NoSuchOption: 4\n", "src/slb3/a.cpp": "int a;\n"}))
    assert code == 1
    assert "NoSuchOption" in output


@pytest.mark.parametrize("tool, files", [("luacheck", {"lua/vex/a.lua": "return {}\n"}),
                                         ("clang-format", {".clang-format": "IndentWidth: 4\n", "src/slb3/a.cpp": "int a;\n"})])
def test_a_check_that_needs_what_is_not_installed_says_so(tree, tmp_path_factory, tool, files):
    only_git = tmp_path_factory.mktemp("bin")
    (only_git / "git").symlink_to(shutil.which("git"))
    result = subprocess.run([sys.executable, TIDY, "--root", str(tree(files))], env={"PATH": str(only_git)}, capture_output=True,
                            text=True, check=False)
    assert (result.returncode, result.stdout) == (0, "")
    assert f"tidy: {tool} is not installed, " in result.stderr


@pytest.mark.skipif(not shutil.which("luacheck"), reason="luacheck is not installed")
def test_a_complaint_about_lua_code_is_a_breach(tree):
    code, output = tidy(tree({"lua/vex/a.lua": "local b = 1\nreturn nothing\n"}))
    assert code == 1
    assert "lua/vex/a.lua:1: " in output
    assert "lua/vex/a.lua:2: " in output


@pytest.fixture
def libraries(tmp_path):
    def build(source):
        folder = tmp_path / "lib"
        folder.mkdir(exist_ok=True)
        for library in ("vex_core.so", "libSLB3.so"):
            subprocess.run(["c++", "-x", "c++", "-shared", "-fPIC", "-o", str(folder / library), "-"], input=source, text=True,
                           check=True)
        return str(folder)
    return build


needs_compiler = pytest.mark.skipif(not shutil.which("c++"), reason="no compiler")


@needs_compiler
def test_libraries_that_show_what_is_listed_are_passed(tmp_path, libraries):
    folder = libraries("#include <vector>\nnamespace VexCore { void a(); void a() { std::vector<int> v; v.push_back(1); } }\n")
    assert tidy(tmp_path, "--exports", folder, "--update") == (0, "")
    assert (tmp_path / "tests/exports/vex_core.txt").read_text() == "VexCore::a()\n"
    assert tidy(tmp_path, "--exports", folder) == (0, "")


@needs_compiler
def test_a_symbol_too_many_and_one_too_few_are_breaches(tmp_path, libraries):
    tidy(tmp_path, "--exports", libraries("namespace VexCore { void a() {} void b() {} }\n"), "--update")
    code, output = tidy(tmp_path, "--exports", libraries("namespace VexCore { void a() {} }\nint leaked;\n"))
    assert code == 1
    assert "tests/exports/vex_core.txt:2: vex_core.so does not show VexCore::b()" in output
    assert "vex_core.so shows leaked, which is not listed" in output
    assert "libSLB3.so shows leaked" in output


def test_a_version_spelled_beside_its_header_is_a_breach_and_a_wrong_one_in_documents(tree):
    header = "#pragma once\n// a\n" + "".join(f"#define VEX_VERSION_{part} {number}\n" for part, number in zip("ABCD", (3, 1, 4, 1592)))
    root = tree({"src/vex/apps/vex/version.h": header, "tests/e2e/a/packages.py": "A = 'x-3.1.4-1592'\n",
                   "tests/lua/a.txt": "3.1.5.1592\n13.1.4-15920\n", "docs/a.md": "x 3.1.4-1592, 3.1.4.1592\nx 3.1.3-1592\n"})
    lines = [line for line in tidy(root)[1].splitlines() if "version" in line.partition(" ")[2]]
    assert lines == ["docs/a.md:2: the version is 3.1.4-1592 by src/vex/apps/vex/version.h",
                     "tests/e2e/a/packages.py:1: the version is taken from src/vex/apps/vex/version.h",
                     "tests/lua/a.txt:1: the version is taken from src/vex/apps/vex/version.h"]
