"""Which folder may include what, and what the declarations of the core library show."""
import re

from tidy_rules.tree import CPP

INCLUDE = re.compile(r'^\s*#\s*include\s+["<]([^">]+)[">]')
# What each folder may include, beside the standard library and the system's headers (by the start of the text between the
# brackets or quotes).
INCLUDES = {
    "src/slb3/": ("slb3/", "lua", "lauxlib", "lualib"),
    "src/vex/core/": ("vex/core/", "slb3/", "wx/", "lua"),
    "src/vex_core/": ("vex_core/", "vex/core/", "slb3/", "wx/", "lua", "sqlite3", "openssl/", "libdeflate", "isa-l/", "zlib", "pugi"),
    "src/vex/apps/vex/": ("vex/apps/vex/", "vex/core/", "slb3/", "wx/", "lua", "openssl/"),
    "src/vex/apps/vexctl/": ("vex/apps/vexctl/", "vex/apps/vex/", "vex/core/", "vex_core/", "slb3/", "wx/", "CLI/", "nlohmann/",
                             "libdeflate", "zlib"),
}
# What a rule is about: our own folders and the libraries that some folder uses.
RULED = tuple({start for allowed in INCLUDES.values() for start in allowed} | {"vex/"})
# What the declarations of the core library keep to themselves. The one type of Lua's that a host hands over is lua_State.
INTERNALS = re.compile(r"\b(?:sqlite3\w*|lua_(?!State\b)\w+|luaL_\w+|Zip[A-Z]\w*|libdeflate\w*|isal_\w+|z_stream\w*|pugi)\b")


def check_includes(tree):
    for folder, allowed in INCLUDES.items():
        for name in tree.named(*CPP, below=folder):
            for number, line in enumerate(tree.lines(name), 1):
                found = INCLUDE.match(line)
                if not found:
                    continue
                target = found.group(1)
                if target.startswith(RULED) and not target.startswith(allowed):
                    yield name, number, f"{folder} does not include {target}"


def check_paths(tree):
    for name in tree.named(*CPP, below="src/"):
        for number, line in enumerate(tree.lines(name), 1):
            found = INCLUDE.match(line)
            if found and ".." in found[1].split("/"):
                yield name, number, f"{found[1]}: an include is named from src/ on, so that its rules are seen to hold"


def check_declarations(tree):
    for name in tree.named(".h", below="src/vex/core/"):
        for number in tree.matches(name, INTERNALS, code=True):
            if not INCLUDE.match(tree.lines(name)[number - 1]):
                yield name, number, "the declarations of the core library show nothing of what it is built on"


def check_headers(tree):
    for name in tree.named(".h"):
        if "#pragma once" not in tree.lines(name):
            yield name, 1, "a header begins with #pragma once"


CHECKS = (check_includes, check_paths, check_declarations, check_headers)
