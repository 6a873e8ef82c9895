#!/usr/bin/env python3
"""Real errors of file systems and limits: checks the result, every line and every file afterwards.

Usage: errors_test.py --orv-call=PROGRAM [--hostile-fuse=PROGRAM]
"""

import errno
import os
import resource
import socket
import stat
import subprocess
import threading

import fslab
from fslab import MOVE, file, material, read, shape, tree, write
from oracle import ANY_SUFFIX, LINES, PAGE_FOOTER, PAGE_HEADER, temporary_page

BLOCK = 4096
CONTENT = material(10000)
OLD = b"old"
PAGE = "GenHtmlPagefromTextFile"
PAGES = "/var/tmp"
# The short form uses these; the long form uses all.
SHORT = ("tmpfs", "ext4", "xfs", "btrfs-a", "btrfs-b", "bind", "disk")


class Setting:
    """A source and a destination directory; `renames` is true if they are on one mount of one file system.

    Across mounts the kernel answers EXDEV before it looks at the names. Between subvolumes of one mount it is the file
    system that answers so, after the kernel's own checks: `checked` when these come first.
    """

    def __init__(self, lab, caller, source, destination, renames):
        self.lab, self.caller, self.renames = lab, caller, renames
        self.source_dir, self.destination_dir = source, destination
        self.source, self.destination = os.path.join(source, "f"), os.path.join(destination, "new")
        self.claim = ""
        within_btrfs = all("/btrfs/" in path for path in (source, destination))
        self.checked = renames or within_btrfs

    def begin(self, claim, content=CONTENT, old=None):
        self.claim = f"{claim} ({self.source_dir} to {self.destination_dir})"
        for directory in (self.source_dir, self.destination_dir):
            fslab.clear(directory)
        write(self.source, content)
        if old is not None:
            write(self.destination, old)
        self.lab.counts["cases"] += 1

    def move(self, result, *reports, source=None, destination=None):
        before = tree(self.source_dir), tree(self.destination_dir)
        answer = self.caller.call(MOVE, source or self.source, destination or self.destination)
        self.lab.expect(self.claim, answer, result, *reports)
        if result == "0":
            after = tree(self.source_dir), tree(self.destination_dir)
            self.lab.check(f"{self.claim}: nothing changed", after, before)

    def fails(self, report, **paths):
        """The move returns false with this line, and nothing has changed."""
        self.move("0", report, **paths)

    def source_holds(self, expected):
        self.lab.check(f"{self.claim}: source", tree(self.source_dir), expected)

    def destination_holds(self, expected):
        self.lab.check(f"{self.claim}: destination", tree(self.destination_dir), expected)

    def copy(self, result):
        answer = self.caller.call("CopyFile", self.source, self.destination)
        self.lab.expect(f"{self.claim}: copy", answer, result)
        if result != "0" or self.source != self.destination:
            self.lab.check(f"{self.claim}: copied source", shape(self.source), file(CONTENT))


# ---- Every kind of destination

