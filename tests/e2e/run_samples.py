#!/usr/bin/env python3
"""Runs klttool on folders of sample traces and compares the output byte for byte. Also tests
failures.

  run_samples.py --program build/release/klttool                   all of tests/data
  run_samples.py --program P --only stencil --only ring            some folders
  run_samples.py --program P --samples DIR --check texts           one check of another directory

A check uses the folders that contain its expected output; tests/data/README.md describes their files.
"""

import argparse
import json
import pathlib
import sys
import tempfile

import failures
import merges
import round_trips
import sums
from harness import DATA, INPUT, Failure, Folder, Place, compare, expect, sorted_lines, text_of

DUMPS = {"dump": "--dump", "matched": "--dump --matched-rkf", "noext": "--dump --extended-rkf off"}
TEXTS = DUMPS | {what: f"--print-{what}" for what in ("threads", "statistics", "reports")}
FAST = ("0", "1", "2")  # shortcuts never, where they pay, and always


def check_texts(place):
    for what, options in TEXTS.items():
        expected = place.folder.expected(what)
        for fast in FAST if expected is not None else ():
            compare(f"{what}, KLT_FAST={fast}", expected,
                    place.run(options, environment={"KLT_FAST": fast}))
        if what in DUMPS and expected is not None:
            lines = place.run(options, environment={"KLTT_SERIAL": "0"}).count(b"\n")
            expect(f"lines of {what}, stream by stream", expected.count(b"\n"), lines)
    if place.folder.expected("files") is not None:
        compare("files", place.folder.expected("files"), sorted_lines(place.run("--print-files")))


def check_requests(place):
    """Windows are the same with and without anchors."""
    for anchors in ("with anchors", "without anchors"):
        for options, expected in place.folder.requests():
            for fast in FAST[:2]:  # each takes minutes under sanitizers
                compare(f"{options} {anchors}, KLT_FAST={fast}", expected,
                        place.run(options, environment={"KLT_FAST": fast}))
        place.remove("*.anc")


def check_damage(place):
    """Each entry of damage.json changes a file and states the resulting status and output."""
    dump = place.folder.expected("dump")
    for case in json.loads((place.folder.path / "damage.json").read_text()):
        place.restore()
        file = place.path / case["file"]
        data = file.read_bytes()
        at, new = case.get("at", 0), bytes.fromhex(case.get("bytes", ""))
        file.write_bytes((data[:at] + new + data[at + len(new):])[:case.get("length")])
        if case.get("remove"):
            file.unlink()
        done = place.finished("--dump")
        errors = [line for line in text_of(done.stderr).splitlines()
                  if not line.startswith("Writing tracefile ")]
        expect(f"{case['name']}: status, lines of output, standard error",
               (case["status"], case.get("lines", dump.count(b"\n")), case["stderr"]),
               (done.returncode, done.stdout.count(b"\n"), errors))
        if case["status"] == 0:
            compare(f"{case['name']}: standard output", dump, done.stdout)
    place.restore()


def check_convert(place):
    """A single file has the same dump, and converting it back gives the same components."""
    for source, target, form in ((INPUT, "one.klt", "SINGLEKLT"), ("one.klt", "two.klt", "KLT")):
        place.run(f"--convert {target} --logfile-format {form}", name=source)
        compare(f"dump of {target}", place.folder.expected("dump"), place.run("--dump", name=target))
    for part, data in place.before.items() if len(place.before) > 1 else ():
        compare(part, data, place.files("two.klt")[part])


def check_summary(place):
    """The sums of the summary files, and their bytes if the folder contains them."""
    place.run("--sumdata x.klt --logfile-format KLT")
    place.run("--sumdata x.klt --logfile-format KLT", 1, "x.klt.sum.fnc: File exists")  # unchanged
    matched = place.folder.expected("matched")
    if b"UNKNOWN" not in matched:  # sums need all times
        sums.check_sums(place.path / "x.klt", *sums.events(matched))
    # A slice of the whole trace has its number of events and so its bins.
    if place.folder.name == "ring":
        place.run("--logfile-name slice.klt --logfile-format KLT")
        place.run("--sumdata", name="slice.klt")
        expect("width of a slice's bins", *(place.files(name)[".sum.fnc"][8:16]
                                            for name in ("x.klt", "slice.klt")))
    for word in ("fnc", "cop", "msg", "cnt", "rep") if place.folder.expected("sum.fnc") else ():
        # The sign of a NaN isn't defined.
        sums.compare_files(f".sum.{word}", *(
            data.replace(b"\0\0\0\0\0\0\xf8\xff", b"\0\0\0\0\0\0\xf8\x7f")
            for data in (place.folder.expected(f"sum.{word}"), place.files("x.klt")[f".sum.{word}"])))


def expects(what):
    return lambda folder: folder.expected(what) is not None


CHECKS = {
    "texts": (expects("dump"), check_texts),
    "requests": (lambda folder: any(folder.requests()), check_requests),
    "damage": (lambda folder: (folder.path / "damage.json").exists(), check_damage),
    "convert": (expects("dump"), check_convert),
    "summary": (lambda folder: folder.expected("dump") and not folder.expected("messages"),
                check_summary),
    "merge": (expects("messages"), merges.check_merge),
    "merge-summary": (expects("messages"), merges.check_merge_summary),
} | round_trips.CHECKS | failures.CHECKS


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--program", required=True, help="the klttool to run")
    parser.add_argument("--samples", type=pathlib.Path, default=DATA, help="directory of folders")
    parser.add_argument("--only", action="append", metavar="FOLDER", help="folders, all if not given")
    parser.add_argument("--check", action="append", choices=CHECKS, help="checks, all if not given")
    arguments = parser.parse_args()
    ran = failed = 0
    for path in sorted(file.parent for file in arguments.samples.glob(f"*/{INPUT}")):
        folder = Folder(path)
        for name in arguments.check or CHECKS:
            applies, check = CHECKS[name]
            if arguments.only and path.name not in arguments.only or not applies(folder):
                continue
            ran += 1
            with tempfile.TemporaryDirectory() as directory:
                try:
                    place = Place(arguments.program, folder, directory)
                    check(place)
                    place.check_input()
                except Failure as failure:
                    failed += 1
                    print(f"{path.name}, {name}: {failure}\n")
    print(f"{ran - failed} of {ran} checks passed")
    return 1 if failed or not ran else 0


if __name__ == "__main__":
    sys.exit(main())
