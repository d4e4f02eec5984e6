"""The rooms of the core library: a folder with one subject each, arrows that run one way, and doors between them."""
import re

from tidy_rules.includes import INCLUDE
from tidy_rules.tree import CPP

HOME = "tools/tidy_rules/rooms.py"
FOLDER = "src/vex_core/"
ANY = "*"

# Each room with the rooms that it may include. docs/ARCHITECTURE.md shows the same to readers.
ARROWS = {
    "os": "",
    "base": "",
    "domain": "os base",
    "log": "os base domain",
    "crash": "os base log",
    "process": "os base domain log",
    "threads": "os base log crash",
    "zip": "os base domain",
    "database": "os",
    "events": "os base domain log database",
    "modules": "os base domain log zip",
    "lua": "os base domain log process threads database events",
    "lifecycle": ANY,
}
# The headers of a room that other rooms may include; every other header is the room's own.
OPEN = {
    "os": ANY,
    "base": ANY,
    "domain": "dom_observer.h dom_text.h dom_values.h doorbell.h host_id.h known_settings.h out_folder.h root_dom.h setting_value.h "
              "settings.h work_folder.h",
    "log": "process_log.h",
    "crash": "signal_stack.h",
    "process": "helper_program.h run_program.h",
    "threads": "ending.h thread_registry.h",
    "zip": "zip_reader.h",
    "database": "sqlite_connection.h",
    "events": "agentevent_store.h",
    "modules": "",
    "lua": "lua_db.h worker_list.h",
    "lifecycle": "",
}
# vexctl reads what an agent writes through the library's own code: through these headers, beside those of os/ and base/.
TOOL = "src/vex/apps/vexctl/"
TOOL_DOORS = """
    crash/minidump_format.h database/sqlite_connection.h domain/doorbell.h domain/host_id.h
    domain/settings_report.h domain/settings_sources.h lifecycle/startup.h log/disk_log.h process/run_program.h
    zip/unzip_check.h zip/zip_format.h zip/zip_names.h zip/zip_reader.h
    """.split()
# The room that implements a declaration in src/vex/core/: to include it is to depend on that room.
IMPLEMENTED = {
    "base": "clock.h export.h sendsignal.h",
    "domain": "configfile.h dom.h",
    "log": "log.h",
    "crash": "crash.h",
    "process": "execute.h files.h pidfile.h",
    "threads": "processexit.h runnable.h",
    "zip": "unzip.h",
    "events": "agentevent.h",
    "lua": "luainterpreter.h luastate.h wrap_dom.h",
    "lifecycle": "openssl.h profiler.h sqlitedb.h",
}

PUBLIC = {f"vex/core/{header}": room for room, headers in IMPLEMENTED.items() for header in headers.split()}
ROOM = re.compile(r"(?:src/)?vex_core/(\w+)/(.+)")


def room_of(target):
    """The room that an include leads to; None for one outside of the rooms."""
    inside = ROOM.match(target)
    return inside[1] if inside else PUBLIC.get(target)


def wrong_with(room, target):
    """What is wrong when a file of the room includes the target; None when nothing is."""
    inside, other = ROOM.match(target), room_of(target)
    if other is None or other == room:
        return None
    if ARROWS[room] != ANY and other not in ARROWS[room].split():
        return f"{room}/ does not include {other}/, where {target} is"
    if inside and OPEN.get(other) != ANY and inside[2] not in OPEN.get(other, "").split():
        return f"{target} is private to its room"
    return None


def check_arrows(tree):
    for name in tree.named(*CPP, below=FOLDER):
        place = ROOM.match(name)
        if place and place[1] in ARROWS:
            for number, line in enumerate(tree.lines(name), 1):
                include = INCLUDE.match(line)
                what = wrong_with(place[1], include[1]) if include else None
                if what:
                    yield name, number, what


def check_tool(tree):
    """vexctl goes through its doors, and each of them is used."""
    used = set()
    for name in tree.named(*CPP, below=TOOL):
        for number, line in enumerate(tree.lines(name), 1):
            include = INCLUDE.match(line)
            inside = ROOM.match(include[1]) if include else None
            if inside and OPEN.get(inside[1]) != ANY:
                used.add(f"{inside[1]}/{inside[2]}")
                if f"{inside[1]}/{inside[2]}" not in TOOL_DOORS:
                    yield name, number, f"{include[1]} is none of the doors of vexctl, TOOL_DOORS in {HOME}"
    for door in TOOL_DOORS if HOME in tree.files else ():
        if door not in used:
            yield HOME, 1, f"nothing in vexctl includes {door}: it need not be a door"


def check_rooms(tree):
    """Every source is in a room, and the tables say nothing of what is gone."""
    for name in tree.named(*CPP, below=FOLDER):
        place = ROOM.match(name)
        if not place or place[1] not in ARROWS or "/" in place[2]:
            yield name, 1, "a source of the core library outside the rooms that tools/tidy_rules/rooms.py names"
    for name in tree.named(".h", below="src/vex/core/"):
        if name[len("src/"):] not in PUBLIC and HOME in tree.files:
            yield name, 1, f"which room implements it? Add it to IMPLEMENTED in {HOME}"
    if HOME not in tree.files:
        return
    includes = {(ROOM.match(name)[1], include[1]) for name in tree.named(*CPP, below=FOLDER) if ROOM.match(name)
                for include in map(INCLUDE.match, tree.lines(name)) if include}
    used = {(user, room_of(target)) for user, target in includes}
    above = list(ARROWS)
    for room, others in ARROWS.items():
        for other in others.replace(ANY, "").split():
            if other not in above[:above.index(room)]:
                yield HOME, 1, f"an arrow up, from {room}/ to {other}/"
            if (room, other) not in used:
                yield HOME, 1, f"nothing in {room}/ includes {other}/: it need not be allowed to"
    for room, headers in OPEN.items():
        for header in headers.replace(ANY, "").split():
            if not any(target == f"vex_core/{room}/{header}" and user != room for user, target in includes):
                yield HOME, 1, f"no other room includes {room}/{header}: it need not be open"
    for header in PUBLIC:
        if "src/" + header not in tree.files:
            yield HOME, 1, f"there is no src/{header}"


CHECKS = (check_arrows, check_tool, check_rooms)
