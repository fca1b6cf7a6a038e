"""Shapes of all values, and the values of those that depend on constants alone (the arithmetic
on shapes that exporters leave in a graph). A node with an output of unknown shape is reported.
"""

from __future__ import annotations

from collections import deque
from typing import Callable

import numpy as np

from . import constants
from .graph import (MALFORMED, Branch, Graph, Node, Problem, Refusal, Shape, check_elements,
                    malformed, printable, shape_text)
from .semantics import (axes_of, axis_of, broadcast, conv_window, gemm_shape, pads_of, pool_window,
                        reshaped, resize_of, slice_parts, split_parts, transposed_window)


def infer(graph: Graph) -> list[Problem]:
    """Fills graph.shapes and graph.constants, and returns the nodes where that fails."""
    graph.shapes.update(graph.inputs)
    for name, value in graph.constants.items():
        graph.shapes[name] = value.shape
    problems: list[Problem] = []
    kept: list[Node] = []
    waiting = deque(graph.nodes)
    while waiting:
        node = waiting.popleft()
        if any(value and value not in graph.shapes for value in node.inputs):
            if not any(node.op in ops for ops in (_RULES, constants.EVALUATE, _OTHERS)):
                problems.append(problem(graph, node, unknown(node)))
            _use_hints(graph, node)
            kept.append(node)
            continue
        try:
            if node.op == "If":
                waiting.extendleft(reversed(_taken(graph, node)))
            elif not _evaluate(graph, node):
                _set_shapes(graph, node)
                kept.append(node)
        except (Refusal, *MALFORMED) as error:
            refusal = error if isinstance(error, Refusal) else malformed(error)
            problems.append(problem(graph, node, refusal))
            _use_hints(graph, node)
            kept.append(node)
    graph.nodes = kept
    return problems


def problem(graph: Graph, node: Node, refusal: Refusal) -> Problem:
    shapes = [shape_text(graph.shapes.get(v)) for v in node.inputs if v]
    return Problem(printable(node.op), printable(node.name), ", ".join(shapes), refusal.why,
                   refusal.help)


_OTHERS = ("Shape", "Size", "If")
_NO_SUCH = {
    "NonMaxSuppression": "cut the graph before it and suppress with zyn_ssd_nms "
                         "(zyncore.suppress)",
    "TopK": "cut the graph before it and choose the best in the program",
    "NonZero": "cut the graph before it and search in the program",
    "Loop": "export without control flow, or cut the graph before it",
    "If": "export without control flow (torch.jit.trace), or cut the graph before it",
    "Scan": "export without control flow, or cut the graph before it",
    "LSTM": "recurrent layers are not computed here",
    "GRU": "recurrent layers are not computed here",
    "RNN": "recurrent layers are not computed here",
    "QuantizeLinear": "export the float network and quantise it here",
    "DequantizeLinear": "export the float network and quantise it here",
    "QLinearConv": "export the float network and quantise it here",
    "ConvInteger": "export the float network and quantise it here",
    "MatMulInteger": "export the float network and quantise it here",
    "Einsum": "write it as matmul and transpose",
}


def unknown(node: Node) -> Refusal:
    if "." in node.op:
        return Refusal("it is no standard operator",
                       "export with the operators of ai.onnx, or cut the graph before it")
    return Refusal("no operator here computes it",
                   _NO_SUCH.get(node.op, "cut the graph before it with --output"))


def _use_hints(graph: Graph, node: Node) -> None:
    for value in node.outputs:
        if value in graph.hints:
            graph.shapes[value] = graph.hints[value]


