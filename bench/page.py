"""docs/PERFORMANCE.md, made of figures and of what bench/rows.toml says of each measure."""
import glob
import json
import os
import re
import shutil
import statistics
import tomllib

PAGE, PLOTS, WORDS, COUNTS = "docs/PERFORMANCE.md", "docs/growth", "bench/rows.toml", "bench/counts.json"
WAITS = "bench/waits.md"  # a section of the page that is kept by hand
KINDS = ("before", "change", "limit")
SHOWN = {"date": "day", "processors": "processors", "system": "system", "kernel": "kernel"}

HEAD = """# What is fast, against what, and what limits it

Each figure is a ratio to a yardstick that the same program measures in the same run. Mostly the two take turns, and the turn counts of
which the ratio is in the middle, so that a machine that is slow for a while is so for both. `tools/bench NAME` measures one of them again;
`tools/bench --all` measures all, and writes this page of them and of the words in `bench/rows.toml` and `bench/waits.md`: nobody edits it.
A claim is an upper bound of the ratio, and a bench that finds more fails.
"""


class BadWords(Exception):
    """A file of words that cannot be read."""


def together(benches):
    """{bench: [the rows of each run]} as one row a measure and yardstick, which has the middle of the runs and the range of the ratios."""
    rows, at = [], {}
    for bench, runs in benches.items():
        for row in (row for run in runs for row in run):
            name = row["what"], row["yardstick"]
            if name not in at:
                at[name] = {**row, "bench": bench, "ratios": [], "all": []}
                rows.append(at[name])
            one = at[name]
            one["kept"] &= row["kept"]
            one["ratios"].append(row["ratio"])
            one["all"].append((row["ours"], row["theirs"]))
    for row in rows:
        every = row.pop("all")
        row["ours"], row["theirs"] = (statistics.median(values) for values in zip(*every))
        row["ratio"] = statistics.median(row["ratios"])
    return rows


def read_words(path):
    """{group: {measure: {before, change, limit}}}, in the order of the file."""
    try:
        with open(path, "rb") as file:
            words = tomllib.load(file)
    except tomllib.TOMLDecodeError as error:
        raise BadWords(f"{WORDS}: {error}") from error
    seen = set()
    for group, measures in words.items():
        for what, said in measures.items():
            if not isinstance(said, dict) or sorted(said) != sorted(KINDS) or not all(isinstance(text, str) for text in said.values()):
                raise BadWords(f"{WORDS}: '{what}' in '{group}' needs the texts {', '.join(KINDS)}, and nothing else")
            if what in seen:
                raise BadWords(f"{WORDS}: '{what}' stands there twice")
            seen.add(what)
    return words


def compare(words, rows):
    """What of measures and words does not belong together, a sentence each."""
    said = {what for measures in words.values() for what in measures}
    measured = {row["what"]: row["bench"] for row in rows}
    return [*(f"{WORDS}: '{what}' is measured by {bench} and has no words" for what, bench in measured.items() if what not in said),
            *(f"{WORDS}: '{what}' has words, and no bench has measured it" for measures in words.values() for what in measures
              if what not in measured)]


# --- what is written

def cell(text):
    return " ".join(text.split()).replace("|", "\\|")


def number(value):
    """Three digits that count, without an exponent."""
    if value == 0 or 0.001 <= abs(value) < 1000:
        return f"{value:.3g}"
    return f"{value:,.0f}" if abs(value) >= 1000 else f"{value:.2g}"


def spread(ratios):
    low, high = min(ratios), max(ratios)
    return f"{low:.3f} to {high:.3f}"


def figures_table(rows):
    yield "| measure | yardstick | ours | the yardstick's | ratio | of all runs | claim | |"
    yield "|---|---|---|---|---|---|---|---|"
    for row in rows:
        claim = "" if row["claim"] is None else f"{row['claim']:.2f}"
        kept = "" if row["claim"] is None else "kept" if row["kept"] else "**beyond**"
        yield (f"| {cell(row['what'])} | {cell(row['yardstick'])} | {number(row['ours'])} {row['unit']} | {number(row['theirs'])} {row['unit']} "
               f"| {row['ratio']:.3f} | {spread(row['ratios'])} | {claim} | {kept} |")


def words_table(measures, benches):
    yield "| measure | before | what was changed | what limits it now |"
    yield "|---|---|---|---|"
    for what, said in measures.items():
        bench = f"`{benches[what]}`" if what in benches else "**not measured**"
        yield f"| {cell(what)}: {bench} | " + " | ".join(cell(said[kind]) for kind in KINDS) + " |"


