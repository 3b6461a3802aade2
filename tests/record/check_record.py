#!/usr/bin/env python3
"""Records programs that count for themselves what they send, receive and call, and compares the
trace with their counts, record by record.

usage: check_record.py BUILD SOURCE openmpi|mpich CASE...     (all cases without CASE)
       check_record.py --list
"""

import collections
import os
import pathlib
import random
import shutil
import subprocess
import sys
import tempfile

import traces

MISSING = 77  # the status that ctest takes as "skipped"
LIMIT = 120


class Place:
    """A directory with the programs of one MPI."""

    def __init__(self, build, source, mpi, path):
        self.build, self.source = pathlib.Path(build).resolve(), pathlib.Path(source).resolve()
        self.mpi, self.path, self.status = mpi, path, 0
        self.record, self.klttool = self.build / "klt-record", self.build / "klttool"

    def compile(self, compiler, name, source, *options):
        program = shutil.which(f"{compiler}.{self.mpi}")
        if program is None:
            return None
        command = [program, "-O1", "-w", f"-I{self.source}", *options,
                   self.source / "tests/record" / source, "-o", self.path / name]
        subprocess.run(command, check=True)
        return name

    def run(self, size, *command, status=0, env=(), **options):
        """Runs a command in `size` processes; 0: without mpirun. Returns what it writes."""
        start = [f"mpirun.{self.mpi}", "-n", str(size)] if size else []
        if size and self.mpi == "openmpi":
            start.append("--oversubscribe")
        done = subprocess.run([*start, *map(str, command)], cwd=self.path, capture_output=True,
                              text=True, timeout=LIMIT, check=False, stdin=subprocess.DEVNULL,
                              env={**os.environ, **dict(env)}, **options)
        if status is not None and done.returncode != status:
            sys.exit(f"{command}: status {done.returncode}\n{done.stdout}\n{done.stderr}")
        self.status = done.returncode
        return done.stdout + done.stderr

    def trace(self, name="run.klt"):
        return traces.Trace(self.klttool, self.path / name)

    def shim(self):
        subprocess.run(["cc", "-O1", "-w", "-shared", "-fPIC", self.source / "tests/record/shim.c",
                        "-o", self.path / "shim.so", "-ldl"], check=True)

    def clean(self):
        for one in self.path.glob("run*.klt*"):
            shutil.rmtree(one) if one.is_dir() else one.unlink()


def check_program(place, program, size, skips):
    place.clean()
    said = place.run(size, place.record, "--quiet", *["--skip-polls"] * skips, f"./{program}", "log",
                     *["skip"] * skips)
    trace = place.trace()
    traces.compare(trace, traces.Counts(place.path / "log", size), size)
    if said or (place.path / "run.klt.rec").exists():
        sys.exit(f"klt-record says {said}")
    return trace


def kinds(place):
    place.compile("mpicc", "kinds", "kinds.c")
    for size, skips in ((8, False), (2, True)) if place.mpi == "openmpi" else ((1, False), (3, True)):
        trace = check_program(place, "kinds", size, skips)
        # Of two equal messages the first one was waited for later.
        delays = [one[4] for one in trace.messages if one[:3] == (size - 1, 0, 30)]
        if len(delays) != 2 or delays[0] < delays[1] + 10_000_000:
            sys.exit(f"receives that complete in another order: {delays}")
        if [len(trace.comms[comm]) for comm, name in trace.comm_names.items() if name == "the twin"] \
                == [] or sum(name.startswith("MPI_Comm_dup#") for name in
                             trace.comm_names.values()) < 1000 * size:
            sys.exit("communicators are missing")
        operations = [(word[1], word[-1]) for word in trace.others if word[1].startswith("FILEIO")]
        print(f"{place.mpi} C, {size} processes: {len(trace.messages)} messages, "
              f"{len(trace.collops)} operations, {len(operations)} on files")


def fortran(place):
    for interface in ("MPIF", "USEMPI", "F08"):
        name = place.compile("mpif90", f"kinds_{interface}", "kinds.F90", f"-D{interface}",
                             "-ffree-line-length-none", "-fallow-argument-mismatch")
        if name is None:
            print(f"there is no Fortran compiler for {place.mpi}")
            sys.exit(MISSING)
        size = 3 if interface == "MPIF" else 2
        trace = check_program(place, name, size, interface != "USEMPI")
        print(f"{place.mpi} {interface}, {size} processes: {len(trace.messages)} messages")


def expect(what, wanted, found):
    if wanted != found:
        sys.exit(f"{what}: {found}, not {wanted}")


