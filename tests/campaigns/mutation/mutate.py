#!/usr/bin/python3
"""Breaks the two libraries in one small way at a time, and demands that the tests notice each.

  mutate.py --build DIR --asan DIR [--sample N] [--jobs N] [--report FILE]
  mutate.py --build DIR --list                                       prints the mutants and runs nothing

The folders hold two builds of the project with its compile commands, the second with AddressSanitizer, which tests the
mutants that survive the first. Each mutant's library is built as its folder builds it, but at -O1, and comes before
the folder's by LD_LIBRARY_PATH. The tests run in name spaces of their own, as root: the root file system read-only,
/var/tmp and /dev/shm small ones in memory, every process ended with the mutant. So a mutant that loops, fills the disk
or removes what it should not does no harm.

A mutant is killed when a test fails or runs out of time. One that survives must be listed in equivalent.txt beside
this file, with the reason why no test can tell it from the original; an entry of that list that fits no mutant, or
whose mutant is killed, is an error too. Exit status 0 says that all is in order.
"""

import argparse
import collections
import concurrent.futures
import ctypes
import dataclasses
import json
import os
import random
import re
import resource
import shlex
import signal
import subprocess
import sys
import tempfile
import time

from clang import cindex
from clang.cindex import CursorKind, TokenKind

FOLDER = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(os.path.dirname(FOLDER)))
EQUIVALENT = os.path.join(FOLDER, "equivalent.txt")

# Each source and the library that is built from it.
LIBRARIES = {"src/LxFileUtils.cpp": "OrvFileUtils", "strutils/LxStringUtils.cpp": "OrvStrUtils"}

# Which tests are likely to notice a mutant of a function; they run first. All the others run all the same.
FIRST = {
    "FileExists|IsRegular": "FileExists*",
    "CopyFile": "*CopyFile*",
    "IsAlreadyInPlace|CopyBlocks|FillTemporary|CopyIntoPlace|MoveByCopy|RenameFileAcrossFs": "*Rename*",
    "CutToUsableParent|MakeCutDirs|DoMakeDirPath|MakeDirPath": "*MakeDir*",
    "ReadEntry|IsGiven|NameFilter|IsMatch|Wants|operator<|KeyOf|SortByKeys|SortList|GetDirFileList": "*DirList*:*Listing*",
    "TextFileTableDelimter|AddTextFileFormattedRow": "*Row*:*Delimter*",
    "Of|AddRow|WritePage|GenHtmlPagefromTextFile": "*GoldenPage*",
    "EntryReader|Store|Assign|ReadNameValueFromFile": "*NameValue*",
    "Split": "*Split*",
    "IsWhiteSpace|Trim": "*Trim*",
    "StartsWith": "*StartsWith*",
    "Takes|TakesAll|FindSegment|WildcardedStringMatch": "*Match*",
    "-": "*Message*",
}

# Slow ones, for mutants that survive the others. LargeFileTest needs more room than a mutant is given; its subject is
# the width of file offsets, which no mutant changes.
SLOW = "*Levels*:*Race*:*Model*:*Readers*:*Processes*:*Thousand*:*Million*:*Megabyte*"
NEVER = "*LargeFile*"

LIBC = ctypes.CDLL(None)
PR_SET_PDEATHSIG = 1  # <sys/prctl.h>

# For one run of one test program, which takes some five, with AddressSanitizer twelve. A mutant that loops takes them all.
SECONDS = 60
CPU_SECONDS = 30
MEMORY_BYTES = 8 << 30
SANDBOX = """
set -e
mount --bind /etc /etc  # a test wants it writable, for others than its user
mount -o remount,ro,bind /
for directory in /var/tmp /dev/shm; do
    mount -t tmpfs -o size=512m,mode=1777 none "$directory"
done
mkdir /dev/shm/current && cd /dev/shm/current
exec "$@"
"""

RELATIONAL = {"==": ["!="], "!=": ["=="], "<": ["<=", ">="], "<=": ["<", ">"], ">": [">=", "<="], ">=": [">", "<"]}
LOGICAL = {"&&": ["||"], "||": ["&&"]}
ARITHMETIC = {"+": ["-"], "-": ["+"], "&": ["|"], "|": ["&"], "+=": ["-="], "++": ["--"], "--": ["++"]}
FUNCTIONS = (CursorKind.FUNCTION_DECL, CursorKind.CXX_METHOD, CursorKind.CONSTRUCTOR)
SWAPPED = {"break": "continue", "continue": "break", "true": "false", "false": "true"}


