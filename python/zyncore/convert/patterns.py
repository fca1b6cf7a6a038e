"""Activations and norms that exporters write as several operators, put back into one.

An activation is recognised by what it computes, not by how it is written: the operators between
a value and what is made of it are evaluated on sample points, and compared with the functions
that the library has.
"""

from __future__ import annotations

import math
from typing import Callable

import numpy as np

from .graph import MALFORMED, Graph, Node, Refusal
from .semantics import axes_of

_MOST_NODES = 14  # of one activation
_TOLERANCE = 2e-6
_POINTS = np.concatenate([np.linspace(-12, 12, 193), np.linspace(-3.2, 3.2, 65),
                          [-80, -41, -24, -15, 15, 24, 41, 80]])


def _erf(x: np.ndarray) -> np.ndarray:
    return np.vectorize(math.erf)(x)


def _sigmoid(x: np.ndarray) -> np.ndarray:
    return 1 / (1 + np.exp(-x))


_ONE_INPUT: dict[str, Callable[[np.ndarray], np.ndarray]] = {
    "Relu": lambda x: np.maximum(x, 0), "Sigmoid": _sigmoid, "Tanh": np.tanh, "Erf": _erf,
    "Exp": np.exp, "Log": np.log, "Softplus": lambda x: np.logaddexp(x, 0), "Neg": np.negative,
    "Sqrt": np.sqrt, "Reciprocal": np.reciprocal, "Identity": lambda x: x, "Abs": np.abs,
    "HardSwish": lambda x: x * np.clip(x + 3, 0, 6) / 6,
}
_TWO_INPUTS: dict[str, Callable[[np.ndarray, np.ndarray], np.ndarray]] = {
    "Add": np.add, "Sub": np.subtract, "Mul": np.multiply, "Div": np.divide, "Pow": np.power,
    "Max": np.maximum, "Min": np.minimum,
}
_OTHERS = {"Clip", "HardSigmoid", "LeakyRelu"}

# What is looked for: operator, attributes, function.
_TARGETS = [
    ("HardSwish", {}, lambda x: x * np.clip(x + 3, 0, 6) / 6),
    ("HardSigmoid", {"alpha": 1 / 6, "beta": 0.5}, lambda x: np.clip(x / 6 + 0.5, 0, 1)),
    ("HardSigmoid", {"alpha": 0.2, "beta": 0.5}, lambda x: np.clip(0.2 * x + 0.5, 0, 1)),
    ("Swish", {"alpha": 1.0}, lambda x: x * _sigmoid(x)),
    ("Swish", {"alpha": 1.702}, lambda x: x * _sigmoid(1.702 * x)),
    ("Mish", {}, lambda x: x * np.tanh(np.logaddexp(x, 0))),
    ("Gelu", {"approximate": "none"}, lambda x: x * (1 + _erf(x / math.sqrt(2))) / 2),
    ("Gelu", {"approximate": "tanh"}, lambda x: x * (
        1 + np.tanh(math.sqrt(2 / math.pi) * (x + 0.044715 * x**3))) / 2),
    ("Softplus", {}, lambda x: np.logaddexp(x, 0)),
    ("Sigmoid", {}, _sigmoid),
    ("Clip6", {}, lambda x: np.clip(x, 0, 6)),
]
_WANTED = np.stack([function(_POINTS) for _, _, function in _TARGETS])


def clip_range(graph: Graph, node: Node) -> tuple[float, float] | None:
    """Lower and upper bound of a Clip; None if they are computed while the network runs."""
    if graph.opset < 11:
        return node.real("min", -math.inf), node.real("max", math.inf)
    bounds = [-math.inf, math.inf]
    for i in range(2):
        if node.has(1 + i):
            value = graph.number(node.inputs[1 + i])
            if value is None:
                return None
            bounds[i] = value
    return bounds[0], bounds[1]


def recognise(graph: Graph) -> None:
    """Replaces what is recognised in graph.nodes."""
    producers = graph.producers()
    for i, node in enumerate(graph.nodes):
        if any(v not in graph.shapes for v in node.inputs + node.outputs if v):
            continue  # reported
        try:
            found = _activation(graph, producers, node) or _l2_norm(graph, producers, node)
        except (Refusal, *MALFORMED):
            continue  # reported by the mapping
        if found:
            graph.nodes[i] = producers[node.outputs[0]] = found
    graph.drop_unused()


def _activation(graph: Graph, producers: dict[str, Node], root: Node) -> Node | None:
    """The activation that ends in a node, from as far back as one is recognised."""
    if not _is_element_wise(graph, root):
        return None
    frontier, best = [root.outputs[0]], None
    for passed in range(_MOST_NODES):
        node = next((producers[v] for v in frontier if v in producers and
                     _is_element_wise(graph, producers[v]) and not any(
                         _reaches(graph, producers, w, v) for w in frontier if w != v)), None)
        if node is None:
            break
        frontier.remove(node.outputs[0])
        for value in node.inputs:
            if value and value not in graph.constants and value not in frontier:
                frontier.append(value)
        if any(graph.shapes[v] != graph.shapes[root.outputs[0]] for v in frontier):
            break
        if len(frontier) == 1 and passed > 0:
            best = _match(graph, producers, root, frontier[0]) or best
    return best


