#!/usr/bin/env python3
"""Runs examples/statusboard and reads its pages with an HTML parser that does not depend on the library.

Usage: statusboard_test.py MACHINE [EMULATOR...] PROGRAM     MACHINE: the library of machine.cpp, for the program's machine
Ends with 77 when a test was skipped, which fails where ORV_NO_SKIP is set.
"""

import base64
import hashlib
import os
import re
import resource
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

import orv_test
from oracle import LINES, PAGE_FOOTER, PAGE_HEADER, logged, temporary_page
from pages import ALL_BYTES, HOSTILE_NAMES, Page, text, without_capabilities

# What cells of the board contain besides text; see pages.Page.
MARKUP = {
    "title": ("td",), "meta": ("td", "name", "content"), "style": ("td",), "b": ("td", "class"),
    "meter": ("td", "max", "low", "high", "optimum", "value", "aria-label"),
}  # fmt: skip
UNITS = ("B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB", "ZiB", "YiB")
MACHINE = []
PROGRAM = []
USAGE = "Usage: statusboard [--watch] [--page PATH] SETTINGS_FILE\n"
BUILD_DIRECTORY = "/var/tmp"  # where the library builds pages
PATIENCE_SECONDS = 60  # after this, a wait has failed


def limit_files(process, size):
    """Files of the process may not grow beyond `size`: its writes then fail, as on a full disk. 0: this process."""
    _, hard = resource.prlimit(process, resource.RLIMIT_FSIZE)
    resource.prlimit(process, resource.RLIMIT_FSIZE, (size, hard))


def without_signal():
    """For a child that is not to end when it meets that limit."""
    signal.signal(signal.SIGXFSZ, signal.SIG_IGN)


def limited_to(size):
    """For a child that is to meet a full disk from the start."""

    def limit():
        without_signal()
        limit_files(0, size)

    return limit


def logged_safe(line):
    """The line of the companion as DlogStderr writes it."""
    return f"[3] orv_safe: {line}\n"


def in_bytes(size):
    """Returns the bytes of a size with a unit, which is rounded to one digit after the point."""
    number, unit = size.split(" ")
    return float(number) * 1024 ** UNITS.index(unit)


def shown(name):
    """Decodes bytes as a browser does."""
    return name.decode("utf-8", "replace")


class StatusboardTest(unittest.TestCase):
    def setUp(self):
        self.dir = self.make_dir(BUILD_DIRECTORY)
        self.watched = os.path.join(self.dir, "watched")
        os.mkdir(self.watched)
        self.out = os.path.join(self.dir, "out")
        os.mkdir(self.out)
        self.page = os.path.join(self.out, "page.html")
        self.settings = {"title": "A title", "directory": self.watched, "page": self.page, "period": "1"}

    def make_dir(self, base):
        path = tempfile.mkdtemp(prefix="orv_test.", dir=base)
        os.chmod(path, 0o755)
        self.addCleanup(shutil.rmtree, path)
        return path

    def write(self, path, data=b""):
        with open(path, "wb") as file:
            file.write(data)
        return path

    def read(self, path):
        with open(path, "rb") as file:
            return file.read()

    def as_parsed(self, name):
        """The text of its cell. The parser drops references of these control characters; browsers show them."""
        return re.sub("[\x01-\x08\x0b\x0e-\x1f\x7f]", "", shown(name))

    def settings_file(self, **changes):
        settings = {**self.settings, **changes}
        lines = ["# a comment", ""] + [f"  {name} = {value}" for name, value in settings.items() if value is not None]
        return self.write(os.path.join(self.dir, "settings"), "\n".join(lines).encode())

    def start(self, *arguments, program=None, **options):
        try:
            return subprocess.Popen([*(program or PROGRAM), *arguments], stdout=subprocess.PIPE, stderr=subprocess.PIPE, **options)
        except subprocess.SubprocessError:  # from without_capabilities
            self.skipTest("this root may not give up its capabilities")

    def finish(self, process):
        """Returns exit status and standard error; a run must leave nothing else."""
        try:
            out, err = process.communicate(timeout=PATIENCE_SECONDS)
        finally:
            process.kill()
        self.assertEqual(b"", out)
        leftover = temporary_page(process.pid)
        self.assertFalse(os.path.lexists(leftover), leftover)
        return process.returncode, text(err)

    def run_board(self, *arguments, **options):
        return self.finish(self.start(*arguments, **options))

    def assert_fails(self, status, err, *arguments, **options):
        self.assertEqual((status, err), self.run_board(*arguments, **options))

    def assert_published(self, *arguments, **options):
        self.assertEqual((0, ""), self.run_board(*arguments, **options))

    def read_page(self, path=None):
        raw = self.read(path or self.page)
        self.assertEqual(340, len(PAGE_HEADER))
        self.assertEqual(PAGE_HEADER, raw[:340])
        self.assertEqual(PAGE_FOOTER, raw[-len(PAGE_FOOTER) :])
        self.assertNotIn(b"\n", raw)
        page = Page(raw, MARKUP)
        self.assertEqual([], page.foreign)
        self.assertEqual([], page.open)
        return page

    def listed(self):
        return [row[0] for row in self.read_page().tables[4][1:]]

    def wait_for(self, condition, process):
        deadline = time.monotonic() + PATIENCE_SECONDS
        while not condition():
            self.assertIsNone(process.poll(), "the program ended")
            self.assertLess(time.monotonic(), deadline, "the condition did not become true in time")
            time.sleep(0.02)


