#!/usr/bin/env python3
"""Runs the program on traces that ask for more than they should, under limits of memory and time:
both stay in proportion to the bytes of the trace. No control characters in messages.

  run_bounds.py --program klttool --maker make_hostile [--case C] [--size N] [--no-memory-limit]
  run_bounds.py --list
"""

import argparse
import os
import pathlib
import re
import resource
import signal
import struct
import subprocess
import sys
import tempfile
import time

LIMIT = 512 << 20  # of address space
BASE_MEMORY = 48 << 20
MEMORY_PER_BYTE = 64  # of the trace
BASE_SECONDS = 5
SECONDS_PER_MEGABYTE = 4
OUTPUT = 1 << 30
# An output has a file for each thread, so a trace of nothing but threads costs more than its bytes.
PER_THREAD = {("threads", "extract")}
THREADS_SHARE = 20  # of the size

OPERATIONS = {
    "dump": ["--dump"],
    "matched": ["--dump", "--matched-rkf"],
    "window": ["--dump", "--ticks", "--request", "1000s:1001s"],
    "late window": ["--dump", "--ticks", "--request", "9000000s:9000001s"],
    "some threads": ["--dump", "--request", "0:1000:3"],
    "unordered": ["--dump"],
    "threads": ["--print-threads"],
    "statistics": ["--print-statistics"],
    "extract": ["--logfile-name", "out/o.klt", "--logfile-format", "KLT"],
    "convert": ["--convert", "out/c.klt", "--logfile-format", "SINGLEKLT"],
    "summary": ["--sumdata", "out/s", "--logfile-format", "KLT"],
    "merge": ["--merge", "out/m.klt", "--logfile-format", "KLT", "--sumdata"],
}


def containers():
    """Single files with directories that can't be true, by name."""
    def trace(key, offsets, lengths, used):
        n = len(offsets)
        return (b"SKLT" + struct.pack(">Q", 1) + struct.pack(">I", len(key)) + key +
                struct.pack(">QI", used, n) + struct.pack(f">{n}Q", *offsets) +
                struct.pack(f">{n}Q", *lengths) + struct.pack(">Q", 12))

    n = 1_000_000
    yield "a million extents", trace(b" ", range(12, 12 + n), [1] * n, 1)
    yield "overlapping extents", trace(b" ", [12] * 3, [1 << 40] * 3, 1 << 40)
    yield "far extents", trace(b".f", [1 << 62], [1 << 62], 5)
    yield "a long key", trace(b"k" * 65535, [12], [1], 1)


def made_cases():
    """The names in the maker's table. Its source says them before it is built."""
    source = (pathlib.Path(__file__).resolve().parent / "make_hostile.cpp").read_text()
    return re.findall(r'{"(\w+)", ', re.search(r"kCases\[\] = (.*?);", source, re.DOTALL)[1])


def limits(memory):
    def apply():
        if memory:
            resource.setrlimit(resource.RLIMIT_AS, (LIMIT, LIMIT))
        resource.setrlimit(resource.RLIMIT_FSIZE, (OUTPUT, OUTPUT))
        resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    return apply


def run(arguments, case, name, options, place, size, memory):
    """Problems of one run, as texts."""
    environment = {"RK_VERBOSE": "0", "KLTT_SERIAL": "0" if name == "unordered" else "1",
                   "ASAN_OPTIONS": "abort_on_error=1", "UBSAN_OPTIONS": "abort_on_error=1"}
    allowed = BASE_SECONDS + SECONDS_PER_MEGABYTE * size / 1e6
    (place / "out").mkdir(exist_ok=True)
    begin = time.monotonic()
    with open(place / "stdout", "wb") as stdout, open(place / "stderr", "wb") as stderr:
        process = subprocess.Popen(
            ["/usr/bin/time", "-q", "-o", place / "peak", "-f", "%M",
             str(arguments.program.resolve()), "t.klt", *options],
            cwd=place, env=environment, stdin=subprocess.DEVNULL, stdout=stdout, stderr=stderr,
            preexec_fn=limits(memory), start_new_session=True)
        try:
            process.wait(allowed)
        except subprocess.TimeoutExpired:
            os.killpg(process.pid, signal.SIGKILL)
            process.wait()
            yield f"not over after {allowed:.0f} s"
            return
    elapsed = time.monotonic() - begin
    peak = int((place / "peak").read_text().split()[-1]) << 10
    messages = (place / "stderr").read_bytes()
    if process.returncode < 0 or process.returncode > 127:
        yield f"status {process.returncode}"
    if memory and (case, name) not in PER_THREAD and peak > BASE_MEMORY + MEMORY_PER_BYTE * size:
        yield f"{peak >> 20} MiB for {size} bytes"
    if b"out of memory" in messages:
        yield "out of memory"
    if re.search(rb"[\x00-\x08\x0b\x0c\x0e-\x1f\x7f]", messages):
        yield "control characters in messages"
    print(f"  {name}: status {process.returncode}, {elapsed:.2f} s, {peak >> 20} MiB", flush=True)


def check(arguments, name, fill):
    with tempfile.TemporaryDirectory() as directory:
        place = pathlib.Path(directory)
        fill(place)
        size = sum(file.stat().st_size for file in place.glob("t.klt*"))
        print(f"{name}: {size} bytes", flush=True)
        return [f"{name}, {operation}: {problem}" for operation, options in OPERATIONS.items()
                for problem in run(arguments, name, operation, options, place,
                                   size, not arguments.no_memory_limit)]


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--program", type=pathlib.Path)
    parser.add_argument("--maker", type=pathlib.Path)
    parser.add_argument("--list", action="store_true", help="print the cases, run nothing")
    parser.add_argument("--case", help="one case; `containers` for all of those")
    parser.add_argument("--size", type=int, default=100_000)
    parser.add_argument("--no-memory-limit", action="store_true", help="for sanitizers")
    arguments = parser.parse_args()
    cases = made_cases()
    if arguments.list:
        print("\n".join([*cases, "containers"]))
        return 0
    if arguments.program is None or arguments.maker is None:
        parser.error("--program and --maker are needed")
    problems = []
    for case in cases:
        if arguments.case in (None, case):
            size = arguments.size // THREADS_SHARE if case == "threads" else arguments.size
            problems += check(arguments, case, lambda place, case=case, size=size: subprocess.run(
                [arguments.maker, case, place, str(size)], check=True))
    if arguments.case in (None, "containers"):
        for name, data in containers():
            problems += check(arguments, name,
                              lambda place, data=data: (place / "t.klt").write_bytes(data))
    elif arguments.case not in cases:
        parser.error("no such case")
    print("\n".join(problems))
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
