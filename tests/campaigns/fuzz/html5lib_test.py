#!/usr/bin/env python3
"""Reads cells and rows of the safe companion back with html5lib, a parser of HTML as browsers have.

Random and hostile cells become rows, and these a page by the library. Each cell must have the expected text, cells with
markup also the expected attribute, and the page the elements of a page with harmless cells, no others. ORV_FULL=1 makes
it longer.

Usage: html5lib_test.py ORV_CALL
"""

import os
import random
import subprocess
import sys
import tempfile
import urllib.parse

import orv_test
from pages import HOSTILE_NAMES

SYSTEM_PYTHON = "/usr/bin/python3"  # Debian's package is for this one
try:
    import html5lib
except ImportError:
    if sys.executable != SYSTEM_PYTHON and os.access(SYSTEM_PYTHON, os.X_OK):
        os.execv(SYSTEM_PYTHON, [SYSTEM_PYTHON, "-B", *sys.argv])
    orv_test.skip("no html5lib (Debian: python3-html5lib)")

ROWS = 20000 if os.environ.get("ORV_FULL") == "1" else 700
ROWS_OF_A_PAGE = 700
TOKENS = [
    *(bytes([byte]) for byte in range(256)), b"&", b"&", b"&#", b"&#x", b"&#38", b"&amp", b"&lt;", b"&notin;", b"<",
    b">", b"<!--", b"-->", b"--!>", b"<![CDATA[", b"]]>", b"</td>", b"</table>", b"<script>", b"</script>", b"<style>",
    b"<svg>", b"<plaintext>", b"<select>", b"<textarea>", b"<template>", b"<?", b"<!", b"</",
    b'"', b"'", b"`", b"=", b" ", b"\n",
    b"\r\n", b"\t", b"\0", b"0", b"9", b"x", b"A", b"\xc3\xa9", b"\xe2\x82\xac", b"\xf0\x9f\x98\x80", b"\xef\xbb\xbf",
    b"\xef\xbf\xbe", b"\xe2\x82", b"\xf0\x9f\x98", b"\xed\xa0\x80", b"\xf4\x90\x80\x80", b"\xc0\x80", b"\xc2\x85",
    b"\xe2\x80\xae", b"\xe2\x80\xa8", *(name[:100] for name in HOSTILE_NAMES),
]  # fmt: skip


def random_cell(chance):
    return b"".join(chance.choice(TOKENS) for _ in range(chance.choice((0, 1, 1, 2, 3, 5, 8))))


def expected(raw):
    """Returns the text that a browser must show."""
    return raw.decode("utf-8", "replace").replace("\0", "\ufffd")


def call(program, requests):
    """Returns the results of orv_call, one for each request. It must report nothing."""
    requests = list(requests)
    lines = ["".join(urllib.parse.quote(field) + "\t" for field in request) for request in requests]
    run = subprocess.run([program], input="\n".join(lines) + "\n", stdout=subprocess.PIPE, text=True, check=True)
    answers = [line.split("\t") for line in run.stdout.splitlines()]
    if [answer[0] for answer in answers] != ["result"] * len(requests):
        raise RuntimeError([answer for answer in answers if answer[0] != "result"][:3])
    return [urllib.parse.unquote_to_bytes(answer[1]) for answer in answers]


def page_of(program, directory, rows):
    """Publishes the rows, and returns the parsed page."""
    text, page = os.path.join(directory, "text"), os.path.join(directory, "page")
    with open(text, "wb") as file:
        file.write(b"".join(call(program, rows)) + b"\n")
    if call(program, [("SafePublishPage", text, page, "")]) != [b"1"]:
        raise RuntimeError("the page was not published")
    with open(page, "rb") as file:
        return html5lib.parse(file.read(), transport_encoding="utf-8", namespaceHTMLElements=False)


def elements(page):
    """Returns all nodes in order: elements with the names of their attributes, comments and what else there is."""
    return [(node.tag, sorted(node.attrib)) for node in page.iter()]


def cells_of(page):
    return [[("".join(cell.itertext()), [mark.get("title") for mark in cell.iter("b")]) for cell in row.iter("td")]
            for row in page.iter("tr")]


class Rows:
    """The rows of one page: those of SafeRow, and those of SafeMarkupRow, whose cells are a text and an attribute."""

    def __init__(self, chance, count):
        self.rows = []  # a list of cells for each: (text, attribute or None)
        for number in range(count):
            has_markup = number % 2 == 1
            self.rows.append([(random_cell(chance), random_cell(chance) if has_markup else None)
                              for _ in range(chance.randint(1, 4))])

    def requests(self, change):
        """Each cell is passed through `change`."""
        for row in self.rows:
            if row[0][1] is None:
                yield ("SafeRow", *(change(text) for text, _ in row))
            else:
                yield ("SafeMarkupRow", *(change(part) for cell in row for part in cell))

    def expected(self):
        return [[(expected(text), [] if title is None else [expected(title)]) for text, title in row]
                for row in self.rows]


def problems_of(program, directory, rows):
    page = page_of(program, directory, rows.requests(lambda raw: raw))
    harmless = page_of(program, directory, rows.requests(lambda raw: b"x" if raw else b""))
    problems = []
    if elements(page) != elements(harmless):
        odd = [pair for pair in zip(elements(page), elements(harmless)) if pair[0] != pair[1]]
        problems.append(f"the page has other elements than its own: {odd[:1]}")
    found = cells_of(page)
    wanted = rows.expected()
    if len(found) != len(wanted):
        problems.append(f"{len(found)} rows instead of {len(wanted)}")
    problems += [f"expected {one!r}\n     got {other!r}" for one, other in zip(wanted, found) if one != other][:3]
    return problems


def main():
    program, seed = sys.argv[1], 14
    chance = random.Random(seed)
    problems, cells = [], 0
    with tempfile.TemporaryDirectory(prefix="orv_test.") as directory:
        for _ in range(0, ROWS, ROWS_OF_A_PAGE):
            rows = Rows(chance, ROWS_OF_A_PAGE)
            cells += sum(map(len, rows.rows))
            problems += problems_of(program, directory, rows)
    print(f"campaign: html5lib: {cells} cells read back, seed {seed}")
    orv_test.finish(problems)


if __name__ == "__main__":
    main()
