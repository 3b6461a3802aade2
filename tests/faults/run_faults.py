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
import os
import pathlib
import re
import subprocess
import sys
import tempfile

DATA = pathlib.Path(__file__).resolve().parent.parent / "data"
TIMEOUT = 120

OPERATIONS = {
    "dump": ("stencil", ["--dump"]),
    "dump-single": ("stencil_split", ["--dump", "--request", "0.001s:0.003s"]),
    "dump-file": ("threads", ["--logfile-name", "out/o.rkf"]),
    "extract": ("stencil", ["--logfile-name", "out/o.klt", "--logfile-format", "KLT"]),
    "extract-single": ("io", ["--logfile-name", "out/o.klt", "--logfile-format", "SINGLEKLT"]),
    "convert": ("ring", ["--convert", "out/o.klt", "--logfile-format", "SINGLEKLT"]),
    "convert-plain": ("ring_sklt", ["--convert", "out/o.klt", "--logfile-format", "KLT"]),
    "merge": ("raw_ring", ["--merge", "out/o.klt", "--logfile-format", "KLT", "--sumdata"]),
    "merge-compressed": ("raw_compressed", ["--merge", "out/o.klt", "--logfile-format", "SINGLEKLT"]),
    "summary": ("stencil", ["--sumdata", "out/o.klt", "--logfile-format", "KLT"]),
    "statistics": ("stats", ["--print-statistics"]),
    "files": ("ring", ["--print-files"]),
}

# What can go wrong with each call. Some must have no effect at all.
HARMLESS = {("read", "EINTR"), ("read", "short"), ("write", "EINTR"), ("write", "short"),
            ("write", "EAGAIN")}
# A file that can't be looked at is listed with size 0; seek points that can't be opened are left out
# of a copy, with a warning.
EXCUSED = {("files", "open"), ("files", "seek"), ("convert", "open")}
FAULTS = [("open", "EACCES"), ("open", "EMFILE"), ("read", "EIO"), ("read", "EINTR"),
          ("read", "short"), ("write", "ENOSPC"), ("write", "ENOSPC:on"), ("write", "EINTR"),
          ("write", "EAGAIN"), ("write", "short"), ("write", "short:on"), ("seek", "EIO"), ("close", "EIO"),
          ("stat", "EIO"), ("alloc", "ENOMEM")]


# Where memory was missed: in the program's own code, by its path in the source tree.
PLACE = re.compile(rb"\[(generic|klt|util)/(?!pal_mem)\w+\.(cpp|h):\d+\], aborting\.\n")

KILLS = [("open", "kill"), ("write", "kill"), ("write", "torn"), ("seek", "kill"),
         ("close", "kill")]
TRACE_OUTPUT = "out/o.klt"


def files(directory):
    return {str(file.relative_to(directory)): file.read_bytes()
            for file in pathlib.Path(directory).rglob("*") if file.is_file()}


