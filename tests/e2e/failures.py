#!/usr/bin/env python3
"""Runs klttool where something can't work: full disks, missing parts, outputs onto inputs, windows
that select nothing, merges that are stopped. A run that lost something must report it and end with a
status other than 0, and no input may change.

  failures.py --program build/release/klttool [--only CASE]
"""

import argparse
import os
import pathlib
import resource
import subprocess
import sys
import tempfile

from harness import DATA, INPUT, Failure, Folder, Program, compare, expect, text_of

KLT = "--logfile-format KLT"
SINGLE = "--logfile-format SINGLEKLT"
FORMS = (KLT, SINGLE)
NOT_WRITABLE = "Could not open file {} for writing.\n"


class Place:
    """A directory with a copy of a sample trace that must stay as it is."""

    def __init__(self, program, directory, sample):
        self.program = program
        self.path = pathlib.Path(directory, "in")
        self.path.mkdir()
        Folder(DATA / sample).copy(self.path)
        self.before = self.contents()

    def contents(self):
        return {file.name: file.read_bytes() for file in self.path.glob(INPUT + "*")
                if file.is_file()}

    def run(self, options, status=1, says="", limit=None, name=INPUT, **how):
        """Runs the program on the copy, or on the trace `name`, with files of at most `limit` bytes,
        and returns its standard output. `says` is text of standard error."""
        if limit is not None:
            how["preexec_fn"] = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit))
        words = options.split(" ") if isinstance(options, str) else options
        done = self.program.run(self.path, name, *words, **how)
        if done.returncode != status or says.encode() not in done.stderr:
            raise Failure(f"{name} {options}: status {done.returncode}, expected {status} with "
                          f"\"{says}\"\n{text_of(done.stderr)}")
        return done.stdout

    def rows(self, *rows):
        """Runs of (options, status, text of standard error); the input stays."""
        for options, status, says in rows:
            self.run(options, status, says)
            self.check_input()

    def no_trace(self, name):
        """What is there under this name isn't taken for a trace."""
        done = self.program.run(self.path, name, "--dump")
        if done.returncode == 0 or (self.path / name).stat().st_size != 0:
            raise Failure(f"{name}: status {done.returncode}, or a part of an index is left")

    def check_input(self):
        after = self.contents()
        changed = [name for name, data in self.before.items() if after.get(name) != data]
        expect("inputs that have changed", [], changed)

    def take(self, pattern):
        """Removes files of the input."""
        for file in self.path.glob(pattern):
            file.unlink()
            del self.before[file.name]

    def remove(self, says=""):
        """--remove takes all that there is."""
        self.run("--remove", 0, says)
        expect("parts of the trace that are left", [], list(self.path.glob(f"{INPUT}*")))
        self.before = {}


def full_disk(place):
    """A file that may not grow, at several sizes: some of the streams, all, or the index are cut."""
    whole = place.run("--dump", 0)
    for limit in (1, 700, 5000, 12000):
        for form in FORMS:
            place.run(f"--logfile-name ../out.klt {form}", limit=limit)
            if 1 < limit < 8000:  # enough to open it, too little for an index
                place.no_trace("../out.klt")
        place.run("--logfile-name ../out.rkf", limit=limit,
                  says="klttool ERROR: writing to ../out.rkf failed: File too large\n")
        place.run(f"--convert ../copy.klt {SINGLE}", limit=limit)
    place.run(f"--logfile-name ../out.klt {KLT}", limit=700,
              says="klttool ERROR: writing to msg failed, file will be incomplete\n")
    # With room everything is there.
    place.run("--logfile-name ../out.rkf", 0, limit=len(whole))


