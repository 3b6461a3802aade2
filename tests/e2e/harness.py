"""The program under test and the sample traces, for the scripts of this directory."""

import os
import pathlib
import shlex
import shutil
import subprocess

DATA = pathlib.Path(__file__).resolve().parent.parent / "data"
TIMEOUT = 120
INPUT = "t.klt"

# Messages that valid traces draw: what is being written, the stamps of evbits0 and evbits14 that are
# beyond the internal time, a scope that `threads` leaves without having entered it, and the sizes of
# messages in `stencil`.
EXPECTED_MESSAGES = (b"Writing tracefile ",
                     b"klttool ERROR: time stamp 2251799813685255 exceeds maximum number of clock ",
                     b"klttool ERROR: time stamp 10691368 exceeds maximum number of events ",
                     b"klttool ERROR: time stamp 11445032 exceeds maximum number of events ",
                     b"klttool ERROR: Leaving scope 9/99 which was never entered.",
                     b"klttool WARNING: sums of bytes in the summary data have passed 32 bits, ")


class Failure(Exception):
    """A check that failed, with what was wrong as its text."""


class Folder:
    """One sample trace and what is expected of it."""

    def __init__(self, path):
        self.path = path
        self.name = path.name
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

    def copy(self, directory):
        """Copies the trace alone."""
        for file in self.path.glob(INPUT + "*"):
            shutil.copy(file, directory)


class Program:
    """The program under test, run with a clean environment."""

    def __init__(self, path):
        self.path = str(pathlib.Path(path).resolve())

    def run(self, directory, *options, environment=None, **how):
        """The finished process of one run; `how` goes to subprocess.run."""
        clean = {k: v for k, v in os.environ.items() if not k.startswith(("RK_", "KLT", "PAL_"))}
        # A sanitizer's finding must not look like one of the program's own statuses.
        clean |= {"ASAN_OPTIONS": "abort_on_error=1", "UBSAN_OPTIONS": "abort_on_error=1"}
        how = {"stdout": subprocess.PIPE, "stdin": subprocess.DEVNULL} | how
        command = [*how.pop("prefix", ()), self.path, *options]
        try:
            return subprocess.run(command, cwd=directory, env=clean | (environment or {}),
                                  stderr=subprocess.PIPE, timeout=TIMEOUT, check=False, **how)
        except subprocess.TimeoutExpired:
            raise Failure(f"{shlex.join(command)}: no end after {TIMEOUT} s") from None

    def output(self, directory, *options, **environment):
        """Standard output of a run that must succeed without complaints."""
        done = self.run(directory, *options, environment=environment)
        messages = [line for line in done.stderr.splitlines(True)
                    if not line.startswith(EXPECTED_MESSAGES)]
        if done.returncode != 0 or messages:
            raise Failure(f"{environment} {shlex.join(options)}: status {done.returncode}, "
                          f"standard error:\n{text_of(b''.join(messages[:20]))}")
        return done.stdout


def text_of(data):
    return data.decode("utf-8", "backslashreplace")


def expect(what, expected, found):
    if expected != found:
        raise Failure(f"{what}: {found}, expected {expected}")


def compare(what, expected, actual):
    """Fails with the first lines that differ."""
    if expected == actual:
        return
    want, got = text_of(expected).splitlines(), text_of(actual).splitlines()
    at = next((i for i, (a, b) in enumerate(zip(want, got)) if a != b), min(len(want), len(got)))
    shown = [f"-{line}" for line in want[at:at + 3]] + [f"+{line}" for line in got[at:at + 3]]
    raise Failure("\n".join([f"{what}: output differs at line {at + 1}", *shown]))


def sorted_lines(output, prefix=b""):
    return b"".join(sorted(line for line in output.splitlines(True) if line.startswith(prefix)))
