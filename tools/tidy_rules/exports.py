"""What the built libraries show is what tests/exports/ lists."""
import os
import re
import subprocess

LIBRARIES = {"vex_core": "vex_core.so", "SLB3": "libSLB3.so"}
OWN_SYMBOL = re.compile(r"(?:vtable for |VTT for |typeinfo (?:name )?for |guard variable for |(?:non-)?virtual thunk to )?"
                        r"(?:VexCore|SLB3)::")


def exported(library):
    """What a library shows. Weak symbols of templates that others' headers define come and go with the compiler."""
    output = subprocess.run(["nm", "-D", "--defined-only", "-C", library], capture_output=True, text=True, check=True).stdout
    symbols = set()
    for line in output.splitlines():
        kind, name = re.match(r"[0-9a-f]*\s+(\w) (.*)", line).groups()
        if kind in "WVuwv" and not OWN_SYMBOL.match(name):
            continue
        symbols.add(re.sub(r"@@?[\w.]+$", "", name))
    return symbols


def check_exports(root, folder, update):
    for short, file in LIBRARIES.items():
        listed_in = f"tests/exports/{short}.txt"
        found = exported(os.path.join(folder, file))
        path = os.path.join(root, listed_in)
        if update:
            os.makedirs(os.path.dirname(path), exist_ok=True)
            with open(path, "w", encoding="utf-8") as output:
                output.write("".join(name + "\n" for name in sorted(found)))
            continue
        with open(path, encoding="utf-8") as listing:
            wanted = [line.rstrip("\n") for line in listing]
        for number, name in enumerate(wanted, 1):
            if name not in found:
                yield listed_in, number, f"{file} does not show {name}"
        for name in sorted(found.difference(wanted)):
            yield listed_in, len(wanted), f"{file} shows {name}, which is not listed"
