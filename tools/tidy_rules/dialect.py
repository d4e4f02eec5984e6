"""One hand in all C++ code: the formatter's layout, and what neither it nor the linter can see."""
import concurrent.futures
import hashlib
import os
import re
import shutil
import subprocess
import sys

from tidy_rules.file_map import place
from tidy_rules.tree import CPP

HOME = "tools/tidy_rules/dialect.py"
MAX_COLUMNS = 120

# What a line of code may not have, and what it has instead. The word at the end is in each such line.
NUMBER = r"(?:(?:u?int\d+|size|ptrdiff|u?intptr)_t|streamsize)"
LINES = [(re.compile(pattern), words, of_all) for pattern, words, of_all in (
    (r"\bthread_local\b(?!.*\bt_[a-z])", "the name of a thread's own variable begins with t_", "thread_local"),
    (r"\bk[A-Z][a-z]\w*\s*(?:=|\{|\[|;|\()", "constants have no mark", "k"),
    (r"\bstd::(?:lock_guard|scoped_lock|unique_lock|shared_lock)<[^;=]*>\s+\w+\s*[({]", "const std::lock_guard lock(m_lock);", "std::"),
    (r"(?<!const )\bstd::(?:lock_guard|scoped_lock)\s+\w+\s*[({]", "const std::lock_guard lock(m_lock);", "std::"),
    # A comparison that is a value of its own, "return m_handle != nullptr;", is none of these; nor is one with an assignment.
    (r"\b(?:if|while) \((?!.*[^=!<>]=[^=]).*[!=]= nullptr|[!=]= nullptr\)* (?:\?|&&|\|\|)|(?:&&|\|\|) [^&|;]*[!=]= nullptr",
     "if (pointer), if (!pointer)", "= nullptr"),
    (r"\bnullptr [=!]= ", "if (pointer), if (!pointer)", "nullptr "),
    (r"(?:(?<=return )|(?<![\w>] )(?<![\w<:]))(?:int|long|short|char|bool|double|float|unsigned|(?:std::)?" + NUMBER + r")\((?![)*])[^()]",
     "static_cast, no cast that looks like a call", "("),
    # No name in front, as a declaration has and sizeof; a type alone in the brackets, and a value behind.
    (r"(?<![\w>\])])\((?:const )?(?:(?:int|long|short|char|bool|double|float|unsigned|(?:std::)?" + NUMBER
     + r")(?: \w+)?[ *]*|[\w:]*\w(?:<[^()]*>)? ?\*+)\) ?(?!(?:const|noexcept|override|final)\b)[\w(&*~!\"'-]",
     "static_cast, no cast with the type in brackets", "("),
    (r"\b(?:wxT|_T)\(", "a plain text; wxS where a measurement says so", "T("),
    (r"\b(?:EXPECT|ASSERT)_(?:EQ|NE|STREQ|STRNE)\(\s*(?:[LuU]?\"+|-?\d[\w'.]*|'.'|true|false|nullptr)\s*,",
     "the actual value first, then the literal", "T_"),
    (r"^\s*TEST(?:_[FP])?\((?!\w*DeathTest,)\w*Tests?,", "a suite is a noun without Test", "TEST"),
)]
# Sections are told apart by one form of comment; only a name, such as OnRun or SIGTERM, begins with a capital.
RULER = re.compile(r"^\s*//+\s*[-=*#~]{2,}")
SECTION = re.compile(r"^\s*// --- (?![A-Z][a-z]*\b)[^\s-].*[^-=*#~]$")
# A letter in front of a type: the interface has it, and the launcher's classes that the framework and the library know.
PREFIXED = re.compile(r"^\s*(?:(?:class|struct) (?:VEX_CORE_API )?(?=C)|enum(?: class)? (?=[CE]))([CE][A-Z][a-z]\w*)(?!\w|;|::)")
PREFIXED_ALLOWED = ("CAgentApp", "CAgentAppTraits", "CScriptThread")
# What the formatter has passed already, where there is a folder for what is built.
FORMATTED = "build/tidy/formatted"
FILE_NAME = re.compile(r"[a-z0-9_]+\.\w+")


def check_format(tree):
    if ".clang-format" not in tree.files:
        return
    if not shutil.which("clang-format"):
        print("tidy: clang-format is not installed, the layout of C++ code was not checked", file=sys.stderr)
        return
    keys = format_keys(tree)
    known = known_keys(tree)
    names = [name for name, key in keys.items() if key not in known]
    batches = [names[start:start + 20] for start in range(0, len(names), 20)]
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        breaches = [breach for result in pool.map(lambda batch: list(unformatted(tree, batch)), batches) for breach in result]
    yield from breaches
    if names and not breaches and os.path.isdir(os.path.join(tree.root, "build")):
        os.makedirs(os.path.join(tree.root, os.path.dirname(FORMATTED)), exist_ok=True)
        mine = os.path.join(tree.root, f"{FORMATTED}.{os.getpid()}")
        with open(mine, "w", encoding="ascii") as file:
            file.write("\n".join(keys.values()))
        os.replace(mine, os.path.join(tree.root, FORMATTED))