def destinations(s):
    """A move replaces every object that can be replaced; a copy writes into the object."""
    moved = {"new": file(CONTENT)}

    def replaces(kind, make, others):
        s.begin(f"destination: {kind}")
        make()
        s.move("1")
        s.source_holds({})
        s.destination_holds({**moved, **others})

    def with_other(make):
        def made():
            write(os.path.join(s.destination_dir, "other"), OLD)
            make()
        return made

    other = {"other": file(OLD)}
    replaces("missing", lambda: None, {})
    replaces("file", lambda: write(s.destination, OLD, 0o600), {})
    replaces("symbolic link to a file", with_other(lambda: os.symlink("other", s.destination)), other)
    replaces("dangling link", lambda: os.symlink("nowhere", s.destination), {})
    replaces("link to itself", lambda: os.symlink("new", s.destination), {})
    replaces("hard link of another file", with_other(
        lambda: os.link(os.path.join(s.destination_dir, "other"), s.destination)), other)
    replaces("FIFO", lambda: os.mkfifo(s.destination), {})
    replaces("socket", lambda: bind_socket(s.destination), {})
    replaces("character device", lambda: os.mknod(s.destination, stat.S_IFCHR | 0o600, os.makedev(1, 3)), {})

    for content in ((), ("inside",)):
        s.begin(f"destination: directory of {len(content)} files")
        os.mkdir(s.destination)
        for name in content:
            write(os.path.join(s.destination, name))
        fails_to_replace(s, errno.EISDIR)
        s.copy("-3")

    s.begin("destination: link to a directory")
    os.mkdir(os.path.join(s.destination_dir, "directory"))
    os.symlink("directory", s.destination)
    s.copy("-3")
    s.move("1")
    s.destination_holds({"directory": ("directory", "0o777", {}), **moved})

    if s.renames:
        s.begin("destination: hard link of the source")
        linked = os.path.join(s.source_dir, "linked")
        os.link(s.source, linked)
        s.move("1", destination=linked)
        s.source_holds({"f": file(CONTENT), "linked": file(CONTENT)})

        s.begin("destination: the source itself")
        s.move("1", destination=s.source)
        s.source_holds({"f": file(CONTENT)})


def bind_socket(path):
    server = socket.socket(socket.AF_UNIX)
    here = os.open(".", os.O_RDONLY)
    os.chdir(os.path.dirname(path))  # the address has room for few bytes
    server.bind(os.path.basename(path))
    os.fchdir(here)
    os.close(here)
    server.close()


def fails_to_replace(s, error, destination=None):
    """The kernel refuses to rename onto the destination: the plain rename, or that of the finished copy."""
    target = destination or s.destination
    source = s.source if s.checked else target + ANY_SUFFIX
    s.fails(LINES.RenameRename(source, target, error), destination=destination)


def copied_destinations(s):
    s.begin("copy: missing")
    s.copy("0")
    s.destination_holds({"new": file(CONTENT)})

    s.begin("copy: longer file", old=material(30000, seed=2))
    s.copy("0")
    s.destination_holds({"new": file(CONTENT)})

    s.begin("copy: symbolic link to a file")
    write(os.path.join(s.destination_dir, "other"), OLD, 0o600)
    os.symlink("other", s.destination)
    s.copy("0")
    s.destination_holds({"new": ("link", "other"), "other": file(CONTENT, 0o600)})

    s.begin("copy: dangling link")
    os.symlink("made", s.destination)
    s.copy("0")
    s.destination_holds({"made": file(CONTENT), "new": ("link", "made")})

    s.begin("copy: link to itself")
    os.symlink("new", s.destination)
    s.copy("-3")

    s.begin("copy: FIFO")
    os.mkfifo(s.destination)
    received = []
    reader = threading.Thread(target=lambda: received.append(read(s.destination)))
    reader.start()
    s.copy("0")
    reader.join(fslab.PATIENCE_SECONDS)
    s.lab.check(f"{s.claim}: received", received, [CONTENT])
    s.lab.check(f"{s.claim}: the FIFO stays", shape(s.destination)[0], "p")

    if s.renames:
        s.begin("copy: hard link of the source")
        linked = os.path.join(s.source_dir, "linked")
        os.link(s.source, linked)
        s.lab.expect(s.claim, s.caller.call("CopyFile", s.source, linked), "0")
        s.source_holds({"f": file(b""), "linked": file(b"")})


# ---- Paths

def trailing_slashes(s):
    s.begin("slash behind the source")
    s.fails(LINES.RenameStat(s.source + "/", errno.ENOTDIR), source=s.source + "/")

    target = s.destination + "/"
    s.begin("slash behind a missing destination")
    if s.checked:
        s.fails(LINES.RenameRename(s.source, target, errno.ENOTDIR), destination=target)
    else:
        s.fails(LINES.RenameMkstemp(target + ANY_SUFFIX, errno.ENOENT), destination=target)

    s.begin("slash behind a file", old=OLD)
    if s.checked:
        s.fails(LINES.RenameRename(s.source, target, errno.ENOTDIR), destination=target)
    else:
        s.fails(LINES.RenameMkstemp(target + ANY_SUFFIX, errno.ENOTDIR), destination=target)

    s.begin("slash behind a directory")
    os.mkdir(s.destination)
    fails_to_replace(s, errno.ENOTDIR, destination=target)


