"""Fewer steps that compute the same: factors per channel go into the convolution beside them,
zeros around its input into its padding, ReLU and hard-swish into its activation; activations
whose input nobody else reads work in place.
"""

from __future__ import annotations

import math
from dataclasses import replace
from typing import Callable

import numpy as np

from .program import (PAD, Affine, Constant, Conv, Function, Input, Linear, Operator, Program,
                      Step)

_RELU, _HARD_SWISH = 1, 2  # activation codes of a convolution


class _Pass:
    """One way through a program, in which steps are replaced by others."""

    def __init__(self, program: Program) -> None:
        self._program = program
        self._now: dict[Step, Step] = {}  # what stands in place of a step
        self._reads: dict[Step, int] = {}  # how often a step is read
        for step in program.steps:
            for source in step.reads:
                self._reads[source] = self._reads.get(source, 0) + 1
        self._outputs = set(program.outputs.values())

    def run(self, change: Callable[[Step, Step], Step | None]) -> None:
        """change(source, step) is asked for every step and the one that it alone reads."""
        steps = self._program.steps
        for i, old in enumerate(steps):
            step = old
            step.reads = [self._now.get(source, source) for source in step.reads]
            while len(step.reads) == 1 and self._is_read_once(step.reads[0]):
                new = change(step.reads[0], step)
                if new is None:
                    break
                new.name = step.name
                self._reads[new] = self._reads.get(step, 0)
                if step in self._outputs:
                    self._outputs.add(new)
                step = new
            steps[i] = self._now[old] = step
        outputs = self._program.outputs
        for name, old in outputs.items():
            outputs[name] = self._now[old]
        self._program.drop_unused()

    def _is_read_once(self, step: Step) -> bool:
        return self._reads[step] == 1 and step not in self._outputs


def fold(program: Program) -> None:
    """All folds."""
    rules = (_affine_affine, _affine_after, _affine_before, _pad_before, _activation_after)
    _Pass(program).run(lambda source, step: next(
        (made for made in (rule(source, step) for rule in rules) if made), None))


def work_in_place(program: Program) -> None:
    """Activations that overwrite their input, where nothing else needs it."""
    _Pass(program).run(_in_place)


def _affine_affine(first: Step, second: Step) -> Step | None:
    """x * a + b, then * c + d."""
    if not isinstance(first, Affine) or not isinstance(second, Affine):
        return None
    wide = first if first.scale.size > 1 else second
    if 1 < second.scale.size != wide.scale.size or (second.scale.size > 1 and
                                                    second.inner != wide.inner):
        return None
    return Affine(first.reads, second.dims, "", first.scale * second.scale,
                  first.shift * second.scale + second.shift, wide.inner)


def _affine_after(source: Step, step: Step) -> Step | None:
    """A convolution or product with weights, then factors of its channels."""
    if not isinstance(step, Affine):
        return None
    if isinstance(source, Conv) and source.activation == 0:
        outputs = source.bias.size
        if step.scale.size > 1 and (step.scale.size != outputs or
                                    step.inner != source.dims[0] * source.dims[1]):
            return None
        scale = np.broadcast_to(step.scale, (outputs,))
        if source.transposed:
            weights = source.weights * scale.reshape(source.groups, 1, -1, 1, 1).repeat(
                source.weights.shape[0] // source.groups, 1).reshape(
                    source.weights.shape[0], -1, 1, 1)
        else:
            weights = source.weights * scale[:, None, None, None]
        return replace(source, dims=step.dims, weights=weights,
                       bias=source.bias * scale + step.shift)
    if isinstance(source, Linear):
        outputs, rows = source.weights.shape[0], source.count // source.weights.shape[0]
        if step.scale.size > 1 and (step.scale.size != outputs or step.inner != 1):
            return None
        if rows > 1 and np.any(step.shift != 0):
            return None
        scale = np.broadcast_to(step.scale, (outputs,))
        bias = np.zeros(outputs) if source.bias is None else source.bias
        return replace(source, dims=step.dims, weights=source.weights * scale[:, None],
                       bias=bias * scale + step.shift if rows == 1 else None)
    return None


def _affine_before(source: Step, step: Step) -> Step | None:
    """Factors of the input's channels, then a convolution; with a shift only without padding."""
    if not isinstance(source, Affine) or not isinstance(step, Conv) or step.transposed:
        return None
    inputs = source.dims[2] if len(source.dims) == 3 else 0
    if source.scale.size > 1 and (source.scale.size != inputs or
                                  source.inner != source.dims[0] * source.dims[1]):
        return None
    if np.any(source.shift != 0) and max(step.before + step.after) > 0:
        return None
    # Output o reads the inputs of its group.
    groups, per_group = step.groups, step.weights.shape[1]
    scale, shift = (np.broadcast_to(v, (groups * per_group,)).reshape(groups, per_group).repeat(
        step.weights.shape[0] // groups, 0)[:, :, None, None] for v in (source.scale, source.shift))
    return replace(step, reads=source.reads, weights=step.weights * scale,
                   bias=step.bias + (step.weights * shift).sum((1, 2, 3)))


def _pad_before(source: Step, step: Step) -> Step | None:
    """Zeros around an image, then a convolution."""
    if not isinstance(step, Conv) or step.transposed or not isinstance(source, Operator):
        return None
    words = source.words
    if source.kind != "CHANNEL_GATHER" or words[0] != PAD or words[1] != 0 or words[12] != 0:
        return None
    before, after = words[2:7], words[7:12]
    if any(before[2:] + after[2:]) or min(before + after) < 0 or len(source.dims) != 3:
        return None
    return replace(step, reads=source.reads,
                   before=(step.before[0] + int(before[0]), step.before[1] + int(before[1])),
                   after=(step.after[0] + int(after[0]), step.after[1] + int(after[1])))


def _activation_after(source: Step, step: Step) -> Step | None:
    """A convolution, then ReLU or hard-swish."""
    if not isinstance(source, Conv) or source.activation or source.transposed \
            or not takes_activation(source) or not isinstance(step, Function):
        return None
    if (step.function, step.a, step.b) == ("CLIP", 0.0, math.inf):
        return replace(source, dims=step.dims, activation=_RELU)
    if step.function == "HARD_SWISH":
        return replace(source, dims=step.dims, activation=_HARD_SWISH)
    return None


def takes_activation(conv: Conv) -> bool:
    """Dense and depthwise ones; others are computed by a type without activations."""
    outputs, inputs = conv.weights.shape[:2]
    return conv.groups == 1 or (inputs == 1 and outputs == conv.groups)


_IN_PLACE: list[tuple[Callable[[Function], bool], str]] = [
    (lambda f: f.function == "SIGMOID" and len(f.dims) > 1, "SIGMOID"),
    (lambda f: (f.function, f.a, f.b) == ("CLIP", 0.0, math.inf), "RELU"),
    (lambda f: (f.function, f.a, f.b) == ("CLIP", 0.0, 6.0), "RELU6"),
    (lambda f: f.function == "HARD_SWISH", "HARD_SWISH"),
    (lambda f: f.function == "MISH", "MISH"),
]


def _in_place(source: Step, step: Step) -> Step | None:
    if not isinstance(step, Function) or isinstance(source, (Input, Constant)):
        return None
    kind = next((name for fits, name in _IN_PLACE if fits(step)), None)
    return Operator([source], step.dims, "", kind) if kind else None
