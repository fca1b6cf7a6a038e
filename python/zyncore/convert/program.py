"""The converted network before it is written: steps in an order of execution, each one node of
the library or a little more general than one (paddings may be uneven, factors per channel are
not placed yet). fold.py makes fewer of them, writing.py makes nodes of them.

Extents are those of the library, fastest first; a value of the ONNX shape (1, C, H, W) has the
extents (W, H, C).
"""

from __future__ import annotations

import math
from dataclasses import dataclass, field
from typing import Sequence

import numpy as np

from .graph import Refusal, Shape, shape_text

Dims = tuple[int, ...]

FUNCTIONS = {name: i for i, name in enumerate(
    ["ABS", "NEGATE", "SQUARE", "SQRT", "RECIPROCAL", "EXP", "LOG", "TANH", "POWER", "CLIP",
     "SCALE_SHIFT"])}
FUNCTIONS.update({name: 16 + i for i, name in enumerate(
    ["LEAKY_RELU", "PRELU", "ELU", "HARD_SIGMOID", "SIGMOID", "SILU", "HARD_SWISH", "MISH", "GELU",
     "SOFTPLUS", "SOFTMAX", "LOG_SOFTMAX", "L2_NORM", "ERF"])})
JOINS = {"ADD": -1, "SUBTRACT": -2, "MULTIPLY": -3, "DIVIDE": -4, "MAX": -5, "MIN": -6,
         "POWER": -7, "MATMUL": -8}
PERMUTE, PAD, PART = -1, -2, -4


@dataclass(eq=False)
class Step:
    """One node; reads are the steps whose results it takes."""

    reads: list[Step]
    dims: Dims
    name: str = ""  # of the ONNX value that it holds

    @property
    def count(self) -> int:
        return math.prod(self.dims)


@dataclass(eq=False)
class Input(Step):
    pass


@dataclass(eq=False)
class Constant(Step):
    values: np.ndarray = field(default_factory=lambda: np.zeros(1, "<f4"))


@dataclass(eq=False)
class Operator(Step):
    """An operator with the words of its record and perhaps one constant."""

    kind: str = ""
    words: list[int | float] = field(default_factory=list)
    values: np.ndarray | None = None


@dataclass(eq=False)
class Function(Step):
    """Element by element (type 9)."""

    function: str = ""
    a: float = 0.0
    b: float = 0.0
    values: np.ndarray | None = None  # slopes of PRELU


@dataclass(eq=False)
class Affine(Step):
    """x * scale + shift with n values each; element i takes value (i // inner) % n."""

    scale: np.ndarray = field(default_factory=lambda: np.ones(1))
    shift: np.ndarray = field(default_factory=lambda: np.zeros(1))
    inner: int = 1


@dataclass(eq=False)
class Conv(Step):
    """A convolution. Pairs are (x, y); weights [out][in / groups][row][column], transposed
    [in][out / groups][row][column]; before and after are zeros around the input, transposed
    what is cut off the full result (below 0: added). activation is a code of type 12."""

    weights: np.ndarray = field(default_factory=lambda: np.zeros((1, 1, 1, 1)))
    bias: np.ndarray = field(default_factory=lambda: np.zeros(1))
    stride: tuple[int, int] = (1, 1)
    dilation: tuple[int, int] = (1, 1)
    before: tuple[int, int] = (0, 0)
    after: tuple[int, int] = (0, 0)
    groups: int = 1
    transposed: bool = False
    activation: int = 0

    @property
    def kernel(self) -> tuple[int, int]:
        return self.weights.shape[3], self.weights.shape[2]


@dataclass(eq=False)
class Linear(Step):
    """weights [out][in] times every row."""

    weights: np.ndarray = field(default_factory=lambda: np.zeros((1, 1)))
    bias: np.ndarray | None = None  # one row alone can have it


@dataclass
class Program:
    steps: list[Step] = field(default_factory=list)
    outputs: dict[str, Step] = field(default_factory=dict)

    def drop_unused(self) -> None:
        needed, kept = set(self.outputs.values()), []
        for step in reversed(self.steps):
            if step in needed:
                kept.append(step)
                needed.update(step.reads)
        self.steps = kept[::-1]


def dims_of(shape: Shape) -> Dims:
    """The extents of a value: the batch axis of three and more axes is left out; of more than
    five the slowest become one."""
    rest = tuple(shape[1:] if len(shape) >= 3 and shape[0] == 1 else shape)
    if len(rest) > 5:
        rest = (math.prod(rest[:-4]), *rest[-4:])
    return rest[::-1] or (1,)


def leading_of(shape: Shape) -> int:
    """Axes in front of the extents in the network's own notation."""
    dropped = max(len(shape) - len(dims_of(shape)), 0)
    if math.prod(shape[:dropped]) != 1:
        raise Refusal(f"the shape {shape_text(shape)} has more than five axes",
                      "cut the network before it")
    return dropped


def dim_of(axis: int, shape: Shape) -> int | None:
    """Which extent an ONNX axis is; None for an axis of extent 1 that is left out."""
    at, held = len(shape) - 1 - axis, len(dims_of(shape))
    if at < held - 1 or (at < held and len(shape) - leading_of(shape) == held):
        return at
    if shape[axis] == 1:
        return None
    raise Refusal(f"{shape_text(shape)} has more than five axes")


def find_axis(dims: Sequence[int], inner: int, n: int) -> int | None:
    """The extent along which n values go, each for inner elements in a row."""
    product = 1
    for i, extent in enumerate(dims):
        if product == inner and extent == n:
            return i
        product *= extent
    return None
