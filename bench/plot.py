#!/usr/bin/env python3
"""Draws rounds of zefs-bench as SVG: under each workload of a whole life, how many times as fast as
other stores the persistent table is.

    bench/plot.py FILE.svg ROUND.json...

A mark is the median of the ratios of the rounds, the line through it their range.
"""

import math
import sys
from html import escape

from summary import ROAD, ROAD_LIVES, ROAD_SUBJECTS, TRACE, collect, median

PEERS = {  # colour and mark
    "lmdb": ("#0072b2", "M-5,0 a5,5 0 1,0 10,0 a5,5 0 1,0 -10,0 z"),
    "leveldb": ("#e69f00", "M-4.5,-4.5 h9 v9 h-9 z"),
    "rocksdb": ("#cc3311", "M0,-6 l6,6 l-6,6 l-6,-6 z"),
    "sqlite": ("#009e73", "M0,-5.5 l6,10.5 h-12 z"),
}
LIVES = {"random": "random overwrites", "append": "appends"}
LENGTHS = {"once": "once", "looped": "over and over"}

WIDTH, LEFT, RIGHT, TOP, ROW, BOTTOM = 860, 230, 110, 78, 46, 56
INK, FAINT, BAND = "#222222", "#d8d8d8", "#f2f7f2"


def workloads(paths):
    """Name, the table's rates by round, and each peer's."""
    every, _ = collect(paths)
    for (family, name, *_, variant), subjects in every.items():
        if family == ROAD and name in ROAD_LIVES:
            label, counter = LIVES[name], "writes_per_second"
        elif family == TRACE:
            label, counter = f"{name}, {LENGTHS[variant]}", "requests_per_second"
        else:
            continue
        rates = {subject: subjects[subject][counter] for subject in ROAD_SUBJECTS
                 if subject in subjects}
        if "table" in rates and len(rates) > 1:
            yield label, rates.pop("table"), rates


class Scale:
    """Ratios on a logarithmic axis of powers of two, which 1 is always on."""

    def __init__(self, ratios):
        self.low = math.floor(math.log2(min(ratios + [0.5])))
        self.high = math.ceil(math.log2(max(ratios + [2])))

    def x(self, ratio):
        room = WIDTH - LEFT - RIGHT
        return LEFT + room * (math.log2(ratio) - self.low) / (self.high - self.low)

    def ticks(self):
        for power in range(self.low, self.high + 1):
            yield 2.0**power, f"{2**power}" if power >= 0 else f"1/{2**-power}"


def text(x, y, words, anchor="start", size=13, color=INK, weight="normal"):
    return (f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" font-size="{size}" fill="{color}"'
            f' font-weight="{weight}">{escape(words)}</text>')


def line(x1, y1, x2, y2, color, width):
    return (f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" stroke="{color}"'
            f' stroke-width="{width}"/>')


def mark(x, y, peer):
    color, path = PEERS[peer]
    return f'<path d="{path}" transform="translate({x:.1f},{y:.1f})" fill="{color}"/>'


def legend(peers):
    yield text(12, 24, "How many times as fast as other stores the persistent table is", size=16,
               weight="bold")
    x = LEFT
    for peer in peers:
        yield mark(x, 46, peer)
        yield text(x + 11, 50.5, peer)
        x += 100


def frame(scale, bottom):
    one = scale.x(1)
    yield f'<rect x="{one:.1f}" y="{TOP}" width="{WIDTH - RIGHT - one:.1f}" height="{bottom - TOP}" fill="{BAND}"/>'
    for ratio, words in scale.ticks():
        yield line(scale.x(ratio), TOP, scale.x(ratio), bottom, INK if ratio == 1 else FAINT, 1)
        yield text(scale.x(ratio), bottom + 18, words, "middle", 12)
    yield text(one - 10, bottom + 40, "← the other store is faster", "end", 12)
    yield text(one + 10, bottom + 40, "the table is faster →", "start", 12)
    yield text(WIDTH - 12, TOP - 8, "the table, M/s", "end", 12)


def row(scale, y, label, ours, peers):
    yield line(12, y + ROW / 2, WIDTH - 12, y + ROW / 2, FAINT, 1)
    yield text(12, y + 4.5, label)
    yield text(WIDTH - 12, y + 4.5, f"{median(ours) / 1e6:.2f}", "end")
    for place, (peer, theirs) in enumerate(peers.items()):
        ratios = [a / b for a, b in zip(ours, theirs)]
        at = y + (place - (len(peers) - 1) / 2) * ROW / 5.5  # apart, so that none hides another
        yield line(scale.x(min(ratios)), at, scale.x(max(ratios)), at, PEERS[peer][0], 2)
        yield mark(scale.x(median(ratios)), at, peer)


def picture(rows):
    scale = Scale([a / b for _, ours, peers in rows
                   for theirs in peers.values() for a, b in zip(ours, theirs)])
    height = TOP + ROW * len(rows) + BOTTOM
    yield (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height}" width="{WIDTH}"'
           f' height="{height}" font-family="DejaVu Sans, Verdana, sans-serif">')
    yield f'<rect width="{WIDTH}" height="{height}" fill="#ffffff"/>'
    yield from legend([peer for peer in PEERS if any(peer in peers for _, _, peers in rows)])
    yield from frame(scale, height - BOTTOM)
    for number, (label, ours, peers) in enumerate(rows):
        yield from row(scale, TOP + ROW * (number + 0.5), label, ours, peers)
    yield "</svg>"


def main(arguments):
    if len(arguments) < 2:
        sys.exit("bench/plot.py: name the SVG file to write and the JSON files of the rounds")
    target, *paths = arguments
    rows = list(workloads(paths))
    if not rows:
        sys.exit("bench/plot.py: no table was measured beside other stores in these rounds")
    with open(target, "w", encoding="utf-8") as file:
        file.write("\n".join(picture(rows)) + "\n")


if __name__ == "__main__":
    main(sys.argv[1:])
