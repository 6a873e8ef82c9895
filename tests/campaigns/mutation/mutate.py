#!/usr/bin/python3
"""Breaks the sources in one small way at a time, and demands that the tests notice each.

  mutate.py --build DIR [--sanitized DIR]... [FOLDER...] [--sample N] [--jobs N] [--report FILE]
  mutate.py --build DIR --list [FOLDER...]           prints the mutants and runs nothing

Without a folder, all are meant. DIR holds a build of the project with its compile commands. Each mutant is compiled as
that build compiles it, but at -O1, and linked as that build links it. Mutants that survive its tests go on to the
sanitized builds.

The tests run in name spaces of their own, as root: the root file system and /dev read-only, /var/tmp and /dev/shm small
ones in memory, every process ended with the mutant. So a mutant that loops, fills the disk or removes what it should
not does no harm.

A mutant is killed when a test fails or runs out of time. One that the compiler turns into the same code as the source
cannot be. Any other that survives must be listed in equivalent.txt beside this file, with the reason why no test can
tell it from the original; an entry of that list that fits no mutant, or whose mutant is killed, is an error too. Exit
status 0 says that all is in order.
"""

import argparse
import collections
import concurrent.futures
import ctypes
import dataclasses
import filecmp
import glob
import json
import os
import random
import re
import resource
import select
import shlex
import signal
import subprocess
import sys
import tempfile
import threading
import time

from mutants import Mutant, Mutator, even

FOLDER = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(os.path.dirname(FOLDER)))
EQUIVALENT = os.path.join(FOLDER, "equivalent.txt")



@dataclasses.dataclass(frozen=True)
class Product:
    """What a source is built into, and the tests of it: test programs, or a script that is given a module to preload and
    the product. A product without any is a test program itself; `tests` says which of its tests are meant for the source
    (a GoogleTest filter)."""

    target: str
    programs: tuple = ()
    script: str = ""
    module: str = ""
    tests: str = "*"


def sources(folder):
    return sorted(os.path.relpath(path, ROOT) for path in glob.glob(os.path.join(ROOT, folder, "*.cpp")))