def _taken(graph: Graph, node: Node) -> list[Node]:
    """The nodes of the branch of an If that is taken, if that is known."""
    condition = graph.constants.get(node.inputs[0])
    if condition is None or condition.size != 1:
        raise Refusal("its condition is computed while the network runs", _NO_SUCH["If"])
    branch = node.attributes["then_branch" if condition.reshape(-1)[0] else "else_branch"]
    if not isinstance(branch, Branch) or len(branch.outputs) < len(node.outputs):
        raise Refusal("a branch is missing")
    inside = [*branch.constants, *(v for n in branch.nodes for v in n.outputs if v)]
    if any(v in graph.shapes for v in inside) or len(set(inside)) != len(inside):
        raise Refusal("a name in its branch is used twice")
    for name, value in branch.constants.items():
        graph.constants[name] = value
        graph.shapes[name] = value.shape
    ends = [Node("Identity", node.name, [v], [out])
            for v, out in zip(branch.outputs, node.outputs)]
    return branch.nodes + ends


def _evaluate(graph: Graph, node: Node) -> bool:
    """Computes a node of constants; False if it has to be computed while the network runs."""
    if node.op in ("Shape", "Size"):
        values = [constants.shape_of(graph, node)]
    elif node.op in constants.EVALUATE and all(v in graph.constants for v in node.inputs if v):
        arrays = [graph.constants[v] if v else None for v in node.inputs]
        if node.op in _RULES:
            for shape in _RULES[node.op](graph, node):
                if np.prod(shape, dtype=object) > constants.MOST_CONSTANT:
                    raise Refusal(f"a constant of the shape {shape_text(shape)} is too large")
        with np.errstate(all="ignore"):
            made = constants.EVALUATE[node.op](graph, node, *arrays)
        values = made if isinstance(made, list) else [made]
    else:
        return False
    _check_outputs(node, len(values))
    for name, value in zip(node.outputs, values):
        if name:
            graph.constants[name] = value
            graph.shapes[name] = value.shape
    return True


def _check_outputs(node: Node, made: int) -> None:
    if any(node.outputs[made:]):
        raise Refusal(f"it has {len(node.outputs)} outputs, {made} are computed")


def _set_shapes(graph: Graph, node: Node) -> None:
    rule = _RULES.get(node.op)
    if rule is None:
        raise unknown(node)
    shapes = rule(graph, node)
    _check_outputs(node, len(shapes))
    for name, shape in zip(node.outputs, shapes):
        check_elements(shape)
        if name:
            graph.shapes[name] = tuple(int(n) for n in shape)


def _same(graph: Graph, node: Node) -> list[Shape]:
    return [graph.shape(node)]


def _without_mask(graph: Graph, node: Node) -> list[Shape]:
    """Dropout and normalisations: further outputs belong to training."""
    users = graph.readers()
    for value in node.outputs[1:]:
        if value and (value in users or value in graph.outputs):
            raise Refusal("its outputs for training are used", "export in evaluation mode")
    node.outputs = node.outputs[:1]
    return [graph.shape(node)]


def _broadcast(graph: Graph, node: Node) -> list[Shape]:
    return [broadcast([graph.shape(node, i) for i in range(len(node.inputs))])]


def _conv(graph: Graph, node: Node) -> list[Shape]:
    out = conv_window(graph, node).out
    return [(graph.shape(node)[0], graph.shape(node, 1)[0], *out)]


def _conv_transposed(graph: Graph, node: Node) -> list[Shape]:
    out = transposed_window(graph, node).out
    return [(graph.shape(node)[0], graph.shape(node, 1)[1] * node.integer("group", 1), *out)]


def _pool(graph: Graph, node: Node) -> list[Shape]:
    return [(*graph.shape(node)[:2], *pool_window(graph, node).out)]


def _global_pool(graph: Graph, node: Node) -> list[Shape]:
    shape = graph.shape(node)
    return [(*shape[:2], *[1] * (len(shape) - 2))]


def _reduce(graph: Graph, node: Node) -> list[Shape]:
    shape = graph.shape(node)
    axes = axes_of(graph, node, len(shape))
    if not axes:
        axes = [] if node.integer("noop_with_empty_axes", 0) else list(range(len(shape)))
    keep = node.integer("keepdims", 1)
    return [tuple(1 if i in axes else n for i, n in enumerate(shape) if keep or i not in axes)]


