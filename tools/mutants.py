#!/usr/bin/env python3
"""Whether the tests see faults: changes one place in src/ at a time, builds, runs the tests.

usage: mutants.py [N] [SEED]

The first N (20) changes that compile of a random sequence (SEED, 1): a relational or arithmetic
operator, a constant plus one, a dropped statement, a negated condition. Works on a copy in
build/mutants and appends to a log there: a run that was stopped goes on, a larger N adds.

The tree is built once, optimised. For a change only the objects that read the changed file are
compiled anew, with -O1, and linked with the others. Test programs run in rounds until one
fails: tests whose file shares a word with the changed one, the other quick ones, the slow ones,
process_*. A round may take a few times the processor time that it takes without a change. What
survives has passed them all; where the object is the same with and without the change, it says so.
"""
import collections
import hashlib
import json
import os
import pathlib
import random
import re
import resource
import shlex
import signal
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tools"))
from report_sites import code_only  # noqa: E402

WORK = ROOT / "build" / "mutants"
TREE, BUILD = WORK / "tree", WORK / "build"
SWAPS = {"relational": {"<=": "<", ">=": ">", "<": "<=", ">": ">=", "==": "!=", "!=": "=="},
         "arithmetic": {"+": "-", "-": "+", "*": "/", "/": "*", "%": "*", "+=": "-=", "-=": "+="}}
# Operators have a space on both sides; template brackets and pointers do not.
SWAP = {kind: re.compile(r"(?<= )(%s)(?=\s)" % "|".join(map(re.escape, sorted(table, key=len)[::-1])))
        for kind, table in SWAPS.items()}
CONSTANT = re.compile(r"(?<![\w.])\d+(?=[uUlL]{0,3}(?![\w.]))")
# An assignment to something declared before, or a call.
STATEMENT = re.compile(r"(?:(?<=[;{}])[ \t]*\n\s*|(?<=\))\s+)(?!return\b)"
                       r"([\w\[\].>*()+-]+ [-+*/|&^]?= [^;{}#]*|[\w.>-]+\([^;{}#]*\)|\w+\+\+);")
DEAD = re.compile(r"^#if[^\n]*(?:_WIN32|MINGW)[^\n]*\n.*?^#(?:else|endif)"
                  r"|^[ \t]*#(?:[^\n\\]|\\.)*|\b(?:static_)?assert\(.*?\);|\btemplate <[^\n]*"
                  r"|__attribute__[^\n]*", re.M | re.S)


def changes(text):
    """kind -> [(begin, end, replacement)] for the live code of a file."""
    code = DEAD.sub(lambda m: re.sub(r"[^\n]", " ", m.group(0)), code_only(text))
    found = collections.defaultdict(list)
    for kind, pattern in SWAP.items():
        for m in pattern.finditer(code):
            found[kind].append((m.start(), m.end(), SWAPS[kind][m.group(1)]))
    for m in CONSTANT.finditer(code):
        found["constant"].append((m.start(), m.end(), str(int(m.group(0)) + 1)))
    for m in STATEMENT.finditer(code):
        found["dropped"].append((m.start(1), m.end(1), ""))
    for m in re.finditer(r"\b(?:if|while) (?=\()(?!\(const )", code):
        end = m.end() + 1
        while code.count("(", m.end(), end) > code.count(")", m.end(), end):
            end += 1
        found["negated"].append((m.end(), end, f"(!{text[m.end():end]})"))
    return found


def sequence(seed):
    """Every change of src/ in random order, kinds in equal shares; and what it depends on."""
    digest, by_kind, chance = hashlib.sha256(), collections.defaultdict(list), random.Random(seed)
    for path in sorted((TREE / "src").rglob("*")):
        if path.suffix in (".cpp", ".h", ".inc") and "windows" not in path.name:
            text = path.read_text()
            digest.update(text.encode())
            for kind, list_ in changes(text).items():
                by_kind[kind] += [(path.relative_to(TREE).as_posix(), kind, *c) for c in list_]
    for list_ in by_kind.values():
        chance.shuffle(list_)
    order = []
    while any(by_kind.values()):
        kind = chance.choice(sorted(k for k, v in by_kind.items() if v))
        order.append(by_kind[kind].pop())
    return order, digest.hexdigest()[:8]


