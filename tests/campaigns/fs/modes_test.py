#!/usr/bin/env python3
"""Moves files of all 512 modes, and of four with set-id and sticky bits, in both ways, under three umasks.

A rename keeps the whole mode, a copy the nine permission bits; the umask counts for neither. Also for an owner without
privileges, who can rename, but not copy, a file that he may not read.

Usage: modes_test.py --orv-call=PROGRAM [--hostile-fuse=PROGRAM]
"""

import errno
import os
import stat

import fslab
from fslab import MOVE, write
from oracle import LINES

MODES = [*range(0o1000), 0o4755, 0o2755, 0o1755, 0o6777]
UMASKS = (0, 0o022, 0o077)
CONTENT = b"content"
# The short form copies between memory and a disk's file system, both ways; the long form between all.
SHORT = ("tmpfs", "ext4", "disk")


def move(lab, caller, source, destination, mode, owner):
    """Moves a file with that mode from directory to directory."""
    old, new = os.path.join(source, "f"), os.path.join(destination, "g")
    write(old, CONTENT)
    os.chown(old, owner, owner)
    os.chmod(old, mode)
    claim = f"mode {mode:04o} from {source} to {destination} for user {owner}"
    renames = source == destination

    answer = caller.call(MOVE, old, new)

    if not renames and owner != 0 and not mode & 0o400:
        lab.expect(claim, answer, "0", LINES.RenameOpen(old, errno.EACCES))
        lab.check(f"{claim}: destination", os.listdir(destination), [])
        new, kept = old, mode
        lab.counts["refused, unreadable"] += 1
    else:
        lab.expect(claim, answer, "1")
        lab.check(f"{claim}: source", os.path.lexists(old), False)
        kept = mode if renames else mode & 0o777
        lab.counts["renames" if renames else "copies"] += 1
    status = os.stat(new)
    lab.check(f"{claim}: mode", oct(stat.S_IMODE(status.st_mode)), oct(kept))
    lab.check(f"{claim}: owner", (status.st_uid, status.st_gid), (owner, owner))
    lab.check(f"{claim}: content", fslab.read(new), CONTENT)
    os.unlink(new)


def campaign(lab):
    members = lab.writable_members(fslab.WRITABLE if fslab.FULL else SHORT)
    directories = []
    for member in members:
        directories.append(os.path.join(member.path, "modes"))
        os.mkdir(directories[-1])
        os.chmod(directories[-1], 0o777)
    for umask in UMASKS:
        for owner in (0, fslab.NOBODY):
            caller = lab.caller(umask=umask, user=owner or None)
            for i, source in enumerate(directories):
                for destination in (source, directories[(i + 1) % len(directories)]):
                    lab.counts["pairs, umasks and owners"] += 1
                    for mode in MODES:
                        move(lab, caller, source, destination, mode, owner)
            caller.end()


if __name__ == "__main__":
    fslab.main("modes", campaign)
