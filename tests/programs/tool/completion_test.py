#!/usr/bin/env python3
"""Completes command lines of orvfile in bash, zsh and fish, and compares what they offer with the help."""

import os
import pty
import re
import shlex
import shutil
import subprocess
import time

import orv_test
import tool
from tool import COMMANDS, PATIENCE_SECONDS, ToolTest

TOOLS = os.path.join(orv_test.ROOT, "tools")


class CompletionTest(ToolTest):
    """What all shells must offer. A subclass for each shell has complete(), which returns the candidates."""

    def setUp(self):
        super().setUp()
        if not shutil.which(self.SHELL):
            self.skipTest(f"no {self.SHELL}")
        self.write("afile")
        os.mkdir(self.path("adirectory"))
        os.mkdir(self.path("adirectory/inner"))

    def names_in_help(self, command):
        """Returns the names of the options of a command, each with the word for its value."""
        _, out, _ = self.run_tool(*filter(None, [command]), "--help")
        options = re.findall(r"(?m)^  (-\S+)(?: (?!Excludes:)(\S+))?", out.decode().split("\nOptions:\n")[1])
        return {name: value for names, value in options for name in names.split(",")}


class BashTest(CompletionTest):
    SHELL = "bash"
    SCRIPT = 'source "$1"; shift; COMP_WORDS=(orvfile "$@"); COMP_CWORD=$#; _orvfile; printf "%s\\n" "${COMPREPLY[@]}"'

    def complete(self, *words):
        run = subprocess.run(["bash", "-uc", self.SCRIPT, "bash", os.path.join(TOOLS, "orvfile.bash"), *words],
                             cwd=self.dir, stdout=subprocess.PIPE, check=True, text=True)  # fmt: skip
        return [line for line in run.stdout.splitlines() if line]

    def test_commands_and_options_are_those_of_the_help(self):
        self.assertEqual(COMMANDS, self.complete(""))
        self.assertEqual(["move", "mkdir"], self.complete("m"))
        for command in ["", *COMMANDS]:
            with self.subTest(command=command):
                words = [command] if command else []
                self.assertEqual(sorted(self.names_in_help(command)), sorted(self.complete(*words, "-")))

    def test_operands_are_paths_or_words_or_nothing(self):
        both = ["adirectory", "afile"]
        for words, expected in (
            (["exists", "a"], both), (["-q", "move", "a"], both), (["move", "x", "a"], both), (["mkdir", "a"], both[:1]),
            (["list", "a"], both[:1]), (["row", "a"], []), (["get", "a"], both), (["get", "f", "a"], []),
            (["get", "--json", "--", "f", "a"], []), (["page", "f", "a"], both), (["set", "f", "a"], []),
            (["explain", "a"], []), (["completion", ""], ["bash", "zsh", "fish"]), (["bogus", "a"], []),
            (["exists", "--", "-"], []), (["--syslog", "li"], ["list"]),
        ):  # fmt: skip
            self.assertEqual(expected, sorted(self.complete(*words), key=["bash", "zsh", "fish", *both, "list"].index), words)

    def test_values_of_options_are_completed(self):
        self.assertEqual(["name", "time", "size"], self.complete("list", "--sort", ""))
        self.assertEqual(["adirectory"], self.complete("move", "-t", "a"))
        self.assertEqual([], self.complete("list", "--include", "a"))
        self.assertEqual(["adirectory"], self.complete("list", "--include", "a", "a"))


class FishTest(CompletionTest):
    SHELL = "fish"

    def complete(self, *words):
        line = " ".join(["orvfile", *words])
        script = f"source {shlex.quote(os.path.join(TOOLS, 'orvfile.fish'))}; complete -C {shlex.quote(line)}"
        run = subprocess.run(["fish", "--no-config", "-c", script], cwd=self.dir, stdout=subprocess.PIPE, check=True,
                             text=True, env={**os.environ, "HOME": self.dir})  # fmt: skip
        return [line.split("\t")[0] for line in run.stdout.splitlines()]

    def test_commands_and_options_are_those_of_the_help(self):
        self.assertEqual(sorted(COMMANDS), sorted(self.complete("''")))
        self.assertEqual(["mkdir", "move"], sorted(self.complete("m")))
        for command in ["", *COMMANDS]:
            with self.subTest(command=command):
                words = [command] if command else []
                names = self.names_in_help(command)
                self.assertEqual(sorted(names), sorted(self.complete(*words, "-")))

    def test_operands_are_paths_or_words_or_nothing(self):
        both = ["adirectory/", "afile"]
        for words, expected in ((["exists", "a"], both), (["mkdir", "a"], both[:1]), (["list", "a"], both[:1]),
                                (["row", "a"], []), (["get", "a"], both), (["explain", "a"], []),
                                (["completion", "''"], ["bash", "fish", "zsh"])):  # fmt: skip
            self.assertEqual(expected, sorted(self.complete(*words)), words)

    def test_values_of_options_are_completed(self):
        self.assertEqual(["name", "size", "time"], sorted(self.complete("list", "--sort", "''")))
        self.assertEqual(["adirectory/"], self.complete("move", "-t", "a"))
        self.assertEqual([], self.complete("list", "--include", "a"))


