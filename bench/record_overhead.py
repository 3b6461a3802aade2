#!/usr/bin/env python3
"""Measures what klt-record costs: nanoseconds of a call and of a record, bytes of a record, and records
per second of conversion and merge. Runs with and without the recorder are interleaved; the minima
count.

usage: record_overhead.py BUILD openmpi|mpich [RUNS]
"""

import os
import pathlib
import subprocess
import sys
import tempfile
import time

CALLS, RECORDS = 3, 8  # of a round: three calls with enter and leave, a send and a receive
ROUNDS = 1_000_000


def run(*command, **options):
    return subprocess.run([str(one) for one in command], check=True, capture_output=True, text=True,
                          **options).stdout


def size_of(path, pattern):
    return sum(one.stat().st_size for one in path.glob(pattern))


def main():
    build, mpi = pathlib.Path(sys.argv[1]).resolve(), sys.argv[2]
    runs = int(sys.argv[3]) if len(sys.argv) > 3 else 5
    source = pathlib.Path(__file__).resolve().parent.parent
    os.environ.update(OMPI_ALLOW_RUN_AS_ROOT="1", OMPI_ALLOW_RUN_AS_ROOT_CONFIRM="1")
    with tempfile.TemporaryDirectory() as directory:
        path = pathlib.Path(directory)
        program, record = path / "loop", build / "klt-record"
        run(f"mpicc.{mpi}", "-O2", "-DKLT_RECORD", f"-I{source}", source / "bench/record_overhead.c",
            "-o", program)
        bare, recorded, finish = [], [], []
        for _ in range(runs):
            bare.append(tuple(map(float, run(program, ROUNDS, cwd=path).split())))
            environment = {**os.environ, "KLT_RECORD_CLOCK": ""}
            # The spools are kept: the end of the run is measured alone.
            output = run(record, "--quiet", program, ROUNDS, cwd=path, env=environment)
            recorded.append(tuple(map(float, output.split())))
        bare_round, bare_mark = map(min, zip(*bare))
        round_, mark = map(min, zip(*recorded))
        # Once more, stopped before its end, so that --finish can be measured.
        run("sh", "-c", f"KLT_RECORD_EXE=none {record} --quiet -o keep.klt env KLT_RECORD_EXE=none "
            f"{program} {ROUNDS}", cwd=path)
        spool = size_of(path / "keep.klt.rec", "*.spool")
        start = time.perf_counter()
        said = subprocess.run([record, "--finish", "keep.klt.rec"], cwd=path, check=True,
                              capture_output=True, text=True).stderr
        finish.append(time.perf_counter() - start)
        records = int(said.split(" records")[0].split()[-1])
        trace = size_of(path, "keep.klt*")
    print(f"{mpi}: a round of {CALLS} calls and {RECORDS} records: {bare_round:.1f} ns bare, "
          f"{round_:.1f} ns recorded")
    print(f"  a call with its records: +{(round_ - bare_round) / CALLS:.1f} ns")
    print(f"  a record of these:       +{(round_ - bare_round) / RECORDS:.1f} ns")
    print(f"  a record of a mark:      +{(mark - bare_mark) / 2:.1f} ns")
    print(f"  bytes a record: {spool / records:.1f} in the spool, {trace / records:.1f} in the trace")
    print(f"  conversion, merge and check: {records / min(finish) / 1e6:.2f} million records/s")


if __name__ == "__main__":
    main()
