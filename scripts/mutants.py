#!/usr/bin/env python3
"""Seeded mutation sampler: how many small faults in the product does the suite find?

Picks N mutation sites from the product sources, deterministically from a
seed (same seed and same tree give the same mutants), and for each one
applies it, builds the tree incrementally, runs the plain ctest suite and
restores the file byte for byte. A mutant that does not compile, or whose
file no built object depends on, is not counted. A run that fails or times
out kills the mutant. The kill rate is killed / (killed + survived).

Kinds of mutant, chosen in equal shares:
  flip   a comparison negated: < and >=, > and <=, == and != swapped
  bound  a bound moved by one: < and <=, > and >= swapped, or an integer
         constant plus or minus one
  drop   a simple statement (an assignment or a call on one line) removed
  logic  && and || swapped

Comments, string and character literals and preprocessor lines are never
mutated. Operators count only where the code's format writes them with a
space on each side, which tells a comparison from a template bracket.

Usage: scripts/mutants.sh [options]
  --seed S        seed of the sample (default 26)
  -n N            number of sites (default 40)
  --build DIR     build directory, configured and built already (default build)
  --paths P,...   folders or files to draw from (default: the library folders
                  runtime foundation conn flow rules web attributes config plugins,
                  and decoders)
  --timeout SEC   wall-clock limit of one suite run (default: 3 times a clean
                  run, at least 60); a run past it kills the mutant
  --jobs J        build and ctest parallelism (default 2)
  --ctest-args A  extra arguments for ctest, one string (e.g. "-R IpPortRule")
  --target T      build only this target (repeatable), for a run restricted
                  with --ctest-args to the tests of a few programs
  --list          print the sampled sites and stop, building nothing

The seed set of record is the default: seed 26, 40 sites over the default folders: the
figures before and after a change of the tests are taken with exactly that.
"""

import argparse
import json
import os
import random
import re
import signal
import subprocess
import sys
import time

LIBRARY = ["runtime", "foundation", "conn", "flow", "rules", "web", "attributes", "config",
           "plugins", "decoders"]
KINDS = ["flip", "bound", "drop", "logic"]
FLIP = {"<": ">=", ">=": "<", ">": "<=", "<=": ">", "==": "!=", "!=": "=="}
BOUND = {"<": "<=", "<=": "<", ">": ">=", ">=": ">"}
STATEMENT_KEYWORDS = {
    "return", "break", "continue", "goto", "case", "default", "if", "else", "for", "while", "do",
    "switch", "using", "typedef", "static_assert", "namespace", "template", "class", "struct",
    "enum", "union", "public", "private", "protected", "friend", "typename", "const", "static",
    "constexpr", "inline", "explicit", "operator", "extern", "virtual", "auto", "delete", "new",
    "throw", "co_return",
}


def code_mask(text):
    """A list of booleans: True where a character is code, False inside a comment,
    a string or character literal, or a preprocessor line."""
    n = len(text)
    mask = [True] * n
    i = 0
    line_start = True
    while i < n:
        c = text[i]
        if c == "\n":
            line_start = True
            i += 1
            continue
        if line_start and c in " \t":
            i += 1
            continue
        if line_start and c == "#":
            # A directive, with its continuation lines.
            j = i
            while j < n:
                if text[j] == "\n" and text[j - 1] != "\\":
                    break
                # A comment inside the directive ends with it too.
                j += 1
            for k in range(i, j):
                mask[k] = False
            i = j
            continue
        line_start = False
        if text.startswith("//", i):
            j = text.find("\n", i)
            j = n if j < 0 else j
            for k in range(i, j):
                mask[k] = False
            i = j
            continue
        if text.startswith("/*", i):
            j = text.find("*/", i + 2)
            j = n if j < 0 else j + 2
            for k in range(i, j):
                mask[k] = False
            i = j
            continue
        m = re.compile(r'(?:u8|u|U|L)?R"([^()\\ ]{0,16})\(').match(text, i)
        if m and (i == 0 or not (text[i - 1].isalnum() or text[i - 1] == "_")):
            end = text.find(")" + m.group(1) + '"', m.end())
            j = n if end < 0 else end + len(m.group(1)) + 2
            for k in range(i, j):
                mask[k] = False
            i = j
            continue
        if c == '"' or c == "'":
            j = i + 1
            while j < n and text[j] != c and text[j] != "\n":
                j += 2 if text[j] == "\\" else 1
            j = min(j + 1, n)
            for k in range(i, j):
                mask[k] = False
            i = j
            continue
        if c.isdigit() and (i == 0 or not (text[i - 1].isalnum() or text[i - 1] == "_")):
            # A number, digit separators included, stays code.
            m = re.compile(r"[0-9][0-9A-Za-z_.']*").match(text, i)
            i = m.end()
            continue
        if c.isalpha() or c == "_":
            m = re.compile(r"[A-Za-z_][A-Za-z0-9_]*").match(text, i)
            i = m.end()
            continue
        i += 1
    return mask


