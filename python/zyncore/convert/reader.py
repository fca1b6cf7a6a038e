"""An ONNX file as a plain graph. The file is taken for hostile: everything that is read from it
is checked before it is used, and what is wrong is said in one line.
"""

from __future__ import annotations

import math
import os
from typing import Any, Mapping, Sequence

import numpy as np

try:
    import onnx
    from google.protobuf.message import DecodeError
    from onnx import AttributeProto, TensorProto
except ImportError as error:
    raise ImportError("converting needs the package onnx (Debian: python3-onnx)") from error

from .graph import MOST_ELEMENTS, Branch, ConvertError, Graph, Node, Shape, printable, shape_text

LEAST_OPSET, MOST_OPSET = 9, 17
MOST_BYTES = 2**31 - 1  # of the file, and of each file with weights beside it
MOST_NODES = 16384
MOST_AXES = 16

# Element types by their ONNX code: the numpy type of raw data, and the field of other data.
_TYPES = {
    TensorProto.FLOAT: ("<f4", "float_data"), TensorProto.DOUBLE: ("<f8", "double_data"),
    TensorProto.FLOAT16: ("<f2", "int32_data"), TensorProto.BFLOAT16: ("<u2", "int32_data"),
    TensorProto.INT8: ("<i1", "int32_data"), TensorProto.UINT8: ("<u1", "int32_data"),
    TensorProto.INT16: ("<i2", "int32_data"), TensorProto.UINT16: ("<u2", "int32_data"),
    TensorProto.INT32: ("<i4", "int32_data"), TensorProto.INT64: ("<i8", "int64_data"),
    TensorProto.UINT32: ("<u4", "uint64_data"), TensorProto.UINT64: ("<u8", "uint64_data"),
    TensorProto.BOOL: ("?", "int32_data"),
}
FLOAT_TYPES = {TensorProto.FLOAT, TensorProto.DOUBLE, TensorProto.FLOAT16, TensorProto.BFLOAT16}
_INTEGER_TYPES = {TensorProto.UINT8, TensorProto.INT8, TensorProto.INT32, TensorProto.INT64}


def read(path: str, input_shapes: Mapping[str | None, Sequence[int]] | None = None,
         outputs: Sequence[str] | None = None) -> Graph:
    """Reads a file. input_shapes gives inputs their shapes by name, None stands for the only one;
    outputs cuts the graph at these values."""
    model = _parse(path)
    graph = model.graph
    if not graph.node and not graph.output:
        raise ConvertError("this is no ONNX network: it has neither nodes nor outputs")
    opset = _opset(model)
    if len(graph.node) > MOST_NODES:
        raise ConvertError(f"the network has {len(graph.node)} nodes, at most {MOST_NODES} are "
                           "read")
    constants: dict[str, np.ndarray] = {}
    for tensor in graph.initializer:
        constants[tensor.name] = array(tensor, f"weights '{printable(tensor.name)}'", path)
    if graph.sparse_initializer:
        raise ConvertError("the network has sparse weights, which are not read; store them dense")
    nodes = _sorted([_node(proto, i, path) for i, proto in enumerate(graph.node)],
                    set(constants) | {value.name for value in graph.input})
    wanted = _outputs(graph, nodes, constants, outputs)
    origin = f"{os.path.basename(path)}, opset {opset}"
    if model.producer_name:
        producer = f"{model.producer_name} {model.producer_version}".rstrip()
        origin += f", by {printable(producer)}"
    result = Graph(nodes, {}, wanted, constants, opset, origin)
    result.drop_unused()
    _read_inputs(result, graph, constants, dict(input_shapes or {}))
    for value in list(graph.value_info) + list(graph.output):
        shape = _value_shape(value)
        if shape and all(isinstance(n, int) and n > 0 for n in shape):
            result.hints[value.name] = tuple(shape)
    return result


