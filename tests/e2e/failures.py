#!/usr/bin/env python3
"""Runs klttool where something can't work: full disks, missing parts, outputs onto inputs, windows
that select nothing, merges that are stopped. A run that lost something must say so and end with a status other than 0, and
no input may change.

  failures.py --program build/release/klttool [--only CASE] [--list]
"""

import argparse
import os
import pathlib
import resource
import shutil
import signal
import subprocess
import sys
import tempfile
import time

from run_samples import INPUT, Failure, Folder, Program, compare, text

DATA = pathlib.Path(__file__).resolve().parent.parent / "data"
BINARY = ("--logfile-format", "KLT")
SINGLE = ("--logfile-format", "SINGLEKLT")


def contents(directory):
    """Bytes by name; a link stands for what it points to."""
    return {file.name: file.read_bytes() for file in pathlib.Path(directory).iterdir()
            if file.is_file()}


class Place:
    """A directory with a copy of a sample trace that must stay as it is."""

    def __init__(self, program, directory, sample="stencil"):
        self.program = program
        self.path = pathlib.Path(directory, "in")
        self.path.mkdir()
        Folder(DATA / sample).copy(self.path)
        self.before = contents(self.path)

    def run(self, *options, status, says="", stdout=subprocess.PIPE, limit=None, shell=None):
        """Runs the program on the copy and returns its standard output."""
        def confine():
            if limit is not None:
                resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit))
        command = [self.program, INPUT, *options]
        if shell is not None:
            command = ["sh", "-c", shell, "sh", *command]
        done = subprocess.run(command, cwd=self.path, stdin=subprocess.DEVNULL, stdout=stdout,
                              stderr=subprocess.PIPE, preexec_fn=confine, timeout=120, check=False)
        shown = f"klttool {' '.join(options)}: "
        if done.returncode != status:
            raise Failure(f"{shown}status {done.returncode}, expected {status}\n{text(done.stderr)}")
        if says.encode() not in done.stderr:
            raise Failure(f"{shown}standard error lacks \"{says}\":\n{text(done.stderr)}")
        return done.stdout

    def check_input(self):
        after = contents(self.path)
        for name, data in self.before.items():
            if after.get(name) != data:
                raise Failure(f"input {name} has changed")


def check_no_trace(place, name):
    """What is there under this name isn't taken for a trace."""
    done = subprocess.run([place.program, name, "--dump"], cwd=place.path, capture_output=True,
                          check=False)
    if done.returncode == 0:
        raise Failure(f"{name} can be opened")
    if (place.path / name).stat().st_size != 0:
        raise Failure(f"a part of an index is left in {name}")


def full_disk(place):
    """A file that may not grow, at several sizes: some of the streams, all, or the index are cut."""
    whole = place.run("--dump", status=0)
    for limit in (1, 700, 5000, 12000):
        for form in (BINARY, SINGLE):
            place.run("--logfile-name", "../out.klt", *form, status=1, limit=limit)
            if 1 < limit < 8000:  # enough to open it, too little for an index
                check_no_trace(place, "../out.klt")
        place.run("--logfile-name", "../out.rkf", status=1, limit=limit,
                  says="klttool ERROR: writing to ../out.rkf failed: File too large\n")
        place.run("--convert", "../copy.klt", *SINGLE, status=1, limit=limit)
    place.run("--logfile-name", "../out.klt", *BINARY, status=1, limit=700,
              says="klttool ERROR: writing to msg failed, file will be incomplete\n")
    # With room everything is there.
    place.run("--logfile-name", "../out.rkf", status=0, limit=len(whole))


def full_device(place):
    with open("/dev/full", "wb") as full:
        place.run("--dump", status=1, stdout=full,
                  says="klttool ERROR: writing to stdout failed: No space left on device\n")
        place.run("--convert", "-", *SINGLE, status=1, stdout=full)
        place.run("--logfile-name", "-", *SINGLE, status=1, stdout=full)
        for listing in ("--print-files", "--print-threads"):
            place.run(listing, status=1, stdout=full, says="writing to stdout failed")


def closed_output(place):
    place.run("--dump", status=1, shell='"$@" >&-', says="writing to stdout failed")
    place.run("--logfile-name", "../out.klt", *BINARY, status=0, shell='"$@" >&- <&-')
    # A reader that has seen enough ends the run in silence.
    done = subprocess.run(f"'{place.program}' {INPUT} --dump 2>err | head -n 1", shell=True,
                          cwd=place.path, stdout=subprocess.PIPE, check=True)
    if b"ERROR" in (place.path / "err").read_bytes() or done.stdout.count(b"\n") != 1:
        raise Failure("a closed pipe is reported")


