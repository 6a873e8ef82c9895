#!/usr/bin/env python3
"""orvfile exists, move and copy."""

import contextlib
import errno
import functools
import os
import pty
import re
import signal
import socket
import subprocess
import time

import orv_test
from oracle import LINES, logged
from pages import without_capabilities
import tool
from tool import PATIENCE_SECONDS, ToolTest, limited_to, problem

NO_RANGES = f"copy_file_range:{errno.EXDEV}"  # then the copy is made by sendfile, which can be counted
THROUGH_US = f"{NO_RANGES} sendfile:{errno.EINVAL}"  # then by read and write


def safe(text):
    return f"[3] orv_safe: {text}\n"


def missing(path):
    return problem(f"'{path}': No such file or directory",
                   f"check the spelling of '{path}', and check that its directory exists")  # fmt: skip


class TransferTest(ToolTest):
    """Most tests run move and copy, each within one file system and to another one."""

    def setUp(self):
        super().setUp()
        self.to = os.path.join(self.other, "b")

    def trace(self):
        with contextlib.suppress(FileNotFoundError):
            return self.read(os.path.join(self.other, "trace")).decode().splitlines()
        return []

    def traced(self, **shim):
        path = os.path.join(self.other, "trace")
        with contextlib.suppress(FileNotFoundError):
            os.unlink(path)
        return {"TRACE": path, **shim}

    def assert_steps(self, expected, *arguments, **shim):
        self.assert_done(*arguments, shim=self.traced(**shim))
        staged = re.sub(r"/(#\d+ \(deleted\)|\.orv_\w{16})", "/STAGED", "\n".join(self.trace()))
        self.assertEqual(expected, [step for step in staged.split("\n") if re.match("fsync|unlinkat", step)])

    def assert_fails_with(self, lines, message, *arguments, **options):
        """Fails with these lines of the libraries, then with the message, a reason, and what to do."""
        status, out, err = self.run_tool(*arguments, **options)

        self.assertEqual((1, b""), (status, out))
        self.assertRegex(err, "^" + re.escape(lines + "orvfile: " + message) + r"[^\n]*\n  Next: [^\n]+\n$")

    def assert_nothing_changed(self, new=b"new", old=b"old", other=("b",)):
        self.assertEqual((["a"], new), (self.names(), self.read("a")))
        self.assertEqual(sorted(other), [name for name in self.names(self.other) if name != "trace"])
        if other:
            self.assertEqual(old, self.read(self.to))

    def arrange(self, new=b"new", old=b"old"):
        self.write("a", new)
        if old is not None:
            self.write(self.to, old)




class ExistsTest(ToolTest):
    def test_a_regular_file_exists_even_behind_a_link(self):
        self.write("file")
        os.symlink("file", self.path("link"))

        self.assert_done("exists", "file", "link", self.path("file"))

    def test_each_path_that_is_not_a_regular_file_is_reported(self):
        self.write("file")
        os.symlink("gone", self.path("dangling"))
        os.mkfifo(self.path("fifo"))
        name = problem("'{0}' is {1}, not a regular file", "name a regular file")
        missing = problem("'{0}': No such file or directory",
                          "check the spelling of '{0}', and check that its directory exists")  # fmt: skip

        self.assert_fails(
            name.format(".", "a directory") + missing.format("dangling") + name.format("fifo", "a FIFO")
            + name.format("/dev/null", "a device") + missing.format("") + missing.format("a\\nb"),
            *("exists", ".", "dangling", "file", "fifo", "/dev/null", "", "a\nb"))  # fmt: skip
        self.assert_fails("", "exists", "-q", ".", "gone")



