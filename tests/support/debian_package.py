"""The Debian packages of the build, made once a run for all tests that want them, and others of them made of those."""
import fcntl
import os
import re
import shutil
import subprocess

import pytest

from conftest import BUILD, BUILD_NUMBER, ROOT, VERSION

DEB_VERSION = f"{VERSION}-{BUILD_NUMBER}"
# What sources that are no clone are as old as.
TIME = {} if os.path.exists(os.path.join(ROOT, ".git")) else {"SOURCE_DATE_EPOCH": "1700000000"}


def is_release():
    with open(os.path.join(BUILD, "CMakeCache.txt"), encoding="utf-8") as file:
        settings = dict(re.findall(r"^(\w+):\w+=(.*)$", file.read(), re.M))
    return settings["CMAKE_BUILD_TYPE"] == "RelWithDebInfo" and not settings["VEX_SANITIZE"] \
        and "clang" not in settings.get("CMAKE_CXX_COMPILER", "clang")


def make(kind, out, build=BUILD, root=ROOT, **options):
    """Runs tools/package on a build as it is; the files that it names, by the begin of their names."""
    result = subprocess.run([os.path.join(root, "tools", "package"), kind, "--from", build, "--out", str(out)], capture_output=True,
                            text=True, timeout=300, check=False, **{"env": {**os.environ, **TIME}, **options})
    assert (result.returncode, result.stderr) == (0, "")
    return {re.match(r"[A-Za-z-]+(?=_)|.*", os.path.basename(line))[0]: line for line in result.stdout.splitlines()}


def made_once(tmp_path_factory, kind="deb"):
    """For all workers of a run: the first one makes them."""
    if not is_release():
        pytest.skip("packages are made of the release alone")
    base = tmp_path_factory.getbasetemp()
    shared = base.parent if os.environ.get("PYTEST_XDIST_WORKER") else base
    folder = shared / f"packages-{kind}"
    with open(shared / f"packages-{kind}.lock", "w", encoding="utf-8") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if not folder.exists():
            made = make(kind, str(folder) + ".new")
            os.rename(str(folder) + ".new", folder)
            return {name: str(folder / os.path.basename(file)) for name, file in made.items()}
    return {re.match(r"[A-Za-z-]+(?=_)|.*", name)[0]: str(folder / name) for name in os.listdir(folder)}


def contents(deb, folder):
    """Unpacks a package, its control files below DEBIAN."""
    subprocess.run(["dpkg-deb", "-R", deb, str(folder)], check=True)
    return str(folder)


def another(deb, out, version, change):
    """The package as another version of it, whose files `change` has been at in the folder that it is given."""
    folder = str(out) + ".root"
    contents(deb, folder)
    control = os.path.join(folder, "DEBIAN", "control")
    with open(control, encoding="utf-8") as file:
        text = file.read()
    with open(control, "w", encoding="utf-8") as file:
        file.write(re.sub(r"^Version: .*$", f"Version: {version}", text, flags=re.M))
    change(folder)
    subprocess.run(["dpkg-deb", "--root-owner-group", "-Zgzip", "-z1", "--build", folder, str(out)], check=True, stdout=subprocess.DEVNULL)
    shutil.rmtree(folder)
    return str(out)


def with_other_files(folder):
    """Every file that an agent has open or mapped is another one: as long as the linker and the archives' readers allow."""
    tree = os.path.join(folder, "opt/Halvorn/vx_agent")
    for name in ("vx_agent", "lib/vex_core.so", "lib/libSLB3.so"):
        with open(os.path.join(tree, name), "ab") as file:
            file.write(b"another version")
