#!/usr/bin/env python3
"""Runs klttool on folders of sample traces and compares what comes out, byte for byte.

  run_samples.py --program build/release/klttool                       all of tests/data
  run_samples.py --program P --samples DIR --mode dump --mode files    some checks of another directory
  run_samples.py --program P --only stencil --only ring                some folders

Each check has a mode; a folder takes part in a mode if it holds what the mode compares with. What the
files of a folder mean is told in tests/data/README.md.
"""

import argparse
import difflib
import hashlib
import itertools
import json
import os
import pathlib
import re
import shlex
import shutil
import struct
import subprocess
import sys
import tempfile

import summary_reader

TIMEOUT = 120
INPUT = "t.klt"

# Messages that valid traces draw: what is being written, the stamps of evbits0 and evbits14 that are
# beyond the internal time, a scope that `threads` leaves without having entered it, and the sizes of
# messages in `stencil`.
EXPECTED_MESSAGES = (b"Writing tracefile ",
                     b"klttool ERROR: time stamp 2251799813685255 exceeds maximum number of clock ",
                     b"klttool ERROR: time stamp 10691368 exceeds maximum number of events ",
                     b"klttool ERROR: time stamp 11445032 exceeds maximum number of events ",
                     b"klttool ERROR: Leaving scope 9/99 which was never entered.",
                     b"klttool WARNING: sums of bytes in the summary data have passed 32 bits, ")


class Failure(Exception):
    """A check that failed, with what was wrong as its text."""


class Folder:
    """One sample trace and what is expected of it."""

    def __init__(self, path):
        self.path = path
        same = path / "same_as"
        self.places = [path]
        if same.exists():
            self.places.append(path.parent / same.read_text().strip())

    def expected(self, what):
        """The file expected.`what`, or None."""
        for place in self.places:
            file = place / f"expected.{what}"
            if file.exists():
                return file
        return None

    def requests(self):
        """Pairs of options and file with the expected output."""
        file = self.path / "requests.txt"
        if not file.exists():
            return
        for line in file.read_text().splitlines():
            number, *options = shlex.split(line)
            yield options, self.path / f"expected.request.{number}"

    def copy(self, directory, without=()):
        """Copies the trace alone; leaves out names that end with one of `without`."""
        for file in self.path.iterdir():
            if file.name.startswith(INPUT) and not file.name.endswith(tuple(without) or "\0"):
                shutil.copy(file, directory)


class Program:
    """The program under test, run with a clean environment."""

    def __init__(self, path):
        self.path = str(pathlib.Path(path).resolve())

    def run(self, directory, *options, **environment):
        clean = {k: v for k, v in os.environ.items() if not k.startswith(("RK_", "KLT", "PAL_"))}
        # A sanitizer's finding must not look like one of the program's own statuses.
        clean |= {"ASAN_OPTIONS": "abort_on_error=1", "UBSAN_OPTIONS": "abort_on_error=1"}
        try:
            return subprocess.run([self.path, *options], cwd=directory, env=clean | environment,
                                  stdin=subprocess.DEVNULL, capture_output=True, timeout=TIMEOUT,
                                  check=False)
        except subprocess.TimeoutExpired:
            raise Failure(f"{show(options, environment)}: no end after {TIMEOUT} s") from None

    def output(self, directory, *options, **environment):
        """Standard output of a run that must succeed without complaints."""
        done = self.run(directory, *options, **environment)
        messages = [line for line in done.stderr.splitlines(True)
                    if not line.startswith(EXPECTED_MESSAGES)]
        if done.returncode != 0 or messages:
            raise Failure(f"{show(options, environment)}: status {done.returncode}, "
                          f"standard error:\n{text(b''.join(messages[:20]))}")
        return done.stdout


def show(options, environment):
    return shlex.join([f"{k}={v}" for k, v in environment.items()] + ["klttool", *options])


def text(data):
    return data.decode("utf-8", "backslashreplace")


def compare(what, expected, actual):
    """Fails with the first lines that differ."""
    if expected == actual:
        return
    want, got = text(expected).splitlines(True), text(actual).splitlines(True)
    lines = difflib.unified_diff(want, got, "expected", "actual", n=2) if max(
        len(want), len(got)) < 5000 else first_difference(want, got)
    shown = "".join(line if line.endswith("\n") else line + "\n"
                    for line in itertools.islice(lines, 30))
    raise Failure(f"{what}: output differs\n{shown}")