def long_names(s):
    """The temporary name is seven bytes longer than that of the destination; the limit is 255."""
    for length in range(246, 258):
        name = "n" * length
        target = os.path.join(s.destination_dir, name)
        s.begin(f"name of {length} bytes")
        if length <= (255 if s.renames else 248):
            s.move("1", destination=target)
            s.destination_holds({name: file(CONTENT)})
        elif s.renames or s.checked and length > 255:
            s.fails(LINES.RenameRename(s.source, target, errno.ENAMETOOLONG), destination=target)
        else:
            s.fails(LINES.RenameMkstemp(target + ANY_SUFFIX, errno.ENAMETOOLONG), destination=target)


def loops(s):
    s.begin("loop of links: source")
    loop = os.path.join(s.source_dir, "loop")
    os.symlink("loop", loop)
    s.fails(LINES.RenameStat(loop, errno.ELOOP), source=loop)
    s.lab.expect(s.claim, s.caller.call("FileExists", loop), "0")
    s.lab.expect(s.claim, s.caller.call("CopyFile", loop, s.destination), "-1")
    s.lab.expect(s.claim, s.caller.call("GetDirFileList", loop, "", "", "0", "1"), "0",
                 LINES.ListOpen(loop, errno.ELOOP))
    s.lab.expect(s.claim, s.caller.call("ReadNameValueFromFile", loop, "=", ""), "0",
                 LINES.NameValueOpen(loop))

    s.begin("loop of links: destination's directory")
    loop = os.path.join(s.destination_dir, "loop")
    os.symlink("loop", loop)
    target = os.path.join(loop, "new")
    # The kernel looks up both directories before it compares their file systems.
    s.fails(LINES.RenameRename(s.source, target, errno.ELOOP), destination=target)
    s.lab.expect(s.claim, s.caller.call("MakeDirPath", target, "755", "0"), "0",
                 LINES.WorkerMkdir(target, os.strerror(errno.ELOOP)),
                 LINES.MakeFailed(target))

    s.begin("missing directory of the destination")
    target = os.path.join(s.destination_dir, "missing", "new")
    s.fails(LINES.RenameRename(s.source, target, errno.ENOENT), destination=target)


# ---- Protected files

def busy(s):
    """A file on which another file is mounted cannot be renamed or removed."""
    cover = write(os.path.join(s.lab.root, "cover"), b"cover")
    s.begin("busy destination", old=OLD)
    s.lab.run("mount", "--bind", cover, s.destination)
    fails_to_replace(s, errno.EBUSY)
    s.lab.umount(s.destination)
    s.destination_holds({"new": file(OLD)})

    s.begin("busy source")
    s.lab.run("mount", "--bind", cover, s.source)
    if s.checked:
        s.fails(LINES.RenameRename(s.source, s.destination, errno.EBUSY))
    else:
        s.move("1", LINES.RenameUnlink(s.source, errno.EBUSY))
        s.destination_holds({"new": file(b"cover")})
    s.lab.umount(s.source)
    s.source_holds({"f": file(CONTENT)})


