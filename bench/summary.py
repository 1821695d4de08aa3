#!/usr/bin/env python3
"""Sums up rounds of zefs-bench as Markdown.

    bench/summary.py ROUND.json...

Rates are medians over the rounds, in million items a second. The best peer is the one with the
highest median; ratios to it are taken round by round, and their median and range are given. The
persistent table has peers of its own for each operation and is set beside each of them.
"""

import json
import statistics
import sys

PEERS = ["btree_pointers", "btree", "std_map", "icl"]
UNLOCKED = "_unlocked"  # look-ups without the table's lock
PERSISTENT = "persistent"
PERSISTENT_PEERS = {
    "insert": ["std_map"],
    "insert_nodes": ["std_map"],
    "find": ["std_map", "lmdb_begun", "lmdb_renewed"],
    "walk": ["lmdb_merge", "lmdb_cursor"],
}


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


def persistent_lines(maps, operation, peers):
    for (_, measured, case, size), subjects in maps.items():
        ours = rates(subjects, "table")
        if measured != operation or not ours:
            continue
        cells = [f"{operation}: {case}, {int(size):,}".replace("_", " "),
                 f"{median(ours) / 1e6:.3f} ±{spread(ours):.0f} %"]
        theirs = [rates(subjects, peer) for peer in peers]
        cells += [f"{median(values) / 1e6:.3f}" if values else "" for values in theirs]
        cells += [ratio(ours, values) if values else "" for values in theirs]
        yield cells


def print_persistent(maps):
    print("\nThe persistent table, million items a second:")
    for operation, peers in PERSISTENT_PEERS.items():
        lines = list(persistent_lines(maps, operation, peers))
        if lines:
            table(["benchmark", "table"] + peers + [f"table / {peer} (range)" for peer in peers],
                  lines)


def main(paths):
    if not paths:
        sys.exit("bench/summary.py: name the JSON files of the rounds")
    every, floors = collect(paths)
    maps = {key: value for key, value in every.items() if key[0] != PERSISTENT}
    persistent = {key: value for key, value in every.items() if key[0] == PERSISTENT}
    if maps:
        print("\nMillion items a second:")
        table(["benchmark", "table"] + PEERS + ["best peer", "table / best (range)"],
              rate_lines(maps))
        print("\nBytes of heap an extent, reference counts included; last, what the table tells of its"
              " tree:")
        table(["state", "table"] + PEERS + ["told"], memory_lines(maps))
    if persistent:
        print_persistent(persistent)
    if floors:
        print("\nBounds, million items a second:")
        table(["bound", "rate"],
              ([name, f"{median(values) / 1e6:.3f} ±{spread(values):.0f} %"]
               for name, values in floors.items()))


if __name__ == "__main__":
    main(sys.argv[1:])