def first_difference(want, got):
    at = next((i for i, (a, b) in enumerate(zip(want, got)) if a != b), min(len(want), len(got)))
    yield f"line {at + 1}\n"
    yield from ("-" + line for line in want[at:at + 3])
    yield from ("+" + line for line in got[at:at + 3])


GENERIC = ({"KLT_GENERIC_ONLY": "0"}, {"KLT_GENERIC_ONLY": "1"})
DUMPS = {"dump": [], "matched": ["--matched-rkf"], "noext": ["--extended-rkf", "off"]}


def check_output(what, options, environments=GENERIC, shape=lambda output: output):
    """A mode that compares one run with expected.`what`."""

    def check(program, folder):
        expected = folder.expected(what)
        for environment in environments:
            output = program.output(folder.path, INPUT, *options, **environment)
            compare(show([INPUT, *options], environment), expected.read_bytes(), shape(output))

    return (lambda folder: folder.expected(what) is not None), check


def sorted_lines(output):
    return b"".join(sorted(output.splitlines(True)))


def check_unordered(program, folder):
    """Stream by stream there are as many lines as in time order."""
    for what, options in DUMPS.items():
        expected = folder.expected(what)
        if expected is None:
            continue
        output = program.output(folder.path, INPUT, "--dump", *options, KLTT_SERIAL="0")
        want, got = (data.count(b"\n") for data in (expected.read_bytes(), output))
        if want != got:
            raise Failure(f"KLTT_SERIAL=0, {what}: {got} lines, expected {want}")


def check_requests(program, folder, directory=None):
    for environment in GENERIC:
        for options, expected in folder.requests():
            output = program.output(directory or folder.path, INPUT, *options, **environment)
            compare(show([INPUT, *options], environment), expected.read_bytes(), output)


def check_requests_without_anchors(program, folder):
    """Anchors make a window cheap and change nothing else."""
    with tempfile.TemporaryDirectory() as directory:
        folder.copy(directory, without=[".anc"])
        check_requests(program, folder, directory)


def check_checksum(program, folder):
    expected = folder.expected("dump.sha256").read_text().split()[0]
    output = program.output(folder.path, INPUT, "--dump")
    actual = hashlib.sha256(output).hexdigest()
    if actual != expected:
        raise Failure(f"checksum {actual}, expected {expected}; {len(output.splitlines())} lines")


def check_broken(program, folder):
    """Status, standard error and standard output of a damaged trace as expected.json says."""
    expected = json.loads(folder.expected("json").read_text())
    done = program.run(folder.path, INPUT, "--dump")
    errors = text(done.stderr)
    if "status" in expected and done.returncode != expected["status"]:
        raise Failure(f"status {done.returncode}, expected {expected['status']}:\n{errors}")
    if done.returncode < 0 or "status" not in expected and done.returncode not in (0, 1, 2, 3):
        raise Failure(f"status {done.returncode}:\n{errors}")
    if "stderr" in expected:
        compare("standard error", "".join(f"{line}\n" for line in expected["stderr"]).encode(),
                done.stderr)
    for part in expected.get("stderr_contains", []):
        if part not in errors:
            raise Failure(f"standard error lacks \"{part}\":\n{errors}")
    if "stdout" in expected:
        other = expected["stdout"].removeprefix("same as ")
        compare("standard output", (folder.path / other).read_bytes(), done.stdout)


def check_convert(program, folder):
    """A single file dumps the same, and its components are the bytes that went in."""
    with tempfile.TemporaryDirectory() as directory:
        folder.copy(directory)
        program.output(directory, INPUT, "--convert", "one.klt", "--logfile-format", "SINGLEKLT")
        dump = program.output(directory, "one.klt", "--dump")
        compare("dump of the single file", folder.expected("dump").read_bytes(), dump)
        program.output(directory, "one.klt", "--convert", "two.klt", "--logfile-format", "KLT")
        parts = [file.name for file in folder.path.glob(INPUT + "*")]
        for name in parts if len(parts) > 1 else []:
            copy = pathlib.Path(directory) / name.replace(INPUT, "two.klt", 1)
            if copy.read_bytes() != (folder.path / name).read_bytes():
                raise Failure(f"{name} is not the same any more")
        dump = program.output(directory, "two.klt", "--dump")
        compare("dump of the copy", folder.expected("dump").read_bytes(), dump)


