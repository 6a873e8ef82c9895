#!/usr/bin/env python3
"""Checks that a cross build uses nothing of the building machine.

  cross_test.py headers   each header that was read belongs to the target's toolchain, to this project or to GoogleTest
  cross_test.py linked    each file that was linked does, too
  cross_test.py machine   each library and program is for the target's machine, and names no directory of this one
"""

import argparse
import os
import re
import subprocess

import orv_test

parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
parser.add_argument("check", choices=["headers", "linked", "machine"])
parser.add_argument("--ninja", required=True)
parser.add_argument("--readelf", required=True)
parser.add_argument("--build", required=True, help="the build directory")
parser.add_argument("--target", required=True, help="the triplet in the directories of the toolchain")
parser.add_argument("--googletest", required=True, help="its sources")
options = parser.parse_args()
options.build = os.path.realpath(options.build)


def output_of(*command):
    run = subprocess.run(command, cwd=options.build, check=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    return run.stdout


def strangers(paths):
    """Returns the paths that do not belong to an allowed directory."""
    own = [orv_test.ROOT, options.build, os.path.realpath(options.googletest)]
    found = []
    for path in sorted({os.path.realpath(os.path.join(options.build, path)) for path in paths}):
        toolchains = re.search(rf"/{re.escape(options.target)}(/|$)", path)
        if not toolchains and not any(path.startswith(directory + "/") for directory in own):
            found.append(f"{options.check}: {path} is of this machine, not of the target")
    return found


def headers():
    paths = re.findall(r"(?m)^    (\S+)$", output_of(options.ninja, "-t", "deps"))
    return strangers(paths) if len(paths) > 1000 else [f"headers: only {len(paths)} are recorded"]


def linked():
    problems = []
    links = [line for line in output_of(options.ninja, "-t", "commands").splitlines() if "--version-script" in line]
    for link in links:
        command = re.sub(r"^: && | && :$", "", link)
        traced = output_of("sh", "-c", re.sub(r" -o \S+", " -o /dev/null -Wl,-t", command))
        files = [line for line in traced.splitlines() if line.startswith(("/", "lib", "CMakeFiles"))]
        problems += strangers(files) if len(files) > 5 else [f"linked: cannot see what {command} links"]
    return problems if len(links) == 2 else [f"linked: {len(links)} libraries instead of 2"]


def machine():
    problems = []
    elves = []
    for directory, _, names in os.walk(options.build):
        for name in names:
            path = os.path.join(directory, name)
            with open(path, "rb") as file:
                if not os.path.islink(path) and file.read(4) == b"\x7fELF" and not name.endswith(".o"):
                    elves.append(path)
    for path in elves:
        header = output_of(options.readelf, "--file-header", path)
        if not re.search(r"Class: +ELF32\n.*\n?.*big endian[\s\S]*Machine: +PowerPC\n", header):
            problems.append(f"machine: {path} is not for the target")
        for run_path in re.findall(r"(?:RPATH|RUNPATH).*\[(.*)\]", output_of(options.readelf, "--dynamic", path)):
            problems += strangers(filter(None, run_path.split(":")))
    return problems if len(elves) > 5 else [f"machine: only {len(elves)} libraries and programs found"]


orv_test.finish({"headers": headers, "linked": linked, "machine": machine}[options.check]())
