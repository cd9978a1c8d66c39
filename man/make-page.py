#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Makes a manual page of a Markdown text, with lowdown.

The text's title gives way to the section NAME that manual pages have, and its headings move up by one. What does not
begin with a heading of its own is the section DESCRIPTION. A line "<!-- include FILE -->" stands for that file's text.
"""

import argparse
import pathlib
import re
import subprocess

#: Columns of a terminal that is 80 wide, without the indentation.
TABLE_WIDTH = 69

#: Stands between terms that have one definition.
NEXT_TERM = "\u241e"


def read(path):
    """The text, with what it includes from its own folder."""
    return re.sub(
        r"^<!-- include (\S+) -->\n",
        lambda found: read(path.parent / found.group(1)),
        path.read_text(encoding="utf-8"),
        flags=re.M,
    )


def prepare(text, name, summary):
    """The Markdown that lowdown is given."""
    text = re.sub(r"\A# .*\n+", "", text)
    # lowdown knows one term to a definition.
    text = re.sub(
        r"(?<=\n\n)(?:`.*\n)+(?=:   )", lambda found: found.group(0)[:-1].replace("\n", NEXT_TERM) + "\n", text
    )
    lines = []
    is_code = False
    for line in text.splitlines():
        is_code ^= line.startswith("```")
        lines.append(line if is_code else re.sub(r"^#(#+ )", r"\1", line))
    head = f"# NAME\n\n{name} \\- {summary}\n\n"
    return head + ("" if text.startswith("## ") else "# DESCRIPTION\n\n") + "\n".join(lines) + "\n"


def literal(text):
    """What is to be typed: a minus is a minus, even where the page is set with proper hyphens."""
    return re.sub(r"(?<!\\)-", r"\\-", text)


def spell(line):
    """Terminals have no second typeface: code is bold, as in all manual pages."""
    whole = re.sub(r"\\fC(.*?)\\fR", lambda found: f"\\fB{literal(found.group(1))}\\fR", line)
    # What is left goes on in the next line.
    whole = whole.replace("\\fC", "\\fB")
    # The names of pages are not divided.
    return re.sub(r"\\fB([\w.-]+)\\fR(?=\(\d\))", lambda found: f"\\fB\\%{literal(found.group(1))}\\fR", whole)


def table_rows(lines):
    """The cells of lowdown's table."""
    cells = []
    cell = []
    for line in lines:
        if line == "T{":
            cell = []
        elif line in ("T}|T{", "T}"):
            cells.append(" ".join(cell))
            cell = []
            if line == "T}":
                yield cells
                cells = []
        else:
            cell.append(spell(line))


def shown_length(text):
    return len(re.sub(r"\\f.|\\(?=-)", "", text))


def column_widths(rows):
    """What each column needs, the widest ones cut until the table fits, but not inside a word."""
    widths = [max(map(shown_length, column)) for column in zip(*rows)]
    words = [max(shown_length(word) for text in column for word in text.split() or [""]) for column in zip(*rows)]
    while sum(widths) + 3 * len(widths) > TABLE_WIDTH:
        wide = [i for i, width in enumerate(widths) if width > words[i]]
        if not wide:
            break
        widths[max(wide, key=lambda i: widths[i])] -= 1
    return widths


def set_table(lines):
    """The table anew: columns as wide as what stands in them."""
    rows = list(table_rows(lines))
    widths = column_widths(rows)
    yield from (".ad l", ".TS", "tab(|) allbox nospaces;")
    yield " ".join(f"lbw({width}n)" for width in widths)
    yield " ".join(f"lw({width}n)" for width in widths) + "."
    for row in rows:
        shown = [
            text if shown_length(text) <= width else f"T{{\n{text}\nT}}" for text, width in zip(row, widths)
        ]
        yield from "|".join(shown).splitlines()
    yield from (".TE", ".ad b")


TERM = [".if n \\", ".sp -1v", ".if t \\", ".sp -0.25v", '.IP "" 5n']
BULLET_GAP = [".if n \\", ".sp -1", ".if t \\", ".sp -0.25v"]


def polish(lines):
    """lowdown's page as man and mandoc take it, without a warning."""
    i = 0
    while i < len(lines):
        line = lines[i]
        i += 1
        if line in (".SH", ".SS"):
            # On a line of their own, programs that index pages do not find headings.
            heading = lines[i].upper() if line == ".SH" else lines[i]
            i += 1
            yield f"{line} {spell(heading)}"
            if i < len(lines) and lines[i] == ".LP":
                i += 1
        elif line == ".TS":
            end = lines.index(".TE", i)
            yield from set_table(lines[i:end])
            i = end + 1
            if i < len(lines) and lines[i] not in (".SH", ".SS"):
                yield ".sp"
                i += lines[i] == ".LP"
        elif line == ".EX":
            end = lines.index(".EE", i)
            yield from (".EX", *map(literal, lines[i:end]), ".EE")
            i = end + 1
        elif line == ".LP" and TERM == lines[i + 1 : i + 1 + len(TERM)]:
            yield ".TP 5n"
            yield from spell(lines[i]).replace(NEXT_TERM, "\n.TQ\n").splitlines()
            i += 1 + len(TERM)
        elif line == BULLET_GAP[0] and BULLET_GAP[1:] == lines[i : i + 3]:
            yield from (".if n .sp -1", ".if t .sp -0.25v")
            i += 3
        else:
            yield spell(line)


def main():
    parser = argparse.ArgumentParser(description="Makes a manual page of a Markdown text.")
    parser.add_argument("lowdown")
    parser.add_argument("name")
    parser.add_argument("section")
    parser.add_argument("summary")
    parser.add_argument("version")
    parser.add_argument("date", help="as YYYY-MM-DD")
    parser.add_argument("input", type=pathlib.Path)
    given = parser.parse_args()
    made = subprocess.run(
        [given.lowdown, "-s", "-Tman", "--nroff-nolinks"]
        + ["-M", f"title={given.name}", "-M", f"section={given.section}"]
        + ["-M", f"date={given.date}", "-M", f"source=hear-sense {given.version}"],
        input=prepare(read(given.input), given.name, given.summary).encode(),
        stdout=subprocess.PIPE,
        check=True,
    ).stdout.decode()
    # The first line is for an editor; nobody edits what is made.
    print("\n".join(polish(made.splitlines()[1:])))


if __name__ == "__main__":
    main()
