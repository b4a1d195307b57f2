#!/usr/bin/env python3
"""Holds a program's manual page against its --help: the same subcommands, the same options.

    manual_test.py PROGRAM PAGE
"""

import re
import subprocess
import sys

program, page = sys.argv[1:]


def help_of(words):
    return subprocess.run([program, *words, "--help"], check=True, capture_output=True,
                          text=True).stdout


def told_by_help(words=()):
    """The options of a command and of its subcommands, and the paths of the subcommands."""
    text = help_of(words)
    options = set()
    for names in re.findall(r"^  (-\S+)", text, flags=re.M):
        options.update(names.split(","))
    commands = set()
    listed = re.search(r"^Subcommands:\n((?:  .*\n)*)", text, flags=re.M)
    for name in re.findall(r"^  ([a-z][\w-]*)", listed[1], flags=re.M) if listed else ():
        commands.add(" ".join([*words, name]))
        below = told_by_help((*words, name))
        options |= below[0]
        commands |= below[1]
    return options, commands


with open(page, encoding="utf-8") as file:
    lines = file.read().splitlines()
# In mdoc "Fl -since" is the option --since, and "Fl o" is -o.
options_of_page = {"-" + name
                   for line in lines if line.startswith(".")
                   for name in re.findall(r"\bFl (-?[A-Za-z][\w-]*)", line)}
# A subcommand has an entry of its own; "It Cm consent Cm show" is one of a subcommand.
commands_of_page = set()
for line in lines:
    entry = re.match(r"\.It((?: Cm [a-z][\w-]*)+)", line)
    if entry:
        words = entry[1].replace(" Cm ", " ").split()
        commands_of_page.update(" ".join(words[:n]) for n in range(1, len(words) + 1))

options, commands = told_by_help()
options -= {"-h", "--help"}
options_of_page -= {"-h", "--help"}
mistakes = [f"{page}: nothing about {name}" for name in sorted(options - options_of_page)]
mistakes += [f"{page}: {name} is no option" for name in sorted(options_of_page - options)]
mistakes += [f"{page}: no entry for {name}" for name in sorted(commands - commands_of_page)]
if not options:
    mistakes.append(f"{program}: no option found in its --help")
if mistakes:
    sys.exit("\n".join(mistakes))
