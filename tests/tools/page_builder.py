"""Helpers of the tests of tools/sum-report: runs it, writes summary files, reads screenshots."""

import pathlib
import struct
import subprocess
import sys
import zlib

ROOT = pathlib.Path(__file__).resolve().parents[2]
TOOL = ROOT / "tools" / "sum-report"
DATA = ROOT / "tests" / "data"
WORDS = ("fnc", "cop", "msg", "cnt", "rep")
NODE = "IIQQIIIIII"


def report(run, *options, status=0):
    """The page of a run and what was said on standard error."""
    done = subprocess.run([sys.executable, str(TOOL), str(run), *map(str, options)], check=False,
                          stdin=subprocess.DEVNULL, capture_output=True, timeout=300)
    if done.returncode != status:
        raise AssertionError(f"status {done.returncode}\n{done.stderr.decode()}")
    return done.stdout.decode(), done.stderr.decode()


def sample(name, *options):
    """The page of a sample, with its names."""
    folder = DATA / name
    return report(folder / "expected", "--names", folder / "expected.dump", *options)[0]


def write(directory, word, width, records, count=None, order="<"):
    """A summary file of the run `x`."""
    header = struct.pack(order + "QQQ", 1, width, len(records) if count is None else count)
    (directory / f"x.sum.{word}").write_bytes(header + b"".join(records))


def thread(start, width, number, calls, order="<"):
    """A record of a call tree: the root and one level of (function, inclusive time) below it, or a
    second level of one call below the first where an entry has a third part of that form."""
    level1, level2 = [], []
    for index, (function, time, *callee) in enumerate(calls):
        level1.append(struct.pack(order + NODE, 0, function, 0, time, 1, 0, len(callee), 0, 0,
                                  index + 1))
        for sub, sub_time in callee:
            back = len(calls) - index + len(level2)
            level2.append(struct.pack(order + NODE, 0, sub, 0, sub_time, 1, 0, 0, 0, 0, back))
    whole = sum(call[1] for call in calls)
    root = struct.pack(order + NODE, 0, 0, 0, whole, 0, 0, len(calls), 1, 1, 0)
    nodes = [root, *level1, *level2]
    return struct.pack(order + "QQIIII", start, width, number, 0, len(nodes), 0) + b"".join(nodes)


def message(sender, receiver, count, size, total=20):
    return struct.pack("<IQqqqIIIIIIIIII", count, 10, total, 1, 19, sender, receiver, 1, 7, size,
                       count * size % 2**32, 10, 10, 0, 0)


def samples(counter, number, time, value):
    return struct.pack("<IQQIIdddddd", counter, time, time, number, 1, value, value, value, 0, 0, 0)


def string(text):
    data = text.encode()
    return struct.pack("<I", len(data)) + data


def complaint(time, number, *texts):
    return struct.pack("<QII", time, number, 0) + b"".join(map(string, texts))


def pixels(png):
    """How often each colour (red, green, blue) is in a PNG file of 8 bits a channel."""
    data = png.read_bytes()
    assert data[:8] == b"\x89PNG\r\n\x1a\n", "no PNG"
    at, packed = 8, b""
    while at < len(data):
        length, kind = struct.unpack(">I4s", data[at:at + 8])
        body = data[at + 8:at + 8 + length]
        if kind == b"IHDR":
            width, height, depth, colour, _, _, interlace = struct.unpack(">IIBBBBB", body)
        elif kind == b"IDAT":
            packed += body
        at += length + 12
    assert depth == 8 and colour in (2, 6) and interlace == 0, (depth, colour, interlace)
    step = 3 if colour == 2 else 4
    raw, stride = zlib.decompress(packed), width * step
    before = bytearray(stride)
    counts = {}
    for row in range(height):
        start = row * (stride + 1)
        line = unfilter(raw[start], bytearray(raw[start + 1:start + 1 + stride]), before, step)
        before = line
        for x in range(0, stride, step):
            key = (line[x], line[x + 1], line[x + 2])
            counts[key] = counts.get(key, 0) + 1
    return counts


def unfilter(kind, line, before, step):
    """A line of a PNG file as it was before it was filtered."""
    for i in range(len(line) if kind else 0):
        left = line[i - step] if i >= step else 0
        above = before[i]
        if kind == 1:
            guess = left
        elif kind == 2:
            guess = above
        elif kind == 3:
            guess = (left + above) // 2
        else:
            corner = before[i - step] if i >= step else 0
            guess = min((abs(above - corner), 0, left), (abs(left - corner), 1, above),
                        (abs(left + above - 2 * corner), 2, corner))[2]
        line[i] = line[i] + guess & 255
    return line
