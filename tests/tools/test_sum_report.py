"""What tools/sum-report says about sample summaries, and about large and wrong ones."""

import html.parser
import pathlib
import re
import struct
import tempfile
import unittest

from page_builder import (DATA, WORDS, complaint, message, report, sample, samples, thread, write)

VOID = {"meta", "br"}


class Outline(html.parser.HTMLParser):
    """Checks that elements nest, and collects tables and what pictures say of their marks."""

    def __init__(self, page):
        super().__init__()
        self.stack, self.cells, self.titles, self.classes, self.links = [], [], [], [], []
        self.feed(page)
        assert not self.stack, self.stack

    def handle_starttag(self, tag, attrs):
        self.classes += (dict(attrs).get("class") or "").split()
        self.links += [value for name, value in attrs if name in ("src", "href")]
        if tag in ("td", "th"):
            self.cells.append("")
        if tag == "title":
            self.titles.append("")
        if tag not in VOID:
            self.stack.append(tag)

    def handle_endtag(self, tag):
        if tag not in VOID:
            assert self.stack.pop() == tag, tag

    def handle_data(self, data):
        if "td" in self.stack or "th" in self.stack:
            self.cells[-1] += data
        if self.stack and self.stack[-1] == "title":
            self.titles[-1] += data


class Samples(unittest.TestCase):
    def test_functions_messages_and_collectives_are_told_by_name(self):
        outline = Outline(sample("counters"))
        cells = outline.cells
        at = cells.index("r\u00e9duction_100%d")
        self.assertEqual(cells[at:at + 4], ["r\u00e9duction_100%d", "3", "694 ns", "34.2%"])
        at = cells.index("MPI_Scatter")
        self.assertEqual(cells[at:at + 4], ["MPI_Scatter", "MPI_COMM_WORLD", "2", "2"])
        self.assertIn("Process 0 \u2192 Process 1: 3", outline.titles)
        self.assertIn("Process 1 \u2192 Process 0: 8 B", outline.titles)
        self.assertTrue({"s1", "s2", "s3", "s4", "l1", "l4", "q7"} <= set(outline.classes))

    def test_every_time_of_a_bin_is_in_its_column(self):
        # Own times of all calls that are open over a whole bin fill it.
        page = sample("counters")
        span = "0.127 \u00b5s to 0.254 \u00b5s\n"
        column = next(title for title in Outline(page).titles if title.startswith(span))
        shares = [float(s) for s in re.findall(r": ([\d.]+)%", column)]
        self.assertAlmostEqual(sum(shares), 100, delta=0.5)

    def test_without_names_numbers_and_ticks_are_shown(self):
        page, errors = report(DATA / "threads" / "expected")
        cells = Outline(page).cells
        self.assertEqual(errors, "")
        self.assertIn("function 1034", cells)
        self.assertIn("907 ticks", cells)
        self.assertIn("operation 17", cells)
        self.assertIn("process 0, thread 1", page)

    def test_reports_are_listed_with_their_places(self):
        cells = Outline(sample("reports")).cells
        self.assertIn("LOCAL:MEMORY:0", cells)
        self.assertIn("6 reports.", sample("reports"))

    def test_page_stands_on_its_own(self):
        for name in ("counters", "threads", "reports"):
            page = sample(name)
            self.assertEqual(Outline(page).links, [])
            self.assertNotRegex(page, r"<script|@import|url\(|https?:")
            self.assertIn("prefers-color-scheme: dark", page)


