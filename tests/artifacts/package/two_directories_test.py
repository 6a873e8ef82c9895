#!/usr/bin/env python3
"""Builds and installs copies of the sources in two directories whose names differ in length, and compares every byte.

  two_directories_test.py install
"""

import filecmp
import os
import shutil
import subprocess
import tempfile

import building
import orv_test

NOT_COPIED = ("build*", ".git", "tests")
NOT_CACHED = {**os.environ, "CCACHE_DISABLE": "1"}  # a compiler cache would give the same objects to both


def run(*command, **environment):
    done = subprocess.run(
        command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False,
        env={**NOT_CACHED, **environment})
    if done.returncode != 0:
        orv_test.finish([f"{' '.join(command)}: {done.returncode}\n{done.stdout}"])


def install(options, sources):
    """Builds and installs a copy of the sources with debug information. Returns the directory of the installation."""
    shutil.copytree(orv_test.ROOT, sources, ignore=shutil.ignore_patterns(*NOT_COPIED))
    build = os.path.join(sources, "build")
    compiler, *flags = options.compiler
    toolchain = [f"--toolchain={options.toolchain}"] if options.toolchain else []
    run(options.cmake, "-G", options.generator, "-S", sources, "-B", build, *toolchain,
        f"-DCMAKE_CXX_COMPILER={compiler}", f"-DCMAKE_CXX_FLAGS={' '.join(flags)}", "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
        "-DORV_BUILD_TESTS=OFF", "-DORV_BUILD_TOOLS=OFF", "-DORV_BUILD_EXAMPLES=ON", "-DCMAKE_INSTALL_PREFIX=/usr")
    run(options.cmake, "--build", build)
    root = os.path.join(sources, "root")
    run(options.cmake, "--install", build, DESTDIR=root)
    return root


def files_below(root):
    return sorted(
        os.path.relpath(os.path.join(directory, name), root) for directory, _, names in os.walk(root) for name in names)


def compare(first, second):
    """Returns the differences in names, links and bytes."""
    names = files_below(first)
    if names != files_below(second):
        return [f"different files: {sorted(set(names) ^ set(files_below(second)))}"]
    if not any(name.endswith("libOrvFileUtils.so.0.1.0") for name in names):
        return [f"the library was not installed, only {names}"]
    _, different, unreadable = filecmp.cmpfiles(first, second, names, shallow=False)
    return [f"{name} has other bytes" for name in different + unreadable]


def main():
    parser = building.parser(__doc__, ["install"])
    parser.add_argument("--cmake", required=True, help="the program")
    parser.add_argument("--generator", required=True, help="CMake's generator")
    parser.add_argument("--toolchain", help="CMake's file of a cross compiler")
    options = parser.parse_args()
    building.require_compiler(options)
    with tempfile.TemporaryDirectory(prefix="orv_test.") as directory:
        first = install(options, os.path.join(directory, "a"))
        second = install(options, os.path.join(directory, "a", "directory", "with", "a-much-longer-name"))
        problems = compare(first, second)
    orv_test.finish(problems)


if __name__ == "__main__":
    main()
