#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Plants faults, one at a time, into our sources and records which tests notice.

    scripts/plant_faults.py [--minutes N] [--seed N] [--matrix] ... [SOURCE...]

A fault is a small change of one line: a comparison turned round, a bound moved by one, a statement that is gone. One
that no test notices is a hole in the tests, or changes nothing: then faults_that_change_nothing.txt tells why, and the
fault does not count. A test that notices nothing that others do not may be one too many (--matrix).

SOURCE is a file or a folder, module/anti_cpu/src unless told. A copy of the tree, as it stands, is built and changed
under build/planted, which is kept, so that a further run starts at once. Faults are spread over the files in proportion
to their lines of code; their order depends on the seed alone. One that does not compile, or leaves every object as it
was, does not count. Tests are those of ctest with a label of --labels; the cases of a GoogleTest program are told apart.
A test that fails or is skipped without a fault, or takes longer than --slowest, is left out and named. A program that
runs for too long is ended; after six of those a fault's other tests are not run ("cut").

Written to build/planted/seed-N: table.jsonl, a line that names the tree and the tests (with the lines of a case), then
one for each fault as it is found; and report.txt, which is printed up to its survivors. The same seed on the same tree
goes on with the table that is there. Exit status 0 whatever survives; 1 when no fault could be tried, or a test fails
without one.
"""
import argparse
import collections
import contextlib
import dataclasses
import hashlib
import json
import math
import os
import pathlib
import random
import re
import resource
import shutil
import signal
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
KNOWN = ROOT / "scripts" / "faults_that_change_nothing.txt"
KILLS_MAX = 6  # programs that are ended for their time before the other tests of a fault are given up

# ---- Faults: found by the text of a line as clang-format sets it.

SWAPS = {
    "relation": {"==": "!=", "!=": "==", "<": ">=", ">": "<=", "<=": ">", ">=": "<"},
    "boundary": {"<": "<=", "<=": "<", ">": ">=", ">=": ">"},
    "logic": {"&&": "||", "||": "&&"},
    "arithmetic": {"+": "-", "-": "+", "*": "/", "/": "*", "%": "/", "&": "|", "|": "&", "^": "&", "<<": ">>",
                   ">>": "<<", "+=": "-=", "-=": "+=", "|=": "&=", "&=": "|=", "++": "--", "--": "++"},
}
RETURNS = {"true": ["false"], "false": ["true"], "0": ["1"], "-1": ["0"], "1": ["0"], "nullptr": []}
OPERATOR = re.compile(r"(?<=\s)(?:<<|>>|[-+|&=!<>]=|&&|\|\||[-+*/%&|^<>])(?=\s|$)|\+\+|--")
NUMBER = re.compile(r"(?<![\w.])(0[xX][0-9a-fA-F]+|\d+)(?=[uUlL]*(?![\w.']))")
BYTE_ORDER = re.compile(r"\b(?:hton[sl]|ntoh[sl]|[bl]e\d\dtoh|hto[bl]e\d\d|__builtin_bswap\d\d|(?:std::)?byteswap)(?=\()")
NOT_CODE = re.compile(r"//[^\n]*|/\*.*?\*/|\"(?:\\.|[^\"\\\n])*\"|(?<![0-9A-Fa-f])'(?:\\.|[^'\\\n])*'"
                      r"|^[ \t]*#[^\n]*|\bstatic_assert\b[^;]*;", re.DOTALL | re.MULTILINE)
STATEMENT = re.compile(r"[*(]*(?:\+\+|--)?[A-Za-z_][^;]*;")
DECLARATION = re.compile(r"(?:return|break|continue|goto|using|struct|class|enum|typedef|case|default|else|template|auto|"
                         r"constexpr|const|static|extern|namespace)\b|[\w:<>, ]+[ *&]+\w+(?:\[.*\])?(?: =|;|\{|\()")


@dataclasses.dataclass(frozen=True)
class Fault:
    file: str
    line: int  # from 1
    kind: str
    old: str
    new: str

    def key(self):
        """What it is known by when lines have moved."""
        return self.file, self.old.strip(), self.new.strip()


def code_of(text):
    """The text with comments, strings, directives and static assertions blotted out, everything else in its place."""
    return NOT_CODE.sub(lambda found: re.sub(r"[^\n]", " " if found[0].lstrip()[0] in "/#s" else "~", found[0]), text)


def conditions(code):
    """The places (from, to) of conditions: of if and while, and before the question mark of a choice."""
    for found in re.finditer(r"\b(?:if|while) \(", code):
        depth, end = 1, found.end()
        while depth > 0 and end < len(code):
            depth += {"(": 1, ")": -1}.get(code[end], 0)
            end += 1
        if depth == 0:
            start = found.end() + code[found.end():end].rfind("; ") + 1
            yield start + (code[start] == " "), end - 1
    for found in re.finditer(r" \? ", code):
        depth, start = 0, found.start()
        while start > 0:
            depth += {")": 1, "]": 1, "(": -1, "[": -1}.get(code[start - 1], 0)
            if depth < 0 or (depth == 0 and re.search(r"(?:[^=!<>]= |\breturn |, | [?:] |\{|^ +)$", code[:start])):
                break
            start -= 1
        if start < found.start():
            yield start, found.start()


def faults_of(file, text):
    """Every fault that can be planted in a file."""
    before = ";"
    for number, (line, code) in enumerate(zip(text.splitlines(), code_of(text).splitlines()), 1):
        bare = code.strip()
        changes = []  # kind, from, to, what is there instead
        for found in OPERATOR.finditer(code):
            changes += [(kind, *found.span(), swaps[found[0]]) for kind, swaps in SWAPS.items() if found[0] in swaps]
        for found in NUMBER.finditer(code) if not re.fullmatch(r"return -?\d+;", bare) else ():
            base = 16 if found[1][:2] in ("0x", "0X") else 10
            value = int(found[1], base)
            for other in (value + 1, value - 1) if value else (1,):
                changes.append(("constant", *found.span(), hex(other) if base == 16 else str(other)))
        for start, end in conditions(code):
            if not re.fullmatch(r"[^&|]*\S (?:==|!=|[<>]=?) [^&|]*", code[start:end]):  # "relation" turns those round
                changes.append(("condition", start, end, f"!({line[start:end]})"))
        changes += [("byte order", *found.span(), "") for found in BYTE_ORDER.finditer(code)]
        start, end = code.find(bare), code.find(bare) + len(bare)
        if found := re.fullmatch(r"return (.+);", bare):
            new = RETURNS.get(found[1], ["{}", f"!({line[start + 7:end - 1]})"])
            changes += [("return", start + 7, end - 1, each) for each in new]
        elif bare in ("break;", "continue;"):
            changes.append(("break", start, end, ";"))
        elif (before[-1] in ";{}:" and STATEMENT.fullmatch(bare) and not DECLARATION.match(bare)
              and bare.count("(") == bare.count(")") and bare.count("{") == bare.count("}")):
            changes.append(("statement", start, end, ";"))
        before = bare or before
        for kind, start, end, new in changes:
            yield Fault(file, number, kind, line, line[:start] + new + line[end:])


def in_turn(by_file, lines, generator):
    """All faults: files by their lines of code; in a file by chance, but each line once before any twice."""
    queues = {}
    for file, faults in by_file.items():
        times = collections.Counter()
        rounds = []
        for at in generator.sample(range(len(faults)), len(faults)):
            times[faults[at].line] += 1
            rounds.append((times[faults[at].line], len(rounds), faults[at]))
        queues[file] = [fault for _, _, fault in sorted(rounds, key=lambda each: each[:2], reverse=True)]
    taken = collections.Counter()
    while left := [file for file in queues if queues[file]]:
        file = min(left, key=lambda each: (taken[each] + 0.5) / lines[each])
        taken[file] += 1
        yield queues[file].pop()


def known_to_change_nothing():
    """The keys of the faults in KNOWN, each with its reason."""
    known, file, old, new = {}, "", "", ""
    for line in KNOWN.read_text(encoding="utf-8").splitlines():
        if line.startswith("    - "):
            old = line[6:].strip()
        elif line.startswith("    + "):
            new = line[6:].strip()
        elif line.startswith("    "):
            known[file, old, new] = line.strip()
        elif line and line[0] != "#":
            file = line
    return known


# ---- The copy of the tree, and its build.

# An object library that every test program links becomes a shared one: a fault then costs one link.
SHARED = """set(CMAKE_ENABLE_EXPORTS ON)
set(CMAKE_LINK_DEPENDS_NO_SHARED ON)
macro(add_library name)
  set(arguments ${ARGN})
  if("${name} ${ARGV1}" STREQUAL "@ OBJECT")
    list(POP_FRONT arguments)
    _add_library(${name} SHARED ${arguments})
    target_compile_options(${name} PRIVATE -fvisibility=default)
  else()
    _add_library(${name} ${arguments})
  endif()
