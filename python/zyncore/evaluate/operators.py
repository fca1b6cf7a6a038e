"""The table of operators, and how an operator reads its node."""

from __future__ import annotations

from typing import Callable

import numpy as np
import onnx
from onnx import numpy_helper


class Unsupported(Exception):
    """An operator, or a form of it, that the evaluator does not cover."""


class Node:
    """A node's attributes by name, with the operator set that gives them their meaning."""

    def __init__(self, proto: onnx.NodeProto, opset: int) -> None:
        self.kind = proto.op_type
        self.name = proto.name or (proto.output[0] if proto.output else "")
        self.opset = opset
        self.output_count = len(proto.output)
        self.attributes = {a.name: _value(a) for a in proto.attribute}

    def get(self, name: str, default=None):
        return self.attributes.get(name, default)

    def unsupported(self, why: str) -> Unsupported:
        return Unsupported(f"{self.kind} '{self.name}': {why}")


def _value(attribute: onnx.AttributeProto):
    value = onnx.helper.get_attribute_value(attribute)
    if isinstance(value, bytes):
        return value.decode()
    if isinstance(value, onnx.TensorProto):
        return numpy_helper.to_array(value)
    return value


# Name of the operator: its function, and whether it computes with real numbers.
OPERATORS: dict[str, tuple[Callable, bool]] = {}


def computes(*names: str):
    """Registers an operator of real numbers: it is given float64 in place of floats, and its
    float64 results are rounded to the type that came in."""
    return _register(names, True)


def moves(*names: str):
    """Registers an operator whose inputs and results keep their types."""
    return _register(names, False)


def _register(names: tuple[str, ...], real: bool):
    def register(function: Callable) -> Callable:
        OPERATORS.update((name, (function, real)) for name in names)
        return function
    return register


def axes_of(axes, rank: int) -> list[int]:
    """Axes counted from the front; those below 0 are counted from the end."""
    result = [int(axis) + rank if axis < 0 else int(axis) for axis in np.asarray(axes).reshape(-1)]
    if any(not 0 <= axis < rank for axis in result):
        raise ValueError(f"axes {list(axes)} of a tensor of {rank} dimensions")
    return result
