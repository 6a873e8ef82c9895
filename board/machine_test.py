#!/usr/bin/env python3
"""Tests that machine.py passes on what a command does, and that every way in which a board can fail is a failure.

Usage: machine_test.py FOLDER
"""

import io
import os
import signal
import sys
import unittest

import machine

FOLDER = sys.argv.pop()
# Overwrites the program of the first process, which then dies.
PANIC = "dd if=/dev/zero of=/proc/1/mem bs=4096 seek=65537 count=64; sleep 10"


class MachineTest(unittest.TestCase):
    def setUp(self):
        before = machine.STOP_SECONDS
        self.addCleanup(setattr, machine, "STOP_SECONDS", before)

    def ends_with(self, message, command, seconds=machine.JOB_SECONDS):
        """Runs a command that must make the board fail. Returns the message, with the console."""
        with self.assertRaisesRegex(machine.Failure, message) as caught, machine.Machine(FOLDER) as board:
            process = board.process
            board.run(command, seconds=seconds)
        self.assertIsNotNone(process.poll())
        self.assertFalse(board.folder.exists())
        return str(caught.exception)

    def test_passes_on_what_commands_do(self):
        output, errors = io.BytesIO(), io.BytesIO()
        with machine.Machine(FOLDER) as board:
            process = board.process
            self.assertEqual(3, board.run(["sh", "-c", "pwd; id -u; echo bad >&2; exit 3"], 0, 60, output, errors))
            self.assertEqual(0, board.run(["id", "-u"], 65534, 60, output))
            self.assertEqual(137, board.run(["sh", "-c", "kill -9 $$"]))
            self.assertEqual(126, board.run(["/no/such/command"], 0, 60, errors, errors))
            self.assertEqual(0, board.run(["sh", "-c", "echo one; echo two >&2; echo three"], 0, 60, output, output))

        self.assertEqual(f"{os.getcwd()}\n0\n65534\none\ntwo\nthree\n".encode(), output.getvalue())
        self.assertEqual(b"bad\nboard: /no/such/command: No such file or directory\n", errors.getvalue())
        self.assertEqual(0, process.poll())

    def test_a_command_that_hangs_is_a_failure(self):
        self.ends_with("the command did not end in 2 s; its console:", ["sleep", "1000"], 2)

    def test_a_board_that_stops_is_a_failure(self):
        self.ends_with("the board has stopped; its console:", ["poweroff", "-f"])

    def test_a_panic_is_a_failure_that_shows_the_console(self):
        text = self.ends_with("the board has stopped; its console:", ["sh", "-c", PANIC])

        self.assertIn("Kernel panic - not syncing: Attempted to kill init!", text)

    def test_a_board_that_does_not_answer_is_a_failure(self):
        machine.STOP_SECONDS = 1
        with self.assertRaisesRegex(machine.Failure, "the board did not answer in 2 s"):
            with machine.Machine(FOLDER) as board:
                board.process.send_signal(signal.SIGSTOP)
                board.run(["true"], seconds=1)

    def test_a_kernel_in_trouble_is_a_failure(self):
        with self.assertRaisesRegex(machine.Failure, "the kernel of the board reported trouble"):
            with machine.Machine(FOLDER) as board:
                board.run(["sh", "-c", "echo 'BUG: as a test' >/dev/console"])


if __name__ == "__main__":
    unittest.main()
