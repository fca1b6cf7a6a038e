"""Operators on elements: arithmetic, activations, normalisations."""

from __future__ import annotations

import math

import numpy as np

from .graph import Node, Refusal, shape_text
from .map_conv import reduced
from .mapper import Mapper
from .patterns import clip_range
from .program import Function, Step, dim_of, dims_of
from .semantics import axis_of, broadcast

_JOIN_OF = {"Add": "ADD", "Sub": "SUBTRACT", "Mul": "MULTIPLY", "Div": "DIVIDE", "Max": "MAX",
            "Min": "MIN", "Pow": "POWER"}


def arithmetic(m: Mapper, node: Node) -> None:
    """Two operands; Sum, Max and others also take one or more."""
    if len(node.inputs) == 2 and node.op in _JOIN_OF:
        return m.put(node.outputs[0], binary(m, node.op, *node.inputs, node.outputs[0]))
    operation = {"Sum": "ADD", "Mean": "ADD", "Max": "MAX", "Min": "MIN"}.get(node.op)
    if operation is None or not node.inputs:
        raise Refusal(f"it has {len(node.inputs)} inputs")
    out = m.get(node.inputs[0])
    for value in node.inputs[1:]:
        out = m.join(operation, out, m.get(value))
    if node.op == "Mean":
        out = m.affine(out, 1 / len(node.inputs), 0.0)
    m.put(node.outputs[0], out)


def _unexpanded(m: Mapper, name: str, other: str, out: str) -> str:
    """A value that is repeated only to be joined with a larger one, without the repetition."""
    at = m.producers.get(name)
    while at and at.op == "Expand":
        source = at.inputs[0]
        if broadcast([m.graph.shapes[source], m.graph.shapes[other]]) != m.graph.shapes[out]:
            break
        name, at = source, m.producers.get(source)
    return name


def binary(m: Mapper, op: str, a: str, b: str, result: str) -> Step:
    """a op b, of the shape of a value of the graph."""
    shapes, constants = m.graph.shapes, m.graph.constants
    out = shapes[result]
    for x, c, swapped in ((a, b, False), (b, a, True)):
        if c in constants and x not in constants and math.prod(shapes[x]) == math.prod(out):
            step = _with_constant(m, op, x, constants[c], swapped)
            if step is not None:
                return step
    a = _unexpanded(m, a, b, result)
    b = _unexpanded(m, b, a, result)
    if a == b and op == "Mul":
        return m.function(m.held(a), "SQUARE")
    if a == b and op == "Add":
        return m.affine(m.held(a), 2.0, 0.0)
    if shapes[a] == shapes[b] and a not in constants and b not in constants \
            and m.held(a).dims == m.held(b).dims:
        return m.join(_JOIN_OF[op], m.held(a), m.held(b))
    for x in (a, b):
        if len(shapes[x]) - (len(shapes[x]) >= 3 and shapes[x][0] == 1) > 5:
            raise Refusal(f"{shape_text(shapes[x])} has more than five axes")
    return m.join(_JOIN_OF[op], m.get(a), m.get(b))


def _with_constant(m: Mapper, op: str, name: str, values: np.ndarray, swapped: bool) -> Step | None:
    """x op c, or c op x; None where a join has to do it."""
    along = m.by_axis(np.asarray(values, "f8"), m.graph.shapes[name])
    if along is None:
        return None
    c, inner = along
    x = m.placed(name, c.size, inner)
    if op == "Add":
        return m.affine(x, 1.0, c, inner)
    if op == "Sub":
        return m.affine(x, -1.0, c, inner) if swapped else m.affine(x, 1.0, -c, inner)
    if op == "Mul":
        return m.affine(x, c, 0.0, inner)
    if op == "Div":
        if swapped:
            one = m.function(x, "RECIPROCAL")
            return one if np.all(c == 1) else m.affine(one, c, 0.0, inner)
        return m.affine(x, 1 / c, 0.0, inner) if np.all(c != 0) else None
    if c.size != 1:
        return None
    value = float(c[0])
    if op in ("Max", "Min"):
        bounds = (value, math.inf) if op == "Max" else (-math.inf, value)
        return m.function(x, "CLIP", *bounds)
    if swapped or not math.isfinite(value):
        return None
    special = {2.0: "SQUARE", 0.5: "SQRT", -1.0: "RECIPROCAL"}.get(value)
    return m.function(x, special) if special else m.function(x, "POWER", value)


_PLAIN = {"Abs": "ABS", "Neg": "NEGATE", "Sqrt": "SQRT", "Reciprocal": "RECIPROCAL", "Exp": "EXP",
          "Log": "LOG", "Tanh": "TANH", "Sigmoid": "SIGMOID", "HardSwish": "HARD_SWISH",
          "Mish": "MISH", "Softplus": "SOFTPLUS", "Erf": "ERF"}


