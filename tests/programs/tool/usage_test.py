#!/usr/bin/env python3
"""Options, commands and usage of orvfile."""

import os
import re
import signal
import socket
import subprocess

import orv_test
import tool
from logged import LoggedTest
from tool import COMMANDS, ToolTest, problem



class UsageTest(ToolTest):
    def test_wrong_use_names_the_argument_writes_nothing_and_ends_with_2(self):
        self.write("a", b"data")
        top = f"use one of {', '.join(COMMANDS)}; see orvfile --help"
        cases = [
            ([], "A subcommand is required", top),
            (["bogus"], "unknown command or option 'bogus'", top),
            (["--bogus"], "unknown command or option '--bogus'", top),
            (["\x1b[31m\nred"], "unknown command or option '\\x1b[31m\\nred'", top),
            (["exists"], "PATH is required", "exists"),
            (["move"], "SOURCE is required", "move"),
            (["move", "a"], "DESTINATION is required", "move"),
            (["move", "-t", "b"], "SOURCE is required", "move"),
            (["copy", "--durable", "--no-durable", "a", "b"], "--durable excludes --no-durable", "copy"),
            (["copy", "--verify", "--no-verify", "a", "b"], "--verify excludes --no-verify", "copy"),
            (["copy", "--plain", "a", "b"], "The following argument was not expected: --plain", "copy"),
            *((["move", "--plain", option, "a", "b"], f"{option} excludes --plain", "move")
              for option in ("--no-replace", "--preserve", "--durable", "--verify")),
            (["move", "--bogus", "a", "b"], "The following argument was not expected: --bogus", "move"),
            (["copy", "a"], "DESTINATION is required", "copy"),
            (["mkdir"], "PATH is required", "mkdir"),
            *((["mkdir", "-m", mode, self.path("d")],
               f"--mode: '{mode}' is not an octal mode (one to four digits, such as 755)", "mkdir")
              for mode in ("8", "7~", "u+x", "00755", "-1", "0x1")),
            (["list"], "DIRECTORY is required", "list"),
            (["list", ".", "--include"], "--include: 1 required PATTERN missing", "list"),
            (["list", ".", "-0", "--json"], "--null excludes --json", "list"),
            (["row"], "CELL, --csv, --tsv or --delimiter is required", "row"),
            (["row", "--csv", "--tsv"], "--csv excludes --tsv", "row"),
            (["row", "--csv", "a"], "CELL excludes --csv", "row"),
            (["page", "a"], "PAGE is required", "page"),
            (["get"], "FILE is required", "get"),
            (["completion"], "SHELL is required", "completion"),
            (["completion", "ksh"], "SHELL: 'ksh' is not bash, zsh or fish", "completion"),
            (["completion", "[a]"], "SHELL: '[a]' is not bash, zsh or fish", "completion"),
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

    def test_each_help_is_the_expected_one(self):
        helps = [self.run_tool(*filter(None, [command]), "--help")[1].decode() for command in ["", *COMMANDS]]

        self.assertEqual(orv_test.read("tests", "programs", "tool", "help.txt"), "".join(helps),
                         "script/generate writes it anew")  # fmt: skip

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

    def test_double_dash_ends_the_options_after_operands_too(self):
        for name in ("-b", "--bogus", "-q", "[a,b]", "++", "\x01", "\x01\x01x", "exists", "--", "--include="):
            self.write(name)
        self.assert_done("exists", "--", "-b")
        self.assert_done("exists", "++", "--", "-b", "--bogus", "[a,b]", "++", "\x01\x01x", "exists")
        self.assert_done("exists", "-q", "\x01", "\x01\x01x", "[a,b]", "--", "--", "--include=", "-q")
        self.assert_done("exists", "++", "exists")
        self.assert_done("exists", "++", "-q", "--", "-b")
        self.assert_fails(
            problem("'no': No such file or directory", "check the spelling of 'no', and check that its directory exists"),
            *("exists", "++", "--", "-b", "no"))  # fmt: skip
        self.assertEqual((2, b"", problem("The following argument was not expected: -c", "see orvfile page --help")),
                         self.run_tool("page", "a", "b", "--", "-c"))  # fmt: skip
        self.assertEqual((2, b"", problem("unknown command or option 'exists'",
                                          f"use one of {', '.join(COMMANDS)}; see orvfile --help")),
                         self.run_tool("--", "exists", "++"))  # fmt: skip

    def test_double_dash_can_be_the_value_of_an_option(self):
        self.write("f", b"-- a comment\nname=value\n")

        self.assert_done("get", "f", "--comment", "--", out=b"name=value\n")
        self.assert_done("get", "--comment", "--", "--", "f", "name", out=b"value\n")
        self.assert_done("get", "--comment", "--", "f", "--", "name", out=b"value\n")
        os.mkdir(self.path("--"))
        self.assert_done("copy", "-t", "--", "f")
        self.assertEqual(["f"], self.names(self.path("--")))

    def test_double_dash_is_no_value_of_an_operand_that_is_called_like_one(self):
        for name in ("PATH", "-b"):
            self.write(name)

        self.assert_done("exists", "PATH", "--", "-b")

    def test_the_name_of_the_program_is_not_a_command(self):
        self.write("--")
        *emulator, program = tool.PROGRAM
        command = [*emulator, "-0", "get", program] if emulator else ["get"]

        process = subprocess.run([*command, "list", "--include", "--", "."], executable=None if emulator else program,
                                 cwd=self.dir, stdout=subprocess.PIPE, check=True)  # fmt: skip

        self.assertEqual(b"--\n", process.stdout)

    def test_a_wrong_word_is_shown_whole(self):
        for byte, shown in (("\r", "\\x0d"), ("\x02", "\\x02")):
            self.assertEqual((2, b"", problem(f"unknown command or option 'a{shown}b'",
                                              f"use one of {', '.join(COMMANDS)}; see orvfile --help")),
                             self.run_tool(f"a{byte}b"))  # fmt: skip

    def test_version_and_help_fail_if_they_cannot_be_written(self):
        for arguments in (["--version"], ["--help"], ["exists", "--help"]):
            with self.subTest(arguments=arguments), open("/dev/full", "wb") as full:
                self.assertEqual(
                    (1, None, problem("cannot write to standard output: No space left on device",
                                      "redirect it to a file, pipe or terminal that accepts the result")),
                    self.run_tool(*arguments, stdout=full))  # fmt: skip

    def test_output_that_nobody_reads_ends_the_program_as_others(self):
        self.write("f", b"name=value\n")
        for arguments in (["--version"], ["--help"], ["get", "f"], ["explain", "a line"]):
            with self.subTest(arguments=arguments):
                reader, writer = os.pipe()
                os.close(reader)
                try:
                    self.assertEqual((-signal.SIGPIPE, None, ""),
                                     self.run_tool(*arguments, stdout=writer, preexec_fn=default_sigpipe))  # fmt: skip
                finally:
                    os.close(writer)

    def test_messages_that_nobody_reads_change_nothing(self):
        self.write("a")
        reader, writer = os.pipe()
        os.close(reader)
        try:
            self.assertEqual((1, b"", ""), self.run_tool("exists", "gone", stderr=writer, preexec_fn=default_sigpipe))
            self.assertEqual((1, b"", ""), self.run_tool("copy", "gone", "a", "b", stderr=writer,
                                                         preexec_fn=default_sigpipe))  # fmt: skip
            self.assertEqual(2, self.run_tool("bogus", stderr=writer, preexec_fn=default_sigpipe)[0])
        finally:
            os.close(writer)

    def test_every_help_names_the_options_of_every_command(self):
        for command in ["", *COMMANDS]:
            _, out, _ = self.run_tool(*filter(None, [command]), "--help")
            for option in ("-h,--help", "-q,--quiet", "--syslog"):
                self.assertRegex(out.decode(), rf"(?m)^  {option} ")

    def test_no_description_of_an_option_has_what_completion_would_have_to_quote(self):
        _, out, _ = self.run_tool("completion", "zsh")
        options = [line for line in out.decode().replace(r"'\''", "").splitlines() if line.lstrip().startswith("'(")]
        self.assertGreater(len(options), 50)
        for option in options:
            self.assertRegex(option, r"^ *'[^][\\]+\[[^][\\]+\][^][\\]*' \\$")

    def test_quiet_may_be_before_and_after_the_command(self):
        for arguments in (["-q", "exists", "gone"], ["exists", "-q", "gone"], ["exists", "gone", "--quiet"]):
            self.assert_fails("", *arguments)

    def test_completion_is_written_from_the_description_of_the_commands(self):
        for shell, name in (("bash", "orvfile.bash"), ("fish", "orvfile.fish"), ("zsh", "_orvfile")):
            with self.subTest(shell=shell):
                status, out, err = self.run_tool("completion", shell)

                self.assertEqual((0, ""), (status, err))
                self.assertEqual(orv_test.read("tools", name), out.decode(), "script/generate writes it anew")


def default_sigpipe():
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)


