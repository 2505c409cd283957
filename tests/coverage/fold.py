#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""fold.py TRACEFILE GCOV-OUTPUT...: counts a branch of the source once, however often it was compiled.

gcov lists the branches of a template, or of a header, once per instance and object file, one behind the other; and an
instance cannot take every branch: a loop over the vectors of a tile has no second round where there is one vector. A
branch is covered when some instance takes it. So the instances of a line, which `gcov --json-format` tells apart, are
laid over each other. Where a constant has removed branches from an instance, those that remain cannot be told by their
place: each number of branches is a form of the line, to be covered by itself.

TRACEFILE is gcovr's; its lines, and what it leaves out, stay as they are.
"""
import collections
import json
import os
import sys

tracefile, outputs = sys.argv[1], sys.argv[2:]
forms = collections.defaultdict(dict)  # (file, line) -> number of branches -> their counts
for output in outputs:
    with open(output, encoding="utf-8") as units:
        for unit in map(json.loads, units):
            for file in unit["files"]:
                path = os.path.relpath(os.path.join(unit["current_working_directory"], file["file"]))
                for line in file["lines"]:
                    counts = [branch["count"] for branch in line["branches"] if not branch["throw"]]
                    if counts:
                        form = forms[path, line["line_number"]].setdefault(len(counts), [0] * len(counts))
                        form[:] = map(sum, zip(form, counts))

with open(tracefile, encoding="utf-8") as file:
    trace = json.load(file)
for file in trace["files"]:
    for line in file["lines"]:
        if line["branches"]:
            place = file["file"], line["line_number"]
            if place not in forms:
                sys.exit(f"{place[0]}:{place[1]}: gcovr has branches here, gcov has none")
            counts = sum(forms[place].values(), [])
            line["branches"] = [{"count": count, "fallthrough": False, "throw": False} for count in counts]
with open(tracefile, "w", encoding="utf-8") as file:
    json.dump(trace, file)
