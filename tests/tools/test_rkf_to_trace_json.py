"""What tools/rkf-to-trace-json makes of the sample dumps and of lines that are hard to read."""

import collections
import json
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
TOOL = ROOT / "tools" / "rkf-to-trace-json"
DATA = ROOT / "tests" / "data"

HEADER = """CLKPERIOD 1E-06
CPUSYM 1 "left"
CPUSYM 2 "right"
DEFACT 1 "Application"
DEFSTATE 10 ACT 1 "main"
COMDEF 1 2 0:1:1 NAME "world"
GLOBALOPTOKEN 4 "reduce"
"""


def convert(text, *options, status=0):
    done = subprocess.run([sys.executable, TOOL, *options], input=text.encode(), check=False,
                          capture_output=True, timeout=120)
    if done.returncode != status:
        raise AssertionError(f"status {done.returncode}\n{done.stderr.decode()}")
    return json.loads(done.stdout)["traceEvents"] if done.stdout else [], done.stderr.decode()


def kinds(events):
    return collections.Counter(event["ph"] for event in events)


def shown(events, *phases):
    """Time, thread, phase and name of the events of some phases, in the order of the file."""
    return [(e["ts"], e["tid"], e["ph"], e.get("name")) for e in events if e["ph"] in phases]


def arrows(events):
    """Name, and time and thread of both ends, of the arrows that have two."""
    ends = collections.defaultdict(dict)
    for event in events:
        if event["ph"] in "sf":
            assert event["ph"] not in ends[event["id"]], event
            ends[event["id"]][event["ph"]] = (event["ts"], event["tid"])
            ends[event["id"]]["name"] = event["name"]
    return sorted((e["name"], e["s"], e["f"]) for e in ends.values() if len(e) == 3)


class Samples(unittest.TestCase):
    def test_every_line_of_every_dump_has_its_events(self):
        for file in sorted(DATA.glob("*/expected.dump")):
            with self.subTest(trace=file.parent.name):
                text = file.read_text(errors="replace")
                count = lambda word: len(re.findall(rf"^-?\d+ {word} ", text, re.M))
                events, _ = convert(text)
                seen = kinds(events)
                calls = len(re.findall(r" EXCHEXT CPU \d+ DOWNTO ", text))
                self.assertEqual((seen["B"], seen["E"]), (calls, calls))
                self.assertEqual(seen["s"] + seen["f"], count("SENDMSG") + count("RECVMSG"))
                self.assertEqual(seen["b"],
                                 count("GLOBALOP") + count("BEGINSCOPE") + count("FILEIOBEGIN"))
                self.assertEqual(seen["i"], count("C") + count("KPARREGBARSUM"))
                values = sum(line.count(" DEF ") for line in text.splitlines() if " SAMP " in line)
                infinite = len(re.findall(r"FLOAT -?(?:INF|NAN)", text))
                self.assertEqual(seen["C"], values - infinite)

    def test_matched_and_separate_lines_give_the_same_arrows_and_operations(self):
        for name in ("ring", "bigdelta", "counters"):
            with self.subTest(trace=name):
                separate, matched = (convert((DATA / name / f"expected.{kind}").read_text())[0]
                                     for kind in ("dump", "matched"))
                self.assertEqual(arrows(separate), arrows(matched))
                slices = [sorted(shown(events, "b", "e")) for events in (separate, matched)]
                self.assertEqual(*slices)

    def test_calls_nest_in_every_thread(self):
        events, _ = convert((DATA / "threads" / "expected.dump").read_text())
        depth, last = collections.Counter(), collections.Counter()
        for event in events:
            if event["ph"] in "BE":
                key = event["pid"], event["tid"]
                self.assertGreaterEqual(event["ts"], last[key])
                last[key] = event["ts"]
                depth[key] += 1 if event["ph"] == "B" else -1
                self.assertGreaterEqual(depth[key], 0)
        self.assertEqual(set(depth.values()), {0})
        self.assertEqual(len(depth), 9)


