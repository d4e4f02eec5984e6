#!/usr/bin/env python3
"""Writes the manual page of the settings: manual_page.py SETTINGS PAGE OUT

PAGE is a page of the manual with a line @SETTINGS@, in whose place comes a list for each table of settings in SETTINGS, the
document that the code's table of settings is compared with. A key that the page itself has in a list is left to the page.
"""
import os
import re
import sys

MARK = "@SETTINGS@"


def tables(text):
    """Of each table of keys: the heading that it stands below, and its rows as dictionaries by column."""
    heading, columns, rows = "", [], []
    for line in [*text.split("\n"), ""]:
        cells = [cell.strip() for cell in re.split(r"(?<!\\)\|", line.strip().strip("|"))] if line.startswith("|") else []
        if not cells:
            if rows:
                yield heading, rows
            columns, rows = [], []
        elif not columns:
            columns = cells
        elif columns[0] == "key" and not set(line) <= set("|- "):
            rows.append(dict(zip(columns, cells)))
        if line.startswith("#"):
            heading = line.lstrip("# ")


def plain(text):
    """Without the marks of the document, and with those of the page: whole sentences begin lines."""
    text = re.sub(r"\[([^\]]*)\]\([^)]*\)", r"\1", text).replace("`", "")
    text = re.sub(r"\\(.)", r"\1", text).replace("\\", "\\e").replace("-", "\\-")
    return re.sub(r"^([.'])", r"\\&\1", re.sub(r"(?<=[a-z0-9)]\.) (?=[A-Z])", "\n", text), flags=re.M)


def sentence(text):
    """With a capital letter, unless it begins with the name of a key or an option."""
    return (text if re.match(r"[a-z]+[._/]", text) else text[:1].upper() + text[1:]).rstrip(".") + "."


def sections(text, known):
    for heading, rows in tables(text):
        rows = [row for row in rows if row["key"] not in known]
        if not rows:
            continue
        yield f".Sh {plain(heading).upper()}\n.Bl -tag -width Ds"
        for row in rows:
            facts = [("Type", row.get("type, range")), ("Default", row.get("default")), ("Written by", row.get("writer"))]
            yield f".It Ic {plain(row['key'])}\n{plain(sentence(row['meaning']))}"
            if any(value for _, value in facts):
                yield "\n".join(plain(sentence(f"{name}: {value}")) for name, value in facts if value)
        yield ".El"


def main():
    if len(sys.argv) != 4:
        sys.exit(__doc__)
    settings, page, out = sys.argv[1:]
    with open(settings, encoding="utf-8") as file:
        text = file.read()
    with open(page, encoding="utf-8") as file:
        frame = file.read()
    if frame.count(MARK + "\n") != 1:
        sys.exit(f"{page} has no line {MARK}")
    known = set(re.findall(r"^\.It Ic (\S+)$", frame, re.M))
    os.makedirs(os.path.dirname(os.path.abspath(out)), exist_ok=True)
    with open(out, "w", encoding="utf-8") as file:
        file.write(frame.replace(MARK + "\n", "\n".join(sections(text, known)) + "\n"))


if __name__ == "__main__":
    main()
