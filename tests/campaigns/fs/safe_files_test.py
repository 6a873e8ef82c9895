#!/usr/bin/env python3
"""Copies and moves by the safe companion: between all ordered pairs of file systems, on sticks without modes and links,
and on a file system that misbehaves. The power cuts are in safe_power_cut_test.py.

Usage: safe_files_test.py --orv-call=PROGRAM [--hostile-fuse=PROGRAM]
"""

import os
import re
import stat

import fslab
from fslab import NOBODY, file, material, read, tree, write
from oracle import PAGE_FOOTER, PAGE_HEADER

COPY, MOVE = "SafeCopyFile", "SafeMoveFile"
SIZES = (0, 1, 4096, 10000, 1 << 20) if fslab.FULL else (10000,)
OPTIONS = ("", "d", "dv", "dp", "dn")
OLD = b"old content"


def lines_of(answer):
    return [text for _, text in answer.reports]


class Pair:
    def __init__(self, lab, caller, source, destination):
        self.lab, self.caller = lab, caller
        self.name = f"{source.name} to {destination.name}"
        self.source_dir, self.destination_dir = os.path.join(source.path, "s"), os.path.join(destination.path, "d")
        self.source, self.destination = os.path.join(self.source_dir, "f"), os.path.join(self.destination_dir, "new")
        self.has_modes = "vfat" not in (source.name, destination.name)

    def act(self, operation, size, replaced, options):
        content = material(size)
        write(self.source, content, 0o640)
        mode = stat.S_IMODE(os.stat(self.source).st_mode)
        if replaced:
            write(self.destination, OLD, 0o600)
        claim = f"{operation} of {size} bytes from {self.name}, {'replacing' if replaced else 'new'}, '{options}'"

        answer = self.caller.call(operation, self.source, self.destination, options)

        if replaced and "n" in options:
            self.lab.check(f"{claim}: result", answer.result, "0")
            self.lab.check(f"{claim}: source", tree(self.source_dir), {"f": file(content, mode)})
            self.lab.check(f"{claim}: destination", read(self.destination), OLD)
        else:
            self.lab.check(f"{claim}: result {lines_of(answer)}", answer.result, "1")
            self.lab.check(f"{claim}: source", tree(self.source_dir),
                           {"f": file(content, mode)} if operation == COPY else {})
            self.lab.check(f"{claim}: names", os.listdir(self.destination_dir), ["new"])
            self.lab.check(f"{claim}: content", read(self.destination) == content, True)
            if self.has_modes:
                self.lab.check(f"{claim}: lines", [line for line in lines_of(answer) if "attribute" not in line], [])
                self.lab.check(f"{claim}: mode", oct(stat.S_IMODE(os.stat(self.destination).st_mode)), oct(mode))
        self.lab.counts[operation] += 1
        for directory in (self.source_dir, self.destination_dir):
            fslab.clear(directory)


def pairs(lab, caller):
    members = lab.writable_members(fslab.WRITABLE + ("vfat",))
    for member in members:
        os.mkdir(os.path.join(member.path, "s"))
        os.mkdir(os.path.join(member.path, "d"))
    for source in members:
        for destination in members:
            pair = Pair(lab, caller, source, destination)
            for operation in (COPY, MOVE):
                for replaced in (False, True):
                    for size in SIZES:
                        for options in OPTIONS:
                            pair.act(operation, size, replaced, options)
            lab.counts["ordered pairs"] += 1


# ---- Sticks that root mounts and a service uses

def not_kept(answer):
    """Returns the calls whose lines say that something is not kept, apart from the times, which depend on options."""
    found = [re.fullmatch(r"\w+: (\w+)\(.*\) failed \(\d+, .*\): .* not kept\.", line) for line in lines_of(answer)]
    return [line[1] if line else "another line" for line in found if not line or line[1] != "futimens"]


def stick(lab, path, disk, user):
    """Copies and moves to and from a stick succeed, and say what they did not keep."""
    caller = lab.caller(user=user)
    for operation in (COPY, MOVE):
        for options in ("d", "dn", "dp"):
            for replaced in (False, True):
                if replaced and "n" in options:
                    continue
                claim = f"{operation} to the stick {path}, '{options}', {'replacing' if replaced else 'new'}, by {user}"
                source, destination = write(os.path.join(disk, "f"), material(10000), 0o640), os.path.join(path, "f")
                os.setxattr(source, "user.note", b"text")
                os.chown(source, NOBODY, NOBODY)
                if replaced:
                    lab.check(claim, caller.call(COPY, source, destination, "d").result, "1")

                answer = caller.call(operation, source, destination, options)

                lab.check(f"{claim}: result {lines_of(answer)}", answer.result, "1")
                lab.check(f"{claim}: says so {lines_of(answer)}", not_kept(answer),
                          ["fchown", "fsetxattr", "fchmod"] if "p" in options else ["fchmod"])
                lab.check(f"{claim}: source", os.path.exists(source), operation == COPY)
                lab.check(f"{claim}: names", os.listdir(path), ["f"])
                lab.check(f"{claim}: content", read(destination) == material(10000), True)
                lab.counts["copies and moves to a stick"] += 1
                if operation == MOVE:
                    back = os.path.join(disk, "back")
                    answer = caller.call(MOVE, destination, back, "d")
                    lab.check(f"{claim}: and back {lines_of(answer)}", answer.result, "1")
                    lab.check(f"{claim}: and back", (read(back) == material(10000), os.listdir(path)), (True, []))
                for directory in (disk, path):
                    fslab.clear(directory)
    page_and_settings(lab, caller, path, disk)
    caller.end()


