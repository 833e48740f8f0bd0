#!/usr/bin/python3
"""The row "mutation": every branch of what ships flipped or removed, one at a time; do the tests notice?

usage: mutation.py --quick|--full [--seed N] [--state DIR] [--point NAME...]

--point runs one mutant alone and tells which cases can tell it from the original and what they
said; its name is FILE:LINE:COLUMN+LENGTH:KIND, as a red row prints it. --full goes on where it was
interrupted. The reviewed survivors stand in the file "survivors" beside this program.
"""

import argparse
import collections
import hashlib
import json
import os
import pathlib
import random
import resource
import signal
import subprocess
import sys
import time

HERE = pathlib.Path(__file__).resolve().parent
TOP = HERE.parent.parent
BUILD = TOP / "build/dev"
SOURCES = BUILD / "proof/mutation/src"
PROGRAMS = ["test_fim_config", "test_convert", "test_snap", "test_symapi", "test_method",
            "test_host"]
TARGET = 90
QUICK = 150
# A case that takes this many seconds longer than usual hangs, and so notices.
PATIENCE = 3
LEAK_CASES = 24
WAS_FALSE, WAS_TRUE, WAS_REACHED = 1, 2, 4
# What a run without a mutant must have seen at its place for the mutant to do anything there.
TELLING = {"flipped": WAS_FALSE | WAS_TRUE, "true": WAS_FALSE, "false": WAS_TRUE,
           "removed": WAS_REACHED, "case removed": WAS_REACHED}


def finish(held, points, of, failed, note, status):
    print(json.dumps({"held": held, "points": points, "of": of, "failed": failed, "note": note}),
          flush=True)
    sys.exit(status)


def point_of(m):
    kind = m["kind"].replace(" ", "_")
    return f"{m['file']}:{m['line']}:{m['column']}+{m['length']}:{kind}"


def key_of(m):
    return m["file"], m["function"], m["text"], m["kind"], m["nth"]


# -- the reviewed list


def read_survivors(path):
    """FILE FUNCTION KIND[#N][,KIND...] VERDICT, then indented the text behind "= " and the reason."""
    found, entry = {}, None
    for number, line in enumerate(path.read_text().splitlines(), 1):
        if not line.strip() or line.startswith("#"):
            continue
        if not line[0].isspace():
            words = line.split()
            if len(words) != 4 or words[3] not in ("equivalent", "unnoticed"):
                sys.exit(f"{path.name}:{number}: not FILE FUNCTION KINDS VERDICT")
            entry = {"head": words, "reason": "", "line": number}
            continue
        text = line.strip()
        if text.startswith("= "):
            file, function, kinds, verdict = entry["head"]
            for kind in kinds.split(","):
                name, _, nth = kind.partition("#")
                found[file, function, text[2:], name.replace("_", " "),
                      int(nth or 1)] = (verdict, entry)
        else:
            entry["reason"] += text + " "
    for verdict, entry in found.values():
        if not entry["reason"]:
            sys.exit(f"{path.name}:{entry['line']}: no reason is given")
    return found


# -- cases