class MoveTest(TransferTest):
    def test_within_a_file_system_the_file_itself_moves_with_all_that_it_has(self):
        for options in ([], ["--plain"]):
            self.write("a", b"data", 0o4750)
            self.write("b", b"old")
            inode = os.stat(self.path("a")).st_ino

            self.assert_done("move", *options, "a", "b")

            self.assertEqual(["b"], self.names())
            self.assertEqual((inode, 0o104750), (os.stat(self.path("b")).st_ino, os.stat(self.path("b")).st_mode))

    def test_to_another_file_system_the_bytes_arrive_and_the_source_is_removed(self):
        for options in ([], ["-n"], ["--no-replace", "--durable", "--verify", "--preserve"], ["--no-durable"],
                        ["--no-verify"], ["--no-verify", "--no-durable"], ["--plain"]):  # fmt: skip
            with self.subTest(options=options):
                data = os.urandom(70000)
                self.write("a", data, 0o640)
                to = os.path.join(self.other, "-".join(["b", *options]))

                self.assert_done("move", *options, "a", to)

                self.assertEqual([], self.names())
                self.assertEqual(data, self.read(to))
                self.assertEqual(0o100640, os.stat(to).st_mode)

    def test_the_file_and_both_directories_are_flushed_before_the_source_is_removed(self):
        self.arrange()
        flushed = [f"fsync {self.other}/STAGED", f"fsync {self.other}"]
        removed = ["unlinkat a", f"fsync {self.dir}"]

        self.assert_steps(flushed + removed, "move", "--no-verify", "a", self.to)
        self.arrange()
        self.assert_steps(flushed[:1] + flushed + removed, "move", "--durable", "--verify", "a", self.to)
        self.arrange(old=None)
        os.unlink(self.to)
        self.assert_steps(flushed[:1] + flushed + removed, "move", "--durable", "-n", "a", self.to)

    def test_a_rename_is_flushed_before_and_after(self):
        os.mkdir(self.path("d"))
        for to, directories in (("b", [""]), ("d", ["/d", ""]), (self.path("c"), ["", ""])):
            self.write("a")
            steps = [f"fsync {self.dir}/a", *(f"fsync {self.dir}{directory}" for directory in directories)]

            self.assert_steps(steps, "move", "a", to)

    def test_each_of_several_files_is_flushed(self):
        self.write("a")
        self.write("c")
        steps = [[f"fsync {self.other}/STAGED", f"fsync {self.other}", f"unlinkat {name}", f"fsync {self.dir}"]
                 for name in ("a", "c")]  # fmt: skip

        self.assert_steps(sum(steps, []), "move", "--no-verify", "a", "c", self.other)

    def test_nothing_is_flushed_on_request(self):
        self.arrange()

        self.assert_steps(["unlinkat a"], "move", "--no-durable", "--no-verify", "a", self.to)

    def test_no_replace_works_without_the_newer_system_call(self):
        self.write("a", b"data")

        self.assert_done("move", "-n", "a", "b", shim=self.traced(FAIL=f"renameat2:{errno.EINVAL}"))

        self.assertEqual(b"data", self.read("b"))
        self.assertEqual([f"fsync {self.dir}/a", "failed renameat2", "linkat b", "unlinkat a", f"fsync {self.dir}"],
                         self.trace())  # fmt: skip

    def test_names_of_one_file_are_refused_and_stay(self):
        self.write("a", b"data")
        os.link(self.path("a"), self.path("hard"))
        os.symlink("a", self.path("soft"))
        for options in ([], ["--no-durable"], ["--plain"]):
            for source, to in (("a", "a"), ("a", "./a"), ("a", self.path("a")), ("a", "hard"), ("soft", "a"),
                               ("soft", "hard")):  # fmt: skip
                with self.subTest(options=options, source=source, to=to):
                    self.assert_fails(
                        problem(f"'{source}' and '{to}' are the same file",
                                "nothing was changed; choose another destination"),
                        *("move", *options, source, to))  # fmt: skip
        self.assertEqual((["a", "hard", "soft"], b"data"), (self.names(), self.read("a")))

    def test_a_link_to_the_source_is_replaced_by_it(self):
        self.write("a", b"data")
        os.symlink("a", self.path("soft"))

        self.assert_done("move", "a", "soft")

        self.assertEqual((["soft"], b"data"), (self.names(), self.read("soft")))

    def test_the_content_that_a_link_leads_to_is_moved_and_the_link_removed(self):
        self.write("a", b"data")
        os.symlink("a", self.path("soft"))

        self.assert_done("move", "soft", "b")

        self.assertEqual((["a", "b"], b"data"), (self.names(), self.read("b")))

    def test_a_source_that_cannot_be_removed_is_kept_and_the_message_says_where_the_content_is(self):
        self.arrange()
        line = safe(f"MoveFile: unlinkat(a) failed ({errno.EROFS}, Read-only file system): the content is in place, and "
                    "the source is kept.")  # fmt: skip

        self.assert_fails_with(line, f"cannot move 'a' to '{self.to}': ", "move", "a", self.to,
                               shim={"FAIL": f"unlinkat:{errno.EROFS}:1"})  # fmt: skip

        self.assertEqual((b"new", b"new"), (self.read("a"), self.read(self.to)))


class PlainMoveTest(TransferTest):
    def test_it_goes_through_the_function_of_the_library_and_flushes_nothing(self):
        self.write("a", b"data")

        self.assert_done("move", "--plain", "a", "b", shim=self.traced())
        self.assert_done("move", "--plain", "b", self.to, shim={"TRACE": os.path.join(self.other, "trace")})

        self.assertRegex("\n".join(self.trace()), rf"^rename a b\nrename b {self.to}\nrename {self.to}_\w{{6}} {self.to}\n"
                                                  r"unlink b$")  # fmt: skip

    def test_a_failure_leaves_both_files_and_says_why(self):
        to = os.path.join(self.other, "b")
        self.arrange(b"x" * 20000)
        missing_directory = LINES.RenameRename("a", "no/b", errno.ENOENT)
        for shim, options, destination, line in (
            ({}, {}, "no/b", missing_directory),
            ({"FAIL": f"write:{errno.ENOSPC}:2"}, {}, to, LINES.RenameWrite(4096, -1, errno.ENOSPC)),
            ({"SHORT": "write:3:100"}, {}, to, None),  # with a number from before
            ({}, {"preexec_fn": limited_to(8192)}, to, LINES.RenameWrite(4096, -1, errno.EFBIG)),
        ):
            with self.subTest(line=line and line.text):
                status, out, err = self.run_tool("move", "--plain", "a", destination, shim=shim, **options)

                self.assertEqual((1, b""), (status, out))
                self.assertRegex(err, "^" + (re.escape(logged(line)) if line else
                                             r"\[3\] \S+: RenameFileAcrossFs: write\(\) failed \(4096, 100, \d+\).\n")
                                 + rf"orvfile: cannot move 'a' to '{destination}': [^\n]+\n  Next: [^\n]+\n$")  # fmt: skip
                self.assert_nothing_changed(b"x" * 20000)

    def test_a_source_that_cannot_be_read_is_named_though_the_library_reports_nothing(self):
        self.arrange(b"x" * 20000)

        self.assert_fails(
            problem(f"cannot move 'a' to '{self.to}': cannot read 'a': Input/output error",
                    "check the kernel's log (dmesg) for errors of the medium"),
            *("move", "--plain", "a", self.to), shim={"FAIL": f"read:{errno.EIO}:2"})  # fmt: skip

        self.assert_nothing_changed(b"x" * 20000)

    def test_a_name_of_more_than_248_bytes_is_too_long_across_file_systems_only(self):
        self.write("a", b"data")
        name = "n" * 249
        to = os.path.join(self.other, name)
        self.assert_done("move", "--plain", "a", name)
        os.rename(self.path(name), self.path("a"))

        status, out, err = self.run_tool("move", "--plain", "a", to)

        self.assertEqual((1, b"", ["a"], []), (status, out, self.names(), self.names(self.other)))
        self.assertRegex(err, rf"mkstemp\({to}_\w{{6}}\) failed \(36\).\norvfile: cannot move 'a' to '{to}': ")
        self.assert_done("move", "a", to)  # orv_safe needs no longer name
        self.assertEqual([name], self.names(self.other))

    def test_a_source_that_cannot_be_removed_is_a_failure(self):
        self.arrange()

        self.assert_fails_with(
            logged(LINES.RenameUnlink("a", errno.EROFS)), f"the content is at '{self.to}', and 'a' is kept: ",
            *("move", "--plain", "a", self.to), shim={"FAIL": f"unlink:{errno.EROFS}"})  # fmt: skip

        self.assertEqual((b"new", b"new"), (self.read("a"), self.read(self.to)))