def endings(place):
    """Runs that end without MPI_Finalize leave spools, from which a trace is made."""
    place.compile("mpicc", "faults", "faults.c", "-DKLT_RECORD", "-lpthread")
    for what in ("abort", "kill", "crash", "exit") if place.mpi == "openmpi" else ("abort", "kill"):
        place.clean()
        place.run(3, place.record, "./faults", what, status=None)
        said = place.run(0, place.record, "--finish", "run.klt.rec")
        trace = place.trace()
        # 3 x 100 messages in the ring and two that nobody takes; all calls are closed.
        expect(f"{what}: messages", (300, 2), (len(trace.messages), len(trace.unmatched)))
        expect(f"{what}: open calls", 0, sum(trace.depth.values()))
        expect(f"{what}: last calls", 2, sum(trace.calls[rank]["MPI_Recv"] for rank in (0, 2)))
        expect(f"{what}: the call that ends the run", what == "abort",
               trace.calls[1]["MPI_Abort"] == 1)
        if "MPI_Finalize is missing" not in said or (place.path / "run.klt.rec").exists():
            sys.exit(f"{what}: klt-record --finish says {said}")


def damaged(place):
    """A spool in which anything may be wrong gives a trace or a message."""
    place.compile("mpicc", "faults", "faults.c", "-DKLT_RECORD", "-lpthread")
    place.run(2, place.record, "./faults", "kill", status=None)
    kept = {one.name: one.read_bytes() for one in (place.path / "run.klt.rec").iterdir()}
    dice = random.Random(7)
    statuses = collections.Counter()
    for _ in range(25):
        place.clean()
        (place.path / "run.klt.rec").mkdir()
        for name, content in kept.items():
            damage = bytearray(content)
            for _ in range(dice.choice((1, 20, 400))):
                # Most of it in the header, in slot headers and in the first records.
                at = dice.choice((0, 65536, 131072)) + dice.randrange(dice.choice((40, 600, 4000)))
                if at < len(damage):
                    damage[at] = dice.choice((0, 1, 255, dice.randrange(256)))
            cut = dice.choice((len(damage), len(damage), dice.randrange(len(damage) + 1)))
            (place.path / "run.klt.rec" / name).write_bytes(damage[:cut])
        done = subprocess.run([place.record, "--finish", "run.klt.rec"], cwd=place.path, check=False,
                              capture_output=True, text=True, timeout=LIMIT)
        statuses[done.returncode] += 1
        if done.returncode not in (0, 1) or not done.stderr or "Sanitizer" in done.stderr:
            sys.exit(f"status {done.returncode}: {done.stderr}")
    print(f"{statuses[0]} traces, {statuses[1]} messages")


def behaviours(place):
    """Programs that start threads and processes, initialise MPI elsewhere, or record in part."""
    place.compile("mpicc", "faults", "faults.c", "-DKLT_RECORD", "-lpthread")
    record = [place.record, "--quiet"]
    for what, messages in (("threads", 1200), ("inthread", 30), ("children", 15), ("quiet", 0),
                           ("many", 30000)):
        place.clean()
        expect(f"{what}: what is said", "", place.run(3, *record, "./faults", what))
        trace = place.trace()
        expect(f"{what}: messages", (messages, 0), (len(trace.messages), len(trace.unmatched)))
        expect(f"{what}: open calls", 0, sum(trace.depth.values()))
        expect(f"{what}: early messages", [], [one for one in trace.messages if one[4] < 0])
        expect(f"{what}: the trace of a child", False, any("child" in one for one in trace.comments))
        if what == "quiet":
            expect("barriers during a pause", [1, 0, 0],
                   [trace.calls[rank]["MPI_Barrier"] for rank in range(3)])
        if what == "threads":
            expect("threads", 12, len(trace.process))
    place.clean()
    said = place.run(1, place.record, "./faults", "more")
    if " 250000 messages" not in said or "lack" in said:
        sys.exit(f"250000 requests at a time: {said}")
    # A second MPI_Init is the program's mistake: its end is the same with the recorder.
    place.clean()
    place.run(2, "./faults", "twice", status=None)
    bare = place.status
    place.run(2, *record, "./faults", "twice", status=None)
    expect("status of two calls of MPI_Init", bare, place.status)
    # A process that can't write its record takes part in the run of the others.
    place.clean()
    said = place.run(2, *record, "sh", "-c", 'case "${OMPI_COMM_WORLD_RANK:-$PMI_RANK}" in '
                     "1) export KLT_RECORD_DIR=/proc/none;; esac; exec ./faults children")
    if "isn't recorded" not in said or "there is no record of process 1" not in said:
        sys.exit(f"a process without a record: {said}")
    expect("calls of the other", 5, place.trace().calls[0]["MPI_Sendrecv"])


def worlds(place):
    """Spawned processes (which MPICH can't start here) and sessions (which Open MPI 4 doesn't have)."""
    place.compile("mpicc", "faults", "faults.c", "-DKLT_RECORD", "-lpthread")
    outside = "messages with processes outside of this run"
    record = [place.record, "--quiet", "./faults"]
    if place.mpi == "mpich":
        expect("a session beside MPI_Init", "", place.run(2, *record, "session"))
        expect("its messages", 20, len(place.trace().messages))
        place.clean()
    said = place.run(2, *record, "spawn" if place.mpi == "openmpi" else "alone")
    found = [place.trace(one.name) for one in place.path.glob("run*.klt")]
    expect("traces, and what is said of them", (2, 2), (len(found), said.count(outside)))
    for trace in found:
        expect("messages and operations", (20, 1) if place.mpi == "openmpi" else (0, 0),
               (len(trace.messages) + len(trace.unmatched), len(trace.collops)))
        expect("what isn't recorded", True, any(outside in one for one in trace.comments))


