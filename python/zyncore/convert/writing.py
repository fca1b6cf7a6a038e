"""A program as a network file."""

from __future__ import annotations

import os
import tempfile
from dataclasses import dataclass, field
from typing import Mapping

import numpy as np

from zyncore.netfile import Writer

from .fold import takes_activation
from .graph import ConvertError, Shape
from .program import (FUNCTIONS, JOINS, PAD, Affine, Constant, Conv, Function, Input, Linear,
                      Operator, Program, Step, find_axis, leading_of)

_MOST_NODES = 16384
_MOST_NAME, _MOST_VALUE = 255, 65535  # bytes


@dataclass
class Picture:
    """What has to be done to a picture before it becomes the input."""

    channel_order: str = "none"
    resize: str = "none"
    mean: tuple[float, ...] = (0.0, 0.0, 0.0)
    scale: tuple[float, ...] = (1.0, 1.0, 1.0)


@dataclass
class Count:
    """What the summary tells."""

    nodes: int = 0
    multiply_adds: int = 0
    parameters: int = 0
    largest: int = 0
    largest_dims: tuple[int, ...] = ()
    operators: dict[str, int] = field(default_factory=dict)


class NetWriter:
    """Makes nodes of steps."""

    def __init__(self, shapes: Mapping[str, Shape], pictures: Mapping[str, Picture]) -> None:
        self.file = Writer()
        self.count = Count()
        self._shapes, self._pictures = shapes, pictures
        self._ids: dict[Step, int] = {}
        self._names: set[str] = set()
        self._named: dict[Step, str] = {}
        self._value_names: set[str] = set()  # which helpers leave alone
        self._constants: dict[tuple[bytes, tuple[int, ...]], int] = {}

    def write(self, program: Program, meanings: Mapping[str, str]) -> None:
        self._value_names = {file_name(s.name) for s in program.steps
                             if s.name and not isinstance(s, Constant)}
        for step in program.steps:
            if isinstance(step, Constant):
                self._ids[step] = self._constant(step.name or "constant", step.values, step.dims)
            elif isinstance(step, Input):
                self._ids[step] = self._input(step)
            elif isinstance(step, Conv):
                self._ids[step] = self._conv(step)
            elif isinstance(step, Affine):
                self._ids[step] = self._affine(step)
            else:
                self._ids[step] = self._plain(step)
        for name, step in program.outputs.items():
            self.file.output(file_name(name), self._ids[step], leading=leading_of(
                self._shapes[name]), meaning=meanings.get(name, "none"))
        if self.count.nodes > _MOST_NODES:
            raise ConvertError(f"the network would have {self.count.nodes} nodes, at most "
                               f"{_MOST_NODES} are possible")

    def metadata(self, lines: Mapping[str, str]) -> None:
        for key, value in lines.items():
            if not 0 < len(key.encode()) <= _MOST_NAME or len(value.encode()) > _MOST_VALUE \
                    or "\0" in key + value:
                raise ConvertError(f"metadata '{key[:80]}': keys have 1 to {_MOST_NAME} bytes, "
                                   f"values up to {_MOST_VALUE}")
            self.file.metadata(key, value)

    def _name(self, step: Step, helper: str = "") -> str:
        """The name of the value that a step holds; a helper, or a step that holds none, is named
        after that or after what it reads."""
        if step.name and not helper:
            name = file_name(step.name)
            if name not in self._names:
                self._names.add(name)
                self._named[step] = name
                return name
        base = step.name or self._named.get(step.reads[0], "step")
        kind = step.kind if isinstance(step, Operator) else type(step).__name__
        name = self._unused(f"{base}:{helper or kind.lower()}")
        self._named[step] = name
        return name

    def _unused(self, base: str) -> str:
        name, i = file_name(base), 1
        while name in self._names or name in self._value_names:
            i += 1
            name = file_name(base, f":{i}")
        self._names.add(name)
        return name

    def _node(self, kind: str, name: str, reads: list[int], words: list[int | float],
              dims: tuple[int, ...]) -> int:
        self.count.nodes += 1
        self.count.operators[kind] = self.count.operators.get(kind, 0) + 1
        elements = int(np.prod(dims))
        if elements > self.count.largest:
            self.count.largest, self.count.largest_dims = elements, dims
        with np.errstate(over="ignore"):
            words = [float(np.float32(v)) if isinstance(v, float) else v for v in words]
        return self.file.node(kind, name, reads, words)

    def _constant(self, name: str, values: np.ndarray, dims: tuple[int, ...]) -> int:
        flat = np.ascontiguousarray(values, "<f4").reshape(-1)
        key = (flat.tobytes(), dims)
        if key not in self._constants:
            self.count.nodes += 1
            self.count.parameters += flat.size
            self._constants[key] = self.file.constant(self._unused(name), flat, dims)
        return self._constants[key]

    def _weights(self, name: str, *parts: np.ndarray) -> int:
        flat = np.concatenate([np.asarray(p, "f8").reshape(-1) for p in parts])
        with np.errstate(over="ignore"):
            return self._constant(f"{name}:weights", flat.astype("<f4"), (flat.size,))

    def _input(self, step: Step) -> int:
        self.count.nodes += 1
        picture = self._pictures.get(step.name, Picture())
        return self.file.input(self._name(step), step.dims, leading=leading_of(
            self._shapes[step.name]), channel_order=picture.channel_order,
            resize=picture.resize, mean=picture.mean, scale=picture.scale)

    def _conv(self, step: Conv) -> int:
        source, dims = self._ids[step.reads[0]], step.reads[0].dims
        if step.transposed:
            return self._transposed(step, source)
        pads = step.before
        if step.before != step.after or min(pads) < 0:
            source = self._pad(step, source, dims, step.before, step.after)
            pads = (0, 0)
        name = self._name(step)
        fused = takes_activation(step)
        words = self._conv_words(step, dims[2], pads) + [1, step.activation if fused else 0, 0]
        self.count.multiply_adds += int(np.prod(step.dims)) * step.weights[0].size
        constant = self._weights(name, step.weights, step.bias)
        return self._node("CONV_ACT" if fused else "CONV_GROUPED", name, [source, constant],
                          words, step.dims)

    def _conv_words(self, step: Conv, channels: int, pads: tuple[int, ...]) -> list[int]:
        return [channels, step.bias.size, *step.kernel, *step.stride, *pads, 0, 0,
                *step.dilation, step.groups]

    def _pad(self, step: Step, source: int, dims: tuple[int, ...], before: tuple[int, ...],
             after: tuple[int, ...], helper: str = "padded") -> int:
        padded = tuple(n + a + b for n, a, b in zip(dims, before, after)) + dims[2:]
        words = [PAD, 0, *before, 0, 0, 0, *after, 0, 0, 0, 0.0]
        name = self._name(step, helper)
        return self._node("CHANNEL_GATHER", name, [source], words, padded)

    def _transposed(self, step: Conv, source: int) -> int:
        """The library cuts alike in front and behind; the rest is cut off or added after it, and
        what is added gets its bias after that."""
        dims = step.reads[0].dims
        pads = tuple(max(min(a, b), 0) for a, b in zip(step.before, step.after))
        before = tuple(p - b for p, b in zip(pads, step.before))
        after = tuple(p - b for p, b in zip(pads, step.after))
        moved = any(before + after)
        late_bias = max(before + after) > 0
        full = tuple(n - a - b for n, a, b in zip(step.dims, before, after)) + step.dims[2:]
        name = self._name(step, "full" if moved or late_bias else "")
        words = self._conv_words(step, dims[2], pads) + [0 if late_bias else 1, 0, 0]
        self.count.multiply_adds += int(np.prod(dims)) * step.weights[0].size
        parts = [step.weights] if late_bias else [step.weights, step.bias]
        node = self._node("CONV_TRANSPOSED", name, [source, self._weights(name, *parts)], words,
                          full)
        if late_bias:
            node = self._pad(step, node, full, before, after)
            return self._per_channel(step, node, np.ones(step.bias.size), step.bias)
        return self._pad(step, node, full, before, after, "") if moved else node

    def _per_channel(self, step: Step, source: int, scale: np.ndarray, shift: np.ndarray) -> int:
        """Exact in the normalisation: mean 0, variance 1, epsilon 0."""
        name = self._name(step)
        n = scale.size
        constant = self._weights(name, scale, shift, np.zeros(n), np.ones(n))
        return self._node("BATCH_NORM_FAST", name, [source, constant], [0.0], step.dims)

    def _affine(self, step: Affine) -> int:
        source = self._ids[step.reads[0]]
        n = step.scale.size
        if n == 1:
            words = [FUNCTIONS["SCALE_SHIFT"], float(step.scale[0]), float(step.shift[0])]
            return self._node("FUNCTION", self._name(step), [source], words, step.dims)
        axis = find_axis(step.dims, step.inner, n)
        assert axis is not None
        if axis == 2 and len(step.dims) == 3:
            return self._per_channel(step, source, step.scale, step.shift)
        dims = (1,) * axis + (n,)
        shifts = np.any(step.shift != 0)
        if np.any(step.scale != 1) or not shifts:
            name = self._name(step, "scaled" if shifts else "")
            factors = self._constant(f"{name}:factors", step.scale, dims)
            source = self._node("AFFINE", name, [source, factors], [JOINS["MULTIPLY"], 0],
                                step.dims)
        if shifts:
            name = self._name(step)
            addends = self._constant(f"{name}:addends", step.shift, dims)
            source = self._node("AFFINE", name, [source, addends], [JOINS["ADD"], 0], step.dims)
        return source

    def _plain(self, step: Step) -> int:
        reads = [self._ids[source] for source in step.reads]
        name = self._name(step)
        if isinstance(step, Function):
            if step.values is not None:
                reads.append(self._weights(name, step.values))
            words: list[int | float] = [FUNCTIONS[step.function], step.a, step.b]
            return self._node("FUNCTION", name, reads, words, step.dims)
        if isinstance(step, Linear):
            parts = [step.weights] if step.bias is None else [step.weights, step.bias]
            reads.append(self._weights(name, *parts))
            outputs, inputs = step.weights.shape
            self.count.multiply_adds += step.count * inputs
            return self._node("LINEAR", name, reads, [inputs, outputs, len(parts) - 1], step.dims)
        assert isinstance(step, Operator)
        if step.kind == "AFFINE" and step.words[0] == JOINS["MATMUL"]:
            self.count.multiply_adds += step.count * step.reads[0].dims[0]
        return self._node(step.kind, name, reads, step.words, step.dims)


def file_name(name: str, suffix: str = "") -> str:
    """A name as the file can hold it: at most 255 bytes, no zero byte."""
    data = name.replace("\0", "?").encode("utf-8", "replace")
    return data[:_MOST_NAME - len(suffix)].decode("utf-8", "ignore") + suffix


def save(writer: Writer, path: str) -> None:
    """Writes beside the target and renames, so that no half file is left."""
    data = writer.tobytes()
    folder = os.path.dirname(os.path.abspath(path))
    temporary = None
    try:
        handle, temporary = tempfile.mkstemp(dir=folder, prefix=".zyn-convert-")
        with os.fdopen(handle, "wb") as file:
            file.write(data)
        mask = os.umask(0)
        os.umask(mask)
        os.chmod(temporary, 0o666 & ~mask)
        os.replace(temporary, path)
    except OSError as error:
        if temporary and os.path.exists(temporary):
            os.unlink(temporary)
        raise ConvertError(f"'{path}' cannot be written: {error.strerror}") from None
