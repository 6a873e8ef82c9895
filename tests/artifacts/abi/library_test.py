#!/usr/bin/env python3
"""Compares a built library with what was reviewed. Reads it with readelf, so it may be one for another machine.

  library_test.py exports      defines exactly the symbols listed, all of them global functions
  library_test.py identity     has the machine and SONAME given, and needs exactly the product libraries given
  library_test.py imports      leaves undefined what is listed, and besides only the C++ runtime and the other imports
  library_test.py static_state has no static object but the standard stream initialiser, and no other init function
  library_test.py hardening    has full RELRO, no executable stack, stack protector and fortified calls
"""

import argparse
import collections
import os
import re
import subprocess
import sys
import tempfile

Symbol = collections.namedtuple("Symbol", "type binding visibility section name")
Section = collections.namedtuple("Section", "name size flags")

# Undefined symbols that are the language's and not a decision of ours: the C++ runtime, the compiler's hooks, and plain
# memory and string functions, whose calls compilers add and drop on their own.
RUNTIME = re.compile(
    r"_Z.*|__cxa_.*|__gxx_personality_v0|_Unwind_.*|_ITM_.*|__gmon_start__|__errno_location|__stack_chk_(fail|guard)"
    r"|mem(chr|cmp|cpy|move|set)|str(cmp|len)|abort|__libc_single_threaded"
)
RUNTIME_LIBRARIES = re.compile(r"lib(stdc\+\+|gcc_s|c|m)\.so\.\d+|ld.*\.so\.\d+")
# Objects in writable sections that every shared library has, and the tables of classes (_ZTI, _ZTV), which are constant
# once the loader has written the addresses into them.
COMPILERS_OBJECTS = re.compile(
    r"completed\.\d+|__dso_handle|__TMC_END__|DW\.ref\.__gxx_personality_v0|_DYNAMIC|_GLOBAL_OFFSET_TABLE_|_SDA_BASE_"
    r"|__frame_dummy_init_array_entry|__do_global_dtors_aux_fini_array_entry|_ZT[IV].*"
)
# What readelf prints for the processor that CMake names.
MACHINES = {
    "x86_64": ("ELF64", "2's complement, little endian", "Advanced Micro Devices X86-64"),
    "powerpc": ("ELF32", "2's complement, big endian", "PowerPC"),
}
STREAM_INITIALISER = "_ZStL8__ioinit"


class Library:
    def __init__(self, readelf, path):
        self._readelf = readelf
        self._path = path
        self.dynamic_symbols = self._parse(self.read("--dyn-syms"))

    def read(self, *options):
        command = [self._readelf, "-W", *options, self._path]
        return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout

    @staticmethod
    def _parse(table):
        """The named symbols of a symbol table, without their versions."""
        found = []
        for line in table.splitlines():
            # Num: Value Size Type Bind Vis [other] Ndx Name; the name may hold blanks when it is demangled.
            match = re.match(r"\s*\d+:\s+\S+\s+\S+\s+(\S+)\s+(\S+)\s+(\S+)\s+(?:\[.*\]\s+)?(\S+)\s+(\S.*)$", line)
            if match and match[1] not in ("SECTION", "FILE"):
                found.append(Symbol(*match.groups()[:4], re.sub(r"@.*| \(\d+\)$", "", match[5])))
        return found

    def demangled_names(self):
        """The names of the defined dynamic symbols as in C++, spelled alike whatever the tool."""
        names = []
        for symbol in self._parse(self.read("--dyn-syms", "--demangle")):
            if symbol.section != "UND":
                name = re.sub(r">\s+(?=>)", ">", symbol.name)
                string = r"std::(__cxx11::)?basic_string<char, std::char_traits<char>, std::allocator<char>>"
                names.append(re.sub(string, "std::string", name))
        return names

    def all_symbols(self):
        """The full symbol table, which a stripped library has not."""
        table = re.split(r"(?m)^Symbol table '\.symtab'.*$", self.read("--symbols"))
        return self._parse(table[1]) if len(table) == 2 else sys.exit("the library is stripped: nothing to look at")

    def defined(self):
        return [symbol for symbol in self.dynamic_symbols if symbol.section != "UND"]

    def undefined(self):
        return {symbol.name for symbol in self.dynamic_symbols if symbol.section == "UND"}

    def sections(self):
        """Number of each section to what it is."""
        found = {}
        for line in self.read("--sections").splitlines():
            # [Nr] Name Type Address Off Size ES Flg ...; Flg may be blank, and then a number stands in its place.
            match = re.match(r"\s*\[\s*(\d+)\]\s+(\.\S+)\s+\S+\s+\S+\s+\S+\s+([0-9a-f]+)\s+\S+\s+(\S+)", line)
            if match:
                found[match[1]] = Section(match[2], int(match[3], 16), match[4])
        return found

    def dynamic_entries(self, tag):
        return re.findall(r"\(" + tag + r"\)\s+(.*\S)", self.read("--dynamic"))

    def dynamic_names(self, tag):
        return [re.search(r"\[(.*)\]", entry)[1] for entry in self.dynamic_entries(tag)]

    def machine(self):
        header = self.read("--file-header")
        return tuple(re.search(rf"{name}:\s+(.*\S)", header)[1] for name in ("Class", "Data", "Machine"))

    def pointer_bytes(self):
        return 8 if self.machine()[0] == "ELF64" else 4


