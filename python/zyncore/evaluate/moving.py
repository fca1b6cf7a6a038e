"""Operators that change shapes, move elements, or make tensors."""

from __future__ import annotations

import numpy as np
import onnx

from .operators import Node, axes_of, moves


@moves("Identity", "Dropout")
def identity(node: Node, x, *_):
    if node.output_count > 1:
        return x, np.ones(x.shape, bool)  # Dropout's mask: nothing is dropped
    return x


@moves("Constant")
def constant(node: Node):
    for name, kind in (("value_float", np.float32), ("value_floats", np.float32),
                       ("value_int", np.int64), ("value_ints", np.int64)):
        if node.get(name) is not None:
            return np.array(node.get(name), kind)
    if node.get("value") is None:
        raise node.unsupported("a constant that is not of numbers")
    return node.get("value")


@moves("ConstantOfShape")
def constant_of_shape(node: Node, shape):
    value = node.get("value", np.zeros(1, np.float32))
    return np.full(tuple(shape), value.reshape(-1)[0], value.dtype)


@moves("Range")
def arange(node: Node, start, limit, step):
    count = max(int(np.ceil((float(limit) - float(start)) / float(step))), 0)
    return (np.arange(count) * step + start).astype(start.dtype)


@moves("Shape")
def shape(node: Node, x):
    return np.array(x.shape[slice(node.get("start", 0), node.get("end"))], np.int64)


@moves("Size")
def size(node: Node, x):
    return np.array(x.size, np.int64)


@moves("Cast")
def cast(node: Node, x):
    kind = node.get("to")
    if kind not in onnx.mapping.TENSOR_TYPE_TO_NP_TYPE or kind == onnx.TensorProto.STRING:
        raise node.unsupported(f"element type {kind}")
    target = onnx.mapping.TENSOR_TYPE_TO_NP_TYPE[kind]
    with np.errstate(all="ignore"):
        return x.astype(np.float32 if target == np.float16 else target)


@moves("Reshape")
def reshape(node: Node, x, shape):
    extents = [int(n) for n in shape]
    if not node.get("allowzero", 0):
        extents = [x.shape[axis] if n == 0 else n for axis, n in enumerate(extents)]
    return x.reshape(extents)


@moves("Flatten")
def flatten(node: Node, x):
    axis = node.get("axis", 1)
    axis += x.ndim if axis < 0 else 0
    return x.reshape(int(np.prod(x.shape[:axis])), -1)


@moves("Squeeze")
def squeeze(node: Node, x, axes=None):
    axes = node.get("axes") if axes is None else axes
    return np.squeeze(x) if axes is None else np.squeeze(x, tuple(axes_of(axes, x.ndim)))


@moves("Unsqueeze")
def unsqueeze(node: Node, x, axes=None):
    axes = node.get("axes") if axes is None else axes
    return np.expand_dims(x, tuple(axes_of(axes, x.ndim + np.size(axes))))


@moves("Transpose")
def transpose(node: Node, x):
    return np.transpose(x, node.get("perm"))


@moves("Concat")
def concat(node: Node, *inputs):
    return np.concatenate(inputs, node.get("axis"))


@moves("Split")
def split(node: Node, x, sizes=None):
    axis = axes_of([node.get("axis", 0)], x.ndim)[0]
    sizes = node.get("split") if sizes is None else sizes
    if sizes is None:
        return np.split(x, node.output_count, axis)
    if sum(sizes) != x.shape[axis]:
        raise ValueError(f"parts {list(sizes)} of the extent {x.shape[axis]}")
    return np.split(x, np.cumsum(sizes)[:-1], axis)


@moves("Slice")
def slice_(node: Node, x, starts=None, ends=None, axes=None, steps=None):
    starts = node.get("starts") if starts is None else starts
    ends = node.get("ends") if ends is None else ends
    axes = node.get("axes", range(len(starts))) if axes is None else axes
    steps = [1] * len(starts) if steps is None else steps
    places = [slice(None)] * x.ndim
    for axis, start, end, step in zip(axes_of(axes, x.ndim), starts, ends, steps):
        # A step back that is to reach element 0 ends below -extent; numpy wants None there.
        stop = None if step < 0 and end < -x.shape[axis] else int(end)
        places[axis] = slice(int(start), stop, int(step))
    return x[tuple(places)]


@moves("Gather")
def gather(node: Node, x, indices):
    return np.take(x, indices, axis=node.get("axis", 0))


@moves("GatherElements")
def gather_elements(node: Node, x, indices):
    places = list(np.indices(indices.shape))
    places[node.get("axis", 0)] = indices
    return x[tuple(places)]


@moves("GatherND")
def gather_nd(node: Node, x, indices):
    if node.get("batch_dims", 0):
        raise node.unsupported("batch dimensions")
    return x[tuple(np.moveaxis(indices, -1, 0))]


@moves("ScatterND")
def scatter_nd(node: Node, x, indices, updates):
    if node.get("reduction", "none") != "none":
        raise node.unsupported("a reduction")
    result = x.copy()
    result[tuple(np.moveaxis(indices, -1, 0))] = updates
    return result


@moves("Expand")
def expand(node: Node, x, shape):
    return x * np.ones(tuple(shape), x.dtype) if x.dtype != bool else \
        np.logical_and(x, np.ones(tuple(shape), bool))


@moves("Tile")
def tile(node: Node, x, repeats):
    return np.tile(x, tuple(repeats))


@moves("Pad")
def pad(node: Node, x, pads=None, value=None):
    pads = [int(n) for n in (node.get("pads") if pads is None else pads)]
    value = node.get("value", 0.0) if value is None else value.reshape(-1)[0]
    before, after = pads[:x.ndim], pads[x.ndim:]
    widths = [(max(b, 0), max(a, 0)) for b, a in zip(before, after)]
    mode = node.get("mode", "constant")
    how = {"constant_values": value} if mode == "constant" else {}
    y = np.pad(x, widths, mode, **how)
    inner = [slice(max(-b, 0), n - max(-a, 0)) for b, a, n in zip(before, after, y.shape)]
    return y[tuple(inner)]


@moves("DepthToSpace")
def depth_to_space(node: Node, x):
    batch, channels, rows, columns = x.shape
    block = node.get("blocksize")
    depth = channels // block ** 2
    if node.get("mode", "DCR") == "DCR":  # channels: block row, block column, depth
        x = x.reshape(batch, block, block, depth, rows, columns).transpose(0, 3, 4, 1, 5, 2)
    else:  # channels: depth, block row, block column
        x = x.reshape(batch, depth, block, block, rows, columns).transpose(0, 1, 4, 2, 5, 3)
    return x.reshape(batch, depth, rows * block, columns * block)


@moves("SpaceToDepth")
def space_to_depth(node: Node, x):
    batch, depth, rows, columns = x.shape
    block = node.get("blocksize")
    x = x.reshape(batch, depth, rows // block, block, columns // block, block)
    x = x.transpose(0, 3, 5, 1, 2, 4)
    return x.reshape(batch, depth * block ** 2, rows // block, columns // block)


@moves("Trilu")
def trilu(node: Node, x, diagonal=None):
    k = 0 if diagonal is None else int(diagonal)
    return np.triu(x, k) if node.get("upper", 1) else np.tril(x, k)
