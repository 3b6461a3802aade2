#!/usr/bin/env python3
"""Holds the text of the sample traces against the forms of docs/rkf.md.

usage: check_rkf.py SOURCE_ROOT

Every line of every expected text has to have one of the forms in the document, and every form has to
occur, so that the document neither lacks a line nor describes one that isn't written.
"""

import pathlib
import re
import sys

TYPES = {
    "": r"-?\d+",
    "real": r"-?(?:\d[\d.]*(?:[Ee][+-]\d+)?|INF|NAN|inf|nan)",
    "text": r".*",
    "hex": r"(?:[0-9A-F]{2})*",
}
BRACKETS = {"[": "(?:", "]": ")?", "{": "(?:", "}": ")*", "(": "(?:", ")": ")", "|": "|"}
TOKEN = re.compile(r"<([^:>]+)(?::(\w+))?>|([][{}()|])|([^][{}()|<]+)")


def pattern_of(form):
    """The regular expression of a form."""
    parts, at = [], 0
    while at < len(form):
        match = TOKEN.match(form, at)
        if not match:
            raise ValueError(f"can't read the form {form!r} from {form[at:]!r}")
        _, kind, bracket, literal = match.groups()
        if bracket:
            parts.append(BRACKETS[bracket])
        elif literal:
            parts.append(re.escape(literal))
        else:
            parts.append(TYPES[kind or ""])
        at = match.end()
    return re.compile("".join(parts))


def forms_in(document):
    blocks = re.findall(r"^```rkf\n(.*?)^```", document, re.MULTILINE | re.DOTALL)
    return [line for block in blocks for line in block.splitlines()]


def main():
    root = pathlib.Path(sys.argv[1])
    document = (root / "docs" / "rkf.md").read_text(encoding="utf-8")
    forms = {form: pattern_of(form) for form in forms_in(document)}
    used, problems, lines = set(), [], 0
    texts = [path for kind in ("dump", "matched", "noext", "request.*")
             for path in sorted((root / "tests" / "data").glob(f"*/expected.{kind}"))]
    for path in texts:
        for number, line in enumerate(path.read_bytes().split(b"\n")[:-1], 1):
            text = line.decode("utf-8", errors="surrogateescape")
            fitting = [form for form, pattern in forms.items() if pattern.fullmatch(text)]
            used.update(fitting)
            lines += 1
            if len(fitting) != 1:
                problems.append(f"{path.relative_to(root)}:{number}: {len(fitting)} forms fit {text!r}")
    problems += [f"no sample has the form {form}" for form in forms if form not in used]
    print("\n".join(problems[:50]))
    print(f"{lines} lines, {len(forms)} forms, {len(problems)} problems")
    return 1 if problems or not lines or not forms else 0


if __name__ == "__main__":
    sys.exit(main())
