"""Tests the programs of tools/ and examples/ on the sample traces, on unusual lines and on damaged
files.

  KLTTOOL=build/release/klttool python3 test_tools.py [TESTCASE...]
  python3 test_tools.py write     writes the files of golden/ again, after an intended change
"""

import argparse
import collections
import importlib.machinery
import importlib.util
import io
import json
import os
import pathlib
import re
import resource
import shutil
import subprocess
import sys
import tempfile
import unittest
from xml.etree import ElementTree

resource.setrlimit(resource.RLIMIT_CPU, (300, 300))  # of each process, also of those it starts
HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parents[1]
KLTTOOL = os.environ.get("KLTTOOL", "klttool")
TEXT = "{}\n{}status {}\n"  # a golden file: standard output, standard error, status
LINES = ("h1", "h2", "h3", "p", "li", "tr", "dt", "dd", "title", "text")  # shown in an outline
sys.path.insert(0, str(ROOT / "tests" / "e2e"))

# pylint: disable=wrong-import-position
from harness import DATA, INPUT, Folder  # noqa: E402


CONVERTER, REPORT, WINDOWS = (
    str(ROOT / path) for path in ("tools/klt-trace-json", "tools/klt-sum-report",
                                  "tools/klt-parallel-windows"))
loader = importlib.machinery.SourceFileLoader("windows", WINDOWS)
windows = importlib.util.module_from_spec(importlib.util.spec_from_loader(loader.name, loader))
loader.exec_module(windows)


def run(program, *arguments):
    """Standard output, standard error and status of a program."""
    done = subprocess.run([sys.executable, program, *map(str, arguments)], stdin=subprocess.DEVNULL,
                          capture_output=True, encoding="utf-8", check=False)
    return done.stdout, done.stderr, done.returncode


def outline(page):
    """The texts of a page, with a line for each paragraph, heading, table row and mark of a picture,
    and the numbers of marks. Checks that elements nest, that each class of marks has a colour in both
    colour schemes, and that the page refers to no other file."""
    assert not re.search(r"<script|@import|url\((?!#p\d\))|https?:|\b(nan|inf)\b| (src|href)=|\x1b", page)
    marks = re.findall(r"\b(?:[slqf]\d|band)\b", " ".join(re.findall('class="([^"]*)"', page)))
    light, dark = page.split("prefers-color-scheme: dark", 1)
    colours = {f"--{name.replace('l', 's')}:" for name in marks if name != "band"}
    assert all(colour in light and colour in dark.split("}")[0] for colour in colours), colours
    well_formed = re.sub(r" class=\w+|<meta[^>]*>", "", page).replace("<br>", "<br/>")
    lines = [element.tag + ":" + "".join(" | " + text.strip().replace("\n", " / ")
                                         for text in element.itertext() if text.strip())
             for element in ElementTree.fromstring(well_formed).iter() if element.tag in LINES]
    return "\n".join(lines + [f"marks: {name} {marks.count(name)}" for name in sorted(set(marks))])