class PageTest(StatusboardTest):
    def test_hostile_file_names_come_back_unchanged_and_stay_text(self):
        self.assertEqual(len(HOSTILE_NAMES), len(set(HOSTILE_NAMES)))
        for size, name in enumerate(HOSTILE_NAMES):
            self.write(os.path.join(os.fsencode(self.watched), name), bytes(size))

        self.assert_published(self.settings_file())

        expected = sorted([name, b"%d B" % size] for size, name in enumerate(HOSTILE_NAMES))
        self.assertEqual([[self.as_parsed(cell) for cell in row] for row in expected], self.read_page().tables[4][1:])

    def test_only_special_bytes_and_the_digits_after_them_become_references(self):
        for name in HOSTILE_NAMES:
            self.write(os.path.join(os.fsencode(self.watched), name))

        self.assert_published(self.settings_file())

        specials = re.compile(rb"""[&<>"';,:\x01-\x1f\x7f][0-9]*""")
        expected = [specials.sub(lambda run: b"".join(b"&#%d" % byte for byte in run[0]), shown(name).encode())
                    for name in HOSTILE_NAMES]  # fmt: skip
        last_table = self.read(self.page).split(b"<table")[-1]
        self.assertEqual(sorted(expected), sorted(re.findall(rb"<tr><td>([^<]*)</td><td>0 B<", last_table)))

    def test_every_other_cell_is_escaped_too(self):
        title = "<h1>\"Tests\" & more</h1>; 1,2:34 \0."
        watched = os.path.join(self.watched, "a<b>;5,6:7&8")
        os.mkdir(watched)

        self.assert_published(self.settings_file(title=title, directory=watched))

        tables = self.read_page().tables
        self.assertEqual([title.replace("\0", "\ufffd")] * 2, tables[0][0])  # the second one is the title of the window
        self.assertEqual([["Files in " + watched, "Size"]], tables[4])

    def test_five_tables_have_headings_and_full_rows_and_spacers_between(self):
        self.write(os.path.join(self.watched, "file"), b"12345")

        self.assert_published(self.settings_file())

        page = self.read_page()
        self.assertEqual(["table", "p"] * 4 + ["table"], page.layout)
        headings = [["A title", "A title"], ["System", ""], ["File system", "Type", "Size", "Used", "Use"],
                    ["Network interface", "State"], ["Files in " + self.watched, "Size"]]  # fmt: skip
        self.assertEqual(headings, [table[0] for table in page.tables])
        for table in page.tables:
            self.assertEqual({len(table[0])}, {len(row) for row in table})
        self.assertEqual([["file", "5 B"]], page.tables[4][1:])

    def test_the_page_is_utf_8_and_refreshes_every_10_seconds(self):
        self.assert_published(self.settings_file())

        expected = [{"content": "text/html; charset=utf-8", "http-equiv": "Content-Type"},
                    {"http-equiv": "refresh", "content": "10"}]  # fmt: skip
        self.assertEqual(expected, self.read_page().metas)

    def test_sizes_have_a_unit_and_at_most_three_digits_before_the_point(self):
        sizes = {"0 B": 0, "1 B": 1, "999 B": 999, "1.0 KiB": 1000, "1.1 KiB": 1127, "1.5 KiB": 1536, "999.9 KiB": 1023948,
                 "1.0 MiB": 1023949, "1.0 GiB": 1 << 30, "5.0 GiB": 5 << 30}  # fmt: skip
        for name, size in sizes.items():
            os.truncate(self.write(os.path.join(self.watched, name)), size)

        self.assert_published(self.settings_file())

        self.assertEqual(sorted([name, name] for name in sizes), self.read_page().tables[4][1:])

    def test_the_look_is_one_style_whose_hash_security_md_gives(self):
        self.assert_published(self.settings_file())

        page = self.read_page()
        self.assertEqual([("title", {}), ("meta", {"name": "viewport", "content": "width=device-width"}), ("style", {})],
                         page.inside[:3])  # fmt: skip
        self.assertEqual([], [tag for tag, _ in page.inside[3:] if tag in ("title", "meta", "style")])
        (style,) = page.styles
        digest = base64.b64encode(hashlib.sha256(style.encode()).digest()).decode()
        self.assertEqual([f"'sha256-{digest}'"], re.findall("'sha256-.*?'", orv_test.read("docs", "security.md")))

    def test_the_table_file_is_beside_the_page(self):
        self.assert_published(self.settings_file())

        self.assertEqual(["page.html", "page.html.txt"], sorted(os.listdir(self.out)))
        lines = self.read(self.page + ".txt").split(b"\n")
        self.assertEqual([False, True] * 5, [line == b"" for line in lines])

    def test_only_regular_files_are_listed(self):
        self.write(os.path.join(self.watched, "file"))
        os.mkdir(os.path.join(self.watched, "directory"))
        os.mkfifo(os.path.join(self.watched, "fifo"))
        os.symlink("file", os.path.join(self.watched, "link"))

        self.assert_published(self.settings_file())

        self.assertEqual(["file"], self.listed())

    def test_include_and_exclude_choose_the_files(self):
        for name in ("a.log", "b.log", "c.txt", "debug.log", "debug.txt"):
            self.write(os.path.join(self.watched, name))
        cases = [
            (None, None, ["a.log", "b.log", "c.txt", "debug.log", "debug.txt"]),
            ("", "", ["a.log", "b.log", "c.txt", "debug.log", "debug.txt"]),
            ("*.log", None, ["a.log", "b.log", "debug.log"]),
            (None, "debug*", ["a.log", "b.log", "c.txt"]),
            ("*.log", "debug*", ["a.log", "b.log"]),
            ("?.txt", None, ["c.txt"]),
            ("none", None, []),
        ]
        for include, exclude, expected in cases:
            with self.subTest(include=include, exclude=exclude):
                self.assert_published(self.settings_file(include=include, exclude=exclude))

                self.assertEqual(expected, self.listed())

    def test_every_period_of_one_to_five_digits_is_accepted(self):
        for period in ("1", "10", "99999", "00002", "3456", "789"):
            with self.subTest(period=period):
                self.assert_published(self.settings_file(period=period))