class CopyTest(TransferTest):
    def test_bytes_and_permissions_arrive_and_the_source_stays(self):
        for data in (b"", b"\0\n\xff", os.urandom(200000)):
            for to in ("b", self.to):
                self.write("a", data, 0o6640)
                self.write(to, b"longer than some of them" * 10, 0o600)

                self.assert_done("copy", "a", to)

                self.assertEqual((data, data), (self.read("a"), self.read(to)))
                self.assertEqual(0o100640, os.stat(os.path.join(self.dir, to)).st_mode)

    def test_set_id_bits_times_and_holes_arrive_on_request(self):
        for command in ("copy", "move"):
            with open(self.path("a"), "wb") as file:
                file.write(b"begin")
                file.truncate(5 << 20)
            os.chown(self.path("a"), -1, os.getegid())
            os.chmod(self.path("a"), 0o6750)
            os.utime(self.path("a"), ns=(10**18, 11 * 10**17 + 5))

            self.assert_done(command, "--preserve", "a", self.to)

            status = os.stat(self.to)
            self.assertEqual((0o106750, 11 * 10**17 + 5, 5 << 20),
                             (status.st_mode, status.st_mtime_ns, status.st_size))  # fmt: skip
            self.assertLess(status.st_blocks, 1000)

    def test_what_cannot_be_kept_is_reported_and_is_no_failure(self):
        self.arrange()

        self.assert_done(
            "copy", "a", self.to, shim={"FAIL": f"fchmod:{errno.EPERM}"},
            err=safe(f"CopyFile: fchmod({self.to}) failed ({errno.EPERM}, Operation not permitted): the mode is not kept."))

        self.assertEqual(b"new", self.read(self.to))

    def test_the_file_and_its_directory_are_flushed(self):
        self.write("a")

        self.assert_steps([f"fsync {self.dir}/STAGED", f"fsync {self.dir}"], "copy", "--no-verify", "a", "b")
        self.assert_steps([f"fsync {self.dir}/STAGED"], "copy", "--no-durable", "-n", "a", "c")  # to read it back
        self.assert_steps([], "copy", "--no-durable", "--no-verify", "a", "b")

    def test_names_of_one_file_are_refused_and_stay(self):
        self.write("a", b"data")
        os.link(self.path("a"), self.path("hard"))
        os.symlink("a", self.path("soft"))
        for source, to in (("a", "a"), ("a", "./a"), ("a", "hard"), ("a", "soft"), ("soft", "a")):
            self.assert_fails(
                problem(f"'{source}' and '{to}' are the same file", "nothing was changed; choose another destination"),
                *("copy", source, to))  # fmt: skip
        self.assertEqual((["a", "hard", "soft"], b"data"), (self.names(), self.read("a")))
        self.assertTrue(os.path.islink(self.path("soft")))


