#!/usr/bin/env python3
"""orvfile explain: what it says about every line that the libraries can write, in every form of log."""

import errno
import functools
import itertools
import json
import os
import re

import orv_test
import tool
from tool import ToolTest, problem

FUNCTIONS = ["CopyFile", "MoveFile", "PublishPage", "MakeDirectory", "ListFiles", "ReadSettings", "CheckSettings",
             "WriteSettings", "RemoveSettings"]  # fmt: skip
STAGED = "/usb/.orv_00c0ffee12345678"
PAGE = "/var/tmp/TextToHtml_12.tmp"


def safe(function, call, path, number, consequence=""):
    """A line of orv_safe about a failed call."""
    return f"{function}: {call}({path}) failed ({number}, {os.strerror(number)}){consequence and ': ' + consequence}."


def library_formats():
    """Returns the formats of the library, with the names of its functions."""
    source = orv_test.read("src", "LxFileUtils.cpp")
    names = dict(re.findall(r'const char (k\w+)\[\] = "(\w+)";', source))
    calls = re.findall(r'LOG_FAILURE\("((?:[^"\\]|\\.)*)",\s*(k\w+)', source)
    return [text.replace('\\"', '"').replace("%s", names[name], 1) for text, name in calls]


def safe_source():
    names = [name for name in sorted(os.listdir(os.path.join(orv_test.ROOT, "safe"))) if name.endswith(".cpp")]
    return re.sub(r"(?m)//.*$", "", "".join(orv_test.read("safe", name) for name in names))


def filled_in(text):
    """Returns the text with an argument for each conversion of printf, and the paths among the arguments."""
    paths = (f"/some/path {number}" for number in itertools.count(1))
    used = []

    def argument(conversion):
        if conversion[0] == "%s":
            used.append(next(paths))
            return used[-1]
        return {"%c": "=", "%x": "4000", "%03o": "644"}.get(conversion[0], "28")

    return re.sub(r"%0?\d*[lz]*[a-z]", argument, text), used


class ExplainTest(ToolTest):
    END = b"the end of an explanation\n"

    @functools.cached_property
    def reader(self):
        """A tool that explains each line as soon as it gets it."""
        process = self.start("explain", stdin=-1)
        self.addCleanup(self.end_reader, process)
        return process

    def end_reader(self, process):
        self.assertEqual((0, b"", ""), self.finish(process))

    def explained(self, line):
        """Returns what the tool says about a line, as a dictionary."""
        line = line.encode(errors="surrogateescape") + b"\n"
        self.reader.stdin.write(line + self.END)
        self.reader.stdin.flush()
        answer = []
        while answer[-1:] != [self.END]:
            answer.append(self.reader.stdout.readline())
            self.assertTrue(answer[-1], "the tool ended")
        self.assertEqual(line, answer[0])
        said = dict(part.decode(errors="surrogateescape").strip().split(": ", 1) for part in answer[1:-1])
        if said:
            self.assertEqual(["What", *(["Error"] if "Error" in said else []), "Disk", "Next"], list(said), line)
            self.assertTrue(all(said.values()), said)
        return said

    def all_explained(self, lines):
        """Explains many lines in one go."""
        status, out, err = self.run_tool("explain", "--json", data="".join(line + "\n" for line in lines).encode())
        self.assertEqual((0, ""), (status, err))
        answers = [json.loads(line) for line in out.decode().splitlines()]
        self.assertEqual(lines, [answer["line"] for answer in answers])
        return answers

    def assert_explained(self, line, **expected):
        said = self.explained(line)
        for key, text in expected.items():
            self.assertEqual(text, said.get(key.capitalize()), (line, said))


