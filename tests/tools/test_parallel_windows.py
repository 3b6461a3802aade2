"""The pieces that examples/parallel-windows makes of the sample traces, joined, are the whole dump.

The program under test is named by KLTTOOL in the environment.
"""

import collections
import importlib.machinery
import importlib.util
import io
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
SCRIPT = ROOT / "examples" / "parallel-windows"
DATA = ROOT / "tests" / "data"

# Traces with calls across cuts, messages in flight, collectives, scopes, unknown sides, many events
# at one time, stamps that text can't show exactly, and statistics besides events.
TRACES = ("ring", "stencil", "threads", "counters", "negative", "collops", "dense", "evbits4",
          "evbits14", "io", "stats", "stencil_split")


def run(*command):
    done = subprocess.run([str(word) for word in command], stdin=subprocess.DEVNULL,
                          capture_output=True, timeout=120, check=False)
    if done.returncode != 0:
        raise AssertionError(f"{command}: status {done.returncode}\n{done.stderr.decode()}")
    return done.stdout


def script(*arguments):
    return run(sys.executable, SCRIPT, *arguments)


def by_time(text):
    """The lines of a dump with their numbers, by time; what has none is under None."""
    lines = collections.defaultdict(collections.Counter)
    for line in text.splitlines():
        time = re.match(rb"(\d+) ", line)
        lines[int(time[1]) if time else None][line] += 1
    return lines


def by_thread(text):
    """The calls and scopes of each thread in their order."""
    lines = collections.defaultdict(list)
    for line in text.splitlines():
        match = re.match(rb"\d+ (?:EXCHEXT|BEGINSCOPE|ENDSCOPE) CPU (\d+) ", line)
        if match:
            lines[match[1]].append(line)
    return lines


class ParallelWindows(unittest.TestCase):
    maxDiff = 2000

    def setUp(self):
        self.program = os.environ["KLTTOOL"]
        temporary = tempfile.TemporaryDirectory()
        self.addCleanup(temporary.cleanup)
        self.directory = pathlib.Path(temporary.name)

    def check_same_events(self, expected, joined):
        want, got = by_time(expected), by_time(joined)
        self.assertEqual(list(want.keys() - got.keys()), [])
        for time, lines in got.items():
            self.assertEqual(lines, want[time], f"at {time}")
        self.assertEqual(by_thread(joined), by_thread(expected))

    def test_joined_pieces_are_the_whole_dump(self):
        for name in TRACES:
            same = DATA / name / "same_as"
            place = DATA / (same.read_text().strip() if same.exists() else name)
            for count in (1, 4, 25) if name in ("stencil", "dense") else (4,):
                for options, kind in (((), "dump"), (("--", "--matched-rkf"), "matched")):
                    with self.subTest(trace=name, windows=count, kind=kind):
                        expected = (place / f"expected.{kind}").read_bytes()
                        joined = script("-n", count, "-j", 2, "--program", self.program,
                                        DATA / name / "t.klt", *options)
                        self.check_same_events(expected, joined)
                        if kind == "dump":
                            times = [int(time) for time in re.findall(rb"^(\d+) ", joined, re.M)]
                            self.assertEqual(times, sorted(times))

    def test_blocks_that_are_copied_whole_are_those_without_seams(self):
        loader = importlib.machinery.SourceFileLoader("parallel_windows", str(SCRIPT))
        spec = importlib.util.spec_from_loader(loader.name, loader)
        module = importlib.util.module_from_spec(spec)
        spec.loader.exec_module(module)
        for name, kind in (("stencil", "dump"), ("stencil", "matched"), ("negative", "dump"),
                           ("threads", "dump")):
            options = ["--matched-rkf"] if kind == "matched" else []
            pieces = self.directory / f"{name}.{kind}"
            script("plan", "-n", 4, "--program", self.program, DATA / name / "t.klt", pieces, "--",
                   *options)
            for index in range(5):
                script("window", pieces, index)
            for module.BLOCK in (1, 200, 1000, 5000):
                with self.subTest(trace=name, kind=kind, block=module.BLOCK):
                    output = io.BytesIO()
                    module.Join(pieces, output).run()
                    expected = (DATA / name / f"expected.{kind}").read_bytes()
                    self.check_same_events(expected, output.getvalue())

    def test_selections_are_cut_the_same_way(self):
        trace = DATA / "counters" / "t.klt"
        for select in (["FUNCTIONS"], ["COUNTERS"], ["0:0"], ["1:1", "MESSAGES", "COLLOPS"]):
            with self.subTest(select=select):
                whole = run(self.program, trace, "--dump", "--request", ",".join(select))
                options = [word for part in select for word in ("--select", part)]
                joined = script("-n", 7, "--program", self.program, *options, trace)
                self.check_same_events(whole, joined)

    def test_steps_run_in_any_order_and_in_places_with_odd_names(self):
        place = self.directory / "it's {} here"
        place.mkdir()
        for file in (DATA / "ring").glob("t.klt*"):
            shutil.copy(file, place)
        pieces = place / "the pieces"
        count = int(script("plan", "-n", 5, "--program", self.program, place / "t.klt", pieces))
        self.assertEqual(count, 6)
        for index in reversed(range(count)):
            script("window", pieces, index)
        expected = (DATA / "ring" / "expected.dump").read_bytes()
        self.assertEqual(script("join", pieces), expected)
        joined = script("-n", 5, "--program", self.program, "--directory", place,
                     place / "t.klt")
        self.assertEqual(joined, expected)

    def test_what_is_missing_or_broken_is_not_joined(self):
        trace = DATA / "ring" / "t.klt"
        pieces = self.directory / "pieces"
        script("plan", "-n", 3, "--program", self.program, trace, pieces)
        script("window", pieces, 0)
        with self.assertRaisesRegex(AssertionError, "not dumped yet: 1, 2, 3"):
            script("join", pieces)
        with self.assertRaisesRegex(AssertionError, "no window 4"):
            script("window", pieces, 4)
        for file in (DATA / "ring").glob("t.klt*"):
            shutil.copy(file, self.directory)
        calls = self.directory / "t.klt.f.0"
        calls.write_bytes(calls.read_bytes()[:-1])
        with self.assertRaisesRegex(AssertionError, "ended with status 2"):
            script("-n", 2, "--program", self.program, self.directory / "t.klt")
        with self.assertRaisesRegex(AssertionError, "No such file"):
            script("--program", self.directory / "none", trace)


if __name__ == "__main__":
    unittest.main()