LIBRARY_TESTS = ("orv_tests", "orv_string_call_tests", "orv_memory_tests")
MEMORY, STDERR, SYSLOG = (Product(f"orv_dlog_{name}_tests") for name in ("memory", "stderr", "syslog"))
SAFE_TESTS = {
    "cells.cpp": "*Cell*:SafeRow*:*/SafeRowTest.*",
    "directories.cpp": "MakeDirectoryTest.*:List*",
    "files.cpp": "SafeMoveTest.*:SafeCopyTest.*:SafeMountTest.*:SafeOverlayTest.*:*/Safe*Test.*",
    "internal.cpp": "SafeReportTest.*:SafeDescriptorTest.*:SafeUninterruptedTest.*",
    "page.cpp": "SafePageTest.*:TornPageTest.*",
    "settings.cpp": "*Settings*",
    "staged_file.cpp": "SafeMoveTest.*:SafeCopyTest.*:SafeMountTest.*:SafeOverlayTest.*:*/Safe*Test.*:*WriteSettings*",
    "utf8.cpp": "*Cell*:*Settings*",
}
STATUSBOARD = Product("statusboard", (), "tests/programs/statusboard/statusboard_test.py", "statusboard_machine")
ORVFILE = {
    family: Product("orvfile", (), f"tests/programs/tool/{family}_test.py", "orvfile_shim")
    for family in ("usage", "transfer", "directories", "row", "encoding", "page", "watch", "settings",
                   "explain", "resources")
}
# The families of tests that are meant for a source.
ORVFILE_TESTS = {
    "completion.cpp": ["usage"],
    "csv_reader.cpp": ["row"],
    "explain.cpp": ["explain", "transfer", "settings"],
    "explain_document.cpp": ["explain"],
    "explain_lines.cpp": ["explain"],
    "explain_table.cpp": ["explain"],
    "follow.cpp": ["watch"],
    "get.cpp": ["settings"],
    "json.cpp": ["directories", "settings"],
    "line_pattern.cpp": ["explain"],
    "list.cpp": ["directories"],
    "log.cpp": ["usage", "resources", "watch", "transfer"],
    "mkdir.cpp": ["directories"],
    "orvfile.cpp": ["usage", "directories", "row", "settings", "page", "explain", "transfer"],
    "page.cpp": ["page", "watch"],
    "progress.cpp": ["transfer"],
    "quantity.cpp": ["directories"],
    "quoting.cpp": ["directories", "settings"],
    "row.cpp": ["row"],
    "set.cpp": ["settings"],
    "signals.cpp": ["transfer"],
    "streams.cpp": ["row", "page"],
    "support.cpp": ["transfer", "directories", "usage", "watch"],
    "transfer.cpp": ["transfer"],
    "utf8_input.cpp": ["row", "encoding"],
    "watch.cpp": ["watch"],
}
SUBJECTS = {
    "src/LxFileUtils.cpp": [Product("OrvFileUtils", LIBRARY_TESTS)],
    "strutils/LxStringUtils.cpp": [Product("OrvStrUtils", LIBRARY_TESTS)],
    "dlog/dlog_memory.cpp": [MEMORY],
    "dlog/dlog_pipe.cpp": [STDERR, SYSLOG],
    "dlog/dlog_stderr.cpp": [STDERR],
    "dlog/dlog_syslog.cpp": [SYSLOG],
    "dlog/dlog_text.cpp": [STDERR, MEMORY, SYSLOG],
    "examples/statusboard.cpp": [STATUSBOARD],
    **{path: [Product("orv_safe_tests", tests=SAFE_TESTS[os.path.basename(path)])] for path in sources("safe")},
    **{
        path: [ORVFILE[family] for family in ORVFILE_TESTS[os.path.basename(path)]]
        for path in sources("tools")
    },
}
NOT_SANITIZED = {"tests/programs/tool/resources_test.py"}  # sanitizers have an allocator of their own

# LargeFileTest needs more room than a mutant is given; its subject is the width of file offsets, which none changes.
NEVER = "*LargeFile*"
# A test that takes longer runs after all others; one that kills a mutant runs first on the next ones.
SLOW_MILLISECONDS = 50
# What the tests of the tool wait for, which a mutant may never do; a tool that works does it in two.
PATIENCE_SECONDS = 12
RECENT = 6

LIBC = ctypes.CDLL(None)
PR_SET_PDEATHSIG = 1  # <sys/prctl.h>
MEMORY_BYTES = 8 << 30
SANDBOX = """
set -e
mount --bind /etc /etc  # a test wants it writable, for others than its user
mount -o remount,ro,bind /
if mountpoint -q /dev; then
    mount -o remount,ro,bind /dev  # devices still take what is written to them
fi
for directory in /var/tmp /dev/shm; do
    mount -t tmpfs -o size=512m,mode=1777 none "$directory"
done
mkdir /dev/shm/current && cd /dev/shm/current
exec "$@"
"""


class GoogleTests:
    """A test program, to be run as a whole or in part."""

    FAILED = [r"^\[  FAILED  \] ([\w/]+\.[\w/]+)", r"^\[ RUN      \] ([\w/]+\.[\w/]+)"]  # a signal leaves the latter only
    TIMES = r"^\[       OK \] ([\w/]+\.[\w/]+) \((\d+) ms\)"

    def __init__(self, program, tests="*"):
        self.command = [program, "--gtest_fail_fast"]
        self.tests = tests

    @staticmethod
    def only(names):
        return {"GTEST_FILTER": ":".join(names)}

    def but(self, names):
        return {"GTEST_FILTER": self.tests + "-" + ":".join([NEVER, *names])}


