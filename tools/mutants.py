#!/usr/bin/python3
"""Plants faults in src/ one at a time and tells which test catches each.

Developer tooling, not run by CI. Four kinds of fault, each a small change a
slip of the hand could make:
  cmp   a comparison or a condition flipped (== !=, < >=, > <=, && ||, a ! dropped)
  int   an integer constant or a result code moved by one
  str   the last character of a string literal dropped (its line feed, where it ends in one)
  call  a call statement deleted

A mutant's id is "FILE:LINE:KIND.N" (N counts the sites of that kind on the
line), so two runs over the same src/ can be compared line by line.

The tool copies the tracked files of the work tree (tests as they stand, even
uncommitted) to build-mutants/tree, builds them in build-mutants/build, then
for each mutant: writes it, rebuilds the installer and the unit tests, runs
the unit tests, and only when they all pass the scenarios of the simulated
host (ctest -L e2e); the preview's tests and the real-kernel tier are
left out. It appends one line per mutant to the table:

  ID<TAB>STATE<TAB>TEST<TAB>CHANGE

STATE is killed, survived, or unbuilt (the compiler refused the mutant).
A table that already holds an id is not run again for it, so a stopped run
goes on where it stopped.

  sudo nice -n 10 tools/mutants.py list [--sample N]             the ids, one a line
  sudo nice -n 10 tools/mutants.py run --table T [--sample N | --ids FILE | ID...]
  tools/mutants.py compare BEFORE AFTER                          baseline-killed mutants that survive now

Code that main never reaches is left out (see UNREACHED).
"""

import argparse
import hashlib
import os
import re
import shutil
import subprocess
import sys
import time

TOP = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
WORK = os.environ.get("MUTANTS_WORK", os.path.join(TOP, "build-mutants"))
TREE = os.path.join(WORK, "tree")
BUILD = os.path.join(WORK, "build")

SOURCES_GLOB_EXCLUDE = re.compile(r"^src/preview/")
HEADERS = {"src/app/result_codes.hpp", "src/app/constants.hpp", "src/system/service_spec.hpp"}

# Functions (file, first line's pattern) that main never calls, or that only
# an aarch64 host or a failing fork/mkstemp/readlink/glob would reach; their
# mutants could never be seen from outside, so none is made there. A range
# runs from the matching line to the next "}" in column 0, or to the end of
# the line's block for patterns ending in "{".
UNREACHED = [
    ("src/dkms/dkms_config.cpp", r"^void clean_dkms_autoinstaller"),
    ("src/app/log.cpp", r"^void log_reset_for_tests"),
    ("src/record/run_state.cpp", r"^void reset_run_state"),
    ("src/system/service.cpp", r"^void run_pci_timeout_script"),
    ("src/system/service.cpp", r"^bool parse_main_pid"),
    ("src/system/service.cpp", r"^bool query_service_status"),
    ("src/system/service.cpp", r"^int check_service_status"),
    # The option sets of the family's other tools: only their conditions are reached.
    ("src/app/command_line.cpp", r"^\s+\} else \{$"),
    ("src/app/command_line.cpp", r'^\s+if \(kind == "Toolkit"\) \{$'),
]
# Single lines on paths that cannot be taken here (failed fork, mkstemp,
# fchmod, readlink of /proc/self/exe, glob errors).
UNREACHED_LINES = [
    ("src/dkms/dkms_build.cpp", r'fork failed in|build dkms as normal|command \+= " 2>&1";|return !run_command\(command, output, status\) \|\| status != 0;'),
    ("src/dkms/dkms_build.cpp", r"execl %s %s failed|_exit\(5\)"),
    ("src/host/commands.cpp", r"get temp file failed|set permissions %04o"),
    ("src/host/files.cpp", r'Failed to get exe path|GLOB_ABORTED|read error|GLOB_NOSPACE|oom\\n|glob\\(\\) failed'),
]


def sh(cmd, cwd=None, timeout=None, env=None):
    return subprocess.run(cmd, cwd=cwd, shell=isinstance(cmd, str), stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, errors="replace", timeout=timeout, env=env)


