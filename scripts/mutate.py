#!/usr/bin/env python3
"""Mutation run over src/: do the unit and kernel tiers notice a broken library?

Each mutant is one small edit of one line of src/*.cpp. The run copies the
repository's files (tracked and untracked, as they are in the working tree)
into a scratch tree, builds that tree once with g++, then for every mutant:
writes the edit into the scratch copy, rebuilds incrementally (-j2), runs
`ctest -L unit` and, if that passed, `ctest -L kernel`, and puts the file
back. src/ itself is never written; the scratch copy is restored in a finally
block and re-synchronised at the start of every run.

  killed    a test failed or ran over the time limit (detail: unit, kernel,
            timeout)
  survived  both tiers passed
  invalid   the mutant does not compile (or the build timed out)

Operators (one mutant per occurrence, in code only: comments, string and
character literals, preprocessor lines, static_asserts and whole log
statements -- TAVREL_LOG, TAVREL_LOG_NOFILE, TAVREL_LOG_KEY, TAVREL_NULL_ARG
-- are skipped, as are template arguments such as tavrel_ck_add<uint32_t>
and whatever stands in square brackets):

  ror     relational flip: < to <=, <= to <, > to >=, >= to >, == to !=, != to ==
  aor     binary + to -, += to -=
  const   integer literal n >= 2 to n + 1 (not in shift counts)
  neg     if/while condition on one line negated: if (c) to if (!(c)), unless
          it is a single comparison (a ror mutant already)
  del     a call statement on one line removed (tavrel_wipe, close, close_socket,
          free, tavrel_nla_put, put_*, ...), replaced by {}
  ret     return -1; to return 0;

Of these candidates (about 630) the run keeps one in five (--every), chosen
by a hash of what the mutant is, not of its line number (see selected()).
The id is file:line:operator:index (index counts that operator's
occurrences on the line), stable as long as src/ does not change; the
result file also holds the original and mutated line, so two runs can be
compared mutant by mutant.

Usage (as root: the kernel tier unshares network namespaces):

  scripts/mutate.py list                       # the mutants, one a line
  scripts/mutate.py run [-o results.tsv]       # all of them
  scripts/mutate.py run --sample 20 [--seed 14]
  scripts/mutate.py run --only tavrel_xfrm.cpp:412:const:0 ...
  scripts/mutate.py compare before.tsv after.tsv

`run` exits 0 whatever it finds; `compare` exits 1 if a mutant killed in the
first file is not killed in the second. Scratch tree and build:
build-mutation/ (--work DIR). See docs/mutation.md.
"""
import argparse
import filecmp
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import time
import zlib

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
LOG_MACROS = ("TAVREL_LOG", "TAVREL_LOG_NOFILE", "TAVREL_LOG_KEY", "TAVREL_NULL_ARG")
DELETABLE = re.compile(
    r"^(tavrel_wipe|close|close_socket|tavrel_nla_put|tavrel_nla_extack|tavrel_check_failed|"
    r"tavrel_bounded_copy|kv_memscpy|free|free_list|callback|put_\w+|tavrel_xfrm_set_\w+|set_sa_flags|"
    r"tc_put_prio_options|rule_put_match)\s*\(.*\);$")
# The run keeps one candidate mutant in EVERY (see selected()).
EVERY = 5


# ---- finding the mutants -----------------------------------------------------------

def mask_code(lines):
    """Per line: the text with comments and string/char literals blanked."""
    out = []
    in_comment = False
    for line in lines:
        chars = list(line)
        i = 0
        quote = None
        while i < len(chars):
            c = chars[i]
            nxt = chars[i + 1] if i + 1 < len(chars) else ""
            if in_comment:
                if c == "*" and nxt == "/":
                    chars[i] = chars[i + 1] = " "
                    in_comment = False
                    i += 2
                    continue
                chars[i] = " "
            elif quote:
                if c == "\\":
                    chars[i] = " "
                    if i + 1 < len(chars):
                        chars[i + 1] = " "
                    i += 2
                    continue
                if c == quote:
                    quote = None
                else:
                    chars[i] = " "
            elif c == "/" and nxt == "*":
                chars[i] = chars[i + 1] = " "
                in_comment = True
                i += 2
                continue
            elif c == "/" and nxt == "/":
                for j in range(i, len(chars)):
                    chars[j] = " "
                break
            elif c in "\"'":
                quote = c
            i += 1
        out.append("".join(chars))
    return out