class Runner:
    def __init__(self, program, operation):
        self.program = str(pathlib.Path(program).resolve())
        self.operation = operation
        sample, self.options = OPERATIONS[operation]
        self.input = {file.name: file.read_bytes() for file in (DATA / sample).glob("t.klt*")}
        self.failures = []
        self.older = {}  # a trace under the output's name that is there already

    def run(self, fault=None, look=None):
        """Status, standard output and error, output files, and whether the fault's turn came.
        `look` is called with the directory before it is gone."""
        with tempfile.TemporaryDirectory() as directory:
            place = pathlib.Path(directory)
            (place / "out").mkdir()
            for name, data in (self.input | self.older).items():
                (place / name).write_bytes(data)
            environment = dict(os.environ, ASAN_OPTIONS="abort_on_error=1",
                               UBSAN_OPTIONS="abort_on_error=1", RK_VERBOSE="0")
            if fault is not None:
                environment |= {"KLT_FAULT": fault, "KLT_FAULT_HIT": str(place / "hit")}
            done = subprocess.run([self.program, "t.klt", *self.options], cwd=place, timeout=TIMEOUT,
                                  env=environment, stdin=subprocess.DEVNULL, capture_output=True,
                                  check=False)
            if look is not None:
                look(place)
            after = files(place)
            hit = after.pop("hit", None) is not None
            changed = [name for name, data in self.input.items() if after.pop(name, None) != data]
            return done, after, hit, changed

    def check(self, fault, harmless):
        """False if the run was over before the fault's turn."""
        done, outputs, hit, changed = self.run(fault)
        if not hit:
            return False
        same = done.stdout == self.stdout and outputs == self.outputs
        problem = None
        if changed:
            problem = f"changed {changed}"
        elif done.returncode < 0 or done.returncode > 255:
            problem = "ended by a signal"
        elif harmless and (done.returncode != 0 or not same):
            problem = "not taken in its stride"
        elif done.returncode == 0 and not same and (self.operation, fault.split(":")[0]) not in EXCUSED:
            problem = "success with other output"
        elif done.returncode != 0 and not done.stderr:
            problem = "failure without a message"
        elif fault.startswith("alloc") and not PLACE.search(done.stderr):
            problem = "no place of the program that missed the memory"
        if problem:
            message = done.stderr.decode("utf-8", "backslashreplace")[-2000:]
            self.failures.append(f"{fault}: status {done.returncode}: {problem}\n{message}")
        return True

    def check_killed(self, fault):
        """False if the run was over before its turn."""
        problem = None

        def look(place):
            nonlocal problem
            if not (place / TRACE_OUTPUT).exists():
                return
            dump = subprocess.run([self.program, TRACE_OUTPUT, "--dump"], cwd=place, timeout=TIMEOUT,
                                  stdin=subprocess.DEVNULL, capture_output=True, check=False)
            if dump.returncode < 0:
                problem = "reading what is left ended by a signal"
            elif dump.returncode == 0 and dump.stdout not in self.dumps:
                problem = "what is left passes for a whole trace"
            elif dump.returncode != 0 and not dump.stderr:
                problem = "what is left is refused without a message"

        done, _, hit, changed = self.run(fault, look)
        if changed:
            problem = f"changed {changed}"
        elif hit and done.returncode != -9:
            problem = f"not killed: status {done.returncode}"
        if problem:
            self.failures.append(f"{fault}: {problem}")
        return hit

    def kill_all(self, older):
        """With a trace of the sample `older` in the output's place, unless that is None."""
        self.dumps = []

        def look(place):
            if (place / TRACE_OUTPUT).exists():
                self.dumps.append(subprocess.run([self.program, TRACE_OUTPUT, "--dump"], cwd=place,
                                                 capture_output=True, check=True).stdout)

        if older is not None:
            self.older = {TRACE_OUTPUT + file.name[len("t.klt"):]: file.read_bytes()
                          for file in (DATA / older).glob("t.klt*")}
            self.run("open:1:EACCES", look)  # leaves all as it is
        self.run(None, look)
        for call, what in KILLS:
            n = 1
            while self.check_killed(f"{call}:{n}:{what}"):
                n += 1
            print(f"{call} {what}: {n - 1} runs", flush=True)

    def run_all(self, stride, call_stride):
        done, self.outputs, _, _ = self.run()
        self.stdout = done.stdout
        if done.returncode != 0:
            sys.exit(f"undisturbed: status {done.returncode}\n{done.stderr.decode()}")
        for call, what in FAULTS:
            n = 1
            while self.check(f"{call}:{n}:{what}", (call, what.split(":")[0]) in HARMLESS):
                n += stride if call == "alloc" else call_stride
            print(f"{call} {what}: {n - 1} runs", flush=True)


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
    runner = Runner(arguments.program, arguments.operation)
    runner.run_all(arguments.stride, arguments.call_stride)
    for older in () if arguments.no_kills else (None, "io"):
        runner.kill_all(older)
    for failure in runner.failures[:10]:
        print(failure)
    if runner.failures:
        print(f"{len(runner.failures)} failures")
    return 1 if runner.failures else 0


if __name__ == "__main__":
    sys.exit(main())
