"""The graph that the steps of the conversion share: nodes with plain attributes, constants as
numpy arrays, the shape of every value, and what is said about nodes that cannot be converted.
"""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import Any, Sequence

import numpy as np

Shape = tuple[int, ...]
MOST_ELEMENTS = 2**31 - 1  # of one tensor


class ConvertError(Exception):
    """The file or an option is wrong; the text is for the user."""


class Refusal(Exception):
    """One node cannot be converted: why, and what would help."""

    def __init__(self, why: str, help: str = "") -> None:
        super().__init__(why)
        self.why, self.help = why, help


# What operators with inputs and attributes of wrong kinds or shapes raise where they are computed.
MALFORMED = (ValueError, IndexError, KeyError, TypeError, AttributeError, ArithmeticError,
             AssertionError, MemoryError)


def malformed(error: BaseException) -> Refusal:
    return Refusal("its inputs or attributes are not what the operator takes "
                   f"({printable(str(error)) or type(error).__name__})")


@dataclass(frozen=True)
class Problem:
    """One line of the list of what cannot be converted."""

    operator: str
    node: str
    shapes: str
    why: str
    help: str


class ConvertFailure(ConvertError):
    """Nodes cannot be converted: all of them, and where the graph could be cut before them."""

    def __init__(self, problems: Sequence[Problem], cut: Sequence[str]) -> None:
        super().__init__(f"{len(problems)} nodes cannot be converted")
        self.problems, self.cut = list(problems), list(cut)


@dataclass
class Node:
    """One operator; values are named, "" is an optional input that is not there."""

    op: str
    name: str
    inputs: list[str]
    outputs: list[str]
    attributes: dict[str, Any] = field(default_factory=dict)

    def has(self, index: int) -> bool:
        return index < len(self.inputs) and self.inputs[index] != ""

    def integer(self, name: str, default: int) -> int:
        return self._typed(name, default, int, "a whole number")

    def real(self, name: str, default: float) -> float:
        return float(self._typed(name, default, (int, float), "a number"))

    def text(self, name: str, default: str) -> str:
        return self._typed(name, default, str, "a text")

    def integers(self, name: str, default: Sequence[int] | None = None,
                 count: int | None = None) -> list[int] | None:
        values = self.attributes.get(name, default)
        if values is None:
            return None
        if not isinstance(values, (list, tuple)) or not all(isinstance(v, int) for v in values):
            raise Refusal(f"its attribute '{name}' is not a list of whole numbers")
        if count is not None and len(values) != count:
            raise Refusal(f"its attribute '{name}' has {len(values)} numbers, {count} are needed")
        return list(values)

    def _typed(self, name: str, default: Any, kind: Any, what: str) -> Any:
        value = self.attributes.get(name, default)
        if not isinstance(value, kind):
            raise Refusal(f"its attribute '{name}' is not {what}")
        return value


@dataclass
class Branch:
    """A graph inside a node."""

    nodes: list[Node]
    outputs: list[str]
    constants: dict[str, np.ndarray]


@dataclass
class Graph:
    """A network; nodes stand in an order of execution."""

    nodes: list[Node]
    inputs: dict[str, Shape]  # by name
    outputs: list[str]
    constants: dict[str, np.ndarray]
    opset: int
    origin: str
    shapes: dict[str, Shape] = field(default_factory=dict)  # of every value that is known
    hints: dict[str, Shape] = field(default_factory=dict)  # what the file says about shapes

    def is_constant(self, node: Node, index: int) -> bool:
        return node.has(index) and node.inputs[index] in self.constants

    def constant(self, node: Node, index: int, what: str) -> np.ndarray:
        """A constant input of a node."""
        if not node.has(index):
            raise Refusal(f"its {what} is missing")
        value = self.constants.get(node.inputs[index])
        if value is None:
            raise Refusal(f"its {what} '{printable(node.inputs[index])}' is computed while the "
                          "network runs", "export the network with fixed shapes and weights")
        return value

    def whole_numbers(self, node: Node, index: int, attribute: str) -> list[int] | None:
        """A list that is an attribute up to some opset and a constant input behind it."""
        if not node.has(index):
            return node.integers(attribute)
        value = self.constant(node, index, attribute)
        if value.dtype.kind not in "iu" or value.ndim > 1 or value.size > 64:
            raise Refusal(f"its {attribute} are not a list of whole numbers")
        return [int(v) for v in value.reshape(-1)]

    def number(self, name: str) -> float | None:
        """The value of a constant of one element."""
        value = self.constants.get(name)
        if value is None or value.size != 1 or value.dtype.kind not in "fiu":
            return None
        return float(value.reshape(-1)[0])

    def shape(self, node: Node, index: int = 0) -> Shape:
        if not node.has(index):
            raise Refusal(f"its input {index} is missing")
        return self.shapes[node.inputs[index]]

    def readers(self) -> dict[str, list[Node]]:
        found: dict[str, list[Node]] = {}
        for node in self.nodes:
            for value in set(node.inputs):
                found.setdefault(value, []).append(node)
        return found

    def producers(self) -> dict[str, Node]:
        return {value: node for node in self.nodes for value in node.outputs if value}

    def drop_unused(self) -> None:
        """Removes nodes whose results no output needs."""
        needed, kept = set(self.outputs), []
        for node in reversed(self.nodes):
            if any(value in needed for value in node.outputs if value):
                kept.append(node)
                needed.update(node.inputs)
        self.nodes = kept[::-1]


def printable(text: str, most: int = 80) -> str:
    """A name from a file as it may be shown: no control characters, not endless."""
    clean = "".join(c if c.isprintable() else "?" for c in text)
    return clean if len(clean) <= most else clean[:most - 3] + "..."


def shape_text(shape: Sequence[int] | None) -> str:
    return "unknown" if shape is None else "(" + ", ".join(str(n) for n in shape) + ")"


def check_elements(shape: Sequence[int]) -> None:
    """Refuses shapes without elements, and those beyond what a tensor can hold."""
    count = 1
    for extent in shape:
        if extent < 1:
            raise Refusal(f"its output would have the shape {shape_text(shape)}, which is empty")
        count *= extent
        if count > MOST_ELEMENTS:
            raise Refusal(f"its output would have the shape {shape_text(shape)}, more than "
                          f"{MOST_ELEMENTS} elements")
