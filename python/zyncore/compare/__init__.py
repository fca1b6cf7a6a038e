"""Whether a network file computes what the ONNX model that it was made of computes.

    report = compare("net.onnx", "net.zyn")
    print("\n".join(report.lines()))

evaluates the model node by node (zyncore.evaluate), runs the network with every node's
output kept, and compares the nodes that carry the name of a value of the model. For the
first node that is wrong although what it reads is right, it looks for a mistake that would
give just such values.
"""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import Mapping

import numpy as np
import onnx

from .. import netfile
from ..evaluate import evaluate, inputs_of
from ..net import Net
from .patterns import Finding, explain
from .piece import Piece

__all__ = ["Report", "Row", "compare"]

_IN_PLACE = {netfile.OPERATORS[name] for name in
             ("SIGMOID", "RELU", "RELU6", "HARD_SWISH", "MISH")}
_DATA = {netfile.OPERATORS[name] for name in ("INPUT", "DATA", "CONSTANT")}


@dataclass
class Row:
    """A node of the network beside the model's value of its name."""
    name: str
    operation: str
    shape: tuple[int, ...]  # of the model's value
    absolute: float         # largest absolute difference; infinite: not to be compared
    relative: float         # the same, of the largest absolute value that was expected
    ok: bool


@dataclass
class Report:
    """What a comparison found."""
    tolerance: float
    rows: list[Row] = field(default_factory=list)  # nodes in their order, then outputs
    first_bad: str | None = None                   # name of the first row that is not ok
    pattern: str | None = None                     # what its values look like, in a word or two
    detail: str = ""                               # the same in a sentence
    not_compared: list[str] = field(default_factory=list)  # nodes without a value of their name

    @property
    def ok(self) -> bool:
        return all(row.ok for row in self.rows)

    def lines(self) -> list[str]:
        """The report as text."""
        width = max((len(row.name) for row in self.rows), default=4)
        lines = [f"{'node':{width}}  {'operator':16}  {'shape':16}  absolute   relative"]
        for row in self.rows:
            shape = "x".join(map(str, row.shape))
            lines.append(f"{row.name:{width}}  {row.operation:16}  {shape:16}  "
                         f"{row.absolute:.2e}   {row.relative:.2e}{'' if row.ok else '  <--'}")
        if self.not_compared:
            some = ", ".join(self.not_compared[:4]) + (", ..." if self.not_compared[4:] else "")
            lines.append(f"{len(self.not_compared)} nodes hold no value of the model: {some}")
        if self.ok:
            worst = max(row.relative for row in self.rows)
            lines.append(f"all {len(self.rows)} within {self.tolerance:g}; worst {worst:.2e}")
        else:
            lines.append(f"first beyond {self.tolerance:g}: '{self.first_bad}'")
            lines.append(f"pattern: {self.pattern}: {self.detail}")
        return lines


def compare(onnx_path: str, zyn_path: str, inputs: Mapping[str, np.ndarray] | np.ndarray | None
            = None, seed: int = 0, tolerance: float = 1e-4, method: str | int = "automatic"
            ) -> Report:
    """Compares a network file with the ONNX model that it was made of.

    inputs: arrays by input name, or one array for the only input, of the model's shapes
        (leading axes of 1 may be left out); without, normally distributed ones from the seed.
    tolerance: largest difference that is right, as a part of a tensor's largest absolute value.
    method: how convolutions compute, as in zyncore.Net.
    ValueError, zyncore.Error, zyncore.evaluate.Unsupported: the files or inputs cannot be used.
    """
    model = onnx.load(onnx_path)
    net = Net(zyn_path, method=method, keep_all=True)
    arrays = _arrays(model, net, inputs, seed)
    values = evaluate(model, arrays)
    outputs = net.run({name: arrays[name] for name in net.inputs})
    report = Report(tolerance)
    found = _node_values(net, netfile.read(zyn_path), values, report)
    for name, array in outputs.items():
        if name in values:
            found[f"{name} (output)"] = (name, "output", array)
    if not found:
        raise ValueError("no node and no output of the network has the name of a value of the "
                         "model: it was made of another one")
    _fill_rows(report, model, values, arrays, found)
    return report


