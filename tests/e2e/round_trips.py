#!/usr/bin/env python3
"""Takes extractions of the sample traces and checks that nothing changed on the way.

An extraction counts time in finer units than its source, and components stand in another order. So
records are compared by the ticks of their times, in any order where they happen at one time.

Usage as run_samples.py.
"""

import collections
import pathlib
import re
import shutil
import sys
import tempfile

from run_samples import INPUT, Failure, main

FORMATS = ("KLT", "SINGLEKLT")

# Operations of no known kind, and fields that the kind of an operation has no place for, don't
# survive an extraction.
LOSSY = ("collops", "layout_wild")

# Times that are exact to the tick as seconds in floating point, whatever the unit.
EXACT_SECONDS = 2**40

# What a slice doesn't hold, and what describes the clock.
LEFT_OUT = re.compile(r"INFO ACTSTATS |CLKPERIOD |EVENTBITS |DURATION ")

# Remarks on the whole run turn into comments at its start, which a window needn't include.
COMMENT = re.compile(r"C ")

DURATIONS = re.compile(r"(?<=DELTA )-?\d+|(?<=TIMES )[^A-Z]*(?:UNKNOWN [^A-Z]*)*"
                       r"|(?<=DELTAS )[^A-Z]*(?:UNKNOWN [^A-Z]*)*"
                       r"|(?<=GLOBALOP )[^S]* (-?\d+)(?= SCL|$)")


class Records:
    """The lines of a dump by tick and text, with the durations that each of them names."""

    def __init__(self, dump):
        lines = dump.decode("utf-8", "backslashreplace").splitlines()
        bits = [int(line.split()[1]) for line in lines if line.startswith("EVENTBITS ")]
        self.shift = bits[0] if bits else 0
        self.lines = collections.defaultdict(list)
        for line in lines:
            if not LEFT_OUT.match(line):
                self.add(line)

    def add(self, line):
        durations = []

        def take(match):
            whole = match.group(0)
            if match.group(1) is not None:  # of a GLOBALOP line, behind the rest
                durations.append(match.group(1))
                return whole[:-len(match.group(1))] + "~"
            durations.extend(whole.split())
            return "~ "

        time, _, rest = line.partition(" ")
        if time.removeprefix("-").isdigit():  # shown as signed
            key = (int(time) % 2**64 >> self.shift, DURATIONS.sub(take, rest))
        elif time == "UNKNOWN":  # a message without its send
            key = (-1, DURATIONS.sub(take, line))
        else:
            key = (-1, line)
        self.lines[key].append([d if d == "UNKNOWN" else int(d) >> self.shift for d in durations])


def same_duration(a, b):
    """Differences of times lose what lies below the tick in either unit."""
    return a == b or "UNKNOWN" not in (a, b) and abs(a - b) <= 1


def order(durations):
    return [(d == "UNKNOWN", 0 if d == "UNKNOWN" else d) for d in durations]


def compare_records(what, expected, actual, ignored=None):
    want, got = Records(expected).lines, Records(actual).lines
    for key in want.keys() | got.keys():
        if ignored is not None and ignored.match(key[1]):
            continue
        a, b = sorted(want.get(key, []), key=order), sorted(got.get(key, []), key=order)
        same = len(a) == len(b) and all(
            len(x) == len(y) and all(map(same_duration, x, y)) for x, y in zip(a, b))
        if not same:
            raise Failure(f"{what}: at tick {key[0]} \"{key[1]}\"\n expected {a}\n got {b}")


def extract(program, directory, source, target, form):
    done = program.run(directory, source, "--logfile-name", target, "--logfile-format", form)
    if done.returncode != 0:
        raise Failure(f"extraction as {form}: status {done.returncode}\n{done.stderr.decode()}")


def components(directory, name):
    """Bytes by suffix, but for the index, which names the other files, and the statistics, whose
    times are cut to other ticks."""
    return {
        file.name[len(name):]: file.read_bytes()
        for file in pathlib.Path(directory).glob(name + ".*") if file.suffix != ".sts"
    }


def dump(program, directory, name, *options):
    done = program.run(directory, name, "--dump", *options)
    if done.returncode != 0:
        raise Failure(f"dump of {name} {options}: status {done.returncode}\n{done.stderr.decode()}")
    return done.stdout


def check_extract(program, folder):
    """An extraction dumps as its source does, and extracting it again gives the same bytes."""
    with tempfile.TemporaryDirectory() as directory:
        folder.copy(directory)
        for form in FORMATS:
            extract(program, directory, INPUT, "e.klt", form)
            for options in ([], ["--matched-rkf"]) if folder.path.name not in LOSSY else ():
                compare_records(f"{form} {options}", dump(program, directory, INPUT, *options),
                                dump(program, directory, "e.klt", *options))
            extract(program, directory, "e.klt", "again.klt", "KLT")
            program.output(directory, "e.klt", "--convert", "parts.klt", "--logfile-format", "KLT")
            first, second = (components(directory, name) for name in ("parts.klt", "again.klt"))
            if not first or first.keys() != second.keys():
                raise Failure(f"{form}: components {sorted(first)} became {sorted(second)}")
            for suffix, data in first.items():
                if second[suffix] != data:
                    raise Failure(f"{form}: extracting again changes {suffix}")
            for file in pathlib.Path(directory).glob("[!t]*"):
                file.unlink()


