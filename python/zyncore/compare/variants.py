"""Values that a mistake in a node, or in what it reads, would have given."""

from __future__ import annotations

import itertools
from typing import Iterator

import numpy as np
import onnx

from .piece import Piece

# Pattern, detail, the values, and whether the edges may differ.
Variants = Iterator[tuple[str, str, "np.ndarray | None", bool]]


def variants(piece: Piece) -> Variants:
    for index, node in enumerate(piece.nodes):
        for family in _FAMILIES.get(node.op_type, ()):
            yield from family(piece, index, node)
    for name in piece.inputs:
        yield from _other_input(piece, name)


def _other_input(piece: Piece, name: str) -> Variants:
    x = piece.values[name]
    if x.ndim != 4 or x.dtype.kind != "f":
        return
    channels = range(x.shape[1])
    orders = itertools.permutations(channels) if len(channels) <= 4 else [channels[::-1]]
    for order in orders:
        yield ("channels swapped", f"as if the channels of '{name}' came in the order "
               f"{', '.join(map(str, order[:8]))}", piece.again({name: x[:, list(order)]}), False)
    if x.shape[2] == x.shape[3]:
        turned = piece.again({name: x.swapaxes(2, 3)})
        yield ("rows and columns exchanged", f"as if '{name}' came so", turned, False)
    for down, right in itertools.product((-1, 0, 1), repeat=2):
        if down or right:
            moved = piece.again({name: np.roll(x, (down, right), (2, 3))})
            yield ("displaced", f"as if '{name}' lay {down} rows lower and {right} columns further "
                   "right: padding on the other side", moved, True)


def _with_weights(piece: Piece, index: int, node: onnx.NodeProto, place: int,
                  weights: np.ndarray) -> np.ndarray | None:
    """The result when one node reads other weights."""
    changed = onnx.NodeProto()
    changed.CopyFrom(node)
    changed.input[place] = "\0other"
    return piece.again({"\0other": weights}, {index: changed})


def _with_attributes(piece: Piece, index: int, node: onnx.NodeProto, **attributes
                     ) -> np.ndarray | None:
    changed = onnx.NodeProto()
    changed.CopyFrom(node)
    kept = [a for a in node.attribute if a.name not in attributes]
    del changed.attribute[:]
    changed.attribute.extend(kept + [onnx.helper.make_attribute(name, value)
                                     for name, value in attributes.items()])
    return piece.again({}, {index: changed})


def _weights(piece: Piece, index: int, node: onnx.NodeProto) -> Variants:
    """Weights in another order, or without their bias."""
    for place in range(min(2, len(node.input))):
        weights = piece.constant(node.input[place])
        if weights is None or not 2 <= weights.ndim <= 4:
            continue
        rank = weights.ndim
        for order in itertools.permutations(range(rank)):
            if order == tuple(range(rank)):
                continue
            kernel = rank == 4 and order == (0, 1, 3, 2)
            other = weights.transpose(order).reshape(weights.shape)
            yield ("rows and columns exchanged" if kernel else "weights in another order",
                   f"weights of '{node.output[0]}' with the axes in the order {order}",
                   _with_weights(piece, index, node, place, other), False)
        if rank == 4:
            yield ("kernel turned", f"weights of '{node.output[0]}' turned by 180 degrees",
                   _with_weights(piece, index, node, place, weights[:, :, ::-1, ::-1]), False)
    if len(node.input) > 2:
        bias = piece.constant(node.input[2])
        if bias is not None and bias.any():
            yield ("bias missing", f"'{node.output[0]}' without its bias",
                   _with_weights(piece, index, node, 2, np.zeros_like(bias)), False)


