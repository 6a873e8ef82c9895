#!/usr/bin/env python3
"""orvfile page."""

import contextlib
import os
import pty
import re
import signal
import socket
import stat
import threading

from oracle import temporary_page
from pages import HOSTILE_NAMES, Page, without_capabilities
import tool
from tool import ToolTest, limited_to, problem

ONE_TABLE = b"<table  BORDER=2><tr><td>a</td><td>b</td></tr></table>"
TWO_FILES = "nothing was changed; name another file for the page"


class PageToolTest(ToolTest):
    def assert_published(self, *arguments, tables, body, page="page.html", **options):
        count = f"{tables} table" if tables == 1 else f"{tables} tables"
        self.assert_done("page", *arguments, out=f"published '{page}': {count}\n".encode(), **options)
        self.assertEqual(body, self.page_body(page))

    def assert_not_published(self, page, *arguments, line="", **options):
        """The library's line names the reason."""
        status, out, err = self.run_tool("page", *arguments, page, **options)
        self.assertEqual((1, b""), (status, out))
        self.assertRegex(err, rf"^\[3\] orv_safe: {line}\norvfile: cannot publish '{re.escape(page)}'.*\n  Next: .+\n$")


class PageTest(PageToolTest):
    def test_a_table_file_becomes_a_page(self):
        self.write("table", b"a:b,c;\n\nd:e;\n")
        self.write("page.html", b"old")
        self.write("one table", b"a:b;\n")

        self.assert_published("one table", "page.html", tables=1, body=ONE_TABLE)
        self.assert_published(
            *("table", "page.html"), tables=2,
            body=b"<table  BORDER=2><tr><td>a</td><td>b</td><td>c</td></tr></table><p></p>"
            b"<table  BORDER=2><tr><td>d</td><td>e</td></tr></table>")  # fmt: skip

    def test_every_line_that_is_not_empty_is_counted_as_a_table(self):
        self.write("table", b"\n\na:b;\nc:d;\n\n" + b"x:y;" * 50000 + b"\nz:z;")

        status, out, _ = self.run_tool("page", "table", "page.html")

        self.assertEqual((0, b"published 'page.html': 4 tables\n"), (status, out))
        self.write("table", b"a")
        self.assertEqual(b"published 'page.html': 1 table\n", self.run_tool("page", "table", "page.html")[1])

    def test_quiet_publishes_and_prints_nothing(self):
        self.write("table", b"a:b;\n")

        self.assert_done("page", "-q", "table", "page.html")

        self.assertEqual(ONE_TABLE, self.page_body())

    def test_hostile_cells_come_back_unchanged_and_stay_text(self):
        # The parser omits references to these control characters. All other bytes are shown, if they are UTF-8.
        names = [re.sub("[\x01-\x08\x0b\x0e-\x1f\x7f]", "", name.decode("utf-8", "replace")) for name in HOSTILE_NAMES]
        rows = b"".join(self.run_tool("row", "--", name, name)[1] for name in HOSTILE_NAMES)
        self.write("table", rows + b"\n")

        self.assertEqual(0, self.run_tool("page", "table", "page.html")[0])

        page = Page(self.read("page.html"))
        self.assertEqual([], page.foreign)
        self.assertEqual([[[name, name] for name in names]], page.tables)

    def test_a_table_file_that_cannot_be_read_leaves_the_page(self):
        self.write("secret", b"a:b;\n", 0o000)
        self.write("page.html", b"old")
        os.mkdir(self.path("d"))
        for table, message, remedy in (
            ("gone", "'gone': No such file or directory", "check the spelling of 'gone', and check that its directory exists"),
            ("d", "'d' is a directory, not a regular file", "name a regular file"),
            ("secret", "cannot read 'secret': Permission denied",
             "get access to 'secret' and the directories above it, or run as a user who has access"),
        ):  # fmt: skip
            with self.subTest(table=table):
                self.assert_fails(
                    problem(message, remedy), "page", table, "page.html", preexec_fn=without_capabilities(1, 2))
        self.assertEqual(b"old", self.read("page.html"))

    def test_an_empty_page_is_published_on_request(self):
        self.assert_published("--allow-empty", "gone", "page.html", tables=0, body=b"")
        self.assert_published("--allow-empty", ".", "page.html", tables=0, body=b"")
        self.write("table", b"a:b;\n")
        self.assert_published("--allow-empty", "table", "page.html", tables=1, body=ONE_TABLE)

    def test_a_page_in_place_of_its_table_is_refused(self):
        self.write("table", b"a:b;\n")
        os.link(self.path("table"), self.path("hard"))
        os.symlink("table", self.path("soft"))
        os.symlink(".", self.path("here"))
        for table, page in (
            ("table", "table"), ("table", "./table"), ("table", "hard"), ("table", "soft"), ("soft", "table"),
            ("gone", "gone"), ("gone", "./gone"), ("here/gone", self.path("gone")),
        ):  # fmt: skip
            with self.subTest(table=table, page=page):
                refusal = problem(f"'{table}' and '{page}' are the same file", TWO_FILES)
                self.assert_fails(refusal, "page", table, page)
                self.assert_fails(refusal, "page", "--allow-empty", table, page)
                self.assert_fails(refusal, "page", "--watch", table, page)
        self.assertEqual((b"a:b;\n", ["hard", "here", "soft", "table"]), (self.read("table"), self.names()))

        top = "/gone.orv_test"
        self.assert_fails(problem(f"'{top}' and '/{top}' are the same file", TWO_FILES), "page", top, "/" + top)

    def test_names_that_differ_in_one_byte_are_two_files(self):
        self.assert_published("--allow-empty", "1page", "2page", page="2page", tables=0, body=b"")
        self.assert_published("--allow-empty", "page1", "page2", page="page2", tables=0, body=b"")

    def test_equal_names_in_two_directories_are_two_files(self):
        os.mkdir(self.path("d"))
        self.write("same", b"a:b;\n")

        self.assert_published("same", "d/same", page="d/same", tables=1, body=ONE_TABLE)

    def test_what_is_not_a_regular_file_is_not_replaced(self):
        self.write("table", b"a:b;\n")
        os.mkdir(self.path("d"))
        os.mkfifo(self.path("fifo"))
        with contextlib.closing(socket.socket(socket.AF_UNIX)) as server:
            server.bind(self.path("socket"))
        kinds = {"d": "a directory", "fifo": "a FIFO", "socket": "a socket"}
        if os.geteuid() == 0:
            os.mknod(self.path("node"), 0o666 | stat.S_IFCHR, os.makedev(1, 3))
            kinds["node"] = "a device"
        before = {kind: os.lstat(self.path(kind)).st_ino for kind in kinds}

        for name, kind in kinds.items():
            with self.subTest(name=name):
                self.assert_fails(
                    problem(f"'{name}' is {kind}, not a regular file", "name a regular file"), "page", "table", name)

        self.assertEqual(before, {kind: os.lstat(self.path(kind)).st_ino for kind in kinds})

    def test_a_link_to_a_file_or_to_nothing_is_replaced(self):
        self.write("table", b"a:b;\n")
        self.write("other", b"other")
        for target in ("other", "gone"):
            with self.subTest(target=target):
                os.symlink(target, self.path("link"))

                self.assert_published("table", "link", page="link", tables=1, body=ONE_TABLE)

                self.assertFalse(os.path.islink(self.path("link")))
                os.unlink(self.path("link"))
        self.assertEqual((b"other", ["other", "table"]), (self.read("other"), self.names()))

    def test_a_link_to_anything_else_is_refused(self):
        self.write("table", b"a:b;\n")
        self.write("out")
        for name, target, message, remedy in (
            ("device", "/dev/null", "'device' is a device, not a regular file", "name a regular file"),
            ("here", ".", "'here' is a directory, not a regular file", "name a regular file"),
            ("stdout", "/proc/self/fd/1", "'stdout' is a link to an open file",
             "name the file that is to be made or replaced"),
        ):  # fmt: skip
            os.symlink(target, self.path(name))
            with self.subTest(name=name), open(self.path("out"), "wb") as out:
                self.assertEqual(
                    (1, None, problem(message, remedy)), self.run_tool("page", "table", name, stdout=out))
                self.assertEqual(target, os.readlink(self.path(name)))

    def test_a_page_that_cannot_be_put_in_place_is_a_failure(self):
        self.write("table", b"a:b;\n")

        self.assert_not_published(
            "no/page", "table", line=r"PublishPage: open\(no/\) failed \(2, No such file or directory\)\.")

        self.assertEqual(["table"], self.names())

    def test_an_incomplete_page_is_not_published(self):
        self.write("table", b"a:b;\n" * 100)
        self.write("page.html", b"old")

        self.assert_not_published(
            "page.html", "table", preexec_fn=limited_to(512),
            line=r"PublishPage: the page in /var/tmp/TextToHtml_\d+\.tmp is torn \(512 of \d+ bytes\)\.")  # fmt: skip

        self.assertEqual((b"old", ["page.html", "table"]), (self.read("page.html"), self.names()))

    def test_a_full_standard_output_is_a_failure_that_says_where_the_page_is(self):
        self.write("table", b"a:b;\n")
        with open("/dev/full", "wb") as full:
            self.assertEqual(
                (1, None, problem("'page.html' is in place, but cannot write to standard output: No space left on device",
                                  "redirect it to a file, pipe or terminal that accepts the result")),
                self.run_tool("page", "table", "page.html", stdout=full))  # fmt: skip
        self.assertEqual(ONE_TABLE, self.page_body())

    def test_two_publishers_of_one_page_both_succeed(self):
        page = os.path.join(self.other, "page.html")
        bodies, wrong = [], []
        calls = 50 if len(tool.PROGRAM) == 1 else 10  # of each; under an emulator they take long

        def publish(cell):
            for _ in range(calls):
                result = self.run_tool("page", cell, page)
                bodies.append(self.page_body(page))
                if result != (0, f"published '{page}': 1 table\n".encode(), ""):
                    wrong.append(result)

        for cell in "xy":
            self.write(cell, f"{cell}:{cell};\n".encode())
        publishers = [threading.Thread(target=publish, args=(cell,)) for cell in "xy"]
        for publisher in publishers:
            publisher.start()
        for publisher in publishers:
            publisher.join()

        self.assertEqual([], wrong)
        self.assertEqual(2 * calls, len(bodies))
        expected = {f"<table  BORDER=2><tr><td>{cell}</td><td>{cell}</td></tr></table>".encode() for cell in "xy"}
        self.assertLessEqual(set(bodies), expected)
        self.assertEqual(["page.html"], self.names(self.other))

    def test_signals_wait_until_the_page_is_published(self):
        table = self.write("table", b"a:b;\n" * 300000)
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            with self.subTest(signal=number):
                process = self.start("page", table, "page.html", cwd=self.other)
                self.wait_for(lambda: os.path.exists(temporary_page(process.pid)), process)
                process.send_signal(number)

                self.assertEqual((-number, b"", ""), self.finish(process))  # which looks for the temporary page
                self.assertEqual(["page.html"], self.names(self.other))
                self.assertEqual(ONE_TABLE * 300000, self.page_body(os.path.join(self.other, "page.html")))
                os.remove(os.path.join(self.other, "page.html"))


