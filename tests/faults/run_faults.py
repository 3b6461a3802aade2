#!/usr/bin/env python3
"""Lets each system call and allocation of the program fail in turn, until a run is over before its
turn comes. After each run: no signal; a status other than 0 and a message, or the output of an
undisturbed run; the input as it was.

Then the process is killed at each call that may change a file: the input is as it was, and a trace
that is left as output is complete, or refused with a message.

  run_faults.py --program faulty_klttool --operation dump [--stride 7] [--call-stride 1] [--no-kills]

Only every k-th allocation and system call fails, with the strides given.
"""

import argparse
import errno
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile

DATA = pathlib.Path(__file__).resolve().parent.parent / "data"
TRACE_OUTPUT = "out/o.klt"

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

# What can go wrong with each call: the error, 0 for a transfer of less than was asked for, and
# whether all later calls go wrong too.
FAULTS = (("open", errno.EACCES, 0), ("open", errno.EMFILE, 0), ("read", errno.EIO, 0),
          ("write", errno.ENOSPC, 0), ("write", errno.ENOSPC, 1), ("seek", errno.EIO, 0),
          ("close", errno.EIO, 0), ("stat", errno.EIO, 0), ("alloc", errno.ENOMEM, 0))
# These must have no effect at all.
HARMLESS = (("read", errno.EINTR, 0), ("read", 0, 0), ("write", errno.EINTR, 0),
            ("write", errno.EAGAIN, 0), ("write", 0, 0), ("write", 0, 1))
# A file that can't be looked at is listed with size 0; seek points that can't be opened are left out
# of a copy, with a warning.
EXCUSED = (("files", "open"), ("files", "seek"), ("convert", "open"))
# The calls that change files: a kill at any other one leaves what a kill at the next of these leaves.
# A negative signal comes when half of what was to be written is written.
KILLS = (("open", signal.SIGKILL), ("write", signal.SIGKILL), ("write", -signal.SIGKILL))
# A merge that the user stops completes an index that it has begun.
STOPS = (("write", signal.SIGINT), ("write", signal.SIGTERM))

# Where memory was missed: in the program's own code, by its path in the source tree.
PLACE = re.compile(rb"\[(generic|klt|util)/(?:\w+/)?(?!pal_mem)\w+\.(cpp|h):\d+\], aborting\.\n")


