#!/usr/bin/env python3
"""The table of costs, and when they count as grown. Needs no board."""

import unittest

from costs import HEAD, grown, stored, with_table

DOCUMENT = "# Title\n\n" + "\n".join(HEAD) + "\n| old | 1 | 2 | 3 | 4 |\n\nText.\n"
COSTS = {"a call": [1000, 2000, 0, 592], "another, with a comma": [1234567, 5, 6, 7]}


class TableTest(unittest.TestCase):
    def test_a_table_that_is_stored_is_read_again(self):
        document = with_table(DOCUMENT, COSTS)

        self.assertEqual(COSTS, stored(document))
        self.assertTrue(document.startswith("# Title\n\n| One call |"))
        self.assertTrue(document.endswith("| 7 |\n\nText.\n"))

    def test_two_percent_more_have_not_grown(self):
        self.assertEqual([], grown(COSTS, {"a call": [1020, 2040, 99, 9999]}))

    def test_more_than_two_percent_have_grown(self):
        for counts in ([1021, 2000], [1000, 2041]):
            self.assertEqual(1, len(grown(COSTS, {"a call": [*counts, 0, 0]})))

    def test_a_call_that_the_table_does_not_have_is_reported(self):
        self.assertEqual(["new: 0 before, 7 now", "new: 0 before, 8 now"], grown(COSTS, {"new": [7, 8, 0, 0]}))


if __name__ == "__main__":
    unittest.main()
