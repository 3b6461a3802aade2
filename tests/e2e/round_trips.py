"""Extracts the sample traces and checks that the records stay the same.

An extraction has more event bits than its source, and its components are in another order. So records
are compared by the ticks of their times, and records of one time in any order.
"""

import collections
import functools
import re

from harness import INPUT, Failure, expect, text_of

# An extraction loses operations of an unknown kind, and fields that the records of an operation's kind
# don't have.
LOSSY = ("collops", "layout_wild")

# Times below this number are exact to the tick as floating-point seconds.
EXACT_SECONDS = 2**40

# Lines that a slice doesn't have, and lines that describe the clock.
LEFT_OUT = re.compile(r"INFO ACTSTATS |CLKPERIOD |EVENTBITS |DURATION ")

# Information about the run becomes comments at its start, which a window may exclude.
COMMENT = re.compile(r"C ")

# The text before the durations in a line, and the durations.
DURATIONS = re.compile(r"(GLOBALOP (?:\S+ ){7}|(?:DELTA|TIMES|DELTAS) )((?:(?:-?\d+|UNKNOWN)(?: |$))+)")

# Selections of a trace; each folder is tested with some of them.
SELECTIONS = ("0:1", "MESSAGES", "COLLOPS,SCOPES", "FUNCTIONS", "MESSAGES,COUNTERS",
              "1:2,MESSAGES", "COUNTERS", "1:3,COLLOPS,SCOPES,MESSAGES")


def some_selections(folder, count):
    """`count` selections, which depend on the name of the folder."""
    first = sum(folder.name.encode())
    return ["," + SELECTIONS[(first + i) % len(SELECTIONS)] for i in range(count)]


def records(dump):
    """The durations in the lines of a dump, by the line's tick and remaining text."""
    lines = text_of(dump).splitlines()
    shift = next((int(line.split()[1]) for line in lines if line.startswith("EVENTBITS ")), 0)
    found = collections.defaultdict(list)
    for line in lines:
        time, _, rest = line.partition(" ")
        if LEFT_OUT.match(line):
            continue
        tick = -1  # for definitions, and for messages without a send
        if time.removeprefix("-").isdigit():  # written as a signed number
            line, tick = rest, int(time) % 2**64 >> shift
        # An unknown duration is sorted before all others.
        found[tick, DURATIONS.sub(r"\1~ ", line)].append([
            (0, 0) if word == "UNKNOWN" else (1, int(word) >> shift)
            for _, words in DURATIONS.findall(line) for word in words.split()])
    return {key: sorted(durations) for key, durations in found.items()}


def compare_records(what, expected, actual, ignored=None):
    """Durations may differ by a tick, since both are cut to whole ticks of different units."""
    want, got = records(expected), records(actual)
    for key in want.keys() | got.keys():
        a, b = want.get(key, []), got.get(key, [])
        same = [len(d) for d in a] == [len(d) for d in b] and all(
            x[0] == y[0] and abs(x[1] - y[1]) <= 1 for c, d in zip(a, b) for x, y in zip(c, d))
        if not same and not (ignored and ignored.match(key[1])):
            raise Failure(f"{what}: at tick {key[0]} \"{key[1]}\"\n expected {a}\n got {b}")


def extract(place, source, target, form, *requests, **how):
    """Makes an extraction, after the removal of an older one."""
    for file in place.path.glob(target + "*"):
        file.unlink()
    place.run(" ".join([*requests, f"--logfile-name {target} --logfile-format {form}"]), name=source,
              **how)


