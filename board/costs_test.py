#!/usr/bin/env python3
"""The table of costs, and when they count as grown. Needs no board."""

import unittest

from costs import HEAD, problems, stored, with_table

DOCUMENT = "# Title\n\n" + "\n".join(HEAD) + "\n| old | 1 | 2 | 3 | 4 |\n\nText.\n"
COSTS = {"a call": [1000, 2000, 0, 592], "another, with a comma": [1234567, 5, 6, 7]}


class TableTest(unittest.TestCase):
    def test_a_table_that_is_stored_is_read_again(self):
        document = with_table(DOCUMENT, COSTS)

        self.assertEqual(COSTS, stored(document))
        self.assertTrue(document.startswith("# Title\n\n| One call |"))
        self.assertTrue(document.endswith("| 7 |\n\nText.\n"))

    def found(self, *numbers):
        return problems({"a call": COSTS["a call"]}, {"a call": numbers})

    def test_two_percent_more_instructions_are_not_a_problem(self):
        self.assertEqual([], self.found(1020, 2040, 0, 592))
        self.assertEqual(["a call: Instructions, -O2: 1,000 before, 1,021 now"], self.found(1021, 2000, 0, 592))
        self.assertEqual(["a call: -Os: 2,000 before, 2,041 now"], self.found(1000, 2041, 0, 592))

    def test_any_more_heap_or_stack_is_a_problem(self):
        self.assertEqual([], self.found(1000, 2000, 0, 591))
        self.assertEqual(["a call: Heap, bytes: 0 before, 1 now"], self.found(1000, 2000, 1, 592))
        self.assertEqual(["a call: Stack, bytes: 592 before, 593 now"], self.found(1000, 2000, 0, 593))

    def test_each_call_is_counted_and_in_the_table(self):
        counted = {name: numbers for name, numbers in COSTS.items() if name != "a call"}

        self.assertEqual([], problems(COSTS, COSTS))
        self.assertEqual(["a call: not counted"], problems(COSTS, counted))
        self.assertEqual(["a call: not in the table"], problems(counted, COSTS))


if __name__ == "__main__":
    unittest.main()