class MadeFiles(unittest.TestCase):
    def setUp(self):
        temporary = tempfile.TemporaryDirectory()
        self.addCleanup(temporary.cleanup)
        self.directory = pathlib.Path(temporary.name)
        self.run_name = self.directory / "x"

    def empty(self, *words):
        for word in words:
            write(self.directory, word, 10, [])

    def test_own_time_is_inclusive_time_less_that_of_callees(self):
        self.empty("cop", "msg", "cnt", "rep")
        for order in "<>":  # also from a machine of the other byte order
            write(self.directory, "fnc", 100, [
                thread(0, 100, 0, [(1, 60), (2, 40, (3, 30))], order),
                thread(0, 100, 1, [(1, 100, (1, 100))], order),
            ], order=order)
            cells = Outline(report(self.run_name)[0]).cells
            rows = {cells[i]: cells[i + 2] for i, cell in enumerate(cells)
                    if cell.startswith("function ")}
            self.assertEqual(rows, {"function 1": "160 ticks", "function 2": "10 ticks",
                                    "function 3": "30 ticks"})

    def test_byte_sums_do_not_wrap_and_times_have_a_sign(self):
        self.empty("fnc", "cop", "cnt", "rep")
        write(self.directory, "msg", 10, [message(0, 1, 4096, 2**20, -8192)])
        cells = Outline(report(self.run_name)[0]).cells
        self.assertIn("4 GiB", cells)
        self.assertIn("-2 ticks", cells)

    def test_names_are_escaped(self):
        self.empty("cop", "cnt")
        evil = '<script>alert("1")</script>&amp;\'\x1b[2J'
        write(self.directory, "fnc", 100, [thread(0, 100, 0, [(1, 60)])])
        write(self.directory, "msg", 10, [message(0, 1, 1, 1)])
        write(self.directory, "rep", 10, [complaint(5, 0, evil, evil, evil)])
        names = self.directory / "names"
        names.write_text(f'CLKPERIOD 1E-06\nCPUSYM 1 "{evil}"\nDEFSTATE 1 ACT 1 "{evil}"\n')
        page, _ = report(self.run_name, "--names", names, "--title", evil)
        self.assertNotIn("<script", page)
        self.assertNotIn("\x1b", page)
        self.assertIn('<script>alert("1")</script>&amp;\'\N{REPLACEMENT CHARACTER}[2J',
                      Outline(page).cells)

    def test_large_runs_keep_to_two_megabytes(self):
        bins, threads, long = 400, 100, "n" * 500
        write(self.directory, "fnc", 10, [
            thread(b * 10, 10, t, [(b * 7 % 97 + t + 1, 6), (t % 13 + 1, 4)])
            for b in range(bins) for t in range(threads)])
        write(self.directory, "msg", 10, [message(a, b, a + 1, b) for a in range(120)
                                          for b in range(120)])
        write(self.directory, "cop", 10, [
            struct.pack("<QIIIIII", 0, c, t, 0, 1, 0, 0) for c in range(100) for t in range(20)])
        write(self.directory, "cnt", 10, [
            samples(c, t, b * 10, float(b * t)) for b in range(bins) for c in range(20)
            for t in range(5 + c % 2 * 5)])
        write(self.directory, "rep", 10, [complaint(k, 0, long, long, long) for k in range(5000)])
        names = self.directory / "names"
        names.write_text("".join(f'DEFSTATE {k} ACT 1 "{k}{long}"\nCPUSYM {k} "{k}{long}"\n'
                                 for k in range(1, 300)))
        page, errors = report(self.run_name, "--names", names)
        self.assertEqual(errors, "")
        self.assertLess(len(page.encode()), 2000000)
        outline = Outline(page)
        self.assertIn("5,000 reports.", page)
        self.assertTrue({"s0", "s8", "band", "l5"} <= set(outline.classes))
        self.assertIn("others", page)

    def test_empty_and_missing_files(self):
        self.empty(*WORDS)
        page, _ = report(self.run_name)
        self.assertIn("no function calls", page)
        self.assertIn("no messages", page)
        for word in WORDS:
            (self.directory / f"x.sum.{word}").write_bytes(b"")
        report(self.run_name)
        (self.directory / "x.sum.cnt").unlink()
        page, errors = report(self.run_name, status=2)
        self.assertIn("x.sum.cnt: No such file", errors)
        self.assertIn("x.sum.cnt: No such file", page)
        _, errors = report(self.directory / "nothing", status=1)
        self.assertIn("no summary file", errors)

    def test_damaged_files_are_read_up_to_the_damage(self):
        good = thread(0, 100, 0, [(1, 60)])
        for what, bad in {
                "a tree longer than the file": struct.pack("<QQIIII", 0, 100, 0, 0, 2**32 - 1, 0),
                "half a header": good[:20], "half a tree": good[:-10],
                "a call without a caller": good[:-4] + struct.pack("<I", 7)}.items():
            with self.subTest(what):
                self.empty("cop", "msg", "cnt", "rep")
                write(self.directory, "fnc", 100, [good, bad], count=2)
                page, errors = report(self.run_name, status=2)
                self.assertIn("x.sum.fnc", errors)
                self.assertIn("60 ticks", Outline(page).cells)

    def test_hostile_lengths_and_numbers(self):
        cases = {
            "fnc": [thread(2**64 - 1, 2**64 - 1, 2**32 - 1, [(2**32 - 1, 2**64 - 1)]),
                    thread(0, 0, 0, [])],
            "cop": [struct.pack("<QIIIIII", 2**64 - 1, 1, 2, 3, 2**32 - 1, 2**32 - 1, 0)],
            "msg": [message(2**32 - 1, 0, 2**32 - 1, 2**32 - 1), b"\xff" * 50],
            "cnt": [samples(2**32 - 1, 2**32 - 1, 2**64 - 1, 1e308),
                    samples(2**32 - 1, 2**32 - 1, 2**64 - 1, -1e308),
                    samples(1, 1, 1, float("nan")), samples(1, 1, 1, float("inf"))],
            "rep": [struct.pack("<QII", 1, 2, 2**32 - 1) + struct.pack("<I", 2**32 - 1)]}
        for word, records in cases.items():
            for width in (0, 1, 2**64 - 1):
                with self.subTest(word=word, width=width):
                    self.empty(*WORDS)
                    write(self.directory, word, width, records)
                    status = 0 if word in ("fnc", "cnt") else 2
                    page, _ = report(self.run_name, status=status)
                    Outline(page)
                    self.assertNotRegex(page, r"\b(nan|inf)\b")
        (self.directory / "x.sum.fnc").write_bytes(b"no summary at all, but text")
        self.assertIn("version 1", report(self.run_name, status=2)[1])


if __name__ == "__main__":
    unittest.main()
