#!/usr/bin/env python3
"""orvfile page."""

import contextlib
import os
import pty
import re
import shutil
import signal
import socket
import stat
import threading
import time

from oracle import PAGE_FOOTER, PAGE_HEADER, temporary_page
from pages import HOSTILE_NAMES, Page, without_capabilities
import tool
from tool import ToolTest, limited_to, problem

ONE_TABLE = b"<table  BORDER=2><tr><td>a</td><td>b</td></tr></table>"
TWO_FILES = "nothing was changed; name another file for the page"


class PageToolTest(ToolTest):
    def body(self, page="page.html"):
        """What the library has made of the table. The page must be whole."""
        whole = self.read(page)
        self.assertEqual((PAGE_HEADER, PAGE_FOOTER), (whole[: len(PAGE_HEADER)], whole[-len(PAGE_FOOTER) :]))
        return whole[len(PAGE_HEADER) : -len(PAGE_FOOTER)]

    def assert_published(self, *arguments, tables, body, page="page.html", **options):
        count = f"{tables} table" if tables == 1 else f"{tables} tables"
        self.assert_done("page", *arguments, out=f"published '{page}': {count}\n".encode(), **options)
        self.assertEqual(body, self.body(page))

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

    def test_quiet_publishes_and_prints_nothing(self):
        self.write("table", b"a:b;\n")

        self.assert_done("page", "-q", "table", "page.html")

        self.assertEqual(ONE_TABLE, self.body())

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
        kinds = {"d": "0x4000", "fifo": "0x1000", "socket": "0xc000"}
        if os.geteuid() == 0:
            os.mknod(self.path("node"), 0o666 | stat.S_IFCHR, os.makedev(1, 3))
            kinds["node"] = "0x2000"
        before = {kind: os.lstat(self.path(kind)).st_ino for kind in kinds}

        for name, kind in kinds.items():
            with self.subTest(name=name):
                self.assert_not_published(
                    name, "table", line=rf"PublishPage: {name} is not a regular file \({kind}\)\.")

        self.assertEqual(before, {kind: os.lstat(self.path(kind)).st_ino for kind in kinds})

    def test_a_link_is_not_replaced(self):
        self.write("table", b"a:b;\n")
        for name, target in (("link", "other"), ("dangling", "gone"), ("stdout", "/proc/self/fd/1")):
            os.symlink(target, self.path(name))
            with self.subTest(name=name):
                self.assert_fails(
                    problem(f"'{name}' is a symbolic link, not a regular file",
                            "name the file that it leads to, or remove the link"),
                    *("page", "table", name))  # fmt: skip
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

    def test_two_publishers_of_one_page_both_succeed(self):
        page = os.path.join(self.other, "page.html")
        bodies, wrong = [], []

        def publish(cell):
            for _ in range(50):
                result = self.run_tool("page", cell, page)
                bodies.append(self.body(page))
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
        self.assertEqual(100, len(bodies))
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
                self.assertEqual(ONE_TABLE * 300000, self.body(os.path.join(self.other, "page.html")))
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
        with self.environment(TMPDIR=self.path("gone")):
            self.assert_fails(
                problem(f"cannot create a temporary file in '{self.path('gone')}': No such file or directory",
                        "set TMPDIR to a directory that is writable and has enough space"),
                *("page", "-", "page.html"), data=b"a:b;\n")  # fmt: skip

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


