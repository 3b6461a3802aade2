"""Checks that all bins of the files of summary data add up to what is in the trace. Only calls can
be missing: the call trees need not reach the end of the trace."""

import collections
import math
import pathlib
import sys

from harness import Failure, expect, text_of

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "tools"))
from sum_files import WORDS, SumFile  # noqa: E402  pylint: disable=wrong-import-position

MASK = (1 << 32) - 1
WIDE = (1 << 64) - 1


def thread_of(cpu):
    return int(cpu) - 1 & MASK


def added(pairs, masks):
    """The sums of the numbers of each key; sums of bytes have 32 bits."""
    sums = {}
    for key, values in pairs:
        sums[key] = [a + b & mask
                     for a, b, mask in zip(sums.get(key, [0] * len(values)), values, masks)]
    return sums


class Text:
    """What the text of --dump --matched-rkf says."""

    def __init__(self, dump):
        lines = [line.split() for line in text_of(dump).splitlines() if line]
        header = {words[0]: words[1:] for words in lines if not words[0].isdigit()}
        self.shift = int(header.get("EVENTBITS", [0])[0])
        self.start, self.end = map(int, header.get("DURATION", (0, 0)))
        self.lines = [(int(words[0]), words[1:]) for words in lines if words[0].isdigit()]

    def of(self, kind):
        """Time, words, and the numbers after each word, of the lines of a kind."""
        for time, words in self.lines:
            if words[0] == kind:
                numbers = collections.defaultdict(list)
                for word in words:
                    if word.lstrip("-").isdigit():
                        numbers[key].append(int(word))
                    else:
                        key = word
                yield time, words, numbers

    def closing(self):
        """By thread, how many lines only end what is open at the end of the trace."""
        counts = collections.Counter()
        for time, words in reversed(self.lines):
            if (time != self.lines[-1][0] or "DOWNTO" in words
                    or words[0] not in ("EXCHEXT", "ENDSCOPE")):
                break
            counts[thread_of(words[2])] += words[0] == "EXCHEXT"
        return counts

    def bins(self):
        """The first number of bins, their width, and how many there can be."""
        counts = [words for _, words, _ in self.of("C") if words[2:5] == ["number", "of", "events:"]]
        functions, messages, operations = map(int, counts[0][5:10:2]) if counts else (0, 0, 0)
        events = 2 * functions + messages + operations
        bins = max(1, 2 * math.isqrt(max(events - 1, 0)))
        ticks = (self.end >> self.shift) - (self.start >> self.shift)
        width = max(1, (self.end - self.start >> self.shift) // bins if events > 1 else ticks)
        return bins, width, max(bins, -(-ticks // width))

    def messages(self):
        """A message's time is that of the side that came first."""
        for time, words, numbers in self.of("ONETOONE"):
            (delta,) = numbers["DELTA"]
            fields = [sum(numbers[key]) for key in ("COM", "LEN", "TAG", "SENDER_FUNCTION",
                                                    "RECEIVER_FUNCTION")]
            yield ((thread_of(words[2]), thread_of(words[4]), *fields),
                   (1, time + min(delta, 0) >> self.shift, delta >> self.shift, fields[1]))

    def operations(self):
        """The root's own amount is no part of the summary."""
        for _, (_, kind, operation, *_), numbers in self.of("COLLOP"):
            yield ((int(operation), *numbers["COM"], *(numbers["ROOT"] or [MASK])),
                   (1, sum(value >> self.shift for value in numbers["DELTAS"]),
                    sum(numbers["SENTS"]) if kind != "ONETOALL" else 0,
                    sum(numbers["RCVDS"]) if kind != "ALLTOONE" else 0))


def check_calls(width, trees, text):
    first_bins, expected_width, most = text.bins()
    expect("width of a bin", expected_width, width)
    begin, closing = text.start >> text.shift, text.closing()
    # How many bins end before each event.
    events = [(min(max(-(-((time >> text.shift) - begin) // width) - 1, 0), most - 1), words)
              for time, words, _ in text.of("EXCHEXT")]
    # A bin is written when something later comes, and at the end if it is one of the first ones.
    last = max((before for before, _ in events[:len(events) - sum(closing.values())]), default=0)
    bins = len({tree.start for tree, _ in trees})
    if trees and not last + (last < first_bins) <= bins <= most:
        raise Failure(f"{bins} bins of {most}, events after {last}")
    expected, found, entered, calls = (collections.Counter() for _ in range(4))
    for words in (words for before, words in events if before < bins):
        expected[thread_of(words[2])] += 1
        if words[3] == "DOWNTO":
            entered[thread_of(words[2]), int(words[4])] += 1
    for tree, nodes in trees:
        found[tree.thread] += tree.events
        for node in nodes[1:]:
            calls[tree.thread, node.function] += node.calls
    for thread in expected | found:
        if not expected[thread] - closing[thread] <= found[thread] <= expected[thread]:
            raise Failure(f"events of thread {thread}: {found[thread]}, expected "
                          f"{expected[thread]}, of which {closing[thread]} may close the text")
    # A bin shows the calls below one outermost function. Where there is only one, it shows all.
    outermost = {nodes[1].function for _, nodes in trees if nodes[1:]}
    for key, count in calls.items():
        if count > entered[key] or len(outermost) == 1 and count != entered[key]:
            raise Failure(f"calls of thread and function {key}: {count}, expected {entered[key]}")


def check(base, text, operations=None, messages=None):
    """The summary `base` against a text, which holds no unknown times, or pairs of a key and the
    number of operations, and of a key and the sums of messages, in place of its own."""
    files = {word: SumFile(pathlib.Path(f"{base}.sum.{word}"), word) for word in WORDS}
    check_calls(files["fnc"].width, [(tree, list(nodes)) for tree, nodes in files["fnc"].records()],
                text)
    found = [((r.type, r.communicator, r.root),
              (r.count, *map(sum, zip((0, 0, 0), *((m.total, m.sent, m.received) for m in members)))))
             for r, members in files["cop"].records()]
    masks = (WIDE, WIDE, MASK, MASK)[:1 if operations else 4]
    expect("number, time, bytes sent and received of operations",
           added(operations or text.operations(), masks), added(found, masks))
    found = [((m.sender, m.receiver, m.communicator, m.size, m.tag, m.sender_function,
               m.receiver_function), (m.count, m.send_times, m.total, m.bytes))
             for m in files["msg"].records()]
    masks = (WIDE, WIDE, WIDE, MASK)
    expect("number, times, durations, bytes of messages",
           added(messages or text.messages(), masks), added(found, masks))
    for word in WORDS:
        collections.deque(files[word].records(), 0)
        expect(f"damage of .sum.{word}", None, files[word].problem)
