#!/usr/bin/env python3
"""Types into a real shell and checks what its completion of klttool makes of it.

usage: complete.py SHELL SCRIPT TRACE
    SHELL   bash, zsh or fish
    SCRIPT  the completion script
    TRACE   any file; a copy is what file names are completed to

bash and zsh run on a terminal of their own: each case types a line with tabs in it, and klttool is
a function there that shows its arguments. fish can tell its completions without a terminal.
"""

import os
import pathlib
import pty
import re
import select
import shutil
import subprocess
import sys
import tempfile
import time

# What is typed behind "klttool ", a tab for completion, and the arguments that result.
TYPED = [
    ("ru\t--du\t", ["run.klt", "--dump"]),
    ("--vers\t", ["--version"]),
    ("run.klt --print-thr\t", ["run.klt", "--print-threads"]),
    ("run.klt --PRINT-FI\t", ["run.klt", "--print-files"]),
    ("run.klt --logfile-format sing\t--ticks",
     ["run.klt", "--logfile-format", "SINGLEKLT", "--ticks"]),
    ("run.klt --request 1s:2s FUN\tmess\t--dump",
     ["run.klt", "--request", "1s:2s", "FUNCTIONS", "MESSAGES", "--dump"]),
    ("run.klt --request 0:3,COLL\t", ["run.klt", "--request", "0:3,COLLOPS"]),
    ("run.klt --convert my\\ o\t--ticks", ["run.klt", "--convert", "my out.klt", "--ticks"]),
    ("run.klt --extended-rkf of\t", ["run.klt", "--extended-rkf", "off"]),
    # Nothing fits: what was typed stays.
    ("run.klt --dump x\t", ["run.klt", "--dump", "x"]),
]

# A line up to the word that is completed, words that have to be offered, and words that may not.
OFFERED = [
    ("klttool ", ["run.klt"], ["--dump", "FUNCTIONS"]),
    ("klttool -", ["--help", "--version"], ["--dump"]),
    ("klttool run.klt --", ["--dump", "--request", "--logfile-format"],
     ["--help", "--symbol-hashsize"]),
    ("klttool run.klt --request ", ["FUNCTIONS", "SCOPES", "COLLOPS"],
     ["run.klt", "internal", "on"]),
    ("klttool run.klt --request 1s:2s FUNCTIONS ", ["MESSAGES"], ["run.klt"]),
    ("klttool run.klt --logfile-format ", ["ASCII", "KLT", "SINGLEKLT"], ["run.klt", "FUNCTIONS"]),
    ("klttool run.klt --convert ", ["run.klt", "on", "off"], ["FUNCTIONS"]),
    ("klttool run.klt --logfile-name ", ["run.klt"], ["on", "off"]),
    ("klttool run.klt --dump ", ["on", "off"], ["run.klt"]),
]

READY = "r-e-a-d-y>"
SHOW = "klttool() { printf '<%s>' \"$@\"; echo; }\n"


class Shell:
    """An interactive shell on a terminal."""

    def __init__(self, command, directory, environment):
        self.process, self.terminal = pty.fork()
        if self.process == 0:
            os.chdir(directory)
            os.execvpe(command[0], command, environment)
        self.text = ""

    def read(self, wanted, seconds=30.0):
        """The text up to and including what matches `wanted`."""
        end = time.monotonic() + seconds
        while True:
            match = re.search(wanted, self.text)
            if match:
                taken, self.text = self.text[: match.end()], self.text[match.end() :]
                return taken
            ready = select.select([self.terminal], [], [], max(0.0, end - time.monotonic()))[0]
            if not ready:
                raise TimeoutError(f"waited for {wanted!r}, have {self.text!r}")
            self.text += os.read(self.terminal, 65536).decode(errors="replace")

    def type(self, text):
        os.write(self.terminal, text.encode())

    def close(self):
        os.close(self.terminal)
        os.waitpid(self.process, 0)


def start(shell, script, directory):
    environment = {"PATH": os.environ["PATH"], "HOME": directory, "TERM": "dumb", "LC_ALL": "C"}
    setup = pathlib.Path(directory, "home", "setup")
    setup.parent.mkdir()
    if shell == "bash":
        setup.write_text(f"PS1='{READY}'\nbind 'set bell-style none'\n"
                         f"bind 'set enable-bracketed-paste off'\n{SHOW}. '{script}'\n")
        command = ["bash", "--noprofile", "--rcfile", str(setup), "-i"]
    else:
        functions = setup.parent / "functions"
        functions.mkdir()
        shutil.copy(script, functions / "_klttool")
        setup.with_name(".zshrc").write_text(
            f"fpath=('{functions}' $fpath)\nautoload -Uz compinit\ncompinit -u -D\n{SHOW}"
            f"unsetopt zle_bracketed_paste prompt_sp prompt_cr beep\nPS1='{READY}'\n")
        environment["ZDOTDIR"] = str(setup.parent)
        command = ["zsh", "-i", "-d"]
    session = Shell(command, directory, environment)
    session.read(re.escape(READY))
    return session


def check_typed(shell, script, directory):
    failed = 0
    session = start(shell, script, directory)
    for typed, arguments in TYPED:
        for part in re.split("(\t)", "klttool " + typed):
            session.type(part)
            time.sleep(0.05)
        session.type("\n")
        shown = session.read(r"\n<[^\r\n]*>\r?\n")
        session.read(re.escape(READY))
        result = re.findall(r"<([^>]*)>", shown.strip().splitlines()[-1])
        if result != arguments:
            failed += 1
            print(f"{typed!r}\n  gives    {result}\n  expected {arguments}")
    session.close()
    return failed, len(TYPED)


def offers(shell, script, directory, line):
    """The words that the shell offers for the last word of a line."""
    if shell == "fish":
        command = ["fish", "--no-config", "-c", f"source '{script}'; complete -C '{line}'"]
    else:
        words = line.split(" ")
        command = ["bash", "--norc", "-c",
                   f". '{script}'; COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); _klttool;"
                   " printf '%s\\n' \"${COMPREPLY[@]}\"", "complete", *words]
    shown = subprocess.run(command, cwd=directory, check=True, stdout=subprocess.PIPE, text=True,
                           env={**os.environ, "HOME": directory, "LC_ALL": "C"}).stdout
    return [row.split("\t")[0] for row in shown.splitlines()]


def check_offered(shell, script, directory):
    failed = 0
    for line, wanted, unwanted in OFFERED:
        words = offers(shell, script, directory, line)
        missing = [word for word in wanted if word not in words]
        wrong = [word for word in unwanted if word in words]
        if missing or wrong:
            failed += 1
            print(f"{line!r}\n  lacks {missing}, has {wrong} too, of {words}")
    return failed, len(OFFERED)


def main():
    shell, script, trace = sys.argv[1:]
    checks = {"bash": (check_offered, check_typed), "zsh": (check_typed,), "fish": (check_offered,)}
    with tempfile.TemporaryDirectory() as directory:
        for name in ("run.klt", "my out.klt"):
            shutil.copy(trace, pathlib.Path(directory, name))
        results = [check(shell, os.path.abspath(script), directory) for check in checks[shell]]
    failed = sum(result[0] for result in results)
    print(f"{sum(result[1] for result in results)} lines completed in {shell}, {failed} wrong")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
