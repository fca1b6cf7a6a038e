"""Convolutions, products with weights, pooling, resizing."""

from __future__ import annotations

from typing import Sequence

import numpy as np

from ..evaluate.resizing import Rule, axis_matrix
from .graph import Node, Refusal, Shape, shape_text
from .mapper import Mapper
from .program import JOINS, Conv, Linear, Step, dim_of, dims_of
from .semantics import (Resize, Window, axes_of, conv_window, gemm_shape, pool_window, resize_of,
                        transposed_window)


def _xy(values: Sequence[int], neutral: int) -> tuple[int, int]:
    """By spatial axis in ONNX order (rows first, or one axis) to (x, y)."""
    return (values[-1], values[0]) if len(values) == 2 else (values[0], neutral)


def convolution(m: Mapper, node: Node) -> None:
    transposed = node.op == "ConvTranspose"
    shape = m.graph.shape(node)
    if len(shape) > 4:
        raise Refusal(f"its input is {shape_text(shape)}: one and two axes of space are computed")
    if shape[0] != 1:
        raise Refusal(f"its input is {shape_text(shape)}: one image at a time is computed",
                      "give the input a batch axis of 1 with --input-shape")
    w = transposed_window(m.graph, node) if transposed else conv_window(m.graph, node)
    weights = np.asarray(m.graph.constant(node, 1, "weights"), "f8")
    if weights.ndim == 3:
        weights = weights[:, :, None, :]
    groups = node.integer("group", 1)
    outputs = weights.shape[1] * groups if transposed else weights.shape[0]
    bias = np.zeros(outputs)
    if node.has(2):
        bias = np.asarray(m.graph.constant(node, 2, "bias"), "f8").reshape(-1)
        if bias.size != outputs:
            raise Refusal(f"{bias.size} biases for {outputs} channels")
    m.put(node.outputs[0], m.add(Conv(
        [m.image(node.inputs[0])], (*_xy(w.out, 1), outputs), "", weights, bias,
        _xy(w.stride, 1), _xy(w.dilation, 1), _xy(w.before, 0), _xy(w.after, 0), groups,
        transposed)))


def gemm(m: Mapper, node: Node) -> None:
    graph = m.graph
    rows, inner, columns = gemm_shape(graph, node)
    alpha, beta = node.real("alpha", 1.0), node.real("beta", 1.0)
    a = m.get(node.inputs[0])
    if node.integer("transA", 0):
        a = m.permute(a, (1, 0))
    addend = graph.constants.get(node.inputs[2]) if node.has(2) else np.zeros(1)
    if graph.is_constant(node, 1):
        b = np.asarray(graph.constants[node.inputs[1]], "f8")
        bias = None
        if rows == 1 and addend is not None:
            bias = beta * np.broadcast_to(np.asarray(addend, "f8"), (1, columns))[0]
        weights = alpha * (b if node.integer("transB", 0) else b.T)
        out: Step = m.add(Linear([a], (columns, rows), "", weights, bias))
        if bias is not None:
            return m.put(node.outputs[0], out)
    else:
        b = m.get(node.inputs[1])
        b = m.permute(b, (1, 0)) if node.integer("transB", 0) else b
        out = m.operator("AFFINE", [a, b], (columns, rows), [-8, 0])
        out = m.affine(out, alpha, 0.0) if alpha != 1 else out
    if node.has(2):
        along = None if addend is None else m.by_axis(np.asarray(addend), (rows, columns))
        if along and along[0].size in (1, columns) and along[1] == 1:
            out = m.affine(out, 1.0, beta * np.asarray(along[0], "f8"))
        else:
            c = m.get(node.inputs[2])
            out = m.join("ADD", out, m.affine(c, beta, 0.0) if beta != 1 else c)
    m.put(node.outputs[0], out)


