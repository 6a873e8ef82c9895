#!/usr/bin/env python3
"""Compares a header with its reviewed list, which is the header without comments.

  declarations_test.py HEADER SOURCE LIST

The name of a symbol does not contain the type of a result, a default argument or a typedef; the header does. The source
must let the compiler compare its definitions with the header, so that the header is true of the library.
"""

import argparse
import difflib
import os
import re

import orv_test


def statements(text):
    """Returns the statements and directives of a header, without lines of comments and with single blanks."""
    code = [line for line in text.splitlines() if not line.lstrip().startswith("//")]
    return re.split(r"(?<=[;{}]) | (?=#)", " ".join(" ".join(code).split()))


def declarations(header, reviewed):
    """Returns the problems: the statements that are not the same in both texts."""
    both = statements(reviewed), statements(header)
    return list(difflib.unified_diff(*both, "reviewed", "declared", lineterm="", n=0))


def definitions(source, header_name):
    """Returns what keeps the compiler from comparing a definition with its declaration in the header."""
    problems = []
    if re.findall(r"(?m)^[ \t]*#.*", source)[:1] != [f'#include "{header_name}"']:
        problems.append(f"the source does not include {header_name} first")
    spelled = re.findall(r"\basm\b|__asm\w*|\b_Z\w+", source)
    return problems + [f"the source chooses the name of a symbol: {word}" for word in spelled]


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("header")
    parser.add_argument("source")
    parser.add_argument("list")
    options = parser.parse_args()
    problems = declarations(orv_test.read(options.header), orv_test.read(options.list))
    problems += definitions(orv_test.read(options.source), os.path.basename(options.header))
    orv_test.finish(problems)


if __name__ == "__main__":
    main()
