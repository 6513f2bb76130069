#!/usr/bin/env python3
"""Mutation sampling: do the tests catch small faults in the units that
carry the behaviour?

  scripts/mutate.py [--seed N] [--count N] [--build DIR] [--list]

Each mutant is one small change at one place of one unit: a comparison
turned (< and <=, > and >=, == and !=), && and || swapped, + and - swapped,
a whole-number constant moved by one, or a call statement deleted. The
sample is drawn with a fixed seed from every such place, so a run is
repeatable, and ranked by the line's text rather than its number, so an
edit elsewhere in a unit keeps the sample. For each mutant the unit is
changed in the working tree (the original is always put back, also on
Ctrl-C), the build folder is brought up to date with ninja for the unit's
own test programs, and those run first; a mutant they do not kill meets
the whole plain suite, then the unit's programs again under
AddressSanitizer (a leak or a write past a block is a fault the tests
catch there). A mutant that does not build is not counted. Mutants marked
by hand as equivalent (the program behaves the same either way) in
scripts/mutate-equivalent.txt are not counted either. The kill rate is
over the rest.
"""
import argparse
import hashlib
import os
import re
import signal
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

# Unit -> the test programs that exercise it, the closest first.
UNITS = {
    "writer/writer_intake.cpp": ["test_writer_process", "test_writer_buffer", "test_writer_pipeline",
                                 "test_writer_prev_write", "test_writer_race"],
    "writer/writer_process.cpp": ["test_writer_process", "test_writer_inform", "test_writer_pipeline",
                                  "test_writer_race"],
    "writer/writer_buffer.cpp": ["test_writer_buffer", "test_writer_process", "test_writer_prev_write"],
    "writer/writer_buffering.cpp": ["test_writer_buffer", "test_writer_process", "test_writer_inform",
                                    "test_writer_race"],
    "writer/writer_buffering_thread.cpp": ["test_writer_race", "test_writer_process", "test_writer_pipeline",
                                           "test_dllmain"],
    "writer/writer_by_event.cpp": ["test_writer_by_event", "test_writer_forced", "test_writer_events_registrator",
                                   "test_writer_prev_write"],
    "writer/writer_events_registrator.cpp": ["test_writer_events_registrator", "test_writer_by_event",
                                             "test_writer_forced"],
    "writer/writer_prev_write.cpp": ["test_writer_prev_write", "test_writer_by_event"],
    "writer/writer_schedule.cpp": ["test_writer_schedule"],
    "Schedule/TaskManager.cpp": ["test_task_manager", "test_writer_schedule"],
    "writer/writer_inform.cpp": ["test_writer_inform", "test_writer_web_service"],
    "writer/writer_web_service.cpp": ["test_writer_web_service", "test_dllmain"],
    "writer/writer_parcer.cpp": ["test_writer_parcer", "test_writer_main", "test_writer_web_service"],
    "linux/common_use/service/service4.cpp": ["test_memchecker", "test_stable"],
    "host/archive/arc_format.cpp": ["test_archive", "test_archive_reader"],
}

EQUIVALENT_FILE = os.path.join(ROOT, "scripts", "mutate-equivalent.txt")

SWAPS = [("<=", "<"), ("<", "<="), (">=", ">"), (">", ">="), ("==", "!="), ("!=", "=="),
         ("&&", "||"), ("||", "&&"), ("+", "-"), ("-", "+")]


def code_spans(line):
    """Index ranges of a line that are code: outside strings, chars and
    // comments. Block comments are handled by the caller."""
    spans, i, start, n = [], 0, 0, len(line)
    while i < n:
        c = line[i]
        if line.startswith("//", i):
            break
        if c in "\"'":
            spans.append((start, i))
            q, i = c, i + 1
            while i < n and line[i] != q:
                i += 2 if line[i] == "\\" else 1
            start = i + 1
        i += 1
    if start < n:
        end = line.find("//", start)
        spans.append((start, end if end >= 0 and not any(s <= end < e for s, e in spans) else n))
    return spans


