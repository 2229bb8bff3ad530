#!/usr/bin/python3
"""Mutation testing for libTAVRO: how many small faults in src/ do the tests catch?

Draws random lines of the library's sources with a fixed seed, applies one
mutation to each (flip a comparison, negate a condition, delete a call or an
assignment, change a constant by one, swap a returned truth value), rebuilds
incrementally, runs the chosen ctest labels inside a private network namespace
(`unshare -n`, so the fixed service ports never clash with other runs) and
reverts the file: always, also on Ctrl-C or a failed build. Mutants that do not
compile are dropped and another line is drawn. Prints each mutant's outcome,
the fraction caught and every survivor.

With --sanitizer-build, a survivor is tried once more in that configured
AddressSanitizer+UndefinedBehaviorSanitizer build: leaks and overflows are
faults that only it sees. Survivors that cannot change behaviour go into a set-aside file (default
tools/mutate-equivalent.txt), one per line:
    <path> TAB <original line> TAB <mutated line> TAB <reason>
(lines stripped of indentation). They are listed but not counted.

Exit codes: 0 done, 1 a survivor that is not set aside, 2 usage or set-up
error (build dir missing, baseline fails), 130 interrupted.
"""
import argparse
import os
import random
import re
import signal
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
DEFAULT_DIRS = ["src/Cr", "src/Io", "src/Os", "src/Common/OS", "src/Ap"]

COMPARE = [(" == ", " != "), (" != ", " == "), (" <= ", " > "), (" >= ", " < "), (" < ", " >= "), (" > ", " <= ")]
KEYWORDS = ("return", "if", "else", "for", "while", "switch", "case", "delete", "new", "throw", "do", "break",
            "continue", "goto", "default")


def code_part(line):
    """The line without a trailing // comment; None for lines that hold no code to mutate."""
    s = line.strip()
    if not s or s.startswith(("//", "#", "*", "/*")) or "static_assert" in s:
        return None
    if '"' in s or "'" in s:
        return None  # keep the system's own texts and character constants intact
    i = line.find("//")
    return line if i < 0 else line[:i]


def balanced(s):
    return s.count("(") == s.count(")")


def find_close(s, open_idx):
    depth = 0
    for i in range(open_idx, len(s)):
        if s[i] == "(":
            depth += 1
        elif s[i] == ")":
            depth -= 1
            if depth == 0:
                return i
    return -1


def mutations(line):
    """Every (kind, mutated line) that applies to one source line."""
    code = code_part(line)
    if code is None:
        return []
    out = []
    indent = line[: len(line) - len(line.lstrip())]
    s = code.strip()
    for a, b in COMPARE:
        start = 0
        while True:
            i = code.find(a, start)
            if i < 0:
                break
            # ' < ' inside template arguments or stream insertion is not a comparison
            if not (a.strip() in "<>" and ("<<" in code or ">>" in code or "template" in code)):
                out.append(("flip " + a.strip(), line[:i] + b + line[i + len(a):]))
            start = i + 1
    for kw in ("if (", "while ("):
        i = code.find(kw)
        if i >= 0:
            o = i + len(kw) - 1
            c = find_close(code, o)
            if c > 0:
                out.append(("negate " + kw[:-2], line[: o + 1] + "!(" + line[o + 1: c] + ")" + line[c:]))
    first = re.match(r"[A-Za-z_]\w*", s)
    if s.endswith(");") and balanced(s) and first and first.group(0) not in KEYWORDS and "(" in s:
        head = s[: s.index("(")]
        if "=" not in head and " " not in head.strip():  # a call, not a declaration
            out.append(("delete call", indent + ";\n"))
    m = re.match(r"^([\w.\[\]>*-]+)\s*(=|\+=|-=|\|=|&=|\^=)\s*[^=]", s)
    if m and s.endswith(";") and not m.group(1).startswith(KEYWORDS):
        out.append(("delete assignment", indent + ";\n"))
    for m in re.finditer(r"(?<![\w.])(0x[0-9A-Fa-f]+|\d+)(?![\w.])", code):
        text = m.group(1)
        value = int(text, 0)
        new = (hex(value + 1) if text.startswith("0x") else str(value + 1))
        out.append(("constant " + text + "->" + new, line[: m.start()] + new + line[m.end():]))
    for a, b in (("return true;", "return false;"), ("return false;", "return true;"),
                 ("return TRUE;", "return FALSE;"), ("return FALSE;", "return TRUE;")):
        if s == a:
            out.append(("swap return", indent + b + "\n"))
    return out


