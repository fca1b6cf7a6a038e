"""What a wrong tensor looks like.

Every guess makes the values that one mistake would have given. A guess explains what was
found when it leaves at most a twentieth of the error.
"""

from __future__ import annotations

import itertools
from dataclasses import dataclass
from typing import Iterator

import numpy as np

from . import fits
from .piece import Piece
from .variants import variants


@dataclass
class Finding:
    pattern: str
    detail: str


def explain(piece: Piece, found: np.ndarray) -> Finding:
    """The pattern of a tensor that was found in place of piece.expected, of the same shape."""
    expected = piece.expected.astype(np.float64)
    found = found.astype(np.float64)
    if not np.isfinite(found).all() and np.isfinite(expected).all():
        return Finding("not finite", f"{np.count_nonzero(~np.isfinite(found))} infinities or NaN")
    if not np.any(found):
        return Finding("zeros", "nothing was computed: the method may not take this shape")
    match = Match(expected, found)
    for search in (_other_values, _permutations, _other_axes, _displacements, fits.whole,
                   _variants, fits.by_channel):
        for pattern, detail, guess in search(piece, match):
            if match.explained(guess):
                return Finding(pattern, detail)
    return _where(expected, found)


class Match:
    """A tensor that was found and the one that was expected."""

    def __init__(self, expected: np.ndarray, found: np.ndarray) -> None:
        self.expected, self.found = expected, found
        self.error = self._largest(expected)
        self.limit = self.error / 20

    def _largest(self, guess: np.ndarray) -> float:
        with np.errstate(all="ignore"):
            largest = np.abs(guess - self.found).max()
        return float("inf") if np.isnan(largest) else float(largest)

    def explained(self, guess: np.ndarray | None) -> bool:
        return guess is not None and self._largest(guess) <= self.limit

    def explained_inside(self, guess: np.ndarray | None) -> bool:
        """The same without two rows and columns at the edges, where padding decides."""
        if guess is None or self.found.ndim != 4 or min(self.found.shape[2:]) < 8:
            return False
        inner = (..., slice(2, -2), slice(2, -2))
        inside = Match(self.expected[inner], self.found[inner])
        return inside.error > self.error / 5 and inside.explained(guess[inner])


Guesses = Iterator[tuple[str, str, "np.ndarray | None"]]


def _variants(piece: Piece, match: Match) -> Guesses:
    for pattern, detail, guess, inside in variants(piece):
        if inside and match.explained_inside(guess):
            guess = match.found
        yield pattern, detail, guess


def _other_values(piece: Piece, match: Match) -> Guesses:
    """The value before an activation, or behind one more or another one."""
    activations = {
        "ReLU": lambda x: np.maximum(x, 0),
        "ReLU6": lambda x: np.clip(x, 0, 6),
        "hard-swish": lambda x: x * np.clip(x / 6 + 0.5, 0, 1),
        "hard-sigmoid": lambda x: np.clip(x / 6 + 0.5, 0, 1),
        "sigmoid": lambda x: 1 / (1 + np.exp(-x)),
        "tanh": np.tanh,
        "SiLU": lambda x: x / (1 + np.exp(-x)),
        "Mish": lambda x: x * np.tanh(np.logaddexp(x, 0)),
    }
    before = [name for name, _ in piece.before_activation()]
    for name in before:
        what = "operand missing" if piece.joins(name) else "activation missing"
        yield what, f"these are the values of '{name}'", piece.values[name]
    with np.errstate(all="ignore"):
        for name, function in activations.items():
            yield "activation too many", f"{name} behind it", function(match.expected)
            for value in before:
                yield ("another activation", f"{name} of '{value}'",
                       function(piece.values[value].astype(np.float64)))
    for name in piece.inputs:
        if piece.values[name].size == match.found.size:
            yield ("nothing computed", f"these are the values of '{name}'",
                   piece.values[name].reshape(match.found.shape).astype(np.float64))


_AXES = {4: ("batch", "channels", "rows", "columns"), 3: ("batch", "channels", "columns")}


def _axis_name(rank: int, axis: int) -> str:
    return _AXES[rank][axis] if rank in _AXES else f"elements of axis {axis}"


def _permutations(piece: Piece, match: Match) -> Guesses:
    """The elements of an axis in another order: for each the nearest expected one."""
    for axis, extent in enumerate(match.found.shape):
        if not 2 <= extent <= 4096:
            continue
        found = np.moveaxis(match.found, axis, 0).reshape(extent, -1)
        expected = np.moveaxis(match.expected, axis, 0).reshape(extent, -1)
        distance = (found ** 2).sum(1)[:, None] + (expected ** 2).sum(1) - 2 * found @ expected.T
        nearest = distance.argmin(1)
        own = np.abs(found - expected).max(1) <= match.limit
        nearest[own] = np.arange(extent)[own]
        moved = np.flatnonzero(~own)
        name = _axis_name(match.found.ndim, axis)
        what = "swapped" if set(nearest[moved]) == set(moved) else "from elsewhere"
        shown = ", ".join(f"{i} has what belongs to {nearest[i]}" for i in moved[:4])
        yield f"{name} {what}", shown + (", ..." if moved.size > 4 else ""), \
            np.take(match.expected, nearest, axis)


def _other_axes(piece: Piece, match: Match) -> Guesses:
    """The same elements with the axes written in another order."""
    rank = match.found.ndim
    for order in itertools.permutations(range(rank)) if 2 <= rank <= 5 else ():
        guess = match.expected.transpose(order).reshape(match.found.shape)
        if order == (*range(rank - 2), rank - 1, rank - 2):
            yield "rows and columns exchanged", "the last two axes stand in the other order", guess
        elif order != tuple(range(rank)):
            names = [_axis_name(rank, axis) for axis in order if match.found.shape[axis] > 1]
            yield "axes in another order", f"slowest first: {', '.join(names)}", guess


def _displacements(piece: Piece, match: Match) -> Guesses:
    if match.found.ndim != 4:
        return
    for down, right in itertools.product((-1, 0, 1), repeat=2):
        guess = np.roll(match.expected, (down, right), (2, 3))
        if (down or right) and match.explained_inside(guess):
            yield "displaced", f"by {down} rows and {right} columns", match.found


def _where(expected: np.ndarray, found: np.ndarray) -> Finding:
    """No mistake explains it: where it is wrong."""
    error = np.abs(expected - found)
    wrong = error > error.max() / 20
    if expected.ndim == 4:
        inside = wrong[..., 1:-1, 1:-1]
        if min(expected.shape[2:]) > 4 and not inside.any():
            return Finding("edges", "only the outermost rows and columns are wrong: padding")
        channels = np.flatnonzero(wrong.any(axis=(0, 2, 3)))
        if channels.size <= expected.shape[1] // 2:
            return Finding("some channels", f"{channels.size} of {expected.shape[1]} are wrong: " +
                           ", ".join(map(str, channels[:8])))
    share = np.count_nonzero(wrong) / wrong.size
    if error.max() < 1e-3 * np.abs(expected).max() and share < 0.5:
        return Finding("rounding", "small differences everywhere, without an order")
    return Finding("unknown", f"{100 * share:.0f} % of the elements are wrong, without an order")