def summarise(program, folder, directory):
    """Sums the trace up in `directory`; the common part of the names of the files."""
    folder.copy(directory)
    program.output(directory, INPUT, "--sumdata", "x.klt", "--logfile-format", "KLT")
    return pathlib.Path(directory) / "x.klt"


def check_summary(program, folder):
    """The five summary files."""
    with tempfile.TemporaryDirectory() as directory:
        base = summarise(program, folder, directory)
        for kind in ("fnc", "cop", "msg", "cnt", "rep"):
            made = pathlib.Path(f"{base}.sum.{kind}").read_bytes()
            expected = folder.expected(f"sum.{kind}").read_bytes()
            if kind in ("cop", "cnt"):
                made, expected = (summary_reader.without_nan_signs(kind, data)
                                  for data in (made, expected))
            if made != expected:
                raise Failure(f".sum.{kind} differs from byte "
                              f"{len(os.path.commonprefix([made, expected]))} on")


def check_summary_sums(program, folder):
    """All bins add up to the events of the trace."""
    with tempfile.TemporaryDirectory() as directory:
        base = summarise(program, folder, directory)
        try:
            summary_reader.check(base, folder.expected("matched").read_bytes())
        except summary_reader.Wrong as wrong:
            raise Failure(str(wrong)) from None