class Lines(unittest.TestCase):
    def test_times_are_microseconds_of_the_clock(self):
        # Six digits of the period aren't enough for 2^-13 ns; the tick they mean is 1 ns.
        events, _ = convert('CLKPERIOD 1.2207E-13\nEVENTBITS 13\nDEFSTATE 10 ACT 1 "main"\n'
                            "8192000000 EXCHEXT CPU 1 DOWNTO 10\n"
                            "8192008192 EXCHEXT CPU 1 UPTO NOACT\n")
        self.assertEqual(shown(events, "B", "E"),
                         [(1000, 1, "B", "main"), (1000.001, 1, "E", "main")])

    def test_names_come_from_the_definitions_and_stay_text(self):
        events, _ = convert(HEADER + 'DEFSTATE 11 ACT 1 "say "hi"\\ \u00e9 </script>"\n'
                            "1 EXCHEXT CPU 65537 DOWNTO 11\n2 EXCHEXT CPU 65537 UPTO NOACT\n")
        self.assertEqual(shown(events, "B"), [(1, 65537, "B", 'say "hi"\\ \u00e9 </script>')])
        names = {(e["name"], e["tid"]): e["args"].get("name") for e in events if e["ph"] == "M"}
        self.assertEqual(names["process_name", 1], "left")
        self.assertEqual(names["thread_name", 65537], "process 0, thread 1")
        self.assertEqual({e["pid"] for e in events}, {1})

    def test_nth_send_belongs_to_nth_receive(self):
        events, errors = convert(HEADER + "1 SENDMSG 1 7 FROM 1 TO 2 LEN 8\n"
                                 "2 SENDMSG 1 7 FROM 1 TO 2 LEN 8\n"
                                 "3 SENDMSG 1 8 FROM 1 TO 2 LEN 8\n"
                                 "4 RECVMSG 1 7 BY 2 FROM 1 LEN 8 SCL 3 FUNCTION 10\n"
                                 "5 RECVMSG 1 7 BY 2 FROM 1 LEN 8\n"
                                 "6 RECVMSG 1 9 BY 1 FROM 2 LEN 8\n"
                                 "9 SENDMSG 1 9 FROM 2 TO 1 LEN 8\n")
        self.assertEqual(arrows(events), [("message", (1, 1), (4, 2)), ("message", (2, 1), (5, 2)),
                                          ("message, received before sent", (6, 1), (9, 2))])
        self.assertIn("messages without their other end: 1", errors)

    def test_waiting_messages_have_a_limit(self):
        sends = "".join(f"{k} SENDMSG 1 {k} FROM 1 TO 2 LEN 8\n" for k in range(20))
        receives = "".join(f"30 RECVMSG 1 {k} BY 2 FROM 1 LEN 8\n" for k in range(20))
        events, errors = convert(HEADER + sends + receives, "--waiting", "5")
        self.assertEqual(len(arrows(events)), 5)
        self.assertIn("too many", errors)

    def test_collective_operations_have_a_slice_for_each_member(self):
        matched = ("7 COLLOP ALLTOONE 4 COM 1 ROOT 1 TIMES 9 UNKNOWN DELTAS 4 UNKNOWN SENTS 16 0"
                   " RCVDS 0 0\n")
        for line in (matched, "9 GLOBALOP 4 ON 1 1 2 16 0 4\n"):
            events, _ = convert(HEADER + line)
            self.assertEqual(shown(events, "b", "e"),
                             [(9, 1, "b", "reduce"), (13, 1, "e", "reduce")])
            args = next(e["args"] for e in events if e["ph"] == "b")
            self.assertEqual(args, {"communicator": "world", "thread": 1, "root": 2,
                                    "bytes sent": 16, "bytes received": 0})

    def test_counters_of_threads_and_groups(self):
        events, _ = convert(
            HEADER + 'DEFGROUP 8 "All" NMEMBS 1 1\nDEFSAMP 2 CLASS 2 CPUSAMP FOR 1 TYPE FLOAT MIN '
            '0 MAX 1 DIFF 0 RHINT 1 NAME "load" UNIT "%"\n'
            "5 SAMP CPU 65538 DEF 2 FLOAT 1.5 DEF 3 UINT 1 2\n"
            "6 SAMP GROUP 2147483656 DEF 2 FLOAT NAN\n"
            "7 SAMP GROUP 2147483656 DEF 2 FLOAT -1E+3\n")
        tracks = [(e["ts"], e["pid"], e["name"], e["args"]["value"])
                  for e in events if e["ph"] == "C"]
        self.assertEqual(tracks, [(5, 2, "load, thread 1 [%]", 1.5),
                                  (5, 2, "counter 3, thread 1", 2**32 + 2),
                                  (7, 65544, "load [%]", -1000.0)])

    def test_cut_and_damaged_text(self):
        events, errors = convert(HEADER + "5 EXCHEXT CPU 1 UPTO NOACT\n1 EXCHEXT CPU 1 DOWNTO 10\n"
                                 "5 EXCHEXT CPU x DOWNTO 10\nnonsense\n6 WHAT 3\n"
                                 "9 GLOBALOP 4 ON 1\n7 COLLOP ALL 4 COM 9 TIMES 1 DELTAS 1\n"
                                 "8 EXCHEXT CPU 1 DOWNTO 99\n",
                                 status=2)
        self.assertEqual(shown(events, "B", "E"), [(1, 1, "B", "main"), (8, 1, "B", "function 99"),
                                                   (8, 1, "E", "function 99"), (8, 1, "E", "main")])
        self.assertIn("lines that can't be read: 4", errors)
        self.assertIn("lines that aren't RKF: 1", errors)
        self.assertIn("ends of calls that never began: 1", errors)

    def test_what_is_no_rkf_leaves_no_file(self):
        with tempfile.TemporaryDirectory() as directory:
            target = pathlib.Path(directory, "out.json")
            for text in ("", "hello\n", "1 EXCHEXT CPU 1 DOWNTO 10\n", "CLKPERIOD nan\n"):
                _, errors = convert(text, "-o", target, status=1)
                self.assertIn("no CLKPERIOD", errors)
                self.assertFalse(target.exists())

    def test_memory_does_not_grow_with_events(self):
        # Of this process alone; the accounting of resources remembers the parent's size.
        script = ("import runpy, sys; sys.argv = ['t', '-o', '/dev/null']\n"
                  f"try: runpy.run_path({str(TOOL)!r}, run_name='__main__')\n"
                  "except SystemExit: pass\n"
                  "print(open('/proc/self/status').read().split('VmHWM:')[1].split()[0])")
        peaks = []
        for count in (500, 50000):
            lines = [HEADER]
            for k in range(count):
                lines.append(f"{k} EXCHEXT CPU 1 DOWNTO 10\n{k} SENDMSG 1 {k} FROM 1 TO 2 LEN 8\n")
                lines.append(f"{k} RECVMSG 1 {k} BY 2 FROM 1 LEN 8\n{k} EXCHEXT CPU 1 UPTO NOACT\n")
            done = subprocess.run([sys.executable, "-c", script], input="".join(lines).encode(),
                                  capture_output=True, timeout=120, check=True, cwd=TOOL.parent,
                                  env={"PYTHONPATH": str(TOOL.parent)})
            peaks.append(int(done.stdout))
        self.assertLess(peaks[1], peaks[0] + 4096)


if __name__ == "__main__":
    unittest.main()
