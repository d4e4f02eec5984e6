"""A /dev of a test's own, in which it may be the system's logger."""
import os
import socket
import subprocess
import threading

from conftest import PATIENCE, unmount, wait_until


class OwnDev:
    """Stands over /dev while it lives; `folder` is where it is made."""

    NODES = ("null", "zero", "random", "urandom", "full")

    def __init__(self, folder):
        self.folder = str(folder)
        os.mkdir(self.folder)
        for node in self.NODES:
            with open(os.path.join(self.folder, node), "w"):
                subprocess.run(["mount", "-n", "--bind", f"/dev/{node}", os.path.join(self.folder, node)], check=True)
        subprocess.run(["mount", "-n", "--rbind", self.folder, "/dev"], check=True)

    def close(self):
        unmount("/dev")
        for node in self.NODES:
            unmount(os.path.join(self.folder, node))


class Logger:
    """The logger at /dev/log, of datagrams or of streams. `records` has what came. One that does not read takes what there is room
    for, until it is told to `read`."""

    def __init__(self, kind=socket.SOCK_DGRAM, reads=True):
        self.records = []
        self._kind = kind
        self._marks = 0
        self._threads = []
        self._rests = []  # behind the last NUL of a stream
        self._socket = socket.socket(socket.AF_UNIX, kind)
        if os.path.lexists("/dev/log"):
            os.unlink("/dev/log")
        self._socket.bind("/dev/log")
        os.chmod("/dev/log", 0o666)
        if kind == socket.SOCK_STREAM:
            self._socket.listen(1000)
        if reads:
            self.read()

    def read(self):
        self._begin(self._accept if self._kind == socket.SOCK_STREAM else self._receive)

    def catch_up(self):
        """Returns when what lies in the queue of datagrams has been read."""
        with socket.socket(socket.AF_UNIX, self._kind) as sender:
            sender.connect("/dev/log")
            sender.send(b"\0MARK")
        wait_until(lambda: self._marks > 0, what="the logger's reader")
        self._marks -= 1

    def close(self):
        """Goes when what was sent before is in `records`."""
        if self._threads:
            with socket.socket(socket.AF_UNIX, self._kind) as end:
                end.connect("/dev/log")
                end.send(b"\0END" if self._kind == socket.SOCK_DGRAM else b"\0END\0")
            for thread in self._threads:
                thread.join(PATIENCE)
                assert not thread.is_alive(), "a sender does not end its stream"
        self._socket.close()
        assert self._rests == [], "streams ended within a record"

    def _begin(self, body, *arguments):
        thread = threading.Thread(target=body, args=arguments, daemon=True)
        self._threads.append(thread)
        thread.start()

    def _receive(self):
        while (record := self._socket.recv(65536)) != b"\0END":
            if record == b"\0MARK":
                self._marks += 1
            else:
                self.records.append(record.decode())

    def _accept(self):
        while True:
            connection, _ = self._socket.accept()
            if connection.recv(1, socket.MSG_PEEK) == b"\0":
                connection.close()
                return
            self._begin(self._read_stream, connection)

    def _read_stream(self, connection):
        with connection, connection.makefile("rb") as stream:
            rest = b""
            while piece := stream.read1(65536):
                *records, rest = (rest + piece).split(b"\0")
                self.records += [record.decode() for record in records]
        if rest:
            self._rests.append(rest)
