"""Runs klttool with failures: full disks, missing files, outputs that would overwrite the input, empty
windows, failing merges. A run that loses data must report this and end with a status other than 0.
Inputs must not change, except for files that are to be removed."""

import fcntl
import os
import struct
import subprocess

from harness import INPUT, Failure, compare, expect

KLT = "--logfile-format KLT"
SINGLE = "--logfile-format SINGLEKLT"
FORMS = (KLT, SINGLE)
NOT_WRITABLE = "Could not open file {} for writing.\n"


def rows(place, *cases, limit=None):
    """Makes runs, given as (options, status, text of standard error), that don't change the input."""
    for options, status, says in cases:
        place.run(options, status, says, limit=limit)
        place.check_input()


def check_full_disk(place):
    """Limits on the size of files, so that the index is cut. tests/faults lets each write fail."""
    raw = place.folder.name.startswith("raw_")
    action = "--merge ../out.klt --delete-raw-data" if raw else "--logfile-name ../out.klt"
    for form in FORMS:
        for limit in (100, 700, 5000):
            rows(place, (f"{action} {form}", 1, ""), limit=limit)
            expect(f"{form}: size of the index", 0, (place.path / "../out.klt").stat().st_size)
    if raw:
        return
    rows(place, ("--logfile-name ../out.rkf", 1,
                 "klttool ERROR: writing to ../out.rkf failed: File too large\n"),
         (f"--logfile-name ../out.klt {KLT}", 1,
          "klttool ERROR: writing to msg failed, file will be incomplete\n"),
         (f"--convert ../copy.klt {SINGLE}", 1, ""), limit=700)
    place.run("--logfile-name ../out.rkf", limit=len(place.run("--dump")))  # just large enough


def check_bad_output(place):
    """A full device, standard output that is closed before or during the run, and a small stack."""
    with open("/dev/full", "wb") as full:
        failed = "klttool ERROR: writing to stdout failed: No space left on device\n"
        for options, says in (("--dump", failed), (f"--convert - {SINGLE}", ""),
                              (f"--logfile-name - {SINGLE}", ""), ("--print-files", failed[:40]),
                              ("--print-threads", failed[:40])):
            place.run(options, 1, says, stdout=full)
    closed = ("sh", "-c", '"$@" >&- <&-', "sh")
    place.run("--dump", 1, "writing to stdout failed", prefix=closed)
    place.run(f"--logfile-name ../out.klt {KLT}", prefix=closed)
    place.run("--dump", prefix=("sh", "-c", 'ulimit -s 32; env -i "$@"', "sh"))  # a small stack
    # What is left of 140 KiB is enough to start the process, but not for an operation.
    left = 140 * 1024 - 20_000 - sum(len(f"{name}={value}") + 9 for name, value in os.environ.items())
    filled = {"filled": "x" * left}
    place.run("--dump", prefix=("sh", "-c", 'ulimit -S -s 140; "$@"', "sh"), environment=filled)
    place.run("--dump", 1, "leave less than 20 KiB of the stack (ulimit -s)\n",
              prefix=("sh", "-c", 'ulimit -s 140; "$@"', "sh"), environment=filled)
    # If the reader of a pipe ends, the run ends without a message.
    done = subprocess.run(["sh", "-c", f'"$0" {INPUT} --dump 2>../err | head -n 1', place.program],
                          cwd=place.path, stdout=subprocess.PIPE, check=True)
    expect("lines, errors of a closed pipe", (1, "Writing tracefile -\n"),
           (done.stdout.count(b"\n"), (place.path / "../err").read_text()))


