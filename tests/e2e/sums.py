"""Compares the sums in summary files with sums over the events of the trace."""

import collections
import pathlib
import re
import sys

from harness import compare, expect, text_of

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "tools"))
from sum_files import SumFile  # noqa: E402  pylint: disable=wrong-import-position

MASK = (1 << 32) - 1  # of threads, and of sums of bytes


def compare_files(what, expected, actual):
    """Compares the bytes, unless this is a big-endian machine: the expected files are little-endian."""
    if not actual.startswith(bytes(7) + b"\1"):
        compare(what, expected, actual)


def added(pairs):
    """The sums of the four numbers of each key; the last one, of bytes, is cut to 32 bits."""
    sums = collections.defaultdict(lambda: [0] * 4)
    for key, values in pairs:
        sums[key] = [a + b for a, b in zip(sums[key], values)]
    return {key: (*values[:3], values[3] & MASK) for key, values in sums.items()}


def shift_of(dump):
    """The number of event bits of a dump's times."""
    return int((re.search(rb"^EVENTBITS (\d+)$", dump, re.M) or "00")[1])


def events(dump, roots=False):
    """The events of a --dump --matched-rkf without unknown times: time, thread and function of calls;
    keys and numbers of messages and operations. `roots`: include bytes that only the root has."""
    shift, calls, messages, operations = shift_of(dump), [], [], []
    for line in re.findall(r"^\d+ (?:EXCHEXT|ONETOONE|COLLOP) .*$", text_of(dump), re.M):
        time, kind, of = int(line.split()[0]), line.split()[2], collections.defaultdict(list)
        for key, numbers in re.findall(r"([A-Z_]+)((?: -?\d+)+)", line):
            of[key] += map(int, numbers.split())
        threads = [cpu - 1 & MASK for cpu in of["CPU"] + of["TO"]]
        if " EXCHEXT " in line:
            calls.append((time >> shift, threads[0], sum(of["DOWNTO"])))
        elif " ONETOONE " in line:  # at the time of the earlier side
            size, delta, *others = (sum(of[key]) for key in (
                "LEN", "DELTA", "COM", "TAG", "SENDER_FUNCTION", "RECEIVER_FUNCTION"))
            messages.append(((*threads, size, *others),
                             (1, time + min(delta, 0) >> shift, delta >> shift, size)))
        else:
            operations.append(((*of[kind], *of["COM"], *(of["ROOT"] or [MASK])),
                               (1, sum(delta >> shift for delta in of["DELTAS"]),
                                sum(of["SENTS"]) if roots or kind != "ONETOALL" else 0,
                                sum(of["RCVDS"]) if roots or kind != "ALLTOONE" else 0)))
    return calls, messages, operations


def check_calls(trees, calls):
    """All calls are counted, except for those after the last bin and those at the end, where open
    calls are closed."""
    end = max((tree.start + tree.width for tree, _ in trees), default=0)
    least, most, found = collections.Counter(), collections.Counter(), collections.Counter()
    for time, thread, function in calls:
        for key in (thread, (thread, function))[:2 if function else 1]:
            most[key] += 1
            least[key] += time <= end and time < calls[-1][0]
    for tree, nodes in trees:
        found[tree.thread] += tree.events
        for node in nodes[1:]:
            found[tree.thread, node.function] += node.calls
    # A bin has only the calls below one outermost function; these are all if no other exists.
    if len({nodes[1].function for _, nodes in trees if nodes[1:]}) != 1:
        least = {key: isinstance(key, int) and count for key, count in least.items()}
    expect("threads, and calls by thread and function, that don't add up", [],
           [key for key in most | found if not least.get(key, 0) <= found[key] <= most[key]])


def check_sums(base, calls, messages, operations):
    """Checks that the summary `base` has the sums of these events."""
    files = {word: SumFile(pathlib.Path(f"{base}.sum.{word}"), word) for word in ("fnc", "cop", "msg")}
    check_calls([(tree, list(nodes)) for tree, nodes in files["fnc"].records()], calls)
    expect("sums of messages", added(messages), added(
        ((m.sender, m.receiver, m.size, m.communicator, m.tag, m.sender_function,
          m.receiver_function), (m.count, m.send_times, m.total, m.bytes))
        for m in files["msg"].records()))
    expect("sums of operations", added(operations), added(
        ((r.type, r.communicator, r.root),
         (r.count, *map(sum, zip((0, 0, 0), *((m.total, m.sent, m.received) for m in members)))))
        for r, members in files["cop"].records()))