def is_code(mask, start, end):
    return all(mask[start:end])


OPERATOR = re.compile(r"(?<=\S) (<=|>=|==|!=|<|>|&&|\|\|) (?=\S)")
INTEGER = re.compile(r"(?<![A-Za-z0-9_.'])(0[xX][0-9A-Fa-f]+|[0-9]+)([uUlL]*)(?![A-Za-z0-9_.'])")
LVALUE = r"\*?[A-Za-z_]\w*(?:(?:\.|->|::)[A-Za-z_]\w*|\[[^\]\n]*\]|\(\))*"
ASSIGNMENT = re.compile(r"^(\s*)(" + LVALUE + r")\s*(?:=(?!=)|\+=|-=|\*=|/=|%=|&=|\|=|\^=|<<=|>>=)"
                        r".*;\s*$|^(\s*)(?:\+\+|--)?(" + LVALUE + r")(?:\+\+|--)?;\s*$")
CALL = re.compile(r"^(\s*)(" + LVALUE + r")\s*\(.*\);\s*$")


def balanced(s):
    depth = 0
    for ch in s:
        if ch in "([{":
            depth += 1
        elif ch in ")]}":
            depth -= 1
            if depth < 0:
                return False
    return depth == 0


def sites_of(path, text):
    """Every mutation site of one file: (kind, offset, old, new, line)."""
    mask = code_mask(text)
    out = []
    line_of = []
    line = 1
    for ch in text:
        line_of.append(line)
        if ch == "\n":
            line += 1

    for m in OPERATOR.finditer(text):
        op = m.group(1)
        s, e = m.start(1), m.end(1)
        if not is_code(mask, m.start(), m.end()):
            continue
        # The spaces around the operator rule out shifts, '->' and template
        # brackets; an operator's own name is no comparison either.
        before = text[max(0, s - 12):s]
        if "operator" in before or "template" in before:
            continue
        line_text = text[text.rfind("\n", 0, s) + 1:text.find("\n", s)]
        if "static_assert" in line_text:
            continue  # compile-time checks fail the build, not the suite
        if op in ("&&", "||"):
            out.append(("logic", s, op, "||" if op == "&&" else "&&", line_of[s]))
            continue
        out.append(("flip", s, op, FLIP[op], line_of[s]))
        if op in BOUND:
            out.append(("bound", s, op, BOUND[op], line_of[s]))

    for m in INTEGER.finditer(text):
        s, e = m.start(1), m.end(1)
        if not is_code(mask, m.start(), m.end()):
            continue
        # Template arguments and compile-time checks rarely compile mutated.
        if text[s - 1] == "<" or text[e:e + 1] == ">":
            continue
        line_text = text[text.rfind("\n", 0, s) + 1:text.find("\n", s)]
        if "static_assert" in line_text or "alignas" in line_text:
            continue
        lit = m.group(1)
        hexa = lit.lower().startswith("0x")
        if not hexa and len(lit) > 1 and lit.startswith("0"):
            continue  # octal, as file modes are written
        value = int(lit, 16 if hexa else 10)
        for delta in (1, -1):
            v = value + delta
            if v < 0:
                continue
            new = (lit[:2] + ("%X" if lit[2:].isupper() else "%x") % v) if hexa else str(v)
            out.append(("bound", s, lit, new, line_of[s]))

    offset = 0
    lines = text.split("\n")
    prev_code = ""
    for idx, raw in enumerate(lines):
        start = offset
        offset += len(raw) + 1
        code = "".join(ch for k, ch in enumerate(raw) if mask[start + k]).rstrip()
        if not code.strip():
            continue
        stripped = code.strip()
        previous = prev_code
        prev_code = stripped
        label = re.match(r"(case\b|default\s*:)", previous) and previous.endswith(":")
        if not (previous.endswith((";", "{", "}")) or label):
            continue
        if not code.endswith(";") or not balanced(code):
            continue
        first = re.match(r"[A-Za-z_]\w*", stripped)
        if first and first.group(0) in STATEMENT_KEYWORDS:
            continue
        if not (ASSIGNMENT.match(code) or CALL.match(code)):
            continue
        # Remove the statement's own characters and keep the line (and any comment).
        body_start = start + (len(raw) - len(raw.lstrip()))
        body_end = max(k for k in range(start, start + len(raw)) if text[k] == ";" and mask[k]) + 1
        if not is_code(mask, body_start, body_end):
            continue
        old = text[body_start:body_end]
        out.append(("drop", body_start, old, "", idx + 1))
    return out


