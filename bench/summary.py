#!/usr/bin/env python3
"""Sums up rounds of zefs-bench as Markdown.

    bench/summary.py ROUND.json...

Rates are medians over the rounds, in million items a second. The best peer is the one with the
highest median; ratios to it are taken round by round, and their median and range are given. The
persistent table has peers of its own for each operation and is set beside each of them. On the road to
the disk, and under traces, every quantity has its own best peer.
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
    "plan": ["lmdb_plan", "lmdb_merge", "lmdb_cursor"],
    "plan_kept": ["lmdb_plan", "lmdb_merge", "lmdb_cursor"],
    "references": ["lmdb_cursor", "lmdb_counting"],
    "object_ids": ["lmdb_cursor"],
}
ROAD = "road"
ROAD_LIVES = ["random", "append"]  # whole lives of a table; the other roads are single operations
ROAD_LOOKUPS = "lookups"
ROAD_SUBJECTS = ["table", "lmdb", "leveldb", "rocksdb", "sqlite"]
TRACE = "trace"
MILLION, HUNDREDTHS, PLAIN = (1e6, 3), (1, 2), (1, 1)
# Columns: counter, heading, divisor and digits, whether more is better.
BUSY = ("settle_seconds", "then busy, s", HUNDREDTHS, False)
DISK_COLUMNS = [
    ("mib_on_disk", "MiB on disk", PLAIN, False),
    ("mib_written", "MiB written", PLAIN, False),
]
ROAD_COLUMNS = [
    ("writes_per_second", "write/s, M", MILLION, True),
    BUSY,
    ("cpu_us_per_write", "CPU µs a write", HUNDREDTHS, False),
    *DISK_COLUMNS,
    ("finds_per_second", "find/s, M", MILLION, True),
    ("walk_per_second", "walk/s, M", MILLION, True),
]
TRACE_COLUMNS = [
    ("requests_per_second", "request/s, M", MILLION, True),
    ("writes_per_second", "write/s, M", MILLION, True),
    ("reads_per_second", "read/s, M", MILLION, True),
    BUSY,
    ("cpu_us_per_request", "CPU µs a request", HUNDREDTHS, False),
    *DISK_COLUMNS,
]
LOOKUP_COLUMNS = [
    (f"{phase}_{counter}", f"{words}: {heading}", HUNDREDTHS, False)
    for phase, words in (("merging", "merging"), ("merged", "after it"))
    for counter, heading in (("mean_us", "mean µs"), ("p50_us", "p50 µs"), ("p99_us", "p99 µs"),
                             ("longest_ms", "longest ms"))
]
# One value of a whole run, that of a moment or next to nothing: no spread, no ratio.
SINGLE = {BUSY[0], "merging_longest_ms", "merged_longest_ms"}
COUNTERS = {"items_per_second", "bytes_per_extent", "tree_bytes_per_extent", "cpu_us_per_item"}
COUNTERS.update(counter for counter, *_ in ROAD_COLUMNS + TRACE_COLUMNS + LOOKUP_COLUMNS)


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
            for counter in COUNTERS:
                if counter in row:
                    counters.setdefault(counter, []).append(row[counter])
    return maps, floors


def median(values):
    return statistics.median(values)


def spread(values):
    """Half the range, in percent of the median."""
    return 50 * (max(values) - min(values)) / (median(values) or 1)


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


def subject_lines(subjects, columns):
    """A line for each subject, and the table's ratio to whichever peer is best at a quantity."""
    for name in ROAD_SUBJECTS:
        if name in subjects:
            cells = [name]
            for counter, _, (divisor, digits), _ in columns:
                values = subjects[name].get(counter)
                cells.append(f"{median(values) / divisor:.{digits}f}" if values else "")
                if values and counter not in SINGLE:
                    cells[-1] += f" ±{spread(values):.0f} %"
            yield cells
    cells = ["table / best peer (range)"]
    for counter, _, _, more in columns:
        ours = subjects.get("table", {}).get(counter)
        peers = {name: subjects[name][counter] for name in ROAD_SUBJECTS[1:]
                 if counter in subjects.get(name, {})}
        if not ours or not peers or counter in SINGLE:
            cells.append("")
            continue
        best = (max if more else min)(peers, key=lambda name: median(peers[name]))
        cells.append(f"{best}: {ratio(ours, peers[best])}")
    yield cells


def print_subjects(title, subjects, columns):
    print(f"\n{title}:")
    table(["subject"] + [heading for _, heading, _, _ in columns], subject_lines(subjects, columns))


def road_operation_lines(maps):
    """A line for each operation and peer."""
    for (_, operation, size), subjects in maps.items():
        ours = rates(subjects, "table")
        for peer in subjects:
            if peer == "table" or not ours:
                continue
            theirs = rates(subjects, peer)
            yield [f"{operation}, {int(size):,}".replace("_", " "),
                   f"{median(ours) / 1e6:.3f} ±{spread(ours):.0f} %",
                   peer, f"{median(theirs) / 1e6:.3f}", ratio(ours, theirs)] + [
                   f"{median(subjects[name]['cpu_us_per_item']):.3f}" for name in ("table", peer)]


def print_roads(maps):
    operations = {}
    for (road, kind, size), subjects in maps.items():
        if kind in ROAD_LIVES:
            print_subjects(f"The road to the disk, {kind}, {int(size):,} writes", subjects, ROAD_COLUMNS)
        elif kind == ROAD_LOOKUPS:
            print_subjects(f"Look-ups beside a merge of {int(size):,} records, and after it", subjects,
                           LOOKUP_COLUMNS)
        else:
            operations[road, kind, size] = subjects
    if operations:
        print("\nMerges and references, million records a second:")
        table(["operation", "table", "peer", "rate", "table / peer (range)", "table, CPU µs a record",
               "peer, CPU µs"], road_operation_lines(operations))


def main(paths):
    if not paths:
        sys.exit("bench/summary.py: name the JSON files of the rounds")
    every, floors = collect(paths)
    maps = {key: value for key, value in every.items() if key[0] not in (PERSISTENT, ROAD, TRACE)}
    persistent = {key: value for key, value in every.items() if key[0] == PERSISTENT}
    roads = {key: value for key, value in every.items() if key[0] == ROAD}
    if maps:
        print("\nMillion items a second:")
        table(["benchmark", "table"] + PEERS + ["best peer", "table / best (range)"],
              rate_lines(maps))
        print("\nBytes of heap an extent, reference counts included; last, what the table tells of its"
              " tree:")
        table(["state", "table"] + PEERS + ["told"], memory_lines(maps))
    if persistent:
        print_persistent(persistent)
    if roads:
        print_roads(roads)
    for key, subjects in every.items():
        if key[0] == TRACE:
            _, name, length = key
            print_subjects(f"The trace {name}, {length}", subjects, TRACE_COLUMNS)
    if floors:
        print("\nBounds, million items a second:")
        table(["bound", "rate"],
              ([name, f"{median(values) / 1e6:.3f} ±{spread(values):.0f} %"]
               for name, values in floors.items()))


if __name__ == "__main__":
    main(sys.argv[1:])
