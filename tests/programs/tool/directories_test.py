#!/usr/bin/env python3
"""orvfile mkdir and list."""

import errno
import os
import stat

from oracle import LINES, logged
import tool
from tool import ToolTest, problem


class MkdirTest(ToolTest):
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
