#!/usr/bin/env python3
"""orvfile get."""

import errno
import json
import os
import shutil
import subprocess

import tool
from tool import ToolTest, problem

REPLACED = problem("warning: the result contains bytes that are not UTF-8; JSON shows U+FFFD instead",
                   "omit --json to see them unchanged")  # fmt: skip
SPELLING = "check the spelling of '{0}', and check that its directory exists"


def line(function, call, path, error):
    """The line of a library about a failed call."""
    return f"[3] orv_safe: {function}: {call}({path}) failed ({error}, {os.strerror(error)}).\n"


class GetTest(ToolTest):
    def setUp(self):
        super().setUp()
        self.write("f", b"# a comment\n\n b = 2 = two \r\na=1\nempty=\n=no name\nalone\n")

    def assert_usage(self, message, *arguments):
        self.assertEqual((2, b"", problem(message, "see orvfile get --help")), self.run_tool("get", *arguments))

    def test_all_names_and_values_are_printed_in_order(self):
        self.assert_done("get", "f", out=b"=no name\na=1\nalone=\nb=2 = two\nempty=\n")
        self.assert_done("get", "f", "--json", out=b'{"":"no name","a":"1","alone":"","b":"2 = two","empty":""}\n')

    def test_values_are_printed_one_per_line_in_the_order_of_the_names(self):
        self.assert_done("get", "f", "b", out=b"2 = two\n")
        self.assert_done("get", "f", "empty", out=b"\n")
        self.assert_done("get", "f", "", out=b"no name\n")
        self.assert_done("get", "f", "b", "a", "empty", "b", out=b"2 = two\n1\n\n2 = two\n")

    def test_json_of_one_name_is_a_string_and_of_several_an_object(self):
        self.assert_done("get", "f", "b", "--json", out=b'"2 = two"\n')
        self.assert_done("get", "f", "b", "a", "--json", out=b'{"a":"1","b":"2 = two"}\n')
        self.assert_done("get", "f", "x", "a", "--json", "--default", "", out=b'{"a":"1","x":""}\n')

    def test_delimiter_and_comment_are_chosen(self):
        self.write("g", b"# a:1\n; comment\nb:x=y\n")

        self.assert_done("get", "g", "--delimiter", ":", "--comment", ";", out=b"# a:1\nb:x=y\n")
        self.assert_done("get", "g", "--delimiter", ":", "--comment", "", out=b"# a:1\n; comment:\nb:x=y\n")
        self.assert_done("get", "g", "--delimiter", ":", "--comment=", out=b"# a:1\n; comment:\nb:x=y\n")
        self.assert_done("get", "g", "--delimiter", " ", "--comment=;", "#", out=b"a:1\n")
        self.assert_usage("--delimiter: '' is not allowed; give one byte that is not a line feed", "f", "--delimiter=")

    def test_a_missing_name_has_a_status_of_its_own_and_nothing_is_printed(self):
        def missing(name):
            return problem(f"'f' does not contain the name '{name}'",
                           "list its names with orvfile get FILE; upper and lower case differ")  # fmt: skip

        for arguments in ([], ["--shell"], ["--json"], ["-q"]):
            with self.subTest(arguments=arguments):
                self.assertEqual((3, b"", missing("B")), self.run_tool("get", "f", "a", "B", *arguments))
        self.assertEqual((3, b"", missing("set") + missing("x")), self.run_tool("get", "f", "set", "b", "x"))

    def test_a_missing_name_gets_the_default(self):
        self.assert_done("get", "f", "a", "B", "x", "--default", "none", out=b"1\nnone\nnone\n")
        self.assert_done("get", "f", "empty", "--default", "none", out=b"\n")
        self.assert_done("get", "f", "B", "--default", "-5", out=b"-5\n")
        self.assert_done("get", "f", "B", "--default=", out=b"\n")
        self.assert_done("get", "f", "B", "--shell", "--default", "it's", out=b"B='it'\\''s'\n")
        self.assert_usage("--default requires NAME", "f", "--default", "x")

    def test_a_bad_file_is_reported(self):
        for options, function in ([], "ReadSettings"), (["--lint"], "CheckSettings"):
            with self.subTest(options=options):
                self.assert_fails(
                    line(function, "open", "gone", errno.ENOENT)
                    + problem("cannot read 'gone': No such file or directory", SPELLING.format("gone")),
                    *("get", "gone", *options))  # fmt: skip
                self.assert_fails(
                    line(function, "read", ".", errno.EISDIR)
                    + problem("cannot read '.': Is a directory", "'.' is a directory: name a file in it"),
                    *("get", ".", *options))  # fmt: skip
        self.assert_fails(
            line("ReadSettings", "read", "/proc/self/mem", errno.EIO)
            + problem("cannot read '/proc/self/mem': Input/output error",
                      "see the lines above, and check the kernel's log (dmesg) for errors of the medium"),
            *("get", "/proc/self/mem", "a", "--default", "1"))  # fmt: skip

    # ---- JSON

    def test_bytes_that_json_cannot_hold_cause_a_warning(self):
        self.write("g", b"\xff=1\n")

        self.assert_done("get", "g", "--json", out='{"\ufffd":"1"}\n'.encode(), err=REPLACED)
        self.assertEqual({"\ufffd": "1"}, json.loads(self.run_tool("get", "g", "--json", "-q")[1]))

    def test_names_that_json_would_make_the_same_are_refused(self):
        self.write("g", b"a\xfe=1\na\xff=2\n\xef\xbf\xbd=3\n\xff=4\n")
        def refused(one, other):
            return problem(f"the names '{one}' and '{other}' would be the same key in JSON, which shows bytes that are "
                           "not UTF-8 as U+FFFD", "omit --json, or save the file in UTF-8")  # fmt: skip

        for options in ([], ["-q"]):
            self.assert_fails(refused("a\udcfe", "a\udcff"), "get", "g", "--json", *options)
        self.assert_fails(refused("\ufffd", "\udcff"), "get", "g", "--json", "\ufffd", b"\xff")
        self.assert_done("get", "g", b"a\xff", "--json", out=b'"2"\n')

    # ---- Shells

    def test_every_shell_gets_the_value_back(self):
        values = {
            "all": bytes(byte for byte in range(1, 256) if byte not in b"\t\n\v\f\r "),
            "quote": b"'; touch injected; '",
            "substitution": b"$(touch injected)`touch injected`$HOME",
            "backslash": b"\\' \\\\'\\",
            "quotes": b"'''\"'\"'''",
            "comment": b"a # b",
            "glob": b"* ~ ? [a-z] {1,2} !! !x",
            "blanks": b"a  b \t c\rd\ve",
            "option": b"-n",
            "empty": b"",
            "utf8": "\u00e9\u0085\u3042\u5c3d".encode(),
            "control": b"\x1b[31m\x01\x7f\x81\x88",
        }
        self.write("g", b"".join(name.encode() + b"=" + value + b"\n" for name, value in values.items()))
        shells = [shell for shell in ("sh", "dash", "bash", "busybox", "zsh", "mksh") if shutil.which(shell)]
        self.assertLessEqual({"sh", "bash"}, set(shells))
        _, assignments, err = self.run_tool("get", "g", "--shell", *values)
        self.assertEqual("", err)
        self.write("assignments", assignments)
        for shell in shells:
            command = [shell, *(["sh"] if shell == "busybox" else []), "-c",
                       'eval "$(cat assignments)" || exit; for name; do eval "value=\\$$name"; printf "%s\\n" "$value"; done',
                       "sh", *values]  # fmt: skip
            for locale in ("C", "C.UTF-8"):
                with self.subTest(shell=shell, locale=locale):
                    run = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, cwd=self.dir,
                                         env={**os.environ, "LC_ALL": locale}, check=False)  # fmt: skip

                    self.assertEqual((0, b""), (run.returncode, run.stderr))
                    self.assertEqual(list(values.values()), run.stdout.split(b"\n")[:-1])
        self.assertNotIn("injected", self.names())

    def test_only_names_of_variables_are_assigned(self):
        self.write("g", b"_a1=1\nZ_9=2\nb.c=3\n")

        self.assert_done("get", "g", "--shell", "Z_9", "_a1", out=b"Z_9='2'\n_a1='1'\n")
        for name in ("b.c", "1a", "", "a-b", "a b", "a;b", "\u00e9", "a\n"):
            shown = name.replace("\n", "\\n")
            self.assert_usage(f"NAME: '{shown}' cannot be the name of a variable of a shell", "g", "--shell", "_a1", name)
        self.assert_usage("--shell requires NAME", "g", "--shell")
        self.assert_done("get", "g", "b.c", out=b"3\n")

    def test_a_value_with_a_nul_cannot_be_assigned(self):
        self.write("g", b"a=1\nb=x\0y\n")

        self.assert_fails(
            problem("the value of 'b' contains a NUL, which no variable of a shell can contain",
                    "remove the NUL from the value"),
            *("get", "g", "--shell", "a", "b"))  # fmt: skip
        self.assert_done("get", "g", "b", out=b"x\0y\n")

    def test_some_options_exclude_others(self):
        for one, other in (("--shell", "--json"), ("--lint", "--json"), ("--lint", "NAME")):
            arguments = [option for option in (one, other) if option != "NAME"]
            status, out, err = self.run_tool("get", "f", "a", *arguments)

            self.assertEqual((2, b""), (status, out))
            self.assertRegex(err, f"{one} excludes {other}|{other} excludes {one}|NAME excludes --lint|--lint excludes NAME")

    # ---- Lint

    def test_lint_reports_the_lines_that_look_wrong(self):
        self.write("g\n", b"\xef\xbb\xbfa=1\n# no delimiter\n\nb\n c = 3\r\nc=4\nd=\x1b[0m\nb=\n# \x07\n"
                          b"[net]\n=x\ne='f'\ng=h # i\nj=\xff\n")  # fmt: skip
        duplicate = "duplicate name, of which the last one counts: remove the others (first on line"

        self.assert_fails(
            *("", "get", "--lint", "g\n"),
            out=("g\\n:1: '\ufeffa=1': byte-order mark, which becomes part of the line: save the file without it\n"
                 "g\\n:4: 'b': no delimiter, so the line is a name with an empty value: add the delimiter, or make the "
                 "line a comment\n"
                 f"g\\n:6: 'c': {duplicate} 5)\n"
                 "g\\n:7: '\\x1b': control character: remove it\n"
                 f"g\\n:8: 'b': {duplicate} 4)\n"
                 "g\\n:9: '\\x07': control character: remove it\n"
                 "g\\n:10: '[net]': looks like a section, but there are none: the names below are shared by the whole "
                 "file\n"
                 "g\\n:11: '=x': empty name: write a name before the delimiter\n"
                 "g\\n:12: ''f'': quotes, which become part of the value: remove them\n"
                 "g\\n:13: '# i': comment after a value, which becomes part of it: give it a line of its own\n"
                 "g\\n:14: 'j=\udcff': not UTF-8: save the file in UTF-8\n").encode("utf-8", "surrogateescape"))  # fmt: skip

    def test_lint_finds_nothing_in_a_clean_file(self):
        self.write("g", b"; comment\na: 1\n\tb:\n")

        self.assert_done("get", "g", "--lint", "--delimiter", ":", "--comment", ";")


if __name__ == "__main__":
    tool.main()
