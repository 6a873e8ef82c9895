"""The base of the campaigns on real file systems: private mounts, calls of the library through
orv_call, snapshots of directories, and counted checks and skips.

A campaign ends with 0 if all checks succeeded, with 1 otherwise, and with 77 if it cannot run. If this machine cannot
mount a file system, the campaign skips it, prints that and counts it; with ORV_NO_SKIP set, it fails if REQUIRED names
the file system. ORV_FULL=1 runs the long form.
"""

import argparse
import collections
import hashlib
import os
import re
import shutil
import signal
import stat
import subprocess
import sys
import tempfile
import time
import traceback
import urllib.parse

import orv_test
from oracle import SEVERITY, SOURCE, is_like

MEBIBYTE = 1 << 20
NOBODY = 65534
PATIENCE_SECONDS = 60
FULL = os.environ.get("ORV_FULL") == "1"

# These work on Debian 12 with a kernel that has the file systems; there, none of them may be missing.
REQUIRED = {
    "ext2", "ext3", "ext4", "ext4-nofiletype", "xfs", "btrfs-a", "btrfs-b", "btrfs-qgroup", "tmpfs", "ramfs", "overlay",
    "bind", "disk", "fuse", "squashfs", "erofs", "ext4-readonly", "immutable on ext4", "immutable on xfs",
    "immutable on btrfs", "immutable on tmpfs", "power cut on ext4", "power cut on xfs", "power cut on btrfs",
}
IMAGES = {  # name: (MiB, command that makes the file system)
    "ext2": (32, ["mkfs.ext2", "-q"]),
    "ext3": (32, ["mkfs.ext3", "-q"]),
    "ext4": (64, ["mkfs.ext4", "-q"]),
    "ext4-nofiletype": (32, ["mkfs.ext4", "-q", "-O", "^filetype"]),
    "vfat": (32, ["mkfs.vfat"]),
    "xfs": (300, ["mkfs.xfs", "-q"]),
    "btrfs": (128, ["mkfs.btrfs", "-q"]),
}
WRITABLE = ("ext2", "ext3", "ext4", "ext4-nofiletype", "xfs", "btrfs-a", "btrfs-b", "tmpfs", "ramfs", "overlay", "bind",
            "disk", "fuse")
READ_ONLY = ("squashfs", "erofs", "ext4-readonly")

MOVE = "RenameFileAcrossFs"
TABLE = b"Port:1,up\n"
TABLE_HTML = b"<table  BORDER=2><tr><td>Port</td><td>1</td><td>up</td></tr></table>"

Answer = collections.namedtuple("Answer", "result reports items")
Member = collections.namedtuple("Member", "name path")


class CannotMount(Exception):
    pass


