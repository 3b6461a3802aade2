"""Checks the results of merges of raw traces."""

import collections
import re
import struct

import sums
from harness import INPUT, compare, expect, sorted_lines

KLT = "--logfile-format KLT"
SINGLE = "--logfile-format SINGLEKLT"
UNKNOWN_SIDE = (-2**63, -2**63 + 1)


def messages(folder):
    """Time, receive_time, sender, receiver, communicator, tag, size and functions of each message."""
    for line in folder.expected("messages").splitlines():
        yield list(map(int, line.split()))


def copied_lines(dump):
    """The lines without communication, and without the number of events, which a merge changes."""
    return sorted_lines(b"".join(
        line for line in dump.splitlines(True) if b"number of events: " not in line
        and not re.match(rb"\S+ (?:ONETOONE|COLLOP) ", line)))


def check_merge(place):
    """Messages, operations and profiles are as expected, all other records are copied, and the bytes
    are the same if input and output are single files, and without shortcuts."""
    place.run(f"--merge m.klt {KLT}")
    merged = place.files("m.klt")
    for part in (".msg", ".cop"):
        compare(part, place.folder.expected(f"merged{part}"), merged[part])
    statistics, times = place.run("--print-statistics", name="m.klt"), collections.defaultdict(list)
    compare("profiles", place.folder.expected("profiles"), sorted_lines(statistics))
    for _, delta, sender, receiver, comm, tag, size, *functions in messages(place.folder):
        if delta not in UNKNOWN_SIDE:
            times[sender, receiver, *functions, tag, comm, size].append(delta)
    expect("profiles of messages",
           sorted((*key, len(t), min(t), max(t), sum(t)) for key, t in times.items()),
           sorted(tuple(map(int, profile.split(b":")))
                  for profile in re.findall(rb"^INFO ONE2ONE_PROFILE (.*)$", statistics, re.M)))
    compare("copied lines", copied_lines(place.folder.expected("matched")),
            copied_lines(place.run("--dump --matched-rkf", name="m.klt")))
    place.run(f"--convert one.klt {SINGLE}")
    place.run(f"--merge single.klt {SINGLE}", name="one.klt", environment={"KLT_FAST": "0"})
    for part in merged:
        (place.path / f"m.klt{part}").unlink()
    place.run(f"--convert m.klt {KLT}", name="single.klt")
    expect("components via single files", merged, place.files("m.klt"))


def check_merge_summary(place):
    """A summary that a merge writes has the events of the merged trace, for any declared end of the
    run."""
    matched = place.folder.expected("matched")
    declared, shift = int(re.search(rb"^DURATION \d+ (\d+)$", matched, re.M)[1]), sums.shift_of(matched)
    last = int(re.findall(rb"^(\d+) ", matched, re.M)[-1])
    sent = [((sender, receiver, size, comm, tag, *functions), (1, time >> shift, delta >> shift, size))
            for time, delta, sender, receiver, comm, tag, size, *functions in messages(place.folder)]
    definitions = place.before[".dcl"].split(struct.pack(">Q", declared))
    expect("parts around the end of the run", 2, len(definitions))
    for number, end in enumerate((declared, last + 4, last, last // 3)):
        (place.path / f"{INPUT}.dcl").write_bytes(struct.pack(">Q", end).join(definitions))
        place.run(f"--merge m.klt {KLT} --sumdata")
        sums.compare_files(f"summary up to {end}", place.folder.expected(f"merged.sum.{number}"),
                           b"".join(data for _, data in sorted(place.files("m.klt.sum").items())))
        calls, _, operations = sums.events(place.run("--dump --matched-rkf", name="m.klt"), roots=True)
        sums.check_sums(place.path / "m.klt", calls, sent, operations)
        for file in place.path.glob("m.klt*"):
            file.unlink()
    place.restore()
