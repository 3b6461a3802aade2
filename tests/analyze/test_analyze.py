#!/usr/bin/env python3
"""Tests klt-analyze and klt-timeline: against a second computation, in all formats, and on failures.

usage: test_analyze.py [-v] [CASE]     KLTTOOL, KLT_ANALYZE, KLT_TIMELINE: the programs
"""

import base64
import collections
import csv
import io
import json
import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest
import zlib

import second_look

ROOT = pathlib.Path(__file__).resolve().parents[2]
HPCC, RING = ROOT / "examples/hpcc.klt", ROOT / "examples/ring.klt"
SAMPLES = [HPCC, RING] + [ROOT / "tests/data" / name / "t.klt" for name in (
    "dense", "evbits13", "bigdelta", "collops", "ring_sklt")]
WINDOWS = ("0.1735s:0.1752s", "0.1768s:0.1771s", "0.17s:0.1726s", "0.1799s:0.19s")


def run(program, *words, status=0, directory=None):
    """Standard output and error of a program."""
    done = subprocess.run([os.environ[program], *map(str, words)], capture_output=True, check=False,
                          cwd=directory, stdin=subprocess.DEVNULL, timeout=120)
    if done.returncode != status:
        raise AssertionError(f"{words}: status {done.returncode}, not {status}: {done.stderr}")
    return done.stdout.decode(), done.stderr.decode()


def table(*words):
    """The rows of a table."""
    return list(csv.DictReader(io.StringIO(run("KLT_ANALYZE", *words, "--format", "csv")[0])))


def text_of(trace, *words):
    """The trace as text, and read from it."""
    lines = run("KLTTOOL", trace, "--dump", "--matched-rkf", "--verbose", "0", *words)[0]
    return second_look.Trace(lines.splitlines())


def page_data(page):
    """The JSON and the columns of a page."""
    text = re.search(r'<script id="data"[^>]*>([^<]*)</script>', page)[1]
    plain = zlib.decompress(base64.b64decode(text))
    size = int.from_bytes(plain[:4], "little")
    return json.loads(plain[4:4 + size])


class SecondLook(unittest.TestCase):
    """The tables are those of the second computation, to the tick."""

    def ticks(self, seconds, trace):
        exact = float(seconds) / trace.resolution
        self.assertAlmostEqual(exact, round(exact), delta=0.45)
        return round(exact)

    def check_functions(self, source, words, trace, span):
        rows = table(source, "functions", *words)
        threads = [t for t in trace.calls if trace.calls[t]]
        own, inclusive, calls = collections.Counter(), collections.Counter(), collections.Counter()
        for (thread, function), ticks in trace.own.items():
            own[trace.names[function]] += ticks
        for (thread, function), ticks in trace.inclusive.items():
            inclusive[trace.names[function]] += ticks
        for function, count in trace.count.items():
            calls[trace.names[function]] += count
        found = {row["function"]: row for row in rows if row["function"] != "(no call)"}
        self.assertEqual(set(found), set(calls))
        for name, row in found.items():
            got = (self.ticks(row["exclusive_s"], trace), self.ticks(row["inclusive_s"], trace),
                   int(row["calls"]))
            if words:  # in a window the text begins calls again that are open at its start
                got = got[:2] + (calls[name],)
            self.assertEqual(got, (own[name], inclusive[name], calls[name]), (source, name))
        total = sum(self.ticks(row["exclusive_s"], trace) for row in rows)
        if len(found) == len(trace.count):
            count = int(dict((r["item"], r["value"]) for r in table(source, *words))["threads"])
            if not words:
                self.assertEqual(count, len(threads))
            self.assertEqual(total, count * (span[1] - span[0]), source)

    def check_messages(self, source, words, trace):
        pairs = collections.defaultdict(list)
        for m in trace.messages:
            pairs[second_look.label(m.sender), second_look.label(m.receiver)].append(m)
        rows = table(source, "messages", *words)
        self.assertEqual({(r["sender"], r["receiver"]) for r in rows}, set(pairs), source)
        for row in rows:
            messages = pairs[row["sender"], row["receiver"]]
            timed = [m.received - m.sent for m in messages if m.received >= m.sent]
            self.assertEqual((int(row["count"]), int(row["bytes"])),
                             (len(messages), sum(m.size for m in messages)))
            self.assertEqual(self.ticks(row["max_s"], trace), max(timed, default=0))
            if timed:
                self.assertAlmostEqual(float(row["mean_s"]) / trace.resolution,
                                       sum(timed) / len(timed), delta=1 + 1e-7 * sum(timed))

    def check_waits(self, source, words, trace, window):
        expected = second_look.Waits(trace, window).rows
        found = collections.Counter()
        for row in table(source, "waits", *words):
            key = row["kind"], row["process"], row["function"], row["caused_by"]
            found[key] += self.ticks(row["seconds"], trace)
        self.assertEqual(found, expected, source)

    def test_samples(self):
        for source in SAMPLES:
            trace = text_of(source)
            self.check_functions(source, (), trace, trace.span)
            self.check_messages(source, (), trace)
            if "collops" not in str(source):  # its records and definitions have different patterns
                self.check_waits(source, (), trace, (0, 2 ** 64))

    def test_sums(self):
        """In every sample the exclusive times add up to the span of all threads."""
        for source in sorted((ROOT / "tests/data").glob("*/t.klt")):
            items = {row["item"]: float(row["value"]) for row in table(source)}
            rows = table(source, "functions")
            digits = len(rows[0]["exclusive_s"].partition(".")[2])
            self.assertAlmostEqual(sum(float(row["exclusive_s"]) for row in rows),
                                   items["span_s"] * items["threads"],
                                   delta=(len(rows) + items["threads"]) * 10.0 ** -digits)

    def test_windows(self):
        for window in WINDOWS:
            trace = text_of(HPCC, "--request", window)
            ticks = [int(float(t[:-1]) * (1 / (trace.resolution * 2 ** trace.bits))) << trace.bits
                     for t in window.split(":")]
            end = min(ticks[1], 2846420672512)
            self.check_functions(HPCC, ("--window", window), trace, (ticks[0], end))
            self.check_waits(HPCC, ("--window", window), trace, ticks)


