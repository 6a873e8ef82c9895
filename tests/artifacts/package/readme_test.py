#!/usr/bin/env python3
"""Builds the first C++ example of the README, and types the commands of README and docs/cross-build.md.

  readme_test.py builds_and_runs  the example against the libraries of this build
  readme_test.py installs         build, install, use with CMake and with pkg-config, uninstall
  readme_test.py emulates         the example as a program that finds the library in a staging directory
"""

import os
import re
import shutil
import subprocess
import tempfile

import building
import orv_test

EXAMPLE_DIRECTORY = "/var/tmp/orv-readme"  # where the example of README writes
NOT_COPIED = ("build*", ".git", "tests", "bench")


def blocks(document, language, holding=""):
    """The blocks of a document in a language that hold a text."""
    return [text for text in re.findall(rf"(?ms)^```{language}\n(.*?)^```$", orv_test.read(*document)) if holding in text]


def write(directory, name, text):
    os.makedirs(directory, exist_ok=True)
    with open(os.path.join(directory, name), "w", encoding="utf-8") as file:
        file.write(text)


def example(directory):
    """The example of README, which writes into this directory here: the one it names may belong to another user."""
    code = blocks(["README.md"], "cpp")[0]
    assert EXAMPLE_DIRECTORY in code
    return code.replace(EXAMPLE_DIRECTORY, os.path.join(directory, "written"))


def not_published(directory):
    """Says so when the example has not published its page in this directory."""
    page = os.path.join(directory, "written", "out", "ports.html")
    if not os.path.exists(page) or "<td>Port 1</td>" not in orv_test.read(page):
        return [f"the example ended with 0, but {page} is missing or has no row"]
    return []


def write_project(directory):
    """The project that README shows."""
    write(directory, "app.cpp", example(directory))
    write(directory, "CMakeLists.txt", blocks(["README.md"], "cmake", "add_executable(app")[0])


def type_in(text, directory, **environment):
    """Runs commands as a reader types them; the test fails with what they said when one fails."""
    shell = subprocess.run(
        ["bash", "-euo", "pipefail", "-c", text], cwd=directory, env={**os.environ, **environment},
        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)  # fmt: skip
    if shell.returncode != 0:
        orv_test.finish([f"{text}ended with {shell.returncode}:\n{shell.stdout}"])


def builds_and_runs(options):
    if not blocks(["README.md"], "cpp"):
        return ["README.md has no example between ```cpp and ```"]
    with tempfile.TemporaryDirectory() as directory:
        program = os.path.join(directory, "example")
        includes = [f"-I{os.path.join(orv_test.ROOT, folder)}" for folder in ("include", "dlog")]
        run_path = [f"-Wl,-rpath,{os.path.dirname(library)}" for library in options.library]
        messages = building.messages_of(
            options.compiler, "-std=c++11", "-Wall", "-Wextra", "-Werror", *includes, *building.INPUT,
            *options.library, *run_path, "-o", program, text=example(directory))
        if messages is not None:
            return [messages]
        command = [*options.emulator, program]
        run = subprocess.run(
            command, cwd=directory, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
        if run.returncode != 0 or run.stdout != "":
            return [f"the example ended with {run.returncode}:\n{run.stdout}"]
        return not_published(directory)


def installs(_):
    with tempfile.TemporaryDirectory(prefix="orv_test.") as home:
        sources, project = os.path.join(home, "sources"), os.path.join(home, "project")
        shutil.copytree(orv_test.ROOT, sources, ignore=shutil.ignore_patterns(*NOT_COPIED))
        write(sources, "app.cpp", example(sources))
        write_project(project)
        steps = [(sources, "-S . -B build &&"), (sources, "cmake --install"), (project, "CMAKE_PREFIX_PATH"),
                 (project, "PKG_CONFIG_PATH"), (sources, "install_manifest")]  # fmt: skip
        for directory, holding in steps:
            found = blocks(["README.md"], "sh", holding)
            if len(found) != 1:
                return [f"README.md has {len(found)} blocks with {holding}"]
            type_in(found[0], directory, HOME=home)
        type_in("./app\n", sources)
        if not_published(sources) or not_published(project):
            return not_published(sources) + not_published(project)
        left = [name for _, _, names in os.walk(os.path.join(home, "orv")) for name in names]
        return [f"not uninstalled: {left}"] if left else []


def emulates(options):
    orv_test.require(options.emulator[0])
    with tempfile.TemporaryDirectory(prefix="orv_test.") as directory:
        staging = os.path.join(directory, "staging")
        write_project(os.path.join(directory, "app"))
        os.symlink(os.path.join(orv_test.ROOT, "cmake"), os.path.join(directory, "cmake"))
        type_in(f"cmake --install '{options.build}' --prefix /usr\n", directory, DESTDIR=staging)
        type_in(blocks(["docs", "cross-build.md"], "sh", "$STAGING")[0], directory, STAGING=staging)
        return not_published(os.path.join(directory, "app"))


def main():
    checks = {check.__name__: check for check in (builds_and_runs, installs, emulates)}
    parser = building.parser(__doc__, checks)
    parser.add_argument("--build", help="the build directory, to install")
    options = parser.parse_args()
    building.require_compiler(options)
    orv_test.finish(checks[options.check](options))


if __name__ == "__main__":
    main()