def activation(m: Mapper, node: Node) -> None:
    x = m.held(node.inputs[0])
    m.put(node.outputs[0], _activation(m, node, x))


def _activation(m: Mapper, node: Node, x: Step) -> Step:
    op = node.op
    if op in _PLAIN:
        return m.function(x, _PLAIN[op])
    if op == "Relu":
        return m.function(x, "CLIP", 0.0, math.inf)
    if op == "Clip":
        bounds = clip_range(m.graph, node)
        if bounds is None:
            raise Refusal("its bounds are computed while the network runs")
        return m.function(x, "CLIP", *bounds)
    if op == "LeakyRelu":
        return m.function(x, "LEAKY_RELU", node.real("alpha", 0.01))
    if op == "Elu":
        return m.function(x, "ELU", node.real("alpha", 1.0))
    if op == "HardSigmoid":
        return m.function(x, "HARD_SIGMOID", node.real("alpha", 0.2), node.real("beta", 0.5))
    if op == "Swish":
        return m.function(x, "SILU", node.real("alpha", 1.0))
    if op == "Gelu":
        return m.function(x, "GELU", 1.0 if node.text("approximate", "none") == "tanh" else 0.0)
    if op == "Selu":
        elu = m.function(x, "ELU", node.real("alpha", 1.6732632423543772))
        return m.affine(elu, node.real("gamma", 1.0507009873554805), 0.0)
    if op == "Celu":
        alpha = node.real("alpha", 1.0)
        return m.affine(m.function(m.affine(x, 1 / alpha, 0.0), "ELU", 1.0), alpha, 0.0)
    one = m.affine(m.function(x, "ABS"), 1.0, 1.0)  # Softsign
    return m.join("DIVIDE", x, one)


def prelu(m: Mapper, node: Node) -> None:
    name = node.inputs[0]
    shape = m.graph.shapes[name]
    if broadcast([shape, m.graph.shape(node, 1)]) != shape:
        raise Refusal(f"slopes {shape_text(m.graph.shape(node, 1))} for {shape_text(shape)}")
    values = m.graph.constants.get(node.inputs[1])
    along = None if values is None else m.by_axis(values, shape)
    if along:
        slopes, inner = np.asarray(along[0], "<f4"), along[1]
        outer = math.prod(shape) // (inner * slopes.size)
        if slopes.size == 1:
            out: Step = m.function(m.held(name), "LEAKY_RELU", float(slopes[0]))
            return m.put(node.outputs[0], out)
        if outer == 1:
            x = m.held(name)
            if len(x.dims) != 3 or x.dims[2] != slopes.size:
                x = m.get(name, (inner, 1, slopes.size))
            out = m.add(Function([x], x.dims, "", "PRELU", 0.0, 0.0, slopes))
            return m.put(node.outputs[0], out)
    x, slope = m.get(name), m.get(node.inputs[1])
    below = m.join("MULTIPLY", m.function(x, "CLIP", -math.inf, 0.0), slope)
    m.put(node.outputs[0], m.join("ADD", m.function(x, "CLIP", 0.0, math.inf), below))