@dataclasses.dataclass(frozen=True)
class Mutant:
    file: str
    function: str
    operator: str
    start: int
    end: int
    text: str  # what stands there instead of the source's bytes from start to end

    def source(self, original):
        return original[: self.start] + self.text + original[self.end :]

    def lines(self, original):
        """The whole lines that change, before and after, with blanks evened out: no line number is in them."""
        first = original.rfind("\n", 0, self.start) + 1
        last = original.find("\n", self.end)
        before = original[first:last]
        after = original[first : self.start] + self.text + original[self.end : last]
        return " ".join(before.split()), " ".join(after.split())

    def key(self, original):
        return (self.file, self.function, self.operator, *self.lines(original))


def offsets(extent):
    """Where a range stands in the file itself; in a macro's argument, where the argument is written."""
    result = []
    for location in (extent.start, extent.end):
        file, line, column, offset = ctypes.c_void_p(), ctypes.c_uint(), ctypes.c_uint(), ctypes.c_uint()
        cindex.conf.lib.clang_getFileLocation(
            location, ctypes.byref(file), ctypes.byref(line), ctypes.byref(column), ctypes.byref(offset))
        result.append(offset.value)
    return result


class Mutator:
    """Finds the mutants of one source file."""

    def __init__(self, file, flags):
        self.file = file
        path = os.path.join(ROOT, file)
        with open(path, encoding="utf-8") as stream:
            self.original = stream.read()
        assert self.original.isascii()  # so that byte offsets are character offsets
        self.unit = cindex.Index.create().parse(path, args=flags)
        errors = [str(d) for d in self.unit.diagnostics if d.severity >= cindex.Diagnostic.Error]
        if errors:
            sys.exit("\n".join(errors))
        self.mutants = {}
        self.functions = []
        self.functions_of(self.unit.cursor)

    def functions_of(self, cursor):
        for child in cursor.get_children():
            if child.location.file is None or child.location.file.name != os.path.join(ROOT, self.file):
                continue
            if child.kind in (CursorKind.NAMESPACE, CursorKind.CLASS_DECL, CursorKind.STRUCT_DECL):
                self.functions_of(child)
            elif child.kind in FUNCTIONS and child.is_definition():
                start, end = offsets(child.extent)
                self.functions.append((start, end, child.spelling))
                self.visit(child, child)
        if cursor == self.unit.cursor:
            self.tokens()

    def function_at(self, offset):
        for start, end, name in self.functions:
            if start <= offset < end:
                return name
        return "-"  # a constant of the file

    def add(self, operator, start, end, text):
        if self.original[start:end] != text:
            mutant = Mutant(self.file, self.function_at(start), operator, start, end, text)
            self.mutants.setdefault((start, end, text), mutant)

    def visit(self, cursor, function):
        children = list(cursor.get_children())
        kind = cursor.kind
        if kind in (CursorKind.IF_STMT, CursorKind.WHILE_STMT, CursorKind.CONDITIONAL_OPERATOR):
            self.negate(children[0])
        elif kind == CursorKind.DO_STMT:
            self.negate(children[1])
        elif kind == CursorKind.BINARY_OPERATOR or kind == CursorKind.COMPOUND_ASSIGNMENT_OPERATOR:
            self.swap(children)
            if "&&" in cursor.spelling or "||" in cursor.spelling:
                for child in children:
                    self.negate(child)
        elif kind == CursorKind.UNARY_OPERATOR:
            self.unary(cursor)
        elif kind == CursorKind.RETURN_STMT and children:
            self.constant_return(children[0], function)
        elif kind == CursorKind.COMPOUND_STMT:
            for child in children:
                self.delete(child)
        for child in children:
            self.visit(child, function)

    def negate(self, condition):
        start, end = offsets(condition.extent)
        text = self.original[start:end]
        if text:
            self.add("negate", start, end, f"!({text})")

    def swap(self, children):
        """Takes another binary operator than the one between the two operands."""
        if len(children) != 2:
            return
        start, end = offsets(children[0].extent)[1], offsets(children[1].extent)[0]
        match = re.fullmatch(r"[\s)]*([-+=!<>&|]+)[\s(]*", self.original[start:end])
        if not match:
            return
        for table in (RELATIONAL, LOGICAL, ARITHMETIC):
            for other in table.get(match[1], []):
                self.add("operator", start + match.start(1), start + match.end(1), other)

    def unary(self, cursor):
        start, end = offsets(cursor.extent)
        text = self.original[start:end]
        if text.startswith("!"):
            self.add("negate", start, start + 1, "")
        for step in ("++", "--"):
            if text.startswith(step):
                self.add("operator", start, start + 2, ARITHMETIC[step][0])
                self.add("operator", start, start + 2, "")

    def constant_return(self, value, function):
        start, end = offsets(value.extent)
        kind = function.result_type.spelling
        constants = {"bool": ["true", "false"], "int": ["0", "1", "-1"]}.get(kind, ["{}"])
        for constant in constants:
            self.add("return", start, end, constant)

    def delete(self, statement):
        """Deletes a call or an assignment that is a statement of its own."""
        if statement.kind not in (
            CursorKind.CALL_EXPR, CursorKind.CSTYLE_CAST_EXPR, CursorKind.BINARY_OPERATOR, CursorKind.UNARY_OPERATOR,
            CursorKind.COMPOUND_ASSIGNMENT_OPERATOR, CursorKind.UNEXPOSED_EXPR):
            return
        start = offsets(statement.extent)[0]
        end = self.original.index(";", self.end_of(statement))
        self.add("delete", start, end, "")

    def end_of(self, statement):
        """The end of the statement; behind its closing parenthesis where it is a macro's call."""
        start, end = offsets(statement.extent)
        if self.original.startswith("LOG_FAILURE", start):
            depth, end = 0, start
            for match in re.finditer(r'"(?:\\.|[^"\\])*"|[()]', self.original[start:]):
                depth += {"(": 1, ")": -1}.get(match[0], 0)
                end = start + match.end()
                if depth == 0 and match[0] == ")":
                    break
        return end

    def tokens(self):
        """Literals and key words; the tokens of a macro's argument are where they are written."""
        for token in self.unit.get_tokens(extent=self.unit.cursor.extent):
            start, end = token.extent.start.offset, token.extent.end.offset
            line = self.original[self.original.rfind("\n", 0, start) + 1 : start]
            if line.startswith("#"):
                continue
            text = token.spelling
            if token.kind == TokenKind.LITERAL:
                for other in other_literals(text):
                    self.add("literal", start, end, other)
            elif text in SWAPPED:
                self.add("keyword", start, end, SWAPPED[text])