endmacro()
"""


class Tree:
    def __init__(self, work, options):
        self.source, self.build, self.jobs = work / "tree", work / "build", options.jobs
        self.identity = self.copy()
        (work / "shared.cmake").write_text(SHARED.replace("@", options.shared), encoding="utf-8")
        linker = "-fuse-ld=lld" if shutil.which("ld.lld") else ""
        output_of("cmake", "-S", self.source, "-B", self.build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug", "-DATC_BENCH=OFF",
                  "-DCMAKE_CXX_FLAGS_DEBUG=-O1", "-DCMAKE_C_FLAGS_DEBUG=-O1", f"-DCMAKE_EXE_LINKER_FLAGS={linker}",
                  f"-DCMAKE_SHARED_LINKER_FLAGS={linker}", f"-DPython3_EXECUTABLE={sys.executable}",
                  f"-DCMAKE_PROJECT_TOP_LEVEL_INCLUDES={work / 'shared.cmake' if options.shared else ''}", *options.cmake)
        print("building without a fault ...", flush=True)
        if not self.ninja():
            sys.exit(self.output)
        self.dependents = collections.defaultdict(list)  # objects of a source or header
        for line in output_of("ninja", "-C", self.build, "-t", "deps").splitlines():
            if line.startswith("    "):
                self.dependents[os.path.realpath(self.build / line.strip())].append(target)
            else:
                target = line.split(":")[0]
        self.original = {name: self.digest(name) for names in self.dependents.values() for name in names}

    def copy(self):
        """Brings the copy up to date, and forgets what has gone; a digest of all of it."""
        names = tracked_files()
        for path in list(self.source.rglob("*")):
            if path.is_file() and str(path.relative_to(self.source)) not in names:
                path.unlink()
        whole = hashlib.sha256()
        for name in names:
            source, target = ROOT / name, self.source / name
            content = source.read_bytes()
            whole.update(f"{name} {len(content)} ".encode() + content)
            if not target.exists() or target.read_bytes() != content:
                target.parent.mkdir(parents=True, exist_ok=True)
                shutil.copy(source, target)
        return whole.hexdigest()

    def ninja(self, *targets):
        done = subprocess.run(["ninja", "-C", self.build, f"-j{self.jobs}", *targets], capture_output=True, text=True,
                              check=False)
        self.output = done.stdout + done.stderr
        return done.returncode == 0

    def digest(self, name):
        return hashlib.sha256((self.build / name).read_bytes()).digest()

    def plant(self, fault, text):
        """Builds with the fault; returns why it does not count, or None, and whether the compiler warns."""
        lines = text.split("\n")
        lines[fault.line - 1] = fault.new
        path = self.source / fault.file
        path.write_text("\n".join(lines), encoding="utf-8")
        objects = self.dependents[os.path.realpath(path)]
        compiles, warned = self.ninja(*objects), "warning:" in self.output
        if compiles and all(self.digest(name) == self.original[name] for name in objects):
            return "same", warned
        return None if compiles and self.ninja() else "uncompilable", warned


def tracked_files():
    """The names of the tree's files: what git tracks, or all of them where there is no git."""
    if (ROOT / ".git").exists():
        names = output_of("git", "-C", ROOT, "ls-files", "-z").split("\0")
        return sorted(name for name in names if name and (ROOT / name).exists())
    names = (str(path.relative_to(ROOT)) for path in ROOT.rglob("*") if path.is_file())
    return sorted(name for name in names if not name.startswith(("build/", "out/")))


