#!/usr/bin/env python3
"""orvfile row."""

import fcntl
import os
import subprocess
import sys
import termios

import tool
from tool import ToolTest, limited_to, problem

NO_ROWS = problem("standard input contains no rows", "check the command that writes it; an empty table needs no rows")
SPOOLED_ROWS = 20000  # more than the program keeps in memory


class RowToolTest(ToolTest):
    def assert_row(self, arguments, out, **options):
        self.assert_done("row", *arguments, out=out, **options)

    def assert_long_row(self, arguments, out, **options):
        """The same without a long message."""
        status, printed, err = self.run_tool("row", *arguments, **options)
        self.assertEqual((0, "", len(out), True), (status, err, len(printed), printed == out))

    def assert_refused(self, message, remedy, *arguments, data):
        self.assert_fails(problem("standard input" + message, remedy), "row", *arguments, data=data)


class RowTest(RowToolTest):
    def test_cells_become_a_row(self):
        self.assert_row(["Port 1", "up", "100 Mbit/s"], b"Port 1:up,100 Mbit/s;")
        self.assert_row(["a", "b", "--table-end"], b"a:b;\n")

    def test_every_cell_keeps_its_place(self):
        for cells, out in (
            (["a"], b"a</td><!--:-->;"),
            (["a", ""], b"a:;"),
            (["a", "b", ""], b"a:b,<!---->;"),
            (["", "", ""], b":,<!---->;"),
        ):
            with self.subTest(cells=cells):
                self.assert_row(cells, out)
                self.assert_row(["--raw", *cells], out)
                self.assert_row(["--csv"], out, data=",".join(cells).encode() + b"\n")

    def test_cells_are_escaped(self):
        self.assert_row(["a&b;", ":5,x", "<'\">", "\r\n1"], b"a&#38b&#59:&#58&#53&#44x,&#60&#39&#34&#62,&#13&#10&#49;")

    def test_bytes_of_an_argument_that_are_not_utf_8_become_the_replacement_character(self):
        self.assert_row([b"\xff", "é"], "\ufffd:é;".encode())

    def test_raw_cells_pass_through(self):
        self.assert_row(["--raw", "<b>,a</b>", "x:y&amp&#53"], b"<b>,a</b>:x:y&amp&#53;")

    def test_a_raw_cell_that_would_break_its_row_is_reported_and_nothing_is_written(self):
        remedy = "omit --raw to have such bytes replaced, or remove them from the cell"
        for data, place, why in (
            (b"a,b\nc,d;e\n", "row 2, column 2, byte 2", "a semicolon ends the row"),
            (b"a:,b\n", "row 1, column 1, byte 2", "a colon ends the head cell"),
            (b'a,b,"c,"\n', "row 1, column 3, byte 2", "a comma ends the cell"),
            (b'"a\nb",c\n', "row 1, column 1, byte 2", "a line feed ends the table"),
            (b"a\n;\n", "row 2, column 1, byte 1", "a semicolon ends the row"),
            (b"a,b\n" * SPOOLED_ROWS + b"a,;\n", f"row {SPOOLED_ROWS + 1}, column 2, byte 1", "a semicolon ends the row"),
        ):
            with self.subTest(data=data[-20:]):
                self.assert_fails(problem(f"{place}: {why}", remedy), "row", "--raw", "--csv", data=data)
        self.assert_fails(problem("row 1, column 2, byte 1: a comma ends the cell", remedy), "row", "--raw", "a", ",")

    def test_comma_separated_values_are_read_as_others_write_them(self):
        for data, out in (
            (b"a,b\n", b"a:b;"),
            (b"a,b", b"a:b;"),
            (b"a,b\r\nc,d\r\n", b"a:b;c:d;"),
            (b"\xef\xbb\xbfa,b\n", b"a:b;"),
            (b"a,\xef\xbb\xbfb\n", b"a:\xef\xbb\xbfb;"),
            (b'"a,b","c ""d"""\n', b"a&#44b:c &#34d&#34;"),
            (b'"two\nlines",x\n', b"two&#10lines:x;"),
            (b"  a , b c \n", b"a:b c;"),
            (b'" a "," "\n', b" a : ;"),
            (b"a,b\n\n\r\nc,d\n", b"a:b;c:d;"),
            (b"a\tb,c\n", b"a&#9b:c;"),
            (b"a,b;c\n", b"a:b&#59c;"),
            (b"a\nb;c\n", b"a</td><!--:-->;b&#59c</td><!--:-->;"),
        ):
            with self.subTest(data=data):
                self.assert_row(["--csv"], out, data=data)
        self.assert_row(["--csv", "--table-end"], b"a:b;c:d;\n", data=b"a,b\nc,d\n")

    def test_tabs_separate_on_request(self):
        self.assert_row(["--tsv"], b"a:b&#44c;d&#9e:,f;", data=b'a\tb,c\n"d\te"\t\tf\n')
        self.assert_row(["--tsv"], b"a&#59b</td><!--:-->;", data=b"a;b\n")

    def test_any_byte_separates_on_request(self):
        for arguments, data in (
            (["--delimiter", ";"], b'a;"b,;"\n'),
            (["--csv", "--delimiter", ";"], b'a;"b,;"\n'),
            (["--delimiter=|"], b"a|b,;\n"),
            (["--delimiter", "["], b"a[b,;\n"),
            (["--delimiter", "~"], b"a~b,;\n"),
            (["--delimiter", " "], b"a b,;\n"),
            (["--delimiter", "\t"], b"a\tb,;\n"),
            (["--delimiter", ","], b'a,"b,;"\n'),
        ):
            with self.subTest(arguments=arguments):
                self.assert_row(arguments, b"a:b&#44&#59;", data=data)

    def test_a_byte_that_cannot_separate_is_wrong_use(self):
        for byte in ("", "ab", "é", '"', "\n", "\r"):
            with self.subTest(byte=byte):
                status, out, err = self.run_tool("row", "--delimiter", byte, data=b"a")
                self.assertEqual((2, b""), (status, out))
                self.assertIn("is not allowed; give one byte that is not a quotation mark or a line end", err)

    def test_options_of_the_input_do_not_go_with_cells(self):
        for option in (["--delimiter", ";"], ["--encoding", "UTF-8"], ["--csv"], ["--tsv"]):
            with self.subTest(option=option):
                self.assertEqual((2, b""), self.run_tool("row", *option, "cell")[:2])
        self.assertEqual((2, b""), self.run_tool("row", "--tsv", "--delimiter", ";", data=b"a")[:2])
        self.assertEqual((2, b""), self.run_tool("row", "--encoding", "UTF-8", data=b"a")[:2])

    def test_semicolons_in_place_of_commas_are_recognised(self):
        for data in (b"a;b\nc;d\n", b'"a;b"\n', b"a;b\r\n1,5;2\r\n"):
            with self.subTest(data=data):
                self.assert_refused(
                    " seems to be separated by semicolons: its first row has no comma, but semicolons",
                    "add --delimiter ';', or --delimiter , if commas separate the values", "--csv", data=data)  # fmt: skip
        self.assert_row(["--delimiter", ","], b"a&#59b</td><!--:-->;", data=b"a;b\n")

    def test_a_long_input_is_read_to_its_end(self):
        data = b"".join(b"row %d,%s\n" % (i, b"x" * 50) for i in range(SPOOLED_ROWS))
        out = b"".join(b"row %d:%s;" % (i, b"x" * 50) for i in range(SPOOLED_ROWS))

        self.assert_long_row(["--csv", "--table-end"], out + b"\n", data=data)

    def test_a_long_row_is_read_to_its_end(self):
        self.assert_long_row(["--csv"], b"a:%s;" % (b"x" * 200000), data=b"a,%s\n" % (b"x" * 200000))

    def test_bad_input_is_reported_and_nothing_is_written(self):
        remedy = "put the cell between quotation marks, and double each quotation mark inside it"
        for data, message in (
            (b'a,b\nc,d"e\n', ", row 2: unexpected quotation mark at byte 8 of the input"),
            (b'\xef\xbb\xbfa,b\nc,d"e\n', ", row 2: unexpected quotation mark at byte 11 of the input"),
            (b'"a"b,c\n', ", row 1: unexpected quotation mark at byte 4 of the input"),
            (b'a,b\n"c,d\n', ", row 2: the input ends inside quotation marks"),
            (b"a,b\n" * SPOOLED_ROWS + b'a"',
             f", row {SPOOLED_ROWS + 1}: unexpected quotation mark at byte {4 * SPOOLED_ROWS + 2} of the input"),
        ):  # fmt: skip
            with self.subTest(data=data[-20:]):
                self.assert_refused(message, remedy, "--csv", data=data)

    def test_input_without_rows_is_reported(self):
        for data in (b"", b"\n\n", b"\xef\xbb\xbf"):
            self.assert_fails(NO_ROWS, "row", "--csv", "--table-end", data=data)

    def test_standard_input_that_cannot_be_read_is_reported(self):
        directory = os.open(self.dir, os.O_RDONLY)
        self.addCleanup(os.close, directory)

        self.assert_fails(
            problem("cannot read standard input: Is a directory", "redirect it from a file or a pipe"),
            *("row", "--csv"), stdin=directory)  # fmt: skip