def other_literals(text):
    if re.fullmatch(r"0[0-7]+", text):
        return [f"0{int(text, 8) + 1:o}", f"0{int(text, 8) - 1:o}"]
    if re.fullmatch(r"\d+", text):
        return [str(int(text) + 1), str(int(text) - 1)]
    if text == "'\\0'":
        return ["'\\1'"]
    if text == "'\\n'":
        return ["'\\r'"]
    if re.fullmatch(r"'.'", text):
        return [f"'{chr(ord(text[1]) + 1)}'"]
    if text.startswith('"') and len(text) > 2:
        # One byte more, one byte other, one byte less: at the end, at the front.
        first = re.match(r"\\.|.", text[1:])[0]
        return [f'{text[:-1]}~"', f'"~{text[1 + len(first):]}', f'"{text[1 + len(first):]}']
    return []


def compile_commands(build):
    with open(os.path.join(build, "compile_commands.json"), encoding="utf-8") as file:
        commands = {os.path.relpath(entry["file"], ROOT): shlex.split(entry["command"]) for entry in json.load(file)}
    return {source: commands[source] for source in LIBRARIES}


def parse_flags(command):
    return [word for word in command if word.startswith(("-I", "-D", "-U", "-std="))]


class Runner:
    """Builds mutants and runs the tests on them."""

    def __init__(self, build, originals, asan):
        self.build = os.path.abspath(build)
        os.makedirs(os.path.join(build, "mutants"), exist_ok=True)
        # AddressSanitizer reserves terabytes, and replaces malloc as the memory tests do.
        self.limit = limit_files if asan else limit_files_and_memory
        self.programs = ["orv_string_call_tests"] if asan else ["orv_string_call_tests", "orv_memory_tests"]
        self.originals = originals
        self.commands = compile_commands(build)

    def compile(self, mutant, directory):
        """Builds the mutant's library into `directory`; False when the compiler refuses the mutant."""
        name = LIBRARIES[mutant.file]
        # Under its own name, since the compiler writes that name into nothing but messages.
        source = os.path.join(directory, os.path.basename(mutant.file))
        with open(source, "w", encoding="utf-8") as file:
            file.write(mutant.source(self.originals[mutant.file]))
        command = self.commands[mutant.file]
        flags = [w for w in command[1 : command.index("-o")] if not w.startswith(("-W", "-O", "-g"))]
        export = os.path.join(ROOT, "cmake", f"{name}.map")
        own_include = ["-I", os.path.dirname(os.path.join(ROOT, mutant.file))]
        link = [] if name == "OrvStrUtils" else [os.path.join(self.build, "lib", "libOrvStrUtils.so.0")]
        run = subprocess.run(
            [command[0], *flags, *own_include, "-O1", "-w", "-shared", source, *link,
             f"-Wl,-soname,lib{name}.so.0", f"-Wl,--version-script,{export}",
             "-o", os.path.join(directory, f"lib{name}.so.0")],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False)
        return run.returncode == 0

    def test(self, directory, program, only):
        """Runs one test program; the name of the test that failed, "time", or None when all passed."""
        environment = dict(os.environ, LD_LIBRARY_PATH=f"{directory}:{self.build}/lib")
        environment.pop("ORV_NO_SKIP", None)
        command = [
            "unshare", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc", "bash", "-c", SANDBOX, "sandbox",
            os.path.join(self.build, "tests", program), "--gtest_fail_fast", f"--gtest_filter={only}"]
        with tempfile.TemporaryFile(mode="w+") as output:
            child = subprocess.Popen(command, env=environment, stdin=subprocess.DEVNULL, stdout=output,
                                     stderr=subprocess.STDOUT, preexec_fn=self.limit, start_new_session=True)
            try:
                status = child.wait(SECONDS)
            except subprocess.TimeoutExpired:
                child.kill()  # and with it, by --kill-child, all in its name space
                child.wait()
                return "ran out of time"
            if status == 0:
                return None
            output.seek(0)
            text = output.read()
        names = r"([\w/]+\.[\w/]+)"
        for state in ("  FAILED  ", " RUN      "):  # of a program that a signal ended, only the latter
            failed = re.findall(rf"^\[{state}\] {names}", text, re.M)
            if failed:
                return failed[-1]
        raise RuntimeError(f"{program} ran no test:\n{text[-2000:]}")

    def killer(self, mutant):
        """Which test notices the mutant; None when none does, "" when the compiler refuses it."""
        with tempfile.TemporaryDirectory(dir=os.path.join(self.build, "mutants")) as directory:
            if not self.compile(mutant, directory):
                return ""
            first = first_tests(mutant.function)
            for program, only in (
                ("orv_tests", f"{first}-{SLOW}:{NEVER}"), ("orv_tests", f"*-{first}:{SLOW}:{NEVER}"),
                *((program, "*") for program in self.programs), ("orv_tests", f"{SLOW}-{NEVER}")):
                found = self.test(directory, program, only)
                if found:
                    return found
        return None


