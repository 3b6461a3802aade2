"""Condenses the summary files of a run to the data of one page.

Time is divided into at most `COLUMNS` columns of whole bins, and threads into at most `ROWS` groups
of neighbours. The sizes of tables are limited: further entries are counted under the key None,
"others".
"""

import array
import math

COLUMNS = 120
ROWS = 32
MATRIX = 24
THREADS = 1 << 20        # different threads
FUNCTIONS = 1 << 18      # different functions; twice as many are counted, then the least are joined
LANE_FUNCTIONS = 64      # different functions of one group of threads in one column
OPERATIONS = 1000
COUNTERS = 64
LINES = 6                # different threads of one counter
REPORTS = 200


def order_of_thread(thread):
    """A sort key that keeps the threads of a process together."""
    return thread & 0xFFFF, thread >> 16


class Groups:
    """Threads in order, in at most `limit` groups of the same size."""

    def __init__(self, threads, limit):
        self.threads = sorted(threads, key=order_of_thread)
        self.size = max(-(-len(self.threads) // limit), 1)
        self.count = -(-len(self.threads) // self.size)
        self.index = {thread: i // self.size for i, thread in enumerate(self.threads)}

    def of(self, thread):
        """The group of a thread; None if the thread was beyond the limit."""
        return self.index.get(thread)

    def members(self, group):
        return self.threads[group * self.size:(group + 1) * self.size]


class Axis:
    """The time of the run in columns of whole bins. Times are ticks."""

    def __init__(self, start, end, width):
        self.start, self.end = start, max(end, start + 1)
        width = max(width, 1)
        bins = -(-(self.end - start) // width)
        self.width = -(-bins // COLUMNS) * width
        self.count = -(-(self.end - start) // self.width)

    def column(self, time):
        return min(max(time - self.start, 0) // self.width, self.count - 1)


def add(table, key, limit, make):
    """The table's entry for `key`, or for None if the table has `limit` entries without it."""
    if key not in table and len(table) >= limit:
        key = None
    if key not in table:
        table[key] = make()
    return table[key]


class Functions:
    """Own time of functions: by function, by column, and by group of threads and column. The
    functions with most time are counted on their own, all others under None."""

    def __init__(self):
        self.totals = {}      # function: own time and calls
        self.joined = 0       # functions that are counted under None
        self.columns = []     # for each column, function: own time
        self.available = []   # for each column, the time of all threads
        self.lanes = {}       # (group, column): function: own time
        self.lane_time = {}   # (group, column): the time of its threads

    def read(self, file, axis, groups):
        for _, nodes in file.records():
            for function, own, calls in own_times(nodes):
                total = self.totals.setdefault(function, [0, 0])
                total[0] += own
                total[1] += calls
            if len(self.totals) > 2 * FUNCTIONS:
                self._join_least()
        self.columns = [{} for _ in range(axis.count)]
        self.available = [0] * axis.count
        kept = set(self.ranked()[:LANE_FUNCTIONS])
        for thread, nodes in file.records():
            column = axis.column(thread.start)
            cell = (groups.of(thread.thread), column)
            self.available[column] += thread.width
            self.lane_time[cell] = self.lane_time.get(cell, 0) + thread.width
            lane = self.lanes.setdefault(cell, {})
            for function, own, _ in own_times(nodes):
                key = function if function in kept else None
                self.columns[column][key] = self.columns[column].get(key, 0) + own
                lane[key] = lane.get(key, 0) + own

    def ranked(self):
        """The functions, those with most time first."""
        return sorted((key for key in self.totals if key is not None),
                      key=lambda key: (-self.totals[key][0], key))

    def _join_least(self):
        rest = self.totals.setdefault(None, [0, 0])
        for key in self.ranked()[FUNCTIONS:]:
            total = self.totals.pop(key)
            rest[0] += total[0]
            rest[1] += total[1]
            self.joined += 1


def own_times(nodes):
    """Function, own time and calls of each node except the root. Callers come before callees."""
    functions, calls = array.array("I"), array.array("I")
    own = array.array("Q")
    for node in nodes:
        functions.append(node.function)
        calls.append(node.calls)
        own.append(node.inclusive)
        if node.parent:
            caller = len(own) - 1 - node.parent
            own[caller] -= min(node.inclusive, own[caller])
    return zip(functions[1:], own[1:], calls[1:])


class Matrix:
    """Messages between groups of threads: number, bytes, and number and summed duration of those
    whose both sides are known, by pair of groups."""

    def __init__(self):
        self.groups = None
        self.cells = {}
        self.count = self.bytes = self.unknown = 0
        self.shortest = None

    def read(self, file, span):
        """`span` is the length of the run. The special durations of messages with an unknown side
        are longer."""
        threads = set()
        for message in file.records():
            if len(threads) < THREADS:
                threads.update((message.sender, message.receiver))
        self.groups = Groups(threads, MATRIX)
        for m in file.records():
            key = (self.groups.of(m.sender), self.groups.of(m.receiver))
            cell = self.cells.setdefault(key, [0, 0, 0, 0])
            size = m.count * m.size  # the sum in the file wraps at 32 bits
            cell[0] += m.count
            cell[1] += size
            if -span <= m.shortest <= m.longest <= span:
                cell[2] += m.count
                cell[3] += m.total
                self.shortest = m.shortest if self.shortest is None else \
                    min(self.shortest, m.shortest)
            else:
                self.unknown += m.count
            self.count += m.count
            self.bytes += size


class Collectives:
    """By communicator and type: operations, members' calls, times, bytes."""

    def __init__(self):
        self.table = {}
        self.count = 0

    def read(self, file):
        for operation, members in file.records():
            entry = add(self.table, (operation.communicator, operation.type), OPERATIONS,
                        lambda: {"operations": 0, "members": 0, "total": 0, "shortest": None,
                                 "longest": 0, "sent": 0, "received": 0})
            entry["operations"] += operation.count
            entry["members"] = max(entry["members"], operation.members)
            self.count += operation.count
            for member in members:
                entry["total"] += member.total
                if entry["shortest"] is None or member.shortest < entry["shortest"]:
                    entry["shortest"] = member.shortest
                entry["longest"] = max(entry["longest"], member.longest)
                entry["sent"] += member.sent
                entry["received"] += member.received


class Curve:
    """Samples by column: their number, the sum that gives the mean, the lowest and the highest."""

    def __init__(self, columns):
        self.points = [None] * columns

    def add(self, column, samples):
        point = self.points[column]
        weighted = samples.mean * samples.count
        if point is None:
            self.points[column] = [samples.count, weighted, samples.low, samples.high]
        else:
            point[0] += samples.count
            point[1] += weighted
            point[2] = min(point[2], samples.low)
            point[3] = max(point[3], samples.high)


class Counters:
    """By counter: a curve of all threads, and curves of the first few threads."""

    def __init__(self):
        self.table = {}
        self.count = 0
        self.left_out = 0

    def read(self, file, axis):
        for samples in file.records():
            self.count += samples.count
            values = (samples.low, samples.high, samples.mean, samples.mean * samples.count)
            if not samples.count or not all(map(math.isfinite, values)):
                self.left_out += 1
                continue
            entry = add(self.table, samples.counter, COUNTERS, lambda: (Curve(axis.count), {}))
            column = axis.column((samples.first + samples.last) // 2)
            entry[0].add(column, samples)
            # One curve more than LINES shows that there are too many threads.
            if len(entry[1]) <= LINES or samples.thread in entry[1]:
                entry[1].setdefault(samples.thread, Curve(axis.count)).add(column, samples)


class Run:
    """The condensed data of a run. `files` maps kinds of files to SumFile; kinds may be missing."""

    def __init__(self, files):
        self.functions, self.matrix = Functions(), Matrix()
        self.collectives, self.counters = Collectives(), Counters()
        self.reports, self.report_count = [], 0
        self.bins = 0
        start, self.axis, self.groups = self._axis_and_groups(files)
        if "fnc" in files:
            self.functions.read(files["fnc"], self.axis, self.groups)
        if "msg" in files:
            known = start is not None
            self.matrix.read(files["msg"], self.axis.end - self.axis.start if known else 1 << 40)
        if "cop" in files:
            self.collectives.read(files["cop"])
        if "cnt" in files:
            self.counters.read(files["cnt"], self.axis)
        for report in files["rep"].records() if "rep" in files else ():
            self.report_count += 1
            if len(self.reports) < REPORTS:
                self.reports.append(report)

    def _axis_and_groups(self, files):
        """The time of the run and its threads, from the call trees; without them, the time is taken
        from the counters. The first result is None if there are neither."""
        start = end = None
        threads = set()
        last = None
        for thread, _ in files["fnc"].records() if "fnc" in files else ():
            self.bins += thread.start != last
            last = thread.start
            start = last if start is None else min(start, last)
            end = last + thread.width if end is None else max(end, last + thread.width)
            if len(threads) < THREADS:
                threads.add(thread.thread)
        if start is None:
            for samples in files["cnt"].records() if "cnt" in files else ():
                start = samples.first if start is None else min(start, samples.first)
                end = samples.last if end is None else max(end, samples.last)
        width = max((file.width for file in files.values()), default=1)
        return start, Axis(start or 0, end or 0, width), Groups(threads, ROWS)