def _parse(path: str) -> Any:
    try:
        if os.path.exists(path) and not os.path.isfile(path):
            raise ConvertError("this is no file")
        size = os.path.getsize(path)
        if size > MOST_BYTES:
            raise ConvertError(f"the file has {size} bytes, at most {MOST_BYTES} are read; store "
                               "the weights in a file beside it")
        with open(path, "rb") as file:
            data = file.read()
    except OSError as error:
        raise ConvertError(f"the file cannot be read: {error.strerror}") from None
    if not data:
        raise ConvertError("the file is empty")
    model = onnx.ModelProto()
    try:
        model.ParseFromString(data)
    except (DecodeError, RecursionError):
        raise ConvertError("this is no ONNX file, or it is damaged or cut short") from None
    _check_texts(model)
    return model


def _check_texts(model: Any) -> None:
    """Texts that are no UTF-8 come as bytes."""
    graph = model.graph
    texts = [model.producer_name, model.producer_version, graph.name]
    texts += [entry.domain for entry in model.opset_import]
    ports = [*graph.input, *graph.output, *graph.value_info]
    texts += [port.name for port in ports]
    texts += [d.dim_param for port in ports for d in port.type.tensor_type.shape.dim]
    graphs = [graph]
    for inner in graphs:  # grows
        texts += [port.name for port in [*inner.output, *inner.input]]
        texts += [tensor.name for tensor in inner.initializer]
        for node in inner.node:
            texts += [node.op_type, node.domain, node.name, *node.input, *node.output]
            texts += [attribute.name for attribute in node.attribute]
            graphs += [a.g for a in node.attribute if a.type == AttributeProto.GRAPH]
    if any(isinstance(text, bytes) for text in texts):
        raise ConvertError("the file is damaged: a name in it is no text")


def _opset(model: Any) -> int:
    if model.functions:
        raise ConvertError("the network defines functions of its own: export it without them, or "
                           "inline them (onnx.inliner)")
    versions = {entry.domain or "ai.onnx": entry.version for entry in model.opset_import}
    if "ai.onnx" not in versions:
        raise ConvertError("the file does not say which operator set (opset) it uses")
    version = versions["ai.onnx"]
    if not LEAST_OPSET <= version <= MOST_OPSET:
        raise ConvertError(f"the file uses opset {version}, {LEAST_OPSET} to {MOST_OPSET} are "
                           "read; export it with opset_version=13")
    return version


def array(tensor: Any, what: str, path: str) -> np.ndarray:
    """The values of a tensor; bfloat16 as float32."""
    dims = list(tensor.dims)
    if len(dims) > MOST_AXES or any(n < 0 for n in dims) or math.prod(dims) > MOST_ELEMENTS:
        raise ConvertError(f"{what}: the shape {shape_text(dims[:MOST_AXES])} is not possible")
    if tensor.data_type not in _TYPES:
        raise ConvertError(f"{what}: element type {tensor.data_type} is not read")
    kind, field = _TYPES[tensor.data_type]
    count = math.prod(dims)
    needed = count * np.dtype(kind).itemsize
    if tensor.data_location == TensorProto.EXTERNAL:
        raw = _external(tensor, needed, what, path)
    elif tensor.HasField("raw_data"):
        raw = tensor.raw_data
    else:
        values = getattr(tensor, field)
        if len(values) != count:
            raise ConvertError(f"{what}: {len(values)} values for the shape {shape_text(dims)}")
        if field == "int32_data" and kind in ("<f2", "<u2"):
            result = np.array(values, "<i4").astype("<u2").view(kind)
        else:
            result = np.array(values).astype(kind)
        return _widened(result.reshape(dims), tensor.data_type)
    if len(raw) != needed:
        raise ConvertError(f"{what}: {len(raw)} bytes for the shape {shape_text(dims)}, {needed} "
                           "are needed")
    return _widened(np.frombuffer(raw, kind).reshape(dims), tensor.data_type)


def _widened(values: np.ndarray, code: int) -> np.ndarray:
    if code != TensorProto.BFLOAT16:
        return values
    return (values.astype("<u4") << 16).view("<f4")


