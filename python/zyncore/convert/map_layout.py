"""Operators that move elements or only rename axes."""

from __future__ import annotations

import math

import numpy as np

from .constants import MOST_CONSTANT
from .graph import Node, Refusal, shape_text
from .mapper import FLOAT_MAX, Mapper
from .program import PAD, Step, dim_of, dims_of
from .reader import FLOAT_TYPES
from .semantics import axis_of, pads_of, slice_parts, split_parts


def same(m: Mapper, node: Node) -> None:
    """The same elements in the same order, in other axes."""
    if node.op == "Dropout" and node.has(2) and m.graph.constant(node, 2, "mode").any():
        raise Refusal("it is in training mode", "export in evaluation mode")
    m.put(node.outputs[0], m.held(node.inputs[0]))


_LOGICAL = {"Equal", "Greater", "Less", "GreaterOrEqual", "LessOrEqual", "And", "Or", "Not"}


def _is_whole(node: Node | None) -> bool:
    """Whether what a node makes of values is 0 or 1, under whatever type."""
    return node is not None and (node.op in _LOGICAL or (
        node.op == "Cast" and node.attributes.get("to") not in FLOAT_TYPES))


def cast(m: Mapper, node: Node) -> None:
    to = node.integer("to", 1)
    if to not in FLOAT_TYPES and not _is_whole(m.producers.get(node.inputs[0])):
        raise Refusal("it makes whole numbers of values that the network computes",
                      "cut the graph before it")
    same(m, node)


def transpose(m: Mapper, node: Node) -> None:
    shape = m.graph.shape(node)
    rank = len(shape)
    order = node.integers("perm", list(range(rank))[::-1]) or []
    full = [rank - 1 - order[rank - 1 - i] for i in range(rank)]  # over extents, fastest first
    dims = shape[::-1]
    kept = [i for i in full if dims[i] > 1]
    if kept == sorted(kept):
        return same(m, node)
    if full[-1] == rank - 1 and dims[-1] == 1 and rank <= 6:
        full = full[:-1]  # the batch axis stays where it is
    if len(full) > 5:
        full = kept
    if len(full) > 5:
        raise Refusal(f"{shape_text(shape)} has more than five axes")
    present = sorted(full)
    x = m.get(node.inputs[0], tuple(dims[i] for i in present))
    m.put(node.outputs[0], m.permute(x, [present.index(i) for i in full]))


def concat(m: Mapper, node: Node) -> None:
    shapes = [m.graph.shape(node, i) for i in range(len(node.inputs))]
    out = m.graph.shapes[node.outputs[0]]
    axis = axis_of(node.integer("axis", 1), len(out))
    dims = [dims_of(s) for s in shapes]
    along = len(out) - 1 - axis
    if any(len(d) > 3 or along >= len(d) for d in dims):
        inner, outer = math.prod(out[axis + 1:]), math.prod(out[:axis])
        dims, along = [(inner, s[axis], outer) for s in shapes], 1
    steps = [m.get(name, d) for name, d in zip(node.inputs, dims)]
    m.put(node.outputs[0], concatenated(m, steps, along))


def concatenated(m: Mapper, steps: list[Step], along: int) -> Step:
    if len(steps) == 1:
        return steps[0]
    first = steps[0].dims
    total = sum(s.dims[along] for s in steps)
    return m.operator("CONCAT", steps, (*first[:along], total, *first[along + 1:]), [along])


def tile(m: Mapper, node: Node) -> None:
    shape = m.graph.shape(node)
    repeats = m.graph.whole_numbers(node, 1, "repeats") or []
    x = m.held(node.inputs[0])
    for axis in range(len(shape)):
        if repeats[axis] > 1:
            if repeats[axis] > 64:
                raise Refusal(f"it repeats axis {axis} {repeats[axis]} times, at most 64 are made")
            done = math.prod(n * r for n, r in zip(shape[:axis], repeats))
            x = m.reshape(x, (math.prod(shape[axis:]), done))
            x = concatenated(m, [x] * repeats[axis], 0)
    m.put(node.outputs[0], x)


