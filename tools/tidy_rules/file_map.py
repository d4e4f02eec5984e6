"""docs/ARCHITECTURE.md tells of each source file what it is for, and of each room what it may include."""
import os
import re

from tidy_rules.rooms import ANY, ARROWS
from tidy_rules.tree import CPP

PAGE = "docs/ARCHITECTURE.md"
FOLDERS = ("src/vex/apps/", "src/vex_core/")
HEADING = re.compile(r"#+ (?:`(?P<folder>src/[\w/]+/)`)?")
ENTRY = re.compile(r"- `(?P<name>\w+)`: ")
ROOM = re.compile(r"\| `(?P<room>\w+)/` \|.*\| (?P<others>[\w -]+) \|$")


def place(name):
    """What the map calls a source file: header, source and the parts for one system share a name."""
    return re.sub(r"(?:_p|_linux|_posix|_solaris)+$", "", os.path.splitext(name)[0])


def check_map(tree):
    if PAGE not in tree.files:
        return
    sources = {place(name): name for folder in FOLDERS for name in tree.named(*CPP, below=folder)}
    told = set()
    folder = None
    for number, line in enumerate(tree.lines(PAGE), 1):
        heading, entry = HEADING.match(line), ENTRY.match(line)
        if heading:
            folder = heading["folder"]
        elif folder and entry:
            path = folder + entry["name"]
            if path not in sources:
                yield PAGE, number, f"there is no {path}"
            elif path in told:
                yield PAGE, number, f"{path} stands here twice"
            told.add(path)
    for path, name in sources.items():
        if path not in told:
            yield name, 1, f"{PAGE} does not say what it is for"


def check_room_table(tree):
    rows = {row["room"]: (number, row["others"]) for number, line in enumerate(tree.lines(PAGE), 1)
            if (row := ROOM.match(line))} if PAGE in tree.files else {}
    for room, others in ARROWS.items() if rows else ():
        number, shown = rows.get(room, (1, "nothing"))
        wanted = {ANY: "all", "": "-"}.get(others, others)
        if shown != wanted:
            yield PAGE, number, f"{room}/ may include {wanted}, and not {shown}"


CHECKS = (check_map, check_room_table)
