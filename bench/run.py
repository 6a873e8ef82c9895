#!/usr/bin/env python3
"""Runs the benchmark program in rounds, and compares this library with the floor and with other libraries ("peers").

The floor is the least possible cost: code written by hand for one purpose, with the same result. Each measurement is a
process of its own. A round measures every contender once, those of a workload one after the other, so that other load
on the machine affects them alike. The results are medians of the ratios of each round. All figures are CPU time. Files
are in memory: below /dev/shm and, if a second file system is needed, in /var/tmp. If mounting is allowed, that is a
tmpfs for this run only. The files of copy/disk are below the directory of the results.
"""

import argparse
import concurrent.futures
import datetime
import json
import os
import pathlib
import platform
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

import counts
import document
from document import in_words, spread

ROOT = pathlib.Path(__file__).resolve().parent.parent
PROFILED = 0.03  # functions with a smaller share of the instructions are not printed
OTHER_PARENT = "/var/tmp"
PRIVATE = "ORV_BENCH_PRIVATE"  # set in the environment if /var/tmp is mounted for this run only

# Peers that are compiled in if their packages are installed.
OPTIONAL_PEERS = {"Abseil": "libabsl-dev", "Boost": "libboost-filesystem-dev", "GLib": "libglib2.0-dev",
                  "inih": "libinih-dev"}

OTHERS = ["coreutils", "findutils", *OPTIONAL_PEERS.values()]

# Workloads, the aim for ours/floor, and aims for ours/peer by a pattern of the peer's name.
AIMS = [
    (r"^move/same$", 1.02, {}),
    (r"^move/across", 1.05, {}),
    (r"^exists/", 1.02, {"GLib": 1.0, "std::": 1.0}),
    (r"^make_path/", 1.04, {"std::": 1.0, "Boost": 1.0}),
    (r"^copy/file:(0|4096)$", 1.45, {}),
    (r"^copy/file:64MiB$", 1.10, {".": 1.30}),
    (r"^copy/disk:", 1.10, {".": 1.40}),
    (r"^copy/", 1.10, {}),
    (r"^list/.*:100$", 1.12, {".": 0.80}),
    (r"^list/.*:10000$", 1.15, {".": 0.85}),
    (r"^list/.*:200000$", 1.4, {".": 0.80}),
    (r"^list/", 1.4, {".": 0.85}),
    (r"^match/typical$", None, {"GPatternSpec": 0.65, "fnmatch": 1.0}),
    (r"^match/", None, {".": 1.0}),
    (r"^split/pieces:8$", 1.2, {"Abseil": 0.6}),
    (r"^split/", 1.5, {"Abseil": 0.6}),
    (r"^trim/", 1.05, {"Abseil": 1.0, "Boost": 1.0}),
    (r"^row/cells:8$", 1.0, {"Abseil": 0.55}),
    (r"^row/", 1.0, {}),
    (r"^publish/", 1.30, {}),
    (r"^page/rows:10$", 1.35, {".": 0.85}),
    (r"^page/rows:50000$", 2.2, {".": 0.70}),
    (r"^page/", 2.2, {".": 0.60}),
    (r"^name_value/.*:100$", 1.75, {".": 1.10, "inih": 1.0}),
    (r"^name_value/random:10000$", 1.4, {".": 1.30, "inih": 1.0}),
    (r"^name_value/sorted", 1.1, {"inih": 1.0, "GKeyFile": 1.0}),
    (r"^name_value/repeating:1000000$", 1.65, {".": 1.05, "inih": 1.0, "GKeyFile": 1.0}),
    (r"^name_value/repeating", 1.65, {"inih": 1.0, "GKeyFile": 1.0}),
    (r"^name_value/distinct", 1.15, {"inih": 1.0}),
    (r"^growth/", None, {}),
]
OF_THE_PROJECT = "orv_safe"  # contenders whose names begin so are this project's own, not peers


def fail(message):
    sys.exit(f"script/bench: {message}")


class Contender:
    def __init__(self, line):
        name, unit, units, heavy, in_memory, process = line.split("\t")
        self.name = name
        self.workload, self.contender = re.match(r"([^/]+/[^/]+)/(.*)", name).groups()
        self.unit = unit
        self.units = int(units)
        self.heavy = heavy == "1"
        self.in_memory = in_memory == "1" and process == "0"
        self.nanoseconds = []  # of CPU time per call, one figure per round
        self.peak = None  # bytes