def expand(m: Mapper, node: Node) -> None:
    out = m.graph.shapes[node.outputs[0]]
    if math.prod(out) == math.prod(m.graph.shape(node)):
        return same(m, node)
    shape = m.graph.shape(node)
    shape = (1,) * (len(out) - len(shape)) + shape
    repeated = tuple(n if k == 1 else 1 for k, n in zip(shape, out))
    if math.prod(repeated) > MOST_CONSTANT:
        raise Refusal(f"it repeats its input {math.prod(repeated)} times")
    zeros = m.constant(np.zeros(repeated, "<f4"))
    m.put(node.outputs[0], m.join("ADD", m.get(node.inputs[0]), zeros))


def parts(m: Mapper, node: Node) -> None:
    """Slice: one output; Split: one output a part."""
    shape = m.graph.shape(node)
    x = m.get(node.inputs[0])
    if node.op == "Split":
        for value, p in zip(node.outputs, split_parts(m.graph, node)):
            along = dim_of(p.axis, shape)
            if value:
                m.put(value, x if along is None else m.part(x, along, p.first, p.count))
        return
    for p in slice_parts(m.graph, node):
        along = dim_of(p.axis, shape)
        if along is not None:
            x = m.part(x, along, p.first, p.count, p.step)
    m.put(node.outputs[0], x)


def pad(m: Mapper, node: Node) -> None:
    shape = m.graph.shape(node)
    mode = node.text("mode", "constant")
    if mode not in ("constant", "reflect", "edge"):
        raise Refusal(f"mode '{mode}' is unknown")
    value = 0.0
    if m.graph.opset < 11:
        value = node.real("value", 0.0)
    elif node.has(2):
        value = float(m.graph.constant(node, 2, "value").reshape(-1)[0])
    before, after = [0] * 5, [0] * 5
    for axis, (a, b) in enumerate(pads_of(m.graph, node)):
        if a == b == 0:
            continue
        along = dim_of(axis, shape)
        if along is None:
            raise Refusal("it pads the batch axis")
        if mode == "reflect" and max(a, b) >= shape[axis]:
            raise Refusal(f"it reflects {max(a, b)} elements of {shape[axis]}")
        before[along], after[along] = a, b
    x = m.get(node.inputs[0])
    if any(before + after):
        dims = [n + before[i] + after[i] for i, n in enumerate(x.dims)]
        value = min(max(value, -FLOAT_MAX), FLOAT_MAX)
        words = [PAD, ["constant", "reflect", "edge"].index(mode), *before, *after, float(value)]
        x = m.operator("CHANNEL_GATHER", [x], dims, words)
    m.put(node.outputs[0], x)


def depth_space(m: Mapper, node: Node) -> None:
    n, c, h, w = m.graph.shape(node)
    b = node.integer("blocksize", 1)
    mode = node.text("mode", "DCR")
    if mode not in ("DCR", "CRD"):
        raise Refusal(f"mode '{mode}' is unknown")
    if n != 1:
        raise Refusal("one image at a time is computed")
    name = node.inputs[0]
    if node.op == "SpaceToDepth":  # (c, h, by, w, bx) to (by, bx, c, h, w)
        x = m.permute(m.get(name, (b, w // b, b, h // b, c)), (1, 3, 4, 0, 2))
    elif mode == "DCR":  # (by, bx, c, h, w) to (c, h, by, w, bx)
        x = m.permute(m.get(name, (w, h, c // (b * b), b, b)), (3, 0, 4, 1, 2))
    else:  # (c, by, bx, h, w) to (c, h, by, w, bx)
        x = m.permute(m.get(name, (w, h, b, b, c // (b * b))), (2, 0, 3, 1, 4))
    m.put(node.outputs[0], x)


HANDLERS = {
    **dict.fromkeys(("Identity", "Dropout", "Reshape", "Flatten", "Squeeze", "Unsqueeze"), same),
    "Cast": cast, "Transpose": transpose, "Concat": concat, "Tile": tile, "Expand": expand,
    "Slice": parts, "Split": parts, "Pad": pad, "DepthToSpace": depth_space,
    "SpaceToDepth": depth_space,
}
