"""One-line changes of C++ code that an attentive test should notice; tools/mutate tries them."""
import re

from tidy_rules.cpp import code_lines

# What stands for what. The layout has blanks around operators, which keeps templates, references and pointers out.
SWAPS = {" == ": [" != "], " != ": [" == "], " < ": [" <= ", " > "], " <= ": [" < "], " > ": [" >= ", " < "], " >= ": [" > "],
         " && ": [" || "], " || ": [" && "], " + ": [" - "], " - ": [" + "], " * ": [" / "], " / ": [" * "], " % ": [" / "],
         " += ": [" -= ", " = "], " -= ": [" += "], " |= ": [" &= "], " &= ": [" |= "], " & ": [" | "], " << ": [" >> "], " >> ": [" << "]}
SWAP = re.compile("|".join(map(re.escape, sorted(SWAPS, key=len, reverse=True))))
NUMBER = re.compile(r"(?<![\w.'])(0x[0-9a-fA-F']+|\d[\d']*)(?![\w.'])")
WORD = re.compile(r"\b(?:true|false)\b")
STEP = re.compile(r"\+\+|--")
NOT = re.compile(r"(?<![\w)\]])!(?=[\w(:*])")
FLAG = re.compile(r" \| [\w:]+(?![\w:(.\->])")
FIRST_FLAG = re.compile(r"(?<![\w.>:])(?<!\| )[\w:]+ \| ")
CONDITION = re.compile(r"\b(if|while) \(")
CHOICE = re.compile(r" \? ")
RETURN = re.compile(r"^(\s*)return (.+);$")
JUMP = re.compile(r"^\s*(?:break|continue|return);$")
CALL = re.compile(r"^\s*[A-Za-z_:*][\w:.>\-\[\]*]*(?:\([^;]*\)[\w:.>\-]*)?\([^;]*\);$")
ASSIGNMENT = re.compile(r"^\s*\*?[A-Za-z_][\w.:>\-\[\]]*(?:\(\))?[\w.>\-]* [|&+*/-]?= .+;$")
STATEMENT = re.compile(r"^\s*(?:(?:\+\+|--)[\w.>\-]+|[\w.>\-]+(?:\+\+|--)|delete(?:\[\])? [^;]+|throw\b[^;]*);$")
NO_STATEMENT = re.compile(r"^\s*(?:return|if|for|while|switch|else|case|using|static_assert|template|typedef|default)\b")
TEXT = re.compile(r'"{3,}')
# Lines that decide nothing at run time, and trace lines, which are for us alone.
SKIPPED = re.compile(r"^\s*(?:#|static_assert|using |namespace |template|typedef |extern |friend )|\bVEX_TRACE\(|\bWriteTraceLine\(|"
                     r"\bLogTrace\(|\bwxASSERT|\bassert\(|= (?:0|default|delete);$")
WEIGHTS = {"text": 0.15}


def closing(code, start):
    """The place of the parenthesis that closes the one at `start`, or -1 when it is on another line."""
    depth = 0
    for place in range(start, len(code)):
        depth += {"(": 1, ")": -1}.get(code[place], 0)
        if depth == 0:
            return place
    return -1


def balanced(code):
    return code.count("(") == code.count(")") and code.count("{") == code.count("}")


def changes_of_line(line, code, begins):
    """Pairs of a kind and the changed line. `code` is the line without comments and texts; `begins` says that a statement does."""
    def put(kind, start, end, text):
        return kind, line[:start] + text + line[end:]

    for found in SWAP.finditer(code):
        for other in SWAPS[found.group()]:
            yield put("operator", *found.span(), other)
    for found in NUMBER.finditer(code):
        digits = found.group().replace("'", "")
        number = int(digits, 8 if re.fullmatch("0[0-7]+", digits) else 0)
        yield put("number", *found.span(), str(number + 1))
        if number > 0:
            yield put("number", *found.span(), str(number - 1))
    for found in WORD.finditer(code):
        yield put("constant", *found.span(), "false" if found.group() == "true" else "true")
    for found in STEP.finditer(code):
        yield put("operator", *found.span(), "--" if found.group() == "++" else "++")
    for found in NOT.finditer(code):
        yield put("negation", *found.span(), "")
    for pattern in (FLAG, FIRST_FLAG):
        for found in pattern.finditer(code):
            yield put("flag", *found.span(), "")
    for found in CONDITION.finditer(code):
        end = closing(code, found.end() - 1)
        if end > 0:
            start = code.rfind("; ", found.end(), end) + 2
            start = start if start > 1 else found.end()
            for value in ("true", "false") if found[1] == "if" else ("false",):
                if code[start:end] != value:
                    yield put("condition", start, end, value)
    for found in CHOICE.finditer(code):
        yield put("condition", *found.span(), " || true ? ")
        yield put("condition", *found.span(), " && false ? ")
    for found in TEXT.finditer(code):
        if line[found.start()] == '"':
            yield put("text", found.start() + 1, found.start() + 1, "~")
    if found := RETURN.match(code):
        start, end = found.span(2)
        if balanced(found[2]) and found[2] not in ("{}", "true", "false", "0", "nullptr", "std::nullopt"):
            yield put("result", start, end, "{}")
            if not NUMBER.fullmatch(found[2]) and not found[2].startswith('"'):
                yield put("result", start, end, f"!({line[start:end]})")
    indent = len(code) - len(code.lstrip())
    if JUMP.match(code):
        yield put("jump", indent, len(code), "{}")
    elif begins and balanced(code) and not NO_STATEMENT.match(code) and any(
            pattern.match(code) for pattern in (CALL, ASSIGNMENT, STATEMENT)):
        yield put("statement", indent, len(code), "{}")


def changes_of(text):
    """For each line of a source that can be changed: its index and its changes."""
    lines, code = text.split("\n"), [line.rstrip() for line in code_lines(text)]
    before = "{"
    for index, (line, plain) in enumerate(zip(lines, code)):
        begins = before.endswith((";", "{", "}", ")", ":", "else")) and not plain.lstrip().startswith(".")
        if plain.strip():
            before = plain
        if not SKIPPED.search(plain):
            found = [change for change in changes_of_line(line, plain, begins) if change[1] != line]
            if found:
                yield index, found


def parts(text, count, random):
    """`count` parts of a source from top to bottom, each a list of changes (index of the line, kind, changed line) in the order in
    which they are to be tried. Each line of a part is as likely to come first as any other."""
    places = list(changes_of(text))
    for part in range(count):
        drawn = []
        for index, found in places[len(places) * part // count:len(places) * (part + 1) // count]:
            for kind, line in found:
                drawn.append((random.random() ** (len(found) / WEIGHTS.get(kind, 1)), index, kind, line))
        yield [change[1:] for change in sorted(drawn, reverse=True)]