def _reaches(graph: Graph, producers: dict[str, Node], later: str, value: str) -> bool:
    """Whether a value is computed from another by a few element-wise operators."""
    seen, stack = set(), [later]
    while stack and len(seen) < _MOST_NODES:
        at = stack.pop()
        node = producers.get(at)
        if at in seen or node is None or not _is_element_wise(graph, node):
            continue
        seen.add(at)
        if value in node.inputs:
            return True
        stack.extend(node.inputs)
    return False


def _is_element_wise(graph: Graph, node: Node) -> bool:
    if any(v not in graph.shapes for v in node.inputs if v):
        return False
    if node.op in _ONE_INPUT:
        return True
    if node.op in _OTHERS:
        return node.op != "Clip" or clip_range(graph, node) is not None
    return node.op in _TWO_INPUTS and len(node.inputs) == 2 and all(
        v not in graph.constants or graph.number(v) is not None for v in node.inputs)


def _match(graph: Graph, producers: dict[str, Node], root: Node, base: str) -> Node | None:
    values = {base: _POINTS}

    def value(name: str) -> np.ndarray:
        if name not in values:
            number = graph.number(name) if name in graph.constants else None
            values[name] = (_apply(graph, producers[name], value) if number is None
                            else np.full_like(_POINTS, number))
        return values[name]

    with np.errstate(all="ignore"):
        made = value(root.outputs[0])
        near = np.all(np.abs(made - _WANTED) <= _TOLERANCE * (1 + np.abs(_WANTED)), axis=1)
    for op, attributes, _ in (target for target, fits in zip(_TARGETS, near) if fits):
        return _made(graph, op, dict(attributes), root, base)
    return None


def _apply(graph: Graph, node: Node, value: Callable[[str], np.ndarray]) -> np.ndarray:
    x = value(node.inputs[0])
    if node.op in _ONE_INPUT:
        return _ONE_INPUT[node.op](x)
    if node.op in _TWO_INPUTS:
        return _TWO_INPUTS[node.op](x, value(node.inputs[1]))
    if node.op == "Clip":
        low, high = clip_range(graph, node) or (0, 0)
        return np.minimum(np.maximum(x, low), high)
    if node.op == "LeakyRelu":
        return np.where(x < 0, node.real("alpha", 0.01) * x, x)
    return np.clip(node.real("alpha", 0.2) * x + node.real("beta", 0.5), 0, 1)


def _made(graph: Graph, op: str, attributes: dict, root: Node, base: str) -> Node:
    inputs = [base]
    if op == "Clip6":
        op = "Clip"
        if graph.opset < 11:
            attributes = {"min": 0.0, "max": 6.0}
        else:
            for number in (0, 6):
                name = f"{root.outputs[0]}:{number}"
                graph.constants[name] = np.array(number, "<f4")
                graph.shapes[name] = ()
                inputs.append(name)
    return Node(op, root.name, inputs, root.outputs[:1], attributes)


def _l2_norm(graph: Graph, producers: dict[str, Node], root: Node) -> Node | None:
    """x / max(sqrt(sum of x * x), epsilon) along one axis."""
    if root.op != "Div":
        return None
    x, at = root.inputs[0], producers.get(root.inputs[1])
    epsilon = 0.0
    if at and at.op == "Expand":
        at = producers.get(at.inputs[0])
    if at and at.op == "Clip":
        low, high = clip_range(graph, at) or (0, 0)
        if high < 1e30 or low < 0:
            return None
        epsilon, at = low, producers.get(at.inputs[0])
    elif at and at.op == "Max" and len(at.inputs) == 2:
        numbers = [graph.number(v) for v in at.inputs]
        epsilon = next((n for n in numbers if n is not None), -1.0)
        at = producers.get(at.inputs[0 if numbers[0] is None else 1])
    if at and at.op == "Sqrt":
        at = producers.get(at.inputs[0])
        square = producers.get(at.inputs[0]) if at and at.op == "ReduceSum" else None
        is_square = square and square.inputs[0] == x and (
            square.op == "Mul" and square.inputs[1] == x or
            square.op == "Pow" and graph.number(square.inputs[1]) == 2)
        if not at or not (is_square or (at.op == "ReduceSumSquare" and at.inputs[0] == x)):
            return None
    elif not at or at.op != "ReduceL2" or at.inputs[0] != x:
        return None
    axes = axes_of(graph, at, len(graph.shapes[x]))
    if not 0 <= epsilon < 1e30 or not axes or len(axes) != 1 or at.integer("keepdims", 1) != 1:
        return None
    return Node("L2Normalization", root.name, [x], root.outputs[:1],
                {"axis": axes[0], "epsilon": float(epsilon)})
