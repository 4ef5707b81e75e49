#!/usr/bin/env python3
"""Fails if a line of src/ was not run, or a condition there did not come out both ways.

usage: gcov --json-format --conditions --stdout FILE.gcda... | tests/coverage.py

From the root of the tree. A condition within a larger one comes out true, or false, when it decides
the whole: in `a && b`, a decides as true only while b is true.
"""
import json
import pathlib
import sys

# What no test can reach, as it is printed but without the number of the line, and why.
UNREACHABLE = [
    # Where this is measured, size_t has as many bits as off_t; on the 32-bit target it has fewer.
    'src/io.cpp: never true: if (!std::in_range<size_t>(size)) '
    'throw std::length_error("file too large for a string");',
]

# Whether each was seen: lines, functions (of which several may share a line: lambdas) and outcomes.
# Templates and headers are reported for each instance and object file: one that saw it is enough.
lines, functions, outcomes = {}, {}, {}
text_of, place_of = {}, {}


def note(seen_of, key, seen):
    seen_of[key] = seen_of.get(key, False) or seen


for document in sys.stdin:
    for file in json.loads(document)["files"]:
        name = file["file"]
        if not name.startswith("src/"):
            continue
        for number, text in enumerate(pathlib.Path(name).read_text("utf-8").splitlines(), 1):
            text_of[name, number] = text.strip()
        for function in file["functions"]:
            at = name, function["start_line"], function["start_column"]
            place_of[function["name"]] = at
            note(functions, at, function["execution_count"] > 0)
        for line in file["lines"]:
            at = name, line["line_number"]
            # A brace by itself stands for the destructors at the end of a scope, also for those
            # that only an exception would run, where nothing throws.
            if text_of[at] == "}":
                continue
            note(lines, at, line["count"] > 0)
            for nth, whole in enumerate(line["conditions"]):
                count = whole["count"] // 2
                for part in range(count):
                    for outcome in "true", "false":
                        seen = part not in whole["not_covered_" + outcome]
                        key = *at, place_of[line["function_name"]], nth, part, count, outcome
                        note(outcomes, key, seen)

failures = []
for source in sorted(map(str, pathlib.Path("src").glob("*.cpp"))):
    for what, found in ("line", lines), ("condition", outcomes):
        if all(key[0] != source for key in found):
            failures.append(f"{source}: gcov reports no {what}")
not_run = {key[:2] for key, seen in (*lines.items(), *functions.items()) if not seen}
failures += [f"{name}:{number}: never run: {text_of[name, number]}"
             for name, number in sorted(not_run)]
stale = list(UNREACHABLE)
for name, number, *_, part, count, outcome in sorted(key for key in outcomes if not outcomes[key]):
    which = f"condition {part + 1} of {count} never decides as" if count > 1 else "never"
    missed = f"{which} {outcome}: {text_of[name, number]}"
    if f"{name}: {missed}" in stale:
        stale.remove(f"{name}: {missed}")
    else:
        failures.append(f"{name}:{number}: {missed}")
failures += [f"{sys.argv[0]}: listed, but not missed: {entry}" for entry in stale]
if failures:
    sys.exit("\n".join(failures))
print(f"lines 100 % ({len(lines)}), condition outcomes {sum(outcomes.values())} of {len(outcomes)},"
      f" {len(UNREACHABLE)} listed")
