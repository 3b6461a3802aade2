#!/usr/bin/env python3
"""Installs a build into an empty directory, whose path has a blank, and tests the installed program, a
program that is built with the installed library, and the packages.

usage: check_package.py BUILD SOURCE
"""

import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

PROGRAMS = ("klttool", "klt-sum-report", "klt-trace-json", "klt-parallel-windows")
INSTALLED = (*(f"bin/{name}" for name in PROGRAMS), "share/doc/klttool/README.md",
             *(f"share/man/man1/{name}.1.gz" for name in PROGRAMS), "share/klttool/magic",
             "share/bash-completion/completions/klttool", "share/zsh/site-functions/_klttool",
             "share/fish/vendor_completions.d/klttool.fish", "include/klttool/klt/klt.h")

ANALYSIS = ("bin/klt-analyze", "bin/klt-timeline", "share/bash-completion/completions/klt-timeline",
            "share/zsh/site-functions/_klt-analyze",
            "share/fish/vendor_completions.d/klt-analyze.fish")
RECORDER = ("bin/klt-record", "share/man/man1/klt-record.1.gz", "include/klt_record.h",
            "share/bash-completion/completions/klt-record", "share/klt-record/klt_record.f90",
            "lib/klt-record/libklt-record-none.so")


def run(*command, **options):
    done = subprocess.run([str(part) for part in command], capture_output=True, text=True,
                          check=False, **{"input": "", **options})
    if done.returncode != 0:
        sys.exit(f"{command}: status {done.returncode}\n{done.stdout}\n{done.stderr}")
    return done.stdout


def check_install(build, source, place):
    prefix = place / "a prefix"
    run("cmake", "--install", build, "--prefix", prefix)
    trace = prefix / "share/doc/klttool/examples/hpcc.klt"
    lines = re.findall("^.* ONETOONE .*$", run(prefix / "bin/klttool", trace, "--dump", "--matched-rkf"),
                       re.M)

    # The other programs find klttool and their modules, and file(1) knows both forms of a trace.
    text = run(prefix / "bin/klttool", trace, "--dump")
    for command, options in (("klt-sum-report", (trace, "-o", place / "run.html")),
                             ("klt-trace-json", ("-o", place / "run.json.gz")),
                             ("klt-parallel-windows", ("--program", prefix / "bin/klttool", trace))):
        run(sys.executable, prefix / "bin" / command, *options, input=text)
    if "MPI_Send" not in (place / "run.html").read_text():
        sys.exit("the page lacks names")
    index = place / "index.klt"
    run(prefix / "bin/klttool", trace, "--convert", index, "--logfile-format", "KLT")
    kinds = run("file", "-bm", prefix / "share/klttool/magic", trace, index).splitlines()
    if kinds != ["KLT trace, single file (version 1)", "KLT trace, index"]:
        sys.exit(f"file(1) says {kinds}")

    # Builds the installed example in a separate directory.
    example = prefix / "share/doc/klttool/examples/reader"
    run("cmake", "-S", example, "-B", place / "example", f"-DCMAKE_PREFIX_PATH={prefix}")
    run("cmake", "--build", place / "example")
    counts = re.findall(r"^\d+:\d+ -> \d+:\d+  (\d+) messages, \d+ bytes$",
                        run(place / "example/messages", trace), re.M)
    if len(counts) != 12 or sum(map(int, counts)) != len(lines):
        sys.exit(f"the example counts {counts}, there are {len(lines)} messages of 12 pairs")
    # The trace that the other example writes is read by both programs.
    writer = prefix / "share/doc/klttool/examples/writer"
    run("cmake", "-S", writer, "-B", place / "writer", f"-DCMAKE_PREFIX_PATH={prefix}")
    run("cmake", "--build", place / "writer")
    run(place / "writer/ring", place / "ring.klt")
    if run(place / "example/messages", place / "ring.klt").count(" 1 messages, 4096 bytes") != 3:
        sys.exit("the written trace doesn't contain three messages")
    events = run(prefix / "bin/klttool", place / "ring.klt", "--dump")
    counts = [len(re.findall(f" {word} ", events)) for word in ("EXCHEXT", "GLOBALOP", "SENDMSG")]
    if counts != [28, 4, 3] or "DURATION 0 60000\n" not in events:
        sys.exit(f"the written trace has the events {counts}")
    if str(source) in (prefix / "lib/cmake/klt/klt-targets.cmake").read_text():
        sys.exit("the package refers to its sources")


def check_packages(build, place):
    config = ("cpack", "--config", build / "CPackConfig.cmake", "-B", place)
    run(*config)
    for name, files in (("klt-analyze", ANALYSIS), ("klt-record", RECORDER)):
        (package,) = place.glob(f"{name}_*.deb")
        names = run("dpkg-deb", "--contents", package).split()
        missing = [file for file in files if f"./usr/{file}" not in names]
        depends = run("dpkg-deb", "--field", package, "Depends")
        if missing or "klttool (=" not in depends or "mpi" in depends:
            sys.exit(f"{name} depends on {depends}, not in it: {missing}")
    (package,) = place.glob("klttool_*.deb")
    names = run("dpkg-deb", "--contents", package).split()
    missing = [name for name in INSTALLED if f"./usr/{name}" not in names]
    depends = run("dpkg-deb", "--field", package, "Depends")
    if (missing or "zlib1g" not in depends or "python3" not in depends
            or len(depends.split(",")) > 5):
        sys.exit(f"the package depends on {depends}, not in it: {missing}")
    # Without dpkg-shlibdeps there is no package rather than one without dependencies.
    tools = place / "tools"
    tools.mkdir()
    for name in ("cpack", "cmake"):
        (tools / name).symlink_to(shutil.which(name))
    for built in place.glob("*.deb"):
        built.unlink()
    subprocess.run([str(part) for part in (*config, "-G", "DEB")], env={"PATH": str(tools)},
                   capture_output=True, check=False)
    if list(place.glob("*.deb")):
        sys.exit("a package was built without dpkg-shlibdeps")


if __name__ == "__main__":
    os.environ.pop("DESTDIR", None)
    with tempfile.TemporaryDirectory() as directory:
        check_install(*(pathlib.Path(path).resolve() for path in (*sys.argv[1:], directory)))
        check_packages(pathlib.Path(sys.argv[1]).resolve(), pathlib.Path(directory))
