#!/usr/bin/env python3
"""Compiles the headers and sources as users do.

  header_test.py headers_compile_alone   each header, first and alone, in every standard from C++98 to C++20
  header_test.py examples_compile        the example of every function of the header, in every standard
  header_test.py examples_link           the same examples as one program, linked with the libraries
  header_test.py sources_compile         the product's sources, as strict C++11, with the project's warnings
  header_test.py null_paths              the compiler diagnoses a null path where the header says "not null"
  header_test.py format_is_checked       the compiler checks the arguments of __dlog_printf against the format
"""

import glob
import os
import re
import tempfile

import building
import orv_test

STANDARDS = ["c++98", "c++03", "c++11", "c++14", "c++17", "c++20"]
HEADERS = ["include/LxFileUtils.h", "strutils/LxStringUtils.h", "dlog/dlog.h", "dlog/dlog_memory.h",
           "safe/safe.h"]  # fmt: skip
SOURCES = ["src/LxFileUtils.cpp", "strutils/LxStringUtils.cpp"] + [
    f"dlog/dlog_{name}.cpp" for name in ("text", "pipe", "stderr", "syslog", "memory")
] + sorted(os.path.relpath(path, orv_test.ROOT) for path in glob.glob(os.path.join(orv_test.ROOT, "safe", "*.cpp")))
WITH_EXAMPLES = {"include/LxFileUtils.h": "LxFileUtils.h", "safe/safe.h": "safe.h"}
INCLUDES = [f"-I{os.path.join(orv_test.ROOT, folder)}" for folder in ("include", "strutils", "dlog", "safe")]
STRICT = ["-pedantic-errors", "-Wall", "-Wextra", "-Werror"]
MAIN = "int main() { return 0; }\n"


def without_none(results):
    return [result for result in results if result is not None]


def headers_compile_alone(options):
    return without_none(
        building.messages_of(
            options.compiler, f"-std={standard}", *STRICT, *INCLUDES, "-fsyntax-only", *building.INPUT,
            text=f'#include "{os.path.basename(header)}"\n')
        for header in HEADERS
        for standard in STANDARDS
    )


def examples(header):
    """Returns the examples of a header, each with the name of the function that follows it."""
    found = []
    for comment, declaration in re.findall(r"((?:^///.*\n)+)^([^/\n].*)$", orv_test.read(header), re.M):
        for code in re.findall(r"^/// @code\n((?:///.*\n)*?)/// @endcode$", comment, re.M):
            if re.search(r"\w+\(", declaration):
                found.append((orv_test.function_name(declaration), re.sub(r"(?m)^/// ?", "", code)))
    return found


def examples_program():
    functions = []
    for number, (header, include) in enumerate(WITH_EXAMPLES.items()):
        functions.append(f"#include <{include}>\n")
        for name, code in examples(header):
            functions.append(f"void Example{number}{name}();\nvoid Example{number}{name}()\n{{\n{code}}}\n")
    return "".join(functions)


def examples_are_complete():
    problems = []
    for header in WITH_EXAMPLES:
        names = [name for name, _ in examples(header)]
        declared = [orv_test.function_name(one) for one in orv_test.declarations(header)]
        if names != list(dict.fromkeys(declared)):  # overloads have one example
            problems.append(f"{header}: examples of {names}, not of each of {declared}")
        marks = len(re.findall("@code", orv_test.read(header)))
        if marks != len(names):
            problems.append(f"{header}: {marks} examples are marked, {len(names)} were found")
        strangers = [name for name, code in examples(header) if f"::{name}(" not in code]
        problems += [f"{header}: the example of {name} does not call it" for name in strangers]
    return problems


def examples_compile(options):
    lenient = ["-Wall", "-Wextra", "-Wpedantic", "-Werror", "-Wno-unused-variable", "-Wno-unused-but-set-variable"]
    return examples_are_complete() + without_none(
        building.messages_of(
            options.compiler, f"-std={standard}", *lenient, *INCLUDES, "-c", "-o", os.devnull, *building.INPUT,
            text=examples_program())
        for standard in STANDARDS
    )


def examples_link(options):
    with tempfile.TemporaryDirectory() as directory:
        program = os.path.join(directory, "examples")
        messages = building.messages_of(
            options.compiler, *INCLUDES, *building.INPUT, *options.library, "-o", program,
            text=examples_program() + MAIN)
        return examples_are_complete() + without_none([messages])


def sources_compile(options):
    return without_none(
        building.messages_of(
            options.compiler, "-std=c++11", *STRICT, "-O2", *INCLUDES, "-c", os.path.join(orv_test.ROOT, source), "-o",
            os.devnull)
        for source in SOURCES
    )


def format_is_checked(options):
    arguments = ["-std=c++11", "-Wall", "-Werror=format", INCLUDES[2], "-fsyntax-only", *building.INPUT]
    call = '#include "dlog.h"\nvoid Report(int error) {{ __dlog_printf(3, "tag", "open failed (%{}).", error); }}\n'
    problems = without_none([building.messages_of(options.compiler, *arguments, text=call.format("i"))])
    messages = building.messages_of(options.compiler, *arguments, text=call.format("s"))
    if messages is None:
        problems.append("an int printed by %s compiles")
    elif "-Werror=format" not in messages and "-Werror,-Wformat" not in messages:
        problems.append(f"an int printed by %s is refused for another reason:\n{messages}")
    return problems


NULL_PATHS = ["FileExists(0)", "DoMakeDirPath(0, 0755)", "MakeDirPath(0, 0755, false)",
              "GenHtmlPagefromTextFile(0, page)", "GenHtmlPagefromTextFile(text, 0)"]  # fmt: skip


def null_paths(options):
    arguments = ["-std=c++98", "-Wall", "-Werror=nonnull", INCLUDES[0], "-fsyntax-only", *building.INPUT]
    problems = []
    for call in NULL_PATHS:
        text = f"#include <LxFileUtils.h>\nvoid Call(const char* text, const char* page)\n{{\n    (void)text;\n" \
               f"    (void)page;\n    orv_fileutils::{call};\n}}\n"  # fmt: skip
        messages = building.messages_of(options.compiler, *arguments, text=text)
        if messages is None or "nonnull" not in messages:
            problems.append(f"{call} is not diagnosed: {messages}")
        problems += without_none([building.messages_of(options.compiler, *arguments, text=text.replace("(0,", "(text,"
                                 ).replace(" 0)", " page)").replace("(0)", "(text)"))])  # fmt: skip
    said = orv_test.read("include", "LxFileUtils.h").count("not null")
    return problems + ([] if said == len(NULL_PATHS) else [f"the header says 'not null' {said} times"])


CHECKS = [null_paths, headers_compile_alone, examples_compile, examples_link, sources_compile, format_is_checked]


def main():
    by_name = {check.__name__: check for check in CHECKS}
    options = building.parser(__doc__, by_name).parse_args()
    building.require_compiler(options)
    orv_test.finish(by_name[options.check](options))


if __name__ == "__main__":
    main()
