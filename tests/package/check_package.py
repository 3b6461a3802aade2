#!/usr/bin/env python3
"""Installs a build into an empty directory, whose path has a blank, and tests the installed program, a
program that is built with the installed library, and the packages.

usage: check_package.py BUILD SOURCE
"""

import os
import pathlib
import re
import subprocess
import sys
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


def check_install(build, source, place):
    prefix = place / "a prefix"
    run("cmake", "--install", build, "--prefix", prefix)
    trace = prefix / "share/doc/klttool/examples/hpcc.klt"
    lines = re.findall("^.* ONETOONE .*$", run(prefix / "bin/klttool", trace, "--dump", "--matched-rkf"),
                       re.M)

    # Builds the installed example in a separate directory.
    example = prefix / "share/doc/klttool/examples/reader"
    run("cmake", "-S", example, "-B", place / "example", f"-DCMAKE_PREFIX_PATH={prefix}")
    run("cmake", "--build", place / "example")
    counts = re.findall(r"^\d+:\d+ -> \d+:\d+  (\d+) messages, \d+ bytes$",
                        run(place / "example/messages", trace), re.M)
    if len(counts) != 12 or sum(map(int, counts)) != len(lines):
        sys.exit(f"the example counts {counts}, there are {len(lines)} messages of 12 pairs")
    if str(source) in (prefix / "lib/cmake/klt/klt-targets.cmake").read_text():
        sys.exit("the package refers to its sources")


def check_packages(build, place):
    run("cpack", "--config", build / "CPackConfig.cmake", "-B", place)
    (package,) = place.glob("*.deb")
    names = run("dpkg-deb", "--contents", package).split()
    missing = [name for name in INSTALLED if f"./usr/{name}" not in names]
    depends = run("dpkg-deb", "--field", package, "Depends")
    if missing or "zlib1g" not in depends or len(depends.split(",")) > 4:
        sys.exit(f"the package depends on {depends}, not in it: {missing}")


if __name__ == "__main__":
    os.environ.pop("DESTDIR", None)
    with tempfile.TemporaryDirectory() as directory:
        check_install(*(pathlib.Path(path).resolve() for path in (*sys.argv[1:], directory)))
        check_packages(pathlib.Path(sys.argv[1]).resolve(), pathlib.Path(directory))
