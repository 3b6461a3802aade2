"""Reads merged traces and the counts that the test programs write, and compares them."""

import collections
import pathlib
import re
import subprocess
import sys


class Trace:
    """What a dump says: events by process."""

    def __init__(self, klttool, path):
        text = subprocess.run([klttool, path, "--dump", "--matched-rkf", "--verbose", "0"],
                              capture_output=True, text=True, check=True).stdout
        self.names, self.process, self.comms, self.operations = {}, {}, {}, {}
        self.comm_names = {}
        self.calls = collections.defaultdict(collections.Counter)  # by process and name
        self.depth = collections.Counter()
        self.messages, self.unmatched, self.collops, self.comments = [], [], [], []
        self.others, self.events = [], 0
        for line in text.splitlines():
            self.read(line)

    def read(self, line):
        word = line.split()
        if word[0] == "DEFSTATE":
            self.names[word[1]] = line.split('"', 1)[1].rsplit('"', 1)[0]
        elif word[0] == "CPUSYM":
            self.process[word[1]] = int(re.search(r'"Process (\d+)', line)[1])
        elif word[0] == "GLOBALOPTOKEN":
            self.operations[word[1]] = word[2].strip('"')
        elif word[0] == "COMDEF":
            count = int(word[2])
            triplets = [tuple(map(int, one.split(":"))) for one in word[3:] if re.match(r"-?\d+:", one)]
            self.comms[word[1]] = [p for first, last, step in triplets
                                   for p in range(first, last + (1 if step > 0 else -1), step)]
            assert len(self.comms[word[1]]) == count, line
            self.comm_names[word[1]] = line.split('"')[1]
        elif "ONETOONE" in word[:2] and "UNKNOWN" in word:
            self.unmatched.append(line)
        elif word[0].isdigit():
            self.events += 1
            self.event(line, word)

    def event(self, line, word):
        if word[1] == "EXCHEXT":
            # A call of a process; its depth must be 0 at the end.
            self.depth[word[3]] += 1 if word[4] == "DOWNTO" else -1
            if word[4] == "DOWNTO":
                self.calls[self.process[word[3]]][self.names[word[5]]] += 1
        elif word[1] == "ONETOONE":
            value = dict(zip(word[2::2], word[3::2]))
            self.messages.append((self.process[value["CPU"]], self.process[value["TO"]],
                                  int(value["TAG"]), int(value["LEN"]), int(value["DELTA"]),
                                  self.names[value["SENDER_FUNCTION"]],
                                  self.names[value["RECEIVER_FUNCTION"]]))
        elif word[1] == "COLLOP":
            self.collop(word)
        elif word[1] == "C":
            self.comments.append(line)
        else:
            self.others.append(word)

    def collop(self, word):
        lists, key = collections.defaultdict(list), None
        for one in word[4:]:
            if one.isalpha():
                key = one
            else:
                lists[key].append(int(one))
        operation, comm = self.operations[word[3]], str(lists["COM"][0])
        members = self.comms[comm]
        zeros = [0] * len(members)
        self.collops.append((operation, comm, members, lists["TIMES"], lists.get("SENTS", zeros),
                             lists.get("RCVDS", zeros), lists["DELTAS"]))


class Counts:
    """What the processes of a program have counted themselves."""

    def __init__(self, prefix, size):
        self.calls = collections.defaultdict(collections.Counter)
        self.sent, self.received = collections.Counter(), collections.Counter()
        self.operations = collections.defaultdict(collections.Counter)
        for rank in range(size):
            for line in pathlib.Path(f"{prefix}.{rank}").read_text(encoding="utf-8").splitlines():
                kind, *word = line.split()
                if kind == "F":
                    self.calls[rank][word[0]] += 1
                elif kind == "C":
                    self.operations[rank][(word[0], int(word[1]), int(word[2]))] += 1
                else:
                    peer, tag, length = map(int, word)
                    table = self.sent if kind == "S" else self.received
                    table[(rank, peer, tag, length) if kind == "S" else (peer, rank, tag, length)] += 1


def same(what, expected, found):
    if expected != found:
        missing, added = expected - found, found - expected
        sys.exit(f"{what}: missing in the trace {dict(missing)}, only in the trace {dict(added)}")


def compare(trace, counts, size):
    same("what the program says", counts.sent, counts.received)
    same("messages", counts.sent, collections.Counter(one[:4] for one in trace.messages))
    if trace.unmatched or any(trace.depth.values()):
        sys.exit(f"without a match: {trace.unmatched[:5]}, open calls: {trace.depth}")
    early = [one for one in trace.messages if one[4] < 0]
    if early:
        sys.exit(f"received before they were sent: {early[:5]}")
    for rank in range(size):
        mpi = collections.Counter({name: n for name, n in trace.calls[rank].items() if name != "main"})
        same(f"calls of process {rank}", counts.calls[rank], mpi)
        assert trace.calls[rank]["main"] == 1, trace.calls[rank]
        operations = collections.Counter(
            (name, sent[i], received[i])
            for name, _, members, times, sent, received, _ in trace.collops
            for i in range(len(members)) if members[i] == rank and times[i] >= 0)
        same(f"operations of process {rank}", counts.operations[rank], operations)
