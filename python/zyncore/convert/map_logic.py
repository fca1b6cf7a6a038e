"""Comparisons and choices: truth is 1, falsehood 0. Heads use them to keep local maxima."""

from __future__ import annotations

import numpy as np

from .graph import Node
from .map_elements import binary
from .mapper import FLOAT_MAX, Mapper
from .program import Step

_STEEP = 1e30  # takes any difference of ordinary numbers beyond 1, with room for factors


def compare(m: Mapper, node: Node) -> None:
    a, b = node.inputs
    less = node.op in ("Less", "LessOrEqual")
    difference = binary(m, "Sub", b if less else a, a if less else b, node.outputs[0])
    if node.op == "Equal":
        apart = m.affine(m.function(difference, "ABS"), -_STEEP, 1.0)
        return m.put(node.outputs[0], m.function(apart, "CLIP", 0.0, 1.0))
    also_equal = 1.0 if node.op.endswith("OrEqual") else 0.0
    steep = m.affine(difference, _STEEP, also_equal)
    m.put(node.outputs[0], m.function(steep, "CLIP", 0.0, 1.0))


def logic(m: Mapper, node: Node) -> None:
    if node.op == "Not":
        out: Step = m.affine(m.held(node.inputs[0]), -1.0, 1.0)
    else:
        out = m.join("MIN" if node.op == "And" else "MAX", m.get(node.inputs[0]),
                     m.get(node.inputs[1]))
    m.put(node.outputs[0], out)


def where(m: Mapper, node: Node) -> None:
    """condition * a + (1 - condition) * b; infinite constants become the largest number, as 0
    times infinity is none."""
    condition = m.get(node.inputs[0])
    a, b = (m.constant(np.nan_to_num(np.asarray(m.graph.constants[v], "<f4"), nan=0.0,
                                     posinf=FLOAT_MAX, neginf=-FLOAT_MAX))
            if v in m.graph.constants else m.get(v) for v in node.inputs[1:3])
    chosen = m.join("MULTIPLY", condition, a)
    other = m.join("MULTIPLY", m.affine(condition, -1.0, 1.0), b)
    m.put(node.outputs[0], m.join("ADD", chosen, other))


HANDLERS = {
    **dict.fromkeys(("Equal", "Greater", "Less", "GreaterOrEqual", "LessOrEqual"), compare),
    **dict.fromkeys(("And", "Or", "Not"), logic), "Where": where,
}
