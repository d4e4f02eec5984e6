"""The documents, and comments in the code, name what is there: links, places, packages."""
import io
import os
import re
import tokenize

from tidy_rules.tree import CPP

SECTION = re.compile(r'(docs/[\w-]+\.md), "([^"]+)"')
PLACE = re.compile(r"(?<![\w./>-])(?:src|docs|lua|tests|bench|tools|packaging|changes|cmake)/[\w.*/-]*\w")


def check_links(tree):
    """Links of the documents, and the places in the tree that their text names."""
    link = re.compile(r"\]\(([^)\s]+)\)")
    for name in tree.named(".md"):
        for number, line in enumerate(tree.lines(name), 1):
            for target in link.findall(line):
                if re.match(r"\w+:", target):
                    continue
                file, _, heading = target.partition("#")
                path = os.path.normpath(os.path.join(os.path.dirname(name), file)) if file else name
                if not tree.has(path):
                    yield name, number, f"a link to {target}, which is not there"
                elif heading and heading not in headings(tree, path):
                    yield name, number, f"a link to {target}, whose heading is not there"
            yield from missing_places(tree, name, number, line)


def missing_places(tree, name, number, text):
    for target in PLACE.findall(text):
        if not tree.has(target):
            yield name, number, f"it names {target}, which is not there"


def comments(tree, name):
    """The comments of a file, by the number of their line; none where none of them can name what is not there."""
    if name.endswith(".py"):
        # What stands behind the first # of a line has all of its comment. To read Python takes long, and few files need it.
        behind = (line[line.index("#"):] for line in tree.lines(name) if "#" in line)
        if not any(SECTION.search(text) or any(missing_places(tree, name, 0, text)) for text in behind):
            return
        try:
            tokens = list(tokenize.generate_tokens(io.StringIO(tree.text(name)).readline))
        except (SyntaxError, tokenize.TokenError):
            return
        yield from ((token.start[0], token.string) for token in tokens if token.type == tokenize.COMMENT)
    else:
        mark = "--" if name.endswith(".lua") else "//"
        yield from ((number, line.partition(mark)[2]) for number, line in enumerate(tree.lines(name), 1) if mark in line)


def check_comments(tree):
    """Places, sections of documents and files of C++ code that comments name."""
    source = re.compile(r"(?<![\w./*<-])\w+\.(?:cpp|h)\b")
    sources = {os.path.basename(name) for name in tree.named(*CPP)}
    for name in tree.named(*CPP, ".lua", ".py"):
        for number, comment in comments(tree, name):
            yield from missing_places(tree, name, number, comment)
            for page, title in SECTION.findall(comment):
                if tree.has(page) and heading_id(title) not in headings(tree, page):
                    yield name, number, f"{page} has no section {title}"
            for target in source.findall(comment) if name.endswith(CPP) else ():
                if target not in sources:
                    yield name, number, f"it names {target}, which is not there"


def headings(tree, name):
    """The names by which links reach the headings of a document."""
    return {heading_id(line.lstrip("#").strip()) for line in tree.lines(name) if line.startswith("#")}


def heading_id(title):
    return re.sub(r"[^\w -]", "", title.lower()).replace(" ", "-")


def check_packages(tree):
    """Each package that a fresh machine gets has its reason."""
    reasons = "docs/DEPENDENCIES.md"
    for listed in sorted(name for name in tree.files if re.fullmatch(r"tools/packages(-\w+)?\.txt", name)):
        explained = set(re.findall(r"`([^`]+)`", tree.text(reasons)))
        for number, package in enumerate(tree.lines(listed), 1):
            if package and not package.startswith("#") and package not in explained:
                yield listed, number, f"{reasons} does not say why {package} is needed"


CHECKS = (check_links, check_comments, check_packages)