class LineTest(ExplainTest):
    """What is said."""

    def test_the_line_is_followed_by_what_happened_the_error_the_disk_and_what_to_do(self):
        self.assert_done(
            *("explain", "RenameFileAcrossFs: write() failed (4096, -1, 28)."),
            out=b"RenameFileAcrossFs: write() failed (4096, -1, 28).\n"
            b"  What: the copy on the destination's file system could not be written\n"
            b"  Error: ENOSPC, No space left on device: no space left (`df`), or no inodes left (`df -i`)\n"
            b"  Disk: both files are unchanged; the temporary file was removed, unless the next line says that this "
            b"failed\n"
            b"  Next: free space on the file system of the destination, then run this again\n")  # fmt: skip

    def test_every_line_of_the_library_is_explained_with_its_paths(self):
        formats = library_formats()
        self.assertEqual(22, len(formats))  # two lines are written in two places
        formats = [one.replace("RenameFileAcrossFs(%s", f"RenameFileAcrossFs({PAGE}") for one in formats]
        lines, paths = zip(*map(filled_in, formats))
        for answer, used in zip(self.all_explained(list(lines)), paths):
            self.assertIn("what", answer)
            text = answer["what"] + answer["disk"] + answer["next"]
            for path in used:
                self.assertIn(path, text + answer["error_text"], answer)
        examples = orv_test.read("tests", "data", "messages.txt").splitlines()
        self.assertEqual(20, len(examples))
        for answer in self.all_explained(examples):
            self.assertIn("what", answer)

    def test_every_failed_call_of_the_companion_is_explained(self):
        reports = [line for line in re.split(r"[;{}]", safe_source())
                   if re.search(r"\b(Report|Failed|Fail|Check)\(", line)]  # fmt: skip
        calls = {call for line in reports for call in re.findall(r'"([a-z_0-9]+)"', line)}
        self.assertTrue({"open", "openat", "write", "fsync", "close", "opendir", "mkdir", "new", "set"} <= calls, calls)
        lines = [safe(function, call, "/a b", 5) for function in FUNCTIONS for call in sorted(calls - {"set"})]
        for answer in self.all_explained(lines):
            self.assertIn("'/a b'", answer["what"])
            self.assertNotIn("failed for", answer["what"])  # what is said about an unknown call
            self.assertEqual(("EIO", "Input/output error"), (answer["error"], answer["error_text"]))
        self.assert_explained("CopyFile: mremap(/a) failed (5, Input/output error).", What="mremap failed for '/a'")

    def test_every_consequence_and_every_other_line_of_the_companion_is_explained(self):
        source = safe_source()
        consequences = {
            one + " not kept" if re.search(" (is|are)$", one) else one
            for one in re.findall(r'"((?:the|another|extended|owner|times)\b[^"%]* [^"%]*)"', source)}  # fmt: skip
        consequences = {"the attribute user.a is not kept" if one == "the attribute " else one for one in consequences}
        self.assertEqual(9, len(consequences), consequences)
        calls = {"owner and group are": "fchown", "the mode": "fchmod", "the new file": "fchown", "times": "futimens",
                 "the file is": "fsync", "another": "fstatat", "the content": "unlinkat"}  # fmt: skip
        lines = []
        for one in sorted(consequences):
            call = next((call for start, call in calls.items() if one.startswith(start)), "fsetxattr")
            lines.append(safe("MoveFile", call, "/a b", 116 if call == "fstatat" else 5, one))
        formats = [re.sub("%s", "MoveFile" if "same file" in one else "PublishPage", one, count=1)
                   for one in re.findall(r'ORV_SAFE_LOG\("([^"]*)"', source) if "failed (%d" not in one]  # fmt: skip
        self.assertEqual(6, len(formats), formats)
        formats = [one.replace("in %s", f"in {PAGE}").replace("CopyFile(%s", f"CopyFile({PAGE}") for one in formats]
        lines += [filled_in(one)[0] for one in formats]
        for answer in self.all_explained(lines):
            self.assertIn("what", answer)

    def test_every_error_number_of_the_table_is_that_of_linux(self):
        _, out, _ = self.run_tool("explain", "--document")
        rows = re.findall(r"(?m)^\| (\d+) \| (E\w+) \|", out.decode())
        self.assertGreater(len(rows), 30)
        answers = self.all_explained([f"RenameFileAcrossFs: open(/a) failed ({number})." for number, _ in rows])
        for (number, name), answer in zip(rows, answers):
            self.assertEqual((name, os.strerror(int(number))), (answer["error"], answer["error_text"]))
            self.assertEqual(int(number), getattr(errno, name))
            self.assertTrue(answer["next"])

    def test_a_number_that_is_not_in_the_table_stays_a_number(self):
        self.assert_explained("RenameFileAcrossFs: open(/a) failed (999).", Error="error 999",
                              Next="check the kernel's log (dmesg) for errors of the medium")  # fmt: skip
        self.assert_explained("ReadSettings: open(/a) failed (999, Unknown error 999).",
                              Error="error 999, Unknown error 999")  # fmt: skip
        self.assert_explained("ReadSettings: open(/a) failed (999, ?).", Error="error 999, ?")
        self.assert_explained("DoMakeDirPath: could not create subdirectory /a due to error: Kein Platz",
                              Error="Kein Platz")  # fmt: skip

    def test_an_error_that_the_line_describes_gets_its_name(self):
        self.assert_explained(
            "DoMakeDirPath: could not create subdirectory /a/b due to error: Not a directory",
            What="the directory '/a/b' cannot be made",
            Error="ENOTDIR, Not a directory: a component of the path is not a directory",
            Disk="directories above '/a/b' that were made before stay",
            Next="a component of '/a/b' is not a directory: correct the path")  # fmt: skip

    def test_the_remedy_of_an_error_names_the_path_of_which_the_error_is(self):
        for line, path in (("RenameFileAcrossFs: open(/a) failed (13).", "/a"),
                           ("RenameFileAcrossFs: mkstemp(/b_a1B2c3) failed (28).", "/b_a1B2c3"),
                           ("RenameFileAcrossFs: rename(/b_a1B2c3, /b) failed (13).", "/b"),
                           ("RenameFileAcrossFs: rename(/a, /b) failed (13).", "/b"),
                           ("DoMakeDirPath: could not create subdirectory /a due to error: Permission denied", "/a"),
                           ("GetDirFileList: Error opening directory folder '/a', errno: 13", "/a"),
                           (safe("CopyFile", "openat", STAGED, 28), STAGED),
                           (safe("CopyFile", "open", "/a", 13), "/a")):  # fmt: skip
            self.assertIn(f"'{path}'", self.explained(line)["Next"], line)

    def test_the_name_decides_which_file_could_not_be_removed(self):
        unlink = "RenameFileAcrossFs: unlink({}) failed (30)."
        for source in ("/spool/new", "/spool/log_202611", "/spool/log_backup", "/spool/log_a1B2c", "_a1B2c3",
                       "/spool/log-a1B2c3", "/spool/log_a1B.c3", "/spool/log_.1B2c3"):  # fmt: skip
            self.assert_explained(unlink.format(source),
                                  Disk=f"the content is at the destination; '{source}' is still there. "
                                  "The function returned true")  # fmt: skip
        for temporary in ("/usb/log_a1B2c3", "/usb/log_123a56", "/usb/log_ABCDEF", "a_XXXXXX"):
            self.assert_explained(unlink.format(temporary),
                                  Disk=f"the source and the destination are unchanged; '{temporary}' is left")  # fmt: skip

    def test_a_source_that_is_another_file_now_has_an_explanation_of_its_own(self):
        said = self.explained("RenameFileAcrossFs: unlink(/a_b1C2d3) failed (116).")
        self.assertEqual("ESTALE, Stale file handle", said["Error"])
        self.assertIn("no longer leads to the file", said["What"])
        self.assertIn("findmnt --target '/a_b1C2d3'", said["Next"])
        said = self.explained(safe("MoveFile", "unlinkat", "/a", 116, "the content is in place, and the source is kept"))
        self.assertEqual("'/a' was changed or replaced while it was moved, so it was not removed", said["What"])

    def test_the_names_decide_which_rename_failed(self):
        rename = "RenameFileAcrossFs: rename({}, {}) failed (21)."
        copied = "the content was copied to '{}', but this file could not be renamed to '{}'"
        for source, destination, what in (
            ("/usb/b_a1B2c3", "/usb/b", copied),
            ("/usb/b_aaaaaa", "/usb/b", copied),
            ("/usb/x, y_a1B2c3", "/usb/x, y", copied),
            ("/usb/b-a1B2c3", "/usb/b", "'{}' cannot be moved to '{}'"),
            ("/usb/c_a1B2c3", "/usb/b", "'{}' cannot be moved to '{}'"),
            ("/usb/b_a1B2c", "/usb/b", "'{}' cannot be moved to '{}'"),
            ("/a, b", "/c, d", "'{}' cannot be moved to '{}'"),
        ):  # fmt: skip
            self.assert_explained(rename.format(source, destination), What=what.format(source, destination),
                                  Next=f"'{destination}' is a directory: name a file in it")  # fmt: skip

    def test_the_names_are_told_apart_in_a_hundred_ways(self):
        copied, moved = "the content was copied to", "cannot be moved to"
        for separators, expected in ((99, copied), (100, moved)):
            path = "/usb/" + ", " * separators
            what = self.explained(f"RenameFileAcrossFs: rename({path}_a1B2c3, {path}) failed (21).")["What"]
            self.assertIn(expected, what)

    def test_a_guess_where_a_path_ends_is_called_a_guess(self):
        guess = " (where the first path ends is a guess, because the paths contain what is between them)"
        self.assert_explained("MoveFile: this and that and more are the same file.",
                              What="'this' and 'that and more' are two names of one file, so a move would lose it"
                              + guess)  # fmt: skip
        self.assert_explained("MoveFile: /this and /that and more are the same file.",
                              What="'/this' and '/that and more' are two names of one file, so a move would lose it")  # fmt: skip

    def test_a_short_write_does_not_show_the_number_of_an_earlier_call(self):
        said = self.explained("RenameFileAcrossFs: write() failed (4096, 100, 2).")
        self.assertNotIn("Error", said)
        self.assertEqual("only 100 of 4096 bytes could be written to the destination's file system. It is full, or a "
                         "limit was reached", said["What"])  # fmt: skip

    def test_a_name_that_is_too_long_for_the_temporary_file_is_explained(self):
        said = self.explained(f"RenameFileAcrossFs: mkstemp(/usb/{'n' * 249}_XXXXXX) failed (36).")
        self.assertIn("at most 248 bytes", said["Next"])

    def test_the_type_of_a_file_is_a_word(self):
        for number, name in (("1000", "a FIFO"), ("2000", "a character device"), ("4000", "a directory"),
                             ("6000", "a block device"), ("a000", "a symbolic link"), ("c000", "a socket"),
                             ("5000", "a file of type 0x5000")):  # fmt: skip
            self.assert_explained(f"RenameFileAcrossFs: /a is not a regular file (0x{number}).",
                                  What=f"'/a' is {name}, and only regular files are moved")  # fmt: skip
            self.assert_explained(f"CopyFile: /a is not a regular file (0x{number}).",
                                  What=f"'/a' is {name}, not a regular file")  # fmt: skip

    def test_the_temporary_page_is_recognised(self):
        self.assert_explained(f"RenameFileAcrossFs: stat({PAGE}) failed (2).",
                              What="the page could not be made in /var/tmp, so there is nothing to put in place")  # fmt: skip
        self.assert_explained(f"RenameFileAcrossFs: {PAGE} is not a regular file (0x1000).",
                              What="another user has put a FIFO in /var/tmp, under the name of the temporary page")  # fmt: skip
        self.assert_explained(safe("PublishPage", "open", PAGE, 17),
                              What="another user has put something in /var/tmp, under the name of the temporary page",
                              Error="EEXIST, File exists")  # fmt: skip
        said = self.explained(safe("PublishPage", "open", PAGE, 13))
        self.assertEqual((f"'{PAGE}' cannot be opened", "the old page is as it was"), (said["What"], said["Disk"]))
        said = self.explained("RenameFileAcrossFs: stat(/var/tmp/TextToHtml_x.tmp) failed (2).")
        self.assertEqual("'/var/tmp/TextToHtml_x.tmp', the file to move, cannot be looked up", said["What"])

    def test_a_staged_file_of_the_companion_is_recognised(self):
        self.assert_explained(safe("CopyFile", "unlinkat", STAGED, 30),
                              Disk=f"'{STAGED}' is left, and may be removed; what happened to the other files does not "
                              "depend on it")  # fmt: skip
        self.assert_explained(safe("CopyFile", "openat", STAGED, 28), Disk="the destination is as it was",
                              Next=f"free space on the file system of '{STAGED}', then run this again")  # fmt: skip
        for other in ("/usb/.orv_00c0ffee1234567", "/usb/.orv_00c0ffee1234567g", "/usb/.orv_g0c0ffee12345678",
                      "/usb/xorv_00c0ffee12345678"):  # fmt: skip
            self.assert_explained(safe("CopyFile", "openat", other, 2), What=f"'{other}' cannot be opened")
        self.assertIn("temporary", self.explained(safe("CopyFile", "openat", ".orv_00c0ffee12345678", 28))["What"])

    def test_a_kernel_that_cannot_read_a_copy_back_is_named(self):
        self.assert_explained(
            safe("CopyFile", "posix_fadvise", "/b", 22), Error="EINVAL, Invalid argument",
            What="this kernel cannot forget what it keeps of a file, so the copy for '/b' could not be read back from the disk",
            Disk="the destination is as it was",
            Next="use a kernel with CONFIG_ADVISE_SYSCALLS, or copy without the comparison (verify, --no-verify)")  # fmt: skip

    def test_a_file_that_was_not_to_be_replaced_is_no_lack_of_anything(self):
        for call in ("linkat", "renameat"):
            self.assert_explained(safe("MoveFile", call, "/b", 17), What="'/b' exists, and was not to be replaced",
                                  Error="EEXIST, File exists")  # fmt: skip
        self.assert_explained(safe("MoveFile", "linkat", "/b", 13), What="the file cannot be put at '/b'")

    def test_a_lost_line_is_explained(self):
        self.assertIn("What", self.explained("dlog: out of memory, a report was lost"))


