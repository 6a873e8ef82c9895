#!/usr/bin/env python3
"""orvfile mkdir and list."""

import errno
import json
import os
import pty
import re
import stat
import subprocess
import time

from pages import without_capabilities
import tool
from tool import ToolTest, problem

SPELLING = "check the spelling of '{0}', and check that its directory exists"
IN_PARIS = {**os.environ, "LC_ALL": "C", "TZ": "CET-1CEST,M3.5.0,M10.5.0/3"}
REPLACED = problem("warning: the result contains bytes that are not UTF-8; JSON shows U+FFFD instead",
                   "omit --json to see them unchanged")  # fmt: skip


def line(function, call, path, error):
    """The line of a library about a failed call."""
    return f"[3] orv_safe: {function}: {call}({path}) failed ({error}, {os.strerror(error)}).\n"


class MkdirTest(ToolTest):
    def mode(self, path):
        return stat.S_IMODE(os.stat(self.path(path)).st_mode)

    def test_missing_parents_are_made_with_the_mode_less_the_mask(self):
        self.assert_done("mkdir", self.path("a/b"), self.path("c/"), umask=0o027)
        self.assert_done("mkdir", "-m", "711", self.path("d/e"), umask=0o001)

        self.assertEqual([0o750] * 3, [self.mode(path) for path in ("a", "a/b", "c")])
        self.assertEqual([0o710] * 2, [self.mode(path) for path in ("d", "d/e")])

    def test_directories_are_made_below_the_current_one_and_the_root(self):
        self.assert_done("mkdir", "new", "./more/a", "new", ".", "/")

        self.assertEqual((["more", "new"], ["a"]), (self.names(), self.names(self.path("more"))))
        if os.access("/", os.W_OK):
            name = "/orv_test_" + os.path.basename(self.dir)
            self.addCleanup(os.rmdir, name)
            self.assert_done("mkdir", name)
            self.assertTrue(os.path.isdir(name))

    def test_a_path_may_be_as_long_as_the_system_accepts(self):
        longest = (self.path("d") + "/" + "/".join(["x" * 200] * 20))[:4095].rstrip("/")

        self.assert_done("mkdir", longest)
        self.assertTrue(os.path.isdir(longest))

    def test_parents_stay_usable_for_the_owner(self):
        self.assert_done("mkdir", "--mode", "500", "a/b", preexec_fn=without_capabilities(1, 2))

        self.assertEqual((0o700, 0o500), (self.mode("a"), self.mode("a/b")))

    def test_an_exact_mode_goes_past_the_mask_and_to_existing_directories(self):
        os.mkdir(self.path("old"), 0o700)

        self.assert_done("mkdir", "--exact-mode", "--mode", "7777", self.path("old"), self.path("a/b"), umask=0o022)

        self.assertEqual([0o7777, 0o1755, 0o7777], [self.mode(path) for path in ("old", "a", "a/b")])

    def test_an_existing_directory_keeps_its_mode_otherwise(self):
        os.mkdir(self.path("old"), 0o700)

        self.assert_done("mkdir", "--mode", "777", "old")

        self.assertEqual(0o700, self.mode("old"))

    def test_an_exact_mode_needs_a_mode(self):
        self.assertEqual(
            (2, b"", problem("--exact-mode requires --mode", "see orvfile mkdir --help")),
            self.run_tool("mkdir", "--exact-mode", "a"))  # fmt: skip
        self.assertEqual([], self.names())

    def mode_problem(self, path):
        return problem(f"'{path}' is a directory, but its mode cannot be set: Operation not permitted",
                       "set it with chmod(1), as the owner of the directory or as root")  # fmt: skip

    def test_an_exact_mode_that_cannot_be_set_is_a_failure(self):
        os.mkdir(self.path("a"), 0o700)

        self.assert_fails(self.mode_problem("a") + self.mode_problem("b"), "mkdir", "--exact-mode", "-m", "755", "a", "b",
                          shim={"FAIL": f"chmod:{errno.EPERM}"})  # fmt: skip
        self.assertEqual(0o700, self.mode("a"))

    def test_an_exact_mode_without_one_of_its_bits_is_a_failure(self):
        if os.geteuid() != 0:
            self.skipTest("needs root, to give a directory to a foreign group")
        os.mkdir(self.path("a"), 0o700)
        os.chown(self.path("a"), 0, 54321)

        self.assert_fails(self.mode_problem("a"), "mkdir", "--exact-mode", "-m", "2755", "a",
                          preexec_fn=without_capabilities(4))  # fmt: skip  CAP_FSETID
        self.assertEqual(0o755, self.mode("a"))

    def test_a_failure_is_reported_and_does_not_keep_others_from_being_made(self):
        self.write("file", b"data", 0o600)

        self.assert_fails(
            line("MakeDirectory", "open", "file", errno.ENOTDIR)
            + problem("cannot make 'file': Not a directory", "a component of 'file' is not a directory: correct the path")
            + line("MakeDirectory", "open", "file/a", errno.ENOTDIR)
            + problem("cannot make 'file/a': Not a directory",
                      "a component of 'file/a' is not a directory: correct the path")
            + line("MakeDirectory", "open", "", errno.ENOENT)
            + problem("cannot make '': No such file or directory", SPELLING.format("")),
            *("mkdir", "--exact-mode", "-m", "755", "a", "file", "file/a", "", "b"))  # fmt: skip
        self.assertEqual((["a", "b", "file"], 0o600, b"data"), (self.names(), self.mode("file"), self.read("file")))