class EncodingTest(RowToolTest):
    def test_input_that_is_not_utf_8_is_refused_with_row_and_byte(self):
        remedy = "name the encoding of the input, such as --encoding ISO-8859-1 for Latin-1"
        for data, row, byte, value in (
            (b"a,b\nc,\xe9\n", 2, 7, "E9"),
            (b"\x80", 1, 1, "80"),
            (b"a,\xc3\n", 1, 3, "C3"),
            (b"a,b\n\xc3", 2, 5, "C3"),
            (b"a,\xed\xa0\x80\n", 1, 3, "ED"),
            (b"a,b\n" * SPOOLED_ROWS + b"\xff", SPOOLED_ROWS + 1, 4 * SPOOLED_ROWS + 1, "FF"),
            (b"a" * 16383 + "\u00e9\n".encode() + b"\xff", 2, 16387, "FF"),  # two reads get a part of one character each
        ):
            with self.subTest(data=data[-20:]):
                self.assert_refused(
                    f", row {row}: byte {byte} of the input (0x{value}) is not UTF-8; it may be Latin-1", remedy,
                    "--csv", data=data)  # fmt: skip

    def test_input_in_utf_16_is_recognised(self):
        for encoding, mark in (("UTF-16", "utf-16-le"), ("UTF-16", "utf-16-be"), ("UTF-32", "utf-32-le")):
            with self.subTest(mark=mark):
                self.assert_refused(f", row 1: the input is {encoding}, not UTF-8", f"add --encoding {encoding}", "--csv",
                                    data="\ufeffa,b\n".encode(mark))  # fmt: skip
        for encoding in ("utf-16-le", "utf-16-be"):
            self.assert_refused(
                ", row 1: a NUL, which UTF-16 contains and text does not",
                "if the input is UTF-16, add --encoding UTF-16LE or --encoding UTF-16BE; otherwise remove it", "--csv",
                data="a,b\n".encode(encoding))  # fmt: skip

    def test_input_is_converted_on_request(self):
        self.assert_row(["--csv", "--encoding", "UTF-8"], "a:€;".encode(), data="\ufeffa,€\n".encode())
        self.assert_row(["--csv", "--encoding", "UCS-4LE"], "a:€;".encode(), data="\ufeffa,€\n".encode("utf-32-le"))

    def test_characters_across_blocks_are_converted(self):
        cell = "aé€😀" * 20000

        for encoding, codec in (("UTF-8", "utf-8"), ("UCS-4BE", "utf-32-be")):
            data = f"a,{cell}\n".encode(codec)
            self.assert_long_row(["--csv", "--encoding", encoding], f"a:{cell};".encode(), data=data)

    def test_input_that_is_not_in_its_encoding_is_reported(self):
        self.assert_refused(", row 2: byte 13 of the input (0xFF) is not 'UCS-4BE'",
                            "name the encoding of the input; iconv -l prints names",
                            *("--csv", "--encoding", "UCS-4BE"), data="a,\n".encode("utf-32-be") + b"\xff" * 4)  # fmt: skip

    def test_an_unknown_encoding_is_reported(self):
        self.assert_fails(
            problem("this system cannot convert from the encoding 'klingon': Invalid argument",
                    "check its name; iconv -l prints the names that are known, on a device often only a few"),
            *("row", "--csv", "--encoding", "klingon"), data=b"a,b\n")  # fmt: skip


