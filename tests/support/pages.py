"""Reads pages of the library with a parser that does not depend on the library."""

import ctypes
import html.parser
import os

ALL_BYTES = bytes(byte for byte in range(1, 256) if byte != ord("/"))
HOSTILE_NAMES = [
    *(b"a%cb" % byte for byte in b"&<>\";,:\r\n'"),
    *(b"%c5" % byte for byte in b"&<>\";,:\r\n'"),
    *(b"%c0123456789x9" % byte for byte in b"&<>\";,:\r\n"),
    *(b"%c" % byte for byte in b"&<>\";,:\r\n"),
    b"&lt;script&gt;", b"&amp", b"&#59", b"&#59;", b"&#x3c;b&#x3e;", b"#59", b"&;", b"&#",
    b"<script>alert(1)", b"<img src=x onerror=alert(1)>", b"<td>", b"<td><tr><table>", b"<!-- ", b"-->", b"<![CDATA[",
    b"<?php", b"<plaintext>", b"\"><b>", b"x;y:z,w;", b"a:5:5;5,5", b"\r\n", b"\n\n", b"name\r", b"name\n1",
    b" blanks at both ends ", b"tab\there", b"\x01\x1b\x7f", b".hidden", b"*", b"?", b"caf\xc3\xa9 \xe2\x82\xac5",
    b"\xf0\x9f\x98\x80;1", b"\xff\xfe\x80", b"\x80;9", b"latin \xe9,1", ALL_BYTES, ALL_BYTES[::-1],
]  # fmt: skip


def text(raw):
    """Decodes bytes as the parser does; different bytes that are not UTF-8 stay different."""
    return raw.decode("utf-8", "surrogateescape")


class Page(html.parser.HTMLParser):
    """Finds the tables of a page, and everything that should not be in it. `markup` is what cells may contain: the
    elements with the element around each and the names of its attributes."""

    def __init__(self, raw, markup=()):
        super().__init__(convert_charrefs=True)
        self.markup = dict(markup)
        self.inside = []  # each element of that markup that was found, with its attributes
        self.styles = []
        self.tables = []  # a list of rows for each; a row is a list of cell texts
        self.layout = []  # of the body: tables and spacers in order
        self.metas = []
        self.foreign = []  # everything except the tags and texts of such a page
        self.open = []
        self.feed(text(raw))
        self.close()

    def handle_starttag(self, tag, attrs):
        parents = {"html": "kpx_pld", "head": "html", "body": "html", "table": "body", "p": "body", "tr": "table",
                   "td": "tr", "meta": "head", "kpx_pld": ""}  # fmt: skip
        parent = self.open[-1] if self.open else ""
        if self.markup.get(tag) == (parent, *(name for name, _ in attrs)):
            self.inside.append((tag, dict(attrs)))
            if tag != "meta":
                self.open.append(tag)
            return
        if parents.get(tag) != parent or (attrs and tag not in ("kpx_pld", "meta", "table")):
            self.foreign.append((tag, attrs, parent))
        if tag == "meta":
            self.metas.append(dict(attrs))
            return
        self.open.append(tag)
        if tag in ("table", "p"):
            self.layout.append(tag)
        if tag == "table":
            self.tables.append([])
            if attrs != [("border", "2")]:
                self.foreign.append((tag, attrs))
        elif tag == "tr":
            self.tables[-1].append([])
        elif tag == "td":
            self.tables[-1][-1].append("")

    def handle_endtag(self, tag):
        if not self.open or self.open.pop() != tag:
            self.foreign.append("/" + tag)

    def handle_data(self, data):
        if self.open and self.open[-1] == "style":
            self.styles.append(data)
        elif self.open and (self.open[-1] == "td" or self.open[-1] in self.markup):
            self.tables[-1][-1][-1] += data
        elif data != " ":
            self.foreign.append(data)

    def handle_comment(self, data):
        self.foreign.append("comment " + data)

    def handle_pi(self, data):
        self.foreign.append("instruction " + data)

    def unknown_decl(self, data):
        self.foreign.append("declaration " + data)


def without_capabilities(*numbers):
    """For a child with the permission checks of an ordinary user, even if root runs the tests."""

    def drop():
        if os.geteuid() == 0:
            libc = ctypes.CDLL(None, use_errno=True)
            for number in numbers:
                if libc.prctl(24, number, 0, 0, 0) != 0:  # PR_CAPBSET_DROP
                    raise OSError(ctypes.get_errno(), "prctl")

    return drop
