#!/usr/bin/env python3
"""The mutation check: plants each fault of mutants.toml in the sources, one at a time,
builds, runs the test suite as `make test` does and records which tests caught it.

    run.py [--tree DIR] [--build DIR] [--only ID,...] [--out results.tsv] [--jobs 2]
           [--timeout S] [--wall S] [--resume] [--include REGEX] [--exclude REGEX]
           [--targets T,...]
    run.py --check [--tree DIR]            every snippet found exactly once, nothing run
    run.py --baseline [--tree DIR] [--build DIR]   the unmutated tree: build and suite
    run.py --compare before.tsv after.tsv
    run.py --summary results.tsv           its figures and the faults no test caught

A snippet is found by its content anywhere under the tree's src/ (never by file and
line), and must be there exactly once: the same list applies after code moves between
files.  An entry with `root = "tools"` is looked for under tools/ instead (the tool's
own sources; any top-level folder of the tree may be named).  The source is always put back (also on Ctrl-C, SIGTERM and errors) and the tree
is checked clean afterwards with git.  A mutant that hangs is stopped by the per-test
timeout and by a wall limit on the whole suite (its process group is killed).  System V
segments a mutant leaves behind are removed: only those created while it ran that no
process has attached and whose creator is gone (other people's tests run meanwhile).

Statuses: caught (some test failed), timeout (the suite hit the wall limit; counted as
caught by --compare: `make test` would not have passed), survived (every test passed),
build-failed (the mutant does not compile; not counted).
"""

import argparse
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import tomllib

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE_SUFFIXES = (".c", ".cc", ".cpp", ".h", ".hpp")
FIELDS = ("id", "area", "kind", "status", "seconds", "failed", "desc")


class Stop(Exception):
    """SIGTERM or SIGHUP: unwind through the finally blocks that restore the source."""


def on_signal(signum, frame):
    raise Stop(f"signal {signum}")


def load_mutants(path):
    with open(path, "rb") as f:
        data = tomllib.load(f)
    mutants = data.get("mutant", [])
    seen = set()
    for m in mutants:
        for key in ("id", "kind", "desc", "from", "to"):
            if key not in m:
                sys.exit(f"mutants: an entry lacks '{key}': {m.get('id', m)}")
        if m["id"] in seen:
            sys.exit(f"mutants: id {m['id']} is given twice")
        if m["from"] == m["to"]:
            sys.exit(f"mutants: {m['id']} changes nothing")
        if not re.fullmatch(r"[A-Za-z0-9_.-]+", mutant_root(m)) or mutant_root(m) in (".", ".."):
            sys.exit(f"mutants: {m['id']}: root must name a top-level folder of the tree")
        seen.add(m["id"])
    return mutants


def source_files(tree, top="src"):
    out = []
    for root, dirs, files in os.walk(os.path.join(tree, top)):
        dirs.sort()
        for name in sorted(files):
            if name.endswith(SOURCE_SUFFIXES):
                out.append(os.path.join(root, name))
    return out


def read(path):
    with open(path, "r", encoding="utf-8", newline="") as f:
        return f.read()


def write(path, text):
    with open(path, "w", encoding="utf-8", newline="") as f:
        f.write(text)


def mutant_root(mutant):
    return mutant.get("root", "src")


def locate(mutant, files):
    """The one file holding the snippet; raises ValueError when there is none or several.
    files: top-level folder -> its source files."""
    top = mutant_root(mutant)
    hits = []
    for path in files.get(top, []):
        n = read(path).count(mutant["from"])
        if n:
            hits.append((path, n))
    total = sum(n for _, n in hits)
    if total == 0:
        raise ValueError(f"{mutant['id']}: snippet not found under {top}/")
    if total > 1:
        where = ", ".join(f"{p} ({n})" for p, n in hits)
        raise ValueError(f"{mutant['id']}: snippet found {total} times: {where}")
    return hits[0][0]


def tree_clean(tree, tops=("src",)):
    r = subprocess.run(["git", "-C", tree, "status", "--porcelain", "--", *tops],
                       capture_output=True, text=True)
    if r.returncode != 0:
        return None  # not a git checkout: nothing to check against
    return r.stdout.strip() == ""