# --- finding the sites ----------------------------------------------------

def code_spans(line):
    """Splits a line into ("code", text) and ("str", literal) pieces; a // comment ends it."""
    pieces, i, start = [], 0, 0
    while i < len(line):
        c = line[i]
        if c == '"' and not (i > 0 and line[i - 1] == "'" and i + 1 < len(line) and line[i + 1] == "'"):
            if line[i - 1:i] == "R" and line[i:i + 2] == '"(':
                return None  # raw strings: left alone
            pieces.append(("code", line[start:i]))
            j = i + 1
            while j < len(line) and line[j] != '"':
                j += 2 if line[j] == "\\" else 1
            pieces.append(("str", line[i:j + 1]))
            i = start = j + 1
            continue
        if c == "'":
            j = i + 1
            while j < len(line) and line[j] != "'":
                j += 2 if line[j] == "\\" else 1
            i = j + 1
            continue
        if line.startswith("//", i):
            pieces.append(("code", line[start:i]))
            return pieces
        i += 1
    pieces.append(("code", line[start:]))
    return pieces


CMP = [("==", "!="), ("!=", "=="), ("<=", ">"), (">=", "<"), (" < ", " >= "), (" > ", " <= "),
       ("&&", "||"), ("||", "&&")]
INT = re.compile(r"(?<![\w.])(0[xX][0-9a-fA-F]+|\d+)(?![\w.])")
IF_CONDITION = re.compile(r"^(\s*(?:\} else )?if \()(.*)(\)\s*\{?\s*)$")
NEGATION = re.compile(r"(?<=[(\s])!(?=[\w(])")
CALL_START = re.compile(r"^\s*(?!return\b|if\b|for\b|while\b|switch\b|case\b|else\b|delete\b|throw\b|using\b|"
                        r"static_assert\b|const\b|auto\b|int\b|bool\b|std::string\b|char\b|size_t\b)"
                        r"[A-Za-z_][\w:]*(?:(?:\.|->)[A-Za-z_]\w*)*\s*\(")


def balanced(text):
    depth = 0
    for c in text:
        depth += {"(": 1, ")": -1}.get(c, 0)
        if depth < 0:
            return False
    return depth == 0


def unreached_lines(rel, lines):
    skip = set()
    for name, pattern in UNREACHED:
        if name != rel:
            continue
        for n, text in enumerate(lines):
            if not re.search(pattern, text):
                continue
            if text.rstrip().endswith("{") and not text.startswith(("int ", "void ", "bool ", "std::")):
                # a block: to its closing brace at the same indentation
                indent = len(text) - len(text.lstrip())
                m = n
                while m + 1 < len(lines):
                    m += 1
                    skip.add(m)
                    t = lines[m]
                    if t.strip().startswith("}") and len(t) - len(t.lstrip()) == indent:
                        break
            else:
                m = n
                while m < len(lines):
                    skip.add(m)
                    if lines[m].rstrip() == "}":
                        break
                    m += 1
    for name, pattern in UNREACHED_LINES:
        if name == rel:
            for n, text in enumerate(lines):
                if re.search(pattern, text):
                    skip.add(n)
    return skip


def statement_end(lines, n):
    """The line where the statement starting on line n ends (balanced parentheses, then ';')."""
    depth, m = 0, n
    while m < len(lines) and m < n + 12:
        spans = code_spans(lines[m]) or [("code", lines[m])]
        for kind, text in spans:
            if kind != "code":
                continue
            for c in text:
                if c == "(":
                    depth += 1
                elif c == ")":
                    depth -= 1
        code = "".join(t for k, t in spans if k == "code").rstrip()
        if depth == 0 and code.endswith(";"):
            return m
        if depth == 0 and (code.endswith("{") or code.endswith("}")):
            return None
        m += 1
    return None


