#!/usr/bin/env python3
"""Checks the manual pages.

  man_test.py lint               mandoc reports nothing
  man_test.py declarations       each synopsis declares what the headers declare
  man_test.py aliases            each function has a page that refers to that of its family; all pages are installed
  man_test.py sections           each page has the sections that readers look for
  man_test.py library            each page of section 3 says what to link, including the log
  man_test.py diagnostics        each line in the header is on the page of its function
  man_test.py references         pages of this project that other pages refer to exist
  man_test.py function_examples  each example of section 3 compiles and runs
  man_test.py tool_options       orvfile.1 and orvfile --help list the same options for each command
  man_test.py tool_examples      each example of sections 1 and 5 prints what it says
"""

import os
import re
import shlex
import subprocess
import tempfile

import building
import orv_test

MAN = os.path.join(orv_test.ROOT, "man")
HEADERS = {  # as programs include them: the file, and its namespace
    "LxFileUtils.h": ("include/LxFileUtils.h", "orv_fileutils"),
    "LxStringUtils.h": ("strutils/LxStringUtils.h", "LxStringUtils"),
    "orv/safe.h": ("safe/safe.h", "orv_safe"),
}
COMMANDS = ["exists", "move", "copy", "mkdir", "list", "row", "page", "get", "set", "unset", "explain",
            "completion"]


def pages(pattern):
    """Returns the pages whose names match, without those that only refer to another page."""
    return [name for name in sorted(os.listdir(MAN)) if re.fullmatch(pattern, name) and name.startswith("orv") and "::" not in name]


def source(page):
    return orv_test.read("man", page)


def plain(text):
    """Returns the text of a page as its reader sees it."""
    for escape, character in ((r"\e", "\\"), (r"\&", ""), (r"\-", "-"), (r"\N'44'", ","), (r"\(dq", '"')):
        text = text.replace(escape, character)
    return text


def section(page, name):
    found = re.search(rf"(?ms)^\.Sh {name}\n(.*?)(?=^\.Sh |\Z)", source(page))
    return found[1] if found else None


def lint(_):
    orv_test.require("mandoc")
    names = pages(r".*\.[135]")
    run = subprocess.run(["mandoc", "-T", "lint", "-W", "all", *names], cwd=MAN, stdout=subprocess.PIPE,
                         stderr=subprocess.STDOUT, text=True, check=False)  # fmt: skip
    # Which other manual pages this machine has does not matter.
    others = re.compile(r"outdated mandoc\.db|mandoc\.db: No such file|referenced manual not found")
    found = [line for line in run.stdout.splitlines() if not others.search(line)]
    return found if len(names) == 10 else [f"{len(names)} pages instead of 10"]


def normal(declaration):
    return re.sub(r"\s*([(),])\s*", r"\1", " ".join(declaration.split()))


def declared(header):
    """Returns the declarations of a header, with qualified names."""
    path, scope = HEADERS[header]
    functions = orv_test.declarations(path)
    return [normal(re.sub(r"(\w+)\(", rf"{scope}::\1(", one, count=1)) for one in functions]


def synopsis(page):
    """Returns the declarations in the synopsis of a page."""
    functions = []
    for line in section(page, "SYNOPSIS").splitlines():
        macro, _, rest = line.partition(" ")
        if macro == ".Ft":
            result = rest
        elif macro == ".Fn":
            functions.append(normal(f"{result} {rest}()"))
        elif macro == ".Fo":
            name, arguments = rest, []
        elif macro == ".Fa":
            arguments.append(plain(rest.strip('"')))
        elif macro == ".Fc":
            functions.append(normal(f"{result} {name}({','.join(arguments)})"))
    return functions


def header_of(page):
    return re.search(r"(?m)^\.In (\S+)$", section(page, "SYNOPSIS"))[1]


def declarations(_):
    problems = []
    found = {header: [] for header in HEADERS}
    for page in pages(r".*\.3"):
        found[header_of(page)] += synopsis(page)
    for header, functions in found.items():
        for missing in sorted(set(declared(header)) ^ set(functions)):
            problems.append(f"{header} and the pages differ about: {missing}")
        if not functions or len(functions) != len(set(functions)):
            problems.append(f"{header}: {len(functions)} functions on the pages, or one twice")
    return problems


def function_names(page):
    """Returns the names of its functions, qualified if they are too general without that."""
    names = [re.search(r"([\w:]+)\(", declaration)[1] for declaration in synopsis(page)]
    return list(dict.fromkeys(name.replace("orv_fileutils::", "") for name in names))  # overloads share a name