def copy_tree():
    """Copies what git knows, files that differ alone: the others keep their objects."""
    names = subprocess.run(["git", "ls-files", "-z"], cwd=ROOT, check=True, capture_output=True)
    for name in filter(None, names.stdout.decode().split("\0")):
        source, copy = ROOT / name, TREE / name
        if source.is_file() and not (copy.is_file() and copy.read_bytes() == source.read_bytes()):
            copy.parent.mkdir(parents=True, exist_ok=True)
            copy.write_bytes(source.read_bytes())
    for copy in (TREE / "src").rglob("*.*"):
        if not (ROOT / copy.relative_to(TREE)).exists():
            copy.unlink()


class Builder:
    """Compiles and links by the commands that CMake would run."""

    def __init__(self):
        subprocess.run(["cmake", "-G", "Ninja", "-S", TREE, "-B", BUILD, "-DZYN_DEVELOPER=ON",
                        "-DCMAKE_BUILD_TYPE=Release"], check=True, stdout=subprocess.DEVNULL)
        self.programs = [p.stem for p in sorted((TREE / "tests").glob("process_*.cpp"))] + ["zyncore_tests"]
        subprocess.run(["cmake", "--build", BUILD, "--target", *self.programs], check=True,
                       stdout=subprocess.DEVNULL)
        self.commands, self.readers = {}, collections.defaultdict(list)
        for entry in json.loads((BUILD / "compile_commands.json").read_text()):
            words = shlex.split(entry["command"])
            at = words.index("-o") + 1
            target = re.match(r"CMakeFiles/(\w+)\.dir/", words[at])
            if target and target.group(1) in ["zyn_objects", *self.programs]:
                self.commands[words[at]] = ["-O1" if w == "-O3" else w for w in words], at
        deps = subprocess.run(["ninja", "-C", BUILD, "-t", "deps"], check=True, capture_output=True,
                              text=True)
        for block in deps.stdout.split("\n\n"):
            head, *files = block.splitlines() or [""]
            name = head.split(":")[0]
            for file in map(str.strip, files if name in self.commands else ()):
                if str(TREE) in (path := os.path.normpath(BUILD / file)):
                    self.readers[str(pathlib.Path(path).relative_to(TREE))].append(name)

    def compile(self, path, folder):
        """Objects of all that reads a file, in a folder of their own; None where it fails."""
        made = {}
        for name in self.readers[path]:
            words, at = self.commands[name]
            made[name] = folder / name.replace("/", "-")
            folder.mkdir(exist_ok=True)
            done = subprocess.run([*words[:at], str(made[name]), *words[at + 1:]], cwd=BUILD,
                                  capture_output=True)
            if done.returncode:
                return None
        return made

    def link(self, program, made):
        """A test program with the objects that were made in place of the tree's."""
        out = WORK / "programs" / program
        out.parent.mkdir(exist_ok=True)
        objects = [str(made.get(name, name)) for name in self.commands
                   if name.split("/")[1] in (f"{program}.dir", "zyn_objects.dir")]
        done = subprocess.run(["c++", "-o", out, *objects, "-lgtest", "-lgtest_main", "-lgomp", "-lpthread"],
                              cwd=BUILD, capture_output=True)
        return out if done.returncode == 0 else None


def run_program(program, tests, seconds):
    """(None or what failed first, what was printed) of some tests of a program."""
    def limit():
        resource.setrlimit(resource.RLIMIT_AS, (2**35, 2**35))
        resource.setrlimit(resource.RLIMIT_CPU, (seconds, seconds + 1))

    try:
        done = subprocess.run([str(program), "--gtest_fail_fast", "--gtest_filter=" + ":".join(tests)],
                              cwd=BUILD, timeout=30 * seconds, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, errors="replace", preexec_fn=limit)
    except subprocess.TimeoutExpired:
        return "timeout", ""
    if not done.returncode:
        return None, done.stdout
    failed = re.search(r"\[  FAILED  \] (\w\S*[^,\s])", done.stdout)
    if done.returncode < 0 and not failed:
        failed = re.search(r"\[ RUN      \] (\S+)\n(?!.*\[ RUN)", done.stdout, re.S)
    if done.returncode == -signal.SIGXCPU:
        return "timeout", done.stdout
    return failed.group(1) if failed else f"{program.name}: status {done.returncode}", done.stdout


