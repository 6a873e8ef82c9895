#!/usr/bin/env python3
"""Lets systemd check examples/statusboard.service, with the path of the program that was built.

Usage: statusboard_service_test.py PROGRAM
Ends with 77 when there is no systemd-analyze, which fails where ORV_NO_SKIP is set.
"""

import os
import subprocess
import sys
import tempfile
import unittest

import orv_test

SERVICE = os.path.join(orv_test.ROOT, "examples", "statusboard.service")
INSTALLED = "/usr/local/bin/statusboard"
MAX_EXPOSURE = 25  # of 100, as systemd counts it; a service without any restriction has 96
PROGRAM = ""


class StatusboardServiceTest(unittest.TestCase):
    def setUp(self):
        with open(SERVICE, encoding="utf-8") as file:
            self.unit = file.read()
        self.assertIn(f"ExecStart={INSTALLED} ", self.unit)
        self.unit = self.unit.replace(INSTALLED, PROGRAM)

    def analyze(self, unit, *command):
        """Exit status and output of systemd-analyze for the unit."""
        with tempfile.TemporaryDirectory(prefix="orv_test.") as directory:
            path = os.path.join(directory, "statusboard.service")
            with open(path, "w", encoding="utf-8") as file:
                file.write(unit)
            run = subprocess.run(
                ["systemd-analyze", *command, path], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                check=False)
        return run.returncode, run.stdout

    def test_systemd_reports_nothing(self):
        self.assertEqual((0, ""), self.analyze(self.unit, "verify"))

    def test_systemd_would_report_an_unknown_setting(self):
        self.assertIn("PrivateTemp", self.analyze(self.unit.replace("PrivateTmp", "PrivateTemp"), "verify")[1])

    def test_systemd_would_report_a_missing_program(self):
        self.assertNotEqual(0, self.analyze(self.unit.replace(PROGRAM, PROGRAM + ".gone"), "verify")[0])

    def test_the_service_may_do_little(self):
        exposure = ["security", "--offline=true", f"--threshold={MAX_EXPOSURE}"]
        status, said = self.analyze(self.unit, *exposure)
        self.assertEqual(0, status, said)
        for setting in ("PrivateTmp=yes", "DynamicUser=yes", "ProtectSystem=strict"):
            self.assertIn(f"\n{setting}\n", self.unit)

    def test_systemd_would_report_a_service_without_restrictions(self):
        open_unit = f"[Service]\nExecStart={PROGRAM}\n"
        self.assertNotEqual(0, self.analyze(open_unit, "security", "--offline=true", f"--threshold={MAX_EXPOSURE}")[0])


if __name__ == "__main__":
    PROGRAM = sys.argv.pop()
    orv_test.require("systemd-analyze")  # Debian: systemd
    orv_test.run_unittests()
