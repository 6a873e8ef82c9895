#!/usr/bin/env python3
"""Reads the results of ctest, for script/test.

Usage: results.py RESULTS PASSED     RESULTS is a JUnit file of ctest; PASSED gets the output of all tests that passed

Prints the output of tests that failed, and lists skipped tests below each reason. The last line has three numbers:
tests that passed, failed and were skipped. If a suite of GoogleTest ran as one test of ctest, each of its tests counts.
"""

import collections
import re
import sys
import xml.etree.ElementTree as tree

TAIL = 100  # lines of output that are shown of a test that failed


def counted(state, output):
    """Returns the number of tests of GoogleTest with this result; 0 for other tests."""
    return sum(map(int, re.findall(rf"^\[  {state} +\] (\d+) tests?[.,]", output, re.M)))


def says_skipped(case):
    """Returns true for a test that was skipped, but not for a test that ctest did not find."""
    mark = case.find("skipped")
    return mark is not None and mark.get("message").startswith("SKIP_")


def skipped_tests(name, output):
    """Returns each skipped test with its reason, as GoogleTest or a Python test prints it."""
    tests = re.findall(r"^\[ RUN +\] (.+)\n(?:(?!\[ RUN).*\n)*?.*: Skipped\n(.+)", output, re.M)
    tests += re.findall(r"^(\w+) .*\.\.\. skipped ['\"](.+)['\"]$", output, re.M)
    reasons = re.findall(r"(?mi)^skipped: (.+)$", output)
    return tests or [(name, reason) for reason in reasons] or [(name, "no reason given")]


def main(results, passed_output):
    passed = failed = skipped = 0
    reasons = collections.defaultdict(list)
    with open(passed_output, "w", encoding="utf-8") as rest:
        for case in tree.parse(results).getroot().findall("testcase"):
            name, output = case.get("name"), case.findtext("system-out") or ""
            good = counted("PASSED", output)
            skips = counted("SKIPPED", output) or int(says_skipped(case))
            if case.get("status") != "run" and not skips:
                fails = max(counted("FAILED", output), 1)
                print(f"FAILED: {name}", *output.splitlines()[-TAIL:], sep="\n")
            else:
                fails = 0
                print(output, file=rest)
            if skips:
                for test, reason in skipped_tests(name, output):
                    reasons[reason].append(test)
            passed += good if good or skips or fails else 1
            failed += fails
            skipped += skips
    for reason, tests in reasons.items():
        print(f"SKIPPED: {reason}", *sorted(tests), sep="\n  ")
    print(passed, failed, skipped)


if __name__ == "__main__":
    main(*sys.argv[1:])
