#!/usr/bin/env python3
"""orvfile page --watch."""

import contextlib
import os
import shutil
import signal
import time

import tool
from tool import ToolTest, problem


class WatchTest(ToolTest):
    """PATIENT in the shim: the program sees what the kernel reports, and nothing else. BLIND: the opposite."""

    def setUp(self):
        super().setUp()
        self.page = os.path.join(self.other, "page.html")
        self.warnings = self.path("warnings")
        self.replace(b"first")

    def replace(self, cell, path="table"):
        os.rename(self.write("new", cell + b":;\n"), self.path(path))

    def shows(self, cell):
        return lambda: os.path.exists(self.page) and b"<td>%s</td>" % cell in self.page_body(self.page)

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

    def test_the_page_follows_a_table_of_another_directory(self):
        os.mkdir(self.path("d"))
        self.replace(b"first", "d/table")
        for directory in ("d", self.path("d")):
            process = self.watch(table=os.path.join(directory, "table"), shim={"PATIENT": "1"})
            self.replace(b"second", "d/table")
            self.wait_to_show(b"second", process)
            self.assert_stops_without_warnings(process)
            self.replace(b"first", "d/table")

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
        os.link(target, target + ".kept")  # so that the target only loses a name
        self.replace(b"third", target)
        self.wait_to_show(b"third", process)
        self.replace(b"fourth")
        self.wait_to_show(b"fourth", process)

        self.assert_stops_without_warnings(process)

    def test_other_files_of_the_directory_do_not_publish(self):
        process = self.watch()

        self.write("other", b"data")
        self.write("table2", b"data")
        time.sleep(0.3)  # otherwise they could be noticed together with the table
        self.replace(b"second")
        self.wait_to_show(b"second", process)

        self.assertEqual((2, ""), self.stop(process, signal.SIGINT))

    def test_changes_are_noticed_in_front_of_events_of_other_files(self):
        process = self.watch(shim={"PATIENT": "1"})

        process.send_signal(signal.SIGSTOP)
        self.replace(b"second")
        os.mkdir(self.path("other"))  # one event
        process.send_signal(signal.SIGCONT)
        self.wait_to_show(b"second", process)

        self.assert_stops_without_warnings(process)

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

    def test_a_change_of_the_same_size_is_noticed_where_the_kernel_reports_none(self):
        process = self.watch(shim={"BLIND": "1"})

        for cell in (b"fifth", b"sixth"):
            self.write("table", cell + b":;\n")
            self.wait_to_show(cell, process)
        times = os.stat(self.path("table"))
        self.write("table", b"ninth:;\n")
        os.utime(self.path("table"), ns=(times.st_atime_ns, times.st_mtime_ns))
        self.wait_to_show(b"ninth", process)

        self.assert_stops_without_warnings(process)

    def test_signals_that_cannot_be_read_are_reported(self):
        self.assert_fails(
            problem("cannot wait for signals: Too many open files", "free memory, then start this again"),
            *("page", "--watch", "table", self.page), shim={"DEAF": "24"})  # fmt: skip

    def test_an_interrupted_wait_goes_on(self):
        process = self.watch(shim={"POLL": "4", "PATIENT": "1"})
        self.replace(b"second")
        self.wait_to_show(b"second", process)
        self.assertEqual((2, ""), self.stop(process))

    def test_a_wait_that_fails_is_reported(self):
        status, out, err = self.run_tool("page", "--watch", "table", self.page, shim={"POLL": "12"})

        self.assertEqual((1, problem("cannot wait for changes: Cannot allocate memory", "start this again")),
                         (status, err))  # fmt: skip
        self.assertIn(b"published", out)

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
            page = os.path.join(self.other, str(number))
            processes[page] = self.start_watch(page=page, shim=shim)
        for self.page, process in processes.items():
            self.wait_to_show(b"first", process)

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
        nfs, cifs, smb2, unknown = "6969", "ff534d42", "fe534d42", "0"
        remote = [{"LEASE": "11", "FS": type} for type in (nfs, cifs, smb2, unknown)]
        self.assert_only_whole_tables_are_published({"LEASE": "13"}, *remote, pauses=12)

    def waits(self):
        """The time limits of the waits, in milliseconds."""
        return list(map(int, self.read(self.waits_file()).split())) if os.path.exists(self.waits_file()) else []

    def waits_file(self):
        return os.path.join(self.other, "waits")

    def assert_waits(self, expected, waits):
        """A wait is a little shorter than it should be, because it ends at a point in time."""
        for most, wait in zip(expected, waits, strict=True):
            self.assertTrue(most / 2 < wait + 1 <= most, (expected, waits))

    def assert_doubling(self, before, process):
        """Waits until the table is quiet, which is after a second. How many looks that takes depends on the machine."""
        self.wait_for(lambda: self.waits()[before:] and self.waits()[-1] > 900, process)
        waits = self.waits()[before:]
        self.assertGreaterEqual(len(waits), 3)
        self.assert_waits([10 * 2**number for number in range(len(waits) - 1)] + [1000], waits)

    def test_a_table_that_changes_is_looked_at_less_and_less_often(self):
        os.mkdir(self.path("d"))
        new = self.write("d/new", b"second:;\n")
        process = self.watch(shim={"LEASE": "13", "WAITS": self.waits_file(), "PATIENT": "1"})
        self.assert_doubling(0, process)

        before = len(self.waits())
        os.rename(new, self.path("table"))  # one event
        self.wait_to_show(b"second", process)
        self.assert_doubling(before, process)

        self.assert_stops_without_warnings(process)

    def test_a_page_that_cannot_be_published_is_tried_again_every_second(self):
        process = self.start_watch(page="/gone/page.html", shim={"WAITS": self.waits_file()})
        self.wait_for(lambda: len(self.waits()) >= 3, process)
        self.assert_waits([1000] * 3, self.waits()[:3])
        self.stop(process)

    def test_a_writer_that_soon_closes_the_table_is_not_reported(self):
        with open(self.path("table"), "wb", buffering=0) as table:
            process = self.start_watch(shim={"WAITS": self.waits_file()})
            self.wait_for(lambda: len(self.waits()) >= 3, process)
            table.write(b"whole:;")
        self.wait_to_show(b"whole", process)

        self.assertEqual((1, ""), self.stop(process))

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

    def test_a_failure_after_a_success_is_reported_again_with_its_lines(self):
        process = self.watch()
        away = self.other + ".away"
        self.addCleanup(shutil.rmtree, away, True)
        for cell in (b"second", b"third", b"fourth"):
            os.rename(self.other, away)
            self.replace(cell)
            self.wait_for(self.warned("; trying again"), process)
            self.assertIn("[3] orv_safe: PublishPage: open(", self.read(self.warnings).decode())
            os.rename(away, self.other)
            self.wait_to_show(cell, process)
            open(self.warnings, "wb").close()
        self.stop(process)

    def test_a_table_that_stays_is_published_once(self):
        process = self.watch(shim={"WAITS": self.waits_file(), "BLIND": "1"})
        self.wait_for(lambda: len(self.waits()) >= 3, process)
        self.assertEqual((1, ""), self.stop(process))

    def test_a_page_that_becomes_the_table_is_refused(self):
        for directory in ("d1", "d2"):
            os.mkdir(self.path(directory))
        os.symlink("d2", self.path("link"))
        self.replace(b"first", "d1/table")
        self.page = self.path("link/table")
        process = self.watch(table="d1/table")

        os.symlink("d1", self.path("other"))
        os.rename(self.path("other"), self.path("link"))
        self.replace(b"second", "d1/table")
        self.wait_for(self.warned(f"'d1/table' and '{self.page}' are the same file; trying again"), process)

        self.assertEqual(b"second:;\n", self.read("d1/table"))
        self.stop(process)

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
        self.wait_for(lambda: os.path.exists(self.page) and self.page_body(self.page) == b"", process)
        time.sleep(1.1)
        self.replace(b"first")
        self.wait_to_show(b"first", process)

        self.assertEqual((2, ""), self.stop(process))

    def test_the_table_is_not_kept_open(self):
        process = self.watch()
        for number in range(20):
            self.replace(b"%d" % number)
            self.wait_to_show(b"%d" % number, process)

        self.wait_for(lambda: self.open_tables(process) == [], process)

        self.assert_stops_without_warnings(process)

    def open_tables(self, process):
        directory = f"/proc/{process.pid}/fd"
        files = []
        for name in os.listdir(directory):
            with contextlib.suppress(FileNotFoundError):  # closed meanwhile
                files.append(os.readlink(os.path.join(directory, name)))
        return [file for file in files if file.startswith(self.path("table"))]

    def test_only_sigint_sigterm_and_sighup_end_it(self):
        process = self.watch(preexec_fn=lambda: signal.signal(signal.SIGPIPE, signal.SIG_DFL))
        for number in (signal.SIGIO, signal.SIGPIPE):
            process.send_signal(number)
        process.stdout.close()
        self.replace(b"second")
        self.wait_to_show(b"second", process)
        self.wait_for(self.warned("is in place, but cannot write to standard output: Broken pipe"), process)
        self.replace(b"third")
        self.wait_to_show(b"third", process)
        self.wait_for(lambda: self.read(self.warnings).count(b"Broken pipe") >= 2, process)

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
