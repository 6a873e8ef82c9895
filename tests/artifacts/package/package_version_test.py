#!/usr/bin/env python3
"""The version that script/package gives to the packages, in repositories of its own."""

import os
import re
import shutil
import subprocess
import tempfile
import unittest

import orv_test

VERSION = re.search(r"^ +VERSION ([\d.]+)$", orv_test.read("CMakeLists.txt"), re.M)[1]
SNAPSHOT = rf"^{re.escape(VERSION)}~git20310203040506\.[0-9a-f]{{10}}$"
NAMES = {f"GIT_{who}_{what}": value for who in ("AUTHOR", "COMMITTER") for what, value in (
    ("NAME", "A"), ("EMAIL", "a@example.org"), ("DATE", "2031-02-03T05:05:06+01:00"))}


class PackageVersionTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory(prefix="orv_test.")
        self.addCleanup(directory.cleanup)
        self.top = directory.name
        shutil.copytree(os.path.join(orv_test.ROOT, "script"), os.path.join(self.top, "script"))
        shutil.copy(os.path.join(orv_test.ROOT, "CMakeLists.txt"), self.top)

    def git(self, *arguments):
        subprocess.run(["git", *arguments], cwd=self.top, check=True, env={**os.environ, **NAMES}, stdout=subprocess.DEVNULL)

    def commit(self):
        self.git("init", "--quiet")
        self.git("add", ".")
        self.git("commit", "--quiet", "--message=new")

    def version(self):
        home = {"HOME": self.top, "XDG_CONFIG_HOME": self.top}  # without the settings of this user
        return subprocess.run(
            [os.path.join(self.top, "script/package"), "--version"], stdout=subprocess.PIPE, text=True, check=True,
            env={**os.environ, **home}).stdout.strip()

    def test_a_snapshot_has_the_time_in_utc_and_the_commit(self):
        self.commit()
        self.assertRegex(self.version(), SNAPSHOT)

    def test_a_snapshot_sorts_before_its_release(self):
        self.commit()
        subprocess.run(["dpkg", "--compare-versions", self.version(), "lt", VERSION], check=True)

    def test_a_tagged_commit_has_the_version_alone(self):
        self.commit()
        self.git("tag", f"v{VERSION}")
        self.assertEqual(VERSION, self.version())

    def test_another_tag_is_not_a_release(self):
        self.commit()
        self.git("tag", f"v{VERSION}0")
        self.assertRegex(self.version(), SNAPSHOT)

    def test_without_git_the_origin_is_unknown(self):
        self.assertEqual(f"{VERSION}~unknown", self.version())

    @unittest.skipIf(os.geteuid() != 0, "only root can give files away")
    def test_root_may_pack_the_checkout_of_another_user(self):
        self.commit()
        for folder, _, names in os.walk(self.top):
            for name in ["", *names]:
                os.chown(os.path.join(folder, name), 65534, 65534, follow_symlinks=False)
        self.assertRegex(self.version(), SNAPSHOT)


if __name__ == "__main__":
    orv_test.require("git")
    orv_test.require("dpkg")
    orv_test.run_unittests()
