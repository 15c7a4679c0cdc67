#!/usr/bin/env python3
"""Writes the manual page of lumora or lumora-sim from the tool's own help.

The help texts are the one source: `lumora --help` and `lumora COMMAND --help`
for every command it lists (each ends with an example), or `lumora-sim
--help`, `lumora-sim ctl --help` (every ctl command with an example) and
`lumora-sim run --help`. The
build runs this on the tools it has just built, so a page never says other
than the tool.

    make-manpage.py [--emulator COMMAND] TOOL VERSION SUMMARY OUTPUT

A cross build's tools run under the emulator COMMAND (its words separated by
spaces, as CMake's CMAKE_CROSSCOMPILING_EMULATOR).
"""
import os
import re
import subprocess
import sys


EMULATOR = []


def run(tool, *args):
    done = subprocess.run([*EMULATOR, tool, *args], capture_output=True, text=True, check=True,
                          env={**os.environ, "LUMORA_LOG_LEVEL": "none"})
    return done.stdout


def escape(line):
    """A line of text as roff reads it: backslashes doubled, a leading dot or
    quote kept as text, and hyphens of options as minus signs."""
    line = line.replace("\\", "\\e")
    line = re.sub(r"(?<![\w])-", r"\\-", line)
    if line.startswith((".", "'")):
        line = "\\&" + line
    return line


def verbatim(text):
    """Lines kept as the help lays them out (columns, examples)."""
    lines = [".nf"]
    for line in text.rstrip("\n").split("\n"):
        lines.append(escape(line) if line.strip() else ".sp")
    lines.append(".fi")
    return lines


def header(name, version, summary):
    return [
        f'.TH {name.upper()} 1 "" "{name} {version}" "User Commands"',
        ".SH NAME",
        f"{escape(name)} \\- {escape(summary)}",
    ]


def lumora_page(tool, name, version, summary):
    usage = run(tool, "--help")
    head, _, rest = usage.partition("\ncommands:\n")
    commands_text, _, options = rest.partition("\noptions:\n")
    synopsis, _, description = head.partition("\n\n")
    lines = header(name, version, summary)
    lines += [".SH SYNOPSIS"] + verbatim(synopsis.replace("usage: ", "", 1))
    lines += [".SH DESCRIPTION"] + [escape(line) for line in description.strip().split("\n")]
    lines += [".SH COMMANDS"]
    for entry in commands_text.strip("\n").split("\n"):
        command = entry.split()[0]
        own = run(tool, command, "--help")
        own_usage, _, body = own.partition("\n\n")
        lines += [".TP", ".B " + escape(own_usage.replace("usage: ", "", 1))]
        lines += verbatim(body)
    lines += [".SH OPTIONS"] + verbatim(options)
    lines += [
        ".SH ENVIRONMENT",
        ".TP",
        ".B DBUS_SYSTEM_BUS_ADDRESS",
        "The bus to use instead of the system bus.",
        ".TP",
        ".B LUMORA_LOG_FILE, LUMORA_LOG_LEVEL",
        "Where the library's log goes and how much of it, with \\fB\\-v\\fR.",
        ".SH EXIT STATUS",
        "0 on success, 1 with a one\\-line reason on failure, 2 with the usage on a usage error;",
        "\\fBstatus\\fR has statuses of its own (see above).",
        ".SH SEE ALSO",
        ".BR lumora\\-sim (1)",
    ]
    return lines


def sim_page(tool, name, version, summary):
    usage = run(tool, "--help")
    synopsis, _, description = usage.partition("\n\n")
    ctl = run(tool, "ctl", "--help")
    run_help = run(tool, "run", "--help")
    lines = header(name, version, summary)
    lines += [".SH SYNOPSIS"] + verbatim(synopsis.replace("Usage: ", "", 1))
    lines += [".SH DESCRIPTION"] + verbatim(description)
    lines += [".SH CTL COMMANDS"] + verbatim(ctl)
    lines += [".SH RUN"] + verbatim(run_help.replace("Usage: ", "", 1))
    lines += [".SH SEE ALSO", ".BR lumora (1)"]
    return lines


def main():
    args = sys.argv[1:]
    if args[:1] == ["--emulator"] and len(args) > 1:
        EMULATOR.extend(args[1].split())
        args = args[2:]
    if len(args) != 4:
        sys.exit(__doc__)
    tool, version, summary, output = args
    name = os.path.basename(tool)
    page = sim_page if name == "lumora-sim" else lumora_page
    lines = page(tool, name, version, summary)
    with open(output, "w", encoding="utf-8") as out:
        out.write("\n".join(lines) + "\n")


if __name__ == "__main__":
    main()