class ScriptTests:
    """A script of unittest's that runs a program."""

    FAILED = [r"^(?:FAIL|ERROR): \w+ \(__main__\.(\w+\.\w+)\)", r"^\w+ \(__main__\.(\w+\.\w+)\)"]
    TIMES = r"(?!)"  # tells none

    def __init__(self, script, arguments):
        self.command = [sys.executable, "-B", os.path.join(ROOT, script), *arguments]

    @staticmethod
    def only(names):
        return {"ORV_UNITTEST": " ".join(["-f", *names])}

    @staticmethod
    def but(_):
        return {"ORV_UNITTEST": "-f"}


class History:
    """What earlier runs of one test program on one source tell about the next: what to run first, what last."""

    def __init__(self):
        self.recent = collections.deque(maxlen=RECENT)
        self.last_kill = 0.0
        self.slow = []
        # How long a run may take, until the tests of the original have told how long they take: by the clock, and each
        # process by the processor, whose time does not depend on what else the machine does.
        self.seconds = 1200
        self.processor_seconds = 600
        self.lock = threading.Lock()

    def killed_by(self, name):
        with self.lock:
            if name in self.recent:
                self.recent.remove(name)
            self.recent.append(name)
            self.last_kill = time.monotonic()

    def first(self):
        with self.lock:
            return list(self.recent)


