#!/usr/bin/env python3
"""Cuts the power while the safe companion copies, moves, publishes a page and writes settings, and after it has.

The snapshots are those of power_cut_test.py: one at a random time while a call runs, and one directly after it. With
`durable`, the file is the old or the new one, whole, and after the result true the new one. Beside them, what the same
calls leave without a flush is printed as a table.

Usage: safe_power_cut_test.py --orv-call=PROGRAM [--hostile-fuse=PROGRAM]
"""

import collections
import os
import random
import signal
import time

import fslab
from fslab import material
from oracle import PAGE_FOOTER, PAGE_HEADER
from power_cut_test import KINDS, MOVED, Devices, Files, both_committed

# Calls for each kind of file system and each job: each gives two snapshots.
CUTS = 44 if fslab.FULL else 1

CELL = material(50000).hex().encode()
PAGED = Files(b"Port:1," + CELL + b"\n", MOVED.old,
              PAGE_HEADER + b"<table  BORDER=2><tr><td>Port</td><td>1</td><td>" + CELL + b"</td></tr></table>" +
              PAGE_FOOTER)
LINES_BEFORE = b"".join(b"name%d = value\n" % number for number in range(5000))
SETTINGS = {
    True: Files(b"", LINES_BEFORE + b"mode = old\n# end\n", LINES_BEFORE + b"mode = new\n# end\n"),
    False: Files(b"", None, b"mode=new\n"),
}

BUILD = "/var/tmp"

# What is called and where /var/tmp is: a role of Devices, or None if that does not matter.
Job = collections.namedtuple("Job", "name operation builds_on")
COPY, MOVE = Job("CopyFile", "SafeCopyFile", None), Job("MoveFile", "SafeMoveFile", None)
PAGE = Job("PublishPage", "SafePublishPage", "destination")
FAR_PAGE = Job("PublishPage to another file system", "SafePublishPage", "source")
WRITE = Job("WriteSettings", "SafeWriteSettings", None)
LIBRARY_PAGE = Job("GenHtmlPagefromTextFile", "GenHtmlPagefromTextFile", "destination")
DURABLE = (COPY, MOVE, PAGE, FAR_PAGE, WRITE)
UNFLUSHED = (LIBRARY_PAGE, PAGE, WRITE) if fslab.FULL else (LIBRARY_PAGE,)


def files(job, replaced):
    if job is WRITE:
        return SETTINGS[replaced]
    return MOVED if job in (COPY, MOVE) else PAGED


def arguments(job, devices, options):
    if job is WRITE:
        return (devices.destination, "mode", "new", options)
    if job.builds_on == "destination":  # a rename from /var/tmp needs one mount, not only one file system
        return (devices.source, os.path.join(BUILD, os.path.basename(devices.destination)), options)
    return (devices.source, devices.destination, options)


class Cut:
    """One call on two devices, and the snapshots of them."""

    def __init__(self, lab, kind, job, replaced):
        self.lab, self.job = lab, job
        self.devices = Devices(lab, kind, replaced, files(job, replaced))
        if job.builds_on:
            lab.run("mount", "--bind", self.devices.mounts[job.builds_on], BUILD)

    def call(self, caller, options):
        expected = "" if self.job is LIBRARY_PAGE else "1"
        lab_arguments = arguments(self.job, self.devices, options)
        self.lab.expect(self.job.name, caller.call(self.job.operation, *lab_arguments), expected)

    def call_and_stop(self, caller, seconds):
        """Stops the call after a time, takes a snapshot, and lets it end."""
        caller.send(self.job.operation, *arguments(self.job, self.devices, "d"))
        time.sleep(seconds)
        os.kill(caller.pid, signal.SIGSTOP)
        while not is_stopped(caller.pid):
            time.sleep(0.001)
        self.devices.snapshot("during")
        os.kill(caller.pid, signal.SIGCONT)
        self.lab.expect(self.job.name, caller.answer(self.job.operation), "1")

    def states(self):
        """Returns for each snapshot: its name, the state of the source, and that of the destination."""
        if self.job.builds_on:
            self.lab.umount(BUILD)
        return [(name, source, destination) for name, source, destination, _ in self.devices.after_power_cut()]


def is_stopped(process):
    with open(f"/proc/{process}/stat", encoding="ascii") as status:
        return status.read().rsplit(")", 1)[1].split()[0] == "T"


def fits(job, name, before, source, destination):
    """Whether nothing is lost or torn."""
    if name == "after":
        return destination == "whole" and source == ("none" if job is MOVE else "whole")
    return destination in (before, "whole") and (source == "whole" or (job is MOVE and destination == "whole"))


def cut_durable(lab, caller, kind, job, chance):
    taken, unfinished, faulty = 0, 0, 0
    for number in range(CUTS):
        replaced = (number + DURABLE.index(job)) % 2 == 1
        before = "old" if replaced else "none"
        cut = Cut(lab, kind, job, replaced)
        cut.call_and_stop(caller, chance.random() * 0.005)
        if number % 4 >= 2:
            both_committed(cut.devices)
        cut.devices.snapshot("after")
        for name, source, destination in cut.states():
            good = fits(job, name, before, source, destination)
            lab.check(f"{job.name} on {kind}, {name}: {source}, {destination}", good, True)
            taken, faulty = taken + 1, faulty + (not good)
            unfinished += name == "during" and destination == before
    print(f"| {kind} | {job.name} | {taken} | {unfinished} | {faulty} |", flush=True)
    lab.counts["snapshots lost or torn"] += faulty


def show_unflushed(lab, caller, kind, job):
    """Returns how many files are not the new ones if the logs are written, but nothing was flushed."""
    found = {}
    for replaced in (False, True):
        cut = Cut(lab, kind, job, replaced)
        cut.call(caller, "")
        cut.devices.snapshot("at once")
        both_committed(cut.devices)
        cut.devices.snapshot("logs written")
        for name, _, destination in cut.states():
            found[replaced, name] = destination
    print(f"| {kind} | {job.name} | " + " | ".join(found.values()) + " |", flush=True)
    return sum(found[replaced, "logs written"] != "whole" for replaced in (False, True))


def campaign(lab):
    caller = lab.caller()
    chance = random.Random(14)
    kinds = []
    print("With durable:\n\n| file system | call | snapshots | before the file was in place | lost or torn |")
    print("|---|---|---|---|---|")
    for kind in KINDS:
        try:
            for job in DURABLE:
                cut_durable(lab, caller, kind, job, chance)
            kinds.append(kind)
        except fslab.CannotMount as error:
            lab.skip(f"power cut on {kind}", error)
    print("\nWithout a flush, what is at the destination:\n\n| file system | call | new, at once | new, logs written "
          "| replaced, at once | replaced, logs written |")
    print("|---|---|---|---|---|---|")
    lost = sum(show_unflushed(lab, caller, kind, job) for kind in kinds for job in UNFLUSHED)
    lab.counts["files lost without a flush"] = lost
    if kinds:  # otherwise the snapshots contained data that was only in memory, and showed nothing
        lab.check("the snapshots can show a loss", lost > 0, True)


if __name__ == "__main__":
    fslab.main("safe power cut", campaign)
