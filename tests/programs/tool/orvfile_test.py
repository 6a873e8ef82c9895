#!/usr/bin/env python3
"""Runs tools/orvfile as its users do: every command, option and failure.

Usage: orvfile_test.py SHIM [EMULATOR...] PROGRAM     SHIM: the library of shim.cpp, for the program's machine
Ends with 77 when a test was skipped, which fails where ORV_NO_SKIP is set.
"""

import errno
import functools
import json
import os
import pty
import re
import resource
import shutil
import signal
import stat
import subprocess
import sys
import tempfile
import time
import unittest

import orv_test
from oracle import LINES, PAGE_FOOTER, PAGE_HEADER, logged, temporary_page
from pages import HOSTILE_NAMES, Page, text, without_capabilities

SHIM = []
PROGRAM = []
PATIENCE_SECONDS = 60  # after this, a wait has failed
COMMANDS = ["exists", "move", "copy", "mkdir", "list", "row", "page", "get"]
COMPLETION = os.path.join(orv_test.ROOT, "tools", "orvfile.bash")


def problem(message, remedy):
    return f"orvfile: {message}\n  Next: {remedy}\n"


def limited_to(size):
    """For a child whose files may not grow beyond `size`: its writes then fail, as on a full disk."""

    def limit():
        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
        resource.setrlimit(resource.RLIMIT_FSIZE, (size, size))

    return limit


class OrvfileTest(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.dir = self.make_dir("/var/tmp")

    @functools.cached_property
    def other(self):
        """A directory on another file system; skips the test where there is none."""
        base = orv_test.other_file_system()
        if not base:
            self.skipTest("no file system besides that of /var/tmp is writable")
        return self.make_dir(base)

    def make_dir(self, base):
        path = tempfile.mkdtemp(prefix="orv_test.", dir=base)
        os.chmod(path, 0o755)
        self.addCleanup(shutil.rmtree, path)
        return path

    def path(self, name):
        return os.path.join(self.dir, name)

    def write(self, path, data=b"", mode=0o644):
        path = os.path.join(self.dir, path)
        with open(path, "wb") as file:
            file.write(data)
        os.chmod(path, mode)
        return path

    def read(self, path):
        with open(os.path.join(self.dir, path), "rb") as file:
            return file.read()

    def names(self, directory=None):
        return sorted(os.listdir(directory or self.dir))

    def command(self, arguments, shim):
        """The command line and environment."""
        settings = {f"ORV_SHIM_{name}": value for name, value in shim.items()}
        program, environment = orv_test.preloaded(PROGRAM, SHIM[0], **settings) if shim else (PROGRAM, {**os.environ})
        environment["LC_ALL"] = "C"
        return [*program, *arguments], environment

    def start(self, *arguments, shim=None, **options):
        command, environment = self.command(arguments, shim or {})
        options = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "cwd": self.dir,
                   "env": environment, "restore_signals": False, **options}  # fmt: skip
        try:
            return subprocess.Popen(command, **options)
        except subprocess.SubprocessError:  # from without_capabilities
            self.skipTest("this root may not give up its capabilities")

    def finish(self, process, data=None):
        try:
            out, err = process.communicate(data, timeout=PATIENCE_SECONDS)
        finally:
            process.kill()
        leftover = temporary_page(process.pid)
        self.assertFalse(os.path.lexists(leftover), leftover)
        return process.returncode, out, text(err or b"")

    def run_tool(self, *arguments, data=None, **options):
        if data is not None:
            options["stdin"] = subprocess.PIPE
        return self.finish(self.start(*arguments, **options), data)

    def assert_done(self, *arguments, out=b"", err="", **options):
        self.assertEqual((0, out, err), self.run_tool(*arguments, **options))

    def assert_fails(self, err, *arguments, out=b"", **options):
        self.assertEqual((1, out, err), self.run_tool(*arguments, **options))

    def wait_for(self, condition, process):
        deadline = time.monotonic() + PATIENCE_SECONDS
        while not condition():
            self.assertIsNone(process.poll(), "the program ended")
            self.assertLess(time.monotonic(), deadline, "the condition did not become true in time")
            time.sleep(0.02)