def aliases(_):
    problems = []
    expected = set(pages(r".*\.[135]"))
    for page in pages(r".*\.3"):
        named = re.findall(r"(?m)^\.Nm (\w+)", section(page, "NAME"))
        if named != [name.split("::")[-1] for name in function_names(page)]:
            problems.append(f"{page}: NAME has {named}, SYNOPSIS {function_names(page)}")
        for name in function_names(page):
            expected.add(name + ".3")
            alias = os.path.join(MAN, name + ".3")
            if not os.path.exists(alias) or source(name + ".3") != f".so man3/{page}\n":
                problems.append(f"{name}.3 does not lead to {page}")
    present = {name for name in os.listdir(MAN) if re.search(r"\.\d$", name)}
    installed = set(re.findall(r"[\w:-]+\.[135](?=[\s)])", source("CMakeLists.txt")))
    problems += [f"{name} is one page too many" for name in sorted(present - expected)]
    problems += [f"{name}: there or installed, but not both" for name in sorted(present ^ installed)]
    return problems


def sections(_):
    problems = []
    for pattern, wanted in (
        (r".*\.1", ["SYNOPSIS", "EXIT STATUS", "EXAMPLES", "SEE ALSO", "CAVEATS"]),
        (r".*\.3", ["SYNOPSIS", "RETURN VALUES", "EXAMPLES", "DIAGNOSTICS", "SEE ALSO", "CAVEATS"]),
        (r".*\.5", ["EXAMPLES", "SEE ALSO", "CAVEATS"]),
    ):
        for page in pages(pattern):
            problems += [f"{page} has no section {name}" for name in wanted if not section(page, name)]
    return problems


def library(_):
    """What each page of section 3 says about linking."""
    logs = re.findall(r"(?m)^orv_add_dlog\((\w+)", orv_test.read("CMakeLists.txt"))
    expected = {"LxFileUtils.h": {"OrvFileUtils", *logs}, "LxStringUtils.h": {"OrvStrUtils"},
                "orv/safe.h": {"OrvSafe", "OrvFileUtils", *logs}}  # fmt: skip
    problems = [] if len(logs) == 3 else [f"substitutes for the log: {logs}"]
    for page in pages(r".*\.3"):
        named = set(re.findall(r"(?<=Fl l)\w+", section(page, "LIBRARY") or ""))
        if named != expected[header_of(page)]:
            problems.append(f"{page}: LIBRARY names {sorted(named)} instead of {sorted(expected[header_of(page)])}")
    return problems


def diagnostics(_):
    problems = []
    for header, (path, _) in HEADERS.items():
        lines = re.findall(r'(?m)^///.*?"([A-Z]\w+: .*?)"(?=\s{2,}|$)', orv_test.read(path))
        on_pages = []
        for page in pages(r".*\.3"):
            if header_of(page) == header:
                on_pages += re.findall(r'(?m)^\.It "(.*)"$', plain(section(page, "DIAGNOSTICS")))
        problems += [f"{path} and the pages differ about: {line}" for line in sorted(set(lines) ^ set(on_pages))]
        if header != "LxStringUtils.h" and len(lines) < 12:
            problems.append(f"only {len(lines)} lines found in {path}")
    for page in pages(r".*\.3"):
        functions = [name.split("::")[-1] for name in function_names(page)]
        for function in re.findall(r'(?m)^\.It "(\w+):', plain(section(page, "DIAGNOSTICS"))):
            if function not in functions:
                problems.append(f"{page} has a line of {function}")
    return problems


def references(_):
    present = set(os.listdir(MAN))
    own = {name.rsplit(".", 1)[0] for name in present}
    problems = []
    for page in pages(r".*\.[135]"):
        for name, number in re.findall(r"(?m)^\.Xr (\S+) (\d)", source(page)):
            if (name in own or name.startswith("orv")) and f"{name}.{number}" not in present:
                problems.append(f"{page} refers to {name}({number}), which is not there")
    return problems


def examples(page):
    return [plain(text) for text in re.findall(r"(?ms)^\.Bd -literal.*?\n(.*?)^\.Ed$", section(page, "EXAMPLES"))]


def run_function_example(options, code, directory):
    program = os.path.join(directory, "example")
    includes = [f"-I{os.path.join(orv_test.ROOT, folder)}" for folder in ("include", "strutils")]
    includes.append(f"-I{directory}")  # for orv/safe.h
    os.symlink(os.path.join(orv_test.ROOT, "safe"), os.path.join(directory, "orv"))
    run_path = [f"-Wl,-rpath,{os.path.dirname(library)}" for library in options.library]
    messages = building.messages_of(
        options.compiler, "-std=c++11", "-Wall", "-Wextra", "-Wpedantic", "-Werror", *includes, *building.INPUT,
        *options.library, *run_path, "-o", program, text=code.replace("/var/tmp/orv-example", directory))
    if messages is not None:
        return messages
    run = subprocess.run([*options.emulator, program], cwd=directory, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                         text=True, check=False)  # fmt: skip
    return None if run.returncode == 0 and not run.stdout else f"ended with {run.returncode}:\n{run.stdout}"