def check_targets(place):
    """Outputs that can't be created, and moves without a usable target."""
    rows(place,
         *((f"{what} {name} {form}", 1, "") for name in ("../none/out.klt", "../in")
           for what in ("--logfile-name", "--convert") for form in FORMS),
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


def check_onto_input(place):
    """Outputs that are files of the input, by name, another path, a link or standard output."""
    os.symlink(INPUT, place.path / "link.klt")
    os.symlink("nowhere", place.path / "dangling.rkf")
    os.symlink(place.path, place.path.parent / "again")
    os.link(place.path / "t.klt.f.0", place.path / "hard.klt.f.0")
    names = (INPUT, f"./{INPUT}", "link.klt", f"../again/{INPUT}")
    rows(place,
         *((f"{what} {name} {form}", 1, "") for name in names
           for what in ("--logfile-name", "--convert") for form in FORMS),
         # The calls have data and anchors, the declarations have no anchors.
         *((f"--logfile-name {name}", 1, NOT_WRITABLE.format(name))
           for name in (*names, *(INPUT + part for part in (".f.0", ".f.0.anc", ".dcl", ".sts")))),
         (f"--logfile-name hard.klt {KLT}", 1, ""), (f"--convert hard.klt {KLT}", 1, ""),
         (f"--convert {INPUT}.sts {SINGLE}", 1, ""), ("--logfile-name dangling.rkf", 0, ""))
    with open(place.path / "t.klt.f.0", "ab") as component:
        place.run("--dump", 1, NOT_WRITABLE.format("-"), stdout=component)


def declare(place, suffix, number=0x10099, filetype=0, after=b""):
    """Appends a file_declaration, followed by the bytes `after`, to the index."""
    with open(place.path / INPUT, "ab") as index:
        index.write(b"\x21" + struct.pack(">IBH", number, filetype, len(suffix)) + suffix + after)
    place.before = place.files(INPUT)


def check_declared_names(place):
    """Declared names are refused as outputs, even without a file. Only regular files are moved."""
    declare(place, b"m")
    if place.folder.name.startswith("raw_"):
        rows(place, (f"--merge t.klt.m {KLT} --delete-raw-data", 1,
                     "Could not open file for writing: t.klt.m\n"))
        return
    rows(place, ("--logfile-name t.klt.m", 1, NOT_WRITABLE.format("t.klt.m")),
         (f"--logfile-name ./t.klt.m {KLT}", 1, NOT_WRITABLE.format("./t.klt.m")),
         (f"--convert t.klt.m {KLT}", 1, ""), ("--move t.klt.m", 1, NOT_WRITABLE.format("t.klt.m")))
    (place.path / "x.klt.f.0").mkdir()
    os.mkfifo(place.path / "y.klt.f.0")
    rows(place, ("--move x.klt", 1, "x.klt.f.0: Is a directory\n"),
         ("--move y.klt", 1, "y.klt.f.0 isn't a regular file.\n"))
    declare(place, b"d", 0x1009b)
    (place.path / "t.klt.d").mkdir()
    rows(place, ("--move z.klt", 1, "t.klt.d: Is a directory\n"))


def check_unread_files(place):
    """A warning names each file that isn't read; the others are read. Ids must be unique."""
    index, dump = (place.path / INPUT).read_bytes(), place.run("--dump")
    component = b"\x0a" + struct.pack(">IIIH", 0, 0x10099, 0x10000, 0)
    cases = (({"filetype": 9}, "t.klt.q isn't read: its type is unknown."),
             ({}, "t.klt.q isn't read: no component names it."),
             ({"filetype": 2}, "t.klt.q isn't read: there is another file of declarations."),
             ({"number": 0}, "t.klt.q isn't read: its id is 0 or that of another file."),
             ({"filetype": 1, "after": component}, "its type isn't that of a file of events."),
             ({"after": component}, "t.klt.q isn't read: its categories are unknown."),
             ({"after": component.replace(b"\x99", b"\x9b")},
              "t.klt has a component whose data file isn't declared."),
             ({"after": b"".join(b"\x0a" + struct.pack(">IIIH", 0, 0x10099, n << 16 | 16, 0)
                                 for n in range(17))},
              "t.klt.q has more than 16 components. The others aren't read."))
    (place.path / "t.klt.q").touch()
    for how, says in cases:
        (place.path / INPUT).write_bytes(index)
        declare(place, b"q", **how)
        compare(says, dump, place.run("--dump", 2, says))
        if "number" in how:
            rows(place, ("--move out.klt", 1, "The index of t.klt gives files ids that are 0 or taken."))
    (place.path / INPUT).write_bytes(index + bytes(8))
    place.before = place.files(INPUT)
    rows(place, ("--dump", 1, "klttool ERROR: Corrupted data\n"))


def check_locked(place):
    """An output that another process has locked is refused and not changed."""
    for options in ("--logfile-name ../locked", f"--logfile-name ../locked {KLT}",
                    *(f"--convert ../locked {form}" for form in FORMS)):
        with open(place.path / "../locked", "wb") as other:
            other.write(b"x")
            other.flush()
            fcntl.flock(other, fcntl.LOCK_EX)
            place.run(options, 1, "Another process is writing")
        expect("locked file", b"x", (place.path / "../locked").read_bytes())
        place.run(options)


def check_missing_parts(place):
    """Missing files are reported. Such a trace can be listed, partly copied and removed, not moved."""
    place.remove("*.anc")
    place.run(f"--convert ../copy.klt {KLT}", 0,
              "Could not find anchor-file t.klt.f.0.anc, skipping it.")
    place.remove("t.klt.msg")
    place.run("--dump", 2, "continuing\n")
    if b"t.klt.msg 0 bytes" not in b" ".join(place.run("--print-files").split()):
        raise Failure("the listing leaves out the missing component")
    rows(place, (f"--convert ../copy.klt {KLT}", 1,
                 "Could not open t.klt.msg for reading. Aborting."),
         ("--move ../moved.klt", 1, "t.klt.msg: No such file or directory\n"))
    place.run("--remove", 0, "t.klt.msg\n")
    expect("parts of the trace that are left", {}, place.files(INPUT))
    place.before = {}


def check_removals(place):
    """A move, a removal and --delete-raw-data affect all files of a trace and no others."""
    others, expected = {name: b"x" for name in (".old", ".f.0.bak", "x")}, place.before
    for part, data in others.items():
        (place.path / f"{INPUT}{part}").write_bytes(data)
    action = "--move target.klt"
    if place.folder.name.startswith("raw_"):
        place.run(f"--merge expected.klt {KLT}")
        expected = place.files("expected.klt")
        action = f"--merge target.klt {KLT} --delete-raw-data"
    place.run(action)
    found = place.files("target.klt")
    # The index contains the names of the other files, so it differs.
    expect("parts of the target", expected | {"": found[""]}, found)
    expect("what is left", others, place.files(INPUT))
    place.run("--dump", name="target.klt")
    place.run("--remove", name="target.klt")
    expect("what is left after a removal", {}, place.files("target.klt"))
    place.before = others


def check_windows(place):
    """Damaged anchor files don't change windows. A window whose end is before its start has no end. An
    empty window is no error."""
    dump = "--dump --request "
    window, inverted = (place.run(dump + times) for times in ("0.002s:0.004s", "0.004s:0.002s"))
    for damage in (lambda b: b"", lambda b: b"\xff" * len(b), lambda b: b[:len(b) // 2],
                   lambda b: b[:3] + b"\x7f" + b[4:], lambda b: b * 2, lambda b: b"\x09" + b):
        for file in place.path.glob("*.anc"):
            file.write_bytes(damage(place.before[file.name[len(INPUT):]]))
        compare("window with damaged anchors", window, place.run(dump + "0.002s:0.004s", 0, ""))
    place.restore()
    compare("inverted window", place.run(dump + "0.004s:0.001s"), inverted)
    expect("time of an inverted window's last line", b"19136", inverted.splitlines()[-1].split()[0])
    rows(place, *((dump + times, 0, "") for times in ("1e300s:2e300s", "0s:1e300s", "-1s:1e-300s")),
         (f"--logfile-name ../none.klt {KLT} --request 1000s:2000s,COUNTERS", 0, ""))
    place.run("--dump", name="../none.klt")


def check_hints(place):
    """What a user should do is said after the messages, and not with --verbose 0."""
    dump, none = "--dump --request ", "The request selects no event.\n"
    place.run(f"--convert x.klt {KLT}")
    for name, options, status, says in (
            (INPUT, "", 10, "\nSee klttool --help for all options, with examples.\n"),
            (INPUT, "--convert", 10, f"--convert needs a name: klttool {INPUT} --convert new.klt "),
            ("--dump", INPUT, 10, "The trace comes first: klttool run.klt --dump\n"),
            (".", "--dump", 1, ". is a directory. The input is the index of a trace, such as run."),
            ("/dev/null", "--dump", 1, "/dev/null is a device. "),
            ("x.klt.f.0.anc", "--dump", 1, "The trace is opened by its index: x.klt\n"),
            ("x", "--dump", 1, "Did you mean x.klt?\n"),
            (INPUT, "--logfile-name no/x.ark", 1, "no/x.ark: No such file or directory\n"),
            (INPUT, "--logfile-name y.klt", 0, "Text is written to y.klt. For a trace add "),
            ("y.klt", "--dump", 1, "y.klt is text in the format RKF, "),
            (INPUT, dump + "7:8", 0, none + "There is no thread 7: the processes are 0 to 3. "),
            (INPUT, dump + "7:8", 0, "7:8 selects threads. A window needs a unit: 7s:8s\n"),
            (INPUT, dump + "9s:8s,COUNTERS,-1", 0, none + "The window 9:8 ends before it starts, "),
            (INPUT, dump + "9s:8s,COUNTERS,-1", 0, "\nA thread number with a sign is ignored.\n"),
            (INPUT, f"--logfile-name z.klt {KLT} --request 5s:6s,COUNTERS", 0,
             none + "The window is outside the trace, which lasts from "),
            (INPUT, "--print-reports", 0, "The trace contains no reports.\n"),
            (INPUT, "--print-files --print-threads", 0,
             "Only --print-files is done: --print-threads needs a run of its own.\n"),
            (INPUT, "--sumdata", 0, ""), (INPUT, "--sumdata", 1, "5 of the 5 files exist and stay "),
            ("x.klt", "--sumdata", 0, ""),
            ("x.klt", "--move n.klt", 0, "The summary files x.klt.sum.* aren't moved: ")):
        place.run(options.split(), status, says, name=name)
        if says and "--move" not in options:
            quiet = place.finished([*options.split(), "--verbose", "0"], name=name)
            expect(f"{name} {options}: status, hints", (status, True),
                   (quiet.returncode, says.encode() not in quiet.stderr))


def check_merge_results(place):
    """Each failure of a merge has its own message and status 1."""
    # One component can't be written; the others and the index are complete.
    (place.path.parent / "lost.klt.msg" / "full").mkdir(parents=True)
    os.symlink(INPUT, place.path / "link.klt")
    rows(place, (f"--merge ../lost.klt {KLT} --delete-raw-data", 1,
                 "lost.klt.msg: Is a directory\nklttool ERROR: Could not open data file"),
         *((f"--merge {name} {KLT}", 1, f"Could not open file for writing: {name}\n")
           for name in (INPUT, f"./{INPUT}", "link.klt", "../none/m.klt")),
         (f"--sumdata ../s.klt {KLT}", 1,
          "ERROR: summary operation isn't applicable to unmerged traces\n"))
    dump = place.run("--dump", name="../lost.klt")
    if b"EXCHEXT" not in dump or b"SENDMSG" in dump:
        raise Failure("the calls are lost with the messages")
    # Anchors can't be removed: the merge is complete, but the input isn't removed.
    place.remove("*.r.0.anc")
    (place.path / f"{INPUT}.r.0.anc").mkdir()
    place.run(f"--merge ../m.klt {KLT} --delete-raw-data", 1,
              f"Could not remove input file after merging: {INPUT}\n")
    place.before = {}
    place.run(f"--merge n.klt {KLT}", 1, "isn't applicable to merged traces", name="../m.klt")


CHECKS = {name: (lambda folder, samples=samples: folder.name in samples, check)
          for name, samples, check in (
              ("full-disk", ("stencil", "raw_ring"), check_full_disk),
              ("bad-output", ("stencil",), check_bad_output),
              ("targets", ("stencil",), check_targets),
              ("onto-input", ("stats",), check_onto_input),
              ("declared-names", ("stencil", "raw_ring"), check_declared_names),
              ("unread-files", ("stencil",), check_unread_files),
              ("locked", ("stencil",), check_locked),
              ("missing-parts", ("stencil",), check_missing_parts),
              ("removals", ("stencil", "stats", "raw_ring"), check_removals),
              ("windows", ("stencil",), check_windows), ("hints", ("ring",), check_hints),
              ("merge-results", ("raw_ring",), check_merge_results))}
