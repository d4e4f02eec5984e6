"""One hand in all C++ code: the formatter's layout, and what neither it nor the linter can see."""
import concurrent.futures
import os
import re
import shutil
import subprocess
import sys

from tidy_rules.tree import CPP


def check_format(tree):
    if ".clang-format" not in tree.files:
        return
    if not shutil.which("clang-format"):
        print("tidy: clang-format is not installed, the layout of C++ code was not checked", file=sys.stderr)
        return
    names = [name for below in ("src/", "tests/", "bench/") for name in tree.named(*CPP, below=below)]
    batches = [names[start:start + 20] for start in range(0, len(names), 20)]
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        for result in pool.map(lambda batch: unformatted(tree, batch), batches):
            yield from result


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


CHECKS = (check_format,)