def sites(rel, text):
    lines = text.split("\n")
    skip = unreached_lines(rel, lines)
    out = []
    in_block_comment = False
    for n, line in enumerate(lines):
        stripped = line.strip()
        if in_block_comment:
            if "*/" in line:
                in_block_comment = False
            continue
        if stripped.startswith("/*"):
            in_block_comment = "*/" not in stripped
            continue
        if n in skip or not stripped or stripped.startswith(("#", "//")):
            continue
        spans = code_spans(line)
        if spans is None:
            continue
        counters = {}

        def add(kind, start, old, new, note):
            k = counters.get(kind, 0)
            counters[kind] = k + 1
            out.append({"id": f"{rel[4:]}:{n + 1}:{kind}.{k}", "file": rel, "line": n, "start": start,
                        "old": old, "new": new, "note": note})

        offset = 0
        for kind, piece in spans:
            if kind == "code":
                for old, new in CMP:
                    for m in re.finditer(re.escape(old), piece):
                        # not part of a longer operator (<<=, ->, >>, <=> ...)
                        a, b = m.start(), m.end()
                        before = piece[a - 1:a] if old.strip() == old else ""
                        after = piece[b:b + 1] if old.strip() == old else ""
                        if before in ("=", "!", "<", ">", "-") or after in ("=", ">", "<"):
                            continue
                        add("cmp", offset + a, old, new, f"{old.strip()} -> {new.strip()}")
                for m in NEGATION.finditer(piece):
                    add("cmp", offset + m.start(), "!", "", "! dropped")
                for m in INT.finditer(piece):
                    literal = m.group(1)
                    if rel in HEADERS and "=" not in line:
                        continue  # widths and sizes of a declaration: layout, not behaviour
                    if literal.lower().startswith("0x"):
                        moved = hex(int(literal, 16) + 1)
                    elif len(literal) > 1 and literal.startswith("0"):
                        moved = "0" + oct(int(literal, 8) + 1)[2:]
                    else:
                        moved = str(int(literal) + 1)
                    add("int", offset + m.start(), literal, moved, f"{literal} -> {moved}")
            elif "include" not in line:
                body = piece[1:-1]
                if body.endswith("\\n"):
                    cut, note = 2, "line feed dropped"
                elif len(body) < 2 or re.search(r"%[-\d.]*[a-z]$", body):
                    continue  # too short to be a text, or a format's conversion at its end
                elif re.search(r"\\.$", body):
                    cut, note = 2, f"last character {body[-2:]!r} dropped"
                else:
                    cut, note = 1, f"last character {body[-1]!r} dropped"
                add("str", offset + len(piece) - 1 - cut, piece[-1 - cut:-1], "", note)
            offset += len(piece)

        condition = IF_CONDITION.match(line)
        if condition and not condition.group(2).startswith("!") and balanced(condition.group(2)):
            add("cmp", len(condition.group(1)), condition.group(2), "!(" + condition.group(2) + ")", "condition negated")

        match = CALL_START.match(line)
        if match and "=" not in line.split("(")[0] and rel not in HEADERS:
            end = statement_end(lines, n)
            if end is not None:
                out.append({"id": f"{rel[4:]}:{n + 1}:call.0", "file": rel, "line": n, "start": None,
                            "old": "\n".join(lines[n:end + 1]), "new": None, "note": "call deleted: " + stripped[:60],
                            "end": end})
    return out


def all_sites(root):
    found = []
    for dirpath, _, names in os.walk(os.path.join(root, "src")):
        for name in sorted(names):
            rel = os.path.relpath(os.path.join(dirpath, name), root)
            if SOURCES_GLOB_EXCLUDE.search(rel):
                continue
            if not (name.endswith(".cpp") or rel in HEADERS):
                continue
            with open(os.path.join(root, rel)) as f:
                found.extend(sites(rel, f.read()))
    found.sort(key=lambda s: (s["file"], s["line"], s["id"]))
    return found