def no_target(place):
    for name in ("../none/out.klt", "../in"):
        for form in (BINARY, SINGLE):
            place.run("--logfile-name", name, *form, status=1)
            place.run("--convert", name, *form, status=1)
        place.run("--logfile-name", name, status=1,
                  says=f"Could not open file {name} for writing.\n")
    place.run("--move", status=10, says="neither any output file nor any kind of")
    place.run("--move", "--remove", status=10,
              says="No output filename selected, use --move <filename> or --logfile-name\n")
    for options in (("--dump",), ("--logfile-name", "-"), ("--dump", "--logfile-name", "x.klt")):
        place.run("--move", *options, status=10, says="can't be moved to standard output\n")
    place.run("--move", "-", status=10, says="Usage: klttool <input file> <config options>\n")
    place.check_input()
    place.run("--logfile-name", "a\nREMOVE\n", status=10)


def onto_input(place):
    """By name, by another path, and through links to the index or to a component alone."""
    os.symlink(INPUT, place.path / "link.klt")
    os.symlink(place.path, place.path.parent / "again")
    os.link(place.path / "t.klt.f.0", place.path / "hard.klt.f.0")
    for name in (INPUT, f"./{INPUT}", "link.klt", f"../again/{INPUT}", "hard.klt"):
        place.run("--logfile-name", name, *BINARY, status=1)
        place.check_input()
        if name != "hard.klt":  # of which only a component is an input
            place.run("--logfile-name", name, *SINGLE, status=1)
            place.run("--logfile-name", name, status=1,
                      says=f"Could not open file {name} for writing.\n")
            place.run("--convert", name, *SINGLE, status=1)
        place.run("--convert", name, *BINARY, status=1)
        place.check_input()
    for name in ("t.klt.f.0", "t.klt.dcl"):
        place.run("--logfile-name", name, status=1, says="for writing.\n")
    other = Place(place.program, place.path, "stats")
    for name in ("t.klt.dcl", "t.klt.sts"):  # files without anchors
        other.run("--logfile-name", name, status=1, says="for writing.\n")
        other.run("--convert", name, *SINGLE, status=1)
    other.check_input()


def missing_component(place):
    """What is gone is told, and what remains can be listed, copied in part, moved and removed."""
    (place.path / "t.klt.msg").unlink()
    del place.before["t.klt.msg"]
    place.run("--dump", status=2, says="continuing\n")
    if [b"t.klt.msg", b"0", b"bytes"] not in map(
            bytes.split, place.run("--print-files", status=0).splitlines()):
        raise Failure("the listing leaves out the missing component")
    place.run("--convert", "../copy.klt", *BINARY, status=1,
              says="Could not open t.klt.msg for reading. Aborting.")
    place.check_input()
    place.run("--move", "../moved.klt", status=1, says="t.klt.msg: No such file or directory\n")
    place.check_input()
    place.run("--remove", status=0, says="t.klt.msg\n")
    if list(place.path.glob(f"{INPUT}*")):
        raise Failure("parts of the trace are left")
    place.before = {}


def missing_anchors(place):
    for file in place.path.glob("*.anc"):
        file.unlink()
        del place.before[file.name]
    place.run("--convert", "../copy.klt", *BINARY, status=0,
              says="Could not find anchor-file t.klt.f.0.anc, skipping it.")
    place.check_input()
    place.run("--remove", status=0)
    if list(place.path.glob(f"{INPUT}*")):
        raise Failure("parts of the trace are left")
    place.before = {}