def bad_output(place):
    """A device that is full, and standard output that is closed from the start or early."""
    with open("/dev/full", "wb") as full:
        failed = "klttool ERROR: writing to stdout failed: No space left on device\n"
        for options, says in (("--dump", failed), (f"--convert - {SINGLE}", ""),
                              (f"--logfile-name - {SINGLE}", ""), ("--print-files", failed[:40]),
                              ("--print-threads", failed[:40])):
            place.run(options, says=says, stdout=full)
    closed = ("sh", "-c", '"$@" >&- <&-', "sh")
    place.run("--dump", prefix=closed, says="writing to stdout failed")
    place.run(f"--logfile-name ../out.klt {KLT}", 0, prefix=closed)
    # A reader that has seen enough ends the run in silence.
    done = subprocess.run(["sh", "-c", f'"$0" {INPUT} --dump 2>../err | head -n 1',
                           place.program.path], cwd=place.path, stdout=subprocess.PIPE, check=True)
    errors = (place.path.parent / "err").read_text()
    expect("lines, errors of a closed pipe", (1, "Writing tracefile -\n"),
           (done.stdout.count(b"\n"), errors))


def targets(place):
    """Outputs that can't be, and moves that go nowhere."""
    place.rows(*((f"{what} {name} {form}", 1, "") for name in ("../none/out.klt", "../in")
                 for what in ("--logfile-name", "--convert") for form in FORMS))
    place.rows(
        ("--logfile-name ../none/out.klt", 1, NOT_WRITABLE.format("../none/out.klt")),
        ("--logfile-name ../in", 1, NOT_WRITABLE.format("../in")),
        ("--move", 10, "neither any output file nor any kind of"),
        ("--move --remove", 10,
         "No output filename selected, use --move <filename> or --logfile-name\n"),
        ("--move --dump", 10, "can't be moved to standard output\n"),
        ("--move --logfile-name -", 10, "can't be moved to standard output\n"),
        ("--move --dump --logfile-name x.klt", 10, "can't be moved to standard output\n"),
        ("--move -", 10, "Usage: klttool <input file> <config options>\n"),
        (["--logfile-name", "a\nREMOVE\n"], 10, ""))


def onto_input(place):
    """By name, by another path, through links, and through standard output."""
    os.symlink(INPUT, place.path / "link.klt")
    os.symlink("nowhere", place.path / "dangling.rkf")
    os.symlink(place.path, place.path.parent / "again")
    os.link(place.path / "t.klt.f.0", place.path / "hard.klt.f.0")
    for name in (INPUT, f"./{INPUT}", "link.klt", f"../again/{INPUT}"):
        place.rows((f"--logfile-name {name} {KLT}", 1, ""), (f"--convert {name} {KLT}", 1, ""),
                   (f"--logfile-name {name} {SINGLE}", 1, ""),
                   (f"--convert {name} {SINGLE}", 1, ""),
                   (f"--logfile-name {name}", 1, NOT_WRITABLE.format(name)))
    place.rows((f"--logfile-name hard.klt {KLT}", 1, ""), (f"--convert hard.klt {KLT}", 1, ""),
               ("--logfile-name dangling.rkf", 0, ""),
               # Of the declarations there is one file, of calls there are two.
               *((f"--logfile-name {INPUT}.{name}", 1, NOT_WRITABLE.format(f"{INPUT}.{name}"))
                 for name in ("f.0", "f.0.anc", "dcl", "sts")),
               (f"--convert {INPUT}.sts {SINGLE}", 1, ""))
    with open(place.path / "t.klt.f.0", "ab") as component:
        place.run("--dump", says=NOT_WRITABLE.format("-"), stdout=component)


def missing_component(place):
    """What is gone is reported; the rest can be listed, copied in part, moved and removed."""
    place.take("t.klt.msg")
    place.run("--dump", 2, "continuing\n")
    if b"t.klt.msg 0 bytes" not in b" ".join(place.run("--print-files", 0).split()):
        raise Failure("the listing leaves out the missing component")
    place.rows((f"--convert ../copy.klt {KLT}", 1,
                "Could not open t.klt.msg for reading. Aborting."),
               ("--move ../moved.klt", 1, "t.klt.msg: No such file or directory\n"))
    place.remove("t.klt.msg\n")


def missing_anchors(place):
    place.take("*.anc")
    place.rows((f"--convert ../copy.klt {KLT}", 0,
                "Could not find anchor-file t.klt.f.0.anc, skipping it."))
    place.remove()