class HostilePathTest(ExplainTest):
    """Paths that look like a part of a line."""

    def test_a_path_that_looks_like_the_rest_of_a_line_is_read_as_a_path(self):
        for path in ("/a) failed (28).", "/a is not a regular file (0x4000).", "/a, /b", "", "(", ")", "'", "SOURCE",
                     "/a) failed (28, No space left on device).", "/a LxFileUtils.cpp: CopyFile: open(/b",
                     "/a) failed (28, No space left on device): the mode is not kept."):  # fmt: skip
            self.assert_explained(f"RenameFileAcrossFs: stat({path}) failed (2).",
                                  What=f"'{path}', the file to move, cannot be looked up")  # fmt: skip
            self.assert_explained(f"RenameFileAcrossFs: {path} is not a regular file (0x4000).",
                                  What=f"'{path}' is a directory, and only regular files are moved")  # fmt: skip
            self.assert_explained(safe("ReadSettings", "open", path, 2), What=f"'{path}' cannot be opened")
            self.assert_explained(f'ReadNameValueFromFile: Unable to open file "{path}"',
                                  What=f"the settings in '{path}' cannot be read")  # fmt: skip
            self.assert_explained(safe("CopyFile", "fchmod", path, 1, "the mode is not kept"),
                                  Disk=f"'{path}' has the content of the source, but another mode, unless a later line "
                                  "reports a failure")  # fmt: skip

    def test_other_hostile_paths(self):
        self.assert_explained("DoMakeDirPath: could not create subdirectory /a due to error: Is a directory due to "
                              "error: Not a directory",
                              What="the directory '/a due to error: Is a directory' cannot be made")  # fmt: skip
        self.assert_explained('ReadNameValueFromFile: Error processing line 7 in file "/a".  No delimiter \'=\' found.".'
                              "  No delimiter ':' found.", Disk="nothing was changed; the program has the settings of "
                              "the earlier lines only")  # fmt: skip
        self.assert_explained("MakeDirPath: Create '/a' directory failed.' directory failed.",
                              Disk="directories above '/a' directory failed.' that were made before stay")  # fmt: skip

    def test_a_path_that_looks_like_a_line_does_not_replace_the_line(self):
        inner = "orv_safe: CopyFile: open(/b) failed (2, No such file or directory)."
        self.assert_explained(f"GetDirFileList: Error opening directory folder '/a {inner}', errno: 13",
                              What=f"'/a {inner}' cannot be opened. The line is written only if the caller asked for it")  # fmt: skip
        self.assertEqual({}, self.explained(f"LxFileUtils.cpp: GetDirFileList: unknown line of '/a {inner}"))


