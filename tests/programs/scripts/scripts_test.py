#!/usr/bin/env python3
"""Calls the scripts of script/ as on a machine where nothing is installed, and checks what they would install.

Their PATH has the commands that every Debian system has, an apt-get that writes down what it is asked for and then
fails, and an id that reports root.
"""

import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest

TOP = pathlib.Path(__file__).resolve().parents[3]
ESSENTIAL = ["awk", "bash", "cat", "cp", "dirname", "env", "grep", "mkdir", "mktemp", "nproc", "realpath", "rm", "sed",
             "sort", "tail", "tr"]  # fmt: skip
APT_GET = """#!/bin/sh
echo "$@" >>'{log}'
case $1 in install) exit 100 ;; esac
"""


def scripts():
    """Returns the programs of script/ that people call."""
    return sorted(path.name for path in (TOP / "script").iterdir() if os.access(path, os.X_OK) and not path.suffix)


class ScriptsTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="orv_test.")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.commands = self.folder / "commands"
        self.commands.mkdir()
        self.asked = self.folder / "asked"
        for name in ESSENTIAL:
            (self.commands / name).symlink_to(shutil.which(name))
        self.add_command("apt-get", APT_GET.format(log=self.asked))
        self.add_command("id", "#!/bin/sh\necho 0\n")
        self.add_command("dpkg", "#!/bin/sh\necho amd64\n")

    def add_command(self, name, text):
        command = self.commands / name
        command.write_text(text, encoding="utf-8")
        command.chmod(0o755)

    def call(self, script, *arguments, **environment):
        return subprocess.run(
            [f"script/{script}", *arguments], cwd=TOP, env={"PATH": str(self.commands), **environment}, check=False,
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)

    def installed(self):
        """Returns the packages that apt-get was called with. The test fails if it was called twice."""
        lines = self.asked.read_text(encoding="utf-8").splitlines() if self.asked.exists() else []
        requests = [line for line in lines if line.startswith("install ")]
        self.assertLessEqual(len(requests), 1, requests)
        return {word for line in requests for word in line.split()[1:] if not word.startswith("-")}

    def test_help_prints_the_usage_and_installs_nothing(self):
        for script in scripts():
            with self.subTest(script=script):
                run = self.call(script, "--help")

                self.assertEqual((0, ""), (run.returncode, run.stderr))
                self.assertIn(f"\nUsage: script/{script}", run.stdout)
                self.assertFalse(self.asked.exists())

    def test_an_unknown_option_prints_the_usage_and_installs_nothing(self):
        for script in scripts():
            with self.subTest(script=script):
                run = self.call(script, "--no-such-option")

                self.assertEqual((2, ""), (run.returncode, run.stdout))
                first = run.stderr.splitlines()[0]
                self.assertEqual(f"script/{script}: unknown option: --no-such-option", first)
                self.assertIn(f"\nUsage: script/{script}", run.stderr)
                self.assertFalse(self.asked.exists())

    def test_other_wrong_command_lines_print_the_usage_and_install_nothing(self):
        for script, arguments, message in (
            ("test", ["no-such-step"], "unknown step: no-such-step"),
            ("test", ["format", "--no-such-option"], "unknown option: --no-such-option"),
            ("bench", ["--filter"], "missing value of the option: --filter"),
            ("coverage", ["more"], "unexpected argument: more"),
            ("fuzz", [], "give SECONDS or --executions N"),
            ("fuzz", ["30", "--executions", "30"], "give SECONDS or --executions N"),
            ("package", ["mips"], "cannot build for mips, only for amd64 and powerpc"),
            ("fetch-libcsv", [], "a directory is missing"),
        ):
            with self.subTest(script=script, arguments=arguments):
                run = self.call(script, *arguments)

                self.assertEqual((2, ""), (run.returncode, run.stdout))
                self.assertEqual(f"script/{script}: {message}", run.stderr.splitlines()[0])
                self.assertIn(f"\nUsage: script/{script}", run.stderr)
                self.assertFalse(self.asked.exists())

    def test_a_step_installs_what_it_needs_and_nothing_else(self):
        for script, arguments, packages in (
            ("test", ["shell"], {"shellcheck"}),
            ("test", ["format"], {"clang-format"}),
            ("test", ["shell", "format"], {"shellcheck", "clang-format"}),
            ("test", ["size"], {"cmake", "ninja-build", "g++-powerpc-linux-gnu"}),
            ("demo", [], {"cmake", "make", "g++"}),
            ("docs", [], {"doxygen"}),
        ):
            with self.subTest(script=script, arguments=arguments):
                self.asked.unlink(missing_ok=True)

                run = self.call(script, *arguments)

                self.assertEqual(1, run.returncode, run.stderr)
                self.assertEqual(packages, self.installed())
                self.assertIn("apt-get could not install:", run.stderr)

    def test_every_step_knows_its_packages(self):
        for step in self.steps():
            with self.subTest(step=step):
                self.asked.unlink(missing_ok=True)

                self.call("test", step)

                self.assertTrue(self.installed())

    def test_every_step_of_the_usage_is_written(self):
        text = (TOP / "script" / "test").read_text(encoding="utf-8")

        self.assertEqual(set(re.findall(r"(?m)^step_([\w-]+)\(\)", text)), set(self.steps()))

    def steps(self):
        return re.findall(r"(?m)^  ([a-z][a-z0-9-]*)(?: \*)?  ", self.call("test", "--help").stdout)

    def test_a_command_that_is_there_is_not_installed_as_a_package(self):
        self.call("test", "browser")
        self.assertLessEqual({"nodejs", "npm", "g++"}, self.installed())
        self.asked.unlink()
        for name in ("node", "npm", "g++"):
            self.add_command(name, "#!/bin/sh\n")

        self.call("test", "browser")

        self.assertTrue(self.installed())
        self.assertFalse({"nodejs", "npm", "g++"} & self.installed())

    def test_an_ordinary_user_reads_what_to_install(self):
        self.add_command("id", "#!/bin/sh\necho 1000\n")

        run = self.call("test", "format")

        self.assertEqual(1, run.returncode)
        self.assertIn("apt-get install --no-install-recommends clang-format\n", run.stderr)
        self.assertFalse(self.asked.exists())

    def test_CDPATH_does_no_harm(self):
        (self.folder / "script").mkdir()
        for script in scripts():
            with self.subTest(script=script):
                run = self.call(script, "--help", CDPATH=str(self.folder))

                self.assertEqual((0, ""), (run.returncode, run.stderr))
                self.assertNotIn(str(self.folder), run.stdout)

    def test_the_demo_does_not_build_the_tool(self):
        log = self.folder / "cmake.log"
        self.add_command("cmake", f"#!/bin/sh\necho \"$@\" >'{log}'\nexit 1\n")
        for name in ("make", "g++"):
            self.add_command(name, "#!/bin/sh\n")

        self.call("demo")

        self.assertIn(" -DORV_BUILD_TOOLS=OFF ", log.read_text(encoding="utf-8"))


if __name__ == "__main__":
    unittest.main(verbosity=2)