class SystemTest(StatusboardTest):
    def setUp(self):
        super().setUp()
        self.before = time.time()
        self.assert_published(self.settings_file(), env={**os.environ, "TZ": "UTC0"})
        self.tables = self.read_page().tables

    def test_shows_host_and_time(self):
        rows = dict(self.tables[0][1:])
        stamps = [time.strftime("%Y-%m-%d %H:%M:%S UTC", time.gmtime(self.before + delay)) for delay in range(60)]

        self.assertEqual(["Host", "Time"], list(rows))
        self.assertEqual(os.uname().nodename, rows["Host"])
        self.assertIn(rows["Time"], stamps)

    def test_shows_load_and_uptime(self):
        rows = dict(self.tables[1][1:])
        with open("/proc/uptime", encoding="ascii") as file:
            hours = int(float(file.read().split()[0])) // 3600

        self.assertEqual(["Load over 1, 5 and 15 minutes", "Uptime"], list(rows))
        self.assertRegex(rows["Load over 1, 5 and 15 minutes"], r"\A\d+\.\d\d \d+\.\d\d \d+\.\d\d\Z")
        self.assertIn(rows["Uptime"], [f"{h // 24} days, {h % 24} hours" for h in (hours - 1, hours)])

    def test_shows_each_file_system_with_space_once(self):
        with open("/proc/mounts", encoding="utf-8", errors="surrogateescape") as file:
            mounts = [line.split(" ")[1:3] for line in file]
        unescaped = [[re.sub(r"\\(\d{3})", lambda m: chr(int(m[1], 8)), point), kind] for point, kind in mounts]
        rows = self.tables[2][1:]

        shown = {os.stat(row[0]).st_dev for row in rows}
        self.assertEqual(len(rows), len(shown))
        for point, kind, size, used, use in rows:
            space = os.statvfs(point)
            self.assertIn([point, kind], unescaped)
            capacity = space.f_blocks * space.f_frsize
            self.assertAlmostEqual(capacity, in_bytes(size), delta=0.06 * capacity)
            self.assertLessEqual(in_bytes(used), in_bytes(size))
            percent = int(use.removeprefix(" ").removesuffix(" %"))
            self.assertAlmostEqual(100 * in_bytes(used) / capacity, percent, delta=7)
        self.assertEqual(set(), {os.stat(point).st_dev for point, _ in unescaped if self.has_space(point)} - shown)

    def has_space(self, point):
        try:
            return os.statvfs(point).f_blocks != 0
        except OSError:
            return False

    def test_shows_each_network_interface(self):
        rows = dict(self.tables[3][1:])

        self.assertEqual(len(rows), len(self.tables[3]) - 1)
        self.assertEqual(set(), {name for _, name in socket.if_nameindex()} - set(rows))
        self.assertLessEqual(set(rows.values()), {"up", "down"})
        for name, state in rows.items():
            with self.subTest(name=name):
                device = "/sys/class/net/" + name.split(":")[0]  # an alias such as eth0:1 has no directory of its own
                administratively_up = int(self.read(device + "/flags"), 16) & 1 != 0
                carrier = self.read(device + "/operstate").strip() in (b"up", b"unknown")  # loopback has no carrier
                self.assertEqual("up" if administratively_up and carrier else "down", state)


