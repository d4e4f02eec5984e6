"""The operator's document knows every line that the supervisor can log."""
import os
import re

from conftest import ROOT

# Where the texts are, and what makes lines of them.
SOURCES = {"daemon.cpp": r"wxLog\w+", "run.cpp": r"wxLog\w+", "restart.cpp": r"wxString::Format"}


def texts():
    for name, maker in SOURCES.items():
        with open(os.path.join(ROOT, "src", "vex", "apps", "vex", name)) as file:
            for match in re.finditer(maker + r'\(\s*((?:"(?:[^"\\]|\\.)*"\s*)+)', file.read()):
                yield name, "".join(re.findall(r'"((?:[^"\\]|\\.)*)"', match.group(1)))


def test_every_text_of_the_supervisor_is_explained_to_the_operator():
    with open(os.path.join(ROOT, "docs", "OPERATIONS.md")) as file:
        document = file.read()
    # What is filled in stands there as a letter, a name or dots; the words between must stand there as they are.
    unknown = []
    for name, text in texts():
        words = [piece.strip(" .,:;()=<>'") for piece in re.split(r"%[-.\d]*[a-z]+", text)]
        unknown += [f"{name}: {text}" for piece in words if len(piece) > 4 and piece not in document]
    assert len(list(texts())) > 15 and unknown == []
