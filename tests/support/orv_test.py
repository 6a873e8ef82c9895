"""Shared by the tests in Python: the directory of the sources, the version of the build, and the rule for skipping."""

import atexit
import os
import re
import shutil
import signal
import sys
import tempfile
import unittest

# A shell without job control starts what runs in the background with SIGINT ignored, and nohup ignores SIGHUP. The
# programs under test would inherit that. Python resets its own handler in programs that it starts.
signal.signal(signal.SIGINT, signal.default_int_handler)
signal.signal(signal.SIGHUP, signal.SIG_DFL)

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
VERSION = os.environ.get("ORV_VERSION", "")  # from CMake
MAY_SKIP = "ORV_NO_SKIP" not in os.environ
SKIPPED = 77  # for CTest, see the property SKIP_RETURN_CODE


def skip(reason):
    """Ends a test that cannot run here and prints the reason. If nothing may be skipped, the test fails."""
    print(f"SKIPPED: {reason}", flush=True)
    sys.exit(SKIPPED if MAY_SKIP else "nothing may be skipped here")


def other_file_system():
    """A directory that all users may write to, on another file system than /var/tmp; None where there is none."""
    for directory in ("/dev/shm", "/tmp"):
        if os.access(directory, os.W_OK | os.X_OK) and os.stat(directory).st_dev != os.stat("/var/tmp").st_dev:
            return directory
    return None


def require(program):
    """Skips the test if the program is not installed."""
    if not shutil.which(program):
        skip(f"no {program}")


def read(*path):
    """Returns the text of a file of the sources."""
    with open(os.path.join(ROOT, *path), encoding="utf-8") as file:
        return file.read()


def declarations(*header):
    """Returns what a header declares in its namespace, one function each. Types are left out."""
    code = re.sub(r"(?m)//.*|^ *#.*|__attribute__\(\(.*?\)\)", "", read(*header))
    body = re.search(r"namespace \w+ {(.*)}", code, re.S)[1]
    body = re.sub(r"(?ms)^(?:struct|class|enum) \w+(?: {.*?^})?;", "", body)
    return [" ".join(one.split()) for one in body.split(";") if one.strip()]


def function_name(declaration):
    return re.search(r"(\w+)\(", declaration)[1]


def finish(problems):
    """Ends a test that has collected its problems."""
    for problem in problems:
        print(problem)
    sys.exit(1 if problems else 0)


def run_unittests():
    """Runs the unittest cases of the program. ORV_UNITTEST in the environment has options (-f) or names of tests."""
    options = os.environ.get("ORV_UNITTEST", "").split()
    result = unittest.main(argv=[sys.argv[0], *options], verbosity=2, exit=False).result
    if not result.wasSuccessful() or (result.skipped and not MAY_SKIP):
        sys.exit(1)
    sys.exit(SKIPPED if result.skipped else 0)


def preloaded(program, library, **settings):
    """The command and the environment that load a library into the program, not into its emulator."""
    if re.search("[ :]", library):  # the loader splits its list there
        folder = tempfile.mkdtemp(prefix="orv_test.", dir="/var/tmp")  # not in TMPDIR, where a test may look
        atexit.register(shutil.rmtree, folder)
        os.chmod(folder, 0o755)
        os.symlink(library, os.path.join(folder, "preloaded.so"))
        library = os.path.join(folder, "preloaded.so")
    environment = {**os.environ, **settings}
    if len(program) > 1:
        return [program[0], "-E", "LD_PRELOAD=" + library, *program[1:]], environment
    environment["LD_PRELOAD"] = library
    environment["ASAN_OPTIONS"] = "verify_asan_link_order=0:" + environment.get("ASAN_OPTIONS", "")
    return program, environment
