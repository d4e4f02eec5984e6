"""Makes packages and markers with the writers that operators use."""
import os
import subprocess
import zipfile

from conftest import BUILD_NUMBER, VERSION

VERSIONED = f"Agent-Feature-Linux-{VERSION}-{BUILD_NUMBER}.x86_64"


def with_zipfile(path, files):
    with zipfile.ZipFile(path, "w", zipfile.ZIP_DEFLATED) as archive:
        for name, content in files.items():
            archive.writestr(name, content)


def _tree_of(folder, files):
    for name, content in files.items():
        target = os.path.join(folder, name)
        os.makedirs(target if name.endswith("/") else os.path.dirname(target), exist_ok=True)
        if not name.endswith("/"):
            with open(target, "wb") as file:
                file.write(content.encode() if isinstance(content, str) else content)


def with_info_zip(path, files, scratch):
    _tree_of(scratch, files)
    subprocess.run(["zip", "-q", "-X", "-r", os.path.abspath(path), "."], cwd=scratch, check=True)
    if not path.endswith(".zip") and os.path.exists(path + ".zip"):
        os.rename(path + ".zip", path)


def with_bsdtar(path, files, scratch):
    _tree_of(scratch, files)
    names = sorted({name.split("/")[0] for name in files})
    subprocess.run(["bsdtar", "-c", "--format", "zip", "-f", os.path.abspath(path), *names], cwd=scratch, check=True)


WRITERS = {
    "zipfile": lambda path, files, scratch: with_zipfile(path, files),
    "info-zip": with_info_zip,
    "bsdtar": with_bsdtar,
}