def golden():
    """Yields the name of each file in golden/ and the output that it must contain."""
    for file in sorted((HERE / "golden").glob("*.rkf")):
        yield file.stem, run(CONVERTER, "--waiting", 5, file)
    with tempfile.TemporaryDirectory() as directory:
        # Three files are cut within a record, one is missing, and one has an impossible length.
        base, sample = pathlib.Path(directory, "expected"), DATA / "reports" / "expected"
        for word in ("fnc", "msg", "cop", "rep"):
            data = pathlib.Path(f"{sample}.sum.{word}").read_bytes()
            pathlib.Path(f"{base}.sum.{word}").write_bytes(
                data[:-6] if word != "cop" else data[:48] + b"\xff" * 4 + data[52:])
        for name, trace, *options in (
                ("page-counters", "counters", "--names", DATA / "counters" / "expected.dump"),
                ("page-reports", "reports", "--names", DATA / "reports" / "expected.dump"),
                ("page-threads", "threads", "--title", "<&b>\x1b\t\n" + 99 * "(" + 99 * ")"),
                ("page-negative", "negative", "--names", DATA / "negative" / "expected.dump"),
                ("page-refused", "threads", "--names", HERE / "golden" / "lines.rkf"),
                ("page-damaged", directory)):
            page, *rest = run(REPORT, DATA / trace / "expected", *options)
            yield name, (outline(page) if page else "", *rest)
        # A trace brings its names, and the summary is made if there is none or an older one.
        trace = pathlib.Path(shutil.copytree(DATA / "ring", f"{directory}/ring"), INPUT)
        pathlib.Path(f"{trace}.sum.fnc").touch()
        os.utime(f"{trace}.sum.fnc", (0, 0))
        page, *rest = run(REPORT, trace)
        yield "page-trace", (outline(page), *rest)


class Golden(unittest.TestCase):
    maxDiff = 5000

    def test_outputs_are_those_of_golden(self):
        for name, output in golden():
            with self.subTest(name):
                expected = (HERE / "golden" / f"{name}.expected").read_text(encoding="utf-8")
                self.assertEqual(expected, TEXT.format(*output))


class Browser(unittest.TestCase):
    """Pages as a browser lays them out."""

    def test_nothing_is_wider_than_its_section(self):
        browser = shutil.which("chromium") or shutil.which("google-chrome")
        if not browser:
            print("skipped: there is no Chromium; KLT_BROWSER_TEST=ON scripts/test installs it")
            self.skipTest("no Chromium")
        measure = """<script>document.title = "widest " + Math.max(...Array.from(
            document.querySelectorAll("section, .wide"), e => e.scrollWidth - e.clientWidth))</script>"""
        for trace in ("reports", "counters", "threads"):
            with self.subTest(trace), tempfile.TemporaryDirectory() as directory:
                page = pathlib.Path(directory, "page.html")
                text = run(REPORT, DATA / trace / "expected", "--names",
                           DATA / trace / "expected.dump")[0]
                page.write_text(text.replace("</body>", measure + "</body>"), encoding="utf-8")
                done = subprocess.run(
                    [browser, "--headless", "--no-sandbox", "--disable-gpu", "--dump-dom",
                     f"--user-data-dir={directory}/profile", "--window-size=1000,800", page.as_uri()],
                    stdin=subprocess.DEVNULL, capture_output=True, encoding="utf-8", check=True)
                self.assertIn("<title>widest 0</title>", done.stdout)


class TraceJson(unittest.TestCase):
    def test_every_line_of_every_dump_has_its_events_and_calls_nest(self):
        for file in sorted(DATA.glob("*/expected.dump")):
            text = file.read_text(errors="replace")
            events = json.loads(run(CONVERTER, file)[0])["traceEvents"]
            seen = collections.Counter(event["ph"] for event in events)
            lines = collections.Counter(re.findall(r"^-?\d+ (\w+) ", text, re.M))
            calls = len(re.findall(r" EXCHEXT CPU \d+ DOWNTO ", text))
            values = sum(line.count(" DEF ") for line in text.splitlines() if " SAMP " in line)
            slices = ("GLOBALOP", "BEGINSCOPE", "FILEIOBEGIN")
            with self.subTest(trace=file.parent.name):
                self.assertEqual([*(seen[phase] for phase in "BEbiC"), seen["s"] + seen["f"]],
                                 [calls, calls, sum(lines[kind] for kind in slices),
                                  lines["C"] + lines["KPARREGBARSUM"],
                                  values - len(re.findall(r"FLOAT -?(?:INF|NAN)", text)),
                                  lines["SENDMSG"] + lines["RECVMSG"]])
                depth, last = collections.Counter(), collections.Counter()
                for event in (event for event in events if event["ph"] in "BE"):
                    key = event["pid"], event["tid"]
                    depth[key] += 1 if event["ph"] == "B" else -1
                    self.assertTrue(depth[key] >= 0 and event["ts"] >= last[key])
                    last[key] = event["ts"]
                self.assertEqual(+depth, {})


