#!/usr/bin/env python3
"""Boots the emulated board and runs programs on it; script/board calls this. README.md describes how.

Usage: machine.py run FOLDER COMMAND [ARGUMENT...]     runs a command on a board of its own, in this directory; the exit
                                                       status is that of the command
       machine.py shell FOLDER                         opens a console on a board of its own

FOLDER holds vmlinux and root.img. If the board panics, reboots or does not answer, the exit status is 125, and the
console of the board is shown. ORV_BOARD_FILES names the file system below /var/tmp, ORV_BOARD_USER the number of the
user who runs the command, and ORV_BOARD_SECONDS its time limit.
"""

import contextlib
import fcntl
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import time

TOP = pathlib.Path(__file__).resolve().parent.parent
LIBRARIES = "/usr/powerpc-linux-gnu/lib"
MEMORY_MIB = 1024  # the suite needs it: a tmpfs has inodes for half of the memory
DISK_BYTES = 8192 << 20  # sparse
START_SECONDS = 120
STOP_SECONDS = 60
JOB_SECONDS = 600
POLL_SECONDS = 0.02
CONSOLE_BYTES = 4000  # what is shown of a console
FILE_SYSTEMS = {
    "ext4": ["mke2fs", "-q", "-F", "-t", "ext4"],
    "xfs": ["mkfs.xfs", "-q", "-f"],
    "btrfs": ["mkfs.btrfs", "-q", "-f"],
    "tmpfs": None,  # needs no disk
    "vfat": ["mkfs.vfat", "-F", "32"],
    "ubifs": None,  # init.c makes it, on emulated flash
}
TROUBLE = re.compile(r"Oops|BUG:|Kernel panic|corrupt", re.I)


class Failure(Exception):
    """The board did not do what it should. The text ends with its console."""


