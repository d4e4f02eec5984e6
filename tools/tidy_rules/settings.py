"""The settings that the code knows are those of docs/SETTINGS.md, with the same defaults."""
import re

from tidy_rules.tree import CPP

SETTING = re.compile(r'"(?P<key>app\.[\w.+]+|(?:vex|trend)\.[A-Z]\w*|sqlite\.config\.\w+)"')
TRACE_MODULE = re.compile(r'vex\.log"\)\("([\w.]+)"|Trace\w*\("([\w.]+)"')
# Keys whose names are put together at run time, and the code that does it.
COMPOSED_KEYS = (
    (re.compile(r"sqlite\.config\.(\w+)"), '{{"{}", Apply'),
    (re.compile(r"vex\.plugin\.NAME(\.\w+)"), '"vex.plugin." .. entry.id .. "{}"'),
)


PAGE = "docs/SETTINGS.md"


def documented_settings(tree):
    """The rows of the page's tables: key, file, line, default as written."""
    columns = []
    for number, line in enumerate(tree.lines(PAGE) if PAGE in tree.files else [], 1):
        cells = [cell.strip() for cell in line.strip().strip("|").split("|")] if line.startswith("|") else []
        if not cells:
            columns = []
        elif cells[0] == "key":
            columns = cells
        elif columns and "." in cells[0]:
            yield cells[0], PAGE, number, dict(zip(columns, cells)).get("default", "")


def check_settings(tree):
    """Each setting in the code has its row on the page, and each row has its setting."""
    rows = list(documented_settings(tree))
    if not rows:
        return
    # The code asks for what lies below a key where the page says NAME.
    documented = {key.removesuffix(".NAME") for key, *_ in rows}
    sources = [*tree.named(*CPP, below="src/"), *tree.named(".lua", below="lua/")]
    code = "\n".join(tree.text(name) for name in sources)
    modules = {module for pair in TRACE_MODULE.findall(code) for module in pair}
    used = set()
    for name in sources:
        for number, line in enumerate(tree.lines(name), 1):
            for found in SETTING.finditer(line.split("//")[0]):
                key = found["key"]
                used.add(key)
                if key not in documented and key not in modules:
                    yield name, number, f"the setting {key} has no row in {PAGE}"
    for key, name, number, _ in rows:
        composed = [made.format(match[1]) for pattern, made in COMPOSED_KEYS if (match := pattern.fullmatch(key))]
        if key.removesuffix(".NAME") not in used and not any(text in code for text in composed):
            yield name, number, f"nothing in the code knows the setting {key}"

# Where the code has the default of a setting: the group of the pattern is the value as written there.
DEFAULTS = {
    **{key: ("src/vex_core/domain/known_settings.h", rf'"{re.escape(key)}", SettingKind::\w+, ([^,]+),')
       for key in ("app.events.keepdays", "app.events.keeprows", "app.log.size", "app.log.count", "app.lua.cache",
                   "app.unzip.maxbytes", "app.unzip.maxentries",
                   "vex.CollectInterval", "vex.HeartbeatInterval", "vex.HeartbeatKeepDays", "vex.HeartbeatKeepRows")},
    "sqlite.config.busy_timeout": ("src/vex_core/database/sqlite_connection.h", r"busyTimeoutMs = (\d+);"),
    "sqlite.config.synchronous": ("src/vex_core/database/sqlite_connection.h",
                                  r"fullSynchronous = (\d+);[^}]* synchronous = fullSynchronous;"),
    "trend.Disk": ("lua/plugins/trend/plugin.lua", r'"trend.Disk", "([^"]*)"'),
    "trend.KeepDays": ("lua/plugins/trend/plugin.lua", r'"trend.KeepDays", (\d+)'),
}


def plain_value(text):
    """A default as the code writes it, "10 * 1024" or "static_cast<std::uint64_t>(4) << 30", as the documents do."""
    text = re.sub(r"static_cast<[\w:]+>\((\d+)\)", r"\1", text)
    return str(eval(text)) if re.fullmatch(r"[\d *<]+", text) else text  # pylint: disable=eval-used


def check_defaults(tree):
    """A default that is a number, a truth value or a path is the one in the code."""
    for key, name, number, default in documented_settings(tree):
        if key in DEFAULTS:
            source, pattern = DEFAULTS[key]
            found = re.search(pattern, tree.text(source)) if source in tree.files else None
            value = plain_value(found[1]) if found else f"nothing that {source} shows"
            if value != default:
                yield name, number, f"the default of {key} is {value}"
        elif re.fullmatch(r"-?\d+", default):
            yield name, number, f"where does the code have the default of {key}? Add it to DEFAULTS in tools/tidy_rules/settings.py"


CHECKS = (check_settings, check_defaults)