def damaged_anchors(place):
    """Whatever an anchor file holds, windows stay the same."""
    options = "--dump --request 0.002s:0.004s"
    expected = place.run(options, 0)
    anchors = list(place.path.glob("*.anc"))
    for damage in (lambda b: b"", lambda b: b"\xff" * len(b), lambda b: b[:len(b) // 2],
                   lambda b: b[:3] + b"\x7f" + b[4:], lambda b: b * 2, lambda b: b"\x09" + b):
        for file in anchors:
            file.write_bytes(damage(place.before[file.name]))
        compare("window with damaged anchors", expected, place.run(options, 0))
    for file in anchors:
        file.write_bytes(place.before[file.name])


def odd_windows(place):
    """Inverted windows have no end; ones that select nothing are no error."""
    dump = "--dump --request "
    inverted = place.run(dump + "0.004s:0.002s", 0)
    compare("inverted window", place.run(dump + "0.004s:0.001s", 0), inverted)
    if not inverted.splitlines()[-1].startswith(b"19136 "):
        raise Failure("an inverted window doesn't reach the end of the run")
    header = place.run(dump + "1000s:2000s,FRAMES", 0)
    for window in ("0.001s:0.001s,SCOPES", "1000s:2000s,COUNTERS", "0s:1s,OPENMP,0:1"):
        if place.run(dump + window, 0).count(b"\n") > header.count(b"\n") + 200:
            raise Failure(f"{window} selects something")
    place.rows(*((dump + window, 0, "")
                 for window in ("1e300s:2e300s", "0s:1e300s", "-1s:1e-300s")),
               (f"--logfile-name ../none.klt {KLT} --request 1000s:2000s,COUNTERS", 0, ""))
    place.run("--dump", 0, name="../none.klt")


def merge_full_disk(place):
    """Too small for an index, the output is no trace and leaves none of it; the input stays."""
    for form in FORMS:
        for limit in (0, 100, 700, 2000, 5000, 8000):
            place.run(f"--merge ../out.klt {form} --delete-raw-data", limit=limit)
            place.no_trace("../out.klt")
            place.check_input()
        place.run(f"--merge ../out.klt {form}", 0)
        place.run("--dump", 0, name="../out.klt")


def merge_results(place):
    """Each way to fail has its words and status 1."""
    # One stream that can't be written: the others and the index are there.
    (place.path.parent / "lost.klt.msg" / "full").mkdir(parents=True)
    os.symlink(INPUT, place.path / "link.klt")
    place.rows((f"--merge ../lost.klt {KLT} --delete-raw-data", 1,
                "lost.klt.msg: Is a directory\nklttool ERROR: Could not open data file"),
               *((f"--merge {name} {KLT}", 1, f"Could not open file for writing: {name}\n")
                 for name in (INPUT, f"./{INPUT}", "link.klt", "../none/m.klt")),
               (f"--sumdata ../s.klt {KLT}", 1,
                "ERROR: summary operation isn't applicable to unmerged traces\n"))
    dump = place.run("--dump", 0, name="../lost.klt")
    if b"EXCHEXT" not in dump or b"SENDMSG" in dump:
        raise Failure("the calls are lost with the messages")
    # Anchors that can't be unlinked: merged, but the input isn't gone.
    anchors = place.path / f"{INPUT}.r.0.anc"
    anchors.unlink()
    anchors.mkdir()
    place.run(f"--merge ../m.klt {KLT} --delete-raw-data",
              says=f"Could not remove input file after merging: {INPUT}\n")
    place.run(f"--merge n.klt {KLT}", name="../m.klt", says="isn't applicable to merged traces")
    place.before = {}


CASES = {full_disk: "stencil", bad_output: "stencil", targets: "stencil", onto_input: "stats",
         missing_component: "stencil", missing_anchors: "stencil", damaged_anchors: "stencil",
         odd_windows: "stencil", merge_full_disk: "raw_ring", merge_results: "raw_ring"}


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--program", required=True, help="the klttool to run")
    parser.add_argument("--only", choices=[case.__name__ for case in CASES], help="one case")
    arguments = parser.parse_args()
    failed = 0
    for case, sample in CASES.items():
        if arguments.only in (None, case.__name__):
            with tempfile.TemporaryDirectory() as directory:
                try:
                    place = Place(Program(arguments.program), directory, sample)
                    case(place)
                    place.check_input()
                except Failure as failure:
                    failed += 1
                    print(f"{case.__name__}: {failure}\n")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
