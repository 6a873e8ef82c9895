"""QEMU's log of the writes to a disk, and what is on the disk if the power fails at any point of it.

The format is that of the kernel's dm-log-writes: a header, then for each write an entry and its data, all in sectors.
"""

import collections
import os
import struct

MAGIC, VERSION = 0x6A736677736872, 1
HEADER = struct.Struct("<QQQL")  # magic, version, number of entries, bytes of a sector
ENTRY = struct.Struct("<QQQQ")  # first sector, number of sectors, flags, unused
FLUSH, FUA = 1, 2

Entry = collections.namedtuple("Entry", "offset data flags")
Write = collections.namedtuple("Write", "number part offset data forced")
Part = collections.namedtuple("Part", "offset size")


class BadLog(Exception):
    pass


def read_exactly(file, offset, size):
    data = os.pread(file.fileno(), size, offset)
    if len(data) != size:
        raise BadLog("the log of writes is cut off")
    return data


def entries(path, disk_bytes):
    """Yields the entries of a log. Discards and marks are errors, because the board makes none."""
    with open(path, "rb") as log:
        magic, version, count, sector = HEADER.unpack(read_exactly(log, 0, HEADER.size))
        if (magic, version) != (MAGIC, VERSION) or count == 0:
            raise BadLog("this is not a log of writes, or it is empty")
        at = sector
        for number in range(count):
            first, sectors, flags, unused = ENTRY.unpack(read_exactly(log, at, ENTRY.size))
            at += sector
            nothing = sectors == 0 and not flags & FLUSH
            if nothing or unused or flags & ~(FLUSH | FUA) or (first + sectors) * sector > disk_bytes:
                raise BadLog(f"entry {number} of the log of writes cannot be replayed")
            yield Entry(first * sector, read_exactly(log, at, sectors * sector), flags)
            at += sectors * sector


class Replay:
    """A disk while a log is replayed on it. Its file has what no power cut takes away: all up to the last flush.
    `pending` has the writes since then. What is outside of the parts is never pending."""

    def __init__(self, disk, parts):
        self.disk = open(disk, "r+b", buffering=0)  # pylint: disable=consider-using-with
        self.parts = parts
        self.pending = []
        self.number = 0  # of the next entry
        self.latest = {part: None for part in parts}  # the number of the latest write

    def add(self, entry):
        if entry.flags & FLUSH:
            for write in self.pending:
                self.store(write)
            self.pending = []
        if entry.data:
            part = next((name for name, part in self.parts.items() if inside(part, entry.offset)), None)
            write = Write(self.number, part, entry.offset, entry.data, bool(entry.flags & FUA))
            if part is None:
                self.store(write)
            else:
                self.pending.append(write)
                self.latest[part] = self.number
        self.number += 1

    def store(self, write):
        os.pwrite(self.disk.fileno(), write.data, write.offset)

    def make_image(self, name, dropped, path):
        """Writes what a part of the disk has after a power cut that loses the pending writes with these numbers."""
        part = self.parts[name]
        with open(path, "r+b", buffering=0) as image:
            image.truncate(0)
            image.truncate(part.size)
            for offset, data in extents(self.disk.fileno(), part):
                os.pwrite(image.fileno(), data, offset)
            for write in self.pending:
                if write.part == name and write.number not in dropped:
                    os.pwrite(image.fileno(), write.data, write.offset - part.offset)

    def __enter__(self):
        return self

    def __exit__(self, kind, error, trace):
        self.disk.close()


def inside(part, offset):
    return part.offset <= offset < part.offset + part.size


def extents(descriptor, part):
    """Yields what is stored of a sparse file in this part: the place in the part, and the data."""
    at, end = part.offset, part.offset + part.size
    while at < end:
        try:
            start = os.lseek(descriptor, at, os.SEEK_DATA)
        except OSError:  # only a hole is left
            return
        at = min(os.lseek(descriptor, start, os.SEEK_HOLE), end)
        if start < end:
            yield start - part.offset, os.pread(descriptor, at - start, start)