def tenths(header):
    """A function that returns the request for a window between two tenths of the run and a selection;
    None if times aren't exact."""
    duration = re.search(r"^DURATION (\d+) (\d+)$", header, re.M)
    # The period is printed with only six digits, so only a power of ten is surely exact.
    period = re.search(r"^CLKPERIOD (1E-\d+)$", header, re.M)
    if duration is None or period is None:
        return None
    # An extraction closes open calls at the last event.
    first = int(duration.group(1))
    times = map(int, re.findall(r"^(\d+) ", header, re.M))
    last = max((time for time in times if time < EXACT_SECONDS), default=first)

    def window(begin, end, selection):
        cut = [(first + (last - first) * tenth // 10 + 0.5) * float(period.group(1))
               for tenth in (begin, end)]
        return f"--request {cut[0]:.15g}s:{cut[1]:.15g}s{selection}"

    return window


def check_extract(place):
    """An extraction, with the calls of each thread on their own, has the same dump as its source, and
    extracting it again, with all records merged, gives the same bytes."""
    for form in ("KLT", "SINGLEKLT"):
        extract(place, INPUT, "e.klt", form, environment={"KLT_FAST": "2"})
        for mode in ("", " --matched-rkf") if place.folder.name not in LOSSY else ():
            compare_records(f"{form} {mode}", place.run("--dump" + mode),
                            place.run("--dump" + mode, name="e.klt"))
        extract(place, "e.klt", "again.klt", "KLT", environment={"KLT_FAST": "0"})
        place.run("--convert parts.klt --logfile-format KLT", name="e.klt")
        # Except for the index, which contains the names of the files, and the statistics, whose times
        # are cut to other ticks.
        expect(f"{form}, extracted again", *(
            {part: data for part, data in place.files(name).items() if part not in ("", ".sts")}
            for name in ("parts.klt", "again.klt")))


def slices(place, source, window):
    """Extracts the whole trace, a window, a window of this slice, and two windows. Yields the name of
    each with requests for parts of it. `source` runs klttool on the trace itself."""
    extract(place, INPUT, "e.klt", "KLT")
    requests = [" ".join(option for option in options if option != "--dump")
                for options, _ in place.folder.requests() if "--ticks" not in options]
    begins = zip((0, 2, 4, 6), some_selections(place.folder, 4)) if window else ()
    yield "e.klt", requests + [window(tenth, tenth + 4, selection) for tenth, chosen in begins
                               for selection in ("", chosen)]
    if not window or place.folder.name.startswith("raw_"):
        return
    for selection in ["", *some_selections(place.folder, 2)]:
        one, two = window(1, 4, selection), window(6, 8, selection)
        extract(place, INPUT, "a.klt", "KLT", window(1, 9, selection))
        yield "a.klt", [window(1, 9, selection)]
        extract(place, "a.klt", "b.klt", "SINGLEKLT", window(2, 8, selection))
        yield "b.klt", [f"--matched-rkf {window(3, 7, selection)}"]
        extract(place, INPUT, "c.klt", "KLT", one, two)
        first, second, both = (collections.Counter({
            key: len(durations) for key, durations in records(dump).items()
            if key[1].startswith(("ONETOONE ", "COLLOP "))})
            for dump in (source(f"--dump --matched-rkf {one}"), source(f"--dump --matched-rkf {two}"),
                         place.run("--dump --matched-rkf", name="c.klt")))
        expect(f"each message and operation once, of {one} {two}", first | second, both)
        yield "c.klt", [one, f"--matched-rkf {two}"]


def check_slices(place):
    """A window of an extraction has the records of the same window of its source."""
    source = functools.cache(place.run)
    for name, requests in slices(place, source, tenths(text_of(place.run("--dump")))):
        for request in requests:
            compare_records(f"{name} {request}", source(f"--dump {request}"),
                            place.run(f"--dump {request}", name=name), COMMENT)


def check_order(place):
    """A slice that begins with an event also has the records of its history in order of time."""
    lines = re.compile(r"^(\d+) (?:(?:COLLOP|SAMP) |ONETOONE (?!.*DELTA -))", re.M)
    starts = sorted(set(map(int, lines.findall(text_of(place.folder.expected("matched"))))))
    for start in starts[len(starts) // 3::max(1, len(starts) // 3)]:
        for selection in ("", ",COUNTERS"):
            place.run(f"--ticks --request {start}s:-1s{selection} --logfile-name s.klt "
                      "--logfile-format KLT")
            dump = text_of(place.run("--dump --matched-rkf", name="s.klt"))
            times = [int(time) for time in lines.findall(dump)]
            expect(f"times of a slice from {start}{selection}", sorted(times), times)


def whole(folder):
    return folder.expected("dump") is not None


CHECKS = {
    "extract": (whole, check_extract),
    "slices": (lambda folder: whole(folder) and folder.name not in LOSSY, check_slices),
    "order": (lambda folder: folder.name in ("stencil_split", "counters"), check_order),
}
