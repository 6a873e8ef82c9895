#!/usr/bin/env python3
"""Instruction counts: how they are read, stored and compared. Needs no valgrind."""

import unittest

from counts import Count, from_callgrind, from_text, problems, to_text, why_not_comparable

DUMP = """desc: Trigger: Client Request: row/cells:8/ours
fn=(1) main
16 10
cfn=(2) std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >::append(char const*)
calls=3 0
17 300
+1 5

fn=(2)
20 200
* 100

fn=(3) copy'2
7 4
"""
BEFORE = {"row/cells:8": Count(1000, {"append": 600, "reserve": 300}), "trim/long": Count(500, {"resize": 500})}


class ReadingTest(unittest.TestCase):
    def test_a_call_does_not_count_for_its_caller(self):
        count = from_callgrind(DUMP)

        self.assertEqual(319, count.total)
        self.assertEqual({"main": 15, "string::append(char const*)": 300, "copy": 4}, dict(count.functions))

    def test_counts_that_are_stored_are_read_again(self):
        counts, made_by = from_text(to_text(BEFORE, "a compiler; a library"))

        self.assertEqual("a compiler; a library", made_by)
        self.assertEqual({name: (count.total, count.functions) for name, count in BEFORE.items()},
                         {name: (count.total, count.functions) for name, count in counts.items()})

    def test_small_functions_are_not_stored(self):
        counts, _ = from_text(to_text({"a/call": Count(1000, {"large": 990, "just": 10, "small": 9})}, "tools"))

        self.assertEqual({"large": 990, "just": 10}, dict(counts["a/call"].functions))

    def test_counts_of_other_tools_are_not_compared(self):
        self.assertEqual("", why_not_comparable("g++ 12", "g++ 12"))
        self.assertIn("g++ 12; here is g++ 13", why_not_comparable("g++ 12", "g++ 13"))


class ComparingTest(unittest.TestCase):
    def test_two_percent_more_are_not_a_problem(self):
        self.assertEqual([], problems(BEFORE, BEFORE))
        self.assertEqual([], problems(BEFORE, {"row/cells:8": Count(1020, {"append": 620, "reserve": 300})}))

    def test_more_is_a_problem_and_the_functions_that_grew_are_named(self):
        now = {"row/cells:8": Count(1221, {"append": 604, "reserve": 310, "copy": 200, "tiny": 9})}

        self.assertEqual(["row/cells:8: 1,000 before, 1,221 now; grown:", "  +200  copy", "  +10  reserve"],
                         problems(BEFORE, now))

    def test_each_counted_call_is_stored(self):
        self.assertEqual(["row/cells:1: not stored"], problems(BEFORE, {"row/cells:1": Count(1, {})}))


if __name__ == "__main__":
    unittest.main()