class KnownMachineTest(StatusboardTest):
    """Every figure of a machine that the test describes."""

    def setUp(self):
        super().setUp()
        self.machine = os.path.join(self.dir, "machine")
        os.mkdir(self.machine)

    def describe(self, **files):
        for name, content in files.items():
            self.write(os.path.join(self.machine, name), os.fsencode(content))

    def run_there(self, *arguments, **files):
        self.describe(**files)
        program, environment = orv_test.preloaded(PROGRAM, MACHINE[0], ORV_MACHINE=self.machine)
        return self.run_board(*arguments, self.settings_file(), program=program, env=environment)

    def tables_of(self, **files):
        self.assertEqual((0, ""), self.run_there(**files))
        return self.read_page().tables

    def test_a_host_name_may_have_64_bytes(self):
        name = "h" * 63 + "."

        self.assertEqual(["Host", name], self.tables_of(host=name + "\n")[0][1])

    def test_load_and_uptime(self):
        for seconds, shown in (("3599.99", "0 days, 0 hours"), ("3600.00", "0 days, 1 hours"),
                               ("86399.99", "0 days, 23 hours"), ("86400.00", "1 days, 0 hours"),
                               ("172799.50", "1 days, 23 hours"), ("8640000.00", "100 days, 0 hours")):  # fmt: skip
            with self.subTest(seconds=seconds):
                tables = self.tables_of(loadavg="0.01 2.30 45.67 1/234 5678\n", uptime=f"{seconds} 1.00\n")

                self.assertEqual([["Load over 1, 5 and 15 minutes", "0.01 2.30 45.67"], ["Uptime", shown]], tables[1][1:])

    def test_file_systems(self):
        first = os.path.join(self.dir, "a b")
        os.mkdir(first)
        again = os.path.join(self.dir, "again")
        os.mkdir(again)
        missing = os.path.join(self.dir, "missing")
        mounts = [(first, "ext4"), (again, "again"), ("/proc", "proc"), ("/sys", "none"), (missing, "lost")]

        tables = self.tables_of(
            mounts="".join(f"dev {path.replace(' ', chr(92) + '040')} {kind} rw 0 0\n"
                           for path, kind in mounts),
            space=f"4096 1000000 250000 {first}\n4096 1 1 {again}\n1024 3 0 /proc\n1024 1 1 {missing}\n"
                  "1024 0 0 /sys\n")  # fmt: skip

        self.assertEqual([[first, "ext4", "3.8 GiB", "2.9 GiB", " 75 %"], ["/proc", "proc", "3.0 KiB", "3.0 KiB", " 100 %"]],
                         tables[2][1:])  # fmt: skip
        self.assertEqual([self.meter(75, first), self.meter(100, "/proc")],
                         [one for one in self.read_page().inside if one[0] == "meter"])  # fmt: skip

    def meter(self, percent, point):
        return ("meter", {"max": "100", "low": "80", "high": "90", "optimum": "0", "value": str(percent),
                          "aria-label": f"Use of {point}"})  # fmt: skip

    def test_file_systems_of_every_size(self):
        most = (1 << 64) - 1
        for block_bytes, blocks, free, expected in (
            (4096, 5000000000, 1250000000, ["18.6 TiB", "14.0 TiB", " 75 %"]),
            (4096, 3 << 38, 3 << 37, ["3.0 PiB", "1.5 PiB", " 50 %"]),
            (4096, 9 << 48, 1, ["9.0 EiB", "9.0 EiB", " 99 %"]),
            (1, int(999.95 * 2**50), 0, ["1.0 EiB", "1.0 EiB", " 100 %"]),  # would be rounded to 1000.0 PiB
            (1 << 16, most, 0, ["1.0 YiB", "1.0 YiB", " 100 %"]),
            (1 << 31, most, most, ["32768.0 YiB", "0 B", " 0 %"]),
            (512, most, 1 << 62, ["8.0 ZiB", "6.0 ZiB", " 75 %"]),
            (1, 1, 1, ["1 B", "0 B", " 0 %"]),
            (0, 7, 0, ["0 B", "0 B", " 100 %"]),
            (1024, 100, 101, ["100.0 KiB", "0 B", " 0 %"]),  # a file system with an error
        ):
            with self.subTest(block_bytes=block_bytes, blocks=blocks, free=free):
                tables = self.tables_of(mounts=f"dev {self.dir} xfs rw 0 0\n",
                                        space=f"{block_bytes} {blocks} {free} {self.dir}\n")  # fmt: skip

                self.assertEqual([[self.dir, "xfs", *expected]], tables[2][1:])

    def test_hostile_names_of_mount_points_and_types(self):
        blanks = {ord(byte): f"\\{ord(byte):03o}" for byte in " \t\\"}  # as the kernel writes them
        for name in (b"<script>alert(1)", b"a;5,6:7", b"\"><b>'", b"&#60;&lt", b" a\tb\\c#\r\x1b", b"\xff\xfe;9\x80", b"<" * 255,
                     b"\xff;" * 127, ALL_BYTES.replace(b"\n", b"")):  # fmt: skip
            with self.subTest(name=name):
                point = os.path.join(self.dir, text(name))
                os.mkdir(point)
                kind = text(name.translate(None, b" \t\r\\"))

                tables = self.tables_of(mounts=f"dev {point.translate(blanks)} fuse.{kind} rw 0 0\n",
                                        space=f"4096 100 7 {point}\n")  # fmt: skip

                expected = [self.as_parsed(os.fsencode(point)), self.as_parsed(b"fuse." + os.fsencode(kind))]
                self.assertEqual([[*expected, "400.0 KiB", "372.0 KiB", " 93 %"]], tables[2][1:])
                self.assertIn(self.meter(93, expected[0]), self.read_page().inside)

    def test_hostile_names_of_the_host_and_of_interfaces(self):
        names = [b"<b>", b"a;b,c:d", b"\"'&#60", b"\xff\xfe", b"eth0:1", b"<!--<td>"]
        for name in names:
            with self.subTest(name=name):
                tables = self.tables_of(host=text(name), interfaces=f"1 {text(name)}\n")

                self.assertEqual(["Host", shown(name)], tables[0][1])
                self.assertEqual([[shown(name), "down"]], tables[3][1:])

    def test_an_interface_is_up_if_it_runs(self):
        up, running, loopback = 0x1, 0x40, 0x8
        lines = [(up | loopback | running, "lo"), (up, "no-carrier"), (up | running, "eth0"), (0, "off"),
                 (up | running, "eth0")]  # fmt: skip

        tables = self.tables_of(interfaces="".join(f"{flags} {name}\n" for flags, name in lines))

        self.assertEqual([["eth0", "up"], ["off", "down"], ["no-carrier", "down"], ["lo", "up"]], tables[3][1:])
        self.assertEqual(["up", "down", "down", "up"],
                         [attributes["class"] for tag, attributes in self.read_page().inside if tag == "b"])  # fmt: skip

    def test_a_signal_ends_a_watch_once_the_page_is_complete_and_any_other_run_at_once(self):
        for number in (signal.SIGTERM, signal.SIGINT):
            with self.subTest(number=number):
                self.assertEqual((-number, ""), self.run_there(signal=str(number)))
                self.assertEqual([], os.listdir(self.out))

                self.assertEqual((0, ""), self.run_there("--watch", signal=str(number)))
                self.read_page()
                os.unlink(self.page)
                os.unlink(self.page + ".txt")

    def test_a_full_disk_that_is_reported_late_publishes_nothing(self):
        self.assertEqual((1, f"statusboard: cannot write '{self.page}.txt.new': No space left on device\n"),
                         self.run_there(full=""))  # fmt: skip
        self.assertEqual([], os.listdir(self.out))

    def test_a_machine_that_tells_nothing(self):
        tables = self.tables_of()

        self.assertEqual(["Host", ""], tables[0][1])
        self.assertEqual([["Load over 1, 5 and 15 minutes", "  "], ["Uptime", "0 days, 0 hours"]], tables[1][1:])
        self.assertEqual([[], []], [table[1:] for table in tables[2:4]])