def output_of(*command):
    return subprocess.run(command, stdout=subprocess.PIPE, text=True, check=True).stdout


# ---- Tests.

class Program:
    """A command of ctest: a test by itself, or a GoogleTest program with its cases."""

    def __init__(self, name, command, properties, is_gtest, root):
        self.name, self.command, self.is_gtest = name, command, is_gtest
        self.where = {"cwd": properties.get("WORKING_DIRECTORY"), "stdin": subprocess.DEVNULL,
                      "env": os.environ | dict(pair.split("=", 1) for pair in properties.get("ENVIRONMENT", []))}
        self.lines = {} if is_gtest else {name: 0}  # of each case
        self.seconds, self.kills, self.left_out, self.waits = 60.0, 0, set(), False
        if is_gtest:
            with tempfile.TemporaryDirectory() as folder:
                output_of(*command, "--gtest_list_tests", f"--gtest_output=json:{folder}/list")
                suites = json.loads(pathlib.Path(folder, "list").read_text(encoding="utf-8"))["testsuites"]
            for suite, case in ((suite["name"], case) for suite in suites for case in suite["testsuite"]):
                text = (root / case["file"]).read_text(encoding="utf-8").split("\n")[case["line"] - 1:]
                self.lines[f"{suite}.{case['name']}"] = next(at for at, line in enumerate(text, 1) if line[:1] == "}")

    def once(self, arguments):
        """Runs it under a limit of time; its exit status, None when it had to be ended, and what it printed."""
        cpu = math.ceil(3 * self.seconds) + 2

        def limit():
            resource.setrlimit(resource.RLIMIT_CPU, (cpu, cpu + 1))
            resource.setrlimit(resource.RLIMIT_FSIZE, (1 << 28, 1 << 28))

        with tempfile.TemporaryFile() as out:
            process = subprocess.Popen([*self.command, *arguments], **self.where, stdout=out, stderr=subprocess.DEVNULL,
                                       start_new_session=True, preexec_fn=limit)
            status = -signal.SIGKILL
            with contextlib.suppress(subprocess.TimeoutExpired):
                status = process.wait(20 + 20 * self.seconds)
            with contextlib.suppress(ProcessLookupError):
                os.killpg(process.pid, signal.SIGKILL)  # with whatever it started
            process.wait()
            out.seek(0)
            text = out.read().decode(errors="replace")
        is_killed = status in (-signal.SIGXCPU, -signal.SIGKILL)
        self.kills += is_killed
        return None if is_killed else status, text

    def failing(self):
        """The cases that fail. One that crashes or hangs fails, and those behind it are run without it."""
        self.kills = 0
        failed, done = set(), []
        while True:
            # Read from what is printed: a program that crashes leaves no file behind.
            status, text = self.once([f"--gtest_filter=-{':'.join(done)}"] if done else [])
            if not self.is_gtest:
                return set() if status == 0 else {self.name}
            failed |= set(re.findall(r"^\[  FAILED  \] ([\w./]+)(?:, .*)? \(\d+ ms", text, re.MULTILINE))
            done += re.findall(r"^\[ +(?:OK|FAILED|SKIPPED) +\] ([\w./]+)(?:, .*)? \(\d+ ms", text, re.MULTILINE)
            started = re.findall(r"\[ RUN      \] ([\w./]+)", text)
            if status == 0 or not started or started[-1] in done:
                return failed | ({f"{self.name} as a whole"} if status != 0 and not failed else set())
            failed.add(started[-1])
            done.append(started[-1])
            if self.kills >= KILLS_MAX or len(done) >= len(self.lines):
                return failed