class Machine:
    """A board that runs while this object is entered. `files` is the file system below /var/tmp, `owner` the user who owns
    it if it has no owners of its own."""

    def __init__(self, folder, files="ext4", owner=0, options=(), address=None, terminal=False):
        self.made = pathlib.Path(folder).resolve()
        self.files = files
        self.owner = owner
        self.options = list(options)  # more of QEMU's
        self.address = address  # in its network
        self.terminal = terminal  # as the console
        self.jobs = 0
        self.process = None

    def __enter__(self):
        self.remove_leftovers()
        self.temporary = tempfile.TemporaryDirectory(prefix="running.", dir=self.made)
        self.folder = pathlib.Path(self.temporary.name)
        self.lock = os.open(self.folder, os.O_RDONLY)  # see remove_leftovers
        fcntl.flock(self.lock, fcntl.LOCK_EX)
        self.shared = self.folder / "host"
        self.console = self.folder / "console.txt"
        try:
            self.start()
        except BaseException:
            self.end()
            raise
        return self

    def __exit__(self, kind, error, trace):
        try:
            if kind is None:
                self.stop()
        finally:
            self.end()

    def remove_leftovers(self):
        """Removes the folders of boards whose process was killed. Those of others are locked, or new."""
        for folder in self.made.glob("running.*"):
            with contextlib.suppress(OSError), open_directory(folder) as descriptor:
                fcntl.flock(descriptor, fcntl.LOCK_EX | fcntl.LOCK_NB)
                if time.time() - folder.stat().st_ctime > START_SECONDS:
                    shutil.rmtree(folder, ignore_errors=True)

    def start(self):
        self.shared.mkdir()
        settings = {"tree": TOP, "files": self.files, "owner": self.owner, "epoch": int(time.time())}
        if self.address:
            settings["address"] = self.address
        if self.terminal:
            settings["shell"] = ""
        for name, value in settings.items():
            (self.shared / name).write_bytes(os.fsencode(str(value)))
        # setpriv: QEMU must not outlive this process, even if that is killed.
        command = ["setpriv", "--pdeathsig", "KILL", *self.command()]
        if self.terminal:
            self.process = subprocess.Popen(command)
            return
        with self.console.open("wb") as console:
            self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=console, stderr=subprocess.STDOUT)
        self.wait_for("started", START_SECONDS)

    def command(self):
        append = "root=/dev/vda rw rootfstype=ext4 console=ttyS0 init=/init panic=-1 quiet"
        command = ["qemu-system-ppc", "-M", "ppce500", "-cpu", "e500mc", "-m", str(MEMORY_MIB), "-nographic"]
        command += ["-nodefaults", "-no-reboot", "-kernel", str(self.made / "vmlinux"), "-append", append]
        command += ["-serial", "mon:stdio"] if self.terminal else ["-monitor", "none", "-serial", "stdio"]
        disks = [(self.made / "root.img", "snapshot=on"), (self.make_disk("other.img", "ext4"), "snapshot=off")]
        if FILE_SYSTEMS[self.files]:
            disks.append((self.make_disk("files.img", self.files), "snapshot=off"))
        for i, (disk, option) in enumerate(disks):
            command += ["-drive", f"if=none,id=disk{i},format=raw,cache=unsafe,{option},file={quoted(disk)}"]
            command += ["-device", f"virtio-blk-pci,drive=disk{i}"]
        for tag, path, option in (("host", self.shared, ""), ("tree", TOP, ",readonly=on"),
                                  ("libraries", LIBRARIES, ",readonly=on")):  # fmt: skip
            command += ["-fsdev", f"local,id={tag},security_model=none,path={quoted(path)}{option}"]
            command += ["-device", f"virtio-9p-pci,fsdev={tag},mount_tag={tag}"]
        return command + ["-device", "virtio-rng-pci"] + self.options

    def make_disk(self, name, files):
        disk = self.folder / name
        with disk.open("wb") as file:
            file.truncate(DISK_BYTES)
        subprocess.run([*FILE_SYSTEMS[files], disk], check=True, stdout=subprocess.DEVNULL)
        return disk

    def wait_for(self, name, seconds, meanwhile=lambda: None):
        """Waits until the board has made this file in the shared folder."""
        deadline = time.monotonic() + seconds
        while not (self.shared / name).exists():
            if self.process.poll() is not None:
                self.fail("the board has stopped")
            if time.monotonic() > deadline:
                self.fail(f"the board did not answer in {seconds} s")
            meanwhile()
            time.sleep(POLL_SECONDS)
        meanwhile()

    def fail(self, what):
        raise Failure(f"{what}; its console:\n{self.console_text()[-CONSOLE_BYTES:]}")

    def console_text(self):
        return self.console.read_text(encoding="utf-8", errors="replace")

    def send(self, line):
        try:
            self.process.stdin.write(line.encode() + b"\n")
            self.process.stdin.flush()
        except BrokenPipeError:
            self.fail("the board has stopped")

    def begin(self, command, user=0, seconds=JOB_SECONDS, streams=("output", "errors")):
        """Begins a command in this directory. It gets the variables ORV_* and GTEST_* of this environment. Returns the
        folder of the job; what the command writes goes into these files there."""
        self.jobs += 1
        job = self.shared / str(self.jobs)
        job.mkdir()
        texts = {"command": listed(map(str, command)), "environment": listed(environment()), "directory": os.getcwd(),
                 "user": user, "seconds": seconds}  # fmt: skip
        texts.update({name: "" for name in streams})
        for name, value in texts.items():
            (job / name).write_bytes(os.fsencode(str(value)))
        self.send(job.name)
        return job

    def run(self, command, user=0, seconds=JOB_SECONDS, output=None, errors=None):
        """Runs a command and returns its exit status, as a shell shows it. What it writes goes into the files `output`
        and `errors`, which may be the same, or is lost."""
        streams = {"output": output} if errors is output else {"output": output, "errors": errors}
        job = self.begin(command, user, seconds, streams)
        with contextlib.ExitStack() as stack:
            pairs = [(stack.enter_context((job / name).open("rb")), stream) for name, stream in streams.items() if stream]
            self.wait_for(f"{job.name}.done", seconds + STOP_SECONDS, lambda: pass_on(pairs))
        status = (self.shared / f"{job.name}.done").read_text(encoding="ascii")
        if status == "late":
            self.fail(f"the command did not end in {seconds} s")
        return int(status)

    def stop(self):
        if not self.terminal:
            self.send("stop")
        try:
            self.process.wait(None if self.terminal else STOP_SECONDS)
        except subprocess.TimeoutExpired:
            self.fail(f"the board did not stop in {STOP_SECONDS} s")
        if not self.terminal and TROUBLE.search(self.console_text()):
            self.fail("the kernel of the board reported trouble")

    def end(self):
        """Ends the board, if it still runs, without asking it."""
        if self.process is not None:
            self.process.kill()
            self.process.communicate()
        self.temporary.cleanup()
        os.close(self.lock)


@contextlib.contextmanager
def open_directory(path):
    descriptor = os.open(path, os.O_RDONLY)
    try:
        yield descriptor
    finally:
        os.close(descriptor)


def quoted(path):
    """Returns a path as a value of QEMU's options."""
    return str(path).replace(",", ",,")


def listed(texts):
    return "".join(text + "\0" for text in texts)


def environment():
    kept = [f"{key}={value}" for key, value in os.environ.items() if key.startswith(("ORV_", "GTEST_"))]
    return ["PATH=/bin", "HOME=/tmp", "LC_ALL=C", *kept]


def pass_on(pairs):
    """Appends what is new in files to streams."""
    for file, stream in pairs:
        if new := file.read():
            stream.write(new)
            stream.flush()


def main(action, folder, *command):
    files = os.environ.get("ORV_BOARD_FILES", "ext4")
    user = int(os.environ.get("ORV_BOARD_USER", 0))
    seconds = int(os.environ.get("ORV_BOARD_SECONDS", JOB_SECONDS))
    try:
        with Machine(folder, files, user, terminal=action == "shell") as board:
            if action == "shell":
                return 0
            return board.run(command, user, seconds, sys.stdout.buffer, sys.stderr.buffer)
    except Failure as failure:
        print(f"script/board: {failure}", file=sys.stderr)
        return 125


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
