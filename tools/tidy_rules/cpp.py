"""C++ text without what is not code."""
import re

_NO_CODE = re.compile(r"""
      //[^\n]* | /\*.*?\*/                                      # comments
    | (?:u8|[uUL])?R"(?P<mark>[^()\\\s]{0,16})\(.*?\)(?P=mark)" # raw texts
    | "(?:\\.|[^"\\\n])*"
    | (?<![0-9A-Za-z_'])'(?:\\.|[^'\\\n])*'                     # a letter, and not the ' of 1'000
    """, re.X | re.S)


def _blanked(found):
    text = found.group()
    # What stands where a text stood keeps its place an expression's.
    filler = " " if text.startswith("/") else '"'
    return re.sub(r"[^\n]", filler, text)


def code_lines(text):
    """The lines of the text with comments blanked out and texts replaced by quotes, so that all else keeps its place.
    Include lines stay as they are."""
    return [line if "include" in line and re.match(r"\s*#\s*include\b", line) else code
            for line, code in zip(text.split("\n"), _NO_CODE.sub(_blanked, text).split("\n"))]
