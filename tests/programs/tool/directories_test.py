#!/usr/bin/env python3
"""orvfile mkdir and list."""

import errno
import os
import stat

from oracle import LINES, logged
from pages import without_capabilities
import tool
from tool import ToolTest, problem


SPELLING = "check the spelling of '{0}', and check that its directory exists"


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

        self.assert_done("mkdir", "--exact-mode", "--mode", "1777", self.path("old"), self.path("a/b"), umask=0o022)

        self.assertEqual([0o1777, 0o1755, 0o1777], [self.mode(path) for path in ("old", "a", "a/b")])

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


if __name__ == "__main__":
    tool.main()