class UsageTest(OrvfileTest):
    def test_wrong_use_names_the_argument_writes_nothing_and_ends_with_2(self):
        self.write("a", b"data")
        top = "use one of exists, move, copy, mkdir, list, row, page, get; see orvfile --help"
        cases = [
            ([], "A subcommand is required", top),
            (["bogus"], "unknown command or option 'bogus'", top),
            (["--bogus"], "unknown command or option '--bogus'", top),
            (["\x1b[31m\nred"], "unknown command or option '\\x1b[31m\\nred'", top),
            (["exists"], "PATH is required", "exists"),
            (["move"], "SOURCE is required", "move"),
            (["move", "a"], "DESTINATION is required", "move"),
            (["move", "a", "b", "c"], "The following argument was not expected: c", "move"),
            (["move", "--bogus", "a", "b"], "The following argument was not expected: --bogus", "move"),
            (["copy", "a"], "DESTINATION is required", "copy"),
            (["mkdir"], "PATH is required", "mkdir"),
            *((["mkdir", "-m", mode, self.path("d")],
               f"--mode: '{mode}' is not an octal mode (one to four digits, such as 755)", "mkdir")
              for mode in ("8", "u+x", "00755", "-1", "0x1")),
            (["list"], "DIRECTORY is required", "list"),
            (["list", ".", "--include"], "--include: 1 required PATTERN missing", "list"),
            (["list", ".", "-0", "--json"], "--null excludes --json", "list"),
            (["row"], "CELL, --csv or --tsv is required", "row"),
            (["row", "--csv", "--tsv"], "--csv excludes --tsv", "row"),
            (["row", "--csv", "a"], "CELL excludes --csv", "row"),
            (["page", "a"], "PAGE is required", "page"),
            (["get"], "FILE is required", "get"),
            (["get", "a", "--lint", "name"], "NAME excludes --lint", "get"),
            (["get", "a", "--lint", "--json"], "--json excludes --lint", "get"),
            *((["get", "a", "--delimiter", delimiter],
               f"--delimiter: '{shown}' is not allowed; give one byte that is not a line feed", "get")
              for delimiter, shown in (("ab", "ab"), ("\n", "\\n"), ("\u00e9", "\u00e9"))),
        ]  # fmt: skip
        for arguments, message, command in cases:
            with self.subTest(arguments=arguments):
                remedy = command if command == top else f"see orvfile {command} --help"

                status, out, err = self.run_tool(*arguments)

                self.assertEqual((2, b""), (status, out))
                self.assertIn(err, [problem(message, remedy), problem(re.sub("(.*) excludes (.*)", r"\2 excludes \1",
                                                                             message), remedy)])  # fmt: skip
        self.assertEqual(["a"], self.names())
        self.assertEqual(b"data", self.read("a"))

    def test_version_and_help_go_to_standard_output(self):
        self.assert_done("--version", out=f"orvfile {orv_test.VERSION}\n".encode())
        for arguments in ([], *([command] for command in COMMANDS)):
            status, out, err = self.run_tool(*arguments, "--help")

            self.assertEqual((0, ""), (status, err))
            self.assertIn("Usage: orvfile " + "".join(arguments), out.decode())
            self.assertIn(b"Exit status: 0 success, 1 the operation failed, 2 wrong usage.", out)

    def test_a_full_standard_output_is_a_failure(self):
        self.write("f", b"a=1\n")
        for arguments in (["row", "a"], ["list", "."], ["get", "f"]):
            with self.subTest(arguments=arguments), open("/dev/full", "wb") as full:
                self.assertEqual(
                    (1, None, problem("cannot write to standard output: No space left on device",
                                      "redirect it to a file, pipe or terminal that accepts the result")),
                    self.run_tool(*arguments, stdout=full))  # fmt: skip

    def test_paths_that_look_like_options_commands_and_lists_are_taken_whole(self):
        for name in ("-n", "--help", "move", "[a,b]", "[]", "{}", "[", "a\nb", " ", "caf\u00e9"):
            with self.subTest(name=name):
                self.write(name, b"data")
                self.assert_done("exists", "--", name)
                self.assert_done("copy", "--", name, "copied " + name)
                self.assert_done("move", "--", "copied " + name, "moved")
                self.assertEqual(b"data", self.read("moved"))
        self.assert_done("mkdir", "--", *(f"{self.dir}/d/[{i},x]" for i in range(3)))
        self.assertEqual(["[0,x]", "[1,x]", "[2,x]"], self.names(self.path("d")))

    def test_completion_offers_what_help_names(self):
        for command in ["", *COMMANDS]:
            with self.subTest(command=command):
                _, out, _ = self.run_tool(*filter(None, [command]), "--help")
                options = re.search(r"\nOptions:\n((?:  .*\n)+)", out.decode())[1]
                named = {name for line in re.findall(r"(?m)^  (-\S+)", options) for name in line.split(",")}
                named |= {"-h", "--help", "--version", "-q", "--quiet"}

                self.assertEqual(named, set(self.complete(*filter(None, [command]), "-")))
        self.assertEqual(COMMANDS, self.complete(""))
        self.assertEqual(["move", "mkdir"], self.complete("m"))

    def test_completion_offers_files_and_directories(self):
        self.write("a file")
        os.mkdir(self.path("a directory"))

        self.assertEqual(["a directory", "a file"], sorted(self.complete("-q", "move", "a")))
        self.assertEqual(["a directory"], self.complete("mkdir", "a"))
        self.assertEqual(["a directory"], self.complete("list", "a"))
        self.assertEqual([], self.complete("row", "a"))

    def complete(self, *words):
        script = 'source "$1"; shift; COMP_WORDS=(orvfile "$@"); COMP_CWORD=$#; _orvfile; printf "%s\\n" "${COMPREPLY[@]}"'
        run = subprocess.run(["bash", "-c", script, "bash", COMPLETION, *words], cwd=self.dir, stdout=subprocess.PIPE,
                             check=True, text=True)  # fmt: skip
        return [line for line in run.stdout.splitlines() if line]