def source_files(root, paths):
    files = []
    for p in paths:
        full = os.path.join(root, p)
        if os.path.isfile(full):
            files.append(p)
            continue
        for dirpath, _, names in os.walk(full):
            for name in names:
                if name.endswith((".cpp", ".h")):
                    files.append(os.path.relpath(os.path.join(dirpath, name), root))
    return sorted(set(files))


def sample(root, paths, seed, count):
    by_kind = {k: [] for k in KINDS}
    for rel in source_files(root, paths):
        with open(os.path.join(root, rel), "rb") as f:
            text = f.read().decode("utf-8", "surrogateescape")
        for kind, off, old, new, line in sites_of(rel, text):
            by_kind[kind].append((rel, off, line, kind, old, new))
    rng = random.Random(seed)
    chosen = []
    for i, kind in enumerate(KINDS):
        share = count // len(KINDS) + (1 if i < count % len(KINDS) else 0)
        pool = sorted(by_kind[kind])
        chosen += rng.sample(pool, min(share, len(pool)))
    totals = {k: len(v) for k, v in by_kind.items()}
    # Run in file order, so that consecutive mutants often rebuild the same objects.
    return sorted(chosen), totals


def object_dependencies(build):
    """Source files (absolute) that some built object depends on."""
    out = subprocess.run(["ninja", "-C", build, "-t", "deps"], capture_output=True, text=True,
                         check=True).stdout
    deps = set()
    for line in out.splitlines():
        if line.startswith("    "):
            deps.add(os.path.realpath(os.path.join(build, line.strip())))
    return deps


class Restorer:
    """Keeps the original bytes of the file under mutation and puts them back on
    every way out: normal end, failure, Ctrl-C or SIGTERM. A journal in the build
    directory lets a later run restore after a hard kill."""

    def __init__(self, root, build):
        self.root = root
        self.journal = os.path.join(build, "mutants-journal.json")
        self.path = None
        self.original = None
        if os.path.exists(self.journal):
            with open(self.journal) as f:
                j = json.load(f)
            self.path = j["path"]
            self.original = bytes.fromhex(j["original"])
            print("restoring %s after an interrupted run" % self.path, file=sys.stderr)
            self.restore()

    def mutate(self, rel, data, new_data):
        self.path = os.path.join(self.root, rel)
        self.original = data
        with open(self.journal, "w") as f:
            json.dump({"path": self.path, "original": data.hex()}, f)
        with open(self.path, "wb") as f:
            f.write(new_data)

    def restore(self):
        if self.path is None:
            return
        with open(self.path, "wb") as f:
            f.write(self.original)
        self.path = None
        self.original = None
        if os.path.exists(self.journal):
            os.remove(self.journal)


def run(cmd, cwd, limit=None):
    """Runs a command in its own process group; returns (code, output, timed_out)."""
    p = subprocess.Popen(cmd, cwd=cwd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                         text=True, errors="replace", start_new_session=True)
    try:
        out, _ = p.communicate(timeout=limit)
        return p.returncode, out, False
    except subprocess.TimeoutExpired:
        os.killpg(p.pid, signal.SIGKILL)
        out, _ = p.communicate()
        return -1, out, True
    except BaseException:
        os.killpg(p.pid, signal.SIGKILL)
        p.wait()
        raise


