#!/usr/bin/env python3
"""Builds the first C++ example of the README against the libraries and runs it.

  readme_test.py builds_and_runs
"""

import os
import re
import subprocess
import tempfile

import building
import orv_test


def builds_and_runs(options):
    example = re.search(r"^```cpp\n(.*?)^```$", orv_test.read("README.md"), re.M | re.S)
    if example is None:
        return ["README.md has no example between ```cpp and ```"]
    with tempfile.TemporaryDirectory() as directory:
        program = os.path.join(directory, "example")
        includes = [f"-I{os.path.join(orv_test.ROOT, folder)}" for folder in ("include", "dlog")]
        run_path = [f"-Wl,-rpath,{os.path.dirname(library)}" for library in options.library]
        messages = building.messages_of(
            options.compiler, "-std=c++11", "-Wall", "-Wextra", "-Werror", *includes, *building.INPUT,
            *options.library, *run_path, "-o", program, text=example[1])
        if messages is not None:
            return [messages]
        command = [*options.emulator, program]
        run = subprocess.run(
            command, cwd=directory, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
        return [] if run.returncode == 0 else [f"the example ended with {run.returncode}:\n{run.stdout}"]


def main():
    options = building.parser(__doc__, ["builds_and_runs"]).parse_args()
    building.require_compiler(options)
    orv_test.finish(builds_and_runs(options))


if __name__ == "__main__":
    main()
