#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Tells how much of a folder has been run.

    coverage.py EXPORT FOLDER LINES BRANCHES

EXPORT is what "llvm-cov export --format=lcov" writes. Prints what of FOLDER was not run and, for each of its files,
how many lines and branches were; ends with status 1 where fewer than LINES or BRANCHES per cent were run in all. A
branch is one outcome of one condition, "true" or "false".
"""

import pathlib
import sys


class File:
    def __init__(self, path):
        self.path = path
        #: How often each line was run.
        self.lines = {}
        #: The line and how often, of each outcome of each condition.
        self.branches = []

    def missing(self):
        text = self.path.read_text(encoding="utf-8").splitlines()
        for line, count in self.lines.items():
            if count == 0:
                yield line, f"not run:     {text[line - 1].strip()}"
        for line, outcome, count in self.branches:
            # Of a line that is not run nothing comes out.
            if count == 0 and self.lines.get(line):
                yield line, f"never {outcome}: {text[line - 1].strip()}"


def read(export, folder):
    files = {}
    file = None
    for record in pathlib.Path(export).read_text(encoding="utf-8").splitlines():
        kind, _, rest = record.partition(":")
        if kind == "SF":
            path = pathlib.Path(rest).resolve()
            file = files.setdefault(path, File(path)) if folder in path.parents else None
        elif file is None:
            continue
        elif kind == "DA":
            line, count = map(int, rest.split(","))
            file.lines[line] = count
        elif kind == "BRDA":
            line, _, branch, count = rest.split(",")
            outcome = "false" if int(branch) % 2 else "true "
            file.branches.append((int(line), outcome, 0 if count == "-" else int(count)))
    return sorted(files.values(), key=lambda file: file.path)


def per_cent(part, whole):
    return 100.0 * part / whole if whole else 100.0


def main():
    export, folder, *goals = sys.argv[1:]
    folder = pathlib.Path(folder).resolve()
    files = read(export, folder)
    if not files:
        sys.exit(f"Nothing of {folder} is in {export}: was it built with -Dcoverage=enabled?")

    for file in files:
        for line, what in sorted(file.missing()):
            print(f"{file.path.relative_to(folder.parent)}:{line}: {what}")

    rows = [
        (
            str(file.path.relative_to(folder.parent)),
            sum(map(bool, file.lines.values())),
            len(file.lines),
            sum(count > 0 for _, _, count in file.branches),
            len(file.branches),
        )
        for file in files
    ]
    rows.append(("all", *(sum(row[column] for row in rows) for column in range(1, 5))))
    print(f"\n{'':24}{'lines':>13}{'':10}{'branches':>13}")
    for name, run, lines, taken, branches in rows:
        print(
            f"{name:24}{run:6} /{lines:5}{per_cent(run, lines):8.1f} %"
            f"{taken:7} /{branches:5}{per_cent(taken, branches):8.1f} %"
        )
    if per_cent(run, lines) < float(goals[0]) or per_cent(taken, branches) < float(goals[1]):
        sys.exit(f"That is less than {goals[0]} % of the lines or {goals[1]} % of the branches.")


main()
