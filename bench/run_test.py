#!/usr/bin/env python3
"""Counts instructions with valgrind and compares them with stored counts. Usage: run_test.py PROGRAM"""

import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

PROGRAM = sys.argv.pop()
ROW = "AddTextFileFormattedRow"


class GateTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.directory = pathlib.Path(directory.name)
        self.stored = self.directory / "instructions.txt"
        self.count("--store")

    def count(self, option):
        return subprocess.run(
            [sys.executable, "-B", pathlib.Path(__file__).with_name("run.py"), "--program", PROGRAM, "--output",
             self.directory, "--stored", self.stored, "--filter", "^row/cells:64$", "--instructions", option],
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)

    def change(self, pattern, replacement):
        text = self.stored.read_text()
        changed = re.sub(pattern, replacement, text, flags=re.MULTILINE)
        self.assertNotEqual(text, changed)
        self.stored.write_text(changed)

    def test_the_same_program_has_the_same_counts(self):
        run = self.count("--quick")

        self.assertEqual(0, run.returncode, run.stdout)
        self.assertIn("None of the 1 calls has grown", run.stdout)

    def test_a_call_that_grew_is_a_failure_with_the_function_that_grew(self):
        self.change(r"^row/cells:64 \d+$", "row/cells:64 1000")
        self.change(rf"^  \d+ (.*{ROW}.*)$", r"  500 \1")

        run = self.count("--quick")

        self.assertEqual(1, run.returncode, run.stdout)
        self.assertRegex(run.stdout, rf"row/cells:64: 1,000 before, [\d,]+ now; grown:\n  \+[\d,]+  .*{ROW}")

    def test_counts_of_another_compiler_are_not_compared(self):
        self.change(r"^row/cells:64 \d+$", "row/cells:64 1000")
        self.change(r"^# g\+\+.*$", "# another compiler")

        run = self.count("--quick")

        self.assertEqual(0, run.returncode, run.stdout)
        self.assertIn("Not compared: the stored instruction counts do not apply here", run.stdout)


if __name__ == "__main__":
    unittest.main()
