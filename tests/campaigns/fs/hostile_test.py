#!/usr/bin/env python3
"""Tests the library on a file system that misbehaves (see hostile_fuse.cpp).

Usage: hostile_test.py --orv-call=PROGRAM --hostile-fuse=PROGRAM
"""

import errno
import os

import fslab
from fslab import MOVE, file, material, tree, write
from oracle import ANY_SUFFIX, LINES, PAGE_FOOTER, PAGE_HEADER

GOOD_BYTES = 8192
SHORT_BYTES = 1000
CONTENT = material(20000)
OLD = b"old"
PAGE = "GenHtmlPagefromTextFile"


class Hostile:
    """The hostile directory, the directory that it shows, and one without faults."""

    def __init__(self, lab, path):
        self.lab = lab
        self.caller = lab.caller()
        self.path = path
        self.shown = path + ".shown"
        self.good = lab.tmpfs("good", "size=64m")
        self.claim = ""

    def begin(self, claim):
        self.claim = claim
        for directory in (self.shown, self.good):
            fslab.clear(directory)
        self.lab.counts["cases"] += 1

    def at(self, name):
        return os.path.join(self.path, name)

    def expect(self, result, reports, operation, *arguments):
        answer = self.caller.call(operation, *arguments)
        self.lab.expect(self.claim, answer, result, *reports)
        return answer

    def check(self, got, expected):
        self.lab.check(self.claim, got, expected)


