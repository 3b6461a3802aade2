#!/usr/bin/env python3
"""Runs the program on traces that ask for more than they should, under limits of memory and CPU time:
both stay in proportion to the bytes of the trace. No control characters in messages.

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

BASE_MEMORY = 48 << 20  # of address space
MEMORY_PER_BYTE = 8  # of the trace
# An output has a file for each thread, so a trace of nothing but threads costs more than its bytes.
PER_BYTE = {("thread_lists", "some threads"): 64, ("threads", "extract"): 1000}
BASE_SECONDS = 5  # of CPU time
SECONDS_PER_MEGABYTE = 1
OUTPUT = 1 << 30
THREADS_SHARE = 20  # of the size

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


def container(key, count, offset, length, used):
    """A container with one component, whose extents follow one another if they have a byte each."""
    offsets = array.array("Q", (offset + (i if length == 1 else 0) for i in range(count)))
    offsets.byteswap()
    return (b"SKLT" + struct.pack(f">QI{len(key)}sQI", 1, len(key), key, used, count)
            + offsets.tobytes() + struct.pack(">Q", length) * count + struct.pack(">Q", 12))


# Single files with directories that can't be true.
CONTAINERS = {
    "million_extents": (b" ", 1_000_000, 12, 1, 1),
    "overlapping_extents": (b" ", 3, 12, 1 << 40, 1 << 40),
    "far_extents": (b".f", 1, 1 << 62, 1 << 62, 5),
    "long_key": (b"k" * 65535, 1, 12, 1, 1),
}


def run(program, case, name, place, memory):
    """Problems of one run, as texts. `memory` limits it unless that is false."""
    size = sum(file.stat().st_size for file in place.glob("t.klt*"))
    seconds = int(BASE_SECONDS + SECONDS_PER_MEGABYTE * size / 1e6)
    limits = {resource.RLIMIT_CPU: seconds, resource.RLIMIT_FSIZE: OUTPUT, resource.RLIMIT_CORE: 0}
    if memory:
        limits[resource.RLIMIT_AS] = BASE_MEMORY + size * PER_BYTE.get((case, name), MEMORY_PER_BYTE)

    def confine():
        for kind, limit in limits.items():
            resource.setrlimit(kind, (limit, limit))

    environment = {"RK_VERBOSE": "0", "KLTT_SERIAL": "0" if name == "unordered" else "1",
                   "ASAN_OPTIONS": "abort_on_error=1", "UBSAN_OPTIONS": "abort_on_error=1"}
    (place / "out").mkdir(exist_ok=True)
    done = subprocess.run([program, "t.klt", *OPERATIONS[name].split()], cwd=place, env=environment,
                          stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, check=False,
                          stderr=subprocess.PIPE, preexec_fn=confine)
    if done.returncode < 0 or done.returncode > 127:
        yield f"status {done.returncode}, with {seconds} s of CPU time at most"
    if b"out of memory" in done.stderr:
        yield f"out of memory, {size} bytes of input"
    if re.search(rb"[\x00-\x08\x0b\x0c\x0e-\x1f\x7f]", done.stderr):
        yield "control characters in messages"


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
    problems, cases = [], [arguments.case] if arguments.case else [*made.stdout.split(), *CONTAINERS]
    for case in cases:
        print(case, flush=True)
        with tempfile.TemporaryDirectory() as directory:
            place = pathlib.Path(directory)
            size = arguments.size // (THREADS_SHARE if case == "threads" else 1)
            if case in CONTAINERS:
                (place / "t.klt").write_bytes(container(*CONTAINERS[case]))
            else:
                subprocess.run([arguments.maker, case, place, str(size)], check=True)
            problems += [f"{case}, {name}: {problem}" for name in OPERATIONS
                         for problem in run(arguments.program.resolve(), case, name, place,
                                            not arguments.no_memory_limit)]
    print("\n".join(problems))
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