class PipeTest(PageToolTest):
    EMPTY = problem("standard input is empty",
                    "check the command that writes it, or add --allow-empty to publish an empty page")  # fmt: skip

    def test_a_table_is_read_from_a_pipe(self):
        self.assert_published("-", "page.html", data=b"a:b;\n", tables=1, body=ONE_TABLE)
        self.assert_published("-", "page.html", data=b"a:b;" * 100000, tables=1,
                              body=b"<table  BORDER=2>%s</table>" % (b"<tr><td>a</td><td>b</td></tr>" * 100000))  # fmt: skip
        self.assertEqual(["page.html"], self.names())

    def test_a_file_may_have_the_name_of_standard_input(self):
        self.write("-", b"a:b;\n")

        self.assert_published("./-", "page.html", tables=1, body=ONE_TABLE)

    def test_an_empty_pipe_is_reported(self):
        self.assert_fails(self.EMPTY, "page", "-", "page.html", data=b"")
        self.assertEqual([], self.names())
        self.assert_published("--allow-empty", "-", "page.html", data=b"", tables=0, body=b"")

    def test_a_command_that_fails_does_not_publish(self):
        rows = self.run_tool("row", "--csv", data=b'a,b\n"')

        self.assertEqual((1, b""), rows[:2])
        self.assert_fails(self.EMPTY, "page", "-", "page.html", data=rows[1])

    def test_a_terminal_is_reported(self):
        control, terminal = pty.openpty()
        self.addCleanup(os.close, control)
        self.addCleanup(os.close, terminal)

        self.assert_fails(
            problem("standard input is a terminal", "connect it to a command that writes the table"),
            *("page", "-", "page.html"), stdin=terminal)  # fmt: skip

    def test_a_pipe_cannot_be_watched(self):
        status, out, err = self.run_tool("page", "--watch", "-", "page.html", data=b"a:b;\n")

        self.assertEqual((2, b"", "orvfile: --watch excludes -\n  Next: see orvfile page --help\n"), (status, out, err))

    def test_the_table_waits_in_the_directory_for_temporary_files(self):
        for error in ({}, {"UNNAMED": "95"}, {"UNNAMED": "21"}):  # the latter ones get a name for a moment
            with self.subTest(error=error):
                temporary = self.make_dir("/var/tmp")
                environment = {"TMPDIR": temporary, **error}
                with self.environment(TMPDIR=temporary):
                    self.assert_published("-", "page.html", data=b"a:b;\n", shim=environment, tables=1, body=ONE_TABLE)
                self.assertEqual([], self.names(temporary))
        gone = self.path("gone")
        for temporary, shim, reason in ((gone, {}, "No such file or directory"),
                                        (gone, {"UNNAMED": "95"}, "No such file or directory"),
                                        (gone, {"UNNAMED": "95", "NAMED": "24"}, "Too many open files"),
                                        (self.dir, {"UNNAMED": "13"}, "Permission denied")):  # fmt: skip
            with self.environment(TMPDIR=temporary):
                self.assert_fails(
                    problem(f"cannot create a temporary file in '{temporary}': {reason}",
                            "set TMPDIR to a directory that is writable and has enough space"),
                    *("page", "-", "page.html"), data=b"a:b;\n", shim=shim)  # fmt: skip

    @contextlib.contextmanager
    def environment(self, **settings):
        before = {name: os.environ.get(name) for name in settings}
        os.environ.update(settings)
        try:
            yield
        finally:
            for name, value in before.items():
                os.environ.pop(name)
                if value is not None:
                    os.environ[name] = value


if __name__ == "__main__":
    tool.main()