class Build:
    """A build folder of the project: builds mutants as it does, and runs its tests on them."""

    def __init__(self, folder, originals):
        self.folder = os.path.abspath(folder)
        self.mutants = os.path.join(self.folder, "mutants")
        os.makedirs(self.mutants, exist_ok=True)
        with open(os.path.join(folder, "compile_commands.json"), encoding="utf-8") as file:
            entries = [(os.path.relpath(entry["file"], ROOT), shlex.split(entry["command"])) for entry in json.load(file)]
        self.commands = {name: command for name, command in entries if name in SUBJECTS}
        with open(os.path.join(folder, "CMakeCache.txt"), encoding="utf-8") as file:
            self.version = re.search(r"(?m)^CMAKE_PROJECT_VERSION:STATIC=(.*)", file.read())[1]
        self.objects = {name: [c[c.index("-o") + 1] for n, c in entries if n == name] for name in self.commands}
        self.links = self.built()
        # Sanitizers reserve terabytes.
        self.is_sanitized = any("-fsanitize" in word for command in self.commands.values() for word in command)
        self.memory = resource.RLIM_INFINITY if self.is_sanitized else MEMORY_BYTES
        self.originals = originals
        self.histories = collections.defaultdict(History)

    def built(self):
        """Those of the subjects' targets that this folder has built, each with the command that linked it."""
        known = self.ninja("targets", "all")
        wanted = {name for products in SUBJECTS.values() for p in products for name in (p.target, *p.programs, p.module)}
        links = {name: self.link_command(name) for name in wanted if f"\n{name}: " in known}
        return {name: command for name, command in links.items() if os.path.exists(self.output(command))}

    def ninja(self, *tool):
        run = subprocess.run(["ninja", "-C", self.folder, "-t", *tool], stdout=subprocess.PIPE, text=True, check=True)
        return run.stdout

    def link_command(self, target):
        line = [line for line in self.ninja("commands", target).splitlines() if " -o " in line and " -c " not in line][-1]
        return [word for word in shlex.split(line) if word not in (":", "&&")]

    def output(self, link_command):
        return os.path.join(self.folder, link_command[link_command.index("-o") + 1])

    def suites(self, file, directory):
        """The tests of a source on what link() puts into `directory`."""
        for product in SUBJECTS[file]:
            if product.target not in self.links or (self.is_sanitized and product.script in NOT_SANITIZED):
                continue
            path = os.path.join(directory, os.path.basename(self.output(self.links[product.target])))
            if product.script:
                yield product.script, ScriptTests(product.script, [self.output(self.links[product.module]), path])
            elif not product.programs:
                yield product.target, GoogleTests(path, product.tests)
            for program in product.programs:
                if program in self.links:
                    yield program, GoogleTests(self.output(self.links[program]))

    def has_tests(self, file):
        return next(self.suites(file, ""), None) is not None

    def compile(self, mutant, directory):
        """Compiles a mutant into an object file, whose path it returns; None when the compiler refuses the mutant."""
        # Under its own name, since the compiler writes that name into the object file.
        source = os.path.join(directory, os.path.basename(mutant.file))
        with open(source, "w", encoding="utf-8") as file:
            file.write(mutant.source(self.originals[mutant.file]))
        command = self.commands[mutant.file]
        flags = [w for w in command[: command.index("-o")] if not w.startswith(("-W", "-O", "-g"))]
        own_include = ["-I", os.path.dirname(os.path.join(ROOT, mutant.file))]
        # What a mutant leaves without a value gets one that shows.
        own = [*own_include, "-O1", "-w", "-ftrivial-auto-var-init=pattern"]
        result = source + ".o"
        return result if self.run([*flags, *own, "-c", source, "-o", result]) else None

    def link(self, mutant, result, directory):
        """Links the mutant's object file into each library and program of it, as the build did with the source's."""
        for target in (product.target for product in SUBJECTS[mutant.file] if product.target in self.links):
            command = [result if word in self.objects[mutant.file] else word for word in self.links[target]]
            if result not in command:  # the source's is in an archive, which is asked for what is still missing then
                command.insert(1, result)
            product = os.path.join(directory, os.path.basename(self.output(self.links[target])))
            command[command.index("-o") + 1] = product
            if not self.run(command):
                raise RuntimeError("cannot link " + " ".join(command))
            for word in command:
                if word.startswith("-Wl,-soname,"):
                    os.rename(product, os.path.join(directory, word.removeprefix("-Wl,-soname,")))

    def run(self, command):
        environment = dict(os.environ, CCACHE_DISABLE="1")
        return subprocess.run(command, cwd=self.folder, env=environment, stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL, check=False).returncode == 0

    def test(self, suite, selection, directory, history):
        """Runs tests; the name of the one that failed or None, what they printed, and the processor time they took."""
        environment = dict(os.environ, LD_LIBRARY_PATH=f"{directory}:{self.folder}/lib", **selection)
        environment.pop("ORV_NO_SKIP", None)
        environment["PYTHONPATH"] = os.path.join(ROOT, "tests", "support")
        environment["ORV_PATIENCE"] = str(PATIENCE_SECONDS)
        environment["ORV_VERSION"] = self.version
        environment["ORV_ORACLE"] = os.path.join(self.folder, "tests", "oracle.json")
        command = ["unshare", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc", "bash", "-c", SANDBOX,
                   "sandbox", *suite.command]  # fmt: skip

        def limit():
            LIBC.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)  # ends with this script, however that ends
            for kind, most in ((resource.RLIMIT_FSIZE, MEMORY_BYTES), (resource.RLIMIT_CORE, 0),
                               (resource.RLIMIT_CPU, history.processor_seconds), (resource.RLIMIT_AS, self.memory)):  # fmt: skip
                resource.setrlimit(kind, (most, most))

        with tempfile.TemporaryFile(mode="w+", errors="replace") as output:
            child = subprocess.Popen(command, env=environment, stdin=subprocess.DEVNULL, stdout=output,
                                     stderr=subprocess.STDOUT, preexec_fn=limit, start_new_session=True)
            ended = os.pidfd_open(child.pid)
            if not select.select([ended], [], [], history.seconds)[0]:
                child.kill()  # and with it, by --kill-child, all in its name space
            os.close(ended)
            _, status, usage = os.wait4(child.pid, 0)
            child.returncode = os.waitstatus_to_exitcode(status)
            output.seek(0)
            text = output.read()
        took = usage.ru_utime + usage.ru_stime
        if status == 0:
            return None, text, took
        for pattern in suite.FAILED:
            failed = re.findall(pattern, text, re.M)
            if failed:
                return failed[-1], text, took
        return "the start of the program", text, took

    def measure(self, file):
        """Builds a source unchanged, and runs its tests, which must pass."""
        with tempfile.TemporaryDirectory(dir=self.mutants) as directory:
            original = Mutant(file, 0, 0, "")
            result = self.compile(original, directory)
            if result is None:
                sys.exit(f"{file} does not compile")
            os.replace(result, os.path.join(self.mutants, os.path.basename(file) + ".o"))
            self.link(original, os.path.join(self.mutants, os.path.basename(file) + ".o"), directory)
            for name, suite in self.suites(file, directory):
                history = self.histories[file, name]
                start = time.monotonic()
                failed, text, took = self.test(suite, suite.but([]), directory, history)
                if failed:
                    sys.exit(f"{failed} fails without any mutant of {file}:\n{text[-2000:]}")
                history.slow = [test for test, milliseconds in re.findall(suite.TIMES, text, re.M)
                                if int(milliseconds) > SLOW_MILLISECONDS]  # fmt: skip
                history.seconds = 10 + 8 * (time.monotonic() - start)
                history.processor_seconds = 2 + int(4 * took)

    def killer(self, mutant):
        """Which test notices the mutant; None when none does, "" when the compiler refuses it, "=" for the same code."""
        if not self.has_tests(mutant.file):
            return None
        with tempfile.TemporaryDirectory(dir=self.mutants) as directory:
            result = self.compile(mutant, directory)
            if result is None:
                return ""
            if filecmp.cmp(result, os.path.join(self.mutants, os.path.basename(mutant.file) + ".o"), shallow=False):
                return "="
            self.link(mutant, result, directory)
            suites = [(suite, self.histories[mutant.file, name]) for name, suite in self.suites(mutant.file, directory)]
            suites.sort(key=lambda suite: suite[1].last_kill, reverse=True)  # neighbours fall to the same tests
            runs = [(suite, suite.only(history.first()), history) for suite, history in suites if history.recent]
            runs += [(suite, suite.but(history.slow), history) for suite, history in suites]
            runs += [(suite, suite.only(history.slow), history) for suite, history in suites if history.slow]
            for suite, selection, history in runs:
                failed, _, _ = self.test(suite, selection, directory, history)
                if failed:
                    history.killed_by(failed)
                    return failed
        return None