def sample(found, count):
    if not count or count >= len(found):
        return found
    # Stable: by a digest of the id, so that the same ids come back on the same src/.
    ranked = sorted(found, key=lambda s: hashlib.sha1(s["id"].encode()).hexdigest())
    chosen = {s["id"] for s in ranked[:count]}
    return [s for s in found if s["id"] in chosen]


def apply(site, text):
    lines = text.split("\n")
    n = site["line"]
    if site["new"] is None:  # a deleted statement: its lines stay, empty, so line numbers hold
        end = site["end"]
        indent = lines[n][:len(lines[n]) - len(lines[n].lstrip())]
        lines[n] = indent + ";"
        for m in range(n + 1, end + 1):
            lines[m] = ""
    else:
        line, a = lines[n], site["start"]
        assert line[a:a + len(site["old"])] == site["old"], (site["id"], line)
        lines[n] = line[:a] + site["new"] + line[a + len(site["old"]):]
    return "\n".join(lines)


# --- building and testing ----------------------------------------------------

def prepare_tree(ref):
    """Copies the tracked files of the work tree, or of commit `ref`, into TREE; unchanged files keep their times."""
    origin = TOP
    if ref:
        origin = os.path.join(WORK, "export")
        shutil.rmtree(origin, ignore_errors=True)
        os.makedirs(origin)
        r = sh(f"git archive {ref} | tar -x -C {origin}", cwd=TOP)
        if r.returncode != 0:
            sys.exit(r.stdout)
        files = sh(["git", "ls-tree", "-r", "-z", "--name-only", ref], cwd=TOP).stdout.split("\0")
    else:
        files = sh(["git", "ls-files", "-z"], cwd=TOP).stdout.split("\0")
    os.makedirs(TREE, exist_ok=True)
    for rel in files:
        if not rel:
            continue
        source, target = os.path.join(origin, rel), os.path.join(TREE, rel)
        if not os.path.lexists(source):
            continue
        os.makedirs(os.path.dirname(target), exist_ok=True)
        if os.path.islink(source):
            if os.path.lexists(target):
                os.remove(target)
            os.symlink(os.readlink(source), target)
            continue
        with open(source, "rb") as f:
            data = f.read()
        if os.path.exists(target):
            with open(target, "rb") as f:
                if f.read() == data:
                    continue
        with open(target, "wb") as f:
            f.write(data)
        shutil.copymode(source, target)
    if not os.path.exists(os.path.join(BUILD, "build.ninja")):
        r = sh(["cmake", "-S", TREE, "-B", BUILD, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=None", "-DCMAKE_CXX_FLAGS=-O1"])
        if r.returncode != 0:
            sys.exit(r.stdout)
    r = sh(["cmake", "--build", BUILD, "-j2"])
    if r.returncode != 0:
        sys.exit("the unmutated tree does not build:\n" + r.stdout[-3000:])


def build_targets():
    return sh(["cmake", "--build", BUILD, "-j2", "--target", "quorl-driver-installer", "unit_tests"])


def run_unit_tests():
    try:
        r = sh([os.path.join(BUILD, "tests", "unit_tests"), "--gtest_fail_fast", "--gtest_brief=1"],
               cwd=os.path.join(BUILD, "tests"), timeout=600)
    except subprocess.TimeoutExpired:
        return "unit_tests (timeout)"
    if r.returncode == 0:
        return None
    failed = re.findall(r"^\[  FAILED  \] (\S+)", r.stdout, re.M)
    return failed[0] if failed else f"unit_tests (exit {r.returncode})"


def run_scenarios():
    failed_log = os.path.join(BUILD, "Testing", "Temporary", "LastTestsFailed.log")
    if os.path.exists(failed_log):
        os.remove(failed_log)
    try:
        r = sh(["ctest", "-L", "e2e", "-j2", "--stop-on-failure", "--timeout", "900"], cwd=BUILD, timeout=7200)
    except subprocess.TimeoutExpired:
        return "e2e (timeout)"
    finally:
        shutil.rmtree(os.path.join(BUILD, "lab-hosts"), ignore_errors=True)
    if r.returncode == 0:
        return None
    if os.path.exists(failed_log):
        with open(failed_log) as f:
            names = [line.strip().split(":", 1)[1] for line in f if ":" in line]
        if names:
            return names[0]
    return f"e2e (exit {r.returncode})"


def read_table(path):
    done = {}
    if os.path.exists(path):
        with open(path) as f:
            for line in f:
                if line.startswith("#") or "\t" not in line:
                    continue
                fields = line.rstrip("\n").split("\t")
                done[fields[0]] = fields
    return done


def run(args):
    prepare_tree(args.ref)
    found = all_sites(TREE)
    if args.ids:
        wanted = set(args.ids)
        chosen = [s for s in found if s["id"] in wanted]
        missing = wanted - {s["id"] for s in chosen}
        if missing:
            sys.exit("no such mutant: " + " ".join(sorted(missing)))
    else:
        chosen = sample(found, args.sample)
    table = os.path.abspath(args.table)
    done = read_table(table)
    todo = [s for s in chosen if s["id"] not in done]
    print(f"{len(found)} sites, {len(chosen)} chosen, {len(todo)} to run", flush=True)
    if not os.path.exists(table):
        with open(table, "w") as f:
            f.write("# id\tstate\tcaught by\tchange\n")

    by_file = {}
    for s in todo:
        by_file.setdefault(s["file"], []).append(s)
    for rel, group in by_file.items():
        path = os.path.join(TREE, rel)
        with open(path) as f:
            original = f.read()
        try:
            for s in group:
                started = time.time()
                with open(path, "w") as f:
                    f.write(apply(s, original))
                if build_targets().returncode != 0:
                    state, test = "unbuilt", "-"
                else:
                    test = run_unit_tests() or (None if args.unit_only else run_scenarios())
                    state = "killed" if test else "survived"
                    test = test or "-"
                with open(table, "a") as f:
                    f.write(f"{s['id']}\t{state}\t{test}\t{s['note']}\n")
                print(f"{s['id']}\t{state}\t{test}\t{int(time.time() - started)}s", flush=True)
        finally:
            with open(path, "w") as f:
                f.write(original)
    build_targets()


def compare(before, after):
    b, a = read_table(before), read_table(after)
    lost = [i for i, f in b.items() if f[1] == "killed" and (i not in a or a[i][1] != "killed")]
    for name, t in (("before", b), ("after", a)):
        states = [f[1] for f in t.values()]
        print(f"{name}: {states.count('killed')} killed, {states.count('survived')} survived, "
              f"{states.count('unbuilt')} unbuilt")
    gained = [i for i, f in a.items() if f[1] == "killed" and i in b and b[i][1] == "survived"]
    print(f"killed now, survived before: {len(gained)}")
    print(f"killed before, not killed now: {len(lost)}")
    for i in lost:
        print("  " + i + "\t" + (a[i][1] if i in a else "not run"))
    return 1 if lost else 0


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    sub = parser.add_subparsers(dest="command", required=True)
    listing = sub.add_parser("list")
    listing.add_argument("--sample", type=int, default=0)
    running = sub.add_parser("run")
    running.add_argument("--table", required=True)
    running.add_argument("--sample", type=int, default=0)
    running.add_argument("--ids-file")
    running.add_argument("--ref", help="test the tests of this commit instead of the work tree")
    running.add_argument("--unit-only", action="store_true", help="stop at the unit tests")
    running.add_argument("ids", nargs="*")
    comparing = sub.add_parser("compare")
    comparing.add_argument("before")
    comparing.add_argument("after")
    args = parser.parse_args()

    if args.command == "list":
        for s in sample(all_sites(TOP), args.sample):
            print(f"{s['id']}\t{s['note']}")
    elif args.command == "run":
        if args.ids_file:
            with open(args.ids_file) as f:
                args.ids = list(args.ids) + [line.split("\t")[0].strip() for line in f
                                             if line.strip() and not line.startswith("#")]
        run(args)
    else:
        sys.exit(compare(args.before, args.after))


if __name__ == "__main__":
    main()