class Suite:
    """Every test, in rounds; and the processor seconds that each takes without a change."""

    def __init__(self, builder):
        self.builder, self.files = builder, {}
        for file in (TREE / "tests").glob("test_*.cpp"):
            for suite in re.findall(r"^\s*(?:TYPED_)?TEST(?:_[FP])?\((\w+)", file.read_text(), re.M):
                self.files.setdefault(suite, set()).update(file.stem.split("_")[1:])
        program = builder.link("zyncore_tests", {})
        before = resource.getrusage(resource.RUSAGE_CHILDREN).ru_utime
        failed, said = run_program(program, ["*"], 3600)
        spent = resource.getrusage(resource.RUSAGE_CHILDREN).ru_utime - before
        passed = re.findall(r"\[       OK \] (\S+) \((\d+) ms\)", said)
        whole = sum(int(ms) for _, ms in passed)
        self.cost = {name: spent * int(ms) / whole for name, ms in passed}
        for program in builder.programs[:-1]:
            failed = failed or run_program(builder.link(program, {}), ["*"], 3600)[0]
        if failed:
            sys.exit(f"the tree itself does not pass: {failed}")

    def fits(self, test, path):
        """Whether a word of the test's file begins, or is begun by, one of the changed file."""
        words = set(re.split(r"[/_.]", path)) - {"src", "zyn", "cg", "cpu", "cpp", "h"}
        parts = test.split("/")  # [Instantiation/]Suite[/Type].Name[/Parameter]
        suite = next(p for p in parts if "." in p or p in self.files).split(".")[0]
        return any(a.startswith(b) or b.startswith(a) for a in words for b in self.files.get(suite, ()))

    def killer(self, path, made):
        """What fails first, or None."""
        rounds = collections.defaultdict(list)
        for test, seconds in self.cost.items():
            rounds[(seconds > 0.2, not self.fits(test, path))].append(test)
        program = self.builder.link("zyncore_tests", made)
        if not program:
            return "invalid"
        for _, tests in sorted(rounds.items()):
            failed = run_program(program, tests, 8 + int(5 * sum(map(self.cost.get, tests))))[0]
            if failed:
                return failed
        for name in self.builder.programs[:-1]:
            failed = run_program(self.builder.link(name, made), ["*"], 30)[0]
            if failed:
                return failed
        return None


def main():
    if "--help" in sys.argv:
        return print(__doc__.strip())
    wanted, seed = ([int(a) for a in sys.argv[1:]] + [20, 1][len(sys.argv) - 1:])[:2]
    copy_tree()
    builder = Builder()
    suite = Suite(builder)
    order, digest = sequence(seed)
    log = WORK / f"seed{seed}-{digest}.log"
    lines = log.read_text().splitlines() if log.exists() else []
    for path, kind, begin, end, new in order[len(lines):]:
        if sum(not line.startswith("invalid") for line in lines) >= wanted:
            break
        copy, text, written = TREE / path, (TREE / path).read_text(), (TREE / path).stat()
        copy.write_text(text[:begin] + new + text[end:])
        made = builder.compile(path, WORK / "changed")
        copy.write_text(text)
        os.utime(copy, ns=(written.st_atime_ns, written.st_mtime_ns))
        verdict = suite.killer(path, made) if made else "invalid"
        if verdict is None:
            plain = builder.compile(path, WORK / "plain")
            same = all(plain[name].read_bytes() == made[name].read_bytes() for name in made)
            verdict = "survived, same object" if same else "survived"
        elif verdict != "invalid":
            verdict = f"killed by {verdict}"
        row = text.count("\n", 0, begin)
        line = text.splitlines()[row].strip()
        lines.append(f"{verdict}: {path}:{row + 1}: {kind}: {text[begin:end]!r} > {new!r} in: {line}")
        with log.open("a") as file:
            print(lines[-1], file=file)
        print(lines[-1], flush=True)
    counts = collections.Counter(line.split(":")[0].split()[0] for line in lines)
    print(*(line for line in lines if line.startswith("survived")), sep="\n")
    print(f"seed {seed}: {counts['killed']} killed, {counts['survived']} survived,"
          f" {counts['invalid']} did not compile; {log}")


if __name__ == "__main__":
    main()
