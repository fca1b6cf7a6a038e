#!/usr/bin/env python3
"""Whether the tests see faults: changes one place in src/ at a time, builds, runs the tests.

usage: mutants.py [N] [SEED]

The first N (20) changes that compile of a random sequence (SEED, 1): a relational or arithmetic
operator, a constant plus one, a dropped statement, a negated condition. Works on a copy in
build/mutants and appends to a log there: a run that was stopped goes on, a larger N adds.
"""
import collections
import hashlib
import pathlib
import random
import re
import resource
import subprocess
import sys
import time

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


def build():
    tests = [p.stem for p in sorted((TREE / "tests").glob("process_*.cpp"))] + ["zyncore_tests"]
    made = subprocess.run(["cmake", "--build", BUILD, "--target", *tests], capture_output=True, text=True)
    return made.returncode == 0, tests, made.stdout


def run_tests(tests, seconds):
    """What fails first, or None."""
    for test in tests:
        command = [str(BUILD / test), "--gtest_fail_fast", "--gtest_brief=1"]
        try:
            done = subprocess.run(command, cwd=BUILD, timeout=seconds, stdout=subprocess.PIPE,
                                  stderr=subprocess.STDOUT, errors="replace", preexec_fn=lambda:
                                  resource.setrlimit(resource.RLIMIT_AS, (2**35, 2**35)))
        except subprocess.TimeoutExpired:
            return "timeout"
        if done.returncode:
            failed = re.search(r"\[  FAILED  \] (\S+)", done.stdout)
            return failed.group(1) if failed else f"{test}: status {done.returncode}"
    return None


def main():
    if "--help" in sys.argv:
        return print(__doc__.strip())
    wanted, seed = ([int(a) for a in sys.argv[1:]] + [20, 1][len(sys.argv) - 1:])[:2]
    copy_tree()
    subprocess.run(["cmake", "-G", "Ninja", "-S", TREE, "-B", BUILD, "-DZYN_DEVELOPER=ON",
                    "-DCMAKE_BUILD_TYPE=Release"], check=True, stdout=subprocess.DEVNULL)
    made, tests, said = build()
    start = time.monotonic()
    failed = run_tests(tests, 3600) if made else said
    if failed:
        sys.exit(f"the tree itself does not pass: {failed}")
    seconds = 30 + 4 * (time.monotonic() - start)
    order, digest = sequence(seed)
    log = WORK / f"seed{seed}-{digest}.log"
    lines = log.read_text().splitlines() if log.exists() else []
    for path, kind, begin, end, new in order[len(lines):]:
        if sum(not line.startswith("invalid") for line in lines) >= wanted:
            break
        copy, text = TREE / path, (TREE / path).read_text()
        copy.write_text(text[:begin] + new + text[end:])
        killer = run_tests(tests, seconds) if build()[0] else "invalid"
        copy.write_text(text)
        verdict = {None: "survived", "invalid": "invalid"}.get(killer, f"killed by {killer}")
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
