#!/usr/bin/env python3
"""Checks that what the documents point to is there.

usage: check_links.py SOURCE_ROOT

Links to files and to headings of README.md and docs/*.md, and every name of a file in the source
folders that they mention.
"""

import pathlib
import re
import sys

LINK = re.compile(r"\[[^\]]*\]\(([^)\s]+)\)")
SOURCE = re.compile(r"(?<![\w./])((?:util|klt|generic|tests|scripts|examples)/[\w./-]*[\w/])")


def anchors_of(text):
    """The anchors that headings get on the web."""
    headings = re.findall(r"^#+ (.*)$", re.sub(r"^```.*?^```", "", text, flags=re.M | re.S), re.M)
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings}


def problems_of(root, path):
    text = path.read_text(encoding="utf-8")
    for target in LINK.findall(text):
        if re.match(r"[a-z]+:", target):
            continue
        name, _, anchor = target.partition("#")
        file = path.parent / name if name else path
        if not file.exists():
            yield f"link to {target}, which isn't there"
        elif anchor and anchor not in anchors_of(file.read_text(encoding="utf-8")):
            yield f"link to {target}, but no such heading"
    for name in SOURCE.findall(text):
        if not (root / name).exists():
            yield f"names {name}, which isn't there"


def main():
    root = pathlib.Path(sys.argv[1])
    documents = [root / "README.md", *sorted((root / "docs").glob("*.md"))]
    problems = [f"{path.relative_to(root)}: {problem}"
                for path in documents for problem in problems_of(root, path)]
    print("\n".join(problems) if problems else f"{len(documents)} documents, all links lead somewhere")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