def _matmul(graph: Graph, node: Node) -> list[Shape]:
    a, b = graph.shape(node, 0), graph.shape(node, 1)
    left, right = (1, *a) if len(a) == 1 else a, (*b, 1) if len(b) == 1 else b
    if len(left) < 2 or len(right) < 2 or left[-1] != right[-2]:
        raise Refusal(f"{shape_text(a)} and {shape_text(b)} do not fit each other")
    out = (*broadcast([left[:-2], right[:-2]]), left[-2], right[-1])
    if len(b) == 1:
        out = out[:-1]
    return [out[:-2] + out[-1:] if len(a) == 1 and len(b) > 1 else out[:-1] if len(a) == 1 else out]


def _flatten(graph: Graph, node: Node) -> list[Shape]:
    shape = graph.shape(node)
    axis = node.integer("axis", 1)
    axis += len(shape) if axis < 0 else 0
    if not 0 <= axis <= len(shape):
        raise Refusal(f"there is no axis {axis} in {shape_text(shape)}")
    product = [int(np.prod(part, dtype=object)) for part in (shape[:axis], shape[axis:])]
    return [tuple(product)]


def _squeeze(graph: Graph, node: Node) -> list[Shape]:
    shape = graph.shape(node)
    axes = axes_of(graph, node, len(shape))
    if axes is None:
        axes = [i for i, n in enumerate(shape) if n == 1]
    if any(shape[i] != 1 for i in axes):
        raise Refusal(f"axes {axes} of {shape_text(shape)} are not all 1")
    return [tuple(n for i, n in enumerate(shape) if i not in axes)]


def _unsqueeze(graph: Graph, node: Node) -> list[Shape]:
    shape = list(graph.shape(node))
    given = graph.whole_numbers(node, 1, "axes") or []
    axes = axes_of(graph, node, len(shape) + len(given)) or []
    for axis in axes:
        shape.insert(axis, 1)
    return [tuple(shape)]


def _transpose(graph: Graph, node: Node) -> list[Shape]:
    shape = graph.shape(node)
    order = node.integers("perm", list(range(len(shape)))[::-1]) or []
    if sorted(order) != list(range(len(shape))):
        raise Refusal(f"its order {order} is none of {len(shape)} axes")
    return [tuple(shape[i] for i in order)]


def _concat(graph: Graph, node: Node) -> list[Shape]:
    shapes = [graph.shape(node, i) for i in range(len(node.inputs))]
    axis = axis_of(node.integer("axis", 1), len(shapes[0]) if shapes else 0)
    for shape in shapes:
        if len(shape) != len(shapes[0]) or any(
                n != shapes[0][i] for i, n in enumerate(shape) if i != axis):
            raise Refusal(f"its inputs differ beside axis {axis}")
    total = sum(shape[axis] for shape in shapes)
    return [(*shapes[0][:axis], total, *shapes[0][axis + 1:])]


def _slice(graph: Graph, node: Node) -> list[Shape]:
    shape = list(graph.shape(node))
    for part in slice_parts(graph, node):
        shape[part.axis] = part.count
    return [tuple(shape)]


def _split(graph: Graph, node: Node) -> list[Shape]:
    shape = graph.shape(node)
    return [(*shape[:p.axis], p.count, *shape[p.axis + 1:]) for p in split_parts(graph, node)]


def _gather(graph: Graph, node: Node) -> list[Shape]:
    shape = graph.shape(node)
    axis = axis_of(node.integer("axis", 0), len(shape))
    return [(*shape[:axis], *graph.shape(node, 1), *shape[axis + 1:])]


def _gather_nd(graph: Graph, node: Node) -> list[Shape]:
    shape, at = graph.shape(node), graph.shape(node, 1)
    if not at or not 1 <= at[-1] <= len(shape):
        raise Refusal(f"indices {shape_text(at)} into {shape_text(shape)}")
    return [(*at[:-1], *shape[at[-1]:])]