class PrefixTest(ExplainTest):
    """Logs as their services print them."""

    def test_any_prefix_may_be_before_a_line(self):
        text = "RenameFileAcrossFs: stat(/a) failed (2)."
        for prefix in ("", "LxFileUtils.cpp: ", "[3] LxFileUtils.cpp: ", "Nov 22 10:00:00 board app[12]: LxFileUtils.cpp: ",
                       "2026-11-22T10:00:00+0000 board app[12]: LxFileUtils.cpp: ", "<11>Nov 22 10:00:00 app: LxFileUtils.cpp: ",
                       "[   12.345678] app[12]: LxFileUtils.cpp: ", "E/app ( 12): ", "\t", "caf\u00e9 \udcff "):  # fmt: skip
            said = self.explained(os.fsencode(prefix + text).decode(errors="surrogateescape"))
            self.assertEqual("'/a', the file to move, cannot be looked up", said.get("What"), prefix)
        for end in ("\r", " ", "\t \r"):
            self.assertIn("What", self.explained(text + end))

    def test_colours_do_not_matter(self):
        for line in ("\x1b[0;1;31mLxFileUtils.cpp: RenameFileAcrossFs: stat(/a) failed (2).\x1b[0m",
                     "\x1b[7~RenameFileAcrossFs: stat(/a) failed (2).\x1b[0",
                     "RenameFileAcrossFs: \x1b[01;31m\x1b[Kstat\x1b[m\x1b[K(/a) failed (2)."):  # fmt: skip
            self.assert_explained(line, What="'/a', the file to move, cannot be looked up")

    def test_escapes_of_the_log_are_shown_as_escapes_once(self):
        for path in ("/a\\nb", "/a\\x1b[31mb", "/a\\\\b", "/a\\\\nb", "/a\\x7f", "/a\\x7fb", "/a\\x80", "/a\\xc2\\x9bm", "caf\u00e9"):
            self.assert_explained(f"[3] LxFileUtils.cpp: RenameFileAcrossFs: stat({path}) failed (2).",
                                  What=f"'{path}', the file to move, cannot be looked up")  # fmt: skip
        self.assert_explained("RenameFileAcrossFs: stat(/a\x07\\q\\xg1\\x1) failed (2).",
                              What="'/a\\x07\\\\q\\\\xg1\\\\x1', the file to move, cannot be looked up")  # fmt: skip
        for end in ("\\", "\\x", "\\x1"):
            self.assertEqual({}, self.explained("RenameFileAcrossFs: stat(/a) failed (2)." + end))

    def test_a_name_of_a_function_within_a_word_is_none_of_ours(self):
        for line in ("MyCopyFile: open(/a) failed (2, No such file or directory).",
                     "\"CopyFile: open(/a) failed (2, No such file or directory).\""):  # fmt: skip
            self.assertEqual({}, self.explained(line))
        self.assert_explained("xCopyFile: CopyFile: open(/a) failed (2, No such file or directory).",
                              What="'/a' cannot be opened")  # fmt: skip


