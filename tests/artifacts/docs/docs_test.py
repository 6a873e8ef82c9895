#!/usr/bin/env python3
"""Checks documents against the source.

  docs_test.py diagnostics    docs/diagnostics.md has each line of src/LxFileUtils.cpp, with cause, disk and remedy
  docs_test.py error_numbers  its error numbers are those of the system
  docs_test.py caveats        docs/caveats.md names tests that exist, and has a row with an asterisk for each comment of
                              the source that begins with Deliberate:; each row ends with the call of the safe companion
                              that answers it, or with the reason why none does
  docs_test.py linker         the documents quote what the linker says of a program without the log
  docs_test.py versions       docs/versions.md names the SONAME and what find_package accepts; its commands replace the
                              libraries of a device
  docs_test.py reference      the API reference is made without a warning and holds every function
"""

import errno
import os
import re
import subprocess
import tempfile

import building
import orv_test


def lines_of_source():
    """Returns the lines that the source writes, with a star for each argument except the name of the function."""
    source = orv_test.read("src", "LxFileUtils.cpp")
    names = dict(re.findall(r'const char (k\w+)\[\] = "(\w+)";', source))
    calls = re.findall(r'LOG_FAILURE\("((?:[^"\\]|\\.)*)",\s*(k\w+)', source)
    written = len(re.findall(r"LOG_FAILURE\(", source)) - 1  # without the definition
    lines = set()
    for text, name in calls:
        text = text.replace('\\"', '"').replace("%s", names[name], 1)
        lines.add(re.sub(r"%0?\d*z?[a-z]", "*", text))
    return lines, len(calls) == written


def sections_of_document():
    """Returns the heading and the text of each section about a line, by the part of the document."""
    document = orv_test.read("docs", "diagnostics.md")
    parts = re.findall(r"(?ms)^## (.*?)\n(.*?)(?=^## |\Z)", document)
    return {part: re.findall(r"(?ms)^### `(.*?)`\n(.*?)(?=^#|\Z)", text) for part, text in parts}


def diagnostics(_):
    expected, complete = lines_of_source()
    sections = sections_of_document()
    problems = [] if complete else ["a call of LOG_FAILURE is not understood"]
    problems += [] if len(expected) == 20 else [f"{len(expected)} lines in the source instead of 20"]
    for line in sorted(expected):
        pattern = re.sub(r"\\\*", "(?:[A-Z]{2,}|-?[0-9]+|/var/tmp/TextToHtml_PID.tmp)", re.escape(line))
        headings = [heading for heading, _ in sections[line.split(":")[0]] if re.fullmatch(pattern, heading)]
        if not headings:
            problems.append(f"docs/diagnostics.md does not have: {line}")
    for part, found in sections.items():
        for heading, text in found:
            bullets = r"\n- \*\*Cause\*\*: .+?\n- \*\*On the disk\*\*: .+?\n- \*\*Remedy\*\*: .+?\n+"
            if not heading.endswith("CALL(PATH) failed (ERROR).") and not re.fullmatch(bullets, text, re.S):
                problems.append(f"not one cause, one state of the disk and one remedy: {heading}")
            if part in {line.split(":")[0] for line in expected} and not heading.startswith(part + ":"):
                problems.append(f"{heading} is under {part}")
    return problems


def error_numbers(_):
    document = orv_test.read("docs", "diagnostics.md")
    rows = re.findall(r"(?m)^\| (\d+) \| (E\w+) \|", document)
    problems = [f"{name} is not {number}" for number, name in rows if getattr(errno, name, None) != int(number)]
    explained = {number for number, _ in rows}
    named = set(re.findall(r"(\d+) \(E\w+\)", document))
    problems += [f"the error number {number} has no row" for number in sorted(named - explained)]
    return problems if len(rows) > 10 and len(named) > 8 else problems + [f"only {rows} and {named} found"]