def stick_by_the_library(lab, path, disk):
    """Only the owner of a stick can set a mode there, so the library's move by a service fails and changes nothing."""
    caller = lab.caller(user=NOBODY)
    source, destination = write(os.path.join(disk, "f"), material(10000)), os.path.join(path, "f")
    os.chown(source, NOBODY, NOBODY)

    answer = caller.call(fslab.MOVE, source, destination)

    lab.check(f"the library's move to the stick {path}", answer.result, "0")
    lab.check(f"the library's move to the stick {path}: line {lines_of(answer)}",
              [re.sub(r"_\w{6},", "_??????,", line) for line in lines_of(answer)],
              [f"RenameFileAcrossFs: chmod({destination}_??????, 644) failed (1)."])
    lab.check(f"the library's move to the stick {path}: files",
              (read(source) == material(10000), os.listdir(path)), (True, []))
    lab.counts["moves to a stick by the library"] += 1
    fslab.clear(disk)
    caller.end()


def page_and_settings(lab, caller, path, disk):
    """A page is published on a stick, and settings are made, changed and removed."""
    page, settings = os.path.join(path, "page"), os.path.join(path, "settings")
    text = write(os.path.join(disk, "text"), fslab.TABLE)
    for replaced in (False, True):
        answer = caller.call("SafePublishPage", text, page, "d")
        lab.check(f"page on a stick {lines_of(answer)}", (answer.result, not_kept(answer)), ("1", ["fchmod"]))
        lab.check("page on a stick", read(page), PAGE_HEADER + fslab.TABLE_HTML + PAGE_FOOTER)
        value = "2" if replaced else "1"
        lab.expect(f"settings on a stick = {value}", caller.call("SafeWriteSettings", settings, "a", value, "d"), "1")
        lab.check("settings on a stick", read(settings), b"a=" + value.encode() + b"\n")
    lab.check("names on a stick", sorted(os.listdir(path)), ["page", "settings"])
    lab.counts["pages and settings on a stick"] += 2
    for directory in (disk, path):
        fslab.clear(directory)


def sticks(lab):
    disk = lab.open_to_all(lab.tmpfs("home", "size=64m"))
    os.chmod(disk, 0o777)
    for user in (NOBODY, 0):
        try:
            path = lab.mount(f"stick{user}", "-o", "loop,umask=000", lab.image("vfat", f"stick{user}"))
            stick(lab, path, disk, user)
            stick_by_the_library(lab, path, disk)
        except fslab.CannotMount as error:
            lab.skip("a stick with FAT", error)
    try:
        path = os.path.join(lab.fuse("sticks"), "stick")
        os.mkdir(path)
        for user in (NOBODY, 0):
            stick(lab, path, disk, user)
        stick_by_the_library(lab, path, disk)
    except fslab.CannotMount as error:
        lab.skip("a stick without modes", error)


# ---- A file system that misbehaves, and shows the files of another one

HOSTILE = (
    # name of the destination, options, what fails
    ("create-eio", "d", "openat"), ("chmod-eio", "d", "fchmod"), ("rename-eio", "d", "renameat"),
    ("write-eio", "d", "write"), ("flush-eio", "", "close"), ("read-eio", "dv", "pread"),
)


def hostile(lab):
    """A destination directory in which a call fails. The staged file is in it, so the directory has the name."""
    try:
        path = lab.fuse("misbehaving")
    except fslab.CannotMount as error:
        lab.skip("hostile file system", error)
        return
    shown, good = path + ".shown", lab.tmpfs("good", "size=64m")
    caller = lab.caller()
    content = material(20000)
    for operation in (COPY, MOVE):
        for name, options, call in HOSTILE:
            claim = f"{operation} to {name}"
            os.mkdir(os.path.join(shown, name))
            write(os.path.join(shown, name, "f"), OLD)
            source, destination = write(os.path.join(good, "f"), content), os.path.join(path, name, "f")

            answer = caller.call(operation, source, destination, options)

            lab.check(f"{claim}: result", answer.result, "0")
            lab.check(f"{claim}: {lines_of(answer)}", [f": {call}(" in line for line in lines_of(answer)], [True])
            lab.check(f"{claim}: source", read(source) == content, True)
            lab.check(f"{claim}: destination", tree(os.path.join(shown, name)), {"f": file(OLD)})
            lab.counts["faults of a hostile file system"] += 1
            for directory in (shown, good):
                fslab.clear(directory)

        for name in ("short-write", "short-read"):
            write(os.path.join(good, "f"), content)
            os.mkdir(os.path.join(shown, name))
            answer = caller.call(operation, os.path.join(good, "f"), os.path.join(path, name, "f"), "dv")
            lab.expect(f"{operation} to {name}", answer, "1")
            lab.check(f"{operation} to {name}", read(os.path.join(shown, name, "f")) == content, True)
            for directory in (shown, good):
                fslab.clear(directory)

    # The same file through both, with different devices and inode numbers.
    for one, other in ((path, shown), (shown, path)):
        write(os.path.join(shown, "f"), content)
        source, destination = os.path.join(one, "f"), os.path.join(other, "f")
        lab.expect("copy onto itself", caller.call(COPY, source, destination, "d"), "1")
        answer = caller.call(MOVE, source, destination, "d")
        lab.check("move onto itself", (answer.result, lines_of(answer)),
                  ("0", [f"MoveFile: {source} and {destination} are the same file."]))
        lab.check("move onto itself: the file", tree(shown), {"f": file(content)})
        lab.counts["files with two names"] += 1


def campaign(lab):
    caller = lab.caller()
    sticks(lab)
    hostile(lab)
    pairs(lab, caller)


if __name__ == "__main__":
    fslab.main("safe files", campaign)
