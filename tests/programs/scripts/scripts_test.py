#!/usr/bin/env python3
"""Calls the scripts of script/ as on a machine where nothing is installed, and checks what they would install.

Their PATH has the commands that every Debian system has, an apt-get that writes down what it is asked for and then
fails, and an id that reports root.
"""

import hashlib
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

import orv_test

TOP = pathlib.Path(orv_test.ROOT)
sys.path.append(str(TOP / "board"))
import suite  # noqa: E402
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
            ("fetch-source", ["busybox"], "a package or a directory is missing"),
            ("board", ["run"], "a command is missing"),
            ("board", ["test", "ntfs"], "unknown file system: ntfs"),
            ("board", ["bogus"], "unknown action: bogus"),
            ("board", ["campaigns", "more"], "unexpected argument: more"),
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

    def test_the_board_installs_what_unpacks_its_sources(self):
        self.call("board", "build")

        self.assertLessEqual({"linux-source-6.1", "xz-utils", "bzip2"}, self.installed())

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

    def test_to_ask_for_a_kept_kernel_installs_nothing(self):
        run = self.call("board", "kept")

        self.assertEqual((1, "", ""), (run.returncode, run.stdout, run.stderr))
        self.assertFalse(self.asked.exists())

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


CTEST = """#!/bin/sh
while [ $# != 0 ]; do
    case $1 in --output-junit) cp '{results}' "$2" ;; esac
    shift
done
"""
CASE = '<testcase name="{name}" status="{status}">{skipped}<system-out>{output}</system-out></testcase>'
SUITE = "[  PASSED  ] 3 tests.\n"
SKIPPING = """[ RUN      ] MoveTest.Crosses
move_test.cpp:7: Skipped
one file system

[  SKIPPED ] MoveTest.Crosses (0 ms)
[  PASSED  ] 0 tests.
[  SKIPPED ] 1 test, listed below:
"""


