"""Computes the results of klt-analyze again, from the text that `klttool --dump --matched-rkf` writes.

It keeps all calls and looks up what happens in them, where the program adds up while it reads. All
times are ticks of the trace.
"""

import bisect
import collections
import re

MPI_NAME = re.compile(r"p?mpi_.", re.I)
Call = collections.namedtuple("Call", "function enter leave depth")
Message = collections.namedtuple("Message", "sender receiver sent received size functions")


def label(thread):
    """The thread's number in tables."""
    return str(thread & 0xffff) + (f".{thread >> 16}" if thread >> 16 else "")


class Trace:
    """The calls, messages and operations of a text."""

    def __init__(self, lines):
        self.names, self.mpi, self.members, self.operations = {}, set(), {}, {}
        self.calls, self.messages, self.collectives = collections.defaultdict(list), [], []
        self.classes, self.resolution, self.bits = {}, 1.0, 0
        self.stacks = collections.defaultdict(list)
        self.own, self.inclusive = collections.Counter(), collections.Counter()
        self.count, self.last = collections.Counter(), {}
        for line in lines:
            self.read(line)
        ends = max(self.last.values(), default=0)
        for thread, stack in self.stacks.items():
            while stack:
                self.exchange(ends, ["", "", "", thread + 1, "UPTO"])
        times = [c.enter for calls in self.calls.values() for c in calls]
        ends = [c.leave for calls in self.calls.values() for c in calls]
        self.span = (min(times), max(ends)) if times else (0, 0)
        if self.bits:  # the text has six digits of the period only
            self.resolution = float(f"{self.resolution * 2 ** self.bits:.4g}") / 2 ** self.bits

    def read(self, line):
        """Reads one line."""
        word = line.split(" ", 4)
        if word[0] == "CLKPERIOD":
            self.resolution = float(word[1])
        elif word[0] == "EVENTBITS":
            self.bits = int(word[1])
        elif word[0] == "DEFACT":
            self.classes[word[1]] = line.split(" ", 2)[2][1:-1]
        elif word[0] == "DEFSTATE":
            function, name = int(word[1]), word[4][1:-1]
            path = self.classes.get(word[3], "")
            self.names[function] = name
            if path == "MPI" or path.startswith("MPI:") or MPI_NAME.match(name):
                self.mpi.add(function)
        elif word[0] == "COMDEF":
            self.members[int(word[1])] = [
                thread for part in line.split(" NAME ")[0].split()[3:]
                for first, last, step in [map(int, part.split(":"))]
                for thread in range(first, last + (1 if step > 0 else -1), step)]
        elif word[0] == "GLOBALOPTOKEN":
            self.operations[int(word[1])] = line.split(" ", 2)[2][1:-1]
        elif len(word) > 2 and word[1] == "EXCHEXT":
            self.exchange(int(word[0]), line.split())
        elif len(word) > 2 and word[1] == "ONETOONE":
            self.message(line.split())
        elif len(word) > 2 and word[1] == "COLLOP":
            self.collective(line)

    def exchange(self, time, word):
        """A call begins or ends."""
        thread = int(word[3]) - 1
        stack = self.stacks[thread]
        time = max(time, self.last.get(thread, 0))
        if stack:
            self.own[thread, stack[-1][0]] += time - self.last[thread]
        self.last[thread] = time
        if word[4] == "DOWNTO":
            stack.append((int(word[5]), time))
            self.count[stack[-1][0]] += 1
        else:
            function, enter = stack.pop()
            if function not in (f for f, _ in stack):
                self.inclusive[thread, function] += time - enter
            depth = sum(f in self.mpi for f, _ in stack)
            self.calls[thread].append(Call(function, enter, time, depth))

    def message(self, word):
        """A message with its two sides."""
        def field(name):
            return int(word[word.index(name) + 1]) if name in word else 0

        functions = [field(side + "_FUNCTION") for side in ("SENDER", "RECEIVER")]
        if "UNKNOWN" in (word[0], word[7]):
            return
        sent = int(word[0])
        self.messages.append(Message(int(word[3]) - 1, int(word[5]) - 1, sent, sent + int(word[7]),
                                     field("LEN"), functions))

    def collective(self, line):
        """An operation with its members."""
        lists = {name: numbers.split() for name, numbers in
                 re.findall(r" (TIMES|DELTAS)((?: (?:-?\d+|UNKNOWN))*)", line)}
        word = line.split()
        root = int(word[word.index("ROOT") + 1]) if "ROOT" in word else None
        members = self.members.get(int(word[5]), [])
        known = [(thread, int(start), int(start) + int(delta)) for thread, start, delta in
                 zip(members, lists["TIMES"], lists["DELTAS"]) if start != "UNKNOWN"]
        name = self.operations.get(int(word[3]), f"operation {word[3]}")
        self.collectives.append((name, word[2], root, known, len(known) == len(lists["TIMES"])))


