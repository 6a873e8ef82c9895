"""Runs a compiler, for tests that compile something."""

import argparse
import subprocess

from orv_test import require

INPUT = ["-x", "c++", "-", "-x", "none"]  # compiler options: C++ from standard input


def parser(description, checks):
    """The command line: the check and, as the last option, the compiler with its flags."""
    result = argparse.ArgumentParser(description=description, formatter_class=argparse.RawDescriptionHelpFormatter)
    result.add_argument("check", choices=checks)
    result.add_argument("--library", action="append", default=[], help="file to link with, in the linker's order")
    result.add_argument("--emulator", action="append", default=[], help="word of the command that runs what was built")
    result.add_argument("--compiler", nargs=argparse.REMAINDER, help="compiler and flags")
    return result


def require_compiler(options):
    require(options.compiler[0])


def messages_of(compiler, *arguments, text=""):
    """Runs the compiler with `text` as standard input. Returns its messages, or None if it succeeded."""
    command = [*compiler, *arguments]
    run = subprocess.run(command, input=text, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    return None if run.returncode == 0 else f"{' '.join(command)}\n{run.stdout}"
