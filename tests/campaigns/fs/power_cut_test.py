#!/usr/bin/env python3
"""Shows what a power cut leaves of a file that was moved between two file systems, and tests steps that lose nothing.

Two images are mounted, and copied while they are: the copies are what the two devices hold at that moment, without what
the kernel still keeps in memory. The copies are mounted, which replays their logs, and looked at. The devices are those
that keep what they were given; one with a volatile cache can lose more, where nobody flushes it.

Moves without a sync are measured, and printed as a table. The moves that the caller syncs, and every step of the
recipe, are checked.

Usage: power_cut_test.py --orv-call=PROGRAM [--hostile-fuse=PROGRAM]
"""

import collections
import os
import time

import fslab
from fslab import MOVE, material, read, write

NEW = material(100000)
OLD = material(50000, seed=2)
KINDS = ("ext4", "xfs", "btrfs")


def empty_image(lab, kind, role):
    """Returns a formatted image, which is made once."""
    path = os.path.join(lab.root, f"empty.{kind}.{role}.image")
    return path if os.path.exists(path) else lab.image(kind, f"empty.{kind}.{role}")


Files = collections.namedtuple("Files", "source old new")  # contents; the last two of the destination
MOVED = Files(NEW, OLD, NEW)


class Devices:
    """The file systems of source and destination, on one image each, with the files before the call."""

    def __init__(self, lab, kind, replaced, files=MOVED):
        self.lab, self.kind, self.replaced, self.files = lab, kind, replaced, files
        self.images, self.mounts = {}, {}
        for role in ("source", "destination"):
            self.images[role] = os.path.join(lab.root, f"cut.{role}.image")
            lab.run("cp", "--sparse=always", empty_image(lab, kind, role), self.images[role])
            self.mounts[role] = lab.mount(f"cut.{role}", "-o", "loop", self.images[role])
        self.source = write(os.path.join(self.mounts["source"], "f"), files.source)
        self.destination = os.path.join(self.mounts["destination"], "g")
        if replaced:
            write(self.destination, files.old)
        for path in self.mounts.values():
            lab.run("sync", "--file-system", path)
        self.snapshots = []

    def commit(self, role):
        """Does what any other process can do: the log of names is written, but not the content of our file."""
        path = os.path.join(self.mounts[role], f"other{time.monotonic_ns()}")
        if self.kind == "btrfs":
            self.lab.run("btrfs", "subvolume", "create", path)
            self.lab.run("btrfs", "subvolume", "snapshot", path, path + ".snapshot")
        else:
            write(path, b"other")
            fsync(path)

    def snapshot(self, name):
        copies = {}
        for role, image in self.images.items():
            copies[role] = f"{image}.{len(self.snapshots)}"
            self.lab.run("cp", "--sparse=always", image, copies[role])
        self.snapshots.append((name, copies))

    def after_power_cut(self):
        """Yields for each snapshot: its name, the state of the source, that of the destination, and leftover files."""
        for path in self.mounts.values():
            self.lab.umount(path)
        for name, copies in self.snapshots:
            shown = {role: self.lab.mount(f"cut.{role}", "-o", "loop", copy) for role, copy in copies.items()}
            left = sorted(entry for path in shown.values() for entry in os.listdir(path)
                          if entry.startswith("g_") or entry.startswith("g.new"))
            source, destination = os.path.join(shown["source"], "f"), os.path.join(shown["destination"], "g")
            yield name, state(source, self.files.source), state(destination, self.files.new, self.files.old), left
            for role, copy in copies.items():
                self.lab.umount(shown[role])
                os.unlink(copy)
            self.lab.counts["snapshots"] += 1


def fsync(path):
    descriptor = os.open(path, os.O_RDONLY)
    try:
        os.fsync(descriptor)
    finally:
        os.close(descriptor)


def state(path, whole, old=None):
    if not os.path.lexists(path):
        return "none"
    content = read(path)
    if content == whole:
        return "whole"
    if content == old:
        return "old"
    if not content:
        return "empty"
    kind = "prefix" if whole.startswith(content) else "zeros" if not any(content) else "garbage"
    return f"{kind} of {len(content)} bytes"


# ---- The move

