"""Scale and shift, of a whole tensor or of every channel, behind or before its activation.

With x the values before the activation, a and b in activation(a * x + b) are found by
Gauss-Newton steps; for a tensor without an activation one step is the exact fit.
"""

from __future__ import annotations

from typing import Callable, Iterator

import numpy as np

from .piece import Piece

_STEPS = 8
_LEAST = 8  # elements of a channel that tell a scale from a shift


def whole(piece: Piece, match) -> Iterator:
    """One scale or one shift for all elements."""
    if match.found.size < _LEAST:
        return
    for source, function in _sources(piece):
        one = np.zeros(source.ndim, int)
        a, _, guess = _fit(source, function, match.found, one, True, False)
        yield "scale", f"all values are {a.item():.6g} times what they should be", guess
        _, b, guess = _fit(source, function, match.found, one, False, True)
        yield "shift", f"{b.item():.6g} is added to all values", guess


def by_channel(piece: Piece, match) -> Iterator:
    """A scale, a shift or both for every channel."""
    found = match.found
    if found.ndim < 3 or found.shape[1] < 2 or found[:, 0].size < _LEAST:
        return
    for source, function in _sources(piece):
        axes = np.zeros(source.ndim, int)
        axes[1] = 1
        _, b, guess = _fit(source, function, found, axes, False, True)
        yield "shift", f"every channel has a shift of its own, {_span(b)}", guess
        a, _, guess = _fit(source, function, found, axes, True, False)
        yield _scales(a), f"every channel has a scale of its own, {_span(a)}", guess
        a, b, guess = _fit(source, function, found, axes, True, True)
        yield _scales(a), (f"every channel has a scale of its own, {_span(a)}, and a shift, "
                           f"{_span(b)}"), guess


def _scales(a: np.ndarray) -> str:
    """Another epsilon moves all scales to the same side of 1, and not far."""
    off = a[np.abs(a - 1) > 1e-6]
    near = off.size and off.min() > 0.5 and off.max() < 2
    return "wrong epsilon" if near and (off.max() < 1 or off.min() > 1) else "scale"


def _span(values: np.ndarray) -> str:
    return f"{values.min():.6g} to {values.max():.6g}"


def _sources(piece: Piece):
    yield piece.expected.astype(np.float64), lambda x: x
    for name, function in piece.before_activation():
        yield piece.values[name].astype(np.float64), function


def _fit(x: np.ndarray, function: Callable, found: np.ndarray, channel_axes: np.ndarray,
         scale: bool, shift: bool) -> tuple[np.ndarray, np.ndarray, np.ndarray | None]:
    """a, b (extent 1 on the axes that are not a channel's) and function(a * x + b)."""
    shape = [n if kept else 1 for n, kept in zip(x.shape, channel_axes)]
    axes = tuple(int(i) for i in np.flatnonzero(channel_axes == 0))
    a, b = np.ones(shape), np.zeros(shape)
    step = 1e-3 * (np.abs(x).max() or 1)

    def total(values):
        return values.sum(axis=axes, keepdims=True)

    guess = function(x)
    for _ in range(_STEPS):
        if guess is None:
            return a, b, None
        ahead, behind = function(a * x + b + step), function(a * x + b - step)
        if ahead is None or behind is None:
            return a, b, None
        slope = (ahead - behind).astype(np.float64) / (2 * step)
        rest = found - guess
        # Normal equations of two unknowns; what an unused one would get is left at 0.
        saa, sab, sbb = total((slope * x) ** 2), total(slope ** 2 * x), total(slope ** 2)
        ra, rb = total(slope * x * rest), total(slope * rest)
        if not shift:
            sab, sbb, rb = np.zeros_like(sab), np.ones_like(sbb), np.zeros_like(rb)
        if not scale:
            sab, saa, ra = np.zeros_like(sab), np.ones_like(saa), np.zeros_like(ra)
        determinant = saa * sbb - sab ** 2
        known = determinant > 1e-9 * saa * sbb
        safe = np.where(known, determinant, 1)
        a = a + np.where(known, (ra * sbb - rb * sab) / safe, 0)
        b = b + np.where(known, (rb * saa - ra * sab) / safe, 0)
        previous, guess = guess, function(a * x + b)
        if guess is not None and np.abs(guess - previous).max() <= 1e-7 * np.abs(found).max():
            break
    return a, b, guess