class Forms(unittest.TestCase):
    """Formats, options, comparison, failures."""

    def test_columns_are_those_of_the_document(self):
        document = (ROOT / "docs/analysis.md").read_text(encoding="utf-8")
        for name, columns in re.findall(r"^\| `(\w+)` \| `([\w,]+)` \|", document, re.M):
            rows = run("KLT_ANALYZE", RING, name, "--format", "csv")[0].splitlines()
            self.assertEqual(rows[0], columns)
            made = json.loads(run("KLT_ANALYZE", HPCC, name, "--format", "json")[0])
            for row in made[name]:
                self.assertEqual(",".join(row), columns)

    def test_options_are_documented(self):
        for program, variable in (("klt-analyze", "KLT_ANALYZE"), ("klt-timeline", "KLT_TIMELINE")):
            options = set(re.findall(r"--[a-z-]+", run(variable, RING, "--help")[0]))
            self.assertGreater(len(options), 5)
            for place in (f"man/{program}.1", *(f"completions/analyze/klt-analyze.{shell}"
                                                for shell in ("bash", "zsh", "fish"))):
                text = (ROOT / place).read_text(encoding="utf-8").replace("\\-", "-")
                for option in options:
                    self.assertRegex(text, f"(--|-l ){option[2:]}\\b", place)

    def test_text_fits_the_terminal(self):
        os.environ["COLUMNS"] = "90"
        for line in run("KLT_ANALYZE", HPCC, "callpaths")[0].splitlines()[1:]:
            self.assertLessEqual(len(line), 115, "numbers aren't cut")
        self.assertIn("…", run("KLT_ANALYZE", HPCC, "callpaths")[0])

    def test_folded_stacks_keep_the_sum(self):
        lines = run("KLT_ANALYZE", HPCC, "--format", "folded")[0].splitlines()
        self.assertIn("main;MPI_Comm_split", [line.rsplit(" ", 1)[0] for line in lines])
        self.assertEqual(sum(int(line.rsplit(" ", 1)[1]) for line in lines), 30000)

    def test_threads_select_rows(self):
        everything = table(HPCC, "waits")
        self.assertEqual(table(HPCC, "waits", "--threads", "1,3"),
                         [row for row in everything if row["process"] in ("1", "3")])
        items = {row["item"]: row["value"] for row in table(HPCC, "--threads", "0:2:2")}
        self.assertEqual((items["processes"], items["threads"]), ("2", "2"))

    def test_bins_add_up(self):
        whole, = table(HPCC, "efficiency")
        bins = table(HPCC, "efficiency", "--bins", "7")
        self.assertEqual((bins[0]["from_s"], bins[-1]["to_s"]), (whole["from_s"], whole["to_s"]))
        mean = sum(float(b["parallel"]) * (float(b["to_s"]) - float(b["from_s"])) for b in bins)
        self.assertAlmostEqual(mean / 0.0075, float(whole["parallel"]), places=5)

    def test_comparison(self):
        run("KLT_ANALYZE", "--compare", HPCC, HPCC, "--fail-above", "0%")
        with tempfile.TemporaryDirectory() as place:
            longer = pathlib.Path(place) / "longer.klt"
            run("KLTTOOL", HPCC, "--request", "0.173s:0.175s", "--logfile-name", longer,
                "--logfile-format", "SINGLEKLT")
            found = json.loads(run("KLT_ANALYZE", "--compare", longer, HPCC, "--format", "json")[0])
            row = next(r for r in found["compare_functions"] if r["function"] == "main")
            self.assertAlmostEqual(row["b"] - row["a"], row["difference"], places=8)
            error = run("KLT_ANALYZE", "--compare", longer, HPCC, "--fail-above", "5%", status=5)[1]
            self.assertIn("in the second run", error)
            run("KLT_ANALYZE", "--compare", HPCC, longer, "--fail-above", "5%")

    def test_failures(self):
        for words, status, message in (
                ((), 10, "name of a trace"), (("x", "tables"), 10, "unknown table"),
                (("nothing.klt",), 1, "can't be opened"), ((HPCC, "--bins", "0"), 10, "--bins"),
                ((HPCC, "--window", "2s:1s"), 10, "window"), ((HPCC, "--threads", "1-2"), 10, "list"),
                ((HPCC, "--format", "xml"), 10, "--format"), ((HPCC, "--colour"), 10, "--colour"),
                ((HPCC, "--window"), 10, "--window needs a value"), ((HPCC, "-o"), 10, "option -o"),
                ((HPCC, "--output=", "x"), 10, "needs"), ((HPCC, "--ticks=5"), 10, "no value"),
                ((HPCC, "--fail-above", "3%"), 10, "--compare"),
                ((HPCC, "--output", "/nowhere/x"), 1, "can't be written"),
                ((HPCC, "--output", "/dev/full"), 1, "can't be written")):
            self.assertIn(message, run("KLT_ANALYZE", *words, status=status)[1])
        raw = ROOT / "tests/data/raw_ring/t.klt"
        self.assertIn("--merge", run("KLT_ANALYZE", raw, "messages")[1])
        for words, status, message in (
                ((HPCC,), 10, "-o PAGE"), ((HPCC, "-o", "/dev/full"), 1, "can't be written"),
                ((HPCC, RING, "-o", "x"), 10, "only one trace"), ((HPCC, "-x"), 10, "option -x"),
                ((HPCC, "--window"), 10, "needs"), ((HPCC, "--ticks=5"), 10, "no value"),
                ((HPCC, "-o", "--ticks"), 10, "-o needs")):
            self.assertIn(message, run("KLT_TIMELINE", *words, status=status)[1])

    def test_damage(self):
        with tempfile.TemporaryDirectory() as place:
            shutil.copytree(ROOT / "tests/data/stencil", place, dirs_exist_ok=True)
            part = pathlib.Path(place) / "t.klt.f.1"
            part.write_bytes(part.read_bytes()[:500] + b"\xff" * 20)
            out, error = run("KLT_ANALYZE", "t.klt", "functions", status=2, directory=place)
            self.assertIn("couldn't be read", error)
            self.assertIn("(no call)", out)