def listed(path):
    with open(path, encoding="ascii") as file:
        return [line.rstrip("\n") for line in file if not line.startswith("#")]


def compare(what, expected, found):
    """Problems: what is missing and what is too much."""
    problems = [f"{what}: missing {item}" for item in sorted(set(expected) - set(found))]
    return problems + [f"{what}: unexpected {item}" for item in sorted(set(found) - set(expected))]


def exports(library, options):
    expected = dict(line.split(" ", 1) for line in listed(options.exports))
    defined = library.defined()
    problems = compare("exports", expected, [symbol.name for symbol in defined])
    problems += compare("exports, demangled", expected.values(), library.demangled_names())
    for symbol in defined:
        kind = (symbol.type, symbol.binding, symbol.visibility)
        if kind != ("FUNC", "GLOBAL", "DEFAULT"):  # WEAK would be a template instance, UNIQUE would prevent unloading
            problems.append(f"exports: {symbol.name} is {' '.join(kind)}, not a plain global function")
    return problems


def identity(library, options):
    problems = compare("machine", [MACHINES.get(options.machine, library.machine())], [library.machine()])
    problems += compare("SONAME", [options.soname], library.dynamic_names("SONAME"))
    products = [name for name in library.dynamic_names("NEEDED") if name.startswith("libOrv")]
    return problems + compare("NEEDED", options.needs, products)


def source_name(symbol):
    """The name that the source code calls: off_t and time_t of 64 bits, fortified and old versioned calls undone."""
    name = re.sub(r"^__(\w+)_chk$", r"\1", symbol)
    name = re.sub(r"^__(open(64)?)_2$", r"\1", name)
    name = re.sub(r"^__(\w+)_time64$", r"\1", name)
    name = re.sub(r"^__(l?)xstat(64)?$", r"\1stat", name)
    return name.replace("64", "")


def imports(library, options):
    undefined = library.undefined()
    problems = []
    if options.imports_exports_of:
        ours = [line.split(" ", 1)[0] for line in listed(options.imports_exports_of)]
        problems += compare("product functions", ours, [name for name in undefined if "LxStringUtils" in name])
    problems += compare("host functions", options.host, [name for name in undefined if "dlog" in name])
    calls = {source_name(name) for name in undefined if name not in options.host}
    problems += compare("C library", listed(options.imports), [name for name in calls if not RUNTIME.fullmatch(name)])
    for name in library.dynamic_names("NEEDED"):
        if not name.startswith("libOrv") and not RUNTIME_LIBRARIES.fullmatch(name):
            problems.append(f"NEEDED: unexpected {name}")
    return problems