def alive(pid):
    try:
        os.kill(pid, 0)
    except ProcessLookupError:
        return False
    except PermissionError:
        return True
    return True


def segments():
    """shmid -> (cpid, nattch, ctime, dtime) for every System V segment."""
    out = {}
    try:
        with open("/proc/sysvipc/shm") as f:
            lines = f.read().splitlines()
    except OSError:
        return out
    head = lines[0].split()
    col = {name: i for i, name in enumerate(head)}
    for line in lines[1:]:
        v = line.split()
        if len(v) < len(head):
            continue
        out[int(v[col["shmid"]])] = (int(v[col["cpid"]]), int(v[col["nattch"]]),
                                     int(v[col["ctime"]]), int(v[col["dtime"]]))
    return out


def remove_leftovers(before, started, tries=4):
    """Removes the segments that did not exist before the mutant ran, were created since
    it started, have no process attached, whose creator is gone and that nobody has
    detached from for two seconds.  The test processes of a timed-out run are killed just
    before, so their segments are detached that moment and their creators may not yet be
    reaped: those are looked at again, up to `tries` times a second and a half apart.
    Returns how many were removed."""
    removed = 0
    for attempt in range(tries):
        waiting = 0
        now = time.time()
        for shmid, (cpid, nattch, ctime, dtime) in segments().items():
            if shmid in before or ctime < int(started) or nattch != 0:
                continue
            if alive(cpid) or now - max(ctime, dtime) < 2:
                waiting += 1
                continue
            if subprocess.run(["ipcrm", "-m", str(shmid)], capture_output=True).returncode == 0:
                removed += 1
        if waiting == 0 or attempt + 1 == tries:
            break
        time.sleep(1.5)
    return removed