class CountingTest(unittest.TestCase):
    """What script/test makes of the results of ctest, in a copy of script/ where the suite `some` demands three tests."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="orv_test.")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        shutil.copytree(TOP / "script", self.folder / "script")
        (self.folder / "script" / "minimum-tests.txt").write_text("# Comment\nsome 3\n", encoding="utf-8")

    def count(self, *cases, name="some", user=0, no_skip=False):
        """The exit status and the output of script/test's functions for these results."""
        results = self.folder / "given.xml"
        results.write_text(f"<testsuite>{''.join(cases)}</testsuite>", encoding="utf-8")
        for command, text in (("ctest", CTEST.format(results=results)), ("id", f"#!/bin/sh\necho {user}\n")):
            path = self.folder / command
            path.write_text(text, encoding="utf-8")
            path.chmod(0o755)
        environment = {**os.environ, "PATH": f"{self.folder}:{os.environ['PATH']}"}
        environment.pop("ORV_NO_SKIP", None)
        allow = "" if no_skip else "unset ORV_NO_SKIP; "
        run = subprocess.run(
            ["bash", "-euc", f". script/checks.sh; {allow}run_tests {name} ctest; finish"], cwd=self.folder,
            env=environment, check=False, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        return run.returncode, run.stdout

    def case(self, name, output="", status="run", skipped=""):
        mark = f'<skipped message="{skipped}"/>' if skipped else ""
        return CASE.format(name=name, status=status, skipped=mark, output=output)

    def skipping(self):
        return self.case("MoveTest.Crosses", SKIPPING, "notrun", "SKIP_REGULAR_EXPRESSION_MATCHED")

    def test_a_suite_counts_as_many_as_it_holds(self):
        status, said = self.count(self.case("Suite", SUITE), self.case("Single"))

        self.assertEqual(0, status, said)
        self.assertTrue(said.endswith("\n4 passed, 0 failed\n"), said)

    def test_fewer_tests_than_demanded_are_a_failure(self):
        for cases in ([], [self.case("A"), self.case("B")]):
            status, said = self.count(*cases)

            self.assertEqual(1, status)
            self.assertIn(f"some: only {len(cases)} tests ran, of 3 that script/minimum-tests.txt demands\n", said)

    def test_a_suite_without_a_number_is_a_failure(self):
        status, said = self.count(self.case("Suite", SUITE), name="other")

        self.assertEqual(1, status)
        self.assertIn("other: script/minimum-tests.txt has no number for it\n", said)

    def test_a_program_that_was_not_built_is_a_failure(self):
        status, said = self.count(self.case("Suite", SUITE), self.case("Gone", "", "notrun", "Unable to find executable"))

        self.assertEqual(1, status)
        self.assertIn("FAILED: Gone\n", said)
        self.assertTrue(said.endswith("\n3 passed, 1 failed\n"), said)

    def test_a_skipped_test_is_named_below_its_reason(self):
        python_test = self.case("Board", "SKIPPED: no systemd-analyze\n", "notrun", "SKIP_RETURN_CODE=77")

        status, said = self.count(self.case("Suite", SUITE), self.skipping(), python_test)

        self.assertEqual(0, status, said)
        self.assertIn("SKIPPED: one file system\n  MoveTest.Crosses\n", said)
        self.assertIn("SKIPPED: no systemd-analyze\n  Board\n", said)
        self.assertIn("some: 3 passed, 0 failed, 2 skipped\n", said)

    def test_a_skipped_test_is_a_failure_where_nothing_may_be_skipped(self):
        status, said = self.count(self.case("Suite", SUITE), self.skipping(), no_skip=True)

        self.assertEqual(1, status)
        self.assertTrue(said.endswith("\n3 passed, 1 failed\n"), said)

    def test_skipped_tests_count_as_run_for_an_ordinary_user_alone(self):
        cases = [self.case("A"), self.case("B"), self.skipping()]

        self.assertEqual(1, self.count(*cases, user=0)[0])
        self.assertEqual(0, self.count(*cases, user=1000)[0])


BOARD = """#!/bin/sh
echo "$@" >>'{log}'
[ "$1" != '{failing}' ]
"""


class QuickBoardTest(unittest.TestCase):
    """The step board-quick of script/test and `script/board kept`, in a copy of script/ and board/."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="orv_test.")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.log = self.folder / "called"
        for name in ("script", "board"):
            shutil.copytree(TOP / name, self.folder / name)
        (self.folder / "script" / "packages.sh").write_text("declare -A packages=([board-quick]=)\n", encoding="utf-8")
        (self.folder / "commands").mkdir()

    def add_command(self, path, text):
        command = self.folder / path
        command.write_text(text, encoding="utf-8")
        command.chmod(0o755)

    def call(self, *command, **environment):
        kept = {name: value for name, value in os.environ.items() if name != "ORV_NO_SKIP"}
        path = f"{self.folder}/commands:{os.environ['PATH']}"
        run = subprocess.run(command, cwd=self.folder, env={**kept, "PATH": path, **environment}, check=False,
                             stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)  # fmt: skip
        return run.returncode, run.stdout

    def step(self, failing="nothing", user=0, **environment):
        """Returns the exit status and the output of the step, and how it called script/board, which fails one action."""
        self.log.unlink(missing_ok=True)
        self.add_command("script/board", BOARD.format(log=self.log, failing=failing))
        self.add_command("commands/id", f"#!/bin/sh\necho {user}\n")
        return *self.call("script/test", "board-quick", **environment), self.log.read_text(encoding="utf-8").splitlines()

    def test_runs_tests_and_power_cuts(self):
        status, said, calls = self.step()

        self.assertEqual((0, ["kept", "quick", "power-cuts 3"]), (status, calls), said)
        self.assertTrue(said.endswith("\n2 passed, 0 failed\n"), said)

    def test_each_part_can_fail(self):
        for failing in ("quick", "power-cuts"):
            status, said, _ = self.step(failing)

            self.assertEqual(1, status)
            self.assertTrue(said.endswith("\n1 passed, 1 failed\n"), said)

    def test_says_how_to_make_the_kernel_if_it_is_not_kept(self):
        reason = "the kernel of the board must be compiled first, which takes ten minutes: script/board build"

        status, said, calls = self.step("kept")

        self.assertEqual((0, ["kept"]), (status, calls), said)
        self.assertIn(f"SKIPPED: board-quick: {reason}\n", said)
        self.assertIn(f"\nSkipped:\n  board-quick: {reason}\n\n0 passed, 0 failed\n", said)

    def test_the_caller_may_demand_the_kernel(self):
        status, said, _ = self.step("kept", ORV_NO_SKIP="1")

        self.assertEqual(1, status)
        self.assertTrue(said.endswith("\n0 passed, 1 failed\n"), said)

    def test_the_long_form_compiles_the_kernel(self):
        self.add_command("script/board", BOARD.format(log=self.log, failing="kept"))

        self.call("script/test", "--full", "board-quick")

        self.assertIn("quick", self.log.read_text(encoding="utf-8").splitlines())

    def test_an_ordinary_user_skips_the_power_cuts(self):
        status, said, calls = self.step(user=1000)

        self.assertEqual((0, ["kept", "quick"]), (status, calls), said)
        self.assertIn("SKIPPED: board-quick: power cuts need root\n", said)

    def test_a_kernel_is_kept_for_one_configuration_and_compiler(self):
        made = self.folder / "build" / "board-machine"
        made.mkdir(parents=True)
        self.add_command("commands/dpkg-query", "#!/bin/sh\nprintf 6.1.1")
        self.add_command("commands/powerpc-linux-gnu-gcc", "#!/bin/sh\necho gcc 12\n")
        self.assertEqual((1, ""), self.call("script/board", "kept"))
        for name, config in (("kernel", "kernel.config"), ("busybox", "busybox.config")):
            text = (TOP / "board" / config).read_bytes() + b"gcc 12\n6.1.1"
            (made / f"{name}-{hashlib.sha256(text).hexdigest()[:16]}").mkdir()
        self.assertEqual((1, ""), self.call("script/board", "kept"), "a folder is not a kernel")
        kernel = next(made.glob("kernel-*"))
        kernel.rmdir()
        kernel.touch()
        self.assertEqual((0, ""), self.call("script/board", "kept"))

        for path, text in (("commands/powerpc-linux-gnu-gcc", "#!/bin/sh\necho gcc 13\n"), ("board/kernel.config", "#\n")):
            before = (self.folder / path).read_text(encoding="utf-8")
            self.add_command(path, text)
            self.assertEqual((1, ""), self.call("script/board", "kept"), path)
            self.add_command(path, before)
        self.assertEqual((0, ""), self.call("script/board", "kept"))
        next(made.glob("busybox-*")).rmdir()
        self.assertEqual((1, ""), self.call("script/board", "kept"))


BOARD_OUTPUT = """[ RUN      ] MoveTest.Moves
[       OK ] MoveTest.Moves (3 ms)
[ RUN      ] MoveTest.Fails/one
move_test.cpp:7: Failure
[  FAILED  ] MoveTest.Fails/one, where GetParam() = 1 (3 ms)
[ RUN      ] MoveTest.Skips
move_test.cpp:9: Skipped
only root
[  SKIPPED ] MoveTest.Skips (0 ms)
[ RUN      ] MoveTest.Crashes
"""
BOARD_EXCEPTIONS = """# Comment
ext4 vfat, root, fails: no links
    MoveTest.Fails/one
    MoveTest.Moves

vfat, root nobody, not run: slow
    MoveTest.Slow
"""


class BoardTest(unittest.TestCase):
    """What script/board makes of the output of test programs."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="orv_test.")
        self.addCleanup(folder.cleanup)
        self.addCleanup(setattr, suite, "EXCEPTIONS", suite.EXCEPTIONS)
        suite.EXCEPTIONS = pathlib.Path(folder.name) / "exceptions.txt"
        suite.EXCEPTIONS.write_text(BOARD_EXCEPTIONS, encoding="utf-8")
        self.results = suite.results_in(BOARD_OUTPUT)

    def test_a_test_that_does_not_end_has_failed(self):
        states = {name: result.state for name, result in self.results.items()}

        self.assertEqual({"MoveTest.Moves": "OK", "MoveTest.Fails/one": "FAILED", "MoveTest.Skips": "SKIPPED",
                          "MoveTest.Crashes": "FAILED"}, states)  # fmt: skip

    def test_exceptions_belong_to_file_systems_and_users(self):
        listed = ["MoveTest.Fails/one", "MoveTest.Moves"]
        self.assertEqual((listed, []), suite.exceptions_for("ext4", "root"))
        self.assertEqual((listed, ["MoveTest.Slow"]), suite.exceptions_for("vfat", "root"))
        self.assertEqual(([], ["MoveTest.Slow"]), suite.exceptions_for("vfat", "nobody"))
        self.assertIn("MoveTest.Slow", suite.filter_for("vfat", "nobody"))

    def test_a_listed_test_must_fail_and_no_other_may(self):
        wrong, skipped = suite.judge("ext4", "root", self.results)
        self.assertEqual({"MoveTest.Moves", "MoveTest.Skips", "MoveTest.Crashes"}, set(wrong))
        self.assertEqual([], skipped)

        del self.results["MoveTest.Fails/one"]
        self.assertIn("MoveTest.Fails/one", suite.judge("ext4", "root", self.results)[0])
        self.assertNotIn("MoveTest.Fails/one", suite.judge("ext4", "root", self.results, is_quick=True)[0])

        wrong, skipped = suite.judge("ext4", "nobody", suite.results_in(BOARD_OUTPUT))
        self.assertEqual({"MoveTest.Fails/one", "MoveTest.Crashes"}, set(wrong))
        self.assertEqual(["MoveTest.Skips"], skipped)

    def test_a_quick_run_leaves_out_what_is_slow_and_demands_less(self):
        self.assertIn(suite.SLOW[0], suite.filter_for("tmpfs", "root", is_quick=True))
        self.assertNotIn(suite.SLOW[0], suite.filter_for("tmpfs", "root"))
        self.assertGreater(suite.minimum(False), suite.minimum(True))


if __name__ == "__main__":
    orv_test.run_unittests()