class ComparisonTest(TransferTest):
    """Both commands read a copy back."""

    DATA = b"x" * 100000  # 13 blocks of 8 KiB, each of which is read twice

    def test_a_byte_that_differs_is_noticed_wherever_it_is(self):
        for command, function in (("copy", "CopyFile"), ("move", "MoveFile")):
            for read, block in ((2, 0), (20, 9), (27, 12)):
                with self.subTest(command=command, block=block):
                    self.arrange(self.DATA)
                    line = safe(f"{function}: what was written for {self.to} differs from a after byte {block * 8192}.")

                    self.assert_fails_with(line, f"cannot {command} 'a' to '{self.to}'", command, "a", self.to,
                                           shim={"FLIP": str(read)})  # fmt: skip

                    self.assert_nothing_changed(self.DATA)

    def test_a_failed_read_is_a_failure(self):
        self.arrange(self.DATA)
        for read, path in ((5, "a"), (6, self.to)):
            line = safe(f"MoveFile: pread({path}) failed ({errno.EIO}, Input/output error).")

            self.assert_fails_with(line, f"cannot move 'a' to '{self.to}': ", "move", "a", self.to,
                                   shim={"FAIL": f"pread:{errno.EIO}:{read}"})  # fmt: skip

            self.assert_nothing_changed(self.DATA)

    def test_an_interrupted_read_is_repeated(self):
        for read in (5, 6):
            self.arrange(self.DATA)

            self.assert_done("move", "a", self.to, shim=self.traced(FAIL=f"pread:{errno.EINTR}:{read}"))

            self.assertIn("failed pread", self.trace())
            self.assertEqual(self.DATA, self.read(self.to))

    def test_nothing_is_read_back_on_request(self):
        self.arrange(self.DATA)

        self.assert_done("copy", "--no-verify", "a", self.to, shim=self.traced(FAIL=f"pread:{errno.EIO}"))

        self.assertEqual(self.DATA, self.read(self.to))
        self.assertNotIn("failed pread", self.trace())


class RefusalTest(TransferTest):
    """What is refused is refused by both commands, in all their forms, and changes nothing."""

    FORMS = (["copy"], ["move"], ["move", "--plain"])

    def test_an_existing_destination_stays_when_it_may_not_be_replaced(self):
        os.symlink("gone", os.path.join(self.other, "link"))
        for command in ("move", "copy"):
            for to in (self.to, os.path.join(self.other, "link")):
                with self.subTest(command=command, to=to):
                    self.arrange()

                    self.assert_fails(
                        problem(f"'{to}' exists", "omit --no-replace to replace it, or choose another destination"),
                        *(command, "-n", "a", to))  # fmt: skip

                    self.assert_nothing_changed(other=("b", "link"))

    def test_a_destination_that_appears_at_the_last_moment_stays(self):
        for command, fault, call in (("move", "renameat2", "renameat"), ("copy", "renameat2", "renameat"),
                                     ("copy --no-durable", "linkat", "linkat")):  # fmt: skip
            self.write("a", b"new")
            command, *options = command.split()
            line = safe(f"{'MoveFile' if command == 'move' else 'CopyFile'}: {call}(b) failed (17, File exists).")

            self.assert_fails_with(line, f"cannot {command} 'a' to 'b': ", command, *options, "-n", "a", "b",
                                   shim={"FAIL": f"{fault}:{errno.EEXIST}"})  # fmt: skip

            self.assertEqual(["a"], self.names())

    def test_a_destination_that_is_not_a_regular_file_is_refused_and_does_not_hang(self):
        os.mkfifo(self.path("fifo"))
        os.symlink("/dev/null", self.path("device"))
        with socket.socket(socket.AF_UNIX) as bound:
            bound.bind(self.path("socket"))
        os.makedirs(self.path("d/a"))
        self.write("a", b"data")
        for form in self.FORMS:
            for to, path, kind in (("fifo", "fifo", "a FIFO"), ("device", "device", "a device"),
                                   ("/dev/null", "/dev/null", "a device"), ("socket", "socket", "a socket"),
                                   ("d", "d/a", "a directory")):  # fmt: skip
                with self.subTest(form=form, to=to):
                    self.assert_fails(
                        problem(f"'{path}' is {kind}, not a regular file", "name a regular file"), *form, "a", to)
        self.assertEqual((["a", "d", "device", "fifo", "socket"], b"data"), (self.names(), self.read("a")))
        self.assertTrue(os.path.islink(self.path("device")))

    def test_a_link_to_an_open_file_is_refused(self):
        self.write("a", b"data")
        self.write("out")
        os.symlink("/proc/self/fd/1", self.path("stdout"))
        for form in self.FORMS:
            with self.subTest(form=form), open(self.path("out"), "wb") as out:
                self.assertEqual(
                    (1, None, problem("'stdout' is a link to an open file",
                                      "name the file that is to be made or replaced")),
                    self.run_tool(*form, "a", "stdout", stdout=out))  # fmt: skip
        self.assertEqual((b"data", b""), (self.read("a"), self.read("out")))
        self.assertEqual("/proc/self/fd/1", os.readlink(self.path("stdout")))

    def test_a_source_that_is_not_a_regular_file_is_reported(self):
        os.mkdir(self.path("d"))
        os.mkfifo(self.path("fifo"))
        os.symlink("gone", self.path("dangling"))
        for form in self.FORMS:
            for source in ("gone", "dangling"):
                self.assert_fails(missing(source), *form, source, "b")
            for source, kind in (("d", "a directory"), ("d/", "a directory"), ("fifo", "a FIFO"), ("/dev/null", "a device")):
                self.assert_fails(
                    problem(f"'{source}' is {kind}, not a regular file", "name a regular file"), *form, source, "b")
        self.assertEqual(["d", "dangling", "fifo"], self.names())

    def test_paths_that_cannot_be_read_or_written_are_reported(self):
        self.write("a", b"data")
        self.write("secret", b"data", 0o000)
        dropped = {"preexec_fn": without_capabilities(1, 2)}  # CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH
        for source, to, call, error, options in (
            ("a", "no/b", "open(no/)", "2, No such file or directory", {}),
            ("a", "a/b", "open(a/)", "20, Not a directory", {}),
            ("secret", "b", "openat(secret)", "13, Permission denied", dropped),
        ):
            with self.subTest(source=source, to=to):
                self.assert_fails_with(safe(f"CopyFile: {call} failed ({error})."), f"cannot copy '{source}' to '{to}': ",
                                       *("copy", source, to), **options)  # fmt: skip
        self.assertEqual(["a", "secret"], self.names())

    def test_a_failed_call_changes_nothing(self):
        for command, function in (("copy", "CopyFile"), ("move", "MoveFile")):
            for call, where in (("fsync", self.to), ("fchmod", self.to), ("write", self.to), ("renameat", self.to)):
                with self.subTest(command=command, call=call):
                    self.arrange(b"x" * 20000)
                    line = safe(f"{function}: {call}({where}) failed ({errno.EIO}, Input/output error).")

                    self.assert_fails_with(line, f"cannot {command} 'a' to '{self.to}': ", command, "a", self.to,
                                           shim={"FAIL": f"{call}:{errno.EIO}:1 {THROUGH_US}"})  # fmt: skip

                    self.assert_nothing_changed(b"x" * 20000)

    def test_a_short_write_is_continued(self):
        self.arrange(b"x" * 20000)

        self.assert_done("copy", "a", self.to, shim=self.traced(FAIL=THROUGH_US, SHORT="write:2:10"))

        self.assertIn("short write", self.trace())
        self.assertEqual(b"x" * 20000, self.read(self.to))

    def test_a_full_disk_loses_nothing(self):
        for command, function in (("copy", "CopyFile"), ("move", "MoveFile")):
            self.arrange(b"x" * 20000)
            line = safe(f"{function}: write({self.to}) failed ({errno.EFBIG}, File too large).")

            self.assert_fails_with(line, f"cannot {command} 'a' to '{self.to}': ", command, "a", self.to,
                                   preexec_fn=limited_to(8192))  # fmt: skip

            self.assert_nothing_changed(b"x" * 20000)

    def test_a_directory_that_cannot_be_flushed_is_reported_after_the_content_is_in_place(self):
        self.arrange()
        line = safe(f"MoveFile: fsync({self.other}/) failed ({errno.EIO}, Input/output error): the file is in place, but a "
                    "power cut can undo that.")  # fmt: skip

        self.assert_fails_with(line, f"cannot move 'a' to '{self.to}': ", "move", "--no-verify", "a", self.to,
                               shim={"FAIL": f"fsync:{errno.EIO}:2"})  # fmt: skip

        self.assertEqual((b"new", b"new"), (self.read("a"), self.read(self.to)))