class PlaceTest(StatusboardTest):
    def test_a_new_page_replaces_the_old_one(self):
        self.assert_published(self.settings_file())
        with open(self.page, "rb") as old:
            self.write(os.path.join(self.watched, "new"))

            self.assert_published(self.settings_file())

            self.assertNotEqual(os.fstat(old.fileno()).st_ino, os.stat(self.page).st_ino)
            self.assertEqual(PAGE_FOOTER, old.read()[-len(PAGE_FOOTER) :])
        self.assertEqual(["new"], self.listed())

    def test_the_page_may_be_on_another_file_system(self):
        other = orv_test.other_file_system()
        if not other:
            self.skipTest("no file system besides that of /var/tmp is writable")
        page = os.path.join(self.make_dir(other), "www", "page.html")
        self.write(os.path.join(self.watched, "a;b"))
        settings = self.settings_file(page=page)

        for _ in range(2):
            self.assert_published(settings)

            self.assertEqual([["a;b", "0 B"]], self.read_page(page).tables[4][1:])
            self.assertEqual(["page.html", "page.html.txt"], sorted(os.listdir(os.path.dirname(page))))

    def test_an_existing_directory_of_the_page_keeps_its_mode(self):
        os.chmod(self.out, 0o700)

        self.assert_published(self.settings_file())

        self.assertEqual(0o40700, os.stat(self.out).st_mode)

    def test_new_tables_replace_the_old_ones(self):
        self.assert_published(self.settings_file())
        with open(self.page + ".txt", "rb") as old:
            before = old.read()
            self.write(os.path.join(self.watched, "new"))

            self.assert_published(self.settings_file())

            old.seek(0)
            self.assertEqual(before, old.read())
        self.assertIn(b"\nFiles in ", b"\n" + self.read(self.page + ".txt"))
        self.assertIn(b";new:0 B;", self.read(self.page + ".txt"))

    def test_a_link_at_the_new_tables_is_replaced_and_not_followed(self):
        other = self.write(os.path.join(self.dir, "other"), b"other")
        os.symlink(other, self.page + ".txt.new")

        self.assert_published(self.settings_file())

        self.assertEqual(b"other", self.read(other))
        self.assertEqual(["page.html", "page.html.txt"], sorted(os.listdir(self.out)))

    def test_missing_directories_of_the_page_are_made(self):
        page = os.path.join(self.out, "one", "two", "page.html")

        self.assert_published(self.settings_file(page=page), umask=0o002)

        self.read_page(page)
        self.assertEqual(0o40755, os.stat(os.path.join(self.out, "one", "two")).st_mode)

    def test_the_command_line_overrides_the_settings(self):
        other = os.path.join(self.out, "other.html")

        self.assert_published("--page", other, self.settings_file())

        self.read_page(other)
        self.assertFalse(os.path.exists(self.page))

    def test_relative_pages_are_below_the_current_directory(self):
        settings = self.settings_file(page=None)

        for page in ("here.html", "./here too.html", "made/below/page.html"):
            with self.subTest(page=page):
                os.makedirs(os.path.join(self.out, "made"), exist_ok=True)

                self.assert_published("--page", page, settings, cwd=self.out)

                self.read_page(os.path.join(self.out, page))

    def test_a_directory_directly_below_the_current_one_is_made(self):
        self.assert_published("--page", "new/page.html", self.settings_file(), cwd=self.out)

        self.read_page(os.path.join(self.out, "new", "page.html"))


