#!/usr/bin/env python3
"""Cuts the power of the emulated board at every write, and judges what is left; script/board calls this.

Usage: power_cuts.py FOLDER PROGRAM [COUNT]           without COUNT, in the long form
       power_cuts.py FOLDER PROGRAM --again KEPT STATE

PROGRAM is orv_device_work, which does what programs of the device do: with the library, with the durable companion, and
as a control with the companion without its flushes. It runs on a disk with two file systems, or on a flash with two
UBIFS, whose writes QEMU logs. The log is replayed up to each write (COUNT: up to that many, evenly chosen), in two
models of the disk. A flash has no cache, so there is only the first, but also with half of the last write:

  ordered    all writes before the cut are on the disk
  volatile   all writes before the last flush are, and a random half of those that came after it

Each state is mounted, which needs root, and judged: a durable call that has returned is on the disk; of one that is
under way, the old or the new file, whole; and the content of a file that is moved is somewhere. A loss is a failure; so
it is if the control loses nothing. Besides, the board itself is killed at random times.

After a failure, the folder KEPT is left, and --again judges one of its states again. STATE is a name from a message.
"""

import collections
import contextlib
import ctypes
import fcntl
import functools
import itertools
import json
import os
import pathlib
import random
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import time

from machine import Failure, Machine, quoted
from write_log import FLUSH, BadLog, Entry, Part, Replay, entries, inside

MIB = 1 << 20
SECTOR = 512
MARKS_AT = 4096
PARTS = {"source": Part(MIB, 128 * MIB), "destination": Part(129 * MIB, 128 * MIB)}
DISK_BYTES = 257 * MIB
FLASH = {"flash": Part(MIB, 32 * MIB)}
FLASH_BYTES = 33 * MIB
ERASED = 0xFF
FORMAT = {
    "ext4": ["mke2fs", "-q", "-F", "-t", "ext4", "-b", "4096", "-J", "size=4", "-E", "lazy_itable_init=0"],
    "btrfs": ["mkfs.btrfs", "-q"],
    "xfs": ["mkfs.xfs", "-q", "--unsupported"],  # which means: smaller than 300 MiB
}
WAYS = {"library": "the library", "control": "the companion without flushes", "durable": "the durable companion"}
DEVICE = "/dev/vdc"
TABLE_AT, LINUX = 446, 0x83  # of the partitions
SEED = 22
ROUNDS, ROUNDS_SHORT = 30, 4
LONG = {"ext4": (2600, 25), "btrfs": (2600, 25), "xfs": (200, 5), "ubifs": (400, 5)}  # cuts and kills
KILL_SECONDS = 6.0  # after the first call, at the latest
PROGRAM_SECONDS = 1200
MEMORY = "/dev/shm"
BLKFLSBUF = 0x1261
STATE = "{}, cut before write {}"
KEPT_CALLS = 3  # of which the program leaves the new files
MINIMUM = pathlib.Path(__file__).resolve().parent.parent / "script" / "minimum-tests.txt"


# ---- What the program does

class Job(collections.namedtuple("Job", "index kind replaced way page")):
    """`page` is a page of which "@" is the content."""

    @property
    def directory(self):
        return "source" if self.kind == "page" else "destination"

    @functools.lru_cache(200)
    def whole(self, call):
        """Returns what this call of the job writes."""
        content = b"%02d-%06d/" % (self.index, call) * (1500 + call % 10 * 100)
        if self.kind.startswith("page"):
            return self.page.replace(b"@", content)
        return b"mode=" + content + b"\n" if self.kind == "settings" else content


def read_jobs(output):
    """Reads what the program has written."""
    *lines, page = output.split(b"\n")
    if not lines or page.count(b"@") != 1:
        raise Failure(f"the program has not described its jobs: {output!r}")
    jobs = []
    for index, line in enumerate(lines):
        kind, destination, way = line.decode().split("\t")
        jobs.append(Job(index, kind, destination == "replaced", way, page))
    return jobs


def read_marks(disk, jobs):
    """Returns for each job the numbers of the last call that has begun, and of the last one that has ended."""
    marks = {}
    for job in jobs:
        found = re.match(rb"orv (\d+) (\d+)\n", os.pread(disk.fileno(), SECTOR, MARKS_AT + SECTOR * job.index))
        marks[job] = (int(found[1]), int(found[2])) if found else (0, 0)
    return marks


# ---- What is left of it

