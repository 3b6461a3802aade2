"""What merges of raw traces have to give."""

import re
import struct

from harness import INPUT, compare, expect, sorted_lines

KLT = "--logfile-format KLT"
SINGLE = "--logfile-format SINGLEKLT"


def copied_lines(dump):
    """What isn't communication; the count of events is another one after a merge."""
    return sorted_lines(b"".join(
        line for line in dump.splitlines(True) if b"number of events: " not in line
        and not re.match(rb"\S+ (?:ONETOONE|COLLOP) ", line)))


def check_merge(place):
    """Messages, operations and profiles are those expected, what else there is is copied, and from
    and to a single file the merge gives the same bytes."""
    place.run(f"--merge m.klt {KLT}")
    merged = place.files("m.klt")
    for part in (".msg", ".cop"):
        compare(part, place.folder.expected(f"merged{part}"), merged[part])
    compare("profiles", place.folder.expected("profiles"),
            sorted_lines(place.run("--print-statistics", name="m.klt")))
    compare("copied lines", copied_lines(place.folder.expected("matched")),
            copied_lines(place.run("--dump --matched-rkf", name="m.klt")))
    place.run(f"--convert one.klt {SINGLE}")
    place.run(f"--merge single.klt {SINGLE}", name="one.klt")
    for part in merged:
        (place.path / f"m.klt{part}").unlink()
    place.run(f"--convert m.klt {KLT}", name="single.klt")
    again = place.files("m.klt")
    expect("parts that differ by way of single files", [],
           [part for part in merged.keys() | again.keys() if merged.get(part) != again.get(part)])


def check_merge_summary(place):
    """A summary made while the trace is merged, wherever the declared end of the run is."""
    times = re.findall(rb"^(\d+) ", place.folder.expected("matched"), re.M)
    declared = re.search(rb"^DURATION \d+ (\d+)$", place.folder.expected("matched"), re.M)[1]
    last = int(times[-1])
    definitions = place.before[".dcl"].split(struct.pack(">Q", int(declared)))
    expect("parts around the end of the run", 2, len(definitions))
    for number, end in enumerate((int(declared), last + 4, last, last // 3)):
        (place.path / f"{INPUT}.dcl").write_bytes(struct.pack(">Q", end).join(definitions))
        place.run(f"--merge m.klt {KLT} --sumdata")
        compare(f"summary up to {end}", place.folder.expected(f"merged.sum.{number}"),
                b"".join(data for _, data in sorted(place.files("m.klt.sum").items())))
        for file in place.path.glob("m.klt*"):
            file.unlink()
    place.restore()