def matmul(m: Mapper, node: Node) -> None:
    graph = m.graph
    left, right = graph.shape(node, 0), graph.shape(node, 1)
    left = (1, *left) if len(left) == 1 else left
    right = (*right, 1) if len(right) == 1 else right
    count = int(np.prod(left))
    if graph.is_constant(node, 1) and int(np.prod(right)) == right[-2] * right[-1]:
        rows, (inner, columns) = count // left[-1], right[-2:]
        b = np.asarray(graph.constants[node.inputs[1]], "f8").reshape(inner, columns)
        x = m.get(node.inputs[0], (inner, rows))
        out: Step = m.add(Linear([x], (columns, rows), "", b.T, None))
    else:
        a, b = m.get(node.inputs[0], dims_of(left)), m.get(node.inputs[1], dims_of(right))
        if a is b:
            b = m.affine(b, 1.0, 0.0)
        rank = max(len(a.dims), len(b.dims))
        further = [max(s.dims[i] if i < len(s.dims) else 1 for s in (a, b))
                   for i in range(2, rank)]
        out = m.operator("AFFINE", [a, b], (right[-1], left[-2], *further), [-8, 0])
    m.put(node.outputs[0], out)


def _merged(shape: Shape, w: Window) -> tuple[Shape, Window]:
    """Neighbouring axes of space over which no window reaches as one axis."""
    space, out = [], Window([], [], [], [], [], [])
    idle = False
    for i, n in enumerate(shape[2:]):
        was_idle, idle = idle, (w.kernel[i], w.stride[i], w.before[i], w.after[i]) == (1, 1, 0, 0)
        if idle and was_idle:
            space[-1] *= n
            out.out[-1] *= n
            continue
        space.append(n)
        for name in ("kernel", "stride", "dilation", "before", "after", "out"):
            getattr(out, name).append(getattr(w, name)[i])
    return (*shape[:2], *space), out


def pool(m: Mapper, node: Node) -> None:
    shape, w = m.graph.shape(node), pool_window(m.graph, node)
    if len(shape) > 4:
        shape, w = _merged(shape, w)
    x = m.image(node.inputs[0], shape)
    largest = node.op == "MaxPool"
    dims = (*_xy(w.out, 1), x.dims[2])
    ceil = int(node.integer("ceil_mode", 0) != 0)
    kernel, stride, dilation = _xy(w.kernel, 1), _xy(w.stride, 1), _xy(w.dilation, 1)
    before, after = _xy(w.before, 0), _xy(w.after, 0)
    if min(before + after) < 0 or any(p > (k - 1) * d for p, k, d in zip(
            before + after, kernel * 2, dilation * 2)):
        raise Refusal(f"its pads {w.before}, {w.after} are not below its kernel {w.kernel}",
                      "pad with an operator of its own")
    if not largest and max(dilation) > 1:
        raise Refusal("averages of dilated windows are not computed")
    whole = all((dims[i] - 1) * stride[i] + kernel[i] <= x.dims[i] for i in range(2))
    if len({*kernel, *stride}) == 1 and max(before + after) == 0 and max(dilation) == 1 and whole:
        kind = "MAX_POOL" if largest else "AVERAGE_POOL"
        out = m.operator(kind, [x], dims, [*kernel, *stride])
    else:
        count_pad = int(node.integer("count_include_pad", 0) != 0)
        out = m.operator("RESAMPLE", [x], dims, [
            16 if largest else 17, *kernel, *stride, *dilation, *before, *after, ceil, count_pad])
    m.put(node.outputs[0], out)


def global_pool(m: Mapper, node: Node) -> None:
    x = m.image(node.inputs[0])
    if node.op == "GlobalAveragePool":
        out = m.operator("RESAMPLE", [x], (1, 1, x.dims[2]), [2, 1.0, 1.0])
    else:
        out = reduced(m, x, [0, 1], "MAX")
    m.put(node.outputs[0], out)


def reduced(m: Mapper, x: Step, axes: Sequence[int], operation: str) -> Step:
    """One value along extents, which become 1."""
    dims = tuple(1 if i in axes else n for i, n in enumerate(x.dims))
    code = ["MEAN", "SUM", "MAX", "MIN", "L2"].index(operation)
    return m.operator("RESAMPLE", [x], dims, [20, sum(1 << i for i in axes), code])