def _external(tensor: Any, needed: int, what: str, path: str) -> bytes:
    """Values in a file beside the network's, in its folder or below it."""
    entries = {entry.key: entry.value for entry in tensor.external_data}
    folder = os.path.realpath(os.path.dirname(os.path.abspath(path)))
    location = str(entries.get("location", ""))
    name = os.path.realpath(os.path.join(folder, location.replace("\0", "?")))
    if not name.startswith(folder + os.sep):
        raise ConvertError(f"{what}: its file '{printable(location)}' does not lie beside the "
                           "network's")
    try:
        offset, length = int(entries.get("offset", 0)), int(entries.get("length", needed))
        if offset < 0 or length != needed:
            raise ConvertError(f"{what}: {length} bytes at {offset}, {needed} are needed")
        with open(name, "rb") as file:
            file.seek(offset)
            return file.read(needed)
    except (OSError, ValueError, OverflowError, TypeError):
        raise ConvertError(f"{what}: the file '{printable(location)}' cannot be read") from None


def _node(proto: Any, index: int, path: str) -> Node:
    name = proto.name or (proto.output[0] if proto.output else "") or f"#{index}"
    op = proto.op_type if proto.domain in ("", "ai.onnx") else f"{proto.domain}.{proto.op_type}"
    attributes, inputs = {}, list(proto.input)
    for attribute in proto.attribute:
        what = f"node '{printable(name)}': attribute '{printable(attribute.name)}'"
        value = attributes[attribute.name] = _attribute(attribute, what, path)
        if isinstance(value, Branch):  # what it reads from outside is read by the node
            made = {v for node in value.nodes for v in node.outputs} | set(value.constants)
            reads = [v for node in value.nodes for v in node.inputs] + value.outputs
            made |= {port.name for port in attribute.g.input}
            inputs += [v for v in dict.fromkeys(reads) if v and v not in made]
    return Node(op, name, inputs, list(proto.output), attributes)


def _attribute(a: Any, what: str, path: str) -> Any:
    try:
        if a.type == AttributeProto.FLOAT:
            return float(a.f)
        if a.type == AttributeProto.INT:
            return int(a.i)
        if a.type == AttributeProto.STRING:
            return a.s.decode("utf-8")
        if a.type == AttributeProto.TENSOR:
            return array(a.t, what, path)
        if a.type == AttributeProto.FLOATS:
            return [float(v) for v in a.floats]
        if a.type == AttributeProto.INTS:
            return [int(v) for v in a.ints]
        if a.type == AttributeProto.STRINGS:
            return [v.decode("utf-8") for v in a.strings]
        if a.type == AttributeProto.GRAPH:
            return Branch([_node(proto, i, path) for i, proto in enumerate(a.g.node)],
                          [port.name for port in a.g.output],
                          {t.name: array(t, what, path) for t in a.g.initializer})
    except UnicodeDecodeError:
        raise ConvertError(f"{what} is no text") from None
    return None  # of a kind that no operator here has


def _sorted(nodes: list[Node], known: set[str]) -> list[Node]:
    """The nodes in an order of execution; files should have one, and often do."""
    made: dict[str, str] = {}
    for node in nodes:
        for value in node.outputs:
            if value and (value in made or value in known):
                raise ConvertError(f"the value '{printable(value)}' is made twice")
            made[value] = node.name
    for node in nodes:
        for value in node.inputs:
            if value and value not in made and value not in known:
                raise ConvertError(f"node '{printable(node.name)}' reads '{printable(value)}', "
                                   "which nothing makes")
    waits = [len({v for v in node.inputs if v in made}) for node in nodes]
    readers: dict[str, list[int]] = {}
    for i, node in enumerate(nodes):
        for value in set(node.inputs):
            readers.setdefault(value, []).append(i)
    ready = [i for i in range(len(nodes)) if waits[i] == 0]
    for i in ready:  # grows
        for value in nodes[i].outputs:
            for reader in readers.get(value, []) if value else []:
                waits[reader] -= 1
                if waits[reader] == 0:
                    ready.append(reader)
    if len(ready) < len(nodes):
        stuck = next(node for i, node in enumerate(nodes) if waits[i])
        raise ConvertError(f"the nodes lead in a circle, '{printable(stuck.name)}' is one of them "
                           "or behind one")
    return [nodes[i] for i in ready]


