#!/usr/bin/env python3
"""orvfile get, set and unset."""

import errno
import json
import os
import shutil
import signal
import stat
import subprocess

from pages import without_capabilities
import tool
from tool import ToolTest, limited_to, problem

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
                      "check the kernel's log (dmesg) for errors of the medium"),
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


class SetTest(ToolTest):
    def test_values_change_and_the_rest_stays_byte_for_byte(self):
        self.write("f", b"# a comment\r\n\r\n  b = old  \r\na=1\r\n[x]\r\nb\t=\t old\r\nlast", 0o640)

        self.assert_done("set", "f", "b=new = x", "c=", "last=z")

        self.assertEqual(b"# a comment\r\n\r\n  b = old  \r\na=1\r\n[x]\r\nb\t=\t new = x\r\nlast=z\r\nc=\r\n",
                         self.read("f"))  # fmt: skip
        self.assertEqual(0o640, stat.S_IMODE(os.stat(self.path("f")).st_mode))
        self.assertEqual(["f"], self.names())

    def test_a_missing_file_is_made(self):
        self.assert_done("set", "f", "b=2", "a=1", "a=3", umask=0o027)

        self.assertEqual((b"a=3\nb=2\n", 0o640), (self.read("f"), stat.S_IMODE(os.stat(self.path("f")).st_mode)))

    def test_names_and_values_may_look_like_options_commands_and_lists(self):
        self.assert_done("set", "--", "f", "-a=-5", "--json=1", "[a,b]=[1,2]", "get=set", "unset=x")
        self.assert_done("set", "f", "offset=-5", "list=[]")

        self.assertEqual(b"--json=1\n-a=-5\n[a,b]=[1,2]\nget=set\nunset=x\nlist=[]\noffset=-5\n", self.read("f"))
        self.assert_done("get", "f", "--", "-a", "unset", "[a,b]", out=b"-5\nx\n[1,2]\n")
        self.assert_done("unset", "f", "--", "-a", "--json", "unset", "[a,b]", "get")
        self.assertEqual(b"list=[]\noffset=-5\n", self.read("f"))

    def test_delimiter_and_comment_are_chosen(self):
        self.write("f", b"; a:0\na : 1\n")

        self.assert_done("set", "f", "--delimiter", ":", "--comment", ";", "a:2:3", "#b:4", "c=d:5")
        self.assertEqual(b"; a:0\na : 2:3\n#b:4\nc=d:5\n", self.read("f"))
        self.assert_done("unset", "f", "--delimiter", ":", "--comment", ";", "#b", "c=d")
        self.assertEqual(b"; a:0\na : 2:3\n", self.read("f"))
        self.assertEqual(
            (2, b"", problem("NAME=VALUE: 'a=2' contains no :", "see orvfile set --help")),
            self.run_tool("set", "f", "--delimiter", ":", "a:1", "a=2"))  # fmt: skip
        self.assertEqual(
            (2, b"", problem("NAME=VALUE: 'a' contains no =", "see orvfile set --help")),
            self.run_tool("set", "f", "a"))  # fmt: skip
        self.assertEqual(b"; a:0\na : 2:3\n", self.read("f"))

    def test_a_name_or_value_that_would_not_be_read_back_is_refused(self):
        self.write("f", b"a=1\n")
        space = "begins or ends with white space, which readers remove"
        for text, name, why in (
            ("=1", "", "the name is empty"),
            ("#b=1", "#b", "the name begins with '#', so its line would be a comment"),
            ("b\nc=1", "b\\nc", "the name contains a line feed"),
            ("b=1\nc=2", "b", "the value contains a line feed"),
            (" b=1", " b", f"the name {space}"),
            ("b =1", "b ", f"the name {space}"),
            ("b= 1", "b", f"the value {space}"),
            ("b=1\r", "b", f"the value {space}"),
            ("b=\t", "b", f"the value {space}"),
        ):
            with self.subTest(text=text):
                self.assert_fails(
                    f"[3] orv_safe: WriteSettings: set(f, {name}) failed (22, Invalid argument).\n"
                    + problem(f"cannot set '{name}': {why}", "choose another name or value; 'f' was not changed"),
                    *("set", "f", "0=2", text))  # fmt: skip
                self.assertEqual(b"a=1\n", self.read("f"))
        self.assert_done("set", "f", "#b=1", "--comment=")

    def test_other_failures_are_reported_with_their_reason(self):
        self.assert_fails(
            line("WriteSettings", "open", "no/", errno.ENOENT)
            + problem("cannot change 'no/f': No such file or directory", SPELLING.format("no/")),
            *("set", "no/f", "a=1"))  # fmt: skip
        self.assert_fails(
            line("RemoveSettings", "open", "f", errno.ENOENT)
            + problem("cannot change 'f': No such file or directory", SPELLING.format("f")),
            *("unset", "f", "a"))  # fmt: skip
        for command, name in (("set", "a=1"), ("unset", "a")):
            status, out, err = self.run_tool(command, ".", name)
            self.assertEqual((1, b""), (status, out))
            self.assertRegex(err, r"^\[3\] .* is not a regular file \(0x4000\)\.\norvfile: cannot change '\.'")
        self.assertEqual([], self.names())

    def test_a_full_disk_leaves_the_old_file(self):
        old = b"a=" + b"x" * 5000 + b"\nb=1\n"
        self.write("f", old)
        for command, name in (("set", "b=2"), ("unset", "b")):
            status, _, err = self.run_tool(command, "f", name, preexec_fn=limited_to(4096))

            self.assertEqual((1, old, ["f"]), (status, self.read("f"), self.names()))
            self.assertRegex(err, r"failed \(27, File too large\)\.\norvfile: cannot change 'f': File too large\n")

    def test_changes_are_flushed(self):
        self.write("f", b"a=1\n")
        trace = self.path("trace")
        for command, name in (("set", "a=2"), ("unset", "a"), ("set", "a=3")):
            self.assert_done(command, "f", name, shim={"TRACE": trace})

            flushed = self.read(trace).decode().splitlines()
            os.unlink(trace)
            self.assertEqual(2, len([call for call in flushed if call.startswith("fsync ")]), flushed)
            self.assertEqual(f"fsync {self.dir}", [call for call in flushed if call.startswith("fsync ")][-1])

    def test_the_file_is_replaced_in_one_step(self):
        path = self.write("f", b"a=1\n")
        os.link(path, self.path("hard link"))
        with open(path, "rb") as reader:
            self.assert_done("set", "f", "a=2")
            self.assert_done("unset", "f", "b")

            self.assertEqual((b"a=1\n", b"a=1\n", b"a=2\n"), (reader.read(), self.read("hard link"), self.read("f")))

    def test_a_signal_ends_it_only_after_the_change(self):
        for command, argument, new in (("set", "a=2", b"a=2\nb=1\n"), ("unset", "a", b"b=1\n")):
            for number in (signal.SIGHUP, signal.SIGINT, signal.SIGTERM):
                with self.subTest(command=command, signal=number.name):
                    self.write("f", b"a=1\nb=1\n")

                    status, _, err = self.run_tool(command, "f", argument, shim={"RAISE": f"fsync:1:{number}"})

                    self.assertEqual((-number, "", new, ["f"]), (status, err, self.read("f"), self.names()))

    def test_a_link_stays_and_its_target_changes(self):
        self.write("f", b"a=1\nb=2\n")
        os.symlink("f", self.path("link"))

        self.assert_done("set", "link", "a=2")
        self.assert_done("unset", "link", "b")

        self.assertEqual(("f", b"a=2\n"), (os.readlink(self.path("link")), self.read("f")))

    def test_another_owner_is_reported_and_the_change_is_made(self):
        if os.geteuid() != 0:
            self.skipTest("needs root, to give the file to another user")
        path = self.write("f", b"a=1\n")
        os.chown(path, 54321, 54321)

        status, out, err = self.run_tool("set", "f", "a=2", preexec_fn=without_capabilities(0))  # CAP_CHOWN

        self.assertEqual((0, b"", b"a=2\n"), (status, out, self.read("f")))
        self.assertEqual("[3] orv_safe: WriteSettings: fchown(f) failed (1, Operation not permitted): the new file has "
                         "another owner or group.\n", err)  # fmt: skip

    def test_a_failure_is_not_explained_by_the_note_before_it(self):
        if os.geteuid() != 0:
            self.skipTest("needs root, to give the file to another user")
        path = self.write("f", b"a=1\n")
        os.chown(path, 54321, 54321)

        status, out, err = self.run_tool("set", "f", "a=2", shim={"FAIL": f"fsync:{errno.EIO}"},
                                         preexec_fn=without_capabilities(0))  # fmt: skip

        self.assertEqual((1, b"", b"a=1\n"), (status, out, self.read("f")))
        self.assertIn("the new file has another owner or group.\n", err)
        self.assertIn(problem("cannot change 'f': Input/output error",
                              "check the kernel's log (dmesg) for errors of the medium"), err)  # fmt: skip

    def test_all_lines_of_a_name_are_removed_and_a_missing_one_is_no_failure(self):
        self.write("f", b"# b=0\nb=1\n a = 2\r\n\nb\nc=3")

        self.assert_done("unset", "f", "b", "gone")

        self.assertEqual(b"# b=0\n a = 2\r\n\nc=3", self.read("f"))

    def test_arguments_are_required(self):
        for arguments, message in ((["set"], "FILE is required"), (["set", "f"], "NAME=VALUE is required"),
                                   (["unset"], "FILE is required"), (["unset", "f"], "NAME is required")):  # fmt: skip
            status, out, err = self.run_tool(*arguments)

            self.assertEqual((2, b"", problem(message, f"see orvfile {arguments[0]} --help")), (status, out, err))


if __name__ == "__main__":
    tool.main()