def skipped_lines(code):
    """Lines of preprocessor directives, static_asserts and log statements."""
    skip = set()
    depth = None  # paren depth inside a skipped statement
    continued = False
    for n, text in enumerate(code):
        stripped = text.strip()
        if continued or stripped.startswith("#"):
            skip.add(n)
            continued = text.rstrip().endswith("\\")
            continue
        if depth is None:
            m = re.search(r"\b(static_assert|%s)\s*\(" % "|".join(LOG_MACROS), text)
            if not m:
                continue
            depth = 0
            text = text[m.start():]
        skip.add(n)
        for c in text:
            if c == "(":
                depth += 1
            elif c == ")":
                depth -= 1
                if depth == 0:
                    break
        if depth == 0:
            depth = None
    return skip


TEMPLATE_ARGS = re.compile(r"\b\w+\s*<[\w\s:*&,]*>")
OPERATOR = re.compile(r"<<=|>>=|<=|>=|==|!=|<<|>>|->|&&|\|\||\+\+|--|\+=|-=|[<>+]")
ROR = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "=="}
INTEGER = re.compile(r"(?<![\w.])(0[xX][0-9a-fA-F]+|[1-9][0-9]*)([uU]?[lL]{0,2})(?![\w.])")


def blank(text, spans):
    chars = list(text)
    for start, end in spans:
        for i in range(start, end):
            chars[i] = " "
    return "".join(chars)


def matching_paren(text, open_at):
    depth = 0
    for i in range(open_at, len(text)):
        if text[i] == "(":
            depth += 1
        elif text[i] == ")":
            depth -= 1
            if depth == 0:
                return i
    return None


def line_mutants(line, code):
    """(operator, start, end, replacement) edits of one line, in order."""
    edits = []
    code = blank(code, [m.span() for m in TEMPLATE_ARGS.finditer(code)])
    # Array bounds and subscripts: changing them mostly changes a
    # declaration's shape, not what the code does.
    code = blank(code, [m.span() for m in re.finditer(r"\[[^\[\]]*\]", code)])
    for m in OPERATOR.finditer(code):
        op = m.group()
        if op in ROR:
            edits.append(("ror", m.start(), m.end(), ROR[op]))
        elif op in ("+", "+="):
            before = code[:m.start()].rstrip()
            if before and (before[-1].isalnum() or before[-1] in "_)]"):
                edits.append(("aor", m.start(), m.end(), "-" if op == "+" else "-="))
    for m in INTEGER.finditer(code):
        value = int(m.group(1), 0)
        before = code[:m.start()].rstrip()
        if value < 2 or before.endswith("<<") or before.endswith(">>"):
            continue
        text = hex(value + 1) if m.group(1).lower().startswith("0x") else str(value + 1)
        edits.append(("const", m.start(1), m.end(1), text))
    m = re.match(r"\s*(?:\}\s*else\s+)?(if|while)\s*\(", code)
    if m:
        open_at = m.end() - 1
        close_at = matching_paren(code, open_at)
        # A single comparison negated is the ror flip of it (or its
        # complement): only compound and plain boolean conditions.
        cond_code = code[open_at + 1:close_at or len(code)]
        single = not re.search(r"&&|\|\||\?", cond_code) and \
            len([m for m in OPERATOR.finditer(cond_code) if m.group() in ROR]) == 1
        if close_at is not None and not single:
            cond = line[open_at + 1:close_at]
            edits.append(("neg", open_at + 1, close_at, "!(" + cond + ")"))
    stripped = code.strip()
    if DELETABLE.match(stripped):
        start = code.index(stripped)
        edits.append(("del", start, start + len(stripped), "{}"))
    m = re.match(r"\s*return\s+-1\s*;", code)
    if m:
        start = code.index("return")
        edits.append(("ret", start, m.end(), "return 0;"))
    return edits


