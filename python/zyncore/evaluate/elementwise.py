"""Operators that work element by element, with numpy's broadcasting, which is ONNX's."""

from __future__ import annotations

import math

import numpy as np

from .operators import Node, computes, moves

_erf = np.vectorize(math.erf, otypes=[np.float64])


def _sigmoid(x):
    return 1 / (1 + np.exp(-x))


def _softplus(x):
    return np.logaddexp(x, 0)


_UNARY = {
    "Relu": lambda x: np.maximum(x, 0),
    "Sigmoid": _sigmoid,
    "Tanh": np.tanh,
    "Erf": lambda x: _erf(x) if x.size else x,
    "Softplus": _softplus,
    "Softsign": lambda x: x / (1 + np.abs(x)),
    "HardSwish": lambda x: x * np.clip(x / 6 + 0.5, 0, 1),
    "Mish": lambda x: x * np.tanh(_softplus(x)),
    "Sqrt": np.sqrt, "Exp": np.exp, "Log": np.log, "Abs": np.abs, "Neg": np.negative,
    "Reciprocal": np.reciprocal, "Floor": np.floor, "Ceil": np.ceil, "Sign": np.sign,
    "Round": np.rint, "Sin": np.sin, "Cos": np.cos, "Tan": np.tan, "Sinh": np.sinh,
    "Cosh": np.cosh, "Asin": np.arcsin, "Acos": np.arccos, "Atan": np.arctan,
    "Asinh": np.arcsinh, "Acosh": np.arccosh, "Atanh": np.arctanh,
    "Not": np.logical_not, "IsNaN": np.isnan, "IsInf": np.isinf,
}
_BINARY = {
    "Add": np.add, "Sub": np.subtract, "Mul": np.multiply, "Equal": np.equal,
    "Greater": np.greater, "Less": np.less, "GreaterOrEqual": np.greater_equal,
    "LessOrEqual": np.less_equal, "And": np.logical_and, "Or": np.logical_or,
    "Xor": np.logical_xor,
}
_MANY = {"Max": np.maximum, "Min": np.minimum, "Sum": np.add}

for _name, _function in _UNARY.items():
    computes(_name)(lambda node, x, function=_function: function(x))
for _name, _function in _BINARY.items():
    computes(_name)(lambda node, a, b, function=_function: function(a, b))


@computes(*_MANY)
def many(node: Node, first, *others):
    for other in others:
        first = _MANY[node.kind](first, other)
    return first


@computes("Mean")
def mean(node: Node, *inputs):
    return sum(inputs) / len(inputs)


@computes("Div")
def div(node: Node, a, b):
    if a.dtype.kind == "f":
        return a / b
    return (np.abs(a) // np.abs(b) * np.sign(a) * np.sign(b)).astype(a.dtype)  # towards zero


@computes("Mod")
def mod(node: Node, a, b):
    return np.fmod(a, b) if node.get("fmod", 0) else np.mod(a, b)


@computes("Pow")
def power(node: Node, a, b):
    return np.power(a.astype(np.float64), b).astype(a.dtype)


@computes("LeakyRelu")
def leaky_relu(node: Node, x):
    return np.where(x < 0, node.get("alpha", 0.01) * x, x)


@computes("PRelu")
def prelu(node: Node, x, slope):
    return np.where(x < 0, slope * x, x)


@computes("ThresholdedRelu")
def thresholded_relu(node: Node, x):
    return np.where(x > node.get("alpha", 1.0), x, 0)


@computes("Elu")
def elu(node: Node, x):
    return np.where(x < 0, node.get("alpha", 1.0) * np.expm1(x), x)


@computes("Celu")
def celu(node: Node, x):
    alpha = node.get("alpha", 1.0)
    return np.maximum(x, 0) + np.minimum(alpha * np.expm1(x / alpha), 0)


@computes("Selu")
def selu(node: Node, x):
    alpha = node.get("alpha", 1.67326319217681884765625)
    return node.get("gamma", 1.05070102214813232421875) * np.where(x > 0, x, alpha * np.expm1(x))


@computes("HardSigmoid")
def hard_sigmoid(node: Node, x):
    return np.clip(node.get("alpha", 0.2) * x + node.get("beta", 0.5), 0, 1)


@computes("Clip")
def clip(node: Node, x, low=None, high=None):
    low = node.get("min") if low is None else low
    high = node.get("max") if high is None else high
    x = x if low is None else np.maximum(x, low)
    return x if high is None else np.minimum(x, high)


@moves("Where")
def where(node: Node, condition, a, b):
    return np.where(condition, a, b)
