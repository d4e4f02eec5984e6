"""A network of a test's own: nothing but its loopback, on which every port is free. The thread that makes it is in it, and what that
thread starts, until it is closed."""
import ctypes
import fcntl
import os
import socket
import struct

import pytest

CLONE_NEWNET = 0x40000000
SIOCGIFFLAGS, SIOCSIFFLAGS, IFF_UP = 0x8913, 0x8914, 1
_libc = ctypes.CDLL(None, use_errno=True)


class OwnNetwork:
    def __init__(self):
        self._before = os.open("/proc/thread-self/ns/net", os.O_RDONLY | os.O_CLOEXEC)
        if _libc.unshare(CLONE_NEWNET) != 0:
            os.close(self._before)
            pytest.skip(f"NO NETWORK OF ITS OWN ({os.strerror(ctypes.get_errno())}): what talks on it is not tested")
        try:
            with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_socket:
                flags, = struct.unpack("16xH14x", fcntl.ioctl(any_socket, SIOCGIFFLAGS, struct.pack("16sH14x", b"lo", 0)))
                fcntl.ioctl(any_socket, SIOCSIFFLAGS, struct.pack("16sH14x", b"lo", flags | IFF_UP))
        except BaseException:
            self.close()
            raise

    def close(self):
        if _libc.setns(self._before, CLONE_NEWNET) != 0:
            raise OSError(ctypes.get_errno(), "setns")
        os.close(self._before)
