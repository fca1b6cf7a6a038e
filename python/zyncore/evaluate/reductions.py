"""Sums along axes, products of matrices, normalisation."""

from __future__ import annotations

import numpy as np

from .operators import Node, axes_of, computes

_REDUCTIONS = {
    "ReduceMean": np.mean,
    "ReduceSum": np.sum,
    "ReduceMax": np.max,
    "ReduceMin": np.min,
    "ReduceProd": np.prod,
    "ReduceL1": lambda x, **how: np.sum(np.abs(x), **how),
    "ReduceL2": lambda x, **how: np.sqrt(np.sum(np.square(x), **how)),
    "ReduceSumSquare": lambda x, **how: np.sum(np.square(x), **how),
    "ReduceLogSum": lambda x, **how: np.log(np.sum(x, **how)),
    "ReduceLogSumExp": lambda x, **how: np.log(np.sum(np.exp(x), **how)),
}


@computes(*_REDUCTIONS)
def reduce(node: Node, x, axes=None):
    axes = node.get("axes") if axes is None else axes
    if axes is None or np.size(axes) == 0:
        if node.get("noop_with_empty_axes", 0):
            return x
        axes = range(x.ndim)
    keep = bool(node.get("keepdims", 1))
    result = _REDUCTIONS[node.kind](x, axis=tuple(axes_of(axes, x.ndim)), keepdims=keep)
    return result if x.dtype.kind == "f" else result.astype(x.dtype)


@computes("ArgMax", "ArgMin")
def arg_reduce(node: Node, x):
    axis = node.get("axis", 0)
    if node.get("select_last_index", 0):
        raise node.unsupported("select_last_index")
    function = np.argmax if node.kind == "ArgMax" else np.argmin
    result = function(x, axis=axis).astype(np.int64)
    return np.expand_dims(result, axis) if node.get("keepdims", 1) else result


@computes("TopK")
def top_k(node: Node, x, count=None):
    axis = axes_of([node.get("axis", -1)], x.ndim)[0]
    count = node.get("k") if count is None else int(np.reshape(count, -1)[0])
    order = np.argsort(-x if node.get("largest", 1) else x, axis=axis, kind="stable")
    order = np.take(order, range(count), axis=axis)
    return np.take_along_axis(x, order, axis), order.astype(np.int64)


@computes("MatMul")
def matmul(node: Node, a, b):
    return a @ b


@computes("Gemm")
def gemm(node: Node, a, b, c=None):
    a = a.T if node.get("transA", 0) else a
    b = b.T if node.get("transB", 0) else b
    y = node.get("alpha", 1.0) * (a @ b)
    return y if c is None else y + node.get("beta", 1.0) * c


@computes("Einsum")
def einsum(node: Node, *inputs):
    return np.einsum(node.get("equation"), *inputs)


@computes("CumSum")
def cumulative_sum(node: Node, x, axis):
    if node.get("exclusive", 0) or node.get("reverse", 0):
        raise node.unsupported("exclusive or reverse")
    return np.cumsum(x, axis=int(axis))


@computes("Softmax", "LogSoftmax")
def softmax(node: Node, x):
    shape = x.shape
    if node.opset >= 13:
        axis = node.get("axis", -1)
    else:  # all axes from the named one on are one
        first = axes_of([node.get("axis", 1)], x.ndim + 1)[0]
        x = x.reshape(int(np.prod(shape[:first])), -1)
        axis = 1
    x = x - x.max(axis=axis, keepdims=True)
    total = np.exp(x).sum(axis=axis, keepdims=True)
    y = np.exp(x) / total if node.kind == "Softmax" else x - np.log(total)
    return y.reshape(shape)


def _by_channel(values: np.ndarray, rank: int) -> np.ndarray:
    """One value a channel, for a tensor [batch, channels, ...]."""
    return values.reshape(-1, *[1] * (rank - 2))


@computes("BatchNormalization")
def batch_normalization(node: Node, x, scale, shift, mean, variance):
    if node.get("training_mode", 0):
        raise node.unsupported("training mode: export the network in evaluation mode")
    scale, shift, mean, variance = (_by_channel(v, x.ndim) for v in (scale, shift, mean, variance))
    return (x - mean) / np.sqrt(variance + node.get("epsilon", 1e-5)) * scale + shift


@computes("InstanceNormalization")
def instance_normalization(node: Node, x, scale, shift):
    space = tuple(range(2, x.ndim))
    plain = (x - x.mean(axis=space, keepdims=True)) / np.sqrt(
        x.var(axis=space, keepdims=True) + node.get("epsilon", 1e-5))
    return plain * _by_channel(scale, x.ndim) + _by_channel(shift, x.ndim)


@computes("LayerNormalization")
def layer_normalization(node: Node, x, scale, shift=None):
    axes = tuple(range(axes_of([node.get("axis", -1)], x.ndim)[0], x.ndim))
    mean = x.mean(axis=axes, keepdims=True)
    inverse = 1 / np.sqrt(x.var(axis=axes, keepdims=True) + node.get("epsilon", 1e-5))
    y = (x - mean) * inverse * scale
    return (y if shift is None else y + shift), mean, inverse


@computes("LpNormalization")
def lp_normalization(node: Node, x):
    axis = node.get("axis", -1)
    if node.get("p", 2) == 1:
        norm = np.abs(x).sum(axis=axis, keepdims=True)
    else:
        norm = np.sqrt(np.square(x).sum(axis=axis, keepdims=True))
    return np.divide(x, norm, out=np.zeros_like(x), where=norm != 0)


@computes("LRN")
def local_response_normalization(node: Node, x):
    size = node.get("size")
    before = (size - 1) // 2
    squares = np.pad(np.square(x), [(0, 0), (before, size - 1 - before)] + [(0, 0)] * (x.ndim - 2))
    total = sum(squares[:, i:i + x.shape[1]] for i in range(size))
    factor = node.get("bias", 1.0) + node.get("alpha", 1e-4) / size * total
    return x / factor ** node.get("beta", 0.75)