def selected(name, op, index, text, occurrence, every):
    """One candidate in `every`, by a hash of what the mutant is rather than
    where it is, so that the choice survives edits elsewhere in the file."""
    key = "%s|%s|%d|%s|%d" % (name, op, index, text.strip(), occurrence)
    return zlib.crc32(key.encode()) % every == 0


def find_mutants(src_dir, every=EVERY):
    mutants = []
    for name in sorted(os.listdir(src_dir)):
        if not name.endswith(".cpp"):
            continue
        with open(os.path.join(src_dir, name)) as f:
            lines = f.read().split("\n")
        code = mask_code(lines)
        skip = skipped_lines(code)
        seen = {}
        for n, line in enumerate(lines):
            if n in skip:
                continue
            occurrence = seen.get(line.strip(), 0)
            seen[line.strip()] = occurrence + 1
            counts = {}
            for op, start, end, replacement in line_mutants(line, code[n]):
                index = counts.get(op, 0)
                counts[op] = index + 1
                if not selected(name, op, index, line, occurrence, every):
                    continue
                mutated = line[:start] + replacement + line[end:]
                mutants.append({"id": "%s:%d:%s:%d" % (name, n + 1, op, index), "file": name, "line": n,
                                "original": line, "mutated": mutated})
    return mutants


# ---- building and testing -------------------------------------------------------------

class Runner:
    def __init__(self, work, timeout):
        self.work = work
        self.tree = os.path.join(work, "tree")
        self.build = os.path.join(work, "build")
        self.timeout = timeout
        self.child = None

    def sync_tree(self):
        """Makes the scratch tree a copy of the working tree's files, touching
        only what differs so that the build stays incremental. A copied file
        gets the current time, so that make never takes it for older than an
        object built from an earlier copy; files gone from the working tree
        go from the copy too."""
        files = subprocess.run(["git", "-C", ROOT, "ls-files", "-co", "--exclude-standard", "-z"],
                               check=True, capture_output=True).stdout.decode().split("\0")
        wanted = set()
        for rel in filter(None, files):
            source = os.path.join(ROOT, rel)
            target = os.path.join(self.tree, rel)
            if not os.path.isfile(source) or os.path.islink(source):
                continue
            wanted.add(rel)
            if os.path.exists(target) and filecmp.cmp(source, target, shallow=False):
                continue
            os.makedirs(os.path.dirname(target), exist_ok=True)
            shutil.copyfile(source, target)
            shutil.copymode(source, target)
        for top, _, names in os.walk(self.tree):
            for name in names:
                rel = os.path.relpath(os.path.join(top, name), self.tree)
                if rel not in wanted:
                    os.remove(os.path.join(top, name))

    def run(self, args, timeout):
        """(returncode or None on timeout, output)."""
        self.child = subprocess.Popen(args, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                      start_new_session=True)
        try:
            out, _ = self.child.communicate(timeout=timeout)
            return self.child.returncode, out.decode(errors="replace")
        except subprocess.TimeoutExpired:
            self.kill_child()
            return None, ""
        finally:
            self.child = None

    def kill_child(self):
        if self.child is not None and self.child.poll() is None:
            os.killpg(self.child.pid, signal.SIGKILL)
            self.child.wait()

    def configure(self):
        # A mutant that only draws a warning still changes what the library
        # does: warnings are not errors here (see compile_without_werror).
        launcher = "%s;%s;--compile" % (sys.executable, os.path.abspath(__file__))
        args = ["cmake", "-S", self.tree, "-B", self.build, "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
                "-DCMAKE_C_COMPILER=gcc", "-DCMAKE_CXX_COMPILER=g++", "-DTAVREL_BUILD_TOOLS=OFF",
                "-DCMAKE_CXX_COMPILER_LAUNCHER=" + launcher, "--no-warn-unused-cli", "-DTAVREL_WERROR=OFF"]
        code, out = self.run(args, 600)
        if code != 0:
            sys.exit("mutate: configuring %s failed:\n%s" % (self.build, out))

    def compile(self, timeout):
        code, out = self.run(["cmake", "--build", self.build, "-j2", "--target", "tavrel_unit_tests",
                              "tavrel_kernel_tests", "nltavrel"], timeout)
        return code == 0, out

    def test(self, log_path=None):
        """None if both tiers pass, else the tier that failed or "timeout".
        The failing tier's output goes to log_path."""
        for label in ("unit", "kernel"):
            code, out = self.run(["ctest", "--test-dir", self.build, "-L", label, "--output-on-failure",
                                  "--timeout", str(self.timeout)], self.timeout + 60)
            if code == 0:
                continue
            if log_path:
                with open(log_path, "w") as f:
                    f.write(out)
            return "timeout" if code is None or re.search(r"\*\*\*Timeout", out) else label
        return None