def first_tests(function):
    for functions, tests in FIRST.items():
        if function in functions.split("|"):
            return tests
    sys.exit(f"{__file__}: FIRST lacks {function}")


def numbered(key, number):
    """The key of a change that is made in a function a second time, or more often, in equal lines."""
    file, function, operator, *lines = key
    return (file, function, f"{operator}-{number}", *lines)


def limit_files():
    LIBC.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)  # ends with this script, however that ends, and does not loop for ever
    resource.setrlimit(resource.RLIMIT_FSIZE, (MEMORY_BYTES, MEMORY_BYTES))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    resource.setrlimit(resource.RLIMIT_CPU, (CPU_SECONDS, CPU_SECONDS))


def limit_files_and_memory():
    limit_files()
    resource.setrlimit(resource.RLIMIT_AS, (MEMORY_BYTES, MEMORY_BYTES))


def read_equivalents():
    """Entries of equivalent.txt: {key: reason}; see the head of that file for its form."""
    with open(EQUIVALENT, encoding="utf-8") as file:
        blocks = re.split(r"\n\s*\n", re.sub(r"^#.*\n", "", file.read(), flags=re.M).strip())
    entries = {}
    for block in filter(None, blocks):
        head, before, after, *reason = block.split("\n")
        if not (before.startswith("- ") and after.startswith("+") and reason and len(head.split()) == 3):
            sys.exit(f"{EQUIVALENT}: not an entry:\n{block}")
        entries[(*head.split(), before[2:].strip(), after[1:].strip())] = " ".join(" ".join(reason).split())
    return entries


