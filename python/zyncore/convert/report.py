"""What the converter says: a summary, or all that cannot be converted."""

from __future__ import annotations

from .graph import ConvertFailure, Graph, printable, shape_text
from .writing import Count


def _amount(value: int) -> str:
    for limit, unit in ((10**9, "G"), (10**6, "M"), (10**3, "k")):
        if value >= limit:
            return f"{value / limit:.3g} {unit}"
    return str(value)


def summary(graph: Graph, count: Count, path: str) -> str:
    used = ", ".join(f"{n} {kind}" for kind, n in sorted(count.operators.items(),
                                                         key=lambda item: -item[1]))
    lines = [f"{path}: {count.nodes} nodes, {_amount(count.multiply_adds)} multiply-adds, "
             f"{_amount(count.parameters)} parameters, largest tensor "
             f"{' x '.join(map(str, count.largest_dims))} ({_amount(count.largest)} values)",
             f"  operators: {used}"]
    for kind, names in (("input", list(graph.inputs)), ("output", graph.outputs)):
        lines += [f"  {kind} {printable(name)} {shape_text(graph.shapes[name])}" for name in names]
    return "\n".join(lines)


def failure(error: ConvertFailure) -> str:
    lines = [f"{len(error.problems)} node{'s' * (len(error.problems) != 1)} cannot be converted:"]
    for p in error.problems:
        lines.append(f"  {p.operator} '{p.node}', inputs {p.shapes or 'none'}: {p.why}"
                     + (f"; {p.help}" if p.help else ""))
    if error.cut:
        lines.append("What lies before them converts with --output " +
                     " ".join(printable(name, 255) for name in error.cut))
    return "\n".join(lines)
