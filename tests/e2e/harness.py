"""Sample traces, and runs of the tested program on copies of them, for the scripts of this directory."""

import os
import pathlib
import resource
import shlex
import shutil
import subprocess

DATA = pathlib.Path(__file__).resolve().parent.parent / "data"
INPUT = "t.klt"

# The limit on CPU time in seconds; child processes inherit it.
resource.setrlimit(resource.RLIMIT_CPU, (300, 300))

# Messages for valid traces: the output's name, times of evbits0 and evbits14 that don't fit internal
# time, a scope of `threads` that is left but was never entered, raw events that an extraction leaves
# out, and sums of bytes that don't fit in 32 bits. Hints about raw traces and empty windows.
EXPECTED_MESSAGES = (b"Writing tracefile ",
                     b"klttool ERROR: time stamp 2251799813685255 exceeds maximum number of clock ",
                     b"klttool ERROR: time stamp 10691368 exceeds maximum number of events ",
                     b"klttool ERROR: time stamp 11445032 exceeds maximum number of events ",
                     b"klttool ERROR: Leaving scope 9/99 which was never entered.",
                     b"klttool WARNING: raw events of t.klt are not extracted, ",
                     b"klttool WARNING: sums of bytes in the ",
                     b"t.klt is a raw trace. ", b"one.klt is a raw trace. ",
                     b"two.klt is a raw trace. ", b"The request")


class Failure(Exception):
    """A failed check; its text describes the fault."""


class Folder:
    """A sample trace and its expected outputs."""

    def __init__(self, path):
        self.path, self.name = path, path.name
        same = path / "same_as"
        self.places = [path, path.parent / same.read_text().strip()] if same.exists() else [path]

    def expected(self, what):
        """The bytes of the file expected.`what`, or None."""
        files = (place / f"expected.{what}" for place in self.places)
        return next((file.read_bytes() for file in files if file.exists()), None)

    def requests(self):
        """Pairs of options and expected output."""
        file = self.path / "requests.txt"
        for line in file.read_text().splitlines() if file.exists() else ():
            number, *options = shlex.split(line)
            yield options, self.expected(f"request.{number}")


class Place:
    """A directory with a copy of a sample. Only files that a check removes may change."""

    def __init__(self, program, folder, directory, name="in"):
        self.program, self.folder = str(pathlib.Path(program).resolve()), folder
        self.path = pathlib.Path(directory, name)
        self.path.mkdir()
        self.restore()

    def restore(self):
        for file in self.folder.path.glob(INPUT + "*"):
            shutil.copy(file, self.path)
        self.before = self.files(INPUT)

    def files(self, name):
        """The bytes of each file of a trace, by the part of its name after `name`."""
        return {file.name[len(name):]: file.read_bytes() for file in self.path.glob(name + "*")
                if file.is_file()}

    def remove(self, pattern):
        """Removes files of the copy."""
        for file in self.path.glob(pattern):
            file.unlink()
            del self.before[file.name[len(INPUT):]]

    def check_input(self):
        after = self.files(INPUT)
        expect("inputs that have changed", [],
               [part for part, data in self.before.items() if after.get(part) != data])

    def finished(self, options, name=INPUT, limit=None, prefix=(), environment=(), **how):
        """The finished process of a run on the trace `name`. `options` is a list of words or a text of
        them, `limit` the maximum size of files, `how` further arguments of subprocess.run."""
        if limit is not None:
            how["preexec_fn"] = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit))
        clean = {k: v for k, v in os.environ.items() if not k.startswith(("RK_", "KLT", "PAL_"))}
        # After a sanitizer's finding the status must not be one of the program's own.
        clean |= {"ASAN_OPTIONS": "abort_on_error=1", "UBSAN_OPTIONS": "abort_on_error=1"}
        words = options.split(" ") if isinstance(options, str) else options
        how = {"stdout": subprocess.PIPE, "stdin": subprocess.DEVNULL} | how
        return subprocess.run([*prefix, self.program, name, *words], cwd=self.path, check=False,
                              env=clean | dict(environment), stderr=subprocess.PIPE, **how)

    def run(self, options, status=0, says=None, **how):
        """Standard output of a run, which must end with `status` and write `says` to standard error. If
        `says` is None, there must be no unexpected messages."""
        done = self.finished(options, **how)
        messages = b"".join(line for line in done.stderr.splitlines(True)
                            if not line.startswith(EXPECTED_MESSAGES))
        if done.returncode != status or (messages if says is None
                                         else says.encode() not in done.stderr):
            raise Failure(f"{options} {how}: status {done.returncode}, expected {status} with "
                          f"\"{says or ''}\"\n{text_of(done.stderr)}")
        return done.stdout


def text_of(data):
    return data.decode("utf-8", "backslashreplace")


def expect(what, expected, found):
    if expected != found:
        raise Failure(f"{what}: {str(found)[:2000]}, expected {str(expected)[:2000]}")


def compare(what, expected, actual):
    """Fails with the first lines that differ."""
    if expected == actual:
        return
    want, got = text_of(expected).splitlines(), text_of(actual).splitlines()
    at = next((i for i, (a, b) in enumerate(zip(want, got)) if a != b), min(len(want), len(got)))
    shown = [f"-{line}" for line in want[at:at + 3]] + [f"+{line}" for line in got[at:at + 3]]
    raise Failure("\n".join([f"{what}: output differs at line {at + 1}", *shown]))


def sorted_lines(output):
    return b"".join(sorted(output.splitlines(True)))