def identify(job, content, latest):
    """Returns the number of the call that has written this content; 0 without a file; a word for other content."""
    if content is None:
        return 0
    for call in range(latest, 0, -1):
        if content == job.whole(call):
            return call
    if isinstance(content, OSError):
        return "unreadable"
    if not content:
        return "empty"
    if not any(content):
        return "zeros"
    is_prefix = any(job.whole(call).startswith(content) for call in range(latest, 0, -1))
    return "prefix" if is_prefix else "mixed"


def expectations(job, begun, ended):
    """Returns names of files, and of which calls each may be; 0 if it may be missing."""
    under_way = {begun} if begun > ended else set()
    if job.replaced:
        return [(f"{job.index}", {ended} | under_way)] if begun else []
    calls = [(f"{job.index}.{call}", {call}) for call in range(max(1, ended - KEPT_CALLS + 1), ended + 1)]
    return calls + [(f"{job.index}.{call}", {0, call}) for call in under_way]


def loss(job, marks, seen):
    """Returns what the job has lost, or None. `marks` are those of the job, `seen` the files on each part. A move that
    is not durable loses nothing as long as the content is somewhere."""
    for name, calls in expectations(job, *marks):
        latest = max(calls)
        found = identify(job, seen[job.directory].get(name), latest)
        source = identify(job, seen["source"].get(f"{job.index}.{latest}"), latest)
        is_somewhere = job.kind != "move" or latest in (found, source)
        is_expected = found in calls or (job.kind == "move" and job.way != "durable")
        if not (is_somewhere and is_expected):
            return found if isinstance(found, str) else "old" if found else "missing"
    return None


class Tally:
    """Counts the states, and the losses of each job by cause."""

    def __init__(self):
        self.states = 0
        self.losses = collections.Counter()
        self.unforgivable = []

    def judge(self, name, jobs, mounts, replay, dropped=()):
        """Judges a state of the disk. Its name is for messages."""
        try:
            self.add(name, read_marks(replay.disk, jobs), mounts.seen(replay, dropped))
        except Failure as failure:
            raise Failure(f"{name}: {failure}") from failure

    def add(self, name, marks, seen):
        self.states += 1
        for job in marks:
            cause = loss(job, marks[job], seen)
            if cause:
                self.losses[job, cause] += 1
            if cause and job.way == "durable":
                self.unforgivable.append(f"{name}: {job.kind}, {'replaced' if job.replaced else 'new'}: {cause}")

    def lost(self, way):
        return sum(count for (job, _), count in self.losses.items() if job.way == way)

    def details(self, job):
        causes = {cause: count for (other, cause), count in sorted(self.losses.items()) if other == job}
        return f"{sum(causes.values()):,}" + "".join(f"; {count:,} {cause}" for cause, count in causes.items())

    def table(self, jobs):
        lines = ["| Call | Destination | Library | Companion, durable | Companion without flushes |",
                 "|---|---|---|---|---|"]  # fmt: skip
        for first in range(0, len(jobs), 3):
            three = {job.way: job for job in jobs[first : first + 3]}
            columns = [self.details(three[way]) for way in ("library", "durable", "control")]
            destination = "replaced" if jobs[first].replaced else "new"
            lines.append(f"| {jobs[first].kind} | {destination} | {' | '.join(columns)} |")
        return "\n".join(lines)


# ---- Mounting it

BOARD_DEVICES = {"source": "/dev/vdc", "destination": "/dev/vdd"}
SHOW = "mkdir -p /tmp/m && mount -t {} {} /tmp/m && cp -r /tmp/m /host/shown && umount /tmp/m"

# Attaches a flash of this name to UBI.
ATTACH = "ubiattach -m $(grep '{}' /proc/mtd | sed 's/^mtd//; s/:.*//') /dev/ubi_ctrl >/dev/null"
# QEMU cannot exchange the content of a flash while it runs. So each state is a disk that the kernel takes as a flash.
MAKE_FLASH = f"echo {BOARD_DEVICES['source']},64KiB >/sys/module/block2mtd/parameters/block2mtd"
SHOW_FLASH = f"""set -e
{ATTACH.format('block2mtd')}
mkdir -p /tmp/m /host/shown
for volume in source destination; do
    mount -t ubifs ubi0:$volume /tmp/m
    cp -r /tmp/m /host/shown/$volume
    umount /tmp/m
done
ubidetach -d 0 /dev/ubi_ctrl
sync
echo 3 >/proc/sys/vm/drop_caches # the next state is read from the disk
"""


