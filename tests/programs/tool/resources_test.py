#!/usr/bin/env python3
"""Memory of orvfile. Emulators and sanitizers have their own."""

import os
import re
import resource

import tool
from logged import LoggedTest
from tool import ToolTest

MEBIBYTE = 1 << 20
ROWS = 1000000


def with_memory(size):
    """For a child that gets no more memory than this."""
    return lambda: resource.setrlimit(resource.RLIMIT_AS, (size, size))


class MemoryTest(ToolTest):
    def test_a_million_rows_need_16_mebibytes(self):
        self.write("table", b"Port,up since yesterday\n" * ROWS)

        with open(self.path("table"), "rb") as table:
            process = self.start("row", "--csv", stdin=table, bufsize=0)
        first = process.stdout.read(1)  # the rest does not fit into the pipe, so the program waits
        memory = self.peak_memory(process.pid)
        status, rest, err = self.finish(process)

        self.assertEqual((0, ROWS, ""), (status, (first + rest).count(b";"), err))
        self.assertLess(memory, 16 * MEBIBYTE)

    def test_a_lack_of_memory_is_a_failure(self):
        for size in (30, 60, 100):  # ends while the row is printed, while the cell is copied, while it is read
            data = b"a," + b"x" * (size * MEBIBYTE) + b"\n"

            status, out, err = self.run_tool("row", "--csv", data=data, preexec_fn=with_memory(100 * MEBIBYTE))

            self.assertEqual((1, b""), (status, out))
            self.assertEqual("orvfile: std::bad_alloc\n  Next: free memory, or use a smaller input\n", err)

    def test_a_lack_of_memory_is_a_failure_of_settings_and_changes_nothing(self):
        settings = b"a=" + b"x" * (60 * MEBIBYTE)
        self.write("f", settings)
        for function, arguments in (("ReadSettings", ["get", "f", "a"]), ("CheckSettings", ["get", "f", "--lint"]),
                                    ("WriteSettings", ["set", "f", "b=1"]), ("RemoveSettings", ["unset", "f", "a"])):  # fmt: skip
            with self.subTest(function=function):
                status, out, err = self.run_tool(*arguments, preexec_fn=with_memory(100 * MEBIBYTE))

                self.assertEqual((1, b""), (status, out))
                self.assertRegex(err, rf"^\[3\] orv_safe: {function}: new\(f\) failed \(12, Cannot allocate memory\)\.\n"
                                 r"orvfile: cannot \w+ 'f': .+\n  Next: .+\n$")  # fmt: skip
                self.assertEqual((settings, ["f"]), (self.read("f"), self.names()))

    def peak_memory(self, process):
        with open(f"/proc/{process}/status", encoding="ascii") as status:
            return 1024 * int(re.search(r"(?m)^VmHWM:\s*(\d+) kB", status.read())[1])


class LostReportTest(LoggedTest):
    SHIM = {"MEMORY": "10000"}  # bytes of the first allocation that fails
    ESCAPED_TO_15000_BYTES = "/".join(["\x01" * 200] * 19)

    def test_a_report_that_is_lost_for_lack_of_memory_is_a_failure_that_says_so(self):
        self.write("a")
        self.assert_fails(
            "dlog: out of memory, a report was lost\n"
            "orvfile: std::bad_alloc\n  Next: free memory, or use a smaller input\n",
            *("copy", "a", self.ESCAPED_TO_15000_BYTES), shim=self.SHIM)  # fmt: skip

    def test_the_log_of_the_system_says_so_too(self):
        self.write("a")
        self.assertEqual(
            (1, b"", "dlog: out of memory, a report was lost\n",
             ["<11>std::bad_alloc", "<11>Next: free memory, or use a smaller input"]),
            self.run_logged("copy", "--syslog", "a", self.ESCAPED_TO_15000_BYTES, shim=self.SHIM))  # fmt: skip


if __name__ == "__main__":
    tool.main()
