"""What the tests in Python share: running a compiler, and the results of a test."""

import argparse
import os
import shutil
import subprocess
import sys

SKIPPED = 77  # to CTest, by the property SKIP_RETURN_CODE
INPUT = ["-x", "c++", "-", "-x", "none"]  # compiler options: C++ from standard input

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))


def parser(description, checks):
    """Command line: what to check, and after it, as the last option, the compiler with its flags."""
    result = argparse.ArgumentParser(description=description, formatter_class=argparse.RawDescriptionHelpFormatter)
    result.add_argument("check", choices=checks)
    result.add_argument("--library", action="append", default=[], help="file to link with, in the linker's order")
    result.add_argument("--emulator", action="append", default=[], help="word of the command that runs what was built")
    result.add_argument("--compiler", nargs=argparse.REMAINDER, help="compiler and flags")
    return result


def require(program, kind):
    """Skips the test, aloud, where the program is not installed; fails it where nothing may be skipped."""
    if shutil.which(program):
        return
    if "ORV_NO_SKIP" in os.environ:
        sys.exit(f"may not skip: no {kind} {program}")
    print(f"skipped: no {kind} {program}")
    sys.exit(SKIPPED)


def require_compiler(options):
    require(options.compiler[0], "compiler")


def messages_of(compiler, *arguments, text=""):
    """Runs the compiler, with `text` as its standard input; what it said, or None when it succeeded."""
    command = [*compiler, *arguments]
    run = subprocess.run(command, input=text, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    return None if run.returncode == 0 else f"{' '.join(command)}\n{run.stdout}"


def read(*path):
    with open(os.path.join(ROOT, *path), encoding="utf-8") as file:
        return file.read()


def finish(problems):
    for problem in problems:
        print(problem)
    sys.exit(1 if problems else 0)