def operator_sites(line):
    """(column, from, to) for each operator swap the line allows."""
    t = line.strip()
    if not t or t.startswith("#") or t.startswith("//") or t.startswith("*") or t.startswith("/*"):
        return []
    if "template" in t or "static_assert" in t or "#include" in t:
        return []
    sites = []
    for s, e in code_spans(line):
        seg = line[s:e]
        i = 0
        while i < len(seg):
            two = seg[i:i + 2]
            three = seg[i:i + 3]
            if three in ("<<=", ">>="):
                i += 3
                continue
            if two in ("<<", ">>", "->", "++", "--", "+=", "-=", "::"):
                i += 2
                continue
            if two in ("<=", ">=", "==", "!=", "&&", "||"):
                sites.append((s + i, two, dict(SWAPS)[two]))
                i += 2
                continue
            c = seg[i]
            prev = seg[:i].rstrip()
            nxt = seg[i + 1:i + 2]
            if c in "<>":
                # Comparisons only: a name or closing bracket on the left and a
                # space on both sides (templates and casts are written tight).
                if seg[i - 1:i] == " " and nxt == " " and seg[i + 1:i + 2] != "=":
                    sites.append((s + i, c, c + "="))
            elif c in "+-":
                # Binary arithmetic: spaced on both sides, not a sign.
                if seg[i - 1:i] == " " and nxt == " " and prev and prev[-1] not in "(=,<>!&|?:+-*/%[{":
                    sites.append((s + i, c, "-" if c == "+" else "+"))
            i += 1
    return sites


CONST = re.compile(r"(?<![\w.])(\d+)(?![\w.])")


def constant_sites(line):
    t = line.strip()
    if not t or t.startswith("#") or t.startswith("//") or t.startswith("*") or t.startswith("/*"):
        return []
    if "Mark(" in t or "TRACE" in t or "SIGN" in t or "case " in t:
        return []
    sites = []
    for s, e in code_spans(line):
        for m in CONST.finditer(line, s, e):
            v = int(m.group(1))
            sites.append((m.start(1), m.group(1), str(v + 1) if v % 2 == 0 else str(v - 1)))
    return sites


CALL_STMT = re.compile(r"^(\s*)([A-Za-z_][\w:.>-]*\([^;{}]*\));\s*(//.*)?$")


def delete_sites(line):
    m = CALL_STMT.match(line)
    if not m:
        return []
    body = m.group(2)
    # The last line of a call that spans lines is no statement of its own.
    if body.count("(") != body.count(")"):
        return []
    # Trace lines and the stability and wait-statistics marks only observe.
    if body.startswith(("return", "if", "while", "for", "switch", "TRACE", "StableMark", "Mark(", "assert")):
        return []
    return [(len(m.group(1)), body + ";", ";")]


def candidates():
    out = []
    for unit in sorted(UNITS):
        with open(os.path.join(ROOT, unit)) as f:
            lines = f.read().split("\n")
        in_block = False
        for no, line in enumerate(lines, 1):
            if in_block:
                if "*/" in line:
                    in_block = False
                continue
            if line.strip().startswith("/*"):
                in_block = "*/" not in line
                continue
            for kind, fn in (("op", operator_sites), ("const", constant_sites), ("delete", delete_sites)):
                for col, old, new in fn(line):
                    out.append((unit, no, col, kind, old, new, mutant_key(unit, line, col, old, new)))
    return out


def draw(pool, seed, count):
    """The `count` places that rank first by a hash of the seed and the
    place's key. The key names the line by its text, not its number, so an
    edit elsewhere in a unit leaves the sample as it was: only mutants of
    lines that changed drop out or come in. Places with the same key (the
    same line text twice in a unit) are told apart by their order."""
    seen = {}
    ranked = []
    for site in pool:
        key = site[6]
        seen[key] = seen.get(key, 0) + 1
        ranked.append((hashlib.sha1(("%d %s %d" % (seed, key, seen[key])).encode()).hexdigest(), site))
    ranked.sort()
    return [site for _, site in ranked[:count]]


