#!/usr/bin/env python3
"""Installs the status board with its service, runs the program, and lets systemd check the service.

Usage: statusboard_service_test.py CMAKE BUILD
Ends with 77 when there is no systemd-analyze, which fails where ORV_NO_SKIP is set.
"""

import os
import re
import subprocess
import sys
import tempfile
import unittest

import orv_test

MAX_EXPOSURE = 25  # of 100, as systemd counts it; a service without any restriction has 96
# What keeps the service from the rest of the machine, and what restarts it. Most of it makes no difference to the page.
SETTINGS = """
Restart=on-failure RestartSec=10 DynamicUser=yes RuntimeDirectory=statusboard RuntimeDirectoryMode=0755 UMask=0022
PrivateTmp=yes ProtectSystem=strict ProtectHome=yes PrivateDevices=yes ProtectKernelTunables=yes
ProtectKernelModules=yes ProtectKernelLogs=yes ProtectControlGroups=yes ProtectClock=yes ProtectHostname=yes
NoNewPrivileges=yes CapabilityBoundingSet= RestrictNamespaces=yes RestrictRealtime=yes RestrictSUIDSGID=yes
LockPersonality=yes MemoryDenyWriteExecute=yes SystemCallArchitectures=native SystemCallFilter=@system-service
RestrictAddressFamilies=AF_NETLINK
""".split()
CMAKE = ""
BUILD = ""


class StatusboardServiceTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory(prefix="orv_test.")
        self.addCleanup(directory.cleanup)
        self.prefix = directory.name
        for component in ("runtime", "statusboard"):
            subprocess.run([CMAKE, "--install", BUILD, "--prefix", self.prefix, "--component", component], check=True,
                           stdout=subprocess.DEVNULL)
        with open(os.path.join(self.prefix, "lib/systemd/system/statusboard.service"), encoding="utf-8") as file:
            self.unit = file.read()
        self.command = re.search(r"^ExecStart=(.*)$", self.unit, re.M)[1].split()

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

    def test_the_command_of_the_service_publishes_a_page_with_the_installed_files(self):
        self.assertEqual([os.path.join(self.prefix, "bin/statusboard"), "--watch", "--page",
                          "/run/statusboard/statusboard.html", os.path.join(self.prefix, "etc/statusboard.conf")],
                         self.command)
        page = os.path.join(self.prefix, "statusboard.html")
        subprocess.run([self.command[0], "--page", page, self.command[-1]], check=True)
        self.assertTrue(os.path.getsize(page) > 0)

    def test_the_installed_program_does_not_look_for_libraries_in_the_build_tree(self):
        dynamic = subprocess.run(["readelf", "--dynamic", "--wide", self.command[0]], check=True, text=True,
                                 stdout=subprocess.PIPE).stdout
        self.assertEqual(["$ORIGIN/../lib"], re.findall(r"R(?:UN)?PATH.*\[(.*)\]", dynamic))

    def test_the_first_lines_name_the_installed_files(self):
        for name in (self.command[-1], os.path.join(self.prefix, "lib/systemd/system/statusboard.service")):
            self.assertIn(name, self.unit.split("[Unit]")[0])
            self.assertTrue(os.path.exists(name), name)

    def test_systemd_reports_nothing(self):
        self.assertEqual((0, ""), self.analyze(self.unit, "verify"))

    def test_systemd_would_report_an_unknown_setting(self):
        self.assertIn("PrivateTemp", self.analyze(self.unit.replace("PrivateTmp", "PrivateTemp"), "verify")[1])

    def test_systemd_would_report_a_missing_program(self):
        self.assertNotEqual(0, self.analyze(self.unit.replace(self.command[0], self.command[0] + ".gone"), "verify")[0])

    def test_the_service_may_do_little(self):
        exposure = ["security", "--offline=true", f"--threshold={MAX_EXPOSURE}"]
        status, said = self.analyze(self.unit, *exposure)
        self.assertEqual(0, status, said)

    def test_the_service_is_set_up_as_reviewed(self):
        section = self.unit.split("[Service]\n")[1].split("[Install]\n")[0]
        settings = [line for line in section.splitlines() if line and not line.startswith(("#", "ExecStart="))]

        self.assertEqual(SETTINGS, settings)

    def test_systemd_would_report_a_service_without_restrictions(self):
        open_unit = f"[Service]\nExecStart={self.command[0]}\n"
        self.assertNotEqual(0, self.analyze(open_unit, "security", "--offline=true", f"--threshold={MAX_EXPOSURE}")[0])


if __name__ == "__main__":
    BUILD = sys.argv.pop()
    CMAKE = sys.argv.pop()
    orv_test.require("systemd-analyze")  # Debian: systemd
    orv_test.run_unittests()