class Workload:
    def __init__(self, name, contenders):
        self.name = name
        self.contenders = contenders
        self.ours = self.find("ours")
        self.floor = self.find("floor")
        self.peers = [c for c in contenders
                      if c not in (self.ours, self.floor) and not c.contender.startswith(OF_THE_PROJECT)]
        self.aim, self.peer_aims = next((floor, peers) for pattern, floor, peers in AIMS if re.search(pattern, name))

    def find(self, name):
        return next((c for c in self.contenders if c.contender == name), None)

    def best_peer(self):
        return min(self.peers, key=lambda peer: statistics.median(peer.nanoseconds), default=None)


def ratios(ours, other):
    """Returns the ratio of each round."""
    return [a / b for a, b in zip(ours.nanoseconds, other.nanoseconds)]


def ratio(ours, other):
    return statistics.median(ratios(ours, other))


class Runner:
    """Starts the benchmark program in the directories of this run."""

    def __init__(self, program, output):
        self.program = program
        self.directories = []
        self.environment = dict(os.environ)
        output.mkdir(parents=True, exist_ok=True)
        for variable, parent in (("ORV_BENCH_DIR", "/dev/shm"), ("ORV_BENCH_OTHER_DIR", OTHER_PARENT),
                                 ("ORV_BENCH_DISK_DIR", output)):
            directory = tempfile.mkdtemp(prefix="orv-bench-", dir=parent)
            self.directories.append(directory)
            self.environment[variable] = directory

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for directory in self.directories:
            shutil.rmtree(directory, ignore_errors=True)

    def run(self, *arguments, prefix=(), environment=None):
        done = subprocess.run(
            [*prefix, f"./{self.program.name}", *arguments], cwd=self.program.parent,
            env=environment or self.environment, stdout=subprocess.PIPE, text=True, check=False,
            stderr=subprocess.PIPE)
        if done.returncode != 0:
            fail(f"orv_bench {' '.join(arguments)}: status {done.returncode}\n{done.stderr}")
        return done.stdout

    def measure(self, contender, seconds):
        output = self.run("--unchecked", f"--only={contender.name}", "--benchmark_format=json",
                          f"--benchmark_min_time={seconds}")
        result = json.loads(output)["benchmarks"][0]
        if result.get("error_occurred"):
            fail(f"{contender.name}: {result['error_message']}")
        manual = result["name"].endswith("/manual_time")
        return result["real_time" if manual else "cpu_time"]

    def filesystems(self):
        return [f"{kind} {place}" for kind, place in zip(
            (subprocess.check_output(["findmnt", "-n", "-o", "FSTYPE", "-T", d], text=True).split()[-1]
             for d in self.directories),
            ("in /dev/shm", f"in {OTHER_PARENT}", "for copy/disk"))]


def host(runner):
    model = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
    compiler = subprocess.check_output(["g++", "--version"], text=True).splitlines()[0]
    return {
        "processor": f"{model.group(1) if model else platform.machine()}, {os.cpu_count()} of them",
        "system": f"{platform.system()} {platform.release().split('-')[0]}, {' '.join(platform.libc_ver())}",
        "compiler": compiler,
        "others": versions(OTHERS),
        "file systems": ", ".join(runner.filesystems()),
        "date": datetime.date.today().isoformat(),
    }


def versions(packages):
    """Returns the versions of the Debian packages, on a system that has these."""
    command = ["dpkg-query", "-W", "-f", "${Package} ${Version}\\n", *packages]
    try:
        return ", ".join(subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
                                        check=False).stdout.splitlines())
    except FileNotFoundError:
        return "versions unknown"


def measure_all(runner, workloads, rounds, heavy_rounds, seconds):
    for number in range(rounds):
        start = time.monotonic()
        for workload in workloads:
            if workload.ours.heavy and number >= heavy_rounds:
                continue
            turn = number % len(workload.contenders)
            for contender in workload.contenders[turn:] + workload.contenders[:turn]:
                contender.nanoseconds.append(runner.measure(contender, seconds))
        print(f"round {number + 1} of {rounds}: {time.monotonic() - start:.0f} s", file=sys.stderr)


def measure_peaks(runner, workloads):
    for workload in workloads:
        for contender in workload.contenders:
            if contender.in_memory:
                output = runner.run("--peak", f"--only={contender.name}")
                contender.peak = int(output.split("\t")[1])


def table(header, rows):
    """Returns a Markdown table that is also readable as text."""
    widths = [max(len(str(row[i])) for row in [header, *rows]) for i in range(len(header))]
    lines = ["| " + " | ".join(str(cell).ljust(width) for cell, width in zip(row, widths)) + " |"
             for row in [header, *rows]]
    lines.insert(1, "|" + "|".join("-" * (width + 2) for width in widths) + "|")
    return "\n".join(lines)