def mutant_key(unit, line_text, col, old, new):
    """Stable across edits elsewhere in the file: the unit, the line's text
    and the change."""
    h = hashlib.sha1(line_text.strip().encode()).hexdigest()[:10]
    change = re.sub(r"\s+", "", old + ">" + new)
    return "%s %s %d %s" % (unit, h, col - (len(line_text) - len(line_text.lstrip())), change)


def load_equivalent():
    keys = set()
    if os.path.exists(EQUIVALENT_FILE):
        for line in open(EQUIVALENT_FILE):
            line = line.split("#", 1)[0].strip()
            if line:
                keys.add(" ".join(line.split()[:4]))
    return keys


def run(cmd, timeout, log):
    with open(log, "a") as f:
        f.write("$ %s\n" % " ".join(cmd))
        f.flush()
        try:
            p = subprocess.Popen(cmd, stdout=f, stderr=subprocess.STDOUT, start_new_session=True)
            return p.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            os.killpg(p.pid, signal.SIGKILL)
            p.wait()
            return 124


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--seed", type=int, default=15)
    ap.add_argument("--count", type=int, default=50)
    ap.add_argument("--build", default=os.path.join(ROOT, "build-mut"))
    ap.add_argument("--list", action="store_true", help="print the sample and stop")
    ap.add_argument("--jobs", default="2")
    ap.add_argument("--asan", default=os.path.join(ROOT, "build-mut-asan"),
                    help="build folder for the sanitizer stage of survivors; '' skips it")
    ap.add_argument("--pick", default="", help="only these mutants of the sample, by number: 3,7-9")
    args = ap.parse_args()

    pool = candidates()
    sample = draw(pool, args.seed, args.count)
    equivalent = load_equivalent()
    print("mutate: %d places in %d units; sample of %d, seed %d" % (len(pool), len(UNITS), len(sample), args.seed),
          flush=True)
    if args.list:
        for i, (unit, no, col, kind, old, new, _) in enumerate(sample, 1):
            print("%3d %s:%d:%d %s %r -> %r" % (i, unit, no, col + 1, kind, old, new))
        return 0

    os.makedirs(args.build, exist_ok=True)
    if not os.path.exists(os.path.join(args.build, "build.ninja")):
        subprocess.check_call(["cmake", "-S", ROOT, "-B", args.build, "-G", "Ninja",
                               "-DCMAKE_BUILD_TYPE=RelWithDebInfo"], stdout=subprocess.DEVNULL)
    log = os.path.join(args.build, "mutate.log")
    open(log, "w").close()
    print("mutate: first the unchanged tree (log: %s)" % log, flush=True)
    if run(["ninja", "-C", args.build, "-j", args.jobs], 3600, log) != 0:
        print("mutate: the unchanged tree does not build")
        return 2

    # Every test program of the suite (CTest names them after their targets).
    listed = subprocess.run(["ctest", "--test-dir", args.build, "-N"], capture_output=True, text=True).stdout
    # Only those built from a target: CTest also runs scripts (the layer
    # check, the dashboard) that ninja cannot build.
    all_tests = [t for t in re.findall(r"Test\s+#\d+: (\S+)", listed)
                 if t.startswith("test_") and os.path.exists(os.path.join(args.build, "bin", t))]
    originals = {}

    def restore(*_):
        for path, text in originals.items():
            with open(path, "w") as f:
                f.write(text)
        originals.clear()

    def on_signal(sig, _frame):
        restore()
        sys.exit(128 + sig)

    signal.signal(signal.SIGINT, on_signal)
    signal.signal(signal.SIGTERM, on_signal)

    def under_asan(unit):
        """The unit's programs once more with AddressSanitizer and the
        undefined-behaviour checks, as the test command runs them: a leak,
        a write past a block or a shift too far is a kill too."""
        if not args.asan:
            return None
        if not os.path.exists(os.path.join(args.asan, "build.ninja")):
            subprocess.check_call(["cmake", "-S", ROOT, "-B", args.asan, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug",
                                   "-DWRITER_SANITIZER=address"], stdout=subprocess.DEVNULL)
        for t in UNITS[unit]:
            if run(["ninja", "-C", args.asan, "-j", args.jobs, t], 3600, log) != 0:
                return None
            if run([os.path.join(args.asan, "bin", t)], 600, log) != 0:
                return "killed under ASan by " + t
        return None

    picked = set()
    for part in filter(None, args.pick.split(",")):
        lo, _, hi = part.partition("-")
        picked.update(range(int(lo), int(hi or lo) + 1))
    counts = {"killed": 0, "survived": 0, "equivalent": 0, "no build": 0}
    survivors = []
    t0 = time.time()
    try:
        for i, (unit, no, col, kind, old, new, key) in enumerate(sample, 1):
            if picked and i not in picked:
                continue
            path = os.path.join(ROOT, unit)
            text = open(path).read()
            lines = text.split("\n")
            line = lines[no - 1]
            where = "%3d %s:%d:%d %s %r -> %r" % (i, unit, no, col + 1, kind, old, new)
            if key in equivalent:
                counts["equivalent"] += 1
                print("%s  equivalent" % where, flush=True)
                continue
            assert line[col:col + len(old)] == old, (where, line)
            lines[no - 1] = line[:col] + new + line[col + len(old):]
            originals[path] = text
            with open(path, "w") as f:
                f.write("\n".join(lines))
            verdict = None
            # One program at a time: most mutants die in the first, and the
            # others then need no link.
            for t in UNITS[unit]:
                if run(["ninja", "-C", args.build, "-j", args.jobs, t], 1800, log) != 0:
                    verdict = "no build"
                elif run([os.path.join(args.build, "bin", t)], 300, log) != 0:
                    verdict = "killed by " + t
                if verdict is not None:
                    break
            if verdict is None:
                # The whole suite, for what another program may notice.
                if run(["ninja", "-C", args.build, "-j", args.jobs] + all_tests, 3600, log) != 0:
                    verdict = "no build"
                # A program that fails twice in a row: the end-to-end runs of
                # writer-host keep real time and can miss once on a busy machine.
                elif run(["ctest", "--test-dir", args.build, "-j", args.jobs, "--timeout", "300",
                          "--repeat", "until-pass:2"], 3600, log) != 0:
                    verdict = "killed by the suite"
                else:
                    verdict = under_asan(unit) or "SURVIVED"
            restore()
            if verdict == "no build":
                counts["no build"] += 1
            elif verdict == "SURVIVED":
                counts["survived"] += 1
                survivors.append("%s  key: %s" % (where, key))
            else:
                counts["killed"] += 1
            print("%s  %s" % (where, verdict), flush=True)
    finally:
        restore()
    # Bring the build folders back to the unchanged tree for the next run.
    run(["ninja", "-C", args.build, "-j", args.jobs], 3600, log)
    if args.asan and os.path.exists(os.path.join(args.asan, "build.ninja")):
        run(["ninja", "-C", args.asan, "-j", args.jobs] + all_tests, 3600, log)

    judged = counts["killed"] + counts["survived"]
    rate = 100.0 * counts["killed"] / judged if judged else 0.0
    print("mutate: %d killed, %d survived, %d equivalent (marked), %d did not build; %.0f min"
          % (counts["killed"], counts["survived"], counts["equivalent"], counts["no build"], (time.time() - t0) / 60))
    for s in survivors:
        print("survivor: " + s)
    print("kill rate: %d of %d mutants that can change behaviour (%.1f %%)" % (counts["killed"], judged, rate))
    return 0


if __name__ == "__main__":
    sys.exit(main())
