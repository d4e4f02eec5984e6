"""The version of the agent stands in one header; everything else takes it from there."""
import re

SOURCE = "src/vex/apps/vex/version.h"
NUMBER = re.compile(r"^#define VEX_VERSION_[A-Z]+ ([0-9]+)$", re.M)


def check_version(tree):
    numbers = NUMBER.findall(tree.text(SOURCE)) if SOURCE in tree.files else []
    if len(numbers) != 4:
        return
    whole = re.compile(rf"(?<![\d.])\d+\.\d+\.\d+[-.]{numbers[3]}(?!\d)")
    ours = (".".join(numbers), ".".join(numbers[:3]) + "-" + numbers[3])
    for name in tree.files:
        if name == SOURCE or "/corpus/" in name:
            continue
        for number in tree.matches(name, whole):
            for found in whole.findall(tree.lines(name)[number - 1]):
                # Documents show the version as an operator sees it.
                if not name.endswith(".md"):
                    yield name, number, f"the version is taken from {SOURCE}"
                elif found not in ours:
                    yield name, number, f"the version is {ours[1]} by {SOURCE}"


CHECKS = (check_version,)
