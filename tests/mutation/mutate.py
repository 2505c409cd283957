#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Puts small faults into src/ and looks whether the tests find them.

    ./dev mutate [COUNT] [SEED] [--only FILE]... [--jobs N] [--stages LIST] [--fresh]

The build trees of ./dev test are the starting point: a worker has a copy of their objects and of src/, compiles what a
fault touches by the trees' own commands, links and runs. The sources and the build trees themselves stay as they are;
leave them alone while this runs. A run that is broken off goes on where it was when started again.
"""
import argparse
import collections
import concurrent.futures
import datetime
import fcntl
import filecmp
import hashlib
import json
import math
import os
import random
import re
import resource
import shlex
import shutil
import signal
import subprocess
import sys
import threading
import time
import traceback
from pathlib import Path

sys.dont_write_bytecode = True  # nothing is left in the source tree
import faults

ROOT = Path(__file__).resolve().parents[2]
WORK = ROOT / "build/mutation"
KNOWN = ROOT / "tests/mutation/equivalent.txt"

# Tests to run first, by file: the others follow.
TOPICS = {
    "matrix/record.cpp": "record", "matrix/fill.cpp": "fill", "matrix/negate_scale.cpp": "negate_scale",
    "matrix/add_sub.cpp": "add_sub", "matrix/transpose.cpp": "transpose", "matrix/multiply.cpp": "multiply",
    "matrix/multiply_add.cpp": "multiply_add", "matrix/inverse.cpp": "inverse",
    "matrix/product.h": "multiply multiply_add", "matrix/layout.h": "record fill add_sub transpose multiply",
    "fixed3/fixed3.cpp": "fixed3", "kalman/kalman.cpp": "kalman", "tracker/tracker.cpp": "tracker process",
    "tracker/process.cpp": "process tracker_random", "tracker/ring.h": "tracker process",
    "kernels/product.h": "multiply multiply_add", "kernels/transpose.h": "transpose multiply inverse",
    "kernels/product_by_pairs.h": "multiply multiply_add", "lanes/pairs.h": "multiply multiply_add",
    "kernels/elementwise.h": "negate_scale add_sub fill", "kernels/gauss_jordan.h": "inverse",
    "kernels/nearest.h": "process tracker_random", "kernels/kernels.cpp": "lanes",
    "kernels/": "lanes multiply transpose add_sub", "lanes/": "lanes add_sub negate_scale multiply multiply_add",
}
# Tests that say nothing about the library's objects, build by themselves for minutes, or run others' programs slowly.
LEFT_OUT = re.compile(r"(digest-.*|readme_example|strangers|debs|clang-tidy|cppcheck|"
                      r".*\.(valgrind|Nehalem|Haswell|asan.*))$")
# What is copied of a build tree.
PRODUCTS = re.compile(r"\.(o|a|so[.\d]*)$|^tests/(soak/)?\w+$|^tools/\w+$")


def relevant(file):
    for name, topics in TOPICS.items():
        if file == name or name.endswith("/") and file.startswith(name):
            return topics.split()
    return []


def widest():
    try:
        flags = re.search(r"^flags.*$", Path("/proc/cpuinfo").read_text(), re.M).group().split()
    except (OSError, AttributeError):
        return 16
    return 64 if {"avx512f", "avx512bw", "avx512dq", "avx512vl"} <= set(flags) else 32 if "avx2" in flags else 16


WIDEST = widest()
alive = set()  # process groups that we started


def stop(number, _):
    for group in list(alive):
        try:
            os.killpg(group, signal.SIGKILL)
        except ProcessLookupError:
            pass
    os._exit(128 + number)


def run(command, cwd, timeout, env=None, shell=False, most_memory=0):
    """Exit status and output; a status of None says that the time was over."""
    def limits():
        resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
        resource.setrlimit(resource.RLIMIT_FSIZE, (1 << 30, 1 << 30))
        if most_memory:
            resource.setrlimit(resource.RLIMIT_AS, (most_memory, most_memory))
    process = subprocess.Popen(command, cwd=cwd, env=env, shell=shell, stdin=subprocess.DEVNULL,
                               stdout=subprocess.PIPE, stderr=subprocess.STDOUT, start_new_session=True,
                               preexec_fn=limits)
    alive.add(process.pid)
    try:
        output, _ = process.communicate(timeout=timeout)
        return process.returncode, output.decode(errors="replace")
    except subprocess.TimeoutExpired:
        return None, ""
    finally:
        # Its own group: no loop goes on behind us, and nobody else's process is met.
        try:
            os.killpg(process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        process.wait()
        alive.discard(process.pid)


class Stage:
    """One build tree of ./dev test, as it was when the run began."""

    def __init__(self, name):
        self.name = name
        self.tree = ROOT / "build" / name
        if not (self.tree / "build.ninja").exists():
            sys.exit(f"mutate: build/{name} is not built")
        ask = lambda *what: subprocess.run(what, cwd=self.tree, check=True, capture_output=True, text=True).stdout
        self.ask = ask
        if "no work to do" not in ask("ninja", "-n"):
            sys.exit(f"mutate: build/{name} is not up to date")
        self.commands = {}  # object -> arguments of the compiler
        for entry in json.loads((self.tree / "compile_commands.json").read_text()
                                if (self.tree / "compile_commands.json").exists() else ask("ninja", "-t", "compdb")):
            command = entry["command"]
            if " -o " not in command or " -c " not in command:
                continue
            words = shlex.split(command)
            output = words[words.index("-o") + 1]
            if "/ox_asan.dir/" in output:
                continue  # its tests are left out
            for flag in ("-MT", "-MF"):
                if flag in words:
                    at = words.index(flag)
                    del words[at:at + 2]
            # A warning is no verdict.
            self.commands[output] = [w for w in words if w not in ("-MD", "-Werror")] + ["-w"]
        self.users = collections.defaultdict(list)  # file below src/ -> objects
        target, source = None, str(ROOT / "src") + "/"
        for line in ask("ninja", "-t", "deps").splitlines():
            if line and not line[0].isspace():
                target = line.split(": #deps")[0]
            elif line.strip().startswith(source) and target in self.commands:
                self.users[line.strip()[len(source):]].append(target)
        self.links = {}
        self.tests = []
        listing = json.loads(ask("ctest", "--show-only=json-v1"))
        for test in listing["tests"]:
            name = test["name"][len(self.name) + 1:]
            if LEFT_OUT.match(name) or "command" not in test:
                continue
            properties = {p["name"]: p["value"] for p in test.get("properties", [])}
            environment = dict(x.split("=", 1) for x in properties.get("ENVIRONMENT", []))
            self.tests.append((name, test["command"], environment, properties.get("SKIP_RETURN_CODE")))
        self.sanitized = any(w.startswith("-fsanitize") for words in self.commands.values() for w in words)
        self.native = any(o.endswith("width_32.cpp.o") for o in self.commands)
        self.emulates = any("-DOX_EMULATE_64" in words for words in self.commands.values())
        self.widest = 64 if self.emulates and WIDEST >= 32 else WIDEST
        self.lock = threading.Lock()
        self.times_file = WORK / f"times.{self.name}.json"
        try:
            self.times = json.loads(self.times_file.read_text())
        except (OSError, ValueError):
            self.times = {}

    def link_of(self, output):
        with self.lock:
            if output not in self.links:
                self.links[output] = self.ask("ninja", "-t", "commands", output).splitlines()[-1]
            return self.links[output]

    def order(self, file):
        """The tests, relevant ones first, each topic at all its widths, those under an emulator last.

        What is compiled once for all widths meets the topics that are not its own at the widest alone.
        """
        first = relevant(file)
        own = lambda name: name.split(".")[0] in first
        by_width = file.startswith(("kernels/", "lanes/"))
        # The run without a width is at the widest; where widths are emulated, each has its own run and there is none.
        at_widest = lambda name: name.endswith(f".{self.widest}") if self.emulates else "." not in name
        again = lambda name: not self.emulates and name.endswith(f".{self.widest}")
        rank = lambda name: (name.endswith(("Nehalem", "Haswell")),
                             first.index(name.split(".")[0]) if own(name) else len(first))
        return sorted((t for t in self.tests if (by_width or own(t[0]) or at_widest(t[0])) and not again(t[0])),
                      key=lambda t: rank(t[0]))


class Place:
    """What one worker has: its src/, and of each stage the products."""

    def __init__(self, number, stages):
        self.home = WORK / f"w{number}"
        self.src = self.home / "src"
        shutil.rmtree(self.home, ignore_errors=True)
        shutil.copytree(ROOT / "src", self.src)
        for stage in stages:
            for path in stage.tree.rglob("*"):
                name = str(path.relative_to(stage.tree))
                if path.is_dir() or not PRODUCTS.search(name) or "/digest/" in name or "/strangers/" in name:
                    continue
                to = self.of(stage) / name
                to.parent.mkdir(parents=True, exist_ok=True)
                shutil.copy2(path, to, follow_symlinks=False)

    def of(self, stage):
        return self.home / stage.name

    def moved(self, stage, text):
        return text.replace(f"{stage.tree}/", f"{self.of(stage)}/").replace(str(ROOT / "src"), str(self.src))

    def compile(self, stage, objects):
        """None when one does not compile, else the objects that came out other than before."""
        changed = []
        for name in objects:
            to = self.of(stage) / name
            to.unlink(missing_ok=True)
            status, output = run([self.moved(stage, w) for w in stage.commands[name]], self.of(stage), 300)
            if status is None or (status != 0 and re.search(r"internal compiler error|Killed|No space", output)):
                raise RuntimeError(f"compiler: {output[-500:]}")
            if status != 0:
                return None
            if not filecmp.cmp(to, stage.tree / name, shallow=False):
                changed.append(name)
        return changed

    def restore(self, stage, objects):
        for name in objects:
            shutil.copy2(stage.tree / name, self.of(stage) / name)

    def link(self, stage, done, output):
        if output in done:
            return
        done.add(output)
        command = stage.link_of(output)
        for library in ("src/libox.a", f"src/libox.so.0"):
            if library != output and library in command and not output.startswith("src/"):
                self.link(stage, done, "src/libox.a" if library.endswith(".a") else self.shared_name(stage))
        (self.of(stage) / output).unlink(missing_ok=True)
        status, text = run(self.moved(stage, command), self.of(stage), 120, shell=True)
        if status != 0:
            raise LinkFailure(text[-300:])

    def shared_name(self, stage):
        return next(str(p.relative_to(self.of(stage))) for p in (self.of(stage) / "src").glob("libox.so.*")
                    if not p.is_symlink())

    def test(self, stage, test, done, log):
        """(found, by what)"""
        name, command, environment, skip = test
        for word in command:
            word = word.replace(f"{stage.tree}/", "")
            if (self.of(stage) / word).is_file() and not word.startswith("/") and not word.endswith(".o"):
                self.link(stage, done, word)
                # A program that does not contain the changed object is what it was.
                if word.endswith("_test") and name != "oxtrack" and \
                        filecmp.cmp(self.of(stage) / word, stage.tree / word, shallow=False):
                    return False, ""
        if name == "oxtrack":  # the tool looks for the library where its link says
            self.link(stage, done, self.shared_name(stage))
        env = dict(os.environ, GTEST_FAIL_FAST="1", LD_LIBRARY_PATH=str(self.of(stage) / "src"), **environment)
        usual = usual_time(stage, test)
        while usual != math.inf:
            begin = time.monotonic()
            timeout = usual * 6 + 15 if usual is not None else 120 if stage.native else 600
            status, output = run([self.moved(stage, w) for w in command], self.of(stage), timeout, env,
                                 most_memory=0 if stage.sanitized else 8 << 30)
            if status == 0 or (skip is not None and status == skip):
                if usual is None:
                    usual_time(stage, test, time.monotonic() - begin)
                return False, ""
            if usual is not None:
                break
            # A failure counts where there is none without the fault.
            usual = measure(stage, test, log)
            if status is not None and usual != math.inf:
                break
        if usual == math.inf:
            return False, ""
        failed = re.search(r"\[  FAILED  \] (\S+?)[, ]", output)
        if status is None:
            return True, f"{name}: no end within {timeout:.0f} s"
        if failed:
            return True, f"{name}: {failed.group(1)}"
        running = re.findall(r"\[ RUN      \] (\S+)", output)
        sanitizer = re.search(r"ERROR: AddressSanitizer: \S+|runtime error: [^\n]{0,60}", output)
        what = sanitizer.group() if sanitizer else f"exit {status}"
        return True, f"{name}: {what}" + (f" in {running[-1]}" if running else "")


class LinkFailure(Exception):
    pass


def usual_time(stage, test, measured=None):
    """Seconds that a test takes without a fault, None while nobody knows; infinite when it fails then, too."""
    program = next((w for w in reversed(test[1]) if w.startswith(str(stage.tree)) and not w.endswith(".o")), None)
    key = f"{test[0]} {os.stat(program).st_mtime_ns if program else ''}"  # once for each build
    with stage.lock:
        if measured is not None:
            stage.times[key] = measured
            stage.times_file.write_text(json.dumps(stage.times))
        return stage.times.get(key)


def measure(stage, test, log):
    begin = time.monotonic()
    status, _ = run(test[1], stage.tree, 900, dict(os.environ, **test[2]))
    seconds = time.monotonic() - begin
    if status != 0 and not (test[3] is not None and status == test[3]):
        log(f"mutate: {stage.name}.{test[0]} fails without any fault: left out")
        seconds = math.inf
    return usual_time(stage, test, seconds)


def width_of(name):
    """Bytes of the vectors that an object is compiled for, 0 when it is for all."""
    found = re.search(r"/width_(\d+)\.", name)
    return int(found.group(1)) if found else 0


def batches_of(objects):
    """[(width, objects)]: what all widths share goes with the narrowest."""
    widths = sorted({width_of(o) for o in objects} - {0})
    if not widths:
        return [(0, objects)]
    return [(w, [o for o in objects if width_of(o) == w or (w == widths[0] and not width_of(o))]) for w in widths]


def find(place, stage, tests, log):
    """By which of the tests the fault is found, or nothing."""
    done = set()
    for test in tests:
        try:
            hit, what = place.test(stage, test, done, log)
        except LinkFailure as failure:
            hit, what = True, f"link: {str(failure).strip()[-120:]}"
        if hit:
            return f"{stage.name}.{what}"
    return ""


def judge(place, stages, fault, listed, log):
    """What became of one fault."""
    source = place.src / fault.file
    original = source.read_bytes()
    text = original.decode()
    record = {"stages": []}
    try:
        source.write_text(text[:fault.start] + fault.new + text[fault.end:])
        seen_natively, differs = False, False
        for stage in stages:
            objects = stage.users.get(fault.file, [])
            if not objects or stage.sanitized and not seen_natively:
                continue
            try:
                changed, passed = [], set()
                batches = batches_of(objects)
                for width, batch in batches:
                    some = place.compile(stage, batch)
                    if some is None:
                        break
                    changed += some
                    # A narrow width by itself first: most faults need no other to be compiled.
                    if changed and width and width < stage.widest and (width, batch) != batches[-1]:
                        own = [t for t in stage.order(fault.file) if t[0] in
                               [f"{topic}.{width}" for topic in relevant(fault.file)]]
                        by = find(place, stage, own, log)
                        if by:
                            record["stages"].append(stage.name)
                            return dict(record, status="killed", by=by)
                        passed |= {t[0] for t in own}
                    if width == stage.widest and changed:
                        break  # no wider ones can run
                if some is None:
                    if not differs:
                        return dict(record, status="no compile")
                    continue
                if not changed:
                    continue
                differs = True
                if stage.native and all(width_of(o) > stage.widest for o in changed):
                    seen_natively = True
                    continue
                record["stages"].append(stage.name)
                tests = [t for t in stage.order(fault.file) if t[0] not in passed]
                if seen_natively and not stage.native:
                    # Emulated: what concerns the file, and what looks at the library itself.
                    first = relevant(fault.file)
                    tests = [t for t in tests if t[0].split(".")[0] in first or t[0] in
                             ("abi", "footprint", "statics", "neon_floats", "alignment")]
                by = find(place, stage, tests, log)
                if by:
                    return dict(record, status="killed", by=by)
            finally:
                place.restore(stage, objects)
            seen_natively = seen_natively or stage.native
            if listed:
                break
        return dict(record, status="survived" if record["stages"] else "not run" if differs else "same code")
    finally:
        source.write_bytes(original)


def read_known():
    """{(file, before, after): reason} of blocks: file, "- before", "+ after", reason."""
    known = {}
    if KNOWN.exists():
        for block in KNOWN.read_text().split("\n\n"):
            lines = [x for x in block.strip().splitlines() if not x.startswith("#")]
            if len(lines) >= 4 and lines[1].startswith("- ") and lines[2].startswith("+ "):
                known[lines[0], lines[1][2:], lines[2][2:]] = " ".join(lines[3:])
            elif lines:
                sys.exit(f"mutate: {KNOWN.name}: cannot read the block of {lines[0]}")
    return known


def draw(sources, count, seed):
    """{file: (how many, faults in the order they are drawn)}, in proportion to the code in the files."""
    weights, candidates = {}, {}
    for file, text in sources.items():
        found = faults.faults_of(file, text)
        if found:
            candidates[file] = found
            weights[file] = len(faults.tokens_of(text))
    total = sum(weights.values())
    exact = {f: count * w / total for f, w in weights.items()}
    quota = {f: int(x) for f, x in exact.items()}
    for f in sorted(exact, key=lambda f: quota[f] - exact[f])[:count - sum(quota.values())]:
        quota[f] += 1
    drawn = {}
    for file, found in sorted(candidates.items()):
        dice = random.Random(f"{seed} {file}")
        groups = collections.defaultdict(list)
        for fault in found:
            groups[fault.group].append(fault)
        for group in groups.values():
            dice.shuffle(group)
        # By kind first, or the numbers of a table would be most of what is drawn.
        sequence, names = [], sorted(groups)
        while names:
            name = dice.choices(names, [math.sqrt(len(groups[n])) for n in names])[0]
            sequence.append(groups[name].pop())
            if not groups[name]:
                names.remove(name)
        drawn[file] = (quota[file], sequence)
    return drawn


def state_of_tree():
    """Changes with everything that a verdict rests on."""
    digest = hashlib.sha1()
    for path in sorted(p for top in ("include", "src", "tests", "tools") for p in (ROOT / top).rglob("*") if p.is_file()):
        if path.parent.name not in ("mutation", "__pycache__"):
            digest.update(str(path.relative_to(ROOT)).encode() + b"\0" + path.read_bytes() + b"\0")
    return digest.hexdigest()[:16]


def report(results, known, arguments, seconds):
    counted = [r for r in results if r["status"] in ("killed", "survived")]
    is_known = lambda r: (r["file"], r["before"], r["after"]) in known
    lines = ["# Mutation", "",
             f"{datetime.date.today()}, `./dev mutate {arguments.count} {arguments.seed}"
             + "".join(f" --only {o}" for o in arguments.only) + f"`, stages {arguments.stages}, {seconds:.0f} s", ""]

    def table(title, key):
        lines.extend([f"| {title} | tested | killed | survived | known to be equivalent |", "|---|--:|--:|--:|--:|"])
        groups = collections.defaultdict(list)
        for r in counted:
            groups[key(r)].append(r)
        for name, group in [*sorted(groups.items()), ("all", counted)]:
            survived = [r for r in group if r["status"] == "survived"]
            lines.append(f"| {name} | {len(group)} | {sum(r['status'] == 'killed' for r in group)} | "
                         f"{sum(not is_known(r) for r in survived)} | {sum(map(is_known, survived))} |")
        lines.append("")

    table("file", lambda r: r["file"])
    table("kind", lambda r: r["group"])
    other = collections.Counter(r["status"] for r in results)
    lines += [f"Not counted, drawn again: {other['no compile']} did not compile, {other['same code']} gave the same"
              f" code, {other['not run']} concern vectors that neither this processor ({WIDEST} bytes) has nor a stage"
              " emulates.", "", "| killed by | |", "|---|--:|"]
    killers = collections.Counter(r["by"].split(":")[0] for r in counted if r["status"] == "killed")
    lines += [f"| {name} | {n} |" for name, n in killers.most_common()]
    for title, wanted in (("Survivors", lambda r: not is_known(r)), ("Known to be equivalent", is_known)):
        lines += ["", f"## {title}", ""]
        for r in counted:
            if r["status"] == "survived" and wanted(r):
                reason = known.get((r["file"], r["before"], r["after"]), "")
                lines += [f"{r['file']}:{r['line']} ({r['group']}; {', '.join(r['stages'])}) {reason}", "```diff",
                          f"- {r['before']}", f"+ {r['after']}", "```"]
    wrong = [r for r in counted if r["status"] == "killed" and is_known(r)]
    if wrong:
        lines += ["", "## Listed as equivalent, and killed", ""] + [f"- {r['file']}: {r['after']}" for r in wrong]
    (WORK / "report.md").write_text("\n".join(lines) + "\n")
    return sum(r["status"] == "survived" and not is_known(r) for r in counted), len(wrong)


def main():
    parser = argparse.ArgumentParser(prog="./dev mutate")
    parser.add_argument("count", nargs="?", type=int, default=150)
    parser.add_argument("seed", nargs="?", type=int, default=1)
    parser.add_argument("--only", action="append", default=[], metavar="FILE", help="a file or directory below src/")
    parser.add_argument("--jobs", type=int, default=2)
    parser.add_argument("--stages", default="release,asan,armv7", help="build trees, in this order")
    parser.add_argument("--fresh", action="store_true", help="forget what earlier runs found")
    parser.add_argument("--list", action="store_true", help="show what would be drawn, and stop")
    arguments = parser.parse_args()

    sources = {}
    for path in sorted((ROOT / "src").rglob("*")):
        name = str(path.relative_to(ROOT / "src"))
        wanted = not arguments.only or any(
            name == o.removeprefix("src/") or name.startswith(o.removeprefix("src/").rstrip("/") + "/")
            for o in arguments.only)
        if path.suffix in (".cpp", ".h") and wanted:
            sources[name] = path.read_text()
    drawn = draw(sources, arguments.count, arguments.seed)
    if not drawn:
        sys.exit("mutate: no such file, or nothing to change in it")
    if arguments.list:
        for quota, sequence in drawn.values():
            for fault in sequence[:quota]:
                print(f"{fault.file}:{fault.line} {fault.group}\n- {fault.before}\n+ {fault.after}")
        return 0

    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, stop)
    WORK.mkdir(parents=True, exist_ok=True)
    guard = open(WORK / "lock", "w")
    try:
        fcntl.flock(guard, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        sys.exit("mutate: another run is under way")
    stages = [Stage(name) for name in arguments.stages.split(",")]
    known, log_path = read_known(), WORK / "log.jsonl"
    if arguments.fresh:
        log_path.unlink(missing_ok=True)
    earlier = {}
    if log_path.exists():
        for line in log_path.read_text().splitlines():
            try:
                entry = json.loads(line)
                earlier[entry["key"], entry["among"]] = entry
            except (ValueError, KeyError):
                pass  # the line at which a run was broken off
    among = f"{arguments.stages} {WIDEST} {state_of_tree()}"
    lock, begin = threading.Lock(), time.monotonic()
    log_file = open(log_path, "a")

    def say(text):
        with lock:
            print(text, flush=True)

    # Each unchanged source must give the objects of the tree again, or "same code" would mean nothing.
    places = [Place(i, stages) for i in range(arguments.jobs)]
    for stage in stages:
        probe = next(o for o in stage.commands if o.endswith("kalman.cpp.o") and "ox_objects" in o)
        if places[0].compile(stage, [probe]) != [] and not stage.sanitized:
            sys.exit(f"mutate: {stage.name}: the same source gives another object")
        places[0].restore(stage, [probe])

    free = list(places)
    turn = {file: iter(sequence) for file, (_, sequence) in drawn.items()}

    def one(file):
        """Judges faults of a file until one counts."""
        with lock:
            place = free.pop()
        found = []
        try:
            while True:
                with lock:
                    fault = next(turn[file], None)
                if fault is None:
                    return found
                entry = earlier.get((fault.key, among))
                if entry is None:
                    start = time.monotonic()
                    listed = (fault.file, fault.before, fault.after) in known
                    try:
                        entry = judge(place, stages, fault, listed, say)
                    except RuntimeError as failure:
                        say(f"mutate: {fault.file}:{fault.line}: {failure}")
                        continue
                    entry.update(key=fault.key, among=among, file=fault.file, line=fault.line,
                                 group=fault.group, before=fault.before, after=fault.after,
                                 seconds=round(time.monotonic() - start, 1))
                    with lock:
                        log_file.write(json.dumps(entry) + "\n")
                        log_file.flush()
                found.append(entry)
                say(f"{entry['seconds']:6.1f} s  {entry['status']:10} {fault.file}:{fault.line}  "
                    f"{fault.after if entry['status'] != 'killed' else entry['by']}")
                if entry["status"] in ("killed", "survived"):
                    return found
        finally:
            with lock:
                free.append(place)

    work = [file for file, (quota, _) in drawn.items() for _ in range(quota)]
    results = []
    with concurrent.futures.ThreadPoolExecutor(arguments.jobs) as pool:
        futures = [pool.submit(one, file) for file in work]
        try:
            for future in concurrent.futures.as_completed(futures):
                results += future.result()
        except BaseException:
            traceback.print_exc()
            stop(1, None)
    results.sort(key=lambda r: (r["file"], r["line"], r["after"]))
    left, wrong = report(results, known, arguments, time.monotonic() - begin)
    counts = collections.Counter(r["status"] for r in results)
    print(f"{dict(counts)}; {left} open survivors, see {(WORK / 'report.md').relative_to(ROOT)}")
    for place in places:
        shutil.rmtree(place.home, ignore_errors=True)
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
