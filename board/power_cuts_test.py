#!/usr/bin/env python3
"""What a replayed log leaves on the disk, and what the judge sees. Needs no board and no root."""

import pathlib
import tempfile
import unittest

import power_cuts
from machine import Failure
from power_cuts import DISK_BYTES, MARKS_AT, MIB, PARTS, SECTOR, FlashTrial, Job, Tally, Trial
from power_cuts import choose, cut_points, loss, models, read_jobs
from write_log import ENTRY, FLUSH, FUA, HEADER, MAGIC, VERSION, BadLog, Replay, entries

SOURCE, DESTINATION = (part.offset for part in PARTS.values())
PAGE = b"<html>@</html>"
MOVE = Job(0, "move", False, "durable", PAGE)
REPLACING_MOVE = Job(1, "move", True, "durable", PAGE)
COPY = Job(2, "copy", True, "durable", PAGE)
SETTINGS = Job(3, "settings", True, "durable", PAGE)
NEAR_PAGE = Job(4, "page", False, "durable", PAGE)
JOBS = [MOVE, REPLACING_MOVE, COPY, SETTINGS, NEAR_PAGE]


def sectors(data):
    return data.ljust(-(-len(data) // SECTOR) * SECTOR, b"\0")


def log_of(*writes, count=None):
    """Returns a log. Each write is a place, its data, and flags."""
    header = HEADER.pack(MAGIC, VERSION, len(writes) if count is None else count, SECTOR)
    parts = [sectors(header)]
    for offset, data, flags in writes:
        parts += [sectors(ENTRY.pack(offset // SECTOR, len(sectors(data)) // SECTOR, flags, 0)), sectors(data)]
    return b"".join(parts)


def mark(job, begun, ended):
    return (MARKS_AT + SECTOR * job.index, b"orv %d %d\n" % (begun, ended), 0)


class FilesTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="orv_test.")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def log(self, *writes, count=None):
        path = self.folder / "log"
        path.write_bytes(log_of(*writes, count=count))
        return path

    def replay(self, *writes):
        disk = self.folder / "disk"
        disk.write_bytes(b"")
        replay = self.enterContext(Replay(disk, PARTS))
        for entry in entries(self.log(*writes), DISK_BYTES):
            replay.add(entry)
        return replay

    def enterContext(self, context):  # the one of Python 3.11
        value = context.__enter__()
        self.addCleanup(context.__exit__, None, None, None)
        return value

    def image(self, replay, part, dropped=()):
        path = self.folder / "image"
        path.touch()
        replay.make_image(part, dropped, path)
        return path.read_bytes()


class LogTest(FilesTest):
    def refused(self, content):
        path = self.folder / "log"
        path.write_bytes(content)
        with self.assertRaises(BadLog):
            list(entries(path, DISK_BYTES))

    def test_what_is_not_a_log_is_refused(self):
        good = log_of((SOURCE, b"data", 0))

        self.refused(b"")
        self.refused(b"\0" * 4096)
        self.refused(b"x" + good[1:])
        self.refused(good[:-1])
        self.refused(log_of())
        self.refused(log_of((SOURCE, b"data", 0), count=2))  # zeros follow
        self.refused(log_of((SOURCE, b"data", 0), count=2) + b"\0" * 4096)
        self.refused(log_of((SOURCE, b"", 0)))
        self.refused(log_of((DISK_BYTES, b"data", 0)))
        for flag in (4, 8, 16):
            self.refused(log_of((SOURCE, b"data", flag)))

    def test_a_log_without_marks_is_refused(self):
        with self.assertRaisesRegex(Failure, "no call has marked the log"):
            cut_points(entries(self.log((SOURCE, b"data", 0), (0, b"table", 0)), DISK_BYTES))

    def test_the_power_is_cut_before_every_write_after_the_first_mark(self):
        log = self.log((SOURCE, b"1", 0), mark(MOVE, 1, 0), (SOURCE, b"2", 0), (0, b"", FLUSH), mark(MOVE, 1, 1),
                       (DESTINATION, b"3", 0))  # fmt: skip

        self.assertEqual([2, 5, 6], cut_points(entries(log, DISK_BYTES)))
        self.assertEqual({2, 5}, choose([2, 5, 6], 2))
        self.assertEqual({2, 5, 6}, choose([2, 5, 6], 9))


class ReplayTest(FilesTest):
    def test_each_part_gets_its_writes_in_order(self):
        there = (DESTINATION + SECTOR, b"there", 0)
        replay = self.replay((SOURCE, b"old", 0), there, (0, b"", FLUSH), (SOURCE, b"new", 0))

        self.assertEqual(sectors(b"new"), self.image(replay, "source")[:SECTOR])
        self.assertEqual(sectors(b"old"), self.image(replay, "source", {3})[:SECTOR])
        self.assertEqual(sectors(b"there"), self.image(replay, "destination", {1})[SECTOR : 2 * SECTOR])
        self.assertEqual({"source": 3, "destination": 1}, replay.latest)

    def test_a_volatile_cache_loses_only_what_was_not_flushed(self):
        later = [(DESTINATION + number * SECTOR, b"later", 0) for number in range(100)]
        replay = self.replay((SOURCE, b"early", 0), (0, b"", FLUSH), (SOURCE, b"forced", FUA), mark(MOVE, 1, 0), *later)
        lost = models(replay)["volatile"]

        self.assertTrue(lost < set(range(4, 104)))
        self.assertTrue(30 < len(lost) < 70)
        self.assertEqual(lost, models(replay)["volatile"])
        self.assertEqual(frozenset(), models(replay)["ordered"])
        self.assertEqual((1, 0), power_cuts.read_marks(replay.disk, JOBS)[MOVE])


class FlashTest(FilesTest):
    def test_the_power_of_a_flash_fails_before_and_in_the_middle_of_each_write(self):
        kept = self.folder / "power-cuts.ubifs.test"
        kept.mkdir()
        trial = FlashTrial(self.folder, kept)
        trial.make_empty()
        writes = [(SOURCE, b"1" * SECTOR, 0), (SOURCE, b"2" * SECTOR, 0)]
        trial.log.write_bytes(log_of(mark(COPY, 1, 0), *writes, mark(COPY, 1, 1)))
        image = self.folder / "image"
        image.touch()

        found = []
        for point in range(7):
            replay, dropped = trial.state(f"ordered, cut before write {point}")
            with replay:
                replay.make_image("flash", dropped, image)
                self.assertEqual(["ordered"], list(trial.models(replay)))
                self.assertTrue(len(replay.pending) <= 1)
                marks = power_cuts.read_marks(replay.disk, JOBS)[COPY]
            content = image.read_bytes()
            found.append((content[0:1] + content[SECTOR - 1 : SECTOR], *marks))
        self.assertEqual([(b"\xff\xff", 0, 0), (b"\xff\xff", 1, 0), (b"1\xff", 1, 0), (b"11", 1, 0), (b"21", 1, 0),
                          (b"22", 1, 0), (b"22", 1, 1)], found)  # fmt: skip
        self.assertEqual(32 * MIB, image.stat().st_size)
        self.assertEqual([1, 2, 3, 4, 6], cut_points(trial.entries()))


class RawMounts:
    """Shows one file, which is all that the destination holds."""

    def __init__(self, folder):
        self.image = folder / "image"
        self.image.touch()

    def __enter__(self):
        return self

    def __exit__(self, *error):
        pass

    def seen(self, replay, dropped=()):
        replay.make_image("destination", dropped, self.image)
        with self.image.open("rb") as image:
            content = image.read(MIB).rstrip(b"\0")
        return {"source": {}, "destination": {"0": content} if content else {}}


class AgainTest(FilesTest):
    """A trial that has found losses; one durable call has returned before all of its file was written."""

    def setUp(self):
        super().setUp()
        self.kept = self.folder / "power-cuts.ext4.test"
        self.kept.mkdir()
        self.job = Job(0, "copy", True, "durable", PAGE)
        self.trial = self.opened()
        self.trial.empty.touch()
        self.trial.jobs.write_bytes(b"copy\treplaced\tdurable\n" + PAGE)
        whole = self.job.whole(1)
        writes = [(DESTINATION + at, whole[at : at + 512], 0) for at in range(0, len(whole), 512)]
        self.trial.log.write_bytes(log_of(mark(self.job, 1, 0), *writes[:10], (0, b"", FLUSH), mark(self.job, 1, 1),
                                          *writes[10:]))  # fmt: skip

    def opened(self):
        trial = Trial(self.folder, self.kept)
        trial.mounts = lambda: RawMounts(self.folder)
        return trial

    def test_a_state_that_is_judged_again_has_the_same_loss(self):
        self.trial.cuts = 1000
        losses = {tuple(text.split(": ")[::2]) for text in self.trial.cut_log([self.job]).unforgivable}
        names = [power_cuts.STATE.format(model, point) for point in cut_points(self.trial.entries())
                 for model in ("ordered", "volatile")]  # fmt: skip
        again = {(name, self.opened().again(name)[self.job]) for name in names}

        self.assertEqual(losses, {(name, cause) for name, cause in again if cause})
        self.assertEqual({"prefix", "mixed"}, {cause for _, cause in losses})
        self.assertTrue(len(losses) < len(names))

    def test_the_disk_of_a_kill_is_kept_if_it_has_a_loss(self):
        def kill(disk, _):
            content = (DESTINATION, self.job.whole(1), 0) if disk.name == "kill 0" else (DESTINATION, b"0", 0)
            with disk.open("wb") as file:
                for place, data, _ in (mark(self.job, 1, 1), content):
                    file.seek(place)
                    file.write(data)
            return [self.job]

        self.trial.kills, self.trial.kill = 2, kill
        self.assertEqual(["kill 1: copy, replaced: prefix"], self.trial.kill_boards().unforgivable)

        self.assertEqual({self.job: "prefix"}, self.opened().again("kill 1"))
        self.assertFalse((self.kept / "kill 0").exists())

    def test_an_unknown_state_is_refused(self):
        last = cut_points(self.trial.entries())[-1]
        self.trial.again(power_cuts.STATE.format("ordered", last))
        for name in ("", "kill", "ordered", "other, cut before write 1", f"ordered, cut before write {last + 1}"):
            with self.assertRaisesRegex(Failure, "unknown state"):
                self.trial.again(name)


class JudgeTest(unittest.TestCase):
    def loses(self, cause, job, begun, ended, source=None, destination=None):
        seen = {"source": source or {}, "destination": destination or {}}
        self.assertEqual(cause, loss(job, (begun, ended), seen))

    def test_a_call_that_has_returned_has_made_its_file(self):
        whole = COPY.whole(2)
        self.loses(None, COPY, 2, 2, {}, {"2": whole})
        for cause, content in [("prefix", whole[:-1]), ("empty", b""), ("zeros", bytes(len(whole))),
                               ("old", COPY.whole(1)),
                               ("mixed", whole[:4096] + bytes(4096) + whole[8192:]), ("mixed", whole + b"\0"),
                               ("unreadable", OSError()), ("missing", None)]:  # fmt: skip
            self.loses(cause, COPY, 2, 2, {}, {"2": content})

    def test_a_call_under_way_leaves_the_old_or_the_new_file(self):
        for content in (COPY.whole(2), COPY.whole(3)):
            self.loses(None, COPY, 3, 2, {}, {"2": content})
        self.loses("old", COPY, 3, 2, {}, {"2": COPY.whole(1)})
        self.loses("prefix", COPY, 3, 2, {}, {"2": COPY.whole(3)[:5000]})
        self.loses("missing", COPY, 3, 2)
        self.loses(None, COPY, 1, 0)

    def test_a_moved_file_is_somewhere(self):
        whole = {call: MOVE.whole(call) for call in range(1, 6)}
        kept = {f"0.{call}": whole[call] for call in (2, 3, 4)}
        self.loses(None, MOVE, 4, 4, {}, kept)
        self.loses("missing", MOVE, 5, 4, {}, kept)
        self.loses(None, MOVE, 5, 4, {"0.5": whole[5]}, kept)
        self.loses("empty", MOVE, 5, 4, {"0.5": whole[5]}, {**kept, "0.5": b""})
        self.loses("missing", MOVE, 4, 4, {"0.2": whole[2]}, {**kept, "0.2": None})
        self.loses("old", REPLACING_MOVE, 3, 2, {}, {"1": REPLACING_MOVE.whole(2)})
        self.loses(None, REPLACING_MOVE, 3, 2, {"1.3": REPLACING_MOVE.whole(3)}, {"1": REPLACING_MOVE.whole(2)})

    def test_a_move_without_flushes_loses_only_content_that_is_nowhere(self):
        job = MOVE._replace(way="library")
        self.loses(None, job, 1, 1, {"0.1": job.whole(1)}, {"0.1": b""})
        self.loses("empty", job, 1, 1, {}, {"0.1": b""})
        self.loses("missing", job, 1, 1)

    def test_pages_and_settings_have_their_own_form(self):
        content = SETTINGS.whole(1)
        self.assertTrue(content.startswith(b"mode=03-000001/03-000001/") and content.endswith(b"/\n"))
        self.loses(None, NEAR_PAGE, 1, 1, {"4.1": b"<html>" + b"04-000001/" * 1600 + b"</html>"})
        self.loses("prefix", NEAR_PAGE, 1, 1, {"4.1": b"<html>" + b"04-000001/" * 1600})

    def test_losses_are_counted_by_way(self):
        job = COPY._replace(way="control")
        tally = Tally()
        tally.add("state", {COPY: (1, 1), job: (1, 1)}, {"source": {}, "destination": {"2": b""}})

        self.assertEqual((1, 1, 0), tuple(map(tally.lost, ("durable", "control", "library"))))
        self.assertEqual(["state: copy, replaced: empty"], tally.unforgivable)

    def test_a_durable_loss_is_a_problem_and_so_is_a_control_that_loses_nothing(self):
        lost = {"source": {}, "destination": {}}
        kept = {"source": {}, "destination": {"2": COPY.whole(1)}}
        control = COPY._replace(way="control")
        cuts, kills = Tally(), Tally()
        cuts.add("cut", {COPY: (1, 1)}, kept)
        kills.add("kill", {COPY: (1, 1), control: (1, 1)}, lost)
        self.assertEqual(["kill: copy, replaced: missing", "the calls without flushes have lost nothing"],
                         power_cuts.problems(cuts, kills))  # fmt: skip

        cuts.add("cut", {control: (1, 1)}, lost)
        self.assertEqual([], power_cuts.problems(cuts, Tally()))

    def test_the_program_must_describe_its_jobs(self):
        self.assertEqual([Job(0, "move", True, "library", PAGE)], read_jobs(b"move\treplaced\tlibrary\n" + PAGE))
        for output in (b"", PAGE, b"move\tnew\tlibrary\n"):
            with self.assertRaises(Failure):
                read_jobs(output)


if __name__ == "__main__":
    unittest.main()
