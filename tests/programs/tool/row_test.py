#!/usr/bin/env python3
"""orvfile row."""

import os

import tool
from tool import ToolTest, problem


class RowTest(ToolTest):
    def test_cells_become_a_row(self):
        self.assert_done("row", "Port 1", "up", "100 Mbit/s", out=b"Port 1:up,100 Mbit/s;")
        self.assert_done("row", "", "", "", out=b":,;")
        self.assert_done("row", "a", "b", "--table-end", out=b"a:b;\n")

    def test_a_row_of_one_cell_gets_a_second_one(self):
        self.assert_done("row", "a", out=b"a:;")
        self.assert_done("row", "--raw", "a", out=b"a:;")
        self.assert_done("row", "--csv", data=b"a\nb,c\n", out=b"a:;b:c;")

    def test_cells_are_escaped(self):
        self.assert_done("row", "a&b;", ":5,x", '<">', "\r\n1", out=b"a&#38b&#59:&#58&#53&#44x,&#60&#34&#62,&#13&#10&#49;")

    def test_raw_cells_pass_through(self):
        self.assert_done("row", "--raw", "<b>,a</b>", "x:y&amp", out=b"<b>,a</b>:x:y&amp;")

    def test_a_raw_cell_that_would_break_its_row_is_reported_and_nothing_is_written(self):
        remedy = "omit --raw to have such bytes replaced, or remove them from the cell"
        for data, place, why in (
            (b"a,b\nc,d;e\n", "row 2, column 2, byte 2", "a semicolon ends the row"),
            (b"a:,b\n", "row 1, column 1, byte 2", "a colon ends the head cell"),
            (b'a,b,"c,"\n', "row 1, column 3, byte 2", "a comma ends the cell"),
            (b'"a\nb",c\n', "row 1, column 1, byte 2", "a line feed ends the table"),
            (b"a\n;\n", "row 2, column 1, byte 1", "a semicolon ends the row"),
        ):
            with self.subTest(data=data):
                self.assert_fails(problem(f"{place}: {why}", remedy), "row", "--raw", "--csv", data=data)
        self.assert_fails(problem("row 1, column 2, byte 1: a comma ends the cell", remedy), "row", "--raw", "a", ",")

    def test_comma_separated_values_are_read_as_others_write_them(self):
        for data, out in (
            (b"a,b\n", b"a:b;"),
            (b"a,b", b"a:b;"),
            (b"a,b\r\nc,d\r\n", b"a:b;c:d;"),
            (b"\xef\xbb\xbfa,b\n", b"a:b;"),
            (b'"a,b","c ""d"""\n', b"a&#44b:c &#34d&#34;"),
            (b'"two\nlines",x\n', b"two&#10lines:x;"),
            (b"  a , b c \n", b"a:b c;"),
            (b'" a "," "\n', b" a : ;"),
            (b"a,,\n", b"a:,;"),
            (b",\n", b":;"),
            (b"a,b\n\n\r\nc,d\n", b"a:b;c:d;"),
            (b"a,\0\xff\n", b"a:\0\xff;"),
            (b"a\tb,c\n", b"a\tb:c;"),
        ):
            with self.subTest(data=data):
                self.assert_done("row", "--csv", data=data, out=out)
        self.assert_done("row", "--csv", "--table-end", data=b"a,b\nc,d\n", out=b"a:b;c:d;\n")

    def test_tabs_separate_on_request(self):
        self.assert_done("row", "--tsv", data=b'a\tb,c\n"d\te"\t\tf\n', out=b"a:b&#44c;d\te:,f;")

    def test_a_long_input_is_read_to_its_end(self):
        rows = 20000
        data = b"".join(b"row %d,%s\n" % (i, b"x" * 50) for i in range(rows))

        self.assert_done("row", "--csv", data=data, out=b"".join(b"row %d:%s;" % (i, b"x" * 50) for i in range(rows)))

    def test_bad_input_is_reported_and_nothing_is_written(self):
        remedy = "put the cell between quotation marks, and double each quotation mark inside it"
        for data, message in (
            (b'a,b\nc,d"e\n', "row 2: unexpected quotation mark at byte 8 of the input"),
            (b'"a"b,c\n', "row 1: unexpected quotation mark at byte 4 of the input"),
            (b'a,b\n"c,d\n', "row 2: the input ends inside quotation marks"),
        ):
            with self.subTest(data=data):
                self.assert_fails(problem("standard input, " + message, remedy), "row", "--csv", data=data)
        for data in (b"", b"\n\n"):
            self.assert_fails(
                problem("standard input contains no rows",
                        "check the command that writes it; an empty table needs no rows"),
                *("row", "--csv", "--table-end"), data=data)  # fmt: skip

    def test_standard_input_that_cannot_be_read_is_reported(self):
        directory = os.open(self.dir, os.O_RDONLY)
        self.addCleanup(os.close, directory)

        self.assert_fails(
            problem("cannot read standard input: Is a directory", "redirect it from a file or a pipe"),
            *("row", "--csv"), stdin=directory)  # fmt: skip


if __name__ == "__main__":
    tool.main()
