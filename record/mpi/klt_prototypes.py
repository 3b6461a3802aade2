"""Reads the prototypes of an installed mpi.h, and the table of calls.

A parameter is a pair of its type, without `const` and with `*` for an array, and its name.
"""

import re
import subprocess

# Conversions of handles, which are macros in some libraries.
LEFT_OUT = re.compile(r"_(c2f|f2c|c2f08|f082c|f082f|f2f08)$")


def without_attributes(text):
    """`text` without __attribute__((...)), whose parentheses may be nested."""
    parts = text.split("__attribute__")
    kept = [parts[0]]
    for part in parts[1:]:
        depth = 0
        for i, c in enumerate(part):
            depth += (c == "(") - (c == ")")
            if depth == 0 and c == ")":
                kept.append(part[i + 1:])
                break
    return " ".join(kept)


def split_list(text):
    """The parts of a list whose commas may be nested in parentheses."""
    parts, depth, start = [], 0, 0
    for i, c in enumerate(text):
        depth += (c == "(") - (c == ")")
        if c == "," and depth == 0:
            parts.append(text[start:i].strip())
            start = i + 1
    parts.append(text[start:].strip())
    return parts


def parameter(text):
    match = re.fullmatch(r"(.*?)\b(\w+)\s*((?:\[\w*\]\s*)*)", text)
    kind = re.sub(r"\bconst\b|\s+", " ", match[1]).replace(" ", "").replace("unsignedlonglong",
                                                                            "unsigned long long")
    return kind + "*" * match[3].count("["), match[2]


def preprocessed(compiler, include):
    source = f"#include <{include}>\n"
    return subprocess.run([*compiler, "-E", "-P", "-x", "c", "-"], input=source, text=True,
                          check=True, capture_output=True).stdout


def prototypes(compiler):
    """By name: (result type, text of the parameters, list of parameters)."""
    text = without_attributes(preprocessed(compiler, "mpi.h")).replace("\n", " ")
    found = {}
    for statement in re.split(r"[;{}]", text):
        match = re.fullmatch(r"\s*(?:extern\s+)?((?:\w+\s+)+\**)(MPI_\w+)\s*\((.*)\)\s*", statement)
        if not match or "typedef" in match[1] or LEFT_OUT.search(match[2]):
            continue
        texts = split_list(re.sub(r"\s+", " ", match[3]))
        if texts == ["void"]:
            texts = []
        if "..." not in texts and not any("(" in one for one in texts):
            found[match[2]] = (match[1].strip(), texts, [parameter(one) for one in texts])
    return found


class Row:
    """A call of the table: its arguments, what is done before and after it, and when it is idle."""

    def __init__(self, name, arguments):
        self.name, self.arguments = name, arguments
        self.actions = {"before": [], "after": [], "failed": [], "idle": []}

    def used(self, when):
        """The arguments that the actions of `when` use."""
        words = set(re.findall(r"\w+", " ".join(self.actions[when])))
        return [name for name in self.arguments if name in words]


def table(path):
    rows = []
    with open(path, encoding="utf-8") as lines:
        for line in lines:
            line = line.split("#")[0].rstrip()
            if not line:
                continue
            if line[0] != " ":
                match = re.fullmatch(r"(\w+)\((.*)\)", line)
                rows.append(Row(match[1], [n for n in match[2].split(", ") if n]))
            else:
                when, action = line.split(None, 1)
                rows[-1].actions[when].append(action)
    return rows
