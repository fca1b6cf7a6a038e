"""Operators on constants, computed while converting."""

from __future__ import annotations

from typing import Any, Callable

import numpy as np

from .graph import Graph, Node, Refusal
from .semantics import axes_of, axis_of, pads_of, reshaped, slice_parts, split_parts

_CAST = {1: "<f4", 2: "u1", 3: "i1", 4: "u2", 5: "i2", 6: "i4", 7: "i8", 9: "?", 10: "f2",
         11: "f8", 12: "u4", 13: "u8"}


MOST_CONSTANT = 2**27  # elements of a value computed while converting


def shape_of(graph: Graph, node: Node) -> np.ndarray:
    shape = graph.shape(node)
    if node.op == "Size":
        return np.array(np.prod(shape, dtype=object), "i8")
    rank = len(shape)
    return np.array(shape[node.integer("start", 0):node.integer("end", rank)], "i8")


def _constant(graph: Graph, node: Node) -> np.ndarray:
    for name, kind in (("value_float", "<f4"), ("value_floats", "<f4"), ("value_int", "i8"),
                       ("value_ints", "i8")):
        if name in node.attributes:
            return np.array(node.attributes[name], kind)
    value = node.attributes.get("value")
    if not isinstance(value, np.ndarray):
        raise Refusal("its value is no tensor of numbers")
    return value


def _cast(graph: Graph, node: Node, x: np.ndarray) -> np.ndarray:
    to = node.integer("to", 1)
    if to not in _CAST:
        raise Refusal(f"element type {to} is not read")
    return x.astype(_CAST[to])


def _divide(graph: Graph, node: Node, a: np.ndarray, b: np.ndarray) -> np.ndarray:
    if a.dtype.kind == "f":
        return a / b
    quotient = np.abs(a) // np.abs(b)  # whole numbers are rounded towards zero
    return (np.sign(a) * np.sign(b) * quotient).astype(a.dtype)


def _mod(graph: Graph, node: Node, a: np.ndarray, b: np.ndarray) -> np.ndarray:
    return np.fmod(a, b) if node.integer("fmod", 0) else np.mod(a, b)


def _fill(graph: Graph, node: Node, shape: np.ndarray) -> np.ndarray:
    value = node.attributes.get("value", np.zeros(1, "<f4"))
    return np.full([int(n) for n in shape], value.reshape(-1)[0], value.dtype)


def _range(graph: Graph, node: Node, first: np.ndarray, end: np.ndarray,
           step: np.ndarray) -> np.ndarray:
    if abs((float(end) - float(first)) / float(step)) > 2**24:
        raise Refusal("its range is too long")
    return np.arange(first.item(), end.item(), step.item(), dtype=first.dtype)


def _slice(graph: Graph, node: Node, x: np.ndarray, *rest: Any) -> np.ndarray:
    for p in slice_parts(graph, node):
        x = np.take(x, p.first + p.step * np.arange(p.count), axis=p.axis)
    return x


def _split(graph: Graph, node: Node, x: np.ndarray, *rest: Any) -> list[np.ndarray]:
    return [np.take(x, range(p.first, p.first + p.count), axis=p.axis)
            for p in split_parts(graph, node)]


def _squeeze(graph: Graph, node: Node, x: np.ndarray, *rest: Any) -> np.ndarray:
    axes = axes_of(graph, node, x.ndim)
    return np.squeeze(x, None if axes is None else tuple(axes))


def _unsqueeze(graph: Graph, node: Node, x: np.ndarray, *rest: Any) -> np.ndarray:
    given = graph.whole_numbers(node, 1, "axes") or []
    for axis in axes_of(graph, node, x.ndim + len(given)) or []:
        x = np.expand_dims(x, axis)
    return x


def _reduce(function: Callable[..., np.ndarray]) -> Callable[..., np.ndarray]:
    def apply(graph: Graph, node: Node, x: np.ndarray, *rest: Any) -> np.ndarray:
        axes = axes_of(graph, node, x.ndim)
        result = function(x, axis=tuple(axes) if axes else None,
                          keepdims=bool(node.integer("keepdims", 1)))
        return np.asarray(result, x.dtype)
    return apply


def _clip(graph: Graph, node: Node, x: np.ndarray, low: Any = None, high: Any = None) -> Any:
    if graph.opset < 11:
        low, high = node.real("min", -np.inf), node.real("max", np.inf)
    return np.minimum(np.maximum(x, -np.inf if low is None else low),
                      np.inf if high is None else high).astype(x.dtype)