def programs_of(tree, options):
    """The programs worth running, after two runs of each without a fault."""
    programs = {}
    for test in json.loads(output_of("ctest", "--test-dir", tree.build, "--show-only=json-v1"))["tests"]:
        properties = {each["name"]: each["value"] for each in test["properties"]}
        if not set(properties.get("LABELS", [])) & set(options.labels.split(",")):
            continue
        is_gtest = any(word.startswith("--gtest_filter=") for word in test["command"])
        name = os.path.basename(test["command"][0]) if is_gtest else test["name"]
        if re.search(options.leave_out, test["name"]):
            print("left out, as told:", test["name"])
        elif name not in programs:
            command = test["command"][:1] if is_gtest else test["command"]
            programs[name] = Program(name, command, properties, is_gtest, tree.source)
    for program in programs.values():
        cpu, wall = spent(), time.monotonic()
        program.left_out = program.failing()
        program.seconds, wall = spent() - cpu, time.monotonic() - wall
        program.left_out |= set(program.lines) if wall > options.slowest or program.kills else program.failing()
        program.waits = bool(options.last and re.search(options.last, program.name))
        if program.left_out:
            print(f"left out: {' '.join(sorted(program.left_out))} ({wall:.1f} s)")
    return [each for each in programs.values() if set(each.lines) - each.left_out]