class WatchTest(PageToolTest):
    """PATIENT in the shim: the program sees what the kernel reports, and nothing else. BLIND: the opposite."""

    def setUp(self):
        super().setUp()
        self.page = os.path.join(self.other, "page.html")
        self.warnings = self.path("warnings")
        self.replace(b"first")

    def replace(self, cell, path="table"):
        os.rename(self.write("new", cell + b":;\n"), self.path(path))

    def shows(self, cell):
        return lambda: os.path.exists(self.page) and b"<td>%s</td>" % cell in self.body(self.page)

    def warned(self, text):
        return lambda: text in self.read(self.warnings).decode()

    def start_watch(self, *arguments, table="table", page=None, **options):
        errors = open(self.warnings, "wb")
        self.addCleanup(errors.close)
        process = self.start("page", "--watch", *arguments, table, page or self.page, stderr=errors, **options)
        self.addCleanup(process.kill)
        return process

    def watch(self, *arguments, **options):
        process = self.start_watch(*arguments, **options)
        self.wait_for(self.shows(b"first"), process)
        return process

    def wait_to_show(self, cell, process):
        self.wait_for(self.shows(cell), process)

    def stop(self, process, number=signal.SIGTERM):
        """Returns how often the page was published, and what was printed to standard error."""
        process.send_signal(number)
        status, out, _ = self.finish(process)
        self.assertEqual(0, status)
        return out.count(b"published"), self.read(self.warnings).decode()

    def assert_stops_without_warnings(self, process):
        self.assertEqual("", self.stop(process)[1])

    def test_the_page_follows_a_table_that_is_replaced_or_written(self):
        process = self.watch(shim={"PATIENT": "1"})

        self.replace(b"second")
        self.wait_to_show(b"second", process)
        self.write("table", b"third:;\n")
        self.wait_to_show(b"third", process)

        published, err = self.stop(process)
        self.assertEqual("", err)
        self.assertGreaterEqual(published, 3)

    def test_the_page_follows_a_table_that_gets_a_new_file_in_any_way(self):
        process = self.watch(shim={"PATIENT": "1"})
        for number, make in enumerate((os.link, os.symlink, os.rename, shutil.copyfile)):
            with self.subTest(make=make):
                cell = b"%d" % number
                other = self.write(f"other{number}", cell + b":;\n")
                os.remove(self.path("table"))
                self.wait_for(self.warned("'table': No such file or directory"), process)
                make(other, self.path("table"))
                self.wait_to_show(cell, process)
        self.stop(process)

    def test_the_page_follows_a_table_that_is_written_by_another_name(self):
        directory = self.make_dir("/var/tmp")
        os.link(self.path("table"), os.path.join(directory, "hard"))
        process = self.watch(shim={"PATIENT": "1"})

        self.write(os.path.join(directory, "hard"), b"second:;\n")
        self.wait_to_show(b"second", process)

        self.assert_stops_without_warnings(process)

    def test_the_page_follows_the_target_of_a_link(self):
        target = os.path.join(self.make_dir("/var/tmp"), "target")
        os.rename(self.path("table"), target)
        os.symlink(target, self.path("table"))
        process = self.watch(shim={"PATIENT": "1"})

        self.write(target, b"second:;\n")
        self.wait_to_show(b"second", process)
        self.replace(b"third", target)
        self.wait_to_show(b"third", process)
        self.replace(b"fourth")
        self.wait_to_show(b"fourth", process)

        self.assert_stops_without_warnings(process)

    def test_other_files_of_the_directory_do_not_publish(self):
        process = self.watch()

        self.write("other", b"data")
        self.write("table2", b"data")
        self.replace(b"second")
        self.wait_to_show(b"second", process)

        self.assertEqual((2, ""), self.stop(process, signal.SIGINT))

    def test_changes_are_noticed_when_events_were_lost(self):
        with open("/proc/sys/fs/inotify/max_queued_events", encoding="ascii") as limit:
            events = int(limit.read())
        process = self.watch(shim={"PATIENT": "1"})

        process.send_signal(signal.SIGSTOP)
        for _ in range(events // 2 + 1):
            os.close(os.open(self.path("other"), os.O_CREAT | os.O_WRONLY))
            os.remove(self.path("other"))
        self.replace(b"second")
        process.send_signal(signal.SIGCONT)
        self.wait_to_show(b"second", process)

        self.assert_stops_without_warnings(process)

    def test_changes_are_noticed_where_the_kernel_reports_none(self):
        process = self.watch(shim={"BLIND": "1"})

        self.replace(b"second")
        self.wait_to_show(b"second", process)
        self.write("table", b"third:;\n")
        self.wait_to_show(b"third", process)

        self.assertEqual((3, ""), self.stop(process))

    def test_a_directory_may_be_missing_removed_and_made_again(self):
        directory = os.path.join(self.make_dir("/var/tmp"), "d")
        process = self.start_watch(table=os.path.join(directory, "table"))
        self.wait_for(self.warned("No such file or directory; trying again"), process)

        os.mkdir(directory)
        self.replace(b"first", os.path.join(directory, "table"))
        self.wait_to_show(b"first", process)
        os.rename(directory, directory + ".moved")
        os.mkdir(directory)
        self.replace(b"second", os.path.join(directory, "table"))
        self.wait_to_show(b"second", process)

        self.stop(process)

    def assert_only_whole_tables_are_published(self, *shims, pauses):
        """To several watchers at the same time."""
        processes = {}
        for number, shim in enumerate(shims):
            self.page = os.path.join(self.other, str(number))
            processes[self.page] = self.watch(page=self.page, shim=shim)

        with open(self.path("table"), "wb", buffering=0) as table:
            for _ in range(pauses):
                table.write(b"half:;")
                time.sleep(0.1)
            table.write(b"whole:;")
        for self.page, process in processes.items():
            self.wait_to_show(b"whole", process)

        for process in processes.values():
            self.assertEqual((2, ""), self.stop(process))

    def test_a_half_written_table_is_not_published(self):
        self.assert_only_whole_tables_are_published({"PATIENT": "1"}, {"BLIND": "1"}, pauses=1)

    def test_a_table_that_is_half_written_at_the_start_is_not_published(self):
        with open(self.path("table"), "wb", buffering=0) as table:
            table.write(b"half:;")
            process = self.start_watch()
            self.wait_for(self.warned("warning: 'table' is open for writing; the page waits until it is closed\n"
                                      "  Next: close it after each change, or replace it by a rename\n"), process)
            self.assertFalse(os.path.exists(self.page))
            table.write(b"whole:;")
        self.wait_to_show(b"whole", process)

        published, err = self.stop(process)
        self.assertEqual((1, 1), (published, err.count("warning")))

    def test_where_writers_are_unknown_the_page_waits_for_a_quiet_table(self):
        self.assert_only_whole_tables_are_published({"LEASE": "13"}, {"LEASE": "11", "REMOTE": "1"}, pauses=5)

    def test_the_page_stays_while_the_table_cannot_be_read(self):
        process = self.watch()

        os.symlink("gone", self.path("link"))
        os.rename(self.path("link"), self.path("table"))
        self.wait_for(lambda: self.read(self.warnings).count(b"\n") == 2, process)
        self.assertTrue(self.shows(b"first")())
        self.replace(b"second")
        self.wait_to_show(b"second", process)

        self.assertEqual(
            (2, problem("warning: 'table': No such file or directory; trying again",
                        "check the spelling of 'table', and check that its directory exists")),
            self.stop(process))  # fmt: skip

    def test_a_page_that_cannot_be_published_is_tried_again(self):
        os.rename(self.other, self.other + ".away")
        self.addCleanup(shutil.rmtree, self.other + ".away", True)
        process = self.start_watch()
        self.wait_for(self.warned("; trying again\n  Next: "), process)
        self.replace(b"second")
        time.sleep(1.1)  # so that it is tried several times
        os.rename(self.other + ".away", self.other)
        self.wait_to_show(b"second", process)

        published, err = self.stop(process)
        self.assertEqual((1, 1, 1), (published, err.count("[3] orv_safe: PublishPage: open("), err.count("warning: ")))

    def test_each_new_failure_is_reported(self):
        process = self.watch()

        for _ in range(2):
            os.remove(self.path("table"))
            self.wait_for(self.warned("No such file or directory; trying again"), process)
            os.mkdir(self.path("table"))
            self.wait_for(self.warned("is a directory, not a regular file; trying again"), process)
            os.rmdir(self.path("table"))
            self.replace(b"second")
            self.wait_to_show(b"second", process)
            open(self.warnings, "wb").close()
            self.replace(b"third")
            self.wait_to_show(b"third", process)

        self.stop(process)

    def test_an_empty_page_is_published_once_while_there_is_no_table(self):
        os.remove(self.path("table"))
        process = self.start_watch("--allow-empty", shim={"BLIND": "1"})
        self.wait_for(lambda: os.path.exists(self.page) and self.body(self.page) == b"", process)
        time.sleep(1.1)
        self.replace(b"first")
        self.wait_to_show(b"first", process)

        self.assertEqual((2, ""), self.stop(process))

    def test_only_sigint_sigterm_and_sighup_end_it(self):
        process = self.watch()
        for number in (signal.SIGIO, signal.SIGPIPE):
            process.send_signal(number)
        process.stdout.close()
        self.replace(b"second")
        self.wait_to_show(b"second", process)
        self.wait_for(self.warned("warning: cannot write to standard output: Broken pipe"), process)
        self.replace(b"third")
        self.wait_to_show(b"third", process)
        self.wait_for(lambda: self.read(self.warnings).count(b"Broken pipe") == 2, process)

        process.send_signal(signal.SIGHUP)
        self.assertEqual(-signal.SIGHUP, process.wait(tool.PATIENCE_SECONDS))

    def test_a_hangup_is_ignored_under_nohup(self):
        process = self.watch(preexec_fn=lambda: signal.signal(signal.SIGHUP, signal.SIG_IGN))

        process.send_signal(signal.SIGHUP)
        self.replace(b"second")
        self.wait_to_show(b"second", process)

        self.assert_stops_without_warnings(process)

    def test_quiet_prints_nothing(self):
        process = self.watch("-q")

        os.remove(self.path("table"))
        self.replace(b"second")
        self.wait_to_show(b"second", process)

        self.assertEqual((0, ""), self.stop(process))


if __name__ == "__main__":
    tool.main()
