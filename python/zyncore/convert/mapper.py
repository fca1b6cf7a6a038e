"""What all mappings share: the step that holds every ONNX value, and the steps that bring values
into other extents and orders. Reshapes are made when somebody needs the other extents.
"""

from __future__ import annotations

import math
from typing import Callable, Sequence

import numpy as np

from .graph import (MALFORMED, Graph, Node, Problem, Refusal, Shape, check_elements, malformed,
                    shape_text)
from .program import (JOINS, PART, PERMUTE, Affine, Constant, Dims, Function, Input, Operator,
                      Program, Step, dims_of, find_axis, leading_of)
from .shapes import problem, unknown

FLOAT_MAX = float(np.finfo("<f4").max)


class Mapper:
    def __init__(self, graph: Graph) -> None:
        self.graph = graph
        self.program = Program()
        self.producers = graph.producers()
        self._values: dict[str, Step] = {}
        self._reshaped: dict[tuple[Step, Dims], Step] = {}
        self._source: dict[Step, Step] = {}  # of reshapes
        self._results: dict[Step, Step] = {}  # of constants

    # Values.

    def held(self, name: str) -> Step:
        """The step that holds a value, in whatever extents."""
        if name not in self._values:
            self._values[name] = self.constant(self.graph.constants[name], name)
        return self._values[name]

    def get(self, name: str, dims: Dims | None = None) -> Step:
        """A value in its usual extents, or in others of as many elements."""
        usual = dims_of(self.graph.shapes[name])
        step = self.reshape(self.held(name), dims or usual)
        if step.dims == usual and not step.name:
            step.name = name
        return step

    def image(self, name: str, shape: Shape | None = None) -> Step:
        """A value of the shape (N, C, H, W) or (N, C, L) as {W, H, N * C}."""
        shape = shape or self.graph.shapes[name]
        if len(shape) not in (3, 4):
            raise Refusal(f"its input is {shape_text(shape)}: one and two axes of space are "
                          "computed")
        height = shape[2] if len(shape) == 4 else 1
        return self.get(name, (shape[-1], height, shape[0] * shape[1]))

    def put(self, name: str, step: Step) -> None:
        """A step holds an ONNX value, or another one too."""
        expected = math.prod(self.graph.shapes[name])
        if step.count != expected:
            raise AssertionError(f"'{name}': {step.dims} for {expected} elements")
        self._values[name] = step
        if not step.name and step not in self._source:
            step.name = name

    # Steps.

    def add(self, step: Step) -> Step:
        check_elements(step.dims)
        if not isinstance(step, Operator) or step.kind != "AFFINE":
            step.reads = [self._computed(source) for source in step.reads]
        self.program.steps.append(step)
        return step

    def constant(self, values: np.ndarray, name: str = "", dims: Dims | None = None) -> Constant:
        if values.dtype.kind not in "fiub":
            raise Refusal("it reads a constant that has no numbers")
        step = Constant([], dims or dims_of(values.shape), name,
                        np.asarray(values, "<f4").reshape(-1))
        self.program.steps.append(step)
        return step

    def _computed(self, x: Step) -> Step:
        """Joins read constants as they read results; for other operators a constant is made a
        result."""
        if not isinstance(x, Constant):
            return x
        if x not in self._results:
            self._results[x] = self.join("ADD", x, self.constant(np.zeros(1)))
        return self._results[x]

    def operator(self, kind: str, reads: list[Step], dims: Sequence[int],
                 words: Sequence[int | float] = ()) -> Step:
        return self.add(Operator(reads, tuple(dims), "", kind, list(words)))

    def function(self, x: Step, function: str, a: float = 0.0, b: float = 0.0) -> Step:
        if any(math.isnan(v) or (math.isinf(v) and function != "CLIP") for v in (a, b)):
            raise Refusal("one of its numbers is not finite")
        return self.add(Function([x], x.dims, "", function, float(a), float(b)))

    def affine(self, x: Step, scale: np.ndarray | float, shift: np.ndarray | float,
               inner: int = 1) -> Step:
        """x * scale + shift, for every element or by n values; see Affine."""
        n = max(np.size(scale), np.size(shift))
        arrays = [np.broadcast_to(np.asarray(v, "f8").reshape(-1), (n,)) for v in (scale, shift)]
        return self.add(Affine([x], x.dims, "", arrays[0], arrays[1], inner))

    def reshape(self, x: Step, dims: Dims) -> Step:
        x = self._source.get(x, x)
        if x.dims == dims:
            return x
        if (x, dims) not in self._reshaped:
            if isinstance(x, Constant):
                made: Step = self.constant(x.values, "", dims)
            else:
                made = self.operator("RESHAPE", [x], dims, [len(dims), *dims])
            self._reshaped[x, dims] = made
            self._source[made] = x
        return self._reshaped[x, dims]

    def permute(self, x: Step, order: Sequence[int]) -> Step:
        """Extent i of the result is extent order[i] of x."""
        dims = [x.dims[i] for i in order]
        moved = [i for i in order if x.dims[i] > 1]
        if moved == sorted(moved):
            return self.reshape(x, tuple(dims))
        return self.operator("CHANNEL_GATHER", [x], dims, [PERMUTE, *_five(order)])

    def part(self, x: Step, axis: int, first: int, count: int, step: int = 1) -> Step:
        if (first, count, step) == (0, x.dims[axis], 1):
            return x
        dims = (*x.dims[:axis], count, *x.dims[axis + 1:])
        return self.operator("CHANNEL_GATHER", [x], dims, [PART, axis, first, count, step])

    def join(self, operation: str, a: Step, b: Step) -> Step:
        """Element by element; extents are alike or 1."""
        if a is b:
            b = self.affine(b, 1.0, 0.0)
        rank = max(len(a.dims), len(b.dims))
        left, right = [(*s.dims, *[1] * (rank - len(s.dims))) for s in (a, b)]
        dims = tuple(max(m, n) for m, n in zip(left, right))
        constant = isinstance(a, Constant) or isinstance(b, Constant)
        if operation in ("ADD", "MULTIPLY") and not constant and rank <= 3:
            if left == dims and right in (dims, (1, 1, dims[-1])):
                return self.operator(operation, [a, b], dims)
            if right == dims and left == (1, 1, dims[-1]):
                return self.operator(operation, [b, a], dims)
        return self.operator("AFFINE", [a, b], dims, [JOINS[operation], 0])

    def by_axis(self, values: np.ndarray, shape: Shape) -> tuple[np.ndarray, int] | None:
        """A constant beside a value of some shape as n values, each for inner elements in a row;
        None if it goes along more than one axis, or repeats the value."""
        if values.size == 1:
            return values.reshape(-1), 1
        rank = max(values.ndim, len(shape))
        own = (1,) * (rank - values.ndim) + values.shape
        other = (1,) * (rank - len(shape)) + tuple(shape)
        axes = [i for i in range(rank) if own[i] != 1]
        if len(axes) != 1 or own[axes[0]] != other[axes[0]]:
            return None
        return values.reshape(-1), math.prod(other[axes[0] + 1:])

    def placed(self, name: str, n: int, inner: int) -> Step:
        """A value in extents of which one is that of by_axis."""
        x = self.held(name)
        return x if n == 1 or find_axis(x.dims, inner, n) is not None else self.get(name)