class Mounts:
    """Shows the files of states, whose images are in memory. A class below mounts them."""

    parts = PARTS

    def __init__(self, kind):
        self.kind = kind
        self.stack = contextlib.ExitStack()

    def __enter__(self):
        folder = tempfile.TemporaryDirectory(prefix="orv_cuts.", dir=MEMORY)  # pylint: disable=consider-using-with
        self.folder = pathlib.Path(self.stack.enter_context(folder))
        for name, part in self.parts.items():
            image = self.folder / name
            image.write_bytes(b"\0" * SECTOR)
            os.truncate(image, part.size)
        try:
            self.attach()
        except BaseException:
            self.stack.close()
            raise
        return self

    def __exit__(self, *error):
        self.stack.__exit__(*error)

    def seen(self, replay, dropped=()):
        """Returns the files on each part."""
        files = {}
        for part in PARTS:
            here = tuple(write.number for write in replay.pending if write.part == part and write.number in dropped)
            files[part] = self.mounted(replay, part, replay.latest[part], here)
        return files

    @functools.lru_cache(maxsize=6)  # most cuts change one part only
    def mounted(self, replay, part, _latest, dropped):
        replay.make_image(part, dropped, self.folder / part)
        return self.files(part)


class HostMounts(Mounts):
    """Mounts on this machine, which needs root."""

    def attach(self):
        self.libc = ctypes.CDLL(None, use_errno=True)
        self.point = self.folder / "mounted"
        self.point.mkdir()
        self.devices = {}
        for part in PARTS:
            command = ["losetup", "--show", "-f", self.folder / part]
            device = subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout.strip()
            self.devices[part] = device
            self.stack.callback(subprocess.run, ["losetup", "-d", device], check=True)

    def files(self, part):
        device, point = self.devices[part], os.fsencode(self.point)
        with open(device, "rb") as block:
            fcntl.ioctl(block, BLKFLSBUF)
        if self.libc.mount(device.encode(), point, self.kind.encode(), 0, None) != 0:
            raise Failure(f"the {part} cannot be mounted: {os.strerror(ctypes.get_errno())}")
        try:
            return files_in(self.point)
        finally:
            if self.libc.umount2(point, 0) != 0:
                raise Failure(f"the {part} cannot be unmounted: {os.strerror(ctypes.get_errno())}")


class BoardMounts(Mounts):
    """Mounts on a board, because the log of xfs has the byte order of its writer. The images change while nothing is
    mounted."""

    def __init__(self, kind, folder):
        super().__init__(kind)
        self.made = folder

    def attach(self):
        options = []
        for part in self.parts:
            drive = f"if=none,id={part},format=raw,cache=unsafe,file={quoted(self.folder / part)}"
            options += ["-drive", drive, "-device", f"virtio-blk-pci,drive={part}"]
        self.board = self.stack.enter_context(Machine(self.made, files="tmpfs", options=options))

    def files(self, part):
        return self.shown(part, SHOW.format(self.kind, BOARD_DEVICES[part]), files_in)

    def shown(self, part, command, read):
        """Returns what is read from the folder that a command has shown."""
        with tempfile.TemporaryFile() as output:
            status = self.board.run(["sh", "-c", command], output=output, errors=output)
            output.seek(0)
            if status != 0:
                raise Failure(f"the board cannot show the {part}: {output.read().decode()}")
        shown = self.board.shared / "shown"
        files = read(shown)
        shutil.rmtree(shown)
        return files


class FlashMounts(BoardMounts):
    """Mounts both volumes of a flash."""

    parts = FLASH

    def attach(self):
        super().attach()
        if self.board.run(["sh", "-c", MAKE_FLASH]) != 0:
            self.board.fail("the board cannot take a disk as a flash")

    def seen(self, replay, dropped=()):
        return self.mounted(replay, "flash", replay.latest["flash"], dropped)

    def files(self, part):
        return self.shown(part, SHOW_FLASH, lambda shown: {volume: files_in(shown / volume) for volume in PARTS})


def files_in(folder):
    return {name: content_of(folder / name) for name in os.listdir(folder) if name[0].isdigit()}


def content_of(path):
    try:
        return path.read_bytes()
    except OSError as error:
        return error


# ---- The board

