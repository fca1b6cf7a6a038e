"""Convolution and pooling, over any number of spatial axes.

All of them go through the kernel tap by tap: the inputs that one tap sees for all outputs
are a slice of the padded input with the stride as its step.
"""

from __future__ import annotations

import itertools
from typing import Iterator, Sequence

import numpy as np

from .operators import Node, computes


class _Window:
    """Kernel, stride, dilation and padding along every spatial axis of an input."""

    def __init__(self, node: Node, extents: Sequence[int], kernel: Sequence[int]) -> None:
        rank = len(extents)
        self.kernel = list(kernel)
        self.strides = list(node.get("strides", [1] * rank))
        self.dilations = list(node.get("dilations", [1] * rank))
        self.reach = [(k - 1) * d + 1 for k, d in zip(self.kernel, self.dilations)]
        pads = list(node.get("pads", [0] * (2 * rank)))
        automatic = node.get("auto_pad", "NOTSET")
        if automatic == "VALID":
            pads = [0] * (2 * rank)
        elif automatic in ("SAME_UPPER", "SAME_LOWER"):
            totals = [max((-(-n // s) - 1) * s + reach - n, 0)
                      for n, s, reach in zip(extents, self.strides, self.reach)]
            pads = split_pads(totals, automatic)
        self.before, self.after = pads[:rank], pads[rank:]
        padded = [n + a + b for n, a, b in zip(extents, self.before, self.after)]
        self.outputs = [(n - reach) // s + 1
                        for n, s, reach in zip(padded, self.strides, self.reach)]
        if node.get("ceil_mode", 0):
            self._round_up(extents, padded)
        if any(n < 1 for n in self.outputs):
            raise ValueError(f"output would have the extents {self.outputs}")

    def _round_up(self, extents: Sequence[int], padded: Sequence[int]) -> None:
        for axis, n in enumerate(padded):
            stride = self.strides[axis]
            count = -(-(n - self.reach[axis]) // stride) + 1
            if (count - 1) * stride >= extents[axis] + self.before[axis]:
                count -= 1  # it would begin in the padding behind the input
            self.outputs[axis] = count

    def pad(self, x: np.ndarray, value: float) -> np.ndarray:
        """The input with its padding, and with what windows that are rounded up reach."""
        widths = [(0, 0)] * (x.ndim - len(self.kernel))
        for axis, n in enumerate(x.shape[-len(self.kernel):]):
            needed = (self.outputs[axis] - 1) * self.strides[axis] + self.reach[axis]
            behind = max(self.after[axis], needed - n - self.before[axis])
            widths.append((self.before[axis], behind))
        return np.pad(x, widths, constant_values=value)

    def taps(self) -> Iterator[tuple[tuple[int, ...], tuple]]:
        """Every place in the kernel, with the slices of the padded input under it."""
        for tap in itertools.product(*map(range, self.kernel)):
            slices = []
            for t, d, s, count in zip(tap, self.dilations, self.strides, self.outputs):
                slices.append(slice(t * d, t * d + (count - 1) * s + 1, s))
            yield tap, (..., *slices)


def split_pads(totals: Sequence[int], automatic: str) -> list[int]:
    """Padding before all axes, then behind all of them; SAME_UPPER puts the odd one behind."""
    small, large = [t // 2 for t in totals], [t - t // 2 for t in totals]
    return small + large if automatic == "SAME_UPPER" else large + small


def _add_bias(y: np.ndarray, bias: np.ndarray | None) -> np.ndarray:
    return y if bias is None else y + bias.reshape(-1, *[1] * (y.ndim - 2))


@computes("Conv")
def conv(node: Node, x, weight, bias=None):
    window = _Window(node, x.shape[2:], weight.shape[2:])
    groups = node.get("group", 1)
    batch, channels = x.shape[:2]
    outputs = weight.shape[0]
    if channels != weight.shape[1] * groups or outputs % groups:
        raise ValueError(f"weights {weight.shape} in {groups} groups do not fit the input")
    padded = window.pad(x, 0)
    weight = weight.reshape(groups, outputs // groups, channels // groups, *weight.shape[2:])
    y = np.zeros((batch, groups, outputs // groups, int(np.prod(window.outputs))))
    for tap, seen in window.taps():
        pixels = padded[seen].reshape(batch, groups, channels // groups, -1)
        y += weight[(slice(None),) * 3 + tap] @ pixels
    return _add_bias(y.reshape(batch, outputs, *window.outputs), bias)


@computes("ConvTranspose")
def conv_transpose(node: Node, x, weight, bias=None):
    """Every input pixel adds its share to the outputs under the kernel."""
    rank = x.ndim - 2
    groups = node.get("group", 1)
    strides = node.get("strides", [1] * rank)
    dilations = node.get("dilations", [1] * rank)
    extra = node.get("output_padding", [0] * rank)
    batch, channels = x.shape[:2]
    outputs = weight.shape[1]  # of one group
    full = [(n - 1) * s + (k - 1) * d + 1 + e for n, s, k, d, e in
            zip(x.shape[2:], strides, weight.shape[2:], dilations, extra)]
    full, pads = _transposed_pads(node, x.shape[2:], full, strides)
    weight = weight.reshape(groups, channels // groups, outputs, *weight.shape[2:])
    pixels = x.reshape(batch, groups, channels // groups, -1)
    y = np.zeros((batch, groups * outputs, *full))
    for tap in itertools.product(*map(range, weight.shape[3:])):
        share = weight[(slice(None),) * 3 + tap].transpose(0, 2, 1) @ pixels
        places = tuple(slice(t * d, t * d + (n - 1) * s + 1, s)
                       for t, d, n, s in zip(tap, dilations, x.shape[2:], strides))
        y[(..., *places)] += share.reshape(batch, groups * outputs, *x.shape[2:])
    inner = tuple(slice(b, n - a) for b, a, n in zip(pads[:rank], pads[rank:], full))
    return _add_bias(y[(..., *inner)], bias)


def _transposed_pads(node: Node, extents, full, strides) -> tuple[list[int], list[int]]:
    """The full output, as large as what is asked for at least, and what is cut off it, before all
    axes and then behind all of them."""
    automatic = node.get("auto_pad", "NOTSET")
    wanted = node.get("output_shape")
    if wanted is None and automatic not in ("SAME_UPPER", "SAME_LOWER"):
        none = [0] * (2 * len(full))
        return full, none if automatic == "VALID" else list(node.get("pads", none))
    if wanted is None:
        wanted = [n * s for n, s in zip(extents, strides)]
    totals = [max(n - w, 0) for n, w in zip(full, wanted)]
    full = [max(n, w) for n, w in zip(full, wanted)]
    return full, split_pads(totals, "SAME_UPPER" if automatic == "SAME_UPPER" else "SAME_LOWER")


@computes("MaxPool")
def max_pool(node: Node, x):
    if node.output_count > 1:
        raise node.unsupported("indices of the maxima")
    window = _Window(node, x.shape[2:], node.get("kernel_shape"))
    padded = window.pad(x, -np.inf)
    y = np.full((*x.shape[:2], *window.outputs), -np.inf)
    for _, seen in window.taps():
        y = np.maximum(y, padded[seen])
    return y


@computes("AveragePool")
def average_pool(node: Node, x):
    window = _Window(node, x.shape[2:], node.get("kernel_shape"))
    padded = window.pad(x, 0)
    counted = np.ones((1, 1, *x.shape[2:]))
    if node.get("count_include_pad", 0):  # but never what rounding up adds behind the padding
        padding = [(0, 0), (0, 0), *zip(window.before, window.after)]
        counted = np.pad(counted, padding, constant_values=1)
        behind = [have - n for have, n in zip(padded.shape[2:], counted.shape[2:])]
        counted = np.pad(counted, [(0, 0), (0, 0), *((0, n) for n in behind)])
    else:
        counted = window.pad(counted, 0)
    total = sum(padded[seen] for _, seen in window.taps())
    return total / sum(counted[seen] for _, seen in window.taps())


@computes("LpPool")
def lp_pool(node: Node, x):
    window = _Window(node, x.shape[2:], node.get("kernel_shape"))
    power = node.get("p", 2)
    padded = np.abs(window.pad(x, 0)) ** power
    return sum(padded[seen] for _, seen in window.taps()) ** (1 / power)


def _space(x: np.ndarray) -> tuple[int, ...]:
    return tuple(range(2, x.ndim))


@computes("GlobalAveragePool")
def global_average_pool(node: Node, x):
    return x.mean(axis=_space(x), keepdims=True)


@computes("GlobalMaxPool")
def global_max_pool(node: Node, x):
    return x.max(axis=_space(x), keepdims=True)
