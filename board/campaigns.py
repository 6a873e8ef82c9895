#!/usr/bin/env python3
"""Runs the campaigns of faults, kills and attacks on the emulated board, for script/board.

Usage: campaigns.py FOLDER

FOLDER is that of machine.py. Each part runs on a board of its own, as root, and in the short form even if ORV_FULL is
set. Prints the output of each part that failed, the figures of the campaigns, and "N passed, M failed".
"""

import concurrent.futures
import os
import pathlib
import re
import sys
import tempfile

import machine

TESTS = machine.TOP / "build" / "board" / "tests"
MINIMUM = machine.TOP / "script" / "minimum-tests.txt"
SINGLE_FAULTS = "FaultCampaignTest.EveryCallFailsOnceAndForGood"
PARTS = [  # a program and its tests; the longest first
    ("orv_campaign_tests", SINGLE_FAULTS),
    ("orv_campaign_tests", "Safe*"),
    ("orv_campaign_tests", f"FaultCampaignTest.*-{SINGLE_FAULTS}"),
    ("orv_campaign_tests", "-FaultCampaignTest.*:Safe*"),
    ("orv_planted_page_tests", "*"),
]
PART_SECONDS = 3600
TAIL = 4000  # bytes of the output of a failed part that are shown


def run(folder, program, tests):
    """Returns the output of a part, and its exit status or what was wrong with the board."""
    with tempfile.TemporaryFile() as output:
        try:
            with machine.Machine(folder) as board:
                command = [TESTS / program, f"--gtest_filter={tests}", "--gtest_color=no"]
                status = board.run(command, 0, PART_SECONDS, output, output)
        except machine.Failure as failure:
            status = str(failure)
        output.seek(0)
        return output.read().decode(errors="replace"), status


def report(program, tests, text, status):
    """Prints a part. Returns how many tests passed and failed; a part that does not end properly is one failure."""
    passed = sum(map(int, re.findall(r"^\[  PASSED  \] (\d+) test", text, re.M)))
    failed = sum(map(int, re.findall(r"^\[  FAILED  \] (\d+) test", text, re.M)))
    for kind, figure in re.findall(r"^(campaign|security): (.*)$", text, re.M):
        print(f"{kind}: on the board: {figure}")
    if status != 0 or passed == 0:
        print(f"FAILED: {program} {tests}: ended with {status}\n{text[-TAIL:]}")
        failed = max(failed, 1)
    sys.stdout.flush()
    return passed, failed


def main(folder):
    os.environ.pop("ORV_FULL", None)
    os.environ["ORV_NO_SKIP"] = "1"
    passed = failed = 0
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        for part, outcome in zip(PARTS, pool.map(lambda part: run(folder, *part), PARTS)):
            counts = report(*part, *outcome)
            passed, failed = passed + counts[0], failed + counts[1]
    minimum = int(re.search(r"(?m)^board-faults (\d+)$", MINIMUM.read_text(encoding="utf-8"))[1])
    if passed + failed < minimum:
        print(f"FAILED: only {passed + failed} tests ran, of {minimum} that script/minimum-tests.txt demands")
        failed += 1
    print(f"\n{passed} passed, {failed} failed")
    return int(failed > 0)


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
