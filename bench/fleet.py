#!/usr/bin/python3
"""Draws what ./dev fleet has measured.

    fleet.py FOLDER      with results.json, and results-N.json of each size of a fleet that went through everything

Writes, by gnuplot: life.svg, the seconds of the last run; and television.svg, what one television costs in
fleets of several sizes, as soon as there are two.
"""
import json
import pathlib
import sys

from bench import data_block, picture

COSTS = [  # scenario, figure, colour
    ("idle", "host own KiB", "#c03030"), ("idle", "bus own KiB", "#3060c0"), ("idle", "broker KiB", "#308030"),
    ("idle", "host CPU ms", "#c08030"), ("start", "bytes up", "#803080"), ("values", "broker CPU ms", "#30a0a0"),
    ("values", "messages up", "#888888")]


def draw_life(folder, results):
    seconds = results["seconds"]
    if not seconds:
        return
    rows = [(row["time"], row["online"], row["values"], row["answers"]) for row in seconds]
    marks, last = [], None
    for row in seconds:
        if row["scenario"] != last:
            last = row["scenario"]
            marks.append(f"set arrow from {row['time']:g}, graph 0 to {row['time']:g}, graph 1 nohead "
                         f"linecolor '#cccccc'\nset label ' {last}' at {row['time']:g}, graph 0.02 "
                         "rotate by 90 font ',10' textcolor '#666666'")
    lines = [f"$life using 1:{column} with lines linewidth 2 linecolor '{colour}' title '{title}'"
             for column, title, colour in ((2, "online", "#308030"), (3, "values a second", "#3060c0"),
                                           (4, "answers a second", "#c03030"))]
    picture("life", data_block("life", rows) + "\n" + "\n".join(marks) +
            f"\nset title '{results['televisions']} televisions'\nset xlabel 'seconds'\nset yrange [0:*]\nplot " +
            ", ".join(lines), folder)


def figure_of(results, scenario, name):
    for entry in results["scenarios"]:
        if entry["scenario"] == scenario and name in entry["figures"]:
            return entry["figures"][name]
    return None


def draw_television(folder):
    fleets = sorted((json.loads(file.read_text()) for file in folder.glob("results-*.json")),
                    key=lambda results: results["televisions"])
    blocks, lines = [], []
    for index, (scenario, name, colour) in enumerate(COSTS):
        points = [(results["televisions"], figure_of(results, scenario, name)) for results in fleets]
        points = [point for point in points if point[1] is not None]
        if len(points) < 2 or points[-1][1] <= 0:
            continue
        blocks.append(data_block(f"cost{index}", [(size, value / points[-1][1]) for size, value in points]))
        lines.append(f"$cost{index} using 1:2 with linespoints linewidth 2 linecolor '{colour}' "
                     f"title '{scenario}: {name}'")
    if not lines:
        return
    picture("television", "\n".join(blocks) + "\nset title 'What one television costs, for what it costs in the "
            "largest fleet'\nset logscale x\nset xlabel 'televisions'\nset yrange [0:2]\nplot " + ", ".join(lines), folder)


def main():
    folder = pathlib.Path(sys.argv[1])
    results = folder / "results.json"
    if results.exists():
        draw_life(folder, json.loads(results.read_text()))
    draw_television(folder)


if __name__ == "__main__":
    main()