class RemedyTest(TransferTest):
    """What each failure is called, and what to do: the path that it is about, and its true reason."""

    MEDIUM = "check the kernel's log (dmesg) for errors of the medium"
    LONG = "n" * 249
    CASES = (
        # options, faults, source, destination; then the reason (in place of the common begin: the whole problem) and
        # the remedy. {to} is the destination, {dir} its directory.
        ("copy", {"FAIL": f"write:{errno.ENOSPC} {THROUGH_US}"}, "a", "{to}",
         "the new file for '{to}' cannot be written: No space left on device",
         "free space on the file system of '{to}', then run this again"),
        ("copy", {"FAIL": f"fsync:{errno.EDQUOT}"}, "a", "{to}", "'{to}' cannot be flushed to the disk: Disk quota exceeded",
         "free space on the file system of '{to}', then run this again"),
        ("copy", {"FAIL": f"write:{errno.EFBIG} {THROUGH_US}"}, "a", "{to}",
         "the new file for '{to}' cannot be written: File too large", "raise the limit (`ulimit -f`), or split the file"),
        ("move", {"FAIL": f"read:{errno.EIO} {THROUGH_US}"}, "a", "{to}", "'a' cannot be read: Input/output error", MEDIUM),
        ("move", {"FAIL": f"pread:{errno.EIO}:1"}, "a", "{to}", "'a' cannot be read: Input/output error", MEDIUM),
        ("move", {"FAIL": f"fchmod:{errno.EIO}"}, "a", "{to}", "the mode of '{to}' cannot be set: Input/output error", MEDIUM),
        ("copy", {"FAIL": f"fchmod:{errno.EPERM} fsync:{errno.EIO}:2"}, "a", "{to}",  # a note comes before the failure
         "'{to}' cannot be flushed to the disk: Input/output error", MEDIUM),
        ("copy", {"FLIP": "2"}, "a", "{to}",
         "the copy for '{to}' was read back, and differs from 'a' after byte 0: the medium is faulty, or 'a' was written "
         "meanwhile", "run this again. If it fails again, check the medium, and replace it"),
        ("copy -n --no-durable", {"FAIL": f"linkat:{errno.EEXIST}"}, "a", "c", "'c' exists, and was not to be replaced",
         "choose another destination, or allow that 'c' is replaced"),
        ("move", {"FAIL": f"renameat:{errno.EROFS}"}, "a", "c", "the file cannot be put at 'c': Read-only file system",
         "choose a path on a file system that is mounted writable"),
        ("copy", {}, "a", "no/b", "'no/' cannot be opened: No such file or directory",
         "check the spelling of 'no/', and check that its directory exists"),
        ("move", {}, "a", "a/b", "'a/' cannot be opened: Not a directory",
         "a component of 'a/' is not a directory: correct the path"),
        ("copy", {}, "a", "loop/b", "'loop/' cannot be opened: Too many levels of symbolic links",
         "remove the symbolic links in 'loop/' that form a loop"),
        ("copy", {}, "a", "n" * 256, "'" + "n" * 256 + "' cannot be looked up: File name too long", "choose a shorter path"),
        ("move", {"FAIL": f"unlinkat:{errno.EROFS}:1"}, "a", "{to}",
         "the content was copied to the destination, but the source could not be removed ('a'): Read-only file system",
         "remove the source by hand, and let the program write to its directory"),
        ("move", {"FAIL": f"fsync:{errno.EIO}:3"}, "a", "{to}",
         "the file is in place, but its directory '{dir}/' could not be flushed to the disk: Input/output error",
         "run `sync`, and " + MEDIUM),
        ("copy", {"RAISE": "sendfile:1:15", "FAIL": NO_RANGES}, "a", "{to}", "the program cancelled the copy of 'a'",
         "run this again, if the copy is wanted"),
        ("move --plain", {"FAIL": f"write:{errno.ENOSPC}"}, "a", "{to}",
         "the copy on the destination's file system could not be written: No space left on device",
         "free space on the file system of the destination, then run this again"),
        ("move --plain", {"SHORT": "write:2:100"}, "a", "{to}",
         "only 100 of 4096 bytes could be written to the destination's file system. It is full, or a limit was reached",
         "free space on the destination's file system, and move again"),
        ("move --plain", {}, "a", "{dir}/" + LONG,
         "the temporary file '{dir}/" + LONG + "_XXXXXX' could not be made beside the destination, because its name is too "
         "long", "choose a name of at most 248 bytes for the destination, because the temporary file has 7 bytes more"),
        ("move --plain", {"FAIL": f"unlink:{errno.EROFS}"}, "a", "{to}",
         "the content was copied to the destination, but 'a' could not be removed: Read-only file system",
         "remove 'a', and let the program write to its directory"),
        ("move --plain", {}, "a", "no/b", "'a' cannot be moved to 'no/b': No such file or directory",
         "check the spelling of 'no/b', and check that its directory exists"),
        ("move --plain", {"FAIL": f"read:{errno.EIO}"}, "a", "{to}", "cannot read 'a': Input/output error", MEDIUM),
    )  # fmt: skip

    def test_each_failure_has_its_reason_and_its_remedy(self):
        os.symlink("loop", self.path("loop"))
        for options, shim, source, to, reason, remedy in self.CASES:
            with self.subTest(options=options, reason=reason):
                self.write("a", b"x" * 20000)
                self.write(self.to, b"old")
                fill = functools.partial(str.format, to=self.to, dir=self.other)
                begin = f"cannot {options.split()[0]} '{source}' to '{fill(to)}'"
                if "unlink:" in shim.get("FAIL", ""):
                    begin = f"the content is at '{fill(to)}', and '{source}' is kept"

                _, out, err = self.run_tool(*options.split(), source, fill(to), shim=shim)

                said = re.sub(r"_\w{6}' could", "_XXXXXX' could", re.sub(r"(?m)^\[3\] .*\n", "", err))
                self.assertEqual((b"", problem(f"{begin}: {fill(reason)}", fill(remedy))), (out, said))


