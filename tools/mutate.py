#!/usr/bin/env python3
"""Mutation testing of the suite: how many planted faults does it find?

Each entry of tools/mutations.txt names a source file, one exact piece of text in
it and what replaces it (a sign flip, a bound moved by one, a dropped term, a
wrong constant).  The harness copies the tracked tree into build/mutate/tree,
builds it once (bounds checking on, optimised, one thread), checks that the
unmutated suite passes, and then for each mutation: writes the mutated file,
rebuilds, runs the suite label by label (the quick unit suites first, the whole
runs last) and stops at the first failure.  A mutation is killed when a test
fails (or the build refuses it: that is counted apart and not in the score),
survived when the whole suite passes.  The copy is restored after each one.

    tools/mutate.py                 all mutations
    tools/mutate.py --only 3,7      some of them (numbers as listed by --list)
    tools/mutate.py --list          the list, nothing run
    tools/mutate.py --rev 43dc1f6   the suite of an earlier commit (its tree
                                    from git, the list of this checkout)
    tools/mutate.py --work DIR      the copy and its build in DIR
    tools/mutate.py --no-baseline   without the first run of the unmutated suite
"""
import argparse
import os
import shutil
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
WORK = os.path.join(ROOT, "build", "mutate")
TREE = os.path.join(WORK, "tree")
BUILD = os.path.join(WORK, "build")


def set_work(path):
    """Another folder for the copy and its build, so that two runs can go side by side."""
    global WORK, TREE, BUILD
    WORK = os.path.abspath(path)
    TREE = os.path.join(WORK, "tree")
    BUILD = os.path.join(WORK, "build")
# Cheap suites first, so that most killed mutations cost seconds.
LABELS = ["base", "numerics", "parallel", "system", "neighbours", "model", "run",
          "dynamics", "orbital", "operators", "diag", "kpm", "python", "regression"]


def parse(path):
    """Blocks of '== subsystem: what', the file, '- old text', '+ new text'."""
    muts, cur = [], None
    with open(path) as f:
        for raw in f:
            line = raw.rstrip("\n")
            if line.startswith("#") or not line.strip():
                continue
            if line.startswith("== "):
                cur = {"title": line[3:].strip(), "file": None, "old": None, "new": None}
                muts.append(cur)
            elif cur is None:
                sys.exit(f"mutations: text before the first '==': {line}")
            elif line.startswith("- "):
                cur["old"] = line[2:]
            elif line.startswith("+ "):
                cur["new"] = line[2:]
            elif line == "+":
                cur["new"] = ""
            else:
                cur["file"] = line.strip()
    for i, m in enumerate(muts, 1):
        if not m["file"] or m["old"] is None or m["new"] is None:
            sys.exit(f"mutations: entry {i} ({m['title']}) needs a file, '- old' and '+ new'")
    return muts


def check_applies(muts, base):
    bad = 0
    for i, m in enumerate(muts, 1):
        path = os.path.join(base, m["file"])
        text = open(path).read() if os.path.exists(path) else ""
        n = text.count(m["old"])
        if n != 1:
            print(f"mutation {i} ({m['title']}): its text stands {n} times in {m['file']}")
            bad += 1
    return bad == 0


def run(cmd, cwd, log, timeout=None):
    with open(log, "a") as out:
        out.write(f"\n$ {' '.join(cmd)}\n")
        out.flush()
        try:
            return subprocess.run(cmd, cwd=cwd, stdout=out, stderr=subprocess.STDOUT,
                                  timeout=timeout).returncode
        except subprocess.TimeoutExpired:
            out.write("timed out\n")
            return -1


def copy_tree(rev):
    if rev:
        # The tree of a commit, unpacked afresh (so its time stamps are new).
        shutil.rmtree(TREE, ignore_errors=True)
        os.makedirs(TREE)
        archive = subprocess.run(["git", "archive", rev], cwd=ROOT, capture_output=True,
                                 check=True).stdout
        subprocess.run(["tar", "-x", "-C", TREE], input=archive, check=True)
        return
    files = subprocess.run(["git", "ls-files"], cwd=ROOT, capture_output=True, text=True,
                           check=True).stdout.split()
    # Files the checkout no longer has (a commit's tree before, a deleted test) go.
    keep = set(files)
    for base, _, names in os.walk(TREE):
        for n in names:
            rel = os.path.relpath(os.path.join(base, n), TREE)
            if rel not in keep:
                os.remove(os.path.join(base, n))
    for rel in files:
        src, dst = os.path.join(ROOT, rel), os.path.join(TREE, rel)
        if not os.path.isfile(src):
            continue
        os.makedirs(os.path.dirname(dst), exist_ok=True)
        # Keep the time stamps of unchanged files, so that the build stays incremental.
        if not os.path.exists(dst) or open(src, "rb").read() != open(dst, "rb").read():
            shutil.copy2(src, dst)