def run_group(cmd, wall, env=None, cwd=None):
    """Runs cmd in its own process group; kills the whole group at the wall limit.
    Returns (returncode or None on timeout, output)."""
    p = subprocess.Popen(cmd, cwd=cwd, env=env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                         text=True, errors="replace", start_new_session=True)
    try:
        out, _ = p.communicate(timeout=wall)
        return p.returncode, out
    except subprocess.TimeoutExpired:
        os.killpg(p.pid, signal.SIGKILL)
        out, _ = p.communicate()
        return None, out
    except BaseException:
        try:
            os.killpg(p.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        p.wait()
        raise
    finally:
        # Test processes that left the group's leader behind (daemons of a test) go too.
        try:
            os.killpg(p.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass


# "74 - Suite.Name (Failed)", or with a parameterized test's value between:
# "74 - Shapes/Model.Case/shape0  # GetParam() = ... (Failed)".
FAILED_LINE = re.compile(r"^\s*\d+\s+-\s+(\S+)(?:\s+#.*)?\s+\(([^()]*)\)\s*$")
RESULT_LINE = re.compile(r"^\s*\d+/\d+\s+Test\s+#\d+:\s+(\S+)\s+\.+\**\s*(.*?)\s+[\d.]+\s+sec\s*$")


def failed_tests(out):
    """The tests ctest reported failed, from its summary (or, failing that, its progress
    lines)."""
    names = []
    in_summary = False
    for line in out.splitlines():
        if line.startswith("The following tests FAILED"):
            in_summary = True
            continue
        if in_summary:
            m = FAILED_LINE.match(line)
            if m:
                names.append(f"{m.group(1)} ({m.group(2)})")
            elif line.strip() and not line.startswith(" "):
                in_summary = False
    if names:
        return names
    for line in out.splitlines():
        m = RESULT_LINE.match(line)
        if m and not m.group(2).startswith("Passed"):
            names.append(f"{m.group(1)} ({m.group(2).strip('*').strip()})")
    return names


class Runner:
    def __init__(self, args):
        self.tree = os.path.abspath(args.tree)
        self.build = os.path.abspath(args.build)
        self.jobs = args.jobs
        self.timeout = args.timeout
        self.wall = args.wall
        self.exclude = args.exclude
        self.include = args.include
        self.all_failures = args.all_failures
        self.targets = [t for t in args.targets.split(",") if t] if args.targets else []
        self.retries = args.retries
        self.logs = args.logs
        if self.logs:
            os.makedirs(self.logs, exist_ok=True)
        self.scratch = tempfile.mkdtemp(prefix="kisam-mutants-")

    def env(self, home):
        # The tests point HOME and the configuration variables at directories of their
        # own; these are only a fence in case one does not.
        e = dict(os.environ)
        for d in ("home", "q9", "profile", "tmp"):
            os.makedirs(os.path.join(home, d), exist_ok=True)
        e["HOME"] = os.path.join(home, "home")
        e["HOME_Q9"] = os.path.join(home, "q9")
        e["PROFILEQ9ENV"] = os.path.join(home, "profile")
        e["TMPDIR"] = os.path.join(home, "tmp")
        return e

    def configure(self):
        if os.path.exists(os.path.join(self.build, "CMakeCache.txt")):
            # A tree built before: only its tests' time limit is ours to set.
            r = subprocess.run(["cmake", "-S", self.tree, "-B", self.build, f"-DKISAM_TEST_TIMEOUT={self.timeout}"],
                               capture_output=True, text=True)
            if r.returncode != 0:
                sys.stderr.write(r.stdout + r.stderr)
                sys.exit("mutants: configuring the build tree failed")
            return
        # Release flags without debug information and a fast linker: every mutant
        # relinks every test program.  The tests behave the same.
        cmd = ["cmake", "-S", self.tree, "-B", self.build, "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
               "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O2 -DNDEBUG",
               "-DCMAKE_C_FLAGS_RELWITHDEBINFO=-O2 -DNDEBUG",
               # ctest's --timeout does not override a test's own TIMEOUT property.
               f"-DKISAM_TEST_TIMEOUT={self.timeout}"]
        if shutil.which("ld.lld"):
            cmd += ["-DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=lld", "-DCMAKE_SHARED_LINKER_FLAGS=-fuse-ld=lld",
                    "-DCMAKE_MODULE_LINKER_FLAGS=-fuse-ld=lld"]
        r = subprocess.run(cmd, capture_output=True, text=True)
        if r.returncode != 0:
            sys.stderr.write(r.stdout + r.stderr)
            sys.exit("mutants: configuring the build tree failed")

    def build_tree(self, wall):
        cmd = ["cmake", "--build", self.build, "-j", str(self.jobs)]
        for t in self.targets:
            cmd += ["--target", t]
        return run_group(cmd, wall)

    def suite(self, stop_on_failure):
        home = tempfile.mkdtemp(dir=self.scratch)
        cmd = ["ctest", "--test-dir", self.build, "-j", str(self.jobs), "--timeout", str(self.timeout),
               "--output-on-failure"]
        if stop_on_failure:
            cmd.append("--stop-on-failure")
        if self.retries > 1:
            # A test counts as failed only when it fails this many times in a row: a test
            # that a busy machine makes fail once now and then catches nothing.
            cmd += ["--repeat", f"until-pass:{self.retries}"]
        if self.include:
            cmd += ["-R", self.include]
        if self.exclude:
            cmd += ["-E", self.exclude]
        try:
            return run_group(cmd, self.wall, env=self.env(home))
        finally:
            shutil.rmtree(home, ignore_errors=True)

    def run_one(self, m, files):
        path = locate(m, files)
        original = read(path)
        before = set(segments())
        started = time.time()
        status, failed = "survived", []
        try:
            write(path, original.replace(m["from"], m["to"], 1))
            rc, out = self.build_tree(self.wall)
            if rc != 0:
                status = "build-failed" if rc is not None else "timeout"
                failed = [line.strip() for line in out.splitlines() if "error:" in line][:2]
            else:
                rc, out = self.suite(stop_on_failure=not self.all_failures)
                failed = failed_tests(out)
                if rc is None:
                    status = "timeout"
                elif rc != 0:
                    status = "caught"
                    if not failed:
                        failed = ["ctest exit " + str(rc)]
            if self.logs:
                write(os.path.join(self.logs, m["id"] + ".log"), out)
        finally:
            write(path, original)
            remove_leftovers(before, started)
        return status, time.time() - started, failed, path

    def close(self):
        shutil.rmtree(self.scratch, ignore_errors=True)


def read_results(path):
    rows = {}
    with open(path) as f:
        head = f.readline().rstrip("\n").split("\t")
        for line in f:
            v = line.rstrip("\n").split("\t")
            if len(v) >= 4:
                rows[v[0]] = dict(zip(head, v))
    return rows


def detected(row):
    return row["status"] in ("caught", "timeout")


def compare(before_path, after_path):
    before, after = read_results(before_path), read_results(after_path)
    ids = list(before)
    built_b = [i for i in ids if before[i]["status"] != "build-failed"]
    caught_b = [i for i in ids if detected(before[i])]
    caught_a = [i for i in after if detected(after[i])]
    lost = [i for i in caught_b if i not in after or not detected(after[i])]
    print(f"mutants:       {len(ids)}")
    print(f"built:         {len(built_b)}")
    print(f"caught before: {len(caught_b)}")
    print(f"caught after:  {len(caught_a)}")
    missing = [i for i in caught_b if i not in after]
    print(f"caught before, not after: {len(lost)}")
    for i in lost:
        why = "not run after" if i in missing else after[i]["status"]
        print(f"  {i}\t{why}\t{before[i].get('failed', '')}")
    return 1 if lost else 0


def summary(path):
    rows = read_results(path)
    counts = {}
    for r in rows.values():
        counts[r["status"]] = counts.get(r["status"], 0) + 1
    secs = sum(int(r.get("seconds") or 0) for r in rows.values())
    print(f"mutants: {len(rows)}, built: {len(rows) - counts.get('build-failed', 0)}, "
          f"caught: {counts.get('caught', 0)}, timed out: {counts.get('timeout', 0)}, "
          f"survived: {counts.get('survived', 0)}, build failed: {counts.get('build-failed', 0)}; "
          f"{secs / 60:.0f} min of mutants")
    by_area = {}
    for r in rows.values():
        a = by_area.setdefault(r.get("area", ""), [0, 0])
        a[0] += 1
        a[1] += detected(r)
    print("by area: " + ", ".join(f"{a} {c}/{n}" for a, (n, c) in sorted(by_area.items())))
    for r in rows.values():
        if r["status"] in ("survived", "build-failed"):
            print(f"  {r['status']}: {r['id']} ({r['kind']}): {r.get('desc', '')}")
    return 0


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--tree", default=os.path.dirname(os.path.dirname(HERE)),
                    help="the source tree to mutate (default: this checkout)")
    ap.add_argument("--build", help="its build tree (default: TREE/build-mutants)")
    ap.add_argument("--mutants", default=os.path.join(HERE, "mutants.toml"))
    ap.add_argument("--only", help="comma-separated mutant ids")
    ap.add_argument("--out", default="mutants.tsv", help="results (TSV, written as it goes)")
    ap.add_argument("--resume", action="store_true", help="skip the mutants already in --out")
    ap.add_argument("--jobs", type=int, default=2, help="parallel build and test jobs")
    ap.add_argument("--timeout", type=int, default=120, help="ctest's per-test timeout (s)")
    ap.add_argument("--wall", type=int, default=1200, help="wall limit of a build or a suite (s)")
    ap.add_argument("--exclude", default="", help="ctest -E regex of tests not to run")
    ap.add_argument("--targets", default="",
                    help="comma-separated build targets: with --include, only the programs of the "
                         "tests it selects need building (the build tree must have been built whole once)")
    ap.add_argument("--include", default="",
                    help="ctest -R regex: run only these tests (what a chosen set of tests "
                         "catches on its own)")
    ap.add_argument("--all-failures", action="store_true",
                    help="run the whole chosen suite for each mutant and record every test that "
                         "failed (the catcher matrix), not just the first")
    ap.add_argument("--retries", type=int, default=2,
                    help="a test fails only when it fails this many runs in a row (ctest --repeat)")
    ap.add_argument("--logs", help="directory for each mutant's build or ctest output")
    ap.add_argument("--check", action="store_true", help="check the snippets only")
    ap.add_argument("--baseline", action="store_true", help="build and test the unmutated tree")
    ap.add_argument("--compare", nargs=2, metavar=("BEFORE", "AFTER"))
    ap.add_argument("--summary", metavar="RESULTS", help="the figures of one results file")
    args = ap.parse_args()

    if args.compare:
        return compare(*args.compare)
    if args.summary:
        return summary(args.summary)

    args.tree = os.path.abspath(args.tree)
    if args.build is None:
        args.build = os.path.join(args.tree, "build-mutants")
    mutants = load_mutants(args.mutants)
    if args.only:
        want = args.only.split(",")
        unknown = [i for i in want if i not in {m["id"] for m in mutants}]
        if unknown:
            sys.exit("mutants: unknown ids: " + ", ".join(unknown))
        mutants = [m for m in mutants if m["id"] in want]

    tops = sorted({mutant_root(m) for m in mutants} | {"src"})
    files = {top: source_files(args.tree, top) for top in tops}
    problems = []
    for m in mutants:
        try:
            locate(m, files)
        except ValueError as e:
            problems.append(str(e))
    if problems:
        print("\n".join(problems), file=sys.stderr)
        sys.exit(f"mutants: {len(problems)} snippet(s) do not apply to {args.tree}")
    if args.check:
        print(f"{len(mutants)} mutants, every snippet found once under {args.tree}/"
              + ",".join(tops))
        return 0
    if tree_clean(args.tree, tops) is False:
        sys.exit(f"mutants: {args.tree}/{','.join(tops)} has changes of its own; refusing to mutate it")

    signal.signal(signal.SIGTERM, on_signal)
    signal.signal(signal.SIGHUP, on_signal)
    runner = Runner(args)
    try:
        runner.configure()
        if args.baseline:
            t0 = time.time()
            rc, out = runner.build_tree(args.wall)
            if rc != 0:
                sys.stdout.write(out[-4000:])
                print(f"baseline: the build failed ({time.time() - t0:.0f} s)")
                return 1
            t1 = time.time()
            before = set(segments())
            rc, out = runner.suite(stop_on_failure=False)
            remove_leftovers(before, t1)
            if args.logs:
                write(os.path.join(args.logs, "baseline.log"), out)
            tail = [line for line in out.splitlines() if "tests passed" in line or "Total Test time" in line]
            print("\n".join(tail))
            failed = failed_tests(out)
            print(f"baseline: build {t1 - t0:.0f} s, suite {time.time() - t1:.0f} s, "
                  f"{'green' if rc == 0 else 'RED: ' + ', '.join(failed) or 'timeout'}")
            return 0 if rc == 0 else 1

        # The unmutated tree first, so that the first mutant's build is its own.
        rc, out = runner.build_tree(args.wall)
        if rc != 0:
            sys.stdout.write(out[-4000:])
            sys.exit("mutants: the unmutated tree does not build")

        done = read_results(args.out) if args.resume and os.path.exists(args.out) else {}
        mode = "a" if done else "w"
        t_all = time.time()
        with open(args.out, mode) as res:
            if not done:
                res.write("\t".join(FIELDS) + "\n")
                res.flush()
            for k, m in enumerate(mutants, 1):
                if m["id"] in done:
                    continue
                status, secs, failed, path = runner.run_one(m, files)
                row = [m["id"], m.get("area", ""), m["kind"], status, f"{secs:.0f}",
                       ", ".join(failed).replace("\t", " "), m["desc"].replace("\t", " ")]
                res.write("\t".join(row) + "\n")
                res.flush()
                rel = os.path.relpath(path, args.tree)
                print(f"[{k}/{len(mutants)}] {m['id']:<26} {status:<12} {secs:5.0f} s  {rel}"
                      f"{'  ' + failed[0] if failed else ''}", flush=True)
                if tree_clean(args.tree, tops) is False:
                    sys.exit(f"mutants: {args.tree}/{','.join(tops)} is not clean after {m['id']}")
        print(f"wall time: {time.time() - t_all:.0f} s")
        # Leave the build tree matching the unmutated source.
        runner.build_tree(args.wall)
    except (KeyboardInterrupt, Stop) as e:
        print(f"mutants: stopped ({e or 'interrupted'}); the source is restored", file=sys.stderr)
        return 130
    finally:
        runner.close()
        if tree_clean(args.tree, tops) is False:
            print(f"mutants: WARNING: {args.tree}/{','.join(tops)} is not clean", file=sys.stderr)
    return 0


if __name__ == "__main__":
    sys.exit(main())
