"""What the tests of orvfile share: they run the program as its users do.

A test ends with 77 when something was skipped, which fails where ORV_NO_SKIP is set. SHIM is the library of shim.cpp,
for the program's machine.
"""

import functools
import os
import resource
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

import orv_test
from oracle import PAGE_FOOTER, PAGE_HEADER, temporary_page
from pages import text, without_capabilities

SHIM = []
PROGRAM = []
PATIENCE_SECONDS = int(os.environ.get("ORV_PATIENCE", 60))  # after this, a wait has failed
COMMANDS = ["exists", "move", "copy", "mkdir", "list", "row", "page", "get", "set", "unset", "explain",
            "completion"]


def problem(message, remedy):
    return f"orvfile: {message}\n  Next: {remedy}\n"


def limited_to(size):
    """For a child whose files may not grow beyond `size`: its writes then fail, as on a full disk."""

    def limit():
        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
        resource.setrlimit(resource.RLIMIT_FSIZE, (size, size))

    return limit


class ToolTest(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.dir = self.make_dir("/var/tmp")

    @functools.cached_property
    def other(self):
        """A directory on another file system; skips the test where no other one is writable."""
        base = orv_test.other_file_system()
        if not base:
            self.skipTest("no file system besides that of /var/tmp is writable")
        return self.make_dir(base)

    def make_dir(self, base):
        path = tempfile.mkdtemp(prefix="orv_test.", dir=base)
        os.chmod(path, 0o755)
        self.addCleanup(shutil.rmtree, path)
        return path

    def path(self, name):
        return os.path.join(self.dir, name)

    def write(self, path, data=b"", mode=0o644):
        path = os.path.join(self.dir, path)
        with open(path, "wb") as file:
            file.write(data)
        os.chmod(path, mode)
        return path

    def read(self, path):
        with open(os.path.join(self.dir, path), "rb") as file:
            return file.read()

    def names(self, directory=None):
        return sorted(os.listdir(directory or self.dir))

    def page_body(self, page="page.html"):
        """What the library has made of the table. The page must be whole."""
        whole = self.read(page)
        self.assertEqual((PAGE_HEADER, PAGE_FOOTER), (whole[: len(PAGE_HEADER)], whole[-len(PAGE_FOOTER) :]))
        return whole[len(PAGE_HEADER) : -len(PAGE_FOOTER)]

    def command(self, arguments, shim):
        """The command line and environment."""
        settings = {f"ORV_SHIM_{name}": value for name, value in shim.items()}
        program, environment = orv_test.preloaded(PROGRAM, SHIM[0], **settings) if shim else (PROGRAM, {**os.environ})
        environment["LC_ALL"] = "C"
        return [*program, *arguments], environment

    def start(self, *arguments, shim=None, **options):
        command, environment = self.command(arguments, shim or {})
        options = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "cwd": self.dir,
                   "env": environment, "restore_signals": False, **options}  # fmt: skip
        try:
            return subprocess.Popen(command, **options)
        except subprocess.SubprocessError:  # from without_capabilities
            self.skipTest("this root may not give up its capabilities")

    def finish(self, process, data=None):
        try:
            out, err = process.communicate(data, timeout=PATIENCE_SECONDS)
        finally:
            process.kill()
        leftover = temporary_page(process.pid)
        self.assertFalse(os.path.lexists(leftover), leftover)
        return process.returncode, out, text(err or b"")

    def run_tool(self, *arguments, data=None, **options):
        if data is not None:
            options["stdin"] = subprocess.PIPE
        return self.finish(self.start(*arguments, **options), data)

    def assert_done(self, *arguments, out=b"", err="", **options):
        self.assertEqual((0, out, err), self.run_tool(*arguments, **options))

    def assert_fails(self, err, *arguments, out=b"", **options):
        self.assertEqual((1, out, err), self.run_tool(*arguments, **options))

    def wait_for(self, condition, process):
        deadline = time.monotonic() + PATIENCE_SECONDS
        while not condition():
            self.assertIsNone(process.poll(), "the program ended")
            self.assertLess(time.monotonic(), deadline, "the condition did not become true in time")
            time.sleep(0.02)


def main():
    """The command line of each test: TEST.py SHIM [EMULATOR...] PROGRAM"""
    if len(sys.argv) < 3:
        sys.exit(main.__doc__)
    PROGRAM.extend(sys.argv[2:])
    SHIM.append(sys.argv[1])
    orv_test.run_unittests()
