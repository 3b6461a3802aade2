#!/usr/bin/env python3
"""Compares the documents with what they describe.

usage: check_docs.py SOURCE PROGRAM
"""

import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile


class Document:
    """The parts of a file in Markdown."""

    def __init__(self, path):
        self.text = path.read_text(encoding="utf-8")

    def lines_of(self, language):
        """The lines of all blocks in a language."""
        blocks = re.findall(rf"^```{language}\n(.*?)^```", self.text, re.M | re.S)
        return [line for block in blocks for line in block.splitlines()]

    def anchors(self):
        """The anchors of headings, as web pages name them."""
        prose = re.sub(r"^```.*?^```", "", self.text, flags=re.M | re.S)
        return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-")
                for heading in re.findall(r"^#+ (.*)$", prose, re.M)}


def check_links(root, _):
    """Linked files and headings exist, and so do files of the source tree that are named."""
    source = re.compile(r"(?<![\w./])((?:util|klt|generic|record|tests|scripts|examples|tools|fuzz)"
                        r"/[\w./-]*[\w/])")
    for path in (*root.glob("*.md"), *(root / "docs").glob("*.md")):
        text = Document(path).text
        for target in re.findall(r"\[[^\]]*\]\((?![a-z]+:)([^)\s]+)\)", text):
            name, _, anchor = target.partition("#")
            file = path.parent / name if name else path
            if not file.exists() or anchor and anchor not in Document(file).anchors():
                yield f"{path.name} links to {target}, which isn't there"
        for name in source.findall(text):
            if not (root / name).exists():
                yield f"{path.name} names {name}, which isn't there"


def check_readme(root, program):
    """The examples' commands, run in order, print what is shown; "..." stands for any lines."""
    examples = []
    for line in Document(root / "README.md").lines_of("console"):
        if line.startswith("$ "):
            examples.append((line[2:], []))
        else:
            examples[-1][1].append(r"(?:.*\n)*" if line == "..." else re.escape(line) + "\n")
    if len(examples) < 5:
        yield f"only {len(examples)} examples"
    with tempfile.TemporaryDirectory() as directory:
        place = pathlib.Path(directory)
        (place / "bin").mkdir()
        (place / "bin/klttool").symlink_to(program)
        for tool in (root / "tools").glob("klt-*"):
            (place / "bin" / tool.name).symlink_to(tool)
        shutil.copytree(root / "examples", place / "examples")
        environment = {"PATH": f"{place / 'bin'}:{os.environ['PATH']}", "LC_ALL": "C"}
        for command, shown in examples:
            done = subprocess.run(["sh", "-c", command], cwd=place, env=environment, text=True,
                                  stdin=subprocess.DEVNULL, capture_output=True, check=False)
            output = re.sub(r"[\r\n]+", "\n", done.stdout)
            if done.returncode != 0 or not re.fullmatch("".join(shown), output):
                yield f"$ {command}\nstatus {done.returncode}, not as shown:\n{output[-1500:]}"


def pattern_of(form):
    """The regular expression of a form of a line."""
    types = {"": r"-?\d+", "real": r"-?(?:\d[\d.]*(?:[Ee][+-]\d+)?|INF|NAN|inf|nan)",
             "text": r".*", "hex": r"(?:[0-9A-F]{2})*"}
    brackets = {"[": "(?:", "]": ")?", "{": "(?:", "}": ")*", "(": "(?:", ")": ")", "|": "|"}
    tokens = re.findall(r"<[^:>]+(?::(\w+))?>|([][{}()|])|([^][{}()|<]+)", form)
    return re.compile("".join(brackets[bracket] if bracket else re.escape(literal) or types[kind]
                              for kind, bracket, literal in tokens))


def check_rkf(root, _):
    """Each line of a sample's text matches one form of docs/rkf.md, and each form occurs."""
    forms = {form: pattern_of(form) for form in Document(root / "docs/rkf.md").lines_of("rkf")}
    used = set()
    for kind in ("dump", "matched", "noext", "request.*"):
        for path in (root / "tests/data").glob(f"*/expected.{kind}"):
            for line in set(path.read_bytes().split(b"\n")[:-1]):
                text = line.decode("utf-8", errors="surrogateescape")
                fitting = [form for form, pattern in forms.items() if pattern.fullmatch(text)]
                used.update(fitting)
                if len(fitting) != 1:
                    yield f"{path.parent.name}: {len(fitting)} forms fit {text!r}"
    yield from (f"no sample has the form {form}" for form in forms.keys() - used)
    if not forms:
        yield "docs/rkf.md has no forms"


def main():
    root, program = (pathlib.Path(argument).resolve() for argument in sys.argv[1:])
    problems = [problem for check in (check_links, check_readme, check_rkf)
                for problem in check(root, program)]
    print("\n".join(problems[:50]))
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
