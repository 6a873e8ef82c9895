#!/usr/bin/env python3
"""Counts what one call of each function costs on the board; script/board calls this.

Usage: costs.py FOLDER PROGRAM LIBRARIES-O2 LIBRARIES-Os [--store]

The clock of the board advances one nanosecond with each instruction, so a program that reads the clock counts them, the
kernel's included. The counts are medians of several boots. Heap and stack are those of the last libraries. All are
compared with the table of docs/performance.md: a count that is more than 2 % higher is a failure, and so are more heap
or stack, because these repeat exactly, and calls that only one of both has. --store writes that table.
"""

import pathlib
import re
import statistics
import subprocess
import sys

from machine import Failure, Machine

BOOTS = 3
GROWN = [1.02, 1.02, 1, 1]  # of the columns
COUNTING = ["-icount", "shift=0,sleep=off"]
DOCUMENT = pathlib.Path(__file__).resolve().parent.parent / "docs" / "performance.md"
HEAD = ["| One call | Instructions, -O2 | -Os | Heap, bytes | Stack, bytes |", "|---|---|---|---|---|"]


def count(folder, program, libraries):
    """Returns the lines that the program prints with each of these libraries, on one boot."""
    outputs = []
    with Machine(folder, files="tmpfs", options=COUNTING) as board:
        for directory in libraries:
            output = pathlib.Path(board.folder) / "costs.txt"
            with output.open("w+b") as file:
                command = ["/bin/sh", "-c", f'LD_LIBRARY_PATH="{directory}" exec "{program}"']
                if board.run(command, output=file, errors=file) != 0:
                    sys.exit(f"script/board: the costs cannot be counted:\n{output.read_text()}")
            outputs.append([line.split("\t") for line in output.read_text().splitlines()])
    return outputs


def measure(folder, program, libraries):
    """Returns {call: [instructions with each of the libraries, heap, stack]}."""
    boots = [count(folder, program, libraries) for _ in range(BOOTS)]
    names = [name for name, *_ in boots[0][0]]
    costs = {}
    for i, name in enumerate(names):
        counts = [[int(boot[which][i][1]) for boot in boots] for which in range(len(libraries))]
        heap, stack = boots[0][-1][i][2:]
        costs[name] = [*(int(statistics.median(each)) for each in counts), int(heap), int(stack)]
        spread = max(max(each) / min(each) - 1 for each in counts)
        print(f"{name}: {costs[name]}, boots differ by {100 * spread:.1f} %", flush=True)
    return costs


def stored(document):
    rows = re.findall(r"(?m)^\| (.+?) \| ([\d,]+) \| ([\d,]+) \| ([\d,]+) \| ([\d,]+) \|$", document)
    return {name: [int(number.replace(",", "")) for number in numbers] for name, *numbers in rows}


def with_table(document, costs):
    """Returns the document with these costs in its table."""
    rows = [f"| {name} | " + " | ".join(f"{number:,}" for number in numbers) + " |" for name, numbers in costs.items()]
    start = document.index(HEAD[0])
    end = document.index("\n\n", start)
    return document[:start] + "\n".join(HEAD + rows) + document[end:]


def problems(before, costs):
    """Describes what has grown, and the calls that only one of both has."""
    found = [f"{name}: not counted" for name in before if name not in costs]
    found += [f"{name}: not in the table" for name in costs if name not in before]
    columns = [column.strip() for column in HEAD[0].split("|")[2:6]]
    for name, numbers in costs.items():
        for column, most, old, new in zip(columns, GROWN, before.get(name, []), numbers):
            if new > old * most:
                found.append(f"{name}: {column}: {old:,} before, {new:,} now")
    return found


def main(folder, program, *operands):
    libraries = [operand for operand in operands if operand != "--store"]
    try:
        costs = measure(folder, program, libraries)
    except (Failure, subprocess.SubprocessError) as failure:
        sys.exit(f"script/board: {failure}")
    if "--store" in operands:
        DOCUMENT.write_text(with_table(DOCUMENT.read_text(), costs))
        return
    found = problems(stored(DOCUMENT.read_text()), costs)
    print(f"{len(costs)} calls counted, {len(found)} problems")
    if found:
        sys.exit("\n".join(found))


if __name__ == "__main__":
    main(*sys.argv[1:])