def format_keys(tree):
    """{file of code: a digest of all that its layout depends on}"""
    formatter = subprocess.run(["clang-format", "--version"], capture_output=True, check=False).stdout
    styles = sorted(name for name in tree.files if os.path.basename(name) == ".clang-format")
    texts = (text.encode() for name in styles for text in (name, tree.text(name)))
    begin = hashlib.sha256(b"\0".join((formatter, *texts))).digest()

    def key(name):
        with open(os.path.join(tree.root, name), "rb") as file:
            return hashlib.sha256(b"\0".join((begin, name.encode(), file.read()))).hexdigest()
    return {name: key(name) for name in all_code(tree)}


def known_keys(tree):
    """Those of the files that passed the last time that all did; none where the file that has them is damaged."""
    try:
        with open(os.path.join(tree.root, FORMATTED), encoding="ascii") as file:
            return set(file.read().split())
    except (OSError, UnicodeDecodeError):
        return set()


def unformatted(tree, names):
    """The first place in each of the files that the formatter would change."""
    result = subprocess.run(["clang-format", "--dry-run", "--Werror", "--fno-color-diagnostics", "--ferror-limit=1", *names],
                            cwd=tree.root, capture_output=True, text=True, check=False)
    places = re.findall(r"^([^:\n]+):(\d+):\d+: error: code should be clang-formatted", result.stderr,
                        re.M)
    for name, number in places:
        yield name, int(number), "clang-format -i would change this"
    if result.returncode != 0 and not places:
        yield names[0], 1, "clang-format: " + result.stderr.strip()


def check_width(tree):
    """Of comments, which the formatter leaves alone, and of all else."""
    for name in all_code(tree):
        for number, line in enumerate(tree.lines(name), 1):
            if len(line) > MAX_COLUMNS:
                yield name, number, f"more than {MAX_COLUMNS} columns"


def all_code(tree):
    return (name for below in ("src/", "tests/", "bench/") for name in tree.named(*CPP, below=below))


def check_lines(tree):
    # Most files have no line of a kind, which one look at all of its lines tells.
    somewhere = [re.compile(pattern.pattern, re.M) for pattern, _, _ in LINES]
    for name in all_code(tree):
        whole = "\n".join(tree.code(name))
        possible = [line for line, anywhere in zip(LINES, somewhere) if line[2] in whole and anywhere.search(whole)]
        for number, line in enumerate(tree.code(name) if possible else (), 1):
            for pattern, words, _ in possible:
                if pattern.search(line):
                    yield name, number, "the house writes: " + words


def check_comments(tree):
    for name in all_code(tree):
        lines, code = tree.lines(name), tree.code(name)
        for number, line in enumerate(lines, 1):
            if RULER.match(line) and not SECTION.match(line):
                yield name, number, "a section begins with one line in lower case: // --- words"
            place = line.find("///")
            if place >= 0 and name.endswith(".cpp") and code[number - 1][place] == " ":
                yield name, number, "/// is for declarations in headers, // for all else"
            if line == "namespace {" and lines[number:number + 1] == [""]:
                yield name, number + 1, "no blank line behind the brace of an anonymous namespace"


def check_openings(tree):
    """In a header, or in a source whose headers do not say it, what the file is about."""
    if HOME not in tree.files:
        return
    for name in all_code(tree):
        if name.endswith("_test.cpp") or opens_with_comment(tree, name):
            continue
        if not any(opens_with_comment(tree, header) for header in own_headers(tree, name)):
            yield name, 1, "a file opens with a comment: its subject, its thread or process, what it leaves to others"


def opens_with_comment(tree, name):
    first = next((line for line in tree.lines(name) if line and line != "#pragma once"), "//")
    return first.startswith("//")


def own_headers(tree, name):
    """The headers that declare what a source defines, and say what it is about."""
    folder, file = os.path.split(name)
    folders = [folder, "src/vex/core"] if folder.startswith("src/vex_core/") else [folder]
    headers = (f"{folder}/{place(file)}.h" for folder in folders if name.endswith(".cpp"))
    return (header for header in headers if header in tree.files)


def check_type_names(tree):
    for name in all_code(tree):
        if not name.startswith("src/vex/core/"):
            for number, line in enumerate(tree.code(name), 1):
                found = PREFIXED.match(line)
                if found and found[1] not in PREFIXED_ALLOWED:
                    yield name, number, f"{found[1]}: a C or E in front is for the types of src/vex/core/"


def check_file_names(tree):
    for name in tree.named(*CPP, ".py", ".lua"):
        if not FILE_NAME.fullmatch(os.path.basename(name)):
            yield name, 1, "names of files are snake_case"


CHECKS = (check_format, check_width, check_lines, check_comments, check_openings, check_type_names, check_file_names)