def check_merge_summary(program, folder):
    """What is summed up while it is merged is what the merged trace holds, wherever the bins end."""
    told = folder.expected("matched").read_bytes()
    declared = int(re.search(rb"^DURATION 0 (\d+)$", told, re.MULTILINE)[1])
    last = max(int(time) for time in re.findall(rb"^(\d+) ", told, re.MULTILINE))
    for end in (declared, last + 4, last, last // 3):
        with tempfile.TemporaryDirectory() as directory:
            folder.copy(directory)
            definitions = pathlib.Path(directory) / f"{INPUT}.dcl"
            parts = definitions.read_bytes().split(struct.pack(">Q", declared))
            if len(parts) != 2:
                raise Failure("the end of the run isn't in one place")
            definitions.write_bytes(struct.pack(">Q", end).join(parts))
            program.output(directory, INPUT, "--merge", "m.klt", "--sumdata", "--logfile-format",
                           "KLT", RK_VERBOSE="0")
            compare_with_records(directory, summary_reader.Trace(
                told.replace(b"DURATION 0 %d\n" % declared, b"DURATION 0 %d\n" % end)))


def compare_with_records(directory, trace):
    messages, operations = {}, {}
    bits = trace.event_bits
    for time, _, (sender, delta, receiver, comm, size, tag, *rest) in records(
            component(directory, "m.klt", "msg"), MESSAGE_ROWS):
        sums = messages.setdefault((sender, receiver, comm, size, tag, *rest[-2:]), [0] * 4)
        for i, value in enumerate((1, time >> bits, delta >> bits, size)):
            sums[i] += value
        sums[3] &= summary_reader.MASK
    for _, row, fields in records(component(directory, "m.klt", "cop"), COLLECTIVE_ROWS):
        key = (fields[-2], fields[-3], fields[0] if row in ROOTED_ROWS else summary_reader.MASK)
        operations[key] = operations.get(key, 0) + 1
    base = pathlib.Path(directory) / "m.klt"
    try:
        summary_reader.check_calls(base, trace)
        summary_reader.check_samples(base, trace)
        summary_reader.expect("messages", messages, dict(summary_reader.messages(base)))
        found = {key: sums[0] for key, sums in summary_reader.collectives(base).items()}
        summary_reader.expect("collective operations", operations, found)
    except summary_reader.Wrong as wrong:
        raise Failure(str(wrong)) from None


def has_sums(folder):
    """Merged traces, unless their text leaves a time open."""
    text_of = folder.expected("matched")
    return (not folder.path.name.startswith("raw_") and text_of is not None
            and b"UNKNOWN" not in text_of.read_bytes())


# Fields behind the number of the rows that a merge writes messages in: time step, sender, receive
# time, receiver, communicator, size, tag, then locations and functions.
MESSAGE_ROWS = {57: (">HIqIHIHII", 0), 58: (">HIqIHIHIIII", 0), 59: (">HIqIHIIII", 0),
                60: (">HIqIHIIIIII", 0)}
# The same of collective operations up to the count of members, and the bytes of each member.
COLLECTIVE_ROWS = {4: (">HHBH", 20), 6: (">HHBH", 28), 8: (">HIIHBH", 24), 56: (">HIIHBH", 24)}
ROOTED_ROWS = (8, 56)
TIME_ROWS = {1: ">I", 2: ">Q"}
UNKNOWN_SIDE = (-2**63, -2**63 + 1)


def records(data, rows):
    """Time, number and fields of each record of a component."""
    at = time = 0
    while at < len(data):
        number = data[at]
        at += 1
        form, per_member = rows[number] if number in rows else (TIME_ROWS[number], 0)
        values = struct.unpack_from(form, data, at)
        at += struct.calcsize(form)
        time += values[0]
        if number in TIME_ROWS:
            continue
        at += values[-1] * per_member
        yield time, number, values[1:]


def ordered(what, times):
    times = list(times)
    for before, after in itertools.pairwise(times):
        if after < before:
            raise Failure(f"{what}: time {after} behind {before}")


def component(directory, name, suffix):
    file = pathlib.Path(directory) / f"{name}.{suffix}"
    return file.read_bytes() if file.exists() else b""


def without_communication(dump):
    """The lines that a merge copies; the count of events is another one afterwards."""
    kinds = (b"SENDMSG", b"RECVMSG", b"GLOBALOP")
    return b"".join(sorted(line for line in dump.splitlines(True)
                           if line.split()[1:2] not in [[kind] for kind in kinds]
                           and b"number of events: " not in line))


def check_merge(program, folder):
    """Every storage form of a raw trace gives the same merged trace, and that holds what it should."""
    with tempfile.TemporaryDirectory() as directory:
        folder.copy(directory)
        quiet = {"RK_VERBOSE": "0"}
        program.output(directory, INPUT, "--merge", "m.klt", "--logfile-format", "KLT", **quiet)
        messages = list(records(component(directory, "m.klt", "msg"), MESSAGE_ROWS))
        operations = list(records(component(directory, "m.klt", "cop"), COLLECTIVE_ROWS))
        ordered("messages", (time for time, *_ in messages))
        ordered("collective operations", (time for time, *_ in operations))
        check_messages(folder, messages)
        check_truth(folder, messages, operations)
        check_profiles(program, directory, messages)
        check_merged_dump(program, directory)
        check_merge_forms(program, directory, quiet)


def check_messages(folder, messages):
    expected = folder.expected("messages")
    if expected is None:
        return
    lines = []
    for time, _, (sender, receive, receiver, comm, size, tag, *rest) in messages:
        fields = (time, receive, sender, receiver, comm, tag, size, *rest[-2:])
        lines.append(" ".join(map(str, fields)) + "\n")
    compare("messages", sorted_lines(expected.read_bytes()), "".join(sorted(lines)).encode())


def check_truth(folder, messages, operations):
    file = folder.path / "truth.json"
    if not file.exists():
        return
    truth = json.loads(file.read_text())
    unmatched = sum(fields[1] in UNKNOWN_SIDE for _, _, fields in messages)
    got = {"sends": len(messages), "collectives": len(operations), "unmatched": unmatched}
    want = {"sends": truth["sends"], "collectives": truth["collectives"], "unmatched": 0}
    if got != want:
        raise Failure(f"{got}, expected {want}")


def check_profiles(program, directory, messages):
    """The profiles count the complete messages."""
    want = {}
    for _, _, (sender, receive, receiver, comm, size, tag, *rest) in messages:
        if receive not in UNKNOWN_SIDE:
            key = ":".join(map(str, (sender, receiver, *rest[-2:], tag, comm, size)))
            want.setdefault(key, []).append(receive)
    want = {f"INFO ONE2ONE_PROFILE {key}:{len(t)}:{min(t)}:{max(t)}:{sum(t)}"
            for key, t in want.items()}
    output = text(program.output(directory, "m.klt", "--print-statistics"))
    got = {line for line in output.splitlines() if line.startswith("INFO ONE2ONE_PROFILE ")}
    if got != want:
        raise Failure(f"message profiles differ: {sorted(got ^ want)[:6]}")


def check_merged_dump(program, directory):
    """What isn't communication is copied; windows agree with and without seek points."""
    raw, merged = (program.output(directory, name, "--dump") for name in (INPUT, "m.klt"))
    compare("copied lines", without_communication(raw), without_communication(merged))
    times = [int(line.split()[0]) for line in merged.splitlines() if line[:1].isdigit()]
    middle = times[len(times) // 2]
    window = ["--dump", "--ticks", "--request", f"{middle}:{times[3 * len(times) // 4]}"]
    with_anchors = program.output(directory, "m.klt", *window)
    for file in pathlib.Path(directory).glob("m.klt*.anc"):
        file.rename(file.with_name("kept." + file.name))
    compare("window without seek points", with_anchors, program.output(directory, "m.klt", *window))
    for file in pathlib.Path(directory).glob("kept.*"):
        file.rename(file.with_name(file.name.removeprefix("kept.")))


def check_merge_forms(program, directory, quiet):
    """From and to a single file."""
    trace = {file.name: file.read_bytes() for file in pathlib.Path(directory).glob("m.klt*")}
    program.output(directory, INPUT, "--convert", "one.klt", "--logfile-format", "SINGLEKLT")
    program.output(directory, "one.klt", "--merge", "single.klt", "--logfile-format", "SINGLEKLT",
                   **quiet)
    for name in trace:
        (pathlib.Path(directory) / name).unlink()
    program.output(directory, "single.klt", "--convert", "m.klt", "--logfile-format", "KLT")
    for name, contents in trace.items():
        if (pathlib.Path(directory) / name).read_bytes() != contents:
            raise Failure(f"{name} is another one by way of single files")


MODES = {
    **{what: check_output(what, ["--dump", *options]) for what, options in DUMPS.items()},
    "unordered": (lambda folder: folder.expected("dump") is not None, check_unordered),
    "requests": (lambda folder: any(folder.requests()), check_requests),
    "requests-without-anchors": (lambda folder: any(folder.requests()),
                                 check_requests_without_anchors),
    "checksum": (lambda folder: folder.expected("dump.sha256") is not None, check_checksum),
    "broken": (lambda folder: folder.expected("json") is not None, check_broken),
    "files": check_output("files", ["--print-files"], [{}], sorted_lines),
    "threads": check_output("threads", ["--print-threads"]),
    "statistics": check_output("statistics", ["--print-statistics"]),
    "reports": check_output("reports", ["--print-reports"]),
    "convert": (lambda folder: folder.expected("dump") is not None, check_convert),
    "merge": (lambda folder: folder.expected("messages") is not None
              or (folder.path / "truth.json").exists(), check_merge),
    "merge-summary": (lambda folder: folder.expected("messages") is not None, check_merge_summary),
    "summary": (lambda folder: folder.expected("sum.fnc") is not None, check_summary),
    "summary-sums": (has_sums, check_summary_sums),
}


def folders_of(samples, only):
    for path in sorted(samples.iterdir()):
        if (path / INPUT).exists() and (not only or path.name in only):
            yield Folder(path)


def main(modes, description):
    default = pathlib.Path(__file__).resolve().parent.parent / "data"
    parser = argparse.ArgumentParser(description=description,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--program", help="the klttool to run")
    parser.add_argument("--samples", type=pathlib.Path, default=default, help="directory of folders")
    parser.add_argument("--only", action="append", metavar="FOLDER", help="folders, all if not given")
    parser.add_argument("--mode", action="append", choices=modes, help="modes, all if not given")
    parser.add_argument("--list", action="store_true", help="print folders and modes, run nothing")
    arguments = parser.parse_args()

    ran = failed = 0
    for folder in folders_of(arguments.samples, arguments.only):
        for mode in arguments.mode or modes:
            applies, check = modes[mode]
            if not applies(folder):
                continue
            if arguments.list:
                print(folder.path.name, mode)
                continue
            if not arguments.program:
                parser.error("--program is missing")
            ran += 1
            try:
                check(Program(arguments.program), folder)
            except Failure as failure:
                failed += 1
                print(f"{folder.path.name}, {mode}: {failure}\n")
    if arguments.list:
        return 0
    print(f"{ran - failed} of {ran} checks passed")
    return 1 if failed or not ran else 0


if __name__ == "__main__":
    sys.exit(main(MODES, __doc__))