class Waits:
    """The waiting times, by kind, process, function and cause."""

    def __init__(self, trace, window):
        self.trace, self.window = trace, window
        self.rows = collections.Counter()
        self.mpi = {thread: sorted((c for c in calls if c.function in trace.mpi and c.depth == 0),
                                   key=lambda c: (c.enter, c.leave))
                    for thread, calls in trace.calls.items()}
        self.find_messages()
        for operation in trace.collectives:
            self.find_collective(*operation)

    def book(self, kind, thread, name, cause, start, end):
        """Adds a wait, as far as it lies in the window."""
        start, end = max(start, self.window[0]), min(end, self.window[1])
        if start < end:
            self.rows[kind, label(thread), name,
                      "" if cause is None else label(cause)] += end - start

    def call_at(self, thread, time, function, sends):
        """The outermost MPI call around a time: for a send the last, for a receive the first."""
        if function and function not in self.trace.mpi:
            return None
        calls = self.mpi.get(thread, [])
        if sends:
            at = bisect.bisect_right([c.enter for c in calls], time) - 1
        else:
            at = bisect.bisect_left([c.leave for c in calls], time)
        fits = 0 <= at < len(calls) and calls[at].enter <= time <= calls[at].leave
        return calls[at] if fits else None

    def find_messages(self):
        """Late senders, late receivers and messages in wrong order."""
        pending, waited = collections.defaultdict(list), {}
        for m in self.trace.messages:
            if m.received >= m.sent >= self.window[0]:
                pending[m.receiver].append(m)
        judged = []
        for receiver, messages in pending.items():
            for m in messages:
                received = self.call_at(receiver, m.received, m.functions[1], False)
                sent = self.call_at(m.sender, m.sent, m.functions[0], True)
                if received and sent:
                    late = any(o.sent < m.sent and o.received > m.received for o in messages)
                    judged.append((received.leave, m.received, m.sent, late, m, sent, received))
        for *_, late, m, sent, received in sorted(judged, key=lambda j: j[:3]):
            if sent.enter > received.enter:
                key = "receiver", m.receiver, received
                until = waited.get(key, received.enter)
                self.book("wrong_order" if late else "late_sender", m.receiver,
                          self.trace.names[received.function], m.sender, until, sent.enter)
                waited[key] = max(until, sent.enter)
            elif received.enter > sent.enter and sent.leave > received.enter:
                key = "sender", m.sender, sent
                until = waited.get(key, sent.enter)
                self.book("late_receiver", m.sender, self.trace.names[sent.function], m.receiver,
                          until, received.enter)
                waited[key] = max(until, received.enter)

    def find_collective(self, name, shape, root, parts, complete):
        """The waits of one operation."""
        def function(part):
            overlaps = [(min(c.leave, part[2]) - max(c.enter, part[1]), self.trace.names[c.function])
                        for c in self.mpi.get(part[0], [])]
            return max([o for o in overlaps if o[0] > 0], default=(0, name))[1]

        def book(kind, part, cause, end):
            self.book(kind, part[0], function(part), cause, part[1], min(end, part[2]))

        if shape == "ONETOALL":
            for part in parts:
                for other in parts:
                    if other[0] == root != part[0]:
                        book("late_broadcast", part, root, other[1])
        elif complete and shape == "ALLTOONE":
            others = [part for part in parts if part[0] != root]
            last = max(others, key=lambda part: part[1], default=None)
            for part in parts if last else ():
                if part[0] == root:
                    book("early_reduce", part, last[0], last[1])
        elif complete and parts:
            last = max(parts, key=lambda part: part[1])
            first_end = min(part[2] for part in parts)
            for part in parts:
                book("barrier" if shape == "ALL" else "nxn", part, last[0], last[1])
                self.book("completion", part[0], function(part), None,
                          max(first_end, min(last[1], part[2])), part[2])