class Page(unittest.TestCase):
    """The page has the contents of the tables, and names stay data."""

    def page(self, *words):
        with tempfile.TemporaryDirectory() as place:
            run("KLT_TIMELINE", *words, "-o", "run.html", directory=place)
            return (pathlib.Path(place) / "run.html").read_text(encoding="utf-8")

    def test_contents(self):
        data = page_data(self.page(HPCC))
        functions = {row["function"]: row for row in table(HPCC, "functions")}
        for what, calls, inclusive, exclusive, *_ in data["profile"]:
            row = functions[data["functions"][what][0]]
            self.assertEqual((calls, inclusive, exclusive),
                             (int(row["calls"]), float(row["inclusive_s"]), float(row["exclusive_s"])))
        waits = table(HPCC, "waits")
        self.assertEqual(data["kept"]["waits"], [sum(int(row["count"]) for row in waits)] * 2)
        self.assertEqual(data["kept"]["messages"], [1320, 1320])
        self.assertEqual(data["columns"]["callFrom"][1], data["kept"]["calls"][0])
        self.assertEqual([t[0] for t in data["threads"]], ["0", "1", "2", "3"])

    def test_names_are_data(self):
        name = "</script><script>alert(1)</script>\x1b[2J\u202e'\"&<!--"
        trace = bytearray(RING.read_bytes())
        old = 'exchange "halo"'.encode()
        self.assertIn(old, trace)
        hostile = name.encode()[:len(old)]
        with tempfile.TemporaryDirectory() as place:
            made = pathlib.Path(place) / "it's <b>.klt"
            made.write_bytes(bytes(trace).replace(old, hostile))
            page = self.page(made)
            self.assertEqual(page.count("</script>"), 2)
            data = page_data(page)
            self.assertIn(hostile.decode(), [f[0] for f in data["functions"]])
            self.assertTrue(data["word"].endswith("/it'\\''s <b>.klt'"))
            made.write_bytes(bytes(trace).replace(old, b"\x1b[31m\xff\xc2\x9b\n,;\"abc"))
            os.environ["COLUMNS"] = "300"
            out = run("KLT_ANALYZE", made, "functions", "callpaths")[0]
            self.assertNotIn("\x1b", out)
            self.assertIn(r"\x1b[31m\xff\xc2\x9b\x0a,;", out)
            rows = {row["function"] for row in table(made, "functions")}
            self.assertIn(r'\x1b[31m\xff\xc2\x9b\x0a,;"abc', rows)
            self.assertNotIn("abc;", run("KLT_ANALYZE", made, "--format", "folded")[0].split("abc")[0])

    def test_page_loads_nothing(self):
        page = self.page(RING)
        self.assertIn("default-src 'none'", page)
        self.assertNotRegex(page.split('id="data"')[0], r"https?://|src=|@import|url\(")
        self.assertNotIn("innerHTML", page)


if __name__ == "__main__":
    unittest.main()