class SeveralFilesTest(TransferTest):
    def arrange_directory(self, *names):
        os.makedirs(self.path("from"), exist_ok=True)
        for name in names:
            self.write(f"from/{name}", name.encode())
        return [f"from/{name}" for name in names]

    def test_the_last_operand_can_be_a_directory(self):
        for command in ("copy", "move"):
            sources = self.arrange_directory("a", "b", "c")

            self.assert_done(command, *sources, self.other)

            self.assertEqual(["a", "b", "c"], self.names(self.other))
            self.assertEqual(["a", "b", "c"] if command == "copy" else [], self.names(self.path("from")))
            self.assertEqual(b"b", self.read(os.path.join(self.other, "b")))

    def test_one_file_goes_into_a_directory_too_and_into_one_that_a_link_leads_to(self):
        os.makedirs(self.path("d"))
        os.symlink("d", self.path("link"))
        for to in ("d", "d/", "link", "link/", self.path("d")):
            self.write("a", to.encode())

            self.assert_done("move", "a", to)

            self.assertEqual(to.encode(), self.read("d/a"))
        self.assertEqual(["d", "link"], self.names())

    def test_the_directory_can_be_named_first(self):
        for option in (["-t", self.other], ["--target-directory", self.other], [f"--target-directory={self.other}/"]):
            sources = self.arrange_directory("a", "b")

            self.assert_done("copy", *option, *sources)
            self.assert_done("move", *sources, *option)

            self.assertEqual((["a", "b"], []), (self.names(self.other), self.names(self.path("from"))))

    def test_the_path_in_a_message_has_one_slash(self):
        sources = self.arrange_directory("a")
        os.mkdir(self.path("d"))
        self.write("d/a", b"old")

        self.assert_fails(problem("'d/a' exists", "omit --no-replace to replace it, or choose another destination"),
                          *("copy", "-n", *sources, "d/"))  # fmt: skip

    def test_each_failure_names_its_file_and_the_others_go_on(self):
        self.arrange_directory("a", "b")
        os.mkdir(self.path("from/d"))

        self.assert_fails(
            missing("from/gone") + problem("'from/d' is a directory, not a regular file", "name a regular file"),
            *("move", "from/gone", "from/a", "from/d", "from/b", self.other))  # fmt: skip

        self.assertEqual((["d"], ["a", "b"]), (self.names(self.path("from")), self.names(self.other)))

    def test_a_file_that_was_written_just_before_is_not_replaced(self):
        for command in (["copy"], ["move"], ["move", "--plain"]):
            self.arrange_directory("a")
            self.write("a", b"other")
            self.write(os.path.join(self.other, "a"), b"old")
            to = os.path.join(self.other, "a")

            self.assert_fails(
                problem(f"'a' would replace '{to}', which was written just before",
                        "give the files different names, or move or copy them one by one"),
                *(*command, "from/a", "a", self.other))  # fmt: skip

            self.assertEqual((b"a", b"other"), (self.read(to), self.read("a")))

    def test_a_target_that_is_not_a_directory_is_refused_and_nothing_is_done(self):
        self.arrange_directory("a", "b")
        self.write("file", b"data")
        refused = problem("'file' is not a directory", "name the directory that the files go to")
        for command in ("copy", "move"):
            self.assert_fails(refused, command, "from/a", "from/b", "file")
            self.assert_fails(refused, command, "from/a", "-t", "file")
            self.assert_fails(missing("gone"), command, "from/a", "from/b", "gone")
            self.assert_fails(missing(""), command, "from/a", "-t", "")
        self.assertEqual((["a", "b"], b"data"), (self.names(self.path("from")), self.read("file")))