def _arg(graph: Graph, node: Node) -> list[Shape]:
    shape = graph.shape(node)
    axis = axis_of(node.integer("axis", 0), len(shape))
    keep = (1,) if node.integer("keepdims", 1) else ()
    return [(*shape[:axis], *keep, *shape[axis + 1:])]


def _pad(graph: Graph, node: Node) -> list[Shape]:
    return [tuple(n + a + b for n, (a, b) in zip(graph.shape(node), pads_of(graph, node)))]


def _expand(graph: Graph, node: Node) -> list[Shape]:
    target = graph.whole_numbers(node, 1, "shape") or []
    return [broadcast([graph.shape(node), tuple(max(n, 0) for n in target)])]


def _tile(graph: Graph, node: Node) -> list[Shape]:
    shape, repeats = graph.shape(node), graph.whole_numbers(node, 1, "repeats") or []
    if len(repeats) != len(shape):
        raise Refusal(f"{len(repeats)} repeats for {shape_text(shape)}")
    return [tuple(n * r for n, r in zip(shape, repeats))]


def _fill(graph: Graph, node: Node) -> list[Shape]:
    return [tuple(graph.whole_numbers(node, 0, "shape") or [])]


def _depth_space(graph: Graph, node: Node) -> list[Shape]:
    shape, b = graph.shape(node), node.integer("blocksize", 0)
    if len(shape) != 4 or b < 1:
        raise Refusal(f"its input is {shape_text(shape)} and its block {b}")
    n, c, h, w = shape
    if node.op == "DepthToSpace":
        if c % (b * b):
            raise Refusal(f"{c} channels are no multiple of {b} x {b}")
        return [(n, c // (b * b), h * b, w * b)]
    if h % b or w % b:
        raise Refusal(f"{shape_text(shape)} cannot be cut into blocks of {b}")
    return [(n, c * b * b, h // b, w // b)]


_UNARY = """Relu LeakyRelu PRelu Clip HardSwish HardSigmoid Sigmoid Tanh Mish Elu Selu Celu Softplus
Softsign Softmax LogSoftmax LpNormalization Erf Exp Log Sqrt Reciprocal Abs Neg Identity Cast
InstanceNormalization LRN Swish Gelu L2Normalization Not""".split()
_REDUCE = """ReduceMean ReduceSum ReduceMax ReduceMin ReduceL1 ReduceL2 ReduceSumSquare""".split()

_RULES: dict[str, Callable[[Graph, Node], list[Shape]]] = {
    **dict.fromkeys(_UNARY, _same), **dict.fromkeys(_REDUCE, _reduce),
    **dict.fromkeys(("Add Sub Mul Div Pow Max Min Sum Mean Equal Greater Less GreaterOrEqual "
                     "LessOrEqual And Or Where").split(), _broadcast),
    "BatchNormalization": _without_mask, "Dropout": _without_mask,
    "LayerNormalization": _without_mask, "Conv": _conv, "ConvTranspose": _conv_transposed,
    "MaxPool": _pool, "AveragePool": _pool, "GlobalAveragePool": _global_pool,
    "GlobalMaxPool": _global_pool, "Gemm": lambda g, n: [gemm_shape(g, n)[::2]],
    "MatMul": _matmul, "Reshape": lambda g, n: [reshaped(g, n)], "Flatten": _flatten,
    "Squeeze": _squeeze, "Unsqueeze": _unsqueeze, "Transpose": _transpose, "Concat": _concat,
    "Slice": _slice, "Split": _split, "Gather": _gather,
    "GatherND": _gather_nd, "GatherElements": lambda g, n: [g.shape(n, 1)], "ScatterND": _same,
    "ArgMax": _arg, "ArgMin": _arg, "Pad": _pad, "Expand": _expand,
    "Tile": _tile, "ConstantOfShape": _fill, "DepthToSpace": _depth_space,
    "SpaceToDepth": _depth_space, "Resize": lambda g, n: [resize_of(g, n).out],
    "Upsample": lambda g, n: [resize_of(g, n).out],
}
