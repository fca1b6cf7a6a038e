"""An ONNX model evaluated node by node with numpy: slow, and written to be obviously right.

    values = evaluate(onnx.load("net.onnx"), {"image": array})

gives the value of every name in the graph, for opsets 9 to 17. Real arithmetic is done in
double precision inside a node and rounded to the model's own type behind it, but never to
half precision: what is half in the file is single here. One file per
family of operators: windows (convolution, pooling), elementwise, reductions (sums, products
of matrices, normalisation), moving (shapes and places), resizing.
"""

from __future__ import annotations

from typing import Mapping, Sequence

import numpy as np
import onnx
from onnx import numpy_helper

from . import elementwise, moving, reductions, resizing, windows  # noqa: F401 (they register)
from .operators import OPERATORS, Node, Unsupported

__all__ = ["OPERATORS", "Unsupported", "evaluate", "evaluate_node", "inputs_of", "opset_of"]


def inputs_of(model: onnx.ModelProto) -> dict[str, list[int | None]]:
    """The shapes of the inputs that are not initializers; None for extents that are not fixed."""
    weights = {tensor.name for tensor in model.graph.initializer}
    return {port.name: [axis.dim_value or None for axis in port.type.tensor_type.shape.dim]
            for port in model.graph.input if port.name not in weights}


def opset_of(model: onnx.ModelProto) -> int:
    """The version of the standard operators that the model asks for."""
    return next((entry.version for entry in model.opset_import if entry.domain in ("", "ai.onnx")),
                1)


def evaluate_node(proto: onnx.NodeProto, inputs: Sequence[np.ndarray | None],
                  opset: int) -> list[np.ndarray]:
    """The outputs of one node; inputs that the node leaves out are None."""
    if proto.domain not in ("", "ai.onnx") or proto.op_type not in OPERATORS:
        raise Unsupported(f"{proto.op_type} '{proto.name}': operator is not known")
    function, real = OPERATORS[proto.op_type]
    node = Node(proto, opset)
    if real:
        result = _in_double(function, node, inputs)
    else:
        result = function(node, *inputs)
    results = result if isinstance(result, (tuple, list)) else (result,)
    return [_not_half(np.asarray(value)) for value in results]


def _not_half(array: np.ndarray) -> np.ndarray:
    return array.astype(np.float32) if array.dtype == np.float16 else array


def _in_double(function, node: Node, inputs: Sequence[np.ndarray | None]):
    """Calls an operator with float64 for its floats; gives back the type that came in."""
    floats = [x.dtype for x in inputs if x is not None and x.dtype.kind == "f"]
    kind = floats[0] if floats else np.dtype(np.float32)
    wide = [x.astype(np.float64) if x is not None and x.dtype.kind == "f" else x for x in inputs]
    with np.errstate(all="ignore"):  # infinities and NaN are results like others
        result = function(node, *wide)
        results = result if isinstance(result, (tuple, list)) else (result,)
        return [np.asarray(value).astype(kind) if np.asarray(value).dtype == np.float64 else value
                for value in results]


def evaluate(model: onnx.ModelProto, inputs: Mapping[str, np.ndarray]) -> dict[str, np.ndarray]:
    """All values of the model by name: inputs, initializers and every node's outputs.

    inputs: an array of the full shape, batch axis included, for each input of the graph that
    is not an initializer. ValueError: an input is missing; Unsupported: an operator, or a form
    of it, that is not covered.
    """
    values: dict[str, np.ndarray] = {}
    _add_initializers(model.graph, values)
    for port in model.graph.input:
        if port.name in inputs:
            kind = onnx.mapping.TENSOR_TYPE_TO_NP_TYPE[port.type.tensor_type.elem_type]
            values[port.name] = np.asarray(inputs[port.name]).astype(
                np.float32 if kind == np.float16 else kind)
        elif port.name not in values:
            raise ValueError(f"input '{port.name}' is missing")
    _run(model.graph, values, opset_of(model))
    return values


def _add_initializers(graph: onnx.GraphProto, values: dict[str, np.ndarray]) -> None:
    for tensor in graph.initializer:
        values[tensor.name] = _not_half(numpy_helper.to_array(tensor))


def _run(graph: onnx.GraphProto, values: dict[str, np.ndarray], opset: int) -> None:
    """Adds the outputs of all nodes to the values."""
    for node in graph.node:
        arguments = [values[name] if name else None for name in node.input]
        try:
            results = _branch(node, arguments[0], values, opset) if node.op_type == "If" else \
                evaluate_node(node, arguments, opset)
        except (ValueError, IndexError, KeyError, TypeError) as error:
            shapes = [None if x is None else x.shape for x in arguments]
            raise ValueError(f"{node.op_type} '{node.name or node.output[0]}' of inputs {shapes}: "
                             f"{error}") from error
        values.update((name, value) for name, value in zip(node.output, results) if name)


def _branch(node: onnx.NodeProto, condition: np.ndarray, values: dict[str, np.ndarray],
            opset: int) -> list[np.ndarray]:
    """The outputs of the branch of an If that its condition takes."""
    wanted = "then_branch" if condition.reshape(-1)[0] else "else_branch"
    graph = next(attribute.g for attribute in node.attribute if attribute.name == wanted)
    _add_initializers(graph, values)
    _run(graph, values, opset)
    return [values[port.name] for port in graph.output]