class BadInputTest(StatusboardTest):
    def tearDown(self):
        self.assertFalse(os.path.isfile(self.page))

    def test_no_settings_file_is_wrong_usage(self):
        self.assert_fails(2, USAGE)
        self.assert_fails(2, USAGE, "--watch")

    def test_two_settings_files_are_wrong_usage(self):
        self.assert_fails(2, USAGE, self.settings_file(), "another")

    def test_unknown_and_incomplete_options_are_reported_as_wrong_usage(self):
        for arguments, complaint in (
            (["--frob", self.settings_file()], "unrecognized option '--frob'"),
            (["--page"], "option '--page' requires an argument"),
            (["--watch=5", self.settings_file()], "option '--watch' doesn't allow an argument"),
        ):
            with self.subTest(arguments=arguments):
                status, err = self.run_board(*arguments)

                self.assertEqual(2, status)
                self.assertIn(complaint + "\n" + USAGE, err)

    def test_a_missing_settings_file_is_reported(self):
        missing = os.path.join(self.dir, "missing")

        self.assert_fails(
            1,
            logged_safe(f"ReadSettings: open({missing}) failed (2, No such file or directory).")
            + f"statusboard: cannot read '{missing}'\n",
            missing,
        )

    def test_a_directory_is_not_a_settings_file(self):
        self.assert_fails(
            1,
            logged_safe(f"ReadSettings: read({self.dir}) failed (21, Is a directory).")
            + f"statusboard: cannot read '{self.dir}'\n",
            self.dir,
        )

    def test_a_missing_or_empty_setting_is_reported(self):
        for name in ("title", "directory", "page", "period"):
            for value in (None, ""):
                with self.subTest(name=name, value=value):
                    settings = self.settings_file(**{name: value})

                    self.assert_fails(1, f"statusboard: {settings}: missing setting '{name}'\n", settings)

    def test_a_bad_period_is_reported(self):
        for period in ("abc", "5~", "~5", "0", "-1", "1.5", "5 s", "0x10", "100000", "99999999999999999999"):
            with self.subTest(period=period):
                settings = self.settings_file(period=period)

                self.assert_fails(
                    1,
                    f"statusboard: {settings}: bad period '{period}': use a number of seconds from 1 to 99999\n",
                    settings,
                )

    def test_a_missing_directory_is_reported(self):
        missing = os.path.join(self.dir, "missing")

        self.assert_fails(
            1,
            logged_safe(f"ListFiles: opendir({missing}) failed (2, No such file or directory).")
            + f"statusboard: cannot list the directory '{missing}'\n",
            self.settings_file(directory=missing),
        )
        self.assertEqual([], os.listdir(self.out))

    def test_a_size_that_cannot_be_read_is_reported(self):
        file = self.write(os.path.join(self.watched, "file"))
        os.chmod(self.watched, 0o444)  # names can be read, the files below cannot be reached
        self.addCleanup(os.chmod, self.watched, 0o755)

        self.assert_fails(
            1,
            logged_safe(f"ListFiles: stat({file}) failed (13, Permission denied).")
            + f"statusboard: cannot list the directory '{self.watched}'\n",
            self.settings_file(),
            preexec_fn=without_capabilities(1, 2),  # CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH
        )
        self.assertEqual([], os.listdir(self.out))

    def test_a_page_directory_that_is_not_writable_is_reported(self):
        os.chmod(self.out, 0o555)

        self.assert_fails(
            1,
            f"statusboard: cannot write '{self.page}.txt.new': Permission denied\n",
            self.settings_file(),
            preexec_fn=without_capabilities(1),  # CAP_DAC_OVERRIDE
        )
        self.assertEqual([], os.listdir(self.out))

    def test_a_page_below_a_file_is_refused(self):
        file = self.write(os.path.join(self.dir, "file"))

        self.assert_fails(
            1,
            logged_safe(f"MakeDirectory: open({file}/) failed (20, Not a directory).")
            + f"statusboard: cannot make the directory '{file}/'\n",
            *("--page", file + "/page.html", self.settings_file()),
        )

    def test_a_table_file_that_cannot_be_read_does_not_empty_the_page(self):
        self.assert_fails(
            1,
            logged_safe(f"PublishPage: open({self.page}.txt.new) failed (13, Permission denied).")
            + f"statusboard: cannot publish '{self.page}'\n",
            self.settings_file(),
            umask=0o777,
            preexec_fn=without_capabilities(1, 2),  # CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH
        )
        self.assertEqual([], os.listdir(self.out))

    def test_a_directory_at_the_page_is_a_failure_and_stays(self):
        os.mkdir(self.page)

        self.assert_fails(
            1,
            logged_safe(f"PublishPage: {self.page} is not a regular file (0x4000).")
            + f"statusboard: cannot publish '{self.page}'\n",
            self.settings_file(),
        )
        self.assertEqual(["page.html"], os.listdir(self.out))

    def test_a_directory_at_the_tables_is_a_failure_and_stays(self):
        os.mkdir(self.page + ".txt")

        self.assert_fails(
            1,
            logged_safe(f"MoveFile: {self.page}.txt is not a regular file (0x4000).")
            + f"statusboard: cannot publish '{self.page}'\n",
            self.settings_file(),
        )
        self.assertEqual(["page.html", "page.html.txt"], sorted(os.listdir(self.out)))
        os.unlink(self.page)

    def test_settings_that_cannot_be_read_are_reported(self):
        settings = self.settings_file()
        os.chmod(settings, 0)

        self.assert_fails(
            1,
            logged_safe(f"ReadSettings: open({settings}) failed (13, Permission denied).")
            + f"statusboard: cannot read '{settings}'\n",
            settings,
            preexec_fn=without_capabilities(1, 2),  # CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH
        )


