#!/usr/bin/env python3
"""orvfile row --encoding, with the encodings that the C library reads from files. Emulated machines have no such files."""

import row_test
import tool


class InstalledEncodingTest(row_test.RowToolTest):
    def assert_converted(self, encoding, data, out):
        self.assert_row(["--csv", "--encoding", encoding], out.encode(), data=data)

    def test_the_encodings_of_spreadsheets_are_converted(self):
        for encoding, data, out in (
            ("ISO-8859-1", b"a,\xe9\n", "a:é;"),
            ("WINDOWS-1252", b"a,\x80\n", "a:€;"),
            ("UTF-16", "\ufeffa,é€😀\n".encode("utf-16-le"), "a:é€😀;"),
            ("UTF-16", "\ufeffa,é€😀\n".encode("utf-16-be"), "a:é€😀;"),
            ("UTF-16LE", "a,é€😀\n".encode("utf-16-le"), "a:é€😀;"),
            ("UTF-16BE", "a,é€😀\n".encode("utf-16-be"), "a:é€😀;"),
            ("UTF-32", "\ufeffa,é€😀\n".encode("utf-32-le"), "a:é€😀;"),
        ):
            with self.subTest(encoding=encoding):
                self.assert_converted(encoding, data, out)

    def test_a_last_character_that_could_still_get_an_accent_is_kept(self):
        self.assert_converted("CP1258", b"a,e", "a:e;")

    def test_a_character_that_ends_too_early_is_reported(self):
        self.assert_refused(", row 2: byte 9 of the input (0x00) is not 'UTF-16LE'",
                            "name the encoding of the input; iconv -l prints names",
                            *("--csv", "--encoding", "UTF-16LE"), data="a,\nb".encode("utf-16-le") + b"\x00\xdc")  # fmt: skip


if __name__ == "__main__":
    tool.main()