def names_of_tests():
    tests = os.path.join(orv_test.ROOT, "tests")
    names = set()
    for directory, _, files in os.walk(tests):
        for name in files:
            if name.endswith(".cpp"):
                text = orv_test.read(directory, name)
                names.update(".".join(test) for test in re.findall(r"(?m)^TEST(?:_F|_P)?\((\w+), (\w+)\)", text))
    return names


# The headings of docs/caveats.md, by the part of the source whose comments their rows explain.
CAVEATS = {
    "File transfer": ["Moving", "Copying"],
    "Directories": ["Making directories", "Listing"],
    "Tables and pages": ["Tables and pages"],
    "Name-value files": ["Reading settings"],
}


def deliberate_comments():
    """Counts the comments that begin with that word, by part of the source; a part begins with "// ---- NAME"."""
    text = orv_test.read("src", "LxFileUtils.cpp") + orv_test.read("strutils", "LxStringUtils.cpp")
    parts = re.split(r"(?m)^// ---- (.*)\n", text)
    return {name: part.count("// Deliberate:") for name, part in zip(["the top", *parts[1::2]], parts[::2])}


def is_answered(advice, calls):
    """Returns whether the advice ends with the calls that answer a caveat, or with the reason why none does."""
    answer = re.search(r"(?:^|\. )(?:Answered by (`orv_safe::[^.]*)|No call answers this: [^|]+)\.$", advice)
    named = re.findall(r"`orv_safe::(\w+)`", answer[1] or "") if answer else []
    return answer is not None and calls.issuperset(named) and (answer[1] is None or bool(named))


def caveats(_):
    document = orv_test.read("docs", "caveats.md")
    rows = {}
    for heading, part in re.findall(r"(?ms)^## ([\w ]+)(?:: `.*?)?\n(.*?)(?=^## |\Z)", document):
        rows[heading] = re.findall(r"(?m)^\| .* \|$", part)[1:]
    exist = names_of_tests()
    calls = {orv_test.function_name(one) for one in orv_test.declarations("safe", "safe.h")}
    problems = [f"the row does not end with what answers it: {row}" for row in sum(rows.values(), [])
                if not is_answered(row.split(" | ")[1], calls)]  # fmt: skip
    for row in sum(rows.values(), []):
        tests = re.fullmatch(r"(\w+\.\w+(?:, \w+\.\w+)*)(?: \*)?", row.split(" | ")[-1].rstrip("| "))
        problems += [] if tests else [f"the row does not end in names of tests: {row}"]
        problems += [f"docs/caveats.md names {name}, which does not exist"
                     for name in (tests[1].split(", ") if tests else []) if name not in exist]  # fmt: skip
    comments = deliberate_comments()
    marked = {heading: sum(row.endswith(" * |") for row in rows[heading]) for heading in rows}
    for part, headings in CAVEATS.items():
        found = sum(marked[heading] for heading in headings)
        if found < comments[part]:
            problems.append(f"{part}: {comments[part]} comments begin with Deliberate:, but {found} rows are marked")
    if sum(marked.values()) != sum(comments.values()):
        problems.append(f"comments that begin with Deliberate: {comments}; marked rows: {marked}")
    return problems if sum(map(len, rows.values())) > 20 else problems + [f"only {rows} found"]


def versions(_):
    document = orv_test.read("docs", "versions.md")
    major, minor, _ = orv_test.VERSION.split(".")
    so_version = re.search(r"SOVERSION (\d+)", orv_test.read("cmake", "OrvTargets.cmake"))[1]
    row = (f"| {major}.{minor} | `libOrvFileUtils.so.{so_version}`, `libOrvStrUtils.so.{so_version}` "
           f"| `find_package(OrvFileUtils {major}.{minor})` |\n")  # fmt: skip
    problems = [] if row in document else [f"docs/versions.md has no row: {row}"]
    compatibility = "SameMinorVersion" if major == "0" else "SameMajorVersion"
    if f"COMPATIBILITY {compatibility})" not in orv_test.read("cmake", "OrvInstall.cmake"):
        problems.append(f"find_package does not compare as {compatibility}")
    return problems + upgrade(re.search(r"(?ms)^```sh\n(for .*?)^```$", document)[1], so_version)