class SyslogTest(LoggedTest):
    def test_messages_of_the_tool_and_lines_of_the_libraries_go_to_the_log(self):
        self.assertEqual(
            (1, b"", "", ["<11>orv_safe: ReadSettings: open(a\\nb) failed (2, No such file or directory).",
                          "<11>cannot read 'a\\nb': No such file or directory",
                          "<11>Next: check the spelling of 'a\\nb', and check that its directory exists"]),
            self.run_logged("get", "--syslog", "a\nb"))  # fmt: skip

    def test_warnings_have_their_priority(self):
        self.write("f", b"a=\xff\n")

        status, out, err, messages = self.run_logged("--syslog", "get", "--json", "f")

        self.assertEqual((0, ""), (status, err))
        self.assertEqual(b'{"a":"\xef\xbf\xbd"}\n', out)
        self.assertEqual(2, len(messages), messages)
        self.assertRegex(messages[0], "^<12>warning: ")
        self.assertRegex(messages[1], "^<12>Next: ")

    def test_quiet_suppresses_warnings_in_the_log_too(self):
        self.write("f", b"a=\xff\n")

        self.assertEqual((0, b'{"a":"\xef\xbf\xbd"}\n', "", []), self.run_logged("--syslog", "-q", "get", "--json", "f"))

    def test_wrong_usage_is_reported_on_standard_error(self):
        self.assertEqual((2, b"", problem("PATH is required", "see orvfile exists --help"), []),
                         self.run_logged("exists", "--syslog"))  # fmt: skip

    def test_without_a_log_the_work_goes_on(self):
        self.log.close()
        os.unlink(os.path.join(self.dev, "log"))

        self.assertEqual((1, b"", "", []), self.run_logged_nowhere("exists", "--syslog", "gone"))

    def run_logged_nowhere(self, *arguments):
        self.log = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(self.log.close)
        return self.run_logged(*arguments)


if __name__ == "__main__":
    tool.main()