def sticky(s, nobody):
    """In a sticky directory, a user may replace and remove only his own files."""
    asked = Setting(s.lab, nobody, s.source_dir, s.destination_dir, s.renames)
    asked.begin("sticky directory of the destination", old=OLD)
    os.chown(asked.source, fslab.NOBODY, fslab.NOBODY)
    os.chmod(asked.source_dir, 0o777)
    os.chmod(asked.destination_dir, 0o1777)
    os.chmod(asked.destination, 0o666)
    fails_to_replace(asked, errno.EPERM)

    asked.begin("sticky directory of the source")
    os.chmod(asked.source_dir, 0o1777)
    os.chmod(asked.destination_dir, 0o777)
    if s.checked:
        asked.fails(LINES.RenameRename(asked.source, asked.destination, errno.EPERM))
    else:
        asked.move("1", LINES.RenameUnlink(asked.source, errno.EPERM))
        asked.source_holds({"f": file(CONTENT)})
        asked.destination_holds({"new": file(CONTENT)})
    for directory in (s.source_dir, s.destination_dir):
        os.chmod(directory, 0o755)

    asked.begin("directory of the destination not writable")
    os.chmod(asked.source_dir, 0o777)
    os.chmod(asked.destination_dir, 0o555)
    if s.checked:
        asked.fails(LINES.RenameRename(asked.source, asked.destination, errno.EACCES))
    else:
        asked.fails(LINES.RenameMkstemp(asked.destination + ANY_SUFFIX, errno.EACCES))
    asked.copy("-3")
    for directory in (s.source_dir, s.destination_dir):
        os.chmod(directory, 0o755)


