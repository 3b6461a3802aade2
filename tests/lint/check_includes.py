#!/usr/bin/env python3
"""Checks the direction of includes: util <- klt <- generic, and that headers have one root form.

usage: check_includes.py SOURCE_ROOT
"""

import pathlib
import re
import sys

# What a folder may not include.
FORBIDDEN = {"util": ("klt", "generic", "tests"), "klt": ("generic", "tests"), "generic": ("tests",)}
INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]')
MODULES = ("util", "klt", "generic", "tests")
GENERATED = ("klt_version.h",)


def problems_of(root, folder, path):
    lines = path.read_text(encoding="utf-8").splitlines()
    if path.suffix == ".h" and not any(line.strip() == "#pragma once" for line in lines):
        yield f"{path.relative_to(root)}: header without #pragma once"
    for number, line in enumerate(lines, 1):
        match = INCLUDE.match(line)
        if not match:
            continue
        quote, target = match.groups()
        where = f"{path.relative_to(root)}:{number}"
        first = target.split("/")[0]
        if quote == '"' and first not in MODULES + GENERATED:
            yield f"{where}: write includes from the root, not \"{target}\""
        if first in FORBIDDEN.get(folder, ()):
            yield f"{where}: {folder} must not include {target}"


def main():
    root = pathlib.Path(sys.argv[1])
    found, checked = [], 0
    for folder in FORBIDDEN:
        for path in sorted((root / folder).rglob("*")):
            if path.suffix in (".h", ".cpp"):
                checked += 1
                found += problems_of(root, folder, path)
    print("\n".join(found) if found else f"{checked} files, all includes in order")
    return 1 if found or not checked else 0


if __name__ == "__main__":
    sys.exit(main())
