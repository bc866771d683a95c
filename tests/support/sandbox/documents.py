"""The parts of the documents that tests run."""

import re


def read_section(page, title, level=2):
    """Returns a section of a page, up to the next heading of its level or above.

    A page has one heading of level 1; other lines that look like one are comments in examples.
    """
    mark = "#" * level
    return re.split(rf"\n#{{2,{level}}} ", page.partition(f"\n{mark} {title}\n")[2])[0]


def read_fenced(text):
    """Returns the code blocks between fences."""
    return re.findall(r"^```\w*\n(.*?)^```$", text, re.MULTILINE | re.DOTALL)


def read_indented(text):
    """Returns the indented code blocks, each as a list of lines."""
    return [[line.removeprefix("    ") for line in block.splitlines()]
            for block in re.findall(r"(?<=\n\n)((?:    .*\n)+)", text)]