def make_disk(kind, disk):
    """Makes a disk with two empty file systems, and a table of partitions in front of them."""
    rows = [struct.pack("<B3xB3xLL", 0, LINUX, part.offset // SECTOR, part.size // SECTOR) for part in PARTS.values()]
    with disk.open("wb") as file:
        file.write((bytes(TABLE_AT) + b"".join(rows)).ljust(SECTOR - 2, b"\0") + b"\x55\xaa")
        for part in PARTS.values():
            image = disk.with_suffix(".part")
            image.touch()
            os.truncate(image, part.size)
            subprocess.run([*FORMAT[kind], image], check=True, stdout=subprocess.DEVNULL)
            file.seek(part.offset)
            file.write(image.read_bytes())
            image.unlink()


def disk_is_marked(disk):
    with disk.open("rb") as file:
        file.seek(MARKS_AT)
        return any(file.read(MIB - MARKS_AT))


class Killed(Exception):
    pass


class Trial:
    """One kind of file system. `kept` is the folder of everything: "empty" is a disk with two file systems, "log" has
    the writes to it, "jobs" is the output of the program, and "kill N" is a disk that has a loss."""

    parts, disk_bytes = PARTS, DISK_BYTES
    devices = ["-device", "virtio-blk-pci,drive=cut,discard=off,write-zeroes=off"]

    def __init__(self, folder, kept):
        self.folder, self.kept = folder, pathlib.Path(kept)
        self.empty, self.log, self.jobs = self.kept / "empty", self.kept / "log", self.kept / "jobs"
        self.kind = kind_of(self.kept)

    @classmethod
    def new(cls, folder, program, kind, count):
        trial = cls(folder, tempfile.mkdtemp(prefix=f"power-cuts.{kind}.", dir=folder))
        trial.program = program
        trial.cuts, trial.kills = (count, 1) if count else LONG[kind]
        trial.rounds = ROUNDS_SHORT if count else ROUNDS
        trial.make_empty()
        return trial

    def make_empty(self):
        make_disk(self.kind, self.empty)

    def entries(self):
        return entries(self.log, self.disk_bytes)

    def replay(self, disk):
        return Replay(disk, self.parts)

    def models(self, replay):
        return models(replay)

    def is_lost(self, entry, beginning, job, _found):
        return beginning in entry.data and inside(self.parts[job.directory], entry.offset)

    def command(self, rounds):
        return [self.program, self.kind, DEVICE, rounds]

    def mounts(self):
        return BoardMounts(self.kind, self.folder) if self.kind == "xfs" else HostMounts(self.kind)

    def new_disk(self, name="disk"):
        disk = self.kept / name
        subprocess.run(["cp", "--sparse=always", self.empty, disk], check=True)
        return disk

    def board(self, disk, log=None):
        """Returns a board with one more disk, whose writes are logged."""
        file = "driver=file,cache.no-flush=on"
        options = ["-blockdev", f"{file},node-name={'disk' if log else 'cut'},filename={quoted(disk)}"]
        if log:
            log.touch()
            options += ["-blockdev", f"{file},node-name=log,filename={quoted(log)}", "-blockdev",
                        f"driver=blklogwrites,node-name=cut,file=disk,log=log,log-sector-size={SECTOR}"]  # fmt: skip
        return Machine(self.folder, files="tmpfs", options=options + self.devices)

    def work(self):
        """Runs the program to its end, and logs the writes. Returns the jobs."""
        with self.board(self.new_disk(), self.log) as board, tempfile.TemporaryFile() as output:
            status = board.run(self.command(self.rounds), seconds=PROGRAM_SECONDS, output=output, errors=output)
            output.seek(0)
            text = output.read()
        if status != 0:
            raise Failure(f"the program ended with {status}:\n{text.decode()}")
        self.jobs.write_bytes(text)
        return read_jobs(text)

    def kill(self, disk, seconds):
        """Runs the program, and kills the board some time after the first call has begun. Returns the jobs."""
        with contextlib.suppress(Killed), self.board(disk) as board:
            job = board.begin(self.command(ROUNDS))
            deadline = time.monotonic() + PROGRAM_SECONDS
            while not disk_is_marked(disk):
                if time.monotonic() > deadline or board.process.poll() is not None:
                    board.fail("no call has marked the disk")
                time.sleep(0.1)
            time.sleep(seconds)
            output = (job / "output").read_bytes()
            board.process.kill()
            board.process.wait()
            raise Killed
        return read_jobs(output)

    # ---- What is judged

    def cut_log(self, jobs):
        """Judges the states of the disk at the chosen points of the log."""
        points = choose(cut_points(self.entries()), self.cuts)
        tally = Tally()
        with self.mounts() as mounts, self.replay(self.new_disk()) as replay:
            for entry in itertools.chain(self.entries(), [None]):
                if replay.number in points:
                    for model, dropped in self.models(replay).items():
                        tally.judge(STATE.format(model, replay.number), jobs, mounts, replay, dropped)
                if entry:
                    replay.add(entry)
        return tally

    def check_sight(self, jobs):
        """Replays the log without the writes of one file of a durable call. The judge must see this loss."""
        job = next(job for job in jobs if (job.kind, job.replaced, job.way) == ("copy", True, "durable"))
        beginning = job.whole(self.rounds)[:SECTOR]
        found = 0
        with self.mounts() as mounts, self.replay(self.new_disk()) as replay:
            for entry in self.entries():
                is_lost = self.is_lost(entry, beginning, job, found)
                replay.add(entry._replace(data=b"") if is_lost else entry)
                found += is_lost
            marks, seen = read_marks(replay.disk, jobs)[job], mounts.seen(replay)
        if not found or marks != (self.rounds, self.rounds) or loss(job, marks, seen) is None:
            raise Failure(f"a lost write was not seen: {found} writes, marks {marks}")

    def kill_boards(self):
        """Judges what boards leave that are killed at random times."""
        tally, chance = Tally(), random.Random(f"{SEED} {self.kind}")
        for number in range(self.kills):
            name = f"kill {number}"
            disk = self.new_disk(name)
            jobs = self.kill(disk, chance.random() * KILL_SECONDS)
            with self.mounts() as mounts, self.replay(disk) as replay:
                tally.judge(name, jobs, mounts, replay)
            if not any(text.startswith(f"{name}:") for text in tally.unforgivable):
                disk.unlink()
        return tally

    def state(self, name):
        """Returns the disk in the state of this name, and the numbers of the writes that are lost."""
        if re.fullmatch(r"kill \d+", name):
            return self.replay(self.kept / name), ()
        replay = self.replay(self.new_disk())
        number = int(re.sub(r"\D", "", name) or 0)
        for entry in itertools.islice(self.entries(), number):
            replay.add(entry)
        for model, dropped in self.models(replay).items():
            if name == STATE.format(model, replay.number):
                return replay, dropped
        replay.disk.close()
        raise Failure("unknown state")

    def again(self, name):
        """Judges one state again. Returns the loss of each job, or None."""
        jobs = read_jobs(self.jobs.read_bytes())
        replay, dropped = self.state(name)
        with self.mounts() as mounts, replay:
            marks, seen = read_marks(replay.disk, jobs), mounts.seen(replay, dropped)
        return {job: loss(job, marks[job], seen) for job in jobs}

    def can_mount(self):
        try:
            with self.mounts() as mounts, self.replay(self.new_disk()) as replay:
                mounts.seen(replay)
        except Failure as failure:
            print(f"SKIPPED: power cuts on {self.kind}: {failure}")
            return False
        return True

    def run(self):
        """Returns how many cuts and kills were judged, and what is wrong."""
        jobs = self.work()
        self.check_sight(jobs)
        cuts = self.cut_log(jobs)
        kills = self.kill_boards()
        print(cuts.table(jobs))
        for name, tally in (("cuts", cuts), ("kills", kills)):
            counts = [f"{tally.lost(way):,} by {who}" for way, who in WAYS.items()]
            print(f"board: power cuts on {self.kind}: {tally.states:,} {name}; losses: {', '.join(counts)}", flush=True)
        return cuts.states, kills.states, problems(cuts, kills)


class FlashTrial(Trial):
    """UBIFS on a flash, which is a part of the disk. The log has a write for each block that the board erases, and for
    the bytes that it programs at once. Each is on the flash before the next one begins."""

    parts, disk_bytes = FLASH, FLASH_BYTES
    node = json.dumps({"driver": "raw", "file": "cut", **FLASH["flash"]._asdict()})
    devices = ["-blockdev", f"driver=raw,node-name=marks,size={MIB},file=cut",
               "-device", "virtio-blk-pci,drive=marks,share-rw=on,discard=off,write-zeroes=off",
               "-drive", f"if=pflash,file=json:{quoted(node)}"]  # fmt: skip

    def make_empty(self):
        self.empty.write_bytes(bytes(MIB) + bytes([ERASED]) * FLASH["flash"].size)

    def can_mount(self):
        return True  # the board can

    def mounts(self):
        return FlashMounts(self.kind, self.folder)

    def entries(self):
        """Yields each write in two parts, because the power can fail in the middle of one."""
        chance = random.Random(SEED)
        for entry in super().entries():
            first = chance.randrange(1, len(entry.data)) if inside(self.parts["flash"], entry.offset) else 0
            if first:
                yield entry._replace(data=entry.data[:first], flags=FLUSH)
            yield Entry(entry.offset + first, entry.data[first:], FLUSH)

    def models(self, replay):
        return {"ordered": frozenset()}

    def is_lost(self, entry, beginning, _job, found):
        """A hole in the log of UBIFS would be noticed, so all that follows is lost."""
        return inside(self.parts["flash"], entry.offset) and (found or beginning in entry.data)


KINDS = {"ext4": Trial, "btrfs": Trial, "xfs": Trial, "ubifs": FlashTrial}


def kind_of(kept):
    return (pathlib.Path(kept).resolve().name + ".").split(".")[1]


def problems(cuts, kills):
    """Returns what durable calls have lost. If the calls without flushes have lost nothing, no loss can be seen."""
    blind = [] if cuts.lost("control") else ["the calls without flushes have lost nothing"]
    return cuts.unforgivable + kills.unforgivable + blind


def cut_points(log):
    """Returns the numbers of the writes to the parts after the first mark, and that of the end."""
    points, marked, number = [], False, 0
    for number, entry in enumerate(log):
        marked = marked or MARKS_AT <= entry.offset < MIB
        if marked and entry.data and entry.offset >= MIB:
            points.append(number)
    if not marked:
        raise Failure("no call has marked the log")
    return points + [number + 1]


def choose(points, count):
    """Returns up to `count` of the points, evenly."""
    return {points[i * len(points) // count] for i in range(count)} if count < len(points) else set(points)


def models(replay):
    """Returns the models of the disk, with the numbers of the writes that a power cut loses now."""
    chance = random.Random(f"{SEED} {replay.number}")
    half = {write.number for write in replay.pending if chance.random() < 0.5 and not write.forced}
    return {"ordered": frozenset(), "volatile": frozenset(half)}


def test(folder, program, kind, count):
    """Returns how many cuts and kills were judged, and whether all is well."""
    start = time.monotonic()
    trial = KINDS[kind].new(folder, program, kind, count)
    wrong = []
    cuts = kills = 0
    try:
        if trial.can_mount():
            cuts, kills, wrong = trial.run()
        elif os.environ.get("ORV_NO_SKIP"):
            wrong = ["skipped"]
    except (Failure, BadLog, subprocess.SubprocessError) as failure:
        wrong = [str(failure)]
    for what in wrong:
        print(f"FAILED: power cuts on {kind}: {what}")
    print(f"{kind}: {time.monotonic() - start:.0f} s", flush=True)
    if wrong:
        print(f"to judge a state again: script/board power-cuts --again {trial.kept} STATE", flush=True)
    else:
        shutil.rmtree(trial.kept)
    return cuts, kills, not wrong


def judge_again(folder, kept, state):
    """Prints what each job has lost in this state."""
    if kind_of(kept) not in KINDS:
        sys.exit(f"FAILED: {kept} was not left by power-cuts")
    try:
        losses = KINDS[kind_of(kept)](folder, kept).again(state)
    except (Failure, BadLog, OSError) as failure:
        sys.exit(f"FAILED: {state}: {failure}")
    for job, cause in losses.items():
        print(f"{job.kind}, {'replaced' if job.replaced else 'new'}, {WAYS[job.way]}: {cause or 'kept'}")
    return int(any(cause for job, cause in losses.items() if job.way == "durable"))


def main(folder, program, count=0, *again):
    if count == "--again":
        return judge_again(folder, *again)
    results = [test(folder, program, kind, int(count)) for kind in KINDS]
    cuts, kills, well = map(list, zip(*results))
    print(f"board: power cuts: {sum(cuts):,} cuts and {sum(kills)} kills judged")
    minimum = int(re.search(r"(?m)^board-power (\d+)$", MINIMUM.read_text(encoding="utf-8"))[1])
    if not count and sum(cuts) + sum(kills) < minimum:
        sys.exit(f"FAILED: script/minimum-tests.txt demands {minimum}")
    return int(not all(well))


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