def material(size, seed=1):
    """Returns bytes in which all blocks of 4096 differ."""
    block = bytes((seed * 37 + i * i // 7 + i) % 251 for i in range(4093))
    return (block * (size // len(block) + 1))[:size]


def write(path, content=b"", mode=0o644):
    with open(path, "wb") as file:
        file.write(content)
    os.chmod(path, mode)
    return path


def read(path):
    with open(path, "rb") as file:
        return file.read()


def file(content, mode=0o644):
    """Describes a regular file; long content by its size and digest."""
    if len(content) > 80:
        content = (len(content), hashlib.sha256(content).hexdigest()[:16])
    return ("file", oct(mode), content)


def shape(path):
    """Describes the object at a path for comparisons, without following links."""
    status = os.lstat(path)
    if stat.S_ISREG(status.st_mode):
        return file(read(path), stat.S_IMODE(status.st_mode))
    if stat.S_ISLNK(status.st_mode):
        return ("link", os.readlink(path))
    if stat.S_ISDIR(status.st_mode):
        return ("directory", oct(stat.S_IMODE(status.st_mode)), tree(path))
    return (stat.filemode(status.st_mode)[0], oct(stat.S_IMODE(status.st_mode)))


def tree(directory):
    return {name: shape(os.path.join(directory, name)) for name in sorted(os.listdir(directory))}


def listed(directory, files):
    """Returns what the library lists: nothing on a file system that does not record entry types."""
    return [] if "/ext4-nofiletype/" in directory else files


def clear(directory):
    for entry in list(os.scandir(directory)):
        if entry.is_dir(follow_symlinks=False):
            shutil.rmtree(entry.path)
        else:
            os.unlink(entry.path)


def shortened(value):
    text = repr(value)
    return text if len(text) < 2000 else f"{text[:1000]} ... {text[-900:]} ({len(text)} characters)"


class Caller:
    """One orv_call process."""

    def __init__(self, lab, umask=0o022, user=None, ignore_file_size_signal=False):
        ignored = signal.SIG_IGN if ignore_file_size_signal else signal.SIG_DFL
        before = signal.signal(signal.SIGXFSZ, ignored)
        try:
            self.process = subprocess.Popen(
                [lab.orv_call], stdin=subprocess.PIPE, stdout=subprocess.PIPE, umask=umask, user=user, group=user,
                extra_groups=None if user is None else [], restore_signals=False, cwd="/")
        finally:
            signal.signal(signal.SIGXFSZ, before)
        self.pid = self.process.pid
        self.lab = lab
        lab.callers.append(self)
        self.ask("TextFileTableDelimter")  # the answer shows that the program has started and opens no more files

    def descriptors(self):
        return sorted(os.listdir(f"/proc/{self.pid}/fd"))

    def call(self, operation, *arguments):
        """Calls the library or its companion, and checks the form of its reports and that no descriptor stays open."""
        before = self.descriptors()
        answer = self.ask(operation, *arguments)
        self.lab.check(f"{operation}{arguments}: no descriptor left open", self.descriptors(), before)
        return answer

    def ask(self, operation, *arguments):
        self.send(operation, *arguments)
        return self.answer(operation, *arguments)

    def send(self, operation, *arguments):
        fields = [urllib.parse.quote(os.fsencode(argument)) + "\t" for argument in (operation, *arguments)]
        self.process.stdin.write("".join(fields).encode() + b"\n")
        self.process.stdin.flush()

    def answer(self, operation, *arguments):
        reports, items = [], []
        while True:
            line = self.process.stdout.readline()
            if not line:
                raise RuntimeError(f"orv_call died in {operation}{arguments}: {self.process.wait()}")
            kind, *values = [os.fsdecode(urllib.parse.unquote_to_bytes(field)) for field in line.split(b"\t")[:-1]]
            if kind == "report":
                severity, tag, message, text = values
                source = "orv_safe" if operation.startswith("Safe") else SOURCE
                self.lab.check(f"{operation}: a report at severity 3 with the source's name", (severity, tag),
                               (str(SEVERITY), source))
                reports.append((message, text))
            elif kind == "item":
                items.append(values[0] if len(values) == 1 else tuple(values))
            else:
                return Answer(values[0], reports, items)

    def end(self):
        self.process.stdin.close()
        code = self.process.wait(PATIENCE_SECONDS)
        self.process.stdout.close()
        self.lab.check("orv_call ends well", code, 0)
        self.lab.callers.remove(self)


class Lab:
    def __init__(self, options):
        self.orv_call = os.path.abspath(options.orv_call)
        self.hostile_fuse = options.hostile_fuse and os.path.abspath(options.hostile_fuse)
        self.base = tempfile.mkdtemp(prefix="orv_fs_")
        os.chmod(self.base, 0o755)
        self.root = os.path.join(self.base, "lab")
        self.disk = os.path.join(self.base, "disk")
        os.mkdir(self.root)
        os.mkdir(self.disk)
        self.run("mount", "-t", "tmpfs", "-o", "mode=755", "orv", self.root)
        self.orv_call = self.reachable(self.orv_call)
        self.counts = collections.Counter()
        self.checks = 0
        self.failures = 0
        self.skips = []
        self.callers = []
        self.daemons = []

    def reachable(self, program):
        """A copy of the program and the libraries that users without privileges may execute."""
        directory = self.directory("bin")
        for library in re.findall(r"=> (\S*/libOrv\S+)", self.run("ldd", program)):
            shutil.copy(library, directory)
        os.environ["LD_LIBRARY_PATH"] = directory
        return shutil.copy(program, directory)

    # ---- Checks

    def check(self, claim, got, expected):
        self.checks += 1
        if got != expected:
            self.fail(f"{claim}\n    expected {shortened(expected)}\n    got      {shortened(got)}")
        return got == expected

    def fail(self, what):
        self.failures += 1
        print(f"FAILED: {what}", flush=True)

    def expect(self, claim, answer, result, *reports):
        """Expects this result and exactly these reports."""
        self.check(f"{claim}: result", answer.result, result)
        fits = len(answer.reports) == len(reports) and all(
            got[0] == expected.format and is_like(expected.text, got[1])
            for got, expected in zip(answer.reports, reports))
        self.checks += 1
        if not fits:
            self.fail(f"{claim}: reports\n    expected {list(reports)}\n    got      {answer.reports}")

    def skip(self, name, reason):
        print(f"SKIPPED: {name}: {reason}", flush=True)
        self.skips.append(name)
        if not orv_test.MAY_SKIP and name in REQUIRED:
            self.fail(f"{name} may not be skipped")

    # ---- File systems

    def run(self, *command):
        done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="replace")
        if done.returncode != 0:
            raise CannotMount(f"{' '.join(command)}: {done.stdout.strip()}")
        return done.stdout

    def directory(self, name):
        path = os.path.join(self.root, name)
        os.makedirs(path, exist_ok=True)
        return path

    def image(self, kind, name=None, mebibytes=None, options=()):
        size, command = IMAGES[kind]
        path = os.path.join(self.root, f"{name or kind}.image")
        with open(path, "wb") as image:
            image.truncate((mebibytes or size) * MEBIBYTE)
        self.make(*command, *options, path)
        return path

    def make(self, *command):
        try:
            self.run(*command)
        except FileNotFoundError as error:
            raise CannotMount(f"{command[0]} is not installed") from error

    def mount(self, name, *arguments):
        """Mounts on a new directory and returns its path."""
        path = self.directory(name)
        for attempt in range(5):  # another process may use the loop device that mount has found
            try:
                self.run("mount", *arguments, path)
                break
            except CannotMount:
                if attempt == 4 or "loop" not in arguments:
                    raise
                time.sleep(0.2)
        return path

    def tmpfs(self, name, options):
        return self.mount(name, "-t", "tmpfs", "-o", options, "orv")

    def umount(self, path):
        self.run("umount", path)

    def open_to_all(self, path):
        """Returns a directory below the mount, without lost+found."""
        below = os.path.join(path, "dir")
        os.mkdir(below)
        return below

    def fuse(self, name):
        if not self.hostile_fuse:
            raise CannotMount("built without libfuse3")
        shown, path = self.directory(name + ".shown"), self.directory(name)
        daemon = subprocess.Popen([self.hostile_fuse, shown, path])
        self.daemons.append((daemon, path))
        end = time.monotonic() + PATIENCE_SECONDS
        while not os.path.ismount(path):
            if daemon.poll() is not None or time.monotonic() > end:
                raise CannotMount("the daemon does not serve")
            time.sleep(0.01)
        return path

    def writable(self, name):
        """Returns the directory of a writable file system."""
        if name == "disk":
            return self.disk
        if name == "tmpfs":
            return self.open_to_all(self.tmpfs(name, "size=64m"))
        if name == "ramfs":
            return self.open_to_all(self.mount(name, "-t", "ramfs", "orv"))
        if name == "fuse":
            return self.open_to_all(self.fuse(name))
        if name == "bind":  # another mount of the file system ext4
            below = os.path.join(self.root, "ext4", "bound")
            if not os.path.ismount(os.path.dirname(below)):
                raise CannotMount("there is no ext4 to bind")
            os.mkdir(below)
            return self.mount(name, "--bind", below)
        if name == "overlay":
            layers = {layer: self.directory("overlay." + layer) for layer in ("lowerdir", "upperdir", "workdir")}
            options = ",".join(f"{layer}={path}" for layer, path in layers.items())
            return self.open_to_all(self.mount(name, "-t", "overlay", "-o", options, "orv"))
        if name.startswith("btrfs-"):
            top = os.path.join(self.root, "btrfs")
            if not os.path.ismount(top):
                self.mount("btrfs", "-o", "loop", self.image("btrfs"))
            subvolume = os.path.join(top, name)
            self.make("btrfs", "subvolume", "create", subvolume)
            return subvolume
        return self.open_to_all(self.mount(name, "-o", "loop", self.image(name)))

    def read_only(self, name, content):
        """Returns the directory of a read-only file system with the content of the directory `content`."""
        image = os.path.join(self.root, name + ".image")
        if name == "squashfs":
            self.make("mksquashfs", content, image, "-quiet", "-no-progress")
        elif name == "erofs":
            self.make("mkfs.erofs", image, content)
        else:
            image = self.image("ext4", name, options=("-d", content))
        return self.mount(name, "-o", "loop,ro", image)

    def members(self, names, make):
        """Returns the file systems that this machine has; the others are skipped."""
        found = []
        for name in names:
            try:
                found.append(Member(name, make(name)))
            except CannotMount as error:
                self.skip(name, error)
        return found

    def writable_members(self, names=WRITABLE):
        return self.members(names, self.writable)

    def caller(self, **options):
        return Caller(self, **options)

    # ---- The end

    def close(self):
        for caller in list(self.callers):
            caller.process.kill()
            caller.process.wait()
        for daemon, path in self.daemons:
            daemon.terminate()
            daemon.wait(PATIENCE_SECONDS)
            if os.path.ismount(path):
                self.run("umount", "-l", path)
        with open("/proc/self/mountinfo", encoding="utf-8") as mounts:
            points = [line.split()[4] for line in mounts]
        for point in reversed(points):
            if point.startswith(self.base + "/"):
                self.run("umount", point)
        shutil.rmtree(self.base)

    def summary(self, title):
        print(f"{title}: " + ", ".join(f"{count} {name}" for name, count in self.counts.items()))
        print(f"realfs: {title}: {self.checks} checks, {self.failures} failed, {len(self.skips)} skipped"
              + (f": {', '.join(self.skips)}" if self.skips else ""), flush=True)


def main(title, campaign):
    """Runs campaign(lab) as root, with private mounts."""
    parser = argparse.ArgumentParser()
    parser.add_argument("--orv-call", required=True)
    parser.add_argument("--hostile-fuse")
    options = parser.parse_args()
    reason = None
    if os.geteuid() != 0:
        reason = "mounting needs root"
    elif "ORV_FS_NAMESPACE" not in os.environ:
        if subprocess.run(["unshare", "--mount", "--propagation", "private", "true"]).returncode == 0:
            os.environ["ORV_FS_NAMESPACE"] = "1"
            os.execvp("unshare", ["unshare", "--mount", "--propagation", "private", sys.executable, "-B", *sys.argv])
        reason = "this machine grants no mount namespace"
    if reason:
        orv_test.skip(f"{title}: {reason}")

    start = time.monotonic()
    os.umask(0)
    lab = Lab(options)
    try:
        campaign(lab)
        for caller in list(lab.callers):
            caller.end()
    except Exception:  # pylint: disable=broad-except
        lab.fail(traceback.format_exc())
    finally:
        lab.close()
    lab.summary(title)
    print(f"{title}: {time.monotonic() - start:.0f} s{', in full' if FULL else ''}")
    sys.exit(1 if lab.failures else 0)