def reduce(m: Mapper, node: Node) -> None:
    shape = m.graph.shape(node)
    axes = axes_of(m.graph, node, len(shape))
    if not axes:
        axes = [] if node.integer("noop_with_empty_axes", 0) else list(range(len(shape)))
    x = m.get(node.inputs[0])
    along = [d for d in (dim_of(a, shape) for a in axes) if d is not None]
    operation = node.op[len("Reduce"):].upper()
    if operation in ("L1", "SUMSQUARE"):
        x = m.function(x, "ABS" if operation == "L1" else "SQUARE")
        operation = "SUM"
    if operation == "MEAN" and sorted(along) == [0, 1] and len(x.dims) == 3:
        x = m.operator("RESAMPLE", [x], (1, 1, x.dims[2]), [2, 1.0, 1.0])
    elif along:
        x = reduced(m, x, along, operation)
    elif operation == "L2":
        x = m.function(x, "ABS")
    m.put(node.outputs[0], x)


_PLACES = {"half_pixel": 0, "align_corners": 1, "asymmetric": 2, "pytorch_half_pixel": 3}
_ROUNDINGS = {"round_prefer_floor": 0, "round_prefer_ceil": 1, "floor": 2, "ceil": 3}


def resize(m: Mapper, node: Node) -> None:
    r = resize_of(m.graph, node)
    shape = m.graph.shape(node)
    if r.out == shape:
        return m.put(node.outputs[0], m.held(node.inputs[0]))
    if r.out[:2] != shape[:2]:
        raise Refusal(f"{shape_text(shape)} becomes {shape_text(r.out)}: only the axes of space, "
                      "behind the channels, are resized", "transpose to (N, C, H, W) before it")
    if r.mode == "cubic" or r.place == "tf_half_pixel_for_nn":
        return m.put(node.outputs[0], _by_matrices(m, node, r))
    if r.place not in _PLACES:
        raise Refusal(f"coordinate_transformation_mode '{r.place}' is not computed",
                      "use half_pixel, align_corners or asymmetric")
    if r.mode == "nearest" and r.rounding not in _ROUNDINGS:
        raise Refusal(f"nearest_mode '{r.rounding}' is unknown")
    x = m.image(node.inputs[0])
    width, height = _xy(r.out[2:], 1)
    scales = [0.0, 0.0]
    if r.scales is not None:
        scales = [float(r.scales[-1]), float(r.scales[2]) if len(shape) == 4 else 0.0]
    m.put(node.outputs[0], m.operator("RESAMPLE", [x], (width, height, x.dims[2]), [
        19 if r.mode == "linear" else 18, width, height, _PLACES[r.place],
        _ROUNDINGS.get(r.rounding, 0), *scales]))


def _by_matrices(m: Mapper, node: Node, r: Resize) -> Step:
    """A resize that no operator computes: every axis times its matrix of weights."""
    x = m.image(node.inputs[0])
    rule = Rule(r.mode, r.place, r.rounding, node.real("cubic_coeff_a", -0.75),
                node.integer("exclude_outside", 0) != 0)
    shape = m.graph.shape(node)
    for axis in range(2, len(shape)):
        count, extent = r.out[axis], shape[axis]
        if count == extent and (r.scales is None or r.scales[axis] == 1):
            continue
        if count * extent > 2**22:
            raise Refusal(f"mode '{r.mode}' from {extent} to {count} is not computed",
                          "use nearest or linear (bilinear) resizing")
        matrix = axis_matrix(rule, extent, count, r.scales[axis] if r.scales else None)
        words = [JOINS["MATMUL"], 0]
        if axis == len(shape) - 1:  # rows of x times the matrix turned
            dims, pair = (count, *x.dims[1:]), [x, m.constant(matrix.T)]
        else:
            dims, pair = (x.dims[0], count, x.dims[2]), [m.constant(matrix), x]
        x = m.operator("AFFINE", pair, dims, words)
    return x


HANDLERS = {
    "Conv": convolution, "ConvTranspose": convolution, "Gemm": gemm, "MatMul": matmul,
    "MaxPool": pool, "AveragePool": pool, "GlobalAveragePool": global_pool,
    "GlobalMaxPool": global_pool, "Resize": resize, "Upsample": resize,
    **dict.fromkeys(("ReduceMean", "ReduceSum", "ReduceMax", "ReduceMin", "ReduceL1", "ReduceL2",
                     "ReduceSumSquare"), reduce),
}
