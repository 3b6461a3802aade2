#!/usr/bin/env python3
"""Types lines into a shell on a pseudo-terminal and checks how it completes them. In this shell
klttool is a function that prints its arguments.

usage: complete.py SHELL SCRIPT
    SHELL   bash, zsh or fish
    SCRIPT  the completion script
"""

import os
import pathlib
import pty
import re
import shutil
import sys
import tempfile

FILES = ("job.klt", "job.klt.dcl", "my out.klt", "text.ark")

# Text that is typed after "klttool ", with tabs for completion, and the resulting arguments. A word
# without a completion stays unchanged.
TYPED = (
    ("jo\t--du\t--PRINT-FI\t--logfile-format sing\t--request 1s:2s FUN\tmess\t--ticks",
     ["job.klt", "--dump", "--print-files", "--logfile-format", "SINGLEKLT", "--request", "1s:2s",
      "FUNCTIONS", "MESSAGES", "--ticks"]),
    ("jo\t--convert my\\ o\t--extended-rkf of\t",
     ["job.klt", "--convert", "my out.klt", "--extended-rkf", "off"]),
    ("te\t--du\t", ["text.ark", "--dump"]),
    *((line + "\t", line.split()) for line in (
        "--du", "job.klt --dump jo", "job.klt --request inter", "job.klt --logfile-name of")))

READY = "r-e-a-d-y>"
SHOW = "klttool() { printf '<%s>' \"$@\"; echo; }\n"


def start(shell, script, directory):
    """The terminal of an interactive shell."""
    home = pathlib.Path(directory, "home")
    (home / "functions").mkdir(parents=True)
    shutil.copy(script, home / "functions" / "_klttool")
    (home / "setup").write_text(f"PS1='{READY}'\nbind 'set bell-style none'\n"
                                f"bind 'set enable-bracketed-paste off'\n{SHOW}. '{script}'\n")
    (home / ".zshrc").write_text(
        f"fpath=('{home}/functions' $fpath)\nautoload -Uz compinit\ncompinit -u -D\n{SHOW}"
        f"unsetopt zle_bracketed_paste prompt_sp prompt_cr beep\nPS1='{READY}'\n")
    command = {"bash": ["bash", "--noprofile", "--rcfile", str(home / "setup"), "-i"],
               "zsh": ["zsh", "-i", "-d"],
               "fish": ["fish", "--no-config", "-i", "-C",
                        f"function fish_prompt; echo -n '{READY}'; end; function klttool; "
                        f"printf '<%s>' $argv; echo; end; source '{script}'"]}[shell]
    environment = {"PATH": os.environ["PATH"], "HOME": str(home), "ZDOTDIR": str(home),
                   "TERM": "dumb", "LC_ALL": "C"}
    process, terminal = pty.fork()
    if process == 0:
        os.chdir(directory)
        os.execvpe(command[0], command, environment)
    return terminal


def main():
    shell, script = sys.argv[1:]
    failed, text = 0, ""
    with tempfile.TemporaryDirectory() as directory:
        for name in FILES:
            pathlib.Path(directory, name).touch()
        terminal = start(shell, os.path.abspath(script), directory)
        for line, arguments in TYPED:
            for sent, wanted in (("", READY), (f"klttool {line}\n", r"\n<([^\r\n]*)>\r?\n")):
                os.write(terminal, sent.encode())
                while not (match := re.search(wanted, text)):  # CTest limits the time
                    text += os.read(terminal, 65536).decode(errors="replace")
                text = text[match.end():]
            if match[1].split("><") != arguments:
                failed += 1
                print(f"{line!r} gives {match[1]}, not {arguments}")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