class ListTest(ToolTest):
    def setUp(self):
        super().setUp()
        for name in ("b.txt", "B.txt", "a.log", ".hidden"):
            self.write(name)
        os.mkdir(self.path("directory"))
        os.symlink("b.txt", self.path("link"))

    def assert_usage(self, message, *arguments):
        self.assertEqual((2, b"", problem(message, "see orvfile list --help")), self.run_tool("list", ".", *arguments))

    def test_regular_files_are_listed_by_byte_value(self):
        self.assert_done("list", ".", out=b".hidden\nB.txt\na.log\nb.txt\n")
        self.assert_done("list", "directory")

    def test_names_are_chosen_by_patterns(self):
        self.assert_done("list", ".", "--include", "*.txt", out=b"B.txt\nb.txt\n")
        self.assert_done("list", ".", "--exclude", "?.txt", out=b".hidden\na.log\n")
        self.assert_done("list", ".", "--include=[b].txt")  # no brackets in these patterns
        self.assert_done("list", ".", "--include", "?.*", "--exclude", "B*", out=b"a.log\nb.txt\n")

    def test_an_empty_pattern_may_be_part_of_the_option(self):
        for arguments in (["--include="], ["--include", ""], ["--exclude="], ["--include=", "--exclude="]):
            with self.subTest(arguments=arguments):
                self.assert_done("list", *arguments, ".", out=b".hidden\nB.txt\na.log\nb.txt\n")
                self.assert_done("list", ".", *arguments, out=b".hidden\nB.txt\na.log\nb.txt\n")

    def test_a_pattern_that_the_shell_replaced_gets_a_hint(self):
        hint = ("quote the pattern, as in '*.log', because the shell replaces it by the names that match; "
                "see orvfile list --help")  # fmt: skip
        for option in ("--include", "--exclude"):
            self.assertEqual(
                (2, b"", problem("The following argument was not expected: b.txt", hint)),
                self.run_tool("list", ".", option, "B.txt", "b.txt"))  # fmt: skip
        self.assert_usage("The following argument was not expected: b.txt", "b.txt")
        self.assert_usage("The following argument was not expected: --bogus", "--include", "a", "--bogus")

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

        self.assert_done("list", "directory", "--json", out='["\ufffd\u00e9"]\n'.encode(), err=REPLACED)
        self.assert_done("list", "directory", out=b"\xff\xc3\xa9\n")

    def test_types_that_the_file_system_does_not_record_are_looked_up(self):
        self.write("directory/c")

        self.assert_done("list", ".", out=b".hidden\nB.txt\na.log\nb.txt\n", shim={"UNTYPED": "1"})
        self.assert_done("list", ".", "--recursive", "--exclude", "*.*", out=b"directory/c\n", shim={"UNTYPED": "1"})

    def test_links_to_files_are_listed_on_request(self):
        os.symlink("gone", self.path("dangling"))
        os.symlink("directory", self.path("way"))
        self.write("b.txt", b"12345")

        self.assert_done("list", ".", "--follow", out=b".hidden\nB.txt\na.log\nb.txt\nlink\n")
        self.assert_done("list", ".", "--follow", "--larger-than", "4", out=b"b.txt\nlink\n")

    def test_a_bad_directory_is_reported(self):
        self.assert_fails(
            line("ListFiles", "opendir", "gone", errno.ENOENT)
            + problem("cannot list 'gone': No such file or directory", SPELLING.format("gone")),
            *("list", "gone", "--json"))  # fmt: skip
        self.assert_fails(
            line("ListFiles", "opendir", "a.log", errno.ENOTDIR)
            + problem("cannot list 'a.log': Not a directory",
                      "a component of 'a.log' is not a directory: correct the path"),
            *("list", "a.log", "--recursive"))  # fmt: skip
        self.assert_fails(
            line("ListFiles", "opendir", "", errno.ENOENT)
            + problem("cannot list '': No such file or directory", SPELLING.format("")),
            *("list", ""))  # fmt: skip

    # ---- Size and time

    def write_sized(self, name, size, seconds, nanoseconds=0):
        path = self.write("directory/" + name, b"x" * size)
        os.utime(path, ns=(0, seconds * 10**9 + nanoseconds))

    def list(self, *arguments):
        status, out, err = self.run_tool("list", "directory", *arguments)
        self.assertEqual((0, ""), (status, err))
        return out.decode().split()

    def test_files_are_sorted_by_time_or_size(self):
        for name, size, seconds, nanoseconds in (("a", 9, 2000, 5), ("b", 10, 2000, 7), ("c", 10, 3000, 0),
                                                 ("d", 2, 1000, 9), ("e", 2, 1000, 9)):  # fmt: skip
            self.write_sized(name, size, seconds, nanoseconds)

        self.assertEqual(["a", "b", "c", "d", "e"], self.list("--sort", "name"))
        self.assertEqual(["c", "b", "a", "d", "e"], self.list("--sort", "time"))
        self.assertEqual(["e", "d", "a", "b", "c"], self.list("--sort", "time", "--reverse"))
        self.assertEqual(["b", "c", "a", "d", "e"], self.list("--sort", "size"))
        self.assertEqual(["e", "d", "a", "c", "b"], self.list("--sort=size", "--reverse"))
        self.assertEqual(["e", "d", "c", "b", "a"], self.list("--reverse"))
        self.assert_usage("--sort: 'date' is not name, time or size", "--sort", "date")
        self.assert_usage("--sort: '' is not name, time or size", "--sort=")

    def test_the_first_files_are_skipped_and_the_number_is_limited(self):
        for name in "abcde":
            self.write("directory/" + name)

        self.assertEqual(["a", "b"], self.list("--limit", "2"))
        self.assertEqual(["c", "d", "e"], self.list("--skip", "2"))
        self.assertEqual(["c", "d"], self.list("--skip", "2", "--limit", "2"))
        self.assertEqual(["c", "b"], self.list("--reverse", "--skip=2", "--limit=2"))
        self.assertEqual(["e"], self.list("--skip", "4", "--limit", "2"))
        self.assertEqual([], self.list("--skip", "5"))
        self.assertEqual([], self.list("--skip", "6", "--limit", "9223372036854775807"))
        self.assertEqual([], self.list("--limit", "0"))
        for option in ("--skip", "--limit"):
            for number in ("-1", "x", "", "1K", "+1", " 1", "9223372036854775808"):
                self.assert_usage(f"{option}: '{number}' is not a number", f"{option}={number}")

    def test_old_files_are_listed_on_request(self):
        now = int(time.time())
        for age, seconds in (("s", 1), ("m", 60), ("h", 3600), ("d", 86400), ("w", 604800)):
            with self.subTest(age=age):
                self.write_sized("old", 1, now - 1000 * seconds - 1)
                self.write_sized("new", 1, now - 1000 * seconds + 60)

                self.assertEqual(["old"], self.list("--older-than", f"1000{age}"))
        self.write_sized("future", 1, now + 3600)
        self.assertEqual(["new", "old"], self.list("--older-than", "0s"))
        for age in ("1", "1y", "-1d", "1.5h", "d", "", "1dd", "1d ", "15250284452472w"):
            self.assert_usage(f"--older-than: '{age}' is not an age, such as 30m, 12h or 7d", f"--older-than={age}")

    def test_large_files_are_listed_on_request(self):
        for exponent in range(4):
            for more in (0, 1):
                path = self.write(f"directory/{exponent}{more}")
                os.truncate(path, 2 * 1024**exponent + more)
        for exponent, size in enumerate(("2", "2K", "2M", "2G")):
            with self.subTest(size=size):
                self.assertEqual([f"{exponent}1"], self.list("--larger-than", size, "--include", f"{exponent}*"))
        self.assertEqual([], self.list("--larger-than", "8388607T"))
        for size in ("K", "1k", "1B", "1KB", "-1", "", "8388608T"):
            self.assert_usage(f"--larger-than: '{size}' is not a size, such as 500, 10K or 2M", f"--larger-than={size}")

    def test_sizes_and_local_times_are_listed_on_request(self):
        self.write_sized("a", 9, 1000000000)
        self.write_sized("b c", 1234, 1751328000)  # 2025-07-01 00:00:00 UTC

        self.assert_done(
            *("list", "directory", "--long"),
            out=b"   9 2001-09-09T03:46:40+0200 a\n1234 2025-07-01T02:00:00+0200 b c\n", env=IN_PARIS)  # fmt: skip
        self.assert_done("list", "directory", "--long", "-0", "--limit", "1", "--full-path",
                         out=b"9 2001-09-09T03:46:40+0200 directory/a\0", env=IN_PARIS)  # fmt: skip

    def test_json_of_sizes_has_times_in_utc(self):
        self.write_sized("a", 9, 1000000000)

        self.assert_done("list", "directory", "--long", "--json", "--full-path",
                         out=b'[{"bytes":9,"modified":"2001-09-09T01:46:40Z","name":"directory/a"}]\n',
                         env=IN_PARIS)  # fmt: skip

    def test_a_time_without_a_date_is_shown_in_seconds(self):
        seconds = 1 << 56
        file = self.write(os.path.join(self.other, "a"))
        os.utime(file, (seconds, seconds))
        self.assertEqual(seconds, int(os.stat(file).st_mtime), "this file system does not store such a time")

        self.assert_done("list", self.other, "--long", out=f"0 @{seconds} a\n".encode())
        self.assert_done("list", self.other, "--long", "--json",
                         out=f'[{{"bytes":0,"modified":"@{seconds}","name":"a"}}]\n'.encode())  # fmt: skip

    # ---- Terminals

    def show(self, *arguments):
        """What a terminal shows of the standard output."""
        master, slave = pty.openpty()
        self.addCleanup(os.close, master)
        status, _, err = self.run_tool("list", "directory", *arguments, stdout=slave)
        self.assertEqual((0, ""), (status, err))
        os.write(slave, b"END")  # so that nothing has to wait for the end
        shown = b""
        while not shown.endswith(b"END"):
            shown += os.read(master, 4096)
        os.close(slave)
        return shown[:-3].replace(b"\r\n", b"\n")

    def test_names_are_quoted_for_terminals_as_shells_read_them(self):
        names = ["plain-1.0_%+,@:z", "a b", "it's", "$HOME", "a\nb'c", "\x1b[31m", "back\\slash", "~", "*", "caf\u00e9",
                 "\u009b31m", "\udc9b31m"]  # fmt: skip
        for name in names:
            self.write("directory/" + name)

        shown = self.show()

        self.assertIn(b"\nplain-1.0_%+,@:z\n", shown)
        for quoted in (b"'a b'", b"'it'\\''s'", b"'$HOME'", b"$'a\\nb\\'c'", b"$'\\x1b[31m'", b"$'back\\\\slash'"):
            self.assertIn(quoted + b"\n", shown)
        self.assertNotRegex(shown, rb"[\x00-\x09\x0b-\x1f\x7f]|[^\xc3][\x80-\x9f]")
        script = b"for name in " + shown.replace(b"\n", b" ") + b"; do printf '%s\\0' \"$name\"; done"
        read = subprocess.run(["bash", "-c", script], stdout=subprocess.PIPE, check=True).stdout
        self.assertEqual(sorted(os.fsencode(name) for name in names), read.split(b"\0")[:-1])
        self.assertEqual(b"'a b'\n", self.show("--include", "a b"))
        self.assertRegex(self.show("--long", "--include", "a b"), rb"^0 .* 'a b'\n$")

    def test_names_for_programs_are_not_quoted(self):
        self.write("directory/a b")

        self.assert_done("list", "directory", out=b"a b\n")
        self.assertEqual(b"a b\0", self.show("-0"))
        self.assertEqual(b'["a b"]\n', self.show("--json"))

    # ---- Recursion

    def make_tree(self):
        for path in ("a/b/c", "a-b", "z"):
            os.makedirs(self.path("directory/" + path))
        for path in ("a/1.log", "a/b/2.log", "a/b/c/3.txt", "a-b/4.log", "z/5.log", "6.log"):
            self.write("directory/" + path)
        os.symlink("..", self.path("directory/a/loop"))
        os.symlink("a", self.path("directory/way"))

    def test_subdirectories_are_entered_on_request_but_not_through_links(self):
        self.make_tree()

        self.assertEqual(["6.log"], self.list("--include", "*.log"))
        self.assertEqual(["6.log", "a-b/4.log", "a/1.log", "a/b/2.log", "z/5.log"],
                         self.list("--recursive", "--include", "*.log"))  # fmt: skip
        self.assertEqual(["6.log", "a-b/4.log", "a/1.log", "a/b/2.log", "a/b/c/3.txt", "z/5.log"],
                         self.list("--recursive", "--follow"))  # fmt: skip
        self.assertEqual(["directory/z/5.log", "directory/a/b/c/3.txt"],
                         self.list("--recursive", "--full-path", "--reverse", "--limit", "2"))  # fmt: skip
        self.assert_done("list", "directory/", "--recursive", "--full-path", "--include", "3*",
                         out=b"directory/a/b/c/3.txt\n")  # fmt: skip

    def test_a_subdirectory_that_cannot_be_read_does_not_keep_others_from_being_listed(self):
        self.make_tree()
        os.chmod(self.path("directory/a"), 0)
        self.addCleanup(os.chmod, self.path("directory/a"), 0o700)

        self.assert_fails(
            line("ListFiles", "opendir", "directory/a", errno.EACCES)
            + problem("cannot list 'directory/a': Permission denied",
                      "get access to 'directory/a' and the directories above it, or run as a user who has access"),
            *("list", "directory", "--recursive"), out=b"6.log\na-b/4.log\nz/5.log\n",
            preexec_fn=without_capabilities(1, 2))  # fmt: skip

    def test_failures_are_reported_in_the_order_of_the_subdirectories(self):
        paths = [f"directory/{number}" for number in range(9)]
        for path in paths:
            os.mkdir(self.path(path), 0)
            self.addCleanup(os.chmod, self.path(path), 0o700)

        status, out, err = self.run_tool("list", "directory", "--recursive", preexec_fn=without_capabilities(1, 2))

        self.assertEqual((1, b""), (status, out))
        self.assertEqual(paths, re.findall("cannot list '(.*)'", err))

    def test_subdirectories_that_cannot_be_found_are_reported(self):
        # The library has read ".", ".." and the end.
        self.assert_fails(
            problem("cannot list 'directory': Input/output error",
                    "check the kernel's log (dmesg) for errors of the medium"),
            *("list", "directory", "--recursive"), shim={"FAIL": f"readdir:{errno.EIO}:4"})  # fmt: skip
        self.assert_done("list", "directory", "--recursive", shim={"FAIL": f"readdir:{errno.EIO}:7"})

    def test_a_subdirectory_whose_path_is_too_long_is_reported(self):
        descriptor = os.open(self.path("directory"), os.O_RDONLY)
        name = "d" * 250
        for _ in range(17):
            os.mkdir(name, dir_fd=descriptor)
            below = os.open(name, os.O_RDONLY, dir_fd=descriptor)
            os.close(descriptor)
            descriptor = below
            os.close(os.open("file", os.O_CREAT | os.O_WRONLY, dir_fd=descriptor))
        os.close(descriptor)

        for shim in (None, {"UNTYPED": "1"}):
            with self.subTest(shim=shim):
                status, out, err = self.run_tool("list", "directory", "--recursive", shim=shim)

                self.assertEqual((1, 16), (status, out.count(b"/file\n")))
                self.assertRegex(err, "orvfile: cannot list 'directory/.*': File name too long\n  Next: .*\n$")

    def test_all_but_the_newest_files_can_be_removed(self):
        for day in range(12):
            self.write_sized(f"{day} .log", 1, 1000000 + 86400 * day)
        self.write_sized("other", 1, 0)

        listed = self.run_tool("list", "directory", "--include", "*.log", "--sort", "time", "--skip", "10",
                               "--full-path", "-0")  # fmt: skip
        subprocess.run(["xargs", "-0", "-r", "rm", "--"], input=listed[1], cwd=self.dir, check=True)

        self.assertEqual(["10 .log", "11 .log"] + [f"{day} .log" for day in range(2, 10)] + ["other"],
                         self.names(self.path("directory")))  # fmt: skip
        self.assertEqual([], json.loads(self.run_tool("list", "directory", "--include", "*.log", "--skip", "10",
                                                      "--json")[1]))  # fmt: skip


if __name__ == "__main__":
    tool.main()