def machine_lines(told):
    about = told["machine"]
    runs = max(len(row["ratios"]) for row in told["rows"])
    yield f"{about['date']}, {runs} run{'s' if runs > 1 else ''}, {about['processors']}, {about['system']}, Linux {about['kernel']}. "
    yield ", ".join(f"{name} {version}" for name, version in about.items() if name not in SHOWN) + ". "
    if told["seconds"]:
        minutes = max(1, round(sum(told["seconds"].values()) / 60))
        yield f"A run took {minutes} minute{'s' if minutes > 1 else ''}. "
    again = told.get("again", [])
    if again:
        yield f"{' and '.join(filter(None, (', '.join(again[:-1]), again[-1])))} {'were' if len(again) > 1 else 'was'} measured again afterwards. "
    busy = told["load"]
    yield "Nothing else ran." if busy <= 0.5 else f"The machine had other work (a load of {busy:.1f} when it began), so the times say little."


def wrapped(pieces, width=130):
    """The pieces as one paragraph of lines that are not longer."""
    lines = [""]
    for word in "".join(pieces).split():
        if lines[-1] and len(lines[-1]) + 1 + len(word) > width:
            lines.append("")
        lines[-1] = f"{lines[-1]} {word}".lstrip()
    return lines


def title(plot):
    with open(plot, encoding="utf-8") as file:
        found = re.search(r"<title>(.*?)</title>", file.read())
    return found[1] if found else os.path.basename(plot)


def counts_table(counts):
    yield "| one | instructions |"
    yield "|---|---|"
    for name, counted in counts.items():
        yield f"| {cell(name)} | {counted:,} |"


def text(words, told, counts, plots, waits="", complaints=()):
    benches = {row["what"]: row["bench"] for row in told["rows"]}
    lines = [*HEAD.splitlines(), "", *wrapped(machine_lines(told))]
    if complaints:
        lines += ["", "**Not all was measured, or not all has words:**", "", *(f"- {cell(complaint)}" for complaint in complaints)]
    said = {what for measures in words.values() for what in measures}
    others = {what: dict.fromkeys(KINDS, "") for what in benches if what not in said}
    for group, measures in (*words.items(), *([("Others", others)] if others else ())):
        figured = [row for what in measures for row in told["rows"] if row["what"] == what]
        lines += ["", f"## {group}", "", *([*figures_table(figured), ""] if figured else ()), *words_table(measures, benches)]
    if waits:
        lines += ["", *waits.rstrip("\n").split("\n")]
    if counts:
        about = ", ".join(f"{name} {version}" for name, version in counts["surroundings"].items())
        lines += ["", "## Instructions", "", *wrapped([
            "What users wait for, in instructions, which do not depend on what else a machine does. `./test --ci` counts them again and fails when "
            f"one takes more than 5 % more (`tools/bench --counts`). They come from {about}."]), "", *counts_table(counts["counts"])]
    if plots:
        lines += ["", "## Growth", "", "What a unit of work costs while what it is done among grows. The bench that draws these limits each of them."]
        for plot in plots:
            lines += ["", f"![{title(plot)}](growth/{os.path.basename(plot)})"]
    return "\n".join(lines) + "\n"


def write(root, told, plots):
    """Writes the page and the plots beside it; returns what of words and figures does not belong together, which the page says too."""
    drawn = sorted(glob.glob(os.path.join(plots, "*.svg")))
    counts = None
    if os.path.exists(os.path.join(root, COUNTS)):
        with open(os.path.join(root, COUNTS), encoding="ascii") as file:
            counts = json.load(file)
    words = read_words(os.path.join(root, WORDS))
    complaints = compare(words, told["rows"])
    waits = ""
    if os.path.exists(os.path.join(root, WAITS)):
        with open(os.path.join(root, WAITS), encoding="utf-8") as file:
            waits = file.read()
    page = text(words, told, counts, drawn, waits, [*told["failures"], *complaints])
    os.makedirs(os.path.join(root, PLOTS), exist_ok=True)
    for plot in drawn:
        shutil.copyfile(plot, os.path.join(root, PLOTS, os.path.basename(plot)))
    path = os.path.join(root, PAGE)
    with open(path + ".new", "w", encoding="utf-8") as file:
        file.write(page)
    os.replace(path + ".new", path)
    return complaints