def _outputs(graph: Any, nodes: list[Node], constants: Mapping[str, np.ndarray],
             wanted: Sequence[str] | None) -> list[str]:
    names = list(wanted) if wanted else [value.name for value in graph.output]
    made = {value for node in nodes for value in node.outputs}
    made |= set(constants) | {value.name for value in graph.input}
    if not names:
        raise ConvertError("the network has no outputs")
    if len(set(names)) != len(names):
        raise ConvertError("an output is named twice")
    for name in names:
        if not name or name not in made:
            raise ConvertError(f"nothing makes the output '{printable(name)}'")
    return names


def _value_shape(value: Any) -> list[int | str] | None:
    """Extents, texts where the file has names or nothing; None without a shape."""
    if not value.type.HasField("tensor_type") or not value.type.tensor_type.HasField("shape"):
        return None
    return [d.dim_value if d.HasField("dim_value") else printable(d.dim_param) or "?"
            for d in value.type.tensor_type.shape.dim]


def _read_inputs(result: Graph, graph: Any, constants: Mapping[str, np.ndarray],
                 given: dict[str | None, Sequence[int]]) -> None:
    needed = {value for node in result.nodes for value in node.inputs} | set(result.outputs)
    inputs = [v for v in graph.input if v.name not in constants and v.name in needed]
    if not inputs:
        raise ConvertError("the outputs depend on no input")
    if None in given:
        if len(inputs) != 1:
            names = ", ".join(printable(v.name) for v in inputs)
            raise ConvertError(f"the network has {len(inputs)} inputs ({names}): say which one, "
                               "--input-shape NAME=1,3,240,320")
        given[inputs[0].name] = given.pop(None)
    for name in given:
        if name not in [v.name for v in inputs]:
            raise ConvertError(f"there is no input '{printable(str(name))}'")
    for value in inputs:
        if value.name in result.inputs:
            raise ConvertError(f"the input '{printable(value.name)}' is there twice")
        _check_type(value, result)
        result.inputs[value.name] = _input_shape(value, given.get(value.name))


def _check_type(value: Any, graph: Graph) -> None:
    code = value.type.tensor_type.elem_type
    if code in FLOAT_TYPES:
        return
    readers = graph.readers().get(value.name, [])
    casts = all(node.op == "Cast" and node.attributes.get("to") in FLOAT_TYPES for node in readers)
    if code in _INTEGER_TYPES and casts and readers and value.name not in graph.outputs:
        return  # whole numbers that become floats at once are floats from the start
    name = TensorProto.DataType.Name(code) if code in TensorProto.DataType.values() else str(code)
    raise ConvertError(f"the input '{printable(value.name)}' has elements of type {name}, floats "
                       "are needed")


def _input_shape(value: Any, given: Sequence[int] | None) -> Shape:
    shape = _value_shape(value)
    name = printable(value.name)
    if shape is None and given is None:
        raise ConvertError(f"the file does not say the shape of the input '{name}': say it, "
                           f"--input-shape {name}=1,3,240,320")
    if given is not None:
        if shape is not None and len(shape) != len(given):
            raise ConvertError(f"the input '{name}' has {len(shape)} axes, {shape_text(shape)}, "
                               f"not {len(given)}")
        chosen: list[int | str] = list(given)
    else:
        chosen = list(shape or [])
        if len(chosen) > 1 and not (isinstance(chosen[0], int) and chosen[0] > 0):
            chosen[0] = 1  # a batch axis
    if not all(isinstance(n, int) and n > 0 for n in chosen):
        example = ",".join(str(n) if isinstance(n, int) and n > 0 else "224" for n in chosen)
        raise ConvertError(f"the input '{name}' has the shape {shape_text(shape)}: say all of it, "
                           f"--input-shape {name}={example}")
    if len(chosen) > 6 or (len(chosen) == 6 and chosen[0] != 1):
        raise ConvertError(f"the input '{name}' has {len(chosen)} axes, at most five and a batch "
                           "axis are possible")
    if math.prod(chosen) > MOST_ELEMENTS:  # type: ignore[arg-type]
        raise ConvertError(f"the input '{name}' has the shape {shape_text(chosen)}, "
                           "which is too large")
    return tuple(int(n) for n in chosen)
