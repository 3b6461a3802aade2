#!/usr/bin/env python3
"""Runs the commands of the README's examples, one after another in a copy of what they use, and
looks for the output that is shown, in its order; "..." stands for lines that aren't.

  check_readme.py SOURCE PROGRAM
"""

import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile


def examples(readme):
    """Commands with the lines shown below them."""
    for block in re.findall(r"```console\n(.*?)```", readme, re.S):
        for part in re.split(r"^\$ ", block, flags=re.M)[1:]:
            command, *shown = part.splitlines()
            yield command, shown


def difference(shown, output):
    """The first shown line that isn't where it should be, or None."""
    at, gap = 0, False
    for line in shown:
        if line == "...":
            gap = True
            continue
        place = at
        while gap and place < len(output) and output[place] != line:
            place += 1
        if place >= len(output) or output[place] != line:
            return line
        at, gap = place + 1, False
    return None if gap or at == len(output) else "the end"


def main():
    source, program = map(pathlib.Path, sys.argv[1:])
    with tempfile.TemporaryDirectory() as directory:
        place = pathlib.Path(directory)
        (place / "bin").mkdir()
        (place / "bin/klttool").symlink_to(program.resolve())
        for part in ("examples", "tests/data/raw_ring"):
            shutil.copytree(source / part, place / part)
        environment = {"PATH": f"{place / 'bin'}:{os.environ['PATH']}", "LC_ALL": "C"}
        ran = 0
        for command, shown in examples((source / "README.md").read_text()):
            done = subprocess.run(["sh", "-c", command], cwd=place, env=environment,
                                  stdin=subprocess.DEVNULL, capture_output=True, text=True,
                                  check=False)
            wrong = difference(shown, re.split(r"[\r\n]+", done.stdout.strip()) if done.stdout else [])
            if done.returncode != 0 or wrong is not None:
                sys.exit(f"$ {command}\nstatus {done.returncode}, not as shown: {wrong}\n"
                         f"{done.stdout[-1500:]}\n{done.stderr}")
            ran += 1
        if ran < 5:
            sys.exit(f"only {ran} examples")


if __name__ == "__main__":
    main()