def spent():
    """Processor time of this run so far, in seconds."""
    used = [resource.getrusage(who) for who in (resource.RUSAGE_SELF, resource.RUSAGE_CHILDREN)]
    return sum(each.ru_utime + each.ru_stime for each in used)


def noticed_by(programs, matrix):
    """The tests that fail, and whether some were given up."""
    found, kills = set(), 0
    for program in sorted(programs, key=lambda each: (each.waits, each.seconds)):
        if found and (program.waits or not matrix):
            break
        found |= program.failing() - program.left_out
        kills += program.kills
        if kills >= KILLS_MAX:
            return found, True
    return found, False


# ---- The report.

def report(tests, records, seed):
    outcomes = collections.Counter(each["outcome"] for each in records)
    counted = sorted((each for each in records if each["outcome"] in ("noticed", "survived")),
                     key=lambda each: (each["file"], each["line"]))
    noticed = [each for each in counted if each["outcome"] == "noticed"]
    text = [f"seed {seed}: {len(noticed)} of {len(counted)} faults noticed, {100 * len(noticed) / max(1, len(counted)):.1f} %",
            f"not counted: {outcomes['uncompilable']} that do not compile, {outcomes['same']} that change no object"]
    for key in ("file", "kind"):
        text += ["", f"noticed  of  {key}"]
        for value in sorted({each[key] for each in counted}):
            of = [each["outcome"] for each in counted if each[key] == value]
            text.append(f"{of.count('noticed'):7} {len(of):3}  {value}")
    text += ["", "survivors (w: the compiler warns)"]
    for each in (each for each in counted if each["outcome"] == "survived"):
        text += [f"{'w' if each['warned'] else ' '} {each['file']}:{each['line']} {each['kind']}",
                 f"    - {each['old'].strip()}", f"    + {each['new'].strip()}"]
    names = sorted(set(tests).union(*(each["by"] for each in noticed)))
    by_test = {name: {at for at, each in enumerate(noticed) if name in each["by"]} for name in names}
    alone = collections.Counter(each["by"][0] for each in noticed if len(each["by"]) == 1)
    text += ["", "noticed  only it  lines  test"]
    for name in sorted(names, key=lambda name: (-alone[name], -len(by_test[name]))):
        text.append(f"{len(by_test[name]):7}  {alone[name]:7}  {tests.get(name, 0):5}  {name}")
    text += ["", "a small set of tests that notices as much, each with what it adds"]
    left = set(range(len(noticed)))
    while left:
        name = max(names, key=lambda name: (len(by_test[name] & left), -tests.get(name, 0)))
        text.append(f"{len(by_test[name] & left):7}  {tests.get(name, 0):5}  {name}")
        left -= by_test[name]
    return "\n".join(text) + "\n"