def run_mutants(opts):
    mutants = find_mutants(os.path.join(ROOT, "src"), opts.every)
    if opts.only:
        by_id = {m["id"]: m for m in mutants}
        unknown = [i for i in opts.only if i not in by_id]
        if unknown:
            sys.exit("mutate: no such mutant: %s" % " ".join(unknown))
        mutants = [by_id[i] for i in opts.only]
    elif opts.sample:
        chosen = set(random.Random(opts.seed).sample(range(len(mutants)), min(opts.sample, len(mutants))))
        mutants = [m for n, m in enumerate(mutants) if n in chosen]

    runner = Runner(os.path.abspath(opts.work), opts.timeout)
    opts.output = opts.output or os.path.join(runner.work, "results.tsv")
    os.makedirs(runner.tree, exist_ok=True)
    runner.sync_tree()
    runner.configure()
    t0 = time.time()
    ok, out = runner.compile(3600)
    if not ok:
        sys.exit("mutate: the unmutated tree does not build:\n" + out[-4000:])
    failed = runner.test()
    if failed:
        sys.exit("mutate: the unmutated tree fails its %s tests; fix that first" % failed)
    print("baseline build and tests: %.0f s; %d mutants" % (time.time() - t0, len(mutants)), flush=True)

    # Also when started in the background, where SIGINT comes in ignored.
    def terminate(signum, frame):
        raise KeyboardInterrupt
    signal.signal(signal.SIGTERM, terminate)
    signal.signal(signal.SIGINT, terminate)

    logs = os.path.join(runner.work, "logs")
    shutil.rmtree(logs, ignore_errors=True)
    os.makedirs(logs)
    counts = {"killed": 0, "survived": 0, "invalid": 0}
    started = time.time()
    with open(opts.output, "w") as results:
        results.write("id\tstatus\tdetail\tseconds\toriginal\tmutated\n")
        for n, mutant in enumerate(mutants, 1):
            path = os.path.join(runner.tree, "src", mutant["file"])
            with open(path) as f:
                original = f.read()
            lines = original.split("\n")
            if lines[mutant["line"]] != mutant["original"]:
                sys.exit("mutate: %s no longer matches the scratch tree" % mutant["id"])
            lines[mutant["line"]] = mutant["mutated"]
            t = time.time()
            try:
                with open(path, "w") as f:
                    f.write("\n".join(lines))
                log_path = os.path.join(logs, mutant["id"].replace(":", "_") + ".log")
                ok, out = runner.compile(opts.timeout * 3)
                if not ok:
                    status, detail = "invalid", "compile"
                    with open(log_path, "w") as f:
                        f.write(out)
                else:
                    failed = runner.test(log_path)
                    status, detail = ("killed", failed) if failed else ("survived", "-")
            finally:
                runner.kill_child()
                with open(path, "w") as f:
                    f.write(original)
            counts[status] += 1
            seconds = time.time() - t
            results.write("%s\t%s\t%s\t%.0f\t%s\t%s\n" % (mutant["id"], status, detail, seconds,
                                                          mutant["original"].strip(), mutant["mutated"].strip()))
            results.flush()
            print("[%d/%d] %-9s %-8s %4.0f s  %s" % (n, len(mutants), status, detail, seconds, mutant["id"]),
                  flush=True)
            if status == "survived":
                print("      %s\n   => %s" % (mutant["original"].strip(), mutant["mutated"].strip()), flush=True)
    # Leave the build matching the unmutated sources for the next run.
    runner.compile(3600)
    elapsed = time.time() - started
    judged = counts["killed"] + counts["survived"]
    print("killed %d, survived %d, invalid %d; kill rate %.1f%% (killed / (killed + survived))"
          % (counts["killed"], counts["survived"], counts["invalid"],
             100.0 * counts["killed"] / judged if judged else 0.0))
    print("%.0f s, %.1f s per mutant; results in %s" % (elapsed, elapsed / max(len(mutants), 1), opts.output))