def _expand(graph: Graph, node: Node, x: np.ndarray, shape: np.ndarray) -> np.ndarray:
    target = np.broadcast_shapes(x.shape, tuple(int(n) for n in shape))
    return np.ascontiguousarray(np.broadcast_to(x, target))


def _pad(graph: Graph, node: Node, x: np.ndarray, *rest: Any) -> np.ndarray:
    if node.text("mode", "constant") != "constant" or (node.has(2) and np.any(rest[1] != 0)):
        raise Refusal("constants are padded with zeros alone")
    return np.pad(x, pads_of(graph, node))


def _check_size(arrays: tuple[np.ndarray, ...]) -> None:
    if np.prod(np.broadcast_shapes(*(a.shape for a in arrays)), dtype=object) > MOST_CONSTANT:
        raise Refusal("a constant would be too large")


def _each(function: Callable[..., np.ndarray]) -> Callable[..., np.ndarray]:
    def apply(graph: Graph, node: Node, *arrays: np.ndarray) -> np.ndarray:
        _check_size(arrays)
        return np.asarray(function(*arrays))
    return apply


def _kept(function: Callable[..., np.ndarray]) -> Callable[..., np.ndarray]:
    """The result in the type of the first operand."""
    def apply(graph: Graph, node: Node, *arrays: np.ndarray) -> np.ndarray:
        _check_size(arrays)
        return np.asarray(function(*arrays)).astype(arrays[0].dtype)
    return apply


EVALUATE: dict[str, Callable[..., Any]] = {
    "Constant": _constant, "Cast": _cast, "Div": _divide, "Mod": _mod, "ConstantOfShape": _fill,
    "Range": _range, "Slice": _slice, "Split": _split, "Squeeze": _squeeze,
    "Unsqueeze": _unsqueeze, "Clip": _clip, "Expand": _expand,
    "Identity": lambda g, n, x: x,
    "Add": _kept(np.add), "Sub": _kept(np.subtract), "Mul": _kept(np.multiply),
    "Pow": _kept(np.power), "Max": _kept(lambda *a: np.maximum.reduce(np.broadcast_arrays(*a))),
    "Min": _kept(lambda *a: np.minimum.reduce(np.broadcast_arrays(*a))),
    "Sqrt": _kept(np.sqrt), "Exp": _kept(np.exp), "Log": _kept(np.log), "Neg": _kept(np.negative),
    "Abs": _kept(np.abs), "Floor": _kept(np.floor), "Ceil": _kept(np.ceil),
    "Round": _kept(np.round), "Sign": _kept(np.sign), "Sin": _kept(np.sin), "Cos": _kept(np.cos),
    "Reciprocal": _kept(np.reciprocal), "Tanh": _kept(np.tanh),
    "Relu": _kept(lambda x: np.maximum(x, 0)),
    "Sigmoid": _kept(lambda x: 1 / (1 + np.exp(-x.astype("f8")))),
    "Equal": _each(np.equal), "Greater": _each(np.greater), "Less": _each(np.less),
    "GreaterOrEqual": _each(np.greater_equal), "LessOrEqual": _each(np.less_equal),
    "And": _each(np.logical_and), "Or": _each(np.logical_or), "Not": _each(np.logical_not),
    "Where": _each(np.where),
    "ReduceProd": _reduce(np.prod), "ReduceSum": _reduce(np.sum), "ReduceMax": _reduce(np.max),
    "ReduceMin": _reduce(np.min), "ReduceMean": _reduce(np.mean),
    "Concat": lambda g, n, *x: np.concatenate(x, axis_of(n.integer("axis", 1), x[0].ndim)),
    "Gather": lambda g, n, x, at: np.take(x, at, axis_of(n.integer("axis", 0), x.ndim)),
    "Reshape": lambda g, n, x, s: x.reshape(reshaped(g, n)),
    "Transpose": lambda g, n, x: np.ascontiguousarray(x.transpose(n.integers("perm"))),
    "Flatten": lambda g, n, x: x.reshape(int(np.prod(x.shape[:n.integer("axis", 1)])), -1),
    "Tile": lambda g, n, x, repeats: np.tile(x, [int(r) for r in repeats]),
    "Pad": _pad,
    "CumSum": lambda g, n, x, axis: np.cumsum(x, int(axis), dtype=x.dtype),
    "NonZero": lambda g, n, x: np.stack(np.nonzero(x)).astype("i8"),
}
