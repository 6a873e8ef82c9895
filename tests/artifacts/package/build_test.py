#!/usr/bin/env python3
"""Builds a copy of the sources as a user or a packager does.

  build_test.py plain    the plain build makes the libraries, the companion and the logs, and nothing else; in
                         directories with blanks, commas and a semicolon in their paths
  build_test.py version  CMake 3.22 knows every command, variable, property and module that is used
  build_test.py flags    the flags and the build type of the caller win, and -fno-exceptions does no harm
"""

import json
import os
import re
import shutil
import subprocess
import tempfile

import building
import orv_test


def not_copied(directory, names):
    return [name for name in names if directory == orv_test.ROOT and (name == ".git" or name.startswith("build"))]


class Build:
    """A copy of the sources and its build directory."""

    def __init__(self, options, directory):
        self.options = options
        odd = ", odd" if options.check == "plain" else ""
        self.sources = os.path.join(directory, f"sources{odd}; name" if odd else "sources")
        self.build = os.path.join(directory, f"build{odd}")
        shutil.copytree(orv_test.ROOT, self.sources, ignore=not_copied)

    def cmake(self, *arguments):
        """What CMake said; the test fails with it when CMake does."""
        run = subprocess.run(
            [self.options.cmake, *arguments], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
        if run.returncode != 0:
            orv_test.finish([f"cmake {' '.join(arguments)}: {run.returncode}\n{run.stdout}"])
        return run.stdout

    def configure(self, flags, *definitions):
        compiler, *own = self.options.compiler
        toolchain = [f"--toolchain={self.options.toolchain}"] if self.options.toolchain else []
        return self.cmake(
            "-G", self.options.generator, "-S", self.sources, "-B", self.build, *toolchain,
            f"-DCMAKE_CXX_COMPILER={compiler}", f"-DCMAKE_CXX_FLAGS={' '.join([*own, *flags])}", *definitions)


def linked_files(directory):
    """The programs and libraries below the directory, without those that CMake made for itself."""
    found = set()
    for place, folders, names in os.walk(directory):
        if "CMakeFiles" in folders:
            folders.remove("CMakeFiles")
        for path in (os.path.join(place, name) for name in names):
            with open(path, "rb") as file:
                if file.read(8).startswith((b"\x7fELF", b"!<arch>")):
                    found.add(os.path.relpath(path, directory))
    return found


def plain(build):
    build.configure([])
    build.cmake("--build", build.build)
    shared = [f"lib/lib{name}.so{end}" for name in ("OrvFileUtils", "OrvStrUtils")
              for end in ("", ".0", f".{orv_test.VERSION}")]  # fmt: skip
    expected = {*shared, "lib/libOrvSafe.a", *(f"lib/libDlog{name}.a" for name in ("Stderr", "Syslog", "Memory"))}
    found = linked_files(build.build)
    return [] if found == expected else [f"built {sorted(found)} instead of {sorted(expected)}"]


def flags(build):
    given = ["-O1", "-g", "-fno-exceptions", "-D_FORTIFY_SOURCE=1", "-fno-stack-protector",
             f"-fdebug-prefix-map={build.sources}=/usr/src/orv"]  # fmt: skip
    build.configure(given, "-DCMAKE_BUILD_TYPE=", "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON")
    build.cmake("--build", build.build)
    problems = []
    with open(os.path.join(build.build, "CMakeCache.txt"), encoding="utf-8") as cache:
        if "\nCMAKE_BUILD_TYPE:STRING=\n" not in cache.read():
            problems.append("the empty build type was replaced")
    with open(os.path.join(build.build, "compile_commands.json"), encoding="utf-8") as commands:
        for command in json.load(commands):
            words = command["command"].split()
            added = [word for word in words if word not in given and re.match(
                r"-[DU]_FORTIFY|-fstack-protector|-fdebug-prefix-map|-O", word)]  # fmt: skip
            problems += [f"{command['file']} is compiled with {word} too" for word in added]
    with open(os.path.join(build.build, "lib", "libOrvFileUtils.so"), "rb") as library:
        if b"/usr/src/orv" not in library.read():
            problems.append("the debug information does not name the directory that was given")
    return problems


def version(build):
    """CMake's manual says which version has a name first. Older versions ignore the property in HARMLESS."""
    files = ["CMakeLists.txt", *(os.path.join(folder, "CMakeLists.txt") for folder in ("man", "tools", "examples"))]
    files += [os.path.join("cmake", name) for name in os.listdir(os.path.join(build.sources, "cmake"))
              if name.endswith(".cmake")]  # fmt: skip
    text = re.sub(r"#.*", "", "".join(orv_test.read(file) for file in files))
    problems = [] if "cmake_minimum_required(VERSION 3.22." in text else ["CMake 3.22 is refused"]
    for kind in ("command", "variable", "property", "module"):
        for name in sorted(set(build.cmake(f"--help-{kind}-list").split()) & set(re.findall(r"\w+", text)) - HARMLESS):
            since = re.match(r"\S+\n-+\n\n\.\. versionadded:: 3\.(\d+)\n", build.cmake(f"--help-{kind}", name))
            if since and int(since[1]) > 22 and name != "SYSTEM":  # which is an option of a command, too
                problems.append(f"{kind} {name} came with CMake 3.{since[1]}")
    return problems


HARMLESS = {"COMPILE_WARNING_AS_ERROR"}
CHECKS = {check.__name__: check for check in (plain, flags, version)}


def main():
    parser = building.parser(__doc__, CHECKS)
    parser.add_argument("--cmake", required=True, help="the program")
    parser.add_argument("--generator", required=True, help="CMake's generator")
    parser.add_argument("--toolchain", help="CMake's file of a cross compiler")
    options = parser.parse_args()
    building.require_compiler(options)
    with tempfile.TemporaryDirectory(prefix="orv_test.") as directory:
        problems = CHECKS[options.check](Build(options, directory))
    orv_test.finish(problems)


if __name__ == "__main__":
    main()