def _five(order: Sequence[int]) -> list[int]:
    return [*order, *range(len(order), 5)]


def map_graph(graph: Graph, handlers: dict[str, Callable[[Mapper, Node], None]],
              problems: list[Problem]) -> Program:
    """The program of a graph; what cannot be mapped is added to problems."""
    mapper = Mapper(graph)
    for name, shape in graph.inputs.items():
        mapper.put(name, mapper.add(Input([], dims_of(shape))))
    for node in graph.nodes:
        known = [v for v in node.inputs + node.outputs if v]
        if any(v not in graph.shapes for v in known):
            continue  # reported by shape inference, here or before it
        try:
            if node.op not in handlers:
                raise unknown(node)
            handlers[node.op](mapper, node)
        except (Refusal, *MALFORMED) as error:
            refusal = error if isinstance(error, Refusal) else malformed(error)
            found = problem(graph, node, refusal)
            if all((p.operator, p.node) != (found.operator, found.node) for p in problems):
                problems.append(found)
            for value in node.outputs:  # go on behind it, to find all problems
                if value:
                    mapper.put(value, mapper.add(Input([], dims_of(graph.shapes[value]))))
    if not problems:
        _set_outputs(mapper, problems)
    return mapper.program


def _set_outputs(mapper: Mapper, problems: list[Problem]) -> None:
    graph = mapper.graph
    for name in graph.outputs:
        try:
            leading_of(graph.shapes[name])
            step = mapper.get(name)
            if isinstance(step, (Constant, Input)):
                step = mapper.affine(step, 1.0, 0.0)
            mapper.program.outputs[name] = step
        except Refusal as refusal:
            problems.append(problem(graph, Node("output", name, [name], []), refusal))
