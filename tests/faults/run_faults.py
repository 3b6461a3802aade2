#!/usr/bin/env python3
"""Lets the n-th system call and the n-th allocation of the program fail, for every n that a run reaches.
Each run must end without a signal, with a message and a status other than 0 or with the output of a
run without faults. The input must not change. Interrupted and short transfers must change nothing.

Then the process is killed at each call that may change a file. The input must not change, and a
trace that exists as output must be complete or be refused with a message.

  run_faults.py --program faulty_klttool --operation dump [--stride 7] [--call-stride 1] [--no-kills]

With strides of k, n is increased in steps of k for allocations and for system calls.
"""

import argparse
import errno
import os
import pathlib
import re
import shutil
import signal
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "e2e"))
# pylint: disable=wrong-import-position
from harness import DATA, INPUT, Failure, Folder, Place, text_of  # noqa: E402

OUTPUT = "o.klt"

OPERATIONS = {
    "dump": ("counters", "--dump"),
    "dump-single": ("stencil_split", "--dump --request 0.001s:0.003s"),
    "dump-file": ("threads_sklt0", "--logfile-name out/o.rkf"),
    "extract": ("counters", "--logfile-name out/o.klt --logfile-format KLT"),
    "extract-single": ("io", "--logfile-name out/o.klt --logfile-format SINGLEKLT"),
    "convert": ("ring", "--convert out/o.klt --logfile-format SINGLEKLT"),
    "convert-plain": ("ring_sklt", "--convert out/o.klt --logfile-format KLT"),
    "merge": ("raw_ring", "--merge out/o.klt --logfile-format KLT --sumdata"),
    "merge-compressed": ("raw_compressed", "--merge out/o.klt --logfile-format SINGLEKLT"),
    "summary": ("counters", "--sumdata out/o.klt --logfile-format KLT"),
    "statistics": ("stats", "--print-statistics"),
    "files": ("ring", "--print-files"),
}

# Each fault: the call, its error (0: a short transfer), and the calls with the fault: only the n-th, all
# from the n-th on, or every second one from there on.
ONE, ALL, ALTERNATE = range(3)
FAULTS = (("open", errno.EACCES, ONE), ("open", errno.EMFILE, ONE), ("read", errno.EIO, ONE),
          ("write", errno.ENOSPC, ONE), ("write", errno.ENOSPC, ALL), ("seek", errno.EIO, ONE),
          ("close", errno.EIO, ONE), ("stat", errno.EIO, ONE), ("alloc", errno.ENOMEM, ONE))
HARMLESS = (("read", errno.EINTR, ALTERNATE), ("read", 0, ALL), ("read", 0, ALTERNATE),
            ("write", errno.EINTR, ALTERNATE), ("write", errno.EAGAIN, ALTERNATE), ("write", 0, ALL),
            ("write", 0, ALTERNATE))
# A file whose size can't be read is listed with size 0; anchors that can't be opened are left out of a
# copy, with a warning.
EXCUSED = (("files", "open"), ("files", "seek"), ("convert", "open"))
# The calls that change files: a kill at another call has the effect of a kill at the next of these. A
# negative signal is sent after half of the bytes have been written.
KILLS = (("open", signal.SIGKILL), ("write", signal.SIGKILL), ("write", -signal.SIGKILL))
# A merge that the user stops still completes an index that it has begun to write.
STOPS = tuple(("write", by) for by in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP))

# The place of a failed allocation in the message: a file of the program, except pal_mem.
PLACE = re.compile(rb"\[(generic|klt|util)/(?!pal_mem)[\w/]+\.(cpp|h):\d+\], aborting\.\n")