def softmax(m: Mapper, node: Node) -> None:
    shape = m.graph.shape(node)
    function = "SOFTMAX" if node.op == "Softmax" else "LOG_SOFTMAX"
    old = m.graph.opset < 13
    axis = axis_of(node.integer("axis", 1 if old else -1), len(shape))
    along = dim_of(axis, shape)
    if old and math.prod(shape[axis + 1:]) != 1:  # along all axes from this one on
        inner = math.prod(shape[axis:])
        x, along = m.get(node.inputs[0], (inner, math.prod(shape) // inner)), 0
    elif along is None:
        raise Refusal("it goes along the batch axis")
    else:
        x = m.get(node.inputs[0])
    m.put(node.outputs[0], m.function(x, function, float(along)))


def l2_norm(m: Mapper, node: Node) -> None:
    shape = m.graph.shape(node)
    along = dim_of(axis_of(node.integer("axis", -1), len(shape)), shape)
    if along is None:
        raise Refusal("it goes along the batch axis")
    x = m.get(node.inputs[0])
    if node.integer("p", 2) == 2:
        out = m.function(x, "L2_NORM", float(along), node.real("epsilon", 0.0))
    else:
        out = m.join("DIVIDE", x, reduced(m, m.function(x, "ABS"), [along], "SUM"))
    m.put(node.outputs[0], out)


def batch_norm(m: Mapper, node: Node) -> None:
    shape = m.graph.shape(node)
    if len(shape) < 2 or node.integer("training_mode", 0):
        raise Refusal("it is in training mode, or its input has no channels",
                      "export in evaluation mode")
    names = ["gamma", "beta", "mean", "variance"]
    values = [np.asarray(m.graph.constant(node, 1 + i, name), "f8").reshape(-1)
              for i, name in enumerate(names)]
    if any(v.size != shape[1] for v in values):
        raise Refusal(f"its statistics are not those of {shape[1]} channels")
    gamma, beta, mean, variance = values
    with np.errstate(all="ignore"):
        scale = gamma / np.sqrt(variance + node.real("epsilon", 1e-5))
    if not np.all(np.isfinite(scale)):
        raise Refusal("its variance is below 0 or no number")
    inner = math.prod(shape[2:])
    x = m.placed(node.inputs[0], shape[1], inner)
    m.put(node.outputs[0], m.affine(x, scale, beta - mean * scale, inner))


def _normalised(m: Mapper, x: Step, axes: list[int], epsilon: float) -> Step:
    centred = m.join("SUBTRACT", x, reduced(m, x, axes, "MEAN"))
    variance = reduced(m, m.function(centred, "SQUARE"), axes, "MEAN")
    deviation = m.function(m.affine(variance, 1.0, epsilon), "SQRT")
    return m.join("DIVIDE", centred, deviation)


def instance_norm(m: Mapper, node: Node) -> None:
    shape = m.graph.shape(node)
    scale = np.asarray(m.graph.constant(node, 1, "scale"), "f8").reshape(-1)
    shift = np.asarray(m.graph.constant(node, 2, "bias"), "f8").reshape(-1)
    if len(shape) < 3 or scale.size != shape[1] or shift.size != shape[1]:
        raise Refusal(f"{scale.size} factors for {shape_text(shape)}")
    inner = math.prod(shape[2:])
    x = m.get(node.inputs[0], (inner, shape[1], shape[0]))
    out = _normalised(m, x, [0], node.real("epsilon", 1e-5))
    out = m.reshape(out, dims_of(shape))
    m.put(node.outputs[0], m.affine(out, scale, shift, inner))


def local_response_norm(m: Mapper, node: Node) -> None:
    """x / (bias + alpha * mean of x * x over neighbouring channels)^beta."""
    shape = m.graph.shape(node)
    size = node.integer("size", 0)
    if len(shape) < 3 or not 1 <= size <= 2**12:
        raise Refusal(f"its size is {size}, its input {shape_text(shape)}")
    inner = math.prod(shape[2:])
    x = m.get(node.inputs[0], (inner, shape[1], shape[0]))
    before = (size - 1) // 2
    mean = m.operator("RESAMPLE", [m.function(x, "SQUARE")], x.dims, [
        17, 1, size, 1, 1, 1, 1, 0, before, 0, size - 1 - before, 0, 1])
    total = m.affine(mean, node.real("alpha", 1e-4), node.real("bias", 1.0))
    factor = m.function(total, "POWER", -node.real("beta", 0.75))
    m.put(node.outputs[0], m.join("MULTIPLY", x, factor))


def layer_norm(m: Mapper, node: Node) -> None:
    shape = m.graph.shape(node)
    axis = axis_of(node.integer("axis", -1), len(shape))
    inner = math.prod(shape[axis:])
    x = m.get(node.inputs[0], (inner, math.prod(shape) // inner))
    out = _normalised(m, x, [0], node.real("epsilon", 1e-5))
    scale = np.asarray(m.graph.constant(node, 1, "scale"), "f8").reshape(-1)
    shift = np.zeros(1)
    if node.has(2):
        shift = np.asarray(m.graph.constant(node, 2, "bias"), "f8").reshape(-1)
    if scale.size not in (1, inner) or shift.size not in (1, inner):
        raise Refusal(f"{scale.size} factors for {inner} elements")
    m.put(node.outputs[0], m.affine(out, scale, shift))


HANDLERS = {
    **dict.fromkeys([*_JOIN_OF, "Sum", "Mean"], arithmetic),
    **dict.fromkeys([*_PLAIN, "Relu", "Clip", "LeakyRelu", "Elu", "HardSigmoid", "Swish", "Gelu",
                     "Selu", "Celu", "Softsign"], activation),
    "PRelu": prelu, "Softmax": softmax, "LogSoftmax": softmax, "L2Normalization": l2_norm,
    "LpNormalization": l2_norm, "BatchNormalization": batch_norm,
    "InstanceNormalization": instance_norm, "LayerNormalization": layer_norm,
    "LRN": local_response_norm,
}