def build(log, jobs):
    return run(["cmake", "--build", BUILD, "-j", str(jobs)], TREE, log) == 0


def suite(log, jobs):
    """The first label whose tests fail, or None when all pass."""
    for label in LABELS:
        rc = run(["ctest", "-L", f"^{label}$", "-j", str(jobs), "--stop-on-failure",
                  "--timeout", "600", "--output-on-failure"], BUILD, log, timeout=3600)
        if rc != 0:
            return label
    return None


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--list", action="store_true")
    ap.add_argument("--only", default="")
    ap.add_argument("--jobs", type=int, default=2)
    ap.add_argument("--rev", default="", help="a commit whose tree and suite to mutate")
    ap.add_argument("--file", default=os.path.join(ROOT, "tools", "mutations.txt"))
    ap.add_argument("--work", default="", help="folder of the copy and its build (build/mutate)")
    ap.add_argument("--no-baseline", action="store_true",
                    help="skip the run of the unmutated suite (one that passed in this folder)")
    args = ap.parse_args()
    if args.work:
        set_work(args.work)
    muts = parse(args.file)
    if args.list:
        for i, m in enumerate(muts, 1):
            print(f"{i:3d} {m['title']}  [{m['file']}]")
        return 0
    os.makedirs(TREE, exist_ok=True)
    copy_tree(args.rev)
    if not check_applies(muts, TREE):
        return 2
    chosen = range(1, len(muts) + 1)
    if args.only:
        chosen = [int(x) for x in args.only.split(",")]

    log = os.path.join(WORK, "mutate.log")
    open(log, "w").close()
    cfg = ["cmake", "-S", TREE, "-B", BUILD, "-DCMAKE_BUILD_TYPE=Release",
           "-DCMAKE_CXX_FLAGS_RELEASE=-O2", "-DLYRT_BOUNDS_CHECK=ON", "-DLYRT_OPENMP=OFF",
           "-DLYRT_TESTS=ON"]
    if run(cfg, TREE, log) != 0 or not build(log, args.jobs):
        print(f"the unmutated tree does not build; see {log}")
        return 2
    t0 = time.time()
    failed = None if args.no_baseline else suite(log, args.jobs)
    if failed is not None:
        print(f"the unmutated suite fails ({failed}); see {log}")
        return 2
    if not args.no_baseline:
        print(f"unmutated suite passes in {time.time() - t0:.0f} s")

    killed = survived = refused = 0
    survivors = []
    for i in chosen:
        m = muts[i - 1]
        path = os.path.join(TREE, m["file"])
        original = open(path).read()
        t0 = time.time()
        with open(log, "a") as out:
            out.write(f"\n===== mutation {i}: {m['title']}\n")
        try:
            with open(path, "w") as f:
                f.write(original.replace(m["old"], m["new"], 1))
            if not build(log, args.jobs):
                verdict = "refused by the build"
                refused += 1
            else:
                label = suite(log, args.jobs)
                if label is None:
                    verdict = "SURVIVED"
                    survived += 1
                    survivors.append(i)
                else:
                    verdict = f"killed ({label})"
                    killed += 1
        finally:
            with open(path, "w") as f:
                f.write(original)
        print(f"{i:3d} {verdict:22s} {time.time() - t0:6.0f} s  {m['title']}", flush=True)
    build(log, args.jobs)
    scored = killed + survived
    score = 100.0 * killed / scored if scored else 0.0
    print(f"killed {killed}, survived {survived}, refused by the build {refused}: "
          f"score {score:.1f}%")
    if survivors:
        print("survivors: " + ", ".join(str(i) for i in survivors))
    return 0


if __name__ == "__main__":
    sys.exit(main())
