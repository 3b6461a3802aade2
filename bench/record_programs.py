#!/usr/bin/env python3
"""Measures what klt-record costs in whole programs: kernels of usual benchmarks, the heat solver, and
HPCC and a molecular dynamics run if these are installed. Each is run with and without the recorder
in turn; the minima count.

usage: record_programs.py BUILD openmpi|mpich [RUNS [PROCESSES]]

A line for each program: its own time without the recorder, by its own clock, or else with its start and
end; how much longer it takes, recorded; what its records would cost at 23 ns each, one process after
the other; the spread of the runs without the recorder; and the time of the whole run with conversion
and merge, as a multiple of that without the recorder.

Without arguments there are 5 runs of two processes. With one process, processor time is measured, which
other work on the machine changes less; kernels and the heat solver then send little or nothing.
"""

import os
import pathlib
import re
import resource
import shutil
import subprocess
import sys
import tempfile
import time

SOURCE = pathlib.Path(__file__).resolve().parent.parent
MELT = """units lj
atom_style atomic
lattice fcc 0.8442
region box block 0 20 0 20 0 20
create_box 1 box
create_atoms 1 box
mass 1 1.0
velocity all create 1.44 87287
pair_style lj/cut 2.5
pair_coeff 1 1 1.0 1.0 2.5
neighbor 0.3 bin
fix 1 all nve
thermo 100
run 100
"""
RECORD_NS = 23  # by record_overhead.py
HPCC = (("Ns", "2000"), ("Ps", "1"), ("Qs", "2"))


def programs(path, mpi, size):
    """Name, command, and the pattern of the program's own seconds in its output."""
    kernels = path / "kernels"
    subprocess.run([f"mpicc.{mpi}", "-O2", SOURCE / "bench/record_kernels.c", "-o", kernels, "-lm"],
                   check=True)
    for kind, steps in (("cg", 200), ("is", 100), ("ft", 100), ("lu", 200)):
        yield kind, [kernels, kind, steps], r"([\d.]+) seconds"
    heat = path / "heat"
    subprocess.run([f"mpicc.{mpi}", "-O2", "-DKLT_RECORD", f"-I{SOURCE}/record",
                    SOURCE / "examples/heat/heat.c", "-o", heat, "-lm"], check=True)
    yield "heat", [heat, 1000, 600], None
    if mpi == "openmpi" and shutil.which("lmp"):
        (path / "in.melt").write_text(MELT)
        yield "molecular dynamics", ["lmp", "-in", "in.melt"], r"Loop time of ([\d.]+)"
    if mpi == "openmpi" and size == 2 and shutil.which("hpcc"):
        text = subprocess.run(["zcat", "-f", "/usr/share/doc/hpcc/examples/_hpccinf.txt"], check=True,
                              stdout=subprocess.PIPE, text=True).stdout
        for name, value in HPCC:
            text = re.sub(rf"^\S+(\s+{name})$", rf"{value}\1", text, flags=re.M)
        (path / "hpccinf.txt").write_text(text)
        yield "HPCC", ["hpcc"], None


def clock(size):
    """Seconds: of the processor if there is one process, which doesn't wait actively."""
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime if size == 1 else time.monotonic()


def run(path, size, command, pattern):
    """The seconds of a run, and the program's own."""
    start = clock(size)
    done = subprocess.run(list(map(str, command)), cwd=path, check=True, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    whole = clock(size) - start
    return whole, float(re.search(pattern, done.stdout)[1]) if pattern and size > 1 else whole


def run_recorded(path, size, build, mpi, options, command, pattern):
    """The same with the time of conversion and merge, which follow the run here, and the number of
    records."""
    record = build / "klt-record"
    start = ["mpirun." + mpi, "-n", size, record, "--mpi", mpi, *options]
    whole, own = run(path, size, [*start, "env", "KLT_RECORD_EXE=none", *command], pattern)
    start = clock(size)
    said = subprocess.run([record, "--finish", "run.klt.rec"], cwd=path, check=True, text=True,
                          stderr=subprocess.PIPE).stderr
    finish = clock(size) - start
    return whole + finish, own, int(re.search(r"(\d+) records", said)[1])


def report(name, size, bare, recorded):
    whole, own = (min(times) for times in zip(*bare))
    spread = max(one[1] for one in bare) / own - 1
    more = min(one[1] for one in recorded) / own - 1
    expected = recorded[-1][2] / size * RECORD_NS / 1e9 / own
    print(f"{name:26} {own:6.2f} s {more:+7.1%} expected {expected:+6.1%} spread {spread:5.1%} "
          f"whole run {min(one[0] for one in recorded) / whole:.2f} x, {recorded[-1][2]} records",
          flush=True)


def main():
    build, mpi = pathlib.Path(sys.argv[1]).resolve(), sys.argv[2]
    runs = int(sys.argv[3]) if len(sys.argv) > 3 else 5
    size = int(sys.argv[4]) if len(sys.argv) > 4 else 2
    os.environ.update(OMPI_ALLOW_RUN_AS_ROOT="1", OMPI_ALLOW_RUN_AS_ROOT_CONFIRM="1",
                      OMP_NUM_THREADS="1", OPENBLAS_NUM_THREADS="1")
    with tempfile.TemporaryDirectory() as directory:
        path = pathlib.Path(directory)
        for name, command, pattern in programs(path, mpi, size):
            kinds = [[], ["--skip-polls"]] if name == "HPCC" else [[]]
            bare, recorded = [], [[] for _ in kinds]
            for _ in range(runs):
                bare.append(run(path, size, ["mpirun." + mpi, "-n", size, *command], pattern))
                for options, times in zip(kinds, recorded):
                    times.append(run_recorded(path, size, build, mpi, options, command,
                                              pattern))
            for options, times in zip(kinds, recorded):
                report(" ".join([name, *options]), size, bare, times)


if __name__ == "__main__":
    main()