class Case:
    def __init__(self, program, name):
        self.program, self.name = program, name
        self.seconds, self.seen = 0.0, b""
        self.leaks = None  # whether it leaks without a mutant

    def __str__(self):
        return f"{self.program} {self.name}"

    def run(self, variables, limit, output=subprocess.DEVNULL, build="mutated"):
        """True when it passes, False when not (a crash, in the build "leaking" a leak too), None
        when it hangs."""
        child = subprocess.Popen(
            [BUILD / "bin" / f"{build}_{self.program}", f"--gtest_filter={self.name}"],
            env={**os.environ, **variables}, cwd=TOP, stdin=subprocess.DEVNULL, stdout=output,
            stderr=output, start_new_session=True)
        try:
            return child.wait(limit) == 0
        except subprocess.TimeoutExpired:
            return None
        finally:
            # Its process number is its group's as long as it was not waited for.
            try:
                os.killpg(child.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            child.wait()
            self.bury()

    def notices(self, m):
        chosen = {"MUTATION_CHOSEN": str(m["number"])}
        passed = self.run(chosen, 2 * self.seconds + PATIENCE)
        if passed is None:
            # A machine that was busy elsewhere is no mutant that hangs.
            passed = self.run(chosen, 4 * self.seconds + 2 * PATIENCE)
        return not passed

    def notices_leak(self, m):
        """What it says under the sanitizers, which every landing asks."""
        limit = 3 * self.seconds + PATIENCE
        if self.run({"MUTATION_CHOSEN": str(m["number"])}, limit, build="leaking"):
            return False
        if self.leaks is None:
            self.leaks = not self.run({}, limit, build="leaking")
        return not self.leaks

    @staticmethod
    def bury():
        """What a killed case left was handed to this process, the first of its namespace."""
        while os.getpid() == 1:
            try:
                if os.waitpid(-1, os.WNOHANG)[0] == 0:
                    break
            except ChildProcessError:
                break


def list_cases():
    cases = []
    for program in PROGRAMS:
        out = subprocess.run([BUILD / "bin" / f"mutated_{program}", "--gtest_list_tests"],
                             check=True, capture_output=True, text=True).stdout
        suite = ""
        for line in out.splitlines():
            line = line.split("#")[0].rstrip()
            if line.startswith(" "):
                cases.append(Case(program, suite + line.strip()))
            elif line.endswith("."):
                suite = line
    return cases


def record(cases, state, places):
    """One run of every case without a mutant: how long it takes and what it sees."""
    path = state / "record"
    kept, red = [], 0
    for case in cases:
        path.unlink(missing_ok=True)
        for _ in range(2):  # once more for what a busy machine has upset
            began = time.monotonic()
            passed = case.run({"MUTATION_RECORD": str(path)}, 60)
            case.seconds = time.monotonic() - began
            if passed:
                break
        if not passed:
            print(f"FAILED {case}, without a mutant", flush=True)
            red += 1
            continue
        case.seen = path.read_bytes()
        if len(case.seen) < places:
            sys.exit(f"{case}: its record is too short")
        kept.append(case)
    path.unlink(missing_ok=True)
    return sorted(kept, key=lambda c: c.seconds), red


# -- mutants


class Run:
    def __init__(self, state, mutants, cases):
        self.state, self.mutants = state, mutants
        self.cases = {str(c): c for c in cases}
        self.ordered = cases
        self.telling = {}
        self.last = {}  # which case noticed another mutant of the same function
        try:
            self.hints = json.loads((state / "hints").read_text())
        except (OSError, ValueError):
            self.hints = {}

    def cases_for(self, m):
        """The cases that can tell the mutant from the original, the likeliest and fastest first."""
        place = m["place"]
        able = [c for c in self.ordered if c.seen[place] & TELLING[m["kind"]]]
        first = [self.cases.get(name) for name in
                 [self.hints.get("|".join(map(str, key_of(m))))] + list(
                     self.last.get((m["file"], m["function"]), []))]
        front = [c for c in dict.fromkeys(first) if c is not None and c in able]
        return front + [c for c in able if c not in front]

    def killer(self, m):
        """The case that notices, or nothing."""
        able = self.cases_for(m)
        for case in able:
            if case.notices(m):
                return self.remember(m, case)
        # What is not given back shows in whoever gets there; all of them would take too long.
        for case in able[:LEAK_CASES]:
            if case.notices_leak(m):
                return self.remember(m, case)
        return None

    def remember(self, m, case):
        self.hints["|".join(map(str, key_of(m)))] = str(case)
        queue = self.last.setdefault((m["file"], m["function"]), collections.deque(maxlen=3))
        if str(case) in queue:
            queue.remove(str(case))
        queue.appendleft(str(case))
        return case

    def keep_hints(self):
        (self.state / "hints").write_text(json.dumps(self.hints))


def places_of(mutants):
    """A condition's mutants share what was seen at its first number."""
    offset = {"flipped": 0, "true": 1, "false": 2}
    for m in mutants:
        m["place"] = m["number"] - offset.get(m["kind"], 0)


def show(run, m):
    print(f"{point_of(m)}\n  in {m['function']}: {m['text']}\n  number {m['number']}")
    able = run.cases_for(m)
    if not able:
        print("  no case gets there")
    for n, case in enumerate(able):
        word = "NOTICES" if case.notices(m) else "LEAKS" if n < LEAK_CASES and case.notices_leak(m) else "passes"
        print(f"  {word:8} {case}", flush=True)


def print_folders(mutants, result, reviewed):
    print(f"{'folder':12} {'mutants':>8} {'noticed':>8} {'equivalent':>11} {'score':>7}")
    folders = sorted({m["file"].split("/")[0] for m in mutants})
    for folder in folders + ["all"]:
        mine = [m for m in mutants if folder == "all" or m["file"].startswith(folder + "/")]
        done = [m for m in mine if point_of(m) in result]
        killed = sum(result[point_of(m)] for m in done)
        same = sum(1 for m in done if not result[point_of(m)] and
                   reviewed.get(key_of(m), ("",))[0] == "equivalent")
        if done:
            print(f"{folder:12} {len(done):8} {killed:8} {same:11} "
                  f"{100 * killed / max(1, len(done) - same):6.1f}%")
            # The last line is that of all.
            raw, score = 100 * killed / len(done), 100 * killed / max(1, len(done) - same)
    return raw, score


def fingerprint():
    digest = hashlib.sha256()
    for program in PROGRAMS:
        digest.update((BUILD / "bin" / f"mutated_{program}").read_bytes())
    digest.update(pathlib.Path(__file__).read_bytes())
    return digest.hexdigest()


def own_namespace():
    """A mutant may lose count of its children; here it finds none but its own."""
    if os.getpid() == 1 or os.geteuid() != 0 or os.environ.get("MUTATION_INSIDE"):
        return
    os.environ["MUTATION_INSIDE"] = "1"
    os.execvp("unshare", ["unshare", "--pid", "--mount-proc", "--fork", "--kill-child", "--",
                          sys.executable] + sys.argv)


def arguments():
    parser = argparse.ArgumentParser(description="The tests against every mutant of what ships.")
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--full", action="store_true")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--state", type=pathlib.Path, default=TOP / "build/proof/mutation")
    parser.add_argument("--point", action="append", default=[])
    parser.add_argument("--only", action="append", help="only files whose name begins so")
    return parser.parse_args()