def candidates(tree, dirs):
    """(path, line index) of every mutable line, grouped by directory."""
    groups = {}
    for d in dirs:
        lines = []
        for base, subdirs, files in os.walk(os.path.join(tree, d)):
            subdirs.sort()
            rel_base = os.path.relpath(base, tree)
            # nested folders listed on their own belong to their own group
            if rel_base != d and any(os.path.normpath(rel_base).startswith(os.path.normpath(o) + os.sep) or
                                     os.path.normpath(rel_base) == os.path.normpath(o)
                                     for o in dirs if o != d and o.startswith(d)):
                continue
            for f in sorted(files):
                if not f.endswith(".cpp"):
                    continue
                rel = os.path.join(rel_base, f)
                with open(os.path.join(tree, rel), encoding="utf-8", errors="replace") as fh:
                    for n, text in enumerate(fh):
                        if mutations(text):
                            lines.append((rel, n))
        groups[d] = lines
    return groups


def load_set_aside(path):
    out = {}
    if path and os.path.exists(path):
        with open(path, encoding="utf-8") as fh:
            for raw in fh:
                if raw.strip() and not raw.startswith("#"):
                    parts = raw.rstrip("\n").split("\t")
                    if len(parts) >= 4:
                        out[(parts[0], parts[1].strip(), parts[2].strip())] = parts[3]
    return out


class Reverter:
    """Puts the original text back whatever happens."""

    def __init__(self):
        self.path = None
        self.text = None

    def apply(self, path, text, mutated):
        self.path, self.text = path, text
        with open(path, "w", encoding="utf-8") as fh:
            fh.write(mutated)

    def revert(self):
        if self.path is not None:
            with open(self.path, "w", encoding="utf-8") as fh:
                fh.write(self.text)
            self.path = self.text = None


