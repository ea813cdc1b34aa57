#!/usr/bin/env python3
"""Writes the manual page tavo(1) from the tool's own --help texts, so that the two never differ.

Usage: make_manpage.py TAVO VERSION EXAMPLES OUTPUT.1.gz

The description, the exit statuses, every option and every subcommand come from `tavo --help`
and `tavo SUBCOMMAND --help`; the examples from EXAMPLES (a line of text, then its commands).
"""
import gzip
import re
import subprocess
import sys

tavo, version, examples_path, output = sys.argv[1:5]


def help_text(*words):
    return subprocess.run([tavo, *words, "--help"], check=True, capture_output=True,
                          text=True).stdout


def roff(text):
    text = text.replace("\\", "\\e").replace("-", "\\-")
    return re.sub(r"^([.'])", r"\\&\1", text, flags=re.M)


def sections(text):
    """The help's lead text, and its sections (a heading line ending in ':' and indented items)."""
    lead, parts, current = [], {}, None
    for line in text.splitlines():
        heading = re.fullmatch(r"([A-Z][A-Za-z ]*):", line.strip())
        if heading and not line.startswith(" "):
            current = parts.setdefault(heading.group(1), [])
        elif current is None:
            lead.append(line)
        elif line.strip():
            current.append(line)
    return "\n".join(lead).strip(), parts


def items(lines):
    """(term, description) pairs of a section: an item starts at two spaces of indentation."""
    pairs = []
    for line in lines:
        m = re.match(r"^  (\S.*?)(?:\s{2,}(.*))?$", line)
        if m and not line.startswith("   "):
            pairs.append([m.group(1), m.group(2) or ""])
        elif pairs:
            pairs[-1][1] = (pairs[-1][1] + " " + line.strip()).strip()
    return pairs


def option_list(lines, out):
    for term, text in items(lines):
        if term.startswith("-h,--help"):
            continue
        flag, _, value = term.partition(" ")
        out.append(".TP")
        out.append(f"\\fB{roff(flag)}\\fR" + (f" \\fI{roff(value)}\\fR" if value else ""))
        out.append(roff(text))


lead, parts = sections(help_text())
first, _, rest = lead.partition("\n")
summary = first.removeprefix("tavo: ").rstrip(".")
status = " ".join(l.strip() for l in rest.splitlines() if l.strip() and not l.startswith("Usage"))
out = [
    f'.TH TAVO 1 "" "libtavo {version}" "User Commands"',
    ".SH NAME",
    f"tavo \\- {roff(summary)}",
    ".SH SYNOPSIS",
    ".B tavo",
    "[\\fIOPTIONS\\fR] \\fISUBCOMMAND\\fR [\\fISUBCOMMAND OPTIONS\\fR]",
    ".SH DESCRIPTION",
    f"{roff(summary[:1].upper() + summary[1:])}: \\fBtavo\\fR is a host of libtavo with one "
    "subcommand per runtime operation, a demo of the whole game cycle and a plug-in service. "
    "The global options may follow the subcommand.",
    ".SH OPTIONS",
]
option_list(parts.get("Options", []), out)
out.append(".SH COMMANDS")
for name, text in items(parts.get("Subcommands", [])):
    sub_lead, sub = sections(help_text(name))
    nested = items(sub.get("Subcommands", []))
    positional = [t.split()[0] for t, _ in items(sub.get("Positionals", []))]
    out.append(f'.SS "tavo {name}' + "".join(f" {p}" for p in positional) + '"')
    out.append(roff(text))
    option_list(sub.get("Positionals", []) + sub.get("Options", []), out)
    for nested_name, nested_text in nested:
        out.append(f'.SS "tavo {name} {nested_name}"')
        out.append(roff(nested_text))
        option_list(sections(help_text(name, nested_name))[1].get("Options", []), out)
out += [".SH EXIT STATUS", roff(status.removeprefix("Exit status: ")), ".SH EXAMPLES"]
lines = [l for l in open(examples_path).read().splitlines() if l and not l.startswith("#")]
for line in lines:
    if line.startswith("tavo "):
        out += [".nf", ".RS 4", roff(line), ".RE", ".fi"]
    else:
        out += [".PP", roff(line)]
out += [".SH SEE ALSO", "The host guide and the API reference of libtavo."]
with gzip.GzipFile(output, "wb", mtime=0) as f:
    f.write(("\n".join(out) + "\n").encode())