def failed_tests(output):
    names = re.findall(r"^\s*\d+ - (\S+) \(", output, re.M)
    return names


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0],
                                 formatter_class=argparse.RawDescriptionHelpFormatter,
                                 epilog="\n".join(__doc__.split("\n")[2:]))
    ap.add_argument("--seed", type=int, default=26)
    ap.add_argument("-n", type=int, default=40)
    ap.add_argument("--build", default="build")
    ap.add_argument("--paths", default=",".join(LIBRARY))
    ap.add_argument("--timeout", type=float, default=0)
    ap.add_argument("--jobs", type=int, default=2)
    ap.add_argument("--ctest-args", default="")
    ap.add_argument("--target", action="append", default=[])
    ap.add_argument("--list", action="store_true")
    args = ap.parse_args()

    root = os.path.realpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
    build = os.path.realpath(args.build if os.path.isabs(args.build)
                             else os.path.join(os.getcwd(), args.build))
    paths = [p.strip().rstrip("/") for p in args.paths.split(",") if p.strip()]
    chosen, totals = sample(root, paths, args.seed, args.n)

    print("mutation sample: seed %d, n %d, paths %s" % (args.seed, args.n, ",".join(paths)))
    print("sites available: " + ", ".join("%s %d" % (k, totals[k]) for k in KINDS))
    if args.list:
        for rel, off, line, kind, old, new in chosen:
            print("%-5s %s:%d  %r -> %r" % (kind, rel, line, old, new))
        return 0

    if not os.path.exists(os.path.join(build, "build.ninja")):
        print("%s is not a configured Ninja build directory" % build, file=sys.stderr)
        return 2
    restorer = Restorer(root, build)

    def on_signal(signum, _frame):
        raise KeyboardInterrupt("signal %d" % signum)

    signal.signal(signal.SIGTERM, on_signal)
    signal.signal(signal.SIGHUP, on_signal)

    build_cmd = ["cmake", "--build", build, "-j", str(args.jobs)]
    for target in args.target:
        build_cmd += ["--target", target]
    ctest_cmd = ["ctest", "-j", str(args.jobs), "--stop-on-failure", "--output-on-failure"]
    ctest_cmd += args.ctest_args.split()

    code, out, _ = run(build_cmd, root)
    if code != 0:
        print(out[-3000:])
        print("the unmutated tree does not build", file=sys.stderr)
        return 2
    t0 = time.monotonic()
    code, out, _ = run(ctest_cmd, build)
    clean = time.monotonic() - t0
    if code != 0:
        print(out[-3000:])
        print("the suite fails on the unmutated tree", file=sys.stderr)
        return 2
    limit = args.timeout or max(60.0, 3 * clean)
    print("clean suite run: %.0f s; limit per mutant run: %.0f s" % (clean, limit))
    built = object_dependencies(build)

    results = []
    started = time.monotonic()
    print()
    print("%-3s %-8s %-5s %-44s %-28s %s" % ("#", "result", "kind", "site", "mutation", "by"))
    try:
        for i, (rel, off, line, kind, old, new) in enumerate(chosen, 1):
            full = os.path.join(root, rel)
            with open(full, "rb") as f:
                data = f.read()
            text = data.decode("utf-8", "surrogateescape")
            assert text[off:off + len(old)] == old, (rel, off, old)
            mutated = (text[:off] + new + text[off + len(old):]).encode("utf-8", "surrogateescape")
            by = ""
            if os.path.realpath(full) not in built:
                result = "unbuilt"
            else:
                restorer.mutate(rel, data, mutated)
                try:
                    code, out, _ = run(build_cmd, root)
                    if code != 0:
                        result = "nocompile"
                    else:
                        code, out, timed_out = run(ctest_cmd, build, limit)
                        if timed_out:
                            result, by = "killed", "(time-out)"
                        elif code != 0:
                            names = failed_tests(out)
                            result, by = "killed", (names[0] if names else "(ctest %d)" % code)
                        else:
                            result = "survived"
                finally:
                    restorer.restore()
            shown = "%r -> %r" % (old if len(old) <= 12 else old[:10] + "..", new)
            print("%-3d %-8s %-5s %-44s %-28s %s" % (i, result, kind, "%s:%d" % (rel, line),
                                                    shown, by), flush=True)
            results.append((result, kind))
    finally:
        restorer.restore()
        # Leave the build as the tree is.
        run(build_cmd, root)

    counts = {r: sum(1 for x, _ in results if x == r)
              for r in ("killed", "survived", "nocompile", "unbuilt")}
    print()
    for kind in KINDS:
        k = sum(1 for r, kd in results if kd == kind and r == "killed")
        s = sum(1 for r, kd in results if kd == kind and r == "survived")
        print("%-5s killed %d, survived %d" % (kind, k, s))
    scored = counts["killed"] + counts["survived"]
    rate = 100.0 * counts["killed"] / scored if scored else 0.0
    print("killed %d, survived %d, not compiling %d, not built %d" %
          (counts["killed"], counts["survived"], counts["nocompile"], counts["unbuilt"]))
    print("kill rate: %d/%d = %.1f %%  (seed %d, n %d, %.0f min)" %
          (counts["killed"], scored, rate, args.seed, args.n,
           (time.monotonic() - started) / 60))
    return 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        print("interrupted; the mutated file was restored", file=sys.stderr)
        sys.exit(130)
