#!/usr/bin/env python3
"""Reads the five files of summary data and checks that all bins add up to the trace they came from.

  summary_reader.py BASE DUMP     BASE.sum.fnc and so on against the text of --dump --matched-rkf

Only calls can be missing: those behind the last bin of the call trees, which needn't reach the end.
"""

import collections
import math
import pathlib
import struct
import sys

HEADER = struct.Struct("=3Q")  # version, width of a bin, number of records
THREAD = struct.Struct("=2Q4I")
CALL = struct.Struct("=2I2Q6I")
COLLECTIVE = struct.Struct("=Q6I")
MEMBER = struct.Struct("=2I5Q2d6I")
MESSAGE = struct.Struct("=IQ3q10I")
SAMPLES = struct.Struct("=I2Q2I6d")
MASK = (1 << 32) - 1


class Wrong(Exception):
    """A file that isn't whole, or sums that differ."""


def expect(what, expected, found):
    if expected != found:
        raise Wrong(f"{what}: {found}, expected {expected}")


class File:
    """One file, read from front to back."""

    def __init__(self, base, kind):
        self.name = f"{base}.sum.{kind}"
        self.data = pathlib.Path(self.name).read_bytes()
        self.position = 0
        version, self.width, self.count = self.take(HEADER)
        expect(f"{self.name}, version", 1, version)

    def bytes(self, size):
        if self.position + size > len(self.data):
            raise Wrong(f"{self.name} ends in the middle of a record")
        self.position += size
        return self.data[self.position - size:self.position]

    def take(self, shape):
        return shape.unpack(self.bytes(shape.size))

    def text(self):
        return self.bytes(struct.unpack("=I", self.bytes(4))[0])

    def records(self, read):
        """As many as the header says, which must be all."""
        for _ in range(self.count):
            yield read(self)
        expect(f"{self.name}, size", self.position, len(self.data))


Tree = collections.namedtuple("Tree", "start width thread events calls")


def read_tree(file):
    """A thread in a bin, with its calls in levels from the root."""
    start, width, thread, events, count, _ = file.take(THREAD)
    expect(f"{file.name}, width of a bin", file.width, width)
    calls = [file.take(CALL) for _ in range(count)]
    expected_child = 1
    for place, (_, _, _, inclusive, _, _, children, first, _, parent) in enumerate(calls):
        if children:
            expect(f"{file.name}, first child", expected_child, place + first)
            below = calls[expected_child:expected_child + children]
            for position, call in enumerate(below, expected_child):
                expect(f"{file.name}, parent", place, position - call[9])
            expect(f"{file.name}, siblings", [1] * (children - 1) + [0], [call[8] for call in below])
            numbers = [call[1] for call in below]
            expect(f"{file.name}, order of functions", sorted(set(numbers)), numbers)
            expected_child += children
        if place == 0:
            expect(f"{file.name}, time of the root", sum(call[3] for call in calls[1:1 + children]),
                   inclusive)
    expect(f"{file.name}, tree", count, expected_child)
    return Tree(start, width, thread, events, calls)


def read_collective(file):
    _, communicator, kind, root, count, members, _ = file.take(COLLECTIVE)
    members = [file.take(MEMBER) for _ in range(members)]
    return (kind, communicator, root), count, members


def read_report(file):
    _, _, count = struct.unpack("=Q2I", file.bytes(16))
    for _ in range(3):
        file.text()
    file.bytes(12 * count)
    for _ in range(2):  # behind the headers the functions, behind the calls the places
        for _ in range(count):
            file.text()
        file.bytes(4 * count)