def read_results(path):
    with open(path) as f:
        rows = [line.rstrip("\n").split("\t") for line in f][1:]
    return {row[0]: row for row in rows if row and row[0]}


def compare(opts):
    before = read_results(opts.before)
    after = read_results(opts.after)
    lost = []
    for mutant, row in before.items():
        if row[1] != "killed":
            continue
        other = after.get(mutant)
        if other is None or other[1] != "killed":
            lost.append((mutant, other[1] if other else "not run", row[4]))
    # Ids carry line numbers: after a change to src/ the same id may be a
    # different mutant.
    moved = [m for m in before if m in after and before[m][4:6] != after[m][4:6]]
    for mutant in moved:
        print("warning: %s is not the same mutant in both files (src/ changed)" % mutant)
    for name, rows in (("before", before), ("after", after)):
        killed = sum(r[1] == "killed" for r in rows.values())
        survived = sum(r[1] == "survived" for r in rows.values())
        rate = 100.0 * killed / (killed + survived) if killed + survived else 0.0
        print("%-6s killed %d, survived %d, invalid %d: kill rate %.1f%%"
              % (name, killed, survived, len(rows) - killed - survived, rate))
    for mutant, status, line in lost:
        print("killed before, %s after: %s   %s" % (status, mutant, line))
    if not lost:
        print("every mutant killed before is killed after")
    return 1 if lost else 0


def compile_without_werror(command):
    """The C++ compiler launcher of the scratch build: the last -Wno-error
    wins over the build's -Werror."""
    os.execvp(command[0], command + ["-Wno-error"])


def main():
    if len(sys.argv) > 2 and sys.argv[1] == "--compile":
        compile_without_werror(sys.argv[2:])
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    sub = parser.add_subparsers(dest="command", required=True)
    lst = sub.add_parser("list", help="print the mutants")
    run = sub.add_parser("run", help="run mutants")
    run.add_argument("--sample", type=int, help="a fixed-seed sample of N mutants")
    run.add_argument("--seed", type=int, default=14)
    run.add_argument("--only", nargs="+", metavar="ID", help="these mutants only")
    run.add_argument("--timeout", type=int, default=60, help="seconds per test tier (default 60)")
    run.add_argument("--work", default=os.path.join(ROOT, "build-mutation"), help="scratch tree and build")
    run.add_argument("-o", "--output", help="result file (TSV; default WORK/results.tsv)")
    cmp_ = sub.add_parser("compare", help="mutants killed in BEFORE but not in AFTER")
    cmp_.add_argument("before")
    cmp_.add_argument("after")
    for p in (lst, run):
        p.add_argument("--every", type=int, default=EVERY,
                       help="keep one candidate in EVERY (default %d; 1: all candidates)" % EVERY)
    opts = parser.parse_args()

    if opts.command == "list":
        mutants = find_mutants(os.path.join(ROOT, "src"), opts.every)
        for m in mutants:
            print("%s\t%s" % (m["id"], m["mutated"].strip()))
        per_op = {}
        for m in mutants:
            op = m["id"].split(":")[2]
            per_op[op] = per_op.get(op, 0) + 1
        print("%d mutants: %s" % (len(mutants), ", ".join("%s %d" % kv for kv in sorted(per_op.items()))),
              file=sys.stderr)
        return 0
    if opts.command == "compare":
        return compare(opts)
    if os.geteuid() != 0:
        sys.exit("mutate: the kernel tier needs root (network namespaces)")
    try:
        run_mutants(opts)
    except KeyboardInterrupt:
        print("\nmutate: interrupted; the scratch copy was restored, src/ was never touched", file=sys.stderr)
        return 130
    return 0


if __name__ == "__main__":
    sys.exit(main())
