#!/usr/bin/env python3
"""Holds a program's manual page against its --help: the same subcommands, the same options of each.

An option counts as told of a subcommand in its part of the synopsis, in its entry, or outside of
all entries, where the options stand that several have. What its part of the synopsis shows it has.

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
    """Each command, by the path of its words, with its options."""
    text = help_of(words)
    options = set()
    for names in re.findall(r"^  (-\S+)", text, flags=re.M):
        options.update(names.split(","))
    told = {words: options - {"-h", "--help"}}
    listed = re.search(r"^Subcommands:\n((?:  .*\n)*)", text, flags=re.M)
    for name in re.findall(r"^  ([a-z][\w-]*)", listed[1], flags=re.M) if listed else ():
        told |= told_by_help((*words, name))
    return told


def told_by_page(lines):
    """Options by command in the synopsis and in the entries; () stands for all that is no command's."""
    synopsis, entries = {(): set()}, {(): set()}
    section, depth, commands = "", 0, [()]
    for line in filter(lambda line: line.startswith("."), lines):
        if line.startswith(".Sh"):
            section, commands = line, [()]
        if line.startswith(".Bl"):
            depth += 1
        if line.startswith(".El"):
            depth -= 1
            if depth == 0:
                commands = [()]
        if section == ".Sh SYNOPSIS":
            if line == ".Nm":
                commands = [()]
            elif line.startswith(".Cm"):
                commands = [(name,) for name in line[4:].split(" | ")]
        elif line.startswith(".It") and depth == 1:
            # A subcommand has an entry of its own; "It Cm consent Cm show" is one of a subcommand.
            entry = re.match(r"\.It((?: Cm [a-z][\w-]*)+)", line)
            words = entry[1].replace(" Cm ", " ").split() if entry else []
            commands = [tuple(words)]
            for n in range(1, len(words)):
                entries.setdefault(tuple(words[:n]), set())
        # In mdoc "Fl -since" is the option --since, and "Fl o" is -o.
        found = {"-" + name for name in re.findall(r"\bFl (-?[A-Za-z][\w-]*)", line)}
        for command in commands:
            told = synopsis if section == ".Sh SYNOPSIS" else entries
            told.setdefault(command, set()).update(found - {"-h", "--help"})
    return synopsis, entries


told = told_by_help()
with open(page, encoding="utf-8") as file:
    synopsis, entries = told_by_page(file.read().splitlines())
mistakes = []
for words, options in told.items():
    name = " ".join((program.rsplit("/", 1)[-1], *words))
    if words not in entries:
        mistakes.append(f"{page}: no entry for {name}")
    if words[:1] not in synopsis:
        mistakes.append(f"{page}: no {name} in the synopsis")
    known = synopsis[()] | entries[()]
    for n in range(1, len(words) + 1):
        known |= synopsis.get(words[:n], set()) | entries.get(words[:n], set())
    mistakes += [f"{page}: nothing about {option} of {name}" for option in sorted(options - known)]
every_option = set().union(*told.values())
for words, options in synopsis.items():
    mistakes += [f"{page}: {option} is no option of {' '.join(words) or 'the program'}"
                 for option in sorted(options - told.get(words, set()))]
for options in entries.values():
    mistakes += [f"{page}: {option} is no option" for option in sorted(options - every_option)]
if not every_option:
    mistakes.append(f"{program}: no option found in its --help")
if mistakes:
    sys.exit("\n".join(mistakes))