def with_mark(value, aim):
    return f"{value:.2f}" + ("" if aim is None or round(value, 2) <= aim else " !")


def summary(workloads):
    rows = []
    for workload in workloads:
        to_floor = ratios(workload.ours, workload.floor) if workload.floor else []
        peer = workload.best_peer()
        aims = [f"{p.contender} {with_mark(ratio(workload.ours, p), aim)} ({aim:.2f})"
                for pattern, aim in workload.peer_aims.items() if pattern != "." for p in workload.peers
                if re.search(pattern, p.contender)]
        best_aim = workload.peer_aims.get(".")
        rows.append((
            workload.name, in_words(statistics.median(workload.ours.nanoseconds)),
            with_mark(statistics.median(to_floor), workload.aim) if to_floor else "",
            "" if workload.aim is None else workload.aim,
            f"{100 * spread(to_floor or workload.ours.nanoseconds):.1f} %",
            with_mark(ratio(workload.ours, peer), best_aim) if peer else "",
            f"{best_aim:.2f}" if best_aim else "", peer.contender if peer else "", "; ".join(aims)))
    return table(("workload", "ours", "ours/floor", "aim", "spread", "ours/best peer", "aim", "which peer",
                  "named peers (aim)"), rows)


def details(workloads):
    rows = []
    for workload in workloads:
        for contender in workload.contenders:
            rows.append((workload.name, contender.contender, in_words(statistics.median(contender.nanoseconds)),
                         f"{100 * spread(contender.nanoseconds):.1f} %", f"{ratio(workload.ours, contender):.2f}"))
    return table(("workload", "contender", "CPU time per call", "spread", "ours / it"), rows)


def growth(workloads):
    series = {}
    for workload in workloads:
        if ":" in workload.name and workload.ours.units > 0:
            series.setdefault(workload.name.split(":")[0], []).append(workload)
    rows = []
    for name, sizes in series.items():
        if len(sizes) > 1:
            costs = [", ".join(f"{w.name.split(':')[1]}: {statistics.median(c.nanoseconds) / c.units:.3g}"
                               for w, c in ((w, w.find(who)) for w in sizes) if c) for who in ("ours", "floor")]
            rows.append((name, f"ns per {sizes[0].ours.unit}", *costs))
    return table(("series", "unit", "ours, by size", "floor, by size"), rows) if rows else ""


def memory(workloads):
    rows = [(w.name, ", ".join(f"{c.contender}: {c.peak // 1024} KiB" for c in w.contenders if c.peak is not None))
            for w in workloads if w.ours.peak is not None]
    return table(("workload", "growth of peak memory in one call"), rows) if rows else ""


def write_results(workloads, facts, directory, name="results"):
    parts = [("", "\n".join(f"- {name}: {value}" for name, value in facts.items())), ("Summary", summary(workloads)),
             ("Growth", growth(workloads)), ("Memory", memory(workloads)), ("All contenders", details(workloads))]
    text = "\n\n".join((f"## {title}\n\n" if title else "# Benchmark results\n\n") + body
                       for title, body in parts if body)
    (directory / f"{name}.md").write_text(text + "\n")
    (directory / f"{name}.json").write_text(json.dumps({
        "facts": facts,
        "workloads": {
            w.name: {
                "unit": w.ours.unit,
                "units": w.ours.units,
                "aim": w.aim,
                "contenders": {
                    c.contender: {
                        "nanoseconds": c.nanoseconds,
                        "peak_bytes": c.peak,
                        "ours_by_this": ratio(w.ours, c),
                    } for c in w.contenders
                },
            } for w in workloads
        },
    }, indent=1) + "\n")
    print(text.split("\n\n## All contenders")[0])
    print(f"\nEvery contender: {directory / name}.md, {directory / name}.json. "
          "\"!\" marks ratios that miss their aim.")


def missing_peers(contenders):
    return [f"{peer} ({package})" for peer, package in OPTIONAL_PEERS.items()
            if not any(c.contender.startswith(peer) for c in contenders)]


def choose(runner, arguments, growing=False):
    contenders = [Contender(line) for line in runner.run("--list").splitlines()]
    missing = missing_peers(contenders)
    if missing:
        message = f"{len(missing)} peers are not compiled in: {', '.join(missing)}"
        if os.environ.get("ORV_NO_SKIP"):
            fail(message)
        print(message, file=sys.stderr)
    by_workload = {}
    for contender in contenders:
        if (contender.workload.startswith("growth/") == growing and re.search(arguments.filter, contender.workload)
                and not (arguments.quick and contender.heavy)):
            by_workload.setdefault(contender.workload, []).append(contender)
    if not by_workload:
        fail(f"no workload matches {arguments.filter}")
    return [Workload(name, group) for name, group in by_workload.items()]