class FailureTest(StatusboardTest):
    """A page and its tables are published, and stay whatever happens then."""

    def setUp(self):
        super().setUp()
        self.assert_published(self.settings_file())
        self.old = self.published()

    def published(self):
        return self.read(self.page), self.read(self.page + ".txt")

    def tearDown(self):
        self.assertEqual(["page.html", "page.html.txt"], sorted(os.listdir(self.out)))
        self.assertEqual(self.old, self.published())

    def test_the_directory_is_gone(self):
        os.rmdir(self.watched)

        status, err = self.run_board(self.settings_file())

        self.assertEqual((1, f"statusboard: cannot list the directory '{self.watched}'"), (status, err.splitlines()[-1]))

    def test_the_disk_is_full_while_the_tables_are_written(self):
        for size in (0, 1, len(self.old[1]) - 20):
            with self.subTest(size=size):
                self.assert_fails(
                    1,
                    f"statusboard: cannot write '{self.page}.txt.new': File too large\n",
                    self.settings_file(),
                    preexec_fn=limited_to(size),
                )

    def test_the_disk_is_full_while_the_page_is_written(self):
        for size in (len(self.old[1]) + 20, len(self.old[0]) - 20):
            with self.subTest(size=size):
                status, err = self.run_board(self.settings_file(), preexec_fn=limited_to(size))

                self.assertEqual(1, status)
                self.assertRegex(err, rf"orv_safe: PublishPage: the page in \S+ is torn \({size} of \d+ bytes\)\.\n"
                                      rf"statusboard: cannot publish '{re.escape(self.page)}'\n\Z")  # fmt: skip

    def test_the_disk_becomes_full_during_a_watch(self):
        # The period leaves time to read what is published, and to limit the files before the next page.
        process = self.start("--watch", self.settings_file(period="4"), preexec_fn=without_signal)
        self.addCleanup(process.kill)
        old_page, old_tables = self.old
        self.wait_for(lambda: self.read(self.page) != old_page and self.read(self.page + ".txt") != old_tables, process)
        self.old = self.published()

        limit_files(process.pid, len(self.old[1]) + 20)

        status, err = self.finish(process)
        self.assertEqual((1, f"statusboard: cannot publish '{self.page}'"), (status, err.splitlines()[-1]))

    def test_the_page_cannot_be_built_and_an_interrupted_run_left_another(self):
        self.write(self.page + ".txt.new", b"old")

        def occupy():
            """A directory where the library is to build the page: its name holds the process's own number."""
            os.mkdir(temporary_page(os.getpid()))

        process = self.start(self.settings_file(), preexec_fn=occupy)
        built = temporary_page(process.pid)
        self.addCleanup(os.rmdir, built)
        _, err = process.communicate(timeout=PATIENCE_SECONDS)

        self.assertEqual(
            (1, logged_safe(f"PublishPage: open({built}) failed (17, File exists).")
             + f"statusboard: cannot publish '{self.page}'\n"), (process.returncode, text(err)))  # fmt: skip
        self.assertTrue(os.path.isdir(built))


