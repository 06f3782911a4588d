#!/usr/bin/env python3
"""The lines of src/, include/ and tools/ that each test runs, and those only it runs.

    tools/coverage-per-test.py BUILD [JOBS]

BUILD is a coverage build tree (`make coverage` makes one).  Each ctest test runs
alone, its processes writing gcov's counters under a prefix of their own, so that
nothing of another test mixes in; a test's lines are those with a count above zero.
Written: BUILD/per-test.json ({test: {file: [lines]}}) and, on the terminal and in
BUILD/per-test.txt, each test's count of lines no other test runs, fewest first.
Processes a test runs as another user cannot write under the prefix: their lines are
not counted.

A test that runs no line of its own is not thereby redundant: a model, kill or crash
test checks what the code does, not where it goes.  Read it together with the planted
faults (tools/mutants): a test worth its lines runs code no other runs, or catches a
fault no other catches.
"""
import concurrent.futures
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
KEEP = tuple(os.path.join(ROOT, d) + "/" for d in ("src", "include", "tools"))


def tests_of(build):
    out = subprocess.run(["ctest", "-N"], cwd=build, capture_output=True, text=True, check=True).stdout
    return [(int(m.group(1)), m.group(2)) for m in re.finditer(r"Test +#(\d+): (\S+)", out)]


def lines_of(build, prefix):
    """{file: set(lines)} of the counters written under prefix."""
    gcdas = []
    for d, _, files in os.walk(prefix):
        for f in files:
            if not f.endswith(".gcda"):
                continue
            gcda = os.path.join(d, f)
            obj = gcda[len(prefix):]  # the object's own path in the build tree
            if "/tests/" in obj:
                continue
            gcno = obj[: -len(".gcda")] + ".gcno"
            if os.path.exists(gcno):
                os.symlink(gcno, gcda[: -len(".gcda")] + ".gcno")
                gcdas.append(gcda)
    covered = {}
    if not gcdas:
        return covered
    out = subprocess.run(["gcov", "--json-format", "--stdout"] + gcdas, cwd=prefix,
                         capture_output=True, text=True).stdout
    for line in out.splitlines():
        try:
            doc = json.loads(line)
        except ValueError:
            continue
        for f in doc.get("files", []):
            name = f["file"]
            if name.startswith(KEEP):
                hit = {ln["line_number"] for ln in f["lines"] if ln["count"] > 0}
                covered.setdefault(os.path.relpath(name, ROOT), set()).update(hit)
    return covered


def run_one(build, number, name):
    prefix = tempfile.mkdtemp(prefix="kisam-cov-")
    try:
        env = dict(os.environ, GCOV_PREFIX=prefix, GCOV_PREFIX_STRIP="0")
        rc = subprocess.run(["ctest", "-I", f"{number},{number}", "-Q", "--timeout", "600"],
                            cwd=build, env=env).returncode
        return name, rc, lines_of(build, prefix)
    finally:
        shutil.rmtree(prefix, ignore_errors=True)


def main():
    if len(sys.argv) not in (2, 3):
        sys.exit(__doc__.strip())
    build = os.path.abspath(sys.argv[1])
    jobs = int(sys.argv[2]) if len(sys.argv) == 3 else 2
    runs = {}
    failed = []
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        for name, rc, covered in pool.map(lambda t: run_one(build, *t), tests_of(build)):
            runs[name] = covered
            if rc != 0:
                failed.append(name)
    seen = {}
    for covered in runs.values():
        for f, lines in covered.items():
            for ln in lines:
                seen[(f, ln)] = seen.get((f, ln), 0) + 1
    own = {name: sum(1 for f, lines in cov.items() for ln in lines if seen[(f, ln)] == 1)
           for name, cov in runs.items()}
    with open(os.path.join(build, "per-test.json"), "w") as out:
        json.dump({n: {f: sorted(ls) for f, ls in c.items()} for n, c in runs.items()}, out)
    rows = [f"{own[n]:5d} {sum(map(len, runs[n].values())):6d}  {n}" for n in sorted(runs, key=lambda n: (own[n], n))]
    report = ["lines only it runs, lines it runs, test"] + rows + [
        f"{len(seen)} lines run by the suite; {sum(1 for n in own if own[n] == 0)} of {len(own)} tests run none of their own"]
    if failed:
        report.append("failed (their lines count all the same): " + ", ".join(failed))
    with open(os.path.join(build, "per-test.txt"), "w") as out:
        out.write("\n".join(report) + "\n")
    print("\n".join(report))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