def function_examples(options):
    building.require_compiler(options)
    problems = []
    for page in pages(r".*\.3"):
        called = "".join(examples(page))
        problems += [f"{page}: no example calls {name}" for name in function_names(page) if name + "(" not in called]
        for code in examples(page):
            with tempfile.TemporaryDirectory(dir="/var/tmp") as directory:
                message = run_function_example(options, code, directory)
            if message is not None:
                problems.append(f"{page}: an example {message}\n{code}")
    return problems


def tool_options(options):
    problems = []
    for command in ["", *COMMANDS]:
        run = subprocess.run([*options.emulator, options.tool, *filter(None, [command]), "--help"],
                             stdout=subprocess.PIPE, text=True, check=True)  # fmt: skip
        helped = set(re.findall(r"(?m)^  (-\S+)", re.search(r"\nOptions:\n((?:  .*\n)+)", run.stdout)[1]))
        description = section("orvfile.1", "DESCRIPTION")
        part = re.search(rf"(?ms)^\.Ss {command}\n(.*?)(?=^\.Ss |\Z)", description)[1] if command else (
            description.split("\n.Ss ")[0])  # fmt: skip
        named = set()
        for item in re.findall(r"(?m)^\.It (Fl .*)$", part):
            item = re.sub(r" Ar \w+", "", item).replace("Fl Fl ", "--").replace("Fl ", "-").replace(" , ", ",")
            named.add(item)
        if command:
            helped -= {"-h,--help", "-q,--quiet", "--syslog"}  # described once, for all commands
        problems += [f"orvfile.1 and orvfile {command} --help differ about {name}" for name in sorted(helped ^ named)]
    return problems


def transcript(text):
    """Returns the commands of an example, each with the output that it shows."""
    steps = []
    for line in text.splitlines():
        if line.startswith("$ "):
            steps.append([line[2:] + "\n", ""])
        elif line.startswith("> "):
            steps[-1][0] += line[2:] + "\n"
        else:
            steps[-1][1] += line + "\n"
    return steps


def run_tool_example(options, text, directory):
    """Runs the commands of an example in one shell. Returns the differences from the output that it shows."""
    bin_directory = os.path.join(directory, "bin")
    work = os.path.join(directory, "work")
    os.mkdir(bin_directory)
    os.mkdir(work)
    with open(os.path.join(bin_directory, "orvfile"), "w", encoding="utf-8") as file:
        file.write(f'#!/bin/sh\nexec {shlex.join([*options.emulator, options.tool])} "$@"\n')
    os.chmod(file.name, 0o755)
    environment = {**os.environ, "PATH": bin_directory + ":" + os.environ["PATH"], "LC_ALL": "C"}
    mark = "--- next ---\n"
    steps = transcript(text)
    script = "".join(f"{command}echo '{mark[:-1]}'\n" for command, _ in steps)
    run = subprocess.run(["bash"], cwd=work, env=environment, input=script, stdout=subprocess.PIPE,
                         stderr=subprocess.STDOUT, text=True, check=False)  # fmt: skip
    outputs = run.stdout.split(mark)[:-1]
    if len(outputs) != len(steps):
        return [f"the example ended early:\n{run.stdout}"]
    return [f"{command}prints\n{out}instead of\n{shown}" for (command, shown), out in zip(steps, outputs) if out != shown]


def tool_examples(options):
    problems = []
    for page in pages(r".*\.[15]"):
        for text in examples(page):
            with tempfile.TemporaryDirectory(dir="/var/tmp") as directory:
                problems += [f"{page}: {problem}" for problem in run_tool_example(options, text, directory)]
        if not examples(page):
            problems.append(f"{page} has no example")
    shown = "".join(text for page in pages(r".*\.[15]") for text in examples(page))
    problems += [f"no example of orvfile {name}" for name in COMMANDS if f"orvfile {name}" not in shown]
    return problems


CHECKS = [lint, declarations, aliases, sections, library, diagnostics, references, function_examples, tool_options,
          tool_examples]  # fmt: skip


def main():
    by_name = {check.__name__: check for check in CHECKS}
    parser = building.parser(__doc__, by_name)
    parser.add_argument("--tool", help="the program orvfile")
    options = parser.parse_args()
    orv_test.finish(by_name[options.check](options))


if __name__ == "__main__":
    main()
