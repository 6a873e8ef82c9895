#!/usr/bin/env python3
"""orvfile page."""

import os
import re
import shutil
import signal

from oracle import LINES, PAGE_FOOTER, PAGE_HEADER, logged, temporary_page
from pages import HOSTILE_NAMES, Page, without_capabilities
import tool
from tool import ToolTest, limited_to, problem


class PageTest(ToolTest):
    def assert_published(self, *arguments, tables, body, page="page.html"):
        whole = PAGE_HEADER + body + PAGE_FOOTER
        count = f"{tables} table" if tables == 1 else f"{tables} tables"
        self.assert_done("page", *arguments, out=f"published '{page}': {count}, {len(whole)} bytes\n".encode())
        self.assertEqual(whole, self.read(page))

    def test_a_table_file_becomes_a_page(self):
        self.write("table", b"a:b,c;\n\nd:e;\n")
        self.write("page.html", b"old")
        self.write("one table", b"a:b;\n")

        self.assert_published(
            *("one table", "page.html"), tables=1, body=b"<table  BORDER=2><tr><td>a</td><td>b</td></tr></table>")
        self.assert_published(
            *("table", "page.html"), tables=2,
            body=b"<table  BORDER=2><tr><td>a</td><td>b</td><td>c</td></tr></table><p></p>"
            b"<table  BORDER=2><tr><td>d</td><td>e</td></tr></table>")  # fmt: skip

    def test_quiet_publishes_and_prints_nothing(self):
        self.write("table", b"a:b;\n")

        self.assert_done("page", "-q", "table", "page.html")

        self.assertEqual(PAGE_FOOTER, self.read("page.html")[-len(PAGE_FOOTER) :])

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

    def test_a_page_in_place_of_its_table_is_refused(self):
        self.write("table", b"a:b;\n")

        self.assert_fails(
            problem("'table' and './table' are the same file", "nothing was changed; name another file for the page"),
            *("page", "table", "./table"))  # fmt: skip
        self.assertEqual(b"a:b;\n", self.read("table"))

    def test_a_page_that_cannot_be_moved_into_place_is_a_failure(self):
        self.write("table", b"a:b;\n")
        os.mkdir(self.path("d"))
        for page, error in (("no/page", 2), ("d", 21)):
            process = self.start("page", "table", page)
            built = temporary_page(process.pid)

            self.assertEqual(
                (1, b"", logged(LINES.RenameRename(built, page, error), LINES.PageMove(built, page))
                 + problem(f"cannot publish '{page}'; nothing was replaced",
                           "check that its directory exists and is writable, that it is not a directory itself, and "
                           "that /var/tmp is writable; the lines above name the call that failed")),
                self.finish(process))  # fmt: skip
        self.assertEqual(["d", "table"], self.names())

    def test_an_incomplete_page_is_reported(self):
        self.write("table", b"a:b;\n" * 100)

        self.assert_fails(
            problem("an incomplete page was published at 'page.html'",
                    "free space in /var/tmp (df /var/tmp), then publish it again"),
            *("page", "table", "page.html"), preexec_fn=limited_to(512))  # fmt: skip
        self.assertEqual(512, len(self.read("page.html")))


class WatchTest(ToolTest):
    def setUp(self):
        super().setUp()
        self.page = os.path.join(self.other, "page.html")
        self.replace(b"first")

    def replace(self, cell):
        os.rename(self.write("new", cell + b":;\n"), self.path("table"))

    def shown(self):
        return self.read(self.page)[len(PAGE_HEADER) : -len(PAGE_FOOTER)]

    def shows(self, cell):
        return lambda: os.path.exists(self.page) and b"<td>%s</td>" % cell in self.shown()

    def watch(self, **options):
        process = self.start("page", "--watch", "table", self.page, **options)
        self.addCleanup(process.kill)
        self.wait_for(self.shows(b"first"), process)
        return process

    def stop(self, process, number=signal.SIGTERM):
        process.send_signal(number)
        return self.finish(process)

    def test_the_page_follows_a_table_that_is_replaced_or_written(self):
        process = self.watch()

        self.replace(b"second")
        self.wait_for(self.shows(b"second"), process)
        self.write("table", b"third:;\n")
        self.wait_for(self.shows(b"third"), process)

        status, out, err = self.stop(process)
        self.assertEqual((0, ""), (status, err))
        self.assertGreaterEqual(out.count(b"published"), 3)

    def test_other_files_of_the_directory_do_not_publish(self):
        process = self.watch()

        self.write("other", b"data")
        self.replace(b"second")
        self.wait_for(self.shows(b"second"), process)

        status, out, err = self.stop(process, signal.SIGINT)
        self.assertEqual((0, "", 2), (status, err, out.count(b"published")))

    def test_the_page_stays_while_the_table_cannot_be_read(self):
        warnings = open(self.path("warnings"), "wb")
        self.addCleanup(warnings.close)
        process = self.watch(stderr=warnings)

        os.symlink("gone", self.path("link"))
        os.rename(self.path("link"), self.path("table"))
        self.wait_for(lambda: self.read("warnings").count(b"\n") == 2, process)
        self.assertTrue(self.shows(b"first")())
        self.replace(b"second")
        self.wait_for(self.shows(b"second"), process)

        self.assertEqual(0, self.stop(process)[0])
        self.assertEqual(
            problem("warning: cannot read 'table'; the page is not changed",
                    "restore the file, and the page is published again"),
            self.read("warnings").decode())  # fmt: skip

    def test_a_directory_that_is_removed_ends_it(self):
        directory = self.make_dir("/var/tmp")
        self.write(os.path.join(directory, "table"), b"first:;\n")
        process = self.start("page", "--watch", os.path.join(directory, "table"), self.page)
        self.addCleanup(process.kill)
        self.wait_for(self.shows(b"first"), process)

        os.rename(directory, directory + ".moved")
        os.mkdir(directory)
        self.addCleanup(shutil.rmtree, directory + ".moved")

        status, _, err = self.finish(process)
        self.assertEqual((1, problem(f"the directory '{directory}/' was removed or renamed",
                                     "make it again, then start this again")), (status, err))  # fmt: skip

    def test_a_missing_directory_or_table_is_reported(self):
        self.assert_fails(
            problem("'no/table': No such file or directory",
                    "check the spelling of 'no/table', and check that its directory exists"),
            *("page", "--watch", "no/table", self.page))  # fmt: skip
        self.assert_fails(
            problem("cannot watch 'no/': No such file or directory",
                    "check the spelling of 'no/', and check that its directory exists"),
            *("page", "--watch", "--allow-empty", "no/table", self.page))  # fmt: skip
        self.assertEqual([], self.names(self.other))


if __name__ == "__main__":
    tool.main()
