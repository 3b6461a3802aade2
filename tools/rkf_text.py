"""Reads definition lines of RKF text, the output of `klttool --dump`, for the other tools.

Text is decoded as UTF-8, with replacement characters for invalid bytes. A name is between the first
and the last quote of its part of the line, and may contain quotes itself.
"""

import re

# The location that means none.
_NONE = 0x7FFFFFFF


def open_text(name):
    """The file `name`, or standard input for "-", as an iterable of decoded lines."""
    options = {"encoding": "utf-8", "errors": "replace", "newline": "\n"}
    return open(0, closefd=False, **options) if name == "-" else open(name, **options)


def split_event(line):
    """The time, as text, and the rest of an event line; None for other lines."""
    time, _, rest = line.partition(" ")
    if time.isdecimal() or time == "UNKNOWN" or time[:1] == "-" and time[1:].isdecimal():
        return time, rest
    return None


class Definitions:
    """The definitions read so far. Ids are those of the text, in which threads, members and
    counters have 1 added to the numbers in the trace."""

    def __init__(self):
        self.period = None       # seconds in one unit of the text's times
        self.event_bits = 0
        self.duration = None     # first and last time
        self.classes = {}
        self.functions = {}      # name and class id
        self.operations = {}
        self.files = {}
        self.locations = {}      # id: file id and line of the innermost place
        self.threads = {}
        self.groups = {}
        self.counters = {}       # name and unit
        self.io_files = {}
        self.scopes = {}         # name and class id
        self.communicators = {}  # member triplets and name

    _FORMS = {
        "DEFACT": re.compile(r'(\d+) "(.*)"$', re.S),
        "DEFSTATE": re.compile(r'(\d+) ACT (\d+) "(.*)"$', re.S),
        "GLOBALOPTOKEN": re.compile(r'(\d+) "(.*)"$', re.S),
        "FILETOKEN": re.compile(r'(\d+) "(.*)"$', re.S),
        "CPUSYM": re.compile(r'(\d+) "(.*)"$', re.S),
        "DEFGROUP": re.compile(r'(\d+) "(.*)" NMEMBS ', re.S),
        "DEFSAMP": re.compile(r'(\d+) CLASS .*? NAME "(.*)" UNIT "(.*)"$', re.S),
        "IOFILE": re.compile(r'(\d+) -?\d+ "(.*)"$', re.S),
        "DEFSCOPE": re.compile(r'(\d+) ACT (\d+) "(.*)"', re.S),
        "DEFSCL": re.compile(r"(\d+) NLOCS \d+ LOCS (\d+):(-?\d+)"),
        "COMDEF": re.compile(r'(\d+) \d+((?: \d+:\d+:-?\d+)*)(?: NAME "(.*)")?$', re.S),
        "CLKPERIOD": re.compile(r"([-+.0-9Ee]+)$"),
        "EVENTBITS": re.compile(r"(\d+)$"),
        "DURATION": re.compile(r"(-?\d+) (-?\d+)$"),
    }

    def read_line(self, line):
        """Reads a line; False if it isn't a definition that this module knows."""
        word, _, rest = line.partition(" ")
        form = self._FORMS.get(word)
        match = form.match(rest) if form else None
        if not match:
            return word in ("NCPUS", "DEFTHREADNUMS", "DEFSAMPCLASS", "INFO")
        a = match.groups()
        if word == "CLKPERIOD":
            return self._read_period(a[0])
        if word == "EVENTBITS":
            self.event_bits = min(int(a[0]), 63)
        elif word == "DURATION":
            self.duration = (int(a[0]), int(a[1]))
        elif word == "DEFSTATE":
            self.functions[int(a[0])] = (a[2], int(a[1]))
        elif word == "DEFSCOPE":
            self.scopes[int(a[0])] = (a[2], int(a[1]))
        elif word == "DEFSAMP":
            self.counters[int(a[0])] = (a[1], a[2])
        elif word == "DEFSCL":
            self.locations[int(a[0])] = (int(a[1]), int(a[2]))
        elif word == "COMDEF":
            triplets = [tuple(map(int, t.split(":"))) for t in a[1].split()]
            self.communicators[int(a[0])] = (triplets, a[2] or "")
        else:
            tables = {"DEFACT": self.classes, "GLOBALOPTOKEN": self.operations,
                      "FILETOKEN": self.files, "CPUSYM": self.threads, "DEFGROUP": self.groups,
                      "IOFILE": self.io_files}
            tables[word][int(a[0])] = a[1]
        return True

    def _read_period(self, text):
        try:
            period = float(text)
        except ValueError:
            return False
        if 0 < period < float("inf"):
            self.period = period
            return True
        return False

    def tick(self):
        """Seconds in one tick of the trace's clock, without event bits. The text has only six
        digits of the period; a four-digit number within this precision is used instead."""
        tick = self.period * 2.0**self.event_bits
        rounder = float(f"{tick:.4g}")
        return rounder if abs(rounder - tick) <= 6e-6 * tick else tick

    def unit(self):
        """Seconds in one unit of the text's times."""
        return self.tick() / 2.0**self.event_bits

    def function(self, number):
        entry = self.functions.get(number)
        return entry[0] if entry else f"function {number}"

    def function_class(self, number):
        entry = self.functions.get(number)
        return self.classes.get(entry[1], "") if entry else ""

    def operation(self, number):
        return self.operations.get(number) or f"operation {number}"

    def counter(self, number):
        """Name and unit."""
        return self.counters.get(number, (f"counter {number}", ""))

    def communicator(self, number):
        entry = self.communicators.get(number)
        return entry[1] if entry and entry[1] else f"communicator {number}"

    def location(self, number):
        """File and line of a source location, or an empty text."""
        if number in (0, _NONE) or number not in self.locations:
            return ""
        file, line = self.locations[number]
        name = self.files.get(file) or f"file {file}"
        return f"{name}:{line}" if line >= 0 else name

    def member(self, communicator, rank):
        """The thread of a rank, with the number of the text; None if there is none."""
        for first, last, stride in self.communicators.get(communicator, ((), ""))[0]:
            count = (last - first) // stride + 1 if stride and (last - first) * stride >= 0 else 0
            if rank < count:
                return first + rank * stride + 1
            rank -= count
        return None


def process_of(thread):
    """The process, from 0 on, of a thread with the number of the text."""
    return (thread - 1) & 0xFFFF


def thread_name(definitions, thread):
    """A thread's name, or else a name made from its numbers."""
    if thread in definitions.threads:
        return definitions.threads[thread]
    process, number = process_of(thread), (thread - 1) >> 16
    return f"process {process}" if number == 0 else f"process {process}, thread {number}"