def show(key, note):
    file, function, operator, before, after = key
    return f"{file} {function} {operator}\n- {before}\n+ {after}\n  {note}\n"


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", required=True, help="build folder of the project")
    parser.add_argument("--asan", help="another, with AddressSanitizer")
    parser.add_argument("--list", action="store_true", help="print the mutants")
    parser.add_argument("--sample", type=int, help="only so many, drawn with a fixed seed, and not the listed ones")
    parser.add_argument("--only", default="", help="only those whose file, function, operator or lines match")
    parser.add_argument("--jobs", type=int, default=2)
    parser.add_argument("--report", help="file to write each mutant's end to")
    options = parser.parse_args()

    originals, keys = {}, {}
    for source, command in compile_commands(options.build).items():
        mutator = Mutator(source, parse_flags(command))
        originals[source] = mutator.original
        times = collections.Counter()
        for mutant in sorted(mutator.mutants.values(), key=lambda m: (m.start, m.end, m.text)):
            key = mutant.key(mutator.original)
            times[key] += 1
            keys[mutant] = key if times[key] == 1 else numbered(key, times[key])
    equivalents = read_equivalents()
    unknown = set(equivalents) - set(keys.values())
    problems = [show(key, "listed as equivalent, but there is no such mutant") for key in unknown]

    for mutant in keys:
        first_tests(mutant.function)
    mutants = [m for m in keys if re.search(options.only, " ".join(keys[m]))]
    if options.list:
        print("\n".join(show(keys[m], "") for m in mutants))
        return
    if options.sample:
        mutants = random.Random(3).sample([m for m in mutants if keys[m] not in equivalents], options.sample)

    start = time.monotonic()
    runners = [Runner(options.build, originals, asan=False)]
    if options.asan:
        runners.append(Runner(options.asan, originals, asan=True))
    pool = concurrent.futures.ThreadPoolExecutor(options.jobs)
    # The tests must pass on the originals, built and run in the very same way.
    originals_run = [(runner, Mutant(source, "-", "none", 0, 0, "")) for source in LIBRARIES for runner in runners]
    for (_, original), found in zip(originals_run, pool.map(lambda run: run[0].killer(run[1]), originals_run)):
        if found is not None:
            sys.exit(f"the tests fail without any mutant of {original.file}: {found or 'it does not compile'}")

    def killer(mutant):
        for runner in runners:
            found = runner.killer(mutant)
            if found is not None:
                return found
        return None

    ends = collections.Counter()
    report = []
    for mutant, found in zip(mutants, pool.map(killer, mutants)):
        key = keys[mutant]
        if found == "":
            end, note = "refused by the compiler", ""
        elif found:
            end, note = "killed", f"killed by {found}"
            if key in equivalents:
                problems.append(show(key, f"listed as equivalent, but {note}"))
        elif key in equivalents:
            end, note = "equivalent", equivalents[key]
        else:
            end, note = "survived", "survived"
            problems.append(show(key, note))
        ends[end] += 1
        report.append(show(key, note or end))
        if options.report:
            with open(options.report, "w", encoding="utf-8") as file:
                file.write("\n".join(report))

    for problem in problems:
        print(problem)
    print(f"mutation: {len(mutants)} mutants: {ends['killed']} killed, {ends['equivalent']} equivalent by proof, "
          f"{ends['survived']} survived, {ends['refused by the compiler']} refused by the compiler; "
          f"{time.monotonic() - start:.0f} s")
    sys.exit(1 if problems else 0)


if __name__ == "__main__":
    main()
