#!/usr/bin/env python3
"""Sums up rounds of zefs-bench as Markdown.

    bench/summary.py ROUND.json...

Rates are medians over the rounds, in million items a second. The best peer is the one with the
highest median; ratios to it are taken round by round, and their median and range are given.
"""

import json
import statistics
import sys

PEERS = ["btree_pointers", "btree", "std_map", "icl"]
UNLOCKED = "_unlocked"  # look-ups without the table's lock


def rows_of(path):
    """The measured rows of one round: name, counters."""
    with open(path, encoding="utf-8") as file:
        rows = json.load(file)["benchmarks"]
    for row in rows:
        name = row["name"].split("/iterations:")[0]
        yield name.split("/"), row


def collect(paths):
    """(workload, counting, operation, size) -> map -> counter -> values by round; and the floors."""
    maps, floors = {}, {}
    for path in paths:
        for parts, row in rows_of(path):
            if parts[0] == "floor":
                floors.setdefault(parts[1], []).append(row["items_per_second"])
                continue
            *key, subject = parts
            counters = maps.setdefault(tuple(key), {}).setdefault(subject, {})
            for counter in ("items_per_second", "bytes_per_extent", "tree_bytes_per_extent"):
                if counter in row:
                    counters.setdefault(counter, []).append(row[counter])
    return maps, floors


def median(values):
    return statistics.median(values)


def spread(values):
    """Half the range, in percent of the median."""
    return 50 * (max(values) - min(values)) / median(values)


def table(header, lines):
    print("\n| " + " | ".join(header) + " |")
    print("|---" + "|---:" * (len(header) - 1) + "|")
    for line in lines:
        print("| " + " | ".join(line) + " |")


def rates(subjects, name):
    return subjects.get(name, {}).get("items_per_second", [])


def ratio(ours, theirs):
    ratios = [a / b for a, b in zip(ours, theirs)]
    return f"{median(ratios):.2f} ({min(ratios):.2f}–{max(ratios):.2f})"


def rate_lines(maps):
    for (workload, counting, operation, size), subjects in maps.items():
        peers = {peer: rates(subjects, peer) for peer in PEERS if rates(subjects, peer)}
        for ours in ("table", "table" + UNLOCKED):
            values = rates(subjects, ours)
            if not values:
                continue
            name = f"{workload}, {counting}: {operation}"
            name += " without the lock" if ours.endswith(UNLOCKED) else ""
            cells = [f"{name}, {int(size):,}", f"{median(values) / 1e6:.3f} ±{spread(values):.0f} %"]
            cells += [f"{median(peers[p]) / 1e6:.3f}" if p in peers else "" for p in PEERS]
            if peers:
                best = max(peers, key=lambda peer: median(peers[peer]))
                cells += [best, ratio(values, peers[best])]
            else:
                cells += ["", ""]
            yield cells


def memory_lines(maps):
    for (workload, counting, operation, size), subjects in maps.items():
        if operation != "walk":
            continue
        heap = [median(subjects[name]["bytes_per_extent"]) if name in subjects else None
                for name in ["table"] + PEERS]
        cells = [f"{workload}, {counting}, {int(size):,}"]
        cells += ["" if value is None else f"{value:.0f}" for value in heap]
        told = subjects.get("table", {}).get("tree_bytes_per_extent")
        cells.append(f"{median(told):.0f}" if told else "")
        yield cells


def main(paths):
    if not paths:
        sys.exit("bench/summary.py: name the JSON files of the rounds")
    maps, floors = collect(paths)
    if maps:
        print("\nMillion items a second:")
        table(["benchmark", "table"] + PEERS + ["best peer", "table / best (range)"],
              rate_lines(maps))
        print("\nBytes of heap an extent, reference counts included; last, what the table tells of its"
              " tree:")
        table(["state", "table"] + PEERS + ["told"], memory_lines(maps))
    if floors:
        print("\nBounds, million items a second:")
        table(["bound", "rate"],
              ([name, f"{median(values) / 1e6:.3f} ±{spread(values):.0f} %"]
               for name, values in floors.items()))


if __name__ == "__main__":
    main(sys.argv[1:])