def static_state(library, options):
    sections = library.sections()
    symbols = library.all_symbols()
    problems = []
    initialisers = 0
    for symbol in symbols:
        section = sections.get(symbol.section)
        if section is None or "W" not in section.flags or symbol.type not in ("OBJECT", "TLS", "NOTYPE"):
            continue
        if symbol.name == STREAM_INITIALISER:
            initialisers += 1
        elif not COMPILERS_OBJECTS.fullmatch(symbol.name):
            problems.append(f"static object {symbol.name} in {section.name}")
    if initialisers > (1 if options.streams else 0):
        problems.append(f"{initialisers} standard stream initialisers")
    compilers = sum(symbol.name == "__frame_dummy_init_array_entry" for symbol in symbols)
    functions = sum(section.size for section in sections.values() if section.name == ".init_array")
    ours = functions // library.pointer_bytes() - compilers
    if ours != initialisers:  # newer C++ runtimes initialise the streams themselves: then both are 0
        problems.append(f"{ours} init functions for {initialisers} stream initialisers")
    return problems


def toolchain_fortifies(compiler):
    """Whether the compiler and its C library turn snprintf into a checked call at all."""
    source = """#include <cstdio>
void use(char*);
void format(const char* text)
{
    char buffer[8];
    std::snprintf(buffer, sizeof buffer, "%s%s", text, text);
    use(buffer);
}
"""
    with tempfile.TemporaryDirectory() as directory:
        assembly = os.path.join(directory, "probe.s")
        command = [*compiler, "-O2", "-U_FORTIFY_SOURCE", "-D_FORTIFY_SOURCE=2", "-x", "c++", "-", "-S", "-o", assembly]
        subprocess.run(command, input=source, check=True, text=True)
        with open(assembly, encoding="utf-8") as file:
            return "snprintf_chk" in file.read()


def hardening(library, options):
    segments = library.read("--segments")
    problems = []
    if "GNU_RELRO" not in segments:
        problems.append("no RELRO segment")
    flags = " ".join(library.dynamic_entries("FLAGS") + library.dynamic_entries("FLAGS_1"))
    if not library.dynamic_entries("BIND_NOW") and not re.search(r"\b(BIND_)?NOW\b", flags):
        problems.append("symbols are bound lazily, so RELRO is not full")
    stack = re.search(r"GNU_STACK\s+(?:0x\S+\s+)+([RWE ]+?)\s+0", segments)
    if not stack or "E" in stack[1]:
        problems.append("the stack is executable")
    if library.dynamic_entries("TEXTREL"):
        problems.append("text relocations")
    undefined = library.undefined()
    if "__stack_chk_fail" not in undefined:
        problems.append("no stack protector")
    if options.fortified:
        if not toolchain_fortifies(options.compiler):
            print("note: this toolchain fortifies no snprintf; fortified calls are not looked for")
        elif "__snprintf_chk" not in undefined:
            problems.append("snprintf is not fortified, although the toolchain can: _FORTIFY_SOURCE is not in effect")
    return problems


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("check", choices=["exports", "identity", "imports", "static_state", "hardening"])
    parser.add_argument("--readelf", required=True)
    parser.add_argument("--library", required=True)
    parser.add_argument("--exports", help="reviewed list of the symbols it defines")
    parser.add_argument("--soname")
    parser.add_argument("--machine", help="CMake's name of the processor; not checked unless in MACHINES")
    parser.add_argument("--needs", action="append", default=[], help="a product library it needs")
    parser.add_argument("--imports", help="reviewed list of the C library functions it calls")
    parser.add_argument("--imports-exports-of", help="reviewed list of another product library's functions, all used")
    parser.add_argument("--host", action="append", default=[], help="a function that the host program supplies")
    parser.add_argument("--streams", action="store_true", help="it may hold the standard stream initialiser")
    parser.add_argument("--fortified", action="store_true", help="it was built with optimisation")
    parser.add_argument("--compiler", nargs=argparse.REMAINDER, help="compiler and flags, to learn what it fortifies")
    options = parser.parse_args()
    problems = globals()[options.check](Library(options.readelf, options.library), options)
    for problem in problems:
        print(f"{options.library}: {problem}")
    sys.exit(1 if problems else 0)


if __name__ == "__main__":
    main()
