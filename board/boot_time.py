#!/usr/bin/env python3
"""Measures the time from the start of the board to the first page of its status board; script/board calls this.

Usage: boot_time.py FOLDER INIT

INIT is the first process, from bench/device/boot.c. It is on a disk with the status board and its libraries, and
nothing else. The clock of the board advances one nanosecond with each instruction. So that the time repeats, the disk
must not need any: QEMU makes it of a folder, and answers each request before the next instruction.
"""

import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

from costs import BOOTS, COUNTING
from demo import LIBRARIES, strip_into
from machine import LIBRARIES as LIBRARY_FOLDER
from machine import TOP, Failure, quoted

BOOT_SECONDS = 120
MOST_SPREAD = 1.01
APPEND = "root=/dev/vda1 ro rootfstype=vfat init=/init console=ttyS0 panic=-1 quiet"


def make_root(root, init):
    for name in ("bin", "dev", "etc", "lib", "proc", "sys", "var/tmp"):
        (root / name).mkdir(parents=True)
    strip_into(root / "lib")
    (root / "lib" / "statusboard").rename(root / "bin" / "statusboard")
    for name in LIBRARIES:
        subprocess.run(["powerpc-linux-gnu-strip", "-o", root / "lib" / name, f"{LIBRARY_FOLDER}/{name}"], check=True)
    shutil.copy(TOP / "board" / "statusboard.conf", root / "etc")
    shutil.copy(init, root / "init")


def boot(folder, root):
    """Returns when the first process started, and when the page was there, in milliseconds."""
    command = ["qemu-system-ppc", "-M", "ppce500", "-cpu", "e500mc", "-m", "256", "-nographic", "-nodefaults"]
    command += ["-no-reboot", "-serial", "stdio", "-monitor", "none", "-kernel", f"{folder}/vmlinux", "-append", APPEND]
    command += ["-blockdev", f"driver=vvfat,node-name=disk,read-only=on,dir={quoted(root)}"]
    command += ["-device", "virtio-blk-pci,drive=disk,ioeventfd=off", *COUNTING]
    output = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True, timeout=BOOT_SECONDS,
                            check=True).stdout  # fmt: skip
    found = re.search(r"started after ([\d.]+) ms, page after ([\d.]+) ms", output)
    if not found:
        raise Failure(f"there was no page; the console:\n{output}")
    return [float(number) for number in found.groups()]


def main(folder, init):
    with tempfile.TemporaryDirectory(prefix="boot-time.", dir=folder) as temporary:
        root = pathlib.Path(temporary) / "root"
        try:
            make_root(root, init)
            times = [boot(folder, root) for _ in range(BOOTS)]
        except (Failure, subprocess.SubprocessError) as failure:
            sys.exit(f"script/board: {failure}")
    for what, each in zip(("first process", "first page"), zip(*times)):
        print(f"{what}: after {min(each):.1f} to {max(each):.1f} ms")
        if max(each) > min(each) * MOST_SPREAD:
            sys.exit("FAILED: the time does not repeat")


if __name__ == "__main__":
    main(*sys.argv[1:])
