"""From ONNX to a network file: reading (reader.py), shapes (shapes.py, constants.py), patterns
(patterns.py), mapping (mapper.py, map_*.py), folding (fold.py), writing (writing.py).

    python3 -m zyncore.convert NET.onnx -o NET.zyn
"""

from __future__ import annotations

import os
from typing import Mapping, Sequence

from zyncore.netfile import MEANINGS

from . import (fold, map_conv, map_elements, map_index, map_layout, map_logic, patterns, report,
               shapes)
from .graph import ConvertError, ConvertFailure, Graph, Problem
from .mapper import map_graph
from .program import Input
from .reader import read
from .writing import NetWriter, Picture, save

__all__ = ["ConvertError", "ConvertFailure", "Picture", "Problem", "convert"]

HANDLERS = {**map_conv.HANDLERS, **map_elements.HANDLERS, **map_layout.HANDLERS,
            **map_logic.HANDLERS, **map_index.HANDLERS}


def convert(path: str, target: str, *,
            input_shapes: Mapping[str | None, Sequence[int]] | None = None,
            outputs: Sequence[str] | None = None,
            pictures: Mapping[str | None, Picture] | None = None,
            meanings: Mapping[str, str] | None = None,
            metadata: Mapping[str, str] | None = None, folding: bool = True) -> str:
    """Writes the network of an ONNX file to target and returns a summary. ConvertFailure lists
    all nodes that cannot be converted, ConvertError is anything else that is wrong; no file is
    written then.

    input_shapes, pictures: by the input's name, None stands for the only one. outputs: where to
    cut the graph. meanings: of outputs, "scores", "probabilities", "offsets", "boxes",
    "landmarks" or "features"."""
    graph = read(path, input_shapes, outputs)
    if os.path.exists(target) and os.path.samefile(path, target):
        raise ConvertError("the network would be overwritten: name another file behind -o")
    problems = shapes.infer(graph)
    if folding:
        patterns.recognise(graph)
    program = map_graph(graph, HANDLERS, problems)
    if problems:
        raise ConvertFailure(problems, _cut(graph, problems))
    for name, meaning in (meanings or {}).items():
        if name not in graph.outputs:
            raise ConvertError(f"there is no output '{name}' to give a meaning")
        if meaning not in MEANINGS:
            raise ConvertError(f"'{meaning}' is no meaning; there are {', '.join(MEANINGS)}")
    program.drop_unused()
    read_inputs = {step.name for step in program.steps if isinstance(step, Input)}
    if not read_inputs:
        raise ConvertError("the outputs are constants: they depend on the inputs' shapes alone")
    graph.inputs = {name: shape for name, shape in graph.inputs.items() if name in read_inputs}
    if folding:
        fold.fold(program)
        fold.work_in_place(program)
    writer = NetWriter(graph.shapes, _by_input(graph, pictures or {}))
    writer.write(program, meanings or {})
    writer.metadata({"origin": graph.origin, "converter": "zyn-convert", **(metadata or {})})
    save(writer.file, target)
    return report.summary(graph, writer.count, target)


def _by_input(graph: Graph, pictures: Mapping[str | None, Picture]) -> dict[str, Picture]:
    named = dict(pictures)
    if None in named:
        images = [name for name, shape in graph.inputs.items() if len(shape) == 4]
        if len(images) != 1:
            raise ConvertError(f"the network has {len(images)} inputs that can be pictures: "
                               "preprocessing can be stored for exactly one")
        named[images[0]] = named.pop(None)
    result: dict[str, Picture] = {}
    for name, picture in named.items():
        if name not in graph.inputs:
            raise ConvertError(f"there is no input '{name}'")
        channels = graph.inputs[name][1]
        if channels not in (1, 3):
            raise ConvertError(f"the input '{name}' has {channels} channels: a picture has 1 or 3")
        if channels == 1:
            picture = Picture("grey", picture.resize, picture.mean, picture.scale)
        result[name] = picture
    return result


def _cut(graph: Graph, problems: Sequence[Problem]) -> list[str]:
    """The values in front of the nodes that fail, where the graph could end."""
    failing = {p.node for p in problems}
    lost: set[str] = set()
    found: list[str] = []
    for node in graph.nodes:
        bad = node.name in failing or any(v in lost for v in node.inputs)
        if bad:
            lost.update(node.outputs)
            found += [v for v in node.inputs if v and v not in lost and v not in graph.constants
                      and v not in graph.inputs and v not in found]
    found += [v for v in graph.outputs if v not in lost and v not in found]
    return found if len(found) <= 24 else []