def exactly(workloads):
    """Returns a filter that matches exactly these workloads."""
    return "^(" + "|".join(re.escape(w.name) for w in workloads) + ")/"


def heavy_rounds(arguments):
    return min(arguments.rounds, 3)


def check_and_measure(runner, workloads, arguments):
    runner.run("--check", f"--filter={exactly(workloads)}")
    measure_all(runner, workloads, arguments.rounds, heavy_rounds(arguments), arguments.seconds)
    measure_peaks(runner, workloads)


def measure_growth(runner, arguments):
    """Measures the workloads that show how the cost grows: twice, the longest once."""
    workloads = choose(runner, arguments, growing=True)
    if light := [w for w in workloads if not w.ours.heavy]:
        runner.run("--check", f"--filter={exactly(light)}")
    rounds = min(arguments.rounds, 2)
    measure_all(runner, workloads, rounds, 1, arguments.seconds)
    facts = host(runner)
    facts["rounds"] = f"{rounds}, of the longest workloads 1"
    write_results(workloads, facts, arguments.output, "growth")


def benchmark(runner, arguments):
    workloads = choose(runner, arguments)
    if arguments.quick:  # its times are not used
        with Runner(arguments.program, arguments.output) as other, concurrent.futures.ThreadPoolExecutor() as pool:
            halves = [(runner, workloads[::2]), (other, workloads[1::2])]
            list(pool.map(lambda half: check_and_measure(*half, arguments), halves))
    else:
        check_and_measure(runner, workloads, arguments)
    facts = host(runner)
    facts["rounds"] = f"{arguments.rounds}, of the longest workloads {heavy_rounds(arguments)}"
    write_results(workloads, facts, arguments.output)


# ---- Instruction counts


def count_contender(runner, contender, directory):
    """Counts one contender in a process of its own, whose heap and stack are always the same before the call."""
    output = directory / ("callgrind.out." + re.sub(r"\W", "_", contender.name))
    environment = {**counts.ENVIRONMENT, **{name: value for name, value in runner.environment.items()
                                            if name in ("ORV_BENCH_DIR", "ORV_BENCH_OTHER_DIR")}}
    runner.run("--count", f"--only={contender.name}", environment=environment,
               prefix=("valgrind", "--quiet", "--tool=callgrind", "--instr-atstart=no",
                       f"--callgrind-out-file={output}"))
    return counts.from_callgrind(output.with_name(output.name + ".1").read_text())


def count_all(runner, contenders, arguments):
    """Returns {name of a contender: its count}. Two processes count, each in directories of its own."""
    directory = arguments.output / "callgrind"
    shutil.rmtree(directory, ignore_errors=True)
    directory.mkdir()
    with Runner(arguments.program, arguments.output) as other, concurrent.futures.ThreadPoolExecutor() as pool:
        halves = [(runner, contenders[::2]), (other, contenders[1::2])]
        found = pool.map(lambda half: {c.name: count_contender(half[0], c, directory) for c in half[1]}, halves)
        return {name: count for half in found for name, count in half.items()}


def is_counted(workload, quick):
    """On a disk, a copy executes the same instructions. The quick form leaves out what takes seconds."""
    slow = r"^list/(?!plain).*:10000$|:200000$|:64MiB$|^publish/rows:50000$"
    return (not workload.ours.heavy and not workload.name.startswith("copy/disk:")
            and not (quick and re.search(slow, workload.name)))


def print_profile(name, count):
    print(f"\n{name}: {count.total}")
    for function, instructions in count.functions.most_common():
        if instructions >= PROFILED * count.total:
            print(f"  {100 * instructions / count.total:4.1f} %  {function}")