def tenths(program, directory):
    """A request's window from one tenth of the run to another; None where times aren't exact."""
    header = dump(program, directory, INPUT).decode("utf-8", "backslashreplace")
    duration = re.search(r"^DURATION (\d+) (\d+)$", header, re.M)
    period = float(re.search(r"^CLKPERIOD (\S+)$", header, re.M).group(1))
    # The period is printed with six digits only: no such window may begin or end near a record.
    if duration is None or re.search(r"^CLKPERIOD 1E-\d+$", header, re.M) is None:
        return None
    # What is still open at the last event ends there in an extraction.
    first = int(duration.group(1))
    times = map(int, re.findall(r"^(\d+) ", header, re.M))
    last = max((time for time in times if time < EXACT_SECONDS), default=first)

    def window(begin, end, selection):
        cut = [(first + (last - first) * tenth // 10 + 0.5) * period for tenth in (begin, end)]
        return ["--request", f"{cut[0]:.15g}s:{cut[1]:.15g}s{selection}"]

    return window


def windows(folder, program, directory):
    """Requests in seconds: those of the folder, and some that cut the run into pieces."""
    for options, _ in folder.requests():
        if "--ticks" not in options:
            yield [option for option in options if option != "--dump"]
    window = tenths(program, directory)
    if window is not None:
        for tenth in range(0, 7, 2):
            for selection in ("", ",0:1", ",FUNCTIONS", ",MESSAGES,COUNTERS", ",SCOPES,COLLOPS"):
                yield window(tenth, tenth + 4, selection)


def check_windows(program, folder):
    """A window of an extraction is the window of its source, with seek points and without."""
    with tempfile.TemporaryDirectory() as directory:
        folder.copy(directory)
        extract(program, directory, INPUT, "e.klt", "KLT")
        bare = pathlib.Path(directory, "bare")
        bare.mkdir()
        for file in pathlib.Path(directory).glob("e.klt*"):
            if file.suffix != ".anc":
                shutil.copy(file, bare)
        for options in windows(folder, program, directory):
            expected = dump(program, directory, INPUT, *options)
            got = dump(program, directory, "e.klt", *options)
            compare_records(" ".join(options), expected, got, COMMENT)
            if dump(program, bare, "e.klt", *options) != got:
                raise Failure(f"{options}: other lines without seek points")


def spans(text):
    """How often each message and operation of a matched dump is there, whatever its durations."""
    return collections.Counter({key: len(all) for key, all in Records(text).lines.items()
                                if key[1].startswith(("ONETOONE ", "COLLOP "))})


def check_slices(program, folder):
    """A window of a slice, and of a slice of that, is the window of the source. A slice of two
    windows holds each message and operation of theirs once."""
    window = tenths(program, folder.path)
    if window is None:
        return
    for selection in ("", ",0:1", ",MESSAGES", ",COLLOPS,SCOPES", ",COUNTERS", ",1:2,MESSAGES"):
        with tempfile.TemporaryDirectory() as directory:
            folder.copy(directory)
            one, two = window(1, 4, selection), window(6, 8, selection)
            for source, target, request, form in ((INPUT, "a.klt", window(1, 9, selection), "KLT"),
                                                  ("a.klt", "b.klt", window(2, 8, selection),
                                                   "SINGLEKLT"),
                                                  (INPUT, "c.klt", one + two, "KLT")):
                program.output(directory, source, *request, "--logfile-name", target,
                               "--logfile-format", form)
            for mode in ([], ["--matched-rkf"]):
                for name, request in (("a.klt", window(1, 9, selection)),
                                      ("a.klt", window(4, 6, selection)),
                                      ("b.klt", window(2, 8, selection)),
                                      ("b.klt", window(3, 7, selection)), ("c.klt", one),
                                      ("c.klt", two)):
                    compare_records(f"{name} {mode} {request}",
                                    dump(program, directory, INPUT, *mode, *request),
                                    dump(program, directory, name, *mode, *request), COMMENT)
            expected = spans(dump(program, directory, INPUT, "--matched-rkf", *one))
            expected |= spans(dump(program, directory, INPUT, "--matched-rkf", *two))
            got = spans(dump(program, directory, "c.klt", "--matched-rkf"))
            if got != expected:
                raise Failure(f"{one} {two}: {got - expected} added, {expected - got} missing")


def whole(folder):
    return folder.expected("dump") is not None


def faithful(folder):
    return whole(folder) and folder.path.name not in LOSSY


MODES = {
    "extract": (whole, check_extract),
    "extract-windows": (faithful, check_windows),
    "extract-slices": (lambda folder: faithful(folder) and not folder.path.name.startswith("raw_"),
                       check_slices),
}

if __name__ == "__main__":
    sys.exit(main(MODES, __doc__))