class InputTest(RowToolTest):
    def test_input_that_comes_in_parts_is_read_whole(self):
        process = self.start("row", "--csv", stdin=subprocess.PIPE, bufsize=0)
        process.stdin.write(b"a")
        self.wait_for(lambda: self.unread(process.stdin) == 0, process)
        status, out, err = self.finish(process, b"b," * 20000 + b"c\n")

        self.assertEqual((0, b"ab:" + b"b," * 19999 + b"c;", ""), (status, out, err))

    def unread(self, pipe):
        return int.from_bytes(fcntl.ioctl(pipe, termios.FIONREAD, bytes(4)), sys.byteorder)


class SpoolTest(RowToolTest):
    data = b"row,%s\n" % (b"x" * 50) * SPOOLED_ROWS

    def in_directory(self, path):
        return {"env": {**os.environ, "LC_ALL": "C", "TMPDIR": path}}

    def test_a_long_table_waits_in_the_directory_for_temporary_files(self):
        remedy = "set TMPDIR to a directory that is writable and has enough space"

        out = self.data.replace(b",", b":").replace(b"\n", b";")
        self.assert_long_row(["--csv"], out, data=self.data, **self.in_directory(self.dir))
        self.assertEqual([], self.names())
        self.assert_fails(
            problem(f"cannot create a temporary file in '{self.path('gone')}': No such file or directory", remedy),
            *("row", "--csv"), data=self.data, **self.in_directory(self.path("gone")))  # fmt: skip
        self.assert_fails(
            problem("cannot write a temporary file in '/var/tmp': File too large", remedy),
            *("row", "--csv"), data=self.data, preexec_fn=limited_to(100000), **self.in_directory(""))  # fmt: skip

    def test_a_short_write_of_the_temporary_file_goes_on(self):
        trace = self.path("trace")
        out = self.data.replace(b",", b":").replace(b"\n", b";")
        self.assert_long_row(["--csv"], out, data=self.data, shim={"SHORT": "write:1:100", "TRACE": trace})
        self.assertIn(b"short write", self.read(trace))

    def test_a_temporary_file_that_cannot_be_read_is_reported(self):
        self.assert_fails(
            problem("cannot read a temporary file in '/var/tmp': Input/output error",
                    "set TMPDIR to a directory that is writable and has enough space"),
            *("row", "--csv"), data=self.data, shim={"FAIL": "pread:5"})  # fmt: skip

    def test_a_short_table_needs_no_temporary_file(self):
        self.assert_row(["--csv"], b"a:b;", data=b"a,b\n", **self.in_directory(self.path("gone")))


if __name__ == "__main__":
    tool.main()
