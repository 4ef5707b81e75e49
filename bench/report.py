#!/usr/bin/env python3
"""Prints tables of what Google Benchmark has measured, and draws two pictures of them.

usage: report.py DIRECTORY JSON...   DIRECTORY gets the pictures; the README shows benchmarks.svg

A job's name is GROUP/JOB/WHO. The least result counts: what else the machine does only ever adds.
"""

import json
import pathlib
import sys

# What the README shows: usual jobs, and those at which a peer is most ahead.
SHOWN = (
    "construct, 1 KB shuffled",
    "construct, 100 KB in order",
    "heap per key, 10 MB in order",
    "peak per line, a key 1,000,000 times",
    "getInteger, one of 30 keys",
    "getBoolean, scattered over 30,000 keys",
    "set and save, 100 KB on tmpfs",
    "set_file_contents, 1 KB on tmpfs",
)
OTHERS = ("floor", "GLib", "SimpleIni", "inih", "iniparser", "Boost")


def read_groups(paths):
    """{group: {job: {who: the least result}}}, in the order in which the programs add them."""
    groups = {}
    for path in paths:
        text = pathlib.Path(path).read_text(encoding="utf-8")
        runs = json.loads(text)["benchmarks"] if text else []  # nothing, if no job was asked for
        for run in sorted(runs, key=lambda run: run["family_index"]):
            if run["run_type"] == "iteration":
                group, job, who = run["run_name"].split("/")[:3]
                results = groups.setdefault(group, {}).setdefault(job, {})
                result = run.get("bytes", run["real_time"])
                results[who] = min(results.get(who, result), result)
    return groups


def with_unit(group, value):
    if group == "Memory":
        return f"{value:.3g} bytes"
    size, unit = (1e6, "ms") if value >= 1e6 else (1e3, "us") if value >= 1e3 else (1, "ns")
    return f"{value / size:.3g} {unit}"


def print_table(group, jobs):
    """Ours, and its ratio to the others."""
    others = [who for who in OTHERS if any(who in results for results in jobs.values())]
    print(f"\n## {group}\n\n| job | ours | {' | '.join(f'to {who}' for who in others)} |")
    print("| --- | ---: |" + " ---: |" * len(others))
    for job, results in jobs.items():
        if "ours" in results:
            ours = results["ours"]
            cells = (f"{ours / results[who]:.2f}" if who in results else "" for who in others)
            print(f"| {job} | {with_unit(group, ours)} | {' | '.join(cells)} |")


def print_growth(group, jobs):
    """The times for two sizes, and what is between them."""
    print(f"\n## {group}\n\n| job | 10,000 | 100,000 | factor |\n| --- | ---: | ---: | ---: |")
    for job, results in jobs.items():
        if len(results) == 2:
            low, high = results["10000"], results["100000"]
            print(f"| {job} | {with_unit(group, low)} | {with_unit(group, high)} | {high / low:.1f} |")


def beside_best_peer(groups):
    """A job, ours over the best of the peers, and that peer, for each job that a peer does too."""
    for jobs in groups.values():
        for job, results in jobs.items():
            peers = {who: value for who, value in results.items() if who not in ("ours", "floor")}
            if "ours" in results and peers:
                best = min(peers, key=peers.get)
                yield job, results["ours"] / peers[best], best


STYLE = """
  svg { font: 13px sans-serif; background: #fff; fill: #1f2328 }
  .less { fill: #2f9e63 } .more { fill: #d9663a } path { stroke: #1f2328 }
  @media (prefers-color-scheme: dark) {
    svg { background: #0d1117; fill: #e6edf3 } path { stroke: #e6edf3 }
  }"""


def draw(path, bars):
    """A picture that can be read at the width of a telephone: each bar below its words."""
    width, row, margin = 390, 38, 10
    height = 2 * margin + row * (len(bars) + 1)
    longest = min(2, max([1.1, *(ratio for _, ratio, _ in bars)]))
    scale = (width - 2 * margin) / longest
    lines = [
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}"'
        f' viewBox="0 0 {width} {height}">\n<style>{STYLE}\n</style>',
        f'<text x="{margin}" y="22">Our time or memory over that of the best peer:</text>\n'
        f'<text x="{margin}" y="38">where a bar ends before the mark, ours is less</text>',
    ]
    for number, (job, ratio, peer) in enumerate(bars, 1):
        top = margin + 6 + number * row
        lines.append(
            f'<text x="{margin}" y="{top + 12}">{job}</text>\n'
            f'<text x="{width - margin}" y="{top + 12}" text-anchor="end">'
            f"{ratio:.2f} × {peer}</text>\n"
            f'<rect class="{"more" if ratio > 1.005 else "less"}" x="{margin}" y="{top + 17}"'
            f' width="{min(ratio, longest) * scale:.1f}" height="10"/>\n'
            f'<path d="M{margin + scale:.1f} {top + 15}v14"/>'
        )
    pathlib.Path(path).write_text("\n".join([*lines, "</svg>\n"]), encoding="utf-8")


def main(directory, *paths):
    groups = read_groups(paths)
    for group, jobs in groups.items():
        (print_growth if group == "Growth" else print_table)(group, jobs)
    bars = list(beside_best_peer(groups))
    draw(f"{directory}/benchmarks-all.svg", bars)
    draw(f"{directory}/benchmarks.svg", [bar for bar in bars if bar[0] in SHOWN])


main(*sys.argv[1:])
