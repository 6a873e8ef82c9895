#!/usr/bin/env python3
"""Shows that the reviewed lists refuse changes of a library's interface: seeds one after the other into copies of the
header, the source, the symbol map and the compiler's flags, and fails when a check accepts one.

Seeds that change symbols need a library. It is built from the header alone: each declaration becomes a definition.
"""

import argparse
import os
import re
import subprocess
import sys
import tempfile

import declarations_test
import library_test
import orv_test

NAMESPACE_END = r"(\}  // namespace)"

# A seed is a name, a pattern and its replacement, done once. The patterns match in the headers of both libraries.
HARMLESS = [
    ("nothing", r"^", ""),
    ("a comment", r"(?m)^/// @param.*\n", ""),
    ("the end of a line", r", char delimiter", ",\n    char delimiter"),
]

# The list of declarations refuses these; the symbols stay the same.
IN_THE_HEADER = [
    ("a wider result", r"\bbool ", "long "),
    ("a constant result", r"\bbool ", "const bool "),
    ("a typedef as a result", r"\bbool ", "Answer "),
    ("an enumeration as a result", r"\bint |\bbool ", "Answer "),
    ("a class as a result", r"\b(void|std::string) (?=\w+\()", "Row "),
    ("a result where there was none", r"\bvoid ", "bool "),
    ("no result where there was one", r"\bbool ", "void "),
    ("a constant parameter", r"\bchar delimiter", "const char delimiter"),
    ("a typedef as a parameter", r"\bunsigned int mode|\bchar delimiter", "Type name"),
    ("parameters of one type change places", r"(const std::string& )(\w+), (const std::string& )(\w+)", r"\1\4, \3\2"),
    ("a default argument", r"\bchar delimiter", "char delimiter = ','"),
    ("noexcept", r"\);", ") noexcept;"),
    ("an attribute", r"\bbool ", "__attribute__((deprecated)) bool "),
    ("an inline overload", NAMESPACE_END, r"inline void Trim(char* text) { *text = 0; }\n\1"),
    ("a template", NAMESPACE_END, r"template <class T> void Trim(T& text) { text.clear(); }\n\1"),
    ("a structure", NAMESPACE_END, r"struct Row { int cells; };\n\1"),
    ("a typedef", NAMESPACE_END, r"typedef std::string Text;\n\1"),
    ("an enumeration", NAMESPACE_END, r"enum Answer { kNo };\n\1"),
    ("a constant", NAMESPACE_END, r"const int kNo = 0;\n\1"),
    ("a macro", NAMESPACE_END, r"#define ORV_NO 0\n\1"),
    ("an inclusion more", r"#include", "#include <set>\n#include"),
    ("an inclusion less", r"#include <string>\n", ""),
    ("the visibility of the flags", r"#pragma .*\n", ""),
    ("another packing", r"#include", "#pragma pack(1)\n#include"),
    ("another result while the library is built", r"\nbool (.*)", r"\n#ifdef BUILT\nlong \1\n#else\nbool \1\n#endif"),
]

# The list of declarations refuses these, and so does the list of exports.
IN_THE_SYMBOLS = [
    ("a parameter of another type", r"\bchar delimiter", "int delimiter"),
    ("a parameter of another sign", r"\bchar delimiter", "unsigned char delimiter"),
    ("an enumeration as a parameter", r"\n(\w.*)\bchar delimiter", r"\nenum Byte { kNone };\n\1Byte delimiter"),
    ("a parameter that is not constant", r"\(const ", "("),
    ("a value in place of a reference", r"\(const std::string&", "(std::string"),
    ("a pointer in place of a reference", r"\(const std::string&", "(const std::string*"),
    ("a C string in place of a string", r"\(const std::string&", "(const char*"),
    ("another container", r"std::vector<std::string>", "std::vector<char>"),
    ("parameters of two types change places", r"(char delimiter),\s+([^,()]+)\)", r"\2, \1)"),
    ("a parameter more", r"\);", ", bool);"),
    ("a parameter less", r"\bchar delimiter,\s+", ""),
    ("variable arguments", r"\);", ", ...);"),
    ("a function more", r"\n(\w+ \w+)(\(.*)", r"\n\1At\2\n\1\2"),
    ("a function less", r"\n\w+ \w+\(.*", ""),
    ("a function of another name", r"\n(\w+ \w+)\(", r"\n\1Now("),
    ("an overload", r"\n(\w+ \w+\()", r"\n\1int);\n\1"),
    ("another namespace", r"namespace (\w+)", r"namespace \1s"),
    ("a namespace around it", r"(namespace (.|\n)*)" + NAMESPACE_END, r"namespace orv { \1} \3"),
    ("an inline namespace", r"(namespace .*)((.|\n)*)" + NAMESPACE_END, r"\1 inline namespace v1 {\2} \4"),
    ("a function of C", r"\n(bool .*)", r'\nextern "C" \1'),
    ("a static function", r"\n(bool .*)", r"\nstatic \1"),
    ("an ABI tag", r"\n(bool )", r'\n__attribute__((abi_tag("v1"))) \1'),
    ("a weak function", r"\n(bool )", r"\n__attribute__((weak)) \1"),
    ("a hidden function", r"\n(bool )", r'\n__attribute__((visibility("hidden"))) \1'),
    ("a protected function", r"\n(bool )", r'\n__attribute__((visibility("protected"))) \1'),
    ("a variable", r"\n(\w+ )(\w+)(\(.*)", r"\nextern int \2s;\nint \2s = 0;\n\1\2\3"),
]