class Runner:
    """Runs one operation in a directory that all of its runs share."""

    def __init__(self, program, operation, directory):
        self.program = str(pathlib.Path(program).resolve())
        self.operation = operation
        self.place = pathlib.Path(directory)
        sample, options = OPERATIONS[operation]
        self.options = options.split()
        self.input = {self.place / file.name: file.read_bytes()
                      for file in (DATA / sample).glob("t.klt*")}
        for file, data in self.input.items():
            file.write_bytes(data)
        self.older = {}  # a trace under the output's name that is there already
        self.failures = []

    def execute(self, *arguments, **environment):
        environment = dict(os.environ, ASAN_OPTIONS="abort_on_error=1", RK_VERBOSE="0",
                           UBSAN_OPTIONS="abort_on_error=1", **environment)
        return subprocess.run([self.program, *arguments], cwd=self.place, env=environment,
                              stdin=subprocess.DEVNULL, capture_output=True, timeout=120, check=False)

    def run(self, call="none", n=1, error=0, by=0, stays=0):
        """The finished process, names of inputs that changed, and whether the fault's turn came."""
        shutil.rmtree(self.place / "out", ignore_errors=True)
        (self.place / "out").mkdir()
        for name, data in self.older.items():
            (self.place / name).write_bytes(data)
        hit = self.place / "hit"
        done = self.execute("t.klt", *self.options, KLT_FAULT_HIT=str(hit),
                            KLT_FAULT=f"{call} {n} {error} {int(by)} {stays}")
        changed = [file for file, data in self.input.items()
                   if not file.exists() or file.read_bytes() != data]
        for file in changed:
            file.write_bytes(self.input[file])
        was_hit = hit.exists()
        hit.unlink(missing_ok=True)
        return done, [file.name for file in changed], was_hit

    def results(self, done):
        return done.stdout, {str(file): file.read_bytes()
                             for file in (self.place / "out").rglob("*") if file.is_file()}

    def note(self, fault, problem, done):
        message = done.stderr.decode("utf-8", "backslashreplace")[-2000:]
        self.failures.append(f"{fault}: status {done.returncode}: {problem}\n{message}")

    def check(self, call, n, error, stays):
        """False if the run was over before the fault's turn."""
        done, changed, hit = self.run(call, n, error, stays=stays)
        if not hit:
            return False
        status = done.returncode
        same = self.results(done) == self.undisturbed
        harmless = (call, error, stays) in HARMLESS
        problems = {
            f"changed {changed}": changed,
            "ended by a signal": status < 0 or status > 255,
            "not taken in its stride": harmless and (status != 0 or not same),
            "success with other output":
                status == 0 and not same and (self.operation, call) not in EXCUSED,
            "failure without a message": status != 0 and not done.stderr,
            "no place of the program that missed the memory":
                call == "alloc" and not PLACE.search(done.stderr)}
        for problem in (problem for problem, is_there in problems.items() if is_there):
            self.note((call, n, error, stays), problem, done)
        return True

    def check_killed(self, call, n, by):
        """False if the run was over before its turn."""
        done, changed, hit = self.run(call, n, by=by)
        if changed or hit and done.returncode != -abs(by):
            self.note((call, n, by), f"changed {changed}, or not ended by this signal", done)
        output = self.place / TRACE_OUTPUT
        if output.exists():
            dump = self.execute(TRACE_OUTPUT, "--dump")
            refused = dump.returncode > 0 and dump.stderr and (
                abs(by) == signal.SIGKILL or output.stat().st_size == 0)
            if not refused and (dump.returncode != 0 or dump.stdout not in self.dumps):
                self.note((call, n, by), "what is left is neither whole nor refused", dump)
        return hit

    def fail_all(self, stride, call_stride):
        done, _, _ = self.run()
        self.undisturbed = self.results(done)
        if done.returncode != 0:
            sys.exit(f"undisturbed: status {done.returncode}\n{done.stderr.decode()}")
        for call, error, stays in FAULTS + HARMLESS:
            n = 1
            while self.check(call, n, error, stays):
                n += stride if call == "alloc" else call_stride
            print(f"{call} {error} {stays}: up to {n}", flush=True)

    def kill_all(self, older):
        """With a trace of the sample `older` in the output's place, unless that is None."""
        self.older = {} if older is None else {
            TRACE_OUTPUT + file.name[len("t.klt"):]: file.read_bytes()
            for file in (DATA / older).glob("t.klt*")}
        self.dumps = []
        for call in ("open", "none"):  # which leaves all as it is, or doesn't strike
            self.run(call, error=errno.EACCES)
            if (self.place / TRACE_OUTPUT).exists():
                self.dumps.append(self.execute(TRACE_OUTPUT, "--dump").stdout)
        stops = STOPS if self.operation.startswith("merge") and older is None else ()
        for call, by in KILLS + stops:
            n = 1
            while self.check_killed(call, n, by):
                n += 1
            print(f"{call}, {by}: up to {n}", flush=True)


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
    if arguments.program is None or arguments.operation is None:
        parser.error("--program and --operation are needed")
    memory = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
    with tempfile.TemporaryDirectory(dir=memory) as directory:
        runner = Runner(arguments.program, arguments.operation, directory)
        runner.fail_all(arguments.stride, arguments.call_stride)
        writes = TRACE_OUTPUT in OPERATIONS[arguments.operation][1] and not arguments.no_kills
        for older in (None, "io") if writes else ():
            runner.kill_all(older)
    print("\n".join(runner.failures[:10]), f"{len(runner.failures)} failures", sep="\n")
    return 1 if runner.failures else 0


if __name__ == "__main__":
    sys.exit(main())
