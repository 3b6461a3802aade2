#!/usr/bin/env python3
"""Installs a build into an empty directory, whose path has a blank, and uses what is there: the
program, a program of its own that is built against the library, and the packages.

  check_package.py --build build/release --source .
"""

import argparse
import collections
import os
import pathlib
import re
import subprocess
import sys
import tarfile
import tempfile

INSTALLED = ("bin/klttool", "share/man/man1/klttool.1", "share/doc/klttool/README.md",
             "share/bash-completion/completions/klttool", "share/zsh/site-functions/_klttool",
             "share/fish/vendor_completions.d/klttool.fish", "include/klttool/klt/klt.h")


def run(*command, **options):
    done = subprocess.run([str(part) for part in command], stdin=subprocess.DEVNULL,
                          capture_output=True, text=True, check=False, **options)
    if done.returncode != 0:
        sys.exit(f"{command}: status {done.returncode}\n{done.stdout}\n{done.stderr}")
    return done.stdout


def expected_messages(klttool, trace):
    """Messages and bytes by pair, from the text."""
    totals = collections.Counter()
    sizes = collections.Counter()
    text = run(klttool, trace, "--dump", "--matched-rkf", "--verbose", "0")
    for sender, receiver, size in re.findall(r"ONETOONE CPU (\d+) TO (\d+) .* LEN (\d+)", text):
        totals[int(sender) - 1, int(receiver) - 1] += 1
        sizes[int(sender) - 1, int(receiver) - 1] += int(size)
    return [f"{a & 0xffff}:{a >> 16} -> {b & 0xffff}:{b >> 16}  {totals[a, b]} messages, "
            f"{sizes[a, b]} bytes" for a, b in sorted(totals)]


def check_install(build, source, place):
    prefix = place / "a prefix"
    run("cmake", "--install", build, "--prefix", prefix)
    missing = [name for name in INSTALLED if not (prefix / name).exists()]
    if missing:
        sys.exit(f"not installed: {missing}")
    trace = prefix / "share/doc/klttool/examples/hpcc.klt"
    klttool = prefix / "bin/klttool"
    expected = expected_messages(klttool, trace)
    if len(expected) != 12:
        sys.exit(f"{len(expected)} pairs exchange messages, not 12")

    # The example as it is installed, in a directory of its own.
    example = prefix / "share/doc/klttool/examples/reader"
    run("cmake", "-S", example, "-B", place / "example", f"-DCMAKE_PREFIX_PATH={prefix}")
    run("cmake", "--build", place / "example")
    got = run(place / "example/messages", trace).splitlines()
    if got != expected:
        sys.exit(f"the example counts {got}, not {expected}")
    if str(source.resolve()) in (prefix / "lib/cmake/klt/klt-targets.cmake").read_text():
        sys.exit("the package refers to its sources")


def check_packages(build, place):
    run("cpack", "--config", build / "CPackConfig.cmake", "-B", place)
    (archive,) = place.glob("*.tar.gz")
    with tarfile.open(archive) as tar:
        names = {name.split("/", 1)[1] for name in tar.getnames() if "/" in name}
    missing = [name for name in INSTALLED if name not in names and "usr/" + name not in names]
    if missing:
        sys.exit(f"not in {archive.name}: {missing}")
    (package,) = place.glob("*.deb")
    depends = run("dpkg-deb", "--field", package, "Depends")
    if "zlib1g" not in depends or len(depends.split(",")) > 4:
        sys.exit(f"the package depends on {depends}")


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", type=pathlib.Path, required=True)
    parser.add_argument("--source", type=pathlib.Path, required=True)
    arguments = parser.parse_args()
    os.environ.pop("DESTDIR", None)
    with tempfile.TemporaryDirectory() as directory:
        place = pathlib.Path(directory)
        check_install(arguments.build.resolve(), arguments.source, place)
        check_packages(arguments.build.resolve(), place)


if __name__ == "__main__":
    main()
