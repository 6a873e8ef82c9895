"""Writes docs/performance.md from the results of the benchmarks: the tables between the marks, and the pictures.

A table is between the lines "<!-- bench: NAME -->" and "<!-- end -->". Everything else is written by hand.
"""

import json
import pathlib
import re
import statistics
import subprocess

ROOT = pathlib.Path(__file__).resolve().parent.parent
OWN = "orv_safe"  # contenders of this project whose names begin so
MARKED = re.compile(r"(?s)<!-- bench: ([\w ]+) -->\n.*?<!-- end -->")


def in_words(nanoseconds):
    for limit, divisor, unit in ((1e3, 1, "ns"), (1e6, 1e3, "us"), (1e9, 1e6, "ms")):
        if nanoseconds < limit:
            return f"{nanoseconds / divisor:.3g} {unit}"
    return f"{nanoseconds / 1e9:.3g} s"


def spread(values):
    """Half the width of the middle half of the values, relative to their median."""
    if len(values) < 2:
        return 0.0
    low, middle, high = statistics.quantiles(values, n=4, method="inclusive")
    return (high - low) / 2 / middle


def median_time(contenders, name):
    return statistics.median(contenders[name]["nanoseconds"])


def peers(contenders):
    """The names of the others, the fastest first."""
    names = [name for name in contenders if name not in ("ours", "floor") and not name.startswith(OWN)]
    return sorted(names, key=lambda name: median_time(contenders, name))


def table(header, rows):
    escaped = [[cell.replace("|", "\\|") for cell in row] for row in rows]
    return "\n".join("| " + " | ".join(row) + " |" for row in [header, ["---"] * len(header), *escaped])


def of_family(workloads, pattern):
    """Returns the contenders of the workloads whose names match."""
    found = {name: workload["contenders"] for name, workload in workloads.items() if re.match(pattern, name)}
    if not found:
        raise ValueError(f"the results have no workload {pattern}")
    return found


def comparison(results, pattern):
    rows = []
    for name, contenders in of_family(results["workloads"], pattern).items():
        ratio = {who: f"{contender['ours_by_this']:.2f}" for who, contender in contenders.items()}
        others = peers(contenders)
        rows.append([f"`{name}`", in_words(median_time(contenders, "ours")), ratio.get("floor", ""),
                     f"{ratio[others[0]]} {others[0]}", "; ".join(f"{who} {ratio[who]}" for who in others),
                     f"{100 * spread(contenders['ours']['nanoseconds']):.1f} %"])
    return table(["Workload", "Ours", "/ floor", "/ best other", "Others, ours divided by theirs", "Spread"], rows)


# The columns of the companion's table, and the contenders of a copy and of a move.
COMPANION = [
    ("`orv_safe`", "orv_safe", "orv_safe"), ("not durable", "orv_safe, not durable", "orv_safe, not durable"),
    ("`sendfile` into a new file, renamed", "sendfile(2), rename(2)", "sendfile(2)"),
    ("`sendfile` over the old file", "sendfile(2)", ""), ("`std::filesystem`", "std::filesystem", "std::filesystem"),
    ("Boost", "Boost.Filesystem", ""), ("GLib", "GLib g_file_copy", "GLib g_file_move"), ("`cp`, `mv`", "cp", "mv"),
    ("this library", "ours", "ours")]


def companion(results, pattern):
    rows = []
    for name, contenders in of_family(results["workloads"], pattern).items():
        chosen = [copy if name.startswith("copy/") else move for _, copy, move in COMPANION]
        rows.append([f"`{name}`", *(in_words(median_time(contenders, who)) if who in contenders else ""
                                    for who in chosen)])
    return table(["Workload", *(title for title, *_ in COMPANION)], rows)


def published(results, pattern):
    rows = [[f"`{name}`", in_words(median_time(contenders, "ours")), f"{contenders['floor']['ours_by_this']:.2f}",
             f"{100 * spread(contenders['ours']['nanoseconds']):.1f} %"]
            for name, contenders in of_family(results["workloads"], pattern).items()]
    return table(["Workload", "`PublishPage`", "/ `GenHtmlPagefromTextFile`", "Spread"], rows)


def memory(results, pattern):
    def peak(contender):
        return "" if contender["peak_bytes"] is None else f"{contender['peak_bytes'] // 1024} KiB"

    rows = [[f"`{name}`", peak(contenders["ours"]), peak(contenders["floor"]),
             "; ".join(f"{who} {peak(contenders[who])}" for who in peers(contenders) if peak(contenders[who]))]
            for name, contenders in of_family(results["workloads"], pattern).items() if peak(contenders["ours"])]
    return table(["Workload", "Ours", "Floor", "Others"], rows)


