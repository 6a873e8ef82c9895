#!/usr/bin/env python3
"""orvfile exists, move and copy."""

import errno
import os
import pty
import re

from oracle import LINES, logged
from pages import without_capabilities
import tool
from tool import ToolTest, limited_to, problem


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


class MoveTest(ToolTest):
    def test_within_a_file_system_the_file_itself_moves(self):
        self.write("a", b"data", 0o4750)
        self.write("b", b"old")
        inode = os.stat(self.path("a")).st_ino

        self.assert_done("move", "a", "b")

        self.assertEqual(["b"], self.names())
        self.assertEqual((inode, 0o104750), (os.stat(self.path("b")).st_ino, os.stat(self.path("b")).st_mode))

    def test_to_another_file_system_bytes_and_permissions_arrive(self):
        for options in ([], ["-n"], ["--durable"], ["--durable", "--no-replace"]):
            with self.subTest(options=options):
                data = os.urandom(70000)
                self.write("a", data, 0o640)
                to = os.path.join(self.other, "-".join(["b", *options]))

                self.assert_done("move", *options, "a", to)

                self.assertEqual([], self.names())
                self.assertEqual(data, self.read(to))
                self.assertEqual(0o100640, os.stat(to).st_mode)
        self.assertEqual(["b", "b---durable", "b---durable---no-replace", "b--n"], self.names(self.other))

    def test_an_existing_destination_stays_when_it_may_not_be_replaced(self):
        os.symlink("gone", self.path("link"))
        for options in (["-n"], ["-n", "--durable"]):
            for to in ("b", os.path.join(self.other, "b"), "link"):
                with self.subTest(options=options, to=to):
                    self.write("a", b"new")
                    if to != "link":
                        self.write(to, b"old")

                    self.assert_fails(
                        problem(f"'{to}' exists",
                                "omit --no-replace to replace it, or choose another destination"),
                        *("move", *options, "a", to))  # fmt: skip

                    self.assertEqual(b"new", self.read("a"))
                    self.assertEqual("gone" if to == "link" else b"old",
                                     os.readlink(self.path(to)) if to == "link" else self.read(to))  # fmt: skip
        self.assertEqual(["a", "b", "link"], self.names())
        self.assertEqual(["b"], self.names(self.other))

    def test_no_replace_works_without_the_newer_system_call(self):
        self.write("a", b"data")

        self.assert_done("move", "-n", "a", "b", shim={"FAIL": f"renameat2:{errno.EINVAL}", "TRACE": self.path("t")})

        self.assertEqual(b"data", self.read("b"))
        self.assertEqual(["renameat2 a b", "link a b", "unlink a"], self.read("t").decode().splitlines())

    def test_a_destination_that_appears_at_the_last_moment_stays(self):
        for call in (["FAIL", f"renameat2:{errno.EEXIST}"],):
            for to in ("b", os.path.join(self.other, "b")):
                self.write("a", b"data")

                self.assert_fails(
                    problem(f"'{to}' exists", "omit --no-replace to replace it, or choose another destination"),
                    *("move", "-n", "a", to), shim=dict([call]))  # fmt: skip

                self.assertEqual(["a"], self.names())
                self.assertEqual([], self.names(self.other))

    def test_the_durable_move_flushes_before_it_removes(self):
        self.write("a", b"data", 0o600)
        self.write("b", b"old")

        self.assert_done("move", "--durable", "a", self.path("b"), shim={"TRACE": os.path.join(self.other, "t")})

        steps = re.sub(r"b_\w{6}", "STAGED", self.read(os.path.join(self.other, "t")).decode())
        self.assertEqual(
            [f"fsync {self.dir}/STAGED", f"rename {self.dir}/STAGED {self.dir}/b", f"fsync {self.dir}", "unlink a"],
            steps.splitlines())  # fmt: skip
        self.assertEqual(["b"], self.names())
        self.assertEqual((b"data", 0o100600), (self.read("b"), os.stat(self.path("b")).st_mode))

    def test_a_durable_move_that_fails_changes_nothing(self):
        for call, message, remedy, library in (
            ("fsync", "cannot flush 'b_??????' to the disk: Input/output error",
             "see the lines above, and check the kernel's log (dmesg) for errors of the medium", ""),
            ("chmod", "cannot set the mode of 'b_??????': Input/output error",
             "see the lines above, and check the kernel's log (dmesg) for errors of the medium", ""),
            ("rename", "cannot move 'a' to 'b': Input/output error",
             "see the lines above, and check the kernel's log (dmesg) for errors of the medium; 'a' is unchanged",
             logged(LINES.RenameRename("b_??????", "b", 5))),
        ):  # fmt: skip
            with self.subTest(call=call):
                self.write("a", b"new")
                self.write("b", b"old")

                status, out, err = self.run_tool("move", "--durable", "a", "b", shim={"FAIL": f"{call}:{errno.EIO}"})

                self.assertEqual((1, b""), (status, out))
                self.assertEqual(library + problem(message, remedy), re.sub(r"b_\w{6}", "b_??????", err))
                self.assertEqual((["a", "b"], b"new", b"old"), (self.names(), self.read("a"), self.read("b")))

    def test_a_full_disk_loses_nothing(self):
        for options, message in (
            ([], logged(LINES.RenameWrite(4096, -1, 27))
             + problem("cannot move 'a' to '{0}': File too large",
                       "see the lines above, and check the kernel's log (dmesg) for errors of the medium; 'a' is unchanged")),
            (["--durable"],
             problem("'{0}_??????' differs from 'a' from byte 8192 on",
                     "keep 'a'; check that nobody writes to it, and that the file system of '{0}_??????' has free space "
                     "(df) and no errors (dmesg); then run this again")),
        ):  # fmt: skip
            with self.subTest(options=options):
                self.write("a", b"x" * 20000)
                to = self.write(os.path.join(self.other, "b"), b"old")

                status, out, err = self.run_tool("move", *options, "a", to, preexec_fn=limited_to(8192))

                self.assertEqual((1, b""), (status, out))
                self.assertEqual(message.format(to), re.sub(r"b_\w{6}", "b_??????", err))
                self.assertEqual((["a"], ["b"]), (self.names(), self.names(self.other)))
                self.assertEqual((b"x" * 20000, b"old"), (self.read("a"), self.read(to)))

    def test_one_file_under_two_names_is_refused_and_stays(self):
        self.write("a", b"data")
        os.link(self.path("a"), self.path("hard"))
        for options in ([], ["-n"], ["--durable"]):
            for to in ("a", "./a", self.path("a"), "hard"):
                with self.subTest(options=options, to=to):
                    self.assert_fails(
                        problem(f"'a' and '{to}' are the same file", "nothing was changed; choose another destination"),
                        *("move", *options, "a", to))  # fmt: skip
        self.assertEqual((["a", "hard"], b"data"), (self.names(), self.read("a")))

    def test_a_link_is_replaced_and_its_target_stays(self):
        for options in ([], ["--durable"]):
            self.write("a", b"new")
            self.write("target", b"old")
            os.symlink("target", self.path("link"))

            self.assert_done("move", *options, "a", "link")

            self.assertEqual((b"new", b"old"), (self.read("link"), self.read("target")))
            os.unlink(self.path("link"))

    def test_a_directory_as_destination_is_refused_with_the_path_to_name(self):
        self.write("a", b"data")
        os.mkdir(self.path("d"))
        for options in ([], ["-n"], ["--durable"]):
            self.assert_fails(
                problem("'d' is a directory", "name the new file too, such as 'd/a'"),
                *("move", *options, self.path("a"), "d"))  # fmt: skip
        self.assertEqual([], self.names(self.path("d")))

    def test_a_source_that_is_not_a_regular_file_is_reported(self):
        os.mkdir(self.path("d"))
        for options in ([], ["-n"], ["--durable"]):
            self.assert_fails(
                problem("'gone': No such file or directory",
                        "check the spelling of 'gone', and check that its directory exists"),
                *("move", *options, "gone", "b"))  # fmt: skip
            self.assert_fails(
                problem("'d' is a directory, not a regular file", "name a regular file"), "move", *options, "d", "b")
        self.assertEqual(["d"], self.names())

    def test_a_missing_directory_of_the_destination_is_reported(self):
        self.write("a", b"data")
        hint = "check the spelling of 'no/b', and check that its directory exists"

        self.assert_fails(
            logged(LINES.RenameRename("a", "no/b", 2))
            + problem("cannot move 'a' to 'no/b': No such file or directory", hint + "; 'a' is unchanged"),
            *("move", "a", "no/b"))  # fmt: skip
        self.assert_fails(
            problem("cannot move 'a' to 'no/b': No such file or directory", hint + "; 'a' is unchanged"),
            *("move", "-n", "a", "no/b"))  # fmt: skip
        self.assert_fails(
            problem("cannot create a file beside 'no/b': No such file or directory", hint),
            *("move", "--durable", "a", "no/b"))  # fmt: skip
        self.assertEqual(["a"], self.names())

    def test_a_source_that_cannot_be_removed_is_reported(self):
        self.write("a", b"data")
        to = os.path.join(self.other, "b")
        line = logged(LINES.RenameUnlink("a", 30))
        left = f"the content is at '{to}', but 'a' "
        for options, err in (
            ([], line + problem(left + "was not removed", "remove 'a' yourself")),
            (["--durable"], problem(left + "cannot be removed: Read-only file system", "remove 'a' yourself")),
        ):
            self.assert_fails(err, "move", *options, "a", to, shim={"FAIL": f"unlink:{errno.EROFS}"})

            self.assertEqual((b"data", b"data"), (self.read("a"), self.read(to)))


