"""What benches of running agents share: signals, and files that may not be there yet."""
import os


def send_signal(pid, number):
    assert pid > 1, f"refusing to signal {pid}"
    os.kill(pid, number)


def read(path):
    """The text of a file, empty while there is none."""
    try:
        with open(path, encoding="utf-8", errors="replace") as file:
            return file.read()
    except FileNotFoundError:
        return ""
