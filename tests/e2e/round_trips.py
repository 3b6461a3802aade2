"""Takes extractions of the sample traces and checks that nothing changed on the way.

An extraction counts time in finer units than its source, and components stand in another order. So
records are compared by the ticks of their times, in any order where they happen at one time.
"""

import collections
import pathlib
import re
import shutil
import tempfile

from harness import INPUT, Failure, compare, expect, text_of

FORMATS = ("KLT", "SINGLEKLT")
MATCHED = ["--matched-rkf"]

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

# Parts of a trace; each folder takes some of them in turn.
SELECTIONS = ("0:1", "MESSAGES", "COLLOPS,SCOPES", "FUNCTIONS", "MESSAGES,COUNTERS",
              "1:2,MESSAGES", "COUNTERS", "1:3,COLLOPS,SCOPES,MESSAGES")


def some_selections(folder, count):
    """The whole trace and, depending on the name of the folder, `count` parts of it."""
    first = sum(folder.name.encode())
    return ["", *("," + SELECTIONS[(first + i) % len(SELECTIONS)] for i in range(count))]


def records(dump):
    """The lines of a dump by tick and text, with the durations that each of them names."""
    lines = text_of(dump).splitlines()
    shift = next((int(line.split()[1]) for line in lines if line.startswith("EVENTBITS ")), 0)
    found = collections.defaultdict(list)
    for line in lines:
        durations = []

        def take(match, durations=durations):
            whole = match.group(0)
            if match.group(1) is not None:  # of a GLOBALOP line, after the rest
                durations.append(match.group(1))
                return whole[:-len(match.group(1))] + "~"
            durations.extend(whole.split())
            return "~ "

        if LEFT_OUT.match(line):
            continue
        time, _, rest = line.partition(" ")
        if time.removeprefix("-").isdigit():  # shown as signed
            key = (int(time) % 2**64 >> shift, DURATIONS.sub(take, rest))
        elif time == "UNKNOWN":  # a message without its send
            key = (-1, DURATIONS.sub(take, line))
        else:
            key = (-1, line)
        # An unknown duration comes before all others.
        found[key].append([(0, 0) if d == "UNKNOWN" else (1, int(d) >> shift) for d in durations])
    return {key: sorted(durations) for key, durations in found.items()}


def same_durations(a, b):
    """Differences of times lose what lies below the tick in either unit."""
    return len(a) == len(b) and all(x[0] == y[0] and abs(x[1] - y[1]) <= 1 for x, y in zip(a, b))


def compare_records(what, expected, actual, ignored=None):
    want, got = records(expected), records(actual)
    for key in want.keys() | got.keys():
        a, b = want.get(key, []), got.get(key, [])
        ignore = ignored is not None and ignored.match(key[1])
        if not ignore and not (len(a) == len(b) and all(map(same_durations, a, b))):
            raise Failure(f"{what}: at tick {key[0]} \"{key[1]}\"\n expected {a}\n got {b}")