def parse_flags(command):
    return [word for word in command if word.startswith(("-I", "-D", "-U", "-std="))]


def without_calls(line):
    """A line without the names of the functions that it calls, so that renaming one changes no key."""
    return even(re.sub(r"\w+\(", "(", line))


def read_equivalents():
    """Entries of equivalent.txt: {key: reason}; see the head of that file for its form."""
    with open(EQUIVALENT, encoding="utf-8") as file:
        blocks = re.split(r"\n\s*\n", re.sub(r"^#.*\n", "", file.read(), flags=re.M).strip())
    entries = {}
    for block in filter(None, blocks):
        head, before, after, *reason = block.split("\n")
        if not (before.startswith("- ") and after.startswith("+") and reason):
            sys.exit(f"{EQUIVALENT}: not an entry:\n{block}")
        entries[(head, without_calls(before[1:]), without_calls(after[1:]))] = " ".join(reason)
    return entries


def number(mutants, codes):
    """{mutant: (key, lines)}: the key by which equivalent.txt knows it, and its lines for people. Of several with the
    same lines, such as three "return nullptr;", each head says which it is: "FILE 2 of 3"."""
    shown = {mutant: mutant.key(codes[mutant.file]) for mutant in mutants}
    keys = {mutant: (file, without_calls(before), without_calls(after)) for mutant, (file, before, after) in shown.items()}
    totals, seen, result = collections.Counter(keys.values()), collections.Counter(), {}
    for mutant, key in keys.items():
        seen[key] += 1
        which = f" {seen[key]} of {totals[key]}" if totals[key] > 1 else ""
        result[mutant] = ((key[0] + which, *key[1:]), (key[0] + which, *shown[mutant][1:]))
    return result


def show(lines, note):
    file, before, after = lines
    return f"{file}\n- {before}\n+ {after}\n{note}\n"