def programs(place):
    """Without MPI: marks, instrumented functions, a full disk, other names and statuses."""
    place.compile("mpicc", "faults", "faults.c", "-DKLT_RECORD", "-lpthread")
    place.clean()
    place.run(0, place.record, "--counters", "rss,faults", "-o", "run.plain.klt", "./faults", "plain",
              status=4)
    trace = place.trace("run.plain.klt")
    expect("calls", {"main": 1, "outer part": 1}, dict(trace.calls[0]))
    expect("comments", True, any("half-way" in one for one in trace.comments) and
           not any("not recorded" in one for one in trace.comments))
    kinds = sorted(word[1] for word in trace.others)
    expect("marks", ["BEGINSCOPE", "ENDSCOPE", "SAMP", "SAMP"], kinds)
    subprocess.run(["g++", "-O1", "-finstrument-functions",
                    place.source / "tests/record/functions.cpp", "-o", place.path / "functions"],
                   check=True)
    expect("output", "6 2", place.run(0, place.record, "--quiet", "./functions").strip())
    calls = place.trace().calls[0]
    expect("functions", (1, 1, 4, 4, 1), tuple(calls[name] for name in (
        "main", "outer()", "hidden(int)", "plain_function", "shapes::Circle::area(int) const")))
    # A disk that is full from the start, by a limit whose signal would end the program.
    place.clean()
    said = place.run(0, "sh", "-c", f"ulimit -f 64; exec {place.record} ./faults plain", status=4)
    expect("a limit of file sizes", True, "isn't recorded" in said or "goes on" in said)
    # One that is full later: the record of the run ends early, the run doesn't.
    place.clean()
    place.shim()
    said = place.run(2, place.record, "./faults", "long",
                     env={"FULL_AFTER": "3", "LD_PRELOAD": place.path / "shim.so",
                          "KLT_RECORD_CLOCK": "posix"})
    trace = place.trace()
    expect("messages after a full disk", 0, sum(trace.depth.values()))
    if said.count("the program goes on") != 2 or "recording has stopped early" not in said or \
            not 1000 < len(trace.messages) < 10000 or \
            not any("recording stopped" in one for one in trace.comments):
        sys.exit(f"a full disk: {len(trace.messages)} messages, {said}")
    # The end of a program whose output nobody waits for, and which ignores the ends of its children.
    place.clean()
    place.run(0, "sh", "-c", f"trap '' CHLD; {place.record} ./faults many >said 2>&1; exec test -e run.klt "
              "-a ! -e run.klt.rec")
    # Programs of a parallel start that don't use MPI have a trace each.
    place.clean()
    place.run(2, place.record, "--quiet", "true")
    expect("traces", {"run.0.klt", "run.1.klt"}, {one.name for one in place.path.glob("run.*.klt")})
    expect("a program that doesn't exist", True,
           "No such file" in place.run(0, place.record, "./none", status=127))


def clocks(place):
    """Hosts with clocks of their own."""
    place.compile("mpicc", "faults", "faults.c", "-DKLT_RECORD", "-lpthread")
    place.shim()
    said = place.run(2, place.record, "./faults", "long", status=None,
                     env={"KLT_RECORD_CLOCK": "posix", "LD_PRELOAD": place.path / "shim.so"})
    trace = place.trace()
    expect("messages", (12000, 0), (len(trace.messages), len(trace.unmatched)))
    # Uncorrected, half of the messages would be 50 ms early or more.
    early = sorted(one[4] for one in trace.messages if one[4] < 0)
    if early and early[0] < -2_000_000:
        sys.exit(f"{len(early)} messages are early, by {-early[0]} ns at most: {said}")
    print(f"{len(early)} of {len(trace.messages)} messages are early: {said}")


CASES = {case.__name__: case for case in (kinds, fortran, endings, damaged, behaviours, worlds,
                                     programs, clocks)}


def main():
    if sys.argv[1:] == ["--list"]:
        print("\n".join(CASES))
        return
    build, source, mpi, *names = sys.argv[1:]
    if shutil.which(f"mpicc.{mpi}") is None or shutil.which(f"mpirun.{mpi}") is None:
        print(f"{mpi} isn't installed: nothing is recorded with it")
        sys.exit(MISSING)
    os.environ.update(OMPI_ALLOW_RUN_AS_ROOT="1", OMPI_ALLOW_RUN_AS_ROOT_CONFIRM="1",
                      OMPI_MCA_mpi_yield_when_idle="1", OMPI_MCA_btl_vader_single_copy_mechanism="none")
    for name in names or CASES:
        with tempfile.TemporaryDirectory() as directory:
            CASES[name](Place(build, source, mpi, pathlib.Path(directory)))


if __name__ == "__main__":
    main()