def damaged_anchors(place):
    """Whatever an anchor file holds, windows stay the same."""
    options = ("--dump", "--request", "0.002s:0.004s")
    expected = place.run(*options, status=0)
    for damage in (lambda b: b"", lambda b: b"\xff" * len(b), lambda b: b[:len(b) // 2],
                   lambda b: b[:3] + b"\x7f" + b[4:], lambda b: b * 2, lambda b: b"\x09" + b):
        for file in place.path.glob("*.anc"):
            file.write_bytes(damage(place.before[file.name]))
        compare("window with damaged anchors", expected, place.run(*options, status=0))
    for file in place.path.glob("*.anc"):
        file.write_bytes(place.before[file.name])


def odd_windows(place):
    """Inverted windows have no end; ones that select nothing are no error."""
    dump = ("--dump", "--request")
    inverted = place.run(*dump, "0.004s:0.002s", status=0)
    compare("inverted window", place.run(*dump, "0.004s:0.001s", status=0), inverted)
    if not inverted.splitlines()[-1].startswith(b"19136 "):
        raise Failure("an inverted window doesn't reach the end of the run")
    header = place.run(*dump, "1000s:2000s,FRAMES", status=0)
    for window in ("0.001s:0.001s,SCOPES", "1000s:2000s,COUNTERS", "0s:1s,OPENMP,0:1"):
        output = place.run(*dump, window, status=0)
        if output.count(b"\n") > header.count(b"\n") + 200:
            raise Failure(f"{window} selects something")
    for window in ("1e300s:2e300s", "0s:1e300s", "-1s:1e-300s"):
        place.run(*dump, window, status=0)
    place.run("--logfile-name", "../none.klt", *BINARY, "--request", "1000s:2000s,COUNTERS",
              status=0)
    done = place.program
    if subprocess.run([done, "none.klt", "--dump"], cwd=place.path.parent,
                      capture_output=True, check=False).returncode != 0:
        raise Failure("an extraction of nothing can't be read")


def raw(case):
    """Marks a case that runs on a raw trace."""
    case.sample = "raw_ring"
    return case


@raw
def merge_full_disk(place):
    """Too small for an index, the output is no trace and leaves none of it; the input stays."""
    for limit in (0, 100, 700, 2000, 5000, 8000):
        for form in (BINARY, SINGLE):
            place.run("--merge", "../out.klt", *form, "--delete-raw-data", status=1, limit=limit)
            check_no_trace(place, "../out.klt")
            place.check_input()
    for form in (BINARY, SINGLE):
        place.run("--merge", "../out.klt", *form, status=0)
        subprocess.run([place.program, "../out.klt", "--dump"], cwd=place.path, check=True,
                       capture_output=True)


@raw
def merge_lost_stream(place):
    """One stream that can't be written: the others and the index are there, the input stays."""
    pathlib.Path(place.path.parent, "lost.klt.msg", "full").mkdir(parents=True)
    place.run("--merge", "../lost.klt", *BINARY, "--delete-raw-data", status=1,
              says="lost.klt.msg: Is a directory\nklttool ERROR: Could not open data file")
    done = subprocess.run([place.program, "lost.klt", "--dump"], cwd=place.path.parent, check=True,
                          capture_output=True)
    if b"EXCHEXT" not in done.stdout or b"SENDMSG" in done.stdout:
        raise Failure("the calls are lost with the messages")


@raw
def merge_results(place):
    """Each way to fail has its words and status 1."""
    os.symlink(INPUT, place.path / "link.klt")
    for name in (INPUT, f"./{INPUT}", "link.klt"):
        place.run("--merge", name, *BINARY, status=1,
                  says=f"Could not open file for writing: {name}\n")
    place.run("--merge", "../none/m.klt", *BINARY, status=1,
              says="Could not open file for writing: ../none/m.klt\n")
    place.run("--sumdata", "../s.klt", *BINARY, status=1,
              says="ERROR: summary operation isn't applicable to unmerged traces\n")
    place.check_input()
    # Anchors that can't be unlinked: merged, but the input isn't gone.
    anchors = place.path / f"{INPUT}.r.0.anc"
    anchors.unlink()
    anchors.mkdir()
    place.run("--merge", "../m.klt", *BINARY, "--delete-raw-data", status=1,
              says=f"Could not remove input file after merging: {INPUT}\n")
    place.before = {}
    done = subprocess.run([place.program, "m.klt", "--merge", "n.klt", *BINARY],
                          cwd=place.path.parent, capture_output=True, check=False)
    if done.returncode != 1 or b"isn't applicable to merged traces" not in done.stderr:
        raise Failure(f"a merged trace is merged: {text(done.stderr)}")


@raw
def merge_interrupted(place):
    """Whenever it is stopped: there is a whole trace or none, and the input stays."""
    stopped = 0
    for step in range(40):
        for kind in (signal.SIGINT, signal.SIGTERM):
            out = place.path.parent / "stopped.klt"
            run = subprocess.Popen([place.program, INPUT, "--merge", str(out), *BINARY],
                                   cwd=place.path, stdout=subprocess.DEVNULL,
                                   stderr=subprocess.DEVNULL)
            time.sleep(step * 0.0005)
            run.send_signal(kind)
            if run.wait() == -kind:
                stopped += 1
                if out.exists() and out.stat().st_size != 0:
                    subprocess.run([place.program, str(out), "--dump"], check=True,
                                   capture_output=True)
            for file in place.path.parent.glob("stopped.klt*"):
                file.unlink()
            place.check_input()
    if stopped == 0:
        raise Failure("no run was stopped")


CASES = (full_disk, full_device, closed_output, no_target, onto_input, missing_component,
         missing_anchors, damaged_anchors, odd_windows, merge_full_disk, merge_lost_stream,
         merge_results, merge_interrupted)


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--program", help="the klttool to run")
    parser.add_argument("--only", choices=[case.__name__ for case in CASES], help="one case")
    parser.add_argument("--list", action="store_true", help="print the cases, run nothing")
    arguments = parser.parse_args()
    failed = 0
    for case in CASES:
        name = case.__name__
        if arguments.only not in (None, name):
            continue
        if arguments.list:
            print(name)
            continue
        with tempfile.TemporaryDirectory() as directory:
            try:
                place = Place(Program(arguments.program).path, directory,
                              getattr(case, "sample", "stencil"))
                case(place)
                place.check_input()
            except Failure as failure:
                failed += 1
                print(f"{name}: {failure}\n")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
