"""The settings that the code knows are those of docs/SETTINGS.md, with the same types, ranges and defaults."""
import re

from tidy_rules.tree import CPP

SETTING = re.compile(r'"(?P<key>app\.[\w.+]+|(?:vex|trend)\.[A-Z]\w*|sqlite\.config\.\w+)"')
TRACE_MODULE = re.compile(r'vex\.log"\)\("([\w.]+)"|Trace\w*\("([\w.]+)"')
# Keys whose names are put together at run time, and the code that does it.
COMPOSED_KEYS = (
    (re.compile(r"sqlite\.config\.(\w+)"), '{{"{}", Apply'),
    (re.compile(r"vex\.plugin\.NAME\.(\w+)"), 'keep(entry, dom, "{}"'),
)
# The table of settings in the code, and how the page writes its types. Types of texts are in the page's own words.
TABLE = "src/vex_core/domain/known_settings.h"
ROW = re.compile(r'\{"(?P<key>[\w.+]+)",\s*SettingKind::(?P<kind>\w+),\s*"[^"]*",\s*(?P<default>[^,]+),\s*(?P<least>[^,]+),'
                 r'\s*(?P<most>[^,]+),\s*SettingPlace::\w+,\s*"[^"]*"(?:,\s*(?P<words>\w+))?\}')
# The words of a choice stand in a constant of that name.
WORDS = r'\b{}\[\] = ((?:"[^"]*"\s*)+);'
TYPES = {"Flag": "boolean", "Switch": "on or off", "Number": "integer", "Size": "size", "Time": "time", "Mode": "mode"}
TRUTHS = {"Flag": ("false", "true"), "Switch": ("off", "on")}
NONE = "noStandard"
CHOICE = "Choice"


PAGE = "docs/SETTINGS.md"


def documented_settings(tree):
    """The rows of the page's tables: key, file, line, and the row's cells by the names of the columns."""
    columns = []
    for number, line in enumerate(tree.lines(PAGE) if PAGE in tree.files else [], 1):
        cells = [cell.strip() for cell in line.strip().strip("|").split("|")] if line.startswith("|") else []
        if not cells:
            columns = []
        elif cells[0] == "key":
            columns = cells
        elif columns and re.fullmatch(r"[\w.+]+", cells[0]):
            yield cells[0], PAGE, number, dict(zip(columns, cells))


def known_settings(tree):
    return list(ROW.finditer(tree.text(TABLE))) if TABLE in tree.files else []


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
    used = {row["key"] for row in known_settings(tree)}
    for name in (name for name in sources if name != TABLE):
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

# Where else the code has the default of a setting: the group of the pattern is the value as written there.
DEFAULTS = {
    "sqlite.config.busy_timeout": ("src/vex_core/database/sqlite_connection.h", r"busyTimeoutMs = (\d+);"),
    "sqlite.config.synchronous": ("src/vex_core/database/sqlite_connection.h",
                                  r"fullSynchronous = (\d+);[^}]* synchronous = fullSynchronous;"),
    "trend.Disk": ("lua/plugins/trend/plugin.lua", r'"trend.Disk", "([^"]*)"'),
    "trend.KeepDays": ("lua/plugins/trend/plugin.lua", r'"trend.KeepDays", (\d+)'),
}


def plain_value(text):
    """A default as the code writes it, "10 * 1024" or "static_cast<std::uint64_t>(4) << 30", as the documents do."""
    if re.fullmatch(r"0[0-7]+", text):
        return text  # octal in C++, and so in the documents
    text = re.sub(r"static_cast<[\w:]+>\((\d+)\)", r"\1", text)
    return str(eval(text)) if re.fullmatch(r"[\d *<]+", text) else text  # pylint: disable=eval-used


def words_of(row):
    found = re.search(WORDS.format(row["words"]), row.string)
    return "".join(re.findall(r'"([^"]*)"', found[1])).split() if found else []


def type_of(row):
    """What the page has as the type of a row of the table; None for a text."""
    if row["kind"] == CHOICE:
        return ", ".join(words_of(row))
    if row["kind"] not in TYPES:
        return None
    word, least, most = TYPES[row["kind"]], plain_value(row["least"]), plain_value(row["most"])
    if row["kind"] in TRUTHS or least == NONE:
        return word
    return f"{word}, at least {least}" if most == "unlimited" else f"{word}, {least} to {most}"


def default_of(row):
    """What the page has as its default; None where that is in the page's own words."""
    if row["default"] == NONE:
        return None
    value = plain_value(row["default"])
    if row["kind"] == CHOICE:
        return words_of(row)[int(value)]
    return TRUTHS[row["kind"]][int(value)] if row["kind"] in TRUTHS else value


def check_table(tree):
    """Each row of the code's table is on the page, with its type, range and default."""
    rows = {key: (name, number, cells) for key, name, number, cells in documented_settings(tree)}
    for row in known_settings(tree) if rows else []:
        key = row["key"]
        if key not in rows:
            yield TABLE, tree.text(TABLE).count("\n", 0, row.start()) + 1, f"the setting {key} has no row in {PAGE}"
            continue
        name, number, cells = rows[key]
        for column, value in (("type, range", type_of(row)), ("default", default_of(row))):
            if column in cells and value is not None and cells[column] != value:
                yield name, number, f"the {column} of {key} is {value}"


def check_defaults(tree):
    """A default that is a number is one in the code."""
    in_table = {row["key"] for row in known_settings(tree)}
    for key, name, number, cells in documented_settings(tree):
        default = cells.get("default", "")
        if key in DEFAULTS:
            source, pattern = DEFAULTS[key]
            found = re.search(pattern, tree.text(source)) if source in tree.files else None
            value = plain_value(found[1]) if found else f"nothing that {source} shows"
            if value != default:
                yield name, number, f"the default of {key} is {value}"
        elif key not in in_table and re.fullmatch(r"-?\d+", default):
            yield name, number, f"where does the code have the default of {key}? Add it to DEFAULTS in tools/tidy_rules/settings.py"


CHECKS = (check_settings, check_table, check_defaults)
