#!/usr/bin/env python3
"""Options, commands, usage and completion of orvfile."""

import os
import re
import subprocess

import orv_test
import tool
from tool import COMMANDS, ToolTest, problem

COMPLETION = os.path.join(orv_test.ROOT, "tools", "orvfile.bash")


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
              for mode in ("8", "u+x", "00755", "-1", "0x1")),
            (["list"], "DIRECTORY is required", "list"),
            (["list", ".", "--include"], "--include: 1 required PATTERN missing", "list"),
            (["list", ".", "-0", "--json"], "--null excludes --json", "list"),
            (["row"], "CELL, --csv, --tsv or --delimiter is required", "row"),
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


if __name__ == "__main__":
    tool.main()
