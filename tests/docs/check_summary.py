#!/usr/bin/env python3
"""Reads the expected summary files by the tables of docs/summary.md.

usage: check_summary.py SOURCE_ROOT

Offsets have to follow from the types, and every file has to be used up by as many records as its
header says.
"""

import pathlib
import re
import struct
import sys

CODES = {"u32": "I", "u64": "Q", "i64": "q", "f64": "d"}


def tables_in(document):
    """A structure for each table, by its name."""
    tables = {}
    for name, rows in re.findall(r"^### Table: (\w+)\n\n((?:\|.*\n)+)", document, re.MULTILINE):
        shape = "="
        for offset, kind in re.findall(r"^\| (\d+) \| (\w+) \|", rows, re.MULTILINE):
            if struct.calcsize(shape) != int(offset):
                raise ValueError(f"{name}: offset {offset} should be {struct.calcsize(shape)}")
            shape += CODES[kind]
        tables[name] = struct.Struct(shape)
    return tables


class Reader:
    def __init__(self, data, tables):
        self.data, self.tables, self.at = data, tables, 0

    def take(self, name):
        shape = self.tables[name]
        values = shape.unpack_from(self.data, self.at)
        self.at += shape.size
        return values

    def skip(self, count):
        self.at += count

    def text(self):
        (length,) = struct.unpack_from("=I", self.data, self.at)
        self.skip(4 + length)

    def calls(self):
        nodes = [self.take("node") for _ in range(self.take("thread")[4])]
        for place, node in enumerate(nodes):
            children, ahead, back = node[6], node[7], node[9]
            if (children == 0) != (ahead == 0) or back > place or place + ahead >= len(nodes):
                raise ValueError(f"node {place} of {len(nodes)} is linked as {node}")
            if ahead and nodes[place + ahead][9] != ahead:
                raise ValueError(f"node {place} isn't the parent of its first child")

    def operation(self):
        for _ in range(self.take("operation")[5]):
            self.take("member")

    def report(self):
        entries = self.take("report")[2]
        for _ in range(3):
            self.text()
        self.skip(12 * entries)
        for _ in range(entries):
            self.text()
        self.skip(4 * entries)
        for _ in range(entries):
            self.text()
        self.skip(4 * entries)


def check(path, tables):
    """The number of records of a file."""
    reader = Reader(path.read_bytes(), tables)
    version, _, count = reader.take("header")
    if version != 1:
        raise ValueError(f"version {version}")
    record = {"fnc": reader.calls, "cop": reader.operation, "rep": reader.report,
              "msg": lambda: reader.take("message"), "cnt": lambda: reader.take("counter")}
    for _ in range(count):
        record[path.suffix[1:]]()
    if reader.at != len(reader.data):
        raise ValueError(f"{count} records end at {reader.at} of {len(reader.data)} bytes")
    return count


def main():
    root = pathlib.Path(sys.argv[1])
    tables = tables_in((root / "docs" / "summary.md").read_text(encoding="utf-8"))
    records, failed = {}, 0
    for path in sorted((root / "tests" / "data").glob("*/expected.sum.*")):
        try:
            kind = path.suffix[1:]
            records[kind] = records.get(kind, 0) + check(path, tables)
        except (ValueError, struct.error) as error:
            failed += 1
            print(f"{path.relative_to(root)}: {error}")
    print(f"records read: {records}, {failed} files wrong")
    return 1 if failed or not all(records.get(kind) for kind in ("fnc", "cop", "msg", "cnt", "rep")) else 0


if __name__ == "__main__":
    sys.exit(main())
