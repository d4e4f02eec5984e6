"""The documents name what is there: links, places, packages."""
import os
import re


def check_links(tree):
    """Links of the documents, and the places in the tree that their text names."""
    link = re.compile(r"\]\(([^)\s]+)\)")
    place = re.compile(r"(?<![\w./>-])(?:src|docs|lua|tests|bench|tools|packaging|changes|cmake)/[\w.*/-]*\w")
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
            for target in place.findall(line):
                if not tree.has(target):
                    yield name, number, f"it names {target}, which is not there"


def headings(tree, name):
    """The names by which links reach the headings of a document."""
    titles = [line.lstrip("#").strip() for line in tree.lines(name) if line.startswith("#")]
    return {re.sub(r"[^\w -]", "", title.lower()).replace(" ", "-") for title in titles}


def check_packages(tree):
    """Each package that a fresh machine gets has its reason."""
    listed, reasons = "tools/packages.txt", "docs/DEPENDENCIES.md"
    if listed not in tree.files:
        return
    explained = set(re.findall(r"`([^`]+)`", tree.text(reasons)))
    packages = {line: number for number, line in enumerate(tree.lines(listed), 1) if line and not line.startswith("#")}
    for package, number in packages.items():
        if package not in explained:
            yield listed, number, f"{reasons} does not say why {package} is needed"


CHECKS = (check_links, check_packages)