class ZshTest(CompletionTest):
    """Types command lines into a shell on a terminal. The shell has a function orvfile, which writes its arguments."""

    SHELL = "zsh"
    START = r"""
        unsetopt beep
        fpath=({tools} $fpath)
        autoload -Uz compinit && compinit -u -D
        zmodload zsh/files
        orvfile() {{
            print -rl -- "$@" >|{out}.new && mv {out}.new {out}
        }}
        orvfile ready
    """

    def setUp(self):
        super().setUp()
        self.out = os.path.join(self.make_dir("/var/tmp"), "out")
        self.child, self.terminal = pty.fork()
        if self.child == 0:
            os.chdir(self.dir)
            environment = {**os.environ, "TERM": "vt100", "HOME": self.dir, "LC_ALL": "C"}
            os.execvpe("zsh", ["zsh", "-f", "-i"], environment)
        self.addCleanup(self.end)
        start = self.write(self.out + ".start",
                           self.START.format(tools=shlex.quote(TOOLS), out=shlex.quote(self.out)).encode())  # fmt: skip
        self.assertEqual(["ready"], self.answer(f"source {shlex.quote(start)}"))

    def end(self):
        os.close(self.terminal)  # the shell is hung up
        os.waitpid(self.child, 0)

    def answer(self, typed):
        """Returns the arguments that the function gets from what is typed."""
        if os.path.exists(self.out):
            os.unlink(self.out)
        os.write(self.terminal, typed.encode() + b"\n")
        deadline = time.monotonic() + PATIENCE_SECONDS
        shown = b""
        os.set_blocking(self.terminal, False)
        while not os.path.exists(self.out):
            self.assertLess(time.monotonic(), deadline, f"no answer to {typed!r}:\n{shown.decode(errors='replace')}")
            try:
                shown += os.read(self.terminal, 65536)
            except BlockingIOError:
                time.sleep(0.005)
        with open(self.out, encoding="utf-8") as file:
            return [line.rstrip("/") for line in file.read().splitlines()]

    def complete(self, *words):
        """Returns the words after the last one was completed by the tabulator."""
        return self.answer(" ".join(["orvfile", *words]) + "\t")

    def unique(self, name, names):
        """Returns the shortest beginning of a name that no other one has; all of it, if another one begins with it."""
        others = [other for other in names if other != name]
        fits = [name[:end] for end in range(3, len(name)) if not any(other.startswith(name[:end]) for other in others)]
        return fits[0] if fits else name

    def test_commands_and_options_are_those_of_the_help(self):
        for command in COMMANDS:
            self.assertEqual([command], self.complete(self.unique(command, COMMANDS)))
        for command in ["", *COMMANDS]:
            names = [name for name in self.names_in_help(command) if name.startswith("--")]
            for name in names:
                words = [command] if command else []
                beginning = self.unique(name, names)
                self.assertEqual([*words, name], self.complete(*words, beginning), beginning)

    def test_options_that_do_not_exist_are_not_offered(self):
        self.assertEqual(["exists", "--js"], self.complete("exists", "--js"))
        self.assertEqual(["bogus", "--js"], self.complete("bogus", "--js"))

    def test_operands_are_paths_or_words_or_nothing(self):
        for words, expected in ((["exists", "af"], "afile"), (["exists", "ad"], "adirectory"), (["list", "a"], "adirectory"),
                                (["mkdir", "a"], "adirectory"), (["row", "af"], "af"), (["get", "af"], "afile"),
                                (["get", "f", "af"], "af"), (["page", "f", "af"], "afile"), (["explain", "af"], "af"),
                                (["completion", "fi"], "fish")):  # fmt: skip
            self.assertEqual([*words[:-1], expected], self.complete(*words))

    def test_values_of_options_are_completed(self):
        self.assertEqual(["list", "--sort", "time"], self.complete("list", "--sort", "ti"))
        self.assertEqual(["move", "-t", "adirectory"], self.complete("move", "-t", "a"))
        self.assertEqual(["list", "--include", "af"], self.complete("list", "--include", "af"))


del CompletionTest  # has no tests of its own

if __name__ == "__main__":
    tool.main()
