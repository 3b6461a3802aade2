#!/usr/bin/env python3
"""Checks that includes between rooms have one direction, and that files form no circles.

usage: check_includes.py SOURCE_ROOT [OBJECT_DIRECTORY]

A room is a folder with at most MOST_FILES sources. It includes only rooms before it in ROOMS.
Headers must not include each other in circles. With the directory of a build, .cpp files must not
call each other in circles either, as the undefined symbols of their objects show.
"""

import collections
import graphlib
import pathlib
import re
import subprocess
import sys

# From the lowest room to the highest. Rooms in one set of APART don't include each other.
ROOMS = ("util", "util/triplets", "klt/format", "klt/storage", "klt/index", "klt/stream", "klt/read",
         "klt", "klt/write", "klt/public", "generic/options", "generic/text", "generic/tables",
         "generic/sink", "generic/handlers", "generic/extract", "generic/summary", "generic/merge",
         "generic", "record/runtime", "record/mpi", "record/convert", "record/finish",
         "record",
         "analyze/core", "analyze/sums", "analyze/pass", "analyze/tables",
         "analyze/timeline", "analyze")
# Programs beside klttool include nothing of it but the installed headers.
PROGRAMS = ("analyze", "record")
INSTALLED = {"klt/klt.h", "klt/klt_messages.h", "klt/klt_writer.h", "klt/format/klt_handlers.h",
             "klt/format/klt_schema.h", "klt/read/klt_request.h", "util/triplets/pal_triplets.h"}
APART = ({"klt/read", "klt/write"}, {"klt/stream", "klt/write"},
         {"generic/options", "generic/text", "generic/tables"})
# The reader includes the public header, whose functions it implements. klt_record.h is installed
# beside the files that include it.
ALLOWED = {("klt/read", "klt/klt.h"), ("record/runtime", "record/klt_record.h"),
           ("record", "klt_record.h")}
MOST_FILES = 16
INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"', re.M)
GENERATED = ("klt_version.h", "kla_page_files.h", "klt_record_config.h", "record/mpi/klt_calls.h")


def problem_of_include(root, room, target):
    if target in GENERATED or (room, target) in ALLOWED:
        return None
    other = str(pathlib.PurePath(target).parent)
    if other not in ROOMS or not (root / target).exists():
        return f"write includes from the root, not \"{target}\""
    program = room.split("/")[0]
    if program in PROGRAMS and not other.startswith(program) and target not in INSTALLED:
        return f"{target} isn't an installed header"
    together = {room, other}
    if ROOMS.index(other) > ROOMS.index(room) or any(
            together <= apart for apart in APART if room != other):
        return f"{room} must not include {target}"
    return None


def defined_and_used(root, objects):
    """For each .cpp file the symbols that it defines, and the symbols that it uses."""
    defined, used = {}, {}
    for path in sorted(objects.rglob("*.cpp.o")):
        match = re.search(r"\.dir/((?:util|klt|generic|analyze)/.*\.cpp)\.o$", str(path))
        if not match or not (root / match[1]).exists():
            continue
        symbols = subprocess.run(["nm", "--format=posix", path], capture_output=True, text=True,
                                 check=True).stdout
        pairs = [line.split()[:2] for line in symbols.splitlines()]
        defined[match[1]] = {name for name, kind in pairs if kind in "TDBR"}
        used[match[1]] = {name for name, kind in pairs if kind == "U"}
    # Every file uses operator new and delete, which util/pal_mem replaces.
    for names in defined.values():
        names -= {name for name in names if re.match(r"_Z(n|d)[wal]", name)}
    return defined, used


def main():
    root = pathlib.Path(sys.argv[1])
    found, arrows = [], collections.defaultdict(set)
    for room in ROOMS:
        sources = sorted(path for path in (root / room).iterdir()
                         if path.suffix in (".h", ".c", ".cpp", ".inc"))
        if len(sources) > MOST_FILES:
            found.append(f"{room}: {len(sources)} sources, at most {MOST_FILES} are allowed")
        for path in sources:
            text, name = path.read_text(encoding="utf-8"), path.relative_to(root)
            for target in INCLUDE.findall(text):
                if problem := problem_of_include(root, room, target):
                    found.append(f"{name}: {problem}")
                else:
                    arrows[str(name)].add(target)
    if len(sys.argv) > 2:
        defined, used = defined_and_used(root, pathlib.Path(sys.argv[2]))
        home = {symbol: file for file, symbols in defined.items() for symbol in symbols}
        for file, symbols in used.items():
            arrows[file] |= {home[symbol] for symbol in symbols & home.keys()} - {file}
    try:
        graphlib.TopologicalSorter(arrows).prepare()
    except graphlib.CycleError as error:
        found.append("circle: " + " <- ".join(error.args[1]))
    print("\n".join(found) if found else f"{len(arrows)} files, no circles")
    return 1 if found or not arrows else 0


if __name__ == "__main__":
    sys.exit(main())
