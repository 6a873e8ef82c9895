#!/usr/bin/env python3
"""Moves, copies and builds pages between all ordered pairs of file systems, and lists on each.

Usage: pairs_test.py --orv-call=PROGRAM [--hostile-fuse=PROGRAM]
"""

import errno
import os

import fslab
from fslab import MOVE, file, material, read, tree, write
from oracle import ANY_SUFFIX, LINES, PAGE_FOOTER, PAGE_HEADER, temporary_page

SIZES = (0, 1, 4095, 4096, 4097, 10000, 1 << 20) if fslab.FULL else (0, 4097, 10000)
OLD_CONTENT = b"old content, longer than some"
OLD = file(OLD_CONTENT, 0o600)
PAGE = PAGE_HEADER + fslab.TABLE_HTML + PAGE_FOOTER
PAGES = "/var/tmp"


class Pair:
    def __init__(self, lab, caller, source, destination):
        self.lab = lab
        self.caller = caller
        self.name = f"{source.name} to {destination.name}"
        self.one = source.path == destination.path
        self.source_dir, self.destination_dir = (os.path.join(source.path, "s"), os.path.join(destination.path, "d"))
        self.source, self.destination = os.path.join(self.source_dir, "f"), os.path.join(self.destination_dir, "new")

    def prepare(self, size, replaced):
        content = material(size)
        write(self.source, content, 0o4751)
        if replaced:
            write(self.destination, OLD_CONTENT, 0o600)
        return content

    def finish(self):
        for directory in (self.source_dir, self.destination_dir):
            fslab.clear(directory)

    def move(self, size, replaced):
        content = self.prepare(size, replaced)
        inode = os.stat(self.source).st_ino
        claim = f"move of {size} bytes from {self.name}, {'replacing' if replaced else 'new'}"

        self.lab.expect(claim, self.caller.call(MOVE, self.source, self.destination), "1")

        self.lab.check(f"{claim}: source", tree(self.source_dir), {})
        mode = 0o4751 if self.one else 0o751
        self.lab.check(f"{claim}: destination", tree(self.destination_dir), {"new": file(content, mode)})
        if self.one:
            self.lab.check(f"{claim}: the file itself", os.stat(self.destination).st_ino, inode)
        self.lab.check(f"{claim}: one link", os.stat(self.destination).st_nlink, 1)
        self.lab.counts["moves"] += 1
        self.finish()

    def copy(self, size, replaced):
        content = self.prepare(size, replaced)
        claim = f"copy of {size} bytes from {self.name}, {'replacing' if replaced else 'new'}"

        self.lab.expect(claim, self.caller.call("CopyFile", self.source, self.destination), "0")

        self.lab.check(f"{claim}: source", tree(self.source_dir), {"f": file(content, 0o4751)})
        mode = 0o600 if replaced else 0o644
        self.lab.check(f"{claim}: destination", tree(self.destination_dir), {"new": file(content, mode)})
        self.lab.counts["copies"] += 1
        self.finish()

    def page(self, table, replaced):
        """The directory of the source is mounted where pages are built."""
        self.prepare(0, replaced)
        os.unlink(self.source)
        claim = f"page from {self.name}, {'replacing' if replaced else 'new'}"

        self.lab.expect(claim, self.caller.call("GenHtmlPagefromTextFile", table, self.destination), "")

        self.lab.check(f"{claim}: temporary page", tree(PAGES), {})
        self.lab.check(f"{claim}: page", tree(self.destination_dir), {"new": file(PAGE)})
        self.lab.counts["pages"] += 1
        self.finish()

    def from_read_only(self, name, content):
        """The source cannot be removed: there is one line, and the result is true."""
        claim = f"move of {name} from {self.name}"
        source = os.path.join(self.source_dir, name)
        before = tree(self.source_dir)

        answer = self.caller.call(MOVE, source, self.destination)

        self.lab.expect(claim, answer, "1", LINES.RenameUnlink(source, errno.EROFS))
        self.lab.check(f"{claim}: destination", tree(self.destination_dir), {"new": file(content, 0o751)})
        self.lab.expect(claim + ", copy", self.caller.call("CopyFile", source, self.destination), "0")
        self.lab.check(f"{claim}: copy", tree(self.destination_dir), {"new": file(content, 0o751)})
        self.lab.check(f"{claim}: source", tree(self.source_dir), before)
        self.lab.counts["moves and copies from read-only ones"] += 2
        self.finish_destination()

    def finish_destination(self):
        fslab.clear(self.destination_dir)

    def page_from_read_only(self, table):
        """The page cannot be built, so there is nothing to move."""
        write(self.destination, OLD_CONTENT, 0o600)
        temporary = temporary_page(self.caller.pid)
        claim = f"page from {self.name}"

        answer = self.caller.call("GenHtmlPagefromTextFile", table, self.destination)

        self.lab.expect(claim, answer, "", LINES.RenameStat(temporary, errno.ENOENT),
                        LINES.PageMove(temporary, self.destination))
        self.lab.check(f"{claim}: page", tree(self.destination_dir), {"new": OLD})
        self.lab.counts["pages from read-only ones"] += 1
        self.finish_destination()

    def to_read_only(self, writable_source):
        destination = os.path.join(self.destination_dir, "f0")
        source_before, before = tree(self.source_dir), tree(self.destination_dir)
        source = os.path.join(self.source_dir, "f4097")
        claim = f"to a read-only one, {self.name}"
        if self.one:
            line = LINES.RenameRename(source, destination, errno.EROFS)
        else:
            line = LINES.RenameMkstemp(destination + ANY_SUFFIX, errno.EROFS)

        self.lab.expect("move " + claim, self.caller.call(MOVE, source, destination), "0", line)
        self.lab.expect("copy " + claim, self.caller.call("CopyFile", source, destination), "-3")

        self.lab.check(f"{claim}: source", tree(self.source_dir), source_before)
        self.lab.check(f"{claim}: destination", tree(self.destination_dir), before)
        self.lab.counts["moves and copies to read-only ones"] += 2
        if writable_source:
            fslab.clear(self.source_dir)


