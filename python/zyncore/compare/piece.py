"""The part of a model between values that are known to be right and one that is not.

It can be evaluated again with a value, or a node, exchanged for another: what a mistake
would have given.
"""

from __future__ import annotations

from typing import Callable, Iterator, Mapping

import numpy as np
import onnx

from ..evaluate import evaluate_node, opset_of

# Operators that work element by element on what is not constant.
_ELEMENTWISE = {
    "Relu", "Clip", "LeakyRelu", "PRelu", "Elu", "Selu", "Celu", "Sigmoid", "HardSigmoid",
    "HardSwish", "Tanh", "Mish", "Softplus", "Erf", "Add", "Sub", "Mul", "Div", "Pow", "Max",
    "Min", "Identity", "Dropout", "Cast", "Abs", "Neg", "Exp", "Log", "Sqrt", "Reciprocal",
    "BatchNormalization",
}


class Piece:
    """The nodes that make the value `name` of values in `right`."""

    def __init__(self, model: onnx.ModelProto, values: Mapping[str, np.ndarray], name: str,
                 right: set[str]) -> None:
        self.name = name
        self.values = values
        self.expected = values[name]
        self._opset = opset_of(model)
        producer = {output: index for index, node in enumerate(model.graph.node)
                    for output in node.output}
        wanted, used, self.inputs = [name], set(), []
        while wanted:
            value = wanted.pop()
            if value in right and value != name:
                self.inputs += [] if value in self.inputs else [value]
            elif value in producer and producer[value] not in used:
                used.add(producer[value])
                wanted += [i for i in model.graph.node[producer[value]].input if i]
        self.nodes = [model.graph.node[index] for index in sorted(used)]

    def again(self, values: Mapping[str, np.ndarray] = {},
              nodes: Mapping[int, onnx.NodeProto] = {}) -> np.ndarray | None:
        """The value with other values or nodes (by index) in the places of some; None where
        they do not fit or the shape becomes another."""
        changed = dict(values)
        try:
            for index, node in enumerate(self.nodes):
                if all(output in values for output in node.output if output):
                    continue
                if index not in nodes and not any(i in changed for i in node.input):
                    continue
                node = nodes.get(index, node)
                arguments = [changed.get(i, self.values.get(i)) for i in node.input]
                results = evaluate_node(node, arguments, self._opset)
                changed.update((n, r) for n, r in zip(node.output, results) if n not in values)
        except Exception:  # whatever a wrong operand provokes: it is no explanation
            return None
        result = changed.get(self.name)
        return result if result is not None and result.shape == self.expected.shape else None

    def constant(self, name: str) -> np.ndarray | None:
        """A value that no input decides: weights."""
        produced = any(name in node.output for node in self.nodes
                       if node.op_type != "Constant")
        return None if produced or name in self.inputs else self.values.get(name)

    def joins(self, name: str) -> bool:
        """Whether the result is made of a value and of another one that is not made of it."""
        after = {name}
        for node in self.nodes:
            after |= set(node.output) if after & set(node.input) else set()
        last = next(node for node in self.nodes if self.name in node.output)
        return any(i not in after and self.constant(i) is None for i in last.input if i)

    def before_activation(self) -> Iterator[tuple[str, Callable[[np.ndarray], np.ndarray | None]]]:
        """Values of the shape of the result from which element-wise operators lead to it, the
        nearest first, each with the function that the operators are."""
        reached = {self.name}
        for node in reversed(self.nodes):
            if not reached & set(node.output):
                continue
            if node.op_type not in _ELEMENTWISE:
                continue
            for value in node.input:
                array = self.values.get(value)
                if array is None or self.constant(value) is not None or value in reached:
                    continue
                if array.shape == self.expected.shape and array.dtype.kind == "f":
                    reached.add(value)
                    yield value, lambda x, value=value: self.again({value: x})
