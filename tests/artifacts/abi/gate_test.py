#!/usr/bin/env python3
"""Compares a library with the kept dump of its binary interface: a program built with the one must run with the other.

  gate_test.py compatible    the built library fits
  gate_test.py incompatible  variants of its source, built here with an incompatible change each, are refused, and a
                             variant without any is not
"""

import argparse
import os
import re
import shutil
import subprocess
import sys
import tempfile

SKIPPED = 77
HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(os.path.dirname(HERE)))
SOURCES = {"OrvFileUtils": "src/LxFileUtils.cpp", "OrvStrUtils": "strutils/LxStringUtils.cpp"}
HEADERS = {"OrvFileUtils": "include/LxFileUtils.h", "OrvStrUtils": "strutils/LxStringUtils.h"}

# For each library: what is changed, the text and its replacement.
SEEDS = {
    "OrvFileUtils": [
        ("a function is gone", r"\bCopyFile\(", "CopyTheFile("),
        ("a parameter has another type", r"\b(DoMakeDirPath\(const char\* \w+, unsigned) int", r"\1 long"),
        ("a result is wider", r"\bbool FileExists\(", "long FileExists("),
        ("a result is another class", r"\bstd::string AddTextFileFormattedRow\(", "Row AddTextFileFormattedRow("),
    ],
    "OrvStrUtils": [
        ("a function is gone", r"\bTrim\(", "TrimBoth("),
        ("a result is wider", r"\bbool StartsWith\(", "long StartsWith("),
    ],
}
ROW_CLASS = "#include <string>\nstruct Row { std::string text; int cells; Row(std::string t) : text(t), cells(0) {} };\n"


def skip(reason):
    if "ORV_NO_SKIP" in os.environ:
        sys.exit(f"may not skip: {reason}")
    print(f"skipped: {reason}")
    sys.exit(SKIPPED)


def difference(options, library):
    """What makes the library unfit, or None."""
    run = subprocess.run(
        ["abidiff", "--no-added-syms", "--suppressions", os.path.join(HERE, "standard_library.suppr"),
         options.dump, library], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    if run.returncode & 3:  # it could not compare
        sys.exit(f"abidiff ended with {run.returncode}:\n{run.stdout}")
    return run.stdout if run.returncode else None


def build(options, directory, text, replacement):
    """The path of a library built from the sources with that text replaced, in the header and in the source."""
    for folder in ("include", "src", "strutils", "dlog", "cmake"):
        shutil.copytree(os.path.join(ROOT, folder), os.path.join(directory, folder))
    count = 0
    for name in (HEADERS[options.name], SOURCES[options.name]):
        path = os.path.join(directory, name)
        with open(path, encoding="utf-8") as file:
            changed, found = re.subn(text, replacement, file.read()) if text else (file.read(), 0)
        count += found
        with open(path, "w", encoding="utf-8") as file:
            file.write((ROW_CLASS if name.endswith(".h") and "Row " in replacement else "") + changed)
    if text and count < 2:
        sys.exit(f"'{text}' is not in both {HEADERS[options.name]} and {SOURCES[options.name]}")
    library = os.path.join(directory, f"lib{options.name}.so")
    subprocess.run(
        [*options.compiler, "-std=c++11", "-g", "-O0", "-fPIC", "-shared", "-Iinclude", "-Istrutils", "-Idlog",
         f"-Wl,-soname,lib{options.name}.so.0", f"-Wl,--version-script,cmake/{options.name}.map",
         SOURCES[options.name], "-o", library], cwd=directory, check=True)
    return library


def compatible(options):
    found = difference(options, options.library)
    return [] if found is None else [found]


def incompatible(options):
    problems = []
    for claim, text, replacement in [("nothing is changed", "", ""), *SEEDS[options.name]]:
        with tempfile.TemporaryDirectory(prefix="orv_test.") as directory:
            found = difference(options, build(options, directory, text, replacement))
        if text and found is None:
            problems.append(f"passes although {claim}")
        if not text and found is not None:
            problems.append(f"is refused although {claim}:\n{found}")
    return problems


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("check", choices=["compatible", "incompatible"])
    parser.add_argument("--name", required=True, choices=SOURCES)
    parser.add_argument("--machine", required=True)
    parser.add_argument("--library", required=True)
    parser.add_argument("--compiler", nargs=argparse.REMAINDER, help="compiler and flags")
    options = parser.parse_args()
    options.dump = os.path.join(HERE, f"{options.name}.{options.machine}.abi")
    if not os.path.exists(options.dump):
        skip(f"no dump of {options.name} for {options.machine}; script/abi-dump writes them")
    if not shutil.which("abidiff"):
        skip("no abidiff (Debian: abigail-tools)")
    problems = globals()[options.check](options)
    for problem in problems:
        print(f"{options.name}: {problem}")
    sys.exit(1 if problems else 0)


if __name__ == "__main__":
    main()