def reading(h):
    h.begin("EIO while a moved source is read: false without a line")
    source, target = h.at("read-eio"), write(os.path.join(h.good, "new"), OLD)
    write(os.path.join(h.shown, "read-eio"), CONTENT)
    h.expect("0", [], MOVE, source, target)
    h.check(tree(h.good), {"new": file(OLD)})
    h.check(tree(h.shown), {"read-eio": file(CONTENT)})

    h.begin("EIO while a copied source is read: 0 with what was read")
    write(os.path.join(h.shown, "read-eio"), CONTENT)
    h.expect("0", [], "CopyFile", source, target)
    h.check(tree(h.good), {"new": file(CONTENT[:GOOD_BYTES])})

    h.begin("EIO in a name-value file: true with the entries before")
    lines = [f"name{i:04}=value{i:04}\n" for i in range(1000)]
    write(os.path.join(h.shown, "read-eio"), "".join(lines).encode())
    items = h.expect("1", [], "ReadNameValueFromFile", source, "=", "").items
    whole = GOOD_BYTES // len(lines[0])  # the line with the error is incomplete and does not count
    h.check(items, [(f"name{i:04}", f"value{i:04}") for i in range(whole)])

    h.begin("EIO in a text table: a shorter page in place")
    write(os.path.join(h.shown, "read-eio"), b"a:b\n" * 4000)
    h.expect("", [], PAGE, source, target)
    row = b"<table  BORDER=2><tr><td>a</td><td>b</td></tr></table>"
    h.check(tree(h.good), {"new": file(PAGE_HEADER + row * (GOOD_BYTES // 4) + PAGE_FOOTER)})

    for name in ("short-read", "open-eio"):
        h.begin(f"source: {name}")
        write(os.path.join(h.shown, name), CONTENT)
        source, target = h.at(name), write(os.path.join(h.good, "new"), OLD)
        if name == "short-read":  # a short read is neither an error nor the end
            h.expect("0", [], "CopyFile", source, target)
            h.check(tree(h.good), {"new": file(CONTENT)})
            h.expect("1", [], MOVE, source, target)
            h.check(tree(h.good), {"new": file(CONTENT)})
            h.check(tree(h.shown), {})
        else:
            h.expect("1", [], "FileExists", source)
            h.expect("-2", [], "CopyFile", source, target)
            h.expect("0", [LINES.RenameOpen(source, errno.EIO)], MOVE, source, target)
            h.expect("0", [LINES.NameValueOpen(source)], "ReadNameValueFromFile", source,
                     "=", "")
            h.check(tree(h.good), {"new": file(OLD)})
            h.check(tree(h.shown), {name: file(CONTENT)})

    h.begin("source that cannot be removed: true with a line")
    source, target = h.at("unlink-eio"), os.path.join(h.good, "new")
    write(os.path.join(h.shown, "unlink-eio"), CONTENT)
    h.expect("1", [LINES.RenameUnlink(source, errno.EIO)], MOVE, source, target)
    h.check(tree(h.good), {"new": file(CONTENT)})
    h.check(tree(h.shown), {"unlink-eio": file(CONTENT)})


def writing(h):
    source = os.path.join(h.good, "f")

    def failure(name, reports, kept=False):
        """A move onto `name` fails; with `kept`, the temporary file stays."""
        h.begin(f"destination: {name}")
        write(source, CONTENT)
        write(os.path.join(h.shown, name), OLD)
        h.expect("0", reports(h.at(name)), MOVE, source, h.at(name))
        h.check(tree(h.good), {"f": file(CONTENT)})
        left = tree(h.shown)
        h.check(left.pop(name), file(OLD))
        h.check(len(left), 1 if kept else 0)

    failure("create-eio", lambda path: [LINES.RenameMkstemp(path + ANY_SUFFIX, errno.EIO)])
    failure("write-eio", lambda path: [LINES.RenameWrite(4096, -1, errno.EIO)])
    failure("short-write", lambda path: [LINES.RenameWrite(4096, SHORT_BYTES, errno.EXDEV)])
    failure("chmod-eio", lambda path: [LINES.RenameChmod(path + ANY_SUFFIX, 0o644, errno.EIO)])
    failure("rename-eio", lambda path: [LINES.RenameRename(path + ANY_SUFFIX, path, errno.EIO)])
    for error, line in (
            ("write-eio", lambda path: LINES.RenameWrite(4096, -1, errno.EIO)),
            ("chmod-eio", lambda path: LINES.RenameChmod(path + ANY_SUFFIX, 0o644, errno.EIO)),
            ("rename-eio", lambda path: LINES.RenameRename(path + ANY_SUFFIX, path, errno.EIO))):
        failure(f"{error},unlink-eio",
                lambda path, line=line: [line(path), LINES.RenameUnlink(path + ANY_SUFFIX, errno.EIO)], kept=True)

    h.begin("error at close: not looked at")
    write(source, CONTENT, 0o640)
    h.expect("1", [], MOVE, source, h.at("flush-eio"))
    h.check((tree(h.good), tree(h.shown)), ({}, {"flush-eio": file(CONTENT, 0o640)}))
    write(source, CONTENT)
    h.expect("0", [], "CopyFile", source, h.at("flush-eio"))
    h.check(tree(h.shown), {"flush-eio": file(CONTENT, 0o640)})

    h.begin("copy with short writes: the stream writes the rest")
    write(source, CONTENT)
    h.expect("0", [], "CopyFile", source, h.at("short-write"))
    h.check(tree(h.shown), {"short-write": file(CONTENT)})

    h.begin("copy with EIO: 0 with a part")
    write(source, CONTENT)
    h.expect("0", [], "CopyFile", source, h.at("write-eio"))
    h.check(tree(h.shown), {"write-eio": file(CONTENT[:GOOD_BYTES])})

    h.begin("copy to a file that cannot be created")
    write(source, CONTENT)
    h.expect("-3", [], "CopyFile", source, h.at("create-eio"))
    h.check(tree(h.shown), {})

    for operation in ("MakeDirPath", "DoMakeDirPath"):
        h.begin(f"{operation} on it")
        options = ("750", "1") if operation == "MakeDirPath" else ("750",)
        h.expect("1", [], operation, h.at("a/b/c"), *options)
        h.check(os.path.isdir(os.path.join(h.shown, "a/b/c")), True)

    h.begin("directory whose mode cannot be set: true with a line")
    h.expect("1", [LINES.MakeChmod(h.at("a/chmod-eio"), errno.EIO)], "MakeDirPath",
             h.at("a/chmod-eio"), "750", "1")
    h.check(os.path.isdir(os.path.join(h.shown, "a/chmod-eio")), True)


def listing(h):
    h.begin("listing: list-eio")
    directory, path = os.path.join(h.shown, "list-eio"), h.at("list-eio")
    os.mkdir(directory)
    for entry in ("c", "a", "b"):
        write(os.path.join(directory, entry))
    report = LINES.ListRead(path, errno.EIO)
    items = h.expect("0", [report], "GetDirFileList", path, "", "", "0", "0").items
    h.check((len(items), set(items) <= {"a", "b", "c"}), (1, True))


def far_inodes(h):
    """Inode numbers above 32 bits are compared completely."""
    h.begin("inode numbers above 2^32")
    source = h.at("f")
    write(os.path.join(h.shown, "f"), CONTENT, 0o4751)
    h.check(os.stat(source).st_ino > 1 << 32, True)
    h.expect("1", [], "FileExists", source)
    twin = h.lab.mount("twin", "--bind", h.path)
    h.expect("1", [LINES.RenameUnlink(source, errno.ESTALE)], MOVE, source, os.path.join(twin, "f"))
    h.check(tree(h.shown), {"f": file(CONTENT, 0o751)})
    h.expect("1", [], MOVE, source, os.path.join(twin, "g"))
    h.check(tree(h.shown), {"g": file(CONTENT, 0o751)})
    h.lab.umount(twin)
    h.expect("1", [], MOVE, h.at("g"), h.at("h"))
    h.check(tree(h.shown), {"h": file(CONTENT, 0o751)})


def campaign(lab):
    try:
        hostile = Hostile(lab, lab.fuse("fuse"))
    except fslab.CannotMount as error:
        lab.skip("fuse", error)
        return
    reading(hostile)
    writing(hostile)
    listing(hostile)
    far_inodes(hostile)


if __name__ == "__main__":
    fslab.main("hostile file system", campaign)