def events_of(text):
    """The number of each line, and the lines of calls and scopes of each thread in order."""
    calls = collections.defaultdict(list)
    for match in re.finditer(rb"^\d+ (?:EXCHEXT|BEGINSCOPE|ENDSCOPE) CPU (\d+) .*", text, re.M):
        calls[match[1]].append(match[0])
    return collections.Counter(text.splitlines()), calls


class ParallelWindows(unittest.TestCase):
    # Traces with calls across cuts, messages in flight, collectives, scopes, unknown sides, many events
    # at one time, times that text can't show exactly, and statistics.
    TRACES = {"ring": 4, "counters": 4, "negative": 4, "collops": 4, "evbits14": 4, "io": 4, "stats": 1}
    # Traces in which lines of the same time may be in a different order.
    CROWDED = {"stencil_split": 4, "threads": 4, "dense": 25}

    def setUp(self):
        temporary = tempfile.TemporaryDirectory()
        self.addCleanup(temporary.cleanup)
        self.directory = pathlib.Path(temporary.name)

    def test_joined_pieces_are_the_whole_dump(self):
        for name, count in (self.TRACES | self.CROWDED).items():
            compared = events_of if name in self.CROWDED else bytes
            for kind, options in (("dump", ()), ("matched", ("--matched-rkf",))):
                expected = compared(Folder(DATA / name).expected(kind))
                pieces = pathlib.Path(tempfile.mkdtemp(dir=self.directory))
                plan = windows.make_plan(argparse.Namespace(
                    program=KLTTOOL, trace=DATA / name / INPUT, select=(), options=options,
                    windows=count), pieces)
                for index in range(len(plan["windows"])):
                    windows.dump_window(pieces, index)
                for windows.BLOCK in (1, 200, 5000):
                    with self.subTest(trace=name, kind=kind, block=windows.BLOCK):
                        output = io.BytesIO()
                        windows.Join(pieces, output).run()
                        self.assertEqual(compared(output.getvalue()), expected)
                        times = [int(t) for t in re.findall(rb"^(\d+) ", output.getvalue(), re.M)]
                        self.assertTrue(kind == "matched" or times == sorted(times))

    def test_two_workers_write_what_one_dump_writes(self):
        # The path of the program is relative to a directory that isn't the workers' own.
        place = self.directory / "a" / "b"
        place.mkdir(parents=True)
        program = os.path.relpath(shutil.which(KLTTOOL), place)
        command = [sys.executable, WINDOWS, "-n", "4", "-j", "2", "--program", program]
        for name in ("ring", "collops", "io"):
            expected = Folder(DATA / name).expected("dump")
            with self.subTest(trace=name):
                done = subprocess.run([*command, DATA / name / INPUT], cwd=place, check=True,
                                      stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
                self.assertEqual(done.stdout, expected)
                # The first window is dumped into a file, after what is in it already.
                with open(place / "run.rkf", "wb", buffering=0) as output:
                    output.write(b"before\n")
                    subprocess.run([*command, DATA / name / INPUT], cwd=place, check=True,
                                   stdin=subprocess.DEVNULL, stdout=output)
                self.assertEqual((place / "run.rkf").read_bytes(), b"before\n" + expected)
        usage = run(WINDOWS)
        self.assertTrue(usage[1].startswith("usage: ") and usage[2] == 10)


if __name__ == "__main__":
    if sys.argv[1:] == ["write"]:
        for golden_name, golden_output in golden():
            pathlib.Path(HERE, "golden", f"{golden_name}.expected").write_text(
                TEXT.format(*golden_output), encoding="utf-8")
    else:
        unittest.main()