def _arrays(model: onnx.ModelProto, net: Net, inputs, seed: int) -> dict[str, np.ndarray]:
    """An array of the full shape for every input of the model."""
    shapes = inputs_of(model)
    missing = [name for name in net.inputs if name not in shapes]
    if missing:
        raise ValueError(f"the model has no input called '{missing[0]}'; it has: "
                         f"{', '.join(shapes)}")
    if inputs is not None and not isinstance(inputs, Mapping):
        if len(shapes) != 1:
            raise ValueError(f"one array for the inputs {', '.join(shapes)}")
        inputs = {next(iter(shapes)): inputs}
    random = np.random.default_rng(seed)
    arrays = {}
    for name, shape in shapes.items():
        if name in net.inputs:  # its extents are all fixed
            shape = net.inputs[name].shape
        shape = [n or 1 for n in shape]
        if inputs is None:
            arrays[name] = random.standard_normal(shape).astype(np.float32)
        elif name not in inputs:
            raise ValueError(f"no array for the input '{name}'")
        elif np.size(inputs[name]) != int(np.prod(shape)):
            raise ValueError(f"input '{name}' has the shape {tuple(shape)}, the array "
                             f"{np.shape(inputs[name])}")
        else:
            arrays[name] = np.asarray(inputs[name], np.float32).reshape(shape)
    return arrays


def _node_values(net: Net, content: netfile.Content, values: Mapping[str, np.ndarray],
                 report: Report) -> dict[str, tuple[str, str, np.ndarray]]:
    """Row name: the model's value, the operator and what the network computed."""
    # The tensor that an activation works on in place holds the activated values after a run.
    overwritten = {node.inputs[0] for node in content.nodes if node.type in _IN_PLACE}
    found = {}
    for node in net.nodes:
        if node.type in _DATA or node.id in overwritten:
            continue
        if node.name in values:
            found[node.name] = (node.name, node.operation, net.node(node.id, leading=0))
        else:
            report.not_compared.append(node.name or f"node {node.id}")
    return found


def _fill_rows(report: Report, model: onnx.ModelProto, values, arrays, found) -> None:
    right = set(arrays)
    for row_name, (name, operation, array) in found.items():
        expected = values[name]
        row = _row(row_name, operation, expected, array, report.tolerance)
        report.rows.append(row)
        if row.ok:
            right.add(name)
        elif report.first_bad is None:
            report.first_bad = row_name
            finding = _explain(model, values, name, right, array)
            report.pattern, report.detail = finding.pattern, finding.detail


def _row(name: str, operation: str, expected: np.ndarray, found: np.ndarray,
         tolerance: float) -> Row:
    if expected.size != found.size:
        return Row(name, operation, expected.shape, np.inf, np.inf, False)
    with np.errstate(invalid="ignore"):
        error = np.abs(expected.astype(np.float64) - found.reshape(expected.shape))
    same = (expected == found.reshape(expected.shape)) | np.isnan(expected) & np.isnan(
        found.reshape(expected.shape))
    error = np.where(same, 0, np.where(np.isnan(error), np.inf, error))
    finite = np.abs(expected[np.isfinite(expected)])
    span = float(finite.max()) if finite.size and finite.max() > 0 else 1.0
    absolute = float(error.max()) if error.size else 0.0
    return Row(name, operation, expected.shape, absolute, absolute / span,
               absolute <= tolerance * span)


def _explain(model: onnx.ModelProto, values, name: str, right: set[str],
             found: np.ndarray) -> Finding:
    expected = values[name]
    if found.size != expected.size:
        return Finding("shape", f"the network has {tuple(found.shape)}, the model "
                                f"{tuple(expected.shape)}")
    return explain(Piece(model, values, name, right), found.reshape(expected.shape))