def run_through(queue, tree, programs, texts, options, table):
    """Plants one fault after the other until the time is over; the records of all of them."""
    tests = {name: lines for each in programs for name, lines in each.lines.items() if name not in each.left_out}
    header = {"seed": options.seed, "tree": tree.identity, "tests": tests}
    records = []
    if table.exists():
        found, *lines = map(json.loads, table.read_text(encoding="utf-8").splitlines())
        records = lines if found["tree"] == tree.identity else []
    done_before = {(each["file"], each["line"], each["new"]) for each in records}
    queue = [fault for fault in queue if (fault.file, fault.line, fault.new) not in done_before]
    limit, begin = 60 * options.minutes, spent()
    with open(table, "w", encoding="utf-8") as file:
        for each in (header, *records):
            print(json.dumps(each), file=file)
        for done, fault in enumerate(queue, 1):
            outcome, warned = tree.plant(fault, texts[fault.file])
            by, cut = ([], False) if outcome else noticed_by(programs, options.matrix)
            (tree.source / fault.file).write_text(texts[fault.file], encoding="utf-8")
            outcome = outcome or ("noticed" if by else "survived")
            records.append(vars(fault) | {"outcome": outcome, "by": sorted(by), "cut": cut, "warned": warned})
            print(json.dumps(records[-1]), file=file, flush=True)
            used = spent() - begin
            if options.verbose:
                print(f"{done}, {used / 60:.1f} of {options.minutes:g} min: {fault.file}:{fault.line} {fault.kind}: "
                      f"{outcome}{f' by {len(by)}' if by else ''}", flush=True)
            if used > limit:
                break
    return records, tests


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("sources", nargs="*", default=["module/anti_cpu/src"], metavar="SOURCE")
    parser.add_argument("--minutes", type=float, default=60, help="of processor time")
    parser.add_argument("--seed", type=int, default=int(time.time()), help="that of the clock unless told")
    parser.add_argument("--matrix", action="store_true", help="run all tests on a fault, not up to the first that fails")
    parser.add_argument("--labels", default="unit,system,model", help="of the tests that are run")
    parser.add_argument("--leave-out", default=r"^system\.transfer", metavar="REGEX", help="tests that are not run at all")
    parser.add_argument("--last", default="model", metavar="REGEX", help="programs run only on what no other notices")
    parser.add_argument("--slowest", type=float, default=10, metavar="SECONDS")
    parser.add_argument("--shared", default="anti_cpu_objects", metavar="TARGET", help="linked as a shared library")
    parser.add_argument("--dependents", type=int, default=10, help="a header that more objects include gets no fault")
    parser.add_argument("--again", type=pathlib.Path, metavar="TABLE", help="only what survived in an earlier table")
    parser.add_argument("--cmake", action="append", default=[], help="a further argument for cmake")
    parser.add_argument("--jobs", type=int, default=os.cpu_count(), help="of the build; tests run one by one")
    parser.add_argument("--verbose", action="store_true", help="a line for each fault")
    options = parser.parse_args()
    work = ROOT / "build" / "planted"
    out = work / f"seed-{options.seed}"
    out.mkdir(parents=True, exist_ok=True)
    print(f"seed {options.seed}")

    paths = [path for each in options.sources for path in
             (sorted((ROOT / each).rglob("*.*")) if (ROOT / each).is_dir() else [(ROOT / each)])]
    texts = {str(path.relative_to(ROOT)): path.read_text(encoding="utf-8") for path in paths}
    by_file = {file: list(faults_of(file, text)) for file, text in texts.items()}
    known = known_to_change_nothing()
    times = collections.Counter(fault.key() for faults in by_file.values() for fault in faults)
    if wrong := [key for key in known if key[0] in texts and times[key] != 1]:
        sys.exit(f"{KNOWN.name} names what is not just one fault: {wrong}")

    tree = Tree(work, options)
    programs = programs_of(tree, options)
    by_file = {file: [fault for fault in faults if fault.key() not in known] for file, faults in by_file.items()
               if 0 < len(tree.dependents[os.path.realpath(tree.source / file)]) <= options.dependents}
    lines = {file: sum(1 for line in code_of(texts[file]).split("\n") if line.strip()) for file in by_file}
    print(f"{sum(map(len, by_file.values()))} faults can be planted in {sum(lines.values())} lines of {len(lines)} files")
    queue = in_turn(by_file, lines, random.Random(options.seed))
    if options.again:
        table = [json.loads(line) for line in options.again.read_text(encoding="utf-8").splitlines()[1:]]
        queue = (Fault(*(each[field.name] for field in dataclasses.fields(Fault))) for each in table
                 if each["outcome"] == "survived")
    records, tests = run_through(queue, tree, programs, texts, options, out / "table.jsonl")

    text = report(tests, records, options.seed)
    (out / "report.txt").write_text(text, encoding="utf-8")
    print(text[:text.index("\nnoticed  only it")] if not options.matrix else text)
    tree.ninja()
    if found := noticed_by(programs, True)[0]:
        sys.exit(f"fails without a fault, at the end: {' '.join(sorted(found))}")
    if not any(each["outcome"] in ("noticed", "survived") for each in records):
        sys.exit("no fault was tried")


if __name__ == "__main__":
    main()