class CopyTest(ToolTest):
    def test_bytes_arrive_and_the_source_stays(self):
        for data in (b"", b"\0\n\xff", os.urandom(200000)):
            self.write("a", data, 0o600)
            self.write("b", b"longer than some of them" * 10, 0o640)

            self.assert_done("copy", "a", "b")

            self.assertEqual((data, data), (self.read("a"), self.read("b")))
            self.assertEqual(0o100640, os.stat(self.path("b")).st_mode)

    def test_bytes_that_did_not_arrive_are_a_failure(self):
        self.write("a", b"x" * 20000)

        self.assert_fails(
            problem("'b' differs from 'a' from byte 8192 on",
                    "keep 'a'; check that nobody writes to it, and that the file system of 'b' has free space (df) and "
                    "no errors (dmesg); then run this again"),
            *("copy", "a", "b"), preexec_fn=limited_to(8192))  # fmt: skip
        self.assertEqual(b"x" * 20000, self.read("a"))

    def test_bytes_are_not_compared_on_request(self):
        self.write("a", b"x" * 20000)

        self.assert_done("copy", "--no-verify", "a", "b", preexec_fn=limited_to(8192))

        self.assertEqual(b"x" * 8192, self.read("b"))

    def test_one_file_under_two_names_is_refused_and_stays(self):
        self.write("a", b"data")
        os.link(self.path("a"), self.path("hard"))
        os.symlink("a", self.path("soft"))
        for to in ("a", "./a", "hard", "soft"):
            self.assert_fails(
                problem(f"'a' and '{to}' are the same file", "nothing was changed; choose another destination"),
                *("copy", "a", to))  # fmt: skip
        self.assertEqual(b"data", self.read("a"))

    def test_bad_paths_are_reported_and_nothing_is_written(self):
        self.write("a", b"data")
        self.write("secret", b"data", 0o000)
        os.mkdir(self.path("d"))
        dropped = {"preexec_fn": without_capabilities(1, 2)}  # CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH
        access = "get access to '{0}' and the directories above it, or run as a user who has access"
        spelling = "check the spelling of '{0}', and check that its directory exists"
        for source, to, message, remedy, options in (
            ("gone", "b", "'gone': No such file or directory", spelling.format("gone"), {}),
            ("d", "b", "'d' is a directory, not a regular file", "name a regular file", {}),
            ("a", "d", "'d' is a directory", "name the new file too, such as 'd/a'", {}),
            ("a", "no/b", "cannot write 'no/b': No such file or directory", spelling.format("no/b"), {}),
            ("secret", "b", "cannot read 'secret': Permission denied", access.format("secret"), dropped),
            ("a", "secret", "cannot write 'secret': Permission denied", access.format("secret"), dropped),
        ):
            with self.subTest(source=source, to=to):
                self.assert_fails(problem(message, remedy), "copy", source, to, **options)
        os.chmod(self.path("secret"), 0o600)
        self.assertEqual((["a", "d", "secret"], b"data"), (self.names(), self.read("secret")))

    def show(self, *options, size):
        with open(self.path("a"), "wb") as file:
            file.truncate(size)
        ours, theirs = pty.openpty()
        process = self.start("copy", *options, "a", "b", stderr=theirs)
        os.close(theirs)
        shown = b""
        try:
            while block := os.read(ours, 4096):
                shown += block
        except OSError:  # the other end of the terminal is closed
            pass
        os.close(ours)
        self.assertEqual((0, b"", ""), self.finish(process))
        return shown.decode()

    def test_progress_of_long_work_is_shown_on_a_terminal(self):
        shown = self.show(size=17 << 20)

        self.assertRegex(shown, r"^\rcopying: \d+ of 17 MiB \(\d+ %\)")
        self.assertRegex(shown, r"\rcomparing: \d+ of 34 MiB \(\d+ %\)")
        self.assertTrue(shown.endswith("\r\x1b[K"), shown)

    def test_progress_is_not_shown_for_short_work_or_with_quiet(self):
        self.assertEqual("", self.show(size=1 << 20))
        self.assertEqual("", self.show("--quiet", size=17 << 20))


if __name__ == "__main__":
    tool.main()
