#!/usr/bin/python3
"""Sums up what gcovr has written as JSON: lines and branches that are covered, by folder, and those that
are not.

    coverage_summary.py FILE
"""

import collections
import itertools
import json
import sys


def ranges(numbers):
    """[1, 2, 3, 7] as "1-3,7"."""
    told = []
    for _, group in itertools.groupby(enumerate(sorted(numbers)), lambda pair: pair[1] - pair[0]):
        group = [number for _, number in group]
        told.append(str(group[0]) if len(group) == 1 else f"{group[0]}-{group[-1]}")
    return ",".join(told)


def share(part, whole):
    return f"{part} of {whole}, {100 * part / whole:.1f} %" if whole else "none"


def main():
    with open(sys.argv[1]) as file:
        files = json.load(file)["files"]
    totals = collections.defaultdict(lambda: [0, 0, 0, 0])  # lines covered, lines, branches taken, branches
    lines_left, branches_left = [], []
    for source in sorted(files, key=lambda f: f["file"]):
        name = source["file"]
        not_run, not_taken = [], []
        for line in source["lines"]:
            if line.get("gcovr/noncode"):
                continue
            taken = [branch["count"] > 0 for branch in line["branches"]]
            for total in (totals[name.split("/")[0]], totals["in all"]):
                total[0] += line["count"] > 0
                total[1] += 1
                total[2] += sum(taken)
                total[3] += len(taken)
            if line["count"] == 0:
                not_run.append(line["line_number"])
            elif not all(taken):
                not_taken.append(line["line_number"])
        if not_run:
            lines_left.append(f"  {name}:{ranges(not_run)}")
        if not_taken:
            branches_left.append(f"  {name}:{ranges(not_taken)}")

    print("| Folder | Lines | Branches |\n|---|---|---|")
    order = ["host", "support", "table", "sidefiles", "persistent", "in all"]
    for folder in sorted(totals, key=order.index):
        lines, all_lines, branches, all_branches = totals[folder]
        print(f"| {folder} | {share(lines, all_lines)} | {share(branches, all_branches)} |")
    print("\nlines that no test runs:", *lines_left or ["  none"], sep="\n")
    print("\nlines that run, with a branch that no test takes:", *branches_left or ["  none"], sep="\n")
    lines, _, branches, _ = totals["in all"]
    print(f"\nfigure {lines} lines covered\nfigure {branches} branches covered")


if __name__ == "__main__":
    main()