def find(builds, folders):
    """The mutants of the folders, and each source with and without its comments."""
    mutants, originals, codes = [], {}, {}
    for file in SUBJECTS:
        if file.split("/")[0] in folders:
            mutator = Mutator(os.path.join(ROOT, file), file, parse_flags(builds[0].commands[file]))
            originals[file], codes[file] = mutator.original, mutator.code
            mutants += mutator.mutants()
    for build in builds:
        build.originals = originals
    return mutants, codes


def main():
    folders = list(dict.fromkeys(file.split("/")[0] for file in SUBJECTS))
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("folders", nargs="*", metavar="FOLDER", help="of " + ", ".join(folders))
    parser.add_argument("--build", required=True, help="build folder of the project")
    parser.add_argument("--sanitized", action="append", default=[], help="another, with a sanitizer")
    parser.add_argument("--list", action="store_true", help="print the mutants")
    parser.add_argument("--sample", type=int, help="only so many, drawn with a fixed seed, and not the listed ones")
    parser.add_argument("--only", default="", help="only those whose file or lines match")
    parser.add_argument("--jobs", type=int, default=2)
    parser.add_argument("--report", help="file to write each mutant's end to")
    options = parser.parse_args()
    unknown = set(options.folders) - set(folders)
    if unknown:
        parser.error("no such folder: " + ", ".join(unknown))

    start = time.monotonic()
    builds = [Build(folder, {}) for folder in (options.build, *options.sanitized)]
    mutants, codes = find(builds, options.folders or folders)
    keys = number(mutants, codes)
    equivalents = {key: reason for key, reason in read_equivalents().items() if key[0].split(" ")[0] in codes}
    problems = [show(key, "listed as equivalent, but there is no such mutant")
                for key in set(equivalents) - {key for key, _ in keys.values()}]

    mutants = [m for m in mutants if re.search(options.only, " ".join(keys[m][1]))]
    if options.list:
        print("\n".join(show(keys[m][1], "") for m in mutants))
        return
    if options.sample:
        mutants = random.Random(3).sample([m for m in mutants if keys[m][0] not in equivalents], options.sample)

    pool = concurrent.futures.ThreadPoolExecutor(options.jobs)
    files = dict.fromkeys(mutant.file for mutant in mutants)
    runs = [(build, file) for file in files for build in builds if build.has_tests(file)]
    list(pool.map(lambda run: run[0].measure(run[1]), runs))

    def killer(mutant):
        for build in builds:
            found = build.killer(mutant)
            if found is not None:
                return found
        return None

    ends = collections.Counter()
    report = []
    for mutant, found in zip(mutants, pool.map(killer, mutants)):
        key, lines = keys[mutant]
        if found == "":
            end, note = "refused by the compiler", ""
        elif found == "=":
            end, note = "of the same code", ""
        elif found:
            end, note = "killed", f"killed by {found}"
        elif key in equivalents:
            end, note = "equivalent", f"equivalent: {equivalents[key]}"
        else:
            end, note = "survived", "survived"
            problems.append(show(lines, note))
        if key in equivalents and end != "equivalent":
            problems.append(show(lines, f"listed as equivalent, but {note or end}"))
        ends[end] += 1
        report.append(show(lines, note or end))
        if options.report:
            with open(options.report, "w", encoding="utf-8") as file:
                file.write("\n".join(report))

    for problem in problems:
        print(problem)
    numbers = collections.Counter(mutant.file.split("/")[0] for mutant in mutants)
    print(f"mutation: {len(mutants)} mutants ({', '.join(f'{folder} {n}' for folder, n in numbers.items())}): "
          f"{ends['killed']} killed, {ends['equivalent']} equivalent by proof, {ends['of the same code']} of the same code, "
          f"{ends['refused by the compiler']} refused by the compiler, {ends['survived']} survived; "
          f"{time.monotonic() - start:.0f} s")
    sys.exit(1 if problems else 0)


if __name__ == "__main__":
    main()