def build():
    if not (BUILD / "build.ninja").exists():
        finish(0, 0, 0, 0, "build the preset dev first", 77)
    done = subprocess.run(["cmake", "--build", BUILD, "--target", "mutation_programs"],
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    if done.returncode != 0:
        print(done.stdout)
        finish(0, 0, 0, 0, "the mutants do not build", 1)


def main():
    options = arguments()
    if not os.environ.get("MUTATION_INSIDE"):
        if subprocess.run(["/usr/bin/python3", "-c", "import clang.cindex"],
                          stderr=subprocess.DEVNULL).returncode != 0:
            finish(0, 0, 0, 0, "needs python3-clang-14: tools/install-packages proof", 77)
        build()
    own_namespace()
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    state = options.state.resolve()
    state.mkdir(parents=True, exist_ok=True)
    table = json.loads((SOURCES / "mutants.json").read_text())
    mutants = table["mutants"]
    places_of(mutants)
    reviewed = read_survivors(HERE / "survivors")
    began = time.monotonic()
    cases, red_cases = record(list_cases(), state, table["places"])
    reached = [0] * table["places"]
    for case in cases:
        for place, bits in enumerate(case.seen[:table["places"]]):
            if bits:
                reached[place] |= bits
    print(f"{len(mutants)} mutants, {len(cases)} cases recorded in "
          f"{time.monotonic() - began:.0f} s; left out {table['left_out']}", flush=True)
    run = Run(state, mutants, cases)

    if options.point:
        for m in mutants:
            if point_of(m) in options.point:
                show(run, m)
        return
    if options.full:
        chosen = [m for m in mutants if m["file"].startswith(tuple(options.only or [""]))]
    else:
        chosen = random.Random(options.seed).sample(mutants, QUICK)

    # What was found out about these very programs stands.
    ledger = state / "done"
    now = fingerprint()
    result = {}
    if options.full and ledger.exists():
        lines = ledger.read_text().splitlines()
        if lines and lines[0] == now:
            result = {name: word == "noticed" for word, name in
                      (line.split(" ", 1) for line in lines[1:] if " " in line)}
    if options.full and not result:
        ledger.write_text(now + "\n")
    known = len(result)
    red = []
    last_said = time.monotonic()
    with open(ledger if options.full else os.devnull, "a", buffering=1) as log:
        for number, m in enumerate(chosen):
            point = point_of(m)
            if point not in result:
                # The quick form takes the list's word; the full one looks whether it still holds.
                known_survivor = not options.full and key_of(m) in reviewed
                result[point] = not known_survivor and (
                    run.killer(m) is not None or
                    # Once more: what depends on the moment may have passed it.
                    key_of(m) not in reviewed and run.killer(m) is not None)
                log.write(f"{'noticed' if result[point] else 'unnoticed'} {point}\n")
            if not result[point] and key_of(m) not in reviewed:
                red.append(m)
            if time.monotonic() - last_said > 20:
                last_said = time.monotonic()
                run.keep_hints()
                print(f"{number + 1} of {len(chosen)} after {last_said - began:.0f} s, "
                      f"{len(red)} not noticed", flush=True)
    run.keep_hints()

    result = {point_of(m): result[point_of(m)] for m in chosen}
    raw, score = print_folders(chosen, result, reviewed)
    for m in red:
        where = "" if reached[m["place"]] & TELLING[m["kind"]] else " (no case gets there)"
        print(f"FAILED {m['file']}:{m['line']} {m['function']} {m['kind'].replace(' ', '_')}"
              f"{'#%d' % m['nth'] if m['nth'] > 1 else ''}{where}\n    = {m['text']}\n"
              f"    repeat: ./dev proof mutation --point {point_of(m)}")
    stale = [k for k in reviewed if k not in {key_of(m) for m in mutants}]
    stale += [key_of(m) for m in chosen if key_of(m) in reviewed and result[point_of(m)]]
    for key in stale:
        print(f"no longer a survivor: {key[0]} {key[1]} {key[3]} = {key[2]}")
    killed = sum(result.values())
    known_survivors = len(chosen) - killed - len(red)
    note = (f"{score:.1f} % killed ({raw:.1f} % with the equivalent ones), "
            f"{known_survivors} reviewed survivors")
    if not options.full:
        note += f", seed {options.seed}"
    elif known:
        note += f", {known} of them earlier"
    if red_cases:
        note += f", {red_cases} cases are red without a mutant"
    # A sample of a few is no score: what counts in it is that every survivor was looked at.
    good = not red and not red_cases and (score >= TARGET or not options.full)
    finish(killed, len(chosen), len(mutants), len(red), note, 0 if good else 1)


main()
