#!/usr/bin/env python3
"""The table in docs/architecture.md from every printed report to the function that prints it.

usage: report_sites.py [--write | --check]

Reads the declarations "constexpr zyn_site kName{path, line, message};" in src/ and where they are
used, and the lines that callers hand to helpers around zyn_report. --write puts the table into the
page, --check compares it with the page; without either it is printed. A site that no function
uses, or that is declared in a form this cannot read, is an error.
"""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
PAGE = ROOT / "docs" / "architecture.md"
BEGIN, END = "<!-- report sites: begin -->\n", "<!-- report sites: end -->\n"
TEXT = re.compile(r'\bconstexpr\s+(?:const\s+)?char\s*(?:\*\s*(?:const\s+)?(\w+)|(?:const\s+)?(\w+)\[\])'
                  r'\s*=\s*"((?:[^"\\]|\\.)*)"')
SITE = re.compile(r'\bconstexpr\s+zyn_site\s+(\w+)\s*=?\s*\{\s*([^,{}]+?)\s*,\s*(\d+)\s*,')
# A helper that is given the line: zyn_report({path, line, message}).
HELPER = re.compile(r"\bzyn_report\(\{\s*(\w+)\s*,\s*(\w+)\s*,")
KEYWORDS = {"if", "for", "while", "switch", "catch", "return", "sizeof", "alignas", "decltype"}


def blank(match):
    return re.sub(r"[^\n]", " ", match.group(0))


def code_only(text):
    """The text without comments and the contents of literals, as long as before."""
    return re.sub(r'//[^\n]*|/\*.*?\*/|"(?:[^"\\\n]|\\.)*"|\'(?:[^\'\\\n]|\\.)*\'', blank, text,
                  flags=re.S)


def scope_name(head):
    """(kind, name) of a brace that follows head: a function, a table or nothing of its own."""
    head = re.sub(r"\[\[.*?\]\]|__attribute__\s*\(\(.*?\)\)", " ", head, flags=re.S)
    table = re.search(r"(\w+)\s*(?:\[[^\]]*\])?\s*=?\s*$", head)
    if re.search(r"\b(namespace|struct|class|enum|union|extern)\b[^()]*$", head):
        return None, None
    call = re.search(r"(~?\w+)\s*\(", head)
    if call and call.group(1) not in KEYWORDS and "=" not in head[:call.start()]:
        return "function", call.group(1)
    if table and re.search(r"\b(const|constexpr)\b", head):
        return "table", table.group(1)
    return None, None


def owners(code):
    """Spans (begin, end, kind, name) of functions and tables that no function holds."""
    spans, stack, last = [], [], 0
    for match in re.finditer(r"[{};]|^[ \t]*#(?:[^\n\\]|\\.)*\n", code, flags=re.M | re.S):
        mark = match.group(0)
        if mark == "{":
            inside = any(entry[1] for entry in stack)
            kind, name = (None, None) if inside else scope_name(code[last:match.start()])
            stack.append((last, kind, name))
        elif mark == "}" and stack:
            begin, kind, name = stack.pop()
            if kind:
                spans.append((begin, match.end(), kind, name))
        last = match.end()
    return spans


def users(name, code, spans, seen=()):
    """Functions that mention name, by way of tables too."""
    found = []
    for match in re.finditer(r"\b%s\b" % name, code):
        for begin, end, kind, owner in spans:
            if not begin <= match.start() < end or owner == name:
                continue
            new = [owner] if kind == "function" else (
                [] if owner in seen else users(owner, code, spans, (*seen, owner)))
            found += [f for f in new if f not in found]
    return found


def handed_lines(files, shared, problems):
    """(printed path, source) -> [(line, functions)] of the callers of helpers."""
    rows = {}
    helpers = {}
    for text in files.values():
        code = code_only(text)
        for m in HELPER.finditer(code):
            helpers.update((name, shared.get(m.group(1), m.group(1)))
                           for begin, end, kind, name in owners(code) if begin <= m.start() < end)
    for path, text in files.items():
        code = code_only(text)
        for helper, printed in helpers.items():
            for m in re.finditer(rf"\b{helper}\((\w+),", code):
                number = re.search(rf"\bconstexpr int32_t {m.group(1)} = (\d+);", code)
                within = [n for b, e, kind, n in owners(code) if b <= m.start() < e]
                place = path.relative_to(ROOT).as_posix()
                if number and within:
                    rows.setdefault((printed, place), []).append((int(number.group(1)), within))
                elif within:
                    problems.append(f"{place}: {helper}: no constant {m.group(1)}")
    return rows


def table():
    files = {path: path.read_text() for path in sorted((ROOT / "src").rglob("*.*"))
             if path.suffix in (".h", ".cpp", ".inc")}
    shared = {m.group(1) or m.group(2): m.group(3)
              for path, text in files.items() if path.suffix == ".h" for m in TEXT.finditer(text)}
    rows, problems = {}, []
    for path, text in files.items():
        code, place = code_only(text), path.relative_to(ROOT).as_posix()
        texts = dict(shared, **{m.group(1) or m.group(2): m.group(3) for m in TEXT.finditer(text)})
        sites = list(SITE.finditer(text))
        declared = re.findall(r"\bzyn_site\s+\w+\s*(?:\[[^\]]*\]\s*)?=?\s*\{|\bzyn_site\s*\{", code)
        if len(declared) - code.count("struct zyn_site {") != len(sites):
            problems.append(f"{place}: a site is declared in a form that is not understood")
        for site in sites:
            name, printed, line = site.group(1), site.group(2), int(site.group(3))
            printed = printed[1:-1] if printed.startswith('"') else texts.get(printed)
            functions = users(name, code, owners(code))
            if path.suffix == ".h" and not functions:
                for other in files.values():
                    other = code_only(other)
                    functions += [f for f in users(name, other, owners(other)) if f not in functions]
            if not functions or not printed:
                problems.append(f"{place}: {name}: " + ("no path" if functions else "nothing uses it"))
            rows.setdefault((printed or "", place), []).append((line, functions))
    for (printed, place), sites in handed_lines(files, shared, problems).items():
        rows.setdefault((printed, place), []).extend(sites)
    lines = ["| printed path | source, where it differs | line: function |\n", "|---|---|---|\n"]
    for (printed, place), sites in sorted(rows.items()):
        together = {}
        for line, functions in sorted(sites):
            together.setdefault(", ".join(f"`{f}`" for f in functions), []).append(str(line))
        cells = "; ".join(f"{', '.join(numbers)}: {names}" for names, numbers in together.items())
        source = "" if printed == place else f"`{place}`"
        lines.append(f"| `{printed}` | {source} | {cells} |\n")
    return "".join(lines), problems


def main():
    arguments = sys.argv[1:]
    if arguments not in ([], ["--write"], ["--check"]):
        print(__doc__.strip(), file=sys.stdout if arguments == ["--help"] else sys.stderr)
        return 0 if arguments == ["--help"] else 2
    made, problems = table()
    for problem in problems:
        print(problem, file=sys.stderr)
    if problems or not arguments:
        print(made, end="")
        return 1 if problems else 0
    page = PAGE.read_text()
    before, rest = page.split(BEGIN)
    held, after = rest.split(END)
    if arguments == ["--write"]:
        PAGE.write_text(before + BEGIN + made + END + after)
    elif held != made:
        lines = set(held.splitlines()) ^ set(made.splitlines())
        print("docs/architecture.md is behind src/ (./dev sites):", *sorted(lines), sep="\n")
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
