#!/usr/bin/env python3
"""Runs the program on hostile traces, with limits on memory and CPU time that are in proportion to
the bytes of the trace. A trace of twice the size may take little more than twice the time. Messages
must not contain control characters.

  run_bounds.py --program klttool --maker make_hostile [--case C] [--size N] [--no-memory-limit]
"""

import argparse
import array
import pathlib
import re
import resource
import struct
import subprocess
import sys
import tempfile

BASE_MEMORY = 8 << 20  # of data
MEMORY_PER_FILE = 256 << 10  # of the trace
MEMORY_PER_BYTE = 8  # of the trace
BASE_SECONDS = 5  # of CPU time
SECONDS_PER_MEGABYTE = 1
SHORT_SECONDS = 0.4  # the growth of less is not measured
GROWTH = 2.7  # at most, from half of a trace to all of it; n log n is 2.1, a square 4
OUTPUT = 1 << 30
THREADS_SHARE = 20  # the case `threads` divides the size by this

OPERATIONS = {
    "dump": "--dump",
    "matched": "--dump --matched-rkf",
    "window": "--dump --ticks --request 1000s:1001s",
    "late window": "--dump --ticks --request 9000000s:9000001s",
    "some threads": "--dump --request 0:1000:3",
    "unordered": "--dump",
    "threads": "--print-threads",
    "statistics": "--print-statistics",
    "extract": "--logfile-name out/o.klt --logfile-format KLT",
    "convert": "--convert out/c.klt --logfile-format SINGLEKLT",
    "summary": "--sumdata out/s --logfile-format KLT",
    "merge": "--merge out/m.klt --logfile-format KLT --sumdata",
}
# An output has a file for each thread, so the case `threads` needs more memory for each byte. A few
# components may read the same bytes.
PER_BYTE = {("threads", "extract"): 1000} | {("shared_records", name): 64 for name in OPERATIONS}

ENVIRONMENT = {"RK_VERBOSE": "0", "ASAN_OPTIONS": "abort_on_error=1",
               "UBSAN_OPTIONS": "abort_on_error=1"}


def container(key, count, offset, length, used):
    """A container with one component, whose extents are adjacent if their length is 1."""
    offsets = array.array("Q", (offset + (i if length == 1 else 0) for i in range(count)))
    offsets.byteswap()
    return (b"SKLT" + struct.pack(f">QI{len(key)}sQI", 1, len(key), key, used, count)
            + offsets.tobytes() + struct.pack(">Q", length) * count + struct.pack(">Q", 12))


# Single files with impossible directories.
CONTAINERS = {
    "million_extents": (b" ", 1_000_000, 12, 1, 1),
    "overlapping_extents": (b" ", 3, 12, 1 << 40, 1 << 40),
    "far_extents": (b".f", 1, 1 << 62, 1 << 62, 5),
    "long_key": (b"k" * 65535, 1, 12, 1, 1),
}


class Runner:
    """The program on one case: traces of it by size, and the problems found."""

    def __init__(self, arguments, case, directory):
        self.arguments, self.case, self.directory = arguments, case, pathlib.Path(directory)
        self.problems = []

    def trace(self, size):
        """A directory with the case's trace of that size."""
        place = self.directory / str(size)
        if not place.exists():
            (place / "out").mkdir(parents=True)
            if self.case in CONTAINERS:
                (place / "t.klt").write_bytes(container(*CONTAINERS[self.case]))
            else:
                subprocess.run([self.arguments.maker, self.case, place, str(size)], check=True)
        return place

    def run(self, name, size):
        """Seconds of user time that an operation takes under the limits."""
        place = self.trace(size)
        files = [*place.glob("t.klt*")]
        length = sum(file.stat().st_size for file in files)
        seconds = int(BASE_SECONDS + SECONDS_PER_MEGABYTE * length / 1e6)
        limits = {resource.RLIMIT_CPU: seconds, resource.RLIMIT_FSIZE: OUTPUT, resource.RLIMIT_CORE: 0}
        if not self.arguments.no_memory_limit:
            per_byte = PER_BYTE.get((self.case, name), MEMORY_PER_BYTE)
            limits[resource.RLIMIT_DATA] = (
                BASE_MEMORY + length * per_byte + len(files) * MEMORY_PER_FILE)

        def confine():
            for kind, limit in limits.items():
                resource.setrlimit(kind, (limit, limit))

        before = resource.getrusage(resource.RUSAGE_CHILDREN).ru_utime
        done = subprocess.run(
            [self.arguments.program.resolve(), "t.klt", *OPERATIONS[name].split()], cwd=place,
            env=ENVIRONMENT | {"KLTT_SERIAL": "0" if name == "unordered" else "1"},
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, check=False,
            preexec_fn=confine)
        took = resource.getrusage(resource.RUSAGE_CHILDREN).ru_utime - before
        for problem, found in (
                (f"status {done.returncode}, with {seconds} s of CPU time at most",
                 done.returncode < 0 or done.returncode > 127),
                (f"out of memory, {length} bytes of input", b"out of memory" in done.stderr),
                ("control characters in messages",
                 re.search(rb"[\x00-\x08\x0b\x0c\x0e-\x1f\x7f]", done.stderr))):
            if found:
                self.problems.append(f"{self.case}, {name}: {problem}")
        return took

    def check(self, name, size):
        whole = self.run(name, size)
        if whole > SHORT_SECONDS and self.case not in CONTAINERS:
            half = self.run(name, size // 2)
            if whole > GROWTH * half + SHORT_SECONDS:
                self.problems.append(
                    f"{self.case}, {name}: {half:.2f} s for half of the trace, {whole:.2f} s for all")


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--program", type=pathlib.Path, required=True)
    parser.add_argument("--maker", required=True)
    parser.add_argument("--case", help="one case")
    parser.add_argument("--size", type=int, default=100_000)
    parser.add_argument("--no-memory-limit", action="store_true", help="for sanitizers")
    arguments = parser.parse_args()
    made = subprocess.run([arguments.maker], check=True, stdout=subprocess.PIPE, text=True)
    problems = []
    for case in [arguments.case] if arguments.case else [*made.stdout.split(), *CONTAINERS]:
        print(case, flush=True)
        with tempfile.TemporaryDirectory() as directory:
            runner = Runner(arguments, case, directory)
            for name in OPERATIONS:
                runner.check(name, arguments.size // (THREADS_SHARE if case == "threads" else 1))
            problems += runner.problems
    print("\n".join(problems))
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
