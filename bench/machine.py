"""What figures come from: the machine, its system, and the versions of compiler and libraries."""
import os
import platform
import re
import subprocess
import time


def load():
    """What else the machine did in the last minute, in processes that wanted to run."""
    return os.getloadavg()[0]


def processor(text, kind):
    """The kind of processor by /proc/cpuinfo, without what tells one machine from another of its kind."""
    found = re.search(r"^model name\s*: (.*)$", text, re.M)
    if not found:
        return kind
    name = re.sub(r"\((?:R|TM)\)|@.*|\bCPU\b|\bProcessor\b|\b\S*\d\S*\b", "", found[1])
    return " ".join([*name.split(), f"({kind})"])


def versions(program):
    """{name: version} as bench/library_versions.cpp prints them."""
    printed = subprocess.run([program], stdin=subprocess.DEVNULL, capture_output=True, text=True, check=True).stdout
    return dict(line.split(" ", 1) for line in printed.splitlines())


def system():
    try:
        with open("/etc/os-release", encoding="utf-8") as file:
            return re.search(r'^PRETTY_NAME="?(.*?)"?$', file.read(), re.M)[1]
    except (OSError, TypeError):
        return platform.system()


def describe(program):
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        kind = processor(file.read(), platform.machine())
    count = os.cpu_count()
    return {"date": time.strftime("%Y-%m-%d", time.gmtime()), "processors": f"{count} processor{'s' if count != 1 else ''}, {kind}", "system": system(),
            "kernel": ".".join(platform.release().split(".")[:2]), **versions(program)}