class KindTest(ExplainTest):
    """What is not a path must be what it says: a number, a type, a mode."""

    def test_other_words_are_not_lines_of_ours(self):
        processing = 'ReadNameValueFromFile: Error processing line {} in file "/a".  No delimiter \'{}\' found.'
        for line in (
            processing.format("x", "="), processing.format("7", ""), processing.format("7", "====="),
            "RenameFileAcrossFs: chmod(/a_a1B2c3, 8) failed (5).", "RenameFileAcrossFs: chmod(/a_a1B2c3, 9) failed (5).",
            "RenameFileAcrossFs: write() failed (x, -1, 28).", "RenameFileAcrossFs: write() failed (1, x, 28).",
            f"PublishPage: the page in {PAGE} is torn (x of 7 bytes).",
            f"PublishPage: the page in {PAGE} is torn (7 of x bytes).",
            "PublishPage: the page in /var/tmp/TextToHtml_x.tmp is torn (7 of 8 bytes).",
            "CopyFile: what was written for /b differs from /a after byte x.",
            "GetDirFileList: Error opening directory folder '/a', errno: x",
        ):  # fmt: skip
            self.assertEqual({}, self.explained(line), line)
        for delimiter in ("=", "\u20ac", "\\xff", "\U0001f600"):
            self.assertIn("What", self.explained(processing.format("7", delimiter)))