class WatchTest(StatusboardTest):
    def watch_until(self, number):
        """Watches until a file that comes later is shown, and ends the program with the signal."""
        process = self.start("--watch", self.settings_file())
        self.addCleanup(process.kill)
        self.wait_for(lambda: os.path.exists(self.page), process)
        self.assertEqual([], self.listed())
        with open(self.page, "rb") as first:
            self.write(os.path.join(self.watched, "later"), b"123")

            self.wait_for(lambda: self.listed() == ["later"], process)  # each look reads a whole page

            self.assertNotEqual(os.fstat(first.fileno()).st_ino, os.stat(self.page).st_ino)
        process.send_signal(number)
        self.assertEqual((0, ""), self.finish(process))
        self.assertEqual(["later"], self.listed())
        self.assertEqual(["page.html", "page.html.txt"], sorted(os.listdir(self.out)))

    def test_pages_follow_the_directory_until_sigterm(self):
        self.watch_until(signal.SIGTERM)

    def test_pages_follow_the_directory_until_sigint(self):
        self.watch_until(signal.SIGINT)

    def test_a_long_period_is_waited_for_and_ended_by_a_signal(self):
        process = self.start("--watch", self.settings_file(period="99999"))
        self.addCleanup(process.kill)
        self.wait_for(lambda: os.path.exists(self.page + ".txt"), process)

        os.unlink(self.page)
        time.sleep(0.3)
        self.assertFalse(os.path.exists(self.page))

        process.send_signal(signal.SIGTERM)
        self.assertEqual((0, ""), self.finish(process))

    def test_another_signal_ends_it_as_usual(self):
        for number in (signal.SIGHUP, signal.SIGUSR1, signal.SIGALRM):
            with self.subTest(number=number):
                process = self.start("--watch", self.settings_file(page=os.path.join(self.out, f"{number}.html")))
                self.addCleanup(process.kill)
                self.wait_for(lambda name=f"{number}.html.txt": name in os.listdir(self.out), process)

                process.send_signal(number)

                self.assertEqual((-number, ""), self.finish(process))

    def test_a_page_leaves_no_descriptor_open(self):
        process = self.start("--watch", self.settings_file())
        self.addCleanup(process.kill)
        least = []  # while a page is made, files are open
        for _ in range(3):
            before, counts = self.page_number(), []
            self.wait_for(lambda old=before, seen=counts: seen.append(len(os.listdir(f"/proc/{process.pid}/fd")))
                          or self.page_number() not in (None, old), process)  # fmt: skip
            least.append(min(counts))

        process.send_signal(signal.SIGTERM)

        self.assertEqual((0, ""), self.finish(process))
        self.assertEqual(least[:1] * 3, least)

    def page_number(self):
        """Another one for each page that is published; None before the first one."""
        try:
            return os.stat(self.page + ".txt").st_mtime_ns
        except FileNotFoundError:
            return None

    def test_a_failure_ends_the_watch(self):
        process = self.start("--watch", self.settings_file())
        self.addCleanup(process.kill)
        self.wait_for(lambda: os.path.exists(self.page), process)

        os.rmdir(self.watched)

        status, err = self.finish(process)
        self.assertEqual(1, status)
        self.assertTrue(err.endswith(f"statusboard: cannot list the directory '{self.watched}'\n"), err)
        self.read_page()


def main():
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    MACHINE.append(os.path.abspath(sys.argv[1]))
    PROGRAM.extend(sys.argv[2:])
    orv_test.run_unittests()


if __name__ == "__main__":
    main()
