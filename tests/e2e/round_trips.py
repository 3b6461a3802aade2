"""Takes extractions of the sample traces and checks that nothing changed on the way.

An extraction counts time in finer units than its source, and components stand in another order. So
records are compared by the ticks of their times, in any order where they happen at one time.
"""

import collections
import functools
import re

from harness import INPUT, Failure, expect, text_of

# Operations of no known kind, and fields that the kind of an operation has no place for, don't
# survive an extraction.
LOSSY = ("collops", "layout_wild")

# Times that are exact to the tick as seconds in floating point, whatever the unit.
EXACT_SECONDS = 2**40

# What a slice doesn't hold, and what describes the clock.
LEFT_OUT = re.compile(r"INFO ACTSTATS |CLKPERIOD |EVENTBITS |DURATION ")

# Remarks on the whole run turn into comments at its start, which a window needn't include.
COMMENT = re.compile(r"C ")

# Times within a line, after what is before them.
DURATIONS = re.compile(r"(GLOBALOP (?:\S+ ){7}|(?:DELTA|TIMES|DELTAS) )((?:(?:-?\d+|UNKNOWN)(?: |$))+)")

# Parts of a trace; each folder takes some of them in turn.
SELECTIONS = ("0:1", "MESSAGES", "COLLOPS,SCOPES", "FUNCTIONS", "MESSAGES,COUNTERS",
              "1:2,MESSAGES", "COUNTERS", "1:3,COLLOPS,SCOPES,MESSAGES")


def some_selections(folder, count):
    """`count` parts of a trace, depending on the name of the folder."""
    first = sum(folder.name.encode())
    return ["," + SELECTIONS[(first + i) % len(SELECTIONS)] for i in range(count)]


def records(dump):
    """The lines of a dump by tick and text, with the durations that each of them names."""
    lines = text_of(dump).splitlines()
    shift = next((int(line.split()[1]) for line in lines if line.startswith("EVENTBITS ")), 0)
    found = collections.defaultdict(list)
    for line in lines:
        time, _, rest = line.partition(" ")
        if LEFT_OUT.match(line):
            continue
        tick = -1  # of definitions, and of messages without a send
        if time.removeprefix("-").isdigit():  # shown as signed
            line, tick = rest, int(time) % 2**64 >> shift
        # An unknown duration comes before all others.
        found[tick, DURATIONS.sub(r"\1~ ", line)].append([
            (0, 0) if word == "UNKNOWN" else (1, int(word) >> shift)
            for _, words in DURATIONS.findall(line) for word in words.split()])
    return {key: sorted(durations) for key, durations in found.items()}


def compare_records(what, expected, actual, ignored=None):
    """Differences of times lose what lies below the tick in either unit."""
    want, got = records(expected), records(actual)
    for key in want.keys() | got.keys():
        a, b = want.get(key, []), got.get(key, [])
        same = [len(d) for d in a] == [len(d) for d in b] and all(
            x[0] == y[0] and abs(x[1] - y[1]) <= 1 for c, d in zip(a, b) for x, y in zip(c, d))
        if not same and not (ignored and ignored.match(key[1])):
            raise Failure(f"{what}: at tick {key[0]} \"{key[1]}\"\n expected {a}\n got {b}")


def extract(place, source, target, form, *requests):
    """An extraction and nothing of an older one."""
    for file in place.path.glob(target + "*"):
        file.unlink()
    place.run(" ".join([*requests, f"--logfile-name {target} --logfile-format {form}"]), name=source)


def tenths(header):
    """A function that gives the request for a window from one tenth of the run to another with a
    selection; None if times aren't exact."""
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
        return f"--request {cut[0]:.15g}s:{cut[1]:.15g}s{selection}"

    return window


def check_extract(place):
    """An extraction dumps as its source does, and extracting it again gives the same bytes."""
    for form in ("KLT", "SINGLEKLT"):
        extract(place, INPUT, "e.klt", form)
        for mode in ("", " --matched-rkf") if place.folder.name not in LOSSY else ():
            compare_records(f"{form} {mode}", place.run("--dump" + mode),
                            place.run("--dump" + mode, name="e.klt"))
        extract(place, "e.klt", "again.klt", "KLT")
        place.run("--convert parts.klt --logfile-format KLT", name="e.klt")
        # But for the index, which names the other files, and the statistics, whose times are cut to
        # other ticks.
        expect(f"{form}, extracted again", *(
            {part: data for part, data in place.files(name).items() if part not in ("", ".sts")}
            for name in ("parts.klt", "again.klt")))


def slices(place, source, window):
    """Makes extractions, and gives their names with options that show parts of them: of the whole
    trace, of a window, of a window of that, and of two windows. `source` runs the trace itself."""
    extract(place, INPUT, "e.klt", "KLT")
    requests = [" ".join(option for option in options if option != "--dump")
                for options, _ in place.folder.requests() if "--ticks" not in options]
    four = zip((0, 2, 4, 6), some_selections(place.folder, 4)) if window else ()
    yield "e.klt", requests + [window(tenth, tenth + 4, selection) for tenth, some in four
                               for selection in ("", some)]
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
    """A window of an extraction is the window of its source."""
    source = functools.cache(place.run)
    for name, requests in slices(place, source, tenths(text_of(place.run("--dump")))):
        for request in requests:
            compare_records(f"{name} {request}", source(f"--dump {request}"),
                            place.run(f"--dump {request}", name=name), COMMENT)


def check_order(place):
    """A slice that begins with an event holds what its history tells in order of time, too."""
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