# With these the compiler does not compare a definition with its declaration.
IN_THE_SOURCE = [
    ("a source without its header", r'#include "Lx.*\n', ""),
    ("a macro before the header", r'(#include "Lx)', r"#define bool long\n\1"),
    ("an assembler name", r"\Z", r'\nlong Other(int) asm("symbol");\n'),
    ("a mangled name", r"\Z", r'\nextern "C" long _ZN4orv3OneEi(int) { return 1; }\n'),
]

# The list of exports refuses these.
IN_THE_MAP = [
    ("a function that is not exported", r"\w+::\w+\*;", ""),
    ("every helper exported", r"local:\s+\*;", ""),
    ("versions of symbols", r"(?m)^\{", "ORV_1 {"),
]
IN_THE_FLAGS = [
    ("containers of the debug mode", r"\Z", " -D_GLIBCXX_DEBUG"),
    ("no map", r"-Wl,--version-script\S+", ""),
]

# The check of the identity refuses these.
IN_THE_IDENTITY = [
    ("another SONAME", r"\.so\.0", ".so.1"),
    ("a SONAME without a number", r"\.so\.0", ".so"),
    ("no SONAME", r"-Wl,-soname\S+", ""),
]


def once(text, pattern, replacement):
    changed, count = re.subn(pattern, replacement, text, count=1)
    return changed if count else sys.exit(f"'{pattern}' is not in the text:\n{text}")


class Seeded:
    """Holds what is changed: a library's header, source, symbol map and flags."""

    def __init__(self, options):
        self.options = options
        self.header_name = os.path.basename(options.header)
        self.header = orv_test.read(options.header)
        self.code = re.sub(r"(?m)^\s*//.*\n", "", self.header)  # so that no seed falls into a comment
        self.code = self.code.replace(" __attribute__((nonnull))", "")  # not allowed in a definition
        self.source = orv_test.read(options.source)
        self.map = orv_test.read(options.map)
        self.flags = f"-std=c++11 -fPIC -shared -Wl,-soname,{options.soname} -Wl,--version-script,symbols.map"
        self.reviewed = orv_test.read(options.declarations)

    def places(self):
        """Returns for each place its name, its text, its seeds and the check of a changed text."""
        return [
            ("header", self.code, IN_THE_HEADER + IN_THE_SYMBOLS, self.declarations),
            ("source", self.source, IN_THE_SOURCE, self.definitions),
            ("symbols", self.code, IN_THE_SYMBOLS, lambda code: self.exports(code=code)),
            ("map", self.map, IN_THE_MAP, lambda text: self.exports(version_script=text)),
            ("flags", self.flags, IN_THE_FLAGS, lambda flags: self.exports(flags=flags)),
            ("identity", self.flags, IN_THE_IDENTITY, lambda flags: self.identity(flags=flags)),
        ]

    def declarations(self, header):
        return declarations_test.declarations(header, self.reviewed)

    def definitions(self, source):
        return declarations_test.definitions(source, self.header_name)

    def exports(self, **changed):
        return self.built(library_test.exports, self.options, **changed)

    def identity(self, machine=None, **changed):
        options = argparse.Namespace(**{**vars(self.options), "machine": machine or self.options.machine})
        return self.built(library_test.identity, options, **changed)

    def built(self, check, options, code=None, version_script=None, flags=None):
        """Builds the library and returns the problems that a check of library_test.py finds in it."""
        source = re.sub(r"\);", ") { throw 0; }", code or self.code) + "int Helper() { return 0; }\n"
        with tempfile.TemporaryDirectory(prefix="orv_test.") as directory:
            for name, text in (("library.cpp", source), ("symbols.map", version_script or self.map)):
                with open(os.path.join(directory, name), "w", encoding="utf-8") as file:
                    file.write(text)
            command = [*options.compiler, *(flags or self.flags).split(), "library.cpp", "-o", "library.so"]
            subprocess.run(command, cwd=directory, check=True)
            return check(library_test.Library(options.readelf, os.path.join(directory, "library.so")), options)


def accepted(seeded):
    """Yields the seeds that a check accepts."""
    for place, text, seeds, check in seeded.places():
        for name, *edit in seeds:
            if not check(once(text, *edit)):
                yield f"{place}: {name}"
    for machine in library_test.MACHINES:
        if machine != seeded.options.machine and not seeded.identity(machine=machine):
            yield f"identity: a library for {seeded.options.machine} instead of {machine}"


def refused(seeded):
    """Yields the problems that the checks find where there are none."""
    for name, *edit in HARMLESS:
        for problem in seeded.declarations(once(seeded.header, *edit)):
            yield f"{name}: {problem}"
    yield from seeded.definitions(seeded.source) + seeded.exports() + seeded.identity()


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    for name in ("header", "source", "map", "declarations", "exports", "soname", "machine", "readelf"):
        parser.add_argument(f"--{name}", required=True)
    parser.add_argument("--compiler", nargs=argparse.REMAINDER, help="compiler and flags")
    options = parser.parse_args()
    options.needs = []  # the definitions call nothing
    seeded = Seeded(options)
    problems = [f"refused although harmless: {line}" for line in refused(seeded)]
    problems += [f"accepted: {line}" for line in accepted(seeded)]
    orv_test.finish(problems)


if __name__ == "__main__":
    main()
