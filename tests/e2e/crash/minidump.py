"""Reads what the tests ask of a minidump file, by the format alone."""
import struct

STREAMS = {3: "threads", 4: "modules", 5: "memory", 6: "exception", 7: "system", 9: "memory64", 15: "misc", 24: "names",
           0x47670003: "cpuinfo", 0x47670004: "status", 0x47670006: "cmdline", 0x47670008: "auxv", 0x47670009: "maps"}


class Minidump:
    def __init__(self, path):
        with open(path, "rb") as file:
            self.data = file.read()
        signature, version, count, directory = struct.unpack_from("<4sIII", self.data)
        assert signature == b"MDMP" and version & 0xFFFF == 0xA793
        self.streams = {}
        for i in range(count):
            kind, size, rva = struct.unpack_from("<III", self.data, directory + 12 * i)
            assert rva + size <= len(self.data), f"stream {kind:#x} leaves the file"
            self.streams[STREAMS[kind]] = (rva, size)

    def bytes(self, name):
        rva, size = self.streams[name]
        return self.data[rva:rva + size]

    def text(self, rva):
        size, = struct.unpack_from("<I", self.data, rva)
        return self.data[rva + 4:rva + 4 + size].decode("utf-16-le")

    def threads(self):
        """{thread id: (stack start, stack bytes, rsp, rip)}"""
        rva, _ = self.streams["threads"]
        count, = struct.unpack_from("<I", self.data, rva)
        found = {}
        for i in range(count):
            record = struct.unpack_from("<IIIIQQIIII", self.data, rva + 4 + 48 * i)
            number, start, size, context = record[0], record[5], record[6], record[9]
            rsp, = struct.unpack_from("<Q", self.data, context + 0x98)
            rip, = struct.unpack_from("<Q", self.data, context + 0xF8)
            found[number] = (start, size, rsp, rip)
        return found

    def modules(self):
        """{path: (base, size, build id)}"""
        rva, _ = self.streams["modules"]
        count, = struct.unpack_from("<I", self.data, rva)
        found = {}
        for i in range(count):
            at = rva + 4 + 108 * i
            base, size, _, _, name = struct.unpack_from("<QIIII", self.data, at)
            cv_size, cv_rva = struct.unpack_from("<II", self.data, at + 76)
            build_id = b""
            if cv_size:
                assert self.data[cv_rva:cv_rva + 4] == b"LEpB"
                build_id = self.data[cv_rva + 4:cv_rva + cv_size]
            found[self.text(name)] = (base, size, build_id)
        return found

    def exception(self):
        """(thread, signal, address)"""
        rva, _ = self.streams["exception"]
        record = struct.unpack_from("<IIIIQQ", self.data, rva)
        return record[0], record[2], record[5]

    def thread_names(self):
        """{thread id: name}"""
        rva, _ = self.streams["names"]
        count, = struct.unpack_from("<I", self.data, rva)
        records = [struct.unpack_from("<IQ", self.data, rva + 4 + 12 * i) for i in range(count)]
        return {number: self.text(name) for number, name in records}

    def system(self):
        """(architecture, processors, platform, what the system calls itself)"""
        record = struct.unpack_from("<HHHBBIIIII", self.bytes("system"))
        return record[0], record[3], record[8], self.text(record[9])

    def process(self):
        return struct.unpack_from("<III", self.bytes("misc"))[2]

    def memory64(self):
        rva, _ = self.streams["memory64"]
        count, base = struct.unpack_from("<QQ", self.data, rva)
        return base, [struct.unpack_from("<QQ", self.data, rva + 16 + 16 * i) for i in range(count)]
