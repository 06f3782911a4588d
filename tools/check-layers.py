#!/usr/bin/env python3
"""Checks that the engine's #include lines keep to the map in src/engine/README.md.

The README gives, under a heading "### `name/`" per folder, a paragraph "Calls: `a`,
`b`" (or "Calls: nothing") naming the folders whose headers that folder's files may
include; a paragraph "Shared: `x.h` (why), ..." naming the headers every folder may
include; and items "- `folder/file` includes `x.h`: why" for single arrows the map
allows against it.  Every #include "..." of src/engine/*/* that names a header of
another folder must be allowed by one of them.  A folder on disk that the map does not
describe, a header name found in two folders, and an exception that no longer occurs
fail too, so that the map stays true.

Usage: check-layers.py [PROJECT_ROOT]   (exit 0 when every arrow is allowed)
"""
import os
import re
import sys

HEADING = re.compile(r"^###\s+`([a-z_]+)/`")
CALLS = re.compile(r"^Calls:\s*(.*)$")
SHARED = re.compile(r"^Shared:\s*(.*)$")
EXCEPTION = re.compile(r"^-\s+`([a-z_]+/[A-Za-z0-9_.]+)`\s+includes\s+`([A-Za-z0-9_.]+)`")
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"')
TICKED = re.compile(r"`([^`]+)`")


def paragraphs(readme):
    """Yields (line number, text) of each paragraph, its lines joined."""
    start, lines = 0, []
    with open(readme, encoding="utf-8") as f:
        for n, line in enumerate(f, 1):
            line = line.strip()
            if not line or line.startswith("#") or line.startswith("- "):
                if lines:
                    yield start, " ".join(lines)
                    lines = []
                if line:
                    yield n, line
                continue
            if not lines:
                start = n
            lines.append(line)
    if lines:
        yield start, " ".join(lines)


def read_map(readme):
    calls, shared, exceptions = {}, set(), set()
    folder = None
    for n, text in paragraphs(readme):
        m = HEADING.match(text)
        if m:
            folder = m.group(1)
            continue
        m = CALLS.match(text)
        if m:
            if folder is None or folder in calls:
                raise SystemExit(f"{readme}:{n}: a Calls line outside a folder's paragraph, or a second one")
            calls[folder] = {x.rstrip("/") for x in TICKED.findall(m.group(1))}
            continue
        m = SHARED.match(text)
        if m:
            shared |= {x for x in TICKED.findall(m.group(1)) if x.endswith(".h")}
            continue
        m = EXCEPTION.match(text)
        if m:
            exceptions.add((m.group(1), m.group(2)))
    return calls, shared, exceptions


def main():
    root = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), ".."))
    engine = os.path.join(root, "src", "engine")
    readme = os.path.join(engine, "README.md")
    calls, shared, exceptions = read_map(readme)
    errors = []

    folders = sorted(d for d in os.listdir(engine) if os.path.isdir(os.path.join(engine, d)))
    for d in folders:
        if d not in calls:
            errors.append(f"src/engine/{d}/: the map in src/engine/README.md does not describe this folder")
    for d, targets in sorted(calls.items()):
        if d not in folders:
            errors.append(f"src/engine/README.md: folder {d}/ is described but does not exist")
        for t in sorted(targets):
            if t not in folders:
                errors.append(f"src/engine/README.md: {d}/ calls {t}/, which does not exist")
            elif t == d:
                errors.append(f"src/engine/README.md: {d}/ names itself among the folders it calls")

    owner = {}
    for d in folders:
        for f in sorted(os.listdir(os.path.join(engine, d))):
            if f.endswith(".h"):
                if f in owner:
                    errors.append(f"src/engine/{d}/{f}: the header name is in {owner[f]}/ too")
                owner[f] = d
    for h in sorted(shared):
        if h not in owner:
            errors.append(f"src/engine/README.md: shared header {h} does not exist")

    used = set()
    arrows = 0
    for d in folders:
        for f in sorted(os.listdir(os.path.join(engine, d))):
            if not f.endswith((".h", ".cpp")):
                continue
            path = os.path.join(engine, d, f)
            with open(path, encoding="utf-8") as src:
                for n, line in enumerate(src, 1):
                    m = INCLUDE.match(line)
                    if not m or m.group(1) not in owner:
                        continue
                    h = m.group(1)
                    t = owner[h]
                    if t == d:
                        continue
                    arrows += 1
                    if h in shared or t in calls.get(d, ()):
                        continue
                    if (f"{d}/{f}", h) in exceptions:
                        used.add((f"{d}/{f}", h))
                        continue
                    errors.append(f"src/engine/{d}/{f}:{n}: includes {h} ({t}/), but {d}/ may not call {t}/ "
                                  f"(src/engine/README.md)")
    for fh in sorted(exceptions - used):
        errors.append(f"src/engine/README.md: the exception {fh[0]} includes {fh[1]} no longer occurs; drop it")

    for e in errors:
        print(e)
    if errors:
        print(f"check-layers: {len(errors)} problem(s)")
        return 1
    print(f"check-layers: {arrows} include arrows across {len(folders)} folders, all allowed by the map")
    return 0


if __name__ == "__main__":
    sys.exit(main())
