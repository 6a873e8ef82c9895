#!/usr/bin/env python3
"""orvfile get."""

import json

from oracle import LINES, logged
import tool
from tool import ToolTest, problem


class GetTest(ToolTest):
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


if __name__ == "__main__":
    tool.main()