def run(cmd, timeout, cwd):
    """(exit code, seconds); -1 on time-out. The whole process group is stopped."""
    start = time.time()
    p = subprocess.Popen(cmd, cwd=cwd, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                         start_new_session=True)
    try:
        rc = p.wait(timeout=timeout)
    except subprocess.TimeoutExpired:
        os.killpg(p.pid, signal.SIGKILL)
        p.wait()
        rc = -1
    except BaseException:
        os.killpg(p.pid, signal.SIGKILL)
        p.wait()
        raise
    return rc, time.time() - start


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0],
                                 epilog="example: /usr/bin/python3 tools/mutate.py --seed 7 --count 45 "
                                        "--build build/native")
    ap.add_argument("--seed", type=int, default=1, help="random seed (default 1)")
    ap.add_argument("--count", type=int, default=40, help="mutants to run (default 40)")
    ap.add_argument("--tree", default=ROOT, help="source tree to mutate (default: this checkout)")
    ap.add_argument("--build", default="build/native", help="configured build dir, relative to --tree")
    ap.add_argument("--dirs", nargs="+", default=DEFAULT_DIRS, help="folders to draw lines from, in turn")
    ap.add_argument("--labels", default="unit|e2e", help="ctest label regex (default unit|e2e)")
    ap.add_argument("--timeout", type=int, default=120,
                    help="seconds allowed for the whole test run; a mutant that hangs it counts as caught "
                         "(default 120)")
    ap.add_argument("--sanitizer-build", default=None,
                    help="configured sanitizer build dir, relative to --tree, in which survivors are tried again")
    ap.add_argument("--jobs", type=int, default=2, help="build and ctest parallelism (default 2)")
    ap.add_argument("--set-aside", default=os.path.join(ROOT, "tools", "mutate-equivalent.txt"),
                    help="file of mutants that cannot change behaviour")
    ap.add_argument("--list", action="store_true", help="only print the mutants that would be tried")
    ap.add_argument("--matrix", action="store_true",
                    help="run every test for every mutant (no stop at the first failure) and report, per test, "
                         "how many mutants it caught and how many only it caught")
    args = ap.parse_args()

    tree = os.path.abspath(args.tree)
    build = os.path.join(tree, args.build)
    if not args.list and not os.path.exists(os.path.join(build, "CMakeCache.txt")):
        print("mutate: no configured build in %s (run cmake first)" % build, file=sys.stderr)
        return 2
    groups = candidates(tree, args.dirs)
    empty = [d for d, v in groups.items() if not v]
    if empty:
        print("mutate: no mutable lines under %s" % ", ".join(empty), file=sys.stderr)
        return 2
    rng = random.Random(args.seed)
    for d in args.dirs:
        rng.shuffle(groups[d])
    set_aside = load_set_aside(args.set_aside)

    def build_cmd_in(b):
        return ["nice", "-n", "10", "cmake", "--build", b, "-j%d" % args.jobs]

    def test_cmd_in(b):
        return ["unshare", "-n", "sh", "-c",
                'ip link set lo up && cd "$0" && exec nice -n 10 ctest -j%d -L "%s"%s'
                % (args.jobs, args.labels, "" if args.matrix else " --stop-on-failure"), b]

    build_cmd, test_cmd = build_cmd_in(build), test_cmd_in(build)
    san = os.path.join(tree, args.sanitizer_build) if args.sanitizer_build else None
    if san and not args.list and not os.path.exists(os.path.join(san, "CMakeCache.txt")):
        print("mutate: no configured build in %s (run cmake first)" % san, file=sys.stderr)
        return 2
    failed_log = os.path.join(build, "Testing", "Temporary", "LastTestsFailed.log")
    kills = {}  # test name -> labels of the mutants it caught

    reverter = Reverter()

    def on_signal(signum, frame):
        raise KeyboardInterrupt

    signal.signal(signal.SIGTERM, on_signal)
    results = []  # (path, lineno, kind, label, outcome, seconds)
    interrupted = False
    try:
        if not args.list:
            rc, _ = run(build_cmd, 3600, tree)
            if rc != 0:
                print("mutate: the unmutated tree does not build", file=sys.stderr)
                return 2
            rc, secs = run(test_cmd, args.timeout, tree)
            if rc != 0:
                print("mutate: the tests fail without any mutation (exit %d)" % rc, file=sys.stderr)
                return 2
            print("baseline: tests pass in %.0f s" % secs, flush=True)
            if san:
                if run(build_cmd_in(san), 3600, tree)[0] != 0 or run(test_cmd_in(san), 4 * args.timeout, tree)[0]:
                    print("mutate: the sanitizer build does not build or pass unmutated", file=sys.stderr)
                    return 2
        turn = 0
        tried = set()
        while len(results) < args.count and any(groups.values()):
            d = args.dirs[turn % len(args.dirs)]
            turn += 1
            if not groups[d]:
                continue
            rel, n = groups[d].pop()
            path = os.path.join(tree, rel)
            with open(path, encoding="utf-8") as fh:
                text = fh.read()
            lines = text.splitlines(keepends=True)
            options = mutations(lines[n])
            kind, new = options[rng.randrange(len(options))]
            if (rel, n, new) in tried:
                continue
            tried.add((rel, n, new))
            mutated = "".join(lines[:n] + [new] + lines[n + 1:])
            label = "%s:%d %s: %s  =>  %s" % (rel, n + 1, kind, lines[n].strip(), new.strip())
            if args.list:
                results.append((rel, n + 1, kind, label, "listed", 0))
                print(label)
                continue
            try:
                reverter.apply(path, text, mutated)
                rc, _ = run(build_cmd, 1800, tree)
                if rc != 0:
                    print("  (does not build, drawn again) " + label, flush=True)
                    continue
                if os.path.exists(failed_log):
                    os.remove(failed_log)
                rc, secs = run(test_cmd, args.timeout, tree)
                if args.matrix and rc != 0 and os.path.exists(failed_log):
                    with open(failed_log, encoding="utf-8", errors="replace") as fh:
                        for entry in fh:
                            name = entry.strip().split(":", 1)[-1]
                            if name:
                                kills.setdefault(name, []).append(label)
                key = (rel, lines[n].strip(), new.strip())
                san_rc = 0
                if san and rc == 0 and key not in set_aside:
                    if run(build_cmd_in(san), 1800, tree)[0] == 0:
                        san_rc, more = run(test_cmd_in(san), 4 * args.timeout, tree)
                        secs += more
            finally:
                reverter.revert()
            if key in set_aside and rc == 0:
                outcome = "set aside: " + set_aside[key]
            elif san_rc != 0:
                outcome = "caught (sanitizer)"
            else:
                outcome = "caught" if rc != 0 else "SURVIVED"
                if rc == -1:
                    outcome = "caught (time-out)"
            results.append((rel, n + 1, kind, label, outcome, secs))
            print("%3d %-18s %5.0fs  %s" % (len(results), outcome.split(":")[0], secs, label), flush=True)
    except KeyboardInterrupt:
        interrupted = True
        reverter.revert()
        print("\nmutate: interrupted; the source is back as it was (rebuild before using the build); "
              "the figures below cover the mutants run so far", file=sys.stderr)
    finally:
        reverter.revert()
        if not args.list and results and not interrupted:
            run(build_cmd, 3600, tree)  # leave the builds matching the source
            if san:
                run(build_cmd_in(san), 3600, tree)
    if args.list:
        return 0
    if not results:
        return 130 if interrupted else 2
    counted = [r for r in results if not r[4].startswith("set aside")]
    caught = [r for r in counted if r[4].startswith("caught")]
    print("\nseed %d: %d of %d mutants caught (%.0f%%), %d set aside" %
          (args.seed, len(caught), len(counted), 100.0 * len(caught) / max(1, len(counted)),
           len(results) - len(counted)))
    for d in args.dirs:
        mine = [r for r in counted if r[0].startswith(d + "/") and
                not any(o != d and o.startswith(d) and r[0].startswith(o + "/") for o in args.dirs)]
        print("  %-16s %d of %d" % (d, sum(1 for r in mine if r[4].startswith("caught")), len(mine)))
    survivors = [r for r in counted if not r[4].startswith("caught")]
    for r in survivors:
        print("SURVIVED " + r[3])
    for r in results:
        if r[4].startswith("set aside"):
            print("%s  %s" % (r[4], r[3]))
    if args.matrix:
        alone = {}
        for test, caught_by in kills.items():
            for m in caught_by:
                if sum(1 for t in kills.values() if m in t) == 1:
                    alone[test] = alone.get(test, 0) + 1
        print("\ncaught per test (total, caught by no other test):")
        for test in sorted(kills, key=lambda t: (-alone.get(t, 0), -len(kills[t]), t)):
            print("  %3d %3d  %s" % (len(kills[test]), alone.get(test, 0), test))
        listing = subprocess.run(["ctest", "-N", "-L", args.labels], cwd=build, capture_output=True, text=True)
        idle = [m.group(1) for m in re.finditer(r"Test +#\d+: (\S+)", listing.stdout) if m.group(1) not in kills]
        print("\ncaught none of these mutants (%d tests):" % len(idle))
        for test in idle:
            print("  " + test)
    if interrupted:
        return 130
    return 1 if survivors else 0


if __name__ == "__main__":
    sys.exit(main())
