#!/usr/bin/env python3
"""Packs Lua sources into an archive: pack_archive.py OUT.vxe NAME=PATH...

NAME is the place inside the archive, PATH a file or a folder (its *.lua files, at any depth). Entries are sorted and
carry one fixed time, so the same sources always give the same bytes.
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
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    out = sys.argv[1]
    os.makedirs(os.path.dirname(os.path.abspath(out)), exist_ok=True)
    temporary = out + ".tmp"
    with zipfile.ZipFile(temporary, "w", zipfile.ZIP_DEFLATED, compresslevel=9) as archive:
        for name, path in sorted(collect(sys.argv[2:])):
            info = zipfile.ZipInfo(name, FIXED_TIME)
            info.compress_type = zipfile.ZIP_DEFLATED
            info.create_system = 3
            info.external_attr = 0o100644 << 16
            with open(path, "rb") as source:
                archive.writestr(info, source.read())
    os.replace(temporary, out)


if __name__ == "__main__":
    main()