class Trace:
    """What the text of a trace says."""

    def __init__(self, text):
        self.event_bits = 0
        events = 0
        self.start = span = 0
        lines = [line.split() for line in text.decode("utf-8", "replace").splitlines() if line]
        self.integers = set()
        for words in lines:
            if words[0] == "EVENTBITS":
                self.event_bits = int(words[1])
            elif words[0] == "DURATION":
                self.start, span = int(words[1]), int(words[2]) - int(words[1])
            elif words[0] == "DEFSAMP" and words[words.index("TYPE") + 1] == "UINT":
                self.integers.add(int(words[1]) - 1)
            elif words[1:6] == ["C", "Application:", "number", "of", "events:"]:
                functions, messages, collectives = (int(words[i]) for i in (6, 8, 10))
                events = 2 * functions + messages + collectives
        end = self.start + span >> self.event_bits
        self.start >>= self.event_bits
        self.bins = max(1, 2 * (math.isqrt(max(events - 1, 0)))) if events > 1 else 1
        self.width = max(1, (span >> self.event_bits) // self.bins if events > 1 else end - self.start)
        self.most_bins = max(self.bins, -(-(end - self.start) // self.width))
        self.lines = [(int(words[0]), words[1:]) for words in lines if words[0].isdigit()]
        # A text closes what is still open at its end; nothing in the trace stands behind these lines.
        self.closing = collections.Counter()
        for time, words in reversed(self.lines):
            if time != self.lines[-1][0] or words[0] not in ("EXCHEXT", "ENDSCOPE") or "DOWNTO" in words:
                break
            if words[0] == "EXCHEXT":
                self.closing[thread_of(words[2])] += 1

    def events(self, kind):
        """Shifted time and words of the lines of a kind."""
        for time, words in self.lines:
            if words[0] == kind:
                yield time >> self.event_bits, words

    def bins_before(self, time):
        """How many bins end before a shifted time."""
        return min(max(-(-(time - self.start) // self.width) - 1, 0), self.most_bins - 1)

    def messages(self):
        """Shifted time, shifted duration and words. A record's time is that of the side that came first."""
        for time, words in self.lines:
            if words[0] == "ONETOONE":
                delta = int(words[words.index("DELTA") + 1])
                yield (time + min(delta, 0)) >> self.event_bits, delta >> self.event_bits, words


def thread_of(cpu):
    return (int(cpu) - 1) & MASK


def numbers(words, key):
    """The numbers behind a key word."""
    if key not in words:
        return []
    at = words.index(key) + 1
    values = []
    while at < len(words) and words[at].isdigit():
        values.append(int(words[at]))
        at += 1
    return values


def collectives(base):
    """Number, time, bytes sent and received of all bins, by operation, communicator and root."""
    found = collections.defaultdict(lambda: [0, 0, 0, 0])
    for key, count, members in File(base, "cop").records(read_collective):
        for i, value in enumerate((count, *(sum(m[at] for m in members) for at in (4, 9, 12)))):
            found[key][i] += value
    return found


def messages(base):
    """Number, times, durations and bytes of all bins, by what tells messages apart."""
    found = collections.defaultdict(lambda: [0, 0, 0, 0])
    for record in File(base, "msg").records(lambda file: file.take(MESSAGE)):
        (count, times, durations, _, _, sender, receiver, communicator, tag, size, total, sender_function,
         receiver_function, _, _) = record
        sums = found[sender, receiver, communicator, size, tag, sender_function, receiver_function]
        for i, value in enumerate((count, times, durations, total)):
            sums[i] += value
    return found


def check_calls(base, trace):
    file = File(base, "fnc")
    expect("width of a bin", trace.width, file.width)
    trees = list(file.records(read_tree))
    bins = len({tree.start for tree in trees})
    events = [(trace.bins_before(time), words) for time, words in trace.events("EXCHEXT")]
    # A bin is written when something later comes, and at the end if it is one of the whole ones.
    last = max((before for before, _ in events[:len(events) - sum(trace.closing.values())]), default=0)
    if trees and not last + (last < trace.bins) <= bins <= trace.most_bins:
        raise Wrong(f"{bins} bins of {trace.most_bins}, events behind {last}")
    expected = collections.Counter()
    entered = collections.Counter()
    for before, words in events:
        if before >= bins:
            continue
        expected[thread_of(words[2])] += 1
        if words[3] == "DOWNTO":
            entered[thread_of(words[2]), int(words[4])] += 1
    found = collections.Counter()
    calls = collections.Counter()
    for tree in trees:
        found[tree.thread] += tree.events
        for call in tree.calls[1:]:
            calls[tree.thread, call[1]] += call[4]
    for thread in expected | found:
        if not expected[thread] - trace.closing[thread] <= found[thread] <= expected[thread]:
            raise Wrong(f"function events of thread {thread}: {found[thread]}, expected "
                        f"{expected[thread]}, of which {trace.closing[thread]} may close the text")
    # A bin shows the calls below one outermost function. Where there is only one, it shows all.
    outermost = {tree.calls[1][1] for tree in trees if tree.calls[1:]}
    for key, count in calls.items():
        if count > entered[key] or len(outermost) == 1 and count != entered[key]:
            raise Wrong(f"calls of thread and function {key}: {count}, expected {entered[key]}")


def check_collectives(base, trace):
    expected = collections.defaultdict(lambda: [0, 0, 0, 0])
    for _, words in trace.events("COLLOP"):
        key = (int(words[2]), int(words[4]), numbers(words, "ROOT")[0] if "ROOT" in words else MASK)
        sums = expected[key]
        sums[0] += 1
        sums[1] += sum(value >> trace.event_bits for value in numbers(words, "DELTAS"))
        # The root's own amount is no part of the summary.
        if words[1] != "ONETOALL":
            sums[2] += sum(numbers(words, "SENTS"))
        if words[1] != "ALLTOONE":
            sums[3] += sum(numbers(words, "RCVDS"))
    found = collectives(base)
    for sums in (*expected.values(), *found.values()):
        sums[2:] = [value & MASK for value in sums[2:]]
    expect("collective operations: number, time, bytes sent and received", dict(expected), dict(found))


def check_messages(base, trace):
    expected = collections.defaultdict(lambda: [0, 0, 0, 0])
    for time, delta, words in trace.messages():
        fields = [numbers(words, key)[0] if key in words else 0
                  for key in ("COM", "LEN", "TAG", "SENDER_FUNCTION", "RECEIVER_FUNCTION")]
        sums = expected[thread_of(words[2]), thread_of(words[4]), *fields]
        for i, value in enumerate((1, time, delta, fields[1])):
            sums[i] += value
    found = messages(base)
    for sums in (*expected.values(), *found.values()):
        sums[1:] = [sums[1] % 2**64, sums[2] % 2**64, sums[3] & MASK]
    expect("messages: number, times, durations, bytes", dict(expected), dict(found))


def check_samples(base, trace):
    expected = collections.defaultdict(list)
    for _, words in trace.events("SAMP"):
        for at, word in enumerate(words):
            if word != "DEF":
                continue
            counter = int(words[at + 1]) - 1
            value = None
            if words[at + 2] == "UINT":
                value = (int(words[at + 3]) << 32 | int(words[at + 4])) - (int(words[at + 3]) >> 31 << 64)
            expected[thread_of(words[2]), counter].append(value)
    counts = collections.Counter()
    lowest = collections.defaultdict(lambda: math.inf)
    highest = collections.defaultdict(lambda: -math.inf)
    for record in File(base, "cnt").records(lambda file: file.take(SAMPLES)):
        key = record[3], record[0]
        counts[key] += record[4]
        lowest[key] = min(lowest[key], record[5])
        highest[key] = max(highest[key], record[6])
    expect("samples", {key: len(values) for key, values in expected.items()}, dict(counts))
    for key, values in expected.items():
        if key[1] in trace.integers:
            expect(f"range of counter {key}", (float(min(values)), float(max(values))),
                   (lowest[key], highest[key]))


def without_nan_signs(kind, data):
    """The bytes of a file with the sign of each not-a-number cleared, which nothing determines."""
    data = bytearray(data)
    position = HEADER.size
    reals = []
    while position < len(data):
        if kind == "cop":
            members = COLLECTIVE.unpack_from(data, position)[5]
            position += COLLECTIVE.size
            reals += [position + MEMBER.size * i + at for i in range(members) for at in (48, 56)]
            position += MEMBER.size * members
        else:
            reals += [position + at for at in range(28, SAMPLES.size, 8)]
            position += SAMPLES.size
    for at in reals:
        if math.isnan(struct.unpack_from("=d", data, at)[0]):
            data[at + 7] &= 0x7f
    return bytes(data)


def check(base, text):
    """Raises Wrong if the files don't add up to the trace with this text, which must not hold times
    that aren't known."""
    trace = Trace(text)
    check_calls(base, trace)
    check_collectives(base, trace)
    check_messages(base, trace)
    check_samples(base, trace)
    for _ in File(base, "rep").records(read_report):
        pass


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    try:
        check(sys.argv[1], pathlib.Path(sys.argv[2]).read_bytes())
    except Wrong as wrong:
        print(wrong)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