def facts(results, _):
    return "\n".join(f"- {name}: {value}" for name, value in results["facts"].items())


TABLES = {
    "facts": (facts, ""),
    "move and copy": (comparison, r"(move|copy)/"),
    "companion": (companion, r"move/(same|across)|copy/(file|disk)"),
    "exists and make_path": (comparison, r"(exists|make_path)/"),
    "list": (comparison, r"list/"),
    "match": (comparison, r"match/"),
    "split and trim": (comparison, r"(split|trim)/"),
    "row and page": (comparison, r"(row|page)/"),
    "publish": (published, r"publish/"),
    "name_value": (comparison, r"name_value/"),
    "memory": (memory, r"(list/plain|page/)"),
}


def with_tables(document, results):
    """Returns the document with the tables of these results. Each table must be in it exactly once."""
    marked = MARKED.findall(document)
    if sorted(marked) != sorted(TABLES):
        raise ValueError(f"the document has the tables {sorted(marked)} instead of {sorted(TABLES)}")

    def filled(match):
        make, pattern = TABLES[match.group(1)]
        return f"<!-- bench: {match.group(1)} -->\n\n{make(results, pattern)}\n\n<!-- end -->"

    return MARKED.sub(filled, document)


# ---- Pictures

# What grows in each picture.
FAMILIES = {"copy": "bytes", "list": "names", "match": "bytes of text", "page": "rows", "row": "cells",
            "name_value": "lines"}
COLOURS = ["#1f77b4", "#767676", "#d1741f", "#2e9348"]  # readable on white and on black
SETTINGS = """set terminal svg size 760,400 font "sans-serif,13"
set logscale xy
set rmargin 36
unset mxtics
unset mytics
set format x "%.0s%c"
set format y "%.0s %cs"
set border 3 linecolor rgb "#767676"
set tics nomirror textcolor rgb "#767676"
set grid linecolor rgb "#767676" linewidth 0.3 dashtype 3
set key outside right top Left reverse textcolor rgb "#767676" noenhanced
set title "{title}" textcolor rgb "#767676" noenhanced
set xlabel "{grows}" textcolor rgb "#767676"
set ylabel "CPU time of one call" textcolor rgb "#767676"
"""


def series(results, family):
    """Returns {contender: {size: nanoseconds}} of ours, the floor and the two best others at the largest size of all."""
    sizes = {int(name.split(":")[1]): contenders
             for name, contenders in of_family(results["workloads"], f"growth/{family}:").items()}
    common = max(size for size, contenders in sizes.items() if len(contenders) == max(map(len, sizes.values())))
    shown = ["ours", *(["floor"] if "floor" in sizes[common] else []), *peers(sizes[common])[:2]]
    return {who: {size: median_time(contenders, who) for size, contenders in sorted(sizes.items()) if who in contenders}
            for who in shown}


def plot(family, curves):
    """Returns the commands for gnuplot. The dotted line is in proportion to the size, at our least cost of one unit."""
    ours = curves["ours"]
    least = min(cost / size for size, cost in ours.items())
    lines = [SETTINGS.format(title=family, grows=FAMILIES[family])]
    plots = [f"[{min(ours)}:{max(ours)}] {least / 1e9:.6g} * x with lines dashtype 3 linecolor rgb "
             '"#767676" title "in proportion"']
    for number, ((who, points), colour) in enumerate(zip(curves.items(), COLOURS)):
        lines += [f"$data{number} << EOD", *(f"{size} {cost / 1e9:.6g}" for size, cost in points.items()), "EOD"]
        width = 2 if who == "ours" else 1.2
        plots.append(f'$data{number} with linespoints pointtype 7 pointsize 0.4 linewidth {width} '
                     f'linecolor rgb "{colour}" title "{who}"')
    return "\n".join([*lines, "plot " + ", \\\n  ".join(plots), ""])


def draw(family, results):
    """Returns the picture of a family."""
    return subprocess.run(["gnuplot"], input=plot(family, series(results, family)), stdout=subprocess.PIPE, text=True,
                          check=True).stdout


def write(directory, document=ROOT / "docs" / "performance.md"):
    """Writes the document and its pictures from the results in a directory."""
    results, growth = (json.loads((directory / name).read_text()) for name in ("results.json", "growth.json"))
    document.write_text(with_tables(document.read_text(), results))
    for family in FAMILIES:
        (document.parent / f"growth-{family}.svg").write_text(draw(family, growth))
    print(f"{document} and its pictures are written.")