def instructions(runner, arguments):
    workloads = [w for w in choose(runner, arguments) if is_counted(w, arguments.quick)]
    contenders = [c for w in workloads for c in (w.ours, None if arguments.quick else w.floor) if c]
    counted = count_all(runner, contenders, arguments)
    stored, made_by = counts.from_text(arguments.stored.read_text()) if arguments.stored.exists() else ({}, "")
    # What has grown is counted again: the names of temporary files are random, and few of them take more instructions.
    grown = [w.ours for w in workloads if counts.problems(stored, {w.name: counted[w.ours.name]}) and w.name in stored]
    for name, again in count_all(runner, grown, arguments).items():
        counted[name] = min(counted[name], again, key=lambda count: count.total)
    rows = []
    for workload in workloads:
        count = counted[workload.ours.name].total
        floor = counted.get(workload.floor.name) if workload.floor else None
        before = stored.get(workload.name)
        change = f"{100 * (count / before.total - 1):+.1f} %" if before else "new"
        rows.append((workload.name, count, f"{count / floor.total:.2f}" if floor else "",
                     before.total if before else "", change))
    print(table(("workload", "instructions", "ours/floor", "stored", "change"), rows))
    if arguments.profile:
        for name, count in sorted(counted.items()):
            print_profile(name, count)
    now = {w.name: counted[w.ours.name] for w in workloads}
    if arguments.store:
        everything = now if not arguments.filter else {**stored, **now}
        arguments.stored.write_text(counts.to_text(everything, counts.tools()))
        print(f"{arguments.stored} holds the counts of {len(everything)} calls.")
    elif reason := counts.why_not_comparable(made_by, counts.tools()):
        print("Not compared: " + reason)
    elif found := counts.problems(stored, now):
        sys.exit("\n".join(found))
    else:
        print(f"None of the {len(now)} calls has grown by more than {100 * (counts.GROWN - 1):.0f} %.")


# ---- The command line


def be_private():
    """As root, mounts a tmpfs on /var/tmp for this run only: temporary pages are written there."""
    if os.environ.get(PRIVATE) or os.geteuid() != 0 or str(ROOT).startswith(OTHER_PARENT + "/"):
        return
    mount = "mount -t tmpfs -o mode=1777,size=50% orv-bench " + OTHER_PARENT
    if subprocess.run(["unshare", "--mount", "sh", "-c", mount], stderr=subprocess.DEVNULL, check=False).returncode == 0:
        os.environ[PRIVATE] = "1"
        script = [sys.executable, *sys.argv]
        os.execvp("unshare", ["unshare", "--mount", "sh", "-c", mount + ' && exec "$@"', "sh", *script])


def parse():
    parser = argparse.ArgumentParser(prog="script/bench", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--program", default=ROOT / "build" / "bench" / "bench" / "orv_bench", type=pathlib.Path,
                        help="the benchmark program")
    parser.add_argument("--output", default=ROOT / "build" / "bench", type=pathlib.Path,
                        help="directory for results.md and results.json")
    parser.add_argument("--filter", default="", metavar="REGEX",
                        help="run only workloads that match, such as ^list/ or page/rows:10$")
    parser.add_argument("--rounds", type=int, default=None, metavar="N", help="number of rounds (default 5)")
    parser.add_argument("--quick", action="store_true",
                        help="one short round, without the longest workloads; takes a minute")
    parser.add_argument("--growth", action="store_true",
                        help="measure only how the cost grows with the size; results in growth.md and growth.json")
    parser.add_argument("--document", action="store_true",
                        help="measure everything, then write the tables and pictures of docs/performance.md")
    parser.add_argument("--last", action="store_true",
                        help="with --document: measure nothing, write the last results")
    parser.add_argument("--list", action="store_true", help="list the contenders")
    parser.add_argument("--instructions", action="store_true",
                        help="count instructions and compare them with bench/instructions.txt")
    parser.add_argument("--stored", default=counts.STORED, type=pathlib.Path, metavar="FILE",
                        help="with --instructions: another file with stored counts")
    parser.add_argument("--store", action="store_true", help="with --instructions: write that file")
    parser.add_argument("--profile", action="store_true",
                        help="with --instructions: print the functions that execute them")
    arguments = parser.parse_args()
    if arguments.store and arguments.quick:
        parser.error("--store counts all calls: not with --quick")
    arguments.program = arguments.program.resolve()
    arguments.output = arguments.output.resolve()
    if arguments.document and (arguments.quick or arguments.filter):
        parser.error("--document needs the results of all workloads: not with --quick or --filter")
    if arguments.rounds is None:
        arguments.rounds = 1 if arguments.quick else 3 if arguments.document else 5
    arguments.seconds = 0.001 if arguments.quick else 0.05
    return arguments


def main():
    arguments = parse()
    be_private()
    with Runner(arguments.program, arguments.output) as runner:
        if arguments.list:
            for workload in choose(runner, arguments):
                print(f"{workload.name}: {', '.join(c.contender for c in workload.contenders)}")
        elif arguments.instructions:
            instructions(runner, arguments)
        elif arguments.growth:
            measure_growth(runner, arguments)
        elif not arguments.last:
            benchmark(runner, arguments)
            if arguments.document:
                measure_growth(runner, arguments)
    if arguments.document:
        try:
            document.write(arguments.output)
        except (OSError, ValueError) as error:
            fail(f"the document cannot be written: {error}")


if __name__ == "__main__":
    main()