class Runner:
    """Runs one operation in a directory that all of its runs share."""

    def __init__(self, program, operation, directory):
        sample, self.options = OPERATIONS[operation]
        self.place = Place(program, Folder(DATA / sample), directory)
        self.out, self.operation = self.place.path / "out", operation
        self.older = {}  # the files of an older trace with the output's name, by suffix
        self.failures, self.runs = [], 0

    def run(self, call="none", n=1, error=0, by=0, calls=ONE):
        """The finished process, and whether it has reached the n-th call."""
        self.runs += 1
        shutil.rmtree(self.out, ignore_errors=True)
        self.out.mkdir()
        for part, data in self.older.items():
            (self.out / (OUTPUT + part)).write_bytes(data)
        hit = self.place.path / "hit"
        hit.unlink(missing_ok=True)
        done = self.place.finished(self.options, environment={
            "RK_VERBOSE": "0", "KLT_FAULT_HIT": str(hit),
            "KLT_FAULT": f"{call} {n} {error} {int(by)} {calls}"})
        try:
            self.place.check_input()
        except Failure as failure:
            self.note((call, n, error, by, calls), str(failure), done)
            self.place.restore()
        return done, hit.exists()

    def results(self, done):
        return done.stdout, {file.name: file.read_bytes() for file in self.out.iterdir()}

    def dump(self):
        return self.place.finished("--dump", name=f"out/{OUTPUT}", environment={"RK_VERBOSE": "0"})

    def note(self, fault, problem, done):
        self.failures.append(f"{fault}: status {done.returncode}: {problem}\n"
                             f"{text_of(done.stderr)[-2000:]}")

    def check(self, call, n, error, calls):
        """False if the run ended before the n-th call."""
        done, hit = self.run(call, n, error, calls=calls)
        status, same = done.returncode, self.results(done) == self.undisturbed
        problems = {
            "ended by a signal": status < 0 or status > 255,
            "changed by a harmless fault":
                (call, error, calls) in HARMLESS and (status != 0 or not same),
            "success with other output":
                status == 0 and not same and (self.operation, call) not in EXCUSED,
            "failure without a message": status != 0 and not done.stderr,
            "no place of the failed allocation":
                hit and call == "alloc" and not PLACE.search(done.stderr)}
        for problem in (problem for problem, is_there in problems.items() if is_there):
            self.note((call, n, error, calls), problem, done)
        return hit

    def check_killed(self, call, n, by):
        """False if the run ended before the n-th call."""
        done, hit = self.run(call, n, by=by)
        if hit and done.returncode != -abs(by):
            self.note((call, n, by), "not ended by this signal", done)
        output = self.out / OUTPUT
        if output.exists():
            dump = self.dump()
            refused = dump.returncode > 0 and dump.stderr and (
                abs(by) == signal.SIGKILL or output.stat().st_size == 0)
            if not refused and (dump.returncode != 0 or dump.stdout not in self.dumps):
                self.note((call, n, by), "the output is neither complete nor refused", dump)
        return hit

    def fail_all(self, stride, call_stride):
        done, _ = self.run()
        self.undisturbed = self.results(done)
        if done.returncode != 0:
            self.note("undisturbed", "failed", done)
        for call, error, calls in FAULTS:
            n = 1
            while self.check(call, n, error, calls):
                n += stride if call == "alloc" else call_stride
            if n == 1 and call != "stat":
                self.failures.append(f"{call} is never called")
        for call, error, calls in HARMLESS:
            for n in (1, 2):
                self.check(call, n, error, calls)

    def kill_all(self, older):
        """Kills runs; if `older` isn't None, this sample already exists under the output's name."""
        self.older = {} if older is None else {
            file.name[len(INPUT):]: file.read_bytes() for file in (DATA / older).glob(INPUT + "*")}
        self.dumps = []
        for call in ("open", "none"):  # a run that changes nothing, and one without a fault
            self.run(call, error=errno.EACCES)
            if (self.out / OUTPUT).exists():
                self.dumps.append(self.dump().stdout)
        stops = STOPS if self.operation.startswith("merge") and older is None else ()
        for call, by in KILLS + stops:
            n = 1
            while self.check_killed(call, n, by):
                n += 1


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--program")
    parser.add_argument("--operation", choices=OPERATIONS)
    parser.add_argument("--list", action="store_true", help="print the operations, run nothing")
    parser.add_argument("--stride", type=int, default=1)
    parser.add_argument("--call-stride", type=int, default=1)
    parser.add_argument("--no-kills", action="store_true")
    arguments = parser.parse_args()
    if arguments.list:
        print("\n".join(OPERATIONS))
        return 0
    memory = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
    with tempfile.TemporaryDirectory(dir=memory) as directory:
        runner = Runner(arguments.program, arguments.operation, directory)
        runner.fail_all(arguments.stride, arguments.call_stride)
        writes = f"out/{OUTPUT}" in runner.options and not arguments.no_kills
        for older in (None, "io") if writes else ():
            runner.kill_all(older)
    print("\n".join(runner.failures[:10]), f"{runner.runs} runs, {len(runner.failures)} failures",
          sep="\n")
    return 1 if runner.failures else 0


if __name__ == "__main__":
    sys.exit(main())