class SignalTest(TransferTest):
    SIZE = 5 << 20  # five steps

    def setUp(self):
        super().setUp()
        self.data = os.urandom(self.SIZE)

    def run_with_signal(self, number, at, *arguments, shim=None, **options):
        """The signals have their default action at first, whatever started the tests."""

        def reset():
            for each in (signal.SIGHUP, signal.SIGINT, signal.SIGTERM):
                signal.signal(each, signal.SIG_DFL)

        options = {"preexec_fn": reset, **options}
        return self.run_tool(*arguments, shim=self.traced(RAISE=f"{at}:{number}", **(shim or {"FAIL": NO_RANGES})),
                             **options)  # fmt: skip

    def test_a_copy_or_move_that_is_interrupted_changes_nothing_and_ends_by_the_signal(self):
        for command, function in (("copy", "CopyFile"), ("move", "MoveFile")):
            for number, at in ((signal.SIGHUP, "sendfile:3"), (signal.SIGINT, "sendfile:3"),
                               (signal.SIGTERM, "sendfile:3"), (signal.SIGTERM, "pread:300"),
                               (signal.SIGTERM, "fsync:2")):  # fmt: skip
                with self.subTest(command=command, number=number, at=at):
                    self.arrange(self.data)

                    status, out, err = self.run_with_signal(int(number), at, command, "a", self.to)

                    self.assertEqual((-number, b""), (status, out))
                    self.assertIn(safe(f"{function}: progress(a) failed ({errno.ECANCELED}, Operation canceled)."), err)
                    self.assert_nothing_changed(self.data)

    def test_a_file_that_is_in_place_is_moved_to_the_end(self):
        self.arrange(self.data)

        status, out, err = self.run_with_signal(15, "unlinkat:1", "move", "a", self.to)

        self.assertEqual((-15, b"", ""), (status, out, err))
        self.assertEqual(([], self.data), (self.names(), self.read(self.to)))

    def test_the_files_that_follow_are_not_begun(self):
        self.write("a", self.data)
        self.write("c", b"later")

        status, out, err = self.run_with_signal(15, "fsync:3", "copy", "a", "c", self.other)

        self.assertEqual((-15, b"", ""), (status, out, err))
        self.assertEqual(["a", "trace"], self.names(self.other))

    def test_signals_that_were_ignored_at_the_start_stay_ignored(self):
        self.arrange(self.data)
        ignored = {"preexec_fn": lambda: signal.signal(signal.SIGHUP, signal.SIG_IGN)}

        status, out, err = self.run_with_signal(1, "sendfile:3", "move", "a", self.to, **ignored)

        self.assertEqual((0, b"", "", self.data), (status, out, err, self.read(self.to)))
        self.arrange(self.data)
        status, _, err = self.run_with_signal(15, "sendfile:3", "move", "a", self.to, **ignored)
        self.assertEqual(-15, status)
        self.assertIn("progress(a)", err)  # the others are caught
        self.assert_nothing_changed(self.data)

    def test_a_plain_move_is_finished_first(self):
        self.arrange(self.data)

        status, out, err = self.run_with_signal(15, "write:300", "move", "--plain", "a", self.to, shim={"FAIL": ""})

        self.assertEqual((-15, b"", ""), (status, out, err))
        self.assertEqual(([], self.data), (self.names(), self.read(self.to)))
        self.assertEqual(["b", "trace"], self.names(self.other))

    def closed_pipe(self):
        ours, theirs = os.pipe()
        os.close(ours)
        self.addCleanup(os.close, theirs)
        return theirs

    def test_a_closed_standard_error_does_not_end_a_move_half_way(self):
        default = {"preexec_fn": lambda: signal.signal(signal.SIGPIPE, signal.SIG_DFL)}
        self.write("a", b"data")

        self.assertEqual((1, b"", ""), self.run_tool("move", "gone", "a", self.other, stderr=self.closed_pipe(), **default))
        self.assertEqual((1, b"", ""), self.run_tool("move", "no/such", self.to, stderr=self.closed_pipe(), **default))

        self.assertEqual(([], ["a"]), (self.names(), self.names(self.other)))

    def test_a_closed_standard_output_ends_the_tool_as_it_ends_others(self):
        def act(action):
            return {"preexec_fn": lambda: signal.signal(signal.SIGPIPE, action), "stdout": self.closed_pipe()}

        self.assertEqual((-signal.SIGPIPE, None, ""), self.run_tool("row", "a", **act(signal.SIG_DFL)))
        self.assertEqual(
            (1, None, problem("cannot write to standard output: Broken pipe",
                              "redirect it to a file, pipe or terminal that accepts the result")),
            self.run_tool("row", "a", **act(signal.SIG_IGN)))  # fmt: skip

    def test_a_signal_that_is_blocked_gives_the_status_of_shells(self):
        def block():
            signal.signal(signal.SIGPIPE, signal.SIG_DFL)
            signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGPIPE])

        self.assertEqual((128 + signal.SIGPIPE, None, ""),
                         self.run_tool("row", "a", stdout=self.closed_pipe(), preexec_fn=block))  # fmt: skip


