#!/usr/bin/env python3
"""The tables and pictures of docs/performance.md, from made-up results."""

import unittest
import xml.etree.ElementTree

import document


def workload(**nanoseconds):
    """Returns a workload with these times of its contenders."""
    ours = nanoseconds["ours"][0]
    return {"contenders": {name: {"nanoseconds": times, "peak_bytes": None,
                                                          "ours_by_this": ours / times[0]}
                           for name, times in nanoseconds.items()}}


def results():
    names = ("copy/file:0", "move/same", "exists/regular", "make_path/existing", "list/plain:10", "match/typical",
             "split/pieces:8", "trim/long", "row/cells:8", "page/rows:10", "publish/rows:10", "name_value/random:100")
    times = {"ours": [2000, 2200, 2400], "floor": [1000], "cp": [4000], "mv": [3000], "orv_safe": [1]}
    found = {name: workload(**times) for name in names}
    found["page/rows:10"]["contenders"]["ours"]["peak_bytes"] = 8192
    found["page/rows:10"]["contenders"]["floor"]["peak_bytes"] = 4096
    return {"facts": {"processor": "a fast one", "date": "2001-02-03"}, "workloads": found}


def marked(*names):
    return "".join(f"Words.\n\n<!-- bench: {name} -->\nstale figures\n<!-- end -->\n" for name in names)


class TablesTest(unittest.TestCase):
    def test_what_is_between_the_marks_is_replaced_and_nothing_else(self):
        before = marked(*document.TABLES)

        after = document.with_tables(before, results())

        self.assertNotIn("stale figures", after)
        self.assertEqual(len(document.TABLES), after.count("Words.\n"))
        self.assertIn("<!-- bench: facts -->\n\n- processor: a fast one\n- date: 2001-02-03\n\n<!-- end -->\n", after)
        self.assertEqual(after, document.with_tables(after, results()))

    def test_a_row_has_the_name_the_ratios_and_the_spread(self):
        rows = document.comparison(results(), "copy/").splitlines()

        self.assertEqual("| `copy/file:0` | 2.2 us | 2.00 | 0.67 mv | mv 0.67; cp 0.50 | 4.5 % |", rows[2])

    def test_a_bar_in_a_name_does_not_end_a_cell(self):
        self.assertEqual("| find\\|sort |", document.table(["Who"], [["find|sort"]]).splitlines()[2])

    def test_the_companion_is_beside_the_programs_and_this_library(self):
        copy, move = document.companion(results(), "copy/|move/").splitlines()[2:]

        self.assertEqual("| `copy/file:0` | 1 ns |  |  |  |  |  |  | 4 us | 2.2 us |", copy)
        self.assertEqual("| `move/same` | 1 ns |  |  |  |  |  |  | 3 us | 2.2 us |", move)

    def test_memory_has_only_what_was_measured(self):
        self.assertEqual("| `page/rows:10` | 8 KiB | 4 KiB |  |", document.memory(results(), "page/").splitlines()[2])

    def test_a_workload_may_have_no_floor(self):
        found = results()
        del found["workloads"]["match/typical"]["contenders"]["floor"]

        self.assertIn("| `match/typical` | 2.2 us |  | 0.67 mv |", document.comparison(found, "match/"))

    def test_a_document_without_a_table_and_results_without_a_family_are_refused(self):
        with self.assertRaisesRegex(ValueError, "instead of"):
            document.with_tables(marked("facts"), results())
        with self.assertRaisesRegex(ValueError, "no workload nothing/"):
            document.comparison(results(), "nothing/")

    def test_the_document_has_each_table(self):
        document.with_tables((document.ROOT / "docs" / "performance.md").read_text(), results())


def growth():
    def at(size, **others):
        return workload(ours=[100 * size], floor=[50 * size], **others)

    peers = {"slow": [9000], "fast": [3000], "middle": [4000]}
    return {"workloads": {"growth/row:1": at(1, **peers), "growth/row:10": at(10, **peers), "growth/row:100": at(100)}}


class PictureTest(unittest.TestCase):
    def test_shows_the_two_best_others_up_to_where_they_end(self):
        curves = document.series(growth(), "row")

        self.assertEqual(["ours", "floor", "fast", "middle"], list(curves))
        self.assertEqual({1: 100, 10: 1000, 100: 10000}, curves["ours"])
        self.assertEqual({1: 3000, 10: 3000}, curves["fast"])

    def test_is_the_same_for_the_same_results_and_has_text(self):
        picture = document.draw("row", growth())

        self.assertEqual(picture, document.draw("row", growth()))
        text = "".join(xml.etree.ElementTree.fromstring(picture).itertext())
        for word in ("ours", "floor", "fast", "middle", "cells", "CPU time of one call"):
            self.assertIn(word, text)


if __name__ == "__main__":
    unittest.main()
