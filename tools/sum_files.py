"""Reads the five summary files of a run for klt-sum-report.

All files begin with version 1, the width of a bin and the number of records (uint64 each), in the
byte order of the machine that wrote them, which the version shows. Times are ticks of the trace's
clock. Records are read in blocks; every length is checked against the remaining bytes before it is
used. After reading, `problem` describes what is wrong with a file; the records before the damage
are valid.

  .fnc   thread header, then its call tree      .cop   operation header, then its members
  .msg   76 bytes a key                         .cnt   76 bytes a key
  .rep   reports with their texts

The self times in the records of a call tree are ignored, because calls that are open at the end of
a bin count twice in them. The time of a call minus that of the calls it made gives the exact self
time.
"""

import collections
import struct

WORDS = ("fnc", "cop", "msg", "cnt", "rep")

HEADER = 24
BLOCK = 1 << 16

Thread = collections.namedtuple("Thread", "start width thread events nodes")
Node = collections.namedtuple("Node", "function inclusive calls parent")  # records back to parent
Operation = collections.namedtuple("Operation", "time communicator type root count members")
Member = collections.namedtuple(
    "Member", "scl start end total shortest longest low_rate high_rate sent fewest_sent most_sent "
    "received fewest_received most_received")
Messages = collections.namedtuple(
    "Messages", "count send_times total shortest longest sender receiver communicator tag size "
    "bytes sender_function receiver_function sender_scl receiver_scl")
Samples = collections.namedtuple(
    "Samples", "counter first last thread count low high mean low_rate high_rate mean_rate")
Report = collections.namedtuple("Report", "time thread type level description places")
Place = collections.namedtuple("Place", "time thread header function call scl")


class Damaged(Exception):
    """The rest of a file can't be read."""


class SumFile:
    """One of the files; `word` is its kind. A file without bytes has no records."""

    def __init__(self, path, word):
        self.path, self.word = path, word
        self.problem = None
        self.width = self.count = 0
        self.order = "="
        self.size = path.stat().st_size
        if self.size:
            with path.open("rb") as file:
                self._header(file.read(HEADER))

    def _header(self, data):
        if len(data) < HEADER:
            self.problem, self.size = "is cut short", 0
            return
        for order in "<>":
            version, width, count = struct.unpack(order + "QQQ", data)
            if version == 1:
                self.order, self.width, self.count = order, width, count
                return
        self.problem, self.size = "isn't a summary file of version 1", 0

    def records(self):
        """Yields the records: `Thread` with an iterable of `Node`, `Operation` with one of
        `Member`, `Messages`, `Samples`, or `Report`. An iterable can be used until the next record
        is read."""
        if not self.size:
            return
        with self.path.open("rb") as file:
            file.seek(HEADER)
            self.file, self.left, self.damage = file, self.size - HEADER, None
            read = {"fnc": self._threads, "cop": self._operations, "msg": self._messages,
                    "cnt": self._samples, "rep": self._reports}[self.word]
            count = 0
            try:
                for record in read():
                    yield record
                    count += 1
                if count != self.count:
                    self.problem = f"says {self.count} records and has {count}"
            except Damaged as damage:
                self.problem = f"{damage} after {count} of {self.count} records"

    # --- Bytes ------------------------------------------------------------------------------------

    def _read(self, size):
        if size > self.left:
            raise Damaged("is cut short")
        data = self.file.read(size)
        if len(data) != size:
            raise Damaged("became shorter while it was read,")
        self.left -= size
        return data

    def _left_after(self, size, count):
        """The bytes that are left after `count` records of `size`."""
        if count * size > self.left:
            raise Damaged("is cut short")
        return self.left - count * size

    def _skip_to(self, left):
        """Skips bytes that the caller hasn't read, up to the last `left` bytes."""
        self.file.seek(self.left - left, 1)
        self.left = left

    def _each(self, form, count):
        """`count` records of one form, read in blocks."""
        form = struct.Struct(self.order + form)
        if count * form.size > self.left:
            raise Damaged("is cut short")
        while count:
            some = min(count, BLOCK // form.size)
            yield from form.iter_unpack(self._read(some * form.size))
            count -= some

    def _fixed(self, form):
        """The rest of the file as records of one form."""
        size = struct.calcsize("=" + form)
        yield from self._each(form, self.left // size)
        if self.left:
            raise Damaged("is cut short")

    def _one(self, form):
        return struct.unpack(self.order + form, self._read(struct.calcsize("=" + form)))

    # --- Records ----------------------------------------------------------------------------------

    def _threads(self):
        while self.left:
            start, width, thread, events, nodes, _ = self._one("QQIIII")
            left = self._left_after(48, nodes)
            yield Thread(start, width, thread, events, nodes), self._nodes(nodes)
            self._skip_to(left)
            if self.damage:
                raise self.damage

    def _nodes(self, count):
        nodes = self._each("4xI8xQI16xI", count)
        for index, (function, inclusive, calls, back) in enumerate(nodes):
            if back > index:
                # Raised only when the next record is read, since the code that reads these calls
                # may not handle it.
                self.damage = Damaged("has a call without a caller")
                return
            yield Node(function, inclusive, calls, back)

    def _operations(self):
        while self.left:
            *fields, members, _ = self._one("QIIIIII")
            left = self._left_after(88, members)
            yield Operation(*fields, members), map(Member._make,
                                                   self._each("4xIQQQQQddIIIIII", members))
            self._skip_to(left)

    def _messages(self):
        return map(Messages._make, self._fixed("IQqqqIIIIIIIIII"))

    def _samples(self):
        return map(Samples._make, self._fixed("IQQIIdddddd"))

    def _string(self):
        return self._read(self._one("I")[0]).decode("utf-8", "replace")

    def _reports(self):
        while self.left:
            time, thread, count = self._one("QII")
            texts = [self._string() for _ in range(3)]
            if count * 28 > self.left:  # 28 bytes is the minimum for each place
                raise Damaged("is cut short")
            times = self._one(f"{count}Q")
            threads = self._one(f"{count}I")
            headers = [self._string() for _ in range(count)]
            functions = self._one(f"{count}I")
            calls = [self._string() for _ in range(count)]
            scls = self._one(f"{count}I")
            yield Report(time, thread, *texts,
                         [Place(*p) for p in zip(times, threads, headers, functions, calls, scls)])
