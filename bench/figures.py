"""The one form in which benches print what they measured, that of figures.h: written by those in Python, read by tools/bench."""
import re

NUMBER = r"[-+]?(?:\d+(?:\.\d*)?(?:e[-+]?\d+)?|inf|nan)"
ROW = re.compile(rf"(?P<what>(?:[^:]|:(?! ))+): (?P<ours>{NUMBER}) (?P<unit>\S.*?), (?P<yardstick>.+) (?P<theirs>{NUMBER}) (?P=unit), "
                 rf"ratio (?P<ratio>{NUMBER})(?: \(claim: at most (?P<claim>{NUMBER})\)(?P<exceeded> EXCEEDED)?)?")
NUMBERS = ("ours", "theirs", "ratio", "claim")


def row(what, ours, yardstick, theirs, unit, claim=None):
    """Prints one measure as one line; both figures are in `unit`. Without a claim the line ends behind the ratio; a claim of 0 is one:
    none at all. True when it holds: a bench ends with status 1 when one of its claims does not."""
    ratio = ours / theirs if theirs else float("nan")
    kept = claim is None or ratio <= claim
    print(f"{what}: {ours:.4g} {unit}, {yardstick} {theirs:.4g} {unit}, ratio {ratio:.3f}"
          + ("" if claim is None else f" (claim: at most {claim:.2f})" + ("" if kept else " EXCEEDED")), flush=True)
    return kept


def middle_turn(turns):
    """The (ours, theirs) of which the ratio is in the middle of all: what slows a machine for a while slows both in the same turn, and
    does not count for one of them alone."""
    return sorted(turns, key=lambda turn: turn[0] / turn[1])[len(turns) // 2]


def read(line):
    """What a line tells, as a table with the names of ROW: `claim` is None where there is none, `kept` whether it holds. None for a
    line that is no row."""
    found = ROW.fullmatch(line.rstrip("\n"))
    if not found:
        return None
    told = {name: text if text is None or name not in NUMBERS else float(text) for name, text in found.groupdict().items()}
    told["kept"] = told.pop("exceeded") is None
    return told