class ProgressTest(TransferTest):
    def show(self, *arguments, size=17 << 20, status=0, rests=False, **options):
        """What a terminal gets. A program that `rests` stops itself once, and goes on after a while."""
        with open(self.path("a"), "wb") as file:
            file.truncate(size)
        ours, theirs = pty.openpty()
        process = self.start(*arguments, "a", self.to, stderr=theirs, **options)
        os.close(theirs)
        if rests:
            self.assertEqual(os.CLD_STOPPED, os.waitid(os.P_PID, process.pid, os.WSTOPPED).si_code)
            time.sleep(0.25)
            process.send_signal(signal.SIGCONT)
        shown = b""
        try:
            while block := os.read(ours, 4096):
                shown += block
        except OSError:  # the other end of the terminal is closed
            pass
        os.close(ours)
        self.assertEqual((status, b"", ""), self.finish(process))
        return shown.decode()

    def test_progress_of_long_work_is_shown_on_a_terminal_and_removed(self):
        for command, verb in (("copy", "copying"), ("move", "moving")):
            shown = self.show(command)

            self.assertRegex(shown, rf"^\r\x1b\[K{verb}: \d+ %(\r\x1b\[K{verb}: \d+ %)*\r\x1b\[K$")

    def test_progress_is_not_shown_for_short_work_with_quiet_or_syslog_or_for_a_plain_move(self):
        self.assertEqual("", self.show("copy", size=1 << 20))
        self.assertEqual("", self.show("copy", "--quiet"))
        self.assertEqual("", self.show("move", "--plain"))
        self.assertEqual("", self.show("copy", "--syslog"))

    def test_progress_is_shown_on_a_terminal_only(self):
        with open(self.path("a"), "wb") as file:
            file.truncate(17 << 20)

        self.assert_done("copy", "a", self.to)

    def test_progress_is_not_shown_at_each_step(self):
        self.assertLess(self.show("copy").count("copying"), 1000)  # of more than 4000 blocks that are compared

    def test_progress_is_shown_again_after_a_fifth_of_a_second(self):
        shim = {"FAIL": NO_RANGES, "RAISE": f"sendfile:10:{int(signal.SIGSTOP)}"}
        shown = self.show("copy", "--no-verify", rests=True, shim=shim)

        self.assertIn("\r\x1b[Kcopying: 58 %", shown)  # 10 of 17 MiB

    def test_progress_begins_at_16_mebibytes_and_counts_percent(self):
        mebibyte = 1 << 20  # the first step
        for size, first in ((16 * mebibyte - 1, None), (16 * mebibyte, 6), (int(16.6 * mebibyte), 6),
                            (int(16.7 * mebibyte), 5)):  # fmt: skip
            shown = self.show("copy", "--no-verify", size=size, shim={"FAIL": NO_RANGES})

            self.assertEqual(f"\r\x1b[Kcopying: {first} %" if first else "", shown[: len("\r\x1b[Kcopying: 6 %")])

    def test_progress_never_shares_a_line_with_a_message(self):
        shown = self.show("copy", status=1, shim={"FLIP": "2"})

        lines = shown.replace("\r\n", "\n").split("\n")
        self.assertEqual(4, len(lines), shown)
        self.assertRegex(lines[0], r"^\r\x1b\[Kcopying: \d+ %.*\r\x1b\[K\[3\] orv_safe: CopyFile: what was written for ")
        self.assertRegex(lines[1], r"^orvfile: cannot copy ")
        self.assertEqual("", lines[3])

    def test_a_terminal_that_is_gone_does_not_fail_the_work(self):
        with open(self.path("a"), "wb") as file:
            file.truncate(17 << 20)
        ours, theirs = pty.openpty()
        process = self.start("copy", "a", self.to, stderr=theirs)
        os.close(theirs)
        os.close(ours)

        self.assertEqual((0, b"", ""), self.finish(process))
        self.assertEqual(17 << 20, os.stat(self.to).st_size)


if __name__ == "__main__":
    tool.main()
