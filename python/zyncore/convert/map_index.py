"""Elements by index, with indices that are constants: Gather and its kin, assignments to parts
(ScatterND), and the place of the largest value."""

from __future__ import annotations

import math

import numpy as np

from .graph import Node, Refusal, Shape, shape_text
from .map_conv import reduced
from .map_layout import concatenated
from .mapper import Mapper
from .program import Step, dim_of, dims_of
from .semantics import axis_of

_MOST_SINGLE = 2**20  # elements that are picked one by one
_MOST_RUNS = 4        # of neighbours that are cut out and put together
_FAR = 1e9            # beyond all indices


def _indices(m: Mapper, node: Node, extents: Shape) -> np.ndarray:
    """The second input; the last axis goes over extents unless there is one extent alone."""
    at = m.graph.constant(node, 1, "indices")
    limits = np.array(extents if len(extents) > 1 else extents[0])
    if at.dtype.kind not in "iu" or at.size < 1 or np.any(at < -limits) or np.any(at >= limits):
        raise Refusal(f"its indices are not all within {shape_text(extents)}")
    return np.where(at < 0, at + limits, at)


def picked(m: Mapper, x: Step, at: np.ndarray) -> Step:
    """Runs {inner, outer, n} of a value {inner, n, outer} by index; an x of three extents whose
    last is n is meant so already for outer 1."""
    words = [int(at.size), *(int(i) for i in at)]
    return m.operator("CHANNEL_GATHER", [x], (*x.dims[:2], at.size), words)


def along_axis(m: Mapper, x: Step, shape: Shape, axis: int, at: np.ndarray) -> Step:
    """Elements of an ONNX axis by index, in extents of the new shape's order."""
    n, inner, outer = shape[axis], math.prod(shape[axis + 1:]), math.prod(shape[:axis])
    step = int(at[1] - at[0]) if at.size > 1 else 1
    if step and np.all(np.diff(at) == step):
        return m.part(m.reshape(x, (inner, n, outer)), 1, int(at[0]), at.size, step)
    runs = np.split(at, np.flatnonzero(np.diff(at) != 1) + 1)
    if len(runs) <= _MOST_RUNS:
        x = m.reshape(x, (inner, n, outer))
        return concatenated(m, [m.part(x, 1, int(run[0]), run.size) for run in runs], 1)
    if outer == 1:
        whole = len(x.dims) == 3 and x.dims[2] == n and math.prod(x.dims[:2]) == inner
        return picked(m, x if whole else m.reshape(x, (inner, 1, n)), at)
    x = m.reshape(m.permute(m.reshape(x, (inner, n, outer)), (0, 2, 1)), (inner, outer, n))
    return m.permute(picked(m, x, at), (0, 2, 1))


def gather(m: Mapper, node: Node) -> None:
    shape = m.graph.shape(node)
    axis = axis_of(node.integer("axis", 0), len(shape))
    at = _indices(m, node, (shape[axis],)).reshape(-1)
    x, along = m.get(node.inputs[0]), dim_of(axis, shape)
    step = int(at[1] - at[0]) if at.size > 1 else 1
    if along is not None and step and np.all(np.diff(at) == step):
        return m.put(node.outputs[0], m.part(x, along, int(at[0]), at.size, step))
    m.put(node.outputs[0], along_axis(m, x, shape, axis, at))


def gather_nd(m: Mapper, node: Node) -> None:
    shape = m.graph.shape(node)
    depth = m.graph.shape(node, 1)[-1]
    if node.integer("batch_dims", 0):
        raise Refusal("batch_dims other than 0 are not computed")
    at = _indices(m, node, shape[:depth]).reshape(-1, depth)
    flat = np.ravel_multi_index(tuple(at.T), shape[:depth])
    inner = math.prod(shape[depth:])
    x = m.get(node.inputs[0], (inner, 1, math.prod(shape[:depth])))
    m.put(node.outputs[0], picked(m, x, flat))


