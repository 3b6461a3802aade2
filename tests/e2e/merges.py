"""What merges of raw traces have to give: their components are read here, byte by byte."""

import pathlib
import re
import struct
import tempfile

import summary_sums
from harness import INPUT, Failure, compare, sorted_lines

# Fields after the number of the rows that a merge writes messages in: time step, sender, receive
# time, receiver, communicator, size, tag, then locations and functions. Of collective operations
# those up to the count of members, and the bytes of each member.
ROWS = {
    1: (">I", 0), 2: (">Q", 0),
    57: (">HIqIHIHII", 0), 58: (">HIqIHIHIIII", 0), 59: (">HIqIHIIII", 0), 60: (">HIqIHIIIIII", 0),
    4: (">HHBH", 20), 6: (">HHBH", 28), 8: (">HIIHBH", 24), 56: (">HIIHBH", 24),
}
TIME_ROWS = (1, 2)
ROOTED_ROWS = (8, 56)
UNKNOWN_SIDE = (-2**63, -2**63 + 1)
KLT = ("--logfile-format", "KLT")


def records(directory, component):
    """Time, number and fields of each record of a component."""
    file = pathlib.Path(directory) / component
    data = file.read_bytes() if file.exists() else b""
    at = time = 0
    while at < len(data):
        number = data[at]
        form, per_member = ROWS[number]
        step, *fields = struct.unpack_from(form, data, at + 1)
        at += 1 + struct.calcsize(form) + (fields[-1] * per_member if per_member else 0)
        time += step
        if number not in TIME_ROWS:
            yield time, number, fields


def check_merge(program, folder):
    """Every storage form of a raw trace gives the same merged trace, and that holds what it should."""
    with tempfile.TemporaryDirectory() as directory:
        folder.copy(directory)
        program.output(directory, INPUT, "--merge", "m.klt", *KLT, RK_VERBOSE="0")
        lines, profiles = [], {}
        for time, _, (sender, receive, receiver, comm, size, tag, *rest) in records(directory,
                                                                                    "m.klt.msg"):
            fields = time, receive, sender, receiver, comm, tag, size, *rest[-2:]
            lines.append(" ".join(map(str, fields)) + "\n")
            if receive not in UNKNOWN_SIDE:
                key = ":".join(map(str, (sender, receiver, *rest[-2:], tag, comm, size)))
                profiles.setdefault(key, []).append(receive)
        compare("messages", sorted_lines(folder.expected("messages")),
                "".join(sorted(lines)).encode())
        # The profiles count the complete messages.
        compare("profiles", "".join(sorted(
            f"INFO ONE2ONE_PROFILE {key}:{len(t)}:{min(t)}:{max(t)}:{sum(t)}\n"
            for key, t in profiles.items())).encode(), sorted_lines(
                program.output(directory, "m.klt", "--print-statistics"), b"INFO ONE2ONE_PROFILE "))
        check_merged_dump(program, directory)
        check_merge_forms(program, directory)


def without_communication(dump):
    """The lines that a merge copies; the count of events is another one afterwards."""
    return b"".join(line for line in dump.splitlines(True) if b"number of events: " not in line
                    and not re.match(rb"\S+ (?:SENDMSG|RECVMSG|GLOBALOP) ", line))


def check_merged_dump(program, directory):
    """What isn't communication is copied; windows agree with and without seek points."""
    raw, merged = (program.output(directory, name, "--dump") for name in (INPUT, "m.klt"))
    compare("copied lines", *(sorted_lines(without_communication(d)) for d in (raw, merged)))
    times = [int(time) for time in re.findall(rb"^(\d+) ", merged, re.MULTILINE)]
    window = ["--dump", "--ticks", "--request",
              f"{times[len(times) // 2]}:{times[3 * len(times) // 4]}"]
    with_anchors = program.output(directory, "m.klt", *window)
    anchors = list(pathlib.Path(directory).glob("m.klt*.anc"))
    for file in anchors:
        file.rename(f"{file}.kept")
    compare("window without seek points", with_anchors, program.output(directory, "m.klt", *window))
    for file in anchors:
        pathlib.Path(f"{file}.kept").rename(file)


def check_merge_forms(program, directory):
    """From and to a single file."""
    single = ("--logfile-format", "SINGLEKLT")
    trace = {file: file.read_bytes() for file in pathlib.Path(directory).glob("m.klt*")}
    program.output(directory, INPUT, "--convert", "one.klt", *single)
    program.output(directory, "one.klt", "--merge", "single.klt", *single, RK_VERBOSE="0")
    for file in trace:
        file.unlink()
    program.output(directory, "single.klt", "--convert", "m.klt", *KLT)
    for file, contents in trace.items():
        compare(f"{file.name} by way of single files", contents, file.read_bytes())


def check_merge_summary(program, folder):
    """What is summed up while it is merged is what the merged trace holds, wherever the bins end."""
    text = summary_sums.Text(folder.expected("matched"))
    declared, last = text.end, text.lines[-1][0]
    for text.end in (declared, last + 4, last, last // 3):
        with tempfile.TemporaryDirectory() as directory:
            folder.copy(directory)
            definitions = pathlib.Path(directory) / f"{INPUT}.dcl"
            parts = definitions.read_bytes().split(struct.pack(">Q", declared))
            if len(parts) != 2:
                raise Failure("the end of the run isn't in one place")
            definitions.write_bytes(struct.pack(">Q", text.end).join(parts))
            program.output(directory, INPUT, "--merge", "m.klt", "--sumdata", *KLT, RK_VERBOSE="0")
            messages = [((sender, receiver, comm, size, tag, *rest[-2:]),
                         (1, time >> text.shift, delta >> text.shift, size))
                        for time, _, (sender, delta, receiver, comm, size, tag, *rest)
                        in records(directory, "m.klt.msg")]
            operations = [((fields[-2], fields[-3],
                            fields[0] if row in ROOTED_ROWS else summary_sums.MASK), (1,))
                          for _, row, fields in records(directory, "m.klt.cop")]
            summary_sums.check(pathlib.Path(directory) / "m.klt", text, operations, messages)