class Place:
    """A directory with a copy of a sample; dumps of it are kept."""

    def __init__(self, program, folder, directory):
        self.program = program
        self.path = pathlib.Path(directory)
        self.of_input = {}
        folder.copy(directory)

    def run(self, *options):
        done = self.program.run(self.path, *options)
        if done.returncode != 0:
            raise Failure(f"{options}: status {done.returncode}\n{text_of(done.stderr)}")
        return done.stdout

    def dump(self, name, *options):
        if name == INPUT and options in self.of_input:
            return self.of_input[options]
        text = self.run(name, "--dump", *options)
        if name == INPUT:
            self.of_input[options] = text
        return text

    def extract(self, source, target, form, *options):
        self.run(source, *options, "--logfile-name", target, "--logfile-format", form)

    def components(self, name):
        """Bytes by suffix, but for the index, which names the other files, and the statistics,
        whose times are cut to other ticks."""
        return {file.name[len(name):]: file.read_bytes() for file in self.path.glob(name + ".*")
                if file.suffix != ".sts"}

    def tenths(self):
        """A request's window from one tenth of the run to another; None if times aren't exact."""
        header = text_of(self.dump(INPUT))
        duration = re.search(r"^DURATION (\d+) (\d+)$", header, re.M)
        # The period is printed with six digits only: no such window may begin or end near a record.
        period = re.search(r"^CLKPERIOD (1E-\d+)$", header, re.M)
        if duration is None or period is None:
            return None
        # What is still open at the last event ends there in an extraction.
        first = int(duration.group(1))
        times = map(int, re.findall(r"^(\d+) ", header, re.M))
        last = max((time for time in times if time < EXACT_SECONDS), default=first)

        def window(begin, end, selection):
            cut = [(first + (last - first) * tenth // 10 + 0.5) * float(period.group(1))
                   for tenth in (begin, end)]
            return ["--request", f"{cut[0]:.15g}s:{cut[1]:.15g}s{selection}"]

        return window


def check_extract(place, folder):
    """An extraction dumps as its source does, and extracting it again gives the same bytes."""
    for form in FORMATS:
        place.extract(INPUT, "e.klt", form)
        for options in ([], MATCHED) if folder.name not in LOSSY else ():
            compare_records(f"{form} {options}", place.dump(INPUT, *options),
                            place.dump("e.klt", *options))
        place.extract("e.klt", "again.klt", "KLT")
        place.run("e.klt", "--convert", "parts.klt", "--logfile-format", "KLT")
        first, second = (place.components(name) for name in ("parts.klt", "again.klt"))
        expect(f"{form}: components", sorted(first), sorted(second))
        for suffix, data in first.items():
            compare(f"{form}, extracted again: {suffix}", data, second[suffix])
        for file in place.path.glob("[!t]*"):
            file.unlink()


def windows(folder, place):
    """Requests in seconds: those of the folder, and some that cut the run into pieces."""
    for options, _ in folder.requests():
        if "--ticks" not in options:
            yield [option for option in options if option != "--dump"]
    window = place.tenths()
    if window is not None:
        for tenth, selection in zip((0, 2, 4, 6), some_selections(folder, 4)[1:]):
            yield window(tenth, tenth + 4, "")
            yield window(tenth, tenth + 4, selection)


def check_windows(place, folder):
    """A window of an extraction is the window of its source, with seek points and without."""
    place.extract(INPUT, "e.klt", "KLT")
    (place.path / "bare").mkdir()
    for file in place.path.glob("e.klt*"):
        if file.suffix != ".anc":
            shutil.copy(file, place.path / "bare")
    for options in windows(folder, place):
        got = place.dump("e.klt", *options)
        compare_records(" ".join(options), place.dump(INPUT, *options), got, COMMENT)
        compare(f"{options} without seek points", got, place.dump("bare/e.klt", *options))


def spans(text):
    """How often each message and operation of a matched dump is there, whatever its durations."""
    return collections.Counter({key: len(all) for key, all in records(text).items()
                                if key[1].startswith(("ONETOONE ", "COLLOP "))})


def check_slices(place, folder):
    """A window of a slice, and of a slice of that, is the window of the source. A slice of two
    windows holds each message and operation of theirs once."""
    window = place.tenths()
    count = len(SELECTIONS) if folder.name == "stencil_split" else 2
    for selection in some_selections(folder, count) if window is not None else ():
        one, two = window(1, 4, selection), window(6, 8, selection)
        place.extract(INPUT, "a.klt", "KLT", *window(1, 9, selection))
        place.extract("a.klt", "b.klt", "SINGLEKLT", *window(2, 8, selection))
        place.extract(INPUT, "c.klt", "KLT", *one, *two)
        for mode in ([], MATCHED):
            for name, request in (("a.klt", window(1, 9, selection)), ("b.klt", window(3, 7, selection)),
                                  ("c.klt", one), ("c.klt", two)):
                compare_records(f"{name} {mode} {request}", place.dump(INPUT, *mode, *request),
                                place.dump(name, *mode, *request), COMMENT)
        expected = spans(place.dump(INPUT, *MATCHED, *one)) | spans(place.dump(INPUT, *MATCHED, *two))
        expect(f"{one} {two}", expected, spans(place.dump("c.klt", *MATCHED)))
        for file in place.path.glob("[!t]*"):
            file.unlink()


def check_order(place, folder):
    """A slice that begins with an event holds what its history tells in order of time, too."""
    lines = re.compile(r"^(\d+) (?:(?:COLLOP|SAMP) |ONETOONE (?!.*DELTA -))", re.M)
    starts = sorted({int(time) for time in lines.findall(text_of(place.dump(INPUT, *MATCHED)))})
    for start in starts[len(starts) // 3::max(1, len(starts) // 3)]:
        for selection in ([], ["COUNTERS"]):
            place.extract(INPUT, "s.klt", "KLT", "--ticks", "--request", f"{start}s:-1s", *selection)
            times = [int(time) for time in lines.findall(text_of(place.dump("s.klt", *MATCHED)))]
            expect(f"times of a slice from {start} {selection}", sorted(times), times)


def in_a_place(check):
    def run(program, folder):
        with tempfile.TemporaryDirectory() as directory:
            check(Place(program, folder, directory), folder)
    return run


def whole(folder):
    return folder.expected("dump") is not None


def faithful(folder):
    return whole(folder) and folder.name not in LOSSY


CHECKS = {
    "extract": (whole, in_a_place(check_extract)),
    "windows": (faithful, in_a_place(check_windows)),
    "slices": (lambda folder: faithful(folder) and not folder.name.startswith("raw_"),
               in_a_place(check_slices)),
    "order": (lambda folder: folder.name in ("stencil_split", "counters"), in_a_place(check_order)),
}