def gather_elements(m: Mapper, node: Node) -> None:
    shape = m.graph.shape(node)
    axis = axis_of(node.integer("axis", 0), len(shape))
    at = _indices(m, node, (shape[axis],))
    _check_single(at.size)
    places = list(np.indices(at.shape))
    places[axis] = at
    flat = np.ravel_multi_index(tuple(p.reshape(-1) for p in places), shape)
    m.put(node.outputs[0], picked(m, m.get(node.inputs[0], (1, 1, math.prod(shape))), flat))


def _check_single(count: int) -> None:
    if count > _MOST_SINGLE:
        raise Refusal(f"{count} elements are picked one by one, at most {_MOST_SINGLE} are",
                      "cut the graph before it")


def scatter_nd(m: Mapper, node: Node) -> None:
    """The value and what is assigned, one after another; then elements of both by index."""
    shape, updates = m.graph.shape(node), m.graph.shape(node, 2)
    if node.text("reduction", "none") != "none":
        raise Refusal("its reduction is not computed")
    depth = m.graph.shape(node, 1)[-1]
    at = _indices(m, node, shape[:depth])
    count = math.prod(shape)
    inner = math.prod(shape[depth:])
    first = np.ravel_multi_index(tuple(np.moveaxis(at, -1, 0)), shape[:depth]).reshape(-1, 1)
    places = (first * inner + np.arange(inner)).reshape(-1)
    if places.size != math.prod(updates):
        raise Refusal(f"{shape_text(updates)} values for {places.size} places")
    axis = _assigned_axis(shape, updates, places)
    if axis is None:
        axis, shape, updates = 0, (count,), (places.size,)
        _check_single(count)
    n, k = shape[axis], updates[axis]
    stride = math.prod(shape[axis + 1:])
    which = np.arange(n)
    which[places.reshape(updates).swapaxes(0, axis).reshape(k, -1)[:, 0] // stride % n] = np.arange(
        n, n + k)
    outer = math.prod(shape[:axis])
    both = concatenated(m, [m.get(node.inputs[0], (stride, n, outer)),
                            m.get(node.inputs[2], (stride, k, outer))], 1)
    joined = (*shape[:axis], n + k, *shape[axis + 1:])
    m.put(node.outputs[0], along_axis(m, both, joined, axis, which))


def _assigned_axis(shape: Shape, updates: Shape, places: np.ndarray) -> int | None:
    """The axis of which some indices are assigned, everything else being assigned in order."""
    differ = [i for i, (n, k) in enumerate(zip(shape, updates)) if n != k]
    if len(shape) != len(updates) or len(differ) > 1:
        return None
    axis = differ[0] if differ else len(shape) - 1
    stride = math.prod(shape[axis + 1:])
    own = places.reshape(updates).swapaxes(0, axis).reshape(updates[axis], -1)[:, 0]
    grid = list(np.indices(updates))
    grid[axis] = (own // stride % shape[axis])[grid[axis]]
    wanted = np.ravel_multi_index(tuple(g.reshape(-1) for g in grid), shape)
    return axis if np.array_equal(wanted, places) else None


def arg_max(m: Mapper, node: Node) -> None:
    """The first index whose value is not below the largest; as a float."""
    shape = m.graph.shape(node)
    along = dim_of(axis_of(node.integer("axis", 0), len(shape)), shape)
    if along is None or node.integer("select_last_index", 0):
        raise Refusal("the batch axis and select_last_index are not computed")
    x = m.get(node.inputs[0])
    if node.op == "ArgMin":
        x = m.function(x, "NEGATE")
    below = m.join("SUBTRACT", reduced(m, x, [along], "MAX"), x)
    below = m.function(m.affine(below, 1e30, 0.0), "CLIP", 0.0, 1.0)
    inner = math.prod(x.dims[:along])
    index = m.affine(below, np.full(x.dims[along], _FAR), np.arange(x.dims[along]), inner)
    m.put(node.outputs[0], reduced(m, index, [along], "MIN"))


HANDLERS = {
    "Gather": gather, "GatherND": gather_nd, "GatherElements": gather_elements,
    "ScatterND": scatter_nd, "ArgMax": arg_max, "ArgMin": arg_max,
}
