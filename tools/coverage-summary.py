#!/usr/bin/env python3
"""Line and branch coverage of src/ and tools/ per folder and in total.

    tools/coverage-summary.py SUMMARY.json

SUMMARY.json is gcovr's --json-summary of a coverage build's run (`make coverage`
writes it).  Each file counts in its folder (src/engine/btree, tools/kisam, ...) and
in the total; headers count where they live.
"""
import json
import os
import sys


def pct(hit, total):
    return f"{100.0 * hit / total:5.1f}%" if total else "    -"


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__.strip())
    with open(sys.argv[1]) as f:
        summary = json.load(f)
    folders = {}
    for entry in summary["files"]:
        name = entry["filename"]
        folder = os.path.dirname(name)
        acc = folders.setdefault(folder, [0, 0, 0, 0, 0])
        acc[0] += entry["line_covered"]
        acc[1] += entry["line_total"]
        acc[2] += entry["branch_covered"]
        acc[3] += entry["branch_total"]
        acc[4] += 1
    rows = sorted(folders.items())
    total = [sum(acc[i] for _, acc in rows) for i in range(5)]
    width = max([len(f) for f, _ in rows] + [len("total")])
    print(f"{'folder':<{width}}  files  {'lines':>15}  {'branches':>15}")
    for folder, (lh, lt, bh, bt, n) in rows + [("total", total)]:
        if folder == "total":
            print("-" * (width + 42))
        print(f"{folder:<{width}}  {n:5d}  {lh:6d}/{lt:<6d}{pct(lh, lt)}  {bh:6d}/{bt:<6d}{pct(bh, bt)}")


if __name__ == "__main__":
    main()