def chattr(flags, path):
    return subprocess.run(["chattr", flags, path], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode == 0


def immutable_source(s):
    s.begin("immutable source")
    if not chattr("+i", s.source):
        return False
    if s.checked:
        s.fails(LINES.RenameRename(s.source, s.destination, errno.EPERM))
    else:
        s.move("1", LINES.RenameUnlink(s.source, errno.EPERM))
        s.destination_holds({"new": file(CONTENT)})
    s.source_holds({"f": file(CONTENT)})
    chattr("-i", s.source)
    return True


def immutable_destination(s):
    s.begin("immutable destination", old=OLD)
    if not chattr("+i", s.destination):
        return False
    fails_to_replace(s, errno.EPERM)
    s.copy("-3")
    s.lab.expect(s.claim, s.caller.call("MakeDirPath", s.destination, "700", "1"), "1",
                 LINES.MakeChmod(s.destination, errno.EPERM))
    chattr("-i", s.destination)

    s.begin("immutable directory of the destination")
    chattr("+i", s.destination_dir)
    if s.checked:
        s.fails(LINES.RenameRename(s.source, s.destination, errno.EPERM))
    else:
        s.fails(LINES.RenameMkstemp(s.destination + ANY_SUFFIX, errno.EPERM))
    s.copy("-3")
    below = os.path.join(s.destination_dir, "a")
    s.lab.expect(s.claim, s.caller.call("MakeDirPath", below + "/b", "755", "0"), "0",
                 LINES.WorkerMkdir(below, os.strerror(errno.EPERM)),
                 LINES.MakeFailed(below + "/b"))
    chattr("-i", s.destination_dir)
    return True


# ---- Space

def full_at_every_write(lab, caller, table):
    """File systems in memory with 0, 1, 2... free blocks; the source has 17, and the last is not full."""
    content = material(16 * BLOCK + 100)
    for free in range(0, 18):
        for old in (None, OLD):
            taken = 1 if old else 0  # by the old file
            filler = 1 if free + taken == 0 else 0  # a size of 0 means no limit
            path = lab.tmpfs("full", f"size={(free + taken + filler) * BLOCK}")
            if filler:
                write(os.path.join(path, "filler"), bytes(BLOCK))
            source = lab.directory("full.source")
            s = Setting(lab, caller, source, path, False)
            write(s.source, content)
            if old:
                write(s.destination, old)
            before = tree(path)
            s.claim = f"room for {free} of 17 blocks, {'replacing' if old else 'new'}"
            lab.counts["positions of a full disk"] += 1
            if free == 17:
                s.move("1")
                lab.check(s.claim, tree(path), {"new": file(content)})
            else:
                asked = BLOCK if free < 16 else 100
                s.fails(LINES.RenameWrite(asked, -1, errno.ENOSPC))

                lab.expect(f"{s.claim}: copy", caller.call("CopyFile", s.source, s.destination), "0")
                room = (free + taken) * BLOCK
                lab.check(f"{s.claim}: copy", tree(path), {**before, "new": file(content[:room])})
                lab.check(f"{s.claim}: copied source", tree(source), {"f": file(content)})
            lab.umount(path)
            fslab.clear(source)

    # The same rules apply to a page: it is incomplete if the temporary page has no room, and otherwise not replaced.
    line = b"Port:" + b"1" * 9990 + b"\n"
    write(table, line)
    page = PAGE_HEADER + b"<table  BORDER=2><tr><td>Port</td><td>" + line[5:-1] + b"</td></tr></table>"
    page += PAGE_FOOTER
    for blocks in (1, 2, 3):
        place, target = lab.directory("page.target"), "new"
        lab.run("mount", "-t", "tmpfs", "-o", f"size={blocks * BLOCK}", "orv", PAGES)
        lab.expect("cut page", caller.call(PAGE, table, os.path.join(place, target)), "")
        lab.check("cut page", tree(place), {target: file(page[:blocks * BLOCK])})
        lab.check("cut page: temporary page", tree(PAGES), {})
        lab.umount(PAGES)
        fslab.clear(place)

        lab.run("mount", "-t", "tmpfs", "orv", PAGES)
        place = lab.tmpfs("page.full", f"size={blocks * BLOCK}")
        target = os.path.join(place, "new")
        temporary = temporary_page(caller.pid)
        answer = caller.call(PAGE, table, target)
        if blocks == 3:
            lab.expect("page that fits", answer, "")
            lab.check("page that fits", tree(place), {"new": file(page)})
        else:
            asked = BLOCK if blocks == 1 else len(page) - 2 * BLOCK
            lab.expect("page without room", answer, "", LINES.RenameWrite(asked, -1, errno.ENOSPC),
                       LINES.PageMove(temporary, target))
            lab.check("page without room", tree(place), {})
            lab.check("page without room: temporary page", shape(temporary), file(page))
        lab.umount(PAGES)
        lab.umount(place)
        lab.counts["pages with little room"] += 2


def fill(path):
    """Fills the file system except for a mebibyte, which has room for inodes."""
    spare = write(os.path.join(path, "spare"), material(1 << 20))
    subprocess.run(["sync", "--file-system", path], check=True)
    with open(os.path.join(path, "filler"), "wb", buffering=0) as filler:
        for size in (1 << 20, BLOCK, 512, 1):
            try:
                while True:
                    filler.write(bytes(size))
            except OSError:
                pass
    os.unlink(spare)
    subprocess.run(["sync", "--file-system", path], check=True)


def full_disks(lab, caller):
    """On disks, the file system decides which write fails: there is one line, and nothing has changed."""
    for kind in ("ext2", "ext4", "xfs", "btrfs"):
        try:
            path = lab.mount(f"full.{kind}", "-o", "loop", lab.image(kind, f"full.{kind}"))
        except fslab.CannotMount as error:
            lab.skip(f"full disk on {kind}", error)
            continue
        directory = lab.open_to_all(path)
        s = Setting(lab, caller, lab.directory("disks.source"), directory, False)
        content = material(4 << 20)
        s.begin(f"full disk on {kind}", content, OLD)
        fill(path)
        before = tree(directory)
        answer = caller.call(MOVE, s.source, s.destination)
        lab.check(s.claim, answer.result, "0")
        lab.check(s.claim, [report[0] for report in answer.reports], [LINES.RenameWrite.format])
        lab.check(s.claim, answer.reports[0][1].endswith(f", {errno.ENOSPC})."), True)
        lab.check(f"{s.claim}: destination", tree(directory), before)
        lab.check(f"{s.claim}: source", tree(s.source_dir), {"f": file(content)})
        lab.expect(s.claim, caller.call("CopyFile", s.source, s.destination), "0")
        lab.check(f"{s.claim}: a prefix is copied", content.startswith(read(s.destination)), True)
        lab.check(f"{s.claim}: not all is copied", os.path.getsize(s.destination) < len(content), True)
        lab.umount(path)


def no_inodes(lab, caller):
    def exhausted(name, path):
        s = Setting(lab, caller, lab.directory("inodes.source"), path, False)
        s.begin(f"no inodes on {name}", old=OLD)
        taken = 0
        try:
            while True:
                write(os.path.join(path, f"taken{taken}"))
                taken += 1
        except OSError as error:
            lab.check(s.claim, error.errno, errno.ENOSPC)
        s.fails(LINES.RenameMkstemp(s.destination + ANY_SUFFIX, errno.ENOSPC))
        lab.expect(s.claim, caller.call("CopyFile", s.source, os.path.join(path, "other")), "-3")
        lab.expect(s.claim, caller.call("MakeDirPath", path + "/a/b", "755", "1"), "0",
                   LINES.WorkerMkdir(path + "/a", os.strerror(errno.ENOSPC)),
                   LINES.MakeFailed(path + "/a/b"))
        within = Setting(lab, caller, path, path, True)
        within.claim = f"no inodes on {name}, within"
        within.source = os.path.join(path, "taken0")
        within.move("1")
        lab.check(within.claim, shape(within.destination), file(b""))

    path = lab.tmpfs("inodes.tmpfs", "nr_inodes=10")
    exhausted("tmpfs", path)
    lab.umount(path)
    for kind in ("ext2", "ext4"):
        try:
            path = lab.mount(f"inodes.{kind}", "-o", "loop", lab.image(kind, f"inodes.{kind}", 8, ("-N", "32")))
        except fslab.CannotMount as error:
            lab.skip(f"inodes on {kind}", error)
            continue
        exhausted(kind, lab.open_to_all(path))
        lab.umount(path)


def over_quota(lab, caller):
    try:
        top = lab.mount("quota", "-o", "loop", lab.image("btrfs", "quota"))
        lab.make("btrfs", "quota", "enable", top)
        subvolume = os.path.join(top, "limited")
        lab.make("btrfs", "subvolume", "create", subvolume)
        lab.make("btrfs", "qgroup", "limit", "1M", subvolume)
    except fslab.CannotMount as error:
        lab.skip("btrfs-qgroup", error)
        return
    s = Setting(lab, caller, lab.directory("quota.source"), subvolume, False)
    content = material(4 << 20)
    s.begin("over quota", content, OLD)
    answer = caller.call(MOVE, s.source, s.destination)
    lab.expect(s.claim, answer, "0", LINES.RenameWrite(BLOCK, -1, errno.EDQUOT))
    s.source_holds({"f": file(content)})
    s.destination_holds({"new": file(OLD)})
    lab.expect(s.claim, caller.call("CopyFile", s.source, s.destination), "0")
    lab.check(f"{s.claim}: a prefix is copied", content.startswith(read(s.destination)), True)
    lab.check(f"{s.claim}: not all is copied", os.path.getsize(s.destination) < len(content), True)
    lab.umount(top)


# ---- Limits of the process

def file_size_limit(s, limited):
    """A write across the limit is short, and one at the limit fails; the signal is ignored."""
    stale = errno.EXDEV  # a short write does not change the errno of the plain rename
    cases = ((0, (BLOCK, -1, errno.EFBIG)), (1, (BLOCK, 1, stale)), (4095, (BLOCK, 4095, stale)),
             (4096, (BLOCK, -1, errno.EFBIG)), (4097, (BLOCK, 1, stale)), (8192, (1808, -1, errno.EFBIG)),
             (9999, (1808, 1807, stale)), (10000, None))
    for limit, written in cases:
        asked = Setting(s.lab, limited, s.source_dir, s.destination_dir, s.renames)
        asked.begin(f"file size limit of {limit}", old=OLD)
        resource.prlimit(limited.pid, resource.RLIMIT_FSIZE, (limit, resource.RLIM_INFINITY))
        if written is None or s.renames:
            asked.move("1")
        else:
            asked.fails(LINES.RenameWrite(*written))
            asked.lab.expect(asked.claim, limited.call("CopyFile", asked.source, asked.destination), "0")
            asked.destination_holds({"new": file(CONTENT[:limit])})
    resource.prlimit(limited.pid, resource.RLIMIT_FSIZE, (resource.RLIM_INFINITY, resource.RLIM_INFINITY))


def descriptor_limit(s, table):
    """The move, the copy and the page open two descriptors, the others one."""
    caller, standard = s.caller, 3

    def limit(count):
        resource.prlimit(caller.pid, resource.RLIMIT_NOFILE, (count, before[1]))

    before = resource.prlimit(caller.pid, resource.RLIMIT_NOFILE)
    s.lab.check("only the standard descriptors are open", len(caller.descriptors()), standard)
    for free in range(3):
        s.begin(f"{free} free descriptors", old=OLD)
        limit(standard + free)
        s.lab.expect(s.claim, caller.call("FileExists", s.source), "1")
        if s.renames or free == 2:
            s.move("1")
        elif free == 0:
            s.fails(LINES.RenameMkstemp(s.destination + ANY_SUFFIX, errno.EMFILE))
        else:
            s.fails(LINES.RenameOpen(s.source, errno.EMFILE))

        s.begin(f"{free} free descriptors", old=OLD)
        s.copy(("-2", "-3", "0")[free])
        s.destination_holds({"new": file(CONTENT if free == 2 else OLD)})

        listed = caller.call("GetDirFileList", s.destination_dir, "", "", "0", "1")
        read_all = caller.call("ReadNameValueFromFile", s.source, "=", "")
        if free == 0:
            s.lab.expect(s.claim, listed, "0",
                         LINES.ListOpen(s.destination_dir, errno.EMFILE))
            s.lab.expect(s.claim, read_all, "0", LINES.NameValueOpen(s.source))
        else:
            s.lab.expect(s.claim, listed, "1")
            s.lab.check(s.claim, listed.items, fslab.listed(s.destination_dir, ["new"]))
            s.lab.expect(s.claim, read_all, "1")
        limit(before[0])

    # Without a descriptor for the page, there is nothing to move; with only one, the page stays empty.
    s.lab.run("mount", "-t", "tmpfs", "orv", PAGES)
    temporary = temporary_page(caller.pid)
    for free in range(3):
        s.begin(f"page with {free} free descriptors", old=OLD)
        limit(standard + free)
        answer = caller.call(PAGE, table, s.destination)
        limit(before[0])
        if free == 0:
            s.lab.expect(s.claim, answer, "", LINES.RenameStat(temporary, errno.ENOENT),
                         LINES.PageMove(temporary, s.destination))
            s.destination_holds({"new": file(OLD)})
        elif free == 1:  # the text file uses it
            s.lab.expect(s.claim, answer, "", LINES.RenameStat(temporary, errno.ENOENT),
                         LINES.PageMove(temporary, s.destination))
            s.destination_holds({"new": file(OLD)})
        else:
            s.lab.expect(s.claim, answer, "")
            s.lab.check(s.claim, read(s.destination).startswith(PAGE_HEADER), True)
    s.lab.umount(PAGES)


# ---- Read-only

def read_only(lab, caller, members):
    """A file system that becomes read-only, on either side; also tests the functions for directories."""
    for name in ("ext4", "xfs", "btrfs", "tmpfs"):
        try:
            mounted = (lab.tmpfs("turned", "size=1m") if name == "tmpfs"
                       else lab.mount("turned", "-o", "loop", lab.image(name, "turned")))
        except fslab.CannotMount as error:
            lab.skip(f"read-only {name}", error)
            continue
        path = lab.open_to_all(mounted)
        kept = write(os.path.join(path, "new"), OLD)
        lab.run("mount", "-o", "remount,ro", mounted)
        before = tree(path)
        for member in members:
            s = Setting(lab, caller, member.path, path, False)
            s.claim = f"from {member.name} to read-only {name}"
            fslab.clear(member.path)
            write(s.source, CONTENT)
            s.fails(LINES.RenameMkstemp(s.destination + ANY_SUFFIX, errno.EROFS))
            s.copy("-3")

            s = Setting(lab, caller, path, member.path, False)
            s.source = kept
            s.claim = f"from read-only {name} to {member.name}"
            fslab.clear(member.path)
            s.move("1", LINES.RenameUnlink(kept, errno.EROFS))
            s.destination_holds({"new": file(OLD)})
            lab.counts["cases"] += 2
        target = os.path.join(path, "other")
        within = Setting(lab, caller, path, path, True)
        within.claim = f"within read-only {name}"
        within.fails(LINES.RenameRename(kept, target, errno.EROFS), source=kept, destination=target)
        lab.expect(within.claim, caller.call("MakeDirPath", path, "700", "1"), "1",
                   LINES.MakeChmod(path, errno.EROFS))
        lab.expect(within.claim, caller.call("MakeDirPath", path + "/a/b", "755", "1"), "0",
                   LINES.WorkerMkdir(path + "/a", os.strerror(errno.EROFS)),
                   LINES.MakeFailed(path + "/a/b"))
        lab.check(within.claim, tree(path), before)
        lab.counts["cases"] += 3
        lab.umount(mounted)


def one_file_in_two_mounts(lab, caller, members):
    """Through a bind mount, both paths can name one file: it stays, with a line, and the result is true."""
    for member in members:
        twin = lab.mount("twin", "--bind", member.path)
        fslab.clear(member.path)
        source = write(os.path.join(member.path, "f"), CONTENT)
        claim = f"one file in two mounts on {member.name}"
        lab.expect(claim, caller.call(MOVE, source, os.path.join(twin, "f")), "1",
                   LINES.RenameUnlink(source, errno.ESTALE))
        lab.check(claim, tree(member.path), {"f": file(CONTENT)})
        os.link(source, os.path.join(member.path, "linked"))
        lab.expect(claim, caller.call(MOVE, source, os.path.join(twin, "linked")), "1")
        lab.check(claim, tree(member.path), {"linked": file(CONTENT)})
        source = os.path.join(member.path, "linked")
        lab.expect(claim, caller.call(MOVE, source, os.path.join(twin, "other")), "1")
        lab.check(claim, tree(member.path), {"other": file(CONTENT)})
        lab.umount(twin)
        lab.counts["cases"] += 3


def one_number_on_two_devices(lab, caller):
    """Files of different file systems are different files, even if their inode numbers are equal."""
    s = Setting(lab, caller, lab.tmpfs("number.source", "size=1m"), lab.tmpfs("number.destination", "size=1m"), False)
    s.begin("one inode number on two devices", old=OLD)
    lab.check(f"{s.claim}: numbers", os.stat(s.source).st_ino, os.stat(s.destination).st_ino)
    s.move("1")
    s.source_holds({})
    s.destination_holds({"new": file(CONTENT)})


def campaign(lab):
    caller = lab.caller(umask=0o022)
    nobody = lab.caller(user=fslab.NOBODY)
    limited = lab.caller(ignore_file_size_signal=True)
    members = [fslab.Member(member.name, os.path.join(member.path, "errors"))
               for member in lab.writable_members(fslab.WRITABLE if fslab.FULL else SHORT)]
    for member in members:
        for directory in ("", "s", "d"):
            os.mkdir(os.path.join(member.path, directory))
            os.chmod(os.path.join(member.path, directory), 0o755)
    table = write(os.path.join(lab.root, "table"), fslab.TABLE)
    immutable = {}
    for source in members:
        for destination in members:
            lab.counts["pairs"] += 1
            one = source == destination
            s = Setting(lab, caller, os.path.join(source.path, "s"), os.path.join(destination.path, "d"), one)
            destinations(s)
            copied_destinations(s)
            trailing_slashes(s)
            long_names(s)
            loops(s)
            busy(s)
            sticky(s, nobody)
            file_size_limit(s, limited)
            descriptor_limit(s, table)
            immutable[source.name] = immutable_source(s)
            immutable[destination.name] = immutable_destination(s)
    for name, supported in immutable.items():
        if not supported:
            lab.skip(f"immutable on {name}", "the file system keeps no such attribute")
    one_file_in_two_mounts(lab, caller, members)
    one_number_on_two_devices(lab, caller)
    read_only(lab, caller, members)
    full_at_every_write(lab, caller, table)
    full_disks(lab, caller)
    no_inodes(lab, caller)
    over_quota(lab, caller)


if __name__ == "__main__":
    fslab.main("real errors", campaign)
