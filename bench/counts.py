#!/usr/bin/env python3
"""Instruction counts: reads those of callgrind, stores them in bench/instructions.txt and compares them with these.

Usage: counts.py      ends with 0 if the stored counts are those of this machine's compiler and C library; otherwise it
                      says why they cannot be compared
"""

import collections
import os
import pathlib
import platform
import re
import subprocess
import sys

STORED = pathlib.Path(__file__).resolve().parent / "instructions.txt"
GROWN = 1.02  # a count that grows by more than this factor is a failure
STORED_SHARE = 0.01  # functions with a smaller share of the instructions of their call are not stored
NAMED_SHARE = 0.005  # functions that grow by a smaller share are not named

# The program runs with this environment and no other. The C library chooses its functions for copying and searching by
# the processor, and its thresholds by the caches; these settings choose the same ones everywhere.
ENVIRONMENT = {
    "PATH": "/usr/bin:/bin",
    "GLIBC_TUNABLES": ":".join((
        "glibc.cpu.hwcaps=-AVX512F,-AVX2,-AVX,-BMI1,-BMI2,-LZCNT,-MOVBE,-POPCNT,-RTM,-ERMS,-FSRM,-SSE4_2,-SSE4_1,"
        "-SSSE3,-AVX_Fast_Unaligned_Load,-Fast_Unaligned_Copy,-Prefer_No_VZEROUPPER",
        "glibc.cpu.x86_data_cache_size=0x8000",
        "glibc.cpu.x86_shared_cache_size=0x100000",
        "glibc.cpu.x86_non_temporal_threshold=0xc0000")),
}


class Count:
    """The instructions of one call, by function and without those of the functions that it calls."""

    def __init__(self, total, functions):
        self.total = total
        self.functions = collections.Counter(functions)


def short(function):
    """Abbreviates the name of a function."""
    name = re.sub(r"std::(__cxx11::)?basic_string<char, std::char_traits<char>, std::allocator<char> ?>", "string",
                  function)
    return re.sub(r"'\d+$", "", name)[:120]  # callgrind numbers the levels of a recursion


def from_callgrind(text):
    """Returns the count of a dump of callgrind."""
    names = {}
    functions = collections.Counter()
    function = None
    of_a_call = False  # the next figure counts a called function, which has its own entry
    for line in text.splitlines():
        if match := re.match(r"c?fn=\((\d+)\)(?: (.*))?$", line):
            if match.group(2):
                names[match.group(1)] = match.group(2)
            if line.startswith("fn"):
                function = match.group(1)
        elif line.startswith("calls="):
            of_a_call = True
        elif match := re.match(r"(?:[+-]?\d+|\*) (\d+)$", line):
            if not of_a_call:
                functions[function] += int(match.group(1))
            of_a_call = False
    count = Count(sum(functions.values()), {})
    for number, instructions in functions.items():
        count.functions[short(names[number])] += instructions
    return count


def tools():
    """Describes what the counts depend on, besides the code: the compiler, the C library and the machine."""
    compiler, library = (subprocess.check_output([tool, "--version"], text=True, env={**os.environ, "LC_ALL": "C"})
                         .splitlines()[0] for tool in ("g++", "ldd"))
    return f"{compiler}; {library}; {platform.machine()}"


def to_text(counts, made_by):
    """Returns the text of the file with these counts, {workload: Count}."""
    lines = ["# Instructions of one call of each workload, and below them those of its functions that execute most;",
             "# counted by callgrind, written by script/bench --instructions --store.",
             f"# {made_by}"]
    for name, count in counts.items():
        lines.append(f"{name} {count.total}")
        lines += [f"  {instructions} {function}" for function, instructions in count.functions.most_common()
                  if instructions >= STORED_SHARE * count.total]
    return "\n".join(lines) + "\n"


def from_text(text):
    """Returns the counts, and the tools that they were made with."""
    counts = {}
    comments = [line[2:] for line in text.splitlines() if line.startswith("# ")]
    for line in text.splitlines():
        if match := re.match(r"  (\d+) (.*)$", line):
            list(counts.values())[-1].functions[match.group(2)] = int(match.group(1))
        elif match := re.match(r"([^# ]\S*) (\d+)$", line):
            counts[match.group(1)] = Count(int(match.group(2)), {})
    return counts, comments[-1] if comments else ""


def why_not_comparable(made_by, here):
    """Returns an empty string if counts of the one and the other can be compared."""
    return "" if made_by == here else (
        f"the stored instruction counts do not apply here: they are of {made_by}; here is {here}")


def problems(before, now):
    """Describes each call that has grown, with the functions that did, and each call that is not stored."""
    found = []
    for name, count in now.items():
        if name not in before:
            found.append(f"{name}: not stored")
        elif count.total > GROWN * before[name].total:
            stored = before[name]
            found.append(f"{name}: {stored.total:,} before, {count.total:,} now; grown:")
            growth = {function: instructions - stored.functions[function]
                      for function, instructions in count.functions.items()
                      if function in stored.functions or instructions >= STORED_SHARE * stored.total}
            found += [f"  +{more:,}  {function}" for function, more in collections.Counter(growth).most_common()
                      if more >= NAMED_SHARE * stored.total]
    return found


if __name__ == "__main__":
    sys.exit(why_not_comparable(from_text(STORED.read_text())[1], tools()) or 0)