def _window(piece: Piece, index: int, node: onnx.NodeProto) -> Variants:
    """Pairs that belong to rows and columns the other way round."""
    pairs = {a.name: list(a.ints) for a in node.attribute
             if a.name in ("strides", "dilations", "pads", "kernel_shape")
             and len(a.ints) in (2, 4)}
    turned = {name: [v[1], v[0]] if len(v) == 2 else [v[1], v[0], v[3], v[2]]
              for name, v in pairs.items()}
    names = [name for name in pairs if turned[name] != pairs[name]]
    for count in range(1, len(names) + 1):
        for some in itertools.combinations(names, count):
            yield ("rows and columns exchanged", f"{' and '.join(some)} of '{node.output[0]}'",
                   _with_attributes(piece, index, node, **{n: turned[n] for n in some}), False)
    if "pads" in pairs and len(pairs["pads"]) == 4:
        p = pairs["pads"]
        yield ("displaced", f"padding of '{node.output[0]}' on the other sides",
               _with_attributes(piece, index, node, pads=[p[2], p[3], p[0], p[1]]), False)


def _average(piece: Piece, index: int, node: onnx.NodeProto) -> Variants:
    counted = next((a.i for a in node.attribute if a.name == "count_include_pad"), 0)
    yield ("padding counted differently", f"count_include_pad of '{node.output[0]}' is {counted}",
           _with_attributes(piece, index, node, count_include_pad=1 - counted), False)


def _resize(piece: Piece, index: int, node: onnx.NodeProto) -> Variants:
    modes = ("half_pixel", "align_corners", "asymmetric")
    roundings = ("round_prefer_floor", "round_prefer_ceil", "floor", "ceil")
    for place, rounding, mode in itertools.product(modes, roundings, ("nearest", "linear")):
        if mode == "linear" and rounding != roundings[0]:
            continue
        yield ("displaced", f"'{node.output[0]}' resized as {mode}, {place}" +
               (f", {rounding}" if mode == "nearest" else ""),
               _with_attributes(piece, index, node, mode=mode, nearest_mode=rounding,
                                coordinate_transformation_mode=place), False)


def _axis(piece: Piece, index: int, node: onnx.NodeProto) -> Variants:
    for axis in range(piece.values[node.input[0]].ndim):
        yield ("another axis", f"'{node.output[0]}' along axis {axis}",
               _with_attributes(piece, index, node, axis=axis), False)


def _operands(piece: Piece, index: int, node: onnx.NodeProto) -> Variants:
    if len(node.input) < 2:
        return
    changed = onnx.NodeProto()
    changed.CopyFrom(node)
    changed.input[:] = list(node.input)[::-1]
    yield ("operands exchanged", f"inputs of '{node.output[0]}' in the other order",
           piece.again({}, {index: changed}), False)


def _number(attribute: str, default: float, pattern: str):
    """A numeric attribute: the numbers that are in use for it."""
    def family(piece: Piece, index: int, node: onnx.NodeProto) -> Variants:
        own = next((a.f for a in node.attribute if a.name == attribute), default)
        for value in (0.0, 1e-12, 1e-8, 1e-7, 1e-6, 1e-5, 2e-5, 1e-4, 5e-4, 1e-3, 2e-3, 1e-2, 0.02,
                      0.1, 0.2, 0.25, 0.3, 1.0):
            if not np.isclose(value, own, rtol=1e-3, atol=0):
                other = _with_attributes(piece, index, node, **{attribute: value})
                yield (pattern, f"{attribute} of '{node.output[0]}' is {own:g}, these are the "
                       f"values for {value:g}", other, False)
    return family


_EPSILON = _number("epsilon", 1e-5, "wrong epsilon")
_FAMILIES = {
    "Conv": (_weights, _window),
    "ConvTranspose": (_weights, _window),
    "Gemm": (_weights,),
    "MatMul": (_weights, _operands),
    "MaxPool": (_window,),
    "AveragePool": (_window, _average),
    "Resize": (_resize,),
    "Upsample": (_resize,),
    "Softmax": (_axis,),
    "LogSoftmax": (_axis,),
    "Sub": (_operands,),
    "Div": (_operands,),
    "Concat": (_operands,),
    "BatchNormalization": (_EPSILON,),
    "InstanceNormalization": (_EPSILON,),
    "LayerNormalization": (_EPSILON,),
    "LeakyRelu": (_number("alpha", 0.01, "another slope"),),
    "Elu": (_number("alpha", 1.0, "another slope"),),
}