def at_once(_devices):
    pass


def source_committed(devices):
    devices.commit("source")


def both_committed(devices):
    devices.commit("destination")
    devices.commit("source")


def directory_synced(devices):
    fsync(os.path.dirname(devices.destination))
    devices.commit("source")


def synced(devices):
    fsync(devices.destination)
    fsync(os.path.dirname(devices.destination))
    devices.commit("source")


def after(seconds):
    return lambda _devices: time.sleep(seconds)


MOMENTS = [
    ("nothing synced, at once", at_once),
    ("nothing synced, the source's log written", source_committed),
    ("nothing synced, both logs written", both_committed),
    ("directory alone synced, the source's log written", directory_synced),
    ("file and directory synced, the source's log written", synced),
]
if fslab.FULL:
    MOMENTS += [(f"nothing synced, {seconds} s later", after(seconds)) for seconds in (6, 12, 40)]


def measure_moves(lab, caller, kind):
    lost = 0
    for replaced in (False, True):
        for name, wait in MOMENTS:
            devices = Devices(lab, kind, replaced)
            lab.expect(name, caller.call(MOVE, devices.source, devices.destination), "1")
            wait(devices)
            devices.snapshot(name)
            for _, source, destination, left in devices.after_power_cut():
                kept = "whole" in (source, destination)
                lost += not kept
                print(f"| {kind} | {'replaced' if replaced else 'new'} | {name} | {source} | {destination} | "
                      f"{', '.join(left) or 'none'} | {'kept' if kept else 'LOST'} |", flush=True)
                if wait is synced:
                    lab.check(f"{kind}: {name}", (source, destination, left), ("none", "whole", []))
            lab.counts["moves"] += 1
    return lost


# ---- The steps that lose nothing

def recipe(caller, lab, devices):
    """Returns the name of each step, and what it does."""
    fresh = devices.destination + ".new"
    directory = os.path.dirname(devices.destination)

    def copy():
        lab.expect("recipe: copy", caller.call("CopyFile", devices.source, fresh), "0")

    def compare_and_sync():
        lab.check("recipe: the copy is whole", read(fresh) == read(devices.source), True)  # 0 does not mean that
        fsync(fresh)

    def rename():
        lab.expect("recipe: rename", caller.call(MOVE, fresh, devices.destination), "1")

    return [("before", lambda: None), ("copied", copy), ("copy synced", compare_and_sync), ("renamed", rename),
            ("directory synced", lambda: fsync(directory)), ("source removed", lambda: os.unlink(devices.source))]


def check_recipe(lab, caller, kind):
    for replaced in (False, True):
        for committed in (False, True):
            devices = Devices(lab, kind, replaced)
            for step, act in recipe(caller, lab, devices):
                act()
                if committed:
                    both_committed(devices)
                devices.snapshot(step)
            durable = False
            for step, source, destination, _ in devices.after_power_cut():
                durable = durable or step == "directory synced"
                claim = f"recipe on {kind}, {'replaced' if replaced else 'new'}, {step}, " \
                        f"{'logs written' if committed else 'at once'}"
                before = "old" if replaced else "none"
                if durable:
                    lab.check(f"{claim}: destination", destination, "whole")
                else:
                    lab.check(f"{claim}: source", source, "whole")
                    lab.check(f"{claim}: destination is old or new ({destination})", destination in (before, "whole"),
                              True)
                lab.counts["steps of the recipe"] += 1


def campaign(lab):
    caller = lab.caller()
    lost = {}
    print("| file system | destination | after the move | source | destination's content | leftovers | content |")
    print("|---|---|---|---|---|---|---|")
    for kind in KINDS:
        try:
            lost[kind] = measure_moves(lab, caller, kind)
            check_recipe(lab, caller, kind)
        except fslab.CannotMount as error:
            lab.skip(f"power cut on {kind}", error)
    lab.counts["moves without a sync whose content was lost"] = sum(lost.values())
    if lost:  # otherwise the snapshots contained data that was only in memory, and showed nothing
        lab.check("the snapshots can show a loss", sum(lost.values()) > 0, True)


if __name__ == "__main__":
    fslab.main("power cut", campaign)