class StreamTest(ExplainTest):
    """Standard input, output and options."""

    def test_lines_of_others_pass_unchanged(self):
        data = b"".join([b"", b"\n\n", bytes(range(10)) + b"\n", bytes(range(11, 256)) + b"\n", b"kernel: CopyFile\n",
                         b"RenameFileAcrossFs: stat(/a) failed (x).\n", b"RenameFileAcrossFs: stat(/a) failed (2)\n",
                         b"RenameFileAcrossFs: stat(/a) failed ().\n", b"CopyFile: open(/a) failed (2).\n",
                         b"CopyFile: open(/a) failed (2, ).\n", b"CopyFile: o pen(/a) failed (2, x).\n",
                         b"RenameFileAcrossFs: chmod(/a, 9) failed (2).\n",
                         b"RenameFileAcrossFs: chmod(/a, ) failed (2).\n", b"CopyFile: open(/a) failed (x, y).\n",
                         b"CopyFile: /a is not a regular file (0xg).\n", b"CopyFile: /a is not a regular file (0x).\n",
                         b"CopyFile: (/a) failed (2, No such file or directory).\n",
                         b"MakeDirPath: can't make path of unusual size: \n", b"MakeDirPath: ", b"\n",
                         b"RenameFileAcrossFs: write() failed (1, -1, 28). \xff\n", b"orvfile: no line feed"])  # fmt: skip
        self.assert_done("explain", data=data, out=data)

    def test_a_last_line_without_a_line_feed_is_explained(self):
        line = b"MakeDirPath: can't make path of unusual size: 1025"
        status, out, _ = self.run_tool("explain", data=b"x\n" + line)
        self.assertEqual((0, b"x\n" + line + b"\n  What: the path has 1025 bytes, and MakeDirPath accepts at most 1024\n"),
                         (status, out[: out.index(b"  Disk")]))  # fmt: skip

    def test_each_line_is_explained_when_it_comes(self):
        process = self.start("explain", stdin=-1)
        for number in range(3):
            process.stdin.write(b"MakeDirPath: can't make path of unusual size: %d\n" % (2000 + number))
            process.stdin.flush()
            lines = [process.stdout.readline() for _ in range(4)]
            self.assertIn(b"the path has %d bytes" % (2000 + number), lines[1])
            self.assertIn(b"  Next: ", lines[3])
        process.stdin.write(b"half a li")
        process.stdin.flush()
        self.assertEqual((0, b"half a line\n", ""), self.finish(process, b"ne\n"))

    def test_a_line_with_two_escaped_paths_of_any_length_is_explained(self):
        path = "/a" + "\\x80" * 4096
        line = f"CopyFile: what was written for {path} differs from {path} after byte 7."
        self.assertLess(1 << 15, len(line))
        self.assertIn("What", self.explained(line))

    def test_a_very_long_line_passes_unchanged_in_little_memory(self):
        # A sanitizer keeps what was freed.
        environment = {**os.environ, "ASAN_OPTIONS": "quarantine_size_mb=1:" + os.environ.get("ASAN_OPTIONS", "")}
        process = self.start("explain", stdin=-1, env=environment)
        half = b"CopyFile: open(" + b"x" * (1 << 15)  # a pipe takes two of them

        def kibibytes_after(count):
            for _ in range(count):
                process.stdin.write(half + half)
                process.stdin.flush()
                self.assertTrue(process.stdout.read(2 * len(half)) == half + half, "other bytes came out")
            return int(re.search(r"VmHWM:\s+(\d+)", orv_test.read("/proc", str(process.pid), "status"))[1])

        before = kibibytes_after(16)
        self.assertLess(kibibytes_after(256), before + 4096)  # of 16 MiB
        line = b"MakeDirPath: can't make path of unusual size: 2000\n"
        status, out, _ = self.finish(process, b") failed (2, No such file or directory).\n" + line)
        self.assertEqual((0, 1), (status, out.count(b"What: ")))

    def test_lines_of_up_to_64_kib_are_explained(self):
        ours = b"CopyFile: open(/a) failed (2, x)."
        for size, explained in ((1 << 16, 1), ((1 << 16) + 1, 0), (140000, 0)):
            for end in (b"", b"\n"):
                self.write("log", b"x" * (size - 1 - len(ours)) + b" " + ours + end)
                with open(self.path("log"), "rb") as log:
                    status, out, _ = self.run_tool("explain", stdin=log)
                self.assertEqual((0, explained), (status, out.count(b"What: ")), size)

    def test_lines_may_be_arguments(self):
        lines = ["MakeDirPath: can't make path of unusual size: 1025", "other", "-q"]
        status, out, _ = self.run_tool("explain", "--", *lines)
        self.assertEqual(0, status)
        self.assertEqual(lines, [line for line in out.decode().splitlines() if line[:2] != "  "])

    def test_json_has_an_object_for_each_line(self):
        line = "orv_safe: CopyFile: openat(/a) failed (2, No such file or directory)."
        status, out, err = self.run_tool("explain", "--json", data=f"x\n{line}".encode())
        self.assertEqual((0, ""), (status, err))
        self.assertEqual([
            {"line": "x"},
            {"line": line, "what": "'/a' cannot be opened", "disk": "the destination is as it was", "error": "ENOENT",
             "error_text": "No such file or directory",
             "next": "check the spelling of '/a', and check that its directory exists"},
        ], [json.loads(one) for one in out.splitlines()])  # fmt: skip

    def test_input_that_cannot_be_read_and_output_that_cannot_be_written_are_failures(self):
        with open("/dev/full", "wb") as full:
            self.assertEqual((1, None), self.run_tool("explain", "x", stdout=full)[:2])
        directory = os.open(self.dir, os.O_RDONLY)
        self.addCleanup(os.close, directory)
        self.assert_fails(problem("cannot read standard input: Is a directory",
                                  "give the log as standard input, as in: orvfile explain </var/log/messages"),
                          "explain", stdin=directory)  # fmt: skip


class DocumentTest(ToolTest):
    def test_the_example_of_the_readme_is_what_the_tool_prints(self):
        example = re.search(r"(?ms)^\$ journalctl [^\n]*\n(.*?)^```$", orv_test.read("README.md"))[1]

        self.assert_done("explain", data=example.splitlines(True)[0].encode(), out=example.encode())

    def test_the_document_has_the_same_explanations(self):
        document = orv_test.read("docs", "diagnostics.md")
        start = document.index("## RenameFileAcrossFs\n")
        _, out, _ = self.run_tool("explain", "--document")

        self.assertEqual(out.decode(), document[start:], "script/diagnostics writes the document anew")


if __name__ == "__main__":
    tool.main()
