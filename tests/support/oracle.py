"""The expected results of tests/support/oracle.h and messages.h, from the file that orv_oracle has written."""

import collections
import json
import os
import re
import types

with open(os.environ["ORV_ORACLE"], encoding="utf-8") as _file:
    _ORACLE = json.load(_file)

SEVERITY = _ORACLE["severity"]
SOURCE = _ORACLE["source"]
ANY_SUFFIX = _ORACLE["any_suffix"]  # in an expected path: matches what mkstemp puts in place of "_XXXXXX"
PAGE_HEADER = _ORACLE["page_header"].encode()
PAGE_FOOTER = _ORACLE["page_footer"].encode()

Report = collections.namedtuple("Report", "format text")


class Message:
    """A line that the library writes."""

    def __init__(self, function, form):
        self.function, self.format = function, form

    def __call__(self, *arguments):
        """Returns the line with these arguments after the name of the function."""
        return Report(self.format, self.format.replace("%zi", "%i") % (self.function, *arguments))

    def pattern(self, *patterns):
        """Returns a regular expression for lines whose arguments match these."""
        texts = [re.escape(text) for text in re.split(r"%0?\d*z?[a-z]", self.format)]
        return texts[0] + "".join(a + b for a, b in zip((self.function, *patterns), texts[1:]))


LINES = types.SimpleNamespace(**{name: Message(*message) for name, message in _ORACLE["messages"].items()})


def is_like(expected, text):
    """Returns whether the text is the expected one, in which ANY_SUFFIX matches any name of a temporary file."""
    return re.fullmatch(re.escape(expected).replace(re.escape(ANY_SUFFIX), "_[A-Za-z0-9]{6}"), text) is not None


def temporary_page(process):
    """Returns the path of the temporary page of a process."""
    return _ORACLE["temporary_page_of_1"].replace("_1.", f"_{process}.")


def logged(*reports):
    """Returns these lines as DlogStderr writes them."""
    return "".join(f"[{SEVERITY}] {SOURCE}: {report.text}\n" for report in reports)