def upgrade(commands, so_version):
    """Types the commands that replace the libraries on a device."""
    names = [f"lib{name}.so.{so_version}" for name in ("OrvFileUtils", "OrvStrUtils")]
    with tempfile.TemporaryDirectory(prefix="orv_test.") as directory:
        new, libraries = os.path.join(directory, "new"), os.path.join(directory, "lib")
        for folder, version in ((libraries, "1.1"), (new, "1.2")):
            os.mkdir(folder)
            for name in names:
                with open(os.path.join(folder, f"{name}.{version}"), "w", encoding="utf-8") as file:
                    file.write(version)
        for name in names:
            os.symlink(f"{name}.1.1", os.path.join(libraries, name))
        subprocess.run(["sh", "-euc", commands], check=True, env={
            **os.environ, "NEW": new, "LIBRARIES": libraries, "VERSION": f"{so_version}.1.2"})  # fmt: skip
        problems = [f"after the upgrade, {name} does not lead to the new library" for name in names
                    if os.readlink(os.path.join(libraries, name)) != f"{name}.1.2"]  # fmt: skip
        expected = sorted(name + end for name in names for end in ("", ".1.1", ".1.2"))
        if sorted(os.listdir(libraries)) != expected:
            problems.append(f"the upgrade leaves {sorted(os.listdir(libraries))} instead of {expected}")
    return problems


def reference(_):
    orv_test.require("doxygen")
    headers = [("include", "LxFileUtils.h"), ("strutils", "LxStringUtils.h"), ("safe", "safe.h")]
    functions = [orv_test.function_name(one) for header in headers for one in orv_test.declarations(*header)]
    functions += ["__dlog_printf", "SetLimit", "Lines", "Total"]
    with tempfile.TemporaryDirectory(dir="/var/tmp") as directory:
        run = subprocess.run([os.path.join(orv_test.ROOT, "script", "docs"), directory], stdout=subprocess.PIPE,
                             stderr=subprocess.STDOUT, text=True, check=False)  # fmt: skip
        html = os.path.join(directory, "html")
        if run.returncode != 0 or run.stdout.count("\n") != 1:
            return [run.stdout]
        text = ""
        for name in os.listdir(html):
            if name.endswith(".html"):
                with open(os.path.join(html, name), encoding="utf-8") as file:
                    text += file.read()
    detailed = set(re.findall(r'<td class="memname">[^<]*?(\w+) *</td>', re.sub(r"</?a[^>]*>", "", text)))
    return [f"the reference does not describe {name}" for name in functions if name not in detailed]


def linker(options):
    libraries = [library for library in options.library if "Dlog" not in os.path.basename(library)]
    program = "#include <LxFileUtils.h>\nint main() { return orv_fileutils::FileExists(\"/\"); }\n"
    include = f"-I{os.path.join(orv_test.ROOT, 'include')}"
    messages = building.messages_of(
        options.compiler, include, *building.INPUT, *libraries, "-o", os.devnull, text=program) or ""
    said = re.search(r"undefined reference to `__dlog_printf'", messages)
    if said is None:
        return [f"a program without the log links, or the linker says something else:\n{messages}"]
    documents = ("README.md", os.path.join("docs", "diagnostics.md"), os.path.join("docs", "cross-build.md"))
    return [f"{name} does not quote: {said[0]}" for name in documents if said[0] not in " ".join(orv_test.read(name).split())]


def main():
    checks = {check.__name__: check for check in (diagnostics, error_numbers, caveats, linker, versions, reference)}
    options = building.parser(__doc__, checks).parse_args()
    orv_test.finish(checks[options.check](options))


if __name__ == "__main__":
    main()