class ExistsTest(OrvfileTest):
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


class MoveTest(OrvfileTest):
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


class CopyTest(OrvfileTest):
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


class MkdirTest(OrvfileTest):
    def mode(self, path):
        return stat.S_IMODE(os.stat(self.path(path)).st_mode)

    def test_missing_parents_are_made_with_the_mode_less_the_mask(self):
        self.assert_done("mkdir", self.path("a/b"), self.path("c/"), umask=0o027)
        self.assert_done("mkdir", "-m", "711", self.path("d/e"), umask=0o001)

        self.assertEqual([0o750] * 3, [self.mode(path) for path in ("a", "a/b", "c")])
        self.assertEqual([0o710] * 2, [self.mode(path) for path in ("d", "d/e")])

    def test_an_exact_mode_goes_past_the_mask_and_to_existing_directories(self):
        os.mkdir(self.path("old"), 0o700)

        self.assert_done("mkdir", "--exact-mode", "--mode", "1777", self.path("old"), self.path("a/b"), umask=0o022)

        self.assertEqual([0o1777, 0o1755, 0o1777], [self.mode(path) for path in ("old", "a", "a/b")])

    def test_an_exact_mode_that_cannot_be_set_is_a_failure(self):
        path = self.path("a")
        os.mkdir(path, 0o700)

        self.assert_fails(
            logged(LINES.MakeChmod(path, 1))
            + problem(f"cannot set the requested mode of '{path}'",
                      "set it with chmod(1), as the owner of the directory or as root"),
            *("mkdir", "--exact-mode", "-m", "755", path), shim={"FAIL": f"chmod:{errno.EPERM}"})  # fmt: skip
        self.assertEqual(0o700, self.mode("a"))

    def test_directories_below_the_root_and_here_are_refused_with_the_reason(self):
        why = "; the library never makes directories there, so that a wrong path does no harm"
        for path, parent, name, more in (
            ("new", ".", "the current directory", ", or give the absolute path"),
            ("new/a/b", ".", "the current directory", ", or give the absolute path"),
            ("./new", ".", "the current directory", ", or give the absolute path"),
            ("/orv_test_new", "/", "the root directory", ""),
            ("/orv_test_new/a", "/", "the root directory", ""),
        ):
            with self.subTest(path=path):
                self.assert_fails(
                    problem(f"cannot make '{path}': its topmost missing directory would be directly below '{parent}', "
                            + name, "make that directory with mkdir(1) first" + more + why),
                    *("mkdir", path))  # fmt: skip
        self.assertEqual([], self.names())
        self.assertFalse(os.path.lexists("/orv_test_new"))
        os.mkdir(self.path("new"))
        self.assert_done("mkdir", "new", "new/a/b", ".", "/")
        self.assertEqual(["b"], self.names(self.path("new/a")))

    def test_a_file_in_place_of_a_directory_is_reported_and_keeps_its_mode(self):
        self.write("file", b"data", 0o600)
        exists = problem("'file' exists and is not a directory", "remove it, or choose another path")
        below = problem("cannot make 'file/a': Not a directory",
                        "a component of 'file/a' is not a directory: correct the path")  # fmt: skip

        self.assert_fails(exists, "mkdir", "--exact-mode", "-m", "777", "file")
        self.assert_fails(
            logged(LINES.WorkerMkdir("file/a", "Not a directory"), LINES.MakeFailed("file/a")) + below,
            *("mkdir", "file/a"))  # fmt: skip
        self.assertEqual((0o600, b"data"), (self.mode("file"), self.read("file")))

    def test_a_path_that_is_too_long_or_empty_is_reported(self):
        longest = self.dir + "/" + "d" * 100
        longest += "/." * ((1024 - len(longest)) // 2)
        longest += "/" * (1024 - len(longest))

        self.assert_done("mkdir", longest)
        self.assert_fails(
            problem(f"a path of 1025 bytes is too long: '{longest[:40]}'...",
                    "use at most 1024 bytes, or a relative path"),
            *("mkdir", longest + "/"))  # fmt: skip
        self.assert_fails(problem("the path is empty", "give the path of a directory"), "mkdir", "")

    def test_a_bad_path_does_not_keep_others_from_being_made(self):
        self.assert_fails(problem("the path is empty", "give the path of a directory"), "mkdir", self.path("a"), "", self.path("b"))

        self.assertEqual(["a", "b"], self.names())


class ListTest(OrvfileTest):
    def setUp(self):
        super().setUp()
        for name in ("b.txt", "B.txt", "a.log", ".hidden"):
            self.write(name)
        os.mkdir(self.path("directory"))
        os.symlink("b.txt", self.path("link"))

    def test_regular_files_are_listed_by_byte_value(self):
        self.assert_done("list", ".", out=b".hidden\nB.txt\na.log\nb.txt\n")
        self.assert_done("list", "directory")

    def test_names_are_chosen_by_patterns(self):
        self.assert_done("list", ".", "--include", "*.txt", out=b"B.txt\nb.txt\n")
        self.assert_done("list", ".", "--exclude", "?.txt", out=b".hidden\na.log\n")
        self.assert_done("list", ".", "--include=[b].txt")  # no brackets in these patterns
        self.assert_done("list", ".", "--include", "?.*", "--exclude", "B*", out=b"a.log\nb.txt\n")

    def test_the_path_comes_before_names_on_request(self):
        self.assert_done("list", self.dir, "--full-path", "--include", "a*", out=f"{self.dir}/a.log\n".encode())
        self.assert_done("list", "./", "--full-path", "--include", "a*", out=b"./a.log\n")

    def test_names_end_with_nul_or_are_json(self):
        self.assert_done("list", ".", "-0", out=b".hidden\0B.txt\0a.log\0b.txt\0")
        self.assert_done("list", ".", "--json", out=b'[".hidden","B.txt","a.log","b.txt"]\n')
        self.assert_done("list", "directory", "--json", out=b"[]\n")

    def test_a_line_feed_in_a_name_causes_a_warning_where_it_matters(self):
        self.write("directory/a\nb")
        warning = problem("warning: a name contains a line feed, so the list is ambiguous", "use -0 or --json")

        self.assert_done("list", "directory", out=b"a\nb\n", err=warning)
        self.assert_done("list", "directory", "-q", out=b"a\nb\n")
        self.assert_done("list", "directory", "-0", out=b"a\nb\0")
        self.assert_done("list", "directory", "--json", out=b'["a\\nb"]\n')

    def test_bytes_that_json_cannot_hold_cause_a_warning(self):
        self.write(os.path.join(os.fsencode(self.dir), b"directory/\xff\xc3\xa9").decode("utf-8", "surrogateescape"))

        self.assert_done(
            *("list", "directory", "--json"), out='["\ufffd\u00e9"]\n'.encode(),
            err=problem("warning: the result contains bytes that are not UTF-8; JSON shows U+FFFD instead",
                        "omit --json to see them unchanged"))  # fmt: skip
        self.assert_done("list", "directory", out=b"\xff\xc3\xa9\n")

    def test_a_file_system_that_does_not_record_types_causes_a_warning(self):
        warning = problem(
            "warning: the file system of '.' does not record entry types: 6 entries were ignored, so the list may be "
            "incomplete", "use ls(1) or find(1) on this file system")  # fmt: skip

        self.assert_done("list", ".", err=warning, shim={"UNTYPED": "1"})
        self.assert_done("list", ".", "--json", out=b"[]\n", err=warning, shim={"UNTYPED": "1"})
        self.assert_done("list", ".", "--quiet", shim={"UNTYPED": "1"})
        self.assert_done("list", ".", out=b".hidden\nB.txt\na.log\nb.txt\n", shim={"TRACE": "/dev/null"})

    def test_a_bad_directory_is_reported(self):
        self.assert_fails(
            logged(LINES.ListOpen("gone", 2))
            + problem("cannot list 'gone': No such file or directory",
                      "check the spelling of 'gone', and check that its directory exists"),
            *("list", "gone"))  # fmt: skip
        self.assert_fails(
            logged(LINES.ListOpen("a.log", 20))
            + problem("cannot list 'a.log': Not a directory",
                      "a component of 'a.log' is not a directory: correct the path"),
            *("list", "a.log"))  # fmt: skip
        self.assert_fails(
            logged(LINES.ListNoDirectory())
            + problem("the path is empty", "give the path of a directory"),
            *("list", ""))  # fmt: skip


class RowTest(OrvfileTest):
    def test_cells_become_a_row(self):
        self.assert_done("row", "Port 1", "up", "100 Mbit/s", out=b"Port 1:up,100 Mbit/s;")
        self.assert_done("row", "", "", "", out=b":,;")
        self.assert_done("row", "a", "b", "--table-end", out=b"a:b;\n")

    def test_a_row_of_one_cell_gets_a_second_one(self):
        self.assert_done("row", "a", out=b"a:;")
        self.assert_done("row", "--raw", "a", out=b"a:;")
        self.assert_done("row", "--csv", data=b"a\nb,c\n", out=b"a:;b:c;")

    def test_cells_are_escaped(self):
        self.assert_done("row", "a&b;", ":5,x", '<">', "\r\n1", out=b"a&#38b&#59:&#58&#53&#44x,&#60&#34&#62,&#13&#10&#49;")

    def test_raw_cells_pass_through(self):
        self.assert_done("row", "--raw", "<b>,a</b>", "x:y&amp", out=b"<b>,a</b>:x:y&amp;")

    def test_a_raw_cell_that_would_break_its_row_is_reported_and_nothing_is_written(self):
        remedy = "omit --raw to have such bytes replaced, or remove them from the cell"
        for data, place, why in (
            (b"a,b\nc,d;e\n", "row 2, column 2, byte 2", "a semicolon ends the row"),
            (b"a:,b\n", "row 1, column 1, byte 2", "a colon ends the head cell"),
            (b'a,b,"c,"\n', "row 1, column 3, byte 2", "a comma ends the cell"),
            (b'"a\nb",c\n', "row 1, column 1, byte 2", "a line feed ends the table"),
            (b"a\n;\n", "row 2, column 1, byte 1", "a semicolon ends the row"),
        ):
            with self.subTest(data=data):
                self.assert_fails(problem(f"{place}: {why}", remedy), "row", "--raw", "--csv", data=data)
        self.assert_fails(problem("row 1, column 2, byte 1: a comma ends the cell", remedy), "row", "--raw", "a", ",")

    def test_comma_separated_values_are_read_as_others_write_them(self):
        for data, out in (
            (b"a,b\n", b"a:b;"),
            (b"a,b", b"a:b;"),
            (b"a,b\r\nc,d\r\n", b"a:b;c:d;"),
            (b"\xef\xbb\xbfa,b\n", b"a:b;"),
            (b'"a,b","c ""d"""\n', b"a&#44b:c &#34d&#34;"),
            (b'"two\nlines",x\n', b"two&#10lines:x;"),
            (b"  a , b c \n", b"a:b c;"),
            (b'" a "," "\n', b" a : ;"),
            (b"a,,\n", b"a:,;"),
            (b",\n", b":;"),
            (b"a,b\n\n\r\nc,d\n", b"a:b;c:d;"),
            (b"a,\0\xff\n", b"a:\0\xff;"),
            (b"a\tb,c\n", b"a\tb:c;"),
        ):
            with self.subTest(data=data):
                self.assert_done("row", "--csv", data=data, out=out)
        self.assert_done("row", "--csv", "--table-end", data=b"a,b\nc,d\n", out=b"a:b;c:d;\n")

    def test_tabs_separate_on_request(self):
        self.assert_done("row", "--tsv", data=b'a\tb,c\n"d\te"\t\tf\n', out=b"a:b&#44c;d\te:,f;")

    def test_a_long_input_is_read_to_its_end(self):
        rows = 20000
        data = b"".join(b"row %d,%s\n" % (i, b"x" * 50) for i in range(rows))

        self.assert_done("row", "--csv", data=data, out=b"".join(b"row %d:%s;" % (i, b"x" * 50) for i in range(rows)))

    def test_bad_input_is_reported_and_nothing_is_written(self):
        remedy = "put the cell between quotation marks, and double each quotation mark inside it"
        for data, message in (
            (b'a,b\nc,d"e\n', "row 2: unexpected quotation mark at byte 8 of the input"),
            (b'"a"b,c\n', "row 1: unexpected quotation mark at byte 4 of the input"),
            (b'a,b\n"c,d\n', "row 2: the input ends inside quotation marks"),
        ):
            with self.subTest(data=data):
                self.assert_fails(problem("standard input, " + message, remedy), "row", "--csv", data=data)
        for data in (b"", b"\n\n"):
            self.assert_fails(
                problem("standard input contains no rows",
                        "check the command that writes it; an empty table needs no rows"),
                *("row", "--csv", "--table-end"), data=data)  # fmt: skip

    def test_standard_input_that_cannot_be_read_is_reported(self):
        directory = os.open(self.dir, os.O_RDONLY)
        self.addCleanup(os.close, directory)

        self.assert_fails(
            problem("cannot read standard input: Is a directory", "redirect it from a file or a pipe"),
            *("row", "--csv"), stdin=directory)  # fmt: skip


class PageTest(OrvfileTest):
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
        names = [text(name) for name in HOSTILE_NAMES]
        rows = b"".join(self.run_tool("row", "--", name, name)[1] for name in names)
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


class WatchTest(OrvfileTest):
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


class GetTest(OrvfileTest):
    def setUp(self):
        super().setUp()
        self.write("f", b"# a comment\n\n b = 2 = two \r\na=1\nempty=\n=no name\nalone\n")

    def test_all_names_and_values_are_printed_in_order(self):
        self.assert_done("get", "f", out=b"=no name\na=1\nalone=\nb=2 = two\nempty=\n")
        self.assert_done("get", "f", "--json", out=b'{"":"no name","a":"1","alone":"","b":"2 = two","empty":""}\n')

    def test_one_value_is_printed(self):
        self.assert_done("get", "f", "b", out=b"2 = two\n")
        self.assert_done("get", "f", "empty", out=b"\n")
        self.assert_done("get", "f", "", out=b"no name\n")
        self.assert_done("get", "f", "b", "--json", out=b'"2 = two"\n')

    def test_delimiter_and_comment_are_chosen(self):
        self.write("g", b"# a:1\n; comment\nb:x=y\n")

        self.assert_done("get", "g", "--delimiter", ":", "--comment", ";", out=b"# a:1\nb:x=y\n")
        self.assert_done("get", "g", "--delimiter", ":", "--comment", "", out=b"# a:1\n; comment:\nb:x=y\n")
        self.assert_done("get", "g", "--delimiter", " ", "--comment=;", "#", out=b"a:1\n")

    def test_a_missing_name_is_a_failure(self):
        self.assert_fails(
            problem("'f' does not contain the name 'B'",
                    "list its names with orvfile get FILE; upper and lower case differ"),
            *("get", "f", "B"))  # fmt: skip

    def test_a_bad_file_is_reported(self):
        hint = "check the spelling of 'gone', and check that its directory exists"
        self.assert_fails(
            logged(LINES.NameValueOpen("gone"))
            + problem("cannot read 'gone': No such file or directory", hint),
            *("get", "gone"))  # fmt: skip
        self.assert_fails(problem("cannot read 'gone': No such file or directory", hint), "get", "gone", "--lint")
        for options in ([], ["--lint"]):
            self.assert_fails(problem("'.' is a directory", "name a file in it"), "get", ".", *options)

    def test_bytes_that_json_cannot_hold_cause_a_warning(self):
        self.write("g", b"\xff=1\n")

        self.assert_done(
            *("get", "g", "--json"), out='{"\ufffd":"1"}\n'.encode(),
            err=problem("warning: the result contains bytes that are not UTF-8; JSON shows U+FFFD instead",
                        "omit --json to see them unchanged"))  # fmt: skip
        self.assertEqual({"\ufffd": "1"}, json.loads(self.run_tool("get", "g", "--json", "-q")[1]))

    def test_lint_reports_the_lines_that_look_wrong(self):
        self.write("g\n", b"\xef\xbb\xbfa=1\n# no delimiter\n\nb\n c = 3\r\nc=4\nd=\x1b[0m\0\tx\x7f\nb=\n# \x07\n")
        alone = ("no delimiter '=': the line is a name with an empty value; add the delimiter, or make the line a comment")

        self.assert_fails(
            *("", "get", "--lint", "g\n"),
            out=("g\\n:1: byte-order mark, which becomes part of the line: save the file without it\n"
                 f"g\\n:4: {alone}\n"
                 "g\\n:6: duplicate name 'c', first on line 5: the last one counts; remove the others\n"
                 "g\\n:7: control character '\\x1b': remove it\n"
                 "g\\n:7: control character '\\x00': remove it\n"
                 "g\\n:7: control character '\\x7f': remove it\n"
                 "g\\n:8: duplicate name 'b', first on line 4: the last one counts; remove the others\n"
                 "g\\n:9: control character '\\x07': remove it\n").encode())  # fmt: skip
        self.assert_fails(
            *("", "get", "--lint", "f"), out=f"f:7: {alone}\n".encode())

    def test_lint_finds_nothing_in_a_clean_file(self):
        self.write("g", b"; comment\na: 1\n\tb:\n")

        self.assert_done("get", "g", "--lint", "--delimiter", ":", "--comment", ";")


def main():
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    PROGRAM.extend(sys.argv[2:])
    SHIM.append(sys.argv[1])
    orv_test.run_unittests()


if __name__ == "__main__":
    main()