def all_pairs(lab, caller, members, table):
    for source in members:
        for destination in members:
            pair = Pair(lab, caller, source, destination)
            lab.counts["ordered pairs of writable ones"] += 1
            for replaced in (False, True):
                for size in SIZES:
                    pair.move(size, replaced)
                    pair.copy(size, replaced)
    for source in members:
        lab.run("mount", "--bind", os.path.join(source.path, "s"), PAGES)
        for destination in members:
            for replaced in (False, True):
                Pair(lab, caller, source, destination).page(table, replaced)
        lab.umount(PAGES)


def read_only_pairs(lab, caller, writable, read_only, contents, table):
    for source in read_only:
        for destination in writable:
            lab.counts["pairs from read-only ones"] += 1
            for name, content in contents.items():
                Pair(lab, caller, source, destination).from_read_only(name, content)
        lab.run("mount", "--bind", os.path.join(source.path, "s"), PAGES)
        for destination in writable:
            Pair(lab, caller, source, destination).page_from_read_only(table)
        lab.umount(PAGES)
    for destination in read_only:
        for source in writable:
            lab.counts["pairs to read-only ones"] += 1
            write(os.path.join(source.path, "s", "f4097"), contents["f4097"], 0o4751)
            Pair(lab, caller, source, destination).to_read_only(True)
        for source in read_only:
            Pair(lab, caller, source, destination).to_read_only(False)


def listings(lab, caller, members):
    """Only the type in the entry counts, so nothing is listed on a file system that does not record types."""
    for member in members:
        directory = os.path.join(member.path, "listed")
        if not os.path.exists(directory):
            os.mkdir(directory)
            write(os.path.join(directory, "b"))
            write(os.path.join(directory, "a"))
            os.mkdir(os.path.join(directory, "c"))
            os.symlink("a", os.path.join(directory, "d"))
        expected = fslab.listed(directory, ["a", "b"])

        answer = caller.call("GetDirFileList", directory, "", "", "0", "1")

        lab.expect(f"listing on {member.name}", answer, "1")
        lab.check(f"listing on {member.name}", answer.items, expected)
        lab.counts["listings"] += 1
        for follow, expected in (("0", ["a", "b"]), ("1", ["a", "b", "d"])):
            answer = caller.call("SafeListFiles", directory, follow)
            lab.expect(f"safe listing on {member.name}", answer, "1")
            lab.check(f"safe listing on {member.name}", [name for name, _ in answer.items], expected)


def settings(lab, caller, members):
    """The companion makes a directory in each file system, and a file of settings in that, and changes it."""
    for member in members:
        directory = os.path.join(member.path, "made", "by", "the", "companion")
        path = os.path.join(directory, "settings")
        lab.expect(f"directory on {member.name}", caller.call("SafeMakeDirectory", directory, "755"), "1")
        lab.expect(f"new settings on {member.name}", caller.call("SafeWriteSettings", path, "a", "1", "d"), "1")
        os.chmod(path, 0o640)
        lab.expect(f"settings on {member.name}", caller.call("SafeWriteSettings", path, "a", "2", "d"), "1")
        lab.check(f"settings on {member.name}", (read(path), os.stat(path).st_mode & 0o7777, os.listdir(directory)),
                  (b"a=2\n", 0o640, ["settings"]))  # fmt: skip
        lab.counts["files of settings"] += 1


def campaign(lab):
    caller = lab.caller()
    writable = lab.writable_members()
    for member in writable:
        os.mkdir(os.path.join(member.path, "s"))
        os.mkdir(os.path.join(member.path, "d"))
    contents = {"f0": b"", "f4097": material(4097), "f10000": material(10000)}
    master = lab.directory("master")
    for directory in ("s", "d", "listed"):
        os.mkdir(os.path.join(master, directory))
    for name, content in contents.items():
        write(os.path.join(master, "s", name), content, 0o4751)
    write(os.path.join(master, "d", "f0"), b"old")
    write(os.path.join(master, "listed", "a"))
    write(os.path.join(master, "listed", "b"))
    os.mkdir(os.path.join(master, "listed", "c"))
    os.symlink("a", os.path.join(master, "listed", "d"))
    read_only = lab.members(fslab.READ_ONLY, lambda name: lab.read_only(name, master))
    table = write(os.path.join(lab.root, "table"), fslab.TABLE)

    all_pairs(lab, caller, writable, table)
    read_only_pairs(lab, caller, writable, read_only, contents, table)
    listings(lab, caller, writable + read_only)
    settings(lab, caller, writable)
    lab.counts["writable file systems"] = len(writable)
    lab.counts["read-only file systems"] = len(read_only)


if __name__ == "__main__":
    fslab.main("pairs of file systems", campaign)
