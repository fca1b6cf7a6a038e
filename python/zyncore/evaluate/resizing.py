"""Resize and Upsample: every axis by itself, as a matrix of weights [output][input]."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from .operators import Node, computes


def _places(mode: str, count: int, extent: int, scale: float | None) -> np.ndarray:
    """Where the outputs lie in the input. scale is None where the extents alone are given."""
    i = np.arange(count, dtype=np.float64)

    def back(x):  # i * in / out is exact for whole numbers, a rounded scale is not
        return x * extent / count if scale is None else x / scale

    if mode == "align_corners":
        return i * (extent - 1) / (count - 1) if count > 1 else i * 0
    if mode == "asymmetric":
        return back(i)
    if mode == "tf_half_pixel_for_nn":
        return back(i + 0.5)
    if mode == "pytorch_half_pixel" and count == 1:
        return i * 0
    return back(i + 0.5) - 0.5  # half_pixel, pytorch_half_pixel


_ROUNDING = {
    "round_prefer_floor": lambda x: np.ceil(x - 0.5),
    "round_prefer_ceil": lambda x: np.floor(x + 0.5),
    "floor": np.floor,
    "ceil": np.ceil,
}


def _cubic(distance: np.ndarray, a: float) -> np.ndarray:
    """Keys' kernel."""
    d = np.abs(distance)
    near = ((a + 2) * d - (a + 3)) * d * d + 1
    far = ((a * d - 5 * a) * d + 8 * a) * d - 4 * a
    return np.where(d <= 1, near, np.where(d < 2, far, 0))


@dataclass
class Rule:
    """How a resize finds its values, in ONNX's words."""
    mode: str
    coordinates: str
    rounding: str                 # of nearest
    cubic_coefficient: float = -0.75
    exclude_outside: bool = False


def axis_matrix(rule: Rule, extent: int, count: int, scale: float | None) -> np.ndarray:
    """[output][input]: what every input counts for in every output along an axis. scale is None
    where the extents alone are given."""
    places = _places(rule.coordinates, count, extent, scale)
    if rule.mode == "nearest":
        rounding = "floor" if rule.coordinates == "tf_half_pixel_for_nn" else rule.rounding
        taps = _ROUNDING[rounding](places)[:, None]
        shares = np.ones_like(taps)
    elif rule.mode == "linear":
        taps = np.floor(places)[:, None] + [[0, 1]]
        shares = 1 - np.abs(places[:, None] - taps)
    else:
        taps = np.floor(places)[:, None] + [[-1, 0, 1, 2]]
        shares = _cubic(places[:, None] - taps, rule.cubic_coefficient)
        if rule.exclude_outside:
            shares = np.where((taps >= 0) & (taps < extent), shares, 0)
            shares /= shares.sum(axis=1, keepdims=True)
    matrix = np.zeros((places.size, extent))
    taps = np.clip(taps, 0, extent - 1).astype(int)  # the edge stands for what is outside
    for column in range(taps.shape[1]):
        np.add.at(matrix, (np.arange(places.size), taps[:, column]), shares[:, column])
    return matrix


@computes("Resize", "Upsample")
def resize(node: Node, x, *inputs):
    scales, sizes = _scales_and_sizes(node, inputs)
    old = node.kind == "Upsample" or node.opset < 11
    rule = Rule(node.get("mode", "nearest"),
                "asymmetric" if old else node.get("coordinate_transformation_mode", "half_pixel"),
                "floor" if old else node.get("nearest_mode", "round_prefer_floor"),
                node.get("cubic_coeff_a", -0.75), bool(node.get("exclude_outside", 0)))
    if rule.mode not in ("nearest", "linear", "cubic"):
        raise node.unsupported(f"mode {rule.mode}")
    if rule.coordinates == "tf_crop_and_resize":
        raise node.unsupported("coordinates tf_crop_and_resize")
    for axis, extent in enumerate(x.shape):
        scale = None if scales is None else float(scales[axis])
        count = int(sizes[axis]) if scale is None else int(np.floor(extent * scale))
        if count == extent and scale in (None, 1.0):
            continue
        x = np.moveaxis(np.tensordot(axis_matrix(rule, extent, count, scale), x, axes=(1, axis)),
                        0, axis)
    return x


def _scales_and_sizes(node: Node, inputs):
    """The scale of every axis, or else its extent in the output."""
    if node.get("scales") is not None:  # Upsample before opset 9
        return node.get("scales"), None
    if len(inputs) == 1:  # opset 9 and 10
        return inputs[0], None
    scales = inputs[1] if len(inputs) > 1 else None
    sizes = inputs[2] if len(inputs) > 2 else None
    if sizes is not None and sizes.size:
        return None, sizes
    if scales is None or not scales.size:
        raise ValueError("neither scales nor sizes are given")
    return scales, None
