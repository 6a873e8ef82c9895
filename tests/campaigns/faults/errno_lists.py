#!/usr/bin/env python3
"""Writes the error numbers of each system call that its manual page lists.

usage: errno_lists.py OUTPUT CALL...

One line for each call: its name and its error numbers. EIO is added where a page lacks it: any file system may give it.
"""

import errno
import gzip
import os
import re
import sys

MANUAL = "/usr/share/man/man2"
PACKAGE = "manpages-dev"


def page(call):
    path = os.path.join(MANUAL, call + ".2.gz")
    try:
        with gzip.open(path, "rt", encoding="utf-8") as file:
            text = file.read()
    except OSError as error:
        sys.exit(f"{path}: {error.strerror}: install the Debian package {PACKAGE} (where the system was set up without "
                 f"manual pages, remove the path-exclude of /usr/share/man below /etc/dpkg/dpkg.cfg.d first)")
    other = re.match(r"\.so man2/(\w+)\.2", text)
    return page(other.group(1)) if other else text


def numbers(call):
    section = re.search(r"^\.SH ERRORS\n(.*?)^\.SH ", page(call), re.MULTILINE | re.DOTALL)
    headings = re.findall(r"^\.BR? (.*)$", section.group(1), re.MULTILINE) if section else []
    names = [name for heading in headings if heading.startswith("E") for name in re.findall(r"\bE[A-Z0-9]+\b", heading)]
    found = {getattr(errno, name) for name in names if hasattr(errno, name)}
    if not found:
        sys.exit(f"{call}(2): no error numbers found in its manual page")
    return sorted(found | {errno.EIO})


def main():
    output, *calls = sys.argv[1:]
    lines = [" ".join([call, *map(str, numbers(call))]) for call in calls]
    with open(output, "w", encoding="ascii") as file:
        file.write("\n".join(lines) + "\n")


if __name__ == "__main__":
    main()
