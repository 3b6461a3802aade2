#!/usr/bin/env python3
"""Runs klttool on folders of sample traces and compares what comes out, byte for byte.

  run_samples.py --program build/release/klttool                   all of tests/data
  run_samples.py --program P --only stencil --only ring            some folders
  run_samples.py --program P --samples DIR --check texts           one check of another directory

A folder takes part in a check if it holds what is compared with; tests/data/README.md says what its
files mean.
"""

import argparse
import json
import pathlib
import sys
import tempfile

import merges
import round_trips
import summary_sums
from harness import DATA, INPUT, Failure, Folder, Program, compare, expect, sorted_lines, text_of

DUMPS = {"dump": ["--dump"], "matched": ["--dump", "--matched-rkf"],
         "noext": ["--dump", "--extended-rkf", "off"]}
TEXTS = DUMPS | {what: [f"--print-{what}"] for what in ("threads", "statistics", "reports")}
GENERIC = ("0", "1")


def check_texts(program, folder):
    for what, options in TEXTS.items():
        for generic in GENERIC if folder.expected(what) is not None else ():
            compare(f"{what}, KLT_GENERIC_ONLY={generic}", folder.expected(what),
                    program.output(folder.path, INPUT, *options, KLT_GENERIC_ONLY=generic))
    if folder.expected("files") is not None:
        compare("files", folder.expected("files"),
                sorted_lines(program.output(folder.path, INPUT, "--print-files")))


def check_unordered(program, folder):
    """Stream by stream there are as many lines as in time order."""
    for what, options in DUMPS.items():
        if folder.expected(what) is not None:
            output = program.output(folder.path, INPUT, *options, KLTT_SERIAL="0")
            expect(f"lines of {what}", *(data.count(b"\n") for data in (folder.expected(what), output)))


def check_requests(program, folder):
    """Anchors make a window cheap and change nothing else."""
    with tempfile.TemporaryDirectory() as directory:
        folder.copy(directory)
        for anchors in ("with anchors", "without anchors"):
            for options, expected in folder.requests():
                for generic in GENERIC:
                    output = program.output(directory, INPUT, *options, KLT_GENERIC_ONLY=generic)
                    compare(f"{options} {anchors}, KLT_GENERIC_ONLY={generic}", expected, output)
            for file in pathlib.Path(directory).glob("*.anc"):
                file.unlink()


def check_damage(program, folder):
    """Each entry of damage.json changes a file; status and output have to be as it says."""
    for case in json.loads((folder.path / "damage.json").read_text()):
        with tempfile.TemporaryDirectory() as directory:
            folder.copy(directory)
            file = pathlib.Path(directory) / case["file"]
            data = file.read_bytes()
            at, new = case.get("at", 0), bytes.fromhex(case.get("bytes", ""))
            file.write_bytes((data[:at] + new + data[at + len(new):])[:case.get("length")])
            if case.get("remove"):
                file.unlink()
            done = program.run(directory, INPUT, "--dump")
        errors = [line for line in text_of(done.stderr).splitlines()
                  if not line.startswith("Writing tracefile ")]
        lines = done.stdout.count(b"\n")
        all_lines = folder.expected("dump").count(b"\n")
        expect(f"{case['name']}: status, lines of output, standard error",
               (case["status"], case.get("lines", all_lines), case["stderr"]),
               (done.returncode, lines, errors))
        if case["status"] == 0:
            compare(f"{case['name']}: standard output", folder.expected("dump"), done.stdout)


def check_convert(program, folder):
    """A single file dumps the same, and its components are the bytes that went in."""
    with tempfile.TemporaryDirectory() as directory:
        folder.copy(directory)
        for source, target, form in ((INPUT, "one.klt", "SINGLEKLT"), ("one.klt", "two.klt", "KLT")):
            program.output(directory, source, "--convert", target, "--logfile-format", form)
            compare(f"dump of {target}", folder.expected("dump"),
                    program.output(directory, target, "--dump"))
        parts = [file.name for file in folder.path.glob(INPUT + "*")]
        for name in parts if len(parts) > 1 else []:
            copy = pathlib.Path(directory) / name.replace(INPUT, "two.klt", 1)
            compare(name, (folder.path / name).read_bytes(), copy.read_bytes())


def check_summary(program, folder):
    """The summary files, byte for byte where they are expected, and their sums."""
    with tempfile.TemporaryDirectory() as directory:
        folder.copy(directory)
        program.output(directory, INPUT, "--sumdata", "x.klt", "--logfile-format", "KLT")
        base = pathlib.Path(directory) / "x.klt"
        for word in summary_sums.WORDS if folder.expected("sum.fnc") is not None else ():
            # Nothing determines the sign of what isn't a number.
            same = [data.replace(b"\0\0\0\0\0\0\xf8\xff", b"\0\0\0\0\0\0\xf8\x7f")
                    for data in (folder.expected(f"sum.{word}"),
                                 pathlib.Path(f"{base}.sum.{word}").read_bytes())]
            compare(f".sum.{word}", *same)
        if b"UNKNOWN" not in folder.expected("matched"):  # a time that is open
            summary_sums.check(base, summary_sums.Text(folder.expected("matched")))


def expects(what):
    return lambda folder: folder.expected(what) is not None


def is_merged(folder):
    return folder.expected("matched") is not None and not folder.name.startswith("raw_")


CHECKS = {
    "texts": (expects("dump"), check_texts),
    "unordered": (expects("dump"), check_unordered),
    "requests": (lambda folder: any(folder.requests()), check_requests),
    "damage": (lambda folder: (folder.path / "damage.json").exists(), check_damage),
    "convert": (expects("dump"), check_convert),
    "summary": (is_merged, check_summary),
    "merge": (expects("messages"), merges.check_merge),
    "merge-summary": (expects("messages"), merges.check_merge_summary),
} | round_trips.CHECKS


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
            try:
                check(Program(arguments.program), folder)
            except Failure as failure:
                failed += 1
                print(f"{path.name}, {name}: {failure}\n")
    print(f"{ran - failed} of {ran} checks passed")
    return 1 if failed or not ran else 0


if __name__ == "__main__":
    sys.exit(main())
