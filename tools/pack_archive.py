#!/usr/bin/env python3
"""Packs files into an archive: pack_archive.py [--names] OUT NAME=PATH...

NAME is the place inside the archive, PATH a file or a folder (its *.lua files, at any depth). With --names the entries are
empty: an uninstall marker lists a plugin's files and needs nothing of what was in them. Entries are sorted and carry one
fixed time, so the same sources always give the same bytes.
"""
import os
import sys
import zipfile

FIXED_TIME = (1980, 1, 1, 0, 0, 0)


def collect(arguments):
    for argument in arguments:
        name, _, path = argument.partition("=")
        if os.path.isdir(path):
            for folder, _, files in os.walk(path):
                for file in files:
                    if file.endswith(".lua"):
                        full = os.path.join(folder, file)
                        yield f"{name}/{os.path.relpath(full, path)}".replace(os.sep, "/"), full
        else:
            yield name, path


def main():
    arguments = sys.argv[1:]
    names_only = arguments[:1] == ["--names"]
    if names_only:
        del arguments[0]
    if len(arguments) < 2:
        sys.exit(__doc__)
    out = arguments[0]
    os.makedirs(os.path.dirname(os.path.abspath(out)), exist_ok=True)
    temporary = out + ".tmp"
    with zipfile.ZipFile(temporary, "w", zipfile.ZIP_DEFLATED, compresslevel=9) as archive:
        for name, path in sorted(collect(arguments[1:])):
            info = zipfile.ZipInfo(name, FIXED_TIME)
            info.compress_type = zipfile.ZIP_DEFLATED
            info.create_system = 3
            info.external_attr = 0o100644 << 16
            with open(path, "rb") as source:
                archive.writestr(info, b"" if names_only else source.read())
    os.replace(temporary, out)


if __name__ == "__main__":
    main()
