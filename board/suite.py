#!/usr/bin/env python3
"""Runs the test programs on the emulated board, for script/board.

Usage: suite.py FOLDER FILE-SYSTEM...    with /var/tmp on each of these file systems, as root and as an ordinary user
       suite.py FOLDER --quick           the quickest programs, on tmpfs as root

With ORV_FULL=1 in the environment, files of 3 GiB are copied, too. exceptions.txt lists the tests that must fail or
skip, and those that are not run, with the reasons: any other failure is an error, and so is a listed test that passes.
An ordinary user may skip tests. Prints the output of each test with a wrong result, the figures of each run, and
"N passed, M failed".
"""

import collections
import concurrent.futures
import os
import pathlib
import re
import sys
import tempfile

import machine

PROGRAMS = ["orv_tests", "orv_string_call_tests", "orv_memory_tests", "orv_safe_tests", "orv_unload_tests",
            "orv_missing_dlog_tests", "orv_dlog_memory_tests", "orv_dlog_stderr_tests", "orv_dlog_syslog_tests",
            "orv_concurrency_tests", "orv_security_tests"]  # fmt: skip
TESTS = machine.TOP / "build" / "board" / "tests"
QUICK_PROGRAMS = PROGRAMS[:3]
EXCEPTIONS = pathlib.Path(__file__).with_name("exceptions.txt")
MINIMUM = machine.TOP / "script" / "minimum-tests.txt"
USERS = {"root": 0, "nobody": 65534}
PROGRAM_SECONDS = 1800
LONG = ["LargeFileTest.IsMovedAcrossFileSystems", "LargeFileTest.IsCopied"]
SLOW = ["DirListTest.AHundredThousandFilesAreListedSorted"]  # a fifth of the time of the quickest programs
TAIL = 4000  # bytes of the output of a test that are shown

Result = collections.namedtuple("Result", "state output")  # OK, FAILED, SKIPPED


def results_in(text):
    """Returns the result of each test in the output of GoogleTest; a test that did not end has failed."""
    results = {}
    for part in re.split(r"^\[ RUN      \] ", text, flags=re.M)[1:]:
        name = part.split("\n", 1)[0]
        end = re.search(rf"\[ +(OK|FAILED|SKIPPED) +\] {re.escape(name)}(?:,| \()", part)
        results[name] = Result(end[1], part[: end.start()]) if end else Result("FAILED", part)
    return results


def exceptions_for(files, user):
    """Returns the tests that exceptions.txt lists for this run: those that must fail, and those that are not run."""
    listed, applies = {"fails": [], "not run": []}, False
    for line in EXCEPTIONS.read_text(encoding="utf-8").splitlines():
        if line.startswith(" "):
            listed[kind] += [line.strip()] if applies else []
        elif not line.startswith("#") and line:
            systems, users, kind = line.split(": ", 1)[0].split(", ")
            applies = files in systems.split() and user in users.split()
    return listed["fails"], listed["not run"]


def filter_for(files, user, is_quick=False):
    """Files of 3 GiB are copied in one run of the long form, because that takes minutes. The other tests of large files
    always run."""
    left_out = exceptions_for(files, user)[1]
    if (files, user) != ("ext4", "root") or not os.environ.get("ORV_FULL"):
        left_out = left_out + LONG
    if is_quick:
        left_out = left_out + SLOW
    return "*-" + ":".join(left_out)


def run_programs(folder, files, user, is_quick):
    """Returns the results of all tests, and what was wrong with a whole program."""
    results, troubles = {}, []
    with machine.Machine(folder, files, USERS[user]) as board, tempfile.TemporaryFile() as output:
        for program in QUICK_PROGRAMS if is_quick else PROGRAMS:
            output.seek(0)
            output.truncate()
            command = [TESTS / program, "--gtest_color=no", f"--gtest_filter={filter_for(files, user, is_quick)}"]
            status = board.run(command, USERS[user], PROGRAM_SECONDS, output, output)
            output.seek(0)
            text = output.read().decode(errors="replace")
            found = results_in(text)
            results.update(found)
            failures = any(result.state == "FAILED" for result in found.values())
            if not found or status != int(failures):
                troubles.append(f"{program}: ended with {status}:\n{text[-TAIL:]}")
    return results, troubles


def expected_failures(files, user, results, is_quick):
    """A quick run has few of the tests that exceptions.txt lists."""
    return [name for name in exceptions_for(files, user)[0] if name in results or not is_quick]


def judge(files, user, results, is_quick=False):
    """Returns the names of tests with a wrong result, and those of skipped tests."""
    listed = expected_failures(files, user, results, is_quick)
    skipped = [name for name, result in results.items() if result.state == "SKIPPED" and name not in listed]
    wrong = [name for name, result in results.items() if result.state == "FAILED" and name not in listed]
    wrong += [name for name in listed if name not in results or results[name].state == "OK"]
    if user == "root":
        wrong += skipped
        skipped = []
    return wrong, skipped


def minimum(is_quick):
    step = "board-quick" if is_quick else "board"
    return int(re.search(rf"(?m)^{step} (\d+)$", MINIMUM.read_text(encoding="utf-8"))[1])


def report(files, user, is_quick, results, troubles):
    """Prints a run. Returns how many tests passed, and how many results were wrong."""
    wrong, skipped = judge(files, user, results, is_quick)
    fails = expected_failures(files, user, results, is_quick)
    not_run = exceptions_for(files, user)[1]
    for name in wrong:
        if name in results and results[name].state != "OK":
            print(f"{results[name].state}: {files}, {user}: {name}\n{results[name].output[-TAIL:]}")
        else:
            print(f"FAILED: {files}, {user}: {name}: exceptions.txt lists it, but it did not fail")
    demanded = minimum(is_quick)
    if len(results) + len(not_run) < demanded:
        troubles.append(f"only {len(results)} tests ran, of {demanded} that script/minimum-tests.txt demands")
    for trouble in troubles:
        print(f"FAILED: {files}, {user}: {trouble}")
    for name in skipped:
        print(f"SKIPPED: {files}, {user}: {name}: {results[name].output.strip().splitlines()[-1]}")
    passed = sum(result.state == "OK" for result in results.values())
    print(f"board: {files}, {user}{', in short' * is_quick}: {passed} passed, {len(wrong) + len(troubles)} failed, "
          f"{len(fails) + len(not_run)} not possible, {len(skipped)} skipped", flush=True)  # fmt: skip
    return passed, len(wrong) + len(troubles)


def run(folder, *form):
    try:
        return run_programs(folder, *form)
    except machine.Failure as failure:
        return {}, [str(failure)]


def main(folder, *systems):
    os.environ.pop("ORV_NO_SKIP", None)
    runs = [(files, user, False) for files in systems for user in USERS]
    if systems == ("--quick",):
        runs = [("tmpfs", "root", True)]
    total = [0, 0]
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        for form, outcome in zip(runs, pool.map(lambda form: run(folder, *form), runs)):
            total = [a + b for a, b in zip(total, report(*form, *outcome))]
    print(f"\n{total[0]} passed, {total[1]} failed")
    return int(total[1] > 0)


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
